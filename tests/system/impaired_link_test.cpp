// The camera behind a bad Wi-Fi link: the relay and the camera simulator each in a namespace of its own, and
// tarnwick-impair carrying every packet between them with netem's rules (loss, delay with jitter, reordering,
// duplication, outages).
//
//   relay  imp0 192.168.2.10 ---- tarnwick-impair ---- imp0 192.168.2.1:9004  camera (simulator)
//
// The main application's side (status datagrams to 127.0.0.1:5000, the ring) is in the relay's namespace and
// this process's /dev/shm, untouched by the link.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/isolation.h"
#include "support/netns.h"
#include "tarnwickclient/client.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kRelayNs = "tw-relay";
constexpr const char* kCameraNs = "tw-camera";

uint64_t Fnv1a64(const uint8_t* data, size_t length)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < length; ++i)
        hash = (hash ^ data[i]) * 0x100000001b3ull;
    return hash;
}

std::vector<std::vector<uint8_t>>* parts_seen = nullptr;

int KeepPart(const uint8_t* data, uint32_t length, void*)
{
    parts_seen->emplace_back(data, data + length);
    return 0;
}

size_t CountLines(const std::string& text, const std::string& prefix)
{
    size_t count = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        count += line.compare(0, prefix.size(), prefix) == 0;
    return count;
}

class ImpairedLinkTest : public testing::Test {
protected:
    void Start(const std::vector<std::string>& rules)
    {
        relay_ns.reset(new NetworkNamespace(kRelayNs));
        camera_ns.reset(new NetworkNamespace(kCameraNs));
        std::vector<std::string> arguments = {"--a=" + std::string(kRelayNs) + ":192.168.2.10/24",
                                              "--b=" + std::string(kCameraNs) + ":192.168.2.1/24", "--seed=7"};
        arguments.insert(arguments.end(), rules.begin(), rules.end());
        ASSERT_TRUE(impair.Start(ToolPath("impair"), arguments));
        ASSERT_TRUE(impair.WaitForStdout("impair ready\n", 5000)) << impair.Stderr();
        ASSERT_TRUE(simulator.Start(FindProgram("ip"),
                                    {"netns", "exec", kCameraNs, CamsimPath(), "--bind=192.168.2.1", "--port=9004",
                                     "--video=" + std::string(TARNWICK_SOURCE_DIR) + "/tools/camsim/sample.h264",
                                     "--log-video"}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000)) << simulator.Stderr();
        app = relay_ns->NewPeer("127.0.0.1", 5000);
        ASSERT_TRUE(daemon.Start(FindProgram("ip"),
                                 {"netns", "exec", kRelayNs, DaemonPath(), "--host", "192.168.2.1", "--port", "9004"}));
        ASSERT_TRUE(daemon.WaitForStderr("Camera connection found\n", 15000)) << daemon.Stderr();
        reader.reset(new tarnwick::RingReader);
        auto end = Clock::now() + std::chrono::seconds(5);
        while (tarnwick::RingReaderOpen(reader.get()) != 0 && Clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    // For `ms`: the ring's parts into `parts`, and the times of the status lines the application gets.
    void Watch(int ms)
    {
        parts_seen = &parts;
        auto end = Clock::now() + std::chrono::milliseconds(ms);
        while (Clock::now() < end) {
            std::vector<uint8_t> datagram = app->Receive(20);
            if (!datagram.empty() && datagram[0] == 7)
                status_times.push_back(Clock::now());
            tarnwick::RingReaderPoll(reader.get(), KeepPart, nullptr);
        }
    }

    std::unique_ptr<NetworkNamespace> relay_ns, camera_ns;
    ChildProcess impair, simulator, daemon;
    std::unique_ptr<UdpPeer> app;
    std::unique_ptr<tarnwick::RingReader> reader;
    std::vector<std::vector<uint8_t>> parts;
    std::vector<Clock::time_point> status_times;
};

// 20 % loss, 30 ms ± 20 ms, 10 % reordered, 5 % duplicated, both ways: every part in the ring is, byte for byte,
// a payload the camera sent; the status line keeps its second; the keep-alive goes on.
TEST_F(ImpairedLinkTest, EveryPartIsAPayloadTheCameraSentAndTheRelayKeepsItsPace)
{
    REQUIRE_ISOLATION();
    Start({"--loss=20", "--delay=30", "--jitter=20", "--reorder=10", "--duplicate=5"});
    size_t pings_before = CountLines(simulator.Stdout(), "rx ping");
    Watch(10000);
    EXPECT_EQ(daemon.WaitExit(0), -1) << "the relay still runs\n" << daemon.Stderr();
    size_t pings = CountLines(simulator.Stdout(), "rx ping") - pings_before;
    impair.WriteLine("stats");
    ASSERT_TRUE(impair.WaitForStdout("b>a in=", 3000));

    std::set<uint64_t> sent;
    std::istringstream lines(simulator.Stdout());
    for (std::string line; std::getline(lines, line);) {
        size_t length = 0;
        unsigned long long hash = 0;
        if (sscanf(line.c_str(), "tx video %zu %llx", &length, &hash) == 2)
            sent.insert(hash);
    }
    size_t foreign = 0;
    for (const auto& part : parts)
        foreign += sent.count(Fnv1a64(part.data(), part.size())) == 0;
    EXPECT_EQ(foreign, 0u) << "of " << parts.size() << " parts";
    EXPECT_GT(parts.size(), 100u) << "video came through the loss";
    // A ping a second, each lost with 1 in 5: 3 of 10 arrive unless the keep-alive stopped (fewer by chance
    // only once in 13000 runs).
    EXPECT_GE(pings, 3u) << impair.Stdout();
    ASSERT_GE(status_times.size(), 8u) << "a status line a second";
    for (size_t i = 1; i < status_times.size(); ++i)
        EXPECT_LT(status_times[i] - status_times[i - 1], std::chrono::milliseconds(1600)) << "gap before line " << i;
    std::cout << impair.Stdout();
}

// An outage shorter than the relay's 5 s time-out is ridden out and the video comes back; a longer one ends the
// relay as it ends on a lost camera.
TEST_F(ImpairedLinkTest, AShortOutageIsRiddenOutALongOneEndsTheRelay)
{
    REQUIRE_ISOLATION();
    Start({"--delay=5"});
    Watch(1500);
    impair.WriteLine("outage 3500");
    Watch(4000);
    EXPECT_EQ(daemon.WaitExit(0), -1) << daemon.Stderr();
    parts.clear();
    Watch(2000);
    EXPECT_GT(parts.size(), 10u) << "video again after the outage";
    EXPECT_EQ(daemon.WaitExit(0), -1) << daemon.Stderr();

    impair.WriteLine("outage 9000");
    int code = daemon.WaitExit(8000);
    std::string log = daemon.Stderr();
    EXPECT_TRUE((code == 1 && log.find("Camera connection lost\n") != std::string::npos) ||
                (code == 2 && log.find("Telemetry receiving timeout\n") != std::string::npos))
        << "exit " << code << "\n" << log;
}

}  // namespace
