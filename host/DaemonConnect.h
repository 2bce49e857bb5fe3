#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "host/ClientWatcher.h"
#include "host/EngineSink.h"
#include "host/EventQueue.h"
#include "host/MsgWriteInfoNotify.h"
#include "host/latency/LatencyProbe.h"
#include "mixer/core/Connect.h"
#include "mixer/core/MsgQ.h"
#include "mixer/playback/Playback.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {
namespace host {

// mixerd's side of the library: turns announced client streams into engine messages,
// builds every stream's algorithm chain, hands out the devices, and forwards control
// requests (EngineSink) to the engines.
//
// Client streams. AddNewStream routes by name and transport type:
//   - micAsr, micHfp, micRaw: a record client. The daemon opens the client's block queue
//     ("dataTrans" only) as its writer and posts a DataTransOutput to the record engine.
//   - "dataTrans", "shmQ", "shmB": a playback client, posted to the playback engine as
//     an InputDataTrans, InputShmQ or InputShmB.
// Anything else is refused (the library then removes the description file). Each
// accepted stream carries a token; when an engine drops it (client gone, fault,
// shutdown) the daemon removes the description file and announces the removal.
// A record stream is refused while the microphone is off: the record engine touches no
// output then, so it would hold the client's queue, and its name, until the microphone
// comes on. Limits (Settings): a stream beyond the streams of one user (the owner of its
// description file) or of all users, and a block queue of more blocks or bytes than
// allowed, are refused before any engine sees them (a flush resets every block of a
// queue on the engine's thread, so the block count bounds that work).
// A second announcement of a stream that is still live is ignored when its user
// announced it, refused otherwise. A stream whose description file, queue and process are not
// one user's is refused (StreamOwner). The latest refusals
// are kept with their reasons, so that a client can learn why (StreamVerdict).
//
// Client processes. A stream's id is its client's process id (0 or negative: not
// known). The daemon watches that process for a "dataTrans" stream and, when it ends
// while the stream is live (killed, crashed: it never closed its queue), hangs the
// queue up for it: the engine plays out what is queued and drops the stream as for a
// client that closed, and the daemon's close, the last, removes the shared memory. A
// process that has ended before its stream is accepted is hung up at once.
//
// Chains (the resampler is the one Settings::soxr picks). Playback inputs: a resampler to the mix rate and a channel map to the mix's
// channel count where they differ (the cheaper order first), then a ramp gain, which
// carries volume, focus, ducking and pause fades. The output stream: a ramp gain, which
// the speaker volume sets (52 is unity, 100 is +24 dB; the outputs have no volume of
// their own), a resampler from the mix rate to the device's, then the latency mark
// (AlgoLatencyMark). Record
// outputs: channel map and resampler from the microphone's format to the client's.
//
// Focus. The engine only focuses types that have a stream at that moment; the daemon
// remembers the type last asked for and asks again whenever a stream of it arrives.
//
// Events ("MixerStreamAdded"/"MixerStreamRemoved" with the stream's name,
// "MixerFocusChanged" with the type) go to an EventQueue, sent from the main thread.
//
// Threading: Connect operations run on the playback, record and discovery threads,
// EngineSink operations on the control server's thread, stream tokens fire on any of
// them or the main thread, client-death actions on the ClientWatcher's thread (they only
// hang a queue up; a stream's token ends its watch before the queue can close). mutex_
// guards the live streams, the focus and the mic input; it is never held while an
// engine message is built or destroyed, so a token can fire anywhere. The output source
// runs on the playback thread only, the mic source on the record thread only. Posting
// never waits for an engine (MsgQ locks only for the push), so ChainMsgRecord does not
// block on the record thread.
// Lifetime: the queues are held weakly, so engine messages that still hold tokens die
// with their engine; the EventQueue must outlive every engine.
class DaemonConnect : public Connect, public EngineSink {
public:
    struct Settings {
        Settings()
            : rate(48000), numCh(2), deviceRate(48000), speakerVolume(40), micRate(16000), micNumCh(1),
              soxr(true), micEnabled(true), maxQueueBytes(8u << 20), maxQueueBlocks(256), maxStreamsPerUser(16),
              maxStreams(32) {}
        unsigned rate, numCh;        // the mix
        unsigned deviceRate;         // the playback device's rate
        unsigned speakerVolume;      // percent at start
        unsigned micRate, micNumCh;  // format of the microphone's frames
        bool soxr;                   // AlgoSoxrResample converts rates, else the library's AlgoResample
        bool micEnabled;             // what the record engine is told at start
        uint32_t maxQueueBytes;      // a client's block queue: its shared object's size
        uint32_t maxQueueBlocks;     // and its blocks
        unsigned maxStreamsPerUser;  // live streams of one user (description file owner)
        unsigned maxStreams;         // live streams in all
    };
    // Opens the playback device: the first call the one opened at start, later calls
    // (after a device failure) a fresh one, or empty when there is none.
    typedef std::function<boost::shared_ptr<Output>()> OutputSource;
    // The microphone; empty when there is none (the daemon then hands out silence).
    typedef std::function<boost::shared_ptr<Input>()> MicSource;

    static const char* const kEventStreamAdded;    // "MixerStreamAdded"
    static const char* const kEventStreamRemoved;  // "MixerStreamRemoved"
    static const char* const kEventFocusChanged;   // "MixerFocusChanged"

