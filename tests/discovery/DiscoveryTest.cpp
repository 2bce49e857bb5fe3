// Description files and the watcher. The binary replaces read() and the device-metric
// call: read() turns armed calls on the watcher's inotify descriptor into EINTR.
#include "mixer/discovery/Discovery.h"
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <gtest/gtest.h>
#include "mixer/discovery/StreamFiles.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/LogCapture.h"
namespace {
std::mutex g_lock;
std::condition_variable g_changed;
int g_fd = -1, g_interruptsLeft = 0, g_kernelReads = 0;  // GUARDED_BY(g_lock)
std::vector<std::string> g_metrics;                      // GUARDED_BY(g_lock)
}  // namespace

extern "C" ssize_t read(int fd, void* buf, size_t count) {
    std::unique_lock<std::mutex> guard(g_lock);
    if (fd >= 0 && fd == g_fd) {
        g_changed.notify_all();
        if (g_interruptsLeft > 0) return --g_interruptsLeft, errno = EINTR, -1;
        ++g_kernelReads;
    }
    guard.unlock();
    return syscall(SYS_read, fd, buf, count);
}

extern "C" int record_device_metric(const char* program, const char* source, const char* name, int count,
                                    int r1, int r2, int r3) {
    std::lock_guard<std::mutex> guard(g_lock);
    g_metrics.push_back(std::string(program) + "|" + source + "|" + name + "|" + std::to_string(count) + "|" +
                        std::to_string(r1) + "|" + std::to_string(r2) + "|" + std::to_string(r3));
    return 0;
}

