#pragma once

#include <functional>

namespace mixer {
namespace test {

// A child process running body; its result (0..255) is the exit status. The child
// leaves with _exit, so nothing of the parent's test runs twice.
class ForkedChild {
public:
    explicit ForkedChild(std::function<int()> body);
    ~ForkedChild() { Wait(); }  // a test that failed early still reaps its child
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;
    // The child's exit status, or 128 + the signal that ended it.
    int Wait();

private:
    int pid_;
    int status_ = -1;
};

// Wake-ups carrying an int from one process to another over a pipe; made before the
// fork. Wait gives up after timeoutMs (a guard against a dead peer) and returns false.
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
