// Signal codec: physical value <-> raw value <-> frame bits.
//
// Bit position p is bit p % 8 of byte p / 8. Intel fields run upwards from their
// least significant bit; Motorola fields run upwards within a byte and then on to
// bit 0 of the previous byte, ending at bit 7 of byte 0 at the latest. Seen on the
// byte-swapped 64-bit word of a classic frame, a Motorola field is therefore a run of
// consecutive bits, just as an Intel field is on the little-endian word; the CAN
// paths below use that to move each field with one shift and mask. The byte-wise
// readField / writeField are the reference the word paths must agree with.
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "database/dbc_decoder.h"

namespace {

uint64_t load_le64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

void store_le64(uint8_t* p, uint64_t v) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    std::memcpy(p, &v, 8);
}

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

int32_t to_i32(double x) {
    if (std::isnan(x)) return 0;
    if (x >= 2147483648.0) return INT32_MAX;
    if (x <= -2147483649.0) return INT32_MIN;
    return static_cast<int32_t>(x);
}

uint32_t float_bits(double v) {
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

uint64_t double_bits(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

uint64_t rotate_left(uint64_t v, uint32_t n) { return (v << n) | (v >> ((64 - n) & 63)); }

// Bits [lo, hi) of a 64-bit word, 0 <= lo <= hi <= 64.
uint64_t range_mask(int lo, int hi) {
    if (hi <= lo) return 0;
    uint64_t upto = hi >= 64 ? ~0ull : ((1ull << hi) - 1);
    return upto & ~((1ull << lo) - 1);
}

}  // namespace

uint64_t DBC_Decoder::GetDataMask(uint32_t bits) {
    if (bits == 0) return 0;
    if (bits >= 64) return ~0ull;
    return (1ull << bits) - 1;
}

void DBC_Decoder::changeBitOfByte(uint8_t* byte, uint8_t bit, uint8_t value) {
    if (byte == nullptr || bit > 7) return;
    if (value & 1)
        *byte = static_cast<uint8_t>(*byte | (1u << bit));
    else
        *byte = static_cast<uint8_t>(*byte & ~(1u << bit));
}

void DBC_Decoder::writeField(uint64_t raw, uint16_t startBit, uint8_t length, uint8_t* data,
                             size_t size, ByteOrder order) {
    if (data == nullptr) return;
    const size_t limit = size * 8;
    size_t p = startBit;
    for (uint32_t i = 0; i < length; ++i) {
        uint8_t bit = i < 64 ? static_cast<uint8_t>((raw >> i) & 1) : 0;
        if (order == Motorola) {
            if (p < limit) changeBitOfByte(&data[p / 8], static_cast<uint8_t>(p % 8), bit);
            if (p == 7) break;  // bit 7 of byte 0: the field cannot go on
            p = (p % 8 != 7) ? p + 1 : p - 15;
        } else {
            p = static_cast<size_t>(startBit) + i;
            if (p < limit) changeBitOfByte(&data[p / 8], static_cast<uint8_t>(p % 8), bit);
        }
    }
}

uint64_t DBC_Decoder::readField(uint16_t startBit, uint8_t length, const uint8_t* data, size_t size,
                                ByteOrder order) {
    if (data == nullptr) return 0;
    const uint64_t mask = GetDataMask(length);
    const size_t b = startBit / 8;
    const unsigned s = startBit % 8;
    auto at = [&](size_t i) -> uint64_t { return i < size ? data[i] : 0; };
    uint64_t acc = at(b);
    unsigned gathered = 8 - s;
    if (order == Motorola) {
        if (gathered < length && startBit > 7) {
            // Earlier bytes are more significant; byte 0 is the last one there is, and
            // a byte that would land past bit 63 of the accumulator is lost.
            for (size_t k = 1; gathered < length && k <= b && k < 8; ++k, gathered += 8)
                acc |= at(b - k) << (8 * k);
        }
    } else {
        if (startBit < 504 && gathered < length) {
            for (size_t k = 1; gathered < length && b + k <= 63 && k < 8; ++k, gathered += 8)
                acc |= at(b + k) << (8 * k);
        }
    }
    return (acc >> s) & mask;
}

void DBC_Decoder::rawValueToArray(uint64_t raw, uint16_t startBit, uint8_t length, uint8_t* data,
                                  ByteOrder order) {
    writeField(raw, startBit, length, data, 64, order);
}

uint64_t DBC_Decoder::arrayValueToRaw(uint16_t startBit, uint8_t length, const uint8_t* data,
                                      ByteOrder order) {
    return readField(startBit, length, data, 64, order);
}

namespace {

// The exact reciprocal of a power of two, or 0. Dividing by 2^k gives exactly the
// same double as multiplying by 2^-k (both round the same real number), which spares
// the slow division for the many signals scaled by 1, 0.5, 0.25 ...
double exact_inverse(double factor) {
    uint64_t bits;
    std::memcpy(&bits, &factor, sizeof bits);
    const uint64_t exponent = (bits >> 52) & 0x7FF;
    if ((bits & 0x000FFFFFFFFFFFFFull) != 0 || exponent < 1 || exponent > 2045) return 0;
    const uint64_t inv_bits = (bits & 0x8000000000000000ull) | ((2046 - exponent) << 52);
    double inv;
    std::memcpy(&inv, &inv_bits, sizeof inv);
    return inv;
}

dbc_detail::Scale scale_of(const DBC_SIGNAL& s) {
    dbc_detail::Scale c;
    c.minimum = s.minimum;
    c.maximum = s.maximum;
    c.offset = s.offset;
    c.factor = s.factor;
    c.inverse = exact_inverse(s.factor);
    c.mask = DBC_Decoder::GetDataMask(s.length & 0xFFu);
    c.isSigned = s.isSigned;
    c.valueType = s.valueType;
    // As when reading, only isSigned 1 makes a signal signed.
    c.rawMask = s.isSigned == 1 ? c.mask : ~0ull;
    if (s.isSigned != 1 || s.valueType == 0)
        c.kind = dbc_detail::Scale::Integer;
    else if (s.valueType == 1)
        c.kind = dbc_detail::Scale::Single;
    else if (s.valueType == 2)
        c.kind = dbc_detail::Scale::Double;
    else
        c.kind = dbc_detail::Scale::None;
    return c;
}

// The raw value for a physical value: clamped to [minimum, maximum] when `clamp`,
// then scaled and rounded (integers) or taken bit for bit (signed float / double).
// Returns false when the value type stores nothing.
inline __attribute__((always_inline)) bool physical_to_raw(const dbc_detail::Scale& c, double value, bool clamp,
                                                           uint64_t& raw) {
    if (clamp) {
        if (value > c.maximum) value = c.maximum;
        if (value < c.minimum) value = c.minimum;
    }
    if (c.kind == dbc_detail::Scale::Integer) {
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
    if (c.kind == dbc_detail::Scale::Single) {
        raw = float_bits(value);
        return true;
    }
    if (c.kind == dbc_detail::Scale::Double) {
        raw = double_bits(value);
        return true;
    }
    return false;
}

}  // namespace

bool DBC_Decoder::setSignalRealValue(DBC_SIGNAL& signal, double value) {
    uint64_t raw;
    if (physical_to_raw(scale_of(signal), value, true, raw)) signal.rawValue = raw;
    return true;
}

uint64_t DBC_Decoder::getSignalRawValue(const DBC_SIGNAL& signal, double value) {
    const dbc_detail::Scale c = scale_of(signal);
    uint64_t raw;
    if (!physical_to_raw(c, value, false, raw)) return 0;
    return raw & c.mask;
}

double DBC_Decoder::getSignalRealValue(DBC_SIGNAL& signal) {
    const uint32_t length = signal.length & 0xFFu;
    const uint64_t mask = GetDataMask(length);
    if (signal.rawValue > mask) signal.rawValue &= mask;
    const uint64_t raw = signal.rawValue;
    if (signal.isSigned == 1) {
        switch (signal.valueType) {
            case 2: {
                double d;
                std::memcpy(&d, &raw, sizeof d);
                return d;
            }
            case 1: {
                uint32_t bits = static_cast<uint32_t>(raw);
                float f;
                std::memcpy(&f, &bits, sizeof f);
                return static_cast<double>(f);
            }
            case 0: {
                const uint32_t top = (length >= 64 ? 64 : length) - 1;
                if (length > 0 && ((raw >> top) & 1)) {
                    int64_t v = static_cast<int64_t>(raw | ~(mask >> 1));
                    return static_cast<double>(v) * signal.factor + signal.offset;
                }
                break;
            }
            default: return 0;
        }
    }
    return static_cast<double>(raw) * signal.factor + signal.offset;
}

// ---------------------------------------------------------------------------------
// Frames

void DBC_Decoder::build_codec() {
    fields_.clear();
    packed_.clear();
    codecs_.assign(messages.size(), dbc_detail::MessageCodec{});
    size_t total = 0;
    for (const DBC_MESSAGE& msg : messages) total += msg.signals.size();
    fields_.reserve(total);
    packed_.reserve(total);
    for (size_t m = 0; m < messages.size(); ++m) {
        DBC_MESSAGE& msg = messages[m];
        dbc_detail::MessageCodec& c = codecs_[m];
        c.name = msg.name.data();
        // A name holding a NUL can never equal a C string; the length rules it out.
        c.nameLen = msg.name.find('\0') == std::string::npos ? static_cast<uint32_t>(msg.name.size()) : UINT32_MAX;
        c.first = static_cast<uint32_t>(fields_.size());
        c.count = static_cast<uint32_t>(msg.signals.size());
        for (size_t i = 0; i < msg.signals.size(); ++i) {
            DBC_SIGNAL& sig = msg.signals[i];
            if (c.switchIndex < 0 && sig.multiplexKind == 2) c.switchIndex = static_cast<int32_t>(i);
            dbc_detail::CanField f{};
            f.sig = &sig;
            f.scale = scale_of(sig);
            f.name = sig.name.data();
            f.nameLen = static_cast<uint32_t>(sig.name.size());
            const int length = sig.length & 0xFF;
            const int sb = sig.startBit;
            const bool motorola = sig.byteOrder == Motorola;
            f.bigEndian = motorola ? 1 : 0;
            // q0: where the field's least significant bit sits in the word (may be
            // below 0 for a Motorola field starting past the frame).
            const int q0 = motorola ? 56 - 8 * (sb / 8) + sb % 8 : sb;
            if (sb < 64) {
                f.mask = GetDataMask(static_cast<uint32_t>(length));
                f.readShift = static_cast<uint8_t>(q0);
            } else if (motorola) {
                f.slowRead = 1;
                c.allWordPath = false;
            }  // an Intel field starting past the frame reads 0: mask stays 0
            const int lo = q0 < 0 ? 0 : q0;
            const int hi = q0 + length > 64 ? 64 : q0 + length;
            f.wordMask = lo < 64 ? range_mask(lo, hi) : 0;
            f.valueMask = ~0ull;
            if (q0 >= 0) {
                f.writeLeft = static_cast<uint8_t>(q0 < 64 ? q0 : 0);
            } else if (-q0 < 64) {
                f.writeRight = static_cast<uint8_t>(-q0);
            } else {
                f.valueMask = 0;  // only raw bits above 63 (zeros) reach the frame
            }
            // Only the first signal of a name may answer a look-up by that name.
            if (findSignal(static_cast<int>(m), std::string_view(sig.name)) != static_cast<int>(i))
                f.nameLen = UINT32_MAX;
            f.insertMask = f.wordMask & f.valueMask;
            f.beSelect = motorola ? ~0ull : 0;
            fields_.push_back(f);
        }
        for (uint32_t i = c.first; i < c.first + c.count; ++i) {
            const DBC_SIGNAL& sig = *fields_[i].sig;
            fields_[i].page =
                sig.multiplexKind == 1 && c.switchIndex >= 0 ? (sig.multiplexValue & 0xFFFFu) : UINT32_MAX;
        }
        if (c.switchIndex < 0) {
            // Disjoint fields of at most 64 bits within +-63 bits of the word can be
            // placed with one rotation: the bits that wrap around fall outside the mask.
            uint64_t seen = 0;
            c.disjoint = true;
            for (uint32_t i = c.first; i < c.first + c.count && c.disjoint; ++i) {
                const dbc_detail::CanField& f = fields_[i];
                const uint64_t bits = f.bigEndian ? __builtin_bswap64(f.wordMask) : f.wordMask;
                if ((seen & bits) != 0 || (f.sig->length & 0xFF) > 64 || f.valueMask == 0) c.disjoint = false;
                seen |= bits;
            }
            if (c.disjoint) {
                c.leFirst = static_cast<uint32_t>(packed_.size());
                for (int pass = 0; pass < 2; ++pass) {
                    if (pass == 1) c.beFirst = static_cast<uint32_t>(packed_.size());
                    for (uint32_t i = c.first; i < c.first + c.count; ++i) {
                        const dbc_detail::CanField& f = fields_[i];
                        if (f.bigEndian != pass || f.insertMask == 0) continue;
                        const uint32_t rotate = (static_cast<uint32_t>(f.writeLeft) - f.writeRight) & 63u;
                        packed_.push_back(dbc_detail::PackedField{f.sig, f.insertMask, rotate});
                    }
                }
                c.leCount = c.beFirst - c.leFirst;
                c.beCount = static_cast<uint32_t>(packed_.size()) - c.beFirst;
            }
        }
    }
    for (dbc_detail::MessageCodec& c : codecs_) c.next = c.fields = fields_.data() + c.first;
    codec_ready_ = true;
}

void DBC_Decoder::decode_can(int message, const CAN_MSG& frame) {
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(message)];
    const dbc_detail::CanField* f = fields_.data() + c.first;
    const uint64_t le = load_le64(frame.Data);
    const uint64_t be = __builtin_bswap64(le);
    if (c.allWordPath) {
        for (uint32_t i = 0; i < c.count; ++i) f[i].sig->rawValue = ((f[i].bigEndian ? be : le) >> f[i].readShift) & f[i].mask;
        return;
    }
    for (uint32_t i = 0; i < c.count; ++i) {
        DBC_SIGNAL* s = f[i].sig;
        if (f[i].slowRead)
            s->rawValue = readField(s->startBit, static_cast<uint8_t>(s->length), frame.Data, 8,
                                    static_cast<ByteOrder>(s->byteOrder));
        else
            s->rawValue = ((f[i].bigEndian ? be : le) >> f[i].readShift) & f[i].mask;
    }
}

void DBC_Decoder::build_can(int message, uint8_t out[8]) {
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(message)];
    const dbc_detail::CanField* f = fields_.data() + c.first;
    if (c.disjoint) {
        const dbc_detail::PackedField* p = packed_.data() + c.leFirst;
        uint64_t le = 0;
        for (uint32_t i = 0; i < c.leCount; ++i) le |= rotate_left(p[i].sig->rawValue, p[i].rotate) & p[i].mask;
        p = packed_.data() + c.beFirst;
        uint64_t be = 0;
        for (uint32_t i = 0; i < c.beCount; ++i) be |= rotate_left(p[i].sig->rawValue, p[i].rotate) & p[i].mask;
        store_le64(out, le | __builtin_bswap64(be));
        return;
    }
    uint64_t w = 0;
    auto put = [&w](const dbc_detail::CanField& x) {
        uint64_t v = ((x.sig->rawValue << x.writeLeft) >> x.writeRight) & x.valueMask & x.wordMask;
        if (x.bigEndian) {
            uint64_t b = __builtin_bswap64(w);
            w = __builtin_bswap64((b & ~x.wordMask) | v);
        } else {
            w = (w & ~x.wordMask) | v;
        }
    };
    if (c.switchIndex < 0) {
        for (uint32_t i = 0; i < c.count; ++i) put(f[i]);
    } else {
        const dbc_detail::CanField& sw = f[c.switchIndex];
        put(sw);
        const uint64_t page = sw.sig->rawValue;
        for (uint32_t i = 0; i < c.count; ++i) {
            const DBC_SIGNAL* s = f[i].sig;
            if (s->multiplexKind != 1 || page == static_cast<uint16_t>(s->multiplexValue)) put(f[i]);
        }
    }
    store_le64(out, w);
}

