/*
 * The ring both shared-memory stand-ins are made of (compiled into each of them;
 * nothing here is exported): slots of unit bytes between one writer process and one
 * reader process, without any lock.
 *
 * Each side owns one position and publishes it for the other: the writer's writePos,
 * the reader's readPos. A side only ever moves its own position, keeps the true value
 * in its handle, and reads the peer's with acquire order after the peer's release
 * store, so the bytes before a published position are complete. Nothing in the shared
 * part is a lock or a condition variable: a peer that stops, dies or scribbles at any
 * instruction can make no call of the other side wait beyond its own time-out, and
 * no pthread object of one process is ever reachable by the other. Waits (the writer
 * for room, a reader for messages) are sleeps of at most SHM_RING_POLL_US between
 * looks at the peer's position; nothing is signalled.
 *
 * The peer is not trusted: the geometry is checked against the object's real size at
 * opening and kept in the handle, every address comes from that copy, and every call
 * checks the header again (magic, geometry, this side's own position, the peer's
 * position and the fill level it gives) and fails with EFAULT on anything else.
 *
 * Positions run over 0 .. 2 * slots - 1, so that a full ring and an empty one differ:
 * the fill is writePos - readPos modulo 2 * slots, the slot is the position modulo slots.
 */
#ifndef PLATFORM_SHM_RING_H
#define PLATFORM_SHM_RING_H

#include "shm_region.h"

#define SHM_RING_MAX_BYTES (1u << 30)
#define SHM_RING_POLL_US 1000

/* The shared part, followed by slots * unit bytes. */
typedef struct {
    uint32_t magic;     /* written last by the creator: the ring is ready */
    uint32_t unit;      /* bytes per slot */
    uint32_t slots;
    uint32_t readPos;   /* the reader's, published */
    uint32_t writePos;  /* the writer's, published */
    uint32_t hungUp;    /* set once by the writer */
    int32_t readerPid;  /* the open reader, 0 when none */
    uint32_t reserved;
} ShmRingShared;

typedef struct {
    ShmRingShared* shared;
    size_t mapSize;
    uint32_t magic, unit, slots; /* checked at creation or opening */
    uint32_t pos;                /* this side's own position */
    int writer;
    int hungUp;              /* the writer has hung up */
    char name[NAME_MAX + 2]; /* the writer removes it on close */
} ShmRing;

