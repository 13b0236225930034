// tarnwick-monitor: see monitor.h.
#include <arpa/inet.h>
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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
          "  --send=<command>       send a command to the service once it is heard, then exit\n"
          "                         (repeatable; --send=- sends the lines of standard input, and exits\n"
          "                         at its end). A command is JSON ({\"cmd\":\"iso\",\"param\":\"400\"})\n"
          "                         or words (iso 400; set movement abs). The sender does not bind the\n"
          "                         status port: as root it captures it (see --capture), so it works\n"
          "                         beside the main application; elsewhere it binds the port\n"
          "  --wait=<ms>            how long --send waits to hear the service (default 10000); exit 1\n"
          "  --capture              watch the status and notice ports with a packet capture instead of\n"
          "                         binding them (root): beside the main application, which keeps its\n"
          "                         ports and every datagram; commands leave from a port of our own\n"
          "  --tui                  full-screen live view: the state grouped, the video rate, a command\n"
          "                         line; keys r record/stop, p photo, : command, q quit\n"
          "Without --send, lines on standard input are commands too; the monitor runs on.\n"
          "  --help                 this text\n",
          out);
}

// Returns kToolOptionsOk, or the status to end with.
int ParseMonitorOptions(int argc, char** argv, MonitorOptions* options)
{
    enum { kBind = 1, kPort, kNoticePort, kAll, kCount, kSend, kWait, kCapture, kTui, kHelp };
    static const struct option long_options[] = {
        {"bind", required_argument, nullptr, kBind},
        {"port", required_argument, nullptr, kPort},
        {"notice-port", required_argument, nullptr, kNoticePort},
        {"all", no_argument, nullptr, kAll},
        {"count", required_argument, nullptr, kCount},
        {"send", required_argument, nullptr, kSend},
        {"wait", required_argument, nullptr, kWait},
        {"capture", no_argument, nullptr, kCapture},
        {"tui", no_argument, nullptr, kTui},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    long value = 0;
    for (;;) {
        int option = getopt_long(argc, argv, "", long_options, nullptr);
        switch (option) {
        case -1:
            if (!ToolArgumentsDone(kTool, argc, argv, optind))
                break;
            if (options->sender && options->full_screen) {
                fprintf(stderr, "%s: --send and --tui do not go together\n", kTool);
                break;
            }
            return kToolOptionsOk;
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
        case kSend:
            options->sender = true;
            if (strcmp(optarg, "-") == 0)
                options->send_stdin = true;
            else
                SendMonitorCommand(optarg);   // waits in the queue until the service is heard
            continue;
        case kWait:
            if (!ParseToolNumber(kTool, "wait", optarg, 0, 3600000, &value))
                break;
            options->wait_ms = value;
            continue;
        case kCapture: options->capture = true; continue;
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

int64_t NowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Opens what the options ask for (see monitor.h). Returns 0, or the status to end with.
int OpenSockets(const MonitorOptions& options)
{
    if (options.sender || options.capture) {
        monitor.status_socket = OpenCapture(options.status_port, options.sender ? 0 : options.notice_port);
        monitor.capturing = monitor.status_socket >= 0;
        if (!monitor.capturing && options.capture) {
            fprintf(stderr, "Cannot capture port %u: %s (a capture needs root)\n", options.status_port,
                    strerror(errno));
            return 1;
        }
    }
    if (monitor.capturing) {
        monitor.command_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
        return monitor.command_socket >= 0 ? 0 : 1;
    }
    monitor.status_socket = BindUdp(options.bind_host, options.status_port);
    if (monitor.status_socket < 0) {
        fprintf(stderr, "Cannot bind %s:%u%s\n", options.bind_host, options.status_port,
                options.sender ? " (nor capture it: that needs root)" : "");
        return 1;
    }
    monitor.command_socket = monitor.status_socket;
    if (options.notice_port != 0 && !options.sender) {
        monitor.notice_socket = BindUdp(options.bind_host, options.notice_port);
        if (monitor.notice_socket < 0) {
            fprintf(stderr, "Cannot bind %s:%u\n", options.bind_host, options.notice_port);
            return 1;
        }
    }
    return 0;
}

// The sender's work is done: the service heard, every command sent, its input ended.
bool SenderDone(const MonitorOptions& options)
{
    return options.sender && monitor.daemon_known && !CommandsQueued() && !(options.send_stdin && monitor.stdin_open);
}

}  // namespace

ssize_t ReceiveMonitorDatagram(int fd, uint8_t* out, size_t capacity, int flags, struct sockaddr_in* source,
                               bool* notice)
{
    if (monitor.capturing && fd == monitor.status_socket) {
        uint16_t to_port = 0;
        ssize_t length = ReceiveCaptured(fd, out, capacity, flags, source, &to_port);
        *notice = to_port != monitor.options.status_port;
        return length;
    }
    socklen_t source_length = sizeof *source;
    *notice = fd == monitor.notice_socket;
    return recvfrom(fd, out, capacity, flags, reinterpret_cast<struct sockaddr*>(source), &source_length);
}

void NoteService(const struct sockaddr_in& source)
{
    monitor.daemon_address = source;
    monitor.daemon_known = true;
    SendQueuedCommands();
}

int main(int argc, char** argv)
{
    int status = ParseMonitorOptions(argc, argv, &monitor.options);
    if (status != kToolOptionsOk)
        return status;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const MonitorOptions& options = monitor.options;
    status = OpenSockets(options);
    if (status != 0)
        return status;
    // The sender reads standard input only when told to: a terminal or an input that never ends must not hold it.
    monitor.stdin_open = !options.sender || options.send_stdin;
    if (options.full_screen)
        return RunFullScreen();
    if (monitor.capturing && !options.sender)
        printf("monitor watching port %u, notices on %u (capture)\n", options.status_port, options.notice_port);
    else if (!options.sender)
        printf("monitor on %s:%u, notices on %u\n", options.bind_host, options.status_port, options.notice_port);

    static uint8_t datagram[kMaxDatagram];
    const int64_t give_up_ms = NowMs() + options.wait_ms;
    long printed = 0;
    while (options.exit_after < 0 || printed < options.exit_after) {
        if (SenderDone(options))
            return 0;
        int timeout_ms = -1;
        if (options.sender && !monitor.daemon_known) {
            int64_t left = give_up_ms - NowMs();
            if (left <= 0) {
                fprintf(stderr, "Service not heard on port %u within %ld ms: commands not sent\n",
                        options.status_port, options.wait_ms);
                return 1;
            }
            timeout_ms = static_cast<int>(left);
        }
        // A descriptor of -1 is left out by poll: no notice socket, or standard input ended.
        struct pollfd sockets[3] = {{monitor.status_socket, POLLIN, 0}, {monitor.notice_socket, POLLIN, 0},
                                    {monitor.stdin_open ? STDIN_FILENO : -1, POLLIN, 0}};
        if (poll(sockets, 3, timeout_ms) < 0)
            continue;
        if (sockets[2].revents & (POLLIN | POLLHUP))
            ReadCommandInput();
        for (int i = 0; i < 2; ++i) {
            if ((sockets[i].revents & POLLIN) == 0)
                continue;
            struct sockaddr_in source;
            bool notice = false;
            ssize_t length = ReceiveMonitorDatagram(sockets[i].fd, datagram, sizeof datagram, 0, &source, &notice);
            if (length < 0)
                continue;
            if (!notice)
                NoteService(source);
            if (options.sender)
                continue;
            if (notice)
                PrintNotice(datagram, static_cast<size_t>(length));
            else
                PrintStatusDatagram(datagram, static_cast<size_t>(length));
            ++printed;
        }
    }
    return 0;
}
