#include "transport/lock.h"

#include <mutex>

#include "polybus/common.h"
#include "transport/usb_device.h"

namespace {
constexpr int kSlots = POLYBUS_MAX_DEVICES;

std::mutex AllMutex;
std::mutex DevMutex[kSlots];
std::mutex CANMutex[kSlots][4];
std::mutex CANDataMutex[kSlots][4];
std::mutex LINDataMutex[kSlots][4];
std::mutex SPIDataMutex[kSlots][2];
std::mutex PADataMutex[kSlots];

// Slot of the handle, or -1 when the handle is not served by the mutex arrays.
int slot_of(int handle) {
    uint32_t slot = usb_list_get_index(static_cast<uint32_t>(handle));
    return slot < static_cast<uint32_t>(kSlots) ? static_cast<int>(slot) : -1;
}

template <typename F>
void with_slot(int handle, F&& f) {
    int slot = slot_of(handle);
    if (slot >= 0) f(slot);
}
}  // namespace

void lock(int h) { with_slot(h, [](int s) { DevMutex[s].lock(); }); }
void unlock(int h) { with_slot(h, [](int s) { DevMutex[s].unlock(); }); }
void lock_all() { AllMutex.lock(); }
void unlock_all() { AllMutex.unlock(); }

void can_lock(int h, int ch) { with_slot(h, [ch](int s) { CANMutex[s][ch & 1].lock(); }); }
void can_unlock(int h, int ch) { with_slot(h, [ch](int s) { CANMutex[s][ch & 1].unlock(); }); }
void can_data_lock(int h, int ch) { with_slot(h, [ch](int s) { CANDataMutex[s][ch & 1].lock(); }); }
void can_data_unlock(int h, int ch) { with_slot(h, [ch](int s) { CANDataMutex[s][ch & 1].unlock(); }); }

// LIN channels are not folded: channel 4 and above (or negative, which compares
// as large once unsigned) take no lock.
void lin_lock(int h, int ch) {
    if (ch >= 4) return;
    with_slot(h, [ch](int s) { if (ch >= 0) LINDataMutex[s][ch].lock(); });
}
void lin_unlock(int h, int ch) {
    if (ch >= 4) return;
    with_slot(h, [ch](int s) { if (ch >= 0) LINDataMutex[s][ch].unlock(); });
}

void spi_data_lock(int h, int ch) { with_slot(h, [ch](int s) { SPIDataMutex[s][ch & 1].lock(); }); }
void spi_data_unlock(int h, int ch) { with_slot(h, [ch](int s) { SPIDataMutex[s][ch & 1].unlock(); }); }
void pa_data_lock(int h) { with_slot(h, [](int s) { PADataMutex[s].lock(); }); }
void pa_data_unlock(int h) { with_slot(h, [](int s) { PADataMutex[s].unlock(); }); }
