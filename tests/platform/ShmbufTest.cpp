#include "shmbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/ShmName.h"

namespace {

using mixer::test::ChildProcess;
using mixer::test::Pipe;
using mixer::test::ShmName;

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
