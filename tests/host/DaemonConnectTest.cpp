// The daemon's connection to the engines, driven the way the library's threads drive
// it but without the engines: the test takes the posted messages from the queues.
// Runs in a private /run (see CMakeLists.txt): stream tokens remove description files.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "host/AlgoLatencyMark.h"
#include "host/DaemonConnect.h"
#include "host/LatencyCarrierInput.h"
#include "host/MsgNewClientOutput.h"
#include "host/StreamQueueName.h"
#include "host/TrailingSilence.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"
#include "mixer/transport/DataTrans.h"
#include "tests/discovery/PrivateRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace {

using host::DaemonConnect;
using host::EventQueue;

sStreamInfo Info(const std::string& name, const std::string& type, const std::string& meta, unsigned rate = 48000,
                 unsigned numCh = 2) {
    sStreamInfo info;
    info.id = 1;
    info.name = name;
    info.type = type;
    info.rate = rate;
    info.numCh = numCh;
    info.sampleSize = 2;
    info.meta = meta;
    return info;
}

// The client's end of a stream: its block queue and its description file.
struct Client {
    explicit Client(const sStreamInfo& info_) : info(info_) {
        created = queue.Init(host::StreamQueueName(info.name).c_str(), 4, 3840) == 0;
        UtilWriteFile(info);
    }
    bool FileExists() const { return test::PathExists(std::string(kStreamDir) + "/" + info.name); }
    sStreamInfo info;
    DataTrans queue;
    bool created;
};

class DaemonConnectTest : public testing::Test {
protected:
    DaemonConnectTest()
        : playbackQ(boost::make_shared<MsgQ>()), recordQ(boost::make_shared<MsgQ>()),
          probe(boost::make_shared<host::LatencyProbe>()) {}

    void SetUp() override {
        MIXER_REQUIRE_PRIVATE_RUN();
        settings.rate = 48000;
        settings.numCh = 2;
        settings.deviceRate = 48000;
        settings.micRate = 16000;
        settings.micNumCh = 1;
        Make();
    }

    void Make() {
        connect.reset(new DaemonConnect(settings, outputs, mics, events, probe));
        connect->SetQueues(playbackQ, recordQ);
    }

    std::vector<std::string> Events() {
        std::vector<std::string> sent;
        events.Deliver([&](const std::string& e, const std::string& p) { sent.push_back(e + " " + p); });
        return sent;
    }

    // Runs the stream's chain over one frame of the given format.
    static boost::shared_ptr<AudioFrame> Through(Stream& stream, unsigned rate, unsigned numCh) {
        boost::shared_ptr<AudioFrame> f = boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, rate, numCh, 20);
        std::memset(f->data, 0, f->size);
        return stream.Process(f);
    }

    std::string Unique(const std::string& base) { return base + std::to_string(getpid()); }

    DaemonConnect::Settings settings;
    DaemonConnect::OutputSource outputs;
    DaemonConnect::MicSource mics;
    EventQueue events;
    boost::shared_ptr<MsgQ> playbackQ, recordQ;
    boost::shared_ptr<host::LatencyProbe> probe;
    std::unique_ptr<DaemonConnect> connect;
};

