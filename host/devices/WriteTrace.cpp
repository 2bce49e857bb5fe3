#include "host/devices/WriteTrace.h"

#include <time.h>

#include <cerrno>
#include <cstring>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

std::shared_ptr<WriteTrace> WriteTrace::Open(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) {
        MIXER_LOG_E("Mixerd_WriteTrace:Open:%s: %s:", path.c_str(), std::strerror(errno));
        return std::shared_ptr<WriteTrace>();
    }
    return std::shared_ptr<WriteTrace>(new WriteTrace(f));
}

WriteTrace::~WriteTrace() { std::fclose(file_); }

void WriteTrace::Record(const AudioFrame& frame) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::fprintf(file_, "%lld %.*s\n", static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000,
                 static_cast<int>(kBufIdLen), frame.bufId);
}

}  // namespace host
}  // namespace mixer
