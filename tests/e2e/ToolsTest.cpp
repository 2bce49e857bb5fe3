// The tools as a user meets them, against a real mixerd (WAV output, tone microphone): every
// failure said at once with the exit status documented, every sound at its level, nothing left.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include "tests/support/Mixerd.h"
using namespace mixer::test;

namespace {
const std::string kPlay = MIXER_PLAY_PATH " --quiet ", kRec = MIXER_REC_PATH " --quiet ", kCtl = MIXERCTL_PATH " ";

struct Case { std::string cmd; int status; std::string says; };  // $D in cmd: the test's directory; says: part of what it prints

void RunAll(Mixerd& d, const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        std::string cmd = c.cmd;
        for (size_t at; (at = cmd.find("$D")) != std::string::npos;) cmd.replace(at, 2, d.dir.Path());
        EXPECT_EQ(d.Run(cmd, 20000), c.status) << cmd << "\n" << d.said;
        EXPECT_NE(d.said.find(c.says), std::string::npos) << cmd << "\n" << d.said;
    }
}

// The peak amplitude of the tone at freq in the output, in 20-ms windows.
double Peak(const Mixerd& d, double freq) {
    SF_INFO info{};
    const std::vector<double> a = Tone(ReadWav(d.out, info), freq);
    return a.empty() ? 0 : *std::max_element(a.begin(), a.end());
}
}  // namespace

TEST(ToolsTest, WithoutTheDaemonEveryToolSaysWhyAtOnce) {
    Mixerd d(false);
    ASSERT_TRUE(WriteSine(d.dir.File("a.wav"), 48000, 1, 440, 8000, 0.2));
    RunAll(d, {
        {kPlay + "$D/a.wav --name a --meta music", 1, "mixerd is not running"},
        {kRec + "--name micRaw $D/r.wav", 1, "mixerd is not running"},
        {kCtl + "status", 2, "mixerd is not running"},
        {kCtl + "help", 0, "get volume TYPE"},
        {kCtl + "volum music 3", 2, "unknown request 'volum'"},
        {kCtl + "speaker 101", 2, "from 0 to 100"},
        {kCtl + "-V", 0, "mixerctl 1."},
        {kPlay + "$D/a.wav --name a --meta music --blocks 0", 2, "from 2 to 256"},
        {kPlay + "$D --name a --meta music", 2, "is a directory"},
        {kRec + "--name micRaw $D/r.mp9", 2, "says no format"},
        {kRec + "--name micRaw $D/r.wav --rate 44056", 2, "a multiple of 50 from 8000 to 96000"},
        {MIXERD_PATH " --output wav --out-file /nonexistent/out.wav --mic tone", 1, "/nonexistent/out.wav"},
    });
    EXPECT_FALSE(Exists(d.dir.File("r.wav")));
}

