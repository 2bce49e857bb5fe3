#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace mixer {
namespace host {

// Tells the service manager that the daemon lives (sd_notify "WATCHDOG=1") for as long
// as a check passes, so that a daemon wedged anywhere is killed and restarted: the
// manager's watchdog interval (WATCHDOG_USEC) is read at Start, the check runs and the
// daemon pets ten times per interval, and a failing check stops the pets (logged once
// per failure, with the check's reason). Without a manager's watchdog it does nothing.
// Also says READY=1 and STOPPING=1 when told. A Watchdog is started at most once.
//
// Threading: Start, Ready, Stopping and the destructor on the daemon's main thread; the
// check runs on the watchdog's own thread and must not block. Its thread waits on a
// private condition between pets.
class Watchdog {
public:
    // The reason the daemon is not healthy, empty when it is; maxAgeMs: how old an
    // engine's last sign of life may be (half the manager's interval).
    typedef std::function<std::string(unsigned maxAgeMs)> Check;

    explicit Watchdog(Check check);
    ~Watchdog();  // stops the thread
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Starts petting when the manager watches the daemon. True when it does.
    bool Start();
    void Ready();
    // Stops the pets and says STOPPING=1.
    void Stopping();

private:
    void Stop();
    void Run(uint64_t intervalUs);

    Check check_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace host
}  // namespace mixer
