// A host-side program that knows the mixer only through its installed headers and
// pkg-config: it makes frames, sums them, and passes messages between threads.
#include <mixer/mixer.h>
#include <cstdio>
#include <cstring>
#include <thread>

int main() {
    boost::shared_ptr<mixer::AudioFrame> a(new mixer::AudioFrame(mixer::SAMPLE_SIZE_16, 48000, 2)),
        b(new mixer::AudioFrame(mixer::SAMPLE_SIZE_16, 48000, 2));
    memset(a->data, 0, a->size), memset(b->data, 0, b->size);
    a->Samples16()[0] = 30000, b->Samples16()[0] = 10000;
    if (mixer::Algo::AddFrames(a, b) != 0 || a->Samples16()[0] != 32767) return std::puts("sum failed"), 1;
    mixer::MsgQ q;
    std::thread poster([&q] {
        for (unsigned v = 1; v <= 3; ++v) q.sendMsg(boost::shared_ptr<mixer::MsgHead>(new mixer::MsgSetSpeakerVol(v)));
    });
    for (unsigned expect = 1; expect <= 3;) {
        const boost::shared_ptr<mixer::MsgHead> m = q.getMsg(true);  // empty after a wake-up
        const auto v = boost::dynamic_pointer_cast<mixer::MsgSetSpeakerVol>(m);
        if (m && (!v || v->volume != expect++)) return std::puts("message order or type wrong"), 1;
    }
    poster.join();
    std::puts("consumer ok");
    return 0;
}