TEST(ToolsTest, TheDaemonsAnswersReachTheToolsAndSoundPlaysAsItIs) {
    Mixerd d;
    ASSERT_TRUE(d.ready) << "run through CTest: " << Slurp(d.log);
    const double cut = 3000;  // sources of amplitude 3000 in 16-bit steps
    ASSERT_TRUE(WriteSine(d.dir.File("odd.wav"), 11025, 1, 440, cut, 0.2) &&
                WriteSine(d.dir.File("float.wav"), 48000, 2, 440, cut, 0.4, SF_FORMAT_FLOAT) &&
                WriteSine(d.dir.File("double.wav"), 48000, 2, 1000, cut, 0.4, SF_FORMAT_DOUBLE) &&
                WriteSine(d.dir.File("loud.wav"), 48000, 2, 2000, cut / 16, 0.4) &&
                WriteSine(d.dir.File("long.wav"), 48000, 2, 3000, cut, 3.0) &&
                WriteSine(d.dir.File("cut.wav"), 48000, 2, 3000, cut, 0.4));
    ASSERT_EQ(truncate(d.dir.File("cut.wav").c_str(), 44 + 48000 * 4 / 10), 0);
    std::ofstream(d.dir.File("kept.wav")) << "an earlier recording";
    RunAll(d, {
        {kCtl + "speaker 52", 0, ""},
        {kPlay + "$D/odd.wav --name odd --meta music", 1, "rate does not make whole 20-ms frames"},
        {kPlay + "$D/float.wav --name f --meta music", 0, ""},
        {kPlay + "$D/double.wav --name f --meta music", 0, ""},  // the same name right after
        {kCtl + "speaker 100", 0, ""},
        {kPlay + "$D/loud.wav --name l --meta loud", 0, ""},  // a type of its own: not ducked by its stored volume
        {kPlay + "$D/cut.wav --name c --meta music --flush-at 0.1", 0, "cut short"},
        {kCtl + "mic off", 0, ""},
        {kRec + "--name micRaw $D/kept.wav", 1, "the microphone is off (mixerctl mic on)"},
        {kCtl + "mic on", 0, ""},
        {kRec + "--name micAsr $D/r.flac --seconds 0.2", 0, ""},
        {kCtl + "focus prompt", 0, ""},
        {kCtl + "get focus", 0, "prompt"},
        {kCtl + "get speaker", 0, "100"},
        {kCtl + "volume music 30", 0, ""},
        {kCtl + "get volume music", 0, "30"},
        {kCtl + "latency", 1, "the microphone must hear the speaker"},
    });
    EXPECT_EQ(Slurp(d.dir.File("kept.wav")), "an earlier recording");
    SF_INFO flac{};
    SNDFILE* f = sf_open(d.dir.File("r.flac").c_str(), SFM_READ, &flac);
    EXPECT_TRUE(f && (flac.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC) << flac.format;
    if (f) sf_close(f);
    // Float and double at their level; the speaker at 100 is +24 dB (16 times).
    for (double freq : {440.0, 1000.0, 2000.0}) EXPECT_NEAR(Peak(d, freq), cut, cut * 0.12) << freq << " Hz";
    // A recording under way shows in the daemon's view by name; a second one of the name fails
    // without touching its file.
    const pid_t rec = Spawn(kRec + "--name micRaw " + d.dir.File("r1.wav"), d.dir.File("rec"));
    ASSERT_TRUE(Eventually([&] { return d.Ctl("status") == 0 && d.said.find("Record streams: 1\n0\tmicRaw") != std::string::npos; }))
        << d.said;
    EXPECT_TRUE(d.said.find("Speaker volume: 100\nFocus: prompt\n") != std::string::npos) << d.said;
    RunAll(d, {{kRec + "--name micRaw $D/kept.wav", 1, "open already"}});
    EXPECT_EQ(Slurp(d.dir.File("kept.wav")), "an earlier recording");
    kill(rec, SIGINT);
    EXPECT_EQ(WaitExit(rec), 0) << Slurp(d.dir.File("rec"));
    // Interrupted, killed: nothing left, the name free again; the daemon killed: the client says so.
    const std::string longPlay = kPlay + d.dir.File("long.wav") + " --meta music --name ";
    pid_t play = Spawn(longPlay + "k", d.dir.File("p"));
    ASSERT_TRUE(Eventually([] { return Exists(kStreamDir + "/k"); }));
    kill(play, SIGINT);
    EXPECT_EQ(WaitExit(play), 130);
    play = Spawn(longPlay + "k", d.dir.File("p"));
    ASSERT_TRUE(Eventually([] { return Exists(kStreamDir + "/k"); }));
    kill(play, SIGKILL);
    EXPECT_EQ(WaitExit(play), -SIGKILL);
    RunAll(d, {{kPlay + "$D/float.wav --name k --meta music", 0, ""}});
    // A daemon that stops answering (stopped, or dying with its socket still held) or that is gone: a
    // playing client says so and ends within 2 s.
    for (int sig : {SIGSTOP, SIGKILL}) {
        const std::string name = "k" + std::to_string(sig);
        play = Spawn(longPlay + name, d.dir.File("p"));
        ASSERT_TRUE(Eventually([&] { return d.Ctl("status") == 0 && d.said.find("\t" + name + "\t") != std::string::npos; }));
        // Past its opening: its sound reaches the output.
        ASSERT_TRUE(d.PlaysOn(19200));
        if (sig == SIGSTOP) kill(d.pid, SIGSTOP);
        else d.Stop(SIGKILL);
        EXPECT_EQ(WaitExit(play, 2000), 1);
        const std::string said = Slurp(d.dir.File("p"));
        EXPECT_NE(said.find(sig == SIGSTOP ? "mixerd does not answer" : "mixerd has gone"), std::string::npos) << said;
        if (sig == SIGSTOP) kill(d.pid, SIGCONT);
    }
    Mixerd again;  // on what the killed one left
    ASSERT_TRUE(again.ready) << Slurp(again.log);
    EXPECT_EQ(again.Stop(), 0);
    EXPECT_EQ(DirNames("/dev/shm", "mixer-"), std::set<std::string>());
    EXPECT_FALSE(Exists(kStreamDir));
}
