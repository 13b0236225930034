// tarnwick-rcwriter: plays the remote-control reader process. It writes slot
// values and flags into the shared-memory record "/shared_rc_raw" that the
// relay polls (creating it, zero-filled, when missing; a command line of
// `show` alone only reads, and leaves a missing record missing), so that buttons,
// rockers, switches, sticks and the EV axis can be worked from a shell, a
// demo script or a test.
//
//   tarnwick-rcwriter press record
//   tarnwick-rcwriter --press-ms=100 press mode   (once the main application
//                                   has chosen a movement mode the relay looks
//                                   every 20 ms)
//   tarnwick-rcwriter stick 0.2 0 0 wait 500 stick 0 0 0
//   tarnwick-rcwriter -            (commands from standard input, one line
//                                   at a time, each answered "ok N")
//
// The record's layout and the slot numbers come from control/remote_control.h.
#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tarnwickclient/client.h"
#include "tool_options.h"

using namespace tarnwick::wire;

namespace {

// Longer than the relay's slowest cycle (1 s, before the main application
// has chosen a movement mode), so that a press is never missed.
constexpr uint32_t kDefaultPressMs = 1100;

struct SlotName {
    const char* name;
    RcSlot slot;
};

// Names for the slots the relay reads; numbers 0 .. 43 work too.
constexpr SlotName kSlotNames[] = {
    {"stick0", kRcSlotStick0},
    {"stick1", kRcSlotStick1},
    {"stick2", kRcSlotStick2},
    {"next-position", kRcSlotNextPosition},
    {"lock-switch", kRcSlotLockSwitch},
    {"orientation-lock", kRcSlotOrientationLock},
    {"record", kRcSlotRecordShot},
    {"mode", kRcSlotCameraMode},
    {"focus", kRcSlotFocusType},
    {"zoom-in", kRcSlotZoomIn},
    {"zoom-out", kRcSlotZoomOut},
    {"zoom-in-2", kRcSlotZoomInAlternate},
    {"ae-lock", kRcSlotExposureLock},
    {"tracking", kRcSlotTracking},
    {"exposure-mode", kRcSlotExposureModeRocker},
    {"exposure-mode-next", kRcSlotExposureModeNext},
    {"exposure-mode-prev", kRcSlotExposureModePrev},
    {"iso", kRcSlotIsoRocker},
    {"iso-next", kRcSlotIsoNext},
    {"iso-prev", kRcSlotIsoPrev},
    {"shutter", kRcSlotShutterRocker},
    {"shutter-next", kRcSlotShutterNext},
    {"shutter-prev", kRcSlotShutterPrev},
    {"color", kRcSlotColorRocker},
    {"color-next", kRcSlotColorNext},
    {"color-prev", kRcSlotColorPrev},
    {"wb", kRcSlotWhiteBalanceRocker},
    {"wb-next", kRcSlotWhiteBalanceNext},
    {"wb-prev", kRcSlotWhiteBalancePrev},
    {"ev-axis", kRcSlotEvAxis},
    {"ev", kRcSlotEvRocker},
    {"ev-next", kRcSlotEvNext},
    {"ev-prev", kRcSlotEvPrev},
};

void Usage(FILE* out)
{
    fputs("Usage: tarnwick-rcwriter [--name=<shm name>] [--press-ms=<ms>] <command>...\n"
          "       tarnwick-rcwriter [options] -     commands from standard input, one per line,\n"
          "                                         each answered \"ok N\" or \"error N: ...\"\n"
          "       tarnwick-rcwriter --help\n"
          "Commands (SLOT: 0..43 or a name below):\n"
          "  press SLOT          value 1.0, wait --press-ms (default 1100), value 0.0\n"
          "  hold SLOT VALUE     set the value and leave it (-1.0 pushes a rocker down)\n"
          "  release SLOT        value 0.0\n"
          "  set SLOT VALUE      the same as hold; VALUE may be nan or inf\n"
          "  flag SLOT N         the slot's 16-bit flag\n"
          "  stick A B C         slots 0, 1, 2 (gimbal sticks, -1.0 .. 1.0)\n"
          "  ev VALUE | ev off   EV axis: slot 39 and its flag; off clears the flag\n"
          "  lock on|off|free    lock switch: slot 5 at 1.0 / 0.0 with its flag; free clears the flag\n"
          "  wait MS             sleep\n"
          "  clear               every slot value and flag to zero\n"
          "  show                print the slots and flags the relay reads (show alone\n"
          "                      creates no record: a missing one is an error)\n"
          "Slot names:",
          out);
    for (const SlotName& name : kSlotNames)
        fprintf(out, " %s=%d", name.name, name.slot);
    fputs("\n", out);
}

const char* SlotNameOf(size_t slot)
{
    for (const SlotName& name : kSlotNames)
        if (name.slot == slot)
            return name.name;
    return nullptr;
}

bool ParseSlot(const std::string& text, size_t* slot)
{
    for (const SlotName& name : kSlotNames) {
        if (text == name.name) {
            *slot = name.slot;
            return true;
        }
    }
    char* end = nullptr;
    errno = 0;
    long number = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || number < 0 || number >= static_cast<long>(kRcSlotCount))
        return false;
    *slot = static_cast<size_t>(number);
    return true;
}

