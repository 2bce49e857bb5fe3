#include "client/ClientStream.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "client/ControlClient.h"
#include "client/ControlProtocol.h"
#include "client/StreamQueueName.h"
#include "client/StreamRules.h"
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

const char* const ClientStream::kDefaultSocket = "/run/mixerd/mixerd.sock";

namespace {

const unsigned kAskEveryMs = 20;  // the daemon takes a stream up within a period or two

std::string Stripped(const std::string& name) {
    const size_t start = name.find_first_not_of('/');
    return start == std::string::npos ? std::string() : name.substr(start);
}

// What a client makes for the daemon is for the daemon's group alone (the stream
// directory's group): the daemon takes a queue's shared locks, which any user who may
// write them could subvert, and a daemon that is not root reads a description file through
// its group whatever the client's umask. A client outside the group cannot give them away,
// and such a daemon then refuses them.
void GiveToGroup(int fd, mode_t mode) {
    struct stat dir;
    if (stat(kStreamDir, &dir) == 0 && fchown(fd, static_cast<uid_t>(-1), dir.st_gid) != 0) {
        // Not a member: it keeps the client's group.
    }
    if (fchmod(fd, mode) != 0) {
        // Ours by creation; nothing to do if even so it fails.
    }
}

void CloseToOthers(const std::string& queueName) {
    const int fd = shm_open(queueName.c_str(), O_RDWR, 0);
    if (fd >= 0) GiveToGroup(fd, 0660), close(fd);
}

// The description file must be this client's own: another member of the group may have
// put a file or a link under the name first, which the write would follow (a root client
// writes anywhere). Creating it read-only announces nothing: the daemon acts on the close
// of a file written.
bool OwnDescriptionFile(const std::string& name) {
    const std::string path = std::string(kStreamDir) + "/" + Stripped(name);
    const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0) return GiveToGroup(fd, 0640), close(fd), true;
    struct stat st;
    return errno != EEXIST || (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid());
}

}  // namespace

bool ClientStream::ValidName(const std::string& name) {
    return !name.empty() && name != "/" && name.find('\n') == std::string::npos &&
           name.find('/', 1) == std::string::npos;
}

std::string ClientStream::Refusal(Direction direction, const Params& p) {
    if (!ValidName(p.name)) return "bad stream name '" + p.name + "' (no '/' after the first byte, no line feed)";
    const std::string name = Stripped(p.name);
    if (StreamRules::IsRecordName(name) != (direction == kRecord))
        return direction == kRecord ? "a record stream is named micRaw, micAsr or micHfp, not '" + name + "'"
                                    : "'" + name + "' names a record stream";
    if (const char* why = StreamRules::Refusal(name, kTypeDataTrans, p.rate, p.channels, 2))
        return std::to_string(p.rate) + " Hz, " + std::to_string(p.channels) + " channels: " + why;
    if (p.blocks < kMinBlocks || p.blocks > kMaxBlocks)
        return "queue length " + std::to_string(p.blocks) + " out of range 2..256 blocks";
    return std::string();
}

bool ClientStream::Ask(std::string& answer, std::string& detail, bool& gone, unsigned boundMs) {
    ControlReply reply;
    const std::string line = std::string("stream ") + Stripped(name_) + " " + std::to_string(id_);
    if (!ControlClient::Request(socket_, line, reply, detail, static_cast<int>(boundMs), &gone)) return false;
    if (!reply.ok) {
        // An older daemon, or one that cannot parse the name: no verdict to be had.
        answer = ControlProtocol::kUnknown;
        detail = reply.text;
        return true;
    }
    std::string body = reply.text;
    while (!body.empty() && body.back() == '\n') body.pop_back();
    const size_t blank = body.find(' ');
    answer = body.substr(0, blank);
    detail = blank == std::string::npos ? std::string() : body.substr(blank + 1);
    return true;
}

int ClientStream::CreateQueue(const Params& p, const std::string& queueName) {
    const unsigned blockBytes = p.rate / 50 * p.channels * 2;  // 20 ms
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(socket_.empty() ? 0 : answerMs_);
    for (;;) {
        const int rc = writer_.Create(queueName.c_str(), p.blocks, blockBytes, static_cast<int>(p.rate),
                                      static_cast<int>(p.channels), 2);
        // The daemon removes a closed stream's queue when its engine lets go of it, a
        // period or two after the client has gone: the next run of the same name waits.
        if (rc != EEXIST || std::chrono::steady_clock::now() >= deadline) return rc;
        std::this_thread::sleep_for(std::chrono::milliseconds(kAskEveryMs));
    }
}

