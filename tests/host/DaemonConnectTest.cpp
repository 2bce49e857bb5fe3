// The daemon's connection, driven as the engines' threads drive it. Runs in a private /run
// and /dev/shm (see CMakeLists.txt): stream tokens remove description files.
#include <gtest/gtest.h>
#include <new>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>
#include "host/DaemonConnect.h"
#include "client/StreamQueueName.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/stream/StreamOut.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateRun.h"
#ifdef MIXERD_PATH
#include "tests/support/Mixerd.h"
#endif

namespace mixer {
namespace {
using Strings = std::vector<std::string>;
using Frame = boost::shared_ptr<AudioFrame>;
using V = std::vector<int64_t>;
using std::to_string;
template <class M>
boost::shared_ptr<M> As(const boost::shared_ptr<MsgHead>& m) { return boost::dynamic_pointer_cast<M>(m); }

sStreamInfo Info(const std::string& name, const std::string& meta, unsigned rate = 48000, unsigned numCh = 2,
                 const std::string& type = client::kTypeDataTrans) {
    sStreamInfo i;
    i.id = 1, i.name = name, i.type = type, i.meta = meta, i.rate = rate, i.numCh = numCh, i.sampleSize = 2;
    return i;
}

bool FileExists(const std::string& name) { return test::PathExists(std::string(kStreamDir) + "/" + name); }
std::string Fmt(const Frame& f) { return to_string(f->rate) + "/" + to_string(f->numCh) + "/" + to_string(f->len); }
Frame Silence(unsigned rate, unsigned numCh) {
    Frame f = boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, rate, numCh, 20);
    std::fill(f->Samples16(), f->Samples16() + f->len * numCh, 0);
    return f;
}

std::vector<int16_t> S16(const Frame& f) { return {f->Samples16(), f->Samples16() + f->len * f->numCh}; }

// The client's end of a stream: its block queue and its description file.
struct Client {
    explicit Client(const sStreamInfo& i, unsigned blocks = 4)
        : info(i), ok(queue.Init(("/mixer-" + i.name).c_str(), blocks, 3840) == 0 && UtilWriteFile(i) == 0) {}
    sStreamInfo info; DataTrans queue; bool ok;
};

class DaemonConnectTest : public testing::Test {
protected:
    void SetUp() override {
        MIXER_REQUIRE_PRIVATE_RUN();
        settings.rate = settings.deviceRate = 48000, settings.numCh = 2, settings.micRate = 16000, settings.micNumCh = 1;
        connect.reset(new host::DaemonConnect(settings, outputs, nullptr, events, probe));
        connect->SetQueues(playbackQ, recordQ);
    }
    int Add(sStreamInfo info) { return connect->AddNewStream(info.name, info); }
    Strings Events() {
        Strings sent;
        events.Deliver([&](const std::string& e, const std::string& p) { sent.push_back(e + " " + p); });
        return sent;
    }
    // What was posted, the playback queue's first; `taken` holds the messages as the engines would.
    Strings Posted() {
        Strings lines;
        for (const boost::shared_ptr<MsgQ>& q : {playbackQ, recordQ})
            while (boost::shared_ptr<MsgHead> m = q->getMsg(false)) {
                taken.push_back(m);
                auto in = As<MsgNewInput>(m); auto out = As<MsgNewOutput>(m);
                lines.push_back(in ? "input " + in->input->name + " " + in->input->desc + " " +
                                         to_string(in->input->rate)
                                   : out ? "output " + out->output->name : "focus " + As<MsgSetFocus>(m)->streamType);
            }
        return lines;
    }
    static Frame Through(Stream& stream, unsigned rate, unsigned numCh) { return stream.Process(Silence(rate, numCh)); }
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
    // The extreme formats are taken too: 96 kHz in eight channels, 8 kHz in one.
    Client music(Info("music", "music", 22050, 1)), prompt(Info("p", "prompt", 96000, 8)),
        later(Info("q", "prompt", 8000, 1)), rec(Info(kStreamMicRaw, "record"));
    ASSERT_TRUE(music.ok && prompt.ok && later.ok && rec.ok);
    ASSERT_EQ(Add(music.info) + Add(prompt.info) + Add(rec.info), 0);
    ASSERT_EQ(Add(music.info), 0);  // announced again while live (its file rewritten): nothing new
    EXPECT_EQ(Posted(), (Strings{"input music music 22050", "input p prompt 96000", "focus prompt", "output micRaw"}));
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
    // The engines drop them: a token fires once the last holder lets go.
    taken[0].reset(), taken[3].reset(), recStream.reset();
    EXPECT_TRUE(FileExists("music"));
    stream.reset();
    EXPECT_FALSE(FileExists("music") || connect->LiveStreams().count("music"));
    connect->FocusChanged("");  // "focus none": later prompts are not focused
    ASSERT_EQ(Add(later.info), 0);
    EXPECT_EQ(Posted(), Strings{"input q prompt 8000"});
    EXPECT_EQ(Events(), (Strings{"MixerFocusChanged prompt", "MixerStreamAdded music", "MixerStreamAdded p",
                                 "MixerStreamAdded micRaw", "MixerStreamRemoved micRaw", "MixerStreamRemoved music",
                                 "MixerFocusChanged none", "MixerStreamAdded q"}));
}

TEST_F(DaemonConnectTest, StreamsThatCannotPlayAreRefusedWithoutTraceOrAnnouncement) {
    sStreamInfo wide = Info("wide", "music");
    wide.sampleSize = 4;
    const std::string ch = "channel count out of range 1..10", rate = "rate out of range 8000..96000 Hz";
    const struct { sStreamInfo info; std::string why; } cases[] = {  // why: none when the queue does not open
        {Info("", "music"), "no usable stream name"}, {Info("a/b", "music"), "no usable stream name"},
        {wide, "only 16-bit samples are mixed"}, {Info("c0", "music", 48000, 0), ch},
        {Info("c11", "music", 48000, 11), ch}, {Info("low", "music", 7950), rate}, {Info("high", "music", 96050), rate},
        {Info("odd", "music", 11025), "rate does not make whole 20-ms frames"},
        {Info(kStreamMicAsr, "record", 48000, 2, kTypeShmQ), "record streams use the dataTrans transport"},
        {Info("file", "music", 48000, 2, kTypeFile), "unknown transport type"}, {Info("gone", "music"), ""},
        {Info("noq", "music", 48000, 2, kTypeShmQ), ""}, {Info(kStreamMicHfp, "record"), ""},
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        EXPECT_NE(Add(c.info), 0) << c.info.name;
        EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:AddNewStream:" + c.info.name + " refused: " + c.why),
                  c.why.empty() ? 0 : 1) << c.info.name << log.Dump();
        // The client that asks learns why, and a later client of the name (another id) nothing yet.
        EXPECT_EQ(connect->StreamVerdict(c.info.name, 1),
                  "refused " + (c.why.empty() ? "the daemon cannot open the stream's queue" : c.why));
        EXPECT_EQ(connect->StreamVerdict(c.info.name, 2), "unknown");
    }
    EXPECT_EQ(Posted(), Strings{});
    EXPECT_EQ(Events(), Strings{});
    connect->PostRecord(boost::make_shared<MsgEnableMic>(0));  // a microphone switched off holds no new queue
    Client mic(Info(kStreamMicRaw, "record"));
    EXPECT_NE(Add(mic.info), 0);
    EXPECT_EQ(connect->StreamVerdict(kStreamMicRaw, 1), "refused the microphone is off (mixerctl mic on)");
}

