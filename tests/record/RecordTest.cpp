#include "mixer/record/Record.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgPing.h"
#include "mixer/core/MsgSetStreamVol.h"
#include "mixer/core/MsgWriteInfo.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"
#include "tests/support/SilenceInput.h"
#include "tests/support/ThreadWakeups.h"

namespace mixer {
namespace {

using test::FakeConnect;
using test::FakeOutput;
using test::LogCapture;
using test::ScriptedInput;

typedef boost::shared_ptr<FakeOutput> OutPtr;
typedef boost::shared_ptr<ScriptedInput> MicPtr;

const char kNullPost[] = "I MsgQ:sendMsg:NULL:";
const std::chrono::milliseconds kWait(20000);

// Negates every sample in place: shows whether another stream's frame is shared.
class NegateAlgo : public Algo {
public:
    NegateAlgo() : Algo(ALGO_ID_NONE) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override {
        if (frame)
            for (uint32_t i = 0; i < frame->len * frame->numCh; ++i) frame->Samples16()[i] = -frame->Samples16()[i];
        return frame;
    }
};

// An algorithm that fails on every frame.
class FailAlgo : public Algo {
public:
    FailAlgo() : Algo(ALGO_ID_NONE) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame>) override {
        return boost::shared_ptr<AudioFrame>();
    }
};

// A 16 kHz mono microphone whose Process waits for the test's next frame, as a device
// read would.
MicPtr NewMic(const std::string& desc) {
    MicPtr mic(new ScriptedInput(16000, 1, desc));
    mic->SetBlockWhenEmpty(true);
    return mic;
}

class RecordTest : public ::testing::Test {
protected:
    RecordTest() : mic(NewMic("microphone")) {
        host.SetDefaultInput(mic);
        // Each output stream is named after its output, described as "meta-<name>", and
        // gets the algorithms the test chose for that output name.
        host.SetRecordAlgosHook([this](boost::shared_ptr<StreamOut> stream) {
            const std::string name = stream->GetOutput()->name;
            boost::shared_ptr<Input> tag(new test::SilenceInput(16000, 1, "meta-" + name));
            tag->name = name;
            stream->SetInput(tag);
            auto it = algoFor.find(name);
            if (it != algoFor.end()) stream->AddAlgo(it->second);
        });
    }

    ~RecordTest() override { Stop(); }

    void Start() {
        ASSERT_EQ(0, record.Init(&host));
        ASSERT_TRUE(log.WaitFor("I Mixer_Record:Process:Start 0:")) << log.Dump();
    }

    // DeInit wakes nobody: once it has cleared the flag (its empty post is logged),
    // a ping ends a wait on the queue and released microphones end a wait for a frame.
    void Stop() {
        if (stopped) return;
        stopped = true;
        const int posts = log.Count(kNullPost);
        std::thread stopper([this] { record.DeInit(); });
        log.WaitFor(kNullPost, posts + 1);
        Post(new MsgPing());
        mic->SetBlockWhenEmpty(false);
        for (const MicPtr& m : moreMics) m->SetBlockWhenEmpty(false);
        stopper.join();
    }

    void Post(MsgHead* msg) { record.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(msg)); }

    // Registers an output (keeping the written frames themselves, not copies) and waits
    // until the engine has built its stream.
    OutPtr AddOutput(const std::string& name) {
        OutPtr out(new FakeOutput(name));
        out->SetCopyFrames(false);
        const int built = host.CallCount("AddRecordAlgos");
        Post(new MsgNewOutput(out, PLAYBACK_MODE_DEFAULT));
        EXPECT_TRUE(host.WaitForCalls("AddRecordAlgos", built + 1, kWait));
        return out;
    }

    // A microphone frame with every sample set to value.
    boost::shared_ptr<AudioFrame> Feed(int16_t value) {
        boost::shared_ptr<AudioFrame> frame = mic->MakeFrame(value);
        mic->Push(frame);
        return frame;
    }

