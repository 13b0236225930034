// The phone bridge end to end, with real routing and a real NAT rule: three
// namespaces stand for the phone, the board and the camera.
//
//   phone               board                          camera
//   ph0 192.168.3.2 --- ap0 192.168.3.1  (daemon)
//                       wl0 192.168.2.2 ------------- cam0 192.168.2.1:9004
//
// The daemon runs in the board namespace on its defaults (camera
// 192.168.2.1:9004, main application 127.0.0.1:5000) with ap0 named as the
// access-point interface, and inserts its rule with the real iptables. The
// phone talks to the camera's address as it would through the board's access
// point; only the rule brings its datagrams to the daemon (the board does not
// forward), and only the rule's reverse mapping makes the daemon's replies
// come from 192.168.2.1:9004. These addresses exist only in the namespaces
// the test makes; all of them, with their links and rules, go when it ends.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "bridge/mimo_bridge.h"
#include "camera/frame.h"
#include "support/child_process.h"
#include "support/isolation.h"
#include "support/netns.h"
#include "support/streaming_camera.h"

namespace {

constexpr const char* kCameraAddress = "192.168.2.1";
constexpr uint16_t kCameraPort = 9004;
constexpr const char* kPhoneAddress = "192.168.3.2";
constexpr const char* kBoardApAddress = "192.168.3.1";
constexpr const char* kApInterface = "ap0";
constexpr const char* kBanner = "\nDJI Pocket 2 Wi-Fi client\n";

// The board, phone and camera namespaces with their links.
struct Network {
    NetworkNamespace phone{"phone"};
    NetworkNamespace board{"board"};
    NetworkNamespace camera{"camera"};
    std::string iptables;       // the program that changes the NAT table here
    std::string daemon_path;    // PATH for the daemon, where "iptables" is that program
    std::string skip_reason;    // set when the kernel offers no NAT

    ~Network()
    {
        unlink("/run/bridge-test-bin/iptables");
        rmdir("/run/bridge-test-bin");
    }

    bool Build(std::string* error)
    {
        if (!phone.ok() || !board.ok() || !camera.ok()) {
            *error = "namespaces";
            return false;
        }
        if (!AddVethPair(board, kApInterface, std::string(kBoardApAddress) + "/24", phone, "ph0",
                         std::string(kPhoneAddress) + "/24", error) ||
            !AddVethPair(board, "wl0", "192.168.2.2/24", camera, "cam0", std::string(kCameraAddress) + "/24", error))
            return false;
        // Through the access point the phone reaches everything via the board.
        if (phone.Run({"ip", "route", "add", "default", "via", kBoardApAddress}, error) != 0)
            return false;
        iptables = IptablesWithNat(board, &skip_reason);
        daemon_path = "/usr/sbin:/usr/bin:/sbin:/bin";
        if (iptables == "iptables-legacy") {
            // A kernel with the old tables only: the daemon's "iptables" is the legacy one.
            mkdir("/run/bridge-test-bin", 0755);
            unlink("/run/bridge-test-bin/iptables");
            if (symlink(FindProgram(iptables).c_str(), "/run/bridge-test-bin/iptables") != 0) {
                *error = "cannot link iptables-legacy";
                return false;
            }
            daemon_path = "/run/bridge-test-bin:" + daemon_path;
        }
        return true;
    }

    // The REDIRECT rules of the board's nat PREROUTING chain, one a line.
    std::vector<std::string> Rules() const
    {
        std::string listing;
        board.Run({iptables, "-t", "nat", "-S", "PREROUTING"}, &listing);
        std::vector<std::string> rules;
        std::stringstream lines(listing);
        std::string line;
        while (std::getline(lines, line))
            if (line.find("-j REDIRECT") != std::string::npos)
                rules.push_back(line);
        return rules;
    }

    bool WaitForRules(size_t count, int timeout_ms) const
    {
        int64_t deadline = SteadyMs() + timeout_ms;
        while (Rules().size() < count && SteadyMs() < deadline)
            usleep(50000);
        return Rules().size() >= count;
    }

