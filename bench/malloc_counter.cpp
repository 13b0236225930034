// tarnwick-malloc-counter.so: counts heap allocations of a program run with
//
//   LD_PRELOAD=build/bench/tarnwick-malloc-counter.so TARNWICK_MALLOC_COUNT_FILE=<file> program
//
// Every malloc, calloc, realloc, memalign, posix_memalign, aligned_alloc and
// valloc (and so every operator new) adds one to a 64-bit counter kept in the
// named file, mapped shared, so that another process (the benchmark) reads
// the count at any moment, also of a program that never exits. free is not
// counted. Allocations before the file is mapped (the loader's) are carried
// over into it.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

uint64_t early_count = 0;
uint64_t* counter = &early_count;

inline void Count()
{
    __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}

__attribute__((constructor)) void MapCounter()
{
    const char* path = getenv("TARNWICK_MALLOC_COUNT_FILE");
    if (path == nullptr)
        return;
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    void* mapping = MAP_FAILED;
    if (ftruncate(fd, sizeof(uint64_t)) == 0)
        mapping = mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED)
        return;
    uint64_t* shared = static_cast<uint64_t*>(mapping);
    __atomic_store_n(shared, __atomic_load_n(&early_count, __ATOMIC_RELAXED), __ATOMIC_RELAXED);
    counter = shared;   // still one thread: constructors run before main
}

}  // namespace

extern "C" {

void* malloc(size_t size)
{
    Count();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    Count();
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, size_t size)
{
    Count();
    return __libc_realloc(pointer, size);
}

void* memalign(size_t alignment, size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size)
{
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    Count();
    void* pointer = __libc_memalign(alignment, size);
    if (pointer == nullptr)
        return ENOMEM;
    *out = pointer;
    return 0;
}

void* valloc(size_t size)
{
    Count();
    return __libc_memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
}

}  // extern "C"
