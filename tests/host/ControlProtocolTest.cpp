#include "host/ControlProtocol.h"

#include <gtest/gtest.h>

namespace mixer {
namespace {

using host::ControlCommand;
using host::ControlProtocol;
using host::ControlReply;

ControlCommand Ok(const std::string& line) {
    ControlCommand cmd;
    std::string error;
    EXPECT_TRUE(ControlProtocol::Parse(line, cmd, error)) << line << ": " << error;
    return cmd;
}

std::string Err(const std::string& line) {
    ControlCommand cmd;
    cmd.kind = ControlCommand::kLatency;
    std::string error;
    EXPECT_FALSE(ControlProtocol::Parse(line, cmd, error)) << line;
    EXPECT_EQ(cmd.kind, ControlCommand::kLatency) << "a refused line must leave cmd alone";
    EXPECT_EQ(error.find('\n'), std::string::npos);
    return error;
}

TEST(ControlProtocolTest, EveryRequestParsesWithItsArguments) {
    ControlCommand c = Ok("volume music 30");
    EXPECT_EQ(c.kind, ControlCommand::kStreamVolume);
    EXPECT_EQ(c.streamType, "music");
    EXPECT_EQ(c.volume, 30u);
    c = Ok("  speaker\t100 \r\n");
    EXPECT_EQ(c.kind, ControlCommand::kSpeakerVolume);
    EXPECT_EQ(c.volume, 100u);
    c = Ok("speaker 0");
    EXPECT_EQ(c.volume, 0u);
    c = Ok("focus prompt");
    EXPECT_EQ(c.kind, ControlCommand::kFocus);
    EXPECT_EQ(c.streamType, "prompt");
    EXPECT_EQ(Ok("focus none").streamType, "");
    c = Ok("mic on");
    EXPECT_EQ(c.kind, ControlCommand::kMic);
    EXPECT_TRUE(c.enable);
    EXPECT_FALSE(Ok("mic off").enable);
    EXPECT_EQ(Ok("status").kind, ControlCommand::kStatus);
    EXPECT_EQ(Ok("latency").kind, ControlCommand::kLatency);
    EXPECT_EQ(Ok("help").kind, ControlCommand::kHelp);
    EXPECT_EQ(Ok("volume " + std::string(64, 't') + " 5").streamType.size(), 64u);
}

TEST(ControlProtocolTest, BadRequestsGetAReasonThatSaysWhatIsWrong) {
    EXPECT_EQ(Err(""), "empty request (try 'help')");
    EXPECT_EQ(Err("   \t"), "empty request (try 'help')");
    EXPECT_EQ(Err("explode now"), "unknown request 'explode' (try 'help')");
    EXPECT_EQ(Err("VOLUME music 3"), "unknown request 'VOLUME' (try 'help')");
    EXPECT_EQ(Err("volume music"), "usage: volume TYPE PERCENT");
    EXPECT_EQ(Err("volume music 3 4"), "usage: volume TYPE PERCENT");
    EXPECT_EQ(Err("volume music 101"), "volume must be a whole percent from 0 to 100, not '101'");
    EXPECT_EQ(Err("volume music -1"), "volume must be a whole percent from 0 to 100, not '-1'");
    EXPECT_EQ(Err("speaker 4.5"), "volume must be a whole percent from 0 to 100, not '4.5'");
    EXPECT_EQ(Err("speaker 99999999999999999999"),
              "volume must be a whole percent from 0 to 100, not '99999999999999999999'");
    EXPECT_EQ(Err("speaker"), "usage: speaker PERCENT");
    EXPECT_EQ(Err("focus"), "usage: focus TYPE|none");
    EXPECT_EQ(Err("mic maybe"), "usage: mic on|off");
    EXPECT_EQ(Err("status now"), "usage: status");
    EXPECT_EQ(Err("volume " + std::string(65, 't') + " 5"), "stream type longer than 64 characters");
    EXPECT_EQ(Err(std::string("focus a\x01" "b")), "stream type contains a control character");
    EXPECT_EQ(Err("status" + std::string(300, ' ')), "request longer than 256 bytes");
}

TEST(ControlProtocolTest, RepliesSurviveTheRoundTrip) {
    ControlReply r;
    ASSERT_TRUE(ControlProtocol::ParseReply(ControlProtocol::FormatReply(ControlReply::Ok()), r));
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.text, "");
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Ok("a\nb")), "OK\na\nb\n");
    ASSERT_TRUE(ControlProtocol::ParseReply("OK\na\nb\n", r));
    EXPECT_EQ(r.text, "a\nb\n");
    // An error is one line even when its reason was not.
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Error("x\ny")), "ERR x y\n");
    ASSERT_TRUE(ControlProtocol::ParseReply("ERR x y\n", r));
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.text, "x y");
    EXPECT_FALSE(ControlProtocol::ParseReply("", r));
    EXPECT_FALSE(ControlProtocol::ParseReply("HELLO\n", r));
}

}  // namespace
}  // namespace mixer

#include "host/StreamQueueName.h"

namespace mixer {
namespace {

TEST(StreamQueueNameTest, LeadingSlashesDoNotChangeTheQueue) {
    EXPECT_EQ(host::StreamQueueName("music1"), "/mixer-music1");
    EXPECT_EQ(host::StreamQueueName("/music1"), "/mixer-music1");
    EXPECT_EQ(host::StreamQueueName("//micRaw"), "/mixer-micRaw");
    EXPECT_STREQ(host::kTypeDataTrans, "dataTrans");
}

}  // namespace
}  // namespace mixer
