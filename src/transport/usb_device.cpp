// Discovery, handles, opening and reconnecting. All libusb work shares one context.
#include "transport/usb_device.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "polybus/usb_device.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "transport/usb_message.h"
#include "wire/device.h"

using polybus::AllDevicesLock;
using polybus::DeviceLock;

extern "C" {
POLYBUS_API int DevHandle[POLYBUS_DEVHANDLE_SLOTS];
POLYBUS_API void* UsbDevList[POLYBUS_DEVHANDLE_SLOTS];
}

namespace {
libusb_context* ctx = nullptr;
// Cleared by a reset (which runs under the device lock only), read by the next scan.
std::atomic<int> usb_init_flag{0};
libusb_device** scan_devices = nullptr;   // device array of the last scan
libusb_device** retry_devices = nullptr;  // device array of the last reconnect search

constexpr uint16_t kVendor = 0x0483;
constexpr uint16_t kProduct = 0x7918;  // and 0x7919: compared with bit 0 masked off

// The adapter's two vendor requests: its 32-bit identifier (the handle), and a restart.
constexpr VendorRequest kReadIdentifier{0xC1, polybus::wire::VENDOR_READ_IDENTIFIER, 0, 0, 4, 100};
constexpr VendorRequest kResetAdapter{0x41, polybus::wire::VENDOR_RESET, 0, 0, 0, 100};

bool is_adapter_descriptor(const libusb_device_descriptor& d) {
    return d.idVendor == kVendor && (d.idProduct & 0xFFFE) == kProduct;
}

bool manufacturer_accepted(const unsigned char* text, int len) {
    if (len < 11) return false;
    return std::strcmp(reinterpret_cast<const char*>(text), POLYBUS_MANUFACTURER_1) == 0 ||
           std::strcmp(reinterpret_cast<const char*>(text), POLYBUS_MANUFACTURER_2) == 0;
}

void close_entry_handle(UsbDevNode* node) {
    if (node != nullptr && node->handle != nullptr) {
        libusb_close(node->handle);
        node->handle = nullptr;
    }
}

// Closes an entry's handle under the device's exchange lock, so that an exchange
// another thread is running on that handle completes before the handle goes away.
void close_entry_handle_locked(UsbDevNode* node) {
    if (node == nullptr || node->handle == nullptr) return;
    DeviceLock hold(static_cast<int>(node->DevHandle));
    close_entry_handle(node);
}

// An entry keeps its own reference on the libusb device it names. The device arrays of
// scans and reconnect searches are freed (and unreferenced) by the next one, and a
// device that re-enumerated after a reset is a new libusb object: the entry follows it,
// so that a closed device can be opened again without a scan.
void set_entry_device(UsbDevNode* node, libusb_device* dev) {
    if (node->dev == dev) return;
    if (dev != nullptr) libusb_ref_device(dev);
    if (node->dev != nullptr) libusb_unref_device(node->dev);
    node->dev = dev;
}

void drop_entry(UsbDevNode* node) {
    set_entry_device(node, nullptr);
    usb_list_del(node);
}

// Drops everything the previous context owned, so that a re-initialisation after a
// reset starts from an empty list without leaking handles, lists or the context.
void teardown_context() {
    for (int i = 0; UsbDevNode* n = usb_list_post_with_index(i); ++i) {
        close_entry_handle_locked(n);
        set_entry_device(n, nullptr);
    }
    usb_list_clear();
    if (scan_devices != nullptr) libusb_free_device_list(scan_devices, 1);
    if (retry_devices != nullptr) libusb_free_device_list(retry_devices, 1);
    scan_devices = nullptr;
    retry_devices = nullptr;
    if (ctx != nullptr) libusb_exit(ctx);
    ctx = nullptr;
}
}  // namespace

libusb_context* usb_context() { return ctx; }

int close_device(libusb_device_handle* handle) {
    if (handle != nullptr) libusb_close(handle);
    return 1;
}

int check_device(libusb_device* dev, uint8_t* id_out, uint8_t* id_len_out, libusb_device_handle** handle_out) {
    if (handle_out != nullptr) *handle_out = nullptr;
    if (id_len_out != nullptr) *id_len_out = 0;
    UsbDevNode* known = usb_list_post_with_dev(dev);
    close_entry_handle_locked(known);
    libusb_device_handle* h = nullptr;
    if (libusb_open(dev, &h) != 0 || h == nullptr) return 0;
    libusb_reset_device(h);
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(dev, &desc) != 0) {
        libusb_close(h);
        return 0;
    }
    unsigned char text[256] = {0};
    int n = libusb_get_string_descriptor_ascii(h, desc.iManufacturer, text, sizeof(text) - 1);
    if (!manufacturer_accepted(text, n)) {
        libusb_close(h);
        return 0;
    }
    uint8_t id[4] = {0};
    // The adapter has no handle yet: the identifier it answers becomes one.
    const int got = vendor_control(h, 0, kReadIdentifier, id);
    if (id_out != nullptr) std::memcpy(id_out, id, 4);
    if (id_len_out != nullptr) *id_len_out = got == 4 ? 4 : 0;
    DeviceLock hold(static_cast<int>(polybus::get_le32(id)));
    libusb_close(h);
    return 1;
}