namespace {

// Whether a C string is the message's name.
inline bool same_message_name(const dbc_detail::MessageCodec& c, const char* s) {
    const size_t n = c.nameLen;
    return std::strlen(s) == n && dbc_detail::same_bytes(c.name, s, n);
}

}  // namespace

// Look-ups by C string once the codec tables are ready: the message of the last
// look-up and the signal after the last one found are tried before the indexes.
inline int DBC_Decoder::cached_message(const char* name) const {
    const size_t n = std::strlen(name);
    const int last = last_message_;
    if (last >= 0) {
        const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(last)];
        if (c.nameLen == n && dbc_detail::same_bytes(c.name, name, n)) return last;
    }
    const int m = findMessage(std::string_view(name, n));
    if (m >= 0) {
        last_message_ = m;
        last_codec_ = const_cast<dbc_detail::MessageCodec*>(&codecs_[static_cast<size_t>(m)]);
    }
    return m;
}

inline int DBC_Decoder::cached_signal(int message, const char* name) const {
    const size_t n = std::strlen(name);
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(message)];
    int s;
    if (c.count != 0 && c.next->nameLen == n && dbc_detail::same_bytes(c.next->name, name, n)) {
        s = static_cast<int>(c.next - c.fields);
    } else {
        s = findSignal(message, std::string_view(name, n));
        if (s < 0) return s;
    }
    c.next = static_cast<uint32_t>(s) + 1 < c.count ? c.fields + s + 1 : c.fields;
    return s;
}

