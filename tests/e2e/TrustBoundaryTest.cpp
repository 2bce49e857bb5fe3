// The trust boundary of a real daemon: who reaches the stream directory, a client's queue
// and the control socket, and who the daemon is once it has left root.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <gtest/gtest.h>
#include "client/ClientStream.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Mixerd.h"
namespace mixer {
namespace {
using test::Mixerd;
const uid_t kNobody = 65534;
const gid_t kNogroup = 65534;

gid_t Audio() { return getgrnam("audio") ? getgrnam("audio")->gr_gid : 0; }

// What a process of uid and gid, and of no other group, reaches: 1 lists the stream
// directory, 2 writes a file there, 4 opens the queue, 8 connects to the socket.
int Reach(uid_t uid, gid_t gid, const std::string& queue, const std::string& sock) {
    test::ChildProcess child([&] {
        if (setgroups(1, &gid) != 0 || setgid(gid) != 0 || setuid(uid) != 0) return 100;
        int reached = 0, fd;
        if (DIR* d = opendir(test::kStreamDir.c_str())) reached |= 1, closedir(d);
        if ((fd = open((test::kStreamDir + "/x").c_str(), O_CREAT | O_WRONLY, 0600)) >= 0) reached |= 2, close(fd);
        if ((fd = shm_open(queue.c_str(), O_RDWR, 0)) >= 0) reached |= 4, close(fd);
        sockaddr_un addr = {AF_UNIX, {}};
        sock.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) reached |= 8;
        return close(fd), reached;
    });
    return child.Wait();
}

std::string StatusLine(pid_t pid, const std::string& key) {
    const std::string all = test::Slurp("/proc/" + std::to_string(pid) + "/status");
    const size_t at = all.find("\n" + key + ":\t");
    return at == std::string::npos ? "" : all.substr(at + key.size() + 3, all.find('\n', at + 1) - at - key.size() - 3);
}

// A client outside the group reaches none of it, not even to read the queue's locks; a
// member reaches all. The daemon runs as root here, as it does when started by hand.
TEST(TrustBoundaryTest, OnlyTheClientsGroupReachesTheStreamDirectoryTheQueuesAndTheSocket) {
    Mixerd d;
    ASSERT_TRUE(d.ready) << test::Slurp(d.log);
    client::ClientStream stream;
    client::ClientStream::Params p;
    p.name = "inside";
    std::string error;
    ASSERT_EQ(stream.Open(client::ClientStream::kPlayback, p, error), 0) << error;
    const struct { uid_t uid; gid_t gid; int reached; } cases[] = {{kNobody, kNogroup, 0}, {kNobody, Audio(), 1 | 2 | 4 | 8}};
    for (const auto& c : cases)
        EXPECT_EQ(Reach(c.uid, c.gid, "/mixer-inside", d.sock), c.reached) << c.gid;
}

// Given a user, the daemon leaves root before it serves: every id is that user's, its only
// group the clients', one capability is left, and it still takes and ends a client's stream.
TEST(TrustBoundaryTest, GivenAUserTheDaemonLeavesRootAndServesAsIt) {
    const std::string group = std::to_string(Audio());
    Mixerd d(true, "--user " + std::to_string(kNobody) + " --group " + group + " --out-file /run/mixerd/out.wav");
    ASSERT_TRUE(d.ready) << test::Slurp(d.log);
    const std::string nobody = std::to_string(kNobody) + "\t";
    EXPECT_EQ(StatusLine(d.pid, "Uid"), nobody + nobody + nobody + std::to_string(kNobody));
    EXPECT_EQ(StatusLine(d.pid, "Gid"), group + "\t" + group + "\t" + group + "\t" + group);
    EXPECT_EQ(StatusLine(d.pid, "Groups"), group + " ");
    EXPECT_EQ(StatusLine(d.pid, "CapEff"), "0000000000000008");  // CAP_FOWNER alone
    struct stat dir, sock;
    ASSERT_EQ(stat(test::kStreamDir.c_str(), &dir) + stat(d.sock.c_str(), &sock), 0);
    EXPECT_EQ(std::vector<unsigned>({dir.st_mode & 07777, dir.st_uid, dir.st_gid, sock.st_mode & 0777, sock.st_gid}),
              std::vector<unsigned>({01770, kNobody, Audio(), 0660, Audio()}));
    client::ClientStream stream;
    client::ClientStream::Params p;
    p.name = "served";
    std::string error;
    const mode_t umaskWas = umask(077);  // a client's own files for itself alone: the group still reads
    EXPECT_EQ(stream.Open(client::ClientStream::kPlayback, p, error), 0) << error << test::Slurp(d.log);
    umask(umaskWas);
    EXPECT_EQ(d.Ctl("status"), 0) << d.said;
    // The daemon, the queue's last user, removes it though it is not the queue's owner.
    stream.Close();
    EXPECT_TRUE(test::Eventually([] { return !test::Exists("/dev/shm/mixer-served"); })) << test::Slurp(d.log);
    EXPECT_EQ(d.Stop(), 0);
}

}  // namespace
}  // namespace mixer
