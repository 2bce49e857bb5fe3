// The engine's handlers driven directly on an engine whose thread never starts: every
// step is deterministic and the engine's fields can be read between calls.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "mixer/core/MsgPing.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/playback/Playback.h"
#include "mixer/stream/StreamOut.h"
#include "tests/playback/PlaybackTestUtil.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace test {
namespace {

typedef boost::shared_ptr<ScriptedInput> InputPtr;

// The row a ramp gain is heading for (its present row when it is not ramping).
double TargetIndex(const boost::shared_ptr<AlgoRampGain>& g) {
    return g->ramping ? g->indexAcc + g->step * g->stepsLeft : g->gainIndex;
}

class PlaybackHandlersTest : public ::testing::Test {
protected:
    void SetUp() override {
        connect.SetAttachInputRampGain(true);
        pb.connect = &connect;  // Init is not called: no thread
    }

    InputPtr Add(const std::string& type, const std::string& name = "") {
        InputPtr in = boost::make_shared<ScriptedInput>(48000, 2, type);
        if (!name.empty()) in->name = name;
        pb.AddNewInput(boost::make_shared<MsgNewInput>(in));
        return in;
    }
    boost::shared_ptr<AlgoRampGain> Gain(const InputPtr& in) { return GainOf(StreamOf(pb, in)); }
    void SetStreamVol(const std::string& type, uint32_t vol, uint32_t speaker) {
        pb.SetStreamVol(boost::make_shared<MsgSetStreamVol>(type, vol, speaker));
    }
    std::vector<std::string> Order() const {
        std::vector<std::string> names;
        for (const boost::shared_ptr<Stream>& s : pb.inputs) names.push_back(s->GetName());
        return names;
    }

