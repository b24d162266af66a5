// The LIN family's share of world files:
//   [[lin_adapter]]    what an adapter's LIN side is set to: battery, result kinds, time
//   [[lin_slave]]      a slave node on an adapter's LIN channel, its frames by identifier
//   [[lin_diag_node]]  a diagnostic node (NAD) with the echo and ReadDataByIdentifier services
//   [[lin_master]]     a master node sending headers and data on its own clock
//   [[flin_node]]      what a FLIN channel reads back
#include <algorithm>
#include <climits>
#include <cstdio>

#include "lin_model.h"
#include "world.h"
#include "wire/lin.h"

namespace polybus_sim {
namespace {

using world::Bench;
using world::Context;
using world::Kind;
using world::Piece;
using world::Table;

// The longest data a ReadDataByIdentifier answer carries: 4095 bytes less the service
// byte and the identifier.
constexpr int64_t kMaxIdentifierData = 4092;

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

// "adapter:N" of a LIN (or FLIN) channel, and its text for the names other tables check.
struct ChannelRef {
    std::string adapter, text;
    int index = 0;
};

ChannelRef read_channel(Table& t, Context& ctx, const std::string& what) {
    ChannelRef c;
    world::find_channel(t, ctx, t.required("channel"), what, LinModel::kChannels, c.adapter, c.index);
    c.text = c.adapter + ":" + std::to_string(c.index);
    return c;
}

bool read_checksum(Table& t, bool fallback) {
    const std::string kind = t.string("checksum", fallback ? "enhanced" : "classic");
    if (kind != "enhanced" && kind != "classic")
        t.fail_at("checksum", "'checksum' must be \"enhanced\" or \"classic\", not \"" + kind + "\"");
    return kind == "enhanced";
}

std::vector<uint8_t> read_hex(Table& t, const std::string& key) {
    std::vector<uint8_t> bytes;
    if (!world::parse_hex_bytes(t.string(key), bytes))
        t.fail_at(key, "'" + key + "' must be hex bytes, e.g. \"01 02 A0\"");
    return bytes;
}

// Frame data: `data` (1..8 hex bytes), `length` (1..8: that many zero bytes), or both
// when they agree.
std::vector<uint8_t> read_frame_data(Table& t) {
    std::vector<uint8_t> data;
    const bool has_data = t.has("data");
    if (has_data) {
        data = read_hex(t, "data");
        if (data.empty() || data.size() > 8)
            t.fail_at("data", "'data' holds " + std::to_string(data.size()) + " bytes; a LIN frame carries 1 to 8");
    }
    if (t.has("length")) {
        const size_t length = size_t(t.integer_in("length", 1, 8));
        if (has_data && length != data.size())
            t.fail_at("length", "'length' is " + std::to_string(length) + " but 'data' holds " +
                                    std::to_string(data.size()) + " bytes");
        data.resize(length, 0);
    }
    if (data.empty()) t.fail("a published frame needs 'data' or 'length'");
    return data;
}

// ---- [[lin_adapter]] --------------------------------------------------------------------

class AdapterPiece : public Piece {
public:
    std::string adapter;
    bool battery = false;
    uint16_t battery_mv = 0;
    int result_kind[LinModel::kChannels] = {};  // 0: as the adapter starts
    bool scaled = false;
    double time_scale = 1;