TEST_F(DaemonConnectTest, PlaybackStreamBecomesAnInputWhoseDepartureRemovesItsFileAndIsAnnounced) {
    Client music(Info(Unique("music"), host::kTypeDataTrans, "music", 22050, 1));
    ASSERT_TRUE(music.created);
    ASSERT_TRUE(music.FileExists());
    sStreamInfo info = music.info;
    ASSERT_EQ(connect->AddNewStream(info.name, info), 0);

    boost::shared_ptr<MsgNewInput> msg = boost::dynamic_pointer_cast<MsgNewInput>(playbackQ->getMsg(false));
    ASSERT_TRUE(msg);
    EXPECT_FALSE(playbackQ->getMsg(false)) << "no focus was asked for";
    EXPECT_FALSE(recordQ->getMsg(false));
    EXPECT_EQ(msg->input->name, info.name);
    EXPECT_EQ(msg->input->desc, "music");
    EXPECT_EQ(msg->input->rate, 22050u);
    EXPECT_EQ(Events(), std::vector<std::string>{"MixerStreamAdded " + info.name});
    EXPECT_EQ(connect->LiveStreams().count(info.name), 1u);

    // Announced again while live (the client rewrote its file): nothing new.
    ASSERT_EQ(connect->AddNewStream(info.name, info), 0);
    EXPECT_FALSE(playbackQ->getMsg(false));

    // The engine builds the stream: resampled to the mix rate, spread to both
    // channels, then a ramp gain.
    boost::shared_ptr<Stream> stream = boost::make_shared<Stream>();
    stream->SetInput(msg->input);
    connect->AddPlaybackInputAlgos(stream, msg);
    boost::shared_ptr<AudioFrame> out = Through(*stream, 22050, 1);
    EXPECT_EQ(out->rate, 48000u);
    EXPECT_EQ(out->numCh, 2u);
    EXPECT_EQ(out->len, 960u);
    EXPECT_TRUE(boost::dynamic_pointer_cast<AlgoRampGain>(stream->GetAlgoByPos(2)));

    // The engine drops the stream: its token fires once the last holder lets go.
    msg.reset();
    EXPECT_TRUE(music.FileExists());
    stream.reset();
    EXPECT_FALSE(music.FileExists());
    EXPECT_EQ(Events(), std::vector<std::string>{"MixerStreamRemoved " + info.name});
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, RecordNamesBecomeOutputsInTheClientsFormatAndOnlyOverTheBlockQueue) {
    Client rec(Info(kStreamMicRaw, host::kTypeDataTrans, "record", 48000, 2));
    ASSERT_TRUE(rec.created);
    sStreamInfo info = rec.info;
    ASSERT_EQ(connect->AddNewStream(info.name, info), 0);
    boost::shared_ptr<host::MsgNewClientOutput> msg =
        boost::dynamic_pointer_cast<host::MsgNewClientOutput>(recordQ->getMsg(false));
    ASSERT_TRUE(msg);
    EXPECT_FALSE(playbackQ->getMsg(false));
    EXPECT_EQ(msg->output->name, "micRaw");

    boost::shared_ptr<StreamOut> stream = boost::make_shared<StreamOut>();
    stream->SetOutput(msg->output);
    connect->AddRecordAlgos(stream, msg);
    boost::shared_ptr<AudioFrame> out = Through(*stream, 16000, 1);  // the microphone's format
    EXPECT_EQ(out->rate, 48000u);
    EXPECT_EQ(out->numCh, 2u);
    EXPECT_EQ(out->len, 960u);
    // The client reads what the daemon wrote.
    ASSERT_EQ(stream->ProcessOut(out), STATE_ACTIVE);
    int err = 0;
    unsigned len = 0;
    ASSERT_TRUE(rec.queue.GetReadBuff(err, len, 0, nullptr)) << err;
    EXPECT_EQ(len, out->size);
    rec.queue.ReleaseReadBuff();
    msg.reset();
    stream.reset();
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerStreamAdded micRaw", "MixerStreamRemoved micRaw"}));

    // A record name over another transport has nothing to write into.
    sStreamInfo shm = Info(kStreamMicAsr, kTypeShmQ, "record");
    EXPECT_NE(connect->AddNewStream(shm.name, shm), 0);
    EXPECT_FALSE(recordQ->getMsg(false));
}

TEST_F(DaemonConnectTest, StreamsThatCannotPlayAreRefusedWithoutTraceOrAnnouncement) {
    struct Case {
        sStreamInfo info;
        const char* why;
    };
    sStreamInfo wide = Info(Unique("wide"), host::kTypeDataTrans, "music");
    wide.sampleSize = 4;
    std::vector<Case> cases = {
        {wide, "32-bit samples"},
        {Info(Unique("odd"), host::kTypeDataTrans, "music", 11025, 2), "no whole 20-ms frames"},
        {Info(Unique("file"), kTypeFile, "music"), "transport the daemon does not read"},
        {Info(Unique("gone"), host::kTypeDataTrans, "music"), "no queue to open"},
        {Info(Unique("noq"), kTypeShmQ, "music"), "no platform queue to open"},
        {Info("", host::kTypeDataTrans, "music"), "no name"},
    };
    for (Case& c : cases) {
        EXPECT_NE(connect->AddNewStream(c.info.name, c.info), 0) << c.why;
        EXPECT_FALSE(playbackQ->getMsg(false)) << c.why;
    }
    EXPECT_TRUE(Events().empty());
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, AFocusedTypeIsFocusedAgainForEveryStreamOfItThatArrives) {
    connect->FocusChanged("prompt");
    EXPECT_EQ(Events(), std::vector<std::string>{"MixerFocusChanged prompt"});
    Client music(Info(Unique("m"), host::kTypeDataTrans, "music"));
    Client prompt(Info(Unique("p"), host::kTypeDataTrans, "prompt"));
    sStreamInfo mi = music.info, pi = prompt.info;
    ASSERT_EQ(connect->AddNewStream(mi.name, mi), 0);
    ASSERT_EQ(connect->AddNewStream(pi.name, pi), 0);
    std::vector<boost::shared_ptr<MsgHead> > posted;
    while (boost::shared_ptr<MsgHead> m = playbackQ->getMsg(false)) posted.push_back(m);
    ASSERT_EQ(posted.size(), 3u);
    EXPECT_EQ(posted[0]->type, MSG_NEW_INPUT);
    EXPECT_EQ(posted[1]->type, MSG_NEW_INPUT);
    boost::shared_ptr<MsgSetFocus> focus = boost::dynamic_pointer_cast<MsgSetFocus>(posted[2]);
    ASSERT_TRUE(focus) << "the focus follows its stream";
    EXPECT_EQ(focus->streamType, "prompt");
    posted.clear();

    connect->FocusChanged("");  // "focus none": later prompts are not focused
    Client prompt2(Info(Unique("q"), host::kTypeDataTrans, "prompt"));
    sStreamInfo qi = prompt2.info;
    ASSERT_EQ(connect->AddNewStream(qi.name, qi), 0);
    EXPECT_EQ(playbackQ->getMsg(false)->type, MSG_NEW_INPUT);
    EXPECT_FALSE(playbackQ->getMsg(false));
}

