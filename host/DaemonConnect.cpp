#include "host/DaemonConnect.h"

#include <sys/stat.h>

#include <cstring>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "host/AlgoChannelMap.h"
#include "host/AlgoSoxrResample.h"
#include "host/latency/AlgoLatencyMark.h"
#include "host/devices/DataTransOutput.h"
#include "host/devices/DiscardOutput.h"
#include "host/latency/LatencyCarrierInput.h"
#include "host/MsgNewClientOutput.h"
#include "mixer/playback/Playback.h"
#include "client/ControlProtocol.h"
#include "client/StreamQueueName.h"
#include "client/StreamRules.h"
#include "host/StreamOwner.h"
#include "host/StreamToken.h"
#include "host/devices/ToneMicInput.h"
#include "host/devices/TrailingSilence.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/algo/AlgoResample.h"
#include "mixer/core/Log.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/input/InputDataTrans.h"
#include "mixer/input/InputShmB.h"
#include "mixer/input/InputShmQ.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace host {

const char* const DaemonConnect::kEventStreamAdded = "MixerStreamAdded";
const char* const DaemonConnect::kEventStreamRemoved = "MixerStreamRemoved";
const char* const DaemonConnect::kEventFocusChanged = "MixerFocusChanged";

namespace {

// Refusals remembered for the clients that ask why: enough for every client that can
// be waiting at one time; the oldest goes first.
const size_t kRefusalsKept = 64;
// Where shm_open keeps its objects.
const std::string kShmDir = "/dev/shm";

// Appends the algorithms that take frames of (inRate, inCh) to (outRate, outCh): the
// channel map first when it reduces the channels, so the resampler has fewer to do.
boost::shared_ptr<Algo> Resampler(bool soxr, unsigned channels, unsigned inRate, unsigned outRate) {
    if (soxr) return boost::make_shared<AlgoSoxrResample>(channels, inRate, outRate);
    return boost::make_shared<AlgoResample>(channels, inRate, outRate);
}

void AddFormatChain(Stream& stream, bool soxr, unsigned inRate, unsigned inCh, unsigned outRate, unsigned outCh) {
    const bool map = inCh != outCh;
    const bool resample = inRate != outRate;
    if (map && inCh > outCh) stream.AddAlgo(boost::make_shared<AlgoChannelMap>(inCh, outCh));
    if (resample) stream.AddAlgo(Resampler(soxr, map && inCh > outCh ? outCh : inCh, inRate, outRate));
    if (map && inCh < outCh) stream.AddAlgo(boost::make_shared<AlgoChannelMap>(inCh, outCh));
}

}  // namespace

DaemonConnect::DaemonConnect(const Settings& settings, OutputSource outputs, MicSource mics, EventQueue& events,
                             boost::shared_ptr<LatencyProbe> probe)
    : settings_(settings), outputs_(outputs), mics_(mics), events_(events), probe_(probe),
      waker_(boost::make_shared<CondWaker>()), micEnabled_(settings.micEnabled), nextSerial_(1) {}

DaemonConnect::~DaemonConnect() {}

void DaemonConnect::SetQueues(boost::shared_ptr<MsgQ> playback, boost::shared_ptr<MsgQ> record) {
    playbackQ_ = playback;
    recordQ_ = record;
}

bool DaemonConnect::Post(const boost::weak_ptr<MsgQ>& queue, boost::shared_ptr<MsgHead> msg) {
    boost::shared_ptr<MsgQ> q = queue.lock();
    if (!q) return false;
    q->sendMsg(msg);
    return true;
}

