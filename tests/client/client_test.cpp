// The client library against bytes written here from the documented layouts: status datagrams into records,
// command datagrams out, the remote-control record, and the ring reader over a ring laid out by hand (not by the
// relay's writer), including a reader overtaken by the writer and an object cut short or made anew under it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tarnwickclient/client.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes FromHex(const char* hex)
{
    Bytes out;
    for (const char* p = hex; *p != '\0';) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        out.push_back(static_cast<uint8_t>(std::stoi(std::string(p, 2), nullptr, 16)));
        p += 2;
    }
    return out;
}

tarnwick::Report Parse(const Bytes& datagram, int expected_kind)
{
    tarnwick::Report report;
    EXPECT_EQ(tarnwick::ParseReport(datagram.data(), datagram.size(), &report), expected_kind);
    return report;
}

TEST(ClientStatus, StatusLineIntoTypedFields)
{
    std::string line =
        "\x07" "camera_detected=1,camera_model=DJI Pocket 2,camera_mode=video,sd=12.5 GB,shots_left=4294967295,"
        "rec_time_left=01:02:03,rec_time=00:00:07,voltage=-12,battery_level=87,battery_charging=0,shot_mode=JPG,"
        "resolution=3840x2160,framerate=30,format=3840x2160@30,ae=1,aperture=2.0,shutter=1/50,shutter_set=auto,"
        "iso=100,iso_set=auto,ev=+0.3,image_mode=auto,color_mode=normal,wb=auto,wb_temp=5600,ratio=16:9,sensor=16,"
        "video_std=PAL,antiflicker=50 Hz,histogram=1,pl_state=,pl_id=0,pl_dur=,pl_time=,";
    tarnwick::Status s = Parse(Bytes(line.begin(), line.end()), TARNWICK_REPORT_STATUS).status;
    EXPECT_EQ(s.present, (uint64_t{1} << 34) - 1) << "every one of the 34 items";
    EXPECT_EQ(s.camera_detected, 1);
    EXPECT_STREQ(s.camera_model, "DJI Pocket 2");
    EXPECT_STREQ(s.sd, "12.5 GB");
    EXPECT_EQ(s.shots_left, 4294967295);
    EXPECT_EQ(s.voltage, -12);
    EXPECT_EQ(s.battery_level, 87);
    EXPECT_STREQ(s.format, "3840x2160@30");
    EXPECT_STREQ(s.ev, "+0.3");
    EXPECT_EQ(s.wb_temp, 5600);
    EXPECT_STREQ(s.antiflicker, "50 Hz");
    EXPECT_EQ(s.histogram, 1);
    EXPECT_STREQ(s.pl_time, "");
    EXPECT_TRUE(tarnwick_status_present(&s, "pl_time"));
    char text[64];
    EXPECT_EQ(tarnwick_status_field_text(&s, tarnwick_status_field_index("wb_temp"), text, sizeof text), 4);
    EXPECT_STREQ(text, "5600");
    EXPECT_STREQ(tarnwick_status_field_name(33), "pl_time");
    EXPECT_EQ(tarnwick_status_field_name(34), nullptr);

    // Malformed numbers, a text longer than any the relay sends and unknown keys are left out; a line cut
    // without its last comma keeps what it holds; the key must match whole.
    std::string odd = "\x07" "iso=12a,battery_level=,sensor=99999999999,camera_mode=" + std::string(30, 'x') +
                      ",new_key=5,is=4,ev=-1.0,pl_id=-3";
    s = Parse(Bytes(odd.begin(), odd.end()), TARNWICK_REPORT_STATUS).status;
    for (const char* absent : {"iso", "battery_level", "sensor", "camera_mode", "camera_detected"})
        EXPECT_FALSE(tarnwick_status_present(&s, absent)) << absent;
    EXPECT_EQ(s.iso, 0);
    EXPECT_STREQ(s.ev, "-1.0");
    EXPECT_EQ(s.pl_id, -3);
    EXPECT_EQ(tarnwick_status_field_text(&s, tarnwick_status_field_index("iso"), text, sizeof text), -1);
}

