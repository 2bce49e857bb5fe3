// The daemon's watch on client processes, with real forked children.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "host/ClientWatcher.h"
#include "tests/support/ChildProcess.h"

namespace mixer {
namespace {

using host::ClientWatcher;

// Children that wait to be killed.
int WaitForever() {
    for (;;) pause();
}

#define REQUIRE_PIDFD() \
    if (!ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: the daemon falls back to the clients' own close"

TEST(ClientWatcherTest, ActionsRunOnceForEndedProcessesAndNeverAfterUnwatch) {
    REQUIRE_PIDFD();
    ClientWatcher watcher;
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<int> ran;  // guarded by mutex
    auto action = [&](int which) {
        return [&, which] {
            std::lock_guard<std::mutex> guard(mutex);
            ran.push_back(which);
            cv.notify_all();
        };
    };
    test::ChildProcess unwatched(WaitForever), first(WaitForever), second(WaitForever);
    uint64_t idU = 0, id1 = 0, id2 = 0;
    ASSERT_EQ(watcher.Watch(unwatched.pid(), action(0), idU), ClientWatcher::kWatching);
    ASSERT_EQ(watcher.Watch(first.pid(), action(1), id1), ClientWatcher::kWatching);
    ASSERT_EQ(watcher.Watch(second.pid(), action(2), id2), ClientWatcher::kWatching);
    EXPECT_EQ(watcher.Count(), 3u);

    // Ended and reaped before the others: had its watch been kept, its action would
    // run no later than theirs.
    watcher.Unwatch(idU);
    ASSERT_EQ(kill(unwatched.pid(), SIGKILL), 0);
    EXPECT_EQ(unwatched.Wait(), -1);
    ASSERT_EQ(kill(first.pid(), SIGKILL), 0);
    EXPECT_EQ(first.Wait(), -1);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return ran.size() == 1; }));
        EXPECT_EQ(ran, std::vector<int>{1});
    }
    ASSERT_EQ(kill(second.pid(), SIGKILL), 0);
    EXPECT_EQ(second.Wait(), -1);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return ran.size() == 2; }));
        EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    }
    EXPECT_EQ(watcher.Count(), 0u);
    watcher.Unwatch(id1);  // fired already: nothing
}

TEST(ClientWatcherTest, EndedOrUnknownProcessesAreNotWatched) {
    REQUIRE_PIDFD();
    ClientWatcher watcher;
    uint64_t id = 7;
    test::ChildProcess child([] { return 0; });
    const pid_t pid = child.pid();
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(watcher.Watch(pid, [] {}, id), ClientWatcher::kGone);
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(watcher.Watch(0, [] {}, id), ClientWatcher::kUnwatched);
    EXPECT_EQ(watcher.Watch(-5, [] {}, id), ClientWatcher::kUnwatched);
    EXPECT_EQ(watcher.Count(), 0u);
}

TEST(ClientWatcherTest, UnwatchWaitsForARunningAction) {
    REQUIRE_PIDFD();
    ClientWatcher watcher;
    std::mutex mutex;
    std::condition_variable cv;
    bool started = false, release = false, finished = false;  // guarded by mutex
    test::ChildProcess child(WaitForever);
    uint64_t id = 0;
    ASSERT_EQ(watcher.Watch(child.pid(), [&] {
        std::unique_lock<std::mutex> lock(mutex);
        started = true;
        cv.notify_all();
        cv.wait(lock, [&] { return release; });
        finished = true;
    }, id), ClientWatcher::kWatching);
    ASSERT_EQ(kill(child.pid(), SIGKILL), 0);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return started; }));
    }
    std::thread releaser([&] {
        std::lock_guard<std::mutex> guard(mutex);
        release = true;
        cv.notify_all();
    });
    watcher.Unwatch(id);  // returns only after the action
    {
        std::lock_guard<std::mutex> guard(mutex);
        EXPECT_TRUE(finished);
    }
    releaser.join();
}

}  // namespace
}  // namespace mixer
