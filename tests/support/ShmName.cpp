#include "tests/support/ShmName.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>

namespace mixer {
namespace test {

namespace {
std::atomic<unsigned> g_counter{0};
}

ShmName::ShmName(const std::string& tag)
    : name_("/mixtest-" + std::to_string(getpid()) + "-" + std::to_string(g_counter++) + "-" + tag) {
    shm_unlink(name_.c_str());
}

ShmName::~ShmName() { shm_unlink(name_.c_str()); }

bool ShmName::Exists() const {
    const int fd = shm_open(name_.c_str(), O_RDONLY, 0);
    if (fd < 0) return false;
    close(fd);
    return true;
}

}  // namespace test
}  // namespace mixer
