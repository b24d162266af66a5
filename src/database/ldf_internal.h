// LDF parsing internals: the prepared text, the section parsers and the store that owns
// every database. The exported LDF_ functions are thin wrappers over these, which the
// unit tests and benchmarks call directly (no adapter needed).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "polybus/ldf.h"

namespace polybus {
namespace ldf {

// Owns every block the parser hands out (thread-safe): databases are never released while the
// library is loaded (callers keep using handles after LDF_DecodeFree), and everything
// goes when the store is destroyed at unload.
class Store {
public:
    Store() = default;
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    // Makes sure the next `bytes` come from one block.
    void reserve(size_t bytes);
    // Zero-filled bytes, aligned for any record.
    void* allocate(size_t bytes);
    template <typename T>
    T* array(size_t n) {
        return n == 0 ? nullptr : static_cast<T*>(allocate(n * sizeof(T)));
    }
    template <typename T>
    T* copy(const std::vector<T>& v) {
        T* out = array<T>(v.size());
        for (size_t i = 0; i < v.size(); ++i) out[i] = v[i];
        return out;
    }
    char* string(std::string_view s);
    // Returns every block. Only for test programs and fuzzing, where no record made
    // before the call is used after it.
    void release_all();

private:
    struct Block {
        char* base;
        size_t size;
        void release();
    };
    void grow(size_t bytes);

    std::mutex mutex_;
    std::vector<Block> blocks_;
    char* cursor_ = nullptr;
    size_t left_ = 0;
};

// The store every parse writes into (process-wide; guarded by parse_mutex()).
Store& store();

// Step 1: comments removed, then everything outside double quotes that is not a
// printable character (33-126) dropped.
std::string prepare(std::string_view file);
// The same into `out`, reusing its memory.
void prepare_into(std::string_view file, std::string& out);

// Reads a file into `out` (reusing its memory); false when it cannot be read.
bool read_file(const char* path, std::string& out);

// The braced body of the first "<name>{" in `text`, braces included; empty when absent.
// Unbalanced braces run to the end of the text.
std::string_view section(std::string_view text, std::string_view name);

// Number conversions as the file's fields need them: with base detection (0x hex,
// leading 0 octal), or decimal with a fraction; trailing unit letters are ignored and
// text that is no number reads as 0.
int64_t integer(std::string_view s);
double decimal(std::string_view s);

// A version text ("2.1", "J2602_1_1.0") as a number x 100.
uint32_t version_number(std::string_view quoted);

// The sections of one prepared file, parsed in dependency order.
struct Parsed {
    uint32_t protocol_version = 0;
    uint32_t language_version = 0;
    uint32_t speed = 0;
    bool has_node = false;
    LDF_LIN_NODE node{};
    std::vector<LDF_SIGNAL_CODING> codings;
    std::vector<LDF_SIGNAL_REPRESENTATION> representations;
    std::vector<LDF_LIN_SIGNAL> signals;
    std::vector<LDF_LIN_FRAME> frames;
    std::vector<LDF_LIN_SCH> schedules;
    std::vector<LDF_NODE_ATTR> attributes;
};

void parse_header(std::string_view text, Parsed& out);
void parse_nodes(std::string_view section, Store& s, LDF_LIN_NODE& node);
void parse_codings(std::string_view section, Store& s, std::vector<LDF_SIGNAL_CODING>& out);
void parse_representations(std::string_view section, Store& s, std::vector<LDF_SIGNAL_REPRESENTATION>& out);
void parse_signals(std::string_view ordinary, std::string_view diagnostic, Store& s,
                   const std::vector<LDF_SIGNAL_REPRESENTATION>& reps, const LDF_SIGNAL_CODING* codings,
                   size_t coding_count, std::vector<LDF_LIN_SIGNAL>& out);
void parse_frames(std::string_view ordinary, std::string_view diagnostic, Store& s, const LDF_LIN_SIGNAL* signals,
                  size_t signal_count, std::vector<LDF_LIN_FRAME>& out);
void parse_schedules(std::string_view section, Store& s, const LDF_LIN_FRAME* frames, size_t frame_count,
                     std::vector<LDF_LIN_SCH>& out);
void parse_attributes(std::string_view section, Store& s, std::vector<LDF_NODE_ATTR>& out);
// The master request frame is published by the master node.
void publish_master_request(LDF_LIN_FRAME* frames, size_t count, char* master);

// A whole prepared text into `coding` (device fields untouched). Takes the parse lock.
void decode_text(std::string_view prepared, LDF_CODING& coding);
// A database record of the library's own, holding a copy of `parsed`.
LDF_CODING* store_database(const LDF_CODING& parsed);

// ---- Values ------------------------------------------------------------------------

// The first frame / signal of a name, through the database's index when `coding` was
// made by LDF_ParserFile and by a scan otherwise. Null when absent.
LDF_LIN_FRAME* find_frame(LDF_CODING* coding, const char* name);
LDF_LIN_SIGNAL* find_signal(LDF_CODING* coding, LDF_LIN_FRAME* frame, const char* name);
LDF_LIN_SCH* find_schedule(LDF_CODING* coding, const char* name);
// Builds the look-up index of a database this library made.
void index_database(LDF_CODING* coding);
// Drops every index (with Store::release_all, for test programs and fuzzing only).
void forget_databases();

void set_physical(LDF_LIN_SIGNAL& sig, double value);
double get_physical(const LDF_LIN_SIGNAL& sig);
void value_text(const LDF_LIN_SIGNAL& sig, char* out);
void raw_to_frame(LDF_LIN_FRAME& frame, const unsigned char* data);
void frame_to_raw(const LDF_LIN_FRAME& frame, unsigned char* data);

// Checksum kind for a frame identifier: 1 enhanced, 0 classic.
inline int checksum_kind(uint32_t protocol_version, uint8_t id) {
    return (id & 0x3C) < 0x3C && protocol_version > 199 ? 1 : 0;
}

}  // namespace ldf
}  // namespace polybus
