// The phone bridge end to end: the real NAT rule between three namespaces (phone, board, camera), and the
// daemon going on with its bridge port when no rule can be made.
//
//   phone  ph0 192.168.3.2 --- ap0 192.168.3.1  board (daemon on its defaults)
//                              wl0 192.168.2.2 --- cam0 192.168.2.1:9004  camera
//
// The phone talks to the camera's address; only the rule brings that to the daemon (the board does not
// forward), and only the rule's reverse mapping makes the replies come from 192.168.2.1:9004.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <sstream>

#include "net/files.h"
#include "bridge/mimo_bridge.h"
#include "sim/camera_side.h"
#include "camera/frame.h"
#include "support/child_process.h"
#include "support/isolation.h"
#include "support/netns.h"

namespace {

constexpr char kPhoneMarker[] = "phone app datagram";
constexpr const char* kRule =
    "-A PREROUTING -d 192.168.2.1/32 -i ap0 -p udp -m udp --dport 9004 -j REDIRECT --to-ports 9004";

int64_t NowMsSteady()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// A camera datagram fixed by its type and sequence number, so the phone can tell it arrived unchanged;
// payload bytes stay below the frame start byte, so the daemon finds no report in them.
std::vector<uint8_t> CameraDatagram(uint8_t type, uint16_t sequence)
{
    std::vector<uint8_t> datagram(kReceivedHeaderSize + 100 * type);
    BuildCameraDatagramHeader(datagram.data(), kReceivedHeaderSize, datagram.size(), type, sequence);
    for (size_t i = kReceivedHeaderSize; i < datagram.size(); ++i)
        datagram[i] = static_cast<uint8_t>((sequence + i) & 0x3f);
    return datagram;
}

std::vector<uint8_t> PhoneDatagram(uint8_t number)
{
    std::vector<uint8_t> datagram(64, number);
    memcpy(datagram.data(), kPhoneMarker, sizeof kPhoneMarker);
    return datagram;
}

// Plays the camera and the phone in one loop (no threads, nothing to lock) and records what each received.
// Pings and acks carry the camera's last sequence number, so `pings` and `acks` tell what the daemon did
// while it held which camera datagrams, however late the test itself looks.
struct Rig {
    Rig(std::unique_ptr<UdpPeer> camera_peer, std::unique_ptr<UdpPeer> phone_peer, std::string daemon_side,
        std::string phone_target, uint16_t port)
        : camera(std::move(camera_peer)), phone(std::move(phone_peer)), daemon_host(std::move(daemon_side)),
          camera_host(std::move(phone_target)), camera_port(port)
    {
    }

    std::unique_ptr<UdpPeer> camera, phone;
    std::string daemon_host, camera_host;  // the daemon's camera side; where the phone sends
    uint16_t camera_port;
    uint16_t daemon_port = 0, sequence = 0;
    bool talking = false;
    size_t phone_sent = 0, phone_at_camera = 0, connects = 0;
    size_t to_phone[3] = {};  // [0]: changed or not from the camera's address; [type]: unchanged
    std::vector<uint16_t> pings, acks;
    int64_t next_camera_ms = 0, next_phone_ms = 0;

