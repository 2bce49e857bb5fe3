#include "mixer/input/InputShmQ.h"

#include <sys/mman.h>

#include "mixer/core/Log.h"
#include "mixer/input/FrameSilence.h"
#include "mixer/transport/ClientMappings.h"
#include "shmq.h"

namespace mixer {

namespace {
// Consecutive underflow calls after which a silent writer counts as gone (about 20 s
// at one call per 20 ms period).
const int32_t kMaxUnderflows = 1000;
}  // namespace

InputShmQ::InputShmQ(const std::string& name_, unsigned int rate_, unsigned int numCh_,
                     unsigned int sampleSize_, const std::string& desc_)
    : Input(rate_, numCh_, sampleSize_, desc_), queue(nullptr), underflowCount(0), mappingSlot(-1) {
    name = name_;
    const ClientMappings::Ranges before = ClientMappings::Find(name);
    ClientMappings::OpenGuard guard;  // until the mapping is registered below
    queue = ShmQOpen(name.c_str());
    if (queue == nullptr) {
        // "Contructor" as spelt: log watchers match this exact line.
        MIXER_LOG_E("Mixer_InputShmQ:Contructor:Failed to open %s:", name.c_str());
        state = STATE_FAULT;
        return;
    }
    mappingSlot = ClientMappings::AddNew(name, before);
    state = STATE_ACTIVE;
}

InputShmQ::~InputShmQ() {
    if (queue != nullptr) ShmQClose(queue);
    ClientMappings::Remove(mappingSlot);
}

void InputShmQ::Pause() {
    if (state != STATE_HANGUP && state != STATE_FAULT) state = STATE_PAUSED;
}

void InputShmQ::Resume() {
    if (state != STATE_HANGUP && state != STATE_FAULT) state = STATE_ACTIVE;
}

boost::shared_ptr<AudioFrame> InputShmQ::Process() {
    if (state == STATE_PAUSED || state == STATE_HANGUP || state == STATE_FAULT)
        return boost::shared_ptr<AudioFrame>();

    const int32_t avail = ShmQDataAvail(queue);
    const bool shrunk = ClientMappings::Faulted(mappingSlot);
    if (avail < 0 || shrunk) {
        MIXER_LOG_E("Mixer_InputShmQ:Process:shmQ:%s, input faulted:",
                    shrunk ? "object shrunk by the writer" : "queue broken by the writer");
        // Nobody can use the queue any more, and its writer may not live to remove it.
        shm_unlink((name[0] == '/' ? name : "/" + name).c_str());
        state = STATE_FAULT;
        return boost::shared_ptr<AudioFrame>();
    }
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(sampleSize, rate, numCh, 20));
    const int32_t need = static_cast<int32_t>(frame->size);

    if (avail < need) {
        if (ShmQIsHungUp(queue) != 0) {
            state = STATE_HANGUP;
            MIXER_LOG_I("Mixer_InputShmQ:Process:shmQ:hangup");
        } else {
            if (++underflowCount == 1) MIXER_LOG_I("Mixer_InputShmQ:Process:EAGAIN:Start");
            if (underflowCount > kMaxUnderflows) {
                state = STATE_HANGUP;
                MIXER_LOG_I("Mixer_InputShmQ:Process:Too many underflow frames in a row:");
            }
        }
        // A partial frame stays queued for a later call.
        return boost::shared_ptr<AudioFrame>();
    }

    if (underflowCount != 0) {
        MIXER_LOG_I("Mixer_InputShmQ:Process:EAGAIN:Stop %d ms", 20 * underflowCount);
        underflowCount = 0;
    }

    const int32_t n = ShmQRead(queue, frame->data, need, need);
    if (n != need) {
        MIXER_LOG_W("Mixer_InputShmQ:Process:shmQ:%d != %d", n, need);
        state = STATE_FAULT;
        return boost::shared_ptr<AudioFrame>();
    }

    // A client writing silence takes no part in focus, ducking and mixing.
    if (FrameIsSilent(*frame)) return boost::shared_ptr<AudioFrame>();
    return frame;
}

}  // namespace mixer
