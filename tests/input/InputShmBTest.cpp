#include "mixer/input/InputShmB.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "tests/input/ShmFeeder.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using test::LogCapture;
using test::Pattern;
using test::ShmFeeder;
using test::ShmName;

const int kFrameBytes = 3840;  // 20 ms of 48 kHz stereo 16-bit

std::vector<uint8_t> Bytes(const boost::shared_ptr<AudioFrame>& f, size_t from, size_t to) {
    return std::vector<uint8_t>(f->data + from, f->data + to);
}

// A writer process with a buffer of messages of the given size, and the input.
class InputShmBTest : public ::testing::Test {
protected:
    void Open(uint32_t msgSize, uint32_t numMsgs) {
        feeder.reset(new ShmFeeder(name.str(), msgSize, numMsgs));
        ASSERT_TRUE(feeder->created());
        in.reset(new InputShmB(name.str(), 48000, 2, 2, "speech"));
        ASSERT_EQ(in->state, STATE_ACTIVE);
        ASSERT_EQ(in->msgSize, static_cast<int32_t>(msgSize));
    }

    ShmName name{"shmb"};
    std::unique_ptr<ShmFeeder> feeder;
    std::unique_ptr<InputShmB> in;
};

TEST(InputShmBOpenTest, MissingBufferIsFaultAndStaysThere) {
    ShmName name("none");
    LogCapture log;
    {
        InputShmB in(name.str(), 48000, 2, 2, "speech");
        EXPECT_EQ(in.state, STATE_FAULT);
        EXPECT_EQ(in.msgSize, 0);
        in.Resume();
        in.Pause();
        EXPECT_EQ(in.state, STATE_FAULT);
        EXPECT_FALSE(in.Process());
    }
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "I Input:Const:r 48000 n 2 speech:",
                               "E Mixer_InputShmB:Constructor:Failed to open " + name.str() + ":"}));
}

TEST_F(InputShmBTest, OpenAndCloseAreLoggedAndPreWrittenMessagesAreSkipped) {
    LogCapture log;
    feeder.reset(new ShmFeeder(name.str(), kFrameBytes, 4));
    ASSERT_EQ(feeder->Write(1, 4), 1);
    in.reset(new InputShmB(name.str(), 48000, 2, 2, "speech"));
    EXPECT_EQ(in->state, STATE_ACTIVE);
    EXPECT_EQ(log.Count("I Mixer_InputShmB:Constructor:" + name.str() + " Opened:"), 1);
    // Reading starts with the writer's next message.
    EXPECT_FALSE(in->Process());
    ASSERT_EQ(feeder->Write(1, 5), 1);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrameBytes), Pattern(5, kFrameBytes));
    in.reset();
    EXPECT_EQ(log.Count("I Mixer_InputShmB:Destructor:" + name.str() + " Closed:"), 1);
}

TEST_F(InputShmBTest, WholeFrameMessageUnderflowsThenStopsWithTheGapLength) {
    Open(kFrameBytes, 4);
    LogCapture log;
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->underflowCount, 3);
    ASSERT_EQ(feeder->Write(1, 2), 1);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrameBytes), Pattern(2, kFrameBytes));
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"I Mixer_InputShmB:Process:EAGAIN:Start",
                                                     "I Mixer_InputShmB:Process:EAGAIN:Stop 60 ms"}));
}

TEST_F(InputShmBTest, SilentFrameIsConsumedAndDropped) {
    Open(kFrameBytes, 4);
    ASSERT_EQ(feeder->Write(1, 0), 1);
    ASSERT_EQ(feeder->Write(1, 3), 1);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->underflowCount, 0);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrameBytes), Pattern(3, kFrameBytes));
}

TEST_F(InputShmBTest, FourByteMessagesShortReadLogsTheMixedUpRestAndKeepsTheTail) {
    Open(4, 2000);
    LogCapture log;
    ASSERT_EQ(feeder->Write(500, 6), 500);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    // 960 messages make a frame; 500 gave 2000 bytes, and 960 - 2000 pads nothing.
    EXPECT_EQ(Bytes(f, 0, 2000), Pattern(6, 2000));
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"I Mixer_InputShmB:Process:EAGAIN:Start",
                                                     "E Mixer_InputShmB:Process:Read 2000 for 960!!:"}));
    EXPECT_EQ(in->underflowCount, 1);
}

