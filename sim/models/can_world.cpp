// The CAN family's share of world files:
//   [[can_bus]]       a named bus joining channels of one or several adapters
//   [[can_peer]]      a node that acknowledges, echoes, answers and sends fixed frames
//   [[can_dbc_peer]]  a node sending the messages of a DBC file at their cycle times
//   [[can_replay]]    a node replaying a candump -l log with its timing
//   [[can_uds_ecu]]   a diagnostic ECU (ISO 15765-2 server with a few UDS services)
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "can_dbc.h"
#include "can_model.h"
#include "can_uds_ecu.h"
#include "world.h"

namespace polybus_sim {
namespace {

using world::Bench;
using world::Context;
using world::Kind;
using world::Piece;
using world::Table;

constexpr double kPi = 3.14159265358979323846;

struct BusSpec {
    std::string name;
    uint32_t bitrate = 0, data_bitrate = 0;
    std::vector<std::pair<std::string, int>> channels;
    std::shared_ptr<CanBus> bus;  // made when the world is built
};

// Oscillators within 1 % sync, as on the simulated bus.
bool rates_agree(uint32_t a, uint32_t b) { return std::fabs(double(a) - double(b)) <= 0.01 * double(std::max(a, b)); }

// ---- [[can_bus]] ----------------------------------------------------------------------

class BusPiece : public Piece {
public:
    explicit BusPiece(std::shared_ptr<BusSpec> spec) : spec_(std::move(spec)) {}
    void apply(Bench& bench) override {
        spec_->bus = std::make_shared<CanBus>();
        for (auto& [adapter, channel] : spec_->channels)
            bench.adapter(adapter)->model<CanModel>().attach(channel, spec_->bus);
    }

private:
    std::shared_ptr<BusSpec> spec_;
};

std::unique_ptr<Piece> read_bus(Table& t, Context& ctx) {
    auto spec = std::make_shared<BusSpec>();
    spec->name = t.string("name");
    t.rename("can_bus '" + spec->name + "'");
    if (ctx.find<BusSpec>("can_bus", spec->name)) t.fail_at("name", "bus '" + spec->name + "' is declared twice");
    spec->bitrate = uint32_t(t.integer("bitrate", 0, 5000, 1000000));
    spec->data_bitrate = uint32_t(t.integer("data_bitrate", 0, 10000, 10000000));
    // Rates stated in the file, and where, so a disagreement names both.
    uint32_t first_rate = spec->bitrate;
    std::string first_where = "the bus";
    if (const toml::array* channels = t.array("channels")) {
        for (const toml::node& item : *channels) {
            std::string text;
            uint32_t rate = 0;
            if (item.is_string()) {
                text = item.as_string()->get();
            } else if (item.is_table()) {
                Table entry(*item.as_table(), t.file(), t.what());
                text = entry.string("channel");
                rate = uint32_t(entry.integer("bitrate", 0, 5000, 1000000));
                entry.finish();
            } else {
                t.fail_node(item, "a channel is \"adapter:channel\" or { channel = \"adapter:channel\", bitrate = N }");
            }
            int ch = 0;
            std::string adapter;
            if (item.is_string()) {
                world::find_channel(t, ctx, item, "CAN channels", CanModel::kChannels, adapter, ch);
            } else {
                Table entry(*item.as_table(), t.file(), t.what());
                world::find_channel(t, ctx, entry.required("channel"), "CAN channels", CanModel::kChannels, adapter, ch);
            }
            if (auto taken = ctx.find<std::string>("can_channel", text))
                t.fail_node(item, "channel " + text + " is already on bus '" + *taken + "'");
            ctx.declare("can_channel", text, std::make_shared<std::string>(spec->name));
            if (rate != 0) {
                if (first_rate != 0 && !rates_agree(first_rate, rate))
                    t.fail_node(item, "bus '" + spec->name + "' has channels at " + std::to_string(first_rate) + " and " +
                                          std::to_string(rate) + " bit/s (" + first_where + " and " + text + ")");
                if (first_rate == 0) {
                    first_rate = rate;
                    first_where = text;
                }
            }
            spec->channels.push_back({adapter, ch});
        }
    }
    if (spec->bitrate == 0) spec->bitrate = first_rate;
    ctx.declare("can_bus", spec->name, spec);
    return std::make_unique<BusPiece>(spec);
}

POLYBUS_WORLD_KIND(can_bus_kind, Kind{"can_bus", world::kRankBuses,
                                      "a CAN bus: name, bitrate, data_bitrate, channels = [\"adapter:channel\", ...]",
                                      read_bus});

// ---- Peers: shared parts ------------------------------------------------------------------

std::shared_ptr<BusSpec> peer_bus(Table& t, Context& ctx) {
    const std::string name = t.string("bus");
    auto bus = ctx.find<BusSpec>("can_bus", name);
    if (!bus) t.fail_at("bus", "no [[can_bus]] named '" + name + "'");
    if (bus->bitrate == 0)
        t.fail_at("bus", "bus '" + name + "' has no bit rate: give it one (bitrate = ...) so its peers know theirs");
    return bus;
}

class PeerPiece : public Piece {
public:
    PeerPiece(std::shared_ptr<BusSpec> bus, bool acknowledge) : bus_(std::move(bus)), acknowledge_(acknowledge) {}
    void apply(Bench& bench) override {
        peer_ = std::make_shared<CanPeer>(bench.clock(), bus_->bitrate, bus_->data_bitrate);
        peer_->set_acknowledge(acknowledge_);
        peer_->set_bus(bus_->bus);
        bus_->bus->attach(peer_);
        bench.keep(peer_);
        std::weak_ptr<CanPeer> weak = peer_;
        bench.on_teardown([weak] {
            if (auto p = weak.lock()) p->stop();
        });
        configure(bench);
    }

protected:
    virtual void configure(Bench&) {}
    std::shared_ptr<BusSpec> bus_;
    bool acknowledge_;
    std::shared_ptr<CanPeer> peer_;
};

uint32_t read_id(Table& t, const std::string& key, bool extended) {
    const int64_t id = t.integer(key);
    const int64_t max = extended ? 0x1FFFFFFF : 0x7FF;
    if (id < 0 || id > max)
        t.fail_at(key, "'" + key + "' must be 0 to " + (extended ? std::string("0x1FFFFFFF") : std::string("0x7FF")) +
                           (extended ? "" : " (set extended = true for a 29-bit identifier)"));
    return uint32_t(id);
}

BusFrame read_frame(Table& t, const std::string& id_key, bool fd_bus) {
    BusFrame f;
    f.extended = t.boolean("extended", false);
    f.id = read_id(t, id_key, f.extended);
    f.fd = t.boolean("fd", false);
    if (f.fd && !fd_bus) t.fail_at("fd", "CAN FD frames need a bus with a data_bitrate");
    f.brs = f.fd;
    f.remote = t.boolean("remote", false);
    std::vector<uint8_t> bytes;
    const std::string data = t.string("data", "");
    if (!world::parse_hex_bytes(data, bytes)) t.fail_at("data", "'data' must be hex bytes, e.g. \"DE AD BE EF\"");
    const size_t max = f.fd ? 64 : 8;
    if (bytes.size() > max) t.fail_at("data", "'data' holds " + std::to_string(bytes.size()) + " bytes, at most " +
                                                  std::to_string(max) + " fit");
    std::copy(bytes.begin(), bytes.end(), f.data);
    f.len = uint8_t(bytes.size());
    return f;
}

// ---- [[can_peer]] ---------------------------------------------------------------------------

class GenericPeer : public PeerPiece {
public:
    using PeerPiece::PeerPiece;
    struct Answer {
        uint32_t request;
        BusFrame reply;
        int64_t delay_us;
        bool echo;
    };
    struct Periodic {
        BusFrame frame;
        int64_t period_us;
    };
    std::vector<Answer> answers;
    std::vector<Periodic> periodic;

