#include "counter_model.h"

#include <algorithm>
#include <cmath>

#include "gpio_model.h"
#include "pwm_model.h"
#include "wire/analog.h"

namespace polybus_sim {

using namespace polybus::wire;

CounterModel::CounterModel(Adapter& a) : adapter_(a) {
    auto each = [this](const Frame& f, auto fn) {
        const uint8_t mask = f.u8(0);
        const double now = double(adapter_.clock_us());
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (int n = 0; n < 4; ++n)
                if (mask & (1u << n)) fn(n, now);
        }
        adapter_.answer(f.command);
    };
    a.on(CNT_INIT, [this, each](const Frame& f) {
        each(f, [this, &f](int n, double now) {
            update(n, now);
            Counter& c = counters_[n];
            c.mode = f.u8(1);
            c.edges = f.u8(2);
            c.width = f.u8(3);
            c.pin_mode = f.u8(4);
            ++c.inits;
        });
    });
    a.on(CNT_START, [this, each](const Frame& f) {
        each(f, [this](int n, double now) {
            update(n, now);
            counters_[n].running = true;
            counters_[n].since_us = now;
        });
    });
    a.on(CNT_STOP, [this, each](const Frame& f) {
        each(f, [this](int n, double now) {
            update(n, now);
            counters_[n].running = false;
        });
    });
    a.on(CNT_SET_VALUE, [this, each](const Frame& f) {
        each(f, [this, &f](int n, double now) {
            update(n, now);
            counters_[n].value = f.be32(1 + 4 * n);
        });
    });
    a.on(CNT_GET_VALUE, [this](const Frame& f) {
        const uint8_t mask = f.u8(0);
        const double now = double(adapter_.clock_us());
        Payload p;
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (int n = 0; n < 4; ++n) {
                update(n, now);
                p.le32((mask & (1u << n)) ? counters_[n].value : 0);  // the firmware's own layout
            }
        }
        adapter_.answer(f.command, p);
    });
}

void CounterModel::update(int n, double now) {
    Counter& c = counters_[n];
    if (!c.running || now <= c.since_us) return;
    int source = wiring_.pwm_source[n];
    auto& pwm = adapter_.model<PwmModel>();
    if (source == -2) source = pwm.index_of_channel(n);
    uint64_t edges = 0;
    const bool rising = c.edges == 0 || c.edges == 2;
    const bool falling = c.edges == 1 || c.edges == 2;
    const int pin = wiring_.gpio_pin[n];
    if (pin >= 0 && pin < 32) {
        edges = gpio_edges(pin, c.since_us, now, rising, falling);
    } else if (source >= 0) {
        edges = pwm.edges(source, c.since_us, now, rising, falling);
    }
    c.since_us = now;
    uint32_t v = c.mode == 1 ? c.value - uint32_t(edges) : c.value + uint32_t(edges);
    if (c.width == 16) v &= 0xFFFF;
    c.value = v;
}

// Pulses of the trains sent on `pin`: rising edges at start + k x period, falling
// edges a width later, k below the train's count.
uint64_t CounterModel::gpio_edges(int pin, double from, double to, bool rising, bool falling) {
    uint64_t n = 0;
    auto in_window = [&](double first, double period, uint32_t count) -> uint64_t {
        auto upto = [&](double x) -> double {
            if (x < first) return 0;
            return std::min(double(count), std::floor((x - first) / period) + 1);
        };
        const double k = upto(to) - upto(from);
        return k > 0 ? uint64_t(k) : 0;
    };
    for (const auto& t : adapter_.model<GpioModel>().pulse_trains()) {
        if (!(t.mask & (1u << pin)) || t.period_us == 0) continue;
        const double start = double(t.start_us);
        if (rising) n += in_window(start, t.period_us, t.count);
        if (falling) n += in_window(start + t.width_us, t.period_us, t.count);
    }
    return n;
}

void CounterModel::wire(const CounterWiring& wiring) {
    std::lock_guard<std::mutex> g(mutex_);
    wiring_ = wiring;
}

CounterModel::Counter CounterModel::counter(int n) {
    std::lock_guard<std::mutex> g(mutex_);
    update(n & 3, double(adapter_.clock_us()));
    return counters_[n & 3];
}

void CounterModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& c : counters_) c = Counter{};
}

}  // namespace polybus_sim