    // Sends one frame through and waits until every listed output has had n writes.
    void Pump(int16_t value, const std::vector<std::pair<OutPtr, int> >& expect) {
        Feed(value);
        for (const auto& e : expect) ASSERT_TRUE(e.first->WaitForFrames(e.second, kWait)) << e.first->name;
    }

    static std::vector<int16_t> FirstSamples(const OutPtr& out) {
        std::vector<int16_t> v;
        for (const auto& f : out->Frames()) v.push_back(f->Samples16()[0]);
        return v;
    }

    LogCapture log;
    FakeConnect host;
    MicPtr mic;
    std::vector<MicPtr> moreMics;
    std::map<std::string, boost::shared_ptr<Algo> > algoFor;  // set before Start
    Record record;
    bool stopped = false;
};

TEST(RecordInitTest, NullConnectionIsRefused) {
    Record record;
    EXPECT_EQ(-1, record.Init(nullptr));
    record.DeInit();  // no thread: returns at once
}

TEST_F(RecordTest, StartsWithoutPausingTheHandedOverInput) {
    Start();
    EXPECT_TRUE(log.Has("I Mixer_Record:runLoop:Start:"));
    EXPECT_EQ(std::vector<std::string>{"GetRecordDefaultInput"}, host.Calls());
    EXPECT_TRUE(mic->Ops().empty());
    // The first handled message, with nobody listening, pauses the input.
    Post(new MsgPing());
    ASSERT_TRUE(mic->WaitForOps("Pause", 1, kWait));
    EXPECT_EQ(0, mic->OpCount("Process"));
    EXPECT_EQ(1, log.Count("I Mixer_Record:Process:Pause:"));
}

TEST_F(RecordTest, WithoutListenerTheThreadSleepsUntilAMessage) {
    boost::shared_ptr<test::ThreadNotingInput> noting(new test::ThreadNotingInput(16000, 1, "mic"));
    noting->SetBlockWhenEmpty(true);
    mic = noting;
    host.SetDefaultInput(mic);
    Start();
    Post(new MsgPing());
    ASSERT_TRUE(mic->WaitForOps("Pause", 1, kWait));
    // Nothing is read and the thread is not woken at all, however briefly, over windows
    // that would hold a dozen passes each.
    const std::chrono::milliseconds window(200);
    const long switchesBefore = test::WaitUntilAsleep(noting->tid, kWait);
    ASSERT_GE(switchesBefore, 0);
    EXPECT_FALSE(mic->WaitForOps("Process", 1, window));
    EXPECT_EQ(test::ContextSwitches(noting->tid), switchesBefore);
    EXPECT_EQ(1, mic->OpCount("Pause"));
    // A message wakes it: handled, and back to sleep with the input left paused.
    Post(new MsgEnableMic(1));
    ASSERT_TRUE(log.WaitFor("I Mixer_Record:handleMsg:MicEnable=1:"));
    EXPECT_GT(test::ContextSwitches(noting->tid), switchesBefore);
    EXPECT_EQ(0, mic->OpCount("Process"));
}

TEST_F(RecordTest, DeInitReturnsOnlyAfterAnotherMessage) {
    Start();
    std::future<void> done = std::async(std::launch::async, [this] { record.DeInit(); });
    ASSERT_TRUE(log.WaitFor(kNullPost));
    // Nobody posts: the thread keeps waiting on its queue, so DeInit cannot return.
    EXPECT_EQ(std::future_status::timeout, done.wait_for(std::chrono::milliseconds(100)));
    Post(new MsgPing());
    done.get();
    EXPECT_TRUE(log.Has("W Mixer_Record:runLoop:Exiting!!!:"));
    stopped = true;
}

