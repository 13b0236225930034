// tarnwick-camsim: a stand-in camera for the relay service.
//
// It answers the service's connect requests by starting the data stream (a
// type 1 datagram every report period) and live video (type 2 datagrams, from
// an H.264 file or a generated stream, at the picture rate), numbers its
// datagrams with its own sequence counter, and logs on standard output what
// the service sends it. Lines typed on standard input: "silent", "talk",
// "quit", and the report settings of the telemetry model.
#include <arpa/inet.h>
#include <getopt.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/camera_side.h"
#include "camera/frame.h"
#include "camsim.h"
#include "tool_options.h"
#include "net/clock.h"

Simulator sim;

namespace {

constexpr size_t kMaxDatagram = 10000;

constexpr const char* kTool = "tarnwick-camsim";

void Usage(FILE* out)
{
    fputs("Usage: tarnwick-camsim [options]\n"
          "  --bind=<addr>          address to listen on (default 127.0.0.1)\n"
          "  --port=<port>          UDP port to listen on (default 9004)\n"
          "  --video=<file.h264>    H.264 Annex B file to stream, looped (default: generated)\n"
          "  --fps=<n>              pictures per second (default: the file's own, else 30)\n"
          "  --payload=<bytes>      video bytes per datagram (default 1400)\n"
          "  --no-video             send no live video\n"
          "  --long-video-header    32-byte video header marked 00 00 01 ff\n"
          "  --never-answer         log what arrives but never start the stream\n"
          "  --silent-after=<ms>    fall silent this long after the stream starts\n"
          "  --report-period=<ms>   data-stream period (default 100)\n"
          "  --log-acks             log every acknowledgement\n"
          "  --stamp                a counter-stamp SEI datagram before each access unit\n"
          "  --log-video            log each video payload sent: its length and FNV-1a 64 hash\n"
          "  --help                 this text\n",
          out);
}

bool Number(const char* option, long min, long max, long* value)
{
    return ParseToolNumber(kTool, option, optarg, min, max, value);
}

// Returns kToolOptionsOk, or the status to end with.
int ParseSimOptions(int argc, char** argv, SimOptions* options)
{
    enum { kBind = 1, kPort, kVideo, kFps, kPayload, kNoVideo, kLongHeader, kNeverAnswer, kSilentAfter,
           kReportPeriod, kLogAcks, kStamp, kLogVideo, kHelp };
    static const struct option long_options[] = {
        {"bind", required_argument, nullptr, kBind},
        {"port", required_argument, nullptr, kPort},
        {"video", required_argument, nullptr, kVideo},
        {"fps", required_argument, nullptr, kFps},
        {"payload", required_argument, nullptr, kPayload},
        {"no-video", no_argument, nullptr, kNoVideo},
        {"long-video-header", no_argument, nullptr, kLongHeader},
        {"never-answer", no_argument, nullptr, kNeverAnswer},
        {"silent-after", required_argument, nullptr, kSilentAfter},
        {"report-period", required_argument, nullptr, kReportPeriod},
        {"log-acks", no_argument, nullptr, kLogAcks},
        {"stamp", no_argument, nullptr, kStamp},
        {"log-video", no_argument, nullptr, kLogVideo},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    long value = 0;
    for (;;) {
        int option = getopt_long(argc, argv, "", long_options, nullptr);
        switch (option) {
        case -1:
            if (ToolArgumentsDone(kTool, argc, argv, optind))
                return kToolOptionsOk;
            break;
        case kBind: options->bind_host = optarg; continue;
        case kPort:
            if (!Number("port", 1, 65535, &value))
                break;
            options->port = static_cast<uint16_t>(value);
            continue;
        case kVideo: options->video_path = optarg; continue;
        case kFps:
            if (!Number("fps", 1, 1000, &value))
                break;
            options->fps = static_cast<int>(value);
            options->fps_given = true;
            continue;
        case kPayload:
            if (!Number("payload", 1, 9000, &value))
                break;
            options->video_payload = static_cast<size_t>(value);
            continue;
        case kNoVideo: options->send_video = false; continue;
        case kLongHeader: options->long_video_header = true; continue;
        case kNeverAnswer: options->never_answer = true; continue;
        case kSilentAfter:
            if (!Number("silent-after", 0, 86400000, &value))
                break;
            options->silent_after_ms = static_cast<int>(value);
            continue;
        case kReportPeriod:
            if (!Number("report-period", 1, 60000, &value))
                break;
            options->report_period_ms = static_cast<int>(value);
            continue;
        case kLogAcks: options->log_acks = true; continue;
        case kStamp: options->stamp = true; continue;
        case kLogVideo: options->log_video = true; continue;
        case kHelp: Usage(stdout); return 0;
        default: break;   // getopt_long named the option
        }
        Usage(stderr);
        return kToolUsageError;
    }
}

void* ReceiveThread(void*)
{
    static uint8_t datagram[kMaxDatagram];
    for (;;) {
        struct sockaddr_in source;
        socklen_t source_length = sizeof source;
        ssize_t length = recvfrom(sim.socket, datagram, sizeof datagram, 0,
                                  reinterpret_cast<struct sockaddr*>(&source), &source_length);
        if (length < 0)
            continue;
        SimLogReceived(datagram, static_cast<size_t>(length));
        fflush(stdout);
        if (length > static_cast<ssize_t>(kTransportTypeOffset) && datagram[kTransportTypeOffset] == kTransportConnect) {
            std::lock_guard<std::mutex> lock(sim.peer_lock);
            sim.peer = source;
            sim.peer_known.store(true);
        }
        if (sim.peer_known.load() && !sim.options.never_answer && !sim.streaming.exchange(true)) {
            printf("stream started\n");
            fflush(stdout);
        }
    }
    return nullptr;
}

// One video payload to the relay, logged with --log-video so that a test
// can tell each part of the ring for one the camera sent.
void SendVideoPayload(const uint8_t* payload, size_t length, size_t header, const uint8_t* header_extra,
                      size_t extra_length)
{
    SimSendDatagram(kTransportLiveVideo, payload, length, header, header_extra, extra_length);
    if (!sim.options.log_video)
        return;
    uint64_t hash = 0xcbf29ce484222325ull;   // FNV-1a, 64 bits
    for (size_t i = 0; i < length; ++i)
        hash = (hash ^ payload[i]) * 0x100000001b3ull;
    printf("tx video %zu %016llx\n", length, static_cast<unsigned long long>(hash));
    fflush(stdout);
}

void SendVideoFrame()
{
    const uint8_t* frame = nullptr;
    size_t length = SimNextVideoFrame(&frame);
    static const uint8_t long_header_extra[12] = {0x00, 0x00, 0x01, 0xff};
    size_t header = sim.options.long_video_header ? kVideoLongHeaderSize : kReceivedHeaderSize;
    if (sim.options.stamp) {
        static uint64_t units_sent = 0;
        constexpr size_t kUuidLength = sizeof kStampUuid - 1;
        constexpr size_t kDigits = 16;
        uint8_t sei[4 + 1 + 1 + 1 + kUuidLength + kDigits + 1] = {0, 0, 0, 1, 0x06, 0x05, kUuidLength + kDigits};
        memcpy(sei + 7, kStampUuid, kUuidLength);
        char digits[kDigits + 1];
        snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(units_sent++));
        memcpy(sei + 7 + kUuidLength, digits, kDigits);
        sei[sizeof sei - 1] = 0x80;   // rbsp trailing bits
        SendVideoPayload(sei, sizeof sei, header, sim.options.long_video_header ? long_header_extra : nullptr,
                         sizeof long_header_extra);
    }
    for (size_t offset = 0; offset < length; offset += sim.options.video_payload) {
        size_t chunk = length - offset < sim.options.video_payload ? length - offset : sim.options.video_payload;
        SendVideoPayload(frame + offset, chunk, header, sim.options.long_video_header ? long_header_extra : nullptr,
                         sizeof long_header_extra);
    }
}

void* StreamThread(void*)
{
    uint32_t started_ms = 0;
    uint32_t next_report_ms = 0;
    uint32_t next_picture_ms = 0;
    uint32_t next_summary_ms = 0;
    uint32_t picture_period_ms = 1000u / static_cast<uint32_t>(sim.options.fps);
    for (;;) {
        SleepMs(2);
        if (!sim.streaming.load())
            continue;
        uint32_t now = NowMs();
        if (started_ms == 0) {
            started_ms = now;
            next_report_ms = next_picture_ms = next_summary_ms = now;
        }
        if (sim.options.silent_after_ms >= 0 && now - started_ms >= static_cast<uint32_t>(sim.options.silent_after_ms) &&
            !sim.silent.exchange(true)) {
            printf("falling silent\n");
            fflush(stdout);
        }
        if (sim.silent.load())
            continue;
        if (static_cast<int32_t>(now - next_report_ms) >= 0) {
            uint8_t reports[kMaxDatagram];
            size_t length = SimBuildReports(reports, sizeof reports - kReceivedHeaderSize);
            SimSendDatagram(kTransportDataStream, reports, length);
            next_report_ms += static_cast<uint32_t>(sim.options.report_period_ms);
        }
        if (sim.options.send_video && static_cast<int32_t>(now - next_picture_ms) >= 0) {
            SendVideoFrame();
            next_picture_ms += picture_period_ms;
        }
        if (!sim.options.log_acks && static_cast<int32_t>(now - next_summary_ms) >= 0) {
            uint32_t acks = sim.acks_received.exchange(0);
            if (acks > 0) {
                printf("rx %u acks in the last second\n", acks);
                fflush(stdout);
            }
            next_summary_ms += 1000;
        }
    }
    return nullptr;
}

}  // namespace

