#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/Connect.h"
#include "mixer/core/Heartbeat.h"
#include "mixer/core/MsgHead.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/MsgQ.h"
#include "mixer/input/Input.h"
#include "mixer/stream/StreamOut.h"

namespace mixer {

// Body of the record thread; arg is the Record. Returns null.
MIXER_API void* RecordrunLoop(void* record);

// The record engine: one thread takes frames from the microphone input and hands each
// to every registered output stream (MsgNewOutput), 15 ms apart, while the microphone
// is enabled (MsgEnableMic) and somebody listens; otherwise it sleeps on its queue
// with the input paused. MsgWriteInfo appends a status report to a file.
//
// Threading: the host's threads call Init, DeInit and GetMsgQ and post messages; the
// record thread alone touches outputs, input and micEnable (handleMsg, AddNewOutput and
// WriteInfo run on it), so they carry no lock. running is written by the host and read
// by the record thread once per pass. The record thread runs SCHED_FIFO 70 when allowed.
//
// Shutdown, for hosts: DeInit does not wake a record thread that is waiting on its
// queue (no output stream, or the microphone disabled). Such a DeInit returns only
// once any other message (a MsgPing will do) is posted to GetMsgQ() after DeInit has
// begun; post it from another thread, since DeInit blocks. A thread that is recording
// leaves at the end of its current frame. Call either DeInit or the destructor.
class MIXER_API Record {
public:
    Record();
    ~Record();

    // Starts the record thread. -1 for a null connection, otherwise 0. A failed thread
    // creation also returns 0 (it is reported as a positive number, which is not
    // treated as a failure).
    int Init(Connect* connect);
    // Clears the run flag, joins the thread (see the class comment) and drops the input.
    void DeInit();

    boost::shared_ptr<MsgQ> GetMsgQ() { return msgQ; }
    // Beaten by the thread each pass, idle while it waits on its queue: for a watchdog.
    const Heartbeat& GetHeartbeat() const { return heartbeat; }

    // Monotonic microseconds, formed with a 32-bit product of the seconds: the value
    // jumps back by 2^32 us about every 71.6 minutes.
    int64_t GetTimeUS() const;

    // Record thread only.
    void handleMsg(boost::shared_ptr<MsgHead> msg);
    void AddNewOutput(boost::shared_ptr<MsgNewOutput> msg);
    // Appends the status report to fileName (created when missing).
    void WriteInfo(const std::string& fileName);

private:
    friend void* RecordrunLoop(void* record);
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    std::atomic<int32_t> running;               // 1 while the thread is to keep going
    Heartbeat heartbeat;
    boost::shared_ptr<MsgQ> msgQ;
    std::list<boost::shared_ptr<StreamOut> > outputs;  // record thread; registration order
    boost::shared_ptr<Input> input;             // record thread; empty until it starts
    pthread_t thread;
    int32_t micEnable;                          // record thread; 0 disabled
    Connect* connect;                           // not owned
    bool threadStarted;                         // thread is joinable (host thread only)
};

}  // namespace mixer
