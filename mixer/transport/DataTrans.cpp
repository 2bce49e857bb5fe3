#include "mixer/transport/DataTrans.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mixer/core/Log.h"
#include "mixer/transport/Deadline.h"

namespace mixer {

namespace {

const size_t kHdr = kStreamQueueSize;
const size_t kTail = sizeof(BlockTail);

// Fields that are also read without the lock (approximate counters, hang-up flag) are
// written and read atomically so that such a read is never torn.
template <typename T>
T LoadRelaxed(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <typename T>
void StoreRelaxed(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

void Unlock(pthread_mutex_t* m) { pthread_mutex_unlock(m); }

// Reads CLOCK_REALTIME; 0 or the clock's result.
int Now(timespec& now) { return clock_gettime(CLOCK_REALTIME, &now); }

#if defined(__SANITIZE_THREAD__)
#define MIXER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MIXER_TSAN 1
#endif
#endif

// Waits up to ms for m; 0, ETIMEDOUT, EOWNERDEAD or the lock's error. The monotonic
// clock: a step of the wall clock must not stretch or cut the bound. The thread
// sanitizer's runtime knows the timed lock but not the clock lock, so its builds take
// the wall clock instead.
int LockWithin(pthread_mutex_t* m, unsigned ms) {
#ifdef MIXER_TSAN
    const clockid_t clock = CLOCK_REALTIME;
#else
    const clockid_t clock = CLOCK_MONOTONIC;
#endif
    timespec until;
    if (clock_gettime(clock, &until) != 0) return errno;
    until.tv_sec += ms / 1000;
    until.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_nsec -= 1000000000L;
        until.tv_sec += 1;
    }
#ifdef MIXER_TSAN
    return pthread_mutex_timedlock(m, &until);
#else
    return pthread_mutex_clocklock(m, clock, &until);
#endif
}

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
      lockWaitMs_(deadline::kForever) {}

DataTrans::~DataTrans() { DeInit(); }

// ---------------------------------------------------------------------------------------
// Addresses

char* DataTrans::PosToPtr(const StreamQueue* q, unsigned pos) {
    // This end's mapping is addressed with the geometry checked when it was mapped,
    // whatever the header says now. 64-bit: a huge pos must not wrap back inside.
    const bool own = q == queue_;
    const uint32_t memSize = own ? static_cast<uint32_t>(mapSize_) : q->memSize;
    const uint32_t blkSize = own ? blkSize_ : q->blkSize;
    const uint64_t offset = kHdr + static_cast<uint64_t>(pos) * blkSize;
    if (offset >= memSize) {
        // Kept so: the message prints byte offsets, not block indices.
        MIXER_LOG_E("Mixer_DataTrans:PosToPtr:pos %d >= memSize %d:", static_cast<int>(offset),
                    static_cast<int>(memSize));
        return nullptr;
    }
    if (offset + blkSize > memSize) {
        MIXER_LOG_E("Mixer_DataTrans:PosToPtr:pos2 %d > memSize %d:", static_cast<int>(offset + blkSize),
                    static_cast<int>(memSize));
        return nullptr;
    }
    return reinterpret_cast<char*>(const_cast<StreamQueue*>(q)) + offset;
}

char* DataTrans::TailPosToPtr(const StreamQueue* q, unsigned pos) {
    const bool own = q == queue_;
    const uint32_t memSize = own ? static_cast<uint32_t>(mapSize_) : q->memSize;
    const uint32_t blkSize = own ? blkSize_ : q->blkSize;
    const uint64_t offset = blkSize + static_cast<uint64_t>(pos) * blkSize + (kHdr - kTail);
    if (offset >= memSize) {
        MIXER_LOG_E("Mixer_DataTrans:TailPosToPtr:pos %d >= memSize %d:", static_cast<int>(offset),
                    static_cast<int>(memSize));
        return nullptr;
    }
    // A header whose stride is shorter than a tail would put the tail's end past the
    // object; refuse it rather than touch bytes outside the mapping.
    if (offset + kTail > memSize) {
        MIXER_LOG_E("Mixer_DataTrans:TailPosToPtr:pos2 %d > memSize %d:", static_cast<int>(offset + kTail),
                    static_cast<int>(memSize));
        return nullptr;
    }
    return reinterpret_cast<char*>(const_cast<StreamQueue*>(q)) + offset;
}

BlockTail* DataTrans::TailLocked(unsigned pos) {
    return reinterpret_cast<BlockTail*>(TailPosToPtr(queue_, pos));
}

void DataTrans::ResetTail(BlockTail* tail, bool full) {
    tail->check = BLOCK_CHECK;
    tail->state = BLK_FREE;
    memset(tail->bufId, 0, sizeof(tail->bufId));
    if (full) tail->length = 0;
}

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

    Adopt(q, *q, memSize);
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
    StreamQueue* q = static_cast<StreamQueue*>(base);
    if (q->memSize != copy.memSize) {
        MIXER_LOG_E("Mixer_DataTrans:InitFailed:reason=mmapSizeAllocatedFailed,name=%s,error=0:", name);
        munmap(base, copy.memSize);
        return EFAULT;
    }
    // The checked copy, not the live header: the peer may have changed it since.
    Adopt(q, copy, copy.memSize);
    name_ = name;
    MIXER_LOG_D("Mixer_DataTrans:Init:DataTrans %s Opened:", name);
    return 0;
}

void DataTrans::Adopt(StreamQueue* q, const StreamQueue& geometry, size_t mapSize) {
    queue_ = q;
    mapSize_ = mapSize;
    numBlk_ = geometry.numBlk;
    blkSize_ = geometry.blkSize;
    userBlkSize_ = geometry.userBlkSize;
}

void DataTrans::SetLockWaitMs(unsigned ms) { lockWaitMs_ = ms; }

bool DataTrans::DeInit() {
    StreamQueue* q = queue_;
    if (q == nullptr) return true;
    if (Acquire(&q->mutex, "DeInit") != 0) {
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
    munmap(q, mapSize_);
    queue_ = nullptr;
    mapSize_ = 0;
    numBlk_ = blkSize_ = userBlkSize_ = 0;
    return true;
}

void DataTrans::HangUpLocked() {
    StreamQueue* q = queue_;
    StoreRelaxed(q->hangUp, static_cast<uint8_t>(1));
    // Every waiter wakes and sees the hang-up.
    pthread_cond_broadcast(&q->condDataAvail);
    pthread_cond_broadcast(&q->condSpaceAvail);
    pthread_cond_broadcast(&q->cmdExecutedCond);
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

// ---------------------------------------------------------------------------------------
// Block exchange

// The common start of GetWriteBuff and GetReadBuff (op names them in the log lines):
// checks the handle, turns timeoutMs into an absolute deadline, takes mutex and traces
// enterTag. False, with err set and nothing held, when the call cannot go on.
bool DataTrans::BeginBlockWait(const char* op, const char* enterTag, unsigned timeoutMs, int& err,
                               timespec& deadline) {
    err = 0;
    StreamQueue* q = queue_;
    if (q == nullptr) {
        MIXER_LOG_E("Mixer_DataTrans:%s:reason=nullHandle:", op);
        err = ENOENT;
        return false;
    }
    deadline = timespec{0, 0};
    if (timeoutMs != 0 && timeoutMs != deadline::kForever) {
        timespec now;
        const int rc = Now(now);
        if (rc != 0) {
            err = rc;
            MIXER_LOG_E("Mixer_DataTrans:%s:reason=noTime:", op);
            return false;
        }
        deadline = deadline::AfterMs(now, timeoutMs);
    }
    const int rc = Acquire(&q->mutex, op);
    if (rc != 0) {
        err = rc;
        return false;
    }
    LogStatus(enterTag);
    return true;
}

char* DataTrans::GetWriteBuff(int& err, unsigned timeoutMs) {
    timespec deadline;
    if (!BeginBlockWait("GetWriteBuff", "GetWriteBuff-Enter", timeoutMs, err, deadline)) return nullptr;
    return GetWriteBuffLocked(err, timeoutMs, deadline);
}

// Runs with mutex held; unlocks before every return.
char* DataTrans::GetWriteBuffLocked(int& err, unsigned timeoutMs, const timespec& deadline) {
    StreamQueue* q = queue_;
    while (q->numFree == 0) {
        // IsStopped relocks the recursive mutex.
        if (q->hangUp || IsStopped()) break;
        if (timeoutMs == 0)
            err = EAGAIN;
        else if (timeoutMs == deadline::kForever)
            err = WaitOn(&q->condSpaceAvail, nullptr);
        else
            err = WaitOn(&q->condSpaceAvail, &deadline);
        if (err != 0) {
            LogStatus("GetWriteBuff-CondWait-Err");
            Unlock(&q->mutex);
            MIXER_LOG_E("Mixer_DataTrans:GetWriteBuff:retcode=%d:", err);
            return nullptr;
        }
    }
    if (q->hangUp) {
        LogStatus("GetWriteBuff-HungUp");
        Unlock(&q->mutex);
        MIXER_LOG_E("Mixer_DataTrans:GetWriteBuff:reason=HangUp:");
        err = EHOSTDOWN;
        return nullptr;
    }
    if (q->stopped) {
        LogStatus("GetWriteBuff-Stopped");
        Unlock(&q->mutex);
        MIXER_LOG_E("Mixer_DataTrans:GetWriteBuff:reason=Stopped:");
        err = EAGAIN;
        return nullptr;
    }
    // Read once: a position is checked (by PosToPtr) and used as the same value.
    const uint32_t pos = q->writePos;
    char* result = PosToPtr(q, pos);
    if (result == nullptr) {
        err = EFAULT;  // logged: a position outside the queue
    } else {
        BlockTail* tail = TailLocked(pos);
        if (tail == nullptr) {
            err = EFAULT;
            result = nullptr;
        } else if (tail->check != BLOCK_CHECK || tail->state != BLK_FREE) {
            MIXER_LOG_E("Mixer_DataTrans:GetWriteBuff:check %x state %d:", tail->check,
                        static_cast<int>(tail->state));
            ResetTail(tail, false);
            err = EFAULT;
            result = nullptr;
        } else {
            tail->state = BLK_WRITING;
            const uint32_t nowFree = q->numFree - 1;
            StoreRelaxed(q->numFree, nowFree);
            if (nowFree > numBlk_) {
                // The decrement and the tail's state stay as they are.
                MIXER_LOG_E("Mixer_DataTrans:GetWriteBuff:Free %d > %d:", static_cast<int>(nowFree),
                            static_cast<int>(numBlk_));
                err = EFAULT;
                result = nullptr;
            }
        }
    }
    LogStatus("GetWriteBuff-Exit");
    Unlock(&q->mutex);
    return result;
}

bool DataTrans::CommitWriteBuff(unsigned len, char* bufId) {
    StreamQueue* q = queue_;
    if (q == nullptr) {
        MIXER_LOG_E("Mixer_DataTrans:CommitWriteBuff:reason=nullHandle:");
        return false;
    }
    if (Acquire(&q->mutex, "CommitWriteBuff") != 0) return false;
    LogStatus("CommitWriteBuff-Enter");
    const bool ok = CommitWriteBuffLocked(len, bufId);
    LogStatus("CommitWriteBuff-Exit");
    Unlock(&q->mutex);
    // Woken after the unlock, the reader finds the lock free instead of blocking on it
    // at once (a third of the cross-process round trip). A waiter cannot miss it: it
    // tested numReady under the lock before it waited.
    if (ok) pthread_cond_broadcast(&q->condDataAvail);
    return ok;
}

bool DataTrans::CommitWriteBuffLocked(unsigned len, char* bufId) {
    StreamQueue* q = queue_;
    if (q->hangUp) {
        MIXER_LOG_E("Mixer_DataTrans:CommitWriteBuff:reason=queueAlreadyHungUp:");
        return false;
    }
    const uint32_t pos = q->writePos;
    BlockTail* tail = TailLocked(pos);
    if (tail == nullptr) return false;
    if (tail->check != BLOCK_CHECK || tail->state != BLK_WRITING) {
        MIXER_LOG_E("Mixer_DataTrans:CommitWriteBuff:check %x state %d:", tail->check,
                    static_cast<int>(tail->state));
        ResetTail(tail, false);
        return false;
    }
    tail->state = BLK_READY;
    tail->length = len;
    if (bufId != nullptr) {
        // Bounded to the tail's field: a longer id must not spill into the next block.
        strncpy(tail->bufId, bufId, sizeof(tail->bufId) - 1);
        tail->bufId[sizeof(tail->bufId) - 1] = '\0';
    }
    q->writePos = (pos + 1 >= numBlk_) ? 0 : pos + 1;
    const uint32_t nowReady = q->numReady + 1;
    StoreRelaxed(q->numReady, nowReady);
    if (nowReady > numBlk_) {
        MIXER_LOG_E("Mixer_DataTrans:CommitWriteBuff:Ready %d > %d:", static_cast<int>(nowReady),
                    static_cast<int>(numBlk_));
        return false;
    }
    return true;
}

char* DataTrans::GetReadBuff(int& err, unsigned& len, unsigned timeoutMs, char** bufId) {
    timespec deadline;
    if (!BeginBlockWait("GetReadBuff", "GetReadBuff-Enter", timeoutMs, err, deadline)) return nullptr;
    return GetReadBuffLocked(err, len, timeoutMs, deadline, bufId);
}

// Runs with mutex held; unlocks before every return.
char* DataTrans::GetReadBuffLocked(int& err, unsigned& len, unsigned timeoutMs, const timespec& deadline,
                                   char** bufId) {
    StreamQueue* q = queue_;
    while (q->numReady == 0) {
        // The stop flag concerns the writer only: a stopped queue is still drained.
        if (q->hangUp) break;
        if (timeoutMs == 0)
            err = EAGAIN;
        else if (timeoutMs == deadline::kForever)
            err = WaitOn(&q->condDataAvail, nullptr);
        else
            err = WaitOn(&q->condDataAvail, &deadline);
        if (err != 0) {
            LogStatus("GetReadBuff-CondWait-Err");
            Unlock(&q->mutex);
            // Debug only: an empty queue is the reader's normal case.
            MIXER_LOG_D("Mixer_DataTrans:GetReadBuff:retcode=%d:", err);
            return nullptr;
        }
    }
    if (q->numReady == 0 && q->hangUp) {
        LogStatus("GetReadBuff-HungUp");
        Unlock(&q->mutex);
        MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:reason=EmptyQueueHungUp:");
        err = EHOSTDOWN;
        return nullptr;
    }
    char* result = nullptr;
    const uint32_t pos = q->readPos;
    BlockTail* tail = TailLocked(pos);
    char* data = tail != nullptr ? PosToPtr(q, pos) : nullptr;
    // Read once: the length handed out is the one checked.
    const uint32_t length = tail != nullptr ? tail->length : 0;
    if (data == nullptr) {
        err = EFAULT;
    } else if (tail->check != BLOCK_CHECK || tail->state != BLK_READY) {
        MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:check %x state %d:", tail->check, static_cast<int>(tail->state));
        ResetTail(tail, false);
        err = EFAULT;
    } else if (length > userBlkSize_) {
        // A length beyond the block would send the reader outside it.
        MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:length %u > %u:", length, userBlkSize_);
        ResetTail(tail, false);
        err = EFAULT;
    } else {
        tail->state = BLK_READING;
        len = length;
        if (bufId != nullptr) {
            // The tail may lack its terminator; the copy never reads past the field.
            *bufId = strndup(tail->bufId, sizeof(tail->bufId));
            if (*bufId == nullptr) MIXER_LOG_I("def:Mixer_DataTrans:Failed to allocate memory for buf id:");
        }
        result = data;
        const uint32_t nowReady = q->numReady - 1;
        StoreRelaxed(q->numReady, nowReady);
        if (nowReady > numBlk_) {
            // Kept so: the message prints numFree, not numReady.
            MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:Ready %d > %d:", static_cast<int>(q->numFree),
                        static_cast<int>(numBlk_));
            err = EFAULT;
            result = nullptr;
            if (bufId != nullptr) {
                free(*bufId);
                *bufId = nullptr;
            }
        }
    }
    LogStatus("GetReadBuff-Exit");
    Unlock(&q->mutex);
    return result;
}

bool DataTrans::ReleaseReadBuff() {
    int err;
    return ReleaseReadBuff(err);
}

bool DataTrans::ReleaseReadBuff(int& err) {
    StreamQueue* q = queue_;
    if (q == nullptr) {
        MIXER_LOG_E("Mixer_DataTrans:ReleaseReadBuff:reason=nullHandle:");
        err = ENOENT;
        return false;
    }
    err = Acquire(&q->mutex, "ReleaseReadBuff");
    if (err != 0) return false;
    LogStatus("ReleaseReadBuff-Enter");
    const bool ok = ReleaseReadBuffLocked();
    if (!ok) err = EFAULT;
    LogStatus("ReleaseReadBuff-Exit");
    Unlock(&q->mutex);
    // After the unlock for the same reason as in CommitWriteBuff.
    if (ok) pthread_cond_broadcast(&q->condSpaceAvail);
    return ok;
}

bool DataTrans::ReleaseReadBuffLocked() {
    StreamQueue* q = queue_;
    const uint32_t pos = q->readPos;
    BlockTail* tail = TailLocked(pos);
    if (tail == nullptr) return false;
    if (tail->check != BLOCK_CHECK || tail->state != BLK_READING) {
        // readPos and numFree stay: the block is out of circulation until a Flush.
        MIXER_LOG_E("Mixer_DataTrans:ReleaseReadBuff:check %x state %d:", tail->check,
                    static_cast<int>(tail->state));
        ResetTail(tail, false);
        return false;
    }
    tail->state = BLK_FREE;
    q->readPos = (pos + 1 >= numBlk_) ? 0 : pos + 1;
    const uint32_t nowFree = q->numFree + 1;
    if (nowFree > numBlk_) {
        MIXER_LOG_E("Mixer_DataTrans:ReleaseReadBuff:Free %d > %d:", static_cast<int>(nowFree),
                    static_cast<int>(numBlk_));
        StoreRelaxed(q->numFree, numBlk_);
        return false;
    }
    StoreRelaxed(q->numFree, nowFree);
    return true;
}

// ---------------------------------------------------------------------------------------
// Counters, stop flag

unsigned DataTrans::GetNumBlkFree() {
    const StreamQueue* q = queue_;
    if (q == nullptr || LoadRelaxed(q->hangUp)) return 0;
    return LoadRelaxed(q->numFree);
}

unsigned DataTrans::GetNumBlkReady() {
    const StreamQueue* q = queue_;
    return q == nullptr ? 0 : LoadRelaxed(q->numReady);
}

unsigned DataTrans::GetNumBlk() { return numBlk_; }

unsigned DataTrans::GetUserBlkSize() { return userBlkSize_; }

unsigned DataTrans::AddCount(unsigned n) {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "AddCount") != 0) return 0;
    q->count += n;
    const unsigned now = q->count;
    Unlock(&q->mutex);
    return now;
}

unsigned DataTrans::SubCount(unsigned n) {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "SubCount") != 0) return 0;
    q->count = n < q->count ? q->count - n : 0;
    const unsigned now = q->count;
    Unlock(&q->mutex);
    return now;
}

