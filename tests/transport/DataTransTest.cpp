// One process, both ends of a queue (creator and opener map the same object), plus a
// raw mapping through which a test reads or damages the shared header as a peer could.
#include "mixer/transport/DataTrans.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "mixer/core/Log.h"
#include "mixer/transport/Deadline.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"
#include "tests/transport/Blocks.h"

namespace mixer {
namespace {

using test::LogCapture;
using test::ReadBlock;
using test::ShmName;
using test::WriteBlock;

const unsigned kHdr = kStreamQueueSize;

// A second, independent mapping of the whole object.
class RawMap {
public:
    explicit RawMap(const ShmName& name) {
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        struct stat st;
        fstat(fd, &st);
        size_ = static_cast<size_t>(st.st_size);
        base_ = static_cast<char*>(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
    }
    ~RawMap() { munmap(base_, size_); }
    StreamQueue* q() { return reinterpret_cast<StreamQueue*>(base_); }
    char* base() { return base_; }
    size_t size() const { return size_; }
    BlockTail* tail(unsigned i) { return tail(i, q()->blkSize); }
    // With the stride given, for a header whose own may have been damaged.
    BlockTail* tail(unsigned i, uint32_t blkSize) {
        return reinterpret_cast<BlockTail*>(base_ + kHdr + (i + 1) * blkSize - sizeof(BlockTail));
    }

private:
    char* base_;
    size_t size_;
};

// The part after the timestamp of the last status line with this tag.
std::string Status(const LogCapture& log, const std::string& tag) {
    const std::string prefix = "P Mixer_DataTrans:Status:Timestamp-";
    std::string found;
    for (const std::string& l : log.Lines()) {
        const size_t at = l.find(":[" + tag + "] ");
        if (l.compare(0, prefix.size(), prefix) == 0 && at != std::string::npos)
            found = l.substr(at + 1);
    }
    return found;
}

// Both ends of one queue in this process: the creator writes, the opener reads.
class DataTransPairTest : public ::testing::Test {
protected:
    void Open(unsigned numBlk, unsigned blkSize) {
        ASSERT_EQ(writer.Init(name.c_str(), numBlk, blkSize), 0);
        ASSERT_EQ(reader.Init(name.c_str()), 0);
    }

    ShmName name;
    DataTrans writer, reader;
};

TEST(DataTransTest, CreationLaysOutHeaderAndTails) {
    ShmName name;
    LogCapture log;
    DataTrans dt;
    ASSERT_EQ(dt.Init(name.c_str(), 4, 1), 0);
    const unsigned memSize = kHdr + 4 * 176;
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:Init:shm " + name.str() + " numBlk 4 blkSize 176 size " +
                        std::to_string(memSize) + " Created:"));
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:Init:DataTrans " + name.str() + " Created:"));
    EXPECT_EQ(dt.GetUserBlkSize(), 8u);
    EXPECT_EQ(dt.GetNumBlk(), 4u);

    RawMap raw(name);
    ASSERT_EQ(raw.size(), memSize);
    StreamQueue* q = raw.q();
    EXPECT_EQ(q->memSize, memSize);
    EXPECT_EQ(q->blkSize, 176u);
    EXPECT_EQ(q->numFree, 4u);
    EXPECT_EQ(q->numReady | q->writePos | q->readPos | q->count | q->hangUp | q->cmd | q->stopped, 0u);
    EXPECT_EQ(q->rate, -1);
    EXPECT_EQ(q->numCh, -1);
    EXPECT_EQ(q->sampleSize, -1);
    if (MIXER_STREAMQUEUE_DEVICE_ABI) {
        // The device format, byte by byte.
        EXPECT_EQ(memSize, 960u);
        auto at = [&](size_t off) {
            uint32_t v;
            memcpy(&v, raw.base() + off, 4);
            return v;
        };
        EXPECT_EQ(at(192), 960u);
        EXPECT_EQ(at(204), 4u);
        EXPECT_EQ(at(208), 176u);
        EXPECT_EQ(at(212), 8u);
        EXPECT_EQ(at(216), 4u);
        EXPECT_EQ(at(228), 0xFFFFFFFFu);
        EXPECT_EQ(at(236), 0xFFFFFFFFu);
    }

