// Receive side shared by CAN and CAN FD: per (adapter, channel) an application buffer
// and a UDS buffer, the reception flags, and one reader thread per adapter that fetches
// every 10 ms for each channel whose flag is set.
//
// Locking: the buffers of a channel are guarded by its CAN data mutex (lock module),
// never held across an exchange. The reader thread's lifecycle (create, end, join) is
// guarded by a per-adapter state mutex, so that a start racing a thread that is about to
// end never leaves two readers or none.
#pragma once

#include <atomic>
#include <memory>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <new>
#include <pthread.h>
#include <thread>

#include "can/frame_ring.h"
#include "polybus/common.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "transport/lock.h"

namespace polybus {

// A buffer of N elements owned by the calling thread for its lifetime: fetches (every
// 10 ms on a reader thread) land in it without an allocation each time.
template <typename T, size_t N>
T* thread_scratch() {
    thread_local std::unique_ptr<T[]> scratch(new T[N]);
    return scratch.get();
}

template <typename Msg>
class Reception {
public:
    using Fetch = int (*)(int handle, unsigned char channel);
    static constexpr int kNoHandle = -1;  // no reader was ever started on the adapter

    explicit Reception(Fetch fetch) : fetch_(fetch) {}

    // Ends every reader thread (process exit).
    ~Reception() {
        for (int slot = 0; slot < slots_.size(); ++slot) {
            Device& d = slots_.at_slot(slot);
            d.flags[0].store(0);
            d.flags[1].store(0);
            join_reader(d);
        }
    }

    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    bool reading(int handle, int channel) {
        const Device* d = slots_.find(handle);
        return d != nullptr && d->flags[channel & 1].load() != 0;
    }

    void stop_flag(int handle, int channel) {
        if (Device* d = slots_.find(handle)) d->flags[channel & 1].store(0);
    }

    // Appends to the application buffer, and to the UDS buffer when `both`.
    void append(int handle, int channel, const Msg* frames, size_t n, bool both) {
        Device* d = slots_.find(handle);
        if (d == nullptr || n == 0) return;
        CanDataLock hold(handle, channel);
        d->app[channel & 1].push(frames, n);
        if (both) d->uds[channel & 1].push(frames, n);
    }

    size_t take(int handle, int channel, Msg* out, size_t max, bool uds) {
        Device* d = slots_.find(handle);
        if (d == nullptr || out == nullptr || max == 0) return 0;
        CanDataLock hold(handle, channel);
        return d->buffer(channel, uds).pop(out, max);
    }

    size_t buffered(int handle, int channel, bool uds) {
        Device* d = slots_.find(handle);
        if (d == nullptr) return 0;
        CanDataLock hold(handle, channel);
        return d->buffer(channel, uds).size();
    }

    void discard(int handle, int channel, bool uds) {
        Device* d = slots_.find(handle);
        if (d == nullptr) return;
        CanDataLock hold(handle, channel);
        d->buffer(channel, uds).clear();
    }

    // Turns reception of the channel on, starting the adapter's reader thread unless one
    // is running. kOk, or kBadAnswer when no thread can be created (the flag stays set).
    int start(int handle, int channel) {
        Device* d = slots_.find(handle);
        if (d == nullptr) return kBadAnswer;
        std::lock_guard<std::mutex> guard(d->mutex);
        d->handle.store(handle);
        d->flags[channel & 1].store(1);
        if (d->running) return kOk;
        if (d->has_thread) {  // a reader that ended on its own
            pthread_join(d->thread, nullptr);
            d->has_thread = false;
        }
        auto* start = new (std::nothrow) Start{this, d, ++d->generation};
        if (start == nullptr) return kBadAnswer;
        if (pthread_create(&d->thread, nullptr, &Reception::entry, start) != 0) {
            delete start;
            return kBadAnswer;
        }
        d->has_thread = true;
        d->running = true;
        return kOk;
    }

    // Turns reception of the channel off. When the other channel is off as well, waits
    // for the reader thread to end. kOk, or kBadAnswer when no reader was ever started.
    int stop(int handle, int channel) {
        Device* d = slots_.find(handle);
        if (d == nullptr) return kBadAnswer;
        d->flags[channel & 1].store(0);
        if (d->flags[(channel & 1) ^ 1].load() != 0) return kOk;
        if (d->handle.load() == kNoHandle) return kBadAnswer;
        join_reader(*d);
        return kOk;
    }

    // The polling loop for a caller-run reader (the exported thread bodies).
    void run(int handle) {
        Device* d = slots_.find(handle);
        if (d == nullptr) return;
        while (d->flags[0].load() != 0 || d->flags[1].load() != 0) poll(*d, handle);
    }

private:
    // What reception keeps per adapter.
    struct Device {
        // The reader thread's lifecycle.
        std::mutex mutex;
        pthread_t thread{};
        bool has_thread = false;  // `thread` is still to be joined
        bool running = false;     // the thread has not decided to end
        uint32_t generation = 0;  // bumped when a thread is taken for joining

        std::atomic<int> handle{kNoHandle};
        std::atomic<uint8_t> flags[2] = {{0}, {0}};  // reception on, per channel
        FrameRing<Msg> app[2];  // guarded by the channel's CAN data mutex
        FrameRing<Msg> uds[2];

        FrameRing<Msg>& buffer(int channel, bool for_uds) { return (for_uds ? uds : app)[channel & 1]; }
        bool any_flag() const { return flags[0].load() != 0 || flags[1].load() != 0; }
    };

    void poll(Device& d, int handle) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int ch = 0; ch < 2; ++ch) {
            if (d.flags[ch].load() == 0) continue;
            // A failing fetch (unplugged or closed adapter) turns the channel off.
            if (fetch_(handle, static_cast<unsigned char>(ch)) < 0) d.flags[ch].store(0);
        }
    }

    struct Start {
        Reception* self;
        Device* device;
        uint32_t generation;
    };

    static void* entry(void* arg) {
        const Start start = *static_cast<Start*>(arg);
        delete static_cast<Start*>(arg);
        start.self->reader(*start.device, start.generation);
        return nullptr;
    }

    void reader(Device& d, uint32_t generation) {
        for (;;) {
            {
                std::lock_guard<std::mutex> guard(d.mutex);
                const bool mine = d.generation == generation;
                if (!mine || !d.any_flag()) {
                    if (mine) d.running = false;
                    return;
                }
            }
            poll(d, d.handle.load());
        }
    }

    void join_reader(Device& d) {
        pthread_t t;
        {
            std::lock_guard<std::mutex> guard(d.mutex);
            if (!d.has_thread) return;
            t = d.thread;
            d.has_thread = false;
            ++d.generation;
            d.running = false;
        }
        if (pthread_equal(t, pthread_self())) pthread_detach(t);
        else pthread_join(t, nullptr);
    }

    Fetch fetch_;
    PerDevice<Device> slots_;
};

}  // namespace polybus
