#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace mixer {

// Bytes of the native synchronisation objects at the head of the header.
static const size_t kStreamQueueSyncBytes = 2 * sizeof(pthread_mutex_t) + 3 * sizeof(pthread_cond_t);
// Bytes from memSize to stopped inclusive.
static const size_t kStreamQueueFieldBytes = 57;

// Size of the StreamQueue header; the first block starts right after it.
// On the device ABI (32-bit ARM with glibc: 24-byte mutexes, 48-byte conditions) it is
// 256 and every offset below is pinned. Builds with larger pthread types (64-bit hosts)
// keep the same fields in the same order after their native objects and pad the header
// to the next multiple of 64 (320 bytes on x86-64 glibc); such a queue is shared only
// between processes of that same build.
static const size_t kStreamQueueSize = (kStreamQueueSyncBytes + kStreamQueueFieldBytes + 7 + 63) / 64 * 64;

// Header of a shared block queue, at offset 0 of the shared-memory object. Shared between
// two processes; see DataTrans for who touches what. `mutex` guards every field below it
// and every block tail.
struct StreamQueue {
    pthread_mutex_t mutex;            // process-shared, recursive
    pthread_mutex_t cmdMutex;         // serialises command senders; taken before mutex
    pthread_cond_t condDataAvail;     // broadcast when a block becomes ready to read
    pthread_cond_t condSpaceAvail;    // broadcast when a block becomes free to write
    pthread_cond_t cmdExecutedCond;   // broadcast when the pending command was executed
    uint32_t memSize;                 // header + numBlk * blkSize
    uint32_t writePos;                // next block to write
    uint32_t readPos;                 // next block to read
    uint32_t numBlk;
    uint32_t blkSize;                 // stride: userBlkSize + sizeof(BlockTail)
    uint32_t userBlkSize;             // data bytes per block, a multiple of 8
    uint32_t numFree;
    uint32_t numReady;
    uint32_t count;                   // audio bytes in flight (AddCount/SubCount)
    int32_t rate;                     // -1 until the producer sets it
    int32_t numCh;                    // -1 until the producer sets it
    int32_t sampleSize;               // -1 until the producer sets it
    uint8_t hangUp;                   // 1 once one side has closed
    uint8_t reserved1[3];
    uint32_t cmd;                     // pending tInOutCmd, 0 = none
    uint8_t stopped;                  // 1 while the writer is stopped
    uint8_t reserved2[kStreamQueueSize - kStreamQueueSyncBytes - kStreamQueueFieldBytes];
};

static_assert(sizeof(StreamQueue) == kStreamQueueSize, "the header has a fixed size per build");
static_assert(offsetof(StreamQueue, memSize) == kStreamQueueSyncBytes, "fields follow the sync objects");
static_assert(offsetof(StreamQueue, stopped) + 1 == kStreamQueueSyncBytes + kStreamQueueFieldBytes,
              "fields keep their order and size");

// The device ABI: the layout is a cross-process format there and every offset is fixed.
#define MIXER_STREAMQUEUE_DEVICE_ABI \
    (sizeof(void*) == 4 && sizeof(pthread_mutex_t) == 24 && sizeof(pthread_cond_t) == 48)

#if defined(__arm__)
static_assert(MIXER_STREAMQUEUE_DEVICE_ABI, "32-bit ARM glibc has 24-byte mutexes and 48-byte conditions");
#endif

static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || kStreamQueueSize == 256, "header is 256 bytes");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, mutex) == 0, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, cmdMutex) == 24, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, condDataAvail) == 48, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, condSpaceAvail) == 96, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, cmdExecutedCond) == 144, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, memSize) == 192, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, writePos) == 196, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, readPos) == 200, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, numBlk) == 204, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, blkSize) == 208, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, userBlkSize) == 212, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, numFree) == 216, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, numReady) == 220, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, count) == 224, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, rate) == 228, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, numCh) == 232, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, sampleSize) == 236, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, hangUp) == 240, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, cmd) == 244, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, stopped) == 248, "header layout");
static_assert(!MIXER_STREAMQUEUE_DEVICE_ABI || offsetof(StreamQueue, reserved2) == 249, "header layout");

}  // namespace mixer
