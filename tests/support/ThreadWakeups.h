#pragma once

// Shows that an engine thread sleeps: the kernel's count of a thread's context switches
// stays the same for as long as the thread is blocked and nobody wakes it. The thread is
// found by an input that notes the thread calling it.

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>

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
