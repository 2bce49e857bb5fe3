#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/InOut.h"
#include "mixer/transport/BlockTail.h"
#include "mixer/transport/CondWaker.h"
#include "mixer/transport/StreamQueue.h"

namespace mixer {

// One end of a queue of fixed-size blocks in a named POSIX shared-memory object: a
// StreamQueue header followed by numBlk blocks of userBlkSize data bytes and a BlockTail
// each. A client process (the producer) writes blocks, the mixer (the consumer) reads
// them; either may create the object, the other opens it. Blocks are read and written in
// place; the queue never copies audio.
//
// Threading: exactly two processes share a queue, one writer and one reader, each from
// any number of threads. Every block operation, counter update and parameter access
// takes the header's process-shared recursive `mutex` for its whole run; SetCmd holds
// `cmdMutex` around it (order: cmdMutex, then mutex; nothing takes cmdMutex while holding
// mutex). Waits are on the header's conditions with `mutex`; time-outs are in ms, 0 does
// not wait, 0xFFFFFFFF waits without limit. GetNumBlkFree, GetNumBlkReady, GetNumBlk,
// GetUserBlkSize and IsHungUp read without the lock and are approximate. Nothing here
// allocates except GetReadBuff's copy of a buffer id. Init, DeInit and SetLockWaitMs
// must not run concurrently with other calls on the same DataTrans object.
//
// The peer is another process that may die, stop or lie at any instruction:
// - Both locks are robust where the platform has robust locks: a lock whose owner died
//   is repaired by the next taker and the queue is then hung up, as if the peer had
//   closed (the reader drains what is left, then gets EHOSTDOWN). Elsewhere a dead
//   owner's lock stays taken, and only a lock bound gets past it.
// - With a lock bound (SetLockWaitMs) no lock is waited for longer than the bound; the
//   call then fails with EBUSY or its "not taken" result (see each call). Without a
//   bound (the default) a lock is waited for as long as it takes. A condition wait
//   re-takes `mutex` without bound: a bounded end should not wait on conditions.
// - The geometry (numBlk, blkSize, userBlkSize, size) is checked when the object is
//   opened and kept in this object; every address is computed from these copies and
//   every position read from the header is checked against them, so a header rewritten
//   later cannot move an access outside the mapping.
// - The conditions live in the peer's memory too, and a broadcast sleeps for ever on
//   one whose internal lock the peer has set. The mixer's end therefore gets a waker
//   (SetWaker): see there.
// - The mapping is registered with ClientMappings: a peer that shrinks the object makes
//   the vanished pages read as zeros (where the process installed the handler), and
//   every call that takes a lock then fails with EFAULT.
class MIXER_API DataTrans {
public:
    // The lock bound an engine thread (playback, record) sets on the queues of its
    // clients: a period is 20 ms, a stalled client must not take it.
    static const unsigned kEngineLockWaitMs = 5;

    DataTrans();
    ~DataTrans();  // DeInit
    DataTrans(const DataTrans&) = delete;
    DataTrans& operator=(const DataTrans&) = delete;

    // Creator side: makes a new object of numBlk blocks of at least blkSize data bytes.
    // 0 on success; 2 for a null name or an invalid size; the errno of shm_open (EEXIST
    // when the name exists, the object is then left alone); 14 for any later failure,
    // after which the half-made object is removed. Does not close a queue this object
    // already has open: call DeInit first.
    int Init(const char* name, unsigned numBlk, unsigned blkSize);
    // Opener side: maps an existing object, closing this end first if it is open.
    // 0 on success, the errno of shm_open (ENOENT when there is none), 14 otherwise,
    // also for a header that does not describe the object (too small an object, sizes
    // that disagree, positions or counters out of range); nothing is left open then.
    int Init(const char* name);
    // Closes this end. The first side to close hangs the queue up and wakes every waiter
    // of the peer; the last one destroys the locks and unlinks the name. Always true.
    // When the lock bound passes (a peer holds the lock), this end still closes without
    // the lock: it hangs up (or, when already hung up, unlinks) but destroys no lock.
    bool DeInit();
    // Bounds every lock this object takes to ms milliseconds (0xFFFFFFFF: no bound, the
    // default). A free lock costs no more with a bound than without.
    void SetLockWaitMs(unsigned ms);
    // The mixer's end, on an open queue before other threads use it (until DeInit):
    // every broadcast on the queue's conditions is handed to waker, whose threads make
    // it; no call here sleeps in a condition (GetReadBuff and GetWriteBuff with a
    // time-out poll every 2 ms instead; SetCmd and WaitTillUserBufEmpty do not wait);
    // the mapping belongs to the waker's share, so that a broadcast stuck in it never
    // loses its memory. Once a broadcast on this queue got stuck, every call fails
    // (EFAULT, or its "not taken" result) and DeInit hangs up and unlinks without the
    // lock.
    void SetWaker(const boost::shared_ptr<CondWaker>& waker);
    // Declares the peer gone, as if it had closed its end: hangUp is set and every
    // waiter on this queue wakes. For a host that learns of the peer's death some other
    // way (a client process that was killed never closes); this end's DeInit then
    // destroys the locks and unlinks the name as the last closer. Nothing when not open.
    // When the lock bound passes, the flag is set and the waiters woken without it.
    void HangUpPeer();

