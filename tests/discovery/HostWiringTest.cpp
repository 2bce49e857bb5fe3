// A host wired to both the watcher and the record engine: a client process announces
// two record streams with description files, the host turns each into an output
// stream, and microphone frames reach both.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/discovery/Discovery.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/record/Record.h"
#include "tests/discovery/PrivateRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace {

using test::ChildProcess;
using test::FakeOutput;
using test::LogCapture;
using test::Pipe;

const std::chrono::milliseconds kWait(20000);

sStreamInfo RecordStream(const std::string& name) {
    sStreamInfo info;
    info.name = name;
    info.type = kTypeShmQ;
    info.rate = 16000;
    info.numCh = 1;
    info.sampleSize = 2;
    return info;
}

TEST(HostWiringTest, ClientStreamsReceiveMicrophoneFrames) {
    MIXER_REQUIRE_PRIVATE_RUN();
    // Forked before any thread starts; writes its files once the watcher runs.
    Pipe go;
    ChildProcess client([&] {
        CHILD_CHECK(go.Receive() == '.');
        CHILD_CHECK(UtilWriteFile(RecordStream(kStreamMicAsr)) == 0);
        CHILD_CHECK(UtilWriteFile(RecordStream(kStreamMicRaw)) == 0);
        UtilPing();
        return 0;
    });

    LogCapture log;
    Record record;
    test::FakeConnect host;
    boost::shared_ptr<test::ScriptedInput> mic(new test::ScriptedInput(16000, 1, "microphone"));
    mic->SetBlockWhenEmpty(true);
    host.SetDefaultInput(mic);
    // Accepts every announced stream by opening an output for it on the record engine.
    host.SetNewStreamHook([&record](const std::string&, const sStreamInfo& info) {
        boost::shared_ptr<FakeOutput> out(new FakeOutput(info.name));
        out->SetCopyFrames(false);
        record.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(new MsgNewOutput(out, PLAYBACK_MODE_DEFAULT)));
    });
    Discovery discovery;
    ASSERT_EQ(0, record.Init(&host));
    ASSERT_EQ(1, discovery.Init(&host));

    go.Send();
    ASSERT_EQ(0, client.Wait());
    ASSERT_TRUE(host.WaitForCalls("Ping", 1, kWait));
    const std::vector<test::FakeConnect::NewStreamCall> offers = host.NewStreams();
    ASSERT_EQ(2u, offers.size());
    EXPECT_EQ("micAsr", offers[0].fileName);
    EXPECT_EQ("micRaw", offers[1].fileName);
    ASSERT_TRUE(host.WaitForCalls("AddRecordAlgos", 2, kWait));

    record.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(new MsgEnableMic(1)));
    for (int16_t v : {11, 12}) {
        boost::shared_ptr<AudioFrame> frame = mic->MakeFrame(v);
        std::strcpy(frame->bufId, v == 11 ? "7" : "8");
        mic->Push(frame);
    }
    std::vector<boost::shared_ptr<FakeOutput> > outputs;
    for (const test::FakeConnect::RecordAlgosCall& call : host.RecordAlgos())
        outputs.push_back(boost::dynamic_pointer_cast<FakeOutput>(call.stream->GetOutput()));
    ASSERT_EQ(2u, outputs.size());
    for (const boost::shared_ptr<FakeOutput>& out : outputs) {
        ASSERT_TRUE(out && out->WaitForFrames(2, kWait));
        const std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
        ASSERT_EQ(2u, frames.size()) << out->name;
        EXPECT_EQ(11, frames[0]->Samples16()[0]);
        EXPECT_EQ(12, frames[1]->Samples16()[frames[1]->len - 1]);
        EXPECT_STREQ("8", frames[1]->bufId);
    }
    EXPECT_EQ("micAsr", outputs[0]->name);
    EXPECT_EQ("micRaw", outputs[1]->name);
    EXPECT_NE(outputs[0]->Frames()[0].get(), outputs[1]->Frames()[0].get());
    // Both announcements are accepted, so both files stay.
    EXPECT_EQ(std::vector<std::string>({"micAsr", "micRaw"}), test::DirEntries(kStreamDir));

    // Shutdown: the record thread waits for a frame; DeInit needs it released.
    std::thread stopper([&] { record.DeInit(); });
    ASSERT_TRUE(log.WaitFor("I MsgQ:sendMsg:NULL:"));
    mic->SetBlockWhenEmpty(false);
    stopper.join();
    EXPECT_EQ(1, discovery.DeInit());
    EXPECT_FALSE(test::PathExists(kStreamDir));
}

}  // namespace
}  // namespace mixer
