#include "mixer/stream/StreamOut.h"

#include <gtest/gtest.h>

#include <vector>

#include "mixer/algo/AlgoRampGain.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace {

// Not a ramp gain, though it claims its id.
class Impostor : public Algo {
public:
    Impostor() : Algo(ALGO_ID_RAMP_GAIN) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> f) override { return f; }
};

TEST(StreamOutTest, ProcessOutWritesAndReturnsTheOutputsState) {
    StreamOut s;
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1));
    for (uint32_t i = 0; i < f->len; ++i) f->Samples16()[i] = static_cast<int16_t>(i);
    EXPECT_EQ(s.ProcessOut(f), STATE_FAULT);  // no output yet

    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("client", STATE_ACTIVE));
    out->FailAtWrite(2, STATE_HANGUP);
    s.SetOutput(out);
    EXPECT_EQ(s.GetOutput(), out);
    EXPECT_EQ(s.ProcessOut(f), STATE_ACTIVE);
    EXPECT_EQ(s.ProcessOut(f), STATE_HANGUP);
    const std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_NE(frames[0], f);  // a copy, as a device would keep
    EXPECT_EQ(frames[0]->Samples16()[319], 319);
}

TEST(StreamOutTest, SetVolumeRampsTheGainThenSetsTheOutput) {
    test::LogCapture log;
    StreamOut s;
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("ALSA"));
    out->SetVolumeResult(7);
    s.SetOutput(out);
    boost::shared_ptr<AlgoRampGain> gain(new AlgoRampGain());
    s.AddAlgo(gain);

    // No input counts as active: a 50-ms ramp at 48000 Hz, 75 + 1 steps.
    EXPECT_EQ(s.SetVolume(30), 7);
    EXPECT_EQ(gain->ramping, 1);
    EXPECT_EQ(gain->stepsLeft, 76u);
    EXPECT_EQ(gain->gainIndex, 127u);
    EXPECT_EQ(log.Count("D Mixer_Stream:MsgSetSpeakerVol:30:"), 1) << log.Dump();
    EXPECT_EQ(log.CountPrefix("I Mixer_AlgoRampGain:SetRamp:gain 30 Ramp 127 -> 99 dB steps 76 "), 1)
        << log.Dump();

    // A paused stream jumps at once.
    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2, "mic"));
    in->SetStateAtNextCall(STATE_PAUSED);
    in->Drain();  // applies the pending state on this (the engine's) thread
    s.SetInput(in);
    EXPECT_EQ(s.SetVolume(100), 7);
    EXPECT_EQ(gain->ramping, 0);
    EXPECT_EQ(gain->gainIndex, 175u);
    EXPECT_EQ(out->Volumes(), (std::vector<int>{30, 100}));
}

TEST(StreamOutTest, SetVolumeWithoutRampGainOnlySetsTheOutput) {
    test::LogCapture log;
    StreamOut s;
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("ALSA"));
    out->SetVolumeResult(-3);
    s.SetOutput(out);
    EXPECT_EQ(s.SetVolume(45), -3);
    s.AddAlgo(boost::shared_ptr<Algo>(new Impostor()));
    EXPECT_EQ(s.SetVolume(46), -3);
    EXPECT_EQ(out->Volumes(), (std::vector<int>{45, 46}));
    EXPECT_EQ(log.CountPrefix("D Mixer_Stream:MsgSetSpeakerVol:"), 0) << log.Dump();
}

TEST(StreamOutTest, SetVolumeWithoutOutputIsRefused) {
    test::LogCapture log;
    StreamOut s;
    boost::shared_ptr<AlgoRampGain> gain(new AlgoRampGain());
    s.AddAlgo(gain);
    EXPECT_EQ(s.SetVolume(0), -1);
    EXPECT_EQ(log.Count("E Mixer_Stream:SetVolume:No Output:"), 1);
}

TEST(StreamOutTest, ReleasesItsOutputInputAndChain) {
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput());
    boost::shared_ptr<test::ScriptedInput> in(new test::ScriptedInput(48000, 2));
    boost::shared_ptr<AlgoRampGain> gain(new AlgoRampGain());
    {
        boost::shared_ptr<Stream> s(new StreamOut());
        boost::static_pointer_cast<StreamOut>(s)->SetOutput(out);
        s->SetInput(in);
        s->AddAlgo(gain);
        EXPECT_EQ(out.use_count(), 2);
    }
    EXPECT_EQ(out.use_count(), 1);
    EXPECT_EQ(in.use_count(), 1);
    EXPECT_EQ(gain.use_count(), 1);
}

}  // namespace
}  // namespace mixer
