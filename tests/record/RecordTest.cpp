#include "mixer/record/Record.h"

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <thread>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgPing.h"
#include "mixer/core/MsgSetStreamVol.h"
#include "mixer/core/MsgWriteInfo.h"
#include "tests/record/RecordFakes.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using test::FailAlgo;
using test::LogCapture;
using test::MicFrame;
using test::MicInput;
using test::NegateAlgo;
using test::RecordHost;
using test::TapOutput;
using test::Trace;

typedef boost::shared_ptr<TapOutput> TapPtr;

const char kNullPost[] = "I MsgQ:sendMsg:NULL:";

class RecordTest : public ::testing::Test {
protected:
    RecordTest() : host(trace), mic(new MicInput(trace, "mic")) { host.AddInput(mic); }

    ~RecordTest() override { Stop(); }

    void Start() {
        ASSERT_EQ(0, record.Init(&host));
        ASSERT_TRUE(log.WaitFor("I Mixer_Record:Process:Start 0:")) << log.Dump();
    }

    // DeInit wakes nobody: once it has cleared the flag (its empty post is logged),
    // a ping ends a wait on the queue and closed microphones end a wait for a frame.
    void Stop() {
        if (stopped) return;
        stopped = true;
        const int posts = log.Count(kNullPost);
        std::thread stopper([this] { record.DeInit(); });
        log.WaitFor(kNullPost, posts + 1);
        Post(new MsgPing());
        mic->Close();
        for (const boost::shared_ptr<MicInput>& m : moreMics) m->Close();
        stopper.join();
    }

    void Post(MsgHead* msg) { record.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(msg)); }

    TapPtr AddOutput(const std::string& name) {
        TapPtr out(new TapOutput(trace, name));
        Post(new MsgNewOutput(out, PLAYBACK_MODE_DEFAULT));
        EXPECT_TRUE(trace.WaitFor("host:algos " + name));
        return out;
    }

    // Sends one frame through and waits until every listed output has had n writes.
    void Pump(int16_t value, const std::vector<std::pair<TapPtr, int> >& expect) {
        mic->Feed(MicFrame(value));
        for (const auto& e : expect) ASSERT_TRUE(trace.WaitFor(e.first->name + ":write", e.second));
    }

    static std::vector<int16_t> FirstSamples(const TapPtr& out) {
        std::vector<int16_t> v;
        for (const auto& f : out->Frames()) v.push_back(f->Samples16()[0]);
        return v;
    }

    LogCapture log;
    Trace trace;
    RecordHost host;
    boost::shared_ptr<MicInput> mic;
    std::vector<boost::shared_ptr<MicInput> > moreMics;
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
    EXPECT_EQ(std::vector<std::string>{"host:input mic"}, trace.Entries());
    // The first handled message, with nobody listening, pauses the input.
    Post(new MsgPing());
    ASSERT_TRUE(trace.WaitFor("mic:pause"));
    EXPECT_EQ(0, trace.Count("mic:process"));
    EXPECT_EQ(1, log.Count("I Mixer_Record:Process:Pause:"));
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
    TapPtr a = AddOutput("A");
    ASSERT_TRUE(trace.WaitFor("mic:pause"));  // a listener, but the microphone is off
    Post(new MsgEnableMic(1));
    ASSERT_NO_FATAL_FAILURE(Pump(5, {{a, 1}}));
    EXPECT_TRUE(log.Has("I Mixer_Record:handleMsg:MicEnable=1:"));
    EXPECT_TRUE(log.Has("I Mixer_Record:Process:Resume:"));
    const std::vector<std::string> expected = {"mic:pause", "mic:resume", "mic:process"};
    const std::vector<std::string> micEntries = trace.Only("mic:");
    ASSERT_GE(micEntries.size(), 3u);
    EXPECT_EQ(expected, std::vector<std::string>(micEntries.begin(), micEntries.begin() + 3));

    // Switching the microphone off pauses the input after the frame in progress.
    ASSERT_TRUE(trace.WaitFor("mic:process", 2));  // waiting for the next frame
    Post(new MsgEnableMic(0));
    ASSERT_NO_FATAL_FAILURE(Pump(6, {{a, 2}}));
    ASSERT_TRUE(trace.WaitFor("mic:pause", 2));
    EXPECT_TRUE(log.Has("I Mixer_Record:handleMsg:MicEnable=0:"));
    const int reads = trace.Count("mic:process");
    Post(new MsgEnableMic(1));
    ASSERT_TRUE(trace.WaitFor("mic:resume", 2));
    ASSERT_TRUE(trace.WaitFor("mic:process", reads + 1));
}

