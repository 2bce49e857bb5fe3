#pragma once

// mixerd and its tools as programs (tests/e2e, tests/soak), and the WAV file the daemon
// played into. The including target defines MIXERD_PATH and MIXERCTL_PATH.
#include <fcntl.h>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include "tests/host/TempDir.h"
namespace mixer {
namespace test {

const std::string kStreamDir = "/var/run/mixer";

// Polls pred, at growing intervals of at most 50 ms, until it holds or limitMs have passed.
template <typename Pred>
bool Eventually(Pred pred, int limitMs = 30000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    for (int ms = 1; !pred(); ms = std::min(ms * 2, 50)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    return true;
}

// Runs the command line cmd (through sh, which execs it) with its output in outFile.
inline pid_t Spawn(const std::string& cmd, const std::string& outFile) {
    const std::string line = "exec " + cmd + " </dev/null >" + outFile + " 2>&1";
    const char* argv[] = {"/bin/sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    return posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ) == 0 ? pid : -1;
}

// The exit status, minus the signal that ended it, or -1000 (killed) after limitMs.
inline int WaitExit(pid_t pid, int limitMs = 60000) {
    int status = 0, got = 0;
    if (pid <= 0) return -1000;  // waitpid would take any child
    if (!Eventually([&] { return (got = waitpid(pid, &status, WNOHANG)) != 0; }, limitMs))
        kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    return got != pid ? -1000 : WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

inline std::string Slurp(const std::string& path) {
    return {std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {}};
}

inline bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
// The names in a directory (none when there is none) that start with prefix.
inline std::set<std::string> DirNames(const std::string& path, const std::string& prefix = "") {
    std::set<std::string> names;
    std::error_code none;
    for (const auto& e : std::filesystem::directory_iterator(path, none))
        if (e.path().filename().string().compare(0, prefix.size(), prefix) == 0) names.insert(e.path().filename());
    return names;
}

// mixerd with the WAV output and the tone microphone (only in the CTest wrapper's private
// /run and /dev/shm); ready: it said so on --ready-fd.
struct Mixerd {
    TempDir dir;
    const std::string out = dir.File("out.wav"), log = dir.File("mixerd.log"), sock = "/run/mixerd/mixerd.sock";
    pid_t pid = -1; bool ready = false;
    std::string said;  // what the last mixerctl printed
    // options: more of the daemon's options, which win over the ones given here.
    explicit Mixerd(bool start = true, const std::string& options = "") {
        int fds[2];  // the daemon gets only the write end
        if (!start || !getenv("MIXER_PRIVATE_RUN") || pipe2(fds, O_CLOEXEC) != 0 || fcntl(fds[1], F_SETFD, 0) != 0) return;
        pid = Spawn(MIXERD_PATH " --output wav --mic tone --log-stderr --log-mask EWI --out-file " + out +
                        " --ready-fd " + std::to_string(fds[1]) + " " + options, log);
        char word[8] = {0};
        ready = close(fds[1]) == 0 && pid > 0 && read(fds[0], word, 7) > 0 && std::string(word) == "ready\n";
        close(fds[0]);
    }
    ~Mixerd() { Stop(SIGKILL); }
    int Stop(int sig = SIGTERM) { return pid > 0 && kill(pid, sig) == 0 ? WaitExit(std::exchange(pid, -1)) : -1000; }
    // A program run to its end: its exit status; said holds what it printed.
    int Run(const std::string& cmd, int limitMs = 60000) {
        const int status = WaitExit(Spawn(cmd, dir.File("run")), limitMs);
        return said = Slurp(dir.File("run")), status;
    }
    int Ctl(const std::string& request) {  // mixerctl: its exit status
        const int status = WaitExit(Spawn(MIXERCTL_PATH " " + request, dir.File("ctl")));
        return said = Slurp(dir.File("ctl")), status;
    }
    // Whether the output grows by bytes more within limitMs (the daemon plays on).
    bool PlaysOn(off_t bytes, int limitMs = 30000) {
        const auto size = [&] { struct stat st {}; return stat(out.c_str(), &st) == 0 ? st.st_size : 0; };
        const off_t before = size();
        return Eventually([&] { return size() > before + bytes; }, limitMs);
    }
};

// A sine with 10-ms fades at both ends (so the source itself has no step), in a WAV file
// of the sample format given (amplitude in 16-bit steps whatever the format).
inline bool WriteSine(const std::string& path, int rate, int channels, double freq, double amplitude, double seconds,
                      int format = SF_FORMAT_PCM_16) {
    SF_INFO info = {0, rate, channels, SF_FORMAT_WAV | format, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    const size_t n = static_cast<size_t>(seconds * rate), fade = static_cast<size_t>(rate / 100);
    std::vector<int16_t> s(n * channels);
    for (size_t i = 0; i < s.size(); ++i) {
        const double t = double(i / channels), g = std::min({1.0, t / fade, (n - t) / fade});
        s[i] = static_cast<int16_t>(std::lround(g * amplitude * std::sin(2 * M_PI * freq * t / rate)));
    }
    std::vector<double> x(s.begin(), s.end());  // floating point: full scale at 1
    for (double& v : x) v /= 32768;
    const sf_count_t wrote = format == SF_FORMAT_PCM_16 ? sf_writef_short(f, s.data(), sf_count_t(n))
                                                        : sf_writef_double(f, x.data(), sf_count_t(n));
    return f && wrote == sf_count_t(n) && sf_close(f) == 0;
}

// A WAV file's samples (interleaved); info (zeroed by the caller): its rate and channels.
inline std::vector<int16_t> ReadWav(const std::string& path, SF_INFO& info) {
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<int16_t> s(f ? static_cast<size_t>(info.frames * info.channels) : 0);
    if (f) s.resize(static_cast<size_t>(sf_readf_short(f, s.data(), info.frames) * info.channels)), sf_close(f);
    return s;
}

// The amplitude of the tone at freq in each 20-ms window of one channel of 48-kHz stereo.
inline std::vector<double> Tone(const std::vector<int16_t>& s, double freq, size_t channel = 0) {
    const double k = 2 * std::cos(2 * M_PI * freq / 48000);
    std::vector<double> a(s.size() / 2 / 960);
    for (size_t i = 0; i < a.size(); ++i) {
        double s1 = 0, s2 = 0;  // Goertzel
        for (size_t j = i * 960; j < (i + 1) * 960; ++j) s2 = std::exchange(s1, s[2 * j + channel] + k * s1 - s2);
        a[i] = 2 * std::sqrt(std::max(s1 * s1 + s2 * s2 - k * s1 * s2, 0.0)) / 960;
    }
    return a;
}
}  // namespace test
}  // namespace mixer
