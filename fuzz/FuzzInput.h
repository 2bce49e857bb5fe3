#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <string>

#include "mixer/core/Log.h"

namespace mixer {
namespace fuzz {

// Takes the fuzzer's bytes front to back; past the end every value is 0, so any input
// is a complete script.
//
// Threading: one object per run, used by the fuzzing thread only.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size), pos_(0) {}

    bool Empty() const { return pos_ >= size_; }
    size_t Left() const { return Empty() ? 0 : size_ - pos_; }
    uint8_t Byte() { return Empty() ? 0 : data_[pos_++]; }
    uint16_t U16() {
        const uint16_t lo = Byte();
        return static_cast<uint16_t>(lo | (Byte() << 8));
    }
    uint32_t U32() {
        const uint32_t lo = U16();
        return lo | (static_cast<uint32_t>(U16()) << 16);
    }
    // Up to n bytes (fewer at the end).
    std::string Bytes(size_t n) {
        if (n > Left()) n = Left();
        std::string out(reinterpret_cast<const char*>(data_ + pos_), n);
        pos_ += n;
        return out;
    }
    std::string Rest() { return Bytes(Left()); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_;
};

// Every log line is formatted (hostile strings go through the formats) and dropped:
// syslog would only slow the runs down.
inline void DropLogLines() {
    Log::SetSink([](int, const char*) {});
    g_orvane_log_mask = 0xFFFFFFFFu;
}

// A shared-memory name of this process and run; the target unlinks it after each run.
inline std::string ShmName(const char* tag) {
    static unsigned run = 0;
    return "/mixfuzz-" + std::to_string(getpid()) + "-" + tag + "-" + std::to_string(run++);
}

// Ends the run as a finding when an invariant does not hold.
#define FUZZ_CHECK(cond)                                                          \
    do {                                                                          \
        if (!(cond)) {                                                            \
            std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                         \
        }                                                                         \
    } while (0)

}  // namespace fuzz
}  // namespace mixer
