// The frame buffers and the ring follower in this process, on real POSIX
// shared memory and the real /run/tarnwickrelay files (private to the test
// process): start-up contents, slots, chunking, wrap, clear requests, the
// resolution files, hostile payloads, regions that cannot be made, and the
// reader's side of the ring.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app/files.h"
#include "support/isolation.h"
#include "video/frame_buffer.h"
#include "video/frame_ring.h"
#include "video/include/h264parse.h"
#include "video/ring_follower.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::string ReadText(const std::string& path)
{
    Bytes bytes = ReadFile(path);
    return std::string(bytes.begin(), bytes.end());
}

bool Exists(const char* path)
{
    return access(path, F_OK) == 0;
}

Bytes Fixture(const std::string& name)
{
    return ReadFile(std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/" + name);
}

// A payload whose bytes tell its part: no start code, so never a parameter set.
Bytes Payload(size_t length, uint32_t seed)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(0x80 | ((seed * 131 + i * 7) & 0x7f));
    return bytes;
}

void Queue(const Bytes& payload)
{
    QueueVideoPart(payload.data(), static_cast<uint32_t>(payload.size()));
}

// Queues an exact heap copy, so that AddressSanitizer sees any read past it.
void QueueExact(const Bytes& payload)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[payload.size()]);
    std::copy(payload.begin(), payload.end(), copy.get());
    QueueVideoPart(copy.get(), static_cast<uint32_t>(payload.size()));
}

bool AllZero(const uint8_t* bytes, size_t length)
{
    for (size_t i = 0; i < length; ++i)
        if (bytes[i] != 0)
            return false;
    return true;
}

// A second mapping of a region, as another process sees it.
class Region {
public:
    Region(const char* name, size_t size) : size_(size)
    {
        int fd = shm_open(name, O_RDWR, 0);
        if (fd < 0)
            return;
        void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (mapping != MAP_FAILED)
            bytes_ = static_cast<uint8_t*>(mapping);
    }
    ~Region()
    {
        if (bytes_ != nullptr)
            munmap(bytes_, size_);
    }
    uint8_t* bytes() const { return bytes_; }
    uint16_t clear_request() const { return RingLoadField(bytes_, kRingClearRequestOffset); }
    uint16_t last_part() const { return RingLoadField(bytes_, kRingLastPartOffset); }
    uint16_t next_slot() const { return RingLoadField(bytes_, kRingNextSlotOffset); }
    RingSlotHeader header(uint32_t slot) const { return RingReadSlotHeader(RingSlot(bytes_, slot)); }
    Bytes data(uint32_t slot) const
    {
        const uint8_t* start = RingSlot(bytes_, slot) + kSlotDataOffset;
        return Bytes(start, start + header(slot).length);
    }

private:
    size_t size_;
    uint8_t* bytes_ = nullptr;
};

class FrameBufferTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
    }

    // Runs InitFrameBuffers with its messages captured.
    int Init(std::string* messages = nullptr)
    {
        testing::internal::CaptureStderr();
        int result = InitFrameBuffers();
        std::string text = testing::internal::GetCapturedStderr();
        if (messages != nullptr)
            *messages = text;
        return result;
    }

    // Runs `step` and returns what it wrote on standard error.
    template <typename Step>
    std::string Messages(Step step)
    {
        testing::internal::CaptureStderr();
        step();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(FrameBufferTest, StartUpCreatesBothRegionsClearedWithByteZeroSet)
{
    // A ring left by an earlier run, full of old parts, and old resolution files.
    {
        int fd = shm_open(kFrameBufferName, O_RDWR | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, kFrameBufferSize), 0);
        close(fd);
        Region old(kFrameBufferName, kFrameBufferSize);
        memset(old.bytes(), 0x5a, kFrameBufferSize);
    }
    ASSERT_EQ(WriteTextFile(kVideoWidthPath, "640"), 0);
    ASSERT_EQ(WriteTextFile(kVideoHeightPath, "480"), 0);

    std::string messages;
    ASSERT_EQ(Init(&messages), 0);
    EXPECT_EQ(messages, "Init frame buffer 60003624 bytes\nInit frame buffer for transcoding 13003624 bytes\n");
    EXPECT_FALSE(Exists(kVideoWidthPath));
    EXPECT_FALSE(Exists(kVideoHeightPath));

    struct Expected {
        const char* name;
        size_t size;
    };
    for (const Expected& e : {Expected{"/dev/shm/tarnwickrelay_framebuffer", 60003624},
                              Expected{"/dev/shm/tarnwickrelay_framebuffer_transcoding", 13003624}}) {
        struct stat status;
        ASSERT_EQ(stat(e.name, &status), 0) << e.name;
        EXPECT_EQ(static_cast<size_t>(status.st_size), e.size) << e.name;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << e.name;
    }
    Region ring(kFrameBufferName, kFrameBufferSize);
    ASSERT_NE(ring.bytes(), nullptr);
    EXPECT_EQ(ring.bytes()[0], 1);
    EXPECT_TRUE(AllZero(ring.bytes() + 1, kFrameBufferSize - 1));
    Region transcoding(kTranscodingFrameBufferName, kTranscodingFrameBufferSize);
    ASSERT_NE(transcoding.bytes(), nullptr);
    EXPECT_EQ(transcoding.bytes()[0], 1);
    EXPECT_TRUE(AllZero(transcoding.bytes() + 1, kTranscodingFrameBufferSize - 1));
}

