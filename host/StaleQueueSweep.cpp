#include "host/StaleQueueSweep.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "client/StreamQueueName.h"
#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {

// The regular files in dir whose names begin with prefix.
std::vector<std::string> Files(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        struct stat st;
        if (name.compare(0, prefix.size(), prefix) == 0 && stat((dir + "/" + name).c_str(), &st) == 0 &&
            S_ISREG(st.st_mode))
            names.push_back(name);
    }
    closedir(d);
    return names;
}

// The paths that pid's maps name under dir (a removed object reads "... (deleted)");
// readable: whether the maps could be read at all.
std::set<std::string> Mapped(const std::string& maps, const std::string& dir, bool* readable = nullptr) {
    std::set<std::string> paths;
    std::ifstream in(maps.c_str());
    if (readable) *readable = in.is_open();
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(dir + "/");
        if (at != std::string::npos) paths.insert(line.substr(at, line.find(' ', at) - at));
    }
    return paths;
}

// The block queue that the description file at path names (its first line the stream,
// its second the transport), or empty. A client wrote it: not followed if a link, not
// waited on if a FIFO, and only its head is read.
std::string QueueNamed(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::string();
    char head[512];
    const ssize_t n = read(fd, head, sizeof(head));
    close(fd);
    std::istringstream lines(std::string(head, n > 0 ? static_cast<size_t>(n) : 0));
    std::string stream, type;
    if (!std::getline(lines, stream) || !std::getline(lines, type) || type != client::kTypeDataTrans ||
        stream.find_first_not_of('/') == std::string::npos)
        return std::string();
    return client::StreamQueueName(stream);
}

}  // namespace

std::vector<std::string> StaleQueueSweep::Sweep(const std::string& dir, const std::string& prefix, unsigned minAgeS) {
    std::vector<std::string> removed;
    std::map<std::string, uid_t> candidates;  // path -> owner
    const std::set<std::string> mine = Mapped("/proc/self/maps", dir);
    const time_t now = time(nullptr);
    for (const std::string& name : Files(dir, prefix)) {
        const std::string path = dir + "/" + name;
        struct stat st;
        if (mine.count(path) || stat(path.c_str(), &st) != 0 || now - st.st_ctime < static_cast<time_t>(minAgeS))
            continue;
        candidates[path] = st.st_uid;
    }
    if (candidates.empty()) return removed;  // the usual case: every queue is the daemon's
    DIR* proc = opendir("/proc");
    while (proc && !candidates.empty()) {
        dirent* e = readdir(proc);
        if (!e) break;
        const pid_t pid = static_cast<pid_t>(std::atoi(e->d_name));
        if (pid <= 0 || pid == getpid()) continue;
        const std::string entry = std::string("/proc/") + e->d_name;
        bool readable = false;
        for (const std::string& path : Mapped(entry + "/maps", dir, &readable)) candidates.erase(path);
        struct stat st;
        if (readable || stat(entry.c_str(), &st) != 0) continue;
        // Another user's process (a daemon that is not root): it may hold any of its
        // user's queues.
        for (auto c = candidates.begin(); c != candidates.end();)
            c = c->second == st.st_uid ? candidates.erase(c) : std::next(c);
    }
    if (proc) closedir(proc);
    for (const auto& candidate : candidates) {
        const std::string& path = candidate.first;
        if (unlink(path.c_str()) != 0) continue;
        removed.push_back(path.substr(dir.size() + 1));
        MIXER_LOG_W("Mixerd_Sweep:%s: held by no process: removed:", path.c_str());
    }
    return removed;
}

std::vector<std::string> StaleQueueSweep::ClearDescriptions(const std::string& dir, const char* why) {
    std::vector<std::string> removed;
    for (const std::string& name : Files(dir, "")) {
        const std::string path = dir + "/" + name;
        const std::string queue = QueueNamed(path);
        if (!queue.empty() && shm_unlink(queue.c_str()) == 0)
            MIXER_LOG_W("Mixerd_Sweep:queue %s of %s: %s: removed:", queue.c_str(), path.c_str(), why);
        if (unlink(path.c_str()) != 0) continue;
        removed.push_back(name);
        MIXER_LOG_W("Mixerd_Sweep:%s: %s: removed:", path.c_str(), why);
    }
    return removed;
}

}  // namespace host
}  // namespace mixer
