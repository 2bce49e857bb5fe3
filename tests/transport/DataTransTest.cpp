// The shared block queue. Both ends in one process (creator and opener map the same
// object) with a raw mapping through which a test reads or damages the header as a peer
// could; then peers in other processes that close, stop or die inside the lock.
#include "mixer/transport/DataTrans.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <thread>

#include "mixer/transport/DataTransWriter.h"
#include "mixer/transport/Deadline.h"
#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using namespace test;
typedef std::vector<std::string> Lines;
typedef std::chrono::steady_clock Clock;
const unsigned kHdr = kStreamQueueSize, kForever = deadline::kForever;

int err;  // the helpers' error out-parameter
unsigned len;
bool WriteBlock(DataTrans& dt, unsigned n, char* id = nullptr) { return dt.GetWriteBuff(err, 0) && dt.CommitWriteBuff(n, id); }
// The next block's length, taken and given back without waiting; -1 when that failed.
int ReadBlock(DataTrans& dt) { return dt.GetReadBuff(err, len, 0, nullptr) && dt.ReleaseReadBuff() ? static_cast<int>(len) : -1; }
// The error of a call that handed out nothing; 0 when it handed out a block (kept).
int ReadErr(DataTrans& dt, unsigned ms = 0) { return dt.GetReadBuff(err = 0, len, ms, nullptr) ? 0 : err; }
int WriteErr(DataTrans& dt, unsigned ms = 0) { return dt.GetWriteBuff(err = 0, ms) ? 0 : err; }
// Milliseconds f took: the lower bound of a time-out.
long MsOf(const std::function<void()>& f) {
    const auto t0 = Clock::now();
    f();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// A mapping of the whole object of its own, as a peer has; tails at the stride of creation.
struct RawMap {
    explicit RawMap(const ShmName& name) {
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        struct stat st;
        fstat(fd, &st);
        size = static_cast<size_t>(st.st_size);
        base = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        stride = q()->blkSize;
    }
    ~RawMap() { munmap(base, size); }
    StreamQueue* q() { return reinterpret_cast<StreamQueue*>(base); }
    BlockTail* tail(unsigned i) { return reinterpret_cast<BlockTail*>(base + kHdr + (i + 1) * stride) - 1; }
    bool fresh(unsigned i) {  // as creation and Flush leave a tail
        return tail(i)->check == BLOCK_CHECK && tail(i)->state == BLK_FREE && tail(i)->length == 0 && !tail(i)->bufId[0];
    }
    char* base;
    size_t size;
    uint32_t stride;
};

// True once a status line with this tag was logged (by any thread).
bool HasStatus(const LogCapture& log, const std::string& tag) {
    for (const std::string& l : log.Lines())
        if (l.compare(0, 35, "P Mixer_DataTrans:Status:Timestamp-") == 0 && l.find(":[" + tag + "] ") != std::string::npos)
            return true;
    return false;
}

class DataTransTest : public ::testing::Test {
protected:
    void Open(unsigned numBlk, unsigned blkSize) {
        ASSERT_EQ(writer.Init(name.c_str(), numBlk, blkSize), 0);
        ASSERT_EQ(reader.Init(name.c_str()), 0);
    }
    ShmName name;
    DataTrans writer, reader;  // the creator writes, the opener reads
};

TEST_F(DataTransTest, CreationLaysOutHeaderAndTailsAndSharesParameters) {
    LogCapture log;
    ASSERT_NO_FATAL_FAILURE(Open(4, 1));  // 1 byte rounds up to 8: a stride of 176
    const unsigned memSize = kHdr + 4 * 176;
    const std::string end = std::to_string(memSize);
    EXPECT_EQ(log.Lines(), (Lines{"D Mixer_DataTrans:Init:shm " + name.str() + " numBlk 4 blkSize 176 size " + end + " Created:",
                                  "D Mixer_DataTrans:Init:DataTrans " + name.str() + " Created:",
                                  "D Mixer_DataTrans:Init:DataTrans " + name.str() + " Opened:"}));
    EXPECT_EQ(reader.GetUserBlkSize(), 8u);
    EXPECT_EQ(reader.GetNumBlk(), 4u);
    RawMap raw(name);
    StreamQueue* q = raw.q();
    ASSERT_EQ(raw.size, memSize);
    EXPECT_EQ((std::vector<uint32_t>{q->memSize, q->numBlk, q->blkSize, q->userBlkSize, q->numFree, q->numReady,
                                     q->writePos, q->readPos, q->count, q->cmd, q->hangUp, q->stopped}),
              (std::vector<uint32_t>{memSize, 4, 176, 8, 4, 0, 0, 0, 0, 0, 0, 0}));
    for (unsigned i = 0; i < 4; ++i) EXPECT_TRUE(raw.fresh(i)) << i;
    EXPECT_EQ(writer.PosToPtr(q, 0) - raw.base, static_cast<long>(kHdr));
    EXPECT_EQ(writer.TailPosToPtr(q, 0) - raw.base, static_cast<long>(kHdr + 8));
    EXPECT_EQ(writer.TailPosToPtr(q, 3) - raw.base, static_cast<long>(kHdr + 3 * 176 + 8));
    log.Clear();
    EXPECT_EQ(writer.PosToPtr(q, 4), nullptr);
    EXPECT_EQ(writer.TailPosToPtr(q, 4), nullptr);
    EXPECT_EQ(reader.GetRate(), -1);
    writer.SetRate(44100), writer.SetNumCh(2), writer.SetSampleSize(4);
    EXPECT_EQ((std::vector<int>{reader.GetRate(), reader.GetNumCh(), reader.GetSampleSize()}), (std::vector<int>{44100, 2, 4}));
    EXPECT_EQ(log.Lines(), (Lines{"E Mixer_DataTrans:PosToPtr:pos " + end + " >= memSize " + end + ":",
                                  "E Mixer_DataTrans:TailPosToPtr:pos " + std::to_string(memSize + 8) + " >= memSize " + end + ":",
                                  "D Mixer_DataTrans:GetRate:-1:", "D Mixer_DataTrans:GetRate:44100:",
                                  "D Mixer_DataTrans:GetNumCh:2:", "D Mixer_DataTrans:GetSampleSize:4:"}));
    writer.AddCount(4);
    EXPECT_EQ(reader.SubCount(10), 0u);  // saturates
    EXPECT_EQ(writer.AddCount(7), 7u);
    EXPECT_EQ(reader.SubCount(3), 4u);
}

// Every refused creation or opening (bad arguments, a missing or truncated object, a
// header a peer corrupted): its result, its one log line, and nothing left open.
TEST_F(DataTransTest, RefusedInitLeavesNothingOpen) {
    ASSERT_EQ(writer.Init(name.c_str(), 4, 64), 0);  // userBlkSize 64, stride 232
    const uint32_t memSize = kHdr + 4 * 232;
    RawMap raw(name);
    StreamQueue* q = raw.q();
    ShmName other("o");
    const std::string n = name.str(), o = other.str(), size = std::to_string(memSize), bad = ",name=" + o + ",error=0:";
    auto open = [&](std::function<void()> damage) { return [&, damage] { damage(); return reader.Init(name.c_str()); }; };
    auto create = [&](unsigned numBlk, unsigned blkSize) { return [&, numBlk, blkSize] { return reader.Init(o.c_str(), numBlk, blkSize); }; };
    // An object of this many bytes whose header, where there is room for one, claims 100.
    auto tiny = [&](off_t bytes) {
        return [&, bytes] {
            const int fd = shm_open(other.c_str(), O_RDWR | O_CREAT, 0600);
            const uint32_t claim = 100;
            EXPECT_TRUE(ftruncate(fd, bytes) == 0 && (bytes < static_cast<off_t>(kHdr) || pwrite(fd, &claim, 4, offsetof(StreamQueue, memSize)) == 4));
            close(fd);
            return reader.Init(other.c_str());
        };
    };
    struct {
        std::function<int()> init;
        int rc;
        std::string line;
    } cases[] = {
        {[&] { return reader.Init(nullptr, 4, 8); }, ENOENT, "reason=nullName,name=(null),error=0:"},
        {[&] { return reader.Init(nullptr); }, ENOENT, "reason=nullName,name=(null),error=0:"},
        {create(0, 8), ENOENT, "reason=invalidSize" + bad},
        {create(1, 65361), ENOENT, "reason=invalidSize" + bad},  // a stride of 64 KiB
        {create(0x10000, 8), ENOENT, "reason=invalidSize" + bad},
        {create(0xFFFF, 0xFF00), ENOENT, "reason=invalidSize" + bad},  // 4 GiB
        {[&] { return reader.Init(n.c_str(), 2, 8); }, EEXIST, "reason=shmAlreadyExists,name=" + n + ",error=EEXIST:"},
        {[&] { return reader.Init(o.c_str()); }, ENOENT, "reason=shmDoesNotExist,name=" + o + ",error=ENOENT:"},
        {tiny(10), EFAULT, "reason=invalidMemoryRead" + bad},
        {tiny(kHdr), EFAULT, "reason=invalidShmOpenMemorySize,name=" + o + ",100<" + std::to_string(kHdr) + ":"},
        {open([&] { q->numBlk = 0; }), EFAULT, "reason=noBlocks,name=" + n + ",numBlk=0:"},
        {open([&] { q->userBlkSize = 60; }), EFAULT, "reason=userBlkSizeUnaligned,name=" + n + ",userBlkSize=60:"},
        {open([&] { q->blkSize = 64; }), EFAULT, "reason=blkSizeMismatch,name=" + n + ",blkSize=64,userBlkSize=64:"},
        {open([&] { q->numBlk = 5; }), EFAULT, "reason=memSizeMismatch,name=" + n + ",memSize=" + size + ",numBlk=5,blkSize=232:"},
        // 232 * 2^29 is 29 * 2^32: in 32 bits this block count gives back the true size.
        {open([&] { q->numBlk = 4 + (1u << 29); }), EFAULT,
         "reason=memSizeMismatch,name=" + n + ",memSize=" + size + ",numBlk=536870916,blkSize=232:"},
        {open([&] { EXPECT_EQ(truncate(("/dev/shm" + n).c_str(), memSize - 1), 0); }), EFAULT,
         "reason=objectTooSmall,name=" + n + ",size=" + std::to_string(memSize - 1) + ",memSize=" + size + ":"},
        {open([&] { q->writePos = 4; }), EFAULT, "reason=positionOutOfRange,name=" + n + ",writePos=4,readPos=0,numBlk=4:"},
        {open([&] { q->readPos = ~0u; }), EFAULT, "reason=positionOutOfRange,name=" + n + ",writePos=0,readPos=4294967295,numBlk=4:"},
        {open([&] { q->numFree = 5; }), EFAULT, "reason=counterOutOfRange,name=" + n + ",numFree=5,numReady=0,numBlk=4:"},
        {open([&] { q->numReady = 9; }), EFAULT, "reason=counterOutOfRange,name=" + n + ",numFree=4,numReady=9,numBlk=4:"},
    };
    // Mappings of shared memory, and the lowest free descriptor, which a leaked one would take.
    auto leftovers = [] {
        std::ifstream maps("/proc/self/maps");
        int shm = 0;
        for (std::string line; std::getline(maps, line);) shm += line.find("/dev/shm/") != std::string::npos;
        const int fd = dup(2);
        close(fd);
        return std::make_pair(shm, fd);
    };
    const auto before = leftovers();
    char saved[kHdr];
    memcpy(saved, raw.base, kHdr);
    for (auto& c : cases) {
        SCOPED_TRACE(c.line);
        LogCapture log;
        EXPECT_EQ(c.init(), c.rc);
        EXPECT_EQ(log.Lines(), Lines{"E Mixer_DataTrans:InitFailed:" + c.line});
        EXPECT_TRUE(reader.IsHungUp() && reader.GetNumBlk() == 0);  // not open
        EXPECT_EQ(leftovers(), before);
        memcpy(raw.base, saved, kHdr);
        ASSERT_EQ(truncate(("/dev/shm" + n).c_str(), memSize), 0);
    }
    // The repaired header opens.
    EXPECT_EQ(reader.Init(name.c_str()), 0);
    EXPECT_EQ(reader.GetNumBlk(), 4u);
}

// Positions, sizes and tails a peer rewrites after the opening: every address stays in
// the mapping, and the damaged call fails with EFAULT.
TEST_F(DataTransTest, PeerScribblesNeverLeadOutsideTheMapping) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    RawMap raw(name);
    StreamQueue* q = raw.q();
    LogCapture log;
    raw.tail(0)->check = 0;
    EXPECT_EQ(WriteErr(writer), EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetWriteBuff:check 0 state 0:"));
    EXPECT_EQ(raw.tail(0)->check, BLOCK_CHECK);  // reset: the next try works
    ASSERT_TRUE(WriteBlock(writer, 16));
    memset(raw.base + kHdr, 0x5A, 16);
    // Sizes that would put block 0 anywhere: the geometry checked at opening holds.
    q->blkSize = 0x7FFFFFF0u, q->userBlkSize = 0x7FFFFF00u, q->numBlk = q->memSize = ~0u;
    EXPECT_EQ(std::make_pair(reader.GetNumBlk(), reader.GetUserBlkSize()), std::make_pair(4u, 64u));
    char* p = reader.GetReadBuff(err, len, 0, nullptr);
    ASSERT_NE(p, nullptr) << err;
    EXPECT_EQ(std::string(p, len), std::string(16, '\x5A'));
    EXPECT_TRUE(reader.ReleaseReadBuff());
    EXPECT_EQ(q->readPos, 1u);  // wrapped by the checked block count, not the header's
    reader.Flush();             // resets the 4 real tails only
    EXPECT_EQ(q->numFree, 4u);

    ASSERT_TRUE(WriteBlock(writer, 8));
    raw.tail(0)->state = 1;
    EXPECT_EQ(ReadErr(reader), EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetReadBuff:check bababeef state 1:"));
    raw.tail(0)->state = BLK_READY;
    raw.tail(0)->length = 65;  // a committed length beyond the block
    EXPECT_EQ(ReadErr(reader), EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetReadBuff:length 65 > 64:"));
    q->readPos = 1u << 29;  // a byte offset that wraps in 32 bits to block 0
    EXPECT_EQ(ReadErr(reader), EFAULT);
    q->readPos = ~0u;
    EXPECT_EQ(ReadErr(reader), EFAULT);
    q->writePos = 1u << 29;
    EXPECT_EQ(WriteErr(writer), EFAULT);
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:PosToPtr:pos "), 1);
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:TailPosToPtr:pos "), 3);
}

TEST_F(DataTransTest, ClosedQueueRefusesEveryOperation) {
    LogCapture log;
    EXPECT_EQ(WriteErr(writer), ENOENT);
    EXPECT_FALSE(writer.CommitWriteBuff(4, nullptr));
    EXPECT_EQ(ReadErr(writer), ENOENT);
    EXPECT_FALSE(writer.ReleaseReadBuff());
    EXPECT_EQ((std::vector<int>{writer.GetRate(), writer.GetNumCh(), writer.GetSampleSize()}), (std::vector<int>{-1, -1, -1}));
    writer.SetCmd(CMD_PAUSE);
    EXPECT_EQ(log.Lines(), (Lines{"E Mixer_DataTrans:GetWriteBuff:reason=nullHandle:", "E Mixer_DataTrans:CommitWriteBuff:reason=nullHandle:",
                                  "E Mixer_DataTrans:GetReadBuff:reason=nullHandle:", "E Mixer_DataTrans:ReleaseReadBuff:reason=nullHandle:",
                                  "W Mixer_DataTrans:GetRate:No handle:", "W Mixer_DataTrans:GetNumCh:No handle:",
                                  "W Mixer_DataTrans:GetSampleSize:No handle:", "W Mixer_DataTrans:SetCmd:No handle:"}));
    EXPECT_TRUE(writer.IsHungUp() && writer.IsStopped() && writer.GetCmd() == CMD_NONE);
    EXPECT_EQ(writer.AddCount(3) + writer.SubCount(1) + writer.GetNumBlkFree(), 0u);
    EXPECT_EQ(writer.WaitTillUserBufEmpty(), 0);
    EXPECT_TRUE(writer.DeInit());
}

// An empty queue, a full one, misordered calls, a flush while both ends hold a block, and
// the writer's stop flag, which the flush leaves as it is.
TEST_F(DataTransTest, TimeOutsFlushAndStop) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    LogCapture log;
    EXPECT_EQ(ReadErr(reader), EAGAIN);
    EXPECT_GE(MsOf([&] { EXPECT_EQ(ReadErr(reader, 100), ETIMEDOUT); }), 90);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetReadBuff:retcode=11:"));  // not an error: the reader's normal case
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_FALSE(reader.ReleaseReadBuff());
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(WriteBlock(writer, 8) && ReadBlock(reader) == 8);  // positions wrap to 1
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(WriteBlock(writer, 8, const_cast<char*>("id")));
    writer.AddCount(24);
    ASSERT_EQ(ReadErr(reader), 0);   // the reader holds block 1
    ASSERT_EQ(WriteErr(writer), 0);  // and the writer the last free one
    EXPECT_EQ(WriteErr(writer), EAGAIN);
    EXPECT_GE(MsOf([&] { EXPECT_EQ(WriteErr(writer, 100), ETIMEDOUT); }), 90);
    EXPECT_TRUE(HasStatus(log, "GetWriteBuff-CondWait-Err"));
    for (const char* tag : {"GetWriteBuff-Enter", "GetWriteBuff-Exit", "CommitWriteBuff-Enter", "CommitWriteBuff-Exit",
                            "GetReadBuff-Enter", "GetReadBuff-Exit", "ReleaseReadBuff-Enter", "ReleaseReadBuff-Exit"})
        EXPECT_TRUE(HasStatus(log, tag)) << tag;
    reader.Stop();
    reader.Flush();
    EXPECT_EQ(std::make_pair(reader.GetNumBlkFree(), reader.GetNumBlkReady()), std::make_pair(4u, 0u));
    RawMap raw(name);
    for (unsigned i = 0; i < 4; ++i) EXPECT_TRUE(raw.fresh(i)) << i;
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));  // the block it held was taken back
    EXPECT_FALSE(reader.ReleaseReadBuff());
    reader.LogStatus("flushed");
    EXPECT_TRUE(std::regex_match(log.Lines().back(), std::regex("P Mixer_DataTrans:Status:Timestamp-[0-9]+\\.[0-9]{6}:\\[flushed\\] Name = " +
                                                                name.str() + " W 0 R 0 Free 4 Rdy 0 hup 0 Count 0:")))
        << log.Lines().back();
    EXPECT_TRUE(writer.IsStopped());
    EXPECT_EQ(WriteErr(writer, 100), EAGAIN);
    reader.Resume();
    ASSERT_TRUE(WriteBlock(writer, 9));
    reader.Stop();  // what was written is still read
    EXPECT_EQ(ReadBlock(reader), 9);
    reader.Resume();
    ASSERT_TRUE(WriteBlock(writer, 8));
    EXPECT_GE(MsOf([&] { EXPECT_EQ(writer.WaitTillUserBufEmpty(), ETIMEDOUT); }), 1400);  // nobody reads
    const Lines errors = {"E Mixer_DataTrans:CommitWriteBuff:check bababeef state 0:",
                          "E Mixer_DataTrans:ReleaseReadBuff:check bababeef state 0:", "E Mixer_DataTrans:GetWriteBuff:retcode=11:",
                          "E Mixer_DataTrans:GetWriteBuff:retcode=110:", "E Mixer_DataTrans:CommitWriteBuff:check bababeef state 0:",
                          "E Mixer_DataTrans:ReleaseReadBuff:check bababeef state 0:", "E Mixer_DataTrans:GetWriteBuff:reason=Stopped:",
                          "E Mixer_DataTrans:WaitTillUserBufEmpty:retcode=110:"};
    Lines got;
    for (const std::string& l : log.Lines()) if (l[0] == 'E') got.push_back(l);
    EXPECT_EQ(got, errors);
}

