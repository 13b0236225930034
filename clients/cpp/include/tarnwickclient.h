/* tarnwickclient: the main application's side of the tarnwickrelay interface,
 * for C and C++ (docs/interface.md describes the interface itself).
 *
 *   status:   tarnwick_parse_report() turns one status datagram into a typed
 *             record: the status line, or a state / tracking / histogram message.
 *   commands: tarnwick_format_command() builds a "!"-prefixed JSON command;
 *             a tarnwick_link receives the status datagrams and sends commands
 *             back to the port they came from.
 *   video:    a tarnwick_ring follows the live H.264 ring in shared memory and
 *             hands out the byte stream in order, with lost parts and writer
 *             restarts counted.
 *   records:  the gimbal attitude ("/shared_camstate"), the remote-control
 *             record ("/shared_rc_raw"), the live resolution files.
 *
 * Results are 0 (or a count) for success and -1 for failure; nothing here
 * prints. Link with `pkg-config --libs tarnwickclient`. */
#ifndef TARNWICKCLIENT_H
#define TARNWICKCLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TARNWICK_TEXT_CAPACITY 24  /* the relay's longest text value is 20 bytes; longer ones are refused */

/* The status line, once a second: every item of the line, in its order. The
 * members and their meanings come from docs/interface.json (tests/check_interface.py
 * --write writes them; docs/interface.md's key table has their values). Numbers that the
 * line did not carry, or carried malformed, stay 0 and their bit in `present`
 * stays clear (bit i for the i-th field below, camera_detected = bit 0). */
typedef struct tarnwick_status {
    uint64_t present;
    int32_t camera_detected;                    /* 1 once the camera has reported what it is; never goes back to 0 */
    char camera_model[TARNWICK_TEXT_CAPACITY];  /* the camera model */
    char camera_mode[TARNWICK_TEXT_CAPACITY];   /* the camera's mode */
    char sd[TARNWICK_TEXT_CAPACITY];            /* free space on the card, gigabytes, one decimal and "G" */
    int64_t shots_left;                         /* photos that still fit on the card */
    char rec_time_left[TARNWICK_TEXT_CAPACITY]; /* recording time left on the card */
    char rec_time[TARNWICK_TEXT_CAPACITY];      /* elapsed time of the running recording */
    int32_t voltage;                            /* not reported by the camera */
    int32_t battery_level;                      /* battery charge level as the camera reports it */
    int32_t battery_charging;                   /* 1 while the battery charges */
    char shot_mode[TARNWICK_TEXT_CAPACITY];     /* photo file format */
    char resolution[TARNWICK_TEXT_CAPACITY];    /* video resolution, width x height */
    char framerate[TARNWICK_TEXT_CAPACITY];     /* video frame rate, pictures per second */
    char format[2 * TARNWICK_TEXT_CAPACITY];    /* resolution "@" framerate */
    int32_t ae;                                 /* 1 while auto exposure is locked */
    char aperture[TARNWICK_TEXT_CAPACITY];      /* f-number, whole or with one decimal */
    char shutter[TARNWICK_TEXT_CAPACITY];       /* shutter speed in use */
    char shutter_set[TARNWICK_TEXT_CAPACITY];   /* shutter speed setting */
    int32_t iso;                                /* ISO sensitivity in use */
    char iso_set[TARNWICK_TEXT_CAPACITY];       /* ISO setting */
    char ev[TARNWICK_TEXT_CAPACITY];            /* exposure compensation, in thirds */
    char image_mode[TARNWICK_TEXT_CAPACITY];    /* exposure program */
    char color_mode[TARNWICK_TEXT_CAPACITY];    /* colour profile */
    char wb[TARNWICK_TEXT_CAPACITY];            /* white balance */
    int32_t wb_temp;                            /* white-balance colour temperature, kelvin */
    char ratio[TARNWICK_TEXT_CAPACITY];         /* photo aspect ratio */
    int32_t sensor;                             /* photo sensor resolution, megapixels */
    char video_std[TARNWICK_TEXT_CAPACITY];     /* video standard */
    char antiflicker[TARNWICK_TEXT_CAPACITY];   /* anti-flicker setting */
    int32_t histogram;                          /* 1 while histogram reports arrive (the last at most 3000 ms old) */
    char pl_state[TARNWICK_TEXT_CAPACITY];      /* playback state */
    int32_t pl_id;                              /* number of the clip played back */
    char pl_dur[TARNWICK_TEXT_CAPACITY];        /* duration of that clip */
    char pl_time[TARNWICK_TEXT_CAPACITY];       /* playback position */
} tarnwick_status;

