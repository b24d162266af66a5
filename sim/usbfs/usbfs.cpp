// usbfs emulation behind umockdev: see usbfs.h for the model's view.
//
// How a URB travels: each ioctl of a client (one open fd) reaches us either in the
// client's own thread (the in-thread path, see fast_ioctl) or on umockdev's worker
// thread, the "handler thread", after a trip over umockdev's socket. SUBMITURB
// keeps a reference to the client's struct usbdevfs_urb and completes at once.
// Control and OUT URBs are answered by the model right there and go to the
// device's `done` list; IN URBs wait in `pending_in` until queue_in() data matches
// them. REAPURBNDELAY then copies status, length and IN bytes into the URB and
// points the client's reap argument at it. Touching client memory is only allowed
// while that client sits in an ioctl, so queue_in() from other threads only
// records bytes; the copy happens at reap time. See ClientMem for the ways client
// memory is reached.

#include "usbfs.h"

#include "umockdev_guards.h"

#include <umockdev.h>

#include <sys/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <linux/usb/ch9.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <filesystem>
#include <link.h>
#include <map>
#include <mutex>
#include <sched.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace polybus_sim {

namespace {

#if defined(__has_feature)
#define POLYBUS_HAS_FEATURE(x) __has_feature(x)
#else
#define POLYBUS_HAS_FEATURE(x) 0
#endif
#if defined(__SANITIZE_THREAD__) || POLYBUS_HAS_FEATURE(thread_sanitizer)
constexpr bool kTsan = true;
constexpr const char kSanitizerRuntime[] = "libtsan.so";
#elif defined(__SANITIZE_ADDRESS__) || POLYBUS_HAS_FEATURE(address_sanitizer)
constexpr bool kTsan = false;
constexpr const char kSanitizerRuntime[] = "libasan.so";
#else
constexpr bool kTsan = false;
constexpr const char kSanitizerRuntime[] = "";
#endif

constexpr uint8_t kEpOut1 = 0x01, kEpOut2 = 0x02, kEpIn = 0x81;
constexpr uint8_t kConfigValue = 1;
constexpr uint16_t kLangUsEnglish = 0x0409;
// libusb checks these to choose how to split transfers; with scatter-gather every
// transfer is one URB, which keeps IN data matching simple.
constexpr uint32_t kCaps = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                           USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_BULK_SCATTER_GATHER |
                           USBDEVFS_CAP_REAP_AFTER_DISCONNECT;

// Resolves the pointer at `offset` of `parent` to `len` bytes of client memory.
UMockdevIoctlData* resolve(UMockdevIoctlData* parent, size_t offset, size_t len) {
    GError* err = nullptr;
    UMockdevIoctlData* d = umockdev_ioctl_data_resolve(parent, offset, len, &err);
    if (err) {
        g_error_free(err);
        if (d) umockdev_ioctl_data_unref(d);
        return nullptr;
    }
    return d;
}

// Whether the handler reaches client memory directly (see ClientMem); decided once
// by UsbHost() before any ioctl arrives.
bool g_direct_access = true;

// An ioctl's third argument, as umockdev forwarded it or, on the in-thread path
// (see fast_ioctl), as the program passed it.
struct Arg {
    UMockdevIoctlData* data = nullptr;  // forwarded by umockdev
    void* value = nullptr;              // passed in this thread (data is null)

    // The argument itself: a pointer, or a number such as DISCARDURB's URB address.
    void* raw() const {
        if (!data) return value;
        void* v;
        std::memcpy(&v, data->data, sizeof v);
        return v;
    }
};

// A block of the client's memory that an ioctl argument leads to.
//
// umockdev's own way copies each block over the client's socket: one round trip
// to the blocked client per block (the URB, then its buffer, then the reap
// pointer), and write-backs when the ioctl completes, on top of the ioctl's own
// round trip. Every round trip is two thread hand-offs, which is what an exchange
// costs. The handler runs in the very process whose ioctl it answers, and that
// client thread is blocked until we complete, so in direct mode the client's
// pointers are used as they are: one round trip per ioctl.
// The copying transport stays for ThreadSanitizer builds (TSan cannot see the
// socket hand-off that orders the two threads' accesses, and umockdev talks to it
// through uninstrumented libc) and on request (POLYBUS_SIM_IOCTL_COPY=1).
// Direct access assumes the ioctl comes from this process: a forked child must not
// use device handles it inherited, which libusb forbids anyway.
class ClientMem {
public:
    ClientMem() = default;
    ClientMem(ClientMem&& o) noexcept : data_(o.data_), bytes_(o.bytes_) {
        o.data_ = nullptr;
        o.bytes_ = nullptr;
    }
    ClientMem& operator=(ClientMem&& o) noexcept {
        std::swap(data_, o.data_);
        std::swap(bytes_, o.bytes_);
        return *this;
    }
    ClientMem(const ClientMem&) = delete;
    ClientMem& operator=(const ClientMem&) = delete;
    ~ClientMem() {
        if (data_) umockdev_ioctl_data_unref(data_);
    }

    // The `len` bytes the ioctl's pointer argument points to.
    static ClientMem of_arg(const Arg& arg, size_t len) {
        ClientMem m;
        if (g_direct_access || !arg.data) {
            m.bytes_ = static_cast<uint8_t*>(arg.raw());
        } else if ((m.data_ = resolve(arg.data, 0, len))) {
            m.bytes_ = m.data_->data;
        }
        return m;
    }
    // The `len` bytes the pointer at `offset` of this block points to.
    ClientMem at(size_t offset, size_t len) const {
        ClientMem m;
        if (!data_) {
            if (bytes_) std::memcpy(&m.bytes_, bytes_ + offset, sizeof m.bytes_);
        } else if ((m.data_ = resolve(data_, offset, len))) {
            m.bytes_ = m.data_->data;
        }
        return m;
    }
    // Points the pointer at `offset` of this block at `target` (reaping).
    void set_ptr(size_t offset, const ClientMem& target) const {
        if (!data_) {
            if (bytes_) std::memcpy(bytes_ + offset, &target.bytes_, sizeof target.bytes_);
        } else {
            umockdev_ioctl_data_set_ptr(data_, offset, target.data_);
        }
    }
    // The block's address in the client (what DISCARDURB names a URB by).
    unsigned long client_addr() const {
        return data_ ? data_->client_addr : reinterpret_cast<unsigned long>(bytes_);
    }
    uint8_t* bytes() const { return bytes_; }
    explicit operator bool() const { return bytes_ != nullptr; }

private:
    UMockdevIoctlData* data_ = nullptr;  // copying transport only
    uint8_t* bytes_ = nullptr;
};

// Reads a fixed-size argument the ioctl passes by pointer.
template <typename T>
bool read_arg(const Arg& arg, T* out) {
    ClientMem m = ClientMem::of_arg(arg, sizeof(T));
    if (!m) return false;
    std::memcpy(out, m.bytes(), sizeof(T));
    return true;
}

struct Client;

// What an ioctl returns to the client: result and errno.
struct Result {
    long res;
    int err;
};
constexpr Result kOk{0, 0};
constexpr Result fail(int err) { return {-1, err}; }

struct Urb {
    ClientMem mem;                      // the client's struct usbdevfs_urb
    Client* client = nullptr;
    unsigned long addr = 0;             // the URB's address in the client, for DISCARDURB
    uint8_t type = 0, ep = 0;
    int length = 0;
    int status = 0, actual = 0;
    std::vector<uint8_t> in;            // bytes to hand back at reap time
    size_t in_at = 0;                   // where they go in the buffer (8 for control)

