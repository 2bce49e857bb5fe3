#include "mixer/core/StreamNames.h"

namespace mixer {

const std::string kStreamDefault("default");
const std::string kTypeShmQ("shmQ");
const std::string kTypeShmB("shmB");
const std::string kTypeFile("file");
const std::string kStreamMicAsr("micAsr");
const std::string kStreamMicHfp("micHfp");
const std::string kStreamMicRaw("micRaw");
const std::string kStreamPlayOut("playOut");

}  // namespace mixer
