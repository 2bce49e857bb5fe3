#include "alsa/MixerPcm.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "client/ControlClient.h"
#include "client/StreamQueueName.h"
#include "mixer/core/StreamNames.h"

namespace mixer {
namespace alsa {

namespace {

typedef std::chrono::steady_clock Clock;
const unsigned kBlockUs = 20000;  // one block of the queue, one period of the mixer
const unsigned kAnswerMs = 1000;  // the daemon's check at open

}  // namespace

const snd_pcm_ioplug_callback_t MixerPcm::kCallbacks = [] {
    snd_pcm_ioplug_callback_t c;
    std::memset(&c, 0, sizeof(c));
    c.start = Start;
    c.stop = Stop;
    c.pointer = Pointer;
    c.transfer = Transfer;
    c.close = Close;
    c.hw_params = HwParams;
    c.hw_free = HwFree;
    c.prepare = Prepare;
    c.drain = Drain;
    c.pause = Pause;
    c.poll_revents = PollRevents;
    c.delay = Delay;
    c.sw_params = SwParams;
    return c;
}();

MixerPcm::MixerPcm(snd_pcm_stream_t stream, const Args& args) : args_(args) {
    std::memset(&io_, 0, sizeof(io_));
    io_.version = SND_PCM_IOPLUG_VERSION;
    io_.name = "mixerd";
    io_.stream = stream;
    io_.callback = &kCallbacks;
    io_.private_data = this;
    timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    io_.poll_fd = timerFd_;
    io_.poll_events = POLLIN;
    io_.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    streamName_ = args.name;
    if (streamName_.empty() && stream == SND_PCM_STREAM_PLAYBACK)
        streamName_ = std::string(program_invocation_short_name) + "-" + std::to_string(getpid());
}

MixerPcm::~MixerPcm() {
    stream_.Close();
    if (timerFd_ >= 0) close(timerFd_);
}

int MixerPcm::Fail(int code, const std::string& what) {
    SNDERR("mixer %s %s: %s", Playback() ? "playback" : "capture", streamName_.c_str(), what.c_str());
    return -code;
}

int MixerPcm::Unusable() {
    return Fail(EIO, gone_ ? "the mixer no longer serves the stream" : "the stream is not open (no hw_params yet)");
}

int MixerPcm::Create(snd_pcm_t** pcmp, const char* name, snd_pcm_stream_t stream, int mode, const Args& args) {
    if (args.meta.empty() || args.meta.find('\n') != std::string::npos) {
        SNDERR("mixer: the stream type (meta) must be one line of text");
        return -EINVAL;
    }
    if (!args.name.empty() && !client::ClientStream::ValidName(args.name)) {
        SNDERR("mixer: bad stream name '%s' (no '/' after the first byte, no line feed)", args.name.c_str());
        return -EINVAL;
    }
    if (!args.socket.empty()) {
        client::ControlReply reply;
        std::string error;
        bool gone = false;
        if (!client::ControlClient::Request(args.socket, "get speaker", reply, error, kAnswerMs, &gone)) {
            if (gone) SNDERR("mixer: mixerd is not running (nothing answers on %s)", args.socket.c_str());
            else SNDERR("mixer: mixerd does not answer on %s: %s", args.socket.c_str(), error.c_str());
            return -ECONNREFUSED;
        }
    }
    MixerPcm* pcm = new MixerPcm(stream, args);
    if (pcm->timerFd_ < 0) {
        const int err = errno;
        delete pcm;
        SNDERR("mixer: no timer for the poll descriptor: %s", std::strerror(err));
        return -err;
    }
    int err = snd_pcm_ioplug_create(&pcm->io_, name, stream, mode);
    if (err < 0) {
        delete pcm;
        SNDERR("mixer: cannot create the PCM: %s", snd_strerror(err));
        return err;
    }
    err = pcm->SetConstraints();
    if (err < 0) {
        SNDERR("mixer: cannot set the PCM's parameter ranges: %s", snd_strerror(err));
        snd_pcm_ioplug_delete(&pcm->io_);  // closes, which deletes pcm
        return err;
    }
    *pcmp = pcm->io_.pcm;
    return 0;
}

int MixerPcm::SetConstraints() {
    static const unsigned kAccess[] = {SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_ACCESS_RW_INTERLEAVED};
    static const unsigned kFormat[] = {SND_PCM_FORMAT_S16_LE};
    // Whole 20-ms blocks: multiples of 50 Hz; plug converts any other rate.
    std::vector<unsigned> rates;
    for (unsigned r = 8000; r <= 96000; r += 50) rates.push_back(r);
    int err;
    if ((err = snd_pcm_ioplug_set_param_list(&io_, SND_PCM_IOPLUG_HW_ACCESS, 2, kAccess)) < 0 ||
        (err = snd_pcm_ioplug_set_param_list(&io_, SND_PCM_IOPLUG_HW_FORMAT, 1, kFormat)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_CHANNELS, 1, kMaxChannels)) < 0 ||
        (err = snd_pcm_ioplug_set_param_list(&io_, SND_PCM_IOPLUG_HW_RATE, static_cast<unsigned>(rates.size()),
                                             rates.data())) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 128, 1u << 21)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 256, 1u << 22)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_PERIODS, 2, 1024)) < 0)
        return err;
    return 0;
}

