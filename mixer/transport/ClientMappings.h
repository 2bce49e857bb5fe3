#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "mixer/core/Api.h"

namespace mixer {

// The mappings of this process that a client can take away: shared-memory objects a
// client may shrink (ftruncate) while they are mapped here, after which touching the
// vanished pages raises SIGBUS. Once Install has run, a SIGBUS at an address inside a
// registered mapping maps private zero pages over the mapping from the faulting page on
// and marks it faulted: the access is retried and reads zeros, and the owner, which
// asks Faulted at each call, gives its stream up. A SIGBUS anywhere else goes to the
// action that was there before Install (by default: the process dies with it).
//
// Registered: the block queues (DataTrans, both ends) and, through Find and AddNew,
// the mappings the platform's shared-queue and shared-buffer libraries make, which
// cannot register themselves (on the device they are the platform's own).
//
// Threading: Add, Remove and Faulted may run on any thread at any time and never block
// or allocate; the registry is a fixed array of atomics that the signal handler reads
// without locks. Install runs once, before the mappings it guards are touched. Find and
// AddNew read /proc/self/maps and allocate: not for an engine's period.
class MIXER_API ClientMappings {
public:
    // Mappings guarded at once; a mapping beyond that is still made, only unguarded.
    static const int kSlots = 512;

    // Installs the SIGBUS handler (once per process; later calls do nothing). False,
    // logged, when the system refused it.
    static bool Install();
    // Registers [base, base + size): the slot, or -1 (logged) when every slot is taken.
    static int Add(const void* base, size_t size);
    // Forgets a slot (-1: nothing); its mapping must not be touched after this.
    static void Remove(int slot);
    // True once a SIGBUS in the slot's mapping has been answered with zero pages.
    static bool Faulted(int slot);

    // Covers, on the calling thread, a library's open of an object a client can shrink
    // meanwhile, before its mapping is known (and registered with AddNew): a SIGBUS on
    // this thread while the guard lives gets a private zero page at the fault and marks
    // the guard. At most kGuards at once; beyond that a guard covers nothing.
    class MIXER_API OpenGuard {
    public:
        OpenGuard();
        ~OpenGuard();
        OpenGuard(const OpenGuard&) = delete;
        OpenGuard& operator=(const OpenGuard&) = delete;
        bool Faulted() const;

    private:
        int slot_;
    };
    static const int kGuards = 8;

    // The mappings (start, size) of the POSIX shared-memory object name (with or
    // without its leading '/') in this process now.
    typedef std::vector<std::pair<uintptr_t, size_t> > Ranges;
    static Ranges Find(const std::string& name);
    // Registers the first mapping of name found now that was not in before (taken
    // with Find just before a library opened it): its slot, or -1 when there is none.
    static int AddNew(const std::string& name, const Ranges& before);
};

}  // namespace mixer
