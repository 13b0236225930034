#include "net/udp_endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/clock.h"
#include "net/shutdown.h"

namespace {

std::atomic<bool> receive_buffer_short_said{false};

// Asks for kUdpSocketBufferBytes. The plain request is capped by the system's
// maximum (net.core.rmem_max / wmem_max, about 200 KB by default), silently;
// the forced one (root, CAP_NET_ADMIN) is not. When the receive buffer still
// falls short, bursts of large video datagrams would be lost in the kernel:
// that is said once.
void SetSocketBuffer(int socket, int option, int force_option)
{
    int size = kUdpSocketBufferBytes;
    if (setsockopt(socket, SOL_SOCKET, option, &size, sizeof size) != 0)
        fputs(option == SO_RCVBUF ? "UDP receive buffer set failed\n" : "UDP send buffer set failed\n", stderr);
    if (ObtainedSocketBuffer(socket, option) >= size)
        return;
    setsockopt(socket, SOL_SOCKET, force_option, &size, sizeof size);
    int obtained = ObtainedSocketBuffer(socket, option);
    if (option == SO_RCVBUF && obtained < size && !receive_buffer_short_said.exchange(true))
        fprintf(stderr, "UDP receive buffer is %d bytes, %d asked: raise net.core.rmem_max\n", obtained, size);
}

[[noreturn]] void FailReceive()
{
    fputs("UDP read failed\n", stderr);
    ServiceExit(3);
}

constexpr size_t kQueueCapacity = 2 * kUdpReceiveBatchLimit;
// A segmented send is one UDP datagram to the kernel until it is cut: its
// payload is at most what one IPv4 packet carries, and its segments at most
// 64 (the fewest any kernel with UDP_SEGMENT accepts; the queue holds no more).
constexpr size_t kSegmentedRunMaxBytes = 65507;
static_assert(kQueueCapacity <= 64, "a queue's run fits one segmented send");

// Sends that a batched receive thread's callbacks make, held until the batch
// is handled. Each datagram keeps its endpoint (socket and drop count).
struct QueuedSend {
    UdpEndpoint* endpoint;
    const void* data;   // copy, or the caller's bytes when longer than copy
    uint16_t length;
    struct sockaddr_in destination;
    uint8_t copy[kUdpQueuedCopyBytes];
};
struct SendQueue {
    // An ack and a forwarded copy per datagram at most, in this system.
    QueuedSend entries[kQueueCapacity];
    size_t count;
};
// Set on a receive thread that receives in batches, for its whole life.
thread_local SendQueue* batch_send_queue = nullptr;

bool IsFullBuffer(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS;
}

// Counts sends the socket could not take now; the first of an endpoint is said.
void NoteSendFailure(UdpEndpoint* endpoint, int error, unsigned datagrams = 1)
{
    if (IsFullBuffer(error) && endpoint->send_drops.fetch_add(datagrams, std::memory_order_relaxed) == 0)
        fprintf(stderr, "UDP send dropped: socket buffer full (port %u)\n",
                static_cast<unsigned>(endpoint->LocalPort()));
}

bool CanJoinSegments(const QueuedSend& first, const QueuedSend& next)
{
    return next.length == first.length && next.destination.sin_addr.s_addr == first.destination.sin_addr.s_addr &&
           next.destination.sin_port == first.destination.sin_port;
}

// The messages of one sendmmsg: a queued datagram each, or a run of
// segmented ones (see SendQueuedRun).
struct OutgoingMessages {
    struct mmsghdr messages[kQueueCapacity];
    struct iovec vectors[kQueueCapacity];
    // CMSG_SPACE is a multiple of the header's alignment, so every row is aligned.
    alignas(struct cmsghdr) uint8_t controls[kQueueCapacity][CMSG_SPACE(sizeof(uint16_t))];
    size_t first_entry[kQueueCapacity];   // the queue entry each message starts with
    unsigned datagrams[kQueueCapacity];
    unsigned count;
};

// One message per datagram of entries [start, end), or per run of
// datagrams that can be segmented when `segment`.
void BuildMessages(const SendQueue* queue, size_t start, size_t end, bool segment, OutgoingMessages* out)
{
    out->count = 0;
    size_t vector = 0;
    for (size_t i = start; i < end;) {
        const QueuedSend& first = queue->entries[i];
        size_t next = i + 1;
        if (segment && first.length <= kUdpSegmentMaxBytes) {
            size_t most = kSegmentedRunMaxBytes / first.length;
            while (next < end && next - i < most && CanJoinSegments(first, queue->entries[next]))
                ++next;
        }
        unsigned m = out->count++;
        struct msghdr& header = out->messages[m].msg_hdr;
        memset(&out->messages[m], 0, sizeof out->messages[m]);
        header.msg_name = const_cast<struct sockaddr_in*>(&first.destination);
        header.msg_namelen = sizeof first.destination;
        header.msg_iov = &out->vectors[vector];
        header.msg_iovlen = next - i;
        for (size_t k = i; k < next; ++k)
            out->vectors[vector++] = {const_cast<void*>(queue->entries[k].data), queue->entries[k].length};
        if (next - i > 1) {
            header.msg_control = out->controls[m];
            header.msg_controllen = sizeof out->controls[m];
            struct cmsghdr* control = CMSG_FIRSTHDR(&header);
            control->cmsg_level = SOL_UDP;
            control->cmsg_type = UDP_SEGMENT;
            control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
            uint16_t segment_size = first.length;
            memcpy(CMSG_DATA(control), &segment_size, sizeof segment_size);
        }
        out->first_entry[m] = i;
        out->datagrams[m] = static_cast<unsigned>(next - i);
        i = next;
    }
}

// Sends queued entries [start, end), all of one endpoint, in order. A
// datagram the socket refuses is dropped as SendTo drops it, and the rest
// still go. While the endpoint may segment, each run of datagrams of one
// length to one destination (a batch's acks) is one message with
// UDP_SEGMENT: the kernel takes the run through its stack once and cuts it
// into the same datagrams, in the same order, that separate sends would
// make. That spares a small core much of the per-datagram cost, and the
// receiver is woken once for the run rather than once per datagram. A kernel
// or device that refuses it ends segmenting on that endpoint (said once);
// the run is sent again unsegmented.
void SendQueuedRun(const SendQueue* queue, size_t start, size_t end)
{
    UdpEndpoint* endpoint = queue->entries[start].endpoint;
    if (end - start == 1) {   // one datagram: the plain call costs less
        const QueuedSend& only = queue->entries[start];
        if (sendto(endpoint->socket, only.data, only.length, MSG_DONTWAIT,
                   reinterpret_cast<const struct sockaddr*>(&only.destination), sizeof only.destination) < 0)
            NoteSendFailure(endpoint, errno);
        return;
    }
    bool segment = endpoint->segmenting.load(std::memory_order_relaxed);
    OutgoingMessages out;
    BuildMessages(queue, start, end, segment, &out);
    for (unsigned sent = 0; sent < out.count;) {
        int done = sendmmsg(endpoint->socket, out.messages + sent, out.count - sent, MSG_DONTWAIT);
        if (done > 0) {
            sent += static_cast<unsigned>(done);
            continue;
        }
        int error = errno;
        if (out.datagrams[sent] > 1 && !IsFullBuffer(error)) {
            if (endpoint->segmenting.exchange(false))
                fprintf(stderr, "UDP segmentation refused (port %u): datagrams leave one by one\n",
                        static_cast<unsigned>(endpoint->LocalPort()));
            SendQueuedRun(queue, out.first_entry[sent], end);
            return;
        }
        NoteSendFailure(endpoint, error, out.datagrams[sent]);
        sent += 1;   // that message is dropped
    }
}

// Sends the queue in order, one run per socket.
void FlushQueuedSends(SendQueue* queue)
{
    size_t start = 0;
    while (start < queue->count) {
        size_t end = start + 1;
        while (end < queue->count && queue->entries[end].endpoint == queue->entries[start].endpoint)
            ++end;
        SendQueuedRun(queue, start, end);
        start = end;
    }
    queue->count = 0;
}

void* ReceiveThreadMain(void* endpoint)
{
    static_cast<UdpEndpoint*>(endpoint)->RunReceiveLoop();
    return nullptr;
}

}  // namespace