    bool IsHungUp();   // true when not open
    bool IsStopped();  // true when not open or when the lock bound passes

    // The performance trace line of the queue's positions and counters; the caller holds
    // `mutex` (or is the only user). Nothing when the queue is not open.
    void LogStatus(const char* tag);

    // Address of the data (PosToPtr) or of the tail (TailPosToPtr) of block pos of the
    // mapped header q, or null after a logged bounds error. For this end's own mapping
    // the geometry checked at opening is used, not the header's current values.
    char* PosToPtr(const StreamQueue* q, unsigned pos);
    char* TailPosToPtr(const StreamQueue* q, unsigned pos);

    // Writer. GetWriteBuff: on success the block at writePos belongs to the caller, who
    // fills at most GetUserBlkSize() bytes and hands it on with CommitWriteBuff; on
    // failure null with err = ENOENT (not open), EAGAIN (full without waiting, or
    // stopped), ETIMEDOUT, EHOSTDOWN (hung up), EFAULT (corrupt tail or counter), EBUSY
    // (the lock bound passed; nothing changed) or the wait's error. CommitWriteBuff:
    // false when the queue is hung up or the block was not handed out (e.g. flushed
    // meanwhile), or when the lock bound passed (the block is still the caller's and the
    // commit may be tried again); the id (null for none) is truncated to 149 characters.
    char* GetWriteBuff(int& err, unsigned timeoutMs);
    bool CommitWriteBuff(unsigned len, char* bufId);

    // Reader. GetReadBuff: on success the block at readPos belongs to the caller until
    // ReleaseReadBuff, len holds its committed length and, when bufId is not null,
    // *bufId a malloc'd copy of its id (free it; null if the copy failed). On failure
    // null with err = ENOENT, EAGAIN (empty without waiting), ETIMEDOUT, EHOSTDOWN (hung
    // up and empty), EFAULT, EBUSY (the lock bound passed; "no data now", the queue may
    // well hold some) or the wait's error; nothing is handed out then.
    char* GetReadBuff(int& err, unsigned& len, unsigned timeoutMs, char** bufId);
    // Gives the block handed out by GetReadBuff back. True when done; false with err =
    // ENOENT (not open), EBUSY (the lock bound passed: the block is still the caller's,
    // unchanged, and the release may be tried again) or EFAULT (no block was handed out,
    // or a counter overflowed; logged).
    bool ReleaseReadBuff(int& err);
    bool ReleaseReadBuff();

    unsigned GetNumBlkFree();  // 0 when hung up
    unsigned GetNumBlkReady();
    unsigned GetNumBlk();
    unsigned GetUserBlkSize();
    // Audio bytes in flight: the producer adds what it commits, the reader subtracts
    // what it copies out. SubCount saturates at 0. Both return the new value; 0 and no
    // change when the lock bound passes (the count is a trace figure).
    unsigned AddCount(unsigned n);
    unsigned SubCount(unsigned n);

    // The writer's stop flag: while set, GetWriteBuff fails with EAGAIN; reading goes on.
    // Nothing changes when the lock bound passes.
    void Stop();
    void Resume();