int MixerPcm::OpenStream() {
    const unsigned most = client::ClientStream::kMaxBlocks;
    const unsigned blocks = std::min<unsigned>(
        most, std::max<unsigned>(args_.blocks, static_cast<unsigned>((io_.buffer_size + blockFrames_ - 1) / blockFrames_) + 1));
    if (stream_.IsOpen() && openRate_ == io_.rate && openChannels_ == io_.channels && openBlocks_ == blocks) return 0;
    stream_.Close();
    client::ClientStream::Params p;
    p.meta = args_.meta;
    p.rate = io_.rate;
    p.channels = io_.channels;
    p.blocks = blocks;
    p.socket = args_.socket;
    p.name = streamName_;
    if (!Playback() && args_.name.empty()) {
        // The first record name whose queue nobody holds: two programs record at once.
        for (const std::string& n : {kStreamMicRaw, kStreamMicAsr, kStreamMicHfp}) {
            const int fd = shm_open(client::StreamQueueName(n).c_str(), O_RDONLY, 0);
            if (fd >= 0) close(fd);
            else if (errno == ENOENT) {
                p.name = n;
                break;
            }
        }
        if (p.name.empty()) return Fail(EBUSY, "micRaw, micAsr and micHfp all record already");
        streamName_ = p.name;
    }
    std::string error;
    const int rc = stream_.Open(Playback() ? client::ClientStream::kPlayback : client::ClientStream::kRecord, p, error);
    if (rc != 0) return Fail(rc, error);
    if (stream_.Current() == client::ClientStream::kMicOff) {
        stream_.Close();
        return Fail(EIO, "the microphone is off (mixerctl mic on)");
    }
    openRate_ = p.rate;
    openChannels_ = p.channels;
    openBlocks_ = blocks;
    gone_ = false;
    return 0;
}

int MixerPcm::HwParams(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*) {
    MixerPcm* self = Of(io);
    self->frameBytes_ = io->channels * 2;
    self->blockFrames_ = io->rate / 50;
    self->stage_.assign(size_t(self->blockFrames_) * self->frameBytes_, 0);
    self->staged_ = 0;
    self->ReleaseHeld();
    return self->OpenStream();
}

int MixerPcm::SwParams(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) {
    snd_pcm_uframes_t boundary = 0;
    snd_pcm_sw_params_get_boundary(params, &boundary);
    Of(io)->boundary_ = boundary;
    return 0;
}

int MixerPcm::HwFree(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    self->ReleaseHeld();
    self->stream_.Close();
    const itimerspec off = {};
    timerfd_settime(self->timerFd_, 0, &off, nullptr);
    return 0;
}

int MixerPcm::Close(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    self->ReleaseHeld();
    delete self;
    return 0;
}

uint64_t MixerPcm::Pending() {
    if (!stream_.IsOpen() || frameBytes_ == 0) return 0;
    // The queue's count is what the writer committed and the reader has not yet copied.
    uint64_t pending = (stream_.Queue().AddCount(0) + (Playback() ? staged_ : 0)) / frameBytes_;
    return Playback() ? std::min(pending, frames_) : pending;
}

uint64_t MixerPcm::Room() {
    if (!stream_.IsOpen()) return 0;
    const uint64_t free = stream_.Queue().GetNumBlkFree(), stagedFrames = staged_ / frameBytes_;
    // floor((staged + n) / block) whole blocks must find a free one each.
    return (free + 1) * blockFrames_ - 1 - std::min<uint64_t>(stagedFrames, (free + 1) * blockFrames_ - 1);
}

bool MixerPcm::StillServed(bool moved) {
    const Clock::time_point now = Clock::now();
    if (moved || now - heard_ < std::chrono::seconds(1)) {
        if (moved) heard_ = now;
        return true;
    }
    heard_ = now;
    std::string why;
    if (stream_.Check(why) != client::ClientStream::kGone) return true;
    gone_ = true;
    Fail(EIO, why);
    return false;
}

