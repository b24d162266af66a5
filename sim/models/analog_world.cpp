// The analog and timing family's share of world files:
//   [[adc_input]]      what one of an adapter's eight analog inputs sees
//   [[pwm_capture]]    which PWM output a capture input measures
//   [[counter_input]]  what a pulse counter counts: a PWM output or a GPIO pin's pulses
// Wiring stays inside one adapter, as on the board: the DAC, the PWM outputs and the
// GPIO pins an input can be wired to are the same adapter's.
#include <cmath>

#include "adc_model.h"
#include "counter_model.h"
#include "pwm_model.h"
#include "world.h"

namespace polybus_sim {
namespace {

using world::Bench;
using world::Context;
using world::Kind;
using world::Piece;
using world::Table;

constexpr double kFullScale = 4095;
constexpr double kMaxFrequencyHz = 1e6;

// A code of the 12-bit converter; `fallback` < 0 makes the key required.
double read_code(Table& t, const std::string& key, double fallback) {
    if (fallback < 0) t.required(key);
    const double v = t.number(key, fallback);
    if (!(v >= 0 && v <= kFullScale)) t.fail_at(key, "'" + key + "' is a converter code from 0 to 4095");
    return v;
}

double read_nonnegative(Table& t, const std::string& key, double fallback, double max) {
    const double v = t.number(key, fallback);
    if (!(v >= 0 && v <= max))
        t.fail_at(key, "'" + key + "' must be from 0 to " + std::to_string(long(max)));
    return v;
}

double read_frequency(Table& t) {
    t.required("frequency_hz");
    const double f = t.number("frequency_hz", 0);
    if (!(f > 0 && f <= kMaxFrequencyHz)) t.fail_at("frequency_hz", "'frequency_hz' must be above 0 and at most 1000000");
    return f;
}

// A PWM channel of the adapter (numbered as the library numbers them), as the index
// of its output; refuses channels the adapter's model does not have.
int read_pwm_channel(Table& t, const std::string& key, const world::AdapterSpec& adapter) {
    const int channel = int(t.integer_in(key, 0, 7));
    const int index = PwmModel::index_of_channel(adapter.config.identifier, channel);
    if (index < 0)
        t.fail_at(key, "adapter '" + adapter.name + "' has no PWM channel " + std::to_string(channel));
    return index;
}

// ---- [[adc_input]] ----------------------------------------------------------------------

// Reads the "adapter:N" a table names under `key`, a unit that only one table of the
// kind may name; the table goes by `<kind> 'adapter:N'` in messages from then on.
std::shared_ptr<world::AdapterSpec> claim_unit(Table& t, Context& ctx, const char* key, const std::string& kind,
                                               const std::string& units, int count, const std::string& unit,
                                               std::string& adapter, int& index) {
    auto declared = world::find_channel(t, ctx, t.required(key), units, count, adapter, index);
    const std::string at = adapter + ":" + std::to_string(index);
    t.rename(kind + " '" + at + "'");
    if (ctx.find<int>(kind, at)) t.fail_at(key, unit + " " + at + " is given twice");
    ctx.declare(kind, at, std::make_shared<int>(index));
    return declared;
}

class InputPiece : public Piece {
public:
    std::string adapter;
    int input = 0;
    AnalogSignal signal;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<AdcModel>().set_input(input, signal); }
};

std::unique_ptr<Piece> read_input(Table& t, Context& ctx) {
    auto piece = std::make_unique<InputPiece>();
    const auto declared =
        claim_unit(t, ctx, "input", "adc_input", "ADC inputs", 8, "input", piece->adapter, piece->input);

    AnalogSignal& s = piece->signal;
    const std::string kind = t.string("signal");
    if (kind == "constant") {
        s.kind = AnalogSignal::Kind::Constant;
        s.level = read_code(t, "level", -1);
    } else if (kind == "sine") {
        s.kind = AnalogSignal::Kind::Sine;
        s.level = read_code(t, "centre", 2048);
        s.amplitude = read_nonnegative(t, "amplitude", 0, kFullScale);
        s.frequency_hz = read_frequency(t);
    } else if (kind == "ramp") {
        s.kind = AnalogSignal::Kind::Ramp;
        const double from = read_code(t, "from", 0), to = read_code(t, "to", kFullScale);
        s.level = from;
        s.amplitude = to - from;  // a falling ramp when to < from
        s.frequency_hz = read_frequency(t);
    } else if (kind == "noise") {
        s.kind = AnalogSignal::Kind::Noise;
        s.level = read_code(t, "centre", 2048);
        s.amplitude = read_nonnegative(t, "deviation", 0, kFullScale);
    } else if (kind == "dac") {
        s.kind = AnalogSignal::Kind::Dac;
    } else if (kind == "pwm") {
        s.kind = AnalogSignal::Kind::PwmAverage;
        s.source = read_pwm_channel(t, "pwm", *declared);
        s.full_scale = read_code(t, "full_scale", kFullScale);
    } else {
        t.fail_at("signal", "'signal' must be \"constant\", \"sine\", \"ramp\", \"noise\", \"dac\" or \"pwm\"");
    }
    return piece;
}

POLYBUS_WORLD_KIND(adc_input_kind,
                   Kind{"adc_input", world::kRankDevices,
                        "an analog input's signal: input = \"adapter:N\", signal = constant|sine|ramp|noise|dac|pwm",
                        read_input});

// ---- [[pwm_capture]] and [[counter_input]] ------------------------------------------------
// Each adapter has one wiring record per model; every table naming the adapter fills
// its part of the same record at read time, and every piece applies the whole record.

template <typename Wiring>
std::shared_ptr<Wiring> wiring_of(Context& ctx, const std::string& category, const std::string& adapter) {
    auto w = ctx.find<Wiring>(category, adapter);
    if (!w) {
        w = std::make_shared<Wiring>();
        ctx.declare(category, adapter, w);
    }
    return w;
}

class CapturePiece : public Piece {
public:
    std::string adapter;
    std::shared_ptr<PwmWiring> wiring;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<PwmModel>().wire(*wiring); }
};

