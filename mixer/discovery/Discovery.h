#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "mixer/core/Api.h"
#include "mixer/core/Connect.h"

namespace mixer {

class Discovery;

// Body of the watcher thread; arg is the Discovery. Returns null.
MIXER_API void* DiscoveryrunLoop(void* discovery);

// Watches the stream directory with inotify and offers every description file that a
// client closes after writing to the host (Connect::AddNewStream); the ping file is
// removed and answered with Connect::Ping.
//
// Threading: Init and DeInit run on a host thread (one at a time); the watcher thread
// runs AddStream and the host calls it makes. running is the only field both touch: a
// flag the host clears and the watcher reads after each blocking read. Nothing else is
// shared, so there is no lock. DeInit blocks until the watcher has ended; the watcher
// blocks in read() and allocates while reading a file.
//
// Lifecycle: a host calls either DeInit or the destructor. The destructor's DeInit on an
// already de-initialised object still removes the stream directory again.
class MIXER_API Discovery {
public:
    Discovery();
    ~Discovery();

    // Prepares the directory, sets up the watch, logs the files already present (they
    // are not offered) and starts the watcher. 1 when the watcher runs, 0 on any
    // failure (each logged); a failed Init leaves what it created for DeInit.
    int Init(Connect* connect);

    // Stops the watcher: removes the watch (which wakes its read), removes the whole
    // stream directory, joins the thread. Returns 1.
    int DeInit();

    // Handles one file closed after writing; watcher thread only.
    void AddStream(const std::string& fileName);

    // After the kernel's event queue overflowed (closes were lost): offers every
    // complete description file in the directory that has not been offered in its
    // present version; a file still being written is left to its own close event.
    // Watcher thread only.
    void Rescan();

private:
    friend void* DiscoveryrunLoop(void* discovery);
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    int32_t inotifyFd;          // -1 when none
    int32_t watchFd;            // -1 when none
    std::atomic<int32_t> running;  // written by the host thread, read by the watcher
    pthread_t thread;
    Connect* connect;           // not owned
    bool threadStarted;         // thread is joinable (host thread only)
    // The instance the watcher reads: a copy of inotifyFd made before the thread starts
    // and not written while it runs, since DeInit clears inotifyFd under its feet.
    int32_t watcherFd;
    // Each file's version (inode and modification time) when it was last offered or,
    // before the watch, seen: what a rescan leaves alone. Written by Init before the
    // watcher starts, then by the watcher only.
    std::map<std::string, std::pair<uint64_t, int64_t> > seen;
    size_t seenLimit;  // past this many entries, those of removed files are dropped
};

}  // namespace mixer
