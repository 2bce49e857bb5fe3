// The control socket: the request language, the server and the dispatcher that turns
// requests into engine messages.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "host/ControlClient.h"
#include "host/ControlDispatcher.h"
#include "host/ControlProtocol.h"
#include "host/ControlServer.h"
#include "host/LatencyCarrierInput.h"
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

using host::ControlClient;
using host::ControlCommand;
using host::ControlProtocol;
using host::ControlReply;
using host::LatencyProbe;

// What a parsed request says: kind|type|volume|enable.
std::string Said(const ControlCommand& c) {
    return std::to_string(c.kind) + "|" + c.streamType + "|" + std::to_string(c.volume) + "|" + std::to_string(c.enable);
}

ControlCommand Parsed(const std::string& line) {
    ControlCommand c;
    std::string error;
    EXPECT_TRUE(ControlProtocol::Parse(line, c, error)) << line;
    return c;
}

TEST(ControlProtocolTest, RequestsParseOrAreRefusedWithTheReason) {
    const std::string t64(64, 't'), percent = "volume must be a whole percent from 0 to 100, not ";
    const struct {
        std::string line;
        bool ok;
        std::string text;  // Said() or the reason
    } cases[] = {
        {"volume music 30", true, "0|music|30|0"}, {"  speaker\t100 \r\n", true, "1||100|0"}, {"speaker 0", true, "1||0|0"},
        {"focus !", true, "2|!|0|0"}, {"focus none", true, "2||0|0"}, {"mic on", true, "3||0|1"}, {"mic off", true, "3||0|0"},
        {"status", true, "4||0|0"}, {"latency", true, "5||0|0"}, {"help", true, "6||0|0"},
        {"volume " + t64 + " 5", true, "0|" + t64 + "|5|0"}, {"status" + std::string(250, ' ') + "\r\n", true, "4||0|0"},
        {"status" + std::string(251, ' '), false, "request longer than 256 bytes"},
        {"", false, "empty request (try 'help')"}, {"   \t", false, "empty request (try 'help')"},
        {"VOLUME music 3", false, "unknown request 'VOLUME' (try 'help')"},
        {std::string(40, 'z'), false, "unknown request '" + std::string(32, 'z') + "' (try 'help')"},
        {"volume music", false, "usage: volume TYPE PERCENT"}, {"volume music 3 4", false, "usage: volume TYPE PERCENT"},
        {"volume music 101", false, percent + "'101'"}, {"volume music -1", false, percent + "'-1'"},
        {"speaker 4.5", false, percent + "'4.5'"}, {"speaker 99999999999999999999", false, percent + "'99999999999999999999'"},
        {"speaker", false, "usage: speaker PERCENT"}, {"focus", false, "usage: focus TYPE|none"},
        {"mic maybe", false, "usage: mic on|off"}, {"status now", false, "usage: status"},
        {"latency 1", false, "usage: latency"}, {"help me", false, "usage: help"},
        {"volume " + t64 + "t 5", false, "stream type longer than 64 characters"},
        {"focus a\x01" "b", false, "stream type contains a control character"},
        {"volume a\x7f 5", false, "stream type contains a control character"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ControlCommand cmd;
        cmd.kind = ControlCommand::kLatency;
        std::string error;
        ASSERT_EQ(ControlProtocol::Parse(c.line, cmd, error), c.ok);
        EXPECT_EQ(c.ok ? Said(cmd) : error, c.text);
        EXPECT_EQ(cmd.kind, c.ok ? cmd.kind : ControlCommand::kLatency) << "a refused line leaves cmd alone";
    }
    // Replies: an error is one line even when its reason was not.
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Ok()), "OK\n");
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Ok("a\nb")), "OK\na\nb\n");
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Ok("a\n")), "OK\na\n");
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Error("x\ny\r")), "ERR x y \n");
    ControlReply r;
    EXPECT_FALSE(ControlProtocol::ParseReply("", r));
    EXPECT_FALSE(ControlProtocol::ParseReply("HELLO\n", r));
}

class EchoHandler : public host::ControlHandler {
public:
    ControlReply Handle(const ControlCommand& cmd) override {
        std::lock_guard<std::mutex> guard(mutex);
        seen.push_back(Said(cmd));
        return cmd.kind == ControlCommand::kLatency ? ControlReply::Error("no echo") : ControlReply::Ok(Said(cmd));
    }
    std::mutex mutex;
    std::vector<std::string> seen;
};

// The reply as the client helper reads it, or why there was none.
std::string Ask(const std::string& path, const std::string& line) {
    ControlReply reply;
    std::string error;
    if (!ControlClient::Request(path, line, reply, error)) return "FAILED " + error;
    return (reply.ok ? "OK " : "ERR ") + reply.text;
}

// A socket without the client helper, to misbehave: connected, or bound and left as a
// crashed daemon leaves its socket file.
int RawSocket(const std::string& path, bool bindOnly = false) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    return (bindOnly ? bind(fd, a, sizeof(addr)) : connect(fd, a, sizeof(addr))) == 0 ? fd : -1;
}

