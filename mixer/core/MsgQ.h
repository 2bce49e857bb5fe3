#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/Log.h"
#include "mixer/core/MsgHead.h"

namespace mixer {

// First-in, first-out queue of messages into one engine, without a capacity limit.
//
// Threading: any thread may sendMsg(); only the owning engine's thread calls getMsg().
// lock is held only for the push or pop and for the wait; no handler runs under it.
// sendMsg() allocates a deque node.
class MIXER_API MsgQ {
public:
    MsgQ() {}
    virtual ~MsgQ() {}

    void sendMsg(boost::shared_ptr<MsgHead> msg) {
        if (!msg) {
            MIXER_LOG_I("MsgQ:sendMsg:NULL:");
            return;
        }
        std::lock_guard<std::mutex> guard(lock);
        msgs.push_back(msg);
        notEmpty.notify_one();
    }

    // Takes the oldest message, or an empty pointer. With wait, an empty queue is waited
    // on once: after any wake-up the queue is looked at again and, if still empty, the
    // result is empty. Callers treat an empty result as the end of the pending messages.
    boost::shared_ptr<MsgHead> getMsg(bool wait) {
        std::unique_lock<std::mutex> guard(lock);
        if (msgs.empty() && wait) notEmpty.wait(guard);
        boost::shared_ptr<MsgHead> msg;
        if (!msgs.empty()) {
            msg.swap(msgs.front());
            msgs.pop_front();
        }
        return msg;
    }

private:
    MsgQ(const MsgQ&) = delete;
    MsgQ& operator=(const MsgQ&) = delete;

    std::mutex lock;
    std::condition_variable notEmpty;                // signalled once per posted message
    std::deque<boost::shared_ptr<MsgHead> > msgs;    // GUARDED_BY(lock), oldest first
};

}  // namespace mixer
