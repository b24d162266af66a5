// UDS over LIN end to end against a simulated diagnostic node: segmentation on the wire,
// reassembly of answers up to 4095 bytes, the node's faults, and the traffic buffer.
#include <chrono>
#include <cstring>
#include <vector>

#include "lin_model.h"
#include "polybus/lin_uds.h"
#include "sim_fixture.h"
#include "wire/lin.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {

using Bytes = std::vector<uint8_t>;

class LinUds : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(LIN_EX_Init(handle, 0, 19200, 1), 0);
        model<LinModel>().set_time_scale(0);  // frames take no time; timing is the benchmark's
        LinDiagConfig cfg;
        cfg.nad = 0x0A;
        cfg.identifiers[0xF190] = Bytes(17, 'V');
        cfg.identifiers[0x0101] = Bytes(4092);
        for (size_t i = 0; i < 4092; ++i) cfg.identifiers[0x0101][i] = uint8_t(i * 7);
        cfg.identifiers[0x0009] = Bytes(9, 0x99);  // a 12-byte answer
        node = model<LinModel>().add_diag_slave(0, cfg);
        trace->clear();
    }
    // Data bytes of every request frame sent, in order.
    std::vector<Bytes> request_frames() {
        std::vector<Bytes> out;
        for (auto& e : trace->sends(LIN_EX_MASTER_SYNC)) {
            LIN_EX_MSG m;
            std::memcpy(&m, e.data.data() + 1, sizeof(m));
            if (m.MsgType == 1) out.emplace_back(m.Data, m.Data + 8);
        }
        return out;
    }
    LIN_UDS_ADDR addr{0x3C, 0x3D, 0x0A, LIN_EX_CHECK_CLASSIC, 0, {0, 0, 0}};
    std::shared_ptr<LinDiagSlave> node;
    uint8_t response[LIN_UDS_MAX_DATA + 16] = {};
};

}  // namespace

TEST_F(LinUds, SingleFramesBothWays) {
    Bytes req = {0xBA, 1, 2, 3, 4, 5};
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, req.data(), 6), 0);
    ASSERT_EQ(request_frames().size(), 1u);
    EXPECT_EQ(request_frames()[0], (Bytes{0x0A, 0x06, 0xBA, 1, 2, 3, 4, 5}));
    EXPECT_EQ(node->requests().back(), req);
    ASSERT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), 6);
    EXPECT_EQ(Bytes(response, response + 6), (Bytes{0xFA, 1, 2, 3, 4, 5}));

    // An empty request: NAD, PCI 0, six fill bytes. The node answers a negative response.
    trace->clear();
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, nullptr, 0), 0);
    EXPECT_EQ(request_frames()[0], (Bytes{0x0A, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    // Traffic: the confirmed request frame, marked as a write on channel 0.
    LIN_EX_MSG traffic[8];
    ASSERT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 0, traffic, 8), 1);
    EXPECT_EQ(traffic[0].Reserved, (1 << 2) | 0);
    EXPECT_EQ(traffic[0].Data[0], 0x0A);

    // A request frame carries PCI and payload; the response's data after the NAD.
    uint8_t pci_payload[7] = {0x03, 0x22, 0xF1, 0x90};
    EXPECT_EQ(LIN_UDS_SendMsg(handle, 0, addr, pci_payload, 4), 0);
    uint8_t frame[8] = {};
    EXPECT_EQ(LIN_UDS_GetMsg(handle, 0, addr, frame), 7);
    EXPECT_EQ(frame[0], 0x10) << "first frame of the 20-byte answer";
    EXPECT_EQ(frame[1], 20);
    ASSERT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 0, traffic, 8), 2);
    EXPECT_EQ(traffic[1].Reserved, (2 << 2) | 0) << "a read";
    EXPECT_EQ(LIN_UDS_SendMsg(handle, 0, addr, pci_payload, 8), -1) << "a frame holds 7 bytes";
}

