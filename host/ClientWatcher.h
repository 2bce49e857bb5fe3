#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace mixer {
namespace host {

// Tells the daemon when a client process ends, however it ends: a client that was
// killed never closes its queue, so the daemon has to notice by itself. Each watched
// process is a pidfd (opened when the watch starts, so a pid that is reused later is
// not mistaken for the client), polled by one thread of this class.
//
// Threading: Watch and Unwatch from any thread; they lock mutex_ briefly and wake the
// watcher thread through an eventfd. onEnd runs on the watcher thread, without
// mutex_, and must not call Watch or Unwatch; Unwatch waits while the onEnd of that
// watch runs, so after it returns the action's objects may go. Watch allocates.
class ClientWatcher {
public:
    enum Result {
        kWatching,  // onEnd will run once the process ends (unless unwatched first)
        kGone,      // the process has ended already: onEnd is not kept
        kUnwatched  // cannot watch here (no pidfd on this kernel or emulator, bad pid)
    };

    ClientWatcher();
    ~ClientWatcher();  // stops the thread; pending actions are dropped
    ClientWatcher(const ClientWatcher&) = delete;
    ClientWatcher& operator=(const ClientWatcher&) = delete;

    // id receives the watch's number for Unwatch (0 unless kWatching).
    Result Watch(pid_t pid, std::function<void()> onEnd, uint64_t& id);
    // Ends a watch; nothing when it has fired or is unknown (0).
    void Unwatch(uint64_t id);

    size_t Count() const;  // watches still pending

    // True when this kernel (or emulator) hands out pidfds, so that Watch can work.
    static bool Supported();

private:
    struct Entry {
        int pidfd;
        pid_t pid;
        std::function<void()> onEnd;
    };
    void Run();
    void Wake();

    int wakeFd_;  // eventfd: a watch was added or the thread is to stop
    mutable std::mutex mutex_;
    std::condition_variable fired_;    // a running action has finished
    std::map<uint64_t, Entry> watches_;  // GUARDED_BY(mutex_)
    uint64_t nextId_;                    // GUARDED_BY(mutex_)
    uint64_t running_;                   // GUARDED_BY(mutex_): the watch whose action runs, 0 for none
    bool stop_;                          // GUARDED_BY(mutex_)
    bool warned_;                        // GUARDED_BY(mutex_): "no pidfd" logged once
    std::thread thread_;
};

}  // namespace host
}  // namespace mixer
