#include "mixer/stream/StreamOut.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mixer/algo/AlgoRampGain.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace {

using Frame = boost::shared_ptr<AudioFrame>;
using Trace = std::vector<std::string>;

// Notes each call in a shared trace; returns `out` once `replace` is set, else the frame it got.
struct TraceAlgo : Algo {
    TraceAlgo(uint32_t id_, const std::string& tag_, Trace* trace_, uint32_t latency_)
        : Algo(static_cast<tAlgoID>(id_)), tag(tag_), trace(trace_), latency(latency_) {}
    Frame Process(Frame f) override {
        trace->push_back(tag + (f ? "" : "(empty)"));
        return replace ? out : f;
    }
    uint32_t GetLatencyUs() override { return latency; }
    std::string tag;
    Trace* trace;
    uint32_t latency;
    bool replace = false;  // return out instead
    Frame out;
};

boost::shared_ptr<TraceAlgo> Traced(uint32_t id, const std::string& tag, Trace* trace, uint32_t latency = 0) {
    return boost::shared_ptr<TraceAlgo>(new TraceAlgo(id, tag, trace, latency));
}
Frame NewFrame() { return Frame(new AudioFrame(SAMPLE_SIZE_16, 48000, 2)); }

TEST(StreamTest, ForwardsItsInputsFramesStateNameMetaAndPriority) {
    test::LogCapture log;
    Trace trace;
    Stream a, b;
    EXPECT_FALSE(a.Process());  // without an input: warnings and defaults
    a.SetPriority(4);
    EXPECT_EQ(a.GetPriority(), 0u);
    EXPECT_EQ(a.GetState(), STATE_ACTIVE);
    EXPECT_EQ(a.GetName() + a.GetMeta(), "");
    EXPECT_EQ(log.Lines(), (Trace{"W Mixer_Stream:Process:No Input:",
                                  "W Mixer_Stream:SetPriority:Cannot set the input stream priority:",
                                  "W Mixer_Stream:GetPriority:Cannot get the input stream priority:"}));
    EXPECT_EQ(a.SetVolume(10), 0);  // the base has no output

    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "alerts"));
    in->name = "shm-17";
    Frame f = in->MakeFrame(5);
    in->Push(f);
    in->PushWithState(Frame(), STATE_DRAINING);
    a.SetInput(in);
    a.AddAlgo(Traced(0, "x", &trace));
    EXPECT_EQ(a.GetInput(), in);
    EXPECT_EQ(a.GetName() + "|" + a.GetMeta(), "shm-17|alerts");
    EXPECT_EQ(a.Process(), f);
    EXPECT_EQ(a.GetState(), STATE_ACTIVE);
    EXPECT_FALSE(a.Process());  // no frame: the chain is not run
    EXPECT_EQ(a.GetState(), STATE_DRAINING);
    EXPECT_EQ(trace, Trace{"x"});
    EXPECT_EQ(in->OpCount("Process"), 2);

    a.SetPriority(9);
    EXPECT_EQ(in->priority, 9u);
    b.SetInput(in);  // the priority travels with the input
    a.SetInput(boost::shared_ptr<Input>());
    EXPECT_EQ(b.GetPriority(), 9u);
    EXPECT_EQ(a.GetName(), "");
}

TEST(StreamTest, ChainRunsInOrderAndPassesEmptyFramesOn) {
    Trace trace;
    Stream s;
    Frame f = NewFrame();
    EXPECT_EQ(s.Process(f), f);  // empty chain: the very frame
    boost::shared_ptr<TraceAlgo> b = Traced(2, "b", &trace);
    s.AddAlgo(Traced(1, "a", &trace));
    s.AddAlgo(b);
    s.AddAlgo(Traced(3, "c", &trace));
    b->replace = true;
    b->out = NewFrame();
    EXPECT_EQ(s.Process(f), b->out);   // b's new frame reaches c and comes out
    EXPECT_FALSE(s.Process(Frame()));  // an empty frame in: no algorithm runs
    b->out.reset();
    EXPECT_FALSE(s.Process(f));
    EXPECT_EQ(trace, (Trace{"a", "b", "c", "a", "b", "c(empty)"}));
}

