// LIN end to end: the master batch and its wrappers, the adapter-run schedule, supply
// and battery, the adapter as slave, the older LIN_ interface on both firmware paths,
// and FLIN. Slaves on the simulated bus answer with their own checksums and faults.
#include <chrono>
#include <cstring>
#include <vector>

#include "lin_model.h"
#include "polybus/lin.h"
#include "sim_fixture.h"
#include "wire/lin.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {

using Bytes = std::vector<uint8_t>;

LIN_EX_MSG frame(uint8_t type, uint8_t id, Bytes data = {}, uint8_t check_type = LIN_EX_CHECK_ENHANCED) {
    LIN_EX_MSG m{};
    m.MsgType = type;
    m.PID = id;
    m.CheckType = check_type;
    m.DataLen = static_cast<uint8_t>(data.size());
    if (!data.empty()) std::memcpy(m.Data, data.data(), data.size() > 8 ? 8 : data.size());
    m.BreakBits = 13;
    return m;
}

// The records of a LIN_EX_ request payload (after the channel byte).
std::vector<LIN_EX_MSG> records_of(const TraceEntry& e, size_t skip = 1) {
    std::vector<LIN_EX_MSG> out((e.data.size() - skip) / sizeof(LIN_EX_MSG));
    if (!out.empty()) std::memcpy(out.data(), e.data.data() + skip, out.size() * sizeof(LIN_EX_MSG));
    return out;
}

Bytes data_of(const LIN_EX_MSG& m, size_t n) { return Bytes(m.Data, m.Data + n); }

class Lin : public SimTest {
protected:
    LinModel& lin() { return model<LinModel>(); }
    void init(unsigned char ch, int baud = 19200, unsigned char mode = 1) {
        ASSERT_EQ(LIN_EX_Init(handle, ch, baud, mode), 0);
    }
};

}  // namespace

TEST_F(Lin, InitSendsBaudRateAndModeAndRefusesAnswers) {
    EXPECT_EQ(LIN_EX_Init(handle, 2, 50, 1), 0);  // below 100: 9600
    EXPECT_EQ(trace->sends(LIN_EX_INIT)[0].data, (Bytes{2, 0, 0, 0x25, 0x80, 1}));
    EXPECT_EQ(lin().channel(2).baud, 9600u);
    EXPECT_EQ(LIN_EX_Init(handle, 0, 19200, 0), 0);
    EXPECT_EQ(lin().channel(0).master_mode, 0);
    // The adapter has four channels; a fifth is refused with a payload.
    EXPECT_EQ(LIN_EX_Init(handle, 4, 19200, 1), -4);
    adapter->inject(Fault::NoAnswer, LIN_EX_INIT);
    EXPECT_EQ(LIN_EX_Init(handle, 0, 19200, 1), -4);
    EXPECT_EQ(LIN_EX_Init(0x7E000001, 0, 19200, 1), -2);
}

