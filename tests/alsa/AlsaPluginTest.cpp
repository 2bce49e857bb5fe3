// The ALSA plugin as a program meets it through alsa-lib, against a real mixerd (WAV output,
// tone microphone): what is played arrives at its level and length, drain returns once it
// has played, pause holds it back, capture hears the microphone, a killed player leaves
// nothing behind.

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <regex>

#include "tests/support/Mixerd.h"

using namespace mixer::test;

namespace {

// The installed configuration, with the plugin taken from the build tree.
struct Pcm {
    snd_config_t* cfg = nullptr;
    snd_pcm_t* pcm = nullptr;
    int err;
    Pcm(snd_pcm_stream_t stream, unsigned rate, unsigned channels, int mode = 0) {
        const std::string text = "pcm_type.mixer { lib \"" PLUGIN_PATH "\" }\n" + Slurp(PLUGIN_CONF);
        snd_input_t* in = nullptr;
        snd_config_top(&cfg);
        snd_input_buffer_open(&in, text.data(), static_cast<ssize_t>(text.size()));
        snd_config_load(cfg, in);
        snd_input_close(in);
        err = snd_pcm_open_lconf(&pcm, "mixer", stream, mode, cfg);
        if (err == 0) err = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, channels, rate, 1, 200000);
    }
    ~Pcm() {
        if (pcm) snd_pcm_close(pcm);
        snd_config_delete(cfg);
    }
};

// The amplitude of the tone at freq in the first channel of s.
double Level(const std::vector<int16_t>& s, unsigned channels, double rate, double freq) {
    const double k = 2 * std::cos(2 * M_PI * freq / rate);
    double s1 = 0, s2 = 0;
    for (size_t j = 0; j < s.size(); j += channels) s2 = std::exchange(s1, s[j] + k * s1 - s2);
    return 2 * std::sqrt(std::max(s1 * s1 + s2 * s2 - k * s1 * s2, 0.0)) / double(s.size() / channels);
}

struct PlayCase {
    unsigned rate, channels;
    bool poll;     // non-blocking, waiting in poll() on the plugin's descriptors
    enum Half { kOn, kPause, kDrop } half;  // half-way: a pause of a second, or a drop
};

std::string Name(const PlayCase& c) {
    static const char* const kHalf[] = {"", "Pause", "Drop"};
    return std::to_string(c.rate) + "Hz" + std::to_string(c.channels) + "ch" + (c.poll ? "Poll" : "") + kHalf[c.half];
}
void PrintTo(const PlayCase& c, std::ostream* os) { *os << Name(c); }

class AlsaPlay : public testing::TestWithParam<PlayCase> {};

}  // namespace

