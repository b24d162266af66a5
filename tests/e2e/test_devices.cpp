// Discovery, handles, opening, resetting and reconnecting, and how every exchange
// copes with an adapter that misbehaves, through the simulated adapter.
#include <chrono>
#include <stdexcept>

#include "device_model.h"
#include "gpio_model.h"
#include "sim_fixture.h"
#include "wire/gpio.h"
#include "transport/lock.h"
#include "transport/usb_device.h"
#include "transport/usb_message.h"
#include "wire/device.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using Clock = std::chrono::steady_clock;

namespace {
class Discovery : public ::testing::Test {
protected:
    void SetUp() override { Simulator::instance().remove_all(); }
    void TearDown() override { Simulator::instance().remove_all(); }
    std::shared_ptr<Adapter> add(uint32_t id) {
        AdapterConfig c;
        c.identifier = id;
        return Simulator::instance().add(c);
    }
};
}  // namespace

TEST_F(Discovery, EmptyBusWritesNothing) {
    int handles[4] = {7, 7, 7, 7};
    EXPECT_EQ(USB_ScanDevice(handles), 0);
    EXPECT_EQ(handles[0], 7);
    EXPECT_EQ(USB_ScanDevice(nullptr), 0);
}

TEST_F(Discovery, AdaptersKeepFirstFoundOrderAndVanishOnRescan) {
    auto first = add(0x41000001);
    EXPECT_EQ(scan(), (std::vector<int>{0x41000001}));
    // Found later, listed later, whatever order the bus enumerates them in.
    auto second = add(0x53000002);
    EXPECT_EQ(scan(), (std::vector<int>{0x41000001, 0x53000002}));
    EXPECT_EQ(scan(), (std::vector<int>{0x41000001, 0x53000002}));
    Simulator::instance().remove(first);
    EXPECT_EQ(scan(), (std::vector<int>{0x53000002}));
    // The survivor now owns slot 0 and still works.
    EXPECT_EQ(usb_list_get_index(0x53000002), 0u);
    ASSERT_TRUE(USB_OpenDevice(0x53000002));
    unsigned v = 0;
    EXPECT_EQ(GPIO_Read(0x53000002, 1, &v), 0);
    USB_CloseDevice(0x53000002);
}

TEST_F(Discovery, IdentityRules) {
    AdapterConfig c;
    c.identifier = 0x41000003;
    c.answers_identifier = false;
    c.bus = 20;
    c.address = 3;
    Simulator::instance().add(c);
    c = AdapterConfig{};
    c.identifier = 0x41000004;
    c.manufacturer = "Someone Else Entirely";
    Simulator::instance().add(c);
    for (uint16_t product : {0x7919, 0x791A}) {
        c = AdapterConfig{};
        c.identifier = 0x21000000u | (product - 0x7914u);
        c.product = product;
        Simulator::instance().add(c);
    }
    // No identifier: bus 20, address 3 gives 0x1403. Wrong maker or product: not ours.
    auto found = scan();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<int>{0x1403, 0x21000005}));
    ASSERT_TRUE(USB_OpenDevice(0x1403));
    EXPECT_EQ(GPIO_SetOutput(0x1403, 1, 0), 0);
    USB_CloseDevice(0x1403);
}

TEST_F(Discovery, OpenCloseAndRescanInvalidateHandles) {
    add(0x41000001);
    ASSERT_EQ(scan().size(), 1u);
    EXPECT_FALSE(USB_CloseDevice(0x41000001)) << "not open yet";
    EXPECT_FALSE(USB_CloseDevice(0x0BADF00D));
    EXPECT_FALSE(USB_OpenDevice(0x0BADF00D));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), -2) << "a listed but closed adapter cannot be used";
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);
    // A scan closes every adapter, open ones included.
    ASSERT_EQ(scan().size(), 1u);
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), -2);
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);
    EXPECT_TRUE(USB_CloseDevice(0x41000001));
    EXPECT_FALSE(USB_CloseDevice(0x41000001));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), -2);
}

TEST_F(Discovery, ResetReconnectsOnlyAtTheSameAddress) {
    auto a = add(0x41000001);
    ASSERT_EQ(scan().size(), 1u);
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    ASSERT_TRUE(USB_ResetDevice(0x41000001));
    EXPECT_TRUE(USB_RetryConnect(0x41000001));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);

    a->config().reenumerates_elsewhere = true;
    const int old_address = a->config().address;
    ASSERT_TRUE(USB_ResetDevice(0x41000001));
    EXPECT_FALSE(USB_RetryConnect(0x41000001));
    EXPECT_NE(a->config().address, old_address);
    // A new scan finds it again under the same handle.
    EXPECT_EQ(scan(), (std::vector<int>{0x41000001}));
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);
    USB_CloseDevice(0x41000001);
}