TEST_F(InputShmBTest, FourByteMessagesShortReadOfFewPadsUpToTheMessageCount) {
    Open(4, 2000);
    ASSERT_EQ(feeder->Write(100, 6), 100);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    // read 400 bytes, rest = 960 - 400: bytes 400..959 cleared.
    EXPECT_EQ(Bytes(f, 0, 400), Pattern(6, 400));
    EXPECT_EQ(Bytes(f, 400, 960), std::vector<uint8_t>(560, 0));
}

TEST_F(InputShmBTest, OneByteMessagesShortReadIsPaddedWithZeros) {
    Open(1, 2 * kFrameBytes);
    LogCapture log;
    ASSERT_EQ(feeder->Write(1000, 9), 1000);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, 1000), Pattern(9, 1000));
    EXPECT_EQ(Bytes(f, 1000, kFrameBytes), std::vector<uint8_t>(kFrameBytes - 1000, 0));
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"I Mixer_InputShmB:Process:EAGAIN:Start"});
    // Nothing at all: no frame.
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->underflowCount, 2);
}

TEST_F(InputShmBTest, ResumeClearsTheCountAndSkipsWhatCameWhilePaused) {
    Open(kFrameBytes, 4);
    LogCapture log;
    for (int i = 0; i < 3; ++i) in->Process();
    in->Pause();
    EXPECT_EQ(in->state, STATE_PAUSED);
    ASSERT_EQ(feeder->Write(1, 1), 1);
    EXPECT_FALSE(in->Process());
    in->Resume();
    EXPECT_EQ(in->state, STATE_ACTIVE);
    EXPECT_EQ(in->underflowCount, 0);
    ASSERT_EQ(feeder->Write(1, 2), 1);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrameBytes), Pattern(2, kFrameBytes));
    EXPECT_EQ(log.Count("I Mixer_InputShmB:Process:EAGAIN:Start"), 1);
    EXPECT_EQ(log.CountPrefix("I Mixer_InputShmB:Process:EAGAIN:Stop"), 0) << log.Dump();
}

TEST_F(InputShmBTest, MoreThanAThousandShortReadsHangUpYetStillYieldTheFrame) {
    Open(1, 2 * kFrameBytes);
    LogCapture log;
    for (int i = 0; i < 1000; ++i) in->Process();
    EXPECT_EQ(in->state, STATE_ACTIVE);
    ASSERT_EQ(feeder->Write(10, 3), 10);
    boost::shared_ptr<AudioFrame> f = in->Process();
    EXPECT_EQ(in->state, STATE_HANGUP);
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, 10), Pattern(3, 10));
    EXPECT_EQ(log.Count("I Mixer_InputShmB:Process:Too many underflow frames in a row:"), 1);
    in->Resume();
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_FALSE(in->Process());
}

TEST_F(InputShmBTest, BlockingReadTakesAWholeFrameAndTakesAShortOneForHangUp) {
    Open(4, 2000);
    in->blocking = true;
    ASSERT_EQ(feeder->Write(960, 0), 960);
    // Blocking mode keeps silent frames.
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrameBytes), std::vector<uint8_t>(kFrameBytes, 0));

    LogCapture log;
    ASSERT_EQ(feeder->Write(10, 1), 10);
    ASSERT_EQ(feeder->HangUp(), 0);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"W Mixer_InputShmB:Process:Read 10 for 960!!:"});
    EXPECT_EQ(in->underflowCount, 0);
}

TEST_F(InputShmBTest, BlockingReadTimesOutAfterItsWait) {
    Open(kFrameBytes, 4);
    in->blocking = true;
    LogCapture log;
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"W Mixer_InputShmB:Process:Read 0 for 1!!:"});
}

TEST_F(InputShmBTest, MessageLargerThanAFrameIsAFault) {
    Open(2 * kFrameBytes, 2);
    LogCapture log;
    ASSERT_EQ(feeder->Write(1, 3), 1);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_FAULT);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{
                               "E Mixer_InputShmB:Process:Message size 7680 above frame size 3840:"});
}

}  // namespace
}  // namespace mixer
