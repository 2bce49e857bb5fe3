#include "mixer/notify/NexoSendStringEvent.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "mixer/core/Log.h"
#include "nexo.h"
#include "tests/notify/PrivateBus.h"
#include "tests/support/ForkedChild.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using test::EventListener;
using test::ForkedChild;
using test::LogCapture;
using test::PrivateBus;

class NexoBusTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(bus.running()) << "dbus-daemon did not start"; }
    PrivateBus bus;
};

TEST_F(NexoBusTest, StringEventFromAnotherProcessArrivesWithItsPercentSignsUnchanged) {
    EventListener listener;
    ASSERT_TRUE(listener.ok());
    ForkedChild sender([] {
        NexoHandleStruct* h = NexoOpen(NEXO_BUS_DEFAULT);
        if (h == nullptr) return 10;
        const int rc = nexo::NexoSendStringEvent(h, "mixer.focus", "stream %d got %s 100%");
        NexoClose(h);
        return rc;
    });
    ASSERT_EQ(sender.Wait(), 0);
    ASSERT_TRUE(listener.WaitFor(1));
    ASSERT_EQ(listener.seen().size(), 1u);
    EXPECT_EQ(listener.seen()[0].event, "mixer.focus");
    EXPECT_EQ(listener.seen()[0].params, "stream %d got %s 100%");
}

TEST_F(NexoBusTest, PlatformCallFormatsItsParametersAndEventsKeepTheirOrder) {
    EventListener listener;
    ASSERT_TRUE(listener.ok());
    NexoHandleStruct* h = NexoOpen(NEXO_BUS_SESSION);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(NexoCreateAndSendEventWithParameters(h, "volume", "vol=%d type=%s", 52, "music"), 0);
    EXPECT_EQ(nexo::NexoSendStringEvent(h, "empty", nullptr), 0);
    EXPECT_EQ(NexoCreateAndSendEventWithParameters(h, "last", "%s", ""), 0);
    NexoClose(h);
    ASSERT_TRUE(listener.WaitFor(3));
    EXPECT_EQ(listener.seen()[0].event, "volume");
    EXPECT_EQ(listener.seen()[0].params, "vol=52 type=music");
    EXPECT_EQ(listener.seen()[1].event, "empty");
    EXPECT_EQ(listener.seen()[1].params, "");
    EXPECT_EQ(listener.seen()[2].event, "last");
}

TEST_F(NexoBusTest, SendOnAHandleWhoseBusIsGoneYieldsOneAndOneErrorLine) {
    NexoHandleStruct* h = NexoOpen(NEXO_BUS_DEFAULT);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(nexo::NexoSendStringEvent(h, "before", "x"), 0);
    bus.Stop();  // the daemon is gone and the handle's connection closed with it
    {
        LogCapture log;
        EXPECT_EQ(nexo::NexoSendStringEvent(h, "mixer.state", "vol %d"), 1);
        EXPECT_EQ(log.Lines(),
                  std::vector<std::string>{
                      "E def:MixerNexo:Failed to send string event:event = mixer.state, param = vol %d"});
    }
    // The platform's own code for it is not 1; the call above flattened it.
    EXPECT_NE(NexoCreateAndSendEventWithParameters(h, "again", "%s", "x"), 0);
    NexoClose(h);
}

TEST_F(NexoBusTest, TextTheBusRefusesIsAFailure) {
    NexoHandleStruct* h = NexoOpen(NEXO_BUS_SESSION);
    ASSERT_NE(h, nullptr);
    LogCapture log;
    EXPECT_EQ(nexo::NexoSendStringEvent(h, "bad", "\xff\xfe"), 1);
    EXPECT_EQ(log.CountPrefix("E def:MixerNexo:Failed to send string event:event = bad, param = "), 1);
    NexoClose(h);
}

TEST(NexoSendStringEventTest, NullHandleYieldsOneAndTheLineFollowsTheErrorBit) {
    {
        LogCapture log;
        EXPECT_EQ(nexo::NexoSendStringEvent(nullptr, "ev", "p"), 1);
        EXPECT_EQ(log.Lines(), std::vector<std::string>{
                                   "E def:MixerNexo:Failed to send string event:event = ev, param = p"});
    }
    LogCapture quiet(0xFFFFFFFFu & ~static_cast<uint32_t>(Log::kError));
    EXPECT_EQ(nexo::NexoSendStringEvent(nullptr, "ev", "p"), 1);
    EXPECT_TRUE(quiet.Lines().empty());
}

TEST(NexoOpenTest, UnreachableBusGivesNoHandle) {
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/mixer-test-bus", 1);
    errno = 0;
    EXPECT_EQ(NexoOpen(NEXO_BUS_SESSION), nullptr);
    EXPECT_NE(errno, 0);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_EQ(NexoOpen(static_cast<NexoBus>(7)), nullptr);
    NexoClose(nullptr);
}

}  // namespace
}  // namespace mixer
