// The simulated USB layer seen through the real libusb: a small echo device on
// top of UsbHost, driven with raw libusb calls the way the driver library does.

#include "usbfs.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace polybus_sim;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint8_t kVendorRead = 0x01;    // IN, 4 bytes: DE AD plus wValue
constexpr uint8_t kVendorPoke = 0x02;    // OUT, no data
constexpr uint8_t kVendorStall = 0x03;   // always stalls
constexpr uint8_t kVendorReboot = 0x04;  // answers, then re-enumerates at address wValue
constexpr uint8_t kVendorSilent = 0x05;  // never answered
constexpr uint8_t kVendorThrow = 0x06;   // the model fails badly

// Echo device: bytes written to 0x01 come back on 0x81 as an 8-byte header
// ('E', 'H', seq, 0, len LE32) followed by the payload, as two device transfers
// (or as one when `combined`). Everything the host sends is recorded.
class Echo : public UsbFunction {
public:
    struct Out {
        uint8_t ep;
        bool interrupt;
        Bytes data;
    };

    std::atomic<int> port{-1};
    std::atomic<bool> combined{false};
    std::atomic<int> resets{0};

    int control(const ControlSetup& s, uint8_t* data) override {
        {
            std::lock_guard<std::mutex> lk(mu_);
            setups_.push_back(s);
        }
        switch (s.bRequest) {
        case kVendorRead:
            if (s.wLength < 4) return -EPIPE;
            data[0] = 0xDE;
            data[1] = 0xAD;
            data[2] = uint8_t(s.wValue);
            data[3] = uint8_t(s.wValue >> 8);
            return 4;
        case kVendorPoke:
            return s.wLength;
        case kVendorSilent:
            return -EINPROGRESS;
        case kVendorThrow:
            throw std::runtime_error("model bug");
        case kVendorReboot: {
            int old = port.load();
            int addr = s.wValue;
            UsbHost::instance().defer([this, old, addr] { port = UsbHost::instance().replug(old, addr); });
            return s.wLength;
        }
        default:
            return -EPIPE;
        }
    }

    void out(uint8_t ep, bool interrupt, const uint8_t* data, size_t len) override {
        {
            std::lock_guard<std::mutex> lk(mu_);
            outs_.push_back({ep, interrupt, Bytes(data, data + len)});
        }
        if (ep != 0x01 || len == 0) return;
        Bytes header{'E', 'H', seq_++, 0, uint8_t(len), uint8_t(len >> 8), uint8_t(len >> 16), uint8_t(len >> 24)};
        Bytes payload(data, data + len);
        if (combined) {
            header.insert(header.end(), payload.begin(), payload.end());
            UsbHost::instance().queue_in(port, {header});
        } else {
            UsbHost::instance().queue_in(port, {header, payload});
        }
    }

    void reset() override { ++resets; }

    std::vector<Out> outs() {
        std::lock_guard<std::mutex> lk(mu_);
        return outs_;
    }
    std::vector<ControlSetup> setups() {
        std::lock_guard<std::mutex> lk(mu_);
        return setups_;
    }

private:
    std::mutex mu_;
    std::vector<Out> outs_;
    std::vector<ControlSetup> setups_;
    uint8_t seq_ = 0;
};

class UsbfsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(libusb_init(&ctx_), 0); }

    void TearDown() override {
        for (libusb_device_handle* h : handles_) libusb_close(h);
        libusb_exit(ctx_);
        for (auto& e : echos_) UsbHost::instance().unplug(e->port);
    }

    std::shared_ptr<Echo> plug(UsbIdentity id = {}, int bus = 1, int address = -1) {
        auto e = std::make_shared<Echo>();
        e->port = UsbHost::instance().plug(e, id, bus, address);
        echos_.push_back(e);
        return e;
    }

    // A fresh enumeration, as a host does after a hotplug event.
    libusb_device* find(int bus, int address) {
        libusb_device** list;
        ssize_t n = libusb_get_device_list(ctx_, &list);
        libusb_device* found = nullptr;
        for (ssize_t i = 0; i < n; ++i) {
            if (libusb_get_bus_number(list[i]) == bus && libusb_get_device_address(list[i]) == address)
                found = libusb_ref_device(list[i]);
        }
        libusb_free_device_list(list, 1);
        return found;
    }

    libusb_device_handle* open(int port, bool claim = true) {
        libusb_device* dev = find(UsbHost::instance().bus_of(port), UsbHost::instance().address_of(port));
        if (!dev) return nullptr;
        libusb_device_handle* h = nullptr;
        int r = libusb_open(dev, &h);
        libusb_unref_device(dev);
        if (r != 0) return nullptr;
        handles_.push_back(h);
        if (claim && libusb_claim_interface(h, 0) != 0) return nullptr;
        return h;
    }

    void close(libusb_device_handle* h) {
        handles_.erase(std::find(handles_.begin(), handles_.end(), h));
        libusb_close(h);
    }

    static int bulk(libusb_device_handle* h, uint8_t ep, Bytes& data, int* got, unsigned timeout = 2000) {
        return libusb_bulk_transfer(h, ep, data.data(), int(data.size()), got, timeout);
    }
    static int send(libusb_device_handle* h, Bytes data, uint8_t ep = 0x01) {
        int got = -1;
        int r = bulk(h, ep, data, &got);
        return r == 0 ? got : r;
    }
    // Reads one IN URB of `len` bytes; empty on error.
    static Bytes recv(libusb_device_handle* h, size_t len, int* err = nullptr, unsigned timeout = 2000) {
        Bytes buf(len);
        int got = 0;
        int r = bulk(h, 0x81, buf, &got, timeout);
        if (err) *err = r;
        if (r != 0) return {};
        buf.resize(size_t(got));
        return buf;
    }

    libusb_context* ctx_ = nullptr;
    std::vector<libusb_device_handle*> handles_;
    std::vector<std::shared_ptr<Echo>> echos_;
};

Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(seed + i * 7);
    return b;
}

// ---------------------------------------------------------------------------

TEST_F(UsbfsTest, EnumeratesWithIdentityDescriptorsAndStrings) {
    UsbIdentity id;
    id.vendor = 0x1234;
    id.product = 0xabcd;
    id.manufacturer = "Polybus Labs";
    id.serial = "SN-42";
    auto e = plug(id, 3, 17);
    ASSERT_EQ(UsbHost::instance().bus_of(e->port), 3);
    ASSERT_EQ(UsbHost::instance().address_of(e->port), 17);

    libusb_device* dev = find(3, 17);
    ASSERT_NE(dev, nullptr);
    libusb_device_descriptor dd;
    ASSERT_EQ(libusb_get_device_descriptor(dev, &dd), 0);
    EXPECT_EQ(dd.idVendor, 0x1234);
    EXPECT_EQ(dd.idProduct, 0xabcd);
    EXPECT_EQ(dd.bNumConfigurations, 1);
    EXPECT_EQ(libusb_get_device_speed(dev), LIBUSB_SPEED_HIGH);

    libusb_config_descriptor* cfg;
    ASSERT_EQ(libusb_get_active_config_descriptor(dev, &cfg), 0);
    ASSERT_EQ(cfg->bNumInterfaces, 1);
    const libusb_interface_descriptor& intf = cfg->interface[0].altsetting[0];
    ASSERT_EQ(intf.bNumEndpoints, 3);
    const uint8_t eps[] = {0x01, 0x02, 0x81};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(intf.endpoint[i].bEndpointAddress, eps[i]);
        EXPECT_EQ(intf.endpoint[i].bmAttributes & 3, LIBUSB_TRANSFER_TYPE_BULK);
        EXPECT_EQ(intf.endpoint[i].wMaxPacketSize, 512);
    }
    libusb_free_config_descriptor(cfg);
    libusb_unref_device(dev);

    libusb_device_handle* h = open(e->port, false);
    ASSERT_NE(h, nullptr);
    char text[128];
    ASSERT_GT(libusb_get_string_descriptor_ascii(h, dd.iManufacturer, (unsigned char*)text, sizeof text), 0);
    EXPECT_STREQ(text, "Polybus Labs");
    ASSERT_GT(libusb_get_string_descriptor_ascii(h, dd.iProduct, (unsigned char*)text, sizeof text), 0);
    EXPECT_STREQ(text, "Polybus simulated adapter");
    ASSERT_GT(libusb_get_string_descriptor_ascii(h, dd.iSerialNumber, (unsigned char*)text, sizeof text), 0);
    EXPECT_STREQ(text, "SN-42");
    int config = -1;
    EXPECT_EQ(libusb_get_configuration(h, &config), 0);
    EXPECT_EQ(config, 1);
    // Standard requests never reach the model.
    EXPECT_TRUE(e->setups().empty());
}

