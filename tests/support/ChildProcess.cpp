#include "tests/support/ChildProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace mixer {
namespace test {

namespace {

bool WaitReadable(int fd, int timeoutMs) {
    struct pollfd p = {fd, POLLIN, 0};
    for (;;) {
        const int rc = poll(&p, 1, timeoutMs);
        if (rc < 0 && errno == EINTR) continue;
        return rc > 0;
    }
}

}  // namespace

Pipe::Pipe() {
    if (pipe(fd_) != 0) abort();
}

Pipe::~Pipe() {
    close(fd_[0]);
    close(fd_[1]);
}

bool Pipe::Send(char c) { return write(fd_[1], &c, 1) == 1; }

int Pipe::Receive(int timeoutMs) {
    if (!WaitReadable(fd_[0], timeoutMs)) return -1;
    char c;
    return read(fd_[0], &c, 1) == 1 ? static_cast<unsigned char>(c) : -1;
}

bool Pipe::Readable(int timeoutMs) { return WaitReadable(fd_[0], timeoutMs); }

bool Pipe::Post(int value) {
    ssize_t n;
    while ((n = write(fd_[1], &value, sizeof(value))) < 0 && errno == EINTR) {
    }
    return n == static_cast<ssize_t>(sizeof(value));
}

bool Pipe::Wait(int* value, int timeoutMs) {
    int v = 0;
    if (!WaitReadable(fd_[0], timeoutMs) || read(fd_[0], &v, sizeof(v)) != static_cast<ssize_t>(sizeof(v)))
        return false;
    if (value != nullptr) *value = v;
    return true;
}

ChildProcess::ChildProcess(const std::function<int()>& body) : pid_(-1), resultFd_(-1) {
    int fds[2];
    if (pipe(fds) != 0) abort();
    std::fflush(nullptr);  // nothing buffered is written twice
    pid_ = fork();
    if (pid_ < 0) abort();
    if (pid_ == 0) {
        close(fds[0]);
        const int result = body();
        ssize_t ignored = write(fds[1], &result, sizeof(result));
        (void)ignored;
        _exit(result == 0 ? 0 : 1);
    }
    close(fds[1]);
    resultFd_ = fds[0];
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (resultFd_ >= 0) close(resultFd_);
}

int ChildProcess::Wait(int timeoutMs) {
    if (pid_ <= 0) return -1;
    int result = -1;
    // The result arrives just before the child exits; end of file means it died.
    if (WaitReadable(resultFd_, timeoutMs)) {
        if (read(resultFd_, &result, sizeof(result)) != static_cast<ssize_t>(sizeof(result))) result = -1;
    } else {
        kill(pid_, SIGKILL);
    }
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    return result;
}

}  // namespace test
}  // namespace mixer
