// DBC signal codec: bit placement, physical <-> raw conversion, and the word-wide
// frame paths checked against the bit-by-bit rules.
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "dbc_test_util.h"

namespace {

DBC_SIGNAL make_signal(uint16_t startBit, uint16_t length, ByteOrder order, bool isSigned = false,
                       double factor = 1, double offset = 0, double minimum = -1e300, double maximum = 1e300) {
    DBC_SIGNAL s;
    s.name = "S";
    s.startBit = startBit;
    s.length = length;
    s.byteOrder = order;
    s.isSigned = isSigned ? 1 : 0;
    s.factor = factor;
    s.offset = offset;
    s.minimum = minimum;
    s.maximum = maximum;
    return s;
}

// --- bit placement -------------------------------------------------------------

TEST(DbcCodecBits, MotorolaAndIntelFieldsAndTheBitsAroundThem) {
    uint8_t data[64] = {};
    DBC_Decoder::rawValueToArray(0x1234, 8, 16, data, Motorola);
    EXPECT_EQ(data[0], 0x12);
    EXPECT_EQ(data[1], 0x34);
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(8, 16, data, Motorola), 0x1234u);
    std::memset(data, 0, sizeof data);
    DBC_Decoder::rawValueToArray(0xAB, 4, 8, data, Intel);
    EXPECT_EQ(data[0], 0xB0);
    EXPECT_EQ(data[1], 0x0A);
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(4, 8, data, Intel), 0xABu);
    // Other bits stay; length 0 writes nothing; a Motorola field ends at bit 7 of byte 0.
    std::memset(data, 0xFF, sizeof data);
    DBC_Decoder::rawValueToArray(0, 3, 10, data, Intel);
    DBC_Decoder::rawValueToArray(0, 5, 0, data, Intel);
    EXPECT_EQ(data[0], 0x07);
    EXPECT_EQ(data[1], 0xE0);
    std::memset(data, 0, sizeof data);
    DBC_Decoder::rawValueToArray(0xFF, 4, 8, data, Motorola);
    EXPECT_EQ(data[0], 0xF0);
    EXPECT_EQ(data[1], 0);
    uint8_t byte = 0x0F;
    DBC_Decoder::changeBitOfByte(&byte, 7, 3);  // only bit 0 of the value counts
    DBC_Decoder::changeBitOfByte(&byte, 0, 2);
    EXPECT_EQ(byte, 0x8E);
}

TEST(DbcCodecBits, ReadingGathersOnlyTheBytesTheFieldNeeds) {
    uint8_t data[64];
    for (int i = 0; i < 64; ++i) data[i] = static_cast<uint8_t>(0x11 * (i % 15 + 1));
    // Intel from byte 62: byte 63 is added, never anything past it; from bit 504 on
    // nothing further is looked at.
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(500, 16, data, Intel), (((uint64_t)data[63] << 8 | data[62]) >> 4) & 0xFFFF);
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(506, 16, data, Intel), (uint64_t)data[63] >> 2);
    // A Motorola field starting in byte 0 has no earlier byte to take.
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(2, 16, data, Motorola), (uint64_t)data[0] >> 2);
    // 64 bits from bit 4: the accumulator holds 8 bytes, the ninth is lost.
    uint64_t le = 0;
    for (int i = 7; i >= 0; --i) le = le << 8 | data[i];
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(4, 64, data, Intel), le >> 4);
    EXPECT_EQ(DBC_Decoder::arrayValueToRaw(600, 8, data, Intel), 0u);
    EXPECT_EQ(DBC_Decoder::GetDataMask(0), 0u);
    EXPECT_EQ(DBC_Decoder::GetDataMask(12), 0xFFFu);
    EXPECT_EQ(DBC_Decoder::GetDataMask(64), ~0ull);
    EXPECT_EQ(DBC_Decoder::GetDataMask(200), ~0ull);
}

// --- physical values -----------------------------------------------------------