TEST_F(UsbfsTest, FullSpeedDeviceWithoutManufacturer) {
    UsbIdentity id;
    id.high_speed = false;
    auto e = plug(id);
    libusb_device* dev = find(1, UsbHost::instance().address_of(e->port));
    ASSERT_NE(dev, nullptr);
    libusb_device_descriptor dd;
    ASSERT_EQ(libusb_get_device_descriptor(dev, &dd), 0);
    EXPECT_EQ(dd.idVendor, 0x0483);
    EXPECT_EQ(dd.idProduct, 0x7918);
    EXPECT_EQ(dd.iManufacturer, 0);
    EXPECT_EQ(libusb_get_device_speed(dev), LIBUSB_SPEED_FULL);
    EXPECT_EQ(libusb_get_max_packet_size(dev, 0x81), 64);
    libusb_unref_device(dev);

    libusb_device_handle* h = open(e->port, false);
    ASSERT_NE(h, nullptr);
    unsigned char text[64];
    EXPECT_GT(libusb_get_string_descriptor_ascii(h, dd.iProduct, text, sizeof text), 0);
    // A string index the device does not have stalls.
    EXPECT_EQ(libusb_get_string_descriptor_ascii(h, 9, text, sizeof text), LIBUSB_ERROR_PIPE);
}

TEST_F(UsbfsTest, VendorControlRequests) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);

    uint8_t buf[64] = {};
    ASSERT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 0x1234, 7, buf, 4, 1000), 4);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0xDE, 0xAD, 0x34, 0x12}));
    // A larger buffer still gets only what the device sends.
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 1, 0, buf, sizeof buf, 1000), 4);
    EXPECT_EQ(libusb_control_transfer(h, 0x40, kVendorPoke, 5, 6, nullptr, 0, 1000), 0);
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorStall, 0, 0, buf, 4, 1000), LIBUSB_ERROR_PIPE);
    // The device is still fine after a stall.
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 2, 0, buf, 4, 1000), 4);
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorSilent, 0, 0, buf, 4, 50), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(libusb_control_transfer(h, 0x40, kVendorThrow, 0, 0, nullptr, 0, 1000), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 3, 0, buf, 4, 1000), 4);
    EXPECT_EQ(buf[2], 3);

    auto s = e->setups();
    ASSERT_EQ(s.size(), 8u);
    EXPECT_EQ(s[0].bmRequestType, 0xC0);
    EXPECT_EQ(s[0].wValue, 0x1234);
    EXPECT_EQ(s[0].wIndex, 7);
    EXPECT_EQ(s[0].wLength, 4);
    EXPECT_EQ(s[1].wLength, 64);
    EXPECT_EQ(s[2].bmRequestType, 0x40);
    EXPECT_EQ(s[2].bRequest, kVendorPoke);
    EXPECT_EQ(s[2].wValue, 5);
    EXPECT_EQ(s[2].wIndex, 6);
    EXPECT_EQ(s[2].wLength, 0);
}

