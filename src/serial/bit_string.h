// Bit strings of the SPI family: "0"/"1" text, first character first on the wire,
// packed most significant bit first with the last byte padded by zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace polybus {

// Longest bit string sent: the adapter takes at most 20,480 bytes of bits.
constexpr size_t kMaxBits = 163840;

inline size_t bit_bytes(size_t bits) { return (bits + 7) / 8; }

// The number of bits of `text` that are sent (the rest is ignored).
inline size_t bits_to_send(const char* text) {
    const size_t n = std::strlen(text);
    return bit_bytes(n) < 20481 ? n : kMaxBits;
}

// Packs the first `bits` characters into `out` (bit_bytes(bits) bytes). False, with
// `out` partly written, at the first character that is not '0' or '1'.
inline bool pack_bits(const char* text, size_t bits, uint8_t* out) {
    std::memset(out, 0, bit_bytes(bits));
    for (size_t i = 0; i < bits; ++i) {
        const char c = text[i];
        if ((c & 0xFE) != '0') return false;
        if (c == '1') out[i / 8] |= uint8_t(0x80u >> (i % 8));
    }
    return true;
}

// Unpacks up to `bits` bits from `n` bytes into `text` (NUL-terminated, so it must hold
// min(bits, 8n) + 1 characters); returns the number of characters written.
inline size_t unpack_bits(const uint8_t* bytes, size_t n, size_t bits, char* text) {
    size_t k = 0;
    for (size_t i = 0; i < n * 8 && i < bits; ++i) text[k++] = (bytes[i / 8] & (0x80u >> (i % 8))) ? '1' : '0';
    text[k] = '\0';
    return k;
}

}  // namespace polybus
