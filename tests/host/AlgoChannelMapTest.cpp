#include "host/AlgoChannelMap.h"

#include <gtest/gtest.h>

namespace mixer {
namespace {

using host::AlgoChannelMap;

boost::shared_ptr<AudioFrame> Frame(unsigned ss, unsigned numCh) {
    boost::shared_ptr<AudioFrame> f(new AudioFrame(ss, 8000, numCh, 20));
    for (uint32_t i = 0; i < f->len * numCh; ++i) {
        if (ss == SAMPLE_SIZE_32)
            f->Samples32()[i] = static_cast<int32_t>(i) * 1000;
        else
            f->Samples16()[i] = static_cast<int16_t>(i);
    }
    std::strcpy(f->bufId, "7");
    return f;
}

TEST(AlgoChannelMapTest, MonoIsHeardOnEveryChannel) {
    AlgoChannelMap map(1, 2);
    EXPECT_EQ(map.id, static_cast<tAlgoID>(4));
    boost::shared_ptr<AudioFrame> out = map.Process(Frame(SAMPLE_SIZE_16, 1));
    ASSERT_TRUE(out);
    EXPECT_EQ(out->numCh, 2u);
    EXPECT_EQ(out->len, 160u);
    EXPECT_EQ(out->size, 640u);
    EXPECT_STREQ(out->bufId, "7");
    for (uint32_t i = 0; i < out->len; ++i) {
        ASSERT_EQ(out->Samples16()[2 * i], static_cast<int16_t>(i));
        ASSERT_EQ(out->Samples16()[2 * i + 1], static_cast<int16_t>(i));
    }
}

TEST(AlgoChannelMapTest, DownToMonoAveragesWithoutOverflow) {
    AlgoChannelMap map(2, 1);
    boost::shared_ptr<AudioFrame> in(new AudioFrame(SAMPLE_SIZE_16, 8000, 2, 20));
    for (uint32_t i = 0; i < in->len; ++i) {
        in->Samples16()[2 * i] = 32767;
        in->Samples16()[2 * i + 1] = static_cast<int16_t>(i % 2 ? 32767 : -32767);
    }
    boost::shared_ptr<AudioFrame> out = map.Process(in);
    ASSERT_EQ(out->numCh, 1u);
    EXPECT_EQ(out->Samples16()[0], 0);
    EXPECT_EQ(out->Samples16()[1], 32767);
    boost::shared_ptr<AudioFrame> wide = AlgoChannelMap(2, 1).Process(Frame(SAMPLE_SIZE_32, 2));
    EXPECT_EQ(wide->Samples32()[3], (6000 + 7000) / 2);
}

TEST(AlgoChannelMapTest, OtherFramesAndBypassPassUntouched) {
    AlgoChannelMap map(1, 2);
    boost::shared_ptr<AudioFrame> stereo = Frame(SAMPLE_SIZE_16, 2);
    EXPECT_EQ(map.Process(stereo), stereo);
    EXPECT_FALSE(map.Process(boost::shared_ptr<AudioFrame>()));
    map.bypass = true;
    boost::shared_ptr<AudioFrame> mono = Frame(SAMPLE_SIZE_16, 1);
    EXPECT_EQ(map.Process(mono), mono);
    // Widening to more channels repeats the input's channels in turn.
    boost::shared_ptr<AudioFrame> four = AlgoChannelMap(2, 4).Process(Frame(SAMPLE_SIZE_16, 2));
    EXPECT_EQ(four->Samples16()[4 + 0], 2);
    EXPECT_EQ(four->Samples16()[4 + 1], 3);
    EXPECT_EQ(four->Samples16()[4 + 2], 2);
    EXPECT_EQ(four->Samples16()[4 + 3], 3);
}

}  // namespace
}  // namespace mixer
