#pragma once

// Shows that an engine thread sleeps: the kernel's count of a thread's context switches
// stays the same for as long as the thread is blocked and nobody wakes it. The thread is
// found by an input that notes the thread calling it.

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace test {

inline pid_t CurrentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Voluntary plus involuntary context switches of thread tid of this process, or -1
// when the kernel does not tell.
inline long ContextSwitches(pid_t tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    long total = 0;
    int found = 0;
    std::string key;
    while (status >> key) {
        if (key == "voluntary_ctxt_switches:" || key == "nonvoluntary_ctxt_switches:") {
            long n = 0;
            status >> n;
            total += n;
            ++found;
        }
    }
    return found == 2 ? total : -1;
}

// State letter of thread tid of this process ('R', 'S', ...), or 0 when unreadable.
inline char ThreadState(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The name in parentheses may hold spaces and ')': the state follows the last one.
    std::string::size_type close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) return 0;
    return line[close + 2];
}

// Waits until thread tid is blocked and has stayed so, its switch count unchanged, over
// a quiet spell of 50 ms; returns that count, or -1 if it never settled within limit.
// A fixed pause is not enough on a loaded machine: a preempted thread still has to run
// to its wait, and every switch on the way counts.
inline long WaitUntilAsleep(pid_t tid, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const std::chrono::milliseconds quiet(50);
    long last = -1;
    while (std::chrono::steady_clock::now() < deadline) {
        const long now = ThreadState(tid) == 'S' ? ContextSwitches(tid) : -1;
        if (now >= 0 && now == last) return now;
        last = now;
        std::this_thread::sleep_for(quiet);
    }
    return -1;
}

// A scripted input that notes the thread of its latest Process or Pause: the engine's.
class ThreadNotingInput : public ScriptedInput {
public:
    using ScriptedInput::ScriptedInput;
    void Pause() override {
        tid = CurrentTid();
        ScriptedInput::Pause();
    }
    boost::shared_ptr<AudioFrame> Process() override {
        tid = CurrentTid();
        return ScriptedInput::Process();
    }
    std::atomic<pid_t> tid{0};
};

}  // namespace test
}  // namespace mixer
