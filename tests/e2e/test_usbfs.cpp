// The simulated USB layer seen through the real libusb: a small echo device on
// top of UsbHost, driven with raw libusb calls the way the driver library does.

#include "usbfs.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <cstring>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace polybus_sim;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint8_t kVendorRead = 0x01;    // IN, 4 bytes: DE AD plus wValue
constexpr uint8_t kVendorPoke = 0x02;    // OUT, no data
constexpr uint8_t kVendorStall = 0x03;   // always stalls
constexpr uint8_t kVendorSilent = 0x05;  // never answered
constexpr uint8_t kVendorThrow = 0x06;   // the model fails badly

UsbHost& host() { return UsbHost::instance(); }

// Echo device: bytes written to 0x01 come back on 0x81 as an 8-byte header
// ('E', 'H', seq, 0, len LE32) followed by the payload, as two device transfers.
// Everything the host sends is recorded.
class Echo : public UsbFunction {
public:
    struct Out { uint8_t ep; bool interrupt; Bytes data; };

    std::atomic<int> port{-1};
    std::atomic<int> resets{0};

    template <typename F>
    auto locked(F f) -> decltype(f()) {
        std::lock_guard<std::mutex> lk(mu_);
        return f();
    }

    int control(const ControlSetup& s, uint8_t* data) override {
        locked([&] { setups_.push_back(s); });
        switch (s.bRequest) {
        case kVendorRead:
            if (s.wLength < 4) return -EPIPE;
            data[0] = 0xDE, data[1] = 0xAD, data[2] = uint8_t(s.wValue), data[3] = uint8_t(s.wValue >> 8);
            return 4;
        case kVendorPoke:
            return s.wLength;
        case kVendorSilent:
            return -EINPROGRESS;
        case kVendorThrow:
            throw std::runtime_error("model bug");
        default:
            return -EPIPE;
        }
    }

    void out(uint8_t ep, bool interrupt, const uint8_t* data, size_t len) override {
        locked([&] { outs_.push_back({ep, interrupt, Bytes(data, data + len)}); });
        if (ep != 0x01 || len == 0) return;
        Bytes header{'E', 'H', seq_++, 0, uint8_t(len), uint8_t(len >> 8), uint8_t(len >> 16), uint8_t(len >> 24)};
        host().queue_in(port, {header, Bytes(data, data + len)});
    }

    void reset() override { ++resets; }

    std::vector<Out> outs() { return locked([&] { return outs_; }); }
    std::vector<ControlSetup> setups() { return locked([&] { return setups_; }); }

private:
    std::mutex mu_;
    std::vector<Out> outs_;
    std::vector<ControlSetup> setups_;
    uint8_t seq_ = 0;
};

Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(seed + i * 7);
    return b;
}

class UsbfsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(libusb_init(&ctx_), 0); }

    void TearDown() override {
        for (libusb_device_handle* h : handles_) libusb_close(h);
        libusb_exit(ctx_);
        for (auto& d : echos_) host().unplug(d->port);
    }

    std::shared_ptr<Echo> plug(UsbIdentity id = {}, int bus = 1, int address = -1) {
        auto e = std::make_shared<Echo>();
        e->port = host().plug(e, id, bus, address);
        echos_.push_back(e);
        return e;
    }

    // One echo device, opened and claimed as `e` and `h`.
    void plug_and_open() {
        e = plug();
        h = open(e->port);
        ASSERT_NE(h, nullptr);
    }

    // A fresh enumeration, as a host does after a hotplug event.
    libusb_device* find(int bus, int address) {
        libusb_device** list;
        ssize_t n = libusb_get_device_list(ctx_, &list);
        libusb_device* found = nullptr;
        for (ssize_t i = 0; i < n; ++i)
            if (libusb_get_bus_number(list[i]) == bus && libusb_get_device_address(list[i]) == address)
                found = libusb_ref_device(list[i]);
        libusb_free_device_list(list, 1);
        return found;
    }
    libusb_device_handle* open(int port, bool claim = true) {
        libusb_device* dev = find(host().bus_of(port), host().address_of(port));
        if (!dev) return nullptr;
        libusb_device_handle* h = nullptr;
        int r = libusb_open(dev, &h);
        libusb_unref_device(dev);
        if (r != 0) return nullptr;
        handles_.push_back(h);
        if (claim && libusb_claim_interface(h, 0) != 0) return nullptr;
        return h;
    }

    static std::string text(libusb_device_handle* h, uint8_t index) {
        unsigned char buf[128];
        int n = libusb_get_string_descriptor_ascii(h, index, buf, sizeof buf);
        return n < 0 ? "error " + std::to_string(n) : std::string(reinterpret_cast<char*>(buf), size_t(n));
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
    // An asynchronous transfer (a read by default); `status` leaves -1 when it completes.
    struct Async {
        libusb_transfer* t = libusb_alloc_transfer(0);
        std::atomic<int> status{-1};
        Async(libusb_device_handle* h, Bytes& buf, uint8_t ep = 0x81, bool zlp = false) {
            libusb_fill_bulk_transfer(
                t, h, ep, buf.data(), int(buf.size()),
                [](libusb_transfer* tr) { static_cast<std::atomic<int>*>(tr->user_data)->store(tr->status); },
                &status, 0);
            if (zlp) t->flags |= LIBUSB_TRANSFER_ADD_ZERO_PACKET;
        }
        ~Async() { libusb_free_transfer(t); }
    };
    int finish(Async& a) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (a.status < 0 && std::chrono::steady_clock::now() < deadline) {
            timeval tv{0, 10000};
            libusb_handle_events_timeout(ctx_, &tv);
        }
        return a.status;
    }

    libusb_context* ctx_ = nullptr;
    std::shared_ptr<Echo> e;
    libusb_device_handle* h = nullptr;
    std::vector<libusb_device_handle*> handles_;
    std::vector<std::shared_ptr<Echo>> echos_;
};