    void apply(Bench& bench) override {
        LinModel& lin = bench.adapter(adapter)->model<LinModel>();
        if (battery) lin.set_battery_mv(battery_mv);
        for (int ch = 0; ch < LinModel::kChannels; ++ch)
            if (result_kind[ch] != 0) lin.set_read_result_kind(ch, uint8_t(result_kind[ch]));
        if (scaled) lin.set_time_scale(time_scale);
    }
};

int read_result_kind(Table& t, const toml::node& n) {
    if (!n.is_integer() || (n.as_integer()->get() != polybus::wire::LIN_MSG_CHECK_IN_DATA &&
                            n.as_integer()->get() != polybus::wire::LIN_MSG_CHECK_SEPARATE))
        t.fail_node(n, "a result kind is 8 (checksum counted as data) or 9 (data and checksum apart)");
    return int(n.as_integer()->get());
}

std::unique_ptr<Piece> read_adapter(Table& t, Context& ctx) {
    auto piece = std::make_unique<AdapterPiece>();
    piece->adapter = t.string("adapter");
    if (!ctx.find<world::AdapterSpec>("adapter", piece->adapter))
        t.fail_at("adapter", "no adapter named '" + piece->adapter + "'");
    t.rename("lin_adapter '" + piece->adapter + "'");
    if (ctx.find<int>("lin_adapter", piece->adapter))
        t.fail_at("adapter", "adapter '" + piece->adapter + "' has a [[lin_adapter]] already");
    ctx.declare("lin_adapter", piece->adapter, std::make_shared<int>(0));
    if (t.has("battery_mv")) {
        piece->battery = true;
        piece->battery_mv = uint16_t(t.integer_in("battery_mv", 0, 65535));
    }
    if (const toml::node* kind = t.node("result_kind")) {
        if (const toml::array* each = kind->as_array()) {
            if (each->size() != size_t(LinModel::kChannels))
                t.fail_at("result_kind", "'result_kind' is one kind for every channel or a list of four, one a channel");
            for (int ch = 0; ch < LinModel::kChannels; ++ch) piece->result_kind[ch] = read_result_kind(t, *each->get(size_t(ch)));
        } else {
            std::fill(std::begin(piece->result_kind), std::end(piece->result_kind), read_result_kind(t, *kind));
        }
    }
    if (t.has("time_scale")) {
        piece->scaled = true;
        piece->time_scale = t.number("time_scale", 1);
        if (!(piece->time_scale >= 0 && piece->time_scale <= 1000))
            t.fail_at("time_scale", "'time_scale' must be 0 (no bus time) to 1000");
    }
    return piece;
}

POLYBUS_WORLD_KIND(lin_adapter_kind,
                   Kind{"lin_adapter", world::kRankDevices,
                        "an adapter's LIN side: adapter, battery_mv, result_kind, time_scale", read_adapter});

// ---- [[lin_slave]] ----------------------------------------------------------------------

class SlavePiece : public Piece {
public:
    ChannelRef channel;
    std::vector<LinSlaveConfig> frames;
    void apply(Bench& bench) override {
        LinModel& lin = bench.adapter(channel.adapter)->model<LinModel>();
        for (const LinSlaveConfig& f : frames) lin.add_slave(channel.index, f);
    }
};

LinSlaveFault read_fault(Table& t) {
    const std::string fault = t.string("fault", "none");
    if (fault == "none") return LinSlaveFault::None;
    if (fault == "wrong_checksum") return LinSlaveFault::WrongChecksum;
    if (fault == "no_answer") return LinSlaveFault::NoAnswer;
    if (fault == "too_few_bytes") return LinSlaveFault::TooFewBytes;
    if (fault == "wrong_parity") return LinSlaveFault::WrongParity;
    t.fail_at("fault", "'fault' must be \"none\", \"wrong_checksum\", \"no_answer\", \"too_few_bytes\" or "
                       "\"wrong_parity\", not \"" + fault + "\"");
}

std::unique_ptr<Piece> read_slave(Table& t, Context& ctx) {
    auto piece = std::make_unique<SlavePiece>();
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("lin_slave '" + name + "'");
    piece->channel = read_channel(t, ctx, "LIN channels");
    const bool enhanced = read_checksum(t, true);
    const toml::array* frames = t.array("frame");
    if (frames == nullptr || frames->empty())
        t.fail("a slave lists its frames: [[lin_slave.frame]] with id = ... and data = \"...\"");
    for (const toml::node& item : *frames) {
        if (!item.is_table()) t.fail_node(item, "a frame is { id = ..., data = \"...\" }");
        Table f(*item.as_table(), t.file(), t.what() + " frame");
        LinSlaveConfig config;
        config.id = uint8_t(f.integer_in("id", 0, 63));
        f.rename(t.what() + " frame " + hex(config.id, 2));
        config.enhanced = read_checksum(f, enhanced);
        config.publisher = f.boolean("publish", true);
        if (config.publisher) {
            config.data = read_frame_data(f);
            config.fault = read_fault(f);
            // Two publishers of one identifier would answer the same header at once.
            const std::string key = piece->channel.text + "/" + std::to_string(config.id);
            if (auto other = ctx.find<std::string>("lin_publisher", key))
                f.fail_at("id", "identifier " + hex(config.id, 2) + " on " + piece->channel.text +
                                    " is already published by " + *other);
            ctx.declare("lin_publisher", key, std::make_shared<std::string>(t.what()));
        } else {
            for (const char* key : {"data", "length", "fault"})
                if (f.has(key))
                    f.fail_at(key, std::string("'") + key + "' is for frames the node publishes (publish = false listens)");
        }
        f.finish();
        piece->frames.push_back(std::move(config));
    }
    return piece;
}

POLYBUS_WORLD_KIND(lin_slave_kind,
                   Kind{"lin_slave", world::kRankDevices,
                        "a LIN slave: channel, checksum, [[frame]] with id, data, length, checksum, fault, publish",
                        read_slave});

// ---- [[lin_diag_node]] ------------------------------------------------------------------

class DiagPiece : public Piece {
public:
    ChannelRef channel;
    LinDiagConfig config;
    void apply(Bench& bench) override {
        bench.adapter(channel.adapter)->model<LinModel>().add_diag_slave(channel.index, config);
    }
};

std::unique_ptr<Piece> read_diag(Table& t, Context& ctx) {
    auto piece = std::make_unique<DiagPiece>();
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("lin_diag_node '" + name + "'");
    piece->channel = read_channel(t, ctx, "LIN channels");
    LinDiagConfig& c = piece->config;
    // 0 is the sleep command's, 0x7F the broadcast address every node takes.
    c.nad = uint8_t(t.integer_in("nad", 1, 0x7E));
    const std::string key = piece->channel.text + "/" + std::to_string(c.nad);
    if (ctx.find<int>("lin_nad", key))
        t.fail_at("nad", "NAD " + hex(c.nad, 2) + " on " + piece->channel.text + " is taken by another node");
    ctx.declare("lin_nad", key, std::make_shared<int>(c.nad));
    c.request_id = uint8_t(t.integer("request_id", 0x3C, 0, 63));
    c.response_id = uint8_t(t.integer("response_id", 0x3D, 0, 63));
    if (c.request_id == c.response_id)
        t.fail_at(t.has("response_id") ? "response_id" : "request_id", "'request_id' and 'response_id' must differ");
    c.echo_sid = uint8_t(t.integer("echo_sid", 0xBA, 0, 255));
    if (c.echo_sid == 0x22) t.fail_at("echo_sid", "0x22 is ReadDataByIdentifier; choose another service for the echo");
    c.wrong_sequence = t.boolean("wrong_sequence", false);
    c.silent = t.boolean("silent", false);
    if (const toml::array* ids = t.array("identifier")) {
        for (const toml::node& item : *ids) {
            if (!item.is_table()) t.fail_node(item, "an identifier is { id = 0xF190, data = \"...\" }");
            Table d(*item.as_table(), t.file(), t.what() + " identifier");
            const uint16_t did = uint16_t(d.integer_in("id", 0, 0xFFFF));
            d.rename(t.what() + " identifier " + hex(did, 4));
            if (c.identifiers.count(did)) d.fail_at("id", "identifier " + hex(did, 4) + " is listed twice");
            const int given = int(d.has("data")) + int(d.has("text")) + int(d.has("length"));
            if (given != 1) d.fail("give the value as one of 'data' (hex), 'text' or 'length' (generated bytes)");
            std::vector<uint8_t> value;
            if (d.has("data")) {
                value = read_hex(d, "data");
            } else if (d.has("text")) {
                const std::string text = d.string("text");
                value.assign(text.begin(), text.end());
            } else {
                // Byte k of a generated value is k modulo 256: a reader can check every byte.
                value.resize(size_t(d.integer_in("length", 0, kMaxIdentifierData)));
                for (size_t k = 0; k < value.size(); ++k) value[k] = uint8_t(k);
            }
            if (int64_t(value.size()) > kMaxIdentifierData)
                d.fail_at(d.has("data") ? "data" : "text", "the value holds " + std::to_string(value.size()) +
                                                               " bytes; an answer carries at most 4092");
            d.finish();
            c.identifiers[did] = std::move(value);
        }
    }
    return piece;
}

POLYBUS_WORLD_KIND(lin_diag_kind,
                   Kind{"lin_diag_node", world::kRankDevices,
                        "a LIN diagnostic node: channel, nad, echo_sid, [[identifier]] with id and data, text or "
                        "length, wrong_sequence, silent",
                        read_diag});

// ---- [[lin_master]] ---------------------------------------------------------------------

class MasterPiece : public Piece {
public:
    ChannelRef channel;
    LinMasterConfig config;
    int64_t start_us = 0;
    std::shared_ptr<LinScheduledMaster> master;

