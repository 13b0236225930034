#pragma once
// POSIX shared-memory objects that other processes share with the relay: the
// video ring, the transcoding region, "/shared_camstate" and "/shared_rc_raw"
// all go through this one module (open, size, map), with one policy for a
// mapping that another process spoils.
//
// Other processes may at any moment shrink an object (ftruncate, even to 0),
// or unlink it and create another under the same name. The policy:
// - No access through a mapping ever faults. Pages past the end of a shrunk
//   object raise SIGBUS; the handler installed here maps anonymous zero pages
//   over the whole mapping, at the same address, marks the object spoilt and
//   returns, so the access completes against scratch memory. Pointers into a
//   mapping therefore stay valid for the life of the process and no thread
//   that writes through one (the camera receive thread) ever waits or checks.
//   A SIGBUS outside every mapping is not ours: the default action follows.
// - SharedMemoryWatch, called about once a second (the main thread's idle
//   loop), repairs: an object found shorter than its size (or spoilt by a
//   fault) is set back to its size as at start-up and mapped again at the same
//   address; one replaced under its name (another device or inode behind the
//   name) is opened, sized and mapped anew at the same address; one removed
//   and not re-created is created anew, as start-up does. Each event is said
//   once on standard error, and the object's initialiser runs as at start-up.
// - An object's access stays what it was when first mapped. The relay creates
//   an object with mode 0600 only when none is there; when the board made it
//   ahead (tmpfiles.d: the group of the main application, 0660), an object
//   made anew or found replaced gets that mode and group back (fchmod as its
//   owner, fchown to a group the relay is in: no capability needed). When that
//   fails it is said once: "Shared memory NAME: mode MODE, group GID not
//   restored: REASON".
// - Readers that must not act on scratch or half-restored content (the
//   remote-control cycle) compare SharedMemoryGeneration before and after they
//   copy, and treat a spoilt object as unusable.
//
// Threads: SharedMemoryMap, SharedMemoryUnmap and SharedMemoryWatch run on
// one thread at a time (start-up, then the main thread's idle loop; tests).
// Any thread may read through a mapping and call SharedMemoryUsable and
// SharedMemoryGeneration (atomics). The signal handler touches only atomics.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Fills an object's content as at start-up (for example the ring's clear
// request). Runs on the thread that maps or repairs the object; may be null.
using SharedMemoryInit = void (*)(uint8_t* base, size_t size);

struct SharedMapping {
    const char* name = nullptr;
    size_t size = 0;                     // the object's size
    size_t mapped_size = 0;              // size rounded up to whole pages
    bool reserve = false;                // also reserve the memory (posix_fallocate)
    SharedMemoryInit init = nullptr;
    uint8_t* base = nullptr;             // fixed while mapped
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    std::atomic<bool> spoilt{false};     // a fault found it short; scratch pages are mapped
    std::atomic<uint32_t> generation{0}; // changes whenever the content behind `base` may have changed
    bool repair_failed = false;          // the last repair failed (said once)
    mode_t access_mode = 0;              // permission bits and group when first mapped, given back on repair
    gid_t access_group = 0;
    bool access_failed = false;          // giving them back failed (said once)
};

// How SharedMemoryMap found the object.
enum class SharedMemoryOrigin { kOpened, kCreated };
// Told how the object was found, right after it is opened and before it is
// sized (callers that say so on standard error); may be null.
using SharedMemoryOpened = void (*)(SharedMemoryOrigin origin);

// Opens `name` read-write (creating it, mode 0600, when it does not exist),
// sizes it to `size` (and reserves its memory when `reserve`), maps it shared
// and registers it for the fault handler and the watch; then runs `init`.
// Returns 0, or -1 (nothing left open) when any step fails; `origin` (may be
// null) says whether the object was there. At most kSharedMappingCapacity at
// once.
int SharedMemoryMap(SharedMapping* mapping, const char* name, size_t size, bool reserve, SharedMemoryInit init,
                    SharedMemoryOpened on_opened, SharedMemoryOrigin* origin);

// Unregisters, unmaps and closes (a no-op when not mapped).
void SharedMemoryUnmap(SharedMapping* mapping);

// Checks every registered object and repairs what another process did to it
// (see above). Returns the number of objects repaired.
int SharedMemoryWatch();

// True while the mapping shows the object itself (mapped, and not spoilt).
bool SharedMemoryUsable(const SharedMapping* mapping);

// Changes whenever the content behind the mapping may have been replaced.
inline uint32_t SharedMemoryGeneration(const SharedMapping* mapping)
{
    return mapping->generation.load(std::memory_order_acquire);
}

constexpr size_t kSharedMappingCapacity = 8;
