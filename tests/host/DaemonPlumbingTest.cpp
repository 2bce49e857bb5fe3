#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <thread>
#include <vector>

#include "host/EventQueue.h"
#include "host/ShutdownSignals.h"

namespace mixer {
namespace {

using host::EventQueue;
using host::ShutdownSignals;

TEST(ShutdownSignalsTest, TermAndIntArriveOnTheDescriptorInsteadOfKilling) {
    ShutdownSignals signals;
    ASSERT_TRUE(signals.Ok());
    EXPECT_EQ(signals.Take(), 0);
    ASSERT_EQ(pthread_kill(pthread_self(), SIGTERM), 0);
    pollfd pfd = {signals.Fd(), POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, -1), 1);
    EXPECT_EQ(signals.Take(), SIGTERM);
    ASSERT_EQ(pthread_kill(pthread_self(), SIGINT), 0);
    ASSERT_EQ(poll(&pfd, 1, -1), 1);
    EXPECT_EQ(signals.Take(), SIGINT);
    EXPECT_EQ(signals.Take(), 0);
}

TEST(EventQueueTest, EventsFromOtherThreadsAreDeliveredInOrderOnTheOwnersThread) {
    EventQueue events;
    ASSERT_TRUE(events.Ok());
    pollfd pfd = {events.Fd(), POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0);
    std::thread engine([&events] {
        events.Push("MixerStreamAdded", "music");
        events.Push("MixerStreamRemoved", "music");
    });
    engine.join();
    ASSERT_EQ(poll(&pfd, 1, -1), 1);
    std::vector<std::string> sent;
    auto send = [&sent](const std::string& e, const std::string& p) { sent.push_back(e + " " + p); };
    EXPECT_EQ(events.Deliver(send), 2u);
    EXPECT_EQ(sent, (std::vector<std::string>{"MixerStreamAdded music", "MixerStreamRemoved music"}));
    EXPECT_EQ(poll(&pfd, 1, 0), 0);  // nothing left: not readable
    EXPECT_EQ(events.Deliver(send), 0u);
}

}  // namespace
}  // namespace mixer
