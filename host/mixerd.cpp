// mixerd: the audio mixer daemon. Wires the library's three engines to the devices
// named on the command line, serves the control socket and sends events until SIGTERM
// or SIGINT.
//
// Threads: this main thread (start-up, signals, events, shutdown); the control
// server's; the library's playback, record and discovery threads.

#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>

#include "host/devices/AlsaMicInput.h"
#include "host/devices/AlsaOutput.h"
#include "host/control/ControlDispatcher.h"
#include "host/control/ControlServer.h"
#include "host/DaemonConnect.h"
#include "host/DaemonOptions.h"
#include "host/EventQueue.h"
#include "host/latency/LatencyProbe.h"
#include "host/ShutdownSignals.h"
#include "host/StaleQueueSweep.h"
#include "host/TrustBoundary.h"
#include "host/Watchdog.h"
#include "client/StreamQueueName.h"
#include "host/devices/ToneMicInput.h"
#include "host/devices/WavMicInput.h"
#include "host/devices/WavOutput.h"
#include "host/devices/WriteTrace.h"
#include "mixer/core/Log.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgPing.h"
#include "mixer/discovery/Discovery.h"
#include "mixer/discovery/StreamFiles.h"
#include "mixer/notify/NexoSendStringEvent.h"
#include "mixer/playback/Playback.h"
#include "mixer/record/Record.h"
#include "mixer/transport/ClientMappings.h"
#include "nexo.h"

