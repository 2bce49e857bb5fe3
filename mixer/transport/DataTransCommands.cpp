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
    if (match) Wake(CondWaker::kCmdExecuted);
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