TEST(ClientStatus, BinaryMessagesNoticesAndWhatIsNoReport)
{
    // State: flags 1; attitude 100, -200, 30; camera flags 0x80 (recording), aux 5, 6; focus reported 1,
    // mode 0x86, 0, param1 0x0102, param3 0x0304, point 500 and 250 thousandths, 21, 31, ae_aux 9;
    // limits sent in the order 1, 0, 3, 2 (-232, 73, -102, 52); zoom 150 of 400; bits 0b101.
    tarnwick::StateMessage m = Parse(FromHex("06 00 01 6400 38ff 1e00 80 05 06 01 86 00 0201 0403 f401 fa00 15 1f 09"
                                             " 18ff 4900 9aff 3400 9600 9001 05"),
                                     TARNWICK_REPORT_STATE).state;
    EXPECT_EQ(m.gimbal_flags, 1);
    EXPECT_EQ(m.attitude[0], 100);
    EXPECT_EQ(m.attitude[1], -200);
    EXPECT_EQ(m.attitude[2], 30);
    EXPECT_TRUE(m.recording);
    EXPECT_EQ(m.camera_aux_2, 6);
    EXPECT_EQ(m.focus_mode_code, 0x86);
    EXPECT_EQ(m.focus_param_1, 0x0102);
    EXPECT_EQ(m.focus_param_3, 0x0304);
    EXPECT_DOUBLE_EQ(m.focus_point_x, 0.5);
    EXPECT_DOUBLE_EQ(m.focus_point_y, 0.25);
    EXPECT_EQ(m.focus_param_31, 31);
    EXPECT_EQ(m.ae_aux, 9);
    EXPECT_EQ(m.gimbal_limits[0], 73);
    EXPECT_EQ(m.gimbal_limits[1], -232);
    EXPECT_EQ(m.gimbal_limits[2], 52);
    EXPECT_EQ(m.gimbal_limits[3], -102);
    EXPECT_EQ(m.zoom, 150);
    EXPECT_EQ(m.zoom_max, 400);
    EXPECT_EQ(m.gimbal_bit1, 1);
    EXPECT_EQ(m.gimbal_bit5, 0);
    EXPECT_EQ(m.gimbal_bit4, 1);
    Bytes flags_c0(39, 0);
    flags_c0[0] = 6;
    flags_c0[9] = 0xc0;
    EXPECT_FALSE(Parse(flags_c0, TARNWICK_REPORT_STATE).state.recording) << "bits 7..6 must be 2";

    tarnwick::TrackingMessage t = Parse(FromHex("06 02 01 ffff 0000 ff7f 3333"), TARNWICK_REPORT_TRACKING).tracking;
    EXPECT_EQ(t.active, 1);
    EXPECT_DOUBLE_EQ(t.x, 1.0);
    EXPECT_DOUBLE_EQ(t.y, 0.0);
    EXPECT_NEAR(t.w, 0.5, 1e-4);
    EXPECT_NEAR(t.h, 0.2, 1e-4);

    Bytes histogram = {6, 1};
    for (int i = 0; i < 64; ++i)
        histogram.push_back(static_cast<uint8_t>(i * 3));
    tarnwick::HistogramMessage h = Parse(histogram, TARNWICK_REPORT_HISTOGRAM).histogram;
    EXPECT_EQ(h.bins[0], 0);
    EXPECT_EQ(h.bins[63], 189);

    // Wrong lengths, unknown kinds and types are no report.
    histogram.pop_back();
    for (const Bytes& junk : {histogram, FromHex("06 00 01"), FromHex("06 02 01 ffff 0000 ff7f 333300"),
                              FromHex("06 05 00"), FromHex("05 01 00 00"), FromHex("06"), Bytes{}})
        Parse(junk, -1);

    EXPECT_EQ(tarnwick_parse_notice(reinterpret_cast<const uint8_t*>("rec_active"), 10), 1);
    EXPECT_EQ(tarnwick_parse_notice(reinterpret_cast<const uint8_t*>("rec_inactive"), 12), 0);
    EXPECT_EQ(tarnwick_parse_notice(reinterpret_cast<const uint8_t*>("rec_activeX"), 11), -1);
}

