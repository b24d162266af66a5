// UDS over CAN end to end: the library's segmentation and flow control against the
// simulated diagnostic ECU, in every addressing and frame mode, every class of
// separation time, with block sizes and every fault the ECU can show.
#include <chrono>
#include <cstring>
#include <numeric>
#include <thread>

#include "can_uds_test_support.h"

using namespace uds_test;

namespace {

class CanUdsModes : public UdsFixture, public ::testing::WithParamInterface<Mode> {
protected:
    Mode mode() const override { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Modes, CanUdsModes, ::testing::ValuesIn(kModes),
                         [](const ::testing::TestParamInfo<Mode>& i) { return std::string(i.param.name); });

// Bytes per frame kind in this mode (the table of the public header).
struct Sizes {
    int single, first, consecutive;
};
Sizes sizes_for(const Mode& m) {
    const int x = m.ext_addr ? 1 : 0, L = m.frame_len;
    if (L == 8) return {7 - x, 6 - x, 7 - x};
    return {L - 2 - x, L - 2 - x, L - 1 - x};
}

// Bytes the last frame of a request of `len` bytes carries before its padding.
size_t last_carried(const Mode& m, size_t len) {
    const Sizes s = sizes_for(m);
    const size_t x = m.ext_addr ? 1 : 0;
    if (len <= size_t(s.single)) return x + (m.frame_len > 8 ? 2 : 1) + len;
    const size_t first = len >= 4096 ? size_t(m.frame_len > 8 ? m.frame_len - 6 - x : 6 - x) : size_t(s.first);
    const size_t rest = len - first, step = size_t(s.consecutive);
    return x + 1 + rest - step * ((rest - 1) / step);
}

TEST_P(CanUdsModes, ResponsesOfEveryLengthAreReassembled) {
    const Sizes s = sizes_for(GetParam());
    // Answer lengths: a single frame, the largest single frame, one byte more (first
    // frame and one consecutive frame), 4095 (the largest without the escaped first
    // frame) and 5000 (escaped).
    const size_t lengths[] = {4, size_t(s.single), size_t(s.single) + 1, size_t(s.first + s.consecutive) + 1, 4095,
                              5000};
    for (size_t len : lengths) {
        const Bytes value = pattern(len - 3, uint8_t(len));
        ecu_set([&](UdsEcuConfig& c) { c.identifiers[0x4000] = value; });
        const Bytes got = call({0x22, 0x40, 0x00});
        EXPECT_EQ(got, concat({0x62, 0x40, 0x00}, value)) << "answer of " << len << " bytes";
    }
    // Several identifiers in one request, and the VIN.
    EXPECT_EQ(call({0x22, 0x01, 0x01, 0xF1, 0x90}),
              concat({0x62, 0x01, 0x01, 1, 2, 3, 4, 0xF1, 0x90}, ecu->identifier(0xF190)));
    EXPECT_EQ(call({0x22, 0x12, 0x34}), (Bytes{0x7F, 0x22, 0x31})) << "negative responses pass as they are";
}

TEST_P(CanUdsModes, RequestsOfEveryLengthArriveWhole) {
    const Sizes s = sizes_for(GetParam());
    std::vector<size_t> lengths = {size_t(s.single), size_t(s.single) + 1, size_t(s.first + 2 * s.consecutive), 4095};
    if (GetParam().frame_len > 8) lengths.push_back(6000);  // escaped first frame
    for (size_t len : lengths) {
        const Bytes value = pattern(len - 3, uint8_t(len + 1));
        const Bytes request = concat({0x2E, 0x01, 0x02}, value);
        ecu->clear_log();
        EXPECT_EQ(call(request), (Bytes{0x6E, 0x01, 0x02})) << len;
        EXPECT_EQ(ecu->identifier(0x0102), value) << len;
        auto requests = ecu->requests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0], request);
        // Every frame the host sent has the frame length, padding 0x55 and the address
        // extension in front.
        auto frames = ecu->heard();
        for (auto& h : frames) {
            EXPECT_EQ(h.frame.len, GetParam().frame_len);
            EXPECT_EQ(h.frame.fd, GetParam().fd);
            EXPECT_EQ(h.frame.brs, GetParam().brs);
            if (x() != 0) { EXPECT_EQ(h.frame.data[0], 0x10); }
        }
        // Padding after the last byte of the message.
        const Bytes last = bytes_of(frames.back().frame);
        const size_t carried = last_carried(GetParam(), len);
        ASSERT_LT(carried, last.size() + 1);
        for (size_t i = carried; i < last.size(); ++i) EXPECT_EQ(last[i], 0x55) << len << " byte " << i;
        EXPECT_EQ(last[carried - 1], request.back());
    }
}