TEST_F(FrameBufferTest, PartsFillTheSlotsInOrderAndWrap)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    ASSERT_NE(ring.bytes(), nullptr);

    Bytes first = Payload(1000, 0);
    EXPECT_EQ(Messages([&] { Queue(first); }), "Clear frame shared memory\n");
    EXPECT_EQ(ring.clear_request(), 0);
    EXPECT_EQ(ring.last_part(), 0);
    EXPECT_EQ(ring.next_slot(), 1);
    RingSlotHeader header = ring.header(0);
    EXPECT_EQ(header.length, 1000u);
    EXPECT_EQ(header.part, 0);
    EXPECT_EQ(header.chunk_index, 0);
    EXPECT_TRUE(header.marked);
    EXPECT_EQ(ring.data(0), first);
    const uint8_t* slot0 = RingSlot(ring.bytes(), 0);
    const uint8_t expected_header[18] = {0xe8, 0x03, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(Bytes(slot0, slot0 + 18), Bytes(expected_header, expected_header + 18));
    EXPECT_TRUE(AllZero(ring.bytes() + 6, 18)) << "the header's last 18 bytes stay zero";

    // Parts 1 to 199 take slots 1 to 199; part 200 goes to slot 0 again.
    std::string messages = Messages([&] {
        for (uint32_t part = 1; part <= 199; ++part)
            Queue(Payload(100 + part, part));
    });
    EXPECT_EQ(messages, "") << "nothing on standard error per part";
    EXPECT_EQ(ring.next_slot(), 0);
    EXPECT_EQ(ring.last_part(), 199);
    EXPECT_EQ(ring.header(199).part, 199);
    EXPECT_EQ(ring.data(199), Payload(299, 199));
    Queue(Payload(7, 200));
    EXPECT_EQ(ring.next_slot(), 1);
    EXPECT_EQ(ring.last_part(), 200);
    EXPECT_EQ(ring.header(0).part, 200);
    EXPECT_EQ(ring.data(0), Payload(7, 200));
    EXPECT_EQ(ring.data(1), Payload(101, 1)) << "slot 1 keeps its part";
}

TEST_F(FrameBufferTest, LongPayloadsAreChunkedIntoConsecutiveSlots)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    Queue(Payload(10, 0));

    struct Case {
        uint32_t length;
        std::vector<uint32_t> chunks;
    };
    const Case cases[] = {
        {300000, {300000}},
        {300001, {300000, 1}},
        {600000, {300000, 300000}},
        {750000, {300000, 300000, 150000}},
    };
    uint16_t part = 1;
    for (const Case& c : cases) {
        Bytes payload = Payload(c.length, part);
        uint32_t slot = ring.next_slot();
        Queue(payload);
        uint32_t offset = 0;
        for (size_t j = 0; j < c.chunks.size(); ++j, slot = RingNextSlot(slot)) {
            RingSlotHeader header = ring.header(slot);
            EXPECT_EQ(header.length, c.chunks[j]) << c.length << " chunk " << j;
            EXPECT_EQ(header.part, part);
            EXPECT_EQ(header.chunk_index, j);
            EXPECT_EQ(ring.data(slot), Bytes(payload.begin() + offset, payload.begin() + offset + c.chunks[j]));
            offset += c.chunks[j];
        }
        EXPECT_EQ(ring.next_slot(), slot);
        EXPECT_EQ(ring.last_part(), part);
        ++part;
    }
}

