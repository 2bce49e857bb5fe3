#include "tests/support/ForkedChild.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace mixer {
namespace test {

ForkedChild::ForkedChild(std::function<int()> body) {
    std::fflush(nullptr);  // nothing buffered is written twice
    pid_ = fork();
    if (pid_ == 0) {
        int rc = 255;
        try {
            rc = body();
        } catch (...) {
        }
        _exit(rc);
    }
    if (pid_ < 0) std::abort();
}

ForkedChild::~ForkedChild() {
    if (status_ < 0) Wait();
}

int ForkedChild::Wait() {
    if (status_ >= 0) return status_;
    int st = 0;
    while (waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
    }
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return status_;
}

Gate::Gate() {
    if (pipe(fds_) != 0) std::abort();
}

Gate::~Gate() {
    close(fds_[0]);
    close(fds_[1]);
}

void Gate::Post(int value) {
    while (write(fds_[1], &value, sizeof(value)) < 0 && errno == EINTR) {
    }
}

bool Gate::Wait(int* value, int timeoutMs) {
    pollfd p = {fds_[0], POLLIN, 0};
    int r;
    while ((r = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
    }
    if (r != 1) return false;
    int v = 0;
    if (read(fds_[0], &v, sizeof(v)) != static_cast<ssize_t>(sizeof(v))) return false;
    if (value != nullptr) *value = v;
    return true;
}

}  // namespace test
}  // namespace mixer
