// A client that attacks mixerd: `hostile-client MODE NAME [ARG]`. It plays silence on a
// stream named NAME (or talks to the control socket) and strikes on SIGUSR1, once the
// test has seen the daemon take the stream; it prints "attacking" once under way.
// SIGTERM ends it: it closes what it opened, as a client that meant no harm would, so
// that what is left behind is the daemon's. Exit status 0 when the attack ran as
// planned, 1 otherwise, with the reason on stderr.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

// The stand-ins' shared header as their source lays it out (one ring of slots of unit
// bytes: a byte each for the queue, a message each for the buffer).
struct RingHead { uint32_t magic, unit, slots, readPos, writePos; };
// glibc's condition variable keeps its internal lock in the low bits of the word at
// this offset (__g1_orig_size), and takes it only with waiters counted (__wrefs, in 8s).
constexpr size_t kCondLockWord = 32, kCondWaitersWord = 36;

void Attacking() { std::printf("attacking\n"), std::fflush(stdout); }

int Fail(const std::string& why) {
    std::fprintf(stderr, "hostile-client: %s (%s)\n", why.c_str(), std::strerror(errno));
    return 1;
}

// The object under /dev/shm, mapped as the client sees it.
char* MapObject(const std::string& name, size_t& len, int& fd) {
    struct stat st {};
    if ((fd = shm_open(name.c_str(), O_RDWR, 0)) < 0 || fstat(fd, &st) != 0) return nullptr;
    void* p = mmap(nullptr, len = size_t(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return p == MAP_FAILED ? nullptr : static_cast<char*>(p);
}

bool Announce(const std::string& type, const std::string& name, unsigned rate = 48000, unsigned channels = 2) {
    mixer::sStreamInfo info;
    info.id = getpid(), info.type = type, info.name = name, info.meta = "attack";
    info.rate = rate, info.numCh = channels, info.sampleSize = 2;
    return mixer::UtilWriteFile(info) == 0;
}

// Runs until SIGTERM; feed plays a period of silence (its own pace: every 10 ms).
template <typename Feed, typename Strike>
int Loop(Feed feed, Strike strike) {
    for (bool done = false; !ended; usleep(10000)) {
        if (struck && !std::exchange(done, true)) {
            if (!strike()) return Fail("the strike failed");
            Attacking();
        }
        feed();
    }
    return 0;
}

int DataTransMode(const std::string& mode, const std::string& name, unsigned n) {
    const std::string qname = mixer::client::StreamQueueName(name);
    if (mode == "huge") {  // a valid queue far beyond any limit, then the flush command
        mixer::DataTrans raw;
        if (raw.Init(qname.c_str(), n, 8) != 0 || !Announce(mixer::client::kTypeDataTrans, name)) return Fail("no queue");
        raw.SetCmd(mixer::CMD_FLUSH);
        for (Attacking(); !ended;) usleep(10000);
        return 0;
    }
    mixer::client::ClientStream stream;
    mixer::client::ClientStream::Params p;
    p.name = name, p.meta = "attack";
    std::string why;
    if (stream.Open(mixer::client::ClientStream::kPlayback, p, why) != 0) return Fail("not accepted: " + why);
    size_t len = 0;
    int fd = -1;
    char* mem = MapObject(qname, len, fd);
    if (!mem) return Fail("cannot map " + qname);
    const std::vector<char> silence(stream.Queue().GetUserBlkSize(), 0);
    bool quiet = false;  // after the strike: this end would meet it too
    auto feed = [&] {
        size_t wrote = 0;
        if (stream.Queue().GetNumBlkFree() > 0) stream.Writer().Write(silence.data(), silence.size(), nullptr, 0, &wrote);
    };
    const int rc = Loop([&] { quiet || (feed(), true); }, [&] {
        quiet = true;
        // With the queue full, the mixer's next read and release meet the strike.
        for (int i = 0; i < 200 && stream.Queue().GetNumBlkFree() > 0; ++i) feed(), usleep(10000);
        if (mode == "shrink") return ftruncate(fd, 4096) == 0;  // the blocks' pages vanish
        char* cond = mem + offsetof(mixer::StreamQueue, condSpaceAvail);  // cond-lock
        *reinterpret_cast<uint32_t*>(cond + kCondLockWord) |= 1u;
        *reinterpret_cast<uint32_t*>(cond + kCondWaitersWord) += 8u;
        return mode == "cond-lock";
    });
    // Closing would broadcast on the wedged condition: leave as a killed client does.
    if (mode == "cond-lock") std::_Exit(rc);
    return munmap(mem, len), close(fd), rc;
}

int ShmMode(const std::string& mode, const std::string& name) {
    const bool q = mode.compare(0, 4, "shmq") == 0;
    ShmQHandle* hq = q ? ShmQCreate(name.c_str(), 76800) : nullptr;
    ShmbufHandle* hb = q ? nullptr : ShmbufCreate(name.c_str(), 4, 9600);  // 4-byte messages, as found
    if ((q ? (void*)hq : (void*)hb) == nullptr || !Announce(q ? mixer::kTypeShmQ : mixer::kTypeShmB, name))
        return Fail("no queue");
    size_t len = 0;
    int fd = -1;
    char* mem = MapObject("/" + name, len, fd);
    if (!mem) return Fail("cannot map " + name);
    const std::vector<char> silence(3840, 0);
    bool quiet = false;  // after the strike: the stand-in's writer checks its header too
    const int rc = Loop([&] {
        if (!quiet && hq) ShmQWrite(hq, silence.data(), int32_t(silence.size()), 0);
        if (!quiet && hb) ShmbufWrite(hb, silence.data(), uint32_t(silence.size() / 4), 0);
    }, [&] {
        quiet = true;
        RingHead* h = reinterpret_cast<RingHead*>(mem);
        if (mode == "shmq-capacity") h->slots = 0;
        else if (mode == "shmq-readpos") h->readPos = 0x80000000u;
        else if (mode == "shmb-size") h->unit = 7680;  // the daemon's frame holds 3840
        else if (mode == "shmq-stop" || mode == "shmb-stop") Attacking(), raise(SIGSTOP);  // until continued
        else return false;
        return true;
    });
    munmap(mem, len), close(fd);
    return hq ? ShmQClose(hq) : ShmbufClose(hb), rc;
}

int Connect() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", "/run/mixerd/mixerd.sock");
    return connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? fd : (close(fd), -1);
}

// Control socket: one byte every 1.8 s (trickle), or n volume requests with n stream
// types (volume-flood: succeeds when the daemon refused the types beyond its limit).
int ControlMode(const std::string& mode, unsigned n) {
    const int trickle = mode == "trickle" ? Connect() : 0;
    if (trickle < 0) return Fail("cannot connect");
    for (const char* p = "status"; trickle && !ended && *p; ++p) {
        if (send(trickle, p, 1, MSG_NOSIGNAL) != 1) break;  // the daemon may drop it: that is its right
        if (p[1] == 't') Attacking();
        for (int i = 0; i < 180 && !ended; ++i) usleep(10000);
    }
    if (trickle) return close(trickle), 0;
    unsigned refused = 0;
    Attacking();
    for (unsigned i = 0; i < n && !ended; ++i) {
        const int fd = Connect();
        const std::string req = "volume attack" + std::to_string(i) + " 10\n";
        char reply[256] = {0};
        if (fd < 0 || send(fd, req.data(), req.size(), MSG_NOSIGNAL) != ssize_t(req.size())) return Fail("cannot ask");
        refused += recv(fd, reply, sizeof reply - 1, MSG_WAITALL) > 0 && std::strncmp(reply, "ERR", 3) == 0;
        close(fd);
    }
    return refused > 0 ? 0 : Fail("every new stream type was kept");
}

// Another member of the group: once the queue of the stream victim appears, announce it
// first, with this process's id and another format.
int HijackMode(const std::string& victim) {
    const group* audio = getgrnam("audio");  // the daemon's clients' group
    if (!audio || setgroups(0, nullptr) != 0 || setgid(audio->gr_gid) != 0 || setuid(65534) != 0)
        return Fail("cannot become a member");
    Attacking();
    const std::string queue = "/dev/shm" + mixer::client::StreamQueueName(victim);
    for (int i = 0; i < 2000 && !ended && access(queue.c_str(), F_OK) != 0; ++i) usleep(1000);
    std::printf("announced: %s\n", Announce(mixer::client::kTypeDataTrans, victim, 16000, 1) ? "yes" : "no");
    while (!ended) usleep(10000);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return std::fprintf(stderr, "usage: hostile-client MODE NAME [ARG]\n"), 2;
    signal(SIGUSR1, [](int) { struck = 1; });
    signal(SIGTERM, [](int) { ended = 1; });
    const std::string mode = argv[1], name = argv[2], arg = argc > 3 ? argv[3] : "";
    const unsigned n = unsigned(std::strtoul(arg.c_str(), nullptr, 10));
    if (mode == "cond-lock" || mode == "shrink" || mode == "huge") return DataTransMode(mode, name, n);
    if (mode.compare(0, 3, "shm") == 0) return ShmMode(mode, name);
    if (mode == "trickle" || mode == "volume-flood") return ControlMode(mode, n);
    if (mode == "hijack") return HijackMode(arg);
    return std::fprintf(stderr, "hostile-client: unknown mode %s\n", mode.c_str()), 2;
}
