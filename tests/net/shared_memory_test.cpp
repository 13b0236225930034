// The shared-memory module against another "process" (this test, through its own descriptors): an object cut short
// under a thread that writes through the mapping, one removed, one replaced. Sizes and contents are read back with
// pread, never through a mapping of the test's own.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

#include "net/shared_memory.h"

namespace {

constexpr size_t kSize = 3 * 4096 + 100;

std::atomic<int> init_calls{0};
void MarkFirstByte(uint8_t* base, size_t)
{
    base[0] = 0x5a;
    ++init_calls;
}

struct ObjectView {
    explicit ObjectView(const std::string& name) : name(name) {}
    ~ObjectView() { shm_unlink(name.c_str()); }
    off_t Size() const
    {
        int fd = shm_open(name.c_str(), O_RDONLY, 0);
        struct stat status;
        off_t size = fd >= 0 && fstat(fd, &status) == 0 ? status.st_size : -1;
        if (fd >= 0)
            close(fd);
        return size;
    }
    int Byte(off_t offset) const
    {
        int fd = shm_open(name.c_str(), O_RDONLY, 0);
        uint8_t byte = 0;
        bool read = fd >= 0 && pread(fd, &byte, 1, offset) == 1;
        if (fd >= 0)
            close(fd);
        return read ? byte : -1;
    }
    // Permission bits and group, or -1.
    std::pair<int, long> Access() const
    {
        struct stat status;
        int fd = shm_open(name.c_str(), O_RDONLY, 0);
        bool found = fd >= 0 && fstat(fd, &status) == 0;
        if (fd >= 0)
            close(fd);
        return found ? std::make_pair(static_cast<int>(status.st_mode & 07777), static_cast<long>(status.st_gid))
                     : std::make_pair(-1, -1L);
    }
    void Truncate(off_t size) const
    {
        int fd = shm_open(name.c_str(), O_RDWR, 0);
        ASSERT_TRUE(fd >= 0 && ftruncate(fd, size) == 0);
        close(fd);
    }
    std::string name;
};

TEST(SharedMemory, CutShortUnderAWriterThenRemovedThenReplaced)
{
    ObjectView object("/tarnwick-shm-test-" + std::to_string(getpid()));
    SharedMapping mapping;
    SharedMemoryOrigin origin = SharedMemoryOrigin::kOpened;
    ASSERT_EQ(SharedMemoryMap(&mapping, object.name.c_str(), kSize, false, MarkFirstByte, nullptr, &origin), 0);
    EXPECT_EQ(origin, SharedMemoryOrigin::kCreated);
    EXPECT_EQ(object.Size(), static_cast<off_t>(kSize));
    EXPECT_EQ(object.Access().first, 0600) << "created by the relay: its owner only";
    EXPECT_EQ(object.Byte(0), 0x5a);
    uint8_t* const base = mapping.base;
    EXPECT_EQ(SharedMemoryWatch(), 0) << "nothing to repair";

    // A writer thread goes on through the mapping while the object is cut to nothing: no fault.
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint8_t value = 0; !stop.load(); ++value)
            memset(base + 1, value, kSize - 1);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const uint32_t before = SharedMemoryGeneration(&mapping);
    object.Truncate(0);
    while (SharedMemoryUsable(&mapping))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_NE(SharedMemoryGeneration(&mapping), before);
    EXPECT_EQ(object.Size(), 0);
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_TRUE(SharedMemoryUsable(&mapping));
    EXPECT_EQ(object.Size(), static_cast<off_t>(kSize));
    EXPECT_EQ(object.Byte(0), 0x5a) << "the initialiser ran again";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_NE(object.Byte(kSize - 1), 0) << "the writer reaches the object again";
    stop = true;
    writer.join();
    EXPECT_EQ(mapping.base, base);

    // Shrunk but never touched: found by its size.
    object.Truncate(10);
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_EQ(object.Size(), static_cast<off_t>(kSize));

    // Removed: created anew, once.
    ASSERT_EQ(shm_unlink(object.name.c_str()), 0);
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_EQ(SharedMemoryWatch(), 0);
    EXPECT_EQ(object.Size(), static_cast<off_t>(kSize));
    base[kSize - 1] = 0x77;
    EXPECT_EQ(object.Byte(kSize - 1), 0x77);

