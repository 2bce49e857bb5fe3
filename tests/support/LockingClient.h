#pragma once
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <cstring>
#include <vector>
#include "mixer/transport/DataTrans.h"
#include "tests/support/ChildProcess.h"
namespace mixer::test {
// False under qemu-user, which keeps no robust list (ENOSYS): a dead owner's lock then stays taken.
inline bool RobustLocksAvailable() { void* head = nullptr; size_t len = 0; return syscall(SYS_get_robust_list, 0, &head, &len) == 0; }
// A peer process that stalls or dies inside a queue's lock: a forked child that maps the named queue, may feed it
// zeros, and takes its `mutex` until told to let go. Ready, Lock, Unlock wait for the child's answer.
class LockingClient {
public:
    struct Options {
        bool create = false;  // create the queue (numBlk, blkSize) instead of opening it
        unsigned numBlk = 4, blkSize = 3840;
        bool feed = false;                // write blocks whenever there is room and no lock is held
        std::vector<std::string> blocks;  // committed in order once the queue is open, before Ready
    };
    LockingClient(const std::string& name, const Options& options) : child_([&] { return Run(name, options); }) {}
    ~LockingClient() { Kill(); }
    bool Ready() { return toParent_.Receive() == 'r'; }  // the queue is open (created)
    bool Lock() { return toChild_.Send('l') && toParent_.Receive() == 'l'; }
    bool Unlock() { return toChild_.Send('u') && toParent_.Receive() == 'u'; }
    bool Stop() { int st = 0; return kill(child_.pid(), SIGSTOP) == 0 && waitpid(child_.pid(), &st, WUNTRACED) > 0 && WIFSTOPPED(st); }
    bool Continue() { return kill(child_.pid(), SIGCONT) == 0; }
    void Kill() { if (!done_) kill(child_.pid(), SIGKILL), child_.Wait(); done_ = true; }  // reaped: its robust locks are dead
    int Finish() { toChild_.Send('q'), done_ = true; return child_.Wait(); }  // unlocks, closes, ends: 0 or Wait's failure
private:
    int Run(const std::string& name, const Options& o) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a crashed test while holding a lock
        DataTrans dt;
        if (o.create) CHILD_CHECK(dt.Init(name.c_str(), o.numBlk, o.blkSize) == 0);
        else if (o.feed || !o.blocks.empty()) CHILD_CHECK(dt.Init(name.c_str()) == 0);
        // The lock is taken through a mapping of its own, so that the child keeps it for as long as the test wants.
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        void* base = fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(StreamQueue), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        CHILD_CHECK(base != MAP_FAILED && close(fd) == 0);
        pthread_mutex_t* const mutex = &static_cast<StreamQueue*>(base)->mutex;
        int err = 0;
        for (const std::string& b : o.blocks) {
            char* p = dt.GetWriteBuff(err, 0);
            CHILD_CHECK(p != nullptr && b.size() <= dt.GetUserBlkSize());
            memcpy(p, b.data(), b.size());
            CHILD_CHECK(dt.CommitWriteBuff(static_cast<unsigned>(b.size()), nullptr));
        }
        CHILD_CHECK(toParent_.Send('r'));
        bool locked = false;
        for (;;) {
            if (o.feed && !locked && !toChild_.Readable(0)) {
                if (char* p = dt.GetWriteBuff(err, 20)) memset(p, 0, dt.GetUserBlkSize()), dt.CommitWriteBuff(dt.GetUserBlkSize(), nullptr);
                continue;
            }
            const int c = toChild_.Receive(-1);
            if (c != 'l' && c != 'u') break;  // 'q': finish
            CHILD_CHECK(c == 'l' ? pthread_mutex_lock(mutex) == 0 : locked && pthread_mutex_unlock(mutex) == 0);
            locked = c == 'l';
            CHILD_CHECK(toParent_.Send(static_cast<char>(c)));
        }
        if (locked) pthread_mutex_unlock(mutex);
        munmap(base, sizeof(StreamQueue));
        dt.DeInit();
        return 0;
    }
    Pipe toChild_, toParent_;
    ChildProcess child_;
    bool done_ = false;
};
}  // namespace mixer::test
