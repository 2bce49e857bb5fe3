#pragma once

#include <cerrno>
#include <cstdlib>

namespace mixer {
namespace client {

// A command-line argument as a whole decimal number: true only when all of text is one
// that fits a long (no sign of trouble left for the caller's range check to miss).
inline bool ParseWhole(const char* text, long& v) {
    char* end = nullptr;
    errno = 0;
    v = std::strtol(text, &end, 10);
    return *text && !*end && errno == 0;
}

}  // namespace client
}  // namespace mixer
