#include "mixer/input/InputDataTrans.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "mixer/transport/DataTransWriter.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using test::ChildProcess;
using test::LockingClient;
using test::LogCapture;
using test::Pipe;
using test::ShmName;

const unsigned kFrame = 3840;  // 20 ms of 48 kHz stereo 16-bit

std::vector<char> Pattern(size_t n, unsigned seed) {
    std::vector<char> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>(seed * 31 + i * 7 + 1);
    return v;
}

// Client and mixer in one process: a writer on one mapping, the input on another.
class InputDataTransTest : public ::testing::Test {
protected:
    void Open(unsigned numBlk, unsigned blkSize) {
        ASSERT_EQ(writer.Create(name.c_str(), numBlk, blkSize, 48000, 2, 2), 0);
        queue.reset(new DataTrans());
        ASSERT_EQ(queue->Init(name.c_str()), 0);
        input.reset(new InputDataTrans(queue, 48000, 2, 2, "music"));
    }
    void Put(const std::vector<char>& bytes, const char* id) {
        ASSERT_EQ(writer.Write(bytes.data(), bytes.size(), id, 0), 0);
    }
    std::string FrameBytes(const boost::shared_ptr<AudioFrame>& f) { return std::string(f->data, f->size); }

    ShmName name;
    DataTransWriter writer;
    boost::shared_ptr<DataTrans> queue;
    std::unique_ptr<InputDataTrans> input;
};

TEST_F(InputDataTransTest, FrameSizedBlockGivesOneFrameThenNothing) {
    Open(1, kFrame);
    EXPECT_EQ(input->state, STATE_ACTIVE);
    EXPECT_EQ(input->name, name.str());
    const std::vector<char> audio = Pattern(kFrame, 1);
    Put(audio, "c-1");
    LogCapture log;
    boost::shared_ptr<AudioFrame> f = input->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(FrameBytes(f), std::string(audio.begin(), audio.end()));
    EXPECT_STREQ(f->bufId, "c-1");
    EXPECT_EQ(writer.Queue()->GetNumBlkFree(), 1u);  // released
    EXPECT_EQ(queue->AddCount(0), 0u);              // every byte taken off the count
    EXPECT_FALSE(input->Process());
    EXPECT_EQ(input->eagainCount, 1u);
    EXPECT_TRUE(log.Has("D Mixer_InputDataTrans:Process:EAGAIN:Start"));
}

TEST_F(InputDataTransTest, FramesAreAssembledFromSmallBlocksAndPaddedWithSilence) {
    Open(8, 1000);
    std::vector<char> all;
    for (unsigned k = 0; k < 8; ++k) {
        const std::vector<char> b = Pattern(1000, k);
        all.insert(all.end(), b.begin(), b.end());
        Put(b, ("b" + std::to_string(k)).c_str());
    }
    boost::shared_ptr<AudioFrame> f1 = input->Process(), f2 = input->Process(), f3 = input->Process();
    ASSERT_TRUE(f1 && f2 && f3);
    EXPECT_EQ(FrameBytes(f1), std::string(all.data(), kFrame));
    EXPECT_STREQ(f1->bufId, "b0 b1 b2 b3");
    EXPECT_EQ(FrameBytes(f2), std::string(all.data() + kFrame, kFrame));
    EXPECT_STREQ(f2->bufId, "b3 b4 b5 b6 b7");  // the held block's id starts the trace
    // 320 bytes left of the last block, then silence.
    EXPECT_EQ(FrameBytes(f3), std::string(all.data() + 2 * kFrame, 320) + std::string(kFrame - 320, '\0'));
    EXPECT_STREQ(f3->bufId, "b7");
    EXPECT_EQ(writer.Queue()->GetNumBlkFree(), 8u);
    EXPECT_EQ(queue->AddCount(0), 0u);
}

TEST_F(InputDataTransTest, BlockLargerThanAFrameSpansFrames) {
    Open(2, 6000);
    const std::vector<char> big = Pattern(6000, 3);
    Put(big, "big");
    boost::shared_ptr<AudioFrame> f1 = input->Process();
    ASSERT_TRUE(f1);
    EXPECT_EQ(input->blockLeft, 6000u - kFrame);
    EXPECT_STREQ(input->bufId, "big");
    EXPECT_EQ(queue->AddCount(0), 6000u - kFrame);
    boost::shared_ptr<AudioFrame> f2 = input->Process();
    ASSERT_TRUE(f2);
    EXPECT_EQ(FrameBytes(f2), std::string(big.data() + kFrame, 6000 - kFrame) + std::string(2 * kFrame - 6000, '\0'));
    EXPECT_EQ(input->readPtr, nullptr);
    EXPECT_EQ(input->bufId[0], 0);
}

