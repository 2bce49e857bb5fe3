// The shared test host behaves as the engine tests rely on.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "mixer/core/MsgWriteInfo.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/ScriptedInput.h"
#include "tests/support/SilenceInput.h"
#include "tests/support/SineInput.h"

namespace mixer {
namespace {

using std::chrono::milliseconds;

TEST(FakeConnectTest, RecordsCallsAndAnswersAsConfigured) {
    test::FakeConnect fake;
    Connect& host = fake;
    boost::shared_ptr<test::FakeOutput> a(new test::FakeOutput("ALSA")), b(new test::FakeOutput("bt"));
    fake.SetDefaultOutputs({a, b});
    fake.SetSumParams(16000, 1, SAMPLE_SIZE_32);
    fake.SetAddNewStreamResult(-1);
    fake.SetAddPlaybackOutputAlgosResult(3);
    fake.SetAttachInputRampGain(true);
    std::vector<std::string> hooked;
    fake.SetNewStreamHook([&](const std::string& file, const sStreamInfo& i) { hooked.push_back(file + "/" + i.name); });

    int volume = 40;
    host.getAudioVolume(&volume);
    EXPECT_EQ(volume, 40);  // nothing configured: nothing written
    fake.SetAudioVolume(65);
    host.getAudioVolume(&volume);
    EXPECT_EQ(volume, 65);

    sStreamInfo info;
    info.name = "music1";
    EXPECT_EQ(host.AddNewStream("music1", info), -1);
    EXPECT_EQ(host.GetPlaybackDefaultOutput(), a);
    EXPECT_EQ(host.GetPlaybackDefaultOutput(), b);
    EXPECT_EQ(host.GetPlaybackDefaultOutput(), b);  // the last one repeats
    unsigned rate = 0, numCh = 0;
    tSampleSize size = SAMPLE_SIZE_16;
    host.GetSumParams(rate, numCh, size);
    EXPECT_EQ(rate, 16000u);
    EXPECT_EQ(numCh, 1u);
    EXPECT_EQ(size, SAMPLE_SIZE_32);

    boost::shared_ptr<Stream> stream(new Stream());
    host.AddPlaybackInputAlgos(stream, boost::shared_ptr<MsgNewInput>());
    ASSERT_EQ(fake.InputAlgos().size(), 1u);
    EXPECT_EQ(stream->GetAlgoById(ALGO_ID_RAMP_GAIN), fake.InputAlgos()[0].gain);
    EXPECT_TRUE(fake.InputAlgos()[0].gain);
    EXPECT_EQ(host.AddPlaybackOutputAlgos(a, stream, PLAYBACK_MODE_DEFAULT), 3);

    EXPECT_EQ(fake.NewStreams()[0].info.name, "music1");
    EXPECT_EQ(hooked, std::vector<std::string>{"music1/music1"});
    EXPECT_EQ(fake.CallCount("GetPlaybackDefaultOutput"), 3);
    EXPECT_EQ(fake.Calls(), (std::vector<std::string>{
                                "getAudioVolume", "getAudioVolume", "AddNewStream",
                                "GetPlaybackDefaultOutput", "GetPlaybackDefaultOutput",
                                "GetPlaybackDefaultOutput", "GetSumParams", "AddPlaybackInputAlgos",
                                "AddPlaybackOutputAlgos"}));
}

TEST(FakeConnectTest, ForwardsChainedMessagesAndWakesWaiters) {
    test::FakeConnect fake;
    MsgQ recordQ;
    fake.SetChainTarget(&recordQ);
    boost::shared_ptr<MsgHead> msg(new MsgHead(MSG_WRITE_INFO));
    std::thread engine([&] { static_cast<Connect&>(fake).ChainMsgRecord(msg); });
    EXPECT_TRUE(fake.WaitForCalls("ChainMsgRecord", 1, milliseconds(5000)));
    engine.join();
    EXPECT_EQ(recordQ.getMsg(false), msg);
    EXPECT_EQ(fake.ChainedMsgs().size(), 1u);
    EXPECT_FALSE(fake.WaitForCalls("Ping", 1, milliseconds(1)));
}

TEST(FakeOutputTest, CapturesCopiesCountsAndFails) {
    boost::shared_ptr<test::FakeOutput> out(new test::FakeOutput("file"));
    out->FailAtWrite(3, STATE_FAULT);
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 8000, 1));
    std::thread engine([&] {
        for (int i = 0; i < 3; ++i) {
            f->Samples16()[0] = static_cast<int16_t>(i);
            EXPECT_EQ(out->WriteFrame(f), i < 2 ? 0 : -1);
        }
        out->Pause();
        out->Resume();
        out->IdleTick();
        out->PostWrite();
    });
    EXPECT_TRUE(out->WaitForFrames(3, milliseconds(5000)));
    engine.join();
    const auto frames = out->Frames();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0]->Samples16()[0], 0);  // deep copies, not the reused frame
    EXPECT_EQ(frames[2]->Samples16()[0], 2);
    EXPECT_EQ(out->PauseCount(), 1);
    EXPECT_EQ(out->ResumeCount(), 1);
    EXPECT_EQ(out->IdleTickCount(), 1);
    EXPECT_EQ(out->PostWriteCount(), 1);
    EXPECT_LE(out->WriteTimes().back(), out->PauseTimes()[0]);
    EXPECT_LE(out->PauseTimes()[0], out->PostWriteTimes()[0]);
    EXPECT_EQ(out->State(), STATE_ACTIVE);  // Resume restarted it
    EXPECT_FALSE(out->WaitForFrames(4, milliseconds(1)));

    out->SetCopyFrames(false);  // from now on the frame objects themselves
    out->WriteFrame(f);
    EXPECT_EQ(out->Frames().back(), f);
    EXPECT_NE(out->Frames()[2], f);
}

