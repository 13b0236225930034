#include "net/shared_memory.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr mode_t kObjectMode = 0600;

// The mappings the fault handler may repair. A slot is published with a
// release store after the record's base and size are set, and emptied before
// the mapping goes away.
std::atomic<SharedMapping*> registered[kSharedMappingCapacity];
struct sigaction earlier_bus_action;

// Puts other pages under a mapping's address, in place. Called straight as a
// system call: safe in the signal handler, and not seen by ThreadSanitizer,
// which would take the swap for a write racing with the threads that write
// through the mapping meanwhile. Those writes land in the old pages or in the
// new ones: either is fine for an object that another process spoilt.
bool RemapInPlace(SharedMapping* mapping, int flags, int fd)
{
#ifdef SYS_mmap2
    long result = syscall(SYS_mmap2, mapping->base, mapping->mapped_size, PROT_READ | PROT_WRITE, flags | MAP_FIXED, fd,
                          0L);
#else
    long result = syscall(SYS_mmap, mapping->base, mapping->mapped_size, PROT_READ | PROT_WRITE, flags | MAP_FIXED, fd,
                          0L);
#endif
    return result == reinterpret_cast<long>(mapping->base);
}

bool Inside(const SharedMapping* mapping, uintptr_t address)
{
    uintptr_t base = reinterpret_cast<uintptr_t>(mapping->base);
    return address >= base && address - base < mapping->mapped_size;
}

// SIGBUS: an access past the end of an object that another process shrank.
// Scratch pages go over the whole mapping so that the access, and every one
// after it, completes; the watch maps the object back. Async-signal-safe:
// mmap and atomics only.
void OnBusError(int signal_number, siginfo_t* info, void* context)
{
    uintptr_t address = reinterpret_cast<uintptr_t>(info->si_addr);
    for (std::atomic<SharedMapping*>& slot : registered) {
        SharedMapping* mapping = slot.load(std::memory_order_acquire);
        if (mapping == nullptr || !Inside(mapping, address))
            continue;
        if (!RemapInPlace(mapping, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1))
            break;
        mapping->spoilt.store(true, std::memory_order_release);
        mapping->generation.fetch_add(1, std::memory_order_acq_rel);
        return;
    }
    // Not one of ours: whoever handled it before, or the default action when
    // the access is retried on return.
    if ((earlier_bus_action.sa_flags & SA_SIGINFO) != 0 && earlier_bus_action.sa_sigaction != nullptr) {
        earlier_bus_action.sa_sigaction(signal_number, info, context);
        return;
    }
    if (earlier_bus_action.sa_handler != SIG_DFL && earlier_bus_action.sa_handler != SIG_IGN &&
        earlier_bus_action.sa_handler != nullptr) {
        earlier_bus_action.sa_handler(signal_number);
        return;
    }
    signal(SIGBUS, SIG_DFL);
}

bool InstallHandler()
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGBUS, &action, &earlier_bus_action) == 0;
}

int SizeObject(int fd, size_t size, bool reserve)
{
    if (ftruncate(fd, static_cast<off_t>(size)) != 0)
        return -1;
    if (reserve && posix_fallocate(fd, 0, static_cast<off_t>(size)) != 0)
        return -1;
    return 0;
}

size_t PageRounded(size_t size)
{
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (size + page - 1) / page * page;
}

// Gives the object behind `fd` the access the mapping recorded when first
// mapped (see the header).
void RestoreAccess(SharedMapping* mapping, int fd, const struct stat& status)
{
    bool group_differs = status.st_gid != mapping->access_group;
    bool mode_differs = (status.st_mode & 07777) != mapping->access_mode;
    if (!group_differs && !mode_differs)
        return;
    if ((group_differs && fchown(fd, static_cast<uid_t>(-1), mapping->access_group) != 0) ||
        fchmod(fd, mapping->access_mode) != 0) {
        if (!mapping->access_failed)
            fprintf(stderr, "Shared memory %s: mode %04o, group %u not restored: %s\n", mapping->name,
                    static_cast<unsigned>(mapping->access_mode), static_cast<unsigned>(mapping->access_group),
                    strerror(errno));
        mapping->access_failed = true;
        return;
    }
    mapping->access_failed = false;
}

// Puts object `fd` behind the mapping's address again, sized; the record then
// refers to it. Returns 0 or -1 (the record unchanged).
int MapAgain(SharedMapping* mapping, int fd)
{
    if (SizeObject(fd, mapping->size, mapping->reserve) != 0)
        return -1;
    struct stat status;
    if (fstat(fd, &status) != 0)
        return -1;
    RestoreAccess(mapping, fd, status);
    mapping->spoilt.store(false, std::memory_order_release);
    if (!RemapInPlace(mapping, MAP_SHARED, fd)) {
        mapping->spoilt.store(true, std::memory_order_release);
        return -1;
    }
    if (fd != mapping->fd) {
        close(mapping->fd);
        mapping->fd = fd;
    }
    mapping->device = status.st_dev;
    mapping->inode = status.st_ino;
    mapping->generation.fetch_add(1, std::memory_order_acq_rel);
    if (mapping->init != nullptr)
        mapping->init(mapping->base, mapping->size);
    return 0;
}

