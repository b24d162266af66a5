// Analog and timing wire protocol (PWM outputs and capture, ADC, DAC, counters):
// command codes and payloads, shared by the library, the simulator and the tests.
// Multi-byte fields are big-endian unless marked "raw" (the adapter's own
// little-endian layout, copied as it lies in memory).
//
// PWM (8 outputs, addressed by a mask whose bit n is array index n)
//   PWM_INIT           PWM_CONFIG record raw (74 bytes)                -> empty answer
//   PWM_START          mask u8, run time u32 (ms, 0: until stopped)   -> empty answer
//   PWM_STOP           mask u8                                         -> empty answer
//   PWM_SET_PULSE      mask u8, 8 x pulse u16                          -> empty answer
//   PWM_SET_FREQUENCY  mask u8, 8 x prescaler u16, 8 x precision u16  -> empty answer
//   PWM_SET_PHASE      mask u8, 8 x phase u16                          -> empty answer
//   PWM_CAP_INIT       capture input u8, mode u8                       -> empty answer
//   PWM_CAP_GET_DATA   capture input u8                                -> 4 bytes (below)
//   PWM_CAP_STOP       capture input u8                                -> empty answer
//
//   The 4 capture bytes: period u16 raw, then active time u16 raw, both in ticks of
//   the capture timer chosen by the mode byte (kCaptureTick*). The active time is the
//   high time of the input (mode bit 7 clear) or its low time (bit 7 set). Both read 0
//   until a whole period has been seen; a period longer than 0xFFFF ticks reads 0xFFFF
//   in both fields (overflow).
//
// ADC (8 inputs, 12-bit samples raw u16, 0..4095 for 0..3.3 V)
//   ADC_INIT           mask u8, rate u32 (samples per second per input) -> empty answer
//   ADC_READ           samples per input u32  -> samples raw, once they are all taken:
//                      for each instant, one u16 per input of the mask in ascending order
//   ADC_START_CONTINUE mask u8, rate u32, frame size u32 (samples)   -> empty answer,
//                      then frames of frame size samples (same order, continuing across
//                      frames) arrive on bulk IN without headers, one transfer each,
//                      until the vendor request kAdcStopRequest
//
// DAC
//   DAC_INIT           header u16 raw, values u16 raw                  -> empty answer
//                      (header: microseconds each value is held, 0 taken as 1; values
//                      12-bit, played in a loop)
//   DAC_START, DAC_STOP  empty                                         -> empty answer
//
// Counters (4, mask bits 0..3)
//   CNT_INIT           mask u8, CNT_CONFIG record raw (16 bytes)       -> empty answer
//   CNT_START, CNT_STOP  mask u8                                       -> empty answer
//   CNT_SET_VALUE      mask u8, 4 x value u32                          -> empty answer
//   CNT_GET_VALUE      mask u8                       -> 4 x value u32 raw (unmasked: 0)
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum PwmCommand : uint32_t {
    PWM_INIT = 0x0800,
    PWM_START = 0x0801,
    PWM_STOP = 0x0802,
    PWM_SET_PULSE = 0x0803,
    PWM_SET_FREQUENCY = 0x0804,
    PWM_SET_PHASE = 0x0805,
    // 0x0806 is GPIO_SEND_PULSES (wire/gpio.h)
    PWM_CAP_INIT = 0x0807,
    PWM_CAP_GET_DATA = 0x0808,
    PWM_CAP_STOP = 0x0809,
};

enum AdcCommand : uint32_t {
    ADC_INIT = 0x0500,
    ADC_READ = 0x0501,
    ADC_START_CONTINUE = 0x0502,
};

enum DacCommand : uint32_t {
    DAC_INIT = 0x3000,
    DAC_START = 0x3001,
    DAC_STOP = 0x3002,
};

enum CounterCommand : uint32_t {
    CNT_INIT = 0x0900,
    CNT_START = 0x0901,
    CNT_STOP = 0x0902,
    CNT_SET_VALUE = 0x0903,
    CNT_GET_VALUE = 0x0904,
};

// Vendor control request that ends ADC streaming: host-to-device, vendor, interface.
constexpr uint8_t kAdcStopRequestType = 0x41;
constexpr uint8_t kAdcStopRequest = 0x40;

// Capture timer ticks selected by the low bits of the capture mode byte.
constexpr uint8_t kCaptureTick1us = 0;     // 1 MHz
constexpr uint8_t kCaptureTick100ns = 1;   // 10 MHz
constexpr uint8_t kCaptureTick10us = 2;    // 100 kHz
constexpr uint8_t kCaptureActiveLow = 0x80;

}  // namespace wire
}  // namespace polybus
