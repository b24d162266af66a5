// Channel state of the LIN_EX_ family, shared by the master and slave functions.
#pragma once

#include <atomic>
#include <cstdint>

#include "transport/device_slots.h"

namespace polybus {
namespace lin {

// Indexed by the channel byte as the caller gives it, so every channel value has its
// own entry. Written by LIN_EX_Init, read by every frame call from any thread.
struct ChannelState {
    std::atomic<uint32_t> baud[256];
    std::atomic<uint8_t> initialised[256];
    ChannelState() {
        for (auto& b : baud) b.store(0, std::memory_order_relaxed);
        for (auto& f : initialised) f.store(0, std::memory_order_relaxed);
    }
};

ChannelState* channel_state(int handle);

}  // namespace lin
}  // namespace polybus