// The deadline arithmetic at its boundaries, a full second of nanoseconds kept as it is.
TEST(DeadlineTest, MillisecondsAndOneAndAHalfSeconds) {
    const struct {
        long nsec;
        unsigned ms;  // 0: the 1.5-second deadline
        long wantSec, wantNsec;
    } cases[] = {{400000000, 100, 10, 500000000}, {950000000, 100, 11, 50000000}, {900000000, 100, 10, 1000000000},
                 {900000001, 100, 11, 1},         {0, 2500, 12, 500000000},       {999999999, 1999, 12, 998999999},
                 {300000000, 0, 11, 800000000},   {500000000, 0, 11, 1000000000}, {500000001, 0, 12, 1},
                 {600000000, 0, 12, 100000000}};
    for (const auto& c : cases) {
        const timespec now = {10, c.nsec}, t = c.ms ? deadline::AfterMs(now, c.ms) : deadline::AfterOneAndHalfSeconds(now);
        EXPECT_EQ(std::make_pair(t.tv_sec, t.tv_nsec), std::make_pair(c.wantSec, c.wantNsec)) << c.nsec << " + " << c.ms;
    }
}

// Peers in other processes. Children report through ChildProcess::Wait (0 or the
// failing line) and signal progress through pipes.

TEST_F(DataTransTest, BlocksFlowInOrderWithLengthsAndIdsThroughAFullQueue) {
    ASSERT_EQ(reader.Init(name.c_str(), 4, 1024), 0);
    auto length = [](unsigned k) { return 1 + (k * 97) % 1024; };
    const unsigned kBlocks = 41;  // many more than fit: the writer waits, positions wrap
    ChildProcess child([&] {
        CHILD_CHECK(writer.Init(name.c_str()) == 0 && writer.WaitTillUserBufEmpty() == 0);  // nothing written yet
        for (unsigned k = 0; k < kBlocks; ++k) {
            err = -1;
            char* p = writer.GetWriteBuff(err, kForever);
            CHILD_CHECK(p != nullptr && err == 0);
            for (unsigned i = 0; i < length(k); ++i) p[i] = static_cast<char>(k * 7 + i);
            std::string id = "blk-" + std::to_string(k);
            CHILD_CHECK(writer.CommitWriteBuff(length(k), &id[0]));
        }
        CHILD_CHECK(writer.WaitTillUserBufEmpty() == 0 && writer.GetNumBlkFree() == 4);  // till all is read
        return 0;
    });
    for (unsigned k = 0; k < kBlocks; ++k) {
        err = -1;
        unsigned bad = 0;
        char* id = nullptr;
        const char* p = reader.GetReadBuff(err, len, 20000, &id);
        ASSERT_NE(p, nullptr) << "block " << k << " err " << err;
        EXPECT_EQ(len, length(k));
        EXPECT_STREQ(id, ("blk-" + std::to_string(k)).c_str());
        free(id);
        for (unsigned i = 0; i < len; ++i) bad += p[i] != static_cast<char>(k * 7 + i);
        EXPECT_EQ(bad, 0u) << "block " << k;
        ASSERT_TRUE(reader.ReleaseReadBuff());
    }
    EXPECT_EQ(child.Wait(), 0);
}

