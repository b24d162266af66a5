// The codec tables of a DBC database: per message and per signal, what the frame
// paths and the look-ups by name need, laid out for them and rebuilt from the
// records by DBC_Decoder::reindex().
#pragma once

#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "database/dbc_index.h"

struct DBC_SIGNAL;

namespace dbc_detail {

// A signal's conversion parameters, copied next to its codec entry so that setting a
// value by name does not have to reach into the record for them.
struct Scale {
    double minimum;
    double maximum;
    double offset;
    double factor;
    double inverse;  // 1 / factor when that is exact (a power of two), else 0
    uint64_t mask;     // GetDataMask(length)
    uint64_t rawMask;  // mask for signed signals, all ones for unsigned ones
    uint32_t isSigned;
    enum Kind : uint32_t { Integer, Single, Double, None } kind;
};

// One signal prepared for the word-wide CAN path. The 8 data bytes are handled as
// one 64-bit word: little-endian for Intel fields, byte-swapped for Motorola
// fields, in which a Motorola field is a run of consecutive bits.
struct MessageCodec;

struct alignas(64) CanField {
    // What decoding a frame reads of a field comes first, within 24 bytes: one cache
    // line (messages read entirely on the word path use their ReadOps instead).
    DBC_SIGNAL* sig;
    uint64_t mask;       // reading: value mask of the signal length (0: outside the frame)
    uint8_t readShift;   // reading: right shift of the word
    uint8_t bigEndian;   // 1: operate on the byte-swapped word
    uint8_t slowRead;    // 1: read byte-wise (a Motorola field starting past the frame)
    uint8_t writeLeft;   // writing: raw << writeLeft >> writeRight
    uint8_t writeRight;
    // How a raw value reads as a physical one. Only isSigned 1 makes a signal signed,
    // and only a signed signal reads its raw bits as a float or double.
    //   ReadInteger: signed integers, and unsigned ones shorter than 64 bits (whose raw
    //                values read the same as signed 64-bit integers)
    //   ReadUnsigned64: unsigned signals of 64 bits or more
    enum ReadKind : uint8_t { ReadInteger, ReadUnsigned64, ReadSingle, ReadDouble, ReadZero } readKind;
    // Look-ups by name may remember this signal (see Hint): its name and its
    // message's name both have at most 31 bytes, and both are the first of their name.
    bool quick;
    NameKey key;  // the signal's name; only the first signal of a name matches
    // With `quick`: the message's and the signal's names as the remembered paths
    // compare them.
    NamePair names;
    // ReadInteger: the sign bit of a signed signal, which (raw ^ signBit) - signBit
    // extends (at most bit 62), else 0; bit 63 alone for the other kinds, so that
    // one load tells the common case.
    uint64_t signBit;
    Scale scale;
    const MessageCodec* owner;  // the message's codec entry
    uint32_t page;     // multiplexed signal: its switch value; else UINT32_MAX
    uint64_t wordMask;   // writing: the field's bits in the word
    uint64_t valueMask;  // writing: 0 when no bit of the raw value reaches the frame
    uint64_t insertMask;  // wordMask & valueMask
};

// One slot of a message's table of signals by name: the name hash's upper half and
// the signal's position (UINT32_MAX: empty).
struct SignalSlot {
    uint32_t tag;
    uint32_t field;
};

// A field as decoding a classic frame on the word path reads it: its record's raw
// value becomes (word >> shift) & mask, of the little-endian word or the byte-swapped
// one by the list it is in. Kept apart from the CanFields so that decoding walks a
// short, dense list and never chooses between the two words per field.
struct ReadOp {
    uint64_t* raw;  // the record's rawValue
    uint64_t mask;  // 0 for an Intel field starting past the frame: reads 0
    uint64_t shift;
};

// A field of a disjoint message, reduced to a rotation and a mask of the word.
struct PackedField {
    const DBC_SIGNAL* sig;
    uint64_t mask;
    uint32_t rotate;  // left rotation of the raw value
};

struct MessageCodec {
    NameKey key{};               // the message's name; only the first of a name matches
    CanField* fields = nullptr;  // the message's first CanField
    CanField* end = nullptr;     // and one past its last
    // Signals by name: open addressing, at most half full, so that probe chains stay
    // short; slotMask + 1 slots from `slots`.
    const SignalSlot* slots = nullptr;
    uint32_t slotFirst = 0;
    uint32_t slotMask = 0;
    uint32_t first = 0;  // its position in the table
    uint32_t count = 0;
    int32_t switchIndex = -1;  // first multiplexer switch, signal position
    bool allWordPath = true;   // every field reads through the word path
    // No switch and no two fields sharing a bit: the frame can be put together in any
    // order, from the packed lists below.
    bool disjoint = false;
    uint32_t leFirst = 0, leCount = 0;  // packed Intel fields
    uint32_t beFirst = 0, beCount = 0;  // packed Motorola fields
    // With allWordPath: the fields as decoding reads them, the Intel ones from
    // `reads` to `readsBig`, then the Motorola ones up to `readsEnd`.
    const ReadOp* reads = nullptr;
    const ReadOp* readsBig = nullptr;
    const ReadOp* readsEnd = nullptr;
    // Signal to try first in a look-up by name: the one after the last hit, since
    // applications tend to set and read a message's signals in the same order each
    // time. A message without signals points at no_field().
    mutable CanField* next = nullptr;
};

// Where a look-up by name remembers what it found: a slot chosen by the address of
// the caller's signal name string. Applications pass the same strings (mostly
// literals) again and again, so the slot usually holds the right signal at once;
// the signal is then confirmed by its own and its message's name, never taken on
// the addresses. The slot is the string's offset in its page: it does not change
// with where the program is loaded, strings that lie close together, as a program's
// literals do, never share a slot, and whether 32 bytes can be read from the string
// without leaving its page is a property of the slot. The slot also holds the page
// offset of the message name string the signal was found with, which vouches for
// that string in the same way: a signal is remembered only where 32 bytes can be
// read from both strings, so a call whose message name string has the remembered
// offset needs no page check. Slot 0 (a null pointer's) stays empty.
//
// The field and the offset share one word: the field's address shifted up by 16
// bits, above the offset. An empty slot holds 0xFFFF, which is no offset; a field
// whose address does not fit (none on today's 64-bit systems, whose user addresses
// have at most 47 bits) is not remembered. Beside the word, the address of the
// field's raw value in its record: reading a value then loads the raw value as soon
// as it has the slot, without waiting for the field.
constexpr unsigned kHintBits = 12;
inline uint64_t page_offset(const char* s) { return reinterpret_cast<uintptr_t>(s) & 4095u; }
inline size_t hint_slot(const char* signalName) { return static_cast<size_t>(page_offset(signalName)); }
static_assert(kHintBits == 12, "the slot is the offset in a 4 KB page");
constexpr uint64_t kNoHint = 0xFFFF;

inline uint64_t hint_of(const CanField* f, const char* messageName) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(f)) << 16 | page_offset(messageName);
}
inline uint64_t hint_offset(uint64_t hint) { return hint & 0xFFFF; }
inline const CanField* hint_field(uint64_t hint) {
    return reinterpret_cast<const CanField*>(static_cast<uintptr_t>(hint >> 16));
}