    void configure(Bench&) override {
        for (auto& a : answers) {
            if (a.echo) peer_->echo(a.request, a.reply.id, a.reply.extended, a.delay_us);
            else peer_->answer(a.request, a.reply, a.delay_us);
        }
    }
    void start(Bench&) override {
        for (auto& p : periodic) peer_->transmit_every(p.frame, p.period_us);
    }
};

std::unique_ptr<Piece> read_peer(Table& t, Context& ctx) {
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("can_peer '" + name + "'");
    auto bus = peer_bus(t, ctx);
    auto piece = std::make_unique<GenericPeer>(bus, t.boolean("acknowledge", true));
    const bool fd_bus = bus->data_bitrate != 0;
    if (const toml::array* echo = t.array("echo")) {
        for (const toml::node& item : *echo) {
            if (item.is_integer()) {
                const int64_t id = item.as_integer()->get();
                if (id < 0 || id > 0x1FFFFFFF) t.fail_node(item, "identifier out of range");
                BusFrame reply;
                reply.id = uint32_t(id);
                reply.extended = id > 0x7FF;
                piece->answers.push_back({uint32_t(id), reply, 200, true});
            } else if (item.is_table()) {
                Table e(*item.as_table(), t.file(), t.what() + " echo");
                BusFrame reply;
                reply.extended = e.boolean("extended", false);
                const uint32_t id = read_id(e, "id", reply.extended);
                reply.id = e.has("reply_id") ? read_id(e, "reply_id", reply.extended) : id;
                const int64_t delay = e.integer("delay_us", 200, 0, 10000000);
                e.finish();
                piece->answers.push_back({id, reply, delay, true});
            } else {
                t.fail_node(item, "an echo entry is an identifier or { id = ..., reply_id = ..., delay_us = ... }");
            }
        }
    }
    if (const toml::array* answers = t.array("answer")) {
        for (const toml::node& item : *answers) {
            if (!item.is_table()) t.fail_node(item, "an answer is { request = ..., reply = ..., data = \"...\" }");
            Table a(*item.as_table(), t.file(), t.what() + " answer");
            const bool extended = a.boolean("request_extended", false);
            const uint32_t request = read_id(a, "request", extended);
            const int64_t delay = a.integer("delay_us", 200, 0, 10000000);
            BusFrame reply = read_frame(a, "reply", fd_bus);
            a.finish();
            piece->answers.push_back({request, reply, delay, false});
        }
    }
    if (const toml::array* sends = t.array("send")) {
        for (const toml::node& item : *sends) {
            if (!item.is_table()) t.fail_node(item, "a send entry is { id = ..., data = \"...\", period_ms = ... }");
            Table s(*item.as_table(), t.file(), t.what() + " send");
            const double period_ms = s.number("period_ms", 100);
            if (!(period_ms >= 0.1 && period_ms <= 3600000)) s.fail_at("period_ms", "'period_ms' must be 0.1 to 3600000");
            BusFrame frame = read_frame(s, "id", fd_bus);
            s.finish();
            piece->periodic.push_back({frame, int64_t(period_ms * 1000)});
        }
    }
    return piece;
}

POLYBUS_WORLD_KIND(can_peer_kind, Kind{"can_peer", world::kRankDevices,
                                       "a CAN node: bus, acknowledge, echo = [ids], [[answer]], [[send]]", read_peer});

// ---- [[can_dbc_peer]] -----------------------------------------------------------------------

struct Wave {
    enum Shape { Constant, Ramp, Sine, Counter } shape = Constant;
    double a = 0, b = 0, period_ms = 1000;  // constant a; ramp a->b; sine between a and b
    uint64_t start = 0, step = 1, modulo = 0;  // counter, in raw units (modulo 0: the signal's range)
};

Wave read_wave(Table& t, const toml::node& n, const std::string& signal) {
    Wave w;
    if (n.is_integer() || n.is_floating_point()) {
        w.a = n.is_integer() ? double(n.as_integer()->get()) : n.as_floating_point()->get();
        return w;
    }
    if (!n.is_table())
        t.fail_node(n, "signal '" + signal + "' takes a number or { wave = \"ramp\" | \"sine\" | \"counter\", ... }");
    Table v(*n.as_table(), t.file(), t.what() + " signal '" + signal + "'");
    const std::string shape = v.string("wave");
    auto period = [&v] {
        const double p = v.number("period_ms", 1000);
        if (!(p >= 1)) v.fail_at("period_ms", "'period_ms' must be 1 or more");
        return p;
    };
    if (shape == "ramp") {
        w.shape = Wave::Ramp;
        w.a = v.number("from", 0);
        w.b = v.number("to", 100);
        w.period_ms = period();
    } else if (shape == "sine") {
        w.shape = Wave::Sine;
        w.a = v.number("min", 0);
        w.b = v.number("max", 100);
        w.period_ms = period();
    } else if (shape == "counter") {
        w.shape = Wave::Counter;
        w.start = uint64_t(v.integer("start", 0, 0, INT64_MAX));
        w.step = uint64_t(v.integer("step", 1, 1, INT64_MAX));
        w.modulo = uint64_t(v.integer("modulo", 0, 0, INT64_MAX));
    } else {
        v.fail_at("wave", "'wave' must be \"ramp\", \"sine\" or \"counter\", not \"" + shape + "\"");
    }
    v.finish();
    return w;
}

struct SignalPlan {
    DbcSignal signal;
    Wave wave;
    bool set = false;  // not set: raw 0
};

struct MessagePlan {
    DbcMessage message;
    int cycle_ms;
    std::vector<SignalPlan> signals;
};

class DbcPeer : public PeerPiece {
public:
    using PeerPiece::PeerPiece;
    std::vector<MessagePlan> messages;
    int64_t start_offset_us = 0;

