// A bounded first-in first-out buffer of trivially copyable entries (CAN frames, LIN
// diagnostic records, SPI slave bytes).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

namespace polybus {

// Entries in arrival order, at most `kLimit`; appending to a full buffer drops the
// oldest first. Storage grows on demand, so idle channels cost nothing. Not
// synchronised: the owner guards it with its family's data mutex.
template <typename T, size_t kLimit>
class BoundedFifo {
    static_assert(std::is_trivially_copyable<T>::value, "entries are moved as bytes");

public:
    size_t size() const { return count_; }
    static constexpr size_t limit() { return kLimit; }

    void push(const T* items, size_t n) {
        if (n == 0 || items == nullptr) return;
        if (n >= kLimit) {  // only the newest kLimit survive
            items += n - kLimit;
            n = kLimit;
            head_ = 0;
            count_ = 0;
        }
        if (!reserve(count_ + n)) return;
        const size_t excess = count_ + n > kLimit ? count_ + n - kLimit : 0;
        head_ = (head_ + excess) % cap_;
        count_ -= excess;
        size_t tail = (head_ + count_) % cap_;
        size_t first = std::min(n, cap_ - tail);
        std::memcpy(buf_.get() + tail, items, first * sizeof(T));
        std::memcpy(buf_.get(), items + first, (n - first) * sizeof(T));
        count_ += n;
    }

    // Moves up to `max` of the oldest items to `out`; returns how many.
    size_t pop(T* out, size_t max) {
        const size_t n = std::min(max, count_);
        if (n == 0 || out == nullptr) return 0;
        const size_t first = std::min(n, cap_ - head_);
        std::memcpy(out, buf_.get() + head_, first * sizeof(T));
        std::memcpy(out + first, buf_.get(), (n - first) * sizeof(T));
        head_ = (head_ + n) % cap_;
        count_ -= n;
        return n;
    }

    void clear() {
        head_ = 0;
        count_ = 0;
    }

private:
    // Makes room for `need` items (at most kLimit), keeping the items in order.
    bool reserve(size_t need) {
        need = std::min(need, kLimit);
        if (need <= cap_) return true;
        size_t cap = std::max<size_t>(cap_ * 2, 256);
        cap = std::min(std::max(cap, need), kLimit);
        std::unique_ptr<T[]> grown(new (std::nothrow) T[cap]);
        if (!grown) return false;
        const size_t first = std::min(count_, cap_ - head_);
        if (count_ != 0) {
            std::memcpy(grown.get(), buf_.get() + head_, first * sizeof(T));
            std::memcpy(grown.get() + first, buf_.get(), (count_ - first) * sizeof(T));
        }
        buf_ = std::move(grown);
        cap_ = cap;
        head_ = 0;
        return true;
    }

    std::unique_ptr<T[]> buf_;
    size_t cap_ = 0;
    size_t head_ = 0;
    size_t count_ = 0;
};

}  // namespace polybus