int retry_connect_dev(int handle) {
    UsbDevNode* node = usb_list_post(static_cast<uint32_t>(handle));
    if (node == nullptr || ctx == nullptr) return 0;
    if (retry_devices != nullptr) libusb_free_device_list(retry_devices, 1);
    retry_devices = nullptr;
    ssize_t count = libusb_get_device_list(ctx, &retry_devices);
    if (count < 0) {
        retry_devices = nullptr;
        return 0;
    }
    libusb_device* match = nullptr;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(retry_devices[i], &desc) != 0) return 0;
        if (!is_adapter_descriptor(desc)) continue;
        if (libusb_get_bus_number(retry_devices[i]) == node->bus &&
            libusb_get_device_address(retry_devices[i]) == node->address) {
            match = retry_devices[i];
            break;
        }
    }
    if (match == nullptr) return 0;
    // A handle left from before the device vanished is dead; do not leak it. The swap
    // runs under the exchange lock: other threads may still be using the old handle.
    DeviceLock hold(handle);
    close_entry_handle(node);
    set_entry_device(node, match);
    libusb_device_handle* fresh = nullptr;
    if (libusb_open(match, &fresh) != 0 || fresh == nullptr) return 0;
    // A failed claim keeps the handle open in the entry, as a reconnect always has.
    node->handle = fresh;
    return libusb_claim_interface(fresh, 0) == 0 ? 1 : 0;
}

void del_dead_device() {
    std::vector<UsbDevNode*> entries;
    for (int i = 0; UsbDevNode* n = usb_list_post_with_index(i); ++i) entries.push_back(n);
    for (UsbDevNode* e : entries) {
        const bool present = retry_connect_dev(static_cast<int>(e->DevHandle)) != 0;
        close_entry_handle_locked(e);
        if (!present) drop_entry(e);
    }
}

int scan_dev(int* pDevHandle) {
    AllDevicesLock hold;
    if (usb_init_flag == 0) {
        teardown_context();
        usb_list_init();
        int rc = libusb_init(&ctx);
        if (rc < 0) {
            ctx = nullptr;
            return rc;
        }
        libusb_set_option(ctx, LIBUSB_OPTION_LOG_LEVEL, LIBUSB_LOG_LEVEL_NONE);
        usb_init_flag = 1;
    }
    if (scan_devices != nullptr) libusb_free_device_list(scan_devices, 1);
    scan_devices = nullptr;
    ssize_t count = libusb_get_device_list(ctx, &scan_devices);
    if (count < 0) {
        scan_devices = nullptr;
        return static_cast<int>(count);
    }
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device* dev = scan_devices[i];
        libusb_device_descriptor desc{};
        int rc = libusb_get_device_descriptor(dev, &desc);
        if (rc != 0) return rc;
        if (!is_adapter_descriptor(desc)) continue;
        uint8_t id[4] = {0};
        uint8_t id_len = 0;
        libusb_device_handle* unused = nullptr;
        if (!check_device(dev, id, &id_len, &unused)) continue;
        const uint8_t bus = libusb_get_bus_number(dev);
        const uint8_t address = libusb_get_device_address(dev);
        const uint32_t handle = id_len == 4 ? polybus::get_le32(id) : (uint32_t{bus} << 8 | address);
        if (UsbDevNode* node = usb_list_post(handle)) {
            close_entry_handle_locked(node);
            set_entry_device(node, dev);
            node->DevHandle = handle;
            node->bus = bus;
            node->address = address;
            continue;
        }
        auto* node = static_cast<UsbDevNode*>(std::calloc(1, sizeof(UsbDevNode)));
        if (node == nullptr) continue;
        set_entry_device(node, dev);
        node->DevHandle = handle;
        node->bus = bus;
        node->address = address;
        usb_list_add(node);
    }
    del_dead_device();
    std::vector<uint32_t> handles(static_cast<size_t>(usb_list_length()) + 1);
    int n = usb_list_get_devnums(handles.data());
    if (pDevHandle != nullptr)
        for (int i = 0; i < n; ++i) pDevHandle[i] = static_cast<int>(handles[static_cast<size_t>(i)]);
    return n;
}

int rescan_dev(int* pDevHandle) { return scan_dev(pDevHandle); }

int open_dev(int handle) {
    UsbDevNode* node = usb_list_post(static_cast<uint32_t>(handle));
    if (node == nullptr || node->dev == nullptr) return 0;
    AllDevicesLock hold;
    uint8_t id[4];
    uint8_t id_len = 0;
    libusb_device_handle* unused = nullptr;
    if (!check_device(node->dev, id, &id_len, &unused)) return 0;
    close_entry_handle_locked(node);
    if (libusb_open(node->dev, &node->handle) != 0) {
        node->handle = nullptr;
        return 0;
    }
    if (libusb_claim_interface(node->handle, 0) == 0) return 1;
    close_entry_handle_locked(node);
    return 0;
}

int close_dev(int handle) {
    UsbDevNode* node = usb_list_post(static_cast<uint32_t>(handle));
    if (node == nullptr || node->dev == nullptr || node->handle == nullptr) return 0;
    libusb_release_interface(node->handle, 0);
    close_entry_handle(node);
    return 1;
}

int reset_dev(int handle) {
    usb_init_flag = 0;
    DeviceLock hold(handle);
    return polybus::vendor_request(handle, kResetAdapter) ? 1 : 0;
}

extern "C" {

POLYBUS_API int USB_ScanDevice(int* pDevHandle) { return scan_dev(pDevHandle); }

POLYBUS_API bool USB_OpenDevice(int handle) {
    if (!open_dev(handle)) return false;
    DEVICE_INFO info;
    char function_string[POLYBUS_FUNCTION_STRING_SIZE];
    return DEV_GetDeviceInfo(handle, &info, function_string);
}

POLYBUS_API bool USB_CloseDevice(int handle) { return close_dev(handle) != 0; }
POLYBUS_API bool USB_ResetDevice(int handle) { return reset_dev(handle) != 0; }

POLYBUS_API bool USB_RetryConnect(int handle) { return retry_connect_dev(handle) != 0; }

}  // extern "C"