TEST_F(UsbfsTest, BulkOutReachesModelWithAndWithoutZeroLengthPacket) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);

    Bytes small = pattern(100, 1), big = pattern(70000, 2);
    EXPECT_EQ(send(h, small), 100);
    EXPECT_EQ(send(h, big, 0x02), 70000);
    EXPECT_EQ(send(h, {}, 0x02), 0);

    // A transfer of whole packets, sent with and without a terminating ZLP.
    Bytes whole = pattern(1024, 3);
    for (bool zlp : {true, false}) {
        libusb_transfer* t = libusb_alloc_transfer(0);
        std::atomic<int> status{-1};
        libusb_fill_bulk_transfer(
            t, h, 0x02, whole.data(), int(whole.size()),
            [](libusb_transfer* tr) { static_cast<std::atomic<int>*>(tr->user_data)->store(tr->status); }, &status,
            1000);
        if (zlp) t->flags |= LIBUSB_TRANSFER_ADD_ZERO_PACKET;
        ASSERT_EQ(libusb_submit_transfer(t), 0);
        while (status < 0) libusb_handle_events(ctx_);
        EXPECT_EQ(status, LIBUSB_TRANSFER_COMPLETED);
        EXPECT_EQ(t->actual_length, 1024);
        libusb_free_transfer(t);
    }

    auto outs = e->outs();
    ASSERT_EQ(outs.size(), 6u);
    EXPECT_EQ(outs[0].ep, 0x01);
    EXPECT_EQ(outs[0].data, small);
    EXPECT_EQ(outs[1].ep, 0x02);
    EXPECT_FALSE(outs[1].interrupt);
    EXPECT_EQ(outs[1].data, big);
    EXPECT_TRUE(outs[2].data.empty());
    EXPECT_EQ(outs[3].data, whole);
    EXPECT_TRUE(outs[4].data.empty()) << "the requested ZLP reaches the model";
    EXPECT_EQ(outs[5].data, whole);
}

TEST_F(UsbfsTest, InterruptOutOnEndpoint2Only) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);
    Bytes msg = pattern(64, 9);
    int got = 0;
    ASSERT_EQ(libusb_interrupt_transfer(h, 0x02, msg.data(), int(msg.size()), &got, 1000), 0);
    EXPECT_EQ(got, 64);
    EXPECT_NE(libusb_interrupt_transfer(h, 0x01, msg.data(), int(msg.size()), &got, 1000), 0);
    auto outs = e->outs();
    ASSERT_EQ(outs.size(), 1u);
    EXPECT_EQ(outs[0].ep, 0x02);
    EXPECT_TRUE(outs[0].interrupt);
    EXPECT_EQ(outs[0].data, msg);
}

