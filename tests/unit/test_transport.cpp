// The pure pieces under every exchange: payload building and reading, the
// zero-length-packet rule, the device list, lock slots, the CRC and the build time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "polybus/usb_device.h"
#include "device/device_info.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "transport/usb_device.h"
#include "transport/usb_message.h"

using namespace polybus;

TEST(Payload, FieldsAreBigEndianInOrder) {
    Command c(0x0806);
    c.be32(0x00000005).be16(0x1234).u8(0xAB).bytes("xy", 2);
    ASSERT_EQ(c.size(), 9u);
    const uint8_t expect[] = {0, 0, 0, 5, 0x12, 0x34, 0xAB, 'x', 'y'};
    EXPECT_EQ(0, memcmp(c.data(), expect, sizeof(expect)));
}

TEST(Payload, LargePayloadGoesToTheHeapAndOverflowIsCaught) {
    Command big(0x0107, 4 + 20480);
    big.be32(0).bytes(nullptr, 20480);
    EXPECT_FALSE(big.failed());
    EXPECT_EQ(big.size(), 20484u);
    // Writing past the reserved size must not scribble: the request is marked failed.
    Command small(0x0600);
    small.bytes(nullptr, 64);
    EXPECT_FALSE(small.failed());
    small.u8(1);
    EXPECT_TRUE(small.failed());
}

TEST(Payload, AnswerReadersStopAtReceivedBytes) {
    uint8_t buf[8] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0, 0, 0};
    Answer a(buf, sizeof(buf));
    a.received = 5;
    EXPECT_EQ(a.be32(0), 0x12345678u);
    EXPECT_EQ(a.le32(0), 0x78563412u);
    EXPECT_EQ(a.be16(3), 0x789Au);
    EXPECT_EQ(a.be32(2), 0u) << "a field that runs past the received bytes reads as 0";
    EXPECT_EQ(a.u8(5), 0u);
}

TEST(Framing, ZeroLengthPacketOnlyWhenTheFrameFillsItsLastPacket) {
    // An empty request is an 8-byte frame: never a full packet.
    EXPECT_FALSE(frame_needs_zlp(8, false));
    EXPECT_FALSE(frame_needs_zlp(8, true));
    // 56-byte payload: a 64-byte frame fills a full-speed packet, not a high-speed one.
    EXPECT_TRUE(frame_needs_zlp(64, false));
    EXPECT_FALSE(frame_needs_zlp(64, true));
    EXPECT_TRUE(frame_needs_zlp(512, true));
    EXPECT_TRUE(frame_needs_zlp(1024, true));
    EXPECT_FALSE(frame_needs_zlp(1025, true));
    EXPECT_TRUE(frame_needs_zlp(0, true));
}

TEST(Crc, MatchesXmodemParameters) {
    EXPECT_EQ(crc16_ccitt(reinterpret_cast<const uint8_t*>("123456789"), 9), 0x31C3);
    EXPECT_EQ(crc16_ccitt(nullptr, 0), 0);
    const uint8_t zero = 0;
    EXPECT_EQ(crc16_ccitt(&zero, 0), 0);
    const uint8_t one[] = {0x01};
    EXPECT_EQ(crc16_ccitt(one, 1), 0x1021);
}

namespace {
UsbDevNode* make_node(uint32_t handle) {
    auto* n = static_cast<UsbDevNode*>(std::calloc(1, sizeof(UsbDevNode)));
    n->DevHandle = handle;
    return n;
}

class DeviceList : public ::testing::Test {
protected:
    void SetUp() override { usb_list_init(); }
    void TearDown() override { usb_list_clear(); }
};
}  // namespace

TEST_F(DeviceList, KeepsFirstFoundOrderAndMergesDuplicates) {
    EXPECT_TRUE(usb_list_is_empty());
    usb_list_add(make_node(0x41000001));
    usb_list_add(make_node(0x41000002));
    auto* dup = make_node(0x41000001);
    dup->dev = reinterpret_cast<libusb_device*>(0x1234);
    usb_list_add(dup);  // merged into the existing entry, not linked
    std::free(dup);
    EXPECT_EQ(usb_list_length(), 2);
    uint32_t handles[4] = {0};
    EXPECT_EQ(usb_list_get_devnums(handles), 2);
    EXPECT_EQ(handles[0], 0x41000001u);
    EXPECT_EQ(handles[1], 0x41000002u);
    EXPECT_EQ(usb_list_post(0x41000001)->dev, reinterpret_cast<libusb_device*>(0x1234));
    EXPECT_EQ(usb_list_post_with_dev(reinterpret_cast<libusb_device*>(0x1234))->DevHandle, 0x41000001u);
    EXPECT_EQ(usb_list_post_with_index(1)->DevHandle, 0x41000002u);
    EXPECT_EQ(usb_list_post_with_index(2), nullptr);
}

