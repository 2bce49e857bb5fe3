#include "shmbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/support/ForkedChild.h"
#include "tests/support/ShmName.h"

namespace {

using mixer::test::ForkedChild;
using mixer::test::Gate;
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

TEST(ShmbufTest, MessagesCrossProcessesInOrderNoneLostNoneRepeated) {
    ShmName name("stream");
    const uint32_t total = 20000;
    Gate created, opened;
    ForkedChild writer([&] {
        ShmbufHandle* w = ShmbufCreate(name.c_str(), kMsg, 37);
        created.Post(w != nullptr);
        if (w == nullptr || !opened.Wait()) return 2;
        std::vector<uint8_t> chunk(kMsg * 50);
        uint32_t sent = 0, step = 1;
        while (sent < total) {
            step = step * 7 % 50 + 1;  // 1..50 messages, more than the buffer holds at times
            const uint32_t n = std::min(step, total - sent);
            for (uint32_t i = 0; i < n; ++i) FillMsg(&chunk[i * kMsg], sent + i);
            if (ShmbufWrite(w, chunk.data(), n, SHMBUF_WAIT_FOREVER) != static_cast<int32_t>(n))
                return 3;
            sent += n;
        }
        ShmbufClose(w);  // hangs up
        return 0;
    });
    int ok = 0;
    ASSERT_TRUE(created.Wait(&ok));
    ASSERT_EQ(ok, 1);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ShmbufGetMsgSize(r), static_cast<int32_t>(kMsg));
    opened.Post();

    std::vector<uint8_t> buf(kMsg * 40);
    uint32_t got = 0, want = 1;
    for (;;) {
        want = want * 3 % 40 + 1;
        // Without limit: only the writer's hang-up ends a wait short.
        const int32_t n = ShmbufReadWait(r, buf.data(), want, SHMBUF_WAIT_FOREVER);
        ASSERT_GE(n, 0);
        for (int32_t i = 0; i < n; ++i) ASSERT_TRUE(MsgIs(&buf[i * kMsg], got + i)) << got + i;
        got += n;
        if (n == 0) break;
    }
    EXPECT_EQ(got, total);
    EXPECT_EQ(writer.Wait(), 0);
    ShmbufClose(r);
    EXPECT_FALSE(name.Exists());
}

TEST(ShmbufTest, WaitingReaderWakesForMessagesFromAnotherProcess) {
    ShmName name;
    ShmbufHandle* w = nullptr;
    Gate go;
    w = ShmbufCreate(name.c_str(), kMsg, 8);
    ASSERT_NE(w, nullptr);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    ForkedChild writer([&] {
        if (!go.Wait()) return 2;
        uint8_t m[3 * kMsg];
        for (uint32_t i = 0; i < 3; ++i) FillMsg(m + i * kMsg, 100 + i);
        // One at a time: the reader must keep waiting until all three are there.
        for (uint32_t i = 0; i < 3; ++i)
            if (ShmbufWrite(w, m + i * kMsg, 1, 0) != 1) return 3;
        return 0;
    });
    go.Post();
    uint8_t buf[3 * kMsg];
    EXPECT_EQ(ShmbufReadWait(r, buf, 3, SHMBUF_WAIT_FOREVER), 3);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_TRUE(MsgIs(buf + i * kMsg, 100 + i));
    EXPECT_EQ(writer.Wait(), 0);

    // The hang-up from the other process ends a wait without limit.
    ForkedChild closer([&] {
        if (!go.Wait()) return 2;
        return ShmbufHangUp(w) == 0 ? 0 : 3;
    });
    go.Post();
    EXPECT_EQ(ShmbufReadWait(r, buf, 1, SHMBUF_WAIT_FOREVER), 0);
    EXPECT_EQ(closer.Wait(), 0);
    ShmbufClose(r);
    ShmbufClose(w);
}

