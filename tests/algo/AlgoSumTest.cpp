#include "mixer/algo/Algo.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

typedef boost::shared_ptr<AudioFrame> FramePtr;

FramePtr Frame(unsigned sampleSize, unsigned numCh = 2, unsigned rate = 48000) {
    FramePtr f(new AudioFrame(sampleSize, rate, numCh));
    memset(f->data, 0, f->size);
    return f;
}

TEST(AlgoSumTest, Saturate16Limits) {
    EXPECT_EQ(Algo::saturate16(32768), 32767);
    EXPECT_EQ(Algo::saturate16(32767), 32767);
    EXPECT_EQ(Algo::saturate16(-32768), -32768);
    EXPECT_EQ(Algo::saturate16(-32769), -32768);
    EXPECT_EQ(Algo::saturate16(INT_MAX), 32767);
    EXPECT_EQ(Algo::saturate16(INT_MIN), -32768);
    EXPECT_EQ(Algo::saturate16(-5), -5);
}

TEST(AlgoSumTest, SumSat16ClampsAndRailsAreSticky) {
    EXPECT_EQ(Algo::sumSat16(short(32767), short(-1000)), 32767);
    EXPECT_EQ(Algo::sumSat16(short(-32768), short(5)), -32768);
    EXPECT_EQ(Algo::sumSat16(short(32766), short(1)), 32767);
    EXPECT_EQ(Algo::sumSat16(short(-32767), short(-1)), -32768);
    EXPECT_EQ(Algo::sumSat16(short(30000), short(10000)), 32767);
    EXPECT_EQ(Algo::sumSat16(short(32766), short(-32768)), -2);
    EXPECT_EQ(Algo::sumSat16(short(0), 100000), 32767);
    EXPECT_EQ(Algo::sumSat16(short(32767), -100000), 32767);
    EXPECT_EQ(Algo::sumSat16(short(-5), -100000), -32768);
    // The 32-bit sum wraps before it is clamped.
    EXPECT_EQ(Algo::sumSat16(short(1), INT_MAX), -32768);
    EXPECT_EQ(Algo::sumSat16(short(-1), INT_MIN), 32767);
}

TEST(AlgoSumTest, SixteenPlusSixteenSaturatesAndJoinsTraces) {
    FramePtr d = Frame(2), s = Frame(2);
    int16_t* a = d->Samples16();
    int16_t* b = s->Samples16();
    a[0] = 32767; b[0] = -1000;
    a[1] = 30000; b[1] = 10000;
    a[2] = -32767; b[2] = -1;
    a[3] = 100; b[3] = -300;
    strcpy(d->bufId, "A");
    strcpy(s->bufId, "B C");
    ASSERT_EQ(Algo::AddFrames(d, s), 0);
    EXPECT_EQ(a[0], 32767);
    EXPECT_EQ(a[1], 32767);
    EXPECT_EQ(a[2], -32768);
    EXPECT_EQ(a[3], -200);
    EXPECT_STREQ(d->bufId, "A B C");
    // The last sample of the frame is summed too.
    b[959 * 2 + 1] = 7;
    ASSERT_EQ(Algo::AddFrames(d, s), 0);
    EXPECT_EQ(a[959 * 2 + 1], 7);
}

TEST(AlgoSumTest, WideDestinationAccumulatesWithoutClamp) {
    FramePtr d = Frame(4), s16 = Frame(2), s32 = Frame(4);
    d->Samples32()[0] = 40000;
    s16->Samples16()[0] = -32768;
    d->Samples32()[1] = INT_MAX;
    s16->Samples16()[1] = 1;
    ASSERT_EQ(Algo::AddFrames(d, s16), 0);
    EXPECT_EQ(d->Samples32()[0], 40000 - 32768);
    EXPECT_EQ(d->Samples32()[1], INT_MIN);  // wraps silently
    s32->Samples32()[0] = INT_MAX;
    s32->Samples32()[2] = -70000;
    ASSERT_EQ(Algo::AddFrames(d, s32), 0);
    EXPECT_EQ(d->Samples32()[0], static_cast<int32_t>(7232u + 2147483647u));
    EXPECT_EQ(d->Samples32()[2], -70000);
}

TEST(AlgoSumTest, NarrowDestinationTakesAWideAddendWithSaturation) {
    FramePtr d = Frame(2), s = Frame(4);
    d->Samples16()[0] = 0;      s->Samples32()[0] = 100000;
    d->Samples16()[1] = 10;     s->Samples32()[1] = -100000;
    d->Samples16()[2] = 32767;  s->Samples32()[2] = -100000;  // sticky
    d->Samples16()[3] = 5;      s->Samples32()[3] = -20;
    ASSERT_EQ(Algo::AddFrames(d, s), 0);
    EXPECT_EQ(d->Samples16()[0], 32767);
    EXPECT_EQ(d->Samples16()[1], -32768);
    EXPECT_EQ(d->Samples16()[2], 32767);
    EXPECT_EQ(d->Samples16()[3], -15);
}

TEST(AlgoSumTest, MismatchesAreRefusedWithTheirWarnings) {
    test::LogCapture log;
    FramePtr d = Frame(2, 2, 48000), s = Frame(2, 2, 16000);
    d->Samples16()[0] = 1;
    s->Samples16()[0] = 1;
    strcpy(s->bufId, "X");
    EXPECT_EQ(Algo::AddFrames(d, s), -1);
    EXPECT_EQ(log.Count("W Mixer_Algo:AddFrames:Frame len mismatch 960 != 320:"), 1);
    FramePtr mono = Frame(2, 1, 96000);
    FramePtr d2 = Frame(2, 2, 96000);
    EXPECT_EQ(Algo::AddFrames(d2, mono), -1);
    EXPECT_EQ(log.Count("W Mixer_Algo:AddFrames:numCh mismatch 2 != 1:"), 1);
    EXPECT_EQ(d->Samples16()[0], 1);
    EXPECT_STREQ(d->bufId, "");
}

TEST(AlgoSumTest, RatesAreNotCompared) {
    // 44100 and 44101 Hz give the same 882 samples per channel in 20 ms.
    FramePtr d = Frame(2, 2, 44100), s = Frame(2, 2, 44101);
    s->Samples16()[0] = 9;
    EXPECT_EQ(Algo::AddFrames(d, s), 0);
    EXPECT_EQ(d->Samples16()[0], 9);
}

TEST(AlgoSumTest, EmptyFramesStillJoinTraces) {
    FramePtr d(new AudioFrame(2, 10, 2)), s(new AudioFrame(2, 10, 2));
    ASSERT_EQ(d->len, 0u);
    strcpy(d->bufId, "A");
    strcpy(s->bufId, "B");
    EXPECT_EQ(Algo::AddFrames(d, s), 0);
    EXPECT_STREQ(d->bufId, "A B");
}

TEST(AlgoSumTest, SampleSizeOneIsSummedAsSixteenBitWithinItsBuffer) {
    // A one-byte frame holds half the 16-bit samples its length implies; the sum stays
    // inside both buffers (the sanitizer build would catch an overrun).
    FramePtr d = Frame(1, 1, 48000), s = Frame(1, 1, 48000);
    ASSERT_EQ(d->size, 960u);
    s->Samples16()[479] = 3;
    EXPECT_EQ(Algo::AddFrames(d, s), 0);
    EXPECT_EQ(d->Samples16()[479], 3);
}

}  // namespace
}  // namespace mixer
