// UDS over CAN while the CAN reader thread fetches (the UDS calls then only wait on the
// UDS buffer) and the application drains its own buffer on another thread.
#include <atomic>
#include <thread>

#include "can_uds_test_support.h"

using namespace uds_test;

namespace {

class CanUdsReader : public UdsFixture, public ::testing::WithParamInterface<Mode> {
protected:
    Mode mode() const override { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Modes, CanUdsReader, ::testing::Values(kModes[0], kModes[4]),
                         [](const ::testing::TestParamInfo<Mode>& i) { return std::string(i.param.name); });

TEST_P(CanUdsReader, RequestsAndResponsesWhileTheReaderThreadFetches) {
    ASSERT_EQ(CAN_StartGetMsg(handle, 0), 0);
    std::atomic<bool> stop{false};
    std::atomic<size_t> seen{0};
    std::thread application([&] {
        std::vector<CAN_MSG> frames(CAN_READ_MAX_FRAMES);
        while (!stop.load()) {
            const int n = CAN_GetMsgWithSize(handle, 0, frames.data(), int(frames.size()));
            if (n > 0) seen += size_t(n);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    for (size_t len : {5, 300, 5000}) {
        const Bytes value = pattern(len - 3, uint8_t(len));
        ecu_set([&](UdsEcuConfig& c) { c.identifiers[0x4000] = value; });
        EXPECT_EQ(call({0x22, 0x40, 0x00}), concat({0x62, 0x40, 0x00}, value)) << len;
    }
    const Bytes written = pattern(3000, 1);
    EXPECT_EQ(call(concat({0x2E, 0x01, 0x02}, written)), (Bytes{0x6E, 0x01, 0x02}));
    EXPECT_EQ(ecu->identifier(0x0102), written);
    // A wait for flow control that ends with the time-out, served by the thread alone.
    ecu_set([](UdsEcuConfig& c) { c.silent = true; });
    int rc = 0;
    const auto t0 = Clock::now();
    call(concat({0x2E, 0x01, 0x02}, written), rc);
    EXPECT_EQ(rc, CAN_UDS_ERR_TIMEOUT);
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(1500));
    stop = true;
    application.join();
    EXPECT_GT(seen.load(), 0u) << "the application saw the diagnostic traffic";
    EXPECT_EQ(CAN_StopGetMsg(handle, 0), 0);
}

}  // namespace