TEST(DbcCodecPhysical, ClampingThenRoundingHalvesAwayFromZero) {
    DBC_SIGNAL s = make_signal(0, 8, Intel, false, 1, 0, 0, 100);
    DBC_Decoder::setSignalRealValue(s, 2.5);
    EXPECT_EQ(s.rawValue, 3u);
    DBC_Decoder::setSignalRealValue(s, 2.4999999);
    EXPECT_EQ(s.rawValue, 2u);
    DBC_Decoder::setSignalRealValue(s, 1000);
    EXPECT_EQ(s.rawValue, 100u);
    DBC_Decoder::setSignalRealValue(s, -7);
    EXPECT_EQ(s.rawValue, 0u);
    // A [0|0] range clamps every value to 0.
    DBC_SIGNAL zero = make_signal(0, 8, Intel, false, 1, 0, 0, 0);
    DBC_Decoder::setSignalRealValue(zero, 55);
    EXPECT_EQ(zero.rawValue, 0u);
    // Scale and offset: raw = (value - offset) / factor.
    DBC_SIGNAL scaled = make_signal(0, 12, Intel, false, 0.01, 250, 229.52, 270.47);
    DBC_Decoder::setSignalRealValue(scaled, 260.006);
    EXPECT_EQ(scaled.rawValue, 1001u);
    EXPECT_NEAR(DBC_Decoder::getSignalRealValue(scaled), 260.01, 1e-9);
}

TEST(DbcCodecPhysical, SignedIntegersAreMaskedToTheirLength) {
    DBC_SIGNAL s = make_signal(0, 8, Intel, true);
    DBC_Decoder::setSignalRealValue(s, -2.5);
    EXPECT_EQ(s.rawValue, 0xFDu);  // -3 & 0xFF
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(s), -3);
    s.rawValue = 0xFF;
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(s), -1);
    s.factor = 0.5;
    s.offset = 10;
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(s), 9.5);
    DBC_SIGNAL u = make_signal(0, 8, Intel, false, 0.5, 10);
    u.rawValue = 0xFF;
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(u), 255 * 0.5 + 10);
    DBC_SIGNAL wide = make_signal(0, 64, Intel, true);
    wide.rawValue = ~0ull;
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(wide), -1);
    DBC_Decoder::setSignalRealValue(wide, -9.0e18);
    EXPECT_EQ(static_cast<int64_t>(wide.rawValue), -9000000000000000000ll);
}

TEST(DbcCodecPhysical, UnsignedValuesAreStoredUnmaskedAndMaskedWhenRead) {
    DBC_SIGNAL s = make_signal(0, 4, Intel);
    DBC_Decoder::setSignalRealValue(s, 20);
    EXPECT_EQ(s.rawValue, 20u);  // not cut to 4 bits when stored
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(s), 4);  // 20 & 0xF
    EXPECT_EQ(s.rawValue, 4u);  // reading cuts the stored value
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(s, 20), 4u);
    // A negative raw value of an unsigned signal wraps to two's complement.
    DBC_Decoder::setSignalRealValue(s, -3);
    EXPECT_EQ(s.rawValue, static_cast<uint64_t>(-3));
}

TEST(DbcCodecPhysical, FloatAndDoubleOnlyForSignedSignals) {
    DBC_SIGNAL f = make_signal(0, 32, Intel, true, 2, 100);
    f.valueType = 1;
    DBC_Decoder::setSignalRealValue(f, 1.5);
    EXPECT_EQ(f.rawValue, 0x3FC00000u);  // IEEE single of 1.5, no scaling
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(f), 1.5);
    DBC_SIGNAL d = make_signal(0, 64, Intel, true, 2, 100);
    d.valueType = 2;
    DBC_Decoder::setSignalRealValue(d, -0.25);
    EXPECT_EQ(d.rawValue, 0xBFD0000000000000u);
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(d), -0.25);
    // Declared unsigned: scaled as an integer although SIG_VALTYPE_ said float.
    DBC_SIGNAL u = make_signal(0, 32, Intel, false, 2, 100);
    u.valueType = 1;
    DBC_Decoder::setSignalRealValue(u, 104);
    EXPECT_EQ(u.rawValue, 2u);
    u.rawValue = 0x3FC00000u;
    EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(u), 0x3FC00000 * 2.0 + 100);
    // Any other value type of a signed signal stores nothing and reads 0.
    DBC_SIGNAL other = make_signal(0, 8, Intel, true, 1, 5);
    other.valueType = 3;
    other.rawValue = 9;
    DBC_Decoder::setSignalRealValue(other, 1);
    EXPECT_EQ(other.rawValue, 9u);
    EXPECT_EQ(DBC_Decoder::getSignalRealValue(other), 0);
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(other, 1), 0u);
}

TEST(DbcCodecPhysical, RawValueWithoutClampingIsMasked) {
    DBC_SIGNAL s = make_signal(0, 8, Intel, false, 1, 0, 0, 10);
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(s, 300), 300u & 0xFF);
    DBC_SIGNAL f = make_signal(0, 16, Intel, true, 1, 0, 0, 0);
    f.valueType = 1;
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(f, 1.5), 0x3FC00000u & 0xFFFF);
    EXPECT_EQ(s.rawValue, 0u);  // nothing stored
}

