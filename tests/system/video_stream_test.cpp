// Live video end to end: a real H.264 stream sent by a camera peer through the daemon comes out of
// the shared-memory ring, read by the ring reader in another process, byte for byte and decodable;
// frame buffers that cannot be created end start-up with exit code 2.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "camera/frame.h"
#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"
#include "support/netns.h"
#include "video/include/h264parse.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string ReadText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

TEST(VideoStreamTest, RealStreamComesOutOfTheRingBitForBitAndDecodes)
{
    REQUIRE_ISOLATION();
    mkdir("/run/tarnwickrelay", 0755);
    ASSERT_FALSE(FindProgram("ffmpeg").empty()) << "ffmpeg is installed by scripts/setup.sh";
    constexpr int kLoops = 8;   // about 250 parts: the ring wraps
    std::string text = ReadText(std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/stream.h264");
    Bytes clip(text.begin(), text.end());
    // Cut as the camera sends it: every parameter set starts a payload (where the daemon looks for it),
    // payloads of mixed sizes up to the 9000 bytes of a jumbo datagram.
    std::vector<Bytes> payloads;
    for (size_t begin = 0, turn = 0, end; begin < clip.size(); begin = end) {
        end = std::min(clip.size(), begin + std::vector<size_t>{1400, 300, 9000, 1400, 100, 1400}[turn++ % 6]);
        for (size_t i = begin + 1; i < end; ++i)
            if (StartsWithSequenceParameterSet(&clip[i], static_cast<uint32_t>(clip.size() - i)))
                end = i;
        payloads.emplace_back(clip.begin() + begin, clip.begin() + end);
    }

    FakeCamera camera;
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
    ASSERT_TRUE(camera.AwaitConnectRequest(8000)) << daemon.Stderr();   // the frame buffers exist

    ChildProcess reader;
    ASSERT_TRUE(reader.Start(ToolPath("ringreader"), {"--idle-exit=2000"}));
    ASSERT_TRUE(reader.WaitForStderr("following tarnwickrelay_framebuffer from slot 0\n", 5000)) << reader.Stderr();

    Bytes sent;
    uint16_t sequence = 0x4000;
    for (int loop = 0; loop < kLoops; ++loop) {
        for (const Bytes& payload : payloads) {
            Bytes body = payload;   // every third with the 32-byte header marked 00 00 01 ff
            if (sequence % 3 == 0)
                body.insert(body.begin(), kVideoLongHeaderSize - kReceivedHeaderSize, 0);
            std::copy(kVideoLongHeaderMarker, kVideoLongHeaderMarker + (sequence % 3 == 0 ? 4 : 0), body.begin());
            camera.Send(kTransportLiveVideo, sequence++, body);
            sent.insert(sent.end(), payload.begin(), payload.end());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    size_t parts = kLoops * payloads.size();
    ASSERT_GT(parts, 200u);

    ASSERT_EQ(reader.WaitExit(30000), 0) << reader.Stderr();
    // Asked now, 2 s after the last part: the camera says nothing more, and
    // after 5 s of that the daemon ends by design (exit 1).
    EXPECT_EQ(daemon.WaitExit(0), -1) << "still running";
    std::string out = reader.Stdout();
    ASSERT_EQ(out.size(), sent.size()) << reader.Stderr();
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), reinterpret_cast<const uint8_t*>(out.data())))
        << "the ring reader's stream differs from what the camera sent";
    EXPECT_NE(reader.Stderr().find(std::to_string(parts) + " parts, " + std::to_string(sent.size()) +
                                   " bytes, 0 parts lost\n"),
              std::string::npos)
        << reader.Stderr();

    std::ofstream("/run/out.h264", std::ios::binary) << out;
    std::string errors;
    EXPECT_EQ(RunProgram({"ffmpeg", "-v", "error", "-i", "/run/out.h264", "-f", "null", "-"}, &errors), 0);
    EXPECT_EQ(errors, "") << "ffmpeg decodes it without a complaint";

    // Both sizes of the clip were announced, and the files hold the last one.
    std::string log = daemon.Stderr();
    EXPECT_NE(log.find("Live stream video resolution changed to 320x240\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Live stream video resolution changed to 176x144\n"), std::string::npos) << log;
    EXPECT_EQ(ReadText("/run/tarnwickrelay/video_width"), "176");
    EXPECT_EQ(ReadText("/run/tarnwickrelay/video_height"), "144");
    EXPECT_EQ(log.find("Clear frame shared memory\n"), log.rfind("Clear frame shared memory\n")) << "cleared once";
}

TEST(VideoStreamTest, FrameBuffersThatCannotBeCreatedEndStartUpWithTwo)
{
    REQUIRE_ISOLATION();
    ASSERT_EQ(mkdir("/dev/shm/tarnwickrelay_framebuffer", 0700), 0);
    FakeCamera camera;
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
    EXPECT_EQ(daemon.WaitExit(10000), 2);
    std::string log = daemon.Stderr();
    EXPECT_NE(log.find("Init telemetry buffer\nInit frame buffer 60003624 bytes\nFailed to init telemetry buffer\n"),
              std::string::npos)
        << log;
    EXPECT_TRUE(camera.Await(0, 300).empty()) << "the camera link never started";
    rmdir("/dev/shm/tarnwickrelay_framebuffer");
}

}  // namespace