// A reconnected adapter is a new USB device: closing and opening it again must work
// without a scan, and so must opening it while it is still open.
TEST_F(Discovery, ReconnectedAdapterReopensWithoutAScan) {
    auto a = add(0x41000001);
    ASSERT_EQ(scan().size(), 1u);
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    ASSERT_TRUE(USB_ResetDevice(0x41000001));
    ASSERT_TRUE(USB_RetryConnect(0x41000001));
    ASSERT_TRUE(USB_OpenDevice(0x41000001)) << "reopening the reconnected, open adapter";
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);
    ASSERT_TRUE(USB_CloseDevice(0x41000001));
    ASSERT_TRUE(USB_OpenDevice(0x41000001)) << "reopening after a close";
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);

    // The same after the reset that device information makes on its own.
    a->inject(Fault::NoAnswer, DEV_GET_INFO, 1);
    ASSERT_TRUE(DEV_GetDeviceInfo(0x41000001, nullptr, nullptr));
    ASSERT_TRUE(USB_CloseDevice(0x41000001));
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);
    USB_CloseDevice(0x41000001);
}

// The identifier read and the reset are vendor control requests, and the trace shows them.
TEST_F(Discovery, VendorRequestsAppearInTheTrace) {
    add(0x41000001);
    TraceLog trace;
    ASSERT_EQ(scan().size(), 1u);
    auto controls = trace.controls();
    ASSERT_GE(controls.size(), 1u);
    EXPECT_EQ(controls[0].dev_handle, 0) << "the adapter has no handle while it is recognised";
    EXPECT_EQ(controls[0].request_type, 0xC1);
    EXPECT_EQ(controls[0].command, uint32_t{VENDOR_READ_IDENTIFIER});
    EXPECT_EQ(controls[0].result, 4);
    EXPECT_EQ(controls[0].data, (std::vector<uint8_t>{0x01, 0x00, 0x00, 0x41}));
    EXPECT_EQ(controls[0].timeout_ms, 100);
    EXPECT_TRUE(trace.sends().empty()) << "control requests are not command frames";

    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    trace.clear();
    ASSERT_TRUE(USB_ResetDevice(0x41000001));
    controls = trace.controls();
    ASSERT_EQ(controls.size(), 1u);
    EXPECT_EQ(controls[0].dev_handle, 0x41000001);
    EXPECT_EQ(controls[0].request_type, 0x41);
    EXPECT_EQ(controls[0].command, uint32_t{VENDOR_RESET});
    EXPECT_EQ(controls[0].value, 0);
    EXPECT_EQ(controls[0].length, 0u);
    EXPECT_EQ(controls[0].result, 0);
    EXPECT_TRUE(controls[0].data.empty());
    ASSERT_TRUE(USB_RetryConnect(0x41000001));
    USB_CloseDevice(0x41000001);
}

TEST_F(Discovery, SilentAdapterFailsToOpenAfterSixSeconds) {
    auto a = add(0x41000001);
    ASSERT_EQ(scan().size(), 1u);
    a->inject(Fault::NoAnswer, DEV_GET_INFO, 1000);
    const auto start = Clock::now();
    EXPECT_FALSE(USB_OpenDevice(0x41000001));
    const auto took = Clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(5900));
    EXPECT_LT(took, std::chrono::seconds(9));
}

TEST_F(Discovery, DeviceInformationRecoversFromOneLostAnswer) {
    auto a = add(0x41000001);
    ASSERT_EQ(scan().size(), 1u);
    ASSERT_TRUE(USB_OpenDevice(0x41000001));
    // One lost answer: the library resets the adapter, reconnects and asks again.
    a->inject(Fault::NoAnswer, DEV_GET_INFO, 1);
    DEVICE_INFO info{};
    EXPECT_TRUE(DEV_GetDeviceInfo(0x41000001, &info, nullptr));
    EXPECT_EQ(info.FirmwareVersion, a->config().firmware_version);
    EXPECT_EQ(GPIO_Write(0x41000001, 1, 1), 0);
    USB_CloseDevice(0x41000001);
}

