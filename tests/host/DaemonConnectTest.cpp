// The daemon's connection to the engines, driven the way the library's threads drive
// it but without the engines: the test takes the posted messages from the queues.
// Runs in a private /run (see CMakeLists.txt): stream tokens remove description files.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

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

using host::ClientWatcher;
using host::kTypeDataTrans;

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

std::string Unique(const std::string& base) { return base + std::to_string(getpid()); }
bool FileExists(const sStreamInfo& info) { return test::PathExists(std::string(kStreamDir) + "/" + info.name); }

// The client's end of a stream: its block queue and its description file.
struct Client {
    explicit Client(const sStreamInfo& info_) : info(info_) {
        created = queue.Init(host::StreamQueueName(info.name).c_str(), 4, 3840) == 0;
        UtilWriteFile(info);
    }
    sStreamInfo info;
    DataTrans queue;
    bool created;
};

class DaemonConnectTest : public testing::Test {
protected:
    void SetUp() override {
        MIXER_REQUIRE_PRIVATE_RUN();
        settings.rate = settings.deviceRate = 48000;
        settings.numCh = 2;
        settings.micRate = 16000;
        settings.micNumCh = 1;
        Make();
    }
    void Make() {
        connect.reset(new host::DaemonConnect(settings, outputs, mics, events, probe));
        connect->SetQueues(playbackQ, recordQ);
    }
    int Add(const sStreamInfo& info) {
        sStreamInfo copy = info;
        return connect->AddNewStream(info.name, copy);
    }
    std::vector<std::string> Events() {
        std::vector<std::string> sent;
        events.Deliver([&](const std::string& e, const std::string& p) { sent.push_back(e + " " + p); });
        return sent;
    }
    // Runs the stream's chain over one silent frame of the given format.
    static boost::shared_ptr<AudioFrame> Through(Stream& stream, unsigned rate, unsigned numCh) {
        boost::shared_ptr<AudioFrame> f = boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, rate, numCh, 20);
        std::memset(f->data, 0, f->size);
        return stream.Process(f);
    }
    template <class M>
    static boost::shared_ptr<M> Take(const boost::shared_ptr<MsgQ>& q) {
        return boost::dynamic_pointer_cast<M>(q->getMsg(false));
    }

    host::DaemonConnect::Settings settings;
    host::DaemonConnect::OutputSource outputs;
    host::DaemonConnect::MicSource mics;
    host::EventQueue events;
    boost::shared_ptr<MsgQ> playbackQ = boost::make_shared<MsgQ>(), recordQ = boost::make_shared<MsgQ>();
    boost::shared_ptr<host::LatencyProbe> probe = boost::make_shared<host::LatencyProbe>();
    std::unique_ptr<host::DaemonConnect> connect;
};

TEST_F(DaemonConnectTest, PlaybackStreamBecomesAnInputFocusedByTypeWhoseDepartureIsAnnounced) {
    connect->FocusChanged("prompt");
    Client music(Info(Unique("music"), kTypeDataTrans, "music", 22050, 1));
    Client prompt(Info(Unique("p"), kTypeDataTrans, "prompt"));
    ASSERT_TRUE(music.created && FileExists(music.info));
    ASSERT_EQ(Add(music.info), 0);
    ASSERT_EQ(Add(prompt.info), 0);
    ASSERT_EQ(Add(music.info), 0);  // announced again while live (the client rewrote its file): nothing new
    boost::shared_ptr<MsgNewInput> msg = Take<MsgNewInput>(playbackQ);
    ASSERT_TRUE(msg);
    EXPECT_EQ(msg->input->name, music.info.name);
    EXPECT_EQ(msg->input->desc, "music");
    EXPECT_EQ(msg->input->rate, 22050u);
    boost::shared_ptr<MsgNewInput> promptMsg = Take<MsgNewInput>(playbackQ);
    EXPECT_EQ(promptMsg->input->desc, "prompt");
    boost::shared_ptr<MsgSetFocus> focus = Take<MsgSetFocus>(playbackQ);
    ASSERT_TRUE(focus) << "the focus follows its stream";
    EXPECT_EQ(focus->streamType, "prompt");
    EXPECT_FALSE(playbackQ->getMsg(false));
    EXPECT_FALSE(recordQ->getMsg(false));
    EXPECT_EQ(connect->LiveStreams().size(), 2u);
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerFocusChanged prompt", "MixerStreamAdded " + music.info.name,
                                                  "MixerStreamAdded " + prompt.info.name}));

    // The engine builds the stream: resampled to the mix rate, spread to both channels,
    // then a ramp gain.
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
    EXPECT_TRUE(FileExists(music.info));
    stream.reset();
    EXPECT_FALSE(FileExists(music.info));
    EXPECT_EQ(Events(), std::vector<std::string>{"MixerStreamRemoved " + music.info.name});
    EXPECT_EQ(connect->LiveStreams().count(music.info.name), 0u);

    connect->FocusChanged("");  // "focus none": later prompts are not focused
    Client prompt2(Info(Unique("q"), kTypeDataTrans, "prompt"));
    ASSERT_EQ(Add(prompt2.info), 0);
    EXPECT_TRUE(Take<MsgNewInput>(playbackQ));
    EXPECT_FALSE(playbackQ->getMsg(false));
    EXPECT_EQ(Events()[0], "MixerFocusChanged none");
}

