// Commands from the monitor to the service: a person drives the camera
// through the daemon, as the main application does. A command is sent as
// "!" + JSON to the service's command port, which is the source port of its
// status datagrams; commands given before the first status datagram wait in
// a small queue.
//
// Forms accepted (from --send or a line on standard input):
//   {"cmd":"iso","param":"400"}     JSON, sent as it stands
//   !{"cmd":"iso","param":"400"}    the datagram text itself
//   iso 400                         words: cmd, param, value .. value4
//   set movement abs                words of "set": cmd, name, value
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "monitor.h"
#include "tarnwickclient/client.h"

namespace {

constexpr size_t kCommandCapacity = 2048;
constexpr size_t kQueueCapacity = 16;
constexpr size_t kWordsMax = 6;

// Only the main thread of the monitor runs this file.
char queue[kQueueCapacity][kCommandCapacity];
size_t queued = 0;

// Builds the datagram text of one command. Returns false for an empty line
// or one that does not fit.
bool BuildCommandText(const char* line, char* out, size_t capacity)
{
    while (*line == ' ' || *line == '\t')
        ++line;
    if (*line == '\0')
        return false;
    if (line[0] == '!' || line[0] == '{') {
        int written = snprintf(out, capacity, "%s%s", line[0] == '!' ? "" : "!", line);
        return written > 0 && static_cast<size_t>(written) < capacity;
    }
    // Words, cut in place in a copy: cmd, param (name for "set"), value .. value4.
    char words_text[kCommandCapacity];
    snprintf(words_text, sizeof words_text, "%s", line);
    const char* words[kWordsMax] = {};
    size_t count = 0;
    char* save = nullptr;
    for (char* word = strtok_r(words_text, " \t", &save); word != nullptr && count < kWordsMax;
         word = strtok_r(nullptr, " \t", &save))
        words[count++] = word;
    return count > 0 &&
           tarnwick::FormatCommand(out, capacity, words[0], words[1], words[2], words[3], words[4], words[5]) > 0;
}

// What happened to a command: a line of output, or the full-screen view's message line.
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* format, ...)
{
    char line[kCommandCapacity + 64];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (monitor.on_message != nullptr)
        monitor.on_message(line);
    else
        printf("%s\n", line);
}

void SendCommandText(const char* text)
{
    ssize_t sent = sendto(monitor.command_socket, text, strlen(text), 0,
                          reinterpret_cast<const struct sockaddr*>(&monitor.daemon_address),
                          sizeof monitor.daemon_address);
    if (sent < 0)
        Say("command not sent: %s", text);
    else
        Say("sent: %s", text);
}

}  // namespace

void SendMonitorCommand(const char* line)
{
    char text[kCommandCapacity];
    if (!BuildCommandText(line, text, sizeof text)) {
        if (line[strspn(line, " \t")] != '\0')
            Say("command too long: %.60s...", line);
        return;
    }
    if (monitor.daemon_known) {
        SendCommandText(text);
        return;
    }
    if (queued == kQueueCapacity) {
        Say("command dropped, service not heard yet: %s", text);
        return;
    }
    memcpy(queue[queued++], text, sizeof text);
    Say("waiting for the service: %s", text);
}

bool CommandsQueued()
{
    return queued > 0;
}

void SendQueuedCommands()
{
    if (!monitor.daemon_known)
        return;
    for (size_t i = 0; i < queued; ++i)
        SendCommandText(queue[i]);
    queued = 0;
}

void ReadCommandInput()
{
    // Lines may arrive in pieces; a line longer than the buffer is cut.
    static char pending[kCommandCapacity];
    static size_t pending_length = 0;
    ssize_t count = read(STDIN_FILENO, pending + pending_length, sizeof pending - 1 - pending_length);
    if (count <= 0) {
        monitor.stdin_open = false;
        return;
    }
    pending_length += static_cast<size_t>(count);
    pending[pending_length] = '\0';
    char* start = pending;
    for (char* newline; (newline = strchr(start, '\n')) != nullptr; start = newline + 1) {
        *newline = '\0';
        if (newline > start && newline[-1] == '\r')
            newline[-1] = '\0';
        SendMonitorCommand(start);
    }
    pending_length = static_cast<size_t>(pending + pending_length - start);
    memmove(pending, start, pending_length);
    if (pending_length == sizeof pending - 1) {
        pending[pending_length] = '\0';
        SendMonitorCommand(pending);
        pending_length = 0;
    }
}
