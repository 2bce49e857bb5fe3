#include "host/devices/DataTransOutput.h"

#include <cerrno>
#include <cstring>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

DataTransOutput::DataTransOutput(boost::shared_ptr<DataTrans> queue, const std::string& streamName)
    : queue_(queue), written_(0), dropped_(0), overrun_(false) {
    name = streamName;
    state = STATE_ACTIVE;
    // The record thread must never stall on a client's lock.
    if (queue_) queue_->SetLockWaitMs(DataTrans::kEngineLockWaitMs);
}

DataTransOutput::~DataTransOutput() {
    if (queue_) queue_->DeInit();
}

int DataTransOutput::WriteFrame(boost::shared_ptr<AudioFrame> frame) {
    if (!frame || state == STATE_HANGUP || state == STATE_FAULT) return -1;
    const char* src = frame->data;
    uint32_t left = frame->size;
    const unsigned blk = queue_->GetUserBlkSize();
    while (left > 0) {
        int err = 0;
        char* buf = queue_->GetWriteBuff(err, 0);
        if (!buf) {
            if (err == EHOSTDOWN || err == ENOENT) {
                MIXER_LOG_I("Mixerd_DataTransOutput:WriteFrame:%s: client gone:", name.c_str());
                state = STATE_HANGUP;
            } else if (err == EAGAIN) {
                if (!overrun_)
                    MIXER_LOG_W("Mixerd_DataTransOutput:WriteFrame:%s: client behind, dropping audio:",
                                name.c_str());
                overrun_ = true;
                dropped_ += left;
            } else {
                MIXER_LOG_E("Mixerd_DataTransOutput:WriteFrame:%s: %s:", name.c_str(), std::strerror(err));
                state = STATE_FAULT;
            }
            return -1;
        }
        uint32_t n = left < blk ? left : blk;
        std::memcpy(buf, src, n);
        if (!queue_->CommitWriteBuff(n, frame->bufId)) {
            state = STATE_HANGUP;  // flushed or hung up under us: the client is leaving
            return -1;
        }
        queue_->AddCount(n);
        src += n;
        left -= n;
        written_ += n;
    }
    overrun_ = false;
    return 0;
}

}  // namespace host
}  // namespace mixer
