#include "mixer/record/Record.h"

#include <errno.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

#include "mixer/core/Log.h"
#include "mixer/core/MsgEnableMic.h"
#include "mixer/core/MsgWriteInfo.h"
#include "mixer/input/MixerIO.h"

namespace mixer {

namespace {

const int kRtPriority = 70;
const uint64_t kPassUs = 15000;

}  // namespace

Record::Record()
    : running(0), msgQ(new MsgQ()), thread(), micEnable(0), connect(nullptr), threadStarted(false) {}

Record::~Record() { DeInit(); }

int Record::Init(Connect* connect_) {
    if (connect_ == nullptr) return -1;
    connect = connect_;
    running = 1;
    const int rc = pthread_create(&thread, nullptr, RecordrunLoop, this);
    if (rc == 0) threadStarted = true;
    // Kept so: only a negative result counts as a failure here, and pthread_create
    // reports errors as positive numbers, so a failed start returns 0 silently.
    if (rc < 0) MIXER_LOG_E("Mixer_Record:::pthread_create failed:%d", errno);
    return 0;
}

void Record::DeInit() {
    running = 0;
    // Kept so: an empty message is refused by the queue and wakes nobody; a waiting
    // thread leaves only at the next message someone else posts (see Record.h).
    msgQ->sendMsg(boost::shared_ptr<MsgHead>());
    if (threadStarted) {
        pthread_join(thread, nullptr);
        threadStarted = false;
    }
    if (input) input.reset();
}

int64_t Record::GetTimeUS() const {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // The seconds go through a 32-bit product on purpose: the pacing tolerates the
    // wrap, and the value matches the playback engine's clock.
    const int32_t secUs = static_cast<int32_t>(static_cast<uint32_t>(ts.tv_sec) * 1000000u);
    return static_cast<int64_t>(secUs) + ts.tv_nsec / 1000;
}

void Record::handleMsg(boost::shared_ptr<MsgHead> msg) {
    if (!msg) return;
    switch (msg->type) {
        case MSG_NEW_OUTPUT:
            if (boost::shared_ptr<MsgNewOutput> m = boost::dynamic_pointer_cast<MsgNewOutput>(msg)) {
                AddNewOutput(m);
                return;
            }
            break;
        case MSG_ENABLE_MIC:
            if (boost::shared_ptr<MsgEnableMic> m = boost::dynamic_pointer_cast<MsgEnableMic>(msg)) {
                micEnable = m->enable;
                MIXER_LOG_I("Mixer_Record:handleMsg:MicEnable=%d:", micEnable);
                return;
            }
            break;
        case MSG_PING:
            return;
        case MSG_WRITE_INFO:
            if (boost::shared_ptr<MsgWriteInfo> m = boost::dynamic_pointer_cast<MsgWriteInfo>(msg)) {
                WriteInfo(m->fileName);
                return;
            }
            break;
        default:
            break;
    }
    // Unknown codes, and a code sent with a class that does not belong to it, are
    // dropped: the engine goes on.
    MIXER_LOG_E("Mixer_Record:handleMsg:Unsupported type %u:", msg->type);
}

void Record::AddNewOutput(boost::shared_ptr<MsgNewOutput> msg) {
    boost::shared_ptr<StreamOut> stream(new StreamOut());
    stream->SetOutput(msg->output);
    connect->AddRecordAlgos(stream, msg);
    outputs.push_back(stream);
}

void Record::WriteInfo(const std::string& fileName) {
    std::ofstream out(fileName.c_str(), std::ios::out | std::ios::app);
    if (!out.is_open()) {
        MIXER_LOG_W("Mixer_Record:WriteInfo:Could not open %s:", fileName.c_str());
        return;
    }
    out << "State info " << "Mixer_Record" << ":" << "\n";
    out << "Input: ";
    if (input) out << input->desc << "\t" << MixerIO::GetStateStr(input->state);
    out << "\n";
    out << "Mic Enable: " << micEnable << "\n";
    out << "Number of streams: " << static_cast<unsigned long>(outputs.size()) << "\n";
    unsigned n = 0;
    for (const boost::shared_ptr<StreamOut>& stream : outputs) {
        out << n++ << "\t" << stream->GetMeta() << "\t" << stream->GetName() << "\n";
    }
    out << "=================================================" << "\n";
    out.close();
}

void* RecordrunLoop(void* arg) {
    Record* self = static_cast<Record*>(arg);
    MIXER_LOG_I("Mixer_Record:runLoop:Start:");

    int policy;
    struct sched_param param;
    if (pthread_getschedparam(pthread_self(), &policy, &param) == 0) {
        param.sched_priority = kRtPriority;
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);  // refusal: old priority
    }