TEST_F(InputDataTransTest, GapIsReportedOnlyAfterMoreThanFifteenEmptyPeriods) {
    Open(4, kFrame);
    LogCapture log;
    const unsigned gaps[] = {15, 16, 20};
    for (unsigned gap : gaps) {
        for (unsigned i = 0; i < gap; ++i) EXPECT_FALSE(input->Process());
        Put(Pattern(kFrame, gap), nullptr);
        EXPECT_TRUE(input->Process());
        EXPECT_EQ(input->eagainCount, 0u);
    }
    EXPECT_EQ(log.CountPrefix("I Mixer_InputDataTrans:Process:EAGAIN:Stop"), 2);
    EXPECT_TRUE(log.Has("I Mixer_InputDataTrans:Process:EAGAIN:Stop 320 ms"));
    EXPECT_TRUE(log.Has("I Mixer_InputDataTrans:Process:EAGAIN:Stop 400 ms"));
    EXPECT_EQ(log.Count("D Mixer_InputDataTrans:Process:EAGAIN:Start"), 3);
}

TEST_F(InputDataTransTest, PauseDelayOfTwoHundredFiftyEndsInTheThirteenthFrame) {
    Open(16, kFrame);
    for (unsigned k = 0; k < 16; ++k) Put(Pattern(kFrame, k), nullptr);
    input->PauseDelay(250);
    EXPECT_EQ(input->state, STATE_PAUSING);
    for (unsigned frame = 1; frame <= 12; ++frame) {
        ASSERT_TRUE(input->Process());
        EXPECT_EQ(input->state, STATE_PAUSING);
        EXPECT_EQ(input->pauseDelayMs, 250 - 20 * frame);
    }
    EXPECT_TRUE(input->Process());
    EXPECT_EQ(input->state, STATE_PAUSED);
    EXPECT_EQ(input->pauseDelayMs, 0u);
    EXPECT_FALSE(input->Process());
    EXPECT_EQ(queue->GetNumBlkReady(), 3u);
}

TEST_F(InputDataTransTest, DrainPlaysWhatIsQueuedThenPauses) {
    Open(2, kFrame);
    Put(Pattern(kFrame, 0), nullptr);
    input->Drain();
    EXPECT_EQ(input->state, STATE_DRAINING);
    EXPECT_TRUE(input->Process());
    EXPECT_EQ(input->state, STATE_DRAINING);
    EXPECT_FALSE(input->Process());
    EXPECT_EQ(input->state, STATE_PAUSED);
    EXPECT_EQ(input->eagainCount, 1u);
}

TEST_F(InputDataTransTest, StateOperationsFollowTheTable) {
    Open(2, kFrame);
    const tInOutState A = STATE_ACTIVE, D = STATE_DRAINING, P = STATE_PAUSING, Pd = STATE_PAUSED,
                      H = STATE_HANGUP, F = STATE_FAULT, S = STATE_STOPPED;
    struct Row {
        const char* op;
        void (*apply)(InputDataTrans&);
        tInOutState to[7];  // indexed by the starting state
    };
    const Row rows[] = {
        {"PauseDelay(40)", [](InputDataTrans& in) { in.PauseDelay(40); }, {P, P, P, Pd, H, F, S}},
        {"PauseDelay(0)", [](InputDataTrans& in) { in.PauseDelay(0); }, {Pd, Pd, Pd, Pd, H, F, S}},
        {"Pause", [](InputDataTrans& in) { in.Pause(); }, {Pd, Pd, Pd, Pd, H, F, S}},
        {"Drain", [](InputDataTrans& in) { in.Drain(); }, {D, D, D, Pd, H, F, S}},
        {"Flush", [](InputDataTrans& in) { in.Flush(); }, {Pd, Pd, Pd, Pd, H, F, S}},
        {"Resume", [](InputDataTrans& in) { in.Resume(); }, {A, A, A, A, H, F, A}},
        {"Stop", [](InputDataTrans& in) { in.Stop(); }, {S, S, S, S, S, S, S}},
    };
    for (const Row& row : rows) {
        for (unsigned from = 0; from < 7; ++from) {
            input->state = static_cast<tInOutState>(from);
            row.apply(*input);
            EXPECT_EQ(input->state, row.to[from]) << row.op << " from " << from;
        }
    }
    // Stop refuses the client's writes; Resume lets them in again.
    input->Stop();
    int err;
    EXPECT_EQ(writer.Queue()->GetWriteBuff(err, 0), nullptr);
    EXPECT_EQ(err, EAGAIN);
    input->Resume();
    EXPECT_NE(writer.Queue()->GetWriteBuff(err, 0), nullptr);
}

