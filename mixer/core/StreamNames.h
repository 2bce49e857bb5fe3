#pragma once

#include <string>

#include "mixer/core/Api.h"

namespace mixer {

// The stream vocabulary shared by the library and its host.
extern MIXER_API const std::string kStreamDefault;  // "default"
extern MIXER_API const std::string kTypeShmQ;       // "shmQ": platform shared queue
extern MIXER_API const std::string kTypeShmB;       // "shmB": platform shared buffer
extern MIXER_API const std::string kTypeFile;       // "file"
extern MIXER_API const std::string kStreamMicAsr;   // "micAsr": microphone record stream
extern MIXER_API const std::string kStreamMicHfp;   // "micHfp": microphone record stream
extern MIXER_API const std::string kStreamMicRaw;   // "micRaw": microphone record stream
extern MIXER_API const std::string kStreamPlayOut;  // "playOut": playback output stream

}  // namespace mixer
