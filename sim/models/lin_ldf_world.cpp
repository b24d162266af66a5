// World files: [[lin_ldf]], a LIN cluster described by an LDF file on an adapter's
// LIN channel. The world plays the nodes the adapter does not: every slave node when
// the adapter is the master, or the master node running one schedule table when the
// adapter is a slave.
#include "lin_ldf.h"
#include "lin_model.h"
#include "world.h"

namespace polybus_sim {
namespace {

using world::Bench;
using world::Context;
using world::Kind;
using world::Piece;
using world::Table;

class LdfPiece : public Piece {
public:
    std::string adapter;
    int channel = 0;
    bool play_master = false;
    LdfSlavesConfig slaves;
    LdfMasterConfig master;

    void apply(Bench& bench) override {
        auto bus = bench.adapter(adapter)->model<LinModel>().bus(channel);
        if (!play_master) {
            auto node = std::make_shared<LdfSlaves>(slaves);
            bus->attach(node);
            bench.keep(node);
            return;
        }
        master_ = std::make_shared<LdfMaster>(bus, master);
        bench.keep(master_);
        std::weak_ptr<LdfMaster> weak = master_;
        bench.on_teardown([weak] {
            if (auto m = weak.lock()) m->stop();
        });
    }
    void start(Bench& bench) override {
        if (master_) master_->start(bench.clock());
    }

private:
    std::shared_ptr<LdfMaster> master_;
};

std::unique_ptr<Piece> read_lin_ldf(Table& t, Context& ctx) {
    auto piece = std::make_unique<LdfPiece>();
    world::find_channel(t, ctx, t.required("channel"), "LIN channels", LinModel::kChannels, piece->adapter,
                        piece->channel);
    const std::string channel_text = t.string("channel");
    if (auto taken = ctx.find<std::string>("lin_ldf_channel", channel_text))
        t.fail_at("channel", "channel " + channel_text + " already carries the cluster of " + *taken);

    const std::string path = ctx.resolve(t.string("ldf"));
    auto cluster = std::make_shared<LdfCluster>();
    int line = 0;
    std::string error;
    if (!read_ldf(path, *cluster, line, error)) {
        if (line == 0) t.fail_at("ldf", "LDF file not found: " + path);
        t.fail_at("ldf", "LDF file " + path + ":" + std::to_string(line) + ": " + error);
    }
    ctx.declare("lin_ldf_channel", channel_text, std::make_shared<std::string>(path));
    t.rename("lin_ldf '" + path + "'");

    const std::string role = t.string("role", "slaves");
    if (role != "slaves" && role != "master")
        t.fail_at("role", "'role' must be \"slaves\" (the world plays the slave nodes, the adapter is master) or "
                          "\"master\" (the world plays the master, the adapter is a slave)");
    piece->play_master = role == "master";
    if (piece->play_master) {
        if (!t.has("schedule")) t.fail("role = \"master\" needs the schedule table the master runs: schedule = \"...\"");
        const std::string schedule = t.string("schedule");
        const LdfSchedule* sch = cluster->schedule(schedule);
        if (sch == nullptr) t.fail_at("schedule", "no schedule table '" + schedule + "' in " + path);
        bool plays = false;
        for (auto& slot : sch->slots) plays = plays || cluster->frame(slot.frame) != nullptr;
        if (!plays) t.fail_at("schedule", "schedule table '" + schedule + "' names no frame of " + path);
        piece->master.schedule = schedule;
        const double start_ms = t.number("start_ms", 0);
        if (!(start_ms >= 0 && start_ms <= 3600000)) t.fail_at("start_ms", "'start_ms' must be 0 to 3600000");
        piece->master.start_delay_ns = int64_t(start_ms * 1e6);
    } else if (t.has("schedule")) {
        t.fail_at("schedule", "slaves run no schedule: 'schedule' goes with role = \"master\"");
    }

    std::map<std::string, uint64_t> values;
    if (const toml::table* signals = t.table("signals")) {
        for (auto&& [key, value] : *signals) {
            const std::string name(key.str());
            const LdfSignal* s = cluster->signal(name);
            if (s == nullptr)
                throw world::WorldError(world::location_of(key.source(), t.file()),
                                        t.what() + ": no signal '" + name + "' in " + path);
            if (!value.is_integer()) t.fail_node(value, "signal '" + name + "' takes a raw integer value");
            const int64_t raw = value.as_integer()->get();
            const uint64_t max = s->size >= 63 ? uint64_t(INT64_MAX) : (uint64_t{1} << s->size) - 1;
            if (raw < 0 || uint64_t(raw) > max)
                t.fail_node(value, "signal '" + name + "' has " + std::to_string(s->size) + " bits: 0 to " +
                                       std::to_string(max));
            values[name] = uint64_t(raw);
        }
    }
    piece->slaves.cluster = cluster;
    piece->slaves.values = values;
    piece->master.cluster = cluster;
    piece->master.values = values;
    return piece;
}

POLYBUS_WORLD_KIND(lin_ldf_kind, Kind{"lin_ldf", world::kRankDevices,
                                      "a LIN cluster from an LDF file: channel, ldf, role = \"slaves\" | \"master\", "
                                      "schedule, start_ms, [signals]",
                                      read_lin_ldf});

}  // namespace
}  // namespace polybus_sim
