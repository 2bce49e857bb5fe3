#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <mutex>

#include "host/ControlClient.h"
#include "host/ControlDispatcher.h"
#include "host/ControlProtocol.h"
#include "host/ControlServer.h"
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

using host::ControlCommand;
using host::ControlProtocol;
using host::ControlReply;
using Strings = std::vector<std::string>;
using std::to_string;
template <class M>
boost::shared_ptr<M> As(const boost::shared_ptr<MsgHead>& m) { return boost::dynamic_pointer_cast<M>(m); }

// What a parsed request says: kind|type|volume|enable.
std::string Said(const ControlCommand& c) {
    return to_string(c.kind) + "|" + c.streamType + "|" + to_string(c.volume) + "|" + to_string(c.enable);
}

TEST(ControlProtocolTest, RequestsParseOrAreRefusedWithTheReason) {
    const std::string t64(64, 't'), percent = "volume must be a whole percent from 0 to 100, not ";
    const struct {
        std::string line;
        bool ok;
        std::string text;  // Said() or the reason
    } cases[] = {
        {"volume music 30", true, "0|music|30|0"}, {"  speaker\t100 \r\n", true, "1||100|0"},
        {"speaker 0", true, "1||0|0"}, {"focus !", true, "2|!|0|0"}, {"focus none", true, "2||0|0"},
        {"mic on", true, "3||0|1"}, {"mic off", true, "3||0|0"}, {"status", true, "4||0|0"},
        {"latency", true, "5||0|0"}, {"help", true, "6||0|0"}, {"volume " + t64 + " 5", true, "0|" + t64 + "|5|0"},
        {"status" + std::string(250, ' ') + "\r\n", true, "4||0|0"},
        {"status" + std::string(251, ' '), false, "request longer than 256 bytes"},
        {"", false, "empty request (try 'help')"}, {"   \t", false, "empty request (try 'help')"},
        {"VOLUME music 3", false, "unknown request 'VOLUME' (try 'help')"},
        {std::string(40, 'z'), false, "unknown request '" + std::string(32, 'z') + "' (try 'help')"},
        {"volume music", false, "usage: volume TYPE PERCENT"},
        {"volume music 3 4", false, "usage: volume TYPE PERCENT"}, {"volume music 101", false, percent + "'101'"},
        {"volume music -1", false, percent + "'-1'"}, {"speaker 4.5", false, percent + "'4.5'"},
        {"speaker 99999999999999999999", false, percent + "'99999999999999999999'"},
        {"speaker", false, "usage: speaker PERCENT"}, {"focus", false, "usage: focus TYPE|none"},
        {"mic maybe", false, "usage: mic on|off"}, {"status now", false, "usage: status"},
        {"latency 1", false, "usage: latency"}, {"help me", false, "usage: help"},
        {"volume " + t64 + "t 5", false, "stream type longer than 64 characters"},
        {"focus a\x01" "b", false, "stream type contains a control character"},
        {"volume a\x7f 5", false, "stream type contains a control character"},
    };
    for (const auto& c : cases) {
        ControlCommand cmd;
        cmd.kind = ControlCommand::kLatency;
        std::string error;
        EXPECT_EQ(ControlProtocol::Parse(c.line, cmd, error), c.ok) << c.line;
        EXPECT_EQ(c.ok ? Said(cmd) : error, c.text);
        EXPECT_EQ(cmd.kind, c.ok ? cmd.kind : ControlCommand::kLatency) << "a refused line leaves cmd alone";
    }
    // Replies: an error is one line even when its reason was not.
    auto parsed = [](const std::string& data) {
        ControlReply r;
        return ControlProtocol::ParseReply(data, r) ? (r.ok ? "OK " : "ERR ") + r.text : "none";
    };
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Ok()) + ControlProtocol::FormatReply(ControlReply::Ok("a\n")) +
                  ControlProtocol::FormatReply(ControlReply::Ok("a\nb")), "OK\nOK\na\nOK\na\nb\n");
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Error("x\ny\r")), "ERR x y \n");
    EXPECT_EQ(Strings({parsed("OK\na\n"), parsed("ERR x y\n"), parsed(""), parsed("HELLO\n")}),
              (Strings{"OK a\n", "ERR x y", "none", "none"}));
}

