// The whole system: mixerd with the WAV output and the tone microphone, two mixer-play
// clients (music, and a focused prompt at another rate and channel count), mixerctl.
// Runs in a private mount namespace with its own /run and /dev/shm (see CMakeLists.txt).

#include <gtest/gtest.h>

#include <sys/inotify.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/DaemonProcess.h"
#include "tests/e2e/WavAnalysis.h"
#include "tests/host/TempDir.h"

namespace mixer {
namespace {

const char* const kStreamDir = "/var/run/mixer";

using test::Exists;
using test::Slurp;
using test::Spawn;
using test::WaitExit;
using test::WaitFor;

class EndToEndTest : public testing::Test {
protected:
    void SetUp() override {
        // Only inside the private namespace: the daemon removes /var/run/mixer at exit.
        ASSERT_STREQ(getenv("MIXER_PRIVATE_RUN"), "1") << "run through CTest (private /run)";
    }
    test::TempDir dir;
};

TEST_F(EndToEndTest, MusicDucksUnderAFocusedPromptWithoutClicksAndTheDaemonLeavesNothingBehind) {
    const std::string music = dir.File("music.wav"), prompt = dir.File("prompt.wav");
    const std::string out = dir.File("out.wav"), sock = dir.File("ctl.sock");
    ASSERT_TRUE(test::WriteSine(music, 48000, 2, 440, 8000, 4.0));
    ASSERT_TRUE(test::WriteSine(prompt, 22050, 1, 1000, 8000, 1.2));
    std::set<std::string> shmBefore = test::ShmObjects();

    test::DaemonProcess daemon;
    ASSERT_TRUE(daemon.Start({MIXERD_PATH, "--output", "wav", "--out-file", out, "--mic", "tone", "--socket", sock,
                              "--status-file", dir.File("status"), "--log-stderr", "--log-mask", "EWI"},
                             dir.File("mixerd.log")))
        << Slurp(dir.File("mixerd.log"));

    auto ctl = [&](const std::string& request, const std::string& outName) {
        std::vector<std::string> args = {MIXERCTL_PATH, "--socket", sock};
        std::istringstream words(request);
        for (std::string w; words >> w;) args.push_back(w);
        pid_t pid = Spawn(args, dir.File(outName));
        return pid > 0 ? WaitExit(pid) : -1;
    };
    ASSERT_EQ(ctl("focus prompt", "focus.txt"), 0) << Slurp(dir.File("focus.txt"));
    EXPECT_EQ(ctl("volume", "bad.txt"), 1);  // refused, the daemon lives on
    EXPECT_NE(Slurp(dir.File("bad.txt")).find("usage: volume TYPE PERCENT"), std::string::npos);

    int in = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(in, 0);
    ASSERT_GE(inotify_add_watch(in, kStreamDir, IN_CLOSE_WRITE | IN_DELETE), 0);
    ASSERT_GE(inotify_add_watch(in, dir.Path().c_str(), IN_MODIFY | IN_CLOSE_WRITE), 0);

    pid_t musicPid = Spawn({MIXER_PLAY_PATH, music, "--name", "music1", "--meta", "music", "--quiet"},
                           dir.File("music.log"));
    ASSERT_GT(musicPid, 0);
    ASSERT_TRUE(WaitFor(in, [] { return Exists(std::string(kStreamDir) + "/music1"); }));
    // Let a second of music reach the output before the prompt starts.
    struct stat st;
    const off_t second = 44 + 48000 * 2 * 2;
    ASSERT_TRUE(WaitFor(in, [&] { return stat(out.c_str(), &st) == 0 && st.st_size > second; }))
        << Slurp(dir.File("mixerd.log"));

    pid_t promptPid = Spawn({MIXER_PLAY_PATH, prompt, "--name", "prompt1", "--meta", "prompt", "--quiet"},
                            dir.File("prompt.log"));
    ASSERT_GT(promptPid, 0);
    ASSERT_TRUE(WaitFor(in, [] { return Exists(std::string(kStreamDir) + "/prompt1"); }));
    // The daemon takes the new stream on its own threads: ask until it reports both.
    std::string status;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(ctl("status", "status.txt"), 0) << Slurp(dir.File("status.txt"));
        status = Slurp(dir.File("status.txt"));
        if (status.find("prompt1") != std::string::npos && status.find("music1") != std::string::npos) break;
    }
    EXPECT_NE(status.find("\tmusic\t"), std::string::npos) << status;
    EXPECT_NE(status.find("\tprompt\t"), std::string::npos) << status;
    EXPECT_NE(status.find("State info Mixer_Record:"), std::string::npos) << status;

    EXPECT_EQ(WaitExit(promptPid), 0) << Slurp(dir.File("prompt.log"));
    EXPECT_EQ(WaitExit(musicPid), 0) << Slurp(dir.File("music.log"));
    ASSERT_TRUE(WaitFor(in, [] {
        return !Exists(std::string(kStreamDir) + "/music1") && !Exists(std::string(kStreamDir) + "/prompt1");
    })) << "description files left behind";
    close(in);

    EXPECT_EQ(daemon.Stop(), 0) << Slurp(dir.File("mixerd.log"));
    EXPECT_FALSE(Exists(sock));
    EXPECT_FALSE(Exists(kStreamDir));
    std::vector<std::string> left = test::Added(shmBefore, test::ShmObjects());
    EXPECT_TRUE(left.empty()) << "left in /dev/shm: " << left.front();

    // The output, in 20-ms windows.
    test::WavTrack wav;
    ASSERT_TRUE(wav.Load(out));
    ASSERT_EQ(wav.rate, 48000);
    ASSERT_EQ(wav.channels, 2);
    const size_t w = 960, windows = wav.left.size() / w;
    std::vector<double> m(windows), p(windows);
    for (size_t i = 0; i < windows; ++i) {
        m[i] = wav.ToneAmplitude(i * w, w, 440);
        p[i] = wav.ToneAmplitude(i * w, w, 1000);
    }
    size_t first = windows, last = 0;
    for (size_t i = 0; i < windows; ++i)
        if (p[i] > 2000) {
            first = std::min(first, i);
            last = i;
        }
    ASSERT_LT(first, windows) << "the prompt is not in the output";
    EXPECT_NEAR((last - first + 1) * 0.02, 1.2, 0.15) << "prompt length";
    ASSERT_GT(first, 25u) << "the prompt started before the music was heard";
    auto median = [&](size_t from, size_t to) {
        std::vector<double> v(m.begin() + from, m.begin() + to);
        std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
        return v[v.size() / 2];
    };
    double before = median(first - 25, first - 2);
    double during = median(first + 20, last - 1);  // after the 250-ms ramp
    ASSERT_LT(last + 40, windows) << "the music ended with the prompt";
    double after = median(last + 20, last + 40);
    EXPECT_GT(before, 4000) << "music missing before the prompt";
    EXPECT_GT(*std::max_element(p.begin(), p.end()), 4000) << "prompt too quiet";
    EXPECT_LE(test::Db(during / before), -12.0) << "music not ducked: " << before << " -> " << during;
    EXPECT_NEAR(test::Db(after / before), 0.0, 3.0) << "music did not come back: " << after;

    // No click: no step between neighbouring samples beyond what the two sines can make.
    const double sourceStep = 8000 * 2 * M_PI * (440.0 + 1000.0) / 48000;
    size_t where = 0;
    int step = wav.MaxStep(0, wav.left.size(), &where);
    EXPECT_LE(step, 1.25 * sourceStep) << "click at sample " << where << " (" << where / 48000.0 << " s)";
}

}  // namespace
}  // namespace mixer