/* The field names of the status line in order; tarnwick_status_present()
 * asks by name. */
#define TARNWICK_STATUS_FIELD_COUNT 34
int tarnwick_status_field_index(const char* key);   /* 0..33, or -1 */
const char* tarnwick_status_field_name(int index);  /* null outside 0..33 */
int tarnwick_status_present(const tarnwick_status* status, const char* key);
/* Field `index` as text, as the line carried it.
 * Returns the length, or -1 when the field was not present. */
int tarnwick_status_field_text(const tarnwick_status* status, int index, char* out, size_t capacity);

/* The state message, five times a second. */
typedef struct tarnwick_state {
    uint8_t gimbal_flags;          /* lock requested | mode flag */
    int16_t attitude[3];           /* tenths of a degree */
    uint8_t camera_flags;          /* bits 7..6 == 2: recording */
    int recording;
    uint8_t camera_aux_1, camera_aux_2;
    uint8_t focus_reported, focus_mode_code;   /* 0x84 MF, 0x85 AFS, 0x86 AFC */
    uint16_t focus_param_1, focus_param_3;
    double focus_point_x, focus_point_y;       /* 0 .. 1 */
    uint8_t focus_param_21, focus_param_31;
    uint8_t ae_aux;
    int16_t gimbal_limits[4];
    uint16_t zoom, zoom_max;       /* hundredths: 100 is 1x */
    uint8_t gimbal_bit1, gimbal_bit5, gimbal_bit4;
} tarnwick_state;

typedef struct tarnwick_tracking {
    int active;
    double x, y, w, h;             /* the subject's box, 0 .. 1 of the picture */
} tarnwick_tracking;

typedef struct tarnwick_histogram {
    uint8_t bins[64];              /* darkest first */
} tarnwick_histogram;

typedef enum tarnwick_report_kind {
    TARNWICK_REPORT_UNKNOWN = 0,
    TARNWICK_REPORT_STATUS,
    TARNWICK_REPORT_STATE,
    TARNWICK_REPORT_TRACKING,
    TARNWICK_REPORT_HISTOGRAM
} tarnwick_report_kind;

typedef struct tarnwick_report {
    tarnwick_report_kind kind;
    tarnwick_status status;        /* the member of `kind` is filled */
    tarnwick_state state;
    tarnwick_tracking tracking;
    tarnwick_histogram histogram;
} tarnwick_report;

/* One datagram from the status port. Returns the kind, or -1 (kind UNKNOWN)
 * for a datagram that is none of them, or a binary message of a wrong length. */
int tarnwick_parse_report(const uint8_t* data, size_t length, tarnwick_report* report);

/* The recording notice ("rec_active" / "rec_inactive", port 5255): 1, 0, or
 * -1 for another text. */
int tarnwick_parse_notice(const uint8_t* data, size_t length);

/* A command datagram: "!" and a JSON object of the members given (null ones
 * left out), as text with its terminator. `name_or_param` goes out as "name"
 * when cmd is "set", else as "param". Returns the length without the
 * terminator, or -1 when it does not fit. */
int tarnwick_format_command(char* out, size_t capacity, const char* cmd, const char* name_or_param,
                            const char* value, const char* value2, const char* value3, const char* value4);
/* The binary zoom-rate datagram (4 bytes). */
void tarnwick_format_zoom_rate(uint8_t out[4], int16_t rate);

