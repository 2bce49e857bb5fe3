#pragma once

#include <cstddef>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/InOut.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {

// The producer's side of a shared block queue, for client programs: creates the queue,
// announces the stream's parameters, writes audio split into blocks (keeping the queue's
// byte count), sends commands and waits for the mixer to drain what was written.
//
// Threading: Create, Write, Drain and Close from one thread of the client; SendCmd from
// any thread (senders take turns on the queue's command lock). Write may block up to
// timeoutMs per block while the queue is full; SendCmd and Drain up to 1.5 s.
class MIXER_API DataTransWriter {
public:
    DataTransWriter();
    ~DataTransWriter();  // Close
    DataTransWriter(const DataTransWriter&) = delete;
    DataTransWriter& operator=(const DataTransWriter&) = delete;

    // Creates the queue (numBlk blocks of at least blkSize bytes) and announces rate,
    // channel count and sample size. 0, or the error of DataTrans::Init; closes a queue
    // this writer had open first.
    int Create(const char* name, unsigned numBlk, unsigned blkSize, int rate, int numCh, int sampleSize);

    // Copies size bytes into as many blocks as needed, each committed with bufId (null
    // for none) and added to the byte count. Each block waits at most timeoutMs for space
    // (0 not at all, 0xFFFFFFFF without limit). 0 when everything was queued, else the
    // error of the block that failed (EAGAIN, ETIMEDOUT, EHOSTDOWN, ENOENT, EFAULT); the
    // blocks before it stay queued and *written (if given) says how many bytes that was.
    int Write(const void* data, size_t size, const char* bufId, unsigned timeoutMs, size_t* written = nullptr);

    // Posts cmd and waits up to 1.5 s for the mixer to execute it.
    void SendCmd(tInOutCmd cmd);
    // Waits up to 1.5 s until the mixer has consumed every block: 0, or the wait's error.
    int Drain();
    // Closes this end (hang-up, or removal when the mixer has gone already).
    void Close();

    bool IsOpen() const { return open_; }
    // The queue itself, for what the helper does not cover.
    boost::shared_ptr<DataTrans> Queue() const { return queue_; }

private:
    boost::shared_ptr<DataTrans> queue_;
    bool open_;
};

}  // namespace mixer
