// tarnwick-video-bench: the live video path of the real daemon under load,
// beside a bare baseline measured in the same run.
//
//   build/bench/tarnwick-video-bench [--seconds=<per run>] [--repeat=<runs per step>] [--quick]
//                                    [--load-only | --no-load]           (as root)
//
// First, unless --no-load: video beside load, each loaded run after a quiet
// run of the same video. "busy" is a main application sending 1000 JSON
// commands a second, the remote control's 50 Hz gimbal stream (a stick held
// off centre) and the phone connected to the bridge (every camera datagram
// forwarded to it, and no acks, so latency is measured to the forwarded
// copy); "flood" is 10000 commands a second for 10 s, valid, malformed and
// 9999-byte ones mixed. Each row: delivered video, loss, latency, the
// daemon's CPU, and the ratios to the quiet run. Then the side-by-side series:
//
// It enters private network and mount namespaces (root), starts the daemon
// (build/tarnwickrelay) with the heap-allocation counter preloaded, plays its
// camera on loopback and sends it video datagrams (20-byte header, 1400- and
// 9000-byte payloads) at rising rates, open loop. Every datagram carries its
// number in the camera's sequence field, which the daemon's 34-byte
// acknowledgement echoes, for the latency. The
// baseline is a forked process with the least the job needs: recvfrom into a
// 10000-byte buffer, memcpy into a shared-memory ring of the same geometry
// with the same slot header and next_slot / last_part stores, and the 34-byte
// ack back with sendto, on a socket with the daemon's buffer sizes. Both are
// driven by the same sender, step by step in turn, each step run twice by
// default and each side's best run kept. The receiving process has CPU 1 to
// itself; the sender and the ack reader share CPU 0.
//
// Per step and system: delivered datagrams/s (parts that reached the ring,
// counted from its last_part, per second of sending), loss (sent - delivered:
// kernel drops, as neither side drops on its own; acks lost on the way back
// do not count), CPU seconds of the receiving process per 100k datagrams
// (/proc utime + stime), and ack latency p50 / p99 (send to ack, one clock).
// Then the ratio of the daemon's delivered rate to the baseline's, the knee of
// each (the highest rate with loss under 0.1%) and the daemon's heap
// allocations while it carried the run.
#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "sim/camera_side.h"
#include "camera/frame.h"
#include "bridge/mimo_bridge.h"
#include "control/remote_control.h"
#include "net/udp_endpoint.h"
#include "support/child_process.h"
#include "support/isolation.h"
#include "video/frame_ring.h"
#include "tarnwickclient/client.h"

namespace {

constexpr const char* kMallocCountFile = "/dev/shm/tarnwick-bench-malloc-count";
constexpr const char* kBaselineRingName = "tarnwick_bench_baseline_ring";
constexpr size_t kMaxDatagram = 10000;   // the daemon's camera receive buffer
constexpr size_t kBatch = 32;            // datagrams per sendmmsg at most
constexpr uint32_t kSequenceSpace = 65536;

int64_t NowNs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// utime + stime of a process, in seconds.
double ProcessCpuSeconds(pid_t pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    FILE* file = fopen(path, "r");
    if (file == nullptr)
        return 0;
    char text[1024] = {};
    size_t length = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[length] = '\0';
    // Fields after the command name, which is in parentheses: state is field 3,
    // utime 14 and stime 15.
    const char* rest = strrchr(text, ')');
    if (rest == nullptr)
        return 0;
    unsigned long utime = 0, stime = 0;
    if (sscanf(rest + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) != 2)
        return 0;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int OpenUdpSocket(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    int size = kUdpSocketBufferBytes;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    local.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof local) != 0) {
        perror("bind");
        exit(1);
    }
    return fd;
}

uint16_t LocalPort(int fd)
{
    struct sockaddr_in local;
    socklen_t length = sizeof local;
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&local), &length);
    return ntohs(local.sin_port);
}

