#pragma once

#include <string>

#include "mixer/transport/DataTrans.h"
#include "mixer/transport/DataTransWriter.h"

namespace mixer {
namespace client {

// One stream of this process on the mixer: the shared block queue under the stream's
// queue name and the description file that announces it to the daemon's discovery.
// A playback stream's client writes blocks (Writer); a record stream's client reads
// the blocks the daemon writes (Queue).
//
// Where it stands with the daemon: Open refuses what the daemon would refuse (in the
// daemon's words, StreamRules) before it makes anything, says "mixerd is not running"
// when nothing answers on the control socket, and then asks the daemon over that socket
// until it has accepted or refused the stream (with the daemon's reason), for a bounded
// time. Check asks again later, for a client whose audio has stalled: a daemon that
// was killed or restarted no longer serves the stream.
//
// Threading: Open, Check, Close and WaitForRoom from one thread of the client; what Writer and Queue
// hand out follows their own contracts. They allocate, do file-system work and talk to
// the control socket; each control request is bounded by Params::answerMs, and Open
// waits at most that long for the verdict (plus as long again for a name that the
// daemon is still letting go of).
class ClientStream {
public:
    enum Direction { kPlayback, kRecord };

    struct Params {
        std::string name;       // the stream's name: no '/' after the first byte, no line feed
        std::string meta;       // free text for the description file ("record" for record streams)
        unsigned rate = 48000;  // Hz, see StreamRules
        unsigned channels = 2;  // see StreamRules
        unsigned blocks = 8;    // queue depth, kMinBlocks..kMaxBlocks
        int id = 0;             // the description file's id; 0: this process's id
        // The daemon's control socket; empty: do not ask the daemon anything (the stream
        // counts as accepted once announced).
        std::string socket = kDefaultSocket;
        unsigned answerMs = 3000;  // bound of the wait for the daemon's verdict
    };
    static const char* const kDefaultSocket;  // "/run/mixerd/mixerd.sock"
    static const unsigned kMinBlocks = 2, kMaxBlocks = 256;
    static const unsigned kCheckMs = 500;

    // Where the daemon stands on an open stream (Check).
    enum Standing {
        kServed,  // the daemon serves it
        kMicOff,  // a record stream that is served, but the microphone is off
        kGone     // the daemon has gone or no longer serves the stream
    };

    ClientStream() = default;
    ~ClientStream() { Close(); }
    ClientStream(const ClientStream&) = delete;
    ClientStream& operator=(const ClientStream&) = delete;

    // Creates the queue (blocks of 20 ms of 16-bit audio), announces rate and channel
    // count in it, writes the description file and waits for the daemon's verdict.
    //   On entry: no stream open on this object (an open one is closed first).
    //   Success:  0; the daemon has accepted the stream (Standing() says whether the
    //             microphone is on for a record stream).
    //   Failure:  an errno value, with error saying why in one line: EINVAL for what the
    //             daemon would refuse or a bad name or queue length, ECONNREFUSED when
    //             the daemon is not running, EEXIST when a stream of that name is open
    //             already or another user's file holds its description file's name (it
    //             stays), EIO when the description file cannot be written, EPERM when
    //             the daemon refused (its reason in error), ETIMEDOUT when it gave no
    //             verdict in time, else the queue's error. Neither the queue nor the
    //             description file is left behind.
    int Open(Direction direction, const Params& params, std::string& error);

    // Asks the daemon whether it still serves the stream; why says what is wrong when
    // it is not kServed. kServed without asking when no socket was given. Waits at most
    // kCheckMs for the answer: a client whose audio stalled for a second and whose
    // daemon does not answer either learns within 2 s that it has gone.
    Standing Check(std::string& why);
    // What the daemon said at Open (kServed or kMicOff), or kGone after a Check that
    // found the daemon gone.
    Standing Current() const { return standing_; }

    // Removes the description file and closes the queue. The daemon sees the hang-up
    // and removes the queue when it lets go; when the daemon never took the stream or
    // has gone, this end removes it. Nothing when no stream is open.
    void Close();

    // For a playback client paced by the clock: waits until the queue has a free block,
    // checking once every periodUs on the clock rather than waiting on the queue, for at
    // most timeoutMs. When the mixer plays slower than the client (the WAV output plays
    // at half speed) the queue stays full, and a writer blocked in Write had to be woken
    // by the daemon at every block it took: that cost the daemon more than its mixing.
    // True when a block is free; false when the time ran out or the stream was hung up or
    // stopped (Write then says which). Sleeps; no allocation.
    bool WaitForRoom(unsigned periodUs, unsigned timeoutMs);

    bool IsOpen() const { return writer_.IsOpen(); }
    // The producer's end, for a playback stream. Valid while open.
    DataTransWriter& Writer() { return writer_; }
    // The queue itself, for a record stream's reader. Valid while open.
    DataTrans& Queue() { return *writer_.Queue(); }

    // Whether name can name a stream (see Params::name).
    static bool ValidName(const std::string& name);
    // Why a stream of these parameters cannot be opened in this direction, or empty:
    // the checks Open makes before it asks the daemon anything.
    static std::string Refusal(Direction direction, const Params& params);

private:
    // One "stream" request: the first word of the daemon's answer and the rest in
    // detail; false when the daemon could not be reached (detail says why; gone: no
    // daemon is there).
    bool Ask(std::string& answer, std::string& detail, bool& gone, unsigned boundMs);
    // Creates the queue; while a daemon is asked, waits out a name the daemon is still
    // letting go of.
    int CreateQueue(const Params& p, const std::string& queueName);

    DataTransWriter writer_;
    std::string name_;      // of the description file written, empty when none
    std::string socket_;    // empty: no daemon is asked
    unsigned answerMs_ = 0;
    int id_ = 0;            // the description file's id
    Standing standing_ = kGone;
    bool unanswered_ = false;  // the last Check had no answer: Close does not ask again
};

}  // namespace client
}  // namespace mixer
