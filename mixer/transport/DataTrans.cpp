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

int Lock(pthread_mutex_t* m) { return pthread_mutex_lock(m); }
void Unlock(pthread_mutex_t* m) { pthread_mutex_unlock(m); }

// Reads CLOCK_REALTIME; 0 or the clock's result.
int Now(timespec& now) { return clock_gettime(CLOCK_REALTIME, &now); }

}  // namespace

DataTrans::DataTrans() : queue_(nullptr), mapSize_(0) {}

DataTrans::~DataTrans() { DeInit(); }

// ---------------------------------------------------------------------------------------
// Addresses

char* DataTrans::PosToPtr(const StreamQueue* q, unsigned pos) {
    const uint32_t memSize = q->memSize;
    const uint32_t blkSize = q->blkSize;
    const uint32_t offset = static_cast<uint32_t>(kHdr) + pos * blkSize;
    // The mapping of this process bounds the address too, whatever memSize claims.
    const uint64_t limit = (q == queue_ && mapSize_ < memSize) ? mapSize_ : memSize;
    if (offset >= limit) {
        // Kept so: the message prints byte offsets, not block indices.
        MIXER_LOG_E("Mixer_DataTrans:PosToPtr:pos %d >= memSize %d:", static_cast<int>(offset),
                    static_cast<int>(memSize));
        return nullptr;
    }
    if (static_cast<uint64_t>(offset) + blkSize > limit) {
        MIXER_LOG_E("Mixer_DataTrans:PosToPtr:pos2 %d > memSize %d:", static_cast<int>(offset + blkSize),
                    static_cast<int>(memSize));
        return nullptr;
    }
    return reinterpret_cast<char*>(const_cast<StreamQueue*>(q)) + offset;
}