TEST_F(LinUds, SegmentedRequestsOnTheWire) {
    Bytes seven = {0xBA, 1, 2, 3, 4, 5, 6};
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, seven.data(), 7), 0);
    auto frames = request_frames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], (Bytes{0x0A, 0x10, 0x07, 0xBA, 1, 2, 3, 4}));
    EXPECT_EQ(frames[1], (Bytes{0x0A, 0x21, 5, 6, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(node->requests().back(), seven);

    // 5 + 6 x 17 bytes: 17 consecutive frames, sequence numbers 1..15, 0, 1.
    trace->clear();
    Bytes echo(107);
    echo[0] = 0xBA;
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, echo.data(), int(echo.size())), 0);
    frames = request_frames();
    ASSERT_EQ(frames.size(), 18u);
    for (size_t i = 1; i < frames.size(); ++i) EXPECT_EQ(frames[i][1], 0x20 | (i & 0x0F)) << i;
    EXPECT_EQ(node->requests().back(), echo);

    // 5000 bytes are sent as 4095.
    trace->clear();
    Bytes huge(5000, 0x11);
    huge[0] = 0xBA;
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, huge.data(), 5000), 0);
    frames = request_frames();
    EXPECT_EQ(frames[0][1], 0x1F);
    EXPECT_EQ(frames[0][2], 0xFF);
    EXPECT_EQ(frames.size(), 1u + 682u);
    EXPECT_EQ(node->requests().back().size(), 4095u);
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 60000), 4095);
    EXPECT_EQ(response[0], 0xFA);
    EXPECT_EQ(response[4094], 0x11);
    // Only the frames of the last request stay in the traffic buffer (and its answer).
    std::vector<LIN_EX_MSG> traffic(2000);
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 0, traffic.data(), 2000), 1000) << "capped at 1000, oldest dropped";
    EXPECT_EQ(traffic[999].Reserved >> 2, 2);
}

TEST_F(LinUds, ResponsesAreReassembled) {
    uint8_t rdbi[3] = {0x22, 0x00, 0x09};
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, rdbi, 3), 0);
    ASSERT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), 12);  // 5 + 6 + 1
    EXPECT_EQ(Bytes(response, response + 4), (Bytes{0x62, 0x00, 0x09, 0x99}));
    EXPECT_EQ(response[11], 0x99);

    uint8_t big[3] = {0x22, 0x01, 0x01};
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, big, 3), 0);
    std::memset(response, 0xEE, sizeof(response));
    ASSERT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 60000), 4095);
    EXPECT_EQ(response[3], 0);
    EXPECT_EQ(response[4094], uint8_t(4091 * 7));
    EXPECT_EQ(response[4095], 0xEE) << "nothing past the response";

    // An unknown identifier: a negative response in a single frame.
    uint8_t unknown[3] = {0x22, 0x12, 0x34};
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, unknown, 3), 0);
    ASSERT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), 3);
    EXPECT_EQ(Bytes(response, response + 3), (Bytes{0x7F, 0x22, 0x31}));
}

TEST_F(LinUds, NodeFaultsEndTheResponse) {
    uint8_t rdbi[3] = {0x22, 0xF1, 0x90};
    node->set_wrong_sequence(true);
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, rdbi, 3), 0);
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), -103);

    // Silent node: polls without pause until the time-out.
    node->set_wrong_sequence(false);
    node->set_silent(true);
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, rdbi, 3), 0);
    trace->clear();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 150), -101);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(150));
    EXPECT_LT(took, std::chrono::milliseconds(400));
    EXPECT_GT(trace->sends(LIN_EX_MASTER_SYNC).size(), 3u);

    // Answers whose frame type is unknown or whose single frame is too long.
    node->set_silent(false);
    model<LinModel>().bus(0)->detach(node.get());
    auto bad = model<LinModel>().add_slave(0, {0x3D, {0x0A, 0x07, 1, 2, 3, 4, 5, 6}, false});
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), -105);
    bad->set_data({0x0A, 0x30, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), -105);
    bad->set_data({0x0A, 0x00, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, response, 1000), 0) << "an empty single frame";
    // A response frame with a bad checksum is no data.
    bad->set_fault(LinSlaveFault::WrongChecksum);
    EXPECT_EQ(LIN_UDS_GetMsg(handle, 0, addr, response), -99);
}

TEST_F(LinUds, SyncFailuresAndUnconfirmedFrames) {
    uint8_t data[3] = {0x22, 0xF1, 0x90};
    LIN_UDS_ADDR other = addr;
    EXPECT_EQ(LIN_UDS_Request(handle, 91, &other, data, 3), -98) << "channel not initialised";
    EXPECT_EQ(LIN_UDS_GetMsg(handle, 91, other, response), -98);
    adapter->inject(Fault::EmptyPayload, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_UDS_Request(handle, 0, &addr, data, 3), -99) << "no result";
    // A result that does not confirm the frame (sent without checksum: not verified).
    other.CheckType = LIN_EX_CHECK_NONE;
    EXPECT_EQ(LIN_UDS_Request(handle, 0, &other, data, 3), -99);
    LIN_EX_MSG traffic[4];
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 0, traffic, 4), 0) << "unconfirmed frames are not kept";
    // A failing consecutive frame stops the request there.
    trace->clear();
    Bytes twenty(20, 0xBA);
    adapter->inject(Fault::NoAnswer, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_UDS_Request(handle, 0, &addr, twenty.data(), 20), -98);
    EXPECT_EQ(trace->sends(LIN_EX_MASTER_SYNC).size(), 1u);
    EXPECT_EQ(LIN_UDS_Request(handle, 0, nullptr, data, 3), -1);
    EXPECT_EQ(LIN_UDS_Response(handle, 0, &addr, nullptr, 10), -1);
}

