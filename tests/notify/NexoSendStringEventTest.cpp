#include "mixer/notify/NexoSendStringEvent.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "mixer/core/Log.h"
#include "nexo.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using test::ChildProcess;
using test::LogCapture;
typedef std::vector<std::string> Lines;

// Each test runs its own session bus daemon (a program of this machine, also under an
// emulator) and a listener for the stand-in's events on it.
class NexoBusTest : public ::testing::Test {
protected:
    void SetUp() override {
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        daemon_ = fork();
        if (daemon_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            char* const env[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};  // nothing of ours
            execle("/usr/bin/dbus-daemon", "dbus-daemon", "--session", "--print-address", "--nofork", nullptr, env);
            _exit(127);
        }
        close(out[1]);
        std::string address;  // its first line, printed once it listens
        for (char c; read(out[0], &c, 1) == 1 && c != '\n';) address += c;
        close(out[0]);
        ASSERT_FALSE(address.empty()) << "dbus-daemon did not start";
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
        ASSERT_GE(sd_bus_open_user(&listener_), 0);
        // Synchronous: the daemon has the match before anything is sent.
        ASSERT_GE(sd_bus_match_signal(listener_, nullptr, nullptr, NEXO_OBJECT_PATH, NEXO_INTERFACE, NEXO_MEMBER,
                                      &NexoBusTest::OnEvent, this), 0);
    }
    void TearDown() override {
        sd_bus_flush_close_unref(listener_);
        StopDaemon();
    }
    void StopDaemon() {
        if (daemon_ <= 0) return;
        kill(daemon_, SIGTERM);
        waitpid(daemon_, nullptr, 0);
        daemon_ = -1;
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    static int OnEvent(sd_bus_message* m, void* self, sd_bus_error*) {
        const char *event = nullptr, *params = nullptr;
        if (sd_bus_message_read(m, "ss", &event, &params) >= 0)
            static_cast<NexoBusTest*>(self)->seen.push_back(std::string(event) + "|" + params);
        return 0;
    }
    // Processes the listener's bus until count events are in, within a bound.
    bool WaitForEvents(size_t count) {
        for (int rounds = 0; seen.size() < count && rounds < 1000; ++rounds) {
            const int r = sd_bus_process(listener_, nullptr);
            if (r < 0 || (r == 0 && sd_bus_wait(listener_, 20 * 1000 * 1000) < 0)) return false;
        }
        return seen.size() >= count;
    }

    pid_t daemon_ = -1;
    sd_bus* listener_ = nullptr;
    Lines seen;  // "event|params"
};

TEST_F(NexoBusTest, EventsFromAnotherProcessArriveAsSentAndWithoutABusOneErrorLineSaysSo) {
    ChildProcess sender([] {
        NexoHandleStruct* h = NexoOpen(NEXO_BUS_DEFAULT);
        CHILD_CHECK(h != nullptr);
        CHILD_CHECK(NexoCreateAndSendEventWithParameters(h, "volume", "vol=%d type=%s", 52, "music") == 0);
        CHILD_CHECK(nexo::NexoSendStringEvent(h, "mixer.focus", "stream %d got %s 100%") == 0);  // not a format
        CHILD_CHECK(nexo::NexoSendStringEvent(h, "empty", nullptr) == 0);
        NexoClose(h);
        return 0;
    });
    ASSERT_EQ(sender.Wait(), 0);
    ASSERT_TRUE(WaitForEvents(3));
    EXPECT_EQ(seen, (Lines{"volume|vol=52 type=music", "mixer.focus|stream %d got %s 100%", "empty|"}));
    NexoHandleStruct* h = NexoOpen(NEXO_BUS_SESSION);
    ASSERT_NE(h, nullptr);
    StopDaemon();
    {
        LogCapture log;
        EXPECT_EQ(nexo::NexoSendStringEvent(h, "mixer.state", "vol %d"), 1);  // whatever the bus's own code
        EXPECT_NE(NexoCreateAndSendEventWithParameters(h, "again", "%s", "x"), 0);
        EXPECT_EQ(nexo::NexoSendStringEvent(nullptr, "ev", nullptr), 1);
        EXPECT_EQ(log.Lines(), (Lines{"E def:MixerNexo:Failed to send string event:event = mixer.state, param = vol %d",
                                      "E def:MixerNexo:Failed to send string event:event = ev, param = "}));
    }
    NexoClose(h);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/mixer-test-bus", 1);
    EXPECT_EQ(NexoOpen(NEXO_BUS_DEFAULT), nullptr);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    LogCapture quiet(~static_cast<uint32_t>(Log::kError));  // the line follows the error bit
    EXPECT_EQ(nexo::NexoSendStringEvent(nullptr, "ev", "p"), 1);
    EXPECT_TRUE(quiet.Lines().empty());
}

}  // namespace
}  // namespace mixer
