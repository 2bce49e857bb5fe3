#include <gtest/gtest.h>

#include "host/AlsaMicInput.h"
#include "host/AlsaOutput.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using host::AlsaMicInput;
using host::AlsaOutput;

const char* const kBogus = "mixerd_no_such_pcm";

boost::shared_ptr<AudioFrame> Frame(unsigned rate, unsigned numCh) {
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, 20));
    for (uint32_t i = 0; i < f->len * numCh; ++i) f->Samples16()[i] = static_cast<int16_t>(i);
    return f;
}

TEST(AlsaOutputTest, UnknownDeviceFaultsWithALogLineAndNothingOnStderr) {
    test::LogCapture log;
    AlsaOutput out(kBogus, 48000, 2);
    EXPECT_EQ(out.name, "ALSA");  // the engine lets its blocking writes set the pace
    testing::internal::CaptureStderr();
    EXPECT_EQ(out.Open(), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out.state, STATE_FAULT);
    EXPECT_EQ(log.CountPrefix(std::string("E Mixerd_AlsaOutput:Open:") + kBogus + ":"), 1) << log.Dump();
    EXPECT_EQ(err, "");  // alsa-lib's complaints go to the log instead
    // A failed device refuses frames and stays failed.
    EXPECT_EQ(out.WriteFrame(Frame(48000, 2)), -1);
    EXPECT_EQ(out.state, STATE_FAULT);
    EXPECT_EQ(out.GetDelayUs(), 0u);
}

TEST(AlsaOutputTest, NullDeviceTakesFramesPausesAndResumes) {
    AlsaOutput out("null", 48000, 2);
    ASSERT_EQ(out.Open(), 0);
    EXPECT_EQ(out.state, STATE_ACTIVE);
    EXPECT_EQ(out.WriteFrame(Frame(48000, 2)), 0);
    out.IdleTick();
    EXPECT_EQ(out.state, STATE_ACTIVE);
    {
        test::LogCapture log;
        EXPECT_EQ(out.WriteFrame(Frame(48000, 1)), -1);  // wrong channel count: refused, not fatal
        EXPECT_EQ(log.CountPrefix("W Mixerd_AlsaOutput:WriteFrame:format 1 ch"), 1);
    }
    EXPECT_EQ(out.state, STATE_ACTIVE);
    out.Pause();
    EXPECT_EQ(out.state, STATE_PAUSED);
    out.Resume();
    EXPECT_EQ(out.state, STATE_ACTIVE);
    EXPECT_EQ(out.WriteFrame(Frame(48000, 2)), 0);
    out.Close();
    EXPECT_EQ(out.WriteFrame(Frame(48000, 2)), -1);
    EXPECT_EQ(out.state, STATE_FAULT);
}

TEST(AlsaMicInputTest, UnknownDeviceFaultsAndYieldsNoFrame) {
    test::LogCapture log;
    AlsaMicInput mic(kBogus, 16000, 1);
    EXPECT_EQ(mic.desc, "mic");
    EXPECT_EQ(mic.Open(), -1);
    EXPECT_EQ(mic.state, STATE_FAULT);
    EXPECT_EQ(log.CountPrefix(std::string("E Mixerd_AlsaMicInput:Open:") + kBogus + ":"), 1);
    EXPECT_FALSE(mic.Process());
    EXPECT_EQ(mic.state, STATE_FAULT);
}

TEST(AlsaMicInputTest, NullDeviceCapturesWholePeriods) {
    AlsaMicInput mic("null", 16000, 1);
    ASSERT_EQ(mic.Open(), 0);
    boost::shared_ptr<AudioFrame> f = mic.Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(f->len, 320u);
    EXPECT_EQ(f->rate, 16000u);
    mic.Pause();
    EXPECT_EQ(mic.state, STATE_PAUSED);
    mic.Resume();
    EXPECT_EQ(mic.state, STATE_ACTIVE);
    EXPECT_TRUE(mic.Process());
}

}  // namespace
}  // namespace mixer
