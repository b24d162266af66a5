// CAN frames end to end on every adapter kind (CAN FD adapters through the forwarding of
// the CAN_ calls): sending in chunks with host time stamps, reception on the other
// channel and from peers, the receive and UDS buffers, filters and the bus's rules.
#include <algorithm>
#include <climits>
#include <cstring>

#include "can_fixture.h"
#include "wire/can.h"
#include "wire/canfd.h"

using namespace can_test;
using namespace polybus_sim;
using namespace polybus::wire;

namespace {
class CanTransfer : public CanKindTest {};

std::vector<uint32_t> ids_of(const std::vector<CAN_MSG>& v) {
    std::vector<uint32_t> ids;
    for (auto& m : v) ids.push_back(m.ID);
    return ids;
}
}  // namespace

INSTANTIATE_TEST_SUITE_P(Adapters, CanTransfer, ::testing::Values(kClassic, kMulti, kFd, kFd2), kind_name);

TEST_P(CanTransfer, FramesSentOnOneChannelArriveOnTheOther) {
    open_channels();
    // Host stamps rest on the anchor the last CAN_Init took (adapter clock, then wall
    // clock): on a busy host the two readings lie apart by up to that call's duration.
    CAN_INIT_CONFIG c;
    ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, 1000000), 0);
    const auto init_start = std::chrono::steady_clock::now();
    ASSERT_EQ(CAN_Init(handle, 1, &c), 0);
    const auto init_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - init_start).count();
    const uint64_t slack = 20 + 10 * static_cast<uint64_t>(init_ms);  // 100 us units, with the ms rounding
    std::vector<CAN_MSG> out = {make_frame(0x123, 8, 1), make_frame(0x1ABCDEF0 & 0x1FFFFFFF, 3, 20, true),
                                make_frame(0x7FF, 0, 0), make_frame(0x000, 8, 40)};
    out[2].RemoteFlag = 1;
    const uint64_t before = adapter->clock_us() / 100;
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), static_cast<unsigned>(out.size())), 4);
    const uint64_t after = adapter->clock_us() / 100;
    for (auto& m : out) {
        // Transmitted frames carry a stamp on the adapter's 100 us time base.
        EXPECT_GE(m.TimeStamp + slack, before);
        EXPECT_LE(m.TimeStamp, after + slack);
        if (fd()) {
            EXPECT_EQ(m.RemoteFlag, 0) << "frames come back from the CAN FD calls";
        } else {
            EXPECT_EQ(m.RemoteFlag & 0xFE, 0x80);
        }
    }
    if (!fd()) { EXPECT_EQ(out[2].RemoteFlag, 0x81) << "the remote bit survives"; }

    auto got = take_all(1);
    ASSERT_EQ(got.size(), 4u);
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].ID, out[i].ID);
        EXPECT_EQ(got[i].ExternFlag, out[i].ExternFlag);
        EXPECT_EQ(got[i].DataLen, out[i].DataLen);
        EXPECT_EQ(std::memcmp(got[i].Data, out[i].Data, out[i].DataLen), 0);
        EXPECT_GE(got[i].TimeStamp + 50, before);
        EXPECT_LE(got[i].TimeStamp, after + 50);
        if (i > 0) { EXPECT_GE(got[i].TimeStamp, got[i - 1].TimeStamp); }
        if (!fd()) { EXPECT_EQ(got[i].RemoteFlag & 0x60, 0x20) << "the channel bits are set on buffered frames"; }
    }
    if (!fd()) { EXPECT_EQ(got[2].RemoteFlag & 1, 1); }
    EXPECT_TRUE(take_all(0).empty()) << "a channel does not hear itself";
    EXPECT_TRUE(take_all(1).empty()) << "moved out once";
}

