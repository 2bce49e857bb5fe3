// The playback engine: its handlers on a thread-less engine, its mixing thread, and clients that fail in their lock.
#include <stdlib.h>
#include <unistd.h>
#include <cmath>
#include <fstream>
#include <sstream>
#include <boost/pointer_cast.hpp>
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/input/InputDataTrans.h"
#include "mixer/playback/Playback.h"
#include "mixer/transport/DataTrans.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/LockingClient.h"
#include "tests/support/ShmName.h"
#include "tests/support/Fake.h"
namespace mixer::test {
namespace {
typedef std::pair<unsigned, long> RampTo;  // steps left (0: not ramping), target row
typedef std::map<std::string, uint32_t> Volumes;

// The gain law written out on its own: the table row of a volume percent, the row of gain relative to ref (at
// unity, row 127), the steps of a ramp of ms at 48 kHz (one per 32 samples, plus one), and the mix of a at 36 %
// and b at 30 % of 40 (Q15, rounded, clamped).
unsigned Row(unsigned p) { return p == 0 ? 0 : p <= 17 ? 38 + 2 * p : p <= 34 ? 39 + 2 * p : p == 35 ? 110 : 75 + p; }
long RelRow(unsigned g, unsigned ref) { return Row(g) && Row(g) + 127 > Row(ref) ? Row(g) + 127 - Row(ref) : 0; }
unsigned Steps(unsigned ms) { return 48000u * ms / 1000u / 32u + 1u; }
int Mixed(int a, int b) {
    auto gain = [](int x, long row) {
        return Algo::saturate16(int((int64_t(x) * AlgoRampGain::kGainTable[row] + 16384) >> 15));
    };
    return Algo::sumSat16(gain(a, RelRow(36, 40)), gain(b, RelRow(30, 40)));
}

// The engine's clock keeps its seconds' product in 32 bits and jumps back about every 4295 s; a period straddling
// the jump is not slept on. So consecutive times are at least min apart unless the jump lies between them.
void ExpectGapsAtLeast(const std::vector<FakeOutput::Clock::time_point>& t, std::chrono::microseconds min) {
    auto us = [](FakeOutput::Clock::time_point x) {
        return int32_t(uint32_t(std::chrono::floor<std::chrono::seconds>(x).time_since_epoch().count()) * 1000000u);
    };
    for (size_t i = 1; i < t.size(); ++i) EXPECT_TRUE(us(t[i]) < us(t[i - 1]) || t[i] - t[i - 1] >= min) << i;
}

class PlaybackTest : public EngineFixture<Playback> {
protected:
    PlaybackTest() { pb.connect = &connect; }  // for the handlers, called on this thread without Init
    InputPtr Add(const std::string& type, const std::string& name = "") {
        connect.SetAttachInputRampGain(true);
        InputPtr in = Scripted(type);
        in->name = name;
        pb.AddNewInput(boost::make_shared<MsgNewInput>(in));
        return in;
    }
    boost::shared_ptr<Stream> StreamOf(const boost::shared_ptr<Input>& in) {
        for (const boost::shared_ptr<Stream>& s : pb.inputs)
            if (s->GetInput() == in) return s;
        return nullptr;
    }
    RampTo Ramp(const InputPtr& in) {
        auto g = boost::dynamic_pointer_cast<AlgoRampGain>(StreamOf(in)->GetAlgoById(ALGO_ID_RAMP_GAIN));
        return g->ramping ? RampTo(g->stepsLeft, std::lround(g->indexAcc + g->step * g->stepsLeft))
                          : RampTo(0, g->gainIndex);
    }
    // Returns once the thread has handled a message posted now, and so every period before.
    void Sync(int n) {
        Post(new MsgWriteInfo("/dev/null"));
        ASSERT_TRUE(connect.WaitForCalls("ChainMsgRecord", n, kWait));
    }
    Playback& pb = engine;
};

TEST_F(PlaybackTest, StreamVolumesRampOnChangesAndClientCommandsFade) {
    InputPtr m1 = Add("music"), m2;
    EXPECT_EQ(pb.streamVolumes, (Volumes{{"music", 40}}));
    EXPECT_EQ(Ramp(m1), RampTo(0, 127));  // the speaker volume (40) is unity
    // Each row: a type's volume with the speaker's, whether music input 2 is paused, and both music inputs' ramps:
    // a type's own change ramps over 250 ms, a new speaker volume over 50 ms, a paused stream not at all; input 2,
    // added after row 1, starts there at once.
    const struct { const char* type; unsigned vol, speaker; bool paused; RampTo m1, m2; } rows[] = {
        {"music", 30, 40, false, {Steps(250), RelRow(30, 40)}, {0, RelRow(30, 40)}},
        {"music", 20, 45, false, {Steps(50), RelRow(20, 45)}, {Steps(50), RelRow(20, 45)}},
        {"music", 25, 45, true, {Steps(250), RelRow(25, 45)}, {0, RelRow(25, 45)}},
        {"alert", 35, 45, true, {Steps(250), RelRow(25, 45)}, {0, RelRow(25, 45)}}};
    for (const auto& r : rows) {
        if (m2) m2->state = r.paused ? STATE_PAUSED : STATE_ACTIVE;
        pb.handleMsg(boost::make_shared<MsgSetStreamVol>(r.type, r.vol, r.speaker));
        if (!m2) m2 = Add("music");
        EXPECT_EQ(Ramp(m1), r.m1) << r.vol;
        EXPECT_EQ(Ramp(m2), r.m2) << r.vol;
    }
    InputPtr a = Add("alert");  // the last row stored its volume only
    EXPECT_EQ(Ramp(a), RampTo(0, RelRow(35, 45)));
    // A speaker volume goes to the output and resets every type to it (unity).
    connect.SetDefaultOutput(out), pb.SetupDefaultOutput();
    pb.handleMsg(boost::make_shared<MsgSetSpeakerVol>(60));
    EXPECT_EQ(out->Volumes(), std::vector<int>({45, 60}));
    EXPECT_EQ(Ramp(a), RampTo(Steps(250), 127));
    // Client commands. Each row: the command, the input's operations and the ramp that follow (then the 20-ms
    // frames played); a resume goes back to the type's volume, or to silence where the type has none (the last).
    const struct { tInOutCmd cmd; Lines ops; RampTo ramp; int frames; } cmds[] = {
        {CMD_PAUSE, {"GetCmd 1", "PauseDelay 250", "HandleCmd 1"}, {Steps(250), 0}, 13},
        {CMD_RESUME, {"GetCmd 8", "HandleCmd 8"}, {Steps(250), 127}, 13},
        {CMD_DRAIN, {"GetCmd 2", "HandleCmd 2"}, {0, 127}, 0},
        {CMD_RESUME, {"GetCmd 8", "HandleCmd 8"}, {Steps(250), 0}, 0}};
    for (const auto& c : cmds) {
        if (&c == &cmds[3]) pb.streamVolumes.clear();
        const size_t before = a->Ops().size();
        a->SetCmd(c.cmd);
        pb.CheckForCmd(StreamOf(a));
        const Lines ops = a->Ops();
        EXPECT_EQ(Lines(ops.begin() + before, ops.end()), c.ops);
        EXPECT_EQ(Ramp(a), c.ramp) << c.cmd;
        for (int i = 0; i < c.frames; ++i) a->Push(a->MakeFrame(1)), StreamOf(a)->Process();
    }
    // A new type forgets those at the speaker volume that nothing plays (they read the same without): the
    // engine keeps the types given a volume and those playing, not every type a client ever named.
    pb.handleMsg(boost::make_shared<MsgSetStreamVol>("music", 30, 60));
    pb.inputs.clear();
    Add("t1"), pb.inputs.clear(), Add("t2");
    EXPECT_EQ(pb.streamVolumes, (Volumes{{"music", 30}, {"t2", 60}}));
}

TEST_F(PlaybackTest, ReportShowsTheOutputAndTheInputsInFocusOrderReplacingTheFile) {
    EXPECT_EQ(Playback().Init(nullptr), -1);
    pb.handleMsg(boost::make_shared<MsgHead>(MSG_NEW_OUTPUT));  // a code without its class is dropped
    pb.handleMsg(boost::make_shared<MsgWriteInfo>("/nonexistent-dir/status"));
    EXPECT_EQ(log.Lines(), Lines({"E Mixer_Playback:handleMsg:Unsupported type 1:",
                                  "W Mixer_Playback:WriteInfo:Could not open /nonexistent-dir/status:"}));
    connect.SetSumParams(44100, 1, SAMPLE_SIZE_32);
    connect.SetDefaultOutput(out), pb.SetupDefaultOutput();
    // A new output whose algorithms the host refuses is not taken.
    OutputPtr usb = boost::make_shared<FakeOutput>("Usb", STATE_PAUSED);
    for (int refused : {1, 0}) {
        connect.SetAddPlaybackOutputAlgosResult(-refused);
        pb.handleMsg(boost::make_shared<MsgNewOutput>(usb, static_cast<tPlaybackModes>(7)));
        EXPECT_EQ(usb->Volumes(), refused ? std::vector<int>() : std::vector<int>({40}));
        EXPECT_EQ(connect.OutputAlgos().back().mode, 7u);
    }
    Add("music", "client-1");
    Add("nav", "client-2")->state = STATE_PAUSED;
    Add("alert", "client-3")->state = STATE_HANGUP;
    pb.SetFocus("nav");
    Add("nav", "client-4");  // the focused type goes to the front, behind its elders
    char path[] = "/tmp/playback-report-XXXXXX";
    ASSERT_EQ(close(mkstemp(path)), 0);
    std::ofstream(path) << std::string(300, 'x');  // longer than a report
    pb.WriteInfo(path);
    std::stringstream report;
    report << std::ifstream(path).rdbuf();
    unlink(path);
    const std::string rule(49, '=');
    EXPECT_EQ(report.str(), rule + "\nState info Mixer_Playback:\nOutput:Usb\tPaused\nInactivity count down: 20000\n"
                            "Sum rate: 44100 numCh: 1 ss: 4\nFrame len: 20\nNumber of input streams: 4\n"
                            "0\tnav\tPaused\tclient-2\n1\tnav\tActive\tclient-4\n2\tmusic\tActive\tclient-1\n"
                            "3\talert\tHangup\tclient-3\n" + rule + "\n");
}

// Each row: the output's name, whether the inputs (a, b, ...) have ramp gains at 36 and 30 % of 40, the levels of
// each input's frames, and the levels written. A period that erases an input skips its follower; one that erases
// the last input pulls a second frame from the front. Outputs other than "ALSA" are paced, 40 ms apart.
struct MixCase { const char* output; bool gains; std::vector<std::vector<int> > inputs; std::vector<int> written; };
class PlaybackMixTest : public PlaybackTest, public ::testing::WithParamInterface<MixCase> {};

TEST_P(PlaybackMixTest, WritesEachPeriodsSum) {
    const MixCase& c = GetParam();
    out = boost::make_shared<FakeOutput>(c.output);
    connect.SetDefaultOutput(out);
    connect.SetAttachInputRampGain(c.gains);
    Post(new MsgSetStreamVol("a", 36, 40)), Post(new MsgSetStreamVol("b", 30, 40));  // stored before the inputs: at once
    for (size_t i = 0; i < c.inputs.size(); ++i)
        Post(new MsgNewInput(Scripted(std::string(1, char('a' + i)), c.inputs[i])));
    ASSERT_EQ(pb.Init(&connect), 0);
    ASSERT_TRUE(out->WaitForFrames(static_cast<int>(c.written.size()), kWait));
    pb.DeInit();
    EXPECT_EQ(Levels(out), c.written);
    EXPECT_EQ(pb.inputs.size(), c.inputs.size() - (c.inputs.size() > 1 && c.inputs[1][0] == kHangUp));
    const auto posts = out->PostWriteTimes(), writes = out->WriteTimes();
    EXPECT_EQ(posts.size(), std::string(c.output) == "ALSA" ? 0 : c.written.size());
    ExpectGapsAtLeast(posts, std::chrono::microseconds(39999));
    for (size_t i = 0; i < posts.size(); ++i) EXPECT_GE(posts[i], writes[i]);  // after its own write
}

INSTANTIATE_TEST_SUITE_P(Periods, PlaybackMixTest, ::testing::Values(
    MixCase{"ALSA", false, {{1, 2, 4, 8}, {kHangUp}}, {1 + 2, 4, 8}},
    MixCase{"ALSA", false, {{1, 2, 4}, {kHangUp}, {100, 200}}, {1, 2 + 100, 4 + 200}},
    MixCase{"Speaker", false, {{1, 2, 3, 4}}, {1, 2, 3, 4}},
    MixCase{"ALSA", true, {{32767, 12345, -32768}, {32767, -777, -32768}},
            {Mixed(32767, 32767), Mixed(12345, -777), Mixed(-32768, -32768)}}));

TEST_F(PlaybackTest, WithoutInputsOrAfter20SecondsOfSilenceTheOutputPausesAndTheThreadSleeps) {
    connect.SetDefaultOutput(out);
    ASSERT_EQ(pb.Init(&connect), 0);
    Sync(1);
    ASSERT_TRUE(log.WaitFor("E Mixer_Playback:inputList size is 0..::"));
    Sync(2);  // the pass after that one has made its choices too
    EXPECT_EQ(out->PauseCount(), 1);
    boost::shared_ptr<ThreadNotingInput> in = boost::make_shared<ThreadNotingInput>(48000, 2, "a");
    in->Push(in->MakeFrame(5));  // one frame, then silence
    Post(new MsgNewInput(in));
    // The sounding period, then 1000 silent ones of 20 ms.
    ASSERT_TRUE(in->WaitForOps("Process", 1001, std::chrono::milliseconds(120000)));
    ASSERT_TRUE(log.WaitFor("I Mixer_Playback:Process:Pause:0")) << log.Dump();
    // Idle: over a window that would hold ten periods the input is not asked and the thread not woken at all.
    const long switches = WaitUntilAsleep(in->tid, kWait);
    ASSERT_GE(switches, 0);
    EXPECT_FALSE(in->WaitForOps("Process", 1002, std::chrono::milliseconds(200)));
    EXPECT_EQ(ContextSwitches(in->tid), switches);
    EXPECT_EQ(out->IdleTickCount(), 1000);
    EXPECT_EQ(out->PauseCount() + out->ResumeCount(), 2 + 1);  // resumed for the sounding frame
    Sync(3);  // a message wakes it
    EXPECT_TRUE(WaitForSwitchesAbove(in->tid, switches));
    pb.DeInit();
    EXPECT_EQ(Levels(out), std::vector<int>({5}));
    ExpectGapsAtLeast(out->IdleTickTimes(), std::chrono::microseconds(19999));
    pb.DeInit();     // again, as the destructor will
    Playback quick;  // stopped before its thread has run
    ASSERT_EQ(quick.Init(&connect), 0);
    quick.DeInit();
    EXPECT_EQ(log.Count("W Mixer_Playback:runLoop:Exiting!!!:"), 2);
}

// Without an output device (the host has none) a sounding stream is still mixed once per 20 ms, not in a busy loop.
TEST_F(PlaybackTest, WithoutAnOutputTheLoopKeepsItsPeriods) {
    boost::shared_ptr<SineInput> tone = boost::make_shared<SineInput>(48000, 2, 440.0, 8000.0, "music");
    Post(new MsgNewInput(tone));
    ASSERT_EQ(pb.Init(&connect), 0);
    ASSERT_TRUE(tone->WaitForFrames(12, kWait));
    pb.DeInit();
    EXPECT_EQ(connect.CallCount("GetPlaybackDefaultOutput"), 1);
    const auto t = tone->ProcessTimes();  // each pacing point lies between its period's Process and the next one's
    ExpectGapsAtLeast({t.front(), t[11]}, std::chrono::microseconds(10 * 19999));
}

// A client process that dies or stops inside its queue's lock, fed with silence until then, beside a tone: the
// tone plays on in every period and the client's stream is erased.
class PlaybackClientTest : public PlaybackTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PlaybackClientTest, ClientKilledOrStoppedInsideItsLockIsErasedWhileTheOthersPlayOn) {
    ShmName name;
    LockingClient client(name.str(), {true, 4, 4 * 960, true, {}});  // created, fed; forked before the engine thread
    boost::shared_ptr<DataTrans> queue = boost::make_shared<DataTrans>();
    ASSERT_TRUE(client.Ready() && queue->Init(name.c_str()) == 0);
    boost::shared_ptr<InputDataTrans> bad = boost::make_shared<InputDataTrans>(queue, 48000, 2, 2, "client");
    boost::shared_ptr<SineInput> tone = boost::make_shared<SineInput>(48000, 2, 440.0, 8000.0, "music");
    out = boost::make_shared<FakeOutput>("Speaker");
    connect.SetDefaultOutput(out);
    // The client's stream first: the stream after an erased one is skipped for that period, so with the tone
    // second its frames stay in sequence, none missing or twice.
    Post(new MsgNewInput(bad)), Post(new MsgNewInput(tone));
    ASSERT_EQ(pb.Init(&connect), 0);
    ASSERT_TRUE(out->WaitForFrames(5, kWait));
    ASSERT_TRUE(client.Lock());
    if (GetParam()) client.Kill();
    else ASSERT_TRUE(client.Stop());
    ASSERT_TRUE(log.WaitFor("W Mixer_Playback:runLoop:Erasing Input " + name.str() + ":"));
    ASSERT_TRUE(out->WaitForFrames(out->FrameCount() + 5, kWait));
    pb.DeInit();
    const std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
    EXPECT_EQ(int(frames.size()), tone->FramesProduced());
    for (size_t f = 0; f < frames.size(); ++f)
        for (unsigned i = 0; i < 2 * 960; ++i)
            ASSERT_EQ(frames[f]->Samples16()[i], tone->SampleAt(f * 960 + i / 2)) << "frame " << f << " sample " << i;
}

INSTANTIATE_TEST_SUITE_P(Client, PlaybackClientTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "Killed" : "Stopped"; });

}  // namespace
}  // namespace mixer::test