TEST_F(DeviceList, SlotsFollowPositionAndReservedHandlesAreDirectSlots) {
    usb_list_add(make_node(0x11000001));
    usb_list_add(make_node(0x21000002));
    EXPECT_EQ(usb_list_get_index(0x21000002), 1u);
    EXPECT_EQ(usb_list_get_index(0x99999999), kNoSlot);
    EXPECT_EQ(usb_list_get_index(0xFF000005), 5u);
    EXPECT_EQ(usb_list_get_index(0xFFFFFF1E), 0x1Eu);
    // Deleting the first entry moves the second into slot 0.
    usb_list_del(usb_list_post(0x11000001));
    EXPECT_EQ(usb_list_get_index(0x21000002), 0u);
    usb_list_del(nullptr);
    EXPECT_EQ(usb_list_length(), 1);
}

TEST_F(DeviceList, ClosedEntryMakesEveryWrapperFail) {
    usb_list_add(make_node(0x41000009));  // listed, but no libusb device or handle
    uint8_t buf[8] = {0};
    EXPECT_EQ(USBBulkWriteData(0x41000009, 1, buf, 8, 10), 0);
    EXPECT_EQ(USBBulkReadData(0x41000009, 1, buf, 8, 10), 0);
    EXPECT_EQ(USBIntWriteData(0x41000009, 2, buf, 8, 10), 0);
    EXPECT_EQ(USBCtrlData(0x41000009, 0xC1, 0x50, 0, 0, buf, 4, 10), 0);
    USB_MSG msg{0x0604, 0, nullptr};
    EXPECT_EQ(MSG_Send(0x41000009, &msg, 10), -2);
    EXPECT_EQ(MSG_Get(0x41000009, &msg, 10), -3);
    EXPECT_FALSE(usb_device_is_open(0x41000009));
}

TEST_F(DeviceList, LocksOnlyServeTheFirstThirtySlots) {
    // An unknown handle is not serialised: locking it twice from one thread must not block.
    lock(0x12345678);
    lock(0x12345678);
    unlock(0x12345678);
    unlock(0x12345678);
    // Out-of-range LIN channels take no lock either.
    lin_lock(0xFF000001, 4);
    lin_lock(0xFF000001, 4);
    lin_lock(0xFF000001, -1);

    // A reserved handle locks its slot even though the list is empty: a second thread
    // has to wait until the first lets go.
    lock(0xFF000005);
    std::atomic<bool> entered{false};
    auto other = std::async(std::launch::async, [&] {
        lock(0xFF000005);
        entered = true;
        unlock(0xFF000005);
    });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_FALSE(entered.load());
    unlock(0xFF000005);
    other.get();
    EXPECT_TRUE(entered.load());

    // CAN channel 2 folds onto channel 0's mutex.
    can_lock(0xFF000003, 2);
    auto can_other = std::async(std::launch::async, [] {
        can_lock(0xFF000003, 0);
        can_unlock(0xFF000003, 0);
    });
    EXPECT_EQ(can_other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    can_unlock(0xFF000003, 2);
    can_other.get();

    // Slot 30 and beyond are never locked.
    lock(0xFF00001E);
    lock(0xFF00001E);
}

TEST(BuildTime, YearIsCountedFrom1900) {
    char text[32];
    ASSERT_TRUE(DEV_GetDllBuildTime(text));
    int year = 0, month = 0, day = 0, h = 0, m = 0, s = 0, end = 0;
    ASSERT_EQ(sscanf(text, "%4d-%2d-%2d %2d:%2d:%2d%n", &year, &month, &day, &h, &m, &s, &end), 6) << text;
    EXPECT_EQ(strlen(text), 19u) << text;
    EXPECT_EQ(end, 19);
    EXPECT_EQ(text[0], '0') << "years since 1900 print as 0YYY";
    EXPECT_GE(year, 120);
    EXPECT_TRUE(month >= 1 && month <= 12) << text;
    EXPECT_TRUE(day >= 1 && day <= 31) << text;
    EXPECT_TRUE(DEV_GetDllBuildTime(nullptr));

    format_build_time("Oct 14 2022", "12:25:51", text);
    EXPECT_STREQ(text, "0122-10-14 12:25:51");
    format_build_time("Jan  2 2026", "00:00:00", text);
    EXPECT_STREQ(text, "0126-01-02 00:00:00") << "the compiler pads single-digit days with a space";
    format_build_time("Foo 14 2022", "12:25:51", text);
    EXPECT_STREQ(text, "0122-00-14 12:25:51") << "an unknown month is 0";
}