// A waiter of this process, waiting when the peer process closes its end, wakes at the
// hang-up. The waiter logs its entry holding the lock and keeps it until it waits, so
// once that line is seen the peer's close can only come while it waits.
TEST(DataTransHangUpTest, PeerClosingWakesAWaiterAndTheLastCloserUnlinks) {
    for (bool waitToWrite : {false, true}) {
        SCOPED_TRACE(waitToWrite ? "writer" : "reader");
        ShmName name;
        DataTrans local;
        ASSERT_EQ(local.Init(name.c_str(), 2, 64), 0);
        while (waitToWrite && WriteBlock(local, 8)) {}
        LogCapture log;
        Pipe opened, closeNow;
        ChildProcess peer([&] {
            DataTrans dt;
            CHILD_CHECK(dt.Init(name.c_str()) == 0 && opened.Send() && closeNow.Receive() == '.');
            dt.DeInit();
            CHILD_CHECK(log.Has("I Mixer_DataTrans:DeInit:DataTrans Hangup & Closed:"));
            return 0;
        });
        ASSERT_EQ(opened.Receive(), '.');
        int woke = -1;
        std::thread waiter([&] { woke = waitToWrite ? WriteErr(local, 10000) : ReadErr(local, 10000); });
        const char* enter = waitToWrite ? "GetWriteBuff-Enter" : "GetReadBuff-Enter";
        for (const auto end = Clock::now() + std::chrono::seconds(20); !HasStatus(log, enter) && Clock::now() < end;)
            std::this_thread::yield();
        closeNow.Send();
        waiter.join();
        EXPECT_EQ(woke, EHOSTDOWN);  // a lost wake-up would show as ETIMEDOUT
        EXPECT_TRUE(log.Has(waitToWrite ? "E Mixer_DataTrans:GetWriteBuff:reason=HangUp:"
                                        : "E Mixer_DataTrans:GetReadBuff:reason=EmptyQueueHungUp:"));
        EXPECT_EQ(peer.Wait(), 0);
        EXPECT_TRUE(local.IsHungUp());
        EXPECT_EQ(local.GetNumBlkFree(), 0u);
        EXPECT_FALSE(local.CommitWriteBuff(8, nullptr));
        EXPECT_TRUE(log.Has("E Mixer_DataTrans:CommitWriteBuff:reason=queueAlreadyHungUp:"));
        EXPECT_TRUE(name.Exists());
        local.DeInit();
        EXPECT_TRUE(log.Has("I Mixer_DataTrans:DeInit:DataTrans Closed & unlinked:"));
        EXPECT_FALSE(name.Exists());
    }
}

