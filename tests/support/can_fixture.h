// The CAN families' end-to-end fixture: one adapter of the kind given by the test
// parameter (classic, multi-protocol, CAN FD), and frame helpers.
#pragma once

#include <chrono>
#include <thread>
#include <vector>

#include "can_model.h"
#include "sim_fixture.h"

namespace can_test {

constexpr uint32_t kClassic = 0x41000001;  // dedicated CAN adapter, 42 MHz
constexpr uint32_t kMulti = 0x21000001;    // multi-protocol adapter, 100 MHz
constexpr uint32_t kFd = 0x53000001;       // CAN FD adapter
constexpr uint32_t kFd2 = 0x54000001;

inline bool is_fd(uint32_t identifier) { return (identifier >> 24) == 0x53 || (identifier >> 24) == 0x54; }

inline std::string kind_name(const ::testing::TestParamInfo<uint32_t>& info) {
    switch (info.param >> 24) {
        case 0x41: return "Classic";
        case 0x21: return "MultiProtocol";
        case 0x53: return "CanFd53";
        case 0x54: return "CanFd54";
        default: return "Other";
    }
}

inline CAN_MSG make_frame(uint32_t id, uint8_t len, uint8_t seed, bool extended = false) {
    CAN_MSG m{};
    m.ID = id;
    m.ExternFlag = extended ? 1 : 0;
    m.DataLen = len;
    for (int i = 0; i < 8; ++i) m.Data[i] = static_cast<uint8_t>(seed + i);
    return m;
}

inline polybus_sim::BusFrame bus_frame(uint32_t id, uint8_t len, uint8_t seed, bool extended = false) {
    polybus_sim::BusFrame f;
    f.id = id;
    f.extended = extended;
    f.len = len;
    for (int i = 0; i < 64; ++i) f.data[i] = static_cast<uint8_t>(seed + i);
    return f;
}

// One adapter of the kind given by the test parameter.
class CanKindTest : public polybus_test::SimTest, public ::testing::WithParamInterface<uint32_t> {
protected:
    polybus_sim::AdapterConfig adapter_config() override {
        polybus_sim::AdapterConfig c;
        c.identifier = GetParam();
        return c;
    }
    // Buffers and readers are per adapter position, so they outlive a test: start clean.
    void SetUp() override {
        polybus_test::SimTest::SetUp();
        for (unsigned char ch = 0; ch < 2; ++ch) {
            CAN_ClearMsg(handle, ch);
            CAN_ClearCANMsgFromUDSBuffer(handle, ch);
        }
        trace->clear();
        adapter->clear_received();
    }
    void TearDown() override {
        CAN_StopGetMsg(handle, 0);
        CAN_StopGetMsg(handle, 1);
        polybus_test::SimTest::TearDown();
    }

    bool fd() const { return is_fd(GetParam()); }
    polybus_sim::CanModel& can() { return model<polybus_sim::CanModel>(); }

    // Both channels on at the same bit rate, through the classic calls (trace cleared).
    void open_channels(unsigned bps = 1000000) {
        CAN_INIT_CONFIG c;
        ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, bps), 0);
        ASSERT_EQ(CAN_Init(handle, 0, &c), 0);
        ASSERT_EQ(CAN_Init(handle, 1, &c), 0);
        trace->clear();
    }

    // Everything buffered for the channel (CAN_GetMsg fetches first; on CAN FD adapters it
    // moves at most 2000 frames per call).
    std::vector<CAN_MSG> take_all(int ch) {
        std::vector<CAN_MSG> all, out(CAN_BUFFER_FRAMES);
        for (;;) {
            const int n = CAN_GetMsg(handle, static_cast<unsigned char>(ch), out.data());
            if (n <= 0) break;
            all.insert(all.end(), out.begin(), out.begin() + n);
            if (!fd()) break;
        }
        return all;
    }
};

using polybus_test::eventually;

}  // namespace can_test
