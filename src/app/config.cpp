#include "app/config.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

Config config;

namespace {

const struct option kLongOptions[] = {
    {"iface", required_argument, nullptr, 'i'},
    {"port", required_argument, nullptr, 'p'},
    {"host", required_argument, nullptr, 'h'},
    {"dst-host", required_argument, nullptr, 'd'},
    {"dst-port", required_argument, nullptr, 's'},
    {"help", no_argument, nullptr, '?'},
    {"verbose", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

// Copies an option value into its text field; refuses one that does not fit.
int CopyTextOption(char* field, size_t capacity, const char* value, const char* long_name)
{
    if (strlen(value) >= capacity) {
        fprintf(stderr, "Value of --%s too long (at most %zu characters)\n", long_name, capacity - 1);
        return -1;
    }
    memcpy(field, value, strlen(value) + 1);
    return 0;
}

int32_t DecimalOption(const char* value)
{
    return static_cast<int32_t>(strtol(value, nullptr, 10));
}

}  // namespace

void SetDefaultConfig(Config* target)
{
    memset(target, 0, sizeof *target);
    strcpy(target->iface, "wifi0");
    strcpy(target->host, "192.168.2.1");
    target->port = 9004;
    strcpy(target->dst_host, "127.0.0.1");
    target->dst_port = 5000;
    target->verbose = 0;
}

void PrintUsage()
{
    fputs("DJI Pocket 2 Wi-Fi receiver\n"
          "Usage:\n"
          "-i | --iface=<interface> default wifi0\n"
          "-h | --host=<pocket2_host> default 192.168.2.1\n"
          "-p | --port=<pocket2_port> default 9004\n"
          "-d | --dst-host=<destination_host>\n"
          "-s | --dst-port=<destination_port>\n"
          "-v | --verbose\n"
          "-? | --help - show this help\n",
          stderr);
}

int ParseOptions(int argc, char** argv, Config* target)
{
    optind = 0;  // full re-initialisation, so the parser can run more than once
    for (;;) {
        int option = getopt_long(argc, argv, "i:h:p:d:s:v?", kLongOptions, nullptr);
        if (option == -1)
            return 0;
        int copied = 0;
        switch (option) {
        case 'i':
            copied = CopyTextOption(target->iface, sizeof target->iface, optarg, "iface");
            break;
        case 'h':
            copied = CopyTextOption(target->host, sizeof target->host, optarg, "host");
            break;
        case 'd':
            copied = CopyTextOption(target->dst_host, sizeof target->dst_host, optarg, "dst-host");
            break;
        case 'p':
            target->port = DecimalOption(optarg);
            break;
        case 's':
            target->dst_port = DecimalOption(optarg);
            break;
        case 'v':
            target->verbose = 1;
            break;
        case '?':
            PrintUsage();
            return 1;
        default:
            break;
        }
        if (copied != 0) {
            PrintUsage();
            return 1;
        }
    }
}
