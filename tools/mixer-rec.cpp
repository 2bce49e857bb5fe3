// mixer-rec: records the microphone through mixerd into a sound file.

#include <signal.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/ClientStream.h"
#include "client/ParseWhole.h"
#include "client/StreamRules.h"
#include "mixer/transport/DataTrans.h"

namespace {

using mixer::client::ParseWhole;

const char* const kHelp =
"NAME\n"
"    mixer-rec - record the microphone through the audio mixer\n"
"\n"
"SYNOPSIS\n"
"    mixer-rec --name micRaw|micAsr|micHfp OUT [--rate HZ] [--channels N]\n"
"              [--seconds S] [--socket PATH] [--quiet]\n"
"\n"
"DESCRIPTION\n"
"    Creates a shared block queue, announces a record stream to mixerd(8) with a\n"
"    description file in /var/run/mixer, and writes the microphone audio that the\n"
"    daemon sends into OUT until S seconds are recorded, SIGINT, SIGTERM or SIGHUP\n"
"    arrive (Ctrl-C on a terminal), or the daemon goes away. The file is complete\n"
"    whichever way it ends.\n"
"\n"
"    OUT's name says its format: .wav, .w64, .aiff or .aif, .au, .caf and .flac\n"
"    are written as 16-bit PCM, .ogg as Ogg Vorbis; another name is refused. OUT\n"
"    is created (or replaced) only once the daemon has accepted the stream, so a\n"
"    run that fails leaves an existing file as it was.\n"
"\n"
"    mixer-rec makes sure that mixerd runs, waits (at most 3 s) until it has\n"
"    accepted the stream, and stops with the reason when it refuses it, when the\n"
"    microphone is off (mixerctl mic on) or when the daemon sends nothing for a\n"
"    second and no longer serves the stream.\n"
"\n"
"OPTIONS\n"
"    --name NAME     micRaw, micAsr or micHfp\n"
"    --rate HZ       sample rate wanted, a multiple of 50 from 8000 to 96000\n"
"                    (default 16000; the daemon resamples)\n"
"    --channels N    channel count wanted, 1 to 10 (default 1)\n"
"    --seconds S     stop after S seconds of audio (more than 0; default: until\n"
"                    interrupted)\n"
"    --socket PATH   mixerd's control socket (default /run/mixerd/mixerd.sock)\n"
"    --quiet         no progress line\n"
"    -h, --help      this text\n"
"\n"
"EXIT STATUS\n"
"    0 when the recording ended as asked (S seconds, or a signal), 1 when mixerd\n"
"    is not running, refused the stream, the microphone is off, the daemon closed\n"
"    the stream or went away, or OUT could not be written, 2 for a bad command line\n"
"    (an OUT whose name says no format this program writes included).\n";

volatile sig_atomic_t g_quit = 0;
void OnSignal(int) { g_quit = 1; }

typedef std::chrono::steady_clock Clock;

// The file format OUT's name asks for, or 0 when it names none that is written here.
int FormatOf(const std::string& path) {
    static const struct {
        const char* ext;
        int format;
    } kFormats[] = {
        {".wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},   {".w64", SF_FORMAT_W64 | SF_FORMAT_PCM_16},
        {".aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16}, {".aif", SF_FORMAT_AIFF | SF_FORMAT_PCM_16},
        {".au", SF_FORMAT_AU | SF_FORMAT_PCM_16},     {".caf", SF_FORMAT_CAF | SF_FORMAT_PCM_16},
        {".flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16}, {".ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    };
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return 0;
    std::string ext = path.substr(dot);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const auto& f : kFormats)
        if (ext == f.ext) return f.format;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string name, out, socketPath = mixer::client::ClientStream::kDefaultSocket;
    unsigned rate = 16000, channels = 1;
    double seconds = -1;
    bool quiet = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* what) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "mixer-rec: option %s needs a value\n", what);
                std::exit(2);
            }
            return argv[++i];
        };
        const char* range = nullptr;  // what the option takes, when its value is bad
        long v = 0;
        if (a == "-h" || a == "--help") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "--name") {
            name = value("--name");
            if (!mixer::client::StreamRules::IsRecordName(name)) range = "micRaw, micAsr or micHfp";
        } else if (a == "--rate") {
            const bool whole = ParseWhole(value("--rate"), v);
            rate = static_cast<unsigned>(v);
            if (!whole || v < 0 || v > 1000000 || mixer::client::StreamRules::FormatRefusal(rate, 1))
                range = "a multiple of 50 from 8000 to 96000";
        } else if (a == "--channels") {
            const bool whole = ParseWhole(value("--channels"), v);
            channels = static_cast<unsigned>(v);
            if (!whole || v < 1 || v > static_cast<long>(mixer::client::StreamRules::kMaxChannels))
                range = "1 to 10";
        } else if (a == "--seconds") {
            char* end = nullptr;
            const char* text = value("--seconds");
            seconds = std::strtod(text, &end);
            if (!*text || *end || !(seconds > 0)) range = "more than 0";
        } else if (a == "--socket") {
            socketPath = value("--socket");
        } else if (a == "--quiet") {
            quiet = true;
        } else if (a.compare(0, 1, "-") == 0 || !out.empty()) {
            std::fprintf(stderr, "mixer-rec: unexpected argument '%s' (see --help)\n", a.c_str());
            return 2;
        } else {
            out = a;
        }
        if (range) {
            std::fprintf(stderr, "mixer-rec: bad value '%s' for %s: %s\n", argv[i], a.c_str(), range);
            return 2;
        }
    }
    if (name.empty() || out.empty()) {
        std::fprintf(stderr, "mixer-rec: --name and OUT are needed (see --help)\n");
        return 2;
    }
    struct stat st;
    if (stat(out.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "mixer-rec: %s: is a directory, not a file name\n", out.c_str());
        return 2;
    }
    SF_INFO info = SF_INFO();
    info.samplerate = static_cast<int>(rate);
    info.channels = static_cast<int>(channels);
    info.format = FormatOf(out);
    if (info.format == 0 || !sf_format_check(&info)) {
        std::fprintf(stderr, "mixer-rec: %s: %s (.wav, .w64, .aiff, .aif, .au, .caf, .flac, .ogg)\n", out.c_str(),
                     info.format == 0 ? "the name says no format this program writes"
                                      : "this format cannot hold that rate and channel count here");
        return 2;
    }
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(sig, &sa, nullptr);

    mixer::client::ClientStream stream;
    mixer::client::ClientStream::Params params;
    params.name = name;
    params.rate = rate;
    params.channels = channels;
    params.blocks = 16;
    params.socket = socketPath;
    std::string error;
    if (stream.Open(mixer::client::ClientStream::kRecord, params, error) != 0) {
        std::fprintf(stderr, "mixer-rec: %s: %s\n", name.c_str(), error.c_str());
        return 1;
    }
    if (stream.Current() == mixer::client::ClientStream::kMicOff) {
        std::fprintf(stderr, "mixer-rec: %s: the microphone is off (mixerctl mic on)\n", name.c_str());
        return 1;  // the stream closes on the way out
    }
    // Only now that there is a stream: a run that fails before leaves OUT untouched.
    SNDFILE* sf = sf_open(out.c_str(), SFM_WRITE, &info);
    if (!sf) {
        std::fprintf(stderr, "mixer-rec: %s: %s\n", out.c_str(), sf_strerror(nullptr));
        return 1;
    }
    mixer::DataTrans& queue = stream.Queue();
    int err = 0;

    const bool tty = !quiet && isatty(STDERR_FILENO);
    const uint64_t wanted = seconds > 0 ? static_cast<uint64_t>(seconds * rate) : UINT64_MAX;
    uint64_t frames = 0;
    int status = 0;
    std::string why = "done";
    Clock::time_point heard = Clock::now();  // the last block, or the last answer of the daemon
    while (!g_quit && frames < wanted) {
        unsigned len = 0;
        char* block = queue.GetReadBuff(err, len, 200, nullptr);
        if (!block) {
            if (err != ETIMEDOUT && err != EAGAIN && err != EINTR) {
                why = "the mixer closed the stream";
                status = 1;
                break;
            }
            if (Clock::now() - heard < std::chrono::seconds(1)) continue;
            // Nothing for a second: a microphone switched off, or a daemon gone.
            if (stream.Check(why) != mixer::client::ClientStream::kServed) {
                status = 1;
                break;
            }
            heard = Clock::now();
            continue;
        }
        heard = Clock::now();
        uint64_t n = len / (2 * channels);
        if (n > wanted - frames) n = wanted - frames;
        if (sf_writef_short(sf, reinterpret_cast<const int16_t*>(block), static_cast<sf_count_t>(n)) !=
            static_cast<sf_count_t>(n)) {
            why = std::string("writing the file failed: ") + sf_strerror(sf);
            status = 1;
        }
        queue.SubCount(len);
        queue.ReleaseReadBuff();
        frames += n;
        if (status) break;
        if (tty) std::fprintf(stderr, "\r%s: %6.1f s recorded", name.c_str(), double(frames) / rate);
    }
    if (g_quit) why = "interrupted";
    stream.Close();
    if (sf_close(sf) != 0 && status == 0) {
        why = "closing the file failed";
        status = 1;
    }
    if (tty || status) std::fprintf(stderr, "%s%s: %.1f s recorded, %s\n", tty ? "\r" : "", name.c_str(),
                                    double(frames) / rate, why.c_str());
    return status;
}
