// Diagnostic ECUs placed by world files, loaded in this process and reached through the
// library as a program reaches them: the addressing and frame modes the file asks for,
// identifiers of every kind (text, hex, generated beyond 4095 bytes), downloads into
// each memory region, the flow control the file sets, and each fault on demand.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "polybus/polybus.h"
#include "sim_fixture.h"
#include "world.h"

namespace {

using Bytes = std::vector<uint8_t>;
using polybus_sim::world::Bench;

// One adapter on one bus with the ECU the test gives.
struct EcuMode {
    const char* name;
    bool fd_adapter;
    bool ids29;
    bool ext_addr;
    bool fd_frames;
    bool brs;
    int frame_len;
};

const EcuMode kSetups[] = {
    {"Classic11BitNormal", false, false, false, false, false, 8},
    {"Classic29BitExtendedAddressing", false, true, true, false, false, 8},
    {"FdAdapterClassicFrames", true, false, false, false, false, 8},
    {"Fd64Brs11BitNormal", true, false, false, true, true, 64},
    {"Fd16NoBrs29BitExtendedAddressing", true, true, true, true, false, 16},
};

std::string world_text(const EcuMode& s, const std::string& ecu_keys) {
    std::string w = std::string("[[adapter]]\nname = \"tester\"\nid = ") + (s.fd_adapter ? "0x53000001" : "0x41000001") +
                    "\n\n[[can_bus]]\nname = \"diag\"\nbitrate = 500000\n" +
                    (s.fd_adapter ? "data_bitrate = 2000000\n" : "") + "channels = [\"tester:0\"]\n\n";
    w += "[[can_uds_ecu]]\nbus = \"diag\"\n";
    if (s.ids29) w += "extended = true\n";
    if (s.ext_addr) w += "addressing = \"extended\"\necu_address = 0x22\ntester_address = 0xF4\n";
    if (s.fd_frames) w += "fd = true\nframe_len = " + std::to_string(s.frame_len) + "\n";
    if (s.fd_frames && !s.brs) w += "brs = false\n";
    w += ecu_keys;
    w += "[can_uds_ecu.identifiers]\n"
         "F190 = { text = \"WP0ZZZ99ZTS392124\" }\n"
         "0101 = { hex = \"01 02 03 04\" }\n"
         "F1A0 = { length = 5000 }\n"
         "F1A1 = { length = 300, fill = 0x5A }\n";
    return w;
}

class UdsWorld : public ::testing::Test {
protected:
    void load(const EcuMode& s, const std::string& ecu_keys = "") {
        setup_ = s;
        polybus_sim::Simulator::instance().remove_all();
        bench_ = polybus_sim::world::parse_world(world_text(s, ecu_keys), "/tmp/uds_world.toml").build();
        const std::vector<int> handles = polybus_test::scan();
        ASSERT_EQ(handles.size(), 1u);
        dev_ = handles[0];
        ASSERT_TRUE(USB_OpenDevice(dev_));
        opened_ = true;
        if (s.fd_adapter) {
            CANFD_INIT_CONFIG c{};
            ASSERT_EQ(CANFD_GetCANSpeedArg(dev_, &c, 500000, 2000000), 0);
            ASSERT_EQ(CANFD_Init(dev_, 0, &c), 0);
        } else {
            CAN_INIT_CONFIG c{};
            ASSERT_EQ(CAN_GetCANSpeedArg(dev_, &c, 500000), 0);
            ASSERT_EQ(CAN_Init(dev_, 0, &c), 0);
        }
    }
    void TearDown() override {
        if (opened_) USB_CloseDevice(dev_);
        bench_.reset();
    }

    CAN_UDS_ADDR addr() const {
        CAN_UDS_ADDR a{};
        a.RequestId = setup_.ids29 ? 0x18DA10F1 : 0x7E0;
        a.ResponseId = setup_.ids29 ? 0x18DAF110 : 0x7E8;
        a.Flags = uint8_t((setup_.ids29 ? CAN_UDS_FLAG_29BIT : 0) | (setup_.fd_frames ? CAN_UDS_FLAG_CANFD : 0) |
                          (setup_.brs ? CAN_UDS_FLAG_BRS : 0));
        a.ExtAddrMode = setup_.ext_addr ? 1 : 0;
        a.ExtAddr = 0x22;
        a.FrameLen = uint8_t(setup_.frame_len);
        return a;
    }

