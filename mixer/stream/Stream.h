#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mixer/algo/Algo.h"
#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"
#include "mixer/core/InOut.h"
#include "mixer/input/Input.h"

namespace mixer {

// One input joined to an ordered chain of algorithms. Once per period the engine asks
// it for a frame: the stream pulls one from its input and runs the chain over it. It
// forwards the input's state, name, description and priority, and finds an algorithm
// of its chain by kind.
//
// Threading: used only by the thread of the engine that owns it (control messages
// that touch it are handled on that thread between frames); no lock. AddAlgo may
// allocate (the chain grows); Process allocates only what the input and algorithms do.
class MIXER_API Stream {
public:
    static const unsigned kPositions = 7;  // ids 0 to 6 can be looked up

    Stream();
    virtual ~Stream();

    // Volume of the stream's own output; the base has none and returns 0.
    virtual int SetVolume(int volume);

    // One frame from the input through the chain; empty, with a warning, without an input.
    boost::shared_ptr<AudioFrame> Process();
    // frame through the chain, first algorithm to last. An empty frame comes back as it
    // is; an algorithm that returns an empty frame hands it on to the next one.
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame);

    // Sum of the chain's latencies in microseconds (32-bit, wrapping).
    uint32_t GetLatencyUs();
    // The input's state; active without an input.
    tInOutState GetState();
    // The input's name and description, or the stream's own name without an input.
    const std::string& GetName() const;
    const std::string& GetMeta() const;
    // The priority lives in the input, so it follows the input to another stream.
    uint32_t GetPriority();
    void SetPriority(unsigned int p);

    void SetInput(boost::shared_ptr<Input> input_);
    boost::shared_ptr<Input> GetInput();

    // Appends algo; returns its position, or -1 for an empty pointer. An id above 6
    // is kept in the chain but cannot be found by id.
    int AddAlgo(boost::shared_ptr<Algo> algo);
    void ClearAlgos();
    boost::shared_ptr<Algo> GetAlgoByPos(int pos);
    // The last algorithm added with id, or empty.
    boost::shared_ptr<Algo> GetAlgoById(tAlgoID id);

protected:
    std::string name;
    std::vector<boost::shared_ptr<Algo> > algos;
    boost::shared_ptr<Input> input;
    int32_t positions[kPositions];  // chain position of the last algo of each id, -1 none

private:
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
};

}  // namespace mixer
