// tarnwick-ringreader: reads the live video ring as the main application
// does and writes the H.264 byte stream to standard output or a file.
//
//   build/tarnwick-ringreader | ffplay -f h264 -
//   build/tarnwick-ringreader --out=live.h264 --idle-exit=3000
//
// It starts at the next part the service queues (or at slot 0 when a clear is
// pending), and by default at the first part that begins with a sequence
// parameter set, so a player gets a stream it can decode from its first byte.
// Lines on standard error: "following <name> from slot <n>" once reading,
// "fell behind: lost <n> parts" for each gap, a line when the ring was
// overrun or made anew,, and a summary at the end.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarnwickclient/client.h"
#include "tool_options.h"

namespace {

struct ReaderOptions {
    const char* region_name = tarnwick::wire::kFrameBufferName;
    const char* out_path = nullptr;     // standard output when null
    bool from_any_part = false;         // do not wait for a parameter set
    bool clear_first = false;           // ask the writer to restart the ring at slot 0
    bool wait_for_region = false;       // the service may not have created it yet
    uint32_t idle_exit_ms = 0;          // 0: run until stopped
    uint64_t part_limit = 0;            // 0: no limit
};

constexpr uint32_t kIdlePollUs = 500;
constexpr uint32_t kRegionRetryMs = 100;

volatile sig_atomic_t stop_requested = 0;
constexpr uint32_t kStaleWriterMs = 5000;

void OnStopSignal(int)
{
    stop_requested = 1;
}

constexpr const char* kTool = "tarnwick-ringreader";

void Usage(FILE* out)
{
    fputs("Usage: tarnwick-ringreader [options]\n"
          "  --out=<file>         write the stream to a file (default: standard output)\n"
          "  --all                start at the next part, not at a parameter set\n"
          "  --clear              ask the service to restart the ring; read from its slot 0\n"
          "  --wait               wait for the ring to be created\n"
          "  --idle-exit=<ms>     end when no part came for this long (after the first)\n"
          "  --parts=<n>          end after n parts\n"
          "  --name=<region>      shared-memory name (default tarnwickrelay_framebuffer)\n"
          "  --help               this text\n"
          "A ring whose writer made no progress for 5 s is said once on standard error (reading goes on).\n",
          out);
}

// Returns kToolOptionsOk, or the status to end with.
int ParseReaderOptions(int argc, char** argv, ReaderOptions* options)
{
    enum { kOut = 1, kAll, kClear, kWait, kIdleExit, kParts, kName, kHelp };
    static const struct option long_options[] = {
        {"out", required_argument, nullptr, kOut},
        {"all", no_argument, nullptr, kAll},
        {"clear", no_argument, nullptr, kClear},
        {"wait", no_argument, nullptr, kWait},
        {"idle-exit", required_argument, nullptr, kIdleExit},
        {"parts", required_argument, nullptr, kParts},
        {"name", required_argument, nullptr, kName},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    long value = 0;
    for (;;) {
        switch (getopt_long(argc, argv, "", long_options, nullptr)) {
        case -1:
            if (ToolArgumentsDone(kTool, argc, argv, optind))
                return kToolOptionsOk;
            break;
        case kOut: options->out_path = optarg; continue;
        case kAll: options->from_any_part = true; continue;
        case kClear: options->clear_first = true; continue;
        case kWait: options->wait_for_region = true; continue;
        case kIdleExit:
            if (!ParseToolNumber(kTool, "idle-exit", optarg, 1, 86400000, &value))
                break;
            options->idle_exit_ms = static_cast<uint32_t>(value);
            continue;
        case kParts:
            if (!ParseToolNumber(kTool, "parts", optarg, 1, 2000000000, &value))
                break;
            options->part_limit = static_cast<uint64_t>(value);
            continue;
        case kName: options->region_name = optarg; continue;
        case kHelp: Usage(stdout); return 0;
        default: break;   // getopt_long named the option
        }
        Usage(stderr);
        return kToolUsageError;
    }
}

uint32_t NowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

struct Output {
    int fd;
    uint64_t part_limit;
    const tarnwick::RingReader* reader;
    bool limit_reached;
    bool failed;
};

int WriteAll(const uint8_t* data, uint32_t length, void* context)
{
    Output* output = static_cast<Output*>(context);
    if (output->part_limit != 0 && output->reader->counts.parts > output->part_limit) {
        output->limit_reached = true;
        return -1;
    }
    while (length > 0) {
        ssize_t written = write(output->fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            output->failed = true;   // the player went away
            return -1;
        }
        data += written;
        length -= static_cast<uint32_t>(written);
    }
    return 0;
}

// Says what the last poll changed in the reader's counts.
void ReportCounts(const tarnwick::RingCounts& before, const tarnwick::RingCounts& now)
{
    if (now.lost_parts != before.lost_parts)
        fprintf(stderr, "fell behind: lost %" PRIu64 " parts\n", now.lost_parts - before.lost_parts);
    if (now.overruns != before.overruns)
        fputs("fell a whole ring behind: reading on at the writer's position\n", stderr);
    if (now.restarts != before.restarts)
        fputs("the ring was cleared or made anew: reading from its start\n", stderr);
}

}  // namespace

int main(int argc, char** argv)
{
    static ReaderOptions options;
    static tarnwick::RingReader reader;
    int parsed = ParseReaderOptions(argc, argv, &options);
    if (parsed != kToolOptionsOk)
        return parsed;
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, OnStopSignal);
    signal(SIGTERM, OnStopSignal);