int DaemonConnect::AddNewStream(const std::string& fileName, sStreamInfo& info) {
    const size_t start = info.name.find_first_not_of('/');
    const std::string name = start == std::string::npos ? std::string() : info.name.substr(start);
    const bool record = client::StreamRules::IsRecordName(name);
    MIXER_LOG_I("Mixerd_Connect:AddNewStream:%s name %s type %s %u Hz %u ch ss %u meta '%s':", fileName.c_str(),
                name.c_str(), info.type.c_str(), info.rate, info.numCh, info.sampleSize, info.meta.c_str());
    const char* refusal = client::StreamRules::Refusal(name, info.type, info.rate, info.numCh, info.sampleSize);
    if (!refusal && record) {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!micEnabled_) refusal = "the microphone is off (mixerctl mic on)";
    }
    std::string why = refusal ? refusal : "";
    uid_t owner = 0;
    StreamOwner::Verdict verdict = StreamOwner::kOk;
    if (why.empty()) {
        const bool block = record || info.type == client::kTypeDataTrans;
        verdict = StreamOwner::Check(fileName, info, kShmDir + (block ? client::StreamQueueName(name) : "/" + name),
                                     owner, why);
    }
    uint64_t serial = 0;
    if (why.empty()) {
        std::lock_guard<std::mutex> guard(mutex_);
        std::map<std::string, Live>::const_iterator it = live_.find(name);
        if (it != live_.end() && it->second.owner == owner) {
            // The client rewrote its file: the stream plays already, and the file stays.
            MIXER_LOG_W("Mixerd_Connect:AddNewStream:%s is live already; announcement ignored:", name.c_str());
            return 0;
        }
        if (it != live_.end()) {
            why = "the stream is live as user " + std::to_string(it->second.owner) + "'s";
        } else if (const char* limit = CountRefusal(owner)) {
            why = limit;
        } else {
            serial = nextSerial_++;
            live_[name] = Live{serial, fileName, false, 0, info.id, record, info.rate, info.numCh, owner};
        }
    }
    if (!why.empty()) {
        MIXER_LOG_W("Mixerd_Connect:AddNewStream:%s refused: %s:", fileName.c_str(), why.c_str());
        Refuse(name, info.id, why);
        return -1;
    }
    std::function<void()> onGone = [this, name, serial] { StreamGone(name, serial); };

    boost::shared_ptr<MsgHead> msg;
    boost::shared_ptr<DataTrans> queue;
    if (verdict == StreamOwner::kNoQueue) {
        MIXER_LOG_W("Mixerd_Connect:AddNewStream:%s: no queue:", name.c_str());
    } else if (record) {
        boost::shared_ptr<Output> out = OpenRecord(info, onGone, queue, why);
        if (out) msg.reset(new MsgNewClientOutput(out, info.rate, info.numCh));
    } else {
        boost::shared_ptr<Input> in = OpenPlayback(info, onGone, queue, why);
        if (in) {
            in->name = name;
            msg.reset(new MsgNewInput(in));
        }
    }
    if (!msg) {
        // Unannounced: a token that was made has let the name go already, silently.
        {
            std::lock_guard<std::mutex> guard(mutex_);
            std::map<std::string, Live>::iterator it = live_.find(name);
            if (it != live_.end() && it->second.serial == serial) live_.erase(it);
        }
        Refuse(name, info.id, why.empty() ? "the daemon cannot open the stream's queue" : why);
        return -1;
    }
    // Only now that the token exists: it is what ends the watch.
    const uint64_t watch = queue ? WatchClient(name, info.id, queue) : 0;
    bool focus;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        Live& live = live_[name];
        live.announced = true;
        live.watch = watch;
        focus = !record && !focusType_.empty() && focusType_ == (info.meta.empty() ? kStreamDefault : info.meta);
    }
    // Announced before the engine can drop it, so "removed" never comes first.
    events_.Push(kEventStreamAdded, name);
    if (!Post(record ? recordQ_ : playbackQ_, msg)) {
        // Dropping msg fires the token: the removal is announced as well.
        MIXER_LOG_W("Mixerd_Connect:AddNewStream:%s: the engines have stopped:", name.c_str());
        Refuse(name, info.id, "the daemon is stopping");
        return -1;
    }
    if (focus) Post(playbackQ_, boost::make_shared<MsgSetFocus>(info.meta));
    MIXER_LOG_I("Mixerd_Connect:AddNewStream:%s posted to the %s engine%s:", name.c_str(),
                record ? "record" : "playback", focus ? " with focus" : "");
    return 0;
}