// A command code has one owner in the simulator: a second registration is refused at
// once, naming the code, instead of silently replacing the first handler.
TEST(SimulatedAdapter, RegisteringACommandCodeTwiceIsRefused) {
    auto a = std::make_shared<Adapter>(AdapterConfig{});
    a->on(0x7777, [](const Frame&) {});
    try {
        a->on(0x7777, [](const Frame&) {});
        FAIL() << "the second registration was accepted";
    } catch (const std::logic_error& e) {
        EXPECT_NE(std::string(e.what()).find("0x7777"), std::string::npos) << e.what();
    }
    // A model whose codes are already served cannot be built on the adapter either.
    install_models(*a);
    EXPECT_THROW(GpioModel extra(*a), std::logic_error);
}

// --- faults on an open adapter -------------------------------------------------------

class Faults : public SimTest {};

TEST_F(Faults, EveryBadAnswerIsAStatusAndThePipeStaysInStep) {
    unsigned value = 0xCAFE;
    struct Case {
        Fault fault;
        const char* name;
    } cases[] = {{Fault::ShortPayload, "short payload"}, {Fault::Oversized, "oversized"},
                 {Fault::ShortHeader, "short header"},   {Fault::EmptyPayload, "empty payload"}};
    for (const auto& c : cases) {
        adapter->inject(c.fault, GPIO_READ);
        EXPECT_EQ(GPIO_Read(handle, 0xFF, &value), -4) << c.name;
        EXPECT_EQ(value, 0xCAFEu) << c.name << ": the caller's value must stay untouched";
        // The next exchange must see its own answer, not leftovers.
        EXPECT_EQ(GPIO_SetOutput(handle, 0xFF, 0), 0) << c.name;
        EXPECT_EQ(GPIO_Write(handle, 0xFF, 0x5A), 0) << c.name;
        unsigned back = 0;
        EXPECT_EQ(GPIO_Read(handle, 0xFF, &back), 0) << c.name;
        EXPECT_EQ(back, 0x5Au) << c.name;
    }
}

// An oversized answer never overruns the caller's buffer; a wrong echo fails where the
// command is checked. Either way the next exchange is fine.
TEST_F(Faults, OversizedAnswerNeverOverrunsTheCallersBuffer) {
    unsigned char info[64 + 16];
    memset(info, 0xAB, sizeof(info));
    for (Fault f : {Fault::Oversized, Fault::WrongEcho}) {
        adapter->inject(f, DEV_GET_HARDWARE_INFO);
        EXPECT_FALSE(DEV_GetHardwareInfo(handle, info));
        for (size_t i = 64; i < sizeof(info); ++i) ASSERT_EQ(info[i], 0xAB) << "byte " << i;
        EXPECT_TRUE(DEV_GetHardwareInfo(handle, info));
        EXPECT_EQ(info[0], 1);
    }
}

TEST_F(Faults, MissingAnswerTimesOutWithTheFamilyTimeout) {
    adapter->inject(Fault::NoAnswer, GPIO_WRITE);
    const auto start = Clock::now();
    EXPECT_EQ(GPIO_Write(handle, 1, 1), -4);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(950));
    auto gets = trace->gets();
    ASSERT_FALSE(gets.empty());
    EXPECT_EQ(gets.back().result, -3);
    EXPECT_EQ(gets.back().timeout_ms, 1000);
    EXPECT_EQ(GPIO_Write(handle, 1, 1), 0);
}

TEST_F(Faults, UnplugBeforeOrDuringAnAnswer) {
    adapter->inject(Fault::UnplugDuring, GPIO_READ);
    unsigned v = 0;
    EXPECT_EQ(GPIO_Read(handle, 1, &v), -4);
    EXPECT_EQ(GPIO_Read(handle, 1, &v), -2) << "a vanished adapter cannot be written to";
    // It comes back at the same address: reconnecting works without a scan.
    adapter->replug(false);
    EXPECT_TRUE(USB_RetryConnect(handle));
    EXPECT_EQ(GPIO_Read(handle, 1, &v), 0);

    adapter->inject(Fault::UnplugBefore, GPIO_WRITE);
    EXPECT_EQ(GPIO_Write(handle, 1, 1), -4);
    EXPECT_EQ(GPIO_Write(handle, 1, 1), -2);
    EXPECT_TRUE(scan().empty()) << "the sweep drops the vanished adapter";
    EXPECT_EQ(GPIO_Write(handle, 1, 1), -2);
}

// --- the transport's own rules, seen from the adapter --------------------------------

class Transport : public SimTest {};