// Sends data, then reads until the server closes (recv fails on a reset connection).
std::string Exchange(int fd, const std::string& data, bool endInput) {
    EXPECT_EQ(data.empty() ? 0 : send(fd, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
    if (endInput) shutdown(fd, SHUT_WR);
    std::string got;
    char buf[256];
    for (ssize_t n; (n = recv(fd, buf, sizeof(buf), 0)) > 0;) got.append(buf, static_cast<size_t>(n));
    close(fd);
    return got;
}

TEST(ControlServerTest, RequestsAreAnsweredMisbehavingClientsHarmNothingAndStopCleansUp) {
    test::TempDir dir;
    const std::string path = dir.File("ctl.sock");
    close(RawSocket(path, true));
    EchoHandler handler;
    test::LogCapture log;
    host::ControlServer server(path, handler), second(path, handler), tooLong(dir.File(std::string(200, 'p')), handler),
        noDir(dir.File("missing/ctl.sock"), handler);
    ASSERT_EQ(server.Start(), 0);  // over the stale socket file
    EXPECT_EQ(second.Start(), -1);
    EXPECT_EQ(log.Count("E Mixerd_ControlServer:Start:another daemon answers on " + path + ":"), 1);
    second.Stop();  // must not remove the live server's socket
    EXPECT_EQ(tooLong.Start(), -1);
    EXPECT_EQ(noDir.Start(), -1);
    EXPECT_EQ(log.CountPrefix("E Mixerd_ControlServer:Start:"), 3);
    EXPECT_EQ(Ask(dir.File(std::string(200, 'p')), "status").find("FAILED bad socket path"), 0u);

    EXPECT_EQ(Ask(path, "volume music 30"), "OK 0|music|30|0\n");
    EXPECT_EQ(Ask(path, "latency"), "ERR no echo");
    EXPECT_EQ(Ask(path, "volume music loud"), "ERR volume must be a whole percent from 0 to 100, not 'loud'");
    EXPECT_EQ(Ask(path, "help"), std::string("OK ") + ControlProtocol::Usage());
    // A flood without a line feed is cut off; a request without one counts once the
    // client ends its side; one that hangs up at once is an empty request.
    EXPECT_EQ(Exchange(RawSocket(path), std::string(4000, 'x'), false), "ERR request longer than 256 bytes\n");
    EXPECT_EQ(Exchange(RawSocket(path), "mic on", true), "OK\n3||0|1\n");
    close(RawSocket(path));
    EXPECT_EQ(Ask(path, "speaker 50"), "OK 1||50|0\n");
    // A client that sends nothing is answered after the server's time limit, not ours.
    EXPECT_EQ(Exchange(RawSocket(path), "", false), "ERR no request line received\n");
    EXPECT_EQ(handler.seen, (std::vector<std::string>{"0|music|30|0", "5||0|0", "3||0|1", "1||50|0"}));
    // Refused: "loud", the client that hung up, and the second server's probe connection.
    EXPECT_EQ(log.CountPrefix("W Mixerd_ControlServer:Serve:refused:"), 3) << log.Dump();

    // Whether or not the server has taken the connection yet, Stop ends it.
    int fd = RawSocket(path);
    ASSERT_EQ(send(fd, "stat", 4, MSG_NOSIGNAL), 4);
    server.Stop();
    EXPECT_EQ(Exchange(fd, "", false), "");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    server.Stop();  // idempotent
    EXPECT_EQ(Ask(path, "status").find("FAILED cannot reach the daemon at " + path), 0u);
}

// Records what the dispatcher posts, one line a message ("P" playback, "R" record, "F"
// focus change). With engines set it also plays the engines' part: a status request gets
// two reports on a thread of its own, a latency test a mark that comes back unless echo
// is off. Without engines it keeps every message: a status request is never done.
class FakeSink : public host::EngineSink {
public:
    ~FakeSink() override {
        for (std::thread& t : threads) t.join();
    }
    void PostPlayback(boost::shared_ptr<MsgHead> msg) override { Post("P ", msg); }
    void PostRecord(boost::shared_ptr<MsgHead> msg) override { Post("R ", msg); }
    void FocusChanged(const std::string& type) override { posted.push_back("F " + type); }
    void Post(std::string line, boost::shared_ptr<MsgHead> msg) {
        if (auto m = boost::dynamic_pointer_cast<MsgSetStreamVol>(msg))
            line += "volume " + m->streamType + " " + std::to_string(m->volume) + " " + std::to_string(m->speakerVolume);
        else if (auto sp = boost::dynamic_pointer_cast<MsgSetSpeakerVol>(msg)) line += "speaker " + std::to_string(sp->volume);
        else if (auto fo = boost::dynamic_pointer_cast<MsgSetFocus>(msg)) line += "focus " + fo->streamType;
        else if (auto mic = boost::dynamic_pointer_cast<MsgEnableMic>(msg)) line += "mic " + std::to_string(mic->enable);
        else if (auto no = boost::dynamic_pointer_cast<MsgNewOutput>(msg)) line += "output", listener = no->output;
        else if (auto ni = boost::dynamic_pointer_cast<MsgNewInput>(msg))
            line += "input " + ni->input->desc + " " + std::to_string(ni->input->rate) + " " + std::to_string(ni->input->numCh);
        else line += msg->type == MSG_LATENCY_TEST ? "latency" : msg->type == MSG_WRITE_INFO ? "status" : "?";
        posted.push_back(line);
        if (engines && msg->type == MSG_WRITE_INFO) {
            threads.emplace_back([msg]() mutable {
                std::string file = boost::dynamic_pointer_cast<MsgWriteInfo>(msg)->fileName;
                std::ofstream(file.c_str()) << "playback report\n";
                std::ofstream(file.c_str(), std::ios::app) << "record report\n";
                msg.reset();  // the last engine lets go
            });
        } else if (engines && msg->type == MSG_LATENCY_TEST) {
            // The mark went out a period before the microphone frame that carries it.
            probe->Marked(std::chrono::duration_cast<std::chrono::microseconds>(
                              std::chrono::steady_clock::now().time_since_epoch()).count() - 20000);
            boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
            std::fill(f->Samples16(), f->Samples16() + f->len, 0);
            if (echo) LatencyProbe::WriteMark(*f);
            listener->WriteFrame(f);
        } else {
            kept.push_back(msg);
        }
    }

    boost::shared_ptr<LatencyProbe> probe{new LatencyProbe};
    bool engines = false, echo = true;
    std::vector<std::thread> threads;
    std::vector<std::string> posted;
    std::vector<boost::shared_ptr<MsgHead>> kept;
    boost::shared_ptr<Output> listener;
};

TEST(ControlDispatcherTest, RequestsBecomeEngineMessagesAndWaitedForRepliesSayWhatWentWrong) {
    test::TempDir dir;
    FakeSink sink;
    host::ControlDispatcher::Settings settings;
    settings.statusFile = dir.File("status.txt");
    settings.statusTimeoutMs = settings.latencyTimeoutMs = 300;
    settings.mixRate = 32000;
    settings.mixNumCh = 3;
    host::ControlDispatcher d(sink, sink.probe, settings);
    auto Do = [&d](const std::string& line) {
        ControlReply r = d.Handle(Parsed(line));
        return (r.ok ? "OK " : "ERR ") + r.text;
    };
    for (const char* line : {"volume music 30", "speaker 61", "volume prompt 70", "focus prompt", "focus none", "mic on"})
        EXPECT_EQ(Do(line), "OK ") << line;
    EXPECT_EQ(Do("help"), "ERR request not handled here");
    // A stream volume carries the speaker volume in force; "focus none" posts nothing.
    EXPECT_EQ(sink.posted, (std::vector<std::string>{"P volume music 30 40", "P speaker 61", "P volume prompt 70 61",
                                                     "P focus prompt", "F prompt", "F ", "R mic 1"}));
    EXPECT_EQ(d.SpeakerVolume(), 61u);
    EXPECT_TRUE(d.MicEnabled());

    // The report of an earlier request is never taken for this one's.
    std::ofstream(settings.statusFile.c_str()) << "stale report\n";
    EXPECT_EQ(Do("status"), "ERR no status report within 300 ms: the engines do not answer");
    EXPECT_EQ(Do("latency"), "ERR latency test: the output did not carry the mark within 300 ms "
                             "(no silence algorithm on the output?)");
    sink.engines = true;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Do("status"), "OK playback report\nrecord report\n");
    sink.echo = false;
    sink.posted.clear();
    EXPECT_EQ(Do("latency"), "ERR latency test: the mark did not come back on the microphone within 300 ms");
    sink.echo = true;
    Do("mic off");
    std::string r = Do("latency");  // the delay itself is the machine's
    EXPECT_EQ(r.compare(0, 11, "OK latency "), 0) << r;
    EXPECT_EQ(r.substr(r.size() - 4), " ms\n");
    // An enabled microphone stays on; one that was off is turned on for the test only.
    EXPECT_EQ(sink.posted, (std::vector<std::string>{"R output", "P input latencyTest 32000 3", "P latency",
                                                     "R mic 0", "R mic 1", "R output", "P input latencyTest 32000 3",
                                                     "P latency", "R mic 0"}));
    EXPECT_FALSE(sink.probe->Active());
    EXPECT_FALSE(d.MicEnabled());
    sink.probe->Arm();
    EXPECT_EQ(Do("latency"), "ERR a latency test is already running");

    settings.statusFile = dir.File("missing/status.txt");
    host::ControlDispatcher unwritable(sink, sink.probe, settings);
    EXPECT_EQ(unwritable.Handle(Parsed("status")).text,
              "the engines could not write the status report to " + settings.statusFile);
}

}  // namespace
}  // namespace mixer