int UdpEndpoint::Open(uint16_t port)
{
    socket = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (socket < 0)
        return -1;

    // Receives must block: an empty non-blocking receive would read as a
    // failed receive and end the process.
    int flags = fcntl(socket, F_GETFL, 0);
    if (flags >= 0)
        fcntl(socket, F_SETFL, flags & ~O_NONBLOCK);

    SetSocketBuffer(socket, SO_RCVBUF, SO_RCVBUFFORCE);
    SetSocketBuffer(socket, SO_SNDBUF, SO_SNDBUFFORCE);
    int broadcast = 1;
    setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &broadcast, sizeof broadcast);

    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(port);
    if (bind(socket, reinterpret_cast<struct sockaddr*>(&local), sizeof local) != 0) {
        close(socket);
        socket = -1;
        return -1;
    }
    if (pthread_create(&thread, nullptr, ReceiveThreadMain, this) != 0)
        return -1;
    return 0;
}

void UdpEndpoint::AttachBuffer(uint8_t* storage, uint16_t size)
{
    AttachBuffers(storage, size, 1);
}

void UdpEndpoint::AttachBuffers(uint8_t* storage, uint16_t size, uint16_t count)
{
    buffer_size = size;
    buffer_count = count < 1 ? 1 : count > kUdpReceiveBatchLimit ? kUdpReceiveBatchLimit : count;
    buffer.store(storage, std::memory_order_release);
}

