// The remote control's pieces that stand alone: the record's byte layout and
// its mapping, the sign of a slot value, the edge-state rules of buttons,
// rockers, level and zoom slots, and the EV axis index.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "control/remote_control.h"

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// A name of this process's own, so the test never touches the relay's object.
std::string PrivateName(const char* what)
{
    return "/tarnwick_rc_test_" + std::string(what) + "_" + std::to_string(getpid());
}

off_t ObjectSize(const std::string& name)
{
    struct stat status = {};
    if (stat(("/dev/shm" + name).c_str(), &status) != 0)
        return -1;
    return status.st_size;
}

TEST(RcRawStateTest, SlotsSitAtTheirByteOffsets)
{
    alignas(8) uint8_t bytes[kRcRawStateSize] = {};
    RcRawState* record = reinterpret_cast<RcRawState*>(bytes);
    StoreRcSlotValue(record, 0, 0.25);
    StoreRcSlotValue(record, 39, -0.5);
    StoreRcSlotValue(record, 43, 2.0);
    StoreRcSlotFlag(record, 5, 0x1234);
    StoreRcSlotFlag(record, 39, 0xabcd);
    StoreRcSlotFlag(record, 43, 0x0102);

    // Offsets written out from the record's description, not from the struct.
    double value;
    memcpy(&value, bytes + 1056, 8);
    EXPECT_EQ(value, 0.25);
    memcpy(&value, bytes + 1368, 8);
    EXPECT_EQ(value, -0.5);
    memcpy(&value, bytes + 1400, 8);
    EXPECT_EQ(value, 2.0);
    EXPECT_EQ(bytes[1422], 0x34);  // flag of slot 5, little-endian
    EXPECT_EQ(bytes[1423], 0x12);
    EXPECT_EQ(bytes[1490], 0xcd);  // flag of slot 39
    EXPECT_EQ(bytes[1491], 0xab);
    EXPECT_EQ(bytes[1498], 0x02);  // flag of slot 43, the last
    EXPECT_EQ(bytes[1499], 0x01);

    EXPECT_EQ(LoadRcSlotValue(record, 39), -0.5);
    EXPECT_EQ(LoadRcSlotFlag(record, 5), 0x1234);
    size_t touched = 0;
    for (uint8_t byte : bytes)
        touched += byte != 0;
    EXPECT_LE(touched, 3u * 8 + 6) << "a store wrote outside its slot";
}

TEST(RcRawStateTest, MissingObjectIsCreatedZeroFilledThenOpened)
{
    std::string name = PrivateName("create");
    shm_unlink(name.c_str());
    int fd = -1;
    bool missing = false;
    RcRawState* record = MapRcRawState(name.c_str(), &fd, &missing);
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(missing);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ObjectSize(name), static_cast<off_t>(kRcRawStateSize));
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(record);
    for (size_t i = 0; i < kRcRawStateSize; ++i)
        ASSERT_EQ(bytes[i], 0) << "byte " << i;
    StoreRcSlotValue(record, 7, 1.0);

    int again_fd = -1;
    RcRawState* again = MapRcRawState(name.c_str(), &again_fd, &missing);
    ASSERT_NE(again, nullptr);
    EXPECT_FALSE(missing);
    EXPECT_EQ(LoadRcSlotValue(again, 7), 1.0) << "the same object, shared";

    munmap(record, kRcRawStateSize);
    munmap(again, kRcRawStateSize);
    close(fd);
    close(again_fd);
    shm_unlink(name.c_str());
}

TEST(RcRawStateTest, ObjectOfAnotherSizeIsResizedKeepingItsBytes)
{
    for (off_t size : {off_t{16}, off_t{4096}}) {
        std::string name = PrivateName("resize");
        int raw = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(raw, 0);
        ASSERT_EQ(ftruncate(raw, size), 0);
        ASSERT_EQ(pwrite(raw, "writer", 6, 0), 6);
        close(raw);

        int fd = -1;
        bool missing = true;
        RcRawState* record = MapRcRawState(name.c_str(), &fd, &missing);
        ASSERT_NE(record, nullptr) << size;
        EXPECT_FALSE(missing);
        EXPECT_EQ(ObjectSize(name), static_cast<off_t>(kRcRawStateSize)) << size;
        EXPECT_EQ(memcmp(record->writer_area, "writer", 6), 0);
        EXPECT_EQ(LoadRcSlotValue(record, 43), 0.0);  // the grown part reads as zero
        munmap(record, kRcRawStateSize);
        close(fd);
        shm_unlink(name.c_str());
    }
}