TEST(StreamTest, AlgorithmsAreFoundByIdAndPositionAndClearAlgosForgetsIdsZeroToFive) {
    test::LogCapture log;
    Trace trace;
    Stream s;
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_NONE));
    EXPECT_EQ(s.AddAlgo(boost::shared_ptr<Algo>()), -1);
    boost::shared_ptr<Algo> gain = Traced(1, "gain", &trace, 0xFFFFFFF0u), odd = Traced(7, "odd", &trace),
                            six = Traced(6, "six", &trace, 0x20u), gain2 = Traced(1, "gain2", &trace);
    EXPECT_EQ(std::vector<int>({0, 1, 2, 3}),
              std::vector<int>({s.AddAlgo(gain), s.AddAlgo(odd), s.AddAlgo(six), s.AddAlgo(gain2)}));
    EXPECT_EQ(s.GetAlgoByPos(1), odd);  // kept in the chain, not findable by id
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(7)));
    EXPECT_EQ(s.GetAlgoById(static_cast<tAlgoID>(6)), six);
    EXPECT_EQ(s.GetAlgoById(ALGO_ID_RAMP_GAIN), gain2);  // the later one wins
    EXPECT_FALSE(s.GetAlgoByPos(4));
    EXPECT_EQ(s.GetLatencyUs(), 0x10u);  // a wrapping sum
    s.Process(NewFrame());
    EXPECT_EQ(trace, (Trace{"gain", "odd", "six", "gain2"}));
    EXPECT_EQ(log.Lines(), (Trace{"D Mixer_Stream:GetAlgoByPos:Invalid pos -1:",
                                  "W Mixer_Stream:AddAlgo:Cannot add empty Algo:", "W Mixer_Stream:AddAlgo:Invalid ID 7:",
                                  "W Mixer_Stream:GetAlgoById:Invalid ID 7:",
                                  "D Mixer_Stream:GetAlgoByPos:Invalid pos 4:"}));

    s.ClearAlgos();
    EXPECT_FALSE(s.GetAlgoByPos(0));
    EXPECT_EQ(s.GetLatencyUs(), 0u);
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_RAMP_GAIN));
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(6)));  // position 2 is gone for now
    boost::shared_ptr<Algo> five = Traced(5, "five", &trace);
    s.AddAlgo(Traced(2, "resample", &trace));
    s.AddAlgo(Traced(4, "four", &trace));
    s.AddAlgo(five);
    EXPECT_EQ(s.GetAlgoById(static_cast<tAlgoID>(6)), five);  // the id-6 entry still says 2
    EXPECT_EQ(s.GetAlgoById(static_cast<tAlgoID>(5)), five);
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_RAMP_GAIN));
}

TEST(StreamOutTest, ProcessOutWritesACopyAndReturnsTheOutputsState) {
    StreamOut s;
    Frame f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1));
    for (uint32_t i = 0; i < f->len; ++i) f->Samples16()[i] = static_cast<int16_t>(i);
    EXPECT_EQ(s.ProcessOut(f), STATE_FAULT);  // no output yet
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("client", STATE_ACTIVE));
    out->FailAtWrite(2, STATE_HANGUP);
    s.SetOutput(out);
    EXPECT_EQ(s.GetOutput(), out);
    EXPECT_EQ(s.ProcessOut(f), STATE_ACTIVE);
    EXPECT_EQ(s.ProcessOut(f), STATE_HANGUP);
    ASSERT_EQ(out->Frames().size(), 2u);
    EXPECT_NE(out->Frames()[0], f);  // a copy, as a device would keep
    EXPECT_EQ(out->Frames()[0]->Samples16()[319], 319);
}

TEST(StreamOutTest, SetVolumeRampsTheGainThenSetsTheOutput) {
    test::LogCapture log;
    StreamOut s;
    boost::shared_ptr<AlgoRampGain> gain(new AlgoRampGain());
    s.AddAlgo(gain);
    EXPECT_EQ(s.SetVolume(0), -1);  // no output: the ramp is set, the call refused
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("ALSA"));
    out->SetVolumeResult(7);
    s.SetOutput(out);
    // No input counts as active: a 50-ms ramp at 48000 Hz, 75 + 1 steps.
    EXPECT_EQ(s.SetVolume(30), 7);
    EXPECT_EQ(gain->ramping, 1);
    EXPECT_EQ(gain->stepsLeft, 76u);
    EXPECT_EQ(log.Count("D Mixer_Stream:MsgSetSpeakerVol:30:"), 1) << log.Dump();
    EXPECT_EQ(log.Count("E Mixer_Stream:SetVolume:No Output:"), 1) << log.Dump();
    EXPECT_EQ(log.CountPrefix("I Mixer_AlgoRampGain:SetRamp:gain 30 Ramp 127 -> 99 dB steps 76 "), 1) << log.Dump();

    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "mic"));
    in->SetStateAtNextCall(STATE_PAUSED);
    in->Drain();  // applies the pending state on this (the engine's) thread
    s.SetInput(in);
    EXPECT_EQ(s.SetVolume(100), 7);  // a paused stream jumps at once
    EXPECT_EQ(gain->ramping, 0);
    EXPECT_EQ(gain->gainIndex, 175u);

    log.Clear();  // without a ramp gain, only the output is set (the lookup misses)
    s.ClearAlgos();
    EXPECT_EQ(s.SetVolume(46), 7);
    EXPECT_EQ(out->Volumes(), (std::vector<int>{30, 100, 46}));
    EXPECT_EQ(log.Lines(), Trace{"D Mixer_Stream:GetAlgoByPos:Invalid pos -1:"});
}

}  // namespace
}  // namespace mixer