TEST_F(InputDataTransTest, FlushDropsTheHeldBlockAndTheQueue) {
    Open(3, 6000);
    for (unsigned k = 0; k < 3; ++k) Put(Pattern(6000, k), nullptr);
    ASSERT_TRUE(input->Process());
    ASSERT_NE(input->blockLeft, 0u);
    input->Flush();
    EXPECT_EQ(input->state, STATE_PAUSED);
    EXPECT_EQ(input->blockLeft, 0u);
    EXPECT_EQ(input->readPtr, nullptr);
    EXPECT_EQ(queue->GetNumBlkFree(), 3u);
    EXPECT_EQ(queue->GetNumBlkReady(), 0u);
    EXPECT_EQ(queue->AddCount(0), 0u);
    EXPECT_FALSE(input->Process());
}

TEST_F(InputDataTransTest, CorruptBlockFaultsTheInputForGood) {
    Open(2, kFrame);
    Put(Pattern(kFrame, 0), nullptr);
    // Damage the tail of block 0 as a misbehaving client could.
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    const size_t size = kStreamQueueSize + 2 * (kFrame + sizeof(BlockTail));
    char* base = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    ASSERT_NE(base, MAP_FAILED);
    reinterpret_cast<BlockTail*>(base + kStreamQueueSize + kFrame)->check = 0;
    munmap(base, size);
    LogCapture log;
    EXPECT_FALSE(input->Process());
    EXPECT_EQ(input->state, STATE_FAULT);
    EXPECT_TRUE(log.Has("I Mixer_InputDataTrans:Process:EFAULT:"));
    input->Resume();
    input->Flush();
    EXPECT_EQ(input->state, STATE_FAULT);
}

TEST_F(InputDataTransTest, UnknownCommandsAreNeitherHandledNorAcknowledged) {
    Open(2, kFrame);
    LogCapture log;
    EXPECT_EQ(input->HandleCmd(static_cast<tInOutCmd>(3)), 1);
    EXPECT_EQ(input->HandleCmd(CMD_NONE), 1);
    EXPECT_EQ(log.CountPrefix("I def:Mixer_DataTrans:CmdExecuted"), 0);
    EXPECT_EQ(input->HandleCmd(CMD_PAUSE), 0);
    EXPECT_EQ(input->state, STATE_ACTIVE);
    EXPECT_TRUE(log.Has("I def:Mixer_DataTrans:CmdExecuted:cmd = 1, signal = 0"));
    InputDataTrans without(boost::shared_ptr<DataTrans>(), 48000, 2, 2, "none");
    EXPECT_EQ(without.HandleCmd(CMD_PAUSE), 1);
    EXPECT_EQ(without.GetCmd(), CMD_NONE);
}

TEST(InputDataTransProcessTest, ClientCommandsAreCarriedOutAndAcknowledged) {
    ShmName name;
    Pipe ready, done;
    LogCapture log;
    ChildProcess client([&] {
        DataTransWriter w;
        CHILD_CHECK(w.Create(name.c_str(), 4, kFrame, 48000, 2, 2) == 0);
        const std::vector<char> audio = Pattern(2 * kFrame, 9);
        CHILD_CHECK(w.Write(audio.data(), audio.size(), "x", 0) == 0);
        ready.Send();
        for (tInOutCmd c : {CMD_DRAIN, CMD_RESUME, CMD_STOP}) w.SendCmd(c);
        CHILD_CHECK(log.CountPrefix("E def:Mixer_DataTrans:SetCmd:cond wait error") == 0);
        CHILD_CHECK(w.Write(audio.data(), 10, nullptr, 0) == EAGAIN);  // stopped
        CHILD_CHECK(done.Receive() == '.');
        w.Close();
        return 0;
    });
    ASSERT_EQ(ready.Receive(), '.');
    boost::shared_ptr<DataTrans> queue(new DataTrans());
    ASSERT_EQ(queue->Init(name.c_str()), 0);
    InputDataTrans input(queue, 48000, 2, 2, "music");
    const tInOutState after[] = {STATE_DRAINING, STATE_ACTIVE, STATE_STOPPED};
    int i = 0;
    for (tInOutCmd c : {CMD_DRAIN, CMD_RESUME, CMD_STOP}) {
        // The client is inside SetCmd; its command shows up in the slot.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        tInOutCmd got;
        while ((got = input.GetCmd()) == CMD_NONE && std::chrono::steady_clock::now() < end) sched_yield();
        ASSERT_EQ(got, c);
        EXPECT_EQ(input.HandleCmd(c), 0);
        EXPECT_EQ(input.state, after[i++]);
    }
    EXPECT_TRUE(input.Process());  // a stopped input still plays what is queued
    EXPECT_EQ(input.state, STATE_STOPPED);
    done.Send();
    EXPECT_EQ(client.Wait(), 0);
    EXPECT_TRUE(input.Process());
    EXPECT_FALSE(input.Process());
    EXPECT_EQ(input.state, STATE_HANGUP);
}

