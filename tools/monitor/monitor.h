#pragma once
// tarnwick-monitor: stands where the main application stands. It receives
// the service's status datagrams (default 127.0.0.1:5000) and recording
// notices (127.0.0.1:5255) and prints them decoded: the status line as one
// field per line, the state, tracking and histogram messages field by field.
//
// One function per message kind; datagrams are told apart by their first
// bytes (7: status line; 6 then 0, 1, 2: state, histogram, tracking). The
// service's command port is the source port of its status datagrams; the
// monitor remembers it (daemon_port) for anything that talks back.
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

struct MonitorOptions {
    const char* bind_host = "127.0.0.1";
    uint16_t status_port = 5000;
    uint16_t notice_port = 5255;
    bool every_message = false;   // print binary messages even when unchanged
    bool full_screen = false;     // --tui
    long exit_after = -1;         // datagrams to receive before exiting; -1: run on
};

struct Monitor {
    MonitorOptions options;
    int status_socket = -1;
    int notice_socket = -1;
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
// Reads what standard input holds and sends each complete line.
void ReadCommandInput();

// The full-screen live view (tui.cpp): runs until the user quits. Returns
// the exit status.
int RunFullScreen();

// Prints one datagram from the status port / the notice port.
void PrintStatusDatagram(const uint8_t* data, size_t length);
void PrintNotice(const uint8_t* data, size_t length);

// The kinds, each checked for its exact length.
void PrintStatusLine(const uint8_t* data, size_t length);
void PrintStateMessage(const uint8_t* data, size_t length);
void PrintTrackingMessage(const uint8_t* data, size_t length);
void PrintHistogramMessage(const uint8_t* data, size_t length);
void PrintUnknown(const char* what, const uint8_t* data, size_t length);
