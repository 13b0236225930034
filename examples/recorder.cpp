// A small main application on tarnwickclient: it shows the camera's state,
// starts and stops recording on a key, and writes the live video to a file.
//
//   tarnwick-example-recorder [--port=<status port>] [--out=<file.h264>]
//
// Keys, one per line on standard input: r (record / stop), p (photo), q (quit).
// Run it beside the relay (started with --dst-port=<status port>); play the
// file with `ffplay live.h264`.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarnwickclient/client.h"

namespace {

struct Recorder {
    tarnwick_link* link = nullptr;
    tarnwick::RingReader ring;   // holds a chunk-sized copy buffer: not on the stack
    FILE* video = nullptr;
    bool recording = false;      // as the camera reports it
    bool ring_open = false;
    bool movement_sent = false;  // to the relay that runs now
    unsigned relay_restarts = 0;
};

Recorder recorder;

int WriteVideo(const uint8_t* data, uint32_t length, void*)
{
    return fwrite(data, 1, length, recorder.video) == length ? 0 : -1;
}

void ShowStatus(const tarnwick::Status& s)
{
    printf("camera %s, mode %s, %s, battery %d%%, card %s, ISO %s, shutter %s, EV %s%s\n",
           s.camera_detected ? s.camera_model : "(none)", s.camera_mode, s.format, s.battery_level, s.sd, s.iso_set,
           s.shutter_set, s.ev, recorder.recording ? ", RECORDING" : "");
}

void SendCommand(const char* cmd, const char* param, const char* value = nullptr)
{
    char text[128];
    int length = tarnwick::FormatCommand(text, sizeof text, cmd, param, value);
    if (length < 0 || tarnwick_link_send(recorder.link, text, static_cast<size_t>(length)) != 0)
        printf("not sent (the relay has not been heard yet): %s\n", text);
    else
        printf("sent %s\n", text);
}

// Returns false to quit.
bool HandleKey(char key)
{
    switch (key) {
    case 'r': SendCommand("record", recorder.recording ? "stop" : "start"); return true;
    case 'p': SendCommand("shot", nullptr); return true;
    case 'q': return false;
    default: return true;
    }
}

void ReceiveReport()
{
    tarnwick::Report report;
    int kind = tarnwick_link_receive(recorder.link, 0, &report);
    if (kind == TARNWICK_LINK_TIMEOUT)
        return;
    if (kind < 0) {
        perror("status port");
        return;
    }
    // A relay that started again knows nothing of what it was told: the
    // remote control's sticks wait for the movement mode.
    unsigned restarts = tarnwick_link_relay_restarts(recorder.link);
    if (restarts != recorder.relay_restarts) {
        printf("the relay started again\n");
        recorder.relay_restarts = restarts;
        recorder.movement_sent = false;
    }
    if (!recorder.movement_sent && tarnwick_link_relay_known(recorder.link)) {
        SendCommand("set", "movement", "abs");
        recorder.movement_sent = true;
    }
    if (kind == TARNWICK_REPORT_STATUS) {
        ShowStatus(report.status);
    } else if (kind == TARNWICK_REPORT_STATE && (report.state.recording != 0) != recorder.recording) {
        recorder.recording = report.state.recording != 0;
        printf("recording %s\n", recorder.recording ? "started" : "stopped");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    unsigned port = tarnwick::wire::kDefaultStatusPort;
    const char* out_path = "live.h264";
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "--port=", 7) == 0) {
            port = static_cast<unsigned>(atoi(argv[i] + 7));
        } else if (strncmp(argv[i], "--out=", 6) == 0) {
            out_path = argv[i] + 6;
        } else {
            fprintf(stderr, "usage: %s [--port=<status port>] [--out=<file.h264>]\n", argv[0]);
            return 2;
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    recorder.link = tarnwick_link_open("127.0.0.1", static_cast<uint16_t>(port));
    recorder.video = fopen(out_path, "wb");
    if (recorder.link == nullptr || recorder.video == nullptr) {
        fprintf(stderr, "cannot listen on 127.0.0.1:%u or write %s\n", port, out_path);
        return 1;
    }
    recorder.ring.start_at_parameter_set = true;   // the file starts where a player can
    printf("listening on 127.0.0.1:%u, video to %s; keys: r record/stop, p photo, q quit\n", port, out_path);

    bool input_open = true;
    for (bool running = true; running;) {
        // Status datagrams and keys as they come; the ring every 10 ms (it has no descriptor to wait on).
        struct pollfd waits[2] = {{tarnwick_link_fd(recorder.link), POLLIN, 0},
                                  {input_open ? STDIN_FILENO : -1, POLLIN, 0}};
        poll(waits, 2, 10);
        if (waits[0].revents & POLLIN)
            ReceiveReport();
        if (waits[1].revents & (POLLIN | POLLHUP)) {
            char keys[64];
            ssize_t count = read(STDIN_FILENO, keys, sizeof keys);
            input_open = count > 0;
            for (ssize_t i = 0; i < count && running; ++i)
                running = HandleKey(keys[i]);
        }
        if (!recorder.ring_open && tarnwick::RingReaderOpen(&recorder.ring) == 0) {
            recorder.ring_open = true;
            printf("reading the video ring\n");
        }
        if (recorder.ring_open && tarnwick::RingReaderPoll(&recorder.ring, WriteVideo, nullptr) < 0) {
            fprintf(stderr, "cannot write %s\n", out_path);
            running = false;
        }
    }
    printf("%llu video parts, %llu bytes, %llu parts lost, %llu restarts of the relay's ring\n",
           static_cast<unsigned long long>(recorder.ring.counts.parts),
           static_cast<unsigned long long>(recorder.ring.counts.bytes),
           static_cast<unsigned long long>(recorder.ring.counts.lost_parts),
           static_cast<unsigned long long>(recorder.ring.counts.restarts));
    tarnwick::RingReaderClose(&recorder.ring);
    tarnwick_link_close(recorder.link);
    return fclose(recorder.video) == 0 ? 0 : 1;
}