void DataTrans::Stop() {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "Stop") != 0) return;
    q->stopped = 1;
    Unlock(&q->mutex);
}

void DataTrans::Resume() {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "Resume") != 0) return;
    q->stopped = 0;
    Unlock(&q->mutex);
}

// ---------------------------------------------------------------------------------------
// Command channel, queue-wide operations, parameters

void DataTrans::SetCmd(tInOutCmd cmd) {
    StreamQueue* q = queue_;
    if (q == nullptr) {
        MIXER_LOG_W("Mixer_DataTrans:SetCmd:No handle:");
        return;
    }
    // cmdMutex for the whole call: concurrent senders of this process take turns.
    if (Acquire(&q->cmdMutex, "SetCmd") != 0) return;
    if (Acquire(&q->mutex, "SetCmd") != 0) {
        Unlock(&q->cmdMutex);
        return;
    }
    if (q->cmd != CMD_NONE) MIXER_LOG_W("Mixer_DataTrans:SetCmd:erasing cmd %d:", static_cast<int>(q->cmd));
    q->cmd = cmd;
    MIXER_LOG_I("Mixer_DataTrans:SetCmd:New cmd %d:", static_cast<int>(cmd));
    timespec now;
    if (Now(now) != 0) {
        MIXER_LOG_E("Mixer_DataTrans:SetCmd:reason=noTime:");
    } else {
        const timespec deadline = deadline::AfterOneAndHalfSeconds(now);
        while (q->cmd != CMD_NONE) {
            const int rc = WaitOn(&q->cmdExecutedCond, &deadline);
            if (rc != 0) {
                // The command stays posted and may still be executed later.
                MIXER_LOG_E("def:Mixer_DataTrans:SetCmd:cond wait error, cmd = %d, status = %d",
                            static_cast<int>(cmd), rc);
                break;
            }
        }
    }
    Unlock(&q->mutex);
    Unlock(&q->cmdMutex);
}

