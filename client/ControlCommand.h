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
        kStream,         // stream NAME ID: where the daemon stands on a client's stream
        kGetVolume,      // get volume TYPE
        kGetSpeaker,     // get speaker
        kGetFocus,       // get focus
    };

    ControlCommand() : kind(kHelp), volume(0), enable(false), id(0) {}

    Kind kind;
    std::string streamType;  // kStreamVolume, kFocus (empty: no focus wanted), kGetVolume;
                             // kStream: the stream's name
    unsigned volume;         // kStreamVolume, kSpeakerVolume: percent 0..100
    bool enable;             // kMic
    int id;                  // kStream: the id line of the stream's description file
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