    // The daemon, on its defaults, in the board namespace.
    bool StartDaemon(ChildProcess* daemon) const
    {
        std::vector<std::string> command = board.ExecPrefix();
        command.insert(command.end(), {FindProgram("env"), "PATH=" + daemon_path, DaemonPath()});
        return daemon->Start(command[0], std::vector<std::string>(command.begin() + 1, command.end()));
    }
};

void WriteApInterfaceFile(const char* text)
{
    mkdir("/run/tarnwickrelay", 0755);
    FILE* file = fopen("/run/tarnwickrelay/ap.iface", "w");
    ASSERT_NE(file, nullptr);
    fputs(text, file);
    fclose(file);
}

void ExpectRuleForTheCamera(const std::string& rule)
{
    for (const char* part : {"-d 192.168.2.1/32", "-i ap0", "-p udp", "--dport 9004", "--to-ports 9004"})
        EXPECT_NE(rule.find(part), std::string::npos) << "rule: " << rule;
}

// The phone app: one socket (its current source port) in `ns` (null: the
// test's own), numbered datagrams to the camera's address as the phone knows
// it, and checks on what comes back from there.
struct Phone {
    const NetworkNamespace* ns;
    std::string own_host;
    std::string camera_host;
    uint16_t camera_port;
    std::unique_ptr<NamespaceUdpSocket> socket;
    uint32_t sent = 0;

    Phone(const NetworkNamespace* phone_ns, const char* phone_host, const char* to_host, uint16_t to_port)
        : ns(phone_ns), own_host(phone_host), camera_host(to_host), camera_port(to_port)
    {
        NewSourcePort();
    }
    void NewSourcePort() { socket.reset(new NamespaceUdpSocket(ns, own_host.c_str(), 0)); }
    void Send() { socket->SendTo(camera_host.c_str(), camera_port, PhoneDatagram(sent++)); }

    // Talks every 100 ms for `duration_ms` (or until `stop_after` datagrams
    // came back) and receives meanwhile; every datagram must come from the
    // camera's address as the camera sent it. Returns how many of each type
    // (1, 2) arrived.
    std::pair<size_t, size_t> Talk(int duration_ms, size_t stop_after = SIZE_MAX)
    {
        size_t stream = 0, video = 0, foreign = 0, changed = 0;
        std::string first_foreign;
        int64_t end = SteadyMs() + duration_ms;
        int64_t next_send = 0;
        while (SteadyMs() < end && stream + video < stop_after) {
            if (SteadyMs() >= next_send) {
                Send();
                next_send = SteadyMs() + 100;
            }
            std::string from_host;
            uint16_t from_port = 0;
            std::vector<uint8_t> datagram = socket->Receive(10, &from_host, &from_port);
            if (datagram.empty())
                continue;
            if (from_host != camera_host || from_port != camera_port) {
                if (foreign++ == 0)
                    first_foreign = from_host + ":" + std::to_string(from_port);
            }
            if (!IsStreamDatagram(datagram))
                ++changed;
            else
                (datagram[kTransportTypeOffset] == kTransportLiveVideo ? video : stream) += 1;
        }
        EXPECT_EQ(foreign, 0u) << "datagrams to the phone not from the camera's address, first from "
                               << first_foreign;
        EXPECT_EQ(changed, 0u) << "datagrams changed on their way to the phone";
        return {stream, video};
    }

    // Datagrams arriving on `which` within `duration_ms`, without talking.
    static size_t Listen(NamespaceUdpSocket& which, int duration_ms)
    {
        size_t count = 0;
        int64_t end = SteadyMs() + duration_ms;
        while (SteadyMs() < end)
            if (!which.Receive(10).empty())
                ++count;
        return count;
    }
};

}  // namespace

