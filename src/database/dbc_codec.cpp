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

// Nearest integer, halves away from zero; the caller's conversion truncates.
double round_half_away(double x) {
    return x < 0 ? x - 0.49999999999999994 : x + 0.49999999999999994;
}

// Truncating conversions with the out-of-range cases defined: NaN gives 0, values
// beyond the range saturate, and a negative value converted to unsigned wraps to
// two's complement.
int64_t to_i64(double x) {
    if (std::isnan(x)) return 0;
    if (x >= 9223372036854775808.0) return INT64_MAX;
    if (x < -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(x);
}

uint64_t to_u64(double x) {
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

bool DBC_Decoder::setSignalRealValue(DBC_SIGNAL& signal, double value) {
    if (value > signal.maximum) value = signal.maximum;
    if (value < signal.minimum) value = signal.minimum;
    const uint64_t mask = GetDataMask(signal.length & 0xFFu);
    if (signal.isSigned == 0) {
        signal.rawValue = to_u64(round_half_away((value - signal.offset) / signal.factor));
        return true;
    }
    switch (signal.valueType) {
        case 0:
            signal.rawValue =
                static_cast<uint64_t>(to_i64(round_half_away((value - signal.offset) / signal.factor))) & mask;
            break;
        case 1: signal.rawValue = float_bits(value); break;
        case 2: signal.rawValue = double_bits(value); break;
        default: break;
    }
    return true;
}

uint64_t DBC_Decoder::getSignalRawValue(const DBC_SIGNAL& signal, double value) {
    const uint64_t mask = GetDataMask(signal.length & 0xFFu);
    if (signal.isSigned == 0) return to_u64(round_half_away((value - signal.offset) / signal.factor)) & mask;
    switch (signal.valueType) {
        case 0:
            return static_cast<uint64_t>(to_i64(round_half_away((value - signal.offset) / signal.factor))) & mask;
        case 1: return float_bits(value) & mask;
        case 2: return double_bits(value) & mask;
        default: return 0;
    }
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
    codecs_.assign(messages.size(), dbc_detail::MessageCodec{});
    for (size_t m = 0; m < messages.size(); ++m) {
        DBC_MESSAGE& msg = messages[m];
        dbc_detail::MessageCodec& c = codecs_[m];
        c.first = static_cast<uint32_t>(fields_.size());
        c.count = static_cast<uint32_t>(msg.signals.size());
        for (size_t i = 0; i < msg.signals.size(); ++i) {
            DBC_SIGNAL& sig = msg.signals[i];
            if (c.switchIndex < 0 && sig.multiplexKind == 2) c.switchIndex = static_cast<int32_t>(i);
            dbc_detail::CanField f{};
            f.sig = &sig;
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
            fields_.push_back(f);
        }
    }
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

int DBC_Decoder::setSignalValue(const char* messageName, const char* signalName, double value) {
    if (codecs_.size() != messages.size()) reindex();
    const int m = findMessage(messageName);
    const int s = findSignal(m, signalName);
    if (s < 0) return -5;
    DBC_MESSAGE& msg = messages[static_cast<size_t>(m)];
    DBC_SIGNAL& sig = msg.signals[static_cast<size_t>(s)];
    setSignalRealValue(sig, value);
    if (sig.multiplexKind == 1) {
        const int sw = codecs_[static_cast<size_t>(m)].switchIndex;
        if (sw >= 0) msg.signals[static_cast<size_t>(sw)].rawValue = sig.multiplexValue & 0xFFFFu;
    }
    return 0;
}

int DBC_Decoder::syncCANMsgToValue(const CAN_MSG* frames, int count) {
    if (frames == nullptr || count < 1) return 0;
    if (codecs_.size() != messages.size()) reindex();
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
    if (codecs_.size() != messages.size()) reindex();
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
    if (codecs_.size() != messages.size()) reindex();
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
    if (codecs_.size() != messages.size()) reindex();
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
