#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/transport/StreamQueue.h"

namespace mixer {

// Makes the broadcasts on shared queues' conditions for the mixer's end, so that no
// thread that matters ever sleeps in one. A condition lives in memory the client writes:
// a client that sets its internal lock bit makes the next broadcast sleep for ever, and
// with it whoever called it. Callers only mark which conditions of a queue want a
// broadcast (Post); a dispatcher thread hands the marked ones to a worker thread and
// waits for it with a bound. A worker that does not come back within the bound is
// abandoned in its broadcast: the queue it is stuck in is marked wedged (its DataTrans
// then fails every call with EFAULT, which faults the stream) and a new worker takes
// over the others. The stuck worker keeps its share of the queue's mapping, so nothing
// is unmapped under it; should the client ever let go, it finishes and ends. At most
// maxStuck workers are stuck at once; beyond that broadcasts wait for one to come back
// (Exhausted) and the daemon is no longer healthy.
//
// A broadcast made after the state change and the unlock wakes every waiter that tests
// its condition under the lock, as each does: it has either seen the change or was
// already waiting when the broadcast came. Marks made before a broadcast starts are all
// served by it.
//
// Threading: Attach, Post, Detach, Stuck and Exhausted from any thread. Post never
// waits for the dispatcher or a worker: it sets bits and takes the private mutex that
// the dispatcher holds only to collect marks (never around a broadcast). No allocation
// in Post. The destructor stops the dispatcher and the live worker (waiting at most
// kStopWaitMs; a round held up by a client finishes on its own); stuck workers are left
// where they are.
class MIXER_API CondWaker {
public:
    enum { kDataAvail = 1, kSpaceAvail = 2, kCmdExecuted = 4, kAll = 7 };
    // How long a round of broadcasts may take: a legitimate one takes microseconds,
    // but a client thread that is preempted inside its own wait can hold one up.
    static const unsigned kBoundMs = 500;
    static const unsigned kMaxStuck = 4;
    // How long the destructor waits for the dispatcher's last round.
    static const unsigned kStopWaitMs = 100;

    // One queue's mapping while the waker serves it. Owns the mapping and its
    // ClientMappings slot: unmapped and forgotten when the last share goes (the queue's
    // DataTrans, the dispatcher, a worker).
    class Target {
    public:
        Target(StreamQueue* queue, size_t mapSize, const std::string& name, int mappingSlot);
        ~Target();
        Target(const Target&) = delete;
        Target& operator=(const Target&) = delete;
        bool Wedged() const { return wedged_.load(std::memory_order_acquire); }
        StreamQueue* Queue() const { return queue_; }

    private:
        friend class CondWaker;
        StreamQueue* const queue_;
        const size_t mapSize_;
        const std::string name_;
        const int mappingSlot_;
        std::atomic<unsigned> pending_;  // conditions marked and not yet broadcast
        std::atomic<bool> wedged_;
        bool detached_;                  // guarded by the waker's mutex
    };

    explicit CondWaker(unsigned boundMs = kBoundMs, unsigned maxStuck = kMaxStuck);
    ~CondWaker();
    CondWaker(const CondWaker&) = delete;
    CondWaker& operator=(const CondWaker&) = delete;

    // Takes over the mapping of queue (mapSize bytes, opened as name) and its
    // ClientMappings slot (-1: none).
    boost::shared_ptr<Target> Attach(StreamQueue* queue, size_t mapSize, const std::string& name, int mappingSlot);
    // Marks conditions (k... bits) of target for a broadcast. Nothing for a wedged one.
    void Post(const boost::shared_ptr<Target>& target, unsigned conds);
    // The queue's end has closed: its marks still go out, then the waker lets it go.
    void Detach(const boost::shared_ptr<Target>& target);

    // Broadcasts conds of q on the calling thread, which may then sleep as long as the
    // peer wants: for a queue's own peer-trusting end, and for the worker threads.
    static void Broadcast(StreamQueue* q, unsigned conds);

    unsigned Stuck() const;
    bool Exhausted() const;

private:
    struct Worker;
    struct State;
    static void Dispatch(std::shared_ptr<State> state);
    static void Serve(std::shared_ptr<State> state, std::shared_ptr<Worker> worker);

    std::shared_ptr<State> state_;
    std::thread dispatcher_;
};

}  // namespace mixer