    // One request and its answer; `rc` gets the request's status, or the response's.
    Bytes call(const Bytes& request, int& rc, int timeout_ms = 3000) {
        CAN_UDS_ADDR a = addr();
        rc = CAN_UDS_Request(dev_, 0, &a, const_cast<uint8_t*>(request.data()), int(request.size()));
        if (rc != 0) return {};
        Bytes out(1 << 14, 0xEE);
        rc = CAN_UDS_Response(dev_, 0, &a, out.data(), timeout_ms);
        out.resize(rc > 0 ? size_t(rc) : 0);
        return out;
    }
    Bytes call(const Bytes& request) {
        int rc = 0;
        Bytes out = call(request, rc);
        EXPECT_GT(rc, 0) << "request 0x" << std::hex << int(request[0]) << " of " << std::dec << request.size()
                         << " bytes";
        return out;
    }

    // Downloads `data` to `address` and reads it back in pieces below 4096 bytes.
    void download_and_verify(uint32_t address, const Bytes& data) {
        auto be32 = [](Bytes& b, uint32_t v) {
            for (int i = 3; i >= 0; --i) b.push_back(uint8_t(v >> (8 * i)));
        };
        Bytes request{0x34, 0x00, 0x44};
        be32(request, address);
        be32(request, uint32_t(data.size()));
        const Bytes accepted = call(request);
        ASSERT_EQ(accepted.size(), 4u);
        ASSERT_EQ(accepted[0], 0x74);
        const size_t step = size_t(accepted[2] << 8 | accepted[3]) - 2;
        uint8_t counter = 1;
        for (size_t pos = 0; pos < data.size(); pos += step, ++counter) {
            Bytes transfer{0x36, counter};
            transfer.insert(transfer.end(), data.begin() + long(pos),
                            data.begin() + long(std::min(data.size(), pos + step)));
            ASSERT_EQ(call(transfer), (Bytes{0x76, counter}));
        }
        ASSERT_EQ(call({0x37}), Bytes{0x77});
        for (size_t pos = 0; pos < data.size(); pos += 4000) {
            const size_t n = std::min<size_t>(4000, data.size() - pos);
            Bytes read{0x23, 0x24};
            be32(read, address + uint32_t(pos));
            read.push_back(uint8_t(n >> 8));
            read.push_back(uint8_t(n));
            const Bytes back = call(read);
            ASSERT_EQ(back.size(), n + 1);
            EXPECT_EQ(back[0], 0x63);
            EXPECT_TRUE(std::equal(back.begin() + 1, back.end(), data.begin() + long(pos))) << "at " << pos;
        }
    }

