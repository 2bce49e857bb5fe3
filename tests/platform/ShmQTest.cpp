#include "shmq.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/ShmName.h"

namespace {

using mixer::test::ChildProcess;
using mixer::test::Pipe;
using mixer::test::ShmName;

uint8_t StreamByte(uint32_t i) { return static_cast<uint8_t>(i * 131u + (i >> 8)); }

TEST(ShmQTest, BytesCrossProcessesInOrderNoneLostNoneRepeatedThenHangUp) {
    ShmName name("stream");
    const uint32_t total = 300000;
    Pipe created, opened;
    ChildProcess writer([&] {
        // An odd capacity, so that copies wrap at every offset; the name without '/'.
        ShmQHandle* w = ShmQCreate(name.c_str() + 1, 4099);
        created.Post(w != nullptr);
        if (w == nullptr || !opened.Wait()) return 2;
        std::vector<uint8_t> chunk(5000);
        for (uint32_t sent = 0, step = 1; sent < total; sent += step) {
            step = std::min(step * 7 % 4999 + 1, total - sent);  // at times more than fits
            for (uint32_t i = 0; i < step; ++i) chunk[i] = StreamByte(sent + i);
            if (ShmQWrite(w, chunk.data(), step, SHMQ_WAIT_FOREVER) != int32_t(step)) return 3;
        }
        ShmQClose(w);  // hangs up
        return 0;
    });
    int ok = 0;
    ASSERT_TRUE(created.Wait(&ok) && ok);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ShmQOpen(name.c_str()), nullptr);  // one reader at a time
    EXPECT_EQ(errno, EBUSY);
    opened.Post();
    std::vector<uint8_t> buf(3000);
    uint32_t got = 0;
    for (int32_t want = 1;;) {
        want = want * 5 % 2999 + 1;
        const int32_t n = ShmQRead(r, buf.data(), want, 0);
        ASSERT_GE(n, 0);
        for (int32_t i = 0; i < n; ++i) ASSERT_EQ(buf[i], StreamByte(got + i)) << got + i;
        got += n;
        // This reader never waits: the queue is polled, as the mixer does.
        if (n == 0 && ShmQIsHungUp(r) && ShmQDataAvail(r) == 0) break;
        if (n == 0) sched_yield();
    }
    EXPECT_EQ(got, total);
    EXPECT_EQ(writer.Wait(), 0);
    EXPECT_FALSE(name.Exists());  // the writer's close removed the name
    ShmQClose(r);
}

TEST(ShmQTest, MinimumMakesReadsAllOrNothingAndFullQueuesTakeWhatFits) {
    ShmName name;
    ShmQHandle* w = ShmQCreate(name.c_str(), 8);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ShmQWrite(w, "abcdefghijkl", 12, 0), 8);
    EXPECT_EQ(ShmQWrite(w, "m", 1, 20), 0);  // still full when the time runs out
    char buf[16] = {};
    EXPECT_EQ(ShmQRead(r, buf, 16, 9), 0);
    EXPECT_EQ(ShmQRead(r, buf, 3, 3), 3);
    EXPECT_EQ(ShmQWrite(w, "xyz", 3, 0), 3);
    EXPECT_EQ(ShmQRead(r, buf, 16, 0), 8);
    EXPECT_EQ(std::string(buf, 8), "defghxyz");
    ShmQClose(r);
    // A reader that dies without closing leaves the queue to the next one.
    ChildProcess crashed([&] { return ShmQOpen(name.c_str()) != nullptr ? 0 : 1; });
    ASSERT_EQ(crashed.Wait(), 0);
    r = ShmQOpen(name.c_str());
    EXPECT_NE(r, nullptr);
    EXPECT_EQ(ShmQHangUp(w), 0);
    EXPECT_EQ(ShmQWrite(w, "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    ShmQClose(r);
    ShmQClose(w);
}

}  // namespace
