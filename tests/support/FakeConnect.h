#pragma once
#include <functional>
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/Connect.h"
#include "mixer/core/MsgQ.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"
#include "tests/support/Fake.h"
namespace mixer::test {
// A host for the engines under test: records every call by name and answers with set results.
class FakeConnect : public Connect, public Recorder {
public:
    struct InputAlgosCall { boost::shared_ptr<Stream> stream; boost::shared_ptr<AlgoRampGain> gain; };
    struct OutputAlgosCall { boost::shared_ptr<Output> output; boost::shared_ptr<Stream> outStream; tPlaybackModes mode; };
    struct RecordAlgosCall { boost::shared_ptr<StreamOut> stream; };
    struct NewStreamCall { std::string fileName; sStreamInfo info; };
    int AddNewStream(const std::string& fileName, sStreamInfo& info) override {
        return Call("AddNewStream", newStreams_, NewStreamCall{fileName, info}, addNewStreamResult_, newStreamHook_, fileName, info);
    }
    void Ping() override { Lock l(mutex_); RecordLocked("Ping"); }
    void AddPlaybackInputAlgos(boost::shared_ptr<Stream> stream, boost::shared_ptr<MsgNewInput>) override {
        Lock l(mutex_);
        inputAlgos_.push_back({stream, inputRampGain_ && stream ? boost::make_shared<AlgoRampGain>() : nullptr});
        if (inputAlgos_.back().gain) stream->AddAlgo(inputAlgos_.back().gain);
        RecordLocked("AddPlaybackInputAlgos");
    }
    int AddPlaybackOutputAlgos(boost::shared_ptr<Output> output, boost::shared_ptr<Stream> outStream, tPlaybackModes mode) override {
        Lock l(mutex_); outputAlgos_.push_back({output, outStream, mode}), RecordLocked("AddPlaybackOutputAlgos"); return outputAlgosResult_;
    }
    void AddRecordAlgos(boost::shared_ptr<StreamOut> stream, boost::shared_ptr<MsgNewOutput>) override {
        Call("AddRecordAlgos", recordAlgos_, RecordAlgosCall{stream}, 0, recordHook_, stream);
    }
    void ChainMsgRecord(boost::shared_ptr<MsgHead> msg) override { Lock l(mutex_); chained_.push_back(msg), RecordLocked("ChainMsgRecord"); }
    boost::shared_ptr<Output> GetPlaybackDefaultOutput() override { return Next("GetPlaybackDefaultOutput", outputs_, nextOutput_); }
    boost::shared_ptr<Input> GetRecordDefaultInput() override { return Next("GetRecordDefaultInput", inputs_, nextInput_); }
    void GetSumParams(unsigned& rate, unsigned& numCh, tSampleSize& sampleSize) override {
        Lock l(mutex_); rate = rate_, numCh = numCh_, sampleSize = sampleSize_, RecordLocked("GetSumParams");
    }
    void getAudioVolume(int*) override { Lock l(mutex_); RecordLocked("getAudioVolume"); }  // writes nothing
    void SetAddNewStreamResult(int result) { Put(addNewStreamResult_, result); }
    void SetAddPlaybackOutputAlgosResult(int result) { Put(outputAlgosResult_, result); }
    void SetSumParams(unsigned rate, unsigned numCh, tSampleSize sampleSize) { Lock l(mutex_); rate_ = rate, numCh_ = numCh, sampleSize_ = sampleSize; }
    // Handed out in order, the last one repeating; none: an empty pointer.
    void SetDefaultOutputs(const std::vector<boost::shared_ptr<Output> >& outputs) { Lock l(mutex_); outputs_ = outputs, nextOutput_ = 0; }
    void SetDefaultOutput(boost::shared_ptr<Output> output) { SetDefaultOutputs({output}); }
    void SetDefaultInputs(const std::vector<boost::shared_ptr<Input> >& inputs) { Lock l(mutex_); inputs_ = inputs, nextInput_ = 0; }
    // Attach a fresh AlgoRampGain to every playback input stream.
    void SetAttachInputRampGain(bool attach) { Put(inputRampGain_, attach); }
    void SetNewStreamHook(std::function<void(const std::string&, const sStreamInfo&)> hook) { Put(newStreamHook_, hook); }
    void SetRecordAlgosHook(std::function<void(boost::shared_ptr<StreamOut>)> hook) { Put(recordHook_, hook); }
    int CallCount(const std::string& op) const { return CountOf(op); }
    std::vector<NewStreamCall> NewStreams() const { return Get(newStreams_); }
    std::vector<OutputAlgosCall> OutputAlgos() const { return Get(outputAlgos_); }
    bool WaitForCalls(const std::string& op, int count, std::chrono::milliseconds timeout) const { return WaitForCount(op, count, timeout); }
private:
    // Records the call, then runs the hook without the lock; returns the result set before the call.
    template <class V, class C, class H, class... A>
    int Call(const char* op, V& calls, const C& call, const int& result, const H& hook, const A&... args) {
        Lock l(mutex_);
        calls.push_back(call), RecordLocked(op);
        const int r = result; const H h = hook;
        l.unlock();
        if (h) h(args...);
        return r;
    }
    template <class T> boost::shared_ptr<T> Next(const char* op, const std::vector<boost::shared_ptr<T> >& list, size_t& i) {
        Lock l(mutex_); RecordLocked(op);
        return list.empty() ? boost::shared_ptr<T>() : list[std::min(i++, list.size() - 1)];
    }
    std::vector<NewStreamCall> newStreams_;
    std::vector<InputAlgosCall> inputAlgos_;
    std::vector<OutputAlgosCall> outputAlgos_;
    std::vector<RecordAlgosCall> recordAlgos_;
    std::vector<boost::shared_ptr<MsgHead> > chained_;  // kept alive, as a record engine would
    std::vector<boost::shared_ptr<Output> > outputs_;
    std::vector<boost::shared_ptr<Input> > inputs_;
    size_t nextOutput_ = 0, nextInput_ = 0;
    int addNewStreamResult_ = 0, outputAlgosResult_ = 0;
    unsigned rate_ = 48000, numCh_ = 2;  // and sampleSize_: the mixer's sum format
    tSampleSize sampleSize_ = SAMPLE_SIZE_16;
    bool inputRampGain_ = false;
    std::function<void(const std::string&, const sStreamInfo&)> newStreamHook_;
    std::function<void(boost::shared_ptr<StreamOut>)> recordHook_;
};
}  // namespace mixer::test