    Urb() = default;
    Urb(const Urb&) = delete;
    Urb& operator=(const Urb&) = delete;
};
using UrbPtr = std::unique_ptr<Urb>;

// One open file descriptor of the emulated node.
struct Client {
    bool claimed0 = false;
};

struct Device {
    UsbHost::Impl* host = nullptr;
    std::shared_ptr<UsbFunction> fn;
    UsbIdentity id;
    int port = -1, bus = 0, address = 0;
    std::string devnode, syspath;
    std::vector<uint8_t> dev_desc, cfg_desc;
    uint16_t mps = 512;

    // Guarded by Impl::mu.
    bool gone = false;
    uint8_t config = kConfigValue;
    std::deque<std::vector<uint8_t>> in_q;
    size_t in_head_off = 0;
    long in_bytes = 0;
    std::deque<UrbPtr> pending_in;
    std::deque<UrbPtr> unanswered;  // control requests the model left open
    std::deque<UrbPtr> done;
    // By umockdev's client object, or by fast_client_key() for a descriptor whose
    // ioctls are answered in the program's own thread.
    std::map<const void*, std::unique_ptr<Client>> clients;

    // The device node is a FIFO we keep full while nothing is reapable: libusb
    // polls usbfs fds for POLLOUT, and on umockdev's regular-file node that is
    // always set, so every libusb event loop would spin through REAPURBNDELAY at
    // 100 % CPU (30000 ioctls per idle second). -1: plain file, spinning it is.
    int wake_fd = -1;
    bool wake_blocked = false;

    ~Device() {
        if (wake_fd >= 0) close(wake_fd);
    }
};
using DevicePtr = std::shared_ptr<Device>;

void put16(std::vector<uint8_t>& v, uint16_t x) {
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}

std::string hex(const std::vector<uint8_t>& v) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t b : v) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

// sysfs attribute text for umockdev's record format: one line, no escapes.
std::string attr_text(const std::string& in) {
    std::string s;
    for (char c : in) {
        unsigned char u = static_cast<unsigned char>(c);
        s += (u < 0x20 || u == '\\' || u >= 0x7f) ? '?' : c;
    }
    return s;
}

std::vector<uint8_t> string_descriptor(const std::string& text) {
    size_t n = std::min<size_t>(text.size(), 126);
    std::vector<uint8_t> d{uint8_t(2 + 2 * n), USB_DT_STRING};
    for (size_t i = 0; i < n; ++i) put16(d, static_cast<unsigned char>(text[i]));
    return d;
}

void build_descriptors(Device& d) {
    const UsbIdentity& id = d.id;
    d.mps = id.high_speed ? 512 : 64;
    uint8_t istr = 1;
    uint8_t imanu = id.manufacturer.empty() ? 0 : istr++;
    uint8_t iprod = id.product_name.empty() ? 0 : istr++;
    uint8_t iser = id.serial.empty() ? 0 : istr++;
    std::vector<uint8_t>& dd = d.dev_desc;
    dd = {USB_DT_DEVICE_SIZE, USB_DT_DEVICE};
    put16(dd, 0x0200);
    dd.insert(dd.end(), {0, 0, 0, 64});
    put16(dd, id.vendor);
    put16(dd, id.product);
    put16(dd, id.bcd_device);
    dd.insert(dd.end(), {imanu, iprod, iser, 1});

    std::vector<uint8_t>& c = d.cfg_desc;
    c = {USB_DT_CONFIG_SIZE, USB_DT_CONFIG};
    put16(c, USB_DT_CONFIG_SIZE + USB_DT_INTERFACE_SIZE + 3 * USB_DT_ENDPOINT_SIZE);
    c.insert(c.end(), {1, kConfigValue, 0, 0x80, 50});
    c.insert(c.end(), {USB_DT_INTERFACE_SIZE, USB_DT_INTERFACE, 0, 0, 3, 0xff, 0, 0, 0});
    for (uint8_t ep : {kEpOut1, kEpOut2, kEpIn}) {
        c.insert(c.end(), {USB_DT_ENDPOINT_SIZE, USB_DT_ENDPOINT, ep, USB_ENDPOINT_XFER_BULK});
        put16(c, d.mps);
        c.push_back(0);
    }
}

// Lets libusb's poll() return exactly while this device has something to reap.
// After an unplug the kernel would also raise POLLERR, which makes libusb drop the
// fd; a FIFO that libusb holds open read-write cannot, so an unplugged device
// simply stays quiet once its failed URBs are reaped, instead of waking libusb's
// event loop forever. Called with Impl::mu held whenever `done` changes.
void update_wakeup(Device& d) {
    if (d.wake_fd < 0) return;
    const bool ready = !d.done.empty();
    if (ready && d.wake_blocked) {
        // Only we write, one byte at a time: one read empties it (each system
        // call here is part of the cost of every transfer).
        char buf[64];
        while (read(d.wake_fd, buf, sizeof buf) == ssize_t(sizeof buf)) {
        }
        d.wake_blocked = false;
    } else if (!ready && !d.wake_blocked) {
        // One byte fills the pipe's only slot (see make_wakeup_fifo), which is
        // what clears POLLOUT.
        const char b = 0;
        d.wake_blocked = write(d.wake_fd, &b, 1) == 1 || errno == EAGAIN;
    }
}

// Replaces the regular file umockdev created for the node by a one-page FIFO
// and keeps our own end open.
void make_wakeup_fifo(Device& d, const std::string& path) {
    if (unlink(path.c_str()) != 0 || mkfifo(path.c_str(), 0666) != 0) {
        int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);  // put the plain node back
        if (fd >= 0) close(fd);
        return;
    }
    d.wake_fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (d.wake_fd < 0) return;
    fcntl(d.wake_fd, F_SETPIPE_SZ, 4096);
    update_wakeup(d);
}

// Runs a model callback. It is called from GLib's C frames on the handler
// thread, where an exception would end the process; a throwing model is
// reported and its request treated as failed instead.
template <typename Fn>
void model_call(const char* what, Fn&& fn) {
    try {
        fn();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "polybus_sim: UsbFunction::%s threw: %s\n", what, e.what());
    } catch (...) {
        std::fprintf(stderr, "polybus_sim: UsbFunction::%s threw\n", what);
    }
}

bool is_out_ep(uint8_t ep) { return ep == kEpOut1 || ep == kEpOut2; }
bool is_known_ep(uint8_t ep) { return ep == 0 || ep == 0x80 || is_out_ep(ep) || ep == kEpIn; }

bool preload_loaded() {
    return dl_iterate_phdr(
               [](dl_phdr_info* info, size_t, void*) -> int {
                   return info->dlpi_name && std::strstr(info->dlpi_name, "libumockdev-preload.so") ? 1 : 0;
               },
               nullptr) != 0;
}

}  // namespace

