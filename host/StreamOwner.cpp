#include "host/StreamOwner.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "mixer/discovery/StreamFiles.h"

namespace mixer {
namespace host {

namespace {

bool Same(const sStreamInfo& a, const sStreamInfo& b) {
    return a.id == b.id && a.type == b.type && a.name == b.name && a.rate == b.rate && a.numCh == b.numCh &&
           a.sampleSize == b.sampleSize && a.meta == b.meta;
}

}  // namespace

StreamOwner::Verdict StreamOwner::Check(const std::string& fileName, const sStreamInfo& info,
                                        const std::string& queueFile, uid_t& owner, std::string& reason) {
    const std::string descFile = std::string(kStreamDir) + "/" + fileName;
    struct stat queue, desc, after;
    sStreamInfo again;
    if (lstat(queueFile.c_str(), &queue) != 0) return kNoQueue;
    if (lstat(descFile.c_str(), &desc) != 0 || UtilReadFile(fileName, again) != 0 ||
        lstat(descFile.c_str(), &after) != 0)
        return reason = "the description file has gone", kRefused;
    if (desc.st_ino != after.st_ino || desc.st_uid != after.st_uid || !Same(info, again))
        return reason = "the description file changed while it was read", kRefused;
    owner = desc.st_uid;
    const int pid = info.id;
    if (!S_ISREG(queue.st_mode)) return reason = "the queue is not a plain shared object", kRefused;
    if (queue.st_uid != desc.st_uid)
        return reason = "the description file (user " + std::to_string(desc.st_uid) + ") and the queue (user " +
                        std::to_string(queue.st_uid) + ") belong to different users",
               kRefused;
    // Any user could write the queue's shared locks while the daemon holds them.
    if (queue.st_mode & S_IWOTH) return reason = "the queue is writable by every user", kRefused;
    uid_t real, effective;
    if (pid > 0 && ProcessUsers(pid, real, effective) && real != owner && effective != owner)
        return reason = "process " + std::to_string(pid) + " is not user " + std::to_string(owner) + "'s", kRefused;
    return kOk;
}

bool StreamOwner::ProcessUsers(int pid, uid_t& real, uid_t& effective) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 4, "Uid:") != 0) continue;
        std::istringstream ids(line.substr(4));
        return static_cast<bool>(ids >> real >> effective);
    }
    return false;
}

}  // namespace host
}  // namespace mixer