TEST_F(FrameBufferTest, ParameterSetsAnnounceTheResolution)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    Bytes sps320 = Fixture("baseline_320x240.sps");
    Bytes sps854 = Fixture("main_854x480.sps");
    ASSERT_GT(sps320.size(), 5u);

    // A parameter set with the rest of a picture behind it, queued whole.
    Bytes payload = sps320;
    Bytes picture = Payload(500, 1);
    payload.insert(payload.end(), picture.begin(), picture.end());
    EXPECT_EQ(Messages([&] { Queue(payload); }),
              "Live stream video resolution changed to 320x240\nClear frame shared memory\n");
    EXPECT_EQ(ReadText(kVideoWidthPath), "320");
    EXPECT_EQ(ReadText(kVideoHeightPath), "240");
    EXPECT_EQ(ring.data(0), payload);

    // The same size again: no message, the files are not written again.
    unlink(kVideoWidthPath);
    unlink(kVideoHeightPath);
    EXPECT_EQ(Messages([&] { Queue(sps320); }), "");
    EXPECT_FALSE(Exists(kVideoWidthPath));

    EXPECT_EQ(Messages([&] { Queue(sps854); }), "Live stream video resolution changed to 854x480\n");
    EXPECT_EQ(ReadText(kVideoWidthPath), "854");
    EXPECT_EQ(ReadText(kVideoHeightPath), "480");

    // A NAL header of 0x27 counts (its low four bits are 7).
    Bytes uhd = Fixture("high_3840x2160.sps");
    uhd[4] = 0x27;
    EXPECT_EQ(Messages([&] { Queue(uhd); }), "Live stream video resolution changed to 3840x2160\n");

    // Not seen: behind a three-byte start code, or later in a payload.
    Bytes three(sps320.begin() + 1, sps320.end());
    Bytes later = Payload(20, 9);
    later.insert(later.end(), sps320.begin(), sps320.end());
    uint16_t before = ring.last_part();
    EXPECT_EQ(Messages([&] {
                  Queue(three);
                  Queue(later);
              }),
              "");
    EXPECT_EQ(ring.last_part(), static_cast<uint16_t>(before + 2)) << "both queued";
    EXPECT_EQ(ReadText(kVideoWidthPath), "3840");

    // Without the directory the files are skipped, silently; the size is kept.
    unlink(kVideoWidthPath);
    unlink(kVideoHeightPath);
    ASSERT_EQ(rmdir("/run/tarnwickrelay"), 0);
    EXPECT_EQ(Messages([&] { Queue(sps320); }), "Live stream video resolution changed to 320x240\n");
    EXPECT_EQ(Messages([&] { Queue(sps320); }), "");
}

TEST_F(FrameBufferTest, ShortAndCutParameterSetsReadNothingPastTheirEnd)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    Bytes sps = Fixture("high_3840x2160.sps");
    Queue(Payload(1, 0));
    // Every prefix of a real parameter set, start code included, as a payload
    // of exactly that length: none gives a size, and each is queued.
    std::string messages = Messages([&] {
        for (size_t length = 1; length <= 13; ++length)
            QueueExact(Bytes(sps.begin(), sps.begin() + length));
    });
    EXPECT_EQ(messages, "");
    EXPECT_EQ(ring.last_part(), 13);
    EXPECT_EQ(ring.data(ring.next_slot() - 1), Bytes(sps.begin(), sps.begin() + 13));
    EXPECT_FALSE(Exists(kVideoWidthPath));
    EXPECT_EQ(Messages([&] { QueueExact(sps); }), "Live stream video resolution changed to 3840x2160\n");
}

