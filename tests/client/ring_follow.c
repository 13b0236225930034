/* Follows the video ring through the C interface, as a main application in C
 * would, and writes the stream to PREFIX.<n>.h264: a new file each time the
 * reader counts a restart of the writer (n = restarts so far), so that each
 * file holds one run of the relay. Waits for a part that starts with a
 * parameter set after opening and after every break. On SIGTERM it writes
 * "parts=P lost=L overruns=O restarts=R" on standard output and exits 0.
 * Usage: ring_follow PREFIX */
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "tarnwickclient.h"

static volatile sig_atomic_t stopping = 0;

static void Stop(int signal_number)
{
    (void)signal_number;
    stopping = 1;
}

struct Output {
    const char* prefix;
    tarnwick_ring* ring;
    FILE* file;
    uint64_t run;   /* restarts counted when the file was opened */
};

static int OpenRun(struct Output* output, uint64_t run)
{
    char path[4096];
    if (output->file != NULL)
        fclose(output->file);
    snprintf(path, sizeof path, "%s.%llu.h264", output->prefix, (unsigned long long)run);
    output->file = fopen(path, "wb");
    output->run = run;
    return output->file != NULL ? 0 : -1;
}

static int Write(const uint8_t* data, uint32_t length, void* context)
{
    struct Output* output = (struct Output*)context;
    tarnwick_ring_counts counts;
    tarnwick_ring_counts_get(output->ring, &counts);
    if ((output->file == NULL || counts.restarts != output->run) && OpenRun(output, counts.restarts) != 0)
        return -1;
    return fwrite(data, 1, length, output->file) == length ? 0 : -1;
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fputs("usage: ring_follow PREFIX\n", stderr);
        return 2;
    }
    signal(SIGTERM, Stop);
    struct Output output = {argv[1], NULL, NULL, 0};
    const struct timespec pause = {0, 2000000};
    while (!stopping && (output.ring = tarnwick_ring_open(NULL, 1)) == NULL)
        nanosleep(&pause, NULL);
    while (!stopping && output.ring != NULL) {
        if (tarnwick_ring_poll(output.ring, Write, &output) < 0) {
            fputs("ring_follow: cannot write\n", stderr);
            return 1;
        }
        nanosleep(&pause, NULL);
    }
    tarnwick_ring_counts counts = {0};
    if (output.ring != NULL)
        tarnwick_ring_counts_get(output.ring, &counts);
    if (output.file != NULL)
        fclose(output.file);
    tarnwick_ring_close(output.ring);
    printf("parts=%llu lost=%llu overruns=%llu restarts=%llu\n", (unsigned long long)counts.parts,
           (unsigned long long)counts.lost_parts, (unsigned long long)counts.overruns,
           (unsigned long long)counts.restarts);
    return 0;
}
