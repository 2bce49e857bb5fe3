#include "mixer/algo/AlgoSilence.h"

namespace mixer {

AlgoSilence::AlgoSilence() : Algo(ALGO_ID_SILENCE), count(0), running(0), startTimeMs(0) {}

AlgoSilence::~AlgoSilence() {}

}  // namespace mixer
