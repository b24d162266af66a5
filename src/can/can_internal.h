// What the CAN, CAN FD and schedule files share: record conversion between the two frame
// kinds, bit-timing look-up, and the reception state of each family.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "can/reception.h"
#include "polybus/can.h"
#include "polybus/canfd.h"
#include "transport/exchange.h"

namespace polybus {

// Classic frames to CAN FD frames: 29-bit flag into ID bit 31, time stamp from 100 us to
// 10 us units. The remote bit is not carried.
inline void can_to_canfd(const CAN_MSG* in, CANFD_MSG* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        CANFD_MSG m;
        std::memset(&m, 0, sizeof(m));
        m.ID = (static_cast<uint32_t>(in[i].ExternFlag & 1u) << 31) | in[i].ID;
        m.DLC = in[i].DataLen;
        std::memcpy(m.Data, in[i].Data, sizeof(in[i].Data));
        const uint64_t stamp = (uint64_t{in[i].TimeStampHigh} << 32 | in[i].TimeStamp) * 10u;
        m.TimeStamp = static_cast<uint32_t>(stamp);
        m.TimeStampHigh = static_cast<uint8_t>(stamp >> 32);
        out[i] = m;
    }
}

// CAN FD frames back to classic frames. A classic record holds 8 data bytes: longer
// frames keep their length in DataLen but only their first 8 bytes.
inline void canfd_to_can(const CANFD_MSG* in, CAN_MSG* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        CAN_MSG m;
        std::memset(&m, 0, sizeof(m));
        m.ID = in[i].ID & 0x1FFFFFFFu;
        m.ExternFlag = static_cast<uint8_t>(in[i].ID >> 31);
        m.DataLen = in[i].DLC;
        std::memcpy(m.Data, in[i].Data, in[i].DLC < 8 ? in[i].DLC : 8);
        m.RemoteFlag = 0;
        const uint64_t stamp = (uint64_t{in[i].TimeStampHigh} << 32 | in[i].TimeStamp) / 10u;
        m.TimeStamp = static_cast<uint32_t>(stamp);
        m.TimeStampHigh = static_cast<uint8_t>(stamp >> 32);
        out[i] = m;
    }
}

// The row of `table` (ending with its all-zero row) for a bit rate, searching at most
// `rows` rows; null when the rate is not listed.
inline const CAN_BRT_ENTRY* find_timing(const CAN_BRT_ENTRY* table, size_t rows, uint32_t bps) {
    for (size_t i = 0; i < rows; ++i)
        if (table[i].BaudRate == bps) return &table[i];
    return nullptr;
}


Reception<CAN_MSG>& can_reception();
Reception<CANFD_MSG>& canfd_reception();

// The one line the schedule calls print when the adapter refuses (an answer byte of
// -1 means no byte came; the receive status is 0 or kNoHeader).
void report_refusal(int answer_byte, int receive_status);

}  // namespace polybus
