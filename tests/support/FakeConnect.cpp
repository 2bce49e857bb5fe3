#include "tests/support/FakeConnect.h"

#include <algorithm>

namespace mixer {
namespace test {

FakeConnect::FakeConnect()
    : addNewStreamResult_(0),
      outputAlgosResult_(0),
      rate_(48000),
      numCh_(2),
      sampleSize_(SAMPLE_SIZE_16),
      hasVolume_(false),
      volume_(0),
      nextOutput_(0),
      nextInput_(0),
      inputRampGain_(false),
      recordRampGain_(false),
      chainTarget_(nullptr) {}

FakeConnect::~FakeConnect() {}

void FakeConnect::RecordLocked(const std::string& op) {
    calls_.push_back(op);
    ++counts_[op];
    called_.notify_all();
}

int FakeConnect::AddNewStream(const std::string& fileName, sStreamInfo& info) {
    std::function<void(const std::string&, const sStreamInfo&)> hook;
    int result;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        newStreams_.push_back(NewStreamCall{fileName, info});
        hook = newStreamHook_;
        result = addNewStreamResult_;
        RecordLocked("AddNewStream");
    }
    if (hook) hook(fileName, info);
    return result;
}

void FakeConnect::Ping() {
    std::lock_guard<std::mutex> guard(mutex_);
    RecordLocked("Ping");
}

void FakeConnect::AddPlaybackInputAlgos(boost::shared_ptr<Stream> stream,
                                        boost::shared_ptr<MsgNewInput> msg) {
    std::function<void(boost::shared_ptr<Stream>)> hook;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        InputAlgosCall call{stream, msg, boost::shared_ptr<AlgoRampGain>()};
        if (inputRampGain_ && stream) {
            call.gain.reset(new AlgoRampGain());
            stream->AddAlgo(call.gain);
        }
        inputAlgos_.push_back(call);
        hook = inputHook_;
        RecordLocked("AddPlaybackInputAlgos");
    }
    if (hook) hook(stream);
}

int FakeConnect::AddPlaybackOutputAlgos(boost::shared_ptr<Output> output,
                                        boost::shared_ptr<Stream> outStream, tPlaybackModes mode) {
    std::function<void(boost::shared_ptr<Output>, boost::shared_ptr<Stream>)> hook;
    int result;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        outputAlgos_.push_back(OutputAlgosCall{output, outStream, mode});
        hook = outputHook_;
        result = outputAlgosResult_;
        RecordLocked("AddPlaybackOutputAlgos");
    }
    if (hook) hook(output, outStream);
    return result;
}

void FakeConnect::AddRecordAlgos(boost::shared_ptr<StreamOut> stream,
                                 boost::shared_ptr<MsgNewOutput> msg) {
    std::function<void(boost::shared_ptr<StreamOut>)> hook;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        RecordAlgosCall call{stream, msg, boost::shared_ptr<AlgoRampGain>()};
        if (recordRampGain_ && stream) {
            call.gain.reset(new AlgoRampGain());
            stream->AddAlgo(call.gain);
        }
        recordAlgos_.push_back(call);
        hook = recordHook_;
        RecordLocked("AddRecordAlgos");
    }
    if (hook) hook(stream);
}

void FakeConnect::ChainMsgRecord(boost::shared_ptr<MsgHead> msg) {
    MsgQ* target;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        chained_.push_back(msg);
        target = chainTarget_;
        RecordLocked("ChainMsgRecord");
    }
    if (target) target->sendMsg(msg);
}

boost::shared_ptr<Output> FakeConnect::GetPlaybackDefaultOutput() {
    std::lock_guard<std::mutex> guard(mutex_);
    RecordLocked("GetPlaybackDefaultOutput");
    if (outputs_.empty()) return boost::shared_ptr<Output>();
    const size_t i = std::min(nextOutput_, outputs_.size() - 1);
    ++nextOutput_;
    return outputs_[i];
}

boost::shared_ptr<Input> FakeConnect::GetRecordDefaultInput() {
    std::lock_guard<std::mutex> guard(mutex_);
    RecordLocked("GetRecordDefaultInput");
    if (inputs_.empty()) return boost::shared_ptr<Input>();
    const size_t i = std::min(nextInput_, inputs_.size() - 1);
    ++nextInput_;
    return inputs_[i];
}

