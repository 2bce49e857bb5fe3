#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>
#include <sstream>
#include <thread>
#include "host/ClientWatcher.h"
#include "host/DaemonOptions.h"
#include "host/ShutdownSignals.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
namespace mixer {
namespace {
using host::ClientWatcher;
using host::DaemonOptions;
using V = std::vector<int64_t>;

std::string Dump(const DaemonOptions& o) {
    std::ostringstream s;
    s << o.output << '|' << o.device << '|' << o.outFile << '|' << o.mic << '|' << o.micDevice << '|' << o.micFile
      << '|' << o.rate << '|' << o.channels << '|' << o.deviceRate << '|' << o.micRate << '|' << o.micChannels << '|'
      << o.volume << '|' << o.socketPath << '|' << o.statusFile << '|' << o.haveLogMask << ':' << std::hex
      << o.logMask << std::dec << '|' << o.logStderr << '|' << o.readyFd << '|' << o.micOff << '|' << o.resampler << o.writeTrace << '|' << o.user << ':' << o.group;
    return s.str();
}

TEST(DaemonOptionsTest, ArgumentListsAreTakenOrRefusedWithTheReason) {
    const auto kRun = DaemonOptions::kRun, kError = DaemonOptions::kError;
    const std::string run = "|/run/mixerd/mixerd.sock|/run/mixerd/mixerd.status|",
                      plain = "alsa|default|out.wav|alsa|default||48000|2|0|16000|1|40" + run;
    struct Case { std::vector<std::string> args; DaemonOptions::Result result; std::string text; };  // text: taken or error
    std::vector<Case> cases = {
        {{}, kRun, plain + "0:0|0|-1|0|soxr|:audio"}, {{"--log-mask", "0x20"}, kRun, plain + "1:20|0|-1|0|soxr|:audio"},
        {{"--output", "wav", "--out-file", "/o.wav", "--mic=wav", "--mic-file", "m.wav", "--rate", "8000", "--channels",
          "8", "--device-rate", "16000", "--mic-rate", "8000", "--mic-channels", "1", "--volume", "0", "--socket", "/s",
          "--status-file", "/st", "--log-mask", "EWIDP", "--log-stderr", "--ready-fd", "3", "--mic-off", "--device",
          "hw:1,0", "--mic-device", "hw:2", "--resampler", "speex", "--write-trace", "/t", "--user", "65534", "--group=mixer"},
         kRun, "wav|hw:1,0|/o.wav|wav|hw:2|m.wav|8000|8|16000|8000|1|0|/s|/st|1:3808020|1|3|1|speex/t|65534:mixer"},
        {{"--rate=96000", "--device-rate", "8000", "--mic-rate", "96000", "--mic-channels", "8", "--volume", "100",
          "--ready-fd", "1023", "--log-mask", "4294967295", "--mic", "tone"},
         kRun, "alsa|default|out.wav|tone|default||96000|2|8000|96000|8|100" + run + "1:ffffffff|0|1023|0|soxr|:audio"},
        {{"--help"}, DaemonOptions::kHelp, ""}, {{"-V"}, DaemonOptions::kVersion, ""},
        {{"--frobnicate"}, kError, "unknown option --frobnicate (see --help)"},
        {{"--socket"}, kError, "option --socket needs a value"},
        {{"stray"}, kError, "unexpected argument 'stray' (see --help)"},
        {{"--mic", "wav"}, kError, "--mic wav needs --mic-file"},
    };
    // Values out of range or of the wrong form, as option=value.
    std::istringstream bad("volume=101 rate=+8000 rate=7999 rate=96001 rate=48000x device-rate=7999 mic-rate=96001 "
                           "channels=0 channels=9 mic-channels=9 output=speaker mic=line ready-fd=2 ready-fd=1024 "
                           "log-mask=EWX log-mask=12ab log-mask=0x100000000 log-mask= socket= status-file= device= "
                           "out-file= mic-device= mic-file= resampler=sinc write-trace= user= group= "
                           "queue-max-bytes=4095 queue-max-blocks=1 streams-per-user=0 streams-max=1025 volume-types=0 "
                           "control-connections=0");
    for (std::string w; bad >> w;) {
        const std::string name = "--" + w.substr(0, w.find('=')), value = w.substr(w.find('=') + 1);
        cases.push_back({{name, value}, kError, "bad value '" + value + "' for " + name + " (see --help)"});
    }
    for (Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        c.args.insert(c.args.begin(), "mixerd");
        std::vector<char*> argv;
        for (std::string& a : c.args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        DaemonOptions o;
        o.volume = 33;  // a refused list changes nothing
        const std::string before = Dump(o);
        std::string error;
        EXPECT_EQ(DaemonOptions::Parse(static_cast<int>(c.args.size()), argv.data(), o, error), c.result);
        EXPECT_EQ(c.result == kRun ? Dump(o) : c.result == kError ? error : "", c.text);
        EXPECT_TRUE(c.result == kRun || Dump(o) == before) << Dump(o);
    }
}

TEST(ClientWatcherTest, ActionsRunOnceAfterTheProcessEndsNeverAfterUnwatchAndUnwatchWaitsForARunningOne) {
    if (!ClientWatcher::Supported()) GTEST_SKIP() << "no pidfd here: the daemon falls back to the clients' own close";
    ClientWatcher watcher;
    test::Pipe ran, release;
    auto forever = []() -> int { for (;;) pause(); };
    test::ChildProcess unwatched(forever), held(forever), ended([] { return 0; });
    uint64_t idU = 0, id = 7;
    bool finished = false;  // set on the watcher's thread; read once Unwatch has returned
    auto hold = [&] { ran.Send(), release.Receive(), finished = true; };
    EXPECT_EQ(V({watcher.Watch(unwatched.pid(), [&ran] { ran.Send('u'); }, idU), watcher.Watch(held.pid(), hold, id),
                 int64_t(watcher.Count())}), (V{ClientWatcher::kWatching, ClientWatcher::kWatching, 2}));
    watcher.Unwatch(idU);  // then killed first: had its watch been kept, its action would run first
    for (test::ChildProcess* c : {&unwatched, &held}) EXPECT_EQ(kill(c->pid(), SIGKILL) + c->Wait(), -1);
    ASSERT_EQ(ran.Receive(), '.');
    // Unwatch returns only once the running action is done.
    std::thread releaser([&release] { release.Send(); });
    watcher.Unwatch(id);
    EXPECT_TRUE(finished);
    releaser.join();
    EXPECT_EQ(watcher.Count(), 0u);
    // An ended (reaped) process and pids that name none are not watched.
    const pid_t gone = ended.pid();
    EXPECT_EQ(ended.Wait(), 0);
    auto none = [] {};
    test::LogCapture log;  // and are not asked of the kernel: no warning
    EXPECT_EQ(V({watcher.Watch(gone, none, id), int64_t(id), watcher.Watch(0, none, id), watcher.Watch(-1, none, id)}),
              (V{ClientWatcher::kGone, 0, ClientWatcher::kUnwatched, ClientWatcher::kUnwatched}));
    EXPECT_EQ(log.CountPrefix("W "), 0) << log.Dump();
}

TEST(ShutdownSignalsTest, TermAndIntArriveOnTheDescriptorInsteadOfKilling) {
    host::ShutdownSignals signals;
    ASSERT_TRUE(signals.Ok());
    pollfd pfd = {signals.Fd(), POLLIN, 0};
    for (int sig : {SIGTERM, SIGINT}) {
        EXPECT_EQ(signals.Take(), 0);
        ASSERT_EQ(pthread_kill(pthread_self(), sig), 0);
        ASSERT_EQ(poll(&pfd, 1, 20000), 1);
        EXPECT_EQ(signals.Take(), sig);
    }
}
}  // namespace
}  // namespace mixer
