/*
 * Shared queue: a named byte ring in POSIX shared memory between one writer process
 * and one reader process. Bytes arrive in the order written, none lost and none
 * repeated; the writer can hang up, and the reader sees that once it has taken what
 * was written before.
 *
 * This is the development stand-in with the device platform's calling interface; on
 * the device the platform's own shared-queue library replaces it.
 *
 * Behaviour of this stand-in:
 * - The writer creates the queue (ShmQCreate) under a name, with or without the
 *   leading '/'; an existing object of that name is never reused (EEXIST). The
 *   writer's ShmQClose hangs up and removes the name; the memory goes when the
 *   reader has closed too.
 * - At most one reader at a time opens it (ShmQOpen; a second gets EBUSY
 *   while the first one lives).
 * - The reader never waits: ShmQDataAvail and ShmQRead look at what is there now.
 *   The writer may wait for room (ShmQWrite's time-out).
 * - Calls that fail return NULL or -1 and set errno (EINVAL for a null handle or bad
 *   argument, EBADF for a call on the wrong side's handle, EPIPE for a write after
 *   hang-up).
 * - All calls are safe between the two processes; a handle itself is used by one
 *   thread at a time. No call waits on anything the other process can hold or
 *   stop: a stopped or dead peer costs a waiting call its time-out, no more.
 * - Neither side trusts the other with the shared memory: its sizes are checked
 *   against the object at opening and kept in the handle, and every call checks
 *   what it reads there; a queue the other side broke fails every call that
 *   looks at it with -1 and EFAULT.
 */
#ifndef SHMQ_H
#define SHMQ_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ShmQHandle ShmQHandle;

/* Time-out of ShmQWrite that waits without limit. */
#define SHMQ_WAIT_FOREVER 0xFFFFFFFFu

/* ---- reader side ---- */

/* Opens an existing queue for reading; NULL (errno set) when there is none, it is
   not a queue, or another live reader has it open. */
ShmQHandle* ShmQOpen(const char* name);

/* Bytes ready to be read now; -1 on a bad handle. */
int32_t ShmQDataAvail(ShmQHandle* handle);

/* Non-zero once the writer has hung up (or closed); 0 while it is there. Bytes
   written before the hang-up can still be read. -1 on a bad handle. */
int32_t ShmQIsHungUp(ShmQHandle* handle);

/* Copies up to maxBytes ready bytes to dst and removes them from the queue; returns
   the number copied. minBytes makes the read all-or-nothing below it: when fewer
   than minBytes are ready nothing is taken and 0 is returned (minBytes == maxBytes
   reads exactly maxBytes or nothing; 0 takes whatever is there). Never waits.
   -1 (EINVAL) for a bad handle, dst, or minBytes outside 0..maxBytes. */
int32_t ShmQRead(ShmQHandle* handle, void* dst, int32_t maxBytes, int32_t minBytes);

/* Closes either side's handle. The reader's close lets another reader open; the
   writer's close hangs up first and removes the name. NULL is ignored. */
void ShmQClose(ShmQHandle* handle);

/* ---- writer side ---- */

/* Creates a queue that holds up to capacity bytes (1 .. 2^30) and opens it for
   writing; NULL (errno set) on failure, EEXIST when the name is taken. */
ShmQHandle* ShmQCreate(const char* name, int32_t capacity);

/* Appends count bytes from src, waiting up to timeoutMs (0: not at all,
   SHMQ_WAIT_FOREVER: without limit) for room while the queue is full. Returns the
   number of bytes appended, which is less than count only when the time ran out;
   -1 with EPIPE after a hang-up, EINVAL or EBADF for bad arguments. */
int32_t ShmQWrite(ShmQHandle* handle, const void* src, int32_t count, uint32_t timeoutMs);

/* Bytes that can be appended now without waiting; -1 on a bad handle. */
int32_t ShmQSpaceAvail(ShmQHandle* handle);

/* Tells the reader that nothing more will come; later writes fail with EPIPE.
   Returns 0, or -1 (EBADF) on a reader's handle. */
int32_t ShmQHangUp(ShmQHandle* handle);

#ifdef __cplusplus
}
#endif

#endif
