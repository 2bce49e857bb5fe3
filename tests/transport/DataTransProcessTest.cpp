// A producer and a consumer in different processes sharing one queue. Children report
// through ChildProcess::Wait (0 or the failing line) and signal progress through pipes.
#include "mixer/transport/DataTrans.h"

#include <sched.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"
#include "tests/transport/Blocks.h"

namespace mixer {
namespace {

using test::ChildProcess;
using test::LogCapture;
using test::Pipe;
using test::ReadBlock;
using test::ShmName;
using test::WriteBlock;

const unsigned kForever = 0xFFFFFFFFu;

unsigned LengthOf(unsigned k) { return 1 + (k * 97) % 1024; }
char ByteOf(unsigned k, unsigned i) { return static_cast<char>(k * 7 + i); }

// Waits until the peer's command shows up in the slot.
tInOutCmd AwaitCmd(DataTrans& dt, tInOutCmd want) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    tInOutCmd got;
    while ((got = dt.GetCmd()) != want && std::chrono::steady_clock::now() < end) sched_yield();
    return got;
}

// This process creates the queue (local); a forked child opens it with Open.
class DataTransProcessTest : public ::testing::Test {
protected:
    void Create(unsigned numBlk, unsigned blkSize) { ASSERT_EQ(local.Init(name.c_str(), numBlk, blkSize), 0); }
    bool Open(DataTrans& dt) { return dt.Init(name.c_str()) == 0; }

