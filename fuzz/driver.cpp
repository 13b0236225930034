// A stand-in for libFuzzer where it is not available: replays every file of
// the seed folder, then feeds the target a fixed number of mutated inputs
// (byte flips, inserted and removed runs, splices of two seeds), with a fixed
// random seed so that a failure repeats. Usage: <target> [iterations] [seed dir]
// The target's own initialisation puts the process in a world of its own.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::vector<uint8_t>> ReadSeeds(const char* folder)
{
    std::vector<std::vector<uint8_t>> seeds;
    DIR* directory = folder != nullptr ? opendir(folder) : nullptr;
    if (directory == nullptr)
        return seeds;
    while (struct dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.')
            continue;
        std::string path = std::string(folder) + "/" + entry->d_name;
        FILE* file = fopen(path.c_str(), "rb");
        if (file == nullptr)
            continue;
        std::vector<uint8_t> bytes;
        int byte;
        while ((byte = fgetc(file)) != EOF)
            bytes.push_back(static_cast<uint8_t>(byte));
        fclose(file);
        seeds.push_back(bytes);
    }
    closedir(directory);
    return seeds;
}

uint32_t state = 0x2545f491;
uint32_t Random()
{
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

void Mutate(std::vector<uint8_t>& input, const std::vector<std::vector<uint8_t>>& seeds)
{
    int steps = 1 + static_cast<int>(Random() % 8);
    for (int i = 0; i < steps; ++i) {
        size_t size = input.size();
        switch (Random() % 6) {
        case 0:
            if (size > 0)
                input[Random() % size] ^= static_cast<uint8_t>(1u << (Random() % 8));
            break;
        case 1:
            if (size > 0)
                input[Random() % size] = static_cast<uint8_t>(Random());
            break;
        case 2: {
            static const uint8_t kInteresting[] = {0x00, 0x01, 0x02, 0x04, 0x0d, 0x55, 0x7f, 0x80, 0xff};
            if (size > 0)
                input[Random() % size] = kInteresting[Random() % sizeof kInteresting];
            break;
        }
        case 3:
            input.insert(input.begin() + (size ? Random() % size : 0), 1 + Random() % 16,
                         static_cast<uint8_t>(Random()));
            break;
        case 4:
            if (size > 1) {
                size_t at = Random() % size;
                input.erase(input.begin() + at, input.begin() + std::min(size, at + 1 + Random() % 16));
            }
            break;
        case 5:
            if (!seeds.empty()) {
                const std::vector<uint8_t>& other = seeds[Random() % seeds.size()];
                size_t keep = size ? Random() % size : 0;
                input.resize(keep);
                if (!other.empty())
                    input.insert(input.end(), other.begin() + Random() % other.size(), other.end());
            }
            break;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    long iterations = argc > 1 ? atol(argv[1]) : 10000;
    std::vector<std::vector<uint8_t>> seeds = ReadSeeds(argc > 2 ? argv[2] : nullptr);
    seeds.push_back({});
    // Diagnostics of the code under test are not what is being checked.
    if (freopen("/dev/null", "w", stderr) == nullptr)
        return 1;
    for (const std::vector<uint8_t>& seed : seeds)
        LLVMFuzzerTestOneInput(seed.data(), seed.size());
    std::vector<uint8_t> input;
    for (long i = 0; i < iterations; ++i) {
        if (i % 64 == 0 || input.size() > 20000)
            input = seeds[Random() % seeds.size()];
        Mutate(input, seeds);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    printf("%ld inputs, %zu seeds: no fault\n", iterations, seeds.size());
    return 0;
}
