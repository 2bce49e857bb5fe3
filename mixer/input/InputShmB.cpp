#include "mixer/input/InputShmB.h"

#include <sys/mman.h>

#include <cstring>

#include "mixer/core/Log.h"
#include "mixer/input/FrameSilence.h"
#include "mixer/transport/ClientMappings.h"
#include "shmbuf.h"

namespace mixer {

namespace {
// Consecutive short reads after which a silent writer counts as gone.
const int32_t kMaxUnderflows = 1000;
// How long a blocking input waits for a whole frame.
const uint32_t kBlockingWaitMs = 200;
}  // namespace

InputShmB::InputShmB(const std::string& name_, unsigned int rate_, unsigned int numCh_,
                     unsigned int sampleSize_, const std::string& desc_)
    : Input(rate_, numCh_, sampleSize_, desc_), buffer(nullptr), underflowCount(0), msgSize(0), mappingSlot(-1) {
    name = name_;
    const ClientMappings::Ranges before = ClientMappings::Find(name);
    ClientMappings::OpenGuard guard;  // until the mapping is registered below
    buffer = ShmbufOpen(name.c_str(), 0);
    if (buffer == nullptr) {
        MIXER_LOG_E("Mixer_InputShmB:Constructor:Failed to open %s:", name.c_str());
        state = STATE_FAULT;
        return;
    }
    mappingSlot = ClientMappings::AddNew(name, before);
    ShmbufReadStart(buffer, 0);  // a broken buffer shows at the first Process
    msgSize = ShmbufGetMsgSize(buffer);
    MIXER_LOG_I("Mixer_InputShmB:Constructor:%s Opened:", name.c_str());
    if (msgSize <= 0) {
        // Frames are cut into messages: without a size there is nothing to count by.
        MIXER_LOG_E("Mixer_InputShmB:Constructor:Bad message size %d of %s:", msgSize,
                    name.c_str());
        msgSize = 0;
        state = STATE_FAULT;
        return;
    }
    state = STATE_ACTIVE;
}

InputShmB::~InputShmB() {
    if (buffer != nullptr) {
        ShmbufClose(buffer);
        MIXER_LOG_I("Mixer_InputShmB:Destructor:%s Closed:", name.c_str());
    }
    ClientMappings::Remove(mappingSlot);
}

void InputShmB::Pause() {
    if (state != STATE_HANGUP && state != STATE_FAULT) state = STATE_PAUSED;
}

void InputShmB::Resume() {
    if (state == STATE_HANGUP || state == STATE_FAULT) return;
    state = STATE_ACTIVE;
    if (ShmbufReadStart(buffer, 0) < 0) Fail();
    underflowCount = 0;
}

void InputShmB::Fail() {
    MIXER_LOG_E("Mixer_InputShmB:Process:shmB:%s, input faulted:", ClientMappings::Faulted(mappingSlot)
                                                                       ? "object shrunk by the writer"
                                                                       : "buffer broken by the writer");
    // Nobody can use the buffer any more, and its writer may not live to remove it.
    shm_unlink((name[0] == '/' ? name : "/" + name).c_str());
    state = STATE_FAULT;
}

boost::shared_ptr<AudioFrame> InputShmB::Process() {
    if (state == STATE_PAUSED || state == STATE_HANGUP || state == STATE_FAULT)
        return boost::shared_ptr<AudioFrame>();

    if (ClientMappings::Faulted(mappingSlot)) {
        Fail();
        return boost::shared_ptr<AudioFrame>();
    }
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(sampleSize, rate, numCh, 20));
    const uint32_t countU = frame->size / static_cast<uint32_t>(msgSize);
    if (countU == 0) {
        // A message larger than the frame could never be read whole.
        MIXER_LOG_E("Mixer_InputShmB:Process:Message size %d above frame size %u:", msgSize,
                    frame->size);
        state = STATE_FAULT;
        return boost::shared_ptr<AudioFrame>();
    }
    const int32_t count = static_cast<int32_t>(countU);

    if (blocking) {
        const int32_t n = ShmbufReadWait(buffer, frame->data, countU, kBlockingWaitMs);
        if (n < 0) {
            Fail();
            return boost::shared_ptr<AudioFrame>();
        }
        if (n != count) {
            state = STATE_HANGUP;
            MIXER_LOG_W("Mixer_InputShmB:Process:Read %d for %d!!:", n, count);
            return boost::shared_ptr<AudioFrame>();
        }
        return frame;
    }

    const int32_t n = ShmbufRead(buffer, frame->data, countU, 0);
    if (n < 0) {
        Fail();
        return boost::shared_ptr<AudioFrame>();
    }
    if (n == count) {
        if (underflowCount != 0) {
            MIXER_LOG_I("Mixer_InputShmB:Process:EAGAIN:Stop %d ms", 20 * underflowCount);
            underflowCount = 0;
        }
        if (FrameIsSilent(*frame)) return boost::shared_ptr<AudioFrame>();
        return frame;
    }

    if (++underflowCount == 1) MIXER_LOG_I("Mixer_InputShmB:Process:EAGAIN:Start");
    if (underflowCount > kMaxUnderflows) {
        state = STATE_HANGUP;
        MIXER_LOG_I("Mixer_InputShmB:Process:Too many underflow frames in a row:");
    }
    if (n == 0) return boost::shared_ptr<AudioFrame>();

    const int32_t read = msgSize * n;
    // A message count less a byte count: kept so, since with 1-byte messages it is
    // exactly the missing bytes and larger messages leave the tail as it was.
    const int32_t rest = count - read;
    if (rest >= 1) {
        std::memset(frame->data + read, 0, static_cast<size_t>(rest));
    } else {
        MIXER_LOG_E("Mixer_InputShmB:Process:Read %d for %d!!:", read, count);
    }
    return frame;
}

}  // namespace mixer
