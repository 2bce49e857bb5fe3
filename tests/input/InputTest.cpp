// The inputs that read a client's shared memory: the block queue (InputDataTrans), and
// the platform's byte queue (InputShmQ) and message buffer (InputShmB) fed by a writer
// process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <tuple>

#include "mixer/input/InputDataTrans.h"
#include "mixer/input/InputShmB.h"
#include "mixer/input/InputShmQ.h"
#include "mixer/transport/DataTransWriter.h"
#include "shmbuf.h"
#include "shmq.h"
#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using namespace test;
typedef std::vector<std::string> Lines;
typedef boost::shared_ptr<AudioFrame> Frame;
const unsigned kFrame = 3840;  // 20 ms of 48 kHz stereo 16-bit

// n bytes of test signal; seed 0 is silence.
std::string Pattern(size_t n, unsigned seed) {
    std::string v(n, '\0');
    for (size_t i = 0; i < n && seed != 0; ++i) v[i] = static_cast<char>(seed * 31 + i * 7 + 1);
    return v;
}
std::string Bytes(const Frame& f) { return f ? std::string(f->data, f->size) : "none"; }
// The captured lines of one component (its tag), in order.
Lines Of(const LogCapture& log, const std::string& tag) {
    Lines own;
    for (const std::string& l : log.Lines()) if (l.find(" " + tag + ":") == 1) own.push_back(l);
    return own;
}

// A client's queue written in this process and the input reading it through a mapping
// of its own.
struct Client {
    Client(unsigned numBlk, unsigned blkSize) {
        EXPECT_EQ(writer.Create(name.c_str(), numBlk, blkSize, 48000, 2, 2), 0);
        EXPECT_EQ(queue->Init(name.c_str()), 0);
        input.reset(new InputDataTrans(queue, 48000, 2, 2, "music"));
    }
    void Put(const std::string& bytes, const char* id = nullptr) { EXPECT_EQ(writer.Write(bytes.data(), bytes.size(), id, 0), 0); }
    ShmName name;
    DataTransWriter writer;
    boost::shared_ptr<DataTrans> queue{new DataTrans()};
    std::unique_ptr<InputDataTrans> input;
};

// Blocks of any size (ids b0, b1, ...) come out as 20-ms frames of their bytes in order,
// the last padded with silence, each with the ids of the blocks it drew from; every byte
// copied out is taken off the queue's count, and every block is given back.
TEST(InputDataTransTest, FramesAreCutFromBlocksOfAnySize) {
    const struct {
        unsigned numBlk, blkSize;
        Lines ids;
    } cases[] = {{1, kFrame, {"b0"}}, {8, 1000, {"b0 b1 b2 b3", "b3 b4 b5 b6 b7", "b7"}}, {1, 6000, {"b0", "b0"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.blkSize);
        Client q(c.numBlk, c.blkSize);
        EXPECT_EQ(q.input->name, q.name.str());
        std::string all;
        for (unsigned k = 0; k < c.numBlk; ++k) {
            all += Pattern(c.blkSize, k + 1);
            q.Put(Pattern(c.blkSize, k + 1), ("b" + std::to_string(k)).c_str());
        }
        LogCapture log;
        for (size_t f = 0; f < c.ids.size(); ++f) {
            const Frame frame = q.input->Process();
            std::string want = all.substr(f * kFrame, kFrame);
            want.resize(kFrame, '\0');
            EXPECT_EQ(Bytes(frame), want) << f;
            EXPECT_STREQ(frame ? frame->bufId : "", c.ids[f].c_str());
            EXPECT_EQ(q.queue->AddCount(0), all.size() - std::min(all.size(), (f + 1) * kFrame));
        }
        EXPECT_FALSE(q.input->Process());
        EXPECT_TRUE(q.input->readPtr == nullptr && q.input->blockLeft == 0 && q.input->bufId[0] == 0);
        EXPECT_EQ(q.queue->GetNumBlkFree(), c.numBlk);
        EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), Lines{"D Mixer_InputDataTrans:Process:EAGAIN:Start"});
    }
}

