// Signal values of an LDF database: look-ups by name, physical <-> raw conversion
// through a signal's encoding, and frames as little-endian bit fields.
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "database/ldf_internal.h"

namespace polybus {
namespace ldf {

namespace {

uint64_t hash_name(const char* s) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (; *s != '\0'; ++s) h = (h ^ static_cast<unsigned char>(*s)) * 0x100000001b3ull;
    return h;
}

// First-match index over an array of named records. Positions are confirmed by name
// on every hit, so a caller that edits the public records never gets a wrong record,
// only a slower one.
class NameIndex {
public:
    template <typename Name>
    void build(size_t n, Name&& name_of) {
        size_t cap = 16;
        while (cap < n * 2) cap <<= 1;
        slots_.assign(cap, 0);
        hashes_.assign(cap, 0);
        for (size_t i = 0; i < n; ++i) {
            const char* name = name_of(i);
            if (name == nullptr) continue;
            const uint64_t h = hash_name(name);
            size_t at = h & (cap - 1);
            bool seen = false;
            while (slots_[at] != 0) {
                if (hashes_[at] == h && std::strcmp(name_of(slots_[at] - 1), name) == 0) {
                    seen = true;  // the first in file order keeps the name
                    break;
                }
                at = (at + 1) & (cap - 1);
            }
            if (seen) continue;
            slots_[at] = static_cast<uint32_t>(i + 1);
            hashes_[at] = h;
        }
    }
    // Position of the first record of that name, or -1.
    template <typename Name>
    long find(const char* key, Name&& name_of) const {
        if (slots_.empty()) return -1;
        const uint64_t h = hash_name(key);
        const size_t mask = slots_.size() - 1;
        for (size_t at = h & mask; slots_[at] != 0; at = (at + 1) & mask) {
            if (hashes_[at] != h) continue;
            const char* name = name_of(slots_[at] - 1);
            if (name != nullptr && std::strcmp(name, key) == 0) return static_cast<long>(slots_[at] - 1);
        }
        return -1;
    }

private:
    std::vector<uint32_t> slots_;  // position + 1; 0 is empty
    std::vector<uint64_t> hashes_;
};

// Frames of up to this many signals are searched directly: a short scan of names
// that mostly differ in their first bytes beats hashing the key.
constexpr uint32_t kScanSignals = 12;

struct Index {
    const LDF_LIN_FRAME* frames = nullptr;  // the arrays the index was built over
    uint32_t frame_count = 0;
    NameIndex frame_names;
    NameIndex schedule_names;
    std::vector<std::unique_ptr<NameIndex>> signal_names;  // per frame; null: scan
    std::atomic<LDF_LIN_FRAME*> last_frame{nullptr};
};

struct Registry {
    std::mutex mutex;
    std::atomic<uint64_t> generation{1};  // bumped when indexes are dropped
    std::unordered_map<const LDF_CODING*, std::unique_ptr<Index>> indexes;
};

Registry& registry() {
    static Registry r;
    return r;
}

// The index of a database, or null when this library did not make it (or its frame
// array was replaced since). The last answer is kept per thread.
Index* index_of(LDF_CODING* coding) {
    thread_local const LDF_CODING* last_coding = nullptr;
    thread_local Index* last_index = nullptr;
    thread_local uint64_t last_generation = 0;
    Registry& r = registry();
    Index* idx;
    if (coding == last_coding && last_generation == r.generation.load(std::memory_order_acquire)) {
        idx = last_index;
    } else {
        std::lock_guard<std::mutex> g(r.mutex);
        auto it = r.indexes.find(coding);
        idx = it == r.indexes.end() ? nullptr : it->second.get();
        last_coding = coding;
        last_index = idx;
        last_generation = r.generation.load(std::memory_order_relaxed);
    }
    if (idx != nullptr && (idx->frames != coding->frames || idx->frame_count != coding->frameCount)) return nullptr;
    return idx;
}

bool same(const char* a, const char* b) { return a != nullptr && std::strcmp(a, b) == 0; }

uint64_t size_mask(uint32_t bits) { return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1; }

// A signal's value as stored: initValue, or the initArray bytes (little-endian) of a
// diagnostic signal.
uint64_t stored(const LDF_LIN_SIGNAL& sig) {
    if (!sig.isDiagnostic) return static_cast<uint64_t>(sig.initValue);
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | sig.initArray[i];
    return v;
}

void store(LDF_LIN_SIGNAL& sig, uint64_t v) {
    if (!sig.isDiagnostic) {
        sig.initValue = static_cast<int64_t>(v);
        return;
    }
    const uint32_t n = sig.size / 8 < 8 ? sig.size / 8 : 8;
    for (uint32_t i = 0; i < n; ++i) sig.initArray[i] = static_cast<uint8_t>(v >> (8 * i));
}

// Truncation toward zero into 64 bits; out-of-range values saturate and NaN gives 0.
int64_t truncate(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 9223372036854775807.0) return INT64_MAX;
    if (v <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(v);
}

bool logical_hit(const LDF_SIGNAL_CODING& c, int64_t raw) {
    for (uint32_t i = 0; i < c.logicalCount && c.logicalValues != nullptr; ++i)
        if (c.logicalValues[i].value == raw) return true;
    return false;
}

// Ranges are compared in unsigned 64 bits, as raw values are bit fields.
bool in_range(const LDF_PHYSICAL_VALUE& p, uint64_t raw) {
    return static_cast<uint64_t>(p.minimum) <= raw && raw <= static_cast<uint64_t>(p.maximum);
}

const LDF_PHYSICAL_VALUE* physical_for(const LDF_SIGNAL_CODING& c, uint64_t raw) {
    for (uint32_t i = 0; i < c.physicalCount && c.physicalValues != nullptr; ++i)
        if (in_range(c.physicalValues[i], raw)) return &c.physicalValues[i];
    return nullptr;
}

}  // namespace

void index_database(LDF_CODING* coding) {
    auto idx = std::make_unique<Index>();
    idx->frames = coding->frames;
    idx->frame_count = coding->frameCount;
    idx->frame_names.build(coding->frameCount, [&](size_t i) { return coding->frames[i].name; });
    idx->schedule_names.build(coding->scheduleCount, [&](size_t i) { return coding->schedules[i].name; });
    idx->signal_names.resize(coding->frameCount);
    for (uint32_t f = 0; f < coding->frameCount; ++f) {
        const LDF_LIN_FRAME& frame = coding->frames[f];
        if (frame.signalCount <= kScanSignals) continue;
        auto names = std::make_unique<NameIndex>();
        names->build(frame.signalCount, [&](size_t i) { return frame.signals[i].name; });
        idx->signal_names[f] = std::move(names);
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.mutex);
    if (r.indexes.count(coding) != 0) r.generation.fetch_add(1, std::memory_order_acq_rel);
    r.indexes[coding] = std::move(idx);
}

void forget_databases() {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.mutex);
    r.indexes.clear();
    r.generation.fetch_add(1, std::memory_order_acq_rel);
}

