#pragma once

#include <string>
#include <vector>

#include <systemd/sd-bus.h>

namespace mixer {
namespace test {

// A session bus daemon of this test's own, started with the test and stopped with it;
// DBUS_SESSION_BUS_ADDRESS points at it meanwhile.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool running() const { return pid_ > 0 && !address_.empty(); }
    const std::string& address() const { return address_; }
    // Stops the daemon and waits for it to end: every connection to it is closed then.
    void Stop();

private:
    int pid_ = -1;
    std::string address_;
};

// One event seen on the bus.
struct SeenEvent {
    std::string event;
    std::string params;
};

// A listener on the private bus for the events of the bus stand-in. The match is in
// place when the constructor returns, so nothing sent afterwards is missed.
class EventListener {
public:
    EventListener();
    ~EventListener();
    bool ok() const { return bus_ != nullptr && slot_ != nullptr; }
    // Processes the bus until count events have been seen (true) or timeoutMs has
    // passed without them (false).
    bool WaitFor(size_t count, int timeoutMs = 20000);
    const std::vector<SeenEvent>& seen() const { return seen_; }

private:
    static int OnEvent(sd_bus_message* m, void* self, sd_bus_error* err);

    sd_bus* bus_ = nullptr;
    sd_bus_slot* slot_ = nullptr;
    std::vector<SeenEvent> seen_;
};

}  // namespace test
}  // namespace mixer
