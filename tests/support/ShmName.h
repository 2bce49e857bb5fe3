#pragma once
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <string>
namespace mixer::test {
// A shared-memory name unique to this process and call, unlinked again at the end of its scope.
class ShmName {
public:
    explicit ShmName(const std::string& tag = "q") : name_("/mixtest-" + std::to_string(getpid()) + "-" + std::to_string(counter_++) + "-" + tag) {
        shm_unlink(name_.c_str());
    }
    ~ShmName() { shm_unlink(name_.c_str()); }
    ShmName(const ShmName&) = delete;
    const std::string& str() const { return name_; }
    const char* c_str() const { return name_.c_str(); }
    bool Exists() const { const int fd = shm_open(name_.c_str(), O_RDONLY, 0); return fd >= 0 && close(fd) == 0; }
private:
    std::string name_;
    static inline std::atomic<unsigned> counter_{0};
};
}  // namespace mixer::test
