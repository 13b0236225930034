#pragma once
// tarnwick-monitor: stands where the main application stands. It receives
// the service's status datagrams (default 127.0.0.1:5000) and recording
// notices (127.0.0.1:5255) and prints them decoded: the status line as one
// field per line, the state, tracking and histogram messages field by field.
//
// One function per message kind; datagrams are told apart by their first
// bytes (7: status line; 6 then 0, 1, 2: state, histogram, tracking). The
// service's command port is the source port of its status datagrams; the
// monitor remembers it (daemon_address) for anything that talks back.
//
// Beside the main application. Only one socket can own the status port, and
// the main application needs every datagram. So the monitor either binds the
// port (the default: no main application runs), or watches it with a packet
// capture (--capture, root), which leaves the port and its datagrams to the
// main application; commands then leave from an ephemeral port of the
// monitor's own, which the service takes as readily. The sender (--send) never
// binds the status port: it captures to learn the command port, and binds only
// where it may not capture (not root), and then only while nobody holds it.
#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

struct MonitorOptions {
    const char* bind_host = "127.0.0.1";
    uint16_t status_port = 5000;
    uint16_t notice_port = 5255;
    bool every_message = false;   // print binary messages even when unchanged
    bool full_screen = false;     // --tui
    long exit_after = -1;         // datagrams to receive before exiting; -1: run on
    bool capture = false;         // --capture: watch the ports, bind neither
    bool sender = false;          // --send given: send, then exit
    bool send_stdin = false;      // --send=-: the commands are the lines of standard input
    long wait_ms = 10000;         // --wait: how long the sender waits to hear the service
};

struct Monitor {
    MonitorOptions options;
    int status_socket = -1;               // bound to the status port, or the capture
    int notice_socket = -1;               // bound to the notice port; -1 when captured or not wanted
    int command_socket = -1;              // where commands leave: the status socket, or one of its own
    bool capturing = false;
    struct sockaddr_in daemon_address{};  // source of the latest status datagram
    bool daemon_known = false;
    bool stdin_open = true;               // commands are read from standard input until it ends
    void (*on_message)(const char* line) = nullptr;   // where command messages go; null: standard output
};
extern Monitor monitor;

// Commands to the service (commands.cpp): a JSON text, "!" + JSON, or words
// "cmd param value ..." ("set name value" for set). Sent from the status
// socket to the service's command port; queued until that port is known.
void SendMonitorCommand(const char* line);
void SendQueuedCommands();
bool CommandsQueued();
// Reads what standard input holds and sends each complete line.
void ReadCommandInput();

// The full-screen live view (tui.cpp): runs until the user quits. Returns
// the exit status.
int RunFullScreen();

// The capture (capture.cpp): a packet socket that receives copies of the
// UDP datagrams to either port. ReceiveCaptured returns the payload's
// length, its source and the port it went to; -2 for a packet that is not a
// whole UDP datagram, -1 when nothing was read.
int OpenCapture(uint16_t status_port, uint16_t notice_port);
ssize_t ReceiveCaptured(int fd, uint8_t* out, size_t capacity, int flags, struct sockaddr_in* source,
                        uint16_t* to_port);
// One datagram from `fd` (the status or the notice socket, or the capture):
// as ReceiveCaptured; *notice tells which port it went to.
ssize_t ReceiveMonitorDatagram(int fd, uint8_t* out, size_t capacity, int flags, struct sockaddr_in* source,
                               bool* notice);
// The service was heard: its status datagram came from `source`.
void NoteService(const struct sockaddr_in& source);

// Prints one datagram from the status port / the notice port.
void PrintStatusDatagram(const uint8_t* data, size_t length);
void PrintNotice(const uint8_t* data, size_t length);

// The kinds, each checked for its exact length.
void PrintStatusLine(const uint8_t* data, size_t length);
void PrintStateMessage(const uint8_t* data, size_t length);
void PrintTrackingMessage(const uint8_t* data, size_t length);
void PrintHistogramMessage(const uint8_t* data, size_t length);
void PrintUnknown(const char* what, const uint8_t* data, size_t length);
