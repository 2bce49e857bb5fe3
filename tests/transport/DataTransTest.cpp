// The shared block queue: both ends in this process, a raw mapping to damage it as a peer
// could; then peers in other processes.
#include "mixer/transport/DataTrans.h"
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <boost/make_shared.hpp>
#include <chrono>
#include <climits>
#include <fstream>
#include <functional>
#include <future>
#include <thread>
#include "mixer/transport/ClientMappings.h"
#include "mixer/transport/DataTransWriter.h"
#include "mixer/transport/Deadline.h"
#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"
#include "tests/support/ShrinkProbe.h"
namespace mixer {
namespace {
using namespace test;
typedef std::vector<std::string> Lines;
typedef std::chrono::steady_clock Clock;
const unsigned kHdr = kStreamQueueSize;

int err;  // the helpers' error out-parameter
unsigned len;
bool WriteBlock(DataTrans& dt, unsigned n, char* id = 0) { return dt.GetWriteBuff(err, 0) && dt.CommitWriteBuff(n, id); }
// The next block's length, taken and given back without waiting; -1 when that failed.
int ReadBlock(DataTrans& dt) { return dt.GetReadBuff(err, len, 0, nullptr) && dt.ReleaseReadBuff() ? int(len) : -1; }
// The error of a call that handed out nothing; 0 when it handed out a block (kept).
int ReadErr(DataTrans& dt, unsigned ms = 0) { return dt.GetReadBuff(err = 0, len, ms, nullptr) ? 0 : err; }
int WriteErr(DataTrans& dt, unsigned ms = 0) { return dt.GetWriteBuff(err = 0, ms) ? 0 : err; }
long MsOf(const std::function<void()>& f) {  // the lower bound of a time-out
    const auto t0 = Clock::now();
    return f(), std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

struct RawMap {  // a mapping of the whole object of its own, as a peer has
    explicit RawMap(const ShmName& name) {
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        struct stat st;
        fstat(fd, &st);
        size = size_t(st.st_size);
        base = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        stride = q()->blkSize;
    }
    ~RawMap() { munmap(base, size); }
    StreamQueue* q() { return reinterpret_cast<StreamQueue*>(base); }
    BlockTail* tail(unsigned i) { return reinterpret_cast<BlockTail*>(base + kHdr + (i + 1) * stride) - 1; }
    bool fresh(unsigned i) {  // as creation and Flush leave a tail
        const BlockTail* t = tail(i);
        return t->check == BLOCK_CHECK && t->state == BLK_FREE && t->length == 0 && !t->bufId[0];
    }
    char* base; size_t size; uint32_t stride;  // stride: of creation
};

// Waits until a status line with this tag was logged (by any thread).
bool StatusLogged(const LogCapture& log, const std::string& tag) {
    return log.WaitUntil([&](const std::string& l) {
        return l.rfind("P Mixer_DataTrans:Status:Timestamp-", 0) == 0 && l.find(":[" + tag + "] ") != std::string::npos;
    });
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

// Every refused creation or opening (bad arguments, a missing or truncated object, a
// header a peer corrupted): its result, its one log line, and nothing left open.
TEST_F(DataTransTest, RefusedInitLeavesNothingOpen) {
    ASSERT_EQ(writer.Init(name.c_str(), 4, 57), 0);  // rounded up to 64: a stride of 232
    const uint32_t memSize = kHdr + 4 * 232;
    RawMap raw(name);
    StreamQueue* q = raw.q();
    ASSERT_EQ(raw.size, memSize);
    EXPECT_EQ((std::vector<uint32_t>{q->memSize, q->numBlk, q->blkSize, q->userBlkSize, q->numFree, q->numReady}),
              (std::vector<uint32_t>{memSize, 4, 232, 64, 4, 0}));
    ShmName other("o");
    const std::string n = name.str(), o = other.str(), size = std::to_string(memSize), bad = ",name=" + o + ",error=0:";
    const std::string path = "/dev/shm" + n, range = "reason=positionOutOfRange,name=" + n,
                      counter = "reason=counterOutOfRange,name=" + n,
                      mismatch = "reason=memSizeMismatch,name=" + n + ",memSize=" + size;
    auto open = [&](std::function<void()> damage) { return [&, damage] { damage(); return reader.Init(name.c_str()); }; };
    auto create = [&](unsigned num, unsigned blk) { return [&, num, blk] { return reader.Init(o.c_str(), num, blk); }; };
    const struct { std::function<int()> init; int rc; std::string line; } cases[] = {
        {[&] { return reader.Init(nullptr, 4, 8); }, ENOENT, "reason=nullName,name=(null),error=0:"},
        {[&] { return reader.Init(nullptr); }, ENOENT, "reason=nullName,name=(null),error=0:"},
        {create(0, 8), ENOENT, "reason=invalidSize" + bad},
        {create(1, 65361), ENOENT, "reason=invalidSize" + bad},  // a stride of 64 KiB
        {create(0x10000, 8), ENOENT, "reason=invalidSize" + bad},
        {create(0xFFFF, 0xFF00), ENOENT, "reason=invalidSize" + bad},  // 4 GiB
        {[&] { return reader.Init(n.c_str(), 2, 8); }, EEXIST, "reason=shmAlreadyExists,name=" + n + ",error=EEXIST:"},
        {[&] { return reader.Init(o.c_str()); }, ENOENT, "reason=shmDoesNotExist,name=" + o + ",error=ENOENT:"},
        {open([&] { q->numBlk = 0; }), EFAULT, "reason=noBlocks,name=" + n + ",numBlk=0:"},
        {open([&] { q->userBlkSize = 60; }), EFAULT, "reason=userBlkSizeUnaligned,name=" + n + ",userBlkSize=60:"},
        {open([&] { q->blkSize = 64; }), EFAULT, "reason=blkSizeMismatch,name=" + n + ",blkSize=64,userBlkSize=64:"},
        {open([&] { q->numBlk = 5; }), EFAULT, mismatch + ",numBlk=5,blkSize=232:"},
        // 232 * 2^29 is 29 * 2^32: in 32 bits this block count gives back the true size.
        {open([&] { q->numBlk = 4 + (1u << 29); }), EFAULT, mismatch + ",numBlk=536870916,blkSize=232:"},
        {open([&] { EXPECT_EQ(truncate(path.c_str(), memSize - 1), 0); }), EFAULT,
         "reason=objectTooSmall,name=" + n + ",size=" + std::to_string(memSize - 1) + ",memSize=" + size + ":"},
        {open([&] { q->writePos = 4; }), EFAULT, range + ",writePos=4,readPos=0,numBlk=4:"},
        {open([&] { q->readPos = ~0u; }), EFAULT, range + ",writePos=0,readPos=4294967295,numBlk=4:"},
        {open([&] { q->numFree = 5; }), EFAULT, counter + ",numFree=5,numReady=0,numBlk=4:"},
        {open([&] { q->numReady = 9; }), EFAULT, counter + ",numFree=4,numReady=9,numBlk=4:"},
    };
    // Mappings of shared memory, and the lowest free descriptor, which a leaked one would take.
    auto leftovers = [] {
        std::ifstream maps("/proc/self/maps");
        int shm = 0;
        for (std::string line; std::getline(maps, line);) shm += line.find("/dev/shm/") != std::string::npos;
        const int fd = dup(2);
        return std::make_pair(shm, close(fd) == 0 ? fd : -1);
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
        memcpy(raw.base, saved, kHdr);
        ASSERT_EQ(truncate(path.c_str(), memSize), 0);
    }
    EXPECT_EQ(leftovers(), before);  // a leak in any row shows here
    EXPECT_EQ(reader.Init(name.c_str()), 0);  // the repaired header opens
}

// What a peer rewrites after the opening never leads outside the mapping: EFAULT.
TEST_F(DataTransTest, PeerScribblesNeverLeadOutsideTheMapping) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    RawMap raw(name);
    StreamQueue* q = raw.q();
    LogCapture log;
    ASSERT_EQ(WriteErr(writer), 0);
    raw.tail(0)->check = 0;  // under the writer's commit: refused, and the tail reset for the next try
    EXPECT_TRUE(!writer.CommitWriteBuff(8, nullptr) && WriteBlock(writer, 8));
    reader.Flush();
    raw.tail(0)->check = 0;
    EXPECT_EQ(WriteErr(writer), EFAULT);
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
    raw.tail(0)->state = BLK_READY, raw.tail(0)->length = 65;  // a committed length beyond the block
    EXPECT_EQ(ReadErr(reader), EFAULT);
    for (uint32_t pos : {1u << 29, ~0u}) {  // 1 << 29 is a byte offset that wraps in 32 bits to block 0
        q->readPos = pos;
        EXPECT_EQ(ReadErr(reader), EFAULT) << pos;
    }
    q->writePos = 1u << 29;
    EXPECT_EQ(WriteErr(writer), EFAULT);
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:TailPosToPtr:pos "), 3);
}

// An empty queue, a full one, misordered calls, a flush while both ends hold a block, and
// the writer's stop flag, which the flush leaves as it is.
TEST_F(DataTransTest, TimeOutsFlushAndStop) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    LogCapture log;
    EXPECT_EQ(ReadErr(reader), EAGAIN);
    EXPECT_GE(MsOf([&] { EXPECT_EQ(ReadErr(reader, 100), ETIMEDOUT); }), 90);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetReadBuff:retcode=11:"));  // not an error: the reader's normal case
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr) || reader.ReleaseReadBuff());
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(WriteBlock(writer, 8) && ReadBlock(reader) == 8);  // positions wrap to 1
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(WriteBlock(writer, 8, const_cast<char*>("id")));
    ASSERT_EQ(ReadErr(reader), 0);   // the reader holds block 1
    ASSERT_EQ(WriteErr(writer), 0);  // and the writer the last free one
    EXPECT_EQ(WriteErr(writer), EAGAIN);
    EXPECT_GE(MsOf([&] { EXPECT_EQ(WriteErr(writer, 100), ETIMEDOUT); }), 90);
    writer.AddCount(4);
    EXPECT_EQ(reader.SubCount(10), 0u);  // saturates
    writer.AddCount(24);
    reader.Stop(), reader.Flush();
    EXPECT_EQ(std::make_tuple(reader.GetNumBlkFree(), reader.GetNumBlkReady(), reader.AddCount(0)),
              std::make_tuple(4u, 0u, 0u));
    RawMap raw(name);
    for (unsigned i = 0; i < 4; ++i) EXPECT_TRUE(raw.fresh(i)) << i;
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr) || reader.ReleaseReadBuff());  // their blocks were taken back
    EXPECT_TRUE(writer.IsStopped() && WriteErr(writer, 100) == EAGAIN);
    reader.Resume();
    ASSERT_TRUE(WriteBlock(writer, 8));
    EXPECT_GE(MsOf([&] { EXPECT_EQ(writer.WaitTillUserBufEmpty(), ETIMEDOUT); }), 1400);  // nobody reads
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetWriteBuff:reason=Stopped:"));
}

