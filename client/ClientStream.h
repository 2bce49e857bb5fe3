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
// Threading: Open, Close and WaitForRoom from one thread of the client; what Writer and
// Queue hand out follows their own contracts. Open and Close allocate and do file-system work; they
// do not wait on the daemon (Close hangs up without waiting).
class ClientStream {
public:
    enum Direction { kPlayback, kRecord };

    struct Params {
        std::string name;       // the stream's name: no '/' after the first byte, no line feed
        std::string meta;       // free text for the description file ("record" for record streams)
        unsigned rate = 48000;  // Hz, 1..96000
        unsigned channels = 2;  // 1..10
        unsigned blocks = 8;    // queue depth, 2..256
        int id = 0;             // the description file's id; 0: this process's id
    };

    ClientStream() = default;
    ~ClientStream() { Close(); }
    ClientStream(const ClientStream&) = delete;
    ClientStream& operator=(const ClientStream&) = delete;

    // Creates the queue (blocks of 20 ms of 16-bit audio), announces rate and channel
    // count in it, then writes the description file.
    //   On entry: no stream open on this object (an open one is closed first).
    //   Success:  0; the daemon may open the queue from now on.
    //   Failure:  an errno value (EINVAL for bad parameters, EEXIST when a queue of that
    //             name exists already, EIO when the description file cannot be written,
    //             else the queue's error); error says why in one line; neither the queue
    //             nor the description file is left behind.
    int Open(Direction direction, const Params& params, std::string& error);

    // Removes the description file and closes the queue (the daemon sees the hang-up).
    // Nothing when no stream is open.
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

private:
    DataTransWriter writer_;
    std::string name_;  // of the description file written, empty when none
};

}  // namespace client
}  // namespace mixer
