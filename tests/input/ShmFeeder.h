#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "shmbuf.h"
#include "shmq.h"
#include "tests/support/ChildProcess.h"

namespace mixer {
namespace test {

// n bytes of test signal; seed 0 is silence.
inline std::vector<uint8_t> Pattern(int seed, size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = seed == 0 ? 0 : static_cast<uint8_t>(seed * 31 + i * 7 + 1);
    return v;
}

// A writer process owning the writing side of a shared queue (msgSize 0) or buffer
// (msgSize > 0); each call returns once the writer has done the step.
class ShmFeeder {
public:
    ShmFeeder(const std::string& name, uint32_t msgSize, uint32_t capacity)
        : child_([&] { return Run(name, msgSize, capacity); }) {
        int ok = 0;
        created_ = done_.Wait(&ok) && ok == 1;
    }
    ~ShmFeeder() {
        Send(kExit, 0, 0, false);
        child_.Wait();
    }
    bool created() const { return created_; }
    // count bytes (queue) or messages (buffer) of Pattern(seed): the writer's result.
    int Write(int count, int seed) { return Send(kWrite, count, seed, true); }
    int HangUp() { return Send(kHangUp, 0, 0, true); }

private:
    enum Op { kWrite, kHangUp, kExit };

    int Send(int op, int count, int seed, bool reply) {
        todo_.Post(op);
        todo_.Post(count);
        todo_.Post(seed);
        int result = -99;
        return reply && done_.Wait(&result) ? result : -99;
    }

    int Run(const std::string& name, uint32_t msgSize, uint32_t capacity) {
        ShmQHandle* q = msgSize == 0 ? ShmQCreate(name.c_str(), int32_t(capacity)) : nullptr;
        ShmbufHandle* b = msgSize != 0 ? ShmbufCreate(name.c_str(), msgSize, capacity) : nullptr;
        done_.Post(q != nullptr || b != nullptr);
        int op = kExit, count = 0, seed = 0;
        while (todo_.Wait(&op) && todo_.Wait(&count) && todo_.Wait(&seed) && op != kExit) {
            const std::vector<uint8_t> data = Pattern(seed, (msgSize ? msgSize : 1) * count);
            if (op == kWrite)
                done_.Post(q ? ShmQWrite(q, data.data(), count, 0) : ShmbufWrite(b, data.data(), count, 0));
            else
                done_.Post(q ? ShmQHangUp(q) : ShmbufHangUp(b));
        }
        ShmQClose(q);
        ShmbufClose(b);
        return 0;
    }

    Pipe todo_, done_;
    bool created_ = false;
    ChildProcess child_;  // last: starts once the gates exist
};

}  // namespace test
}  // namespace mixer
