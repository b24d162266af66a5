// SPI bit strings: packing, the clamp at 163,840 bits, and unpacking.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "serial/bit_string.h"

using namespace polybus;

TEST(SpiBits, PackingIsMostSignificantBitFirstWithZeroPadding) {
    struct Case {
        const char* text;
        std::vector<uint8_t> bytes;
    } cases[] = {
        {"", {}},
        {"1", {0x80}},
        {"0000000", {0x00}},
        {"10000000", {0x80}},
        {"100000001", {0x80, 0x80}},
        {"1011001110", {0xB3, 0x80}},
        {"1111111111111111", {0xFF, 0xFF}},
    };
    for (const auto& c : cases) {
        const size_t bits = bits_to_send(c.text);
        std::vector<uint8_t> out(bit_bytes(bits) + 1, 0xEE);
        ASSERT_TRUE(pack_bits(c.text, bits, out.data())) << c.text;
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + long(bit_bytes(bits))), c.bytes) << c.text;
        EXPECT_EQ(out.back(), 0xEE) << "nothing written past the packed bytes";
    }
}

TEST(SpiBits, OnlyZeroAndOneAreAccepted) {
    uint8_t out[4];
    for (const char* bad : {"2", "10 1", "1a", "0/"}) EXPECT_FALSE(pack_bits(bad, std::strlen(bad), out)) << bad;
    // The test is (c & 0xFE) == '0': exactly '0' and '1' pass.
    for (int c = 1; c < 256; ++c) {
        char s[2] = {char(c), 0};
        EXPECT_EQ(pack_bits(s, 1, out), c == '0' || c == '1') << c;
    }
}

TEST(SpiBits, LongStringsAreClampedToWhatTheAdapterTakes) {
    EXPECT_EQ(bits_to_send(std::string(163840, '1').c_str()), 163840u);
    EXPECT_EQ(bits_to_send(std::string(163839, '1').c_str()), 163839u);
    EXPECT_EQ(bits_to_send(std::string(163841, '1').c_str()), 163840u) << "one bit into byte 20,481";
    EXPECT_EQ(bits_to_send(std::string(200000, '0').c_str()), kMaxBits);
    // Characters past the clamp are not looked at.
    std::string s(200000, '1');
    s[170000] = 'x';
    std::vector<uint8_t> out(bit_bytes(kMaxBits));
    EXPECT_TRUE(pack_bits(s.c_str(), bits_to_send(s.c_str()), out.data()));
}

TEST(SpiBits, UnpackingStopsAtTheRequestedCountOrTheBytesThatCame) {
    const uint8_t bytes[] = {0xB3, 0x8F};
    char text[32];
    EXPECT_EQ(unpack_bits(bytes, 2, 12, text), 12u);
    EXPECT_STREQ(text, "101100111000");
    EXPECT_EQ(unpack_bits(bytes, 1, 12, text), 8u) << "one byte came";
    EXPECT_STREQ(text, "10110011");
    EXPECT_EQ(unpack_bits(bytes, 2, 0, text), 0u);
    EXPECT_STREQ(text, "");
}
