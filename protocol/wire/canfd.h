// CAN FD wire protocol (adapters 0x53 and 0x54): command codes and payloads, shared by
// the library, the simulator and the tests. The adapter's own records are little-endian.
//
// A packed frame is a 12-byte head of three le32 words, then the data bytes its coded
// DLC stands for (0-8, 12, 16, 20, 24, 32, 48, 64):
//   word 0  identifier in controller layout: 29-bit identifiers put their top 11 bits in
//           bits 0-10 and the low 18 in bits 11-28; 11-bit identifiers sit in bits 0-10
//   word 1  bits 0-3 coded DLC, 4 29-bit identifier, 5 remote, 6 bit-rate switch, 7 FD
//           frame, 8 error state, 9-15 index within a send request, 16-23 time stamp
//           bits 32-39 (received frames and transmit events)
//   word 2  time stamp, low 32 bits, 10 us units (0 on transmit)
//
//   CANFD_INIT          channel u8, the 20-byte set-up record           -> empty
//   CANFD_SET_FILTER    channel u8, then 12-byte entries: enable u8, index u8, 0 u16,
//                       identifier le32, mask le32 (bit 31 IDE, bit 30 RTR) -> empty
//   CANFD_SEND          12-byte head (bytes 0-9 zero, [10] channel, [11] frames <= 128),
//                       then the packed frames; on the channel's own OUT endpoint
//                                                                        -> anything
//   CANFD_READ          channel & 1 u8                                  -> echoed, packed frames
//   CANFD_GET_DIAGNOSTIC channel u8                                     -> echoed, 8 bytes
//   CANFD_GET_BUS_ERROR channel u8                                      -> echoed, 4 bytes (TEC, REC, ..)
//   CANFD_START_SCHEDULE, CANFD_STOP_SCHEDULE, CANFD_SET_SCHEDULE       -> as the classic ones,
//                       with 76-byte CANFD_MSG records in the schedule
//   CANFD_SET_RELAY     relay state u8                                  -> the state echoed u8
//   CANFD_GET_TX_EVENTS channel u8                                      -> n 12-byte frame heads
//                                                                          of the frames sent
//   CANFD_SEND_STATUS   channel u8; on the channel's own OUT endpoint   -> echoed, 4 bytes:
//                       frames done u8, u8, frames in the request u8, aborted u8
//   CANFD_STOP          channel u8                                      -> empty
#pragma once

#include <cstddef>
#include <cstdint>

namespace polybus {
namespace wire {

enum CanFdCommand : uint32_t {
    CANFD_INIT = 0x4000,
    CANFD_SET_FILTER = 0x4001,
    CANFD_SEND = 0x4002,
    CANFD_READ = 0x4003,
    CANFD_GET_DIAGNOSTIC = 0x4004,
    CANFD_GET_BUS_ERROR = 0x4005,
    CANFD_START_SCHEDULE = 0x4006,
    CANFD_STOP_SCHEDULE = 0x4007,
    CANFD_SET_RELAY = 0x4008,
    CANFD_GET_TX_EVENTS = 0x4009,
    CANFD_SEND_STATUS = 0x400A,
    CANFD_SET_SCHEDULE = 0x400B,
    CANFD_STOP = 0x400C,
};

constexpr size_t kFdHead = 12;       // bytes of a packed frame's head
constexpr uint32_t kFdSendChunk = 128;  // frames per CANFD_SEND request

}  // namespace wire
}  // namespace polybus
