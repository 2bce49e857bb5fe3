#pragma once

#include <cstddef>
#include <cstdint>

namespace mixer {

// Value of BlockTail::check in every sound tail; anything else marks a corrupt tail.
static const uint32_t BLOCK_CHECK = 0xBABABEEFu;

// Where a block is in its cycle; 1 is never used.
enum tBlockState : uint32_t {
    BLK_FREE = 0,     // owned by the queue, may be handed to the writer
    BLK_READING = 2,  // handed to the reader by GetReadBuff
    BLK_WRITING = 3,  // handed to the writer by GetWriteBuff
    BLK_READY = 4,    // committed, waiting for the reader
};

static const unsigned kBlockTailBufIdLen = 150;

// The last 168 bytes of every block of a shared block queue. Shared between processes:
// the layout is the same on every build and must not change.
struct BlockTail {
    uint32_t check;   // BLOCK_CHECK
    uint32_t state;   // a tBlockState value
    uint32_t length;  // data bytes the writer committed
    char bufId[kBlockTailBufIdLen];  // NUL-terminated buffer-id trace, may be empty
    uint8_t reserved[6];             // never written
};

static_assert(sizeof(BlockTail) == 168, "a block tail is 168 bytes on every build");
static_assert(offsetof(BlockTail, check) == 0, "tail layout");
static_assert(offsetof(BlockTail, state) == 4, "tail layout");
static_assert(offsetof(BlockTail, length) == 8, "tail layout");
static_assert(offsetof(BlockTail, bufId) == 12, "tail layout");
static_assert(offsetof(BlockTail, reserved) == 162, "tail layout");

}  // namespace mixer