int DBC_Decoder::findMessage(const char* name) const {
    if (name == nullptr) return -1;
    if (codec_ready_) return cached_message(name);
    return findMessage(std::string_view(name));
}

int DBC_Decoder::findSignal(int message, const char* name) const {
    if (name == nullptr || message < 0) return -1;
    if (codec_ready_) return cached_signal(message, name);
    return findSignal(message, std::string_view(name));
}

namespace {

inline __attribute__((always_inline)) void store_physical(const dbc_detail::CanField& f,
                                                          const dbc_detail::MessageCodec& c, double value) {
    uint64_t raw;
    if (physical_to_raw(f.scale, value, true, raw)) f.sig->rawValue = raw;
    // Setting a multiplexed signal selects its page on the message's switch.
    if (f.page != UINT32_MAX) c.fields[c.switchIndex].sig->rawValue = f.page;
}

}  // namespace

// The common case, the same message as last time and the signal after the last one,
// runs without a call besides the two strlen; everything else goes the long way.
// last_codec_ is only ever set while the codec tables are ready.
int DBC_Decoder::setSignalValue(const char* messageName, const char* signalName, double value) {
    dbc_detail::MessageCodec* c = last_codec_;
    if (c != nullptr && messageName != nullptr && signalName != nullptr && c->count != 0 &&
        same_message_name(*c, messageName)) {
        const dbc_detail::CanField& f = *c->next;
        const size_t slen = std::strlen(signalName);
        if (f.nameLen == slen && dbc_detail::same_bytes(f.name, signalName, slen)) {
            c->next = c->next + 1 != c->fields + c->count ? c->next + 1 : c->fields;
            store_physical(f, *c, value);
            return 0;
        }
    }
    return set_signal_value_slow(messageName, signalName, value);
}

