#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"
#include "mixer/core/MsgHead.h"
#include "mixer/core/MsgNewInput.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/Output.h"
#include "mixer/core/PlaybackModes.h"
#include "mixer/core/StreamInfo.h"
#include "mixer/core/StreamNames.h"
#include "mixer/input/Input.h"

namespace mixer {

class Stream;
class StreamOut;

// The host's side of the library: the mix format, the default devices, the algorithm
// chains of new streams, the starting speaker volume, and the reports of new streams.
//
// Threading: called from the playback, record and discovery threads, possibly at the
// same time (getAudioVolume from the host thread inside Playback::Init); an
// implementation must be safe for that. ChainMsgRecord must not block on the record
// thread. The library never owns or frees the object.
class MIXER_API Connect {
public:
    virtual ~Connect();

    // Discovery thread, for each new description file: 0 accepts the stream (the file
    // stays), anything else makes the library remove the file.
    virtual int AddNewStream(const std::string& fileName, sStreamInfo& info) = 0;
    // Discovery thread, when the ping file appears (it is already removed).
    virtual void Ping() = 0;
    // Playback thread: attach the new input stream's algorithms (a ramp gain if it is
    // to follow volumes, focus, ducking and pause fades).
    virtual void AddPlaybackInputAlgos(boost::shared_ptr<Stream> stream,
                                       boost::shared_ptr<MsgNewInput> msg) = 0;
    // Playback thread: attach the device-side chain; 0 accepts a changed output.
    virtual int AddPlaybackOutputAlgos(boost::shared_ptr<Output> output,
                                       boost::shared_ptr<Stream> outStream,
                                       tPlaybackModes mode) = 0;
    // Record thread: attach a new output stream's chain.
    virtual void AddRecordAlgos(boost::shared_ptr<StreamOut> stream,
                                boost::shared_ptr<MsgNewOutput> msg) = 0;
    // Playback thread, after its status report: post msg to the record engine.
    virtual void ChainMsgRecord(boost::shared_ptr<MsgHead> msg) = 0;
    // Playback thread: the default output (empty: the engine cannot play).
    virtual boost::shared_ptr<Output> GetPlaybackDefaultOutput() = 0;
    // Record thread: the microphone input; must never be empty.
    virtual boost::shared_ptr<Input> GetRecordDefaultInput() = 0;
    // Playback thread: the mix format.
    virtual void GetSumParams(unsigned& rate, unsigned& numCh, tSampleSize& sampleSize) = 0;
    // Host thread inside Playback::Init: the starting speaker volume percent.
    virtual void getAudioVolume(int* volume) = 0;
};

}  // namespace mixer