char* DataTrans::TailPosToPtr(const StreamQueue* q, unsigned pos) {
    const uint32_t memSize = q->memSize;
    const uint32_t blkSize = q->blkSize;
    const uint32_t offset = blkSize + pos * blkSize + static_cast<uint32_t>(kHdr - kTail);
    const uint64_t limit = (q == queue_ && mapSize_ < memSize) ? mapSize_ : memSize;
    if (offset >= limit) {
        MIXER_LOG_E("Mixer_DataTrans:TailPosToPtr:pos %d >= memSize %d:", static_cast<int>(offset),
                    static_cast<int>(memSize));
        return nullptr;
    }
    // A header whose stride is shorter than a tail would put the tail's end past the
    // object; refuse it rather than touch bytes outside the mapping.
    if (static_cast<uint64_t>(offset) + kTail > limit) {
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

    queue_ = q;
    mapSize_ = memSize;
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
    queue_ = q;
    mapSize_ = copy.memSize;
    name_ = name;
    MIXER_LOG_D("Mixer_DataTrans:Init:DataTrans %s Opened:", name);
    return 0;
}

bool DataTrans::DeInit() {
    StreamQueue* q = queue_;
    if (q == nullptr) return true;
    Lock(&q->mutex);
    if (q->hangUp) {
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
    Lock(&q->mutex);
    HangUpLocked();
    Unlock(&q->mutex);
    MIXER_LOG_I("Mixer_DataTrans:HangUpPeer:%s:", name_.c_str());
}

bool DataTrans::IsHungUp() {
    StreamQueue* q = queue_;
    if (q == nullptr) return true;
    return LoadRelaxed(q->hangUp) != 0;
}

bool DataTrans::IsStopped() {
    StreamQueue* q = queue_;
    if (q == nullptr) return true;
    Lock(&q->mutex);
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
    Lock(&q->mutex);
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
            err = pthread_cond_wait(&q->condSpaceAvail, &q->mutex);
        else
            err = pthread_cond_timedwait(&q->condSpaceAvail, &q->mutex, &deadline);
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
    char* result = PosToPtr(q, q->writePos);
    if (result != nullptr) {
        BlockTail* tail = TailLocked(q->writePos);
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
            if (nowFree > q->numBlk) {
                // The decrement and the tail's state stay as they are.
                MIXER_LOG_E("Mixer_DataTrans:GetWriteBuff:Free %d > %d:", static_cast<int>(nowFree),
                            static_cast<int>(q->numBlk));
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
    Lock(&q->mutex);
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
    BlockTail* tail = TailLocked(q->writePos);
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
    q->writePos = (q->writePos + 1 >= q->numBlk) ? 0 : q->writePos + 1;
    const uint32_t nowReady = q->numReady + 1;
    StoreRelaxed(q->numReady, nowReady);
    if (nowReady > q->numBlk) {
        MIXER_LOG_E("Mixer_DataTrans:CommitWriteBuff:Ready %d > %d:", static_cast<int>(nowReady),
                    static_cast<int>(q->numBlk));
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
            err = pthread_cond_wait(&q->condDataAvail, &q->mutex);
        else
            err = pthread_cond_timedwait(&q->condDataAvail, &q->mutex, &deadline);
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
    BlockTail* tail = TailLocked(q->readPos);
    char* data = tail != nullptr ? PosToPtr(q, q->readPos) : nullptr;
    if (data == nullptr) {
        err = EFAULT;
    } else if (tail->check != BLOCK_CHECK || tail->state != BLK_READY) {
        MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:check %x state %d:", tail->check, static_cast<int>(tail->state));
        ResetTail(tail, false);
        err = EFAULT;
    } else if (tail->length > q->userBlkSize ||
               static_cast<uint64_t>(data - reinterpret_cast<char*>(q)) + tail->length > mapSize_) {
        // A length beyond the block would send the reader outside it (or the mapping).
        MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:length %u > %u:", tail->length, q->userBlkSize);
        ResetTail(tail, false);
        err = EFAULT;
    } else {
        tail->state = BLK_READING;
        len = tail->length;
        if (bufId != nullptr) {
            // The tail may lack its terminator; the copy never reads past the field.
            *bufId = strndup(tail->bufId, sizeof(tail->bufId));
            if (*bufId == nullptr) MIXER_LOG_I("def:Mixer_DataTrans:Failed to allocate memory for buf id:");
        }
        result = data;
        const uint32_t nowReady = q->numReady - 1;
        StoreRelaxed(q->numReady, nowReady);
        if (nowReady > q->numBlk) {
            // Kept so: the message prints numFree, not numReady.
            MIXER_LOG_E("Mixer_DataTrans:GetReadBuff:Ready %d > %d:", static_cast<int>(q->numFree),
                        static_cast<int>(q->numBlk));
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
    StreamQueue* q = queue_;
    if (q == nullptr) {
        MIXER_LOG_E("Mixer_DataTrans:ReleaseReadBuff:reason=nullHandle:");
        return false;
    }
    Lock(&q->mutex);
    LogStatus("ReleaseReadBuff-Enter");
    const bool ok = ReleaseReadBuffLocked();
    LogStatus("ReleaseReadBuff-Exit");
    Unlock(&q->mutex);
    // After the unlock for the same reason as in CommitWriteBuff.
    if (ok) pthread_cond_broadcast(&q->condSpaceAvail);
    return ok;
}

bool DataTrans::ReleaseReadBuffLocked() {
    StreamQueue* q = queue_;
    BlockTail* tail = TailLocked(q->readPos);
    if (tail == nullptr) return false;
    if (tail->check != BLOCK_CHECK || tail->state != BLK_READING) {
        // readPos and numFree stay: the block is out of circulation until a Flush.
        MIXER_LOG_E("Mixer_DataTrans:ReleaseReadBuff:check %x state %d:", tail->check,
                    static_cast<int>(tail->state));
        ResetTail(tail, false);
        return false;
    }
    tail->state = BLK_FREE;
    q->readPos = (q->readPos + 1 >= q->numBlk) ? 0 : q->readPos + 1;
    const uint32_t nowFree = q->numFree + 1;
    if (nowFree > q->numBlk) {
        MIXER_LOG_E("Mixer_DataTrans:ReleaseReadBuff:Free %d > %d:", static_cast<int>(nowFree),
                    static_cast<int>(q->numBlk));
        StoreRelaxed(q->numFree, q->numBlk);
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

unsigned DataTrans::GetNumBlk() {
    const StreamQueue* q = queue_;
    return q == nullptr ? 0 : q->numBlk;
}

unsigned DataTrans::GetUserBlkSize() {
    const StreamQueue* q = queue_;
    return q == nullptr ? 0 : q->userBlkSize;
}

unsigned DataTrans::AddCount(unsigned n) {
    StreamQueue* q = queue_;
    if (q == nullptr) return 0;
    Lock(&q->mutex);
    q->count += n;
    const unsigned now = q->count;
    Unlock(&q->mutex);
    return now;
}

unsigned DataTrans::SubCount(unsigned n) {
    StreamQueue* q = queue_;
    if (q == nullptr) return 0;
    Lock(&q->mutex);
    q->count = n < q->count ? q->count - n : 0;
    const unsigned now = q->count;
    Unlock(&q->mutex);
    return now;
}

void DataTrans::Stop() {
    StreamQueue* q = queue_;
    if (q == nullptr) return;
    Lock(&q->mutex);
    q->stopped = 1;
    Unlock(&q->mutex);
}

void DataTrans::Resume() {
    StreamQueue* q = queue_;
    if (q == nullptr) return;
    Lock(&q->mutex);
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
    Lock(&q->cmdMutex);
    Lock(&q->mutex);
    if (q->cmd != CMD_NONE) MIXER_LOG_W("Mixer_DataTrans:SetCmd:erasing cmd %d:", static_cast<int>(q->cmd));
    q->cmd = cmd;
    MIXER_LOG_I("Mixer_DataTrans:SetCmd:New cmd %d:", static_cast<int>(cmd));
    timespec now;
    if (Now(now) != 0) {
        MIXER_LOG_E("Mixer_DataTrans:SetCmd:reason=noTime:");
    } else {
        const timespec deadline = deadline::AfterOneAndHalfSeconds(now);
        while (q->cmd != CMD_NONE) {
            const int rc = pthread_cond_timedwait(&q->cmdExecutedCond, &q->mutex, &deadline);
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
    if (q == nullptr) return CMD_NONE;
    Lock(&q->mutex);
    const tInOutCmd cmd = static_cast<tInOutCmd>(q->cmd);
    Unlock(&q->mutex);
    return cmd;
}

void DataTrans::CmdExecuted(tInOutCmd cmd) {
    StreamQueue* q = queue_;
    if (q == nullptr) return;
    Lock(&q->mutex);
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
    if (q == nullptr) return;
    Lock(&q->mutex);
    q->writePos = 0;
    q->readPos = 0;
    StoreRelaxed(q->numFree, q->numBlk);
    StoreRelaxed(q->numReady, 0u);
    q->count = 0;
    for (unsigned i = 0; i < q->numBlk; ++i) {
        BlockTail* tail = TailLocked(i);
        if (tail == nullptr) break;  // logged; the rest lies outside the object
        ResetTail(tail, true);
    }
    Unlock(&q->mutex);
}

int DataTrans::WaitTillUserBufEmpty() {
    StreamQueue* q = queue_;
    if (q == nullptr) return 0;
    Lock(&q->mutex);
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
        if (q->numFree == q->numBlk) {
            Unlock(&q->mutex);
            return 0;
        }
        const int rc = pthread_cond_timedwait(&q->condSpaceAvail, &q->mutex, &deadline);
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
    Lock(&q->mutex);
    const int v = q->*field;
    Unlock(&q->mutex);
    MIXER_LOG_D("Mixer_DataTrans:%s:%d:", op, v);
    return v;
}

void DataTrans::SetParam(int32_t StreamQueue::*field, int value) {
    StreamQueue* q = queue_;
    if (q == nullptr) return;
    Lock(&q->mutex);
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
