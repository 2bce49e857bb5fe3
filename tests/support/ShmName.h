#pragma once

#include <string>

namespace mixer {
namespace test {

// A POSIX shared-memory name unique to this process and call ("/mixtest-<pid>-<n>-<tag>"),
// unlinked again when the object goes out of scope, whatever the test left behind.
class ShmName {
public:
    explicit ShmName(const std::string& tag = "q");
    ~ShmName();
    ShmName(const ShmName&) = delete;
    ShmName& operator=(const ShmName&) = delete;

    const std::string& str() const { return name_; }
    const char* c_str() const { return name_.c_str(); }
    // True while an object of this name exists in /dev/shm.
    bool Exists() const;

private:
    std::string name_;
};

}  // namespace test
}  // namespace mixer