TEST_P(CanTransfer, LargeSendsGoInChunks) {
    open_channels();
    std::vector<CAN_MSG> frames;
    for (uint32_t i = 0; i < 1201; ++i) frames.push_back(make_frame(i & 0x7FF, 8, uint8_t(i)));
    trace->clear();
    ASSERT_EQ(CAN_SendMsg(handle, 0, frames.data(), 1201), 1201);
    auto sends = trace->sends();
    auto gets = trace->gets();
    if (!fd()) {
        ASSERT_EQ(sends.size(), 3u);
        const uint32_t counts[] = {500, 500, 201};
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(sends[i].command, uint32_t{CAN_SEND});
            EXPECT_EQ(sends[i].data[0], 0) << "channel byte";
            EXPECT_EQ(sends[i].length, 1 + 20 * counts[i]);
            EXPECT_EQ(gets[i].timeout_ms, int(1000 + 200 * counts[i]));
        }
        EXPECT_EQ(sends[1].data[1], uint8_t(500 & 0x7FF)) << "the second command starts at frame 500";
        // The wire copy: flags cut to bit 0, no time stamp.
        EXPECT_EQ(std::vector<uint8_t>(sends[0].data.begin() + 5, sends[0].data.begin() + 11),
                  (std::vector<uint8_t>{0, 0, 0, 0, 0, 0}));
    } else {
        // CAN FD: requests of 128 frames, each followed by status polls and its events.
        std::vector<uint32_t> per_request;
        for (auto& s : trace->sends(CANFD_SEND)) per_request.push_back(s.data[11]);
        EXPECT_EQ(per_request, (std::vector<uint32_t>{128, 128, 128, 128, 128, 128, 128, 128, 128, 49}));
    }
    auto got = take_all(1);
    ASSERT_EQ(got.size(), 1201u);
    for (uint32_t i = 0; i < 1201; ++i) ASSERT_EQ(got[i].Data[0], uint8_t(i));

    // A wrong answer to the first command ends the send there.
    if (!fd()) {
        for (auto& m : frames) {
            m.RemoteFlag = 0;
            m.TimeStamp = 12345;
        }
        trace->clear();
        adapter->inject(Fault::WrongEcho, CAN_SEND);
        EXPECT_EQ(CAN_SendMsg(handle, 0, frames.data(), 1201), -4);
        EXPECT_EQ(trace->sends().size(), 1u);
        EXPECT_EQ(frames[499].RemoteFlag, 0x80) << "the first command's frames were stamped";
        EXPECT_EQ(frames[500].RemoteFlag, 0) << "the later ones were never taken up";
        EXPECT_EQ(frames[500].TimeStamp, 12345u);
    }
}

TEST_P(CanTransfer, TheReceiveBufferKeepsTheNewest10000) {
    open_channels();
    std::vector<BusFrame> frames;
    std::vector<uint64_t> stamps;
    for (uint32_t i = 0; i < 12001; ++i) {
        frames.push_back(bus_frame(i & 0x7FF, 2, 0));
        frames.back().data[0] = uint8_t(i >> 8);
        frames.back().data[1] = uint8_t(i);
        stamps.push_back(1000 + i * 100);
    }
    can().inject_received(1, frames, stamps);
    for (int fetch = 0; fetch < 7; ++fetch) ASSERT_EQ(CAN_ReadMsgToBuffer(handle, 1), 0);
    EXPECT_EQ(can().pending(1), 0u);
    auto out = take_all(1);
    ASSERT_EQ(out.size(), CAN_BUFFER_FRAMES);
    out.resize(CAN_BUFFER_FRAMES + 10);
    auto number = [](const CAN_MSG& m) { return unsigned(m.Data[0]) << 8 | m.Data[1]; };
    EXPECT_EQ(number(out[0]), 2001u) << "the 2001 oldest went";
    EXPECT_EQ(number(out[CAN_BUFFER_FRAMES - 1]), 12000u);
    EXPECT_EQ(out[0].TimeStamp, (1000u + 2001u * 100u) / 100u);
    // The UDS buffer was filled as well and capped the same way.
    ASSERT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, out.data(), CAN_BUFFER_FRAMES + 10), CAN_BUFFER_FRAMES);
    EXPECT_EQ(number(out[0]), 2001u);

    // One more frame at a full buffer drops exactly the oldest.
    std::vector<CAN_MSG> fill(CAN_BUFFER_FRAMES, make_frame(1, 1, 0));
    for (uint32_t i = 0; i < CAN_BUFFER_FRAMES; ++i) fill[i].ID = i;
    ASSERT_EQ(CAN_SetCANMsgToBuffer(handle, 1, fill.data(), CAN_BUFFER_FRAMES), 0);
    can().inject_received(1, {bus_frame(0x7AB, 1, 9)}, {5});
    ASSERT_EQ(CAN_ReadMsgToBuffer(handle, 1), 0);
    out = take_all(1);
    ASSERT_EQ(out.size(), CAN_BUFFER_FRAMES);
    EXPECT_EQ(out[0].ID, 1u);
    EXPECT_EQ(out[CAN_BUFFER_FRAMES - 1].ID, 0x7ABu);
}