TEST_F(DaemonConnectTest, StreamsComeAndGoOnSeveralThreadsWithEveryAdditionMatchedByARemoval) {
    // Discovery adds streams while the "playback thread" takes and drops them and the
    // "control thread" changes the focus: the shape of the daemon's own concurrency.
    const int kStreams = 20;
    std::vector<std::unique_ptr<Client> > clients;
    for (int i = 0; i < kStreams; ++i)
        clients.emplace_back(new Client(Info(Unique("s" + std::to_string(i) + "-"), host::kTypeDataTrans,
                                             i % 2 ? "prompt" : "music")));
    std::thread discovery([&] {
        for (auto& c : clients) {
            sStreamInfo info = c->info;
            connect->AddNewStream(info.name, info);
        }
        playbackQ->sendMsg(boost::make_shared<MsgHead>(MSG_PING));  // the end
    });
    std::thread control([&] {
        for (int i = 0; i < kStreams; ++i) connect->FocusChanged(i % 2 ? "prompt" : "");
    });
    int inputs = 0;
    for (;;) {
        boost::shared_ptr<MsgHead> m = playbackQ->getMsg(true);
        if (m->type == MSG_PING) break;
        if (m->type == MSG_NEW_INPUT) ++inputs;
    }
    discovery.join();
    control.join();
    EXPECT_EQ(inputs, kStreams);
    EXPECT_TRUE(connect->LiveStreams().empty());
    int added = 0, removed = 0;
    for (const std::string& e : Events()) {
        added += e.compare(0, 16, "MixerStreamAdded") == 0;
        removed += e.compare(0, 18, "MixerStreamRemoved") == 0;
    }
    EXPECT_EQ(added, kStreams);
    EXPECT_EQ(removed, kStreams);
    for (auto& c : clients) EXPECT_FALSE(c->FileExists()) << c->info.name;
}

// A client in a process of its own: creates its queue with `blocks` blocks of 20 ms
// queued, announces the stream with its pid, and then waits to be killed (stay) or
// ends at once without closing its queue, as a crash would.
// The queue's name is removed at the end, whatever the test left behind.
struct ClientProcess {
    ClientProcess(const sStreamInfo& info_, int blocks, bool stay)
        : info(info_), queueName(host::StreamQueueName(info_.name)), child([this, blocks, stay] {
              DataTrans queue;
              CHILD_CHECK(queue.Init(queueName.c_str(), 4, 3840) == 0);
              for (int i = 0; i < blocks; ++i) {
                  int err = 0;
                  char* block = queue.GetWriteBuff(err, 0);
                  CHILD_CHECK(block != nullptr);
                  std::memset(block, 0x11, 3840);
                  CHILD_CHECK(queue.CommitWriteBuff(3840, nullptr));
              }
              sStreamInfo mine = info;
              mine.id = static_cast<int>(getpid());
              CHILD_CHECK(UtilWriteFile(mine) == 0);
              ready.Send();
              if (stay)
                  for (;;) pause();
              _exit(0);  // without closing the queue (no result for Wait either)
          }) {}
    ~ClientProcess() { shm_unlink(queueName.c_str()); }
    bool QueueExists() const { return test::PathExists("/dev/shm" + queueName); }
    bool FileExists() const { return test::PathExists(std::string(kStreamDir) + "/" + info.name); }
    sStreamInfo info;
    std::string queueName;
    test::Pipe ready;
    test::ChildProcess child;
};

