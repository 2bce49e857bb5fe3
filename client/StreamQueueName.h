#pragma once

#include <string>

namespace mixer {
namespace client {

// The transport type name of the mixer's own shared block queue in a stream
// description file (the library names only "shmQ", "shmB" and "file").
extern const char* const kTypeDataTrans;  // "dataTrans"

// The shared-memory name of a stream's block queue: "/mixer-" and the stream name
// without its leading slashes. Clients create it under this name before they write the
// description file; the daemon opens it by the same rule.
std::string StreamQueueName(const std::string& streamName);

}  // namespace client
}  // namespace mixer
