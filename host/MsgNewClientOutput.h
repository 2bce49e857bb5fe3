#pragma once

#include <boost/shared_ptr.hpp>

#include "mixer/core/MsgNewOutput.h"

namespace mixer {
namespace host {

// A record client's output for the record engine, with the format the client asked
// for: the daemon's AddRecordAlgos reads it to convert the microphone's frames.
//
// Threading: made on the discovery thread, read on the record thread after the queue
// handed it over; never changed after construction.
class MsgNewClientOutput : public MsgNewOutput {
public:
    MsgNewClientOutput(boost::shared_ptr<Output> output_, unsigned rate_, unsigned numCh_)
        : MsgNewOutput(output_, PLAYBACK_MODE_DEFAULT), rate(rate_), numCh(numCh_) {}

    const unsigned rate;
    const unsigned numCh;
};

}  // namespace host
}  // namespace mixer