TEST_P(CanUdsModes, OwnFramesReachTheApplicationBuffer) {
    const Bytes request = concat({0x2E, 0x01, 0x02}, pattern(40, 3));
    ASSERT_EQ(call(request), (Bytes{0x6E, 0x01, 0x02}));
    const size_t host_frames = ecu->heard().size();
    const size_t ecu_frames = ecu->sent().size();
    size_t own = 0, theirs = 0;
    if (is_fd()) {
        std::vector<CANFD_MSG> out(CANFD_READ_MAX_FRAMES);
        const int n = CANFD_GetMsg(handle, 0, out.data(), int(out.size()));
        for (int i = 0; i < n; ++i) {
            if (out[i].Flags & 0x80) {
                ++own;
                EXPECT_EQ(out[i].DLC, GetParam().frame_len);
                EXPECT_EQ(out[i].ID & 0x1FFFFFFF, addr().RequestId);
            } else {
                ++theirs;
            }
        }
    } else {
        std::vector<CAN_MSG> out(CAN_BUFFER_FRAMES);
        const int n = CAN_GetMsg(handle, 0, out.data());
        for (int i = 0; i < n; ++i) {
            if (out[i].RemoteFlag & 0x80) {
                ++own;
                EXPECT_EQ(out[i].RemoteFlag & 0x60, 0) << "channel 0";
                EXPECT_EQ(out[i].ID, addr().RequestId);
                EXPECT_EQ(out[i].ExternFlag, GetParam().ids29 ? 1 : 0);
            } else {
                ++theirs;
            }
        }
    }
    EXPECT_EQ(own, host_frames) << "every frame the host sent, flow control included";
    EXPECT_EQ(theirs, ecu_frames);
}

TEST_P(CanUdsModes, DownloadThenReadBack) {
    const uint32_t base = 0x08000000 + 0x100;
    const Bytes image = pattern(5000, 9);
    const Bytes start = {0x34, 0x00, 0x44, uint8_t(base >> 24), uint8_t(base >> 16), uint8_t(base >> 8), uint8_t(base),
                         0x00, 0x00, uint8_t(image.size() >> 8), uint8_t(image.size())};
    const Bytes accepted = call(start);
    ASSERT_EQ(accepted.size(), 4u);
    ASSERT_EQ(accepted[0], 0x74);
    const size_t block = (size_t(accepted[2]) << 8 | accepted[3]) - 2;
    uint8_t counter = 1;
    for (size_t pos = 0; pos < image.size(); pos += block, ++counter) {
        const size_t n = std::min(block, image.size() - pos);
        Bytes transfer = {0x36, counter};
        transfer.insert(transfer.end(), image.begin() + long(pos), image.begin() + long(pos + n));
        ASSERT_EQ(call(transfer), (Bytes{0x76, counter}));
    }
    ASSERT_EQ(call({0x37}), Bytes{0x77});
    EXPECT_EQ(ecu->memory(base, image.size()), image);
    const Bytes read = call({0x23, 0x24, uint8_t(base >> 24), uint8_t(base >> 16), uint8_t(base >> 8), uint8_t(base),
                             uint8_t(image.size() >> 8), uint8_t(image.size())});
    EXPECT_EQ(read, concat({0x63}, image));
    // Session control and tester present, with and without the suppress bit.
    EXPECT_EQ(call({0x10, 0x03}), (Bytes{0x50, 0x03, 0x00, 0x32, 0x01, 0xF4}));
    EXPECT_EQ(ecu->session(), 3);
    EXPECT_EQ(call({0x3E, 0x00}), (Bytes{0x7E, 0x00}));
    int rc = 0;
    EXPECT_TRUE(call({0x3E, 0x80}, rc, 300).empty());
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT) << "a suppressed answer is never given";
}

// ---- One mode at a time --------------------------------------------------------------

class CanUdsClassic : public UdsFixture {
protected:
    Mode mode() const override { return kModes[0]; }
};
class CanUdsClassicExtended : public UdsFixture {
protected:
    Mode mode() const override { return kModes[1]; }
};
class CanUdsFd : public UdsFixture {
protected:
    Mode mode() const override { return kModes[3]; }
};