tInOutCmd AwaitCmd(DataTrans& dt, tInOutCmd want) {
    tInOutCmd got;
    for (const auto end = Clock::now() + std::chrono::seconds(20); (got = dt.GetCmd()) != want && Clock::now() < end;)
        std::this_thread::yield();
    return got;
}

// Every command of the client is acknowledged; an unanswered one ends at its deadline
// and stays posted until the next overwrites it; acknowledging another command clears
// the slot but wakes nobody.
TEST_F(DataTransTest, CommandsAreAcknowledgedAcrossProcessesOrTimeOut) {
    ASSERT_EQ(reader.Init(name.c_str(), 2, 64), 0);
    LogCapture log;
    EXPECT_GE(MsOf([&] { reader.SetCmd(CMD_PAUSE); }), 1400);  // nobody acknowledges
    EXPECT_TRUE(log.Has("E def:Mixer_DataTrans:SetCmd:cond wait error, cmd = 1, status = 110"));
    EXPECT_EQ(reader.GetCmd(), CMD_PAUSE);
    Pipe posting;
    ChildProcess client([&] {
        CHILD_CHECK(writer.Init(name.c_str()) == 0);
        log.Clear();
        CHILD_CHECK(posting.Send() && MsOf([&] { writer.SetCmd(CMD_RESUME); }) >= 1400);
        CHILD_CHECK(log.Has("W Mixer_DataTrans:SetCmd:erasing cmd 1:"));
        CHILD_CHECK(log.Has("E def:Mixer_DataTrans:SetCmd:cond wait error, cmd = 8, status = 110"));
        CHILD_CHECK(writer.GetCmd() == CMD_NONE);
        for (tInOutCmd c : {CMD_PAUSE, CMD_FLUSH}) {  // the input's cases acknowledge the others
            log.Clear();
            posting.Send(static_cast<char>(c));
            writer.SetCmd(c);
            CHILD_CHECK(writer.GetCmd() == CMD_NONE && log.Lines() == Lines{"I Mixer_DataTrans:SetCmd:New cmd " + std::to_string(c) + ":"});
        }
        return 0;
    });
    ASSERT_EQ(posting.Receive(), '.');
    ASSERT_EQ(AwaitCmd(reader, CMD_RESUME), CMD_RESUME);
    reader.CmdExecuted(CMD_DRAIN);
    EXPECT_TRUE(log.Has("I def:Mixer_DataTrans:CmdExecuted:cmd = 2, signal = 0"));
    EXPECT_EQ(reader.GetCmd(), CMD_NONE);
    for (tInOutCmd c : {CMD_PAUSE, CMD_FLUSH}) {
        ASSERT_EQ(posting.Receive(), static_cast<int>(c));
        ASSERT_EQ(AwaitCmd(reader, c), c);
        reader.CmdExecuted(c);
        EXPECT_TRUE(log.Has("I def:Mixer_DataTrans:CmdExecuted:cmd = " + std::to_string(c) + ", signal = 1"));
    }
    EXPECT_EQ(client.Wait(), 0);
}

