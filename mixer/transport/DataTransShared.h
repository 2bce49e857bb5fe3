// Helpers shared by the DataTrans definitions (setup, block exchange, commands); not
// installed, not part of the library's interface.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstddef>

#include "mixer/transport/BlockTail.h"
#include "mixer/transport/StreamQueue.h"

namespace mixer {
namespace datatrans {


inline const size_t kHdr = kStreamQueueSize;
inline const size_t kTail = sizeof(BlockTail);

// Fields that are also read without the lock (approximate counters, hang-up flag) are
// written and read atomically so that such a read is never torn.
template <typename T>
inline T LoadRelaxed(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <typename T>
inline void StoreRelaxed(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

inline void Unlock(pthread_mutex_t* m) { pthread_mutex_unlock(m); }

// Reads CLOCK_REALTIME; 0 or the clock's result.
inline int Now(timespec& now) { return clock_gettime(CLOCK_REALTIME, &now); }

#if defined(__SANITIZE_THREAD__)
#define MIXER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MIXER_TSAN 1
#endif
#endif

// Waits up to ms for m; 0, ETIMEDOUT, EOWNERDEAD or the lock's error. The monotonic
// clock: a step of the wall clock must not stretch or cut the bound. The thread
// sanitizer's runtime knows the timed lock but not the clock lock, so its builds take
// the wall clock instead.
inline int LockWithin(pthread_mutex_t* m, unsigned ms) {
#ifdef MIXER_TSAN
    const clockid_t clock = CLOCK_REALTIME;
#else
    const clockid_t clock = CLOCK_MONOTONIC;
#endif
    timespec until;
    if (clock_gettime(clock, &until) != 0) return errno;
    until.tv_sec += ms / 1000;
    until.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_nsec -= 1000000000L;
        until.tv_sec += 1;
    }
#ifdef MIXER_TSAN
    return pthread_mutex_timedlock(m, &until);
#else
    return pthread_mutex_clocklock(m, clock, &until);
#endif
}

}  // namespace datatrans
}  // namespace mixer