struct UsbHost::Impl {
    UMockdevTestbed* testbed = nullptr;
    std::mutex tb_mu;  // umockdev's testbed object is not thread-safe
    mutable std::mutex mu;
    std::map<int, DevicePtr> ports;
    std::map<int, std::map<int, int>> used;  // bus -> address -> port
    std::map<int, int> next_address;         // bus -> where automatic allocation resumes
    int next_port = 0;
    unsigned plug_serial = 0;
    std::atomic<GMainContext*> worker_ctx{nullptr};
    std::atomic<uint64_t> ioctls{0};
    std::string root_dir;  // removed at exit

    // Handler-thread side.
    static gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user);
    static void on_client_gone(gpointer user, GObject* where_the_client_was);
    // Answers one ioctl; the caller holds callback_mu (and not mu).
    Result handle(Device& d, Client* cl, unsigned int req, const Arg& arg);
    Client* client_record(Device& d, const void* key);
    static void drop_client(Device& d, const void* key);

    // One model callback at a time, whichever way the ioctl came in: models are
    // written for a single caller.
    std::mutex callback_mu;

    // The in-thread path (fast_ioctl, fast_close). Guarded by mu.
    struct FastFd {
        DevicePtr dev;
        dev_t node_dev;
        ino_t node_ino;
    };
    std::map<int, FastFd> fast_fds;                              // the program's open nodes
    std::map<std::pair<dev_t, ino_t>, std::weak_ptr<Device>> nodes;  // FIFO node -> device
    std::atomic<int> fast_fd_count{0};
    bool fast_device(int fd, DevicePtr& d, Client*& cl, bool& gone);
    bool fast(int fd, unsigned long req, void* arg, int* result);
    void fast_closed(int fd);

    // Deferred work asked for outside any ioctl, run in order on a thread of its own
    // (started on first use): the caller may hold locks the work needs.
    std::mutex later_mu;
    std::condition_variable later_cv;
    std::deque<std::function<void()>> later;
    bool later_thread = false;
    void run_later(std::function<void()> fn);
    Result submit(Device& d, Client* cl, const Arg& arg);
    Result reap(Device& d, Client* cl, const Arg& arg);
    int standard_request(Device& d, const ControlSetup& s, uint8_t* data);
    int control(Device& d, const ControlSetup& s, uint8_t* data);
    static void match_in(Device& d);
    void retire(const Device& d);
};

// Takes a device out of the testbed. umockdev_testbed_remove_device() rmdir()s
// the device directory and any parent it leaves empty, and each rmdir costs 1 to
// 4 ms on the ext4 /tmp of our machines (a replug took 50 ms). Moving the sysfs
// directory aside and dropping the links and the node is as good for libusb and
// costs microseconds; the attic goes with the testbed directory at exit.
void UsbHost::Impl::retire(const Device& d) {
    const std::string name = d.syspath.substr(d.syspath.rfind('/') + 1);
    const std::string attic = root_dir + "/attic/" + name;
    if (root_dir.empty() || rename((root_dir + d.syspath).c_str(), attic.c_str()) != 0) {
        umockdev_testbed_remove_device(testbed, d.syspath.c_str());
        return;
    }
    unlink((root_dir + "/sys/bus/usb/devices/" + name).c_str());
    unlink((root_dir + "/sys/class/usb/" + name).c_str());
    unlink((root_dir + d.devnode).c_str());
}

gboolean UsbHost::Impl::on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    Device& d = *static_cast<Device*>(user);
    Impl& host = *d.host;
    static thread_local bool signals_blocked = false;
    if (!signals_blocked) {
        block_all_signals_in_this_thread();
        // Every transfer waits for this thread twice; under load its wake-ups set the
        // pace of every stream.
        request_short_slices();
        signals_blocked = true;
    }
    if (!host.worker_ctx.load(std::memory_order_acquire)) {
        GMainContext* expected = nullptr;
        GMainContext* ctx = g_main_context_ref_thread_default();
        if (!host.worker_ctx.compare_exchange_strong(expected, ctx)) g_main_context_unref(ctx);
    }
    host.ioctls.fetch_add(1, std::memory_order_relaxed);
    Result r;
    {
        std::lock_guard<std::mutex> cb(host.callback_mu);
        Client* cl;
        bool gone;
        {
            std::lock_guard<std::mutex> lk(host.mu);
            if (!d.clients.count(client)) {
                // Not a strong reference: its release is how we learn about the close.
                g_object_weak_ref(G_OBJECT(client), on_client_gone, &d);
            }
            cl = host.client_record(d, client);
            gone = d.gone;
        }
        const auto req = static_cast<unsigned int>(umockdev_ioctl_client_get_request(client));
        // After an unplug only reaping still works (libusb relies on
        // USBDEVFS_CAP_REAP_AFTER_DISCONNECT to collect the failed URBs).
        if (gone && req != USBDEVFS_REAPURBNDELAY && req != USBDEVFS_REAPURB)
            r = fail(ENODEV);
        else
            r = host.handle(d, cl, req, Arg{umockdev_ioctl_client_get_arg(client), nullptr});
    }
    // Completing may run umockdev's callbacks (even ours) at once: never under our locks.
    umockdev_ioctl_client_complete(client, r.res, r.err);
    return TRUE;
}

// The client closed its fd and umockdev dropped it (0.17 emits neither
// client-vanished nor a notify on close, but the object goes away): forget its
// URBs and claims.
void UsbHost::Impl::on_client_gone(gpointer user, GObject* where_the_client_was) {
    Device& d = *static_cast<Device*>(user);
    std::lock_guard<std::mutex> lk(d.host->mu);
    drop_client(d, where_the_client_was);
}

// Forgets a closed descriptor's URBs and claims; called with mu held.
void UsbHost::Impl::drop_client(Device& d, const void* key) {
    std::unique_ptr<Client> rec;
    std::vector<UrbPtr> dropped;  // destroyed after the lists are consistent again
    auto it = d.clients.find(key);
    if (it == d.clients.end()) return;
    rec = std::move(it->second);
    d.clients.erase(it);
    for (auto* list : {&d.pending_in, &d.unanswered, &d.done}) {
        for (auto u = list->begin(); u != list->end();) {
            if ((*u)->client == rec.get()) {
                dropped.push_back(std::move(*u));
                u = list->erase(u);
            } else {
                ++u;
            }
        }
    }
    update_wakeup(d);
}

Client* UsbHost::Impl::client_record(Device& d, const void* key) {
    auto it = d.clients.find(key);
    if (it != d.clients.end()) return it->second.get();
    auto rec = std::make_unique<Client>();
    Client* raw = rec.get();
    d.clients.emplace(key, std::move(rec));
    return raw;
}

