// The sweep of a daemon that has left root: it cannot read other users' maps.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include "host/StaleQueueSweep.h"
#include "host/TrustBoundary.h"
#include "tests/host/TempDir.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LockingClient.h"
namespace mixer {
namespace {
// Another user's process may hold any of its user's queues: only the daemon's own user's
// unheld queue goes. The queues sit in a sticky directory, as in /dev/shm, and the daemon
// keeps the capability that lets it remove other users' queues.
TEST(StaleQueueSweepTest, ADaemonThatLeftRootRemovesNoQueueOfAUserWhoseMapsItCannotRead) {
    if (geteuid() != 0) GTEST_SKIP() << "becoming another user takes root";
    // Under user-mode emulation (known by its missing robust-lock list) /proc does not
    // show the dropped process as the kernel would.
    if (!test::RobustLocksAvailable()) GTEST_SKIP() << "user-mode emulation";
    const uid_t nobody = 65534;
    test::TempDir dir;
    ASSERT_EQ(chmod(dir.Path().c_str(), 01777), 0);
    for (const char* name : {"q-held", "q-root", "q-nobody"}) close(open(dir.File(name).c_str(), O_CREAT | O_RDWR, 0660));
    ASSERT_EQ(chown(dir.File("q-nobody").c_str(), nobody, nobody) + truncate(dir.File("q-held").c_str(), 4096), 0);
    const int fd = open(dir.File("q-held").c_str(), O_RDWR);
    void* held = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(held, MAP_FAILED);
    test::ChildProcess daemon([&] {
        std::string error;
        if (!host::TrustBoundary::Drop(nobody, nobody, 0, error)) return 100;
        const std::vector<std::string> removed = host::StaleQueueSweep::Sweep(dir.Path(), "q-", 0);
        return removed == std::vector<std::string>{"q-nobody"} ? 0 : 1 + static_cast<int>(removed.size());
    });
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(access(dir.File("q-held").c_str(), F_OK) == 0 && access(dir.File("q-root").c_str(), F_OK) == 0);
    munmap(held, 4096), close(fd);
}
}  // namespace
}  // namespace mixer
