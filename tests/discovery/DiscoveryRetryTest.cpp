// Interrupted reads of the watcher. This binary replaces read() and the device-metric
// call for the whole process: read() turns a given number of calls on the watcher's
// inotify descriptor into EINTR and passes everything else to the kernel.
#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mixer/discovery/Discovery.h"
#include "mixer/discovery/StreamFiles.h"
#include "tests/discovery/PrivateRun.h"
#include "tests/support/FakeConnect.h"
#include "tests/support/LogCapture.h"

namespace {

struct Metric {
    std::string program, source, name;
    int count, r1, r2, r3;
};

std::mutex g_lock;
std::condition_variable g_changed;
int g_fd = -1;              // GUARDED_BY(g_lock): the descriptor whose reads are interrupted
int g_interruptsLeft = 0;   // GUARDED_BY(g_lock)
int g_kernelReads = 0;      // GUARDED_BY(g_lock): reads of g_fd passed to the kernel
std::vector<Metric> g_metrics;  // GUARDED_BY(g_lock)

template <typename Pred>
bool WaitUntil(Pred pred) {
    std::unique_lock<std::mutex> guard(g_lock);
    return g_changed.wait_for(guard, std::chrono::seconds(20), pred);
}

}  // namespace

extern "C" ssize_t read(int fd, void* buf, size_t count) {
    {
        std::lock_guard<std::mutex> guard(g_lock);
        if (fd >= 0 && fd == g_fd) {
            if (g_interruptsLeft > 0) {
                --g_interruptsLeft;
                g_changed.notify_all();
                errno = EINTR;
                return -1;
            }
            ++g_kernelReads;
            g_changed.notify_all();
        }
    }
    return syscall(SYS_read, fd, buf, count);
}

extern "C" int record_device_metric(const char* program, const char* source, const char* name,
                                    int count, int r1, int r2, int r3) {
    std::lock_guard<std::mutex> guard(g_lock);
    g_metrics.push_back(Metric{program, source, name, count, r1, r2, r3});
    g_changed.notify_all();
    return 0;
}

namespace mixer {
namespace {

using test::FakeConnect;
using test::LogCapture;

// The inotify instance among the open descriptors (the watcher's; the test has no other).
int FindInotifyFd() {
    for (const std::string& entry : test::DirEntries("/proc/self/fd")) {
        char target[64] = {0};
        const std::string link = "/proc/self/fd/" + entry;
        if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
            std::string(target) == "anon_inode:inotify") {
            return std::stoi(entry);
        }
    }
    return -1;
}

class DiscoveryRetryTest : public ::testing::Test {
protected:
    void SetUp() override {
        MIXER_REQUIRE_PRIVATE_RUN();
        ASSERT_EQ(1, discovery.Init(&host));
        const int fd = FindInotifyFd();
        ASSERT_GE(fd, 0);
        std::lock_guard<std::mutex> guard(g_lock);
        g_fd = fd;
    }
    void TearDown() override {
        discovery.DeInit();
        std::lock_guard<std::mutex> guard(g_lock);
        g_fd = -1;
        g_interruptsLeft = 0;
        g_metrics.clear();
    }

    // Arms n interruptions and wakes the watcher with a ping; returns once the watcher
    // has used them all and is back in a kernel read.
    void InterruptAfterPing(int n, int pingsSoFar) {
        int kernelReads;
        {
            std::lock_guard<std::mutex> guard(g_lock);
            g_interruptsLeft = n;
            kernelReads = g_kernelReads;
        }
        UtilPing();
        ASSERT_TRUE(host.WaitForCalls("Ping", pingsSoFar + 1, std::chrono::milliseconds(20000)));
        ASSERT_TRUE(WaitUntil([&] { return g_interruptsLeft == 0 && g_kernelReads > kernelReads; }));
    }

    size_t Metrics() {
        std::lock_guard<std::mutex> guard(g_lock);
        return g_metrics.size();
    }

    FakeConnect host;
    LogCapture log;
    Discovery discovery;
};

TEST_F(DiscoveryRetryTest, EveryTenthInterruptionIsCountedAndLogged) {
    InterruptAfterPing(20, 0);
    std::vector<Metric> metrics;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        metrics = g_metrics;
    }
    ASSERT_EQ(2u, metrics.size());
    for (const Metric& m : metrics) {
        EXPECT_EQ("Discovery", m.program);
        EXPECT_EQ("DiscoveryRunLoop", m.source);
        EXPECT_EQ("InotifyInterrupt", m.name);
        EXPECT_EQ(1, m.count);
        EXPECT_EQ(0, m.r1);
        EXPECT_EQ(0, m.r2);
        EXPECT_EQ(0, m.r3);
    }
    EXPECT_EQ(1, log.Count("E Mixer_Discovery:Read Retry count:10:")) << log.Dump();
    EXPECT_EQ(1, log.Count("E Mixer_Discovery:Read Retry count:20:")) << log.Dump();
    EXPECT_EQ(2, log.CountPrefix("E Mixer_Discovery:Read Retry count:"));

    // The watcher still works after the interruptions.
    sStreamInfo info;
    info.name = "after";
    ASSERT_EQ(0, UtilWriteFile(info));
    ASSERT_TRUE(host.WaitForCalls("AddNewStream", 1, std::chrono::milliseconds(20000)));
    EXPECT_EQ("after", host.NewStreams()[0].fileName);
}

TEST_F(DiscoveryRetryTest, SuccessfulReadRestartsTheCount) {
    InterruptAfterPing(15, 0);
    EXPECT_EQ(1u, Metrics());
    // Without the restart, five more would reach twenty.
    InterruptAfterPing(5, 1);
    EXPECT_EQ(1u, Metrics());
    InterruptAfterPing(10, 2);
    EXPECT_EQ(2u, Metrics());
    EXPECT_EQ(2, log.Count("E Mixer_Discovery:Read Retry count:10:")) << log.Dump();
}

}  // namespace
}  // namespace mixer
