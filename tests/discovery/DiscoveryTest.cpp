#include "mixer/discovery/Discovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "mixer/discovery/StreamFiles.h"
#include "tests/discovery/PrivateRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using test::ChildProcess;
using test::DirEntries;
using test::FakeConnect;
using test::LogCapture;
using test::PathExists;
using test::PathIsDir;

const std::string kDir = "/var/run/mixer";
const char kThreadExit[] = "I Mixer_Discovery:Discovery Thread:exiting!!:";
const std::chrono::milliseconds kWait(20000);

sStreamInfo Info(const std::string& name) {
    sStreamInfo info;
    info.id = -5;
    info.type = "shmQ";
    info.name = name;
    info.rate = 44100;
    info.numCh = 2;
    info.sampleSize = 2;
    info.meta = "navigation prompt";
    return info;
}

int OpenFdCount() { return static_cast<int>(DirEntries("/proc/self/fd").size()); }

class DiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override { MIXER_REQUIRE_PRIVATE_RUN(); }
    bool WaitPings(int n) { return host.WaitForCalls("Ping", n, kWait); }
    bool WaitOffers(int n) { return host.WaitForCalls("AddNewStream", n, kWait); }
    // Writes the file "first" and keeps the watcher inside its offer until the returned
    // promise is set: whatever the test does meanwhile queues up behind it.
    std::promise<void> HoldWatcherInFirstOffer() {
        std::promise<void> release;
        std::shared_future<void> released = release.get_future().share();
        host.SetNewStreamHook([released](const std::string&, const sStreamInfo&) { released.wait(); });
        EXPECT_EQ(0, UtilWriteFile(Info("first")));
        EXPECT_TRUE(WaitOffers(1));
        return release;
    }
    FakeConnect host;
};

// A client in a process of its own, forked before the test starts any thread: once let
// go, it writes the description file of name (or runs body) and pings.
class Client {
public:
    explicit Client(const std::string& name)
        : Client([name] { return UtilWriteFile(Info(name)) == 0 ? 0 : __LINE__; }) {}
    explicit Client(const std::function<int()>& body)
        : child_([this, body] {
              CHILD_CHECK(go_.Receive() == '.');
              const int rc = body();
              if (rc != 0) return rc;
              UtilPing();  // processed after the files: marks the end of their handling
              return 0;
          }) {}
    // Lets the child run and waits for it: 0, or the failing line.
    int Run() { return go_.Send() ? child_.Wait() : -1; }

private:
    test::Pipe go_;
    ChildProcess child_;
};

TEST_F(DiscoveryTest, InitLogsEachStepAndStartsTheWatcher) {
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_TRUE(log.WaitFor("I Mixer_Discovery:Discovery Thread:started:"));
    std::vector<std::string> lines = log.Lines();
    lines.erase(std::remove(lines.begin(), lines.end(), "I Mixer_Discovery:Discovery Thread:started:"),
                lines.end());
    const std::vector<std::string> expected = {
        "I Mixer_Discovery:DIscovery Init:Enter:",
        "E Mixer_Utils:UtilCheckDir:mixer directory doesn't exist so create it:",
        "I Mixer_Utils:UtilCheckDir:Deleted mixer directory and created back:",
        "I Mixer_Discovery:Discovery Init:Inotify Init Succeeded:",
        "I Mixer_Discovery:Discovery Init:Watch Added successfully on mixer directory:",
        "I Mixer_Discovery:Discovery Init:opendir succeeded!:",
        "I Mixer_Discovery:Discovery Init:Discovery Thread successfully created:",
    };
    EXPECT_EQ(expected, lines);
    EXPECT_TRUE(PathIsDir(kDir));
}

