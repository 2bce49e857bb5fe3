/*
 * Helpers shared by the shared-memory stand-ins (compiled into each of them; nothing
 * here is exported): naming, creating and mapping an object, process-shared locks, and
 * waits on CLOCK_MONOTONIC deadlines.
 */
#ifndef PLATFORM_SHM_REGION_H
#define PLATFORM_SHM_REGION_H

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define SHM_WAIT_FOREVER 0xFFFFFFFFu

/* Object names may be given with or without the leading '/' that shm_open wants. */
static inline int shm_region_name(const char* name, char* out, size_t outSize) {
    if (name == NULL || name[0] == '\0' || (name[0] == '/' && name[1] == '\0')) {
        errno = EINVAL;
        return -1;
    }
    const int n = snprintf(out, outSize, "%s%s", name[0] == '/' ? "" : "/", name);
    if (n < 0 || (size_t)n >= outSize || n > NAME_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

/* Creates a new object of size bytes (never an existing one: EEXIST) and maps it. */
static inline void* shm_region_create(const char* shmName, size_t size) {
    const int fd = shm_open(shmName, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return NULL;
    void* p = MAP_FAILED;
    if (ftruncate(fd, (off_t)size) == 0)
        p = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int err = errno;
    close(fd);
    if (p == MAP_FAILED) {
        shm_unlink(shmName);
        errno = err;
        return NULL;
    }
    return p;
}

/* Maps an existing object whole; its size goes to *size. Objects smaller than
   minSize (still being set up, or not ours) are refused with EINVAL. */
static inline void* shm_region_open(const char* shmName, size_t minSize, size_t* size) {
    const int fd = shm_open(shmName, O_RDWR, 0);
    if (fd < 0) return NULL;
    struct stat st;
    void* p = MAP_FAILED;
    if (fstat(fd, &st) == 0) {
        if ((size_t)st.st_size < minSize)
            errno = EINVAL;
        else
            p = mmap(NULL, (size_t)st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    const int err = errno;
    close(fd);
    if (p == MAP_FAILED) {
        errno = err;
        return NULL;
    }
    *size = (size_t)st.st_size;
    return p;
}

/* A process-shared mutex, robust where the system supports it (a process that dies
   holding it then does not block its peer forever). */
static inline int shm_region_mutex_init(pthread_mutex_t* m) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
    int r = pthread_mutex_init(m, &a);
    if (r == ENOTSUP) {
        /* No robust futex list (some emulators): a plain shared mutex still works. */
        pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_STALLED);
        r = pthread_mutex_init(m, &a);
    }
    pthread_mutexattr_destroy(&a);
    return r;
}

/* A process-shared condition variable whose timed waits run on CLOCK_MONOTONIC. */
static inline int shm_region_cond_init(pthread_cond_t* c) {
    pthread_condattr_t a;
    pthread_condattr_init(&a);
    pthread_condattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&a, CLOCK_MONOTONIC);
    const int r = pthread_cond_init(c, &a);
    pthread_condattr_destroy(&a);
    return r;
}

static inline void shm_region_lock(pthread_mutex_t* m) {
    /* The shared state is only changed in whole steps under the lock (indices after
       the bytes), so a dead owner leaves it consistent. */
    if (pthread_mutex_lock(m) == EOWNERDEAD) pthread_mutex_consistent(m);
}

static inline struct timespec shm_region_deadline(uint32_t timeoutMs) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += timeoutMs / 1000u;
    t.tv_nsec += (long)(timeoutMs % 1000u) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

/* One wait on c (lock held on entry and on return). Returns ETIMEDOUT once the
   deadline has passed; timeoutMs SHM_WAIT_FOREVER waits without one. */
static inline int shm_region_wait(pthread_cond_t* c, pthread_mutex_t* m, uint32_t timeoutMs,
                                  const struct timespec* deadline) {
    const int r = timeoutMs == SHM_WAIT_FOREVER ? pthread_cond_wait(c, m)
                                                : pthread_cond_timedwait(c, m, deadline);
    if (r == EOWNERDEAD) pthread_mutex_consistent(m);
    return r == ETIMEDOUT ? ETIMEDOUT : 0;
}

#endif