    ShmName name;
    DataTrans local;
};

TEST_F(DataTransProcessTest, BlocksFlowInOrderWithLengthsAndIdsThroughAFullQueue) {
    ASSERT_NO_FATAL_FAILURE(Create(4, 1024));
    DataTrans& reader = local;
    const unsigned kBlocks = 41;  // many more than fit: the writer waits, positions wrap
    ChildProcess writer([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        for (unsigned k = 0; k < kBlocks; ++k) {
            int err = -1;
            char* p = dt.GetWriteBuff(err, kForever);
            CHILD_CHECK(p != nullptr && err == 0);
            for (unsigned i = 0; i < LengthOf(k); ++i) p[i] = ByteOf(k, i);
            std::string id = "blk-" + std::to_string(k);
            CHILD_CHECK(dt.CommitWriteBuff(LengthOf(k), &id[0]));
        }
        dt.DeInit();
        return 0;
    });
    for (unsigned k = 0; k < kBlocks; ++k) {
        int err = -1;
        unsigned len = 0;
        char* id = nullptr;
        const char* p = reader.GetReadBuff(err, len, 20000, &id);
        ASSERT_NE(p, nullptr) << "block " << k << " err " << err;
        EXPECT_EQ(len, LengthOf(k));
        ASSERT_NE(id, nullptr);
        EXPECT_STREQ(id, ("blk-" + std::to_string(k)).c_str());
        free(id);
        unsigned bad = 0;
        for (unsigned i = 0; i < len; ++i) bad += p[i] != ByteOf(k, i);
        EXPECT_EQ(bad, 0u) << "block " << k;
        ASSERT_TRUE(reader.ReleaseReadBuff());
    }
    EXPECT_EQ(writer.Wait(), 0);
    int err = 0;
    unsigned len;
    LogCapture log;
    EXPECT_EQ(reader.GetReadBuff(err, len, kForever, nullptr), nullptr);
    EXPECT_EQ(err, EHOSTDOWN);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetReadBuff:reason=EmptyQueueHungUp:"));
    reader.DeInit();
    EXPECT_FALSE(name.Exists());
}

TEST_F(DataTransProcessTest, FullQueueHoldsTheWriterUntilTheReaderReleases) {
    ASSERT_NO_FATAL_FAILURE(Create(2, 64));
    DataTrans& reader = local;
    Pipe waiting, woke;
    ChildProcess writer([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        int err;
        char* first = dt.GetWriteBuff(err, 0);
        CHILD_CHECK(first != nullptr && dt.CommitWriteBuff(1, nullptr));
        CHILD_CHECK(WriteBlock(dt, 2));
        CHILD_CHECK(dt.GetWriteBuff(err, 0) == nullptr && err == EAGAIN);
        waiting.Send();
        char* again = dt.GetWriteBuff(err, kForever);
        woke.Send();
        CHILD_CHECK(again == first);  // the block the reader gave back
        CHILD_CHECK(dt.CommitWriteBuff(3, nullptr));
        return 0;
    });
    ASSERT_EQ(waiting.Receive(), '.');
    int err;
    unsigned len;
    ASSERT_NE(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_FALSE(woke.Readable(100)) << "taking a block frees nothing yet";
    ASSERT_TRUE(reader.ReleaseReadBuff());
    EXPECT_EQ(woke.Receive(), '.');
    EXPECT_EQ(writer.Wait(), 0);
    EXPECT_EQ(reader.GetNumBlkReady(), 2u);
}

TEST_F(DataTransProcessTest, ReaderClosingFirstHangsUpAndTheWriterUnlinks) {
    ASSERT_NO_FATAL_FAILURE(Create(2, 64));
    DataTrans& writer = local;
    ASSERT_TRUE(WriteBlock(writer, 8));
    int err;
    ASSERT_NE(writer.GetWriteBuff(err, 0), nullptr);
    Pipe inWait;
    // A writer waiting for space wakes up at the hang-up.
    ChildProcess reader([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        CHILD_CHECK(inWait.Receive() == '.');
        dt.DeInit();
        return 0;
    });
    ASSERT_TRUE(writer.CommitWriteBuff(8, nullptr));
    inWait.Send();
    LogCapture log;
    EXPECT_EQ(writer.GetWriteBuff(err, kForever), nullptr);
    EXPECT_EQ(err, EHOSTDOWN);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:GetWriteBuff:reason=HangUp:"));
    EXPECT_EQ(reader.Wait(), 0);
    EXPECT_TRUE(writer.IsHungUp());
    EXPECT_EQ(writer.GetNumBlkFree(), 0u);
    EXPECT_FALSE(writer.CommitWriteBuff(8, nullptr));
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:CommitWriteBuff:reason=queueAlreadyHungUp:"));
    EXPECT_TRUE(name.Exists());
    writer.DeInit();
    EXPECT_TRUE(log.Has("I Mixer_DataTrans:DeInit:DataTrans Closed & unlinked:"));
    EXPECT_FALSE(name.Exists());
}

TEST_F(DataTransProcessTest, CreatorClosingFirstLeavesItsBlocksAndTheUnlinkToTheOpener) {
    ASSERT_NO_FATAL_FAILURE(Create(4, 64));
    DataTrans& creator = local;
    for (unsigned k = 1; k <= 3; ++k) {
        int err;
        char* p = creator.GetWriteBuff(err, 0);
        ASSERT_NE(p, nullptr);
        memset(p, static_cast<int>(k), k);
        ASSERT_TRUE(creator.CommitWriteBuff(k, nullptr));
    }
    Pipe opened, closed;
    ChildProcess opener([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        opened.Send();
        CHILD_CHECK(closed.Receive() == '.');
        CHILD_CHECK(dt.IsHungUp());
        // What was committed before the hang-up is still read, in order.
        for (unsigned k = 1; k <= 3; ++k) {
            int err;
            unsigned len = 0;
            const char* p = dt.GetReadBuff(err, len, 0, nullptr);
            CHILD_CHECK(p != nullptr && len == k && p[0] == static_cast<char>(k));
            CHILD_CHECK(dt.ReleaseReadBuff());
        }
        // Then even a wait without limit ends at once.
        int err;
        unsigned len;
        CHILD_CHECK(dt.GetReadBuff(err, len, kForever, nullptr) == nullptr && err == EHOSTDOWN);
        dt.DeInit();
        return 0;
    });
    ASSERT_EQ(opened.Receive(), '.');
    LogCapture log;
    creator.DeInit();
    EXPECT_TRUE(log.Has("I Mixer_DataTrans:DeInit:DataTrans Hangup & Closed:"));
    EXPECT_TRUE(name.Exists());
    closed.Send();
    EXPECT_EQ(opener.Wait(), 0);
    EXPECT_FALSE(name.Exists());
}

TEST_F(DataTransProcessTest, StopRefusesTheWriterButNotTheReader) {
    ASSERT_NO_FATAL_FAILURE(Create(4, 64));
    DataTrans& reader = local;
    Pipe toChild, toParent;
    ChildProcess writer([&] {
        LogCapture log;
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        int err;
        CHILD_CHECK(WriteBlock(dt, 5));
        toParent.Send();
        CHILD_CHECK(toChild.Receive() == 's');
        CHILD_CHECK(dt.IsStopped());
        CHILD_CHECK(dt.GetWriteBuff(err, 100) == nullptr && err == EAGAIN);
        CHILD_CHECK(log.Has("E Mixer_DataTrans:GetWriteBuff:reason=Stopped:"));
        toParent.Send();
        CHILD_CHECK(toChild.Receive() == 'r');
        CHILD_CHECK(WriteBlock(dt, 6));
        return 0;
    });
    ASSERT_EQ(toParent.Receive(), '.');
    reader.Stop();
    toChild.Send('s');
    ASSERT_EQ(toParent.Receive(), '.');
    EXPECT_EQ(ReadBlock(reader), 5);
    reader.Resume();
    toChild.Send('r');
    EXPECT_EQ(writer.Wait(), 0);
    EXPECT_EQ(ReadBlock(reader), 6);
}

TEST_F(DataTransProcessTest, EveryCommandIsAcknowledgedAcrossProcesses) {
    ASSERT_NO_FATAL_FAILURE(Create(2, 64));
    DataTrans& mixerSide = local;
    const tInOutCmd cmds[] = {CMD_PAUSE, CMD_DRAIN, CMD_FLUSH, CMD_RESUME, CMD_STOP};
    Pipe posting;
    LogCapture log;
    ChildProcess client([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        for (tInOutCmd c : cmds) {
            posting.Send(static_cast<char>(c));
            dt.SetCmd(c);
            CHILD_CHECK(dt.GetCmd() == CMD_NONE);
            CHILD_CHECK(log.Has("I Mixer_DataTrans:SetCmd:New cmd " + std::to_string(c) + ":"));
        }
        CHILD_CHECK(log.CountPrefix("E def:Mixer_DataTrans:SetCmd:cond wait error") == 0);
        CHILD_CHECK(log.CountPrefix("W Mixer_DataTrans:SetCmd:erasing") == 0);
        return 0;
    });
    for (tInOutCmd c : cmds) {
        ASSERT_EQ(posting.Receive(), static_cast<int>(c));
        ASSERT_EQ(AwaitCmd(mixerSide, c), c);
        mixerSide.CmdExecuted(c);
        EXPECT_TRUE(log.Has("I def:Mixer_DataTrans:CmdExecuted:cmd = " + std::to_string(c) + ", signal = 1"));
    }
    EXPECT_EQ(client.Wait(), 0);
}

TEST_F(DataTransProcessTest, UnansweredCommandTimesOutAndTheNextOverwritesIt) {
    ASSERT_NO_FATAL_FAILURE(Create(2, 64));
    DataTrans& mixerSide = local;
    {
        LogCapture log;
        const auto t0 = std::chrono::steady_clock::now();
        mixerSide.SetCmd(CMD_PAUSE);  // nobody acknowledges
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1400));
        EXPECT_TRUE(log.Has("E def:Mixer_DataTrans:SetCmd:cond wait error, cmd = 1, status = 110"));
        EXPECT_EQ(mixerSide.GetCmd(), CMD_PAUSE);
    }
    // The client's command replaces the stale one; acknowledging another command clears
    // the slot but wakes nobody, so the client's wait also ends at its deadline.
    LogCapture log;
    Pipe posting;
    ChildProcess client([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        posting.Send();
        const auto t0 = std::chrono::steady_clock::now();
        dt.SetCmd(CMD_RESUME);
        CHILD_CHECK(std::chrono::steady_clock::now() - t0 >= std::chrono::milliseconds(1400));
        CHILD_CHECK(log.Has("W Mixer_DataTrans:SetCmd:erasing cmd 1:"));
        CHILD_CHECK(log.Has("E def:Mixer_DataTrans:SetCmd:cond wait error, cmd = 8, status = 110"));
        CHILD_CHECK(dt.GetCmd() == CMD_NONE);
        return 0;
    });
    ASSERT_EQ(posting.Receive(), '.');
    ASSERT_EQ(AwaitCmd(mixerSide, CMD_RESUME), CMD_RESUME);
    mixerSide.CmdExecuted(CMD_DRAIN);
    EXPECT_TRUE(log.Has("I def:Mixer_DataTrans:CmdExecuted:cmd = 2, signal = 0"));
    EXPECT_EQ(mixerSide.GetCmd(), CMD_NONE);
    EXPECT_EQ(client.Wait(), 0);
}