// The client's writer: parameters announced, audio cut into blocks and counted; a full
// queue stops the write, a closed one ends it. A queue not open refuses every operation.
TEST_F(DataTransTest, WriterSaysHowFarItGot) {
    DataTransWriter w;
    std::vector<char> audio(100);
    EXPECT_EQ(w.Write(audio.data(), audio.size(), nullptr, 0), ENOENT);
    EXPECT_TRUE(WriteErr(reader) == ENOENT && ReadErr(reader) == ENOENT && !reader.ReleaseReadBuff());
    EXPECT_TRUE(!reader.CommitWriteBuff(4, nullptr) && reader.GetRate() == -1 && reader.IsStopped());
    EXPECT_EQ(reader.AddCount(3) + reader.SubCount(1) + reader.GetNumBlkFree() + reader.WaitTillUserBufEmpty(), 0u);
    ASSERT_EQ(w.Create(name.c_str(), 2, 40, 16000, 1, 2), 0);
    size_t written = 0;
    const std::string longId(200, 'i');
    EXPECT_TRUE(w.Write(audio.data(), audio.size(), longId.c_str(), 0, &written) == EAGAIN && written == 80u);  // 2 blocks
    ASSERT_EQ(reader.Init(name.c_str()), 0);
    EXPECT_EQ(reader.AddCount(0), 80u);
    EXPECT_EQ(std::make_tuple(reader.GetRate(), reader.GetNumCh(), reader.GetSampleSize()), std::make_tuple(16000, 1, 2));
    char* id = nullptr;
    ASSERT_NE(reader.GetReadBuff(err, len, 0, &id), nullptr);
    EXPECT_TRUE(len == 40 && std::string(id) == std::string(kBlockTailBufIdLen - 1, 'i'));  // as much as a tail holds
    free(id);
    EXPECT_TRUE(reader.ReleaseReadBuff());
    reader.DeInit();
    EXPECT_EQ(w.Write(audio.data(), 10, nullptr, 0), EHOSTDOWN);
    w.Close();
    EXPECT_FALSE(name.Exists());
}

