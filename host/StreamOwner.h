#pragma once

#include <sys/types.h>

#include <string>

namespace mixer {
namespace host {

// Whose an announced stream is. A description file names a queue and a process; all
// three must be one user's, or one client could announce another's queue under its own
// terms (another format, its own process id, whose end would hang the queue up). Both
// the file and the queue sit in sticky directories, so once seen they can be replaced by
// their owner alone: checking by name just before the daemon opens the queue is enough.
//
// Threading: any thread; no state. Reads the file system and /proc.
class StreamOwner {
public:
    enum Verdict { kOk, kNoQueue, kRefused };
    // descFile: the description file's path; queueFile: the queue's path under the
    // shared-memory directory; pid: the file's id line (0 or negative: not known). kOk
    // with the owner; kNoQueue when there is no queue (opening it fails as usual);
    // kRefused with the reason.
    static Verdict Check(const std::string& descFile, const std::string& queueFile, int pid, uid_t& owner,
                         std::string& reason);
    // The real and effective user of process pid, from /proc; false when it cannot be read
    // (ended, or hidden from the daemon).
    static bool ProcessUsers(int pid, uid_t& real, uid_t& effective);
};

}  // namespace host
}  // namespace mixer
