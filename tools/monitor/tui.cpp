// The monitor's full-screen live view (--tui): the camera's state grouped as
// a person reads it, the video rate read from the ring, the age of the last
// status, and a command line at the bottom.
//
// Keys: r starts or stops recording (as the camera reports it), p takes a
// photo, : (or Enter) opens the command line, where a command is typed as on
// standard input (words or JSON) and Enter sends it, Escape drops it; q quits.
#include <curses.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "monitor.h"
#include "tarnwickclient/client.h"

namespace {

constexpr int kRedrawMs = 100;
constexpr int kRightColumn = 42;
constexpr int64_t kRateWindowMs = 1000;
constexpr int64_t kResolutionReadMs = 1000;

struct View {
    tarnwick::Status status{};
    tarnwick::StateMessage state{};
    tarnwick::TrackingMessage tracking{};
    tarnwick::HistogramMessage histogram{};
    bool have_status = false, have_state = false, have_histogram = false;
    int64_t status_at_ms = 0, tracking_at_ms = 0, histogram_at_ms = 0;
    char notice[32] = "";
    char message[160] = "";
    char command[256] = "";
    bool typing = false;

    tarnwick::RingReader ring;
    bool ring_open = false;
    int64_t rate_since_ms = 0;
    uint64_t rate_parts = 0, rate_bytes = 0;
    double parts_per_s = 0, megabits_per_s = 0;
    // The picture size from its two files, read once a second rather than per redraw.
    int width = 0, height = 0;
    bool have_resolution = false;
    int64_t resolution_at_ms = INT64_MIN / 2;
};

View view;

int64_t NowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void KeepMessage(const char* line)
{
    snprintf(view.message, sizeof view.message, "%s", line);
}

int CountOnly(const uint8_t*, uint32_t, void*)
{
    return 0;   // the view counts; the bytes themselves are not needed
}

void PollRing()
{
    if (!view.ring_open) {
        view.ring.zero_copy = true;
        view.ring_open = tarnwick::RingReaderOpen(&view.ring) == 0;
        view.rate_since_ms = NowMs();
    }
    if (view.ring_open)
        tarnwick::RingReaderPoll(&view.ring, CountOnly, nullptr);
    int64_t now = NowMs();
    if (now - view.resolution_at_ms >= kResolutionReadMs) {
        view.have_resolution = tarnwick::ReadResolution(&view.width, &view.height) == 0;
        view.resolution_at_ms = now;
    }
    if (now - view.rate_since_ms >= kRateWindowMs) {
        double seconds = static_cast<double>(now - view.rate_since_ms) / 1000.0;
        view.parts_per_s = static_cast<double>(view.ring.counts.parts - view.rate_parts) / seconds;
        view.megabits_per_s = static_cast<double>(view.ring.counts.bytes - view.rate_bytes) * 8 / 1e6 / seconds;
        view.rate_parts = view.ring.counts.parts;
        view.rate_bytes = view.ring.counts.bytes;
        view.rate_since_ms = now;
    }
}

void ReceiveDatagrams()
{
    static uint8_t datagram[65536];
    for (int i = 0; i < 2; ++i) {
        int fd = i == 0 ? monitor.status_socket : monitor.notice_socket;
        if (fd < 0)
            continue;
        struct sockaddr_in source;
        bool notice = false;
        ssize_t length;
        while ((length = ReceiveMonitorDatagram(fd, datagram, sizeof datagram, MSG_DONTWAIT, &source, &notice)) !=
               -1) {
            if (length < 0)
                continue;   // a captured packet that is not a whole datagram
            if (notice) {
                snprintf(view.notice, sizeof view.notice, "%.*s", static_cast<int>(length),
                         reinterpret_cast<const char*>(datagram));
                continue;
            }
            NoteService(source);
            tarnwick::Report report;
            switch (tarnwick::ParseReport(datagram, static_cast<size_t>(length), &report)) {
            case TARNWICK_REPORT_STATUS:
                view.status = report.status;
                view.have_status = true;
                view.status_at_ms = NowMs();
                break;
            case TARNWICK_REPORT_STATE: view.state = report.state; view.have_state = true; break;
            case TARNWICK_REPORT_TRACKING: view.tracking = report.tracking; view.tracking_at_ms = NowMs(); break;
            case TARNWICK_REPORT_HISTOGRAM:
                view.histogram = report.histogram;
                view.have_histogram = true;
                view.histogram_at_ms = NowMs();
                break;
            default: break;
            }
        }
    }
}

// A heading and rows below it, in one column.
int Heading(int row, int column, const char* title)
{
    attron(A_BOLD);
    mvprintw(row, column, "%s", title);
    attroff(A_BOLD);
    return row + 1;
}

#define ROW(row, column, label, ...)                       \
    do {                                                   \
        mvprintw((row), (column) + 1, "%-11s", (label));   \
        printw(__VA_ARGS__);                               \
        ++(row);                                           \
    } while (0)

const char* YesNo(int value)
{
    return value != 0 ? "yes" : "no";
}

const char* FocusModeName(uint8_t code)
{
    return code == 0x84 ? "MF" : code == 0x85 ? "AFS" : code == 0x86 ? "AFC" : "?";
}

void Draw()
{
    erase();
    const tarnwick::Status& s = view.status;
    const tarnwick::StateMessage& m = view.state;
    int64_t now = NowMs();
    attron(A_REVERSE);
    mvprintw(0, 0, "%-*s", COLS, "");
    if (view.have_status)
        mvprintw(0, 0, " tarnwick-monitor  port %u  last status %.1f s ago", monitor.options.status_port,
                 static_cast<double>(now - view.status_at_ms) / 1000.0);
    else
        mvprintw(0, 0, " tarnwick-monitor  port %u  waiting for the relay's status", monitor.options.status_port);
    if (view.have_state && m.recording)
        printw("   RECORDING");
    if (view.notice[0] != '\0')
        printw("   notice %s", view.notice);
    attroff(A_REVERSE);

    int row = Heading(2, 0, "LINK");
    ROW(row, 0, "camera", "%s%s", s.camera_detected ? s.camera_model : "(not detected)", "");
    ROW(row, 0, "mode", "%s", s.camera_mode);
    ROW(row, 0, "recording", "%s  time %s", view.have_state ? YesNo(m.recording) : "?", s.rec_time);
    row = Heading(row + 1, 0, "BATTERY AND CARD");
    ROW(row, 0, "battery", "%d %%  charging %s", s.battery_level, YesNo(s.battery_charging));
    ROW(row, 0, "card", "%s free", s.sd);
    ROW(row, 0, "left", "%lld shots, %s", static_cast<long long>(s.shots_left), s.rec_time_left);
    row = Heading(row + 1, 0, "EXPOSURE");
    ROW(row, 0, "program", "%d  aperture f/%s", s.ae, s.aperture);
    ROW(row, 0, "shutter", "%s  (set %s)", s.shutter, s.shutter_set);
    ROW(row, 0, "ISO", "%d  (set %s)  EV %s", s.iso, s.iso_set, s.ev);
    ROW(row, 0, "white bal.", "%s  %d K", s.wb, s.wb_temp);
    ROW(row, 0, "colour", "%s  image %s", s.color_mode, s.image_mode);
    ROW(row, 0, "flicker", "%s  standard %s", s.antiflicker, s.video_std);

    row = Heading(2, kRightColumn, "VIDEO");
    ROW(row, kRightColumn, "format", "%s  %s  %d MP", s.format, s.ratio, s.sensor);
    if (view.have_resolution)
        ROW(row, kRightColumn, "picture", "%dx%d  shots %s", view.width, view.height, s.shot_mode);
    else
        ROW(row, kRightColumn, "picture", "?  shots %s", s.shot_mode);
    if (view.ring_open)
        ROW(row, kRightColumn, "ring", "%.0f parts/s  %.1f Mbit/s  lost %llu", view.parts_per_s,
            view.megabits_per_s, static_cast<unsigned long long>(view.ring.counts.lost_parts));
    else
        ROW(row, kRightColumn, "ring", "not there");
    row = Heading(row + 1, kRightColumn, "GIMBAL");
    ROW(row, kRightColumn, "attitude", "%.1f  %.1f  %.1f deg", m.attitude[0] / 10.0, m.attitude[1] / 10.0,
        m.attitude[2] / 10.0);
    ROW(row, kRightColumn, "lock|mode", "%u  zoom %.2fx of %.2fx", m.gimbal_flags, m.zoom / 100.0, m.zoom_max / 100.0);
    row = Heading(row + 1, kRightColumn, "FOCUS AND TRACKING");
    ROW(row, kRightColumn, "focus", "%s at %.3f %.3f", FocusModeName(m.focus_mode_code), m.focus_point_x,
        m.focus_point_y);
    bool tracking_fresh = view.tracking_at_ms != 0 && now - view.tracking_at_ms < 1000;
    if (tracking_fresh && view.tracking.active)
        ROW(row, kRightColumn, "tracking", "box %.3f %.3f %.3f %.3f", view.tracking.x, view.tracking.y,
            view.tracking.w, view.tracking.h);
    else
        ROW(row, kRightColumn, "tracking", "off");
    row = Heading(row + 1, kRightColumn, "PLAYBACK");
    if (s.pl_state[0] != '\0')
        ROW(row, kRightColumn, "state", "%s  clip %d  %s of %s", s.pl_state, s.pl_id, s.pl_time, s.pl_dur);
    else
        ROW(row, kRightColumn, "state", "-");

    row = Heading(row + 1, kRightColumn, "HISTOGRAM");
    if (view.have_histogram && now - view.histogram_at_ms < 1000) {
        static const char kShades[] = " .:-=+*#%@";
        uint8_t highest = 1;
        for (uint8_t bin : view.histogram.bins)
            highest = bin > highest ? bin : highest;
        move(row, kRightColumn + 1);
        for (uint8_t bin : view.histogram.bins)
            addch(static_cast<chtype>(kShades[bin * (sizeof kShades - 2) / highest]));
    }

    mvprintw(LINES - 2, 0, "%s", view.message);
    if (view.typing) {
        mvprintw(LINES - 1, 0, "> %s", view.command);
        curs_set(1);
    } else {
        attron(A_REVERSE);
        mvprintw(LINES - 1, 0, " r record/stop   p photo   : command   q quit ");
        attroff(A_REVERSE);
        curs_set(0);
    }
    refresh();
}

// Returns false to quit.
bool HandleKey(int key)
{
    if (view.typing) {
        size_t length = strlen(view.command);
        if (key == '\n' || key == KEY_ENTER) {
            SendMonitorCommand(view.command);
            view.command[0] = '\0';
            view.typing = false;
        } else if (key == 27) {
            view.command[0] = '\0';
            view.typing = false;
        } else if ((key == KEY_BACKSPACE || key == 127 || key == 8) && length > 0) {
            view.command[length - 1] = '\0';
        } else if (key >= 32 && key < 127 && length + 1 < sizeof view.command) {
            view.command[length] = static_cast<char>(key);
            view.command[length + 1] = '\0';
        }
        return true;
    }
    switch (key) {
    case 'q': return false;
    case 'r': SendMonitorCommand(view.have_state && view.state.recording ? "record stop" : "record start"); break;
    case 'p': SendMonitorCommand("shot"); break;
    case ':':
    case '\n':
    case KEY_ENTER: view.typing = true; break;
    default: break;
    }
    return true;
}

}  // namespace

int RunFullScreen()
{
    monitor.on_message = KeepMessage;
    if (initscr() == nullptr)
        return 1;
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    bool running = true;
    while (running) {
        struct pollfd waits[3] = {{monitor.status_socket, POLLIN, 0}, {monitor.notice_socket, POLLIN, 0},
                                  {0, POLLIN, 0}};
        poll(waits, 3, kRedrawMs);
        ReceiveDatagrams();
        for (int key; running && (key = getch()) != ERR;)
            running = HandleKey(key);
        PollRing();
        Draw();
    }
    endwin();
    tarnwick::RingReaderClose(&view.ring);
    return 0;
}
