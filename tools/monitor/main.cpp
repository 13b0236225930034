// tarnwick-monitor: see monitor.h.
#include <arpa/inet.h>
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "monitor.h"
#include "tool_options.h"

Monitor monitor;

namespace {

constexpr size_t kMaxDatagram = 65536;

constexpr const char* kTool = "tarnwick-monitor";

void Usage(FILE* out)
{
    fputs("Usage: tarnwick-monitor [options]\n"
          "  --bind=<addr>          address to listen on (default 127.0.0.1)\n"
          "  --port=<port>          status port, where the service sends (default 5000)\n"
          "  --notice-port=<port>   recording notice port (default 5255; 0: do not listen)\n"
          "  --all                  print every status item and message (default: changed status items;\n"
          "                         messages when changed, at most one a second per kind)\n"
          "  --count=<n>            exit after receiving n datagrams\n"
          "  --send=<command>       send a command to the service once it is heard (repeatable);\n"
          "                         lines on standard input are commands too. A command is JSON\n"
          "                         ({\"cmd\":\"iso\",\"param\":\"400\"}) or words (iso 400; set movement abs)\n"
          "  --tui                  full-screen live view: the state grouped, the video rate, a command\n"
          "                         line; keys r record/stop, p photo, : command, q quit\n"
          "  --help                 this text\n",
          out);
}

// Returns kToolOptionsOk, or the status to end with.
int ParseMonitorOptions(int argc, char** argv, MonitorOptions* options)
{
    enum { kBind = 1, kPort, kNoticePort, kAll, kCount, kSend, kTui, kHelp };
    static const struct option long_options[] = {
        {"bind", required_argument, nullptr, kBind},
        {"port", required_argument, nullptr, kPort},
        {"notice-port", required_argument, nullptr, kNoticePort},
        {"all", no_argument, nullptr, kAll},
        {"count", required_argument, nullptr, kCount},
        {"send", required_argument, nullptr, kSend},
        {"tui", no_argument, nullptr, kTui},
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
            if (!ParseToolNumber(kTool, "port", optarg, 1, 65535, &value))
                break;
            options->status_port = static_cast<uint16_t>(value);
            continue;
        case kNoticePort:
            if (!ParseToolNumber(kTool, "notice-port", optarg, 0, 65535, &value))
                break;
            options->notice_port = static_cast<uint16_t>(value);
            continue;
        case kAll: options->every_message = true; continue;
        case kTui: options->full_screen = true; continue;
        case kCount:
            if (!ParseToolNumber(kTool, "count", optarg, 1, 1000000000, &value))
                break;
            options->exit_after = value;
            continue;
        case kSend: SendMonitorCommand(optarg); continue;
        case kHelp: Usage(stdout); return 0;
        default: break;   // getopt_long named the option
        }
        Usage(stderr);
        return kToolUsageError;
    }
}

int BindUdp(const char* host, uint16_t port)
{
    int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0)
        return -1;
    int reuse = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    if (inet_aton(host, &local.sin_addr) == 0 ||
        bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof local) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv)
{
    int status = ParseMonitorOptions(argc, argv, &monitor.options);
    if (status != kToolOptionsOk)
        return status;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const MonitorOptions& options = monitor.options;
    monitor.status_socket = BindUdp(options.bind_host, options.status_port);
    if (monitor.status_socket < 0) {
        fprintf(stderr, "Cannot bind %s:%u\n", options.bind_host, options.status_port);
        return 1;
    }
    if (options.notice_port != 0) {
        monitor.notice_socket = BindUdp(options.bind_host, options.notice_port);
        if (monitor.notice_socket < 0) {
            fprintf(stderr, "Cannot bind %s:%u\n", options.bind_host, options.notice_port);
            return 1;
        }
    }
    if (options.full_screen)
        return RunFullScreen();
    printf("monitor on %s:%u, notices on %u\n", options.bind_host, options.status_port, options.notice_port);

    static uint8_t datagram[kMaxDatagram];
    long printed = 0;
    while (options.exit_after < 0 || printed < options.exit_after) {
        // A descriptor of -1 is left out by poll: no notice socket, or standard input ended.
        struct pollfd sockets[3] = {{monitor.status_socket, POLLIN, 0}, {monitor.notice_socket, POLLIN, 0},
                                    {monitor.stdin_open ? STDIN_FILENO : -1, POLLIN, 0}};
        int count = monitor.notice_socket >= 0 ? 2 : 1;
        if (poll(sockets, 3, -1) < 0)
            continue;
        if (sockets[2].revents & (POLLIN | POLLHUP))
            ReadCommandInput();
        for (int i = 0; i < count; ++i) {
            if ((sockets[i].revents & POLLIN) == 0)
                continue;
            struct sockaddr_in source;
            socklen_t source_length = sizeof source;
            ssize_t length = recvfrom(sockets[i].fd, datagram, sizeof datagram, 0,
                                      reinterpret_cast<struct sockaddr*>(&source), &source_length);
            if (length < 0)
                continue;
            if (i == 0) {
                monitor.daemon_address = source;
                monitor.daemon_known = true;
                SendQueuedCommands();
                PrintStatusDatagram(datagram, static_cast<size_t>(length));
            } else {
                PrintNotice(datagram, static_cast<size_t>(length));
            }
            ++printed;
        }
    }
    return 0;
}
