// The playback engine: its handlers driven on an engine whose thread never starts (every
// step deterministic), then the mixing thread with a fake host and device, and client
// processes that fail inside their queue's lock.

#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>

#include <boost/pointer_cast.hpp>

#include "mixer/algo/AlgoSilence.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/input/InputDataTrans.h"
#include "mixer/playback/Playback.h"
#include "mixer/transport/DataTrans.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/LockingClient.h"
#include "tests/support/ShmName.h"
#include "tests/support/SineInput.h"

namespace mixer {
namespace test {
namespace {

typedef FakeOutput::Clock::time_point Time;
typedef std::map<std::string, uint32_t> Volumes;
typedef std::pair<unsigned, long> RampTo;  // steps left (0: not ramping), target row
typedef std::vector<std::string> Lines;

// The gain law written out on its own, so that expected values do not come from the
// code under test: the table row of a volume percent, the row of gain relative to ref
// (which sits at unity, row 127), the steps of a ramp of ms at 48 kHz (one per 32
// samples, plus one), and the mix of a at 36 % and b at 30 % of 40 (Q15, rounded, clamped).
unsigned Row(unsigned p) { return p == 0 ? 0 : p <= 17 ? 38 + 2 * p : p <= 34 ? 39 + 2 * p : p == 35 ? 110 : 75 + p; }
long RelRow(unsigned gain, unsigned ref) {
    return Row(gain) != 0 && Row(gain) + 127 > Row(ref) ? Row(gain) + 127 - Row(ref) : 0;
}
unsigned Steps(unsigned ms) { return 48000u * ms / 1000u / 32u + 1u; }
int Mixed(int a, int b) {
    auto scaled = [](int x, long row) { return Algo::saturate16(int((int64_t(x) * AlgoRampGain::kGainTable[row] + 16384) >> 15)); };
    return Algo::sumSat16(scaled(a, RelRow(36, 40)), scaled(b, RelRow(30, 40)));
}

// The engine's clock keeps its seconds' product in 32 bits, so about every 4295 s it
// jumps back, and a period whose readings straddle the jump is not slept on. Checks
// that consecutive times (well under a second apart) are at least min apart but there.
void ExpectGapsAtLeast(const std::vector<Time>& t, std::chrono::microseconds min) {
    auto secUs = [](Time x) {
        return int32_t(uint32_t(std::chrono::duration_cast<std::chrono::seconds>(x.time_since_epoch()).count()) * 1000000u);
    };
    for (size_t i = 1; i < t.size(); ++i)
        EXPECT_TRUE(secUs(t[i]) < secUs(t[i - 1]) || t[i] - t[i - 1] >= min) << i;
}

// A host's silence algorithm: the library declares its fields, the host its behaviour.
struct HostSilence : AlgoSilence {
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> f) override { return f; }
};

class PlaybackTest : public EngineFixture<Playback> {
protected:
    // For the handlers, called on this thread: Init is not called.
    void Direct() {
        connect.SetAttachInputRampGain(true);
        pb.connect = &connect;
    }
    InputPtr Add(const std::string& type, const std::string& name = "") {
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
        return g->ramping ? RampTo(g->stepsLeft, std::lround(g->indexAcc + g->step * g->stepsLeft)) : RampTo(0, g->gainIndex);
    }
    // Returns once the thread has handled a message posted now, and so every period before.
    void Sync(int n) {
        Post(new MsgWriteInfo("/dev/null"));
        ASSERT_TRUE(connect.WaitForCalls("ChainMsgRecord", n, kWait));
    }
    // Starts the engine with ins (then a message, if any) queued; stops it once out has n frames.
    void Play(const std::vector<boost::shared_ptr<Input> >& ins, size_t n, MsgHead* then = nullptr) {
        for (const boost::shared_ptr<Input>& in : ins) Post(new MsgNewInput(in));
        if (then) Post(then);
        ASSERT_EQ(pb.Init(&connect), 0);
        ASSERT_TRUE(out->WaitForFrames(static_cast<int>(n), kWait));
        pb.DeInit();
    }

