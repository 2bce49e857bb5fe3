/* Shared buffer stand-in: see shmbuf.h for the behaviour. */
#include "shmbuf.h"

#include "../common/shm_region.h"

#define SHMBUF_MAGIC 0x42686d53u /* written last by the creator: the buffer is ready */
#define SHMBUF_MAX_BYTES (1u << 30)

/* The shared part, followed by numMsgs * msgSize bytes of messages. */
typedef struct {
    uint32_t magic;
    uint32_t msgSize;
    uint32_t numMsgs;
    pthread_mutex_t lock;
    pthread_cond_t data;  /* the reader waits here for messages or the hang-up */
    pthread_cond_t space; /* the writer waits here for room */
    uint32_t readIdx;     /* GUARDED_BY(lock): slot of the oldest waiting message */
    uint32_t waiting;     /* GUARDED_BY(lock): messages written and not yet read */
    uint32_t hungUp;      /* GUARDED_BY(lock) */
    int32_t readerPid;    /* GUARDED_BY(lock): the open reader, 0 when none */
} ShmbufShared;

struct ShmbufHandle {
    ShmbufShared* shared;
    size_t mapSize;
    int writer;
    char name[NAME_MAX + 2]; /* the writer removes it on close */
};

static char* slot(ShmbufShared* s, uint32_t idx) {
    return (char*)s + sizeof(ShmbufShared) + (size_t)idx * s->msgSize;
}

