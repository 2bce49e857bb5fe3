#pragma once

#include <string>

namespace mixer {
namespace client {

// What the daemon takes as a client stream, in one place: the daemon refuses a stream
// description with these words, and the client layer refuses the same stream before it
// makes anything, so that a tool can say at once what the daemon would have said.
//
// Threading: pure functions; any thread.
class StreamRules {
public:
    static const unsigned kMinRate = 8000;
    static const unsigned kMaxRate = 96000;
    static const unsigned kMaxChannels = 10;

    // micAsr, micHfp, micRaw: the names of record streams (without leading slashes).
    static bool IsRecordName(const std::string& name);
    // Why the daemon refuses a stream of this description, or null when it takes it.
    // name is the stream's name without its leading slashes; type its transport type.
    static const char* Refusal(const std::string& name, const std::string& type, unsigned rate, unsigned numCh,
                               unsigned sampleSize);
    // The format rules alone (16-bit samples): null, or the words of Refusal.
    static const char* FormatRefusal(unsigned rate, unsigned numCh);
};

}  // namespace client
}  // namespace mixer
