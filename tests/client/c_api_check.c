/* The client library from C: the header compiles as C, and a C program links
 * the library without the C++ runtime. Exits 0 when every check holds. */
#include <stdio.h>
#include <string.h>

#include "tarnwickclient.h"

static int failures = 0;

static void Check(int condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "failed: %s\n", what);
        ++failures;
    }
}

int main(void)
{
    static const char line[] = "\x07" "camera_detected=1,camera_mode=photo,battery_level=42,";
    tarnwick_report report;
    Check(tarnwick_parse_report((const uint8_t*)line, sizeof line - 1, &report) == TARNWICK_REPORT_STATUS,
          "a status line");
    Check(report.status.battery_level == 42 && strcmp(report.status.camera_mode, "photo") == 0, "its values");
    Check(tarnwick_status_present(&report.status, "battery_level") && !tarnwick_status_present(&report.status, "iso"),
          "present items");

    char command[64];
    Check(tarnwick_format_command(command, sizeof command, "camera", "mode", "video", NULL, NULL, NULL) > 0 &&
              strcmp(command, "!{\"cmd\":\"camera\",\"param\":\"mode\",\"value\":\"video\"}") == 0,
          "a command");

    tarnwick_link* link = tarnwick_link_open("127.0.0.1", 0);
    Check(link != NULL && !tarnwick_link_relay_known(link), "a link");
    Check(tarnwick_link_send(link, command, strlen(command)) == -1, "no send before the relay is heard");
    Check(tarnwick_link_receive(link, 10, &report) == TARNWICK_LINK_TIMEOUT, "a time-out");
    Check(tarnwick_link_relay_restarts(link) == 0, "no restart heard");
    tarnwick_link_close(link);

    Check(tarnwick_ring_open("tarnwick_no_such_ring", 1) == NULL, "no ring");
    return failures == 0 ? 0 : 1;
}