    EcuMode setup_{};
    int dev_ = 0;
    bool opened_ = false;
    std::unique_ptr<Bench> bench_;
};

class UdsWorldModes : public UdsWorld, public ::testing::WithParamInterface<EcuMode> {};

TEST_P(UdsWorldModes, IdentifiersOfEveryKindAreReadAndWritten) {
    load(GetParam());
    const std::string vin = "WP0ZZZ99ZTS392124";
    Bytes expected{0x62, 0xF1, 0x90};
    expected.insert(expected.end(), vin.begin(), vin.end());
    EXPECT_EQ(call({0x22, 0xF1, 0x90}), expected);
    EXPECT_EQ(call({0x22, 0x01, 0x01}), (Bytes{0x62, 0x01, 0x01, 1, 2, 3, 4}));

    // 5003 bytes: the escaped first frame; the generated bytes change from one 256-byte
    // stretch to the next, so a lost or repeated frame anywhere shows.
    const Bytes big = call({0x22, 0xF1, 0xA0});
    ASSERT_EQ(big.size(), 5003u);
    for (size_t i = 0; i < 5000; ++i) ASSERT_EQ(big[3 + i], uint8_t(i + (i >> 8))) << "byte " << i;
    const Bytes filled = call({0x22, 0xF1, 0xA1});
    ASSERT_EQ(filled.size(), 303u);
    EXPECT_EQ(std::count(filled.begin() + 3, filled.end(), 0x5A), 300);

    // Several identifiers in one request; then one rewritten and read again.
    EXPECT_EQ(call({0x22, 0x01, 0x01, 0x01, 0x01}), (Bytes{0x62, 0x01, 0x01, 1, 2, 3, 4, 0x01, 0x01, 1, 2, 3, 4}));
    EXPECT_EQ(call({0x2E, 0x01, 0x01, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0}), (Bytes{0x6E, 0x01, 0x01}));
    EXPECT_EQ(call({0x22, 0x01, 0x01}), (Bytes{0x62, 0x01, 0x01, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0}));
    EXPECT_EQ(call({0x22, 0xF1, 0x91}), (Bytes{0x7F, 0x22, 0x31})) << "an identifier the file does not list";
}

TEST_P(UdsWorldModes, DownloadsLandInEachMemoryRegion) {
    load(GetParam(), "memory = [{ base = 0x08000000, size = 0x10000 }, { base = 0x20000000, size = 0x2000 }]\n");
    Bytes flash(5000), ram(0x2000);
    for (size_t i = 0; i < flash.size(); ++i) flash[i] = uint8_t(i * 13 + 1);
    for (size_t i = 0; i < ram.size(); ++i) ram[i] = uint8_t(i * 7 + 3);
    download_and_verify(0x08000000, flash);
    download_and_verify(0x20000000, ram);  // the whole region, to its last byte
    // Beyond a region's end, and between regions, nothing is there.
    EXPECT_EQ(call({0x23, 0x24, 0x20, 0x00, 0x1F, 0xFF, 0x00, 0x02}), (Bytes{0x7F, 0x23, 0x31}));
    EXPECT_EQ(call({0x34, 0x00, 0x44, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10}), (Bytes{0x7F, 0x34, 0x31}));
    // A read across the gap between the regions is refused, not stitched together.
    EXPECT_EQ(call({0x23, 0x24, 0x08, 0x00, 0xFF, 0xFF, 0x00, 0x02}), (Bytes{0x7F, 0x23, 0x31}));
}

INSTANTIATE_TEST_SUITE_P(Modes, UdsWorldModes, ::testing::ValuesIn(kSetups),
                         [](const ::testing::TestParamInfo<EcuMode>& info) { return std::string(info.param.name); });

// The flow control the file sets reaches the tester as given, in the ECU's frames
// (padding included), and the library's segmented request keeps to it.
TEST_F(UdsWorld, FlowControlAndPaddingAreTheFilesOwn) {
    load(kSetups[0], "block_size = 3\nst_min = 0xF2\npadding = 0xA7\n");
    Bytes request{0x2E, 0x01, 0x01};
    for (int i = 0; i < 60; ++i) request.push_back(uint8_t(i));
    EXPECT_EQ(call(request), (Bytes{0x6E, 0x01, 0x01}));
    Bytes back{0x62, 0x01, 0x01};
    back.insert(back.end(), request.begin() + 3, request.end());
    EXPECT_EQ(call({0x22, 0x01, 0x01}), back);

    // The library copies the frames it fetched into the application's buffer too.
    static CAN_MSG got[CAN_BUFFER_FRAMES];
    const int n = CAN_GetMsg(dev_, 0, got);
    ASSERT_GT(n, 0);
    int flow_controls = 0, single_frames = 0;
    for (int i = 0; i < n; ++i) {
        if (got[i].ID != 0x7E8) continue;
        const Bytes data(got[i].Data, got[i].Data + got[i].DataLen);
        if (data[0] == 0x30) {
            ++flow_controls;
            EXPECT_EQ(data, (Bytes{0x30, 0x03, 0xF2, 0xA7, 0xA7, 0xA7, 0xA7, 0xA7}));
        }
        if (data[0] == 0x03) {
            ++single_frames;
            EXPECT_EQ(data, (Bytes{0x03, 0x6E, 0x01, 0x01, 0xA7, 0xA7, 0xA7, 0xA7}));
        }
    }
    // 63 bytes: a first frame and 9 consecutive frames in blocks of 3: 3 flow controls.
    EXPECT_EQ(flow_controls, 3);
    EXPECT_EQ(single_frames, 1);
}

// Each fault the file can ask for, seen as the library reports it.
TEST_F(UdsWorld, FaultsOnDemandReachTheTester) {
    // Segmented in every mode: longer than a 64-byte frame holds.
    Bytes long_request{0x2E, 0x01, 0x01};
    long_request.resize(100, 0x42);
    int rc = 0;

    load(kSetups[3], "fc_overflow = true\n");
    call(long_request, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_OVERFLOW);
    EXPECT_EQ(call({0x3E, 0x00}), (Bytes{0x7E, 0x00})) << "single frames still pass";

    load(kSetups[0], "fc_wait = 3\nfc_wait_interval_ms = 5\n");
    EXPECT_EQ(call(long_request), (Bytes{0x6E, 0x01, 0x01})) << "a few wait frames are waited out";

    load(kSetups[0], "fc_wait = \"forever\"\nfc_wait_interval_ms = 50\n");
    const auto start = std::chrono::steady_clock::now();
    call(long_request, rc);
    const double waited_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT);
    EXPECT_GE(waited_ms, 950) << "wait frames do not restart the flow-control time-out, nor end it early";

    load(kSetups[1], "wrong_sequence_at = 2\n");
    call({0x22, 0xF1, 0x90}, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_SEQUENCE);

    load(kSetups[3], "oversized_single_frame = true\n");
    call({0x3E, 0x00}, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_FRAME);

    load(kSetups[4], "silent = true\n");
    call({0x10, 0x03}, rc, 300);
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT) << "acknowledged on the bus, never answered";
    call(long_request, rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT) << "no flow control for a first frame either";
}

}  // namespace
