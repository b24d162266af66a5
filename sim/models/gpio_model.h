// 32 general-purpose pins: outputs read back what was written, inputs read the level
// the test bench drives, open-drain pins read low when either side pulls low.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

class GpioModel : public FamilyModel {
public:
    explicit GpioModel(Adapter& adapter);

    enum class Mode : uint8_t { Input, Output, OpenDrain };
    struct PulseTrain {
        uint32_t mask, width_us, period_us, count;
        uint64_t start_us;  // adapter time of the first rising edge
    };

    // Level the outside world drives onto the pins of `mask`.
    void drive(uint32_t mask, uint32_t levels);
    // What this adapter drives onto a pin: 1 or 0, or -1 when it lets the pin float
    // (an input, or an open-drain pin whose latch is high).
    int driven(int pin);
    // Wires a pin to something outside (another pin, of this adapter or another one):
    // `level` says what that drives, as driven() does. A pin that nothing drives
    // keeps the level given with drive() (high when undriven: pull-ups).
    void wire(int pin, std::function<int()> level);
    uint32_t outputs();                // the output latch
    uint32_t levels();                 // what every pin reads now (as GPIO_READ reports it)
    Mode mode(int pin);
    uint8_t pull(int pin);             // the mode byte last given for the pin
    std::vector<PulseTrain> pulse_trains();
    // Pulse trains take their real duration multiplied by this (0: answer at once).
    void set_time_scale(double scale);
    void reset() override;

private:
    void configure(const Frame& f, Mode mode);

    Adapter& adapter_;
    std::mutex mutex_;
    Mode modes_[32] = {};
    uint8_t pulls_[32] = {};
    uint32_t latch_ = 0;
    uint32_t external_ = 0xFFFFFFFF;  // undriven inputs float high (pull-ups)
    std::vector<PulseTrain> trains_;
    std::vector<std::pair<int, std::function<int()>>> wires_;
    double time_scale_ = 1.0;
};

}  // namespace polybus_sim
