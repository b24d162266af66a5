// LDF text into records. The file is first flattened to one line of printable text;
// sections and entries are then cut out by their delimiters rather than tokenised,
// which is how the records' quirks (first-occurrence sections, length rules for
// entries, copied bytes of diagnostic signals) come about.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <vector>

#include "database/ldf_internal.h"
#include "util/text_scan.h"

namespace polybus {
namespace ldf {

namespace {

using std::string_view;

// Calls fn for each piece of `s` between separators `sep`, skipping separators inside
// double quotes and, when `nest` is set, inside braces.
template <typename Fn>
void each_piece(string_view s, char sep, Fn&& fn, bool nest = false) {
    size_t start = 0;
    bool quoted = false;
    int depth = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '"') quoted = !quoted;
        if (quoted) continue;
        if (nest && c == '{') ++depth;
        if (nest && c == '}' && depth > 0) --depth;
        if (c == sep && depth == 0) {
            fn(s.substr(start, i - start));
            start = i + 1;
        }
    }
    if (start < s.size()) fn(s.substr(start));
}

// The text up to the first `c` (all of it when there is none); `rest` gets what follows.
string_view cut(string_view s, char c, string_view* rest = nullptr) {
    const size_t at = s.find(c);
    if (rest != nullptr) *rest = at == string_view::npos ? string_view() : s.substr(at + 1);
    return at == string_view::npos ? s : s.substr(0, at);
}

string_view unquote(string_view s) {
    if (!s.empty() && s.front() == '"') s.remove_prefix(1);
    const size_t q = s.find('"');
    return q == string_view::npos ? s : s.substr(0, q);
}

// The body of a braced section or block, without its outer braces.
string_view inner(string_view braced) {
    if (braced.empty() || braced.front() != '{') return braced;
    braced.remove_prefix(1);
    if (!braced.empty() && braced.back() == '}') braced.remove_suffix(1);
    return braced;
}

// Calls fn(name, body) for each "name{body}" block of a section body, braces nested.
template <typename Fn>
void each_block(string_view body, Fn&& fn) {
    size_t i = 0;
    while (i < body.size()) {
        const size_t open = body.find('{', i);
        if (open == string_view::npos) return;
        const string_view name = body.substr(i, open - i);
        int depth = 0;
        size_t j = open;
        bool quoted = false;
        for (; j < body.size(); ++j) {
            if (body[j] == '"') quoted = !quoted;
            if (quoted) continue;
            if (body[j] == '{') ++depth;
            if (body[j] == '}' && --depth == 0) break;
        }
        const size_t end = j < body.size() ? j : body.size();
        fn(name, body.substr(open + 1, end - open - 1));
        i = end + 1;
    }
}

// Name -> first record of that name, for the parser's look-ups between sections.
// Open addressing in one flat array, each slot holding the name's hash: a large
// cluster's tables outgrow the caches, and a node-based map pays several cache misses
// per look-up (bucket, node, key) where this pays about one plus the key comparison.
template <typename T>
class FirstByName {
public:
    explicit FirstByName(size_t expected) {
        size_t cap = 16;
        while (cap * 3 < expected * 4) cap <<= 1;  // filled to 3/4 at most
        slots_.resize(cap);
        mask_ = cap - 1;
    }
    // Keeps the first value given for a name.
    void add(string_view name, T value) {
        const uint64_t h = hash(name);
        for (size_t i = h & mask_;; i = (i + 1) & mask_) {
            Slot& slot = slots_[i];
            if (slot.key == nullptr) {
                slot = Slot{static_cast<uint32_t>(h), static_cast<uint32_t>(name.size()), name.data(), value};
                if (++used_ * 4 > slots_.size() * 3) grow();
                return;
            }
            if (slot.hash == static_cast<uint32_t>(h) && string_view(slot.key, slot.length) == name) return;
        }
    }
    // The value for `name`, or `none`.
    T find(string_view name, T none = T()) const {
        const uint64_t h = hash(name);
        for (size_t i = h & mask_;; i = (i + 1) & mask_) {
            const Slot& slot = slots_[i];
            if (slot.key == nullptr) return none;
            if (slot.hash == static_cast<uint32_t>(h) && string_view(slot.key, slot.length) == name) return slot.value;
        }
    }

private:
    // 24 bytes: the low half of the hash and the name's length beside its address.
    struct Slot {
        uint32_t hash = 0;
        uint32_t length = 0;
        const char* key = nullptr;
        T value{};
    };
    // FNV-1a, finished with a multiply-xorshift so the low bits (the slot index) mix well.
    static uint64_t hash(string_view s) {
        uint64_t h = 1469598103934665603ull;
        for (const char c : s) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        h ^= h >> 32;
        h *= 0x9E3779B97F4A7C15ull;
        return h ^ (h >> 29);
    }
    void grow() {
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.resize(old.size() * 2);
        mask_ = slots_.size() - 1;
        for (const Slot& o : old) {
            if (o.key == nullptr) continue;
            size_t i = hash(string_view(o.key, o.length)) & mask_;
            while (slots_[i].key != nullptr) i = (i + 1) & mask_;
            slots_[i] = o;
        }
    }
    std::vector<Slot> slots_;
    size_t mask_ = 0, used_ = 0;
};

double max_raw(uint32_t bits) {
    if (bits >= 64) return 18446744073709551615.0;
    return static_cast<double>((uint64_t{1} << bits) - 1);
}

// Signal name -> first representation's encoding; encoding name -> first encoding.
class CodingLookup {
public:
    CodingLookup(const std::vector<LDF_SIGNAL_REPRESENTATION>& reps, const LDF_SIGNAL_CODING* codings, size_t n)
        : by_signal_(reps.size()), by_name_(n) {
        for (const auto& r : reps) by_signal_.add(string_view(r.signalName), r.encodingName);
        for (size_t i = 0; i < n; ++i)
            if (codings[i].name != nullptr) by_name_.add(string_view(codings[i].name), &codings[i]);
    }
    const LDF_SIGNAL_CODING* of(string_view signal) const {
        const char* encoding = by_signal_.find(signal);
        return encoding == nullptr ? nullptr : by_name_.find(string_view(encoding));
    }

private:
    FirstByName<const char*> by_signal_;
    FirstByName<const LDF_SIGNAL_CODING*> by_name_;
};

// name:size,init[,publisher[,subscriber...]] into `sig` (fields the entry lacks are kept).
void read_signal_entry(string_view entry, Store& s, LDF_LIN_SIGNAL& sig, bool with_nodes) {
    string_view rest;
    sig.name = s.string(cut(entry, ':', &rest));
    sig.size = static_cast<uint32_t>(integer(cut(rest, ',', &rest)));
    sig.maxRaw = max_raw(sig.size);
    if (!rest.empty() && rest.front() == '{') {
        const string_view list = cut(rest.substr(1), '}', &rest);
        if (!rest.empty() && rest.front() == ',') rest.remove_prefix(1);
        sig.initIsArray = 1;
        sig.initValue = 0;
        std::memset(sig.initArray, 0, sizeof(sig.initArray));
        size_t k = 0;
        each_piece(list, ',', [&](string_view b) {
            if (k < sizeof(sig.initArray)) sig.initArray[k++] = static_cast<uint8_t>(integer(b));
        });
    } else {
        sig.initIsArray = 0;
        sig.initValue = integer(cut(rest, ',', &rest));
    }
    if (!with_nodes) return;
    sig.publisher = s.string(cut(rest, ',', &rest));
    sig.subscriberCount = 0;
    while (!rest.empty()) {
        const string_view name = cut(rest, ',', &rest);
        if (sig.subscriberCount < LDF_MAX_SUBSCRIBERS) sig.subscribers[sig.subscriberCount++] = s.string(name);
    }
}

std::mutex& parse_mutex() {
    static std::mutex m;
    return m;
}

}  // namespace