snd_pcm_sframes_t MixerPcm::Pointer(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    if (self->gone_ || !self->stream_.IsOpen()) return self->Unusable();
    if (self->stream_.Queue().IsHungUp()) {
        self->gone_ = true;
        return self->Fail(EIO, "the mixer closed the stream");
    }
    const uint64_t pending = self->Pending(), buffer = io->buffer_size;
    uint64_t hw;
    bool waiting;
    if (self->Playback()) {
        hw = self->frames_ - pending;
        // A queue shorter than the buffer: the position holds back what it cannot take.
        const uint64_t room = self->Room();
        if (self->frames_ + room < buffer) hw = 0;
        else hw = std::min(hw, self->frames_ + room - buffer);
        waiting = pending > 0 && io->state == SND_PCM_STATE_RUNNING;
    } else {
        hw = self->frames_ + std::min(pending, buffer);
        waiting = io->state == SND_PCM_STATE_RUNNING;
    }
    const uint64_t moved = self->frames_ + (self->Playback() ? -pending : pending);
    if (!self->StillServed(!waiting || moved != self->lastPending_)) return -EIO;
    self->lastPending_ = moved;
    // Up to alsa-lib's boundary, not the buffer: the mixer may take a whole buffer
    // between two calls (a pause plays out a quarter of a second).
    return static_cast<snd_pcm_sframes_t>(hw % (self->boundary_ ? self->boundary_ : buffer));
}

bool MixerPcm::CommitStage(bool flush, unsigned waitMs, int& err) {
    err = 0;
    if (staged_ == 0 || (!flush && staged_ < stage_.size())) return true;
    if (waitMs > 0 && stream_.Queue().GetNumBlkFree() == 0) stream_.WaitForRoom(kBlockUs / 4, waitMs);
    size_t wrote = 0;
    err = stream_.Writer().Write(stage_.data(), staged_, nullptr, 0, &wrote);
    if (err != 0) return false;
    staged_ = 0;
    return true;
}

void MixerPcm::ReleaseHeld() {
    if (held_ && stream_.IsOpen()) {
        stream_.Queue().SubCount(static_cast<unsigned>(heldLeft_));
        stream_.Queue().ReleaseReadBuff();
    }
    held_ = nullptr;
    heldLeft_ = 0;
}

snd_pcm_sframes_t MixerPcm::Transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                     snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    MixerPcm* self = Of(io);
    if (self->gone_ || !self->stream_.IsOpen()) return self->Unusable();
    DataTrans& q = self->stream_.Queue();
    char* at = static_cast<char*>(areas[0].addr) + (areas[0].first + areas[0].step * offset) / 8;
    const size_t bytes = size * self->frameBytes_;
    size_t done = 0;
    int err = 0;
    if (self->Playback()) {
        while (done < bytes) {
            // A full partial block that found no room last time: wait a little for it
            // (a blocking program only; the position said there was room).
            if (!self->CommitStage(false, io->nonblock ? 0 : 1000, err)) break;
            const size_t n = std::min(bytes - done, self->stage_.size() - self->staged_);
            std::memcpy(self->stage_.data() + self->staged_, at + done, n);
            self->staged_ += n;
            done += n;
            if (!self->CommitStage(false, 0, err) && err != EAGAIN && err != ETIMEDOUT) break;
        }
        if (err == EAGAIN && q.IsStopped()) err = EPIPE;
        if (err != 0 && err != EAGAIN && err != ETIMEDOUT) {
            self->gone_ = true;
            return self->Fail(EIO, err == EPIPE ? "the mixer stopped the stream" : "the mixer closed the stream");
        }
    } else {
        while (done < bytes) {
            if (!self->held_) {
                unsigned len = 0;
                char* block = q.GetReadBuff(err, len, 0, nullptr);
                if (!block) break;
                const unsigned whole = len - len % self->frameBytes_;  // only whole frames go out
                if (whole < len) q.SubCount(len - whole);
                self->held_ = block;
                self->heldLeft_ = std::min<size_t>(whole, q.GetUserBlkSize());
            }
            const size_t n = std::min(bytes - done, self->heldLeft_);
            std::memcpy(at + done, self->held_, n);
            q.SubCount(static_cast<unsigned>(n));
            self->held_ += n;
            self->heldLeft_ -= n;
            done += n;
            if (self->heldLeft_ == 0) self->ReleaseHeld();
        }
        if (err == EHOSTDOWN) {
            self->gone_ = true;
            return self->Fail(EIO, "the mixer closed the stream");
        }
    }
    self->frames_ += done / self->frameBytes_;
    return done > 0 ? static_cast<snd_pcm_sframes_t>(done / self->frameBytes_) : -EAGAIN;
}

