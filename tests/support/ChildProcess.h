#pragma once

#include <sys/types.h>

#include <functional>

namespace mixer {
namespace test {

// Bytes or ints between a parent and a forked child: "I am there", "go on", results.
// Made before the fork.
class Pipe {
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    bool Send(char c = '.');
    // Waits up to timeoutMs for one byte: the byte, or -1 on time-out or end of file.
    int Receive(int timeoutMs = 20000);
    // True when a byte is waiting or arrives within timeoutMs (nothing is consumed).
    bool Readable(int timeoutMs);
    // Whole ints, for a peer that reports values rather than single bytes. Wait gives up
    // after timeoutMs (a guard against a dead peer) and returns false.
    bool Post(int value = 0);
    bool Wait(int* value = nullptr, int timeoutMs = 20000);

private:
    int fd_[2];
};

// A forked child that runs one function and leaves with _exit, never returning into the
// test framework. The function returns 0 for success or a non-zero code (CHILD_CHECK
// returns its line number), which the parent gets from Wait through a pipe.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int()>& body);
    ~ChildProcess();  // kills and reaps a child that is still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Waits up to timeoutMs for the child to end: the function's result, or -1 when the
    // child died without one or did not end in time (it is killed then).
    int Wait(int timeoutMs = 60000);
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
    int resultFd_;
};

}  // namespace test
}  // namespace mixer

// For child bodies: fail the child with the line number when cond is false.
#define CHILD_CHECK(cond)          \
    do {                           \
        if (!(cond)) return __LINE__; \
    } while (0)