TEST_F(LinUds, StMinPacesFramesAndIsTheirDelay) {
    addr.STmin = 20;
    Bytes seven(7, 0xBA);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(LIN_UDS_Request(handle, 0, &addr, seven.data(), 7), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
    for (auto& e : trace->sends(LIN_EX_MASTER_SYNC)) {
        LIN_EX_MSG m;
        std::memcpy(&m, e.data.data() + 1, sizeof(m));
        EXPECT_EQ(m.TimeStamp, 20u);
    }
}

TEST_F(LinUds, TrafficBufferKeepsTheNewest1000PerChannel) {
    std::vector<LIN_EX_MSG> in(1001);
    for (size_t i = 0; i < in.size(); ++i) in[i].TimeStamp = uint32_t(i);
    EXPECT_EQ(LIN_USD_SetLINMsgToBuffer(handle, 1, in.data(), 1000), 0);
    EXPECT_EQ(LIN_USD_SetLINMsgToBuffer(handle, 1, in.data() + 1000, 1), 0);
    EXPECT_EQ(LIN_USD_SetLINMsgToBuffer(handle, 1, in.data(), 0), 0);
    std::vector<LIN_EX_MSG> out(1100);
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 5, out.data(), 10), 10) << "channel 5 is channel 1";
    EXPECT_EQ(out[0].TimeStamp, 1u) << "the oldest was dropped";
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 1, out.data(), 1100), 990);
    EXPECT_EQ(out[989].TimeStamp, 1000u);
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 1, out.data(), 0), 0);
    EXPECT_EQ(LIN_USD_SetLINMsgToBuffer(handle, 2, in.data(), 5), 0);
    EXPECT_EQ(LIN_USD_ClearCANMsgFromUDSBuffer(handle, 2), 0);
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(handle, 2, out.data(), 10), 0);
    EXPECT_EQ(LIN_UDS_GetMsgFromUDSBuffer(0x7E000001, 2, out.data(), 10), 0) << "an unknown device keeps nothing";
    EXPECT_TRUE(LIN_USD_CheckSendState(nullptr, nullptr, 0));
}

TEST_F(LinUds, RingOfRecords) {
    LIN_QUEUE q;
    ASSERT_EQ(lin_queue_init(&q, 2), 1);
    EXPECT_EQ(lin_queue_empty(&q), 1);
    LIN_EX_MSG a{}, b{}, c{}, out{};
    a.PID = 1, b.PID = 2, c.PID = 3;
    EXPECT_EQ(lin_queue_enqueue(&q, &a), 1);
    EXPECT_EQ(lin_queue_enqueue(&q, &b), 1);
    EXPECT_EQ(lin_queue_enqueue(&q, &c), 0) << "full";
    EXPECT_EQ(lin_queue_dequeue(&q, &out), 1);
    EXPECT_EQ(out.PID, 1);
    EXPECT_EQ(lin_queue_enqueue(&q, &c), 1) << "wraps around";
    EXPECT_EQ(lin_queue_dequeue(&q, &out), 1);
    EXPECT_EQ(lin_queue_dequeue(&q, &out), 1);
    EXPECT_EQ(out.PID, 3);
    EXPECT_EQ(lin_queue_dequeue(&q, &out), 0);
    lin_queue_enqueue(&q, &a);
    lin_queue_clear(&q);
    EXPECT_EQ(lin_queue_empty(&q), 1);
    EXPECT_EQ(lin_queue_resize(&q, 5), 1);
    EXPECT_EQ(q.Capacity, 5u);
    lin_queue_free(&q);
    EXPECT_EQ(q.Storage, nullptr);
    EXPECT_EQ(lin_queue_enqueue(&q, &a), 0) << "no storage";
    EXPECT_EQ(lin_queue_empty(&q), 1);
    EXPECT_EQ(lin_queue_init(&q, 0), 0);
    EXPECT_EQ(q.Capacity, 0u);
}
