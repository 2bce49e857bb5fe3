#pragma once

#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace test {

// One block of len bytes through the writer's end, without waiting: false when no
// block was free or the commit failed. The data is left as it is.
inline bool WriteBlock(DataTrans& dt, unsigned len, char* bufId = nullptr) {
    int err;
    return dt.GetWriteBuff(err, 0) != nullptr && dt.CommitWriteBuff(len, bufId);
}

// Takes the next block without waiting and gives it back: its length, or -1 when there
// was none or the release failed.
inline int ReadBlock(DataTrans& dt) {
    int err;
    unsigned len = 0;
    if (dt.GetReadBuff(err, len, 0, nullptr) == nullptr) return -1;
    return dt.ReleaseReadBuff() ? static_cast<int>(len) : -1;
}

}  // namespace test
}  // namespace mixer
