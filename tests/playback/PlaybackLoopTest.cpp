// The mixing thread with real frames, a fake host and fake devices. Waits are on
// events (frames written, host calls, input operations); time is only ever bounded
// from below.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "mixer/algo/Algo.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/playback/Playback.h"
#include "tests/playback/PlaybackTestUtil.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"
#include "tests/support/SineInput.h"
#include "tests/support/ThreadWakeups.h"

namespace mixer {
namespace test {
namespace {

typedef boost::shared_ptr<ScriptedInput> InputPtr;
typedef boost::shared_ptr<FakeOutput> OutputPtr;

const std::chrono::milliseconds kWait(20000);  // only a failing test waits this long

class PlaybackLoopTest : public ::testing::Test {
protected:
    void Post(boost::shared_ptr<MsgHead> msg) { pb.GetMsgQ()->sendMsg(msg); }
    void AddInput(boost::shared_ptr<Input> in) { Post(boost::make_shared<MsgNewInput>(in)); }
    InputPtr Scripted(const std::string& type, const std::vector<int>& values) {
        InputPtr in = boost::make_shared<ScriptedInput>(48000, 2, type);
        for (int v : values) in->Push(in->MakeFrame(v));
        return in;
    }
    // Returns once the engine has handled a message posted now (and so has finished
    // every period before it).
    void Sync(int n) {
        Post(boost::make_shared<MsgWriteInfo>("/dev/null"));
        ASSERT_TRUE(connect.WaitForCalls("ChainMsgRecord", n, kWait));
    }
    // A default output for the engine.
    OutputPtr DefaultOutput(const std::string& name) {
        OutputPtr out = boost::make_shared<FakeOutput>(name);
        connect.SetDefaultOutput(out);
        return out;
    }
    // Starts the engine with ins already queued and stops it once out has n frames.
    void Play(const OutputPtr& out, std::initializer_list<boost::shared_ptr<Input> > ins, int n) {
        for (const boost::shared_ptr<Input>& in : ins) AddInput(in);
        ASSERT_EQ(pb.Init(&connect), 0);
        ASSERT_TRUE(out->WaitForFrames(n, kWait));
        pb.DeInit();
    }
    // First sample of each written frame, after checking that every sample equals it.
    static std::vector<int> Levels(const OutputPtr& out) {
        std::vector<int> levels;
        for (const boost::shared_ptr<AudioFrame>& f : out->Frames()) {
            const int16_t* s = f->Samples16();
            for (unsigned i = 1; i < f->len * f->numCh; ++i) EXPECT_EQ(s[i], s[0]) << i;
            levels.push_back(s[0]);
        }
        return levels;
    }