TEST_F(RecordTest, SingleOutputGetsTheInputFrameItself) {
    Start();
    TapPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = MicFrame(7);
    mic->Feed(frame);
    ASSERT_TRUE(trace.WaitFor("A:write"));
    ASSERT_EQ(1u, a->Frames().size());
    EXPECT_EQ(frame.get(), a->Frames()[0].get());
}

TEST_F(RecordTest, TwoOutputsGetDistinctEqualCopies) {
    Start();
    TapPtr a = AddOutput("A");
    TapPtr b = AddOutput("B");
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = MicFrame(9, "12 34");
    for (uint32_t i = 0; i < frame->len; ++i) frame->Samples16()[i] = static_cast<int16_t>(i * 3 - 100);
    frame->bufId[kBufIdLen - 1] = 'z';  // past the terminator: the whole field is copied
    mic->Feed(frame);
    ASSERT_TRUE(trace.WaitFor("B:write"));

    const boost::shared_ptr<AudioFrame> fa = a->Frames().at(0);
    const boost::shared_ptr<AudioFrame> fb = b->Frames().at(0);
    EXPECT_NE(frame.get(), fa.get());
    EXPECT_NE(frame.get(), fb.get());
    EXPECT_NE(fa.get(), fb.get());
    EXPECT_NE(fa->data, fb->data);
    for (const auto& f : {fa, fb}) {
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
}

TEST_F(RecordTest, AlgorithmsOfOneStreamDoNotTouchAnother) {
    TapPtr a(new TapOutput(trace, "A"));
    host.AddAlgoFor(a, boost::shared_ptr<Algo>(new NegateAlgo()));
    Start();
    Post(new MsgNewOutput(a, PLAYBACK_MODE_DEFAULT));
    TapPtr b = AddOutput("B");
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = MicFrame(40);
    mic->Feed(frame);
    ASSERT_TRUE(trace.WaitFor("B:write"));
    EXPECT_EQ(std::vector<int16_t>{-40}, FirstSamples(a));
    EXPECT_EQ(std::vector<int16_t>{40}, FirstSamples(b));
    EXPECT_EQ(40, frame->Samples16()[frame->len - 1]);
}

TEST_F(RecordTest, HungUpOutputIsRemovedAfterItsWrite) {
    Start();
    TapPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    a->SetStateAfterWrite(STATE_HANGUP);
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 1}}));
    // Paused once while the microphone was off, and again once nobody listens.
    ASSERT_TRUE(trace.WaitFor("mic:pause", 2));
    EXPECT_TRUE(log.Has("W Mixer_Record:runLoop:Erasing A:")) << log.Dump();
    EXPECT_EQ(2, log.Count("I Mixer_Record:Process:Pause:"));
    // Nobody listens any more: the next frame is not read.
    EXPECT_EQ(1, trace.Count("mic:process"));
    // The engine let go of the stream and, with it, of the output.
    EXPECT_EQ(1u, host.Streams().size());
}

TEST_F(RecordTest, FaultedOutputIsRemovedOthersGoOn) {
    Start();
    TapPtr a = AddOutput("A");
    TapPtr b = AddOutput("B");
    Post(new MsgEnableMic(1));
    b->SetStateAfterWrite(STATE_FAULT);
    // B was the last entry: its removal sends frame 1 round to A once more.
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 2}, {b, 1}}));
    boost::shared_ptr<AudioFrame> frame = MicFrame(2);
    mic->Feed(frame);
    ASSERT_TRUE(trace.WaitFor("A:write", 3));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Erasing B:"));
    EXPECT_EQ(1u, b->Frames().size());
    EXPECT_EQ(std::vector<int16_t>({1, 1, 2}), FirstSamples(a));
    // A is alone now: it gets the frame itself.
    EXPECT_EQ(frame.get(), a->Frames()[2].get());
}