TEST(BridgeNat, PhoneReachesTheCameraThroughTheBoardsNatRule)
{
    REQUIRE_ISOLATION();
    Network network;
    std::string error;
    ASSERT_FALSE(FindProgram("iptables").empty()) << "iptables is missing: scripts/setup.sh installs it";
    ASSERT_TRUE(network.Build(&error)) << error;
    if (network.iptables.empty())
        GTEST_SKIP() << "the kernel offers no NAT table to iptables here, so no REDIRECT rule can work:\n"
                     << network.skip_reason;
    WriteApInterfaceFile("ap0\n");

    StreamingCamera camera(&network.camera, kCameraAddress, kCameraPort);
    ASSERT_TRUE(camera.ok());
    ChildProcess daemon;
    ASSERT_TRUE(network.StartDaemon(&daemon));
    // Generous waits throughout: sanitizer builds on a busy machine start slowly.
    ASSERT_TRUE(camera.WaitForDaemon(20000)) << daemon.Stderr();
    ASSERT_TRUE(daemon.WaitForStderr("Camera connection found\n", 10000)) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().rfind(kBanner, 0), 0u) << daemon.Stderr();

    // One rule, for the camera's address and port on the access point.
    ASSERT_TRUE(network.WaitForRules(1, 10000)) << daemon.Stderr();
    std::vector<std::string> rules = network.Rules();
    ASSERT_EQ(rules.size(), 1u);
    ExpectRuleForTheCamera(rules[0]);

    // Before the phone says anything, nothing goes to it, and the daemon
    // keeps the camera alive itself: pings and video acknowledgements.
    Phone phone(&network.phone, kPhoneAddress, kCameraAddress, kCameraPort);
    int64_t quiet_start = SteadyMs();
    EXPECT_EQ(Phone::Listen(*phone.socket, 1500), 0u);
    EXPECT_TRUE(camera.WaitFor(DaemonDatagram::kPing, quiet_start, 5000));
    EXPECT_TRUE(camera.WaitFor(DaemonDatagram::kVideoAck, quiet_start, 5000, 5));

    // The phone talks: it gets the camera's datagrams, video included, as
    // from the camera; the camera gets the phone's, from the daemon's port.
    std::pair<size_t, size_t> arrived = phone.Talk(10000, 1);
    ASSERT_EQ(arrived.first + arrived.second, 1u) << "no answer to the phone:\n" << daemon.Stderr();
    ASSERT_TRUE(daemon.WaitForStderr("DJI MIMO connection found\n", 1000)) << daemon.Stderr();
    int64_t talk_start = SteadyMs();
    uint32_t sent_before = phone.sent;
    // The flag is up before the line is written: every camera datagram sent
    // from now on reaches a daemon that knows the phone is there.
    uint16_t bridged_first = camera.NextSequence();
    arrived = phone.Talk(3000);
    uint16_t bridged_end = camera.NextSequence();
    EXPECT_GE(arrived.first, 10u) << "data-stream datagrams forwarded to the phone";
    EXPECT_GE(arrived.second, 10u) << "live-video datagrams forwarded to the phone";
    EXPECT_GE(static_cast<uint16_t>(bridged_end - bridged_first), 20) << "the camera hardly sent anything";
    EXPECT_EQ(camera.CountAnswering(DaemonDatagram::kVideoAck, bridged_first, bridged_end), 0u)
        << "video acknowledged while the phone talked";
    EXPECT_EQ(camera.CountAnswering(DaemonDatagram::kPing, bridged_first, bridged_end), 0u)
        << "pings while the phone talked";
    EXPECT_EQ(camera.Count(DaemonDatagram::kConnectRequest, talk_start, SteadyMs()), 0u);
    EXPECT_GE(camera.WaitForPhoneDatagrams(talk_start, phone.sent - sent_before, 5000), phone.sent - sent_before)
        << "phone datagrams that reached the camera unchanged";
    size_t foreign = 0;
    for (const StreamingCamera::Received& entry : camera.ReceivedSince(talk_start))
        foreign += IsPhoneDatagram(entry.bytes) && entry.from_host != "192.168.2.2" ? 1 : 0;
    EXPECT_EQ(foreign, 0u) << "phone datagrams that did not come from the daemon's camera side";

    // A new source port: replies follow the phone's latest datagram.
    std::unique_ptr<NamespaceUdpSocket> old_socket = std::move(phone.socket);
    phone.NewSourcePort();
    arrived = phone.Talk(5000, 1);
    ASSERT_GT(arrived.first + arrived.second, 0u) << "nothing reached the phone's new port";
    Phone::Listen(*old_socket, 300);  // what was forwarded before the switch
    arrived = phone.Talk(1000);
    EXPECT_GT(arrived.first + arrived.second, 5u);
    EXPECT_EQ(Phone::Listen(*old_socket, 10), 0u) << "datagrams still went to the old port";
    EXPECT_EQ(daemon.Stderr().find("DJI MIMO connection lost\n"), std::string::npos) << daemon.Stderr();

    // The phone falls silent: lost after one second of silence, at the next
    // once-a-second check, so within two seconds (slack for a busy machine);
    // forwarding stops and the daemon's own keep-alives resume.
    int64_t silent_from = SteadyMs();
    ASSERT_TRUE(daemon.WaitForStderr("DJI MIMO connection lost\n", 4000)) << daemon.Stderr();
    int64_t lost_at = SteadyMs();
    EXPECT_GE(lost_at - silent_from, 800) << "lost before a second of silence";
    EXPECT_TRUE(camera.WaitFor(DaemonDatagram::kVideoAck, lost_at, 3000)) << "acknowledgements did not resume";
    EXPECT_TRUE(camera.WaitFor(DaemonDatagram::kPing, lost_at, 4000)) << "pings did not resume";
    Phone::Listen(*phone.socket, 300);
    EXPECT_EQ(Phone::Listen(*phone.socket, 500), 0u) << "forwarding went on after the loss";
    EXPECT_EQ(daemon.WaitExit(0), -1) << "the daemon ended:\n" << daemon.Stderr();

    // A second start inserts the same rule again.
    daemon.Kill();
    ChildProcess second;
    ASSERT_TRUE(network.StartDaemon(&second));
    EXPECT_TRUE(network.WaitForRules(2, 20000)) << second.Stderr();
    rules = network.Rules();
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[0], rules[1]);
    ExpectRuleForTheCamera(rules[0]);
}

