// The whole system: mixerd with the WAV output and the tone microphone, two mixer-play
// clients (music, and a focused prompt at another rate and channel count), mixerctl.
#include <gtest/gtest.h>
#include <numeric>
#include "tests/support/Mixerd.h"
using namespace mixer::test;

TEST(EndToEndTest, MusicDucksUnderAFocusedPromptWithoutClicksAndTheDaemonLeavesNothingBehind) {
    Mixerd d;
    ASSERT_TRUE(d.ready) << "run through CTest: " << Slurp(d.log);
    const std::string music = d.dir.File("music.wav"), prompt = d.dir.File("prompt.wav");
    ASSERT_TRUE(WriteSine(music, 48000, 2, 440, 8000, 4.0) && WriteSine(prompt, 22050, 1, 1000, 8000, 1.2));
    auto said = [&](const char* text) { return d.said.find(text) != std::string::npos; };
    ASSERT_EQ(d.Ctl("focus prompt"), 0) << d.said;
    ASSERT_EQ(d.Ctl("speaker 52"), 0) << d.said;  // unity on the mix: the levels are the sources'
    EXPECT_TRUE(d.Ctl("volume") == 2 && said("usage: volume TYPE PERCENT")) << d.said;  // refused before the daemon
    const pid_t musicPid = Spawn(MIXER_PLAY_PATH " --name music1 --meta music --quiet " + music, d.dir.File("m"));
    ASSERT_TRUE(Eventually([] { return Exists(kStreamDir + "/music1"); })) << Slurp(d.log);
    // A second of sound reaches the output after the music came, before the prompt starts.
    auto outBytes = [&] { return static_cast<long>(std::ifstream(d.out, std::ios::ate).tellg()); };
    const long musicAt = outBytes();
    ASSERT_TRUE(Eventually([&] { return outBytes() > musicAt + 48000 * 4; })) << Slurp(d.log);
    const pid_t promptPid = Spawn(MIXER_PLAY_PATH " --name prompt1 --meta prompt --quiet " + prompt, d.dir.File("p"));
    // The daemon takes the new stream on its own threads: ask until it reports both.
    ASSERT_TRUE(Eventually([&] {
        return d.Ctl("status") == 0 && said("\tmusic\t") && said("\tmusic1\n") && said("\tprompt\t") &&
               said("\tprompt1\n") && said("State info Mixer_Record:");
    })) << d.said;
    EXPECT_EQ(WaitExit(promptPid), 0) << Slurp(d.dir.File("p"));
    EXPECT_EQ(WaitExit(musicPid), 0) << Slurp(d.dir.File("m"));
    EXPECT_TRUE(Eventually([] { return DirNames(kStreamDir).empty(); })) << "description files left";
    EXPECT_EQ(d.Stop(), 0) << Slurp(d.log);
    EXPECT_FALSE(Exists(d.sock) || Exists(kStreamDir));
    EXPECT_EQ(DirNames("/dev/shm", "mixer-"), std::set<std::string>());
    // In 20-ms windows: the music ducks by 12 dB or more under the prompt (after its ramp).
    SF_INFO info{};
    const std::vector<int16_t> out = ReadWav(d.out, info);
    ASSERT_TRUE(info.samplerate == 48000 && info.channels == 2) << info.samplerate << " Hz, " << info.channels;
    const std::vector<double> m = Tone(out, 440), p = Tone(out, 1000);
    size_t first = p.size(), last = 0;
    for (size_t i = 0; i < p.size(); ++i)
        if (p[i] > 2000) first = std::min(first, i), last = i;
    ASSERT_TRUE(25 < first && first <= last && last + 40 < m.size()) << "no prompt amid the music: " << first;
    EXPECT_NEAR((last - first + 1) * 0.02, 1.2, 0.15) << "prompt length";
    auto mean = [&](size_t from, size_t to) { return std::accumulate(&m[from], &m[0] + to, 0.0) / (to - from); };
    const double before = mean(first - 25, first - 2), during = mean(first + 20, last - 1), after = mean(last + 20, last + 40);
    EXPECT_GT(before, 4000) << "music missing before the prompt";
    EXPECT_GT(*std::max_element(p.begin(), p.end()), 4000) << "prompt too quiet";
    EXPECT_LE(20 * std::log10(during / before), -12.0) << "music not ducked: " << before << " -> " << during;
    EXPECT_NEAR(20 * std::log10(after / before), 0.0, 3.0) << "music did not come back: " << after;
    // No click: no step between neighbouring samples beyond what the two sines can make.
    for (size_t i = 2; i < out.size(); ++i)
        ASSERT_LE(std::abs(out[i] - out[i - 2]), 1.25 * 8000 * 2 * M_PI * (440.0 + 1000.0) / 48000)
            << "click at " << i / 2 / 48000.0 << " s";
}
