// A client that attacks mixerd: `hostile-client MODE NAME [N]`. It plays silence on a
// stream named NAME (or talks to the control socket), and strikes on SIGUSR1, once the
// test has seen the daemon take the stream. SIGTERM ends it: it closes what it opened,
// as a client that meant no harm would, so that what is left behind is the daemon's.
// Exit status 0 when the attack ran as planned (for the probing modes: when every door
// was shut), 1 otherwise, with the reason on stderr.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "client/ClientStream.h"
#include "client/StreamQueueName.h"
#include "mixer/core/InOut.h"
#include "mixer/core/StreamNames.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/transport/StreamQueue.h"
#include "shmbuf.h"
#include "shmq.h"

namespace {

volatile sig_atomic_t struck = 0, ended = 0;

// The stand-ins' shared header as their source lays it out (both are one ring of slots
// of unit bytes: a byte each for the queue, a message each for the buffer): a hostile
// client reads it there.
struct RingHead {
    uint32_t magic, unit, slots, readPos, writePos;
};
// glibc's condition variable keeps its internal lock in the low bits of the word at
// this offset (__g1_orig_size), and takes it only with waiters counted (__wrefs, in 8s).
constexpr size_t kCondLockWord = 32, kCondWaitersWord = 36;

// Tells the test that the attack is under way.
void Attacking() {
    std::printf("attacking\n");
    std::fflush(stdout);
}

int Fail(const std::string& why) {
    std::fprintf(stderr, "hostile-client: %s (%s)\n", why.c_str(), std::strerror(errno));
    return 1;
}

// The object under /dev/shm, mapped as the client sees it.
char* MapObject(const std::string& name, size_t& len, int& fd) {
    fd = shm_open(name.c_str(), O_RDWR, 0);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0) return nullptr;
    len = size_t(st.st_size);
    void* p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return p == MAP_FAILED ? nullptr : static_cast<char*>(p);
}

bool Announce(const std::string& type, const std::string& name) {
    mixer::sStreamInfo info;
    info.id = getpid();
    info.type = type;
    info.name = name;
    info.rate = 48000;
    info.numCh = 2;
    info.sampleSize = 2;
    info.meta = "attack";
    return mixer::UtilWriteFile(info) == 0;
}

int Connect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Runs until SIGTERM; feed plays a period of silence (its own pace: every 10 ms).
template <typename Feed, typename Strike>
int Loop(Feed feed, Strike strike) {
    bool done = false;
    while (!ended) {
        if (struck && !done) {
            done = true;
            if (!strike()) return Fail("the strike failed");
            Attacking();
        }
        feed();
        usleep(10000);
    }
    return 0;
}

int DataTransMode(const std::string& mode, const std::string& name, unsigned n) {
    const std::string qname = mixer::client::StreamQueueName(name);
    mixer::client::ClientStream stream;
    mixer::DataTrans raw;
    if (mode == "huge") {
        // A valid queue far beyond any limit, announced by hand; the flush command
        // makes a reader that took it reset every block.
        if (raw.Init(qname.c_str(), n, 8) != 0 || !Announce(mixer::client::kTypeDataTrans, name)) return Fail("no queue");
        raw.SetRate(48000), raw.SetNumCh(2), raw.SetSampleSize(2);
        raw.SetCmd(mixer::CMD_FLUSH);
        Attacking();
        while (!ended) usleep(10000);
        return 0;
    }
    mixer::client::ClientStream::Params p;
    p.name = name;
    p.meta = "attack";
    std::string why;
    if (stream.Open(mixer::client::ClientStream::kPlayback, p, why) != 0) return Fail("not accepted: " + why);
    size_t len = 0;
    int fd = -1;
    char* mem = MapObject(qname, len, fd);
    if (!mem) return Fail("cannot map " + qname);
    std::vector<char> silence(stream.Queue().GetUserBlkSize(), 0);
    bool quiet = false;  // after the strike: this end would wedge itself on the condition too
    auto feed = [&] {
        size_t wrote = 0;
        if (!quiet && stream.Queue().GetNumBlkFree() > 0) stream.Writer().Write(silence.data(), silence.size(), nullptr, 0, &wrote);
    };
    const int rc = Loop(feed, [&] {
        quiet = true;
        if (mode == "cond-lock") {  // wedges the next broadcast on the writer's condition
            // With the queue full, the mixer's next release broadcasts on it.
            for (int i = 0; i < 200 && stream.Queue().GetNumBlkFree() > 0; ++i) {
                size_t wrote = 0;
                stream.Writer().Write(silence.data(), silence.size(), nullptr, 0, &wrote);
                usleep(10000);
            }
            char* cond = mem + offsetof(mixer::StreamQueue, condSpaceAvail);
            *reinterpret_cast<uint32_t*>(cond + kCondLockWord) |= 1u;
            *reinterpret_cast<uint32_t*>(cond + kCondWaitersWord) += 8u;
            return true;
        }
        if (mode == "shrink") return ftruncate(fd, 4096) == 0;  // the blocks' pages vanish
        return false;
    });
    // Closing would broadcast on the wedged condition: leave as a killed client does.
    if (mode == "cond-lock") std::_Exit(rc);
    munmap(mem, len);
    close(fd);
    return rc;
}

