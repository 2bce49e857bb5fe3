#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace mixer {
namespace test {

// The stream directory is a fixed path: only touch it inside the private /run that
// the suite's wrapper mounts (ctest runs every case that way).
inline bool HavePrivateRun() { return std::getenv("MIXER_PRIVATE_RUN") != nullptr; }

#define MIXER_REQUIRE_PRIVATE_RUN()                                                   \
    do {                                                                              \
        if (!::mixer::test::HavePrivateRun())                                         \
            GTEST_SKIP() << "needs the private /run of the suite's wrapper (ctest)";  \
    } while (0)

inline bool PathIsDir(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

inline bool PathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// The names in a directory, sorted, without "." and "..".
inline std::vector<std::string> DirEntries(const std::string& path) {
    std::vector<std::string> names;
    if (DIR* dir = opendir(path.c_str())) {
        while (const struct dirent* ent = readdir(dir)) {
            const std::string name = ent->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace test
}  // namespace mixer
