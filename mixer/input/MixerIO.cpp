#include "mixer/input/MixerIO.h"

namespace mixer {

MixerIO::MixerIO() : state(STATE_PAUSED), blocking(false) {}

MixerIO::~MixerIO() {}

const std::string& MixerIO::GetStateStr(tInOutState state) {
    // Six names only: Stopped has none of its own and shows as "Unknown" in the reports.
    static const std::string stateNames[6] = {"Active", "Draining", "Pausing",
                                              "Paused", "Hangup",   "Fault"};
    static const std::string Dunno("Unknown");
    return static_cast<uint32_t>(state) < 6 ? stateNames[state] : Dunno;
}

}  // namespace mixer