struct sockaddr_in Loopback(uint16_t port)
{
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// ---- the baseline ----

// A shared-memory ring of the daemon's geometry, mapped before the fork so
// that the benchmark sees the baseline's parts as it sees the daemon's.
uint8_t* MapBaselineRing()
{
    int fd = shm_open(kBaselineRingName, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, kFrameBufferSize) != 0) {
        perror("baseline ring");
        exit(1);
    }
    void* mapping = mmap(nullptr, kFrameBufferSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED) {
        perror("baseline ring");
        exit(1);
    }
    memset(mapping, 0, kFrameBufferSize);
    return static_cast<uint8_t*>(mapping);
}

[[noreturn]] void RunBaseline(int fd, uint8_t* ring)
{
    static uint8_t datagram[kMaxDatagram];
    uint8_t ack[kAckDatagramSize];
    uint32_t slot = 0;
    uint16_t part = 0;
    for (;;) {
        struct sockaddr_in from;
        socklen_t from_length = sizeof from;
        ssize_t length =
            recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<struct sockaddr*>(&from), &from_length);
        if (length <= static_cast<ssize_t>(kReceivedHeaderSize) || datagram[kTransportTypeOffset] != kTransportLiveVideo)
            continue;
        uint32_t payload = static_cast<uint32_t>(length) - kReceivedHeaderSize;
        uint8_t* slot_bytes = RingSlot(ring, slot);
        memcpy(slot_bytes + kSlotDataOffset, datagram + kReceivedHeaderSize, payload);
        RingWriteSlotHeader(slot_bytes, payload, part, 0);
        slot = RingNextSlot(slot);
        RingStoreField(ring, kRingNextSlotOffset, static_cast<uint16_t>(slot));
        RingStoreField(ring, kRingLastPartOffset, part++);
        BuildAckDatagram(ack, ReadLe16(datagram + kReceivedSequenceOffset));
        sendto(fd, ack, sizeof ack, 0, reinterpret_cast<struct sockaddr*>(&from), from_length);
    }
}

// ---- the camera side: sender and ack receiver ----

struct StepResult {
    double offered_per_s = 0;     // what the sender achieved
    uint64_t sent = 0;
    uint64_t delivered = 0;       // parts that reached the ring
    uint64_t acked = 0;
    double delivered_per_s = 0;
    double cpu_per_100k = 0;
    double p50_us = 0;
    double p99_us = 0;
    double cpu_share = 0;         // receiving process: CPU seconds per second of sending
    uint64_t camera_commands = 0; // command frames that reached the camera meanwhile
    bool echoed_by_phone = false; // latency measured to the copy forwarded to the phone, not to an ack
};

std::atomic<int64_t> send_times[kSequenceSpace];

// Receives acks on `fd` until `stop`, noting each one's latency.
void ReceiveAcks(int fd, const std::atomic<bool>* stop, std::atomic<uint64_t>* acked, std::vector<int64_t>* latencies,
                 std::atomic<uint64_t>* commands)
{
    uint8_t datagram[kMaxDatagram];
    while (!stop->load()) {
        ssize_t length = recv(fd, datagram, sizeof datagram, 0);
        int64_t now = NowNs();
        if (length > static_cast<ssize_t>(kAckDatagramSize) && datagram[kTransportTypeOffset] == kTransportCommand)
            commands->fetch_add(1);   // a camera command or gimbal frame (or the connect request)
        if (length != static_cast<ssize_t>(kAckDatagramSize) || datagram[kTransportTypeOffset] != kTransportCommand)
            continue;   // a time-out, or not an ack
        uint16_t sequence = ReadLe16(datagram + kCommandRxOffset);
        int64_t latency = now - send_times[sequence].load(std::memory_order_relaxed);
        if (latency >= 0 && latency < 1000000000 && latencies->size() < latencies->capacity())
            latencies->push_back(latency);
        acked->fetch_add(1);
    }
}

// Receives on the phone's socket what the daemon forwards to it, noting the
// latency of each video datagram (its camera sequence number, unchanged).
void ReceiveEchoes(int fd, const std::atomic<bool>* stop, std::atomic<uint64_t>* echoed,
                   std::vector<int64_t>* latencies)
{
    uint8_t datagram[kMaxDatagram];
    while (!stop->load()) {
        ssize_t length = recv(fd, datagram, sizeof datagram, 0);
        int64_t now = NowNs();
        if (length <= static_cast<ssize_t>(kReceivedHeaderSize) || datagram[kTransportTypeOffset] != kTransportLiveVideo)
            continue;
        uint16_t sequence = ReadLe16(datagram + kReceivedSequenceOffset);
        int64_t latency = now - send_times[sequence].load(std::memory_order_relaxed);
        if (latency >= 0 && latency < 1000000000 && latencies->size() < latencies->capacity())
            latencies->push_back(latency);
        echoed->fetch_add(1);
    }
}