TEST_F(DiscoveryTest, ClientFileIsOfferedOnceAndStaysWhenAccepted) {
    Client client("nav1");
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_EQ(0, client.Run());
    ASSERT_TRUE(WaitPings(1));

    const std::vector<FakeConnect::NewStreamCall> offers = host.NewStreams();
    ASSERT_EQ(1u, offers.size());
    EXPECT_EQ("nav1", offers[0].fileName);
    EXPECT_EQ("nav1", offers[0].info.name);
    EXPECT_EQ("shmQ", offers[0].info.type);
    EXPECT_EQ(-5, offers[0].info.id);
    EXPECT_EQ(44100u, offers[0].info.rate);
    EXPECT_EQ(2u, offers[0].info.numCh);
    EXPECT_EQ(2u, offers[0].info.sampleSize);
    EXPECT_EQ("navigation prompt", offers[0].info.meta);
    // The accepted file stays, the ping file is gone.
    EXPECT_EQ(std::vector<std::string>{"nav1"}, DirEntries(kDir));
}

TEST_F(DiscoveryTest, RefusedFileIsRemoved) {
    Client client("refused");
    host.SetAddNewStreamResult(-1);
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_EQ(0, client.Run());
    ASSERT_TRUE(WaitPings(1));
    EXPECT_EQ(1u, host.NewStreams().size());
    EXPECT_TRUE(DirEntries(kDir).empty());
}

TEST_F(DiscoveryTest, FileGoneBeforeReadingIsDroppedWithoutOffer) {
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    std::promise<void> release = HoldWatcherInFirstOffer();
    ASSERT_EQ(0, UtilWriteFile(Info("vanishing")));
    ASSERT_EQ(0, unlink((kDir + "/vanishing").c_str()));
    UtilPing();
    release.set_value();
    ASSERT_TRUE(WaitPings(1));
    EXPECT_EQ(1u, host.NewStreams().size());
    EXPECT_TRUE(log.Has("E Mixer_Utils:AddStream:Failed to open /var/run/mixer/vanishing:")) << log.Dump();
}

TEST_F(DiscoveryTest, PingIsAnsweredAndRemovedNotParsed) {
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    UtilPing();
    ASSERT_TRUE(WaitPings(1));
    EXPECT_TRUE(host.NewStreams().empty());
    EXPECT_FALSE(PathExists(kDir + "/Ping"));
    EXPECT_TRUE(log.Has("D Mixer_Discovery:AddStream:Ping:")) << log.Dump();
    EXPECT_EQ(0, log.CountPrefix("D Mixer_Utils:ReadFile:"));
}

TEST_F(DiscoveryTest, FilesPresentBeforeInitAreOnlyLoggedAndReadingOneOffersNothing) {
    ASSERT_EQ(0, UtilWriteFile(Info("early")));
    ASSERT_EQ(0, mkdir((kDir + "/subdir").c_str(), 0755));
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    EXPECT_TRUE(log.Has("D Mixer_Discovery:Discovered filename is early::")) << log.Dump();
    EXPECT_EQ(1, log.CountPrefix("D Mixer_Discovery:Discovered filename is ")) << log.Dump();
    // A read-only open and close of the file is no announcement either.
    {
        std::ifstream in((kDir + "/early").c_str());
        std::string line;
        ASSERT_TRUE(std::getline(in, line));
    }

    UtilPing();
    ASSERT_TRUE(WaitPings(1));
    EXPECT_TRUE(host.NewStreams().empty());
    EXPECT_TRUE(PathExists(kDir + "/early"));
}

TEST_F(DiscoveryTest, NameAtTheBufferLimitIsOfferedLongerEndsWatcher) {
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    // 140 characters and the terminator pad to 144: one event fills the 160 bytes.
    const std::string fits(140, 'f');
    ASSERT_EQ(0, UtilWriteFile(Info(fits)));
    ASSERT_TRUE(WaitOffers(1));
    EXPECT_EQ(fits, host.NewStreams()[0].fileName);

    ASSERT_EQ(0, UtilWriteFile(Info(std::string(150, 'g'))));
    ASSERT_TRUE(log.WaitFor("E Mixer_Discovery:Failed to read inotify:reason = Invalid argument:"))
        << log.Dump();
    ASSERT_TRUE(log.WaitFor(kThreadExit));
    EXPECT_EQ(1u, host.NewStreams().size());
    EXPECT_EQ(1, discovery.DeInit());
}