TEST_F(UsbfsTest, InDataSplitsAcrossHeaderAndPayloadReads) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);

    {
        SCOPED_TRACE("header, payload");
        e->combined = false;
        Bytes msg = pattern(700, 6);
        ASSERT_EQ(send(h, msg), 700);
        Bytes header = recv(h, 8);
        ASSERT_EQ(header.size(), 8u);
        EXPECT_EQ(header[0], 'E');
        uint32_t len = header[4] | header[5] << 8 | header[6] << 16 | uint32_t(header[7]) << 24;
        ASSERT_EQ(len, 700u);
        // Reading the payload in two pieces exercises the partial head again.
        Bytes p1 = recv(h, 512), p2 = recv(h, 512);
        p1.insert(p1.end(), p2.begin(), p2.end());
        EXPECT_EQ(p1, msg);
        EXPECT_EQ(UsbHost::instance().queued_in_bytes(e->port), 0);
    }
    {
        SCOPED_TRACE("header+payload as one transfer");
        e->combined = true;
        Bytes msg = pattern(700, 5);
        // Whole-packet reads split a long transfer cleanly.
        ASSERT_EQ(send(h, msg), 700);
        Bytes p1 = recv(h, 512), p2 = recv(h, 512);
        ASSERT_EQ(p1.size(), 512u);
        EXPECT_EQ(p1[0], 'E');
        p1.insert(p1.end(), p2.begin(), p2.end());
        EXPECT_EQ(Bytes(p1.begin() + 8, p1.end()), msg);
        // A read that is not a whole number of packets has no room for the first
        // 512-byte packet: it overflows and that packet is lost, as on a real bus.
        ASSERT_EQ(send(h, msg), 700);
        int err = 0;
        EXPECT_TRUE(recv(h, 8, &err).empty());
        EXPECT_EQ(err, LIBUSB_ERROR_OVERFLOW);
        EXPECT_EQ(recv(h, 512), Bytes(msg.begin() + 504, msg.end()));
        EXPECT_EQ(UsbHost::instance().queued_in_bytes(e->port), 0);
    }

    // A large read ends at the end of the device transfer: separate transfers
    // never merge into one URB.
    e->combined = false;
    ASSERT_EQ(send(h, pattern(10, 0)), 10);
    EXPECT_EQ(recv(h, 4096).size(), 8u);
    EXPECT_EQ(recv(h, 4096), pattern(10, 0));
    // An empty device transfer completes a read with zero bytes.
    UsbHost::instance().queue_in(e->port, {{}, {1, 2}});
    int err = -1;
    EXPECT_TRUE(recv(h, 64, &err).empty());
    EXPECT_EQ(err, 0);
    EXPECT_EQ(recv(h, 64), (Bytes{1, 2}));
}

TEST_F(UsbfsTest, InTimeoutLosesNoData) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);

    for (int i = 0; i < 3; ++i) {
        Bytes buf(64);
        int got = -1;
        EXPECT_EQ(bulk(h, 0x81, buf, &got, 30), LIBUSB_ERROR_TIMEOUT);
        EXPECT_EQ(got, 0);
    }
    UsbHost::instance().queue_in(e->port, {pattern(20, 1), pattern(30, 2)});
    EXPECT_EQ(recv(h, 64), pattern(20, 1));
    EXPECT_EQ(recv(h, 64), pattern(30, 2));

    // Cancelling a pending asynchronous read gives the data to the next one.
    Bytes buf(64);
    libusb_transfer* t = libusb_alloc_transfer(0);
    std::atomic<int> status{-1};
    libusb_fill_bulk_transfer(
        t, h, 0x81, buf.data(), 64,
        [](libusb_transfer* tr) { static_cast<std::atomic<int>*>(tr->user_data)->store(tr->status); }, &status, 0);
    ASSERT_EQ(libusb_submit_transfer(t), 0);
    ASSERT_EQ(libusb_cancel_transfer(t), 0);
    while (status < 0) libusb_handle_events(ctx_);
    EXPECT_EQ(status, LIBUSB_TRANSFER_CANCELLED);
    libusb_free_transfer(t);
    UsbHost::instance().queue_in(e->port, {pattern(5, 3)});
    EXPECT_EQ(recv(h, 64), pattern(5, 3));
}

