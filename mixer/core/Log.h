#pragma once

#include <cstdint>

#include "mixer/core/Api.h"
#include "orvane_log.h"

namespace mixer {

// Every diagnostic line of the library: "<letter> <Module>:<Operation>:<message>:".
// A line is formatted only when its level's bit is set in g_orvane_log_mask, so a
// cleared bit costs one load and a test.
//
// Threading: any thread. Write() formats into a stack buffer (no allocation) and hands
// the finished line to the sink; the sink must be safe to call from several threads.
class MIXER_API Log {
public:
    enum Level : uint32_t {
        kError = ORVANE_LOG_ERROR,
        kWarning = ORVANE_LOG_WARNING,
        kInfo = ORVANE_LOG_INFO,
        kDebug = ORVANE_LOG_DEBUG,
        kPerf = ORVANE_LOG_PERF,
    };

    // Receives the syslog priority and the finished line (no trailing line feed).
    typedef void (*Sink)(int priority, const char* line);

    static bool Enabled(Level level) { return (g_orvane_log_mask & level) != 0; }

    // Writes "<letter> " followed by the formatted text. Callers go through the
    // MIXER_LOG macros, which test the mask before any argument is evaluated.
    static void Write(Level level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Replaces the sink (null restores syslog); returns the previous one.
    static Sink SetSink(Sink sink);

    // Wall clock for the performance trace lines' "Timestamp-%d.%06d" field.
    static void Now(int& sec, int& usec);
};

}  // namespace mixer

#define MIXER_LOG(level, ...)                                   \
    do {                                                        \
        if (::mixer::Log::Enabled(level))                       \
            ::mixer::Log::Write(level, __VA_ARGS__);            \
    } while (0)
#define MIXER_LOG_E(...) MIXER_LOG(::mixer::Log::kError, __VA_ARGS__)
#define MIXER_LOG_W(...) MIXER_LOG(::mixer::Log::kWarning, __VA_ARGS__)
#define MIXER_LOG_I(...) MIXER_LOG(::mixer::Log::kInfo, __VA_ARGS__)
#define MIXER_LOG_D(...) MIXER_LOG(::mixer::Log::kDebug, __VA_ARGS__)
// Performance trace: the format carries "Timestamp-%d.%06d" where the caller wants it;
// MIXER_LOG_P supplies the wall-clock seconds and microseconds as its first arguments.
#define MIXER_LOG_P(fmt, ...)                                                   \
    do {                                                                        \
        if (::mixer::Log::Enabled(::mixer::Log::kPerf)) {                       \
            int mixer_log_sec_, mixer_log_usec_;                                \
            ::mixer::Log::Now(mixer_log_sec_, mixer_log_usec_);                 \
            ::mixer::Log::Write(::mixer::Log::kPerf, fmt, mixer_log_sec_,       \
                                mixer_log_usec_, ##__VA_ARGS__);                \
        }                                                                       \
    } while (0)
