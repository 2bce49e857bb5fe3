#pragma once

// mixerd and its tools run as programs (tests/e2e, tests/soak), inside the private mount
// namespace of their CTest wrapper (empty /run and /dev/shm), and the WAV file that the
// daemon played into. The including target defines MIXERD_PATH and MIXERCTL_PATH.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/host/TempDir.h"

extern char** environ;

namespace mixer {
namespace test {

const std::string kStreamDir = "/var/run/mixer";

// Polls pred, at growing intervals of at most 50 ms, until it holds or limitMs have passed.
inline bool Eventually(const std::function<bool()>& pred, int limitMs = 30000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    for (int ms = 1; !pred(); ms = std::min(ms * 2, 50)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    return true;
}

// Starts a program with stdin from /dev/null and stdout and stderr to outFile;
// descriptors the caller made without close-on-exec stay open in it.
inline pid_t Spawn(const std::vector<std::string>& args, const std::string& outFile) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// The exit status, or minus the signal that ended the program; -1000 when it did not
// end within limitMs (it is killed then).
inline int WaitExit(pid_t pid, int limitMs = 60000) {
    int status = 0;
    pid_t got = 0;
    if (!Eventually([&] { return (got = waitpid(pid, &status, WNOHANG)) != 0; }, limitMs)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (got != pid) return -1000;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

inline std::string Slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

inline bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The names in a directory; with prefix, only those that start with it.
inline std::set<std::string> DirNames(const std::string& path, const std::string& prefix = "") {
    std::set<std::string> names;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.' && std::string(e->d_name).compare(0, prefix.size(), prefix) == 0)
                names.insert(e->d_name);
        closedir(d);
    }
    return names;
}

// The stream queues in /dev/shm ("mixer-NAME"), the only objects there that are the daemon's.
inline std::set<std::string> ShmObjects() { return DirNames("/dev/shm", "mixer-"); }

inline std::string Joined(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& n : names) text += " " + n;
    return text;
}

// mixerd with the WAV output and the tone microphone, its control socket, status file,
// log and output in a fresh directory. ready: it said so on --ready-fd.
class Mixerd {
public:
    TempDir dir;
    const std::string out = dir.File("out.wav"), log = dir.File("mixerd.log"), sock = dir.File("ctl.sock");
    pid_t pid = -1;
    bool ready = false;

    Mixerd() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        fcntl(fds[1], F_SETFD, 0);  // only the write end goes to the daemon
        pid = Spawn({MIXERD_PATH, "--output", "wav", "--out-file", out, "--mic", "tone", "--socket", sock,
                     "--status-file", dir.File("status"), "--log-stderr", "--log-mask", "EWI", "--ready-fd",
                     std::to_string(fds[1])},
                    log);
        close(fds[1]);
        char word[8] = {0};
        ready = pid > 0 && read(fds[0], word, sizeof(word) - 1) > 0 && std::string(word) == "ready\n";
        close(fds[0]);
    }
    ~Mixerd() { Stop(SIGKILL); }
    Mixerd(const Mixerd&) = delete;
    Mixerd& operator=(const Mixerd&) = delete;

    // Ends the daemon with sig: its exit status (WaitExit).
    int Stop(int sig = SIGTERM) {
        const int status = pid > 0 && kill(pid, sig) == 0 ? WaitExit(pid) : -1000;
        pid = -1;
        return status;
    }
    // mixerctl with the words of request: its exit status; what it printed in *said.
    int Ctl(const std::string& request, std::string* said = nullptr) {
        std::vector<std::string> args = {MIXERCTL_PATH, "--socket", sock};
        std::istringstream words(request);
        for (std::string w; words >> w;) args.push_back(w);
        const int status = WaitExit(Spawn(args, dir.File("ctl.txt")));
        if (said) *said = Slurp(dir.File("ctl.txt"));
        return status;
    }
};

// A sine with 10-ms fades at both ends (so the source itself has no step).
inline bool WriteSine(const std::string& path, int rate, int channels, double freq, double amplitude,
                      double seconds) {
    SF_INFO info = {0, rate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f) return false;
    const size_t n = static_cast<size_t>(seconds * rate), fade = static_cast<size_t>(rate / 100);
    std::vector<int16_t> s(n * channels);
    for (size_t i = 0; i < n; ++i) {
        const double g = std::min({1.0, double(i) / fade, double(n - i) / fade});
        for (int c = 0; c < channels; ++c)
            s[i * channels + c] = static_cast<int16_t>(std::lround(g * amplitude * std::sin(2 * M_PI * freq * i / rate)));
    }
    sf_writef_short(f, s.data(), static_cast<sf_count_t>(n));
    return sf_close(f) == 0;
}

// The first channel of a WAV file.
struct WavTrack {
    int rate = 0, channels = 0;
    std::vector<int16_t> left;

    bool Load(const std::string& path) {
        SF_INFO info = SF_INFO();
        SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
        if (!f) return false;
        rate = info.samplerate;
        channels = info.channels;
        std::vector<int16_t> all(static_cast<size_t>(info.frames * channels));
        left.resize(static_cast<size_t>(sf_readf_short(f, all.data(), info.frames)));
        for (size_t i = 0; i < left.size(); ++i) left[i] = all[i * channels];
        return sf_close(f) == 0;
    }
    // The amplitude of the tone at freq in each 20-ms window (Goertzel).
    std::vector<double> Tone(double freq) const {
        const size_t w = static_cast<size_t>(rate / 50);
        const double k = 2 * std::cos(2 * M_PI * freq / rate);
        std::vector<double> a(w ? left.size() / w : 0);
        for (size_t i = 0; i < a.size(); ++i) {
            double s1 = 0, s2 = 0;
            for (size_t j = i * w; j < (i + 1) * w; ++j) s2 = std::exchange(s1, left[j] + k * s1 - s2);
            a[i] = 2 * std::sqrt(std::max(s1 * s1 + s2 * s2 - k * s1 * s2, 0.0)) / w;
        }
        return a;
    }
    // The largest step between neighbouring samples, and where.
    int MaxStep(size_t* where) const {
        int best = 0;
        for (size_t i = 1; i < left.size(); ++i) {
            const int step = std::abs(left[i] - left[i - 1]);
            if (step > best) best = step, *where = i;
        }
        return best;
    }
};

// The first and last window above threshold (first == a.size() when none is).
inline std::pair<size_t, size_t> LoudSpan(const std::vector<double>& a, double threshold) {
    std::pair<size_t, size_t> span(a.size(), 0);
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] > threshold) span = {std::min(span.first, i), i};
    return span;
}

inline double Median(const std::vector<double>& a, size_t from, size_t to) {
    std::vector<double> v(a.begin() + from, a.begin() + to);
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

}  // namespace test
}  // namespace mixer
