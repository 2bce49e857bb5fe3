#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"
#include "mixer/core/Connect.h"
#include "mixer/core/Heartbeat.h"
#include "mixer/core/MsgHead.h"
#include "mixer/core/MsgNewInput.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgQ.h"
#include "mixer/core/MsgSetSpeakerVol.h"
#include "mixer/core/MsgSetStreamVol.h"
#include "mixer/core/Output.h"

namespace mixer {

class Stream;
class StreamOut;

// Body of the mixing thread that Playback::Init starts; arg is the Playback. Every
// 20-ms period it handles the pending messages, pulls one frame from every input
// stream, sums them, runs the output chain and writes the mix to the output.
MIXER_API void* PlaybackrunLoop(void* arg);

// The playback engine: the client input streams, the output stream and device, the
// volumes per stream type, the speaker volume, the focus, and the mixing thread.
//
// Threading: the constructor, Init, DeInit, the destructor and GetMsgQ run on a host
// thread; every other operation runs on the mixing thread only (the host reaches them by
// posting messages to GetMsgQ()), so the fields below carry no lock. Tests may call the
// handlers directly on an engine whose thread was never started. running is the one
// field written by the host thread and read by the mixing thread. The handlers allocate
// (streams, messages); the mixing thread blocks only on its queue, in the output's own
// calls and in its pacing sleeps.
class MIXER_API Playback {
public:
    Playback();
    ~Playback();

    // Starts the mixing thread after asking the host for the speaker volume. -1 when
    // connect is null (nothing started), else 0.
    int Init(Connect* connect_);
    // Stops and joins the thread and releases the output; inputs and the output stream
    // go with the destructor. Safe to call more than once, and without Init.
    void DeInit();

    boost::shared_ptr<MsgQ> GetMsgQ();
    // Monotonic clock in microseconds; the seconds are scaled in 32 bits, so the value
    // wraps about every 4295 s (a wrap shows as an out-of-range difference, which the
    // pacing does not sleep on).
    int64_t GetTimeUS() const;

    // Dispatch by type code: 0 AddNewInput, 1 ChangeOutput, 2 SetStreamVol,
    // 3 SetSpeakerVol, 5 LatencyTestStart, 6 nothing, 7 WriteInfo then on to the record
    // engine, 8 SetFocus; anything else is logged and dropped.
    void handleMsg(boost::shared_ptr<MsgHead> msg);

    void AddNewInput(boost::shared_ptr<MsgNewInput> msg);
    // Switches to msg's output unless the host refuses its algorithms.
    void ChangeOutput(boost::shared_ptr<MsgNewOutput> msg);
    // Mix format and default output from the host; a missing output keeps the old
    // output stream.
    void SetupDefaultOutput();
    void SetStreamVol(boost::shared_ptr<MsgSetStreamVol> msg);
    void SetSpeakerVol(boost::shared_ptr<MsgSetSpeakerVol> msg);

    // Focus and ducking.
    void SetFocus(const std::string& streamType);
    void ApplyCurrentFocus(const std::string& streamType);
    void EnableAudioDucking();
    void DisableAudioDucking();
    void ResetInputStreamVolume();
    // Drops the stored volumes that equal the speaker volume of types no input plays.
    void ForgetDefaultVolumes();
    // Carries out the command the client of stream's input has posted, with fades
    // around pause and resume.
    void CheckForCmd(boost::shared_ptr<Stream> stream);

    // Status report (replaces fileName's content) and latency test arming.
    void WriteInfo(const std::string& fileName);
    void LatencyTestStart();

    // The engine's state. Read and written by PlaybackrunLoop and the handlers on the
    // mixing thread only (or by a test driving the handlers without a thread).
    std::atomic<bool> running;                      // host writes false, thread reads
    // Beaten by the thread each period, idle while it waits on its queue: for a watchdog.
    Heartbeat heartbeat;
    boost::shared_ptr<MsgQ> msgQ;
    std::list<boost::shared_ptr<Stream> > inputs;   // in focus order
    boost::shared_ptr<StreamOut> outStream;         // chain run over each mix
    boost::shared_ptr<Output> output;
    unsigned sumRate;
    unsigned sumNumCh;
    tSampleSize sumSampleSize;
    std::map<std::string, uint32_t> streamVolumes;  // percent per stream type (meta text)
    int32_t speakerVolume;                          // percent
    pthread_t thread;
    int32_t idleCountdownMs;                        // silence left before the output pauses
    std::string focusStreamType;                    // last type given focus, or empty
    Connect* connect;                               // the host's, not owned

private:
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    bool threadStarted_;  // host thread only: thread is joinable
};

}  // namespace mixer
