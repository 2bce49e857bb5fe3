#pragma once

#include <cstdint>

namespace mixer {

// Output modes are the host's; the library passes 0 for the default output and
// otherwise only forwards the value.
enum tPlaybackModes : uint32_t {
    PLAYBACK_MODE_DEFAULT = 0,
};

}  // namespace mixer
