// LIN wire protocol: command codes and payloads, shared by the library, the simulator
// and the tests. Multi-byte scalars are big-endian; frame records travel raw, in the
// host's little-endian layout (LIN_EX_MSG: 20 bytes, LIN_MSG: 11 bytes).
//
// Master and slave (LIN_EX_), byte 0 of every payload is the channel unless noted:
//   LIN_EX_INIT          ch, baud u32, master mode u8           -> empty answer
//   LIN_EX_MASTER_SYNC   ch, n x LIN_EX_MSG (prepared frames)   -> n x LIN_EX_MSG results,
//                                                                 once the frames are off the bus
//   LIN_EX_SLAVE_SET_ID  ch, n x LIN_EX_MSG (ID-mode table)     -> answer (payload ignored)
//   LIN_EX_SLAVE_GET_DATA ch                                    -> LIN_EX_MSG frames recorded
//   LIN_EX_POWER_OUT     state u8, ch (this order)              -> empty answer
//   LIN_EX_GET_VBAT      (no payload)                           -> battery voltage u16
//   LIN_EX_START_SCH     ch, n x LIN_EX_MSG (n <= 64)           -> answer (payload ignored)
//   LIN_EX_STOP_SCH      ch                                     -> answer (payload ignored)
//   LIN_EX_GET_SCH       ch                                     -> LIN_EX_MSG frames the schedule ran
//   LIN_EX_SLAVE_GET_ID  ch                                     -> the ID-mode table
//
// Older firmware (LIN_, 0x0105001D and before):
//   LIN_INIT             ch, baud u32, check mode, master mode, break bits -> empty answer
//   LIN_WRITE            ch, n x LIN_MSG                        -> empty answer
//   LIN_READ             ch, n x identifier u8                  -> n x LIN_MSG
//   LIN_SLAVE_SET_ID     ch, ID mode u8, n x LIN_MSG            -> empty answer
//   LIN_SLAVE_GET_DATA   ch                                     -> LIN_MSG frames recorded
//   LIN_SEND_BREAK       ch                                     -> empty answer
//
// FLIN channels:
//   FLIN_INIT            ch & 3, baud u32                       -> empty answer
//   FLIN_WRITE           ch & 3, cmd u8, data                   -> empty answer
//   FLIN_READ            ch                                     -> data bytes
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum LinCommand : uint32_t {
    LIN_INIT = 0x0F00,
    LIN_WRITE = 0x0F01,
    LIN_READ = 0x0F02,
    LIN_SLAVE_SET_ID = 0x0F03,
    LIN_SLAVE_GET_DATA = 0x0F04,
    LIN_SEND_BREAK = 0x0F05,
    LIN_EX_INIT = 0x0F06,
    LIN_EX_MASTER_SYNC = 0x0F07,
    LIN_EX_SLAVE_SET_ID = 0x0F08,
    LIN_EX_SLAVE_GET_DATA = 0x0F09,
    LIN_EX_POWER_OUT = 0x0F0A,
    LIN_EX_GET_VBAT = 0x0F0B,
    LIN_EX_START_SCH = 0x0F0C,
    LIN_EX_STOP_SCH = 0x0F0D,
    LIN_EX_GET_SCH = 0x0F0E,
    LIN_EX_SLAVE_GET_ID = 0x0F0F,
    FLIN_INIT = 0x0F80,
    FLIN_WRITE = 0x0F81,
    FLIN_READ = 0x0F82,
};

// Frame kinds in LIN_EX_MSG.MsgType.
enum LinMsgType : uint8_t {
    LIN_MSG_MASTER_WRITE = 1,
    LIN_MSG_MASTER_READ = 2,
    LIN_MSG_SLAVE_WRITE = 3,       // ID-mode table: the adapter answers the header
    LIN_MSG_SLAVE_READ = 4,        // ID-mode table: the adapter takes another node's answer
    LIN_MSG_BREAK = 5,
    LIN_MSG_CHECK_IN_DATA = 8,     // result: the checksum is the last counted data byte
    LIN_MSG_CHECK_SEPARATE = 9,    // result: data and checksum apart
    LIN_MSG_SLAVE_WRITE_ONCE = 0x83,
};

constexpr uint32_t kLinExRecordSize = 20;
constexpr uint32_t kLinRecordSize = 11;
// Firmware after this version speaks the LIN_EX_ commands.
constexpr uint32_t kLinLastOldFirmware = 0x0105001D;

}  // namespace wire
}  // namespace polybus
