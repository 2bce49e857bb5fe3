#include "mixer/stream/StreamOut.h"
#include <gtest/gtest.h>
#include "mixer/algo/AlgoRampGain.h"
#include "tests/support/Fake.h"
#include "tests/support/LogCapture.h"
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
    std::string tag; Trace* trace; uint32_t latency;
    bool replace = false;  // then returns out
    Frame out;
};

boost::shared_ptr<TraceAlgo> Traced(uint32_t id, const std::string& tag, Trace* trace, uint32_t latency = 0) {
    return boost::shared_ptr<TraceAlgo>(new TraceAlgo(id, tag, trace, latency));
}

TEST(StreamTest, ForwardsItsInputsFramesStateNameMetaAndPriority) {
    test::LogCapture log;
    Stream s;
    EXPECT_FALSE(s.Process());  // without an input: warnings and defaults
    s.SetPriority(4);
    EXPECT_TRUE(s.GetPriority() == 0u && s.GetState() == STATE_ACTIVE && s.GetName() + s.GetMeta() == "");
    EXPECT_EQ(log.Lines(), (Trace{"W Mixer_Stream:Process:No Input:",
                                  "W Mixer_Stream:SetPriority:Cannot set the input stream priority:",
                                  "W Mixer_Stream:GetPriority:Cannot get the input stream priority:"}));
    EXPECT_EQ(s.SetVolume(10), 0);  // the base has no output
    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "alerts"));
    in->name = "shm-17";
    Frame f = in->MakeFrame(5);
    in->Push(f), in->PushWithState(Frame(), STATE_DRAINING);
    s.SetInput(in);
    EXPECT_EQ(s.GetName() + "|" + s.GetMeta(), "shm-17|alerts");
    EXPECT_EQ(s.Process(), f);
    EXPECT_FALSE(s.Process());
    EXPECT_EQ(s.GetState(), STATE_DRAINING);
    s.SetPriority(9);  // kept by the input
    EXPECT_EQ(in->priority + s.GetPriority(), 18u);
}

TEST(StreamTest, ChainRunsInOrderAndItsAlgorithmsAreFoundByIdAndPosition) {
    test::LogCapture log;
    Trace trace;
    Stream s;
    Frame f(new AudioFrame(SAMPLE_SIZE_16, 48000, 2)), g(new AudioFrame(SAMPLE_SIZE_16, 48000, 2));
    EXPECT_EQ(s.Process(f), f);  // empty chain: the very frame
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_NONE));
    EXPECT_EQ(s.AddAlgo(boost::shared_ptr<Algo>()), -1);
    boost::shared_ptr<TraceAlgo> gain = Traced(1, "gain", &trace, 0xFFFFFFF0u), odd = Traced(7, "odd", &trace),
                                 six = Traced(6, "six", &trace, 0x20u), gain2 = Traced(1, "gain2", &trace);
    EXPECT_EQ(std::vector<int>({0, 1, 2, 3}),
              std::vector<int>({s.AddAlgo(gain), s.AddAlgo(odd), s.AddAlgo(six), s.AddAlgo(gain2)}));
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(7)));  // kept in the chain, not findable by id
    EXPECT_EQ(s.GetAlgoById(static_cast<tAlgoID>(6)), six);
    EXPECT_EQ(s.GetAlgoById(ALGO_ID_RAMP_GAIN), gain2);  // the later one wins
    EXPECT_FALSE(s.GetAlgoByPos(4));
    EXPECT_EQ(s.GetLatencyUs(), 0x10u);  // a wrapping sum
    odd->replace = true;
    odd->out = g;
    EXPECT_EQ(s.Process(f), g);        // odd's new frame goes on to the end
    EXPECT_FALSE(s.Process(Frame()));  // an empty frame in: no algorithm runs
    odd->out.reset();
    EXPECT_FALSE(s.Process(f));  // an empty frame from odd is handed on all the same
    EXPECT_EQ(trace, (Trace{"gain", "odd", "six", "gain2", "gain", "odd", "six(empty)", "gain2(empty)"}));
    EXPECT_EQ(log.Lines(), (Trace{"D Mixer_Stream:GetAlgoByPos:Invalid pos -1:",
                                  "W Mixer_Stream:AddAlgo:Cannot add empty Algo:", "W Mixer_Stream:AddAlgo:Invalid ID 7:",
                                  "W Mixer_Stream:GetAlgoById:Invalid ID 7:",
                                  "D Mixer_Stream:GetAlgoByPos:Invalid pos 4:"}));
    s.ClearAlgos();  // forgets the positions of ids 0 to 5 only
    EXPECT_EQ(s.GetLatencyUs(), 0u);
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(6)));  // position 2 is gone for now
    for (uint32_t id : {2, 4, 5, 0}) s.AddAlgo(Traced(id, "", &trace));
    EXPECT_EQ(s.GetAlgoById(static_cast<tAlgoID>(6)), s.GetAlgoByPos(2));  // the id-6 entry still says 2
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_RAMP_GAIN));
}

TEST(StreamOutTest, WritesToItsOutputAndRampsItsGainBeforeSettingTheVolume) {
    test::LogCapture log;
    StreamOut s;
    boost::shared_ptr<AlgoRampGain> gain(new AlgoRampGain());
    s.AddAlgo(gain);
    Frame f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1));
    EXPECT_EQ(s.ProcessOut(f), STATE_FAULT);  // no output yet
    EXPECT_EQ(s.SetVolume(0), -1);            // refused, after the ramp is set
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("ALSA"));
    out->FailAtWrite(2, STATE_HANGUP);
    out->SetVolumeResult(7);
    s.SetOutput(out);
    EXPECT_EQ(s.ProcessOut(f), STATE_ACTIVE);
    EXPECT_EQ(s.ProcessOut(f), STATE_HANGUP);  // the state after the write
    EXPECT_EQ(out->Frames().size(), 2u);
    // No input counts as active: a 50-ms ramp at 48000 Hz, 75 + 1 steps.
    EXPECT_EQ(s.SetVolume(30), 7);
    EXPECT_TRUE(gain->ramping == 1 && gain->stepsLeft == 76u);
    EXPECT_EQ(log.Count("D Mixer_Stream:MsgSetSpeakerVol:30:"), 1) << log.Dump();
    EXPECT_EQ(log.Count("E Mixer_Stream:SetVolume:No Output:"), 1) << log.Dump();
    EXPECT_EQ(log.CountPrefix("I Mixer_AlgoRampGain:SetRamp:gain 30 Ramp 127 -> 99 dB steps 76 "), 1) << log.Dump();
    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "mic"));
    in->SetStateAtNextCall(STATE_PAUSED);
    in->Drain();  // applies the pending state on this (the engine's) thread
    s.SetInput(in);
    EXPECT_EQ(s.SetVolume(100), 7);  // a paused stream jumps at once
    EXPECT_TRUE(gain->ramping == 0 && gain->gainIndex == 175u);
    log.Clear();  // without a ramp gain, only the output is set (the lookup misses)
    s.ClearAlgos();
    EXPECT_EQ(s.SetVolume(46), 7);
    EXPECT_EQ(out->Volumes(), (std::vector<int>{30, 100, 46}));
    EXPECT_EQ(log.Lines(), Trace{"D Mixer_Stream:GetAlgoByPos:Invalid pos -1:"});
}
}  // namespace
}  // namespace mixer