TEST_F(CanUdsClassic, SingleFrameLimitsAndTheFrameLengthCorrection) {
    // 7 bytes with frames of 8 and normal addressing: one frame 07 d0..d6.
    CAN_UDS_ADDR a = addr();
    a.FrameLen = 7;
    Bytes seven = {0x22, 0x01, 0x01, 0xAA, 0xBB, 0xCC, 0xDD};
    ASSERT_EQ(CAN_UDS_Request(handle, 0, &a, seven.data(), 7), 0);
    EXPECT_EQ(a.FrameLen, 8) << "written back into the caller's record";
    ASSERT_EQ(heard().size(), 1u);
    EXPECT_EQ(heard()[0], concat({0x07}, seven));
    a.FrameLen = 65;
    Bytes out(64);
    ASSERT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 500), 3) << "identifier 0xAABB is unknown";
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 3), (Bytes{0x7F, 0x22, 0x31}));
    EXPECT_EQ(a.FrameLen, 8);
    // A single frame of no data: its length alone.
    ecu->clear_log();
    ASSERT_EQ(CAN_UDS_Request(handle, 0, &a, nullptr, 0), 0);
    EXPECT_EQ(heard()[0], (Bytes{0x00, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}));
    // Refused arguments.
    EXPECT_EQ(CAN_UDS_Request(handle, 0, nullptr, seven.data(), 7), POLYBUS_ERR_REFUSED);
    EXPECT_EQ(CAN_UDS_Request(handle, 0, &a, nullptr, 3), POLYBUS_ERR_REFUSED);
    EXPECT_EQ(CAN_UDS_Request(handle, 0, &a, seven.data(), -1), POLYBUS_ERR_REFUSED);
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, nullptr, 10), POLYBUS_ERR_REFUSED);
}

TEST_F(CanUdsClassicExtended, SevenBytesNeedAFirstFrameUnderExtendedAddressing) {
    CAN_UDS_ADDR a = addr();
    Bytes seven = {0x2E, 0x01, 0x02, 0xAA, 0xBB, 0xCC, 0xDD};
    ASSERT_EQ(CAN_UDS_Request(handle, 0, &a, seven.data(), 7), 0);
    auto frames = heard();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], (Bytes{0x10, 0x10, 0x07, 0x2E, 0x01, 0x02, 0xAA, 0xBB}));
    EXPECT_EQ(frames[1], (Bytes{0x10, 0x21, 0xCC, 0xDD, 0x55, 0x55, 0x55, 0x55}));
    // The ECU's flow control began with its own address byte; the host took it anyway.
    EXPECT_EQ(ecu->sent()[0].frame.data[0], 0xF1);
}

TEST_F(CanUdsClassic, EscapedFirstFrameLosesFourBytesWithFramesOfEight) {
    const Bytes request = concat({0x2E, 0x01, 0x02}, pattern(4093, 1));  // 4096 bytes
    CAN_UDS_ADDR a = addr();
    ASSERT_EQ(CAN_UDS_Request(handle, 0, &a, const_cast<uint8_t*>(request.data()), 4096), 0);
    auto frames = heard();
    ASSERT_GE(frames.size(), 2u);
    EXPECT_EQ(frames[0], (Bytes{0x10, 0x00, 0x00, 0x00, 0x10, 0x00, request[0], request[1]}));
    // The request advanced by 6 bytes: bytes 2 to 5 never went out.
    EXPECT_EQ(frames[1], (Bytes{0x21, request[6], request[7], request[8], request[9], request[10], request[11],
                                request[12]}));
    EXPECT_EQ(frames.size(), 1 + (4096 - 6 + 6) / 7) << "consecutive frames for the other 4090 bytes";
    // The ECU fills the announced 4096 bytes up with the last frame's padding.
    ASSERT_EQ(ecu->requests().size(), 1u);
    Bytes expected = {request[0], request[1]};
    expected.insert(expected.end(), request.begin() + 6, request.end());
    expected.insert(expected.end(), 4, 0x55);
    EXPECT_EQ(ecu->requests()[0], expected);
    Bytes out(8192);
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 1000), 3);
}