static inline uint32_t shm_ring_load(const uint32_t* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
static inline void shm_ring_store(uint32_t* p, uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }

static inline uint32_t shm_ring_fill(uint32_t writePos, uint32_t readPos, uint32_t slots) {
    return writePos >= readPos ? writePos - readPos : writePos + 2u * slots - readPos;
}

/* n <= slots and pos < 2 * slots: the sum stays below 3 * 2^30. */
static inline uint32_t shm_ring_advance(uint32_t pos, uint32_t n, uint32_t slots) {
    pos += n;
    return pos >= 2u * slots ? pos - 2u * slots : pos;
}

static inline char* shm_ring_slot(const ShmRing* r, uint32_t pos) {
    const uint32_t idx = pos >= r->slots ? pos - r->slots : pos;
    return (char*)r->shared + sizeof(ShmRingShared) + (size_t)idx * r->unit;
}

/* The header checked as this side sees it; 0 and the slots in use in *fill, or -1
   with EFAULT for anything the peer cannot have written honestly. */
static inline int shm_ring_check(const ShmRing* r, uint32_t* fill) {
    ShmRingShared* s = r->shared;
    const uint32_t own = shm_ring_load(r->writer ? &s->writePos : &s->readPos);
    const uint32_t peer = shm_ring_load(r->writer ? &s->readPos : &s->writePos);
    if (shm_ring_load(&s->magic) != r->magic || shm_ring_load(&s->unit) != r->unit ||
        shm_ring_load(&s->slots) != r->slots || own != r->pos || peer >= 2u * r->slots) {
        errno = EFAULT;
        return -1;
    }
    *fill = r->writer ? shm_ring_fill(r->pos, peer, r->slots) : shm_ring_fill(peer, r->pos, r->slots);
    if (*fill > r->slots) {
        errno = EFAULT;
        return -1;
    }
    return 0;
}

static inline int shm_ring_create(ShmRing* r, const char* name, uint32_t magic, uint32_t unit, uint32_t slots) {
    if (unit == 0 || slots == 0 || (uint64_t)unit * slots > SHM_RING_MAX_BYTES) {
        errno = EINVAL;
        return -1;
    }
    if (shm_region_name(name, r->name, sizeof(r->name)) != 0) return -1;
    r->mapSize = sizeof(ShmRingShared) + (size_t)unit * slots;
    r->shared = (ShmRingShared*)shm_region_create(r->name, r->mapSize);
    if (r->shared == NULL) return -1;
    r->shared->unit = r->unit = unit;
    r->shared->slots = r->slots = slots;
    r->magic = magic;
    r->writer = 1;
    shm_ring_store(&r->shared->magic, magic);
    return 0;
}

/* Opens the reader's end: the object must be exactly the ring its header describes,
   with positions that make sense, and have no other live reader (EBUSY). */
static inline int shm_ring_open(ShmRing* r, const char* name, uint32_t magic) {
    if (shm_region_name(name, r->name, sizeof(r->name)) != 0) return -1;
    r->shared = (ShmRingShared*)shm_region_open(r->name, sizeof(ShmRingShared), &r->mapSize);
    if (r->shared == NULL) return -1;
    ShmRingShared* s = r->shared;
    r->magic = magic;
    r->unit = shm_ring_load(&s->unit);
    r->slots = shm_ring_load(&s->slots);
    r->pos = shm_ring_load(&s->readPos);
    uint32_t fill;
    int err = 0;
    if (r->unit == 0 || r->slots == 0 || (uint64_t)r->unit * r->slots > SHM_RING_MAX_BYTES ||
        r->mapSize != sizeof(ShmRingShared) + (size_t)r->unit * r->slots || r->pos >= 2u * r->slots ||
        shm_ring_check(r, &fill) != 0) {
        err = EINVAL;
    } else {
        /* A reader that died without closing does not keep the next one out (nor
           does a number that is no process id). */
        int32_t holder = __atomic_load_n(&s->readerPid, __ATOMIC_ACQUIRE);
        const int32_t self = (int32_t)getpid();
        if ((holder > 0 && !(kill(holder, 0) < 0 && errno == ESRCH)) ||
            !__atomic_compare_exchange_n(&s->readerPid, &holder, self, 0, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            err = EBUSY;
    }
    if (err != 0) {
        munmap(s, r->mapSize);
        errno = err;
        return -1;
    }
    return 0;
}

/* Copies n slots (n <= fill) out from the reader's position and gives them back. */
static inline void shm_ring_take(ShmRing* r, char* dst, uint32_t n) {
    const uint32_t idx = r->pos >= r->slots ? r->pos - r->slots : r->pos;
    const uint32_t first = r->slots - idx < n ? r->slots - idx : n;
    memcpy(dst, shm_ring_slot(r, r->pos), (size_t)first * r->unit);
    memcpy(dst + (size_t)first * r->unit, shm_ring_slot(r, 0), (size_t)(n - first) * r->unit);
    r->pos = shm_ring_advance(r->pos, n, r->slots);
    shm_ring_store(&r->shared->readPos, r->pos);
}

/* Skips n slots (n <= fill) on the reader's side. */
static inline void shm_ring_skip(ShmRing* r, uint32_t n) {
    r->pos = shm_ring_advance(r->pos, n, r->slots);
    shm_ring_store(&r->shared->readPos, r->pos);
}

/* Sleeps a little towards deadline; non-zero once it has passed (a timeoutMs of
   SHM_WAIT_FOREVER never passes). */
static inline int shm_ring_pause(uint32_t timeoutMs, const struct timespec* deadline) {
    struct timespec now, step = {0, SHM_RING_POLL_US * 1000L};
    if (timeoutMs != SHM_WAIT_FOREVER) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t left = (int64_t)(deadline->tv_sec - now.tv_sec) * 1000000000LL + (deadline->tv_nsec - now.tv_nsec);
        if (left <= 0) return 1;
        if (left < step.tv_nsec) step.tv_nsec = (long)left;
    }
    nanosleep(&step, NULL);
    return 0;
}

/* Appends count slots from src, waiting up to timeoutMs for room; the number appended,
   or -1 (EPIPE after the hang-up, EFAULT for a header the reader broke). */
static inline int32_t shm_ring_write(ShmRing* r, const char* src, uint32_t count, uint32_t timeoutMs) {
    if (r->hungUp) {
        errno = EPIPE;
        return -1;
    }
    const struct timespec deadline = shm_region_deadline(timeoutMs);
    uint32_t done = 0;
    while (done < count) {
        uint32_t fill;
        if (shm_ring_check(r, &fill) != 0) return done > 0 ? (int32_t)done : -1;
        const uint32_t room = r->slots - fill;
        if (room == 0) {
            if (timeoutMs == 0 || shm_ring_pause(timeoutMs, &deadline)) break;
            continue;
        }
        const uint32_t n = count - done < room ? count - done : room;
        const uint32_t idx = r->pos >= r->slots ? r->pos - r->slots : r->pos;
        const uint32_t first = r->slots - idx < n ? r->slots - idx : n;
        const char* from = src + (size_t)done * r->unit;
        memcpy(shm_ring_slot(r, r->pos), from, (size_t)first * r->unit);
        memcpy(shm_ring_slot(r, 0), from + (size_t)first * r->unit, (size_t)(n - first) * r->unit);
        r->pos = shm_ring_advance(r->pos, n, r->slots);
        shm_ring_store(&r->shared->writePos, r->pos); /* after the bytes */
        done += n;
    }
    return (int32_t)done;
}

static inline void shm_ring_hang_up(ShmRing* r) {
    r->hungUp = 1;
    shm_ring_store(&r->shared->hungUp, 1); /* after every position it follows */
}

static inline int shm_ring_is_hung_up(const ShmRing* r) { return shm_ring_load(&r->shared->hungUp) != 0; }

static inline void shm_ring_close(ShmRing* r) {
    if (r->writer) {
        shm_ring_hang_up(r);
        shm_unlink(r->name);
    } else {
        int32_t self = (int32_t)getpid();
        __atomic_compare_exchange_n(&r->shared->readerPid, &self, 0, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
    }
    munmap(r->shared, r->mapSize);
}

#endif
