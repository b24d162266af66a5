// The pure ISO 15765-2 pieces of the UDS calls: bytes per frame, PCI bytes written and
// read back, and the reading of the separation time.
#include <gtest/gtest.h>

#include <vector>

#include "diag/isotp_frames.h"

using namespace polybus::isotp;

namespace {

using Bytes = std::vector<uint8_t>;

TEST(IsoTpSizes, TableForEveryFrameLengthAndAddressing) {
    struct Row {
        uint8_t len;
        bool ext;
        Capacity want;
    } rows[] = {
        {8, false, {7, 6, 6, 7}},    {8, true, {6, 5, 5, 6}},    {12, false, {10, 10, 6, 11}},
        {9, true, {6, 6, 2, 7}},     {64, false, {62, 62, 58, 63}}, {64, true, {61, 61, 57, 62}},
    };
    for (const Row& r : rows) {
        const Capacity c = capacity(r.len, r.ext);
        EXPECT_EQ(c.single, r.want.single) << int(r.len) << " " << r.ext;
        EXPECT_EQ(c.first, r.want.first) << int(r.len) << " " << r.ext;
        EXPECT_EQ(c.first_escaped, r.want.first_escaped) << int(r.len) << " " << r.ext;
        EXPECT_EQ(c.consecutive, r.want.consecutive) << int(r.len) << " " << r.ext;
    }
    // Frame lengths outside 8..64 are taken as 8.
    for (int len : {0, 1, 7, 65, 255}) EXPECT_EQ(corrected_frame_len(uint8_t(len)), 8) << len;
    for (int len : {8, 9, 48, 64}) EXPECT_EQ(corrected_frame_len(uint8_t(len)), len);
}

TEST(IsoTpPci, WrittenAndReadBack) {
    uint8_t b[8] = {};
    // Single frames: one byte with frames of 8, two above.
    ASSERT_EQ(single_pci(b, 8, 7), 1u);
    EXPECT_EQ(b[0], 0x07);
    ASSERT_EQ(single_pci(b, 64, 62), 2u);
    EXPECT_EQ(Bytes(b, b + 2), (Bytes{0x00, 62}));
    Pci p = read_pci(b, 2);
    EXPECT_EQ(p.kind, Kind::Single);
    EXPECT_TRUE(p.long_form);
    EXPECT_EQ(p.length, 62u);
    EXPECT_EQ(p.header, 2u);
    // First frames: 12 bits up to 4095, escaped from 4096 on.
    ASSERT_EQ(first_pci(b, 4095), 2u);
    EXPECT_EQ(Bytes(b, b + 2), (Bytes{0x1F, 0xFF}));
    p = read_pci(b, 8);
    EXPECT_EQ(p.kind, Kind::First);
    EXPECT_EQ(p.length, 4095u);
    EXPECT_FALSE(p.long_form);
    ASSERT_EQ(first_pci(b, 4096), 6u);
    EXPECT_EQ(Bytes(b, b + 6), (Bytes{0x10, 0x00, 0x00, 0x00, 0x10, 0x00}));
    p = read_pci(b, 8);
    EXPECT_EQ(p.length, 4096u);
    EXPECT_EQ(p.header, 6u);
    EXPECT_TRUE(p.complete);
    ASSERT_EQ(first_pci(b, 0x12345678), 6u);
    EXPECT_EQ(read_pci(b, 6).length, 0x12345678u);
    EXPECT_FALSE(read_pci(b, 4).complete) << "the escaped length needs its 4 bytes";
    // Consecutive frames count modulo 16.
    EXPECT_EQ(consecutive_pci(1), 0x21);
    EXPECT_EQ(consecutive_pci(15), 0x2F);
    EXPECT_EQ(consecutive_pci(16), 0x20);
    const uint8_t cf = 0x2A;
    p = read_pci(&cf, 1);
    EXPECT_EQ(p.kind, Kind::Consecutive);
    EXPECT_EQ(p.sequence, 0x0A);
    // Flow control, and the types above 3.
    const uint8_t fc[] = {0x31, 0x08, 0xF2};
    p = read_pci(fc, 3);
    EXPECT_EQ(p.kind, Kind::FlowControl);
    EXPECT_EQ(p.flow_status, 1);
    EXPECT_EQ(p.block_size, 8);
    EXPECT_EQ(p.st_min, 0xF2);
    for (uint8_t type : {0x40, 0x7F, 0xF0}) EXPECT_EQ(read_pci(&type, 1).kind, Kind::Invalid) << int(type);
    EXPECT_FALSE(read_pci(fc, 0).complete);
}

TEST(IsoTpSeparationTime, SignedReading) {
    EXPECT_EQ(separation_pause_ms(0x00), 0);
    EXPECT_EQ(separation_pause_ms(0x01), 1);
    EXPECT_EQ(separation_pause_ms(0x05), 5);
    EXPECT_EQ(separation_pause_ms(0x7F), 127);
    // 0x80 and above read as negative: no pause, sub-millisecond codes included.
    for (int st = 0x80; st <= 0xFF; ++st) EXPECT_EQ(separation_pause_ms(uint8_t(st)), 0) << st;
}

}  // namespace