void UsbHost::Impl::match_in(Device& d) {
    while (!d.pending_in.empty() && !d.in_q.empty()) {
        UrbPtr u = std::move(d.pending_in.front());
        d.pending_in.pop_front();
        const std::vector<uint8_t>& head = d.in_q.front();
        size_t remaining = head.size() - d.in_head_off;
        size_t cap = static_cast<size_t>(u->length);
        size_t n = std::min(remaining, cap);
        // The device sends whole packets. A URB that is not a whole number of packets
        // and cannot take the rest of the transfer babbles: the packet that does not
        // fit is lost beyond what fits, and the URB ends with an overflow.
        size_t consumed = n;
        u->status = 0;
        if (remaining > cap && cap % d.mps != 0) {
            consumed = std::min(remaining, (cap / d.mps + 1) * d.mps);
            u->status = -EOVERFLOW;
        }
        u->in.assign(head.begin() + long(d.in_head_off), head.begin() + long(d.in_head_off + n));
        u->actual = int(n);
        d.in_bytes -= long(consumed);
        n = consumed;
        if (remaining <= n) {
            d.in_q.pop_front();
            d.in_head_off = 0;
        } else {
            d.in_head_off += n;
        }
        d.done.push_back(std::move(u));
    }
    update_wakeup(d);
}

int UsbHost::Impl::standard_request(Device& d, const ControlSetup& s, uint8_t* data) {
    auto reply = [&](const std::vector<uint8_t>& v) {
        size_t n = std::min<size_t>(v.size(), s.wLength);
        if (n) std::memcpy(data, v.data(), n);
        return int(n);
    };
    const bool in = s.bmRequestType & USB_DIR_IN;
    switch (s.bRequest) {
    case USB_REQ_GET_DESCRIPTOR: {
        if (!in) return -EPIPE;
        uint8_t type = uint8_t(s.wValue >> 8), index = uint8_t(s.wValue);
        if (type == USB_DT_DEVICE) return reply(d.dev_desc);
        if (type == USB_DT_CONFIG && index == 0) return reply(d.cfg_desc);
        if (type == USB_DT_STRING) {
            if (index == 0) return reply({4, USB_DT_STRING, uint8_t(kLangUsEnglish), uint8_t(kLangUsEnglish >> 8)});
            const std::string* strs[] = {&d.id.manufacturer, &d.id.product_name, &d.id.serial};
            uint8_t next = 1;
            for (const std::string* str : strs) {
                if (str->empty()) continue;
                if (next++ == index) return reply(string_descriptor(*str));
            }
        }
        return -EPIPE;
    }
    case USB_REQ_GET_STATUS:
        return in ? reply({0, 0}) : -EPIPE;
    case USB_REQ_GET_CONFIGURATION: {
        std::lock_guard<std::mutex> lk(mu);
        return in ? reply({d.config}) : -EPIPE;
    }
    case USB_REQ_GET_INTERFACE:
        return in && s.wIndex == 0 ? reply({0}) : -EPIPE;
    case USB_REQ_SET_CONFIGURATION:
        if (in || s.wValue > kConfigValue) return -EPIPE;
        {
            std::lock_guard<std::mutex> lk(mu);
            d.config = uint8_t(s.wValue);
        }
        return 0;
    case USB_REQ_SET_INTERFACE:
        return (!in && s.wIndex == 0 && s.wValue == 0) ? 0 : -EPIPE;
    case USB_REQ_CLEAR_FEATURE:
    case USB_REQ_SET_FEATURE:
        return in ? -EPIPE : 0;
    default:
        return -EPIPE;
    }
}

int UsbHost::Impl::control(Device& d, const ControlSetup& s, uint8_t* data) {
    switch (s.bmRequestType & USB_TYPE_MASK) {
    case USB_TYPE_STANDARD:
        return standard_request(d, s, data);
    case USB_TYPE_CLASS:
    case USB_TYPE_VENDOR: {
        int r = -EPIPE;
        model_call("control", [&] { r = d.fn->control(s, data); });
        return r < 0 ? r : std::min<int>(r, s.wLength);
    }
    default:
        return -EPIPE;
    }
}

Result UsbHost::Impl::submit(Device& d, Client* cl, const Arg& arg) {
    ClientMem um = ClientMem::of_arg(arg, sizeof(usbdevfs_urb));
    if (!um) return fail(EFAULT);
    auto u = std::make_unique<Urb>();
    usbdevfs_urb urb;
    std::memcpy(&urb, um.bytes(), sizeof urb);
    u->addr = um.client_addr();
    u->mem = std::move(um);
    u->client = cl;
    u->type = urb.type;
    u->ep = urb.endpoint;
    u->length = urb.buffer_length;
    const size_t buf_off = offsetof(usbdevfs_urb, buffer);
    if (urb.buffer_length < 0) return fail(EINVAL);
    if (!is_known_ep(urb.endpoint)) return fail(ENOENT);

    if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
        if ((urb.endpoint & 0x7f) != 0 || urb.buffer_length < 8) return fail(EINVAL);
        ClientMem buf = u->mem.at(buf_off, size_t(urb.buffer_length));
        if (!buf) return fail(EFAULT);
        ControlSetup s;
        const uint8_t* b = buf.bytes();
        s.bmRequestType = b[0];
        s.bRequest = b[1];
        s.wValue = uint16_t(b[2] | b[3] << 8);
        s.wIndex = uint16_t(b[4] | b[5] << 8);
        s.wLength = uint16_t(b[6] | b[7] << 8);
        if (urb.buffer_length < 8 + s.wLength) return fail(EINVAL);
        std::vector<uint8_t> payload(b + 8, b + 8 + s.wLength);
        int r = control(d, s, payload.data());  // model runs without our lock
        std::lock_guard<std::mutex> lk(mu);
        if (r == -EINPROGRESS) {
            d.unanswered.push_back(std::move(u));
            return kOk;
        }
        if (r < 0) {
            u->status = r;
        } else {
            u->actual = r;
            if (s.bmRequestType & USB_DIR_IN) {
                payload.resize(size_t(r));
                u->in = std::move(payload);
                u->in_at = 8;
            }
        }
        d.done.push_back(std::move(u));
        update_wakeup(d);
        return kOk;
    }

    if (urb.type == USBDEVFS_URB_TYPE_BULK || urb.type == USBDEVFS_URB_TYPE_INTERRUPT) {
        const bool interrupt = urb.type == USBDEVFS_URB_TYPE_INTERRUPT;
        if (urb.endpoint == kEpIn) {
            if (interrupt) return fail(EINVAL);
            std::lock_guard<std::mutex> lk(mu);
            if (d.gone) return fail(ENODEV);  // unplugged since the ioctl began: it would wait forever
            d.pending_in.push_back(std::move(u));
            match_in(d);
            return kOk;
        }
        // Like the kernel, refuse interrupt URBs on a bulk endpoint; 0x02 is the
        // one the adapter's host software also drives as interrupt OUT.
        if (!is_out_ep(urb.endpoint) || (interrupt && urb.endpoint != kEpOut2)) return fail(EINVAL);
        std::vector<uint8_t> bytes;
        if (urb.buffer_length > 0) {
            ClientMem buf = u->mem.at(buf_off, size_t(urb.buffer_length));
            if (!buf) return fail(EFAULT);
            bytes.assign(buf.bytes(), buf.bytes() + urb.buffer_length);
        }
        model_call("out", [&] {
            d.fn->out(urb.endpoint, interrupt, bytes.data(), bytes.size());
            if ((urb.flags & USBDEVFS_URB_ZERO_PACKET) && !bytes.empty() && bytes.size() % d.mps == 0)
                d.fn->out(urb.endpoint, interrupt, nullptr, 0);
        });
        std::lock_guard<std::mutex> lk(mu);
        u->actual = urb.buffer_length;
        d.done.push_back(std::move(u));
        update_wakeup(d);
        return kOk;
    }
    return fail(EINVAL);  // isochronous: no such endpoint here
}

