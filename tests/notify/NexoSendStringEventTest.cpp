#include "mixer/notify/NexoSendStringEvent.h"
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include "nexo.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
namespace mixer {
namespace {
typedef std::vector<std::string> Lines;

int OnEvent(sd_bus_message* m, void* seen, sd_bus_error*) {
    const char *event = nullptr, *params = nullptr;
    if (sd_bus_message_read(m, "ss", &event, &params) >= 0)
        static_cast<Lines*>(seen)->push_back(std::string(event) + "|" + params);
    return 0;
}

// A private session bus daemon (a program of this machine, also under an emulator) and a
// listener for the stand-in's events on it; then the bus goes away under the open handle.
TEST(NexoSendStringEventTest, EventsArriveAsSentAndWithoutABusOneErrorLineSaysSo) {
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    std::optional<test::ChildProcess> daemon(std::in_place, [&] {
        dup2(out[1], STDOUT_FILENO);
        char* const env[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};  // nothing of ours
        execle("/usr/bin/dbus-daemon", "dbus-daemon", "--session", "--print-address", "--nofork", nullptr, env);
        return 127;
    });
    close(out[1]);
    std::string address;  // its first line, printed once it listens
    for (char c; read(out[0], &c, 1) == 1 && c != '\n';) address += c;
    close(out[0]);
    ASSERT_FALSE(address.empty()) << "dbus-daemon did not start";
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    sd_bus* bus = nullptr;
    ASSERT_GE(sd_bus_open_user(&bus), 0);
    std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> listener(bus, sd_bus_flush_close_unref);
    Lines seen;  // "event|params"
    // Synchronous: the daemon has the match before anything is sent.
    ASSERT_GE(sd_bus_match_signal(bus, nullptr, nullptr, NEXO_OBJECT_PATH, NEXO_INTERFACE, NEXO_MEMBER, OnEvent, &seen), 0);
    NexoHandleStruct* h = NexoOpen(NEXO_BUS_DEFAULT);  // the session bus, as its address is set
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(NexoCreateAndSendEventWithParameters(h, "volume", "vol=%d type=%s", 52, "music"), 0);
    EXPECT_EQ(nexo::NexoSendStringEvent(h, "mixer.focus", "stream %d got %s 100%"), 0);  // not a format
    EXPECT_EQ(nexo::NexoSendStringEvent(h, "empty", nullptr), 0);
    for (int rounds = 0; seen.size() < 3 && rounds < 1000; ++rounds)  // each wait at most 100 ms
        if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, 100 * 1000);
    EXPECT_EQ(seen, (Lines{"volume|vol=52 type=music", "mixer.focus|stream %d got %s 100%", "empty|"}));
    daemon.reset();  // killed and reaped
    test::LogCapture log;
    EXPECT_EQ(nexo::NexoSendStringEvent(h, "mixer.state", "vol %d"), 1);  // whatever the bus's own code
    EXPECT_EQ(nexo::NexoSendStringEvent(nullptr, "ev", nullptr), 1);
    EXPECT_EQ(log.Lines(), (Lines{"E def:MixerNexo:Failed to send string event:event = mixer.state, param = vol %d",
                                  "E def:MixerNexo:Failed to send string event:event = ev, param = "}));
    NexoClose(h);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/mixer-test-bus", 1);
    EXPECT_EQ(NexoOpen(NEXO_BUS_DEFAULT), nullptr);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}
}  // namespace
}  // namespace mixer
