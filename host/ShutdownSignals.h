#pragma once

namespace mixer {
namespace host {

// Turns SIGTERM and SIGINT into a readable descriptor (signalfd), so the daemon's main
// thread can wait for them with poll next to its other descriptors. The signals are
// blocked in the calling thread and in every thread it starts afterwards, so construct
// this before any other thread exists.
//
// Threading: the main thread only. Restores the old signal mask on destruction.
class ShutdownSignals {
public:
    ShutdownSignals();
    ~ShutdownSignals();
    ShutdownSignals(const ShutdownSignals&) = delete;
    ShutdownSignals& operator=(const ShutdownSignals&) = delete;

    bool Ok() const { return fd_ >= 0; }
    int Fd() const { return fd_; }
    // Takes one pending signal: its number, or 0 when none is pending.
    int Take();

private:
    int fd_;
    unsigned char oldMask_[128];  // sigset_t, kept opaque here
};

}  // namespace host
}  // namespace mixer
