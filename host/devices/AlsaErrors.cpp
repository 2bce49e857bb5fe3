#include "host/devices/AlsaErrors.h"

#include <alsa/asoundlib.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {

void Handler(const char* file, int line, const char* function, int err, const char* fmt, ...) {
    if (!Log::Enabled(Log::kWarning)) return;
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    (void)file;
    (void)line;
    MIXER_LOG_W("Mixerd_Alsa:%s:%s (%d):", function ? function : "?", text, err);
}

}  // namespace

void AlsaRouteErrorsToLog() {
    static std::once_flag once;
    std::call_once(once, [] { snd_lib_error_set_handler(&Handler); });
}

}  // namespace host
}  // namespace mixer
