#include "tests/notify/PrivateBus.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "nexo.h"

namespace mixer {
namespace test {

PrivateBus::PrivateBus() {
    int out[2];
    if (pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        // The daemon is a program of this machine: give it a plain environment, not
        // the one an emulator may have set up for the test.
        char* const argv[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>("--session"),
                              const_cast<char*>("--print-address"),
                              const_cast<char*>("--nofork"), nullptr};
        char* const envp[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};
        execve("/usr/bin/dbus-daemon", argv, envp);
        _exit(127);
    }
    close(out[1]);
    // The first line the daemon prints is its address, once it listens.
    char c;
    while (pid_ > 0 && read(out[0], &c, 1) == 1 && c != '\n') address_ += c;
    close(out[0]);
    if (!address_.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() { Stop(); }

void PrivateBus::Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

EventListener::EventListener() {
    if (sd_bus_open_user(&bus_) < 0) {
        bus_ = nullptr;
        return;
    }
    // Synchronous: the daemon has the match when this returns.
    if (sd_bus_match_signal(bus_, &slot_, nullptr, NEXO_OBJECT_PATH, NEXO_INTERFACE, NEXO_MEMBER,
                            &EventListener::OnEvent, this) < 0)
        slot_ = nullptr;
}

EventListener::~EventListener() {
    sd_bus_slot_unref(slot_);
    sd_bus_flush_close_unref(bus_);
}

int EventListener::OnEvent(sd_bus_message* m, void* self, sd_bus_error*) {
    const char* event = nullptr;
    const char* params = nullptr;
    if (sd_bus_message_read(m, "ss", &event, &params) >= 0)
        static_cast<EventListener*>(self)->seen_.push_back(SeenEvent{event, params});
    return 0;
}

bool EventListener::WaitFor(size_t count, int timeoutMs) {
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    while (seen_.size() < count) {
        const int r = sd_bus_process(bus_, nullptr);
        if (r < 0) return false;
        if (r > 0) continue;  // more may be queued
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long elapsedMs = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsedMs >= timeoutMs) return false;
        if (sd_bus_wait(bus_, static_cast<uint64_t>(timeoutMs - elapsedMs) * 1000) < 0) return false;
    }
    return true;
}

}  // namespace test
}  // namespace mixer