    EXPECT_EQ(dt.PosToPtr(q, 0) - raw.base(), static_cast<long>(kHdr));
    EXPECT_EQ(dt.TailPosToPtr(q, 0) - raw.base(), static_cast<long>(kHdr + 8));
    EXPECT_EQ(dt.TailPosToPtr(q, 3) - raw.base(), static_cast<long>(kHdr + 3 * 176 + 8));
    for (unsigned i = 0; i < 4; ++i) {
        const BlockTail* t = raw.tail(i);
        EXPECT_EQ(t->check, 0xBABABEEFu);
        EXPECT_EQ(t->state | t->length, 0u);
        EXPECT_EQ(t->bufId[0], 0);
    }

    log.Clear();
    EXPECT_EQ(dt.PosToPtr(q, 4), nullptr);
    EXPECT_EQ(dt.TailPosToPtr(q, 4), nullptr);
    const std::string end = std::to_string(memSize);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "E Mixer_DataTrans:PosToPtr:pos " + end + " >= memSize " + end + ":",
                               "E Mixer_DataTrans:TailPosToPtr:pos " + std::to_string(memSize + 8) +
                                   " >= memSize " + end + ":"}));
}

TEST(DataTransTest, CreationRefusesNullNamesBadSizesAndExistingNames) {
    ShmName name;
    LogCapture log;
    DataTrans dt;
    EXPECT_EQ(dt.Init(nullptr, 4, 8), 2);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:InitFailed:reason=nullName,name=(null),error=0:"));
    const unsigned bad[][2] = {{0, 8}, {1, 65361}, {0x10000, 8}, {0xFFFF, 0xFF00}};
    for (const auto& b : bad) {
        log.Clear();
        EXPECT_EQ(dt.Init(name.c_str(), b[0], b[1]), 2) << b[0] << " x " << b[1];
        EXPECT_EQ(log.Lines(), std::vector<std::string>{"E Mixer_DataTrans:InitFailed:reason=invalidSize,name=" +
                                                        name.str() + ",error=0:"});
        EXPECT_FALSE(name.Exists());
    }
    // The largest stride below 64 KiB.
    ASSERT_EQ(dt.Init(name.c_str(), 1, 65360), 0);
    EXPECT_EQ(dt.GetUserBlkSize(), 65360u);

    log.Clear();
    DataTrans other;
    EXPECT_EQ(other.Init(name.c_str(), 2, 8), EEXIST);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:InitFailed:reason=shmAlreadyExists,name=" + name.str() + ",error=EEXIST:"));
    EXPECT_TRUE(other.IsHungUp());  // still closed
    EXPECT_EQ(dt.GetNumBlk(), 1u);  // the existing object is untouched
    int err;
    EXPECT_NE(dt.GetWriteBuff(err, 0), nullptr);
}

TEST(DataTransTest, OpeningRefusesMissingAndTruncatedObjects) {
    ShmName name;
    LogCapture log;
    DataTrans dt;
    EXPECT_EQ(dt.Init(name.c_str()), ENOENT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:InitFailed:reason=shmDoesNotExist,name=" + name.str() + ",error=ENOENT:"));

    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 10), 0);
    EXPECT_EQ(dt.Init(name.c_str()), EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:InitFailed:reason=invalidMemoryRead,name=" + name.str() + ",error=0:"));

    ASSERT_EQ(ftruncate(fd, kHdr), 0);
    const uint32_t tiny = 100;
    ASSERT_EQ(pwrite(fd, &tiny, 4, offsetof(StreamQueue, memSize)), 4);
    close(fd);
    EXPECT_EQ(dt.Init(name.c_str()), EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:InitFailed:reason=invalidShmOpenMemorySize,name=" + name.str() +
                        ",100<" + std::to_string(kHdr) + ":"));
    EXPECT_TRUE(dt.IsHungUp());
    EXPECT_EQ(dt.GetNumBlk(), 0u);
}

