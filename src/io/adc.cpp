#include "polybus/adc.h"

#include <libusb.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>

#include "io/data_cache_list.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "transport/usb_device.h"
#include "wire/analog.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

constexpr unsigned kStreamEndpoint = 0x81;  // frames share the answer endpoint
constexpr unsigned kWaitMs = 2000;          // one round of the reader's event handling
constexpr int kDrainRounds = 10;            // rounds of 10 ms before and after the cancel
constexpr int kCancelRounds = 200;          // at most 2 s more for a cancel to complete

struct ListLock {
    ListLock() { lock_all(); }
    ~ListLock() { unlock_all(); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;
};

struct Reader;

// What the library keeps per adapter for the ADC.
struct AdcState {
    std::atomic<uint8_t> channel{0};
    std::atomic<uint32_t> rate{0};
    std::atomic<uint32_t> frame_size{0};
    std::atomic<uint8_t> exit_flag{1};    // 1 asks the reader to stop
    std::atomic<uint8_t> exited_flag{1};  // 1 once the reader has finished (or could not start)
    std::atomic<ADC_GET_DATA_HANDLE> callback{nullptr};
    std::atomic<libusb_context*> context{nullptr};  // of the running reader, to wake it

    std::mutex life;     // start, stop and wait: who owns the reader thread
    std::thread reader;

    std::mutex data;     // the frame list, between the reader and ADC_GetData
    data_cache_list frames;

    ~AdcState() {
        exit_flag = 1;
        wake();
        if (reader.joinable()) reader.join();
    }
    void wake() {
        if (libusb_context* c = context.load()) libusb_interrupt_event_handler(c);
    }
    void keep(const unsigned char* bytes, uint32_t len, uint32_t frame_bytes) {
        cache_list* node = cache_list::make(bytes, len, frame_bytes);
        if (node == nullptr) return;  // out of memory: the frame is dropped
        std::lock_guard<std::mutex> g(data);
        frames.add(node);
    }
    // Takes the thread out of the state, so that it is joined without holding `life`.
    std::thread take_reader() {
        std::lock_guard<std::mutex> g(life);
        return std::move(reader);
    }
};

PerDevice<AdcState> g_adc;

// One stream's transfer and frame buffer, shared by the reader thread and the
// completion function (which may run on any thread handling the context's events).
struct Reader {
    AdcState* state;
    int handle;
    uint32_t frame_bytes;
    unsigned char* buffer;
    std::atomic<bool> in_flight{false};
    std::atomic<uint64_t> completions{0};
};

// True when libusb reports the adapter gone. A stalled stream probes with this: a
// transfer submitted just as the adapter vanished may never be given back.
bool device_gone(libusb_device_handle* usb) {
    int config = 0;
    return libusb_get_configuration(usb, &config) == LIBUSB_ERROR_NO_DEVICE;
}

void LIBUSB_CALL frame_done(libusb_transfer* t) {
    auto* r = static_cast<Reader*>(t->user_data);
    AdcState& s = *r->state;
    ++r->completions;
    switch (t->status) {
        case LIBUSB_TRANSFER_COMPLETED: {
            const uint32_t got = static_cast<uint32_t>(std::max(t->actual_length, 0));
            if (ADC_GET_DATA_HANDLE cb = s.callback.load()) {
                cb(r->handle, reinterpret_cast<short*>(t->buffer), static_cast<int>(got / 2));
            } else {
                s.keep(t->buffer, got, r->frame_bytes);
            }
            if (s.exit_flag.load() == 0) {
                const int rc = libusb_submit_transfer(t);
                if (rc == 0) return;  // still in flight
                if (rc == LIBUSB_ERROR_NO_DEVICE) {
                    s.exit_flag = 1;
                    s.exited_flag = 1;
                }
            }
            break;
        }
        case LIBUSB_TRANSFER_NO_DEVICE:
            s.exit_flag = 1;
            s.exited_flag = 1;
            break;
        default:
            // Error, stall, overflow, cancel: streaming ends here; the thread waits for
            // the stop.
            break;
    }
    r->in_flight = false;  // last touch: the reader may free everything from now on
}

// The reader sleeps until a frame arrives and should hand it on at once. On a busy
// machine a thread that wakes with the default slice may wait milliseconds for a
// running thread's slice to end; asking for the shortest slice (Linux 6.12 on, no
// privilege needed) lets it go first. Older kernels refuse, and nothing changes.
void ask_for_short_slices() {
    struct {  // struct sched_attr, which older C libraries do not declare
        uint32_t size, sched_policy;
        uint64_t sched_flags;
        int32_t sched_nice;
        uint32_t sched_priority;
        uint64_t sched_runtime, sched_deadline, sched_period;
    } attr{};
    const int saved = errno;
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, 0);  // keep the caller's niceness
    if (errno == 0) {
        attr.size = sizeof attr;
        attr.sched_policy = SCHED_OTHER;
        attr.sched_nice = nice;
        attr.sched_runtime = 100000;  // ns
        syscall(SYS_sched_setattr, 0, &attr, 0);
    }
    errno = saved;  // the caller's errno is not ours to change
}

