// The ADC frame list: a first-in first-out list of streamed frames between two
// sentinel nodes. Not synchronised: its owner guards it with the device's ADC data
// mutex.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>

namespace polybus {

struct cache_list {
    cache_list* next;
    cache_list* prev;
    uint32_t len;       // bytes received
    uint32_t capacity;  // bytes the buffer holds
    unsigned char* data;

    // A node owning a copy of `len` bytes in a buffer of `capacity` (>= len); null when
    // memory runs out.
    static cache_list* make(const void* bytes, uint32_t len, uint32_t capacity) {
        if (len > capacity) len = capacity;
        auto* node = new (std::nothrow) cache_list{nullptr, nullptr, len, capacity, nullptr};
        if (node == nullptr) return nullptr;
        node->data = new (std::nothrow) unsigned char[capacity == 0 ? 1 : capacity];
        if (node->data == nullptr) {
            delete node;
            return nullptr;
        }
        if (len != 0) std::memcpy(node->data, bytes, len);
        return node;
    }
    static void destroy(cache_list* node) {
        if (node == nullptr) return;
        delete[] node->data;
        delete node;
    }
};

class data_cache_list {
public:
    data_cache_list() {
        head_.next = &tail_;
        head_.prev = nullptr;
        tail_.prev = &head_;
        tail_.next = nullptr;
    }
    ~data_cache_list() { clear(); }
    data_cache_list(const data_cache_list&) = delete;
    data_cache_list& operator=(const data_cache_list&) = delete;

    void add(cache_list* node) {
        node->prev = tail_.prev;
        node->next = &tail_;
        tail_.prev->next = node;
        tail_.prev = node;
    }
    // Unlinks and returns the oldest node (the caller destroys it), or null.
    cache_list* post() {
        if (is_empty()) return nullptr;
        cache_list* node = head_.next;
        head_.next = node->next;
        node->next->prev = &head_;
        node->next = node->prev = nullptr;
        return node;
    }
    bool is_empty() const { return head_.next == &tail_; }
    // Unlinks and frees every node with its buffer.
    void clear() {
        while (cache_list* node = post()) cache_list::destroy(node);
    }
    int length() const {
        int n = 0;
        for (const cache_list* p = head_.next; p != &tail_; p = p->next) ++n;
        return n;
    }

private:
    cache_list head_{};
    cache_list tail_{};
};

}  // namespace polybus
