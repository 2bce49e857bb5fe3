// mixer-play: plays a sound file through mixerd as one client stream.

#include <poll.h>
#include <signal.h>
#include <sndfile.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/RealTimePacer.h"
#include "client/ClientStream.h"

namespace {

const char* const kHelp =
"NAME\n"
"    mixer-play - play a sound file through the audio mixer\n"
"\n"
"SYNOPSIS\n"
"    mixer-play FILE --name NAME --meta TYPE [--id N] [--blocks N]\n"
"               [--pause-at SEC --pause-for MS] [--flush-at SEC] [--stop-at SEC]\n"
"               [--no-drain] [--quiet]\n"
"\n"
"DESCRIPTION\n"
"    Creates the stream's shared block queue, announces the stream to mixerd(8)\n"
"    with a description file in /var/run/mixer (transport type dataTrans), and\n"
"    streams FILE (any format libsndfile reads, 16-bit at the file's own rate and\n"
"    channel count) in real time. TYPE is the stream type that volumes and focus\n"
"    refer to (music, prompt, ...). At the end the rest of the queue is played\n"
"    out (drain), the queue is closed and the description file removed.\n"
"\n"
"    On a terminal, progress is shown and these keys work:\n"
"        space   pause / resume (the mixer fades out and in)\n"
"        f       flush what is queued\n"
"        d       stop reading the file, play out what is queued and end\n"
"        q       stop at once\n"
"\n"
"OPTIONS\n"
"    --name NAME       stream name, unique among the mixer's streams\n"
"    --meta TYPE       stream type\n"
"    --id N            process id carried in the description file, whose end\n"
"                      the mixer watches for (default: this process's; 0: none)\n"
"    --blocks N        queue length in 20-ms blocks (default 8)\n"
"    --pause-at SEC    pause once SEC seconds of the file have been sent ...\n"
"    --pause-for MS    ... for MS milliseconds, then resume (default 1000)\n"
"    --flush-at SEC    flush the queue once SEC seconds have been sent\n"
"    --stop-at SEC     stop once SEC seconds have been sent\n"
"    --no-drain        at the end, close without waiting for the queue to play out\n"
"    --quiet           no progress line\n"
"    -h, --help        this text\n"
"\n"
"EXIT STATUS\n"
"    0 when the file was played (or stopped as asked), 1 when the mixer closed or\n"
"    refused the stream, 2 for a bad command line or an unreadable file.\n";

volatile sig_atomic_t g_quit = 0;
void OnSignal(int) { g_quit = 1; }

termios g_savedTerm;
bool g_termChanged = false;
void RestoreTerminal() {
    if (g_termChanged) tcsetattr(STDIN_FILENO, TCSANOW, &g_savedTerm);
    g_termChanged = false;
}

bool ParseSeconds(const char* text, double& v) {
    char* end = nullptr;
    v = std::strtod(text, &end);
    return *text && !*end && v >= 0;
}

int ReadKey() {
    if (!g_termChanged) return -1;
    pollfd pfd = {STDIN_FILENO, POLLIN, 0};
    if (poll(&pfd, 1, 0) != 1) return -1;
    char c;
    return read(STDIN_FILENO, &c, 1) == 1 ? c : -1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file, name, meta;
    int id = static_cast<int>(getpid());
    unsigned blocks = 8, pauseForMs = 1000;
    double pauseAt = -1, flushAt = -1, stopAt = -1;
    bool drain = true, quiet = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* what) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "mixer-play: option %s needs a value\n", what);
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
        } else if (a == "--meta") {
            meta = value("--meta");
        } else if (a == "--id") {
            id = std::atoi(value("--id"));
        } else if (a == "--blocks") {
            int b = std::atoi(value("--blocks"));
            ok = b >= 2 && b <= 256;
            blocks = static_cast<unsigned>(b);
        } else if (a == "--pause-at") {
            ok = ParseSeconds(value("--pause-at"), pauseAt);
        } else if (a == "--pause-for") {
            int ms = std::atoi(value("--pause-for"));
            ok = ms > 0;
            pauseForMs = static_cast<unsigned>(ms);
        } else if (a == "--flush-at") {
            ok = ParseSeconds(value("--flush-at"), flushAt);
        } else if (a == "--stop-at") {
            ok = ParseSeconds(value("--stop-at"), stopAt);
        } else if (a == "--no-drain") {
            drain = false;
        } else if (a == "--quiet") {
            quiet = true;
        } else if (a.compare(0, 1, "-") == 0 || !file.empty()) {
            std::fprintf(stderr, "mixer-play: unexpected argument '%s' (see --help)\n", a.c_str());
            return 2;
        } else {
            file = a;
        }
        if (!ok) {
            std::fprintf(stderr, "mixer-play: bad value '%s' for %s\n", argv[i], a.c_str());
            return 2;
        }
    }
    if (file.empty() || meta.empty() || !mixer::client::ClientStream::ValidName(name)) {
        std::fprintf(stderr, "mixer-play: FILE, --name (no '/' or line feed) and --meta are needed (see --help)\n");
        return 2;
    }

    SF_INFO info = SF_INFO();
    SNDFILE* sf = sf_open(file.c_str(), SFM_READ, &info);
    if (!sf) {
        std::fprintf(stderr, "mixer-play: %s: %s\n", file.c_str(), sf_strerror(nullptr));
        return 2;
    }
    const unsigned rate = static_cast<unsigned>(info.samplerate), ch = static_cast<unsigned>(info.channels);
    if (rate == 0 || rate > 96000 || ch == 0 || ch > 10) {
        std::fprintf(stderr, "mixer-play: %s: %u Hz, %u channels is more than the mixer takes\n", file.c_str(),
                     rate, ch);
        sf_close(sf);
        return 2;
    }
    const unsigned periodFrames = rate / 50;  // 20 ms
    const unsigned kBlockUs = 20000;

    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    mixer::client::ClientStream stream;
    mixer::client::ClientStream::Params params;
    params.name = name;
    params.meta = meta;
    params.rate = rate;
    params.channels = ch;
    params.blocks = blocks;
    params.id = id;
    std::string error;
    if (stream.Open(mixer::client::ClientStream::kPlayback, params, error) != 0) {
        std::fprintf(stderr, "mixer-play: %s\n", error.c_str());
        sf_close(sf);
        return 1;
    }
    mixer::DataTransWriter& writer = stream.Writer();

    bool tty = !quiet && isatty(STDERR_FILENO);
    if (tty && isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &g_savedTerm) == 0) {
        termios raw = g_savedTerm;
        raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        g_termChanged = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
        std::atexit(RestoreTerminal);
    }

    // The file is sent at playing speed, at most this far ahead of the clock; a full
    // queue (the mixer plays slower, or paused) holds the writer back as well.
    mixer::client::RealTimePacer pacer(100000, 200000);
    std::vector<int16_t> buf(periodFrames * ch);
    const double total = info.frames > 0 ? double(info.frames) / rate : 0;
    uint64_t sentFrames = 0;
    unsigned chunk = 0;
    int status = 0;
    bool paused = false, ending = false;
    const char* why = "played";
    while (!g_quit && !ending) {
        int key = ReadKey();
        if (key == ' ') {
            writer.SendCmd(paused ? mixer::CMD_RESUME : mixer::CMD_PAUSE);
            paused = !paused;
            pacer.Reset();
        } else if (key == 'f') {
            writer.SendCmd(mixer::CMD_FLUSH);
        } else if (key == 'd') {
            why = "drained early";
            break;
        } else if (key == 'q') {
            writer.SendCmd(mixer::CMD_STOP);
            why = "stopped";
            drain = false;
            break;
        }
        if (tty)
            std::fprintf(stderr, "\r%s: %6.1f s / %.1f s  %-8s", name.c_str(), double(sentFrames) / rate, total,
                         paused ? "paused" : "playing");
        if (paused) {
            pollfd pfd = {STDIN_FILENO, POLLIN, 0};
            poll(&pfd, 1, 200);  // a key or the progress line's next refresh
            continue;
        }
        double pos = double(sentFrames) / rate;
        if (stopAt >= 0 && pos >= stopAt) {
            writer.SendCmd(mixer::CMD_STOP);
            why = "stopped";
            drain = false;
            break;
        }
        if (pauseAt >= 0 && pos >= pauseAt) {
            pauseAt = -1;
            writer.SendCmd(mixer::CMD_PAUSE);
            std::this_thread::sleep_for(std::chrono::milliseconds(pauseForMs));  // the pause asked for
            writer.SendCmd(mixer::CMD_RESUME);
            pacer.Reset();
        }
        if (flushAt >= 0 && pos >= flushAt) {
            flushAt = -1;
            writer.SendCmd(mixer::CMD_FLUSH);
        }
        sf_count_t got = sf_readf_short(sf, buf.data(), periodFrames);
        if (got <= 0) break;
        size_t bytes = static_cast<size_t>(got) * ch * 2, done = 0;
        char bufId[32];
        std::snprintf(bufId, sizeof(bufId), "%s:%u", name.c_str(), chunk++);
        while (done < bytes && !g_quit) {
            size_t wrote = 0;
            stream.WaitForRoom(kBlockUs, 200);  // the daemon need not wake us per block
            const int err = writer.Write(reinterpret_cast<const char*>(buf.data()) + done, bytes - done, bufId, 200, &wrote);
            done += wrote;
            if (err == 0 || err == ETIMEDOUT) continue;
            std::fprintf(stderr, "%smixer-play: %s: the mixer %s the stream\n", tty ? "\n" : "", name.c_str(),
                         err == EAGAIN ? "stopped" : "closed");
            status = 1;
            ending = true;
            drain = false;
            why = nullptr;
            break;
        }
        sentFrames += static_cast<uint64_t>(got);
        pacer.Advance(static_cast<int64_t>(got) * 1000000 / rate);
    }
    if (g_quit) {
        why = "interrupted";
        drain = false;
    }
    if (drain) {
        writer.SendCmd(mixer::CMD_DRAIN);
        writer.Drain();
    }
    stream.Close();
    sf_close(sf);
    RestoreTerminal();
    if (tty) std::fprintf(stderr, "\r%s: %6.1f s / %.1f s  %-8s\n", name.c_str(), double(sentFrames) / rate, total,
                          why ? why : "closed");
    return status;
}
