#include "pwm_model.h"

#include <algorithm>
#include <cmath>

#include "wire/analog.h"

namespace polybus_sim {

using namespace polybus::wire;

namespace {
// The firmware's timer clock and the mask bit of PWM channel 0, per model code.
struct Timer {
    uint8_t model;
    uint32_t clock;
    uint8_t first_bit;
};
constexpr Timer kTimers[] = {
    {0x11, 200000000, 1}, {0x21, 200000000, 1}, {0x31, 200000000, 1}, {0x41, 84000000, 64},
    {0x42, 84000000, 64}, {0x43, 84000000, 64}, {0x44, 84000000, 64}, {0x45, 84000000, 64},
    {0x53, 220000000, 2}, {0x54, 240000000, 1},
};

double tick_us(uint8_t mode) {
    switch (mode & 0x0F) {
        case kCaptureTick100ns: return 0.1;
        case kCaptureTick10us: return 10.0;
        default: return 1.0;
    }
}
}  // namespace

PwmModel::PwmModel(Adapter& a) : adapter_(a) {
    const uint8_t model = uint8_t(a.config().identifier >> 24);
    for (const Timer& t : kTimers)
        if (t.model == model) {
            clock_hz_ = t.clock;
            first_bit_ = t.first_bit;
        }

    a.on(PWM_INIT, [this](const Frame& f) {
        // The record as it lies in the firmware's memory: little-endian u16 arrays.
        auto le16 = [&f](size_t off) { return uint16_t(f.u8(off) | f.u8(off + 1) << 8); };
        const uint8_t mask = f.u8(72);
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (int i = 0; i < 8; ++i) {
                if (!(mask & (1u << i))) continue;
                out_[i].prescaler = le16(2 * i);
                out_[i].precision = le16(16 + 2 * i);
                out_[i].pulse = le16(32 + 2 * i);
                out_[i].phase = le16(48 + 2 * i);
                out_[i].polarity = f.u8(64 + i);
            }
        }
        adapter_.answer(f.command);
    });
    a.on(PWM_START, [this](const Frame& f) {
        const uint8_t mask = f.u8(0);
        const uint32_t run_ms = f.be32(1);
        const uint64_t now = adapter_.clock_us();
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (int i = 0; i < 8; ++i) {
                if (!(mask & (1u << i))) continue;
                out_[i].running = true;
                out_[i].start_us = now;
                out_[i].run_ms = run_ms;
            }
        }
        adapter_.answer(f.command);
    });
    a.on(PWM_STOP, [this](const Frame& f) {
        const uint8_t mask = f.u8(0);
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (int i = 0; i < 8; ++i)
                if (mask & (1u << i)) out_[i].running = false;
        }
        adapter_.answer(f.command);
    });
    a.on(PWM_SET_PULSE, [this](const Frame& f) {
        store(f, 1, &Output::pulse);
        adapter_.answer(f.command);
    });
    a.on(PWM_SET_PHASE, [this](const Frame& f) {
        store(f, 1, &Output::phase);
        adapter_.answer(f.command);
    });
    a.on(PWM_SET_FREQUENCY, [this](const Frame& f) {
        store(f, 1, &Output::prescaler);
        store(f, 17, &Output::precision);
        adapter_.answer(f.command);
    });
    a.on(PWM_CAP_INIT, [this](const Frame& f) {
        const uint8_t input = f.u8(0);
        if (input < 4) {
            std::lock_guard<std::mutex> g(mutex_);
            cap_[input] = Capture{true, f.u8(1), adapter_.clock_us()};
        }
        adapter_.answer(f.command);
    });
    a.on(PWM_CAP_GET_DATA, [this](const Frame& f) {
        adapter_.answer(f.command, measure(f.u8(0), adapter_.clock_us()));
    });
    a.on(PWM_CAP_STOP, [this](const Frame& f) {
        const uint8_t input = f.u8(0);
        if (input < 4) {
            std::lock_guard<std::mutex> g(mutex_);
            cap_[input].on = false;
        }
        adapter_.answer(f.command);
    });
}

void PwmModel::store(const Frame& f, size_t offset, uint16_t Output::*field) {
    const uint8_t mask = f.u8(0);
    std::lock_guard<std::mutex> g(mutex_);
    for (int i = 0; i < 8; ++i)
        if (mask & (1u << i)) out_[i].*field = f.be16(offset + 2 * i);
}

namespace {
int index_from_first_bit(uint8_t first_bit, int n) {
    if (n < 0 || n >= 8 || first_bit == 0) return -1;
    const unsigned bit = (unsigned{first_bit} << n) & 0xFF;
    for (int i = 0; i < 8; ++i)
        if (bit & (1u << i)) return i;
    return -1;
}
}  // namespace

int PwmModel::index_of_channel(int n) const { return index_from_first_bit(first_bit_, n); }

