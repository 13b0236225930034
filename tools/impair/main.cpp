// tarnwick-impair: a lossy Wi-Fi link between two network namespaces, for
// tests and the soak. The kernel here has no netem, so the link is two TUN
// devices, one in each namespace, and this program carries every IP packet
// from one to the other in user space, applying netem's rules on the way:
// loss, delay with jitter, reordering, duplication, and outages. The rules
// hold in both directions; the random numbers come from --seed, so a run can
// be repeated.
//
//   ip netns add relay; ip netns add camera
//   tarnwick-impair --a=relay:192.168.2.10/24 --b=camera:192.168.2.1/24 --loss=20 --delay=30 --jitter=20
//
// Each side's device (--device, default "imp0") gets the address and is up
// when "impair ready" is printed; both go when the program ends (they are not
// persistent). Commands on standard input, one a line: "outage MS" (nothing
// passes for MS milliseconds), "loss PCT", "delay MS", "jitter MS",
// "reorder PCT", "duplicate PCT", "stats", "quit". "stats", SIGTERM and the
// end print one line a direction:
//   a>b in=N delivered=N lost=N outage=N duplicated=N reordered=N overflow=N
// (in: packets read; lost: dropped by the loss rule; outage: dropped in an
// outage; overflow: too large or no room; delivered counts duplicates too).
//
// As in netem, "reorder PCT" sends that share of packets at once and delays
// the rest; jitter alone reorders too, as packets overtake each other.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "tool_options.h"

