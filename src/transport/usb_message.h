// Command framing and the USB transfer wrappers beneath it.
#pragma once

#include <cstddef>
#include <cstdint>

struct libusb_device_handle;

struct USB_MSG {
    uint32_t Command;
    uint32_t Length;
    unsigned char* Data;
};

int MSG_Send(int DevHandle, USB_MSG* msg, int TimeOutMs);
int MSG_SendInt(int DevHandle, USB_MSG* msg, int TimeOutMs);
int CANFD_MSG_Send(int DevHandle, int channel, USB_MSG* msg, int TimeOutMs);
int MSG_Get(int DevHandle, USB_MSG* msg, int TimeOutMs);

// MSG_Get for a caller buffer of known capacity: at most `capacity` payload bytes land
// in msg->Data, anything the adapter sends beyond that is read and thrown away so the
// pipe stays in step. `received` gets the number of payload bytes stored.
int MSG_GetBounded(int DevHandle, USB_MSG* msg, size_t capacity, size_t* received, int TimeOutMs);

// The adapter sees the end of a frame only at a short packet, so a frame that fills
// its last packet exactly (or is empty) must be followed by a zero-length packet.
inline bool frame_needs_zlp(int len, bool high_speed) { return len % (high_speed ? 512 : 64) == 0; }

int USBBulkWriteData(int DevHandle, int ep, unsigned char* data, int len, int TimeOutMs);
// `transferred_out` (optional) gets the bytes that arrived, also when the read failed.
int USBBulkReadData(int DevHandle, int ep, void* data, int len, int TimeOutMs, int* transferred_out = nullptr);
int USBIntWriteData(int DevHandle, int ep, unsigned char* data, int len, int TimeOutMs);
// A vendor control request on endpoint 0, as the adapter knows them (wire/device.h).
struct VendorRequest {
    uint8_t request_type;  // bmRequestType
    uint8_t request;       // bRequest
    uint16_t value;        // wValue
    uint16_t index;        // wIndex
    uint16_t length;       // wLength
    unsigned timeout_ms;
};

// The one path of every vendor control request: runs it on `h` and reports it to the
// transport trace under `DevHandle` (0 while a scan has not given the adapter a handle
// yet). Returns libusb's result: the bytes moved, or a negative error code.
int vendor_control(struct libusb_device_handle* h, int DevHandle, const VendorRequest& r, unsigned char* data);

int USBCtrlData(int DevHandle, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                unsigned char* data, uint16_t wLength, unsigned TimeOutMs);
