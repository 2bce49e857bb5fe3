// Frame assembly of the data-trans input against a client that writes blocks of any
// size and content, posts commands, flushes, corrupts block tails and hangs up. The
// target makes a real queue (the client's end), opens it again as the mixer's end
// around an InputDataTrans, and lets the input bytes choose the next step. Invariants:
// a frame, when one is returned, has the frame size of the input's format; nothing
// outside the mapping or the frame is touched (the sanitizer and a fault tell).

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include <boost/make_shared.hpp>

#include "fuzz/FuzzInput.h"
#include "mixer/input/InputDataTrans.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace fuzz {
namespace {

const unsigned kRates[] = {8000, 16000, 22050, 44100, 48000, 7, 0};
const unsigned kMaxBlocks = 16;
const unsigned kMaxBlockBytes = 8192;

// The client's view of the object, for what a hostile client does behind the queue's
// back: writing the command slot (SetCmd would wait 1.5 s for the answer) and tails.
class RawQueue {
public:
    explicit RawQueue(const std::string& name) : base_(nullptr), size_(0) {
        const int fd = shm_open(name.c_str(), O_RDWR, 0);
        if (fd < 0) return;
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_size > 0) {
            void* p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (p != MAP_FAILED) {
                base_ = static_cast<char*>(p);
                size_ = static_cast<size_t>(st.st_size);
            }
        }
        close(fd);
    }
    ~RawQueue() {
        if (base_ != nullptr) munmap(base_, size_);
    }
    bool ok() const { return base_ != nullptr; }
    StreamQueue* header() { return reinterpret_cast<StreamQueue*>(base_); }
    void PostCmd(uint32_t cmd) {
        pthread_mutex_lock(&header()->mutex);
        header()->cmd = cmd;
        pthread_mutex_unlock(&header()->mutex);
    }
    // Overwrites 4 bytes of block blk's tail at word `word` (check, state, length).
    void CorruptTail(unsigned blk, unsigned word, uint32_t value) {
        const StreamQueue* q = header();
        const size_t at = sizeof(StreamQueue) + (static_cast<size_t>(blk % q->numBlk) + 1) * q->blkSize -
                          sizeof(BlockTail) + (word % 3) * 4;
        pthread_mutex_lock(&header()->mutex);
        std::memcpy(base_ + at, &value, sizeof(value));
        pthread_mutex_unlock(&header()->mutex);
    }

private:
    char* base_;
    size_t size_;
};

void Run(FuzzInput& in) {
    const unsigned rate = kRates[in.Byte() % (sizeof(kRates) / sizeof(kRates[0]))];
    const unsigned numCh = in.Byte() % 10;
    const unsigned numBlk = 1 + in.Byte() % kMaxBlocks;
    const unsigned blkSize = 1 + in.U16() % kMaxBlockBytes;

    const std::string name = ShmName("in");
    boost::shared_ptr<DataTrans> client = boost::make_shared<DataTrans>();
    FUZZ_CHECK(client->Init(name.c_str(), numBlk, blkSize) == 0);
    {
        RawQueue raw(name);
        FUZZ_CHECK(raw.ok());
        boost::shared_ptr<DataTrans> mixerEnd = boost::make_shared<DataTrans>();
        FUZZ_CHECK(mixerEnd->Init(name.c_str()) == 0);
        InputDataTrans input(mixerEnd, rate, numCh, 2, "fuzz");
        // The frame size the input's format gives, after its own corrections.
        const uint32_t frameSize = AudioFrame(input.sampleSize, input.rate, input.numCh, 20).size;

        while (!in.Empty()) {
            const uint8_t op = in.Byte();
            switch (op % 10) {
                case 0:
                case 1: {  // the client writes a block; a hostile one claims any length
                    int err = 0;
                    char* block = client->GetWriteBuff(err, 0);
                    if (block == nullptr) break;
                    const unsigned user = client->GetUserBlkSize();
                    const unsigned len = (op & 0x80) ? in.U16() : in.U16() % (user + 1);
                    const std::string bytes = in.Bytes(std::min(len, user));
                    std::memcpy(block, bytes.data(), bytes.size());
                    char id[32] = "id";
                    client->CommitWriteBuff(len, (op & 0x40) ? id : nullptr);
                    break;
                }
                case 2:
                case 3: {  // the mixer pulls a frame
                    boost::shared_ptr<AudioFrame> frame = input.Process();
                    if (frame) {
                        FUZZ_CHECK(frame->size == frameSize);
                        FUZZ_CHECK(std::strlen(frame->bufId) < kBufIdLen);
                    }
                    break;
                }
                case 4:
                    raw.PostCmd(in.Byte() & 0x1F);
                    break;
                case 5: {  // the engine's handling of a pending command
                    const tInOutCmd cmd = input.GetCmd();
                    if (cmd == CMD_PAUSE) input.PauseDelay(in.Byte());
                    if (cmd != CMD_NONE) input.HandleCmd(cmd);
                    break;
                }
                case 6:
                    input.HandleCmd(static_cast<tInOutCmd>(in.Byte()));
                    break;
                case 7:
                    switch (in.Byte() % 5) {
                        case 0: input.Pause(); break;
                        case 1: input.Resume(); break;
                        case 2: input.Drain(); break;
                        case 3: input.Flush(); break;
                        case 4: input.Stop(); break;
                    }
                    break;
                case 8:
                    raw.CorruptTail(in.Byte(), in.Byte(), in.U32());
                    break;
                case 9:
                    if (op & 0x80) client->DeInit();  // the client leaves
                    else client->Flush();
                    break;
            }
        }
    }
    client->DeInit();
    shm_unlink(name.c_str());
}

}  // namespace
}  // namespace fuzz
}  // namespace mixer

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    mixer::fuzz::DropLogLines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mixer::fuzz::FuzzInput in(data, size);
    mixer::fuzz::Run(in);
    return 0;
}
