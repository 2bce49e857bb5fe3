#include "client/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        error = "cannot reach the daemon at " + path + ": " + std::strerror(errno);
        *gone = true;
        close(fd);
        return false;
    }
    std::string request = line + "\n";
    size_t off = 0;
    while (off < request.size()) {
        ssize_t n = send(fd, request.data() + off, request.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *gone = errno == EPIPE || errno == ECONNRESET;
            error = std::string("send: ") + std::strerror(errno);
            close(fd);
            return false;
        }
        off += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    std::string data;
    for (;;) {
        pollfd pfd = {fd, POLLIN, 0};
        int r = poll(&pfd, 1, timeoutMs);
        if (r < 0 && errno == EINTR) continue;
        if (r == 0) {
            error = "no reply from the daemon within " + std::to_string(timeoutMs) + " ms";
            close(fd);
            return false;
        }
        char buf[4096];
        ssize_t n = r < 0 ? -1 : recv(fd, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *gone = errno == ECONNRESET;
            error = std::string("recv: ") + std::strerror(errno);
            close(fd);
            return false;
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
