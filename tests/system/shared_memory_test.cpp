// Another process spoils the daemon's shared-memory objects while video, telemetry and the remote control run:
// each of the four is cut to nothing, then removed and created anew at a wrong size. The daemon lives, says each
// event once, gives every object back its size, and new data lands in it: ring parts, the transcoding region's
// first byte, the gimbal attitude, and a remote-control button that reaches the camera (whatever the camera's mode).
//
// The test reads and writes the objects with pread/pwrite only: a mapping of its own would fault as the daemon's
// used to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint16_t kSimulatorPort = 19004;
constexpr int kRepairMs = 4000;   // the watch looks once a second; slack for a loaded machine

struct Object {
    const char* name;
    off_t size;
};
// Written from the documented layouts: the ring, the transcoding region, the attitude, the remote control.
constexpr Object kRing = {"tarnwickrelay_framebuffer", 60003624};
constexpr Object kTranscoding = {"tarnwickrelay_framebuffer_transcoding", 13003624};
constexpr Object kAttitude = {"/shared_camstate", 6};
constexpr Object kRemoteControl = {"/shared_rc_raw", 1504};
constexpr off_t kRcNextPositionSlotValue = 1056 + 8 * 4;   // slot 4: the gimbal's next-position button

off_t SizeOf(const Object& object)
{
    int fd = shm_open(object.name, O_RDONLY, 0);
    struct stat status;
    off_t size = fd >= 0 && fstat(fd, &status) == 0 ? status.st_size : -1;
    if (fd >= 0)
        close(fd);
    return size;
}

std::string Read(const Object& object, off_t offset, size_t length)
{
    std::string bytes(length, '\0');
    int fd = shm_open(object.name, O_RDONLY, 0);
    if (fd < 0 || pread(fd, &bytes[0], length, offset) != static_cast<ssize_t>(length))
        bytes.clear();
    if (fd >= 0)
        close(fd);
    return bytes;
}

void Write(const Object& object, off_t offset, const void* data, size_t length)
{
    int fd = shm_open(object.name, O_RDWR, 0);
    ASSERT_TRUE(fd >= 0 && pwrite(fd, data, length, offset) == static_cast<ssize_t>(length)) << object.name;
    close(fd);
}

template <typename Condition>
bool Within(int timeout_ms, Condition condition)
{
    for (auto end = Clock::now() + std::chrono::milliseconds(timeout_ms); !condition();) {
        if (Clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

size_t Count(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

class SharedMemoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=" + std::to_string(kSimulatorPort), "--fps=30"}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort)));
        ASSERT_TRUE(daemon.WaitForStderr("Camera connection found", 8000)) << daemon.Stderr();
        ASSERT_TRUE(daemon.WaitForStderr("Shared cam state mem opened", 5000) ||
                    daemon.WaitForStderr("Creating new shared cam state", 100)) << daemon.Stderr();
        ExpectDataLands("at start");
    }

    // New data lands in every object: ring parts go on, the transcoding region shows its start-up byte, the
    // attitude moves (the simulator sweeps the gimbal), and the next-position button reaches the camera.
    void ExpectDataLands(const std::string& when)
    {
        SCOPED_TRACE(when);
        for (const Object& object : {kRing, kTranscoding, kAttitude, kRemoteControl})
            EXPECT_TRUE(Within(kRepairMs, [&] { return SizeOf(object) == object.size; }))
                << object.name << " is " << SizeOf(object) << " bytes\n" << daemon.Stderr();
        const std::string last_part = Read(kRing, 2, 2);
        EXPECT_TRUE(Within(kRepairMs, [&] { return Read(kRing, 2, 2) != last_part; })) << "no new ring part";
        EXPECT_TRUE(Within(kRepairMs, [&] { return Read(kTranscoding, 0, 1) == std::string(1, '\1'); }));
        const std::string attitude = Read(kAttitude, 0, 6);
        EXPECT_TRUE(Within(kRepairMs, [&] { return Read(kAttitude, 0, 6) != attitude; })) << "attitude still";

        const size_t commands = Count(simulator.Stdout(), "rx command");
        const double pressed = 1.0, released = 0.0;
        Write(kRemoteControl, kRcNextPositionSlotValue, &pressed, sizeof pressed);
        // The remote control polls once a second until a movement mode is chosen: a loaded machine gets more time.
        EXPECT_TRUE(Within(2 * kRepairMs, [&] { return Count(simulator.Stdout(), "rx command") > commands; }))
            << "the button did not reach the camera\n" << daemon.Stderr();
        Write(kRemoteControl, kRcNextPositionSlotValue, &released, sizeof released);
        EXPECT_EQ(daemon.WaitExit(0), -1) << "the daemon ended\n" << daemon.Stderr();
    }

    ChildProcess simulator, daemon;
};

TEST_F(SharedMemoryTest, ObjectsCutToNothingThenReplacedAreRestoredAndFedAgain)
{
    for (const Object& object : {kRing, kTranscoding, kAttitude, kRemoteControl}) {
        int fd = shm_open(object.name, O_RDWR, 0);
        ASSERT_TRUE(fd >= 0 && ftruncate(fd, 0) == 0) << object.name;
        close(fd);
    }
    ExpectDataLands("after each object was cut to nothing");
    for (const Object& object : {kRing, kTranscoding, kAttitude, kRemoteControl})
        EXPECT_EQ(Count(daemon.Stderr(), "Shared memory " + std::string(object.name) + " shrunk to 0 bytes, restored to " +
                                             std::to_string(object.size) + "\n"), 1u) << daemon.Stderr();

    // Another process removes each and creates its own, too short, under the same name.
    for (const Object& object : {kRing, kTranscoding, kAttitude, kRemoteControl}) {
        ASSERT_EQ(shm_unlink(object.name), 0) << object.name;
        int fd = shm_open(object.name, O_RDWR | O_CREAT | O_EXCL, 0600);
        ASSERT_TRUE(fd >= 0 && ftruncate(fd, 100) == 0) << object.name;
        close(fd);
    }
    ExpectDataLands("after each object was replaced");
    for (const Object& object : {kRing, kTranscoding, kAttitude, kRemoteControl})
        EXPECT_EQ(Count(daemon.Stderr(), "Shared memory " + std::string(object.name) + " replaced, mapped anew\n"), 1u)
            << daemon.Stderr();
}

}  // namespace
