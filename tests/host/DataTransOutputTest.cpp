#include "host/DataTransOutput.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using host::DataTransOutput;

boost::shared_ptr<AudioFrame> Frame(int16_t base) {
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));  // 640 bytes
    for (uint32_t i = 0; i < f->len; ++i) f->Samples16()[i] = static_cast<int16_t>(base + i);
    std::strcpy(f->bufId, "mic");
    return f;
}

// Reads every ready block as the record client would.
std::vector<int16_t> Drain(DataTrans& client) {
    std::vector<int16_t> out;
    for (;;) {
        int err = 0;
        unsigned len = 0;
        char* id = nullptr;
        char* b = client.GetReadBuff(err, len, 0, &id);
        if (!b) break;
        EXPECT_STREQ(id, "mic");
        std::free(id);
        const int16_t* s = reinterpret_cast<const int16_t*>(b);
        out.insert(out.end(), s, s + len / 2);
        client.SubCount(len);
        client.ReleaseReadBuff();
    }
    return out;
}

TEST(DataTransOutputTest, FramesAreSplitOverBlocksInOrder) {
    test::ShmName name;
    DataTrans client;
    ASSERT_EQ(client.Init(name.c_str(), 8, 256), 0);
    boost::shared_ptr<DataTrans> mine(new DataTrans);
    ASSERT_EQ(mine->Init(name.c_str()), 0);
    DataTransOutput out(mine, "micRaw");
    EXPECT_EQ(out.name, "micRaw");
    ASSERT_EQ(out.WriteFrame(Frame(0)), 0);      // 640 bytes: three blocks
    ASSERT_EQ(out.WriteFrame(Frame(1000)), 0);
    std::vector<int16_t> got = Drain(client);
    ASSERT_EQ(got.size(), 640u);
    EXPECT_EQ(got[0], 0);
    EXPECT_EQ(got[319], 319);
    EXPECT_EQ(got[320], 1000);
    EXPECT_EQ(got[639], 1319);
    EXPECT_EQ(out.BytesWritten(), 1280u);
    EXPECT_EQ(out.state, STATE_ACTIVE);
}

TEST(DataTransOutputTest, SlowClientLosesAudioButStaysConnected) {
    test::ShmName name;
    DataTrans client;
    ASSERT_EQ(client.Init(name.c_str(), 4, 640), 0);
    boost::shared_ptr<DataTrans> mine(new DataTrans);
    ASSERT_EQ(mine->Init(name.c_str()), 0);
    DataTransOutput out(mine, "micAsr");
    test::LogCapture log;
    for (int i = 0; i < 4; ++i) ASSERT_EQ(out.WriteFrame(Frame(static_cast<int16_t>(i))), 0);
    EXPECT_EQ(out.WriteFrame(Frame(50)), -1);  // full: dropped, without waiting
    EXPECT_EQ(out.WriteFrame(Frame(60)), -1);
    EXPECT_EQ(out.state, STATE_ACTIVE);
    EXPECT_EQ(out.BytesDropped(), 1280u);
    EXPECT_EQ(log.Count("W Mixerd_DataTransOutput:WriteFrame:micAsr: client behind, dropping audio:"), 1);
    EXPECT_EQ(Drain(client).size(), 4u * 320);
    EXPECT_EQ(out.WriteFrame(Frame(70)), 0);  // room again
}

TEST(DataTransOutputTest, ClientThatLeftTurnsTheOutputIntoHangupAndTheQueueIsGone) {
    test::ShmName name;
    boost::shared_ptr<DataTrans> client(new DataTrans);
    ASSERT_EQ(client->Init(name.c_str(), 4, 640), 0);
    {
        boost::shared_ptr<DataTrans> mine(new DataTrans);
        ASSERT_EQ(mine->Init(name.c_str()), 0);
        DataTransOutput out(mine, "micHfp");
        client->DeInit();
        EXPECT_EQ(out.WriteFrame(Frame(0)), -1);
        EXPECT_EQ(out.state, STATE_HANGUP);
        EXPECT_EQ(out.WriteFrame(Frame(0)), -1);  // stays gone
    }
    // The last end to close removed the shared-memory object.
    EXPECT_FALSE(name.Exists());
}

}  // namespace
}  // namespace mixer

#include "host/StreamToken.h"

namespace mixer {
namespace {

TEST(StreamTokenTest, TrackedOutputRunsItsActionOnceWhenTheLastHolderLetsGo) {
    test::ShmName name;
    DataTrans client;
    ASSERT_EQ(client.Init(name.c_str(), 4, 640), 0);
    boost::shared_ptr<DataTrans> mine(new DataTrans);
    ASSERT_EQ(mine->Init(name.c_str()), 0);
    int gone = 0;
    boost::shared_ptr<Output> out(
        new host::Tracked<host::DataTransOutput>([&gone] { ++gone; }, mine, std::string("micRaw")));
    boost::shared_ptr<Output> engineCopy = out;
    EXPECT_EQ(out->WriteFrame(Frame(0)), 0);
    out.reset();
    EXPECT_EQ(gone, 0);
    engineCopy.reset();
    EXPECT_EQ(gone, 1);
}

}  // namespace
}  // namespace mixer
