#include "host/DaemonOptions.h"

#include <gtest/gtest.h>

#include <vector>

namespace mixer {
namespace {

using host::DaemonOptions;

DaemonOptions::Result Parse(std::vector<std::string> args, DaemonOptions& o, std::string& error) {
    args.insert(args.begin(), "mixerd");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    return DaemonOptions::Parse(static_cast<int>(args.size()), argv.data(), o, error);
}

TEST(DaemonOptionsTest, DefaultsAndEveryOption) {
    DaemonOptions o;
    std::string error;
    ASSERT_EQ(Parse({}, o, error), DaemonOptions::kRun);
    EXPECT_EQ(o.output, "alsa");
    EXPECT_EQ(o.device, "default");
    EXPECT_EQ(o.rate, 48000u);
    EXPECT_EQ(o.volume, 40u);
    EXPECT_FALSE(o.haveLogMask);
    ASSERT_EQ(Parse({"--output", "wav", "--out-file", "/tmp/o.wav", "--mic=tone", "--rate", "44100",
                     "--channels", "1", "--device-rate", "16000", "--mic-rate", "8000", "--mic-channels",
                     "2", "--volume", "52", "--socket", "/tmp/s", "--status-file", "/tmp/st",
                     "--log-mask", "0x2000020", "--log-stderr", "--ready-fd", "9", "--mic-off", "--device", "hw:1,0", "--mic-device", "hw:2"},
                    o, error),
              DaemonOptions::kRun)
        << error;
    EXPECT_EQ(o.output, "wav");
    EXPECT_EQ(o.outFile, "/tmp/o.wav");
    EXPECT_EQ(o.mic, "tone");
    EXPECT_EQ(o.rate, 44100u);
    EXPECT_EQ(o.channels, 1u);
    EXPECT_EQ(o.deviceRate, 16000u);
    EXPECT_EQ(o.micRate, 8000u);
    EXPECT_EQ(o.micChannels, 2u);
    EXPECT_EQ(o.volume, 52u);
    EXPECT_EQ(o.socketPath, "/tmp/s");
    EXPECT_EQ(o.statusFile, "/tmp/st");
    EXPECT_TRUE(o.haveLogMask);
    EXPECT_EQ(o.logMask, 0x2000020u);
    EXPECT_TRUE(o.logStderr);
    EXPECT_EQ(o.readyFd, 9);
    EXPECT_TRUE(o.micOff);
    EXPECT_EQ(o.device, "hw:1,0");
    EXPECT_EQ(o.micDevice, "hw:2");
    EXPECT_EQ(Parse({"--help"}, o, error), DaemonOptions::kHelp);
    EXPECT_EQ(Parse({"-V"}, o, error), DaemonOptions::kVersion);
}

TEST(DaemonOptionsTest, BadCommandLinesSayWhatIsWrongAndChangeNothing) {
    DaemonOptions o;
    o.volume = 33;
    std::string error;
    EXPECT_EQ(Parse({"--volume", "101"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "bad value '101' for --volume (see --help)");
    EXPECT_EQ(Parse({"--rate", "-48000"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "bad value '-48000' for --rate (see --help)");
    EXPECT_EQ(Parse({"--output", "speaker"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "bad value 'speaker' for --output (see --help)");
    EXPECT_EQ(Parse({"--frobnicate"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "unknown option --frobnicate (see --help)");
    EXPECT_EQ(Parse({"--socket"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "option --socket needs a value");
    EXPECT_EQ(Parse({"stray"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "unexpected argument 'stray' (see --help)");
    EXPECT_EQ(Parse({"--mic", "wav"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(error, "--mic wav needs --mic-file");
    EXPECT_EQ(Parse({"--log-mask", "EWX"}, o, error), DaemonOptions::kError);
    EXPECT_EQ(Parse({"--ready-fd", "1"}, o, error), DaemonOptions::kError);  // not stdout
    EXPECT_EQ(o.volume, 33u);
}

TEST(DaemonOptionsTest, LogMaskTakesNumbersOrLevelLetters) {
    uint32_t m = 0;
    EXPECT_TRUE(DaemonOptions::ParseLogMask("EWIDP", m));
    EXPECT_EQ(m, 0x2000000u | 0x1000000u | 0x800000u | 0x8000u | 0x20u);
    EXPECT_TRUE(DaemonOptions::ParseLogMask("E", m));
    EXPECT_EQ(m, 0x2000000u);
    EXPECT_TRUE(DaemonOptions::ParseLogMask("0", m));
    EXPECT_EQ(m, 0u);
    EXPECT_TRUE(DaemonOptions::ParseLogMask("8421376", m));
    EXPECT_EQ(m, 8421376u);
    EXPECT_FALSE(DaemonOptions::ParseLogMask("", m));
    EXPECT_FALSE(DaemonOptions::ParseLogMask("0x1FFFFFFFF", m));
    EXPECT_FALSE(DaemonOptions::ParseLogMask("12ab", m));
    EXPECT_FALSE(DaemonOptions::ParseLogMask("ew", m));
}

}  // namespace
}  // namespace mixer