// Counts the parts written into `ring` until `stop`, from the wrapping
// 16-bit last_part, sampled far more often than it can wrap.
void CountParts(const uint8_t* ring, const std::atomic<bool>* stop, std::atomic<uint64_t>* parts)
{
    uint16_t last = RingLoadField(ring, kRingLastPartOffset);
    while (!stop->load()) {
        struct timespec pause = {0, 100000};
        nanosleep(&pause, nullptr);
        uint16_t now = RingLoadField(ring, kRingLastPartOffset);
        parts->fetch_add(static_cast<uint16_t>(now - last));
        last = now;
    }
}

void DrainSocket(int fd)
{
    uint8_t datagram[kMaxDatagram];
    while (recv(fd, datagram, sizeof datagram, MSG_DONTWAIT) > 0) {
    }
}

double Percentile(std::vector<int64_t>* values, double fraction)
{
    if (values->empty())
        return NAN;
    size_t index = static_cast<size_t>(fraction * static_cast<double>(values->size() - 1));
    std::nth_element(values->begin(), values->begin() + static_cast<long>(index), values->end());
    return static_cast<double>((*values)[index]) / 1000.0;
}

// Sends `rate` datagrams a second of `payload` bytes for `seconds` to
// `target_port` from `fd`, and measures `measured` (the receiving process).
StepResult RunStep(int fd, uint16_t target_port, pid_t measured, const uint8_t* ring, size_t payload, double rate,
                   double seconds, int echo_fd = -1)
{
    static uint8_t datagrams[kBatch][kMaxDatagram];
    static struct mmsghdr messages[kBatch];
    static struct iovec vectors[kBatch];
    struct sockaddr_in target = Loopback(target_port);
    size_t total = kReceivedHeaderSize + payload;
    for (size_t i = 0; i < kBatch; ++i) {
        for (size_t j = 0; j < payload; ++j)
            datagrams[i][kReceivedHeaderSize + j] = static_cast<uint8_t>(0x80 | ((i + j * 7) & 0x7f));
        vectors[i] = {datagrams[i], total};
        memset(&messages[i], 0, sizeof messages[i]);
        messages[i].msg_hdr.msg_name = &target;
        messages[i].msg_hdr.msg_namelen = sizeof target;
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }

    uint64_t count = static_cast<uint64_t>(rate * seconds);
    StepResult result;
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> acked{0};
    std::atomic<uint64_t> parts{0};
    std::atomic<uint64_t> commands{0};
    std::atomic<uint64_t> echoed{0};
    std::vector<int64_t> latencies, echo_latencies;
    latencies.reserve(count);
    DrainSocket(fd);
    std::thread receiver(ReceiveAcks, fd, &stop, &acked, &latencies, &commands);
    std::thread counter(CountParts, ring, &stop, &parts);
    std::thread echo_receiver;
    if (echo_fd >= 0) {
        echo_latencies.reserve(count);
        DrainSocket(echo_fd);
        echo_receiver = std::thread(ReceiveEchoes, echo_fd, &stop, &echoed, &echo_latencies);
    }

    double cpu_before = ProcessCpuSeconds(measured);
    int64_t start = NowNs();
    uint64_t sent = 0;
    while (sent < count) {
        int64_t now = NowNs();
        uint64_t due = static_cast<uint64_t>(static_cast<double>(now - start) * rate / 1e9);
        if (due > count)
            due = count;
        if (due <= sent) {
            struct timespec pause = {0, 20000};
            nanosleep(&pause, nullptr);
            continue;
        }
        size_t batch = static_cast<size_t>(std::min<uint64_t>(due - sent, kBatch));
        for (size_t i = 0; i < batch; ++i) {
            uint16_t sequence = static_cast<uint16_t>(sent + i);
            BuildCameraDatagramHeader(datagrams[i], kReceivedHeaderSize, total, kTransportLiveVideo, sequence);
            send_times[sequence].store(now, std::memory_order_relaxed);
        }
        int done = sendmmsg(fd, messages, static_cast<unsigned>(batch), 0);
        if (done > 0)
            sent += static_cast<uint64_t>(done);
    }
    int64_t sending_ns = NowNs() - start;

    // Stragglers: wait until every part is in or none came for 300 ms.
    uint64_t last = parts.load();
    int64_t quiet_since = NowNs();
    while (parts.load() < sent && NowNs() - quiet_since < 300000000) {
        usleep(10000);
        if (parts.load() != last) {
            last = parts.load();
            quiet_since = NowNs();
        }
    }
    double cpu_after = ProcessCpuSeconds(measured);
    usleep(20000);   // the last acks
    stop.store(true);
    receiver.join();
    counter.join();
    if (echo_receiver.joinable())
        echo_receiver.join();

    double sending_s = static_cast<double>(sending_ns) / 1e9;
    result.sent = sent;
    result.acked = acked.load();
    result.delivered = parts.load();
    result.offered_per_s = static_cast<double>(sent) / sending_s;
    result.delivered_per_s = static_cast<double>(result.delivered) / sending_s;
    result.cpu_per_100k =
        result.delivered > 0 ? (cpu_after - cpu_before) / static_cast<double>(result.delivered) * 1e5 : NAN;
    result.cpu_share = (cpu_after - cpu_before) / sending_s;
    result.camera_commands = commands.load();
    result.echoed_by_phone = echo_fd >= 0 && latencies.empty();
    std::vector<int64_t>* measured_latencies = result.echoed_by_phone ? &echo_latencies : &latencies;
    if (result.echoed_by_phone)
        result.acked = echoed.load();
    result.p50_us = Percentile(measured_latencies, 0.50);
    result.p99_us = Percentile(measured_latencies, 0.99);
    return result;
}