int DBC_Decoder::set_signal_value_slow(const char* messageName, const char* signalName, double value) {
    if (!codec_ready_) reindex();
    if (messageName == nullptr || signalName == nullptr) return -5;
    const int m = cached_message(messageName);
    if (m < 0) return -5;
    const int s = cached_signal(m, signalName);
    if (s < 0) return -5;
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(m)];
    store_physical(c.fields[s], c, value);
    return 0;
}

int DBC_Decoder::syncCANMsgToValue(const CAN_MSG* frames, int count) {
    if (frames == nullptr || count < 1) return 0;
    if (!codec_ready_) reindex();
    for (int i = 0; i < count; ++i) {
        const CAN_MSG& frame = frames[i];
        const uint32_t key = frame.ID | (static_cast<uint32_t>(frame.ExternFlag) << 31);
        const int m = findMessageById(key);
        if (m >= 0) decode_can(m, frame);
    }
    return 0;
}

int DBC_Decoder::syncCANFDMsgToValue(const CANFD_MSG* frames, int count) {
    if (frames == nullptr || count < 1) return 0;
    if (!codec_ready_) reindex();
    for (int i = 0; i < count; ++i) {
        const CANFD_MSG& frame = frames[i];
        const int m = findMessageById(frame.ID);
        if (m < 0) continue;
        for (DBC_SIGNAL& s : messages[static_cast<size_t>(m)].signals)
            s.rawValue = readField(s.startBit, static_cast<uint8_t>(s.length), frame.Data, sizeof frame.Data,
                                   static_cast<ByteOrder>(s.byteOrder));
    }
    return 0;
}

