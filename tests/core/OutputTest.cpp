#include "mixer/core/Output.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mixer/algo/Algo.h"
#include "mixer/stream/Stream.h"
#include "tests/support/FakeOutput.h"

namespace mixer {
namespace {

// Slot of a virtual member function in its class's vtable (the destructor pair is 0, 1),
// read from the pointer-to-member representation of the Itanium C++ ABI. On x86 the ptr
// field holds 1 + the byte offset; on ARM the ptr field holds the byte offset and the
// low bit of adj marks the pointer virtual.
template <typename F>
long VtableSlot(F f) {
    struct Rep {
        uintptr_t ptr;
        ptrdiff_t adj;
    };
    static_assert(sizeof(F) == sizeof(Rep), "pointer to member of the Itanium layout");
    Rep rep;
    std::memcpy(&rep, &f, sizeof rep);
#if defined(__arm__) || defined(__aarch64__)
    if ((rep.adj & 1) == 0) return -1;  // not virtual
    return static_cast<long>(rep.ptr / sizeof(void*));
#else
    if ((rep.ptr & 1) == 0) return -1;  // not virtual
    return static_cast<long>((rep.ptr - 1) / sizeof(void*));
#endif
}

TEST(OutputTest, VirtualSlotsKeepTheHostsOrder) {
    EXPECT_EQ(VtableSlot(&Output::Pause), 2);
    EXPECT_EQ(VtableSlot(&Output::Resume), 3);
    EXPECT_EQ(VtableSlot(&Output::WriteFrame), 4);
    EXPECT_EQ(VtableSlot(&Output::Open), 5);
    EXPECT_EQ(VtableSlot(&Output::Close), 6);
    EXPECT_EQ(VtableSlot(&Output::GetDelayUs), 7);
    EXPECT_EQ(VtableSlot(&Output::IdleTick), 8);
    EXPECT_EQ(VtableSlot(&Output::PostWrite), 9);
    EXPECT_EQ(VtableSlot(&Output::SetVolume), 10);
    // The same slots seen through the base and a host's subclass.
    EXPECT_EQ(VtableSlot(&MixerIO::Pause), 2);
    EXPECT_EQ(VtableSlot(&MixerIO::Resume), 3);
    EXPECT_EQ(VtableSlot(&test::FakeOutput::SetVolume), 10);
}

TEST(OutputTest, AlgorithmAndStreamSlots) {
    EXPECT_EQ(VtableSlot(&Algo::Process), 2);
    EXPECT_EQ(VtableSlot(&Algo::GetLatencyUs), 3);
    EXPECT_EQ(VtableSlot(&Stream::SetVolume), 2);
}

TEST(OutputTest, DefaultsOfTheOptionalOperations) {
    test::FakeOutput out("usb", STATE_PAUSED);
    Output& base = out;
    EXPECT_EQ(base.Open(), 0);
    base.Close();
    EXPECT_EQ(base.GetDelayUs(), 0u);
    EXPECT_EQ(base.name, "usb");
    EXPECT_EQ(base.state, STATE_PAUSED);
}

}  // namespace
}  // namespace mixer
