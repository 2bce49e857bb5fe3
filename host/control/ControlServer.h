#pragma once

#include <string>
#include <thread>

#include "host/control/ControlHandler.h"

namespace mixer {
namespace host {

// The daemon's end of the control socket: a Unix stream socket at a path, served by one
// thread. Each connection carries one request line and gets one reply, then is closed
// (ControlProtocol). Malformed requests are answered with "ERR ..." without reaching the
// handler; a client that sends nothing for kReadTimeoutMs, or more than a request's
// worth of bytes, is answered with an error and dropped. Nothing a client sends can stop
// the server.
//
// Threading: Start and Stop on the host's thread (Stop joins the server thread and may
// wait for the request in progress). The handler runs on the server thread. Fields are
// written by Start/Stop only while the server thread is not running.
class ControlServer {
public:
    static constexpr int kReadTimeoutMs = 2000;

    ControlServer(const std::string& path, ControlHandler& handler);
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
    void Run();
    void Serve(int fd);

    std::string path_;
    ControlHandler& handler_;
    int listenFd_;
    int stopFd_;  // eventfd: written by Stop to wake the server thread
    std::thread thread_;
    unsigned served_;
};

}  // namespace host
}  // namespace mixer
