// The playback engine with a client process that stops or dies inside its queue's lock:
// the other streams go on in every period and the client's stream is erased. A real
// engine, a fake host and output, a reference tone and a forked client that keeps its
// queue fed with silence, so that every written frame is the tone alone.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>

#include <boost/make_shared.hpp>

#include "mixer/core/MsgNewInput.h"
#include "mixer/input/InputDataTrans.h"
#include "mixer/playback/Playback.h"
#include "mixer/transport/DataTrans.h"
#include "tests/playback/PlaybackTestUtil.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LockingClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"
#include "tests/support/SineInput.h"

namespace mixer {
namespace test {
namespace {

const std::chrono::milliseconds kWait(20000);  // only a failing test waits this long
const unsigned kSamples = 960;                 // per channel in a 20-ms frame at 48 kHz

class PlaybackClientFailureTest : public ::testing::Test {
protected:
    PlaybackClientFailureTest() : out(boost::make_shared<FakeOutput>("Speaker")) {
        LockingClient::Options o;
        o.create = true;
        o.numBlk = 4;
        o.blkSize = 4 * kSamples;
        o.feed = true;
        client.reset(new LockingClient(name.str(), o));
    }

    // Plays the client's stream and the tone until both have been heard, has the client
    // take its lock, does fail to it, and plays on until the client's stream is erased
    // and a few more frames are out. Then checks that the written frames are the tone,
    // period after period, nothing missing or twice.
    void Run(const std::function<void()>& fail) {
        ASSERT_TRUE(client->Ready());
        queue = boost::make_shared<DataTrans>();
        ASSERT_EQ(queue->Init(name.c_str()), 0);
        bad = boost::make_shared<InputDataTrans>(queue, 48000, 2, 2, "client");
        tone = boost::make_shared<SineInput>(48000, 2, 440.0, 8000.0, "music");
        connect.SetDefaultOutput(out);
        // The client's stream first: the engine skips the stream after an erased one for
        // that period (and would pull a second frame from the front after erasing the
        // last one); with the tone second, the tone's own frames stay in sequence.
        pb.GetMsgQ()->sendMsg(boost::make_shared<MsgNewInput>(bad));
        pb.GetMsgQ()->sendMsg(boost::make_shared<MsgNewInput>(tone));
        ASSERT_EQ(pb.Init(&connect), 0);
        ASSERT_TRUE(out->WaitForFrames(5, kWait));
        ASSERT_TRUE(client->Lock());
        fail();
        ASSERT_TRUE(log.WaitFor("W Mixer_Playback:runLoop:Erasing Input " + name.str() + ":"));
        ASSERT_TRUE(out->WaitForFrames(out->FrameCount() + 5, kWait));
        pb.DeInit();

        EXPECT_FALSE(StreamOf(pb, bad));
        const std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
        EXPECT_EQ(static_cast<int>(frames.size()), tone->FramesProduced());
        for (size_t f = 0; f < frames.size(); ++f) {
            const int16_t* s = frames[f]->Samples16();
            ASSERT_EQ(frames[f]->len, kSamples);
            for (unsigned i = 0; i < kSamples; ++i) {
                ASSERT_EQ(s[2 * i], tone->SampleAt(f * kSamples + i)) << "frame " << f << " sample " << i;
                ASSERT_EQ(s[2 * i + 1], tone->SampleAt(f * kSamples + i)) << "frame " << f << " sample " << i;
            }
        }
    }

    ShmName name;
    std::unique_ptr<LockingClient> client;  // forked before the engine's thread exists
    LogCapture log;                         // outlives the thread
    FakeConnect connect;                    // outlives the thread
    boost::shared_ptr<FakeOutput> out;
    boost::shared_ptr<DataTrans> queue;
    boost::shared_ptr<InputDataTrans> bad;
    boost::shared_ptr<SineInput> tone;
    Playback pb;  // destroyed first: its destructor joins the thread
};

TEST_F(PlaybackClientFailureTest, ClientKilledInsideItsLockIsErasedWhileTheOthersPlayOn) {
    ASSERT_NO_FATAL_FAILURE(Run([&] { client->Kill(); }));
    // With robust locks the dead client's stream ends as a hung-up one once its queue is
    // drained; without them (qemu-user) its lock stays taken and the input gives up
    // after its busy periods.
    if (RobustLocksAvailable()) {
        EXPECT_EQ(bad->state, STATE_HANGUP);
        EXPECT_TRUE(log.Has("E Mixer_DataTrans:Lock:reason=OwnerDied,name=" + name.str() + ":"));
    } else {
        EXPECT_EQ(bad->state, STATE_FAULT);
        EXPECT_TRUE(log.Has("E Mixer_InputDataTrans:Process:queue lock held for 500 ms, input faulted:"));
    }
}

TEST_F(PlaybackClientFailureTest, ClientStoppedHoldingItsLockIsErasedWhileTheOthersPlayOn) {
    ASSERT_NO_FATAL_FAILURE(Run([&] { ASSERT_TRUE(client->Stop()); }));
    EXPECT_EQ(bad->state, STATE_FAULT);
    EXPECT_EQ(log.Count("E Mixer_InputDataTrans:Process:queue lock held for 500 ms, input faulted:"), 1);

    // The mixer's end closes without the lock; the client, once it goes on, closes last
    // and removes the queue. (The fake host keeps the erased stream, and with it the
    // queue: the end is closed as its last owner would.)
    queue->DeInit();
    EXPECT_TRUE(log.Has("W Mixer_DataTrans:DeInit:lock busy, DataTrans Hangup & Closed:"));
    ASSERT_TRUE(client->Continue());
    ASSERT_TRUE(client->Unlock());
    EXPECT_EQ(client->Finish(), 0);
    EXPECT_FALSE(name.Exists());
}

}  // namespace
}  // namespace test
}  // namespace mixer
