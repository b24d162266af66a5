// Four pulse counters. Each counts the edges of what its input is wired to (a PWM
// output, or a GPIO pin's pulse trains), up or down, rising, falling or both edges, wrapping at 16 or 32 bits, as
// the 16-byte configuration record says (mode u8, edges u8, width u8, pin mode u8,
// filter u32, 8 reserved bytes). Counting is computed from the output's timing when a
// counter is read, so it is exact at any rate.
#pragma once

#include <cstdint>
#include <mutex>

#include "adapter.h"

namespace polybus_sim {

struct CounterWiring {
    // PWM output index wired to each counter's input; -1: nothing, -2: the model's
    // PWM channel n for counter n (the default).
    int pwm_source[4] = {-2, -2, -2, -2};
    // A GPIO pin wired to the counter instead (its pulse trains are counted); -1: none.
    int gpio_pin[4] = {-1, -1, -1, -1};
};

class CounterModel : public FamilyModel {
public:
    explicit CounterModel(Adapter& adapter);

    struct Counter {
        uint8_t mode = 0, edges = 0, width = 32, pin_mode = 0;
        bool running = false;
        uint32_t value = 0;
        double since_us = 0;  // counted up to here
        int inits = 0;
    };
    void wire(const CounterWiring& wiring);
    Counter counter(int n);
    void reset() override;

private:
    void update(int n, double now_us);  // with mutex_ held
    uint64_t gpio_edges(int pin, double from_us, double to_us, bool rising, bool falling);

    Adapter& adapter_;
    std::mutex mutex_;
    Counter counters_[4];
    CounterWiring wiring_;
};

}  // namespace polybus_sim
