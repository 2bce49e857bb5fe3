#include "host/ControlServer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <mutex>
#include <vector>

#include "host/ControlClient.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using host::ControlClient;
using host::ControlCommand;
using host::ControlReply;
using host::ControlServer;

class RecordingHandler : public host::ControlHandler {
public:
    ControlReply Handle(const ControlCommand& cmd) override {
        std::lock_guard<std::mutex> guard(mutex);
        seen.push_back(cmd);
        if (cmd.kind == ControlCommand::kStatus) return ControlReply::Ok("line 1\nline 2\n");
        if (cmd.kind == ControlCommand::kLatency) return ControlReply::Error("no echo");
        return ControlReply::Ok();
    }
    std::vector<ControlCommand> Seen() {
        std::lock_guard<std::mutex> guard(mutex);
        return seen;
    }
    std::mutex mutex;
    std::vector<ControlCommand> seen;
};

// Connects without the client helper, to misbehave.
int RawConnect(const std::string& path) {
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string ReadToEnd(int fd) {
    std::string data;
    char buf[256];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof(buf), 0)) > 0) data.append(buf, static_cast<size_t>(n));
    return data;
}

struct ControlServerTest : testing::Test {
    test::TempDir dir;
    RecordingHandler handler;
    std::string path = dir.File("ctl.sock");
};

TEST_F(ControlServerTest, RequestsReachTheHandlerAndRepliesComeBack) {
    ControlServer server(path, handler);
    ASSERT_EQ(server.Start(), 0);
    ControlReply reply;
    std::string error;
    ASSERT_TRUE(ControlClient::Request(path, "volume music 30", reply, error)) << error;
    EXPECT_TRUE(reply.ok);
    ASSERT_TRUE(ControlClient::Request(path, "status", reply, error)) << error;
    EXPECT_EQ(reply.text, "line 1\nline 2\n");
    ASSERT_TRUE(ControlClient::Request(path, "latency", reply, error)) << error;
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.text, "no echo");
    std::vector<ControlCommand> seen = handler.Seen();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].kind, ControlCommand::kStreamVolume);
    EXPECT_EQ(seen[0].streamType, "music");
    EXPECT_EQ(seen[0].volume, 30u);
}

TEST_F(ControlServerTest, BadRequestsAreAnsweredWithoutReachingTheHandler) {
    test::LogCapture log;
    ControlServer server(path, handler);
    ASSERT_EQ(server.Start(), 0);
    ControlReply reply;
    std::string error;
    ASSERT_TRUE(ControlClient::Request(path, "volume music loud", reply, error)) << error;
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.text, "volume must be a whole percent from 0 to 100, not 'loud'");
    ASSERT_TRUE(ControlClient::Request(path, "help", reply, error)) << error;
    EXPECT_TRUE(reply.ok);
    EXPECT_NE(reply.text.find("latency"), std::string::npos);

    // A flood without a line feed is cut off.
    int fd = RawConnect(path);
    ASSERT_GE(fd, 0);
    std::string flood(4000, 'x');
    ASSERT_EQ(send(fd, flood.data(), flood.size(), MSG_NOSIGNAL), static_cast<ssize_t>(flood.size()));
    EXPECT_EQ(ReadToEnd(fd), "ERR request longer than 256 bytes\n");
    close(fd);

    // A request without its line feed still counts when the client ends its side.
    fd = RawConnect(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(send(fd, "mic on", 6, MSG_NOSIGNAL), 6);
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(ReadToEnd(fd), "OK\n");
    close(fd);

    // A client that connects and goes away at once harms nothing.
    fd = RawConnect(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_TRUE(ControlClient::Request(path, "speaker 50", reply, error)) << error;
    EXPECT_TRUE(reply.ok);

    std::vector<ControlCommand> seen = handler.Seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].kind, ControlCommand::kMic);
    EXPECT_EQ(seen[1].kind, ControlCommand::kSpeakerVolume);
    EXPECT_EQ(log.CountPrefix("W Mixerd_ControlServer:Serve:refused:"), 2) << log.Dump();
}

TEST_F(ControlServerTest, SilentClientIsAnsweredAfterTheReadTimeout) {
    ControlServer server(path, handler);
    ASSERT_EQ(server.Start(), 0);
    int fd = RawConnect(path);
    ASSERT_GE(fd, 0);
    // Blocks until the server gives up on us (its time limit, not ours).
    EXPECT_EQ(ReadToEnd(fd), "ERR no request line received\n");
    close(fd);
    EXPECT_TRUE(handler.Seen().empty());
}

TEST_F(ControlServerTest, StopEndsAWaitingConnectionAndRemovesTheSocket) {
    ControlServer server(path, handler);
    ASSERT_EQ(server.Start(), 0);
    int fd = RawConnect(path);
    ASSERT_GE(fd, 0);
    // Whether or not the server has taken the connection yet, Stop must end it.
    ASSERT_EQ(send(fd, "stat", 4, MSG_NOSIGNAL), 4);
    server.Stop();
    EXPECT_EQ(ReadToEnd(fd), "");
    close(fd);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    server.Stop();  // idempotent
    ControlReply reply;
    std::string error;
    EXPECT_FALSE(ControlClient::Request(path, "status", reply, error));
    EXPECT_EQ(error.find("cannot reach the daemon at " + path), 0u) << error;
}

TEST_F(ControlServerTest, StaleSocketIsReplacedButALiveServerIsNot) {
    {
        // A socket file nobody listens on, as a crashed daemon leaves it.
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr;
        std::memset(&addr, 0, sizeof(addr));
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        close(fd);
    }
    ControlServer first(path, handler);
    ASSERT_EQ(first.Start(), 0);
    test::LogCapture log;
    ControlServer second(path, handler);
    EXPECT_EQ(second.Start(), -1);
    EXPECT_EQ(log.Count("E Mixerd_ControlServer:Start:another daemon answers on " + path + ":"), 1);
    second.Stop();  // must not remove the live server's socket
    ControlReply reply;
    std::string error;
    EXPECT_TRUE(ControlClient::Request(path, "mic off", reply, error)) << error;
}

TEST_F(ControlServerTest, UnusablePathsAreRefused) {
    test::LogCapture log;
    ControlServer tooLong(dir.File(std::string(200, 'p')), handler);
    EXPECT_EQ(tooLong.Start(), -1);
    ControlServer noDir(dir.File("missing/ctl.sock"), handler);
    EXPECT_EQ(noDir.Start(), -1);
    EXPECT_EQ(log.CountPrefix("E Mixerd_ControlServer:Start:"), 2);
    ControlReply reply;
    std::string error;
    EXPECT_FALSE(ControlClient::Request(dir.File(std::string(200, 'p')), "status", reply, error));
    EXPECT_EQ(error.find("bad socket path"), 0u);
}

}  // namespace
}  // namespace mixer
