// mixer-bench-client: the clients of the daemon benchmark (scripts/bench-daemon.sh) in
// one process. Plays N streams of a quiet tone for a given time, each queued and paced as
// mixer-play queues and paces a file (8 blocks, 100 ms ahead of the clock), and names
// every block after the monotonic time of its commit, so that the daemon's write trace
// (mixerd --write-trace) tells how long each block took to reach the device.
//
// Threads: main starts one thread per stream and joins them; each owns its stream.

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/ClientStream.h"
#include "client/RealTimePacer.h"

namespace {

const char* const kUsage =
    "usage: mixer-bench-client --streams N --rate HZ --seconds S [--channels C] [--name PREFIX]\n"
    "                          [--socket PATH]\n"
    "Plays N tones through mixerd (streams PREFIX0 .. PREFIXN-1, default prefix \"bench\"),\n"
    "then prints \"queued-ms M\": the median audio queued ahead of a block at its commit.\n"
    "PATH is the daemon's control socket (default /run/mixerd/mixerd.sock).\n";

const unsigned kBlocks = 8;         // mixer-play's default queue
const int64_t kLeadUs = 100000;     // and its lead over the clock
const unsigned kPeriodUs = 20000;

int64_t NowUs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000 + t.tv_nsec / 1000;
}

struct Shared {
    std::string socket;  // the daemon's control socket, set before the threads start
    std::mutex mutex;
    std::vector<unsigned> ahead;  // blocks queued ahead of each committed block
    std::atomic<int> failures{0};
};

void Play(const std::string& name, unsigned rate, unsigned channels, unsigned periods, Shared& shared) {
    mixer::client::ClientStream stream;
    mixer::client::ClientStream::Params params;
    params.name = name;
    params.meta = "music";
    params.rate = rate;
    params.channels = channels;
    params.blocks = kBlocks;
    params.socket = shared.socket;
    std::string error;
    if (stream.Open(mixer::client::ClientStream::kPlayback, params, error) != 0) {
        std::fprintf(stderr, "mixer-bench-client: %s: %s\n", name.c_str(), error.c_str());
        ++shared.failures;
        return;
    }
    // 250 Hz: five whole cycles in every 20-ms block at any rate the daemon takes.
    const unsigned frames = rate / 50;
    std::vector<int16_t> block(frames * channels);
    for (unsigned i = 0; i < frames; ++i)
        for (unsigned c = 0; c < channels; ++c)
            block[i * channels + c] = static_cast<int16_t>(500 * std::sin(2 * M_PI * 5 * i / frames));
    mixer::DataTransWriter& writer = stream.Writer();
    mixer::client::RealTimePacer pacer(kLeadUs, 2 * kLeadUs);
    std::vector<unsigned> ahead;
    ahead.reserve(periods);
    for (unsigned p = 0; p < periods; ++p) {
        stream.WaitForRoom(kPeriodUs, 1000);  // as mixer-play waits
        ahead.push_back(writer.Queue()->GetNumBlkReady());
        char id[32];
        std::snprintf(id, sizeof(id), "%lld", static_cast<long long>(NowUs()));
        const int err = writer.Write(block.data(), block.size() * 2, id, 1000);
        if (err != 0) {
            std::fprintf(stderr, "mixer-bench-client: %s: write: %s\n", name.c_str(), std::strerror(err));
            ++shared.failures;
            return;
        }
        pacer.Advance(kPeriodUs);
    }
    writer.SendCmd(mixer::CMD_DRAIN);
    writer.Drain();
    stream.Close();
    std::lock_guard<std::mutex> guard(shared.mutex);
    shared.ahead.insert(shared.ahead.end(), ahead.begin(), ahead.end());
}

}  // namespace

int main(int argc, char** argv) {
    unsigned streams = 0, rate = 0, channels = 2;
    double seconds = 0;
    std::string prefix = "bench", socket = mixer::client::ClientStream::kDefaultSocket;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--streams") streams = static_cast<unsigned>(std::atoi(argv[i + 1]));
        else if (a == "--rate") rate = static_cast<unsigned>(std::atoi(argv[i + 1]));
        else if (a == "--seconds") seconds = std::atof(argv[i + 1]);
        else if (a == "--channels") channels = static_cast<unsigned>(std::atoi(argv[i + 1]));
        else if (a == "--name") prefix = argv[i + 1];
        else if (a == "--socket") socket = argv[i + 1];
        else streams = 0, i = argc;
    }
    if (argc % 2 == 0 || streams == 0 || streams > 64 || rate == 0 || seconds <= 0 || channels == 0) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    Shared shared;
    shared.socket = socket;
    std::vector<std::thread> threads;
    const unsigned periods = static_cast<unsigned>(std::lround(seconds * 50));
    for (unsigned s = 0; s < streams; ++s)
        threads.emplace_back(Play, prefix + std::to_string(s), rate, channels, periods, std::ref(shared));
    for (std::thread& t : threads) t.join();
    if (!shared.ahead.empty()) {
        std::vector<unsigned>& a = shared.ahead;
        std::nth_element(a.begin(), a.begin() + a.size() / 2, a.end());
        std::printf("queued-ms %u\n", a[a.size() / 2] * kPeriodUs / 1000);
    }
    return shared.failures ? 1 : 0;
}
