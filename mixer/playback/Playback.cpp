#include "mixer/playback/Playback.h"

#include <time.h>

#include <cstdio>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "mixer/algo/AlgoRampGain.h"
#include "mixer/algo/AlgoSilence.h"
#include "mixer/core/Log.h"
#include "mixer/core/MsgPing.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/input/MixerIO.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"

namespace mixer {

namespace {

const int32_t kIdleCountdownMs = 20000;
const unsigned kFadeMs = 250;      // pause/resume fades, and a stream's own volume change
const unsigned kSpeakerRampMs = 50;

boost::shared_ptr<AlgoRampGain> RampGainOf(const boost::shared_ptr<Stream>& stream) {
    return boost::dynamic_pointer_cast<AlgoRampGain>(stream->GetAlgoById(ALGO_ID_RAMP_GAIN));
}

}  // namespace

Playback::Playback()
    : running(false),
      msgQ(boost::make_shared<MsgQ>()),
      sumRate(0),
      sumNumCh(0),
      sumSampleSize(SAMPLE_SIZE_16),
      speakerVolume(40),
      thread(),
      idleCountdownMs(kIdleCountdownMs),
      connect(nullptr),
      threadStarted_(false) {}

Playback::~Playback() {
    DeInit();
}

int Playback::Init(Connect* connect_) {
    if (!connect_) return -1;
    connect = connect_;
    connect->getAudioVolume(&speakerVolume);
    MIXER_LOG_I("Mixer_Playback:PlaybackrunLoop thread creation..!::");
    // Raised here rather than by the thread itself: a DeInit that comes before the new
    // thread has run must still find the flag to clear, or the thread would never stop.
    running = true;
    threadStarted_ = pthread_create(&thread, nullptr, &PlaybackrunLoop, this) == 0;
    if (!threadStarted_) running = false;
    return 0;
}

void Playback::DeInit() {
    running = false;
    msgQ->sendMsg(boost::make_shared<MsgPing>());  // wakes a thread blocked on the queue
    if (threadStarted_) {
        pthread_join(thread, nullptr);
        threadStarted_ = false;
    }
    if (output) output.reset();
}

boost::shared_ptr<MsgQ> Playback::GetMsgQ() {
    return msgQ;
}

int64_t Playback::GetTimeUS() const {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // Kept in 32 bits: the seconds' product wraps (about every 4295 s); only differences
    // a few tens of ms apart are ever used, and a wrapped one is never slept on.
    int32_t secUs = static_cast<int32_t>(static_cast<uint32_t>(ts.tv_sec) * 1000000u);
    return static_cast<int64_t>(secUs) + ts.tv_nsec / 1000;
}

void Playback::handleMsg(boost::shared_ptr<MsgHead> msg) {
    // A code paired with the wrong class is dropped like an unknown code instead of
    // being handed on as an empty pointer.
    switch (msg->type) {
        case MSG_NEW_INPUT:
            if (boost::shared_ptr<MsgNewInput> m = boost::dynamic_pointer_cast<MsgNewInput>(msg))
                return AddNewInput(m);
            break;
        case MSG_NEW_OUTPUT:
            if (boost::shared_ptr<MsgNewOutput> m = boost::dynamic_pointer_cast<MsgNewOutput>(msg))
                return ChangeOutput(m);
            break;
        case MSG_SET_STREAM_VOL:
            if (boost::shared_ptr<MsgSetStreamVol> m =
                    boost::dynamic_pointer_cast<MsgSetStreamVol>(msg))
                return SetStreamVol(m);
            break;
        case MSG_SET_SPEAKER_VOL:
            if (boost::shared_ptr<MsgSetSpeakerVol> m =
                    boost::dynamic_pointer_cast<MsgSetSpeakerVol>(msg))
                return SetSpeakerVol(m);
            break;
        case MSG_LATENCY_TEST:
            return LatencyTestStart();
        case MSG_PING:
            return;
        case MSG_WRITE_INFO:
            if (boost::shared_ptr<MsgWriteInfo> m = boost::dynamic_pointer_cast<MsgWriteInfo>(msg)) {
                WriteInfo(m->fileName);
                connect->ChainMsgRecord(msg);  // one request: playback, then record status
                return;
            }
            break;
        case MSG_SET_FOCUS:
            if (boost::shared_ptr<MsgSetFocus> m = boost::dynamic_pointer_cast<MsgSetFocus>(msg))
                return SetFocus(m->streamType);
            break;
        default:
            break;
    }
    MIXER_LOG_E("Mixer_Playback:handleMsg:Unsupported type %u:", msg->type);
}

void Playback::AddNewInput(boost::shared_ptr<MsgNewInput> msg) {
    boost::shared_ptr<Stream> stream = boost::make_shared<Stream>();
    stream->SetInput(msg->input);
    connect->AddPlaybackInputAlgos(stream, msg);

    const std::string key = stream->GetMeta();
    boost::shared_ptr<AlgoRampGain> gain = RampGainOf(stream);
    if (gain) {
        uint32_t volume;
        std::map<std::string, uint32_t>::iterator it = streamVolumes.find(key);
        if (it == streamVolumes.end()) {
            volume = static_cast<uint32_t>(speakerVolume);
            ForgetDefaultVolumes();
            streamVolumes[key] = volume;
        } else {
            volume = it->second;
        }
        gain->SetVolume(volume, static_cast<uint32_t>(speakerVolume));
    }
    inputs.push_back(stream);
    ApplyCurrentFocus(key);
    idleCountdownMs = kIdleCountdownMs;  // not idle before the new stream is heard
    MIXER_LOG_I("Mixer_Playback:AddNewInput:Added the stream to the input list:Stream Type %s",
                key.c_str());
}

void Playback::ForgetDefaultVolumes() {
    // A type at the speaker volume without a stream reads the same without its entry;
    // dropping those keeps the map to the types given a volume and those playing, not
    // every type a client ever named.
    for (std::map<std::string, uint32_t>::iterator it = streamVolumes.begin(); it != streamVolumes.end();) {
        bool playing = false;
        for (const boost::shared_ptr<Stream>& s : inputs) playing = playing || s->GetMeta() == it->first;
        if (!playing && it->second == static_cast<uint32_t>(speakerVolume))
            it = streamVolumes.erase(it);
        else
            ++it;
    }
}

void Playback::ChangeOutput(boost::shared_ptr<MsgNewOutput> msg) {
    MIXER_LOG_I("Mixer_Playback:ChangeOutput:Mode %d:", static_cast<int>(msg->mode));
    boost::shared_ptr<StreamOut> newStream = boost::make_shared<StreamOut>();
    int result = connect->AddPlaybackOutputAlgos(msg->output, newStream, msg->mode);
    newStream->SetOutput(msg->output);
    if (result != 0) return;  // refused: the old output plays on
    newStream->SetVolume(speakerVolume);
    output = msg->output;
    outStream = newStream;
    MIXER_LOG_I("Mixer_Playback:ChangeOutput:Changed Output:");
}

void Playback::SetupDefaultOutput() {
    connect->GetSumParams(sumRate, sumNumCh, sumSampleSize);
    output = connect->GetPlaybackDefaultOutput();
    if (!output) {
        MIXER_LOG_E("Mixer_Playback:GetPlaybackDefaultOutput returned NULL!::");
        return;
    }
    outStream = boost::make_shared<StreamOut>();
    connect->AddPlaybackOutputAlgos(output, outStream, PLAYBACK_MODE_DEFAULT);
    outStream->SetOutput(output);
    outStream->SetVolume(speakerVolume);
    MIXER_LOG_I("Mixer_Playback:SetupDefaultOutput:Done: speaker volume percent = %d",
                speakerVolume);
}

void Playback::SetStreamVol(boost::shared_ptr<MsgSetStreamVol> msg) {
    streamVolumes[msg->streamType] = msg->volume;
    // A speaker change ramps fast; a change of one type's volume ramps slowly.
    unsigned rampMs =
        msg->speakerVolume == static_cast<uint32_t>(speakerVolume) ? kFadeMs : kSpeakerRampMs;
    speakerVolume = static_cast<int32_t>(msg->speakerVolume);
    for (const boost::shared_ptr<Stream>& stream : inputs) {
        MIXER_LOG_D("Mixer_Playback:MsgSetStreamVol:%s %s:", msg->streamType.c_str(),
                    stream->GetMeta().c_str());
        if (stream->GetMeta() != msg->streamType) continue;
        boost::shared_ptr<AlgoRampGain> gain = RampGainOf(stream);
        if (!gain) continue;
        // A paused stream moves no frames to carry a ramp: it takes the gain at once.
        unsigned ramp = stream->GetState() == STATE_PAUSED ? 0 : rampMs;
        gain->SetRampMs(msg->volume, ramp, 0, msg->speakerVolume);
        MIXER_LOG_D("Mixer_Playback:MsgSetStreamVol:%s %u:", msg->streamType.c_str(),
                    msg->volume);
    }
}

void Playback::SetSpeakerVol(boost::shared_ptr<MsgSetSpeakerVol> msg) {
    speakerVolume = static_cast<int32_t>(msg->volume);
    if (outStream) outStream->SetVolume(speakerVolume);
    ResetInputStreamVolume();
    MIXER_LOG_I("def:Mixer_Playback:SetSpeakerVol:volume percent changed to %d", speakerVolume);
}

void Playback::SetFocus(const std::string& streamType) {
    for (const boost::shared_ptr<Stream>& stream : inputs) {
        if (stream->GetMeta() == streamType) {
            focusStreamType = streamType;
            stream->SetPriority(1);
        }
    }
    // list::sort is stable: equal priorities keep their order of arrival.
    inputs.sort([](const boost::shared_ptr<Stream>& a, const boost::shared_ptr<Stream>& b) {
        return a->GetPriority() > b->GetPriority();
    });
    for (const boost::shared_ptr<Stream>& stream : inputs) {
        MIXER_LOG_I("Mixer_Playback:setFocus:Input Stream type %s with %d priority:",
                    stream->GetMeta().c_str(), static_cast<int>(stream->GetPriority()));
    }
    MIXER_LOG_I("Mixer_Playback:setFocus:Size of the input list %d:",
                static_cast<int>(inputs.size()));
}

void Playback::ApplyCurrentFocus(const std::string& streamType) {
    if (streamType == focusStreamType) {
        MIXER_LOG_I("Mixer_Playback:ApplyCurrentFocus:New stream needs to be focussed based on "
                    "the cache:");
        SetFocus(focusStreamType);
    } else {
        MIXER_LOG_I("Mixer_Playback:ApplyCurrentFocus:New input stream is not a Focus Stream, "
                    "the focus stream cache value %s:",
                    focusStreamType.c_str());
    }
}

void Playback::EnableAudioDucking() {
    MIXER_LOG_I("Mixer_Playback:AudioDucking:Enabling audio ducking:");
    const uint32_t speaker = static_cast<uint32_t>(speakerVolume);
    for (const boost::shared_ptr<Stream>& stream : inputs) {
        uint32_t volume = stream->GetPriority() != 0 ? speaker : speaker >> 1;
        SetStreamVol(boost::make_shared<MsgSetStreamVol>(stream->GetMeta(), volume, speaker));
    }
}

void Playback::DisableAudioDucking() {
    MIXER_LOG_I("Mixer_Playback:AudioDucking:Disabling audio ducking:");
    ResetInputStreamVolume();
}

void Playback::ResetInputStreamVolume() {
    const uint32_t speaker = static_cast<uint32_t>(speakerVolume);
    for (const boost::shared_ptr<Stream>& stream : inputs) {
        SetStreamVol(boost::make_shared<MsgSetStreamVol>(stream->GetMeta(), speaker, speaker));
    }
}

void Playback::CheckForCmd(boost::shared_ptr<Stream> stream) {
    boost::shared_ptr<Input> input = stream->GetInput();
    if (!input) return;
    tInOutCmd cmd = input->GetCmd();
    if (cmd == CMD_NONE) return;
    const uint32_t speaker = static_cast<uint32_t>(speakerVolume);
    if (cmd == CMD_PAUSE) {
        boost::shared_ptr<AlgoRampGain> gain = RampGainOf(stream);
        if (gain) gain->SetRampMs(0, kFadeMs, 0, speaker);
        // The input keeps delivering while the fade-out is heard.
        input->PauseDelay(kFadeMs);
    } else if (cmd == CMD_RESUME) {
        boost::shared_ptr<AlgoRampGain> gain = RampGainOf(stream);
        if (gain) {
            uint32_t volume = 0;
            std::map<std::string, uint32_t>::iterator it = streamVolumes.find(stream->GetMeta());
            if (it == streamVolumes.end()) {
                MIXER_LOG_W("Mixer_Playback:CheckForCmd:Resume NO volume for %s:",
                            stream->GetMeta().c_str());
            } else {
                volume = it->second;
            }
            gain->SetRampMs(volume, kFadeMs, 0, speaker);
        }
    }
    input->HandleCmd(cmd);
}

void Playback::WriteInfo(const std::string& fileName) {
    FILE* f = fopen(fileName.c_str(), "w");
    if (!f) {
        MIXER_LOG_W("Mixer_Playback:WriteInfo:Could not open %s:", fileName.c_str());
        return;
    }
    static const char kRule[] = "=================================================";
    fprintf(f, "%s\n", kRule);
    fprintf(f, "State info %s:\n", "Mixer_Playback");
    if (output) {
        fprintf(f, "Output:%s\t%s\n", output->name.c_str(),
                MixerIO::GetStateStr(output->state).c_str());
    } else {
        // No output yet (or the host had none): an empty name and no state of its own.
        fprintf(f, "Output:\t%s\n", MixerIO::GetStateStr(STATE_STOPPED).c_str());
    }
    fprintf(f, "Inactivity count down: %d\n", static_cast<int>(idleCountdownMs));
    fprintf(f, "Sum rate: %u numCh: %u ss: %d\n", sumRate, sumNumCh,
            static_cast<int>(sumSampleSize));
    // The frame length is reported as the period's constant, not read from a frame.
    fprintf(f, "Frame len: %d\n", 20);
    fprintf(f, "Number of input streams: %u\n", static_cast<unsigned>(inputs.size()));
    unsigned n = 0;
    for (const boost::shared_ptr<Stream>& stream : inputs) {
        fprintf(f, "%u\t%s\t%s\t%s\n", n++, stream->GetMeta().c_str(),
                MixerIO::GetStateStr(stream->GetState()).c_str(), stream->GetName().c_str());
    }
    fprintf(f, "%s\n", kRule);
    fclose(f);
}

void Playback::LatencyTestStart() {
    boost::shared_ptr<AlgoSilence> silence;
    if (outStream) {
        silence = boost::dynamic_pointer_cast<AlgoSilence>(outStream->GetAlgoById(ALGO_ID_SILENCE));
    }
    if (!silence) {
        MIXER_LOG_W("Mixer_Playback:LatencyTestStart:Could not find AlgoSilence:");
        return;
    }
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // Seconds scaled in 32 bits, as the rest of the engine's clock.
    int32_t secMs = static_cast<int32_t>(static_cast<uint32_t>(ts.tv_sec) * 1000u);
    silence->count = 0;
    silence->startTimeMs = static_cast<int64_t>(secMs) + ts.tv_nsec / 1000000;
    silence->running = 1;
}

}  // namespace mixer
