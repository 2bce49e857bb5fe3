#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "mixer/core/Connect.h"

namespace mixer {
namespace test {

// The host side of the watcher: records every offered stream and ping, answers with
// a settable result, and lets a test wait for them. Offers can be held back (Hold) to
// line up file operations behind a busy watcher.
class DiscoveryHost : public Connect {
public:
    struct Offer {
        std::string fileName;
        sStreamInfo info;
    };

    int AddNewStream(const std::string& fileName, sStreamInfo& info) override {
        std::unique_lock<std::mutex> guard(lock_);
        offers_.push_back(Offer{fileName, info});
        changed_.notify_all();
        changed_.wait(guard, [this] { return !held_; });
        return answer_;
    }
    void Ping() override {
        std::lock_guard<std::mutex> guard(lock_);
        ++pings_;
        changed_.notify_all();
    }
    void AddPlaybackInputAlgos(boost::shared_ptr<Stream>, boost::shared_ptr<MsgNewInput>) override {}
    int AddPlaybackOutputAlgos(boost::shared_ptr<Output>, boost::shared_ptr<Stream>, tPlaybackModes) override {
        return 0;
    }
    void AddRecordAlgos(boost::shared_ptr<StreamOut>, boost::shared_ptr<MsgNewOutput>) override {}
    void ChainMsgRecord(boost::shared_ptr<MsgHead>) override {}
    boost::shared_ptr<Output> GetPlaybackDefaultOutput() override { return boost::shared_ptr<Output>(); }
    boost::shared_ptr<Input> GetRecordDefaultInput() override { return boost::shared_ptr<Input>(); }
    void GetSumParams(unsigned&, unsigned&, tSampleSize&) override {}
    void getAudioVolume(int*) override {}

    void SetAnswer(int answer) {
        std::lock_guard<std::mutex> guard(lock_);
        answer_ = answer;
    }
    void Hold(bool held) {
        std::lock_guard<std::mutex> guard(lock_);
        held_ = held;
        changed_.notify_all();
    }
    bool WaitPings(int n) { return WaitUntil([&] { return pings_ >= n; }); }
    bool WaitOffers(size_t n) { return WaitUntil([&] { return offers_.size() >= n; }); }
    std::vector<Offer> Offers() {
        std::lock_guard<std::mutex> guard(lock_);
        return offers_;
    }
    int Pings() {
        std::lock_guard<std::mutex> guard(lock_);
        return pings_;
    }

private:
    template <typename Pred>
    bool WaitUntil(Pred pred) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(20), pred);
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Offer> offers_;  // GUARDED_BY(lock_)
    int pings_ = 0;              // GUARDED_BY(lock_)
    int answer_ = 0;             // GUARDED_BY(lock_)
    bool held_ = false;          // GUARDED_BY(lock_)
};

// A client in a process of its own. Forked at construction, before the test starts
// any thread; the child waits until Go() and then runs the action and exits with 0
// (or the action's own _exit code).
class ClientProcess {
public:
    explicit ClientProcess(std::function<void()> action) {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[1]);
            char go;
            if (read(fds[0], &go, 1) != 1) _exit(2);
            action();
            _exit(0);
        }
        close(fds[0]);
        goFd_ = fds[1];
    }
    ~ClientProcess() {
        if (goFd_ >= 0) close(goFd_);
        if (pid_ > 0 && !reaped_) waitpid(pid_, nullptr, 0);
    }
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // Lets the child run and waits for it; its exit status, -1 when it did not exit.
    int Run() {
        if (pid_ <= 0 || write(goFd_, "g", 1) != 1) return -1;
        int status = 0;
        if (waitpid(pid_, &status, 0) != pid_) return -1;
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    int goFd_ = -1;
    bool reaped_ = false;
};

}  // namespace test
}  // namespace mixer
