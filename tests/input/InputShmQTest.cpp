#include "mixer/input/InputShmQ.h"

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

std::vector<uint8_t> Bytes(const boost::shared_ptr<AudioFrame>& f) {
    return std::vector<uint8_t>(f->data, f->data + f->size);
}

// A writer process with a queue of a few frames, and the input reading it.
class InputShmQTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(feeder.created());
        in.reset(new InputShmQ(name.str(), 48000, 2, 2, "music"));
        ASSERT_EQ(in->state, STATE_ACTIVE);
    }
    ShmName name{"shmq"};
    test::ShmFeeder feeder{name.str(), 0, 4 * kFrame};
    std::unique_ptr<InputShmQ> in;
};

TEST(InputShmQOpenTest, MissingQueueIsFaultAndStaysThere) {
    ShmName name("none");
    LogCapture log;
    InputShmQ in(name.str(), 48000, 2, 2, "music");
    EXPECT_EQ(in.state, STATE_FAULT);
    EXPECT_EQ(log.Count("E Mixer_InputShmQ:Contructor:Failed to open " + name.str() + ":"), 1);
    in.Pause();
    in.Resume();
    EXPECT_EQ(in.state, STATE_FAULT);
    EXPECT_FALSE(in.Process());
}

TEST_F(InputShmQTest, OneByteShortUnderflowsKeepsTheBytesQueuedAndStopsAfterHundredMs) {
    LogCapture log;
    ASSERT_EQ(feeder.Write(kFrame - 1, 7), kFrame - 1);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(in->Process());
    EXPECT_EQ(log.Lines(), Lines{"I Mixer_InputShmQ:Process:EAGAIN:Start"});
    // One more byte completes the frame left in the queue.
    ASSERT_EQ(feeder.Write(1, 9), 1);
    std::vector<uint8_t> expect = Pattern(7, kFrame - 1);
    expect.push_back(Pattern(9, 1)[0]);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f), expect);
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmQ:Process:EAGAIN:Start",
                                  "I Mixer_InputShmQ:Process:EAGAIN:Stop 100 ms"}));
    EXPECT_EQ(in->underflowCount, 0);
}

TEST_F(InputShmQTest, SilentFrameIsConsumedAndDroppedButOneLoudByteKeepsAFrame) {
    ASSERT_EQ(feeder.Write(kFrame, 0), kFrame);
    ASSERT_EQ(feeder.Write(2 * kFrame - 1, 0), 2 * kFrame - 1);
    ASSERT_EQ(feeder.Write(1, 5), 1);
    EXPECT_FALSE(in->Process());
    EXPECT_FALSE(in->Process());
    // The zeros were taken: the third frame is the one whose last byte is not zero.
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_NE(f->data[kFrame - 1], 0);
    EXPECT_EQ(in->underflowCount, 0);
}

TEST_F(InputShmQTest, HangUpIsSeenOnceTheQueuedFramesAreRead) {
    LogCapture log;
    ASSERT_EQ(feeder.Write(kFrame + 100, 2), kFrame + 100);
    ASSERT_EQ(feeder.HangUp(), 0);
    EXPECT_TRUE(in->Process());
    EXPECT_FALSE(in->Process());  // 100 bytes are not a frame, and no more will come
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(), Lines{"I Mixer_InputShmQ:Process:shmQ:hangup"});
    in->Resume();
    EXPECT_EQ(in->state, STATE_HANGUP);
}

TEST_F(InputShmQTest, ThousandAndOneUnderflowsInARowHangUpDespitePauseAndResume) {
    LogCapture log;
    for (int i = 0; i < 500; ++i) in->Process();
    // A paused input reads nothing and counts nothing; resuming keeps the count.
    in->Pause();
    EXPECT_EQ(in->state, STATE_PAUSED);
    EXPECT_FALSE(in->Process());
    in->Resume();
    EXPECT_EQ(in->underflowCount, 500);
    for (int i = 0; i < 500; ++i) in->Process();
    EXPECT_EQ(in->state, STATE_ACTIVE);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmQ:Process:EAGAIN:Start",
                                  "I Mixer_InputShmQ:Process:Too many underflow frames in a row:"}));
    ASSERT_EQ(feeder.Write(kFrame, 1), kFrame);
    EXPECT_FALSE(in->Process());  // too late
}

}  // namespace
}  // namespace mixer
