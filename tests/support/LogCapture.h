#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mixer {
namespace test {

// Captures every line the library logs while it is alive, with every level enabled
// (or the mask given), and restores the sink and the mask afterwards. Lines from any
// thread are collected. One capture at a time.
class LogCapture {
public:
    explicit LogCapture(uint32_t mask = 0xFFFFFFFFu);
    ~LogCapture();

    std::vector<std::string> Lines() const;
    // Number of captured lines equal to line.
    int Count(const std::string& line) const;
    // Number of captured lines that start with prefix.
    int CountPrefix(const std::string& prefix) const;
    bool Has(const std::string& line) const { return Count(line) > 0; }
    // Blocks until at least count captured lines equal line (lines logged by another
    // thread); false when that has not happened within timeoutMs.
    bool WaitFor(const std::string& line, int count = 1, int timeoutMs = 20000) const;
    // The lines joined with line feeds, for failure messages.
    std::string Dump() const;
    void Clear();

private:
    uint32_t savedMask_;
};

}  // namespace test
}  // namespace mixer