TEST_F(DataTransProcessTest, FlushWhileTheWriterHoldsABlock) {
    ASSERT_NO_FATAL_FAILURE(Create(4, 64));
    DataTrans& reader = local;
    Pipe holding, flushed;
    ChildProcess writer([&] {
        LogCapture log;
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        int err;
        for (int i = 0; i < 2; ++i) CHILD_CHECK(WriteBlock(dt, 8));
        CHILD_CHECK(dt.GetWriteBuff(err, 0) != nullptr);
        holding.Send();
        CHILD_CHECK(flushed.Receive() == '.');
        CHILD_CHECK(!dt.CommitWriteBuff(8, nullptr));
        CHILD_CHECK(log.Has("E Mixer_DataTrans:CommitWriteBuff:check bababeef state 0:"));
        CHILD_CHECK(WriteBlock(dt, 9));
        return 0;
    });
    ASSERT_EQ(holding.Receive(), '.');
    reader.Flush();
    EXPECT_EQ(reader.GetNumBlkFree(), 4u);
    EXPECT_EQ(reader.GetNumBlkReady(), 0u);
    flushed.Send();
    EXPECT_EQ(writer.Wait(), 0);
    EXPECT_EQ(ReadBlock(reader), 9);  // only what was written after the flush
    EXPECT_EQ(reader.GetNumBlkReady(), 0u);
}