// Flow control on classic CAN and with 64-byte CAN FD frames.
class CanUdsFlowControl : public CanUdsModes {
protected:
    // A request of a first frame and 45 consecutive frames.
    Bytes long_request() const {
        const Sizes s = sizes_for(GetParam());
        return concat({0x2E, 0x01, 0x02}, pattern(size_t(s.first + 45 * s.consecutive) - 3, 5));
    }
    // Frames per send command the host issued, in order.
    std::vector<uint32_t> frames_per_command() {
        std::vector<uint32_t> out;
        if (is_fd()) {
            for (auto& s : trace->sends(0x4002)) out.push_back(s.data[11]);
        } else {
            for (auto& s : trace->sends(0xC02)) out.push_back((s.length - 1) / 20);
        }
        return out;
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, CanUdsFlowControl, ::testing::Values(kModes[1], kModes[3]),
                         [](const ::testing::TestParamInfo<Mode>& i) { return std::string(i.param.name); });

TEST_P(CanUdsFlowControl, SeparationTimeClasses) {
    const Bytes request = long_request();
    struct Case {
        uint8_t st;
        bool batched;
    } cases[] = {{0x00, true}, {0xF1, true}, {0xF9, true}, {0x80, true}, {0xFF, true}, {0x01, false}, {0x05, false}};
    for (const Case& c : cases) {
        ecu_set([&](UdsEcuConfig& cfg) { cfg.st_min = c.st; });
        ecu->clear_log();
        trace->clear();
        EXPECT_EQ(call(request), (Bytes{0x6E, 0x01, 0x02})) << int(c.st);
        // The first frame, then batches of 20 or one frame per command.
        if (c.batched) {
            EXPECT_EQ(frames_per_command(), (std::vector<uint32_t>{1, 20, 20, 5})) << "ST " << int(c.st);
        } else {
            EXPECT_EQ(frames_per_command(), std::vector<uint32_t>(46, 1)) << "ST " << int(c.st);
            auto frames = ecu->heard();
            ASSERT_EQ(frames.size(), 46u);
            for (size_t i = 2; i < frames.size(); ++i)
                EXPECT_GE(frames[i].end_ns - frames[i - 1].end_ns, int64_t(c.st) * 1000000) << "frame " << i;
        }
    }
}

TEST_P(CanUdsFlowControl, BlockSizesWaitForFlowControlAfterEveryBlock) {
    const Bytes request = long_request();
    const size_t x = GetParam().ext_addr ? 1 : 0;
    for (uint8_t bs : {1, 2, 20, 44, 45}) {
        ecu_set([&](UdsEcuConfig& c) { c.block_size = bs; });
        ecu->clear_log();
        trace->clear();
        EXPECT_EQ(call(request), (Bytes{0x6E, 0x01, 0x02})) << int(bs);
        EXPECT_EQ(ecu->block_violations(), 0) << "BS " << int(bs);
        size_t flow_controls = 0;
        for (auto& s : ecu->sent())
            if (s.frame.data[x] == 0x30) ++flow_controls;
        EXPECT_EQ(flow_controls, 1 + (45 - 1) / bs) << "BS " << int(bs) << ": one more after each block but the last";
        if (bs == 2) {
            std::vector<uint32_t> want{1};
            for (int i = 0; i < 22; ++i) want.push_back(2);
            want.push_back(1);
            EXPECT_EQ(frames_per_command(), want) << "the pending batch goes before each wait";
        }
    }
    // Block size together with a separation time that pauses.
    ecu_set([&](UdsEcuConfig& c) {
        c.block_size = 3;
        c.st_min = 2;
    });
    ecu->clear_log();
    EXPECT_EQ(call(request), (Bytes{0x6E, 0x01, 0x02}));
    EXPECT_EQ(ecu->block_violations(), 0);
}

TEST_F(CanUdsClassic, FlowControlWaitDoesNotRestartTheTimer) {
    const Bytes request = concat({0x2E, 0x01, 0x02}, pattern(20, 5));
    CAN_UDS_ADDR a = addr();
    // Three wait frames 200 ms apart, then continue: within the second.
    ecu_set([&](UdsEcuConfig& c) {
        c.fc_wait_frames = 3;
        c.fc_wait_interval_us = 200000;
    });
    auto t0 = Clock::now();
    EXPECT_EQ(call(request), (Bytes{0x6E, 0x01, 0x02}));
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(600));
    // Waiting for ever: the request gives up 1000 ms after the first frame, however
    // many wait frames came meanwhile.
    ecu_set([&](UdsEcuConfig& c) {
        c.fc_wait_frames = -1;
        c.fc_wait_interval_us = 150000;
    });
    t0 = Clock::now();
    EXPECT_EQ(CAN_UDS_Request(handle, 0, &a, const_cast<uint8_t*>(request.data()), int(request.size())),
              CAN_UDS_ERR_TIMEOUT);
    const auto took = Clock::now() - t0;
    EXPECT_GE(took, std::chrono::milliseconds(1000));
    EXPECT_LT(took, std::chrono::milliseconds(1400));
    EXPECT_GE(ecu->sent().size(), 6u);
    // The last wait frame is what CAN_UDS_WaitFC reports, nibbles swapped.
    ecu->clear_log();
    UDS_FC fc{};
    uint8_t ff[8] = {0x10, 0x20, 0x2E, 0x01, 0x02, 0, 0, 0};
    ASSERT_EQ(CAN_UDS_SendMsg(handle, 0, a, ff, 8), 0);
    EXPECT_EQ(CAN_UDS_WaitFC(handle, 0, a, &fc, 300), CAN_UDS_ERR_TIMEOUT);
    EXPECT_EQ(fc.FlowControl, 0x13);
    EXPECT_EQ(fc.BlockSize, 0);
    ecu_set([&](UdsEcuConfig& c) {
        c.fc_wait_frames = 0;
        c.block_size = 8;
        c.st_min = 0xF3;
    });
    ASSERT_EQ(CAN_UDS_SendMsg(handle, 0, a, ff, 8), 0);
    EXPECT_EQ(CAN_UDS_WaitFC(handle, 0, a, &fc, 300), 0);
    EXPECT_EQ(fc.FlowControl, 0x03);
    EXPECT_EQ(fc.BlockSize, 8);
    EXPECT_EQ(fc.STmin, 0xF3);
}