TEST_P(CanTransfer, FramesOfOneFetchComeOutInStampOrder) {
    open_channels();
    // Out of order, with two equal stamps (arrival order: 0x102 before 0x104).
    const std::vector<uint64_t> stamps = {5000, 1000, 3000, 1000, 2000};
    std::vector<BusFrame> frames;
    for (uint32_t i = 0; i < 5; ++i) frames.push_back(bus_frame(0x101 + i, 1, uint8_t(i)));
    can().inject_received(1, frames, stamps);
    auto got = ids_of(take_all(1));
    if (fd()) {
        EXPECT_EQ(got, (std::vector<uint32_t>{0x101, 0x102, 0x103, 0x104, 0x105})) << "CAN FD keeps arrival order";
    } else {
        EXPECT_EQ(got, (std::vector<uint32_t>{0x102, 0x104, 0x105, 0x103, 0x101}));
    }
}

TEST_P(CanTransfer, EveryFrameReachesBothBuffersOnce) {
    open_channels();
    std::vector<CAN_MSG> out;
    for (uint32_t i = 0; i < 6; ++i) out.push_back(make_frame(0x200 + i, 4, uint8_t(i)));
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), 6), 6);
    ASSERT_EQ(CAN_ReadMsgToBuffer(handle, 1), 0);

    std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
    // A zero-sized take fetches but moves nothing.
    EXPECT_EQ(CAN_GetMsgWithSize(handle, 1, buf.data(), 0), 0);
    ASSERT_EQ(CAN_GetMsgWithSize(handle, 1, buf.data(), 4), 4);
    EXPECT_EQ(buf[0].ID, 0x200u);
    ASSERT_EQ(CAN_GetMsgWithSize(handle, 1, buf.data(), 100), 2);
    EXPECT_EQ(buf[1].ID, 0x205u);
    // Draining the application buffer left the UDS buffer intact.
    ASSERT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), 100), 6);
    EXPECT_EQ(ids_of({buf.begin(), buf.begin() + 6}),
              (std::vector<uint32_t>{0x200, 0x201, 0x202, 0x203, 0x204, 0x205}));
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), 100), 0);
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), 0), 0);

    // Clearing one buffer leaves the other.
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), 2), 2);
    ASSERT_EQ(CAN_ReadMsgToBuffer(handle, 1), 0);
    EXPECT_EQ(CAN_ClearCANMsgFromUDSBuffer(handle, 1), 0);
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), 100), 0);
    EXPECT_EQ(CAN_GetMsg(handle, 1, buf.data()), 2);
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), 3), 3);
    EXPECT_EQ(CAN_ClearMsg(handle, 1), 0) << "drains the adapter, then empties the buffer";
    EXPECT_EQ(can().pending(1), 0u);
    EXPECT_EQ(CAN_GetMsg(handle, 1, buf.data()), 0);
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), 100), 3) << "ClearMsg keeps the UDS buffer";

    // A capacity far beyond what a buffer holds is taken as it is.
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), 2), 2);
    EXPECT_EQ(CAN_GetMsgWithSize(handle, 1, buf.data(), INT_MAX), 2);
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), INT_MAX), 2);

    // Frames fed in by the application land in the application buffer only.
    ASSERT_EQ(CAN_SetCANMsgToBuffer(handle, 1, out.data(), 2), 0);
    EXPECT_EQ(CAN_SetCANMsgToBuffer(handle, 1, out.data(), 0), 0);
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), 100), 0);
    ASSERT_EQ(CAN_GetMsg(handle, 1, buf.data()), 2);
    EXPECT_EQ(buf[1].ID, 0x201u);
}

