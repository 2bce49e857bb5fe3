// mixerd under client chaos (clients play, pause, flush, drain, stop, record, and are killed,
// stopped and continued at random) beside a reference, whose sine must play without a gap;
// then the daemon holds no more shared memory, description files, descriptors or memory.
#include <gtest/gtest.h>
#include <random>
#include "tests/support/Mixerd.h"
using namespace mixer::test;

// announced: its description file is whole, so killing it is fair (the daemon has its pid).
struct Client { pid_t pid; std::string name; bool record, announced = false, stopped = false; };

TEST(SoakTest, TheReferencePlaysOnAndNothingLeaksWhileClientsAreKilledAndStopped) {
    auto env = [](const char* name, int fallback) { return getenv(name) ? atoi(getenv(name)) : fallback; };
    const int chaosSeconds = env("MIXER_SOAK_SECONDS", 90), seed = env("MIXER_SOAK_SEED", 20261122);
    std::printf("soak: %d s of chaos, seed %d (MIXER_SOAK_SEED=%d replays it)\n", chaosSeconds, seed, seed);
    std::mt19937 rng(seed);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    auto num = [&](int lo, int hi) { return " " + std::to_string(uniform(lo, hi)); };
    Mixerd d;
    ASSERT_TRUE(d.ready) << "run through CTest: " << Slurp(d.log);
    auto inLog = [&](const std::string& what, size_t n = 0) {  // how often what is in the daemon's log
        const std::string log = Slurp(d.log);
        for (size_t at = 0; (at = log.find(what, at) + 1) != 0;) ++n;
        return n;
    };
    const std::string proc = "/proc/" + std::to_string(d.pid);
    auto fds = [&] { return DirNames(proc + "/fd").size(); };
    auto rssKb = [&] {  // statm: the size, then the resident size, in pages
        long size = 0, resident = -1;
        return std::ifstream(proc + "/statm") >> size >> resident ? resident * sysconf(_SC_PAGESIZE) / 1024 : -1;
    };
    // The WAV output runs at half speed: the reference lasts half the run, and plays on for
    // a while after the chaos. The chaos plays at -66 dB, at another tone and rate.
    const double refSeconds = (chaosSeconds + 4) / 2.0 + 4;
    const std::string ref = d.dir.File("ref.wav"), quiet = d.dir.File("quiet.wav");
    ASSERT_TRUE(WriteSine(ref, 48000, 2, 440, 8000, refSeconds) && WriteSine(quiet, 22050, 1, 300, 16, 3.0));
    // 64 blocks hold 2.5 s of the daemon's time: a reference delayed for a moment does not run dry.
    const pid_t refPid = Spawn(MIXER_PLAY_PATH " --name reference --meta music --blocks 64 " + ref, d.dir.File("r"));
    ASSERT_TRUE(Eventually([&] { return inLog("MixerStreamAdded 'reference'") == 1; })) << Slurp(d.log);
    const size_t fdsBefore = fds();
    std::vector<Client> clients;  // the ones alive
    int players = 0, recorders = 0;
    auto alive = [&](Client& c) {  // notes a client that has announced itself; reaps one that has ended
        const std::string file = c.announced ? "" : Slurp(kStreamDir + "/" + c.name);
        c.announced = c.announced || std::count(file.begin(), file.end(), '\n') == 7;
        return waitpid(c.pid, nullptr, WNOHANG) != c.pid;
    };
    const auto start = std::chrono::steady_clock::now(), end = start + std::chrono::seconds(chaosSeconds);
    long rssBase = -1;
    for (auto now = start; now < end; now = std::chrono::steady_clock::now()) {
        clients.erase(std::remove_if(clients.begin(), clients.end(), [&](Client& c) { return !alive(c); }),
                      clients.end());
        const int recording = std::count_if(clients.begin(), clients.end(), [](const Client& c) { return c.record; });
        if (rssBase < 0 && now >= start + std::chrono::seconds(chaosSeconds / 4)) rssBase = rssKb();
        const int dice = uniform(0, 99);
        Client* victim = clients.empty() ? nullptr : &clients[uniform(0, int(clients.size()) - 1)];
        if (dice < 30 && int(clients.size()) - recording < 8) {
            // Never before 0.5 s: the daemon must have the stream by then, or its queue is left to nobody.
            const char* const extra[] = {"", " --no-drain", " --flush-at 0.7", " --stop-at 1.2", " --pause-at 0.5"};
            const std::string name = "chaos" + std::to_string(players++);
            std::string cmd = MIXER_PLAY_PATH " --meta chaos --quiet --name " + name + " " + quiet;
            cmd += " --blocks" + num(2, 16) + " --pause-for" + num(100, 800) + extra[uniform(0, 4)];
            clients.push_back({Spawn(cmd, d.dir.File(name)), name, false});
        } else if (dice < 36 && recording < 2) {
            // A record name is free again once its queue and description file are gone.
            const std::string name = std::vector<std::string>{"micRaw", "micAsr", "micHfp"}[uniform(0, 2)];
            bool busy = Exists("/dev/shm/mixer-" + name) || Exists(kStreamDir + "/" + name);
            for (const Client& c : clients) busy = busy || c.name == name;
            std::string cmd = MIXER_REC_PATH " --quiet --name " + name + " --seconds" + num(1, 5) + " --channels";
            cmd += num(1, 2) + " --rate " + (uniform(0, 1) ? "16000 " : "48000 ") + d.dir.File(name + ".wav");
            if (!busy) clients.push_back({Spawn(cmd, d.dir.File("rec" + std::to_string(recorders++))), name, true});
        } else if (dice < 68 && victim && victim->announced) {  // killed, or stopped, or continued
            victim->stopped = !victim->stopped && dice >= 56;
            kill(victim->pid, dice < 56 ? SIGKILL : victim->stopped ? SIGSTOP : SIGCONT);
        } else if (dice >= 68 && dice < 74) {
            const std::string request[] = {"status", "volume chaos" + num(0, 60), "mic off", "mic on"};
            EXPECT_EQ(d.Ctl(request[uniform(0, 3)]), 0) << d.said;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(uniform(20, 250)));  // the chaos's own pace
    }
    // The record engine lets go of the streams of dead clients only while the microphone is on.
    EXPECT_EQ(d.Ctl("mic on"), 0);
    for (Client& c : clients) {  // the rest are killed once they have announced themselves (or have ended)
        kill(c.pid, SIGCONT);
        ASSERT_TRUE(Eventually([&] { return !alive(c) || c.announced; })) << c.name << " never announced itself";
        if (waitpid(c.pid, nullptr, WNOHANG) == 0) kill(c.pid, SIGKILL), waitpid(c.pid, nullptr, 0);
    }
    // The daemon has announced the end of every stream but the reference's, and holds only
    // its description file, queue and descriptors, and no more memory than early on.
    const std::set<std::string> onlyRef = {"reference"}, onlyRefQueue = {"mixer-reference"};
    EXPECT_TRUE(Eventually([&] {
        return inLog("MixerStreamRemoved '") + 1 == inLog("MixerStreamAdded '") && DirNames(kStreamDir) == onlyRef &&
               DirNames("/dev/shm", "mixer-") == onlyRefQueue && fds() == fdsBefore;
    })) << testing::PrintToString(DirNames("/dev/shm")) << fds() << " descriptors, " << fdsBefore << " before";
    EXPECT_TRUE(rssBase > 0 && rssKb() <= rssBase + 2048 + rssBase / 20) << rssKb() << " kB resident, " << rssBase;
    // The reference plays to its end (at most twice its length in daemon time).
    ASSERT_TRUE(Eventually([] { return !Exists(kStreamDir + "/reference"); }, int(refSeconds * 2000) + 30000));
    EXPECT_EQ(WaitExit(refPid), 0) << Slurp(d.dir.File("r"));
    EXPECT_EQ(d.Stop(), 0) << Slurp(d.log);
    // The reference in the output: no two quiet 20-ms periods in a row from its first loud one to its last; it may
    // come out a little short, as the engine may take two of its frames into one period when a stream behind it ends.
    SF_INFO info{};
    const std::vector<double> a = Tone(ReadWav(d.out, info), 440);
    const double peak = a.empty() ? 0 : *std::max_element(a.begin(), a.end());
    ASSERT_GT(peak, 2000) << "the reference is not in the output, or too quiet";
    size_t first = a.size(), last = 0;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] > peak / 4) first = std::min(first, i), last = i;
    EXPECT_GT((last - first + 1) * 0.02, refSeconds * 0.8) << "the reference was cut short";
    for (size_t i = first + 1; i < last; ++i)
        ASSERT_FALSE(a[i] < peak / 4 && a[i + 1] < peak / 4) << "a gap at " << i * 0.02 << " s; seed " << seed;
}
