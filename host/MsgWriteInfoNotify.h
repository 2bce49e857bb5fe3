#pragma once

#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mixer/core/MsgWriteInfo.h"

namespace mixer {
namespace host {

// A status request that tells its sender when every engine is done with it: the
// playback engine writes its report and hands the same message to the record engine,
// which appends its own; when the last of them lets go, the message is destroyed and
// the promise is fulfilled. The sender must not keep a reference itself.
//
// On its way from the playback engine to the record engine (Connect::ChainMsgRecord, on
// the playback thread) the daemon fills view with what it sees: the settings and the
// streams that the reports do not show.
//
// Threading: destroyed on whichever engine thread releases it last; view is written on
// the playback thread and read by the sender once the promise is fulfilled.
class MsgWriteInfoNotify : public MsgWriteInfo {
public:
    struct View {
        struct Playing {
            std::string type, name, state;
            unsigned volume, rate;
        };
        struct Recording {
            std::string name;
            unsigned rate, numCh;
        };
        bool taken = false;  // the daemon filled it
        int speakerVolume = 0;
        std::map<std::string, unsigned> volumes;  // stored volume per stream type
        std::string focus;                        // wanted focus, empty for none
        bool ducking = false;                     // a focused stream is sounding
        std::vector<Playing> playing;
        std::vector<Recording> recording;
    };

    MsgWriteInfoNotify(const std::string& fileName_, std::shared_ptr<std::promise<void>> done,
                       std::shared_ptr<View> view_ = std::shared_ptr<View>())
        : MsgWriteInfo(fileName_), view(view_), done_(done) {}
    ~MsgWriteInfoNotify() override { done_->set_value(); }

    const std::shared_ptr<View> view;  // may be empty: nobody asked

private:
    std::shared_ptr<std::promise<void>> done_;
};

}  // namespace host
}  // namespace mixer
