// The frame buffers in this process, on real shared memory and /run files private to the test: start-up
// contents, slots, chunking, wrap, clear requests, resolution files, cut and hostile payloads, regions
// that cannot be made, and the reader's side of the ring (order, loss, clears).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "net/files.h"
#include "support/isolation.h"
#include "video/frame_buffer.h"
#include "video/frame_ring.h"
#include "tarnwickclient/client.h"

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

// Queues an exact heap copy (AddressSanitizer sees any read past it), or null; returns standard error.
std::string Queue(const Bytes& payload, bool null = false)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[payload.size()]);
    std::copy(payload.begin(), payload.end(), copy.get());
    testing::internal::CaptureStderr();
    QueueVideoPart(null ? nullptr : copy.get(), static_cast<uint32_t>(payload.size()));
    return testing::internal::GetCapturedStderr();
}

std::string Init(int expected)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(InitFrameBuffers(), expected);
    return testing::internal::GetCapturedStderr();
}

bool AllZero(const uint8_t* p, size_t n) { return std::all_of(p, p + n, [](uint8_t byte) { return byte == 0; }); }

// A second mapping of a region, as another process sees it.
struct Region {
    Region(const char* name, size_t size) : size(size)
    {
        int fd = shm_open(name, O_RDWR, 0);
        void* mapping = fd < 0 ? MAP_FAILED : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        bytes = mapping == MAP_FAILED ? nullptr : static_cast<uint8_t*>(mapping);
    }
    ~Region() { if (bytes != nullptr) munmap(bytes, size); }
    std::vector<int> head() const   // clear_request, last_part, next_slot
    {
        return {RingLoadField(bytes, kRingClearRequestOffset), RingLoadField(bytes, kRingLastPartOffset),
                RingLoadField(bytes, kRingNextSlotOffset)};
    }
    RingSlotHeader header(uint32_t slot) const { return RingReadSlotHeader(RingSlot(bytes, slot)); }
    Bytes data(uint32_t slot) const
    {
        const uint8_t* start = RingSlot(bytes, slot) + kSlotDataOffset;
        return Bytes(start, start + header(slot).length);
    }
    size_t size;
    uint8_t* bytes;
};

class FrameBufferTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
    }
};

