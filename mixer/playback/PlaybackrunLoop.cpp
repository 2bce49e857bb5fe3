// The playback thread's body.
//
// Threading: runs on the mixing thread only, which alone touches the engine's inputs,
// output stream, output, volumes and focus (every change arrives as a message handled
// in the drain at the top of a period). It blocks in getMsg while idle, in the output's
// own calls and in the pacing sleeps. Per period it allocates the mix frame (and the
// streams allocate their frames).

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <cstring>

#include <boost/make_shared.hpp>

#include "mixer/algo/Algo.h"
#include "mixer/core/Log.h"
#include "mixer/playback/Playback.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"

namespace mixer {

namespace {

const int32_t kIdleCountdownMs = 20000;
const int32_t kPeriodMs = 20;
const int64_t kPeriodUs = 20000;
const int64_t kWritePacingUs = 40000;  // non-"ALSA" outputs: pacing points this far apart
const int kThreadPriority = 70;

// Sleeps us microseconds on the monotonic clock, resuming after signals.
void SleepUs(int64_t us) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(us / 1000000);
    ts.tv_nsec = static_cast<long>((us % 1000000) * 1000);
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, &ts) == EINTR) {
    }
}

// Sleeps until period microseconds after last. An elapsed time outside [0, period) (a
// clock step, or a wrap of the 32-bit seconds product) does not sleep.
void SleepUntilAfter(const Playback& pb, int64_t lastUs, int64_t periodUs) {
    int64_t elapsed = pb.GetTimeUS() - lastUs;
    if (elapsed >= 0 && elapsed <= periodUs - 1) SleepUs(periodUs - elapsed);
}

void RaiseToRealTime() {
    // A refusal (no privilege) leaves the thread at its normal policy.
    int policy;
    struct sched_param param;
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0) return;
    param.sched_priority = kThreadPriority;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
}

}  // namespace

