#pragma once
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>
#include "mixer/core/Log.h"
namespace mixer::test {
// Captures every line the library logs (any thread) while it lives, every level enabled (or mask); one at a time.
class LogCapture {
public:
    explicit LogCapture(uint32_t mask = 0xFFFFFFFFu) : savedMask_(g_orvane_log_mask) {
        Clear();
        Log::SetSink([](int, const char* line) { Lock g(lock_); lines_.push_back(line), added_.notify_all(); });
        g_orvane_log_mask = mask;
    }
    ~LogCapture() { g_orvane_log_mask = savedMask_, Log::SetSink(nullptr); }
    std::vector<std::string> Lines() const { Lock l(lock_); return lines_; }
    int Count(const std::string& line) const { Lock l(lock_); return std::count(lines_.begin(), lines_.end(), line); }
    int CountPrefix(const std::string& prefix) const {
        Lock l(lock_); return std::count_if(lines_.begin(), lines_.end(), [&](const std::string& s) { return s.rfind(prefix, 0) == 0; });
    }
    bool Has(const std::string& line) const { return Count(line) > 0; }
    // Waits until at least count captured lines equal line, or (WaitUntil) one matches; false after timeoutMs.
    bool WaitFor(const std::string& line, int count = 1, int timeoutMs = 20000) const {
        Lock l(lock_);
        return added_.wait_for(l, std::chrono::milliseconds(timeoutMs), [&] { return std::count(lines_.begin(), lines_.end(), line) >= count; });
    }
    template <class Match> bool WaitUntil(Match match, int timeoutMs = 20000) const {
        Lock l(lock_);
        return added_.wait_for(l, std::chrono::milliseconds(timeoutMs), [&] { return std::any_of(lines_.begin(), lines_.end(), match); });
    }
    std::string Dump() const { std::string out; for (const std::string& s : Lines()) out += s + "\n"; return out; }
    void Clear() { Lock l(lock_); lines_.clear(); }
private:
    typedef std::unique_lock<std::mutex> Lock;
    uint32_t savedMask_;
    static inline std::mutex lock_;
    static inline std::condition_variable added_;
    static inline std::vector<std::string> lines_;
};
}  // namespace mixer::test
