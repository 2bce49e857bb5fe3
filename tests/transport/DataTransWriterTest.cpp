#include "mixer/transport/DataTransWriter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using test::ChildProcess;
using test::Pipe;
using test::ShmName;

TEST(DataTransWriterTest, ClientAudioIsSplitIntoBlocksAndCounted) {
    ShmName name;
    Pipe created, drained;
    std::vector<char> audio(10000);
    for (size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<char>(i * 13);
    ChildProcess client([&] {
        DataTransWriter w;
        CHILD_CHECK(w.Create(name.c_str(), 2, 3840, 48000, 2, 2) == 0);
        created.Send();
        size_t written = 0;
        // Three blocks through a queue of two: the second Write waits for the reader.
        CHILD_CHECK(w.Write(audio.data(), audio.size(), "song-1", 0xFFFFFFFFu, &written) == 0);
        CHILD_CHECK(written == audio.size());
        CHILD_CHECK(w.Drain() == 0);
        CHILD_CHECK(w.Queue()->GetNumBlkFree() == 2);
        drained.Send();
        w.Close();
        return 0;
    });
    ASSERT_EQ(created.Receive(), '.');
    DataTrans reader;
    ASSERT_EQ(reader.Init(name.c_str()), 0);
    EXPECT_EQ(reader.GetRate(), 48000);
    EXPECT_EQ(reader.GetNumCh(), 2);
    EXPECT_EQ(reader.GetSampleSize(), 2);
    std::vector<char> got;
    const unsigned expected[] = {3840, 3840, 2320};
    for (unsigned want : expected) {
        int err;
        unsigned len = 0;
        char* id = nullptr;
        const char* p = reader.GetReadBuff(err, len, 20000, &id);
        ASSERT_NE(p, nullptr) << err;
        EXPECT_EQ(len, want);
        EXPECT_STREQ(id, "song-1");
        free(id);
        got.insert(got.end(), p, p + len);
        // Every committed byte was counted before the reader saw it.
        EXPECT_GE(reader.AddCount(0), len);
        reader.SubCount(len);
        ASSERT_TRUE(reader.ReleaseReadBuff());
    }
    EXPECT_EQ(got, audio);
    EXPECT_EQ(reader.SubCount(0), 0u);
    ASSERT_EQ(drained.Receive(), '.');
    EXPECT_EQ(client.Wait(), 0);
}

TEST(DataTransWriterTest, FullOrClosedQueueStopsTheWriteAndSaysHowFarItGot) {
    ShmName name;
    DataTransWriter w;
    std::vector<char> audio(100);
    EXPECT_EQ(w.Write(audio.data(), audio.size(), nullptr, 0), ENOENT);
    ASSERT_EQ(w.Create(name.c_str(), 2, 40, 16000, 1, 2), 0);
    {
        test::LogCapture log;
        DataTransWriter twice;
        EXPECT_EQ(twice.Create(name.c_str(), 2, 40, 16000, 1, 2), EEXIST);
        EXPECT_FALSE(twice.IsOpen());
    }
    size_t written = 0;
    EXPECT_EQ(w.Write(audio.data(), audio.size(), nullptr, 0, &written), EAGAIN);
    EXPECT_EQ(written, 80u);  // two blocks of 40
    EXPECT_EQ(w.Queue()->AddCount(0), 80u);

    DataTrans reader;
    ASSERT_EQ(reader.Init(name.c_str()), 0);
    reader.DeInit();
    EXPECT_EQ(w.Write(audio.data(), 10, nullptr, 0), EHOSTDOWN);
    w.Close();
    EXPECT_FALSE(name.Exists());
}

}  // namespace
}  // namespace mixer