TEST(InputDataTransTest, GapIsReportedOnlyAfterMoreThanFifteenEmptyPeriods) {
    Client q(4, kFrame);
    LogCapture log;
    for (unsigned gap : {15, 16, 20}) {
        for (unsigned i = 0; i < gap; ++i) EXPECT_FALSE(q.input->Process());
        EXPECT_EQ(q.input->eagainCount, gap);
        q.Put(Pattern(kFrame, gap));
        EXPECT_TRUE(q.input->Process());
        EXPECT_EQ(q.input->eagainCount, 0u);
    }
    const std::string start = "D Mixer_InputDataTrans:Process:EAGAIN:Start", stop = "I Mixer_InputDataTrans:Process:EAGAIN:Stop ";
    EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), (Lines{start, start, stop + "320 ms", start, stop + "400 ms"}));
}

// A pausing input plays its delay out in 20-ms frames and pauses in the frame that ends it.
TEST(InputDataTransTest, PauseDelayEndsInTheFrameThatUsesItUp) {
    for (auto c : {std::make_pair(250u, 13u), {240, 12}, {21, 2}, {20, 1}}) {
        SCOPED_TRACE(c.first);
        Client q(16, kFrame);
        for (unsigned k = 0; k < 16; ++k) q.Put(Pattern(kFrame, k + 1));
        q.input->PauseDelay(c.first);
        unsigned frames = 0;
        for (; q.input->state == STATE_PAUSING && frames < 16; ++frames) {
            ASSERT_TRUE(q.input->Process());
            EXPECT_EQ(q.input->pauseDelayMs, q.input->state == STATE_PAUSING ? c.first - 20 * (frames + 1) : 0);
        }
        EXPECT_EQ(frames, c.second);
        EXPECT_EQ(q.input->state, STATE_PAUSED);
        EXPECT_FALSE(q.input->Process());
        EXPECT_EQ(q.queue->GetNumBlkReady(), 16 - frames);
    }
}

TEST(InputDataTransTest, StateOperationsFollowTheTable) {
    Client q(2, kFrame);
    InputDataTrans& in = *q.input;
    const tInOutState A = STATE_ACTIVE, D = STATE_DRAINING, P = STATE_PAUSING, Pd = STATE_PAUSED, H = STATE_HANGUP,
                      F = STATE_FAULT, S = STATE_STOPPED;
    const struct {
        void (*apply)(InputDataTrans&);
        tInOutState to[7];  // indexed by the starting state
    } rows[] = {
        {[](InputDataTrans& i) { i.PauseDelay(40); }, {P, P, P, Pd, H, F, S}},
        {[](InputDataTrans& i) { i.PauseDelay(0); }, {Pd, Pd, Pd, Pd, H, F, S}},
        {[](InputDataTrans& i) { i.Pause(); }, {Pd, Pd, Pd, Pd, H, F, S}},
        {[](InputDataTrans& i) { i.Drain(); }, {D, D, D, Pd, H, F, S}},
        {[](InputDataTrans& i) { i.Flush(); }, {Pd, Pd, Pd, Pd, H, F, S}},
        {[](InputDataTrans& i) { i.Resume(); }, {A, A, A, A, H, F, A}},
        {[](InputDataTrans& i) { i.Stop(); }, {S, S, S, S, S, S, S}},
    };
    for (unsigned r = 0; r < 7; ++r)
        for (unsigned from = 0; from < 7; ++from) {
            in.state = static_cast<tInOutState>(from);
            rows[r].apply(in);
            EXPECT_EQ(in.state, rows[r].to[from]) << "row " << r << " from " << from;
        }
    // Stop refuses the client's writes; Resume lets them in again.
    int err;
    in.Stop();
    EXPECT_TRUE(!q.writer.Queue()->GetWriteBuff(err, 0) && err == EAGAIN);
    in.Resume();
    // A drain plays what is queued, then pauses at the first empty period.
    q.Put(Pattern(kFrame, 1));
    in.Drain();
    EXPECT_TRUE(in.Process() && in.state == STATE_DRAINING);
    EXPECT_TRUE(!in.Process() && in.state == STATE_PAUSED && in.eagainCount == 1);
    // Paused, the input still notices that the client has gone.
    q.writer.Close();
    EXPECT_TRUE(!in.Process() && in.state == STATE_HANGUP);
}

