#include "mixer/core/AudioFrame.h"

namespace mixer {

char* UtilConcatBufId(char* dst, char* src, char sep) {
    const int d = static_cast<int>(strlen(dst));
    const int s = static_cast<int>(strlen(src));
    if (s == 0) return nullptr;
    if (d == 0) {
        // Client ids are at most 149 characters; the bound only protects the array.
        strncpy(dst, src, kBufIdLen - 1);
        dst[kBufIdLen - 1] = '\0';
        return dst;
    }
    // A 149-character trace has no room for the separator's terminator.
    if (d >= static_cast<int>(kBufIdLen) - 1) return dst;
    dst[d] = sep;
    dst[d + 1] = '\0';
    if (d + s <= 148) {
        strcat(dst, src);
        return dst;
    }
    const int room = 147 - d;
    if (room > 0) strncat(dst, src, static_cast<size_t>(room));
    return dst;
}

}  // namespace mixer