// libusb's event loop must sleep in poll() while nothing can be reaped, also
// after an unplug; a spinning loop issues thousands of ioctls per second and
// eats a CPU per waiting test.
TEST_F(UsbfsTest, EventLoopSleepsWhileNothingToReap) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);
    uint64_t before = UsbHost::instance().ioctl_count();
    int err = 0;
    recv(h, 64, &err, 300);
    EXPECT_EQ(err, LIBUSB_ERROR_TIMEOUT);
    EXPECT_LT(UsbHost::instance().ioctl_count() - before, 40u);

    // A read that is pending when the device goes away still wakes up.
    std::thread reader([&] { recv(h, 64, &err, 5000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    UsbHost::instance().unplug(e->port);
    reader.join();
    EXPECT_EQ(err, LIBUSB_ERROR_NO_DEVICE);
    // An application's event thread keeps handling events on the open handle.
    before = UsbHost::instance().ioctl_count();
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < end) {
        timeval tv{0, 50000};
        libusb_handle_events_timeout(ctx_, &tv);
    }
    EXPECT_LT(UsbHost::instance().ioctl_count() - before, 40u);
}

TEST_F(UsbfsTest, TwoDevicesAtOnce) {
    UsbIdentity a, b;
    a.serial = "A";
    b.serial = "B";
    auto ea = plug(a), eb = plug(b);
    ASSERT_NE(UsbHost::instance().address_of(ea->port), UsbHost::instance().address_of(eb->port));
    libusb_device_handle* ha = open(ea->port);
    libusb_device_handle* hb = open(eb->port);
    ASSERT_NE(ha, nullptr);
    ASSERT_NE(hb, nullptr);
    unsigned char text[16];
    libusb_device_descriptor dd;
    ASSERT_EQ(libusb_get_device_descriptor(libusb_get_device(hb), &dd), 0);
    ASSERT_GT(libusb_get_string_descriptor_ascii(hb, dd.iSerialNumber, text, sizeof text), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "B");

    ASSERT_EQ(send(ha, pattern(3, 1)), 3);
    ASSERT_EQ(send(hb, pattern(5, 2)), 5);
    EXPECT_EQ(recv(hb, 8).size(), 8u);
    EXPECT_EQ(recv(hb, 64), pattern(5, 2));
    EXPECT_EQ(recv(ha, 8).size(), 8u);
    EXPECT_EQ(recv(ha, 64), pattern(3, 1));
    EXPECT_EQ(ea->outs().size(), 1u);
    EXPECT_EQ(eb->outs().size(), 1u);
}

TEST_F(UsbfsTest, UnplugFailsPendingAndLaterTransfers) {
    auto e = plug();
    int bus = UsbHost::instance().bus_of(e->port), addr = UsbHost::instance().address_of(e->port);
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);

    // One asynchronous read pending, one synchronous read blocked in another thread.
    Bytes buf(64);
    libusb_transfer* t = libusb_alloc_transfer(0);
    std::atomic<int> status{-1};
    libusb_fill_bulk_transfer(
        t, h, 0x81, buf.data(), 64,
        [](libusb_transfer* tr) { static_cast<std::atomic<int>*>(tr->user_data)->store(tr->status); }, &status, 0);
    ASSERT_EQ(libusb_submit_transfer(t), 0);
    std::atomic<int> sync_result{1};
    std::thread reader([&] {
        Bytes b(64);
        int got;
        sync_result = bulk(h, 0x81, b, &got, 10000);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    UsbHost::instance().unplug(e->port);
    reader.join();
    EXPECT_EQ(sync_result, LIBUSB_ERROR_NO_DEVICE);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (status < 0 && std::chrono::steady_clock::now() < deadline) {
        timeval tv{0, 10000};
        libusb_handle_events_timeout(ctx_, &tv);
    }
    EXPECT_EQ(status, LIBUSB_TRANSFER_NO_DEVICE);
    libusb_free_transfer(t);

    EXPECT_EQ(UsbHost::instance().bus_of(e->port), -1);
    Bytes msg{1, 2, 3};
    EXPECT_EQ(send(h, msg), LIBUSB_ERROR_NO_DEVICE);
    uint8_t c[4];
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 0, 0, c, 4, 500), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(find(bus, addr), nullptr);
    // Data a model still produces for the dead port goes nowhere.
    UsbHost::instance().queue_in(e->port, {{1}});
    EXPECT_TRUE(e->outs().empty());
}

TEST_F(UsbfsTest, ReplugAtSameAndDifferentAddress) {
    auto e = plug();
    int bus = UsbHost::instance().bus_of(e->port), addr = UsbHost::instance().address_of(e->port);
    libusb_device_handle* old = open(e->port);
    ASSERT_NE(old, nullptr);

    e->port = UsbHost::instance().replug(e->port);
    EXPECT_EQ(UsbHost::instance().address_of(e->port), addr);
    EXPECT_EQ(send(old, {1}), LIBUSB_ERROR_NO_DEVICE) << "the old handle stays dead";
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr) << "same address, found by a new enumeration";
    ASSERT_EQ(send(h, pattern(4, 4)), 4);
    EXPECT_EQ(recv(h, 8).size(), 8u);
    EXPECT_EQ(recv(h, 8), pattern(4, 4));

    int other = addr == 100 ? 101 : 100;
    e->port = UsbHost::instance().replug(e->port, other);
    EXPECT_EQ(UsbHost::instance().address_of(e->port), other);
    EXPECT_EQ(find(bus, addr), nullptr);
    libusb_device* dev = find(bus, other);
    ASSERT_NE(dev, nullptr);
    libusb_unref_device(dev);
    h = open(e->port);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(send(h, pattern(4, 5)), 4);
    EXPECT_EQ(recv(h, 8).size(), 8u);
    EXPECT_EQ(recv(h, 8), pattern(4, 5));
}