Result UsbHost::Impl::reap(Device& d, Client* cl, const Arg& arg) {
    UrbPtr u;
    {
        std::lock_guard<std::mutex> lk(mu);
        for (auto it = d.done.begin(); it != d.done.end(); ++it) {
            if ((*it)->client == cl) {
                u = std::move(*it);
                d.done.erase(it);
                update_wakeup(d);
                break;
            }
        }
        if (!u) return fail(d.gone ? ENODEV : EAGAIN);
    }
    if (!u->in.empty()) {
        ClientMem buf = u->mem.at(offsetof(usbdevfs_urb, buffer), size_t(u->length));
        if (!buf) return fail(EFAULT);
        std::memcpy(buf.bytes() + u->in_at, u->in.data(), u->in.size());
    }
    auto* urb = reinterpret_cast<usbdevfs_urb*>(u->mem.bytes());
    urb->status = u->status;
    urb->actual_length = u->actual;
    ClientMem ptr = ClientMem::of_arg(arg, sizeof(void*));
    if (!ptr) return fail(EFAULT);
    ptr.set_ptr(0, u->mem);
    return kOk;
}

Result UsbHost::Impl::handle(Device& d, Client* cl, unsigned int req, const Arg& arg) {
    switch (req) {
    case USBDEVFS_SUBMITURB:
        return submit(d, cl, arg);
    case USBDEVFS_REAPURB:  // the blocking variant is not used by libusb; never block the handler
    case USBDEVFS_REAPURBNDELAY:
        return reap(d, cl, arg);
    case USBDEVFS_DISCARDURB: {
        const unsigned long addr = reinterpret_cast<unsigned long>(arg.raw());
        std::lock_guard<std::mutex> lk(mu);
        for (auto* list : {&d.pending_in, &d.unanswered}) {
            for (auto it = list->begin(); it != list->end(); ++it) {
                if ((*it)->client == cl && (*it)->addr == addr) {
                    (*it)->status = -ENOENT;
                    (*it)->actual = 0;
                    (*it)->in.clear();
                    d.done.push_back(std::move(*it));
                    list->erase(it);
                    update_wakeup(d);
                    return kOk;
                }
            }
        }
        return fail(EINVAL);  // already completed: libusb will reap it
    }
    case USBDEVFS_GET_CAPABILITIES: {
        ClientMem p = ClientMem::of_arg(arg, sizeof(uint32_t));
        if (!p) return fail(EFAULT);
        uint32_t caps = kCaps;
        std::memcpy(p.bytes(), &caps, sizeof caps);
        return kOk;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE:
    case USBDEVFS_DISCONNECT_CLAIM: {
        unsigned int ifnum;
        if (!read_arg(arg, &ifnum)) return fail(EFAULT);
        if (ifnum != 0) return fail(req == USBDEVFS_RELEASEINTERFACE ? EINVAL : ENOENT);
        std::lock_guard<std::mutex> lk(mu);
        if (req == USBDEVFS_RELEASEINTERFACE) {
            if (!cl->claimed0) return fail(EINVAL);
            cl->claimed0 = false;
            return kOk;
        }
        for (auto& [obj, other] : d.clients)
            if (other.get() != cl && other->claimed0) return fail(EBUSY);
        cl->claimed0 = true;
        return kOk;
    }
    case USBDEVFS_RESET: {
        {
            std::lock_guard<std::mutex> lk(mu);
            d.in_q.clear();
            d.in_head_off = 0;
            d.in_bytes = 0;
            d.config = kConfigValue;
        }
        model_call("reset", [&] { d.fn->reset(); });
        return kOk;
    }
    case USBDEVFS_SETINTERFACE: {
        usbdevfs_setinterface si;
        if (!read_arg(arg, &si)) return fail(EFAULT);
        if (si.interface != 0) return fail(EINVAL);
        return si.altsetting == 0 ? kOk : fail(EINVAL);
    }
    case USBDEVFS_SETCONFIGURATION: {
        int cfg;
        if (!read_arg(arg, &cfg)) return fail(EFAULT);
        if (cfg != -1 && cfg != 0 && cfg != kConfigValue) return fail(EINVAL);
        std::lock_guard<std::mutex> lk(mu);
        d.config = uint8_t(cfg < 0 ? 0 : cfg);
        return kOk;
    }
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP: {
        unsigned int ep;
        if (!read_arg(arg, &ep)) return fail(EFAULT);
        return (ep <= 0xff && is_known_ep(uint8_t(ep))) ? kOk : fail(ENOENT);
    }
    case USBDEVFS_GET_SPEED:
        return {d.id.high_speed ? USB_SPEED_HIGH : USB_SPEED_FULL, 0};
    case USBDEVFS_CONNECTINFO: {
        ClientMem p = ClientMem::of_arg(arg, sizeof(usbdevfs_connectinfo));
        if (!p) return fail(EFAULT);
        usbdevfs_connectinfo ci{};
        ci.devnum = unsigned(d.address);
        ci.slow = 0;
        std::memcpy(p.bytes(), &ci, sizeof ci);
        return kOk;
    }
    case USBDEVFS_CONTROL: {
        // Synchronous control transfer; libusb uses it only without sysfs, but
        // other tools do.
        ClientMem p = ClientMem::of_arg(arg, sizeof(usbdevfs_ctrltransfer));
        if (!p) return fail(EFAULT);
        usbdevfs_ctrltransfer ct;
        std::memcpy(&ct, p.bytes(), sizeof ct);
        ControlSetup s{ct.bRequestType, ct.bRequest, ct.wValue, ct.wIndex, ct.wLength};
        std::vector<uint8_t> payload(s.wLength);
        ClientMem buf;
        if (s.wLength) {
            buf = p.at(offsetof(usbdevfs_ctrltransfer, data), s.wLength);
            if (!buf) return fail(EFAULT);
            std::memcpy(payload.data(), buf.bytes(), s.wLength);
        }
        int r = control(d, s, payload.data());
        if (r > 0 && (s.bmRequestType & USB_DIR_IN)) std::memcpy(buf.bytes(), payload.data(), size_t(r));
        if (r == -EINPROGRESS) return fail(ETIMEDOUT);  // what the kernel reports after waiting
        return r < 0 ? fail(-r) : Result{r, 0};
    }
    case USBDEVFS_GETDRIVER:
        return fail(ENODATA);  // no kernel driver bound
    default:
        return fail(ENOTTY);
    }
}

// ---------------------------------------------------------------------------
// The in-thread path (fast_ioctl): ioctls answered in the program's thread (see the ioctl in
// umockdev_guards.cpp), with the client's memory reached directly. A descriptor is
// ours when it is one of our FIFO nodes, which fstat() tells once; close() ends it.

namespace {

UsbHost::Impl* g_fast_host = nullptr;
// Deferred work of the ioctl this thread is answering on the in-thread path: run
// once the ioctl's answer is settled and the callback lock is released.
thread_local std::vector<std::function<void()>>* t_deferred = nullptr;
void (*g_watch_close)(int) = nullptr;

// A descriptor's key in Device::clients: odd, so never a umockdev client object.
const void* fast_client_key(int fd) { return reinterpret_cast<const void*>(uintptr_t(unsigned(fd)) * 2 + 1); }

void run_deferred(std::function<void()>& fn) {
    try {
        fn();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "polybus_sim: deferred function threw: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "polybus_sim: deferred function threw\n");
    }
}

int fast_ioctl(int fd, unsigned long request, void* arg, int* result) {
    return g_fast_host->fast(fd, request, arg, result) ? 1 : 0;
}

void fast_close_hook(int fd) { g_fast_host->fast_closed(fd); }

// Per thread: how long it has spent answering its own ioctls (answering_seconds).
// The registry is never destroyed: threads of the program may end after exit() has
// run the static destructors.
struct AnswerClock;
struct AnswerClocks {
    std::mutex mu;
    std::map<int, AnswerClock*> by_tid;
};
AnswerClocks& answer_clocks() {
    static auto* clocks = new AnswerClocks;
    return *clocks;
}
struct AnswerClock {
    int tid = int(syscall(SYS_gettid));
    std::atomic<uint64_t> ns{0};
    AnswerClock() {
        std::lock_guard<std::mutex> g(answer_clocks().mu);
        answer_clocks().by_tid[tid] = this;
    }
    ~AnswerClock() {
        std::lock_guard<std::mutex> g(answer_clocks().mu);
        answer_clocks().by_tid.erase(tid);
    }
};
thread_local AnswerClock t_answer_clock;

}  // namespace

bool UsbHost::Impl::fast_device(int fd, DevicePtr& d, Client*& cl, bool& gone) {
    {
        std::lock_guard<std::mutex> lk(mu);
        auto it = fast_fds.find(fd);
        if (it != fast_fds.end()) {
            d = it->second.dev;
            cl = client_record(*d, fast_client_key(fd));
            gone = d->gone;
            return true;
        }
        if (nodes.empty()) return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) return false;
    std::lock_guard<std::mutex> lk(mu);
    auto n = nodes.find({st.st_dev, st.st_ino});
    if (n == nodes.end() || !(d = n->second.lock())) return false;
    fast_fds[fd] = FastFd{d, st.st_dev, st.st_ino};
    fast_fd_count.fetch_add(1, std::memory_order_relaxed);
    if (g_watch_close) g_watch_close(fd);
    cl = client_record(*d, fast_client_key(fd));
    gone = d->gone;
    return true;
}

bool UsbHost::Impl::fast(int fd, unsigned long request, void* arg, int* result) {
    DevicePtr d;
    Client* cl = nullptr;
    bool gone = false;
    std::vector<std::function<void()>> deferred;
    Result r;
    // Wall time, a vDSO read: a thread CPU clock is a system call each, and the
    // answer does not block (but for the callback lock).
    const auto started = std::chrono::steady_clock::now();
    {
        // Taken before the descriptor is looked up: a close from another thread
        // (see fast_closed) must not take the client away halfway.
        std::lock_guard<std::mutex> cb(callback_mu);
        if (!fast_device(fd, d, cl, gone)) return false;
        ioctls.fetch_add(1, std::memory_order_relaxed);
        const auto req = static_cast<unsigned int>(request);
        t_deferred = &deferred;
        if (gone && req != USBDEVFS_REAPURBNDELAY && req != USBDEVFS_REAPURB)
            r = fail(ENODEV);
        else
            r = handle(*d, cl, req, Arg{nullptr, arg});
        t_deferred = nullptr;
    }
    for (auto& fn : deferred) run_deferred(fn);
    t_answer_clock.ns.fetch_add(
        uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - started).count()),
        std::memory_order_relaxed);
    if (r.res < 0) {
        *result = -1;
        errno = r.err;
    } else {
        *result = int(r.res);
    }
    return true;
}

