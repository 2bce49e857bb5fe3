#include "host/Watchdog.h"

#include <systemd/sd-daemon.h>

#include <chrono>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

Watchdog::Watchdog(Check check) : check_(check), stopping_(false) {}

Watchdog::~Watchdog() { Stop(); }

void Watchdog::Stop() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = true;
    }
    stop_.notify_all();
    if (thread_.joinable()) thread_.join();
}

bool Watchdog::Start() {
    uint64_t us = 0;
    if (thread_.joinable() || sd_watchdog_enabled(0, &us) <= 0 || us == 0) return false;
    thread_ = std::thread(&Watchdog::Run, this, us);
    MIXER_LOG_I("Mixerd:Watchdog:every %llu ms:", static_cast<unsigned long long>(us / 1000));
    return true;
}

void Watchdog::Ready() { sd_notify(0, "READY=1"); }

void Watchdog::Stopping() {
    Stop();  // the engines are about to stop beating, as they should
    sd_notify(0, "STOPPING=1");
}

void Watchdog::Run(uint64_t intervalUs) {
    const std::chrono::microseconds every(intervalUs / 10);
    const unsigned maxAgeMs = static_cast<unsigned>(intervalUs / 2000);
    std::string failing;  // the reason logged last: each failure is logged once
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        const std::string reason = check_(maxAgeMs);
        if (reason.empty()) {
            sd_notify(0, "WATCHDOG=1");
            if (!failing.empty()) MIXER_LOG_I("Mixerd:Watchdog:healthy again:");
        } else if (reason != failing) {
            MIXER_LOG_E("Mixerd:Watchdog:%s: the service manager is no longer told the daemon lives:", reason.c_str());
        }
        failing = reason;
        stop_.wait_for(lock, every, [this] { return stopping_; });
    }
}

}  // namespace host
}  // namespace mixer
