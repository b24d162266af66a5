#include "transport/usb_message.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <libusb.h>
#include <memory>

#include "polybus/trace.h"
#include "transport/bytes.h"
#include "transport/exchange.h"
#include "transport/usb_device.h"

using polybus::get_be32;
using polybus::kBadAnswer;
using polybus::kNoHeader;
using polybus::kOk;
using polybus::kSendFailed;
using polybus::put_be32;

namespace {

struct TraceHook {
    POLYBUS_TRACE_CALLBACK callback;
    void* user;
};
std::atomic<const TraceHook*> g_trace{nullptr};
TraceHook g_trace_slots[2];
int g_trace_next = 0;

void trace(int dev, int kind, int ep, uint32_t cmd, uint32_t len, const uint8_t* data, uint32_t data_len,
           int timeout, int result) {
    const TraceHook* hook = g_trace.load(std::memory_order_acquire);
    if (hook == nullptr) return;
    POLYBUS_TRACE_EVENT ev{dev, kind, ep, cmd, len, data, data_len, timeout, result, 0, 0, 0};
    hook->callback(&ev, hook->user);
}

libusb_device_handle* open_handle_of(int DevHandle) {
    UsbDevNode* node = usb_list_post(static_cast<uint32_t>(DevHandle));
    if (node == nullptr || node->dev == nullptr) return nullptr;
    return node->handle;
}

// Frames up to this size are built on the stack; larger ones go to the heap.
constexpr size_t kStackFrame = 512;

template <typename Write>
int send_framed(int DevHandle, USB_MSG* msg, int TimeOutMs, int kind, int ep, Write&& write) {
    if (msg == nullptr) return kSendFailed;
    const size_t total = size_t{msg->Length} + 8;
    uint8_t stack_buf[kStackFrame];
    std::unique_ptr<uint8_t[]> heap;
    uint8_t* frame = stack_buf;
    if (total > kStackFrame) {
        heap.reset(new (std::nothrow) uint8_t[total]);
        if (!heap) return kBadAnswer;
        frame = heap.get();
    }
    put_be32(frame, msg->Command);
    put_be32(frame + 4, msg->Length);
    if (msg->Length != 0 && msg->Data != nullptr) std::memcpy(frame + 8, msg->Data, msg->Length);
    else if (msg->Length != 0) std::memset(frame + 8, 0, msg->Length);
    int ok = write(frame, static_cast<int>(total));
    int result = ok ? kOk : kSendFailed;
    trace(DevHandle, kind, ep, msg->Command, msg->Length, frame + 8, msg->Length, TimeOutMs, result);
    return result;
}

}  // namespace

extern "C" POLYBUS_API void USB_SetTraceCallback(POLYBUS_TRACE_CALLBACK callback, void* user) {
    // Two alternating slots let a reader that loaded the old hook finish with it while a
    // new one is installed; replacing hooks faster than a callback runs is not supported.
    static std::atomic_flag busy = ATOMIC_FLAG_INIT;
    while (busy.test_and_set(std::memory_order_acquire)) {
    }
    if (callback == nullptr) {
        g_trace.store(nullptr, std::memory_order_release);
    } else {
        TraceHook* slot = &g_trace_slots[g_trace_next];
        g_trace_next ^= 1;
        slot->callback = callback;
        slot->user = user;
        g_trace.store(slot, std::memory_order_release);
    }
    busy.clear(std::memory_order_release);
}

int MSG_Send(int DevHandle, USB_MSG* msg, int TimeOutMs) {
    return send_framed(DevHandle, msg, TimeOutMs, POLYBUS_TRACE_SEND, 0x01, [&](uint8_t* f, int n) {
        return USBBulkWriteData(DevHandle, 0x01, f, n, TimeOutMs);
    });
}

int MSG_SendInt(int DevHandle, USB_MSG* msg, int TimeOutMs) {
    return send_framed(DevHandle, msg, TimeOutMs, POLYBUS_TRACE_SEND_INT, 0x02, [&](uint8_t* f, int n) {
        return USBIntWriteData(DevHandle, 0x02, f, n, TimeOutMs);
    });
}

