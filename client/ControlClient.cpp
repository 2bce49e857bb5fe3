#include "client/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "client/ControlProtocol.h"

namespace mixer {
namespace client {

bool ControlClient::Request(const std::string& path, const std::string& line, ControlReply& reply,
                            std::string& error, int timeoutMs, bool* gone) {
    bool dropped = false;
    if (!gone) gone = &dropped;
    *gone = false;
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
        error = "bad socket path '" + path + "'";
        return false;
    }
    std::memcpy(addr.sun_path, path.data(), path.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    // One deadline for the whole exchange. A daemon that has died but whose socket is
    // still held (a core dump being written) takes connections into its backlog until
    // it is full, and answers none: neither wait may be without bound.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    auto msLeft = [&deadline]() {
        const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                   std::chrono::steady_clock::now()).count();
        return ms < 0 ? 0 : static_cast<int>(ms);
    };
    auto fail = [&](const std::string& why) {
        error = why;
        close(fd);
        return false;
    };
    while (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        if (errno == EINTR) continue;
        // A full backlog: a live daemon takes a connection within a moment.
        if (errno == EAGAIN && msLeft() > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        *gone = errno != EAGAIN;
        return fail(errno == EAGAIN ? "the daemon at " + path + " takes no connection within " +
                                          std::to_string(timeoutMs) + " ms"
                                    : "cannot reach the daemon at " + path + ": " + std::strerror(errno));
    }
    std::string request = line + "\n";
    size_t off = 0;
    while (off < request.size()) {
        ssize_t n = send(fd, request.data() + off, request.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) {
            pollfd pfd = {fd, POLLOUT, 0};
            if (poll(&pfd, 1, msLeft()) == 0) return fail("the daemon takes no request within " + std::to_string(timeoutMs) + " ms");
            continue;
        }
        // A daemon that refuses the connection (busy) closes it at once: its reply is read below.
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) break;
        if (n <= 0) return fail(std::string("send: ") + std::strerror(errno));
        off += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    std::string data;
    for (;;) {
        pollfd pfd = {fd, POLLIN, 0};
        int r = poll(&pfd, 1, msLeft());
        if (r < 0 && errno == EINTR) continue;
        if (r == 0) return fail("no reply from the daemon within " + std::to_string(timeoutMs) + " ms");
        char buf[4096];
        ssize_t n = r < 0 ? -1 : recv(fd, buf, sizeof(buf), 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        // A daemon that answers without reading the request (busy) resets the connection
        // once the reply is in: the reply stands.
        if (n < 0 && errno == ECONNRESET && !data.empty()) break;
        if (n < 0) {
            *gone = errno == ECONNRESET;
            return fail(std::string("recv: ") + std::strerror(errno));
        }
        if (n == 0) break;
        data.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    if (!ControlProtocol::ParseReply(data, reply)) {
        *gone = data.empty();
        error = data.empty() ? "the daemon closed the connection without a reply"
                             : "the daemon's reply is not understood";
        return false;
    }
    return true;
}

}  // namespace client
}  // namespace mixer