// One second of a 1-kHz tone at 8000: after drain the daemon is stopped at once, so the
// output holds the whole second only if drain waited for it to play.
TEST_P(AlsaPlay, ArrivesWholeAtItsLevelAfterDrain) {
    const PlayCase c = GetParam();
    Mixerd d;
    ASSERT_TRUE(d.ready);
    ASSERT_EQ(d.Ctl("speaker 52"), 0) << d.said;  // unity gain
    snd_pcm_sframes_t dropped = 0;
    snd_pcm_uframes_t played = c.rate;  // what the mixer must have played, in the stream's frames
    double periods = 1;                 // the margin for the delay, in periods
    {
        Pcm p(SND_PCM_STREAM_PLAYBACK, c.rate, c.channels, c.poll ? SND_PCM_NONBLOCK : 0);
        ASSERT_EQ(p.err, 0) << snd_strerror(p.err);
        std::vector<int16_t> s(c.rate * c.channels);
        for (size_t i = 0; i < s.size(); ++i)
            s[i] = static_cast<int16_t>(std::lround(8000 * std::sin(2 * M_PI * 1000 * double(i / c.channels) / c.rate)));
        const snd_pcm_uframes_t total = c.rate;
        bool halfWay = false;
        for (snd_pcm_uframes_t at = 0; at < total;) {
            if (c.half == PlayCase::kPause && !std::exchange(halfWay, at >= total / 2) && halfWay) {
                ASSERT_EQ(snd_pcm_pause(p.pcm, 1), 0);
                std::this_thread::sleep_for(std::chrono::seconds(1));  // the pause asked for
                ASSERT_EQ(snd_pcm_pause(p.pcm, 0), 0);
            }
            if (c.half == PlayCase::kDrop && at >= total / 2) {
                // Just after the mixer took a block, so that it takes none before the drop
                // unless this thread stalls for a period (which then widens the margin).
                snd_pcm_sframes_t before = 0;
                ASSERT_EQ(snd_pcm_delay(p.pcm, &before), 0);
                auto still = std::chrono::steady_clock::now();  // no block taken before this
                for (int i = 0; i < 2000; ++i, usleep(500)) {
                    const auto now = std::chrono::steady_clock::now();
                    ASSERT_EQ(snd_pcm_delay(p.pcm, &dropped), 0);
                    if (dropped < before) break;
                    still = now;
                }
                ASSERT_LT(dropped, before);
                ASSERT_EQ(snd_pcm_delay(p.pcm, &dropped), 0);  // what the drop takes back
                ASSERT_EQ(snd_pcm_drop(p.pcm), 0);
                periods += double(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - still).count() / 20);
                played = at - snd_pcm_uframes_t(dropped);
                break;
            }
            const snd_pcm_sframes_t n = snd_pcm_writei(p.pcm, &s[at * c.channels], std::min<snd_pcm_uframes_t>(total - at, c.rate / 100));
            if (n == -EAGAIN) {
                pollfd fds[4];
                const int nfds = snd_pcm_poll_descriptors(p.pcm, fds, 4);
                unsigned short revents = 0;
                ASSERT_GT(poll(fds, nfds, 1000), 0);  // readiness comes by the block pace
                snd_pcm_poll_descriptors_revents(p.pcm, fds, nfds, &revents);
                continue;
            }
            ASSERT_GT(n, 0) << snd_strerror(int(n));
            at += snd_pcm_uframes_t(n);
        }
        int drained = c.half == PlayCase::kDrop ? 0 : snd_pcm_drain(p.pcm);
        for (int i = 0; drained == -EAGAIN && i < 500; ++i) {  // non-blocking: poll and ask again
            pollfd fds[4];
            ASSERT_GE(poll(fds, snd_pcm_poll_descriptors(p.pcm, fds, 4), 1000), 0);
            drained = snd_pcm_drain(p.pcm);
        }
        ASSERT_EQ(drained, 0) << snd_strerror(drained);
        ASSERT_EQ(d.Stop(), 0);
    }
    SF_INFO info{};
    const std::vector<double> a = Tone(ReadWav(d.out, info), 1000);
    std::vector<size_t> on;  // the 20-ms windows that hold the tone (a pause fades it out and in)
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] > 10) on.push_back(i);
    ASSERT_FALSE(on.empty());
    EXPECT_NEAR(double(on.size()), double(played) / (c.rate / 50), 2);
    EXPECT_EQ(dropped > 0, c.half == PlayCase::kDrop);
    // Sample by sample, the tone lasted what was written less the delay at the drop, to
    // within a period.
    const std::vector<int16_t> out = ReadWav(d.out, info);
    std::vector<size_t> loud;
    for (size_t i = 0; i < out.size(); i += 2)
        if (std::abs(out[i]) > 4000) loud.push_back(i / 2);
    const double lasted = double(loud.back() - loud.front()) * c.rate / 48000;
    if (c.half != PlayCase::kPause) {
        EXPECT_NEAR(lasted, double(played), periods * c.rate / 50) << "delay " << dropped;
    }
    EXPECT_NEAR(*std::max_element(a.begin(), a.end()), 8000, 8000 * 0.03);
    const size_t gaps = on.back() - on.front() + 1 - on.size();
    if (c.half == PlayCase::kPause) EXPECT_GE(gaps, 5u);  // at half speed, the second's pause is 25 windows
    else EXPECT_EQ(gaps, 0u);
}