namespace {

// REDIRECT rules in the test's own namespace (where the fallback cases run
// the daemon); a kernel without NAT lists none either.
size_t RedirectRulesHere()
{
    std::string listing;
    RunProgram({"iptables", "-t", "nat", "-S", "PREROUTING"}, &listing);
    size_t count = 0;
    for (size_t at = listing.find("-j REDIRECT"); at != std::string::npos; at = listing.find("-j REDIRECT", at + 1))
        ++count;
    return count;
}

// The real user id of a running process, from /proc.
std::string DaemonUid(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("Uid:", 0) == 0) {
            std::stringstream fields(line.substr(4));
            std::string uid;
            fields >> uid;
            return uid;
        }
    return "?";
}

// Shared-memory objects left by earlier daemons of this test process (their
// private /dev/shm) belong to root; a daemon without privilege could not open
// them and would end at start-up.
void ClearPrivateSharedMemory()
{
    DIR* folder = opendir("/dev/shm");
    if (folder == nullptr)
        return;
    while (struct dirent* entry = readdir(folder))
        if (entry->d_name[0] != '.')
            unlinkat(dirfd(folder), entry->d_name, 0);
    closedir(folder);
}

struct FallbackCase {
    const char* name;
    bool privileged;
    const char* ap_iface_file;  // null: no file
};

}  // namespace

