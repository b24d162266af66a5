// Device list and discovery: internal interface shared by the transport, the lock
// module and the families that need to know whether a handle names an open adapter.
#pragma once

#include <cstdint>
#include <libusb.h>

struct UsbDevNode {
    UsbDevNode* next;
    UsbDevNode* prev;
    libusb_device* dev;
    libusb_device_handle* handle;  // null while the device is closed
    uint32_t DevHandle;
    uint8_t bus;
    uint8_t address;
};

// Slot value returned for a handle that is not in the list.
constexpr uint32_t kNoSlot = 0xFFFFFFFFu;

void usb_list_init();
void usb_list_add(UsbDevNode* node);
void usb_list_del(UsbDevNode* node);
void usb_list_clear();
bool usb_list_is_empty();
int usb_list_length();
int usb_list_get_devnums(uint32_t* out);
UsbDevNode* usb_list_post(uint32_t handle);
UsbDevNode* usb_list_post_with_dev(libusb_device* dev);
UsbDevNode* usb_list_post_with_index(int index);
uint32_t usb_list_get_index(uint32_t handle);

// The libusb context every device of the list belongs to (null before the first scan):
// asynchronous transfers are completed by handling this context's events.
libusb_context* usb_context();

// True when the handle names a listed adapter that is currently open.
bool usb_device_is_open(int handle);

int scan_dev(int* pDevHandle);
int rescan_dev(int* pDevHandle);
int open_dev(int handle);
int close_dev(int handle);
int reset_dev(int handle);
int retry_connect_dev(int handle);
int close_device(libusb_device_handle* handle);
void del_dead_device();
int check_device(libusb_device* dev, uint8_t* id_out, uint8_t* id_len_out, libusb_device_handle** handle_out);
