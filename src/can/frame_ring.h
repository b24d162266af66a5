// Host-side frame buffers of the CAN families, and the time-stamp sort applied to
// fetched batches.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "polybus/can.h"
#include "util/bounded_fifo.h"

namespace polybus {

// A channel's frames in arrival order, at most CAN_BUFFER_FRAMES; the oldest go first.
template <typename Msg, size_t kLimit = CAN_BUFFER_FRAMES>
using FrameRing = BoundedFifo<Msg, kLimit>;

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
