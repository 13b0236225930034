// The JSON command interpreter's rules through the real daemon: key and word case, the first of duplicate keys,
// members that are not strings, unknown words, the movement setting, malformed JSON followed by a good command,
// datagrams dropped without a word, and where the text of a datagram ends.
#include <gtest/gtest.h>

#include <string>

#include "support/command_peers.h"

namespace {

const std::string kShot = ExpectedFrameHex(0x02, 0x01, "01"), kRecordStart = ExpectedFrameHex(0x02, 0x02, "01");

class JsonCommandsTest : public CommandRigTest {
protected:
    // The datagram's frames and its whole log.
    void Expect(const std::string& datagram, const std::vector<std::string>& frames, const std::string& log)
    {
        CommandEffect effect = rig.SendDatagram(Bytes(datagram.begin(), datagram.end()));
        ASSERT_TRUE(effect.complete) << datagram << "\n" << rig.daemon.Stderr();
        EXPECT_EQ(effect.frames, frames) << datagram;
        EXPECT_EQ(effect.log, log) << datagram;
    }
};

TEST_F(JsonCommandsTest, KeysIgnoreCaseWordsDoNot)
{
    Check({
        {R"({"CMD":"shot"})", {kShot}, "Camera shot\n"},
        {R"({"Cmd":"record","PaRaM":"start"})", {kRecordStart}, "Record start\n"},
        {R"({"cmd":"camera","param":"mode","VALUE":"photo"})", {ExpectedFrameHex(0x02, 0x10, "00", 0x09)},
         "Camera set mode photo\n"},
        // The first of two equal keys counts, whatever their case; unknown members are ignored, in any order.
        {R"({"cmd":"shot","CMD":"record","param":"start"})", {kShot}, "Camera shot\n"},
        {R"({"cmd":"record","param":"stop","param":"start"})", {ExpectedFrameHex(0x02, 0x02, "00")}, "Record stop\n"},
        {R"({"id":7,"param":"start","extra":{"cmd":"shot"},"cmd":"record"})", {kRecordStart}, "Record start\n"},
        {R"({"cmd":"wb","param":"custom","value":6500})", {}, "Camera set WB custom\n"},
    });
    // Words are case-sensitive; members that are not strings are absent; JSON that is no object has none.
    for (const char* json :
         {R"({"cmd":"SHOT"})", R"({"cmd":"record","param":"Start"})", R"({"cmd":"dzoom","param":"set","value":250})",
          R"({"cmd":"iso","param":400})", R"({"cmd":["shot"]})", R"({"cmd":null})", R"({"cmd":true})", R"({})",
          R"(["cmd","shot"])", R"("shot")", R"(42)", R"({"cmd":"zoom","param":"in"})", R"({"cmd":"","param":""})",
          R"({"param":"start"})", R"({"cmd":"record "})", R"({"cmd":"playback","param":"PLAY"})",
          R"({"cmd":"gimbal","param":"speed","value":"1"})", R"({"cmd":"SET","name":"movement","value":"abs"})",
          R"({"cmd":"tracking","param":"start","value":"0.1","value2":"0.2","value3":"0.3","value4":0.4})"})
        Check({{json, {}, ""}});
    // The movement setting writes no log and sends nothing.
    for (const char* value : {"abs", "rel", "ABS"})
        Expect(std::string(R"(!{"cmd":"set","name":"movement","value":")") + value + "\"}", {}, "");
    for (const char* json : {R"({"cmd":"set","name":"zoom","value":"abs"})", R"({"cmd":"set"})",
                             R"({"CMD":"set","NAME":"movement","VALUE":"abs"})"})
        Expect(std::string("!") + json, {}, "");
}

TEST_F(JsonCommandsTest, MalformedDroppedAndCutDatagrams)
{
    const std::string shot = R"({"cmd":"shot"})";
    for (const std::string bad : {R"({"cmd":"shot")", R"({"cmd":"shot",})", R"({cmd:"shot"})", "", " ", "\x01\xff{"}) {
        Expect("!" + bad, {}, "Malformed JSON command from app: " + bad + "\n");
        Check({{shot, {kShot}, "Camera shot\n"}});
    }
    // Neither "!" nor 05 01 first: nothing at all, not even a log line.
    for (const std::string& datagram : {shot, " !" + shot, std::string("\x05"), std::string("\x05\x02\xfe\xff"),
                                        std::string("\x05\x01\xfe\xff"), std::string(1, 0), std::string(9000, '\xff')})
        Expect(datagram, {}, "");
    // The text ends at the first zero byte, and the parser stops after the object.
    Expect("!" + shot + std::string(1, '\0') + R"(,"cmd":"record","param":"start"})", {kShot},
           "JSON commands from app: " + shot + "\nCamera shot\n");
    Check({{shot + R"( {"cmd":"record","param":"start"})", {kShot}, "Camera shot\n"},
           // A large command (white space up to 9000 bytes) is read whole.
           {R"({"cmd":"record",)" + std::string(8950, ' ') + R"("param":"start"})", {kRecordStart}, "Record start\n"}});
}

}  // namespace