TEST(DbcCodecPhysical, NonFiniteAndHugeValuesConvertWithoutTrouble) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    DBC_SIGNAL s = make_signal(0, 64, Intel);
    DBC_Decoder::setSignalRealValue(s, nan);  // NaN passes the clamps
    EXPECT_EQ(s.rawValue, 0u);
    DBC_Decoder::setSignalRealValue(s, 1e30);
    EXPECT_EQ(s.rawValue, UINT64_MAX);
    DBC_Decoder::setSignalRealValue(s, 1.8446744073709550e19);
    EXPECT_EQ(s.rawValue, 18446744073709549568u);
    DBC_SIGNAL z = make_signal(0, 8, Intel, false, 0);  // factor 0
    DBC_Decoder::setSignalRealValue(z, 5);
    EXPECT_EQ(z.rawValue, UINT64_MAX);
    DBC_SIGNAL sg = make_signal(0, 64, Intel, true);
    DBC_Decoder::setSignalRealValue(sg, -1e300);
    EXPECT_EQ(sg.rawValue, 0x8000000000000000u);
    DBC_SIGNAL f = make_signal(0, 32, Intel, true);
    f.valueType = 1;
    DBC_Decoder::setSignalRealValue(f, 1e300);
    EXPECT_EQ(f.rawValue, 0x7F800000u);  // +infinity as a single
}

// --- frames through the exported functions, against the bit-by-bit rules ----------

// The bit-by-bit rules, written out once more for comparison.
void reference_write(uint64_t raw, const DBC_SIGNAL& s, uint8_t* data, size_t size) {
    const uint32_t length = s.length & 0xFF;
    size_t p = s.startBit;
    for (uint32_t i = 0; i < length; ++i) {
        const unsigned bit = i < 64 ? (raw >> i) & 1 : 0;
        if (p < size * 8) data[p / 8] = static_cast<uint8_t>((data[p / 8] & ~(1u << (p % 8))) | (bit << (p % 8)));
        if (s.byteOrder == Motorola) {
            if (p == 7) break;
            p = p % 8 != 7 ? p + 1 : p - 15;
        } else {
            ++p;
        }
    }
}

uint64_t reference_read(const DBC_SIGNAL& s, const uint8_t* data, size_t size) {
    const uint32_t length = s.length & 0xFF;
    const size_t b = s.startBit / 8;
    const unsigned sh = s.startBit % 8;
    auto at = [&](size_t i) -> uint64_t { return i < size ? data[i] : 0; };
    uint64_t acc = at(b);
    unsigned have = 8 - sh;
    for (size_t k = 1; have < length && k < 8; ++k, have += 8) {
        if (s.byteOrder == Motorola) {
            if (s.startBit <= 7 || k > b) break;
            acc |= at(b - k) << (8 * k);
        } else {
            if (s.startBit >= 504 || b + k > 63) break;
            acc |= at(b + k) << (8 * k);
        }
    }
    return (acc >> sh) & DBC_Decoder::GetDataMask(length);
}

class DbcCodecFrames : public ::testing::Test {
protected:
    static constexpr uint32_t kDevice = 0x53C0DEC0;
    dbc_test::FakeDevice device_{kDevice};

    uint64_t load(const std::string& text) {
        dbc_test::TempFile f(text);
        return DBC_ParserFile(static_cast<int>(kDevice), f.c_str());
    }
    static DBC_Decoder& db_of(uint64_t h) { return *reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(h)); }
};

