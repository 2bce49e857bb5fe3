#pragma once

#include <poll.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "host/control/ControlHandler.h"

namespace mixer {
namespace host {

// The daemon's end of the control socket: a Unix stream socket at a path, served by one
// thread. Each connection carries one request line and gets one reply, then is closed
// (ControlProtocol). Malformed requests are answered with "ERR ..." without reaching the
// handler.
//
// Hostile or slow clients: the server reads every open connection at once (one poll
// over all of them), so a client that trickles its request never holds up another's.
// Each connection has Limits::deadlineMs from its accept to send its whole request
// (not per byte); after that, or after more than a request's worth of bytes, it is
// answered with an error and closed. At most Limits::maxConnections are open at once:
// the next is answered "ERR busy ..." and closed, and one log line says so until a
// connection is taken again. A request whose client has closed its socket before the
// request is carried out (it gave up waiting) is dropped without reaching the handler.
// Requests are carried out one at a time; the handler bounds its own waits.
//
// Threading: Start and Stop on the host's thread (Stop joins the server thread and may
// wait for the request in progress). The handler runs on the server thread. conns_ and
// the counters are the server thread's; the rest is written by Start/Stop only while the
// server thread is not running. Accepting allocates.
class ControlServer {
public:
    struct Limits {
        Limits() : deadlineMs(2000), maxConnections(16) {}
        unsigned deadlineMs;      // from accept to the end of the request line
        unsigned maxConnections;  // open at once, the one being served included
    };

    ControlServer(const std::string& path, ControlHandler& handler, const Limits& limits = Limits());
    ~ControlServer();  // Stop()

    // Binds the socket (replacing a stale socket file, refusing when a live server
    // answers there) and starts the thread. 0, or -1 with an error line and nothing left
    // behind.
    int Start();
    // Stops the thread, closes the socket and removes the socket file. Idempotent.
    void Stop();

    const std::string& Path() const { return path_; }
    unsigned Served() const { return served_; }  // connections answered (server thread)

private:
    typedef std::chrono::steady_clock Clock;
    struct Conn {
        int fd;
        Clock::time_point deadline;
        std::string line;
        bool complete;  // a line feed or the end of the client's input came
    };

    void Run();
    // Reads, answers or expires each connection; ready: poll's results for conns_ in
    // order, null when none is known to have input.
    void Process(const pollfd* ready);
    void Accept();
    // Reads what fd has; false when the connection is done with (answered or refused).
    bool Read(Conn& c);
    // Answers a complete request unless its client has gone.
    void Serve(Conn& c);

    std::string path_;
    ControlHandler& handler_;
    const Limits limits_;
    int listenFd_;
    int stopFd_;  // eventfd: written by Stop to wake the server thread
    std::thread thread_;
    unsigned served_;
    std::vector<Conn> conns_;  // server thread: the connections open, oldest first
    bool busyLogged_;          // server thread: the refusal of a full server was logged
};

}  // namespace host
}  // namespace mixer