TEST_F(DataTransTest, BlocksFlowInOrderWithLengthsAndIdsThroughAFullQueue) {
    ASSERT_EQ(reader.Init(name.c_str(), 4, 1024), 0);
    auto length = [](unsigned k) { return 1 + (k * 97) % 1024; };
    const unsigned kBlocks = 41;  // many more than fit: the writer waits, positions wrap
    ChildProcess child([&] {
        CHILD_CHECK(writer.Init(name.c_str()) == 0 && writer.WaitTillUserBufEmpty() == 0);  // nothing written yet
        for (unsigned k = 0; k < kBlocks; ++k) {
            char* p = writer.GetWriteBuff(err = -1, deadline::kForever);
            CHILD_CHECK(p != nullptr && err == 0);
            for (unsigned i = 0; i < length(k); ++i) p[i] = char(k * 7 + i);
            std::string id = "blk-" + std::to_string(k);
            CHILD_CHECK(writer.CommitWriteBuff(length(k), &id[0]));
        }
        CHILD_CHECK(writer.WaitTillUserBufEmpty() == 0 && writer.GetNumBlkFree() == 4);  // till all is read
        return 0;
    });
    for (unsigned k = 0; k < kBlocks; ++k) {
        unsigned bad = 0;
        char* id = nullptr;
        const char* p = reader.GetReadBuff(err = -1, len, 20000, &id);
        ASSERT_NE(p, nullptr) << "block " << k << " err " << err;
        EXPECT_EQ(len, length(k));
        EXPECT_STREQ(id, ("blk-" + std::to_string(k)).c_str());
        free(id);
        for (unsigned i = 0; i < len; ++i) bad += p[i] != char(k * 7 + i);
        EXPECT_EQ(bad, 0u) << "block " << k;
        ASSERT_TRUE(reader.ReleaseReadBuff());
    }
    EXPECT_EQ(child.Wait(), 0);
}

