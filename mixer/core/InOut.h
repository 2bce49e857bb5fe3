#pragma once

#include <cstdint>

namespace mixer {

// State of an input or output. Hangup and Fault are final.
enum tInOutState : uint32_t {
    STATE_ACTIVE = 0,
    STATE_DRAINING = 1,
    STATE_PAUSING = 2,
    STATE_PAUSED = 3,
    STATE_HANGUP = 4,
    STATE_FAULT = 5,
    STATE_STOPPED = 6,
};

// Commands a client posts through its block queue; one is pending at a time.
enum tInOutCmd : uint32_t {
    CMD_NONE = 0,
    CMD_PAUSE = 1,
    CMD_DRAIN = 2,
    CMD_FLUSH = 4,
    CMD_RESUME = 8,
    CMD_STOP = 16,
};

}  // namespace mixer
