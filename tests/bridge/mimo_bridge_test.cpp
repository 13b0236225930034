// The NAT rule's command text, and texts the shell would read refused. (The bridge itself is tested as a
// daemon in private namespaces, in tests/system/bridge_test.cpp.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bridge/mimo_bridge.h"

TEST(NatRuleCommand, FormatsTheRuleOrRefusesTextsTheShellWouldRead)
{
    const struct {
        const char* ap_iface;
        const char* host;
        int32_t port;
        const char* command_middle;  // between "-i " and " -j REDIRECT --to-ports 9004"; null: refused
    } cases[] = {
        {"wlan0", "192.168.2.1", 9004, "wlan0 --src 0/0 --dst 192.168.2.1 -p udp --dport 9004"},
        {"uap0 ", "10.0.0.7", 12345, "uap0  --src 0/0 --dst 10.0.0.7 -p udp --dport 12345"},  // line feed as blank
        // The longest texts start-up can hand over: a 10-byte name, a 21-character host.
        {"abcdefghij", "123456789012345678901", -2147483647,
         "abcdefghij --src 0/0 --dst 123456789012345678901 -p udp --dport -2147483647"},
        {"br-lan.1+", "192.168.2.1", 9004, "br-lan.1+ --src 0/0 --dst 192.168.2.1 -p udp --dport 9004"},
        // Nothing that the shell reads, no option, no empty name (iptables would only say "Bad argument").
        {"a;reboot", "192.168.2.1", 9004, nullptr}, {"$(id)", "192.168.2.1", 9004, nullptr},
        {"ap0|x", "192.168.2.1", 9004, nullptr},    {"ap0", "1.2.3.4`x`", 9004, nullptr},
        {"ap0", "1.2.3.4>/f", 9004, nullptr},       {"ap0\t", "192.168.2.1", 9004, nullptr},
        {"lo -j DROP", "192.168.2.1", 9004, nullptr}, {"-x", "192.168.2.1", 9004, nullptr},
        {"", "192.168.2.1", 9004, nullptr},         {" ", "192.168.2.1", 9004, nullptr},
        {" ap0", "192.168.2.1", 9004, nullptr},     {"ap/0", "192.168.2.1", 9004, nullptr},
        {"abcdefghijklmnop", "192.168.2.1", 9004, nullptr},   // 16 characters
        {"ap0", "1.2.3.4 -j DROP", 9004, nullptr},  {"ap0", "", 9004, nullptr},
    };
    for (const auto& rule : cases) {
        SCOPED_TRACE(std::string("iface '") + rule.ap_iface + "' host '" + rule.host + "'");
        char command[kNatCommandCapacity];
        memset(command, 'x', sizeof command);
        int result = FormatNatRuleCommand(command, sizeof command, rule.ap_iface, rule.host, rule.port);
        EXPECT_EQ(result, rule.command_middle != nullptr ? 0 : -1);
        EXPECT_EQ(std::string(command), rule.command_middle == nullptr ? std::string()
                                        : "iptables -t nat -I PREROUTING -i " + std::string(rule.command_middle) +
                                              " -j REDIRECT --to-ports 9004");
        // The buffer is zeroed first: nothing of an earlier text is left behind it (all of it when refused).
        for (size_t i = strlen(command); i < sizeof command; ++i)
            ASSERT_EQ(command[i], '\0') << "at " << i;
    }
}