TEST(FakeInputsTest, SineSilenceAndScript) {
    test::SineInput sine(48000, 2, 1000.0, 8000.0);
    boost::shared_ptr<AudioFrame> a = sine.Process(), b = sine.Process();
    ASSERT_EQ(a->len, 960u);
    EXPECT_EQ(a->Samples16()[0], 0);
    EXPECT_EQ(a->Samples16()[12 * 2], 8000);   // a quarter period at 1 kHz
    EXPECT_EQ(a->Samples16()[12 * 2 + 1], 8000);
    EXPECT_EQ(b->Samples16()[12 * 2], 8000);    // 20 whole periods per frame: phase carries
    sine.Pause();
    EXPECT_FALSE(sine.Process());
    EXPECT_EQ(sine.FramesProduced(), 2);

    test::SilenceInput zeros(16000, 1), none(16000, 1, "none", false);
    boost::shared_ptr<AudioFrame> z = zeros.Process();
    ASSERT_TRUE(z);
    for (uint32_t i = 0; i < z->len; ++i) ASSERT_EQ(z->Samples16()[i], 0);
    EXPECT_FALSE(none.Process());
    EXPECT_EQ(none.ProcessCount(), 1);

    test::ScriptedInput script(48000, 2, "media");
    boost::shared_ptr<AudioFrame> f = script.MakeFrame(42);
    script.Push(f);
    script.PushHangup();
    script.SetCmd(CMD_PAUSE);
    Input& in = script;
    EXPECT_EQ(in.GetCmd(), CMD_PAUSE);
    in.PauseDelay(250);
    EXPECT_EQ(in.HandleCmd(CMD_PAUSE), 0);
    EXPECT_EQ(in.GetCmd(), CMD_NONE);
    EXPECT_EQ(in.Process(), f);
    EXPECT_EQ(in.state, STATE_ACTIVE);
    EXPECT_FALSE(in.Process());
    EXPECT_EQ(in.state, STATE_HANGUP);
    EXPECT_FALSE(in.Process());
    EXPECT_EQ(script.Ops(), (std::vector<std::string>{"GetCmd 1", "PauseDelay 250", "HandleCmd 1",
                                                      "Process", "Process", "Process"}));

    // Blocking when empty: a Process waits (already recorded) for the next step, and
    // clearing the setting lets a waiting one return without a frame.
    script.SetBlockWhenEmpty(true);
    boost::shared_ptr<AudioFrame> got;
    std::thread reader([&] {
        got = in.Process();
        in.Process();
    });
    ASSERT_TRUE(script.WaitForOps("Process", 4, milliseconds(5000)));
    script.Push(f);
    ASSERT_TRUE(script.WaitForOps("Process", 5, milliseconds(5000)));
    script.SetBlockWhenEmpty(false);
    reader.join();
    EXPECT_EQ(got, f);
}

}  // namespace
}  // namespace mixer
