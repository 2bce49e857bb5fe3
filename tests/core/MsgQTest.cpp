#include "mixer/core/MsgQ.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgPing.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgSetSpeakerVol.h"
#include "mixer/core/MsgSetStreamVol.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/core/MsgNewInput.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

boost::shared_ptr<MsgHead> Vol(uint32_t v) {
    return boost::shared_ptr<MsgHead>(new MsgSetSpeakerVol(v));
}
uint32_t VolOf(const boost::shared_ptr<MsgHead>& m) {
    return boost::dynamic_pointer_cast<MsgSetSpeakerVol>(m)->volume;
}

TEST(MsgQTest, EveryMessageClassCarriesItsCode) {
    EXPECT_EQ(MsgNewInput().type, 0u);
    EXPECT_EQ(MsgNewOutput().type, 1u);
    EXPECT_EQ(MsgNewOutput().mode, PLAYBACK_MODE_DEFAULT);
    EXPECT_EQ(MsgSetStreamVol().type, 2u);
    EXPECT_TRUE(MsgSetStreamVol().streamType.empty());
    EXPECT_EQ(MsgSetSpeakerVol().type, 3u);
    EXPECT_EQ(MsgEnableMic().type, 4u);
    EXPECT_EQ(MsgHead(MSG_LATENCY_TEST).type, 5u);
    EXPECT_EQ(MsgPing().type, 6u);
    EXPECT_EQ(MsgWriteInfo().type, 7u);
    EXPECT_EQ(MsgSetFocus().type, 8u);
    MsgSetStreamVol v("music", 30, 41);
    EXPECT_EQ(v.streamType, "music");
    EXPECT_EQ(v.volume, 30u);
    EXPECT_EQ(v.speakerVolume, 41u);
}

TEST(MsgQTest, MessagesComeOutInPostingOrder) {
    MsgQ q;
    q.sendMsg(Vol(1));
    q.sendMsg(Vol(2));
    q.sendMsg(Vol(3));
    EXPECT_EQ(VolOf(q.getMsg(false)), 1u);
    EXPECT_EQ(VolOf(q.getMsg(true)), 2u);
    EXPECT_EQ(VolOf(q.getMsg(false)), 3u);
    EXPECT_FALSE(q.getMsg(false));
}

TEST(MsgQTest, DownCastToTheWrongClassIsEmpty) {
    boost::shared_ptr<MsgHead> m(new MsgPing());
    EXPECT_FALSE(boost::dynamic_pointer_cast<MsgSetFocus>(m));
    EXPECT_TRUE(boost::dynamic_pointer_cast<MsgPing>(m));
}

TEST(MsgQTest, WaitingGetReturnsTheMessagePostedFromAnotherThread) {
    MsgQ q;
    std::promise<void> waiting;
    auto taken = std::async(std::launch::async, [&] {
        waiting.set_value();
        return q.getMsg(true);
    });
    waiting.get_future().wait();
    q.sendMsg(Vol(7));
    boost::shared_ptr<MsgHead> m = taken.get();
    ASSERT_TRUE(m);
    EXPECT_EQ(VolOf(m), 7u);
}

TEST(MsgQTest, EmptyPostIsRefusedAndWakesNobody) {
    test::LogCapture log;
    MsgQ q;
    std::atomic<bool> returned{false};
    std::thread taker([&] {
        boost::shared_ptr<MsgHead> m = q.getMsg(true);
        returned = true;
        EXPECT_TRUE(m && m->type == MSG_PING);
    });
    q.sendMsg(boost::shared_ptr<MsgHead>());
    EXPECT_EQ(log.Count("I MsgQ:sendMsg:NULL:"), 1);
    // The refused post must not have released the taker: only the ping below does. A
    // short grace period gives a wrongly woken taker the time to show itself.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(returned);
    q.sendMsg(boost::shared_ptr<MsgHead>(new MsgPing()));
    taker.join();
    EXPECT_TRUE(returned);
}

TEST(MsgQTest, ManyPostersLoseNothing) {
    MsgQ q;
    const int kThreads = 4, kEach = 500;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t)
        posters.emplace_back([&q, t] {
            for (int i = 0; i < kEach; ++i) q.sendMsg(Vol(t * kEach + i));
        });
    std::vector<int> lastOf(kThreads, -1);
    int taken = 0;
    while (taken < kThreads * kEach) {
        boost::shared_ptr<MsgHead> m = q.getMsg(true);
        if (!m) continue;
        const int v = static_cast<int>(VolOf(m));
        // Each poster's messages keep their own order.
        EXPECT_GT(v % kEach, lastOf[v / kEach]);
        lastOf[v / kEach] = v % kEach;
        ++taken;
    }
    for (auto& p : posters) p.join();
    EXPECT_FALSE(q.getMsg(false));
}

}  // namespace
}  // namespace mixer