// ---- Store -------------------------------------------------------------------------

void Store::Block::release() {
    if (base != nullptr) munmap(base, size);
}

void Store::reserve(size_t bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    if (bytes > left_) grow(bytes);
}

void Store::grow(size_t bytes) {
    // Blocks come populated from the kernel in one call: faulting in a large parse's
    // records page by page cost more than the parse itself.
    const size_t block = (std::max<size_t>(bytes, 64 << 10) + 4095) & ~size_t{4095};
    void* p = mmap(nullptr, block, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    blocks_.push_back(Block{static_cast<char*>(p), block});
    cursor_ = static_cast<char*>(p);
    left_ = block;
}

Store::~Store() { release_all(); }

void Store::release_all() {
    std::lock_guard<std::mutex> g(mutex_);
    for (Block& b : blocks_) b.release();
    blocks_.clear();
    cursor_ = nullptr;
    left_ = 0;
}

void* Store::allocate(size_t bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    bytes = (bytes + 15) & ~size_t{15};
    if (bytes > left_) grow(bytes);
    void* p = cursor_;
    cursor_ += bytes;
    left_ -= bytes;
    return p;
}

char* Store::string(string_view s) {
    char* p = static_cast<char*>(allocate(s.size() + 1));
    if (!s.empty()) std::memcpy(p, s.data(), s.size());
    return p;
}

Store& store() {
    static Store s;
    return s;
}

// ---- Text --------------------------------------------------------------------------

namespace {
// Byte classes of the flattening pass: dropped, kept, or needing a look (quote, slash).
enum : uint8_t { kDrop, kKeep, kLook };
struct ByteClasses {
    uint8_t of[256];
    ByteClasses() {
        for (int c = 0; c < 256; ++c) of[c] = c >= 33 && c <= 126 ? kKeep : kDrop;
        of[static_cast<unsigned char>('"')] = kLook;
        of[static_cast<unsigned char>('/')] = kLook;
    }
};
const ByteClasses kClasses;
}  // namespace

bool read_file(const char* path, std::string& out) {
    if (path == nullptr) return false;
    FILE* f = std::fopen(path, "rb");
    if (f == nullptr) return false;
    bool ok = std::fseek(f, 0, SEEK_END) == 0;
    const long size = ok ? std::ftell(f) : -1;
    ok = size >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
    if (ok) {
        out.resize(static_cast<size_t>(size));
        ok = size == 0 || std::fread(&out[0], 1, out.size(), f) == out.size();
    }
    std::fclose(f);
    return ok;
}

void prepare_into(string_view file, std::string& out) {
    // One pass. Block comments open anywhere, quotes or not; line comments and the
    // dropping of unprintable bytes respect quotes.
    out.resize(file.size());
    char* o = &out[0];
    size_t w = 0;
    bool quoted = false;
    const size_t n = file.size();
    for (size_t i = 0; i < n; ++i) {
        const char c = file[i];
        const uint8_t k = kClasses.of[static_cast<unsigned char>(c)];
        if (k == kKeep) {
            o[w++] = c;
            continue;
        }
        if (k == kDrop) {
            if (quoted && c == ' ') o[w++] = c;
            continue;
        }
        if (c == '/' && i + 1 < n) {
            if (file[i + 1] == '*') {
                const size_t end = file.find("*/", i + 2);
                if (end == string_view::npos) break;
                i = end + 1;
                continue;
            }
            if (!quoted && file[i + 1] == '/') {
                const size_t eol = file.find('\n', i);
                if (eol == string_view::npos) break;
                i = eol;
                continue;
            }
        }
        if (c == '"') quoted = !quoted;
        o[w++] = c;
    }
    out.resize(w);
}

std::string prepare(string_view file) {
    std::string out;
    prepare_into(file, out);
    return out;
}

namespace {

// The section whose opening brace is at `open` (npos: none), up to its closing brace
// or the end of the text.
string_view section_from(string_view text, size_t open) {
    if (open == string_view::npos) return string_view();
    int depth = 0;
    bool quoted = false;
    for (size_t j = open; j < text.size(); ++j) {
        if (text[j] == '"') quoted = !quoted;
        if (quoted) continue;
        if (text[j] == '{') ++depth;
        if (text[j] == '}' && --depth == 0) return text.substr(open, j - open + 1);
    }
    return text.substr(open);
}

// Where each of the sections a database needs opens, found in one pass over the text:
// the first '{' directly preceded by a section's name is that name's first occurrence
// followed by '{', as section() finds it. One pass instead of one search per section
// matters for large files, whose text is far larger than the caches.
class SectionMap {
public:
    static constexpr size_t kCount = 9;
    static constexpr string_view kNames[kCount] = {
        "Signal_encoding_types", "Signal_representation", "Signals", "Diagnostic_signals", "Frames",
        "Diagnostic_frames",     "Nodes",                 "Schedule_tables", "Node_attributes"};

    explicit SectionMap(string_view text) : text_(text) {
        for (size_t& o : open_) o = string_view::npos;
        size_t missing = kCount;
        for (size_t p = text.find('{'); p != string_view::npos && missing > 0; p = text.find('{', p + 1)) {
            for (size_t k = 0; k < kCount; ++k) {
                const string_view name = kNames[k];
                if (open_[k] != string_view::npos || p < name.size()) continue;
                if (text.substr(p - name.size(), name.size()) == name) {
                    open_[k] = p;
                    --missing;
                }
            }
        }
    }
    string_view operator[](string_view name) const {
        for (size_t k = 0; k < kCount; ++k)
            if (kNames[k] == name) return section_from(text_, open_[k]);
        return section(text_, name);
    }

private:
    string_view text_;
    size_t open_[kCount];
};

}  // namespace

string_view section(string_view text, string_view name) {
    std::string key(name);
    key.push_back('{');
    const size_t at = text.find(key);
    return section_from(text, at == string_view::npos ? string_view::npos : at + name.size());
}

// The shared conversions: strtoll's and strtod's rules, with 0x detected and a leading
// 0 read as decimal, independent of the application's locale.
int64_t integer(string_view s) { return text::to_signed(s, 0); }

double decimal(string_view s) { return text::to_double(s); }

uint32_t version_number(string_view quoted) {
    const string_view v = unquote(quoted).substr(0, 16);
    if (v.find("J2602") != string_view::npos) return 200;
    const double d = decimal(v) * 100.0;
    return d > 0 && d < 4294967295.0 ? static_cast<uint32_t>(d) : 0;
}

// ---- Sections ----------------------------------------------------------------------

void parse_header(string_view text, Parsed& out) {
    auto quoted_after = [&](string_view key) -> string_view {
        const size_t at = text.find(key);
        if (at == string_view::npos) return string_view();
        string_view rest = text.substr(at + key.size());
        const size_t q = rest.find('"');
        if (q == string_view::npos) return string_view();
        return cut(rest.substr(q + 1), '"');
    };
    out.protocol_version = version_number(quoted_after("LIN_protocol_version="));
    out.language_version = version_number(quoted_after("LIN_language_version="));
    const size_t at = text.find("LIN_speed=");
    if (at != string_view::npos) {
        const double kbps = decimal(cut(text.substr(at + 10), ';')) * 1000.0;
        out.speed = kbps > 0 && kbps < 4294967295.0 ? static_cast<uint32_t>(kbps) : 0;
    }
}

void parse_nodes(string_view sec, Store& s, LDF_LIN_NODE& node) {
    const string_view body = inner(sec);
    const size_t m = body.find("Master:");
    if (m != string_view::npos) {
        string_view rest = body.substr(m + 7);
        node.masterName = s.string(cut(rest, ',', &rest));
        node.timeBase = static_cast<float>(decimal(cut(rest, ',', &rest)));
        node.jitter = static_cast<float>(decimal(cut(rest, ';')));
    }
    const size_t sl = body.find("Slaves:");
    if (sl != string_view::npos) {
        const string_view list = cut(body.substr(sl + 7), ';');
        each_piece(list, ',', [&](string_view name) {
            if (node.slaveCount < LDF_MAX_SLAVES) node.slaveNames[node.slaveCount++] = s.string(name);
        });
    }
}

void parse_codings(string_view sec, Store& s, std::vector<LDF_SIGNAL_CODING>& out) {
    each_block(inner(sec), [&](string_view name, string_view body) {
        LDF_SIGNAL_CODING c{};
        c.name = s.string(name);
        std::vector<LDF_LOGICAL_VALUE> logical;
        std::vector<LDF_PHYSICAL_VALUE> physical;
        each_piece(body, ';', [&](string_view entry) {
            std::vector<string_view> f;
            each_piece(entry, ',', [&](string_view x) { f.push_back(x); });
            if (f.empty()) return;
            auto field = [&](size_t i) { return i < f.size() ? f[i] : string_view(); };
            if (f[0] == "logical_value") {
                logical.push_back(LDF_LOGICAL_VALUE{integer(field(1)), s.string(unquote(field(2)))});
            } else if (f[0] == "physical_value") {
                LDF_PHYSICAL_VALUE p{};
                p.minimum = integer(field(1));
                p.maximum = integer(field(2));
                p.scale = decimal(field(3));
                p.offset = decimal(field(4));
                p.unit = s.string(unquote(field(5)));
                physical.push_back(p);
            }
        });
        c.logicalCount = static_cast<uint32_t>(logical.size());
        c.physicalCount = static_cast<uint32_t>(physical.size());
        c.logicalValues = s.copy(logical);
        c.physicalValues = s.copy(physical);
        out.push_back(c);
    });
}

void parse_representations(string_view sec, Store& s, std::vector<LDF_SIGNAL_REPRESENTATION>& out) {
    each_piece(inner(sec), ';', [&](string_view entry) {
        string_view rest;
        const string_view encoding = cut(entry, ':', &rest);
        if (rest.empty()) return;
        char* enc = s.string(encoding);
        each_piece(rest, ',', [&](string_view name) { out.push_back(LDF_SIGNAL_REPRESENTATION{s.string(name), enc}); });
    });
}

void parse_signals(string_view ordinary, string_view diagnostic, Store& s,
                   const std::vector<LDF_SIGNAL_REPRESENTATION>& reps, const LDF_SIGNAL_CODING* codings,
                   size_t coding_count, std::vector<LDF_LIN_SIGNAL>& out) {
    const CodingLookup lookup(reps, codings, coding_count);
    // One scratch record serves every entry, so a diagnostic signal keeps bytes 32-223
    // (publisher, subscribers, coding) of the last ordinary signal.
    LDF_LIN_SIGNAL scratch{};
    out.reserve(out.size() + static_cast<size_t>(std::count(ordinary.begin(), ordinary.end(), ';') +
                                                 std::count(diagnostic.begin(), diagnostic.end(), ';')));
    each_piece(inner(ordinary), ';', [&](string_view entry) {
        if (entry.size() < 5) return;
        read_signal_entry(entry, s, scratch, true);
        const LDF_SIGNAL_CODING* c = lookup.of(string_view(scratch.name));
        scratch.coding = c != nullptr ? *c : LDF_SIGNAL_CODING{};
        out.push_back(scratch);
    }, true);
    each_piece(inner(diagnostic), ';', [&](string_view entry) {
        if (entry.size() < 5) return;
        read_signal_entry(entry, s, scratch, false);
        scratch.isDiagnostic = 1;
        out.push_back(scratch);
    }, true);
}

void parse_frames(string_view ordinary, string_view diagnostic, Store& s, const LDF_LIN_SIGNAL* signals,
                  size_t signal_count, std::vector<LDF_LIN_FRAME>& out) {
    FirstByName<const LDF_LIN_SIGNAL*> by_name(signal_count);
    for (size_t i = 0; i < signal_count; ++i)
        if (signals[i].name != nullptr) by_name.add(string_view(signals[i].name), &signals[i]);

    auto read_block = [&](string_view block, bool diag) {
        if (block.size() < 8) return;
        LDF_LIN_FRAME f{};
        string_view rest;
        f.name = s.string(cut(block, ':', &rest));
        string_view head = cut(rest, '{', &rest);
        if (diag) {
            f.id = static_cast<uint8_t>(integer(head));
            f.size = 8;
            f.frameKind = LDF_FRAME_DIAGNOSTIC;
        } else {
            f.id = static_cast<uint8_t>(integer(cut(head, ',', &head)));
            f.publisher = s.string(cut(head, ',', &head));
            f.size = static_cast<uint8_t>(integer(head));
        }
        // Members go straight into the store: counted first, so the array is exact.
        size_t room = 0;
        each_piece(rest, ';', [&](string_view entry) {
            if (entry.size() >= 3 && by_name.find(cut(entry, ',')) != nullptr) ++room;
        });
        f.signals = s.array<LDF_LIN_SIGNAL>(room);
        each_piece(rest, ';', [&](string_view entry) {
            if (entry.size() < 3) return;
            string_view offset;
            const LDF_LIN_SIGNAL* hit = by_name.find(cut(entry, ',', &offset));
            if (hit == nullptr || f.signalCount >= room) return;
            LDF_LIN_SIGNAL& copy = f.signals[f.signalCount++];
            copy = *hit;
            copy.bitOffset = static_cast<uint32_t>(integer(offset));
        });
        out.push_back(f);
    };
    out.reserve(out.size() + static_cast<size_t>(std::count(ordinary.begin(), ordinary.end(), '}') +
                                                 std::count(diagnostic.begin(), diagnostic.end(), '}')));
    // Each frame block ends at its first closing brace.
    each_piece(inner(ordinary), '}', [&](string_view b) { read_block(b, false); });
    each_piece(inner(diagnostic), '}', [&](string_view b) { read_block(b, true); });
}

void publish_master_request(LDF_LIN_FRAME* frames, size_t count, char* master) {
    for (size_t i = 0; i < count; ++i) {
        LDF_LIN_FRAME& f = frames[i];
        if (f.frameKind != LDF_FRAME_DIAGNOSTIC || f.name == nullptr || std::strcmp(f.name, "MasterReq") != 0) continue;
        f.publisher = master;
        for (uint32_t k = 0; k < f.signalCount; ++k) f.signals[k].publisher = master;
    }
}

void parse_schedules(string_view sec, Store& s, const LDF_LIN_FRAME* frames, size_t frame_count,
                     std::vector<LDF_LIN_SCH>& out) {
    FirstByName<const LDF_LIN_FRAME*> by_name(frame_count);
    for (size_t i = 0; i < frame_count; ++i)
        if (frames[i].name != nullptr) by_name.add(string_view(frames[i].name), &frames[i]);
    each_block(inner(sec), [&](string_view name, string_view body) {
        LDF_LIN_SCH sch{};
        sch.name = s.string(name);
        std::vector<LDF_SCH_ENTRY> entries;
        each_piece(body, ';', [&](string_view entry) {
            if (entry.size() < 9) return;
            const size_t d = entry.rfind("delay");
            if (d == string_view::npos) return;
            LDF_SCH_ENTRY e{};
            if (const LDF_LIN_FRAME* hit = by_name.find(entry.substr(0, d))) e.frame = *hit;
            e.delay = static_cast<float>(decimal(entry.substr(d + 5)));
            entries.push_back(e);
        }, true);
        sch.entryCount = static_cast<uint32_t>(entries.size());
        sch.entries = s.copy(entries);
        out.push_back(sch);
    });
}

void parse_attributes(string_view sec, Store& s, std::vector<LDF_NODE_ATTR>& out) {
    each_block(inner(sec), [&](string_view name, string_view body) {
        LDF_NODE_ATTR a{};
        a.nodeName = s.string(name);
        const size_t cf = body.find("configurable_frames");
        if (cf != string_view::npos) {
            each_piece(body.substr(0, cf), ';', [&](string_view pair) {
                string_view value;
                const string_view key = cut(pair, '=', &value);
                if (key == "LIN_protocol") {
                    a.protocol = static_cast<uint16_t>(version_number(value));
                } else if (key == "configured_NAD") {
                    a.configuredNad = static_cast<uint8_t>(integer(value));
                } else if (key == "initial_NAD") {
                    a.initialNad = static_cast<uint8_t>(integer(value));
                } else if (key == "product_id") {
                    a.supplierId = static_cast<uint32_t>(integer(cut(value, ',', &value)));
                    a.functionId = static_cast<uint32_t>(integer(cut(value, ',', &value)));
                    a.variant = static_cast<uint32_t>(integer(value));
                } else if (key == "response_error") {
                    a.responseError = s.string(value);
                } else if (key == "fault_state_signals") {
                    each_piece(value, ',', [&](string_view sig) {
                        if (a.faultStateCount < LDF_MAX_FAULT_STATE_SIGNALS)
                            a.faultStateSignals[a.faultStateCount++] = s.string(sig);
                    });
                } else if (key == "P2_min") {
                    a.p2Min = static_cast<float>(decimal(value));
                } else if (key == "ST_min") {
                    a.stMin = static_cast<float>(decimal(value));
                } else if (key == "N_As_timeout") {
                    a.nAsTimeout = static_cast<float>(decimal(value));
                } else if (key == "N_Cr_timeout") {
                    a.nCrTimeout = static_cast<float>(decimal(value));
                }
            });
            string_view frames_text = body.substr(cf + 19);
            const size_t open = frames_text.find('{');
            frames_text = open == string_view::npos ? string_view() : frames_text.substr(open + 1);
            frames_text = cut(frames_text, '}');
            each_piece(frames_text, ';', [&](string_view entry) {
                if (entry.empty()) return;
                if (a.configurableFrameCount < LDF_MAX_CONFIGURABLE_FRAMES)
                    a.configurableFrames[a.configurableFrameCount++] = s.string(cut(entry, '='));
            });
        }
        out.push_back(a);
    });
}

LDF_CODING* store_database(const LDF_CODING& parsed) {
    LDF_CODING* db = store().array<LDF_CODING>(1);
    *db = parsed;
    return db;
}

void decode_text(string_view text, LDF_CODING& coding) {
    std::lock_guard<std::mutex> guard(parse_mutex());
    Store& s = store();
    // Records and names take about twice the flattened text.
    s.reserve(text.size() * 2 + 4096);
    // The working lists keep their memory from one parse to the next (under the parse
    // lock): only the records handed out take new memory.
    static Parsed p;
    p.protocol_version = p.language_version = p.speed = 0;
    p.codings.clear();
    p.representations.clear();
    p.signals.clear();
    p.frames.clear();
    p.schedules.clear();
    p.attributes.clear();
    parse_header(text, p);
    const SectionMap sections(text);
    parse_codings(sections["Signal_encoding_types"], s, p.codings);
    parse_representations(sections["Signal_representation"], s, p.representations);
    LDF_SIGNAL_CODING* codings = s.copy(p.codings);
    parse_signals(sections["Signals"], sections["Diagnostic_signals"], s, p.representations, codings,
                  p.codings.size(), p.signals);
    LDF_LIN_SIGNAL* signals = s.copy(p.signals);
    parse_frames(sections["Frames"], sections["Diagnostic_frames"], s, signals, p.signals.size(), p.frames);
    LDF_LIN_FRAME* frames = s.copy(p.frames);
    LDF_LIN_NODE* node = nullptr;
    const string_view nodes = sections["Nodes"];
    if (inner(nodes).size() != 0) {
        node = s.array<LDF_LIN_NODE>(1);
        parse_nodes(nodes, s, *node);
        publish_master_request(frames, p.frames.size(), node->masterName);
    }
    // Schedule entries copy the frames as published (master request included).
    parse_schedules(sections["Schedule_tables"], s, frames, p.frames.size(), p.schedules);
    parse_attributes(sections["Node_attributes"], s, p.attributes);

    coding.protocolVersion = p.protocol_version;
    coding.languageVersion = p.language_version;
    coding.linSpeed = p.speed;
    coding.node = node;
    coding.frameCount = static_cast<uint32_t>(p.frames.size());
    coding.frames = frames;
    coding.scheduleCount = static_cast<uint32_t>(p.schedules.size());
    coding.schedules = s.copy(p.schedules);
    coding.nodeAttrCount = static_cast<uint32_t>(p.attributes.size());
    coding.nodeAttrs = s.copy(p.attributes);
}

}  // namespace ldf
}  // namespace polybus