TEST_F(DbcCodecFrames, RandomLayoutsMatchTheBitRules) {
    std::mt19937_64 rng(20240611);
    std::string text;
    const int kMessages = 300;
    for (int m = 0; m < kMessages; ++m) {
        text += "BO_ " + std::to_string(m) + " M" + std::to_string(m) + ": 8 N\n";
        const int count = 1 + static_cast<int>(rng() % 6);
        for (int k = 0; k < count; ++k) {
            // Mostly fields inside the frame; some past byte 7 and some longer than 64.
            const unsigned start = static_cast<unsigned>(rng() % (rng() % 8 == 0 ? 600 : 64));
            const unsigned len = static_cast<unsigned>(rng() % 8 == 0 ? rng() % 90 : 1 + rng() % 20);
            const char order = rng() % 2 ? '1' : '0';
            text += " SG_ S" + std::to_string(k) + " : " + std::to_string(start) + "|" + std::to_string(len) + "@" +
                    order + "+ (1,0) [0|0] \"\" N\n";
        }
    }
    const uint64_t h = load(text);
    ASSERT_NE(h, 0u);
    DBC_Decoder& db = db_of(h);
    ASSERT_EQ(db.messages.size(), static_cast<size_t>(kMessages));
    for (int round = 0; round < 20; ++round) {
        for (DBC_MESSAGE& msg : db.messages) {
            // Building.
            for (DBC_SIGNAL& s : msg.signals) s.rawValue = rng();
            CAN_MSG can;
            std::memset(&can, 0xA5, sizeof can);
            ASSERT_EQ(DBC_SyncValueToCANMsg(h, msg.name.c_str(), &can), 0);
            uint8_t expect[8] = {};
            for (const DBC_SIGNAL& s : msg.signals) reference_write(s.rawValue, s, expect, 8);
            ASSERT_EQ(std::memcmp(can.Data, expect, 8), 0) << msg.name;
            EXPECT_EQ(can.TimeStamp, 0xA5A5A5A5u);
            EXPECT_EQ(can.TimeStampHigh, 0xA5);
            CANFD_MSG fd;
            std::memset(&fd, 0x5A, sizeof fd);
            ASSERT_EQ(DBC_SyncValueToCANFDMsg(h, msg.name.c_str(), &fd), 0);
            uint8_t expect_fd[64] = {};
            for (const DBC_SIGNAL& s : msg.signals) reference_write(s.rawValue, s, expect_fd, 64);
            ASSERT_EQ(std::memcmp(fd.Data, expect_fd, 64), 0) << msg.name;
            // Decoding.
            CAN_MSG in{};
            in.ID = msg.id;
            for (uint8_t& b : in.Data) b = static_cast<uint8_t>(rng());
            ASSERT_EQ(DBC_SyncCANMsgToValue(h, &in, 1), 0);
            for (const DBC_SIGNAL& s : msg.signals)
                ASSERT_EQ(s.rawValue, reference_read(s, in.Data, 8)) << msg.name << " " << s.name;
            CANFD_MSG in_fd{};
            in_fd.ID = msg.id;
            for (uint8_t& b : in_fd.Data) b = static_cast<uint8_t>(rng());
            ASSERT_EQ(DBC_SyncCANFDMsgToValue(h, &in_fd, 1), 0);
            for (const DBC_SIGNAL& s : msg.signals)
                ASSERT_EQ(s.rawValue, reference_read(s, in_fd.Data, 64)) << msg.name << " " << s.name;
        }
    }
}

TEST_F(DbcCodecFrames, FieldsPastTheFrameTouchNothingOutside) {
    const uint64_t h = load(
        "BO_ 1 Far: 8 N\n"
        " SG_ Intel : 100|16@1+ (1,0) [0|65535] \"\" N\n"
        " SG_ Moto : 600|16@0+ (1,0) [0|65535] \"\" N\n"
        " SG_ Edge : 60|16@1+ (1,0) [0|65535] \"\" N\n");
    ASSERT_NE(h, 0u);
    ASSERT_EQ(DBC_SetSignalValue(h, "Far", "Intel", 0xFFFF), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "Far", "Moto", 0xFFFF), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "Far", "Edge", 0xFFFF), 0);
    CAN_MSG frames[3];
    std::memset(frames, 0xEE, sizeof frames);
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Far", &frames[1]), 0);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(frames);
    for (size_t i = 0; i < sizeof(CAN_MSG); ++i) EXPECT_EQ(bytes[i], 0xEE) << i;
    for (size_t i = 2 * sizeof(CAN_MSG); i < sizeof frames; ++i) EXPECT_EQ(bytes[i], 0xEE) << i;
    EXPECT_EQ(frames[1].Data[7], 0xF0);  // only the 4 bits of Edge inside the frame
    EXPECT_EQ(frames[1].TimeStampHigh, 0xEE);

    frames[1].ID = 1;
    frames[1].ExternFlag = 0;
    std::memset(frames[1].Data, 0xFF, 8);
    ASSERT_EQ(DBC_SyncCANMsgToValue(h, &frames[1], 1), 0);
    double v = -1;
    ASSERT_EQ(DBC_GetSignalValue(h, "Far", "Intel", &v), 0);
    EXPECT_EQ(v, 0);
    ASSERT_EQ(DBC_GetSignalValue(h, "Far", "Edge", &v), 0);
    EXPECT_EQ(v, 0xF);
}

