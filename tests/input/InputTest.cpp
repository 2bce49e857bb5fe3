// The inputs that read a client's shared memory: the block queue (InputDataTrans), and
// the platform's byte queue (InputShmQ) and message buffer (InputShmB) fed by a writer.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <chrono>
#include <memory>
#include <thread>
#include <tuple>
#include "mixer/input/InputDataTrans.h"
#include "mixer/input/InputShmB.h"
#include "mixer/input/InputShmQ.h"
#include "mixer/transport/ClientMappings.h"
#include "mixer/transport/DataTransWriter.h"
#include "platform/common/shm_ring.h"
#include "shmbuf.h"
#include "shmq.h"
#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"
#include "tests/support/ShrinkProbe.h"
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

// A client's queue written in this process, read by the input through a mapping of its own.
struct Client {
    Client(unsigned numBlk, unsigned blkSize) {
        EXPECT_EQ(writer.Create(name.c_str(), numBlk, blkSize, 48000, 2, 2), 0);
        EXPECT_EQ(queue->Init(name.c_str()), 0);
        input.reset(new InputDataTrans(queue, 48000, 2, 2, "music"));
    }
    void Put(const std::string& b, const char* id = nullptr) { EXPECT_EQ(writer.Write(b.data(), b.size(), id, 0), 0); }
    ShmName name;
    DataTransWriter writer;
    boost::shared_ptr<DataTrans> queue{new DataTrans()};
    std::unique_ptr<InputDataTrans> input;
};

// Blocks of any size come out as 20-ms frames of their bytes, the last padded with
// silence, with the ids of the blocks each drew from; counted off, every block given back.
TEST(InputDataTransTest, FramesAreCutFromBlocksOfAnySize) {
    const struct { unsigned numBlk, blkSize; Lines ids; } cases[] = {{1, kFrame, {"b0"}}, {8, 1000, {"b0 b1 b2 b3", "b3 b4 b5 b6 b7", "b7"}}, {1, 6000, {"b0", "b0"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.blkSize);
        Client q(c.numBlk, c.blkSize);
        std::string all;
        for (unsigned k = 0; k < c.numBlk; ++k) {
            all += Pattern(c.blkSize, k + 1);
            q.Put(Pattern(c.blkSize, k + 1), ("b" + std::to_string(k)).c_str());
        }
        LogCapture log;
        for (size_t f = 0; f < c.ids.size(); ++f) {
            const Frame frame = q.input->Process();
            const std::string want = (all + std::string(kFrame, '\0')).substr(f * kFrame, kFrame);
            EXPECT_EQ(Bytes(frame), want) << f;
            EXPECT_STREQ(frame ? frame->bufId : "", c.ids[f].c_str());
            EXPECT_EQ(q.queue->AddCount(0), all.size() - std::min(all.size(), (f + 1) * kFrame));
        }
        EXPECT_FALSE(q.input->Process() || q.input->readPtr || q.input->blockLeft || q.input->bufId[0]);
        EXPECT_EQ(q.queue->GetNumBlkFree(), c.numBlk);
        EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), Lines{"D Mixer_InputDataTrans:Process:EAGAIN:Start"});
    }
}

// A format out of range is replaced by one the engine can mix; the limits themselves hold.
TEST(InputTest, OutOfRangeFormatIsReplaced) {
    const struct { unsigned rate, numCh, wantRate, wantCh; } cases[] = {
        {0, 0, 48000, 1}, {96001, 11, 48000, 1}, {96000, 10, 96000, 10}, {8000, 1, 8000, 1}};
    for (const auto& c : cases) {
        const InputDataTrans in(boost::shared_ptr<DataTrans>(), c.rate, c.numCh, 2, "x");
        EXPECT_TRUE(in.rate == c.wantRate && in.numCh == c.wantCh) << c.rate << " " << c.numCh;
    }
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
        EXPECT_TRUE(frames == c.second && q.input->state == STATE_PAUSED) << frames;
        EXPECT_FALSE(q.input->Process());
        EXPECT_EQ(q.queue->GetNumBlkReady(), 16 - frames);
    }
}

