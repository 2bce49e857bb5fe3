#include "mixer/transport/DataTrans.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mixer/core/Log.h"
#include "mixer/transport/ClientMappings.h"
#include "mixer/transport/Deadline.h"
#include "mixer/transport/DataTransShared.h"

namespace mixer {

using namespace datatrans;

namespace {

// Refuses a header whose geometry does not describe the object it heads (a corrupt or
// hostile client): every address computed later rests on it. Sums are 64-bit so that
// no product wraps into a plausible size.
bool HeaderFits(const StreamQueue& h, uint64_t objectSize, const char* name) {
    if (h.numBlk == 0) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=noBlocks,name=%s,numBlk=0:", name);
        return false;
    }
    if (h.userBlkSize % 8 != 0) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=userBlkSizeUnaligned,name=%s,userBlkSize=%u:", name,
                    h.userBlkSize);
        return false;
    }
    if (h.blkSize != static_cast<uint64_t>(h.userBlkSize) + kTail) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=blkSizeMismatch,name=%s,blkSize=%u,userBlkSize=%u:", name,
                    h.blkSize, h.userBlkSize);
        return false;
    }
    if (h.memSize != kHdr + static_cast<uint64_t>(h.numBlk) * h.blkSize) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=memSizeMismatch,name=%s,memSize=%u,numBlk=%u,blkSize=%u:",
                    name, h.memSize, h.numBlk, h.blkSize);
        return false;
    }
    // Touching a mapped page beyond the end of the object raises SIGBUS.
    if (objectSize < h.memSize) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=objectTooSmall,name=%s,size=%llu,memSize=%u:", name,
                    static_cast<unsigned long long>(objectSize), h.memSize);
        return false;
    }
    if (h.writePos >= h.numBlk || h.readPos >= h.numBlk) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=positionOutOfRange,name=%s,writePos=%u,readPos=%u,numBlk=%u:",
                    name, h.writePos, h.readPos, h.numBlk);
        return false;
    }
    if (h.numFree > h.numBlk || h.numReady > h.numBlk) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=counterOutOfRange,name=%s,numFree=%u,numReady=%u,numBlk=%u:",
                    name, h.numFree, h.numReady, h.numBlk);
        return false;
    }
    return true;
}

}  // namespace

DataTrans::DataTrans()
    : queue_(nullptr),
      mapSize_(0),
      numBlk_(0),
      blkSize_(0),
      userBlkSize_(0),
      lockWaitMs_(deadline::kForever),
      mappingSlot_(-1) {}

DataTrans::~DataTrans() { DeInit(); }

// ---------------------------------------------------------------------------------------
// Creation, opening, closing