// ---------------------------------------------------------------------------

// The device, configuration and string descriptors (vendor, product and manufacturer
// rules, and the full-speed packet size, are checked through the library).
TEST_F(UsbfsTest, EnumeratesWithIdentityDescriptorsAndStrings) {
    UsbIdentity id;
    id.vendor = 0x1234;
    id.serial = "SN-42";
    auto e = plug(id, 3, 17);
    ASSERT_EQ(host().bus_of(e->port), 3);
    ASSERT_EQ(host().address_of(e->port), 17);
    libusb_device* dev = find(3, 17);
    ASSERT_NE(dev, nullptr);
    libusb_device_descriptor dd;
    ASSERT_EQ(libusb_get_device_descriptor(dev, &dd), 0);
    EXPECT_EQ(dd.idVendor, 0x1234);
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
    EXPECT_EQ(text(h, dd.iProduct), "Polybus simulated adapter");
    EXPECT_EQ(text(h, dd.iSerialNumber), "SN-42");
    // A string index the device does not have stalls.
    EXPECT_EQ(text(h, 9), "error " + std::to_string(LIBUSB_ERROR_PIPE));
    int config = -1;
    EXPECT_EQ(libusb_get_configuration(h, &config), 0);
    EXPECT_EQ(config, 1);
    // Standard requests never reach the model.
    EXPECT_TRUE(e->setups().empty());
}

TEST_F(UsbfsTest, VendorControlRequests) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());

    uint8_t buf[64] = {};
    ASSERT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 0x1234, 7, buf, 4, 1000), 4);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0xDE, 0xAD, 0x34, 0x12}));
    // A larger buffer still gets only what the device sends.
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 1, 0, buf, sizeof buf, 1000), 4);
    EXPECT_EQ(libusb_control_transfer(h, 0x40, kVendorPoke, 5, 6, nullptr, 0, 1000), 0);
    // Stalls, silence and a failing model each fail one request and leave the device usable.
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorStall, 0, 0, buf, 4, 1000), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 2, 0, buf, 4, 1000), 4);
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorSilent, 0, 0, buf, 4, 50), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(libusb_control_transfer(h, 0x40, kVendorThrow, 0, 0, nullptr, 0, 1000), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 3, 0, buf, 4, 1000), 4);
    EXPECT_EQ(buf[2], 3);

    auto s = e->setups();
    ASSERT_EQ(s.size(), 8u);
    auto fields = [](const ControlSetup& c) {
        return std::vector<int>{c.bmRequestType, c.bRequest, c.wValue, c.wIndex, c.wLength};
    };
    EXPECT_EQ(fields(s[0]), (std::vector<int>{0xC0, kVendorRead, 0x1234, 7, 4}));
    EXPECT_EQ(s[1].wLength, 64);
    EXPECT_EQ(fields(s[2]), (std::vector<int>{0x40, kVendorPoke, 5, 6, 0}));
}

