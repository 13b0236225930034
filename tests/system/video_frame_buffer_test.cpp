// The frame buffers in this process, on real POSIX shared memory and /run files private to the test:
// start-up contents, slots, chunking, wrap, clear requests, resolution files, cut and hostile payloads,
// regions that cannot be made, and the reader's side of the ring (order, loss, clears).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app/files.h"
#include "support/isolation.h"
#include "video/frame_buffer.h"
#include "video/frame_ring.h"
#include "video/ring_follower.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string ReadText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

Bytes Fixture(const std::string& name)
{
    std::string text = ReadText(std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/" + name);
    return Bytes(text.begin(), text.end());
}

bool Exists(const char* path) { return access(path, F_OK) == 0; }

// A payload whose bytes tell its part: no start code, so never a parameter set.
Bytes Payload(size_t length, uint32_t seed)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(0x80 | ((seed * 131 + i * 7) & 0x7f));
    return bytes;
}

// Queues an exact heap copy, so that AddressSanitizer sees any read past it.
void Queue(const Bytes& payload)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[payload.size()]);
    std::copy(payload.begin(), payload.end(), copy.get());
    QueueVideoPart(copy.get(), static_cast<uint32_t>(payload.size()));
}

bool AllZero(const uint8_t* bytes, size_t length)
{
    return std::all_of(bytes, bytes + length, [](uint8_t byte) { return byte == 0; });
}

// A second mapping of a region, as another process sees it.
struct Region {
    Region(const char* name, size_t size) : size(size)
    {
        int fd = shm_open(name, O_RDWR, 0);
        void* mapping = fd < 0 ? MAP_FAILED : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (fd >= 0)
            close(fd);
        bytes = mapping == MAP_FAILED ? nullptr : static_cast<uint8_t*>(mapping);
    }
    ~Region()
    {
        if (bytes != nullptr)
            munmap(bytes, size);
    }
    uint16_t field(size_t offset) const { return RingLoadField(bytes, offset); }
    RingSlotHeader header(uint32_t slot) const { return RingReadSlotHeader(RingSlot(bytes, slot)); }
    Bytes data(uint32_t slot) const
    {
        const uint8_t* start = RingSlot(bytes, slot) + kSlotDataOffset;
        return Bytes(start, start + header(slot).length);
    }
    size_t size;
    uint8_t* bytes = nullptr;
};

class FrameBufferTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
    }
    // Runs `step` and returns what it wrote on standard error.
    template <typename Step>
    std::string Messages(Step step)
    {
        testing::internal::CaptureStderr();
        step();
        return testing::internal::GetCapturedStderr();
    }
    int Init(std::string* messages = nullptr)
    {
        int result = 0;
        std::string text = Messages([&] { result = InitFrameBuffers(); });
        if (messages != nullptr)
            *messages = text;
        return result;
    }
};

TEST_F(FrameBufferTest, StartUpClearsBothRegionsAndTheResolutionFiles)
{
    {  // A ring left by an earlier run, full of old parts, and old resolution files.
        int fd = shm_open(kFrameBufferName, O_RDWR | O_CREAT, 0600);
        ASSERT_EQ(ftruncate(fd, kFrameBufferSize), 0);
        close(fd);
        Region old(kFrameBufferName, kFrameBufferSize);
        memset(old.bytes, 0x5a, kFrameBufferSize);
    }
    ASSERT_EQ(WriteTextFile(kVideoWidthPath, "640"), 0);
    ASSERT_EQ(WriteTextFile(kVideoHeightPath, "480"), 0);
    std::string messages;
    ASSERT_EQ(Init(&messages), 0);
    EXPECT_EQ(messages, "Init frame buffer 60003624 bytes\nInit frame buffer for transcoding 13003624 bytes\n");
    EXPECT_FALSE(Exists(kVideoWidthPath) || Exists(kVideoHeightPath));
    const struct { const char* name; const char* path; size_t size; } regions[] = {
        {kFrameBufferName, "/dev/shm/tarnwickrelay_framebuffer", 60003624},
        {kTranscodingFrameBufferName, "/dev/shm/tarnwickrelay_framebuffer_transcoding", 13003624}};
    for (const auto& r : regions) {
        struct stat status;
        ASSERT_EQ(stat(r.path, &status), 0) << r.path;
        EXPECT_EQ(static_cast<size_t>(status.st_size), r.size) << r.path;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << r.path;
        Region region(r.name, r.size);
        ASSERT_NE(region.bytes, nullptr);
        EXPECT_EQ(region.bytes[0], 1);
        EXPECT_TRUE(AllZero(region.bytes + 1, r.size - 1)) << r.path;
    }
}