bool ParseReal(const std::string& text, double* value)
{
    char* end = nullptr;
    *value = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0';
}

bool ParseWhole(const std::string& text, long maximum, long* value)
{
    char* end = nullptr;
    errno = 0;
    *value = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && errno == 0 && *value >= 0 && *value <= maximum;
}

void SleepMs(uint32_t ms)
{
    struct timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

struct Writer {
    tarnwick::RcWriter rc;
    uint32_t press_ms = kDefaultPressMs;
};

void Show(const tarnwick::RcWriter* record)
{
    for (size_t slot = 0; slot < kRcSlotCount; ++slot) {
        const char* name = SlotNameOf(slot);
        if (name == nullptr)
            continue;
        printf("%2zu %-19s %g", slot, name, tarnwick::RcWriterValue(record, static_cast<unsigned>(slot)));
        if (slot == kRcSlotLockSwitch || slot == kRcSlotEvAxis)
            printf("  flag %u", tarnwick::RcWriterFlag(record, static_cast<unsigned>(slot)));
        printf("\n");
    }
}

// Maps an existing record read-only, for commands that only read: looking
// must not make a record that the relay would then take for a writer's.
// Returns 0, or -1 with errno set (ENOENT: no record).
int OpenForReading(tarnwick::RcWriter* record, const char* name)
{
    int fd = shm_open(name, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct stat status;
    void* mapping = MAP_FAILED;
    if (fstat(fd, &status) == 0 && status.st_size >= static_cast<off_t>(kRcRawStateSize))
        mapping = mmap(nullptr, kRcRawStateSize, PROT_READ, MAP_SHARED, fd, 0);
    else
        errno = EINVAL;   // shorter than the record: nothing to show
    if (mapping == MAP_FAILED) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    record->fd = fd;
    record->record = static_cast<uint8_t*>(mapping);
    return 0;
}

// Runs the commands in `words` in order; stops at the first bad one and
// returns false with the reason in *error.
bool RunCommands(Writer* writer, const std::vector<std::string>& words, std::string* error)
{
    tarnwick::RcWriter* record = &writer->rc;
    size_t at = 0;
    auto argument = [&](size_t count) {
        if (at + count >= words.size()) {
            *error = "'" + words[at] + "' needs " + std::to_string(count) + " argument(s)";
            return false;
        }
        return true;
    };
    while (at < words.size()) {
        const std::string& command = words[at];
        size_t slot = 0;
        double value = 0.0;
        long whole = 0;
        if (command == "press" || command == "release") {
            if (!argument(1))
                return false;
            if (!ParseSlot(words[at + 1], &slot)) {
                *error = "bad slot '" + words[at + 1] + "'";
                return false;
            }
            if (command == "press") {
                tarnwick::RcWriterSetValue(record, slot, 1.0);
                SleepMs(writer->press_ms);
            }
            tarnwick::RcWriterSetValue(record, slot, 0.0);
            at += 2;
        } else if (command == "hold" || command == "set" || command == "flag") {
            if (!argument(2))
                return false;
            if (!ParseSlot(words[at + 1], &slot)) {
                *error = "bad slot '" + words[at + 1] + "'";
                return false;
            }
            if (command == "flag") {
                if (!ParseWhole(words[at + 2], UINT16_MAX, &whole)) {
                    *error = "bad flag '" + words[at + 2] + "'";
                    return false;
                }
                tarnwick::RcWriterSetFlag(record, slot, static_cast<uint16_t>(whole));
            } else {
                if (!ParseReal(words[at + 2], &value)) {
                    *error = "bad value '" + words[at + 2] + "'";
                    return false;
                }
                tarnwick::RcWriterSetValue(record, slot, value);
            }
            at += 3;
        } else if (command == "stick") {
            if (!argument(3))
                return false;
            double axes[3];
            for (size_t i = 0; i < 3; ++i) {
                if (!ParseReal(words[at + 1 + i], &axes[i])) {
                    *error = "bad value '" + words[at + 1 + i] + "'";
                    return false;
                }
            }
            for (size_t i = 0; i < 3; ++i)
                tarnwick::RcWriterSetValue(record, kRcSlotStick0 + i, axes[i]);
            at += 4;
        } else if (command == "ev") {
            if (!argument(1))
                return false;
            if (words[at + 1] == "off") {
                tarnwick::RcWriterSetFlag(record, kRcSlotEvAxis, 0);
            } else if (ParseReal(words[at + 1], &value)) {
                // The value first: the relay never sees the flag with an old value.
                tarnwick::RcWriterSetValue(record, kRcSlotEvAxis, value);
                tarnwick::RcWriterSetFlag(record, kRcSlotEvAxis, 1);
            } else {
                *error = "bad value '" + words[at + 1] + "'";
                return false;
            }
            at += 2;
        } else if (command == "lock") {
            if (!argument(1))
                return false;
            const std::string& state = words[at + 1];
            if (state == "on" || state == "off") {
                tarnwick::RcWriterSetValue(record, kRcSlotLockSwitch, state == "on" ? 1.0 : 0.0);
                tarnwick::RcWriterSetFlag(record, kRcSlotLockSwitch, 1);
            } else if (state == "free") {
                tarnwick::RcWriterSetFlag(record, kRcSlotLockSwitch, 0);
            } else {
                *error = "lock takes on, off or free";
                return false;
            }
            at += 2;
        } else if (command == "wait") {
            if (!argument(1))
                return false;
            if (!ParseWhole(words[at + 1], 3600000, &whole)) {
                *error = "bad time '" + words[at + 1] + "'";
                return false;
            }
            SleepMs(static_cast<uint32_t>(whole));
            at += 2;
        } else if (command == "clear") {
            for (size_t i = 0; i < kRcSlotCount; ++i) {
                tarnwick::RcWriterSetValue(record, i, 0.0);
                tarnwick::RcWriterSetFlag(record, i, 0);
            }
            at += 1;
        } else if (command == "show") {
            Show(record);
            at += 1;
        } else {
            *error = "unknown command '" + command + "'";
            return false;
        }
    }
    return true;
}

std::vector<std::string> SplitWords(const char* line)
{
    std::vector<std::string> words;
    std::string word;
    for (const char* c = line; *c != '\0'; ++c) {
        if (*c == ' ' || *c == '\t' || *c == '\n' || *c == '\r') {
            if (!word.empty())
                words.push_back(word);
            word.clear();
        } else {
            word += *c;
        }
    }
    if (!word.empty())
        words.push_back(word);
    return words;
}

// Standard-input mode: one line of commands at a time, each answered on
// standard output once it has been carried out.
int RunLines(Writer* writer)
{
    char line[1024];
    unsigned number = 0;
    while (fgets(line, sizeof line, stdin) != nullptr) {
        std::vector<std::string> words = SplitWords(line);
        if (words.empty())
            continue;
        ++number;
        std::string error;
        if (RunCommands(writer, words, &error))
            printf("ok %u\n", number);
        else
            printf("error %u: %s\n", number, error.c_str());
        fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    enum { kName = 1, kPressMs, kHelp };
    static const struct option long_options[] = {
        {"name", required_argument, nullptr, kName},
        {"press-ms", required_argument, nullptr, kPressMs},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    const char* name = kRcRawStateName;
    Writer writer;
    for (;;) {
        int option = getopt_long(argc, argv, "+", long_options, nullptr);
        if (option == -1)
            break;
        long whole = 0;
        switch (option) {
        case kName:
            name = optarg;
            continue;
        case kPressMs:
            if (!ParseToolNumber("tarnwick-rcwriter", "press-ms", optarg, 0, 3600000, &whole))
                break;
            writer.press_ms = static_cast<uint32_t>(whole);
            continue;
        case kHelp:
            Usage(stdout);
            return 0;
        default:
            break;   // getopt_long named the option
        }
        Usage(stderr);
        return kToolUsageError;
    }
    std::vector<std::string> words(argv + optind, argv + argc);
    if (words.empty()) {
        fputs("tarnwick-rcwriter: no command\n", stderr);
        Usage(stderr);
        return kToolUsageError;
    }

    bool reads_only = true;
    for (const std::string& word : words)
        reads_only = reads_only && word == "show";
    if (reads_only) {
        if (OpenForReading(&writer.rc, name) != 0) {
            fprintf(stderr, "tarnwick-rcwriter: cannot read %s: %s\n", name,
                    errno == EINVAL ? "shorter than the record" : strerror(errno));
            return 1;
        }
    } else if (tarnwick::RcWriterOpen(&writer.rc, name) != 0) {
        fprintf(stderr, "tarnwick-rcwriter: cannot map %s: %s\n", name, strerror(errno));
        return 1;
    }
    if (writer.rc.created)
        fprintf(stderr, "tarnwick-rcwriter: created %s\n", name);

    if (words.size() == 1 && words[0] == "-")
        return RunLines(&writer);
    std::string error;
    if (!RunCommands(&writer, words, &error)) {
        fprintf(stderr, "tarnwick-rcwriter: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