// Mappings of the object and open descriptors of this process, to see that a refused
// opening leaves none behind.
int MappingsOf(const ShmName& name) {
    std::ifstream maps("/proc/self/maps");
    int n = 0;
    for (std::string line; std::getline(maps, line);)
        if (line.find("/dev/shm" + name.str()) != std::string::npos) ++n;
    return n;
}
int OpenDescriptors() {
    DIR* d = opendir("/proc/self/fd");
    int n = 0;
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

TEST(DataTransTest, CorruptHeaderIsRefused) {
    ShmName name;
    DataTrans creator;
    ASSERT_EQ(creator.Init(name.c_str(), 4, 64), 0);  // userBlkSize 64, stride 232
    const uint32_t memSize = kHdr + 4 * 232;
    RawMap raw(name);
    StreamQueue* q = raw.q();
    const std::string n = name.str();
    const std::string size = std::to_string(memSize);
    struct Case {
        const char* what;
        std::function<void()> damage;
        std::string line;
    };
    const Case cases[] = {
        {"no blocks", [&] { q->numBlk = 0; }, "reason=noBlocks,name=" + n + ",numBlk=0:"},
        {"unaligned data size", [&] { q->userBlkSize = 60; },
         "reason=userBlkSizeUnaligned,name=" + n + ",userBlkSize=60:"},
        {"stride without its tail", [&] { q->blkSize = 64; },
         "reason=blkSizeMismatch,name=" + n + ",blkSize=64,userBlkSize=64:"},
        {"one block more than the size", [&] { q->numBlk = 5; },
         "reason=memSizeMismatch,name=" + n + ",memSize=" + size + ",numBlk=5,blkSize=232:"},
        // 232 * 2^29 is 29 * 2^32: in 32 bits this block count gives back the true size.
        {"block count that wraps to the size", [&] { q->numBlk = 4 + (1u << 29); },
         "reason=memSizeMismatch,name=" + n + ",memSize=" + size + ",numBlk=536870916,blkSize=232:"},
        {"object shorter than its header says",
         [&] { ASSERT_EQ(truncate(("/dev/shm" + n).c_str(), memSize - 1), 0); },
         "reason=objectTooSmall,name=" + n + ",size=" + std::to_string(memSize - 1) + ",memSize=" + size + ":"},
        {"write position", [&] { q->writePos = 4; },
         "reason=positionOutOfRange,name=" + n + ",writePos=4,readPos=0,numBlk=4:"},
        {"read position", [&] { q->readPos = 0xFFFFFFFFu; },
         "reason=positionOutOfRange,name=" + n + ",writePos=0,readPos=4294967295,numBlk=4:"},
        {"free count", [&] { q->numFree = 5; },
         "reason=counterOutOfRange,name=" + n + ",numFree=5,numReady=0,numBlk=4:"},
        {"ready count", [&] { q->numReady = 9; },
         "reason=counterOutOfRange,name=" + n + ",numFree=4,numReady=9,numBlk=4:"},
    };
    const int mapsBefore = MappingsOf(name);
    const int fdsBefore = OpenDescriptors();
    char saved[kHdr];
    memcpy(saved, raw.base(), kHdr);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_NO_FATAL_FAILURE(c.damage());
        LogCapture log;
        DataTrans opener;
        EXPECT_EQ(opener.Init(name.c_str()), EFAULT);
        EXPECT_EQ(log.Lines(), std::vector<std::string>{"E Mixer_DataTrans:InitFailed:" + c.line});
        EXPECT_TRUE(opener.IsHungUp());  // not open
        EXPECT_EQ(opener.GetNumBlk(), 0u);
        EXPECT_EQ(MappingsOf(name), mapsBefore);
        EXPECT_EQ(OpenDescriptors(), fdsBefore);
        memcpy(raw.base(), saved, kHdr);
        ASSERT_EQ(truncate(("/dev/shm" + n).c_str(), memSize), 0);
    }
    // The repaired header opens.
    DataTrans opener;
    EXPECT_EQ(opener.Init(name.c_str()), 0);
    EXPECT_EQ(opener.GetNumBlk(), 4u);
}