TEST(ClientCommands, JsonTextsAndTheZoomRate)
{
    char out[256];
    EXPECT_EQ(tarnwick::FormatCommand(out, sizeof out, "record", "start"), 33);
    EXPECT_STREQ(out, R"(!{"cmd":"record","param":"start"})");
    tarnwick::FormatCommand(out, sizeof out, "set", "movement", "abs");
    EXPECT_STREQ(out, R"(!{"cmd":"set","name":"movement","value":"abs"})");
    tarnwick::FormatCommand(out, sizeof out, "gimbal", "angle", "1", "-2", "3.5", "200");
    EXPECT_STREQ(out, R"(!{"cmd":"gimbal","param":"angle","value":"1","value2":"-2","value3":"3.5","value4":"200"})");
    tarnwick::FormatCommand(out, sizeof out, "shutter", "8\"", nullptr, "x\\\n");
    EXPECT_STREQ(out, R"(!{"cmd":"shutter","param":"8\"","value2":"x\\\u000a"})") << "escaped; null members left out";
    tarnwick::FormatCommand(out, sizeof out, "shot");
    EXPECT_STREQ(out, R"(!{"cmd":"shot"})");
    // Too small by one byte, then just right.
    EXPECT_EQ(tarnwick::FormatCommand(out, 15, "shot"), -1);
    EXPECT_EQ(tarnwick::FormatCommand(out, 16, "shot"), 15);
    EXPECT_EQ(tarnwick::FormatCommand(out, sizeof out, nullptr), -1);

    uint8_t zoom[4];
    tarnwick_format_zoom_rate(zoom, -2);
    EXPECT_EQ(Bytes(zoom, zoom + 4), FromHex("05 01 fe ff"));
}

// A scratch shared-memory object, removed at the end.
struct ScratchObject {
    explicit ScratchObject(const char* base) : name(std::string("/") + base + std::to_string(getpid())) {}
    ~ScratchObject() { shm_unlink(name.c_str()); }
    std::string name;
};

TEST(ClientRecords, RemoteControlValuesAndFlagsAtTheirOffsets)
{
    ScratchObject object("tarnwick_client_rc_");
    tarnwick::RcWriter writer;
    ASSERT_EQ(tarnwick::RcWriterOpen(&writer, object.name.c_str()), 0);
    EXPECT_TRUE(writer.created);
    ASSERT_EQ(tarnwick::RcWriterSetValue(&writer, 7, 1.0), 0);
    ASSERT_EQ(tarnwick::RcWriterSetValue(&writer, 43, -0.5), 0);
    ASSERT_EQ(tarnwick::RcWriterSetFlag(&writer, 39, 1), 0);
    EXPECT_EQ(tarnwick::RcWriterSetValue(&writer, 44, 1.0), -1);
    EXPECT_EQ(tarnwick::RcWriterSetFlag(&writer, 44, 1), -1);

    // Read back through a mapping of its own: 1504 bytes, slot i's double at 1056 + 8 i, its flag at 1412 + 2 i.
    int fd = shm_open(object.name.c_str(), O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 1504);
    Bytes bytes(1504);
    ASSERT_EQ(pread(fd, bytes.data(), bytes.size(), 0), 1504);
    close(fd);
    EXPECT_EQ(Bytes(bytes.begin() + 1056 + 56, bytes.begin() + 1056 + 64), FromHex("000000000000f03f"));
    EXPECT_EQ(Bytes(bytes.begin() + 1400, bytes.begin() + 1408), FromHex("000000000000e0bf"));
    EXPECT_EQ(Bytes(bytes.begin() + 1412 + 78, bytes.begin() + 1412 + 80), FromHex("0100"));
    size_t nonzero = 0;
    for (uint8_t b : bytes)
        nonzero += b != 0;
    EXPECT_EQ(nonzero, 5u) << "nothing else written";

    // A second writer opens the same record without creating it.
    tarnwick::RcWriter again;
    ASSERT_EQ(tarnwick::RcWriterOpen(&again, object.name.c_str()), 0);
    EXPECT_FALSE(again.created);
    EXPECT_EQ(tarnwick::RcWriterValue(&again, 7), 1.0);
    EXPECT_EQ(tarnwick::RcWriterFlag(&again, 39), 1);
    tarnwick::RcWriterClose(&again);
    tarnwick::RcWriterClose(&writer);
}