TEST_F(FrameBufferTest, PartsFillTheSlotsInChunksAndWrapAfterSlot199)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    uint8_t byte = 0;
    EXPECT_EQ(Messages([&] { QueueVideoPart(nullptr, 10); }), "Queue part buf is zero\n");
    EXPECT_EQ(Messages([&] { QueueVideoPart(&byte, 0); }), "Queue part len is zero\n");
    EXPECT_EQ(ring.field(kRingClearRequestOffset), 1) << "nothing queued, not even the clear honoured";

    EXPECT_EQ(Messages([&] { Queue(Payload(1000, 0)); }), "Clear frame shared memory\n");
    EXPECT_EQ(ring.field(kRingClearRequestOffset), 0);
    EXPECT_EQ(ring.field(kRingLastPartOffset), 0);
    EXPECT_EQ(ring.field(kRingNextSlotOffset), 1);
    const uint8_t* slot0 = RingSlot(ring.bytes, 0);
    const Bytes header0 = {0xe8, 0x03, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};  // length, part, chunk, mark
    EXPECT_EQ(Bytes(slot0, slot0 + 18), header0);
    EXPECT_TRUE(AllZero(ring.bytes + 6, 18)) << "the ring header's last 18 bytes stay zero";
    EXPECT_EQ(ring.data(0), Payload(1000, 0));

    // Payloads over 300000 bytes take consecutive slots, one chunk each.
    const struct { uint32_t length; std::vector<uint32_t> chunks; } cases[] = {
        {300000, {300000}}, {300001, {300000, 1}}, {750000, {300000, 300000, 150000}}};
    uint16_t part = 1;
    uint32_t slot = 1;
    for (const auto& c : cases) {
        Bytes payload = Payload(c.length, part);
        Queue(payload);
        uint32_t offset = 0;
        for (size_t j = 0; j < c.chunks.size(); ++j, ++slot) {
            EXPECT_EQ(ring.header(slot).length, c.chunks[j]) << c.length << " chunk " << j;
            EXPECT_EQ(ring.header(slot).part, part);
            EXPECT_EQ(ring.header(slot).chunk_index, j);
            EXPECT_EQ(ring.data(slot), Bytes(payload.begin() + offset, payload.begin() + offset + c.chunks[j]));
            offset += c.chunks[j];
        }
        EXPECT_EQ(ring.field(kRingNextSlotOffset), slot);
        EXPECT_EQ(ring.field(kRingLastPartOffset), part++);
    }
    // Up to slot 199, then slot 0 again; nothing on standard error per part.
    EXPECT_EQ(Messages([&] {
                  for (; slot <= 199; ++slot, ++part)
                      Queue(Payload(100 + part, part));
              }),
              "");
    EXPECT_EQ(ring.field(kRingNextSlotOffset), 0);
    EXPECT_EQ(ring.header(199).part, part - 1);
    Queue(Payload(7, part));
    EXPECT_EQ(ring.field(kRingNextSlotOffset), 1);
    EXPECT_EQ(ring.field(kRingLastPartOffset), part);
    EXPECT_EQ(ring.data(0), Payload(7, part));
    EXPECT_EQ(ring.header(1).part, 1) << "slot 1 keeps its part";

    // A reader's clear request, honoured on the next part: part numbers go on.
    RingStoreField(ring.bytes, kRingClearRequestOffset, 1);
    EXPECT_EQ(Messages([&] { Queue(Payload(60, 0)); }), "Clear frame shared memory\n");
    EXPECT_EQ(ring.field(kRingClearRequestOffset), 0);
    EXPECT_EQ(ring.field(kRingNextSlotOffset), 1);
    EXPECT_EQ(ring.header(0).part, part + 1);
    EXPECT_TRUE(AllZero(RingSlot(ring.bytes, 1), 199 * kRingSlotSize)) << "the old parts are gone";
    // A next_slot out of range, as only another process could store it.
    RingStoreField(ring.bytes, kRingNextSlotOffset, 4321);
    Queue(Payload(70, 6));
    EXPECT_EQ(ring.header(0).part, part + 2);
    EXPECT_EQ(ring.field(kRingNextSlotOffset), 1);
}