TEST_F(DataTransPairTest, HeaderRewrittenAfterOpeningNeverLeadsOutsideTheMapping) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    RawMap raw(name);
    LogCapture log;
    int err;
    unsigned len;
    ASSERT_TRUE(WriteBlock(writer, 16));
    memset(raw.base() + kHdr, 0x5A, 16);

    // Sizes that would put block 0 anywhere: the geometry checked at opening still holds.
    raw.q()->blkSize = 0x7FFFFFF0u;
    raw.q()->userBlkSize = 0x7FFFFF00u;
    raw.q()->numBlk = 0xFFFFFFFFu;
    raw.q()->memSize = 0xFFFFFFFFu;
    EXPECT_EQ(reader.GetNumBlk(), 4u);
    EXPECT_EQ(reader.GetUserBlkSize(), 64u);
    char* p = reader.GetReadBuff(err, len, 0, nullptr);
    ASSERT_NE(p, nullptr) << err;
    EXPECT_EQ(len, 16u);
    EXPECT_EQ(std::string(p, 16), std::string(16, '\x5A'));
    EXPECT_TRUE(reader.ReleaseReadBuff());
    EXPECT_EQ(raw.q()->readPos, 1u);  // wrapped by the checked block count, not the header's
    reader.Flush();                   // resets the 4 real tails only
    EXPECT_EQ(raw.q()->numFree, 4u);

    // A position whose byte offset wraps in 32 bits to block 0 (232 * 2^29 = 29 * 2^32).
    ASSERT_TRUE(WriteBlock(writer, 8));
    raw.q()->readPos = 1u << 29;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EFAULT);
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:TailPosToPtr:pos "), 1);
    raw.q()->readPos = 0xFFFFFFFFu;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EFAULT);
    raw.q()->writePos = 1u << 29;
    EXPECT_EQ(writer.GetWriteBuff(err, 0), nullptr);
    EXPECT_EQ(err, EFAULT);
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:PosToPtr:pos "), 1);

    // A committed length beyond the block, rewritten after the commit.
    raw.q()->readPos = 0;
    raw.tail(0, 232)->length = 64 + 168;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetReadBuff:length 232 > 64:"));
}

TEST(DataTransTest, ClosedQueueRefusesEveryOperation) {
    LogCapture log;
    DataTrans dt;
    int err = 0;
    unsigned len = 0;
    EXPECT_EQ(dt.GetWriteBuff(err, 0), nullptr);
    EXPECT_EQ(err, ENOENT);
    EXPECT_FALSE(dt.CommitWriteBuff(4, nullptr));
    EXPECT_EQ(dt.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, ENOENT);
    EXPECT_FALSE(dt.ReleaseReadBuff());
    EXPECT_EQ(dt.GetRate(), -1);
    EXPECT_EQ(dt.GetNumCh(), -1);
    EXPECT_EQ(dt.GetSampleSize(), -1);
    dt.SetCmd(CMD_PAUSE);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "E Mixer_DataTrans:GetWriteBuff:reason=nullHandle:",
                               "E Mixer_DataTrans:CommitWriteBuff:reason=nullHandle:",
                               "E Mixer_DataTrans:GetReadBuff:reason=nullHandle:",
                               "E Mixer_DataTrans:ReleaseReadBuff:reason=nullHandle:",
                               "W Mixer_DataTrans:GetRate:No handle:",
                               "W Mixer_DataTrans:GetNumCh:No handle:",
                               "W Mixer_DataTrans:GetSampleSize:No handle:",
                               "W Mixer_DataTrans:SetCmd:No handle:"}));
    EXPECT_TRUE(dt.IsHungUp());
    EXPECT_TRUE(dt.IsStopped());
    EXPECT_EQ(dt.GetCmd(), CMD_NONE);
    EXPECT_EQ(dt.AddCount(3) + dt.SubCount(1) + dt.GetNumBlkFree(), 0u);
    EXPECT_EQ(dt.WaitTillUserBufEmpty(), 0);
    EXPECT_TRUE(dt.DeInit());
}

