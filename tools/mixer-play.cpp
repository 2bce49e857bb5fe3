// mixer-play: plays a sound file through mixerd as one client stream.

#include <poll.h>
#include <sys/stat.h>
#include <signal.h>
#include <sndfile.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/RealTimePacer.h"
#include "client/ClientStream.h"
#include "client/ParseWhole.h"

namespace {

using mixer::client::ParseWhole;

const char* const kHelp =
"NAME\n"
"    mixer-play - play a sound file through the audio mixer\n"
"\n"
"SYNOPSIS\n"
"    mixer-play FILE --name NAME --meta TYPE [--id N] [--blocks N]\n"
"               [--pause-at SEC --pause-for MS] [--flush-at SEC] [--stop-at SEC]\n"
"               [--no-drain] [--socket PATH] [--quiet]\n"
"\n"
"DESCRIPTION\n"
"    Creates the stream's shared block queue, announces the stream to mixerd(8)\n"
"    with a description file in /var/run/mixer (transport type dataTrans), and\n"
"    streams FILE in real time. Any format libsndfile reads plays at its level\n"
"    (floating-point samples are taken to 16 bits, clipped beyond full scale);\n"
"    the stream has the file's own rate and channel count, which the mixer must\n"
"    take: a rate that is a multiple of 50 Hz from 8000 to 96000 Hz, 1 to 10\n"
"    channels. TYPE is the\n"
"    stream type that volumes and focus refer to (music, prompt, ...). At the end\n"
"    the rest of the queue is played out (drain), the queue is closed and the\n"
"    description file removed, also when a signal (SIGINT, SIGTERM, SIGHUP,\n"
"    SIGQUIT) ends the program.\n"
"\n"
"    Before it sends anything, mixer-play makes sure that mixerd runs and waits\n"
"    (at most 3 s) until the daemon has accepted the stream; a refusal is printed\n"
"    with the daemon's reason. While playing, a daemon that stops taking audio for\n"
"    a second is asked whether it still serves the stream. A file that ends before\n"
"    its header says is played as far as it goes, with a warning.\n"
"\n"
"    On a terminal, progress is shown and these keys work:\n"
"        space   pause / resume (the mixer fades out and in)\n"
"        f       flush what is queued (dropped unheard), then play on\n"
"        d       stop reading the file, play out what is queued and end\n"
"        q       stop at once\n"
"\n"
"OPTIONS\n"
"    --name NAME       stream name, unique among the mixer's streams\n"
"    --meta TYPE       stream type\n"
"    --id N            process id carried in the description file, whose end\n"
"                      the mixer watches for (default: this process's; 0: none)\n"
"    --blocks N        queue length in 20-ms blocks, 2..256 (default 8)\n"
"    --pause-at SEC    pause once SEC seconds of the file have been sent ...\n"
"    --pause-for MS    ... for MS milliseconds (1 or more), then resume\n"
"                      (default 1000)\n"
"    --flush-at SEC    flush the queue once SEC seconds have been sent, then\n"
"                      play on\n"
"    --stop-at SEC     stop once SEC seconds have been sent\n"
"    --no-drain        at the end, close without waiting for the queue to play out\n"
"    --socket PATH     mixerd's control socket (default /run/mixerd/mixerd.sock)\n"
"    --quiet           no progress line\n"
"    -h, --help        this text\n"
"\n"
"EXIT STATUS\n"
"    0 when the file was played (or stopped or drained early as asked; also for\n"
"    a truncated file, after the warning), 1 when mixerd is not running, refused\n"
"    the stream (also a format it does not take, said before anything is sent),\n"
"    stopped serving it or went away, 2 for a bad command line or a file that\n"
"    cannot be read, 128 + N when signal N ended the program.\n";

volatile sig_atomic_t g_quit = 0;  // the signal that asks to end, 0 for none
void OnSignal(int sig) { g_quit = sig; }

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

typedef std::chrono::steady_clock Clock;

// The mixer drops what is queued and pauses the stream; playing goes on at once.
void Flush(mixer::DataTransWriter& writer) {
    writer.SendCmd(mixer::CMD_FLUSH);
    writer.SendCmd(mixer::CMD_RESUME);
}

// Whether the file held less audio than its header announced: libsndfile plays what
// there is and notes the header's figure in its log ("data : N (should be M)"), or a
// read ends early.
bool Truncated(SNDFILE* sf, const SF_INFO& info, uint64_t sentFrames) {
    if (info.frames > 0 && sentFrames < static_cast<uint64_t>(info.frames)) return true;
    char log[4096] = {0};
    sf_command(sf, SFC_GET_LOG_INFO, log, sizeof(log));
    for (const char* line = log; line && *line; line = std::strchr(line, '\n') ? std::strchr(line, '\n') + 1 : nullptr) {
        const char* end = std::strchr(line, '\n');
        const std::string text(line, end ? static_cast<size_t>(end - line) : std::strlen(line));
        if (text.compare(0, 4, "data") == 0 && text.find("(should be") != std::string::npos) return true;
    }
    return false;
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
    std::string file, name, meta, socketPath = mixer::client::ClientStream::kDefaultSocket;
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
        const char* range = nullptr;  // what the option takes, when its value is bad
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
            long b = 0;
            if (!ParseWhole(value("--blocks"), b) || b < 2 || b > 256) range = "a whole number from 2 to 256";
            blocks = static_cast<unsigned>(b);
        } else if (a == "--pause-at") {
            if (!ParseSeconds(value("--pause-at"), pauseAt)) range = "seconds, 0 or more";
        } else if (a == "--pause-for") {
            long ms = 0;
            if (!ParseWhole(value("--pause-for"), ms) || ms < 1 || ms > 3600000) range = "milliseconds, 1 to 3600000";
            pauseForMs = static_cast<unsigned>(ms);
        } else if (a == "--flush-at") {
            if (!ParseSeconds(value("--flush-at"), flushAt)) range = "seconds, 0 or more";
        } else if (a == "--stop-at") {
            if (!ParseSeconds(value("--stop-at"), stopAt)) range = "seconds, 0 or more";
        } else if (a == "--socket") {
            socketPath = value("--socket");
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
        if (range) {
            std::fprintf(stderr, "mixer-play: bad value '%s' for %s: %s\n", argv[i], a.c_str(), range);
            return 2;
        }
    }
    if (file.empty() || meta.empty() || !mixer::client::ClientStream::ValidName(name)) {
        std::fprintf(stderr, "mixer-play: FILE, --name (no '/' or line feed) and --meta are needed (see --help)\n");
        return 2;
    }

