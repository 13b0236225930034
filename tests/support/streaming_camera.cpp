#include "support/streaming_camera.h"

#include <chrono>
#include <cstring>

#include "camera/camera_side.h"
#include "camera/frame.h"

namespace {

constexpr size_t kStreamPayloadSize = 80;
constexpr size_t kVideoBytes = 200;
constexpr uint8_t kVideoStart[] = {0x00, 0x00, 0x00, 0x01, 0x09, 0xf0,         // access unit delimiter
                                   0x00, 0x00, 0x00, 0x01, 0x41, 0x9a};       // slice of a P frame
constexpr char kPhoneMarker[] = "phone app datagram";
constexpr size_t kPhoneDatagramSize = 64;

}  // namespace

int64_t SteadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::vector<uint8_t> StreamDatagram(uint8_t type, uint16_t camera_sequence)
{
    bool video = type == kTransportLiveVideo;
    bool long_header = video && camera_sequence % 2 == 1;
    size_t header_size = long_header ? kVideoLongHeaderSize : kReceivedHeaderSize;
    std::vector<uint8_t> datagram(header_size + (video ? kVideoBytes : kStreamPayloadSize));
    BuildCameraDatagramHeader(datagram.data(), header_size, datagram.size(), type, camera_sequence);
    if (long_header)
        memcpy(datagram.data() + kReceivedHeaderSize, kVideoLongHeaderMarker, sizeof kVideoLongHeaderMarker);
    uint8_t* body = datagram.data() + header_size;
    size_t body_size = datagram.size() - header_size;
    for (size_t i = 0; i < body_size; ++i) {
        if (video)
            body[i] = i < sizeof kVideoStart ? kVideoStart[i] : static_cast<uint8_t>(0x80 | (i + camera_sequence));
        else  // bytes below the frame start byte: the telemetry scanner finds nothing
            body[i] = static_cast<uint8_t>((camera_sequence + i) & 0x3f);
    }
    return datagram;
}

bool IsStreamDatagram(const std::vector<uint8_t>& datagram)
{
    if (datagram.size() < kReceivedHeaderSize)
        return false;
    uint8_t type = datagram[kTransportTypeOffset];
    if (type != kTransportDataStream && type != kTransportLiveVideo)
        return false;
    return datagram == StreamDatagram(type, ReadLe16(datagram.data() + kReceivedSequenceOffset));
}

DaemonDatagram ClassifyDaemonDatagram(const std::vector<uint8_t>& datagram)
{
    if (datagram.size() == kConnectRequestSize && memcmp(datagram.data(), kConnectRequest, kConnectRequestSize) == 0)
        return DaemonDatagram::kConnectRequest;
    if (datagram.size() == kPingDatagramSize) {
        uint8_t ping[kPingDatagramSize];
        BuildPingDatagram(ping, ReadLe16(datagram.data() + kCommandRxOffset),
                          ReadLe16(datagram.data() + kCommandHeaderSize + kFrameSequenceOffset));
        if (memcmp(ping, datagram.data(), sizeof ping) == 0)
            return DaemonDatagram::kPing;
    }
    if (datagram.size() == kAckDatagramSize) {
        uint8_t ack[kAckDatagramSize];
        BuildAckDatagram(ack, ReadLe16(datagram.data() + kCommandRxOffset));
        if (memcmp(ack, datagram.data(), sizeof ack) == 0)
            return DaemonDatagram::kVideoAck;
    }
    return DaemonDatagram::kOther;
}

std::vector<uint8_t> PhoneDatagram(uint32_t number)
{
    std::vector<uint8_t> datagram(kPhoneDatagramSize);
    memcpy(datagram.data(), kPhoneMarker, sizeof kPhoneMarker);
    for (size_t i = sizeof kPhoneMarker; i < datagram.size(); ++i)
        datagram[i] = static_cast<uint8_t>(number >> (8 * (i % 4)));
    return datagram;
}

bool IsPhoneDatagram(const std::vector<uint8_t>& datagram)
{
    if (datagram.size() != kPhoneDatagramSize || memcmp(datagram.data(), kPhoneMarker, sizeof kPhoneMarker) != 0)
        return false;
    uint32_t number = 0;
    for (size_t i = 0; i < 4; ++i)
        number |= static_cast<uint32_t>(datagram[sizeof kPhoneMarker + i]) << (8 * ((sizeof kPhoneMarker + i) % 4));
    return datagram == PhoneDatagram(number);
}