int DataTrans::Init(const char* name, unsigned numBlk, unsigned blkSize) {
    const uint32_t userBlkSize = (blkSize + 7u) & ~7u;
    const uint32_t stride = userBlkSize + static_cast<uint32_t>(kTail);
    const uint32_t total = numBlk * stride;

    if (name == nullptr) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=nullName,name=(null),error=0:");
        return ENOENT;
    }
    // total - 1 wraps for numBlk 0, which is refused with the rest.
    if (total - 1u > 0x3FFFFFFDu || stride >= 0x10000u || numBlk >= 0x10000u) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=invalidSize,name=%s,error=0:", name);
        return ENOENT;
    }

    int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
    if (fd < 0) {
        const int e = errno;
        if (e == EEXIST)
            MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=shmAlreadyExists,name=%s,error=EEXIST:", name);
        else
            MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=shmOpenFailed,name=%s,error=%d:", name, e);
        return e;
    }

    const uint32_t memSize = total + static_cast<uint32_t>(kHdr);
    StreamQueue* q = nullptr;
    bool mutexDone = false, cmdMutexDone = false, dataCondDone = false, spaceCondDone = false;
    pthread_mutexattr_t mattr;
    pthread_condattr_t cattr;
    int rc;

    if (ftruncate(fd, memSize) != 0) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=shmSetSizeFailed,name=%s,error=%d:", name, errno);
        goto cleanup;
    }
    MIXER_LOG_D("Mixer_DataTrans:Init:shm %s numBlk %u blkSize %u size %u Created:", name, numBlk, stride,
                memSize);
    {
        void* base = mmap(nullptr, memSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (base == MAP_FAILED) {
            MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=mmapFailed,name=%s,error=%d:", name, errno);
            goto cleanup;
        }
        q = static_cast<StreamQueue*>(base);
    }
    close(fd);
    fd = -1;

#define MIXER_INIT_STEP(call, reason)                                                         \
    if ((rc = (call)) != 0) {                                                                 \
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=" reason ",name=%s,error=%d:", name, rc); \
        goto cleanup;                                                                         \
    }
    MIXER_INIT_STEP(pthread_mutexattr_init(&mattr), "mutexAttrInitFailed")
    MIXER_INIT_STEP(pthread_mutexattr_setpshared(&mattr, PTHREAD_PROCESS_SHARED), "mutexAttrSetSharedFailed")
    MIXER_INIT_STEP(pthread_mutexattr_settype(&mattr, PTHREAD_MUTEX_RECURSIVE), "mutexAttrSetTypeFailed")
    // Robust: a peer that dies holding a lock does not take the queue with it.
    MIXER_INIT_STEP(pthread_mutexattr_setrobust(&mattr, PTHREAD_MUTEX_ROBUST), "mutexAttrSetRobustFailed")
    MIXER_INIT_STEP(pthread_mutex_init(&q->mutex, &mattr), "mutexInitFailed")
    mutexDone = true;
    MIXER_INIT_STEP(pthread_mutex_init(&q->cmdMutex, &mattr), "cmdMutexInitFailed")
    cmdMutexDone = true;
    // No clock attribute: the conditions time out against CLOCK_REALTIME, which is
    // where every deadline of the queue is taken from.
    MIXER_INIT_STEP(pthread_condattr_init(&cattr), "condAttrInitFailed")
    MIXER_INIT_STEP(pthread_condattr_setpshared(&cattr, PTHREAD_PROCESS_SHARED), "condAttrSetSharedFailed")
    MIXER_INIT_STEP(pthread_cond_init(&q->condDataAvail, &cattr), "condDataAvailInitFailed")
    dataCondDone = true;
    MIXER_INIT_STEP(pthread_cond_init(&q->condSpaceAvail, &cattr), "condSpaceAvailInitFailed")
    spaceCondDone = true;
    MIXER_INIT_STEP(pthread_cond_init(&q->cmdExecutedCond, &cattr), "cmdExecutedCondInitFailed")
#undef MIXER_INIT_STEP

    q->memSize = memSize;
    q->writePos = 0;
    q->readPos = 0;
    q->numBlk = numBlk;
    q->blkSize = stride;
    q->userBlkSize = userBlkSize;
    q->numFree = numBlk;
    q->numReady = 0;
    q->count = 0;
    q->rate = -1;
    q->numCh = -1;
    q->sampleSize = -1;
    q->hangUp = 0;
    q->cmd = CMD_NONE;
    q->stopped = 0;

    Adopt(q, *q, memSize, ClientMappings::Add(q, memSize));
    for (unsigned i = 0; i < numBlk; ++i) {
        // Cannot fail: the header was just written from valid sizes.
        BlockTail* tail = TailLocked(i);
        if (tail != nullptr) ResetTail(tail, true);
    }
    name_ = name;
    MIXER_LOG_D("Mixer_DataTrans:Init:DataTrans %s Created:", name);
    return 0;

cleanup:
    MIXER_LOG_E("Mixer_DataTrans:InitFailed:Cleanup:");
    if (fd >= 0) close(fd);
    if (mutexDone) pthread_mutex_destroy(&q->mutex);
    if (cmdMutexDone) pthread_mutex_destroy(&q->cmdMutex);
    if (dataCondDone) pthread_cond_destroy(&q->condDataAvail);
    if (spaceCondDone) pthread_cond_destroy(&q->condSpaceAvail);
    shm_unlink(name);
    if (q != nullptr) munmap(q, memSize);
    return EFAULT;
}

int DataTrans::Init(const char* name) {
    if (queue_ != nullptr) DeInit();
    // A null name would crash shm_open; refuse it as creation does.
    if (name == nullptr) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=nullName,name=(null),error=0:");
        return ENOENT;
    }

    const int fd = shm_open(name, O_RDWR, 0666);
    if (fd < 0) {
        const int e = errno;
        if (e == ENOENT)
            MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=shmDoesNotExist,name=%s,error=ENOENT:", name);
        else
            MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=shmOpenFailed,name=%s,error=%d:", name, e);
        return e;
    }

    StreamQueue copy;
    const ssize_t got = read(fd, &copy, sizeof(copy));
    if (got < static_cast<ssize_t>(sizeof(copy))) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=invalidMemoryRead,name=%s,error=0:", name);
        close(fd);
        return EFAULT;
    }
    if (copy.memSize < kHdr) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=invalidShmOpenMemorySize,name=%s,%u<%u:", name,
                    copy.memSize, static_cast<unsigned>(kHdr));
        close(fd);
        return EFAULT;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=shmStatFailed,name=%s,error=%d:", name, errno);
        close(fd);
        return EFAULT;
    }
    if (!HeaderFits(copy, static_cast<uint64_t>(st.st_size), name)) {
        close(fd);
        return EFAULT;
    }
    void* base = mmap(nullptr, copy.memSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base == MAP_FAILED) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=mmapFailed,name=%s,error=0:", name);
        return EFAULT;
    }
    // Guarded before the first touch: the peer may shrink the object at any moment.
    const int slot = ClientMappings::Add(base, copy.memSize);
    StreamQueue* q = static_cast<StreamQueue*>(base);
    if (q->memSize != copy.memSize || ClientMappings::Faulted(slot)) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=mmapSizeAllocatedFailed,name=%s,error=0:", name);
        munmap(base, copy.memSize);
        ClientMappings::Remove(slot);
        return EFAULT;
    }
    // The checked copy, not the live header: the peer may have changed it since.
    Adopt(q, copy, copy.memSize, slot);
    name_ = name;
    MIXER_LOG_D("Mixer_DataTrans:Init:DataTrans %s Opened:", name);
    return 0;
}