    void start(Bench& bench) override {
        const int64_t t0 = bench.start_ns();
        const bool fd_bus = bus_->data_bitrate != 0;
        for (auto& plan : messages) {
            auto shared = std::make_shared<MessagePlan>(plan);
            peer_->transmit_every(
                [shared, t0, fd_bus](uint64_t n, int64_t due_ns) { return encode(*shared, n, double(due_ns - t0) / 1e6, fd_bus); },
                int64_t(plan.cycle_ms) * 1000, t0 + start_offset_us * 1000);
        }
    }

    static uint64_t raw_at(const SignalPlan& s, uint64_t n, double t_ms) {
        const Wave& w = s.wave;
        switch (w.shape) {
            case Wave::Constant: return dbc_raw(s.signal, w.a);
            case Wave::Ramp: {
                const double phase = std::fmod(t_ms, w.period_ms) / w.period_ms;
                return dbc_raw(s.signal, w.a + (w.b - w.a) * phase);
            }
            case Wave::Sine: {
                const double mid = (w.a + w.b) / 2, amp = (w.b - w.a) / 2;
                return dbc_raw(s.signal, mid + amp * std::sin(2 * kPi * t_ms / w.period_ms));
            }
            case Wave::Counter: {
                const unsigned bits = s.signal.length;
                uint64_t v = w.start + n * w.step;
                if (w.modulo != 0) v %= w.modulo;
                return bits >= 64 ? v : v & ((uint64_t{1} << bits) - 1);
            }
        }
        return 0;
    }

