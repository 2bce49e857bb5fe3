#pragma once

#include <string>

namespace mixer {
namespace client {

// One request of the control socket, parsed (ControlProtocol::Parse).
struct ControlCommand {
    enum Kind {
        kStreamVolume,   // volume TYPE PERCENT
        kSpeakerVolume,  // speaker PERCENT
        kFocus,          // focus TYPE | focus none
        kMic,            // mic on | mic off
        kStatus,         // status
        kLatency,        // latency
        kHelp,           // help
    };

    ControlCommand() : kind(kHelp), volume(0), enable(false) {}

    Kind kind;
    std::string streamType;  // kStreamVolume, kFocus (empty: no focus wanted)
    unsigned volume;         // kStreamVolume, kSpeakerVolume: percent 0..100
    bool enable;             // kMic
};

// The daemon's answer: ok with a body (possibly empty, lines ended by line feeds), or
// not ok with a one-line reason.
struct ControlReply {
    ControlReply() : ok(true) {}
    static ControlReply Ok(const std::string& body = std::string()) {
        ControlReply r;
        r.text = body;
        return r;
    }
    static ControlReply Error(const std::string& reason) {
        ControlReply r;
        r.ok = false;
        r.text = reason;
        return r;
    }

    bool ok;
    std::string text;
};

}  // namespace client
}  // namespace mixer
