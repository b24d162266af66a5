// Indexes of the DBC database: open-addressing hash tables that map a name or an
// identifier to the first record in file order, and the byte comparisons and hashes
// they use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dbc_detail {

// Open-addressing table from a 64-bit key hash to record positions. Several keys
// can share a hash, so callers confirm a hit against the record itself; the table
// keeps the first position inserted for a key, which gives first-match semantics.
class HashIndex {
public:
    struct Slot {
        uint64_t hash;  // 0 = empty
        uint32_t a;     // message position
        uint32_t b;     // signal / definition position, or unused
    };

    void clear();
    void reserve(size_t n);
    // Calls same(slot) for every slot with this hash until it returns true.
    template <class Same>
    const Slot* find(uint64_t hash, Same same) const {
        if (slots_.empty()) return nullptr;
        hash |= 1;
        size_t i = hash & mask_;
        for (;;) {
            const Slot& s = slots_[i];
            if (s.hash == 0) return nullptr;
            if (s.hash == hash && same(s)) return &s;
            i = (i + 1) & mask_;
        }
    }
    // Inserts unless an equal key is present.
    template <class Same>
    void insert_first(uint64_t hash, uint32_t a, uint32_t b, Same same) {
        if ((count_ + 1) * 4 > slots_.size() * 3) grow();
        hash |= 1;
        size_t i = hash & mask_;
        for (;;) {
            Slot& s = slots_[i];
            if (s.hash == 0) {
                s = Slot{hash, a, b};
                ++count_;
                return;
            }
            if (s.hash == hash && same(s)) return;
            i = (i + 1) & mask_;
        }
    }

private:
    void grow();
    std::vector<Slot> slots_;
    size_t mask_ = 0;
    size_t count_ = 0;
};

// Identifier -> first message position. Key and position share a slot, so that a
// probe touches one cache line however large the table grows.
class IdIndex {
public:
    void clear();
    void reserve(size_t n);
    void insert_first(uint32_t id, uint32_t pos);
    uint32_t find(uint32_t id) const {  // UINT32_MAX when absent
        if (slots_.empty()) return UINT32_MAX;
        size_t i = home(id);
        for (;;) {
            const Slot& s = slots_[i];
            if (s.pos == UINT32_MAX) return UINT32_MAX;
            if (s.key == id) return s.pos;
            i = (i + 1) & mask_;
        }
    }

private:
    struct Slot {
        uint32_t key;
        uint32_t pos;  // UINT32_MAX = empty
    };
    // Fibonacci hashing: the top bits of the product. Runs of consecutive identifiers,
    // common in DBC files, then land evenly spread and probe chains stay short.
    size_t home(uint32_t id) const {
        return static_cast<size_t>((id * 0x9E3779B97F4A7C15ull) >> shift_);
    }
    void grow();
    std::vector<Slot> slots_;
    size_t mask_ = 0;
    unsigned shift_ = 63;  // 64 - log2(table size)
    size_t count_ = 0;
};

// Equality of two byte ranges of the same, known length. Lengths of 8 to 32 bytes
// (most names) take one branch-free path of four overlapping word loads, so that a
// run of look-ups of differently long names does not keep mispredicting.
inline bool same_bytes(const char* a, const char* b, size_t n) {
    auto load64 = [](const char* p) {
        uint64_t v;
        __builtin_memcpy(&v, p, 8);
        return v;
    };
    auto load32 = [](const char* p) {
        uint32_t v;
        __builtin_memcpy(&v, p, 4);
        return v;
    };
    if (n - 8 <= 24) {
        const size_t last = n - 8;
        const size_t o1 = last < 8 ? last : 8;
        const size_t o2 = last < 16 ? last : 16;
        const uint64_t diff = (load64(a) ^ load64(b)) | (load64(a + o1) ^ load64(b + o1)) |
                              (load64(a + o2) ^ load64(b + o2)) | (load64(a + last) ^ load64(b + last));
        return diff == 0;
    }
    if (n > 32) {
        uint64_t diff = load64(a + n - 8) ^ load64(b + n - 8);
        for (size_t i = 0; i + 8 < n; i += 8) diff |= load64(a + i) ^ load64(b + i);
        return diff == 0;
    }
    if (n >= 4) return ((load32(a) ^ load32(b)) | (load32(a + n - 4) ^ load32(b + n - 4))) == 0;
    for (size_t i = 0; i < n; ++i)
        if (a[i] != b[i]) return false;
    return true;
}

inline bool same_name(const std::string& name, std::string_view key) {
    return name.size() == key.size() && same_bytes(name.data(), key.data(), key.size());
}

uint64_t hash_bytes(const char* p, size_t n);
inline uint64_t hash_str(std::string_view s) { return hash_bytes(s.data(), s.size()); }
inline uint64_t hash_signal(uint32_t msg, std::string_view s) {
    return hash_str(s) ^ ((msg + 1) * 0xD6E8FEB86659FD93ull);
}

}  // namespace dbc_detail
