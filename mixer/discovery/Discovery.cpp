#include "mixer/discovery/Discovery.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "device_metrics.h"
#include "mixer/core/Log.h"
#include "mixer/discovery/StreamFiles.h"

namespace mixer {

namespace {

// Room for one event with a name of up to 144 bytes; a longer name fails the read
// with EINVAL, which ends the watcher. The size is part of the watcher's contract.
const size_t kEventBuf = 160;
const size_t kEventHead = offsetof(struct inotify_event, name);  // 16
const unsigned kRetryMetricEvery = 10;
const useconds_t kRetryPauseUs = 5000;
const size_t kSeenSlack = 64;

// A file's version: inode and modification time in nanoseconds; 0 when it is gone.
std::pair<uint64_t, int64_t> Version(const std::string& name) {
    struct stat st;
    const std::string path = std::string(kStreamDir) + "/" + name;
    if (lstat(path.c_str(), &st) != 0) return std::make_pair(0, 0);
    return std::make_pair(static_cast<uint64_t>(st.st_ino),
                          static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec);
}

// A description file is whole once its seventh line has ended. Opened as the reader
// opens it: a link is not followed, a FIFO does not block.
bool HoldsSevenLines(const std::string& name) {
    const std::string path = std::string(kStreamDir) + "/" + name;
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    // Seven lines of at most 199 characters fit: a longer file is not read to its end.
    char buf[1400];
    const ssize_t n = read(fd, buf, sizeof(buf));
    close(fd);
    return n > 0 && std::count(buf, buf + n, '\n') >= 7;
}

bool IsRegularFile(const struct dirent* ent) {
    if (ent->d_type != DT_UNKNOWN) return ent->d_type == DT_REG;
    // lstat: a client's symbolic link is not a stream file, and is not followed.
    struct stat st;
    const std::string path = std::string(kStreamDir) + "/" + ent->d_name;
    return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

Discovery::Discovery()
    : inotifyFd(-1), watchFd(-1), running(0), thread(), connect(nullptr), threadStarted(false), watcherFd(-1),
      seenLimit(kSeenSlack) {}

Discovery::~Discovery() { DeInit(); }

int Discovery::Init(Connect* connect_) {
    MIXER_LOG_I("Mixer_Discovery:DIscovery Init:Enter:");
    if (connect_ == nullptr) {
        // Every event would call into the host; refuse rather than crash later.
        MIXER_LOG_E("Mixer_Discovery:Init Failed:no connection:");
        return 0;
    }
    if (!UtilCheckDir()) return 0;
    connect = connect_;

    inotifyFd = inotify_init();
    if (inotifyFd < 0) {
        MIXER_LOG_E("Mixer_Discovery:Init Failed:inotify_init1 failed:");
        return 0;
    }
    MIXER_LOG_I("Mixer_Discovery:Discovery Init:Inotify Init Succeeded:");

    watchFd = inotify_add_watch(inotifyFd, kStreamDir, IN_CLOSE_WRITE | IN_DELETE_SELF);
    if (watchFd < 0) {
        MIXER_LOG_E("Mixer_Discovery:Init Failed:inotify_add_watch failed:");
        return 0;
    }
    MIXER_LOG_I("Mixer_Discovery:Discovery Init:Watch Added successfully on mixer directory:");

    DIR* dir = opendir(kStreamDir);
    if (dir == nullptr) {
        MIXER_LOG_E("Mixer_Discovery:Discovery Init:opendir failed!:");
        return 0;
    }
    MIXER_LOG_I("Mixer_Discovery:Discovery Init:opendir succeeded!:");
    // Files from before the watch are only reported: their writers' closes were not
    // seen, so they may be incomplete or stale.
    while (const struct dirent* ent = readdir(dir)) {
        if (!IsRegularFile(ent)) continue;
        MIXER_LOG_D("Mixer_Discovery:Discovered filename is %s::", ent->d_name);
        seen[ent->d_name] = Version(ent->d_name);
    }
    closedir(dir);

    // Raised here rather than by the thread itself, so that a DeInit that comes before
    // the thread's first instruction is not undone by it.
    running = 1;
    watcherFd = inotifyFd;
    if (pthread_create(&thread, nullptr, DiscoveryrunLoop, this) != 0) {
        running = 0;
        MIXER_LOG_E("Mixer_Discovery:Discovery Init:Discovery Thread failed to create:");
        return 0;
    }
    threadStarted = true;
    MIXER_LOG_I("Mixer_Discovery:Discovery Init:Discovery Thread successfully created:");
    return 1;
}

int Discovery::DeInit() {
    running = 0;
    const int fd = inotifyFd;
    if (inotifyFd >= 0 && watchFd >= 0) {
        // Queues IN_IGNORED, which wakes the watcher's read; it then sees running clear.
        const int ret = inotify_rm_watch(inotifyFd, watchFd);
        if (ret != 0) {
            MIXER_LOG_E("Mixer_Discovery:Failed to remove watch:inotify_rm_watch failed with ret %d:", ret);
        }
    }
    inotifyFd = -1;
    watchFd = -1;
    const int rc = system("rm -rf /var/run/mixer");
    (void)rc;
    if (threadStarted) {
        pthread_join(thread, nullptr);
        threadStarted = false;
    }
    // Closed only now: closing under a blocked read would not wake it.
    if (fd >= 0) close(fd);
    return 1;
}

void Discovery::AddStream(const std::string& fileName) {
    seen[fileName] = Version(fileName);
    if (seen.size() > seenLimit) {
        // Streams end and their files go: keep the record to what the directory holds.
        for (std::map<std::string, std::pair<uint64_t, int64_t> >::iterator it = seen.begin(); it != seen.end();)
            it = Version(it->first).first == 0 ? seen.erase(it) : ++it;
        seenLimit = 2 * seen.size() + kSeenSlack;
    }
    if (fileName == kPingFileName) {
        UtilRemoveFile(fileName);
        MIXER_LOG_D("Mixer_Discovery:AddStream:%s:", fileName.c_str());
        connect->Ping();
        return;
    }
    sStreamInfo info;
    // A file that cannot be read or that the host refuses goes, so the directory holds
    // only accepted streams.
    if (UtilReadFile(fileName, info) != 0 || connect->AddNewStream(fileName, info) != 0) {
        UtilRemoveFile(fileName);
    }
}

void Discovery::Rescan() {
    DIR* dir = opendir(kStreamDir);
    if (dir == nullptr) return;
    std::map<std::string, std::pair<uint64_t, int64_t> > present;
    std::vector<std::string> offer;
    while (const struct dirent* ent = readdir(dir)) {
        if (!IsRegularFile(ent)) continue;
        const std::string name = ent->d_name;
        const std::pair<uint64_t, int64_t> version = Version(name);
        std::map<std::string, std::pair<uint64_t, int64_t> >::const_iterator old = seen.find(name);
        if (old != seen.end() && old->second == version) present.insert(*old);
        else if (name == kPingFileName || HoldsSevenLines(name)) offer.push_back(name);
    }
    closedir(dir);
    seen.swap(present);  // forgets the files that have gone
    for (const std::string& name : offer) {
        MIXER_LOG_I("Mixer_Discovery:Rescan:%s:", name.c_str());
        AddStream(name);
    }
}

void* DiscoveryrunLoop(void* arg) {
    Discovery* self = static_cast<Discovery*>(arg);
    MIXER_LOG_I("Mixer_Discovery:Discovery Thread:started:");
    const int fd = self->watcherFd;
    unsigned retry = 0;
    alignas(struct inotify_event) char buf[kEventBuf];

    while (self->running) {
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (!self->running) break;
        if (n == 0) {
            retry = 0;
            continue;
        }
        if (n < 0) {
            const int err = errno;
            if (err != EINTR) {
                char text[128];
                MIXER_LOG_E("Mixer_Discovery:Failed to read inotify:reason = %s:",
                            strerror_r(err, text, sizeof(text)));
                break;
            }
            // Interruptions are retried without limit; every tenth is counted and
            // followed by a short pause, so a signal storm cannot spin the thread.
            ++retry;
            if (retry % kRetryMetricEvery == 0) {
                record_device_metric("Discovery", "DiscoveryRunLoop", "InotifyInterrupt", 1, 0, 0, 0);
                MIXER_LOG_E("Mixer_Discovery:Read Retry count:%u:", retry);
                usleep(kRetryPauseUs);
            }
            continue;
        }

        size_t off = 0;
        while (off + kEventHead <= static_cast<size_t>(n)) {
            struct inotify_event ev;
            std::memcpy(&ev, buf + off, kEventHead);
            const char* name = buf + off + kEventHead;
            const std::string fileName = ev.len ? std::string(name, strnlen(name, ev.len)) : std::string();
            if (ev.mask & IN_CLOSE_WRITE) {
                self->AddStream(fileName);
            } else if (ev.mask & IN_DELETE_SELF) {
                self->running = 0;
                MIXER_LOG_E("Mixer_Discovery:runLoop:IN_DELETE_SELF:Exiting");
                break;
            } else {
                MIXER_LOG_E("Mixer_Discovery:runLoop:Unhandled Evt %x %s:", ev.mask, fileName.c_str());
                // Closes were lost: look at the directory itself.
                if (ev.mask & IN_Q_OVERFLOW) self->Rescan();
            }
            off += kEventHead + ev.len;
        }
        retry = 0;
    }
    MIXER_LOG_I("Mixer_Discovery:Discovery Thread:exiting!!:");
    return nullptr;
}

}  // namespace mixer
