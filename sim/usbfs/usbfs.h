// The USB side of the simulated adapter: a usbfs emulation that the real,
// unmodified libusb talks to.
//
// A test process runs with libumockdev-preload.so.0 preloaded (ensure_preloaded()
// arranges that). libusb then finds our devices in umockdev's fake sysfs, opens
// /dev/bus/usb/BBB/DDD and issues usbfs ioctls, which UsbHost turns into calls on a
// UsbFunction (the adapter model), and queued device data back into completed URBs.
// The ioctls are answered in the thread that makes them (the program exports an
// ioctl that reaches us first, see umockdev_guards.cpp); ThreadSanitizer builds,
// and POLYBUS_SIM_IOCTL_FORWARD=1 or POLYBUS_SIM_IOCTL_COPY=1, take umockdev's
// way instead: each ioctl forwarded over a socket to one handler thread, two
// thread wake-ups per ioctl (a command exchange then costs about 0.5 ms instead of
// 0.04 ms).
//
// Threading: UsbFunction callbacks run one at a time (under one lock, whichever
// thread makes the ioctl), never with an internal lock held, so a callback may
// call queue_in(), flush_in() and defer(). UsbHost's public methods are thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace polybus_sim {

struct ControlSetup {
    uint8_t bmRequestType, bRequest;
    uint16_t wValue, wIndex, wLength;
};

// What a simulated USB device does; implemented by the adapter model.
class UsbFunction {
public:
    virtual ~UsbFunction() = default;
    // A vendor or class control request (standard requests, including string
    // descriptors, are answered by UsbHost from the UsbIdentity).
    // IN: fill data (capacity wLength) and return the byte count; OUT: read data
    // (wLength bytes), return wLength. Return a negative errno to fail it: -EPIPE
    // stalls (LIBUSB_ERROR_PIPE), others such as -EPROTO become I/O errors, and
    // -EINPROGRESS leaves the request unanswered until the host gives up (its
    // timeout) or the device is unplugged. An exception counts as a stall.
    virtual int control(const ControlSetup& setup, uint8_t* data) = 0;
    // One bulk or interrupt OUT URB's bytes; ep is 0x01 or 0x02. A zero-length
    // packet arrives as len 0: either a zero-length transfer, or, after the data,
    // the terminating ZLP the host requested (LIBUSB_TRANSFER_ADD_ZERO_PACKET)
    // for a transfer that is a multiple of the max packet size.
    // `interrupt` says which transfer type the URB was (only 0x02 accepts both).
    // The host sees the transfer complete once this returns.
    virtual void out(uint8_t ep, bool interrupt, const uint8_t* data, size_t len) = 0;
    // USBDEVFS_RESET from the host (libusb_reset_device). Queued IN data has
    // already been dropped when this runs; URBs the host has pending stay pending.
    virtual void reset() {}
};

struct UsbIdentity {
    uint16_t vendor = 0x0483, product = 0x7918;
    // Empty strings get no string descriptor (index 0 in the device descriptor).
    std::string manufacturer, product_name = "Polybus simulated adapter", serial = "SIM0001";
    bool high_speed = true;  // 480 Mbit/s (max packet 512) or full speed 12 Mbit/s (max packet 64)
    uint16_t bcd_device = 0x0100;
};

// The process-wide testbed; created on first use (ensure_preloaded() creates it
// early, before any other thread exists, which umockdev 0.17 needs).
class UsbHost {
public:
    static UsbHost& instance();

