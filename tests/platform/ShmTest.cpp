#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <cerrno>
#include <string>
#include <vector>
#include "platform/common/shm_ring.h"
#include "shmbuf.h"
#include "shmq.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ShmName.h"
namespace {
using mixer::test::ChildProcess;
using mixer::test::ShmName;

// A writer process sends total units (bytes, or messages of unit bytes) in chunks of
// varying size, at times more than fits, and hangs up by closing; this process reads in
// varying sizes and checks every byte: in order, none lost, none repeated.
struct Channel { const char* name; bool queue; uint32_t unit, total, capacity, maxChunk, maxRead; };
void PrintTo(const Channel& c, std::ostream* os) { *os << c.name; }
// An odd queue capacity, so that copies wrap at every offset.
const Channel kChannels[] = {{"ShmQ", true, 1, 300000, 4099, 4999, 2999}, {"Shmbuf", false, 12, 20000, 37, 50, 40}};
uint8_t StreamByte(uint32_t i) { return static_cast<uint8_t>(i * 131u + (i >> 8)); }

class ShmStreamTest : public ::testing::TestWithParam<Channel> {};

TEST_P(ShmStreamTest, UnitsCrossProcessesInOrderNoneLostNoneRepeatedThenHangUp) {
    const Channel& c = GetParam();
    ShmName name("stream");
    mixer::test::Pipe created, opened;
    ChildProcess writer([&] {
        const char* bare = name.c_str() + 1;  // the name without '/'
        ShmQHandle* q = c.queue ? ShmQCreate(bare, c.capacity) : nullptr;
        ShmbufHandle* b = c.queue ? nullptr : ShmbufCreate(bare, c.unit, c.capacity);
        created.Post(q || b);
        if (!(q || b) || !opened.Wait()) return 2;
        std::vector<uint8_t> chunk(c.unit * c.maxChunk);
        for (uint32_t sent = 0, step = 1; sent < c.total; sent += step) {
            step = std::min(step * 7 % c.maxChunk + 1, c.total - sent);
            for (uint32_t i = 0; i < step * c.unit; ++i) chunk[i] = StreamByte(sent * c.unit + i);
            if ((q ? ShmQWrite(q, chunk.data(), step, SHMQ_WAIT_FOREVER)
                   : ShmbufWrite(b, chunk.data(), step, SHMBUF_WAIT_FOREVER)) != int32_t(step))
                return 3;
        }
        c.queue ? ShmQClose(q) : ShmbufClose(b);
        return 0;
    });
    int ok = 0;
    ASSERT_TRUE(created.Wait(&ok) && ok);
    ShmQHandle* q = c.queue ? ShmQOpen(name.c_str()) : nullptr;
    ShmbufHandle* b = c.queue ? nullptr : ShmbufOpen(name.c_str(), 0);
    ASSERT_TRUE(q || b);
    EXPECT_TRUE(c.queue ? !ShmQOpen(name.c_str()) : !ShmbufOpen(name.c_str(), 0));  // one reader at a time
    EXPECT_EQ(errno, EBUSY);
    opened.Post();
    std::vector<uint8_t> buf(c.unit * c.maxRead);
    uint32_t got = 0;
    for (uint32_t want = 1;;) {
        want = want * 5 % c.maxRead + 1;  // at times more than the buffer holds
        int32_t n;
        if (q) {  // the queue is polled, never waited on, as the mixer does
            n = ShmQRead(q, buf.data(), want, 0);
            if (n == 0 && ShmQIsHungUp(q) && ShmQDataAvail(q) == 0) break;
            if (n == 0) sched_yield();
        } else if ((n = ShmbufReadWait(b, buf.data(), want, SHMBUF_WAIT_FOREVER)) == 0) {
            break;  // waited on without limit: only the writer's hang-up ends a wait short
        }
        for (uint32_t i = 0; i < n * c.unit; ++i) ASSERT_EQ(buf[i], StreamByte(got * c.unit + i)) << got;
        got += n;
    }
    EXPECT_EQ(got, c.total);
    EXPECT_EQ(writer.Wait(), 0);
    EXPECT_FALSE(name.Exists());  // the writer's close removed the name
    c.queue ? ShmQClose(q) : ShmbufClose(b);
}

INSTANTIATE_TEST_SUITE_P(Stand, ShmStreamTest, ::testing::ValuesIn(kChannels),
                         [](const ::testing::TestParamInfo<Channel>& p) { return std::string(p.param.name); });

TEST(ShmQTest, MinimumMakesReadsAllOrNothingAndFullQueuesTakeWhatFits) {
    ShmName name;
    ShmQHandle* w = ShmQCreate(name.c_str(), 8);
    ShmQHandle* r = ShmQOpen(name.c_str());
    ASSERT_NE(r, nullptr);
    char buf[16] = {};
    // In order: 8 of 12 fit; still full when 20 ms run out; fewer than 9 waiting: none read.
    EXPECT_EQ(std::vector<int>({ShmQWrite(w, "abcdefghijkl", 12, 0), ShmQWrite(w, "m", 1, 20), ShmQRead(r, buf, 16, 9),
                                ShmQRead(r, buf, 3, 3), ShmQWrite(w, "xyz", 3, 0), ShmQRead(r, buf, 16, 0)}),
              std::vector<int>({8, 0, 0, 3, 3, 8}));
    EXPECT_EQ(std::string(buf, 8), "defghxyz");
    ShmQClose(r);
    // A reader that dies without closing leaves the queue to the next one.
    ChildProcess crashed([&] { return ShmQOpen(name.c_str()) != nullptr ? 0 : 1; });
    ASSERT_EQ(crashed.Wait(), 0);
    EXPECT_NE(r = ShmQOpen(name.c_str()), nullptr);
    EXPECT_EQ(ShmQHangUp(w), 0);
    EXPECT_EQ(ShmQWrite(w, "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    ShmQClose(r), ShmQClose(w);
}

// A peer that rewrites the shared header after the reader opened (as a hostile writer
// may): every call of either side that looks at it fails with EFAULT, no reader copies
// beyond the room it was given, and a reader opening now is refused.
TEST(ShmScribbleTest, EveryCallRefusesAHeaderThePeerBroke) {
    const struct { size_t at; uint32_t value; } cases[] = {
        {offsetof(ShmRingShared, magic), 0}, {offsetof(ShmRingShared, unit), 7680}, {offsetof(ShmRingShared, slots), 0},
        {offsetof(ShmRingShared, readPos), 1u << 31}, {offsetof(ShmRingShared, writePos), 1u << 31},
        {offsetof(ShmRingShared, writePos), 6}};  // with 1 read of 4 slots: a fill of 5
    for (const auto& c : cases)
        for (const bool queue : {true, false}) {
            SCOPED_TRACE(std::to_string(c.at) + (queue ? " queue" : " buffer"));
            ShmName name;
            ShmQHandle* wq = queue ? ShmQCreate(name.c_str(), 4) : nullptr;
            ShmbufHandle* wb = queue ? nullptr : ShmbufCreate(name.c_str(), 4, 4);
            ShmQHandle* rq = queue ? ShmQOpen(name.c_str()) : nullptr;
            ShmbufHandle* rb = queue ? nullptr : ShmbufOpen(name.c_str(), 0);
            std::vector<char> room(16);  // one read's worth: a copy past it is a heap overflow
            ASSERT_TRUE(queue ? ShmQWrite(wq, "abcd", 2, 0) == 2 && ShmQRead(rq, room.data(), 1, 1) == 1
                              : ShmbufWrite(wb, "abcdefgh", 2, 0) == 2 && ShmbufRead(rb, room.data(), 1, 1) == 1);
            const int fd = shm_open(name.c_str(), O_RDWR, 0);
            void* p = mmap(nullptr, sizeof(ShmRingShared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            ASSERT_NE(p, MAP_FAILED);
            memcpy(static_cast<char*>(p) + c.at, &c.value, sizeof(c.value));
            munmap(p, sizeof(ShmRingShared)), close(fd);
            const std::vector<int> got = queue
                ? std::vector<int>{ShmQDataAvail(rq), ShmQRead(rq, room.data(), 4, 0), ShmQSpaceAvail(wq), ShmQWrite(wq, "x", 1, 0)}
                : std::vector<int>{ShmbufRead(rb, room.data(), 4, 0), ShmbufReadWait(rb, room.data(), 4, 1),
                                   ShmbufReadStart(rb, 0), ShmbufWrite(wb, "wxyz", 1, 0)};
            EXPECT_EQ(got, std::vector<int>(4, -1));
            EXPECT_EQ(errno, EFAULT);
            queue ? ShmQClose(rq) : ShmbufClose(rb);
            EXPECT_TRUE(queue ? !ShmQOpen(name.c_str()) : !ShmbufOpen(name.c_str(), 0));
            EXPECT_EQ(errno, EINVAL);
            queue ? ShmQClose(wq) : ShmbufClose(wb);
        }
}
}  // namespace