TEST_F(DaemonConnectTest, RecordNamesBecomeOutputsInTheClientsFormatOverTheBlockQueue) {
    Client rec(Info(kStreamMicRaw, kTypeDataTrans, "record", 48000, 2));
    ASSERT_TRUE(rec.created);
    ASSERT_EQ(Add(rec.info), 0);
    boost::shared_ptr<host::MsgNewClientOutput> msg = Take<host::MsgNewClientOutput>(recordQ);
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
    ASSERT_EQ(stream->ProcessOut(out), STATE_ACTIVE);
    int err = 0;
    unsigned len = 0;
    ASSERT_TRUE(rec.queue.GetReadBuff(err, len, 0, nullptr)) << err;  // the client reads what the daemon wrote
    EXPECT_EQ(len, out->size);
    rec.queue.ReleaseReadBuff();
    msg.reset();
    stream.reset();
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerStreamAdded micRaw", "MixerStreamRemoved micRaw"}));
}

TEST_F(DaemonConnectTest, StreamsThatCannotPlayAreRefusedWithoutTraceOrAnnouncement) {
    sStreamInfo wide = Info(Unique("wide"), kTypeDataTrans, "music");
    wide.sampleSize = 4;
    const struct {
        sStreamInfo info;
        const char* why;  // the refusal logged; none when the queue does not open
    } cases[] = {
        {Info("", kTypeDataTrans, "music"), "no usable stream name"},
        {Info("a/b", kTypeDataTrans, "music"), "no usable stream name"},
        {wide, "only 16-bit samples are mixed"},
        {Info(Unique("c0"), kTypeDataTrans, "music", 48000, 0), "channel count out of range 1..8"},
        {Info(Unique("c9"), kTypeDataTrans, "music", 48000, 9), "channel count out of range 1..8"},
        {Info(Unique("low"), kTypeDataTrans, "music", 7950, 2), "rate out of range 8000..96000 Hz"},
        {Info(Unique("high"), kTypeDataTrans, "music", 96050, 2), "rate out of range 8000..96000 Hz"},
        {Info(Unique("odd"), kTypeDataTrans, "music", 11025, 2), "rate does not make whole 20-ms frames"},
        {Info(kStreamMicAsr, kTypeShmQ, "record"), "record streams use the dataTrans transport"},
        {Info(Unique("file"), kTypeFile, "music"), "unknown transport type"},
        {Info(Unique("gone"), kTypeDataTrans, "music"), nullptr},
        {Info(Unique("noq"), kTypeShmQ, "music"), nullptr},
        {Info(kStreamMicHfp, kTypeDataTrans, "record"), nullptr},
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        EXPECT_NE(Add(c.info), 0) << c.info.name;
        EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:AddNewStream:" + c.info.name + " refused: " + (c.why ? c.why : "")),
                  c.why ? 1 : 0) << c.info.name << log.Dump();
    }
    EXPECT_FALSE(playbackQ->getMsg(false));
    EXPECT_FALSE(recordQ->getMsg(false));
    EXPECT_TRUE(Events().empty());
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, StreamsComeAndGoOnSeveralThreadsWithEveryAdditionMatchedByARemoval) {
    // Discovery adds streams while the "playback thread" takes and drops them and the
    // "control thread" changes the focus: the shape of the daemon's own concurrency.
    // The formats are the extremes a stream may have.
    const int kStreams = 20;
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < kStreams; ++i)
        clients.emplace_back(new Client(Info(Unique("s" + std::to_string(i) + "-"), kTypeDataTrans,
                                             i % 2 ? "prompt" : "music", i % 2 ? 8000 : 96000, i % 2 ? 1 : 8)));
    std::thread discovery([&] {
        for (auto& c : clients) EXPECT_EQ(Add(c->info), 0);
        playbackQ->sendMsg(boost::make_shared<MsgHead>(MSG_PING));  // the end
    });
    std::thread control([&] {
        for (int i = 0; i < kStreams; ++i) connect->FocusChanged(i % 2 ? "prompt" : "");
    });
    int inputs = 0;
    for (boost::shared_ptr<MsgHead> m; (m = playbackQ->getMsg(true))->type != MSG_PING;) inputs += m->type == MSG_NEW_INPUT;
    discovery.join();
    control.join();
    EXPECT_EQ(inputs, kStreams);
    EXPECT_TRUE(connect->LiveStreams().empty());
    int added = 0, removed = 0;
    for (const std::string& e : Events()) {
        added += e.compare(0, 17, "MixerStreamAdded ") == 0;
        removed += e.compare(0, 19, "MixerStreamRemoved ") == 0;
    }
    EXPECT_EQ(added, kStreams);
    EXPECT_EQ(removed, kStreams);
    for (auto& c : clients) EXPECT_FALSE(FileExists(c->info)) << c->info.name;
}

