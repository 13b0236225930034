// The remote control's pieces that stand alone: the record's byte layout (the writer tool shares the
// accessors, so the daemon-level test cannot see a wrong offset), an object that cannot be mapped, the
// edge-state table of buttons and rockers, and the cycle across a record that another process replaced (the
// daemon-level test sees that only when its cycles happen to fall right). Signs, level and zoom slots and the EV
// axis are checked there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "control/remote_control.h"
#include "net/shared_memory.h"
#include "support/isolation.h"

namespace {

TEST(RcRawStateTest, SlotsSitAtTheirByteOffsets)
{
    alignas(8) uint8_t bytes[kRcRawStateSize] = {};
    RcRawState* record = reinterpret_cast<RcRawState*>(bytes);
    StoreRcSlotValue(record, 0, 2.0);
    StoreRcSlotValue(record, 43, -2.0);
    StoreRcSlotFlag(record, 5, 0x1234);
    StoreRcSlotFlag(record, 39, 0xabcd);
    // Offsets written out from the record's description, not from the struct; 2.0 is 00 .. 00 40.
    EXPECT_EQ(std::string(bytes + 1056, bytes + 1064), std::string("\0\0\0\0\0\0\0\x40", 8));
    EXPECT_EQ(std::string(bytes + 1400, bytes + 1408), std::string("\0\0\0\0\0\0\0\xc0", 8));
    EXPECT_EQ(std::string(bytes + 1422, bytes + 1424), "\x34\x12");   // flag of slot 5, little-endian
    EXPECT_EQ(std::string(bytes + 1490, bytes + 1492), "\xcd\xab");   // flag of slot 39
    EXPECT_EQ(std::count_if(bytes, bytes + sizeof bytes, [](uint8_t byte) { return byte != 0; }), 6)
        << "a store wrote outside its slot";
}

TEST(RcRawStateTest, ObjectThatCanBeNeitherOpenedNorCreatedGivesNull)
{
    std::string name = "/tarnwick_rc_test_blocked_" + std::to_string(getpid());
    ASSERT_EQ(mkdir(("/dev/shm" + name).c_str(), 0700), 0);
    int fd = 123;
    bool missing = false;
    EXPECT_EQ(MapRcRawState(name.c_str(), &fd, &missing), nullptr);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(missing);
    rmdir(("/dev/shm" + name).c_str());
}

TEST(RcEdgeTest, ButtonAndRockerStateTable)
{
    // Rows: edge state, sign, button fires, rocker action (+1 up, -1 down), next state.
    const struct { int32_t edge; int sign; bool fires; int action; int32_t next; } cases[] = {
        {0, 0, false, 0, 0},   {0, 1, true, 1, 1},     {0, -1, true, -1, -1},
        {1, 0, false, 0, 0},   {1, 1, false, 0, 1},    {1, -1, true, -1, -1},
        {-1, 0, false, 0, 0},  {-1, 1, true, 1, 1},    {-1, -1, false, 0, -1},
    };
    for (const auto& c : cases) {
        int32_t button = c.edge, rocker = c.edge;
        EXPECT_EQ(RcButtonStep(&button, c.sign), c.fires) << c.edge << " " << c.sign;
        EXPECT_EQ(RcRockerStep(&rocker, c.sign), c.action) << c.edge << " " << c.sign;
        EXPECT_TRUE(button == c.next && rocker == c.next) << c.edge << " " << c.sign;
    }
}

// A button held when another process replaces the record, and pressed again in the new one, acts again: the
// replaced record went through "released", even when no cycle ran while it showed so (before the movement mode a
// cycle comes once a second).
TEST(RemoteControlCycleTest, AButtonHeldAcrossAReplacedRecordActsAgain)
{
    if (!IsSharedMemoryPrivate())
        GTEST_SKIP() << "needs a /dev/shm of its own (root): the relay's record name is fixed";
    testing::internal::CaptureStderr();
    ResetRemoteControl();
    RunRemoteControlCycle();   // maps the record, creating it
    int fd = -1;
    bool missing = false;
    RcRawState* writer = MapRcRawState(kRcRawStateName, &fd, &missing);
    ASSERT_NE(writer, nullptr);
    StoreRcSlotValue(writer, kRcSlotNextPosition, 1.0);
    RunRemoteControlCycle();
    munmap(writer, kRcRawStateSize);
    close(fd);

    ASSERT_EQ(shm_unlink(kRcRawStateName), 0);
    int other = shm_open(kRcRawStateName, O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_TRUE(other >= 0 && ftruncate(other, 100) == 0);
    close(other);
    EXPECT_GE(SharedMemoryWatch(), 1);
    writer = MapRcRawState(kRcRawStateName, &fd, &missing);
    ASSERT_NE(writer, nullptr);
    StoreRcSlotValue(writer, kRcSlotNextPosition, 1.0);
    RunRemoteControlCycle();
    RunRemoteControlCycle();
    munmap(writer, kRcRawStateSize);
    close(fd);
    shm_unlink(kRcRawStateName);

    std::string log = testing::internal::GetCapturedStderr();
    size_t presses = 0;
    for (size_t at = log.find("Gimbal set next position\n"); at != std::string::npos;
         at = log.find("Gimbal set next position\n", at + 1))
        ++presses;
    EXPECT_EQ(presses, 2u) << log;
    EXPECT_NE(log.find("Shared memory /shared_rc_raw replaced, mapped anew\n"), std::string::npos) << log;
}

}  // namespace
