// I2C and SMBus wire protocol: command codes and payloads, shared by the library, the
// simulator and the tests. Multi-byte fields are big-endian; slave addresses are two
// bytes whether 7- or 10-bit. "status" is the firmware's transfer status, 0 = done.
//
//   IIC_INIT              channel u8, width u8 (10 or 7), setting8 u8, setting16 u16,
//                         setting32 u32, extra0 u8, extra1 u8            -> empty answer
//   IIC_WRITE             channel u8, addr u16, timeout u32, pec u8, data -> status
//   IIC_READ              channel u8, addr u16, timeout u32, len u32, pec u8
//                                                         -> status [+ len data bytes]
//   IIC_WRITE_READ        channel u8, addr u16, timeout u32, len u32, pec u8, data
//                                                         -> status [+ len data bytes]
//   IIC_SLAVE_WRITE       channel u8, timeout u32, data   -> 2 bytes, little-endian count
//   IIC_SLAVE_READ        channel u8, timeout u32         -> what a master wrote (0..n)
//   IIC_SLAVE_REMAIN      channel u8                      -> 2 bytes, little-endian count
//   SMBUS_BLOCK_WRITE     channel u8, addr u16, timeout u32, cmd u8, pec u8, data
//                                                         -> status
//   SMBUS_BLOCK_READ      channel u8, addr u16, timeout u32, cmd u8, pec u8
//                                                         -> status [+ block]
//   SMBUS_BLOCK_PROCESS   as SMBUS_BLOCK_WRITE            -> status [+ block]
//   IIC_WRITE_EVENT       channel u8, addr u16, timeout u32, pin u8, event u32, data
//                                                         -> status
//   IIC_READ_EVENT        channel u8, addr u16, len u32, timeout u32, pin u8,
//                         event bits 31..8 (three bytes; bits 7..0 are not sent)
//                                                         -> status [+ len data bytes]
//   IIC_WRITE_READ_EVENT  channel u8, addr u16, len u32, timeout u32, pin u8,
//                         event u32, data                 -> status [+ len data bytes]
//   IIC_BLOCK_WRITE       channel u8, addr u16, size u32, count u32, param u32,
//                         size x count data bytes         -> status
//   IIC_BLOCK_READ        channel u8, addr u16, size u32, count u32, param u32
//                                                         -> status [+ size x count]
//
// Note the two orders of read length and timeout: the plain reads send the timeout
// first, the event-triggered ones the length first.
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum I2cCommand : uint32_t {
    IIC_INIT = 0x0700,
    IIC_WRITE = 0x0701,
    IIC_READ = 0x0702,
    IIC_WRITE_READ = 0x0703,
    IIC_SLAVE_WRITE = 0x0704,
    IIC_SLAVE_READ = 0x0705,
    IIC_SLAVE_REMAIN = 0x0706,
    SMBUS_BLOCK_WRITE = 0x0707,
    SMBUS_BLOCK_READ = 0x0708,
    SMBUS_BLOCK_PROCESS = 0x0709,
    IIC_WRITE_EVENT = 0x070A,
    IIC_READ_EVENT = 0x070B,
    IIC_WRITE_READ_EVENT = 0x070C,
    IIC_BLOCK_WRITE = 0x070D,
    IIC_BLOCK_READ = 0x070E,
};

}  // namespace wire
}  // namespace polybus
