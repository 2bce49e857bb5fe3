#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "mixer/core/Api.h"
#include "mixer/core/InOut.h"
#include "mixer/transport/BlockTail.h"
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
// allocates except GetReadBuff's copy of a buffer id. Init and DeInit must not run
// concurrently with other calls on the same DataTrans object.
//
// Every address derived from a position in shared memory is checked against this
// process's mapping: a bounds error is logged and fails the operation.
class MIXER_API DataTrans {
public:
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
    // 0 on success, the errno of shm_open (ENOENT when there is none), 14 otherwise.
    int Init(const char* name);
    // Closes this end. The first side to close hangs the queue up and wakes every waiter
    // of the peer; the last one destroys the locks and unlinks the name. Always true.
    bool DeInit();
    // Declares the peer gone, as if it had closed its end: hangUp is set and every
    // waiter on this queue wakes. For a host that learns of the peer's death some other
    // way (a client process that was killed never closes); this end's DeInit then
    // destroys the locks and unlinks the name as the last closer. Nothing when not open.
    void HangUpPeer();

    bool IsHungUp();   // true when not open
    bool IsStopped();  // true when not open

    // The performance trace line of the queue's positions and counters; the caller holds
    // `mutex` (or is the only user). Nothing when the queue is not open.
    void LogStatus(const char* tag);

    // Address of the data (PosToPtr) or of the tail (TailPosToPtr) of block pos of the
    // mapped header q, or null after a logged bounds error.
    char* PosToPtr(const StreamQueue* q, unsigned pos);
    char* TailPosToPtr(const StreamQueue* q, unsigned pos);

    // Writer. GetWriteBuff: on success the block at writePos belongs to the caller, who
    // fills at most GetUserBlkSize() bytes and hands it on with CommitWriteBuff; on
    // failure null with err = ENOENT (not open), EAGAIN (full without waiting, or
    // stopped), ETIMEDOUT, EHOSTDOWN (hung up), EFAULT (corrupt tail or counter) or the
    // wait's error. CommitWriteBuff: false when the queue is hung up or the block was not
    // handed out (e.g. flushed meanwhile); the id (null for none) is truncated to 149
    // characters.
    char* GetWriteBuff(int& err, unsigned timeoutMs);
    bool CommitWriteBuff(unsigned len, char* bufId);

    // Reader. GetReadBuff: on success the block at readPos belongs to the caller until
    // ReleaseReadBuff, len holds its committed length and, when bufId is not null,
    // *bufId a malloc'd copy of its id (free it; null if the copy failed). On failure
    // null with err = ENOENT, EAGAIN (empty without waiting), ETIMEDOUT, EHOSTDOWN (hung
    // up and empty), EFAULT or the wait's error; nothing is handed out then.
    char* GetReadBuff(int& err, unsigned& len, unsigned timeoutMs, char** bufId);
    bool ReleaseReadBuff();

    unsigned GetNumBlkFree();  // 0 when hung up
    unsigned GetNumBlkReady();
    unsigned GetNumBlk();
    unsigned GetUserBlkSize();
    // Audio bytes in flight: the producer adds what it commits, the reader subtracts
    // what it copies out. SubCount saturates at 0. Both return the new value.
    unsigned AddCount(unsigned n);
    unsigned SubCount(unsigned n);

    // The writer's stop flag: while set, GetWriteBuff fails with EAGAIN; reading goes on.
    void Stop();
    void Resume();

    // Command channel. SetCmd (producer) posts cmd and waits up to 1.5 s for its
    // execution; it cannot tell success from time-out. GetCmd and CmdExecuted (mixer)
    // read the slot and acknowledge; acknowledging another command than the pending one
    // clears the slot without waking the sender.
    void SetCmd(tInOutCmd cmd);
    tInOutCmd GetCmd();
    void CmdExecuted(tInOutCmd cmd);

    // Returns every block, including one a side holds, to free and clears the counters.
    void Flush();
    // Producer: waits up to 1.5 s until every block is free; 0, or the wait's error.
    int WaitTillUserBufEmpty();

    // Stream parameters announced by the producer; -1 when unset or not open.
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
    // Sets hangUp and wakes every waiter. Caller holds mutex.
    void HangUpLocked();
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
};

}  // namespace mixer
