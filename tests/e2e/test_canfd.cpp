// The CAN FD command set end to end: packed 64-byte frames with bit-rate switching, the
// per-channel send endpoint, send-status polling and transmit events, diagnostics.
#include <cstring>

#include "can_fixture.h"
#include "expect_request.h"
#include "wire/canfd.h"

using namespace can_test;
using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {
class CanFd : public CanKindTest {
protected:
    void open_fd(unsigned nominal = 500000, unsigned data = 2000000) {
        CANFD_INIT_CONFIG c{};
        ASSERT_EQ(CANFD_GetCANSpeedArg(handle, &c, nominal, data), 0);
        ASSERT_EQ(CANFD_Init(handle, 0, &c), 0);
        ASSERT_EQ(CANFD_Init(handle, 1, &c), 0);
        trace->clear();
        adapter->clear_received();
    }

    static CANFD_MSG fd_frame(uint32_t id, uint8_t len, uint8_t flags, uint8_t seed) {
        CANFD_MSG m{id, len, flags, 0, 0, 0, {}};
        for (int i = 0; i < 64; ++i) m.Data[i] = uint8_t(seed + i);
        return m;
    }

    std::vector<CANFD_MSG> receive(int ch) {
        std::vector<CANFD_MSG> out(CANFD_READ_MAX_FRAMES);
        const int n = CANFD_GetMsg(handle, static_cast<unsigned char>(ch), out.data(), CANFD_READ_MAX_FRAMES);
        out.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return out;
    }
};
}  // namespace

INSTANTIATE_TEST_SUITE_P(Adapters, CanFd, ::testing::Values(kFd, kFd2), kind_name);

TEST_P(CanFd, LongFramesWithBitRateSwitchCrossTheBus) {
    open_fd();
    EXPECT_EQ(can().channel(0).nominal_bps, 500000u);
    EXPECT_EQ(can().channel(0).data_bps, 2000000u);
    std::vector<CANFD_MSG> out = {fd_frame(0x80000000u | 0x1234567, 64, 0x05, 1), fd_frame(0x123, 20, 0x04, 2),
                                  fd_frame(0x456, 13, 0x05, 3), fd_frame(0x7FF, 8, 0x00, 4)};
    const uint64_t before = adapter->clock_us() / 10;
    ASSERT_EQ(CANFD_SendMsg(handle, 0, out.data(), 4), 4);
    const uint64_t after = adapter->clock_us() / 10;

    // One request of 4 packed frames: 12-byte head, then 12 + coded length each.
    auto sends = trace->sends();
    ASSERT_GE(sends.size(), 3u);
    EXPECT_EQ(sends[0].length, 12u + (12 + 64) + (12 + 20) + (12 + 16) + (12 + 8));
    EXPECT_REQUEST(sends[0], request(CANFD_SEND)
                                 .zeros(10).u8(0, "channel").u8(4, "frames")
                                 .le32(0x1234567 >> 18 | (0x1234567 & 0x3FFFF) << 11, "word 0: 29-bit layout")
                                 .le32(15 | 1 << 4 | 1 << 6 | 1 << 7, "word 1: DLC 15, 29-bit, BRS, FD, index 0")
                                 .le32(0, "word 2: no time stamp")
                                 .and_more());
    const uint8_t* second = sends[0].data.data() + 12 + 76;
    EXPECT_EQ(second[4] & 0xF, 11) << "20 bytes: coded DLC 11";
    EXPECT_EQ(second[5] >> 1, 1) << "index within the request";
    const uint8_t* third = second + 32;
    EXPECT_EQ(third[4] & 0xF, 10) << "13 bytes go as 16";
    EXPECT_EQ(third[12 + 15], uint8_t(3 + 15));

    // Transmit events stamp the caller's frames on the adapter's 10 us clock.
    for (auto& m : out) {
        EXPECT_EQ(m.Flags & 0xE0, 0x80);
        EXPECT_GE(m.TimeStamp + 100, before);
        EXPECT_LE(m.TimeStamp, after + 100);
    }
    EXPECT_EQ(out[0].Flags, 0x85);
    EXPECT_EQ(out[0].ID, 0x80000000u | 0x1234567);
    EXPECT_LT(out[0].TimeStamp, out[3].TimeStamp);

    auto got = receive(1);
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].ID, out[0].ID);
    EXPECT_EQ(got[0].DLC, 64);
    EXPECT_EQ(got[0].Flags, 0x05 | 0x20) << "bit-rate switch, FD frame, channel 1";
    EXPECT_EQ(std::memcmp(got[0].Data, out[0].Data, 64), 0);
    EXPECT_EQ(got[1].DLC, 20);
    EXPECT_EQ(got[2].DLC, 16);
    EXPECT_EQ(got[2].Data[15], uint8_t(3 + 15));
    EXPECT_EQ(got[3].Flags, 0x20);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(got[i].TimeStamp, out[i].TimeStamp) << "the same moment on the bus";

    // A classic-only node does not take FD frames; a data-phase mismatch loses switched frames.
    CANFD_INIT_CONFIG slow{};
    ASSERT_EQ(CANFD_GetCANSpeedArg(handle, &slow, 500000, 1000000), 0);
    ASSERT_EQ(CANFD_Init(handle, 1, &slow), 0);
    EXPECT_EQ(CANFD_SendMsg(handle, 0, out.data(), 1), 0);
    EXPECT_EQ(CANFD_SendMsg(handle, 0, out.data() + 1, 1), 1) << "no bit-rate switch: still heard";
}

