/*
 * Helpers shared by the shared-memory stand-ins (compiled into each of them; nothing
 * here is exported): naming, creating and mapping an object, and CLOCK_MONOTONIC
 * deadlines.
 */
#ifndef PLATFORM_SHM_REGION_H
#define PLATFORM_SHM_REGION_H

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
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
   minSize (still being set up, or not ours) or larger than 2 GiB (no ring is; the
   size would not fit a 32-bit size_t) are refused with EINVAL. */
static inline void* shm_region_open(const char* shmName, size_t minSize, size_t* size) {
    const int fd = shm_open(shmName, O_RDWR, 0);
    if (fd < 0) return NULL;
    struct stat st;
    void* p = MAP_FAILED;
    if (fstat(fd, &st) == 0) {
        if (st.st_size < 0 || (uint64_t)st.st_size < minSize || (uint64_t)st.st_size > INT32_MAX)
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

#endif