    Playback& pb = engine;
};

TEST_F(PlaybackTest, StreamVolumesStartAtTheTypesVolumeAndRampOnChanges) {
    Direct();
    InputPtr m1 = Add("music");
    EXPECT_EQ(pb.streamVolumes, (Volumes{{"music", 40}}));
    EXPECT_EQ(Ramp(m1), RampTo(0, 127));  // the speaker volume (40) is unity
    EXPECT_EQ(log.Lines().back(), "I Mixer_Playback:AddNewInput:Added the stream to the input list:Stream Type music");
    // Each row: a type's volume with the speaker's, and the ramps of two music inputs. A
    // type's own change ramps over 250 ms, a new speaker volume over 50 ms, a paused
    // stream not at all; a later input of the type starts at the type's volume at once.
    const struct { const char* type; unsigned vol, speaker; bool paused; RampTo m1, m2; } rows[] = {
        {"music", 30, 40, false, {Steps(250), RelRow(30, 40)}, {0, RelRow(30, 40)}},
        {"music", 20, 45, false, {Steps(50), RelRow(20, 45)}, {Steps(50), RelRow(20, 45)}},
        {"music", 25, 45, true, {Steps(250), RelRow(25, 45)}, {0, RelRow(25, 45)}},
        {"alert", 35, 45, true, {Steps(250), RelRow(25, 45)}, {0, RelRow(25, 45)}}};
    InputPtr m2;
    for (const auto& r : rows) {
        if (m2) m2->state = r.paused ? STATE_PAUSED : STATE_ACTIVE;
        pb.handleMsg(boost::make_shared<MsgSetStreamVol>(r.type, r.vol, r.speaker));
        if (!m2) m2 = Add("music");
        EXPECT_EQ(Ramp(m1), r.m1) << r.vol;
        EXPECT_EQ(Ramp(m2), r.m2) << r.vol;
    }
    EXPECT_EQ(pb.speakerVolume, 45);
    InputPtr a = Add("alert");
    EXPECT_EQ(Ramp(a), RampTo(0, RelRow(35, 45)));
    // A speaker volume goes to the output and resets every type to it (unity).
    connect.SetDefaultOutput(out);
    pb.SetupDefaultOutput();
    log.Clear();
    pb.handleMsg(boost::make_shared<MsgSetSpeakerVol>(60));
    EXPECT_EQ(out->Volumes(), std::vector<int>({45, 60}));
    EXPECT_EQ(pb.streamVolumes, (Volumes{{"alert", 60}, {"music", 60}}));
    EXPECT_EQ(Ramp(a), RampTo(Steps(250), 127));
    EXPECT_EQ(log.Lines().back(), "I def:Mixer_Playback:SetSpeakerVol:volume percent changed to 60");
    // Each type is set once per input of it, and each setting walks every input.
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:music 60:"), 4);
    EXPECT_EQ(log.CountPrefix("D Mixer_Playback:MsgSetStreamVol:"), 3 * 3 + 5);
}

TEST_F(PlaybackTest, ChangeOutputRefusedKeepsTheOldOutput) {
    Direct();
    connect.SetDefaultOutputs({});
    pb.SetupDefaultOutput();
    EXPECT_EQ(log.Lines(), Lines({"E Mixer_Playback:GetPlaybackDefaultOutput returned NULL!::"}));
    connect.SetDefaultOutput(out);
    pb.SetupDefaultOutput();
    const boost::shared_ptr<StreamOut> old = pb.outStream;
    EXPECT_EQ(log.Lines().back(), "I Mixer_Playback:SetupDefaultOutput:Done: speaker volume percent = 40");
    OutputPtr usb = boost::make_shared<FakeOutput>("Usb");
    for (int refused : {1, 0}) {
        connect.SetAddPlaybackOutputAlgosResult(-refused);
        pb.handleMsg(boost::make_shared<MsgNewOutput>(usb, static_cast<tPlaybackModes>(7)));
        EXPECT_EQ(pb.output, refused ? out : usb);
        EXPECT_EQ(pb.outStream == old, refused == 1);
        EXPECT_EQ(usb->Volumes(), refused ? std::vector<int>() : std::vector<int>({40}));
        EXPECT_EQ(log.Count("I Mixer_Playback:ChangeOutput:Changed Output:"), 1 - refused);
        EXPECT_EQ(connect.OutputAlgos().back().mode, 7u);
    }
    EXPECT_EQ(log.Count("I Mixer_Playback:ChangeOutput:Mode 7:"), 2);
    EXPECT_EQ(pb.outStream->GetOutput(), usb);
}

TEST_F(PlaybackTest, FocusMovesTheTypeToTheFrontKeepingArrivalOrder) {
    Direct();
    InputPtr in[] = {Add("music", "m1"), Add("nav", "n1"), Add("music", "m2"), Add("alert", "a1")};
    auto order = [&] {
        std::string names;
        for (const boost::shared_ptr<Stream>& s : pb.inputs) names += s->GetName() + " ";
        return names;
    };
    pb.handleMsg(boost::make_shared<MsgSetFocus>("music"));
    EXPECT_EQ(order(), "m1 m2 n1 a1 ");
    EXPECT_EQ(in[2]->priority + in[1]->priority, 1u);
    pb.SetFocus("video");  // no input has it: nothing changes
    EXPECT_EQ(pb.focusStreamType, "music");
    EXPECT_EQ(log.Lines().back(), "I Mixer_Playback:setFocus:Size of the input list 4:");
    pb.SetFocus("alert");  // both focused types keep their relative order
    EXPECT_EQ(order(), "m1 m2 a1 n1 ");
    // Later inputs: the cached type moves to the front at once, others stay behind.
    Add("alert", "a2");
    EXPECT_TRUE(log.Has("I Mixer_Playback:ApplyCurrentFocus:New stream needs to be focussed based on the cache:"));
    Add("nav", "n2");
    EXPECT_EQ(order(), "m1 m2 a1 a2 n1 n2 ");
}

TEST_F(PlaybackTest, ClientCommandsFadeOver250Ms) {
    Direct();
    InputPtr m = Add("music");
    // Each row: the command, the input's operations and the ramp that follow (then the
    // 20-ms frames played); a resume goes back to the type's volume, or to silence where
    // the type has none (the last).
    const struct { tInOutCmd cmd; Lines ops; RampTo ramp; int frames; } rows[] = {
        {CMD_PAUSE, {"GetCmd 1", "PauseDelay 250", "HandleCmd 1"}, {Steps(250), 0}, 13},
        {CMD_RESUME, {"GetCmd 8", "HandleCmd 8"}, {Steps(250), 127}, 13},
        {CMD_DRAIN, {"GetCmd 2", "HandleCmd 2"}, {0, 127}, 13},
        {CMD_RESUME, {"GetCmd 8", "HandleCmd 8"}, {Steps(250), 0}, 0}};
    for (const auto& r : rows) {
        if (&r == &rows[3]) pb.streamVolumes.clear();
        const size_t before = m->Ops().size();
        m->SetCmd(r.cmd);
        pb.CheckForCmd(StreamOf(m));
        const Lines ops = m->Ops();
        EXPECT_EQ(Lines(ops.begin() + before, ops.end()), r.ops);
        EXPECT_EQ(Ramp(m), r.ramp) << r.cmd;
        for (int i = 0; i < r.frames; ++i) m->Push(m->MakeFrame(1)), StreamOf(m)->Process();
    }
    EXPECT_TRUE(log.Has("W Mixer_Playback:CheckForCmd:Resume NO volume for music:"));
}

TEST_F(PlaybackTest, DispatchDropsUnknownCodesAndCodesWithTheWrongClass) {
    Direct();
    EXPECT_EQ(Playback().Init(nullptr), -1);
    for (unsigned code = 0; code <= 9; ++code) {  // as bare heads only 5 and 6 are valid
        log.Clear();
        pb.handleMsg(boost::make_shared<MsgHead>(code));
        Lines want;
        if (code == MSG_LATENCY_TEST) want = {"W Mixer_Playback:LatencyTestStart:Could not find AlgoSilence:"};
        else if (code != MSG_PING) want = {"E Mixer_Playback:handleMsg:Unsupported type " + std::to_string(code) + ":"};
        EXPECT_EQ(log.Lines(), want) << code;
    }
    // A report request goes on to the record engine, even when unwritable here.
    boost::shared_ptr<MsgHead> info = boost::make_shared<MsgWriteInfo>("/nonexistent-dir/status");
    pb.handleMsg(info);
    EXPECT_EQ(log.Lines().back(), "W Mixer_Playback:WriteInfo:Could not open /nonexistent-dir/status:");
    EXPECT_EQ(connect.ChainedMsgs(), std::vector<boost::shared_ptr<MsgHead> >({info}));
}

TEST_F(PlaybackTest, ReportReplacesTheFileWithTheStateAndTheInputsInFocusOrder) {
    Direct();
    char path[] = "/tmp/playback-report-XXXXXX";
    ASSERT_EQ(close(mkstemp(path)), 0);
    std::ofstream(path) << std::string(300, 'x');  // longer than a report
    auto report = [&] {
        pb.WriteInfo(path);
        std::stringstream ss;
        ss << std::ifstream(path).rdbuf();
        return ss.str();
    };
    const std::string rule(49, '='), head = rule + "\nState info Mixer_Playback:\nOutput:";
    const std::string sums = "Sum rate: 44100 numCh: 1 ss: 4\nFrame len: 20\nNumber of input streams: ";
    EXPECT_EQ(report(), head + "\tUnknown\nInactivity count down: 20000\nSum rate: 0 numCh: 0 ss: 2\n"
                               "Frame len: 20\nNumber of input streams: 0\n" + rule + "\n");
    connect.SetSumParams(44100, 1, SAMPLE_SIZE_32);
    out = boost::make_shared<FakeOutput>("Speaker");
    connect.SetDefaultOutput(out);
    pb.SetupDefaultOutput();
    pb.idleCountdownMs = -20;
    EXPECT_EQ(report(), head + "Speaker\tActive\nInactivity count down: -20\n" + sums + "0\n" + rule + "\n");
    Add("music", "client-1");
    Add("nav", "client-2")->state = STATE_PAUSED;
    Add("alert", "client-3")->state = STATE_HANGUP;
    pb.SetFocus("nav");
    EXPECT_EQ(report(), head + "Speaker\tActive\nInactivity count down: 20000\n" + sums +
                            "3\n0\tnav\tPaused\tclient-2\n1\tmusic\tActive\tclient-1\n2\talert\tHangup\tclient-3\n" +
                            rule + "\n");
    unlink(path);
}

TEST_F(PlaybackTest, LatencyTestArmsTheHostsSilenceAlgorithm) {
    Direct();
    boost::shared_ptr<HostSilence> silence = boost::make_shared<HostSilence>();
    connect.SetOutputAlgosHook([silence](boost::shared_ptr<Output>, boost::shared_ptr<Stream> s) { s->AddAlgo(silence); });
    connect.SetDefaultOutput(out);
    pb.SetupDefaultOutput();
    silence->count = 7;
    struct timespec ts;  // the start is in ms, its seconds scaled in 32 bits
    clock_gettime(CLOCK_MONOTONIC, &ts);
    pb.handleMsg(boost::make_shared<MsgHead>(MSG_LATENCY_TEST));
    EXPECT_EQ(silence->count + 10 * silence->running, 10);
    EXPECT_NEAR(silence->startTimeMs, int32_t(uint32_t(ts.tv_sec) * 1000u) + ts.tv_nsec / 1000000, 1000);
}

TEST_F(PlaybackTest, NewInputWakesTheBlockedEngineAndIsHeardUntilDeInit) {
    out = boost::make_shared<FakeOutput>("Speaker");
    connect.SetDefaultOutput(out);
    ASSERT_EQ(pb.Init(&connect), 0);
    Sync(1);
    ASSERT_TRUE(log.WaitFor("E Mixer_Playback:inputList size is 0..::"));
    Sync(2);  // the pass after that one has made its choices too
    // Without inputs the engine only waits: nothing written, no idle ticking, one pause.
    EXPECT_EQ(out->FrameCount() + out->IdleTickCount(), 0);
    EXPECT_EQ(out->PauseCount(), 1);
    Post(new MsgNewInput(Scripted("a", {1, 2, 3})));
    ASSERT_TRUE(out->WaitForFrames(3, kWait));
    pb.DeInit();
    EXPECT_EQ(Levels(out), std::vector<int>({1, 2, 3}));
    EXPECT_EQ(out->ResumeCount(), 1);  // resumed before the first write
    EXPECT_FALSE(pb.output);           // released by DeInit
    EXPECT_TRUE(log.Has("E Mixer_Playback:In PlaybackrunLoop:...:") && log.Has("I Mixer_Playback:runLoop:Ready:"));
    pb.DeInit();     // again, as the destructor will
    Playback quick;  // stopped before its thread has run
    ASSERT_EQ(quick.Init(&connect), 0);
    quick.DeInit();
    EXPECT_EQ(log.Count("W Mixer_Playback:runLoop:Exiting!!!:"), 2);
}

// Each row: the output's name, whether the inputs (a, b, ...) have ramp gains at 36 and
// 30 % of 40, the levels of each input's frames, and the levels written. A period that
// erases an input skips its follower; one that erases the last input pulls a second
// frame from the front. Outputs not named "ALSA" are paced after each write, 40 ms apart.
struct MixCase {
    const char* output;
    bool gains;
    std::vector<std::vector<int> > inputs;
    std::vector<int> written;
};
class PlaybackMixTest : public PlaybackTest, public ::testing::WithParamInterface<MixCase> {};

TEST_P(PlaybackMixTest, WritesEachPeriodsSum) {
    const MixCase& c = GetParam();
    out = boost::make_shared<FakeOutput>(c.output);
    connect.SetDefaultOutput(out);
    connect.SetAttachInputRampGain(c.gains);
    Post(new MsgSetStreamVol("a", 36, 40));  // stored before the inputs arrive: at once
    Post(new MsgSetStreamVol("b", 30, 40));
    std::vector<boost::shared_ptr<Input> > ins;
    for (size_t i = 0; i < c.inputs.size(); ++i) ins.push_back(Scripted(std::string(1, char('a' + i)), c.inputs[i]));
    Play(ins, c.written.size());
    EXPECT_EQ(Levels(out), c.written);
    const int hangups = c.inputs.size() > 1 && c.inputs[1][0] == kHangUp;
    EXPECT_EQ(log.Count("W Mixer_Playback:runLoop:Erasing Input b:"), hangups);
    EXPECT_EQ(pb.inputs.size(), c.inputs.size() - hangups);
    const std::vector<Time> posts = out->PostWriteTimes(), writes = out->WriteTimes();
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

TEST_F(PlaybackTest, DuckingTurnsOnOnceWhilePrioritySoundsAndOffOnceAfter) {
    connect.SetDefaultOutput(out);
    connect.SetAttachInputRampGain(true);
    connect.SetAudioVolume(41);
    Play({Scripted("music", std::vector<int>(8, 1000)), Scripted("nav", {1000, 1000, 1000})}, 8,
         new MsgSetFocus("nav"));
    Lines ducking;
    for (const std::string& line : log.Lines())
        if (line.find("AudioDucking:") != std::string::npos) ducking.push_back(line);
    EXPECT_EQ(ducking, Lines({"I Mixer_Playback:AudioDucking:Enabling audio ducking:",
                              "I Mixer_Playback:AudioDucking:Disabling audio ducking:"}));
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:music 20:"), 1);  // ducked: 41 / 2
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:nav 41:"), 2);    // on, then off
    EXPECT_EQ(pb.streamVolumes, (Volumes{{"music", 41}, {"nav", 41}}));
    EXPECT_EQ(log.CountPrefix("P Mixer_Playback:setFocus:Timestamp-"), 3);
}

TEST_F(PlaybackTest, FailedOutputIsReplacedByTheDefault) {
    OutputPtr first = boost::make_shared<FakeOutput>("Speaker");
    first->FailAtWrite(2, STATE_FAULT);
    connect.SetDefaultOutputs({first, out});
    Play({Scripted("a", {1, 2, 3, 4})}, 2);
    EXPECT_EQ(Levels(first), std::vector<int>({1, 2}));
    EXPECT_EQ(Levels(out), std::vector<int>({3, 4}));
    EXPECT_EQ(first->PostWriteCount(), 1);  // the failed write is not paced
    EXPECT_EQ(log.Count("E Mixer_Playback:Process:Error or Output closed - revert to default out:"), 1);
    EXPECT_EQ(connect.CallCount("GetPlaybackDefaultOutput"), 2);
}

TEST_F(PlaybackTest, TwentySecondsOfSilencePauseTheOutputOnceAndThenTheThreadSleeps) {
    connect.SetDefaultOutput(out);
    boost::shared_ptr<ThreadNotingInput> in = boost::make_shared<ThreadNotingInput>(48000, 2, "a");
    in->Push(in->MakeFrame(5));  // one frame, then silence
    Post(new MsgNewInput(in));
    ASSERT_EQ(pb.Init(&connect), 0);
    // The sounding period, then 1000 silent ones of 20 ms.
    ASSERT_TRUE(in->WaitForOps("Process", 1001, std::chrono::milliseconds(120000)));
    ASSERT_TRUE(log.WaitFor("I Mixer_Playback:Process:Pause:0")) << log.Dump();
    auto periods = [&] {  // the trace line that opens each period
        int n = 0;
        for (const std::string& l : log.Lines()) n += l.find(":Entering...:") != std::string::npos;
        return n;
    };
    EXPECT_EQ(periods(), 1002);  // the sounding one, 1000 silent, the one that pauses
    // Idle: over a window that would hold ten periods none begins, the input is not
    // asked, and the thread is not woken at all, however briefly.
    const long switches = WaitUntilAsleep(in->tid, kWait);
    ASSERT_GE(switches, 0);
    EXPECT_FALSE(in->WaitForOps("Process", 1002, std::chrono::milliseconds(200)));
    EXPECT_EQ(ContextSwitches(in->tid), switches);
    EXPECT_EQ(periods(), 1002);
    EXPECT_EQ(out->IdleTickCount(), 1000);
    EXPECT_EQ(out->PauseCount(), 2);  // before the first message, and after the silence
    EXPECT_EQ(log.Count("I Mixer_Playback:Process:Pause:20000") + log.Count("I Mixer_Playback:Process:Pause:0"), 2);
    Sync(1);  // a message wakes it
    EXPECT_TRUE(WaitForSwitchesAbove(in->tid, switches));
    pb.DeInit();
    ExpectGapsAtLeast(out->IdleTickTimes(), std::chrono::microseconds(19999));
}

// A client process that dies or stops inside its queue's lock, kept fed with silence
// until then, beside a tone: the tone plays on in every period and the client's stream
// is erased.
class PlaybackClientTest : public PlaybackTest, public ::testing::WithParamInterface<bool> {
protected:
    PlaybackClientTest() {
        LockingClient::Options o;
        o.create = o.feed = true;
        o.blkSize = 4 * 960;
        client.reset(new LockingClient(name.str(), o));
    }
    ShmName name;
    std::unique_ptr<LockingClient> client;  // forked before the engine's thread exists
};

TEST_P(PlaybackClientTest, ClientKilledOrStoppedInsideItsLockIsErasedWhileTheOthersPlayOn) {
    const bool kill = GetParam();
    ASSERT_TRUE(client->Ready());
    boost::shared_ptr<DataTrans> queue = boost::make_shared<DataTrans>();
    ASSERT_EQ(queue->Init(name.c_str()), 0);
    boost::shared_ptr<InputDataTrans> bad = boost::make_shared<InputDataTrans>(queue, 48000, 2, 2, "client");
    boost::shared_ptr<SineInput> tone = boost::make_shared<SineInput>(48000, 2, 440.0, 8000.0, "music");
    out = boost::make_shared<FakeOutput>("Speaker");
    connect.SetDefaultOutput(out);
    // The client's stream first: the stream after an erased one is skipped for that
    // period, so with the tone second its frames stay in sequence, none missing or twice.
    Post(new MsgNewInput(bad));
    Post(new MsgNewInput(tone));
    ASSERT_EQ(pb.Init(&connect), 0);
    ASSERT_TRUE(out->WaitForFrames(5, kWait));
    ASSERT_TRUE(client->Lock());
    if (kill) client->Kill();
    else ASSERT_TRUE(client->Stop());
    ASSERT_TRUE(log.WaitFor("W Mixer_Playback:runLoop:Erasing Input " + name.str() + ":"));
    ASSERT_TRUE(out->WaitForFrames(out->FrameCount() + 5, kWait));
    pb.DeInit();
    EXPECT_FALSE(StreamOf(bad));
    const std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
    EXPECT_EQ(int(frames.size()), tone->FramesProduced());
    for (size_t f = 0; f < frames.size(); ++f)
        for (unsigned i = 0; i < 2 * 960; ++i)
            ASSERT_EQ(frames[f]->Samples16()[i], tone->SampleAt(f * 960 + i / 2)) << "frame " << f << " sample " << i;
    // With robust locks a dead client's stream ends as a hung-up one once its queue is
    // drained; without them (qemu-user), or while it is stopped, its lock stays taken
    // and the input gives up after its busy periods.
    const bool robust = kill && RobustLocksAvailable();
    EXPECT_EQ(bad->state, robust ? STATE_HANGUP : STATE_FAULT);
    EXPECT_EQ(log.Count(robust ? "E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + name.str() + ":"
                               : "E Mixer_InputDataTrans:Process:queue lock held for 500 ms, input faulted:"), 1);
    if (kill) return;
    // The mixer's end closes without the lock; the client, once it goes on, closes last
    // and removes the queue. (The fake host keeps the erased stream, and with it the
    // queue: the end is closed as its last owner would.)
    queue->DeInit();
    EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Hangup & Closed:"));
    ASSERT_TRUE(client->Continue() && client->Unlock());
    EXPECT_EQ(client->Finish(), 0);
    EXPECT_FALSE(name.Exists());
}

INSTANTIATE_TEST_SUITE_P(Client, PlaybackClientTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "Killed" : "Stopped"; });

}  // namespace
}  // namespace test
}  // namespace mixer
