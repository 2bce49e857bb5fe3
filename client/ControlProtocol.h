#pragma once

#include <string>

#include "client/ControlCommand.h"

namespace mixer {
namespace client {

// The control socket's line protocol. A client connects, sends one request line ended
// by a line feed, and reads the reply until the daemon closes the connection:
//
//   request  = "volume" TYPE PERCENT | "speaker" PERCENT | "focus" (TYPE | "none")
//            | "mic" ("on" | "off") | "status" | "latency" | "help"
//            | "get" ("volume" TYPE | "speaker" | "focus")
//            | "stream" NAME ID
//   reply    = "OK" LF body            ; body: zero or more lines
//            | "ERR " reason LF
//
// "stream" is the client layer's own question, not listed by "help": the body is one
// line, "accepted" (with " mic-off" for a record stream while the microphone is off),
// "refused " and the reason, or "unknown" (not decided yet, or no longer served). ID is
// the id line of the stream's description file, so that a verdict on an earlier stream
// of the same name is not taken for this one's.
//
// Words are separated by blanks or tabs; keywords are lower case; PERCENT is a decimal
// 0..100; TYPE is 1..kMaxTypeLen printable characters without blanks (a stream type, the
// seventh line of a stream description file). A request is at most kMaxLineLen bytes.
//
// Threading: pure functions; any thread.
class ControlProtocol {
public:
    static constexpr size_t kMaxLineLen = 256;
    static constexpr size_t kMaxTypeLen = 64;

    // Parses one request line (a trailing CR or LF is ignored). true with cmd filled, or
    // false with a one-line reason in error.
    static bool Parse(const std::string& line, ControlCommand& cmd, std::string& error);

    // The reply as sent on the socket.
    static std::string FormatReply(const ControlReply& reply);
    // Splits what a client read back into a reply; false if it is not a reply at all.
    static bool ParseReply(const std::string& data, ControlReply& reply);

    // The request summary that "help" returns and mixerctl prints.
    static const char* Usage();

    // The answers of "stream" (the first word of the body).
    static const char* const kAccepted;  // "accepted"
    static const char* const kRefused;   // "refused"
    static const char* const kUnknown;   // "unknown"
    static const char* const kMicOff;    // "mic-off"
};

}  // namespace client
}  // namespace mixer