void reader_main(AdcState* s, int handle, uint32_t frame_size) {
    pthread_setname_np(pthread_self(), "polybus-adc");  // findable in top, gdb and /proc
    ask_for_short_slices();
    libusb_context* ctx = nullptr;
    libusb_device_handle* usb = nullptr;
    {
        ListLock g;
        ctx = usb_context();
        if (UsbDevNode* node = usb_list_post(static_cast<uint32_t>(handle))) usb = node->handle;
    }
    auto* r = new (std::nothrow) Reader{s, handle, frame_size * 2, nullptr};
    libusb_transfer* t = nullptr;
    if (r != nullptr) r->buffer = new (std::nothrow) unsigned char[r->frame_bytes];
    if (usb != nullptr && ctx != nullptr && r != nullptr && r->buffer != nullptr) t = libusb_alloc_transfer(0);
    if (t != nullptr) {
        libusb_fill_bulk_transfer(t, usb, kStreamEndpoint, r->buffer, static_cast<int>(r->frame_bytes), frame_done, r,
                                  0);
        r->in_flight = true;
        if (libusb_submit_transfer(t) != 0) r->in_flight = false;
    }
    if (t == nullptr || !r->in_flight.load()) {
        if (t != nullptr) libusb_free_transfer(t);
        if (r != nullptr) delete[] r->buffer;
        delete r;
        s->exit_flag = 1;
        s->exited_flag = 1;
        return;
    }
    s->context = ctx;

    timeval wait{kWaitMs / 1000, 0};
    timeval idle{0, 100000};
    while (s->exit_flag.load() == 0) {
        const uint64_t before = r->completions.load();
        libusb_handle_events_timeout(ctx, r->in_flight.load() ? &wait : &idle);
        // Nothing came in a whole round, or the stream ended on an error: the reader
        // waits for the stop, but an unplug must still end it.
        if (s->exit_flag.load() == 0 && r->completions.load() == before && device_gone(usb)) {
            s->exit_flag = 1;
            s->exited_flag = 1;
        }
    }

    // Let frames already on their way complete, then cancel the transfer and wait until
    // libusb has given it back: it is never freed while in flight.
    timeval round{0, 10000};
    for (int i = 0; i < kDrainRounds && r->in_flight.load(); ++i) libusb_handle_events_timeout(ctx, &round);
    // A cancel that libusb refuses (the adapter is gone) gets the short wait only.
    const bool cancelled = r->in_flight.load() && libusb_cancel_transfer(t) == 0;
    const int rounds = kDrainRounds + (cancelled ? kCancelRounds : 0);
    for (int i = 0; i < rounds && r->in_flight.load(); ++i) libusb_handle_events_timeout(ctx, &round);
    s->context = nullptr;
    if (!r->in_flight.load()) {
        libusb_free_transfer(t);
        delete[] r->buffer;
        delete r;
    }  // else libusb still owns it: leaking it is the only safe choice
    s->exited_flag = 1;
}

int bits(uint32_t v) { return __builtin_popcount(v); }

// (DataNum x 1000 - 1000) / rate + 1000 in signed 32 bits; the time to take the
// samples after the first, plus a second.
int read_timeout_ms(unsigned count, uint32_t rate) {
    if (count < 2) return 100;
    const int32_t num = static_cast<int32_t>(count * 1000u - 1000u);
    const int32_t den = static_cast<int32_t>(rate);
    if (den == 0) return 1000;
    const int64_t ms = static_cast<int64_t>(num) / den + 1000;
    const int32_t wrapped = static_cast<int32_t>(static_cast<uint32_t>(ms));
    return wrapped < 1 ? 1 : wrapped;
}

}  // namespace

extern "C" {

POLYBUS_API int ADC_Init(int dev, unsigned char channel, unsigned int rate) {
    if (AdcState* s = g_adc.find(dev)) {
        s->channel = channel;
        s->rate = rate;
    }
    Command request(ADC_INIT);
    request.u8(channel).be32(rate);
    return acknowledged(dev, request);
}

POLYBUS_API int ADC_Read(int dev, short* pData, unsigned int count) {
    AdcState* s = g_adc.find(dev);
    const uint8_t mask = s != nullptr ? s->channel.load() : 0;
    const uint32_t rate = s != nullptr ? s->rate.load() : 0;
    // The length check widens the mask as a signed byte (bit 7 set counts 24 more bits).
    const uint32_t signed_mask = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(mask)));
    const uint32_t expected = count * 2u * static_cast<uint32_t>(bits(signed_mask));
    // What the caller's buffer holds: the inputs really selected.
    const size_t room = pData != nullptr ? size_t{count} * 2u * static_cast<size_t>(bits(mask)) : 0;
    Command request(ADC_READ);
    request.be32(count);
    Answer answer(pData, room);
    const int rc = transact(dev, request, answer, {1000, read_timeout_ms(count, rate)});
    if (rc != kOk) return rc;
    return expect_exactly(answer, expected);
}