INSTANTIATE_TEST_SUITE_P(Cases, AlsaPlay, testing::Values(PlayCase{48000, 2, false, PlayCase::kOn},
                                                          PlayCase{44100, 1, false, PlayCase::kOn},
                                                          PlayCase{22050, 1, true, PlayCase::kOn},
                                                          PlayCase{96000, 8, true, PlayCase::kOn},
                                                          PlayCase{48000, 2, false, PlayCase::kPause},
                                                          PlayCase{16000, 1, true, PlayCase::kDrop}),
                         [](const testing::TestParamInfo<PlayCase>& i) { return Name(i.param); });

// Two programs record at once, each at its own rate and channel count, each on its own
// queue: both hear the tone microphone's 440 Hz at its level.
TEST(AlsaCapture, TwoAtOnceHearTheMicrophone) {
    Mixerd d;
    ASSERT_TRUE(d.ready);
    Pcm a(SND_PCM_STREAM_CAPTURE, 16000, 1), b(SND_PCM_STREAM_CAPTURE, 48000, 2);
    ASSERT_EQ(a.err, 0) << snd_strerror(a.err);
    ASSERT_EQ(b.err, 0) << snd_strerror(b.err);
    std::vector<int16_t> sa(16000 / 2), sb(48000 / 2 * 2);
    for (size_t at = 0; at < 8; ++at) {  // eighths of half a second, taking turns
        ASSERT_EQ(snd_pcm_readi(a.pcm, &sa[at * sa.size() / 8], sa.size() / 8), snd_pcm_sframes_t(sa.size() / 8));
        ASSERT_EQ(snd_pcm_readi(b.pcm, &sb[at * sb.size() / 8], sb.size() / 16), snd_pcm_sframes_t(sb.size() / 16));
    }
    EXPECT_NEAR(Level(sa, 1, 16000, 440), 8192, 8192 * 0.1);
    EXPECT_NEAR(Level(sb, 2, 48000, 440), 8192, 8192 * 0.1);
}

// No daemon: open fails at once; a player killed while it plays leaves no queue and no
// description file.
TEST(AlsaPlay, NoDaemonFailsAtOpenAndAKilledPlayerLeavesNothing) {
    EXPECT_EQ(Pcm(SND_PCM_STREAM_PLAYBACK, 48000, 2).err, -ECONNREFUSED);
    Mixerd d;
    ASSERT_TRUE(d.ready);
    const pid_t child = fork();
    if (child == 0) {
        Pcm p(SND_PCM_STREAM_PLAYBACK, 48000, 2);
        std::vector<int16_t> s(48000 * 2, 1000);
        snd_pcm_writei(p.pcm, s.data(), 48000);
        raise(SIGKILL);
    }
    ASSERT_EQ(WaitExit(child), -SIGKILL);
    EXPECT_TRUE(Eventually([] { return DirNames("/dev/shm", "mixer-").empty() && DirNames(kStreamDir, "test_alsa").empty(); }, 10000));
}

#ifdef FOREIGN_PRELOAD
// Programs that speak ALSA, each once against its own daemon, through the plugin in the
// build tree: what they play arrives, what they record is the microphone.
struct ProgramCase {
    const char* name;
    const char* args;  // after the program's name; IN and OUT stand for the files
    void (*check)(const std::vector<int16_t>& out, const std::string& file);
};

