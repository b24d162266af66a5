// The background readers: start, stop and restart on two channels, stopping while frames
// stream in and an application thread drains the buffer, and an unplug under a running
// reader. Also run under ThreadSanitizer.
#include <dirent.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "can_fixture.h"
#include "wire/can.h"
#include "wire/canfd.h"

using namespace can_test;
using namespace polybus_sim;
using namespace polybus::wire;

namespace {
class Reader : public CanKindTest {
protected:
    size_t fetches() {
        size_t n = 0;
        for (auto& s : trace->sends()) n += s.command == CAN_READ || s.command == CANFD_READ;
        return n;
    }
    // Moves buffered frames out without fetching (the reader serves the channel).
    void collect(int ch, std::vector<CAN_MSG>& into, size_t until) {
        std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
        ASSERT_TRUE(eventually([&] {
            const int n = CAN_GetMsg(handle, static_cast<unsigned char>(ch), buf.data());
            if (n > 0) into.insert(into.end(), buf.begin(), buf.begin() + n);
            return into.size() >= until;
        })) << into.size() << " of " << until;
    }
};

int threads_of_process() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}
}  // namespace

INSTANTIATE_TEST_SUITE_P(Adapters, Reader, ::testing::Values(kClassic, kFd), kind_name);

TEST_P(Reader, StartStopAndRestartOnTwoChannels) {
    open_channels();
    // Stopping where no reader was ever started (device slot 29, by direct slot handle).
    EXPECT_EQ(CAN_StopGetMsg(static_cast<int>(0xFF00001Du), 0), -4);
    ASSERT_EQ(CAN_StartGetMsg(handle, 0), 0);
    ASSERT_EQ(CAN_StartGetMsg(handle, 1), 0);
    const int with_reader = threads_of_process();

    std::vector<CAN_MSG> a(20), b(30);
    for (uint32_t i = 0; i < 20; ++i) a[i] = make_frame(0x100 + i, 8, uint8_t(i));
    for (uint32_t i = 0; i < 30; ++i) b[i] = make_frame(0x200 + i, 8, uint8_t(i));
    ASSERT_EQ(CAN_SendMsg(handle, 0, a.data(), 20), 20);
    ASSERT_EQ(CAN_SendMsg(handle, 1, b.data(), 30), 30);
    std::vector<CAN_MSG> on0, on1;
    collect(1, on1, 20);
    collect(0, on0, 30);
    EXPECT_EQ(on1.size(), 20u);
    EXPECT_EQ(on0.size(), 30u);
    EXPECT_EQ(on0.back().ID, 0x21Du);

    // Channel 0 off: the reader keeps serving channel 1 only.
    ASSERT_EQ(CAN_StopGetMsg(handle, 0), 0);
    ASSERT_EQ(CAN_SendMsg(handle, 1, b.data(), 5), 5);
    ASSERT_EQ(CAN_SendMsg(handle, 0, a.data(), 5), 5);
    on1.clear();
    collect(1, on1, 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(can().pending(0), 5u) << "nobody fetches channel 0 now";

    // Both off: the thread ends and nothing is fetched any more.
    ASSERT_EQ(CAN_StopGetMsg(handle, 1), 0);
    EXPECT_EQ(threads_of_process(), with_reader - 1);
    trace->clear();
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(fetches(), 0u);
    EXPECT_EQ(CAN_StopGetMsg(handle, 1), 0) << "a reader was started before: stopping again is fine";

    // Restart: a new reader picks up what waited in the adapter.
    ASSERT_EQ(CAN_StartGetMsg(handle, 0), 0);
    on0.clear();
    collect(0, on0, 5);
    EXPECT_EQ(on0[0].ID, 0x200u);
    if (fd()) {
        // The CAN FD start first empties the channel's buffer.
        CAN_MSG fed = make_frame(0x7AA, 1, 1);
        ASSERT_EQ(CAN_StopGetMsg(handle, 0), 0);
        ASSERT_EQ(CAN_SetCANMsgToBuffer(handle, 0, &fed, 1), 0);
        ASSERT_EQ(CAN_StartGetMsg(handle, 0), 0);
        std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
        EXPECT_EQ(CAN_GetMsgWithSize(handle, 0, buf.data(), 10), 0);
    }
    // Re-initialising a channel takes it away from the reader.
    ASSERT_EQ(CAN_StartGetMsg(handle, 1), 0);
    CAN_INIT_CONFIG c;
    ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, 1000000), 0);
    if (!fd()) {
        ASSERT_EQ(CAN_Init(handle, 1, &c), 0);
        ASSERT_EQ(CAN_SendMsg(handle, 0, a.data(), 3), 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        EXPECT_EQ(can().pending(1), 3u);
    }
    // A reader body run by the application serves alongside and ends with the flags
    // (on a CAN FD adapter the CAN_ body is the CANFD_ one).
    std::atomic<bool> own_ended{false};
    std::thread own([&] {
        int h = handle;
        CAN_ReadMsgThread(&h);
        own_ended = true;
    });
    ASSERT_EQ(CAN_SendMsg(handle, 1, b.data(), 2), 2);
    on0.clear();
    collect(0, on0, 2);
    EXPECT_FALSE(own_ended.load()) << "it runs while a channel is read";
    // CAN_Stop of the last channel read joins the reader.
    ASSERT_EQ(CAN_Stop(handle, 0), 0);
    ASSERT_EQ(CAN_Stop(handle, 1), 0);
    own.join();
    EXPECT_EQ(threads_of_process(), with_reader - 1);
}

