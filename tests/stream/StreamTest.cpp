#include "mixer/stream/Stream.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mixer/algo/AlgoRampGain.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace {

// An algorithm that notes each call in a shared trace and returns a chosen frame (the
// one it was given, by default).
class TraceAlgo : public Algo {
public:
    TraceAlgo(uint32_t id_, const std::string& tag, std::vector<std::string>* trace,
              uint32_t latency = 0)
        : Algo(static_cast<tAlgoID>(id_)), tag_(tag), trace_(trace), latency_(latency) {}

    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override {
        trace_->push_back(tag_ + (frame ? "" : "(empty)"));
        return replace_ ? *replace_ : frame;
    }
    uint32_t GetLatencyUs() override { return latency_; }
    void ReturnInstead(boost::shared_ptr<AudioFrame> f) { replace_.reset(new boost::shared_ptr<AudioFrame>(f)); }

private:
    std::string tag_;
    std::vector<std::string>* trace_;
    uint32_t latency_;
    std::unique_ptr<boost::shared_ptr<AudioFrame> > replace_;
};

boost::shared_ptr<AudioFrame> NewFrame() {
    return boost::shared_ptr<AudioFrame>(new AudioFrame(SAMPLE_SIZE_16, 48000, 2));
}

TEST(StreamTest, WithoutInputWarnsAndReportsDefaults) {
    test::LogCapture log;
    Stream s;
    EXPECT_FALSE(s.Process());
    EXPECT_EQ(log.Count("W Mixer_Stream:Process:No Input:"), 1);
    EXPECT_EQ(s.GetState(), STATE_ACTIVE);
    EXPECT_EQ(s.GetPriority(), 0u);
    EXPECT_EQ(log.Count("W Mixer_Stream:GetPriority:Cannot get the input stream priority:"), 1);
    s.SetPriority(4);
    EXPECT_EQ(log.Count("W Mixer_Stream:SetPriority:Cannot set the input stream priority:"), 1);
    EXPECT_EQ(s.GetName(), "");
    EXPECT_EQ(s.GetMeta(), "");
    EXPECT_EQ(s.GetLatencyUs(), 0u);
    EXPECT_FALSE(s.GetInput());
}

TEST(StreamTest, ChainRunsInOrderAndPassesEmptyFramesOn) {
    std::vector<std::string> trace;
    Stream s;
    boost::shared_ptr<AudioFrame> f = NewFrame();
    EXPECT_EQ(s.Process(f), f);  // empty chain: the very frame

    boost::shared_ptr<TraceAlgo> a(new TraceAlgo(1, "a", &trace));
    boost::shared_ptr<TraceAlgo> b(new TraceAlgo(2, "b", &trace));
    boost::shared_ptr<TraceAlgo> c(new TraceAlgo(3, "c", &trace));
    s.AddAlgo(a);
    s.AddAlgo(b);
    s.AddAlgo(c);
    boost::shared_ptr<AudioFrame> g = NewFrame();
    b->ReturnInstead(g);
    EXPECT_EQ(s.Process(f), g);  // b's new frame reaches c and comes out
    EXPECT_EQ(trace, (std::vector<std::string>{"a", "b", "c"}));

    trace.clear();
    EXPECT_FALSE(s.Process(boost::shared_ptr<AudioFrame>()));
    EXPECT_TRUE(trace.empty());  // an empty frame in: no algorithm runs

    b->ReturnInstead(boost::shared_ptr<AudioFrame>());
    EXPECT_FALSE(s.Process(f));
    EXPECT_EQ(trace, (std::vector<std::string>{"a", "b", "c(empty)"}));
}

TEST(StreamTest, ProcessPullsFromTheInput) {
    std::vector<std::string> trace;
    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "media"));
    boost::shared_ptr<AudioFrame> f = in->MakeFrame(5);
    in->Push(f);
    Stream s;
    s.SetInput(in);
    s.AddAlgo(boost::shared_ptr<Algo>(new TraceAlgo(0, "x", &trace)));
    EXPECT_EQ(s.Process(), f);
    EXPECT_EQ(trace, std::vector<std::string>{"x"});
    EXPECT_FALSE(s.Process());  // the script is spent: no frame, the chain is not run
    EXPECT_EQ(trace.size(), 1u);
    EXPECT_EQ(in->OpCount("Process"), 2);
}

TEST(StreamTest, ForwardsTheInputsStateNameMetaAndPriority) {
    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "alerts"));
    in->name = "shm-17";
    in->PushWithState(boost::shared_ptr<AudioFrame>(), STATE_DRAINING);
    Stream a, b;
    a.SetInput(in);
    EXPECT_EQ(a.GetInput(), in);
    EXPECT_EQ(a.GetName(), "shm-17");
    EXPECT_EQ(a.GetMeta(), "alerts");
    EXPECT_EQ(a.GetState(), STATE_ACTIVE);
    a.Process();
    EXPECT_EQ(a.GetState(), STATE_DRAINING);

    a.SetPriority(9);
    EXPECT_EQ(in->priority, 9u);
    // The priority travels with the input.
    b.SetInput(in);
    a.SetInput(boost::shared_ptr<Input>());
    EXPECT_EQ(b.GetPriority(), 9u);
    EXPECT_FALSE(a.GetInput());
    EXPECT_EQ(a.GetName(), "");
}

