// Classic CAN wire protocol: command codes and payloads, shared by the library, the
// simulator and the tests. Multi-byte fields are big-endian unless marked "le": CAN_MSG
// records and a few counts travel in the host's little-endian layout.
//
//   CAN_INIT            channel u8, 0 u8, ABOM u8, 0 u8, NART u8, RFLM u8, TXFP u8,
//                       mode u8, SJW u8, BS1 u8, BS2 u8 (register codes: value - 1 on
//                       channels 0 and 1), prescaler u16               -> empty
//   CAN_SET_FILTER      channel u8, bank u8 (channel * 14 + index % 14), mode u8,
//                       scale u8 (1: 32 bits), identifier register u32, mask register u32,
//                       0 u8, enable u8                                -> empty
//   CAN_SEND            channel u8, then k CAN_MSG records (k <= 500; time stamp 0,
//                       RemoteFlag and ExternFlag reduced to bit 0)   -> frames accepted u32 le
//   CAN_READ            channel u8                                     -> n CAN_MSG records
//   CAN_GET_STATUS      channel u8                                     -> status register u32 le,
//                                                                         error register u32 le
//   CAN_START_SCHEDULE  channel u8, three parameters u8                -> status u8, 0 = started
//   CAN_STOP_SCHEDULE   channel u8                                     -> anything
//   CAN_SET_RELAY       relay state u8                                 -> the state echoed u8
//   CAN_SET_SCHEDULE    channel u8, tables u8, frame count u8 per table, parameter u16 le
//                       per table, then every frame as a CAN_MSG       -> status u8, 0 = accepted
//   CAN_STOP            channel u8                                     -> empty
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum CanCommand : uint32_t {
    CAN_INIT = 0x0C00,
    CAN_SET_FILTER = 0x0C01,
    CAN_SEND = 0x0C02,
    CAN_READ = 0x0C03,
    CAN_GET_STATUS = 0x0C04,
    CAN_START_SCHEDULE = 0x0C05,
    CAN_STOP_SCHEDULE = 0x0C06,
    CAN_SET_RELAY = 0x0C07,
    CAN_SET_SCHEDULE = 0x0C08,
    CAN_STOP = 0x0C09,
};

// Frames per CAN_SEND request.
constexpr uint32_t kCanSendChunk = 500;

// Schedules too large for one CAN_SET_SCHEDULE (3 bytes per table + 20 per frame, this
// many or more) go to schedule storage at 0x080C0000 + (channel << 17): an image of a
// 784-byte header (magic u32 le, tables u32 le, 256 frame counts, 256 parameters u16 le,
// frame-area address u64 le = image address + 0x310), then the CAN_MSG records.
constexpr uint32_t kCanScheduleCommandLimit = 10238;
constexpr uint32_t kCanScheduleStorage = 0x080C0000u;
constexpr uint32_t kCanScheduleMagic = 0x9A21538Bu;
constexpr uint32_t kCanScheduleHeader = 784;
constexpr uint32_t kCanScheduleFrameArea = 0x310;

}  // namespace wire
}  // namespace polybus