void UdpEndpoint::RunReceiveLoop()
{
    for (;;) {
        uint8_t* storage = buffer.load(std::memory_order_acquire);
        if (storage == nullptr) {
            SleepMs(10);
            continue;
        }
        if (buffer_count > 1)
            RunBatchedReceiveLoop(storage);
        size_t capacity = buffer_size;
        if (clear_before_receive) {
            memset(storage, 0, buffer_size);
            // Keep a zero byte after the datagram so it reads as a text.
            if (capacity > 0)
                capacity -= 1;
        }

        struct sockaddr_in source;
        socklen_t source_length = sizeof source;
        ssize_t received = recvfrom(socket, storage, capacity, 0,
                                    reinterpret_cast<struct sockaddr*>(&source), &source_length);
        if (received <= 0)
            FailReceive();
        HandOn(storage, received, source);
    }
}

void UdpEndpoint::RunBatchedReceiveLoop(uint8_t* storage)
{
    size_t capacity = buffer_size;
    if (clear_before_receive && capacity > 0)
        capacity -= 1;   // a zero byte after each datagram, as with one buffer
    struct mmsghdr messages[kUdpReceiveBatchLimit];
    struct iovec vectors[kUdpReceiveBatchLimit];
    struct sockaddr_in sources[kUdpReceiveBatchLimit];
    memset(messages, 0, sizeof messages);
    for (uint16_t i = 0; i < buffer_count; ++i) {
        vectors[i].iov_base = storage + static_cast<size_t>(i) * buffer_size;
        vectors[i].iov_len = capacity;
        messages[i].msg_hdr.msg_name = &sources[i];
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    SendQueue queue;
    queue.count = 0;
    batch_send_queue = &queue;
    unsigned used = buffer_count;   // buffers written by the last receive
    // Datagrams that come alone (the camera's own rates: the thread is woken
    // for each) cost least with recvfrom; a recvmmsg copies in more headers
    // and looks for a second datagram that is not there. After
    // kLoneBatchesToSettle batches of one in a row the loop receives alone,
    // asking for a full batch every kLoneProbeInterval-th receive, and the
    // first batch of more than one ends that.
    constexpr unsigned kLoneBatchesToSettle = 4;
    constexpr unsigned kLoneProbeInterval = 8;
    unsigned lone_batches = 0;
    unsigned receives_since_probe = 0;
    for (;;) {
        if (clear_before_receive)
            memset(storage, 0, static_cast<size_t>(used) * buffer_size);
        bool alone = lone_batches >= kLoneBatchesToSettle && ++receives_since_probe < kLoneProbeInterval;
        if (alone) {
            socklen_t source_length = sizeof sources[0];
            ssize_t received = recvfrom(socket, storage, capacity, 0, reinterpret_cast<struct sockaddr*>(&sources[0]),
                                        &source_length);
            if (received <= 0)
                FailReceive();
            used = 1;
            HandOn(storage, received, sources[0]);
            FlushQueuedSends(&queue);
            continue;
        }
        receives_since_probe = 0;
        for (unsigned i = 0; i < buffer_count; ++i)
            messages[i].msg_hdr.msg_namelen = sizeof sources[i];
        // Blocks for the first datagram only, then takes what is queued.
        int received = recvmmsg(socket, messages, buffer_count, MSG_WAITFORONE, nullptr);
        if (received <= 0)
            FailReceive();
        used = static_cast<unsigned>(received);
        lone_batches = used == 1 ? lone_batches + 1 : 0;
        for (unsigned i = 0; i < used; ++i) {
            // A datagram longer than the buffer arrives cut to it (msg_len is
            // what was stored), as a single receive cuts it.
            if (messages[i].msg_len == 0) {
                FlushQueuedSends(&queue);
                FailReceive();
            }
            HandOn(static_cast<uint8_t*>(vectors[i].iov_base), messages[i].msg_len, sources[i]);
        }
        FlushQueuedSends(&queue);
    }
}

void UdpEndpoint::HandOn(uint8_t* storage, ssize_t received, const struct sockaddr_in& source)
{
    static_assert(kPeerIpCapacity >= INET_ADDRSTRLEN, "peer_ip holds a dotted IPv4 address");
    if (source.sin_addr.s_addr != last_source.sin_addr.s_addr || last_source_text[0] == '\0') {
        inet_ntop(AF_INET, &source.sin_addr, last_source_text, sizeof last_source_text);
        last_source = source;
    }
    uint16_t source_port = ntohs(source.sin_port);
    bool found;
    {
        std::lock_guard<std::mutex> lock(peer_lock);
        memcpy(peer_ip, last_source_text, sizeof peer_ip);
        peer_port = source_port;
        found = last_receive_ms == 0;
        uint32_t now = NowMs();
        last_receive_ms = now != 0 ? now : 1;  // 0 is reserved for "no live peer"
        peer_address.store(PackPeerAddress(source), std::memory_order_release);
    }
    if (found && on_found != nullptr) {
        std::lock_guard<std::mutex> events(event_lock);
        on_found();
    }
    if (on_receive != nullptr)
        on_receive(storage, static_cast<uint16_t>(received), last_source_text, source_port);
}

void UdpEndpoint::CheckPeerTimeout()
{
    std::lock_guard<std::mutex> events(event_lock);
    bool lost = false;
    {
        std::lock_guard<std::mutex> lock(peer_lock);
        if (last_receive_ms != 0 && NowMs() - last_receive_ms > timeout_ms) {
            peer_ip[0] = '\0';
            peer_port = 0;
            last_receive_ms = 0;
            peer_address.store(0, std::memory_order_release);
            lost = true;
        }
    }
    if (lost && on_lost != nullptr)
        on_lost();
}

void UnpackPeerAddress(uint64_t packed, struct sockaddr_in* address)
{
    memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = static_cast<in_addr_t>(packed >> 16);
    address->sin_port = htons(static_cast<uint16_t>(packed));
}

int ObtainedSocketBuffer(int socket, int option)
{
    int doubled = 0;
    socklen_t length = sizeof doubled;
    if (getsockopt(socket, SOL_SOCKET, option, &doubled, &length) != 0)
        return 0;
    return doubled / 2;
}

int MakeUdpAddress(const char* host, uint16_t port, struct sockaddr_in* address)
{
    memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    if (host == nullptr || inet_aton(host, &address->sin_addr) == 0)
        return -1;
    return 0;
}

int UdpEndpoint::SendTo(const void* data, uint16_t length, const char* host, uint16_t port)
{
    struct sockaddr_in destination;
    if (MakeUdpAddress(host, port, &destination) != 0)
        return -1;
    return SendTo(data, length, destination);
}

int UdpEndpoint::SendTo(const void* data, uint16_t length, const struct sockaddr_in& destination)
{
    ssize_t sent = sendto(socket, data, length, MSG_DONTWAIT, reinterpret_cast<const struct sockaddr*>(&destination),
                          sizeof destination);
    if (sent < 0)
        NoteSendFailure(this, errno);
    return sent < 0 ? -1 : static_cast<int>(sent);
}

int UdpEndpoint::QueueTo(const void* data, uint16_t length, const struct sockaddr_in& destination)
{
    SendQueue* queue = batch_send_queue;
    if (queue == nullptr)
        return SendTo(data, length, destination);
    if (queue->count == sizeof queue->entries / sizeof queue->entries[0])
        FlushQueuedSends(queue);
    QueuedSend& entry = queue->entries[queue->count++];
    entry.endpoint = this;
    entry.length = length;
    entry.destination = destination;
    if (length <= sizeof entry.copy) {
        memcpy(entry.copy, data, length);
        entry.data = entry.copy;
    } else {
        entry.data = data;
    }
    return length;
}

uint16_t UdpEndpoint::GetPeer(char ip_out[kPeerIpCapacity])
{
    std::lock_guard<std::mutex> lock(peer_lock);
    memcpy(ip_out, peer_ip, kPeerIpCapacity);
    return peer_port;
}

uint16_t UdpEndpoint::LocalPort() const
{
    if (socket < 0)
        return 0;
    struct sockaddr_in local;
    socklen_t length = sizeof local;
    if (getsockname(socket, reinterpret_cast<struct sockaddr*>(&local), &length) != 0)
        return 0;
    return ntohs(local.sin_port);
}
