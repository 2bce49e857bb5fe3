/* Shared queue stand-in: see shmq.h for the behaviour. */
#include "shmq.h"

#include "../common/shm_region.h"

#define SHMQ_MAGIC 0x51686d53u /* written last by the creator: the queue is ready */
#define SHMQ_MAX_CAPACITY (1 << 30)

/* The shared part, followed by capacity bytes of ring. */
typedef struct {
    uint32_t magic;
    uint32_t capacity;
    pthread_mutex_t lock;
    pthread_cond_t space; /* the writer waits here for room */
    uint32_t readPos;     /* GUARDED_BY(lock): ring offset of the oldest byte */
    uint32_t used;        /* GUARDED_BY(lock): bytes ready */
    uint32_t hungUp;      /* GUARDED_BY(lock) */
    int32_t readerPid;    /* GUARDED_BY(lock): the open reader, 0 when none */
} ShmQShared;

struct ShmQHandle {
    ShmQShared* shared;
    size_t mapSize;
    int writer;
    char name[NAME_MAX + 2]; /* the writer removes it on close */
};

static char* ring(ShmQShared* s) { return (char*)s + sizeof(ShmQShared); }

static int check(ShmQHandle* h, int wantWriter) {
    if (h == NULL) {
        errno = EINVAL;
        return -1;
    }
    if (wantWriter >= 0 && h->writer != wantWriter) {
        errno = EBADF;
        return -1;
    }
    return 0;
}

ShmQHandle* ShmQCreate(const char* name, int32_t capacity) {
    if (capacity < 1 || capacity > SHMQ_MAX_CAPACITY) {
        errno = EINVAL;
        return NULL;
    }
    ShmQHandle* h = calloc(1, sizeof(*h));
    if (h == NULL) return NULL;
    if (shm_region_name(name, h->name, sizeof(h->name)) != 0) {
        free(h);
        return NULL;
    }
    h->mapSize = sizeof(ShmQShared) + (size_t)capacity;
    h->shared = shm_region_create(h->name, h->mapSize);
    if (h->shared == NULL) {
        free(h);
        return NULL;
    }
    ShmQShared* s = h->shared;
    s->capacity = (uint32_t)capacity;
    int r = shm_region_mutex_init(&s->lock);
    if (r == 0) r = shm_region_cond_init(&s->space);
    if (r != 0) {
        munmap(s, h->mapSize);
        shm_unlink(h->name);
        free(h);
        errno = r;
        return NULL;
    }
    h->writer = 1;
    __atomic_store_n(&s->magic, SHMQ_MAGIC, __ATOMIC_RELEASE);
    return h;
}

ShmQHandle* ShmQOpen(const char* name) {
    ShmQHandle* h = calloc(1, sizeof(*h));
    if (h == NULL) return NULL;
    if (shm_region_name(name, h->name, sizeof(h->name)) != 0) {
        free(h);
        return NULL;
    }
    h->shared = shm_region_open(h->name, sizeof(ShmQShared), &h->mapSize);
    if (h->shared == NULL) {
        free(h);
        return NULL;
    }
    ShmQShared* s = h->shared;
    int err = 0;
    if (__atomic_load_n(&s->magic, __ATOMIC_ACQUIRE) != SHMQ_MAGIC ||
        h->mapSize != sizeof(ShmQShared) + s->capacity) {
        err = EINVAL;
    } else {
        shm_region_lock(&s->lock);
        /* A reader that died without closing does not keep the next one out. */
        if (s->readerPid != 0 && !(kill(s->readerPid, 0) < 0 && errno == ESRCH))
            err = EBUSY;
        else
            s->readerPid = (int32_t)getpid();
        pthread_mutex_unlock(&s->lock);
    }
    if (err != 0) {
        munmap(s, h->mapSize);
        free(h);
        errno = err;
        return NULL;
    }
    return h;
}