uint64_t DaemonConnect::WatchClient(const std::string& name, int pid, const boost::shared_ptr<DataTrans>& queue) {
    boost::weak_ptr<DataTrans> weak = queue;
    auto hangUp = [name, pid](DataTrans& q) {
        if (q.IsHungUp()) return;  // it closed before it ended, as it should
        q.HangUpPeer();
        // Logged once done, so that whoever sees the line can count on the hang-up.
        MIXER_LOG_W("Mixerd_Connect:ClientEnded:%s: process %d ended without closing its queue: hung up:",
                    name.c_str(), pid);
    };
    uint64_t id = 0;
    // The action cannot outlive the queue (the token unwatches first), but a weak share
    // keeps it from being the one that closes it.
    ClientWatcher::Result r = watcher_.Watch(static_cast<pid_t>(pid), [weak, hangUp] {
        if (boost::shared_ptr<DataTrans> q = weak.lock()) hangUp(*q);
    }, id);
    if (r == ClientWatcher::kGone) hangUp(*queue);
    return id;
}

const char* DaemonConnect::CountRefusal(uid_t owner) const {
    if (live_.size() >= settings_.maxStreams) return "too many streams (the daemon's limit of all users)";
    unsigned mine = 0;
    for (const auto& l : live_) mine += l.second.owner == owner;
    return mine >= settings_.maxStreamsPerUser ? "too many streams of this user (the daemon's limit)" : nullptr;
}

boost::shared_ptr<DataTrans> DaemonConnect::OpenQueue(const std::string& qname, const char* op, std::string& why) {
    boost::shared_ptr<DataTrans> queue = boost::make_shared<DataTrans>();
    const int err = queue->Init(qname.c_str());
    if (err != 0) {
        MIXER_LOG_W("Mixerd_Connect:%s:cannot open %s: %s:", op, qname.c_str(), std::strerror(err));
        return boost::shared_ptr<DataTrans>();
    }
    const uint64_t bytes = static_cast<uint64_t>(queue->GetNumBlk()) * (queue->GetUserBlkSize() + sizeof(BlockTail));
    if (queue->GetNumBlk() > settings_.maxQueueBlocks || bytes > settings_.maxQueueBytes) {
        why = "queue too large: " + std::to_string(queue->GetNumBlk()) + " blocks, " + std::to_string(bytes) +
              " bytes (the daemon's limit: " + std::to_string(settings_.maxQueueBlocks) + " blocks, " +
              std::to_string(settings_.maxQueueBytes) + " bytes)";
        MIXER_LOG_W("Mixerd_Connect:%s:%s refused: %s:", op, qname.c_str(), why.c_str());
        // Closing here hangs the queue up: its client, closing last, removes it.
        return boost::shared_ptr<DataTrans>();
    }
    return queue;
}

boost::shared_ptr<Input> DaemonConnect::OpenPlayback(const sStreamInfo& info, std::function<void()> onGone,
                                                     boost::shared_ptr<DataTrans>& queue, std::string& why) {
    const std::string meta = info.meta.empty() ? kStreamDefault : info.meta;
    if (info.type == client::kTypeDataTrans) {
        queue = OpenQueue(client::StreamQueueName(info.name), "OpenPlayback", why);
        if (!queue) return boost::shared_ptr<Input>();
        queue->SetWaker(waker_);
        return boost::make_shared<Tracked<TrailingSilence<InputDataTrans> > >(onGone, queue, info.rate, info.numCh,
                                                                               info.sampleSize, meta);
    }
    boost::shared_ptr<Input> in;
    if (info.type == kTypeShmQ)
        in = boost::make_shared<Tracked<TrailingSilence<InputShmQ> > >(onGone, info.name, info.rate, info.numCh,
                                                                        info.sampleSize, meta);
    else
        in = boost::make_shared<Tracked<TrailingSilence<InputShmB> > >(onGone, info.name, info.rate, info.numCh,
                                                                        info.sampleSize, meta);
    if (in->state == STATE_FAULT) return boost::shared_ptr<Input>();  // the input logged why
    return in;
}