TEST_F(DaemonConnectTest, KilledClientLeavesNothingBehind) {
    if (!host::ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: killed clients are not noticed";
    test::LogCapture log;
    // A playback client and a record client, both killed while their streams are live.
    ClientProcess player(Info(Unique("killed"), host::kTypeDataTrans, "music"), 2, true);
    ClientProcess recorder(Info(kStreamMicRaw, host::kTypeDataTrans, "record", 16000, 1), 0, true);
    ASSERT_EQ(player.ready.Receive(), '.');
    ASSERT_EQ(recorder.ready.Receive(), '.');
    sStreamInfo pi, ri;  // as the discovery thread reads them
    ASSERT_EQ(UtilReadFile(player.info.name, pi), 0);
    ASSERT_EQ(UtilReadFile(recorder.info.name, ri), 0);
    EXPECT_EQ(pi.id, player.child.pid());
    ASSERT_EQ(connect->AddNewStream(pi.name, pi), 0);
    ASSERT_EQ(connect->AddNewStream(ri.name, ri), 0);
    boost::shared_ptr<MsgNewInput> in = boost::dynamic_pointer_cast<MsgNewInput>(playbackQ->getMsg(false));
    boost::shared_ptr<MsgNewOutput> out = boost::dynamic_pointer_cast<MsgNewOutput>(recordQ->getMsg(false));
    ASSERT_TRUE(in && out);
    boost::shared_ptr<AudioFrame> frame = in->input->Process();
    ASSERT_TRUE(frame) << "the queued block plays while the client lives";
    EXPECT_EQ(in->input->state, STATE_ACTIVE);

    // The kill, with one block still queued: it still plays.
    ASSERT_EQ(kill(player.child.pid(), SIGKILL), 0);
    ASSERT_EQ(kill(recorder.child.pid(), SIGKILL), 0);
    EXPECT_EQ(player.child.Wait(), -1);
    EXPECT_EQ(recorder.child.Wait(), -1);
    for (const ClientProcess* c : {&player, &recorder})
        ASSERT_TRUE(log.WaitFor("W Mixerd_Connect:ClientEnded:" + c->info.name + ": process " +
                                std::to_string(c == &player ? pi.id : ri.id) +
                                " ended without closing its queue: hung up:"))
            << log.Dump();

    // The engines' view: the input ends as for a client that closed (its last block,
    // its tail of silence, then nothing), the output turns Hangup at its next write.
    frame = in->input->Process();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->Samples16()[0], 0x1111);
    ASSERT_TRUE(in->input->Process());
    EXPECT_EQ(in->input->state, STATE_HANGUP);
    EXPECT_FALSE(in->input->Process());
    EXPECT_EQ(out->output->WriteFrame(boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, 16000, 1, 20)), -1);
    EXPECT_EQ(out->output->state, STATE_HANGUP);
    EXPECT_TRUE(player.QueueExists()) << "the daemon's share is still open";

    // The engines drop them: the daemon's close, the last, removes everything.
    in.reset();
    out.reset();
    for (const ClientProcess* c : {&player, &recorder}) {
        EXPECT_FALSE(c->QueueExists()) << c->queueName;
        EXPECT_FALSE(c->FileExists()) << c->info.name;
    }
    EXPECT_TRUE(connect->LiveStreams().empty());
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerStreamAdded " + pi.name, "MixerStreamAdded micRaw",
                                                  "MixerStreamRemoved " + pi.name, "MixerStreamRemoved micRaw"}));
}