tInOutCmd DataTrans::GetCmd() {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "GetCmd") != 0) return CMD_NONE;
    const tInOutCmd cmd = static_cast<tInOutCmd>(q->cmd);
    Unlock(&q->mutex);
    return cmd;
}

void DataTrans::CmdExecuted(tInOutCmd cmd) {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "CmdExecuted") != 0) return;
    const bool match = q->cmd == cmd;
    MIXER_LOG_I("def:Mixer_DataTrans:CmdExecuted:cmd = %d, signal = %d", static_cast<int>(cmd), match ? 1 : 0);
    if (match) pthread_cond_broadcast(&q->cmdExecutedCond);
    // Kept so: another command's acknowledgement clears the slot without waking the
    // sender, which then waits out its deadline.
    q->cmd = CMD_NONE;
    Unlock(&q->mutex);
}

void DataTrans::Flush() {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "Flush") != 0) return;
    q->writePos = 0;
    q->readPos = 0;
    StoreRelaxed(q->numFree, numBlk_);
    StoreRelaxed(q->numReady, 0u);
    q->count = 0;
    for (unsigned i = 0; i < numBlk_; ++i) {
        BlockTail* tail = TailLocked(i);
        if (tail == nullptr) break;  // logged; the rest lies outside the object
        ResetTail(tail, true);
    }
    Unlock(&q->mutex);
}