TEST_F(DataTransProcessTest, WriterWaitsTillTheReaderHasConsumedEverything) {
    ASSERT_NO_FATAL_FAILURE(Create(4, 64));
    DataTrans& reader = local;
    Pipe committed;
    ChildProcess writer([&] {
        DataTrans dt;
        CHILD_CHECK(Open(dt));
        CHILD_CHECK(dt.WaitTillUserBufEmpty() == 0);  // nothing written yet
        for (int i = 0; i < 3; ++i) CHILD_CHECK(WriteBlock(dt, 8));
        committed.Send();
        CHILD_CHECK(dt.WaitTillUserBufEmpty() == 0);
        CHILD_CHECK(dt.GetNumBlkFree() == 4);
        return 0;
    });
    ASSERT_EQ(committed.Receive(), '.');
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ReadBlock(reader), 8);
    EXPECT_EQ(writer.Wait(), 0);

    // Nobody reads: the wait ends at its deadline.
    ShmName other;
    DataTrans alone;
    ASSERT_EQ(alone.Init(other.c_str(), 4, 64), 0);
    ASSERT_TRUE(WriteBlock(alone, 8));
    LogCapture log;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(alone.WaitTillUserBufEmpty(), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1400));
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:WaitTillUserBufEmpty:retcode=110:"));
}

}  // namespace
}  // namespace mixer
