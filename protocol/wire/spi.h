// SPI and SPI flash wire protocol: command codes and payloads, shared by the library,
// the simulator and the tests. Byte 0 of every request is the port; counts and times
// are u32 big-endian unless marked u16.
//
//   SPI_INIT                 port, mode, master, cpol, cpha, lsb_first, sel_polarity,
//                            clock Hz u32                               -> empty answer
//   SPI_WRITE, _ASYNC        port, data                                 -> empty answer
//   SPI_READ                 port, len                                  -> len bytes
//   SPI_WRITE_READ           port, len, gap us, data                    -> len bytes
//   SPI_SLAVE_WRITE          port, timeout ms, data                     -> sent count u32
//   SPI_FLASH_INIT           port, clock u32, 44-byte flash description -> empty answer
//   SPI_FLASH_READ_ID        port                                       -> id bytes
//   SPI_FLASH_WRITE          port, address u32, data                    -> empty answer
//   SPI_FLASH_READ, _FAST    port, address u32, len u32                 -> len bytes
//   SPI_FLASH_ERASE_SECTOR   port, first sector u32, count u32          -> empty answer
//   SPI_BLOCK_WRITE          port, size u16, count u16, gap us, data    -> empty answer
//   SPI_BLOCK_READ           port, size u16, count u16, gap us          -> size x count
//   SPI_BLOCK_WRITE_READ     port, wsize u16, rsize u16, count u16, gap us, data
//                                                                       -> rsize x count
//   SPI_WRITE_BITS           port, bits u32, bits packed MSB first      -> empty answer
//   SPI_READ_BITS            port, bits u32                             -> packed bits
//   SPI_WRITE_READ_BITS      port, wbits u32, rbits u32, packed wbits   -> packed rbits
//   SPI_WRITE_EVENT          port, pin mask u32, event u8, timeout u32, data -> status
//   SPI_READ_EVENT           port, len, pin mask u32, event u8, timeout -> status + len
//   SPI_WRITE_READ_EVENT     port, len, gap us, pin mask, event u8, timeout, data
//                                                                       -> status + len
//   SPI_BLOCK_WRITE_EVENT    port, size u16, count u16, pin mask, event u8, timeout, data
//                                                                       -> [status]
//   SPI_BLOCK_READ_EVENT     port, size u16, count u16, pin mask, event u8, timeout
//                                                                       -> status + size x count
//   SPI_BLOCK_WRITE_READ_EVENT port, wsize u16, rsize u16, count u16, pin mask, event u8,
//                            timeout, data                              -> status + rsize x count
//   SPI_SLAVE_WRITE_READ     port, timeout, len, data   -> sent u32, n u32, n bytes
//   SPI_SLAVE_READ_BUFFER    port & 1                   -> what the slave port received
//   SPI_SLAVE_READ_WRITE     port, timeout, len, data   -> sent u32, n u32, n bytes
//   SPI_SLAVE_START          port & 1                   -> any (the command is echoed)
//   SPI_SLAVE_STOP           port & 1                   -> any (the command is echoed)
//   SPI_SLAVE_CONTINUE_WRITE port, data                 -> any (the command is echoed)
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum SpiCommand : uint32_t {
    SPI_INIT = 0x200,
    SPI_WRITE = 0x201,
    SPI_WRITE_ASYNC = 0x202,
    SPI_READ = 0x203,
    SPI_WRITE_READ = 0x204,
    SPI_SLAVE_WRITE = 0x205,
    SPI_FLASH_INIT = 0x207,
    SPI_FLASH_READ_ID = 0x208,
    SPI_FLASH_WRITE = 0x209,
    SPI_FLASH_READ = 0x20A,
    SPI_FLASH_ERASE_SECTOR = 0x20B,
    SPI_FLASH_READ_FAST = 0x20C,
    SPI_BLOCK_WRITE = 0x20D,
    SPI_BLOCK_READ = 0x20E,
    SPI_BLOCK_WRITE_READ = 0x20F,
    SPI_WRITE_BITS = 0x210,
    SPI_READ_BITS = 0x211,
    SPI_WRITE_READ_BITS = 0x212,
    SPI_WRITE_EVENT = 0x213,
    SPI_READ_EVENT = 0x214,
    SPI_WRITE_READ_EVENT = 0x215,
    SPI_BLOCK_WRITE_EVENT = 0x216,
    SPI_BLOCK_READ_EVENT = 0x217,
    SPI_BLOCK_WRITE_READ_EVENT = 0x218,
    SPI_SLAVE_WRITE_READ = 0x222,
    SPI_SLAVE_READ_BUFFER = 0x223,
    SPI_SLAVE_READ_WRITE = 0x224,
    SPI_SLAVE_START = 0x225,
    SPI_SLAVE_STOP = 0x226,
    SPI_SLAVE_CONTINUE_WRITE = 0x227,
};

// The flash description: the four bytes the host reads, and the layout the adapter's
// firmware (and the simulator) gives the rest. Multi-byte fields are little-endian,
// the record travelling as it lies in memory.
namespace flash {
constexpr int kWriteEnableCmd = 0;    // u8
constexpr int kWriteDisableCmd = 1;   // u8
constexpr int kPageProgramCmd = 2;    // u8
constexpr int kReadCmd = 3;           // u8
constexpr int kFastReadCmd = 4;       // u8
constexpr int kSectorEraseCmd = 5;    // u8
constexpr int kBlockEraseCmd = 6;     // u8
constexpr int kChipEraseCmd = 7;      // u8
constexpr int kReadIdCmd = 8;         // u8
constexpr int kAddrBytes = 9;         // u8: 3 or 4
constexpr int kDummyBytes = 10;       // u8: fast read dummy bytes
constexpr int kWriteStatusCmd = 11;   // u8
constexpr int kPowerUpCmd = 12;       // u8
constexpr int kReadStatusCmd = 13;    // u8
constexpr int kBusyMask = 14;         // u8
constexpr int kWelMask = 15;          // u8
constexpr int kPageSize = 16;         // u32
constexpr int kSectorSize = 20;       // u32
constexpr int kSectorCount = 24;      // u32
constexpr int kReserved28 = 28;       // 3 bytes, zero
constexpr int kIdLength = 31;         // u8
constexpr int kProgramTimeoutMs = 32; // u32: per page
constexpr int kEraseTimeoutMs = 36;   // u32: per sector
constexpr int kReserved40 = 40;       // 4 bytes, zero
constexpr int kSize = 44;
}  // namespace flash

}  // namespace wire
}  // namespace polybus
