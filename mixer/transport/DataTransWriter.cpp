#include "mixer/transport/DataTransWriter.h"

#include <cerrno>
#include <cstring>

namespace mixer {

DataTransWriter::DataTransWriter() : queue_(new DataTrans()), open_(false) {}

DataTransWriter::~DataTransWriter() { Close(); }

int DataTransWriter::Create(const char* name, unsigned numBlk, unsigned blkSize, int rate, int numCh,
                            int sampleSize) {
    Close();
    const int rc = queue_->Init(name, numBlk, blkSize);
    if (rc != 0) return rc;
    open_ = true;
    queue_->SetRate(rate);
    queue_->SetNumCh(numCh);
    queue_->SetSampleSize(sampleSize);
    return 0;
}

int DataTransWriter::Write(const void* data, size_t size, const char* bufId, unsigned timeoutMs,
                           size_t* written) {
    if (written != nullptr) *written = 0;
    if (!open_) return ENOENT;
    // CommitWriteBuff takes a mutable id; the queue keeps at most 149 characters of it.
    char id[kBlockTailBufIdLen] = {0};
    if (bufId != nullptr) strncpy(id, bufId, sizeof(id) - 1);
    const unsigned blk = queue_->GetUserBlkSize();
    if (blk == 0) return EFAULT;
    const char* src = static_cast<const char*>(data);
    size_t done = 0;
    while (done < size) {
        int err = 0;
        char* dst = queue_->GetWriteBuff(err, timeoutMs);
        if (dst == nullptr) return err != 0 ? err : EFAULT;
        const unsigned n = size - done < blk ? static_cast<unsigned>(size - done) : blk;
        memcpy(dst, src + done, n);
        // Counted before the commit: the reader may subtract it as soon as it is ready.
        queue_->AddCount(n);
        if (!queue_->CommitWriteBuff(n, bufId != nullptr ? id : nullptr)) {
            queue_->SubCount(n);
            return queue_->IsHungUp() ? EHOSTDOWN : EFAULT;
        }
        done += n;
        if (written != nullptr) *written = done;
    }
    return 0;
}

void DataTransWriter::SendCmd(tInOutCmd cmd) {
    if (open_) queue_->SetCmd(cmd);
}

int DataTransWriter::Drain() { return open_ ? queue_->WaitTillUserBufEmpty() : 0; }

void DataTransWriter::Close() {
    if (!open_) return;
    queue_->DeInit();
    open_ = false;
}

}  // namespace mixer
