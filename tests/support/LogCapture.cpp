#include "tests/support/LogCapture.h"

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "mixer/core/Log.h"

namespace mixer {
namespace test {

namespace {

std::mutex g_lock;
std::condition_variable g_added;   // signalled per captured line
std::vector<std::string> g_lines;  // GUARDED_BY(g_lock)
bool g_active = false;

void Capture(int, const char* line) {
    std::lock_guard<std::mutex> guard(g_lock);
    g_lines.push_back(line);
    g_added.notify_all();
}

}  // namespace

LogCapture::LogCapture(uint32_t mask) : savedMask_(g_orvane_log_mask) {
    {
        std::lock_guard<std::mutex> guard(g_lock);
        assert(!g_active);
        g_active = true;
        g_lines.clear();
    }
    Log::SetSink(&Capture);
    g_orvane_log_mask = mask;
}

LogCapture::~LogCapture() {
    g_orvane_log_mask = savedMask_;
    Log::SetSink(nullptr);
    std::lock_guard<std::mutex> guard(g_lock);
    g_active = false;
}

std::vector<std::string> LogCapture::Lines() const {
    std::lock_guard<std::mutex> guard(g_lock);
    return g_lines;
}

int LogCapture::Count(const std::string& line) const {
    int n = 0;
    for (const std::string& l : Lines()) n += l == line;
    return n;
}

int LogCapture::CountPrefix(const std::string& prefix) const {
    int n = 0;
    for (const std::string& l : Lines()) n += l.compare(0, prefix.size(), prefix) == 0;
    return n;
}

bool LogCapture::WaitFor(const std::string& line, int count, int timeoutMs) const {
    std::unique_lock<std::mutex> guard(g_lock);
    return g_added.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] {
        int n = 0;
        for (const std::string& l : g_lines) n += l == line;
        return n >= count;
    });
}

std::string LogCapture::Dump() const {
    std::string out;
    for (const std::string& l : Lines()) out += l + "\n";
    return out;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> guard(g_lock);
    g_lines.clear();
}

}  // namespace test
}  // namespace mixer
