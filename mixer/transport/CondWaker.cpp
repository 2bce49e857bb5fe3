#include "mixer/transport/CondWaker.h"

#include <pthread.h>
#include <sys/mman.h>

#include <chrono>
#include <utility>

#include "mixer/core/Log.h"
#include "mixer/transport/ClientMappings.h"

namespace mixer {

typedef std::vector<std::pair<boost::shared_ptr<CondWaker::Target>, unsigned> > Batch;

const unsigned CondWaker::kStopWaitMs;

struct CondWaker::State {
    State(unsigned boundMs, unsigned maxStuck_) : bound(boundMs), maxStuck(maxStuck_), stuck(0) {}
    const std::chrono::milliseconds bound;
    const unsigned maxStuck;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<boost::shared_ptr<Target> > targets;  // guarded by mutex
    bool work = false;                                // guarded by mutex: marks to collect
    bool stopping = false;                            // guarded by mutex
    bool finished = false;                            // guarded by mutex: the dispatcher ended
    std::atomic<unsigned> stuck;                      // workers abandoned and not back
};

// One worker thread and its hand-over with the dispatcher.
struct CondWaker::Worker {
    std::mutex mutex;
    std::condition_variable changed;
    Batch batch;             // guarded by mutex; not changed while busy
    size_t at = 0;           // guarded by mutex: the entry being broadcast
    bool busy = false;       // guarded by mutex: a batch is handed and not done
    bool quit = false;       // guarded by mutex
    bool abandoned = false;  // guarded by mutex: counted in stuck
};

void CondWaker::Broadcast(StreamQueue* q, unsigned conds) {
    if (conds & kDataAvail) pthread_cond_broadcast(&q->condDataAvail);
    if (conds & kSpaceAvail) pthread_cond_broadcast(&q->condSpaceAvail);
    if (conds & kCmdExecuted) pthread_cond_broadcast(&q->cmdExecutedCond);
}

CondWaker::Target::Target(StreamQueue* queue, size_t mapSize, const std::string& name, int mappingSlot)
    : queue_(queue), mapSize_(mapSize), name_(name), mappingSlot_(mappingSlot), pending_(0), wedged_(false),
      detached_(false) {}

CondWaker::Target::~Target() {
    munmap(queue_, mapSize_);
    ClientMappings::Remove(mappingSlot_);
}

CondWaker::CondWaker(unsigned boundMs, unsigned maxStuck)
    : state_(std::make_shared<State>(boundMs, maxStuck)), dispatcher_(Dispatch, state_) {}

CondWaker::~CondWaker() {
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        state_->stopping = true;
    }
    state_->changed.notify_all();
    // Its last round ends within the bound; a stop must not wait for that when a
    // client's condition holds the round up: the dispatcher then ends on its own.
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (state_->changed.wait_for(lock, std::chrono::milliseconds(kStopWaitMs), [this] { return state_->finished; })) {
        lock.unlock();
        dispatcher_.join();
    } else {
        dispatcher_.detach();
    }
}

boost::shared_ptr<CondWaker::Target> CondWaker::Attach(StreamQueue* queue, size_t mapSize, const std::string& name,
                                                       int mappingSlot) {
    boost::shared_ptr<Target> target(new Target(queue, mapSize, name, mappingSlot));
    std::lock_guard<std::mutex> guard(state_->mutex);
    state_->targets.push_back(target);
    return target;
}

void CondWaker::Post(const boost::shared_ptr<Target>& target, unsigned conds) {
    if (!target || target->Wedged()) return;
    // Bits already pending were posted by someone whose signal is still to be taken,
    // and the collection that takes it takes these with them.
    if (target->pending_.fetch_or(conds) != 0) return;
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        state_->work = true;
    }
    state_->changed.notify_all();
}

void CondWaker::Detach(const boost::shared_ptr<Target>& target) {
    if (!target) return;
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        target->detached_ = true;
        state_->work = true;
    }
    state_->changed.notify_all();
}

unsigned CondWaker::Stuck() const { return state_->stuck.load(); }

bool CondWaker::Exhausted() const { return Stuck() >= state_->maxStuck; }

