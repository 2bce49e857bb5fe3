#include "mixer/core/AudioFrame.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

TEST(AudioFrameTest, StereoFrameOfTwentyMsHasNineHundredSixtySamples) {
    AudioFrame f(SAMPLE_SIZE_16, 48000, 2);
    EXPECT_EQ(f.lenMs, 20u);
    EXPECT_EQ(f.len, 960u);
    EXPECT_EQ(f.size, 3840u);
    EXPECT_EQ(f.allocSize, 3840u);
    EXPECT_EQ(f.bufId[0], '\0');
    EXPECT_EQ(f.bufId[kBufIdLen - 1], '\0');
}

TEST(AudioFrameTest, ByteSizeIsDividedOnceSoItExceedsSamplesTimesWidth) {
    AudioFrame f(SAMPLE_SIZE_16, 11025, 1, 20);
    EXPECT_EQ(f.len, 220u);
    EXPECT_EQ(f.size, 441u);
}

TEST(AudioFrameTest, LargestLegalFormatIsAcceptedUnchanged) {
    test::LogCapture log;
    AudioFrame f(SAMPLE_SIZE_32, 96000, 10, 100);
    EXPECT_EQ(f.size, 384000u);  // the 384,000,000 product divided by 1000
    EXPECT_EQ(f.len, 9600u);
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(AudioFrameTest, OutOfRangeValuesAreReplacedWithWarnings) {
    test::LogCapture log;
    {
        AudioFrame f(2, 0, 11, 0);
        EXPECT_EQ(f.rate, 48000u);
        EXPECT_EQ(f.numCh, 1u);
        EXPECT_EQ(f.lenMs, 20u);
    }
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "W AudioFrame:AudioFrame:rate 0 -> 48000:",
                               "W AudioFrame:AudioFrame:numCh 11 -> 1:",
                               "W AudioFrame:AudioFrame:Frame len in ms 0 -> 20:"}));
    log.Clear();
    AudioFrame g(5, 96001, 1, 101);
    EXPECT_EQ(g.sampleSize, 2u);
    EXPECT_EQ(g.rate, 48000u);
    EXPECT_EQ(g.lenMs, 20u);
    // The sample-size check reuses the rate message; only the numbers differ.
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "W AudioFrame:AudioFrame:rate 96001 -> 48000:",
                               "W AudioFrame:AudioFrame:Frame len in ms 101 -> 20:",
                               "W AudioFrame:AudioFrame:rate 5 -> 2:"}));
    log.Clear();
    AudioFrame h(0, static_cast<unsigned>(-1), 2);
    EXPECT_EQ(h.sampleSize, 2u);
    EXPECT_EQ(h.rate, 48000u);
}

TEST(AudioFrameTest, WarningsFollowTheLogMask) {
    test::LogCapture log(0);
    AudioFrame f(2, 0, 2);
    EXPECT_EQ(f.rate, 48000u);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(AudioFrameTest, CopyOwnsItsDataAndKeepsTheTrace) {
    AudioFrame a(SAMPLE_SIZE_16, 48000, 2);
    for (unsigned i = 0; i < a.len * a.numCh; ++i) a.Samples16()[i] = static_cast<int16_t>(i);
    strcpy(a.bufId, "blk1 blk2");
    AudioFrame b(a);
    ASSERT_NE(a.data, b.data);
    EXPECT_EQ(0, memcmp(a.data, b.data, a.size));
    EXPECT_EQ(0, memcmp(a.bufId, b.bufId, kBufIdLen));
    EXPECT_EQ(b.len, a.len);
    EXPECT_EQ(b.allocSize, a.allocSize);
    b.Samples16()[5] = -1;
    EXPECT_EQ(a.Samples16()[5], 5);
}

class UtilConcatBufIdTest : public ::testing::Test {
protected:
    char trace[kBufIdLen] = {};
};

TEST_F(UtilConcatBufIdTest, JoinsIdsWithTheSeparator) {
    char a[] = "A", b[] = "B", empty[] = "";
    EXPECT_EQ(UtilConcatBufId(trace, a, ' '), trace);
    EXPECT_STREQ(trace, "A");
    EXPECT_EQ(UtilConcatBufId(trace, b, ' '), trace);
    EXPECT_STREQ(trace, "A B");
    EXPECT_EQ(UtilConcatBufId(trace, empty, ' '), nullptr);
    EXPECT_STREQ(trace, "A B");
}

TEST_F(UtilConcatBufIdTest, NearlyFullTraceEndsWithACutOffId) {
    std::string d(140, 'x'), s(20, 'y');
    strcpy(trace, d.c_str());
    UtilConcatBufId(trace, &s[0], ' ');
    EXPECT_EQ(std::string(trace), d + " " + std::string(7, 'y'));
    EXPECT_EQ(strlen(trace), 148u);
}

TEST_F(UtilConcatBufIdTest, ExactFitAndOverflowBoundaries) {
    std::string d(100, 'x'), s(48, 'y');  // 100 + 48 = 148: appended whole
    strcpy(trace, d.c_str());
    UtilConcatBufId(trace, &s[0], ' ');
    EXPECT_EQ(strlen(trace), 149u);
    // A full trace takes nothing more and stays terminated inside the array.
    std::string more(10, 'z');
    UtilConcatBufId(trace, &more[0], ' ');
    EXPECT_EQ(strlen(trace), 149u);
    EXPECT_EQ(trace[kBufIdLen - 1], '\0');
    // 148 characters: the separator fits, no room for any of the id.
    std::string d148(148, 'x');
    strcpy(trace, d148.c_str());
    UtilConcatBufId(trace, &more[0], ' ');
    EXPECT_EQ(std::string(trace), d148 + " ");
}

TEST_F(UtilConcatBufIdTest, FirstIdIsBoundedByTheArray) {
    std::string longId(300, 'q');
    UtilConcatBufId(trace, &longId[0], ' ');
    EXPECT_EQ(strlen(trace), kBufIdLen - 1);
}

}  // namespace
}  // namespace mixer