struct EchoHandler : host::ControlHandler {
    ControlReply Handle(const ControlCommand& cmd) override {
        std::lock_guard<std::mutex> guard(mutex);
        seen.push_back(Said(cmd));
        return cmd.kind == ControlCommand::kLatency ? ControlReply::Error("no echo") : ControlReply::Ok(Said(cmd));
    }
    Strings Seen() {
        std::lock_guard<std::mutex> guard(mutex);
        return seen;
    }
    std::mutex mutex;
    Strings seen;
};

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
std::string Exchange(int fd, const std::string& data, bool endInput = false) {
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
    const std::string path = dir.File("ctl.sock"), longPath = dir.File(std::string(200, 'p'));
    close(RawSocket(path, true));
    EchoHandler handler;
    test::LogCapture log;
    host::ControlServer server(path, handler), second(path, handler), tooLong(longPath, handler),
        noDir(dir.File("missing/ctl.sock"), handler);
    ASSERT_EQ(server.Start(), 0);  // over the stale socket file
    EXPECT_EQ(second.Start() + tooLong.Start() + noDir.Start(), -3);
    EXPECT_EQ(log.Count("E Mixerd_ControlServer:Start:another daemon answers on " + path + ":"), 1);
    EXPECT_EQ(log.CountPrefix("E Mixerd_ControlServer:Start:"), 3);
    second.Stop();  // must not remove the live server's socket
    EXPECT_EQ(Exchange(RawSocket(path), "volume music 30\n"), "OK\n0|music|30|0\n");
    EXPECT_EQ(Exchange(RawSocket(path), "volume music loud\n"),
              "ERR volume must be a whole percent from 0 to 100, not 'loud'\n");
    EXPECT_EQ(Exchange(RawSocket(path), "help\n"), std::string("OK\n") + ControlProtocol::Usage());
    // A flood without a line feed is cut off; a request without one counts once the
    // client ends its side; one that hangs up at once is an empty request.
    EXPECT_EQ(Exchange(RawSocket(path), std::string(4000, 'x')), "ERR request longer than 256 bytes\n");
    EXPECT_EQ(Exchange(RawSocket(path), "mic on", true), "OK\n3||0|1\n");
    close(RawSocket(path));
    ControlReply reply;
    std::string error;
    ASSERT_TRUE(host::ControlClient::Request(path, "latency", reply, error)) << error;
    EXPECT_EQ(reply.ok ? "OK" : reply.text, "no echo");
    // A client that sends nothing is answered after the server's time limit, not ours.
    EXPECT_EQ(Exchange(RawSocket(path), ""), "ERR no request line received\n");
    EXPECT_EQ(handler.Seen(), (Strings{"0|music|30|0", "3||0|1", "5||0|0"}));
    // Refused: "loud", the client that hung up, and the second server's probe connection.
    EXPECT_EQ(log.CountPrefix("W Mixerd_ControlServer:Serve:refused:"), 3) << log.Dump();
    // Whether or not the server has taken a connection yet, Stop ends it.
    int fd = RawSocket(path);
    ASSERT_EQ(send(fd, "stat", 4, MSG_NOSIGNAL), 4);
    server.Stop();
    EXPECT_EQ(Exchange(fd, ""), "");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    server.Stop();  // idempotent
    EXPECT_FALSE(host::ControlClient::Request(path, "status", reply, error));
    EXPECT_EQ(error.find("cannot reach the daemon at " + path), 0u) << error;
    EXPECT_FALSE(host::ControlClient::Request(longPath, "status", reply, error));
    EXPECT_EQ(error.find("bad socket path"), 0u) << error;
}

// Records what the dispatcher posts, one line a message ("P" playback, "R" record, "F"
// focus change), and plays the engines' part: with reports set they write the status
// report and let go of the request; echo -1 leaves a latency test unmarked, 0 marks it
// unheard, 1 feeds the mark to the listener. Other messages are kept: never done.
struct FakeSink : host::EngineSink {
    void PostPlayback(boost::shared_ptr<MsgHead> msg) override { Post("P ", msg); }
    void PostRecord(boost::shared_ptr<MsgHead> msg) override { Post("R ", msg); }
    void FocusChanged(const std::string& type) override { posted.push_back("F " + type); }
    void Post(std::string line, boost::shared_ptr<MsgHead> msg) {
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
            std::ofstream(As<MsgWriteInfo>(msg)->fileName.c_str()) << "playback\nrecord\n";
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
    bool reports = false;
    int echo = -1;
    Strings posted;
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
        ControlCommand c;
        std::string error;
        EXPECT_TRUE(ControlProtocol::Parse(line, c, error)) << line;
        ControlReply r = d.Handle(c);
        return (r.ok ? "OK " : "ERR ") + r.text;
    };
    for (const char* line : {"volume music 30", "speaker 61", "volume prompt 70", "focus prompt", "focus none"})
        EXPECT_EQ(Do(line), "OK ") << line;
    EXPECT_EQ(Do("help"), "ERR request not handled here");
    std::ofstream(settings.statusFile.c_str()) << "stale\n";  // an earlier report is never taken for this one's
    EXPECT_EQ(Do("status"), "ERR no status report within 300 ms: the engines do not answer");
    EXPECT_EQ(Do("latency"), "ERR latency test: the output did not carry the mark within 300 ms "
                             "(no silence algorithm on the output?)");
    sink.reports = true;
    sink.echo = 0;
    EXPECT_EQ(Do("status"), "OK playback\nrecord\n");
    EXPECT_EQ(Do("mic on"), "OK ");
    EXPECT_EQ(Do("latency"), "ERR latency test: the mark did not come back on the microphone within 300 ms");
    EXPECT_EQ(Do("mic off"), "OK ");
    sink.echo = 1;
    std::string r = Do("latency");  // the delay itself is the machine's
    EXPECT_EQ(r.compare(0, 11, "OK latency ") + r.compare(r.size() - 4, 4, " ms\n"), 0) << r;
    // A stream volume carries the speaker volume in force; "focus none" posts nothing; a
    // microphone that was off is on for a latency test only.
    const Strings latency = {"R output", "P input latencyTest 32000 3", "P latency"};
    Strings want = {"P volume music 30 40", "P speaker 61", "P volume prompt 70 61", "P focus prompt", "F prompt", "F ",
                    "P status", "R mic 1"};
    for (const Strings& more : {latency, Strings{"R mic 0", "P status", "R mic 1"}, latency,
                                Strings{"R mic 0", "R mic 1"}, latency, Strings{"R mic 0"}})
        want.insert(want.end(), more.begin(), more.end());
    EXPECT_EQ(sink.posted, want);
    EXPECT_EQ(d.SpeakerVolume(), 61u);
    EXPECT_FALSE(d.MicEnabled() || sink.probe->Active());
    sink.probe->Arm();
    EXPECT_EQ(Do("latency"), "ERR a latency test is already running");
    settings.statusFile = dir.File("missing/status.txt");
    ControlCommand status;
    status.kind = ControlCommand::kStatus;
    EXPECT_EQ(host::ControlDispatcher(sink, sink.probe, settings).Handle(status).text,
              "the engines could not write the status report to " + settings.statusFile);
}

}  // namespace
}  // namespace mixer