TEST_F(DiscoveryTest, DeletingTheDirectoryEndsTheWatcher) {
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_EQ(0, rmdir(kDir.c_str()));
    ASSERT_TRUE(log.WaitFor("E Mixer_Discovery:runLoop:IN_DELETE_SELF:Exiting")) << log.Dump();
    ASSERT_TRUE(log.WaitFor(kThreadExit));

    // Nobody watches any more: a new directory and file reach no host.
    ASSERT_EQ(0, UtilWriteFile(Info("late")));
    log.Clear();
    EXPECT_EQ(1, discovery.DeInit());
    EXPECT_TRUE(host.NewStreams().empty());
    // The kernel dropped the watch with the directory, so removing it fails.
    EXPECT_TRUE(log.Has("E Mixer_Discovery:Failed to remove watch:inotify_rm_watch failed with ret -1:"))
        << log.Dump();
    EXPECT_FALSE(PathExists(kDir));
}

TEST_F(DiscoveryTest, DeInitStopsWatcherAndLeavesNothingBehind) {
    const int fdsBefore = OpenFdCount();
    LogCapture log;
    {
        Discovery discovery;
        ASSERT_EQ(1, discovery.Init(&host));
        ASSERT_EQ(0, UtilWriteFile(Info("s1")));
        ASSERT_TRUE(WaitOffers(1));
        EXPECT_EQ(1, discovery.DeInit());
        EXPECT_EQ(1, log.Count(kThreadExit));
        EXPECT_FALSE(PathExists(kDir));
        EXPECT_EQ(fdsBefore, OpenFdCount());
    }  // the destructor's second DeInit must be harmless
    EXPECT_EQ(1, log.Count(kThreadExit));
    EXPECT_EQ(0, log.CountPrefix("E Mixer_Discovery:Failed to remove watch")) << log.Dump();
}