    void Step()
    {
        uint16_t from_port = 0;
        std::string from_host;
        for (std::vector<uint8_t> got; !(got = camera->Receive(5, &from_port)).empty();) {
            daemon_port = from_port;  // a restarted daemon has a new one
            connects += got.size() == kConnectRequestSize && memcmp(got.data(), kConnectRequest, got.size()) == 0;
            // Nothing here makes the daemon send camera commands, so pings and acks are told by their sizes.
            if (got.size() == kPingDatagramSize || got.size() == kAckDatagramSize)
                (got.size() == kPingDatagramSize ? pings : acks).push_back(ReadLe16(got.data() + kCommandRxOffset));
            phone_at_camera += got == PhoneDatagram(got.back());
        }
        for (std::vector<uint8_t> got; !(got = phone->Receive(0, &from_port, &from_host)).empty();) {
            uint8_t type = got.size() > kTransportTypeOffset ? got[kTransportTypeOffset] : 0;
            bool intact = (type == kTransportDataStream || type == kTransportLiveVideo) &&
                          got == CameraDatagram(type, ReadLe16(got.data() + kReceivedSequenceOffset));
            to_phone[intact && from_host == camera_host && from_port == camera_port ? type : 0]++;
        }
        int64_t now = NowMsSteady();
        if (daemon_port != 0 && now >= next_camera_ms) {
            next_camera_ms = now + 100;
            for (uint8_t type : {kTransportDataStream, kTransportLiveVideo})
                camera->SendTo(daemon_host.c_str(), daemon_port, CameraDatagram(type, sequence++));
        }
        if (talking && now >= next_phone_ms) {
            next_phone_ms = now + 100;
            phone->SendTo(camera_host.c_str(), camera_port, PhoneDatagram(static_cast<uint8_t>(phone_sent++)));
        }
    }
    bool RunUntil(int timeout_ms, const std::function<bool()>& done)
    {
        for (int64_t end = NowMsSteady() + timeout_ms; !done(); Step())
            if (NowMsSteady() >= end)
                return false;
        return true;
    }
    void RunFor(int ms) { RunUntil(ms, [] { return false; }); }
    size_t PhoneGot() const { return to_phone[0] + to_phone[1] + to_phone[2]; }
    void ClearPhoneCounts() { memset(to_phone, 0, sizeof to_phone); }
    // Pings or acks answering camera datagrams numbered first..end-1 (unsigned distance: across a wrap too).
    static size_t Answering(const std::vector<uint16_t>& answers, uint16_t first, uint16_t end)
    {
        size_t count = 0;
        for (uint16_t rx : answers)
            count += static_cast<uint16_t>(rx - first) < static_cast<uint16_t>(end - first);
        return count;
    }
};

// The REDIRECT rules of a nat PREROUTING chain (ns null: the test's own namespace).
std::vector<std::string> Rules(const NetworkNamespace* ns, const std::string& iptables)
{
    std::string listing;
    std::vector<std::string> command = {iptables, "-t", "nat", "-S", "PREROUTING"};
    ns != nullptr ? ns->Run(command, &listing) : RunProgram(command, &listing);
    std::vector<std::string> rules;
    std::stringstream lines(listing);
    for (std::string line; std::getline(lines, line);)
        if (line.find("-j REDIRECT") != std::string::npos)
            rules.push_back(line);
    return rules;
}

void WriteApInterfaceFile(const char* text)  // null: no file
{
    mkdir("/run/tarnwickrelay", 0755);
    unlink(kApIfacePath);
    if (text != nullptr)
        WriteTextFile(kApIfacePath, text);
}

std::function<bool()> Logged(ChildProcess& daemon, const char* text)
{
    return [&daemon, text] { return daemon.Stderr().find(text) != std::string::npos; };
}

}  // namespace

