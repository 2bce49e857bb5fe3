#pragma once
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include "mixer/transport/ClientMappings.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ShmName.h"
namespace mixer::test {
// Whether a SIGBUS on a shrunk mapping can be answered here at all, tried once in a child: qemu-user reports
// the fault a page past where it was, outside the mapping, so the handler leaves it to the default and the child dies.
inline bool ShrinkSurvivable() {
    static const bool ok = [] {
        ShmName name("probe");
        ChildProcess child([&] {
            const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
            void* p = fd < 0 || ftruncate(fd, 8192) != 0 ? MAP_FAILED : mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0);
            CHILD_CHECK(p != MAP_FAILED && ClientMappings::Install() && ClientMappings::Add(p, 8192) >= 0 && ftruncate(fd, 4096) == 0);
            return static_cast<volatile char*>(p)[4096] == 0 ? 0 : 1;
        });
        return child.Wait(20000) == 0;
    }();
    return ok;
}
}  // namespace mixer::test
