#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstring>
#include <fstream>
#include <future>
#include "client/ControlClient.h"
#include "host/control/ControlDispatcher.h"
#include "client/ControlProtocol.h"
#include "host/control/ControlServer.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgNewInput.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgSetFocus.h"
#include "mixer/core/MsgSetSpeakerVol.h"
#include "mixer/core/MsgSetStreamVol.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/core/Output.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"
namespace mixer {
namespace {
using client::ControlProtocol;
using client::ControlReply;
using Strings = std::vector<std::string>;
using std::to_string;
template <class M>
boost::shared_ptr<M> As(const boost::shared_ptr<MsgHead>& m) { return boost::dynamic_pointer_cast<M>(m); }


// Records what the dispatcher posts ("P" playback, "R" record, "F" focus) and plays the engines':
// reports 1 writes the status report, 2 lets go of the request without; echo -1 leaves a latency
// test unmarked, 0 marks it unheard, 1 feeds the mark to the listener. Other messages: never done.
struct FakeSink : host::EngineSink {
    void PostPlayback(boost::shared_ptr<MsgHead> msg) override { Post("P ", msg); }
    void PostRecord(boost::shared_ptr<MsgHead> msg) override { Post("R ", msg); }
    void FocusChanged(const std::string& type) override { posted.push_back("F " + type); }
    std::string StreamVerdict(const std::string& name, int id) override { return name + to_string(id); }
    void Post(std::string line, boost::shared_ptr<MsgHead> msg) {
        if (onPost) onPost();
        if (auto v = As<MsgSetStreamVol>(msg))
            line += "volume " + v->streamType + " " + to_string(v->volume) + " " + to_string(v->speakerVolume);
        else if (auto sp = As<MsgSetSpeakerVol>(msg)) line += "speaker " + to_string(sp->volume);
        else if (auto fo = As<MsgSetFocus>(msg)) line += "focus " + fo->streamType;
        else if (auto mic = As<MsgEnableMic>(msg)) line += "mic " + to_string(mic->enable);
        else if (auto no = As<MsgNewOutput>(msg)) line += "output", listener = no->output;
        else if (auto ni = As<MsgNewInput>(msg))
            line += "input " + ni->input->desc + " " + to_string(ni->input->rate) + " " + to_string(ni->input->numCh);
        else line += msg->type == MSG_LATENCY_TEST ? "latency" : msg->type == MSG_WRITE_INFO ? "status" : "?";
        posted.push_back(line);
        if (reports && msg->type == MSG_WRITE_INFO) {
            if (reports == 1) std::ofstream(As<MsgWriteInfo>(msg)->fileName.c_str()) << "playback\nrecord\n";
            return;
        }
        if (msg->type == MSG_LATENCY_TEST && echo >= 0) {
            probe->Marked(0);
            boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
            host::LatencyProbe::WriteMark(*f);
            if (echo) listener->WriteFrame(f);
        }
        kept.push_back(msg);
    }
    boost::shared_ptr<host::LatencyProbe> probe{new host::LatencyProbe};
    int reports = 0, echo = -1;
    Strings posted;  // written on the server's thread; read once a reply is in or the server stopped
    std::vector<boost::shared_ptr<MsgHead>> kept;
    boost::shared_ptr<Output> listener;
    std::function<void()> onPost;  // runs on the server's thread before anything is recorded
};

// A socket without the client helper, to misbehave: connected, or bound and left as a
// crashed daemon leaves its socket file.
int RawSocket(const std::string& path, bool bindOnly = false) {
    sockaddr_un addr = {AF_UNIX, {}};
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    return (bindOnly ? bind(fd, a, sizeof(addr)) : connect(fd, a, sizeof(addr))) == 0 ? fd : -1;
}

std::string Ask(const std::string& path, const std::string& line) {
    ControlReply r;
    std::string error;
    return client::ControlClient::Request(path, line, r, error) ? (r.ok ? "OK " : "ERR ") + r.text : error;
}

// Sends data, then reads until the server closes (recv fails on a reset connection).
std::string Exchange(int fd, const std::string& data, bool endInput = false) {
    EXPECT_EQ(data.empty() ? 0 : send(fd, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
    if (endInput) shutdown(fd, SHUT_WR);
    std::string got;
    char buf[256];
    for (ssize_t n; (n = recv(fd, buf, sizeof(buf), 0)) > 0;) got.append(buf, static_cast<size_t>(n));
    close(fd);
    return got;
}

TEST(ControlServerTest, RequestsBecomeEngineMessagesRepliesSayWhatWentWrongAndMisbehavingClientsHarmNothing) {
    test::TempDir dir;
    const std::string path = dir.File("ctl.sock");
    close(RawSocket(path, true));
    FakeSink sink;
    host::ControlDispatcher::Settings settings;
    settings.statusFile = dir.File("status.txt"), settings.statusTimeoutMs = settings.latencyTimeoutMs = 300;
    settings.mixRate = 32000, settings.mixNumCh = 3;
    host::ControlDispatcher d(sink, sink.probe, settings);
    test::LogCapture log;
    host::ControlServer server(path, d), second(path, d);
    ASSERT_EQ(server.Start(), 0);  // over the stale socket file
    EXPECT_EQ(second.Start(), -1);
    EXPECT_EQ(log.Count("E Mixerd_ControlServer:Start:another daemon answers on " + path + ":"), 1);
    second.Stop();  // must not remove the live server's socket
    auto Do = [&path](const std::string& line) { return Ask(path, line); };
    for (const char* line : {"volume music 30", "speaker 61", "volume prompt 70", "focus prompt", "focus none"})
        EXPECT_EQ(Do(line), "OK ") << line;
    EXPECT_EQ(Do("help"), std::string("OK ") + ControlProtocol::Usage());
    EXPECT_EQ(Do("volume music loud"), "ERR volume must be a whole percent from 0 to 100, not 'loud'");
    std::ofstream(settings.statusFile.c_str()) << "stale\n";  // an earlier report is never taken for this one's
    EXPECT_EQ(Do("status"), "ERR no status report within 300 ms: the engines do not answer");
    EXPECT_EQ(Do("latency"), "ERR latency test: the output did not carry the mark within 300 ms "
                             "(no silence algorithm on the output?)");
    sink.reports = 1, sink.echo = 0;
    // The engines' report as they wrote it, then the daemon's view (here without a daemon to fill it).
    EXPECT_EQ(Do("status"), "OK playback\nrecord\nDaemon view:\nSpeaker volume: 61\nFocus: none\nDucking: off\n"
                            "Microphone: off\nPlayback streams: 0\nRecord streams: 0\n");
    for (const char* get : {"get volume music", "get speaker"}) EXPECT_EQ(Do(get), "OK 61\n") << get;
    EXPECT_EQ(Do("get focus"), "OK none\n");
    // A request without a line feed counts once the client ends its side.
    EXPECT_EQ(Exchange(RawSocket(path), "mic on", true), "OK\n");
    EXPECT_EQ(Do("latency"), "ERR latency test: the mark did not come back on the microphone within 300 ms (the "
                             "microphone must hear the speaker: a tone or WAV microphone never does)");
    EXPECT_EQ(Do("mic off"), "OK ");
    sink.echo = 1;
    std::string r = Do("latency");  // the delay itself is the machine's
    EXPECT_EQ(r.compare(0, 11, "OK latency ") + r.compare(r.size() - 4, 4, " ms\n"), 0) << r;
    // A stream volume carries the speaker volume in force; "focus none" posts nothing; a
    // microphone that was off is on for a latency test only.
    const Strings latency = {"R output", "P input latencyTest 32000 3", "P latency"};
    Strings want = {"P volume music 30 40", "P speaker 61", "P volume prompt 70 61", "P focus prompt", "F prompt", "F ",
                    "P status", "R mic 1"};
    for (const Strings& more : {latency, Strings{"R mic 0", "P status", "P status", "R mic 1"}, latency,
                                Strings{"R mic 0", "R mic 1"}, latency, Strings{"R mic 0"}})
        want.insert(want.end(), more.begin(), more.end());
    EXPECT_EQ(sink.posted, want);
    EXPECT_FALSE(d.MicEnabled() || sink.probe->Active());
    sink.probe->Arm();
    EXPECT_EQ(Do("latency"), "ERR a latency test is already running");
    sink.reports = 2;
    EXPECT_EQ(Do("status"), "ERR the engines could not write the status report to " + settings.statusFile);
    // A flood without a line feed is cut off; one that hangs up at once is an empty request; one
    // that sends nothing is answered after the server's time limit, not ours.
    EXPECT_EQ(Exchange(RawSocket(path), std::string(4000, 'x')), "ERR request longer than 256 bytes\n");
    EXPECT_EQ(Exchange(RawSocket(path), std::string(256, 'x'), true).find("longer"), std::string::npos);  // the longest taken
    close(RawSocket(path));
    EXPECT_EQ(Exchange(RawSocket(path), ""), "ERR no request line received within 2000 ms\n");
    // Refused: "loud" and the 256 x's; the client that hung up and the second server's probe sent nothing.
    EXPECT_EQ(log.CountPrefix("W Mixerd_ControlServer:Serve:refused:"), 2) << log.Dump();
    // Whether or not the server has taken a connection yet, Stop ends it.
    int fd = RawSocket(path);
    ASSERT_EQ(send(fd, "stat", 4, MSG_NOSIGNAL), 4);
    server.Stop();
    EXPECT_EQ(Exchange(fd, ""), "");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(Do("status").find("cannot reach the daemon at " + path), 0u);
}

TEST(ControlServerTest, SlowOrGoneClientsHoldUpNobodyTheirRequestsAreDroppedAndWhatTheyCanMakeItKeepIsBounded) {
    test::TempDir dir;
    const std::string path = dir.File("ctl.sock");
    FakeSink sink;
    host::ControlDispatcher::Settings settings;
    settings.statusFile = dir.File("status.txt"), settings.statusTimeoutMs = 1000, settings.maxVolumeTypes = 2;
    host::ControlDispatcher d(sink, sink.probe, settings);
    host::ControlServer::Limits limits;
    limits.deadlineMs = 1000, limits.maxConnections = 3;
    test::LogCapture log;
    host::ControlServer server(path, d, limits);
    ASSERT_EQ(server.Start(), 0);
    // A client that has sent one byte holds up nobody, and its bytes do not buy it time: its
    // deadline counts from its accept.
    int trickle = RawSocket(path);
    ASSERT_EQ(send(trickle, "v", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(Ask(path, "volume a 10"), "OK ");
    pollfd p = {trickle, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 0), 0);
    int sent = 1;
    for (; sent < 60 && poll(&p, 1, 50) == 0; ++sent) ASSERT_EQ(send(trickle, "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_LT(sent, 60);  // answered within 3 s of trickling, where a time limit per byte never ends
    EXPECT_EQ(Exchange(trickle, ""), "ERR no request line received within 1000 ms\n");
    // The volume types a client can make the daemon keep: two here.
    for (const char* line : {"volume b 20", "volume a 30"}) EXPECT_EQ(Ask(path, line), "OK ") << line;
    EXPECT_EQ(Ask(path, "volume c 5"), "ERR too many stream types: 2 have a volume already (the daemon's limit)");
    // Beyond three connections the next is refused at once, with one log line for the lot.
    int idle[3];
    for (int& fd : idle) fd = RawSocket(path);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Ask(path, "speaker 5"), "ERR busy: 3 control connections are open; try again");
    for (int fd : idle) close(fd);
    EXPECT_EQ(Ask(path, "speaker 6"), "OK ");
    // A request whose client closed while the server was busy is not carried out.
    std::promise<void> busy;
    sink.onPost = [&busy] { busy.set_value(); };
    std::future<std::string> status = std::async(std::launch::async, [&path] { return Ask(path, "status"); });
    ASSERT_EQ(busy.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    int gone = RawSocket(path);
    ASSERT_EQ(send(gone, "speaker 77\n", 11, MSG_NOSIGNAL), 11);
    close(gone);
    EXPECT_EQ(status.get().find("ERR no status report"), 0u);
    sink.onPost = nullptr;
    EXPECT_EQ(Exchange(RawSocket(path), "speaker 78\n"), "OK\n");
    EXPECT_EQ(sink.posted, (Strings{"P volume a 10 40", "P volume b 20 40", "P volume a 30 40", "P speaker 6",
                                    "P status", "P speaker 78"}));
    for (const char* line : {"W Mixerd_Control:volume c refused: 2 types have a volume already (the limit):",
                             "W Mixerd_ControlServer:Accept:refused: 3 connections open (the limit); further "
                             "refusals are not logged until one is taken:",
                             "W Mixerd_ControlServer:Serve:the client has gone: 'speaker 77' not carried out:"})
        EXPECT_EQ(log.Count(line), 1) << log.Dump();
    EXPECT_EQ(log.CountPrefix("W Mixerd_ControlServer:Serve:no request line within 1000 ms ("), 1);
}
}  // namespace
}  // namespace mixer