void* PlaybackrunLoop(void* arg) {
    Playback* pb = static_cast<Playback*>(arg);

    MIXER_LOG_E("Mixer_Playback:In PlaybackrunLoop:...:");  // error level marks every start
    // running was raised by Init before this thread existed (so a quick DeInit is not
    // lost); nothing to set here.
    MIXER_LOG_I("Mixer_Playback:runLoop:Ready:");
    RaiseToRealTime();
    if (!pb->output) pb->SetupDefaultOutput();
    pb->idleCountdownMs = kIdleCountdownMs;
    bool duckingActive = false;
    int64_t lastOutTimeUs = 0;

    while (pb->running) {
        pb->heartbeat.Beat();
        MIXER_LOG_P("Mixer_Playback:PlaybackThread::runLoop:Timestamp-%d.%06d:Entering...:");

        // Nothing to play, or silent for too long: pause the output and sleep on the queue.
        bool wait = false;
        if (pb->inputs.empty() || pb->idleCountdownMs <= 0) {
            wait = true;
            if (pb->output && pb->output->state == STATE_ACTIVE) {
                pb->output->Pause();
                MIXER_LOG_I("Mixer_Playback:Process:Pause:%d", pb->idleCountdownMs);
            }
        }
        // Blocks at most once, for the first message; the rest are taken without waiting.
        while (pb->running) {
            if (wait) pb->heartbeat.SetIdle(true);
            boost::shared_ptr<MsgHead> msg = pb->msgQ->getMsg(wait);
            if (wait) pb->heartbeat.SetIdle(false), pb->idleCountdownMs = kIdleCountdownMs;
            if (!msg) break;
            pb->handleMsg(msg);
            wait = false;
        }
        if (!pb->running) {
            MIXER_LOG_E("Mixer_Playback:!ok2run so breaking...::");
            break;
        }
        if (pb->inputs.empty()) {
            MIXER_LOG_E("Mixer_Playback:inputList size is 0..::");
            continue;
        }

        boost::shared_ptr<AudioFrame> mix =
            boost::make_shared<AudioFrame>(pb->sumSampleSize, pb->sumRate, pb->sumNumCh, kPeriodMs);
        std::memset(mix->data, 0, mix->size);
        bool mixed = false;
        bool prioritySeen = false;

        std::list<boost::shared_ptr<Stream> >::iterator it = pb->inputs.begin();
        while (it != pb->inputs.end()) {
            boost::shared_ptr<Stream> s = *it;
            pb->CheckForCmd(s);
            boost::shared_ptr<AudioFrame> f = s->Process();
            if (f) {
                if (s->GetPriority() != 0) {
                    if (!duckingActive) {
                        MIXER_LOG_P("Mixer_Playback:setFocus:Timestamp-%d.%06d:Frame to be "
                                    "focused %s:", s->GetMeta().c_str());
                        pb->EnableAudioDucking();
                        MIXER_LOG_P("Mixer_Playback:setFocus:Timestamp-%d.%06d:Frame has "
                                    "been focused:");
                        duckingActive = true;
                    }
                    prioritySeen = true;
                } else if (!prioritySeen && duckingActive) {
                    // Priority streams stand first, so none of them sounds this period.
                    MIXER_LOG_P("Mixer_Playback:setFocus:Timestamp-%d.%06d:No priority "
                                "frames available. Stopping focus:");
                    pb->DisableAudioDucking();
                    duckingActive = false;
                }
                if (Algo::AddFrames(mix, f) == 0) mixed = true;
            } else {
                tInOutState st = s->GetState();
                if (st == STATE_HANGUP || st == STATE_FAULT) {
                    MIXER_LOG_W("Mixer_Playback:runLoop:Erasing Input %s:", s->GetName().c_str());
                    it = pb->inputs.erase(it);
                    // Kept so: the step after a removal is taken from the follower, which
                    // is thereby skipped this period; from the end it wraps to the front,
                    // and every remaining stream gives a second frame to this same mix.
                    // The engine's observable timing depends on it.
                    if (it == pb->inputs.end()) it = pb->inputs.begin();
                    else ++it;
                    continue;
                }
                MIXER_LOG_D("Mixer_Playback:runLoop:Input Silent:");
            }
            ++it;
        }

        if (mixed) {
            pb->idleCountdownMs = kIdleCountdownMs;
            // Without an output (the host had no default) the mix has nowhere to go.
            if (pb->output && pb->outStream) {
                mix = pb->outStream->Process(mix);
                if (pb->output->state == STATE_PAUSED) {
                    MIXER_LOG_I("Mixer_Playback:Process:Resume:");
                    pb->output->Resume();
                }
                int r = pb->output->WriteFrame(mix);
                // "ALSA" paces itself by blocking in its write: no sleep, no PostWrite.
                if (pb->output->name != "ALSA" && r != -1) {
                    SleepUntilAfter(*pb, lastOutTimeUs, kWritePacingUs);
                    pb->output->PostWrite();
                    lastOutTimeUs = pb->GetTimeUS();
                }
                if (pb->output->state != STATE_ACTIVE) {
                    MIXER_LOG_E("Mixer_Playback:Process:Error or Output closed - revert to "
                                "default out:");
                    pb->SetupDefaultOutput();
                }
            } else {
                // No device to block in or to pace on: the clock keeps the periods 20 ms
                // apart, or this real-time thread would spin and starve the machine.
                SleepUntilAfter(*pb, lastOutTimeUs, kPeriodUs);
                lastOutTimeUs = pb->GetTimeUS();
            }
            MIXER_LOG_P("Mixer_Playback:PlaybackThread::runLoop:Timestamp-%d.%06d:Output "
                        "Processing Done ...:");
        } else {
            SleepUntilAfter(*pb, lastOutTimeUs, kPeriodUs);
            if (pb->output) pb->output->IdleTick();
            lastOutTimeUs = pb->GetTimeUS();
            if (pb->idleCountdownMs > 0) {
                pb->idleCountdownMs -= kPeriodMs;
                MIXER_LOG_P("Mixer_Playback:PlaybackThread::runLoop:Timestamp-%d.%06d:Output "
                            "Processing Done ...:");
            }
        }
    }

    MIXER_LOG_W("Mixer_Playback:runLoop:Exiting!!!:");
    return nullptr;
}

}  // namespace mixer