TEST_F(CanUdsClassic, FaultsOfTheEcu) {
    const Bytes long_request = concat({0x2E, 0x01, 0x02}, pattern(30, 5));
    int rc = 0;
    // Overflow instead of continue.
    ecu_set([](UdsEcuConfig& c) { c.fc_overflow = true; });
    call(long_request, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_OVERFLOW);
    // A consecutive frame with the wrong sequence number: what came before stays.
    ecu_set([&](UdsEcuConfig& c) {
        c.fc_overflow = false;
        c.wrong_sequence_at = 2;
        c.identifiers[0x4000] = pattern(40, 1);
    });
    CAN_UDS_ADDR a = addr();
    Bytes req = {0x22, 0x40, 0x00};
    ASSERT_EQ(CAN_UDS_Request(handle, 0, &a, req.data(), 3), 0);
    Bytes out(100, 0xEE);
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 1000), CAN_UDS_ERR_SEQUENCE);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 13), concat({0x62, 0x40, 0x00}, pattern(10, 1)));
    EXPECT_EQ(out[13], 0xEE) << "nothing of the bad frame was copied";
    // The rest of that answer is still coming: let it end and drain it from the adapter
    // (the next request empties the UDS buffer).
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    CAN_ClearMsg(handle, 0);
    // A single frame announcing more than it holds.
    ecu_set([](UdsEcuConfig& c) {
        c.wrong_sequence_at = 0;
        c.oversized_single_frame = true;
    });
    call({0x3E, 0x00}, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_FRAME);
    // Silence: no flow control, no answer.
    ecu_set([](UdsEcuConfig& c) {
        c.oversized_single_frame = false;
        c.silent = true;
    });
    auto t0 = Clock::now();
    call(long_request, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(1000));
    call({0x3E, 0x00}, rc, 250);
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT);
}

