/* Shared queue stand-in: see shmq.h for the behaviour, shm_ring.h for the ring (a
   byte queue is a ring of 1-byte slots). */
#include "shmq.h"

#include "../common/shm_ring.h"

#define SHMQ_MAGIC 0x51686d53u

struct ShmQHandle {
    ShmRing ring;
};

static int check(ShmQHandle* h, int wantWriter) {
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

ShmQHandle* ShmQCreate(const char* name, int32_t capacity) {
    if (capacity < 1) {
        errno = EINVAL;
        return NULL;
    }
    ShmQHandle* h = calloc(1, sizeof(*h));
    if (h != NULL && shm_ring_create(&h->ring, name, SHMQ_MAGIC, 1, (uint32_t)capacity) != 0) {
        free(h);
        return NULL;
    }
    return h;
}

ShmQHandle* ShmQOpen(const char* name) {
    ShmQHandle* h = calloc(1, sizeof(*h));
    if (h != NULL && shm_ring_open(&h->ring, name, SHMQ_MAGIC) != 0) {
        free(h);
        return NULL;
    }
    return h;
}

int32_t ShmQDataAvail(ShmQHandle* h) {
    uint32_t fill;
    if (check(h, -1) != 0 || shm_ring_check(&h->ring, &fill) != 0) return -1;
    return (int32_t)fill;
}

int32_t ShmQSpaceAvail(ShmQHandle* h) {
    uint32_t fill;
    if (check(h, -1) != 0 || shm_ring_check(&h->ring, &fill) != 0) return -1;
    return (int32_t)(h->ring.slots - fill);
}

int32_t ShmQIsHungUp(ShmQHandle* h) {
    if (check(h, -1) != 0) return -1;
    return shm_ring_is_hung_up(&h->ring);
}

int32_t ShmQRead(ShmQHandle* h, void* dst, int32_t maxBytes, int32_t minBytes) {
    if (check(h, 0) != 0) return -1;
    if (dst == NULL || maxBytes < 0 || minBytes < 0 || minBytes > maxBytes) {
        errno = EINVAL;
        return -1;
    }
    uint32_t fill;
    if (shm_ring_check(&h->ring, &fill) != 0) return -1;
    uint32_t n = fill < (uint32_t)maxBytes ? fill : (uint32_t)maxBytes;
    if (n < (uint32_t)minBytes) n = 0;
    shm_ring_take(&h->ring, dst, n);
    return (int32_t)n;
}

int32_t ShmQWrite(ShmQHandle* h, const void* src, int32_t count, uint32_t timeoutMs) {
    if (check(h, 1) != 0) return -1;
    if (src == NULL || count < 0) {
        errno = EINVAL;
        return -1;
    }
    return shm_ring_write(&h->ring, src, (uint32_t)count, timeoutMs);
}

int32_t ShmQHangUp(ShmQHandle* h) {
    if (check(h, 1) != 0) return -1;
    shm_ring_hang_up(&h->ring);
    return 0;
}

void ShmQClose(ShmQHandle* h) {
    if (h == NULL) return;
    shm_ring_close(&h->ring);
    free(h);
}