int DataTrans::WaitTillUserBufEmpty() {
    StreamQueue* q = queue_;
    if (q == nullptr) return 0;
    const int locked = Acquire(&q->mutex, "WaitTillUserBufEmpty");
    if (locked != 0) return locked;
    timespec now;
    const int clock = Now(now);
    if (clock != 0) {
        MIXER_LOG_E("Mixer_DataTrans:WaitTillUserBufEmpty:reason=noTime:");
        Unlock(&q->mutex);
        return clock;
    }
    // One deadline for the whole call, not per wake-up.
    const timespec deadline = deadline::AfterOneAndHalfSeconds(now);
    for (;;) {
        if (q->numFree == numBlk_) {
            Unlock(&q->mutex);
            return 0;
        }
        const int rc = WaitOn(&q->condSpaceAvail, &deadline);
        if (rc != 0) {
            Unlock(&q->mutex);
            MIXER_LOG_E("Mixer_DataTrans:WaitTillUserBufEmpty:retcode=%d:", rc);
            return rc;
        }
    }
}

int DataTrans::GetParam(int32_t StreamQueue::*field, const char* op) {
    StreamQueue* q = queue_;
    if (q == nullptr) {
        MIXER_LOG_W("Mixer_DataTrans:%s:No handle:", op);
        return -1;
    }
    if (Acquire(&q->mutex, op) != 0) return -1;
    const int v = q->*field;
    Unlock(&q->mutex);
    MIXER_LOG_D("Mixer_DataTrans:%s:%d:", op, v);
    return v;
}

void DataTrans::SetParam(int32_t StreamQueue::*field, int value) {
    StreamQueue* q = queue_;
    if (q == nullptr || Acquire(&q->mutex, "SetParam") != 0) return;
    q->*field = value;
    Unlock(&q->mutex);
}

int DataTrans::GetRate() { return GetParam(&StreamQueue::rate, "GetRate"); }
int DataTrans::GetNumCh() { return GetParam(&StreamQueue::numCh, "GetNumCh"); }
int DataTrans::GetSampleSize() { return GetParam(&StreamQueue::sampleSize, "GetSampleSize"); }
void DataTrans::SetRate(int rate) { SetParam(&StreamQueue::rate, rate); }
void DataTrans::SetNumCh(int numCh) { SetParam(&StreamQueue::numCh, numCh); }
void DataTrans::SetSampleSize(int sampleSize) { SetParam(&StreamQueue::sampleSize, sampleSize); }

}  // namespace mixer