    // Plug a device: configuration 1, interface 0 with bulk OUT 0x01, bulk OUT 0x02
    // (which also accepts interrupt URBs) and bulk IN 0x81. Returns a port id >= 0.
    // bus is 1..255; address -1 picks the next free address on `bus` the way the
    // kernel does (increasing, wrapping at 127), otherwise 1..127 and unused.
    // Throws std::invalid_argument for a null function or a bad/taken address.
    int plug(std::shared_ptr<UsbFunction> fn, const UsbIdentity& id, int bus = 1, int address = -1);
    // Pending URBs complete with -ESHUTDOWN (libusb: LIBUSB_ERROR_NO_DEVICE /
    // LIBUSB_TRANSFER_NO_DEVICE), every later ioctl on an open handle fails with
    // ENODEV, a "remove" uevent goes out and the device leaves sysfs and /dev.
    // Unknown or already unplugged ports are ignored.
    void unplug(int port);
    // unplug + plug of the same function and identity on the same bus, at the same
    // address (new_address -1) or the given one. Returns the new port id; the old
    // one is dead. The function object is kept: reset it yourself if needed.
    int replug(int port, int new_address = -1);

    // Queue device-to-host data on IN endpoint 0x81. Each element is one device
    // transfer, ended by a short packet (or a ZLP), so it never merges with the
    // next: an IN URB of length N takes the head transfer's remaining bytes if
    // they fit, otherwise N bytes and the rest stays for the next URB. An empty
    // element completes one URB with 0 bytes. Queue a header and its payload as
    // two transfers when the real device sends them as two, so a host that reads
    // with one large URB sees what it would see on the wire; a host that reads
    // the header with an exact-size URB works either way.
    // The whole list is queued atomically. Data for an unplugged port is dropped.
    void queue_in(int port, std::vector<std::vector<uint8_t>> transfers);
    void flush_in(int port);  // drop queued IN data (pending URBs stay pending)
    // Bytes queued on 0x81 and not yet handed to a URB (-1: unknown port).
    long queued_in_bytes(int port) const;

    int bus_of(int port) const;      // -1 once unplugged
    int address_of(int port) const;  // -1 once unplugged

    // Run fn once the ioctl being handled has its answer (e.g. a model that
    // re-enumerates on a vendor request unplugs/replugs from here, after answering
    // it), never inside the model callback that asks. Deferred functions run in
    // order. Asked outside any ioctl, fn runs on another thread, soon: the caller
    // may hold locks that fn needs.
    void defer(std::function<void()> fn);

    // Number of ioctls the handler has answered; for benchmarks.
    uint64_t ioctl_count() const;
    // Time the thread `tid` (a Linux thread id, as in /proc/self/task) has spent
    // answering its own ioctls, in seconds: simulator work that the thread's CPU
    // time includes, since ioctls are answered in the calling thread. For
    // benchmarks that judge a program's thread by its own share. 0 for a thread
    // that never made one, or that has ended.
    double answering_seconds(int tid) const;

    UsbHost(const UsbHost&) = delete;
    UsbHost& operator=(const UsbHost&) = delete;

    struct Impl;

private:
    UsbHost();
    ~UsbHost();
    std::unique_ptr<Impl> impl_;
};

// Make sure the process runs with the umockdev preload: if LD_PRELOAD lacks
// libumockdev-preload.so.0, re-exec /proc/self/exe with it (after libasan/libtsan
// when this binary uses them, and with TSAN_OPTIONS naming sim/tsan.supp) and the
// same argv. Then lowers the timer slack and creates the testbed. Call first
// thing in main(), before any thread starts.
// POLYBUS_SIM_PIN_CPU=<n> or =auto (the CPU it runs on) pins the process to one
// CPU: exchanges get faster and steadier, but do not pin parallel tests together.
// POLYBUS_SIM_IOCTL_COPY=1 makes the handler reach the program's ioctl arguments
// through umockdev's copies instead of directly (several times slower; what
// ThreadSanitizer builds always do). Either way the simulator serves only the
// process that plugged the devices: a forked child must not use USB handles it
// inherited (libusb does not support that either).
void ensure_preloaded(int argc, char** argv);

// Asks the scheduler to let the calling thread preempt busy threads as soon as it
// wakes (a short slice of the fair scheduler, Linux 6.12 on; refused quietly before).
// For the simulator's threads that must answer at an instant: the usbfs handler and
// streaming models. Keeps the thread's niceness.
void request_short_slices();

}  // namespace polybus_sim