    DaemonConnect(const Settings& settings, OutputSource outputs, MicSource mics, EventQueue& events,
                  boost::shared_ptr<LatencyProbe> probe);
    ~DaemonConnect() override;

    // Host thread, before the engines start.
    void SetQueues(boost::shared_ptr<MsgQ> playback, boost::shared_ptr<MsgQ> record);
    // The playback engine whose settings a status request's view shows (read on its own
    // thread only, in ChainMsgRecord); host thread, before the engines start.
    void SetPlayback(const Playback* playback) { playback_ = playback; }
    // Makes the broadcasts on the client queues' conditions (no engine thread does).
    const boost::shared_ptr<CondWaker>& Waker() const { return waker_; }

    // Connect.
    int AddNewStream(const std::string& fileName, sStreamInfo& info) override;
    void Ping() override;
    void AddPlaybackInputAlgos(boost::shared_ptr<Stream> stream, boost::shared_ptr<MsgNewInput> msg) override;
    int AddPlaybackOutputAlgos(boost::shared_ptr<Output> output, boost::shared_ptr<Stream> outStream,
                               tPlaybackModes mode) override;
    void AddRecordAlgos(boost::shared_ptr<StreamOut> stream, boost::shared_ptr<MsgNewOutput> msg) override;
    void ChainMsgRecord(boost::shared_ptr<MsgHead> msg) override;
    boost::shared_ptr<Output> GetPlaybackDefaultOutput() override;
    boost::shared_ptr<Input> GetRecordDefaultInput() override;
    void GetSumParams(unsigned& rate, unsigned& numCh, tSampleSize& sampleSize) override;
    void getAudioVolume(int* volume) override;

    // EngineSink.
    void PostPlayback(boost::shared_ptr<MsgHead> msg) override;
    void PostRecord(boost::shared_ptr<MsgHead> msg) override;
    void FocusChanged(const std::string& streamType) override;
    std::string StreamVerdict(const std::string& name, int id) override;

    // Names of the client streams an engine holds (any thread).
    std::map<std::string, std::string> LiveStreams() const;  // name -> description file

private:
    struct Live {
        uint64_t serial;
        std::string fileName;
        bool announced;  // reached the point of being posted to an engine
        uint64_t watch;  // the client process's watch, 0 for none
        int id;          // the description file's id
        bool record;
        unsigned rate, numCh;
        uid_t owner;     // the user who announced it (StreamOwner)
    };
    struct Refusal {
        std::string name;
        int id;
        std::string reason;
    };
    // Remembers why the stream (name, id) was refused, for StreamVerdict.
    void Refuse(const std::string& name, int id, const std::string& reason);
    // Builds the input or output of an announced stream with onGone as its token; empty
    // (with a log line) when it cannot.
    // queue receives the stream's block queue, if it has one; why a refusal's reason.
    boost::shared_ptr<Input> OpenPlayback(const sStreamInfo& info, std::function<void()> onGone,
                                          boost::shared_ptr<DataTrans>& queue, std::string& why);
    boost::shared_ptr<Output> OpenRecord(const sStreamInfo& info, std::function<void()> onGone,
                                         boost::shared_ptr<DataTrans>& queue, std::string& why);
    // Opens the block queue qname within the size limits; empty (logged, why set) if not.
    boost::shared_ptr<DataTrans> OpenQueue(const std::string& qname, const char* op, std::string& why);
    // Why one more stream of user uid is too many, or null; caller holds mutex_.
    const char* CountRefusal(uid_t owner) const;
    // The token's action: forgets the stream if serial is still the live one.
    void StreamGone(const std::string& name, uint64_t serial);
    bool Post(const boost::weak_ptr<MsgQ>& queue, boost::shared_ptr<MsgHead> msg);
    // The daemon's view for a status request; on the playback thread.
    void FillView(const Playback& pb, MsgWriteInfoNotify::View& view);
    // Watches the client process pid of the stream on queue; returns the watch for
    // Unwatch (0 for none). A process that is gone already hangs the queue up at once.
    uint64_t WatchClient(const std::string& name, int pid, const boost::shared_ptr<DataTrans>& queue);

    const Settings settings_;
    OutputSource outputs_;  // playback thread only
    MicSource mics_;        // record thread only
    EventQueue& events_;
    boost::shared_ptr<LatencyProbe> probe_;
    boost::weak_ptr<MsgQ> playbackQ_;  // set before the engines start, read-only after
    boost::weak_ptr<MsgQ> recordQ_;    // likewise
    const Playback* playback_ = nullptr;  // likewise; its fields are read on its thread only
    const boost::shared_ptr<CondWaker> waker_;

    mutable std::mutex mutex_;
    std::map<std::string, Live> live_;  // GUARDED_BY(mutex_): streams an engine holds, by name
    bool micEnabled_;                   // GUARDED_BY(mutex_): as last posted to the record engine
    std::deque<Refusal> refusals_;      // GUARDED_BY(mutex_): the latest, oldest first
    uint64_t nextSerial_;               // GUARDED_BY(mutex_)
    std::string focusType_;             // GUARDED_BY(mutex_): empty when none is wanted
    // Last, so it goes first: its thread stops, and no action runs, before the rest goes.
    ClientWatcher watcher_;
};

}  // namespace host
}  // namespace mixer
