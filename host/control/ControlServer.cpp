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

// The sockets are non-blocking: a client that does not read its reply is waited for at
// most waitMs in all.
void SendAll(int fd, const std::string& data, unsigned waitMs) {
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) {
            pollfd pfd = {fd, POLLOUT, 0};
            if (poll(&pfd, 1, static_cast<int>(waitMs)) != 1) return;
            waitMs = 0;  // one wait only
            continue;
        }
        if (n <= 0) return;  // the client went away; nothing to do about it
        off += static_cast<size_t>(n);
    }
}

// Closes a connection whose request is unread after reading a little of it: closing on
// unread bytes resets the connection, which may cost the client the reply sent.
void CloseUnread(int fd) {
    char buf[512];
    for (int i = 0; i < 4 && recv(fd, buf, sizeof(buf), MSG_DONTWAIT) > 0; ++i) {
    }
    close(fd);
}

std::string Reply(const client::ControlReply& reply) { return client::ControlProtocol::FormatReply(reply); }

}  // namespace

ControlServer::ControlServer(const std::string& path, ControlHandler& handler, const Limits& limits)
    : path_(path), handler_(handler), limits_(limits), listenFd_(-1), stopFd_(-1), served_(0), busyLogged_(false) {}

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

    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        MIXER_LOG_E("Mixerd_ControlServer:Start:%s: %s:", path_.c_str(), std::strerror(errno));
        if (listenFd_ >= 0) close(listenFd_);
        listenFd_ = -1;
        return -1;
    }
    if (listen(listenFd_, 32) != 0) {
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
    std::vector<pollfd> fds;
    for (;;) {
        fds.assign({{stopFd_, POLLIN, 0}, {listenFd_, POLLIN, 0}});
        int timeoutMs = -1;
        const Clock::time_point now = Clock::now();
        for (const Conn& c : conns_) {
            fds.push_back({c.fd, POLLIN, 0});
            const long long left =
                std::chrono::duration_cast<std::chrono::milliseconds>(c.deadline - now).count() + 1;
            const int wait = left < 0 ? 0 : static_cast<int>(left);
            if (timeoutMs < 0 || wait < timeoutMs) timeoutMs = wait;
        }
        const int r = poll(fds.data(), static_cast<nfds_t>(fds.size()), timeoutMs);
        if (r < 0 && errno != EINTR) {
            MIXER_LOG_E("Mixerd_ControlServer:Run:poll: %s:", std::strerror(errno));
            break;
        }
        if (r > 0 && fds[0].revents) break;
        Process(r > 0 ? fds.data() + 2 : nullptr);
        if (r > 0 && (fds[1].revents & POLLIN)) Accept();
    }
    for (const Conn& c : conns_) close(c.fd);
    conns_.clear();
}

void ControlServer::Process(const pollfd* ready) {
    // Read whatever came before looking at the clock: a request that is in counts.
    std::vector<Conn> open;
    for (size_t i = 0; i < conns_.size(); ++i) {
        Conn& c = conns_[i];
        bool keep = !ready || !ready[i].revents || Read(c);
        if (keep && c.complete) {
            Serve(c);
            keep = false;
        } else if (keep && Clock::now() >= c.deadline) {
            MIXER_LOG_W("Mixerd_ControlServer:Serve:no request line within %u ms (%u bytes): closed:",
                        limits_.deadlineMs, static_cast<unsigned>(c.line.size()));
            SendAll(c.fd, Reply(client::ControlReply::Error("no request line received within " +
                                                            std::to_string(limits_.deadlineMs) + " ms")), 0);
            keep = false;
        }
        if (keep) {
            open.push_back(c);
        } else {
            close(c.fd);
            ++served_;
        }
    }
    conns_.swap(open);
}

void ControlServer::Accept() {
    // A bounded batch, so that a flood of connections cannot keep the thread here.
    for (unsigned n = 0; n <= limits_.maxConnections; ++n) {
        const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return;  // none left (or the client gave up between poll and accept)
        if (conns_.size() >= limits_.maxConnections) {
            // Full as last seen: look again, the clients that have gone since free their places.
            std::vector<pollfd> now;
            for (const Conn& c : conns_) now.push_back({c.fd, POLLIN, 0});
            if (poll(now.data(), static_cast<nfds_t>(now.size()), 0) > 0) Process(now.data());
        }
        if (conns_.size() >= limits_.maxConnections) {
            if (!busyLogged_)
                MIXER_LOG_W("Mixerd_ControlServer:Accept:refused: %u connections open (the limit); "
                            "further refusals are not logged until one is taken:", limits_.maxConnections);
            busyLogged_ = true;
            SendAll(fd, Reply(client::ControlReply::Error("busy: " + std::to_string(limits_.maxConnections) +
                                                          " control connections are open; try again")), 0);
            CloseUnread(fd);
            continue;
        }
        busyLogged_ = false;
        conns_.push_back(Conn{fd, Clock::now() + std::chrono::milliseconds(limits_.deadlineMs), std::string(), false});
    }
}

bool ControlServer::Read(Conn& c) {
    char buf[128];
    const ssize_t n = recv(c.fd, buf, sizeof(buf), 0);
    if (n < 0) return errno == EINTR || errno == EAGAIN;
    if (n == 0) {
        c.complete = true;  // end of input: take what came as the request
        return true;
    }
    for (ssize_t i = 0; i < n && !c.complete; ++i) {
        if (buf[i] == '\n')
            c.complete = true;
        else
            c.line += buf[i];
    }
    if (!c.complete && c.line.size() > client::ControlProtocol::kMaxLineLen) {
        SendAll(c.fd, Reply(client::ControlReply::Error(
                          "request longer than " + std::to_string(client::ControlProtocol::kMaxLineLen) + " bytes")), 0);
        return false;
    }
    return true;
}

void ControlServer::Serve(Conn& c) {
    // A client that closed its socket has given up waiting: what it asked is not done.
    // (A client that only ended its output, as every client does, still reads the reply.)
    pollfd pfd = {c.fd, 0, 0};
    if (poll(&pfd, 1, 0) == 1 && (pfd.revents & (POLLHUP | POLLERR))) {
        // Nothing sent: a probe (a daemon starting looks for a live one), not worth a line.
        if (!c.line.empty())
            MIXER_LOG_W("Mixerd_ControlServer:Serve:the client has gone: '%.40s' not carried out:", c.line.c_str());
        return;
    }
    client::ControlCommand cmd;
    std::string error;
    client::ControlReply reply;
    if (!client::ControlProtocol::Parse(c.line, cmd, error)) {
        MIXER_LOG_W("Mixerd_ControlServer:Serve:refused: %s:", error.c_str());
        reply = client::ControlReply::Error(error);
    } else if (cmd.kind == client::ControlCommand::kHelp) {
        reply = client::ControlReply::Ok(client::ControlProtocol::Usage());
    } else {
        reply = handler_.Handle(cmd);
    }
    SendAll(c.fd, Reply(reply), limits_.deadlineMs);
}

}  // namespace host
}  // namespace mixer
