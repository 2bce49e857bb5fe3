// The daemon's connection, driven as the engines' threads drive it. Runs in a private /run
// and /dev/shm (see CMakeLists.txt): stream tokens remove description files.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "host/AlgoLatencyMark.h"
#include "host/DaemonConnect.h"
#include "host/LatencyCarrierInput.h"
#include "host/StreamQueueName.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"
#include "tests/support/PrivateRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeOutput.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using host::ClientWatcher;
using Strings = std::vector<std::string>;
using Frame = boost::shared_ptr<AudioFrame>;
using V = std::vector<int64_t>;
using std::to_string;
template <class M>
boost::shared_ptr<M> As(const boost::shared_ptr<MsgHead>& m) { return boost::dynamic_pointer_cast<M>(m); }

sStreamInfo Info(const std::string& name, const std::string& meta, unsigned rate = 48000, unsigned numCh = 2,
                 const std::string& type = host::kTypeDataTrans) {
    sStreamInfo i;
    i.id = 1, i.name = name, i.type = type, i.meta = meta;
    i.rate = rate, i.numCh = numCh, i.sampleSize = 2;
    return i;
}

// Whether a stream's description file or its queue (named as the client names it) is there.
bool FileExists(const std::string& name) { return test::PathExists(std::string(kStreamDir) + "/" + name); }
bool QueueExists(const std::string& name) { return test::PathExists("/dev/shm/mixer-" + name); }
std::string Fmt(const Frame& f) { return to_string(f->rate) + "/" + to_string(f->numCh) + "/" + to_string(f->len); }

// The client's end of a stream: its block queue and its description file.
struct Client {
    explicit Client(const sStreamInfo& i)
        : info(i), ok(queue.Init(("/mixer-" + i.name).c_str(), 4, 3840) == 0 && UtilWriteFile(i) == 0) {}
    sStreamInfo info;
    DataTrans queue;
    bool ok;
};

class DaemonConnectTest : public testing::Test {
protected:
    void SetUp() override {
        MIXER_REQUIRE_PRIVATE_RUN();
        settings.rate = settings.deviceRate = 48000, settings.numCh = 2;
        settings.micRate = 16000, settings.micNumCh = 1;
        Make();
    }
    void Make() {
        connect.reset(new host::DaemonConnect(settings, outputs, nullptr, events, probe));
        connect->SetQueues(playbackQ, recordQ);
    }
    int Add(sStreamInfo info) { return connect->AddNewStream(info.name, info); }
    Strings Events() {
        Strings sent;
        const size_t n =
            events.Deliver([&](const std::string& e, const std::string& p) { sent.push_back(e + " " + p); });
        EXPECT_EQ(n, sent.size());
        return sent;
    }
    // Takes what was posted, the playback queue's first: one line a message, the
    // messages kept in `taken` (the engines' hold on them).
    Strings Posted() {
        Strings lines;
        for (const boost::shared_ptr<MsgQ>& q : {playbackQ, recordQ})
            while (boost::shared_ptr<MsgHead> m = q->getMsg(false)) {
                taken.push_back(m);
                auto in = As<MsgNewInput>(m);
                auto out = As<MsgNewOutput>(m);
                auto focus = As<MsgSetFocus>(m);
                lines.push_back(in    ? "input " + in->input->name + " " + in->input->desc
                                : out ? "output " + out->output->name
                                      : "focus " + focus->streamType);
                if (in) lines.back() += " " + to_string(in->input->rate);
            }
        return lines;
    }
    // Runs a chain over one silent frame of the given format.
    static Frame Through(Stream& stream, unsigned rate, unsigned numCh) {
        Frame f = boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, rate, numCh, 20);
        std::fill(f->Samples16(), f->Samples16() + f->len * numCh, 0);
        return stream.Process(f);
    }

    host::DaemonConnect::Settings settings;
    host::DaemonConnect::OutputSource outputs;
    host::EventQueue events;
    boost::shared_ptr<MsgQ> playbackQ = boost::make_shared<MsgQ>(), recordQ = boost::make_shared<MsgQ>();
    boost::shared_ptr<host::LatencyProbe> probe = boost::make_shared<host::LatencyProbe>();
    std::unique_ptr<host::DaemonConnect> connect;
    std::vector<boost::shared_ptr<MsgHead>> taken;  // last: dropped while the connection lives
};

