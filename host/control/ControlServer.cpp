#include "host/control/ControlServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/ControlProtocol.h"
#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {

bool MakeAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path)) return false;
    std::memcpy(addr.sun_path, path.data(), path.size());
    return true;
}

void SendAll(int fd, const std::string& data) {
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the client went away; nothing to do about it
        off += static_cast<size_t>(n);
    }
}

}  // namespace

ControlServer::ControlServer(const std::string& path, ControlHandler& handler)
    : path_(path), handler_(handler), listenFd_(-1), stopFd_(-1), served_(0) {}

ControlServer::~ControlServer() { Stop(); }

int ControlServer::Start() {
    if (thread_.joinable()) return 0;
    sockaddr_un addr;
    if (!MakeAddress(path_, addr)) {
        MIXER_LOG_E("Mixerd_ControlServer:Start:bad socket path '%s':", path_.c_str());
        return -1;
    }
    // A socket file that nobody answers on is left over from a daemon that died.
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe >= 0) {
        bool live = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        close(probe);
        if (live) {
            MIXER_LOG_E("Mixerd_ControlServer:Start:another daemon answers on %s:", path_.c_str());
            return -1;
        }
    }
    struct stat st;
    if (lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) unlink(path_.c_str());

    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        MIXER_LOG_E("Mixerd_ControlServer:Start:%s: %s:", path_.c_str(), std::strerror(errno));
        if (listenFd_ >= 0) close(listenFd_);
        listenFd_ = -1;
        return -1;
    }
    if (listen(listenFd_, 8) != 0) {
        MIXER_LOG_E("Mixerd_ControlServer:Start:listen %s: %s:", path_.c_str(), std::strerror(errno));
        close(listenFd_);
        listenFd_ = -1;
        unlink(path_.c_str());
        return -1;
    }
    stopFd_ = eventfd(0, EFD_CLOEXEC);
    if (stopFd_ < 0) {
        MIXER_LOG_E("Mixerd_ControlServer:Start:eventfd: %s:", std::strerror(errno));
        close(listenFd_);
        listenFd_ = -1;
        unlink(path_.c_str());
        return -1;
    }
    thread_ = std::thread(&ControlServer::Run, this);
    MIXER_LOG_I("Mixerd_ControlServer:Start:listening on %s:", path_.c_str());
    return 0;
}

void ControlServer::Stop() {
    if (thread_.joinable()) {
        uint64_t one = 1;
        ssize_t n = write(stopFd_, &one, sizeof(one));
        (void)n;  // an eventfd write of 1 cannot fail short of overflow
        thread_.join();
    }
    if (listenFd_ >= 0) {
        close(listenFd_);
        listenFd_ = -1;
        unlink(path_.c_str());
    }
    if (stopFd_ >= 0) {
        close(stopFd_);
        stopFd_ = -1;
    }
}

void ControlServer::Run() {
    for (;;) {
        pollfd fds[2] = {{stopFd_, POLLIN, 0}, {listenFd_, POLLIN, 0}};
        int r = poll(fds, 2, -1);
        if (r < 0) {
            if (errno == EINTR) continue;
            MIXER_LOG_E("Mixerd_ControlServer:Run:poll: %s:", std::strerror(errno));
            return;
        }
        if (fds[0].revents) return;
        if (!(fds[1].revents & POLLIN)) continue;
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;  // the client gave up between poll and accept
        Serve(fd);
        close(fd);
        ++served_;
    }
}

// Reads one request line and answers it; the caller closes fd.
void ControlServer::Serve(int fd) {
    std::string line;
    bool complete = false;
    while (!complete) {
        pollfd pfd[2] = {{fd, POLLIN, 0}, {stopFd_, POLLIN, 0}};
        int r = poll(pfd, 2, kReadTimeoutMs);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            SendAll(fd, client::ControlProtocol::FormatReply(client::ControlReply::Error("no request line received")));
            return;
        }
        if (pfd[1].revents) return;  // shutting down
        char buf[128];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            complete = true;  // end of input: take what came as the request
            break;
        }
        for (ssize_t i = 0; i < n; ++i) {
            if (buf[i] == '\n') {
                complete = true;
                break;
            }
            line += buf[i];
        }
        if (!complete && line.size() > client::ControlProtocol::kMaxLineLen) {
            SendAll(fd, client::ControlProtocol::FormatReply(client::ControlReply::Error(
                            "request longer than " + std::to_string(client::ControlProtocol::kMaxLineLen) + " bytes")));
            return;
        }
    }
    client::ControlCommand cmd;
    std::string error;
    client::ControlReply reply;
    if (!client::ControlProtocol::Parse(line, cmd, error)) {
        MIXER_LOG_W("Mixerd_ControlServer:Serve:refused: %s:", error.c_str());
        reply = client::ControlReply::Error(error);
    } else if (cmd.kind == client::ControlCommand::kHelp) {
        reply = client::ControlReply::Ok(client::ControlProtocol::Usage());
    } else {
        reply = handler_.Handle(cmd);
    }
    SendAll(fd, client::ControlProtocol::FormatReply(reply));
}

}  // namespace host
}  // namespace mixer