namespace {

using namespace mixer;
using namespace mixer::host;

void StderrSink(int, const char* line) { std::fprintf(stderr, "%s\n", line); }
// Until the daemon is ready its errors are why it stops: they go to whoever started it
// as well as to syslog.
void StartupSink(int priority, const char* line) {
    syslog(priority, "%s", line);
    if (priority <= LOG_ERR) std::fprintf(stderr, "mixerd: %s\n", line);
}

unsigned DeviceRate(const DaemonOptions& opts) { return opts.deviceRate ? opts.deviceRate : opts.rate; }

// The playback device; empty after an error line.
boost::shared_ptr<Output> OpenOutput(const DaemonOptions& opts) {
    std::shared_ptr<WriteTrace> trace;
    if (!opts.writeTrace.empty() && !(trace = WriteTrace::Open(opts.writeTrace))) return boost::shared_ptr<Output>();
    boost::shared_ptr<Output> out;
    if (opts.output == "wav") {
        boost::shared_ptr<WavOutput> wav = boost::make_shared<WavOutput>(opts.outFile, DeviceRate(opts), opts.channels);
        wav->SetTrace(trace);
        out = wav;
    } else {
        boost::shared_ptr<AlsaOutput> alsa = boost::make_shared<AlsaOutput>(opts.device, DeviceRate(opts), opts.channels);
        alsa->SetTrace(trace);
        out = alsa;
    }
    if (out->Open() != 0) return boost::shared_ptr<Output>();
    return out;
}

// The microphone; empty after an error line.
boost::shared_ptr<Input> OpenMic(const DaemonOptions& opts) {
    if (opts.mic == "tone") return boost::make_shared<ToneMicInput>(opts.micRate, opts.micChannels, 440.0, 0.25);
    if (opts.mic == "wav") return WavMicInput::Open(opts.micFile, opts.micChannels, true);
    boost::shared_ptr<AlsaMicInput> mic =
        boost::make_shared<AlsaMicInput>(opts.micDevice, opts.micRate, opts.micChannels);
    if (mic->Open() != 0) return boost::shared_ptr<Input>();
    return mic;
}

// Record::DeInit returns only once a message reaches a record thread that waits on its
// queue after the run flag was cleared, and the flag is the engine's own: keep posting
// pings until DeInit is back. Each ping wakes the thread once; a thread that is still
// meant to run just waits again.
void StopRecord(Record& record) {
    boost::shared_ptr<MsgQ> queue = record.GetMsgQ();
    std::mutex mutex;
    std::condition_variable stopped;
    bool done = false;
    std::thread waker([&] {
        std::unique_lock<std::mutex> lock(mutex);
        while (!done) {
            queue->sendMsg(boost::make_shared<MsgPing>());
            stopped.wait_for(lock, std::chrono::milliseconds(10));
        }
    });
    record.DeInit();
    {
        std::lock_guard<std::mutex> guard(mutex);
        done = true;
    }
    stopped.notify_all();
    waker.join();
}

// Sends the queued events on the bus, or only logs them without one.
void DeliverEvents(EventQueue& events, NexoHandleStruct* bus) {
    events.Deliver([bus](const std::string& event, const std::string& param) {
        MIXER_LOG_I("Mixerd:Event:%s '%s':", event.c_str(), param.c_str());
        if (bus) nexo::NexoSendStringEvent(bus, event.c_str(), param.c_str());
    });
}

// How often queues that nobody holds are looked for: a client that runs again after
// its last run was killed before the daemon took its stream waits for its name about
// this long (its queue must be kStaleAfterS old as well). Not more often: these are the
// only wake-ups of an idle daemon.
const int kSweepEveryMs = 5000;
const unsigned kStaleAfterS = 2;

void SweepQueues() {
    const std::string prefix = client::StreamQueueName("").substr(1);  // "mixer-"
    StaleQueueSweep::Sweep("/dev/shm", prefix, kStaleAfterS);
}

// SIGTERM stops the daemon within 2 s whatever its threads do: the orderly stop gets
// this long, then the daemon removes its files itself and exits.
const int kStopWithinMs = 1500;

// The daemon's health for the watchdog: both engines move or sleep by design, and the
// queues' broadcasts still have a worker.
std::string Health(const Playback& playback, const Record& record, const DaemonConnect& connect, unsigned maxAgeMs) {
    if (!playback.heartbeat.Alive(maxAgeMs))
        return "the playback engine has not moved for " + std::to_string(maxAgeMs) + " ms";
    if (!record.GetHeartbeat().Alive(maxAgeMs))
        return "the record engine has not moved for " + std::to_string(maxAgeMs) + " ms";
    if (connect.Waker()->Exhausted()) return "every queue waker is stuck in a client's condition";
    return std::string();
}

// Runs stop with a bound; past it, removes what the daemon leaves (control socket,
// description files and the queues they name, the stream directory) and ends the
// process at once: a thread that does not come back must not keep it alive.
void StopWithin(const std::function<void()>& stop, const DaemonOptions& opts) {
    std::packaged_task<void()> task(stop);
    std::future<void> done = task.get_future();
    std::thread(std::move(task)).detach();
    if (done.wait_for(std::chrono::milliseconds(kStopWithinMs)) == std::future_status::ready) return;
    MIXER_LOG_E("Mixerd:Run:not stopped within %d ms (a thread is stuck): files removed, exiting:", kStopWithinMs);
    unlink(opts.socketPath.c_str());
    StaleQueueSweep::ClearDescriptions(kStreamDir, "the daemon exits without closing it");
    rmdir(kStreamDir);
    _exit(1);
}

void SignalReady(int fd) {
    if (fd < 0) return;
    static const char kReady[] = "ready\n";
    ssize_t n = write(fd, kReady, sizeof(kReady) - 1);
    (void)n;  // a reader that went away does not stop the daemon
    close(fd);
}

// The engines' SCHED_FIFO priority, which the daemon keeps when it leaves root.
const int kEnginePriority = 70;

// The trust boundary, before any thread, device or client: the daemon's directories are
// its group's alone, and a daemon given --user leaves root. gid: the clients' group.
bool Enclose(const DaemonOptions& opts, gid_t& gid) {
    umask(007);  // nothing the daemon makes is for other users
    uid_t uid;
    bool switchUser;
    std::string error;
    const std::string socketDir = opts.socketPath.substr(0, opts.socketPath.rfind('/'));
    const bool ok = TrustBoundary::Resolve(opts.user, opts.group, uid, gid, switchUser, error) &&
                    TrustBoundary::PrepareDir(kStreamDir, 01770, uid, gid, error) &&
                    (socketDir != DaemonOptions::kRunDir ||
                     TrustBoundary::PrepareDir(DaemonOptions::kRunDir, 0750, uid, gid, error)) &&
                    (!switchUser || TrustBoundary::Drop(uid, gid, kEnginePriority, error));
    if (!ok)
        MIXER_LOG_E("Mixerd:Run:%s:", error.c_str());
    else
        MIXER_LOG_I("Mixerd:Run:user %u, clients' group %u:", static_cast<unsigned>(geteuid()),
                    static_cast<unsigned>(gid));
    return ok;
}

// Connecting takes write permission on the socket: the group's and the daemon's alone.
bool CloseSocket(const std::string& path, gid_t gid) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && (st.st_gid == gid || chown(path.c_str(), static_cast<uid_t>(-1), gid) == 0) &&
        chmod(path.c_str(), 0660) == 0)
        return true;
    MIXER_LOG_E("Mixerd:Run:the control socket %s cannot be closed to others: %s:", path.c_str(), std::strerror(errno));
    return false;
}