StreamingCamera::StreamingCamera(const NetworkNamespace* ns, const char* host, uint16_t port, int period_ms)
    : socket_(ns, host, port), period_ms_(period_ms)
{
    if (socket_.ok())
        thread_ = std::thread(&StreamingCamera::Run, this);
}

StreamingCamera::~StreamingCamera()
{
    stop_.store(true);
    if (thread_.joinable())
        thread_.join();
}

void StreamingCamera::Run()
{
    uint16_t sequence = 0;
    int64_t next_send_ms = 0;
    std::string daemon_host;
    uint16_t daemon_port = 0;
    while (!stop_.load()) {
        std::string from_host;
        uint16_t from_port = 0;
        std::vector<uint8_t> datagram = socket_.Receive(10, &from_host, &from_port);
        if (!datagram.empty()) {
            std::lock_guard<std::mutex> guard(lock_);
            received_.push_back({SteadyMs(), from_host, from_port, datagram});
            if (daemon_port_ == 0) {
                daemon_host_ = daemon_host = from_host;
                daemon_port_ = daemon_port = from_port;
            }
        }
        if (daemon_port == 0 || SteadyMs() < next_send_ms)
            continue;
        next_send_ms = SteadyMs() + period_ms_;
        for (uint8_t type : {kTransportDataStream, kTransportLiveVideo}) {
            socket_.SendTo(daemon_host.c_str(), daemon_port, StreamDatagram(type, sequence++));
            next_sequence_.store(sequence);
        }
    }
}

bool StreamingCamera::WaitForDaemon(int timeout_ms)
{
    int64_t deadline = SteadyMs() + timeout_ms;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (daemon_port_ != 0)
                return true;
        }
        if (SteadyMs() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::vector<StreamingCamera::Received> StreamingCamera::ReceivedSince(int64_t from_ms)
{
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<Received> since;
    for (const Received& entry : received_)
        if (entry.at_ms >= from_ms)
            since.push_back(entry);
    return since;
}

size_t StreamingCamera::Count(DaemonDatagram kind, int64_t from_ms, int64_t to_ms)
{
    size_t count = 0;
    for (const Received& entry : ReceivedSince(from_ms))
        if (entry.at_ms <= to_ms && ClassifyDaemonDatagram(entry.bytes) == kind)
            ++count;
    return count;
}

bool StreamingCamera::WaitFor(DaemonDatagram kind, int64_t from_ms, int timeout_ms, size_t count)
{
    int64_t deadline = SteadyMs() + timeout_ms;
    for (;;) {
        if (Count(kind, from_ms, INT64_MAX) >= count)
            return true;
        if (SteadyMs() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

size_t StreamingCamera::PhoneDatagramsSince(int64_t from_ms)
{
    size_t count = 0;
    for (const Received& entry : ReceivedSince(from_ms))
        count += IsPhoneDatagram(entry.bytes) ? 1 : 0;
    return count;
}

size_t StreamingCamera::WaitForPhoneDatagrams(int64_t from_ms, size_t count, int timeout_ms)
{
    int64_t deadline = SteadyMs() + timeout_ms;
    size_t seen = PhoneDatagramsSince(from_ms);
    while (seen < count && SteadyMs() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        seen = PhoneDatagramsSince(from_ms);
    }
    return seen;
}

size_t StreamingCamera::CountAnswering(DaemonDatagram kind, uint16_t first, uint16_t end)
{
    size_t count = 0;
    for (const Received& entry : ReceivedSince(INT64_MIN)) {
        if (ClassifyDaemonDatagram(entry.bytes) != kind || entry.bytes.size() < kCommandRxOffset + 2)
            continue;
        uint16_t answered = ReadLe16(entry.bytes.data() + kCommandRxOffset);
        // Unsigned distances: right across a wrap of the counter too.
        if (static_cast<uint16_t>(answered - first) < static_cast<uint16_t>(end - first))
            ++count;
    }
    return count;
}