// 1 kHz at the mix rate: sample for sample once the stream's gain is up (unity).
void SampleForSample(const std::vector<int16_t>& out, const std::string& in) {
    SF_INFO info{};
    const std::vector<int16_t> s = ReadWav(in, info);
    const auto first = [](const std::vector<int16_t>& v) { return std::find_if(v.begin(), v.end(), [](int16_t x) { return x != 0; }) - v.begin(); };
    const ptrdiff_t shift = first(out) - first(s);
    ASSERT_TRUE(size_t(first(out)) < out.size() && shift >= 0 && out.size() >= s.size() + size_t(shift));
    size_t differ = 0;
    for (size_t i = s.size() / 10; i < s.size(); ++i) differ += out[i + size_t(shift)] != s[i];
    EXPECT_EQ(differ, 0u);
}
// 1 kHz from GStreamer's test source (44.1 kHz): at its pitch, whole.
void AtItsPitch(const std::vector<int16_t>& out, const std::string&) {
    const std::vector<double> a = Tone(out, 1000);
    EXPECT_GE(std::count_if(a.begin(), a.end(), [](double v) { return v > 4000; }), 48);
}
// speaker-test's sine: 440 Hz on the left, then on the right.
void LeftThenRight(const std::vector<int16_t>& out, const std::string&) {
    const std::vector<double> l = Tone(out, 440, 0), r = Tone(out, 440, 1);
    const auto loud = [](const std::vector<double>& a) { return std::find_if(a.begin(), a.end(), [](double v) { return v > 1000; }) - a.begin(); };
    EXPECT_TRUE(size_t(loud(r)) < r.size() && loud(l) + 50 < loud(r));
}
// arecord: two seconds of the tone microphone's 440 Hz at 16 kHz.
void HeardTheMicrophone(const std::vector<int16_t>&, const std::string& file) {
    SF_INFO info{};
    const std::vector<int16_t> s = ReadWav(file, info);
    EXPECT_TRUE(info.frames == 32000 && std::abs(Level(s, 1, 16000, 440) - 8192) < 8192 * 0.1) << info.frames;
}

void PrintTo(const ProgramCase& c, std::ostream* os) { *os << c.name << " " << c.args; }

class AlsaProgram : public testing::TestWithParam<ProgramCase> {};

TEST_P(AlsaProgram, PlaysOrRecordsThroughTheMixer) {
    const ProgramCase c = GetParam();
    Mixerd d;
    ASSERT_TRUE(d.ready);
    ASSERT_EQ(d.Ctl("speaker 52"), 0) << d.said;  // unity gain
    const std::string conf = d.dir.File("asound.conf"), in = d.dir.File("in.wav"), rec = d.dir.File("rec.wav");
    std::ofstream(conf) << "pcm_type.mixer { lib \"" PLUGIN_PATH "\" }\n" << Slurp(PLUGIN_CONF);
    ASSERT_TRUE(WriteSine(in, 48000, 2, 1000, 8000, 1));
    const std::string args = std::regex_replace(std::regex_replace(c.args, std::regex("IN"), in), std::regex("OUT"), rec);
    // An instrumented plugin needs the sanitizers' runtimes in an uninstrumented program.
    ASSERT_EQ(d.Run(std::string("env LD_PRELOAD=" FOREIGN_PRELOAD " ASAN_OPTIONS=detect_leaks=0 ALSA_CONFIG_PATH=") + conf + " " + c.name + " " + args), 0) << d.said;
    ASSERT_EQ(d.Stop(), 0);
    SF_INFO info{};
    c.check(ReadWav(d.out, info), args.find(rec) != std::string::npos ? rec : in);
}

INSTANTIATE_TEST_SUITE_P(Programs, AlsaProgram,
    testing::Values(ProgramCase{"aplay", "-q -D mixer IN", SampleForSample},
                    ProgramCase{"speaker-test", "-D mixer -c 2 -l 1 -t sine -b 200000", LeftThenRight},
                    ProgramCase{"gst-launch-1.0", "-q audiotestsrc freq=1000 volume=0.25 num-buffers=50 ! audioconvert ! alsasink device=mixer", AtItsPitch},
                    ProgramCase{"arecord", "-q -D mixer -f S16_LE -r 16000 -d 2 OUT", HeardTheMicrophone}),
    [](const testing::TestParamInfo<ProgramCase>& i) { return std::string(i.param.name).substr(0, std::string(i.param.name).find('-')) + std::to_string(i.index); });
#endif
