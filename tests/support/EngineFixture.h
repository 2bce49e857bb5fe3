#pragma once
// One engine (Playback or Record) under test with a fake host and a fake output, and what the tests of both share.
#include <gtest/gtest.h>
#include <chrono>
#include <climits>
#include <thread>
#include <boost/make_shared.hpp>
#include "tests/support/FakeConnect.h"
#include "tests/support/Fake.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ThreadWakeups.h"
namespace mixer::test {
const std::chrono::milliseconds kWait(20000);  // only a failing test waits this long
const int kHangUp = INT_MIN;                   // a level that hangs a scripted input up
typedef boost::shared_ptr<ScriptedInput> InputPtr;
typedef boost::shared_ptr<FakeOutput> OutputPtr;
typedef std::vector<std::string> Lines;

// An input of type (also its client's name) with a frame per level, every sample at it.
inline InputPtr Scripted(const std::string& type, const std::vector<int>& levels = {}, unsigned rate = 48000,
                         unsigned numCh = 2) {
    InputPtr in = boost::make_shared<ScriptedInput>(rate, numCh, type);
    in->name = type;
    for (int v : levels) v == kHangUp ? in->PushHangup() : in->Push(in->MakeFrame(v));
    return in;
}

// The first sample of each frame written to o.
inline std::vector<int> Levels(const OutputPtr& o) {
    std::vector<int> levels;
    for (const boost::shared_ptr<AudioFrame>& f : o->Frames()) levels.push_back(f->Samples16()[0]);
    return levels;
}

// Waits until thread tid has been switched out more than before times: a woken thread is
// counted only once it leaves the CPU again, which may be well after it was seen awake.
inline bool WaitForSwitchesAbove(pid_t tid, long before) {
    for (auto end = std::chrono::steady_clock::now() + kWait; ContextSwitches(tid) <= before;) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

template <class Engine>
class EngineFixture : public ::testing::Test {
protected:
    void Post(MsgHead* msg) { engine.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(msg)); }
    LogCapture log;       // outlives the thread
    FakeConnect connect;  // outlives the thread
    OutputPtr out = boost::make_shared<FakeOutput>("ALSA");
    Engine engine;        // destroyed first: its destructor joins the thread
};
}  // namespace mixer::test
