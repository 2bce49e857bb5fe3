#pragma once

#include "client/ControlCommand.h"

namespace mixer {
namespace host {

// What the control server hands each well-formed request to.
//
// Threading: called on the control server's thread only, one request at a time. May
// block for a bounded time (a status report, a latency measurement).
class ControlHandler {
public:
    virtual ~ControlHandler() {}
    virtual client::ControlReply Handle(const client::ControlCommand& cmd) = 0;
};

}  // namespace host
}  // namespace mixer