TEST(BridgeNat, PhoneReachesTheCameraThroughTheBoardsNatRule)
{
    REQUIRE_ISOLATION();
    NetworkNamespace phone_ns("phone"), board("board"), camera_ns("camera");
    std::string error, why;
    ASSERT_TRUE(AddVethPair(board, "ap0", "192.168.3.1/24", phone_ns, "ph0", "192.168.3.2/24", &error) &&
                AddVethPair(board, "wl0", "192.168.2.2/24", camera_ns, "cam0", "192.168.2.1/24", &error) &&
                phone_ns.Run({"ip", "route", "add", "default", "via", "192.168.3.1"}, &error) == 0)
        << error;
    ASSERT_FALSE(FindProgram("iptables").empty()) << "iptables is missing: scripts/setup.sh installs it";
    std::string iptables = IptablesWithNat(board, &why);
    if (iptables.empty())
        GTEST_SKIP() << "the kernel offers no NAT table to iptables here, so no REDIRECT rule can work:\n" << why;
    // On a kernel with the old tables only, the daemon's "iptables" is the legacy one (the link goes with
    // the test's private /run).
    std::string daemon_path = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    if (iptables == "iptables-legacy") {
        mkdir("/run/legacy-bin", 0755);
        ASSERT_EQ(symlink(FindProgram(iptables).c_str(), "/run/legacy-bin/iptables"), 0);
        daemon_path = "PATH=/run/legacy-bin:" + daemon_path.substr(5);
    }
    WriteApInterfaceFile("ap0\n");
    Rig rig{camera_ns.NewPeer("192.168.2.1", 9004), phone_ns.NewPeer("192.168.3.2", 0), "192.168.2.2",
            "192.168.2.1", 9004};
    std::vector<std::string> arguments = {"netns", "exec", board.name(), FindProgram("env"), daemon_path, DaemonPath()};
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(FindProgram("ip"), arguments));
    // Generous waits throughout: sanitizer builds on a busy machine start slowly.
    ASSERT_TRUE(rig.RunUntil(20000, Logged(daemon, "Camera connection found\n"))) << daemon.Stderr();
    ASSERT_TRUE(rig.RunUntil(10000, [&] { return !Rules(&board, iptables).empty(); })) << daemon.Stderr();
    EXPECT_EQ(Rules(&board, iptables), std::vector<std::string>{kRule});

    // Before the phone says anything nothing goes to it, and the daemon keeps the camera alive itself.
    size_t pings = rig.pings.size(), acks = rig.acks.size();
    rig.RunFor(2000);
    EXPECT_EQ(rig.PhoneGot(), 0u);
    EXPECT_GT(rig.pings.size(), pings);
    EXPECT_GE(rig.acks.size(), acks + 5);

    // The phone talks: it gets the camera's datagrams unchanged, as from the camera; the camera gets the
    // phone's; the daemon's own pings and acks stop for every camera datagram it holds meanwhile.
    rig.talking = true;
    ASSERT_TRUE(rig.RunUntil(10000, [&] { return rig.PhoneGot() > 0; })) << "no answer:\n" << daemon.Stderr();
    ASSERT_TRUE(rig.RunUntil(1000, Logged(daemon, "DJI MIMO connection found\n"))) << daemon.Stderr();
    rig.ClearPhoneCounts();
    // The flag is up before the line is written: every camera datagram from now on meets it.
    size_t sent_before = rig.phone_sent, at_camera_before = rig.phone_at_camera, connects = rig.connects;
    uint16_t first = rig.sequence;
    rig.RunFor(3000);
    uint16_t end = rig.sequence;
    EXPECT_EQ(rig.to_phone[0], 0u) << "datagrams to the phone changed or not from 192.168.2.1:9004";
    EXPECT_GE(rig.to_phone[kTransportDataStream], 10u);
    EXPECT_GE(rig.to_phone[kTransportLiveVideo], 10u);
    EXPECT_GE(static_cast<uint16_t>(end - first), 20) << "the camera hardly sent anything";
    EXPECT_EQ(Rig::Answering(rig.pings, first, end), 0u) << "pings while the phone talked";
    EXPECT_EQ(Rig::Answering(rig.acks, first, end), 0u) << "video acknowledged while the phone talked";
    EXPECT_EQ(rig.connects, connects);
    size_t sent = rig.phone_sent - sent_before;
    EXPECT_TRUE(rig.RunUntil(5000, [&] { return rig.phone_at_camera - at_camera_before >= sent; }))
        << rig.phone_at_camera - at_camera_before << " of " << sent << " phone datagrams reached the camera";

    // A new source port: replies follow the phone's latest datagram.
    std::unique_ptr<UdpPeer> old_phone = std::move(rig.phone);
    rig.phone = phone_ns.NewPeer("192.168.3.2", 0);
    rig.ClearPhoneCounts();
    ASSERT_TRUE(rig.RunUntil(5000, [&] { return rig.PhoneGot() > 0; })) << "nothing reached the new port";
    rig.RunFor(300);
    while (!old_phone->Receive(0).empty()) {  // what was forwarded before the switch
    }
    rig.RunFor(1000);
    EXPECT_GT(rig.to_phone[1] + rig.to_phone[2], 5u);
    EXPECT_TRUE(old_phone->Receive(0).empty()) << "datagrams still went to the old port";
    EXPECT_FALSE(Logged(daemon, "DJI MIMO connection lost\n")()) << daemon.Stderr();

    // The phone falls silent: lost within two seconds (slack for a busy machine), forwarding stops, and
    // pings and acks resume.
    rig.talking = false;
    int64_t silent_from = NowMsSteady();
    ASSERT_TRUE(rig.RunUntil(4000, Logged(daemon, "DJI MIMO connection lost\n"))) << daemon.Stderr();
    EXPECT_GE(NowMsSteady() - silent_from, 800) << "lost before a second of silence";
    uint16_t lost = rig.sequence;
    EXPECT_TRUE(rig.RunUntil(4000, [&] { return Rig::Answering(rig.pings, lost, lost + 1000) > 0; }));
    EXPECT_TRUE(rig.RunUntil(3000, [&] { return Rig::Answering(rig.acks, lost, lost + 1000) > 0; }));
    rig.RunFor(300);
    rig.ClearPhoneCounts();
    rig.RunFor(500);
    EXPECT_EQ(rig.PhoneGot(), 0u) << "forwarding went on after the loss";
    EXPECT_EQ(daemon.WaitExit(0), -1) << "the daemon ended:\n" << daemon.Stderr();

    // A second start inserts the same rule again.
    daemon.Kill();
    ChildProcess second;
    ASSERT_TRUE(second.Start(FindProgram("ip"), arguments));
    EXPECT_TRUE(rig.RunUntil(20000, [&] { return Rules(&board, iptables).size() >= 2; })) << second.Stderr();
    EXPECT_EQ(Rules(&board, iptables), (std::vector<std::string>{kRule, kRule}));
    second.Kill();
}