static int check(ShmbufHandle* h, int wantWriter) {
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

ShmbufHandle* ShmbufCreate(const char* name, uint32_t msgSize, uint32_t numMsgs) {
    if (msgSize == 0 || numMsgs == 0 || (uint64_t)msgSize * numMsgs > SHMBUF_MAX_BYTES) {
        errno = EINVAL;
        return NULL;
    }
    ShmbufHandle* h = calloc(1, sizeof(*h));
    if (h == NULL) return NULL;
    if (shm_region_name(name, h->name, sizeof(h->name)) != 0) {
        free(h);
        return NULL;
    }
    h->mapSize = sizeof(ShmbufShared) + (size_t)msgSize * numMsgs;
    h->shared = shm_region_create(h->name, h->mapSize);
    if (h->shared == NULL) {
        free(h);
        return NULL;
    }
    ShmbufShared* s = h->shared;
    s->msgSize = msgSize;
    s->numMsgs = numMsgs;
    int r = shm_region_mutex_init(&s->lock);
    if (r == 0) r = shm_region_cond_init(&s->data);
    if (r == 0) r = shm_region_cond_init(&s->space);
    if (r != 0) {
        munmap(s, h->mapSize);
        shm_unlink(h->name);
        free(h);
        errno = r;
        return NULL;
    }
    h->writer = 1;
    __atomic_store_n(&s->magic, SHMBUF_MAGIC, __ATOMIC_RELEASE);
    return h;
}

ShmbufHandle* ShmbufOpen(const char* name, uint32_t flags) {
    if (flags != 0) {
        errno = EINVAL;
        return NULL;
    }
    ShmbufHandle* h = calloc(1, sizeof(*h));
    if (h == NULL) return NULL;
    if (shm_region_name(name, h->name, sizeof(h->name)) != 0) {
        free(h);
        return NULL;
    }
    h->shared = shm_region_open(h->name, sizeof(ShmbufShared), &h->mapSize);
    if (h->shared == NULL) {
        free(h);
        return NULL;
    }
    ShmbufShared* s = h->shared;
    int err = 0;
    if (__atomic_load_n(&s->magic, __ATOMIC_ACQUIRE) != SHMBUF_MAGIC ||
        h->mapSize != sizeof(ShmbufShared) + (size_t)s->msgSize * s->numMsgs) {
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

int32_t ShmbufGetMsgSize(ShmbufHandle* h) {
    if (check(h, -1) != 0) return -1;
    return (int32_t)h->shared->msgSize; /* fixed before the buffer was published */
}

int32_t ShmbufReadStart(ShmbufHandle* h, uint32_t keep) {
    if (check(h, 0) != 0) return -1;
    ShmbufShared* s = h->shared;
    shm_region_lock(&s->lock);
    const uint32_t skip = s->waiting > keep ? s->waiting - keep : 0;
    s->readIdx = (s->readIdx + skip) % s->numMsgs;
    s->waiting -= skip;
    if (skip > 0) pthread_cond_signal(&s->space);
    pthread_mutex_unlock(&s->lock);
    return (int32_t)skip;
}

/* Copies n waiting messages out; lock held. */
static void take_locked(ShmbufShared* s, char* dst, uint32_t n) {
    const uint32_t first = s->numMsgs - s->readIdx < n ? s->numMsgs - s->readIdx : n;
    memcpy(dst, slot(s, s->readIdx), (size_t)first * s->msgSize);
    memcpy(dst + (size_t)first * s->msgSize, slot(s, 0), (size_t)(n - first) * s->msgSize);
    s->readIdx = (s->readIdx + n) % s->numMsgs;
    s->waiting -= n;
    if (n > 0) pthread_cond_signal(&s->space);
}

int32_t ShmbufRead(ShmbufHandle* h, void* dst, uint32_t count, uint32_t minCount) {
    if (check(h, 0) != 0) return -1;
    if (dst == NULL || minCount > count || count > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    ShmbufShared* s = h->shared;
    shm_region_lock(&s->lock);
    uint32_t n = s->waiting < count ? s->waiting : count;
    if (n < minCount) n = 0;
    take_locked(s, dst, n);
    pthread_mutex_unlock(&s->lock);
    return (int32_t)n;
}

int32_t ShmbufReadWait(ShmbufHandle* h, void* dst, uint32_t count, uint32_t timeoutMs) {
    if (check(h, 0) != 0) return -1;
    if (dst == NULL || count > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    ShmbufShared* s = h->shared;
    const struct timespec deadline = shm_region_deadline(timeoutMs);
    uint32_t done = 0;
    shm_region_lock(&s->lock);
    for (;;) {
        /* Taken as they come, so that more than the buffer holds can be waited for. */
        const uint32_t n = s->waiting < count - done ? s->waiting : count - done;
        take_locked(s, (char*)dst + (size_t)done * s->msgSize, n);
        done += n;
        if (done == count || s->hungUp || timeoutMs == 0 ||
            shm_region_wait(&s->data, &s->lock, timeoutMs, &deadline) != 0)
            break;
    }
    /* What came in the last moment before a time-out counts too. */
    const uint32_t n = s->waiting < count - done ? s->waiting : count - done;
    take_locked(s, (char*)dst + (size_t)done * s->msgSize, n);
    done += n;
    pthread_mutex_unlock(&s->lock);
    return (int32_t)done;
}

int32_t ShmbufWrite(ShmbufHandle* h, const void* src, uint32_t count, uint32_t timeoutMs) {
    if (check(h, 1) != 0) return -1;
    if (src == NULL || count > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    ShmbufShared* s = h->shared;
    const struct timespec deadline = shm_region_deadline(timeoutMs);
    uint32_t done = 0;
    shm_region_lock(&s->lock);
    if (s->hungUp) {
        pthread_mutex_unlock(&s->lock);
        errno = EPIPE;
        return -1;
    }
    while (done < count) {
        const uint32_t room = s->numMsgs - s->waiting;
        if (room == 0) {
            if (timeoutMs == 0 || shm_region_wait(&s->space, &s->lock, timeoutMs, &deadline) != 0)
                break;
            continue;
        }
        const uint32_t n = count - done < room ? count - done : room;
        const uint32_t writeIdx = (s->readIdx + s->waiting) % s->numMsgs;
        const uint32_t first = s->numMsgs - writeIdx < n ? s->numMsgs - writeIdx : n;
        const char* from = (const char*)src + (size_t)done * s->msgSize;
        memcpy(slot(s, writeIdx), from, (size_t)first * s->msgSize);
        memcpy(slot(s, 0), from + (size_t)first * s->msgSize, (size_t)(n - first) * s->msgSize);
        s->waiting += n; /* after the bytes: a reader never sees a half-written message */
        done += n;
        pthread_cond_signal(&s->data);
    }
    pthread_mutex_unlock(&s->lock);
    return (int32_t)done;
}

int32_t ShmbufHangUp(ShmbufHandle* h) {
    if (check(h, 1) != 0) return -1;
    shm_region_lock(&h->shared->lock);
    h->shared->hungUp = 1;
    pthread_cond_broadcast(&h->shared->data);
    pthread_mutex_unlock(&h->shared->lock);
    return 0;
}

void ShmbufClose(ShmbufHandle* h) {
    if (h == NULL) return;
    ShmbufShared* s = h->shared;
    shm_region_lock(&s->lock);
    if (h->writer) {
        s->hungUp = 1;
        pthread_cond_broadcast(&s->data);
    } else {
        s->readerPid = 0;
    }
    pthread_mutex_unlock(&s->lock);
    if (h->writer) shm_unlink(h->name);
    munmap(s, h->mapSize);
    free(h);
}