TEST_F(Lin, MasterSyncWritesAndReadsWithBothResultKinds) {
    init(0);
    trace->clear();
    auto listener = lin().add_slave(0, {0x20, {}, true, false});
    lin().add_slave(0, {0x10, {1, 2, 3, 4}, true});
    lin().add_slave(0, {0x11, {0xA, 0xB}, false});
    std::vector<LIN_EX_MSG> in = {frame(1, 0x20, {1, 2, 3}, LIN_EX_CHECK_CLASSIC), frame(2, 0x10), frame(2, 0x11),
                                  frame(5, 0), frame(2, 0x12)};
    const std::vector<LIN_EX_MSG> original = in;
    for (uint8_t kind : {uint8_t(8), uint8_t(9)}) {
        lin().set_read_result_kind(0, kind);
        std::vector<LIN_EX_MSG> out(in.size());
        ASSERT_EQ(LIN_EX_MasterSync(handle, 0, in.data(), out.data(), 5), 5) << int(kind);
        EXPECT_EQ(out[0].CheckType, LIN_EX_CHECK_CLASSIC);
        EXPECT_EQ(out[0].DataLen, 3);
        EXPECT_EQ(out[1].CheckType, LIN_EX_CHECK_ENHANCED);
        EXPECT_EQ(out[1].DataLen, 4);
        EXPECT_EQ(data_of(out[1], 4), (Bytes{1, 2, 3, 4}));
        EXPECT_EQ(out[1].PID, 0x50);
        EXPECT_EQ(out[2].CheckType, LIN_EX_CHECK_CLASSIC);
        EXPECT_EQ(data_of(out[2], 2), (Bytes{0xA, 0xB}));
        EXPECT_EQ(out[3].CheckType, LIN_EX_CHECK_NONE);  // a break is not verified
        EXPECT_EQ(out[4].CheckType, LIN_EX_CHECK_ERROR);  // nobody answered
        EXPECT_EQ(out[4].DataLen, kind == 8 ? 255 : 0);
    }
    EXPECT_EQ(0, std::memcmp(in.data(), original.data(), in.size() * sizeof(LIN_EX_MSG))) << "input untouched";
    // What went out: prepared copies; the listener saw the data and the checksum.
    auto sent = records_of(trace->sends(LIN_EX_MASTER_SYNC)[0]);
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(trace->sends(LIN_EX_MASTER_SYNC)[0].data[0], 0);
    EXPECT_EQ(sent[0].Sync, 0x55);
    EXPECT_EQ(sent[0].PID, 0x20);
    EXPECT_EQ(sent[0].Check, 0xF9);
    EXPECT_EQ(sent[0].Data[3], 0xF9);
    EXPECT_EQ(sent[1].PID, 0x50);
    EXPECT_EQ(sent[1].Check, 0) << "read frames carry no checksum";
    ASSERT_EQ(listener->received().size(), 2u);
    EXPECT_EQ(listener->received()[0], (Bytes{1, 2, 3, 0xF9}));
    // Waited for: 5 frames x 123000/19200 + 100 ms.
    EXPECT_EQ(trace->gets()[0].timeout_ms, 5 * 6 + 100);
}

TEST_F(Lin, SlaveFaultsBecomeVerdicts) {
    init(0);
    auto slave = lin().add_slave(0, {0x31, {0x10, 0x20, 0x30}, true});
    uint8_t buf[8] = {};
    EXPECT_EQ(LIN_EX_MasterRead(handle, 0, 0x31, buf), 3);
    EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{0x10, 0x20, 0x30}));
    for (LinSlaveFault fault : {LinSlaveFault::WrongChecksum, LinSlaveFault::NoAnswer, LinSlaveFault::TooFewBytes,
                                LinSlaveFault::WrongParity}) {
        slave->set_fault(fault);
        for (uint8_t kind : {uint8_t(8), uint8_t(9)}) {
            lin().set_read_result_kind(0, kind);
            std::memset(buf, 0xEE, sizeof(buf));
            EXPECT_EQ(LIN_EX_MasterRead(handle, 0, 0x31, buf), 0) << int(fault) << "/" << int(kind);
            EXPECT_EQ(buf[0], 0xEE) << "nothing copied from a bad frame";
            LIN_EX_MSG in = frame(2, 0x31), out{};
            ASSERT_EQ(LIN_EX_MasterSync(handle, 0, &in, &out, 1), 1);
            EXPECT_EQ(out.CheckType, LIN_EX_CHECK_ERROR) << int(fault) << "/" << int(kind);
        }
    }
    // A missing answer costs the master its response timeout, not more.
    slave->set_fault(LinSlaveFault::NoAnswer);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(LIN_EX_MasterRead(handle, 0, 0x31, buf), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST_F(Lin, MasterSyncRefusalsComeBeforeAnyTraffic) {
    init(0);
    LIN_EX_MSG in = frame(1, 1, {1}), out{};
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, nullptr, nullptr, 0), -7);
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, &in, nullptr, 1), -7);
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, &in, &out, 0), -7);
    EXPECT_EQ(LIN_EX_MasterSync(0x7E000001, 0, &in, &out, 1), -7);
    EXPECT_EQ(LIN_EX_MasterSync(handle, 77, &in, &out, 1), -5) << "channel never initialised";
    EXPECT_EQ(LIN_EX_MasterSync(handle, 77, nullptr, &out, 1), -7) << "a null input is refused first";
    ASSERT_EQ(LIN_EX_Init(handle, 3, 100, 1), 0);  // 100 is kept, but too slow to run
    EXPECT_EQ(LIN_EX_MasterSync(handle, 3, &in, &out, 1), -7);
    EXPECT_EQ(trace->sends(LIN_EX_MASTER_SYNC).size(), 0u);
    EXPECT_EQ(LIN_EX_MasterWrite(handle, 77, 1, nullptr, 0, 0), -5);
    EXPECT_EQ(LIN_EX_MasterRead(handle, 77, 1, nullptr), -5);
    EXPECT_EQ(LIN_EX_MasterBreak(handle, 77), -5);
}