uint64_t ReadAllocationCount()
{
    int fd = open(kMallocCountFile, O_RDONLY | O_CLOEXEC);
    uint64_t count = 0;
    if (fd >= 0) {
        if (pread(fd, &count, sizeof count, 0) != static_cast<ssize_t>(sizeof count))
            count = 0;
        close(fd);
    }
    return count;
}

// Waits for the daemon's first datagram (its connect request) and returns
// the port it came from, or 0.
uint16_t AwaitDaemon(int fd, int timeout_ms)
{
    struct timeval timeout = {0, 100000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    uint8_t datagram[kMaxDatagram];
    for (int waited = 0; waited < timeout_ms; waited += 100) {
        struct sockaddr_in from;
        socklen_t length = sizeof from;
        ssize_t size = recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<struct sockaddr*>(&from), &length);
        if (size == static_cast<ssize_t>(kConnectRequestSize))
            return ntohs(from.sin_port);
    }
    return 0;
}

// A knee tolerates a hiccup: a 10 ms stall of either side overflows the
// socket buffer at these rates.
constexpr double kKneeLoss = 0.001;

double LossFraction(const StepResult& r)
{
    return r.sent > 0 ? static_cast<double>(r.sent - r.delivered) / static_cast<double>(r.sent) : 0.0;
}

void PrintRow(double rate, const StepResult& d, const StepResult& b)
{
    auto loss = [](const StepResult& r) { return 100.0 * LossFraction(r); };
    printf("%7.0f %7.0f | %9.0f %6.2f%% %6.3f %6.0f %7.0f | %9.0f %6.2f%% %6.3f %6.0f %7.0f | %5.2f\n", rate,
           std::min(d.offered_per_s, b.offered_per_s), d.delivered_per_s, loss(d), d.cpu_per_100k, d.p50_us, d.p99_us,
           b.delivered_per_s, loss(b), b.cpu_per_100k, b.p50_us, b.p99_us,
           b.delivered_per_s > 0 ? d.delivered_per_s / b.delivered_per_s : NAN);
    fflush(stdout);
}

// Puts the calling thread (and what it forks or starts later) on one CPU.
// Returns false when there is no such CPU.
bool PinToCpu(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
}

