#include <gtest/gtest.h>
#include <string>
#include "client/ControlProtocol.h"
namespace mixer {
namespace {
using client::ControlCommand;
using client::ControlProtocol;
using client::ControlReply;
using std::to_string;

// What a parsed request says: kind|type|volume|enable.
std::string Said(const ControlCommand& c) {
    return to_string(c.kind) + "|" + c.streamType + "|" + to_string(c.volume) + "|" + to_string(c.enable);
}

TEST(ControlProtocolTest, RequestsParseOrAreRefusedWithTheReason) {
    const std::string t64(64, 't'), percent = "volume must be a whole percent from 0 to 100, not ",
                                    ctl = "stream type contains a control character", big(20, '9');
    const struct { std::string line; bool ok; std::string text; } cases[] = {  // text: Said() or the reason
        {"volume music 30", true, "0|music|30|0"}, {"  speaker\t100 \r\n", true, "1||100|0"},
        {"speaker 0", true, "1||0|0"}, {"focus !", true, "2|!|0|0"}, {"mic on", true, "3||0|1"},
        {"volume " + t64 + " 5", true, "0|" + t64 + "|5|0"},
        {"status" + std::string(250, ' ') + "\r\n", true, "4||0|0"},
        {"status" + std::string(251, ' '), false, "request longer than 256 bytes"},
        {"", false, "empty request (try 'help')"}, {"   \t", false, "empty request (try 'help')"},
        {std::string(40, 'z'), false, "unknown request '" + std::string(32, 'z') + "' (try 'help')"},
        {"volume music", false, "usage: volume TYPE PERCENT"}, {"speaker", false, "usage: speaker PERCENT"},
        {"focus", false, "usage: focus TYPE|none"}, {"mic maybe", false, "usage: mic on|off"},
        {"latency 1", false, "usage: latency"}, {"volume music 101", false, percent + "'101'"},
        {"speaker 4.5", false, percent + "'4.5'"}, {"speaker " + big, false, percent + "'" + big + "'"},
        {"volume " + t64 + "t 5", false, "stream type longer than 64 characters"},
        {"focus a\x01" "b", false, ctl}, {"volume a\x7f 5", false, ctl},
    };
    for (const auto& c : cases) {
        ControlCommand cmd;
        std::string error;
        EXPECT_EQ(ControlProtocol::Parse(c.line, cmd, error), c.ok) << c.line;
        EXPECT_EQ(c.ok ? Said(cmd) : error, c.text);
    }
    EXPECT_EQ(ControlProtocol::FormatReply(ControlReply::Error("x\ny\r")), "ERR x y \n");  // one line, always
}
}  // namespace
}  // namespace mixer
