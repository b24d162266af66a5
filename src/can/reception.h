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
#include <chrono>
#include <cstdint>
#include <mutex>
#include <new>
#include <pthread.h>
#include <thread>

#include "can/frame_ring.h"
#include "polybus/common.h"
#include "transport/lock.h"
#include "device/adapter_models.h"
#include "transport/device_slots.h"
#include "transport/usb_device.h"

namespace polybus {

inline int can_slot(int handle) { return device_slot(handle); }

inline bool is_canfd_handle(int handle) { return is_canfd_model(handle); }

template <typename Msg>
class Reception {
public:
    using Fetch = int (*)(int handle, unsigned char channel);
    static constexpr int kNoHandle = -1;  // no reader was ever started on the adapter

    explicit Reception(Fetch fetch) : fetch_(fetch) {
        for (auto& h : handles_) h.store(kNoHandle);
        for (auto& d : flags_)
            for (auto& f : d) f.store(0);
    }

    // Ends every reader thread (process exit).
    ~Reception() {
        for (int slot = 0; slot < kSlots; ++slot) {
            flags_[slot][0].store(0);
            flags_[slot][1].store(0);
            join_reader(slot);
        }
    }

    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    bool reading(int handle, int channel) const {
        const int slot = can_slot(handle);
        return slot >= 0 && flags_[slot][channel & 1].load() != 0;
    }

    void stop_flag(int handle, int channel) {
        const int slot = can_slot(handle);
        if (slot >= 0) flags_[slot][channel & 1].store(0);
    }

    // Appends to the application buffer, and to the UDS buffer when `both`.
    void append(int handle, int channel, const Msg* frames, size_t n, bool both) {
        const int slot = can_slot(handle);
        if (slot < 0 || n == 0) return;
        can_data_lock(handle, channel);
        app_[slot][channel & 1].push(frames, n);
        if (both) uds_[slot][channel & 1].push(frames, n);
        can_data_unlock(handle, channel);
    }

    size_t take(int handle, int channel, Msg* out, size_t max, bool uds) {
        const int slot = can_slot(handle);
        if (slot < 0 || out == nullptr || max == 0) return 0;
        can_data_lock(handle, channel);
        const size_t n = (uds ? uds_ : app_)[slot][channel & 1].pop(out, max);
        can_data_unlock(handle, channel);
        return n;
    }

    size_t buffered(int handle, int channel, bool uds) {
        const int slot = can_slot(handle);
        if (slot < 0) return 0;
        can_data_lock(handle, channel);
        const size_t n = (uds ? uds_ : app_)[slot][channel & 1].size();
        can_data_unlock(handle, channel);
        return n;
    }

    void discard(int handle, int channel, bool uds) {
        const int slot = can_slot(handle);
        if (slot < 0) return;
        can_data_lock(handle, channel);
        (uds ? uds_ : app_)[slot][channel & 1].clear();
        can_data_unlock(handle, channel);
    }

    // Turns reception of the channel on, starting the adapter's reader thread unless one
    // is running. 0, or -4 when no thread can be created (the flag stays set).
    int start(int handle, int channel) {
        const int slot = can_slot(handle);
        if (slot < 0) return -4;
        State& s = state_[slot];
        std::lock_guard<std::mutex> guard(s.mutex);
        handles_[slot].store(handle);
        flags_[slot][channel & 1].store(1);
        if (s.running) return 0;
        if (s.has_thread) {  // a reader that ended on its own
            pthread_join(s.thread, nullptr);
            s.has_thread = false;
        }
        auto* start = new (std::nothrow) Start{this, slot, ++s.generation};
        if (start == nullptr) return -4;
        if (pthread_create(&s.thread, nullptr, &Reception::entry, start) != 0) {
            delete start;
            return -4;
        }
        s.has_thread = true;
        s.running = true;
        return 0;
    }

    // Turns reception of the channel off. When the other channel is off as well, waits
    // for the reader thread to end. 0, or -4 when no reader was ever started.
    int stop(int handle, int channel) {
        const int slot = can_slot(handle);
        if (slot < 0) return -4;
        flags_[slot][channel & 1].store(0);
        if (flags_[slot][(channel & 1) ^ 1].load() != 0) return 0;
        if (handles_[slot].load() == kNoHandle) return -4;
        join_reader(slot);
        return 0;
    }

    // The polling loop for a caller-run reader (the exported thread bodies).
    void run(int handle) {
        const int slot = can_slot(handle);
        if (slot < 0) return;
        while (flags_[slot][0].load() != 0 || flags_[slot][1].load() != 0) poll(slot, handle);
    }

private:
    static constexpr int kSlots = POLYBUS_MAX_DEVICES;

    struct State {
        std::mutex mutex;
        pthread_t thread{};
        bool has_thread = false;  // `thread` is still to be joined
        bool running = false;     // the thread has not decided to end
        uint32_t generation = 0;  // bumped when a thread is taken for joining
    };

    void poll(int slot, int handle) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int ch = 0; ch < 2; ++ch) {
            if (flags_[slot][ch].load() == 0) continue;
            // A failing fetch (unplugged or closed adapter) turns the channel off.
            if (fetch_(handle, static_cast<unsigned char>(ch)) < 0) flags_[slot][ch].store(0);
        }
    }

    struct Start {
        Reception* self;
        int slot;
        uint32_t generation;
    };

    static void* entry(void* arg) {
        const Start start = *static_cast<Start*>(arg);
        delete static_cast<Start*>(arg);
        start.self->reader(start.slot, start.generation);
        return nullptr;
    }

    void reader(int slot, uint32_t generation) {
        State& s = state_[slot];
        for (;;) {
            {
                std::lock_guard<std::mutex> guard(s.mutex);
                const bool mine = s.generation == generation;
                if (!mine || (flags_[slot][0].load() == 0 && flags_[slot][1].load() == 0)) {
                    if (mine) s.running = false;
                    return;
                }
            }
            poll(slot, handles_[slot].load());
        }
    }

    void join_reader(int slot) {
        State& s = state_[slot];
        pthread_t t;
        {
            std::lock_guard<std::mutex> guard(s.mutex);
            if (!s.has_thread) return;
            t = s.thread;
            s.has_thread = false;
            ++s.generation;
            s.running = false;
        }
        if (pthread_equal(t, pthread_self())) pthread_detach(t);
        else pthread_join(t, nullptr);
    }

    Fetch fetch_;
    std::atomic<int> handles_[kSlots];
    std::atomic<uint8_t> flags_[kSlots][2];
    State state_[kSlots];
    FrameRing<Msg> app_[kSlots][2];
    FrameRing<Msg> uds_[kSlots][2];
};

}  // namespace polybus
