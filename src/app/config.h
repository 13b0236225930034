#pragma once
#include <cstdint>

// Text capacities include the terminator.
constexpr int kIfaceCapacity = 10;
constexpr int kHostCapacity = 22;
constexpr int kDstHostCapacity = 20;

// Process-wide configuration from defaults and the command line. Written by
// start-up alone, before any other thread exists; only read afterwards.
struct Config {
    char iface[kIfaceCapacity];
    char host[kHostCapacity];
    int32_t port;
    char dst_host[kDstHostCapacity];
    int32_t dst_port;
    uint8_t verbose;
};
extern Config config;

// Zeroes the record and writes the defaults.
void SetDefaultConfig(Config* target);

// Fills the record from the command line. Returns 0, or 1 after the usage
// text for help, an unknown option, a missing value or a value too long.
//
// A value longer than its field (9, 21 and 19 characters for the interface,
// camera host and destination host) is refused rather than cut: a host cut
// short is a different address, and the service would talk to it silently.
// The refusal names the option before the usage text. An unknown option or a
// missing value is named by getopt_long's own diagnostic, which is kept
// before the usage text for the same reason.
int ParseOptions(int argc, char** argv, Config* target);

// The usage text, on standard error.
void PrintUsage();
