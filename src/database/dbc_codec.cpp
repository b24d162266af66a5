// Signal codec: physical value <-> raw value <-> frame bits.
//
// Bit position p is bit p % 8 of byte p / 8. Intel fields run upwards from their
// least significant bit; Motorola fields run upwards within a byte and then on to
// bit 0 of the previous byte, ending at bit 7 of byte 0 at the latest. Seen on the
// byte-swapped 64-bit word of a classic frame, a Motorola field is therefore a run of
// consecutive bits, just as an Intel field is on the little-endian word; the CAN
// paths below use that to move each field with one shift and mask. The byte-wise
// readField / writeField are the reference the word paths must agree with.
#include <cstring>

#include "database/dbc_decoder.h"

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

}  // namespace

dbc_detail::Scale dbc_detail::scale_of(const DBC_SIGNAL& s) {
    dbc_detail::Scale c;
    c.minimum = s.minimum;
    c.maximum = s.maximum;
    c.offset = s.offset;
    c.factor = s.factor;
    c.inverse = exact_inverse(s.factor);
    c.mask = DBC_Decoder::GetDataMask(s.length & 0xFFu);
    c.isSigned = s.isSigned;
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

bool DBC_Decoder::setSignalRealValue(DBC_SIGNAL& signal, double value) {
    uint64_t raw;
    if (dbc_detail::physical_to_raw(dbc_detail::scale_of(signal), value, true, raw)) signal.rawValue = raw;
    return true;
}

uint64_t DBC_Decoder::getSignalRawValue(const DBC_SIGNAL& signal, double value) {
    const dbc_detail::Scale c = dbc_detail::scale_of(signal);
    uint64_t raw;
    if (!dbc_detail::physical_to_raw(c, value, false, raw)) return 0;
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
