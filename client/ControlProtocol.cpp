#include "client/ControlProtocol.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <vector>

namespace mixer {
namespace client {

namespace {

std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
        if (i > start) words.push_back(line.substr(start, i - start));
    }
    return words;
}

bool ParsePercent(const std::string& word, unsigned& value, std::string& error) {
    bool digits = !word.empty() && word.size() <= 3;
    for (char c : word) digits = digits && c >= '0' && c <= '9';
    unsigned v = digits ? static_cast<unsigned>(std::stoul(word)) : 101;
    if (v > 100) {
        error = "volume must be a whole percent from 0 to 100, not '" + word + "'";
        return false;
    }
    value = v;
    return true;
}

bool ValidType(const std::string& word, std::string& error) {
    if (word.size() > ControlProtocol::kMaxTypeLen) {
        error = "stream type longer than " + std::to_string(ControlProtocol::kMaxTypeLen) + " characters";
        return false;
    }
    for (unsigned char c : word) {
        if (c < 0x21 || c == 0x7f) {
            error = "stream type contains a control character";
            return false;
        }
    }
    return true;
}

bool RefuseWithUsage(const std::string& what, std::string& error) {
    error = "usage: " + what;
    return false;
}

bool ParseId(const std::string& word, int& id, std::string& error) {
    char* end = nullptr;
    const long v = std::strtol(word.c_str(), &end, 10);
    if (word.empty() || *end || word.size() > 11 || v < INT32_MIN || v > INT32_MAX) {
        error = "stream id must be a whole number, not '" + word.substr(0, 32) + "'";
        return false;
    }
    id = static_cast<int>(v);
    return true;
}

}  // namespace

const char* const ControlProtocol::kAccepted = "accepted";
const char* const ControlProtocol::kRefused = "refused";
const char* const ControlProtocol::kUnknown = "unknown";
const char* const ControlProtocol::kMicOff = "mic-off";

bool ControlProtocol::Parse(const std::string& rawLine, ControlCommand& cmd, std::string& error) {
    std::string line = rawLine;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    if (line.size() > kMaxLineLen) {
        error = "request longer than " + std::to_string(kMaxLineLen) + " bytes";
        return false;
    }
    std::vector<std::string> w = Words(line);
    if (w.empty()) {
        error = "empty request (try 'help')";
        return false;
    }
    ControlCommand c;
    const std::string& verb = w[0];
    if (verb == "volume") {
        if (w.size() != 3) return RefuseWithUsage("volume TYPE PERCENT", error);
        if (!ValidType(w[1], error) || !ParsePercent(w[2], c.volume, error)) return false;
        c.kind = ControlCommand::kStreamVolume;
        c.streamType = w[1];
    } else if (verb == "speaker") {
        if (w.size() != 2) return RefuseWithUsage("speaker PERCENT", error);
        if (!ParsePercent(w[1], c.volume, error)) return false;
        c.kind = ControlCommand::kSpeakerVolume;
    } else if (verb == "focus") {
        if (w.size() != 2) return RefuseWithUsage("focus TYPE|none", error);
        if (!ValidType(w[1], error)) return false;
        c.kind = ControlCommand::kFocus;
        c.streamType = w[1] == "none" ? std::string() : w[1];
    } else if (verb == "mic") {
        if (w.size() != 2 || (w[1] != "on" && w[1] != "off")) return RefuseWithUsage("mic on|off", error);
        c.kind = ControlCommand::kMic;
        c.enable = w[1] == "on";
    } else if (verb == "get") {
        const std::string what = w.size() > 1 ? w[1] : std::string();
        if (what == "volume" && w.size() == 3) {
            if (!ValidType(w[2], error)) return false;
            c.kind = ControlCommand::kGetVolume;
            c.streamType = w[2];
        } else if ((what == "speaker" || what == "focus") && w.size() == 2) {
            c.kind = what == "speaker" ? ControlCommand::kGetSpeaker : ControlCommand::kGetFocus;
        } else {
            return RefuseWithUsage("get volume TYPE|get speaker|get focus", error);
        }
    } else if (verb == "stream") {
        if (w.size() != 3) return RefuseWithUsage("stream NAME ID", error);
        // A stream name may be longer than a type; only the line bounds it.
        if (!ParseId(w[2], c.id, error)) return false;
        c.kind = ControlCommand::kStream;
        c.streamType = w[1];
    } else if (verb == "status" || verb == "latency" || verb == "help") {
        if (w.size() != 1) return RefuseWithUsage(verb, error);
        c.kind = verb == "status" ? ControlCommand::kStatus
                 : verb == "latency" ? ControlCommand::kLatency : ControlCommand::kHelp;
    } else {
        error = "unknown request '" + verb.substr(0, 32) + "' (try 'help')";
        return false;
    }
    cmd = c;
    return true;
}

std::string ControlProtocol::FormatReply(const ControlReply& reply) {
    if (reply.ok) {
        std::string out = "OK\n" + reply.text;
        if (!reply.text.empty() && reply.text.back() != '\n') out += '\n';
        return out;
    }
    std::string reason = reply.text;
    for (char& c : reason) if (c == '\n' || c == '\r') c = ' ';
    return "ERR " + reason + "\n";
}

bool ControlProtocol::ParseReply(const std::string& data, ControlReply& reply) {
    if (data.compare(0, 3, "OK\n") == 0) {
        reply = ControlReply::Ok(data.substr(3));
        return true;
    }
    if (data.compare(0, 4, "ERR ") == 0) {
        std::string reason = data.substr(4);
        while (!reason.empty() && reason.back() == '\n') reason.pop_back();
        reply = ControlReply::Error(reason);
        return true;
    }
    return false;
}

const char* ControlProtocol::Usage() {
    return "volume TYPE PERCENT   volume of every stream of a type (0..100; 52 is unity)\n"
           "speaker PERCENT       speaker volume, a gain on the mix (0..100; 52 is unity,\n"
           "                      100 is +24 dB)\n"
           "focus TYPE|none       give a stream type focus: other streams duck while it plays\n"
           "mic on|off            enable or disable the microphone\n"
           "get volume TYPE       the volume of a stream type (0..100)\n"
           "get speaker           the speaker volume (0..100)\n"
           "get focus             the stream type that has focus, or none\n"
           "status                the engines' status report, then the daemon's view:\n"
           "                      streams, volumes, speaker, focus and ducking\n"
           "latency               measure the output-to-microphone delay (needs a\n"
           "                      microphone that hears the speaker)\n"
           "help                  this list\n";
}

}  // namespace client
}  // namespace mixer
