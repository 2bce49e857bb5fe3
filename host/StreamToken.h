#pragma once

#include <functional>
#include <utility>

namespace mixer {
namespace host {

// Runs an action when the last holder lets go: the daemon gives one to every client
// stream's input or output, so that when an engine drops the stream (client gone,
// fault) the daemon removes its description file and announces the removal, whichever
// thread that happens on.
//
// Threading: destroyed on whichever thread releases it last; the action must be safe
// there and must not block (the daemon's only queues an event).
class StreamToken {
public:
    explicit StreamToken(std::function<void()> onGone) : onGone_(std::move(onGone)) {}
    ~StreamToken() {
        if (onGone_) onGone_();
    }
    StreamToken(const StreamToken&) = delete;
    StreamToken& operator=(const StreamToken&) = delete;

private:
    std::function<void()> onGone_;
};

// An input or output of the library with a token attached: Tracked<InputDataTrans>,
// Tracked<DataTransOutput>. Everything else is Base's.
template <class Base>
class Tracked : public Base {
public:
    template <class... Args>
    explicit Tracked(std::function<void()> onGone, Args&&... args)
        : Base(std::forward<Args>(args)...), token_(std::move(onGone)) {}

private:
    // Members go before bases: the action runs while Base is still whole, before its own
    // destructor closes the queue.
    StreamToken token_;
};

}  // namespace host
}  // namespace mixer
