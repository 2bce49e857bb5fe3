#pragma once

#include <cstdint>
#include <string>

namespace mixer {
namespace host {

// mixerd's command line.
//
// Threading: parsed once on the main thread before anything starts (getopt_long keeps
// global state).
struct DaemonOptions {
    enum Result { kRun, kHelp, kVersion, kError };

    DaemonOptions();

    // Fills opts from argv. kError comes with a one-line reason in error.
    static Result Parse(int argc, char* const argv[], DaemonOptions& opts, std::string& error);
    // Parses a log mask: a number (decimal or 0x hex) or letters from "EWIDP".
    static bool ParseLogMask(const std::string& text, uint32_t& mask);
    // The full --help text, written like a manual page.
    static const char* Help();

    static const char* const kRunDir;  // "/run/mixerd": the socket's and the status file's

    std::string socketPath;   // control socket
    std::string statusFile;   // where status reports are written
    std::string output;       // "alsa" or "wav"
    std::string device;       // ALSA playback device
    std::string outFile;      // WAV output file
    std::string mic;          // "alsa", "wav" or "tone"
    std::string micDevice;    // ALSA capture device
    std::string micFile;      // WAV microphone file
    std::string resampler;    // "soxr" or "speex"
    std::string writeTrace;   // the output's write trace (benchmarks), empty for none
    std::string user;         // who to become when started as root; empty: stay
    std::string group;        // the clients' group
    unsigned rate;            // mix rate, Hz
    unsigned channels;        // mix channels
    unsigned deviceRate;      // playback device rate (0: the mix rate)
    unsigned micRate;
    unsigned micChannels;
    unsigned volume;          // speaker volume percent at start
    bool haveLogMask;
    uint32_t logMask;
    bool logStderr;           // log lines to stderr instead of syslog
    int readyFd;              // written "ready\n" and closed once serving (-1: none)
    bool micOff;              // start with the microphone disabled
    // Limits on what clients can make the daemon hold.
    unsigned queueMaxBytes;   // a client's block queue
    unsigned queueMaxBlocks;
    unsigned streamsPerUser;  // live streams of one user
    unsigned streamsMax;      // live streams in all
    unsigned volumeTypes;     // stream types given a volume
    unsigned controlConnections;  // control connections open at once
};

}  // namespace host
}  // namespace mixer
