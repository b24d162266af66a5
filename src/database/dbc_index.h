// Indexes of the DBC database: open-addressing hash tables that map a name or an
// identifier to the first record in file order, and the byte comparisons and hashes
// they use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
        return find_built(id);
    }
    // The same once reserve() has made the table (any reserve does).
    uint32_t find_built(uint32_t id) const {
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

// Hash of a name of at most 31 bytes from its zero-padded 32-byte image: four
// independent multiplications, no loop.
inline uint64_t hash_words(uint64_t w0, uint64_t w1, uint64_t w2, uint64_t w3, size_t n) {
    uint64_t h = ((w0 ^ n) * 0x9E3779B97F4A7C15ull) ^ (w1 * 0xC2B2AE3D27D4EB4Full) ^
                 (w2 * 0x165667B19E3779F9ull) ^ (w3 * 0xD6E8FEB86659FD93ull);
    h ^= h >> 32;
    h *= 0x9E3779B97F4A7C15ull;
    h ^= h >> 29;
    return h;
}


// ---------------------------------------------------------------------------------
// Names against C strings without strlen.
//
// The exported calls take names as C strings. Measuring a string first costs a call
// and a loop per name; instead, a name of up to 31 bytes is compared with the first
// 32 bytes of the C string in two vector compares. Those loads may read past the C
// string's terminating NUL, but never into another page (the page offset is checked
// first, else the plain strlen path runs), so they cannot fault; the bytes past the
// NUL take no part in the result. Such reads are invisible to the program but not to
// memory checkers, hence the sanitizer exemption.

#if defined(__SSE2__) && defined(__x86_64__) && !defined(POLYBUS_NO_WIDE_NAME_LOADS)
#define DBC_WIDE_NAME_LOADS 1
#define DBC_NO_SANITIZE_WIDE_LOADS __attribute__((no_sanitize("address", "thread")))
#else
#define DBC_WIDE_NAME_LOADS 0
#define DBC_NO_SANITIZE_WIDE_LOADS
#endif

// The address of a C string as the wide loads see it: the compiler is told nothing
// of the object behind it, so that it does not warn about loads past a literal's end.
inline const char* opaque(const char* s) {
    asm("" : "+r"(s));
    return s;
}

// True when 32 bytes from `s` on lie within s's page. False for a null pointer (and,
// to keep that one test, for a string at a page's very start: it takes the slow way).
inline bool wide_load_ok(const char* s) {
    return (reinterpret_cast<uintptr_t>(s) & 4095u) - 1u < 4096u - 32u;
}

// A name prepared for comparison with C strings.
struct NameKey {
    alignas(16) char text[32];  // the name zero-padded, when it has at most 31 bytes
    uint32_t care;    // bits 0..length: the bytes a C string must match, its NUL
                      // included; 0 for a longer name or one that never matches
    uint32_t length;  // UINT32_MAX: no C string matches (the name holds a NUL, or
                      // an earlier record of the same list has the same name)
    uint32_t ignore;  // ~care
    const char* name;  // the whole name
};

inline NameKey make_key(const std::string& name, bool matchable) {
    NameKey k{};
    k.name = name.c_str();
    if (!matchable || name.find('\0') != std::string::npos) {
        k.length = UINT32_MAX;
        return k;
    }
    k.length = static_cast<uint32_t>(name.size());
    if (name.size() <= 31) {
        std::memcpy(k.text, name.data(), name.size());
        k.care = static_cast<uint32_t>((2ull << name.size()) - 1);
    }
    k.ignore = ~k.care;
    return k;
}

// Whether the C string `s` is the key's name, by strlen and memcmp (false for null).
bool name_is_slow(const NameKey& k, const char* s);

// True when the C string `s` is certainly the key's name; false when it is not or
// when this quick test cannot tell (a string near the start or end of a page, null):
// for the fast paths, which hand every false on to a slow path using name_is. The
// key must have care != 0 (a name of at most 31 bytes); the fast paths keep to keys
// of that kind and to stand-ins whose care is 1 (the empty name).
DBC_NO_SANITIZE_WIDE_LOADS inline bool name_is_quick(const NameKey& k, const char* s) {
#if DBC_WIDE_NAME_LOADS
    s = opaque(s);
    const uintptr_t offset = (reinterpret_cast<uintptr_t>(s) & 4095u) - 1u;  // see wide_load_ok
    const __m128i a = _mm_load_si128(reinterpret_cast<const __m128i*>(k.text));
    if (k.care <= 0xFFFFu) {  // a name of up to 15 bytes: one 16-byte compare
        if (offset >= 4096u - 16u) return false;
        const uint32_t equal = static_cast<uint32_t>(
            _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), a)));
        return (~equal & k.care) == 0;
    }
    if (offset >= 4096u - 32u) return false;
    const __m128i b = _mm_load_si128(reinterpret_cast<const __m128i*>(k.text + 16));
    const uint32_t equal =
        static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), a))) |
        (static_cast<uint32_t>(
             _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16)), b)))
         << 16);
    return (~equal & k.care) == 0;
#else
    return name_is_slow(k, s);
#endif
}