    // Replaced by another, too short: mapped anew at the same address, sized.
    ASSERT_EQ(shm_unlink(object.name.c_str()), 0);
    int other = shm_open(object.name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_TRUE(other >= 0 && ftruncate(other, 5) == 0);
    close(other);
    const int calls = init_calls.load();
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_EQ(init_calls.load(), calls + 1);
    EXPECT_EQ(object.Size(), static_cast<off_t>(kSize));
    base[kSize - 2] = 0x66;
    EXPECT_EQ(object.Byte(kSize - 2), 0x66);
    EXPECT_EQ(object.Byte(0), 0x5a);
    // Repaired, it is left alone: no second remap, no second start-up fill (for the ring: a clear request).
    EXPECT_EQ(SharedMemoryWatch(), 0);
    EXPECT_EQ(SharedMemoryWatch(), 0);
    EXPECT_EQ(init_calls.load(), calls + 1);

    SharedMemoryUnmap(&mapping);
    EXPECT_EQ(SharedMemoryWatch(), 0);
}

// The board makes the object ahead with a group's access (tmpfiles.d, 0660): the relay keeps it, and gives it back to
// an object it must make anew or finds replaced by one of the relay's own default access.
TEST(SharedMemory, AnObjectMadeAheadKeepsItsGroupAccessThroughRepairs)
{
    ObjectView object("/tarnwick-shm-access-" + std::to_string(getpid()));
    // As root any group will do; otherwise the process's own (then only the mode tells).
    const gid_t group = geteuid() == 0 ? 4242 : getegid();
    int ahead = shm_open(object.name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(ahead, 0);
    ASSERT_EQ(fchown(ahead, static_cast<uid_t>(-1), group), 0);
    ASSERT_EQ(fchmod(ahead, 0660), 0);
    close(ahead);
    const std::pair<int, long> made_ahead(0660, static_cast<long>(group));

    SharedMapping mapping;
    SharedMemoryOrigin origin = SharedMemoryOrigin::kCreated;
    ASSERT_EQ(SharedMemoryMap(&mapping, object.name.c_str(), kSize, false, nullptr, nullptr, &origin), 0);
    EXPECT_EQ(origin, SharedMemoryOrigin::kOpened);
    EXPECT_EQ(object.Access(), made_ahead) << "opened and sized as it was";

    object.Truncate(1);
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_EQ(object.Access(), made_ahead) << "restored after it was cut short";

    ASSERT_EQ(shm_unlink(object.name.c_str()), 0);
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_EQ(object.Size(), static_cast<off_t>(kSize));
    EXPECT_EQ(object.Access(), made_ahead) << "made anew after it was removed";

    ASSERT_EQ(shm_unlink(object.name.c_str()), 0);
    int other = shm_open(object.name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(other, 0);
    close(other);
    EXPECT_EQ(SharedMemoryWatch(), 1);
    EXPECT_EQ(object.Access(), made_ahead) << "found replaced by an object of mode 0600";

    SharedMemoryUnmap(&mapping);
}

// A bus error outside every registered mapping is a real fault: the process still dies of it.
TEST(SharedMemoryDeathTest, AFaultOutsideEveryMappingStillEndsTheProcess)
{
    // Re-executed, for the threads; a run under qemu-user (cross builds) asks for forking instead.
    if (getenv("GTEST_DEATH_TEST_STYLE") == nullptr)
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The death test's child runs this body again: it must use (and leave to the parent's clean-up) the same name.
    setenv("TARNWICK_SHM_DEATH_TEST_NAME", ("/tarnwick-shm-registered-" + std::to_string(getpid())).c_str(), 0);
    ObjectView registered(getenv("TARNWICK_SHM_DEATH_TEST_NAME"));
    SharedMapping mapping;
    ASSERT_EQ(SharedMemoryMap(&mapping, registered.name.c_str(), 4096, false, nullptr, nullptr, nullptr), 0);
    auto touch_a_cut_file = [] {
        FILE* file = tmpfile();
        if (file == nullptr || ftruncate(fileno(file), 4096) != 0)
            _exit(0);
        auto* page = static_cast<volatile uint8_t*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED,
                                                         fileno(file), 0));
        if (ftruncate(fileno(file), 0) != 0)
            _exit(0);
        page[0] = 1;
        _exit(0);
    };
    // Killed by SIGBUS, or ended by a sanitizer runtime that reports it: anything but a clean exit.
    EXPECT_EXIT(touch_a_cut_file(), [](int status) { return !(WIFEXITED(status) && WEXITSTATUS(status) == 0); }, "");
    SharedMemoryUnmap(&mapping);
}

}  // namespace
