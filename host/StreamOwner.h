#pragma once

#include <sys/types.h>

#include <string>

#include "mixer/core/StreamInfo.h"

namespace mixer {
namespace host {

// Whose an announced stream is. A description file names a queue and a process; all
// three must be one user's, or one client could announce another's queue under its own
// terms (another format, its own process id, whose end would hang the queue up). The file
// and the queue sit in sticky directories, so only their owners can replace them; the
// file is read once more between two looks at it, so that what was announced is what the
// owner's file says (the first read may have been of a file its writer removed since).
//
// Threading: any thread; no state. Reads the file system and /proc.
class StreamOwner {
public:
    enum Verdict { kOk, kNoQueue, kRefused };
    // fileName, info: the description file in the stream directory and what it was read
    // as; queueFile: the queue's path under the shared-memory directory. kOk with the
    // owner; kNoQueue when there is no queue (opening it fails as usual); kRefused with
    // the reason.
    static Verdict Check(const std::string& fileName, const sStreamInfo& info, const std::string& queueFile,
                         uid_t& owner, std::string& reason);
    // The real and effective user of process pid, from /proc; false when it cannot be read
    // (ended, or hidden from the daemon).
    static bool ProcessUsers(int pid, uid_t& real, uid_t& effective);
};

}  // namespace host
}  // namespace mixer
