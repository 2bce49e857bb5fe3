#include "host/control/ControlDispatcher.h"

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <sstream>

#include "client/ControlProtocol.h"
#include "client/StreamRules.h"
#include "host/latency/LatencyCarrierInput.h"
#include "host/latency/LatencyListener.h"
#include "host/MsgWriteInfoNotify.h"
#include "mixer/core/Log.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgNewInput.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgSetSpeakerVol.h"
#include "mixer/core/MsgSetStreamVol.h"

namespace mixer {
namespace host {

ControlDispatcher::ControlDispatcher(EngineSink& sink, boost::shared_ptr<LatencyProbe> probe,
                                     const Settings& settings)
    : sink_(sink), probe_(probe), settings_(settings), speakerVolume_(settings.speakerVolume),
      micEnabled_(settings.micEnabled) {}

unsigned ControlDispatcher::SpeakerVolume() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return speakerVolume_;
}

bool ControlDispatcher::MicEnabled() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return micEnabled_;
}

client::ControlReply ControlDispatcher::Handle(const client::ControlCommand& cmd) {
    switch (cmd.kind) {
    case client::ControlCommand::kStreamVolume: {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (!volumeTypes_.count(cmd.streamType)) {
                if (volumeTypes_.size() >= settings_.maxVolumeTypes) {
                    MIXER_LOG_W("Mixerd_Control:volume %.40s refused: %u types have a volume already (the limit):",
                                cmd.streamType.c_str(), settings_.maxVolumeTypes);
                    return client::ControlReply::Error("too many stream types: " +
                                                       std::to_string(settings_.maxVolumeTypes) +
                                                       " have a volume already (the daemon's limit)");
                }
                volumeTypes_.insert(cmd.streamType);
            }
        }
        unsigned speaker = SpeakerVolume();
        sink_.PostPlayback(boost::shared_ptr<MsgHead>(new MsgSetStreamVol(cmd.streamType, cmd.volume, speaker)));
        MIXER_LOG_I("Mixerd_Control:volume %s %u (speaker %u):", cmd.streamType.c_str(), cmd.volume, speaker);
        return client::ControlReply::Ok();
    }
    case client::ControlCommand::kSpeakerVolume: {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            speakerVolume_ = cmd.volume;
        }
        sink_.PostPlayback(boost::shared_ptr<MsgHead>(new MsgSetSpeakerVol(cmd.volume)));
        MIXER_LOG_I("Mixerd_Control:speaker %u:", cmd.volume);
        return client::ControlReply::Ok();
    }
    case client::ControlCommand::kFocus: {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            focus_ = cmd.streamType;
        }
        // The engine cannot take focus away; "none" only stops new streams getting it.
        if (!cmd.streamType.empty())
            sink_.PostPlayback(boost::shared_ptr<MsgHead>(new MsgSetFocus(cmd.streamType)));
        sink_.FocusChanged(cmd.streamType);
        MIXER_LOG_I("Mixerd_Control:focus '%s':", cmd.streamType.c_str());
        return client::ControlReply::Ok();
    }
    case client::ControlCommand::kMic: {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            micEnabled_ = cmd.enable;
        }
        sink_.PostRecord(boost::shared_ptr<MsgHead>(new MsgEnableMic(cmd.enable ? 1 : 0)));
        MIXER_LOG_I("Mixerd_Control:mic %s:", cmd.enable ? "on" : "off");
        return client::ControlReply::Ok();
    }
    case client::ControlCommand::kStatus:
        return Status();
    case client::ControlCommand::kLatency:
        return Latency();
    case client::ControlCommand::kStream: {
        std::string verdict = sink_.StreamVerdict(cmd.streamType, cmd.id);
        if (verdict == client::ControlProtocol::kAccepted && client::StreamRules::IsRecordName(cmd.streamType) &&
            !MicEnabled())
            verdict += std::string(" ") + client::ControlProtocol::kMicOff;
        return client::ControlReply::Ok(verdict + "\n");
    }
    case client::ControlCommand::kGetVolume: {
        MsgWriteInfoNotify::View view;
        std::string error;
        if (!Snapshot(view, error)) return client::ControlReply::Error(error);
        std::map<std::string, unsigned>::const_iterator v = view.volumes.find(cmd.streamType);
        // A type without a volume of its own starts at the speaker volume.
        return client::ControlReply::Ok(
            std::to_string(v != view.volumes.end() ? v->second : static_cast<unsigned>(view.speakerVolume)) + "\n");
    }
    case client::ControlCommand::kGetSpeaker:
        return client::ControlReply::Ok(std::to_string(SpeakerVolume()) + "\n");
    case client::ControlCommand::kGetFocus: {
        std::lock_guard<std::mutex> guard(mutex_);
        return client::ControlReply::Ok((focus_.empty() ? std::string("none") : focus_) + "\n");
    }
    case client::ControlCommand::kHelp:
        break;
    }
    return client::ControlReply::Error("request not handled here");
}

