#include "host/EventQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace mixer {
namespace host {

EventQueue::EventQueue() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

EventQueue::~EventQueue() {
    if (fd_ >= 0) close(fd_);
}

void EventQueue::Push(const std::string& event, const std::string& param) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        events_.emplace_back(event, param);
    }
    uint64_t one = 1;
    ssize_t n = write(fd_, &one, sizeof(one));
    (void)n;  // the counter cannot overflow at one per event
}

unsigned EventQueue::Deliver(const Sender& send) {
    uint64_t count;
    ssize_t n = read(fd_, &count, sizeof(count));  // clears readiness; the queue says what is due
    (void)n;
    std::deque<std::pair<std::string, std::string>> due;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        due.swap(events_);
    }
    for (const auto& e : due) send(e.first, e.second);
    return static_cast<unsigned>(due.size());
}

}  // namespace host
}  // namespace mixer