/* The UDP link: binds the status port, receives reports, and sends commands
 * to the source of the latest status datagram (the relay's command port). */
typedef struct tarnwick_link tarnwick_link;
tarnwick_link* tarnwick_link_open(const char* bind_host, uint16_t status_port);
void tarnwick_link_close(tarnwick_link* link);
int tarnwick_link_fd(const tarnwick_link* link);   /* for poll() */
/* Waits up to timeout_ms (-1: for ever) for one status datagram and parses
 * it. Returns its kind (0: unknown datagram), TARNWICK_LINK_TIMEOUT when
 * none came in time, or -1 on an error (errno tells; EINTR: a signal). */
#define TARNWICK_LINK_TIMEOUT (-2)
int tarnwick_link_receive(tarnwick_link* link, int timeout_ms, tarnwick_report* report);
/* 1 once a status datagram has told the relay's command port. */
int tarnwick_link_relay_known(const tarnwick_link* link);
/* How many times the relay has started again since the link first heard it:
 * every start binds a new command port, so status from a new source is a new
 * relay (the system picks the port; the same one again is a 1 in 28000
 * chance). A new relay has forgotten what the application told the old one:
 * when this grows, send the movement mode again. A command sent while the
 * relay is down is lost (it is not queued anywhere). */
unsigned tarnwick_link_relay_restarts(const tarnwick_link* link);
/* Sends a command datagram (text from tarnwick_format_command, or bytes).
 * Returns 0, or -1 when the relay is not known yet or the send failed. */
int tarnwick_link_send(tarnwick_link* link, const void* data, size_t length);

/* The video ring. */
typedef struct tarnwick_ring tarnwick_ring;
/* Receives the bytes of one chunk, in stream order; returns 0, or -1 to stop. */
typedef int (*tarnwick_chunk_sink)(const uint8_t* data, uint32_t length, void* context);
/* Opens the ring (null name: "tarnwickrelay_framebuffer"), starting at the
 * live edge; with start_at_parameter_set nothing is handed out before a part
 * that begins with a sequence parameter set. Null when it is missing or short. */
tarnwick_ring* tarnwick_ring_open(const char* name, int start_at_parameter_set);
void tarnwick_ring_close(tarnwick_ring* ring);
/* Hands every complete chunk to the sink. Returns the number handed out, or
 * -1 when the sink stopped. Never blocks. */
int tarnwick_ring_poll(tarnwick_ring* ring, tarnwick_chunk_sink sink, void* context);
/* Asks the relay to clear the ring; its next part is the first read. */
void tarnwick_ring_request_clear(tarnwick_ring* ring);
typedef struct tarnwick_ring_counts {
    uint64_t parts, bytes, lost_parts;
    uint64_t overruns;    /* times the reader fell a whole ring behind */
    uint64_t restarts;    /* clears seen and objects replaced: the writer started again */
    uint16_t last_part;   /* the writer's newest part */
} tarnwick_ring_counts;
void tarnwick_ring_counts_get(const tarnwick_ring* ring, tarnwick_ring_counts* counts);

/* The gimbal attitude, tenths of a degree; 0 or -1 when the region is missing. */
int tarnwick_read_attitude(int16_t attitude[3]);

/* The remote-control record, created zero-filled when missing. */
typedef struct tarnwick_rc tarnwick_rc;
tarnwick_rc* tarnwick_rc_open(const char* name);   /* null name: "/shared_rc_raw" */
void tarnwick_rc_close(tarnwick_rc* rc);
int tarnwick_rc_set_value(tarnwick_rc* rc, unsigned slot, double value);   /* slot 0..43 */
int tarnwick_rc_set_flag(tarnwick_rc* rc, unsigned slot, uint16_t flag);

/* The live resolution from its two files; -1 when missing or out of 16..16384. */
int tarnwick_read_resolution(int* width, int* height);

#ifdef __cplusplus
}
#endif

#endif
