#include "client/ClientStream.h"
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <string>
#include "client/StreamQueueName.h"
#include "mixer/core/StreamInfo.h"
#include "mixer/discovery/StreamFiles.h"
namespace {
using mixer::client::ClientStream;

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
std::string QueuePath(const std::string& name) { return "/dev/shm" + mixer::client::StreamQueueName(name); }
std::string FilePath(const std::string& name) { return std::string(mixer::kStreamDir) + "/" + name; }

ClientStream::Params Make(const std::string& name, unsigned rate, unsigned channels, unsigned blocks) {
    ClientStream::Params p;
    p.name = name, p.meta = "music", p.rate = rate, p.channels = channels, p.blocks = blocks;
    p.socket.clear();  // no daemon here: announced counts as accepted
    return p;
}

TEST(ClientStreamTest, BadParametersAreRefusedAndLeaveNothing) {
    const ClientStream::Params bad[] = {
        Make("", 48000, 2, 8),       Make("/", 48000, 2, 8),        Make("a/b", 48000, 2, 8),
        Make("a\nb", 48000, 2, 8),   Make("bad", 0, 2, 8),          Make("bad", 96001, 2, 8),
        Make("bad", 48000, 0, 8),    Make("bad", 48000, 11, 8),     Make("bad", 48000, 2, 1),
        Make("bad", 48000, 2, 257),  Make("bad", 7950, 2, 8),       Make("bad", 44056, 2, 8),
        Make("micRaw", 48000, 2, 8),
    };
    for (const auto& p : bad) {
        SCOPED_TRACE(p.name + " " + std::to_string(p.rate) + " " + std::to_string(p.channels) + " " + std::to_string(p.blocks));
        ClientStream s;
        std::string error;
        EXPECT_EQ(EINVAL, s.Open(ClientStream::kPlayback, p, error));
        EXPECT_FALSE(error.empty() || s.IsOpen() || Exists(QueuePath("bad")) || Exists(FilePath("bad")));
    }
    // Without a daemon nothing is made, and the tool can say so.
    auto none = Make("bad", 48000, 2, 8);
    none.socket = "/run/nobody.sock";
    ClientStream lone;
    std::string why;
    EXPECT_EQ(ECONNREFUSED, lone.Open(ClientStream::kPlayback, none, why));
    EXPECT_EQ("mixerd is not running (nothing answers on /run/nobody.sock)", why);
    EXPECT_FALSE(Exists(QueuePath("bad")) || Exists(FilePath("bad")));
    // The limits themselves are taken.
    for (const auto& p : {Make("/lo", 8000, 1, 2), Make("hi", 96000, 10, 256)}) {
        ClientStream s;
        std::string error;
        EXPECT_EQ(0, s.Open(ClientStream::kPlayback, p, error)) << error;
    }
}

TEST(ClientStreamTest, OpenAnnouncesTheStreamAndCloseRemovesBoth) {
    for (auto dir : {ClientStream::kPlayback, ClientStream::kRecord}) {
        SCOPED_TRACE(dir);
        ClientStream s;
        std::string error;
        const std::string n = dir == ClientStream::kRecord ? "micAsr" : "nav";
        auto p = Make("/" + n, 16000, 3, 5);
        ASSERT_EQ(0, s.Open(dir, p, error)) << error;
        mixer::DataTrans& q = s.Queue();  // 20 ms of 16-bit audio a block
        EXPECT_EQ(std::vector<int64_t>({q.GetNumBlk(), q.GetUserBlkSize(), q.GetRate(), q.GetNumCh(), q.GetSampleSize()}),
                  std::vector<int64_t>({5, 16000 / 50 * 3 * 2, 16000, 3, 2}));
        mixer::sStreamInfo i;
        ASSERT_EQ(0, mixer::UtilReadFile(n, i));
        EXPECT_EQ(std::vector<std::string>({i.name, i.type, i.meta}), std::vector<std::string>({"/" + n,
                  mixer::client::kTypeDataTrans, dir == ClientStream::kRecord ? "record" : "music"}));
        EXPECT_EQ(std::vector<int64_t>({i.id, i.rate, i.numCh, i.sampleSize}), std::vector<int64_t>({getpid(), 16000, 3, 2}));
        mixer::DataTrans daemonEnd;  // the daemon's end, opened by the rule both sides share
        ASSERT_EQ(0, daemonEnd.Init(mixer::client::StreamQueueName(n).c_str()));
        // A second stream of the same name is refused and does not disturb the first.
        ClientStream twin;
        EXPECT_EQ(EEXIST, twin.Open(dir, Make(n, 16000, 3, 5), error));
        EXPECT_TRUE(Exists(QueuePath(n)) && Exists(FilePath(n)));
        s.Close();
        EXPECT_FALSE(s.IsOpen() || Exists(FilePath(n)));
        EXPECT_TRUE(daemonEnd.IsHungUp());
        daemonEnd.DeInit();  // the last end to close removes the queue
        EXPECT_FALSE(Exists(QueuePath(n)));
    }
}

// Another member of the group got the name's description file in first, a file or a
// link: the client writes neither, nor through the link, and takes its queue along.
TEST(ClientStreamTest, ADescriptionFileOfAnotherUserIsNeitherWrittenNorFollowed) {
    ASSERT_NE(nullptr, getenv("MIXER_PRIVATE_RUN")) << "needs the private mounts of the test wrapper";
    ASSERT_TRUE(mixer::UtilCheckDir());
    const std::string target = FilePath("target");
    close(open(target.c_str(), O_CREAT | O_WRONLY, 0644));
    ASSERT_EQ(0, symlink(target.c_str(), FilePath("link").c_str()));
    close(open(FilePath("file").c_str(), O_CREAT | O_WRONLY, 0644));
    for (const char* name : {"link", "file"}) {
        ASSERT_EQ(0, lchown(FilePath(name).c_str(), 65534, 65534));
        ClientStream s;
        std::string error;
        EXPECT_EQ(EEXIST, s.Open(ClientStream::kPlayback, Make(name, 48000, 2, 8), error));
        EXPECT_NE(std::string::npos, error.find("is another user's")) << error;
        EXPECT_TRUE(!Exists(QueuePath(name)) && Exists(FilePath(name)));
    }
    struct stat st;
    EXPECT_TRUE(stat(target.c_str(), &st) == 0 && st.st_size == 0);
}

TEST(ClientStreamTest, UnwritableDescriptionFileTakesTheQueueAlong) {
    ASSERT_NE(nullptr, getenv("MIXER_PRIVATE_RUN")) << "needs the private mounts of the test wrapper";
    ASSERT_TRUE(mixer::UtilCheckDir());
    ASSERT_EQ(0, mount("tmpfs", mixer::kStreamDir, "tmpfs", MS_RDONLY, nullptr)) << errno;
    ClientStream s;
    std::string error;
    auto p = Make("ro", 48000, 2, 8);
    p.id = 77;
    EXPECT_EQ(EIO, s.Open(ClientStream::kPlayback, p, error));
    EXPECT_NE(std::string::npos, error.find("description file")) << error;
    EXPECT_FALSE(s.IsOpen() || Exists(QueuePath("ro")));
    umount(mixer::kStreamDir);
}
}  // namespace