int CANFD_MSG_Send(int DevHandle, int channel, USB_MSG* msg, int TimeOutMs) {
    static const int endpoints[2] = {1, 2};
    const int ep = endpoints[channel & 1];
    return send_framed(DevHandle, msg, TimeOutMs, POLYBUS_TRACE_SEND, ep, [&](uint8_t* f, int n) {
        return USBBulkWriteData(DevHandle, ep, f, n, TimeOutMs);
    });
}

namespace {
// A bulk IN read that stops inside an answer must end on a packet boundary: a read
// that is not a whole number of packets has no room for the full packet that comes
// next, and the host controller reports an overflow and drops that packet. 512 bytes
// are a whole number of packets at full (64) and at high speed (512).
constexpr size_t kPacketMultiple = 512;
constexpr size_t kDrainPiece = 16384;  // a multiple of kPacketMultiple

// One bulk IN read; returns the bytes that arrived, whether or not the read completed.
size_t read_some(int DevHandle, void* dest, size_t len, int TimeOutMs) {
    int transferred = 0;
    USBBulkReadData(DevHandle, 0x81, dest, static_cast<int>(len), TimeOutMs, &transferred);
    return transferred > 0 ? static_cast<size_t>(transferred) : 0;
}

// Reads an answer payload of `total` bytes, keeping the first `keep` of them at `dest`
// and discarding the rest, so that the pipe stays in step whatever the adapter sent.
// Returns the bytes stored; stops at the first failed or short read (the adapter sent
// less than it announced), keeping what that read brought.
size_t read_payload(int DevHandle, uint8_t* dest, size_t keep, size_t total, int TimeOutMs) {
    if (keep >= total) return read_some(DevHandle, dest, total, TimeOutMs);
    size_t done = keep - keep % kPacketMultiple;
    if (done > 0) {
        const size_t got = read_some(DevHandle, dest, done, TimeOutMs);
        if (got != done) return got;
    }
    size_t stored = done;
    const size_t scratch_size = total - done < kDrainPiece ? total - done : kDrainPiece;
    std::unique_ptr<uint8_t[]> scratch(new (std::nothrow) uint8_t[scratch_size]);
    if (!scratch) return stored;
    while (done < total) {
        const size_t piece = total - done < scratch_size ? total - done : scratch_size;
        if (USBBulkReadData(DevHandle, 0x81, scratch.get(), static_cast<int>(piece), TimeOutMs) !=
            static_cast<int>(piece))
            break;
        if (stored < keep) {
            // Only the first piece can still hold wanted bytes (keep - done < 512).
            const size_t n = keep - stored < piece ? keep - stored : piece;
            std::memcpy(dest + stored, scratch.get(), n);
            stored += n;
        }
        done += piece;
    }
    return stored;
}

int get_header(int DevHandle, USB_MSG* msg, int TimeOutMs) {
    uint8_t header[8];
    if (USBBulkReadData(DevHandle, 0x81, header, 8, TimeOutMs) != 8) {
        trace(DevHandle, POLYBUS_TRACE_GET, 0x81, 0, 0, nullptr, 0, TimeOutMs, kNoHeader);
        return kNoHeader;
    }
    msg->Command = get_be32(header);
    msg->Length = get_be32(header + 4);
    return 0;
}
}  // namespace

int MSG_GetBounded(int DevHandle, USB_MSG* msg, size_t capacity, size_t* received, int TimeOutMs) {
    if (received != nullptr) *received = 0;
    if (msg == nullptr) return kNoHeader;
    if (get_header(DevHandle, msg, TimeOutMs) != 0) return kNoHeader;
    const int32_t announced = static_cast<int32_t>(msg->Length);
    size_t got = 0;
    if (announced > 0) {
        const size_t keep = msg->Data != nullptr ? capacity : 0;
        got = read_payload(DevHandle, msg->Data, keep, static_cast<size_t>(announced), TimeOutMs);
    }
    if (received != nullptr) *received = got;
    trace(DevHandle, POLYBUS_TRACE_GET, 0x81, msg->Command, msg->Length, msg->Data, static_cast<uint32_t>(got),
          TimeOutMs, 0);
    return 0;
}

