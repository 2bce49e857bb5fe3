#pragma once

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "mixer/algo/Algo.h"
#include "mixer/core/Connect.h"
#include "mixer/core/MsgNewOutput.h"
#include "mixer/core/Output.h"
#include "mixer/input/Input.h"
#include "mixer/stream/StreamOut.h"

namespace mixer {
namespace test {

// Everything the fakes of the record side do, in order, as "<who>:<what>" entries
// that a test can wait for. Shared by the fakes of one test.
class Trace {
public:
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> guard(lock_);
        entries_.push_back(entry);
        changed_.notify_all();
    }
    int Count(const std::string& entry) {
        std::lock_guard<std::mutex> guard(lock_);
        return CountLocked(entry);
    }
    bool WaitFor(const std::string& entry, int n = 1) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(20), [&] { return CountLocked(entry) >= n; });
    }
    std::vector<std::string> Entries() {
        std::lock_guard<std::mutex> guard(lock_);
        return entries_;
    }
    // The entries with this prefix, in order.
    std::vector<std::string> Only(const std::string& prefix) {
        std::vector<std::string> out;
        for (const std::string& e : Entries())
            if (e.compare(0, prefix.size(), prefix) == 0) out.push_back(e);
        return out;
    }

private:
    int CountLocked(const std::string& entry) {
        int n = 0;
        for (const std::string& e : entries_) n += e == entry;
        return n;
    }
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> entries_;  // GUARDED_BY(lock_)
};

// A 16 kHz mono 16-bit frame (320 samples) with every sample set to value and a
// buffer-id trace of its own.
inline boost::shared_ptr<AudioFrame> MicFrame(int16_t value, const char* bufId = "mic") {
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
    for (uint32_t i = 0; i < frame->len; ++i) frame->Samples16()[i] = value;
    std::strncpy(frame->bufId, bufId, kBufIdLen - 1);
    return frame;
}

// A microphone whose Process() blocks until the test feeds a frame; Close() makes it
// return empty frames from then on.
class MicInput : public Input {
public:
    MicInput(Trace& trace, const std::string& name_, const std::string& desc_ = "microphone")
        : Input(16000, 1, 2, desc_), trace_(trace) {
        name = name_;
        state = STATE_ACTIVE;
    }
    void Pause() override {
        state = STATE_PAUSED;
        trace_.Add(name + ":pause");
    }
    void Resume() override {
        state = STATE_ACTIVE;
        trace_.Add(name + ":resume");
    }
    boost::shared_ptr<AudioFrame> Process() override {
        trace_.Add(name + ":process");
        std::unique_lock<std::mutex> guard(lock_);
        ready_.wait(guard, [this] { return closed_ || !frames_.empty(); });
        boost::shared_ptr<AudioFrame> frame;
        if (!frames_.empty()) {
            frame = frames_.front();
            frames_.pop_front();
        }
        return frame;
    }
    void Feed(boost::shared_ptr<AudioFrame> frame) {
        std::lock_guard<std::mutex> guard(lock_);
        frames_.push_back(frame);
        ready_.notify_all();
    }
    void Close() {
        std::lock_guard<std::mutex> guard(lock_);
        closed_ = true;
        ready_.notify_all();
    }

private:
    Trace& trace_;
    std::mutex lock_;
    std::condition_variable ready_;
    std::deque<boost::shared_ptr<AudioFrame> > frames_;  // GUARDED_BY(lock_)
    bool closed_ = false;                                 // GUARDED_BY(lock_)
};

// A client's output: keeps every frame written, and takes the state the test set
// for after the next write (a hang-up or fault then removes its stream).
class TapOutput : public Output {
public:
    TapOutput(Trace& trace, const std::string& name_) : trace_(trace) {
        name = name_;
        state = STATE_ACTIVE;
    }
    void Pause() override { trace_.Add(name + ":pause"); }
    void Resume() override { trace_.Add(name + ":resume"); }
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override {
        {
            std::lock_guard<std::mutex> guard(lock_);
            frames_.push_back(frame);
            times_.push_back(std::chrono::steady_clock::now());
            state = afterWrite_;
        }
        trace_.Add(name + ":write");
        return 0;
    }
    void SetStateAfterWrite(tInOutState s) {
        std::lock_guard<std::mutex> guard(lock_);
        afterWrite_ = s;
    }
    std::vector<boost::shared_ptr<AudioFrame> > Frames() {
        std::lock_guard<std::mutex> guard(lock_);
        return frames_;
    }
    std::vector<std::chrono::steady_clock::time_point> Times() {
        std::lock_guard<std::mutex> guard(lock_);
        return times_;
    }

private:
    Trace& trace_;
    std::mutex lock_;
    std::vector<boost::shared_ptr<AudioFrame> > frames_;           // GUARDED_BY(lock_)
    std::vector<std::chrono::steady_clock::time_point> times_;     // GUARDED_BY(lock_)
    tInOutState afterWrite_ = STATE_ACTIVE;                        // GUARDED_BY(lock_)
};

