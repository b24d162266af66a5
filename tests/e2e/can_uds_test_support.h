// Shared by the UDS over CAN end-to-end tests: the addressing and frame modes, an adapter
// with a diagnostic ECU on channel 0's bus at 500 kbit/s (CAN FD: 500 kbit/s / 2 Mbit/s),
// and request helpers.
#pragma once

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "can_model.h"
#include "can_fixture.h"
#include "can_uds_ecu.h"

namespace uds_test {

using namespace polybus_sim;
using can_test::kClassic;
using can_test::kFd;

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

struct Mode {
    const char* name;
    uint32_t adapter;
    bool ids29;
    bool ext_addr;
    bool fd;
    bool brs;
    uint8_t frame_len;
};

inline const Mode kModes[] = {
    {"Classic11BitNormal", kClassic, false, false, false, false, 8},
    {"Classic29BitExtended", kClassic, true, true, false, false, 8},
    {"FdAdapterClassicFrames", kFd, false, false, false, false, 8},
    {"Fd64Brs", kFd, false, false, true, true, 64},
    {"Fd64NoBrs29BitExtended", kFd, true, true, true, false, 64},
    {"Fd16Brs", kFd, false, false, true, true, 16},
};

inline Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(seed + i * 7 + (i >> 8));
    return b;
}

inline Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The data bytes of a frame as the bus carried it.
inline Bytes bytes_of(const BusFrame& f) { return Bytes(f.data, f.data + f.len); }

class UdsFixture : public polybus_test::SimTest {
protected:
    virtual Mode mode() const = 0;
    polybus_sim::AdapterConfig adapter_config() override {
        polybus_sim::AdapterConfig c;
        c.identifier = mode().adapter;
        return c;
    }
    void SetUp() override {
        polybus_test::SimTest::SetUp();
        if (is_fd()) {
            CANFD_INIT_CONFIG c{};
            ASSERT_EQ(CANFD_GetCANSpeedArg(handle, &c, 500000, 2000000), 0);
            ASSERT_EQ(CANFD_Init(handle, 0, &c), 0);
        } else {
            CAN_INIT_CONFIG c{};
            ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, 500000), 0);
            ASSERT_EQ(CAN_Init(handle, 0, &c), 0);
        }
        CAN_ClearMsg(handle, 0);
        CAN_ClearCANMsgFromUDSBuffer(handle, 0);
        ecu = std::make_shared<UdsEcu>(*adapter, ecu_config());
        ecu->attach(model<CanModel>().bus(0));
        trace->clear();
    }
    void TearDown() override {
        ecu->detach();
        CAN_StopGetMsg(handle, 0);
        polybus_test::SimTest::TearDown();
    }

    bool is_fd() const { return can_test::is_fd(mode().adapter); }
    int x() const { return mode().ext_addr ? 1 : 0; }

    UdsEcuConfig ecu_config() const {
        const Mode m = mode();
        UdsEcuConfig c;
        c.request_id = m.ids29 ? 0x18DA10F1 : 0x7E0;
        c.response_id = m.ids29 ? 0x18DAF110 : 0x7E8;
        c.extended_ids = m.ids29;
        c.extended_addressing = m.ext_addr;
        c.ecu_address = 0x10;
        c.tester_address = 0xF1;
        c.nominal_bps = 500000;
        c.data_bps = m.fd ? 2000000 : 0;
        c.fd = m.fd;
        c.brs = m.brs;
        c.frame_len = m.fd ? m.frame_len : 8;
        c.identifiers = {{0xF190, Bytes{'W', 'P', '0', 'Z', 'Z', 'Z', '9', '9', 'Z', 'T', 'S', '3', '9', '2', '1', '2', '4'}},
                         {0x0101, Bytes{1, 2, 3, 4}},
                         {0x0102, Bytes{}}};
        return c;
    }
    // Changes the ECU's set-up for one test (its data stays).
    template <typename F>
    void ecu_set(F change) {
        UdsEcuConfig c = ecu->config();
        change(c);
        ecu->configure(c);
    }

    CAN_UDS_ADDR addr() const {
        const Mode m = mode();
        CAN_UDS_ADDR a{};
        a.RequestId = m.ids29 ? 0x18DA10F1 : 0x7E0;
        a.ResponseId = m.ids29 ? 0x18DAF110 : 0x7E8;
        a.Flags = uint8_t((m.ids29 ? CAN_UDS_FLAG_29BIT : 0) | (m.fd ? CAN_UDS_FLAG_CANFD : 0) |
                          (m.brs ? CAN_UDS_FLAG_BRS : 0));
        a.ExtAddrMode = m.ext_addr ? 1 : 0;
        a.ExtAddr = 0x10;
        a.FrameLen = m.frame_len;
        return a;
    }

    // One request and its response; `rc` gets the response status.
    Bytes call(const Bytes& request, int& rc, int timeout_ms = 3000) {
        CAN_UDS_ADDR a = addr();
        rc = CAN_UDS_Request(handle, 0, &a, const_cast<uint8_t*>(request.data()), int(request.size()));
        if (rc != 0) return {};
        Bytes out(1 << 17, 0xEE);
        rc = CAN_UDS_Response(handle, 0, &a, out.data(), timeout_ms);
        out.resize(rc > 0 ? size_t(rc) : 0);
        return out;
    }
    Bytes call(const Bytes& request) {
        int rc = 0;
        Bytes out = call(request, rc);
        EXPECT_GE(rc, 0) << "request of " << request.size() << " bytes";
        return out;
    }

    // Frames the ECU heard, their data bytes.
    std::vector<Bytes> heard() {
        std::vector<Bytes> out;
        for (auto& h : ecu->heard()) out.push_back(bytes_of(h.frame));
        return out;
    }

    std::shared_ptr<UdsEcu> ecu;
};

}  // namespace uds_test