TEST(InputDataTransTest, FlushDropsTheHeldBlockAndTheQueue) {
    Client q(3, 6000);
    for (unsigned k = 0; k < 3; ++k) q.Put(Pattern(6000, k + 1));
    ASSERT_TRUE(q.input->Process());
    q.input->Flush();
    EXPECT_TRUE(q.input->state == STATE_PAUSED && q.input->blockLeft == 0 && q.input->readPtr == nullptr);
    EXPECT_EQ(std::make_pair(q.queue->GetNumBlkFree(), q.queue->GetNumBlkReady()), std::make_pair(3u, 0u));
    EXPECT_EQ(q.queue->AddCount(0), 0u);
    EXPECT_FALSE(q.input->Process());
}

TEST(InputDataTransTest, CorruptBlockFaultsTheInputForGood) {
    Client q(2, kFrame);
    int err;
    char* data = q.writer.Queue()->GetWriteBuff(err, 0);
    ASSERT_TRUE(data && q.writer.Queue()->CommitWriteBuff(kFrame, nullptr));
    reinterpret_cast<BlockTail*>(data + kFrame)->check = 0;  // the tail follows the data; a client damages it
    LogCapture log;
    EXPECT_TRUE(!q.input->Process() && q.input->state == STATE_FAULT);
    EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), Lines{"I Mixer_InputDataTrans:Process:EFAULT:"});
    q.input->Resume(), q.input->Flush();
    EXPECT_EQ(q.input->state, STATE_FAULT);
}

TEST(InputDataTransTest, UnknownCommandsAreNeitherHandledNorAcknowledged) {
    Client q(2, kFrame);
    LogCapture log;
    EXPECT_EQ(q.input->HandleCmd(static_cast<tInOutCmd>(3)) + q.input->HandleCmd(CMD_NONE), 2);
    EXPECT_EQ(q.input->HandleCmd(CMD_PAUSE), 0);  // the engine has paused the input itself
    EXPECT_EQ(q.input->state, STATE_ACTIVE);
    EXPECT_EQ(Of(log, "def:Mixer_DataTrans"), Lines{"I def:Mixer_DataTrans:CmdExecuted:cmd = 1, signal = 0"});
    InputDataTrans without(boost::shared_ptr<DataTrans>(), 48000, 2, 2, "none");
    EXPECT_TRUE(without.HandleCmd(CMD_PAUSE) == 1 && without.GetCmd() == CMD_NONE);
}