TEST(ShmbufTest, TimedWaitReturnsWhatArrived) {
    ShmName name;
    ShmbufHandle* w = ShmbufCreate(name.c_str(), kMsg, 8);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    uint8_t m[2 * kMsg];
    FillMsg(m, 1);
    FillMsg(m + kMsg, 2);
    ASSERT_EQ(ShmbufWrite(w, m, 2, 0), 2);
    uint8_t buf[5 * kMsg];
    EXPECT_EQ(ShmbufReadWait(r, buf, 5, 30), 2);
    EXPECT_TRUE(MsgIs(buf, 1));
    EXPECT_TRUE(MsgIs(buf + kMsg, 2));
    EXPECT_EQ(ShmbufReadWait(r, buf, 1, 0), 0);
    ShmbufClose(r);
    ShmbufClose(w);
}

TEST(ShmbufTest, ReadStartKeepsTheNewestAndReadHonoursItsMinimum) {
    ShmName name;
    ShmbufHandle* w = ShmbufCreate(name.c_str(), kMsg, 4);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    uint8_t m[kMsg];
    // Six messages through a buffer of four: two reads wrap the ring.
    for (uint32_t i = 0; i < 3; ++i) {
        FillMsg(m, i);
        ASSERT_EQ(ShmbufWrite(w, m, 1, 0), 1);
    }
    uint8_t buf[4 * kMsg];
    EXPECT_EQ(ShmbufRead(r, buf, 2, 0), 2);
    for (uint32_t i = 3; i < 6; ++i) {
        FillMsg(m, i);
        ASSERT_EQ(ShmbufWrite(w, m, 1, 0), 1);
    }
    FillMsg(m, 6);
    EXPECT_EQ(ShmbufWrite(w, m, 1, 0), 0);  // full: 2..5 wait

    EXPECT_EQ(ShmbufReadStart(r, 2), 2);
    EXPECT_EQ(ShmbufRead(r, buf, 4, 3), 0);  // two waiting, three wanted at least
    EXPECT_EQ(ShmbufRead(r, buf, 4, 2), 2);
    EXPECT_TRUE(MsgIs(buf, 4));
    EXPECT_TRUE(MsgIs(buf + kMsg, 5));

    ASSERT_EQ(ShmbufWrite(w, m, 1, 0), 1);
    EXPECT_EQ(ShmbufReadStart(r, 0), 1);
    EXPECT_EQ(ShmbufRead(r, buf, 4, 0), 0);
    ShmbufClose(r);
    ShmbufClose(w);
}

TEST(ShmbufTest, BadArgumentsAndSecondReadersAreRefused) {
    ShmName name;
    EXPECT_EQ(ShmbufCreate(name.c_str(), 0, 4), nullptr);
    EXPECT_EQ(ShmbufCreate(name.c_str(), 4, 0), nullptr);
    EXPECT_EQ(ShmbufCreate(name.c_str(), 1u << 16, 1u << 16), nullptr);
    EXPECT_FALSE(name.Exists());
    errno = 0;
    EXPECT_EQ(ShmbufOpen(name.c_str(), 0), nullptr);
    EXPECT_EQ(errno, ENOENT);

    ShmbufHandle* w = ShmbufCreate(name.c_str() + 1, 4, 4);  // the name without its '/'
    ASSERT_NE(w, nullptr);
    EXPECT_TRUE(name.Exists());
    errno = 0;
    EXPECT_EQ(ShmbufOpen(name.c_str(), 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    ShmbufHandle* r = ShmbufOpen(name.c_str(), 0);
    ASSERT_NE(r, nullptr);
    errno = 0;
    EXPECT_EQ(ShmbufOpen(name.c_str(), 0), nullptr);
    EXPECT_EQ(errno, EBUSY);

    uint8_t buf[16];
    EXPECT_EQ(ShmbufRead(r, buf, 2, 3), -1);
    EXPECT_EQ(ShmbufRead(w, buf, 2, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(ShmbufWrite(r, buf, 1, 0), -1);
    EXPECT_EQ(ShmbufGetMsgSize(nullptr), -1);
    EXPECT_EQ(ShmbufHangUp(w), 0);
    errno = 0;
    EXPECT_EQ(ShmbufWrite(w, buf, 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    ShmbufClose(r);
    ShmbufClose(w);
    EXPECT_FALSE(name.Exists());
}

}  // namespace