    struct stat st;
    if (stat(file.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "mixer-play: %s: is a directory, not a sound file\n", file.c_str());
        return 2;
    }
    SF_INFO info = SF_INFO();
    SNDFILE* sf = sf_open(file.c_str(), SFM_READ, &info);
    if (!sf) {
        std::fprintf(stderr, "mixer-play: %s: %s\n", file.c_str(),
                     access(file.c_str(), R_OK) != 0 ? std::strerror(errno) : sf_strerror(nullptr));
        return 2;
    }
    const unsigned rate = static_cast<unsigned>(info.samplerate), ch = static_cast<unsigned>(info.channels);
    const unsigned periodFrames = rate / 50;  // 20 ms
    const unsigned kBlockUs = 20000;

    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    mixer::client::ClientStream stream;
    mixer::client::ClientStream::Params params;
    params.name = name;
    params.meta = meta;
    params.rate = rate;
    params.channels = ch;
    params.blocks = blocks;
    params.id = id;
    params.socket = socketPath;
    std::string error;
    if (stream.Open(mixer::client::ClientStream::kPlayback, params, error) != 0) {
        std::fprintf(stderr, "mixer-play: %s: %s\n", file.c_str(), error.c_str());
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
    std::vector<float> in(periodFrames * ch);
    const double total = info.frames > 0 ? double(info.frames) / rate : 0;
    uint64_t sentFrames = 0;
    unsigned chunk = 0;
    int status = 0;
    bool paused = false, ending = false;
    std::string why = "played";
    // When the daemon last took audio or was heard from: after a second without, it is
    // asked whether it still serves the stream.
    Clock::time_point heard = Clock::now();
    auto stillServed = [&]() {
        if (Clock::now() - heard < std::chrono::seconds(1)) return true;
        std::string gone;
        if (stream.Check(gone) == mixer::client::ClientStream::kGone) {
            std::fprintf(stderr, "%smixer-play: %s: %s\n", tty ? "\n" : "", name.c_str(), gone.c_str());
            why = gone;
            status = 1;
            drain = false;
            return false;
        }
        heard = Clock::now();
        return true;
    };
    while (!g_quit && !ending) {
        int key = ReadKey();
        if (key == ' ') {
            writer.SendCmd(paused ? mixer::CMD_RESUME : mixer::CMD_PAUSE);
            paused = !paused;
            pacer.Reset();
            heard = Clock::now();
        } else if (key == 'f') {
            Flush(writer);
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
            if (!stillServed()) break;
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
            heard = Clock::now();
        }
        if (flushAt >= 0 && pos >= flushAt) {
            flushAt = -1;
            Flush(writer);
        }
        // Every format is read as float, full scale at 1, and taken to 16 bits as it is:
        // integer samples come back exactly, floating-point ones at their level (read as
        // integers they would be silence, or scaled to the file's peak).
        sf_count_t got = sf_readf_float(sf, in.data(), periodFrames);
        if (got <= 0) break;
        for (size_t k = 0; k < static_cast<size_t>(got) * ch; ++k)
            buf[k] = static_cast<int16_t>(std::lrint(std::min(32767.0f, std::max(-32768.0f, in[k] * 32768.0f))));
        size_t bytes = static_cast<size_t>(got) * ch * 2, done = 0;
        char bufId[32];
        std::snprintf(bufId, sizeof(bufId), "%s:%u", name.c_str(), chunk++);
        while (done < bytes && !g_quit && !ending) {
            size_t wrote = 0;
            stream.WaitForRoom(kBlockUs, 200);  // the daemon need not wake us per block
            const int err = writer.Write(reinterpret_cast<const char*>(buf.data()) + done, bytes - done, bufId, 200, &wrote);
            done += wrote;
            if (wrote > 0 || err == 0) heard = Clock::now();
            if (err == 0) continue;
            if (err == ETIMEDOUT) {
                ending = !stillServed();
                continue;
            }
            std::fprintf(stderr, "%smixer-play: %s: the mixer %s the stream\n", tty ? "\n" : "", name.c_str(),
                         err == EAGAIN ? "stopped" : "closed");
            status = 1;
            ending = true;
            drain = false;
            why = "closed";
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
    const bool truncated = why == "played" && Truncated(sf, info, sentFrames);
    sf_close(sf);
    RestoreTerminal();
    if (tty) std::fprintf(stderr, "\r%s: %6.1f s / %.1f s  %-8s\n", name.c_str(), double(sentFrames) / rate, total,
                          why.c_str());
    if (truncated)
        std::fprintf(stderr, "mixer-play: %s: warning: the file is cut short: its header announces more audio "
                     "than it holds; played the %.1f s it has\n", file.c_str(), double(sentFrames) / rate);
    if (g_quit) return 128 + g_quit;
    return status;
}