TEST_F(FrameBufferTest, ParameterSetsAtThePayloadStartWriteTheResolutionFiles)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    Bytes sps320 = Fixture("baseline_320x240.sps"), uhd = Fixture("high_3840x2160.sps");
    // Every prefix of a parameter set, as a payload of exactly that length: no size, each queued.
    EXPECT_EQ(Messages([&] {
                  for (size_t length = 1; length <= 13; ++length)
                      Queue(Bytes(uhd.begin(), uhd.begin() + length));
              }),
              "Clear frame shared memory\n");
    EXPECT_EQ(ring.field(kRingLastPartOffset), 12);
    EXPECT_FALSE(Exists(kVideoWidthPath));

    Bytes payload = sps320;  // with the rest of a picture behind it
    Bytes picture = Payload(500, 1);
    payload.insert(payload.end(), picture.begin(), picture.end());
    EXPECT_EQ(Messages([&] { Queue(payload); }), "Live stream video resolution changed to 320x240\n");
    EXPECT_EQ(ReadText(kVideoWidthPath) + "x" + ReadText(kVideoHeightPath), "320x240");
    EXPECT_EQ(ring.data(13), payload);
    // The same size again: no message, the files are not written again.
    unlink(kVideoWidthPath);
    EXPECT_EQ(Messages([&] { Queue(sps320); }), "");
    EXPECT_FALSE(Exists(kVideoWidthPath));
    uhd[4] = 0x27;  // a NAL header whose low four bits are 7 counts
    EXPECT_EQ(Messages([&] { Queue(uhd); }), "Live stream video resolution changed to 3840x2160\n");
    EXPECT_EQ(ReadText(kVideoWidthPath) + "x" + ReadText(kVideoHeightPath), "3840x2160");

    // Not seen: behind a three-byte start code, or later in a payload.
    Bytes later = Payload(20, 9);
    later.insert(later.end(), sps320.begin(), sps320.end());
    EXPECT_EQ(Messages([&] {
                  Queue(Bytes(sps320.begin() + 1, sps320.end()));
                  Queue(later);
              }),
              "");
    EXPECT_EQ(ring.field(kRingLastPartOffset), 17) << "both queued";
    // Without the directory the files are skipped, silently; the size is kept.
    unlink(kVideoWidthPath);
    unlink(kVideoHeightPath);
    ASSERT_EQ(rmdir("/run/tarnwickrelay"), 0);
    EXPECT_EQ(Messages([&] { Queue(sps320); }), "Live stream video resolution changed to 320x240\n");
    EXPECT_EQ(Messages([&] { Queue(sps320); }), "");
}