TEST(InputDataTransTest, StateOperationsFollowTheTable) {
    Client q(2, kFrame);
    InputDataTrans& in = *q.input;
    const tInOutState A = STATE_ACTIVE, D = STATE_DRAINING, P = STATE_PAUSING, Pd = STATE_PAUSED, H = STATE_HANGUP,
                      F = STATE_FAULT, S = STATE_STOPPED;
    const struct { void (*apply)(InputDataTrans&); tInOutState to[7]; } rows[] = {  // to: by the starting state
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
    in.Stop();
    EXPECT_EQ(q.writer.Write("x", 1, nullptr, 0), EAGAIN);
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

// A flush in the middle of a block gives that block back and empties the queue.
TEST(InputDataTransTest, FlushDropsTheHeldBlockAndTheQueue) {
    Client q(3, 6000);
    for (unsigned k = 0; k < 3; ++k) q.Put(Pattern(6000, k));
    ASSERT_TRUE(q.input->Process() && q.input->blockLeft != 0);
    q.input->Flush();
    EXPECT_TRUE(q.input->state == STATE_PAUSED && q.input->blockLeft == 0 && q.input->readPtr == nullptr);
    EXPECT_TRUE(q.queue->GetNumBlkFree() == 3 && q.queue->GetNumBlkReady() == 0 && q.queue->AddCount(0) == 0);
    EXPECT_FALSE(q.input->Process());
}

// A client process's commands are carried out and acknowledged; a stopped input still
// plays, and delivers the last frames after the client left.
TEST(InputDataTransProcessTest, ClientCommandsAndDeparture) {
    ShmName name;
    Pipe ready, done;
    LogCapture log;
    const std::string audio = Pattern(2 * kFrame + 1000, 9);
    ChildProcess client([&] {
        DataTransWriter w;
        CHILD_CHECK(w.Create(name.c_str(), 4, kFrame, 48000, 2, 2) == 0);
        CHILD_CHECK(w.Write(audio.data(), audio.size(), "x", 0) == 0);
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
    for (auto c : {std::make_pair(CMD_DRAIN, STATE_DRAINING), {CMD_RESUME, STATE_ACTIVE}, {CMD_STOP, STATE_STOPPED}}) {
        tInOutCmd got;  // the client is inside SetCmd: its command shows up in the slot
        for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
             (got = input.GetCmd()) == CMD_NONE && std::chrono::steady_clock::now() < end;)
            std::this_thread::yield();
        ASSERT_EQ(got, c.first);
        EXPECT_EQ(input.HandleCmd(c.first), 0);
        EXPECT_EQ(input.state, c.second);
    }
    EXPECT_EQ(Bytes(input.Process()), audio.substr(0, kFrame));  // a stopped input still plays
    done.Send();
    EXPECT_EQ(client.Wait(), 0);
    log.Clear();
    EXPECT_TRUE(Bytes(input.Process()) == audio.substr(kFrame, kFrame) && input.state == STATE_STOPPED);
    // The last 1,000 bytes come padded with silence, together with the hang-up.
    EXPECT_EQ(Bytes(input.Process()), audio.substr(2 * kFrame) + std::string(kFrame - 1000, '\0'));
    EXPECT_TRUE(input.state == STATE_HANGUP && !input.Process());
    EXPECT_EQ(Of(log, "Mixer_InputDataTrans"), Lines{"I Mixer_InputDataTrans:Process:EHOSTDOWN Last Frame:"});
    queue.reset();  // the input's share remains
    EXPECT_TRUE(name.Exists());
    input.dataTrans.reset();
    EXPECT_FALSE(name.Exists());
}

// A client process holds the lock as the input gives back a block. (The playback suite
// has a client killed or stopped inside its lock.)
TEST(InputDataTransLockTest, ReleaseThatMetABusyLockIsRetriedAndTheBlockIsNotLost) {
    const std::string a = Pattern(kFrame + 1000, 1), b = Pattern(kFrame, 2);
    ShmName name;
    LockingClient client(name.str(), {true, 2, kFrame + 1000, false, {a, b}});
    boost::shared_ptr<DataTrans> queue(new DataTrans());
    ASSERT_TRUE(client.Ready() && queue->Init(name.c_str()) == 0);
    InputDataTrans in(queue, 48000, 2, 2, "music");
    LogCapture log;
    EXPECT_EQ(Bytes(in.Process()), a.substr(0, kFrame));
    // The rest of the held block needs no lock; its release does, and meets the client.
    ASSERT_TRUE(client.Lock());
    EXPECT_EQ(Bytes(in.Process()), a.substr(kFrame) + std::string(kFrame - 1000, '\0'));
    EXPECT_TRUE(in.releasePending && queue->GetNumBlkFree() == 0);  // still the input's
    ASSERT_TRUE(client.Unlock());
    EXPECT_EQ(Bytes(in.Process()), b);
    EXPECT_TRUE(!in.releasePending && queue->GetNumBlkFree() == 2u);  // both given back, neither lost
    EXPECT_EQ(log.CountPrefix("E "), 0) << log.Dump();
    // A lock held for 25 periods in a row faults the input, and not a period sooner.
    ASSERT_TRUE(client.Lock());
    unsigned periods = 0;
    while (in.state != STATE_FAULT && periods < 30) in.Process(), ++periods;
    EXPECT_EQ(periods, 25u);
    ASSERT_TRUE(client.Unlock());
    EXPECT_EQ(client.Finish(), 0);
}

// The writing side of a platform byte queue (msgSize 0) or message buffer.
struct Feeder {
    Feeder(const std::string& name, uint32_t msgSize_, uint32_t capacity) : msgSize(msgSize_) {
        if (msgSize) b = ShmbufCreate(name.c_str(), msgSize, capacity);
        else q = ShmQCreate(name.c_str(), int32_t(capacity));
        EXPECT_TRUE(q || b);
    }
    ~Feeder() { ShmQClose(q), ShmbufClose(b); }
    int Write(int count, int seed) {  // count bytes or messages of Pattern(seed)
        const std::string data = Pattern((msgSize ? msgSize : 1) * count, seed);
        return q ? ShmQWrite(q, data.data(), count, 0) : ShmbufWrite(b, data.data(), count, 0);
    }
    int HangUp() { return q ? ShmQHangUp(q) : ShmbufHangUp(b); }
    uint32_t msgSize;
    ShmQHandle* q = nullptr;
    ShmbufHandle* b = nullptr;
};

// Each case: a queue (msgSize 0) or a buffer of messages of msgSize, steps on it, the
// input's state at the end and its log. Steps: 'w' the writer writes n bytes or messages
// of a seed, 'h' it hangs up, 'p' and 'r' pause and resume the input, 'P' n periods that
// each yield a frame beginning with head ("none": no frame).
TEST(InputShmTest, BytesAndMessagesMakeFramesShortReadsArePaddedOrEnd) {
    const std::string Q = "I Mixer_InputShmQ:Process:", I = "I Mixer_InputShmB:Process:", none = "none";
    const struct {
        uint32_t msgSize, capacity;
        bool blocking;
        std::vector<std::tuple<char, int, int, std::string>> steps;  // op, n, seed, head
        tInOutState end;
        Lines log;
    } cases[] = {
        // Short periods leave a partial frame queued; silent frames are taken and dropped;
        // the end of the queued frames shows the hang-up.
        {0, 4 * kFrame, false,
         {{'w', kFrame - 1, 7, ""}, {'P', 5, 0, none}, {'w', 1, 9, ""},
          {'P', 1, 0, Pattern(kFrame - 1, 7) + Pattern(1, 9)}, {'w', kFrame, 0, ""}, {'w', 2 * kFrame - 1, 0, ""},
          {'w', 1, 5, ""}, {'P', 2, 0, none},
          {'P', 1, 0, std::string(kFrame - 1, '\0') + Pattern(1, 5)}, {'w', kFrame + 100, 2, ""}, {'h', 0, 0, ""},
          {'P', 1, 0, Pattern(kFrame, 2)}, {'P', 1, 0, none}, {'r', 0, 0, ""}},
         STATE_HANGUP, {Q + "EAGAIN:Start", Q + "EAGAIN:Stop 100 ms", Q + "shmQ:hangup"}},
        // The 1,001st underflow in a row hangs up; a pause neither counts nor clears.
        {0, 4 * kFrame, false,
         {{'P', 500, 0, none}, {'p', 0, 0, ""}, {'P', 1, 0, none}, {'r', 0, 0, ""}, {'P', 500, 0, none},
          {'w', kFrame, 1, ""}, {'P', 1, 0, Pattern(kFrame, 1)}, {'P', 1001, 0, none}},
         STATE_HANGUP, {Q + "EAGAIN:Start", Q + "EAGAIN:Stop 20000 ms", Q + "EAGAIN:Start",
                        Q + "Too many underflow frames in a row:"}},
        // Underflows end with the gap's length; a silent frame is taken and dropped.
        {kFrame, 4, false,
         {{'P', 3, 0, none}, {'w', 1, 0, ""}, {'w', 1, 2, ""}, {'P', 1, 0, none}, {'P', 1, 0, Pattern(kFrame, 2)}},
         STATE_ACTIVE, {I + "EAGAIN:Start", I + "EAGAIN:Stop 60 ms"}},
        // One-byte messages are padded; the 1,001st short read in a row hangs up and
        // still yields what it read.
        {1, 2 * kFrame, false,
         {{'w', 1000, 9, ""}, {'P', 1, 0, Pattern(1000, 9) + std::string(kFrame - 1000, '\0')}, {'P', 999, 0, none},
          {'w', 10, 3, ""}, {'P', 1, 0, Pattern(10, 3)}, {'r', 0, 0, ""}, {'P', 1, 0, none}},
         STATE_HANGUP, {I + "EAGAIN:Start", I + "Too many underflow frames in a row:"}},
        // Resuming clears the count and skips what came while paused.
        {kFrame, 4, false,
         {{'P', 3, 0, none}, {'p', 0, 0, ""}, {'w', 1, 1, ""}, {'P', 1, 0, none}, {'r', 0, 0, ""}, {'w', 1, 2, ""},
          {'P', 1, 0, Pattern(kFrame, 2)}}, STATE_ACTIVE, {I + "EAGAIN:Start"}},
        // A blocking read takes whole frames, silent ones too; a short one is the end.
        {4, 2000, true,
         {{'w', 960, 0, ""}, {'P', 1, 0, std::string(kFrame, '\0')}, {'w', 10, 1, ""}, {'h', 0, 0, ""}, {'P', 1, 0, none}},
         STATE_HANGUP, {"W Mixer_InputShmB:Process:Read 10 for 960!!:"}},
        {2 * kFrame, 2, false, {{'w', 1, 3, ""}, {'P', 1, 0, none}}, STATE_FAULT,
         {"E Mixer_InputShmB:Process:Message size 7680 above frame size 3840:"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.msgSize);
        ShmName name("shm");
        Feeder feeder(name.str(), c.msgSize, c.capacity);
        std::unique_ptr<Input> input(c.msgSize ? static_cast<Input*>(new InputShmB(name.str(), 48000, 2, 2, "speech"))
                                               : new InputShmQ(name.str(), 48000, 2, 2, "music"));
        Input& in = *input;
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

// A writer that breaks its buffer or queue after the input opened it (its message size
// 4 -> 7,680 bytes, capacity 0, a 2 GiB position, a fill above the capacity) or shrinks
// the object under it (at kShrink: to value bytes) costs its input alone: the input
// faults with one line within two periods, copies nothing past its frame, and this
// process lives on.
TEST(InputShmTest, BrokenOrShrunkSharedMemoryFaultsTheInput) {
    ASSERT_TRUE(ClientMappings::Install());
    const size_t kShrink = ~size_t(0);
    const struct { uint32_t msgSize; bool blocking; size_t at; uint32_t value; } cases[] = {
        {4, false, offsetof(ShmRingShared, unit), 2 * kFrame}, {4, true, offsetof(ShmRingShared, unit), 2 * kFrame},
        {0, false, offsetof(ShmRingShared, slots), 0}, {0, false, offsetof(ShmRingShared, readPos), 1u << 31},
        {kFrame, true, offsetof(ShmRingShared, writePos), 6}, {0, false, kShrink, 4096}, {4, true, kShrink, 4096},
        {kFrame, false, kShrink, 4096}};
    for (const auto& c : cases) {
        if (c.at == kShrink && !ShrinkSurvivable()) continue;
        SCOPED_TRACE(std::to_string(c.msgSize) + " " + std::to_string(c.at));
        ShmName name("bad");
        Feeder feeder(name.str(), c.msgSize, c.msgSize ? 4 * kFrame / c.msgSize : 4 * kFrame);
        std::unique_ptr<Input> input(c.msgSize ? static_cast<Input*>(new InputShmB(name.str(), 48000, 2, 2, "speech"))
                                               : new InputShmQ(name.str(), 48000, 2, 2, "music"));
        input->blocking = c.blocking;
        const int frame = c.msgSize ? kFrame / c.msgSize : kFrame;
        ASSERT_EQ(feeder.Write(2 * frame, 1), 2 * frame);
        ASSERT_EQ(Bytes(input->Process()), Pattern(2 * kFrame, 1).substr(0, kFrame));
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        void* p = c.at == kShrink ? nullptr : mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ASSERT_TRUE(c.at == kShrink ? ftruncate(fd, c.value) == 0 : p != MAP_FAILED);
        if (p) memcpy(static_cast<char*>(p) + c.at, &c.value, sizeof(c.value)), munmap(p, 4096);
        close(fd);
        LogCapture log;
        input->Process(), input->Process();
        EXPECT_TRUE(input->state == STATE_FAULT && !name.Exists());  // nobody is left to remove it
        const Lines lines = Of(log, c.msgSize ? "Mixer_InputShmB" : "Mixer_InputShmQ");
        EXPECT_TRUE(lines.size() == 1 && lines[0].find("E ") == 0 &&
                    lines[0].find(c.at == kShrink ? "shrunk" : "broken") != std::string::npos) << log.Dump();
    }
}
}  // namespace
}  // namespace mixer