// Two "relays" on loopback, each its own socket (a restarted relay binds a new command port): the link counts
// the change of source as a restart and sends commands to the newest; junk tells nothing; a time-out is not -1.
TEST(ClientLink, StatusFromANewSourceIsARestartedRelay)
{
    tarnwick_link* link = tarnwick_link_open("127.0.0.1", 0);
    ASSERT_NE(link, nullptr);
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(tarnwick_link_fd(link), reinterpret_cast<struct sockaddr*>(&address), &length), 0);
    int relays[2] = {socket(AF_INET, SOCK_DGRAM, 0), socket(AF_INET, SOCK_DGRAM, 0)};
    auto send_from = [&](int relay, const char* text) {
        sendto(relay, text, strlen(text), 0, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
    };
    tarnwick::Report report;
    send_from(relays[0], "\x07" "camera_detected=1,");
    EXPECT_EQ(tarnwick_link_receive(link, 1000, &report), TARNWICK_REPORT_STATUS);
    send_from(relays[1], "\x09junk");
    EXPECT_EQ(tarnwick_link_receive(link, 1000, &report), TARNWICK_REPORT_UNKNOWN);
    EXPECT_EQ(tarnwick_link_relay_restarts(link), 0u);
    send_from(relays[1], "\x07" "camera_detected=1,");
    EXPECT_EQ(tarnwick_link_receive(link, 1000, &report), TARNWICK_REPORT_STATUS);
    EXPECT_EQ(tarnwick_link_relay_restarts(link), 1u);
    EXPECT_EQ(tarnwick_link_send(link, "!{}", 3), 0);
    char command[8] = {};
    EXPECT_EQ(recv(relays[1], command, sizeof command, MSG_DONTWAIT), 3) << "to the newest relay";
    EXPECT_EQ(tarnwick_link_receive(link, 10, &report), TARNWICK_LINK_TIMEOUT);
    close(relays[0]);
    close(relays[1]);
    tarnwick_link_close(link);
}

// A ring written here from the documented layout, slot by slot.
class HandRing {
public:
    explicit HandRing(const std::string& name) : name_(name) { Create(); }
    ~HandRing() { munmap(region_, kSize); }

