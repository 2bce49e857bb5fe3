#include "mixer/input/Input.h"

#include "mixer/core/Log.h"

namespace mixer {

Input::Input(unsigned rate_, unsigned numCh_, unsigned sampleSize_, const std::string& desc_)
    : rate(rate_), numCh(numCh_), sampleSize(sampleSize_), desc(desc_), priority(0) {
    MIXER_LOG_I("Input:Const:r %u n %u %s:", rate, numCh, desc.c_str());
    if (rate == 0 || rate > 96000) {
        MIXER_LOG_W("Input:Input:rate %u -> %u:", rate, 48000u);
        rate = 48000;
    }
    if (numCh == 0 || numCh > 10) {
        MIXER_LOG_W("Input:Input:numCh %u -> %u:", numCh, 1u);
        numCh = 1;
    }
}

Input::~Input() {}

void Input::Resume() {}

boost::shared_ptr<AudioFrame> Input::Process() { return boost::shared_ptr<AudioFrame>(); }

tInOutCmd Input::GetCmd() { return CMD_NONE; }

int Input::HandleCmd(tInOutCmd) { return 0; }

void Input::PauseDelay(unsigned) { Pause(); }

void Input::Drain() {}

void Input::Flush() {}

}  // namespace mixer