void UsbHost::Impl::fast_closed(int fd) {
    if (fast_fd_count.load(std::memory_order_relaxed) == 0) return;
    {
        std::lock_guard<std::mutex> lk(mu);
        if (!fast_fds.count(fd)) return;
    }
    // Released after the locks: the last reference to an unplugged device closes
    // its FIFO, and that close comes back through here.
    DevicePtr last;
    // A program that closes a descriptor while another of its threads is still in a
    // request on it: that request is answered first.
    std::lock_guard<std::mutex> cb(callback_mu);
    std::lock_guard<std::mutex> lk(mu);
    auto it = fast_fds.find(fd);
    if (it == fast_fds.end()) return;
    last = std::move(it->second.dev);
    drop_client(*last, fast_client_key(fd));
    fast_fds.erase(it);
    fast_fd_count.fetch_sub(1, std::memory_order_relaxed);
}

void UsbHost::Impl::run_later(std::function<void()> fn) {
    std::lock_guard<std::mutex> lk(later_mu);
    later.push_back(std::move(fn));
    later_cv.notify_one();
    if (later_thread) return;
    later_thread = true;
    std::thread([this] {
        block_all_signals_in_this_thread();
        std::unique_lock<std::mutex> lk(later_mu);
        for (;;) {
            later_cv.wait(lk, [this] { return !later.empty(); });
            std::function<void()> next = std::move(later.front());
            later.pop_front();
            lk.unlock();
            run_deferred(next);
            lk.lock();
        }
    }).detach();
}

UsbHost::UsbHost() : impl_(std::make_unique<Impl>()) {
    if (!preload_loaded())
        throw std::runtime_error("polybus_sim: not running under libumockdev-preload; call ensure_preloaded() first in main()");
    g_direct_access = !kTsan && !std::getenv("POLYBUS_SIM_IOCTL_COPY");
    Impl& I = *impl_;
    if (g_direct_access && !std::getenv("POLYBUS_SIM_IOCTL_FORWARD")) {
        // The program's (or the launcher preload's) copies, which are the ones its
        // libusb calls reach; this library's own would never see an ioctl.
        auto set_hooks = reinterpret_cast<void (*)(polybus_sim_ioctl_hook, polybus_sim_close_hook)>(
            dlsym(RTLD_DEFAULT, "polybus_sim_set_ioctl_hooks"));
        g_watch_close = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "polybus_sim_watch_close"));
        if (set_hooks && g_watch_close) {
            g_fast_host = &I;
            set_hooks(fast_ioctl, fast_close_hook);
        }
    }
    I.testbed = umockdev_testbed_new();
    gchar* root = umockdev_testbed_get_root_dir(I.testbed);
    I.root_dir = root ? root : "";
    g_free(root);
    mkdir((I.root_dir + "/attic").c_str(), 0755);
    install_fork_guard();
}

UsbHost::~UsbHost() = default;

UsbHost& UsbHost::instance() {
    // Never destroyed: libusb handles and umockdev's worker may outlive static
    // destruction. The testbed directory goes away through the atexit hook below.
    static UsbHost* host = [] {
        auto* h = new UsbHost();
        std::atexit([] {
            // Only the files: unreffing the testbed would stop a worker that late
            // libusb calls could still be waiting on.
            const Impl& I = *UsbHost::instance().impl_;
            std::error_code ec;
            if (!I.root_dir.empty()) std::filesystem::remove_all(I.root_dir, ec);
        });
        return h;
    }();
    return *host;
}