TEST_F(DataTransPairTest, ParametersAndCountAreSharedBetweenBothEnds) {
    LogCapture log;
    ASSERT_NO_FATAL_FAILURE(Open(2, 64));
    EXPECT_EQ(reader.GetRate(), -1);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetRate:-1:"));
    writer.SetRate(44100);
    writer.SetNumCh(2);
    writer.SetSampleSize(2);
    EXPECT_EQ(reader.GetRate(), 44100);
    EXPECT_EQ(reader.GetNumCh(), 2);
    EXPECT_EQ(reader.GetSampleSize(), 2);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetNumCh:2:"));
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetSampleSize:2:"));

    writer.AddCount(4);
    EXPECT_EQ(reader.SubCount(10), 0u);  // saturates
    EXPECT_EQ(writer.AddCount(5), 5u);
    EXPECT_EQ(reader.SubCount(5), 0u);
    EXPECT_EQ(writer.AddCount(7), 7u);
    EXPECT_EQ(reader.SubCount(3), 4u);
}

TEST_F(DataTransPairTest, TimeOutsOfZeroAndOneHundredMilliseconds) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    LogCapture log;
    int err = -1;
    unsigned len = 0;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EAGAIN);
    EXPECT_EQ(log.CountPrefix("E "), 0);  // an empty queue is the reader's normal case
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetReadBuff:retcode=11:"));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(reader.GetReadBuff(err, len, 100, nullptr), nullptr);
    EXPECT_EQ(err, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(90));

    for (int i = 0; i < 4; ++i) ASSERT_TRUE(WriteBlock(writer, 8));
    log.Clear();
    EXPECT_EQ(writer.GetWriteBuff(err, 0), nullptr);
    EXPECT_EQ(err, EAGAIN);
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(writer.GetWriteBuff(err, 100), nullptr);
    EXPECT_EQ(err, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(90));
    EXPECT_EQ(log.CountPrefix("E "), 2);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetWriteBuff:retcode=11:"));
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetWriteBuff:retcode=110:"));
    EXPECT_FALSE(Status(log, "GetWriteBuff-CondWait-Err").empty());
}

TEST_F(DataTransPairTest, MisorderedCallsAreRefusedAndTraced) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    LogCapture log;
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:CommitWriteBuff:check bababeef state 0:"));

    // Five cycles on four blocks wrap both positions round to 1.
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(WriteBlock(writer, 8));
        ASSERT_EQ(ReadBlock(reader), 8);
    }
    EXPECT_FALSE(reader.ReleaseReadBuff());
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:ReleaseReadBuff:check bababeef state 0:"));
    writer.LogStatus("probe");
    const std::regex line("P Mixer_DataTrans:Status:Timestamp-[0-9]+\\.[0-9]{6}:\\[probe\\] Name = " + name.str() +
                          " W 1 R 1 Free 4 Rdy 0 hup 0 Count 0:");
    EXPECT_TRUE(std::regex_match(log.Lines().back(), line)) << log.Lines().back();
    for (const char* tag : {"GetWriteBuff-Enter", "GetWriteBuff-Exit", "CommitWriteBuff-Enter", "CommitWriteBuff-Exit",
                            "GetReadBuff-Enter", "GetReadBuff-Exit", "ReleaseReadBuff-Enter", "ReleaseReadBuff-Exit"})
        EXPECT_FALSE(Status(log, tag).empty()) << tag;

    // Without the performance bit there is no trace at all.
    g_orvane_log_mask &= ~static_cast<uint32_t>(Log::kPerf);  // the capture restores it
    log.Clear();
    int err;
    ASSERT_NE(writer.GetWriteBuff(err, 0), nullptr);
    writer.LogStatus("probe");
    EXPECT_EQ(log.CountPrefix("P "), 0);
}

