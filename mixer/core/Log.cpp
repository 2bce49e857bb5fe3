#include "mixer/core/Log.h"

#include <sys/time.h>
#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace mixer {

namespace {

void SyslogSink(int priority, const char* line) { syslog(priority, "%s", line); }

std::atomic<Log::Sink> g_sink{&SyslogSink};

}  // namespace

void Log::Write(Level level, const char* fmt, ...) {
    char letter;
    int priority;
    switch (level) {
        case kError: letter = 'E'; priority = LOG_ERR; break;
        case kWarning: letter = 'W'; priority = LOG_WARNING; break;
        case kInfo: letter = 'I'; priority = LOG_NOTICE; break;
        case kDebug: letter = 'D'; priority = LOG_DEBUG; break;
        default: letter = 'P'; priority = LOG_DEBUG; break;
    }
    char line[1024];
    line[0] = letter;
    line[1] = ' ';
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line + 2, sizeof(line) - 2, fmt, ap);
    va_end(ap);
    g_sink.load(std::memory_order_acquire)(priority, line);
}

Log::Sink Log::SetSink(Sink sink) {
    return g_sink.exchange(sink ? sink : &SyslogSink, std::memory_order_acq_rel);
}

void Log::Now(int& sec, int& usec) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    sec = static_cast<int>(tv.tv_sec);
    usec = static_cast<int>(tv.tv_usec);
}

}  // namespace mixer
