// Attacks on mixerd by a hostile local client (tests/attack/HostileClient.cpp) while a
// reference stream plays. After each, the daemon is alive and answers, the reference
// lost at most one period, the daemon stops on SIGTERM, and nothing is left behind.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "tests/support/Mixerd.h"

using namespace mixer::test;

namespace {

struct AttackCase {
    const char* mode;
    const char* arg;  // the hostile client's ARG
    // What the daemon logs once the attack has cost the attacker its stream (or was
    // refused); empty: the attacker has no stream, and its own exit status tells.
    const char* outcome;
    bool strike;  // the attacker strikes once the daemon has taken its stream
};
void PrintTo(const AttackCase& c, std::ostream* os) { *os << c.mode << " " << c.arg; }

class Attack : public testing::TestWithParam<AttackCase> {};

}  // namespace

TEST_P(Attack, CostsTheAttackerAloneAndLeavesNothing) {
    const AttackCase c = GetParam();
    Mixerd d;
    ASSERT_TRUE(d.ready) << Slurp(d.log);
    ASSERT_EQ(d.Ctl("speaker 52"), 0) << d.said;
    auto inLog = [&](const std::string& what) { return Slurp(d.log).find(what) != std::string::npos; };
    const std::string ref = d.dir.File("ref.wav");
    ASSERT_TRUE(WriteSine(ref, 48000, 2, 440, 8000, 60) && WriteSine(d.dir.File("short.wav"), 48000, 2, 300, 100, 1));
    const pid_t refPid = Spawn(MIXER_PLAY_PATH " --name reference --meta music --blocks 64 " + ref, d.dir.File("r"));
    ASSERT_TRUE(Eventually([&] { return inLog("MixerStreamAdded 'reference'"); })) << Slurp(d.log);

    const pid_t attacker = Spawn(std::string(HOSTILE_CLIENT_PATH " ") + c.mode + " attacker " + c.arg, d.dir.File("a"));
    if (c.strike) {
        ASSERT_TRUE(Eventually([&] { return inLog("MixerStreamAdded 'attacker'"); }, 10000)) << Slurp(d.dir.File("a")) << Slurp(d.log);
        kill(attacker, SIGUSR1);
    }
    EXPECT_TRUE(Eventually([&] { return Slurp(d.dir.File("a")).find("attacking") != std::string::npos; }, 10000))
        << Slurp(d.dir.File("a"));
    if (c.mode == std::string("hijack")) {  // a client plays "victim" while the attacker lies in wait
        const pid_t v = Spawn(MIXER_PLAY_PATH " --name victim --meta music " + ref.substr(0, ref.rfind('/')) + "/short.wav",
                              d.dir.File("v"));
        WaitExit(v, 20000);
        // Whoever wrote the description file first, no other user's announcement of the
        // victim's queue (another format) reached an engine.
        const std::string log = Slurp(d.log);
        const size_t posted = log.find("AddNewStream:victim posted");
        EXPECT_TRUE(posted == std::string::npos || log.compare(log.rfind("AddNewStream:victim name", posted), 60,
                                                               "AddNewStream:victim name victim type dataTrans 48000 Hz 2 ch") == 0) << log;
    }
    if (*c.outcome) {
        EXPECT_TRUE(Eventually([&] { return inLog(c.outcome); }, 10000)) << Slurp(d.log);
    }
    // While the attacker is still at it (stopped, trickling), the daemon answers.
    EXPECT_EQ(d.Ctl("status"), 0) << d.said;
    kill(attacker, SIGCONT);
    kill(attacker, SIGTERM);
    EXPECT_EQ(WaitExit(attacker, 10000), 0) << Slurp(d.dir.File("a"));

    // The reference plays on for another second of output, then ends as a killed client
    // does; then the daemon stops and leaves nothing.
    EXPECT_TRUE(d.PlaysOn(48000 * 4, 10000));
    kill(refPid, SIGKILL);
    EXPECT_EQ(WaitExit(refPid), -SIGKILL);
    // (A shared-buffer stream ends by its silence, seconds later; its file goes then, or at the stop.)
    EXPECT_TRUE(Eventually([] { return DirNames("/dev/shm").empty(); }, 10000)) << testing::PrintToString(DirNames("/dev/shm"));
    EXPECT_EQ(d.Stop(), 0) << Slurp(d.log);
    EXPECT_TRUE(DirNames("/dev/shm").empty() && !Exists(kStreamDir) && !Exists(d.sock));

    // From its first loud period to its last, the reference missed at most one.
    SF_INFO info{};
    const std::vector<double> a = Tone(ReadWav(d.out, info), 440);
    std::vector<size_t> loud;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] > 2000) loud.push_back(i);
    ASSERT_GT(loud.size(), 10u) << "the reference is not in the output";
    EXPECT_LE(loud.back() - loud.front() + 1 - loud.size(), 1u) << Slurp(d.log);
}

INSTANTIATE_TEST_SUITE_P(
    Clients, Attack,
    testing::Values(AttackCase{"shmb-size", "", "MixerStreamRemoved 'attacker'", true},
                    AttackCase{"shmq-capacity", "", "MixerStreamRemoved 'attacker'", true},
                    AttackCase{"shmq-readpos", "", "MixerStreamRemoved 'attacker'", true},
                    AttackCase{"shmq-stop", "", "", true},
                    AttackCase{"shmb-stop", "", "", true},
                    AttackCase{"cond-lock", "", "MixerStreamRemoved 'attacker'", true},
                    AttackCase{"shrink", "", "MixerStreamRemoved 'attacker'", true},
                    AttackCase{"huge", "60000", "queue too large", false},
                    AttackCase{"trickle", "", "", false},
                    AttackCase{"volume-flood", "2000", "refused: 64 types have a volume already", false},
                    AttackCase{"hijack", "victim", "", false}),
    [](const testing::TestParamInfo<AttackCase>& i) { return std::regex_replace(i.param.mode, std::regex("-"), ""); });