int UsbHost::plug(std::shared_ptr<UsbFunction> fn, const UsbIdentity& id, int bus, int address) {
    if (!fn) throw std::invalid_argument("plug: null UsbFunction");
    if (bus < 1 || bus > 255) throw std::invalid_argument("plug: bus must be 1..255");
    if (address != -1 && (address < 1 || address > 127)) throw std::invalid_argument("plug: address must be 1..127");
    Impl& I = *impl_;
    auto d = std::make_shared<Device>();
    d->host = &I;
    d->fn = std::move(fn);
    d->id = id;
    d->bus = bus;
    build_descriptors(*d);
    unsigned serial;
    {
        std::lock_guard<std::mutex> lk(I.mu);
        auto& used = I.used[bus];
        if (address == -1) {
            int& next = I.next_address.emplace(bus, 2).first->second;
            for (int i = 0; i < 126; ++i) {
                int cand = (next - 2 + i) % 126 + 2;  // 2..127; 1 is the root hub's
                if (!used.count(cand)) {
                    address = cand;
                    break;
                }
            }
            if (address == -1) throw std::invalid_argument("plug: no free address on bus");
            next = address % 127 + 1;
            if (next < 2) next = 2;
        } else if (used.count(address)) {
            throw std::invalid_argument("plug: address in use");
        }
        d->address = address;
        d->port = I.next_port++;
        used[address] = d->port;
        serial = ++I.plug_serial;
    }

    char node[64], name[32];
    std::snprintf(node, sizeof node, "bus/usb/%03d/%03d", bus, address);
    // A unique sysfs name per plug: umockdev keeps some class/bus links after a
    // removal, and a replug must not collide with them.
    std::snprintf(name, sizeof name, "%d-%u", bus, serial);
    d->devnode = std::string("/dev/") + node;
    std::string devpath = std::string("/devices/polybus/usb") + std::to_string(bus) + "/" + name;
    d->syspath = "/sys" + devpath;

    char ids[96];
    std::snprintf(ids, sizeof ids, "E: PRODUCT=%x/%x/%x\nA: idVendor=%04x\\n\nA: idProduct=%04x\\n\n", id.vendor,
                  id.product, id.bcd_device, id.vendor, id.product);
    std::string rec = "P: " + devpath + "\nN: " + node + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n" +
                      "E: BUSNUM=" + std::string(node + 8, 3) + "\nE: DEVNUM=" + std::string(node + 12, 3) +
                      "\nE: DEVNAME=" + d->devnode + "\n" + ids + "A: busnum=" + std::to_string(bus) +
                      "\\n\nA: devnum=" + std::to_string(address) + "\\n\nA: speed=" +
                      (id.high_speed ? "480" : "12") + "\\n\nA: bConfigurationValue=1\\n\nA: bNumInterfaces= 1\\n\n" +
                      "A: maxchild=0\\n\n";
    if (!id.manufacturer.empty()) rec += "A: manufacturer=" + attr_text(id.manufacturer) + "\\n\n";
    if (!id.product_name.empty()) rec += "A: product=" + attr_text(id.product_name) + "\\n\n";
    if (!id.serial.empty()) rec += "A: serial=" + attr_text(id.serial) + "\\n\n";
    std::vector<uint8_t> blob = d->dev_desc;
    blob.insert(blob.end(), d->cfg_desc.begin(), d->cfg_desc.end());
    rec += "H: descriptors=" + hex(blob) + "\n";

    {
        std::lock_guard<std::mutex> lk(I.tb_mu);
        // The handler owns the device state: old clients keep talking to it (and
        // get ENODEV) after an unplug, even when the port id is long gone.
        UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
        g_object_set_data_full(G_OBJECT(handler), "polybus-device", new DevicePtr(d),
                               [](gpointer p) { delete static_cast<DevicePtr*>(p); });
        g_signal_connect(handler, "handle-ioctl", G_CALLBACK(Impl::on_ioctl), d.get());
        GError* err = nullptr;
        // Attach first: an open right after the uevent must reach our handler.
        bool ok = umockdev_testbed_attach_ioctl(I.testbed, d->devnode.c_str(), handler, &err);
        g_object_unref(handler);  // the testbed and its clients hold it now
        if (ok) ok = umockdev_testbed_add_from_string(I.testbed, rec.c_str(), &err);
        if (ok) make_wakeup_fifo(*d, I.root_dir + d->devnode);
        if (!ok) {
            std::string msg = std::string("plug: umockdev: ") + (err ? err->message : "failed");
            if (err) g_error_free(err);
            std::lock_guard<std::mutex> lk2(I.mu);
            I.used[bus].erase(address);
            throw std::runtime_error(msg);
        }
        umockdev_testbed_uevent(I.testbed, d->syspath.c_str(), "add");
    }
    struct stat fifo_stat;
    const bool fifo = d->wake_fd >= 0 && fstat(d->wake_fd, &fifo_stat) == 0;
    std::lock_guard<std::mutex> lk(I.mu);
    I.ports[d->port] = d;
    if (fifo) {
        for (auto it = I.nodes.begin(); it != I.nodes.end();) it = it->second.expired() ? I.nodes.erase(it) : ++it;
        I.nodes[{fifo_stat.st_dev, fifo_stat.st_ino}] = d;
    }
    return d->port;
}

void UsbHost::unplug(int port) {
    Impl& I = *impl_;
    DevicePtr d;
    {
        std::lock_guard<std::mutex> lk(I.mu);
        auto it = I.ports.find(port);
        if (it == I.ports.end()) return;
        d = it->second;
        I.ports.erase(it);
        d->gone = true;
        for (auto* list : {&d->pending_in, &d->unanswered}) {
            for (UrbPtr& u : *list) {
                u->status = -ESHUTDOWN;
                u->actual = 0;
                d->done.push_back(std::move(u));
            }
            list->clear();
        }
        update_wakeup(*d);
        d->in_q.clear();
        d->in_head_off = 0;
        d->in_bytes = 0;
    }
    {
        std::lock_guard<std::mutex> lk(I.tb_mu);
        // umockdev 0.17 sends no uevent on removal, and the event needs the sysfs
        // entry to still exist, so this order matters.
        umockdev_testbed_uevent(I.testbed, d->syspath.c_str(), "remove");
        I.retire(*d);
        GError* err = nullptr;
        if (!umockdev_testbed_detach_ioctl(I.testbed, d->devnode.c_str(), &err) && err) g_error_free(err);
    }
    std::lock_guard<std::mutex> lk(I.mu);
    auto& used = I.used[d->bus];
    auto u = used.find(d->address);
    if (u != used.end() && u->second == port) used.erase(u);
}

int UsbHost::replug(int port, int new_address) {
    std::shared_ptr<UsbFunction> fn;
    UsbIdentity id;
    int bus, address;
    {
        std::lock_guard<std::mutex> lk(impl_->mu);
        auto it = impl_->ports.find(port);
        if (it == impl_->ports.end()) throw std::invalid_argument("replug: unknown port");
        fn = it->second->fn;
        id = it->second->id;
        bus = it->second->bus;
        address = it->second->address;
    }
    unplug(port);
    return plug(std::move(fn), id, bus, new_address == -1 ? address : new_address);
}

