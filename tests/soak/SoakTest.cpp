// mixerd for a while under client chaos: a steady reference client plays a sine the
// whole time while many other clients start, pause, flush, drain, stop, record, and are
// killed or stopped and continued at random. Afterwards the reference must have played
// without a gap and the daemon must hold no more than it held before: no shared memory,
// description files, descriptors or memory of the clients that are gone.
//
// MIXER_SOAK_SECONDS: length of the chaos (default 90); MIXER_SOAK_SEED: the random
// seed (default fixed; printed, so that a failing run can be replayed).
// Runs in a private mount namespace with its own /run and /dev/shm (see CMakeLists.txt).

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/syscall.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/DaemonProcess.h"
#include "tests/e2e/WavAnalysis.h"
#include "tests/host/TempDir.h"

namespace mixer {
namespace {

using Clock = std::chrono::steady_clock;
using test::Exists;
using test::Slurp;
using test::Spawn;

const std::string kStreamDir = "/var/run/mixer";
const char* const kRecordNames[] = {"micRaw", "micAsr", "micHfp"};

unsigned EnvUnsigned(const char* name, unsigned fallback) {
    const char* v = std::getenv(name);
    return v && *v ? static_cast<unsigned>(std::strtoul(v, nullptr, 10)) : fallback;
}

size_t OpenFds(pid_t pid) { return test::DirNames("/proc/" + std::to_string(pid) + "/fd").size(); }

// Occurrences of what in text.
size_t CountOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::string Joined(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& n : names) text += (text.empty() ? "" : " ") + n;
    return text;
}

// Each thread of pid with where it waits in the kernel, and the last lines of its log:
// what a failure needs to tell a stuck daemon from a slow one.
std::string Diagnosis(pid_t pid, const std::string& log) {
    std::string text = "daemon threads:\n";
    const std::string task = "/proc/" + std::to_string(pid) + "/task/";
    for (const std::string& tid : test::DirNames(task)) {
        std::string comm = Slurp(task + tid + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        text += "  " + tid + " " + comm + " in " + Slurp(task + tid + "/wchan") + "\n";
    }
    const std::string all = Slurp(log);
    size_t from = all.size();
    for (int lines = 0; from > 0 && lines < 40; --from) lines += all[from - 1] == '\n';
    return text + "end of the daemon's log:\n" + all.substr(from);
}

long VmRssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 6, "VmRSS:") == 0) return std::atol(line.c_str() + 6);
    return -1;
}

// This environment, with a small ASan quarantine for the daemon: ASan keeps freed memory
// out of use until its quarantine (256 MB by default) is full, so a daemon that frees
// all it allocates would still look as if it grew by everything it ever freed.
std::vector<std::string> DaemonEnvironment() {
    std::vector<std::string> env;
    bool had = false;
    for (char** e = environ; *e; ++e) {
        std::string v = *e;
        if (v.compare(0, 13, "ASAN_OPTIONS=") == 0) {
            v += v.size() > 13 ? ":quarantine_size_mb=1" : "quarantine_size_mb=1";
            had = true;
        }
        env.push_back(v);
    }
    if (!had) env.push_back("ASAN_OPTIONS=quarantine_size_mb=1");
    return env;
}

// One chaos client.
struct Client {
    pid_t pid;
    std::string name;
    bool record;
    bool announced = false;  // its description file was written: killing it now is fair
    bool stopped = false;
    Clock::time_point wakeAt;  // while stopped: when it is continued or killed
    bool killOnWake = false;
};

class SoakTest : public testing::Test {
protected:
    void SetUp() override {
        // Only inside the private namespace: the daemon removes /var/run/mixer at exit.
        ASSERT_STREQ(getenv("MIXER_PRIVATE_RUN"), "1") << "run through CTest (private /run)";
    }

    // Runs mixerctl with request and waits for it.
    int Ctl(const std::string& request) {
        std::vector<std::string> args = {MIXERCTL_PATH, "--socket", dir.File("ctl.sock")};
        std::istringstream words(request);
        for (std::string w; words >> w;) args.push_back(w);
        pid_t pid = Spawn(args, dir.File("ctl.log"));
        return pid > 0 ? test::WaitExit(pid) : -1;
    }