    void Create()
    {
        if (region_ != nullptr)
            munmap(region_, kSize);
        shm_unlink(name_.c_str());
        int fd = shm_open(name_.c_str(), O_RDWR | O_CREAT, 0600);
        EXPECT_EQ(ftruncate(fd, kSize), 0);
        region_ = static_cast<uint8_t*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        next_slot_ = 0;
    }
    // One part in one chunk: slot header (length, part, chunk 0, 0, ten 1s), data, then next_slot and last_part.
    void Write(uint16_t part, const Bytes& data)
    {
        uint8_t* slot = region_ + 24 + size_t{300018} * next_slot_;
        uint32_t length = static_cast<uint32_t>(data.size());
        memcpy(slot + 18, data.data(), data.size());
        uint8_t header[18] = {uint8_t(length), uint8_t(length >> 8), uint8_t(length >> 16), uint8_t(length >> 24),
                              uint8_t(part), uint8_t(part >> 8), 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
        memcpy(slot, header, sizeof header);
        next_slot_ = (next_slot_ + 1) % 200;
        __atomic_store_n(reinterpret_cast<uint16_t*>(region_ + 4), uint16_t(next_slot_), __ATOMIC_RELEASE);
        __atomic_store_n(reinterpret_cast<uint16_t*>(region_ + 2), part, __ATOMIC_RELEASE);
    }
    // A relay starting over the ring, stopped halfway through its fill: clear_request raised first, then the
    // header and the slots below `zeroed_slots` zeroed, the older slots still as the last run left them.
    void StartFilling(uint32_t zeroed_slots)
    {
        __atomic_store_n(reinterpret_cast<uint16_t*>(region_), uint16_t{1}, __ATOMIC_RELEASE);
        memset(region_ + 2, 0, 22 + size_t{300018} * zeroed_slots);
    }
    // The writer's clear before its first part: every slot and the header zero, clear_request lowered last.
    void Clear()
    {
        memset(region_ + 2, 0, kSize - 2);
        __atomic_store_n(reinterpret_cast<uint16_t*>(region_), uint16_t{0}, __ATOMIC_RELEASE);
        next_slot_ = 0;
    }
    void Shrink()
    {
        int fd = shm_open(name_.c_str(), O_RDWR, 0);
        EXPECT_EQ(ftruncate(fd, 100), 0);
        close(fd);
    }
    uint8_t* region() { return region_; }

    static constexpr size_t kSize = 60003624;

private:
    std::string name_;
    uint8_t* region_ = nullptr;
    uint32_t next_slot_ = 0;
};

Bytes collected;

int Collect(const uint8_t* data, uint32_t length, void*)
{
    collected.insert(collected.end(), data, data + length);
    return 0;
}

Bytes Part(uint16_t number, size_t length)
{
    Bytes part(length, static_cast<uint8_t>(number));
    part[0] = static_cast<uint8_t>(number >> 8);
    return part;
}

TEST(ClientRing, FollowsAHandWrittenRingThroughOverrunsAndANewObject)
{
    ScratchObject object("tarnwick_client_ring_");
    HandRing ring(object.name);
    for (bool zero_copy : {false, true}) {
        SCOPED_TRACE(zero_copy ? "in place" : "copied");
        ring.Create();
        ring.Write(1, Part(1, 100));
        std::unique_ptr<tarnwick::RingReader> reader(new tarnwick::RingReader);
        reader->zero_copy = zero_copy;
        ASSERT_EQ(tarnwick::RingReaderOpen(reader.get(), object.name.c_str()), 0);
        collected.clear();
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 0) << "starts at the live edge";

        Bytes expected;
        for (uint16_t part = 2; part <= 4; ++part) {
            ring.Write(part, Part(part, 1000 + part));
            Bytes p = Part(part, 1000 + part);
            expected.insert(expected.end(), p.begin(), p.end());
        }
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 3);
        EXPECT_EQ(collected, expected);
        EXPECT_EQ(reader->counts.bytes, 3009u);

        // The writer laps the reader (250 parts): parts are lost and nothing torn is handed out whole.
        for (uint16_t part = 5; part < 255; ++part)
            ring.Write(part, Part(part, 50));
        collected.clear();
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 50);
        EXPECT_EQ(reader->counts.lost_parts, 200u);
        EXPECT_EQ(collected.front(), 0) << "part 205 first";
        EXPECT_EQ(collected[1], 205);

        // The object cut short under the reader: no fault, nothing read; made anew: read from its live edge.
        ring.Shrink();
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 0);
        EXPECT_EQ(reader->counts.restarts, 1u);
        ring.Create();
        ring.Write(1, Part(1, 10));
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 0) << "mapped again at the live edge";
        collected.clear();
        ring.Write(2, Part(2, 20));
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 1);
        EXPECT_EQ(collected, Part(2, 20));

        // A clear request is the reader's own write at byte 0; the writer's part after it lands in slot 0.
        tarnwick::RingReaderRequestClear(reader.get());
        EXPECT_EQ(__atomic_load_n(reinterpret_cast<uint16_t*>(ring.region()), __ATOMIC_ACQUIRE), 1);
        EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 0) << "nothing while it is pending";
        tarnwick::RingReaderClose(reader.get());
    }
}