// Long and empty OUT transfers reach the model exactly as sent, and a terminating
// zero-length packet only when asked for (the library sends its own as separate empty
// transfers, so only this test covers the flag; the interrupt endpoint is checked
// through the library).
TEST_F(UsbfsTest, BulkOutReachesModelWithAndWithoutZeroLengthPacket) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    Bytes small = pattern(100, 1), big = pattern(70000, 2), whole = pattern(1024, 3);
    EXPECT_EQ(send(h, small), 100);
    EXPECT_EQ(send(h, big, 0x02), 70000);
    EXPECT_EQ(send(h, {}, 0x02), 0);
    for (bool zlp : {true, false}) {
        Async a(h, whole, 0x02, zlp);
        ASSERT_EQ(libusb_submit_transfer(a.t), 0);
        EXPECT_EQ(finish(a), LIBUSB_TRANSFER_COMPLETED);
        EXPECT_EQ(a.t->actual_length, 1024);
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

TEST_F(UsbfsTest, InDataSplitsAcrossHeaderAndPayloadReads) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    const Bytes msg = pattern(700, 6);

    // Header, then the payload read in two pieces: the partial head is used again.
    ASSERT_EQ(send(h, msg), 700);
    Bytes header = recv(h, 8);
    ASSERT_EQ(header.size(), 8u);
    EXPECT_EQ(header[0], 'E');
    EXPECT_EQ(header[4] | header[5] << 8 | header[6] << 16 | uint32_t(header[7]) << 24, 700u);
    Bytes p1 = recv(h, 512), p2 = recv(h, 512);
    p1.insert(p1.end(), p2.begin(), p2.end());
    EXPECT_EQ(p1, msg);

    // Header and payload as one transfer: whole-packet reads split it cleanly.
    Bytes both = header;
    both.insert(both.end(), msg.begin(), msg.end());
    host().queue_in(e->port, {both});
    p1 = recv(h, 512), p2 = recv(h, 512);
    ASSERT_EQ(p1.size(), 512u);
    p1.insert(p1.end(), p2.begin(), p2.end());
    EXPECT_EQ(p1, both);
    // A read that is not a whole number of packets has no room for the first
    // 512-byte packet: it overflows and that packet is lost, as on a real bus.
    host().queue_in(e->port, {both});
    int err = 0;
    EXPECT_TRUE(recv(h, 8, &err).empty());
    EXPECT_EQ(err, LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(recv(h, 512), Bytes(msg.begin() + 504, msg.end()));
    EXPECT_EQ(host().queued_in_bytes(e->port), 0);

    // A large read ends at the end of the device transfer: separate transfers
    // never merge into one URB.
    ASSERT_EQ(send(h, pattern(10, 0)), 10);
    EXPECT_EQ(recv(h, 4096).size(), 8u);
    EXPECT_EQ(recv(h, 4096), pattern(10, 0));
    // An empty device transfer completes a read with zero bytes.
    host().queue_in(e->port, {{}, {1, 2}});
    err = -1;
    EXPECT_TRUE(recv(h, 64, &err).empty());
    EXPECT_EQ(err, 0);
    EXPECT_EQ(recv(h, 64), (Bytes{1, 2}));
}

TEST_F(UsbfsTest, InTimeoutLosesNoData) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());

    for (int i = 0; i < 3; ++i) {
        Bytes buf(64);
        int got = -1;
        EXPECT_EQ(bulk(h, 0x81, buf, &got, 30), LIBUSB_ERROR_TIMEOUT);
        EXPECT_EQ(got, 0);
    }
    host().queue_in(e->port, {pattern(20, 1), pattern(30, 2)});
    EXPECT_EQ(recv(h, 64), pattern(20, 1));
    EXPECT_EQ(recv(h, 64), pattern(30, 2));

    // Cancelling a pending asynchronous read gives the data to the next one.
    Bytes buf(64);
    Async a(h, buf);
    ASSERT_EQ(libusb_submit_transfer(a.t), 0);
    ASSERT_EQ(libusb_cancel_transfer(a.t), 0);
    EXPECT_EQ(finish(a), LIBUSB_TRANSFER_CANCELLED);
    host().queue_in(e->port, {pattern(5, 3)});
    EXPECT_EQ(recv(h, 64), pattern(5, 3));
}

// libusb's event loop must sleep in poll() while nothing can be reaped, also
// after an unplug; a spinning loop issues thousands of ioctls per second and
// eats a CPU per waiting test.
TEST_F(UsbfsTest, EventLoopSleepsWhileNothingToReap) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    uint64_t before = host().ioctl_count();
    int err = 0;
    recv(h, 64, &err, 300);
    EXPECT_EQ(err, LIBUSB_ERROR_TIMEOUT);
    EXPECT_LT(host().ioctl_count() - before, 40u);

    host().unplug(e->port);
    // An application's event thread keeps handling events on the open handle.
    before = host().ioctl_count();
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < end) {
        timeval tv{0, 50000};
        libusb_handle_events_timeout(ctx_, &tv);
    }
    EXPECT_LT(host().ioctl_count() - before, 40u);
}

