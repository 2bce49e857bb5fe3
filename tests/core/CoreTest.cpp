#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include "mixer/core/AudioFrame.h"
#include "mixer/core/MsgQ.h"
#include "mixer/core/MsgSetSpeakerVol.h"
#include "tests/support/LogCapture.h"
namespace mixer {
namespace {
typedef std::vector<std::string> Lines;

// Sample size, rate, channels and ms asked for and kept, then samples per channel and
// bytes; out-of-range values are replaced with a warning each.
std::vector<unsigned> Format(const AudioFrame& f) { return {f.sampleSize, f.rate, f.numCh, f.lenMs, f.len, f.size, f.allocSize}; }

TEST(AudioFrameTest, SizesFollowTheFormatOutOfRangeValuesAreReplacedAndCopiesOwnTheirData) {
    struct Case { std::vector<unsigned> asked, got; Lines warnings; };
    const Case cases[] = {
        {{2, 48000, 2, 20}, {2, 48000, 2, 20, 960, 3840, 3840}, {}},
        {{2, 11025, 1, 20}, {2, 11025, 1, 20, 220, 441, 441}, {}},  // bytes divided once: above len * 2
        {{4, 96000, 10, 100}, {4, 96000, 10, 100, 9600, 384000, 384000}, {}},  // the largest legal format
        {{2, 0, 11, 0}, {2, 48000, 1, 20, 960, 1920, 1920}, {"rate 0 -> 48000:", "numCh 11 -> 1:", "Frame len in ms 0 -> 20:"}},
        // The sample-size check reuses the rate message; only the numbers differ.
        {{5, 96001, 1, 101}, {2, 48000, 1, 20, 960, 1920, 1920}, {"rate 96001 -> 48000:", "Frame len in ms 101 -> 20:", "rate 5 -> 2:"}},
        {{0, 0xFFFFFFFFu, 0, 1}, {2, 48000, 1, 1, 48, 96, 96}, {"rate 4294967295 -> 48000:", "numCh 0 -> 1:", "rate 0 -> 2:"}},
    };
    for (const Case& c : cases) {
        test::LogCapture log;
        AudioFrame f(c.asked[0], c.asked[1], c.asked[2], c.asked[3]);
        EXPECT_EQ(Format(f), c.got) << c.asked[0] << " bytes " << c.asked[1] << " Hz";
        EXPECT_EQ(f.bufId[0] | f.bufId[kBufIdLen - 1], '\0');
        Lines want;
        for (const std::string& w : c.warnings) want.push_back("W AudioFrame:AudioFrame:" + w);
        EXPECT_EQ(log.Lines(), want);
        for (unsigned i = 0; i < f.size; ++i) f.data[i] = static_cast<uint8_t>(i * 7);
        std::strcpy(f.bufId, "blk1 blk2");
        AudioFrame copy(f);
        ASSERT_NE(copy.data, f.data);
        EXPECT_EQ(Format(copy), c.got);
        EXPECT_EQ(std::memcmp(copy.data, f.data, f.size), 0);
        EXPECT_STREQ(copy.bufId, "blk1 blk2");
    }
}

TEST(UtilConcatBufIdTest, JoinsIdsWithinTheArray) {
    const std::string x100(100, 'x'), x140(140, 'x'), x148(148, 'x'), x149(149, 'x');
    struct Case { std::string dst, src, joined; };
    const Case cases[] = {
        {"", "A", "A"}, {"A", "B", "A B"}, {"A B", "", "A B"},  // nothing to add: null, unchanged
        {x140, std::string(20, 'y'), x140 + " " + std::string(7, 'y')},  // cut off at 148 characters
        {x100, std::string(48, 'y'), x100 + " " + std::string(48, 'y')},
        {x100, std::string(49, 'y'), x100 + " " + std::string(47, 'y')},
        {x148, "zz", x148 + " "},  // room for the separator only
        {x149, "zz", x149},        // full: nothing more
        {"", std::string(300, 'q'), std::string(149, 'q')},
    };
    for (const Case& c : cases) {
        char trace[kBufIdLen + 1] = {};
        trace[kBufIdLen] = '#';  // a guard byte past the array
        std::strcpy(trace, c.dst.c_str());
        std::string src = c.src;
        EXPECT_EQ(UtilConcatBufId(trace, &src[0], ' '), c.src.empty() ? nullptr : trace) << c.dst << "+" << c.src;
        EXPECT_EQ(std::string(trace), c.joined);
        EXPECT_EQ(trace[kBufIdLen], '#');
    }
}

boost::shared_ptr<MsgHead> Vol(uint32_t v) { return boost::shared_ptr<MsgHead>(new MsgSetSpeakerVol(v)); }
int VolOf(const boost::shared_ptr<MsgHead>& m) {  // -1 for an empty message
    boost::shared_ptr<MsgSetSpeakerVol> v = boost::dynamic_pointer_cast<MsgSetSpeakerVol>(m);
    return v ? static_cast<int>(v->volume) : -1;
}

TEST(MsgQTest, ManyPostersFromOtherThreadsLoseNothingAndKeepTheirOrderAndAnEmptyPostIsRefused) {
    test::LogCapture log;
    MsgQ q;
    const int kThreads = 4, kEach = 500;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t)
        posters.emplace_back([&q, t] { for (int i = 0; i < kEach; ++i) q.sendMsg(Vol(t * kEach + i)); });
    std::vector<int> lastOf(kThreads, -1);
    for (int taken = 0; taken < kThreads * kEach;) {
        const int v = VolOf(q.getMsg(true));
        if (v < 0) continue;  // empty after a wake-up
        EXPECT_GT(v % kEach, lastOf[v / kEach]);
        lastOf[v / kEach] = v % kEach;
        ++taken;
    }
    for (auto& p : posters) p.join();
    q.sendMsg(boost::shared_ptr<MsgHead>());
    q.sendMsg(Vol(7));
    EXPECT_EQ(VolOf(q.getMsg(true)), 7);  // not the refused empty one
    EXPECT_FALSE(q.getMsg(false));
    EXPECT_EQ(log.Lines(), Lines{"I MsgQ:sendMsg:NULL:"});
}
}  // namespace
}  // namespace mixer
