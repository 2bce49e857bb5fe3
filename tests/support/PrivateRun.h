#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <cstdlib>
#include <string>

// The stream directory is a fixed path: only touch it inside the private /run that the
// suite's wrapper mounts (ctest runs every case that way).
#define MIXER_REQUIRE_PRIVATE_RUN()                                                      \
    do {                                                                                 \
        if (!std::getenv("MIXER_PRIVATE_RUN"))                                           \
            GTEST_SKIP() << "needs the private /run of the suite's wrapper (ctest)";     \
    } while (0)

namespace mixer {
namespace test {
inline bool PathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}
}  // namespace test
}  // namespace mixer
