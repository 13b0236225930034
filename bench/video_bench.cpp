// tarnwick-video-bench: the live video path of the real daemon under load,
// beside two bare baselines measured in the same run.
//
//   build/bench/tarnwick-video-bench [--seconds=<per run>] [--light-seconds=<per light run>]
//                                    [--repeat=<runs per step>] [--quick] [--load-only | --no-load]
//                                    [--csv=<file>] [--png=<file>]        (as root)
//
// Start-up: the time from exec to the daemon's first connect request. Idle:
// each receiving process's CPU with no video. Then, unless --no-load, every
// kind of JSON command with the daemon's heap allocations counted meanwhile,
// and video beside load, each loaded run after a quiet
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
// plain baseline is a forked process with the least the job needs: recvfrom
// into a 10000-byte buffer, memcpy into a shared-memory ring of the same
// geometry with the same slot header and next_slot / last_part stores, and
// the 34-byte ack back with sendto, on a socket with the daemon's buffer
// sizes; the batched one does the same with recvmmsg and one sendmmsg of the
// batch's acks. All three are driven by the same sender, step by step in
// turn, each step run four times by default, each figure the best of its runs; the
// camera's own rates (1k, 3k, 10k datagrams/s) first, 5 s per run. --csv
// writes every figure; --png also draws them (bench/plot.gp, gnuplot). The
// receiving process has CPU 1 to itself; the sender and the ack reader share
// CPU 0.
//
// Per step and system: delivered datagrams/s (parts that reached the ring,
// counted from its last_part, per second of sending), loss (sent - delivered:
// kernel drops, as neither side drops on its own; acks lost on the way back
// do not count), CPU seconds of the receiving process per 100k datagrams
// (the scheduler's run time of all its threads), and ack latency p50 / p99
// (send to ack, one clock). Then the ratios to both baselines, the knee of
// each (the highest rate with loss under 0.1%) and the daemon's heap
// allocations while it carried the run.
#include <arpa/inet.h>
#include <dirent.h>
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

#include "camera/camera_link.h"
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
constexpr const char* kBatchedRingName = "tarnwick_bench_batched_ring";
constexpr size_t kMaxDatagram = 10000;   // the daemon's camera receive buffer
constexpr size_t kBatch = 32;            // datagrams per sendmmsg at most
constexpr uint32_t kSequenceSpace = 65536;

int64_t NowNs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// utime + stime of a process, in seconds, from /proc/<pid>/stat (clock ticks).
double ProcessCpuSecondsFromTicks(pid_t pid)
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

// CPU seconds of a process: the scheduler's own run time of each of its
// threads (/proc/<pid>/task/<tid>/sched, nanosecond resolution, so that the
// light load of a thousand datagrams a second still measures), or the
// clock-tick count where the kernel does not show it.
double ProcessCpuSeconds(pid_t pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task", static_cast<int>(pid));
    DIR* tasks = opendir(path);
    if (tasks == nullptr)
        return 0;
    double total_ms = 0;
    bool found = false;
    for (struct dirent* task; (task = readdir(tasks)) != nullptr;) {
        if (task->d_name[0] == '.')
            continue;
        char sched_path[400];
        snprintf(sched_path, sizeof sched_path, "%s/%s/sched", path, task->d_name);
        FILE* file = fopen(sched_path, "r");
        if (file == nullptr)
            continue;
        char line[256];
        while (fgets(line, sizeof line, file) != nullptr) {
            double ms = 0;
            if (strncmp(line, "se.sum_exec_runtime", 19) == 0 && sscanf(strchr(line, ':') + 1, "%lf", &ms) == 1) {
                total_ms += ms;
                found = true;
                break;
            }
        }
        fclose(file);
    }
    closedir(tasks);
    return found ? total_ms / 1000.0 : ProcessCpuSecondsFromTicks(pid);
}

