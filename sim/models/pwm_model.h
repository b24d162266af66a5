// PWM outputs and the pulse-capture inputs. Eight outputs (array indices 0..7; which
// ones a model has follows its first PWM bit) run from the model's timer clock:
// frequency = clock / (prescaler x precision), active for pulse / precision of each
// period after a phase offset of phase timer counts, inverted by polarity 1. Other
// models (ADC inputs, counters) read the outputs through level(), average() and
// edges(); the capture inputs measure the output they are wired to.
#pragma once

#include <cstdint>
#include <mutex>

#include "adapter.h"

namespace polybus_sim {

struct PwmWiring {
    // The output index wired to each capture input; -1: nothing (the input stays idle),
    // -2: the model's PWM channel 0 (the default for input 0).
    int capture_source[4] = {-2, -1, -1, -1};
};

class PwmModel : public FamilyModel {
public:
    explicit PwmModel(Adapter& adapter);

    struct Output {
        uint16_t prescaler = 0, precision = 0, pulse = 0, phase = 0;
        uint8_t polarity = 0;
        bool running = false;
        uint64_t start_us = 0;
        uint32_t run_ms = 0;  // 0: until stopped
    };
    struct Capture {
        bool on = false;
        uint8_t mode = 0;
        uint64_t since_us = 0;
    };

    void wire(const PwmWiring& wiring);
    Output output(int index);
    Capture capture(int input);
    uint32_t clock_hz() const { return clock_hz_; }
    // Array index of the model's PWM channel n, or -1.
    int index_of_channel(int n) const;
    // The same for an adapter not built yet, from its identifier (world files check
    // their wiring before any adapter exists).
    static int index_of_channel(uint32_t identifier, int n);

    // Output seen from the outside at adapter time t_us (adapter_.clock_us()).
    bool running(int index, uint64_t t_us);
    double frequency_hz(int index);
    // Mean level over a period (0..1): what an RC filter on the output reads.
    double average(int index, uint64_t t_us);
    // Rising and/or falling edges in (from_us, to_us].
    uint64_t edges(int index, double from_us, double to_us, bool rising, bool falling);
    void reset() override;

private:
    void store(const Frame& f, size_t offset, uint16_t Output::*field);
    Payload measure(int input, uint64_t now);
    static uint64_t count_in(double base, double period, double from, double to);

    Adapter& adapter_;
    uint32_t clock_hz_ = 0;
    uint8_t first_bit_ = 0;
    std::mutex mutex_;
    Output out_[8];
    Capture cap_[4];
    PwmWiring wiring_;
};

}  // namespace polybus_sim
