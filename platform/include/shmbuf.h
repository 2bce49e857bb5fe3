/*
 * Shared buffer: a named ring of fixed-size messages in POSIX shared memory between
 * one writer process and one reader process. The unit of every transfer is a whole
 * message; messages arrive in the order written, none lost and none repeated (except
 * those a reader skips on purpose with ShmbufReadStart).
 *
 * This is the development stand-in with the device platform's calling interface; on
 * the device the platform's own shared-buffer library replaces it.
 *
 * Behaviour of this stand-in:
 * - The writer creates the buffer (ShmbufCreate) under a name, with or without the
 *   leading '/'; an existing object of that name is never reused (EEXIST). The
 *   writer's ShmbufClose hangs up and removes the name; the memory goes when the
 *   reader has closed too.
 * - At most one reader at a time opens it (ShmbufOpen; a second gets EBUSY
 *   while the first one lives).
 * - ShmbufRead never waits; ShmbufReadWait waits on the monotonic clock, and stops
 *   waiting when the writer hangs up. The writer may wait for room (ShmbufWrite).
 * - Calls that fail return NULL or -1 and set errno (EINVAL for a null handle or bad
 *   argument, EBADF for a call on the wrong side's handle, EPIPE for a write after
 *   hang-up, EFAULT for a broken buffer).
 * - All calls are safe between the two processes; a handle itself is used by one
 *   thread at a time. No call waits on anything the other process can hold or
 *   stop: a stopped or dead peer costs a waiting call its time-out, no more.
 * - Neither side trusts the other with the shared memory: its sizes are checked
 *   against the object at opening and kept in the handle, and every call checks
 *   what it reads there; a buffer the other side broke fails every call that
 *   looks at it with -1 and EFAULT.
 */
#ifndef SHMBUF_H
#define SHMBUF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ShmbufHandle ShmbufHandle;

/* Time-out of the waiting calls that waits without limit. */
#define SHMBUF_WAIT_FOREVER 0xFFFFFFFFu

/* ---- reader side ---- */

/* Opens an existing buffer for reading. flags: none are defined yet, pass 0 (other
   values: EINVAL). NULL (errno set) when there is no such buffer, it is not a
   buffer, or another live reader has it open. */
ShmbufHandle* ShmbufOpen(const char* name, uint32_t flags);

/* Positions the reader: of the messages waiting, only the newest keep are kept and
   the older ones are skipped, so ShmbufReadStart(h, 0) starts with the next message
   the writer writes. Returns the number of messages skipped, -1 on a bad handle. */
int32_t ShmbufReadStart(ShmbufHandle* handle, uint32_t keep);

/* Bytes per message, as given at creation; -1 on a bad handle. */
int32_t ShmbufGetMsgSize(ShmbufHandle* handle);

/* Copies up to count waiting messages to dst (count * message size bytes of room)
   without waiting and returns the number copied. minCount makes the read
   all-or-nothing below it: when fewer than minCount are waiting nothing is taken and
   0 is returned (0 takes whatever is there). -1 (EINVAL) for a bad handle, dst, or
   minCount above count. */
int32_t ShmbufRead(ShmbufHandle* handle, void* dst, uint32_t count, uint32_t minCount);

/* Copies count messages to dst, taking them as they arrive, and waits for the rest
   until the writer hangs up or timeoutMs milliseconds have passed (0: no wait,
   SHMBUF_WAIT_FOREVER: no limit). Returns the number copied: count, or fewer after a
   time-out or hang-up. -1 (EINVAL) for a bad handle or dst. */
int32_t ShmbufReadWait(ShmbufHandle* handle, void* dst, uint32_t count, uint32_t timeoutMs);

/* Closes either side's handle. The reader's close lets another reader open; the
   writer's close hangs up first and removes the name. NULL is ignored. */
void ShmbufClose(ShmbufHandle* handle);

/* ---- writer side ---- */

/* Creates a buffer of numMsgs messages of msgSize bytes each (both at least 1, the
   product at most 2^30) and opens it for writing; NULL (errno set) on failure,
   EEXIST when the name is taken. */
ShmbufHandle* ShmbufCreate(const char* name, uint32_t msgSize, uint32_t numMsgs);

/* Appends count messages from src, waiting up to timeoutMs for room while the buffer
   is full. Returns the number appended, fewer than count only when the time ran out;
   -1 with EPIPE after a hang-up, EINVAL or EBADF for bad arguments. */
int32_t ShmbufWrite(ShmbufHandle* handle, const void* src, uint32_t count, uint32_t timeoutMs);

/* Tells the reader that nothing more will come (a waiting ShmbufReadWait returns at
   once); later writes fail with EPIPE. Returns 0, or -1 (EBADF) on a reader's
   handle. */
int32_t ShmbufHangUp(ShmbufHandle* handle);

#ifdef __cplusplus
}
#endif

#endif
