// One 20-ms block (3,840 bytes) to a child process and back: through two shared block
// queues (write, commit, read, release on each side), beside the same bytes through two
// pipes, in the same run.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "mixer/transport/DataTrans.h"

namespace {

const unsigned kBytes = 3840;
const unsigned kForever = 0xFFFFFFFFu;

std::string QueueName(const char* tag) { return "/mixbench-" + std::to_string(getpid()) + "-" + tag; }

// Child: echoes every block of `in` into `out` until `in` hangs up.
void EchoQueues(mixer::DataTrans& in, mixer::DataTrans& out) {
    for (;;) {
        int err;
        unsigned len;
        const char* src = in.GetReadBuff(err, len, kForever, nullptr);
        if (src == nullptr) break;
        char* dst = out.GetWriteBuff(err, kForever);
        if (dst == nullptr) break;
        memcpy(dst, src, len);
        out.CommitWriteBuff(len, nullptr);
        in.ReleaseReadBuff();
    }
    in.DeInit();
    out.DeInit();
}

void BM_QueueRoundTrip(benchmark::State& state) {
    const std::string toName = QueueName("to"), backName = QueueName("back");
    mixer::DataTrans to, back;
    if (to.Init(toName.c_str(), 4, kBytes) != 0 || back.Init(backName.c_str(), 4, kBytes) != 0) {
        state.SkipWithError("queue creation failed");
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        EchoQueues(to, back);
        _exit(0);
    }
    std::vector<char> block(kBytes, 'a');
    for (auto _ : state) {
        int err;
        unsigned len;
        char* dst = to.GetWriteBuff(err, kForever);
        memcpy(dst, block.data(), kBytes);
        to.CommitWriteBuff(kBytes, nullptr);
        const char* src = back.GetReadBuff(err, len, kForever, nullptr);
        benchmark::DoNotOptimize(src[len - 1]);
        back.ReleaseReadBuff();
    }
    to.DeInit();  // the child sees the hang-up, closes both and leaves
    waitpid(child, nullptr, 0);
    back.DeInit();
    state.SetBytesProcessed(int64_t(state.iterations()) * kBytes * 2);
}

bool ReadFull(int fd, char* p, size_t n) {
    while (n > 0) {
        const ssize_t got = read(fd, p, n);
        if (got <= 0) return false;
        p += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

bool WriteFull(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t put = write(fd, p, n);
        if (put <= 0) return false;
        p += put;
        n -= static_cast<size_t>(put);
    }
    return true;
}

void BM_PipeRoundTrip(benchmark::State& state) {
    int to[2], back[2];
    if (pipe(to) != 0 || pipe(back) != 0) {
        state.SkipWithError("pipe failed");
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(to[1]);
        close(back[0]);
        std::vector<char> buf(kBytes);
        while (ReadFull(to[0], buf.data(), kBytes) && WriteFull(back[1], buf.data(), kBytes)) {
        }
        _exit(0);
    }
    close(to[0]);
    close(back[1]);
    std::vector<char> block(kBytes, 'a'), echo(kBytes);
    for (auto _ : state) {
        WriteFull(to[1], block.data(), kBytes);
        ReadFull(back[0], echo.data(), kBytes);
        benchmark::DoNotOptimize(echo.data());
    }
    close(to[1]);  // end of file: the child leaves
    waitpid(child, nullptr, 0);
    close(back[0]);
    state.SetBytesProcessed(int64_t(state.iterations()) * kBytes * 2);
}

BENCHMARK(BM_QueueRoundTrip)->Name("CrossProcessRoundTrip3840/DataTrans")->UseRealTime();
BENCHMARK(BM_PipeRoundTrip)->Name("CrossProcessRoundTrip3840/pipe")->UseRealTime();

}  // namespace