struct Series {
    size_t payload;
    std::vector<double> rates;
};


// ---- load beside the video: the main application, the remote control, the phone ----

enum class Load { kBusy, kFlood };

struct LoadPeers {
    int app_fd = -1;            // port 5000, where the status goes; commands leave from it
    uint16_t command_port = 0;  // the daemon's, the source of the status datagrams
    int phone_fd = -1;          // the phone, sending to the bridge port
    RcRawState* rc = nullptr;   // the remote-control record the daemon reads
};

// The commands of a load: a busy main application sends valid ones; a flood
// mixes valid, malformed and 9999-byte ones (the most one datagram carries).
std::vector<std::string> LoadCommands(Load load)
{
    std::vector<std::string> commands = {R"(!{"cmd":"iso","param":"400"})", R"(!{"cmd":"ev","param":"+0.7"})",
                                         R"(!{"cmd":"wb","param":"auto"})", R"(!{"cmd":"iso","param":"auto"})"};
    if (load == Load::kFlood) {
        commands.push_back(R"(!{"cmd":"iso","param":)");
        commands.push_back("not a command at all");
        commands.push_back(R"(!{"cmd":"no_such_command","param":"1"})");
        std::string longest = R"(!{"cmd":"iso","param":")";
        longest += std::string(9999 - longest.size() - 2, '4');
        longest += "\"}";
        commands.push_back(longest);
        commands.push_back(std::string(9999, '{'));
    }
    return commands;
}

void SendCommands(const LoadPeers* peers, Load load, double rate, const std::atomic<bool>* stop,
                  std::atomic<uint64_t>* sent)
{
    const std::vector<std::string> commands = LoadCommands(load);
    struct sockaddr_in daemon = Loopback(peers->command_port);
    int64_t start = NowNs();
    uint64_t done = 0;
    while (!stop->load()) {
        uint64_t due = static_cast<uint64_t>(static_cast<double>(NowNs() - start) * rate / 1e9);
        for (; done < due; ++done) {
            const std::string& command = commands[done % commands.size()];
            sendto(peers->app_fd, command.data(), command.size(), 0, reinterpret_cast<struct sockaddr*>(&daemon),
                   sizeof daemon);
        }
        sent->store(done);
        usleep(200);
    }
}

// The phone: a datagram to the bridge port every 100 ms keeps it connected.
void TalkAsPhone(const LoadPeers* peers, const std::atomic<bool>* stop)
{
    struct sockaddr_in bridge = Loopback(kMimoBridgePort);
    uint8_t hello[kAckDatagramSize] = {};
    while (!stop->load()) {
        sendto(peers->phone_fd, hello, sizeof hello, 0, reinterpret_cast<struct sockaddr*>(&bridge), sizeof bridge);
        usleep(100000);
    }
}