bool ControlDispatcher::Snapshot(MsgWriteInfoNotify::View& view, std::string& error) {
    const std::string& file = settings_.statusFile;
    unlink(file.c_str());  // so that a report left from earlier is never taken for this one
    std::shared_ptr<std::promise<void>> done = std::make_shared<std::promise<void>>();
    std::shared_ptr<MsgWriteInfoNotify::View> seen = std::make_shared<MsgWriteInfoNotify::View>();
    std::future<void> written = done->get_future();
    sink_.PostPlayback(boost::shared_ptr<MsgHead>(new MsgWriteInfoNotify(file, done, seen)));
    done.reset();
    if (written.wait_for(std::chrono::milliseconds(settings_.statusTimeoutMs)) != std::future_status::ready) {
        error = "no status report within " + std::to_string(settings_.statusTimeoutMs) + " ms: the engines do not answer";
        return false;
    }
    view = *seen;
    if (!view.taken) {  // engines that pass the request on without the daemon: its own settings
        view.speakerVolume = static_cast<int>(SpeakerVolume());
        std::lock_guard<std::mutex> guard(mutex_);
        view.focus = focus_;
    }
    return true;
}

client::ControlReply ControlDispatcher::Status() {
    MsgWriteInfoNotify::View view;
    std::string error;
    if (!Snapshot(view, error)) return client::ControlReply::Error(error);
    const std::string& file = settings_.statusFile;
    std::ifstream in(file.c_str());
    if (!in) return client::ControlReply::Error("the engines could not write the status report to " + file);
    std::ostringstream body;
    body << in.rdbuf();
    // The daemon's view after the engines' report, which stays as they wrote it.
    body << "Daemon view:\n"
         << "Speaker volume: " << view.speakerVolume << "\n"
         << "Focus: " << (view.focus.empty() ? "none" : view.focus) << "\n"
         << "Ducking: " << (view.ducking ? "on" : "off") << "\n"
         << "Microphone: " << (MicEnabled() ? "on" : "off") << "\n"
         << "Playback streams: " << view.playing.size() << "\n";
    for (size_t i = 0; i < view.playing.size(); ++i) {
        const MsgWriteInfoNotify::View::Playing& p = view.playing[i];
        body << i << "\t" << p.type << "\t" << p.name << "\tvolume " << p.volume << "\t" << p.rate << " Hz\t"
             << p.state << "\n";
    }
    body << "Record streams: " << view.recording.size() << "\n";
    for (size_t i = 0; i < view.recording.size(); ++i)
        body << i << "\t" << view.recording[i].name << "\t" << view.recording[i].rate << " Hz\t"
             << view.recording[i].numCh << " ch\n";
    return client::ControlReply::Ok(body.str());
}

client::ControlReply ControlDispatcher::Latency() {
    if (probe_->Active()) return client::ControlReply::Error("a latency test is already running");
    bool micWasOn = MicEnabled();
    probe_->Arm();
    if (!micWasOn) sink_.PostRecord(boost::shared_ptr<MsgHead>(new MsgEnableMic(1)));
    boost::shared_ptr<Output> listener(new LatencyListener(probe_));
    sink_.PostRecord(boost::shared_ptr<MsgHead>(new MsgNewOutput(listener, PLAYBACK_MODE_DEFAULT)));
    unsigned carrierFrames = settings_.latencyTimeoutMs / 20 + 1;
    boost::shared_ptr<Input> carrier(
        new LatencyCarrierInput(probe_, settings_.mixRate, settings_.mixNumCh, carrierFrames));
    sink_.PostPlayback(boost::shared_ptr<MsgHead>(new MsgNewInput(carrier)));
    sink_.PostPlayback(boost::shared_ptr<MsgHead>(new MsgHead(MSG_LATENCY_TEST)));
    int64_t delayUs = 0;
    LatencyProbe::Outcome outcome = probe_->Wait(settings_.latencyTimeoutMs, delayUs);
    if (!micWasOn) sink_.PostRecord(boost::shared_ptr<MsgHead>(new MsgEnableMic(0)));
    std::string limit = std::to_string(settings_.latencyTimeoutMs) + " ms";
    switch (outcome) {
    case LatencyProbe::kMeasured: {
        char text[64];
        snprintf(text, sizeof(text), "latency %lld.%lld ms\n", static_cast<long long>(delayUs / 1000),
                 static_cast<long long>((delayUs % 1000) / 100));
        MIXER_LOG_I("Mixerd_Control:LatencyTest:%lld us:", static_cast<long long>(delayUs));
        return client::ControlReply::Ok(text);
    }
    case LatencyProbe::kNoMark:
        MIXER_LOG_W("Mixerd_Control:LatencyTest:no mark written:");
        return client::ControlReply::Error("latency test: the output did not carry the mark within " + limit +
                                   " (no silence algorithm on the output?)");
    default:
        MIXER_LOG_W("Mixerd_Control:LatencyTest:mark not heard:");
        return client::ControlReply::Error("latency test: the mark did not come back on the microphone within " +
                                   limit + " (the microphone must hear the speaker: a tone or WAV microphone never does)");
    }
}

}  // namespace host
}  // namespace mixer