void CondWaker::Serve(std::shared_ptr<State> state, std::shared_ptr<Worker> w) {
    std::unique_lock<std::mutex> lock(w->mutex);
    for (;;) {
        w->changed.wait(lock, [&] { return w->busy || w->quit; });
        if (!w->busy) return;
        for (size_t i = 0; i < w->batch.size(); ++i) {
            w->at = i;
            const Target& t = *w->batch[i].first;
            lock.unlock();
            if (!t.Wedged()) Broadcast(t.queue_, w->batch[i].second);
            lock.lock();
        }
        w->busy = false;
        w->changed.notify_all();
        if (w->abandoned) {
            // The client let go after all: this worker's place is free again.
            w->batch.clear();
            state->stuck.fetch_sub(1);
            MIXER_LOG_I("Mixer_DataTrans:Waker:stuck waker back:");
            {
                std::lock_guard<std::mutex> guard(state->mutex);
                state->work = true;
            }
            state->changed.notify_all();
            return;
        }
    }
}

void CondWaker::Dispatch(std::shared_ptr<State> s) {
    std::shared_ptr<Worker> worker;
    std::thread thread;
    bool exhaustedLogged = false;
    std::unique_lock<std::mutex> lock(s->mutex);
    for (;;) {
        s->changed.wait(lock, [&] { return s->work || s->stopping; });
        s->work = false;
        Batch batch;
        for (std::vector<boost::shared_ptr<Target> >::iterator it = s->targets.begin(); it != s->targets.end();) {
            Target& t = **it;
            const unsigned conds = t.pending_.exchange(0);
            if (conds != 0 && !t.Wedged()) batch.push_back(std::make_pair(*it, conds));
            // A closed queue stays until its last marks are out.
            if (t.Wedged() || (t.detached_ && conds == 0)) it = s->targets.erase(it);
            else ++it;
        }
        if (batch.empty()) {
            if (s->stopping) break;
            continue;
        }
        if (!worker && s->stuck.load() >= s->maxStuck) {
            // Every worker is stuck: the marks wait for one to come back.
            for (const Batch::value_type& e : batch) e.first->pending_.fetch_or(e.second);
            if (!exhaustedLogged)
                MIXER_LOG_E("Mixer_DataTrans:Waker:reason=AllStuck,stuck=%u:", s->stuck.load());
            exhaustedLogged = true;
            if (s->stopping) break;
            continue;
        }
        exhaustedLogged = false;
        lock.unlock();
        if (!worker) {
            worker = std::make_shared<Worker>();
            thread = std::thread(Serve, s, worker);
        }
        std::unique_lock<std::mutex> wlock(worker->mutex);
        worker->batch.swap(batch);
        worker->at = 0;
        worker->busy = true;
        worker->changed.notify_all();
        if (!worker->changed.wait_for(wlock, s->bound, [&] { return !worker->busy; })) {
            // Stuck in one queue's condition: fault that queue, leave the worker in it
            // with its shares of the mappings, and give the rest to a new worker.
            const size_t at = worker->at;
            Target& t = *worker->batch[at].first;
            t.wedged_.store(true, std::memory_order_release);
            for (size_t i = at + 1; i < worker->batch.size(); ++i)
                worker->batch[i].first->pending_.fetch_or(worker->batch[i].second);
            const unsigned stuck = s->stuck.fetch_add(1) + 1;
            worker->abandoned = true;
            MIXER_LOG_E("Mixer_DataTrans:Waker:reason=BroadcastStuck,name=%s,stuck=%u:", t.name_.c_str(), stuck);
            wlock.unlock();
            thread.detach();
            worker.reset();
            lock.lock();
            s->work = true;
            continue;
        }
        worker->batch.clear();  // the shares go here, not in the worker
        wlock.unlock();
        lock.lock();
    }
    lock.unlock();
    if (worker) {
        {
            std::lock_guard<std::mutex> guard(worker->mutex);
            worker->quit = true;
        }
        worker->changed.notify_all();
        thread.join();  // idle: every batch it took has come back
    }
    lock.lock();
    s->finished = true;
    s->changed.notify_all();
}

}  // namespace mixer
