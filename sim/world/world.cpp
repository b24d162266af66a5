#include "world.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace polybus_sim {
namespace world {

// ---- Locations and errors -----------------------------------------------------------

std::string Location::text() const {
    return file + ":" + std::to_string(line) + ":" + std::to_string(column);
}

WorldError::WorldError(const Location& where, const std::string& message)
    : std::runtime_error(where.text() + ": " + message), where_(where), message_(message) {}

Location location_of(const toml::source_region& region, const std::string& file) {
    Location l;
    l.file = file;
    l.line = static_cast<int>(region.begin.line);
    l.column = static_cast<int>(region.begin.column);
    return l;
}

// ---- Tables -------------------------------------------------------------------------

namespace {
const char* type_name(const toml::node& n) {
    switch (n.type()) {
        case toml::node_type::string: return "a string";
        case toml::node_type::integer: return "an integer";
        case toml::node_type::floating_point: return "a number";
        case toml::node_type::boolean: return "true or false";
        case toml::node_type::array: return "an array";
        case toml::node_type::table: return "a table";
        default: return "a date or time";
    }
}
}  // namespace

Table::Table(const toml::table& table, std::string file, std::string what)
    : table_(table), file_(std::move(file)), what_(std::move(what)) {}

bool Table::has(const std::string& key) const { return table_.contains(key); }

const toml::node* Table::node(const std::string& key) {
    read_.insert(key);
    return table_.get(key);
}

const toml::node& Table::required(const std::string& key) {
    const toml::node* n = node(key);
    if (n == nullptr) fail("missing key '" + key + "'");
    return *n;
}

Location Table::where() const { return location_of(table_.source(), file_); }

Location Table::where(const std::string& key) const {
    if (const toml::node* n = table_.get(key)) return location_of(n->source(), file_);
    return where();
}

void Table::fail(const std::string& message) const { throw WorldError(where(), what_ + ": " + message); }
void Table::fail_at(const std::string& key, const std::string& message) const {
    throw WorldError(where(key), what_ + ": " + message);
}
void Table::fail_node(const toml::node& at, const std::string& message) const {
    throw WorldError(location_of(at.source(), file_), what_ + ": " + message);
}

std::string Table::string(const std::string& key) {
    const toml::node* n = node(key);
    if (n == nullptr) fail("missing key '" + key + "'");
    if (!n->is_string()) fail_at(key, "'" + key + "' must be a string, not " + type_name(*n));
    return n->as_string()->get();
}

std::string Table::string(const std::string& key, const std::string& fallback) {
    return has(key) ? string(key) : (read_.insert(key), fallback);
}

int64_t Table::integer(const std::string& key) {
    const toml::node* n = node(key);
    if (n == nullptr) fail("missing key '" + key + "'");
    if (!n->is_integer()) fail_at(key, "'" + key + "' must be an integer, not " + type_name(*n));
    return n->as_integer()->get();
}

int64_t Table::integer_in(const std::string& key, int64_t min, int64_t max) {
    const int64_t v = integer(key);
    if (v < min || v > max)
        fail_at(key, "'" + key + "' must be between " + std::to_string(min) + " and " + std::to_string(max) + ", not " +
                         std::to_string(v));
    return v;
}

int64_t Table::integer(const std::string& key, int64_t fallback, int64_t min, int64_t max) {
    if (!has(key)) {
        read_.insert(key);
        return fallback;
    }
    return integer_in(key, min, max);
}

double Table::number(const std::string& key, double fallback) {
    const toml::node* n = node(key);
    if (n == nullptr) return fallback;
    if (n->is_integer()) return double(n->as_integer()->get());
    if (n->is_floating_point()) return n->as_floating_point()->get();
    fail_at(key, "'" + key + "' must be a number, not " + type_name(*n));
}

bool Table::boolean(const std::string& key, bool fallback) {
    const toml::node* n = node(key);
    if (n == nullptr) return fallback;
    if (!n->is_boolean()) fail_at(key, "'" + key + "' must be true or false, not " + type_name(*n));
    return n->as_boolean()->get();
}

const toml::array* Table::array(const std::string& key) {
    const toml::node* n = node(key);
    if (n == nullptr) return nullptr;
    if (!n->is_array()) fail_at(key, "'" + key + "' must be an array, not " + type_name(*n));
    return n->as_array();
}

const toml::table* Table::table(const std::string& key) {
    const toml::node* n = node(key);
    if (n == nullptr) return nullptr;
    if (!n->is_table()) fail_at(key, "'" + key + "' must be a table, not " + type_name(*n));
    return n->as_table();
}

void Table::finish() const {
    for (auto&& [key, value] : table_) {
        (void)value;
        const std::string name(key.str());
        if (read_.count(name) == 0) throw WorldError(location_of(key.source(), file_), what_ + ": unknown key '" + name + "'");
    }
}

// ---- Context ------------------------------------------------------------------------

Context::Context(std::string file) : file_(std::move(file)) {}

std::string Context::resolve(const std::string& path) const {
    if (!path.empty() && path[0] == '/') return path;
    const size_t slash = file_.rfind('/');
    return slash == std::string::npos ? path : file_.substr(0, slash + 1) + path;
}

std::vector<std::string> Context::names(const std::string& category) const {
    std::vector<std::string> out;
    auto c = things_.find(category);
    if (c != things_.end())
        for (auto& [name, thing] : c->second) out.push_back(name);
    return out;
}

// ---- Bench --------------------------------------------------------------------------

Bench::Bench() : clock_(std::make_shared<Adapter>(AdapterConfig{})) {}

Bench::~Bench() {
    for (auto it = teardown_.rbegin(); it != teardown_.rend(); ++it) (*it)();
    kept_.clear();
    for (auto& [name, a] : adapters_) Simulator::instance().remove(a);
    adapters_.clear();
    clock_.reset();
}

std::shared_ptr<Adapter> Bench::adapter(const std::string& name) const {
    auto it = adapters_.find(name);
    return it == adapters_.end() ? nullptr : it->second;
}

void Bench::add_adapter(const std::string& name, std::shared_ptr<Adapter> adapter) { adapters_[name] = std::move(adapter); }

// ---- Kinds --------------------------------------------------------------------------

Kinds& Kinds::instance() {
    static Kinds kinds;
    return kinds;
}

void Kinds::add(Kind kind) {
    const std::string key = kind.key;
    kinds_[key] = std::move(kind);
}

const Kind* Kinds::find(const std::string& key) const {
    auto it = kinds_.find(key);
    return it == kinds_.end() ? nullptr : &it->second;
}

std::vector<const Kind*> Kinds::all() const {
    std::vector<const Kind*> out;
    for (auto& [key, kind] : kinds_) out.push_back(&kind);
    std::stable_sort(out.begin(), out.end(), [](const Kind* a, const Kind* b) { return a->rank < b->rank; });
    return out;
}

// ---- Loading ------------------------------------------------------------------------

namespace {

std::string kind_list() {
    std::string s;
    for (const Kind* k : Kinds::instance().all()) s += (s.empty() ? "" : ", ") + k->key;
    return s;
}

// Adapters are plugged in file order, which is the order a scan finds them in.
class AdapterPiece : public Piece {
public:
    explicit AdapterPiece(std::shared_ptr<AdapterSpec> spec) : spec_(std::move(spec)) {}
    void apply(Bench& bench) override {
        bench.add_adapter(spec_->name, Simulator::instance().add(spec_->config, false));
    }
    void start(Bench& bench) override { bench.adapter(spec_->name)->plug(); }

private:
    std::shared_ptr<AdapterSpec> spec_;
};

uint32_t read_firmware(Table& t) {
    const toml::node* n = t.node("firmware");
    if (n->is_integer()) {
        const int64_t v = n->as_integer()->get();
        if (v < 0 || v > 0xFFFFFFFFll) t.fail_at("firmware", "'firmware' must fit in 32 bits");
        return uint32_t(v);
    }
    // "major.minor.build": major and minor one byte each, build 16 bits.
    if (n->is_string()) {
        unsigned major = 0, minor = 0, build = 0;
        char tail = 0;
        const std::string s = n->as_string()->get();
        if (std::sscanf(s.c_str(), "%u.%u.%u%c", &major, &minor, &build, &tail) == 3 && major < 256 && minor < 256 &&
            build < 65536)
            return major << 24 | minor << 16 | build;
    }
    t.fail_at("firmware", "'firmware' must be \"major.minor.build\" (e.g. \"1.5.30\") or an integer");
}

std::unique_ptr<Piece> read_adapter(Table& t, Context& ctx) {
    auto spec = std::make_shared<AdapterSpec>();
    spec->where = t.where();
    spec->name = t.string("name");
    t.rename("adapter '" + spec->name + "'");
    if (spec->name.empty() || spec->name.find(':') != std::string::npos)
        t.fail_at("name", "an adapter name must be non-empty and without ':'");
    if (ctx.find<AdapterSpec>("adapter", spec->name))
        t.fail_at("name", "adapter '" + spec->name + "' is declared twice (first at " +
                              ctx.find<AdapterSpec>("adapter", spec->name)->where.text() + ")");
    AdapterConfig& c = spec->config;
    c.identifier = uint32_t(t.integer_in("id", 1, 0xFEFFFFFF));
    for (auto& other : ctx.names("adapter"))
        if (ctx.find<AdapterSpec>("adapter", other)->config.identifier == c.identifier)
            t.fail_at("id", "identifier already used by adapter '" + other + "'");
    if (t.has("firmware")) c.firmware_version = read_firmware(t);
    const std::string maker = t.string("manufacturer", "primary");
    if (maker == "primary") c.manufacturer = "Polybus Devices Ltd";
    else if (maker == "alternate") c.manufacturer = "Polybus Interfaces";
    else if (maker == "foreign") c.manufacturer = "Another Maker Inc";
    else t.fail_at("manufacturer", "'manufacturer' must be \"primary\", \"alternate\" or \"foreign\"");
    const std::string speed = t.string("speed", "high");
    if (speed != "high" && speed != "full") t.fail_at("speed", "'speed' must be \"high\" or \"full\"");
    c.high_speed = speed == "high";
    c.product = uint16_t(t.integer("product", 0x7918, 0x7918, 0x7919));
    c.address = int(t.integer("address", -1, 1, 127));
    c.reenumerates_elsewhere = t.boolean("reset_moves", false);
    c.serial[2] = uint32_t(ctx.names("adapter").size() + 1);
    t.finish();
    ctx.declare("adapter", spec->name, spec);
    return std::make_unique<AdapterPiece>(spec);
}

POLYBUS_WORLD_KIND(adapter_kind, Kind{"adapter", kRankAdapters, "a simulated adapter: name, id, firmware, manufacturer, speed",
                                      read_adapter});

}  // namespace

std::shared_ptr<AdapterSpec> find_channel(Table& table, const Context& context, const toml::node& at,
                                          const std::string& what, int count, std::string& adapter, int& index) {
    if (!at.is_string()) table.fail_node(at, "expected \"adapter:N\" (e.g. \"bench:0\")");
    const std::string text = at.as_string()->get();
    if (!split_channel(text, adapter, index))
        table.fail_node(at, "'" + text + "' is not \"adapter:N\" (e.g. \"bench:0\")");
    auto spec = context.find<AdapterSpec>("adapter", adapter);
    if (!spec) table.fail_node(at, "no adapter named '" + adapter + "'");
    if (index < 0 || index >= count)
        table.fail_node(at, "adapter '" + adapter + "' has " + what + " 0 to " + std::to_string(count - 1));
    return spec;
}

bool split_channel(const std::string& text, std::string& adapter, int& channel) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size()) return false;
    for (size_t i = colon + 1; i < text.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    if (text.size() - colon - 1 > 3) return false;
    adapter = text.substr(0, colon);
    channel = std::atoi(text.c_str() + colon + 1);
    return true;
}

