#pragma once

// Helpers of the suites that run mixerd and its tools as programs (e2e, soak): start
// programs with their output in files, wait for them, look at /dev/shm and at files,
// and wait on inotify. DaemonProcess starts the daemon and waits until it serves.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace mixer {
namespace test {

// Starts a program with stdout and stderr sent to outFile; descriptors the caller made
// without close-on-exec stay open in it. env: the environment (default: this one's).
inline pid_t Spawn(const std::vector<std::string>& args, const std::string& outFile,
                   const std::vector<std::string>* env = nullptr) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    std::vector<char*> argv, envp;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (env) {
        for (const std::string& e : *env) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
    }
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), env ? envp.data() : environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// The exit status, or minus the signal that ended the program.
inline int WaitExit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1000;
    if (WIFSIGNALED(status)) return -WTERMSIG(status);
    return WEXITSTATUS(status);
}

inline std::string Slurp(const std::string& path) {
    std::ifstream in(path.c_str());
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// The names in a directory, without "." and "..".
inline std::set<std::string> DirNames(const std::string& path) {
    std::set<std::string> names;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.insert(e->d_name);
        closedir(d);
    }
    return names;
}

// The shared-memory objects of client streams ("mixer-NAME"): other programs' objects
// come and go in /dev/shm meanwhile and are none of the daemon's.
inline std::set<std::string> ShmObjects() {
    std::set<std::string> names;
    for (const std::string& n : DirNames("/dev/shm"))
        if (n.compare(0, 6, "mixer-") == 0) names.insert(n);
    return names;
}

// What is in after and not in before.
inline std::vector<std::string> Added(const std::set<std::string>& before, const std::set<std::string>& after) {
    std::vector<std::string> added;
    for (const std::string& n : after)
        if (!before.count(n)) added.push_back(n);
    return added;
}

inline bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Waits (on inotify, with a generous safety limit for the whole wait) until pred()
// holds; the watch must cover whatever makes it true.
template <typename Pred>
bool WaitFor(int inotifyFd, Pred pred, int limitMs = 30000) {
    const std::chrono::steady_clock::time_point deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (!pred()) {
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                    deadline - std::chrono::steady_clock::now()).count();
        pollfd pfd = {inotifyFd, POLLIN, 0};
        if (left <= 0 || poll(&pfd, 1, static_cast<int>(left)) <= 0) return pred();
        char buf[4096];
        if (read(inotifyFd, buf, sizeof(buf)) < 0 && errno != EAGAIN) return pred();
    }
    return true;
}

// mixerd started with --ready-fd: Start returns once it serves (or has ended).
class DaemonProcess {
public:
    DaemonProcess() = default;
    ~DaemonProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // args: the daemon's path and options, without --ready-fd. True when it said ready.
    bool Start(std::vector<std::string> args, const std::string& logFile,
               const std::vector<std::string>* env = nullptr) {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) return false;
        fcntl(ready[1], F_SETFD, 0);  // only the write end goes to the daemon
        args.push_back("--ready-fd");
        args.push_back(std::to_string(ready[1]));
        pid_ = Spawn(args, logFile, env);
        close(ready[1]);
        char word[16] = {0};
        ssize_t got = pid_ > 0 ? read(ready[0], word, sizeof(word) - 1) : -1;  // "ready" or its end
        close(ready[0]);
        return got > 0 && std::string(word) == "ready\n";
    }
    // SIGTERM, then its exit status (WaitExit).
    int Stop() {
        if (pid_ <= 0 || kill(pid_, SIGTERM) != 0) return -1000;
        int status = WaitExit(pid_);
        pid_ = -1;
        return status;
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

}  // namespace test
}  // namespace mixer