    static BusFrame encode(const MessagePlan& m, uint64_t n, double t_ms, bool fd_bus) {
        BusFrame f;
        f.id = m.message.id;
        f.extended = m.message.extended;
        f.len = uint8_t(m.message.length);
        f.fd = m.message.length > 8;
        f.brs = f.fd && fd_bus;
        uint64_t selector = 0;
        bool has_selector = false;
        for (auto& s : m.signals) {
            if (s.signal.mux != DbcSignal::Mux::Switch) continue;
            selector = s.set ? raw_at(s, n, t_ms) : 0;
            has_selector = true;
            dbc_put(f.data, f.len, s.signal, selector);
        }
        for (auto& s : m.signals) {
            if (s.signal.mux == DbcSignal::Mux::Switch || !s.set) continue;
            if (s.signal.mux == DbcSignal::Mux::Multiplexed && has_selector && s.signal.mux_value != selector) continue;
            dbc_put(f.data, f.len, s.signal, raw_at(s, n, t_ms));
        }
        return f;
    }
};

std::unique_ptr<Piece> read_dbc_peer(Table& t, Context& ctx) {
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("can_dbc_peer '" + name + "'");
    auto bus = peer_bus(t, ctx);
    const std::string path = ctx.resolve(t.string("dbc"));
    DbcFile dbc;
    int line = 0;
    std::string error;
    if (!read_dbc(path, dbc, line, error)) {
        if (line == 0) t.fail_at("dbc", "DBC file not found: " + path);
        t.fail_at("dbc", "DBC file " + path + ":" + std::to_string(line) + ": " + error);
    }
    auto piece = std::make_unique<DbcPeer>(bus, t.boolean("acknowledge", true));
    piece->start_offset_us = int64_t(t.number("start_ms", 0) * 1000);
    if (piece->start_offset_us < 0) t.fail_at("start_ms", "'start_ms' must not be negative");
    std::vector<const DbcMessage*> chosen;
    if (const toml::array* names = t.array("messages")) {
        for (const toml::node& item : *names) {
            if (!item.is_string()) t.fail_node(item, "'messages' lists message names");
            const DbcMessage* m = dbc.message(item.as_string()->get());
            if (m == nullptr) t.fail_node(item, "no message '" + item.as_string()->get() + "' in " + path);
            if (dbc.cycle_ms(*m) <= 0)
                t.fail_node(item, "message '" + m->name + "' has no GenMsgCycleTime, so it has no period to send at");
            chosen.push_back(m);
        }
    } else {
        for (auto& m : dbc.messages)
            if (dbc.cycle_ms(m) > 0) chosen.push_back(&m);
        if (chosen.empty()) t.fail_at("dbc", "no message of " + path + " has a GenMsgCycleTime; list none to send");
    }
    for (const DbcMessage* m : chosen) {
        if (m->length > 8 && bus->data_bitrate == 0)
            t.fail_at("dbc", "message '" + m->name + "' is a CAN FD frame (" + std::to_string(m->length) +
                                 " bytes) but bus '" + bus->name + "' has no data_bitrate");
        MessagePlan plan{*m, dbc.cycle_ms(*m), {}};
        for (auto& s : m->signals) plan.signals.push_back({s, Wave{}, false});
        piece->messages.push_back(std::move(plan));
    }
    if (const toml::table* values = t.table("signals")) {
        for (auto&& [key, value] : *values) {
            // "Signal" sets it in every chosen message; "Message.Signal" in one.
            const std::string k(key.str());
            const size_t dot = k.find('.');
            const std::string message = dot == std::string::npos ? "" : k.substr(0, dot);
            const std::string signal = dot == std::string::npos ? k : k.substr(dot + 1);
            const Wave wave = read_wave(t, value, k);
            bool found = false;
            for (auto& plan : piece->messages) {
                if (!message.empty() && plan.message.name != message) continue;
                for (auto& s : plan.signals)
                    if (s.signal.name == signal) {
                        s.wave = wave;
                        s.set = true;
                        found = true;
                    }
            }
            if (!found)
                throw world::WorldError(world::location_of(key.source(), t.file()),
                                        t.what() + ": no signal '" + k + "' in the messages this peer sends");
        }
    }
    return piece;
}

POLYBUS_WORLD_KIND(can_dbc_peer_kind,
                   Kind{"can_dbc_peer", world::kRankDevices,
                        "a node sending DBC messages at their GenMsgCycleTime: bus, dbc, messages, [signals]",
                        read_dbc_peer});

// ---- [[can_replay]] -------------------------------------------------------------------------

class ReplayPeer : public PeerPiece {
public:
    using PeerPiece::PeerPiece;
    std::vector<LoggedFrame> frames;
    bool loop = false;
    int64_t start_offset_us = 0, loop_gap_us = 0;

