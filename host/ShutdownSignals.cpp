#include "host/ShutdownSignals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

static_assert(sizeof(sigset_t) <= 128, "sigset_t does not fit the saved mask");

ShutdownSignals::ShutdownSignals() : fd_(-1) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &set, &old);
    std::memcpy(oldMask_, &old, sizeof(old));
    fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) MIXER_LOG_E("Mixerd:ShutdownSignals:signalfd: %s:", std::strerror(errno));
}

ShutdownSignals::~ShutdownSignals() {
    if (fd_ >= 0) close(fd_);
    sigset_t old;
    std::memcpy(&old, oldMask_, sizeof(old));
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

int ShutdownSignals::Take() {
    signalfd_siginfo info;
    ssize_t n = read(fd_, &info, sizeof(info));
    return n == static_cast<ssize_t>(sizeof(info)) ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace host
}  // namespace mixer
