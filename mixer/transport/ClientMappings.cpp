#include "mixer/transport/ClientMappings.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "mixer/core/Log.h"

namespace mixer {

namespace {

static_assert(std::atomic<uintptr_t>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "the signal handler reads the registry without locks");

enum SlotState { kFree, kChanging, kLive };

struct Slot {
    std::atomic<int> state;
    std::atomic<uintptr_t> start, end;  // page-aligned
    std::atomic<int> faulted;
};

Slot g_slots[ClientMappings::kSlots];

struct Guard {
    std::atomic<long> thread;  // 0: free
    std::atomic<int> faulted;
};
Guard g_guards[ClientMappings::kGuards];

long ThreadId() { return syscall(SYS_gettid); }  // a plain system call: safe in the handler
std::atomic<bool> g_installed(false);
struct sigaction g_previous;
uintptr_t g_pageSize = 4096;  // set before the handler is

uintptr_t PageSize() {
    static const uintptr_t size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    return size;
}

void OnSigbus(int sig, siginfo_t* info, void*) {
    const uintptr_t addr = reinterpret_cast<uintptr_t>(info->si_addr);
    if (info->si_code == BUS_ADRERR) {
        for (Slot& s : g_slots) {
            if (s.state.load(std::memory_order_acquire) != kLive) continue;
            const uintptr_t start = s.start.load(std::memory_order_relaxed);
            const uintptr_t end = s.end.load(std::memory_order_relaxed);
            if (addr < start || addr >= end) continue;
            // The object shrank under its mapping: what is gone reads as zeros from now
            // on, in this process only, and the faulting access is retried on it.
            const uintptr_t page = addr & ~(g_pageSize - 1);
            if (mmap(reinterpret_cast<void*>(page), end - page, PROT_READ | PROT_WRITE,
                     MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED)
                break;
            s.faulted.store(1, std::memory_order_release);
            return;
        }
        // An open in progress on this thread, whose mapping is not known yet.
        const long self = ThreadId();
        for (Guard& g : g_guards) {
            if (g.thread.load(std::memory_order_acquire) != self) continue;
            if (mmap(reinterpret_cast<void*>(addr & ~(g_pageSize - 1)), g_pageSize, PROT_READ | PROT_WRITE,
                     MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED)
                break;
            g.faulted.store(1, std::memory_order_release);
            return;
        }
    }
    // Not ours: the earlier action takes it. A fault is retried and raises the signal
    // again under it; a sent signal is sent again.
    sigaction(SIGBUS, &g_previous, nullptr);
    if (info->si_code <= 0) raise(sig);
}

}  // namespace

bool ClientMappings::Install() {
    if (g_installed.exchange(true)) return true;
    g_pageSize = PageSize();
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_sigaction = OnSigbus;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGBUS, &action, &g_previous) != 0) {
        MIXER_LOG_E("Mixer_ClientMappings:Install:sigaction: %s:", std::strerror(errno));
        g_installed = false;
        return false;
    }
    return true;
}

int ClientMappings::Add(const void* base, size_t size) {
    if (base == nullptr || size == 0) return -1;
    const uintptr_t page = PageSize();
    const uintptr_t start = reinterpret_cast<uintptr_t>(base) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(base) + size + page - 1) & ~(page - 1);
    for (int i = 0; i < kSlots; ++i) {
        Slot& s = g_slots[i];
        int expected = kFree;
        if (!s.state.compare_exchange_strong(expected, kChanging)) continue;
        s.start.store(start, std::memory_order_relaxed);
        s.end.store(end, std::memory_order_relaxed);
        s.faulted.store(0, std::memory_order_relaxed);
        s.state.store(kLive, std::memory_order_release);
        return i;
    }
    MIXER_LOG_W("Mixer_ClientMappings:Add:all %d slots taken, a mapping of %zu bytes is unguarded:", kSlots, size);
    return -1;
}

void ClientMappings::Remove(int slot) {
    if (slot < 0 || slot >= kSlots) return;
    Slot& s = g_slots[slot];
    s.state.store(kChanging, std::memory_order_release);
    s.start.store(0, std::memory_order_relaxed);
    s.end.store(0, std::memory_order_relaxed);
    s.state.store(kFree, std::memory_order_release);
}

bool ClientMappings::Faulted(int slot) {
    return slot >= 0 && slot < kSlots && g_slots[slot].faulted.load(std::memory_order_acquire) != 0;
}

ClientMappings::OpenGuard::OpenGuard() : slot_(-1) {
    const long self = ThreadId();
    for (int i = 0; i < kGuards && slot_ < 0; ++i) {
        long expected = 0;
        if (!g_guards[i].thread.compare_exchange_strong(expected, self)) continue;
        g_guards[i].faulted.store(0, std::memory_order_release);
        slot_ = i;
    }
}

ClientMappings::OpenGuard::~OpenGuard() {
    if (slot_ >= 0) g_guards[slot_].thread.store(0, std::memory_order_release);
}

bool ClientMappings::OpenGuard::Faulted() const {
    return slot_ >= 0 && g_guards[slot_].faulted.load(std::memory_order_acquire) != 0;
}

ClientMappings::Ranges ClientMappings::Find(const std::string& name) {
    // Lines end in the path; an object removed since shows " (deleted)" after it.
    const size_t first = name.find_first_not_of('/');
    const std::string path = " /dev/shm/" + name.substr(first == std::string::npos ? name.size() : first);
    Ranges found;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const size_t at = line.rfind(path);
        if (at == std::string::npos) continue;
        const std::string rest = line.substr(at + path.size());
        if (!rest.empty() && rest != " (deleted)") continue;
        char* dash = nullptr;
        const unsigned long long start = std::strtoull(line.c_str(), &dash, 16);
        const unsigned long long end = *dash == '-' ? std::strtoull(dash + 1, nullptr, 16) : 0;
        if (end > start) found.emplace_back(static_cast<uintptr_t>(start), static_cast<size_t>(end - start));
    }
    return found;
}

int ClientMappings::AddNew(const std::string& name, const Ranges& before) {
    for (const auto& r : Find(name)) {
        bool old = false;
        for (const auto& b : before) old = old || b.first == r.first;
        if (!old) return Add(reinterpret_cast<const void*>(r.first), r.second);
    }
    return -1;
}

}  // namespace mixer