TEST_F(CanUdsClassic, FramesOfOtherNodesAndBadFrames) {
    auto peer = model<CanModel>().add_peer(0, 500000);
    ecu_set([](UdsEcuConfig& c) { c.silent = true; });
    CAN_UDS_ADDR a = addr();
    uint8_t sf[8] = {0x02, 0x3E, 0x00};
    auto frame = [](uint32_t id, Bytes data, bool ext = false) {
        BusFrame f;
        f.id = id;
        f.extended = ext;
        f.len = uint8_t(data.size());
        if (!data.empty()) std::memcpy(f.data, data.data(), data.size());
        return f;
    };
    // Frames another identifier, the other identifier size or no data are passed over;
    // the answer after them is taken.
    ASSERT_EQ(CAN_UDS_SendMsg(handle, 0, a, sf, 3), 0);
    peer->send(frame(0x7E9, {0x02, 0x7E, 0x01}));
    peer->send(frame(0x7E8, {0x02, 0x7E, 0x02}, true));
    peer->send(frame(0x7E8, {}));
    peer->send(frame(0x7E8, {0x30, 0x00, 0x00}));  // flow control: ignored by a response
    peer->send(frame(0x7E8, {0x02, 0x7E, 0x00}));
    Bytes out(64);
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 500), 2);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 2), (Bytes{0x7E, 0x00}));
    // A protocol-control type above 3.
    peer->send(frame(0x7E8, {0x40, 0x01}));
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 500), CAN_UDS_ERR_FRAME);
    // An empty single frame, and one whose length runs past its frame.
    peer->send(frame(0x7E8, {0x00, 0x00, 0x55}));
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 500), 0);
    peer->send(frame(0x7E8, {0x05, 0x01, 0x02}));
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, out.data(), 500), CAN_UDS_ERR_FRAME);
    // A first frame announcing 12 bytes of which 6 come at once; the flow control it
    // gets is 30 00 00 padded; consecutive frames beyond the total are not copied.
    ecu->clear_log();
    peer->send(frame(0x7E8, {0x10, 0x0C, 1, 2, 3, 4, 5, 6}));
    peer->send(frame(0x7E8, {0x21, 7, 8, 9, 10, 11, 12, 13}));
    Bytes exact(12);
    EXPECT_EQ(CAN_UDS_Response(handle, 0, &a, exact.data(), 500), 12);
    EXPECT_EQ(exact, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    ASSERT_EQ(heard().size(), 1u);
    EXPECT_EQ(heard()[0], (Bytes{0x30, 0x00, 0x00, 0x55, 0x55, 0x55, 0x55, 0x55}));
    // GetMsg alone: the next matching frame's bytes, 0 when there is none.
    peer->send(frame(0x7E8, {0x03, 0x7F, 0x22, 0x31}));
    EXPECT_TRUE(can_test::eventually([&] { return model<CanModel>().pending(0) > 0; }));
    uint8_t raw[64];
    EXPECT_EQ(CAN_UDS_GetMsg(handle, 0, a, raw), 4);
    EXPECT_EQ(raw[1], 0x7F);
    EXPECT_EQ(CAN_UDS_GetMsg(handle, 0, a, raw), 0);
    EXPECT_EQ(CAN_UDS_GetMsg(handle, 0, a, nullptr), POLYBUS_ERR_REFUSED);
}

TEST_F(CanUdsClassic, TheEcuHonoursTheTestersFlowControl) {
    // Another node acts as tester: block size 2, 5 ms apart, flow control after every
    // frame of the ECU (only those the ECU waits for count).
    auto tester = model<CanModel>().add_peer(0, 500000);
    BusFrame fc;
    fc.id = 0x7E0;
    fc.len = 8;
    const uint8_t fc_bytes[8] = {0x30, 0x02, 0x05, 0, 0, 0, 0, 0};
    std::memcpy(fc.data, fc_bytes, 8);
    tester->answer(0x7E8, fc, 100);
    ecu_set([](UdsEcuConfig& c) { c.identifiers[0x4000] = pattern(40, 1); });  // 43 bytes: 6 frames after the first
    BusFrame request;
    request.id = 0x7E0;
    request.len = 8;
    const uint8_t req_bytes[8] = {0x03, 0x22, 0x40, 0x00, 0, 0, 0, 0};
    std::memcpy(request.data, req_bytes, 8);
    tester->send(request);
    ASSERT_TRUE(can_test::eventually([&] { return ecu->sent().size() >= 7; }));
    auto sent = ecu->sent();
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(sent[0].frame.data[0], 0x10);
    for (size_t i = 1; i < 7; ++i) {
        EXPECT_EQ(sent[i].frame.data[0], 0x20 | i) << i;
        if (i % 2 == 0) { EXPECT_GE(sent[i].end_ns - sent[i - 1].end_ns, 5000000) << "separation time " << i; }
    }
    tester->stop();
}

