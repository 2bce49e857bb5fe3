#pragma once

#include <functional>

namespace mixer {
namespace test {

// A child process running body; its result (0..255) is the exit status. The child
// leaves with _exit, so no test fixture or static of the parent runs twice.
class ForkedChild {
public:
    explicit ForkedChild(std::function<int()> body);
    // Waits for the child if Wait was not called (a test that failed early).
    ~ForkedChild();
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

    // Waits for the child to end: its exit status, or 128 + the signal that ended it.
    int Wait();
    int pid() const { return pid_; }

private:
    int pid_;
    int status_ = -1;
};

// One-way wake-ups between processes over a pipe: Post in one, Wait in the other.
// Create it before forking. Wait gives up after timeoutMs (a guard against a peer
// that died, not a pacing device) and then returns false.
class Gate {
public:
    Gate();
    ~Gate();
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void Post(int value = 0);
    bool Wait(int* value = nullptr, int timeoutMs = 20000);

private:
    int fds_[2];
};

}  // namespace test
}  // namespace mixer