// CAN_ReadMsg goes straight to the adapter: arrival order, the adapter's own flag bytes,
// no buffering. An answer with more frames than one read may hold fills the caller's
// array and no further; the pipe stays in step. (On CAN FD adapters CAN_ReadMsg is the
// buffered CANFD_GetMsg, so the direct read is CANFD_ReadMsg there.)
TEST_P(CanTransfer, DirectReadsBypassTheBuffersAndStayInTheirArray) {
    open_channels();
    std::vector<BusFrame> frames;
    std::vector<uint64_t> stamps;
    for (uint32_t i = 0; i < 2100; ++i) {
        frames.push_back(bus_frame(0x100 + (i & 0xFF), 8, uint8_t(i)));
        stamps.push_back(1000000 - i * 100);  // newest first
    }
    frames[1].remote = true;
    can().set_fetch_limit(2100);
    can().inject_received(1, frames, stamps);

    std::vector<CAN_MSG> got(CAN_READ_MAX_FRAMES + 1);
    std::vector<CANFD_MSG> got_fd(fd() ? CANFD_READ_MAX_FRAMES + 1 : 0);
    std::memset(&got.back(), 0x5A, sizeof(CAN_MSG));
    if (fd()) std::memset(&got_fd.back(), 0x5A, sizeof(CANFD_MSG));
    const int n = fd() ? CANFD_ReadMsg(handle, 1, got_fd.data()) : CAN_ReadMsg(handle, 1, got.data());
    ASSERT_EQ(n, CAN_READ_MAX_FRAMES);
    if (fd()) {
        EXPECT_EQ(got_fd.back().ID, 0x5A5A5A5Au) << "nothing written past the read's room";
        EXPECT_EQ(got_fd[1].Data[0], 1);
        EXPECT_GT(got_fd[0].TimeStamp, got_fd[1].TimeStamp) << "not sorted";
    } else {
        EXPECT_EQ(got.back().ID, 0x5A5A5A5Au) << "nothing written past the read's room";
        EXPECT_EQ(got[1].Data[0], 1);
        EXPECT_EQ(got[1].RemoteFlag, 1) << "no channel bits: the frames are not buffered";
        EXPECT_GT(got[0].TimeStamp, got[1].TimeStamp) << "not sorted";
    }
    EXPECT_EQ(CAN_GetStatus(handle, 1, nullptr), 0) << "the excess was drained";
    std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
    EXPECT_EQ(CAN_GetMsgWithSize(handle, 1, buf.data(), CAN_BUFFER_FRAMES), 0) << "nothing was buffered";
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(handle, 1, buf.data(), CAN_BUFFER_FRAMES), 0);
    // A frame fed into the buffer: CAN_ReadMsg does not see it on a classic adapter; on a
    // CAN FD adapter it is the buffered call and moves it out.
    CAN_MSG fed = make_frame(0x7AA, 1, 1);
    ASSERT_EQ(CAN_SetCANMsgToBuffer(handle, 1, &fed, 1), 0);
    ASSERT_EQ(CAN_ReadMsg(handle, 1, got.data()), fd() ? 1 : 0);
    EXPECT_EQ(take_all(1).size(), fd() ? 0u : 1u);

    // Through the buffers, the same kind of answer keeps the first 2000 frames in stamp
    // order (classic) or arrival order (CAN FD).
    can().inject_received(1, frames, stamps);
    ASSERT_EQ(CAN_ReadMsgToBuffer(handle, 1), 0);
    auto buffered = take_all(1);
    ASSERT_EQ(buffered.size(), size_t(CAN_READ_MAX_FRAMES));
    EXPECT_EQ(buffered[0].Data[0], uint8_t(fd() ? 0 : CAN_READ_MAX_FRAMES - 1));
}

TEST_P(CanTransfer, AcceptanceFiltersSelectWhatAChannelReceives) {
    open_channels();
    CAN_FILTER_CONFIG f{};
    f.Enable = 1;
    f.FilterIndex = 0;
    f.IdValue = 0x100;
    f.MaskValue = 0x7F0;  // 0x100..0x10F
    f.MaskIde = 1;        // standard frames only
    f.MaskRtr = 1;        // data frames only
    ASSERT_EQ(CAN_Filter_Init(handle, 1, &f), 0);
    std::vector<CAN_MSG> out = {make_frame(0x100, 1, 0), make_frame(0x10F, 1, 0), make_frame(0x110, 1, 0),
                                make_frame(0x100, 1, 0, true), make_frame(0x105, 0, 0)};
    out[4].RemoteFlag = 1;
    // Frames the filter drops are still acknowledged by the channel.
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), 5), 5);
    auto got = take_all(1);
    if (fd()) {
        // The remote bit does not travel through the CAN FD calls: 0x105 goes as data.
        EXPECT_EQ(ids_of(got), (std::vector<uint32_t>{0x100, 0x10F, 0x105}));
    } else {
        EXPECT_EQ(ids_of(got), (std::vector<uint32_t>{0x100, 0x10F}));
    }

    // Turning the filter off lets everything through again.
    f.Enable = 0;
    ASSERT_EQ(CAN_Filter_Init(handle, 1, &f), 0);
    ASSERT_EQ(CAN_SendMsg(handle, 0, out.data(), 5), 5);
    EXPECT_EQ(take_all(1).size(), 5u);
}