LDF_LIN_FRAME* find_frame(LDF_CODING* coding, const char* name) {
    if (coding->frames == nullptr || name == nullptr) return nullptr;
    Index* idx = index_of(coding);
    if (idx != nullptr) {
        // Applications tend to work frame by frame: try the last one found first.
        LDF_LIN_FRAME* last = idx->last_frame.load(std::memory_order_relaxed);
        if (last != nullptr && same(last->name, name)) {
            // Only the first frame of a name is ever remembered, so this is a first match.
            return last;
        }
        const long at = idx->frame_names.find(name, [&](size_t i) { return coding->frames[i].name; });
        if (at >= 0) {
            idx->last_frame.store(&coding->frames[at], std::memory_order_relaxed);
            return &coding->frames[at];
        }
        // A miss is confirmed by a scan: the records are the application's to edit.
    }
    for (uint32_t i = 0; i < coding->frameCount; ++i)
        if (same(coding->frames[i].name, name)) return &coding->frames[i];
    return nullptr;
}

LDF_LIN_SIGNAL* find_signal(LDF_CODING* coding, LDF_LIN_FRAME* frame, const char* name) {
    if (frame->signals == nullptr || name == nullptr) return nullptr;
    if (frame->signalCount > kScanSignals) {
        Index* idx = index_of(coding);
        const size_t f = static_cast<size_t>(frame - coding->frames);
        if (idx != nullptr && f < idx->signal_names.size() && idx->signal_names[f]) {
            const long at = idx->signal_names[f]->find(name, [&](size_t i) { return frame->signals[i].name; });
            if (at >= 0) return &frame->signals[at];
        }
    }
    for (uint32_t i = 0; i < frame->signalCount; ++i)
        if (same(frame->signals[i].name, name)) return &frame->signals[i];
    return nullptr;
}

