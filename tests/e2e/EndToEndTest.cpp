// The whole system: mixerd with the WAV output and the tone microphone, two mixer-play
// clients (music, and a focused prompt at another rate and channel count), mixerctl.

#include <gtest/gtest.h>

#include "tests/support/Mixerd.h"

namespace mixer {
namespace {

using namespace test;

TEST(EndToEndTest, MusicDucksUnderAFocusedPromptWithoutClicksAndTheDaemonLeavesNothingBehind) {
    // Only inside the private namespace: the daemon removes /var/run/mixer at exit.
    ASSERT_STREQ(getenv("MIXER_PRIVATE_RUN"), "1") << "run through CTest (private /run and /dev/shm)";
    Mixerd d;
    ASSERT_TRUE(d.ready) << Slurp(d.log);
    const std::string music = d.dir.File("music.wav"), prompt = d.dir.File("prompt.wav");
    ASSERT_TRUE(WriteSine(music, 48000, 2, 440, 8000, 4.0));
    ASSERT_TRUE(WriteSine(prompt, 22050, 1, 1000, 8000, 1.2));
    std::string said;
    ASSERT_EQ(d.Ctl("focus prompt", &said), 0) << said;
    EXPECT_EQ(d.Ctl("volume", &said), 1);  // refused, the daemon lives on
    EXPECT_NE(said.find("usage: volume TYPE PERCENT"), std::string::npos) << said;

    auto play = [&](const std::string& file, const std::string& name, const std::string& meta) {
        return Spawn({MIXER_PLAY_PATH, file, "--name", name, "--meta", meta, "--quiet"}, d.dir.File(name + ".log"));
    };
    auto outBytes = [&] { return static_cast<long>(std::ifstream(d.out, std::ios::ate).tellg()); };
    const pid_t musicPid = play(music, "music1", "music");
    ASSERT_TRUE(Eventually([] { return Exists(kStreamDir + "/music1"); })) << Slurp(d.log);
    // A second of sound reaches the output after the music came before the prompt starts.
    const long musicAt = outBytes();
    ASSERT_TRUE(Eventually([&] { return outBytes() > musicAt + 48000 * 4; })) << Slurp(d.log);
    const pid_t promptPid = play(prompt, "prompt1", "prompt");
    // The daemon takes the new stream on its own threads: ask until it reports both.
    ASSERT_TRUE(Eventually([&] {
        bool all = d.Ctl("status", &said) == 0;
        for (const char* s : {"\tmusic\t", "\tmusic1\n", "\tprompt\t", "\tprompt1\n"})
            all = all && said.find(s) != std::string::npos;
        return all;
    })) << said;
    EXPECT_NE(said.find("State info Mixer_Record:"), std::string::npos) << said;

    EXPECT_EQ(WaitExit(promptPid), 0) << Slurp(d.dir.File("prompt1.log"));
    EXPECT_EQ(WaitExit(musicPid), 0) << Slurp(d.dir.File("music1.log"));
    EXPECT_TRUE(Eventually([] { return DirNames(kStreamDir).empty(); })) << "left:" << Joined(DirNames(kStreamDir));
    EXPECT_EQ(d.Stop(), 0) << Slurp(d.log);
    EXPECT_FALSE(Exists(d.sock));
    EXPECT_FALSE(Exists(kStreamDir));
    EXPECT_TRUE(ShmObjects().empty()) << "left in /dev/shm:" << Joined(ShmObjects());

    // The output, in 20-ms windows.
    WavTrack wav;
    ASSERT_TRUE(wav.Load(d.out));
    ASSERT_EQ(wav.rate, 48000);
    ASSERT_EQ(wav.channels, 2);
    const std::vector<double> m = wav.Tone(440), p = wav.Tone(1000);
    const auto [first, last] = LoudSpan(p, 2000);
    ASSERT_LT(first, p.size()) << "the prompt is not in the output";
    EXPECT_NEAR((last - first + 1) * 0.02, 1.2, 0.15) << "prompt length";
    ASSERT_GT(first, 25u) << "the prompt started before the music was heard";
    ASSERT_LT(last + 40, m.size()) << "the music ended with the prompt";
    const double before = Median(m, first - 25, first - 2), during = Median(m, first + 20, last - 1),
                 after = Median(m, last + 20, last + 40);  // during: after the 250-ms ramp
    EXPECT_GT(before, 4000) << "music missing before the prompt";
    EXPECT_GT(*std::max_element(p.begin(), p.end()), 4000) << "prompt too quiet";
    EXPECT_LE(20 * std::log10(during / before), -12.0) << "music not ducked: " << before << " -> " << during;
    EXPECT_NEAR(20 * std::log10(after / before), 0.0, 3.0) << "music did not come back: " << after;

    // No click: no step between neighbouring samples beyond what the two sines can make.
    size_t where = 0;
    const int step = wav.MaxStep(&where);
    EXPECT_LE(step, 1.25 * 8000 * 2 * M_PI * (440.0 + 1000.0) / 48000) << "click at " << where / 48000.0 << " s";
}

}  // namespace
}  // namespace mixer
