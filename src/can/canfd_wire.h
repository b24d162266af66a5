// The CAN FD adapters' packed frame format, used in both directions: a 12-byte head of
// three little-endian words, then the data bytes the coded DLC stands for.
//   word 0: identifier in controller layout
//   word 1: bits 0-3 coded DLC, 4 29-bit identifier, 5 remote, 6 bit-rate switch,
//           7 FD frame, 8 error state; bits 9-15 index within a send request;
//           bits 16-23 time stamp bits 32-39 (received frames)
//   word 2: time stamp low 32 bits (0 on transmit)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "polybus/canfd.h"
#include "transport/bytes.h"
#include "wire/canfd.h"

namespace polybus {

using wire::kFdHead;

inline uint8_t DataBytesToDlc(unsigned bytes) {
    if (bytes <= 8) return static_cast<uint8_t>(bytes);
    if (bytes <= 12) return 9;
    if (bytes <= 16) return 10;
    if (bytes <= 20) return 11;
    if (bytes <= 24) return 12;
    if (bytes <= 32) return 13;
    if (bytes <= 48) return 14;
    return 15;
}

inline uint8_t DlcToDataBytes(unsigned dlc) {
    static const uint8_t bytes[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    return bytes[dlc & 0xF];
}

// 29-bit identifiers put their top 11 bits first (bits 0-10) and the low 18 behind
// (bits 11-28); 11-bit identifiers sit in bits 0-10 with an optional 12th bit at 29.
inline uint32_t id_to_wire(uint32_t id, bool extended) {
    if (extended) return ((id >> 18) & 0x7FFu) | (id & 0x3FFFFu) << 11;
    return (id & 0x7FFu) | ((id >> 11) & 1u) << 29;
}

inline uint32_t id_from_wire(uint32_t word, bool extended) {
    if (extended) return (word & 0x7FFu) << 18 | ((word >> 11) & 0x3FFFFu);
    return (word & 0x7FFu) | ((word >> 29) & 1u) << 11;
}

// Head word 0 of a frame to send: its identifier in controller layout.
inline uint32_t fd_send_word0(const CANFD_MSG& m) {
    return id_to_wire(m.ID & 0x1FFFFFFFu, (m.ID >> 31) & 1u);
}

// Head word 1 of a frame to send, `index` being its place in the send request.
inline uint32_t fd_send_word1(const CANFD_MSG& m, unsigned index) {
    uint32_t w1 = DataBytesToDlc(m.DLC);
    w1 |= ((m.ID >> 31) & 1u) << 4;      // 29-bit identifier
    w1 |= ((m.ID >> 30) & 1u) << 5;      // remote
    w1 |= (m.Flags & 1u) << 6;           // bit-rate switch
    w1 |= ((m.Flags >> 2) & 1u) << 7;    // FD frame
    w1 |= ((m.Flags >> 1) & 1u) << 8;    // error state
    w1 |= (index & 0x7Fu) << 9;
    return w1;
}

// Data bytes that go with a frame to send: as many as its coded DLC stands for, all
// taken from Data as the caller left it.
inline size_t fd_send_data_bytes(const CANFD_MSG& m) { return DlcToDataBytes(DataBytesToDlc(m.DLC)); }

// Writes one frame for a send request; returns the bytes written (12 + data).
inline size_t pack_fd_frame(const CANFD_MSG& m, unsigned index, uint8_t* out) {
    put_le32(out, fd_send_word0(m));
    put_le32(out + 4, fd_send_word1(m, index));
    put_le32(out + 8, 0);
    const size_t n = fd_send_data_bytes(m);
    std::memcpy(out + kFdHead, m.Data, n);
    return kFdHead + n;
}

// Identifier word of a CANFD_MSG from a frame head.
inline uint32_t fd_id_from_head(const uint8_t* head) {
    const uint32_t w0 = get_le32(head), w1 = get_le32(head + 4);
    const bool extended = (w1 >> 4) & 1u;
    return id_from_wire(w0, extended) | ((w1 >> 5) & 1u) << 30 | (extended ? 1u : 0u) << 31;
}

// Bit-rate switch, error state and FD-frame bits of a frame head, in CANFD_MSG.Flags layout.
inline uint8_t fd_flags_from_head(const uint8_t* head) {
    const uint32_t w1 = get_le32(head + 4);
    return static_cast<uint8_t>(((w1 >> 6) & 1u) | ((w1 >> 8) & 1u) << 1 | ((w1 >> 7) & 1u) << 2);
}

// Reads one received frame from `avail` bytes; returns the bytes it took, or 0 when the
// frame does not fit (a truncated answer).
inline size_t unpack_fd_frame(const uint8_t* in, size_t avail, int channel, CANFD_MSG* out) {
    if (avail < kFdHead) return 0;
    const size_t n = DlcToDataBytes(get_le32(in + 4) & 0xFu);
    if (avail < kFdHead + n) return 0;
    CANFD_MSG m;
    std::memset(&m, 0, sizeof(m));
    m.ID = fd_id_from_head(in);
    m.DLC = static_cast<uint8_t>(n);
    m.Flags = static_cast<uint8_t>(fd_flags_from_head(in) | (channel & 1) << 5);
    m.TimeStampHigh = in[6];
    m.TimeStamp = get_le32(in + 8);
    std::memcpy(m.Data, in + kFdHead, n);
    if (out != nullptr) *out = m;
    return kFdHead + n;
}

}  // namespace polybus