void UsbHost::queue_in(int port, std::vector<std::vector<uint8_t>> transfers) {
    std::lock_guard<std::mutex> lk(impl_->mu);
    auto it = impl_->ports.find(port);
    if (it == impl_->ports.end()) return;
    Device& d = *it->second;
    for (auto& t : transfers) {
        d.in_bytes += long(t.size());
        d.in_q.push_back(std::move(t));
    }
    Impl::match_in(d);
}

void UsbHost::flush_in(int port) {
    std::lock_guard<std::mutex> lk(impl_->mu);
    auto it = impl_->ports.find(port);
    if (it == impl_->ports.end()) return;
    it->second->in_q.clear();
    it->second->in_head_off = 0;
    it->second->in_bytes = 0;
}

long UsbHost::queued_in_bytes(int port) const {
    std::lock_guard<std::mutex> lk(impl_->mu);
    auto it = impl_->ports.find(port);
    return it == impl_->ports.end() ? -1 : it->second->in_bytes;
}

int UsbHost::bus_of(int port) const {
    std::lock_guard<std::mutex> lk(impl_->mu);
    auto it = impl_->ports.find(port);
    return it == impl_->ports.end() ? -1 : it->second->bus;
}

int UsbHost::address_of(int port) const {
    std::lock_guard<std::mutex> lk(impl_->mu);
    auto it = impl_->ports.find(port);
    return it == impl_->ports.end() ? -1 : it->second->address;
}

void UsbHost::defer(std::function<void()> fn) {
    if (t_deferred) {  // answering an ioctl in this thread
        t_deferred->push_back(std::move(fn));
        return;
    }
    GMainContext* ctx = impl_->worker_ctx.load(std::memory_order_acquire);
    if (!ctx) {
        if (g_fast_host) {
            impl_->run_later(std::move(fn));
            return;
        }
        fn();
        return;
    }
    GSource* s = g_idle_source_new();
    // Default priority, not idle: spinning libusb event loops keep the handler's
    // sockets busy and would starve an idle-priority source.
    g_source_set_priority(s, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        s,
        [](gpointer p) -> gboolean {
            run_deferred(*static_cast<std::function<void()>*>(p));
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(fn)), [](gpointer p) { delete static_cast<std::function<void()>*>(p); });
    g_source_attach(s, ctx);
    g_source_unref(s);
}

uint64_t UsbHost::ioctl_count() const { return impl_->ioctls.load(std::memory_order_relaxed); }

double UsbHost::answering_seconds(int tid) const {
    AnswerClocks& clocks = answer_clocks();
    std::lock_guard<std::mutex> g(clocks.mu);
    auto it = clocks.by_tid.find(tid);
    return it == clocks.by_tid.end() ? 0.0 : double(it->second->ns.load(std::memory_order_relaxed)) * 1e-9;
}

// ---------------------------------------------------------------------------
// Process setup

namespace {

// The sanitizer runtime this binary loaded (empty when linked statically): it
// must come before the umockdev preload, which would otherwise be initialised first.
std::string loaded_sanitizer_runtime() {
    if (!*kSanitizerRuntime) return {};
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* out) -> int {
            const char* name = info->dlpi_name;
            if (name && std::strstr(name, kSanitizerRuntime)) {
                *static_cast<std::string*>(out) = name;
                return 1;
            }
            return 0;
        },
        &found);
    return found;
}

bool want_tsan_suppressions() {
#if defined(POLYBUS_SIM_TSAN_SUPP)
    if (!kTsan) return false;
    const char* opts = std::getenv("TSAN_OPTIONS");
    return !opts || !std::strstr(opts, "suppressions=");
#else
    return false;
#endif
}

}  // namespace

void request_short_slices() {
    struct {  // struct sched_attr, which older C libraries do not declare
        uint32_t size, sched_policy;
        uint64_t sched_flags;
        int32_t sched_nice;
        uint32_t sched_priority;
        uint64_t sched_runtime, sched_deadline, sched_period;
    } attr{};
    attr.size = sizeof attr;
    attr.sched_policy = SCHED_OTHER;
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, 0);  // this thread's; lowering it would need privilege
    if (errno != 0) return;
    attr.sched_nice = nice;
    // With a slice this short the thread's deadline on waking comes before that of a
    // thread that has been running, so the scheduler switches to it at once.
    attr.sched_runtime = 100000;  // ns, the shortest slice granted
    const int saved = errno;
    syscall(SYS_sched_setattr, 0, &attr, 0);
    errno = saved;
}

void ensure_preloaded(int argc, char** argv) {
    (void)argc;
    const char* lp = std::getenv("LD_PRELOAD");
    bool preloaded = lp && std::strstr(lp, "libumockdev-preload.so");
    bool fix_tsan = want_tsan_suppressions();
    if (!preloaded || fix_tsan) {
        if (std::getenv("POLYBUS_SIM_REEXECED")) {
            if (!preloaded) {
                std::fprintf(stderr, "polybus_sim: re-executed but libumockdev-preload.so.0 is still not preloaded\n");
                std::abort();
            }
        } else {
            if (!preloaded) {
                std::string list;
                std::string rt = loaded_sanitizer_runtime();
                if (!rt.empty()) list = rt + ":";
                list += "libumockdev-preload.so.0";
                if (lp && *lp) list += std::string(":") + lp;
                setenv("LD_PRELOAD", list.c_str(), 1);
            }
#if defined(POLYBUS_SIM_TSAN_SUPP)
            if (fix_tsan) {
                const char* opts = std::getenv("TSAN_OPTIONS");
                std::string o = std::string("suppressions=") + POLYBUS_SIM_TSAN_SUPP;
                if (opts && *opts) o += std::string(" ") + opts;
                setenv("TSAN_OPTIONS", o.c_str(), 1);
            }
#endif
            setenv("POLYBUS_SIM_REEXECED", "1", 1);
            execv("/proc/self/exe", argv);
            std::perror("polybus_sim: execv /proc/self/exe");
            std::abort();
        }
    }
    // The preload calls usleep(0) after every forwarded ioctl; with the default
    // 50 us timer slack each of those costs far more than the ioctl itself.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    // Every ioctl is two thread hand-offs; on our virtual machines a wake-up on the
    // other CPU costs more than the work. Opt-in, because several test processes
    // pinned to the same CPU would slow each other down far more.
    if (const char* pin = std::getenv("POLYBUS_SIM_PIN_CPU")) {
        int cpu = std::strcmp(pin, "auto") == 0 ? sched_getcpu() : std::atoi(pin);
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
        if (cpu >= 0 && sched_setaffinity(0, sizeof set, &set) != 0)
            std::fprintf(stderr, "polybus_sim: cannot pin to CPU %d\n", cpu);
    }
    // umockdev 0.17 sets UMOCKDEV_DIR after starting its worker thread: create the
    // testbed while this is still the only thread.
    UsbHost::instance();
}

}  // namespace polybus_sim
