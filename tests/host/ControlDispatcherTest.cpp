#include "host/ControlDispatcher.h"

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "host/LatencyCarrierInput.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgNewInput.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgSetSpeakerVol.h"
#include "mixer/core/MsgSetStreamVol.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/core/Output.h"
#include "tests/host/TempDir.h"

namespace mixer {
namespace {

using host::ControlCommand;
using host::ControlDispatcher;
using host::ControlReply;
using host::LatencyProbe;

int64_t NowUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Records what the dispatcher posts. In "engines" mode it also plays the engines'
// part, on a thread of its own as the real engines would: status requests get two
// reports, and latency tests a mark that comes back (or not, with echo off).
class FakeSink : public host::EngineSink {
public:
    explicit FakeSink(boost::shared_ptr<LatencyProbe> probe_) : probe(probe_) {}
    ~FakeSink() override {
        for (std::thread& t : threads) t.join();
    }
    void PostPlayback(boost::shared_ptr<MsgHead> msg) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (engines && msg->type == MSG_WRITE_INFO) {
            threads.emplace_back([msg]() mutable {
                std::string file = boost::dynamic_pointer_cast<MsgWriteInfo>(msg)->fileName;
                std::ofstream(file.c_str()) << "playback report\n";
                std::ofstream(file.c_str(), std::ios::app) << "record report\n";
                msg.reset();  // the last engine lets go
            });
            return;
        }
        if (engines && msg->type == MSG_LATENCY_TEST) {
            boost::shared_ptr<Output> out = listener;
            boost::shared_ptr<LatencyProbe> p = probe;
            bool heard = echo;
            threads.emplace_back([out, p, heard] {
                // The mark went out a period before the microphone frame that carries it.
                p->Marked(NowUs() - 20000);
                boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
                std::fill(f->Samples16(), f->Samples16() + f->len, 0);
                if (heard) LatencyProbe::WriteMark(*f);
                out->WriteFrame(f);
            });
        }
        playback.push_back(msg);
    }
    void PostRecord(boost::shared_ptr<MsgHead> msg) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (msg->type == MSG_NEW_OUTPUT) listener = boost::dynamic_pointer_cast<MsgNewOutput>(msg)->output;
        record.push_back(msg);
    }
    void FocusChanged(const std::string& type) override { focus.push_back(type); }

    boost::shared_ptr<LatencyProbe> probe;
    bool engines = false;
    bool echo = true;
    std::mutex mutex;
    std::vector<std::thread> threads;
    std::vector<boost::shared_ptr<MsgHead>> playback, record;
    std::vector<std::string> focus;
    boost::shared_ptr<Output> listener;
};

ControlCommand Cmd(ControlCommand::Kind kind, const std::string& type = "", unsigned volume = 0,
                   bool enable = false) {
    ControlCommand c;
    c.kind = kind;
    c.streamType = type;
    c.volume = volume;
    c.enable = enable;
    return c;
}

struct ControlDispatcherTest : testing::Test {
    test::TempDir dir;
    boost::shared_ptr<LatencyProbe> probe{new LatencyProbe};
    FakeSink sink{probe};
    ControlDispatcher::Settings settings;
    ControlDispatcherTest() {
        settings.statusFile = dir.File("status.txt");
        settings.speakerVolume = 40;
        settings.statusTimeoutMs = 300;
        settings.latencyTimeoutMs = 300;
    }
};

TEST_F(ControlDispatcherTest, VolumesCarryTheSpeakerVolumeInForce) {
    ControlDispatcher d(sink, probe, settings);
    EXPECT_TRUE(d.Handle(Cmd(ControlCommand::kStreamVolume, "music", 30)).ok);
    EXPECT_TRUE(d.Handle(Cmd(ControlCommand::kSpeakerVolume, "", 61)).ok);
    EXPECT_TRUE(d.Handle(Cmd(ControlCommand::kStreamVolume, "prompt", 70)).ok);
    ASSERT_EQ(sink.playback.size(), 3u);
    boost::shared_ptr<MsgSetStreamVol> v1 = boost::dynamic_pointer_cast<MsgSetStreamVol>(sink.playback[0]);
    ASSERT_TRUE(v1);
    EXPECT_EQ(v1->streamType, "music");
    EXPECT_EQ(v1->volume, 30u);
    EXPECT_EQ(v1->speakerVolume, 40u);
    boost::shared_ptr<MsgSetSpeakerVol> s = boost::dynamic_pointer_cast<MsgSetSpeakerVol>(sink.playback[1]);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->volume, 61u);
    boost::shared_ptr<MsgSetStreamVol> v2 = boost::dynamic_pointer_cast<MsgSetStreamVol>(sink.playback[2]);
    ASSERT_TRUE(v2);
    EXPECT_EQ(v2->speakerVolume, 61u);
    EXPECT_EQ(d.SpeakerVolume(), 61u);
    EXPECT_TRUE(sink.record.empty());
}

