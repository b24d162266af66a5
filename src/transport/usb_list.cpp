// The device list: a doubly linked list between two static sentinels. List order is
// the order in which adapters were first found, and a device's position in it is
// its slot in every per-device array.
#include "transport/usb_device.h"

#include <cstdlib>

namespace {
UsbDevNode head_node{};
UsbDevNode tail_node{};
UsbDevNode* const head = &head_node;
UsbDevNode* const tail = &tail_node;

// The sentinels are linked lazily so that a list operation before the first scan
// sees an empty list rather than null links.
void ensure_linked() {
    if (head->next == nullptr || tail->prev == nullptr) {
        head->next = tail;
        head->prev = nullptr;
        tail->prev = head;
        tail->next = nullptr;
    }
}
}  // namespace

void usb_list_init() {
    head->next = tail;
    head->prev = nullptr;
    tail->prev = head;
    tail->next = nullptr;
}

void usb_list_add(UsbDevNode* node) {
    ensure_linked();
    if (node == nullptr) return;
    for (UsbDevNode* n = head->next; n != tail; n = n->next) {
        if (n->DevHandle == node->DevHandle) {
            n->dev = node->dev;
            n->handle = node->handle;
            return;
        }
    }
    node->prev = tail->prev;
    node->next = tail;
    tail->prev->next = node;
    tail->prev = node;
}

void usb_list_del(UsbDevNode* node) {
    if (node == nullptr || node == head || node == tail) return;
    ensure_linked();
    node->prev->next = node->next;
    node->next->prev = node->prev;
    std::free(node);
}

void usb_list_clear() {
    ensure_linked();
    UsbDevNode* n = head->next;
    while (n != tail) {
        UsbDevNode* next = n->next;
        std::free(n);
        n = next;
    }
    head->next = tail;
    tail->prev = head;
}

bool usb_list_is_empty() {
    ensure_linked();
    return head->next == tail && tail->prev == head;
}

int usb_list_length() {
    ensure_linked();
    int count = 0;
    for (UsbDevNode* n = head->next; n != tail; n = n->next) ++count;
    return count;
}

int usb_list_get_devnums(uint32_t* out) {
    ensure_linked();
    int count = 0;
    for (UsbDevNode* n = head->next; n != tail; n = n->next) {
        if (out != nullptr) out[count] = n->DevHandle;
        ++count;
    }
    return count;
}

UsbDevNode* usb_list_post(uint32_t handle) {
    ensure_linked();
    for (UsbDevNode* n = head->next; n != tail; n = n->next)
        if (n->DevHandle == handle) return n;
    return nullptr;
}

UsbDevNode* usb_list_post_with_dev(libusb_device* dev) {
    ensure_linked();
    for (UsbDevNode* n = head->next; n != tail; n = n->next)
        if (n->dev == dev) return n;
    return nullptr;
}

UsbDevNode* usb_list_post_with_index(int index) {
    ensure_linked();
    int i = 0;
    for (UsbDevNode* n = head->next; n != tail; n = n->next, ++i)
        if (i == index) return n;
    return nullptr;
}

uint32_t usb_list_get_index(uint32_t handle) {
    if (handle >= 0xFF000000u) return handle & 0xFFu;
    ensure_linked();
    uint32_t i = 0;
    for (UsbDevNode* n = head->next; n != tail; n = n->next, ++i)
        if (n->DevHandle == handle) return i;
    return kNoSlot;
}

bool usb_device_is_open(int handle) {
    const UsbDevNode* n = usb_list_post(static_cast<uint32_t>(handle));
    return n != nullptr && n->handle != nullptr;
}
