// Simulated worlds: a TOML file that says which adapters exist and what is wired to
// them (buses, peer nodes, pins, scripted faults). Loading has two stages so that a
// bad file never leaves anything half-plugged:
//   1. load_world() reads and checks the whole file, including every file it names,
//      and throws WorldError (file:line:column: what was expected) on the first fault;
//   2. WorldPlan::build() creates the adapters, wires them, plugs them and starts the
//      traffic. It cannot fail on anything the file says.
//
// The file is a set of top-level arrays of tables, one per kind of thing:
// [[adapter]], [[can_bus]], [[can_dbc_peer]], [[gpio]], [[fault]], ... Each kind is a
// small piece of code beside its family's model that registers itself here with
// POLYBUS_WORLD_KIND; nothing central lists them (docs/world-files.md).
#pragma once

#include <toml++/toml.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "adapter.h"

namespace polybus_sim {
namespace world {

struct Location {
    std::string file;
    int line = 0, column = 0;
    std::string text() const;
};

// A refused world file. what() reads "FILE:LINE:COLUMN: message".
class WorldError : public std::runtime_error {
public:
    WorldError(const Location& where, const std::string& message);
    const Location& where() const { return where_; }
    const std::string& message() const { return message_; }

private:
    Location where_;
    std::string message_;
};

Location location_of(const toml::source_region& region, const std::string& file);

// An adapter as the file describes it; declared in the Context under "adapter".
struct AdapterSpec {
    std::string name;
    AdapterConfig config;
    Location where;
    bool can_fd() const {
        const uint32_t top = config.identifier >> 24;
        return top == 0x53 || top == 0x54;
    }
};

class Table;
class Context;
// Looks up "adapter:N" (a channel, a pin): the adapter must be declared and N below
// `count`; refuses otherwise, at the node `at`. `what` names N in messages ("CAN channel").
std::shared_ptr<AdapterSpec> find_channel(Table& table, const Context& context, const toml::node& at,
                                          const std::string& what, int count, std::string& adapter, int& index);

// One table of the file as a kind reads it: typed getters that refuse wrong types at
// the value's position, and finish() that refuses keys nobody read.
class Table {
public:
    Table(const toml::table& table, std::string file, std::string what);

    const std::string& what() const { return what_; }  // "can_bus 'powertrain'", for messages
    void rename(std::string what) { what_ = std::move(what); }
    bool has(const std::string& key) const;
    const toml::node* node(const std::string& key);  // marks the key as read; null when absent
    const toml::node& required(const std::string& key);  // refuses a missing key

    std::string string(const std::string& key);  // required
    std::string string(const std::string& key, const std::string& fallback);
    int64_t integer(const std::string& key);
    int64_t integer(const std::string& key, int64_t fallback, int64_t min, int64_t max);
    int64_t integer_in(const std::string& key, int64_t min, int64_t max);  // required, bounded
    double number(const std::string& key, double fallback);  // integer or float
    bool boolean(const std::string& key, bool fallback);
    const toml::array* array(const std::string& key);  // null when absent
    const toml::table* table(const std::string& key);  // null when absent

    [[noreturn]] void fail(const std::string& message) const;  // at the table
    [[noreturn]] void fail_at(const std::string& key, const std::string& message) const;  // at the key's value
    [[noreturn]] void fail_node(const toml::node& at, const std::string& message) const;
    Location where() const;
    Location where(const std::string& key) const;
    const std::string& file() const { return file_; }
    // Refuses the first key that no getter asked for.
    void finish() const;

private:
    const toml::table& table_;
    std::string file_, what_;
    std::set<std::string> read_;
};

// What the kinds of one file share while it is read: the file's directory for the
// paths it names, and named things one kind declares and another refers to (adapters,
// buses).
class Context {
public:
    explicit Context(std::string file);
    const std::string& file() const { return file_; }
    // A path named in the file, relative to the file's directory.
    std::string resolve(const std::string& path) const;