    void apply(Bench& bench) override {
        master = std::make_shared<LinScheduledMaster>(
            bench.clock(), bench.adapter(channel.adapter)->model<LinModel>().bus(channel.index), config);
        bench.keep(master);
        std::weak_ptr<LinScheduledMaster> weak = master;
        bench.on_teardown([weak] {
            if (auto m = weak.lock()) m->stop();
        });
    }
    void start(Bench& bench) override { master->start(bench.start_ns() + start_us * 1000); }
};

int64_t read_ms(Table& t, const std::string& key, double fallback, double min) {
    const double ms = t.number(key, fallback);
    if (!(ms >= min && ms <= 3600000))
        t.fail_at(key, "'" + key + "' must be " + (min > 0 ? std::string("0.1") : std::string("0")) + " to 3600000");
    return int64_t(ms * 1000);
}

std::unique_ptr<Piece> read_master(Table& t, Context& ctx) {
    auto piece = std::make_unique<MasterPiece>();
    const std::string name = t.string("name", "");
    if (!name.empty()) t.rename("lin_master '" + name + "'");
    piece->channel = read_channel(t, ctx, "LIN channels");
    if (ctx.find<int>("lin_master", piece->channel.text))
        t.fail_at("channel", "channel " + piece->channel.text + " has a master already: a LIN bus has one");
    ctx.declare("lin_master", piece->channel.text, std::make_shared<int>(0));
    piece->start_us = read_ms(t, "start_ms", 0, 0);
    const toml::array* frames = t.array("frame");
    if (frames == nullptr || frames->empty())
        t.fail("a master lists what it sends: [[lin_master.frame]] with id = ... and period_ms = ...");
    for (const toml::node& item : *frames) {
        if (!item.is_table()) t.fail_node(item, "a frame is { id = ..., period_ms = ... }");
        Table f(*item.as_table(), t.file(), t.what() + " frame");
        LinMasterFrameConfig config;
        if (f.boolean("break_only", false)) {
            config.send = LinMasterFrameConfig::Send::Break;
            for (const char* key : {"id", "data", "length", "checksum", "wrong_parity"})
                if (f.has(key)) f.fail_at(key, std::string("'") + key + "' has no meaning for a bare break");
        } else {
            config.id = uint8_t(f.integer_in("id", 0, 63));
            f.rename(t.what() + " frame " + hex(config.id, 2));
            if (f.has("data") || f.has("length")) {
                config.send = LinMasterFrameConfig::Send::Publish;
                config.data = read_frame_data(f);
                config.enhanced = read_checksum(f, true);
                if (f.has("wrong_parity"))
                    f.fail_at("wrong_parity", "'wrong_parity' is for headers a slave answers (no 'data')");
            } else {
                if (f.has("checksum")) f.fail_at("checksum", "'checksum' is for frames the master publishes ('data')");
                config.wrong_parity = f.boolean("wrong_parity", false);
            }
        }
        config.break_bits = uint8_t(f.integer("break_bits", 13, 10, 26));
        config.period_us = read_ms(f, "period_ms", 100, 0.1);
        config.offset_us = read_ms(f, "offset_ms", 0, 0);
        config.count = f.integer("count", -1, 1, INT64_MAX);  // absent: until the world stops
        f.finish();
        piece->config.frames.push_back(std::move(config));
    }
    return piece;
}

POLYBUS_WORLD_KIND(lin_master_kind,
                   Kind{"lin_master", world::kRankDevices,
                        "a LIN master node: channel, start_ms, [[frame]] with id, data, period_ms, offset_ms, count",
                        read_master});

// ---- [[flin_node]] ----------------------------------------------------------------------

class FlinPiece : public Piece {
public:
    ChannelRef channel;
    std::vector<std::vector<uint8_t>> reads;
    void apply(Bench& bench) override {
        LinModel& lin = bench.adapter(channel.adapter)->model<LinModel>();
        for (const auto& r : reads) lin.flin_queue_read(channel.index, r);
    }
};

std::unique_ptr<Piece> read_flin(Table& t, Context& ctx) {
    auto piece = std::make_unique<FlinPiece>();
    piece->channel = read_channel(t, ctx, "FLIN channels");
    t.rename("flin_node '" + piece->channel.text + "'");
    const toml::array* reads = t.array("reads");
    if (reads == nullptr) t.fail("missing key 'reads'");
    for (const toml::node& item : *reads) {
        std::vector<uint8_t> bytes;
        if (!item.is_string() || !world::parse_hex_bytes(item.as_string()->get(), bytes) || bytes.empty())
            t.fail_node(item, "a read is hex bytes, e.g. \"01 02 03\"");
        piece->reads.push_back(std::move(bytes));
    }
    return piece;
}

POLYBUS_WORLD_KIND(flin_node_kind, Kind{"flin_node", world::kRankDevices,
                                        "what a FLIN channel reads back: channel, reads = [\"hex\", ...]", read_flin});

}  // namespace
}  // namespace polybus_sim