// A waiter wakes when the peer process closes its end. The waiter logs its entry holding
// the lock and keeps it until it waits: once that line is seen, the close comes after.
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
        EXPECT_TRUE(StatusLogged(log, waitToWrite ? "GetWriteBuff-Enter" : "GetReadBuff-Enter"));
        closeNow.Send();
        waiter.join();
        EXPECT_EQ(woke, EHOSTDOWN);  // a lost wake-up would show as ETIMEDOUT
        EXPECT_TRUE(log.Has(waitToWrite ? "E Mixer_DataTrans:GetWriteBuff:reason=HangUp:"
                                        : "E Mixer_DataTrans:GetReadBuff:reason=EmptyQueueHungUp:"));
        EXPECT_EQ(peer.Wait(), 0);
        EXPECT_TRUE(local.IsHungUp() && local.GetNumBlkFree() == 0 && !local.CommitWriteBuff(8, nullptr));
        EXPECT_TRUE(name.Exists());
        local.DeInit();
        EXPECT_FALSE(name.Exists());
    }
}

// A client process that wrote two blocks stops while it holds its queue's lock; this
// process is the reader end, bounded like the mixer's. A bound that failed would hang.
TEST(DataTransLockTest, StoppedHolderCostsABoundedEndNoMoreThanItsBound) {
    ShmName name;
    LockingClient holder(name.str(), {true, 4, 64, false, {std::string(8, 'a'), std::string(16, 'b')}});
    DataTrans reader;
    ASSERT_TRUE(holder.Ready() && reader.Init(name.c_str()) == 0);
    reader.SetLockWaitMs(DataTrans::kEngineLockWaitMs);
    RawMap raw(name);
    StreamQueue* q = raw.q();
    q->cmd = CMD_PAUSE, q->rate = 48000, q->count = 5;  // what the client set before it stopped
    ASSERT_TRUE(holder.Lock() && holder.Stop());
    LogCapture log;
    EXPECT_EQ(ReadErr(reader), EBUSY);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetReadBuff:reason=LockBusy,name=" + name.str() + ":"));
    EXPECT_EQ(ReadErr(reader, 320), EBUSY);  // the bound, not the time-out
    EXPECT_TRUE(!reader.ReleaseReadBuff(err) && err == EBUSY);
    EXPECT_TRUE(reader.GetCmd() == CMD_NONE && reader.GetRate() == -1 && reader.IsStopped());
    EXPECT_EQ(reader.SubCount(1) + reader.AddCount(1), 0u);
    EXPECT_EQ(reader.WaitTillUserBufEmpty(), EBUSY);
    reader.Flush(), reader.Stop(), reader.SetRate(8000), reader.CmdExecuted(CMD_PAUSE);
    // None of them touched the header.
    EXPECT_EQ((std::vector<uint32_t>{q->numReady, q->count, q->cmd, q->stopped, uint32_t(q->rate)}),
              (std::vector<uint32_t>{2, 5, CMD_PAUSE, 0, 48000}));
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    // Closing still works: hung up without the lock, the name left to the last closer.
    EXPECT_TRUE(reader.DeInit() && log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Hangup & Closed:"));
    EXPECT_TRUE(q->hangUp == 1 && name.Exists());
    ASSERT_TRUE(holder.Continue() && holder.Unlock());
    EXPECT_EQ(holder.Finish(), 0);  // closes last, and removes the name
    EXPECT_FALSE(name.Exists());
}

#ifdef __GLIBC__
// What a hostile client does to a condition of its queue, in glibc's layout: takes the condition's internal lock
// (the low two bits of __g1_orig_size) and claims a waiter (__wrefs counts them from bit 3), so that a broadcast
// goes for the lock and sleeps on it. Unwedge lets go as glibc's own unlock does.
void Wedge(pthread_cond_t& c) {
    __atomic_fetch_add(&c.__data.__wrefs, 8u, __ATOMIC_SEQ_CST);
    __atomic_fetch_or(&c.__data.__g1_orig_size, 1u, __ATOMIC_SEQ_CST);
}

void Unwedge(pthread_cond_t& c) {
    __atomic_fetch_sub(&c.__data.__wrefs, 8u, __ATOMIC_SEQ_CST);
    __atomic_fetch_and(&c.__data.__g1_orig_size, ~3u, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, &c.__data.__g1_orig_size, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Each row: the condition a client wedges, and the call of the mixer's end (with a waker) that broadcasts on it.
// The call returns; the stuck broadcast faults that queue alone; a waiter on another queue is still woken by a new
// worker; once the client lets go, the stuck worker comes back.
TEST(DataTransWakerTest, ClientWedgingAConditionFaultsItsQueueAloneAndNeverHoldsTheCaller) {
    const struct { const char* what; pthread_cond_t StreamQueue::*cond; std::function<void(DataTrans&)> call; } cases[] = {
        {"release", &StreamQueue::condSpaceAvail, [](DataTrans& e) { ReadBlock(e); }},
        {"commit", &StreamQueue::condDataAvail, [](DataTrans& e) { ReadBlock(e), WriteBlock(e, 8); }},
        {"ack", &StreamQueue::cmdExecutedCond, [](DataTrans& e) { e.CmdExecuted(CMD_PAUSE); }},
        {"hang-up", &StreamQueue::cmdExecutedCond, [](DataTrans& e) { e.HangUpPeer(); }},
    };
    boost::shared_ptr<CondWaker> waker = boost::make_shared<CondWaker>();
    LogCapture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        log.Clear();
        ShmName bad, good;
        DataTrans badClient, badEngine, goodClient, goodEngine;
        ASSERT_TRUE(!badClient.Init(bad.c_str(), 1, 8) && !badEngine.Init(bad.c_str()) && WriteBlock(badClient, 8));
        ASSERT_TRUE(!goodClient.Init(good.c_str(), 1, 8) && !goodEngine.Init(good.c_str()) && WriteBlock(goodClient, 8));
        badEngine.SetWaker(waker), goodEngine.SetWaker(waker);
        RawMap raw(bad);
        raw.q()->cmd = CMD_PAUSE;
        Wedge(raw.q()->*c.cond);
        auto call = std::async(std::launch::async, [&] { c.call(badEngine); });
        const bool returned = call.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        if (!returned) Unwedge(raw.q()->*c.cond);  // lets the call go, to fail here rather than hang
        ASSERT_TRUE(returned);
        ASSERT_TRUE(log.WaitFor("E Mixer_DataTrans:Waker:reason=BroadcastStuck,name=" + bad.str() + ",stuck=1:"));
        EXPECT_TRUE(ReadErr(badEngine) == EFAULT && waker->Stuck() == 1);
        int woke = -1;
        std::thread waiter([&] {  // the queue is full: it waits for the engine's release
            int e = 0;
            woke = goodClient.GetWriteBuff(e, 20000) ? 0 : e;
        });
        EXPECT_TRUE(StatusLogged(log, "GetWriteBuff-Enter"));
        EXPECT_EQ(ReadBlock(goodEngine), 8);
        waiter.join();
        EXPECT_EQ(woke, 0);
        Unwedge(raw.q()->*c.cond);
        ASSERT_TRUE(log.WaitFor("I Mixer_DataTrans:Waker:stuck waker back:")) << log.Dump();
        EXPECT_EQ(waker->Stuck(), 0u);
        badEngine.DeInit();
        EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:wedged, DataTrans Hangup & unlinked:") && !bad.Exists());
    }
}
#endif

// The deadlines' second carries, and the clock readings whose nanoseconds come out as a whole
// second (kept: both sides of the queue compute them so). The command channel's 1.5-s
// deadline is checked on the rows of 1500 ms.
TEST(DeadlineTest, CarriesTheSecondExactlyPastItsEnd) {
    const long G = 1000000000L;
    const struct { long nsec; unsigned ms; long wantSec, wantNsec; } cases[] = {
        {0, 1, 10, 1000000}, {0, 1000, 11, 0}, {999000000, 1, 10, G}, {999000001, 1, 11, 1},
        {600000000, 2500, 13, 100000000}, {400000000, 2599, 12, 999000000}, {0, 1500, 11, 500000000},
        {499999999, 1500, 11, 999999999}, {500000000, 1500, 11, G}, {500000001, 1500, 12, 1}};
    for (const auto& c : cases) {
        const timespec t = deadline::AfterMs(timespec{10, c.nsec}, c.ms), h = deadline::AfterOneAndHalfSeconds({10, c.nsec});
        EXPECT_TRUE(t.tv_sec == c.wantSec && t.tv_nsec == c.wantNsec) << c.nsec << " + " << c.ms << " ms";
        EXPECT_TRUE(c.ms != 1500 || (h.tv_sec == c.wantSec && h.tv_nsec == c.wantNsec)) << c.nsec;
    }
}

// A peer that shrinks the object under this end: the vanished pages read as zeros, every
// call fails with EFAULT and closing removes the name; an open in progress gets a zero
// page. A SIGBUS outside every registered mapping and guard still ends the process.
TEST(ClientMappingsTest, ShrunkQueueFaultsAndOtherBusErrorsStillKill) {
    if (!ShrinkSurvivable()) GTEST_SKIP() << "this emulator misreports the address of a bus error";
    ASSERT_TRUE(ClientMappings::Install());
    ShmName name, other;
    DataTransWriter w;
    DataTrans reader;
    ASSERT_TRUE(w.Create(name.c_str(), 4, 8192, 48000, 2, 2) == 0 && reader.Init(name.c_str()) == 0);
    ASSERT_TRUE(WriteBlock(*w.Queue(), 100) && WriteBlock(*w.Queue(), 100));
    const auto shrink = [](const ShmName& n, off_t size) {
        const int fd = shm_open(n.c_str(), O_RDWR | O_CREAT, 0600);
        return fd >= 0 && ftruncate(fd, size) == 0 && close(fd) == 0;
    };
    ASSERT_TRUE(shrink(name, 4096));  // the header's page stays, the blocks go
    EXPECT_EQ(ReadErr(reader), EFAULT);
    EXPECT_EQ(ReadErr(reader), EFAULT);
    reader.DeInit();
    EXPECT_FALSE(name.Exists());
    const auto map = [&] {
        void* p = shrink(other, 4096) ? mmap(nullptr, 4096, PROT_READ, MAP_SHARED, shm_open(other.c_str(), O_RDONLY, 0), 0)
                                      : MAP_FAILED;
        return p != MAP_FAILED && shrink(other, 0) ? static_cast<volatile char*>(p) : nullptr;
    };
    {  // an open in progress, whose mapping is not registered yet
        volatile char* p = map();
        ASSERT_NE(p, nullptr);
        ClientMappings::OpenGuard guard;
        EXPECT_TRUE(p[0] == 0 && guard.Faulted());
        munmap(const_cast<char*>(p), 4096);
    }
    ChildProcess child([&] {
        volatile char* p = map();
        CHILD_CHECK(p != nullptr);
        return *p == 0 ? 0 : 1;  // the access raises SIGBUS
    });
    EXPECT_EQ(child.Wait(), -1);
}
}  // namespace
}  // namespace mixer
