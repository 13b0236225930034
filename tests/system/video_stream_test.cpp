// Live video end to end: a real H.264 stream sent by a camera peer through the
// daemon comes out of the shared-memory ring, read by the ring reader as a
// separate process, byte for byte and decodable; the camera simulator plays a
// file at the file's own picture rate; frame buffers that cannot be created
// end start-up with exit code 2.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "camera/camera_side.h"
#include "camera/frame.h"
#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"
#include "support/netns.h"
#include "video/include/h264parse.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::string ReadText(const std::string& path)
{
    Bytes bytes = ReadFile(path);
    return std::string(bytes.begin(), bytes.end());
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary);
    file << bytes;
}

std::string SourcePath(const std::string& relative)
{
    return std::string(TARNWICK_SOURCE_DIR) + "/" + relative;
}

// Pictures that ffmpeg decodes from the file; -1 when it reports any error.
int DecodedPictures(const std::string& path, std::string* errors)
{
    if (RunProgram({"ffmpeg", "-v", "error", "-i", path, "-f", "null", "-"}, errors) != 0 || !errors->empty())
        return -1;
    std::string count;
    if (RunProgram({"ffprobe", "-v", "error", "-count_frames", "-show_entries", "stream=nb_read_frames", "-of",
                    "csv=p=0", path},
                   &count) != 0)
        return -1;
    return atoi(count.c_str());
}

// The stream cut as the camera sends it: every sequence parameter set starts
// a payload (where the daemon looks for it), and payloads are of mixed sizes
// up to the 9000 bytes of a jumbo datagram.
std::vector<Bytes> CutIntoPayloads(const Bytes& stream)
{
    static const size_t kSizes[] = {1400, 300, 9000, 1400, 100, 1400};
    std::vector<size_t> starts;
    for (size_t i = 0; i < stream.size(); ++i)
        if (StartsWithSequenceParameterSet(&stream[i], static_cast<uint32_t>(stream.size() - i)))
            starts.push_back(i);
    starts.push_back(stream.size());
    std::vector<Bytes> payloads;
    size_t turn = 0;
    for (size_t s = 0; s + 1 < starts.size(); ++s) {
        for (size_t offset = starts[s]; offset < starts[s + 1];) {
            size_t length = std::min(kSizes[turn++ % 6], starts[s + 1] - offset);
            payloads.emplace_back(stream.begin() + offset, stream.begin() + offset + length);
            offset += length;
        }
    }
    return payloads;
}

// A video datagram with the 20-byte header, or the 32-byte one marked 00 00 01 ff.
Bytes VideoDatagram(const Bytes& payload, uint16_t camera_sequence, bool long_header)
{
    size_t header = long_header ? kVideoLongHeaderSize : kReceivedHeaderSize;
    Bytes datagram(header + payload.size());
    BuildCameraDatagramHeader(datagram.data(), header, datagram.size(), kTransportLiveVideo, camera_sequence);
    if (long_header)
        std::copy(kVideoLongHeaderMarker, kVideoLongHeaderMarker + 4, datagram.begin() + kReceivedHeaderSize);
    std::copy(payload.begin(), payload.end(), datagram.begin() + header);
    return datagram;
}

class VideoStreamTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
        ASSERT_FALSE(FindProgram("ffmpeg").empty()) << "ffmpeg is installed by scripts/setup.sh";
    }
};

