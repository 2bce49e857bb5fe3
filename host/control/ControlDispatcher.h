#pragma once

#include <mutex>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include "host/control/ControlHandler.h"
#include "host/EngineSink.h"
#include "host/MsgWriteInfoNotify.h"
#include "host/latency/LatencyProbe.h"

namespace mixer {
namespace host {

// Turns control requests into engine messages:
//   volume T P  -> MsgSetStreamVol(T, P, current speaker volume) to playback; the engine
//                  keeps each type's volume for good, so at most Settings::maxVolumeTypes
//                  types may be named: a new one beyond is refused (and logged)
//   speaker P   -> MsgSetSpeakerVol(P) to playback (and remembered for volume requests)
//   focus T     -> MsgSetFocus(T) to playback, and EngineSink::FocusChanged(T)
//   mic on/off  -> MsgEnableMic to record
//   status      -> a MsgWriteInfo to playback (which passes it on to record); the reply
//                  carries the report once both engines have written it, then the
//                  daemon's view (settings, streams) that the request brought back
//   get ...     -> the speaker volume and focus as last set here; a type's volume as
//                  the playback engine holds it (a status request's view)
//   stream N I  -> where the daemon stands on a client's stream (EngineSink)
//   latency     -> arms the probe, keeps the output and the microphone running for the
//                  test, posts the latency-test message, and replies with the delay
//
// Threading: Handle runs on the control server's thread; mutex_ guards the remembered
// speaker volume, focus and microphone switch. status and latency block for at most their
// time limits.
class ControlDispatcher : public ControlHandler {
public:
    struct Settings {
        Settings()
            : statusFile("/run/mixerd/mixerd.status"), speakerVolume(40), statusTimeoutMs(3000),
              latencyTimeoutMs(2000), mixRate(48000), mixNumCh(2), micEnabled(false), maxVolumeTypes(64) {}
        std::string statusFile;      // where the engines write the report
        unsigned speakerVolume;      // the speaker volume the engines start with
        unsigned statusTimeoutMs;
        unsigned latencyTimeoutMs;
        unsigned mixRate, mixNumCh;  // format of the latency carrier
        bool micEnabled;             // what the daemon told the record engine at start
        unsigned maxVolumeTypes;     // stream types a volume request may name
    };

    ControlDispatcher(EngineSink& sink, boost::shared_ptr<LatencyProbe> probe,
                      const Settings& settings);

    client::ControlReply Handle(const client::ControlCommand& cmd) override;

    unsigned SpeakerVolume() const;
    bool MicEnabled() const;

private:
    // A status request's round trip: the engines' report in the status file and the
    // daemon's view; false with error after the time limit.
    bool Snapshot(MsgWriteInfoNotify::View& view, std::string& error);
    client::ControlReply Status();
    client::ControlReply Latency();

    EngineSink& sink_;
    boost::shared_ptr<LatencyProbe> probe_;
    Settings settings_;
    mutable std::mutex mutex_;
    unsigned speakerVolume_;  // GUARDED_BY(mutex_)
    bool micEnabled_;         // GUARDED_BY(mutex_)
    std::string focus_;       // GUARDED_BY(mutex_): empty for none
    std::set<std::string> volumeTypes_;  // GUARDED_BY(mutex_): the types given a volume
};

}  // namespace host
}  // namespace mixer
