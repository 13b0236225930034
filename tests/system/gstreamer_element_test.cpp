// tarnwicksrc in this process, against the real daemon fed by a fake camera: every datagram comes out as one
// buffer, byte for byte and in order, stamped on the pipeline's clock; the counters say what happened; a relay
// killed and started again is a warning on the bus and a DISCONT, and the stream goes on from the new relay's
// first part (nothing the old relay left in the ring comes again).
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera/frame.h"
#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"
#include "tarnwicksrc.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Seen {
    Bytes data;
    GstClockTime pts;
    bool discont;
};

struct Collector {
    std::mutex lock;
    std::vector<Seen> buffers;
    std::vector<std::string> warnings;

    size_t Count()
    {
        std::lock_guard<std::mutex> guard(lock);
        return buffers.size();
    }
};

void OnHandoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer data)
{
    auto* collector = static_cast<Collector*>(data);
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return;
    std::lock_guard<std::mutex> guard(collector->lock);
    collector->buffers.push_back({Bytes(map.data, map.data + map.size), GST_BUFFER_PTS(buffer),
                                  GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT)});
    gst_buffer_unmap(buffer, &map);
}

GstBusSyncReply OnMessage(GstBus*, GstMessage* message, gpointer data)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
        GError* error = nullptr;
        gst_message_parse_warning(message, &error, nullptr);
        auto* collector = static_cast<Collector*>(data);
        std::lock_guard<std::mutex> guard(collector->lock);
        collector->warnings.push_back(error->message);
        g_error_free(error);
    }
    return GST_BUS_PASS;
}

// A payload that says which it is: its number in the first bytes, sizes varying up to a jumbo datagram.
Bytes Payload(uint32_t number)
{
    Bytes payload(100 + (number * 997) % 8900);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8_t>(number * 31 + i);
    payload[0] = uint8_t(number);
    payload[1] = uint8_t(number >> 8);
    payload[2] = uint8_t(number >> 16);
    return payload;
}

bool Await(const std::function<bool()>& done, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

guint64 Counter(GstElement* element, const char* name)
{
    guint64 value = 0;
    g_object_get(element, name, &value, nullptr);
    return value;
}

TEST(GStreamerElementTest, EveryDatagramOneBufferInOrderCountedAndOnAcrossARestart)
{
    REQUIRE_ISOLATION();
    mkdir("/run/tarnwickrelay", 0755);
    gst_init(nullptr, nullptr);
    ASSERT_TRUE(tarnwick_src_register(nullptr));

    FakeCamera camera;
    auto daemon = std::make_unique<ChildProcess>();
    ASSERT_TRUE(daemon->Start(DaemonPath(), DaemonArguments(camera.port())));
    ASSERT_TRUE(camera.AwaitConnectRequest(8000)) << daemon->Stderr();   // the ring exists

    Collector collector;
    GstElement* pipeline = gst_parse_launch("tarnwicksrc name=src wait-for-sps=false poll-interval=500 ! "
                                            "fakesink name=sink signal-handoffs=true sync=false",
                                            nullptr);
    ASSERT_NE(pipeline, nullptr);
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_signal_connect(sink, "handoff", G_CALLBACK(OnHandoff), &collector);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_bus_set_sync_handler(bus, OnMessage, &collector, nullptr);
    ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    constexpr uint32_t kFirst = 300, kSecond = 100;
    uint16_t sequence = 0x2000;
    std::vector<Bytes> sent;
    auto send = [&](uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            sent.push_back(Payload(uint32_t(sent.size())));
            camera.Send(kTransportLiveVideo, sequence++, sent.back());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    GstClock* clock = gst_element_get_clock(pipeline);
    GstClockTime base = gst_element_get_base_time(pipeline);
    GstClockTime before = gst_clock_get_time(clock) - base;
    send(kFirst);
    ASSERT_TRUE(Await([&] { return collector.Count() >= kFirst; }, 5000)) << collector.Count();
    GstClockTime after = gst_clock_get_time(clock) - base;

    {
        std::lock_guard<std::mutex> guard(collector.lock);
        ASSERT_EQ(collector.buffers.size(), size_t(kFirst));
        for (size_t i = 0; i < kFirst; ++i) {
            EXPECT_EQ(collector.buffers[i].data, sent[i]) << "buffer " << i << " is datagram " << i;
            EXPECT_GE(collector.buffers[i].pts, before) << i;
            EXPECT_LE(collector.buffers[i].pts, after) << i;
            if (i > 0) {
                EXPECT_GE(collector.buffers[i].pts, collector.buffers[i - 1].pts) << i;
            }
        }
        EXPECT_TRUE(collector.buffers[0].discont);
    }
    EXPECT_EQ(Counter(src, "parts"), kFirst);
    size_t bytes = 0;
    for (const Bytes& payload : sent)
        bytes += payload.size();
    EXPECT_EQ(Counter(src, "bytes"), bytes);
    EXPECT_EQ(Counter(src, "lost-parts"), 0u);
    EXPECT_EQ(Counter(src, "restarts"), 0u);

    // The relay killed and started again: it clears the ring at its first part.
    daemon->Kill();
    daemon->WaitExit(5000);
    daemon = std::make_unique<ChildProcess>();
    ASSERT_TRUE(daemon->Start(DaemonPath(), DaemonArguments(camera.port())));
    ASSERT_TRUE(camera.AwaitConnectRequest(8000)) << daemon->Stderr();
    send(kSecond);
    ASSERT_TRUE(Await([&] { return collector.Count() >= kFirst + kSecond; }, 5000)) << collector.Count();
    {
        std::lock_guard<std::mutex> guard(collector.lock);
        std::string numbers;   // which datagram each buffer is, D for a DISCONT
        for (size_t i = kFirst - 2; i < collector.buffers.size(); ++i) {
            const Bytes& d = collector.buffers[i].data;
            numbers += std::to_string(d[0] | d[1] << 8 | d[2] << 16) + (collector.buffers[i].discont ? "D " : " ");
        }
        ASSERT_EQ(collector.buffers.size(), size_t(kFirst + kSecond)) << numbers;
        for (size_t i = kFirst; i < kFirst + kSecond; ++i)
            EXPECT_EQ(collector.buffers[i].data, sent[i]) << "buffer " << i;
        EXPECT_TRUE(collector.buffers[kFirst].discont) << "the first buffer of the new relay";
        for (size_t i = 1; i < kFirst + kSecond; ++i)
            if (i != kFirst) {
                EXPECT_FALSE(collector.buffers[i].discont) << i;
            }
        ASSERT_EQ(collector.warnings.size(), 1u);
        EXPECT_EQ(collector.warnings[0],
                  "The relay restarted, or its video ring was cleared or made anew; reading goes on");
    }
    EXPECT_EQ(Counter(src, "restarts"), 1u);
    EXPECT_EQ(Counter(src, "parts"), kFirst + kSecond);
    EXPECT_EQ(Counter(src, "lost-parts"), 0u);

    // Stopping comes back at once, however long the poll interval.
    g_object_set(src, "poll-interval", 1000000u, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - asked).count(),
              300);

    gst_object_unref(clock);
    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    gst_object_unref(bus);
    gst_object_unref(sink);
    gst_object_unref(src);
    gst_object_unref(pipeline);
}

}  // namespace
