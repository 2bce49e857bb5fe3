#include "host/latency/LatencyListener.h"

#include <ctime>

namespace mixer {
namespace host {

LatencyListener::LatencyListener(boost::shared_ptr<LatencyProbe> probe) : probe_(probe) {
    name = "LatencyListener";
    state = STATE_ACTIVE;
}

int LatencyListener::WriteFrame(boost::shared_ptr<AudioFrame> frame) {
    if (!probe_->Active()) {
        state = STATE_HANGUP;
        return -1;
    }
    if (frame) {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        probe_->OnMicFrame(*frame, static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000);
    }
    if (!probe_->Active()) state = STATE_HANGUP;
    return 0;
}

}  // namespace host
}  // namespace mixer