TEST_F(RecordTest, FailingAlgorithmRemovesOnlyItsStream) {
    TapPtr a(new TapOutput(trace, "A"));
    host.AddAlgoFor(a, boost::shared_ptr<Algo>(new FailAlgo()));
    Start();
    Post(new MsgNewOutput(a, PLAYBACK_MODE_DEFAULT));
    TapPtr b = AddOutput("B");
    Post(new MsgEnableMic(1));
    mic->Feed(MicFrame(1));
    ASSERT_TRUE(log.WaitFor("W Mixer_Record:runLoop:Erasing A:")) << log.Dump();
    // A was first: its removal passes B over for frame 1.
    ASSERT_NO_FATAL_FAILURE(Pump(2, {{b, 1}}));
    ASSERT_NO_FATAL_FAILURE(Pump(3, {{b, 2}}));
    EXPECT_TRUE(a->Frames().empty());
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Algo Error:"));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Erasing A:"));
    EXPECT_EQ(std::vector<int16_t>({2, 3}), FirstSamples(b));
}

TEST_F(RecordTest, RemovingTheFirstOfThreeSkipsTheSecondInThatPass) {
    Start();
    TapPtr a = AddOutput("A");
    TapPtr b = AddOutput("B");
    TapPtr c = AddOutput("C");
    Post(new MsgEnableMic(1));
    a->SetStateAfterWrite(STATE_FAULT);
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 1}, {c, 1}}));
    ASSERT_NO_FATAL_FAILURE(Pump(2, {{b, 1}, {c, 2}}));
    EXPECT_EQ(std::vector<int16_t>{1}, FirstSamples(a));
    EXPECT_EQ(std::vector<int16_t>{2}, FirstSamples(b));  // frame 1 passed B over
    EXPECT_EQ(std::vector<int16_t>({1, 2}), FirstSamples(c));
}

TEST_F(RecordTest, RemovingTheLastOfThreeRepeatsTheFrameToTheOthers) {
    Start();
    TapPtr a = AddOutput("A");
    TapPtr b = AddOutput("B");
    TapPtr c = AddOutput("C");
    Post(new MsgEnableMic(1));
    c->SetStateAfterWrite(STATE_HANGUP);
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 2}, {b, 2}, {c, 1}}));
    ASSERT_NO_FATAL_FAILURE(Pump(2, {{a, 3}, {b, 3}}));
    EXPECT_EQ(std::vector<int16_t>({1, 1, 2}), FirstSamples(a));
    EXPECT_EQ(std::vector<int16_t>({1, 1, 2}), FirstSamples(b));
    EXPECT_EQ(std::vector<int16_t>{1}, FirstSamples(c));
    // In the repeated round there are still two streams: each gets its own copy.
    EXPECT_NE(a->Frames()[0].get(), a->Frames()[1].get());
    const std::vector<std::string> writes = {"A:write", "B:write", "C:write", "A:write", "B:write",
                                             "A:write", "B:write"};
    std::vector<std::string> seen;
    for (const std::string& e : trace.Entries())
        if (e.size() > 6 && e.compare(e.size() - 6, 6, ":write") == 0) seen.push_back(e);
    EXPECT_EQ(writes, seen);
}

TEST_F(RecordTest, InputWithoutFrameIsReplaced) {
    boost::shared_ptr<MicInput> second(new MicInput(trace, "mic2"));
    moreMics.push_back(second);
    host.AddInput(second);
    Start();
    TapPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    ASSERT_NO_FATAL_FAILURE(Pump(1, {{a, 1}}));
    mic->Close();
    ASSERT_TRUE(trace.WaitFor("host:input mic2"));
    second->Feed(MicFrame(2));
    ASSERT_TRUE(trace.WaitFor("A:write", 2));
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Input Error:"));
    EXPECT_EQ(std::vector<int16_t>({1, 2}), FirstSamples(a));
}

TEST_F(RecordTest, ThreeFramesSpanMoreThanOnePeriod) {
    Start();
    TapPtr a = AddOutput("A");
    Post(new MsgEnableMic(1));
    for (int16_t v = 1; v <= 3; ++v) mic->Feed(MicFrame(v));
    ASSERT_TRUE(trace.WaitFor("A:write", 3));
    const auto times = a->Times();
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
    EXPECT_TRUE(host.Streams().empty());
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
        if (feed) mic->Feed(MicFrame(1));
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
    ASSERT_TRUE(trace.WaitFor("mic:process"));
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
