#pragma once
// What every tool does with its command line: --help prints the usage on
// standard output and ends with 0; an unknown option, a missing value or a
// malformed number is named on standard error, followed by the usage, and
// ends with 2.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

constexpr int kToolUsageError = 2;
// What a tool's option parser returns: go on, or end with this status.
constexpr int kToolOptionsOk = -1;

// A whole decimal number from `min` to `max`; otherwise says so, naming the
// tool and the option, and returns false.
inline bool ParseToolNumber(const char* tool, const char* option, const char* text, long min, long max, long* value)
{
    char* end = nullptr;
    errno = 0;
    long number = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno == ERANGE || number < min || number > max) {
        fprintf(stderr, "%s: --%s: '%s' is not a number from %ld to %ld\n", tool, option, text, min, max);
        return false;
    }
    *value = number;
    return true;
}

// After the options: true when nothing else is on the command line; otherwise
// names what is there.
inline bool ToolArgumentsDone(const char* tool, int argc, char** argv, int next)
{
    if (next >= argc)
        return true;
    fprintf(stderr, "%s: unexpected argument '%s'\n", tool, argv[next]);
    return false;
}