    // Reads the stream directory's events without waiting; marks announced clients.
    void TakeEvents(int inotifyFd, std::map<std::string, Client*>& byName) {
        alignas(inotify_event) char buf[4096];
        for (;;) {
            ssize_t n = read(inotifyFd, buf, sizeof(buf));
            if (n <= 0) return;
            for (ssize_t at = 0; at < n;) {
                const inotify_event* e = reinterpret_cast<const inotify_event*>(buf + at);
                if ((e->mask & IN_CLOSE_WRITE) && e->len) {
                    std::map<std::string, Client*>::iterator it = byName.find(e->name);
                    if (it != byName.end()) it->second->announced = true;
                }
                at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            }
        }
    }

    test::TempDir dir;
};

TEST_F(SoakTest, TheReferencePlaysOnAndNothingLeaksWhileClientsAreKilledAndStopped) {
    const unsigned chaosSeconds = EnvUnsigned("MIXER_SOAK_SECONDS", 90);
    const unsigned seed = EnvUnsigned("MIXER_SOAK_SEED", 20261122);
    std::printf("soak: %u s of chaos, seed %u (MIXER_SOAK_SEED=%u replays it)\n", chaosSeconds, seed, seed);
    std::fflush(stdout);
    std::mt19937 rng(seed);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };

    // The WAV output runs at half speed: the reference's sound lasts half the run, plus
    // a few seconds that it plays on after the chaos.
    const double refSeconds = (chaosSeconds + 4) / 2.0 + 4;
    const std::string ref = dir.File("ref.wav"), out = dir.File("out.wav");
    ASSERT_TRUE(test::WriteSine(ref, 48000, 2, 440, 8000, refSeconds));
    // The chaos plays at -66 dB, at another frequency and rate.
    const std::string quiet48 = dir.File("quiet48.wav"), quiet22 = dir.File("quiet22.wav");
    ASSERT_TRUE(test::WriteSine(quiet48, 48000, 2, 300, 16, 4.0));
    ASSERT_TRUE(test::WriteSine(quiet22, 22050, 1, 300, 16, 3.0));
    const std::set<std::string> shmBefore = test::ShmObjects();

    std::vector<std::string> env = DaemonEnvironment();
    test::DaemonProcess daemon;
    ASSERT_TRUE(daemon.Start({MIXERD_PATH, "--output", "wav", "--out-file", out, "--mic", "tone", "--socket",
                              dir.File("ctl.sock"), "--status-file", dir.File("status"), "--log-stderr",
                              "--log-mask", "EWI"},
                             dir.File("mixerd.log"), &env))
        << Slurp(dir.File("mixerd.log"));
    const std::string log = dir.File("mixerd.log");

    int in = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(in, 0);
    ASSERT_GE(inotify_add_watch(in, kStreamDir.c_str(), IN_CLOSE_WRITE | IN_DELETE), 0);
    ASSERT_GE(inotify_add_watch(in, dir.Path().c_str(), IN_MODIFY), 0);  // the output and the log

    // The reference: its queue holds 1.28 s of sound, 2.5 s of the daemon's time, so a
    // client that the machine delays for a moment does not run dry.
    pid_t refPid = Spawn({MIXER_PLAY_PATH, ref, "--name", "reference", "--meta", "music", "--blocks", "64",
                          "--quiet"},
                         dir.File("reference.log"));
    ASSERT_GT(refPid, 0);
    struct stat st;
    const off_t warm = 44 + 48000 * 4 / 2;  // half a second of sound written
    ASSERT_TRUE(test::WaitFor(in, [&] { return stat(out.c_str(), &st) == 0 && st.st_size > warm; }))
        << Slurp(log);
    const size_t fdsBefore = OpenFds(daemon.pid());

    std::deque<Client> clients;  // stays where it is: byName points into it
    std::map<std::string, Client*> byName;
    int started = 0, killed = 0, stoppedCount = 0, recorders = 0, commands = 0;
    auto running = [&](bool record) {
        int n = 0;
        for (const Client& c : clients) n += c.pid > 0 && c.record == record;
        return n;
    };
    auto pick = [&](bool wantStopped) -> Client* {
        std::vector<Client*> fit;
        for (Client& c : clients)
            if (c.pid > 0 && c.announced && c.stopped == wantStopped) fit.push_back(&c);
        return fit.empty() ? nullptr : fit[static_cast<size_t>(uniform(0, static_cast<int>(fit.size()) - 1))];
    };
    auto kill9 = [&](Client& c) {
        kill(c.pid, SIGKILL);
        ++killed;
    };

    const Clock::time_point start = Clock::now(), end = start + std::chrono::seconds(chaosSeconds);
    const Clock::time_point rssAt = start + std::chrono::seconds(chaosSeconds / 4);
    long rssBase = -1;
    for (Clock::time_point now = start; now < end; now = Clock::now()) {
        TakeEvents(in, byName);
        for (Client& c : clients) {
            if (c.pid <= 0) continue;
            if (waitpid(c.pid, nullptr, WNOHANG) == c.pid) {
                c.pid = -1;
                continue;
            }
            if (c.stopped && now >= c.wakeAt) {
                if (c.killOnWake) kill9(c);
                kill(c.pid, SIGCONT);
                c.stopped = false;
            }
        }
        if (rssBase < 0 && now >= rssAt) rssBase = VmRssKb(daemon.pid());

        const int dice = uniform(0, 99);
        if (dice < 30 && running(false) < 8) {
            Client c;
            c.name = "chaos" + std::to_string(started++);
            c.record = false;
            std::vector<std::string> args = {MIXER_PLAY_PATH, uniform(0, 1) ? quiet48 : quiet22, "--name", c.name,
                                             "--meta", "chaos", "--quiet", "--blocks",
                                             std::to_string(uniform(2, 16))};
            // Never before half a second: the daemon must have the stream by then, or a
            // client that ends on its own would leave its queue to nobody.
            if (uniform(0, 2) == 0) {
                args.insert(args.end(), {"--pause-at", std::to_string(uniform(5, 15) / 10.0), "--pause-for",
                                         std::to_string(uniform(100, 800))});
            }
            if (uniform(0, 3) == 0) args.insert(args.end(), {"--flush-at", std::to_string(uniform(5, 20) / 10.0)});
            if (uniform(0, 3) == 0) args.insert(args.end(), {"--stop-at", std::to_string(uniform(5, 20) / 10.0)});
            if (uniform(0, 3) == 0) args.push_back("--no-drain");
            c.pid = Spawn(args, dir.File(c.name + ".log"));
            ASSERT_GT(c.pid, 0);
            clients.push_back(c);
            byName[c.name] = &clients.back();
        } else if (dice < 36 && running(true) < 2) {
            // A record name is free again once its last queue is gone.
            const char* name = kRecordNames[uniform(0, 2)];
            bool busy = Exists("/dev/shm/mixer-" + std::string(name));
            for (const Client& c : clients) busy = busy || (c.pid > 0 && c.name == name);
            if (!busy) {
                Client c;
                c.name = name;
                c.record = true;
                c.pid = Spawn({MIXER_REC_PATH, "--name", name, dir.File(c.name + ".wav"), "--seconds",
                               std::to_string(uniform(1, 5)), "--rate", uniform(0, 1) ? "16000" : "48000",
                               "--channels", std::to_string(uniform(1, 2)), "--quiet"},
                              dir.File("rec-" + std::to_string(recorders++) + ".log"));
                ASSERT_GT(c.pid, 0);
                clients.push_back(c);
                byName[c.name] = &clients.back();
            }
        } else if (dice < 56) {
            if (Client* c = pick(false)) kill9(*c);
        } else if (dice < 68) {
            if (Client* c = pick(false)) {
                kill(c->pid, SIGSTOP);
                c->stopped = true;
                c->wakeAt = now + std::chrono::milliseconds(uniform(200, 2000));
                c->killOnWake = uniform(0, 2) == 0;
                ++stoppedCount;
            }
        } else if (dice < 74) {
            const int r = uniform(0, 2);
            std::string request = r == 0 ? "status" : r == 1 ? "volume chaos " + std::to_string(uniform(0, 60))
                                                                  : "mic " + std::string(uniform(0, 3) ? "on" : "off");
            EXPECT_EQ(Ctl(request), 0) << request << ": " << Slurp(dir.File("ctl.log"));
            ++commands;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(uniform(20, 250)));  // the chaos's own pace
    }
    EXPECT_EQ(Ctl("mic on"), 0);

    // The end of the chaos: every client that is left is killed once it has announced
    // itself (or has ended by itself: its pidfd says so).
    for (Client& c : clients) {
        if (c.pid <= 0) continue;
        if (c.stopped) kill(c.pid, SIGCONT);
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, c.pid, 0));
        ASSERT_GE(pidfd, 0) << std::strerror(errno);
        pollfd fds[2] = {{in, POLLIN, 0}, {pidfd, POLLIN, 0}};
        for (;;) {
            TakeEvents(in, byName);
            if (c.announced || poll(&fds[1], 1, 0) == 1) break;
            ASSERT_GT(poll(fds, 2, 30000), 0) << c.name << " never announced itself";
        }
        close(pidfd);
        kill9(c);
        waitpid(c.pid, nullptr, 0);
        c.pid = -1;
    }
    std::printf("soak: %d players, %d recorders, %d kills, %d stops, %d commands\n", started, recorders, killed,
                stoppedCount, commands);
    std::fflush(stdout);

    // Their streams go: the daemon has announced the end of every stream but the
    // reference's, and only the reference's description file is left.
    ASSERT_TRUE(test::WaitFor(in, [&] {
        const std::string text = Slurp(log);
        return CountOf(text, "Event:MixerStreamRemoved ") + 1 == CountOf(text, "Event:MixerStreamAdded ") &&
               test::DirNames(kStreamDir) == std::set<std::string>{"reference"};
    })) << "left in " << kStreamDir << ": " << Joined(test::DirNames(kStreamDir)) << "; seed " << seed << "\n"
        << Diagnosis(daemon.pid(), log);
    EXPECT_EQ(OpenFds(daemon.pid()), fdsBefore) << "the daemon's descriptors; seed " << seed;
    const long rssEnd = VmRssKb(daemon.pid());
    ASSERT_GT(rssBase, 0);
    std::printf("soak: daemon VmRSS %ld kB after warm-up, %ld kB at the end\n", rssBase, rssEnd);
    EXPECT_LE(rssEnd, rssBase + 2048 + rssBase / 20) << "the daemon grew; seed " << seed;
    std::vector<std::string> shmLeft = test::Added(shmBefore, test::ShmObjects());
    EXPECT_EQ(shmLeft, std::vector<std::string>{"mixer-reference"}) << "seed " << seed;

    // The reference plays to its end (at most twice its length in daemon time).
    ASSERT_TRUE(test::WaitFor(in, [] { return !Exists(kStreamDir + "/reference"); },
                              static_cast<int>(refSeconds * 2 * 1000) + 30000))
        << Slurp(log);
    EXPECT_EQ(test::WaitExit(refPid), 0) << Slurp(dir.File("reference.log"));
    close(in);
    EXPECT_EQ(daemon.Stop(), 0) << Slurp(log);
    shmLeft = test::Added(shmBefore, test::ShmObjects());
    EXPECT_TRUE(shmLeft.empty()) << "left in /dev/shm: " << shmLeft.front();

    // The reference in the output, in 20-ms periods: from its first to its last loud
    // period, no run of more than one quiet period.
    test::WavTrack wav;
    ASSERT_TRUE(wav.Load(out));
    const size_t w = 960, windows = wav.left.size() / w;
    std::vector<double> a(windows);
    for (size_t i = 0; i < windows; ++i) a[i] = wav.ToneAmplitude(i * w, w, 440);
    const double peak = *std::max_element(a.begin(), a.end());
    size_t first = windows, last = 0;
    for (size_t i = 0; i < windows; ++i)
        if (a[i] > peak / 4) {
            first = std::min(first, i);
            last = i;
        }
    ASSERT_LT(first, windows) << "the reference is not in the output";
    std::vector<double> loud(a.begin() + first, a.begin() + last + 1);
    std::nth_element(loud.begin(), loud.begin() + loud.size() / 2, loud.end());
    const double level = loud[loud.size() / 2];
    EXPECT_GT(level, 2000) << "the reference is too quiet";
    // The engine may take two frames of the reference into one period when a stream
    // behind it ends, so its length in the output can come out a little short.
    EXPECT_GT((last - first + 1) * 0.02, refSeconds * 0.8) << "the reference was cut short";
    size_t longest = 0, run = 0, where = 0;
    for (size_t i = first; i <= last; ++i) {
        run = a[i] < level / 4 ? run + 1 : 0;
        if (run > longest) {
            longest = run;
            where = i;
        }
    }
    EXPECT_LE(longest, 1u) << "a gap of " << longest * 20 << " ms ending at " << where * 0.02 << " s of "
                           << out << "; seed " << seed;
}

}  // namespace
}  // namespace mixer
