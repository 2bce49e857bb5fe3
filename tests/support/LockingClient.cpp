#include "tests/support/LockingClient.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace test {

namespace {

const int kForever = -1;

int RunClient(const std::string& name, const LockingClient::Options& o, Pipe& in, Pipe& out) {
    // Never outlive a test process that crashed: the child may be holding a lock.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A client that neither creates nor feeds the queue is not an end of it: it only
    // holds the lock, and closes nothing when it finishes.
    DataTrans dt;
    if (o.create)
        CHILD_CHECK(dt.Init(name.c_str(), o.numBlk, o.blkSize) == 0);
    else if (o.feed || !o.blocks.empty())
        CHILD_CHECK(dt.Init(name.c_str()) == 0);
    // The lock is taken through a mapping of its own, not through a queue operation, so
    // that the child holds it for as long as the test wants.
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    CHILD_CHECK(fd >= 0);
    void* base = mmap(nullptr, sizeof(StreamQueue), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    CHILD_CHECK(base != MAP_FAILED);
    StreamQueue* q = static_cast<StreamQueue*>(base);
    for (const std::string& b : o.blocks) {
        int err = 0;
        char* p = dt.GetWriteBuff(err, 0);
        CHILD_CHECK(p != nullptr && b.size() <= dt.GetUserBlkSize());
        memcpy(p, b.data(), b.size());
        CHILD_CHECK(dt.CommitWriteBuff(static_cast<unsigned>(b.size()), nullptr));
    }
    CHILD_CHECK(out.Send('r'));
    bool locked = false;
    for (;;) {
        int c;
        if (o.feed && !locked && !in.Readable(0)) {
            int err = 0;
            char* p = dt.GetWriteBuff(err, 20);
            if (p != nullptr) {
                memset(p, 0, dt.GetUserBlkSize());
                dt.CommitWriteBuff(dt.GetUserBlkSize(), nullptr);
            }
            continue;
        }
        c = in.Receive(kForever);
        if (c == 'l') {
            CHILD_CHECK(pthread_mutex_lock(&q->mutex) == 0);
            locked = true;
            CHILD_CHECK(out.Send('l'));
        } else if (c == 'u') {
            CHILD_CHECK(locked && pthread_mutex_unlock(&q->mutex) == 0);
            locked = false;
            CHILD_CHECK(out.Send('u'));
        } else {
            if (locked) pthread_mutex_unlock(&q->mutex);
            munmap(base, sizeof(StreamQueue));
            dt.DeInit();
            return 0;
        }
    }
}

}  // namespace

bool RobustLocksAvailable() {
    // The C library makes a robust lock even where nothing keeps the thread's robust
    // list (qemu-user answers the kernel call with ENOSYS): it is the kernel's walk of
    // that list at thread exit that marks a dead owner's locks.
    void* head = nullptr;
    size_t len = 0;
    return syscall(SYS_get_robust_list, 0, &head, &len) == 0;
}

LockingClient::LockingClient(const std::string& name, const Options& options)
    : child_([&] { return RunClient(name, options, toChild_, toParent_); }), done_(false) {}

LockingClient::~LockingClient() {
    if (!done_) Kill();
}

bool LockingClient::Ready() { return toParent_.Receive() == 'r'; }

bool LockingClient::Lock() { return toChild_.Send('l') && toParent_.Receive() == 'l'; }

bool LockingClient::Unlock() { return toChild_.Send('u') && toParent_.Receive() == 'u'; }

bool LockingClient::Stop() {
    if (kill(child_.pid(), SIGSTOP) != 0) return false;
    int status = 0;
    return waitpid(child_.pid(), &status, WUNTRACED) == child_.pid() && WIFSTOPPED(status);
}

bool LockingClient::Continue() { return kill(child_.pid(), SIGCONT) == 0; }

void LockingClient::Kill() {
    if (done_) return;
    kill(child_.pid(), SIGKILL);
    child_.Wait();
    done_ = true;
}

int LockingClient::Finish() {
    toChild_.Send('q');
    done_ = true;
    return child_.Wait();
}

}  // namespace test
}  // namespace mixer