TEST_F(RecordTest, NoFrameIsReadUntilMicIsEnabled) {
    Start();
    OutPtr a = AddOutput("A");
    ASSERT_TRUE(mic->WaitForOps("Pause", 1, kWait));  // a listener, but the microphone is off
    Post(new MsgEnableMic(1));
    ASSERT_NO_FATAL_FAILURE(Pump(5, {{a, 1}}));
    EXPECT_TRUE(log.Has("I Mixer_Record:handleMsg:MicEnable=1:"));
    EXPECT_TRUE(log.Has("I Mixer_Record:Process:Resume:"));
    const std::vector<std::string> expected = {"Pause", "Resume", "Process"};
    const std::vector<std::string> ops = mic->Ops();
    ASSERT_GE(ops.size(), 3u);
    EXPECT_EQ(expected, std::vector<std::string>(ops.begin(), ops.begin() + 3));

    // Switching the microphone off pauses the input after the frame in progress.
    ASSERT_TRUE(mic->WaitForOps("Process", 2, kWait));  // waiting for the next frame
    Post(new MsgEnableMic(0));
    ASSERT_NO_FATAL_FAILURE(Pump(6, {{a, 2}}));
    ASSERT_TRUE(mic->WaitForOps("Pause", 2, kWait));
    EXPECT_TRUE(log.Has("I Mixer_Record:handleMsg:MicEnable=0:"));
    const int reads = mic->OpCount("Process");
    Post(new MsgEnableMic(1));
    ASSERT_TRUE(mic->WaitForOps("Resume", 2, kWait));
    ASSERT_TRUE(mic->WaitForOps("Process", reads + 1, kWait));
}

TEST_F(RecordTest, SingleOutputGetsTheInputFrameItself) {
    Start();
    OutPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = Feed(7);
    ASSERT_TRUE(a->WaitForFrames(1, kWait));
    ASSERT_EQ(1u, a->Frames().size());
    EXPECT_EQ(frame.get(), a->Frames()[0].get());
}

TEST_F(RecordTest, SeveralOutputsGetDeepCopiesSoAlgorithmsStayApart) {
    algoFor["A"].reset(new NegateAlgo());
    Start();
    OutPtr a = AddOutput("A");
    OutPtr b = AddOutput("B");
    OutPtr c = AddOutput("C");
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = mic->MakeFrame(0);
    for (uint32_t i = 0; i < frame->len; ++i) frame->Samples16()[i] = static_cast<int16_t>(i * 3 - 100);
    std::strcpy(frame->bufId, "12 34");
    frame->bufId[kBufIdLen - 1] = 'z';  // past the terminator: the whole field is copied
    const std::string samples(frame->data, frame->size);
    mic->Push(frame);
    ASSERT_TRUE(c->WaitForFrames(1, kWait));

    const boost::shared_ptr<AudioFrame> fa = a->Frames().at(0);
    const boost::shared_ptr<AudioFrame> fb = b->Frames().at(0);
    const boost::shared_ptr<AudioFrame> fc = c->Frames().at(0);
    for (const auto& f : {fa, fb, fc}) EXPECT_NE(frame.get(), f.get());
    EXPECT_NE(fa->data, fb->data);
    EXPECT_NE(fb->data, fc->data);
    EXPECT_NE(fa->data, fc->data);
    for (const auto& f : {fb, fc}) {
        EXPECT_EQ(frame->sampleSize, f->sampleSize);
        EXPECT_EQ(frame->rate, f->rate);
        EXPECT_EQ(frame->numCh, f->numCh);
        EXPECT_EQ(frame->lenMs, f->lenMs);
        EXPECT_EQ(frame->len, f->len);
        EXPECT_EQ(frame->size, f->size);
        EXPECT_EQ(frame->allocSize, f->allocSize);
        EXPECT_EQ(0, std::memcmp(frame->data, f->data, frame->size));
        EXPECT_EQ(0, std::memcmp(frame->bufId, f->bufId, kBufIdLen));
    }
    // A's algorithm changed only A's copy, neither the others nor the input's frame.
    for (uint32_t i = 0; i < frame->len; ++i) ASSERT_EQ(-frame->Samples16()[i], fa->Samples16()[i]) << i;
    EXPECT_EQ(samples, std::string(frame->data, frame->size));
}

