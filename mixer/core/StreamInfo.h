#pragma once

#include <cstdint>
#include <string>

namespace mixer {

// The description of one client stream: the record behind a stream description file
// and the argument of Connect::AddNewStream. The library carries the values without
// validating them.
struct sStreamInfo {
    sStreamInfo() : id(0), rate(0), numCh(0), sampleSize(0) {}

    int32_t id;
    std::string type;   // transport: kTypeShmQ, kTypeShmB, kTypeFile or the host's own
    std::string name;   // also the description file's name in the stream directory
    uint32_t rate;
    uint32_t numCh;
    uint32_t sampleSize;
    std::string meta;   // free text, reported by Stream::GetMeta
};

}  // namespace mixer
