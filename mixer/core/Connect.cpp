#include "mixer/core/Connect.h"

namespace mixer {

Connect::~Connect() {}

}  // namespace mixer