int DBC_Decoder::syncValueToCANMsg(const char* messageName, CAN_MSG* frame) {
    if (!codec_ready_) reindex();
    const int m = findMessage(messageName);
    if (m < 0) return -5;
    if (frame == nullptr) return -4;
    const DBC_MESSAGE& msg = messages[static_cast<size_t>(m)];
    build_can(m, frame->Data);
    frame->ID = msg.id & 0x1FFFFFFFu;
    frame->RemoteFlag = 0;
    frame->ExternFlag = static_cast<uint8_t>(msg.id >> 31);
    frame->DataLen = static_cast<uint8_t>(msg.dlc);
    return 0;
}

int DBC_Decoder::syncValueToCANFDMsg(const char* messageName, CANFD_MSG* frame) {
    if (!codec_ready_) reindex();
    const int m = findMessage(messageName);
    if (m < 0) return -5;
    if (frame == nullptr) return -4;
    const DBC_MESSAGE& msg = messages[static_cast<size_t>(m)];
    uint8_t data[64] = {};
    const int sw = codecs_[static_cast<size_t>(m)].switchIndex;
    auto put = [&data](const DBC_SIGNAL& s) {
        writeField(s.rawValue, s.startBit, static_cast<uint8_t>(s.length), data, sizeof data,
                   static_cast<ByteOrder>(s.byteOrder));
    };
    uint64_t page = 0;
    if (sw >= 0) {
        put(msg.signals[static_cast<size_t>(sw)]);
        page = msg.signals[static_cast<size_t>(sw)].rawValue;
    }
    for (const DBC_SIGNAL& s : msg.signals)
        if (sw < 0 || s.multiplexKind != 1 || page == static_cast<uint16_t>(s.multiplexValue)) put(s);
    std::memcpy(frame->Data, data, sizeof data);
    frame->ID = msg.id;
    frame->DLC = static_cast<uint8_t>(msg.dlc);
    frame->Flags = static_cast<uint8_t>((msg.isCanFd ? 0x04 : 0) | (msg.brs ? 0x01 : 0));
    return 0;
}

int DBC_Decoder::getSignalValueStr(const char* messageName, const char* signalName, char* text) {
    const int m = findMessage(messageName);
    const int s = findSignal(m, signalName);
    if (s < 0) return -5;
    if (text == nullptr) return -4;
    DBC_SIGNAL& sig = messages[static_cast<size_t>(m)].signals[static_cast<size_t>(s)];
    const double v = getSignalRealValue(sig);
    if (sig.valueTable.empty()) {
        std::sprintf(text, "%f %s", v, sig.unit.c_str());
        return 0;
    }
    const int32_t k = to_i32(v);
    auto it = sig.valueTable.find(k);
    if (it != sig.valueTable.end())
        std::strcpy(text, it->second.c_str());
    else
        std::sprintf(text, "%d", k);
    return 0;
}
