// The small shared records and files: gimbal attitude, remote control,
// live resolution.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstdlib>

#include "new_record.h"
#include "tarnwickclient/client.h"

using namespace tarnwick::wire;

namespace tarnwick {
namespace {

// The relay's resolution files are written from a parameter-set walk that
// checks no range; anything outside this is not a picture size.
constexpr long kSmallestSide = 16;
constexpr long kLargestSide = 16384;

bool ReadSide(const char* path, int* side)
{
    FILE* file = fopen(path, "re");
    if (file == nullptr)
        return false;
    char text[16] = {};
    size_t length = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (length == 0 || end == text || *end != '\0' || value < kSmallestSide || value > kLargestSide)
        return false;
    *side = static_cast<int>(value);
    return true;
}

}  // namespace

int RcWriterOpen(RcWriter* writer, const char* name)
{
    RcWriterClose(writer);
    int fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
    writer->created = fd < 0;
    if (fd < 0)
        fd = shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    struct stat status;
    if (fstat(fd, &status) != 0 ||
        (status.st_size < static_cast<off_t>(kRcRawStateSize) && ftruncate(fd, kRcRawStateSize) != 0)) {
        close(fd);
        return -1;
    }
    void* mapping = mmap(nullptr, kRcRawStateSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED) {
        close(fd);
        return -1;
    }
    writer->fd = fd;
    writer->record = static_cast<uint8_t*>(mapping);
    return 0;
}

void RcWriterClose(RcWriter* writer)
{
    if (writer->record != nullptr)
        munmap(writer->record, kRcRawStateSize);
    if (writer->fd >= 0)
        close(writer->fd);
    writer->record = nullptr;
    writer->fd = -1;
}

// Values and flags sit naturally aligned in a page-aligned mapping: each is
// stored whole, so the relay never reads half a double.
int RcWriterSetValue(RcWriter* writer, unsigned slot, double value)
{
    if (writer->record == nullptr || slot >= kRcSlotCount)
        return -1;
    uint64_t bits;
    memcpy(&bits, &value, sizeof bits);
    __atomic_store_n(reinterpret_cast<uint64_t*>(writer->record + kRcSlotValueOffset + 8 * slot), bits,
                     __ATOMIC_RELEASE);
    return 0;
}

int RcWriterSetFlag(RcWriter* writer, unsigned slot, uint16_t flag)
{
    if (writer->record == nullptr || slot >= kRcSlotCount)
        return -1;
    __atomic_store_n(reinterpret_cast<uint16_t*>(writer->record + kRcSlotFlagOffset + 2 * slot), flag,
                     __ATOMIC_RELEASE);
    return 0;
}

double RcWriterValue(const RcWriter* writer, unsigned slot)
{
    if (writer->record == nullptr || slot >= kRcSlotCount)
        return 0.0;
    uint64_t bits = __atomic_load_n(reinterpret_cast<const uint64_t*>(writer->record + kRcSlotValueOffset + 8 * slot),
                                    __ATOMIC_ACQUIRE);
    double value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

uint16_t RcWriterFlag(const RcWriter* writer, unsigned slot)
{
    if (writer->record == nullptr || slot >= kRcSlotCount)
        return 0;
    return __atomic_load_n(reinterpret_cast<const uint16_t*>(writer->record + kRcSlotFlagOffset + 2 * slot),
                           __ATOMIC_ACQUIRE);
}

}  // namespace tarnwick

struct tarnwick_rc {
    tarnwick::RcWriter writer;
};

extern "C" {

int tarnwick_read_attitude(int16_t attitude[3])
{
    int fd = shm_open(kSharedAttitudeName, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct stat status;
    void* mapping = MAP_FAILED;
    if (fstat(fd, &status) == 0 && status.st_size >= static_cast<off_t>(kSharedAttitudeSize))
        mapping = mmap(nullptr, kSharedAttitudeSize, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED)
        return -1;
    // Each angle is stored whole by the relay; three loads, not one record.
    const int16_t* angles = static_cast<const int16_t*>(mapping);
    for (int i = 0; i < 3; ++i)
        attitude[i] = __atomic_load_n(&angles[i], __ATOMIC_RELAXED);
    munmap(mapping, kSharedAttitudeSize);
    return 0;
}

tarnwick_rc* tarnwick_rc_open(const char* name)
{
    tarnwick_rc* rc = NewRecord<tarnwick_rc>();
    if (rc == nullptr)
        return nullptr;
    if (tarnwick::RcWriterOpen(&rc->writer, name != nullptr ? name : kRcRawStateName) != 0) {
        free(rc);
        return nullptr;
    }
    return rc;
}

void tarnwick_rc_close(tarnwick_rc* rc)
{
    if (rc == nullptr)
        return;
    tarnwick::RcWriterClose(&rc->writer);
    free(rc);
}

int tarnwick_rc_set_value(tarnwick_rc* rc, unsigned slot, double value)
{
    return tarnwick::RcWriterSetValue(&rc->writer, slot, value);
}

int tarnwick_rc_set_flag(tarnwick_rc* rc, unsigned slot, uint16_t flag)
{
    return tarnwick::RcWriterSetFlag(&rc->writer, slot, flag);
}

int tarnwick_read_resolution(int* width, int* height)
{
    // The two files are rewritten one after the other: a width that changed
    // while the height was read may belong to another size; read again.
    int w = 0, h = 0, w_again = 0;
    for (int attempt = 0;; ++attempt) {
        if (!tarnwick::ReadSide(kVideoWidthPath, &w) || !tarnwick::ReadSide(kVideoHeightPath, &h) ||
            !tarnwick::ReadSide(kVideoWidthPath, &w_again))
            return -1;
        if (w == w_again || attempt == 2)
            break;
    }
    *width = w;
    *height = h;
    return 0;
}

}  // extern "C"
