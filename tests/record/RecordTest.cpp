// The record engine's thread with a fake host, fake outputs and a microphone the test
// feeds frame by frame (a read waits for the next frame, as a device's would).

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

// Negates every sample of its frame in place, then fails it: shows whether the frame was
// another stream's too.
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
        mic->SetBlockWhenEmpty(true);
        mic2->SetBlockWhenEmpty(true);
        connect.SetDefaultInputs({mic, mic2});
        // Each output's stream is named after the output and described as "meta-<name>";
        // output F's gets a failing algorithm.
        connect.SetRecordAlgosHook([](boost::shared_ptr<StreamOut> s) {
            InputPtr tag = Scripted("meta-" + s->GetOutput()->name);
            tag->name = s->GetOutput()->name;
            s->SetInput(tag);
            if (tag->name == "F") s->AddAlgo(boost::make_shared<FailingAlgo>());
        });
    }
    // DeInit wakes nobody: once it has cleared the flag (its empty post is logged), the
    // thread leaves only at another message, and a wait for a frame at released microphones.
    ~RecordTest() override {
        const int posts = log.Count(kNullPost);
        std::thread stopper([this] { engine.DeInit(); });
        EXPECT_TRUE(log.WaitFor(kNullPost, posts + 1));
        Post(new MsgPing());
        mic->SetBlockWhenEmpty(false);
        mic2->SetBlockWhenEmpty(false);
        stopper.join();
    }
    void Start() {
        ASSERT_EQ(0, engine.Init(&connect));
        ASSERT_TRUE(log.WaitFor("I Mixer_Record:Process:Start 0:")) << log.Dump();
    }
    // Registers an output that keeps the written frames themselves; waits until its stream is built.
    OutputPtr AddOutput(const std::string& name) {
        OutputPtr o = boost::make_shared<FakeOutput>(name);
        o->SetCopyFrames(false);
        const int built = connect.CallCount("AddRecordAlgos");
        Post(new MsgNewOutput(o, PLAYBACK_MODE_DEFAULT));
        EXPECT_TRUE(connect.WaitForCalls("AddRecordAlgos", built + 1, kWait));
        return o;
    }
    boost::shared_ptr<AudioFrame> Feed(int16_t v) {
        boost::shared_ptr<AudioFrame> f = mic->MakeFrame(v);
        mic->Push(f);
        return f;
    }
    boost::shared_ptr<ThreadNotingInput> mic = boost::make_shared<ThreadNotingInput>(16000, 1, "microphone");
    InputPtr mic2 = Scripted("mic2", {2}, 16000, 1);  // the host's next input
};

TEST_F(RecordTest, WithoutListenerTheInputIsPausedAndTheThreadSleepsUntilAMessage) {
    EXPECT_EQ(-1, Record().Init(nullptr));
    Start();
    Post(new MsgPing());  // the first message handled with nobody listening pauses the input
    ASSERT_TRUE(mic->WaitForOps("Pause", 1, kWait));
    // Over a window that would hold a dozen passes nothing is read and the thread is not
    // woken at all; a message wakes it, and it goes back to sleep with the input paused.
    const long switches = WaitUntilAsleep(mic->tid, kWait);
    ASSERT_GE(switches, 0);
    EXPECT_FALSE(mic->WaitForOps("Process", 1, std::chrono::milliseconds(200)));
    EXPECT_EQ(ContextSwitches(mic->tid), switches);
    Post(new MsgEnableMic(1));
    ASSERT_TRUE(log.WaitFor("I Mixer_Record:handleMsg:MicEnable=1:"));
    EXPECT_GT(WaitUntilAsleep(mic->tid, kWait), switches);
    EXPECT_EQ(Lines{"Pause"}, mic->Ops());
    EXPECT_EQ(Lines{"GetRecordDefaultInput"}, connect.Calls());
}