// A client process sends its commands; the input carries them out and acknowledges each,
// plays what is queued while stopped, and delivers the last frames after the client left.
TEST(InputDataTransProcessTest, ClientCommandsAndDeparture) {
    ShmName name;
    Pipe ready, done;
    LogCapture log;
    const std::string audio = Pattern(2 * kFrame + 1000, 9);
    ChildProcess client([&] {
        DataTransWriter w;
        CHILD_CHECK(w.Create(name.c_str(), 4, kFrame, 48000, 2, 2) == 0 && w.Write(audio.data(), audio.size(), "x", 0) == 0);
        ready.Send();
        for (tInOutCmd c : {CMD_DRAIN, CMD_RESUME, CMD_STOP}) w.SendCmd(c);
        CHILD_CHECK(log.CountPrefix("E def:Mixer_DataTrans:SetCmd:cond wait error") == 0);
        CHILD_CHECK(w.Write(audio.data(), 10, nullptr, 0) == EAGAIN && done.Receive() == '.');  // stopped
        return 0;
    });
    ASSERT_EQ(ready.Receive(), '.');
    boost::shared_ptr<DataTrans> queue(new DataTrans());
    ASSERT_EQ(queue->Init(name.c_str()), 0);
    InputDataTrans input(queue, 48000, 2, 2, "music");
    const tInOutState after[] = {STATE_DRAINING, STATE_ACTIVE, STATE_STOPPED};
    int i = 0;
    for (tInOutCmd c : {CMD_DRAIN, CMD_RESUME, CMD_STOP}) {
        tInOutCmd got;  // the client is inside SetCmd: its command shows up in the slot
        for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
             (got = input.GetCmd()) == CMD_NONE && std::chrono::steady_clock::now() < end;)
            std::this_thread::yield();
        ASSERT_EQ(got, c);
        EXPECT_EQ(input.HandleCmd(c), 0);
        EXPECT_EQ(input.state, after[i++]);
    }
    EXPECT_EQ(Bytes(input.Process()), audio.substr(0, kFrame));  // a stopped input still plays
    done.Send();
    EXPECT_EQ(client.Wait(), 0);
    log.Clear();
    EXPECT_EQ(Bytes(input.Process()), audio.substr(kFrame, kFrame));
    EXPECT_EQ(input.state, STATE_STOPPED);
    // The last 1,000 bytes come padded with silence, together with the hang-up.
    EXPECT_EQ(Bytes(input.Process()), audio.substr(2 * kFrame) + std::string(kFrame - 1000, '\0'));
    EXPECT_EQ(input.state, STATE_HANGUP);
    EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), Lines{"I Mixer_InputDataTrans:Process:EHOSTDOWN Last Frame:"});
    EXPECT_FALSE(input.Process());
    queue.reset();  // the input's share remains
    EXPECT_TRUE(name.Exists());
    input.dataTrans.reset();
    EXPECT_FALSE(name.Exists());
}

// A client process that stops or dies while it holds its queue's lock: the input never
// waits longer than its lock bound, and gives the client up as a hung-up client (robust
// locks) or after half a second of busy periods.
struct Holder {
    Holder(unsigned blkSize, const std::vector<std::string>& blocks) : client(name.str(), {true, 2, blkSize, false, blocks}) {
        EXPECT_TRUE(client.Ready());
        EXPECT_EQ(queue->Init(name.c_str()), 0);
        input.reset(new InputDataTrans(queue, 48000, 2, 2, "music"));
    }
    ShmName name;
    LockingClient client;  // the only writer end: its death leaves none behind
    boost::shared_ptr<DataTrans> queue{new DataTrans()};
    std::unique_ptr<InputDataTrans> input;
};

// Periods in which the lock is busy until the input faults: neither an empty queue (a
// drain does not end, no gap is counted) nor a failure before the last.
void BusyUntilFault(InputDataTrans& in, tInOutState state) {
    LogCapture log;
    for (unsigned i = 1; i < InputDataTrans::kMaxBusyPeriods; ++i) {
        ASSERT_FALSE(in.Process()) << i;
        ASSERT_TRUE(in.state == state && in.eagainCount == 0) << i;
    }
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    EXPECT_TRUE(!in.Process() && in.state == STATE_FAULT);
    EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), Lines{"E Mixer_InputDataTrans:Process:queue lock held for 500 ms, input faulted:"});
}