// A client process that creates the queue, writes two blocks and then holds its lock as
// its writer thread would inside an operation; this process is the reader end, bounded
// like the mixer's. Every wait is bounded by the code under test: a bound that failed
// would hang the test.
struct DataTransLockTest : ::testing::Test {
    void SetUp() override {
        ASSERT_TRUE(holder->Ready() && reader.Init(name.c_str()) == 0);
        reader.SetLockWaitMs(DataTrans::kEngineLockWaitMs);
        ASSERT_TRUE(holder->Lock());
    }
    ShmName name;
    std::unique_ptr<LockingClient> holder{new LockingClient(name.str(), {true, 4, 64, false, {std::string(8, 'a'), std::string(16, 'b')}})};
    DataTrans reader;  // closed before the holder is reaped
};

TEST_F(DataTransLockTest, StoppedHolderCostsABoundedEndNoMoreThanItsBound) {
    RawMap raw(name);
    StreamQueue* q = raw.q();
    q->cmd = CMD_PAUSE, q->rate = 48000, q->count = 5;  // what the client set before it stopped
    ASSERT_TRUE(holder->Stop());
    LogCapture log;
    EXPECT_EQ(ReadErr(reader), EBUSY);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetReadBuff:reason=LockBusy,name=" + name.str() + ":"));
    EXPECT_EQ(ReadErr(reader, 320), EBUSY);  // the bound, not the time-out
    EXPECT_FALSE(reader.ReleaseReadBuff(err));
    EXPECT_EQ(err, EBUSY);
    EXPECT_EQ(reader.GetCmd(), CMD_NONE);
    EXPECT_EQ(reader.GetRate(), -1);
    EXPECT_EQ(reader.SubCount(1) + reader.AddCount(1), 0u);
    EXPECT_TRUE(reader.IsStopped());
    EXPECT_EQ(reader.WaitTillUserBufEmpty(), EBUSY);
    reader.Flush(), reader.Stop(), reader.SetRate(8000), reader.CmdExecuted(CMD_PAUSE);
    // None of them touched the header.
    EXPECT_EQ((std::vector<uint32_t>{q->numReady, q->count, q->cmd, q->stopped, static_cast<uint32_t>(q->rate)}),
              (std::vector<uint32_t>{2, 5, CMD_PAUSE, 0, 48000}));
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    // Closing still works: the queue is hung up without the lock, the name left to the
    // last closer.
    EXPECT_TRUE(reader.DeInit());
    EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Hangup & Closed:"));
    EXPECT_EQ(q->hangUp, 1);
    EXPECT_TRUE(name.Exists());
    ASSERT_TRUE(holder->Continue() && holder->Unlock());
    EXPECT_EQ(holder->Finish(), 0);  // closes last, and removes the name
    EXPECT_FALSE(name.Exists());
}