TEST_F(RecordTest, FramesAreReadOneAPassWhileTheMicIsEnabledAndASingleOutputGetsThemAsTheyAre) {
    Start();
    OutputPtr a = AddOutput("A");
    ASSERT_TRUE(mic->WaitForOps("Pause", 1, kWait));  // a listener, but the microphone is off
    Post(new MsgEnableMic(1));
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
    EXPECT_EQ(1, log.Count("W Mixer_Record:runLoop:Input Error:"));
    EXPECT_EQ(2, connect.CallCount("GetRecordDefaultInput"));
}

TEST_F(RecordTest, SeveralOutputsGetCopiesAndAFailedOneIsErasedSteppingOverItsFollower) {
    Start();
    OutputPtr f = AddOutput("F"), b = AddOutput("B"), c = AddOutput("C"), d = AddOutput("D");
    d->FailAtWrite(1, STATE_FAULT);
    c->FailAtWrite(4, STATE_HANGUP);
    b->FailAtWrite(5, STATE_HANGUP);
    Post(new MsgEnableMic(1));
    boost::shared_ptr<AudioFrame> frame = mic->MakeFrame(0);
    for (uint32_t i = 0; i < frame->len; ++i) frame->Samples16()[i] = int16_t(1 + 3 * i);
    const std::string samples(frame->data, frame->size);
    mic->Push(frame);
    // F fails (B, its follower, is passed over) and D, the last, fails after its write:
    // the walk goes round again from B with the same frame.
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
    Lines warnings;
    for (const std::string& line : log.Lines())
        if (line.compare(0, 2, "W ") == 0) warnings.push_back(line.substr(23));
    EXPECT_EQ(Lines({"Algo Error:", "Erasing F:", "Erasing D:", "Erasing C:", "Erasing B:"}), warnings);
    EXPECT_EQ(4, mic->OpCount("Process"));
}

TEST_F(RecordTest, ReportsAreAppendedAndCodesWithoutTheirClassDropped) {
    char dir[] = "/tmp/record-report-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    const std::string file = dir + std::string("/status.txt"), bad = dir + std::string("/missing/status.txt");
    // Asks for reports and waits until they are written (the unknown code 99 marks the
    // end). While recording, messages wait for the end of a pass: feed lets a frame through.
    auto report = [&](bool feed) {
        const std::string mark = "E Mixer_Record:handleMsg:Unsupported type 99:";
        const int marks = log.Count(mark);
        Post(new MsgWriteInfo(bad));
        Post(new MsgWriteInfo(file));
        Post(new MsgHead(99));
        if (feed) Feed(1);
        EXPECT_TRUE(log.WaitFor(mark, marks + 1));
        std::stringstream ss;
        ss << std::ifstream(file).rdbuf();
        return ss.str();
    };
    Start();
    for (unsigned code = 0; code <= 9; ++code) Post(new MsgHead(code));  // bare, only a ping is valid
    const std::string rule = std::string(49, '=') + "\n", first = "State info Mixer_Record:\nInput: microphone\t"
                                                                  "Paused\nMic Enable: 0\nNumber of streams: 0\n" + rule;
    EXPECT_EQ(first, report(false));
    EXPECT_EQ(9 + 1, log.CountPrefix("E Mixer_Record:handleMsg:Unsupported type "));  // and the end mark
    EXPECT_EQ(1, log.Count("W Mixer_Record:WriteInfo:Could not open " + bad + ":"));
    AddOutput("A");
    AddOutput("B");
    Post(new MsgEnableMic(-3));
    ASSERT_TRUE(mic->WaitForOps("Process", 1, kWait));
    EXPECT_EQ(first + "State info Mixer_Record:\nInput: microphone\tActive\nMic Enable: -3\nNumber of streams: 2\n"
                      "0\tmeta-A\tA\n1\tmeta-B\tB\n" + rule, report(true));
    EXPECT_TRUE(unlink(file.c_str()) == 0 && rmdir(dir) == 0);
}

}  // namespace
}  // namespace mixer::test
