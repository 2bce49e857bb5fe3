// The record engine's thread with a fake host, fake outputs and a microphone fed frame by frame (a read waits).
#include <stdlib.h>
#include <unistd.h>
#include <fstream>
#include <sstream>
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgPing.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/record/Record.h"
#include "tests/support/EngineFixture.h"
namespace mixer::test {
namespace {
const char kNullPost[] = "I MsgQ:sendMsg:NULL:";

// Negates every sample of its frame in place, then fails it: shows whether the frame was another stream's too.
struct FailingAlgo : Algo {
    FailingAlgo() : Algo(ALGO_ID_NONE) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> f) override {
        for (uint32_t i = 0; i < f->len * f->numCh; ++i) f->Samples16()[i] = int16_t(-f->Samples16()[i]);
        return nullptr;
    }
};

class RecordTest : public EngineFixture<Record> {
protected:
    RecordTest() {
        mic->SetBlockWhenEmpty(true), mic2->SetBlockWhenEmpty(true);
        connect.SetDefaultInputs({mic, mic2});
        // Each output's stream is named after the output and described as "meta-<name>"; F's gets a failing algorithm.
        connect.SetRecordAlgosHook([](boost::shared_ptr<StreamOut> s) {
            InputPtr tag = Scripted("meta-" + s->GetOutput()->name);
            tag->name = s->GetOutput()->name;
            s->SetInput(tag);
            if (tag->name == "F") s->AddAlgo(boost::make_shared<FailingAlgo>());
        });
    }
    // DeInit wakes nobody: once it has cleared the flag (its empty post is logged), the thread leaves only at
    // another message, and a wait for a frame at released microphones.
    ~RecordTest() override {
        const int posts = log.Count(kNullPost);
        std::thread stopper([this] { engine.DeInit(); });
        EXPECT_TRUE(log.WaitFor(kNullPost, posts + 1));
        Post(new MsgPing());
        mic->SetBlockWhenEmpty(false), mic2->SetBlockWhenEmpty(false);
        stopper.join();
    }
    void Start() { ASSERT_EQ(0, engine.Init(&connect)); ASSERT_TRUE(log.WaitFor("I Mixer_Record:Process:Start 0:")); }
    // Registers an output that keeps the written frames themselves; waits until its stream is built.
    OutputPtr AddOutput(const std::string& name) {
        OutputPtr o = boost::make_shared<FakeOutput>(name);
        o->SetCopyFrames(false);
        const int built = connect.CallCount("AddRecordAlgos");
        Post(new MsgNewOutput(o, PLAYBACK_MODE_DEFAULT));
        EXPECT_TRUE(connect.WaitForCalls("AddRecordAlgos", built + 1, kWait));
        return o;
    }
    boost::shared_ptr<AudioFrame> Feed(int16_t v) { auto f = mic->MakeFrame(v); mic->Push(f); return f; }
    boost::shared_ptr<ThreadNotingInput> mic = boost::make_shared<ThreadNotingInput>(16000, 1, "microphone");
    InputPtr mic2 = Scripted("mic2", {2}, 16000, 1);  // the host's next input
};

TEST_F(RecordTest, WithoutListenerItSleepsUntilAMessageAndWithOneItReadsWhileTheMicIsOn) {
    EXPECT_EQ(-1, Record().Init(nullptr));
    Start();
    Post(new MsgPing());  // the first message handled with nobody listening pauses the input
    ASSERT_TRUE(mic->WaitForOps("Pause", 1, kWait));
    // Over a window that would hold a dozen passes nothing is read and the thread is not woken at all; a message
    // (the microphone on, still nobody listening) wakes it, and it goes back to sleep with the input paused.
    const long switches = WaitUntilAsleep(mic->tid, kWait);
    ASSERT_GE(switches, 0);
    EXPECT_FALSE(mic->WaitForOps("Process", 1, std::chrono::milliseconds(200)));
    EXPECT_EQ(ContextSwitches(mic->tid), switches);
    Post(new MsgEnableMic(1));
    ASSERT_TRUE(log.WaitFor("I Mixer_Record:handleMsg:MicEnable=1:"));
    EXPECT_GT(WaitUntilAsleep(mic->tid, kWait), switches);
    EXPECT_EQ(Lines{"Pause"}, mic->Ops());
    // A listener: frames are read one a pass, and a single output gets each frame as it is.
    OutputPtr a = AddOutput("A");
    boost::shared_ptr<AudioFrame> frame = Feed(5);
    ASSERT_TRUE(a->WaitForFrames(1, kWait));
    EXPECT_EQ(frame, a->Frames()[0]);
    const Lines ops = mic->Ops();
    EXPECT_EQ(Lines({"Pause", "Resume", "Process"}), Lines(ops.begin(), ops.begin() + 3));
    // Switched off, the microphone is paused after the frame in progress.
    ASSERT_TRUE(mic->WaitForOps("Process", 2, kWait));  // waiting for the next frame
    Post(new MsgEnableMic(0));
    Feed(6);
    ASSERT_TRUE(mic->WaitForOps("Pause", 2, kWait));
    EXPECT_EQ(2, mic->OpCount("Process"));
    // Frames ready at once are still read one pass at a time, 15 ms apart.
    for (int16_t v = 7; v <= 9; ++v) Feed(v);
    Post(new MsgEnableMic(1));
    ASSERT_TRUE(a->WaitForFrames(5, kWait));
    EXPECT_GT(a->WriteTimes()[4] - a->WriteTimes()[2], std::chrono::microseconds(15000));
    // An input without a frame is replaced by the host's next one, read at once.
    mic->SetBlockWhenEmpty(false);
    ASSERT_TRUE(a->WaitForFrames(6, kWait));
    EXPECT_EQ(std::vector<int>({5, 6, 7, 8, 9, 2}), Levels(a));
    EXPECT_EQ(2, connect.CallCount("GetRecordDefaultInput"));
}

TEST_F(RecordTest, SeveralOutputsGetCopiesAndAFailedOneIsErasedSteppingOverItsFollower) {
    Start();
    OutputPtr f = AddOutput("F"), b = AddOutput("B"), c = AddOutput("C"), d = AddOutput("D");
    // Two reports, appended, handled at once while the microphone is off; the unknown code 99 marks the end.
    char path[] = "/tmp/record-report-XXXXXX";
    ASSERT_EQ(close(mkstemp(path)), 0);
    Post(new MsgWriteInfo(path)), Post(new MsgWriteInfo(path)), Post(new MsgHead(99));
    ASSERT_TRUE(log.WaitFor("E Mixer_Record:handleMsg:Unsupported type 99:"));
    std::stringstream report;
    report << std::ifstream(path).rdbuf();
    const std::string one = "State info Mixer_Record:\nInput: microphone\tPaused\nMic Enable: 0\nNumber of streams: 4\n"
                            "0\tmeta-F\tF\n1\tmeta-B\tB\n2\tmeta-C\tC\n3\tmeta-D\tD\n" + std::string(49, '=') + "\n";
    EXPECT_EQ(one + one, report.str());
    unlink(path);
    d->FailAtWrite(1, STATE_FAULT), c->FailAtWrite(4, STATE_HANGUP), b->FailAtWrite(5, STATE_HANGUP);
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = mic->MakeFrame(0);
    for (uint32_t i = 0; i < frame->len; ++i) frame->Samples16()[i] = int16_t(1 + 3 * i);
    const std::string samples(frame->data, frame->size);
    mic->Push(frame);
    // F fails (B, its follower, is passed over) and D, the last, fails after its write: the walk goes round again
    // from B with the same frame.
    ASSERT_TRUE(c->WaitForFrames(2, kWait));
    for (const auto& copy : {b->Frames()[0], c->Frames()[0], c->Frames()[1], d->Frames()[0]}) {
        EXPECT_NE(frame->data, copy->data);
        EXPECT_EQ(samples, std::string(copy->data, copy->size));
    }
    EXPECT_NE(c->Frames()[0]->data, c->Frames()[1]->data);
    EXPECT_EQ(samples, std::string(frame->data, frame->size));  // F negated its own copy only
    Feed(2);
    ASSERT_TRUE(b->WaitForFrames(2, kWait) && c->WaitForFrames(3, kWait));
    // C, the last now, goes too: B, alone in the repeated round, gets the frame itself.
    boost::shared_ptr<AudioFrame> third = Feed(3);
    ASSERT_TRUE(b->WaitForFrames(4, kWait));
    EXPECT_NE(third, b->Frames()[2]);
    EXPECT_EQ(third, b->Frames()[3]);
    // B goes: nobody listens any more, the input is paused and not read again.
    Feed(4);
    ASSERT_TRUE(mic->WaitForOps("Pause", 2, kWait));
    EXPECT_EQ(std::vector<int>({1, 2, 3, 3, 4}), Levels(b));
    EXPECT_EQ(std::vector<int>({1, 1, 2, 3}), Levels(c));
    EXPECT_EQ(std::vector<int>({1}), Levels(d));
    EXPECT_TRUE(f->Frames().empty());
    EXPECT_EQ(4, mic->OpCount("Process"));
}
}  // namespace
}  // namespace mixer::test
