// mixer-rec: records the microphone through mixerd into a WAV file.

#include <signal.h>
#include <sndfile.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/ClientStream.h"
#include "mixer/transport/DataTrans.h"

namespace {

const char* const kHelp =
"NAME\n"
"    mixer-rec - record the microphone through the audio mixer\n"
"\n"
"SYNOPSIS\n"
"    mixer-rec --name micRaw|micAsr|micHfp OUT.wav [--rate HZ] [--channels N]\n"
"              [--seconds S] [--quiet]\n"
"\n"
"DESCRIPTION\n"
"    Creates a shared block queue, announces a record stream to mixerd(8) with a\n"
"    description file in /var/run/mixer, and writes the microphone audio that the\n"
"    daemon sends into OUT.wav (16-bit) until S seconds are recorded, SIGINT or\n"
"    SIGTERM arrive (Ctrl-C on a terminal), or the daemon goes away. The file is\n"
"    complete whichever way it ends. The microphone must be on (mixerctl mic on,\n"
"    the daemon's default).\n"
"\n"
"OPTIONS\n"
"    --name NAME     micRaw, micAsr or micHfp\n"
"    --rate HZ       sample rate wanted (default 16000; the daemon resamples)\n"
"    --channels N    channel count wanted (default 1)\n"
"    --seconds S     stop after S seconds of audio (default: until interrupted)\n"
"    --quiet         no progress line\n"
"    -h, --help      this text\n"
"\n"
"EXIT STATUS\n"
"    0 when the recording ended as asked, 1 when the daemon closed the stream or the\n"
"    file could not be written, 2 for a bad command line.\n";

volatile sig_atomic_t g_quit = 0;
void OnSignal(int) { g_quit = 1; }

}  // namespace

int main(int argc, char** argv) {
    std::string name, out;
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
        bool ok = true;
        if (a == "-h" || a == "--help") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "--name") {
            name = value("--name");
            ok = name == "micRaw" || name == "micAsr" || name == "micHfp";
        } else if (a == "--rate") {
            long r = std::atol(value("--rate"));
            ok = r >= 8000 && r <= 96000;
            rate = static_cast<unsigned>(r);
        } else if (a == "--channels") {
            long c = std::atol(value("--channels"));
            ok = c >= 1 && c <= 8;
            channels = static_cast<unsigned>(c);
        } else if (a == "--seconds") {
            char* end = nullptr;
            const char* v = value("--seconds");
            seconds = std::strtod(v, &end);
            ok = *v && !*end && seconds > 0;
        } else if (a == "--quiet") {
            quiet = true;
        } else if (a.compare(0, 1, "-") == 0 || !out.empty()) {
            std::fprintf(stderr, "mixer-rec: unexpected argument '%s' (see --help)\n", a.c_str());
            return 2;
        } else {
            out = a;
        }
        if (!ok) {
            std::fprintf(stderr, "mixer-rec: bad value '%s' for %s\n", argv[i], a.c_str());
            return 2;
        }
    }
    if (name.empty() || out.empty()) {
        std::fprintf(stderr, "mixer-rec: --name and OUT.wav are needed (see --help)\n");
        return 2;
    }
    SF_INFO info = SF_INFO();
    info.samplerate = static_cast<int>(rate);
    info.channels = static_cast<int>(channels);
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* sf = sf_open(out.c_str(), SFM_WRITE, &info);
    if (!sf) {
        std::fprintf(stderr, "mixer-rec: %s: %s\n", out.c_str(), sf_strerror(nullptr));
        return 1;
    }
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    mixer::client::ClientStream stream;
    mixer::client::ClientStream::Params params;
    params.name = name;
    params.rate = rate;
    params.channels = channels;
    params.blocks = 16;
    std::string error;
    if (stream.Open(mixer::client::ClientStream::kRecord, params, error) != 0) {
        std::fprintf(stderr, "mixer-rec: %s\n", error.c_str());
        sf_close(sf);
        return 1;
    }
    mixer::DataTrans& queue = stream.Queue();
    int err = 0;

    const bool tty = !quiet && isatty(STDERR_FILENO);
    const uint64_t wanted = seconds > 0 ? static_cast<uint64_t>(seconds * rate) : UINT64_MAX;
    uint64_t frames = 0;
    int status = 0;
    const char* why = "done";
    while (!g_quit && frames < wanted) {
        unsigned len = 0;
        char* block = queue.GetReadBuff(err, len, 200, nullptr);
        if (!block) {
            if (err == ETIMEDOUT || err == EAGAIN || err == EINTR) continue;
            why = "the mixer closed the stream";
            status = 1;
            break;
        }
        uint64_t n = len / (2 * channels);
        if (n > wanted - frames) n = wanted - frames;
        if (sf_writef_short(sf, reinterpret_cast<const int16_t*>(block), static_cast<sf_count_t>(n)) !=
            static_cast<sf_count_t>(n)) {
            why = "writing the file failed";
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
    sf_close(sf);
    if (tty || status) std::fprintf(stderr, "%s%s: %.1f s recorded, %s\n", tty ? "\r" : "", name.c_str(),
                                    double(frames) / rate, why);
    return status;
}
