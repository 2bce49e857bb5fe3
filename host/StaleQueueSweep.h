#pragma once

#include <string>
#include <vector>

namespace mixer {
namespace host {

// Removes client queues that nobody holds any more: a client that was killed before the
// daemon took its stream, or whose daemon was killed, leaves its shared memory behind,
// and the name stays taken for every later client of it. A queue under the prefix is
// stale when it is older than minAgeS (a client maps its new queue at once) and no live
// process has it mapped. This daemon's own mappings are looked at first; only when a
// queue is not one of them are the other processes' maps read. A process whose maps
// cannot be read is taken to hold every queue of its user: a daemon that is not root
// reads only its own user's, and leaves other users' queues alone.
//
// Threading: the daemon's main thread; no state. Sweep reads /proc and the shared-memory
// directory and allocates.
class StaleQueueSweep {
public:
    // dir: where the system keeps shared memory; prefix: the queues' file names begin
    // with it. The names removed.
    static std::vector<std::string> Sweep(const std::string& dir, const std::string& prefix, unsigned minAgeS);
    // Removes the stream description files in dir and the block queues they name: at
    // start nothing of an earlier daemon's is live any more, and at an exit that could
    // not close its streams nobody else would remove them (a client keeps its mapping,
    // only the name goes). why: the reason the log lines give. The files removed.
    static std::vector<std::string> ClearDescriptions(const std::string& dir, const char* why);
};

}  // namespace host
}  // namespace mixer
