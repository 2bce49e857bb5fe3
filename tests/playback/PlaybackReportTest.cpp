// The status report and the latency test, on an engine without a thread.

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <boost/make_shared.hpp>

#include "mixer/algo/AlgoSilence.h"
#include "mixer/playback/Playback.h"
#include "mixer/stream/StreamOut.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace test {
namespace {

const std::string kRule = "=================================================";

std::string ReadAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A host's silence algorithm: the library declares the fields, the host the behaviour.
class HostSilence : public AlgoSilence {
public:
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override {
        return frame;
    }
};

// Some other algorithm that claims the silence id.
class Impostor : public Algo {
public:
    Impostor() : Algo(ALGO_ID_SILENCE) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override {
        return frame;
    }
};

class PlaybackReportTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/playback-report-XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path = tmpl;
        pb.connect = &connect;
        connect.SetSumParams(44100, 1, SAMPLE_SIZE_32);
        connect.SetDefaultOutput(out);
    }
    void TearDown() override { unlink(path.c_str()); }

    boost::shared_ptr<ScriptedInput> Add(const std::string& type, const std::string& name) {
        boost::shared_ptr<ScriptedInput> in = boost::make_shared<ScriptedInput>(48000, 2, type);
        in->name = name;
        pb.AddNewInput(boost::make_shared<MsgNewInput>(in));
        return in;
    }

    LogCapture log;
    std::string path;
    boost::shared_ptr<FakeOutput> out = boost::make_shared<FakeOutput>("Speaker", STATE_ACTIVE);
    FakeConnect connect;
    Playback pb;
};

TEST_F(PlaybackReportTest, ReportWithoutInputsEndsAfterTheCount) {
    pb.SetupDefaultOutput();
    pb.idleCountdownMs = -20;
    pb.WriteInfo(path);
    EXPECT_EQ(ReadAll(path), kRule + "\n"
                             "State info Mixer_Playback:\n"
                             "Output:Speaker\tActive\n"
                             "Inactivity count down: -20\n"
                             "Sum rate: 44100 numCh: 1 ss: 4\n"
                             "Frame len: 20\n"
                             "Number of input streams: 0\n" +
                                 kRule + "\n");
}

TEST_F(PlaybackReportTest, ReportListsInputsInFocusOrderAndReplacesTheFile) {
    {
        std::ofstream old(path);
        old << "a much longer text that was in the file before the report was written\n"
               "and more of it\n";
    }
    pb.SetupDefaultOutput();
    Add("music", "client-1");
    boost::shared_ptr<ScriptedInput> nav = Add("nav", "client-2");
    Add("alert", "client-3")->state = STATE_HANGUP;
    nav->state = STATE_PAUSED;
    pb.SetFocus("nav");
    pb.WriteInfo(path);
    EXPECT_EQ(ReadAll(path), kRule + "\n"
                             "State info Mixer_Playback:\n"
                             "Output:Speaker\tActive\n"
                             "Inactivity count down: 20000\n"
                             "Sum rate: 44100 numCh: 1 ss: 4\n"
                             "Frame len: 20\n"
                             "Number of input streams: 3\n"
                             "0\tnav\tPaused\tclient-2\n"
                             "1\tmusic\tActive\tclient-1\n"
                             "2\talert\tHangup\tclient-3\n" +
                                 kRule + "\n");
}

int64_t NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(static_cast<int32_t>(static_cast<uint32_t>(ts.tv_sec) * 1000u)) +
           ts.tv_nsec / 1000000;
}

TEST_F(PlaybackReportTest, LatencyTestArmsTheHostsSilenceAlgorithm) {
    boost::shared_ptr<HostSilence> silence = boost::make_shared<HostSilence>();
    connect.SetOutputAlgosHook([silence](boost::shared_ptr<Output>, boost::shared_ptr<Stream> s) {
        s->AddAlgo(silence);
    });
    pb.SetupDefaultOutput();
    silence->count = 7;
    int64_t before = NowMs();
    pb.LatencyTestStart();
    int64_t after = NowMs();
    EXPECT_EQ(silence->count, 0);
    EXPECT_EQ(silence->running, 1);
    EXPECT_GE(silence->startTimeMs, before);
    EXPECT_LE(silence->startTimeMs, after);

    // A second start while running restarts with a fresh time.
    silence->count = 3;
    int64_t first = silence->startTimeMs;
    pb.LatencyTestStart();
    EXPECT_EQ(silence->count, 0);
    EXPECT_EQ(silence->running, 1);
    EXPECT_GE(silence->startTimeMs, first);
    EXPECT_FALSE(log.Has("W Mixer_Playback:LatencyTestStart:Could not find AlgoSilence:"));
}

TEST_F(PlaybackReportTest, LatencyTestNeedsAnAlgoSilence) {
    pb.LatencyTestStart();  // no output stream at all
    EXPECT_EQ(log.Count("W Mixer_Playback:LatencyTestStart:Could not find AlgoSilence:"), 1);

    boost::shared_ptr<Impostor> impostor = boost::make_shared<Impostor>();
    connect.SetOutputAlgosHook([impostor](boost::shared_ptr<Output>, boost::shared_ptr<Stream> s) {
        s->AddAlgo(impostor);
    });
    pb.SetupDefaultOutput();
    pb.handleMsg(boost::make_shared<MsgHead>(MSG_LATENCY_TEST));
    EXPECT_EQ(log.Count("W Mixer_Playback:LatencyTestStart:Could not find AlgoSilence:"), 2);
}

}  // namespace
}  // namespace test
}  // namespace mixer