TEST_F(UsbfsTest, TwoDevicesAtOnce) {
    auto ea = plug(), eb = plug();
    ASSERT_NE(host().address_of(ea->port), host().address_of(eb->port));
    libusb_device_handle* ha = open(ea->port);
    libusb_device_handle* hb = open(eb->port);
    ASSERT_NE(ha, nullptr);
    ASSERT_NE(hb, nullptr);
    // Both answers are queued before either is read.
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
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    int bus = host().bus_of(e->port), addr = host().address_of(e->port);

    // One asynchronous read pending, one synchronous read blocked in another thread.
    Bytes buf(64);
    Async a(h, buf);
    ASSERT_EQ(libusb_submit_transfer(a.t), 0);
    int sync_result = 1;
    std::thread reader([&] { recv(h, 64, &sync_result, 10000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    host().unplug(e->port);
    reader.join();
    EXPECT_EQ(sync_result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(finish(a), LIBUSB_TRANSFER_NO_DEVICE);

    EXPECT_EQ(host().bus_of(e->port), -1);
    EXPECT_EQ(send(h, {1, 2, 3}), LIBUSB_ERROR_NO_DEVICE);
    uint8_t c[4];
    EXPECT_EQ(libusb_control_transfer(h, 0xC0, kVendorRead, 0, 0, c, 4, 500), LIBUSB_ERROR_NO_DEVICE);
    libusb_device* gone = find(bus, addr);
    EXPECT_EQ(gone, nullptr);
    if (gone) libusb_unref_device(gone);
    // Data a model still produces for the dead port goes nowhere.
    host().queue_in(e->port, {{1}});
    EXPECT_TRUE(e->outs().empty());
}

TEST_F(UsbfsTest, ResetFlushesQueuedDataAndResetsModel) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    host().queue_in(e->port, {pattern(10, 1)});
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
    handles_.erase(std::find(handles_.begin(), handles_.end(), a));
    libusb_close(a);
    // umockdev reports a close to its handler thread asynchronously.
    int r = LIBUSB_ERROR_BUSY;
    for (int i = 0; i < 200 && r == LIBUSB_ERROR_BUSY; ++i) {
        r = libusb_claim_interface(b, 0);
        if (r == LIBUSB_ERROR_BUSY) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(r, 0);
}

// The driver's usual shape: one host thread sends commands while another keeps a read
// pending on the same handle and context, and two device-side timer threads queue
// header+payload pairs of their own meanwhile. Every pair must arrive intact and in
// per-source order.
TEST_F(UsbfsTest, TimerThreadsStreamWhileHostReadsAndWrites) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    constexpr int kPerThread = 150, kCommands = 100;
    auto producer = [&](uint8_t tag) {
        std::mt19937 rng(tag);
        for (int i = 0; i < kPerThread; ++i) {
            size_t n = 1 + rng() % 300;
            host().queue_in(e->port, {{tag, uint8_t(i), uint8_t(n), uint8_t(n >> 8)}, pattern(n, uint8_t(tag + i))});
            if (rng() % 4 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    };
    std::atomic<bool> write_failed{false};
    std::thread writer([&] {
        for (int i = 0; i < kCommands; ++i)
            if (send(h, pattern(size_t(1 + i), uint8_t(i))) != 1 + i) write_failed = true;
    });
    std::thread p1(producer, uint8_t(1)), p2(producer, uint8_t(2));
    int next[3] = {0, 0, 0}, echoed = 0;
    for (int k = 0; k < 2 * kPerThread + kCommands; ++k) {
        Bytes header = recv(h, 8, nullptr, 5000);
        if (header.size() == 8 && header[0] == 'E') {
            size_t n = header[4];
            EXPECT_EQ(n, size_t(echoed + 1));
            if (recv(h, 512, nullptr, 5000) != pattern(n, uint8_t(n - 1))) {
                ADD_FAILURE() << "echo mismatch at frame " << k;
                break;
            }
            ++echoed;
            continue;
        }
        if (header.size() != 4 || (header[0] != 1 && header[0] != 2)) {
            ADD_FAILURE() << "bad header at frame " << k;
            break;
        }
        uint8_t tag = header[0];
        EXPECT_EQ(header[1], uint8_t(next[tag]));
        if (recv(h, 512, nullptr, 5000) != pattern(header[2] | header[3] << 8, uint8_t(tag + next[tag]))) {
            ADD_FAILURE() << "payload mismatch at frame " << k;
            break;
        }
        ++next[tag];
    }
    writer.join();
    p1.join();
    p2.join();
    EXPECT_FALSE(write_failed);
    EXPECT_EQ(echoed, kCommands);
    EXPECT_EQ(next[1], kPerThread);
    EXPECT_EQ(next[2], kPerThread);
}

// Work a model defers outside any request runs elsewhere and later: the model may
// hold a lock the work needs (an adapter's timer thread unplugging it, say).
TEST_F(UsbfsTest, DeferredOutsideARequestRunsOnAnotherThread) {
    ASSERT_NO_FATAL_FAILURE(plug_and_open());
    ASSERT_EQ(send(h, pattern(3, 1)), 3);  // requests have been answered before
    // Shared with the deferred work, which may still be finishing when the test ends.
    auto held = std::make_shared<std::mutex>();
    auto ran = std::make_shared<std::promise<std::thread::id>>();
    auto f = ran->get_future();
    {
        std::lock_guard<std::mutex> g(*held);
        host().defer([held, ran] {
            std::lock_guard<std::mutex> g2(*held);
            ran->set_value(std::this_thread::get_id());
        });
    }
    ASSERT_EQ(f.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_NE(f.get(), std::this_thread::get_id());
}

// A descriptor closed with a read still submitted takes its claim and that read
// with it: the next data goes to the next reader, and a later descriptor that gets
// the same number is a client of its own.
TEST_F(UsbfsTest, ClosedDescriptorTakesItsClaimAndReadsWithIt) {
    auto e = plug();
    char node[64];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", host().bus_of(e->port), host().address_of(e->port));
    uint8_t stale[64];
    for (int round = 0; round < 2; ++round) {
        int fd = ::open(node, O_RDWR);
        ASSERT_GE(fd, 0);
        unsigned int iface = 0;
        int claimed = -1;  // the previous round's close may still be on its way
        for (int i = 0; i < 200 && claimed != 0; ++i) {
            claimed = ioctl(fd, USBDEVFS_CLAIMINTERFACE, &iface);
            if (claimed != 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ASSERT_EQ(claimed, 0);
        usbdevfs_urb urb{};
        urb.type = USBDEVFS_URB_TYPE_BULK;
        urb.endpoint = 0x81;
        urb.buffer = stale;
        urb.buffer_length = sizeof stale;
        ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &urb), 0);
        ::close(fd);  // never reaped
    }
    libusb_device_handle* b = open(e->port, false);
    ASSERT_NE(b, nullptr);
    // Once the claim is free the close has been seen (umockdev's way reports it
    // asynchronously).
    int r = LIBUSB_ERROR_BUSY;
    for (int i = 0; i < 200 && r == LIBUSB_ERROR_BUSY; ++i) {
        r = libusb_claim_interface(b, 0);
        if (r == LIBUSB_ERROR_BUSY) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(r, 0);
    host().queue_in(e->port, {pattern(10, 4)});
    EXPECT_EQ(recv(b, 64), pattern(10, 4));
}

TEST(UsbfsProcess, UsbRequestsOnOtherDescriptorsReachTheKernel) {
    // A FIFO that is not one of the simulator's nodes, and a character device: the
    // kernel's answer, not the simulator's.
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    uint32_t caps = 0;
    errno = 0;
    EXPECT_EQ(ioctl(p[1], USBDEVFS_GET_CAPABILITIES, &caps), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(caps, 0u);
    close(p[0]);
    close(p[1]);
    int null = open("/dev/null", O_RDWR);
    ASSERT_GE(null, 0);
    errno = 0;
    EXPECT_EQ(ioctl(null, USBDEVFS_GET_CAPABILITIES, &caps), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(null);
}

TEST(UsbfsProcess, UsleepOverrideStillSleeps) {
    auto t0 = std::chrono::steady_clock::now();
    usleep(20000);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(20));
    EXPECT_EQ(usleep(0), 0);
}

TEST(UsbfsProcess, PlugRejectsBadArguments) {
    auto e = std::make_shared<Echo>();
    EXPECT_THROW(host().plug(nullptr, {}), std::invalid_argument);
    EXPECT_THROW(host().plug(e, {}, 0), std::invalid_argument);
    EXPECT_THROW(host().plug(e, {}, 1, 128), std::invalid_argument);
    int port = host().plug(e, {}, 2, 9);
    EXPECT_THROW(host().plug(e, {}, 2, 9), std::invalid_argument);
    host().unplug(port);
    host().unplug(port);  // twice is harmless
    EXPECT_THROW(host().replug(port), std::invalid_argument);
    port = host().plug(e, {}, 2, 9);  // the address is free again
    EXPECT_GE(port, 0);
    host().unplug(port);
}

}  // namespace

int main(int argc, char** argv) {
    ensure_preloaded(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