void SimSendDatagram(uint8_t type, const uint8_t* payload, size_t length, size_t header_size,
                     const uint8_t* header_extra, size_t extra_length)
{
    uint8_t datagram[kMaxDatagram];
    if (header_size < kReceivedHeaderSize || header_size + length > sizeof datagram)
        return;
    size_t total = header_size + length;
    memcpy(datagram + header_size, payload, length);

    struct sockaddr_in peer;
    {
        std::lock_guard<std::mutex> lock(sim.peer_lock);
        peer = sim.peer;
    }
    std::lock_guard<std::mutex> lock(sim.send_lock);
    BuildCameraDatagramHeader(datagram, header_size, total, type, sim.camera_sequence++);
    if (header_extra != nullptr && extra_length <= header_size - kReceivedHeaderSize)
        memcpy(datagram + kReceivedHeaderSize, header_extra, extra_length);
    sendto(sim.socket, datagram, total, 0, reinterpret_cast<struct sockaddr*>(&peer), sizeof peer);
}

int main(int argc, char** argv)
{
    int status = ParseSimOptions(argc, argv, &sim.options);
    if (status != kToolOptionsOk)
        return status;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (sim.options.send_video && SimOpenVideo(sim.options.video_path) != 0) {
        fprintf(stderr, "Cannot read video file %s\n", sim.options.video_path);
        return 1;
    }
    sim.socket = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    int size = 4 * 1024 * 1024;
    setsockopt(sim.socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(sim.options.port);
    if (inet_aton(sim.options.bind_host, &local.sin_addr) == 0 ||
        bind(sim.socket, reinterpret_cast<struct sockaddr*>(&local), sizeof local) != 0) {
        fprintf(stderr, "Cannot bind %s:%u\n", sim.options.bind_host, sim.options.port);
        return 1;
    }
    printf("camera simulator on %s:%u\n", sim.options.bind_host, sim.options.port);

    pthread_t receiver, streamer;
    pthread_create(&receiver, nullptr, ReceiveThread, nullptr);
    pthread_create(&streamer, nullptr, StreamThread, nullptr);

    char line[256];
    while (fgets(line, sizeof line, stdin) != nullptr) {
        line[strcspn(line, "\r\n")] = '\0';
        if (strcmp(line, "quit") == 0)
            break;
        if (strcmp(line, "silent") == 0)
            sim.silent.store(true);
        else if (strcmp(line, "talk") == 0)
            sim.silent.store(false);
        else if (line[0] != '\0' && !SimHandleReportCommand(line))
            printf("unknown command: %s\n", line);
    }
    // Standard input closed: keep running until killed, unless told to quit.
    if (feof(stdin))
        for (;;)
            pause();
    return 0;
}