TEST_F(UsbfsTest, DeviceReenumeratesAfterAnsweringRequest) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);
    int bus = UsbHost::instance().bus_of(e->port);
    EXPECT_EQ(libusb_control_transfer(h, 0x40, kVendorReboot, 77, 0, nullptr, 0, 1000), 0);
    libusb_device* dev = nullptr;
    for (int i = 0; i < 200 && !dev; ++i) {
        dev = find(bus, 77);
        if (!dev) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_NE(dev, nullptr);
    libusb_unref_device(dev);
    EXPECT_EQ(UsbHost::instance().address_of(e->port), 77);
    EXPECT_EQ(send(h, {1}), LIBUSB_ERROR_NO_DEVICE);
}

TEST_F(UsbfsTest, ResetFlushesQueuedDataAndResetsModel) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);
    UsbHost::instance().queue_in(e->port, {pattern(10, 1)});
    ASSERT_EQ(libusb_reset_device(h), 0);
    EXPECT_EQ(e->resets, 1);
    int err = 0;
    EXPECT_TRUE(recv(h, 64, &err, 30).empty());
    EXPECT_EQ(err, LIBUSB_ERROR_TIMEOUT);
    // Still usable, interface still claimed.
    ASSERT_EQ(send(h, pattern(6, 2)), 6);
    EXPECT_EQ(recv(h, 8).size(), 8u);
    EXPECT_EQ(recv(h, 64), pattern(6, 2));
    EXPECT_EQ(libusb_clear_halt(h, 0x81), 0);
    EXPECT_EQ(libusb_set_interface_alt_setting(h, 0, 0), 0);
    EXPECT_NE(libusb_set_interface_alt_setting(h, 0, 1), 0);
}