    template <typename T>
    void declare(const std::string& category, const std::string& name, std::shared_ptr<T> thing) {
        things_[category][name] = std::static_pointer_cast<void>(thing);
    }
    template <typename T>
    std::shared_ptr<T> find(const std::string& category, const std::string& name) const {
        auto c = things_.find(category);
        if (c == things_.end()) return nullptr;
        auto t = c->second.find(name);
        return t == c->second.end() ? nullptr : std::static_pointer_cast<T>(t->second);
    }
    std::vector<std::string> names(const std::string& category) const;

private:
    std::string file_;
    std::map<std::string, std::map<std::string, std::shared_ptr<void>>> things_;
};

// The adapters of a world while it is built and runs.
class Bench {
public:
    Bench();
    ~Bench();  // unplugs and removes the world's adapters, stops its devices
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    std::shared_ptr<Adapter> adapter(const std::string& name) const;
    const std::map<std::string, std::shared_ptr<Adapter>>& adapters() const { return adapters_; }
    void add_adapter(const std::string& name, std::shared_ptr<Adapter> adapter);
    // The clock of the world's own devices: a timer thread of its own, so an adapter
    // that restarts (replug) does not stop the nodes on its buses.
    Adapter& clock() { return *clock_; }
    // Bus time (bus_now_ns()) at which the world was plugged.
    int64_t start_ns() const { return start_ns_; }
    void set_start_ns(int64_t ns) { start_ns_ = ns; }
    // Keeps a device alive as long as the world.
    void keep(std::shared_ptr<void> thing) { kept_.push_back(std::move(thing)); }
    // Called, in reverse order, when the world is taken down.
    void on_teardown(std::function<void()> fn) { teardown_.push_back(std::move(fn)); }

private:
    std::map<std::string, std::shared_ptr<Adapter>> adapters_;
    std::shared_ptr<Adapter> clock_;
    int64_t start_ns_ = 0;
    std::vector<std::shared_ptr<void>> kept_;
    std::vector<std::function<void()>> teardown_;
};

// One checked table of the file, ready to be put in place.
class Piece {
public:
    virtual ~Piece() = default;
    // Before the adapters are plugged: create, attach, configure.
    virtual void apply(Bench&) {}
    // Once every adapter is plugged: start traffic and timers.
    virtual void start(Bench&) {}
};

using Reader = std::function<std::unique_ptr<Piece>(Table&, Context&)>;

struct Kind {
    std::string key;      // the file's top-level key: [[key]]
    int rank = 100;       // kinds are read, applied and started in rank order
    std::string summary;  // one line for error messages and documentation
    Reader read;
};

// Kinds that declare named things others refer to come first.
constexpr int kRankAdapters = 0;
constexpr int kRankBuses = 10;
constexpr int kRankDevices = 50;
constexpr int kRankFaults = 90;

class Kinds {
public:
    static Kinds& instance();
    void add(Kind kind);
    const Kind* find(const std::string& key) const;
    std::vector<const Kind*> all() const;  // by rank, then key

private:
    std::map<std::string, Kind> kinds_;
};

struct KindRegistrar {
    explicit KindRegistrar(Kind kind) { Kinds::instance().add(std::move(kind)); }
};

// Registers a kind from its file's static initialisation, early, so the preloaded
// library finds every kind before its constructor loads a world.
#define POLYBUS_WORLD_KIND(var, ...) \
    static const ::polybus_sim::world::KindRegistrar var __attribute__((init_priority(1000))) { __VA_ARGS__ }

// A checked world, not yet plugged.
class WorldPlan {
public:
    // Creates, wires and plugs the adapters and starts the devices.
    std::unique_ptr<Bench> build() const;
    size_t adapter_count() const { return adapters_; }

private:
    friend WorldPlan load_world(const std::string& path);
    friend WorldPlan parse_world(const std::string& text, const std::string& path);
    std::vector<std::pair<int, std::shared_ptr<Piece>>> pieces_;  // rank, piece
    size_t adapters_ = 0;
};

// Reads and checks a world file (throws WorldError).
WorldPlan load_world(const std::string& path);
// The same for text in memory; `path` names it in messages and anchors relative paths.
WorldPlan parse_world(const std::string& text, const std::string& path);

// Shared readers for kinds.
// "name:channel" -> adapter name and channel number; false when malformed.
bool split_channel(const std::string& text, std::string& adapter, int& channel);
// "DE AD BE EF", "DEADBEEF" or "de:ad" -> bytes; false when malformed.
bool parse_hex_bytes(const std::string& text, std::vector<uint8_t>& out);

}  // namespace world
}  // namespace polybus_sim