// Two names of at most 31 bytes, a message's and a signal's, as the remembered paths
// compare them with the first 32 bytes of two C strings. Each byte compared gives
// one bit of a 64-bit word: bits 0..15 the message name's first 16 bytes, 16..31 and
// 32..47 the signal name's 32, 48..63 the message name's second 16 bytes; `ignore`
// has ones for the bytes past each name's NUL, which the C strings may hold
// anything in. Both names are then judged with one test, and a second half is
// compared only where `ignore` does not cover it whole: most names fit in 16 bytes
// with their NUL, and the test for that is the same in every call for the same
// names.
struct NamePair {
    alignas(16) char message[32];  // zero-padded
    alignas(16) char signal[32];
    uint64_t ignore;
};

inline NamePair make_pair_image(const NameKey& message, const NameKey& signal) {  // both care != 0
    NamePair p{};
    std::memcpy(p.message, message.text, sizeof p.message);
    std::memcpy(p.signal, signal.text, sizeof p.signal);
    const uint64_t m = message.ignore, s = signal.ignore;
    p.ignore = (m & 0xFFFFu) | (static_cast<uint64_t>(s) << 16) | ((m >> 16) << 48);
    return p;
}

#if DBC_WIDE_NAME_LOADS
// True when the C strings `a` and `b` are the message and signal names of `p`. 32
// bytes must be readable from both strings (their page offsets tell: see
// wide_load_ok), and the compiler must know nothing of the objects behind them (see
// opaque).
DBC_NO_SANITIZE_WIDE_LOADS inline bool same_pair(const NamePair& p, const char* a, const char* b) {
    auto equal16 = [](const char* s, const char* text) DBC_NO_SANITIZE_WIDE_LOADS {
        return static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), _mm_load_si128(reinterpret_cast<const __m128i*>(text))))));
    };
    const uint64_t ignore = p.ignore;
    uint64_t equal = ignore | equal16(a, p.message) | (equal16(b, p.signal) << 16);
    const uint32_t high = static_cast<uint32_t>(ignore >> 32);  // the second halves
    if (high != 0xFFFFFFFFu) {  // a long name
        if (static_cast<uint16_t>(high) != 0xFFFFu) equal |= equal16(b + 16, p.signal + 16) << 32;
        if (high < 0xFFFF0000u) equal |= equal16(a + 16, p.message + 16) << 48;
    }
    return equal == ~uint64_t{0};
}
#endif

// Whether the C string `s` is the key's name.
inline bool name_is(const NameKey& k, const char* s) {
#if DBC_WIDE_NAME_LOADS
    if (k.care != 0 && wide_load_ok(s)) return name_is_quick(k, s);
#endif
    return name_is_slow(k, s);
}

#if DBC_WIDE_NAME_LOADS
// hash_words of the first n (< 32) bytes of the 32 bytes in a and b.
inline uint64_t hash_vectors(__m128i a, __m128i b, int n) {
    const __m128i limit = _mm_set1_epi8(static_cast<char>(n));
    const __m128i lo =
        _mm_and_si128(a, _mm_cmpgt_epi8(limit, _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)));
    const __m128i hi = _mm_and_si128(
        b, _mm_cmpgt_epi8(limit, _mm_setr_epi8(16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31)));
    return hash_words(static_cast<uint64_t>(_mm_cvtsi128_si64(lo)),
                      static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_srli_si128(lo, 8))),
                      static_cast<uint64_t>(_mm_cvtsi128_si64(hi)),
                      static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_srli_si128(hi, 8))), static_cast<size_t>(n));
}
#endif

// The hash of a name: short names (most) by hash_words of their zero-padded image,
// longer ones by hash_bytes.
DBC_NO_SANITIZE_WIDE_LOADS inline uint64_t hash_name(std::string_view s) {
    if (s.size() > 31) return hash_bytes(s.data(), s.size());
#if DBC_WIDE_NAME_LOADS
    const char* p = opaque(s.data());
    if (wide_load_ok(p)) {
        return hash_vectors(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                            _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)),
                            static_cast<int>(s.size()));
    }
#endif
    uint64_t w[4] = {0, 0, 0, 0};
    std::memcpy(w, s.data(), s.size());
    return hash_words(w[0], w[1], w[2], w[3], s.size());
}

inline uint64_t hash_str(std::string_view s) { return hash_name(s); }
inline uint64_t hash_signal(uint32_t msg, std::string_view s) {
    return hash_str(s) ^ ((msg + 1) * 0xD6E8FEB86659FD93ull);
}

// hash_name of a C string.
DBC_NO_SANITIZE_WIDE_LOADS inline uint64_t hash_cstr(const char* s) {
#if DBC_WIDE_NAME_LOADS
    s = opaque(s);
    if (wide_load_ok(s)) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
        const __m128i zero = _mm_setzero_si128();
        const uint32_t nul = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, zero))) |
                             (static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, zero))) << 16);
        if (nul != 0) return hash_vectors(a, b, __builtin_ctz(nul));  // bytes from the NUL on cleared
    }
#endif
    return hash_name(std::string_view(s));
}

}  // namespace dbc_detail