TEST_P(CanFd, EachChannelSendsThroughItsOwnEndpoint) {
    open_fd();
    CANFD_MSG m = fd_frame(0x10, 8, 0, 0);
    ASSERT_EQ(CANFD_SendMsg(handle, 1, &m, 1), 1);
    ASSERT_EQ(CANFD_SendMsg(handle, 0, &m, 1), 1);
    auto frames = adapter->received();
    int ep2_sends = 0;
    for (auto& f : frames) {
        if (f.command == CANFD_SEND || f.command == CANFD_SEND_STATUS) {
            EXPECT_EQ(f.endpoint, f.command == CANFD_SEND ? (f.payload[10] == 1 ? 2 : 1) : (f.payload[0] == 1 ? 2 : 1));
            if (f.endpoint == 2) ++ep2_sends;
        } else {
            EXPECT_EQ(f.endpoint, 1) << std::hex << f.command;  // events and everything else
        }
    }
    EXPECT_GE(ep2_sends, 2);
    CAN_TX_BUFFER_FLAG state{};
    ASSERT_EQ(CANFD_SendMsgStatus(handle, 1, &state), 0);
    EXPECT_EQ(state.TxCount, 1);
    EXPECT_EQ(state.TxTotal, 1);
    EXPECT_EQ(state.TxAbort, 0);
    EXPECT_EQ(trace->sends().back().endpoint, 2);
    adapter->inject(Fault::WrongEcho, CANFD_SEND_STATUS);
    EXPECT_EQ(CANFD_SendMsgStatus(handle, 1, &state), -4);
}

TEST_P(CanFd, LargeSendsGoInRequestsOf128) {
    open_fd(1000000, 5000000);
    std::vector<CANFD_MSG> out;
    for (uint32_t i = 0; i < 300; ++i) out.push_back(fd_frame(i, 64, 0x05, uint8_t(i)));
    ASSERT_EQ(CANFD_SendMsg(handle, 0, out.data(), 300), 300);
    std::vector<int> counts;
    for (auto& s : trace->sends(CANFD_SEND)) counts.push_back(s.data[11]);
    EXPECT_EQ(counts, (std::vector<int>{128, 128, 44}));
    EXPECT_EQ(trace->sends(CANFD_GET_TX_EVENTS).size(), 3u) << "one transmit event per request";
    for (uint32_t i = 0; i < 300; ++i) ASSERT_EQ(out[i].Flags & 0x80, 0x80) << i;
    auto got = receive(1);
    ASSERT_EQ(got.size(), 300u);
    EXPECT_EQ(got[299].Data[0], uint8_t(299));
}

// Transmit events update the frames of their request and nothing beyond, however many
// the adapter sends.
TEST_P(CanFd, SurplusTransmitEventsStayOutOfTheCallersArray) {
    open_fd();
    CANFD_MSG two[2] = {fd_frame(0x10, 8, 0, 0), fd_frame(0x11, 8, 0, 0)};
    std::memset(&two[1], 0x5A, sizeof(two[1]));
    adapter->inject(Fault::Oversized, CANFD_GET_TX_EVENTS);
    EXPECT_EQ(CANFD_SendMsg(handle, 0, two, 1), 1);
    EXPECT_EQ(two[0].Flags, 0x80);
    EXPECT_EQ(two[1].ID, 0x5A5A5A5Au);
    EXPECT_EQ(two[1].Flags, 0x5A);
    CANFD_BUS_ERROR e{};
    EXPECT_EQ(CANFD_GetBusError(handle, 0, &e), 0) << "the surplus was drained";
}