    struct Run {
        std::vector<LoggedFrame> frames;
        bool loop;
        int64_t gap_ns;
    };

    void start(Bench& bench) override {
        auto run = std::make_shared<Run>(Run{frames, loop, loop_gap_us * 1000});
        const int64_t base = bench.start_ns() + start_offset_us * 1000 - frames.front().time_us * 1000;
        step(bench.clock(), peer_, run, 0, base);
    }

    // One frame at a time: a long log never fills the timer queue.
    static void step(Adapter& clock, std::weak_ptr<CanPeer> weak, std::shared_ptr<Run> run, size_t i, int64_t base) {
        const int64_t due = base + run->frames[i].time_us * 1000;
        Adapter* c = &clock;
        clock.after(until_bus_ns(due), [c, weak, run, i, base, due] {
            auto peer = weak.lock();
            if (!peer) return;
            peer->send_at(run->frames[i].frame, due);
            if (i + 1 < run->frames.size()) {
                step(*c, weak, run, i + 1, base);
            } else if (run->loop) {
                const int64_t span = (run->frames.back().time_us - run->frames.front().time_us) * 1000;
                step(*c, weak, run, 0, base + span + run->gap_ns);
            }
        });
    }
};

std::unique_ptr<Piece> read_replay(Table& t, Context& ctx) {
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("can_replay '" + name + "'");
    auto bus = peer_bus(t, ctx);
    const std::string path = ctx.resolve(t.string("log"));
    std::vector<LoggedFrame> frames;
    int line = 0;
    std::string error;
    if (!read_candump(path, frames, line, error)) {
        if (line == 0) t.fail_at("log", "log file not found: " + path);
        t.fail_at("log", "log file " + path + ":" + std::to_string(line) + ": " + error);
    }
    const std::string iface = t.string("interface", "");
    if (!iface.empty())
        frames.erase(std::remove_if(frames.begin(), frames.end(), [&](const LoggedFrame& f) { return f.interface != iface; }),
                     frames.end());
    if (frames.empty()) t.fail_at("log", "no frames to replay in " + path + (iface.empty() ? "" : " on " + iface));
    for (size_t i = 1; i < frames.size(); ++i)
        if (frames[i].time_us < frames[i - 1].time_us)
            t.fail_at("log", "time stamps of " + path + " go backwards at frame " + std::to_string(i + 1));
    for (auto& f : frames)
        if (f.frame.fd && bus->data_bitrate == 0)
            t.fail_at("log", path + " holds CAN FD frames but bus '" + bus->name + "' has no data_bitrate");
    auto piece = std::make_unique<ReplayPeer>(bus, t.boolean("acknowledge", true));
    piece->frames = std::move(frames);
    piece->loop = t.boolean("loop", false);
    piece->start_offset_us = int64_t(t.number("start_ms", 0) * 1000);
    piece->loop_gap_us = int64_t(t.number("loop_gap_ms", 0) * 1000);
    if (piece->start_offset_us < 0 || piece->loop_gap_us < 0) t.fail("start_ms and loop_gap_ms must not be negative");
    return piece;
}

POLYBUS_WORLD_KIND(can_replay_kind, Kind{"can_replay", world::kRankDevices,
                                         "a node replaying a candump -l log: bus, log, interface, loop", read_replay});

// ---- [[can_uds_ecu]] ------------------------------------------------------------------------

class UdsEcuPiece : public Piece {
public:
    UdsEcuPiece(std::shared_ptr<BusSpec> bus, UdsEcuConfig config) : bus_(std::move(bus)), config_(std::move(config)) {}
    void apply(Bench& bench) override {
        auto ecu = std::make_shared<UdsEcu>(bench.clock(), config_);
        ecu->attach(bus_->bus);
        bench.keep(ecu);
        std::weak_ptr<UdsEcu> weak = ecu;
        bench.on_teardown([weak] {
            if (auto e = weak.lock()) e->detach();
        });
    }

private:
    std::shared_ptr<BusSpec> bus_;
    UdsEcuConfig config_;
};

constexpr int64_t kMaxIdentifierBytes = 1 << 20;
constexpr int64_t kMaxRegionBytes = 16 << 20;

// "F190", "0xF190": a data identifier; false when it is not 1 to 4 hex digits.
bool parse_identifier(std::string text, uint16_t& out) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text = text.substr(2);
    if (text.empty() || text.size() > 4) return false;
    unsigned v = 0;
    for (char c : text) {
        const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (d < 0) return false;
        v = v << 4 | unsigned(d);
    }
    out = uint16_t(v);
    return true;
}

// One identifier's data: { hex = "..." }, { text = "..." } or { length = N, fill = B }.
std::vector<uint8_t> read_identifier_data(Table& t, const toml::node& value, const std::string& name) {
    if (!value.is_table())
        t.fail_node(value, "identifier " + name + " takes { hex = \"...\" }, { text = \"...\" } or { length = N }");
    Table v(*value.as_table(), t.file(), t.what() + " identifier " + name);
    const int given = int(v.has("hex")) + int(v.has("text")) + int(v.has("length"));
    if (given != 1) v.fail("identifier " + name + " needs exactly one of 'hex', 'text' and 'length'");
    if (v.has("fill") && !v.has("length")) v.fail_at("fill", "'fill' goes with 'length'");
    std::vector<uint8_t> data;
    if (v.has("hex")) {
        if (!world::parse_hex_bytes(v.string("hex"), data))
            v.fail_at("hex", "'hex' must be hex bytes, e.g. \"DE AD BE EF\"");
    } else if (v.has("text")) {
        const std::string text = v.string("text");
        data.assign(text.begin(), text.end());
    } else {
        const int64_t length = v.integer_in("length", 0, kMaxIdentifierBytes);
        data.resize(size_t(length));
        if (v.has("fill")) {
            std::fill(data.begin(), data.end(), uint8_t(v.integer_in("fill", 0, 255)));
        } else {
            // Changes from one 256-byte stretch to the next, so a shifted block shows.
            for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i + (i >> 8));
        }
    }
    if (data.size() > size_t(kMaxIdentifierBytes))
        v.fail("identifier " + name + " holds " + std::to_string(data.size()) + " bytes, at most " +
               std::to_string(kMaxIdentifierBytes) + " fit");
    v.finish();
    return data;
}

