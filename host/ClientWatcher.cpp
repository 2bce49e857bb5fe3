#include "host/ClientWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {

// -1 with errno set; ENOSYS where the C library or the kernel lacks the call.
int PidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

}  // namespace

ClientWatcher::ClientWatcher()
    : wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), nextId_(1), running_(0), stop_(false), warned_(false) {
    if (wakeFd_ < 0) {
        MIXER_LOG_E("Mixerd_ClientWatcher:eventfd: %s: killed clients are noticed only when they close:",
                    std::strerror(errno));
        return;
    }
    thread_ = std::thread(&ClientWatcher::Run, this);
}

ClientWatcher::~ClientWatcher() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stop_ = true;
    }
    Wake();
    if (thread_.joinable()) thread_.join();
    for (auto& w : watches_) close(w.second.pidfd);
    if (wakeFd_ >= 0) close(wakeFd_);
}

void ClientWatcher::Wake() {
    const uint64_t one = 1;
    ssize_t n = write(wakeFd_, &one, sizeof(one));
    (void)n;  // a full counter wakes the thread as well
}

ClientWatcher::Result ClientWatcher::Watch(pid_t pid, std::function<void()> onEnd, uint64_t& id) {
    id = 0;
    if (pid <= 0 || wakeFd_ < 0) return kUnwatched;
    int fd = PidfdOpen(pid);
    if (fd < 0) {
        if (errno == ESRCH) return kGone;
        const int err = errno;
        std::lock_guard<std::mutex> guard(mutex_);
        if (!warned_)
            MIXER_LOG_W("Mixerd_ClientWatcher:Watch:pidfd_open: %s: killed clients are noticed only when they close:",
                        std::strerror(err));
        warned_ = true;
        return kUnwatched;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        id = nextId_++;
        watches_[id] = Entry{fd, pid, std::move(onEnd)};
    }
    Wake();
    return kWatching;
}

void ClientWatcher::Unwatch(uint64_t id) {
    if (id == 0) return;
    std::unique_lock<std::mutex> lock(mutex_);
    std::map<uint64_t, Entry>::iterator it = watches_.find(id);
    if (it != watches_.end()) {
        // Closed here, so that the daemon's descriptors are back when the stream is gone.
        // The thread may still poll the number: whatever it finds there is looked up by
        // watch, not found, and dropped when the thread rebuilds its set on the wake-up.
        close(it->second.pidfd);
        watches_.erase(it);
        lock.unlock();
        Wake();
        return;
    }
    if (std::this_thread::get_id() == thread_.get_id()) return;  // from inside an action
    fired_.wait(lock, [&] { return running_ != id; });
}

bool ClientWatcher::Supported() {
    int fd = PidfdOpen(getpid());
    if (fd < 0) return false;
    close(fd);
    return true;
}

size_t ClientWatcher::Count() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return watches_.size();
}

void ClientWatcher::Run() {
    std::vector<pollfd> fds;
    std::vector<uint64_t> ids;
    for (;;) {
        fds.assign(1, pollfd{wakeFd_, POLLIN, 0});
        ids.assign(1, 0);
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (stop_) return;
            for (const auto& w : watches_) {
                fds.push_back(pollfd{w.second.pidfd, POLLIN, 0});
                ids.push_back(w.first);
            }
        }
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            MIXER_LOG_E("Mixerd_ClientWatcher:poll: %s: no longer watching clients:", std::strerror(errno));
            return;
        }
        if (fds[0].revents) {
            uint64_t count;
            ssize_t n = read(wakeFd_, &count, sizeof(count));
            (void)n;  // only the wake-up matters
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (!fds[i].revents) continue;
            std::function<void()> onEnd;
            pid_t pid;
            {
                std::lock_guard<std::mutex> guard(mutex_);
                std::map<uint64_t, Entry>::iterator it = watches_.find(ids[i]);
                if (it == watches_.end()) continue;  // unwatched meanwhile
                close(it->second.pidfd);
                pid = it->second.pid;
                onEnd.swap(it->second.onEnd);
                watches_.erase(it);
                running_ = ids[i];
            }
            MIXER_LOG_I("Mixerd_ClientWatcher:process %d ended:", static_cast<int>(pid));
            if (onEnd) onEnd();
            onEnd = nullptr;  // its objects go before Unwatch may return
            {
                std::lock_guard<std::mutex> guard(mutex_);
                running_ = 0;
            }
            fired_.notify_all();
        }
    }
}

}  // namespace host
}  // namespace mixer
