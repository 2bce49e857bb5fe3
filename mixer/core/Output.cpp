#include "mixer/core/Output.h"

namespace mixer {

Output::Output() {}
Output::~Output() {}
int Output::Open() { return 0; }
void Output::Close() {}
uint32_t Output::GetDelayUs() { return 0; }
void Output::IdleTick() {}
void Output::PostWrite() {}
int Output::SetVolume(int) { return 0; }

}  // namespace mixer