TEST_F(DaemonConnectTest, StreamsThatAreNotOneUsersAreRefusedAndTheQueuesOwnerKeepsIt) {
    const uid_t nobody = 65534;
    Client live(Info("live", "music"));
    ASSERT_TRUE(live.ok);
    ASSERT_EQ(Add(live.info), 0);
    Posted();
    const struct { sStreamInfo info; uid_t file, queue; mode_t mode; std::string why; } cases[] = {
        {Info("theirs", "music"), 0, nobody, 0660, "the description file (user 0) and the queue (user 65534) belong to different users"},
        {Info("open", "music"), 0, 0, 0662, "the queue is writable by every user"},
        {Info("pid1", "music"), nobody, nobody, 0660, "process 1 is not user 65534's"},
        // A live name announced by another user with a queue of its own (another transport).
        {Info("live", "music", 48000, 2, kTypeShmQ), nobody, nobody, 0660, "the stream is live as user 0's"},
    };
    for (auto c : cases) {
        const bool shmQ = c.info.type == kTypeShmQ;
        const std::string queue = shmQ ? "/dev/shm/live" : "/dev/shm/mixer-" + c.info.name;
        Client owner(shmQ ? Info("unused", "") : c.info);
        if (shmQ) close(open(queue.c_str(), O_CREAT | O_WRONLY, 0600)), c.info.id = 0, UtilWriteFile(c.info);
        const std::string file = std::string(kStreamDir) + "/" + c.info.name;
        ASSERT_EQ(chown(file.c_str(), c.file, 0) + chown(queue.c_str(), c.queue, 0) + chmod(queue.c_str(), c.mode), 0);
        test::LogCapture log;
        EXPECT_EQ(Add(c.info), -1) << c.info.name;
        EXPECT_EQ(log.CountPrefix("W Mixerd_Connect:AddNewStream:" + c.info.name + " refused: " + c.why + ":"), 1)
            << log.Dump();
        EXPECT_EQ(connect->StreamVerdict(c.info.name, c.info.id), "refused " + c.why);
        EXPECT_TRUE(test::PathExists(queue));  // not the announcer's to take away
        if (shmQ) unlink(queue.c_str());
    }
    // What was read is not what the file there says: its writer replaced it since.
    Client changed(Info("changed", "music"));
    sStreamInfo heard = changed.info;
    heard.rate = 44100;
    EXPECT_EQ(Add(heard), -1);
    EXPECT_EQ(connect->StreamVerdict("changed", 1), "refused the description file changed while it was read");
    EXPECT_EQ(Posted(), Strings{});
    EXPECT_EQ(connect->LiveStreams().size(), 1u);
    EXPECT_EQ(Events(), Strings{"MixerStreamAdded live"});
}

