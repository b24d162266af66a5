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
}  // namespace polybus
