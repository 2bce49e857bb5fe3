#pragma once

#include <cstdint>
#include <vector>

#include "host/RealTimePacer.h"

namespace mixer {
namespace test {

// A clock that only moves when someone sleeps on it or a test advances it; it records
// every sleep's deadline.
class FakeClock : public host::RealTimePacer::Clock {
public:
    FakeClock() : now(1000000) {}
    int64_t NowUs() override { return now; }
    void SleepUntilUs(int64_t whenUs) override {
        sleeps.push_back(whenUs);
        if (whenUs > now) now = whenUs;
    }
    int64_t now;
    std::vector<int64_t> sleeps;
};

}  // namespace test
}  // namespace mixer
