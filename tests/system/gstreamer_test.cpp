// The GStreamer side against the real daemon and the camera simulator, with clients nobody here wrote:
// gst-launch-1.0 decodes tarnwicksrc's stream at the simulator's picture size and keeps decoding across a
// relay killed and started again; the element stops at once and never lets a decoder that wants aligned
// input believe it gets it. tarnwick-rtsp serves ffprobe over TCP and UDP, two at once, one joining
// mid-stream from a key frame; a TCP client that stops reading and a UDP client that vanishes hold
// nobody back.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/isolation.h"
#include "support/netns.h"

namespace {

constexpr uint16_t kSimulatorPort = 19004;
constexpr const char* kFrameBytes = "(345600 bytes";   // one 640x360 I420 picture, the simulator's sample

size_t Count(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

// valgrind's memcheck around `command`: any definite or indirect leak, or any memory error, ends it with 99.
std::vector<std::string> UnderValgrind(const std::vector<std::string>& command)
{
    std::vector<std::string> arguments = {
        "--leak-check=full", "--show-leak-kinds=definite,indirect", "--errors-for-leak-kinds=definite,indirect",
        "--error-exitcode=99", "--suppressions=/usr/share/glib-2.0/valgrind/glib.supp",
        "--suppressions=" + std::string(TARNWICK_SOURCE_DIR) + "/tests/system/valgrind.supp"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    return arguments;
}

std::vector<std::string> DaemonOptions()
{
    return {"--host=127.0.0.1", "--port=" + std::to_string(kSimulatorPort)};
}

class GStreamerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
        gst_launch = FindProgram("gst-launch-1.0");
        ASSERT_FALSE(gst_launch.empty()) << "gstreamer1.0-tools is installed by scripts/setup.sh";
        // The plugin from the build tree, and a registry of the test's own (in its private /run).
        setenv("GST_PLUGIN_PATH", TARNWICK_GST_PLUGIN_DIR, 1);
        setenv("GST_REGISTRY", "/run/gst-registry.bin", 1);
        // The registry made once, outside valgrind: a scan loads every plugin installed, and some leak.
        std::string output;
        ASSERT_EQ(RunProgram({"gst-inspect-1.0", "tarnwicksrc"}, &output), 0) << output;
    }

    // The simulator playing `video`, and the daemon against it.
    void StartCameraAndRelay(const std::string& video = std::string(TARNWICK_SOURCE_DIR) +
                                                        "/tools/camsim/sample.h264")
    {
        ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=" + std::to_string(kSimulatorPort), "--video=" + video}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonOptions()));
        ASSERT_TRUE(daemon.WaitForStderr("Camera connection found", 8000)) << daemon.Stderr();
    }

    // Waits until `process`'s output holds `count` decoded pictures.
    static bool AwaitFrames(ChildProcess& process, size_t count, int timeout_ms)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < deadline) {
            if (Count(process.Stdout(), kFrameBytes) >= count)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    std::string gst_launch;
    ChildProcess simulator, daemon;
};

TEST_F(GStreamerTest, SourceDecodesAtTheSimulatorsSizeAcrossARelayRestart)
{
    StartCameraAndRelay();
    // The caps filter fails the pipeline (not-negotiated) should a picture of another size come.
    ChildProcess pipeline;
    ASSERT_TRUE(pipeline.Start(gst_launch, {"-v", "tarnwicksrc", "!", "h264parse", "!", "avdec_h264", "!",
                                            "video/x-raw,width=640,height=360", "!", "fakesink", "silent=false"}));
    ASSERT_TRUE(AwaitFrames(pipeline, 25, 15000)) << pipeline.Stdout() << pipeline.Stderr();

    daemon.Kill();   // kill -9: the ring stays, and the next relay clears it
    EXPECT_EQ(daemon.WaitExit(5000), 128 + SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    size_t before = Count(pipeline.Stdout(), kFrameBytes);
    ChildProcess relay;
    ASSERT_TRUE(relay.Start(DaemonPath(), DaemonOptions()));
    ASSERT_TRUE(relay.WaitForStderr("Clear frame shared memory", 10000)) << relay.Stderr();
    auto said = [&] {
        return (pipeline.Stdout() + pipeline.Stderr()).find("The relay restarted, or its video ring was cleared or "
                                                            "made anew; reading goes on") != std::string::npos;
    };
    for (int i = 0; i < 50 && !said(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(said()) << pipeline.Stdout() << pipeline.Stderr();
    EXPECT_TRUE(AwaitFrames(pipeline, before + 50, 15000)) << "decoding goes on after the restart\n"
                                                           << pipeline.Stderr();
    EXPECT_EQ(pipeline.WaitExit(0), -1) << "still running: the element never ends the stream by itself";

    kill(pipeline.pid(), SIGINT);
    EXPECT_EQ(pipeline.WaitExit(5000), 0) << pipeline.Stderr();
    std::string all = pipeline.Stdout() + pipeline.Stderr();
    EXPECT_EQ(all.find("ERROR"), std::string::npos) << all;
    EXPECT_EQ(all.find("Got EOS"), std::string::npos) << all;
    EXPECT_EQ(Count(all, "The relay restarted"), 1u) << all;
}

TEST_F(GStreamerTest, SourceWaitsForTheRingAndStopsAtOnce)
{
    // No relay at all: it says so once, waits, and a stop does not wait for it.
    ChildProcess pipeline;
    ASSERT_TRUE(pipeline.Start(gst_launch, {"tarnwicksrc", "poll-interval=1000000", "!", "fakesink"}));
    auto said = [&] {
        return (pipeline.Stdout() + pipeline.Stderr()).find("No video ring \"tarnwickrelay_framebuffer\" yet") !=
               std::string::npos;
    };
    for (int i = 0; i < 100 && !said(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_TRUE(said()) << pipeline.Stdout() << pipeline.Stderr();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(pipeline.WaitExit(0), -1) << "waiting, not ended";
    auto asked = std::chrono::steady_clock::now();
    kill(pipeline.pid(), SIGINT);
    EXPECT_EQ(pipeline.WaitExit(5000), 0) << pipeline.Stderr();
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - asked);
    EXPECT_LT(took.count(), 1000) << "unlock cuts the wait short";
}

TEST_F(GStreamerTest, SourceDoesNotClaimAnAlignment)
{
    // avdec_h264 takes aligned input only: without h264parse in between the caps do not meet (when the
    // first buffer comes).
    StartCameraAndRelay();
    ChildProcess pipeline;
    ASSERT_TRUE(pipeline.Start(gst_launch, {"tarnwicksrc", "!", "avdec_h264", "!", "fakesink"}));
    EXPECT_NE(pipeline.WaitExit(10000), 0);
    std::string all = pipeline.Stdout() + pipeline.Stderr();
    EXPECT_NE(all.find("not-negotiated"), std::string::npos) << all;
}

TEST_F(GStreamerTest, SourceReadsWhatTheRingHoldsAndCounts)
{
    StartCameraAndRelay();
    std::this_thread::sleep_for(std::chrono::seconds(3));   // the ring holds about 200 parts by now
    // From the oldest part, 40 buffers, no waiting for a parameter set: they come at once (what the ring
    // held), and the counters show them.
    ChildProcess pipeline;
    ASSERT_TRUE(pipeline.Start(gst_launch, {"-v", "tarnwicksrc", "name=src", "start=oldest", "wait-for-sps=false",
                                            "num-buffers=40", "!", "fakesink", "silent=false"}));
    EXPECT_EQ(pipeline.WaitExit(5000), 0) << pipeline.Stderr();
    std::string out = pipeline.Stdout();
    EXPECT_EQ(Count(out, "chain   ******* (fakesink0:sink)"), 40u) << out;
    EXPECT_NE(out.find("caps = video/x-h264, stream-format=(string)byte-stream\n"), std::string::npos) << out;
    EXPECT_NE(out.find("flags: 00000040 discont"), std::string::npos) << "the first buffer is a discontinuity\n"
                                                                       << out;
}

TEST_F(GStreamerTest, SourceLeaksNothingInThirtySecondsUnderValgrind)
{
    std::string valgrind = FindProgram("valgrind");
    ASSERT_FALSE(valgrind.empty()) << "valgrind is installed by scripts/setup.sh";
    StartCameraAndRelay();
    ChildProcess pipeline;
    // No decoder: memcheck would make it the whole cost, and the element is what is looked at.
    ASSERT_TRUE(pipeline.Start(valgrind, UnderValgrind({gst_launch, "-e", "tarnwicksrc", "!", "h264parse", "!",
                                                        "fakesink"})));
    std::this_thread::sleep_for(std::chrono::seconds(15));
    daemon.Kill();   // the restart's path too
    daemon.WaitExit(5000);
    ChildProcess relay;
    ASSERT_TRUE(relay.Start(DaemonPath(), DaemonOptions()));
    std::this_thread::sleep_for(std::chrono::seconds(15));
    kill(pipeline.pid(), SIGINT);   // -e: an EOS, then a clean shutdown
    EXPECT_EQ(pipeline.WaitExit(60000), 0) << pipeline.Stderr();
    std::string all = pipeline.Stdout() + pipeline.Stderr();
    EXPECT_NE(all.find("The relay restarted"), std::string::npos) << all;
    EXPECT_NE(all.find("definitely lost: 0 bytes"), std::string::npos) << all;
}

// --- tarnwick-rtsp ---

// ffprobe as an RTSP client: frames decoded within about `seconds` of the stream, as "key,width,height" lines.
std::vector<std::string> ProbeArguments(const std::string& transport, int seconds)
{
    return {"-v", "error", "-rtsp_transport", transport, "-read_intervals", "%+" + std::to_string(seconds),
            "-select_streams", "v", "-show_entries", "frame=key_frame,width,height", "-of", "csv=p=0",
            "rtsp://127.0.0.1:8554/live"};
}

struct Probed {
    size_t frames = 0;
    size_t right_size = 0;
    bool first_is_key = false;
};

Probed Parse(const std::string& out)
{
    Probed probed;
    size_t begin = 0;
    while (begin < out.size()) {
        size_t end = out.find('\n', begin);
        if (end == std::string::npos)
            end = out.size();
        std::string line = out.substr(begin, end - begin);
        begin = end + 1;
        if (line.empty() || (line[0] != '0' && line[0] != '1'))
            continue;
        if (probed.frames++ == 0)
            probed.first_is_key = line[0] == '1';
        if (line.find(",640,360") != std::string::npos)
            ++probed.right_size;
    }
    return probed;
}

class RtspTest : public GStreamerTest {
protected:
    void StartServer()
    {
        ffprobe = FindProgram("ffprobe");
        ASSERT_FALSE(ffprobe.empty()) << "ffmpeg is installed by scripts/setup.sh";
        ASSERT_TRUE(server.Start(TARNWICK_RTSP_PATH, {"--address=127.0.0.1"}));
        ASSERT_TRUE(server.WaitForStdout("serving rtsp://127.0.0.1:8554/live\n", 10000)) << server.Stderr();
    }
    std::string ffprobe;
    ChildProcess server;
};

TEST_F(RtspTest, TwoClientsOverTcpAndUdpOneJoiningMidStream)
{
    StartCameraAndRelay();
    StartServer();
    ChildProcess tcp, udp;
    ASSERT_TRUE(tcp.Start(ffprobe, ProbeArguments("tcp", 5)));
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));   // mid-stream, mid-GOP (key frames 1 s apart)
    ASSERT_TRUE(udp.Start(ffprobe, ProbeArguments("udp", 3)));
    EXPECT_EQ(tcp.WaitExit(30000), 0) << tcp.Stderr();
    EXPECT_EQ(udp.WaitExit(30000), 0) << udp.Stderr();
    for (ChildProcess* client : {&tcp, &udp}) {
        Probed probed = Parse(client->Stdout());
        EXPECT_GE(probed.frames, 50u) << client->Stdout() << client->Stderr();
        EXPECT_EQ(probed.right_size, probed.frames) << client->Stdout();
        EXPECT_TRUE(probed.first_is_key) << "decoding starts at a key frame\n" << client->Stdout();
    }
    std::string log = server.Stdout();
    EXPECT_EQ(Count(log, "media made: one ring reader for every client"), 1u) << "one shared media\n" << log;
    EXPECT_EQ(Count(log, "client 127.0.0.1 connected"), 2u) << log;
}

// An RTSP client written here on purpose badly: it asks for the stream over TCP and then reads nothing.
class StalledClient {
public:
    ~StalledClient()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool Start(std::string* error)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int small = 4096;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(8554);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            return *error = "connect", false;
        std::string reply;
        if (!Ask("DESCRIBE rtsp://127.0.0.1:8554/live RTSP/1.0\r\nCSeq: 1\r\nAccept: application/sdp\r\n\r\n",
                 &reply) ||
            !Ask("SETUP rtsp://127.0.0.1:8554/live/stream=0 RTSP/1.0\r\nCSeq: 2\r\n"
                 "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n",
                 &reply))
            return *error = reply, false;
        size_t at = reply.find("Session: ");
        if (at == std::string::npos)
            return *error = reply, false;
        std::string session = reply.substr(at + 9, reply.find_first_of(";\r", at) - at - 9);
        std::string play = "PLAY rtsp://127.0.0.1:8554/live RTSP/1.0\r\nCSeq: 3\r\nSession: " + session + "\r\n\r\n";
        return send(fd_, play.data(), play.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(play.size());
    }

private:
    // Sends a request and reads its reply's header and body (the SDP).
    bool Ask(const std::string& request, std::string* reply)
    {
        if (send(fd_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
            return false;
        reply->clear();
        char buffer[4096];
        timeval timeout{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        while (reply->find("\r\n\r\n") == std::string::npos) {
            ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
            if (got <= 0)
                return false;
            reply->append(buffer, static_cast<size_t>(got));
        }
        size_t length_at = reply->find("Content-Length: ");
        size_t body = reply->find("\r\n\r\n") + 4;
        size_t length = length_at == std::string::npos ? 0 : strtoul(reply->c_str() + length_at + 16, nullptr, 10);
        while (reply->size() < body + length) {
            ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
            if (got <= 0)
                return false;
            reply->append(buffer, static_cast<size_t>(got));
        }
        return reply->compare(0, 15, "RTSP/1.0 200 OK") == 0;
    }
    int fd_ = -1;
};

TEST_F(RtspTest, AStalledAndAVanishedClientHoldNobodyBack)
{
    // A clip of noise, about 20 Mbit/s: the stalled client's socket buffers fill within seconds.
    std::string clip = "/run/noise.h264";
    std::string output;
    ASSERT_EQ(RunProgram({"sh", "-c",
                          "ffmpeg -v error -f lavfi -i 'nullsrc=s=640x360:r=25,geq=lum=random(1)*255:cb=128:cr=128' "
                          "-frames:v 100 -pix_fmt yuv420p -f yuv4mpegpipe - | x264 --quiet --demuxer y4m "
                          "--profile main --keyint 25 --fps 25 --bitrate 20000 --vbv-maxrate 20000 --vbv-bufsize 2000 "
                          "-o " + clip + " - 2>&1"},
                         &output),
              0)
        << output;
    StartCameraAndRelay(clip);
    StartServer();

    ChildProcess vanishing;
    ASSERT_TRUE(vanishing.Start(ffprobe, ProbeArguments("udp", 60)));
    StalledClient stalled;
    std::string error;
    ASSERT_TRUE(stalled.Start(&error)) << error << server.Stdout();
    std::this_thread::sleep_for(std::chrono::seconds(4));   // the stalled client's buffers are full by now
    vanishing.Kill();

    // A client watching meanwhile gets the pictures of 6 s (150) from its first key frame on, at the camera's pace.
    ChildProcess watcher;
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(watcher.Start(ffprobe, ProbeArguments("tcp", 6)));
    EXPECT_EQ(watcher.WaitExit(30000), 0) << watcher.Stderr();
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    EXPECT_LT(took.count(), 9500) << "6 s of stream came at the camera's pace";
    Probed probed = Parse(watcher.Stdout());
    EXPECT_GE(probed.frames, 110u) << watcher.Stderr();   // from its first key frame on
    EXPECT_EQ(probed.right_size, probed.frames);
    EXPECT_EQ(daemon.WaitExit(0), -1) << "the relay runs on";
    EXPECT_EQ(server.WaitExit(0), -1) << "the server runs on\n" << server.Stdout() << server.Stderr();
}

}  // namespace

namespace {

TEST_F(RtspTest, ServerLeaksNothingInThirtySecondsUnderValgrind)
{
    std::string valgrind = FindProgram("valgrind");
    ASSERT_FALSE(valgrind.empty()) << "valgrind is installed by scripts/setup.sh";
    StartCameraAndRelay();
    ffprobe = FindProgram("ffprobe");
    ASSERT_TRUE(server.Start(valgrind, UnderValgrind({TARNWICK_RTSP_PATH, "--address=127.0.0.1"})));
    ASSERT_TRUE(server.WaitForStdout("serving rtsp://127.0.0.1:8554/live\n", 30000)) << server.Stderr();
    // A TCP client for the whole run; UDP clients one after another beside it; then nobody, then one again
    // (the media is made anew).
    ChildProcess tcp;
    ASSERT_TRUE(tcp.Start(ffprobe, ProbeArguments("tcp", 18)));
    for (int i = 0; i < 3; ++i) {
        ChildProcess udp;
        ASSERT_TRUE(udp.Start(ffprobe, ProbeArguments("udp", 4)));
        EXPECT_EQ(udp.WaitExit(30000), 0) << udp.Stderr();
        EXPECT_GE(Parse(udp.Stdout()).frames, 25u) << udp.Stderr();
    }
    EXPECT_EQ(tcp.WaitExit(30000), 0) << tcp.Stderr();
    EXPECT_GE(Parse(tcp.Stdout()).frames, 200u) << tcp.Stderr();
    ChildProcess last;
    ASSERT_TRUE(last.Start(ffprobe, ProbeArguments("tcp", 3)));
    EXPECT_EQ(last.WaitExit(30000), 0) << last.Stderr();
    kill(server.pid(), SIGTERM);
    EXPECT_EQ(server.WaitExit(60000), 0) << server.Stderr();
    EXPECT_NE(server.Stdout().find("stopped\n"), std::string::npos);
    EXPECT_NE(server.Stderr().find("definitely lost: 0 bytes"), std::string::npos) << server.Stderr();
}

}  // namespace
