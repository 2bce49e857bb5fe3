#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "shmbuf.h"
#include "shmq.h"
#include "tests/support/ForkedChild.h"

namespace mixer {
namespace test {

// Byte i of the test stream with the given seed; seed 0 is silence.
inline uint8_t PatternByte(int seed, size_t i) {
    return seed == 0 ? 0 : static_cast<uint8_t>(seed * 31 + i * 7 + 1);
}

inline std::vector<uint8_t> Pattern(int seed, size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = PatternByte(seed, i);
    return v;
}

// A writer process that owns the writing side of a shared queue (msgSize 0) or of a
// shared buffer (msgSize > 0) and does what the test tells it, one step at a time:
// every call returns once the writer has done it.
class ShmFeeder {
public:
    ShmFeeder(const std::string& name, uint32_t msgSize, uint32_t capacity)
        : child_([&] { return Run(name, msgSize, capacity); }) {
        int ok = 0;
        created_ = done_.Wait(&ok) && ok == 1;
    }

    ~ShmFeeder() {
        todo_.Post(kExit);
        todo_.Post(0);
        todo_.Post(0);
        child_.Wait();
    }

    bool created() const { return created_; }

    // Writes count bytes (queue) or count messages (buffer) of pattern seed; returns
    // what the writer's call returned.
    int Write(int count, int seed) { return Send(kWrite, count, seed); }
    int HangUp() { return Send(kHangUp, 0, 0); }
    // Closes the writing side (which also hangs up and removes the name).
    int Close() { return Send(kClose, 0, 0); }

private:
    enum Op { kWrite, kHangUp, kClose, kExit };

    int Send(int op, int count, int seed) {
        todo_.Post(op);
        todo_.Post(count);
        todo_.Post(seed);
        int result = -99;
        return done_.Wait(&result) ? result : -99;
    }

    int Run(const std::string& name, uint32_t msgSize, uint32_t capacity) {
        ShmQHandle* q = nullptr;
        ShmbufHandle* b = nullptr;
        if (msgSize == 0)
            q = ShmQCreate(name.c_str(), static_cast<int32_t>(capacity));
        else
            b = ShmbufCreate(name.c_str(), msgSize, capacity);
        done_.Post(q != nullptr || b != nullptr ? 1 : 0);
        for (;;) {
            int op = kExit, count = 0, seed = 0;
            if (!todo_.Wait(&op) || !todo_.Wait(&count) || !todo_.Wait(&seed)) op = kExit;
            int result = 0;
            switch (op) {
                case kWrite: {
                    const size_t unit = msgSize == 0 ? 1 : msgSize;
                    const std::vector<uint8_t> data = Pattern(seed, unit * count);
                    result = q != nullptr ? ShmQWrite(q, data.data(), count, 0)
                                          : ShmbufWrite(b, data.data(), count, 0);
                    break;
                }
                case kHangUp:
                    result = q != nullptr ? ShmQHangUp(q) : ShmbufHangUp(b);
                    break;
                case kClose:
                case kExit:
                    ShmQClose(q);
                    ShmbufClose(b);
                    q = nullptr;
                    b = nullptr;
                    break;
            }
            if (op == kExit) return 0;
            done_.Post(result);
        }
    }

    Gate todo_;
    Gate done_;
    bool created_ = false;
    ForkedChild child_;  // last: starts once the gates exist
};

}  // namespace test
}  // namespace mixer
