#pragma once
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
namespace mixer::test {
// Bytes or ints between a forked child and its parent; a read gives up after timeoutMs (-1: never).
class Pipe {
public:
    Pipe() { if (pipe(fd_) != 0) abort(); }
    ~Pipe() { close(fd_[0]), close(fd_[1]); }
    Pipe(const Pipe&) = delete;  // owns its descriptors
    bool Send(char c = '.') { return Write(c); }
    int Receive(int timeoutMs = 20000) { unsigned char c; return Read(c, timeoutMs) ? c : -1; }
    bool Readable(int timeoutMs) {  // a byte (or the end) is there; consumes nothing
        struct pollfd p = {fd_[0], POLLIN, 0}; int rc;
        do rc = poll(&p, 1, timeoutMs); while (rc < 0 && errno == EINTR);
        return rc > 0;
    }
    bool Post(int value = 0) { return Write(value); }
    bool Wait(int* value = nullptr, int timeoutMs = 20000) { int v = 0; return Read(v, timeoutMs) && (!value || (*value = v, true)); }
    void CloseWriteEnd() { close(fd_[1]), fd_[1] = -1; }  // in the reader, so that it sees the writer end
private:
    template <class T> bool Write(T v) { return write(fd_[1], &v, sizeof(v)) == static_cast<ssize_t>(sizeof(v)); }
    template <class T> bool Read(T& v, int ms) { return Readable(ms) && read(fd_[0], &v, sizeof(v)) == static_cast<ssize_t>(sizeof(v)); }
    int fd_[2];
};

// A forked child that runs body (0 or a failure code) and leaves with _exit, never returning into the test framework.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int()>& body) {
        std::fflush(nullptr);  // nothing buffered is written twice
        if ((pid_ = fork()) < 0) abort();
        if (pid_ == 0) { const int result = body(); _exit(result_.Post(result) && result == 0 ? 0 : 1); }
        result_.CloseWriteEnd();
    }
    ~ChildProcess() { if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0); }
    // The body's result, or -1 when the child died without one or did not end in time (it is killed then).
    int Wait(int timeoutMs = 60000) {
        int result = -1;
        if (pid_ > 0 && !result_.Wait(&result, timeoutMs)) kill(pid_, SIGKILL);
        if (pid_ > 0) waitpid(pid_, nullptr, 0), pid_ = -1;
        return result;
    }
    pid_t pid() const { return pid_; }
private:
    Pipe result_;
    pid_t pid_ = -1;
};
}  // namespace mixer::test
#define CHILD_CHECK(cond) do { if (!(cond)) return __LINE__; } while (0)  // fails a child body with its line