TEST(StreamTest, AlgorithmsAreFoundByIdAndPosition) {
    test::LogCapture log;
    std::vector<std::string> trace;
    Stream s;
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_NONE));
    EXPECT_EQ(log.Count("D Mixer_Stream:GetAlgoByPos:Invalid pos -1:"), 1);

    boost::shared_ptr<Algo> gain(new TraceAlgo(1, "gain", &trace));
    boost::shared_ptr<Algo> odd(new TraceAlgo(9, "odd", &trace));
    boost::shared_ptr<Algo> gain2(new TraceAlgo(1, "gain2", &trace));
    EXPECT_EQ(s.AddAlgo(boost::shared_ptr<Algo>()), -1);
    EXPECT_EQ(log.Count("W Mixer_Stream:AddAlgo:Cannot add empty Algo:"), 1);
    EXPECT_EQ(s.AddAlgo(gain), 0);
    EXPECT_EQ(s.GetAlgoById(ALGO_ID_RAMP_GAIN), gain);
    EXPECT_EQ(s.AddAlgo(odd), 1);
    EXPECT_EQ(log.Count("W Mixer_Stream:AddAlgo:Invalid ID 9:"), 1);
    EXPECT_EQ(s.GetAlgoByPos(1), odd);  // kept in the chain, not findable by id
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(9)));
    EXPECT_EQ(log.Count("W Mixer_Stream:GetAlgoById:Invalid ID 9:"), 1);
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(7)));
    EXPECT_EQ(log.Count("W Mixer_Stream:GetAlgoById:Invalid ID 7:"), 1);
    EXPECT_EQ(s.AddAlgo(gain2), 2);
    EXPECT_EQ(s.GetAlgoById(ALGO_ID_RAMP_GAIN), gain2);  // the later one wins
    EXPECT_FALSE(s.GetAlgoByPos(3));
    EXPECT_EQ(log.Count("D Mixer_Stream:GetAlgoByPos:Invalid pos 3:"), 1);
    s.Process(NewFrame());
    EXPECT_EQ(trace, (std::vector<std::string>{"gain", "odd", "gain2"}));
}

TEST(StreamTest, ClearAlgosForgetsIdsZeroToFiveOnly) {
    std::vector<std::string> trace;
    Stream s;
    s.AddAlgo(boost::shared_ptr<Algo>(new TraceAlgo(1, "gain", &trace, 1000)));
    s.AddAlgo(boost::shared_ptr<Algo>(new TraceAlgo(6, "six", &trace, 250)));
    EXPECT_EQ(s.GetLatencyUs(), 1250u);
    s.ClearAlgos();
    EXPECT_FALSE(s.GetAlgoByPos(0));
    EXPECT_EQ(s.GetLatencyUs(), 0u);
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_RAMP_GAIN));
    EXPECT_FALSE(s.GetAlgoById(static_cast<tAlgoID>(6)));  // position 1 is gone for now

    boost::shared_ptr<Algo> first(new TraceAlgo(2, "resample", &trace));
    boost::shared_ptr<Algo> second(new TraceAlgo(4, "four", &trace));
    s.AddAlgo(first);
    s.AddAlgo(second);
    // The id-6 entry still says position 1.
    EXPECT_EQ(s.GetAlgoById(static_cast<tAlgoID>(6)), second);
    EXPECT_FALSE(s.GetAlgoById(ALGO_ID_RAMP_GAIN));
}

TEST(StreamTest, LatencyIsTheWrappingSumOfTheChain) {
    std::vector<std::string> trace;
    Stream s;
    s.AddAlgo(boost::shared_ptr<Algo>(new TraceAlgo(2, "a", &trace, 0xFFFFFFF0u)));
    s.AddAlgo(boost::shared_ptr<Algo>(new TraceAlgo(3, "b", &trace, 0x20u)));
    s.AddAlgo(boost::shared_ptr<Algo>(new AlgoRampGain()));
    EXPECT_EQ(s.GetLatencyUs(), 0x10u);
}

TEST(StreamTest, BaseSetVolumeDoesNothing) {
    Stream s;
    boost::shared_ptr<AlgoRampGain> gain(new AlgoRampGain());
    s.AddAlgo(gain);
    EXPECT_EQ(s.SetVolume(10), 0);
    EXPECT_EQ(gain->gainIndex, 127u);
    EXPECT_EQ(gain->ramping, 0);
}

}  // namespace
}  // namespace mixer
