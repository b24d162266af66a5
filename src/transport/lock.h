// Per-device mutexes. Every function maps the handle to its slot in the device list;
// a handle whose slot is 30 or more (or that is not listed) is not serialised at all.
#pragma once

void lock(int DevHandle);
void unlock(int DevHandle);
void lock_all();
void unlock_all();
void can_lock(int DevHandle, int channel);
void can_unlock(int DevHandle, int channel);
void can_data_lock(int DevHandle, int channel);
void can_data_unlock(int DevHandle, int channel);
void lin_lock(int DevHandle, int channel);
void lin_unlock(int DevHandle, int channel);
void spi_data_lock(int DevHandle, int channel);
void spi_data_unlock(int DevHandle, int channel);
void pa_data_lock(int DevHandle);
void pa_data_unlock(int DevHandle);

namespace polybus {
// Holds a device's exchange mutex for one scope.
class DeviceLock {
public:
    explicit DeviceLock(int handle) : handle_(handle) { lock(handle_); }
    ~DeviceLock() { unlock(handle_); }
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

private:
    int handle_;
};

// Holds AllMutex (scanning, opening) for one scope.
class AllDevicesLock {
public:
    AllDevicesLock() { lock_all(); }
    ~AllDevicesLock() { unlock_all(); }
    AllDevicesLock(const AllDevicesLock&) = delete;
    AllDevicesLock& operator=(const AllDevicesLock&) = delete;
};

// Holds one of the per-(device, channel) mutexes for one scope.
template <void (*Lock)(int, int), void (*Unlock)(int, int)>
class ChannelLock {
public:
    ChannelLock(int handle, int channel) : handle_(handle), channel_(channel) { Lock(handle_, channel_); }
    ~ChannelLock() { Unlock(handle_, channel_); }
    ChannelLock(const ChannelLock&) = delete;
    ChannelLock& operator=(const ChannelLock&) = delete;

private:
    int handle_;
    int channel_;
};

using CanChannelLock = ChannelLock<can_lock, can_unlock>;          // a whole CAN FD send
using CanDataLock = ChannelLock<can_data_lock, can_data_unlock>;   // CAN receive buffers
using LinDataLock = ChannelLock<lin_lock, lin_unlock>;
using SpiDataLock = ChannelLock<spi_data_lock, spi_data_unlock>;
}  // namespace polybus