TEST_F(Lin, TimeoutsFollowDelaysAndLargeBatchesStayInBounds) {
    init(0);
    lin().set_time_scale(0);
    std::vector<LIN_EX_MSG> in(10, frame(1, 0x05, {1, 2}));
    std::vector<LIN_EX_MSG> out(10);
    ASSERT_EQ(LIN_EX_MasterSync(handle, 0, in.data(), out.data(), 10), 10);
    EXPECT_EQ(trace->gets().back().timeout_ms, 160);
    in[0].TimeStamp = 7000;
    in[1].TimeStamp = 20;
    ASSERT_EQ(LIN_EX_MasterSync(handle, 0, in.data(), out.data(), 2), 2);
    EXPECT_EQ(trace->gets().back().timeout_ms, 5000 + 20 + 12 + 100);
    EXPECT_EQ(records_of(trace->sends(LIN_EX_MASTER_SYNC).back())[0].TimeStamp, 5000u);

    // 70 frames go out; at most 64 results land, the rest of the caller's array is untouched.
    std::vector<LIN_EX_MSG> many(70, frame(1, 0x05, {1}));
    std::vector<LIN_EX_MSG> results(70);
    std::memset(results.data(), 0xA5, results.size() * sizeof(LIN_EX_MSG));
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, many.data(), results.data(), 70), 64);
    EXPECT_EQ(records_of(trace->sends(LIN_EX_MASTER_SYNC).back()).size(), 70u);
    EXPECT_EQ(results[64].MsgType, 0xA5);
    EXPECT_EQ(results[69].Reserved, 0xA5);
    // An adapter answering more than asked: only MsgLen results.
    std::memset(results.data(), 0xA5, results.size() * sizeof(LIN_EX_MSG));
    adapter->inject(Fault::Oversized, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, in.data(), results.data(), 1), 1);
    EXPECT_EQ(results[1].MsgType, 0xA5);
    // Subsequent exchanges are still in step.
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, in.data(), out.data(), 3), 3);
}

