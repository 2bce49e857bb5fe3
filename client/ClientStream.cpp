#include "client/ClientStream.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/StreamQueueName.h"
#include "mixer/core/StreamInfo.h"
#include "mixer/discovery/StreamFiles.h"

namespace mixer {
namespace client {

bool ClientStream::WaitForRoom(unsigned periodUs, unsigned timeoutMs) {
    DataTrans* q = writer_.Queue().get();
    for (uint64_t waitedUs = 0;; waitedUs += periodUs) {
        if (!q || q->IsHungUp() || q->IsStopped()) return false;
        if (q->GetNumBlkFree() > 0) return true;
        if (waitedUs >= uint64_t(timeoutMs) * 1000) return false;
        usleep(periodUs);
    }
}

bool ClientStream::ValidName(const std::string& name) {
    return !name.empty() && name != "/" && name.find('\n') == std::string::npos &&
           name.find('/', 1) == std::string::npos;
}

int ClientStream::Open(Direction direction, const Params& p, std::string& error) {
    Close();
    if (!ValidName(p.name)) {
        error = "bad stream name '" + p.name + "' (no '/' after the first byte, no line feed)";
        return EINVAL;
    }
    if (p.rate == 0 || p.rate > 96000 || p.channels == 0 || p.channels > 10 || p.blocks < 2 || p.blocks > 256) {
        error = "bad format: " + std::to_string(p.rate) + " Hz, " + std::to_string(p.channels) + " channels, " +
                std::to_string(p.blocks) + " blocks";
        return EINVAL;
    }
    const std::string queueName = StreamQueueName(p.name);
    const unsigned blockBytes = (p.rate / 50 > 0 ? p.rate / 50 : 1) * p.channels * 2;  // 20 ms
    const int rc = writer_.Create(queueName.c_str(), p.blocks, blockBytes, static_cast<int>(p.rate),
                                  static_cast<int>(p.channels), 2);
    if (rc != 0) {
        error = "cannot create the stream's queue " + queueName + ": " +
                (rc == EEXIST ? "a stream of that name is open already" : std::strerror(rc));
        return rc;
    }
    sStreamInfo desc;
    desc.id = p.id != 0 ? p.id : static_cast<int>(getpid());
    desc.type = kTypeDataTrans;
    desc.name = p.name;
    desc.rate = p.rate;
    desc.numCh = p.channels;
    desc.sampleSize = 2;
    desc.meta = direction == kRecord ? "record" : p.meta;
    if (UtilWriteFile(desc) != 0) {
        error = "cannot write the description file of " + p.name + " in " + kStreamDir;
        // Nobody can have opened the queue without the file: it goes with this end.
        writer_.Queue()->HangUpPeer();
        writer_.Close();
        return EIO;
    }
    name_ = p.name;
    return 0;
}

void ClientStream::Close() {
    if (!name_.empty()) UtilRemoveFile(name_);
    name_.clear();
    writer_.Close();
}

}  // namespace client
}  // namespace mixer
