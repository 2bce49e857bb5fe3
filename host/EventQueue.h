#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace mixer {
namespace host {

// Events for other processes (stream added, stream removed, focus changed), queued by
// whichever thread notices them and sent from the daemon's main thread, so that the
// engine threads never wait on the event bus. Fd() becomes readable while events are
// queued.
//
// Threading: Push from any thread; Fd and Deliver on the main thread. mutex_ guards
// the queue; Deliver calls the sender without holding it.
class EventQueue {
public:
    typedef std::function<void(const std::string& event, const std::string& param)> Sender;

    EventQueue();
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    bool Ok() const { return fd_ >= 0; }
    int Fd() const { return fd_; }
    void Push(const std::string& event, const std::string& param);
    // Sends every queued event in order; returns how many.
    unsigned Deliver(const Sender& send);

private:
    int fd_;  // eventfd
    std::mutex mutex_;
    std::deque<std::pair<std::string, std::string>> events_;  // GUARDED_BY(mutex_)
};

}  // namespace host
}  // namespace mixer
