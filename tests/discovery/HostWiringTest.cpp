// A host wired to both the watcher and the record engine: a client process announces
// two record streams with description files, the host turns each into an output
// stream, and microphone frames reach both.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgPing.h"
#include "mixer/discovery/Discovery.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/record/Record.h"
#include "tests/discovery/DiscoveryHost.h"
#include "tests/discovery/PrivateRun.h"
#include "tests/record/RecordFakes.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using test::ClientProcess;
using test::LogCapture;
using test::MicFrame;
using test::MicInput;
using test::TapOutput;
using test::Trace;

// Accepts every announced stream by opening an output for it on the record engine.
class WiredHost : public test::RecordHost {
public:
    WiredHost(Trace& trace, Record& record) : RecordHost(trace), trace_(trace), record_(record) {}

    int AddNewStream(const std::string& fileName, sStreamInfo& info) override {
        boost::shared_ptr<TapOutput> out(new TapOutput(trace_, info.name));
        {
            std::lock_guard<std::mutex> guard(lock_);
            outputs_.push_back(out);
            files_.push_back(fileName);
        }
        record_.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(new MsgNewOutput(out, PLAYBACK_MODE_DEFAULT)));
        return 0;
    }
    void Ping() override { trace_.Add("host:ping"); }

    std::vector<boost::shared_ptr<TapOutput> > Outputs() {
        std::lock_guard<std::mutex> guard(lock_);
        return outputs_;
    }
    std::vector<std::string> Files() {
        std::lock_guard<std::mutex> guard(lock_);
        return files_;
    }

private:
    Trace& trace_;
    Record& record_;
    std::mutex lock_;
    std::vector<boost::shared_ptr<TapOutput> > outputs_;  // GUARDED_BY(lock_)
    std::vector<std::string> files_;                      // GUARDED_BY(lock_)
};

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
    ClientProcess client([] {
        if (UtilWriteFile(RecordStream(kStreamMicAsr)) != 0) _exit(1);
        if (UtilWriteFile(RecordStream(kStreamMicRaw)) != 0) _exit(1);
        UtilPing();
    });

    LogCapture log;
    Trace trace;
    Record record;
    WiredHost host(trace, record);
    boost::shared_ptr<MicInput> mic(new MicInput(trace, "mic"));
    host.AddInput(mic);
    Discovery discovery;
    ASSERT_EQ(0, record.Init(&host));
    ASSERT_EQ(1, discovery.Init(&host));

    ASSERT_EQ(0, client.Run());
    ASSERT_TRUE(trace.WaitFor("host:ping"));
    EXPECT_EQ(std::vector<std::string>({"micAsr", "micRaw"}), host.Files());
    ASSERT_TRUE(trace.WaitFor("host:algos micRaw"));

    record.GetMsgQ()->sendMsg(boost::shared_ptr<MsgHead>(new MsgEnableMic(1)));
    mic->Feed(MicFrame(11, "7"));
    mic->Feed(MicFrame(12, "8"));
    ASSERT_TRUE(trace.WaitFor("micAsr:write", 2));
    ASSERT_TRUE(trace.WaitFor("micRaw:write", 2));

    const std::vector<boost::shared_ptr<TapOutput> > outputs = host.Outputs();
    ASSERT_EQ(2u, outputs.size());
    for (const boost::shared_ptr<TapOutput>& out : outputs) {
        const std::vector<boost::shared_ptr<AudioFrame> > frames = out->Frames();
        ASSERT_EQ(2u, frames.size()) << out->name;
        EXPECT_EQ(11, frames[0]->Samples16()[0]);
        EXPECT_EQ(12, frames[1]->Samples16()[frames[1]->len - 1]);
        EXPECT_STREQ("8", frames[1]->bufId);
    }
    EXPECT_NE(outputs[0]->Frames()[0].get(), outputs[1]->Frames()[0].get());
    // Both announcements are accepted, so both files stay.
    EXPECT_EQ(std::vector<std::string>({"micAsr", "micRaw"}), test::DirEntries(kStreamDir));

    // Shutdown: the record thread waits for a frame; DeInit needs it released.
    std::thread stopper([&] { record.DeInit(); });
    ASSERT_TRUE(log.WaitFor("I MsgQ:sendMsg:NULL:"));
    mic->Close();
    stopper.join();
    EXPECT_EQ(1, discovery.DeInit());
    EXPECT_FALSE(test::PathExists(kStreamDir));
}

}  // namespace
}  // namespace mixer