    int out = STDOUT_FILENO;
    if (options.out_path != nullptr) {
        out = open(options.out_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (out < 0) {
            fprintf(stderr, "cannot write %s: %s\n", options.out_path, strerror(errno));
            return 1;
        }
    }

    reader.start_at_parameter_set = !options.from_any_part;
    int opened = tarnwick::RingReaderOpen(&reader, options.region_name);
    while (opened != 0 && options.wait_for_region && !stop_requested) {
        usleep(kRegionRetryMs * 1000);
        opened = tarnwick::RingReaderOpen(&reader, options.region_name);
    }
    if (opened != 0) {
        fprintf(stderr, "no video ring %s (is the service running?)\n", options.region_name);
        return 1;
    }

    static Output output = {out, options.part_limit, &reader, false, false};
    if (options.clear_first)
        tarnwick::RingReaderRequestClear(&reader);
    fprintf(stderr, "following %s from slot %u\n", options.region_name, reader.clear_pending ? 0 : reader.slot);

    int status = 0;
    uint32_t last_part_ms = NowMs();
    bool stale_said = false;
    while (!stop_requested) {
        tarnwick::RingCounts before = reader.counts;
        int delivered = tarnwick::RingReaderPoll(&reader, WriteAll, &output);
        ReportCounts(before, reader.counts);
        if (delivered < 0) {
            status = output.failed ? 1 : 0;
            break;
        }
        if (delivered > 0) {
            if (stale_said)
                fputs("the writer makes progress again\n", stderr);
            stale_said = false;
            last_part_ms = NowMs();
            continue;
        }
        if (!stale_said && NowMs() - last_part_ms >= kStaleWriterMs) {
            // No part and an unchanged header for a while: the service is gone, stopped, or has no camera.
            fprintf(stderr, "no progress from the writer for %u s (last part %u, reading slot %u): is the service "
                    "running with a camera? still waiting\n", kStaleWriterMs / 1000,
                    reader.counts.last_part, reader.slot);
            stale_said = true;
        }
        if (options.idle_exit_ms != 0 && reader.counts.parts > 0 && NowMs() - last_part_ms >= options.idle_exit_ms)
            break;
        usleep(kIdlePollUs);
    }
    uint64_t parts = output.limit_reached ? options.part_limit : reader.counts.parts;
    fprintf(stderr, "%" PRIu64 " parts, %" PRIu64 " bytes, %" PRIu64 " parts lost\n", parts, reader.counts.bytes,
            reader.counts.lost_parts);
    if (out != STDOUT_FILENO)
        close(out);
    return status;
}
