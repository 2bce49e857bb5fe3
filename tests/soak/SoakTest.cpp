// mixerd for a while under client chaos: a steady reference client plays a sine the
// whole time while many other clients start, pause, flush, drain, stop, record, and are
// killed or stopped and continued at random. Afterwards the reference must have played
// without a gap and the daemon must hold no more than it held before: no shared memory,
// description files, descriptors or memory of the clients that are gone.
// MIXER_SOAK_SECONDS: length of the chaos (default 90); MIXER_SOAK_SEED: the random seed
// (printed, so that a failing run can be replayed).

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "tests/support/Mixerd.h"

namespace mixer {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;

unsigned EnvOr(const char* name, unsigned fallback) {
    const char* v = std::getenv(name);
    return v && *v ? static_cast<unsigned>(std::strtoul(v, nullptr, 10)) : fallback;
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

long VmRssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 6, "VmRSS:") == 0) return std::atol(line.c_str() + 6);
    return -1;
}

// Where each of the daemon's threads waits in the kernel, and the end of its log: what
// a failure needs to tell a stuck daemon from a slow one.
std::string Diagnosis(pid_t pid, const std::string& log) {
    std::string text = "daemon threads:\n";
    const std::string task = "/proc/" + std::to_string(pid) + "/task/";
    for (const std::string& tid : DirNames(task))
        text += tid + " in " + Slurp(task + tid + "/wchan") + ": " + Slurp(task + tid + "/comm");
    const std::string all = Slurp(log);
    return text + "end of the daemon's log:\n" + all.substr(all.size() - std::min<size_t>(all.size(), 4000));
}

struct Client {
    pid_t pid;
    std::string name;
    bool record;
    bool announced = false;  // its description file is whole: killing it now is fair
    bool stopped = false, killOnWake = false;
    Clock::time_point wakeAt{};  // while stopped: when it is continued (or killed)
};

