#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "shmbuf.h"
#include "shmq.h"
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
    for (int32_t want = 1;;) {  // polled, never waited on, as the mixer does
        want = want * 5 % 2999 + 1;
        const int32_t n = ShmQRead(r, buf.data(), want, 0);
        ASSERT_GE(n, 0);
        for (int32_t i = 0; i < n; ++i) ASSERT_EQ(buf[i], StreamByte(got + i)) << got + i;
        got += n;
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
    char buf[16] = {};
    EXPECT_EQ(ShmQWrite(w, "abcdefghijkl", 12, 0), 8);
    EXPECT_EQ(ShmQWrite(w, "m", 1, 20), 0);  // still full when the time runs out
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

const uint32_t kMsg = 12;

// Message i: its number, then a filler that depends on it.
void FillMsg(uint8_t* m, uint32_t i) {
    std::memcpy(m, &i, 4);
    for (uint32_t k = 4; k < kMsg; ++k) m[k] = static_cast<uint8_t>(i + k);
}
bool MsgIs(const uint8_t* m, uint32_t i) {
    uint8_t want[kMsg];
    FillMsg(want, i);
    return std::memcmp(m, want, kMsg) == 0;
}

TEST(ShmbufTest, MessagesCrossProcessesInOrderNoneLostNoneRepeatedThenHangUp) {
    ShmName name("stream");
    const uint32_t total = 20000;
    Pipe created, opened;
    ChildProcess writer([&] {
        ShmbufHandle* w = ShmbufCreate(name.c_str() + 1, kMsg, 37);  // the name without '/'
        created.Post(w != nullptr);
        if (w == nullptr || !opened.Wait()) return 2;
        std::vector<uint8_t> chunk(kMsg * 50);
        for (uint32_t sent = 0, step = 1; sent < total; sent += step) {
            step = std::min(step * 7 % 50 + 1, total - sent);  // at times more than fits
            for (uint32_t i = 0; i < step; ++i) FillMsg(&chunk[i * kMsg], sent + i);
            if (ShmbufWrite(w, chunk.data(), step, SHMBUF_WAIT_FOREVER) != int32_t(step)) return 3;
        }
        ShmbufClose(w);  // hangs up
        return 0;
    });
    int ok = 0;
    ASSERT_TRUE(created.Wait(&ok) && ok);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ShmbufOpen(name.c_str(), 0), nullptr);  // one reader at a time
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(ShmbufGetMsgSize(r), int32_t(kMsg));
    opened.Post();
    std::vector<uint8_t> buf(kMsg * 40);
    uint32_t got = 0;
    for (uint32_t want = 1;;) {
        want = want * 3 % 40 + 1;  // at times more than the buffer holds
        // Without limit: only the writer's hang-up ends a wait short.
        const int32_t n = ShmbufReadWait(r, buf.data(), want, SHMBUF_WAIT_FOREVER);
        ASSERT_GE(n, 0);
        for (int32_t i = 0; i < n; ++i) ASSERT_TRUE(MsgIs(&buf[i * kMsg], got + i)) << got + i;
        got += n;
        if (n == 0) break;
    }
    EXPECT_EQ(got, total);
    EXPECT_EQ(writer.Wait(), 0);
    EXPECT_FALSE(name.Exists());
    ShmbufClose(r);
}

TEST(ShmbufTest, ReadStartKeepsTheNewestAndReadsHonourTheirMinimumAndTimeOut) {
    ShmName name;
    ShmbufHandle* w = ShmbufCreate(name.c_str(), kMsg, 4);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    uint8_t m[5 * kMsg], buf[5 * kMsg];
    for (uint32_t i = 0; i < 5; ++i) FillMsg(m + i * kMsg, i);
    EXPECT_EQ(ShmbufWrite(w, m, 5, 0), 4);   // full after four
    EXPECT_EQ(ShmbufReadStart(r, 2), 2);     // 0 and 1 skipped
    EXPECT_EQ(ShmbufRead(r, buf, 4, 3), 0);  // two waiting, three wanted at least
    EXPECT_EQ(ShmbufReadWait(r, buf, 5, 20), 2);
    EXPECT_TRUE(MsgIs(buf, 2) && MsgIs(buf + kMsg, 3));
    EXPECT_EQ(ShmbufHangUp(w), 0);
    EXPECT_EQ(ShmbufWrite(w, m, 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    ShmbufClose(r);
    ShmbufClose(w);
}

}  // namespace
