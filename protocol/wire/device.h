// Device wire protocol: what the adapter says about itself, its two storage areas and
// the keyed configuration area. Shared by the library, the simulator and the tests.
// Multi-byte request fields are big-endian; "empty" is an answer of Length 0.
//
//   DEV_SET_POWER_LEVEL     level u8                       -> anything (not judged)
//   DEV_GET_TIMESTAMP       selector u8                    -> 8 bytes, little-endian counter
//   DEV_RESET_TIMESTAMP     empty                          -> anything (drained)
//   DEV_GET_INFO            empty                          -> the 88-byte device-information
//                                                             record, little-endian as the
//                                                             firmware keeps it
//   DEV_GET_FUNCTIONS       empty                          -> function string, no terminator
//   DEV_WRITE_USER_DATA     offset u32, data               -> empty
//   DEV_READ_USER_DATA      offset u32, length u32         -> data
//   DEV_ERASE_USER_DATA     empty                          -> empty
//   DEV_WRITE_SCH_DATA      address u32, chunk (<= 10240)  -> empty
//   DEV_READ_SCH_DATA       address u32, chunk size u32    -> data
//   DEV_ERASE_SCH_DATA      argument u32                   -> empty
//   DEV_GET_HARDWARE_INFO   empty                          -> 64 bytes, first byte 1..254
//
//   ARG_INIT                empty                          -> status u8
//   ARG_WRITE               address u16, chunk (<= 5120)   -> status u8
//   ARG_READ                address u16, chunk size u16    -> status u8, then the data
// Configuration status bytes: 0 done, 1 refused, anything else a failure.
//
// Vendor control requests on endpoint 0 (no command frame):
//   read identifier: bmRequestType 0xC1, bRequest 0x50, 4 bytes little-endian
//   reset:           bmRequestType 0x41, bRequest 0x60, no data; the adapter restarts and
//                    comes back on the bus
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum DeviceCommand : uint32_t {
    DEV_SET_POWER_LEVEL = 0x0010,
    DEV_GET_TIMESTAMP = 0x0011,
    DEV_RESET_TIMESTAMP = 0x0012,
    DEV_GET_INFO = 0x0100,
    DEV_GET_FUNCTIONS = 0x0106,
    DEV_WRITE_USER_DATA = 0x0107,
    DEV_READ_USER_DATA = 0x0108,
    DEV_ERASE_USER_DATA = 0x0109,
    DEV_WRITE_SCH_DATA = 0x010A,
    DEV_READ_SCH_DATA = 0x010B,
    DEV_ERASE_SCH_DATA = 0x010C,
    DEV_GET_HARDWARE_INFO = 0x010D,
};

enum ConfigAreaCommand : uint32_t {
    ARG_INIT = 0x5000,
    ARG_WRITE = 0x5001,
    ARG_READ = 0x5002,
};

enum VendorRequestCode : uint8_t {
    VENDOR_READ_IDENTIFIER = 0x50,
    VENDOR_RESET = 0x60,
};

// Sizes of the storage transfers: larger transfers go in chunks of these.
constexpr uint32_t kScheduleChunk = 10240;
constexpr uint32_t kConfigChunk = 5120;
constexpr uint32_t kDeviceInfoSize = 88;
constexpr uint32_t kHardwareInfoSize = 64;

}  // namespace wire
}  // namespace polybus