TEST_F(CanUdsClassic, SendFailures) {
    CAN_UDS_ADDR a = addr();
    Bytes req = {0x3E, 0x00};
    // The adapter answers the send command wrongly: -98 at once.
    adapter->inject(Fault::WrongEcho, 0xC02);
    EXPECT_EQ(CAN_UDS_Request(handle, 0, &a, req.data(), 2), CAN_UDS_ERR_SEND);
    // Nobody acknowledges: the adapter takes nothing for 3 s.
    ecu->detach();
    auto t0 = Clock::now();
    EXPECT_EQ(CAN_UDS_Request(handle, 0, &a, req.data(), 2), CAN_UDS_ERR_NOT_ACCEPTED);
    const auto took = Clock::now() - t0;
    EXPECT_GE(took, std::chrono::milliseconds(3000));
    EXPECT_LT(took, std::chrono::milliseconds(4000));
    // A batch of no frames, and no frames at all.
    CAN_MSG m{};
    EXPECT_EQ(CAN_UDS_SendCANMsg(handle, 0, &m, 0), CAN_UDS_ERR_NOT_ACCEPTED);
    EXPECT_EQ(CAN_UDS_SendCANMsg(handle, 0, nullptr, 1), POLYBUS_ERR_REFUSED);
    EXPECT_EQ(CAN_UDS_SendMsg(handle, 0, a, nullptr, 1), POLYBUS_ERR_REFUSED);
    // An unknown handle.
    EXPECT_EQ(CAN_UDS_SendMsg(0x41FFFFFF, 0, a, req.data(), 2), CAN_UDS_ERR_SEND);
    Bytes out(64);
    EXPECT_EQ(CAN_UDS_Response(0x41FFFFFF, 0, &a, out.data(), 50), CAN_UDS_ERR_TIMEOUT);
}

TEST_F(CanUdsFd, SendFailuresAndTheExactlyOneRule) {
    CAN_UDS_ADDR a = addr();
    Bytes req = {0x3E, 0x00};
    adapter->inject(Fault::WrongEcho, 0x400A);  // the send status request fails
    EXPECT_EQ(CAN_UDS_SendMsg(handle, 0, a, req.data(), 2), CAN_UDS_ERR_SEND);
    // Nobody acknowledges: the adapter aborts every try, for 3 s.
    CANFD_MSG frames[3];
    for (auto& f : frames) CAN_UDS_FillCANFDMsg(&f, a, req.data(), 2);
    ecu->detach();
    auto t0 = Clock::now();
    EXPECT_EQ(CAN_UDS_SendCANFDMsg(handle, 0, frames, 3), CAN_UDS_ERR_NOT_ACCEPTED);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(3000));
    EXPECT_EQ(CAN_UDS_SendCANFDMsg(handle, 0, frames, 0), CAN_UDS_ERR_NOT_ACCEPTED);
}

TEST(CanUdsFill, FramesAreBuiltAndPadded) {
    CAN_UDS_ADDR a{};
    a.RequestId = 0x18DA10F1;
    a.Flags = CAN_UDS_FLAG_29BIT | CAN_UDS_FLAG_BRS;  // BRS alone means nothing
    a.FrameLen = 12;
    uint8_t data[70];
    std::iota(data, data + 70, uint8_t(1));
    CAN_MSG m;
    std::memset(&m, 0xA5, sizeof(m));
    CAN_UDS_FillCANMsg(&m, a, data, 3);
    EXPECT_EQ(m.ID, 0x18DA10F1u);
    EXPECT_EQ(m.ExternFlag, 1);
    EXPECT_EQ(m.RemoteFlag, 0);
    EXPECT_EQ(m.DataLen, 12) << "the frame length, even above 8";
    EXPECT_EQ(Bytes(m.Data, m.Data + 8), (Bytes{1, 2, 3, 0x55, 0x55, 0x55, 0x55, 0x55}));
    EXPECT_EQ(m.TimeStamp, 0u);
    CANFD_MSG f;
    std::memset(&f, 0xA5, sizeof(f));
    CAN_UDS_FillCANFDMsg(&f, a, data, 5);
    EXPECT_EQ(f.ID, 0x98DA10F1u);
    EXPECT_EQ(f.DLC, 12);
    EXPECT_EQ(f.Flags, 0) << "no CAN FD frame without the CAN FD flag";
    EXPECT_EQ(Bytes(f.Data, f.Data + 13), (Bytes{1, 2, 3, 4, 5, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0}));
    a.Flags = CAN_UDS_FLAG_CANFD | CAN_UDS_FLAG_BRS;
    a.FrameLen = 200;  // taken as 8
    CAN_UDS_FillCANFDMsg(&f, a, data, 70);
    EXPECT_EQ(f.ID, 0x18DA10F1u);
    EXPECT_EQ(f.Flags, 0x05);
    EXPECT_EQ(f.DLC, 8);
    EXPECT_EQ(f.Data[63], 64) << "at most 64 data bytes";
    a.Flags = CAN_UDS_FLAG_CANFD;
    CAN_UDS_FillCANFDMsg(&f, a, data, 1);
    EXPECT_EQ(f.Flags, 0x04);
    CAN_UDS_FillCANMsg(nullptr, a, data, 1);  // nothing happens
}

}  // namespace