TEST_F(DataTransLockTest, HolderKilledInsideTheLockEndsTheQueueLikeAClosedClient) {
    holder->Kill();
    LogCapture log;
    const std::string died = "E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + name.str() + ":";
    if (RobustLocksAvailable()) {
        // The lock is repaired and the queue hung up: what was queued is still read,
        // then even a wait without limit is told at once that the client is gone.
        ASSERT_NE(reader.GetReadBuff(err, len, 0, nullptr), nullptr) << err;
        EXPECT_EQ(len, 8u);
        EXPECT_EQ(log.Lines().front(), died);
        EXPECT_TRUE(reader.IsHungUp() && reader.ReleaseReadBuff());
        EXPECT_EQ(ReadBlock(reader), 16);
        EXPECT_EQ(ReadErr(reader, kForever), EHOSTDOWN);
        EXPECT_EQ(log.Count(died), 1);
        reader.DeInit();
        EXPECT_TRUE(log.Has("I Mixer_DataTrans:DeInit:DataTrans Closed & unlinked:"));
    } else {
        // Without robust locks (qemu-user) the dead owner's lock stays taken for good:
        // only the bound saves the reader, and the host that learns of the death some
        // other way hangs the queue up itself; the reader's close then removes it.
        EXPECT_EQ(ReadErr(reader), EBUSY);
        reader.HangUpPeer();
        EXPECT_TRUE(reader.IsHungUp());
        reader.DeInit();
        EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Closed & unlinked:"));
    }
    EXPECT_FALSE(name.Exists());
}

