// GPIO wire protocol: command codes and payloads, shared by the library, the simulator
// and the tests. Every multi-byte field is big-endian.
//
//   GPIO_SET_INPUT, _OUTPUT, _OPEN_DRAIN   pin mask u32, mode u8     -> empty answer
//   GPIO_WRITE                             pin mask u32, levels u32  -> empty answer
//   GPIO_READ                              pin mask u32              -> levels u32 (masked)
//   GPIO_SEND_PULSES                       mask u32, width us u32, period us u32,
//                                          count u32                 -> empty answer once
//                                                                       the train is out
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum GpioCommand : uint32_t {
    GPIO_SET_INPUT = 0x0600,
    GPIO_SET_OUTPUT = 0x0601,
    GPIO_SET_OPEN_DRAIN = 0x0602,
    GPIO_WRITE = 0x0603,
    GPIO_READ = 0x0604,
    GPIO_SEND_PULSES = 0x0806,  // in the PWM range, but a GPIO operation
};

}  // namespace wire
}  // namespace polybus
