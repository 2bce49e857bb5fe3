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
using test::ShmName;
typedef std::vector<std::string> Lines;

const int kFrame = 3840;  // 20 ms of 48 kHz stereo 16-bit

std::vector<uint8_t> Bytes(const boost::shared_ptr<AudioFrame>& f, size_t from, size_t to) {
    return std::vector<uint8_t>(f->data + from, f->data + to);
}

// A writer process with a buffer of messages of the size a test chooses, and the input.
class InputShmBTest : public ::testing::Test {
protected:
    void Open(uint32_t msgSize, uint32_t numMsgs) {
        feeder.reset(new test::ShmFeeder(name.str(), msgSize, numMsgs));
        ASSERT_TRUE(feeder->created());
        in.reset(new InputShmB(name.str(), 48000, 2, 2, "speech"));
        ASSERT_EQ(in->state, STATE_ACTIVE);
    }
    ShmName name{"shmb"};
    std::unique_ptr<test::ShmFeeder> feeder;
    std::unique_ptr<InputShmB> in;
};

TEST(InputShmBOpenTest, MissingBufferIsFaultAndStaysThere) {
    ShmName name("none");
    LogCapture log;
    InputShmB in(name.str(), 48000, 2, 2, "speech");
    EXPECT_EQ(in.state, STATE_FAULT);
    in.Resume();
    EXPECT_EQ(in.state, STATE_FAULT);
    EXPECT_FALSE(in.Process());
    EXPECT_EQ(log.Lines(), (Lines{"I Input:Const:r 48000 n 2 speech:",
                                  "E Mixer_InputShmB:Constructor:Failed to open " + name.str() + ":"}));
}

TEST_F(InputShmBTest, OpenAndCloseAreLoggedAndReadingStartsWithTheNextMessage) {
    LogCapture log;
    feeder.reset(new test::ShmFeeder(name.str(), kFrame, 4));
    ASSERT_EQ(feeder->Write(1, 4), 1);
    in.reset(new InputShmB(name.str(), 48000, 2, 2, "speech"));
    EXPECT_EQ(log.Count("I Mixer_InputShmB:Constructor:" + name.str() + " Opened:"), 1);
    EXPECT_EQ(in->msgSize, kFrame);
    EXPECT_FALSE(in->Process());
    in.reset();
    EXPECT_EQ(log.Count("I Mixer_InputShmB:Destructor:" + name.str() + " Closed:"), 1);
}

TEST_F(InputShmBTest, UnderflowsStopWithTheGapLengthAndSilenceIsDropped) {
    Open(kFrame, 4);
    LogCapture log;
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(in->Process());
    ASSERT_EQ(feeder->Write(1, 0), 1);
    ASSERT_EQ(feeder->Write(1, 2), 1);
    EXPECT_FALSE(in->Process());  // the silent message, taken
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrame), Pattern(2, kFrame));
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmB:Process:EAGAIN:Start",
                                  "I Mixer_InputShmB:Process:EAGAIN:Stop 60 ms"}));
}

TEST_F(InputShmBTest, FourByteMessagesPadByTheMessageCountLessTheBytesRead) {
    Open(4, 2000);
    LogCapture log;
    // 960 messages make a frame. 100 read 400 bytes: 960 - 400 bytes are cleared.
    ASSERT_EQ(feeder->Write(100, 6), 100);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, 400), Pattern(6, 400));
    EXPECT_EQ(Bytes(f, 400, 960), std::vector<uint8_t>(560, 0));
    // 500 read 2000 bytes: 960 - 2000 clears nothing, the frame still comes.
    ASSERT_EQ(feeder->Write(500, 7), 500);
    f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, 2000), Pattern(7, 2000));
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmB:Process:EAGAIN:Start",
                                  "E Mixer_InputShmB:Process:Read 2000 for 960!!:"}));
    EXPECT_EQ(in->underflowCount, 2);
}

TEST_F(InputShmBTest, OneByteMessagesArePaddedAndAThousandShortReadsHangUp) {
    Open(1, 2 * kFrame);
    LogCapture log;
    ASSERT_EQ(feeder->Write(1000, 9), 1000);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, 1000), Pattern(9, 1000));
    EXPECT_EQ(Bytes(f, 1000, kFrame), std::vector<uint8_t>(kFrame - 1000, 0));
    for (int i = 1; i < 1000; ++i) EXPECT_FALSE(in->Process());  // nothing: no frame
    EXPECT_EQ(in->state, STATE_ACTIVE);
    // The call that declares the hang-up still yields what it read.
    ASSERT_EQ(feeder->Write(10, 3), 10);
    f = in->Process();
    EXPECT_EQ(in->state, STATE_HANGUP);
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, 10), Pattern(3, 10));
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmB:Process:EAGAIN:Start",
                                  "I Mixer_InputShmB:Process:Too many underflow frames in a row:"}));
    in->Resume();
    EXPECT_FALSE(in->Process());
}

TEST_F(InputShmBTest, ResumeClearsTheCountAndSkipsWhatCameWhilePaused) {
    Open(kFrame, 4);
    LogCapture log;
    for (int i = 0; i < 3; ++i) in->Process();
    in->Pause();
    ASSERT_EQ(feeder->Write(1, 1), 1);
    EXPECT_FALSE(in->Process());
    in->Resume();
    EXPECT_EQ(in->state, STATE_ACTIVE);
    ASSERT_EQ(feeder->Write(1, 2), 1);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrame), Pattern(2, kFrame));
    EXPECT_EQ(log.Lines(), Lines{"I Mixer_InputShmB:Process:EAGAIN:Start"});
}

TEST_F(InputShmBTest, BlockingReadTakesWholeFramesSilentOnesTooAndShortOnesAsHangUp) {
    Open(4, 2000);
    in->blocking = true;
    ASSERT_EQ(feeder->Write(960, 0), 960);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f, 0, kFrame), std::vector<uint8_t>(kFrame, 0));
    LogCapture log;
    ASSERT_EQ(feeder->Write(10, 1), 10);
    ASSERT_EQ(feeder->HangUp(), 0);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(), Lines{"W Mixer_InputShmB:Process:Read 10 for 960!!:"});
}

TEST_F(InputShmBTest, MessageLargerThanAFrameIsAFault) {
    Open(2 * kFrame, 2);
    LogCapture log;
    ASSERT_EQ(feeder->Write(1, 3), 1);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_FAULT);
    EXPECT_EQ(log.Lines(), Lines{"E Mixer_InputShmB:Process:Message size 7680 above frame size 3840:"});
}

}  // namespace
}  // namespace mixer
