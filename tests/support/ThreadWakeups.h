#pragma once
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <fstream>
#include <thread>
#include "tests/support/Fake.h"
// Shows that an engine thread sleeps: its count of context switches stays the same while it is blocked.
namespace mixer::test {
// Voluntary plus involuntary context switches of thread tid of this process (-1: unknown); *state: 'R', 'S'...
inline long ContextSwitches(pid_t tid, char* state = nullptr) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    long total = 0, n = 0, found = 0;
    for (std::string key; status >> key;)
        if (key == "State:" && state) status >> *state;
        else if (key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") status >> n, total += n, ++found;
    return found == 2 ? total : -1;
}

// The switch count once thread tid sleeps with it unchanged over 50 ms (a preempted thread still has to reach its wait).
inline long WaitUntilAsleep(pid_t tid, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (long last = -1; std::chrono::steady_clock::now() < deadline;) {
        char state = 0;
        const long now = ContextSwitches(tid, &state);
        if (state == 'S' && now >= 0 && now == last) return now;
        last = state == 'S' ? now : -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return -1;
}

// A scripted input that notes the thread of its latest Process or Pause: the engine's.
struct ThreadNotingInput : ScriptedInput {
    using ScriptedInput::ScriptedInput;
    void Pause() override { tid = static_cast<pid_t>(syscall(SYS_gettid)), ScriptedInput::Pause(); }
    boost::shared_ptr<AudioFrame> Process() override { tid = static_cast<pid_t>(syscall(SYS_gettid)); return ScriptedInput::Process(); }
    std::atomic<pid_t> tid{0};
};
}  // namespace mixer::test