// Without privilege, without an access-point name, or with port 9004 taken, no phone traffic can come
// through a rule; the daemon goes on, and where its bridge port opened a phone reaching it directly is
// bridged as usual. The unprivileged case runs first, before root daemons leave root-owned shared memory.
TEST(BridgeFallback, NoRuleTheDaemonGoesOn)
{
    REQUIRE_ISOLATION();
    struct {
        const char* name;
        bool privileged, port_taken;
        const char* ap_iface_file;  // null: no file
    } const cases[] = {{"unprivileged", false, false, "ap0\n"},
                       {"no access-point file", true, false, nullptr},
                       {"empty access-point file", true, false, ""},
                       {"port 9004 taken", true, true, "ap0\n"}};
    for (const auto& with : cases) {
        SCOPED_TRACE(with.name);
        bool bridged = !with.port_taken;
        WriteApInterfaceFile(with.ap_iface_file);
        std::unique_ptr<UdpPeer> holder(with.port_taken ? new UdpPeer("0.0.0.0", kMimoBridgePort) : nullptr);
        Rig rig{std::unique_ptr<UdpPeer>(new UdpPeer()), std::unique_ptr<UdpPeer>(new UdpPeer()), "127.0.0.1",
                "127.0.0.1", kMimoBridgePort};
        std::vector<std::string> arguments = {"--host", "127.0.0.1", "--port", std::to_string(rig.camera->port())};
        if (!with.privileged)
            arguments.insert(arguments.begin(),
                             {"--reuid=65534", "--regid=65534", "--clear-groups", "--", DaemonPath()});
        ChildProcess daemon;
        ASSERT_TRUE(daemon.Start(with.privileged ? DaemonPath() : FindProgram("setpriv"), arguments));
        ASSERT_TRUE(rig.RunUntil(20000, Logged(daemon, "Camera connection found\n"))) << daemon.Stderr();
        rig.talking = true;
        size_t pings = rig.pings.size(), acks = rig.acks.size();
        // The bridge port opens last: talk until ten answers.
        EXPECT_EQ(rig.RunUntil(bridged ? 10000 : 2500, [&] { return rig.PhoneGot() >= 10; }), bridged);
        EXPECT_EQ(rig.to_phone[0], 0u);
        EXPECT_EQ(rig.phone_at_camera > 0, bridged);
        EXPECT_TRUE(bridged || (rig.pings.size() > pings && rig.acks.size() > acks + 10))
            << "without a bridge the daemon keeps the camera alive itself";
        EXPECT_EQ(Rules(nullptr, "iptables").size(), bridged ? 0u : 1u);  // made before the port is bound
        rig.talking = false;
        EXPECT_EQ(rig.RunUntil(4000, Logged(daemon, "DJI MIMO connection lost\n")), bridged) << daemon.Stderr();
        EXPECT_EQ(daemon.WaitExit(500), -1) << "the daemon ended:\n" << daemon.Stderr();
    }
}