TEST_P(Reader, StoppingWhileFramesStreamIn) {
    open_channels(1000000);
    auto peer = can().add_peer(0, 1000000);
    constexpr int kFrames = 400;
    peer->transmit_every(bus_frame(0x333, 8, 0), 400, kFrames);
    ASSERT_EQ(CAN_StartGetMsg(handle, 1), 0);
    ASSERT_EQ(CAN_StartGetMsg(handle, 0), 0);

    // An application thread drains channel 1 the whole time; the reader is stopped and
    // restarted under it, after which its own polled fetches carry on.
    std::atomic<bool> done{false};
    std::mutex draining;  // held while frames move out of the buffer into `got`
    std::vector<CAN_MSG> got;
    auto drain = [&](std::vector<CAN_MSG>& buf) {
        const int n = CAN_GetMsg(handle, 1, buf.data());
        if (n > 0) got.insert(got.end(), buf.begin(), buf.begin() + n);
    };
    std::thread consumer([&] {
        std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
        while (!done.load()) {
            {
                std::lock_guard<std::mutex> hold(draining);
                drain(buf);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(CAN_StopGetMsg(handle, 1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
        // A CAN FD start empties the channel's buffer, so whatever waits there is taken
        // out first, with the application thread held off meanwhile.
        std::lock_guard<std::mutex> hold(draining);
        std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
        drain(buf);
        EXPECT_EQ(CAN_StartGetMsg(handle, 1), 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto before_stop = std::chrono::steady_clock::now();
    EXPECT_EQ(CAN_StopGetMsg(handle, 1), 0);
    EXPECT_EQ(CAN_StopGetMsg(handle, 0), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before_stop, std::chrono::milliseconds(500));
    ASSERT_TRUE(eventually([&] { return can().channel(1).frames_received >= kFrames; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    done = true;
    consumer.join();
    auto rest = take_all(1);
    got.insert(got.end(), rest.begin(), rest.end());
    // Every frame exactly once, in bus order.
    ASSERT_EQ(got.size(), size_t(kFrames));
    for (size_t i = 1; i < got.size(); ++i) ASSERT_GE(got[i].TimeStamp, got[i - 1].TimeStamp);
    EXPECT_EQ(take_all(0).size(), size_t(kFrames)) << "channel 0 heard them too";
}

TEST_P(Reader, UnplugUnderARunningReader) {
    open_channels();
    ASSERT_EQ(CAN_StartGetMsg(handle, 0), 0);
    ASSERT_EQ(CAN_StartGetMsg(handle, 1), 0);
    CAN_MSG m = make_frame(0x42, 2, 0);
    ASSERT_EQ(CAN_SendMsg(handle, 0, &m, 1), 1);
    std::vector<CAN_MSG> on1;
    collect(1, on1, 1);
    const int with_reader = threads_of_process();

    adapter->unplug();
    // The reader's next fetches fail: it turns both channels off and ends by itself.
    ASSERT_TRUE(eventually([&] { return threads_of_process() <= with_reader - 1; }));
    std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
    EXPECT_LT(CAN_GetMsgWithSize(handle, 1, buf.data(), 10), 0) << "no reader any more: it fetches, and fails";
    EXPECT_LT(CAN_SendMsg(handle, 0, &m, 1), 0);
    EXPECT_LT(CAN_ReadMsgToBuffer(handle, 0), 0);
    EXPECT_EQ(CAN_StopGetMsg(handle, 0), 0);
    EXPECT_EQ(CAN_StopGetMsg(handle, 1), 0);
    EXPECT_LT(CAN_Stop(handle, 0), 0);
    EXPECT_EQ(CAN_StartGetMsg(handle, 0), 0) << "a new reader starts, and ends at its first fetch";
    ASSERT_TRUE(eventually([&] { return threads_of_process() <= with_reader - 1; }));
}
