#include "mixer/stream/Stream.h"

#include "mixer/core/Log.h"

namespace mixer {

const unsigned Stream::kPositions;

namespace {

// Kept so for existing hosts: ClearAlgos forgets ids 0 to 5 only, and an id-6 entry
// keeps pointing at its old position after the chain is rebuilt.
const unsigned kClearedPositions = 6;

}  // namespace

Stream::Stream() {
    for (unsigned i = 0; i < kPositions; ++i) positions[i] = -1;
}

Stream::~Stream() {}

int Stream::SetVolume(int) { return 0; }

boost::shared_ptr<AudioFrame> Stream::Process() {
    if (!input) {
        MIXER_LOG_W("Mixer_Stream:Process:No Input:");
        return boost::shared_ptr<AudioFrame>();
    }
    return Process(input->Process());
}

boost::shared_ptr<AudioFrame> Stream::Process(boost::shared_ptr<AudioFrame> frame) {
    if (!frame) return frame;
    for (const boost::shared_ptr<Algo>& algo : algos) frame = algo->Process(frame);
    return frame;
}

uint32_t Stream::GetLatencyUs() {
    uint32_t sum = 0;
    for (const boost::shared_ptr<Algo>& algo : algos) sum += algo->GetLatencyUs();
    return sum;
}

tInOutState Stream::GetState() { return input ? input->state : STATE_ACTIVE; }

const std::string& Stream::GetName() const { return input ? input->name : name; }

const std::string& Stream::GetMeta() const { return input ? input->desc : name; }

uint32_t Stream::GetPriority() {
    if (!input) {
        MIXER_LOG_W("Mixer_Stream:GetPriority:Cannot get the input stream priority:");
        return 0;
    }
    return input->priority;
}

void Stream::SetPriority(unsigned int p) {
    if (!input) {
        MIXER_LOG_W("Mixer_Stream:SetPriority:Cannot set the input stream priority:");
        return;
    }
    input->priority = p;
}

void Stream::SetInput(boost::shared_ptr<Input> input_) { input = input_; }

boost::shared_ptr<Input> Stream::GetInput() { return input; }

int Stream::AddAlgo(boost::shared_ptr<Algo> algo) {
    if (!algo) {
        MIXER_LOG_W("Mixer_Stream:AddAlgo:Cannot add empty Algo:");
        return -1;
    }
    const int pos = static_cast<int>(algos.size());
    algos.push_back(algo);
    const uint32_t id = algo->id;
    if (id < kPositions)
        positions[id] = pos;
    else
        MIXER_LOG_W("Mixer_Stream:AddAlgo:Invalid ID %d:", static_cast<int>(id));
    return pos;
}

void Stream::ClearAlgos() {
    algos.clear();
    for (unsigned i = 0; i < kClearedPositions; ++i) positions[i] = -1;
}

boost::shared_ptr<Algo> Stream::GetAlgoByPos(int pos) {
    if (pos < 0 || pos >= static_cast<int>(algos.size())) {
        MIXER_LOG_D("Mixer_Stream:GetAlgoByPos:Invalid pos %d:", pos);
        return boost::shared_ptr<Algo>();
    }
    return algos[pos];
}

boost::shared_ptr<Algo> Stream::GetAlgoById(tAlgoID id) {
    if (static_cast<uint32_t>(id) >= kPositions) {
        MIXER_LOG_W("Mixer_Stream:GetAlgoById:Invalid ID %d:", static_cast<int>(id));
        return boost::shared_ptr<Algo>();
    }
    return GetAlgoByPos(positions[id]);
}

}  // namespace mixer