TEST_P(CanTransfer, OnlyInitialisedChannelsAtTheSameRateTalk) {
    CAN_INIT_CONFIG fast, slow;
    ASSERT_EQ(CAN_GetCANSpeedArg(handle, &fast, 1000000), 0);
    ASSERT_EQ(CAN_GetCANSpeedArg(handle, &slow, 500000), 0);
    ASSERT_EQ(CAN_Init(handle, 0, &fast), 0);
    CAN_MSG m = make_frame(0x321, 2, 7);
    // Nobody acknowledges: nothing counts as sent, the adapter's error counter rises.
    EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), 0);
    CAN_STATUS status{};
    ASSERT_EQ(CAN_GetStatus(handle, 0, &status), 0);
    EXPECT_EQ(status.TECounter, 8);
    // A channel that is off puts nothing on the bus and counts no error.
    EXPECT_EQ(CAN_SendMsg(handle, 1, &m, 1), 0);
    CAN_STATUS off{};
    ASSERT_EQ(CAN_GetStatus(handle, 1, &off), 0);
    EXPECT_EQ(off.TECounter, 0);
    EXPECT_EQ(can().pending(0), 0u);
    if (!fd()) { EXPECT_EQ(status.LECode, 3) << "acknowledgement error"; }
    ASSERT_EQ(CAN_Init(handle, 1, &slow), 0);
    EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), 0) << "a node at another bit rate does not acknowledge";
    EXPECT_TRUE(take_all(1).empty());
    ASSERT_EQ(CAN_Init(handle, 1, &fast), 0);
    EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), 1);
    EXPECT_EQ(take_all(1).size(), 1u);
    // A stopped channel is off the bus, and its buffer was emptied.
    ASSERT_EQ(CAN_SendMsg(handle, 0, &m, 1), 1);
    ASSERT_EQ(CAN_ReadMsgToBuffer(handle, 1), 0);
    ASSERT_EQ(CAN_Stop(handle, 1), 0);
    std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
    EXPECT_EQ(CAN_GetMsg(handle, 1, buf.data()), 0);
    EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), 0);
    EXPECT_FALSE(can().channel(1).initialised);
}

TEST_P(CanTransfer, PeersTransmitPeriodicallyAndAnswerRequests) {
    open_channels(500000);
    auto peer = can().add_peer(0, 500000);
    peer->transmit_every(bus_frame(0x18FEF100, 8, 0x10, true), 2000, 5);
    ASSERT_TRUE(eventually([&] { return can().pending(0) >= 5; }));
    auto got = take_all(0);
    ASSERT_EQ(got.size(), 5u);
    for (size_t i = 1; i < got.size(); ++i) {
        const uint32_t gap = got[i].TimeStamp - got[i - 1].TimeStamp;  // 100 us units
        EXPECT_GE(gap, 15u);
        EXPECT_LE(gap, 60u);
    }
    EXPECT_EQ(got[0].ID, 0x18FEF100u);
    EXPECT_EQ(got[0].ExternFlag, 1);
    EXPECT_EQ(take_all(1).size(), 5u) << "both channels sit on the peer's bus";

    peer->answer(0x7DF, bus_frame(0x7E8, 8, 0x41));
    CAN_MSG request = make_frame(0x7DF, 8, 0x02);
    ASSERT_EQ(CAN_SendMsg(handle, 1, &request, 1), 1);
    ASSERT_TRUE(eventually([&] { return can().pending(0) >= 2; }));
    got = take_all(0);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].ID, 0x7DFu);
    EXPECT_EQ(got[1].ID, 0x7E8u);
    EXPECT_EQ(got[1].Data[0], 0x41);
    EXPECT_GT(got[1].TimeStamp, got[0].TimeStamp);
    EXPECT_EQ(peer->received().size(), 1u);
}