TEST_F(DaemonConnectTest, ClientStreamsBecomeInputsAndOutputsInTheirFormatAndTheirDepartureIsAnnounced) {
    connect->FocusChanged("prompt");
    Client music(Info("music", "music", 22050, 1)), prompt(Info("p", "prompt")), later(Info("q", "prompt")),
        rec(Info(kStreamMicRaw, "record"));
    ASSERT_TRUE(music.ok && prompt.ok && later.ok && rec.ok);
    ASSERT_EQ(Add(music.info) + Add(prompt.info) + Add(rec.info), 0);
    ASSERT_EQ(Add(music.info), 0);  // announced again while live (its file rewritten): nothing new
    EXPECT_EQ(Posted(), (Strings{"input music music 22050", "input p prompt 48000", "focus prompt", "output micRaw"}));
    EXPECT_EQ(connect->LiveStreams().size(), 3u);
    // The engines build the streams: a client's sound is resampled to the mix rate, spread
    // to its channels and given a ramp gain; the microphone's is made the client's format.
    boost::shared_ptr<Stream> stream = boost::make_shared<Stream>();
    stream->SetInput(As<MsgNewInput>(taken[0])->input);
    connect->AddPlaybackInputAlgos(stream, nullptr);
    EXPECT_EQ(Fmt(Through(*stream, 22050, 1)), "48000/2/960");
    EXPECT_TRUE(boost::dynamic_pointer_cast<AlgoRampGain>(stream->GetAlgoByPos(2)));
    boost::shared_ptr<StreamOut> recStream = boost::make_shared<StreamOut>();
    recStream->SetOutput(As<MsgNewOutput>(taken[3])->output);
    connect->AddRecordAlgos(recStream, As<MsgNewOutput>(taken[3]));
    Frame out = Through(*recStream, 16000, 1);
    EXPECT_EQ(Fmt(out), "48000/2/960");
    ASSERT_EQ(recStream->ProcessOut(out), STATE_ACTIVE);
    int err = 0;
    unsigned len = 0;
    ASSERT_TRUE(rec.queue.GetReadBuff(err, len, 0, nullptr)) << err;  // the client reads what the daemon wrote
    EXPECT_EQ(len, out->size);
    // The engines drop them: a token fires once the last holder lets go.
    taken[0].reset(), taken[3].reset(), recStream.reset();
    EXPECT_TRUE(FileExists("music"));
    stream.reset();
    EXPECT_FALSE(FileExists("music"));
    EXPECT_EQ(connect->LiveStreams().count("music"), 0u);
    connect->FocusChanged("");  // "focus none": later prompts are not focused
    ASSERT_EQ(Add(later.info), 0);
    EXPECT_EQ(Posted(), Strings{"input q prompt 48000"});
    EXPECT_EQ(Events(), (Strings{"MixerFocusChanged prompt", "MixerStreamAdded music", "MixerStreamAdded p",
                                 "MixerStreamAdded micRaw", "MixerStreamRemoved micRaw", "MixerStreamRemoved music",
                                 "MixerFocusChanged none", "MixerStreamAdded q"}));
}

