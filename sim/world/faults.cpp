// [[fault]]: the adapter misbehaves on cue, at the n-th occurrence of a command code
// or from a moment after the world starts. The faults are the adapter's own
// (Adapter::inject), so they apply to every family's commands alike.
#include <map>

#include "world.h"

namespace polybus_sim {
namespace world {
namespace {

const std::map<std::string, Fault>& fault_names() {
    static const std::map<std::string, Fault> names = {
        {"no_answer", Fault::NoAnswer},       {"short", Fault::ShortPayload},
        {"oversized", Fault::Oversized},      {"short_header", Fault::ShortHeader},
        {"wrong_echo", Fault::WrongEcho},     {"empty", Fault::EmptyPayload},
        {"garbage", Fault::Garbage},          {"unplug", Fault::UnplugBefore},
        {"unplug_during", Fault::UnplugDuring}, {"replug", Fault::ReplugElsewhere},
    };
    return names;
}

class FaultPiece : public Piece {
public:
    std::string adapter;
    Fault fault = Fault::NoAnswer;
    bool any_command = true;
    uint32_t command = 0;
    int nth = 0;       // 0: by time
    int64_t at_us = 0;
    int count = 1;

    void apply(Bench& bench) override {
        if (nth > 0) bench.adapter(adapter)->inject(fault, command, count, nth - 1);
    }
    void start(Bench& bench) override {
        if (nth > 0) return;
        std::weak_ptr<Adapter> weak = bench.adapter(adapter);
        const Fault f = fault;
        const uint32_t code = any_command ? Adapter::kAnyCommand : command;
        const int n = count;
        // Unplugging needs no command to happen on: it happens at the moment itself.
        const bool immediate = any_command && (f == Fault::UnplugBefore || f == Fault::ReplugElsewhere);
        const auto due = std::chrono::nanoseconds(bench.start_ns() + at_us * 1000) -
                         std::chrono::steady_clock::now().time_since_epoch();
        bench.clock().after(std::chrono::duration_cast<std::chrono::microseconds>(due), [weak, f, code, n, immediate] {
            auto a = weak.lock();
            if (!a) return;
            if (!immediate) a->inject(f, code, n);
            else if (f == Fault::UnplugBefore) a->unplug();
            else a->replug(true);
        });
    }
};

std::unique_ptr<Piece> read_fault(Table& t, Context& ctx) {
    auto piece = std::make_unique<FaultPiece>();
    piece->adapter = t.string("adapter");
    if (!ctx.find<AdapterSpec>("adapter", piece->adapter)) t.fail_at("adapter", "no adapter named '" + piece->adapter + "'");
    const std::string kind = t.string("fault");
    auto it = fault_names().find(kind);
    if (it == fault_names().end()) {
        std::string all;
        for (auto& [name, f] : fault_names()) all += (all.empty() ? "" : ", ") + name;
        t.fail_at("fault", "unknown fault '" + kind + "' (expected one of: " + all + ")");
    }
    piece->fault = it->second;
    t.rename("fault '" + kind + "' on '" + piece->adapter + "'");
    if (t.has("command")) {
        piece->command = uint32_t(t.integer_in("command", 0, 0xFFFFFFFE));
        piece->any_command = false;
    }
    piece->count = int(t.integer("count", 1, 1, 1000000));
    const bool by_count = t.has("nth"), by_time = t.has("at_ms");
    if (by_count == by_time) t.fail("give either nth (with command) or at_ms");
    if (by_count) {
        piece->nth = int(t.integer_in("nth", 1, 1000000000));
        if (piece->any_command) t.fail_at("nth", "'nth' counts one command: give 'command' too");
    } else {
        const double ms = t.number("at_ms", 0);
        if (!(ms >= 0 && ms <= 1e9)) t.fail_at("at_ms", "'at_ms' must be 0 or more");
        piece->at_us = int64_t(ms * 1000);
    }
    return piece;
}

POLYBUS_WORLD_KIND(fault_kind, Kind{"fault", kRankFaults,
                                    "a scripted fault: adapter, fault, command + nth, or at_ms", read_fault});

}  // namespace
}  // namespace world
}  // namespace polybus_sim
