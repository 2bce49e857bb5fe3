#include "mixer/discovery/Discovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
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
    FakeConnect host;
};

// A client in a process of its own, forked before the test starts any thread: once let
// go, it writes the description file of name and pings.
class Client {
public:
    explicit Client(const std::string& name)
        : child_([this, name] {
              CHILD_CHECK(go_.Receive() == '.');
              CHILD_CHECK(UtilWriteFile(Info(name)) == 0);
              UtilPing();  // processed after the file: marks the end of its handling
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
    // The watcher stays inside the first offer until released.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    host.SetNewStreamHook([released](const std::string&, const sStreamInfo&) { released.wait(); });
    ASSERT_EQ(0, UtilWriteFile(Info("first")));
    ASSERT_TRUE(WaitOffers(1));
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

}  // namespace
}  // namespace mixer
