#include "gpio_model.h"

#include "wire/gpio.h"

namespace polybus_sim {

using namespace polybus::wire;

GpioModel::GpioModel(Adapter& a) : adapter_(a) {
    a.on(GPIO_SET_INPUT, [this](const Frame& f) { configure(f, Mode::Input); });
    a.on(GPIO_SET_OUTPUT, [this](const Frame& f) { configure(f, Mode::Output); });
    a.on(GPIO_SET_OPEN_DRAIN, [this](const Frame& f) { configure(f, Mode::OpenDrain); });
    a.on(GPIO_WRITE, [this](const Frame& f) {
        const uint32_t mask = f.be32(0), value = f.be32(4);
        {
            std::lock_guard<std::mutex> g(mutex_);
            latch_ = (latch_ & ~mask) | (value & mask);
        }
        adapter_.answer(f.command);
    });
    a.on(GPIO_READ, [this](const Frame& f) {
        const uint32_t mask = f.be32(0);
        adapter_.answer(f.command, Payload().be32(levels() & mask));
    });
    a.on(GPIO_SEND_PULSES, [this](const Frame& f) {
        PulseTrain t{f.be32(0), f.be32(4), f.be32(8), f.be32(12), adapter_.clock_us()};
        double scale;
        {
            std::lock_guard<std::mutex> g(mutex_);
            trains_.push_back(t);
            scale = time_scale_;
        }
        // The firmware answers only once the last pulse is out.
        const double us = double(t.period_us) * double(t.count) * scale;
        const uint32_t code = f.command;
        adapter_.after(std::chrono::microseconds(static_cast<int64_t>(us)), [this, code] { adapter_.answer(code); });
    });
}

void GpioModel::configure(const Frame& f, Mode mode) {
    const uint32_t mask = f.be32(0);
    {
        std::lock_guard<std::mutex> g(mutex_);
        for (int pin = 0; pin < 32; ++pin) {
            if (!(mask & (1u << pin))) continue;
            modes_[pin] = mode;
            pulls_[pin] = f.u8(4);
        }
    }
    adapter_.answer(f.command);
}

void GpioModel::drive(uint32_t mask, uint32_t levels) {
    std::lock_guard<std::mutex> g(mutex_);
    external_ = (external_ & ~mask) | (levels & mask);
}
int GpioModel::driven(int pin) {
    std::lock_guard<std::mutex> g(mutex_);
    const uint32_t bit = 1u << (pin & 31);
    switch (modes_[pin & 31]) {
        case Mode::Output: return (latch_ & bit) ? 1 : 0;
        case Mode::OpenDrain: return (latch_ & bit) ? -1 : 0;
        default: return -1;
    }
}

void GpioModel::wire(int pin, std::function<int()> level) {
    std::lock_guard<std::mutex> g(mutex_);
    wires_.push_back({pin & 31, std::move(level)});
}

uint32_t GpioModel::levels() {
    uint32_t levels = 0;
    // Wired pins are asked first, without our lock: the far end may be another
    // adapter reading its own wires at the same time.
    std::vector<std::pair<int, std::function<int()>>> wires;
    {
        std::lock_guard<std::mutex> g(mutex_);
        wires = wires_;
    }
    uint32_t wired_mask = 0, wired_levels = 0;
    for (auto& [pin, level] : wires) {
        const int l = level();
        if (l < 0) continue;
        const uint32_t bit = 1u << pin;
        // Several drivers on one net: low wins (as open drain would).
        if (!(wired_mask & bit)) wired_levels |= bit;
        wired_mask |= bit;
        if (l == 0) wired_levels &= ~bit;
    }
    {
        std::lock_guard<std::mutex> g(mutex_);
        const uint32_t external = (external_ & ~wired_mask) | (wired_levels & wired_mask);
        for (int pin = 0; pin < 32; ++pin) {
            const uint32_t bit = 1u << pin;
            bool high = false;
            switch (modes_[pin]) {
                case Mode::Input: high = external & bit; break;
                case Mode::Output: high = latch_ & bit; break;
                case Mode::OpenDrain: high = (latch_ & bit) && (external & bit); break;
            }
            if (high) levels |= bit;
        }
    }
    return levels;
}
uint32_t GpioModel::outputs() {
    std::lock_guard<std::mutex> g(mutex_);
    return latch_;
}
GpioModel::Mode GpioModel::mode(int pin) {
    std::lock_guard<std::mutex> g(mutex_);
    return modes_[pin & 31];
}
uint8_t GpioModel::pull(int pin) {
    std::lock_guard<std::mutex> g(mutex_);
    return pulls_[pin & 31];
}
std::vector<GpioModel::PulseTrain> GpioModel::pulse_trains() {
    std::lock_guard<std::mutex> g(mutex_);
    return trains_;
}
void GpioModel::set_time_scale(double scale) {
    std::lock_guard<std::mutex> g(mutex_);
    time_scale_ = scale;
}
void GpioModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& m : modes_) m = Mode::Input;
    latch_ = 0;
}

}  // namespace polybus_sim
