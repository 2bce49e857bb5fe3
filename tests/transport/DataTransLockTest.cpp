// A client process that stops or dies while it holds the queue's lock, seen from an end
// with a lock bound (the mixer's side). Every wait here is bounded by the code under test
// itself: if a bound failed to hold, the test would hang instead of failing.
#include "mixer/transport/DataTrans.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using test::LockingClient;
using test::LogCapture;
using test::ShmName;

const unsigned kForever = 0xFFFFFFFFu;

// The shared header as a peer sees it, through a mapping of its own.
class Header {
public:
    explicit Header(const ShmName& name) {
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        base_ = mmap(nullptr, sizeof(StreamQueue), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
    }
    ~Header() { munmap(base_, sizeof(StreamQueue)); }
    StreamQueue* operator->() { return static_cast<StreamQueue*>(base_); }

private:
    void* base_;
};

// The client process creates the queue, writes two blocks and then holds its lock (as
// its writer thread would inside an operation); this process is the reader end, bounded
// like the mixer's.
class DataTransLockTest : public ::testing::Test {
protected:
    void SetUp() override {
        LockingClient::Options o;
        o.create = true;
        o.numBlk = 4;
        o.blkSize = 64;
        o.blocks = {std::string(8, 'a'), std::string(16, 'b')};
        holder.reset(new LockingClient(name.str(), o));
        ASSERT_TRUE(holder->Ready());
        ASSERT_EQ(reader.Init(name.c_str()), 0);
        reader.SetLockWaitMs(DataTrans::kEngineLockWaitMs);
        ASSERT_TRUE(holder->Lock());
    }

    ShmName name;
    std::unique_ptr<LockingClient> holder;
    DataTrans reader;  // closed before the holder is reaped
};

TEST_F(DataTransLockTest, StoppedHolderCostsABoundedEndNoMoreThanItsBound) {
    Header header(name);
    header->cmd = CMD_PAUSE;  // posted by the client before it stopped
    ASSERT_TRUE(holder->Stop());
    LogCapture log;
    int err = 0;
    unsigned len = 0;
    EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
    EXPECT_EQ(err, EBUSY);
    EXPECT_TRUE(log.Has("D Mixer_DataTrans:GetReadBuff:reason=LockBusy,name=" + name.str() + ":"));
    EXPECT_EQ(reader.GetReadBuff(err, len, 320, nullptr), nullptr);  // the bound, not the time-out
    EXPECT_EQ(err, EBUSY);
    EXPECT_FALSE(reader.ReleaseReadBuff(err));
    EXPECT_EQ(err, EBUSY);
    EXPECT_EQ(reader.GetCmd(), CMD_NONE);
    EXPECT_EQ(reader.GetRate(), -1);
    EXPECT_EQ(reader.SubCount(1), 0u);
    EXPECT_TRUE(reader.IsStopped());
    EXPECT_EQ(reader.WaitTillUserBufEmpty(), EBUSY);
    reader.Flush();
    EXPECT_EQ(reader.GetNumBlkReady(), 2u);  // the flush did nothing
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();

    // Closing still works: the queue is hung up without the lock, the name left to the
    // last closer.
    EXPECT_TRUE(reader.DeInit());
    EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Hangup & Closed:"));
    EXPECT_EQ(header->hangUp, 1);
    EXPECT_TRUE(name.Exists());

    ASSERT_TRUE(holder->Continue());
    ASSERT_TRUE(holder->Unlock());
    EXPECT_EQ(holder->Finish(), 0);  // closes last, and removes the name
    EXPECT_FALSE(name.Exists());
}

TEST_F(DataTransLockTest, HolderKilledInsideTheLockEndsTheQueueLikeAClosedClient) {
    holder->Kill();
    LogCapture log;
    int err = 0;
    unsigned len = 0;
    if (test::RobustLocksAvailable()) {
        // The lock is repaired and the queue hung up: what was queued is still read,
        // then the reader is told the client is gone.
        char* p = reader.GetReadBuff(err, len, 0, nullptr);
        ASSERT_NE(p, nullptr) << err;
        EXPECT_EQ(len, 8u);
        EXPECT_EQ(log.Lines().front(), "E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + name.str() + ":");
        EXPECT_TRUE(reader.IsHungUp());
        EXPECT_TRUE(reader.ReleaseReadBuff());
        ASSERT_NE(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
        EXPECT_EQ(len, 16u);
        EXPECT_TRUE(reader.ReleaseReadBuff());
        EXPECT_EQ(reader.GetReadBuff(err, len, kForever, nullptr), nullptr);
        EXPECT_EQ(err, EHOSTDOWN);
        EXPECT_EQ(log.Count("E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + name.str() + ":"), 1);
        reader.DeInit();
        EXPECT_TRUE(log.Has("I Mixer_DataTrans:DeInit:DataTrans Closed & unlinked:"));
    } else {
        // Without robust locks (qemu-user) the dead owner's lock stays taken for good:
        // only the bound saves the reader, and the host that learns of the death some
        // other way hangs the queue up itself; the reader's close then removes it.
        EXPECT_EQ(reader.GetReadBuff(err, len, 0, nullptr), nullptr);
        EXPECT_EQ(err, EBUSY);
        reader.HangUpPeer();
        EXPECT_TRUE(reader.IsHungUp());
        reader.DeInit();
        EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Closed & unlinked:"));
    }
    EXPECT_FALSE(name.Exists());
}

}  // namespace
}  // namespace mixer