// ---- The example programs against the ECU ---------------------------------------------

// Each example is compiled here as it stands, its main() renamed; the test calls the
// function that does the work with the fixture's adapter.
#include <cstdio>
#include <cstdlib>
namespace read_vin_example {
#define main read_vin_main
#include "../../examples/uds_read_vin.c"
#undef main
}  // namespace read_vin_example
namespace download_example {
#define main download_main
#include "../../examples/uds_download.c"
#undef main
}  // namespace download_example

namespace {

// Intel HEX text of `data` at `address` (linear address records, 32 bytes a line).
std::string intel_hex(uint32_t address, const Bytes& data) {
    std::string out;
    auto record = [&](uint16_t offset, uint8_t type, const uint8_t* p, size_t n) {
        char line[128];
        int sum = int(n) + (offset >> 8) + (offset & 0xFF) + type;
        int k = std::snprintf(line, sizeof(line), ":%02X%04X%02X", unsigned(n), unsigned(offset), unsigned(type));
        for (size_t i = 0; i < n; ++i) {
            k += std::snprintf(line + k, sizeof(line) - size_t(k), "%02X", p[i]);
            sum += p[i];
        }
        std::snprintf(line + k, sizeof(line) - size_t(k), "%02X\n", unsigned((-sum) & 0xFF));
        out += line;
    };
    uint32_t upper = 0xFFFFFFFF;
    for (size_t pos = 0; pos < data.size(); pos += 32) {
        const uint32_t at = address + uint32_t(pos);
        if (at >> 16 != upper) {
            upper = at >> 16;
            const uint8_t base[2] = {uint8_t(upper >> 8), uint8_t(upper)};
            record(0, 4, base, 2);
        }
        record(uint16_t(at), 0, data.data() + pos, std::min<size_t>(32, data.size() - pos));
    }
    record(0, 1, nullptr, 0);
    return out;
}

TEST_F(CanUdsClassic, ExampleReadsTheVin) {
    testing::internal::CaptureStdout();
    const int rc = read_vin_example::read_vin(handle);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, 0) << out;
    EXPECT_EQ(out, "VIN: WP0ZZZ99ZTS392124\n");
    // Without the ECU nobody acknowledges, and the example says so.
    ecu->detach();
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_vin_example::read_vin(handle), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("is there an ECU on the bus?"), std::string::npos);
}

TEST_F(CanUdsClassic, ExampleDownloadsAndVerifiesAnImage) {
    testing::internal::CaptureStdout();
    int rc = download_example::download(handle, nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("downloaded and verified 136 bytes in 2 blocks"), std::string::npos) << out;
    Bytes first = ecu->memory(0x08000000, 96);
    for (size_t i = 0; i < first.size(); ++i) ASSERT_EQ(first[i], uint8_t(i * 37 + 11)) << i;
    EXPECT_EQ(ecu->memory(0x08000060, 1), Bytes{0xFF}) << "between the blocks nothing was written";
    // An image from a file: several transfers per block and a read-back in chunks.
    const Bytes image = pattern(9000, 77);
    const std::string path = ::testing::TempDir() + "uds_download_image.hex";
    {
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        const std::string text = intel_hex(0x0800FF00, image);  // crosses a 64 KiB boundary
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    }
    testing::internal::CaptureStdout();
    rc = download_example::download(handle, path.c_str());
    out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(rc, 0) << out;
    EXPECT_EQ(ecu->memory(0x0800FF00, image.size()), image);
    // A file that is not there.
    testing::internal::CaptureStdout();
    EXPECT_EQ(download_example::download(handle, "/nonexistent/image.hex"), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("cannot read"), std::string::npos);
    std::remove(path.c_str());
}

}  // namespace