TEST(SoakTest, TheReferencePlaysOnAndNothingLeaksWhileClientsAreKilledAndStopped) {
    // Only inside the private namespace: the daemon removes /var/run/mixer at exit.
    ASSERT_STREQ(getenv("MIXER_PRIVATE_RUN"), "1") << "run through CTest (private /run and /dev/shm)";
    const unsigned chaosSeconds = EnvOr("MIXER_SOAK_SECONDS", 90), seed = EnvOr("MIXER_SOAK_SEED", 20261122);
    std::printf("soak: %u s of chaos, seed %u (MIXER_SOAK_SEED=%u replays it)\n", chaosSeconds, seed, seed);
    std::fflush(stdout);
    std::mt19937 rng(seed);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    auto tenths = [&](int lo, int hi) { return std::to_string(uniform(lo, hi) / 10.0); };

    // ASan keeps freed memory out of use until its quarantine (256 MB by default) is
    // full: the daemon, which inherits this, would seem to grow by all it ever freed.
    const char* asan = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", ((asan && *asan ? std::string(asan) + ":" : "") + "quarantine_size_mb=1").c_str(), 1);
    Mixerd d;
    ASSERT_TRUE(d.ready) << Slurp(d.log);
    auto inLog = [&](const std::string& what) { return Count(Slurp(d.log), what); };
    auto fds = [&] { return DirNames("/proc/" + std::to_string(d.pid) + "/fd").size(); };

    // The WAV output runs at half speed: the reference's sound lasts half the run, plus a
    // few seconds that it plays on after the chaos. The chaos plays at -66 dB, at another
    // frequency and rate.
    const double refSeconds = (chaosSeconds + 4) / 2.0 + 4;
    const std::string ref = d.dir.File("ref.wav"), quiet48 = d.dir.File("q48.wav"), quiet22 = d.dir.File("q22.wav");
    ASSERT_TRUE(WriteSine(ref, 48000, 2, 440, 8000, refSeconds));
    ASSERT_TRUE(WriteSine(quiet48, 48000, 2, 300, 16, 4.0) && WriteSine(quiet22, 22050, 1, 300, 16, 3.0));
    // Its queue holds 1.28 s of sound, 2.5 s of the daemon's time, so a client that the
    // machine delays for a moment does not run dry.
    std::vector<Client> clients;
    pid_t refPid = Spawn({MIXER_PLAY_PATH, ref, "--name", "reference", "--meta", "music", "--blocks", "64", "--quiet"},
                         d.dir.File("reference.log"));
    struct KillAll {  // no client is left behind, stopped or blocked, when the test ends early
        std::vector<Client>& c;
        pid_t& ref;
        ~KillAll() {
            for (Client& x : c)
                if (x.pid > 0) kill(x.pid, SIGKILL), waitpid(x.pid, nullptr, 0);
            if (ref > 0) kill(ref, SIGKILL), waitpid(ref, nullptr, 0);
        }
    } killAll{clients, refPid};
    ASSERT_TRUE(Eventually([&] { return inLog("MixerStreamAdded 'reference'") == 1; })) << Slurp(d.log);
    const size_t fdsBefore = fds();

    int started = 0, recorders = 0, killed = 0, stops = 0, commands = 0;
    auto kill9 = [&](Client& c) { kill(c.pid, SIGKILL), ++killed; };
    // Reaps a client that has ended; notes that one has announced itself (7 lines).
    auto alive = [&](Client& c) {
        if (c.pid > 0 && waitpid(c.pid, nullptr, WNOHANG) == c.pid) c.pid = -1;
        const std::string file = c.pid > 0 && !c.announced ? Slurp(kStreamDir + "/" + c.name) : "";
        c.announced = c.announced || std::count(file.begin(), file.end(), '\n') >= 7;
        return c.pid > 0;
    };

    const Clock::time_point start = Clock::now(), end = start + std::chrono::seconds(chaosSeconds);
    long rssBase = -1;
    for (Clock::time_point now = start; now < end; now = Clock::now()) {
        int players = 0, recording = 0;
        std::vector<Client*> awake;
        for (Client& c : clients) {
            if (!alive(c)) continue;
            if (c.stopped && now >= c.wakeAt) {
                if (c.killOnWake) kill9(c);
                kill(c.pid, SIGCONT);
                c.stopped = false;
            }
            ++(c.record ? recording : players);
            if (c.announced && !c.stopped) awake.push_back(&c);
        }
        if (rssBase < 0 && now >= start + std::chrono::seconds(chaosSeconds / 4)) rssBase = VmRssKb(d.pid);

        const int dice = uniform(0, 99);
        Client* victim = awake.empty() ? nullptr : awake[uniform(0, static_cast<int>(awake.size()) - 1)];
        if (dice < 30 && players < 8) {
            const std::string name = "chaos" + std::to_string(started++);
            std::vector<std::string> args = {MIXER_PLAY_PATH, uniform(0, 1) ? quiet48 : quiet22, "--name", name,
                                             "--meta", "chaos", "--quiet", "--blocks", std::to_string(uniform(2, 16))};
            // Never before half a second: the daemon must have the stream by then, or a
            // client that ends on its own would leave its queue to nobody.
            if (uniform(0, 2) == 0)
                args.insert(args.end(), {"--pause-at", tenths(5, 15), "--pause-for", std::to_string(uniform(100, 800))});
            if (uniform(0, 3) == 0) args.insert(args.end(), {"--flush-at", tenths(5, 20)});
            if (uniform(0, 3) == 0) args.insert(args.end(), {"--stop-at", tenths(5, 20)});
            if (uniform(0, 3) == 0) args.push_back("--no-drain");
            clients.push_back({Spawn(args, d.dir.File(name + ".log")), name, false});
            ASSERT_GT(clients.back().pid, 0);
        } else if (dice < 36 && recording < 2) {
            // A record name is free again once its last queue and description file are gone.
            const std::string name = std::vector<std::string>{"micRaw", "micAsr", "micHfp"}[uniform(0, 2)];
            bool busy = Exists("/dev/shm/mixer-" + name) || Exists(kStreamDir + "/" + name);
            for (const Client& c : clients) busy = busy || (c.pid > 0 && c.name == name);
            if (!busy) {
                clients.push_back({Spawn({MIXER_REC_PATH, "--name", name, d.dir.File(name + ".wav"), "--seconds",
                                          std::to_string(uniform(1, 5)), "--rate", uniform(0, 1) ? "16000" : "48000",
                                          "--channels", std::to_string(uniform(1, 2)), "--quiet"},
                                         d.dir.File("rec" + std::to_string(recorders++) + ".log")),
                                   name, true});
                ASSERT_GT(clients.back().pid, 0);
            }
        } else if (dice < 56) {
            if (victim) kill9(*victim);
        } else if (dice < 68) {
            if (victim) {
                kill(victim->pid, SIGSTOP);
                victim->stopped = true, victim->killOnWake = uniform(0, 2) == 0, ++stops;
                victim->wakeAt = now + std::chrono::milliseconds(uniform(200, 2000));
            }
        } else if (dice < 74) {
            const int r = uniform(0, 2);
            const std::string request = r == 0   ? "status"
                                        : r == 1 ? "volume chaos " + std::to_string(uniform(0, 60))
                                                 : std::string("mic ") + (uniform(0, 3) ? "on" : "off");
            std::string said;
            EXPECT_EQ(d.Ctl(request, &said), 0) << request << ": " << said;
            ++commands;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(uniform(20, 250)));  // the chaos's own pace
    }
    EXPECT_EQ(d.Ctl("mic on"), 0);

    // The end of the chaos: every client that is left is killed once it has announced
    // itself (or has ended by itself).
    for (Client& c : clients) {
        if (c.pid > 0 && c.stopped) kill(c.pid, SIGCONT);
        ASSERT_TRUE(Eventually([&] { return !alive(c) || c.announced; })) << c.name << " never announced itself";
        if (c.pid > 0) kill9(c), waitpid(c.pid, nullptr, 0), c.pid = -1;
    }
    std::printf("soak: %d players, %d recorders, %d kills, %d stops, %d commands\n", started, recorders, killed,
                stops, commands);

    // Their streams go: the daemon has announced the end of every stream but the
    // reference's, and holds only its description file, queue and descriptors.
    const std::set<std::string> onlyRef = {"reference"}, onlyRefQueue = {"mixer-reference"};
    ASSERT_TRUE(Eventually([&] {
        return inLog("MixerStreamRemoved '") + 1 == inLog("MixerStreamAdded '") && DirNames(kStreamDir) == onlyRef &&
               ShmObjects() == onlyRefQueue && fds() == fdsBefore;
    })) << "files:" << Joined(DirNames(kStreamDir)) << "; queues:" << Joined(ShmObjects()) << "; " << fds()
        << " descriptors, " << fdsBefore << " before; seed " << seed << "\n"
        << Diagnosis(d.pid, d.log);
    const long rssEnd = VmRssKb(d.pid);
    ASSERT_GT(rssBase, 0);
    std::printf("soak: daemon VmRSS %ld kB after warm-up, %ld kB at the end\n", rssBase, rssEnd);
    EXPECT_LE(rssEnd, rssBase + 2048 + rssBase / 20) << "the daemon grew; seed " << seed;

    // The reference plays to its end (at most twice its length in daemon time).
    ASSERT_TRUE(Eventually([] { return !Exists(kStreamDir + "/reference"); }, int(refSeconds * 2000) + 30000))
        << Slurp(d.log);
    EXPECT_EQ(WaitExit(std::exchange(refPid, -1)), 0) << Slurp(d.dir.File("reference.log"));
    EXPECT_EQ(d.Stop(), 0) << Slurp(d.log);
    EXPECT_TRUE(ShmObjects().empty()) << "left in /dev/shm:" << Joined(ShmObjects());

    // The reference in the output, in 20-ms periods: from its first to its last loud
    // period, no run of more than one quiet period.
    WavTrack wav;
    ASSERT_TRUE(wav.Load(d.out));
    const std::vector<double> a = wav.Tone(440);
    const auto [first, last] = LoudSpan(a, *std::max_element(a.begin(), a.end()) / 4);
    ASSERT_LT(first, a.size()) << "the reference is not in the output";
    const double level = Median(a, first, last + 1);
    EXPECT_GT(level, 2000) << "the reference is too quiet";
    // The engine may take two frames of the reference into one period when a stream
    // behind it ends, so its length in the output can come out a little short.
    EXPECT_GT((last - first + 1) * 0.02, refSeconds * 0.8) << "the reference was cut short";
    size_t longest = 0, run = 0, where = 0;
    for (size_t i = first; i <= last; ++i)
        if ((run = a[i] < level / 4 ? run + 1 : 0) > longest) longest = run, where = i;
    EXPECT_LE(longest, 1u) << "a gap of " << longest * 20 << " ms ending at " << where * 0.02 << " s; seed " << seed;
}

}  // namespace
}  // namespace mixer