TEST_F(VideoStreamTest, RealStreamComesOutOfTheRingBitForBitAndDecodes)
{
    constexpr int kLoops = 8;   // about 250 parts: the ring wraps
    Bytes clip = ReadFile(SourcePath("tests/fixtures/h264/stream.h264"));
    ASSERT_GT(clip.size(), 10000u);
    std::vector<Bytes> payloads = CutIntoPayloads(clip);

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
            camera.SendRaw(VideoDatagram(payload, sequence, sequence % 3 == 0));
            ++sequence;
            sent.insert(sent.end(), payload.begin(), payload.end());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    size_t parts = kLoops * payloads.size();
    ASSERT_GT(parts, 200u);

    ASSERT_EQ(reader.WaitExit(30000), 0) << reader.Stderr();
    std::string out = reader.Stdout();
    ASSERT_EQ(out.size(), sent.size()) << reader.Stderr();
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), reinterpret_cast<const uint8_t*>(out.data())))
        << "the ring reader's stream differs from what the camera sent";
    EXPECT_NE(reader.Stderr().find(std::to_string(parts) + " parts, " + std::to_string(sent.size()) +
                                   " bytes, 0 parts lost\n"),
              std::string::npos)
        << reader.Stderr();
    EXPECT_EQ(reader.Stderr().find("fell behind"), std::string::npos);

    WriteFile("/run/out.h264", out);
    std::string errors;
    EXPECT_EQ(DecodedPictures("/run/out.h264", &errors), kLoops * 75) << errors;

    // Both sizes of the clip were announced, and the files hold the last one.
    std::string log = daemon.Stderr();
    EXPECT_NE(log.find("Live stream video resolution changed to 320x240\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Live stream video resolution changed to 176x144\n"), std::string::npos) << log;
    EXPECT_EQ(ReadText("/run/tarnwickrelay/video_width"), "176");
    EXPECT_EQ(ReadText("/run/tarnwickrelay/video_height"), "144");
    EXPECT_EQ(log.find("Clear frame shared memory\n"), log.rfind("Clear frame shared memory\n")) << "cleared once";
    EXPECT_EQ(daemon.WaitExit(0), -1) << "still running";
}

TEST_F(VideoStreamTest, SimulatorStreamsTheSampleClipToAWatchableRing)
{
    ChildProcess simulator;
    ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=19004", "--video=" + SourcePath("tools/camsim/sample.h264")}));
    ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000)) << simulator.Stderr();
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(19004)));
    ChildProcess reader;
    ASSERT_TRUE(reader.Start(ToolPath("ringreader"), {"--wait", "--out=/run/live.h264"}));
    ASSERT_TRUE(reader.WaitForStderr("following tarnwickrelay_framebuffer", 10000)) << reader.Stderr();
    ASSERT_TRUE(daemon.WaitForStderr("Live stream video resolution changed to 640x360\n", 10000)) << daemon.Stderr();
    std::this_thread::sleep_for(std::chrono::seconds(4));
    reader.Kill();

    std::string errors;
    int pictures = DecodedPictures("/run/live.h264", &errors);
    // Four seconds at 25 pictures a second, less up to a second spent waiting
    // for the first parameter set (generous slack for slow builds).
    EXPECT_GE(pictures, 40) << errors;
    EXPECT_LE(pictures, 125) << errors;
    EXPECT_EQ(ReadText("/run/tarnwickrelay/video_width"), "640");
    EXPECT_EQ(ReadText("/run/tarnwickrelay/video_height"), "360");
}

TEST_F(VideoStreamTest, SimulatorKeepsTheFilePictureRateOrTheOneGiven)
{
    struct Case {
        std::vector<std::string> extra;
        int rate;
    };
    const Case cases[] = {{{}, 25}, {{"--fps=10"}, 10}};
    for (const Case& c : cases) {
        std::vector<std::string> arguments = {"--port=19005", "--video=" + SourcePath("tests/fixtures/h264/stream.h264"),
                                              "--payload=9000"};
        arguments.insert(arguments.end(), c.extra.begin(), c.extra.end());
        ChildProcess simulator;
        ASSERT_TRUE(simulator.Start(CamsimPath(), arguments));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
        // Play the service: one connect request starts the stream.
        UdpPeer service;
        service.SendTo(19005, kConnectRequest, sizeof kConnectRequest);
        // Count pictures (datagrams whose payload starts a picture) for two seconds.
        auto start = std::chrono::steady_clock::now();
        int pictures = 0;
        while (std::chrono::steady_clock::now() - start < std::chrono::seconds(2)) {
            Bytes datagram = service.Receive(200);
            if (datagram.size() > kReceivedHeaderSize + 4 && datagram[kTransportTypeOffset] == kTransportLiveVideo) {
                const uint8_t* payload = datagram.data() + kReceivedHeaderSize;
                bool start_code = payload[0] == 0 && payload[1] == 0 && (payload[2] == 1 || payload[3] == 1);
                pictures += start_code ? 1 : 0;
            }
        }
        EXPECT_GE(pictures, c.rate * 2 * 8 / 10) << "rate " << c.rate;
        EXPECT_LE(pictures, c.rate * 2 * 12 / 10 + 1) << "rate " << c.rate;
    }
}

TEST_F(VideoStreamTest, FrameBuffersThatCannotBeCreatedEndStartUpWithTwo)
{
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