void FakeConnect::GetSumParams(unsigned& rate, unsigned& numCh, tSampleSize& sampleSize) {
    std::lock_guard<std::mutex> guard(mutex_);
    rate = rate_;
    numCh = numCh_;
    sampleSize = sampleSize_;
    RecordLocked("GetSumParams");
}

void FakeConnect::getAudioVolume(int* volume) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (hasVolume_ && volume) *volume = volume_;
    RecordLocked("getAudioVolume");
}

void FakeConnect::SetAddNewStreamResult(int result) {
    std::lock_guard<std::mutex> guard(mutex_);
    addNewStreamResult_ = result;
}

void FakeConnect::SetAddPlaybackOutputAlgosResult(int result) {
    std::lock_guard<std::mutex> guard(mutex_);
    outputAlgosResult_ = result;
}

void FakeConnect::SetSumParams(unsigned rate, unsigned numCh, tSampleSize sampleSize) {
    std::lock_guard<std::mutex> guard(mutex_);
    rate_ = rate;
    numCh_ = numCh;
    sampleSize_ = sampleSize;
}

void FakeConnect::SetAudioVolume(int volume) {
    std::lock_guard<std::mutex> guard(mutex_);
    hasVolume_ = true;
    volume_ = volume;
}

void FakeConnect::ClearAudioVolume() {
    std::lock_guard<std::mutex> guard(mutex_);
    hasVolume_ = false;
}

void FakeConnect::SetDefaultOutputs(const std::vector<boost::shared_ptr<Output> >& outputs) {
    std::lock_guard<std::mutex> guard(mutex_);
    outputs_ = outputs;
    nextOutput_ = 0;
}

void FakeConnect::SetDefaultInputs(const std::vector<boost::shared_ptr<Input> >& inputs) {
    std::lock_guard<std::mutex> guard(mutex_);
    inputs_ = inputs;
    nextInput_ = 0;
}

void FakeConnect::SetAttachInputRampGain(bool attach) {
    std::lock_guard<std::mutex> guard(mutex_);
    inputRampGain_ = attach;
}

void FakeConnect::SetAttachRecordRampGain(bool attach) {
    std::lock_guard<std::mutex> guard(mutex_);
    recordRampGain_ = attach;
}

void FakeConnect::SetNewStreamHook(
    std::function<void(const std::string&, const sStreamInfo&)> hook) {
    std::lock_guard<std::mutex> guard(mutex_);
    newStreamHook_ = hook;
}

void FakeConnect::SetInputAlgosHook(std::function<void(boost::shared_ptr<Stream>)> hook) {
    std::lock_guard<std::mutex> guard(mutex_);
    inputHook_ = hook;
}

void FakeConnect::SetOutputAlgosHook(
    std::function<void(boost::shared_ptr<Output>, boost::shared_ptr<Stream>)> hook) {
    std::lock_guard<std::mutex> guard(mutex_);
    outputHook_ = hook;
}

void FakeConnect::SetRecordAlgosHook(std::function<void(boost::shared_ptr<StreamOut>)> hook) {
    std::lock_guard<std::mutex> guard(mutex_);
    recordHook_ = hook;
}

void FakeConnect::SetChainTarget(MsgQ* queue) {
    std::lock_guard<std::mutex> guard(mutex_);
    chainTarget_ = queue;
}

std::vector<std::string> FakeConnect::Calls() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return calls_;
}

int FakeConnect::CallCount(const std::string& op) const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = counts_.find(op);
    return it == counts_.end() ? 0 : it->second;
}

std::vector<FakeConnect::NewStreamCall> FakeConnect::NewStreams() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return newStreams_;
}

std::vector<FakeConnect::InputAlgosCall> FakeConnect::InputAlgos() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return inputAlgos_;
}

std::vector<FakeConnect::OutputAlgosCall> FakeConnect::OutputAlgos() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return outputAlgos_;
}

std::vector<FakeConnect::RecordAlgosCall> FakeConnect::RecordAlgos() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return recordAlgos_;
}

std::vector<boost::shared_ptr<MsgHead> > FakeConnect::ChainedMsgs() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return chained_;
}

bool FakeConnect::WaitForCalls(const std::string& op, int count,
                               std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> guard(mutex_);
    return called_.wait_for(guard, timeout, [&] {
        auto it = counts_.find(op);
        return it != counts_.end() && it->second >= count;
    });
}

}  // namespace test
}  // namespace mixer
