#include "host/DaemonOptions.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>

namespace mixer {
namespace host {

namespace {

bool ParseUnsigned(const char* text, unsigned lo, unsigned hi, unsigned& value) {
    if (!text || !*text || *text == '-' || *text == '+') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long v = std::strtoul(text, &end, 10);
    if (errno || *end || v < lo || v > hi) return false;
    value = static_cast<unsigned>(v);
    return true;
}

}  // namespace

const char* const DaemonOptions::kRunDir = "/run/mixerd";

DaemonOptions::DaemonOptions()
    : socketPath("/run/mixerd/mixerd.sock"), statusFile("/run/mixerd/mixerd.status"), output("alsa"),
      device("default"), outFile("out.wav"), mic("alsa"), micDevice("default"), resampler("soxr"), group("audio"),
      rate(48000),
      channels(2), deviceRate(0), micRate(16000), micChannels(1), volume(40), haveLogMask(false),
      logMask(0), logStderr(false), readyFd(-1), micOff(false), queueMaxBytes(8u << 20), queueMaxBlocks(256),
      streamsPerUser(16), streamsMax(32), volumeTypes(64), controlConnections(16) {}

bool DaemonOptions::ParseLogMask(const std::string& text, uint32_t& mask) {
    if (text.empty()) return false;
    if (text[0] >= '0' && text[0] <= '9') {
        errno = 0;
        char* end = nullptr;
        unsigned long long v = std::strtoull(text.c_str(), &end, 0);
        if (errno || *end || v > 0xFFFFFFFFull) return false;
        mask = static_cast<uint32_t>(v);
        return true;
    }
    uint32_t m = 0;
    for (char c : text) {
        switch (c) {
        case 'E': m |= 0x2000000u; break;
        case 'W': m |= 0x1000000u; break;
        case 'I': m |= 0x800000u; break;
        case 'D': m |= 0x8000u; break;
        case 'P': m |= 0x20u; break;
        default: return false;
        }
    }
    mask = m;
    return true;
}

DaemonOptions::Result DaemonOptions::Parse(int argc, char* const argv[], DaemonOptions& opts,
                                           std::string& error) {
    enum { kSocket = 256, kStatus, kOutput, kDevice, kOutFile, kMic, kMicDevice, kMicFile, kRate,
           kChannels, kDeviceRate, kMicRate, kMicChannels, kVolume, kLogMask, kLogStderr, kReadyFd,
           kMicOff, kResampler, kWriteTrace, kUser, kGroup, kQueueMaxBytes, kQueueMaxBlocks, kStreamsPerUser,
           kStreamsMax, kVolumeTypes, kControlConnections };
    static const option longOpts[] = {
        {"socket", required_argument, nullptr, kSocket},
        {"status-file", required_argument, nullptr, kStatus},
        {"output", required_argument, nullptr, kOutput},
        {"device", required_argument, nullptr, kDevice},
        {"out-file", required_argument, nullptr, kOutFile},
        {"mic", required_argument, nullptr, kMic},
        {"mic-device", required_argument, nullptr, kMicDevice},
        {"mic-file", required_argument, nullptr, kMicFile},
        {"rate", required_argument, nullptr, kRate},
        {"channels", required_argument, nullptr, kChannels},
        {"device-rate", required_argument, nullptr, kDeviceRate},
        {"mic-rate", required_argument, nullptr, kMicRate},
        {"mic-channels", required_argument, nullptr, kMicChannels},
        {"volume", required_argument, nullptr, kVolume},
        {"log-mask", required_argument, nullptr, kLogMask},
        {"log-stderr", no_argument, nullptr, kLogStderr},
        {"ready-fd", required_argument, nullptr, kReadyFd},
        {"mic-off", no_argument, nullptr, kMicOff},
        {"resampler", required_argument, nullptr, kResampler},
        {"write-trace", required_argument, nullptr, kWriteTrace},
        {"user", required_argument, nullptr, kUser},
        {"group", required_argument, nullptr, kGroup},
        {"queue-max-bytes", required_argument, nullptr, kQueueMaxBytes},
        {"queue-max-blocks", required_argument, nullptr, kQueueMaxBlocks},
        {"streams-per-user", required_argument, nullptr, kStreamsPerUser},
        {"streams-max", required_argument, nullptr, kStreamsMax},
        {"volume-types", required_argument, nullptr, kVolumeTypes},
        {"control-connections", required_argument, nullptr, kControlConnections},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    DaemonOptions o;
    optind = 0;  // restart getopt's scan: Parse may be called more than once
    opterr = 0;
    for (;;) {
        int longIndex = -1;
        int c = getopt_long(argc, argv, ":hV", longOpts, &longIndex);
        if (c == -1) break;
        std::string arg = optarg ? optarg : "";
        std::string name = longIndex >= 0 ? std::string("--") + longOpts[longIndex].name : "";
        bool ok = true;
        switch (c) {
        case 'h': return kHelp;
        case 'V': return kVersion;
        case kSocket: o.socketPath = arg; ok = !arg.empty(); break;
        case kStatus: o.statusFile = arg; ok = !arg.empty(); break;
        case kOutput: o.output = arg; ok = arg == "alsa" || arg == "wav"; break;
        case kDevice: o.device = arg; ok = !arg.empty(); break;
        case kOutFile: o.outFile = arg; ok = !arg.empty(); break;
        case kMic: o.mic = arg; ok = arg == "alsa" || arg == "wav" || arg == "tone"; break;
        case kMicDevice: o.micDevice = arg; ok = !arg.empty(); break;
        case kMicFile: o.micFile = arg; ok = !arg.empty(); break;
        case kRate: ok = ParseUnsigned(optarg, 8000, 96000, o.rate); break;
        case kChannels: ok = ParseUnsigned(optarg, 1, 8, o.channels); break;
        case kDeviceRate: ok = ParseUnsigned(optarg, 8000, 96000, o.deviceRate); break;
        case kMicRate: ok = ParseUnsigned(optarg, 8000, 96000, o.micRate); break;
        case kMicChannels: ok = ParseUnsigned(optarg, 1, 8, o.micChannels); break;
        case kVolume: ok = ParseUnsigned(optarg, 0, 100, o.volume); break;
        case kLogMask: ok = o.haveLogMask = ParseLogMask(arg, o.logMask); break;
        case kLogStderr: o.logStderr = true; break;
        case kReadyFd: {
            unsigned fd = 0;
            ok = ParseUnsigned(optarg, 3, 1023, fd);
            o.readyFd = static_cast<int>(fd);
            break;
        }
        case kMicOff: o.micOff = true; break;
        case kResampler: o.resampler = arg; ok = arg == "soxr" || arg == "speex"; break;
        case kWriteTrace: o.writeTrace = arg; ok = !arg.empty(); break;
        case kUser: o.user = arg; ok = !arg.empty(); break;
        case kGroup: o.group = arg; ok = !arg.empty(); break;
        case kQueueMaxBytes: ok = ParseUnsigned(optarg, 4096, 1u << 30, o.queueMaxBytes); break;
        case kQueueMaxBlocks: ok = ParseUnsigned(optarg, 2, 65535, o.queueMaxBlocks); break;
        case kStreamsPerUser: ok = ParseUnsigned(optarg, 1, 1024, o.streamsPerUser); break;
        case kStreamsMax: ok = ParseUnsigned(optarg, 1, 1024, o.streamsMax); break;
        case kVolumeTypes: ok = ParseUnsigned(optarg, 1, 65536, o.volumeTypes); break;
        case kControlConnections: ok = ParseUnsigned(optarg, 1, 1024, o.controlConnections); break;
        case ':':
            error = std::string("option ") + argv[optind - 1] + " needs a value";
            return kError;
        default:
            error = std::string("unknown option ") + argv[optind - 1] + " (see --help)";
            return kError;
        }
        if (!ok) {
            error = "bad value '" + arg + "' for " + name + " (see --help)";
            return kError;
        }
    }
    if (optind < argc) {
        error = std::string("unexpected argument '") + argv[optind] + "' (see --help)";
        return kError;
    }
    if (o.mic == "wav" && o.micFile.empty()) {
        error = "--mic wav needs --mic-file";
        return kError;
    }
    opts = o;
    return kRun;
}

const char* DaemonOptions::Help() {
    return
"NAME\n"
"    mixerd - audio mixer daemon\n"
"\n"
"SYNOPSIS\n"
"    mixerd [--output alsa|wav] [--device PCM] [--out-file FILE]\n"
"           [--mic alsa|wav|tone] [--mic-device PCM] [--mic-file FILE]\n"
"           [--rate HZ] [--channels N] [--device-rate HZ] [--mic-rate HZ]\n"
"           [--mic-channels N] [--volume PERCENT] [--socket PATH]\n"
"           [--status-file PATH] [--log-mask MASK] [--log-stderr]\n"
"           [--mic-off] [--resampler soxr|speex] [--ready-fd FD]\n"
"           [--write-trace FILE] [--user USER] [--group GROUP]\n"
"           [--queue-max-bytes N] [--queue-max-blocks N] [--streams-per-user N]\n"
"           [--streams-max N] [--volume-types N] [--control-connections N]\n"
"\n"
"DESCRIPTION\n"
"    mixerd mixes the sound of its client programs and plays it on one output\n"
"    device, and hands microphone audio to the clients that record. A client\n"
"    announces a stream by writing a stream description file into\n"
"    /var/run/mixer and exchanges audio with the daemon through shared memory\n"
"    (see mixer-play(1) and mixer-rec(1)). The daemon runs in the foreground;\n"
"    SIGTERM or SIGINT stops it cleanly.\n"
"\n"
"    Every stream is mixed at the mix rate, each through a gain ramp (volume,\n"
"    focus and ducking without clicks) and, when its rate differs, a resampler.\n"
"    Stream transport types: \"dataTrans\" (the mixer's shared block queue),\n"
"    \"shmQ\" and \"shmB\" (the platform's shared queue and buffer). A stream\n"
"    named micAsr, micHfp or micRaw records instead: the daemon writes\n"
"    microphone frames into the block queue that the client created.\n"
"\n"
"    The id line of a description file is the client's process id (0 or a\n"
"    negative number: not known); mixer-play and mixer-rec write their own. For\n"
"    a \"dataTrans\" stream the daemon watches that process: when it ends without\n"
"    closing its queue (killed, crashed), the daemon hangs the queue up for it,\n"
"    plays out what was queued, and removes the shared memory and the description\n"
"    file as for a client that closed. Without pidfd support in the kernel such\n"
"    streams stay until the daemon stops.\n"
"\n"
"OPTIONS\n"
"    --output alsa|wav     playback device: the sound card (default) or a WAV\n"
"                          file written in real time, for machines without one\n"
"    --device PCM          ALSA playback device (default \"default\")\n"
"    --out-file FILE       WAV output file (default out.wav); silent periods are\n"
"                          written as silence, so the file is a timeline\n"
"    --mic alsa|wav|tone   microphone: ALSA capture (default), a WAV file heard\n"
"                          in a loop, or a steady 440 Hz tone\n"
"    --mic-device PCM      ALSA capture device (default \"default\")\n"
"    --mic-file FILE       the file for --mic wav\n"
"    --rate HZ             mix rate (default 48000)\n"
"    --channels N          mix channels (default 2)\n"
"    --device-rate HZ      playback device rate; a resampler converts the mix\n"
"                          when it differs (default: the mix rate)\n"
"    --mic-rate HZ         microphone rate for alsa and tone (default 16000)\n"
"    --mic-channels N      microphone channels (default 1)\n"
"    --mic-off             start with the microphone disabled (mixerctl mic on)\n"
"    --resampler soxr|speex\n"
"                          which converts rates (streams, device, microphone):\n"
"                          soxr (default) at 16-bit quality, whose passband and\n"
"                          stop band are at least those of speex at quality 7\n"
"                          for about a fifth of its CPU; it works in blocks,\n"
"                          which delays a stream by 10 ms more from 44.1 kHz,\n"
"                          16 ms from 16 kHz; speex is the library's own\n"
"                          resampler\n"
"    --volume PERCENT      speaker volume at start, 0..100 (default 40;\n"
"                          52 is unity gain, 100 is +24 dB)\n"
"    --socket PATH         control socket (default /run/mixerd/mixerd.sock)\n"
"    --status-file PATH    where status reports are written\n"
"                          (default /run/mixerd/mixerd.status)\n"
"    --user USER           started as root, become USER (a name or a number)\n"
"                          once the directories are prepared, keeping real-\n"
"                          time priority through RLIMIT_RTPRIO and of all\n"
"                          capabilities CAP_FOWNER alone, with which it removes\n"
"                          the clients' queues from /dev/shm (default: none,\n"
"                          stay who started it; the installed service starts\n"
"                          it as mixerd with CAP_FOWNER)\n"
"    --group GROUP         the clients' group, a name or a number (default\n"
"                          audio, whose members reach the sound card already\n"
"                          and which the daemon needs for it)\n"
"    --log-mask MASK       which diagnostics reach the log: a number (0x2000000\n"
"                          errors, 0x1000000 warnings, 0x800000 information,\n"
"                          0x8000 debug, 0x20 performance) or letters from EWIDP\n"
"                          (default: the platform's, errors, warnings, information)\n"
"    --log-stderr          write log lines to standard error instead of syslog\n"
"    --ready-fd FD         write \"ready\" to descriptor FD and close it once the\n"
"                          daemon serves requests (for scripts and tests)\n"
"    --write-trace FILE    for benchmarks: one line per frame the output device\n"
"                          took, the monotonic clock in microseconds after the\n"
"                          write and the frame's buffer ids\n"
"\n"
"  Limits (what a client can make the daemon hold; each refusal is logged once\n"
"  with its reason, and a refused stream leaves nothing behind):\n"
"    --queue-max-bytes N   largest block queue a stream may bring, in bytes\n"
"                          (default 8388608)\n"
"    --queue-max-blocks N  most blocks in a stream's queue (default 256); a\n"
"                          flush resets every block on the mixing thread\n"
"    --streams-per-user N  live streams of one user, the owner of the\n"
"                          description files (default 16)\n"
"    --streams-max N       live streams in all (default 32)\n"
"    --volume-types N      stream types a volume request may name (default 64)\n"
"    --control-connections N\n"
"                          control connections open at once (default 16); each\n"
"                          has 2 s from its connect to send its request\n"
"    -h, --help            this text\n"
"    -V, --version         the version\n"
"\n"
"WAV OUTPUT AND TIMING\n"
"    The playback engine lets a sound card pace it by blocking in its writes. Any\n"
"    other output, the WAV file included, gets at least 40 ms between the writes\n"
"    of its 20-ms frames: with --output wav, clients play at half speed in wall-\n"
"    clock time (a 10-second clip takes 20 seconds), while the file's content and\n"
"    timeline are exactly what a loudspeaker would have played. The file is\n"
"    written, its header updated and synced to disk about once a second, at\n"
"    pause and at exit: a killed daemon leaves a valid file that lacks at most\n"
"    its last second.\n"
"\n"
"    When a client's stream ends, the stream that follows it in the mix is skipped\n"
"    for one 20-ms period (the engine's fixed order of work); a ducked stream under\n"
"    an ending prompt therefore pauses for one period.\n"
"\n"
"CONTROL\n"
"    mixerctl(1) sends one request per connection to the control socket:\n"
"    volume TYPE PERCENT, speaker PERCENT, focus TYPE|none, mic on|off, status,\n"
"    latency, help. A focused stream type stays focused for streams that start\n"
"    later; while one of its streams plays, the others are ducked.\n"
"\n"
"EVENTS\n"
"    On the platform event bus: MixerStreamAdded and MixerStreamRemoved with the\n"
"    stream's name, MixerFocusChanged with the stream type (\"none\" for focus\n"
"    none). Without a reachable bus the events are only logged.\n"
"\n"
"TRUST\n"
"    Clients are the members of the group (--group). The stream directory\n"
"    (mode 1770) and the control socket (0660) are the daemon user's and the\n"
"    group's alone, and so is /run/mixerd (0750) when the socket is there.\n"
"    Client queues are refused when any user may write them, and a stream whose\n"
"    description file, queue and process (the id line) are not one user's is\n"
"    refused, as is a stream of a live name announced by another user.\n"
"\n"
"FILES\n"
"    /var/run/mixer        stream description files (removed at exit)\n"
"    /run/mixerd/mixerd.sock\n"
"                          control socket\n"
"    /run/mixerd/mixerd.status\n"
"                          status report of the last status request (kept\n"
"                          out of /var/run/mixer, which holds only stream files)\n"
"    /dev/shm/mixer-NAME   a client stream's shared block queue; one that no\n"
"                          process holds any more (its client or an earlier\n"
"                          daemon was killed) is removed within seconds\n"
"\n"
"EXIT STATUS\n"
"    0 after a clean stop, 1 when the daemon could not start (the reason is\n"
"    printed on standard error as well as logged), 2 for a bad command line.\n";
}

}  // namespace host
}  // namespace mixer