void DataTrans::Adopt(StreamQueue* q, const StreamQueue& geometry, size_t mapSize, int mappingSlot) {
    queue_ = q;
    mapSize_ = mapSize;
    numBlk_ = geometry.numBlk;
    blkSize_ = geometry.blkSize;
    userBlkSize_ = geometry.userBlkSize;
    mappingSlot_ = mappingSlot;
}

void DataTrans::SetLockWaitMs(unsigned ms) { lockWaitMs_ = ms; }

void DataTrans::SetWaker(const boost::shared_ptr<CondWaker>& waker) {
    if (queue_ == nullptr || target_ || !waker) return;
    waker_ = waker;
    target_ = waker->Attach(queue_, mapSize_, name_, mappingSlot_);
}

void DataTrans::Wake(unsigned conds) {
    if (target_) waker_->Post(target_, conds);
    else CondWaker::Broadcast(queue_, conds);
}

bool DataTrans::DeInit() {
    StreamQueue* q = queue_;
    if (q == nullptr) return true;
    if (target_ && target_->Wedged()) {
        // The client wedged a condition: nothing of its queue is touched but the flag.
        StoreRelaxed(q->hangUp, static_cast<uint8_t>(1));
        if (!name_.empty()) shm_unlink(name_.c_str());
        MIXER_LOG_W("Mixer_DataTrans:DeInit:wedged, DataTrans Hangup & unlinked:");
    } else if (ClientMappings::Faulted(mappingSlot_)) {
        // The peer shrank the object: what this end sees of the header is zeros, and
        // nobody can use the queue any more.
        if (!name_.empty()) shm_unlink(name_.c_str());
        MIXER_LOG_W("Mixer_DataTrans:DeInit:object shrunk by the peer, DataTrans Closed & unlinked:");
    } else if (Acquire(&q->mutex, "DeInit") != 0) {
        // The peer holds the lock and does not let go (stopped, or dead without robust
        // locks): close without it. The locks are left alone, someone holds one.
        if (LoadRelaxed(q->hangUp)) {
            if (!name_.empty()) shm_unlink(name_.c_str());
            MIXER_LOG_W("Mixer_DataTrans:DeInit:lock busy, DataTrans Closed & unlinked:");
        } else {
            HangUpLocked();
            MIXER_LOG_W("Mixer_DataTrans:DeInit:lock busy, DataTrans Hangup & Closed:");
        }
    } else if (q->hangUp) {
        // The peer has gone already: this is the last user.
        Unlock(&q->mutex);
        pthread_mutex_destroy(&q->mutex);
        pthread_mutex_destroy(&q->cmdMutex);
        if (!name_.empty()) shm_unlink(name_.c_str());
        MIXER_LOG_I("Mixer_DataTrans:DeInit:DataTrans Closed & unlinked:");
    } else {
        HangUpLocked();
        Unlock(&q->mutex);
        MIXER_LOG_I("Mixer_DataTrans:DeInit:DataTrans Hangup & Closed:");
    }
    if (target_) {
        // The waker's last broadcasts still use the mapping; the last share unmaps it.
        waker_->Detach(target_);
        target_.reset();
        waker_.reset();
    } else {
        munmap(q, mapSize_);
        ClientMappings::Remove(mappingSlot_);
    }
    mappingSlot_ = -1;
    queue_ = nullptr;
    mapSize_ = 0;
    numBlk_ = blkSize_ = userBlkSize_ = 0;
    return true;
}