// Only gives an output stream a name and meta for the logs and the report.
class NameTag : public Input {
public:
    NameTag(const std::string& name_, const std::string& desc_) : Input(16000, 1, 2, desc_) { name = name_; }
    void Pause() override {}
};

// Negates every sample in place: shows whether another stream's frame is shared.
class NegateAlgo : public Algo {
public:
    NegateAlgo() : Algo(ALGO_ID_NONE) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override {
        if (frame)
            for (uint32_t i = 0; i < frame->len * frame->numCh; ++i) frame->Samples16()[i] = -frame->Samples16()[i];
        return frame;
    }
};

// An algorithm that fails on every frame.
class FailAlgo : public Algo {
public:
    FailAlgo() : Algo(ALGO_ID_NONE) {}
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame>) override {
        return boost::shared_ptr<AudioFrame>();
    }
};

// The host of the record engine: hands out microphones in the order given (the last
// one again when the list is used up), and names each new output stream after its
// output, attaching the algorithms the test chose for that output.
class RecordHost : public Connect {
public:
    explicit RecordHost(Trace& trace) : trace_(trace) {}

    void AddInput(boost::shared_ptr<Input> input) {
        std::lock_guard<std::mutex> guard(lock_);
        inputs_.push_back(input);
    }
    void AddAlgoFor(const boost::shared_ptr<Output>& output, boost::shared_ptr<Algo> algo) {
        std::lock_guard<std::mutex> guard(lock_);
        algos_[output.get()].push_back(algo);
    }
    std::vector<boost::shared_ptr<StreamOut> > Streams() {
        std::lock_guard<std::mutex> guard(lock_);
        return streams_;
    }

    boost::shared_ptr<Input> GetRecordDefaultInput() override {
        std::lock_guard<std::mutex> guard(lock_);
        if (!inputs_.empty()) {
            current_ = inputs_.front();
            inputs_.pop_front();
        }
        trace_.Add("host:input " + (current_ ? current_->name : std::string("none")));
        return current_;
    }
    void AddRecordAlgos(boost::shared_ptr<StreamOut> stream, boost::shared_ptr<MsgNewOutput> msg) override {
        std::lock_guard<std::mutex> guard(lock_);
        const std::string name = msg->output ? msg->output->name : std::string("none");
        stream->SetInput(boost::shared_ptr<Input>(new NameTag(name, "meta-" + name)));
        for (const boost::shared_ptr<Algo>& algo : algos_[msg->output.get()]) stream->AddAlgo(algo);
        streams_.push_back(stream);
        trace_.Add("host:algos " + name);
    }

    int AddNewStream(const std::string&, sStreamInfo&) override { return 0; }
    void Ping() override {}
    void AddPlaybackInputAlgos(boost::shared_ptr<Stream>, boost::shared_ptr<MsgNewInput>) override {}
    int AddPlaybackOutputAlgos(boost::shared_ptr<Output>, boost::shared_ptr<Stream>, tPlaybackModes) override {
        return 0;
    }
    void ChainMsgRecord(boost::shared_ptr<MsgHead>) override {}
    boost::shared_ptr<Output> GetPlaybackDefaultOutput() override { return boost::shared_ptr<Output>(); }
    void GetSumParams(unsigned&, unsigned&, tSampleSize&) override {}
    void getAudioVolume(int*) override {}

private:
    Trace& trace_;
    std::mutex lock_;
    std::deque<boost::shared_ptr<Input> > inputs_;                     // GUARDED_BY(lock_)
    boost::shared_ptr<Input> current_;                                 // GUARDED_BY(lock_)
    std::map<Output*, std::vector<boost::shared_ptr<Algo> > > algos_;  // GUARDED_BY(lock_)
    std::vector<boost::shared_ptr<StreamOut> > streams_;               // GUARDED_BY(lock_)
};

}  // namespace test
}  // namespace mixer