POLYBUS_API int ADC_StartContinueRead(int dev, unsigned char channel, unsigned int rate, int frame_size,
                                      ADC_GET_DATA_HANDLE pCallback) {
    AdcState* s = g_adc.find(dev);
    if (s == nullptr || frame_size < 1) return kRefused;
    std::thread stale;
    std::lock_guard<std::mutex> g(s->life);
    if (s->exited_flag.load() == 0) return kRefused;  // a reader is still running
    stale = std::move(s->reader);
    if (stale.joinable()) stale.join();  // ended on its own (unplug, failed submit)

    const uint32_t size = static_cast<uint32_t>(std::min(frame_size, ADC_MAX_FRAME_SIZE));
    s->channel = channel;
    s->rate = rate;
    s->frame_size = size;
    Command request(ADC_START_CONTINUE);
    request.u8(channel).be32(rate).be32(size);
    const int rc = acknowledged(dev, request);
    if (rc != kOk) return rc;

    s->exit_flag = 0;
    s->exited_flag = 0;
    s->callback = pCallback;
    try {
        s->reader = std::thread(reader_main, s, dev, size);
    } catch (...) {
        s->exit_flag = 1;
        s->exited_flag = 1;
        return kBadAnswer;
    }
    return kOk;
}

POLYBUS_API int ADC_StopContinueRead(int dev) {
    AdcState* s = g_adc.find(dev);
    if (s == nullptr) return kOk;
    if (s->exit_flag.load() != 0) {
        std::thread done = s->take_reader();  // may have ended on its own
        if (done.get_id() == std::this_thread::get_id()) {
            std::lock_guard<std::mutex> g(s->life);
            s->reader = std::move(done);
        } else if (done.joinable()) {
            done.join();
        }
        return kOk;
    }
    {
        DeviceLock g(dev);
        vendor_request(dev, kAdcStopRequestType, kAdcStopRequest, 0, 0, nullptr, 0, 1000);
        s->exit_flag = 1;
    }
    s->callback = nullptr;
    s->wake();
    std::thread reader = s->take_reader();
    if (reader.get_id() == std::this_thread::get_id()) {
        // Stopped from the frame callback: the reader ends after it returns, and is
        // joined by the next start, stop or wait.
        std::lock_guard<std::mutex> g(s->life);
        s->reader = std::move(reader);
    } else if (reader.joinable()) {
        reader.join();
    }
    return kOk;
}

POLYBUS_API int ADC_WaitForThreadExit(int dev) {
    AdcState* s = g_adc.find(dev);
    if (s == nullptr) return kRefused;
    const bool running = s->exited_flag.load() == 0;
    std::thread reader = s->take_reader();
    if (!reader.joinable()) return kRefused;
    if (reader.get_id() == std::this_thread::get_id()) {  // from the frame callback
        std::lock_guard<std::mutex> g(s->life);
        s->reader = std::move(reader);
        return kRefused;
    }
    if (running) s->callback = nullptr;
    reader.join();
    return running ? kOk : kRefused;
}

POLYBUS_API int ADC_GetData(int dev, short* pData, int BufferSize) {
    AdcState* s = g_adc.find(dev);
    if (s == nullptr || pData == nullptr) return 0;
    const uint32_t frame = s->frame_size.load();
    if (frame == 0 || BufferSize < 0 || static_cast<uint32_t>(BufferSize) < frame) return 0;
    const size_t frame_bytes = size_t{frame} * 2;
    auto* out = reinterpret_cast<unsigned char*>(pData);
    size_t copied = 0, room = static_cast<size_t>(BufferSize);
    while (room >= frame) {
        cache_list* node;
        {
            std::lock_guard<std::mutex> g(s->data);
            node = s->frames.post();
        }
        if (node == nullptr) break;
        const size_t have = std::min<size_t>(node->len, frame_bytes);
        std::memcpy(out + copied * 2, node->data, have);
        std::memset(out + copied * 2 + have, 0, frame_bytes - have);
        cache_list::destroy(node);
        copied += frame;
        room -= frame;
    }
    return static_cast<int>(copied);
}

}  // extern "C"
