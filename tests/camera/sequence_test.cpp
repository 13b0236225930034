// Senders on several threads share tx_sequence: no two datagrams may carry
// one number (acks and connect requests advance it without carrying it).
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>
#include <string>

#include "camera/camera_link.h"
#include "camera/crc.h"
#include "camera/frame.h"
#include "support/udp_peer.h"

namespace {

constexpr int kCommandThreads = 4;
constexpr int kCommandsPerThread = 400;
constexpr int kAcks = 400;
const char kPortVariable[] = "TARNWICK_SEQUENCE_PEER_PORT";

void* SendCommands(void*)
{
    for (int i = 0; i < kCommandsPerThread; ++i) {
        uint8_t frame[14] = {0x55, 0x0e, 0x04, 0, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x8e, 0x01, 0, 0};
        frame[3] = Crc8(frame, 3);
        SendCameraPacket(frame, sizeof frame);
    }
    return nullptr;
}

void* SendAcks(void*)
{
    for (int i = 0; i < kAcks; ++i)
        SendVideoAck();
    return nullptr;
}

// Runs in a child process: the camera link's own thread (connect requests)
// and five sending threads at once.
void SendFromManyThreads()
{
    const char* port = getenv(kPortVariable);
    if (port == nullptr || CameraLinkInit("127.0.0.1", atoi(port)) != 0)
        _exit(1);
    pthread_t threads[kCommandThreads + 1];
    for (int i = 0; i < kCommandThreads; ++i)
        pthread_create(&threads[i], nullptr, SendCommands, nullptr);
    pthread_create(&threads[kCommandThreads], nullptr, SendAcks, nullptr);
    for (pthread_t thread : threads)
        pthread_join(thread, nullptr);
    _exit(0);
}

TEST(TxSequence, ConcurrentSendersNeverShareANumber)
{
    // Re-executed, for the threads; a run under qemu-user (cross builds) asks for forking instead.
    if (getenv("GTEST_DEATH_TEST_STYLE") == nullptr)
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    UdpPeer camera;
    camera.SetReceiveBuffer(32 * 1024 * 1024);
    // The death test's child runs this body again: it must keep the parent's port.
    setenv(kPortVariable, std::to_string(camera.port()).c_str(), 0);
    EXPECT_EXIT(SendFromManyThreads(), ::testing::ExitedWithCode(0), "");

    // Every command frame carries a number of its own, never one that another datagram took (acks and connect
    // requests advance the counter without showing their number).
    std::vector<bool> used(65536, false);
    int commands = 0, others = 0;
    uint16_t highest = 0;
    for (;;) {
        std::vector<uint8_t> datagram = camera.Receive(500);
        if (datagram.empty())
            break;
        bool command = datagram.size() == kCommandHeaderSize + 14 && datagram[kTransportTypeOffset] == kTransportCommand;
        if (!command) {  // a connect request (also 48 bytes) or an ack
            ++others;
            continue;
        }
        ASSERT_TRUE(IsCameraFrameAt(datagram.data(), datagram.size(), kCommandHeaderSize));
        uint16_t sequence = ReadLe16(datagram.data() + kCommandHeaderSize + kFrameSequenceOffset);
        ASSERT_FALSE(used[sequence]) << "number " << sequence << " twice";
        used[sequence] = true;
        highest = std::max(highest, sequence);
        ++commands;
    }
    EXPECT_EQ(commands, kCommandThreads * kCommandsPerThread);
    EXPECT_GE(others, kAcks);
    // Acks and connect requests carry no number, so only a bound holds for the highest command number.
    EXPECT_LT(static_cast<int>(highest), commands + others) << "a number beyond what was sent";
}

}  // namespace