int Run(const DaemonOptions& opts) {
    gid_t group;
    if (!Enclose(opts, group)) return 1;
    // Before any thread: SIGTERM and SIGINT are then blocked everywhere and read here.
    ShutdownSignals signals;
    if (!signals.Ok()) return 1;
    // A client that shrinks its shared memory under the daemon loses its stream, not
    // the daemon: before any client mapping is touched.
    if (!ClientMappings::Install()) return 1;
    EventQueue events;
    if (!events.Ok()) {
        MIXER_LOG_E("Mixerd:Run:eventfd: %s:", std::strerror(errno));
        return 1;
    }
    NexoHandleStruct* bus = NexoOpen(NEXO_BUS_DEFAULT);
    if (!bus) MIXER_LOG_W("Mixerd:Run:no event bus (%s): events are only logged:", std::strerror(errno));

    int status = 0;
    {
        boost::shared_ptr<LatencyProbe> probe = boost::make_shared<LatencyProbe>();
        boost::shared_ptr<Output> device = OpenOutput(opts);
        if (!device) {
            if (bus) NexoClose(bus);
            return 1;
        }
        boost::shared_ptr<Input> mic = OpenMic(opts);
        if (!mic)
            MIXER_LOG_W("Mixerd:Run:no microphone (--mic %s): recording clients hear silence:", opts.mic.c_str());

        DaemonConnect::Settings settings;
        settings.rate = opts.rate;
        settings.numCh = opts.channels;
        settings.deviceRate = DeviceRate(opts);
        settings.speakerVolume = opts.volume;
        settings.micRate = mic ? mic->rate : opts.micRate;
        settings.micNumCh = opts.micChannels;
        settings.soxr = opts.resampler == "soxr";
        settings.micEnabled = !opts.micOff;
        settings.maxQueueBytes = opts.queueMaxBytes;
        settings.maxQueueBlocks = opts.queueMaxBlocks;
        settings.maxStreamsPerUser = opts.streamsPerUser;
        settings.maxStreams = opts.streamsMax;
        // The device opened here goes first. After a failure a sound card is opened
        // afresh; a WAV file is not reopened, which would truncate what it holds.
        DaemonConnect::OutputSource outputs = [device, opts]() mutable {
            boost::shared_ptr<Output> out;
            if (device) out.swap(device);
            else if (opts.output != "wav") out = OpenOutput(opts);
            return out;
        };
        // The same microphone after an empty frame, unless it failed: a capture device is
        // then opened afresh.
        DaemonConnect::MicSource mics = [mic, opts]() mutable {
            if (mic && mic->state != STATE_FAULT) return mic;
            mic.reset();
            if (opts.mic == "alsa") mic = OpenMic(opts);
            return mic;
        };
        DaemonConnect connect(settings, outputs, mics, events, probe);

        Playback playback;
        Record record;
        // Made only once this daemon owns the control socket: a Discovery removes the
        // stream directory when it goes, which must not happen to another daemon's.
        std::unique_ptr<Discovery> discovery;
        connect.SetQueues(playback.GetMsgQ(), record.GetMsgQ());
        connect.SetPlayback(&playback);
        if (!opts.micOff) record.GetMsgQ()->sendMsg(boost::make_shared<MsgEnableMic>(1));
        playback.Init(&connect);
        record.Init(&connect);

        ControlDispatcher::Settings control;
        control.statusFile = opts.statusFile;
        control.speakerVolume = opts.volume;
        control.mixRate = opts.rate;
        control.mixNumCh = opts.channels;
        control.micEnabled = !opts.micOff;
        control.maxVolumeTypes = opts.volumeTypes;
        ControlDispatcher dispatcher(connect, probe, control);
        ControlServer::Limits limits;
        limits.maxConnections = opts.controlConnections;
        ControlServer server(opts.socketPath, dispatcher, limits);
        Watchdog watchdog([&](unsigned maxAgeMs) { return Health(playback, record, connect, maxAgeMs); });

        if (server.Start() != 0 || !CloseSocket(opts.socketPath, group)) {
            status = 1;
        } else if (StaleQueueSweep::ClearDescriptions(kStreamDir, "left by an earlier daemon"), SweepQueues(),
                   discovery.reset(new Discovery()), discovery->Init(&connect) != 1) {
            MIXER_LOG_E("Mixerd:Run:the stream directory %s cannot be watched:", kStreamDir);
            status = 1;
        } else {
            MIXER_LOG_I("Mixerd:Run:ready: output %s, mic %s, mix %u Hz %u ch, control %s:", opts.output.c_str(),
                        opts.mic.c_str(), opts.rate, opts.channels, opts.socketPath.c_str());
            SignalReady(opts.readyFd);
            watchdog.Ready();
            watchdog.Start();
            if (!opts.logStderr) Log::SetSink(nullptr);  // syslog alone from here on
            for (;;) {
                pollfd fds[2] = {{signals.Fd(), POLLIN, 0}, {events.Fd(), POLLIN, 0}};
                const int ready = poll(fds, 2, kSweepEveryMs);
                if (ready == 0) {
                    SweepQueues();
                    continue;
                }
                if (ready < 0) {
                    if (errno == EINTR) continue;
                    MIXER_LOG_E("Mixerd:Run:poll: %s:", std::strerror(errno));
                    status = 1;
                    break;
                }
                if (fds[1].revents) DeliverEvents(events, bus);
                if (fds[0].revents) {
                    int sig = signals.Take();
                    if (sig) {
                        MIXER_LOG_I("Mixerd:Run:signal %d: stopping:", sig);
                        break;
                    }
                }
            }
        }
        // No new requests or streams, then the engines; their streams go at the end of
        // this scope, which fires their tokens.
        watchdog.Stopping();
        StopWithin([&] {
            server.Stop();
            if (discovery) discovery->DeInit();
            playback.DeInit();
            StopRecord(record);
        }, opts);
    }
    DeliverEvents(events, bus);
    if (bus) NexoClose(bus);
    MIXER_LOG_I("Mixerd:Run:stopped:");
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    mixer::host::DaemonOptions opts;
    std::string error;
    switch (mixer::host::DaemonOptions::Parse(argc, argv, opts, error)) {
    case mixer::host::DaemonOptions::kHelp:
        std::fputs(mixer::host::DaemonOptions::Help(), stdout);
        return 0;
    case mixer::host::DaemonOptions::kVersion:
        std::printf("mixerd %s\n", MIXER_VERSION);
        return 0;
    case mixer::host::DaemonOptions::kError:
        std::fprintf(stderr, "mixerd: %s\n", error.c_str());
        return 2;
    case mixer::host::DaemonOptions::kRun:
        break;
    }
    if (opts.haveLogMask) g_orvane_log_mask = opts.logMask;
    if (opts.logStderr)
        mixer::Log::SetSink(StderrSink);
    else
        openlog("mixerd", LOG_PID, LOG_DAEMON), mixer::Log::SetSink(StartupSink);
    return Run(opts);
}