// Without privilege, or without an access-point name, the rule cannot be
// made; the daemon goes on with its bridge port open, and a phone that
// reaches that port directly is bridged as usual.
TEST(BridgeFallback, NoRuleButTheBridgePortOpensAndTheDaemonGoesOn)
{
    REQUIRE_ISOLATION();
    const FallbackCase cases[] = {
        {"unprivileged", false, "ap0\n"},
        {"no access-point file", true, nullptr},
        {"empty access-point file", true, ""},
    };
    for (const FallbackCase& with : cases) {
        SCOPED_TRACE(with.name);
        ClearPrivateSharedMemory();
        unlink("/run/tarnwickrelay/ap.iface");
        if (with.ap_iface_file != nullptr)
            WriteApInterfaceFile(with.ap_iface_file);

        StreamingCamera camera(nullptr, "127.0.0.1", 0);
        ASSERT_TRUE(camera.ok());
        std::vector<std::string> arguments = {"--host", "127.0.0.1", "--port", std::to_string(camera.port())};
        std::string program = DaemonPath();
        if (!with.privileged) {
            arguments.insert(arguments.begin(),
                             {"--reuid=65534", "--regid=65534", "--clear-groups", "--", DaemonPath()});
            program = FindProgram("setpriv");
            ASSERT_FALSE(program.empty()) << "setpriv is missing";
        }
        ChildProcess daemon;
        ASSERT_TRUE(daemon.Start(program, arguments));
        ASSERT_TRUE(daemon.WaitForStderr("Camera connection found\n", 20000)) << daemon.Stderr();
        EXPECT_EQ(DaemonUid(daemon.pid()), with.privileged ? "0" : "65534");

        // The phone reaches the bridge port directly, as the rule would have let it.
        // The bridge port opens last: talk until the first answer.
        Phone phone(nullptr, "127.0.0.1", "127.0.0.1", kMimoBridgePort);
        std::pair<size_t, size_t> arrived = phone.Talk(10000, 1);
        ASSERT_EQ(arrived.first + arrived.second, 1u) << "camera datagrams forwarded to the phone";
        EXPECT_TRUE(daemon.WaitForStderr("DJI MIMO connection found\n", 1000)) << daemon.Stderr();
        int64_t talk_start = SteadyMs();
        uint32_t sent_before = phone.sent;
        arrived = phone.Talk(10000, 10);
        EXPECT_EQ(arrived.first + arrived.second, 10u) << "camera datagrams forwarded to the phone";
        EXPECT_GE(camera.WaitForPhoneDatagrams(talk_start, phone.sent - sent_before, 5000), phone.sent - sent_before)
            << "phone datagrams passed to the camera";
        EXPECT_EQ(RedirectRulesHere(), 0u);
        EXPECT_TRUE(daemon.WaitForStderr("DJI MIMO connection lost\n", 5000)) << daemon.Stderr();
        EXPECT_EQ(daemon.WaitExit(500), -1) << "the daemon ended:\n" << daemon.Stderr();
    }
}

// With port 9004 taken the daemon runs without a bridge and keeps the
// camera alive itself, whatever arrives on that port.
TEST(BridgeFallback, PortTakenTheDaemonRunsWithoutABridge)
{
    REQUIRE_ISOLATION();
    NamespaceUdpSocket holder(nullptr, "0.0.0.0", kMimoBridgePort);
    ASSERT_TRUE(holder.ok());
    StreamingCamera camera(nullptr, "127.0.0.1", 0);
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), {"--host", "127.0.0.1", "--port", std::to_string(camera.port()),
                                            "--verbose"}));
    ASSERT_TRUE(daemon.WaitForStderr("Init data bridge server for DJI MIMO", 20000)) << daemon.Stderr();
    Phone phone(nullptr, "127.0.0.1", "127.0.0.1", kMimoBridgePort);
    int64_t start = SteadyMs();
    std::pair<size_t, size_t> arrived = phone.Talk(2500);
    EXPECT_EQ(arrived.first + arrived.second, 0u);
    EXPECT_TRUE(camera.WaitFor(DaemonDatagram::kPing, start, 5000));
    EXPECT_TRUE(camera.WaitFor(DaemonDatagram::kVideoAck, start, 5000, 10));
    EXPECT_EQ(daemon.Stderr().find("DJI MIMO connection"), std::string::npos) << daemon.Stderr();
    EXPECT_EQ(daemon.WaitExit(0), -1) << "the daemon ended:\n" << daemon.Stderr();
}
