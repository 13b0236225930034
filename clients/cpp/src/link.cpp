// The UDP link with the relay: status datagrams in, commands out to the port
// they came from.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <cstdlib>

#include "new_record.h"
#include "tarnwickclient.h"
#include "tarnwickclient/interface.h"

struct tarnwick_link {
    int socket = -1;
    struct sockaddr_in relay{};   // source of the latest status datagram
    bool relay_known = false;
    unsigned restarts = 0;        // times that source changed
    uint8_t datagram[tarnwick::wire::kStatusLineMaximumSize + 1];
};

extern "C" {

tarnwick_link* tarnwick_link_open(const char* bind_host, uint16_t status_port)
{
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(status_port);
    if (inet_pton(AF_INET, bind_host != nullptr ? bind_host : "127.0.0.1", &local.sin_addr) != 1)
        return nullptr;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0)
        return nullptr;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof local) != 0) {
        close(fd);
        return nullptr;
    }
    tarnwick_link* link = NewRecord<tarnwick_link>();
    if (link == nullptr) {
        close(fd);
        return nullptr;
    }
    link->socket = fd;
    return link;
}

void tarnwick_link_close(tarnwick_link* link)
{
    if (link == nullptr)
        return;
    close(link->socket);
    free(link);
}

int tarnwick_link_fd(const tarnwick_link* link)
{
    return link->socket;
}

int tarnwick_link_receive(tarnwick_link* link, int timeout_ms, tarnwick_report* report)
{
    struct pollfd wait = {link->socket, POLLIN, 0};
    int ready = poll(&wait, 1, timeout_ms);
    if (ready == 0)
        return TARNWICK_LINK_TIMEOUT;
    if (ready < 0)
        return -1;
    struct sockaddr_in source;
    socklen_t source_length = sizeof source;
    // A datagram longer than the longest status line is no report: cut, and
    // then not parsed as one.
    ssize_t length = recvfrom(link->socket, link->datagram, sizeof link->datagram, MSG_DONTWAIT,
                              reinterpret_cast<struct sockaddr*>(&source), &source_length);
    if (length < 0)
        return -1;
    if (static_cast<size_t>(length) == sizeof link->datagram || tarnwick_parse_report(link->datagram,
                                                                   static_cast<size_t>(length), report) < 0) {
        report->kind = TARNWICK_REPORT_UNKNOWN;
        return 0;
    }
    // Each start of the relay binds its command port afresh (the system picks
    // it), so status from another source is a relay that started again.
    bool same_source = source.sin_addr.s_addr == link->relay.sin_addr.s_addr && source.sin_port == link->relay.sin_port;
    if (link->relay_known && !same_source)
        ++link->restarts;
    link->relay = source;
    link->relay_known = true;
    return static_cast<int>(report->kind);
}

unsigned tarnwick_link_relay_restarts(const tarnwick_link* link)
{
    return link->restarts;
}

int tarnwick_link_relay_known(const tarnwick_link* link)
{
    return link->relay_known;
}

int tarnwick_link_send(tarnwick_link* link, const void* data, size_t length)
{
    if (!link->relay_known)
        return -1;
    ssize_t sent = sendto(link->socket, data, length, MSG_DONTWAIT,
                          reinterpret_cast<const struct sockaddr*>(&link->relay), sizeof link->relay);
    return sent == static_cast<ssize_t>(length) ? 0 : -1;
}

}  // extern "C"