int ShmMode(const std::string& mode, const std::string& name) {
    const bool q = mode.compare(0, 4, "shmq") == 0;
    ShmQHandle* hq = q ? ShmQCreate(name.c_str(), 76800) : nullptr;
    // 4-byte messages, as the attack found them; many of them, for room.
    ShmbufHandle* hb = q ? nullptr : ShmbufCreate(name.c_str(), 4, 9600);
    if ((q ? (void*)hq : (void*)hb) == nullptr || !Announce(q ? mixer::kTypeShmQ : mixer::kTypeShmB, name))
        return Fail("no queue");
    size_t len = 0;
    int fd = -1;
    char* mem = MapObject("/" + name, len, fd);
    if (!mem) return Fail("cannot map " + name);
    const std::vector<char> silence(3840, 0);
    bool quiet = false;  // after the strike: the stand-in's writer trusts its header too
    auto feed = [&] {
        if (quiet) return;
        if (hq) ShmQWrite(hq, silence.data(), int32_t(silence.size()), 0);
        else ShmbufWrite(hb, silence.data(), uint32_t(silence.size() / 4), 0);
    };
    const int rc = Loop(feed, [&] {
        quiet = true;
        RingHead* h = reinterpret_cast<RingHead*>(mem);
        if (mode == "shmq-capacity") h->slots = 0;
        else if (mode == "shmq-readpos") h->readPos = 0x80000000u;
        else if (mode == "shmb-size") h->unit = 7680;  // the daemon's frame holds 3840
        else if (mode == "shmq-stop" || mode == "shmb-stop") {
            raise(SIGSTOP);  // in the middle of its stream, until the test continues it
        } else {
            return false;
        }
        return true;
    });
    munmap(mem, len);
    close(fd);
    if (hq) ShmQClose(hq);
    if (hb) ShmbufClose(hb);
    return rc;
}

// Control socket: one byte every 1.8 s (trickle), or n volume requests with n stream
// types (volume-flood: succeeds when the daemon refused the types beyond its limit).
int ControlMode(const std::string& mode, const std::string& socketPath, unsigned n) {
    if (mode == "trickle") {
        const int fd = Connect(socketPath);
        if (fd < 0) return Fail("cannot connect");
        for (const char* p = "status"; !ended && *p; ++p) {
            if (send(fd, p, 1, MSG_NOSIGNAL) != 1) break;  // the daemon may drop it: that is its right
            if (p[1] == 't') Attacking();
            for (int i = 0; i < 180 && !ended; ++i) usleep(10000);
        }
        close(fd);
        return 0;
    }
    unsigned refused = 0;
    Attacking();
    for (unsigned i = 0; i < n && !ended; ++i) {
        const int fd = Connect(socketPath);
        if (fd < 0) return Fail("cannot connect");
        const std::string req = "volume attack" + std::to_string(i) + " 10\n";
        char reply[256] = {0};
        const bool sent = send(fd, req.data(), req.size(), MSG_NOSIGNAL) == ssize_t(req.size());
        const ssize_t got = sent ? recv(fd, reply, sizeof reply - 1, MSG_WAITALL) : -1;
        close(fd);
        refused += got > 0 && std::strncmp(reply, "ERR", 3) == 0;
    }
    return refused > 0 ? 0 : Fail("every new stream type was kept");
}

// Outside the daemon's group: every door must be shut (the stream directory, the
// queue of the stream NAME, the control socket).
int OutsiderMode(const std::string& name, const std::string& socketPath) {
    const gid_t nogroup = 65534;
    if (setgroups(0, nullptr) != 0 || setgid(nogroup) != 0 || setuid(65534) != 0) return Fail("cannot drop to nobody");
    Attacking();
    std::string open;
    const std::string file = "/var/run/mixer/intruder";
    const int f = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (f >= 0) open += " the stream directory", close(f), unlink(file.c_str());
    const int q = shm_open(mixer::client::StreamQueueName(name).c_str(), O_RDWR, 0);
    if (q >= 0) open += " the queue", close(q);
    const int s = Connect(socketPath);
    if (s >= 0) open += " the control socket", close(s);
    errno = 0;
    return open.empty() ? 0 : Fail("open to an outsider:" + open);
}

// Another member of the group: once the queue of the stream NAME appears, announce it
// first, with this process's id and another format.
int HijackMode(const std::string& victim) {
    const group* audio = getgrnam("audio");  // the daemon's clients' group
    if (!audio || setgroups(0, nullptr) != 0 || setgid(audio->gr_gid) != 0 || setuid(65534) != 0)
        return Fail("cannot become a member");
    Attacking();
    const std::string queue = "/dev/shm" + mixer::client::StreamQueueName(victim);
    for (int i = 0; i < 2000 && !ended && access(queue.c_str(), F_OK) != 0; ++i) usleep(1000);
    mixer::sStreamInfo info;
    info.id = getpid();
    info.type = mixer::client::kTypeDataTrans;
    info.name = victim;
    info.rate = 16000;
    info.numCh = 1;
    info.sampleSize = 2;
    info.meta = "music";
    std::printf("announced: %s\n", mixer::UtilWriteFile(info) == 0 ? "yes" : "no");
    while (!ended) usleep(10000);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: hostile-client MODE NAME [N]\n");
        return 2;
    }
    signal(SIGUSR1, [](int) { struck = 1; });
    signal(SIGTERM, [](int) { ended = 1; });
    const std::string mode = argv[1], name = argv[2], arg = argc > 3 ? argv[3] : "", socketPath = "/run/mixerd/mixerd.sock";
    const unsigned n = unsigned(std::strtoul(arg.c_str(), nullptr, 10));
    if (mode == "cond-lock" || mode == "shrink" || mode == "huge") return DataTransMode(mode, name, n);
    if (mode.compare(0, 3, "shm") == 0) return ShmMode(mode, name);
    if (mode == "trickle" || mode == "volume-flood") return ControlMode(mode, socketPath, n);
    if (mode == "outsider") return OutsiderMode(arg, socketPath);
    if (mode == "hijack") return HijackMode(arg);
    std::fprintf(stderr, "hostile-client: unknown mode %s\n", mode.c_str());
    return 2;
}