    // The host must hand over an input here: its state is read at once.
    self->input = self->connect->GetRecordDefaultInput();
    MIXER_LOG_I("Mixer_Record:Process:Start %d:", static_cast<int>(self->input->state));
    int64_t lastTime = self->GetTimeUS();

    while (self->running) {
        self->heartbeat.Beat();
        // Messages. Sleeps on the queue while nobody listens or the microphone is off,
        // with the input paused once a message has been handled in that condition.
        while (self->running) {
            const bool wait = self->outputs.empty() || self->micEnable == 0;
            if (wait) self->heartbeat.SetIdle(true);
            boost::shared_ptr<MsgHead> msg = self->msgQ->getMsg(wait);
            if (wait) self->heartbeat.SetIdle(false);
            if (!msg) break;
            self->handleMsg(msg);
            if (!self->outputs.empty() && self->micEnable != 0) continue;
            if (self->input->state == STATE_ACTIVE) {
                self->input->Pause();
                MIXER_LOG_I("Mixer_Record:Process:Pause:");
            }
        }
        if (!self->running) break;

        if (self->input->state == STATE_PAUSED) {
            MIXER_LOG_I("Mixer_Record:Process:Resume:");
            self->input->Resume();
        }
        boost::shared_ptr<AudioFrame> frame = self->input->Process();
        if (!frame) {
            MIXER_LOG_W("Mixer_Record:runLoop:Input Error:");
            self->input.reset();
            self->input = self->connect->GetRecordDefaultInput();
            continue;  // no pacing: the new input is read at once
        }

        // Fan-out: a single listener gets the frame itself; with several, each gets a
        // deep copy, so one stream's algorithms cannot change another's samples.
        std::list<boost::shared_ptr<StreamOut> >& outputs = self->outputs;
        std::list<boost::shared_ptr<StreamOut> >::iterator it = outputs.begin();
        while (it != outputs.end()) {
            boost::shared_ptr<AudioFrame> copy =
                outputs.size() == 1 ? frame : boost::shared_ptr<AudioFrame>(new AudioFrame(*frame));
            boost::shared_ptr<AudioFrame> result = (*it)->Process(copy);
            int status;
            if (!result) {
                MIXER_LOG_W("Mixer_Record:runLoop:Algo Error:");
                status = STATE_FAULT;
            } else {
                status = (*it)->ProcessOut(result);
            }
            if (status == STATE_HANGUP || status == STATE_FAULT) {
                MIXER_LOG_W("Mixer_Record:runLoop:Erasing %s:", (*it)->GetName().c_str());
                it = outputs.erase(it);
                // Kept so: the walk steps over the entry that followed the removed one,
                // and after removing the last entry it goes round from the first again
                // with the same frame. Which streams get a frame in a pass that drops
                // one depends on this stepping.
                if (it == outputs.end()) {
                    it = outputs.begin();
                } else {
                    ++it;
                }
                continue;
            }
            ++it;
        }

        if (!outputs.empty()) {
            // A negative difference (the clock wrapped) is huge unsigned: no sleep.
            const uint64_t elapsed = static_cast<uint64_t>(self->GetTimeUS() - lastTime);
            if (elapsed < kPassUs) usleep(static_cast<useconds_t>(kPassUs - elapsed));
            lastTime = self->GetTimeUS();
        }
        if (outputs.empty()) {
            MIXER_LOG_I("Mixer_Record:Process:Pause:");
            self->input->Pause();
        }
    }
    MIXER_LOG_W("Mixer_Record:runLoop:Exiting!!!:");
    return nullptr;
}

}  // namespace mixer