TEST_F(UsbfsTest, InterfaceClaimIsExclusiveUntilClosed) {
    auto e = plug();
    libusb_device_handle* a = open(e->port);
    ASSERT_NE(a, nullptr);
    libusb_device_handle* b = open(e->port, false);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(libusb_claim_interface(b, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_kernel_driver_active(b, 0), 0);
    close(a);
    // The close reaches the handler asynchronously.
    int r = LIBUSB_ERROR_BUSY;
    for (int i = 0; i < 200 && r == LIBUSB_ERROR_BUSY; ++i) {
        r = libusb_claim_interface(b, 0);
        if (r == LIBUSB_ERROR_BUSY) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(r, 0);
}

TEST_F(UsbfsTest, TimerThreadsStreamWhileHostReads) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);

    // Two device-side threads queue header+payload pairs concurrently; each pair
    // must arrive intact and in per-thread order.
    constexpr int kPerThread = 150;
    auto producer = [&](uint8_t tag) {
        std::mt19937 rng(tag);
        for (int i = 0; i < kPerThread; ++i) {
            size_t n = 1 + rng() % 300;
            Bytes header{tag, uint8_t(i), uint8_t(n), uint8_t(n >> 8), 0, 0, 0, 0};
            UsbHost::instance().queue_in(e->port, {header, pattern(n, uint8_t(tag + i))});
            if (rng() % 4 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    };
    std::thread p1(producer, uint8_t(1)), p2(producer, uint8_t(2));
    int next[3] = {0, 0, 0};
    bool ok = true;
    for (int k = 0; k < 2 * kPerThread && ok; ++k) {
        Bytes header = recv(h, 8, nullptr, 5000);
        if (header.size() != 8 || (header[0] != 1 && header[0] != 2)) {
            ADD_FAILURE() << "bad header at frame " << k;
            ok = false;
            break;
        }
        uint8_t tag = header[0];
        size_t n = header[2] | header[3] << 8;
        EXPECT_EQ(header[1], uint8_t(next[tag]));
        Bytes payload = recv(h, 512, nullptr, 5000);
        if (payload != pattern(n, uint8_t(tag + next[tag]))) {
            ADD_FAILURE() << "payload mismatch at frame " << k;
            ok = false;
        }
        ++next[tag];
    }
    p1.join();
    p2.join();
    EXPECT_EQ(next[1], kPerThread);
    EXPECT_EQ(next[2], kPerThread);
}

// The driver's usual shape: one thread sends commands while another keeps a
// read pending; both share one handle and one libusb context.
TEST_F(UsbfsTest, HostWritesWhileAnotherThreadReads) {
    auto e = plug();
    libusb_device_handle* h = open(e->port);
    ASSERT_NE(h, nullptr);
    constexpr int kCommands = 100;
    std::atomic<bool> write_failed{false};
    std::thread writer([&] {
        for (int i = 0; i < kCommands; ++i)
            if (send(h, pattern(size_t(1 + i), uint8_t(i))) != 1 + i) write_failed = true;
    });
    int received = 0;
    for (; received < kCommands; ++received) {
        Bytes header = recv(h, 8, nullptr, 5000);
        if (header.size() != 8) break;
        size_t n = header[4];
        if (recv(h, 512, nullptr, 5000) != pattern(n, uint8_t(n - 1))) break;
    }
    writer.join();
    EXPECT_FALSE(write_failed);
    EXPECT_EQ(received, kCommands);
}

TEST(UsbfsProcess, UsleepOverrideStillSleeps) {
    auto t0 = std::chrono::steady_clock::now();
    usleep(20000);
    auto slept = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(slept, std::chrono::milliseconds(20));
    EXPECT_EQ(usleep(0), 0);
}

TEST(UsbfsProcess, PlugRejectsBadArguments) {
    auto e = std::make_shared<Echo>();
    EXPECT_THROW(UsbHost::instance().plug(nullptr, {}), std::invalid_argument);
    EXPECT_THROW(UsbHost::instance().plug(e, {}, 0), std::invalid_argument);
    EXPECT_THROW(UsbHost::instance().plug(e, {}, 1, 128), std::invalid_argument);
    int port = UsbHost::instance().plug(e, {}, 2, 9);
    EXPECT_THROW(UsbHost::instance().plug(e, {}, 2, 9), std::invalid_argument);
    UsbHost::instance().unplug(port);
    UsbHost::instance().unplug(port);  // twice is harmless
    EXPECT_THROW(UsbHost::instance().replug(port), std::invalid_argument);
    port = UsbHost::instance().plug(e, {}, 2, 9);  // the address is free again
    EXPECT_GE(port, 0);
    UsbHost::instance().unplug(port);
}

}  // namespace

int main(int argc, char** argv) {
    ensure_preloaded(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