    LogCapture log;        // outlives the thread
    FakeConnect connect;   // outlives the thread
    Playback pb;           // destroyed first: its destructor joins the thread
};

TEST_F(PlaybackLoopTest, NewInputWakesTheBlockedEngineAndIsHeard) {
    OutputPtr out = DefaultOutput("Speaker");
    connect.SetAttachInputRampGain(true);
    ASSERT_EQ(pb.Init(&connect), 0);
    Sync(1);
    ASSERT_TRUE(log.WaitFor("E Mixer_Playback:inputList size is 0..::"));
    // Without inputs the engine only waits: nothing written, no idle ticking.
    EXPECT_EQ(out->FrameCount(), 0);
    EXPECT_EQ(out->IdleTickCount(), 0);
    EXPECT_EQ(out->PauseCount(), 1);  // paused once, at the first wait

    boost::shared_ptr<SineInput> sine = boost::make_shared<SineInput>(48000, 2, 440.0, 8000.0, "music");
    AddInput(sine);
    ASSERT_TRUE(out->WaitForFrames(3, kWait));
    pb.DeInit();

    std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
    ASSERT_GE(frames.size(), 3u);
    for (size_t f = 0; f < 3; ++f) {
        ASSERT_EQ(frames[f]->len, 960u);
        ASSERT_EQ(frames[f]->numCh, 2u);
        const int16_t* s = frames[f]->Samples16();
        for (unsigned i = 0; i < 960; ++i) {
            ASSERT_EQ(s[2 * i], sine->SampleAt(f * 960 + i)) << f << " " << i;
            ASSERT_EQ(s[2 * i + 1], sine->SampleAt(f * 960 + i)) << f << " " << i;
        }
    }
    EXPECT_EQ(out->ResumeCount(), 1);  // resumed before the first write
    EXPECT_FALSE(pb.output);            // released by DeInit
}

// The engine's arithmetic written out independently: Q15 gain with rounding, clamped,
// then summed in list order with the saturating add of the mix.
int16_t Scaled(int16_t x, unsigned index) {
    int64_t p = (static_cast<int64_t>(x) * AlgoRampGain::kGainTable[index] + 16384) >> 15;
    return Algo::saturate16(static_cast<int>(p));
}

TEST_F(PlaybackLoopTest, TwoInputsAreSummedSampleForSampleAfterTheirGains) {
    OutputPtr out = DefaultOutput("ALSA");
    connect.SetAttachInputRampGain(true);
    const int kFrames = 4;
    const size_t n = 960 * 2;
    InputPtr a = boost::make_shared<ScriptedInput>(48000, 2, "a");
    InputPtr b = boost::make_shared<ScriptedInput>(48000, 2, "b");
    std::vector<std::vector<int16_t> > av, bv;
    for (int f = 0; f < kFrames; ++f) {
        boost::shared_ptr<AudioFrame> fa = a->MakeFrame(0), fb = b->MakeFrame(0);
        std::vector<int16_t> sa(n), sb(n);
        for (size_t i = 0; i < n; ++i) {
            // Full-range patterns, so that both rails are reached.
            sa[i] = static_cast<int16_t>((i * 7919u + f * 104729u) % 65536u - 32768);
            sb[i] = static_cast<int16_t>((i * 6151u + f * 3571u + 12345u) % 65536u - 32768);
        }
        std::copy(sa.begin(), sa.end(), fa->Samples16());
        std::copy(sb.begin(), sb.end(), fb->Samples16());
        a->Push(fa);
        b->Push(fb);
        av.push_back(sa);
        bv.push_back(sb);
    }
    // Volumes stored before the inputs arrive apply at once (speaker 40).
    Post(boost::make_shared<MsgSetStreamVol>("a", 36, 40));
    Post(boost::make_shared<MsgSetStreamVol>("b", 30, 40));
    AddInput(a);
    AddInput(b);
    ASSERT_EQ(pb.Init(&connect), 0);
    ASSERT_TRUE(out->WaitForFrames(kFrames, kWait));
    pb.DeInit();

    const unsigned ga = RelIndex(36, 40), gb = RelIndex(30, 40);
    std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
    ASSERT_EQ(frames.size(), static_cast<size_t>(kFrames));
    int railed = 0;
    for (int f = 0; f < kFrames; ++f) {
        const int16_t* s = frames[f]->Samples16();
        for (size_t i = 0; i < n; ++i) {
            int16_t expect = Algo::sumSat16(Algo::sumSat16(int16_t(0), Scaled(av[f][i], ga)),
                                            Scaled(bv[f][i], gb));
            ASSERT_EQ(s[i], expect) << "frame " << f << " sample " << i;
            railed += expect == 32767 || expect == -32768;
        }
    }
    EXPECT_GT(railed, 0);  // the data did exercise the saturation
}

TEST_F(PlaybackLoopTest, DuckingTurnsOnOnceWhilePrioritySoundsAndOffOnceAfter) {
    OutputPtr out = DefaultOutput("ALSA");
    connect.SetAttachInputRampGain(true);
    connect.SetAudioVolume(41);
    InputPtr nav = Scripted("nav", {1000, 1000, 1000});
    InputPtr music = Scripted("music", std::vector<int>(8, 1000));
    AddInput(music);
    AddInput(nav);
    Post(boost::make_shared<MsgSetFocus>("nav"));
    ASSERT_EQ(pb.Init(&connect), 0);
    ASSERT_TRUE(out->WaitForFrames(8, kWait));
    pb.DeInit();

    const std::string on = "I Mixer_Playback:AudioDucking:Enabling audio ducking:";
    const std::string off = "I Mixer_Playback:AudioDucking:Disabling audio ducking:";
    EXPECT_EQ(log.Count(on), 1);
    EXPECT_EQ(log.Count(off), 1);
    std::vector<std::string> lines = log.Lines();
    EXPECT_LT(std::find(lines.begin(), lines.end(), on), std::find(lines.begin(), lines.end(), off));
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:music 20:"), 1);  // ducked: 41 / 2
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:nav 41:"), 2);    // on, then off
    EXPECT_EQ(pb.streamVolumes["music"], 41u);
    EXPECT_EQ(pb.streamVolumes["nav"], 41u);
    EXPECT_EQ(log.CountPrefix("P Mixer_Playback:setFocus:Timestamp-"), 3);
}

TEST_F(PlaybackLoopTest, ErasingTheLastInputPullsASecondFrameFromTheOthers) {
    OutputPtr out = DefaultOutput("ALSA");
    InputPtr b = Scripted("b", {});
    b->name = "clientB";
    b->PushHangup();
    Play(out, {Scripted("a", {1, 2, 4, 8}), b}, 3);
    // The period that erases B mixes A's first and second frames.
    EXPECT_EQ(Levels(out), std::vector<int>({1 + 2, 4, 8}));
    EXPECT_EQ(log.Count("W Mixer_Playback:runLoop:Erasing Input clientB:"), 1);
    EXPECT_EQ(pb.inputs.size(), 1u);
}

TEST_F(PlaybackLoopTest, ErasingAnInputSkipsItsFollowerForThatPeriod) {
    OutputPtr out = DefaultOutput("ALSA");
    InputPtr b = Scripted("b", {});
    b->PushHangup();
    Play(out, {Scripted("a", {1, 2, 4}), b, Scripted("c", {100, 200})}, 3);
    EXPECT_EQ(Levels(out), std::vector<int>({1, 2 + 100, 4 + 200}));
    EXPECT_EQ(pb.inputs.size(), 2u);
}

TEST_F(PlaybackLoopTest, OutputNamedAlsaGetsNoPacing) {
    OutputPtr out = DefaultOutput("ALSA");
    Play(out, {Scripted("a", {1, 2, 3, 4})}, 4);
    EXPECT_EQ(out->PostWriteCount(), 0);
}

TEST_F(PlaybackLoopTest, OtherOutputsArePacedAtLeast40MsApart) {
    OutputPtr out = DefaultOutput("Speaker");
    Play(out, {Scripted("a", {1, 2, 3, 4})}, 4);
    std::vector<FakeOutput::Clock::time_point> posts = out->PostWriteTimes();
    std::vector<FakeOutput::Clock::time_point> writes = out->WriteTimes();
    ASSERT_EQ(posts.size(), 4u);
    for (size_t i = 1; i < posts.size(); ++i) {
        if (!EngineClockJumpsBetween(posts[i - 1], posts[i])) {
            EXPECT_GE(posts[i] - posts[i - 1], std::chrono::microseconds(39999)) << i;
        }
        EXPECT_GE(posts[i], writes[i]);  // PostWrite follows its own write
    }
}

TEST_F(PlaybackLoopTest, FailedOutputIsReplacedByTheDefault) {
    OutputPtr first = boost::make_shared<FakeOutput>("Speaker");
    first->FailAtWrite(2, STATE_FAULT);
    OutputPtr second = boost::make_shared<FakeOutput>("ALSA");
    connect.SetDefaultOutputs({first, second});
    Play(second, {Scripted("a", {1, 2, 3, 4})}, 2);
    EXPECT_EQ(Levels(first), std::vector<int>({1, 2}));
    EXPECT_EQ(Levels(second), std::vector<int>({3, 4}));
    EXPECT_EQ(first->PostWriteCount(), 1);  // the failed write is not paced
    EXPECT_EQ(log.Count("E Mixer_Playback:Process:Error or Output closed - revert to default out:"), 1);
    EXPECT_EQ(connect.CallCount("GetPlaybackDefaultOutput"), 2);
}

TEST_F(PlaybackLoopTest, TwentySecondsOfSilencePauseTheOutputOnceAndThenTheThreadSleeps) {
    OutputPtr out = DefaultOutput("ALSA");
    boost::shared_ptr<ThreadNotingInput> in = boost::make_shared<ThreadNotingInput>(48000, 2, "a");
    in->Push(in->MakeFrame(5));  // one frame, then silence
    AddInput(in);
    ASSERT_EQ(pb.Init(&connect), 0);
    // The sounding period, then 1000 silent ones of 20 ms.
    ASSERT_TRUE(in->WaitForOps("Process", 1001, std::chrono::milliseconds(120000)));
    ASSERT_TRUE(log.WaitFor("I Mixer_Playback:Process:Pause:0")) << log.Dump();

    // Idle: no period begins (the trace line that opens each one is not seen again), the
    // input is not asked, and the thread is not woken at all, however briefly, until a
    // message comes. The windows would hold ten periods each.
    const std::string entering = "P Mixer_Playback:PlaybackThread::runLoop:Timestamp-";
    const std::string enteringEnd = ":Entering...:";
    auto periods = [&]() {
        int n = 0;
        for (const std::string& line : log.Lines())
            if (line.compare(0, entering.size(), entering) == 0 && line.size() > enteringEnd.size() &&
                line.compare(line.size() - enteringEnd.size(), enteringEnd.size(), enteringEnd) == 0)
                ++n;
        return n;
    };
    const int periodsBefore = periods();
    EXPECT_EQ(periodsBefore, 1002);  // the sounding one, 1000 silent, the one that pauses
    const std::chrono::milliseconds window(200);
    const long switchesBefore = WaitUntilAsleep(in->tid, kWait);
    ASSERT_GE(switchesBefore, 0);
    EXPECT_FALSE(in->WaitForOps("Process", 1002, window));
    EXPECT_EQ(ContextSwitches(in->tid), switchesBefore);
    EXPECT_EQ(periods(), periodsBefore);
    EXPECT_EQ(out->IdleTickCount(), 1000);
    EXPECT_EQ(out->PauseCount(), 2);  // before the first message, and after the silence
    EXPECT_EQ(log.Count("I Mixer_Playback:Process:Pause:20000"), 1);
    EXPECT_EQ(log.Count("I Mixer_Playback:Process:Pause:0"), 1);

    Sync(1);  // a message wakes it
    EXPECT_GT(ContextSwitches(in->tid), switchesBefore);
    pb.DeInit();
    std::vector<FakeOutput::Clock::time_point> ticks = out->IdleTickTimes();
    for (size_t i = 1; i < ticks.size(); ++i) {
        if (!EngineClockJumpsBetween(ticks[i - 1], ticks[i])) {
            ASSERT_GE(ticks[i] - ticks[i - 1], std::chrono::microseconds(19999)) << i;
        }
    }
}

TEST_F(PlaybackLoopTest, DeInitStopsTheThreadWhileItWaitsOrBeforeItRuns) {
    DefaultOutput("ALSA");
    ASSERT_EQ(pb.Init(&connect), 0);
    Sync(1);
    pb.DeInit();
    EXPECT_TRUE(log.Has("E Mixer_Playback:In PlaybackrunLoop:...:"));
    EXPECT_TRUE(log.Has("I Mixer_Playback:runLoop:Ready:"));
    EXPECT_FALSE(pb.output);
    pb.DeInit();  // again, as the destructor will
    EXPECT_EQ(log.Count("W Mixer_Playback:runLoop:Exiting!!!:"), 1);

    Playback quick;  // stopped before its thread has run
    ASSERT_EQ(quick.Init(&connect), 0);
    quick.DeInit();
    EXPECT_EQ(log.Count("W Mixer_Playback:runLoop:Exiting!!!:"), 2);
}

}  // namespace
}  // namespace test
}  // namespace mixer