// The client's writer: the stream parameters announced, audio cut into blocks and
// counted; a full queue stops the write, a closed one ends it.
TEST_F(DataTransTest, WriterSaysHowFarItGot) {
    DataTransWriter w, twice;
    std::vector<char> audio(100);
    EXPECT_EQ(w.Write(audio.data(), audio.size(), nullptr, 0), ENOENT);
    ASSERT_EQ(w.Create(name.c_str(), 2, 40, 16000, 1, 2), 0);
    EXPECT_EQ(twice.Create(name.c_str(), 2, 40, 16000, 1, 2), EEXIST);
    EXPECT_FALSE(twice.IsOpen());
    size_t written = 0;
    EXPECT_EQ(w.Write(audio.data(), audio.size(), nullptr, 0, &written), EAGAIN);
    EXPECT_EQ(written, 80u);  // two blocks of 40
    ASSERT_EQ(reader.Init(name.c_str()), 0);
    EXPECT_EQ(reader.AddCount(0), 80u);
    EXPECT_EQ((std::vector<int>{reader.GetRate(), reader.GetNumCh(), reader.GetSampleSize()}), (std::vector<int>{16000, 1, 2}));
    EXPECT_EQ(ReadBlock(reader), 40);
    reader.DeInit();
    EXPECT_EQ(w.Write(audio.data(), 10, nullptr, 0), EHOSTDOWN);
    w.Close();
    EXPECT_FALSE(name.Exists());
}

}  // namespace
}  // namespace mixer