TEST_F(RecordTest, HungUpOutputIsRemovedAfterItsWrite) {
    Start();
    OutPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    a->FailAtWrite(1, STATE_HANGUP);
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 1}}));
    // Paused once while the microphone was off, and again once nobody listens.
    ASSERT_TRUE(mic->WaitForOps("Pause", 2, kWait));
    EXPECT_TRUE(log.Has("W Mixer_Record:runLoop:Erasing A:")) << log.Dump();
    EXPECT_EQ(2, log.Count("I Mixer_Record:Process:Pause:"));
    // Nobody listens any more: the next frame is not read.
    EXPECT_EQ(1, mic->OpCount("Process"));
    EXPECT_EQ(1u, host.RecordAlgos().size());
}

TEST_F(RecordTest, FailingAlgorithmRemovesItsStreamAndPassesTheNextOverInThatPass) {
    algoFor["A"].reset(new FailAlgo());
    Start();
    OutPtr a = AddOutput("A");
    OutPtr b = AddOutput("B");
    OutPtr c = AddOutput("C");
    Post(new MsgEnableMic(1));
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{c, 1}}));
    ASSERT_NO_FATAL_FAILURE(Pump(2, {{b, 1}, {c, 2}}));
    EXPECT_TRUE(a->Frames().empty());
    EXPECT_EQ(std::vector<int16_t>{2}, FirstSamples(b));  // frame 1 passed B over
    EXPECT_EQ(std::vector<int16_t>({1, 2}), FirstSamples(c));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Algo Error:"));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Erasing A:"));
}

TEST_F(RecordTest, RemovingTheLastEntryRepeatsTheFrameToTheOthers) {
    Start();
    OutPtr a = AddOutput("A");
    OutPtr b = AddOutput("B");
    OutPtr c = AddOutput("C");
    Post(new MsgEnableMic(1));
    c->FailAtWrite(1, STATE_FAULT);
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 2}, {b, 2}, {c, 1}}));
    ASSERT_NO_FATAL_FAILURE(Pump(2, {{a, 3}, {b, 3}}));
    EXPECT_EQ(std::vector<int16_t>({1, 1, 2}), FirstSamples(a));
    EXPECT_EQ(std::vector<int16_t>({1, 1, 2}), FirstSamples(b));
    EXPECT_EQ(std::vector<int16_t>{1}, FirstSamples(c));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Erasing C:"));
    // In the repeated round there are still two streams: each gets its own copy.
    EXPECT_NE(a->Frames()[0].get(), a->Frames()[1].get());
    std::vector<std::pair<FakeOutput::Clock::time_point, std::string> > writes;
    for (const OutPtr& out : {a, b, c})
        for (const auto& t : out->WriteTimes()) writes.emplace_back(t, out->name);
    std::stable_sort(writes.begin(), writes.end(),
                     [](const std::pair<FakeOutput::Clock::time_point, std::string>& x,
                        const std::pair<FakeOutput::Clock::time_point, std::string>& y) { return x.first < y.first; });
    std::vector<std::string> order;
    for (const auto& w : writes) order.push_back(w.second);
    EXPECT_EQ(std::vector<std::string>({"A", "B", "C", "A", "B", "A", "B"}), order);

    // B, the last entry now, goes too: A, alone in the repeated round, gets the frame itself.
    b->FailAtWrite(4, STATE_HANGUP);
    boost::shared_ptr<AudioFrame> frame = Feed(3);
    ASSERT_TRUE(a->WaitForFrames(5, kWait));
    EXPECT_EQ(std::vector<int16_t>({1, 1, 2, 3, 3}), FirstSamples(a));
    EXPECT_NE(frame.get(), a->Frames()[3].get());
    EXPECT_EQ(frame.get(), a->Frames()[4].get());
}

TEST_F(RecordTest, InputWithoutFrameIsReplaced) {
    MicPtr second = NewMic("mic2");
    moreMics.push_back(second);
    host.SetDefaultInputs({mic, second});
    Start();
    OutPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 1}}));
    mic->SetBlockWhenEmpty(false);  // the next read finds nothing
    ASSERT_TRUE(host.WaitForCalls("GetRecordDefaultInput", 2, kWait));
    second->Push(second->MakeFrame(2));
    ASSERT_TRUE(a->WaitForFrames(2, kWait));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Input Error:"));
    EXPECT_EQ(std::vector<int16_t>({1, 2}), FirstSamples(a));
}