TEST(InputDataTransLockTest, ClientKilledInsideTheLockEndsTheInput) {
    Holder h(kFrame, {Pattern(kFrame, 1)});
    ASSERT_TRUE(h.client.Lock());
    h.client.Kill();
    if (!RobustLocksAvailable()) return BusyUntilFault(*h.input, STATE_ACTIVE);  // qemu-user: the lock stays taken
    // The dead client's lock is repaired and its queue hung up: the queued frame plays,
    // then the input ends as for a client that closed.
    LogCapture log;
    EXPECT_EQ(Bytes(h.input->Process()), Pattern(kFrame, 1));
    EXPECT_TRUE(!h.input->Process() && h.input->state == STATE_HANGUP);
    EXPECT_TRUE(log.Has("E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + h.name.str() + ":"));
    EXPECT_TRUE(log.Has("I Mixer_InputDataTrans:Process:EHOSTDOWN Last Frame:"));
}

TEST(InputDataTransLockTest, ClientStoppedHoldingTheLockFaultsTheInputAfterHalfASecond) {
    Holder h(kFrame, {Pattern(kFrame, 1)});
    h.input->Drain();
    ASSERT_TRUE(h.client.Lock() && h.client.Stop());
    BusyUntilFault(*h.input, STATE_DRAINING);
    EXPECT_EQ(h.input->GetCmd(), CMD_NONE);
    EXPECT_TRUE(!h.input->Process() && h.input->state == STATE_FAULT);  // final
    ASSERT_TRUE(h.client.Continue() && h.client.Unlock());
    EXPECT_EQ(h.client.Finish(), 0);
}

TEST(InputDataTransLockTest, ReleaseThatMetABusyLockIsRetriedAndTheBlockIsNotLost) {
    const std::string a = Pattern(kFrame + 1000, 1), b = Pattern(kFrame, 2);
    Holder h(kFrame + 1000, {a, b});
    LogCapture log;
    EXPECT_EQ(Bytes(h.input->Process()), a.substr(0, kFrame));
    // The rest of the held block needs no lock; its release does, and meets the client.
    ASSERT_TRUE(h.client.Lock());
    EXPECT_EQ(Bytes(h.input->Process()), a.substr(kFrame) + std::string(kFrame - 1000, '\0'));
    EXPECT_TRUE(h.input->releasePending);
    EXPECT_EQ(h.queue->GetNumBlkFree(), 0u);  // still the input's
    ASSERT_TRUE(h.client.Unlock());
    EXPECT_EQ(Bytes(h.input->Process()), b);
    EXPECT_FALSE(h.input->releasePending);
    EXPECT_EQ(h.queue->GetNumBlkFree(), 2u);  // both given back, neither lost
    EXPECT_EQ(h.input->state, STATE_ACTIVE);
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    EXPECT_EQ(h.client.Finish(), 0);
}

// A writer process owning the writing side of a platform byte queue (msgSize 0) or
// message buffer; each call returns the writer's result once it has done the step.
class Feeder {
public:
    Feeder(const std::string& name, uint32_t msgSize, uint32_t capacity) : msgSize_(msgSize), child_([=] { return Run(name, capacity); }) {
        int ok = 0;
        EXPECT_TRUE(done_.Wait(&ok) && ok == 1);
    }
    ~Feeder() { todo_.Post(-1); }  // the child leaves; its destructor reaps it
    // count bytes (queue) or messages (buffer) of Pattern(seed).
    int Write(int count, int seed) { return Send(count, seed); }
    int HangUp() { return Send(0, -1); }

private:
    int Send(int count, int seed) {
        int result = -99;
        return todo_.Post(count) && todo_.Post(seed) && done_.Wait(&result) ? result : -99;
    }
    int Run(const std::string& name, uint32_t capacity) {
        ShmQHandle* q = msgSize_ == 0 ? ShmQCreate(name.c_str(), int32_t(capacity)) : nullptr;
        ShmbufHandle* b = msgSize_ != 0 ? ShmbufCreate(name.c_str(), msgSize_, capacity) : nullptr;
        done_.Post(q != nullptr || b != nullptr);
        for (int count = 0, seed = 0; todo_.Wait(&count) && count >= 0 && todo_.Wait(&seed);) {
            const std::string data = Pattern((msgSize_ ? msgSize_ : 1) * count, seed);
            if (seed < 0) done_.Post(q ? ShmQHangUp(q) : ShmbufHangUp(b));
            else done_.Post(q ? ShmQWrite(q, data.data(), count, 0) : ShmbufWrite(b, data.data(), count, 0));
        }
        ShmQClose(q);
        ShmbufClose(b);
        return 0;
    }
    uint32_t msgSize_;
    Pipe todo_, done_;
    ChildProcess child_;  // last: starts once the pipes exist
};

TEST(InputShmQTest, MissingQueueIsAFaultForGood) {
    ShmName name("none");
    LogCapture log;
    InputShmQ in(name.str(), 48000, 2, 2, "music");
    in.Pause(), in.Resume();
    EXPECT_TRUE(in.state == STATE_FAULT && !in.Process());
    EXPECT_EQ(log.Lines(), (Lines{"I Input:Const:r 48000 n 2 music:", "E Mixer_InputShmQ:Contructor:Failed to open " + name.str() + ":"}));
}

// Short periods leave a partial frame queued; silent frames are taken and dropped; the
// end of the queued frames shows the hang-up.
TEST(InputShmQTest, PartialFramesWaitSilenceIsDroppedAndHangUpEnds) {
    ShmName name("shmq");
    Feeder feeder(name.str(), 0, 4 * kFrame);
    InputShmQ in(name.str(), 48000, 2, 2, "music");
    ASSERT_EQ(in.state, STATE_ACTIVE);
    LogCapture log;
    ASSERT_EQ(feeder.Write(kFrame - 1, 7), int(kFrame - 1));
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(in.Process());
    ASSERT_EQ(feeder.Write(1, 9), 1);  // completes the frame left in the queue
    EXPECT_EQ(Bytes(in.Process()), Pattern(kFrame - 1, 7) + Pattern(1, 9));
    EXPECT_EQ(in.underflowCount, 0);
    ASSERT_EQ(feeder.Write(kFrame, 0) + feeder.Write(2 * kFrame - 1, 0) + feeder.Write(1, 5), int(3 * kFrame));
    EXPECT_FALSE(in.Process());
    EXPECT_FALSE(in.Process());
    const Frame f = in.Process();  // the zeros were taken: this frame ends in the loud byte
    EXPECT_TRUE(f && f->data[kFrame - 1] != 0);
    ASSERT_EQ(feeder.Write(kFrame + 100, 2), int(kFrame + 100));
    ASSERT_EQ(feeder.HangUp(), 0);
    EXPECT_TRUE(in.Process());
    EXPECT_FALSE(in.Process());  // 100 bytes are not a frame, and no more will come
    in.Resume();
    EXPECT_EQ(in.state, STATE_HANGUP);
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmQ:Process:EAGAIN:Start", "I Mixer_InputShmQ:Process:EAGAIN:Stop 100 ms",
                                  "I Mixer_InputShmQ:Process:shmQ:hangup"}));
}