TEST_F(Transport, FramesReachTheAdapterWithZeroLengthPacketsOnlyWhenNeeded) {
    const int before = adapter->zero_length_packets();
    // 8 + 504 = 512 bytes: exactly one high-speed packet.
    std::vector<unsigned char> data(500, 0x11);
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, data.data(), 500));
    EXPECT_EQ(adapter->zero_length_packets(), before + 1);
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, data.data(), 496));
    EXPECT_EQ(adapter->zero_length_packets(), before + 1);
    auto frames = adapter->received();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].command, uint32_t{DEV_WRITE_USER_DATA});
    EXPECT_EQ(frames[0].payload.size(), 504u);
    EXPECT_EQ(frames[1].payload.size(), 500u);
}

namespace {
class FullSpeedTransport : public SimTest {
protected:
    AdapterConfig adapter_config() override {
        AdapterConfig c;
        c.high_speed = false;
        return c;
    }
};
}  // namespace

TEST_F(FullSpeedTransport, ZeroLengthPacketsFollowFramesOf64Bytes) {
    const int before = adapter->zero_length_packets();
    std::vector<unsigned char> data(120, 0x22);
    // Offset and 52 bytes: a 56-byte payload, a 64-byte frame.
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, data.data(), 52));
    EXPECT_EQ(adapter->zero_length_packets(), before + 1);
    // 8 + 4 + 116 = 128: two full packets.
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, data.data(), 116));
    EXPECT_EQ(adapter->zero_length_packets(), before + 2);
    // An empty request (8 bytes) and 8 + 4 + 53 = 65 bytes both end in a short packet.
    ASSERT_TRUE(DEV_EraseUserData(handle));
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, data.data(), 53));
    EXPECT_EQ(adapter->zero_length_packets(), before + 2);
    EXPECT_EQ(adapter->received().size(), 4u);
}

TEST_F(Transport, GetWithoutBufferDrainsAndOddLengthsReadNothing) {
    lock(handle);
    // A 20-byte payload read with no buffer is consumed and discarded.
    adapter->send_raw({{0, 0, 0x01, 0x23, 0, 0, 0, 20}, std::vector<uint8_t>(20, 0x77)});
    USB_MSG msg{0, 0, nullptr};
    EXPECT_EQ(MSG_Get(handle, &msg, 200), 0);
    EXPECT_EQ(msg.Command, 0x123u);
    EXPECT_EQ(msg.Length, 20u);
    // A negative length reads nothing more; the next header is intact.
    adapter->send_raw({{0, 0, 0x01, 0x24, 0x80, 0, 0, 0}});
    adapter->send_raw({{0, 0, 0x01, 0x25, 0, 0, 0, 0}});
    uint8_t buf[8];
    USB_MSG m2{0, 0, buf};
    EXPECT_EQ(MSG_Get(handle, &m2, 200), 0);
    EXPECT_EQ(m2.Length, 0x80000000u);
    EXPECT_EQ(MSG_Get(handle, &m2, 200), 0);
    EXPECT_EQ(m2.Command, 0x125u);
    EXPECT_EQ(m2.Length, 0u);
    // A payload that never comes still counts as an answer; Length says what was announced.
    adapter->send_raw({{0, 0, 0x01, 0x26, 0, 0, 0, 4}});
    EXPECT_EQ(MSG_Get(handle, &m2, 100), 0);
    EXPECT_EQ(m2.Length, 4u);
    // Nothing at all: the header is missing.
    EXPECT_EQ(MSG_Get(handle, &m2, 50), -3);
    unlock(handle);
}

TEST_F(Transport, CanFdChannelsPickTheirEndpoint) {
    uint8_t payload[4] = {1, 2, 3, 4};
    USB_MSG msg{0x4002, 4, payload};
    lock(handle);
    EXPECT_EQ(CANFD_MSG_Send(handle, 3, &msg, 100), 0);
    EXPECT_EQ(CANFD_MSG_Send(handle, 2, &msg, 100), 0);
    EXPECT_EQ(MSG_SendInt(handle, &msg, 100), 0);
    unlock(handle);
    auto frames = adapter->received();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].endpoint, 0x02);
    EXPECT_EQ(frames[1].endpoint, 0x01);
    EXPECT_EQ(frames[2].endpoint, 0x02);
    EXPECT_TRUE(frames[2].interrupt);
    // Each of them was answered (unknown commands get an empty answer): drain them.
    lock(handle);
    for (int i = 0; i < 3; ++i) {
        USB_MSG r{0, 0, nullptr};
        EXPECT_EQ(MSG_Get(handle, &r, 200), 0);
    }
    unlock(handle);
}