std::unique_ptr<Piece> read_uds_ecu(Table& t, Context& ctx) {
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("can_uds_ecu '" + name + "'");
    auto bus = peer_bus(t, ctx);
    UdsEcuConfig c;
    c.nominal_bps = bus->bitrate;

    // Identifiers: the 29-bit defaults are the usual physical request/response pair.
    c.extended_ids = t.boolean("extended", false);
    c.request_id = t.has("request_id") ? read_id(t, "request_id", c.extended_ids) : c.extended_ids ? 0x18DA10F1 : 0x7E0;
    c.response_id = t.has("response_id") ? read_id(t, "response_id", c.extended_ids) : c.extended_ids ? 0x18DAF110 : 0x7E8;
    if (c.request_id == c.response_id) {
        char both[16];
        std::snprintf(both, sizeof(both), "0x%X", unsigned(c.request_id));
        t.fail_at(t.has("response_id") ? "response_id" : "request_id",
                  std::string("requests and responses need identifiers of their own (both are ") + both + ")");
    }

    const std::string addressing = t.string("addressing", "normal");
    if (addressing != "normal" && addressing != "extended")
        t.fail_at("addressing", "'addressing' must be \"normal\" or \"extended\", not \"" + addressing + "\"");
    c.extended_addressing = addressing == "extended";
    for (const char* key : {"ecu_address", "tester_address"})
        if (!c.extended_addressing && t.has(key))
            t.fail_at(key, std::string("'") + key + "' needs addressing = \"extended\"");
    c.ecu_address = uint8_t(t.integer("ecu_address", c.ecu_address, 0, 255));
    c.tester_address = uint8_t(t.integer("tester_address", c.tester_address, 0, 255));

    // Frames.
    c.fd = t.boolean("fd", false);
    if (c.fd && bus->data_bitrate == 0)
        t.fail_at("fd", "CAN FD frames need a bus with a data_bitrate (bus '" + bus->name + "' has none)");
    c.brs = t.boolean("brs", c.fd);
    if (c.brs && !c.fd) t.fail_at("brs", "'brs' (bit-rate switch) needs fd = true");
    c.data_bps = c.fd ? bus->data_bitrate : 0;
    const int64_t frame_len = t.integer("frame_len", c.fd ? 64 : 8, 8, 64);
    if (!c.fd && frame_len != 8) t.fail_at("frame_len", "classic frames hold 8 bytes: set fd = true for longer ones");
    static const int64_t kFdLengths[] = {8, 12, 16, 20, 24, 32, 48, 64};
    if (std::find(std::begin(kFdLengths), std::end(kFdLengths), frame_len) == std::end(kFdLengths))
        t.fail_at("frame_len", "'frame_len' must be a CAN FD frame length: 8, 12, 16, 20, 24, 32, 48 or 64");
    c.frame_len = uint8_t(frame_len);
    c.padding = uint8_t(t.integer("padding", c.padding, 0, 255));

    // Flow control it gives, and its pace.
    c.block_size = uint8_t(t.integer("block_size", 0, 0, 255));
    c.st_min = uint8_t(t.integer("st_min", 0, 0, 255));
    c.fc_delay_us = t.integer("fc_delay_us", c.fc_delay_us, 0, 10000000);
    c.response_delay_us = t.integer("response_delay_us", c.response_delay_us, 0, 10000000);

    // Data identifiers.
    if (const toml::table* ids = t.table("identifiers")) {
        // In file order, so a repeated identifier is refused where it is repeated.
        std::vector<std::pair<const toml::key*, const toml::node*>> entries;
        for (auto&& [key, value] : *ids) entries.push_back({&key, &value});
        std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
            const toml::source_position pa = a.first->source().begin, pb = b.first->source().begin;
            return pa.line != pb.line ? pa.line < pb.line : pa.column < pb.column;
        });
        for (auto [key_ptr, value_ptr] : entries) {
            const toml::key& key = *key_ptr;
            const toml::node& value = *value_ptr;
            const std::string text(key.str());
            uint16_t id = 0;
            if (!parse_identifier(text, id))
                throw world::WorldError(world::location_of(key.source(), t.file()),
                                        t.what() + ": identifier '" + text + "' is not 1 to 4 hex digits (e.g. F190)");
            char label[8];
            std::snprintf(label, sizeof(label), "0x%04X", unsigned(id));
            if (c.identifiers.count(id))
                throw world::WorldError(world::location_of(key.source(), t.file()),
                                        t.what() + ": identifier " + label + " is given twice");
            c.identifiers[id] = read_identifier_data(t, value, label);
        }
    }

    // Memory for downloads and read-back: the first region is the main memory.
    if (const toml::array* regions = t.array("memory")) {
        if (regions->empty()) t.fail_at("memory", "'memory' needs at least one { base = ..., size = ... }");
        std::vector<UdsMemoryRegion> list;
        for (const toml::node& item : *regions) {
            if (!item.is_table()) t.fail_node(item, "a memory region is { base = 0x08000000, size = 0x20000 }");
            Table r(*item.as_table(), t.file(), t.what() + " memory");
            UdsMemoryRegion region;
            region.base = uint32_t(r.integer_in("base", 0, 0xFFFFFFFF));
            region.size = uint32_t(r.integer_in("size", 1, kMaxRegionBytes));
            if (uint64_t{region.base} + region.size > 0x100000000ull)
                r.fail_at("size", "the region runs past the end of the 32-bit address space");
            r.finish();
            for (const UdsMemoryRegion& other : list)
                if (region.base < uint64_t{other.base} + other.size && other.base < uint64_t{region.base} + region.size)
                    t.fail_node(item, "memory regions overlap");
            list.push_back(region);
        }
        c.memory_base = list.front().base;
        c.memory_size = list.front().size;
        c.more_memory.assign(list.begin() + 1, list.end());
    }
    c.max_block_length = uint16_t(t.integer("max_block_length", c.max_block_length, 3, 0xFFFF));

    // Faults on demand.
    if (const toml::node* wait = t.node("fc_wait")) {
        if (wait->is_integer()) {
            const int64_t n = wait->as_integer()->get();
            if (n < 0 || n > 1000) t.fail_node(*wait, "'fc_wait' must be 0 to 1000 wait frames, or \"forever\"");
            c.fc_wait_frames = int(n);
        } else if (wait->is_string() && wait->as_string()->get() == "forever") {
            c.fc_wait_frames = -1;
        } else {
            t.fail_node(*wait, "'fc_wait' is a number of wait frames or \"forever\"");
        }
    }
    const double interval_ms = t.number("fc_wait_interval_ms", 100);
    if (!(interval_ms >= 0.1 && interval_ms <= 10000))
        t.fail_at("fc_wait_interval_ms", "'fc_wait_interval_ms' must be 0.1 to 10000");
    c.fc_wait_interval_us = int64_t(interval_ms * 1000);
    c.fc_overflow = t.boolean("fc_overflow", false);
    if (c.fc_overflow && c.fc_wait_frames != 0)
        t.fail_at("fc_overflow", "'fc_overflow' and 'fc_wait' exclude each other: overflow ends the transfer at once");
    c.wrong_sequence_at = int(t.integer("wrong_sequence_at", 0, 0, 1000000));
    c.oversized_single_frame = t.boolean("oversized_single_frame", false);
    c.silent = t.boolean("silent", false);
    return std::make_unique<UdsEcuPiece>(bus, std::move(c));
}

POLYBUS_WORLD_KIND(can_uds_ecu_kind,
                   Kind{"can_uds_ecu", world::kRankDevices,
                        "a diagnostic ECU: bus, request_id, response_id, addressing, fd, block_size, st_min, "
                        "[identifiers], memory, faults",
                        read_uds_ecu});

}  // namespace
}  // namespace polybus_sim