TEST_F(Lin, SingleFrameWrappers) {
    init(1);
    lin().set_time_scale(0);
    auto listener = lin().add_slave(1, {0x07, {}, true, false});
    EXPECT_EQ(LIN_EX_MasterBreak(handle, 1), 0);
    auto brk = records_of(trace->sends(LIN_EX_MASTER_SYNC).back());
    ASSERT_EQ(brk.size(), 1u);
    EXPECT_EQ(brk[0].MsgType, 5);
    EXPECT_EQ(brk[0].TimeStamp, 10u);
    EXPECT_EQ(brk[0].BreakBits, 13);

    uint8_t data[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(LIN_EX_MasterWrite(handle, 1, 0x07, data, 9, LIN_EX_CHECK_ENHANCED), 0);
    auto w = records_of(trace->sends(LIN_EX_MASTER_SYNC).back())[0];
    EXPECT_EQ(w.DataLen, 8);
    EXPECT_EQ(w.TimeStamp, 1u);
    EXPECT_EQ(w.PID, 0x47);
    EXPECT_EQ(LIN_EX_MasterWrite(handle, 1, 0x07, data, 0, LIN_EX_CHECK_ENHANCED), 0);
    w = records_of(trace->sends(LIN_EX_MASTER_SYNC).back())[0];
    EXPECT_EQ(w.CheckType, LIN_EX_CHECK_NONE) << "no data: no checksum";
    EXPECT_EQ(w.Check, 0);
    ASSERT_EQ(listener->received().size(), 1u) << "a frame without data is a header only";
    EXPECT_EQ(listener->received()[0].size(), 9u);

    // Transport faults, once per shape: nothing back, an empty answer, an unplug.
    adapter->inject(Fault::NoAnswer, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_EX_MasterBreak(handle, 1), -4);
    adapter->inject(Fault::EmptyPayload, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_EX_MasterWrite(handle, 1, 0x07, data, 2, 0), -4) << "no result";
    adapter->inject(Fault::EmptyPayload, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_EX_MasterRead(handle, 1, 0x07, data), 0) << "no result is no data";
    adapter->inject(Fault::ShortPayload, LIN_EX_MASTER_SYNC);
    LIN_EX_MSG two[2] = {frame(1, 1, {1}), frame(1, 1, {1})}, back[2];
    EXPECT_EQ(LIN_EX_MasterSync(handle, 1, two, back, 2), 1) << "a payload that came up short gives the records that came";
    adapter->inject(Fault::UnplugBefore, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_EX_MasterRead(handle, 1, 0x07, data), -4);
    EXPECT_EQ(LIN_EX_MasterRead(handle, 1, 0x07, data), -2);
}

TEST_F(Lin, AdapterRunsItsScheduleUntilStopped) {
    init(2);
    lin().add_slave(2, {0x12, {0x55, 0xAA}, true});
    std::vector<LIN_EX_MSG> table(100, frame(1, 0x01, {9}, LIN_EX_CHECK_CLASSIC));
    table[0] = frame(1, 0x11, {1, 2}, LIN_EX_CHECK_ENHANCED);
    table[0].TimeStamp = 5;
    table[1] = frame(2, 0x12);
    table[1].DataLen = 4;  // read frames go with DataLen 0
    table[1].TimeStamp = 5;
    EXPECT_EQ(LIN_EX_MasterStartSch(handle, 2, table.data(), 2), 0);
    auto sent = records_of(trace->sends(LIN_EX_START_SCH).back());
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].PID, 0x11);
    EXPECT_EQ(sent[0].Data[2], sent[0].Check);
    EXPECT_EQ(sent[1].DataLen, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    LIN_EX_MSG got[LIN_EX_MAX_RECORDS];
    const int n = LIN_EX_MasterGetSch(handle, 2, got);
    ASSERT_GE(n, 4);
    EXPECT_TRUE(lin().channel(2).schedule_running);
    int reads = 0;
    for (int i = 0; i < n; ++i) {
        if (got[i].MsgType != 2) continue;
        ++reads;
        EXPECT_EQ(got[i].CheckType, LIN_EX_CHECK_ENHANCED);
        EXPECT_EQ(data_of(got[i], 2), (Bytes{0x55, 0xAA}));
    }
    EXPECT_GE(reads, 2);
    EXPECT_EQ(LIN_EX_MasterStopSch(handle, 2), 0);
    EXPECT_FALSE(lin().channel(2).schedule_running);
    EXPECT_GE(LIN_EX_MasterGetSch(handle, 2, nullptr), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(LIN_EX_MasterGetSch(handle, 2, got), 0) << "nothing ran after the stop";

    EXPECT_EQ(LIN_EX_MasterStartSch(handle, 2, table.data(), 100), 0);
    EXPECT_EQ(records_of(trace->sends(LIN_EX_START_SCH).back()).size(), 64u);
    EXPECT_EQ(LIN_EX_MasterStopSch(handle, 2), 0);
    EXPECT_EQ(LIN_EX_MasterStartSch(handle, 2, nullptr, 1), -7);
    EXPECT_EQ(LIN_EX_MasterStartSch(handle, 78, table.data(), 1), -5);
    EXPECT_EQ(LIN_EX_MasterGetSch(handle, 78, got), -5);
    EXPECT_EQ(LIN_EX_MasterStartSch(0x7E000001, 2, table.data(), 1), -2);
    EXPECT_EQ(LIN_EX_MasterGetSch(0x7E000001, 2, got), -2);
    adapter->inject(Fault::NoAnswer, LIN_EX_GET_SCH);
    EXPECT_EQ(LIN_EX_MasterGetSch(handle, 2, got), -4);
    adapter->inject(Fault::NoAnswer, LIN_EX_STOP_SCH);
    EXPECT_EQ(LIN_EX_MasterStopSch(handle, 2), -4);
}

TEST_F(Lin, SupplyOutputAndBatteryVoltage) {
    EXPECT_EQ(LIN_EX_CtrlPowerOut(handle, 3, 1), 0);
    EXPECT_EQ(trace->sends(LIN_EX_POWER_OUT)[0].data, (Bytes{1, 3})) << "state first, then channel";
    EXPECT_EQ(lin().channel(3).power, 1);
    unsigned short mv = 0;
    EXPECT_EQ(LIN_EX_GetVbatValue(handle, &mv), 0);
    EXPECT_EQ(mv, 12000);
    lin().set_battery_mv(13800);
    EXPECT_EQ(LIN_EX_GetVbatValue(handle, &mv), 0);
    EXPECT_EQ(mv, 13800);
    EXPECT_TRUE(trace->sends(LIN_EX_GET_VBAT)[0].data.empty());
    adapter->inject(Fault::EmptyPayload, LIN_EX_GET_VBAT);
    EXPECT_EQ(LIN_EX_GetVbatValue(handle, &mv), -4);
    EXPECT_EQ(mv, 13800);
    adapter->inject(Fault::Oversized, LIN_EX_POWER_OUT);
    EXPECT_EQ(LIN_EX_CtrlPowerOut(handle, 3, 0), -4);
}

TEST_F(Lin, AdapterAsSlaveAnswersAndRecords) {
    init(1, 19200, 0);
    std::vector<LIN_EX_MSG> table = {frame(3, 0x21, {5, 6}, LIN_EX_CHECK_CLASSIC), frame(4, 0x22),
                                     frame(0x83, 0x23, {7}, LIN_EX_CHECK_ENHANCED)};
    ASSERT_EQ(LIN_EX_SlaveSetIDMode(handle, 1, table.data(), 3), 0);
    EXPECT_EQ(LIN_EX_SlaveGetIDMode(handle, 1, nullptr), 3);
    LIN_EX_MSG back[LIN_EX_MAX_RECORDS];
    ASSERT_EQ(LIN_EX_SlaveGetIDMode(handle, 1, back), 3);
    EXPECT_EQ(back[0].PID, 0x61);
    EXPECT_EQ(back[0].Check, 0xF4);  // ~(5 + 6)
    EXPECT_EQ(back[0].Data[2], 0xF4);
    EXPECT_EQ(back[2].Check, uint8_t(~(0xA3 + 7)));

    LinMasterNode master = lin().master_node(1);
    EXPECT_EQ(master.request(0x21), (Bytes{5, 6, 0xF4}));
    master.publish(0x22, {1, 2, 3}, true);
    master.send_break();
    EXPECT_EQ(master.request(0x23).size(), 2u);
    EXPECT_TRUE(master.request(0x23).empty()) << "answered once";
    EXPECT_TRUE(master.request_raw_pid(0x21).empty()) << "wrong parity: not our identifier";

    LIN_EX_MSG got[LIN_EX_MAX_RECORDS];
    const int n = LIN_EX_SlaveGetData(handle, 1, got);
    ASSERT_EQ(n, 6);
    EXPECT_EQ(got[0].MsgType, 9);
    EXPECT_EQ(got[0].CheckType, LIN_EX_CHECK_CLASSIC);
    EXPECT_EQ(data_of(got[0], 2), (Bytes{5, 6}));
    EXPECT_EQ(got[1].MsgType, 8);
    EXPECT_EQ(got[1].DataLen, 3);
    EXPECT_EQ(got[1].CheckType, LIN_EX_CHECK_ENHANCED);
    EXPECT_EQ(got[2].MsgType, 5);
    EXPECT_EQ(got[2].PID, 0xFF);
    EXPECT_EQ(got[2].DataLen, 0);
    EXPECT_EQ(got[2].CheckType, LIN_EX_CHECK_NONE);
    EXPECT_EQ(got[3].CheckType, LIN_EX_CHECK_ENHANCED);
    EXPECT_EQ(got[4].DataLen, 255) << "a header nobody answered";
    EXPECT_EQ(LIN_EX_SlaveGetData(handle, 1, got), 0) << "recordings are handed out once";

    // More than 64 recorded frames come in several fetches, never past 64 per call.
    for (int i = 0; i < 70; ++i) master.publish(0x22, {uint8_t(i)}, false);
    EXPECT_EQ(LIN_EX_SlaveGetData(handle, 1, got), 64);
    EXPECT_EQ(LIN_EX_SlaveGetData(handle, 1, got), 6);
    EXPECT_EQ(got[5].Data[0], 69);
    EXPECT_EQ(got[5].CheckType, LIN_EX_CHECK_CLASSIC);

    // A table longer than the 64-record area: the entries beyond it are drained.
    std::vector<LIN_EX_MSG> big(70, frame(4, 0x30));
    ASSERT_EQ(LIN_EX_SlaveSetIDMode(handle, 1, big.data(), 70), 0);
    EXPECT_EQ(lin().channel(1).table_entries, 70u);
    std::vector<LIN_EX_MSG> entries(LIN_EX_MAX_RECORDS + 1);
    entries.back().PID = 0x5A;
    EXPECT_EQ(LIN_EX_SlaveGetIDMode(handle, 1, entries.data()), 64);
    EXPECT_EQ(entries.back().PID, 0x5A);

    EXPECT_EQ(LIN_EX_SlaveSetIDMode(handle, 79, table.data(), 1), -5);
    EXPECT_EQ(LIN_EX_SlaveGetIDMode(handle, 79, back), -5);
    EXPECT_EQ(LIN_EX_SlaveGetData(handle, 79, got), -5);
    EXPECT_EQ(LIN_EX_SlaveSetIDMode(0x7E000001, 1, table.data(), 1), -2);
    EXPECT_EQ(LIN_EX_SlaveSetIDMode(handle, 1, nullptr, 1), -7);
    adapter->inject(Fault::NoAnswer, LIN_EX_SLAVE_SET_ID);
    EXPECT_EQ(LIN_EX_SlaveSetIDMode(handle, 1, table.data(), 1), -4);
    adapter->inject(Fault::Oversized, LIN_EX_SLAVE_GET_DATA);
    EXPECT_EQ(LIN_EX_SlaveGetData(handle, 1, got), 64) << "an oversized answer is cut to the 64-record area";
}

TEST_F(Lin, ClassicInterfaceOnNewFirmwareGoesThroughLinEx) {
    LIN_CONFIG cfg{19200, 1, 1, 13};
    ASSERT_EQ(LIN_Init(handle, 0, &cfg), 0);
    EXPECT_EQ(trace->sends(LIN_INIT).size(), 0u);
    EXPECT_EQ(trace->sends(LIN_EX_INIT)[0].data, (Bytes{0, 0, 0, 0x4B, 0, 1}));
    lin().add_slave(0, {0x3C, {1, 2, 3, 4, 5, 6, 7, 8}, false});
    lin().add_slave(0, {0x10, {0x42, 0x43}, true});

    LIN_MSG w[2] = {{0x3C, 2, {1, 2}, 0}, {0x10, 1, {9}, 0}};
    ASSERT_EQ(LIN_Write(handle, 0, w, 2), 0);
    auto sent = records_of(trace->sends(LIN_EX_MASTER_SYNC).back());
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].CheckType, LIN_EX_CHECK_CLASSIC) << "0x3C is written with the classic checksum";
    EXPECT_EQ(sent[1].CheckType, LIN_EX_CHECK_ENHANCED);
    EXPECT_EQ(sent[0].MsgType, 1);
    EXPECT_EQ(sent[0].TimeStamp, 1u);

    LIN_MSG r[2] = {{0x3C, 0, {}, 0}, {0x10, 0, {}, 0}};
    ASSERT_EQ(LIN_Read(handle, 0, r, 2), 0);
    sent = records_of(trace->sends(LIN_EX_MASTER_SYNC).back());
    EXPECT_EQ(sent[0].CheckType, LIN_EX_CHECK_ENHANCED) << "0x3C is read with the enhanced rule";
    EXPECT_EQ(r[0].DataLen, 9);
    EXPECT_EQ(r[1].DataLen, 3) << "two data bytes and the checksum";
    EXPECT_EQ(r[1].Data[0], 0x42);
    LIN_MSG r3d = {0x3D, 0, {}, 0};
    EXPECT_EQ(LIN_Read(handle, 0, &r3d, 1), 0);
    EXPECT_EQ(records_of(trace->sends(LIN_EX_MASTER_SYNC).back())[0].CheckType, LIN_EX_CHECK_CLASSIC);
    EXPECT_EQ(r3d.DataLen, 0) << "nobody answered 0x3D";

    EXPECT_EQ(LIN_SendBreak(handle, 0), 0);
    EXPECT_EQ(records_of(trace->sends(LIN_EX_MASTER_SYNC).back())[0].MsgType, 5);
    adapter->inject(Fault::EmptyPayload, LIN_EX_MASTER_SYNC);
    EXPECT_EQ(LIN_Write(handle, 0, w, 2), -4) << "not every frame came back";

    // Slave side.
    cfg.MasterMode = 0;
    ASSERT_EQ(LIN_Init(handle, 1, &cfg), 0);
    LIN_MSG entries[2] = {{0x21, 2, {7, 8}, 0}, {0x22, 0, {}, 0}};
    ASSERT_EQ(LIN_SlaveSetIDMode(handle, 1, 0, entries, 2), 0);
    auto table = records_of(trace->sends(LIN_EX_SLAVE_SET_ID).back());
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].MsgType, 3);
    EXPECT_EQ(table[0].PID, 0x61);
    LinMasterNode master = lin().master_node(1);
    EXPECT_EQ(master.request(0x21), (Bytes{7, 8, uint8_t(~15)}));
    LIN_MSG got[LIN_EX_MAX_RECORDS];
    ASSERT_EQ(LIN_SlaveGetData(handle, 1, got), 1);
    EXPECT_EQ(got[0].ID, 0x61);
    EXPECT_EQ(got[0].DataLen, 3);
    EXPECT_EQ(got[0].Check, uint8_t(~15));
    ASSERT_EQ(LIN_SlaveSetIDMode(handle, 1, 1, entries, 1), 0);
    EXPECT_EQ(records_of(trace->sends(LIN_EX_SLAVE_SET_ID).back())[0].MsgType, 4);
    EXPECT_EQ(LIN_Init(handle, 0, nullptr), -1);
}