namespace {

constexpr const char* kTool = "tarnwick-impair";
constexpr size_t kMaxPacket = 65536;
// Packets in flight live in a fixed pool, so the program's memory stays flat
// however long it runs: a slot holds a packet of the devices' MTU (1500); a
// larger one, or one that finds the pool full, is dropped ("overflow").
constexpr size_t kSlotBytes = 2048;
constexpr size_t kSlotCount = 8192;

struct Rules {
    double loss = 0;        // percent
    double delay_ms = 0;
    double jitter_ms = 0;   // delay is uniform in delay ± jitter, never below 0
    double reorder = 0;     // percent sent at once, the rest delayed
    double duplicate = 0;   // percent sent twice
};

struct Side {
    std::string netns;
    std::string address;    // CIDR
    int tun = -1;
};

struct Counts {
    uint64_t in = 0, delivered = 0, lost = 0, outage = 0, duplicated = 0, reordered = 0, overflow = 0;
};

struct Pending {
    int64_t due_us;
    uint64_t order;         // ties leave in the order they came
    int to;                 // side index
    uint32_t slot;          // in the pool
    uint32_t length;
    bool operator>(const Pending& other) const
    {
        return due_us != other.due_us ? due_us > other.due_us : order > other.order;
    }
};

struct Pool {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(kSlotBytes * kSlotCount);
    std::vector<uint32_t> free_slots;
    Pool()
    {
        for (uint32_t slot = kSlotCount; slot-- > 0;)
            free_slots.push_back(slot);
    }
    uint8_t* At(uint32_t slot) { return bytes.data() + size_t{slot} * kSlotBytes; }
};

Rules rules;
Side sides[2];
Counts counts[2];           // by the side the packet came from
const char* device = "imp0";
uint64_t seed = 1;
int64_t outage_until_us = 0;
volatile sig_atomic_t stopping = 0;

int64_t NowUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void Usage(FILE* out)
{
    fputs("Usage: tarnwick-impair --a=NETNS:ADDR/PREFIX --b=NETNS:ADDR/PREFIX [options]\n"
          "  --device=<name>     TUN device name in both namespaces (default imp0)\n"
          "  --seed=<n>          random seed (default 1)\n"
          "  --loss=<pct>        packets dropped\n"
          "  --delay=<ms>        delay of every packet\n"
          "  --jitter=<ms>       delay varies uniformly by up to this much\n"
          "  --reorder=<pct>     packets sent at once, overtaking the delayed ones\n"
          "  --duplicate=<pct>   packets sent twice\n"
          "  --help              this text\n"
          "Commands on stdin: outage MS | loss PCT | delay MS | jitter MS | reorder PCT | duplicate PCT | stats | quit\n",
          out);
}

bool ParseSide(const char* text, Side* side)
{
    const char* colon = strchr(text, ':');
    if (colon == nullptr || colon == text || strchr(colon, '/') == nullptr)
        return false;
    side->netns.assign(text, colon);
    side->address = colon + 1;
    return true;
}

bool ParsePercentOrMs(const char* option, const char* text, double* value)
{
    long number = 0;
    if (!ParseToolNumber(kTool, option, text, 0, 100000, &number))
        return false;
    *value = static_cast<double>(number);
    return true;
}

int Run(const std::vector<std::string>& command)
{
    pid_t child = fork();
    if (child == 0) {
        std::vector<char*> arguments;
        for (const std::string& word : command)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Makes the TUN device inside the side's namespace (a device belongs to the
// namespace of the thread that creates it) and gives it its address.
bool OpenSide(Side* side, int home)
{
    std::string path = "/run/netns/" + side->netns;
    int ns = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (ns < 0 || setns(ns, CLONE_NEWNET) != 0) {
        fprintf(stderr, "%s: cannot enter %s: %s\n", kTool, path.c_str(), strerror(errno));
        return false;
    }
    close(ns);
    side->tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    struct ifreq request;
    memset(&request, 0, sizeof request);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    snprintf(request.ifr_name, sizeof request.ifr_name, "%s", device);
    bool made = side->tun >= 0 && ioctl(side->tun, TUNSETIFF, &request) == 0;
    int error = errno;
    setns(home, CLONE_NEWNET);
    if (!made) {
        fprintf(stderr, "%s: cannot make %s in %s: %s\n", kTool, device, side->netns.c_str(), strerror(error));
        return false;
    }
    if (Run({"ip", "-n", side->netns, "addr", "add", side->address, "dev", device}) != 0 ||
        Run({"ip", "-n", side->netns, "link", "set", device, "up"}) != 0) {
        fprintf(stderr, "%s: cannot set %s up in %s\n", kTool, device, side->netns.c_str());
        return false;
    }
    return true;
}

void PrintCounts()
{
    for (int from = 0; from < 2; ++from) {
        const Counts& c = counts[from];
        printf("%s in=%llu delivered=%llu lost=%llu outage=%llu duplicated=%llu reordered=%llu overflow=%llu\n",
               from == 0 ? "a>b" : "b>a", static_cast<unsigned long long>(c.in),
               static_cast<unsigned long long>(c.delivered), static_cast<unsigned long long>(c.lost),
               static_cast<unsigned long long>(c.outage), static_cast<unsigned long long>(c.duplicated),
               static_cast<unsigned long long>(c.reordered), static_cast<unsigned long long>(c.overflow));
    }
    fflush(stdout);
}

// One command line from standard input; false for "quit".
bool Command(const char* line)
{
    char word[32];
    double value = 0;
    int fields = sscanf(line, "%31s %lf", word, &value);
    if (fields < 1)
        return true;
    std::string name = word;
    if (name == "quit")
        return false;
    if (name == "stats") {
        PrintCounts();
        return true;
    }
    if (fields != 2 || value < 0) {
        fprintf(stderr, "%s: not a command: %s\n", kTool, line);
        return true;
    }
    if (name == "outage")
        outage_until_us = NowUs() + static_cast<int64_t>(value * 1000);
    else if (name == "loss")
        rules.loss = value;
    else if (name == "delay")
        rules.delay_ms = value;
    else if (name == "jitter")
        rules.jitter_ms = value;
    else if (name == "reorder")
        rules.reorder = value;
    else if (name == "duplicate")
        rules.duplicate = value;
    else
        fprintf(stderr, "%s: not a command: %s\n", kTool, line);
    return true;
}

void Stop(int)
{
    stopping = 1;
}

}  // namespace

int main(int argc, char** argv)
{
    enum { kA = 1, kB, kDevice, kSeed, kLoss, kDelay, kJitter, kReorder, kDuplicate, kHelp };
    static const struct option options[] = {
        {"a", required_argument, nullptr, kA},           {"b", required_argument, nullptr, kB},
        {"device", required_argument, nullptr, kDevice}, {"seed", required_argument, nullptr, kSeed},
        {"loss", required_argument, nullptr, kLoss},     {"delay", required_argument, nullptr, kDelay},
        {"jitter", required_argument, nullptr, kJitter}, {"reorder", required_argument, nullptr, kReorder},
        {"duplicate", required_argument, nullptr, kDuplicate}, {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    bool ok = true;
    long number = 0;
    for (int option; ok && (option = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (option) {
        case kA: ok = ParseSide(optarg, &sides[0]); break;
        case kB: ok = ParseSide(optarg, &sides[1]); break;
        case kDevice: device = optarg; ok = strlen(optarg) < IFNAMSIZ; break;
        case kSeed:
            ok = ParseToolNumber(kTool, "seed", optarg, 0, 2147483647, &number);
            seed = static_cast<uint64_t>(number);
            break;
        case kLoss: ok = ParsePercentOrMs("loss", optarg, &rules.loss); break;
        case kDelay: ok = ParsePercentOrMs("delay", optarg, &rules.delay_ms); break;
        case kJitter: ok = ParsePercentOrMs("jitter", optarg, &rules.jitter_ms); break;
        case kReorder: ok = ParsePercentOrMs("reorder", optarg, &rules.reorder); break;
        case kDuplicate: ok = ParsePercentOrMs("duplicate", optarg, &rules.duplicate); break;
        case kHelp: Usage(stdout); return 0;
        default: ok = false; break;
        }
    }
    if (!ok || sides[0].netns.empty() || sides[1].netns.empty() || !ToolArgumentsDone(kTool, argc, argv, optind)) {
        Usage(stderr);
        return kToolUsageError;
    }

    int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home < 0 || !OpenSide(&sides[0], home) || !OpenSide(&sides[1], home))
        return 1;
    signal(SIGTERM, Stop);
    signal(SIGINT, Stop);
    signal(SIGPIPE, SIG_IGN);
    fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK);
    printf("impair ready\n");
    fflush(stdout);

    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> percent(0.0, 100.0);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    std::vector<Pending> queue_storage;
    queue_storage.reserve(kSlotCount);
    std::priority_queue<Pending, std::vector<Pending>, std::greater<Pending>> queue(std::greater<Pending>(),
                                                                                 std::move(queue_storage));
    Pool pool;
    uint64_t order = 0;
    std::vector<uint8_t> packet(kMaxPacket);
    std::string input;
    bool input_open = true;

    while (!stopping) {
        int64_t now = NowUs();
        while (!queue.empty() && queue.top().due_us <= now) {
            const Pending& next = queue.top();
            // A full device queue drops the packet, as a radio would.
            if (write(sides[next.to].tun, pool.At(next.slot), next.length) > 0)
                ++counts[1 - next.to].delivered;
            pool.free_slots.push_back(next.slot);
            queue.pop();
        }
        int timeout_ms = 100;
        if (!queue.empty())
            timeout_ms = static_cast<int>((queue.top().due_us - now + 999) / 1000);
        struct pollfd waits[3] = {{sides[0].tun, POLLIN, 0}, {sides[1].tun, POLLIN, 0},
                                  {input_open ? STDIN_FILENO : -1, POLLIN, 0}};
        if (poll(waits, 3, timeout_ms) < 0 && errno != EINTR)
            break;
        for (int from = 0; from < 2; ++from) {
            if (!(waits[from].revents & POLLIN))
                continue;
            // Up to 64 packets a turn, so that one busy side cannot starve the other.
            for (int turn = 0; turn < 64; ++turn) {
                ssize_t length = read(sides[from].tun, packet.data(), packet.size());
                if (length <= 0)
                    break;
                Counts& c = counts[from];
                ++c.in;
                now = NowUs();
                if (now < outage_until_us) {
                    ++c.outage;
                    continue;
                }
                if (rules.loss > 0 && percent(random) < rules.loss) {
                    ++c.lost;
                    continue;
                }
                int copies = 1;
                if (rules.duplicate > 0 && percent(random) < rules.duplicate) {
                    copies = 2;
                    ++c.duplicated;
                }
                for (int copy = 0; copy < copies; ++copy) {
                    if (static_cast<size_t>(length) > kSlotBytes || pool.free_slots.empty()) {
                        ++c.overflow;
                        continue;
                    }
                    uint32_t slot = pool.free_slots.back();
                    pool.free_slots.pop_back();
                    memcpy(pool.At(slot), packet.data(), static_cast<size_t>(length));
                    int64_t delay_us = 0;
                    if (rules.reorder > 0 && percent(random) < rules.reorder) {
                        ++c.reordered;
                    } else {
                        double ms = rules.delay_ms + rules.jitter_ms * unit(random);
                        delay_us = ms > 0 ? static_cast<int64_t>(ms * 1000) : 0;
                    }
                    queue.push(Pending{now + delay_us, order++, 1 - from, slot, static_cast<uint32_t>(length)});
                }
            }
        }
        if (waits[2].revents & (POLLIN | POLLHUP)) {
            char bytes[256];
            ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
            if (count <= 0) {
                input_open = count < 0 && errno == EAGAIN;
            } else {
                input.append(bytes, static_cast<size_t>(count));
                for (size_t end; (end = input.find('\n')) != std::string::npos;) {
                    std::string line = input.substr(0, end);
                    input.erase(0, end + 1);
                    if (!Command(line.c_str()))
                        stopping = 1;
                }
            }
        }
    }
    PrintCounts();
    return 0;
}