TEST_F(DaemonConnectTest, StreamsThatCannotPlayAreRefusedWithoutTraceOrAnnouncement) {
    sStreamInfo wide = Info("wide", "music");
    wide.sampleSize = 4;
    const struct {
        sStreamInfo info;
        const char* why;  // the refusal logged; none when the queue does not open
    } cases[] = {
        {Info("", "music"), "no usable stream name"}, {Info("a/b", "music"), "no usable stream name"},
        {wide, "only 16-bit samples are mixed"}, {Info("c0", "music", 48000, 0), "channel count out of range 1..8"},
        {Info("c9", "music", 48000, 9), "channel count out of range 1..8"},
        {Info("low", "music", 7950), "rate out of range 8000..96000 Hz"},
        {Info("high", "music", 96050), "rate out of range 8000..96000 Hz"},
        {Info("odd", "music", 11025), "rate does not make whole 20-ms frames"},
        {Info(kStreamMicAsr, "record", 48000, 2, kTypeShmQ), "record streams use the dataTrans transport"},
        {Info("file", "music", 48000, 2, kTypeFile), "unknown transport type"},
        {Info("gone", "music"), nullptr}, {Info("noq", "music", 48000, 2, kTypeShmQ), nullptr},
        {Info(kStreamMicHfp, "record"), nullptr},
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        EXPECT_NE(Add(c.info), 0) << c.info.name;
        EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:AddNewStream:" + c.info.name + " refused: " + (c.why ? c.why : "")),
                  c.why ? 1 : 0) << c.info.name << log.Dump();
    }
    EXPECT_EQ(Posted(), Strings{});
    EXPECT_EQ(Events(), Strings{});
    // Once the engines are gone (shutdown) a stream is refused, and announced as gone.
    Client late(Info("late", "music"));
    playbackQ.reset(), recordQ.reset();
    Make();
    test::LogCapture log;
    EXPECT_NE(Add(late.info), 0);
    connect->PostPlayback(boost::make_shared<MsgHead>(MSG_PING));
    connect->ChainMsgRecord(boost::make_shared<MsgHead>(MSG_PING));
    EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:PostPlayback:no playback engine:") +
                  log.CountPrefix("W Mixerd_Connect:ChainMsgRecord:no record engine:"), 2);
    EXPECT_EQ(Events(), (Strings{"MixerStreamAdded late", "MixerStreamRemoved late"}));
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, StreamsComeAndGoOnSeveralThreadsWithEveryAdditionMatchedByARemoval) {
    // Discovery adds streams (of the extreme formats) while the "playback thread" takes
    // and drops them and the "control thread" changes the focus.
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 20; ++i)
        clients.emplace_back(
            new Client(Info("s" + to_string(i), i % 2 ? "prompt" : "music", i % 2 ? 8000 : 96000, i % 2 ? 1 : 8)));
    std::thread discovery([&] {
        for (auto& c : clients) EXPECT_EQ(Add(c->info), 0);
        playbackQ->sendMsg(boost::make_shared<MsgHead>(MSG_PING));  // the end
    });
    std::thread control([&] { for (int i = 0; i < 20; ++i) connect->FocusChanged(i % 2 ? "prompt" : ""); });
    int inputs = 0;
    for (boost::shared_ptr<MsgHead> m; (m = playbackQ->getMsg(true))->type != MSG_PING;)
        inputs += m->type == MSG_NEW_INPUT;
    discovery.join(), control.join();
    pollfd pfd = {events.Fd(), POLLIN, 0};
    const int woken = poll(&pfd, 1, 0);  // the daemon's loop is woken for the events
    Strings e = Events();
    auto isRemoval = [](const std::string& x) { return x.find("Removed") != x.npos; };
    const auto removed = std::count_if(e.begin(), e.end(), isRemoval);
    EXPECT_EQ(V({inputs, woken, int64_t(e.size()), removed, poll(&pfd, 1, 0), int64_t(connect->LiveStreams().size())}),
              (V{20, 1, 60, 20, 0, 0}));
    for (auto& c : clients) EXPECT_FALSE(FileExists(c->info.name)) << c->info.name;
}

// A client in a process of its own: creates its queue with `blocks` blocks of 20 ms
// queued, announces the stream with its pid, then waits to be killed (stay) or ends at
// once without closing its queue, as a crash would.
struct ClientProcess {
    ClientProcess(const sStreamInfo& info_, int blocks, bool stay)
        : info(info_), child([this, blocks, stay] {
              DataTrans queue;
              CHILD_CHECK(queue.Init(("/mixer-" + info.name).c_str(), 4, 3840) == 0);
              for (int i = 0, err = 0; i < blocks; ++i) {
                  char* block = queue.GetWriteBuff(err, 0);
                  CHILD_CHECK(block != nullptr);
                  std::memset(block, 0x11, 3840);
                  CHILD_CHECK(queue.CommitWriteBuff(3840, nullptr));
              }
              info.id = static_cast<int>(getpid());
              CHILD_CHECK(UtilWriteFile(info) == 0 && ready.Send());
              while (stay) pause();
              _exit(0);  // without closing the queue (no result for Wait either)
          }) {}
    bool Gone() const { return !QueueExists(info.name) && !FileExists(info.name); }
    sStreamInfo info;
    test::Pipe ready;
    test::ChildProcess child;
};