TEST_F(DaemonConnectTest, StreamsBeyondTheLimitsAreRefusedOnceWithTheReasonAndNotHeld) {
    settings.maxQueueBlocks = 8, settings.maxQueueBytes = 5 * (3840 + 168), settings.maxStreams = 3, settings.maxStreamsPerUser = 2;
    connect.reset(new host::DaemonConnect(settings, outputs, nullptr, events, probe));
    connect->SetQueues(playbackQ, recordQ);
    const std::string limit = " (the daemon's limit: 8 blocks, 20040 bytes)";
    const struct { const char* name; uid_t user; unsigned blocks; std::string why; } rows[] = {
        {"big", 0, 9, "queue too large: 9 blocks, 36072 bytes" + limit},
        {"wide", 0, 6, "queue too large: 6 blocks, 24048 bytes" + limit},
        {"a", 0, 5, ""}, {"b", 0, 2, ""}, {"c", 0, 2, "too many streams of this user (the daemon's limit)"},
        {"d", 7, 2, ""}, {"e", 7, 2, "too many streams (the daemon's limit of all users)"}};
    std::vector<std::unique_ptr<Client>> clients;
    for (const auto& r : rows) {
        sStreamInfo info = Info(r.name, "music");
        info.id = r.user ? 0 : info.id;  // pid 1 is root's
        clients.emplace_back(new Client(info, r.blocks));
        ASSERT_TRUE(clients.back()->ok && chown((std::string(kStreamDir) + "/" + r.name).c_str(), r.user, 0) == 0 &&
                    chown(("/dev/shm/mixer-" + std::string(r.name)).c_str(), r.user, 0) == 0);
        test::LogCapture log;
        EXPECT_EQ(Add(clients.back()->info), r.why.empty() ? 0 : -1) << r.name;
        const std::string all = log.Dump();
        size_t said = 0;
        for (size_t at = 0; !r.why.empty() && (at = all.find(r.why, at)) != std::string::npos; ++at) ++said;
        EXPECT_EQ(said, r.why.empty() ? 0u : 1u) << all;
        EXPECT_EQ(connect->StreamVerdict(r.name, info.id), r.why.empty() ? "accepted" : "refused " + r.why);
        // A refused queue is let go at once: its client, the last to close it, removes it.
        EXPECT_EQ(clients.back()->queue.IsHungUp(), r.blocks > 8 || r.name == std::string("wide")) << r.name;
    }
    EXPECT_EQ(Posted(), (Strings{"input a music 48000", "input b music 48000", "input d music 48000"}));
}