boost::shared_ptr<Output> DaemonConnect::OpenRecord(const sStreamInfo& info, std::function<void()> onGone,
                                                   boost::shared_ptr<DataTrans>& queue, std::string& why) {
    queue = OpenQueue(client::StreamQueueName(info.name), "OpenRecord", why);
    if (!queue) return boost::shared_ptr<Output>();
    queue->SetWaker(waker_);
    const size_t start = info.name.find_first_not_of('/');
    return boost::make_shared<Tracked<DataTransOutput> >(onGone, queue, info.name.substr(start));
}

void DaemonConnect::StreamGone(const std::string& name, uint64_t serial) {
    std::string fileName;
    bool announced;
    uint64_t watch;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        std::map<std::string, Live>::iterator it = live_.find(name);
        if (it == live_.end() || it->second.serial != serial) return;
        announced = it->second.announced;
        watch = it->second.watch;
        fileName = it->second.fileName;
        live_.erase(it);
    }
    // Before the input or output closes the queue: a running hang-up finishes first.
    watcher_.Unwatch(watch);
    if (!announced) return;  // never reached an engine: the caller reports the refusal
    UtilRemoveFile(fileName);  // the client normally removed it already
    events_.Push(kEventStreamRemoved, name);
    MIXER_LOG_I("Mixerd_Connect:StreamGone:%s:", name.c_str());
}

void DaemonConnect::Refuse(const std::string& name, int id, const std::string& reason) {
    std::lock_guard<std::mutex> guard(mutex_);
    refusals_.push_back(Refusal{name, id, reason});
    if (refusals_.size() > kRefusalsKept) refusals_.pop_front();
}

std::string DaemonConnect::StreamVerdict(const std::string& name, int id) {
    std::lock_guard<std::mutex> guard(mutex_);
    std::map<std::string, Live>::const_iterator it = live_.find(name);
    if (it != live_.end() && it->second.id == id && it->second.announced) return client::ControlProtocol::kAccepted;
    for (std::deque<Refusal>::const_reverse_iterator r = refusals_.rbegin(); r != refusals_.rend(); ++r)
        if (r->name == name && r->id == id) return std::string(client::ControlProtocol::kRefused) + " " + r->reason;
    return client::ControlProtocol::kUnknown;
}

void DaemonConnect::FillView(const Playback& pb, MsgWriteInfoNotify::View& view) {
    view.speakerVolume = pb.speakerVolume;
    view.volumes.insert(pb.streamVolumes.begin(), pb.streamVolumes.end());
    for (const boost::shared_ptr<Stream>& s : pb.inputs) {
        const std::string& type = s->GetMeta();
        std::map<std::string, uint32_t>::const_iterator v = pb.streamVolumes.find(type);
        boost::shared_ptr<Input> in = s->GetInput();
        const tInOutState state = s->GetState();
        view.playing.push_back(MsgWriteInfoNotify::View::Playing{
            type, s->GetName(), MixerIO::GetStateStr(state),
            v != pb.streamVolumes.end() ? v->second : static_cast<unsigned>(pb.speakerVolume), in ? in->rate : 0});
        if (s->GetPriority() != 0 && state == STATE_ACTIVE) view.ducking = true;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    view.focus = focusType_;
    for (const auto& l : live_)
        if (l.second.record && l.second.announced)
            view.recording.push_back(MsgWriteInfoNotify::View::Recording{l.first, l.second.rate, l.second.numCh});
    view.taken = true;
}

std::map<std::string, std::string> DaemonConnect::LiveStreams() const {
    std::map<std::string, std::string> names;
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& l : live_) names[l.first] = l.second.fileName;
    return names;
}

void DaemonConnect::Ping() { MIXER_LOG_I("Mixerd_Connect:Ping:stream directory watched:"); }

void DaemonConnect::AddPlaybackInputAlgos(boost::shared_ptr<Stream> stream, boost::shared_ptr<MsgNewInput>) {
    boost::shared_ptr<Input> in = stream->GetInput();
    if (!in) return;
    AddFormatChain(*stream, settings_.soxr, in->rate, in->numCh, settings_.rate, settings_.numCh);
    // The latency carrier is no client's sound: it stays out of volumes and ducking.
    if (in->desc != LatencyCarrierInput::kStreamType) stream->AddAlgo(boost::make_shared<AlgoRampGain>());
}