TEST_F(DaemonConnectTest, EndedClientsAreHungUpAndLeaveNothingBehind) {
    if (!ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: ended clients are not noticed";
    test::LogCapture log;
    // A playback and a record client killed while their streams are live, and a client
    // that ended before its stream was accepted (its pid names no process now).
    ClientProcess player(Info("killed", "music"), 2, true), recorder(Info(kStreamMicRaw, "record", 16000, 1), 0, true),
        early(Info("early", "music"), 1, false);
    for (ClientProcess* c : {&player, &recorder, &early}) ASSERT_EQ(c->ready.Receive(), '.');
    EXPECT_EQ(early.child.Wait(), -1);
    sStreamInfo pi, ri, ei;  // as the discovery thread reads them
    ASSERT_EQ(UtilReadFile("killed", pi) + UtilReadFile(kStreamMicRaw, ri) + UtilReadFile("early", ei), 0);
    EXPECT_EQ(pi.id, player.child.pid());
    ASSERT_EQ(Add(pi) + Add(ri), 0);
    ASSERT_EQ(Posted(), (Strings{"input killed music 48000", "output micRaw"}));
    boost::shared_ptr<Input> in = As<MsgNewInput>(taken[0])->input;
    boost::shared_ptr<Output> out = As<MsgNewOutput>(taken[1])->output;
    taken.clear();
    ASSERT_TRUE(in->Process()) << "the queued block plays while the client lives";
    EXPECT_EQ(in->state, STATE_ACTIVE);
    for (ClientProcess* c : {&player, &recorder}) {  // killed with a block still queued
        ASSERT_EQ(kill(c->child.pid(), SIGKILL), 0);
        EXPECT_EQ(c->child.Wait(), -1);
    }
    for (const sStreamInfo* i : {&pi, &ri})
        ASSERT_TRUE(log.WaitFor("W Mixerd_Connect:ClientEnded:" + i->name + ": process " + to_string(i->id) +
                                " ended without closing its queue: hung up:")) << log.Dump();
    // The engines' view: the input ends as for a client that closed (its last block, a
    // period of silence that flushes the resampler, then nothing); the output turns
    // Hangup at its next write.
    EXPECT_EQ(in->Process()->Samples16()[0], 0x1111);
    Frame tail = in->Process();
    ASSERT_EQ(tail ? Fmt(tail) : "none", "48000/2/960");
    EXPECT_EQ(std::vector<int16_t>(tail->Samples16(), tail->Samples16() + 1920), std::vector<int16_t>(1920, 0));
    EXPECT_EQ(V({in->state, !in->Process()}), (V{STATE_HANGUP, 1}));
    EXPECT_EQ(V({out->WriteFrame(boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, 16000, 1, 20)), out->state}),
              (V{-1, STATE_HANGUP}));
    EXPECT_FALSE(player.Gone()) << "the daemon's share is still open";
    in.reset(), out.reset();  // the daemon's close, the last, removes everything
    EXPECT_TRUE(player.Gone() && recorder.Gone());
    EXPECT_EQ(Events(), (Strings{"MixerStreamAdded killed", "MixerStreamAdded micRaw", "MixerStreamRemoved killed",
                                 "MixerStreamRemoved micRaw"}));
    ASSERT_EQ(Add(ei), 0);  // hung up at once: its last block and the tail, then nothing
    ASSERT_EQ(Posted(), Strings{"input early music 48000"});
    in = As<MsgNewInput>(taken[0])->input;
    taken.clear();
    EXPECT_TRUE(in->Process() && in->Process() && !in->Process());
    in.reset();
    EXPECT_TRUE(early.Gone());
    EXPECT_TRUE(connect->LiveStreams().empty());
}

TEST_F(DaemonConnectTest, DevicesAndTheDeviceChain) {
    // No device: the mix still goes somewhere; no microphone: silence in the mic's format.
    boost::shared_ptr<Output> none = connect->GetPlaybackDefaultOutput();
    EXPECT_NE(none->name, "ALSA");
    EXPECT_EQ(none->WriteFrame(boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, 48000, 2, 20)), 0);
    Frame heard = connect->GetRecordDefaultInput()->Process();
    EXPECT_EQ(Fmt(heard), "16000/1/320");
    EXPECT_EQ(std::vector<int16_t>(heard->Samples16(), heard->Samples16() + 320), std::vector<int16_t>(320, 0));
    // A device at another rate than the mix: the chain converts, and a latency mark is
    // written after the conversion, on one frame only.
    boost::shared_ptr<test::FakeOutput> device = boost::make_shared<test::FakeOutput>("dev");
    outputs = [device] { return device; };
    settings.deviceRate = 44100;
    Make();
    EXPECT_EQ(connect->GetPlaybackDefaultOutput(), device);
    boost::shared_ptr<StreamOut> chain = boost::make_shared<StreamOut>();
    EXPECT_EQ(connect->AddPlaybackOutputAlgos(device, chain, PLAYBACK_MODE_DEFAULT), 0);
    auto mark = boost::dynamic_pointer_cast<AlgoSilence>(chain->GetAlgoById(ALGO_ID_SILENCE));
    ASSERT_TRUE(mark);
    EXPECT_EQ(Fmt(Through(*chain, 48000, 2)), "44100/2/882");
    probe->Arm();
    mark->running = 1;
    EXPECT_EQ(Through(*chain, 48000, 2)->Samples16()[0], host::LatencyProbe::kMarkLevel) << "the mark as written";
    EXPECT_EQ(V({mark->running, mark->count, probe->WantsMark(), Through(*chain, 48000, 2)->Samples16()[0]}),
              (V{0, 1, 0, 0}));
    // The latency test's carrier stays out of volumes and ducking.
    boost::shared_ptr<Stream> carrier = boost::make_shared<Stream>();
    carrier->SetInput(boost::make_shared<host::LatencyCarrierInput>(probe, 48000, 2, 5));
    connect->AddPlaybackInputAlgos(carrier, nullptr);
    EXPECT_FALSE(carrier->GetAlgoById(ALGO_ID_RAMP_GAIN));
}

}  // namespace
}  // namespace mixer