    // Command channel. SetCmd (producer) posts cmd and waits up to 1.5 s for its
    // execution; it cannot tell success from time-out. GetCmd and CmdExecuted (mixer)
    // read the slot and acknowledge; acknowledging another command than the pending one
    // clears the slot without waking the sender. When the lock bound passes: SetCmd posts
    // nothing, GetCmd is CMD_NONE, CmdExecuted leaves the slot as it is.
    void SetCmd(tInOutCmd cmd);
    tInOutCmd GetCmd();
    void CmdExecuted(tInOutCmd cmd);

    // Returns every block, including one a side holds, to free and clears the counters.
    // Nothing when the lock bound passes.
    void Flush();
    // Producer: waits up to 1.5 s until every block is free; 0, or the wait's error
    // (EBUSY when the lock bound passes).
    int WaitTillUserBufEmpty();

    // Stream parameters announced by the producer; -1 when unset, not open or the lock
    // bound passes. The setters change nothing then.
    int GetRate();
    int GetNumCh();
    int GetSampleSize();
    void SetRate(int rate);
    void SetNumCh(int numCh);
    void SetSampleSize(int sampleSize);

    const std::string& GetName() const { return name_; }

private:
    // Bounds-checked tail of block pos; null after a logged error. Caller holds mutex.
    BlockTail* TailLocked(unsigned pos);
    void ResetTail(BlockTail* tail, bool full);
    // Sets hangUp and wakes every waiter. Caller holds mutex, so that no waiter can test
    // the flag and then miss the wake-up; only when a stalled or dead peer holds the
    // lock is it called without (a waiter of this process may then sleep to its
    // deadline).
    void HangUpLocked();
    // Takes m (mutex or cmdMutex of the mapping) within the lock bound. 0 when held
    // (after the repair of a lock whose owner died, which hangs the queue up), else the
    // error (EBUSY: the bound passed) with nothing held; op names the caller in the logs.
    int Acquire(pthread_mutex_t* m, const char* op);
    // Waits on cond with mutex held (deadline null: without limit); the wait's result.
    // A lock whose owner died meanwhile is repaired as in Acquire.
    int WaitOn(pthread_cond_t* cond, const timespec* deadline);
    void OwnerDied(pthread_mutex_t* m);
    // Broadcasts conds (CondWaker bits) here, or hands them to the waker.
    void Wake(unsigned conds);
    // Keeps the geometry of a checked header (creation or opening) for every address,
    // and the mapping's ClientMappings slot.
    void Adopt(StreamQueue* q, const StreamQueue& geometry, size_t mapSize, int mappingSlot);
    bool BeginBlockWait(const char* op, const char* enterTag, unsigned timeoutMs, int& err, timespec& deadline);
    char* GetWriteBuffLocked(int& err, unsigned timeoutMs, const timespec& deadline);
    char* GetReadBuffLocked(int& err, unsigned& len, unsigned timeoutMs, const timespec& deadline,
                            char** bufId);
    bool CommitWriteBuffLocked(unsigned len, char* bufId);
    bool ReleaseReadBuffLocked();
    // The stream parameters share one path: field is the header member, op the
    // operation name the log lines carry.
    int GetParam(int32_t StreamQueue::*field, const char* op);
    void SetParam(int32_t StreamQueue::*field, int value);

    std::string name_;     // empty until an Init succeeds; kept after DeInit
    StreamQueue* queue_;   // the mapping, null while not open
    size_t mapSize_;       // bytes mapped at queue_: the bound of every address
    // The geometry checked at creation or opening (0 while not open); the header's own
    // copies may be rewritten by the peer and are not used for addresses.
    uint32_t numBlk_;
    uint32_t blkSize_;
    uint32_t userBlkSize_;
    unsigned lockWaitMs_;  // 0xFFFFFFFF: no bound
    boost::shared_ptr<CondWaker> waker_;
    boost::shared_ptr<CondWaker::Target> target_;  // while open with a waker: owns the mapping
    // This mapping's ClientMappings slot (-1: unguarded): once the peer has shrunk the
    // object under it, every call that takes a lock fails with EFAULT.
    // While a waker owns the mapping, the slot is the waker's too.
    int mappingSlot_;
};

}  // namespace mixer