TEST_F(DataTransPairTest, FlushResetsBlocksAndCountersButNotFlags) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    int err;
    unsigned len;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(WriteBlock(writer, 8, const_cast<char*>("id")));
        writer.AddCount(8);
    }
    ASSERT_NE(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    ASSERT_NE(writer.GetWriteBuff(err, 0), nullptr);  // the writer holds the fourth block
    reader.Stop();
    LogCapture log;
    reader.Flush();
    EXPECT_EQ(reader.GetNumBlkFree(), reader.GetNumBlk());
    EXPECT_EQ(reader.GetNumBlkReady(), 0u);
    reader.LogStatus("flushed");
    EXPECT_EQ(Status(log, "flushed"), "[flushed] Name = " + name.str() + " W 0 R 0 Free 4 Rdy 0 hup 0 Count 0:");
    EXPECT_TRUE(reader.IsStopped());
    RawMap raw(name);
    for (unsigned i = 0; i < 4; ++i)
        EXPECT_TRUE(raw.tail(i)->check == BLOCK_CHECK && raw.tail(i)->state == BLK_FREE &&
                    raw.tail(i)->length == 0 && raw.tail(i)->bufId[0] == 0);
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:CommitWriteBuff:check bababeef state 0:"));
    EXPECT_FALSE(reader.ReleaseReadBuff());
}

TEST_F(DataTransPairTest, CorruptTailsAndPositionsFailWithoutLeavingTheMapping) {
    ASSERT_NO_FATAL_FAILURE(Open(4, 64));
    RawMap raw(name);
    LogCapture log;
    int err;
    unsigned len;

    raw.tail(0)->check = 0;
    EXPECT_EQ(writer.GetWriteBuff(err, 0), nullptr);
    EXPECT_EQ(err, EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetWriteBuff:check 0 state 0:"));
    EXPECT_EQ(raw.tail(0)->check, BLOCK_CHECK);  // reset: the next try works
    ASSERT_TRUE(WriteBlock(writer, 8));

    raw.tail(0)->state = 1;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EFAULT);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetReadBuff:check bababeef state 1:"));

    // A committed length beyond the block would send the reader past it.
    raw.tail(0)->state = BLK_READY;
    raw.tail(0)->length = 65;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EFAULT);

    // Positions and sizes a peer could scribble: every address is bounded by the mapping.
    raw.q()->readPos = 1000;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EFAULT);
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:TailPosToPtr:pos "), 1);
    raw.q()->memSize += 1000 * 176;
    raw.q()->writePos = 5;
    EXPECT_EQ(writer.GetWriteBuff(err, 0), nullptr);
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:PosToPtr:pos "), 1);
    EXPECT_EQ(log.CountPrefix("E Mixer_DataTrans:TailPosToPtr:pos "), 2);
}

TEST(DataTransTest, DeadlinesKeepTheFullSecondQuirk) {
    using deadline::AfterMs;
    using deadline::AfterOneAndHalfSeconds;
    auto eq = [](timespec a, long s, long ns) { return a.tv_sec == s && a.tv_nsec == ns; };
    EXPECT_TRUE(eq(AfterMs({10, 400000000}, 100), 10, 500000000));
    EXPECT_TRUE(eq(AfterMs({10, 950000000}, 100), 11, 50000000));
    EXPECT_TRUE(eq(AfterMs({10, 900000000}, 100), 10, 1000000000));  // kept as it is
    EXPECT_TRUE(eq(AfterMs({10, 0}, 2500), 12, 500000000));
    EXPECT_TRUE(eq(AfterOneAndHalfSeconds({10, 300000000}), 11, 800000000));
    EXPECT_TRUE(eq(AfterOneAndHalfSeconds({10, 500000000}), 11, 1000000000));  // kept as it is
    EXPECT_TRUE(eq(AfterOneAndHalfSeconds({10, 600000000}), 12, 100000000));
}

}  // namespace
}  // namespace mixer