namespace {
class LinOldFirmware : public Lin {
protected:
    AdapterConfig adapter_config() override {
        AdapterConfig c;
        c.firmware_version = 0x0105001D;
        return c;
    }
};
}  // namespace

TEST_F(LinOldFirmware, ClassicInterfaceSpeaksTheOlderCommands) {
    LIN_CONFIG cfg{19200, 1, 1, 13};
    ASSERT_EQ(LIN_Init(handle, 0, &cfg), 0);
    EXPECT_EQ(trace->sends(LIN_EX_INIT).size(), 0u);
    EXPECT_EQ(trace->sends(LIN_INIT)[0].data, (Bytes{0, 0, 0, 0x4B, 0, 1, 1, 13}));
    auto slave = lin().add_slave(0, {0x10, {0x42, 0x43}, true});
    auto listener = lin().add_slave(0, {0x11, {}, true, false});

    LIN_MSG w[2] = {{0x11, 2, {1, 2}, 0}, {0x11, 1, {9}, 0}};
    ASSERT_EQ(LIN_Write(handle, 0, w, 2), 0);
    const auto write = trace->sends(LIN_WRITE)[0];
    EXPECT_EQ(write.data.size(), 1u + 2 * sizeof(LIN_MSG));
    EXPECT_EQ(0, std::memcmp(write.data.data() + 1, w, sizeof(w))) << "records travel raw";
    EXPECT_EQ(trace->gets().back().timeout_ms, 110000 / 19200 + 1000);
    ASSERT_EQ(listener->received().size(), 2u);

    LIN_MSG r[2] = {{0x10, 0, {}, 0}, {0x12, 0, {}, 0}};
    ASSERT_EQ(LIN_Read(handle, 0, r, 2), 0);
    EXPECT_EQ(trace->sends(LIN_READ)[0].data, (Bytes{0, 0x10, 0x12}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 1005) << "the same wait for any batch";
    EXPECT_EQ(r[0].DataLen, 2);
    EXPECT_EQ(r[0].Data[1], 0x43);
    EXPECT_EQ(r[1].DataLen, 0);

    EXPECT_EQ(LIN_SendBreak(handle, 0), 0);
    EXPECT_EQ(trace->sends(LIN_SEND_BREAK)[0].data, (Bytes{0}));

    cfg.MasterMode = 0;
    ASSERT_EQ(LIN_Init(handle, 1, &cfg), 0);
    LIN_MSG entries[1] = {{0x21, 2, {7, 8}, 0}};
    ASSERT_EQ(LIN_SlaveSetIDMode(handle, 1, 0, entries, 1), 0);
    EXPECT_EQ(trace->sends(LIN_SLAVE_SET_ID)[0].data.size(), 2u + sizeof(LIN_MSG));
    EXPECT_EQ(trace->sends(LIN_SLAVE_SET_ID)[0].data[1], 0);
    LinMasterNode master = lin().master_node(1);
    EXPECT_EQ(master.request(0x21).size(), 3u);
    LIN_MSG got[LIN_EX_MAX_RECORDS];
    ASSERT_EQ(LIN_SlaveGetData(handle, 1, got), 1);
    EXPECT_EQ(got[0].ID, 0x61);
    EXPECT_EQ(got[0].Data[1], 8);
    EXPECT_EQ(trace->sends(LIN_EX_SLAVE_GET_DATA).size(), 0u);

    // Answers the older commands reject.
    adapter->inject(Fault::Oversized, LIN_WRITE);
    EXPECT_EQ(LIN_Write(handle, 0, w, 1), -4);
    adapter->inject(Fault::NoAnswer, LIN_READ);
    EXPECT_EQ(LIN_Read(handle, 0, r, 1), -4);
    adapter->inject(Fault::Oversized, LIN_READ);
    LIN_MSG guard[3];
    std::memset(guard, 0x5A, sizeof(guard));
    EXPECT_EQ(LIN_Read(handle, 0, guard, 1), 0);
    EXPECT_EQ(guard[1].ID, 0x5A) << "an oversized answer is drained past the caller's records";
}

TEST_F(Lin, FlinChannelsFoldTheirIndex) {
    EXPECT_EQ(FLIN_Init(handle, 5, 100), 0);
    EXPECT_EQ(trace->sends(FLIN_INIT)[0].data, (Bytes{1, 0, 0, 0x07, 0xD0})) << "index & 3, baud at least 2000";
    EXPECT_EQ(lin().flin_baud(1), 2000u);
    uint8_t data[3] = {0xDE, 0xAD, 0x01};
    EXPECT_EQ(FLIN_WriteData(handle, 6, 0x33, data, 3), 0);
    EXPECT_EQ(trace->sends(FLIN_WRITE)[0].data, (Bytes{2, 0x33, 0xDE, 0xAD, 0x01}));
    ASSERT_EQ(lin().flin_writes(2).size(), 1u);
    EXPECT_EQ(lin().flin_writes(2)[0].cmd, 0x33);

    lin().flin_queue_read(1, {1, 2, 3, 4});
    uint8_t buf[64] = {};
    EXPECT_EQ(FLIN_ReadData(handle, 1, buf), 4);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(FLIN_ReadData(handle, 5, buf), 0);
    EXPECT_EQ(trace->sends(FLIN_READ).back().data, (Bytes{5})) << "the read index is not folded";
    adapter->inject(Fault::Oversized, FLIN_READ);
    EXPECT_EQ(FLIN_ReadData(handle, 1, buf), 64) << "at most 64 bytes land";
    adapter->inject(Fault::NoAnswer, FLIN_WRITE);
    EXPECT_EQ(FLIN_WriteData(handle, 0, 1, nullptr, 0), -4);
    EXPECT_EQ(FLIN_Init(0x7E000001, 0, 9600), -2);
}