// The access-point name decides whether iptables runs at all: a name with a blank, one that would be an option, an
// empty file or none run nothing (and so print nothing of iptables'); "ap0", with or without the file's line feed,
// inserts the rule. An iptables in front of the real one logs every call; the bridge port opens in every case.
TEST(BridgeInterfaceName, OnlyAValidNameRunsIptables)
{
    REQUIRE_ISOLATION();
    const std::string real_iptables = FindProgram("iptables");
    ASSERT_FALSE(real_iptables.empty()) << "iptables is missing: scripts/setup.sh installs it";
    mkdir("/run/logging-bin", 0755);
    WriteTextFile("/run/logging-bin/iptables",
                  ("#!/bin/sh\necho \"$*\" >> /run/iptables-calls\nexec " + real_iptables + " \"$@\"\n").c_str());
    ASSERT_EQ(chmod("/run/logging-bin/iptables", 0755), 0);
    const struct {
        const char* ap_iface_file;  // null: no file
        bool runs;
    } cases[] = {{"lo -j DROP", false}, {"-x\n", false}, {"", false}, {nullptr, false}, {"ap0", true}, {"ap0\n", true}};
    for (const auto& with : cases) {
        SCOPED_TRACE(with.ap_iface_file != nullptr ? "'" + std::string(with.ap_iface_file) + "'" : "no file");
        RunProgram({"iptables", "-t", "nat", "-F", "PREROUTING"});
        unlink("/run/iptables-calls");
        WriteApInterfaceFile(with.ap_iface_file);
        ChildProcess daemon;
        ASSERT_TRUE(daemon.Start(FindProgram("env"), {"PATH=/run/logging-bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                                      DaemonPath(), "--host", "127.0.0.1", "--port", "19004"}));
        ASSERT_TRUE(WaitUntilPortTaken(kMimoBridgePort, 10000)) << daemon.Stderr();   // after the rule's command
        char calls[256];
        ReadSmallFile("/run/iptables-calls", calls, sizeof calls);
        EXPECT_EQ(std::string(calls), with.runs ? "-t nat -I PREROUTING -i ap0 --src 0/0 --dst 127.0.0.1 -p udp --dport 19004 -j "
                                     "REDIRECT --to-ports 9004\n"
                                   : "");
        EXPECT_EQ(Rules(nullptr, "iptables").size(), with.runs ? 1u : 0u);
        EXPECT_EQ(daemon.Stderr().find("iptables"), std::string::npos) << daemon.Stderr();
        EXPECT_EQ(daemon.Stderr().find("Bad argument"), std::string::npos) << daemon.Stderr();
        daemon.Kill();
    }
    RunProgram({"iptables", "-t", "nat", "-F", "PREROUTING"});
}