TEST_F(DaemonConnectTest, KilledClientsAreHungUpAndLeaveNothingBehind) {
    if (!host::ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: ended clients are not noticed";
    test::LogCapture log;
    // The clients' processes, killed with a block queued; the test keeps their queues.
    auto forever = []() -> int { for (;;) pause(); };
    test::ChildProcess player(forever), recorder(forever);
    sStreamInfo pi = Info("killed", "music"), ri = Info(kStreamMicRaw, "record", 16000, 1);
    pi.id = player.pid(), ri.id = recorder.pid();
    Client p(pi), r(ri);
    int err = 0;
    char* block = p.queue.GetWriteBuff(err, 0);
    ASSERT_TRUE(p.ok && r.ok && block);
    std::memset(block, 0x11, 3840);
    ASSERT_TRUE(p.queue.CommitWriteBuff(3840, nullptr));
    ASSERT_EQ(Add(pi) + Add(ri), 0);
    ASSERT_EQ(Posted(), (Strings{"input killed music 48000", "output micRaw"}));
    boost::shared_ptr<Input> in = As<MsgNewInput>(taken[0])->input;
    boost::shared_ptr<Output> out = As<MsgNewOutput>(taken[1])->output;
    taken.clear();
    for (auto* c : {&pi, &ri}) {
        ASSERT_EQ(kill(c->id, SIGKILL), 0);
        ASSERT_TRUE(log.WaitFor("W Mixerd_Connect:ClientEnded:" + c->name + ": process " + to_string(c->id) +
                                " ended without closing its queue: hung up:")) << log.Dump();
    }
    // A killed client never closes its end: forget the test's copies of those ends unclosed
    // (the daemon destroys the queues' locks as the last closer).
    for (Client* c : {&p, &r}) new (&c->queue) DataTrans();
    // The input ends as for a client that closed (its last block, a period of silence that
    // flushes the resampler, then nothing); the output turns Hangup at its next write.
    EXPECT_EQ(in->Process()->Samples16()[0], 0x1111);
    Frame tail = in->Process();
    ASSERT_EQ(tail ? Fmt(tail) : "none", "48000/2/960");
    EXPECT_EQ(S16(tail), S16(Silence(48000, 2)));
    EXPECT_EQ(V({in->state, !in->Process()}), (V{STATE_HANGUP, 1}));
    EXPECT_EQ(V({out->WriteFrame(Silence(16000, 1)), out->state}), (V{-1, STATE_HANGUP}));
    in.reset(), out.reset();  // the daemon's close, the last, removes the description files
    EXPECT_FALSE(FileExists("killed") || FileExists(kStreamMicRaw) || !connect->LiveStreams().empty());
    EXPECT_EQ(Events(), (Strings{"MixerStreamAdded killed", "MixerStreamAdded micRaw", "MixerStreamRemoved killed",
                                 "MixerStreamRemoved micRaw"}));
}

#ifdef MIXERD_PATH
// The contract with the service manager, this test standing in for it (its notification socket, a 1-s watchdog): a
// daemon started over a killed one's leftovers removes them, says READY=1, pets while both engines live, stops petting
// once the playback engine is wedged (a status file that hangs its writer: a FIFO nobody reads, mounted over the
// path so that it cannot be replaced), and SIGTERM still ends it, with STOPPING=1 and its files removed.
TEST(DaemonWatchdogTest, PetsWhileTheEnginesLiveStopOnceOneIsWedgedAndSigtermStillEndsIt) {
    MIXER_REQUIRE_PRIVATE_RUN();
    const sockaddr_un manager = {AF_UNIX, "/run/notify"};
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&manager), sizeof(manager)), 0);
    auto next = [fd](int ms) {  // the next notification, empty when none came within ms
        char text[256] = {0};
        pollfd p = {fd, POLLIN, 0};
        return poll(&p, 1, ms) == 1 && recv(fd, text, sizeof(text) - 1, 0) > 0 ? std::string(text) : std::string();
    };
    ASSERT_TRUE(mkdir(kStreamDir, 0755) == 0 && UtilWriteFile(Info("old", "music")) == 0);
    const int old = shm_open("/mixer-old", O_CREAT | O_RDWR, 0600), stale = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un control = {AF_UNIX, "/run/mixerd.sock"};
    ASSERT_TRUE(old >= 0 && close(old) == 0 && bind(stale, reinterpret_cast<const sockaddr*>(&control), sizeof(control)) == 0);
    close(stale);
    ASSERT_TRUE(mkfifo("/run/hang", 0600) == 0 && close(open("/run/status", O_CREAT | O_WRONLY, 0600)) == 0 &&
                mount("/run/hang", "/run/status", nullptr, MS_BIND, nullptr) == 0);
    setenv("NOTIFY_SOCKET", manager.sun_path, 1), setenv("WATCHDOG_USEC", "1000000", 1);
    test::Mixerd d(true, "--status-file /run/status");
    unsetenv("NOTIFY_SOCKET"), unsetenv("WATCHDOG_USEC");
    ASSERT_TRUE(d.ready) << test::Slurp(d.log);
    EXPECT_EQ(next(20000), "READY=1");
    EXPECT_FALSE(test::Exists(std::string(kStreamDir) + "/old") || test::Exists("/dev/shm/mixer-old"));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(next(20000), "WATCHDOG=1") << i;
    const pid_t ctl = test::Spawn(MIXERCTL_PATH " status", d.dir.File("ctl"));  // the engine opens the FIFO: stuck
    int pets = 0;
    while (next(1500) == "WATCHDOG=1" && pets < 100) ++pets;  // until a manager's interval and a half passes without
    EXPECT_LT(pets, 100);
    ASSERT_EQ(kill(d.pid, SIGTERM), 0);
    EXPECT_EQ(next(20000), "STOPPING=1");
    EXPECT_EQ(test::WaitExit(std::exchange(d.pid, -1), 20000), 1);
    test::WaitExit(ctl, 20000);
    const std::string log = test::Slurp(d.log);
    EXPECT_NE(log.find("E Mixerd:Watchdog:the playback engine has not moved for 500 ms: the service manager is no "
                       "longer told the daemon lives:"), std::string::npos) << log;
    EXPECT_NE(log.find("E Mixerd:Run:not stopped within 1500 ms (a thread is stuck): files removed, exiting:"),
              std::string::npos) << log;
    EXPECT_FALSE(test::Exists(kStreamDir) || test::Exists(d.sock));
    EXPECT_EQ(test::DirNames("/dev/shm"), std::set<std::string>());
    umount2("/run/status", MNT_DETACH);
    close(fd);
}
#endif

}  // namespace
}  // namespace mixer
