// The pure rules of LIN frames: protected identifiers, the carry-around checksum, how
// the library prepares a frame for the adapter and how it judges a frame that comes
// back. No device traffic here, so the unit tests reach every rule directly.
#pragma once

#include <cstddef>
#include <cstdint>

#include "polybus/lin.h"

namespace polybus {
namespace lin {

// Identifier (low 6 bits) with its two parity bits; parity bits already set are replaced.
inline uint8_t protected_id(uint8_t id) {
    const unsigned i = id & 0x3Fu;
    auto bit = [i](unsigned n) { return (i >> n) & 1u; };
    const unsigned p0 = bit(0) ^ bit(1) ^ bit(2) ^ bit(4);
    const unsigned p1 = (bit(1) ^ bit(3) ^ bit(4) ^ bit(5)) ^ 1u;
    return static_cast<uint8_t>(i | p0 << 6 | p1 << 7);
}

// Carry-around sum: a carry out of the byte is added back in (s - 255).
inline uint8_t checksum(uint8_t seed, const uint8_t* data, size_t n) {
    unsigned s = seed;
    for (size_t k = 0; k < n; ++k) {
        s += data[k];
        if (s > 255) s -= 255;
    }
    return static_cast<uint8_t>(~s);
}
inline uint8_t classic_checksum(const uint8_t* data, size_t n) { return checksum(0, data, n); }
inline uint8_t enhanced_checksum(uint8_t pid, const uint8_t* data, size_t n) { return checksum(pid, data, n); }

// Verdict of received data against its checksum: classic first, then enhanced.
inline uint8_t verdict(uint8_t pid, const uint8_t* data, size_t n, uint8_t check) {
    if (n > 8) n = 8;
    if (classic_checksum(data, n) == check) return LIN_EX_CHECK_CLASSIC;
    if (enhanced_checksum(pid, data, n) == check) return LIN_EX_CHECK_ENHANCED;
    return LIN_EX_CHECK_ERROR;
}

// Puts the checksum of a record (classic, enhanced or the caller's) into Check and, when
// there is room, behind the data. Other check types leave the record alone. The sum
// covers at most 8 bytes, whatever DataLen claims.
inline void place_checksum(LIN_EX_MSG& m) {
    const size_t n = m.DataLen < 8 ? m.DataLen : 8;
    switch (m.CheckType) {
        case LIN_EX_CHECK_CLASSIC: m.Check = classic_checksum(m.Data, n); break;
        case LIN_EX_CHECK_ENHANCED: m.Check = enhanced_checksum(m.PID, m.Data, n); break;
        case LIN_EX_CHECK_USER: break;
        default: return;
    }
    if (m.DataLen < 8) m.Data[m.DataLen] = m.Check;
}

constexpr uint32_t kMaxDelayMs = 5000;
inline uint8_t break_bits(uint8_t b) { return b >= 10 && b <= 26 ? b : 13; }

// A frame of a LIN_EX_MasterSync batch as it goes to the adapter; returns its delay.
inline uint32_t prepare_sync_frame(LIN_EX_MSG& m) {
    m.Sync = 0x55;
    m.PID = protected_id(m.PID);
    if (m.TimeStamp > kMaxDelayMs) m.TimeStamp = kMaxDelayMs;
    m.BreakBits = break_bits(m.BreakBits);
    if (m.DataLen > 8) m.DataLen = 8;
    if (m.MsgType == 1 || m.MsgType == 3) place_checksum(m);
    return m.TimeStamp;
}

// A frame of the adapter-run schedule: DataLen is kept as given.
inline void prepare_schedule_frame(LIN_EX_MSG& m) {
    m.Sync = 0x55;
    m.PID = protected_id(m.PID);
    if (m.TimeStamp > kMaxDelayMs) m.TimeStamp = kMaxDelayMs;
    m.BreakBits = break_bits(m.BreakBits);
    if (m.MsgType == LIN_EX_MSG_MASTER_WRITE) place_checksum(m);
    else m.DataLen = 0;
}

// An entry of the slave ID-mode table: only Sync and PID are normalised.
inline void prepare_slave_entry(LIN_EX_MSG& m) {
    m.Sync = 0x55;
    m.PID = protected_id(m.PID);
    if (m.MsgType == 3 || m.MsgType == 4 || m.MsgType == 0x83) place_checksum(m);
}

// A kind-8 result counted the checksum as its last data byte: take it out again. The
// counted length is at most 9 (8 bytes and the checksum); a frame with nothing counted
// is reported with DataLen 255.
inline void split_counted_checksum(LIN_EX_MSG& m, uint8_t sent_check_type) {
    const uint8_t k = m.DataLen > 9 ? 9 : m.DataLen;
    // The byte before Data[k]: the identifier for k = 0, the Check field itself for k = 9.
    if (k == 0) m.Check = m.PID;
    else if (k <= 8) m.Check = m.Data[k - 1];
    const size_t n = k > 1 ? k - 1u : 0u;
    m.CheckType = sent_check_type == LIN_EX_CHECK_USER ? uint8_t(LIN_EX_CHECK_USER) : verdict(m.PID, m.Data, n, m.Check);
    m.DataLen = static_cast<uint8_t>(k - 1);
}

// Judges result `r` of a LIN_EX_MasterSync against the frame `sent` as it went out.
inline void judge_sync_result(LIN_EX_MSG& r, const LIN_EX_MSG& sent) {
    if (r.MsgType == LIN_EX_MSG_CHECK_SEPARATE) {
        if (sent.CheckType == LIN_EX_CHECK_USER || sent.CheckType == LIN_EX_CHECK_NONE) {
            r.CheckType = sent.CheckType;
            return;
        }
        if (r.DataLen > 8) r.DataLen = 8;
        r.CheckType = verdict(r.PID, r.Data, r.DataLen, r.Check);
    } else if (r.MsgType == LIN_EX_MSG_CHECK_IN_DATA) {
        if (sent.CheckType == LIN_EX_CHECK_NONE) {
            r.CheckType = LIN_EX_CHECK_NONE;
            return;
        }
        split_counted_checksum(r, sent.CheckType);
    } else {
        r.CheckType = LIN_EX_CHECK_NONE;
    }
}

// Judges a frame the adapter recorded as a slave.
inline void judge_slave_record(LIN_EX_MSG& r) {
    switch (r.MsgType) {
        case LIN_EX_MSG_BREAK:
            r.CheckType = LIN_EX_CHECK_NONE;
            r.DataLen = 0;
            r.PID = 0xFF;
            break;
        case LIN_EX_MSG_CHECK_IN_DATA: split_counted_checksum(r, LIN_EX_CHECK_CLASSIC); break;
        case LIN_EX_MSG_CHECK_SEPARATE: r.CheckType = verdict(r.PID, r.Data, r.DataLen, r.Check); break;
        default: break;
    }
}

// How long LIN_EX_MasterSync waits for the results of a batch (ms), kept in int.
inline int sync_timeout_ms(uint64_t delay_total_ms, uint32_t baud, uint64_t frames) {
    const uint64_t ms = delay_total_ms + (baud == 0 ? 0 : 123000u / baud) * frames + 100u;
    return ms > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int>(ms);
}

}  // namespace lin
}  // namespace polybus
