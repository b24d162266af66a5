// Host-side frame buffers of the CAN families: a bounded first-in first-out ring that
// drops its oldest frames when full, and the time-stamp sort applied to fetched batches.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "polybus/can.h"

namespace polybus {

// Frames in arrival order, at most `kLimit`; appending to a full ring drops the oldest
// first. Storage grows on demand, so idle channels cost nothing.
template <typename Msg, size_t kLimit = CAN_BUFFER_FRAMES>
class FrameRing {
public:
    size_t size() const { return count_; }
    static constexpr size_t limit() { return kLimit; }

    void push(const Msg* frames, size_t n) {
        if (n == 0 || frames == nullptr) return;
        if (n >= kLimit) {  // only the newest kLimit survive
            frames += n - kLimit;
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
        std::memcpy(buf_.get() + tail, frames, first * sizeof(Msg));
        std::memcpy(buf_.get(), frames + first, (n - first) * sizeof(Msg));
        count_ += n;
    }

    // Moves up to `max` of the oldest frames to `out`; returns how many.
    size_t pop(Msg* out, size_t max) {
        const size_t n = std::min(max, count_);
        if (n == 0 || out == nullptr) return 0;
        const size_t first = std::min(n, cap_ - head_);
        std::memcpy(out, buf_.get() + head_, first * sizeof(Msg));
        std::memcpy(out + first, buf_.get(), (n - first) * sizeof(Msg));
        head_ = (head_ + n) % cap_;
        count_ -= n;
        return n;
    }

    void clear() {
        head_ = 0;
        count_ = 0;
    }

private:
    // Makes room for `need` frames (at most kLimit), keeping the frames in order.
    bool reserve(size_t need) {
        need = std::min(need, kLimit);
        if (need <= cap_) return true;
        size_t cap = std::max<size_t>(cap_ * 2, 256);
        cap = std::min(std::max(cap, need), kLimit);
        std::unique_ptr<Msg[]> grown(new (std::nothrow) Msg[cap]);
        if (!grown) return false;
        const size_t first = std::min(count_, cap_ - head_);
        if (count_ != 0) {
            std::memcpy(grown.get(), buf_.get() + head_, first * sizeof(Msg));
            std::memcpy(grown.get() + first, buf_.get(), (count_ - first) * sizeof(Msg));
        }
        buf_ = std::move(grown);
        cap_ = cap;
        head_ = 0;
        return true;
    }

    std::unique_ptr<Msg[]> buf_;
    size_t cap_ = 0;
    size_t head_ = 0;
    size_t count_ = 0;
};

// Sorts frames by the low 32 bits of their time stamp, ascending; equal stamps keep
// their order. The adapter delivers batches that are sorted or nearly so: the few frames
// out of place are moved back by insertion, which costs O(n) on such batches. Should a
// batch need more moves than a few per frame, it is handed to a merge sort instead, so
// no input costs more than O(n log n).
inline void sort_by_stamp(CAN_MSG* frames, size_t n) {
    if (frames == nullptr || n < 2) return;
    size_t budget = 8 * n;  // element moves allowed before falling back
    for (size_t i = 1; i < n; ++i) {
        if (frames[i].TimeStamp >= frames[i - 1].TimeStamp) continue;
        const CAN_MSG moving = frames[i];
        size_t j = i;
        // Strictly greater: a frame never passes an earlier one with the same stamp.
        while (j > 0 && frames[j - 1].TimeStamp > moving.TimeStamp) {
            frames[j] = frames[j - 1];
            --j;
        }
        frames[j] = moving;
        const size_t moved = i - j;
        if (moved >= budget) {
            std::stable_sort(frames, frames + n,
                             [](const CAN_MSG& a, const CAN_MSG& b) { return a.TimeStamp < b.TimeStamp; });
            return;
        }
        budget -= moved;
    }
}

}  // namespace polybus