int PwmModel::index_of_channel(uint32_t identifier, int n) {
    for (const Timer& t : kTimers)
        if (t.model == uint8_t(identifier >> 24)) return index_from_first_bit(t.first_bit, n);
    return -1;
}

void PwmModel::wire(const PwmWiring& wiring) {
    std::lock_guard<std::mutex> g(mutex_);
    wiring_ = wiring;
}

PwmModel::Output PwmModel::output(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return out_[index & 7];
}

PwmModel::Capture PwmModel::capture(int input) {
    std::lock_guard<std::mutex> g(mutex_);
    return cap_[input & 3];
}

namespace {
// The output's period in microseconds, 0 when it produces no wave.
double period_us(const PwmModel::Output& o, uint32_t clock) {
    if (clock == 0 || o.prescaler == 0 || o.precision == 0) return 0;
    return double(o.prescaler) * double(o.precision) * 1e6 / double(clock);
}
bool live(const PwmModel::Output& o, uint64_t t) {
    return o.running && t >= o.start_us && (o.run_ms == 0 || t < o.start_us + uint64_t{o.run_ms} * 1000);
}
}  // namespace

bool PwmModel::running(int index, uint64_t t_us) {
    std::lock_guard<std::mutex> g(mutex_);
    return live(out_[index & 7], t_us);
}

double PwmModel::frequency_hz(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    const double p = period_us(out_[index & 7], clock_hz_);
    return p > 0 ? 1e6 / p : 0;
}

double PwmModel::average(int index, uint64_t t_us) {
    std::lock_guard<std::mutex> g(mutex_);
    const Output& o = out_[index & 7];
    if (!live(o, t_us) || period_us(o, clock_hz_) == 0) return 0;  // idle outputs are low
    const double duty = std::min(1.0, double(o.pulse) / double(o.precision));
    return o.polarity ? 1.0 - duty : duty;
}

// Instants base + k x period (k >= 0) in (from, to].
uint64_t PwmModel::count_in(double base, double period, double from, double to) {
    auto upto = [&](double x) -> double { return x < base ? 0.0 : std::floor((x - base) / period) + 1.0; };
    const double n = upto(to) - upto(from);
    return n > 0 ? uint64_t(n) : 0;
}

uint64_t PwmModel::edges(int index, double from_us, double to_us, bool rising, bool falling) {
    std::lock_guard<std::mutex> g(mutex_);
    const Output& o = out_[index & 7];
    const double period = period_us(o, clock_hz_);
    if (!o.running || period == 0 || o.pulse == 0 || o.pulse >= o.precision) return 0;  // no wave, no edges
    const double start = double(o.start_us);
    double end = to_us;
    if (o.run_ms != 0) end = std::min(end, start + double(o.run_ms) * 1000.0 - 1e-6);
    if (end <= from_us) return 0;
    const double offset = double(o.phase) * double(o.prescaler) * 1e6 / double(clock_hz_);
    const double active = period * double(o.pulse) / double(o.precision);
    // The active part begins with a rising edge unless the output is inverted.
    const bool count_begin = o.polarity ? falling : rising;
    const bool count_end = o.polarity ? rising : falling;
    uint64_t n = 0;
    if (count_begin) n += count_in(start + offset, period, from_us, end);
    if (count_end) n += count_in(start + offset + active, period, from_us, end);
    return n;
}

Payload PwmModel::measure(int input, uint64_t now) {
    uint16_t period_ticks = 0, active_ticks = 0;
    std::lock_guard<std::mutex> g(mutex_);
    if (input >= 0 && input < 4 && cap_[input].on) {
        int source = wiring_.capture_source[input];
        if (source == -2) source = index_of_channel(0);
        if (source >= 0 && source < 8) {
            const Output& o = out_[source];
            const double period = period_us(o, clock_hz_);
            const uint64_t since = std::max(cap_[input].since_us, o.start_us);
            // Two rising edges make the first whole period.
            if (live(o, now) && period > 0 && o.pulse > 0 && o.pulse < o.precision &&
                double(now) >= double(since) + 2 * period) {
                const double tick = tick_us(cap_[input].mode);
                const double high = period * double(o.pulse) / double(o.precision);
                const double level_high = o.polarity ? period - high : high;
                const double active = (cap_[input].mode & kCaptureActiveLow) ? period - level_high : level_high;
                const double p = std::round(period / tick), a = std::round(active / tick);
                if (p > 0xFFFF) {
                    period_ticks = active_ticks = 0xFFFF;
                } else {
                    period_ticks = uint16_t(p);
                    active_ticks = uint16_t(std::min(a, p));
                }
            }
        }
    }
    // The capture registers as they lie in the firmware's memory.
    Payload out;
    out.u8(uint8_t(period_ticks)).u8(uint8_t(period_ticks >> 8));
    out.u8(uint8_t(active_ticks)).u8(uint8_t(active_ticks >> 8));
    return out;
}

void PwmModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& o : out_) o = Output{};
    for (auto& c : cap_) c = Capture{};
}

}  // namespace polybus_sim