// Whether the field found for these strings may be remembered.
inline bool hint_usable(const CanField* f, const char* messageName, const char* signalName) {
    return reinterpret_cast<uintptr_t>(f) >> 48 == 0 && wide_load_ok(messageName) && wide_load_ok(signalName);
}

struct Hints {
    std::array<uint64_t, (size_t{1} << kHintBits)> field;  // hint_of(...), or kNoHint
    std::array<uint64_t*, (size_t{1} << kHintBits)> raw;   // the field's sig->rawValue
};

inline Hints empty_hints() {
    Hints h;
    h.field.fill(kNoHint);
    h.raw.fill(nullptr);
    return h;
}

// The signal a message without signals offers first: its name matches no C string.
CanField* no_field();

// The conversion parameters of a signal as the codec tables hold them.
Scale scale_of(const DBC_SIGNAL& s);

// Truncating conversions with the out-of-range cases defined: NaN gives 0, values
// beyond the range saturate, and a negative value converted to unsigned wraps to
// two's complement.
inline __attribute__((always_inline)) int64_t to_i64(double x) {
    if (x > -9223372036854775808.0 && x < 9223372036854775808.0) return static_cast<int64_t>(x);
    if (std::isnan(x)) return 0;
    if (x >= 9223372036854775808.0) return INT64_MAX;
    if (x < -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(x);
}

inline __attribute__((always_inline)) uint64_t to_u64(double x) {
    if (x >= 0 && x < 9223372036854775808.0) return static_cast<uint64_t>(static_cast<int64_t>(x));
    if (std::isnan(x)) return 0;
    if (x >= 18446744073709551616.0) return UINT64_MAX;
    if (x >= 0) return static_cast<uint64_t>(x);
    return static_cast<uint64_t>(to_i64(x));
}

inline uint32_t float_bits(double v) {
    float f;
    if (std::isfinite(v) && std::fabs(v) > FLT_MAX) {
        // Round to nearest: only values from FLT_MAX + half an ulp on become infinite.
        bool inf = std::fabs(v) >= static_cast<double>(FLT_MAX) + std::ldexp(1.0, 103);
        f = inf ? HUGE_VALF : FLT_MAX;
        if (v < 0) f = -f;
    } else {
        f = static_cast<float>(v);
    }
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

inline uint64_t double_bits(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

// The raw value for a physical value: clamped to [minimum, maximum] when `clamp`,
// then scaled and rounded (integers) or taken bit for bit (signed float / double).
// Returns false when the value type stores nothing.
inline __attribute__((always_inline)) bool physical_to_raw(const Scale& c, double value, bool clamp,
                                                           uint64_t& raw) {
    if (clamp) {
        if (value > c.maximum) value = c.maximum;
        if (value < c.minimum) value = c.minimum;
    }
    if (c.kind == Scale::Integer) {
        const double x = c.inverse != 0 ? (value - c.offset) * c.inverse : (value - c.offset) / c.factor;
        // Nearest integer, halves away from zero (the conversion below truncates).
        const double r = x + std::copysign(0.49999999999999994, x);
        // Unsigned signals keep the whole value; signed ones are cut to their length
        // (rawMask). Within +-2^63 both conversions are the plain truncation.
        if (std::fabs(r) < 9223372036854775808.0)
            raw = static_cast<uint64_t>(static_cast<int64_t>(r)) & c.rawMask;
        else
            raw = (c.isSigned != 1 ? to_u64(r) : static_cast<uint64_t>(to_i64(r))) & c.rawMask;
        return true;
    }
    if (c.kind == Scale::Single) {
        raw = float_bits(value);
        return true;
    }
    if (c.kind == Scale::Double) {
        raw = double_bits(value);
        return true;
    }
    return false;
}

}  // namespace dbc_detail
