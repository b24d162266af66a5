#include "device/crc16.h"

namespace {
// MSB-first table: entry i is the CRC of the byte i shifted through the register.
struct CrcTable {
    uint16_t v[256];
};

const CrcTable& crc_table() {
    static const CrcTable table = [] {
        CrcTable t{};
        for (int i = 0; i < 256; ++i) {
            uint16_t c = static_cast<uint16_t>(i << 8);
            for (int b = 0; b < 8; ++b) c = static_cast<uint16_t>(c & 0x8000 ? (c << 1) ^ 0x1021 : c << 1);
            t.v[i] = c;
        }
        return t;
    }();
    return table;
}
}  // namespace

uint16_t crc16_ccitt(const uint8_t* data, int len) {
    if (data == nullptr) return 0;
    const uint16_t* table = crc_table().v;
    uint16_t crc = 0;
    for (int i = 0; i < len; ++i) crc = static_cast<uint16_t>((crc << 8) ^ table[((crc >> 8) ^ data[i]) & 0xFF]);
    return crc;
}