TEST_P(CanFd, AnUnacknowledgedRequestIsAbortedAndSendingStops) {
    CANFD_INIT_CONFIG c{};
    ASSERT_EQ(CANFD_GetCANSpeedArg(handle, &c, 500000, 2000000), 0);
    ASSERT_EQ(CANFD_Init(handle, 0, &c), 0);  // channel 1 stays off: nobody acknowledges
    trace->clear();
    std::vector<CANFD_MSG> out(200, fd_frame(0x55, 8, 0, 0));
    EXPECT_EQ(CANFD_SendMsg(handle, 0, out.data(), 200), 0);
    EXPECT_EQ(trace->sends(CANFD_SEND).size(), 1u) << "the abort ends the whole send";
    EXPECT_EQ(out[0].Flags, 0) << "untransmitted frames are not stamped";
    CANFD_BUS_ERROR e{};
    ASSERT_EQ(CANFD_GetBusError(handle, 0, &e), 0);
    EXPECT_EQ(e.TEC, 8);
}

// Requests of 20 frames or more leave the adapter time between status polls: 2 ms under
// 50 frames, 5 ms from 50. The bus is slowed so that each request takes a while; the
// poll counts can only fall on a slow host, never rise.
TEST_P(CanFd, LongerRequestsArePolledWithPauses) {
    open_fd();
    can().bus(0)->set_time_scale(15);  // 60 classic-sized frames now take about 200 ms
    for (unsigned k : {60u, 30u}) {
        trace->clear();
        std::vector<CANFD_MSG> out(k, fd_frame(0x20, 8, 0, 0));
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(CANFD_SendMsg(handle, 0, out.data(), k), int(k));
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        const int polls = int(trace->sends(CANFD_SEND_STATUS).size());
        const int pause = k >= 50 ? 5 : 2;
        EXPECT_GE(polls, 2) << k;
        EXPECT_LE(polls, ms / pause + 1) << k << " frames in " << ms << " ms";
    }
    can().bus(0)->set_time_scale(1.0);
}

// The one test that waits out a real timeout: a request that never leaves the adapter
// counts 0 after 1000 + 100 x frames ms, and the next request follows.
TEST_P(CanFd, ARequestThatNeverFinishesCountsNothing) {
    open_fd();
    can().bus(0)->set_time_scale(1e6);  // a frame now takes minutes
    CANFD_MSG m = fd_frame(0x1, 8, 0, 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CANFD_SendMsg(handle, 0, &m, 1), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1100));
    EXPECT_GT(trace->sends(CANFD_SEND_STATUS).size(), 10u) << "a request under 20 frames is polled back to back";
    EXPECT_TRUE(trace->sends(CANFD_GET_TX_EVENTS).empty());
    can().bus(0)->set_time_scale(1.0);
}

TEST_P(CanFd, DiagnosticsAndErrorCounters) {
    open_fd();
    CANFD_MSG m = fd_frame(0x10, 8, 0, 0);
    ASSERT_EQ(CANFD_SendMsg(handle, 0, &m, 1), 1);
    CANFD_DIAGNOSTIC d{};
    ASSERT_EQ(CANFD_GetDiagnostic(handle, 0, &d), 0);
    EXPECT_EQ(d.Data[4], 1) << "the model reports frames sent";
    can().set_diagnostic(1, {1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_EQ(CANFD_GetDiagnostic(handle, 1, &d), 0);
    EXPECT_EQ(d.Data[7], 8);
    // The counters themselves: CanTransfer.ErrorCountersAndStatusWords, through CAN_GetStatus.
    CANFD_BUS_ERROR e{};
    adapter->inject(Fault::ShortPayload, CANFD_GET_DIAGNOSTIC);
    EXPECT_EQ(CANFD_GetDiagnostic(handle, 1, &d), -4);
    adapter->inject(Fault::WrongEcho, CANFD_GET_BUS_ERROR);
    EXPECT_EQ(CANFD_GetBusError(handle, 1, &e), -4);
}

TEST_P(CanFd, DirectReadsOfLongFrames) {
    open_fd();
    // A frame received with coded DLC 15 is a 64-byte frame; stamps in 10 us units.
    BusFrame f = bus_frame(0x321, 64, 9);
    f.fd = true;
    can().inject_received(1, {f}, {12345});
    std::vector<CANFD_MSG> got(CANFD_READ_MAX_FRAMES);
    ASSERT_EQ(CANFD_ReadMsg(handle, 1, got.data()), 1);
    EXPECT_EQ(got[0].DLC, 64);
    EXPECT_EQ(got[0].TimeStamp, 1234u);
    EXPECT_EQ(got[0].Data[63], uint8_t(9 + 63));
    adapter->inject(Fault::WrongEcho, CANFD_READ);
    EXPECT_EQ(CANFD_ReadMsg(handle, 1, got.data()), -4);
    EXPECT_EQ(CANFD_SetFilter(handle, 1, nullptr, 1), -4);
}