TEST_F(DaemonConnectTest, AClientThatEndedBeforeItsStreamWasAcceptedIsHungUpAtOnce) {
    if (!host::ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: ended clients are not noticed";
    ClientProcess gone(Info(Unique("early"), host::kTypeDataTrans, "music"), 1, false);
    ASSERT_EQ(gone.ready.Receive(), '.');
    EXPECT_EQ(gone.child.Wait(), -1);  // reaped: its pid names no process now
    sStreamInfo info;
    ASSERT_EQ(UtilReadFile(gone.info.name, info), 0);
    ASSERT_EQ(connect->AddNewStream(info.name, info), 0);
    boost::shared_ptr<MsgNewInput> in = boost::dynamic_pointer_cast<MsgNewInput>(playbackQ->getMsg(false));
    ASSERT_TRUE(in);
    ASSERT_TRUE(in->input->Process()) << "its last block";
    ASSERT_TRUE(in->input->Process()) << "the tail";
    EXPECT_EQ(in->input->state, STATE_HANGUP);
    in.reset();
    EXPECT_FALSE(gone.QueueExists());
    EXPECT_FALSE(gone.FileExists());
}

TEST_F(DaemonConnectTest, WithoutEnginesStreamsAreRefusedAndRequestsDropped) {
    Client music(Info(Unique("late"), host::kTypeDataTrans, "music"));
    playbackQ.reset();  // the engines are gone (shutdown)
    recordQ.reset();
    sStreamInfo info = music.info;
    EXPECT_NE(connect->AddNewStream(info.name, info), 0);
    connect->PostPlayback(boost::make_shared<MsgHead>(MSG_PING));
    connect->ChainMsgRecord(boost::make_shared<MsgHead>(MSG_PING));
    // The token of the unposted input announced its end after its start.
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerStreamAdded " + info.name,
                                                  "MixerStreamRemoved " + info.name}));
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, DevicesAndTheDeviceChain) {
    // No device: the mix still goes somewhere that keeps time; no microphone: silence.
    boost::shared_ptr<Output> out = connect->GetPlaybackDefaultOutput();
    ASSERT_TRUE(out);
    EXPECT_NE(out->name, "ALSA");
    EXPECT_EQ(out->WriteFrame(boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, 48000, 2, 20)), 0);
    boost::shared_ptr<Input> mic = connect->GetRecordDefaultInput();
    ASSERT_TRUE(mic);
    EXPECT_EQ(mic->rate, 16000u);
    boost::shared_ptr<AudioFrame> heard = mic->Process();
    ASSERT_TRUE(heard);
    for (uint32_t i = 0; i < heard->len; ++i) ASSERT_EQ(heard->Samples16()[i], 0);

    // A device at another rate than the mix: the chain converts, and a latency mark is
    // written after the conversion.
    boost::shared_ptr<test::FakeOutput> device = boost::make_shared<test::FakeOutput>("dev");
    outputs = [device] { return device; };
    settings.deviceRate = 44100;
    Make();
    EXPECT_EQ(connect->GetPlaybackDefaultOutput(), device);
    boost::shared_ptr<StreamOut> chain = boost::make_shared<StreamOut>();
    EXPECT_EQ(connect->AddPlaybackOutputAlgos(device, chain, PLAYBACK_MODE_DEFAULT), 0);
    boost::shared_ptr<AlgoSilence> mark =
        boost::dynamic_pointer_cast<AlgoSilence>(chain->GetAlgoById(ALGO_ID_SILENCE));
    ASSERT_TRUE(mark);
    EXPECT_EQ(Through(*chain, 48000, 2)->rate, 44100u);
    probe->Arm();
    mark->running = 1;
    boost::shared_ptr<AudioFrame> marked = Through(*chain, 48000, 2);
    EXPECT_EQ(marked->rate, 44100u);
    EXPECT_EQ(marked->Samples16()[0], host::LatencyProbe::kMarkLevel) << "the mark is written as is";
    EXPECT_EQ(mark->running, 0);
    EXPECT_EQ(mark->count, 1);
    EXPECT_FALSE(probe->WantsMark());
    EXPECT_EQ(Through(*chain, 48000, 2)->Samples16()[0], 0) << "one frame only";

    // The latency test's carrier stays out of volumes and ducking.
    boost::shared_ptr<Stream> carrier = boost::make_shared<Stream>();
    carrier->SetInput(boost::make_shared<host::LatencyCarrierInput>(probe, 48000, 2, 5));
    connect->AddPlaybackInputAlgos(carrier, boost::shared_ptr<MsgNewInput>());
    EXPECT_FALSE(carrier->GetAlgoById(ALGO_ID_RAMP_GAIN));
}

TEST(TrailingSilenceTest, AHungUpInputGivesOneSilentFrameAndThenNothing) {
    host::TrailingSilence<test::ScriptedInput> in(22050, 1);
    in.Push(in.MakeFrame(1000));
    in.PushHangup();
    in.PushHangup();
    boost::shared_ptr<AudioFrame> f = in.Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(f->Samples16()[0], 1000);
    f = in.Process();
    ASSERT_TRUE(f) << "the tail that flushes a resampler";
    EXPECT_EQ(f->rate, 22050u);
    EXPECT_EQ(f->len, 441u);
    for (uint32_t i = 0; i < f->len; ++i) ASSERT_EQ(f->Samples16()[i], 0);
    EXPECT_FALSE(in.Process());
    EXPECT_EQ(in.state, STATE_HANGUP);
}

}  // namespace
}  // namespace mixer
