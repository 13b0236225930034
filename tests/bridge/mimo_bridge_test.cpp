// The NAT rule's command text. (The bridge itself binds port 9004 and runs
// iptables, so it is tested as a daemon in private namespaces, in
// tests/system/bridge_test.cpp.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bridge/mimo_bridge.h"

namespace {

struct RuleCase {
    const char* ap_iface;
    const char* host;
    int32_t port;
    const char* command;  // null: refused, nothing for the shell
};

}  // namespace

TEST(NatRuleCommand, FormatsTheRuleOrRefusesTextsTheShellWouldRead)
{
    const RuleCase cases[] = {
        {"wlan0", "192.168.2.1", 9004,
         "iptables -t nat -I PREROUTING -i wlan0 --src 0/0 --dst 192.168.2.1 -p udp --dport 9004 -j REDIRECT "
         "--to-ports 9004"},
        // The name file's line feed arrives as a blank.
        {"uap0 ", "10.0.0.7", 12345,
         "iptables -t nat -I PREROUTING -i uap0  --src 0/0 --dst 10.0.0.7 -p udp --dport 12345 -j REDIRECT "
         "--to-ports 9004"},
        // No name: the command runs and fails in iptables, as without privilege.
        {"", "192.168.2.1", 9004,
         "iptables -t nat -I PREROUTING -i  --src 0/0 --dst 192.168.2.1 -p udp --dport 9004 -j REDIRECT "
         "--to-ports 9004"},
        {"br-lan.1", "192.168.2.1", 0,
         "iptables -t nat -I PREROUTING -i br-lan.1 --src 0/0 --dst 192.168.2.1 -p udp --dport 0 -j REDIRECT "
         "--to-ports 9004"},
        {"wl+", "192.168.2.1", -1,
         "iptables -t nat -I PREROUTING -i wl+ --src 0/0 --dst 192.168.2.1 -p udp --dport -1 -j REDIRECT "
         "--to-ports 9004"},
        {"a;reboot", "192.168.2.1", 9004, nullptr},
        {"$(id)", "192.168.2.1", 9004, nullptr},
        {"ap0|x", "192.168.2.1", 9004, nullptr},
        {"ap0", "1.2.3.4`x`", 9004, nullptr},
        {"ap0", "1.2.3.4>/f", 9004, nullptr},
        {"ap0\t", "192.168.2.1", 9004, nullptr},
    };
    for (const RuleCase& rule : cases) {
        SCOPED_TRACE(std::string("iface '") + rule.ap_iface + "' host '" + rule.host + "'");
        char command[kNatCommandCapacity];
        memset(command, 'x', sizeof command);
        int result = FormatNatRuleCommand(command, sizeof command, rule.ap_iface, rule.host, rule.port);
        if (rule.command == nullptr) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(command[0], '\0');
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_STREQ(command, rule.command);
        }
        // The buffer is zeroed first: nothing of an earlier text is left behind it.
        for (size_t i = strlen(command); i < sizeof command; ++i)
            ASSERT_EQ(command[i], '\0') << "at " << i;
    }
}

TEST(NatRuleCommand, LongestTextsFitTheBuffer)
{
    // The longest texts start-up can hand over: a 10-byte name, a 21-character host.
    char command[kNatCommandCapacity];
    ASSERT_EQ(FormatNatRuleCommand(command, sizeof command, "abcdefghij", "123456789012345678901", -2147483647),
              0);
    EXPECT_STREQ(command,
                 "iptables -t nat -I PREROUTING -i abcdefghij --src 0/0 --dst 123456789012345678901 -p udp "
                 "--dport -2147483647 -j REDIRECT --to-ports 9004");
}

TEST(MimoBridge, NothingIsForwardedBeforeThePhoneAppears)
{
    // The bridge is not open in this process: no phone, no flag, and a camera
    // datagram handed over goes nowhere.
    const uint8_t datagram[40] = {};
    ForwardToPhone(datagram, sizeof datagram);
    ForwardToPhone(nullptr, 0);
    EXPECT_FALSE(IsMimoConnected());
}
