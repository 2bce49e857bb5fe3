// The queue opener and the block operations on a header and block tails that a hostile
// client made. Input: the object's size (16 bits), the number of operation bytes, the
// header fields after the synchronisation objects, the operation bytes, and the bytes
// of the object after the header (tails and data). The synchronisation objects are made
// properly (process-shared, recursive), so runs explore the queue's logic rather than
// lock failures. DataTrans::Init(name) opens the object and the operations run with
// time-out 0; the name is unlinked after every run.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/FuzzInput.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace fuzz {
namespace {

// Enough to hold a few blocks of any size the fields may claim.
const size_t kMaxObject = 0xFFFF;
// Bytes a writer fills at the most, whatever the header claims.
const unsigned kMaxFill = 1u << 20;

void InitSync(StreamQueue* q) {
    pthread_mutexattr_t m;
    pthread_mutexattr_init(&m);
    pthread_mutexattr_setpshared(&m, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_settype(&m, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&q->mutex, &m);
    pthread_mutex_init(&q->cmdMutex, &m);
    pthread_mutexattr_destroy(&m);
    pthread_condattr_t c;
    pthread_condattr_init(&c);
    pthread_condattr_setpshared(&c, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&q->condDataAvail, &c);
    pthread_cond_init(&q->condSpaceAvail, &c);
    pthread_cond_init(&q->cmdExecutedCond, &c);
    pthread_condattr_destroy(&c);
}

// Makes the object: size bytes, the header fields and the body from the input.
bool MakeObject(const std::string& name, size_t size, const std::string& fields, const std::string& body) {
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return false;
    bool ok = ftruncate(fd, static_cast<off_t>(size)) == 0;
    if (ok && size > 0) {
        void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ok = base != MAP_FAILED;
        if (ok) {
            char* bytes = static_cast<char*>(base);
            if (size >= sizeof(StreamQueue)) {
                InitSync(reinterpret_cast<StreamQueue*>(base));
                std::memcpy(bytes + kStreamQueueSyncBytes, fields.data(),
                            std::min(fields.size(), kStreamQueueFieldBytes));
                std::memcpy(bytes + sizeof(StreamQueue), body.data(),
                            std::min(body.size(), size - sizeof(StreamQueue)));
            } else {
                // Too small for a header: whatever bytes fit.
                std::memcpy(bytes, fields.data(), std::min(fields.size(), size));
            }
            munmap(base, size);
        }
    }
    close(fd);
    return ok;
}

// Reads every byte in [p, p + n): a block outside the mapping faults here.
uint8_t Touch(const char* p, unsigned n) {
    uint8_t sum = 0;
    for (unsigned i = 0; i < n; ++i) sum = static_cast<uint8_t>(sum + static_cast<uint8_t>(p[i]));
    return sum;
}

void RunOps(DataTrans& dt, FuzzInput& ops) {
    while (!ops.Empty()) {
        const uint8_t op = ops.Byte();
        int err = 0;
        switch (op % 12) {
            case 0: {
                unsigned len = 0;
                char* id = nullptr;
                char* block = dt.GetReadBuff(err, len, 0, (op & 0x80) ? &id : nullptr);
                FUZZ_CHECK((block != nullptr) == (err == 0));
                if (block != nullptr) {
                    FUZZ_CHECK(len <= dt.GetUserBlkSize());
                    Touch(block, len);
                    if (id != nullptr) FUZZ_CHECK(std::strlen(id) < kBlockTailBufIdLen + 1);
                }
                free(id);
                break;
            }
            case 1:
                dt.ReleaseReadBuff();
                break;
            case 2: {
                char* block = dt.GetWriteBuff(err, 0);
                FUZZ_CHECK((block != nullptr) == (err == 0));
                if (block != nullptr) std::memset(block, op, std::min(dt.GetUserBlkSize(), kMaxFill));
                break;
            }
            case 3: {
                char id[200];
                std::memset(id, 'i', sizeof(id));
                id[ops.Byte() % sizeof(id)] = '\0';
                dt.CommitWriteBuff(ops.U32(), (op & 0x80) ? id : nullptr);
                break;
            }
            case 4:
                dt.Flush();
                break;
            case 5:
                dt.GetCmd();
                break;
            case 6:
                dt.CmdExecuted(static_cast<tInOutCmd>(ops.Byte()));
                break;
            case 7:
                dt.GetNumBlkFree();
                dt.GetNumBlkReady();
                dt.GetNumBlk();
                dt.GetUserBlkSize();
                dt.AddCount(ops.U16());
                dt.SubCount(ops.U16());
                break;
            case 8:
                if (op & 0x80) dt.Stop(); else dt.Resume();
                dt.IsStopped();
                dt.IsHungUp();
                break;
            case 9:
                dt.SetRate(static_cast<int>(ops.U32()));
                dt.GetRate();
                dt.GetNumCh();
                dt.GetSampleSize();
                break;
            case 10:
                dt.LogStatus("fuzz");
                break;
            case 11:
                if (op & 0x80) dt.HangUpPeer();
                break;
        }
    }
}

}  // namespace
}  // namespace fuzz
}  // namespace mixer

using namespace mixer;
using namespace mixer::fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    DropLogLines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const size_t objSize = std::min<size_t>(in.U16(), kMaxObject);
    const size_t opCount = in.Byte();
    const std::string fields = in.Bytes(kStreamQueueFieldBytes);
    const std::string ops = in.Bytes(opCount);
    const std::string body = in.Rest();

    const std::string name = ShmName("hdr");
    FUZZ_CHECK(MakeObject(name, objSize, fields, body));
    {
        DataTrans dt;
        if (dt.Init(name.c_str()) == 0) {
            FuzzInput opIn(reinterpret_cast<const uint8_t*>(ops.data()), ops.size());
            RunOps(dt, opIn);
        }
    }  // closes this end
    shm_unlink(name.c_str());
    return 0;
}