TEST_F(ControlDispatcherTest, FocusAndMicGoToTheirEngines) {
    ControlDispatcher d(sink, probe, settings);
    EXPECT_TRUE(d.Handle(Cmd(ControlCommand::kFocus, "prompt")).ok);
    EXPECT_TRUE(d.Handle(Cmd(ControlCommand::kFocus, "")).ok);  // "focus none": nothing to post
    EXPECT_TRUE(d.Handle(Cmd(ControlCommand::kMic, "", 0, true)).ok);
    EXPECT_TRUE(d.MicEnabled());
    ASSERT_EQ(sink.playback.size(), 1u);
    boost::shared_ptr<MsgSetFocus> f = boost::dynamic_pointer_cast<MsgSetFocus>(sink.playback[0]);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->streamType, "prompt");
    EXPECT_EQ(sink.focus, (std::vector<std::string>{"prompt", ""}));
    ASSERT_EQ(sink.record.size(), 1u);
    boost::shared_ptr<MsgEnableMic> m = boost::dynamic_pointer_cast<MsgEnableMic>(sink.record[0]);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->enable, 1);
}

TEST_F(ControlDispatcherTest, StatusRepliesWithBothReportsOnceTheEnginesAreDone) {
    sink.engines = true;
    std::ofstream(settings.statusFile.c_str()) << "stale report\n";
    ControlDispatcher d(sink, probe, settings);
    for (int i = 0; i < 2; ++i) {
        ControlReply r = d.Handle(Cmd(ControlCommand::kStatus));
        ASSERT_TRUE(r.ok) << r.text;
        EXPECT_EQ(r.text, "playback report\nrecord report\n");
    }
}

TEST_F(ControlDispatcherTest, StatusFailsClearlyWhenTheEnginesDoNotAnswer) {
    std::ofstream(settings.statusFile.c_str()) << "stale report\n";
    ControlDispatcher d(sink, probe, settings);
    ControlReply r = d.Handle(Cmd(ControlCommand::kStatus));  // the sink keeps the message
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.text, "no status report within 300 ms: the engines do not answer");
    // The stale file is not passed off as a report.
    settings.statusFile = dir.File("missing/status.txt");
    sink.engines = true;
    ControlDispatcher d2(sink, probe, settings);
    r = d2.Handle(Cmd(ControlCommand::kStatus));
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.text, "the engines could not write the status report to " + settings.statusFile);
}

TEST_F(ControlDispatcherTest, LatencyTurnsTheMicOnForTheTestAndReportsTheDelay) {
    sink.engines = true;
    ControlDispatcher d(sink, probe, settings);
    ControlReply r = d.Handle(Cmd(ControlCommand::kLatency));
    ASSERT_TRUE(r.ok) << r.text;
    EXPECT_EQ(r.text.compare(0, 8, "latency "), 0) << r.text;
    EXPECT_EQ(r.text.substr(r.text.size() - 4), " ms\n");
    ASSERT_EQ(sink.record.size(), 3u);
    EXPECT_EQ(boost::dynamic_pointer_cast<MsgEnableMic>(sink.record[0])->enable, 1);
    EXPECT_TRUE(boost::dynamic_pointer_cast<MsgNewOutput>(sink.record[1]));
    EXPECT_EQ(boost::dynamic_pointer_cast<MsgEnableMic>(sink.record[2])->enable, 0);
    ASSERT_EQ(sink.playback.size(), 2u);
    boost::shared_ptr<MsgNewInput> carrier = boost::dynamic_pointer_cast<MsgNewInput>(sink.playback[0]);
    ASSERT_TRUE(carrier);
    EXPECT_EQ(carrier->input->desc, "latencyTest");
    EXPECT_EQ(sink.playback[1]->type, static_cast<uint32_t>(MSG_LATENCY_TEST));
    EXPECT_FALSE(probe->Active());
}

TEST_F(ControlDispatcherTest, LatencyWithoutEchoIsAnErrorAndLeavesAnEnabledMicOn) {
    sink.engines = true;
    sink.echo = false;
    ControlDispatcher d(sink, probe, settings);
    d.Handle(Cmd(ControlCommand::kMic, "", 0, true));
    ControlReply r = d.Handle(Cmd(ControlCommand::kLatency));
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.text, "latency test: the mark did not come back on the microphone within 300 ms");
    ASSERT_EQ(sink.record.size(), 2u);  // mic on (by request), the listener; no mic off
    EXPECT_TRUE(boost::dynamic_pointer_cast<MsgNewOutput>(sink.record[1]));
    EXPECT_TRUE(d.MicEnabled());
}

TEST_F(ControlDispatcherTest, LatencyWithoutAMarkSaysSo) {
    ControlDispatcher d(sink, probe, settings);  // nothing plays the engines' part
    ControlReply r = d.Handle(Cmd(ControlCommand::kLatency));
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.text.find("latency test: the output did not carry the mark within 300 ms"), 0u) << r.text;
}

}  // namespace
}  // namespace mixer