int32_t ShmQDataAvail(ShmQHandle* h) {
    if (check(h, -1) != 0) return -1;
    shm_region_lock(&h->shared->lock);
    const uint32_t used = h->shared->used;
    pthread_mutex_unlock(&h->shared->lock);
    return (int32_t)used;
}

int32_t ShmQSpaceAvail(ShmQHandle* h) {
    if (check(h, -1) != 0) return -1;
    shm_region_lock(&h->shared->lock);
    const uint32_t room = h->shared->capacity - h->shared->used;
    pthread_mutex_unlock(&h->shared->lock);
    return (int32_t)room;
}

int32_t ShmQIsHungUp(ShmQHandle* h) {
    if (check(h, -1) != 0) return -1;
    shm_region_lock(&h->shared->lock);
    const uint32_t hungUp = h->shared->hungUp;
    pthread_mutex_unlock(&h->shared->lock);
    return hungUp ? 1 : 0;
}

int32_t ShmQRead(ShmQHandle* h, void* dst, int32_t maxBytes, int32_t minBytes) {
    if (check(h, 0) != 0) return -1;
    if (dst == NULL || maxBytes < 0 || minBytes < 0 || minBytes > maxBytes) {
        errno = EINVAL;
        return -1;
    }
    ShmQShared* s = h->shared;
    shm_region_lock(&s->lock);
    uint32_t n = s->used < (uint32_t)maxBytes ? s->used : (uint32_t)maxBytes;
    if (n < (uint32_t)minBytes) n = 0;
    const uint32_t first = s->capacity - s->readPos < n ? s->capacity - s->readPos : n;
    memcpy(dst, ring(s) + s->readPos, first);
    memcpy((char*)dst + first, ring(s), n - first);
    s->readPos = (s->readPos + n) % s->capacity;
    s->used -= n;
    if (n > 0) pthread_cond_signal(&s->space);
    pthread_mutex_unlock(&s->lock);
    return (int32_t)n;
}

int32_t ShmQWrite(ShmQHandle* h, const void* src, int32_t count, uint32_t timeoutMs) {
    if (check(h, 1) != 0) return -1;
    if (src == NULL || count < 0) {
        errno = EINVAL;
        return -1;
    }
    ShmQShared* s = h->shared;
    const struct timespec deadline = shm_region_deadline(timeoutMs);
    uint32_t done = 0;
    shm_region_lock(&s->lock);
    if (s->hungUp) {
        pthread_mutex_unlock(&s->lock);
        errno = EPIPE;
        return -1;
    }
    while (done < (uint32_t)count) {
        const uint32_t room = s->capacity - s->used;
        if (room == 0) {
            if (timeoutMs == 0 || shm_region_wait(&s->space, &s->lock, timeoutMs, &deadline) != 0)
                break;
            continue;
        }
        const uint32_t want = (uint32_t)count - done;
        const uint32_t n = want < room ? want : room;
        const uint32_t writePos = (s->readPos + s->used) % s->capacity;
        const uint32_t first = s->capacity - writePos < n ? s->capacity - writePos : n;
        memcpy(ring(s) + writePos, (const char*)src + done, first);
        memcpy(ring(s), (const char*)src + done + first, n - first);
        s->used += n; /* after the bytes: a reader never sees a half-written range */
        done += n;
    }
    pthread_mutex_unlock(&s->lock);
    return (int32_t)done;
}

int32_t ShmQHangUp(ShmQHandle* h) {
    if (check(h, 1) != 0) return -1;
    shm_region_lock(&h->shared->lock);
    h->shared->hungUp = 1;
    pthread_mutex_unlock(&h->shared->lock);
    return 0;
}

void ShmQClose(ShmQHandle* h) {
    if (h == NULL) return;
    ShmQShared* s = h->shared;
    shm_region_lock(&s->lock);
    if (h->writer)
        s->hungUp = 1;
    else
        s->readerPid = 0;
    pthread_mutex_unlock(&s->lock);
    if (h->writer) shm_unlink(h->name);
    munmap(s, h->mapSize);
    free(h);
}
