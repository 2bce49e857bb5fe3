#include "shmq.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "tests/support/ForkedChild.h"
#include "tests/support/ShmName.h"

namespace {

using mixer::test::ForkedChild;
using mixer::test::Gate;
using mixer::test::ShmName;

uint8_t StreamByte(uint32_t i) { return static_cast<uint8_t>(i * 131u + (i >> 8)); }

TEST(ShmQTest, BytesCrossProcessesInOrderNoneLostNoneRepeated) {
    ShmName name("stream");
    const uint32_t total = 300000;
    Gate created, opened;
    ForkedChild writer([&] {
        // An odd capacity, so that copies wrap at every possible offset.
        ShmQHandle* w = ShmQCreate(name.c_str(), 4099);
        created.Post(w != nullptr);
        if (w == nullptr || !opened.Wait()) return 2;
        std::vector<uint8_t> chunk(5000);
        uint32_t sent = 0, step = 1;
        while (sent < total) {
            step = step * 7 % 4999 + 1;  // 1..4999 bytes, more than the ring at times
            const uint32_t n = std::min(step, total - sent);
            for (uint32_t i = 0; i < n; ++i) chunk[i] = StreamByte(sent + i);
            // Waits for the reader to make room.
            if (ShmQWrite(w, chunk.data(), n, SHMQ_WAIT_FOREVER) != static_cast<int32_t>(n))
                return 3;
            sent += n;
        }
        ShmQClose(w);  // hangs up
        return 0;
    });

    int ok = 0;
    ASSERT_TRUE(created.Wait(&ok));
    ASSERT_EQ(ok, 1);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    opened.Post();
    std::vector<uint8_t> buf(3000);
    uint32_t got = 0;
    int32_t want = 1;
    bool same = true;
    for (;;) {
        want = want * 5 % 2999 + 1;
        const int32_t n = ShmQRead(r, buf.data(), want, 0);
        ASSERT_GE(n, 0);
        for (int32_t i = 0; i < n && same; ++i) same = buf[i] == StreamByte(got + i);
        ASSERT_TRUE(same) << "byte " << got;
        got += n;
        if (n == 0) {
            // This reader never waits: the queue is polled, as the mixer does.
            if (ShmQIsHungUp(r) && ShmQDataAvail(r) == 0) break;
            sched_yield();
        }
    }
    EXPECT_EQ(got, total);
    EXPECT_EQ(writer.Wait(), 0);
    ShmQClose(r);
    EXPECT_FALSE(name.Exists());
}

TEST(ShmQTest, ReadBelowItsMinimumTakesNothing) {
    ShmName name;
    ShmQHandle* w = ShmQCreate(name.c_str(), 64);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    const char text[] = "0123456789";
    ASSERT_EQ(ShmQWrite(w, text, 10, 0), 10);
    char buf[20] = {};
    EXPECT_EQ(ShmQRead(r, buf, 20, 11), 0);
    EXPECT_EQ(ShmQDataAvail(r), 10);
    EXPECT_EQ(ShmQRead(r, buf, 4, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "0123");
    EXPECT_EQ(ShmQRead(r, buf, 20, 0), 6);
    EXPECT_EQ(std::string(buf, 6), "456789");
    EXPECT_EQ(ShmQDataAvail(r), 0);

    errno = 0;
    EXPECT_EQ(ShmQRead(r, buf, 4, 5), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ShmQRead(w, buf, 4, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(ShmQWrite(r, text, 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(ShmQDataAvail(nullptr), -1);
    ShmQClose(r);
    ShmQClose(w);
}

TEST(ShmQTest, FullQueueTakesWhatFitsAndTimesOutWithTheRest) {
    ShmName name;
    ShmQHandle* w = ShmQCreate(name.c_str(), 8);
    ASSERT_NE(w, nullptr);
    const char text[] = "abcdefghijkl";
    EXPECT_EQ(ShmQWrite(w, text, 12, 0), 8);
    EXPECT_EQ(ShmQSpaceAvail(w), 0);
    EXPECT_EQ(ShmQWrite(w, text, 1, 30), 0);
    ShmQHandle* r = ShmQOpen(name.c_str());
    char buf[8];
    EXPECT_EQ(ShmQRead(r, buf, 3, 0), 3);
    EXPECT_EQ(ShmQWrite(w, "xyz", 3, 0), 3);
    EXPECT_EQ(ShmQRead(r, buf, 8, 8), 8);
    EXPECT_EQ(std::string(buf, 8), "defghxyz");
    ShmQClose(r);
    ShmQClose(w);
}

TEST(ShmQTest, WriterCloseInAnotherProcessHangsUpAndRemovesTheName) {
    ShmName name;
    Gate created, opened;
    ForkedChild writer([&] {
        ShmQHandle* w = ShmQCreate(name.c_str() + 1, 256);  // the name without its '/'
        created.Post(w != nullptr);
        if (!opened.Wait()) return 2;
        if (ShmQWrite(w, "tail", 4, 0) != 4) return 3;
        ShmQClose(w);
        return 0;
    });
    int ok = 0;
    ASSERT_TRUE(created.Wait(&ok));
    ASSERT_EQ(ok, 1);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ShmQIsHungUp(r), 0);
    opened.Post();
    ASSERT_EQ(writer.Wait(), 0);

    EXPECT_FALSE(name.Exists());
    EXPECT_NE(ShmQIsHungUp(r), 0);
    // What came before the hang-up is still there.
    char buf[8];
    EXPECT_EQ(ShmQRead(r, buf, 8, 0), 4);
    EXPECT_EQ(std::string(buf, 4), "tail");
    ShmQClose(r);
    errno = 0;
    EXPECT_EQ(ShmQOpen(name.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ShmQTest, OneReaderAtATimeAndNamesAreNeverReused) {
    ShmName name;
    ShmQHandle* w = ShmQCreate(name.c_str(), 16);
    ASSERT_NE(w, nullptr);
    errno = 0;
    EXPECT_EQ(ShmQCreate(name.c_str(), 16), nullptr);
    EXPECT_EQ(errno, EEXIST);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    errno = 0;
    EXPECT_EQ(ShmQOpen(name.c_str()), nullptr);
    EXPECT_EQ(errno, EBUSY);
    ShmQClose(r);
    r = ShmQOpen(name.c_str());
    EXPECT_NE(r, nullptr);

    EXPECT_EQ(ShmQHangUp(w), 0);
    errno = 0;
    EXPECT_EQ(ShmQWrite(w, "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(ShmQHangUp(r), -1);
    ShmQClose(r);
    ShmQClose(w);

    EXPECT_EQ(ShmQCreate(name.c_str(), 0), nullptr);
    EXPECT_EQ(ShmQCreate("/", 16), nullptr);
    EXPECT_EQ(ShmQOpen(nullptr), nullptr);
}

TEST(ShmQTest, ObjectThatIsNotAQueueIsRefused) {
    ShmName name;
    // An object of zeros: no queue was ever set up in it.
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    close(fd);
    errno = 0;
    EXPECT_EQ(ShmQOpen(name.c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