int OpenUdpSocket(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    // The daemon's buffer sizes, past net.core.rmem_max as the daemon forces them.
    int size = kUdpSocketBufferBytes;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
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
uint8_t* MapBaselineRing(const char* name)
{
    int fd = shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
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

// A baseline's ring write, as the daemon's writer does it: data, slot
// header, next_slot, then last_part.
inline void BaselineQueuePart(uint8_t* ring, uint32_t* slot, uint16_t* part, const uint8_t* payload, uint32_t length)
{
    uint8_t* slot_bytes = RingSlot(ring, *slot);
    memcpy(slot_bytes + kSlotDataOffset, payload, length);
    RingWriteSlotHeader(slot_bytes, length, *part, 0);
    *slot = RingNextSlot(*slot);
    RingStoreField(ring, kRingNextSlotOffset, static_cast<uint16_t>(*slot));
    RingStoreField(ring, kRingLastPartOffset, (*part)++);
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
        BaselineQueuePart(ring, &slot, &part, datagram + kReceivedHeaderSize,
                          static_cast<uint32_t>(length) - kReceivedHeaderSize);
        BuildAckDatagram(ack, ReadLe16(datagram + kReceivedSequenceOffset));
        sendto(fd, ack, sizeof ack, 0, reinterpret_cast<struct sockaddr*>(&from), from_length);
    }
}

// The same job with batched system calls: recvmmsg (blocking for the first
// datagram only, as the daemon's camera receive does), the copies into the
// ring in order, then every ack of the batch in one sendmmsg.
[[noreturn]] void RunBatchedBaseline(int fd, uint8_t* ring)
{
    constexpr unsigned kBatchSize = kCameraReceiveBatch;   // the daemon's
    static uint8_t datagrams[kBatchSize][kMaxDatagram];
    static uint8_t acks[kBatchSize][kAckDatagramSize];
    struct mmsghdr in[kBatchSize], out[kBatchSize];
    struct iovec in_vectors[kBatchSize], out_vectors[kBatchSize];
    struct sockaddr_in sources[kBatchSize];
    memset(in, 0, sizeof in);
    memset(out, 0, sizeof out);
    for (unsigned i = 0; i < kBatchSize; ++i) {
        in_vectors[i] = {datagrams[i], kMaxDatagram};
        in[i].msg_hdr.msg_name = &sources[i];
        in[i].msg_hdr.msg_iov = &in_vectors[i];
        in[i].msg_hdr.msg_iovlen = 1;
        out_vectors[i] = {acks[i], kAckDatagramSize};
        out[i].msg_hdr.msg_iov = &out_vectors[i];
        out[i].msg_hdr.msg_iovlen = 1;
    }
    uint32_t slot = 0;
    uint16_t part = 0;
    for (;;) {
        for (unsigned i = 0; i < kBatchSize; ++i)
            in[i].msg_hdr.msg_namelen = sizeof sources[i];
        int received = recvmmsg(fd, in, kBatchSize, MSG_WAITFORONE, nullptr);
        unsigned ready = 0;
        for (int i = 0; i < received; ++i) {
            const uint8_t* datagram = datagrams[i];
            size_t length = in[i].msg_len;
            if (length <= kReceivedHeaderSize || datagram[kTransportTypeOffset] != kTransportLiveVideo)
                continue;
            BaselineQueuePart(ring, &slot, &part, datagram + kReceivedHeaderSize,
                              static_cast<uint32_t>(length - kReceivedHeaderSize));
            BuildAckDatagram(acks[ready], ReadLe16(datagram + kReceivedSequenceOffset));
            out[ready].msg_hdr.msg_name = &sources[i];
            out[ready].msg_hdr.msg_namelen = in[i].msg_hdr.msg_namelen;
            ++ready;
        }
        if (ready > 0)
            sendmmsg(fd, out, ready, 0);
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

// One receiving system of a side-by-side run.
struct System {
    const char* name;
    uint16_t port;
    pid_t pid;
    const uint8_t* ring;
};
enum SystemIndex { kDaemon, kPlain, kBatched, kSystemCount };

FILE* csv = nullptr;   // --csv: every measured row

void WriteCsvRow(const char* section, size_t payload, double rate, const char* system, const StepResult& r)
{
    if (csv == nullptr)
        return;
    fprintf(csv, "%s,%zu,%.0f,%s,%.0f,%.0f,%.4f,%.4f,%.3f,%.1f,%.1f\n", section, payload, rate, system,
            r.offered_per_s, r.delivered_per_s, 100.0 * LossFraction(r), r.cpu_per_100k, r.cpu_per_100k * 10.0,
            r.p50_us, r.p99_us);
    fflush(csv);
}

double Ratio(double value, double reference)
{
    return reference > 0 ? value / reference : NAN;
}

// One step of the series: each system's line, with the ratios to both baselines.
void PrintSeriesRows(size_t payload, double rate, const System* systems, const StepResult* r)
{
    for (int i = 0; i < kSystemCount; ++i) {
        printf("%7.0f %-8s %9.0f | %9.0f %6.2f%% %6.3f %6.0f %7.0f | %5.2f %5.2f %5.2f | %5.2f\n", rate,
               systems[i].name, r[i].offered_per_s, r[i].delivered_per_s, 100.0 * LossFraction(r[i]),
               r[i].cpu_per_100k, r[i].p50_us, r[i].p99_us, Ratio(r[i].delivered_per_s, r[kPlain].delivered_per_s),
               Ratio(r[i].cpu_per_100k, r[kPlain].cpu_per_100k), Ratio(r[i].p99_us, r[kPlain].p99_us),
               Ratio(r[i].delivered_per_s, r[kBatched].delivered_per_s));
        WriteCsvRow("series", payload, rate, systems[i].name, r[i]);
    }
    fflush(stdout);
}

// Merges a repeated run into the figures kept, each from the run that did
// best by it: delivery from the run that delivered most, CPU from the one
// that cost least, latency from the one with the lowest p99. Other load on
// a shared machine only ever makes a figure worse, and it strikes each run
// at other moments.
void KeepBest(const StepResult& candidate, StepResult* kept)
{
    if (candidate.delivered > kept->delivered) {
        kept->sent = candidate.sent;
        kept->acked = candidate.acked;
        kept->delivered = candidate.delivered;
        kept->offered_per_s = candidate.offered_per_s;
        kept->delivered_per_s = candidate.delivered_per_s;
    }
    if (candidate.cpu_per_100k < kept->cpu_per_100k) {
        kept->cpu_per_100k = candidate.cpu_per_100k;
        kept->cpu_share = candidate.cpu_share;
    }
    if (candidate.p99_us < kept->p99_us) {
        kept->p50_us = candidate.p50_us;
        kept->p99_us = candidate.p99_us;
    }
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

// A data-stream datagram from the camera: the daemon ends after 5 s without
// camera data, so phases without video send one now and then.
void KeepCameraTalking(int camera_fd, uint16_t daemon_port)
{
    uint8_t stream[kReceivedHeaderSize + 16] = {};
    BuildCameraDatagramHeader(stream, kReceivedHeaderSize, sizeof stream, kTransportDataStream, 1);
    struct sockaddr_in daemon = Loopback(daemon_port);
    sendto(camera_fd, stream, sizeof stream, 0, reinterpret_cast<struct sockaddr*>(&daemon), sizeof daemon);
}

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
    KeepCameraTalking(camera_fd, daemon_port);
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

// Every kind of command the interpreter knows, and the inputs it drops: the
// daemon's heap allocations while it handles them, beside the same time idle.
void RunCommandKinds(const LoadPeers* peers, int camera_fd, uint16_t daemon_port, int rounds)
{
    const char* const kinds[] = {
        R"({"cmd":"record","param":"start"})", R"({"cmd":"record","param":"stop"})", R"({"cmd":"shot"})",
        R"({"cmd":"camera","param":"mode","value":"video"})", R"({"cmd":"position","param":"normal"})",
        R"({"cmd":"position","param":"selfie"})", R"({"cmd":"position","param":"abs","value":"10","value2":"-20","value3":"30"})",
        R"({"cmd":"position","param":"abs_norm","value":"0.1","value2":"-0.2","value3":"0.3"})",
        R"({"cmd":"tracking","param":"start","value":"0.2","value2":"0.2","value3":"0.5","value4":"0.5"})",
        R"({"cmd":"tracking","param":"stop"})", R"({"cmd":"orientation","param":"lock"})",
        R"({"cmd":"orientation","param":"unlock"})", R"({"cmd":"focus","param":"type","value":"af"})",
        R"({"cmd":"focus","param":"point","value":"0.5","value2":"0.5"})", R"({"cmd":"dzoom","param":"set","value":"150"})",
        R"({"cmd":"exposure","param":"point","value":"3"})", R"({"cmd":"exposure","param":"center"})",
        R"({"cmd":"exposure","param":"auto","value":"lock"})", R"({"cmd":"video_mode","param":"auto"})",
        R"({"cmd":"shutter","param":"1/100"})", R"({"cmd":"aperture","param":"2.0"})", R"({"cmd":"iso","param":"400"})",
        R"({"cmd":"ev","param":"+0.7"})", R"({"cmd":"wb","param":"custom","value":"5000"})",
        R"({"cmd":"color","param":"normal"})", R"({"cmd":"video_resolution","param":"1080p30"})",
        R"({"cmd":"video_aspect","param":"16:9"})", R"({"cmd":"sensor_res","param":"12MP"})",
        R"({"cmd":"shotmode","param":"single"})", R"({"cmd":"antiflicker","param":"50"})",
        R"({"cmd":"video_std","param":"pal"})", R"({"cmd":"horizont","param":"start"})", R"({"cmd":"resetcamera"})",
        R"({"cmd":"format","param":"sd"})", R"({"cmd":"histogram","param":"on"})",
        R"({"cmd":"gimbal","param":"mode","value":"fpv"})", R"({"cmd":"gimbal","param":"follow","value":"fast"})",
        R"({"cmd":"playback","param":"play"})", R"({"cmd":"playback","param":"pause"})",
        R"({"cmd":"playback","param":"resume"})", R"({"cmd":"set","name":"movement","value":"rel"})",
        R"({"cmd":"iso","param":)", R"([0,0,0,0,0,0,0,0])", R"({"cmd":"no_such_command","param":"1"})",
    };
    constexpr size_t kKindCount = sizeof kinds / sizeof kinds[0];
    struct sockaddr_in daemon = Loopback(peers->command_port);
    const double seconds = 1.0 + static_cast<double>(rounds * kKindCount) / 2000.0;
    uint64_t before = ReadAllocationCount();
    for (int round = 0; round < rounds; ++round) {
        for (const char* kind : kinds) {
            std::string datagram = std::string("!") + kind;
            sendto(peers->app_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<struct sockaddr*>(&daemon),
                   sizeof daemon);
        }
        usleep(static_cast<useconds_t>(kKindCount * 500));   // 2000 commands a second
        if (round % 20 == 0)
            KeepCameraTalking(camera_fd, daemon_port);
    }
    auto wait = [&](double wait_seconds) {
        for (int64_t end = NowNs() + static_cast<int64_t>(wait_seconds * 1e9); NowNs() < end;) {
            KeepCameraTalking(camera_fd, daemon_port);
            usleep(200000);
        }
    };
    wait(seconds - static_cast<double>(rounds * kKindCount) / 2000.0);
    uint64_t with_commands = ReadAllocationCount() - before;
    before = ReadAllocationCount();
    wait(seconds);
    uint64_t idle = ReadAllocationCount() - before;
    printf("JSON commands: %zu kinds (every command, malformed, not an object, unknown) x %d = %zu commands;\n"
           "daemon heap allocations meanwhile: %llu, in the same %.1f s idle: %llu\n\n",
           kKindCount, rounds, kKindCount * static_cast<size_t>(rounds), static_cast<unsigned long long>(with_commands),
           seconds, static_cast<unsigned long long>(idle));
    if (csv != nullptr)
        fprintf(csv, "commands,%zu,%llu,%llu,0,0,0,0,0,0,0\n", kKindCount * static_cast<size_t>(rounds),
                static_cast<unsigned long long>(with_commands), static_cast<unsigned long long>(idle));
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = 1.0;
    double light_seconds = 5.0;
    int repeat = 4;   // p99 needs it: one stall of the shared machine sets a run's
    bool quick = false;
    bool series_wanted = true, load_wanted = true;
    std::string csv_path, png_path;
    static const struct option options[] = {
        {"seconds", required_argument, nullptr, 's'},
        {"light-seconds", required_argument, nullptr, 'L'},
        {"repeat", required_argument, nullptr, 'r'},
        {"quick", no_argument, nullptr, 'q'},
        {"load-only", no_argument, nullptr, 'l'},
        {"no-load", no_argument, nullptr, 'n'},
        {"csv", required_argument, nullptr, 'c'},
        {"png", required_argument, nullptr, 'p'},
        {nullptr, 0, nullptr, 0},
    };
    for (int option; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (option == 's' && atof(optarg) > 0)
            seconds = atof(optarg);
        else if (option == 'L' && atof(optarg) > 0)
            light_seconds = atof(optarg);
        else if (option == 'r' && atoi(optarg) > 0)
            repeat = atoi(optarg);
        else if (option == 'q')
            quick = true;
        else if (option == 'l')
            series_wanted = false;
        else if (option == 'n')
            load_wanted = false;
        else if (option == 'c')
            csv_path = optarg;
        else if (option == 'p')
            png_path = optarg;
        else {
            fputs("Usage: tarnwick-video-bench [--seconds=<per run>] [--light-seconds=<per light run>]"
                  " [--repeat=<runs per step>] [--quick] [--load-only | --no-load] [--csv=<file>] [--png=<file>]\n",
                  stderr);
            return 1;
        }
    }
    if (!png_path.empty() && csv_path.empty())
        csv_path = png_path + ".csv";
    if (!csv_path.empty()) {
        csv = fopen(csv_path.c_str(), "w");
        if (csv == nullptr) {
            perror(csv_path.c_str());
            return 1;
        }
        fputs("section,payload_bytes,rate_asked,system,sent_per_s,delivered_per_s,loss_percent,cpu_s_per_100k,"
              "cpu_us_per_datagram,p50_us,p99_us\n",
              csv);
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
    std::vector<double> light_rates = {1000, 3000, 10000};   // the camera's own rates, about 10 to 100 Mbit/s
    if (quick) {
        for (Series& s : series)
            s.rates = {s.rates[0], s.rates[2], s.rates.back()};
        light_seconds = std::min(light_seconds, 2.0);
    }

    // The receiving process (daemon or baseline) gets a CPU of its own and
    // the sender and ack reader the other, so that a run measures the
    // receiver's path rather than how the scheduler shared two cores out.
    bool pinned = sysconf(_SC_NPROCESSORS_ONLN) >= 2 && PinToCpu(1);

    // The baselines, forked before any thread starts, each with its own ring.
    auto start_baseline = [](const char* ring_name, void (*run)(int, uint8_t*), uint16_t* port, uint8_t** ring) {
        int fd = OpenUdpSocket(0);
        *port = LocalPort(fd);
        *ring = MapBaselineRing(ring_name);
        pid_t pid = fork();
        if (pid == 0)
            run(fd, *ring);
        close(fd);
        return pid;
    };
    uint16_t plain_port = 0, batched_port = 0;
    uint8_t *plain_ring = nullptr, *batched_ring = nullptr;
    pid_t plain = start_baseline(kBaselineRingName, RunBaseline, &plain_port, &plain_ring);
    pid_t batched = start_baseline(kBatchedRingName, RunBatchedBaseline, &batched_port, &batched_ring);
    auto stop_baselines = [&] {
        kill(plain, SIGKILL);
        kill(batched, SIGKILL);
        waitpid(plain, nullptr, 0);
        waitpid(batched, nullptr, 0);
        shm_unlink(kBaselineRingName);
        shm_unlink(kBatchedRingName);
    };

    int camera_fd = OpenUdpSocket(0);
    uint16_t camera_port = LocalPort(camera_fd);
    unlink(kMallocCountFile);
    setenv("LD_PRELOAD", TARNWICK_MALLOC_COUNTER_PATH, 1);
    setenv("TARNWICK_MALLOC_COUNT_FILE", kMallocCountFile, 1);
    ChildProcess daemon;
    daemon.LimitOutput(1 << 20);   // the command flood logs every command
    int64_t exec_at = NowNs();
    bool started = daemon.Start(DaemonPath(), {"--host", "127.0.0.1", "--port", std::to_string(camera_port)});
    unsetenv("LD_PRELOAD");
    unsetenv("TARNWICK_MALLOC_COUNT_FILE");
    uint16_t daemon_port = started ? AwaitDaemon(camera_fd, 10000) : 0;
    double startup_s = static_cast<double>(NowNs() - exec_at) / 1e9;
    if (pinned)
        PinToCpu(0);
    if (daemon_port == 0) {
        fprintf(stderr, "the daemon did not start:\n%s", daemon.Stderr().c_str());
        stop_baselines();
        return 1;
    }

    // Warm-up: the first part clears the 60 MB ring; every ring gets touched.
    static tarnwick::RingReader daemon_reader;
    const uint8_t* daemon_ring =
        tarnwick::RingReaderOpen(&daemon_reader) == 0 ? daemon_reader.region : nullptr;
    if (daemon_ring == nullptr) {
        fputs("cannot map the daemon's ring\n", stderr);
        stop_baselines();
        return 1;
    }
    const System systems[kSystemCount] = {
        {"daemon", daemon_port, daemon.pid(), daemon_ring},
        {"plain", plain_port, plain, plain_ring},
        {"batched", batched_port, batched, batched_ring},
    };
    for (const System& system : systems)
        RunStep(camera_fd, system.port, system.pid, system.ring, 1400, 20000, 0.5);
    // While a baseline runs the daemon hears nothing of the camera; more than
    // 5 s of that (the light runs) would end it.
    std::atomic<bool> finished{false};
    std::thread camera_voice([&] {
        while (!finished.load()) {
            KeepCameraTalking(camera_fd, daemon_port);
            usleep(500000);
        }
    });
    // What each process costs with no video: the daemon's timers (status 5
    // times a second, remote control 50, camera thread once); the light rows
    // also show their cost per datagram net of it.
    double idle_cpu_per_s[kSystemCount];
    {
        double before[kSystemCount];
        for (int i = 0; i < kSystemCount; ++i)
            before[i] = ProcessCpuSeconds(systems[i].pid);
        sleep(3);
        for (int i = 0; i < kSystemCount; ++i)
            idle_cpu_per_s[i] = (ProcessCpuSeconds(systems[i].pid) - before[i]) / 3.0;
    }
    uint64_t allocations_at_start = ReadAllocationCount();
    uint64_t datagrams_measured = 0;
    double run_start_s = static_cast<double>(NowNs()) / 1e9;

    printf("Start-up: the first connect request %.3f s after exec (1 s of it the pause before connecting)\n",
           startup_s);
    printf("Idle (no video; the camera's data stream twice a second): daemon %.3f ms of CPU per second, plain %.3f,"
           " batched %.3f\n\n",
           idle_cpu_per_s[kDaemon] * 1e3, idle_cpu_per_s[kPlain] * 1e3, idle_cpu_per_s[kBatched] * 1e3);
    if (csv != nullptr)
        for (int i = 0; i < kSystemCount; ++i)
            fprintf(csv, "idle,0,0,%s,0,0,0,0,%.3f,0,0\n", systems[i].name, idle_cpu_per_s[i] * 1e6);
    if (csv != nullptr)
        fprintf(csv, "startup,0,0,daemon,0,0,0,0,0,%.1f,%.1f\n", startup_s * 1e6, startup_s * 1e6);
    printf("Video path on loopback: best of %d runs per step, open-loop sender, 20-byte header%s\n", repeat,
           pinned ? ";\nreceiver on CPU 1, sender and ack reader on CPU 0" : "");
    printf("systems: daemon; plain = bare loop (recvfrom, memcpy into a ring of the same geometry, sendto of the\n"
           "34-byte ack); batched = the same with recvmmsg and one sendmmsg of the batch's acks\n"
           "sent = what the sender managed; delivered/s = parts that reached the ring per second of sending;\n"
           "loss = (sent - delivered) / sent; CPU = receiving process, s per 100k datagrams (us per datagram:\n"
           "x10); p50/p99 = send-to-ack latency, microseconds\n\n");
    if (load_wanted) {
        LoadPeers peers;
        if (!SetUpLoad(&peers, camera_fd, daemon_port)) {
            fputs("the daemon's command port or remote-control record is missing\n", stderr);
        } else {
            RunCommandKinds(&peers, camera_fd, daemon_port, quick ? 20 : 100);
            RunLoadComparison(camera_fd, daemon_port, &daemon, daemon_ring, &peers, 20000, quick ? 3 : 5,
                              quick ? 3 : 10);
        }
    }

    // One step: the systems take turns, `repeat` rounds, and each keeps its
    // best figures (KeepBest).
    auto run_turns = [&](size_t payload, double rate, double run_seconds, StepResult* r) {
        for (int turn = 0; turn < repeat; ++turn)
            for (int i = 0; i < kSystemCount; ++i) {
                StepResult t = RunStep(camera_fd, systems[i].port, systems[i].pid, systems[i].ring, payload, rate,
                                       run_seconds);
                if (i == kDaemon)
                    datagrams_measured += t.delivered;
                if (turn == 0)
                    r[i] = t;
                else
                    KeepBest(t, &r[i]);
            }
    };
    if (series_wanted) {
        printf("At the camera's rates: 1400-byte payloads, %.0f s per run, each figure the best of %d runs\n",
               light_seconds, repeat);
        printf("   rate system   | CPU us/datagram  net of idle  share |   p50     p99 | vs plain: CPU   net   p99\n");
        for (double rate : light_rates) {
            StepResult r[kSystemCount];
            run_turns(1400, rate, light_seconds, r);
            double net[kSystemCount];
            for (int i = 0; i < kSystemCount; ++i)
                net[i] = r[i].cpu_per_100k * 10.0 - idle_cpu_per_s[i] * 1e6 / r[i].offered_per_s;
            for (int i = 0; i < kSystemCount; ++i) {
                printf("%7.0f %-8s | %15.2f %12.2f %5.1f%% | %5.0f %7.0f |     %9.2f %5.2f %5.2f\n", rate,
                       systems[i].name, r[i].cpu_per_100k * 10.0, net[i], 100.0 * r[i].cpu_share, r[i].p50_us,
                       r[i].p99_us, Ratio(r[i].cpu_per_100k, r[kPlain].cpu_per_100k), Ratio(net[i], net[kPlain]),
                       Ratio(r[i].p99_us, r[kPlain].p99_us));
                WriteCsvRow("light", 1400, rate, systems[i].name, r[i]);
            }
        }
        printf("\n");
    }

    for (const Series& s : series_wanted ? series : std::vector<Series>()) {
        printf("payload %zu bytes\n", s.payload);
        printf(" target system        sent | delivered    loss    CPU    p50     p99 |"
               " vs plain: deliv CPU p99 | vs batched: deliv\n");
        double knee[kSystemCount] = {};
        for (double rate : s.rates) {
            StepResult r[kSystemCount];
            run_turns(s.payload, rate, seconds, r);
            PrintSeriesRows(s.payload, rate, systems, r);
            for (int i = 0; i < kSystemCount; ++i)
                if (LossFraction(r[i]) <= kKneeLoss)
                    knee[i] = std::max(knee[i], rate);
        }
        printf("knee (highest rate with loss <= %.1f%%): daemon %.0f/s, plain %.0f/s, batched %.0f/s\n\n",
               100 * kKneeLoss, knee[kDaemon], knee[kPlain], knee[kBatched]);
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

    finished.store(true);
    camera_voice.join();
    stop_baselines();
    if (csv != nullptr)
        fclose(csv);
    if (!png_path.empty()) {
        std::string command = "gnuplot -e \"csv='" + csv_path + "'; png='" + png_path + "'\" '" +
                              TARNWICK_PLOT_SCRIPT + "'";
        if (system(command.c_str()) != 0) {
            fputs("gnuplot failed (scripts/setup.sh bench installs it); the figures are in the CSV\n", stderr);
            return 1;
        }
        printf("figures drawn in %s (data in %s)\n", png_path.c_str(), csv_path.c_str());
    }
    return 0;
}
