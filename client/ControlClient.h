#pragma once

#include <string>

#include "client/ControlCommand.h"

namespace mixer {
namespace client {

// The client end of the control socket (mixerctl): one request, one reply.
//
// Threading: any thread; no state.
class ControlClient {
public:
    // Sends line to the daemon at path and reads its reply, waiting at most timeoutMs
    // for the whole exchange (connecting included: a full backlog is waited out within
    // it). true with reply filled (which may itself be an error from the daemon), or
    // false with a reason in error when the daemon could not be reached or answered
    // nothing sensible; *gone (when given) then tells whether no daemon is there (nothing
    // listens, or the connection was dropped without a reply) rather than one that is
    // slow or misbehaves.
    static bool Request(const std::string& path, const std::string& line, ControlReply& reply,
                        std::string& error, int timeoutMs = 10000, bool* gone = nullptr);
};

}  // namespace client
}  // namespace mixer