TEST(InputShmQTest, ThousandAndOneUnderflowsInARowHangUpDespitePauseAndResume) {
    ShmName name("shmq");
    Feeder feeder(name.str(), 0, 4 * kFrame);
    InputShmQ in(name.str(), 48000, 2, 2, "music");
    LogCapture log;
    for (int i = 0; i < 500; ++i) in.Process();
    in.Pause();  // a paused input reads nothing and counts nothing; resuming keeps the count
    EXPECT_TRUE(in.state == STATE_PAUSED && !in.Process());
    in.Resume();
    EXPECT_EQ(in.underflowCount, 500);
    for (int i = 0; i < 500; ++i) in.Process();
    EXPECT_EQ(in.state, STATE_ACTIVE);
    EXPECT_TRUE(!in.Process() && in.state == STATE_HANGUP);
    EXPECT_EQ(log.Lines(), (Lines{"I Mixer_InputShmQ:Process:EAGAIN:Start", "I Mixer_InputShmQ:Process:Too many underflow frames in a row:"}));
    ASSERT_EQ(feeder.Write(kFrame, 1), int(kFrame));
    EXPECT_FALSE(in.Process());  // too late
}

TEST(InputShmBTest, MissingBufferIsAFaultForGood) {
    ShmName name("none");
    LogCapture log;
    InputShmB in(name.str(), 48000, 2, 2, "speech");
    in.Resume();
    EXPECT_TRUE(in.state == STATE_FAULT && !in.Process());
    EXPECT_EQ(log.Lines(), (Lines{"I Input:Const:r 48000 n 2 speech:", "E Mixer_InputShmB:Constructor:Failed to open " + name.str() + ":"}));
}

