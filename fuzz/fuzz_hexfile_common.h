// Shared driver of the hexfile reader fuzz targets.
//
// Input layout: the last byte chooses the address unit (and whether the image is also
// saved), the byte before it the capacity of the block array (0..8); the rest is the
// file, handed over in an exact-size heap buffer so that any read past fileLen is an
// AddressSanitizer report. Checks beyond "no crash": the result lies within 0..max,
// the element after the capacity is never written, every filled block's buffer holds
// DataLen bytes, and hexfile_convert_image writes exactly the size the blocks describe.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "polybus/hexfile.h"

namespace fuzz_hexfile {

inline void check(bool cond) {
    if (!cond) __builtin_trap();
}

// Expected image size of blocks[0..count) (stable sort, gaps from the
// block just before), or SIZE_MAX when it exceeds limit.
inline size_t image_size(const HEX_DATA_BLOCK* blocks, int count, uint32_t unit, size_t limit) {
    std::vector<HEX_DATA_BLOCK> b(blocks, blocks + count);
    std::stable_sort(b.begin(), b.end(),
                     [](const HEX_DATA_BLOCK& x, const HEX_DATA_BLOCK& y) { return x.StartAddr < y.StartAddr; });
    uint64_t total = 0;
    for (size_t i = 0; i < b.size(); ++i) {
        total += b[i].DataLen;
        if (i + 1 < b.size()) {
            const uint32_t end = b[i].StartAddr + b[i].DataLen / unit;
            if (b[i + 1].StartAddr > end) total += static_cast<uint64_t>(b[i + 1].StartAddr - end) * unit;
        }
        if (total > limit) return SIZE_MAX;
    }
    return static_cast<size_t>(total);
}

// reader(file, len, blocks, max, unitArg) -> count; unitArg as the reader takes it.
template <typename Reader>
int run(const uint8_t* data, size_t size, Reader reader, const int64_t* units, uint32_t (*unitOf)(int64_t)) {
    FuzzedDataProvider fdp(data, size);
    const uint8_t sel = fdp.ConsumeIntegral<uint8_t>();
    const int maxBlocks = fdp.ConsumeIntegral<uint8_t>() % 9;
    const std::vector<uint8_t> text = fdp.ConsumeRemainingBytes<uint8_t>();
    const int64_t unitArg = units[sel & 7];

    uint8_t* file = static_cast<uint8_t*>(std::malloc(text.empty() ? 1 : text.size()));
    if (!text.empty()) std::memcpy(file, text.data(), text.size());

    std::vector<HEX_DATA_BLOCK> blocks(static_cast<size_t>(maxBlocks) + 1, HEX_DATA_BLOCK{0, 0, nullptr});
    blocks[static_cast<size_t>(maxBlocks)] = HEX_DATA_BLOCK{0x5A5A5A5Au, 0x5A5A5A5Au, nullptr};
    const int count = reader(file, static_cast<int>(text.size()), blocks.data(), maxBlocks, unitArg);

    check(count >= 0 && count <= maxBlocks);
    const HEX_DATA_BLOCK& guard = blocks[static_cast<size_t>(maxBlocks)];
    check(guard.StartAddr == 0x5A5A5A5Au && guard.DataLen == 0x5A5A5A5Au && guard.pData == nullptr);
    volatile uint8_t sink = 0;
    for (int i = 0; i < count; ++i) {
        check(blocks[i].pData != nullptr);
        for (uint32_t k = 0; k < blocks[i].DataLen; ++k) sink = sink ^ blocks[i].pData[k];
    }

    const uint32_t unit = unitOf(unitArg);
    if (count > 0 && unit >= 1) {
        const size_t want = image_size(blocks.data(), count, unit, 1u << 20);
        if (want != SIZE_MAX) {
            uint8_t* image = static_cast<uint8_t*>(std::malloc(want + 1));
            const int n = hexfile_convert_image(image, blocks.data(), count, static_cast<char>(unit), 0xA5);
            check(static_cast<size_t>(n) == want);
            for (int i = 0; i + 1 < count; ++i) check(blocks[i].StartAddr <= blocks[i + 1].StartAddr);
            std::free(image);
            if (sel & 8) {
                char path[] = "/dev/null";
                const int w = hexfile_save_image(path, blocks.data(), count, static_cast<char>(unit), sel & 16);
                check(w >= 0 && static_cast<size_t>(w) <= want);
                if (sel & 16) check(static_cast<size_t>(w) == want);
            }
        }
    }
    hexfile_free_data(blocks.data(), maxBlocks);
    std::free(file);
    return 0;
}

// Address units for the S-record and Intel HEX readers (a signed char argument).
inline constexpr int64_t kCharUnits[8] = {1, 2, 1, 2, 4, 0, -1, 3};
inline uint32_t char_unit(int64_t u) { return u >= 1 ? static_cast<uint32_t>(u) : 0; }

}  // namespace fuzz_hexfile
