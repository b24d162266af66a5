// What the library knows about each adapter model, keyed by the model code in the top
// byte of the handle. Families ask this table instead of testing model codes themselves.
#pragma once

#include <cstdint>

#include "polybus/can.h"

namespace polybus {

struct AdapterModel {
    uint32_t code;                 // handle & 0xFF000000
    bool canfd;                    // CAN_ calls are converted and handed to CANFD_ calls
    uint32_t pwm_clock_hz;         // PWM timer clock
    uint8_t pwm_first_bit;         // mask bit of PWM channel 0
};

// The row of a known model, or null for a model code the table does not list.
const AdapterModel* adapter_model(int handle);

inline uint32_t model_code(int handle) { return static_cast<uint32_t>(handle) & 0xFF000000u; }

// CAN FD adapters (models 0x53 and 0x54).
inline bool is_canfd_model(int handle) {
    const AdapterModel* m = adapter_model(handle);
    return m != nullptr && m->canfd;
}

// Bit-timing tables go by the model's series, the top four bits, so that models the
// table does not list yet still find theirs: series 0x5 runs the CAN FD controller
// (nominal table for classic rates), series 0x4 the 42 MHz controller, every other
// series the 100 MHz one.
const CAN_BRT_ENTRY* classic_can_timing(int handle, unsigned* rows);
inline bool is_canfd_series(int handle) { return (static_cast<uint32_t>(handle) >> 28) == 0x5; }

}  // namespace polybus
