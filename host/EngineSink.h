#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/MsgHead.h"

namespace mixer {
namespace host {

// Where control requests go once they are engine messages: the daemon posts them to
// the playback and record engines' queues; tests record them.
//
// Threading: called from the control server's thread; implementations must not block.
class EngineSink {
public:
    virtual ~EngineSink() {}
    virtual void PostPlayback(boost::shared_ptr<MsgHead> msg) = 0;
    virtual void PostRecord(boost::shared_ptr<MsgHead> msg) = 0;
    // A stream type was given focus (empty: focus no longer wanted for new streams).
    virtual void FocusChanged(const std::string& streamType) = 0;
    // Where the daemon stands on the client stream (name, id): the body of the answer
    // to a "stream" request (ControlProtocol).
    virtual std::string StreamVerdict(const std::string& name, int id) = 0;
};

}  // namespace host
}  // namespace mixer