    LogCapture log;  // first: outlives the engine
    FakeConnect connect;
    Playback pb;
};

TEST_F(PlaybackHandlersTest, FirstInputOfATypeCreatesItsVolumeLaterOnesTakeIt) {
    ASSERT_EQ(pb.speakerVolume, 40);
    InputPtr m1 = Add("music");
    ASSERT_EQ(pb.streamVolumes.count("music"), 1u);
    EXPECT_EQ(pb.streamVolumes["music"], 40u);
    EXPECT_EQ(Gain(m1)->gainIndex, 127u);  // the speaker volume is unity
    EXPECT_TRUE(log.Has("I Mixer_Playback:AddNewInput:Added the stream to the input list:"
                        "Stream Type music"));

    // Same speaker volume: the type's own change ramps over 250 ms.
    SetStreamVol("music", 30, 40);
    EXPECT_EQ(pb.streamVolumes["music"], 30u);
    EXPECT_EQ(Gain(m1)->ramping, 1);
    EXPECT_EQ(Gain(m1)->stepsLeft, RampSteps(250));

    // A later input of the type starts at the stored volume, at once.
    InputPtr m2 = Add("music");
    EXPECT_EQ(Gain(m2)->gainIndex, RelIndex(30, 40));
    EXPECT_EQ(Gain(m2)->ramping, 0);

    // A changed speaker volume ramps over 50 ms and becomes the engine's.
    SetStreamVol("music", 20, 45);
    EXPECT_EQ(pb.speakerVolume, 45);
    EXPECT_EQ(Gain(m1)->stepsLeft, RampSteps(50));
    EXPECT_EQ(Gain(m2)->stepsLeft, RampSteps(50));

    // A paused stream takes the new volume at once; a playing one ramps.
    m2->state = STATE_PAUSED;
    SetStreamVol("music", 25, 45);
    EXPECT_EQ(Gain(m2)->ramping, 0);
    EXPECT_EQ(Gain(m2)->gainIndex, RelIndex(25, 45));
    EXPECT_EQ(Gain(m1)->ramping, 1);
    EXPECT_EQ(Gain(m1)->stepsLeft, RampSteps(250));

    // A type that no input has: stored only, and its first input starts there.
    SetStreamVol("alert", 35, 45);
    EXPECT_EQ(Gain(Add("alert"))->gainIndex, RelIndex(35, 45));
}

TEST_F(PlaybackHandlersTest, SpeakerVolumeResetsEveryInputAndTheOutput) {
    boost::shared_ptr<FakeOutput> out = boost::make_shared<FakeOutput>("Speaker");
    connect.SetDefaultOutput(out);
    pb.SetupDefaultOutput();
    ASSERT_EQ(out->Volumes(), std::vector<int>({40}));

    InputPtr m = Add("music");
    InputPtr n = Add("nav");
    SetStreamVol("music", 30, 40);
    SetStreamVol("nav", 10, 40);
    log.Clear();

    pb.SetSpeakerVol(boost::make_shared<MsgSetSpeakerVol>(60));
    EXPECT_EQ(pb.speakerVolume, 60);
    EXPECT_EQ(out->Volumes(), std::vector<int>({40, 60}));
    EXPECT_EQ(pb.streamVolumes["music"], 60u);
    EXPECT_EQ(pb.streamVolumes["nav"], 60u);
    // Both ramp towards the speaker volume, which is unity relative to itself.
    for (const InputPtr& in : {m, n}) EXPECT_NEAR(TargetIndex(Gain(in)), 127.0, 0.01);
    EXPECT_TRUE(log.Has("I def:Mixer_Playback:SetSpeakerVol:volume percent changed to 60"));
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:music 60:"), 1);
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:nav 60:"), 1);
}

TEST_F(PlaybackHandlersTest, ChangeOutputRefusedKeepsTheOldOutput) {
    boost::shared_ptr<FakeOutput> def = boost::make_shared<FakeOutput>("Default");
    connect.SetDefaultOutput(def);
    pb.SetupDefaultOutput();
    ASSERT_EQ(pb.output, def);
    boost::shared_ptr<StreamOut> oldStream = pb.outStream;
    EXPECT_TRUE(log.Has("I Mixer_Playback:SetupDefaultOutput:Done: speaker volume percent = 40"));
    EXPECT_EQ(pb.sumRate, 48000u);
    EXPECT_EQ(pb.sumNumCh, 2u);

    boost::shared_ptr<FakeOutput> usb = boost::make_shared<FakeOutput>("Usb");
    connect.SetAddPlaybackOutputAlgosResult(-1);
    pb.ChangeOutput(boost::make_shared<MsgNewOutput>(usb, static_cast<tPlaybackModes>(7)));
    EXPECT_EQ(pb.output, def);
    EXPECT_EQ(pb.outStream, oldStream);
    EXPECT_TRUE(usb->Volumes().empty());
    EXPECT_TRUE(log.Has("I Mixer_Playback:ChangeOutput:Mode 7:"));
    EXPECT_FALSE(log.Has("I Mixer_Playback:ChangeOutput:Changed Output:"));
    ASSERT_EQ(connect.OutputAlgos().size(), 2u);
    EXPECT_EQ(connect.OutputAlgos()[1].output, usb);
    EXPECT_EQ(connect.OutputAlgos()[1].mode, 7u);

    connect.SetAddPlaybackOutputAlgosResult(0);
    pb.ChangeOutput(boost::make_shared<MsgNewOutput>(usb, static_cast<tPlaybackModes>(7)));
    EXPECT_EQ(pb.output, usb);
    EXPECT_NE(pb.outStream, oldStream);
    EXPECT_EQ(pb.outStream->GetOutput(), usb);
    EXPECT_EQ(usb->Volumes(), std::vector<int>({40}));
    EXPECT_TRUE(log.Has("I Mixer_Playback:ChangeOutput:Changed Output:"));
}

TEST_F(PlaybackHandlersTest, FocusMovesTheTypeToTheFrontKeepingArrivalOrder) {
    Add("music", "m1");
    Add("nav", "n1");
    Add("music", "m2");
    Add("alert", "a1");
    pb.SetFocus("music");
    EXPECT_EQ(Order(), std::vector<std::string>({"m1", "m2", "n1", "a1"}));
    EXPECT_EQ(pb.focusStreamType, "music");
    EXPECT_TRUE(log.Has("I Mixer_Playback:setFocus:Input Stream type music with 1 priority:"));
    EXPECT_TRUE(log.Has("I Mixer_Playback:setFocus:Input Stream type nav with 0 priority:"));
    EXPECT_TRUE(log.Has("I Mixer_Playback:setFocus:Size of the input list 4:"));

    // A type that no input has changes nothing but is still sorted and logged.
    log.Clear();
    pb.SetFocus("video");
    EXPECT_EQ(pb.focusStreamType, "music");
    EXPECT_EQ(Order(), std::vector<std::string>({"m1", "m2", "n1", "a1"}));
    EXPECT_TRUE(log.Has("I Mixer_Playback:setFocus:Size of the input list 4:"));

    // Focus on a second type: both focused types keep their relative order.
    pb.SetFocus("alert");
    EXPECT_EQ(Order(), std::vector<std::string>({"m1", "m2", "a1", "n1"}));

    // Later inputs: the cached type moves to the front at once, others stay behind.
    log.Clear();
    Add("alert", "a2");
    EXPECT_EQ(Order(), std::vector<std::string>({"m1", "m2", "a1", "a2", "n1"}));
    EXPECT_TRUE(log.Has("I Mixer_Playback:ApplyCurrentFocus:New stream needs to be focussed "
                        "based on the cache:"));
    Add("nav", "n2");
    EXPECT_EQ(Order(), std::vector<std::string>({"m1", "m2", "a1", "a2", "n1", "n2"}));
    EXPECT_TRUE(log.Has("I Mixer_Playback:ApplyCurrentFocus:New input stream is not a Focus "
                        "Stream, the focus stream cache value alert:"));
}

TEST_F(PlaybackHandlersTest, DuckingHalvesOthersAndResetRestoresTheSpeakerVolume) {
    pb.speakerVolume = 41;
    InputPtr m1 = Add("music");
    InputPtr n = Add("nav");
    InputPtr m2 = Add("music");
    SetStreamVol("nav", 30, 41);
    pb.SetFocus("nav");
    log.Clear();

    pb.EnableAudioDucking();
    EXPECT_TRUE(log.Has("I Mixer_Playback:AudioDucking:Enabling audio ducking:"));
    EXPECT_EQ(pb.streamVolumes["music"], 20u);
    EXPECT_EQ(pb.streamVolumes["nav"], 41u);
    EXPECT_EQ(pb.speakerVolume, 41);
    // Each music stream is set once per music stream in the list.
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:music 20:"), 4);
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:nav 41:"), 1);
    for (const InputPtr& in : {m1, m2}) {
        boost::shared_ptr<AlgoRampGain> g = Gain(in);
        EXPECT_EQ(g->stepsLeft, RampSteps(250));  // speaker unchanged: the slow ramp
        EXPECT_NEAR(TargetIndex(g), RelIndex(20, 41), 0.01);
    }

    log.Clear();
    pb.DisableAudioDucking();
    EXPECT_TRUE(log.Has("I Mixer_Playback:AudioDucking:Disabling audio ducking:"));
    EXPECT_EQ(pb.streamVolumes["music"], 41u);
    EXPECT_EQ(pb.streamVolumes["nav"], 41u);  // the type's own 30 is not restored
    EXPECT_EQ(log.Count("D Mixer_Playback:MsgSetStreamVol:music 41:"), 4);
}

// Runs frames whose every sample is value through the stream; returns the last sample of
// each frame.
std::vector<int> Tails(const boost::shared_ptr<Stream>& s, const InputPtr& in, int frames,
                       int value) {
    std::vector<int> tails;
    for (int i = 0; i < frames; ++i) {
        in->Push(in->MakeFrame(value));
        boost::shared_ptr<AudioFrame> f = s->Process();
        tails.push_back(f->Samples16()[f->len * f->numCh - 1]);
    }
    return tails;
}

TEST_F(PlaybackHandlersTest, PauseFadesOutAndResumeFadesInOver250Ms) {
    InputPtr m = Add("music");
    boost::shared_ptr<Stream> s = StreamOf(pb, m);
    m->SetCmd(CMD_PAUSE);
    pb.CheckForCmd(s);
    EXPECT_EQ(m->OpCount("PauseDelay 250"), 1);
    EXPECT_EQ(m->OpCount("HandleCmd 1"), 1);
    std::vector<std::string> ops = m->Ops();
    EXPECT_LT(std::find(ops.begin(), ops.end(), "PauseDelay 250"),
              std::find(ops.begin(), ops.end(), "HandleCmd 1"));

    // 20-ms frames: the fade is still audible at 240 ms and complete at 260 ms.
    std::vector<int> down = Tails(s, m, 14, 10000);
    for (size_t i = 1; i < down.size(); ++i) EXPECT_LE(down[i], down[i - 1]) << i;
    EXPECT_LT(down[0], 10000);
    EXPECT_GT(down[11], 0);
    EXPECT_EQ(down[12], 0);

    m->SetCmd(CMD_RESUME);
    pb.CheckForCmd(s);
    EXPECT_EQ(m->OpCount("HandleCmd 8"), 1);
    std::vector<int> up = Tails(s, m, 14, 10000);
    for (size_t i = 1; i < up.size(); ++i) EXPECT_GE(up[i], up[i - 1]) << i;
    EXPECT_GT(up[0], 0);
    EXPECT_LT(up[11], 9000);
    // Back to the type's volume (unity; the ramp may end one row short).
    EXPECT_GE(up[12], 10000 * 30934 / 32768);
    EXPECT_LE(up[12], 10000);
}

TEST_F(PlaybackHandlersTest, ResumeOfATypeWithoutVolumeFadesToSilence) {
    connect.SetAttachInputRampGain(false);
    InputPtr m = Add("music");
    boost::shared_ptr<Stream> s = StreamOf(pb, m);
    s->AddAlgo(boost::make_shared<AlgoRampGain>());  // after the volume lookup
    m->SetCmd(CMD_RESUME);
    pb.CheckForCmd(s);
    EXPECT_TRUE(log.Has("W Mixer_Playback:CheckForCmd:Resume NO volume for music:"));
    EXPECT_EQ(m->OpCount("HandleCmd 8"), 1);
    std::vector<int> tails = Tails(s, m, 14, 10000);
    EXPECT_EQ(tails[13], 0);
}

TEST_F(PlaybackHandlersTest, DispatchRejectsUnknownCodesAndChainsTheReport) {
    EXPECT_EQ(Playback().Init(nullptr), -1);
    pb.handleMsg(boost::make_shared<MsgHead>(4));
    pb.handleMsg(boost::make_shared<MsgHead>(9));
    pb.handleMsg(boost::make_shared<MsgPing>());
    // Code and class must match; a mismatch is dropped like an unknown code.
    pb.handleMsg(boost::make_shared<MsgHead>(MSG_NEW_INPUT));
    EXPECT_EQ(log.Count("E Mixer_Playback:handleMsg:Unsupported type 4:"), 1);
    EXPECT_EQ(log.Count("E Mixer_Playback:handleMsg:Unsupported type 9:"), 1);
    EXPECT_EQ(log.Count("E Mixer_Playback:handleMsg:Unsupported type 0:"), 1);
    EXPECT_EQ(log.CountPrefix("E "), 3);
    EXPECT_TRUE(pb.inputs.empty());

    InputPtr in = boost::make_shared<ScriptedInput>(48000, 2, "music");
    pb.handleMsg(boost::make_shared<MsgNewInput>(in));
    pb.handleMsg(boost::make_shared<MsgSetStreamVol>("music", 30, 40));
    pb.handleMsg(boost::make_shared<MsgSetFocus>("music"));
    EXPECT_EQ(pb.inputs.size(), 1u);
    EXPECT_EQ(pb.streamVolumes["music"], 30u);
    EXPECT_EQ(pb.focusStreamType, "music");
    EXPECT_EQ(in->priority, 1u);

    boost::shared_ptr<MsgHead> info = boost::make_shared<MsgWriteInfo>("/nonexistent-dir/status");
    pb.handleMsg(info);
    EXPECT_TRUE(log.Has("W Mixer_Playback:WriteInfo:Could not open /nonexistent-dir/status:"));
    ASSERT_EQ(connect.ChainedMsgs().size(), 1u);
    EXPECT_EQ(connect.ChainedMsgs()[0], info);
}

}  // namespace
}  // namespace test
}  // namespace mixer
