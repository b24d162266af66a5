// The pure parts of ISO 15765-2 as the UDS calls use them: bytes per frame for a frame
// length and addressing mode, protocol-control information written and read, and the
// reading of the receiver's separation time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace polybus {
namespace isotp {

constexpr uint8_t kPad = 0x55;

// Frame lengths outside 8..64 are taken as 8.
inline uint8_t corrected_frame_len(uint8_t len) { return len < 8 || len > 64 ? 8 : len; }

// Bytes of payload per frame kind for frame length `len` (already corrected) and
// extended addressing `ext` (it costs the first byte of every frame).
struct Capacity {
    int single;         // largest single-frame payload
    int first;          // first-frame payload, message below 4096 bytes
    int first_escaped;  // first-frame payload, message of 4096 bytes or more
    int consecutive;    // consecutive-frame payload
};

inline Capacity capacity(uint8_t len, bool ext) {
    const int x = ext ? 1 : 0;
    if (len <= 8) return {7 - x, 6 - x, 6 - x, 7 - x};
    return {len - 2 - x, len - 2 - x, len - 6 - x, len - 1 - x};
}

// Messages of this length or more need the escaped first frame (length in 4 bytes).
constexpr uint32_t kEscapedLength = 4096;

// Single-frame PCI for a message of `length` bytes: one byte for frames of 8, two (00,
// length) for longer ones. Returns the bytes written (1 or 2).
inline size_t single_pci(uint8_t* out, uint8_t frame_len, uint32_t length) {
    if (frame_len <= 8) {
        out[0] = static_cast<uint8_t>(length & 0x0F);
        return 1;
    }
    out[0] = 0x00;
    out[1] = static_cast<uint8_t>(length);
    return 2;
}

// First-frame PCI: 1n nn below 4096 bytes, else 10 00 and the length big-endian.
// Returns the bytes written (2 or 6).
inline size_t first_pci(uint8_t* out, uint32_t length) {
    if (length < kEscapedLength) {
        out[0] = static_cast<uint8_t>(0x10 | ((length >> 8) & 0x0F));
        out[1] = static_cast<uint8_t>(length);
        return 2;
    }
    out[0] = 0x10;
    out[1] = 0x00;
    out[2] = static_cast<uint8_t>(length >> 24);
    out[3] = static_cast<uint8_t>(length >> 16);
    out[4] = static_cast<uint8_t>(length >> 8);
    out[5] = static_cast<uint8_t>(length);
    return 6;
}

inline uint8_t consecutive_pci(uint32_t sequence) { return static_cast<uint8_t>(0x20 | (sequence & 0x0F)); }

// A received frame's protocol-control information, read from the bytes after the
// address extension.
enum class Kind { Single, First, Consecutive, FlowControl, Invalid };

struct Pci {
    Kind kind = Kind::Invalid;
    uint32_t length = 0;  // single: message length; first: announced total
    bool long_form = false;  // single: 00 nn form; first: escaped length in 4 bytes
    size_t header = 0;    // PCI bytes before the payload
    uint8_t sequence = 0;  // consecutive: low nibble
    uint8_t flow_status = 0, block_size = 0, st_min = 0;  // flow control
    bool complete = true;  // every PCI byte the form needs was present
};

inline Pci read_pci(const uint8_t* p, size_t n) {
    Pci pci;
    if (n == 0) {
        pci.complete = false;
        return pci;
    }
    const uint8_t type = p[0] >> 4, low = p[0] & 0x0F;
    auto byte = [&](size_t i) -> uint8_t { return i < n ? p[i] : 0; };
    switch (type) {
        case 0:
            pci.kind = Kind::Single;
            if (low != 0) {
                pci.length = low;
                pci.header = 1;
            } else {
                pci.long_form = true;
                pci.length = byte(1);
                pci.header = 2;
            }
            break;
        case 1:
            pci.kind = Kind::First;
            pci.length = uint32_t{low} << 8 | byte(1);
            pci.header = 2;
            if (pci.length == 0) {
                pci.long_form = true;
                pci.length = uint32_t{byte(2)} << 24 | uint32_t{byte(3)} << 16 | uint32_t{byte(4)} << 8 | byte(5);
                pci.header = 6;
            }
            break;
        case 2:
            pci.kind = Kind::Consecutive;
            pci.sequence = low;
            pci.header = 1;
            break;
        case 3:
            pci.kind = Kind::FlowControl;
            pci.flow_status = low;
            pci.block_size = byte(1);
            pci.st_min = byte(2);
            pci.header = 3;
            break;
        default:
            pci.kind = Kind::Invalid;
            pci.header = 1;
            break;
    }
    pci.complete = pci.header <= n;
    return pci;
}

// The separation time of a flow control, read as a signed byte: 1..127 is a pause in
// ms after every frame; 0 and 0x80..0xFF (the sub-millisecond codes 0xF1..0xF9 among
// them) mean no pause at all, and the frames go in batches. Returns the pause in ms,
// 0 for none.
inline int separation_pause_ms(uint8_t st_min) {
    const int8_t signed_value = static_cast<int8_t>(st_min);
    return signed_value >= 1 ? signed_value : 0;
}

}  // namespace isotp
}  // namespace polybus
