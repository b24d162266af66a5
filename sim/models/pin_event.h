// Event-triggered transfers: the firmware watches GPIO pins for a level or an edge
// before it starts a transfer, and gives up after the transfer's timeout.
#pragma once

#include <cstdint>
#include <functional>

#include "adapter.h"

namespace polybus_sim {

// Event kinds: 0 a pin of the mask reads low, 1 reads high, 2 rises, 3 falls.
// Runs `go` (on the adapter's timer thread, or at once) when the event occurs, else
// `timed_out` once `timeout_ms` have passed. Pins are sampled every half millisecond.
void wait_for_pins(Adapter& adapter, uint32_t mask, uint8_t kind, uint32_t timeout_ms, std::function<void()> go,
                   std::function<void()> timed_out);

}  // namespace polybus_sim
