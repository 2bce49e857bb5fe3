#pragma once

#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace mixer {
namespace test {

// True when a process-shared lock of a thread that dies is marked as such for the next
// taker (a robust lock, and a kernel that walks the thread's robust list). Without (as
// under qemu-user, where the C library makes robust locks but nothing keeps the list) a
// lock whose owner died stays taken for good, and only the lock bound of the mixer's
// side catches that peer.
bool RobustLocksAvailable();

// A client process for the tests of a peer that stalls or dies inside a queue's lock: a
// forked child that maps the named queue (and, to create or feed it, is an end of it
// too), may keep it fed with full blocks of zeros, and on request takes the queue's
// `mutex` (as a client thread inside a queue operation would) and keeps it until told
// to let go. The test stops, continues or kills
// it; the destructor kills and reaps a child that is still there.
class LockingClient {
public:
    struct Options {
        bool create = false;  // create the queue (numBlk, blkSize) instead of opening it
        unsigned numBlk = 4;
        unsigned blkSize = 3840;
        bool feed = false;    // write blocks whenever there is room and no lock is held
        // Committed in this order once the queue is open, before Ready: the client's
        // audio, with the client as the only writer end.
        std::vector<std::string> blocks;
    };
    LockingClient(const std::string& name, const Options& options);
    ~LockingClient();
    LockingClient(const LockingClient&) = delete;
    LockingClient& operator=(const LockingClient&) = delete;

    // Each waits for the child's answer: false when it did not come (the child failed).
    bool Ready();   // the queue is open (created) in the child
    bool Lock();    // the child holds the lock
    bool Unlock();  // the child has let go of it
    // SIGSTOP, returning once the child is stopped; SIGCONT.
    bool Stop();
    bool Continue();
    // SIGKILL; returns once the child is reaped (its robust locks are marked dead then).
    void Kill();
    // Lets go of the lock, closes the queue and ends: the child's result (0 or the
    // failing line), -1 when it died.
    int Finish();

private:
    Pipe toChild_, toParent_;
    ChildProcess child_;
    bool done_;
};

}  // namespace test
}  // namespace mixer
