#pragma once

#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>

#include "host/control/ControlHandler.h"
#include "host/EngineSink.h"
#include "host/latency/LatencyProbe.h"

namespace mixer {
namespace host {

// Turns control requests into engine messages:
//   volume T P  -> MsgSetStreamVol(T, P, current speaker volume) to playback
//   speaker P   -> MsgSetSpeakerVol(P) to playback (and remembered for volume requests)
//   focus T     -> MsgSetFocus(T) to playback, and EngineSink::FocusChanged(T)
//   mic on/off  -> MsgEnableMic to record
//   status      -> a MsgWriteInfo to playback (which passes it on to record); the reply
//                  carries the report once both engines have written it
//   latency     -> arms the probe, keeps the output and the microphone running for the
//                  test, posts the latency-test message, and replies with the delay
//
// Threading: Handle runs on the control server's thread; mutex_ guards the remembered
// speaker volume and microphone switch. status and latency block for at most their
// time limits.
class ControlDispatcher : public ControlHandler {
public:
    struct Settings {
        Settings()
            : statusFile("/run/mixerd.status"), speakerVolume(40), statusTimeoutMs(3000),
              latencyTimeoutMs(2000), mixRate(48000), mixNumCh(2), micEnabled(false) {}
        std::string statusFile;      // where the engines write the report
        unsigned speakerVolume;      // the speaker volume the engines start with
        unsigned statusTimeoutMs;
        unsigned latencyTimeoutMs;
        unsigned mixRate, mixNumCh;  // format of the latency carrier
        bool micEnabled;             // what the daemon told the record engine at start
    };

    ControlDispatcher(EngineSink& sink, boost::shared_ptr<LatencyProbe> probe,
                      const Settings& settings);

    client::ControlReply Handle(const client::ControlCommand& cmd) override;

    unsigned SpeakerVolume() const;
    bool MicEnabled() const;

private:
    client::ControlReply Status();
    client::ControlReply Latency();

    EngineSink& sink_;
    boost::shared_ptr<LatencyProbe> probe_;
    Settings settings_;
    mutable std::mutex mutex_;
    unsigned speakerVolume_;  // GUARDED_BY(mutex_)
    bool micEnabled_;         // GUARDED_BY(mutex_)
};

}  // namespace host
}  // namespace mixer
