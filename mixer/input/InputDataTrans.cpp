#include "mixer/input/InputDataTrans.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mixer/core/Log.h"

namespace mixer {

namespace {
const unsigned kFrameMs = 20;
const unsigned kBlockingReadMs = 320;
// Gaps of up to this many empty periods are not worth an information line.
const unsigned kQuietGapPeriods = 15;
}  // namespace

InputDataTrans::InputDataTrans(boost::shared_ptr<DataTrans> dataTrans_, unsigned rate_, unsigned numCh_,
                               unsigned sampleSize_, const std::string& desc_)
    : Input(rate_, numCh_, sampleSize_, desc_),
      dataTrans(dataTrans_),
      readPtr(nullptr),
      blockLeft(0),
      eagainCount(0),
      pauseDelayMs(0),
      releasePending(false),
      busyPeriods(0) {
    if (dataTrans) {
        name = dataTrans->GetName();
        // The engine thread must never stall on a client's lock.
        dataTrans->SetLockWaitMs(DataTrans::kEngineLockWaitMs);
    }
    state = STATE_ACTIVE;
    memset(bufId, 0, sizeof(bufId));
}

InputDataTrans::~InputDataTrans() {}

void InputDataTrans::PauseDelay(unsigned ms) {
    switch (state) {
        case STATE_PAUSED:
        case STATE_HANGUP:
        case STATE_FAULT:
        case STATE_STOPPED:
            return;
        default:
            break;
    }
    pauseDelayMs = ms;
    state = ms != 0 ? STATE_PAUSING : STATE_PAUSED;
}

void InputDataTrans::Pause() { PauseDelay(0); }

void InputDataTrans::Drain() {
    if (state == STATE_ACTIVE || state == STATE_DRAINING || state == STATE_PAUSING) {
        pauseDelayMs = 0;
        state = STATE_DRAINING;
    }
}

void InputDataTrans::Flush() {
    if (state == STATE_HANGUP || state == STATE_FAULT || state == STATE_STOPPED) return;
    pauseDelayMs = 0;
    if (blockLeft != 0 || releasePending) {
        if (dataTrans) ReleaseUsedBlock();
        blockLeft = 0;
        readPtr = nullptr;
    }
    // With a release still pending the queue is left as it is: flushing it would free
    // that block under the release.
    if (dataTrans && !releasePending) dataTrans->Flush();
    state = STATE_PAUSED;
}

void InputDataTrans::Resume() {
    if (state == STATE_DRAINING || state == STATE_PAUSING || state == STATE_PAUSED || state == STATE_STOPPED) {
        pauseDelayMs = 0;
        state = STATE_ACTIVE;
        eagainCount = 0;
        if (dataTrans) dataTrans->Resume();
    }
}

void InputDataTrans::Stop() {
    if (dataTrans) dataTrans->Stop();
    state = STATE_STOPPED;
}

tInOutCmd InputDataTrans::GetCmd() { return dataTrans ? dataTrans->GetCmd() : CMD_NONE; }

int InputDataTrans::HandleCmd(tInOutCmd cmd) {
    if (!dataTrans) return 1;
    switch (cmd) {
        case CMD_PAUSE:
            // The engine has ramped the gain down and called PauseDelay already.
            break;
        case CMD_DRAIN:
            Drain();
            break;
        case CMD_FLUSH:
            Flush();
            break;
        case CMD_RESUME:
            Resume();
            break;
        case CMD_STOP:
            Stop();
            break;
        default:
            return 1;
    }
    dataTrans->CmdExecuted(cmd);
    return 0;
}

void InputDataTrans::ReleaseUsedBlock() {
    int err = 0;
    releasePending = !dataTrans->ReleaseReadBuff(err) && err == EBUSY;
}

boost::shared_ptr<AudioFrame> InputDataTrans::Process() {
    // A block whose release met a busy lock goes back before anything else is read.
    if (releasePending && dataTrans) ReleaseUsedBlock();
    if (state == STATE_PAUSED || state == STATE_HANGUP || state == STATE_FAULT) {
        if (dataTrans && dataTrans->IsHungUp()) state = STATE_HANGUP;
        return boost::shared_ptr<AudioFrame>();
    }

    boost::shared_ptr<AudioFrame> frame(new AudioFrame(sampleSize, rate, numCh, kFrameMs));
    UtilConcatBufId(frame->bufId, bufId, ' ');
    uint32_t left = frame->size;
    char* dst = frame->data;
    bool complete = false;
    bool busy = false;  // the queue's lock could not be taken this period

    for (;;) {
        if (left == 0) {
            complete = true;
            break;
        }
        if (readPtr == nullptr) {
            if (!dataTrans) {
                state = STATE_FAULT;
                break;
            }
            if (releasePending) {
                busy = true;
                break;
            }
            int err = 0;
            unsigned len = 0;
            char* id = nullptr;
            char* block = dataTrans->GetReadBuff(err, len, blocking ? kBlockingReadMs : 0, &id);
            if (block != nullptr) {
                if (id != nullptr) {
                    strncpy(bufId, id, sizeof(bufId) - 1);
                    bufId[sizeof(bufId) - 1] = '\0';
                    UtilConcatBufId(frame->bufId, id, ' ');
                    free(id);
                }
                blockLeft = len;
                readPtr = block;
                if (eagainCount != 0) {
                    if (eagainCount > kQuietGapPeriods)
                        MIXER_LOG_I("Mixer_InputDataTrans:Process:EAGAIN:Stop %d ms",
                                    static_cast<int>(kFrameMs * eagainCount));
                    eagainCount = 0;
                }
                continue;
            }
            if (err == EBUSY) {
                // No data now, though the queue is not known to be empty: neither a
                // gap nor the end of a drain.
                busy = true;
                break;
            }
            if (err == EAGAIN || err == ETIMEDOUT) {
                if (state == STATE_DRAINING || state == STATE_PAUSING) {
                    state = STATE_PAUSED;
                    pauseDelayMs = 0;
                    eagainCount = 0;
                }
                if (++eagainCount == 1) MIXER_LOG_D("Mixer_InputDataTrans:Process:EAGAIN:Start");
                break;
            }
            if (err == EINTR) {
                MIXER_LOG_I("Mixer_InputDataTrans:Process:EINTR:");
                continue;
            }
            if (err == EHOSTDOWN) {
                state = STATE_HANGUP;
                MIXER_LOG_I("Mixer_InputDataTrans:Process:EHOSTDOWN Last Frame:");
                break;
            }
            MIXER_LOG_I("Mixer_InputDataTrans:Process:EFAULT:");
            state = STATE_FAULT;
            break;
        }
        const uint32_t n = left < blockLeft ? left : blockLeft;
        if (n > 0) {
            memcpy(dst, readPtr, n);
            dst += n;
            readPtr += n;
            left -= n;
            blockLeft -= n;
            dataTrans->SubCount(n);
        }
        if (blockLeft == 0) {
            ReleaseUsedBlock();
            readPtr = nullptr;
            memset(bufId, 0, sizeof(bufId));
        }
    }

    if (!busy) {
        busyPeriods = 0;
    } else if (++busyPeriods >= kMaxBusyPeriods && state != STATE_HANGUP && state != STATE_FAULT) {
        MIXER_LOG_E("Mixer_InputDataTrans:Process:queue lock held for %u ms, input faulted:", kFrameMs * busyPeriods);
        state = STATE_FAULT;
    }

    if (!complete) {
        if (left == frame->size) {
            frame.reset();
        } else {
            // The last audio of a departing client is delivered, padded with silence.
            memset(dst, 0, left);
        }
        memset(bufId, 0, sizeof(bufId));
    }

    if (state == STATE_PAUSING) {
        if (pauseDelayMs > kFrameMs) {
            pauseDelayMs -= kFrameMs;
        } else {
            pauseDelayMs = 0;
            state = STATE_PAUSED;
        }
    }
    return frame;
}

}  // namespace mixer