// Learns the command port, opens the phone, maps the remote-control record,
// and sets the movement mode so that an off-centre stick gives the 50 Hz
// gimbal stream. Returns false when the daemon does not answer.
bool SetUpLoad(LoadPeers* peers, int camera_fd, uint16_t daemon_port)
{
    // The status report and the remote control start once the camera's data
    // stream has been seen.
    uint8_t stream[kReceivedHeaderSize + 16] = {};
    BuildCameraDatagramHeader(stream, kReceivedHeaderSize, sizeof stream, kTransportDataStream, 1);
    struct sockaddr_in daemon = Loopback(daemon_port);
    sendto(camera_fd, stream, sizeof stream, 0, reinterpret_cast<struct sockaddr*>(&daemon), sizeof daemon);
    peers->app_fd = OpenUdpSocket(5000);
    struct timeval timeout = {0, 100000};
    setsockopt(peers->app_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    uint8_t datagram[kMaxDatagram];
    for (int tries = 0; tries < 50 && peers->command_port == 0; ++tries) {
        struct sockaddr_in from;
        socklen_t length = sizeof from;
        if (recvfrom(peers->app_fd, datagram, sizeof datagram, 0, reinterpret_cast<struct sockaddr*>(&from), &length) > 0)
            peers->command_port = ntohs(from.sin_port);
    }
    peers->phone_fd = OpenUdpSocket(0);
    setsockopt(peers->phone_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    int fd = -1;
    bool missing = false;
    peers->rc = MapRcRawState(kRcRawStateName, &fd, &missing);
    if (peers->command_port == 0 || peers->rc == nullptr)
        return false;
    const char movement[] = R"(!{"cmd":"set","name":"movement","value":"rel"})";
    struct sockaddr_in commands = Loopback(peers->command_port);
    sendto(peers->app_fd, movement, sizeof movement - 1, 0, reinterpret_cast<struct sockaddr*>(&commands),
           sizeof commands);
    return true;
}

void PrintLoadRow(const char* name, const StepResult& r, const StepResult& quiet)
{
    printf("  %-6s | %9.0f %6.2f%% %7.0f %7.0f%s %6.3f %5.0f%% | %9llu | %5.2f %5.2f\n", name, r.delivered_per_s,
           100.0 * LossFraction(r), r.p50_us, r.p99_us, r.echoed_by_phone ? "*" : " ", r.cpu_per_100k,
           100.0 * r.cpu_share, static_cast<unsigned long long>(r.camera_commands),
           quiet.delivered_per_s > 0 ? r.delivered_per_s / quiet.delivered_per_s : NAN,
           quiet.p99_us > 0 ? r.p99_us / quiet.p99_us : NAN);
    fflush(stdout);
}

// Video beside a busy main application (1000 commands/s, the 50 Hz gimbal
// stream of the remote control, the phone connected so that every camera
// datagram is forwarded) and beside a command flood (10000 commands/s,
// valid, malformed and 9999-byte), each after a quiet run of the same video.
void RunLoadComparison(int camera_fd, uint16_t daemon_port, ChildProcess* daemon, const uint8_t* ring,
                       LoadPeers* peers, double video_rate, double busy_seconds, double flood_seconds)
{
    printf("Video (1400-byte payloads, %.0f datagrams/s) beside load, each run after a quiet one of the same length.\n"
           "p99* = latency to the copy forwarded to the phone (no acks go out while the phone is connected);\n"
           "CPU = daemon, s per 100k datagrams and share of one core; cmds = command frames that reached the camera;\n"
           "ratios = loaded / quiet for delivered and p99\n",
           video_rate);
    printf("  run    | delivered   loss     p50     p99   CPU   share |      cmds | deliv   p99\n");
    struct {
        const char* name;
        Load load;
        double rate, seconds;
    } const runs[] = {{"busy", Load::kBusy, 1000, busy_seconds}, {"flood", Load::kFlood, 10000, flood_seconds}};
    for (const auto& run : runs) {
        StepResult quiet = RunStep(camera_fd, daemon_port, daemon->pid(), ring, 1400, video_rate, run.seconds);
        PrintLoadRow("quiet", quiet, quiet);
        std::atomic<bool> stop{false};
        std::atomic<uint64_t> commands_sent{0};
        std::thread phone;
        bool busy = run.load == Load::kBusy;
        if (busy) {
            StoreRcSlotValue(peers->rc, 0, 0.5);   // a stick off centre: a gimbal speed command every cycle
            phone = std::thread(TalkAsPhone, peers, &stop);
            daemon->WaitForStderr("DJI MIMO connection found", 3000);
        }
        std::thread sender(SendCommands, peers, run.load, run.rate, &stop, &commands_sent);
        StepResult loaded = RunStep(camera_fd, daemon_port, daemon->pid(), ring, 1400, video_rate, run.seconds,
                                    busy ? peers->phone_fd : -1);
        stop.store(true);
        sender.join();
        if (phone.joinable())
            phone.join();
        StoreRcSlotValue(peers->rc, 0, 0.0);
        PrintLoadRow(run.name, loaded, quiet);
        printf("         (%llu commands sent)\n", static_cast<unsigned long long>(commands_sent.load()));
        sleep(2);   // the phone counts as gone, the daemon acks again; the log drains
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = 1.0;
    int repeat = 2;
    bool quick = false;
    bool series_wanted = true, load_wanted = true;
    static const struct option options[] = {
        {"seconds", required_argument, nullptr, 's'},
        {"repeat", required_argument, nullptr, 'r'},
        {"quick", no_argument, nullptr, 'q'},
        {"load-only", no_argument, nullptr, 'l'},
        {"no-load", no_argument, nullptr, 'n'},
        {nullptr, 0, nullptr, 0},
    };
    for (int option; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (option == 's' && atof(optarg) > 0)
            seconds = atof(optarg);
        else if (option == 'r' && atoi(optarg) > 0)
            repeat = atoi(optarg);
        else if (option == 'q')
            quick = true;
        else if (option == 'l')
            series_wanted = false;
        else if (option == 'n')
            load_wanted = false;
        else {
            fputs("Usage: tarnwick-video-bench [--seconds=<per run>] [--repeat=<runs per step>] [--quick]"
                  " [--load-only | --no-load]\n",
                  stderr);
            return 1;
        }
    }
    if (!EnterPrivateNamespaces()) {
        fputs("needs root: the daemon runs in private network and mount namespaces\n", stderr);
        return 1;
    }
    mkdir("/run/tarnwickrelay", 0755);
    signal(SIGPIPE, SIG_IGN);

    std::vector<Series> series = {
        {1400, {20000, 50000, 100000, 150000, 200000, 250000, 300000}},
        {9000, {10000, 25000, 50000, 75000, 100000, 150000, 200000, 250000}},
    };
    if (quick)
        for (Series& s : series)
            s.rates = {s.rates[0], s.rates[2], s.rates.back()};

    // The receiving process (daemon or baseline) gets a CPU of its own and
    // the sender and ack reader the other, so that a run measures the
    // receiver's path rather than how the scheduler shared two cores out.
    bool pinned = sysconf(_SC_NPROCESSORS_ONLN) >= 2 && PinToCpu(1);

    // The baseline, forked before any thread starts.
    int baseline_fd = OpenUdpSocket(0);
    uint16_t baseline_port = LocalPort(baseline_fd);
    uint8_t* baseline_ring = MapBaselineRing();
    pid_t baseline = fork();
    if (baseline == 0)
        RunBaseline(baseline_fd, baseline_ring);
    close(baseline_fd);

    int camera_fd = OpenUdpSocket(0);
    uint16_t camera_port = LocalPort(camera_fd);
    unlink(kMallocCountFile);
    setenv("LD_PRELOAD", TARNWICK_MALLOC_COUNTER_PATH, 1);
    setenv("TARNWICK_MALLOC_COUNT_FILE", kMallocCountFile, 1);
    ChildProcess daemon;
    daemon.LimitOutput(1 << 20);   // the command flood logs every command
    bool started = daemon.Start(DaemonPath(), {"--host", "127.0.0.1", "--port", std::to_string(camera_port)});
    unsetenv("LD_PRELOAD");
    unsetenv("TARNWICK_MALLOC_COUNT_FILE");
    if (pinned)
        PinToCpu(0);
    uint16_t daemon_port = started ? AwaitDaemon(camera_fd, 10000) : 0;
    if (daemon_port == 0) {
        fprintf(stderr, "the daemon did not start:\n%s", daemon.Stderr().c_str());
        kill(baseline, SIGKILL);
        return 1;
    }

    // Warm-up: the first part clears the 60 MB ring; both rings get touched.
    static tarnwick::RingReader daemon_reader;
    const uint8_t* daemon_ring =
        tarnwick::RingReaderOpen(&daemon_reader) == 0 ? daemon_reader.region : nullptr;
    if (daemon_ring == nullptr) {
        fputs("cannot map the daemon's ring\n", stderr);
        kill(baseline, SIGKILL);
        return 1;
    }
    RunStep(camera_fd, daemon_port, daemon.pid(), daemon_ring, 1400, 20000, 0.5);
    RunStep(camera_fd, baseline_port, baseline, baseline_ring, 1400, 20000, 0.5);
    uint64_t allocations_at_start = ReadAllocationCount();
    uint64_t datagrams_measured = 0;
    double run_start_s = static_cast<double>(NowNs()) / 1e9;

    printf("Video path on loopback: best of %d runs of %.1f s per step, open-loop sender, 20-byte header%s\n",
           repeat, seconds, pinned ? ";\nreceiver on CPU 1, sender and ack reader on CPU 0" : "");
    printf("target = datagrams/s asked of the sender, sent = what it managed (the lower of the two runs);\n"
           "delivered/s = parts that reached the ring per second of sending; loss = (sent - delivered) / sent;\n"
           "CPU = receiving process, s per 100k datagrams; p50/p99 = send-to-ack latency, microseconds;\n"
           "ratio = daemon / baseline delivered\n\n");
    if (load_wanted) {
        LoadPeers peers;
        if (!SetUpLoad(&peers, camera_fd, daemon_port)) {
            fputs("the daemon's command port or remote-control record is missing\n", stderr);
        } else {
            RunLoadComparison(camera_fd, daemon_port, &daemon, daemon_ring, &peers, 20000, quick ? 3 : 5,
                              quick ? 3 : 10);
        }
    }
    for (const Series& s : series_wanted ? series : std::vector<Series>()) {
        printf("payload %zu bytes\n", s.payload);
        printf("  target    sent |   daemon: delivered   loss    CPU    p50     p99 |"
               " baseline: delivered  loss    CPU    p50     p99 | ratio\n");
        double knee_daemon = 0, knee_baseline = 0, peak_daemon = 0, peak_baseline = 0;
        std::vector<StepResult> daemon_rows;
        for (double rate : s.rates) {
            // Turn about, keeping each side's best run: on a shared machine
            // other load only ever makes a run worse.
            StepResult d, b;
            for (int turn = 0; turn < repeat; ++turn) {
                StepResult dt = RunStep(camera_fd, daemon_port, daemon.pid(), daemon_ring, s.payload, rate, seconds);
                datagrams_measured += dt.delivered;
                StepResult bt = RunStep(camera_fd, baseline_port, baseline, baseline_ring, s.payload, rate, seconds);
                if (turn == 0 || dt.delivered > d.delivered)
                    d = dt;
                if (turn == 0 || bt.delivered > b.delivered)
                    b = bt;
            }
            PrintRow(rate, d, b);
            if (LossFraction(d) <= kKneeLoss)
                knee_daemon = std::max(knee_daemon, rate);
            if (LossFraction(b) <= kKneeLoss)
                knee_baseline = std::max(knee_baseline, rate);
            daemon_rows.push_back(d);
            peak_daemon = std::max(peak_daemon, d.delivered_per_s);
            peak_baseline = std::max(peak_baseline, b.delivered_per_s);
        }
        // The daemon's worst loss at the rates the baseline carries.
        double worst = 0;
        for (size_t i = 0; i < s.rates.size(); ++i)
            if (s.rates[i] <= knee_baseline)
                worst = std::max(worst, LossFraction(daemon_rows[i]));
        printf("knee (highest rate with loss <= %.1f%%): daemon %.0f/s, baseline %.0f/s; "
               "daemon's worst loss up to the baseline's knee: %.3f%%\n",
               100 * kKneeLoss, knee_daemon, knee_baseline, 100 * worst);
        printf("peak delivered: daemon %.0f/s, baseline %.0f/s, ratio %.2f\n\n", peak_daemon, peak_baseline,
               peak_baseline > 0 ? peak_daemon / peak_baseline : NAN);
    }
    double run_s = static_cast<double>(NowNs()) / 1e9 - run_start_s;
    uint64_t allocations_at_end = ReadAllocationCount();

    // The same time with no datagrams: what the daemon's timers allocate on their own.
    sleep(2);
    uint64_t allocations_idle = ReadAllocationCount() - allocations_at_end;
    printf("daemon heap allocations: %llu before the run (start-up, warm-up); %llu during the run of %.1f s and "
           "%llu datagrams (%.6f per datagram); %llu in 2 s idle after it\n",
           static_cast<unsigned long long>(allocations_at_start),
           static_cast<unsigned long long>(allocations_at_end - allocations_at_start), run_s,
           static_cast<unsigned long long>(datagrams_measured),
           datagrams_measured > 0
               ? static_cast<double>(allocations_at_end - allocations_at_start) / static_cast<double>(datagrams_measured)
               : 0.0,
           static_cast<unsigned long long>(allocations_idle));

    kill(baseline, SIGKILL);
    waitpid(baseline, nullptr, 0);
    shm_unlink(kBaselineRingName);
    return 0;
}
