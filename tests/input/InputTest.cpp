#include "mixer/input/Input.h"

#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

// The smallest concrete input: only the pure operation is supplied.
class BareInput : public Input {
public:
    BareInput(unsigned rate_, unsigned numCh_, const std::string& desc_)
        : Input(rate_, numCh_, 2, desc_) {}
    void Pause() override { ++pauses; }
    int pauses = 0;
};

TEST(MixerIOTest, DisplayNamesAndStoppedShowsAsUnknown) {
    EXPECT_EQ(MixerIO::GetStateStr(STATE_ACTIVE), "Active");
    EXPECT_EQ(MixerIO::GetStateStr(STATE_DRAINING), "Draining");
    EXPECT_EQ(MixerIO::GetStateStr(STATE_PAUSING), "Pausing");
    EXPECT_EQ(MixerIO::GetStateStr(STATE_PAUSED), "Paused");
    EXPECT_EQ(MixerIO::GetStateStr(STATE_HANGUP), "Hangup");
    EXPECT_EQ(MixerIO::GetStateStr(STATE_FAULT), "Fault");
    EXPECT_EQ(MixerIO::GetStateStr(STATE_STOPPED), "Unknown");
    EXPECT_EQ(MixerIO::GetStateStr(static_cast<tInOutState>(1234)), "Unknown");
    // The same object every time: callers may keep the reference.
    EXPECT_EQ(&MixerIO::GetStateStr(STATE_FAULT), &MixerIO::GetStateStr(STATE_FAULT));
}

TEST(InputTest, ConstructionLogsAndStartsPausedWithDefaults) {
    test::LogCapture log;
    BareInput in(44100, 2, "music");
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"I Input:Const:r 44100 n 2 music:"});
    EXPECT_EQ(in.state, STATE_PAUSED);
    EXPECT_FALSE(in.blocking);
    EXPECT_EQ(in.priority, 0u);
    EXPECT_EQ(in.desc, "music");
    EXPECT_EQ(in.sampleSize, 2u);
}

TEST(InputTest, BadRateAndChannelCountFallBackToFortyEightKiloHertzMono) {
    test::LogCapture log;
    BareInput in(0, 12, "x");
    EXPECT_EQ(in.rate, 48000u);
    EXPECT_EQ(in.numCh, 1u);
    EXPECT_EQ(log.Count("W Input:Input:rate 0 -> 48000:"), 1);
    EXPECT_EQ(log.Count("W Input:Input:numCh 12 -> 1:"), 1);
}

TEST(InputTest, DefaultOperations) {
    BareInput in(48000, 2, "x");
    EXPECT_FALSE(in.Process());
    EXPECT_EQ(in.GetCmd(), CMD_NONE);
    EXPECT_EQ(in.HandleCmd(CMD_PAUSE), 0);
    in.Resume();
    in.Drain();
    in.Flush();
    EXPECT_EQ(in.state, STATE_PAUSED);
    EXPECT_EQ(in.pauses, 0);
    // PauseDelay ignores the delay and pauses through the virtual slot.
    in.PauseDelay(250);
    EXPECT_EQ(in.pauses, 1);
}

}  // namespace
}  // namespace mixer
