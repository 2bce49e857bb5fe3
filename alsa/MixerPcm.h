#pragma once

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <chrono>
#include <string>
#include <vector>

#include "client/ClientStream.h"

namespace mixer {
namespace alsa {

// One PCM of alsa-lib's "mixer" type: a playback or record stream of mixerd behind
// alsa-lib's I/O plugin interface, so that any ALSA program plays and records through
// the mixer.
//
// The stream is opened once the program has chosen its rate, channel count and buffer
// (hw_params): 16-bit interleaved samples, the mixer's rates (multiples of 50 Hz) and 1 to
// 8 channels; alsa-lib's plug layer converts anything else. Playback keeps one partial
// 20-ms block here and commits whole blocks to the queue, whose length follows the
// buffer (one block more than it spans, so the buffer always fits). The position that
// alsa-lib reports is what the mixer has really taken: written minus what the queue
// still counts and the partial block. Capture hands the daemon's blocks straight out.
// The poll descriptor is a timer at the 20-ms block pace, read here when it fires, so
// that a waiting program wakes once a block can have moved and never spins.
//
// Threading: alsa-lib serialises the calls on one PCM (its callbacks run one at a time,
// from whichever thread the program uses); no lock of its own. Open, drain, pause and
// drop talk to the daemon and may block for a bounded time (3 s for the daemon's
// verdict, 1.5 s per command, the queued audio's length plus 3 s for drain); the
// transfer and position calls take only the queue's lock and allocate nothing.
class MixerPcm {
public:
    struct Args {
        std::string meta = "media";  // stream type, for volumes and focus
        std::string name;            // empty: the program's name and process id (record: a free record name)
        std::string socket = client::ClientStream::kDefaultSocket;
        unsigned blocks = 0;         // queue length in 20-ms blocks at least; 0: from the buffer
    };
    static const unsigned kMaxChannels = 8;

    // Makes the PCM for alsa-lib's open; 0 and *pcmp, or a negative ALSA error after one
    // line on alsa-lib's error output (the daemon not running among them).
    static int Create(snd_pcm_t** pcmp, const char* name, snd_pcm_stream_t stream, int mode, const Args& args);

private:
    MixerPcm(snd_pcm_stream_t stream, const Args& args);
    ~MixerPcm();

    static MixerPcm* Of(snd_pcm_ioplug_t* io) { return static_cast<MixerPcm*>(io->private_data); }
    static const snd_pcm_ioplug_callback_t kCallbacks;
    static int Start(snd_pcm_ioplug_t* io);
    static int Stop(snd_pcm_ioplug_t* io);
    static snd_pcm_sframes_t Pointer(snd_pcm_ioplug_t* io);
    static snd_pcm_sframes_t Transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                      snd_pcm_uframes_t offset, snd_pcm_uframes_t size);
    static int Close(snd_pcm_ioplug_t* io);
    static int HwParams(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t* params);
    static int HwFree(snd_pcm_ioplug_t* io);
    static int SwParams(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params);
    static int Prepare(snd_pcm_ioplug_t* io);
    static int Drain(snd_pcm_ioplug_t* io);
    static int Pause(snd_pcm_ioplug_t* io, int enable);
    static int PollRevents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds, unsigned short* revents);
    static int Delay(snd_pcm_ioplug_t* io, snd_pcm_sframes_t* delay);

    int SetConstraints();
    int OpenStream();
    bool Playback() const { return io_.stream == SND_PCM_STREAM_PLAYBACK; }
    // Frames written (playback) or captured (capture) since prepare that alsa-lib has
    // not seen played or read: the queue's count and the partial or held block.
    uint64_t Pending();
    // Playback: frames that can be taken now without waiting for a free block.
    uint64_t Room();
    // Playback: commits the partial block (short when flush is true); false when the
    // queue had no free block within waitMs; err the queue's error.
    bool CommitStage(bool flush, unsigned waitMs, int& err);
    // Capture: gives back the held block.
    void ReleaseHeld();
    // Drops what is queued (playback: the mixer flushes and plays on; capture: the
    // blocks the daemon has written so far).
    void Discard();
    // After a second without the mixer taking or giving audio: whether the daemon still
    // serves the stream; false after one line saying why.
    bool StillServed(bool moved);
    // One line on alsa-lib's error output; returns -code.
    int Fail(int code, const std::string& what);
    // Fail for a stream that is not open or no longer served.
    int Unusable();

    snd_pcm_ioplug_t io_;
    Args args_;
    client::ClientStream stream_;
    std::string streamName_;
    int timerFd_ = -1;
    unsigned frameBytes_ = 0, blockFrames_ = 0;
    unsigned openRate_ = 0, openChannels_ = 0, openBlocks_ = 0;  // of the open stream
    std::vector<char> stage_;   // playback: the partial block
    size_t staged_ = 0;         // playback: bytes in stage_
    const char* held_ = nullptr;  // capture: the block handed out by the queue, read to heldLeft_
    size_t heldLeft_ = 0;
    snd_pcm_uframes_t boundary_ = 0;  // where alsa-lib's positions wrap
    uint64_t frames_ = 0;       // written (playback) or read (capture) since prepare
    uint64_t lastPending_ = 0;  // for the stall watch
    std::chrono::steady_clock::time_point heard_;
    bool gone_ = false;         // the daemon has gone: every call fails
    bool paused_ = false;       // playback: the program paused the stream
};

}  // namespace alsa
}  // namespace mixer
