#include "tests/support/ForkedChild.h"

#include <poll.h>
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
    if (pid_ < 0) std::abort();
    if (pid_ == 0) _exit(body());
}

int ForkedChild::Wait() {
    int st = 0;
    if (status_ >= 0) return status_;
    while (waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
    }
    return status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
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
    int v = 0;
    if (poll(&p, 1, timeoutMs) != 1 || read(fds_[0], &v, sizeof(v)) != sizeof(v)) return false;
    if (value != nullptr) *value = v;
    return true;
}

}  // namespace test
}  // namespace mixer