TEST_F(FrameBufferTest, NullAndEmptyPayloadsAreReportedAndQueueNothing)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    uint8_t byte = 0;
    EXPECT_EQ(Messages([&] { QueueVideoPart(nullptr, 10); }), "Queue part buf is zero\n");
    EXPECT_EQ(Messages([&] { QueueVideoPart(&byte, 0); }), "Queue part len is zero\n");
    EXPECT_EQ(ring.clear_request(), 1) << "not even the clear request was honoured";
    Queue(Payload(3, 0));
    EXPECT_EQ(ring.last_part(), 0) << "the first real part is still part 0";
}

TEST_F(FrameBufferTest, ClearRequestOfAReaderIsHonouredOnTheNextPart)
{
    ASSERT_EQ(Init(), 0);
    Region ring(kFrameBufferName, kFrameBufferSize);
    for (uint32_t part = 0; part < 5; ++part)
        Queue(Payload(50, part));
    RingStoreField(ring.bytes(), kRingClearRequestOffset, 1);
    EXPECT_EQ(Messages([&] { Queue(Payload(60, 5)); }), "Clear frame shared memory\n");
    EXPECT_EQ(ring.clear_request(), 0);
    EXPECT_EQ(ring.next_slot(), 1);
    EXPECT_EQ(ring.last_part(), 5) << "part numbers go on";
    EXPECT_EQ(ring.header(0).part, 5);
    EXPECT_EQ(ring.data(0), Payload(60, 5));
    EXPECT_TRUE(AllZero(RingSlot(ring.bytes(), 1), 5 * kRingSlotSize)) << "the old parts are gone";

    // A next_slot out of range, as only another process could store it.
    RingStoreField(ring.bytes(), kRingNextSlotOffset, 4321);
    Queue(Payload(70, 6));
    EXPECT_EQ(ring.header(0).part, 6);
    EXPECT_EQ(ring.next_slot(), 1);
}

TEST_F(FrameBufferTest, RegionsThatCannotBeMadeFailAndNothingIsWritten)
{
    // A directory where the ring should be: it can be neither opened nor created.
    shm_unlink(kFrameBufferName);
    shm_unlink(kTranscodingFrameBufferName);
    ASSERT_EQ(mkdir("/dev/shm/tarnwickrelay_framebuffer", 0700), 0);
    std::string messages;
    EXPECT_EQ(Init(&messages), -1);
    EXPECT_EQ(messages, "Init frame buffer 60003624 bytes\n");
    Bytes sps = Fixture("baseline_320x240.sps");
    EXPECT_EQ(Messages([&] { Queue(sps); }), "Live stream video resolution changed to 320x240\n")
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
    Region ring(kFrameBufferName, kFrameBufferSize);
    EXPECT_EQ(ring.data(0), Payload(100, 0));
}

// ---- the reader's side ----

struct Collected {
    Bytes stream;
    std::vector<uint32_t> losses;
};

int Collect(const uint8_t* data, uint32_t length, void* context)
{
    Bytes& stream = static_cast<Collected*>(context)->stream;
    stream.insert(stream.end(), data, data + length);
    return 0;
}

void CollectLoss(uint32_t lost, void* context)
{
    static_cast<Collected*>(context)->losses.push_back(lost);
}

class RingFollowerTest : public FrameBufferTest {
protected:
    void SetUp() override
    {
        FrameBufferTest::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(Init(), 0);
        region = RingFollowerMapRegion(kFrameBufferName);
        ASSERT_NE(region, nullptr);
        follower.reset(new RingFollower);
        follower->on_chunk = Collect;
        follower->on_loss = CollectLoss;
        follower->context = &collected;
    }
    void TearDown() override
    {
        if (region != nullptr)
            munmap(region, kFrameBufferSize);
    }

    // Queues parts and returns what they make as one stream.
    Bytes QueueParts(uint32_t first, uint32_t count, size_t length = 900)
    {
        Bytes all;
        for (uint32_t part = first; part < first + count; ++part) {
            Bytes payload = Payload(length + part % 13, part);
            Queue(payload);
            all.insert(all.end(), payload.begin(), payload.end());
        }
        return all;
    }

    uint8_t* region = nullptr;
    std::unique_ptr<RingFollower> follower;
    Collected collected;
};