int MSG_Get(int DevHandle, USB_MSG* msg, int TimeOutMs) {
    if (msg == nullptr) return kNoHeader;
    if (msg->Data != nullptr) {
        // The caller promised room for whatever this command can answer.
        return MSG_GetBounded(DevHandle, msg, SIZE_MAX, nullptr, TimeOutMs);
    }
    // No buffer: the payload is read and thrown away. Data stays null; there is no
    // storage behind it for the caller to look at.
    return MSG_GetBounded(DevHandle, msg, 0, nullptr, TimeOutMs);
}

namespace {
using TransferFn = int (*)(libusb_device_handle*, unsigned char, unsigned char*, int, int*, unsigned int);

// One whole OUT transfer (bulk or interrupt) to an open device: true when every byte went.
bool write_all(TransferFn transfer, libusb_device_handle* h, int ep, unsigned char* data, int len, int TimeOutMs) {
    if (h == nullptr || len < 0) return false;
    int transferred = 0;
    const int rc = transfer(h, static_cast<unsigned char>(ep), data, len, &transferred, static_cast<unsigned>(TimeOutMs));
    return rc == 0 && transferred == len;
}
}  // namespace

int USBBulkWriteData(int DevHandle, int ep, unsigned char* data, int len, int TimeOutMs) {
    libusb_device_handle* h = open_handle_of(DevHandle);
    if (!write_all(libusb_bulk_transfer, h, ep, data, len, TimeOutMs)) return 0;
    UsbDevNode* node = usb_list_post(static_cast<uint32_t>(DevHandle));
    if (frame_needs_zlp(len, libusb_get_device_speed(node->dev) == LIBUSB_SPEED_HIGH)) {
        int zl = 0;
        libusb_bulk_transfer(h, static_cast<unsigned char>(ep), data, 0, &zl, static_cast<unsigned>(TimeOutMs));
    }
    return 1;
}

int USBBulkReadData(int DevHandle, int ep, void* data, int len, int TimeOutMs, int* transferred_out) {
    if (transferred_out != nullptr) *transferred_out = 0;
    libusb_device_handle* h = open_handle_of(DevHandle);
    if (h == nullptr || len < 0) return 0;
    int transferred = 0;
    int rc = libusb_bulk_transfer(h, static_cast<unsigned char>(ep | 0x80), static_cast<unsigned char*>(data), len,
                                  &transferred, static_cast<unsigned>(TimeOutMs));
    if (transferred_out != nullptr) *transferred_out = transferred;
    if (rc == 0 && transferred == len) return len;
    (void)libusb_strerror(rc);
    return rc;
}

int USBIntWriteData(int DevHandle, int ep, unsigned char* data, int len, int TimeOutMs) {
    return write_all(libusb_interrupt_transfer, open_handle_of(DevHandle), ep, data, len, TimeOutMs) ? 1 : 0;
}

int vendor_control(libusb_device_handle* h, int DevHandle, const VendorRequest& r, unsigned char* data) {
    const int rc = libusb_control_transfer(h, r.request_type, r.request, r.value, r.index, data, r.length,
                                           r.timeout_ms);
    const TraceHook* hook = g_trace.load(std::memory_order_acquire);
    if (hook != nullptr) {
        const uint32_t moved = rc > 0 && data != nullptr ? static_cast<uint32_t>(rc) : 0;
        POLYBUS_TRACE_EVENT ev{DevHandle, POLYBUS_TRACE_CONTROL, 0, r.request, r.length, data, moved,
                               static_cast<int>(r.timeout_ms), rc, r.request_type, r.value, r.index};
        hook->callback(&ev, hook->user);
    }
    return rc;
}

int USBCtrlData(int DevHandle, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                unsigned char* data, uint16_t wLength, unsigned TimeOutMs) {
    libusb_device_handle* h = open_handle_of(DevHandle);
    if (h == nullptr) return 0;
    const VendorRequest request{bmRequestType, bRequest, wValue, wIndex, wLength, TimeOutMs};
    return vendor_control(h, DevHandle, request, data) == static_cast<int>(wLength) ? 1 : 0;
}