TEST(InputDataTransProcessTest, LastFramesOfADepartingClientAreDelivered) {
    ShmName name;
    ChildProcess client([&] {
        DataTransWriter w;
        CHILD_CHECK(w.Create(name.c_str(), 4, kFrame, 48000, 2, 2) == 0);
        const std::vector<char> audio = Pattern(2 * kFrame + 1000, 4);
        CHILD_CHECK(w.Write(audio.data(), audio.size(), nullptr, 0) == 0);
        w.Close();
        return 0;
    });
    ASSERT_EQ(client.Wait(), 0);
    ASSERT_TRUE(name.Exists());
    boost::shared_ptr<DataTrans> queue(new DataTrans());
    ASSERT_EQ(queue->Init(name.c_str()), 0);
    InputDataTrans input(queue, 48000, 2, 2, "music");
    const std::vector<char> audio = Pattern(2 * kFrame + 1000, 4);
    LogCapture log;
    boost::shared_ptr<AudioFrame> f1 = input.Process(), f2 = input.Process();
    ASSERT_TRUE(f1 && f2);
    EXPECT_EQ(std::string(f2->data, kFrame), std::string(audio.data() + kFrame, kFrame));
    EXPECT_EQ(input.state, STATE_ACTIVE);
    // The last 1,000 bytes come padded with silence, together with the hang-up.
    boost::shared_ptr<AudioFrame> f3 = input.Process();
    ASSERT_TRUE(f3);
    EXPECT_EQ(std::string(f3->data, kFrame), std::string(audio.data() + 2 * kFrame, 1000) + std::string(kFrame - 1000, '\0'));
    EXPECT_EQ(input.state, STATE_HANGUP);
    EXPECT_TRUE(log.Has("I Mixer_InputDataTrans:Process:EHOSTDOWN Last Frame:"));
    EXPECT_FALSE(input.Process());
    queue.reset();  // the input's share remains
    input.dataTrans.reset();
    EXPECT_FALSE(name.Exists());
}

TEST(InputDataTransHangUpTest, PausedInputNoticesTheClientHasGone) {
    ShmName name;
    DataTransWriter w;
    ASSERT_EQ(w.Create(name.c_str(), 2, kFrame, 48000, 2, 2), 0);
    boost::shared_ptr<DataTrans> queue(new DataTrans());
    ASSERT_EQ(queue->Init(name.c_str()), 0);
    InputDataTrans input(queue, 48000, 2, 2, "music");
    input.Pause();
    EXPECT_FALSE(input.Process());
    EXPECT_EQ(input.state, STATE_PAUSED);
    w.Close();
    EXPECT_FALSE(input.Process());
    EXPECT_EQ(input.state, STATE_HANGUP);
}

// A client process that stops or dies while it holds its queue's lock: the input never
// waits longer than its lock bound, and gives the client up as a hung-up client (robust
// locks) or after half a second of busy periods. The holder is a forked client thread
// that takes the queue's lock on request.
class InputDataTransLockTest : public ::testing::Test {
protected:
    // The client creates the queue and commits blocks; it is the only writer end, so
    // that its death leaves no writer behind.
    void Open(unsigned blkSize, const std::vector<std::vector<char> >& blocks) {
        LockingClient::Options o;
        o.create = true;
        o.numBlk = 2;
        o.blkSize = blkSize;
        for (const std::vector<char>& b : blocks) o.blocks.emplace_back(b.begin(), b.end());
        holder.reset(new LockingClient(name.str(), o));
        ASSERT_TRUE(holder->Ready());
        queue.reset(new DataTrans());
        ASSERT_EQ(queue->Init(name.c_str()), 0);
        input.reset(new InputDataTrans(queue, 48000, 2, 2, "music"));
    }
    static std::string FrameBytes(const boost::shared_ptr<AudioFrame>& f) { return std::string(f->data, f->size); }