LDF_LIN_SCH* find_schedule(LDF_CODING* coding, const char* name) {
    if (coding->schedules == nullptr || name == nullptr) return nullptr;
    Index* idx = index_of(coding);
    if (idx != nullptr) {
        const long at = idx->schedule_names.find(name, [&](size_t i) { return coding->schedules[i].name; });
        if (at >= 0) return &coding->schedules[at];
        // Schedules are not covered by the frame-array check: confirm absence by a scan.
    }
    for (uint32_t i = 0; i < coding->scheduleCount; ++i)
        if (same(coding->schedules[i].name, name)) return &coding->schedules[i];
    return nullptr;
}

void set_physical(LDF_LIN_SIGNAL& sig, double value) {
    const int64_t truncated = truncate(value);
    store(sig, static_cast<uint64_t>(truncated));
    const LDF_SIGNAL_CODING& c = sig.coding;
    if (logical_hit(c, truncated)) return;
    if (c.physicalCount == 0 || c.physicalValues == nullptr) return;
    LDF_PHYSICAL_VALUE& first = c.physicalValues[0];
    // A range written as 0, 0 stands for the signal's whole raw range; the shared
    // encoding entry is updated, so every signal of that encoding sees it from now on.
    if (first.minimum == 0 && first.maximum == 0) first.maximum = truncate(sig.maxRaw);
    for (uint32_t i = 0; i < c.physicalCount; ++i) {
        const LDF_PHYSICAL_VALUE& p = c.physicalValues[i];
        double r = (value - p.offset) / p.scale;
        if (!std::isfinite(r)) continue;
        r += r < 0 ? -0.49999999999999994 : 0.49999999999999994;
        const uint64_t raw = static_cast<uint64_t>(truncate(r));
        if (in_range(p, raw)) {
            store(sig, raw);
            return;
        }
    }
}

double get_physical(const LDF_LIN_SIGNAL& sig) {
    const uint64_t raw = stored(sig);
    const LDF_SIGNAL_CODING& c = sig.coding;
    const double as_is = static_cast<double>(static_cast<int64_t>(raw));
    if (logical_hit(c, static_cast<int64_t>(raw))) return as_is;
    const LDF_PHYSICAL_VALUE* p = physical_for(c, raw);
    return p == nullptr ? as_is : static_cast<double>(raw) * p->scale + p->offset;
}

void value_text(const LDF_LIN_SIGNAL& sig, char* out) {
    const uint64_t raw = stored(sig);
    const LDF_SIGNAL_CODING& c = sig.coding;
    for (uint32_t i = 0; i < c.logicalCount && c.logicalValues != nullptr; ++i) {
        if (c.logicalValues[i].value == static_cast<int64_t>(raw)) {
            const char* text = c.logicalValues[i].text;
            std::strcpy(out, text != nullptr ? text : "");
            return;
        }
    }
    const LDF_PHYSICAL_VALUE* p = physical_for(c, raw);
    if (p != nullptr) {
        std::sprintf(out, "%f %s", static_cast<double>(raw) * p->scale + p->offset, p->unit != nullptr ? p->unit : "");
        return;
    }
    std::sprintf(out, "%" PRId64, static_cast<int64_t>(raw));
}

void raw_to_frame(LDF_LIN_FRAME& frame, const unsigned char* data) {
    uint64_t number = 0;
    const unsigned n = frame.size < 8 ? frame.size : 8;
    for (unsigned i = 0; i < n; ++i) number |= uint64_t{data[i]} << (8 * i);
    for (uint32_t k = 0; k < frame.signalCount && frame.signals != nullptr; ++k) {
        LDF_LIN_SIGNAL& sig = frame.signals[k];
        const uint64_t v = sig.bitOffset < 64 ? (number >> sig.bitOffset) & size_mask(sig.size) : 0;
        store(sig, v);
    }
}

void frame_to_raw(const LDF_LIN_FRAME& frame, unsigned char* data) {
    uint64_t number = 0;
    for (uint32_t k = 0; k < frame.signalCount && frame.signals != nullptr; ++k) {
        const LDF_LIN_SIGNAL& sig = frame.signals[k];
        if (sig.bitOffset >= 64) continue;
        const uint64_t mask = size_mask(sig.size) << sig.bitOffset;
        number = (number & ~mask) | ((stored(sig) << sig.bitOffset) & mask);
    }
    for (unsigned i = 0; i < frame.size; ++i) data[i] = i < 8 ? static_cast<uint8_t>(number >> (8 * i)) : 0;
}

}  // namespace ldf
}  // namespace polybus