TEST_F(FrameBufferTest, StartUpThenPartsFillTheSlotsInChunksAndWrapAfterSlot199)
{
    // A ring left by an earlier run, full of old parts, and old resolution files.
    int fd = shm_open(kFrameBufferName, O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(fd, kFrameBufferSize), 0);
    close(fd);
    memset(Region(kFrameBufferName, kFrameBufferSize).bytes, 0x5a, kFrameBufferSize);
    ASSERT_EQ(WriteTextFile(kVideoWidthPath, "640") | WriteTextFile(kVideoHeightPath, "480"), 0);
    EXPECT_EQ(Init(0), "Init frame buffer 60003624 bytes\nInit frame buffer for transcoding 13003624 bytes\n");
    EXPECT_FALSE(Exists(kVideoWidthPath) || Exists(kVideoHeightPath));
    for (auto r : {std::make_pair(kFrameBufferName, 60003624), std::make_pair(kTranscodingFrameBufferName, 13003624)}) {
        struct stat status;
        ASSERT_EQ(stat(("/dev/shm/" + std::string(r.first)).c_str(), &status), 0) << r.first;
        EXPECT_EQ(status.st_size, r.second);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        Region region(r.first, r.second);
        EXPECT_TRUE(region.bytes[0] == 1 && AllZero(region.bytes + 1, r.second - 1)) << r.first;
    }

    Region ring(kFrameBufferName, kFrameBufferSize);
    EXPECT_EQ(Queue({1}, true) + Queue({}), "Queue part buf is zero\nQueue part len is zero\n");
    EXPECT_EQ(ring.head(), (std::vector<int>{1, 0, 0})) << "nothing queued, not even the clear honoured";
    EXPECT_EQ(Queue(Payload(1000, 0)), "Clear frame shared memory\n");
    EXPECT_EQ(ring.head(), (std::vector<int>{0, 0, 1}));
    const uint8_t* slot0 = RingSlot(ring.bytes, 0);   // length, part, chunk index, 0, ten marks
    EXPECT_EQ(Bytes(slot0, slot0 + 18), (Bytes{0xe8, 0x03, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
    EXPECT_TRUE(AllZero(ring.bytes + 6, 18)) << "the ring header's last 18 bytes stay zero";
    EXPECT_EQ(ring.data(0), Payload(1000, 0));

    // Payloads over 300000 bytes take consecutive slots, one chunk each.
    const std::vector<uint32_t> cases[] = {{300000}, {300000, 1}, {300000, 300000, 150000}};
    int part = 1;
    uint32_t slot = 1;
    for (const auto& chunks : cases) {
        Bytes payload = Payload(std::accumulate(chunks.begin(), chunks.end(), size_t{0}), part);
        Queue(payload);
        for (uint32_t j = 0, offset = 0; j < chunks.size(); offset += chunks[j++], ++slot) {
            RingSlotHeader header = ring.header(slot);
            EXPECT_TRUE(header.length == chunks[j] && header.part == part && header.chunk_index == j && header.marked)
                << payload.size() << " chunk " << j;
            EXPECT_EQ(ring.data(slot), Bytes(payload.begin() + offset, payload.begin() + offset + chunks[j]));
        }
        EXPECT_EQ(ring.head(), (std::vector<int>{0, part++, static_cast<int>(slot)}));
    }
    // Up to slot 199, then slot 0 again; nothing on standard error per part.
    std::string messages;
    for (; slot <= 199; ++slot, ++part)
        messages += Queue(Payload(100 + part, part));
    EXPECT_EQ(messages, "");
    EXPECT_EQ(ring.head(), (std::vector<int>{0, part - 1, 0}));
    EXPECT_EQ(ring.header(199).part, part - 1);
    Queue(Payload(7, part));
    EXPECT_EQ(ring.head(), (std::vector<int>{0, part, 1}));
    EXPECT_EQ(ring.data(0), Payload(7, part));
    EXPECT_EQ(ring.header(1).part, 1) << "slot 1 keeps its part";

    // A reader's clear request, honoured on the next part: part numbers go on.
    RingStoreField(ring.bytes, kRingClearRequestOffset, 1);
    EXPECT_EQ(Queue(Payload(60, 0)), "Clear frame shared memory\n");
    EXPECT_EQ(ring.head(), (std::vector<int>{0, part + 1, 1}));
    EXPECT_TRUE(AllZero(RingSlot(ring.bytes, 1), 199 * kRingSlotSize)) << "the old parts are gone";
    // A next_slot out of range, as only another process could store it.
    RingStoreField(ring.bytes, kRingNextSlotOffset, 4321);
    Queue(Payload(70, 6));
    EXPECT_EQ(ring.head(), (std::vector<int>{0, part + 2, 1})) << "written to slot 0";
}

TEST_F(FrameBufferTest, ParameterSetsAtThePayloadStartWriteTheResolutionFiles)
{
    Init(0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    Bytes sps320 = Fixture("baseline_320x240.sps"), uhd = Fixture("high_3840x2160.sps");
    // Every prefix of a parameter set, as a payload of exactly that length: no size, each queued.
    std::string messages;
    for (size_t length = 1; length <= 13; ++length)
        messages += Queue(Bytes(uhd.begin(), uhd.begin() + length));
    EXPECT_EQ(messages, "Clear frame shared memory\n");
    EXPECT_EQ(ring.head()[1], 12);
    EXPECT_FALSE(Exists(kVideoWidthPath));

    Bytes payload = sps320, picture = Payload(500, 1);   // with the rest of a picture behind it
    payload.insert(payload.end(), picture.begin(), picture.end());
    EXPECT_EQ(Queue(payload), "Live stream video resolution changed to 320x240\n");
    EXPECT_EQ(ReadText(kVideoWidthPath) + "x" + ReadText(kVideoHeightPath), "320x240");
    EXPECT_EQ(ring.data(13), payload);
    // The same size again: no message, the files are not written again.
    unlink(kVideoWidthPath);
    EXPECT_EQ(Queue(sps320), "");
    EXPECT_FALSE(Exists(kVideoWidthPath));
    uhd[4] = 0x27;   // a NAL header whose low four bits are 7 counts
    EXPECT_EQ(Queue(uhd), "Live stream video resolution changed to 3840x2160\n");
    EXPECT_EQ(ReadText(kVideoWidthPath) + "x" + ReadText(kVideoHeightPath), "3840x2160");
    // One side changing is a change: the height alone, then the width alone.
    EXPECT_EQ(Queue(Fixture("main_1920x1080.sps")), "Live stream video resolution changed to 1920x1080\n");
    EXPECT_EQ(Queue(Fixture("main_1920x1440.sps")), "Live stream video resolution changed to 1920x1440\n");
    EXPECT_EQ(ReadText(kVideoWidthPath) + "x" + ReadText(kVideoHeightPath), "1920x1440");
    EXPECT_EQ(Queue(Fixture("avcintra50_1440x1080.sps")), "Live stream video resolution changed to 1440x1080\n");
    EXPECT_EQ(Queue(Fixture("main_1920x1080.sps")), "Live stream video resolution changed to 1920x1080\n");
    EXPECT_EQ(ReadText(kVideoWidthPath) + "x" + ReadText(kVideoHeightPath), "1920x1080");
    // Not seen, but queued: behind a three-byte start code, or later in a payload.
    Bytes later = Payload(20, 9);
    later.insert(later.end(), sps320.begin(), sps320.end());
    EXPECT_EQ(Queue(Bytes(sps320.begin() + 1, sps320.end())) + Queue(later), "");
    EXPECT_EQ(ring.head()[1], 21);
    // Without the directory the files are skipped, silently; the size is kept.
    unlink(kVideoWidthPath);
    unlink(kVideoHeightPath);
    ASSERT_EQ(rmdir("/run/tarnwickrelay"), 0);
    EXPECT_EQ(Queue(sps320) + Queue(sps320), "Live stream video resolution changed to 320x240\n");
}

TEST_F(FrameBufferTest, RegionsThatCannotBeMadeFailAndNothingIsWritten)
{
    ASSERT_EQ(mkdir("/dev/shm/tarnwickrelay_framebuffer", 0700), 0);   // neither opened nor created
    EXPECT_EQ(Init(-1), "Init frame buffer 60003624 bytes\n");
    EXPECT_EQ(Queue(Fixture("baseline_320x240.sps")), "Live stream video resolution changed to 320x240\n")
        << "the size is still read; nothing is written to a ring";
    ASSERT_EQ(rmdir("/dev/shm/tarnwickrelay_framebuffer"), 0);
    ASSERT_EQ(mkdir("/dev/shm/tarnwickrelay_framebuffer_transcoding", 0700), 0);
    EXPECT_EQ(Init(-1), "Init frame buffer 60003624 bytes\nInit frame buffer for transcoding 13003624 bytes\n");
    ASSERT_EQ(rmdir("/dev/shm/tarnwickrelay_framebuffer_transcoding"), 0);
    // A /dev/shm too small for the ring: sizing fails, rather than the first write.
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=16m,mode=1777"), 0);
    Init(-1);
    Queue(Payload(100, 0));
    ASSERT_EQ(umount("/dev/shm"), 0);
    Init(0);
    Queue(Payload(100, 0));
    EXPECT_EQ(Region(kFrameBufferName, kFrameBufferSize).data(0), Payload(100, 0));
}

// What the reader delivered.
Bytes got_stream;

int CollectStream(const uint8_t* data, uint32_t length, void*)
{
    got_stream.insert(got_stream.end(), data, data + length);
    return 0;
}

TEST_F(FrameBufferTest, RingReaderRebuildsTheStreamCountsLossAndFollowsClears)
{
    Init(0);
    std::unique_ptr<tarnwick::RingReader> reader(new tarnwick::RingReader);
    ASSERT_EQ(tarnwick::RingReaderOpen(reader.get()), 0);
    uint8_t* region = reader->region;
    auto poll = [&] { return tarnwick::RingReaderPoll(reader.get(), CollectStream, nullptr); };
    auto queue_parts = [](uint32_t first, uint32_t count) {   // returns their stream; every 50th in 3 chunks
        Bytes all;
        for (uint32_t part = first; part < first + count; ++part) {
            Bytes payload = Payload(part < 1000 && part % 50 == 7 ? 700000 : 900 + part % 13, part);
            Queue(payload);
            all.insert(all.end(), payload.begin(), payload.end());
        }
        return all;
    };
    EXPECT_EQ(poll(), 0);
    for (uint32_t round = 0; round < 2; ++round) {   // 157 slots a round: wraps
        Bytes expected = queue_parts(round * 151, 151);
        got_stream.clear();
        EXPECT_EQ(poll(), 157);
        EXPECT_EQ(got_stream, expected);
    }
    EXPECT_EQ(reader->counts.lost_parts, 0u);

    // 250 one-slot parts while the reader sleeps: the 50 newest are read, 200 lost.
    got_stream.clear();
    Bytes all = queue_parts(1001, 250);
    EXPECT_EQ(poll(), 50);
    EXPECT_EQ(reader->counts.lost_parts, 200u);
    EXPECT_EQ(got_stream, Bytes(all.end() - static_cast<long>(got_stream.size()), all.end()));

    // Its own clear request: nothing is read until the writer has cleared, then from slot 0; and a
    // clear that another reader asked for, honoured between two polls: back to slot 0, nothing lost.
    queue_parts(1301, 5);
    tarnwick::RingReaderRequestClear(reader.get());
    EXPECT_EQ(poll(), 0);
    for (uint32_t count : {5, 2}) {
        got_stream.clear();
        Bytes expected = queue_parts(1400 + count, count);
        EXPECT_EQ(poll(), static_cast<int>(count));
        EXPECT_EQ(got_stream, expected);
        RingStoreField(region, kRingClearRequestOffset, 1);
    }
    EXPECT_EQ(reader->counts.lost_parts, 200u);
    EXPECT_EQ(reader->counts.overruns, 0u);
}

}  // namespace
