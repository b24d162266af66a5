// The GPIO family's share of world files:
//   [[gpio]]       levels the outside world drives onto an adapter's input pins
//   [[gpio_wire]]  pins joined by a wire, on one adapter or across adapters
#include "gpio_model.h"
#include "world.h"

namespace polybus_sim {
namespace {

using world::Bench;
using world::Context;
using world::Kind;
using world::Piece;
using world::Table;

constexpr int kPins = 32;

uint32_t read_pins(Table& t, const std::string& key) {
    uint32_t mask = 0;
    if (const toml::array* pins = t.array(key)) {
        for (const toml::node& p : *pins) {
            if (!p.is_integer() || p.as_integer()->get() < 0 || p.as_integer()->get() >= kPins)
                t.fail_node(p, "pins are numbers from 0 to 31");
            mask |= 1u << p.as_integer()->get();
        }
    }
    return mask;
}

class LevelsPiece : public Piece {
public:
    std::string adapter;
    uint32_t high = 0, low = 0;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<GpioModel>().drive(high | low, high); }
};

std::unique_ptr<Piece> read_levels(Table& t, Context& ctx) {
    auto piece = std::make_unique<LevelsPiece>();
    piece->adapter = t.string("adapter");
    if (!ctx.find<world::AdapterSpec>("adapter", piece->adapter))
        t.fail_at("adapter", "no adapter named '" + piece->adapter + "'");
    t.rename("gpio '" + piece->adapter + "'");
    piece->high = read_pins(t, "high");
    piece->low = read_pins(t, "low");
    if (piece->high & piece->low) t.fail_at("low", "a pin cannot be both high and low");
    return piece;
}

POLYBUS_WORLD_KIND(gpio_kind, Kind{"gpio", world::kRankDevices,
                                   "input levels on an adapter's pins: adapter, high = [pins], low = [pins]", read_levels});

class WirePiece : public Piece {
public:
    std::vector<std::pair<std::string, int>> pins;
    void apply(Bench& bench) override {
        // Each pin reads what the others on the wire drive.
        for (size_t i = 0; i < pins.size(); ++i) {
            for (size_t j = 0; j < pins.size(); ++j) {
                if (i == j) continue;
                std::weak_ptr<Adapter> far = bench.adapter(pins[j].first);
                const int far_pin = pins[j].second;
                bench.adapter(pins[i].first)->model<GpioModel>().wire(pins[i].second, [far, far_pin] {
                    auto a = far.lock();
                    return a ? a->model<GpioModel>().driven(far_pin) : -1;
                });
            }
        }
    }
};

std::unique_ptr<Piece> read_wire(Table& t, Context& ctx) {
    auto piece = std::make_unique<WirePiece>();
    const toml::array* pins = t.array("pins");
    if (pins == nullptr) t.fail("missing key 'pins'");
    if (pins->size() < 2) t.fail_at("pins", "a wire joins at least two pins");
    for (const toml::node& p : *pins) {
        std::string adapter;
        int pin = 0;
        world::find_channel(t, ctx, p, "pins", kPins, adapter, pin);
        const std::string key = adapter + ":" + std::to_string(pin);
        if (ctx.find<int>("gpio_wire", key)) t.fail_node(p, "pin " + key + " is already on a wire");
        ctx.declare("gpio_wire", key, std::make_shared<int>(pin));
        piece->pins.push_back({adapter, pin});
    }
    return piece;
}

POLYBUS_WORLD_KIND(gpio_wire_kind,
                   Kind{"gpio_wire", world::kRankDevices, "pins joined by a wire: pins = [\"adapter:pin\", ...]", read_wire});

}  // namespace
}  // namespace polybus_sim