TEST(RcRawStateTest, ObjectThatCanBeNeitherOpenedNorCreatedGivesNull)
{
    std::string name = PrivateName("blocked");
    std::string path = "/dev/shm" + name;
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    int fd = 123;
    bool missing = false;
    EXPECT_EQ(MapRcRawState(name.c_str(), &fd, &missing), nullptr);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(missing);
    rmdir(path.c_str());
}

TEST(RcSignTest, SignOfSlotValues)
{
    const struct {
        double value;
        int sign;
    } cases[] = {
        {1.0, 1}, {0.001, 1}, {kInf, 1}, {-1.0, -1}, {-1e-300, -1}, {-kInf, -1},
        {0.0, 0}, {-0.0, 0}, {kNan, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RcSign(c.value), c.sign) << c.value;
}

// The three-state machine of a button: rows are the edge state, columns the sign.
TEST(RcEdgeTest, ButtonStateTable)
{
    const struct {
        int32_t edge;
        int sign;
        bool fires;
        int32_t next;
    } cases[] = {
        {0, 0, false, 0},  {0, 1, true, 1},   {0, -1, true, -1},
        {1, 0, false, 0},  {1, 1, false, 1},  {1, -1, true, -1},
        {-1, 0, false, 0}, {-1, 1, true, 1},  {-1, -1, false, -1},
    };
    for (const auto& c : cases) {
        int32_t edge = c.edge;
        EXPECT_EQ(RcButtonStep(&edge, c.sign), c.fires) << c.edge << " " << c.sign;
        EXPECT_EQ(edge, c.next) << c.edge << " " << c.sign;
    }
}

TEST(RcEdgeTest, RockerStateTable)
{
    const struct {
        int32_t edge;
        int sign;
        int action;  // +1 up, -1 down, 0 none
        int32_t next;
    } cases[] = {
        {0, 0, 0, 0},   {0, 1, 1, 1},   {0, -1, -1, -1},
        {1, 0, 0, 0},   {1, 1, 0, 1},   {1, -1, -1, -1},
        {-1, 0, 0, 0},  {-1, 1, 1, 1},  {-1, -1, 0, -1},
    };
    for (const auto& c : cases) {
        int32_t edge = c.edge;
        EXPECT_EQ(RcRockerStep(&edge, c.sign), c.action) << c.edge << " " << c.sign;
        EXPECT_EQ(edge, c.next) << c.edge << " " << c.sign;
    }
}

TEST(RcEdgeTest, LevelAndZoomActOnEveryChangeIncludingBackToZero)
{
    int32_t edge = 0;
    const struct {
        int sign;
        bool changed;
    } steps[] = {{0, false}, {1, true}, {1, false}, {-1, true}, {0, true}, {0, false}, {-1, true}};
    for (const auto& step : steps) {
        EXPECT_EQ(RcChangeStep(&edge, step.sign), step.changed) << step.sign;
        EXPECT_EQ(edge, step.sign);
    }
}

TEST(RcEvAxisTest, IndexOfAxisValues)
{
    const struct {
        double value;
        int index;
    } cases[] = {
        {-1.0, 0},  {0.0, 9},   {1.0, 18},  {0.99, 18}, {1.5, 18},  {-1.5, 0},   {kInf, 18}, {-kInf, 0},
        {-0.06, 8},  // 8.93 truncated
        {0.05, 9},   // 9.975 truncated
        {-0.9, 0},   // 0.95 truncated
        {-0.95, 0},  // 0.475 truncated toward zero, not down
        {0.9, 18},   // 18.05
        {kNan, -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RcEvAxisIndex(c.value), c.index) << c.value;
}

}  // namespace