namespace mixer {
namespace {
using Lines = std::vector<std::string>;
const std::string kDir = "/var/run/mixer";
const char kThreadExit[] = "I Mixer_Discovery:Discovery Thread:exiting!!:";
const char kMissing[] = "E Mixer_Utils:UtilCheckDir:mixer directory doesn't exist so create it:";
const char kRemade[] = "I Mixer_Utils:UtilCheckDir:Deleted mixer directory and created back:";
const std::chrono::milliseconds kWait(20000);

Lines Entries(const std::string& path) {  // sorted
    Lines names;
    for (const auto& e : std::filesystem::directory_iterator(path)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteRaw(const std::string& name, const std::string& content) {
    return static_cast<bool>(std::ofstream((kDir + "/" + name).c_str(), std::ios::binary) << content);
}

void SetRunReadOnly(bool ro) {
    ASSERT_EQ(0, mount("tmpfs", "/run", nullptr, MS_REMOUNT | (ro ? MS_RDONLY : 0), nullptr));
}

sStreamInfo Info(const std::string& name) {
    sStreamInfo i;
    i.id = -5, i.type = "shmQ", i.name = name, i.rate = 44100, i.numCh = 2, i.sampleSize = 2, i.meta = "nav prompt";
    return i;
}

std::string Fields(const sStreamInfo& i) {
    return i.name + "|" + i.type + "|" + std::to_string(i.id) + "|" + std::to_string(i.rate) + "|" +
           std::to_string(i.numCh) + "|" + std::to_string(i.sampleSize) + "|" + i.meta;
}

class DiscoveryTest : public ::testing::Test {
protected:
    // The stream directory is a fixed path: touch it only in the private /run of ctest's wrapper.
    void SetUp() override { if (!std::getenv("MIXER_PRIVATE_RUN")) GTEST_SKIP() << "needs ctest's private /run"; }
    bool WaitCalls(const char* op, int n) { return host.WaitForCalls(op, n, kWait); }
    Lines Offered() {
        Lines names;
        for (const auto& call : host.NewStreams()) names.push_back(call.fileName);
        return names;
    }
    test::FakeConnect host;
    test::LogCapture log;
};

TEST_F(DiscoveryTest, CheckDirMakesTheDirectoryOrSaysWhyNot) {
    const struct { bool plainFile, readOnly; Lines log; } cases[] = {
        {false, true, {kMissing, "E Mixer_Utils:UtilCheckDir:failed to create mixer directory:"}},
        {true, true, {"E Mixer_Utils:UtilCheckDir:failed to remove mixer directory:"}},
        {true, false, {kRemade}},
        {false, false, {kMissing, kRemade}},  // a new directory is made twice
        {false, false, {}},                 // an existing one is left alone
    };
    umask(022);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log.size());
        if (!c.log.empty()) remove(kDir.c_str());
        if (c.plainFile) std::ofstream(kDir.c_str()) << "x";
        SetRunReadOnly(c.readOnly);
        log.Clear();
        EXPECT_EQ(!c.readOnly, UtilCheckDir());
        EXPECT_EQ(c.log, log.Lines());
        SetRunReadOnly(false);
        struct stat st;
        EXPECT_EQ(!c.readOnly, stat(kDir.c_str(), &st) == 0 && st.st_mode == (S_IFDIR | 0755));
    }
}

TEST_F(DiscoveryTest, FilesAreWrittenAndReadByTheLineRules) {
    sStreamInfo in = Info("/music1");  // a leading slash is not doubled
    in.meta.clear();                   // an empty meta still ends in a line feed
    ASSERT_EQ(0, UtilWriteFile(in));
    const std::string written = "/music1\nshmQ\n-5\n44100\n2\n2\n\n", t199(199, 't');
    EXPECT_EQ(written, ReadAll(kDir + "/music1"));
    ASSERT_TRUE(WriteRaw("Ping", "stale"));
    UtilPing();
    EXPECT_EQ("", ReadAll(kDir + "/Ping"));
    std::string full;  // the most the reader takes, all of it kept
    for (char c = 'a'; c < 'a' + 7; ++c) full += std::string(199, c) + "\n";
    const struct { std::string content, fields; } cases[] = {
        {written, "/music1|shmQ|-5|44100|2|2|"},
        {"three\nshmB\n-7\n", "three|shmB|-7|0|0|0|"},  // missing lines read empty or 0
        // A longer line keeps 199 characters and fails the stream: the rest reads empty.
        {"long\n" + std::string(250, 't') + "\n5\n8000\n1\n2\nmeta\n", "long|" + t199 + "|0|0|0|0|"},
        {full + "tail", std::string(199, 'a') + "|" + std::string(199, 'b') + "|0|0|0|0|" + std::string(199, 'g')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields.substr(0, 20));
        ASSERT_TRUE(WriteRaw("f", c.content));
        sStreamInfo out = Info("junk");  // every field must be overwritten
        log.Clear();
        ASSERT_EQ(0, UtilReadFile("f", out));
        EXPECT_EQ(c.fields, Fields(out));
        EXPECT_EQ(Lines{"D Mixer_Utils:ReadFile:f:"}, log.Lines());
    }
    EXPECT_EQ(-1, UtilWriteFile(Info("no/such/dir")));
    EXPECT_EQ(Lines{"D Mixer_Utils:ReadFile:f:"}, log.Lines());  // a failed write says nothing
}

TEST_F(DiscoveryTest, ReadFileRefusesWhatIsNotARegularFileInTheDirectory) {
    // Clients share the directory: nothing there may lead the reader elsewhere or stall it.
    const std::string secret = "outside\nshmQ\n1\n48000\n2\n2\nsecret\n";
    ASSERT_TRUE(UtilCheckDir() && WriteRaw("../outside", secret) && !symlink("/run/outside", (kDir + "/link").c_str()) &&
                !mknod((kDir + "/zero").c_str(), S_IFCHR | 0600, makedev(1, 5)) &&
                !mkdir((kDir + "/sub").c_str(), 0755) && !mkfifo((kDir + "/pipe").c_str(), 0600));
    for (const std::string name : {"nope", "link", "zero", "sub", "pipe", "../outside", "", "."}) {
        SCOPED_TRACE(name);
        // In a child: an open that waited for the FIFO's writer would not return, and is killed.
        test::ChildProcess child([this, name] {
            sStreamInfo out = Info("keep");
            CHILD_CHECK(UtilReadFile(name, out) == -1 && Fields(out) == Fields(Info("keep")));
            CHILD_CHECK(log.Has("E Mixer_Utils:AddStream:Failed to open " + kDir + "/" + name + ":"));
            return 0;
        });
        EXPECT_EQ(0, child.Wait(20000));
    }
    // Removal takes the link, never its target, and nothing outside by a crafted name.
    log.Clear();
    for (const char* name : {"/link", "../outside", "gone"}) UtilRemoveFile(name);
    EXPECT_EQ(Lines({"pipe", "sub", "zero"}), Entries(kDir));
    EXPECT_EQ(secret, ReadAll("/run/outside"));
    EXPECT_TRUE(log.Has("D Mixer_Utils:file being removed /var/run/mixer/link::")) << log.Dump();
}

TEST_F(DiscoveryTest, InitLogsEachStepOrWhyItFailedAndDeInitLeavesNothingBehind) {
    const Lines fdsBefore = Entries("/proc/self/fd");
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_TRUE(log.WaitFor("I Mixer_Discovery:Discovery Thread:started:"));
    EXPECT_EQ(1, discovery.DeInit());  // wakes the waiting watcher
    EXPECT_EQ(1, discovery.DeInit());  // again, as the destructor does: harmless
    EXPECT_EQ(fdsBefore, Entries("/proc/self/fd"));
    EXPECT_NE(0, access(kDir.c_str(), F_OK));  // the directory is gone
    Lines lines = log.Lines();
    lines.erase(std::find(lines.begin(), lines.end(), "I Mixer_Discovery:Discovery Thread:started:"));
    EXPECT_EQ(Lines({"I Mixer_Discovery:DIscovery Init:Enter:", kMissing, kRemade,
                     "I Mixer_Discovery:Discovery Init:Inotify Init Succeeded:",
                     "I Mixer_Discovery:Discovery Init:Watch Added successfully on mixer directory:",
                     "I Mixer_Discovery:Discovery Init:opendir succeeded!:",
                     "I Mixer_Discovery:Discovery Init:Discovery Thread successfully created:", kThreadExit}),
              lines);
    EXPECT_EQ(0, discovery.Init(nullptr));  // a failure ends with its reason: no host, no descriptor, no directory
    EXPECT_EQ("E Mixer_Discovery:Init Failed:no connection:", log.Lines().back());
    struct rlimit saved, none;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    none = {0, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const int result = discovery.Init(&host);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(0, result);
    EXPECT_EQ("E Mixer_Discovery:Init Failed:inotify_init1 failed:", log.Lines().back());
    ASSERT_EQ(0, rmdir(kDir.c_str()));  // made before inotify failed
    SetRunReadOnly(true);
    EXPECT_EQ(0, discovery.Init(&host));
    EXPECT_EQ("E Mixer_Utils:UtilCheckDir:failed to create mixer directory:", log.Lines().back());
}

TEST_F(DiscoveryTest, FilesAreOfferedOnceInOrderRefusedOnesRemovedAndPingOnlyAnswered) {
    ASSERT_EQ(0, UtilWriteFile(Info("early")));
    ASSERT_EQ(0, mkdir((kDir + "/subdir").c_str(), 0755));
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    // Files from before are only logged (directories not even that).
    EXPECT_EQ(1, log.CountPrefix("D Mixer_Discovery:Discovered filename is ")) << log.Dump();
    EXPECT_TRUE(log.Has("D Mixer_Discovery:Discovered filename is early::")) << log.Dump();
    ReadAll(kDir + "/early");  // a close after reading is no announcement
    ASSERT_EQ(0, UtilWriteFile(Info("nav1")));
    ASSERT_TRUE(WaitCalls("AddNewStream", 1));
    host.SetAddNewStreamResult(-1);  // nav1 is in: a flood of refused ones follows
    Lines names = {"nav1"};
    for (int i = 0; i < 300; ++i) {  // several events to a read
        names.push_back("s" + std::to_string(i));
        ASSERT_EQ(0, UtilWriteFile(Info(names.back())));
    }
    UtilPing();
    ASSERT_TRUE(WaitCalls("Ping", 1));
    EXPECT_EQ(names, Offered());
    EXPECT_EQ(Fields(Info("nav1")), Fields(host.NewStreams()[0].info));
    EXPECT_EQ(Lines({"early", "nav1", "subdir"}), Entries(kDir));  // the ping file too is gone
    EXPECT_EQ(301, log.CountPrefix("D Mixer_Utils:ReadFile:"));    // ... and was not parsed
    EXPECT_TRUE(log.Has("D Mixer_Discovery:AddStream:Ping:")) << log.Dump();
}

TEST_F(DiscoveryTest, WatcherEndsWhenTheDirectoryGoesOrANameOverfillsItsBuffer) {
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_EQ(0, rmdir(kDir.c_str()));
    ASSERT_TRUE(log.WaitFor("E Mixer_Discovery:runLoop:IN_DELETE_SELF:Exiting")) << log.Dump();
    ASSERT_TRUE(log.WaitFor(kThreadExit));
    ASSERT_EQ(0, UtilWriteFile(Info("late")));  // nobody watches the new directory
    log.Clear();
    EXPECT_EQ(1, discovery.DeInit());
    // The kernel dropped the watch with the directory, so removing it fails.
    EXPECT_EQ(Lines{"E Mixer_Discovery:Failed to remove watch:inotify_rm_watch failed with ret -1:"}, log.Lines());
    ASSERT_EQ(1, discovery.Init(&host));
    // 140 characters and the terminator pad to 144: one event fills the 160 bytes.
    ASSERT_EQ(0, UtilWriteFile(Info(std::string(140, 'f'))));
    ASSERT_TRUE(WaitCalls("AddNewStream", 1));
    ASSERT_EQ(0, UtilWriteFile(Info(std::string(150, 'g'))));
    ASSERT_TRUE(log.WaitFor("E Mixer_Discovery:Failed to read inotify:reason = Invalid argument:")) << log.Dump();
    ASSERT_TRUE(log.WaitFor(kThreadExit));
    EXPECT_EQ(Lines{std::string(140, 'f')}, Offered());
}

TEST_F(DiscoveryTest, AfterTheEventQueueOverflowedTheDirectoryIsRescannedForWhatWasNotOffered) {
    int limit = 0;
    if (!(std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit) || limit > 65536) GTEST_SKIP() << limit;
    std::mutex m;
    std::condition_variable cv;
    bool held = true;
    host.SetNewStreamHook([&](const std::string& name, const sStreamInfo&) {
        std::unique_lock<std::mutex> l(m);
        cv.wait(l, [&] { return !held || name != "first"; });
    });
    ASSERT_EQ(0, UtilWriteFile(Info("old")));  // from before the watch: never offered
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    ASSERT_EQ(0, UtilWriteFile(Info("first")));
    ASSERT_TRUE(WaitCalls("AddNewStream", 1));  // the watcher is held in the host: the kernel queues
    for (int i = 0; i < limit; ++i) ASSERT_TRUE(WriteRaw(i % 2 ? "a" : "b", ""));  // alternating: none merged
    ASSERT_EQ(0, UtilWriteFile(Info("late")));      // these closes are lost
    ASSERT_TRUE(WriteRaw("part", "part\nshmQ\n"));  // still being written, as far as a rescan can tell
    m.lock(), held = false, m.unlock(), cv.notify_all();
    ASSERT_TRUE(WaitCalls("AddNewStream", limit + 2));
    ASSERT_TRUE(WriteRaw("part", "part\nshmQ\n1\n48000\n2\n2\nmusic\n"));  // its own close offers it
    ASSERT_TRUE(WaitCalls("AddNewStream", limit + 3));
    EXPECT_TRUE(log.Has("E Mixer_Discovery:runLoop:Unhandled Evt 4000 :")) << log.Dump();
    const Lines offered = Offered();
    EXPECT_EQ(Lines({"late", "part"}), Lines(offered.end() - 2, offered.end()));
    EXPECT_EQ(0, std::count(offered.begin(), offered.end(), "old"));
    EXPECT_EQ(limit, std::count(offered.begin(), offered.end(), "a") + std::count(offered.begin(), offered.end(), "b"));
}

TEST_F(DiscoveryTest, EveryTenthInterruptedReadInARowIsCountedAndLogged) {
    g_fd = dup(0);  // the lowest free descriptor: Init's inotify instance gets it (no watcher yet, no lock)
    close(g_fd);
    g_interruptsLeft = 15;
    Discovery discovery;
    ASSERT_EQ(1, discovery.Init(&host));
    std::unique_lock<std::mutex> guard(g_lock);  // released before the watcher is stopped
    auto backInKernel = [&](int kernelReads) {  // every armed interruption used, and in a kernel read again
        return g_changed.wait_for(guard, kWait, [&] { return !g_interruptsLeft && g_kernelReads > kernelReads; });
    };
    ASSERT_TRUE(backInKernel(0));
    const int kernelReads = g_kernelReads;
    g_interruptsLeft = 25;  // after the ping's read, which restarts the count: 10 and 20 are logged
    guard.unlock();
    UtilPing();
    ASSERT_TRUE(WaitCalls("Ping", 1));
    guard.lock();
    ASSERT_TRUE(backInKernel(kernelReads));
    EXPECT_EQ(Lines(3, "Discovery|DiscoveryRunLoop|InotifyInterrupt|1|0|0|0"), g_metrics);
    EXPECT_EQ(2, log.Count("E Mixer_Discovery:Read Retry count:10:")) << log.Dump();
    EXPECT_EQ(1, log.Count("E Mixer_Discovery:Read Retry count:20:")) << log.Dump();
}
}  // namespace
}  // namespace mixer
