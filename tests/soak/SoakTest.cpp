// mixerd under client chaos: a reference client plays a sine all along while others start,
// pause, flush, drain, stop, record, and are killed or stopped and continued at random. The
// reference must play without a gap, and the daemon must end up holding no more shared
// memory, description files, descriptors or memory than before.

#include <gtest/gtest.h>

#include <random>

#include "tests/support/Mixerd.h"

namespace mixer {
namespace {

using namespace test;

// announced: its description file is whole, so killing it is fair (the daemon has its pid).
struct Client {
    pid_t pid;
    std::string name;
    bool record, announced = false, stopped = false;
};

TEST(SoakTest, TheReferencePlaysOnAndNothingLeaksWhileClientsAreKilledAndStopped) {
    auto env = [](const char* name, int fallback) { return getenv(name) ? atoi(getenv(name)) : fallback; };
    const int chaosSeconds = env("MIXER_SOAK_SECONDS", 90), seed = env("MIXER_SOAK_SEED", 20261122);
    std::printf("soak: %d s of chaos, seed %d (MIXER_SOAK_SEED=%d replays it)\n", chaosSeconds, seed, seed);
    std::mt19937 rng(seed);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    auto num = [&](int lo, int hi) { return " " + std::to_string(uniform(lo, hi)); };
    auto tenths = [&](int lo, int hi) { return " " + std::to_string(uniform(lo, hi) / 10.0); };
    // A small ASan quarantine: with the default 256 MB, the daemon (which inherits this)
    // would seem to grow by all it ever freed.
    const std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS", (asan + ":quarantine_size_mb=1").c_str(), 1);
    Mixerd d;
    ASSERT_TRUE(d.ready) << "run through CTest: " << Slurp(d.log);
    auto inLog = [&](const std::string& what) {  // how often what is in the daemon's log
        const std::string log = Slurp(d.log);
        size_t n = 0;
        for (size_t at = log.find(what); at != std::string::npos; at = log.find(what, at + 1)) ++n;
        return n;
    };
    const std::string proc = "/proc/" + std::to_string(d.pid);
    auto fds = [&] { return DirNames(proc + "/fd").size(); };
    auto rssKb = [&] {  // statm: the size, then the resident size, in pages
        long size = 0, resident = -1;
        std::ifstream(proc + "/statm") >> size >> resident;
        return resident * sysconf(_SC_PAGESIZE) / 1024;
    };

    // The WAV output runs at half speed: the reference lasts half the run, and plays on for
    // a while after the chaos. The chaos plays at -66 dB, at another tone and rate.
    const double refSeconds = (chaosSeconds + 4) / 2.0 + 4;
    const std::string ref = d.dir.File("ref.wav"), quiet[] = {d.dir.File("q48.wav"), d.dir.File("q22.wav")};
    ASSERT_TRUE(WriteSine(ref, 48000, 2, 440, 8000, refSeconds) && WriteSine(quiet[0], 48000, 2, 300, 16, 4.0) &&
                WriteSine(quiet[1], 22050, 1, 300, 16, 3.0));
    // Its queue holds 1.28 s of sound, 2.5 s of the daemon's time: a client that the
    // machine delays for a moment does not run dry.
    const pid_t refPid = Spawn(MIXER_PLAY_PATH " --name reference --meta music --blocks 64 --quiet " + ref,
                               d.dir.File("reference.log"));
    ASSERT_TRUE(Eventually([&] { return inLog("MixerStreamAdded 'reference'") == 1; })) << Slurp(d.log);
    const size_t fdsBefore = fds();

    std::vector<Client> clients;
    int players = 0, recorders = 0, kills = 0, stops = 0;
    auto kill9 = [&](Client& c) { kill(c.pid, SIGKILL), ++kills; };
    auto alive = [&](Client& c) {  // reaps a client that has ended; notes one that has announced itself
        if (c.pid > 0 && waitpid(c.pid, nullptr, WNOHANG) == c.pid) c.pid = -1;
        const std::string file = c.pid > 0 && !c.announced ? Slurp(kStreamDir + "/" + c.name) : "";
        c.announced = c.announced || std::count(file.begin(), file.end(), '\n') == 7;
        return c.pid > 0;
    };
    const auto start = std::chrono::steady_clock::now(), end = start + std::chrono::seconds(chaosSeconds);
    long rssBase = -1;
    for (auto now = start; now < end; now = std::chrono::steady_clock::now()) {
        int playing = 0, recording = 0;
        std::vector<Client*> awake;
        for (Client& c : clients) {
            if (!alive(c)) continue;
            if (c.stopped && uniform(0, 7) == 0) {  // stopped for about a second, then continued or killed
                if (uniform(0, 2) == 0) kill9(c);
                kill(c.pid, SIGCONT), c.stopped = false;
            }
            ++(c.record ? recording : playing);
            if (c.announced && !c.stopped) awake.push_back(&c);
        }
        if (rssBase < 0 && now >= start + std::chrono::seconds(chaosSeconds / 4)) rssBase = rssKb();
        const int dice = uniform(0, 99);
        Client* victim = awake.empty() ? nullptr : awake[uniform(0, static_cast<int>(awake.size()) - 1)];
        if (dice < 30 && playing < 8) {
            // Never before half a second: the daemon must have the stream by then, or a
            // client that ends on its own would leave its queue to nobody.
            const std::string name = "chaos" + std::to_string(players++);
            std::string cmd = MIXER_PLAY_PATH " --meta chaos --quiet --name " + name + " " + quiet[uniform(0, 1)];
            cmd += " --blocks" + num(2, 16);
            if (uniform(0, 2) == 0) cmd += " --pause-at" + tenths(5, 15) + " --pause-for" + num(100, 800);
            if (uniform(0, 3) == 0) cmd += " --flush-at" + tenths(5, 20);
            if (uniform(0, 3) == 0) cmd += " --stop-at" + tenths(5, 20);
            if (uniform(0, 3) == 0) cmd += " --no-drain";
            clients.push_back({Spawn(cmd, d.dir.File(name + ".log")), name, false});
        } else if (dice < 36 && recording < 2) {
            // A record name is free again once its queue and description file are gone.
            const std::string name = std::vector<std::string>{"micRaw", "micAsr", "micHfp"}[uniform(0, 2)];
            bool busy = Exists("/dev/shm/mixer-" + name) || Exists(kStreamDir + "/" + name);
            for (const Client& c : clients) busy = busy || (c.pid > 0 && c.name == name);
            std::string cmd = MIXER_REC_PATH " --quiet --name " + name + " " + d.dir.File(name + ".wav");
            cmd += " --seconds" + num(1, 5) + " --rate " + (uniform(0, 1) ? "16000" : "48000") + " --channels" + num(1, 2);
            if (!busy) clients.push_back({Spawn(cmd, d.dir.File("rec" + std::to_string(recorders++))), name, true});
        } else if (dice < 68 && victim) {
            if (dice < 56) kill9(*victim);
            else kill(victim->pid, SIGSTOP), victim->stopped = true, ++stops;
        } else if (dice < 74) {
            const std::string request[] = {"status", "volume chaos" + num(0, 60), "mic off", "mic on"};
            std::string said;
            EXPECT_EQ(d.Ctl(request[uniform(0, 3)], &said), 0) << said;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(uniform(20, 250)));  // the chaos's own pace
    }
    EXPECT_EQ(d.Ctl("mic on"), 0);
    // Every client that is left is killed once it has announced itself (or has ended).
    for (Client& c : clients) {
        if (c.pid > 0 && c.stopped) kill(c.pid, SIGCONT);
        ASSERT_TRUE(Eventually([&] { return !alive(c) || c.announced; })) << c.name << " never announced itself";
        if (c.pid > 0) kill9(c), waitpid(c.pid, nullptr, 0), c.pid = -1;
    }
    std::printf("soak: %d players, %d recorders, %d kills, %d stops\n", players, recorders, kills, stops);
    EXPECT_GE(2 * inLog("MixerStreamAdded '"), size_t(players + recorders)) << "the chaos did not reach the daemon";

    // The daemon has announced the end of every stream but the reference's, and holds only
    // its description file, queue and descriptors, and no more memory than early on.
    const std::set<std::string> onlyRef = {"reference"}, onlyRefQueue = {"mixer-reference"};
    EXPECT_TRUE(Eventually([&] {
        return inLog("MixerStreamRemoved '") + 1 == inLog("MixerStreamAdded '") && DirNames(kStreamDir) == onlyRef &&
               ShmObjects() == onlyRefQueue && fds() == fdsBefore;
    })) << testing::PrintToString(DirNames(kStreamDir)) << testing::PrintToString(ShmObjects()) << ", " << fds()
        << " descriptors for " << fdsBefore << "; seed " << seed;
    ASSERT_GT(rssBase, 0);
    EXPECT_LE(rssKb(), rssBase + 2048 + rssBase / 20) << "resident kB early in the chaos: " << rssBase;

    // The reference plays to its end (at most twice its length in daemon time).
    ASSERT_TRUE(Eventually([] { return !Exists(kStreamDir + "/reference"); }, int(refSeconds * 2000) + 30000));
    EXPECT_EQ(WaitExit(refPid), 0) << Slurp(d.dir.File("reference.log"));
    EXPECT_EQ(d.Stop(), 0) << Slurp(d.log);
    EXPECT_EQ(ShmObjects(), std::set<std::string>());

    // The reference in the output: from its first to its last loud 20-ms period, no two
    // quiet ones in a row. The engine may take two frames of the reference into one period
    // when a stream behind it ends, so it can come out a little short.
    SF_INFO info;
    const std::vector<double> a = Tone(ReadWav(d.out, info), 440);
    const auto [first, last] = LoudSpan(a, a.empty() ? 0 : *std::max_element(a.begin(), a.end()) / 4);
    ASSERT_LT(first, a.size()) << "the reference is not in the output";
    const double level = Median(a, first, last + 1);
    EXPECT_GT(level, 2000) << "the reference is too quiet";
    EXPECT_GT((last - first + 1) * 0.02, refSeconds * 0.8) << "the reference was cut short";
    for (size_t i = first + 1; i < last; ++i)
        ASSERT_FALSE(a[i] < level / 4 && a[i + 1] < level / 4) << "a gap at " << i * 0.02 << " s; seed " << seed;
}

}  // namespace
}  // namespace mixer
