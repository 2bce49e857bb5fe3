#include <gtest/gtest.h>
#include "host/devices/DataTransOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"
namespace mixer {
namespace {
using Frame = boost::shared_ptr<AudioFrame>;
using V = std::vector<int64_t>;

// A 20-ms frame of 16-kHz mono whose samples count up from 0.
Frame Ramp() {
    Frame f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
    for (uint32_t i = 0; i < f->len; ++i) f->Samples16()[i] = int16_t(i);
    return f;
}

// Reads every ready block as the record client would.
V Drain(DataTrans& client) {
    V out;
    int err = 0;
    unsigned len = 0;
    char* id = nullptr;
    for (char* b; (b = client.GetReadBuff(err, len, 0, &id)) != nullptr; client.ReleaseReadBuff()) {
        EXPECT_STREQ(id, "mic");
        std::free(id);
        out.insert(out.end(), reinterpret_cast<int16_t*>(b), reinterpret_cast<int16_t*>(b + len));
        client.SubCount(len);
    }
    return out;
}

TEST(DataTransOutputTest, FramesAreSplitOverBlocksASlowClientLosesAudioAndALeftOneHangsUp) {
    test::ShmName name;
    test::LogCapture log;
    DataTrans client;
    boost::shared_ptr<DataTrans> mine(new DataTrans);
    ASSERT_EQ(client.Init(name.c_str(), 4, 256) + mine->Init(name.c_str()), 0);
    host::DataTransOutput out(mine, "micRaw");
    Frame f = Ramp();  // 640 bytes: three blocks of the four
    std::strcpy(f->bufId, "mic");
    ASSERT_EQ(out.WriteFrame(f), 0);
    EXPECT_EQ(Drain(client), V(f->Samples16(), f->Samples16() + 320));
    // Full: the rest of a frame is dropped without waiting, and said once.
    EXPECT_EQ(V({out.WriteFrame(f), out.WriteFrame(f), out.WriteFrame(f), int64_t(out.BytesWritten()),
                 int64_t(out.BytesDropped()), int64_t(Drain(client).size()), out.WriteFrame(f), out.state}),
              (V{0, -1, -1, 1536, 1024, 448, 0, STATE_ACTIVE}));
    EXPECT_EQ(log.Count("W Mixerd_DataTransOutput:WriteFrame:micRaw: client behind, dropping audio:"), 1);
    client.DeInit();
    EXPECT_EQ(V({out.WriteFrame(f), out.WriteFrame(f), out.state}), (V{-1, -1, STATE_HANGUP}));  // gone for good
}
}  // namespace
}  // namespace mixer