void MixerPcm::Discard() {
    if (!stream_.IsOpen()) return;
    DataTrans& q = stream_.Queue();
    if (Playback()) {
        staged_ = 0;
        const bool queued = q.AddCount(0) > 0 || q.GetNumBlkFree() < q.GetNumBlk();
        // The mixer pauses a flushed stream: it plays on once resumed.
        if (queued) stream_.Writer().SendCmd(CMD_FLUSH);
        if (queued || paused_) stream_.Writer().SendCmd(CMD_RESUME);
        paused_ = false;
        return;
    }
    ReleaseHeld();
    for (unsigned i = q.GetNumBlk(); i > 0; --i) {
        int err = 0;
        unsigned len = 0;
        if (!q.GetReadBuff(err, len, 0, nullptr)) break;
        q.SubCount(len);
        q.ReleaseReadBuff();
    }
}

int MixerPcm::Prepare(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    if (self->gone_ || !self->stream_.IsOpen()) return self->Unusable();
    self->Discard();
    self->frames_ = self->lastPending_ = 0;
    self->heard_ = Clock::now();
    // Readable at once, then at the block pace.
    itimerspec pace = {};
    pace.it_value.tv_nsec = 1;
    pace.it_interval.tv_nsec = kBlockUs * 1000;
    timerfd_settime(self->timerFd_, 0, &pace, nullptr);
    return 0;
}

int MixerPcm::Start(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    if (!self->Playback()) self->Discard();  // what was heard before the program started
    self->heard_ = Clock::now();
    return 0;
}

int MixerPcm::Stop(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    if (self->Playback()) self->Discard();
    return 0;
}

int MixerPcm::Drain(snd_pcm_ioplug_t* io) {
    MixerPcm* self = Of(io);
    if (!self->Playback()) return 0;
    if (self->gone_ || !self->stream_.IsOpen()) return self->Unusable();
    int err = 0;
    if (!self->CommitStage(true, io->nonblock ? 0 : 1000, err)) {
        if (io->nonblock && (err == EAGAIN || err == ETIMEDOUT)) return -EAGAIN;  // no room yet for the last part
        return self->Fail(EIO, "the mixer takes no more audio");
    }
    DataTrans& q = self->stream_.Queue();
    // The mixer plays in real time at most at half speed (the WAV output): twice what is
    // queued, and a margin.
    const uint64_t queuedUs = self->Pending() * 1000000 / io->rate;
    const Clock::time_point deadline = Clock::now() + std::chrono::microseconds(2 * queuedUs + 3000000);
    while (q.AddCount(0) > 0 || q.GetNumBlkFree() < q.GetNumBlk()) {
        if (q.IsHungUp() || q.IsStopped()) return self->Fail(EIO, "the mixer closed the stream while draining");
        if (io->nonblock) return -EAGAIN;  // the program polls and asks again
        if (Clock::now() > deadline) return self->Fail(EIO, "the mixer did not play the queued audio in time");
        q.WaitTillUserBufEmpty();
    }
    return 0;
}

int MixerPcm::Pause(snd_pcm_ioplug_t* io, int enable) {
    MixerPcm* self = Of(io);
    if (!self->Playback()) return 0;
    if (self->gone_ || !self->stream_.IsOpen()) return self->Unusable();
    // The mixer fades out and in.
    self->stream_.Writer().SendCmd(enable ? CMD_PAUSE : CMD_RESUME);
    self->paused_ = enable != 0;
    self->heard_ = Clock::now();
    return 0;
}

int MixerPcm::PollRevents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds, unsigned short* revents) {
    MixerPcm* self = Of(io);
    uint64_t ticks;
    if (nfds == 1 && pfd[0].revents & POLLIN)
        while (read(self->timerFd_, &ticks, sizeof(ticks)) > 0) {
        }
    *revents = 0;
    if (self->gone_) *revents = POLLERR;
    else if (self->Playback()) {
        const uint64_t pending = self->Pending();
        if (self->Room() > 0 && pending < io->buffer_size) *revents = POLLOUT;
    } else if (self->Pending() > 0 || self->held_) {
        *revents = POLLIN;
    }
    return 0;
}

int MixerPcm::Delay(snd_pcm_ioplug_t* io, snd_pcm_sframes_t* delay) {
    *delay = static_cast<snd_pcm_sframes_t>(Of(io)->Pending());
    return 0;
}

}  // namespace alsa
}  // namespace mixer
