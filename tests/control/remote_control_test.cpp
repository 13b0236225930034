// The remote control's pieces that stand alone: the record's byte layout, an object that cannot be
// mapped, the sign of a slot value, the edge-state rules of buttons, rockers and level/zoom slots, and
// the EV axis index.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <limits>
#include <string>

#include "control/remote_control.h"

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(RcRawStateTest, SlotsSitAtTheirByteOffsets)
{
    alignas(8) uint8_t bytes[kRcRawStateSize] = {};
    RcRawState* record = reinterpret_cast<RcRawState*>(bytes);
    StoreRcSlotValue(record, 0, 0.25);
    StoreRcSlotValue(record, 43, 2.0);
    StoreRcSlotFlag(record, 5, 0x1234);
    StoreRcSlotFlag(record, 43, 0x0102);
    // Offsets written out from the record's description, not from the struct.
    double first, last;
    memcpy(&first, bytes + 1056, 8);
    memcpy(&last, bytes + 1400, 8);
    EXPECT_EQ(first, 0.25);
    EXPECT_EQ(last, 2.0);
    EXPECT_EQ(std::string(bytes + 1422, bytes + 1424), "\x34\x12");  // flag of slot 5, little-endian
    EXPECT_EQ(std::string(bytes + 1498, bytes + 1500), "\x02\x01");  // flag of slot 43, the last
    size_t touched = 0;
    for (uint8_t byte : bytes)
        touched += byte != 0;
    EXPECT_LE(touched, 2u * 8 + 4) << "a store wrote outside its slot";
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

TEST(RcEdgeTest, SignsAndEdgeStateTables)
{
    const struct { double value; int sign; } signs[] = {
        {1.0, 1}, {0.001, 1}, {kInf, 1}, {-1e-300, -1}, {-kInf, -1}, {0.0, 0}, {-0.0, 0}, {kNan, 0}};
    for (const auto& c : signs)
        EXPECT_EQ(RcSign(c.value), c.sign) << c.value;
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
        EXPECT_EQ(button, c.next) << c.edge << " " << c.sign;
        EXPECT_EQ(rocker, c.next) << c.edge << " " << c.sign;
    }
    // Level and zoom slots act on every change, back to zero included.
    int32_t edge = 0;
    const struct { int sign; bool changed; } steps[] = {{0, false}, {1, true}, {1, false}, {-1, true}, {0, true}};
    for (const auto& step : steps) {
        EXPECT_EQ(RcChangeStep(&edge, step.sign), step.changed) << step.sign;
        EXPECT_EQ(edge, step.sign);
    }
}

TEST(RcEvAxisTest, IndexOfAxisValues)
{
    // Truncated toward zero: -0.06 is 8.93, 0.05 is 9.975, -0.95 is 0.475, 0.9 is 18.05.
    const struct { double value; int index; } cases[] = {
        {-1.0, 0}, {0.0, 9},  {1.0, 18}, {0.99, 18}, {1.5, 18}, {-1.5, 0}, {kInf, 18}, {-kInf, 0},
        {-0.06, 8}, {0.05, 9}, {-0.95, 0}, {0.9, 18}, {kNan, -1}};
    for (const auto& c : cases)
        EXPECT_EQ(RcEvAxisIndex(c.value), c.index) << c.value;
}

}  // namespace