void SayRepairFailed(SharedMapping* mapping)
{
    if (!mapping->repair_failed)
        fprintf(stderr, "Shared memory %s cannot be restored: %s\n", mapping->name, strerror(errno));
    mapping->repair_failed = true;
}

// Returns 1 when the object was repaired.
int Repair(SharedMapping* mapping)
{
    // Replaced, or removed, under its name?
    int named = shm_open(mapping->name, O_RDWR, kObjectMode);
    bool removed = named < 0 && errno == ENOENT;
    bool replaced = false;
    struct stat status;
    if (named >= 0 && fstat(named, &status) == 0)
        replaced = status.st_dev != mapping->device || status.st_ino != mapping->inode;
    if (removed)
        named = shm_open(mapping->name, O_RDWR | O_CREAT, kObjectMode);
    if (removed || replaced) {
        if (named < 0 || MapAgain(mapping, named) != 0) {
            if (named >= 0)
                close(named);
            SayRepairFailed(mapping);
            return 0;
        }
        mapping->repair_failed = false;
        fprintf(stderr, removed ? "Shared memory %s removed, created anew\n" : "Shared memory %s replaced, mapped anew\n",
                mapping->name);
        return 1;
    }
    if (named >= 0)
        close(named);

    // Shrunk, or spoilt by a fault while it was short?
    if (fstat(mapping->fd, &status) != 0)
        return 0;
    bool shrunk = static_cast<size_t>(status.st_size) < mapping->size;
    if (!shrunk && !mapping->spoilt.load(std::memory_order_acquire))
        return 0;
    if (MapAgain(mapping, mapping->fd) != 0) {
        SayRepairFailed(mapping);
        return 0;
    }
    mapping->repair_failed = false;
    if (shrunk)
        fprintf(stderr, "Shared memory %s shrunk to %lld bytes, restored to %zu\n", mapping->name,
                static_cast<long long>(status.st_size), mapping->size);
    else
        fprintf(stderr, "Shared memory %s was cut short for a while, mapped again\n", mapping->name);
    return 1;
}

}  // namespace

int SharedMemoryMap(SharedMapping* mapping, const char* name, size_t size, bool reserve, SharedMemoryInit init,
                    SharedMemoryOpened on_opened, SharedMemoryOrigin* origin)
{
    SharedMemoryUnmap(mapping);
    static const bool handler_installed = InstallHandler();   // once, whichever thread maps first
    (void)handler_installed;

    SharedMemoryOrigin found = SharedMemoryOrigin::kOpened;
    int fd = shm_open(name, O_RDWR, kObjectMode);
    if (fd < 0) {
        found = SharedMemoryOrigin::kCreated;
        if (on_opened != nullptr)
            on_opened(found);
        fd = shm_open(name, O_RDWR | O_CREAT, kObjectMode);
    } else if (on_opened != nullptr) {
        on_opened(found);
    }
    if (origin != nullptr)
        *origin = found;
    if (fd < 0)
        return -1;
    struct stat status;
    size_t mapped_size = PageRounded(size);
    void* base = MAP_FAILED;
    if (SizeObject(fd, size, reserve) == 0 && fstat(fd, &status) == 0)
        base = mmap(nullptr, mapped_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        close(fd);
        return -1;
    }
    mapping->name = name;
    mapping->size = size;
    mapping->mapped_size = mapped_size;
    mapping->reserve = reserve;
    mapping->init = init;
    mapping->base = static_cast<uint8_t*>(base);
    mapping->fd = fd;
    mapping->device = status.st_dev;
    mapping->inode = status.st_ino;
    mapping->spoilt.store(false, std::memory_order_relaxed);
    mapping->repair_failed = false;
    mapping->access_mode = status.st_mode & 07777;
    mapping->access_group = status.st_gid;
    mapping->access_failed = false;
    bool registered_now = false;
    for (std::atomic<SharedMapping*>& slot : registered) {
        SharedMapping* empty = nullptr;
        if (slot.compare_exchange_strong(empty, mapping, std::memory_order_acq_rel)) {
            registered_now = true;
            break;
        }
    }
    if (!registered_now) {
        munmap(base, mapped_size);
        close(fd);
        mapping->base = nullptr;
        mapping->fd = -1;
        return -1;
    }
    if (init != nullptr)
        init(mapping->base, size);
    return 0;
}

void SharedMemoryUnmap(SharedMapping* mapping)
{
    if (mapping->base == nullptr)
        return;
    for (std::atomic<SharedMapping*>& slot : registered)
        if (slot.load(std::memory_order_relaxed) == mapping)
            slot.store(nullptr, std::memory_order_release);
    munmap(mapping->base, mapping->mapped_size);
    close(mapping->fd);
    mapping->base = nullptr;
    mapping->fd = -1;
    mapping->generation.fetch_add(1, std::memory_order_acq_rel);
}

int SharedMemoryWatch()
{
    int repaired = 0;
    for (std::atomic<SharedMapping*>& slot : registered) {
        SharedMapping* mapping = slot.load(std::memory_order_acquire);
        if (mapping != nullptr)
            repaired += Repair(mapping);
    }
    return repaired;
}

bool SharedMemoryUsable(const SharedMapping* mapping)
{
    return mapping->base != nullptr && !mapping->spoilt.load(std::memory_order_acquire);
}
