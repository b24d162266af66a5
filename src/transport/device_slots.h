// Per-device state: every family keeps what it knows about an adapter in one of 30
// slots, indexed by the adapter's position in the device list. The slot rules are
// written here once: a handle that is not listed, or whose position is 30 or more, has
// no slot, and the family treats it as it documents (usually: nothing is kept).
#pragma once

#include <cstddef>
#include <cstdint>

#include "polybus/common.h"
#include "transport/usb_device.h"

namespace polybus {

constexpr int kDeviceSlots = POLYBUS_MAX_DEVICES;

// The slot of a handle, or -1 when it has none. A handle 0xFF0000nn names slot nn
// directly, as the lock module takes it.
inline int device_slot(int handle) {
    const uint32_t slot = usb_list_get_index(static_cast<uint32_t>(handle));
    return slot < static_cast<uint32_t>(kDeviceSlots) ? static_cast<int>(slot) : -1;
}

// One T per device slot. T is default-constructed at load and destroyed at unload.
template <typename T>
class PerDevice {
public:
    // The handle's entry, or null when the handle has no slot.
    T* find(int handle) {
        const int slot = device_slot(handle);
        return slot >= 0 ? &slots_[slot] : nullptr;
    }
    T& at_slot(int slot) { return slots_[slot]; }
    static constexpr int size() { return kDeviceSlots; }

    template <typename Fn>
    void for_each(Fn&& fn) {
        for (auto& s : slots_) fn(s);
    }

private:
    T slots_[kDeviceSlots];
};

}  // namespace polybus