TEST_F(DiscoveryTest, InitFailsWhenDirectoryCannotBeMade) {
    ASSERT_EQ(0, mount("tmpfs", "/run", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
    LogCapture log;
    Discovery discovery;
    EXPECT_EQ(0, discovery.Init(&host));
    EXPECT_TRUE(log.Has("E Mixer_Utils:UtilCheckDir:failed to create mixer directory:")) << log.Dump();
    EXPECT_EQ(0, log.CountPrefix("I Mixer_Discovery:Discovery Init:Inotify"));
}

TEST_F(DiscoveryTest, InitFailsWithoutDescriptors) {
    ASSERT_TRUE(UtilCheckDir());
    // Lower the descriptor limit to the lowest free descriptor: no new one can open.
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    const int lowest = dup(0);
    ASSERT_GE(lowest, 0);
    close(lowest);
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowest);
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    const int result = discovery.Init(&host);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(log.Has("E Mixer_Discovery:Init Failed:inotify_init1 failed:")) << log.Dump();
}

// Writes content under name in the stream directory, closing it after writing.
bool WriteRaw(const std::string& name, const std::string& content) {
    std::ofstream out((kDir + "/" + name).c_str(), std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return !out.fail();
}

// A FIFO under a stream file's name, "closed after writing" as the watcher sees it.
bool MakeAnnouncedFifo(const std::string& name) {
    const std::string path = kDir + "/" + name;
    if (mkfifo(path.c_str(), 0600) != 0) return false;
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);  // a FIFO's own reader: no wait
    return fd >= 0 && close(fd) == 0;
}

TEST_F(DiscoveryTest, JunkAndHugeFilesAreHandledAndTheWatcherKeepsAnswering) {
    host.SetAddNewStreamResult(-1);
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_TRUE(WriteRaw("junk", std::string("\0\x01\xff\0garbage\0", 12) + std::string(3000, '\x7f')));
    ASSERT_TRUE(WriteRaw("huge", "huge\nshmQ\n1\n48000\n2\n2\nm\n" + std::string(16 << 20, '\n')));
    ASSERT_TRUE(WriteRaw("long", std::string(1 << 20, 'L')));
    ASSERT_TRUE(WriteRaw("short", "sh"));
    UtilPing();
    ASSERT_TRUE(WaitPings(1));

    const std::vector<FakeConnect::NewStreamCall> offers = host.NewStreams();
    ASSERT_EQ(4u, offers.size());
    EXPECT_EQ("junk", offers[0].fileName);
    EXPECT_EQ("", offers[0].info.name);
    EXPECT_EQ("huge", offers[1].info.name);
    EXPECT_EQ(48000u, offers[1].info.rate);
    EXPECT_EQ(std::string(199, 'L'), offers[2].info.name);
    EXPECT_EQ("", offers[2].info.type);
    EXPECT_EQ("sh", offers[3].info.name);
    EXPECT_TRUE(DirEntries(kDir).empty());  // refused, so removed
    UtilPing();
    EXPECT_TRUE(WaitPings(2));
}

TEST_F(DiscoveryTest, SymlinkIsRemovedNotFollowed) {
    const std::string outside = "/run/secret";
    const std::string secret = "secret\nshmQ\n1\n48000\n2\n2\nkeep out\n";
    { std::ofstream(outside.c_str()) << secret; }
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    // While the watcher is held in the first offer, a client writes "evil" and swaps it
    // for a link to the outside file before the watcher gets to read it.
    std::promise<void> release = HoldWatcherInFirstOffer();
    ASSERT_EQ(0, UtilWriteFile(Info("evil")));
    ASSERT_EQ(0, symlink(outside.c_str(), (kDir + "/evil.tmp").c_str()));
    ASSERT_EQ(0, rename((kDir + "/evil.tmp").c_str(), (kDir + "/evil").c_str()));
    UtilPing();
    release.set_value();
    ASSERT_TRUE(WaitPings(1));

    EXPECT_EQ(1u, host.NewStreams().size());
    EXPECT_TRUE(log.Has("E Mixer_Utils:AddStream:Failed to open /var/run/mixer/evil:")) << log.Dump();
    EXPECT_EQ(std::vector<std::string>{"first"}, DirEntries(kDir));
    EXPECT_EQ(secret, [&] {
        std::ifstream in(outside.c_str());
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }());
}

TEST_F(DiscoveryTest, FifoDoesNotBlockTheWatcher) {
    LogCapture log;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_TRUE(MakeAnnouncedFifo("pipe"));
    UtilPing();
    ASSERT_TRUE(WaitPings(1)) << log.Dump();
    EXPECT_TRUE(host.NewStreams().empty());
    EXPECT_TRUE(log.Has("E Mixer_Utils:AddStream:Failed to open /var/run/mixer/pipe:")) << log.Dump();
    EXPECT_TRUE(DirEntries(kDir).empty());
}

TEST_F(DiscoveryTest, FloodOfFilesFromAClientIsEachOfferedOrRemoved) {
    const int kFiles = 300, kFifos = 30;
    Client client([] {
        for (int i = 0; i < kFiles; ++i) {
            const std::string name = "s" + std::to_string(i);
            // Every third a junk file, the others proper descriptions.
            const bool ok = i % 3 == 0 ? WriteRaw(name, std::string(300, static_cast<char>(i)))
                                       : UtilWriteFile(Info(name)) == 0;
            CHILD_CHECK(ok);
        }
        for (int i = 0; i < kFifos; ++i) CHILD_CHECK(MakeAnnouncedFifo("f" + std::to_string(i)));
        return 0;
    });
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_EQ(0, client.Run());
    ASSERT_TRUE(WaitPings(1));

    std::set<std::string> offered;
    for (const FakeConnect::NewStreamCall& call : host.NewStreams()) offered.insert(call.fileName);
    EXPECT_EQ(static_cast<size_t>(kFiles), offered.size());
    EXPECT_EQ(static_cast<size_t>(kFiles), host.NewStreams().size());
    // The accepted files stay; every FIFO was refused and removed.
    const std::vector<std::string> left = DirEntries(kDir);
    EXPECT_EQ(std::vector<std::string>(offered.begin(), offered.end()), left);
    UtilPing();
    EXPECT_TRUE(WaitPings(2));
}

}  // namespace
}  // namespace mixer