void DataTrans::HangUpLocked() {
    StreamQueue* q = queue_;
    StoreRelaxed(q->hangUp, static_cast<uint8_t>(1));
    // Every waiter wakes and sees the hang-up.
    Wake(CondWaker::kAll);
}

void DataTrans::HangUpPeer() {
    StreamQueue* q = queue_;
    if (q == nullptr) return;
    const bool held = Acquire(&q->mutex, "HangUpPeer") == 0;
    HangUpLocked();
    if (held) Unlock(&q->mutex);
    MIXER_LOG_I("Mixer_DataTrans:HangUpPeer:%s:", name_.c_str());
}

int DataTrans::Acquire(pthread_mutex_t* m, const char* op) {
    // A queue whose client wedged a condition is done with (logged by the waker).
    if (target_ && target_->Wedged()) return EFAULT;
    if (ClientMappings::Faulted(mappingSlot_)) {
        MIXER_LOG_D("Mixer_DataTrans:%s:reason=ObjectShrunk,name=%s:", op, name_.c_str());
        return EFAULT;
    }
    int rc;
    if (lockWaitMs_ == deadline::kForever) {
        rc = pthread_mutex_lock(m);
    } else {
        // A free lock is taken without reading a clock: the bound costs nothing then.
        rc = pthread_mutex_trylock(m);
        if (rc == EBUSY) rc = LockWithin(m, lockWaitMs_);
        if (rc == ETIMEDOUT) rc = EBUSY;
    }
    if (rc == EOWNERDEAD) {
        OwnerDied(m);
        return 0;
    }
    if (rc == EBUSY)
        MIXER_LOG_D("Mixer_DataTrans:%s:reason=LockBusy,name=%s:", op, name_.c_str());
    else if (rc != 0)
        MIXER_LOG_E("Mixer_DataTrans:%s:reason=LockFailed,name=%s,error=%d:", op, name_.c_str(), rc);
    return rc;
}

int DataTrans::WaitOn(pthread_cond_t* cond, const timespec* deadline) {
    StreamQueue* q = queue_;
    if (target_) return ETIMEDOUT;  // the mixer's end never sleeps in a condition
    int rc = deadline == nullptr ? pthread_cond_wait(cond, &q->mutex)
                                 : pthread_cond_timedwait(cond, &q->mutex, deadline);
    if (rc == EOWNERDEAD) {
        OwnerDied(&q->mutex);
        rc = 0;  // the caller's loop re-tests and finds the hang-up
    }
    return rc;
}

void DataTrans::OwnerDied(pthread_mutex_t* m) {
    // The owner died inside the lock: what it guarded may be half-updated, which the
    // checks of every operation catch. The peer is gone; end the queue as if it had
    // closed, so the reader drains what is left and then sees EHOSTDOWN.
    pthread_mutex_consistent(m);
    MIXER_LOG_E("Mixer_DataTrans:Lock:reason=OwnerDied,name=%s:", name_.c_str());
    HangUpLocked();
}

bool DataTrans::IsHungUp() {
    StreamQueue* q = queue_;
    if (q == nullptr) return true;
    return LoadRelaxed(q->hangUp) != 0;
}

bool DataTrans::IsStopped() {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "IsStopped") != 0) return true;
    const bool stopped = q->stopped != 0;
    Unlock(&q->mutex);
    return stopped;
}

void DataTrans::LogStatus(const char* tag) {
    const StreamQueue* q = queue_;
    if (q == nullptr) return;
    MIXER_LOG_P("Mixer_DataTrans:Status:Timestamp-%d.%06d:[%s] Name = %s W %d R %d Free %d Rdy %d hup %d Count %d:",
                tag, name_.c_str(), static_cast<int>(q->writePos), static_cast<int>(q->readPos),
                static_cast<int>(q->numFree), static_cast<int>(q->numReady), static_cast<int>(q->hangUp),
                static_cast<int>(q->count));
}


}  // namespace mixer