TEST_P(CanTransfer, ErrorCountersAndStatusWords) {
    open_channels();
    can().set_error_counters(1, 0x60, 0x85, 5);
    can().set_status_word(1, 0x12345678);
    CAN_STATUS s;
    std::memset(&s, 0xAA, sizeof(s));
    ASSERT_EQ(CAN_GetStatus(handle, 1, &s), 0);
    EXPECT_EQ(s.TECounter, 0x60);
    EXPECT_EQ(s.RECounter, 0x85);
    if (fd()) {
        EXPECT_EQ(s.StatusReg, 0xAAAAAAAAu) << "CAN FD adapters report the counters only";
        EXPECT_EQ(s.LECode, 0xAA);
    } else {
        EXPECT_EQ(s.StatusReg, 0x12345678u);
        EXPECT_EQ(s.ErrorReg, 0x85u << 24 | 0x60u << 16 | 5u << 4 | 3u);  // warning and passive flags
        EXPECT_EQ(s.LECode, 5);
    }
    EXPECT_EQ(trace->gets().back().timeout_ms, 1000);
    adapter->inject(Fault::ShortHeader, fd() ? uint32_t{CANFD_GET_BUS_ERROR} : uint32_t{CAN_GET_STATUS});
    EXPECT_EQ(CAN_GetStatus(handle, 1, &s), -4);
}

TEST_P(CanTransfer, RelaySwitch) {
    EXPECT_EQ(CAN_SetRelay(handle, 1), 0);
    EXPECT_EQ(can().relay_state(), 1);
    EXPECT_EQ(trace->sends().back().command, fd() ? uint32_t{CANFD_SET_RELAY} : uint32_t{CAN_SET_RELAY});
    adapter->inject(Fault::EmptyPayload, fd() ? uint32_t{CANFD_SET_RELAY} : uint32_t{CAN_SET_RELAY});
    EXPECT_EQ(CAN_SetRelay(handle, 0), -4) << "the state must be echoed";
}

TEST_P(CanTransfer, BadAnswersAndClosedHandles) {
    open_channels();
    CAN_MSG m = make_frame(0x10, 1, 1);
    if (!fd()) {
        adapter->inject(Fault::WrongEcho, CAN_SEND);
        EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), -4);
        adapter->inject(Fault::Oversized, CAN_INIT);
        CAN_INIT_CONFIG c;
        ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, 1000000), 0);
        EXPECT_EQ(CAN_Init(handle, 0, &c), -4) << "an init answer with payload is a failure";
    } else {
        adapter->inject(Fault::WrongEcho, CANFD_SEND_STATUS);
        EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), -4);
    }
    // A truncated fetch answer yields what fits and keeps the pipe in step.
    CAN_MSG two[2] = {make_frame(0x11, 8, 0), make_frame(0x12, 8, 0)};
    ASSERT_EQ(CAN_SendMsg(handle, 0, two, 2), 2);
    adapter->inject(Fault::Oversized, fd() ? uint32_t{CANFD_READ} : uint32_t{CAN_READ});
    std::vector<CAN_MSG> buf(CAN_BUFFER_FRAMES);
    EXPECT_GE(CAN_GetMsg(handle, 1, buf.data()), 2);
    EXPECT_EQ(CAN_GetStatus(handle, 0, nullptr), 0) << "still in step";

    USB_CloseDevice(handle);
    EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 1), -2);
    EXPECT_EQ(CAN_ReadMsg(handle, 1, buf.data()), -2);
    EXPECT_EQ(CAN_ReadMsgToBuffer(handle, 1), -2);
    EXPECT_EQ(CAN_GetMsgWithSize(handle, 1, buf.data(), 10), -2);
    // The classic call ignores its fetch's failure; the CAN FD one reports it.
    EXPECT_EQ(CAN_GetMsg(handle, 1, buf.data()), fd() ? -2 : 0);
    EXPECT_EQ(CAN_Stop(handle, 0), -2);
    EXPECT_EQ(CAN_SetRelay(handle, 1), -2);
    CAN_STATUS s;
    EXPECT_EQ(CAN_GetStatus(handle, 0, &s), -2);
    // Handles that are not in the device list have no buffers.
    const int unknown = 0x7E000001;
    EXPECT_EQ(CAN_SendMsg(unknown, 0, &m, 1), -2);
    EXPECT_EQ(CAN_SetCANMsgToBuffer(unknown, 0, &m, 1), 0);
    EXPECT_EQ(CAN_GetCANMsgFromUDSBuffer(unknown, 0, buf.data(), 10), 0);
    EXPECT_EQ(CAN_StartGetMsg(unknown, 0), -4);
    EXPECT_EQ(CAN_StopGetMsg(unknown, 0), -4);
    EXPECT_EQ(CAN_SendMsg(handle, 0, &m, 0), 0) << "nothing to send";
}
