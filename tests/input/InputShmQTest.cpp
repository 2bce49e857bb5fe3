#include "mixer/input/InputShmQ.h"

#include <gtest/gtest.h>

#include <cstring>
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

// A writer process with a queue of a few frames, and the input reading it.
class InputShmQTest : public ::testing::Test {
protected:
    InputShmQTest() : feeder(name.str(), 0, 4 * kFrameBytes) {}

    void SetUp() override {
        ASSERT_TRUE(feeder.created());
        in.reset(new InputShmQ(name.str(), 48000, 2, 2, "music"));
        ASSERT_EQ(in->state, STATE_ACTIVE);
    }

    static std::vector<uint8_t> Bytes(const boost::shared_ptr<AudioFrame>& f) {
        return std::vector<uint8_t>(f->data, f->data + f->size);
    }

    ShmName name{"shmq"};
    ShmFeeder feeder;
    std::unique_ptr<InputShmQ> in;
};

TEST(InputShmQOpenTest, MissingQueueIsFaultAndStaysThere) {
    ShmName name("none");
    LogCapture log;
    InputShmQ in(name.str(), 48000, 2, 2, "music");
    EXPECT_EQ(in.state, STATE_FAULT);
    EXPECT_EQ(in.queue, nullptr);
    EXPECT_EQ(log.Count("E Mixer_InputShmQ:Contructor:Failed to open " + name.str() + ":"), 1)
        << log.Dump();
    in.Pause();
    EXPECT_EQ(in.state, STATE_FAULT);
    in.Resume();
    EXPECT_EQ(in.state, STATE_FAULT);
    EXPECT_FALSE(in.Process());
}

TEST_F(InputShmQTest, OneByteShortUnderflowsAndLeavesTheBytesQueued) {
    LogCapture log;
    ASSERT_EQ(feeder.Write(kFrameBytes - 1, 7), kFrameBytes - 1);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->underflowCount, 1);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"I Mixer_InputShmQ:Process:EAGAIN:Start"});

    // The last byte completes the frame that was left in the queue.
    std::vector<uint8_t> expect = Pattern(7, kFrameBytes - 1);
    ASSERT_EQ(feeder.Write(1, 9), 1);
    expect.push_back(test::PatternByte(9, 0));
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f), expect);
    EXPECT_EQ(log.Count("I Mixer_InputShmQ:Process:EAGAIN:Stop 20 ms"), 1);
}

TEST_F(InputShmQTest, FiveUnderflowsThenAFrameLogStartOnceAndStopWithHundredMs) {
    LogCapture log;
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(in->Process());
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"I Mixer_InputShmQ:Process:EAGAIN:Start"});
    ASSERT_EQ(feeder.Write(kFrameBytes, 3), kFrameBytes);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f), Pattern(3, kFrameBytes));
    EXPECT_EQ(f->len, 960u);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"I Mixer_InputShmQ:Process:EAGAIN:Start",
                                                     "I Mixer_InputShmQ:Process:EAGAIN:Stop 100 ms"}));
    EXPECT_EQ(in->underflowCount, 0);
}

TEST_F(InputShmQTest, SilentFrameIsConsumedAndDropped) {
    ASSERT_EQ(feeder.Write(kFrameBytes, 0), kFrameBytes);
    ASSERT_EQ(feeder.Write(kFrameBytes, 5), kFrameBytes);
    EXPECT_FALSE(in->Process());
    // The zeros are gone: the next call gets the frame written after them.
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f), Pattern(5, kFrameBytes));
    EXPECT_EQ(in->underflowCount, 0);
}

TEST_F(InputShmQTest, FrameWhoseOnlySoundIsTheLastByteIsKept) {
    ASSERT_EQ(feeder.Write(kFrameBytes - 1, 0), kFrameBytes - 1);
    ASSERT_EQ(feeder.Write(1, 4), 1);
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_NE(f->data[kFrameBytes - 1], 0);
}

TEST_F(InputShmQTest, HangUpIsSeenOnceTheQueuedFramesAreRead) {
    LogCapture log;
    ASSERT_EQ(feeder.Write(kFrameBytes + 100, 2), kFrameBytes + 100);
    ASSERT_EQ(feeder.HangUp(), 0);
    EXPECT_TRUE(in->Process());
    EXPECT_EQ(in->state, STATE_ACTIVE);
    // The 100 bytes left are not a frame, and no more will come.
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(in->underflowCount, 0);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"I Mixer_InputShmQ:Process:shmQ:hangup"});
    in->Resume();
    in->Pause();
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_FALSE(in->Process());
}

TEST_F(InputShmQTest, ThousandAndOneUnderflowsInARowHangUpDespitePauseAndResume) {
    LogCapture log;
    for (int i = 0; i < 500; ++i) in->Process();
    // Pausing and resuming keeps the count: the writer has still been silent.
    in->Pause();
    EXPECT_EQ(in->state, STATE_PAUSED);
    EXPECT_FALSE(in->Process());
    in->Resume();
    EXPECT_EQ(in->state, STATE_ACTIVE);
    EXPECT_EQ(in->underflowCount, 500);
    for (int i = 0; i < 500; ++i) in->Process();
    EXPECT_EQ(in->state, STATE_ACTIVE);
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(),
              (std::vector<std::string>{"I Mixer_InputShmQ:Process:EAGAIN:Start",
                                        "I Mixer_InputShmQ:Process:Too many underflow frames in a row:"}));
    // Data that arrives now is too late.
    ASSERT_EQ(feeder.Write(kFrameBytes, 1), kFrameBytes);
    EXPECT_FALSE(in->Process());
}

TEST_F(InputShmQTest, PausedInputLeavesTheQueueAlone) {
    ASSERT_EQ(feeder.Write(kFrameBytes, 6), kFrameBytes);
    in->Pause();
    EXPECT_FALSE(in->Process());
    EXPECT_EQ(in->underflowCount, 0);
    in->Resume();
    boost::shared_ptr<AudioFrame> f = in->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(Bytes(f), Pattern(6, kFrameBytes));
}

TEST_F(InputShmQTest, WideSamplesMakeLargerFramesAndClosingReleasesTheReader) {
    // 16 kHz mono 32-bit: 1280 bytes; this queue's reader is already taken.
    InputShmQ second(name.str(), 16000, 1, 4, "wide");
    EXPECT_EQ(second.state, STATE_FAULT);
    in.reset();
    InputShmQ wide(name.str(), 16000, 1, 4, "wide");
    ASSERT_EQ(wide.state, STATE_ACTIVE);
    ASSERT_EQ(feeder.Write(1280, 8), 1280);
    boost::shared_ptr<AudioFrame> f = wide.Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(f->size, 1280u);
    EXPECT_EQ(Bytes(f), Pattern(8, 1280));
}

}  // namespace
}  // namespace mixer
