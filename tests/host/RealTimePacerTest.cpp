#include "host/RealTimePacer.h"

#include <gtest/gtest.h>

#include "tests/host/FakeClock.h"

namespace mixer {
namespace {

using host::RealTimePacer;
using test::FakeClock;

TEST(RealTimePacerTest, CaptureTimelineHandsOutEachPeriodWhenItHasElapsed) {
    FakeClock clock;
    RealTimePacer pacer(0, 200000, &clock);
    int64_t t0 = clock.now;
    EXPECT_EQ(pacer.Advance(20000), 20000);
    EXPECT_EQ(pacer.Advance(20000), 20000);
    ASSERT_EQ(clock.sleeps.size(), 2u);
    EXPECT_EQ(clock.sleeps[0], t0 + 20000);
    EXPECT_EQ(clock.sleeps[1], t0 + 40000);
    // A caller that took 15 ms of the next period itself only waits the other 5.
    clock.now += 15000;
    EXPECT_EQ(pacer.Advance(20000), 5000);
    EXPECT_EQ(clock.now, t0 + 60000);
}

TEST(RealTimePacerTest, PlaybackTimelineMayRunAheadByItsLead) {
    FakeClock clock;
    RealTimePacer pacer(40000, 200000, &clock);
    int64_t t0 = clock.now;
    EXPECT_EQ(pacer.Advance(20000), 0);  // 20 ms ahead: within the lead
    EXPECT_EQ(pacer.Advance(20000), 0);  // 40 ms ahead: still within
    EXPECT_EQ(pacer.Advance(20000), 20000);
    EXPECT_EQ(clock.now, t0 + 20000);
    EXPECT_EQ(pacer.PositionUs(), 60000);
}

TEST(RealTimePacerTest, CallerFarBehindIsReanchoredInsteadOfBursting) {
    FakeClock clock;
    RealTimePacer pacer(0, 100000, &clock);
    pacer.Advance(20000);
    clock.now += 500000;  // stalled half a second
    EXPECT_EQ(pacer.Advance(20000), 0);
    EXPECT_EQ(pacer.Reanchors(), 1u);
    // From the new anchor the next period is a full period away again.
    int64_t before = clock.now;
    EXPECT_EQ(pacer.Advance(20000), 20000);
    EXPECT_EQ(clock.now, before + 20000);
    // Lagging less than the limit catches up without a new anchor.
    clock.now += 50000;
    EXPECT_EQ(pacer.Advance(20000), 0);
    EXPECT_EQ(pacer.Reanchors(), 1u);
}

TEST(RealTimePacerTest, ResetStartsANewTimelineAtTheNextPeriod) {
    FakeClock clock;
    RealTimePacer pacer(0, 200000, &clock);
    pacer.Advance(20000);
    clock.now += 10000000;  // paused for ten seconds
    pacer.Reset();
    int64_t before = clock.now;
    EXPECT_EQ(pacer.Advance(20000), 20000);
    EXPECT_EQ(clock.now, before + 20000);
    EXPECT_EQ(pacer.Reanchors(), 0u);
}

}  // namespace
}  // namespace mixer
