#include "client/RealTimePacer.h"

#include <cerrno>
#include <ctime>

namespace mixer {
namespace client {

namespace {

class MonotonicClock : public RealTimePacer::Clock {
public:
    int64_t NowUs() override {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    }
    void SleepUntilUs(int64_t whenUs) override {
        timespec ts;
        ts.tv_sec = static_cast<time_t>(whenUs / 1000000);
        ts.tv_nsec = static_cast<long>(whenUs % 1000000) * 1000;
        // An absolute deadline survives signals: just sleep again.
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
        }
    }
};

}  // namespace

RealTimePacer::Clock& RealTimePacer::Monotonic() {
    static MonotonicClock clock;
    return clock;
}

RealTimePacer::RealTimePacer(int64_t leadUs, int64_t maxLagUs, Clock* clock)
    : leadUs_(leadUs), maxLagUs_(maxLagUs), clock_(clock ? clock : &Monotonic()),
      started_(false), originUs_(0), positionUs_(0), reanchors_(0) {}

int64_t RealTimePacer::Advance(int64_t periodUs) {
    int64_t now = clock_->NowUs();
    if (!started_) {
        started_ = true;
        originUs_ = now;
        positionUs_ = 0;
    }
    positionUs_ += periodUs;
    int64_t due = originUs_ + positionUs_ - leadUs_;
    if (now - due > maxLagUs_) {
        // Fell behind: restart the timeline so that this period is due now.
        originUs_ = now - positionUs_ + leadUs_;
        ++reanchors_;
        return 0;
    }
    if (due <= now) return 0;
    clock_->SleepUntilUs(due);
    return due - now;
}

}  // namespace client
}  // namespace mixer
