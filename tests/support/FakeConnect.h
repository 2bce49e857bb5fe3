#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/Connect.h"
#include "mixer/core/MsgQ.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"

namespace mixer {
namespace test {

// A host for the engines under test: records every call with its arguments and answers
// with configurable results.
//
// Threading: the library calls it from its playback, record and discovery threads while
// the test thread configures and reads it; every field is guarded by mutex_. Hooks and
// the ChainMsgRecord forward run without mutex_ held, so they may call back into the
// fake or post to an engine.
class FakeConnect : public Connect {
public:
    struct InputAlgosCall {
        boost::shared_ptr<Stream> stream;
        boost::shared_ptr<MsgNewInput> msg;
        boost::shared_ptr<AlgoRampGain> gain;  // the one attached, if any
    };
    struct OutputAlgosCall {
        boost::shared_ptr<Output> output;
        boost::shared_ptr<Stream> outStream;
        tPlaybackModes mode;
    };
    struct RecordAlgosCall {
        boost::shared_ptr<StreamOut> stream;
        boost::shared_ptr<MsgNewOutput> msg;
        boost::shared_ptr<AlgoRampGain> gain;  // the one attached, if any
    };
    struct NewStreamCall {
        std::string fileName;
        sStreamInfo info;
    };

    FakeConnect();
    ~FakeConnect() override;

    // Connect.
    int AddNewStream(const std::string& fileName, sStreamInfo& info) override;
    void Ping() override;
    void AddPlaybackInputAlgos(boost::shared_ptr<Stream> stream,
                               boost::shared_ptr<MsgNewInput> msg) override;
    int AddPlaybackOutputAlgos(boost::shared_ptr<Output> output, boost::shared_ptr<Stream> outStream,
                               tPlaybackModes mode) override;
    void AddRecordAlgos(boost::shared_ptr<StreamOut> stream,
                        boost::shared_ptr<MsgNewOutput> msg) override;
    void ChainMsgRecord(boost::shared_ptr<MsgHead> msg) override;
    boost::shared_ptr<Output> GetPlaybackDefaultOutput() override;
    boost::shared_ptr<Input> GetRecordDefaultInput() override;
    void GetSumParams(unsigned& rate, unsigned& numCh, tSampleSize& sampleSize) override;
    void getAudioVolume(int* volume) override;

    // Configuration (any thread).
    void SetAddNewStreamResult(int result);
    void SetAddPlaybackOutputAlgosResult(int result);
    void SetSumParams(unsigned rate, unsigned numCh, tSampleSize sampleSize);
    // The volume getAudioVolume writes; without one it writes nothing.
    void SetAudioVolume(int volume);
    void ClearAudioVolume();
    // Handed out in order by GetPlaybackDefaultOutput; the last one repeats. Empty list:
    // an empty pointer.
    void SetDefaultOutputs(const std::vector<boost::shared_ptr<Output> >& outputs);
    void SetDefaultOutput(boost::shared_ptr<Output> output) { SetDefaultOutputs({output}); }
    void SetDefaultInputs(const std::vector<boost::shared_ptr<Input> >& inputs);
    void SetDefaultInput(boost::shared_ptr<Input> input) { SetDefaultInputs({input}); }
    // Attach a fresh AlgoRampGain to every playback input stream / record stream.
    void SetAttachInputRampGain(bool attach);
    void SetAttachRecordRampGain(bool attach);
    // Called after the recording (and after any ramp gain is attached); AddNewStream
    // returns its configured result once its hook has returned.
    void SetNewStreamHook(std::function<void(const std::string&, const sStreamInfo&)> hook);
    void SetInputAlgosHook(std::function<void(boost::shared_ptr<Stream>)> hook);
    void SetOutputAlgosHook(std::function<void(boost::shared_ptr<Output>, boost::shared_ptr<Stream>)> hook);
    void SetRecordAlgosHook(std::function<void(boost::shared_ptr<StreamOut>)> hook);
    // ChainMsgRecord also posts its message here (the record engine's queue); null stops.
    void SetChainTarget(MsgQ* queue);

    // Records (any thread; copies).
    std::vector<std::string> Calls() const;  // operation names, in call order
    int CallCount(const std::string& op) const;
    std::vector<NewStreamCall> NewStreams() const;
    std::vector<InputAlgosCall> InputAlgos() const;
    std::vector<OutputAlgosCall> OutputAlgos() const;
    std::vector<RecordAlgosCall> RecordAlgos() const;
    std::vector<boost::shared_ptr<MsgHead> > ChainedMsgs() const;
    // Waits until op was called at least count times; false on time-out.
    bool WaitForCalls(const std::string& op, int count, std::chrono::milliseconds timeout) const;

private:
    void RecordLocked(const std::string& op);  // expects mutex_ held

    mutable std::mutex mutex_;
    mutable std::condition_variable called_;  // signalled after every recorded call
    std::vector<std::string> calls_;                          // GUARDED_BY(mutex_)
    std::map<std::string, int> counts_;                       // GUARDED_BY(mutex_)
    std::vector<NewStreamCall> newStreams_;                   // GUARDED_BY(mutex_)
    std::vector<InputAlgosCall> inputAlgos_;                  // GUARDED_BY(mutex_)
    std::vector<OutputAlgosCall> outputAlgos_;                // GUARDED_BY(mutex_)
    std::vector<RecordAlgosCall> recordAlgos_;                // GUARDED_BY(mutex_)
    std::vector<boost::shared_ptr<MsgHead> > chained_;        // GUARDED_BY(mutex_)
    int addNewStreamResult_;                                  // GUARDED_BY(mutex_)
    int outputAlgosResult_;                                   // GUARDED_BY(mutex_)
    unsigned rate_, numCh_;                                   // GUARDED_BY(mutex_)
    tSampleSize sampleSize_;                                  // GUARDED_BY(mutex_)
    bool hasVolume_;                                          // GUARDED_BY(mutex_)
    int volume_;                                              // GUARDED_BY(mutex_)
    std::vector<boost::shared_ptr<Output> > outputs_;         // GUARDED_BY(mutex_)
    size_t nextOutput_;                                       // GUARDED_BY(mutex_)
    std::vector<boost::shared_ptr<Input> > inputs_;           // GUARDED_BY(mutex_)
    size_t nextInput_;                                        // GUARDED_BY(mutex_)
    bool inputRampGain_, recordRampGain_;                     // GUARDED_BY(mutex_)
    std::function<void(const std::string&, const sStreamInfo&)> newStreamHook_;          // GUARDED_BY(mutex_)
    std::function<void(boost::shared_ptr<Stream>)> inputHook_;                            // GUARDED_BY(mutex_)
    std::function<void(boost::shared_ptr<Output>, boost::shared_ptr<Stream>)> outputHook_;  // GUARDED_BY(mutex_)
    std::function<void(boost::shared_ptr<StreamOut>)> recordHook_;                        // GUARDED_BY(mutex_)
    MsgQ* chainTarget_;                                       // GUARDED_BY(mutex_)
};

}  // namespace test
}  // namespace mixer
