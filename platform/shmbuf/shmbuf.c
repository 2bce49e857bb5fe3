/* Shared buffer stand-in: see shmbuf.h for the behaviour, shm_ring.h for the ring (a
   buffer is a ring of message slots). */
#include "shmbuf.h"

#include "../common/shm_ring.h"

#define SHMBUF_MAGIC 0x42686d53u

struct ShmbufHandle {
    ShmRing ring;
};

static int check(ShmbufHandle* h, int wantWriter) {
    if (h == NULL) {
        errno = EINVAL;
        return -1;
    }
    if (wantWriter >= 0 && h->ring.writer != wantWriter) {
        errno = EBADF;
        return -1;
    }
    return 0;
}

ShmbufHandle* ShmbufCreate(const char* name, uint32_t msgSize, uint32_t numMsgs) {
    ShmbufHandle* h = calloc(1, sizeof(*h));
    if (h != NULL && shm_ring_create(&h->ring, name, SHMBUF_MAGIC, msgSize, numMsgs) != 0) {
        free(h);
        return NULL;
    }
    return h;
}

ShmbufHandle* ShmbufOpen(const char* name, uint32_t flags) {
    if (flags != 0) {
        errno = EINVAL;
        return NULL;
    }
    ShmbufHandle* h = calloc(1, sizeof(*h));
    if (h != NULL && shm_ring_open(&h->ring, name, SHMBUF_MAGIC) != 0) {
        free(h);
        return NULL;
    }
    return h;
}

int32_t ShmbufGetMsgSize(ShmbufHandle* h) {
    if (check(h, -1) != 0) return -1;
    return (int32_t)h->ring.unit; /* the checked copy: the header's may be rewritten */
}

int32_t ShmbufReadStart(ShmbufHandle* h, uint32_t keep) {
    uint32_t fill;
    if (check(h, 0) != 0 || shm_ring_check(&h->ring, &fill) != 0) return -1;
    const uint32_t skip = fill > keep ? fill - keep : 0;
    shm_ring_skip(&h->ring, skip);
    return (int32_t)skip;
}

int32_t ShmbufRead(ShmbufHandle* h, void* dst, uint32_t count, uint32_t minCount) {
    if (check(h, 0) != 0) return -1;
    if (dst == NULL || minCount > count || count > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    uint32_t fill;
    if (shm_ring_check(&h->ring, &fill) != 0) return -1;
    uint32_t n = fill < count ? fill : count;
    if (n < minCount) n = 0;
    shm_ring_take(&h->ring, dst, n);
    return (int32_t)n;
}

int32_t ShmbufReadWait(ShmbufHandle* h, void* dst, uint32_t count, uint32_t timeoutMs) {
    if (check(h, 0) != 0) return -1;
    if (dst == NULL || count > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    const struct timespec deadline = shm_region_deadline(timeoutMs);
    uint32_t done = 0;
    for (;;) {
        /* The hang-up is looked at first: what was written before it is then seen. */
        const int hungUp = shm_ring_is_hung_up(&h->ring);
        uint32_t fill;
        if (shm_ring_check(&h->ring, &fill) != 0) return -1;
        /* Taken as they come, so that more than the buffer holds can be waited for. */
        const uint32_t n = fill < count - done ? fill : count - done;
        shm_ring_take(&h->ring, (char*)dst + (size_t)done * h->ring.unit, n);
        done += n;
        if (done == count || hungUp || timeoutMs == 0) break;
        /* What came in the last moment before a time-out counts too. */
        if (shm_ring_pause(timeoutMs, &deadline)) timeoutMs = 0;
    }
    return (int32_t)done;
}

int32_t ShmbufWrite(ShmbufHandle* h, const void* src, uint32_t count, uint32_t timeoutMs) {
    if (check(h, 1) != 0) return -1;
    if (src == NULL || count > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    return shm_ring_write(&h->ring, src, count, timeoutMs);
}

int32_t ShmbufHangUp(ShmbufHandle* h) {
    if (check(h, 1) != 0) return -1;
    shm_ring_hang_up(&h->ring);
    return 0;
}

void ShmbufClose(ShmbufHandle* h) {
    if (h == NULL) return;
    shm_ring_close(&h->ring);
    free(h);
}
