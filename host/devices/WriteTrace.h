#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "mixer/core/AudioFrame.h"

namespace mixer {
namespace host {

// For benchmarks: one line per frame a device has taken, "<monotonic clock in us> <the
// frame's buffer ids>", written after the device's write returned. A client that names
// its blocks after their commit time (the benchmark client does) can then tell how long
// each block took to reach the device. Off unless mixerd is given --write-trace.
//
// Threading: Record on the thread of the engine that holds the device; no lock. Record
// formats into the file's stdio buffer (no allocation; a write when it fills).
class WriteTrace {
public:
    // The trace file, created or truncated; empty after an error line.
    static std::shared_ptr<WriteTrace> Open(const std::string& path);
    ~WriteTrace();
    WriteTrace(const WriteTrace&) = delete;
    WriteTrace& operator=(const WriteTrace&) = delete;

    void Record(const AudioFrame& frame);

private:
    explicit WriteTrace(FILE* file) : file_(file) {}
    FILE* file_;
};

}  // namespace host
}  // namespace mixer