bool parse_hex_bytes(const std::string& text, std::vector<uint8_t>& out) {
    std::string digits;
    for (char ch : text) {
        if (ch == ' ' || ch == ':' || ch == '_') continue;
        if (!std::isxdigit(static_cast<unsigned char>(ch))) return false;
        digits += ch;
    }
    if (digits.size() % 2 != 0) return false;
    out.clear();
    for (size_t i = 0; i < digits.size(); i += 2) out.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return true;
}

WorldPlan parse_world(const std::string& text, const std::string& path) {
    toml::table root;
    try {
        root = toml::parse(text, path);
    } catch (const toml::parse_error& e) {
        throw WorldError(location_of(e.source(), path), std::string(e.description()));
    }
    Context ctx(path);
    // Every top-level key must be a kind, holding tables.
    for (auto&& [key, value] : root) {
        const std::string name(key.str());
        if (Kinds::instance().find(name) == nullptr)
            throw WorldError(location_of(key.source(), path),
                             "unknown key '" + name + "' (expected one of: " + kind_list() + ")");
        const bool tables = value.is_table() ||
                            (value.is_array() && value.as_array()->is_array_of_tables());
        if (!tables)
            throw WorldError(location_of(value.source(), path), "'" + name + "' must be written as [[" + name + "]] tables");
    }
    WorldPlan plan;
    for (const Kind* kind : Kinds::instance().all()) {
        const toml::node* n = root.get(kind->key);
        if (n == nullptr) continue;
        std::vector<const toml::table*> items;
        if (n->is_table()) items.push_back(n->as_table());
        else
            for (auto& item : *n->as_array()) items.push_back(item.as_table());
        for (size_t i = 0; i < items.size(); ++i) {
            Table t(*items[i], path, kind->key + " #" + std::to_string(i + 1));
            auto piece = kind->read(t, ctx);
            t.finish();
            if (piece) plan.pieces_.push_back({kind->rank, std::move(piece)});
        }
    }
    plan.adapters_ = ctx.names("adapter").size();
    if (plan.adapters_ == 0) throw WorldError(Location{path, 1, 1}, "a world needs at least one [[adapter]]");
    return plan;
}

WorldPlan load_world(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw WorldError(Location{path, 0, 0}, "cannot read the world file");
    std::stringstream ss;
    ss << in.rdbuf();
    return parse_world(ss.str(), path);
}

std::unique_ptr<Bench> WorldPlan::build() const {
    auto bench = std::make_unique<Bench>();
    for (auto& [rank, p] : pieces_) p->apply(*bench);
    bench->set_start_ns(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count());
    // libusb lists the newest device first: plugging the adapters last to first lets a
    // scan find them in file order.
    for (auto it = pieces_.rbegin(); it != pieces_.rend(); ++it)
        if (it->first == kRankAdapters) it->second->start(*bench);
    for (auto& [rank, p] : pieces_)
        if (rank != kRankAdapters) p->start(*bench);
    return bench;
}

}  // namespace world
}  // namespace polybus_sim
