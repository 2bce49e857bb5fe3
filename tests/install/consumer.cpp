// A host-side program that knows the mixer only through its installed headers and
// pkg-config: it makes frames, sums them, and passes messages between threads.
#include <mixer/mixer.h>

#include <cstdio>
#include <cstring>
#include <thread>

int main() {
    boost::shared_ptr<mixer::AudioFrame> a(new mixer::AudioFrame(mixer::SAMPLE_SIZE_16, 48000, 2));
    boost::shared_ptr<mixer::AudioFrame> b(new mixer::AudioFrame(mixer::SAMPLE_SIZE_16, 48000, 2));
    memset(a->data, 0, a->size);
    memset(b->data, 0, b->size);
    a->Samples16()[0] = 30000;
    b->Samples16()[0] = 10000;
    if (mixer::Algo::AddFrames(a, b) != 0 || a->Samples16()[0] != 32767) {
        std::puts("sum failed");
        return 1;
    }
    mixer::MsgQ q;
    std::thread poster([&q] {
        for (unsigned v = 1; v <= 3; ++v)
            q.sendMsg(boost::shared_ptr<mixer::MsgHead>(new mixer::MsgSetSpeakerVol(v)));
    });
    unsigned expect = 1;
    while (expect <= 3) {
        boost::shared_ptr<mixer::MsgHead> m = q.getMsg(true);
        if (!m) continue;
        boost::shared_ptr<mixer::MsgSetSpeakerVol> v = boost::dynamic_pointer_cast<mixer::MsgSetSpeakerVol>(m);
        if (!v || v->volume != expect) {
            std::puts("message order or type wrong");
            return 1;
        }
        ++expect;
    }
    poster.join();
    std::puts("consumer ok");
    return 0;
}