// A client in a process of its own: creates its queue with `blocks` blocks of 20 ms
// queued, announces the stream with its pid, then waits to be killed (stay) or ends at
// once without closing its queue, as a crash would. The queue name goes at the end.
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
              while (stay) pause();
              _exit(0);  // without closing the queue (no result for Wait either)
          }) {}
    ~ClientProcess() { shm_unlink(queueName.c_str()); }
    bool Gone() const { return !test::PathExists("/dev/shm" + queueName) && !FileExists(info); }
    sStreamInfo info;
    std::string queueName;
    test::Pipe ready;
    test::ChildProcess child;
};

TEST_F(DaemonConnectTest, EndedClientsAreHungUpAndLeaveNothingBehind) {
    if (!ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: ended clients are not noticed";
    test::LogCapture log;
    // A playback client and a record client killed while their streams are live, and a
    // client that ended before its stream was accepted (its pid names no process now).
    ClientProcess player(Info(Unique("killed"), kTypeDataTrans, "music"), 2, true);
    ClientProcess recorder(Info(kStreamMicRaw, kTypeDataTrans, "record", 16000, 1), 0, true);
    ClientProcess early(Info(Unique("early"), kTypeDataTrans, "music"), 1, false);
    sStreamInfo pi, ri, ei;  // as the discovery thread reads them
    for (ClientProcess* c : {&player, &recorder, &early}) ASSERT_EQ(c->ready.Receive(), '.');
    EXPECT_EQ(early.child.Wait(), -1);
    ASSERT_EQ(UtilReadFile(player.info.name, pi), 0);
    ASSERT_EQ(UtilReadFile(recorder.info.name, ri), 0);
    ASSERT_EQ(UtilReadFile(early.info.name, ei), 0);
    EXPECT_EQ(pi.id, player.child.pid());
    ASSERT_EQ(Add(pi), 0);
    ASSERT_EQ(Add(ri), 0);
    boost::shared_ptr<MsgNewInput> in = Take<MsgNewInput>(playbackQ);
    boost::shared_ptr<MsgNewOutput> out = Take<MsgNewOutput>(recordQ);
    ASSERT_TRUE(in && out);
    ASSERT_TRUE(in->input->Process()) << "the queued block plays while the client lives";
    EXPECT_EQ(in->input->state, STATE_ACTIVE);

    // The kill, with one block still queued: it still plays.
    ASSERT_EQ(kill(player.child.pid(), SIGKILL), 0);
    ASSERT_EQ(kill(recorder.child.pid(), SIGKILL), 0);
    EXPECT_EQ(player.child.Wait(), -1);
    EXPECT_EQ(recorder.child.Wait(), -1);
    for (const sStreamInfo* i : {&pi, &ri})
        ASSERT_TRUE(log.WaitFor("W Mixerd_Connect:ClientEnded:" + i->name + ": process " + std::to_string(i->id) +
                                " ended without closing its queue: hung up:")) << log.Dump();
    // The engines' view: the input ends as for a client that closed (its last block,
    // its tail of silence, then nothing), the output turns Hangup at its next write.
    boost::shared_ptr<AudioFrame> frame = in->input->Process();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->Samples16()[0], 0x1111);
    ASSERT_TRUE(in->input->Process());
    EXPECT_EQ(in->input->state, STATE_HANGUP);
    EXPECT_FALSE(in->input->Process());
    EXPECT_EQ(out->output->WriteFrame(boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, 16000, 1, 20)), -1);
    EXPECT_EQ(out->output->state, STATE_HANGUP);
    EXPECT_FALSE(player.Gone()) << "the daemon's share is still open";
    // The engines drop them: the daemon's close, the last, removes everything.
    in.reset();
    out.reset();
    EXPECT_TRUE(player.Gone());
    EXPECT_TRUE(recorder.Gone());
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerStreamAdded " + pi.name, "MixerStreamAdded micRaw",
                                                  "MixerStreamRemoved " + pi.name, "MixerStreamRemoved micRaw"}));

    ASSERT_EQ(Add(ei), 0);  // hung up at once
    in = Take<MsgNewInput>(playbackQ);
    ASSERT_TRUE(in);
    ASSERT_TRUE(in->input->Process()) << "its last block";
    ASSERT_TRUE(in->input->Process()) << "the tail";
    EXPECT_EQ(in->input->state, STATE_HANGUP);
    in.reset();
    EXPECT_TRUE(early.Gone());
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, WithoutEnginesStreamsAreRefusedAndRequestsDropped) {
    Client music(Info(Unique("late"), kTypeDataTrans, "music"));
    playbackQ.reset();  // the engines are gone (shutdown)
    recordQ.reset();
    test::LogCapture log;
    EXPECT_NE(Add(music.info), 0);
    connect->PostPlayback(boost::make_shared<MsgHead>(MSG_PING));
    connect->ChainMsgRecord(boost::make_shared<MsgHead>(MSG_PING));
    EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:PostPlayback:no playback engine:"), 1);
    EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:ChainMsgRecord:no record engine:"), 1);
    // The token of the unposted input announced its end after its start.
    EXPECT_EQ(Events(), (std::vector<std::string>{"MixerStreamAdded " + music.info.name,
                                                  "MixerStreamRemoved " + music.info.name}));
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, DevicesAndTheDeviceChain) {
    // No device: the mix still goes somewhere; no microphone: silence at the mic's format.
    boost::shared_ptr<Output> out = connect->GetPlaybackDefaultOutput();
    ASSERT_TRUE(out);
    EXPECT_NE(out->name, "ALSA");
    EXPECT_EQ(out->WriteFrame(boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, 48000, 2, 20)), 0);
    boost::shared_ptr<AudioFrame> heard = connect->GetRecordDefaultInput()->Process();
    ASSERT_TRUE(heard);
    EXPECT_EQ(heard->rate, 16000u);
    EXPECT_EQ(heard->numCh, 1u);
    for (uint32_t i = 0; i < heard->len; ++i) ASSERT_EQ(heard->Samples16()[i], 0);
    unsigned rate = 0, numCh = 0;
    tSampleSize ss;
    connect->GetSumParams(rate, numCh, ss);
    EXPECT_EQ(rate * 10 + numCh, 480002u);

    // A device at another rate than the mix: the chain converts, and a latency mark is
    // written after the conversion, on one frame only.
    boost::shared_ptr<test::FakeOutput> device = boost::make_shared<test::FakeOutput>("dev");
    outputs = [device] { return device; };
    settings.deviceRate = 44100;
    Make();
    EXPECT_EQ(connect->GetPlaybackDefaultOutput(), device);
    boost::shared_ptr<StreamOut> chain = boost::make_shared<StreamOut>();
    EXPECT_EQ(connect->AddPlaybackOutputAlgos(device, chain, PLAYBACK_MODE_DEFAULT), 0);
    boost::shared_ptr<AlgoSilence> mark = boost::dynamic_pointer_cast<AlgoSilence>(chain->GetAlgoById(ALGO_ID_SILENCE));
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
    EXPECT_EQ(Through(*chain, 48000, 2)->Samples16()[0], 0);

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
    EXPECT_EQ(in.Process()->Samples16()[0], 1000);
    boost::shared_ptr<AudioFrame> f = in.Process();
    ASSERT_TRUE(f) << "the tail that flushes a resampler";
    EXPECT_EQ(f->rate * 1000 + f->len, 22050441u);
    for (uint32_t i = 0; i < f->len; ++i) ASSERT_EQ(f->Samples16()[i], 0);
    EXPECT_FALSE(in.Process());
    EXPECT_EQ(in.state, STATE_HANGUP);
}

}  // namespace
}  // namespace mixer
