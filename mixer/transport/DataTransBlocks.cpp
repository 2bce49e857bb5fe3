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
#include "mixer/transport/DataTransShared.h"

namespace mixer {

using namespace datatrans;

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

namespace {

// The mixer's end waits for a block by trying again every 2 ms up to the time-out
// (SetWaker): attempt is the same call without waiting. A time-out ends in ETIMEDOUT.
template <class Attempt>
char* Polled(unsigned timeoutMs, int& err, Attempt attempt) {
    const timespec step = {0, 2000000};
    timespec now, until = {0, 0};
    if (Now(now) == 0 && timeoutMs != deadline::kForever) until = deadline::AfterMs(now, timeoutMs);
    for (;;) {
        char* block = attempt();
        if (block != nullptr || err != EAGAIN) return block;
        if (timeoutMs != deadline::kForever &&
            (Now(now) != 0 || now.tv_sec > until.tv_sec || (now.tv_sec == until.tv_sec && now.tv_nsec >= until.tv_nsec))) {
            err = ETIMEDOUT;
            return nullptr;
        }
        nanosleep(&step, nullptr);
    }
}

}  // namespace

char* DataTrans::GetWriteBuff(int& err, unsigned timeoutMs) {
    if (target_ && timeoutMs != 0) return Polled(timeoutMs, err, [&] { return GetWriteBuff(err, 0); });
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
    if (ok) Wake(CondWaker::kDataAvail);
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
    if (target_ && timeoutMs != 0) return Polled(timeoutMs, err, [&] { return GetReadBuff(err, len, 0, bufId); });
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
    if (ok) Wake(CondWaker::kSpaceAvail);
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


}  // namespace mixer