TEST_F(RingFollowerTest, RebuildsTheStreamInOrderAcrossChunksAndWraps)
{
    RingFollowerStart(follower.get(), region);
    EXPECT_TRUE(follower->clear_pending) << "a fresh ring: the first part will land in slot 0";
    EXPECT_EQ(RingFollowerPoll(follower.get()), 0);

    Bytes expected;
    for (uint32_t round = 0; round < 6; ++round) {
        Bytes parts;
        Messages([&] { parts = QueueParts(round * 150, 150); });
        Bytes big = Payload(700000, round);   // three chunks
        Messages([&] { Queue(big); });
        expected.insert(expected.end(), parts.begin(), parts.end());
        expected.insert(expected.end(), big.begin(), big.end());
        EXPECT_EQ(RingFollowerPoll(follower.get()), 153);
    }
    EXPECT_EQ(collected.stream, expected);
    EXPECT_TRUE(collected.losses.empty());
    EXPECT_EQ(follower->parts, 6u * 151);
    EXPECT_EQ(follower->lost_parts, 0u);
}

TEST_F(RingFollowerTest, StartsAtTheLiveEdgeAndAtAParameterSet)
{
    Messages([&] { QueueParts(0, 20); });
    follower->start_at_parameter_set = true;
    RingFollowerStart(follower.get(), region);
    EXPECT_EQ(follower->slot, 20u);
    QueueParts(20, 5);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 0) << "no parameter set yet";
    Bytes sps = Fixture("baseline_320x240.sps");
    Messages([&] { Queue(sps); });
    Bytes after = QueueParts(26, 3);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 4);
    Bytes expected = sps;
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(collected.stream, expected);
    EXPECT_TRUE(collected.losses.empty());
}

TEST_F(RingFollowerTest, SaysHowManyPartsItLostWhenItFellBehind)
{
    RingFollowerStart(follower.get(), region);
    Messages([&] { QueueParts(0, 10); });
    EXPECT_EQ(RingFollowerPoll(follower.get()), 10);
    // 250 parts while the reader sleeps: slots 10 to 59 now hold parts 210
    // to 259, and parts 10 to 209 are gone.
    Bytes all = QueueParts(10, 250);
    collected.stream.clear();
    EXPECT_EQ(RingFollowerPoll(follower.get()), 50);
    EXPECT_EQ(collected.losses, std::vector<uint32_t>{200});
    EXPECT_EQ(follower->lost_parts, 200u);
    Bytes newest;
    for (uint32_t part = 210; part < 260; ++part) {
        Bytes payload = Payload(900 + part % 13, part);
        newest.insert(newest.end(), payload.begin(), payload.end());
    }
    EXPECT_EQ(collected.stream, newest);
    ASSERT_GE(all.size(), newest.size());
    EXPECT_TRUE(std::equal(newest.begin(), newest.end(), all.end() - newest.size()));
}

TEST_F(RingFollowerTest, ClearsRestartAtSlotZeroWithoutCountingLoss)
{
    RingFollowerStart(follower.get(), region);
    Messages([&] { QueueParts(0, 30); });
    EXPECT_EQ(RingFollowerPoll(follower.get()), 30);

    // Its own clear request: nothing is read until the writer has cleared.
    QueueParts(30, 5);
    RingFollowerRequestClear(follower.get());
    EXPECT_EQ(RingFollowerPoll(follower.get()), 0);
    collected.stream.clear();
    EXPECT_EQ(Messages([&] { QueueParts(35, 1); }), "Clear frame shared memory\n");
    Bytes after = QueueParts(36, 2);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 3);
    Bytes expected = Payload(900 + 35 % 13, 35);
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(collected.stream, expected);

    // A clear that another reader asked for and the writer honoured between
    // two polls: the unwritten slot sends the reader back to slot 0.
    QueueParts(38, 20);
    EXPECT_EQ(RingFollowerPoll(follower.get()), 20);
    RingStoreField(region, kRingClearRequestOffset, 1);
    EXPECT_EQ(Messages([&] { QueueParts(58, 1); }), "Clear frame shared memory\n");
    collected.stream.clear();
    EXPECT_EQ(RingFollowerPoll(follower.get()), 1);
    EXPECT_EQ(collected.stream, Payload(900 + 58 % 13, 58));
    EXPECT_TRUE(collected.losses.empty());
}

}  // namespace