int DaemonConnect::AddPlaybackOutputAlgos(boost::shared_ptr<Output> output, boost::shared_ptr<Stream> outStream,
                                          tPlaybackModes mode) {
    // The speaker volume: the engine sets it on the output chain's ramp gain (52 unity,
    // 100 +24 dB, ramped over 50 ms); the outputs have no volume of their own.
    outStream->AddAlgo(boost::make_shared<AlgoRampGain>());
    if (settings_.deviceRate != settings_.rate)
        outStream->AddAlgo(Resampler(settings_.soxr, settings_.numCh, settings_.rate, settings_.deviceRate));
    // Last, so that a latency mark reaches the device as written.
    outStream->AddAlgo(boost::make_shared<AlgoLatencyMark>(probe_));
    MIXER_LOG_I("Mixerd_Connect:AddPlaybackOutputAlgos:%s mode %d:", output ? output->name.c_str() : "",
                static_cast<int>(mode));
    return 0;
}

void DaemonConnect::AddRecordAlgos(boost::shared_ptr<StreamOut> stream, boost::shared_ptr<MsgNewOutput> msg) {
    boost::shared_ptr<MsgNewClientOutput> client = boost::dynamic_pointer_cast<MsgNewClientOutput>(msg);
    if (!client) return;  // the daemon's own listeners take the microphone as it is
    AddFormatChain(*stream, settings_.soxr, settings_.micRate, settings_.micNumCh, client->rate, client->numCh);
}

void DaemonConnect::ChainMsgRecord(boost::shared_ptr<MsgHead> msg) {
    boost::shared_ptr<MsgWriteInfoNotify> info = boost::dynamic_pointer_cast<MsgWriteInfoNotify>(msg);
    if (info && info->view && playback_) FillView(*playback_, *info->view);
    if (!Post(recordQ_, msg)) MIXER_LOG_W("Mixerd_Connect:ChainMsgRecord:no record engine:");
}

boost::shared_ptr<Output> DaemonConnect::GetPlaybackDefaultOutput() {
    boost::shared_ptr<Output> out = outputs_ ? outputs_() : boost::shared_ptr<Output>();
    if (out) return out;
    MIXER_LOG_E("Mixerd_Connect:GetPlaybackDefaultOutput:no playback device: the mix is dropped:");
    return boost::make_shared<DiscardOutput>();
}

boost::shared_ptr<Input> DaemonConnect::GetRecordDefaultInput() {
    boost::shared_ptr<Input> in = mics_ ? mics_() : boost::shared_ptr<Input>();
    if (in) return in;
    // The record engine needs an input at all times: a silent one, paced like a device.
    MIXER_LOG_W("Mixerd_Connect:GetRecordDefaultInput:no microphone: recording clients hear silence:");
    return boost::make_shared<ToneMicInput>(settings_.micRate, settings_.micNumCh, 440.0, 0.0);
}

void DaemonConnect::GetSumParams(unsigned& rate, unsigned& numCh, tSampleSize& sampleSize) {
    rate = settings_.rate;
    numCh = settings_.numCh;
    sampleSize = SAMPLE_SIZE_16;
}

void DaemonConnect::getAudioVolume(int* volume) {
    if (volume) *volume = static_cast<int>(settings_.speakerVolume);
}

void DaemonConnect::PostPlayback(boost::shared_ptr<MsgHead> msg) {
    if (!Post(playbackQ_, msg)) MIXER_LOG_W("Mixerd_Connect:PostPlayback:no playback engine:");
}

void DaemonConnect::PostRecord(boost::shared_ptr<MsgHead> msg) {
    if (boost::shared_ptr<MsgEnableMic> mic = boost::dynamic_pointer_cast<MsgEnableMic>(msg)) {
        std::lock_guard<std::mutex> guard(mutex_);
        micEnabled_ = mic->enable != 0;
    }
    if (!Post(recordQ_, msg)) MIXER_LOG_W("Mixerd_Connect:PostRecord:no record engine:");
}

void DaemonConnect::FocusChanged(const std::string& streamType) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        focusType_ = streamType;
    }
    events_.Push(kEventFocusChanged, streamType.empty() ? "none" : streamType);
}

}  // namespace host
}  // namespace mixer