TEST_F(FrameBufferTest, RegionsThatCannotBeMadeFailAndNothingIsWritten)
{
    ASSERT_EQ(mkdir("/dev/shm/tarnwickrelay_framebuffer", 0700), 0);  // neither opened nor created
    std::string messages;
    EXPECT_EQ(Init(&messages), -1);
    EXPECT_EQ(messages, "Init frame buffer 60003624 bytes\n");
    EXPECT_EQ(Messages([&] { Queue(Fixture("baseline_320x240.sps")); }),
              "Live stream video resolution changed to 320x240\n")
        << "the size is still read; nothing is written to a ring";
    ASSERT_EQ(rmdir("/dev/shm/tarnwickrelay_framebuffer"), 0);
    ASSERT_EQ(mkdir("/dev/shm/tarnwickrelay_framebuffer_transcoding", 0700), 0);
    EXPECT_EQ(Init(&messages), -1);
    EXPECT_EQ(messages, "Init frame buffer 60003624 bytes\nInit frame buffer for transcoding 13003624 bytes\n");
    ASSERT_EQ(rmdir("/dev/shm/tarnwickrelay_framebuffer_transcoding"), 0);

    // A /dev/shm too small for the ring: sizing fails, rather than the first write.
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=16m,mode=1777"), 0);
    EXPECT_EQ(Init(), -1);
    Queue(Payload(100, 0));
    ASSERT_EQ(umount("/dev/shm"), 0);
    EXPECT_EQ(Init(), 0) << "and all is well again";
    Queue(Payload(100, 0));
    EXPECT_EQ(Region(kFrameBufferName, kFrameBufferSize).data(0), Payload(100, 0));
}

// ---- the reader's side ----

struct Collected {
    Bytes stream;
    std::vector<uint32_t> losses;
};

TEST_F(FrameBufferTest, RingFollowerRebuildsTheStreamAndCountsLoss)
{
    ASSERT_EQ(Init(), 0);
    uint8_t* region = RingFollowerMapRegion(kFrameBufferName);
    ASSERT_NE(region, nullptr);
    std::unique_ptr<RingFollower> follower(new RingFollower);
    Collected collected;
    follower->on_chunk = [](const uint8_t* data, uint32_t length, void* context) {
        static_cast<Collected*>(context)->stream.insert(static_cast<Collected*>(context)->stream.end(), data,
                                                        data + length);
        return 0;
    };
    follower->on_loss = [](uint32_t lost, void* context) { static_cast<Collected*>(context)->losses.push_back(lost); };
    follower->context = &collected;
    auto queue_parts = [&](uint32_t first, uint32_t count) {
        Bytes all;
        Messages([&] {
            for (uint32_t part = first; part < first + count; ++part) {
                Bytes payload = Payload(part < 1000 && part % 50 == 7 ? 700000 : 900 + part % 13, part);  // some in 3 chunks
                Queue(payload);
                all.insert(all.end(), payload.begin(), payload.end());
            }
        });
        return all;
    };
    RingFollowerStart(follower.get(), region);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 0);
    Bytes expected;
    for (uint32_t round = 0; round < 6; ++round) {  // 153 slots a round: wraps
        Bytes parts = queue_parts(round * 151, 151);
        expected.insert(expected.end(), parts.begin(), parts.end());
        EXPECT_EQ(RingFollowerPoll(follower.get()), 157);
    }
    EXPECT_EQ(collected.stream, expected);
    EXPECT_TRUE(collected.losses.empty());

    // 250 one-slot parts while the reader sleeps: the 50 newest are read, 200 lost.
    collected.stream.clear();
    Bytes all = queue_parts(1001, 250);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 50);
    EXPECT_EQ(collected.losses, std::vector<uint32_t>{200});
    EXPECT_EQ(collected.stream, Bytes(all.end() - static_cast<long>(collected.stream.size()), all.end()));

    // Its own clear request: nothing is read until the writer has cleared, then from slot 0.
    queue_parts(1301, 5);
    RingFollowerRequestClear(follower.get());
    EXPECT_EQ(RingFollowerPoll(follower.get()), 0);
    collected.stream.clear();
    expected = queue_parts(1401, 3);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 3);
    EXPECT_EQ(collected.stream, expected);
    // A clear another reader asked for, honoured between two polls: back to slot 0, no loss.
    RingStoreField(region, kRingClearRequestOffset, 1);
    collected.stream.clear();
    expected = queue_parts(1501, 2);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 2);
    EXPECT_EQ(collected.stream, expected);
    EXPECT_EQ(collected.losses.size(), 1u);
    munmap(region, kFrameBufferSize);
}

}  // namespace