std::unique_ptr<Piece> read_capture(Table& t, Context& ctx) {
    auto piece = std::make_unique<CapturePiece>();
    int input = 0;
    const auto declared =
        claim_unit(t, ctx, "input", "pwm_capture", "capture inputs", 4, "capture input", piece->adapter, input);
    piece->wiring = wiring_of<PwmWiring>(ctx, "pwm_wiring", piece->adapter);
    piece->wiring->capture_source[input] = t.has("pwm") ? read_pwm_channel(t, "pwm", *declared) : -1;
    return piece;
}

POLYBUS_WORLD_KIND(pwm_capture_kind,
                   Kind{"pwm_capture", world::kRankDevices,
                        "a capture input's wire: input = \"adapter:N\", pwm = channel (absent: unconnected)",
                        read_capture});

class CounterPiece : public Piece {
public:
    std::string adapter;
    std::shared_ptr<CounterWiring> wiring;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<CounterModel>().wire(*wiring); }
};

std::unique_ptr<Piece> read_counter(Table& t, Context& ctx) {
    auto piece = std::make_unique<CounterPiece>();
    int counter = 0;
    const auto declared =
        claim_unit(t, ctx, "counter", "counter_input", "counters", 4, "counter", piece->adapter, counter);
    if (t.has("pwm") && t.has("gpio_pin")) t.fail_at("gpio_pin", "a counter counts a PWM output or a GPIO pin, not both");
    piece->wiring = wiring_of<CounterWiring>(ctx, "counter_wiring", piece->adapter);
    piece->wiring->pwm_source[counter] = t.has("pwm") ? read_pwm_channel(t, "pwm", *declared) : -1;
    piece->wiring->gpio_pin[counter] = t.has("gpio_pin") ? int(t.integer_in("gpio_pin", 0, 31)) : -1;
    return piece;
}

POLYBUS_WORLD_KIND(counter_input_kind,
                   Kind{"counter_input", world::kRankDevices,
                        "a counter's input: counter = \"adapter:N\", pwm = channel or gpio_pin = pin (neither: unconnected)",
                        read_counter});

}  // namespace
}  // namespace polybus_sim