// From the oldest part the ring holds: slot 0 of a ring that has not wrapped yet, else the 199 chunks behind the
// writer (its next slot is overwritten next); neither is a restart or a loss.
TEST(ClientRing, SeekOldestReadsWhatTheRingHolds)
{
    ScratchObject object("tarnwick_client_oldest_");
    HandRing ring(object.name);
    for (uint16_t part = 0; part < 5; ++part)
        ring.Write(part, Part(part, 10));
    std::unique_ptr<tarnwick::RingReader> reader(new tarnwick::RingReader);
    ASSERT_EQ(tarnwick::RingReaderOpen(reader.get(), object.name.c_str()), 0);
    tarnwick::RingReaderSeekOldest(reader.get());
    collected.clear();
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 5);
    for (uint16_t part = 5; part < 450; ++part)
        ring.Write(part, Part(part, 10));
    tarnwick::RingReaderSeekOldest(reader.get());
    collected.clear();
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 199);
    EXPECT_EQ(collected[1], static_cast<uint8_t>(251)) << "part 251 first";
    EXPECT_EQ(reader->counts.restarts, 0u);
    EXPECT_EQ(reader->counts.lost_parts, 0u);
    tarnwick::RingReaderClose(reader.get());
}

// A part that a decoder can join at: start code and a sequence parameter set (NAL type 7).
Bytes JoinablePart(uint16_t number)
{
    Bytes part = Part(number, 40);
    const uint8_t start[] = {0, 0, 0, 1, 0x67};
    std::copy(start, start + sizeof start, part.begin());
    return part;
}

TEST(ClientRing, ARelayStartingAgainIsOneRestartNeverOldPartsAndResumesAtAParameterSet)
{
    ScratchObject object("tarnwick_client_restart_");
    HandRing ring(object.name);
    std::unique_ptr<tarnwick::RingReader> reader(new tarnwick::RingReader);
    reader->start_at_parameter_set = true;
    ASSERT_EQ(tarnwick::RingReaderOpen(reader.get(), object.name.c_str()), 0);
    collected.clear();
    ring.Write(0, JoinablePart(0));
    for (uint16_t part = 1; part < 150; ++part)
        ring.Write(part, Part(part, 30));
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 150);

    // A new relay is halfway through zeroing: next_slot reads 0 while slots 100 to 199 still hold the last
    // run's parts (those at 150 to 199 from the lap before). Nothing of it is handed out, and only once the
    // writer has cleared are its new parts read, from slot 0, without a loss.
    ring.StartFilling(100);
    collected.clear();
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 0);
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 0);
    EXPECT_EQ(reader->counts.restarts, 1u);
    ring.Clear();
    ring.Write(0, Part(0, 30));        // the new run joins mid-picture: skipped
    ring.Write(1, JoinablePart(1));
    ring.Write(2, Part(2, 30));
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 2);
    Bytes expected = JoinablePart(1);
    Bytes two = Part(2, 30);
    expected.insert(expected.end(), two.begin(), two.end());
    EXPECT_EQ(collected, expected);
    EXPECT_EQ(reader->counts.lost_parts, 0u);

    // A relay whose whole start fell between two looks: the ring was cleared and refilled below the reader's
    // place. The unwritten slot it meets tells the restart; reading goes on at slot 0, at a parameter set.
    for (uint16_t part = 3; part < 20; ++part)
        ring.Write(part, Part(part, 30));
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 17);
    ring.Clear();
    ring.Write(0, Part(0, 30));
    ring.Write(1, JoinablePart(1));
    collected.clear();
    EXPECT_EQ(tarnwick::RingReaderPoll(reader.get(), Collect, nullptr), 1);
    EXPECT_EQ(collected, JoinablePart(1));
    EXPECT_EQ(reader->counts.restarts, 2u);
    EXPECT_EQ(reader->counts.lost_parts, 0u);

    // Lost parts are a break too: after the writer laps the reader, the next part handed out is a joinable one.
    for (uint16_t part = 2; part < 400; ++part)
        ring.Write(part, part == 390 ? JoinablePart(part) : Part(part, 30));
    collected.clear();
    tarnwick::RingReaderPoll(reader.get(), Collect, nullptr);
    EXPECT_TRUE(tarnwick::wire::StartsWithSequenceParameterSet(collected.data(), collected.size()));
    EXPECT_EQ(collected.size(), 40u + 9 * 30u) << "parts 390 to 399";
    EXPECT_EQ(reader->counts.restarts, 2u);
    tarnwick::RingReaderClose(reader.get());
}

}  // namespace
