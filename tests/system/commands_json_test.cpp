// The JSON command interpreter's rules through the real daemon: key and word
// case, first of duplicate keys, members that are not strings or missing,
// malformed JSON (then a good command is still served), datagrams that are
// dropped without a word, the movement setting and the zoom-rate message.
#include <gtest/gtest.h>

#include <string>

#include "support/command_peers.h"
#include "support/isolation.h"

namespace {

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

const std::string kShotFrame = ExpectedFrameHex(0x02, 0x01, "01");
const std::string kRecordStartFrame = ExpectedFrameHex(0x02, 0x02, "01");

class JsonCommandsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    }

    // The command's frames and log, when the log must be exactly `log`.
    void Expect(const std::string& json, const std::vector<std::string>& frames, const std::string& log)
    {
        CommandEffect effect = rig.Send(json);
        ASSERT_TRUE(effect.complete) << json << "\n" << rig.daemon.Stderr();
        EXPECT_EQ(effect.frames, frames) << json;
        EXPECT_EQ(effect.log, log) << json;
    }

    void ExpectLogged(const std::string& json, const std::vector<std::string>& frames, const std::string& more = "")
    {
        Expect(json, frames, "JSON commands from app: " + json + "\n" + more);
    }

    CommandRig rig;
};

TEST_F(JsonCommandsTest, KeysIgnoreCaseWordsDoNot)
{
    ExpectLogged(R"({"CMD":"shot"})", {kShotFrame}, "Camera shot\n");
    ExpectLogged(R"({"Cmd":"record","PaRaM":"start"})", {kRecordStartFrame}, "Record start\n");
    ExpectLogged(R"({"cmd":"SHOT"})", {});
    ExpectLogged(R"({"cmd":"record","param":"Start"})", {});
    ExpectLogged(R"({"cmd":"camera","param":"mode","VALUE":"photo"})", {ExpectedFrameHex(0x02, 0x10, "00", 0x09)},
                 "Camera set mode photo\n");
    // The first of two equal keys counts, whatever their case.
    ExpectLogged(R"({"cmd":"shot","CMD":"record","param":"start"})", {kShotFrame}, "Camera shot\n");
    ExpectLogged(R"({"cmd":"record","param":"stop","param":"start"})", {ExpectedFrameHex(0x02, 0x02, "00")},
                 "Record stop\n");
    // Unknown members are ignored; members may come in any order.
    ExpectLogged(R"({"id":7,"param":"start","extra":{"cmd":"shot"},"cmd":"record"})", {kRecordStartFrame},
                 "Record start\n");
}

// Members that are not strings count as absent; JSON that is no object has none; unknown words only log.
TEST_F(JsonCommandsTest, NonStringMembersAndUnknownWordsOnlyLog)
{
    for (const char* json : {R"({"cmd":"dzoom","param":"set","value":250})", R"({"cmd":"iso","param":400})",
                             R"({"cmd":["shot"]})", R"({"cmd":null})", R"({"cmd":true})", R"({})", R"(["cmd","shot"])",
                             R"("shot")", R"(42)",
                             R"({"cmd":"tracking","param":"start","value":"0.1","value2":"0.2","value3":"0.3","value4":0.4})",
                             R"({"cmd":"zoom","param":"in"})", R"({"cmd":"","param":""})", R"({"param":"start"})",
                             R"({"cmd":"record "})", R"({"cmd":"playback","param":"PLAY"})",
                             R"({"cmd":"gimbal","param":"speed","value":"1"})", R"({"cmd":"SET","name":"movement","value":"abs"})"})
        ExpectLogged(json, {});
    ExpectLogged(R"({"cmd":"wb","param":"custom","value":6500})", {}, "Camera set WB custom\n");
}

TEST_F(JsonCommandsTest, MalformedJsonIsLoggedAndTheNextCommandIsServed)
{
    for (const std::string& bad : {std::string(R"({"cmd":"shot")"), std::string(R"({"cmd":"shot",})"),
                                   std::string(R"({cmd:"shot"})"), std::string(""), std::string("   "),
                                   std::string("\x01\xff{")}) {
        Expect(bad, {}, "Malformed JSON command from app: " + bad + "\n");
        ExpectLogged(R"({"cmd":"shot"})", {kShotFrame}, "Camera shot\n");
    }
}

TEST_F(JsonCommandsTest, DatagramsDroppedWithoutAWord)
{
    // Neither "!" nor 05 first: nothing at all, not even a log line.
    for (const Bytes& datagram : {Text(R"({"cmd":"shot"})"), Text(" !{\"cmd\":\"shot\"}"), Bytes{0x05},
                                  Bytes{0x05, 0x02, 0xfe, 0xff}, Bytes{0x05, 0x01, 0xfe, 0xff}, Bytes{0x00},
                                  Bytes(9000, 0xff)}) {
        CommandEffect effect = rig.SendDatagram(datagram);
        ASSERT_TRUE(effect.complete) << rig.daemon.Stderr();
        EXPECT_TRUE(effect.frames.empty());
        EXPECT_EQ(effect.log, "");
    }
}

TEST_F(JsonCommandsTest, TextEndsAtTheFirstZeroByte)
{
    Bytes datagram = Text(R"(!{"cmd":"shot"})");
    datagram.push_back(0);
    Bytes junk = Text(R"(,"cmd":"record","param":"start"})");
    datagram.insert(datagram.end(), junk.begin(), junk.end());
    CommandEffect effect = rig.SendDatagram(datagram);
    ASSERT_TRUE(effect.complete);
    EXPECT_EQ(effect.frames, std::vector<std::string>{kShotFrame});
    EXPECT_EQ(effect.log, "JSON commands from app: {\"cmd\":\"shot\"}\nCamera shot\n");

    // The parser stops after the object: text behind it is not looked at.
    ExpectLogged(R"({"cmd":"shot"} {"cmd":"record","param":"start"})", {kShotFrame}, "Camera shot\n");

    // A large command (white space up to 9000 bytes) is read whole.
    std::string padded = R"({"cmd":"record",)" + std::string(8950, ' ') + R"("param":"start"})";
    ExpectLogged(padded, {kRecordStartFrame}, "Record start\n");
}

// The movement setting ("set" is case-sensitive) writes no log and sends nothing.
TEST_F(JsonCommandsTest, MovementSettingWritesNoLogAndSendsNothing)
{
    for (const char* json : {R"({"cmd":"set","name":"movement","value":"abs"})",
                             R"({"cmd":"set","name":"movement","value":"rel"})",
                             R"({"cmd":"set","name":"movement","value":"ABS"})",
                             R"({"cmd":"set","name":"zoom","value":"abs"})", R"({"cmd":"set"})",
                             R"({"CMD":"set","NAME":"movement","VALUE":"abs"})"})
        Expect(json, {}, "");
}

}  // namespace
