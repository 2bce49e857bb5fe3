#include "client/StreamQueueName.h"

namespace mixer {
namespace client {

const char* const kTypeDataTrans = "dataTrans";

std::string StreamQueueName(const std::string& streamName) {
    size_t start = streamName.find_first_not_of('/');
    return "/mixer-" + (start == std::string::npos ? std::string() : streamName.substr(start));
}

}  // namespace client
}  // namespace mixer
