#pragma once

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Output.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace host {

// A record client's end of the microphone: writes each frame into the shared block
// queue that the client created, split over as many blocks as it takes, without ever
// waiting (the record thread serves every client and the microphone). A client that
// falls behind loses the frames that do not fit (counted, logged once per overrun run);
// a client that has gone (hung up, queue closed) turns the output into Hangup, so the
// record engine drops it; any other queue error into Fault.
//
// Threading: the record thread only (the queue locks for itself, waiting at most
// DataTrans::kEngineLockWaitMs for a client that holds its lock). No allocation.
class DataTransOutput : public Output {
public:
    // queue: open, with this process as the writer.
    explicit DataTransOutput(boost::shared_ptr<DataTrans> queue, const std::string& streamName);
    ~DataTransOutput() override;  // closes this end of the queue

    void Pause() override { state = STATE_PAUSED; }
    void Resume() override { state = STATE_ACTIVE; }
    // 0 when the whole frame went in; -1 when some or all of it was dropped or the
    // client has gone.
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override;

    uint64_t BytesWritten() const { return written_; }
    uint64_t BytesDropped() const { return dropped_; }

private:
    boost::shared_ptr<DataTrans> queue_;
    uint64_t written_;
    uint64_t dropped_;
    bool overrun_;  // the previous frame was cut short: log only the first of a run
};

}  // namespace host
}  // namespace mixer