TEST_F(DbcCodecFrames, MultiplexedFramesCarryTheSelectedPageOnly) {
    const uint64_t h = load(
        "BO_ 2148676694 Mux: 8 N\n"
        " SG_ Plain : 56|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Page3A m3 : 8|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Page5A m5 : 8|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Page3B m3 : 16|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Selector M : 0|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Page5B m5 : 24|8@1+ (1,0) [0|255] \"\" N\n");
    ASSERT_NE(h, 0u);
    ASSERT_EQ(DBC_SetSignalValue(h, "Mux", "Plain", 0x77), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "Mux", "Page5A", 0x55), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "Mux", "Page5B", 0x56), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "Mux", "Page3A", 0x33), 0);  // selects page 3
    ASSERT_EQ(DBC_SetSignalValue(h, "Mux", "Page3B", 0x34), 0);
    double sel = 0;
    ASSERT_EQ(DBC_GetSignalValue(h, "Mux", "Selector", &sel), 0);
    EXPECT_EQ(sel, 3);
    CAN_MSG can{};
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Mux", &can), 0);
    const uint8_t page3[8] = {3, 0x33, 0x34, 0, 0, 0, 0, 0x77};
    EXPECT_EQ(std::memcmp(can.Data, page3, 8), 0);
    EXPECT_EQ(can.ID, 0x00123456u);
    EXPECT_EQ(can.ExternFlag, 1);

    ASSERT_EQ(DBC_SetSignalValue(h, "Mux", "Selector", 5), 0);
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Mux", &can), 0);
    const uint8_t page5[8] = {5, 0x55, 0, 0x56, 0, 0, 0, 0x77};
    EXPECT_EQ(std::memcmp(can.Data, page5, 8), 0);

    // Decoding ignores the switch: every signal takes its bits.
    CAN_MSG in{};
    in.ID = 0x123456;
    in.ExternFlag = 1;
    const uint8_t bytes[8] = {3, 0xA1, 0xA2, 0xA3, 0, 0, 0, 0xA7};
    std::memcpy(in.Data, bytes, 8);
    ASSERT_EQ(DBC_SyncCANMsgToValue(h, &in, 1), 0);
    double v = 0;
    DBC_GetSignalValue(h, "Mux", "Page5A", &v);
    EXPECT_EQ(v, 0xA1);
    DBC_GetSignalValue(h, "Mux", "Page5B", &v);
    EXPECT_EQ(v, 0xA3);
}

TEST_F(DbcCodecFrames, PagesAreTheLow16BitsOfTheMultiplexValue) {
    const uint64_t h = load(
        "BO_ 77 Wide: 8 N\n"
        " SG_ Switch M : 0|8@1+ (1,0) [0|70000] \"\" N\n"
        " SG_ Big m65539 : 8|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Small m3 : 16|8@1+ (1,0) [0|255] \"\" N\n");
    ASSERT_NE(h, 0u);
    ASSERT_EQ(DBC_SetSignalValue(h, "Wide", "Small", 0x22), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "Wide", "Big", 0x11), 0);  // selects page 65539 & 0xFFFF
    double sel = 0;
    ASSERT_EQ(DBC_GetSignalValue(h, "Wide", "Switch", &sel), 0);
    EXPECT_EQ(sel, 3);
    CAN_MSG can{};
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Wide", &can), 0);
    const uint8_t both[8] = {3, 0x11, 0x22, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(can.Data, both, 8), 0);
    // The switch's whole raw value is compared: 65539 selects no page, although its
    // low 8 bits in the frame read 3.
    ASSERT_EQ(DBC_SetSignalValue(h, "Wide", "Switch", 65539), 0);
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Wide", &can), 0);
    const uint8_t none[8] = {3, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(can.Data, none, 8), 0);
}

TEST_F(DbcCodecFrames, OverlappingSignalsAreWrittenInFileOrder) {
    const uint64_t h = load(
        "BO_ 9 Over: 8 N\n"
        " SG_ Wide : 0|16@1+ (1,0) [0|65535] \"\" N\n"
        " SG_ Narrow : 4|4@1+ (1,0) [0|15] \"\" N\n"
        " SG_ Moto : 7|8@0+ (1,0) [0|255] \"\" N\n");
    ASSERT_NE(h, 0u);
    DBC_SetSignalValue(h, "Over", "Wide", 0xFFFF);
    DBC_SetSignalValue(h, "Over", "Narrow", 0);
    DBC_SetSignalValue(h, "Over", "Moto", 0x81);
    CAN_MSG can{};
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Over", &can), 0);
    EXPECT_EQ(can.Data[0], 0x81);  // Moto, written last, covers byte 0
    EXPECT_EQ(can.Data[1], 0xFF);
}

}  // namespace