int ClientStream::Open(Direction direction, const Params& p, std::string& error) {
    Close();
    error = Refusal(direction, p);
    if (!error.empty()) return EINVAL;
    socket_ = p.socket;
    answerMs_ = p.answerMs;
    id_ = p.id != 0 ? p.id : static_cast<int>(getpid());
    name_ = p.name;  // for Ask; cleared again until the description file exists
    std::string answer, detail;
    bool gone = false;
    if (!socket_.empty() && !Ask(answer, detail, gone, answerMs_)) {
        name_.clear();
        error = gone ? "mixerd is not running (nothing answers on " + socket_ + ")"
                                    : "mixerd does not answer: " + detail;
        return ECONNREFUSED;
    }
    name_.clear();
    const std::string queueName = StreamQueueName(p.name);
    const int rc = CreateQueue(p, queueName);
    if (rc != 0) {
        error = "cannot create the stream's queue " + queueName + ": " +
                (rc == EEXIST ? "a stream of that name is open already" : std::strerror(rc));
        return rc;
    }
    CloseToOthers(queueName);
    sStreamInfo desc;
    desc.id = id_;
    desc.type = kTypeDataTrans;
    desc.name = p.name;
    desc.rate = p.rate;
    desc.numCh = p.channels;
    desc.sampleSize = 2;
    desc.meta = direction == kRecord ? "record" : p.meta;
    standing_ = kGone;  // until the daemon says otherwise: Close then removes the queue
    if (!OwnDescriptionFile(p.name)) {
        error = "the description file of " + p.name + " in " + kStreamDir + " is another user's";
        Close();
        return EEXIST;
    }
    if (UtilWriteFile(desc) != 0) {
        error = "cannot write the description file of " + p.name + " in " + kStreamDir;
        UtilRemoveFile(p.name);
        Close();
        return EIO;
    }
    name_ = p.name;
    if (socket_.empty()) {
        standing_ = kServed;
        return 0;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(answerMs_);
    for (;;) {
        if (!Ask(answer, detail, gone, answerMs_)) {
            error = gone ? "mixerd has gone" : "mixerd does not answer: " + detail;
            Close();
            return ECONNREFUSED;
        }
        if (answer == ControlProtocol::kAccepted) {
            standing_ = detail == ControlProtocol::kMicOff ? kMicOff : kServed;
            return 0;
        }
        if (answer == ControlProtocol::kRefused) {
            error = "mixerd refused the stream: " + detail;
            Close();
            return EPERM;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            error = "mixerd did not take up the stream within " + std::to_string(answerMs_) + " ms";
            Close();
            return ETIMEDOUT;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kAskEveryMs));
    }
}

ClientStream::Standing ClientStream::Check(std::string& why) {
    if (!IsOpen()) {
        why = "the stream is not open";
        return kGone;
    }
    if (socket_.empty()) return kServed;
    std::string answer, detail;
    bool gone = false;
    if (!Ask(answer, detail, gone, std::min(answerMs_, static_cast<unsigned>(kCheckMs)))) {
        why = gone ? "mixerd has gone" : "mixerd does not answer: " + detail;
        // A daemon that does not answer may still hold the queue: only one that is gone
        // leaves it to this end.
        if (gone) standing_ = kGone;
        unanswered_ = !gone;
        return kGone;
    }
    unanswered_ = false;
    if (answer != ControlProtocol::kAccepted) {
        why = "mixerd no longer serves the stream";
        standing_ = kGone;
        return kGone;
    }
    standing_ = detail == ControlProtocol::kMicOff ? kMicOff : kServed;
    if (standing_ == kMicOff) why = "the microphone is off (mixerctl mic on)";
    return standing_;
}

void ClientStream::Close() {
    std::string why;
    // A daemon killed meanwhile leaves its end open for ever: find out before closing.
    if (writer_.IsOpen() && standing_ != kGone && !unanswered_) Check(why);
    unanswered_ = false;
    if (!name_.empty()) UtilRemoveFile(name_);
    name_.clear();
    // Nobody else will remove a queue the daemon does not hold: hang it up on the
    // daemon's behalf, so that this end, closing last, removes it.
    if (writer_.IsOpen() && standing_ == kGone) writer_.Queue()->HangUpPeer();
    writer_.Close();
    standing_ = kGone;
}

}  // namespace client
}  // namespace mixer