TEST(InputShmBTest, OpenAndCloseAreLoggedAndReadingStartsWithTheNextMessage) {
    ShmName name("shmb");
    Feeder feeder(name.str(), kFrame, 4);
    LogCapture log;
    ASSERT_EQ(feeder.Write(1, 4), 1);
    std::unique_ptr<InputShmB> in(new InputShmB(name.str(), 48000, 2, 2, "speech"));
    EXPECT_EQ(in->msgSize, int(kFrame));
    EXPECT_FALSE(in->Process());
    in.reset();
    EXPECT_EQ(Of(log, "Mixer_InputShmB"), (Lines{"I Mixer_InputShmB:Constructor:" + name.str() + " Opened:", "I Mixer_InputShmB:Process:EAGAIN:Start",
                                                 "I Mixer_InputShmB:Destructor:" + name.str() + " Closed:"}));
}

// Each case: a buffer of messages of msgSize, steps on it, the input's state at the end
// and the input's log lines. Steps: 'w' the writer writes n messages of a seed, 'h' it
// hangs up, 'p' and 'r' pause and resume the input, 'P' n periods that each yield a
// frame beginning with head ("none": no frame).
TEST(InputShmBTest, MessagesMakeFramesAndShortReadsArePaddedOrEnd) {
    const std::string I = "I Mixer_InputShmB:Process:", none = "none";
    const struct {
        uint32_t msgSize, numMsgs;
        bool blocking;
        std::vector<std::tuple<char, int, int, std::string>> steps;  // op, n, seed, head
        tInOutState end;
        Lines log;
    } cases[] = {
        // Underflows end with the gap's length; a silent frame is taken and dropped.
        {kFrame, 4, false, {{'P', 3, 0, none}, {'w', 1, 0, ""}, {'w', 1, 2, ""}, {'P', 1, 0, none}, {'P', 1, 0, Pattern(kFrame, 2)}},
         STATE_ACTIVE, {I + "EAGAIN:Start", I + "EAGAIN:Stop 60 ms"}},
        // 960 messages make a frame. Kept so: 100 read 400 bytes and 960 - 400 are
        // cleared; 500 read 2,000 bytes and 960 - 2,000 clears nothing.
        {4, 2000, false, {{'w', 100, 6, ""}, {'P', 1, 0, Pattern(400, 6) + std::string(560, '\0')}, {'w', 500, 7, ""}, {'P', 1, 0, Pattern(2000, 7)}},
         STATE_ACTIVE, {I + "EAGAIN:Start", "E Mixer_InputShmB:Process:Read 2000 for 960!!:"}},
        // One-byte messages are padded; the 1,001st short read in a row hangs up and
        // still yields what it read.
        {1, 2 * kFrame, false,
         {{'w', 1000, 9, ""}, {'P', 1, 0, Pattern(1000, 9) + std::string(kFrame - 1000, '\0')}, {'P', 999, 0, none},
          {'w', 10, 3, ""}, {'P', 1, 0, Pattern(10, 3)}, {'r', 0, 0, ""}, {'P', 1, 0, none}},
         STATE_HANGUP, {I + "EAGAIN:Start", I + "Too many underflow frames in a row:"}},
        // Resuming clears the count and skips what came while paused.
        {kFrame, 4, false, {{'P', 3, 0, none}, {'p', 0, 0, ""}, {'w', 1, 1, ""}, {'P', 1, 0, none}, {'r', 0, 0, ""}, {'w', 1, 2, ""},
                            {'P', 1, 0, Pattern(kFrame, 2)}},
         STATE_ACTIVE, {I + "EAGAIN:Start"}},
        // A blocking read takes whole frames, silent ones too; a short one is the end.
        {4, 2000, true, {{'w', 960, 0, ""}, {'P', 1, 0, std::string(kFrame, '\0')}, {'w', 10, 1, ""}, {'h', 0, 0, ""}, {'P', 1, 0, none}},
         STATE_HANGUP, {"W Mixer_InputShmB:Process:Read 10 for 960!!:"}},
        {2 * kFrame, 2, false, {{'w', 1, 3, ""}, {'P', 1, 0, none}}, STATE_FAULT,
         {"E Mixer_InputShmB:Process:Message size 7680 above frame size 3840:"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.msgSize);
        ShmName name("shmb");
        Feeder feeder(name.str(), c.msgSize, c.numMsgs);
        InputShmB in(name.str(), 48000, 2, 2, "speech");
        in.blocking = c.blocking;
        LogCapture log;
        for (const auto& step : c.steps) {
            const int n = std::get<1>(step);
            const std::string& head = std::get<3>(step);
            switch (std::get<0>(step)) {
                case 'w': ASSERT_EQ(feeder.Write(n, std::get<2>(step)), n); break;
                case 'h': ASSERT_EQ(feeder.HangUp(), 0); break;
                case 'p': in.Pause(); break;
                case 'r': in.Resume(); break;
                default:
                    for (int i = 0; i < n; ++i) EXPECT_EQ(Bytes(in.Process()).substr(0, head.size()), head) << i;
            }
        }
        EXPECT_EQ(in.state, c.end);
        EXPECT_EQ(log.Lines(), c.log);
    }
}

// The smallest concrete input: only the pure operation is supplied.
struct BareInput : Input {
    BareInput(unsigned rate_, unsigned numCh_) : Input(rate_, numCh_, 2, "music") {}
    void Pause() override { ++pauses; }
    int pauses = 0;
};

TEST(InputTest, DefaultsAndStateNames) {
    LogCapture log;
    BareInput in(44100, 2), bad(0, 12);  // out of range: 48 kHz mono instead
    EXPECT_EQ(log.Lines(), (Lines{"I Input:Const:r 44100 n 2 music:", "I Input:Const:r 0 n 12 music:", "W Input:Input:rate 0 -> 48000:",
                                  "W Input:Input:numCh 12 -> 1:"}));
    EXPECT_EQ((std::vector<uint32_t>{in.rate, in.numCh, in.sampleSize, in.priority, bad.rate, bad.numCh}),
              (std::vector<uint32_t>{44100, 2, 2, 0, 48000, 1}));
    EXPECT_TRUE(in.state == STATE_PAUSED && !in.blocking && !in.Process() && in.GetCmd() == CMD_NONE && in.HandleCmd(CMD_PAUSE) == 0);
    in.Resume(), in.Drain(), in.Flush();
    EXPECT_TRUE(in.state == STATE_PAUSED && in.pauses == 0);
    in.PauseDelay(250);  // ignores the delay and pauses through the virtual slot
    EXPECT_EQ(in.pauses, 1);
    std::string names;
    for (int s : {0, 1, 2, 3, 4, 5, 6, 1234}) names += MixerIO::GetStateStr(static_cast<tInOutState>(s)) + ",";
    EXPECT_EQ(names, "Active,Draining,Pausing,Paused,Hangup,Fault,Unknown,Unknown,");  // Stopped has no name of its own
    EXPECT_EQ(&MixerIO::GetStateStr(STATE_FAULT), &MixerIO::GetStateStr(STATE_FAULT));  // callers may keep the reference
}

}  // namespace
}  // namespace mixer
