// Indexes of the DBC database: hash tables from names and identifiers to the first
// record in file order.
#include "database/dbc_index.h"

#include <cstring>

namespace dbc_detail {

uint64_t hash_bytes(const char* p, size_t n) {
    const uint64_t k = 0x9E3779B97F4A7C15ull;
    uint64_t h = n * k;
    while (n >= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        h = (h ^ w) * k;
        h ^= h >> 29;
        p += 8;
        n -= 8;
    }
    if (n > 0) {
        uint64_t w = 0;
        if (n >= 4) {
            uint32_t lo, hi;
            std::memcpy(&lo, p, 4);
            std::memcpy(&hi, p + n - 4, 4);
            w = lo | (static_cast<uint64_t>(hi) << 32);
        } else {
            w = static_cast<uint8_t>(p[0]) | (static_cast<uint64_t>(static_cast<uint8_t>(p[n / 2])) << 8) |
                (static_cast<uint64_t>(static_cast<uint8_t>(p[n - 1])) << 16);
        }
        h = (h ^ w) * k;
    }
    h ^= h >> 32;
    h *= 0xD6E8FEB86659FD93ull;
    h ^= h >> 32;
    return h;
}

void HashIndex::clear() {
    slots_.clear();
    mask_ = 0;
    count_ = 0;
}

void HashIndex::reserve(size_t n) {
    size_t cap = 16;
    while (cap * 3 < n * 4 + 4) cap *= 2;
    if (cap <= slots_.size()) return;
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(cap, Slot{0, 0, 0});
    mask_ = cap - 1;
    for (const Slot& s : old) {
        if (s.hash == 0) continue;
        size_t i = s.hash & mask_;
        while (slots_[i].hash != 0) i = (i + 1) & mask_;
        slots_[i] = s;
    }
}

void HashIndex::grow() { reserve(slots_.empty() ? 8 : slots_.size()); }

void IdIndex::clear() {
    slots_.clear();
    mask_ = 0;
    shift_ = 63;
    count_ = 0;
}

void IdIndex::reserve(size_t n) {
    size_t cap = 16;
    while (cap < n * 2 + 2) cap *= 2;
    if (cap <= slots_.size()) return;
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(cap, Slot{0, UINT32_MAX});
    mask_ = cap - 1;
    shift_ = static_cast<unsigned>(64 - __builtin_ctzll(cap));
    for (const Slot& s : old) {
        if (s.pos == UINT32_MAX) continue;
        size_t i = home(s.key);
        while (slots_[i].pos != UINT32_MAX) i = (i + 1) & mask_;
        slots_[i] = s;
    }
}

void IdIndex::grow() { reserve(slots_.empty() ? 8 : slots_.size()); }

void IdIndex::insert_first(uint32_t id, uint32_t pos) {
    if ((count_ + 1) * 2 > slots_.size()) grow();
    size_t i = home(id);
    for (;;) {
        Slot& s = slots_[i];
        if (s.pos == UINT32_MAX) {
            s = Slot{id, pos};
            ++count_;
            return;
        }
        if (s.key == id) return;
        i = (i + 1) & mask_;
    }
}

bool name_is_slow(const NameKey& k, const char* s) {
    if (k.length == UINT32_MAX || s == nullptr) return false;
    return std::strlen(s) == k.length && std::memcmp(s, k.name, k.length) == 0;
}

}  // namespace dbc_detail