TEST_F(RecordTest, ThreeFramesSpanMoreThanOnePeriod) {
    Start();
    OutPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    for (int16_t v = 1; v <= 3; ++v) Feed(v);
    ASSERT_TRUE(a->WaitForFrames(3, kWait));
    const auto times = a->WriteTimes();
    // Frames ready at once are still read one pass at a time, 15 ms apart.
    EXPECT_GT(times[2] - times[0], std::chrono::microseconds(15000));
}

TEST_F(RecordTest, UnsupportedCodesAreLoggedAndDropped) {
    Start();
    Post(new MsgSetStreamVol());
    Post(new MsgHead(MSG_NEW_INPUT));
    Post(new MsgHead(MSG_SET_SPEAKER_VOL));
    Post(new MsgHead(MSG_LATENCY_TEST));
    Post(new MsgPing());
    Post(new MsgHead(MSG_NEW_OUTPUT));  // the code without its class
    Post(new MsgHead(MSG_SET_FOCUS));
    Post(new MsgHead(9));
    ASSERT_TRUE(log.WaitFor("E Mixer_Record:handleMsg:Unsupported type 9:")) << log.Dump();
    for (unsigned code : {2u, 0u, 3u, 5u, 1u, 8u})
        EXPECT_EQ(1, log.Count("E Mixer_Record:handleMsg:Unsupported type " + std::to_string(code) + ":"))
            << code;
    EXPECT_EQ(7, log.CountPrefix("E Mixer_Record:handleMsg:Unsupported type "));
    EXPECT_TRUE(host.RecordAlgos().empty());
}

class RecordReportTest : public RecordTest {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/record-report-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        file = dir + "/status.txt";
    }
    void TearDown() override {
        Stop();
        std::remove(file.c_str());
        rmdir(dir.c_str());
    }
    // Asks for a report and waits until it has been written. While recording, the
    // messages wait for the end of a pass: feed lets one frame through.
    void Report(const std::string& name, bool feed = false) {
        const int marks = log.Count("E Mixer_Record:handleMsg:Unsupported type 99:");
        Post(new MsgWriteInfo(name));
        Post(new MsgHead(99));
        if (feed) Feed(1);
        ASSERT_TRUE(log.WaitFor("E Mixer_Record:handleMsg:Unsupported type 99:", marks + 1));
    }
    std::string Contents() {
        std::ifstream in(file.c_str());
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string dir, file;
};

TEST_F(RecordReportTest, ReportsAreAppended) {
    Start();
    ASSERT_NO_FATAL_FAILURE(Report(file));
    const std::string first =
        "State info Mixer_Record:\n"
        "Input: microphone\tActive\n"
        "Mic Enable: 0\n"
        "Number of streams: 0\n"
        "=================================================\n";
    EXPECT_EQ(first, Contents());

    AddOutput("A");
    AddOutput("B");
    Post(new MsgEnableMic(-3));
    ASSERT_TRUE(mic->WaitForOps("Process", 1, kWait));
    ASSERT_NO_FATAL_FAILURE(Report(file, true));
    const std::string second =
        "State info Mixer_Record:\n"
        "Input: microphone\tActive\n"
        "Mic Enable: -3\n"
        "Number of streams: 2\n"
        "0\tmeta-A\tA\n"
        "1\tmeta-B\tB\n"
        "=================================================\n";
    EXPECT_EQ(first + second, Contents());
}

TEST_F(RecordReportTest, UnopenableFileIsOnlyWarned) {
    Start();
    const std::string bad = dir + "/missing/status.txt";
    ASSERT_NO_FATAL_FAILURE(Report(bad));
    EXPECT_TRUE(log.Has("W Mixer_Record:WriteInfo:Could not open " + bad + ":")) << log.Dump();
}

}  // namespace
}  // namespace mixer
