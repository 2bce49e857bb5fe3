#pragma once

#include <future>
#include <memory>
#include <string>

#include "mixer/core/MsgWriteInfo.h"

namespace mixer {
namespace host {

// A status request that tells its sender when every engine is done with it: the
// playback engine writes its report and hands the same message to the record engine,
// which appends its own; when the last of them lets go, the message is destroyed and
// the promise is fulfilled. The sender must not keep a reference itself.
//
// Threading: destroyed on whichever engine thread releases it last.
class MsgWriteInfoNotify : public MsgWriteInfo {
public:
    MsgWriteInfoNotify(const std::string& fileName_, std::shared_ptr<std::promise<void>> done)
        : MsgWriteInfo(fileName_), done_(done) {}
    ~MsgWriteInfoNotify() override { done_->set_value(); }

private:
    std::shared_ptr<std::promise<void>> done_;
};

}  // namespace host
}  // namespace mixer