    ShmName name;
    std::unique_ptr<LockingClient> holder;
    boost::shared_ptr<DataTrans> queue;
    std::unique_ptr<InputDataTrans> input;
};

TEST_F(InputDataTransLockTest, ClientKilledInsideTheLockEndsTheInput) {
    const std::vector<char> audio = Pattern(kFrame, 1);
    ASSERT_NO_FATAL_FAILURE(Open(kFrame, {audio}));
    ASSERT_TRUE(holder->Lock());
    holder->Kill();
    LogCapture log;
    if (test::RobustLocksAvailable()) {
        // The dead client's lock is repaired and its queue hung up: the queued frame
        // plays, then the input ends as for a client that closed.
        boost::shared_ptr<AudioFrame> f = input->Process();
        ASSERT_TRUE(f);
        EXPECT_EQ(FrameBytes(f), std::string(audio.begin(), audio.end()));
        EXPECT_FALSE(input->Process());
        EXPECT_EQ(input->state, STATE_HANGUP);
        EXPECT_TRUE(log.Has("E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + name.str() + ":"));
        EXPECT_TRUE(log.Has("I Mixer_InputDataTrans:Process:EHOSTDOWN Last Frame:"));
    } else {
        // Without robust locks (qemu-user) the lock stays taken for good: each period
        // costs the bound and yields nothing until the input gives the client up.
        for (unsigned i = 1; i < InputDataTrans::kMaxBusyPeriods; ++i) {
            ASSERT_FALSE(input->Process()) << i;
            ASSERT_EQ(input->state, STATE_ACTIVE) << i;
        }
        EXPECT_FALSE(input->Process());
        EXPECT_EQ(input->state, STATE_FAULT);
        EXPECT_TRUE(log.Has("E Mixer_InputDataTrans:Process:queue lock held for 500 ms, input faulted:"));
    }
}

TEST_F(InputDataTransLockTest, ClientStoppedHoldingTheLockFaultsTheInputAfterHalfASecond) {
    ASSERT_NO_FATAL_FAILURE(Open(kFrame, {Pattern(kFrame, 1)}));
    input->Drain();
    ASSERT_TRUE(holder->Lock());
    ASSERT_TRUE(holder->Stop());
    LogCapture log;
    // A busy period is neither an empty queue (the drain does not end, no gap is
    // counted) nor a failure yet.
    for (unsigned i = 1; i < InputDataTrans::kMaxBusyPeriods; ++i) {
        ASSERT_FALSE(input->Process()) << i;
        ASSERT_EQ(input->state, STATE_DRAINING) << i;
        ASSERT_EQ(input->eagainCount, 0u) << i;
    }
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    EXPECT_FALSE(input->Process());
    EXPECT_EQ(input->state, STATE_FAULT);
    EXPECT_EQ(log.Count("E Mixer_InputDataTrans:Process:queue lock held for 500 ms, input faulted:"), 1);
    EXPECT_EQ(input->GetCmd(), CMD_NONE);
    EXPECT_FALSE(input->Process());
    EXPECT_EQ(input->state, STATE_FAULT);  // final

    ASSERT_TRUE(holder->Continue());
    ASSERT_TRUE(holder->Unlock());
    EXPECT_EQ(holder->Finish(), 0);
}

TEST_F(InputDataTransLockTest, ReleaseThatMetABusyLockIsRetriedAndTheBlockIsNotLost) {
    const std::vector<char> av = Pattern(kFrame + 1000, 1), bv = Pattern(kFrame, 2);
    const std::string a(av.begin(), av.end()), b(bv.begin(), bv.end());
    ASSERT_NO_FATAL_FAILURE(Open(kFrame + 1000, {av, bv}));
    LogCapture log;
    boost::shared_ptr<AudioFrame> f = input->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(FrameBytes(f), a.substr(0, kFrame));

    // The rest of the held block needs no lock; its release does, and meets the client.
    ASSERT_TRUE(holder->Lock());
    f = input->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(FrameBytes(f), a.substr(kFrame) + std::string(kFrame - 1000, '\0'));
    EXPECT_TRUE(input->releasePending);
    EXPECT_EQ(queue->GetNumBlkFree(), 0u);  // still the input's

    ASSERT_TRUE(holder->Unlock());
    f = input->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(FrameBytes(f), b);
    EXPECT_FALSE(input->releasePending);
    EXPECT_EQ(queue->GetNumBlkFree(), 2u);  // both given back, neither lost
    EXPECT_EQ(input->state, STATE_ACTIVE);
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    EXPECT_EQ(holder->Finish(), 0);
}

}  // namespace
}  // namespace mixer
