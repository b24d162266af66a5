// DBC signal codec: bit placement, physical <-> raw conversion, and the word-wide
// frame paths checked against the bit-by-bit rules (which also cover fields reaching
// past the frame, past byte 63 and longer than 64 bits).
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "dbc_test_util.h"

namespace {

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

// --- physical values -----------------------------------------------------------

// A signal's conversion parameters: length, signedness, value type (0 integer, 1
// single, 2 double, other: none), factor, offset and range.
struct Params {
    uint16_t length;
    bool isSigned;
    uint32_t valueType;
    double factor, offset, minimum, maximum;
    DBC_SIGNAL signal() const {
        DBC_SIGNAL s;
        s.byteOrder = Intel;
        s.length = length;
        s.isSigned = isSigned;
        s.valueType = valueType;
        s.factor = factor;
        s.offset = offset;
        s.minimum = minimum;
        s.maximum = maximum;
        return s;
    }
};
constexpr double kBig = 1e300;
const Params kU8{8, false, 0, 1, 0, -kBig, kBig}, kS8{8, true, 0, 1, 0, -kBig, kBig};
const Params kU64{64, false, 0, 1, 0, -kBig, kBig}, kS64{64, true, 0, 1, 0, -kBig, kBig};
const Params kU4{4, false, 0, 1, 0, -kBig, kBig}, kScaled{12, false, 0, 0.01, 250, 229.52, 270.47};
const Params kSingle{32, true, 1, 2, 100, -kBig, kBig}, kDouble{64, true, 2, 2, 100, -kBig, kBig};
const Params kUnsignedSingle{32, false, 1, 2, 100, -kBig, kBig}, kOtherType{8, true, 3, 1, 5, -kBig, kBig};

TEST(DbcCodecPhysical, SettingAValueStoresTheRawValue) {
    const struct {
        Params p;
        double value;
        uint64_t raw;  // rawValue afterwards; it holds 9 before
    } rows[] = {
        // Clamped to the range first, then rounded half away from zero: raw = (value - offset) / factor.
        {{8, false, 0, 1, 0, 0, 100}, 2.5, 3},
        {{8, false, 0, 1, 0, 0, 100}, 2.4999999, 2},
        {{8, false, 0, 1, 0, 0, 100}, 1000, 100},
        {{8, false, 0, 1, 0, 0, 100}, -7, 0},
        {{8, false, 0, 1, 0, 0, 0}, 55, 0},  // [0|0] clamps everything to 0
        {kScaled, 260.006, 1001},
        // Signed integers are masked to their length; unsigned ones are stored unmasked.
        {kS8, -2.5, 0xFD},
        {kS64, -9.0e18, static_cast<uint64_t>(-9000000000000000000ll)},
        {kS64, -kBig, 0x8000000000000000u},
        {kU4, 20, 20},
        {kU4, -3, static_cast<uint64_t>(-3)},
        // IEEE values without scaling, for signed signals only.
        {kSingle, 1.5, 0x3FC00000u},
        {kSingle, kBig, 0x7F800000u},  // +infinity as a single
        {kDouble, -0.25, 0xBFD0000000000000u},
        {kUnsignedSingle, 104, 2},
        {kOtherType, 1, 9},  // stores nothing
        // Non-finite and huge values.
        {kU64, std::numeric_limits<double>::quiet_NaN(), 0},  // NaN passes the clamps
        {kU64, 1e30, UINT64_MAX},
        {kU64, 1.8446744073709550e19, 18446744073709549568u},
        {{8, false, 0, 0, 0, -kBig, kBig}, 5, UINT64_MAX},  // factor 0
    };
    for (const auto& r : rows) {
        DBC_SIGNAL s = r.p.signal();
        s.rawValue = 9;
        DBC_Decoder::setSignalRealValue(s, r.value);
        EXPECT_EQ(s.rawValue, r.raw) << "length " << r.p.length << " type " << r.p.valueType << " value " << r.value;
    }
}

TEST(DbcCodecPhysical, ReadingARawValue) {
    const struct {
        Params p;
        uint64_t raw;
        double value;
        uint64_t rawAfter;  // reading cuts the stored value to the length
    } rows[] = {
        {kS8, 0xFD, -3, 0xFD},
        {kS8, 0xFF, -1, 0xFF},
        {{8, true, 0, 0.5, 10, -kBig, kBig}, 0xFF, 9.5, 0xFF},
        {{8, false, 0, 0.5, 10, -kBig, kBig}, 0xFF, 255 * 0.5 + 10, 0xFF},
        {kS64, ~0ull, -1, ~0ull},
        {kU4, 20, 4, 4},
        {kScaled, 1001, 1001 * 0.01 + 250, 1001},
        {kSingle, 0x3FC00000u, 1.5, 0x3FC00000u},
        {kDouble, 0xBFD0000000000000u, -0.25, 0xBFD0000000000000u},
        {kUnsignedSingle, 0x3FC00000u, 0x3FC00000 * 2.0 + 100, 0x3FC00000u},  // declared unsigned: scaled
        {kOtherType, 9, 0, 9},
    };
    for (const auto& r : rows) {
        DBC_SIGNAL s = r.p.signal();
        s.rawValue = r.raw;
        EXPECT_DOUBLE_EQ(DBC_Decoder::getSignalRealValue(s), r.value) << "raw " << r.raw;
        EXPECT_EQ(s.rawValue, r.rawAfter) << "raw " << r.raw;
    }
    // The raw value of a physical one, without clamping, masked, nothing stored.
    DBC_SIGNAL u = Params{8, false, 0, 1, 0, 0, 10}.signal();
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(u, 300), 300u & 0xFF);
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(kU4.signal(), 20), 4u);
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(Params{16, true, 1, 1, 0, 0, 0}.signal(), 1.5), 0x3FC00000u & 0xFFFF);
    EXPECT_EQ(DBC_Decoder::getSignalRawValue(kOtherType.signal(), 1), 0u);
    EXPECT_EQ(u.rawValue, 0u);
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
    uint64_t h = 0;

    void load(const std::string& text) {
        dbc_test::TempFile f(text);
        h = DBC_ParserFile(static_cast<int>(kDevice), f.c_str());
        ASSERT_NE(h, 0u);
    }
    void set(const char* msg, const char* sig, double v) { ASSERT_EQ(DBC_SetSignalValue(h, msg, sig, v), 0) << sig; }
};

using dbc_test::build;
using dbc_test::data;
using dbc_test::value;
using Bytes = std::vector<uint8_t>;

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
    load(text);
    DBC_Decoder& db = dbc_test::db_of(h);
    ASSERT_EQ(db.messages.size(), static_cast<size_t>(kMessages));
    for (int round = 0; round < 20; ++round) {
        for (DBC_MESSAGE& msg : db.messages) {
            // Building: only the data bytes change.
            for (DBC_SIGNAL& s : msg.signals) s.rawValue = rng();
            CAN_MSG can;
            std::memset(&can, 0xA5, sizeof can);
            ASSERT_EQ(DBC_SyncValueToCANMsg(h, msg.name.c_str(), &can), 0);
            uint8_t expect[64] = {};
            for (const DBC_SIGNAL& s : msg.signals) reference_write(s.rawValue, s, expect, 8);
            ASSERT_EQ(std::memcmp(can.Data, expect, 8), 0) << msg.name;
            EXPECT_EQ(can.TimeStamp, 0xA5A5A5A5u);
            EXPECT_EQ(can.TimeStampHigh, 0xA5);
            CANFD_MSG fd;
            std::memset(&fd, 0x5A, sizeof fd);
            ASSERT_EQ(DBC_SyncValueToCANFDMsg(h, msg.name.c_str(), &fd), 0);
            std::memset(expect, 0, sizeof expect);
            for (const DBC_SIGNAL& s : msg.signals) reference_write(s.rawValue, s, expect, 64);
            ASSERT_EQ(std::memcmp(fd.Data, expect, 64), 0) << msg.name;
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
    load("BO_ 1 Far: 8 N\n"
         " SG_ Intel : 100|16@1+ (1,0) [0|65535] \"\" N\n"
         " SG_ Moto : 600|16@0+ (1,0) [0|65535] \"\" N\n"
         " SG_ Edge : 60|16@1+ (1,0) [0|65535] \"\" N\n");
    for (const char* sig : {"Intel", "Moto", "Edge"}) set("Far", sig, 0xFFFF);
    CAN_MSG frames[3];
    std::memset(frames, 0xEE, sizeof frames);
    ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Far", &frames[1]), 0);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(frames);
    for (size_t i = 0; i < sizeof(CAN_MSG); ++i) EXPECT_EQ(bytes[i], 0xEE) << i;
    for (size_t i = 2 * sizeof(CAN_MSG); i < sizeof frames; ++i) EXPECT_EQ(bytes[i], 0xEE) << i;
    EXPECT_EQ(frames[1].Data[7], 0xF0);  // only the 4 bits of Edge inside the frame
    EXPECT_EQ(frames[1].TimeStampHigh, 0xEE);
    dbc_test::decode(h, 1, 0, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(value(h, "Far", "Intel"), 0);
    EXPECT_EQ(value(h, "Far", "Edge"), 0xF);
}

TEST_F(DbcCodecFrames, MultiplexedFramesCarryTheSelectedPageOnly) {
    load("BO_ 2148676694 Mux: 8 N\n"
         " SG_ Plain : 56|8@1+ (1,0) [0|255] \"\" N\n"
         " SG_ Page3A m3 : 8|8@1+ (1,0) [0|255] \"\" N\n"
         " SG_ Page5A m5 : 8|8@1+ (1,0) [0|255] \"\" N\n"
         " SG_ Page3B m3 : 16|8@1+ (1,0) [0|255] \"\" N\n"
         " SG_ Selector M : 0|8@1+ (1,0) [0|255] \"\" N\n"
         " SG_ Page5B m5 : 24|8@1+ (1,0) [0|255] \"\" N\n"
         "BO_ 77 Wide: 8 N\n"
         " SG_ Switch M : 0|8@1+ (1,0) [0|70000] \"\" N\n"
         " SG_ Big m65539 : 8|8@1+ (1,0) [0|255] \"\" N\n"
         " SG_ Small m3 : 16|8@1+ (1,0) [0|255] \"\" N\n");
    set("Mux", "Plain", 0x77);
    set("Mux", "Page5A", 0x55);
    set("Mux", "Page5B", 0x56);
    set("Mux", "Page3A", 0x33);  // selects page 3
    set("Mux", "Page3B", 0x34);
    EXPECT_EQ(value(h, "Mux", "Selector"), 3);
    const CAN_MSG can = build(h, "Mux");
    EXPECT_EQ(data(can), Bytes({3, 0x33, 0x34, 0, 0, 0, 0, 0x77}));
    EXPECT_EQ(can.ID, 0x00123456u);
    EXPECT_EQ(can.ExternFlag, 1);
    set("Mux", "Selector", 5);
    EXPECT_EQ(data(build(h, "Mux")), Bytes({5, 0x55, 0, 0x56, 0, 0, 0, 0x77}));
    // Decoding ignores the switch: every signal takes its bits.
    dbc_test::decode(h, 0x123456, 1, {3, 0xA1, 0xA2, 0xA3, 0, 0, 0, 0xA7});
    EXPECT_EQ(value(h, "Mux", "Page5A"), 0xA1);
    EXPECT_EQ(value(h, "Mux", "Page5B"), 0xA3);

    // Pages are the low 16 bits of the multiplex value, compared with the switch's whole raw value.
    set("Wide", "Small", 0x22);
    set("Wide", "Big", 0x11);  // selects page 65539 & 0xFFFF
    EXPECT_EQ(value(h, "Wide", "Switch"), 3);
    EXPECT_EQ(data(build(h, "Wide")), Bytes({3, 0x11, 0x22, 0, 0, 0, 0, 0}));
    set("Wide", "Switch", 65539);  // selects no page, although its low 8 bits in the frame read 3
    EXPECT_EQ(data(build(h, "Wide")), Bytes({3, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(DbcCodecFrames, OverlappingSignalsAreWrittenInFileOrder) {
    load("BO_ 9 Over: 8 N\n"
         " SG_ Wide : 0|16@1+ (1,0) [0|65535] \"\" N\n"
         " SG_ Narrow : 4|4@1+ (1,0) [0|15] \"\" N\n"
         " SG_ Moto : 7|8@0+ (1,0) [0|255] \"\" N\n");
    set("Over", "Wide", 0xFFFF);
    set("Over", "Narrow", 0);
    set("Over", "Moto", 0x81);
    EXPECT_EQ(data(build(h, "Over")), Bytes({0x81, 0xFF, 0, 0, 0, 0, 0, 0}));  // Moto, written last, covers byte 0
}

// Frames one per call, as an application hands them on: runs of one identifier,
// the same identifier with the other frame format, unknown identifiers, identifier
// 0, and identifiers changed by editing the records between frames.
TEST_F(DbcCodecFrames, RunsOfOneIdentifierAmongOthers) {
    load("BO_ 256 Std: 8 N\n SG_ A : 0|8@1+ (1,0) [0|255] \"\" N\n"
         "BO_ 2147483904 Ext: 8 N\n SG_ B : 8|8@1+ (1,0) [0|255] \"\" N\n"
         "BO_ 0 Zero: 8 N\n SG_ Z : 56|8@1+ (1,0) [0|255] \"\" N\n");
    dbc_test::decode(h, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0x5A});  // first frame after loading: identifier 0
    EXPECT_EQ(value(h, "Zero", "Z"), 0x5A);
    const struct {
        uint32_t id;
        uint8_t ext;
        uint8_t byte;
    } frames[] = {{0x100, 0, 1}, {0x100, 0, 2}, {0x100, 1, 3}, {0x100, 1, 4}, {0x100, 0, 5},
                  {0x7FF, 0, 6}, {0x7FF, 0, 7}, {0x100, 0, 8}, {0x100, 1, 9}, {0, 0, 10}};
    double a = 0, b = 0, z = 0x5A;
    for (const auto& f : frames) {
        dbc_test::decode(h, f.id, f.ext, {f.byte, f.byte, f.byte, f.byte, f.byte, f.byte, f.byte, f.byte});
        if (f.id == 0x100 && f.ext == 0) a = f.byte;
        if (f.id == 0x100 && f.ext == 1) b = f.byte;
        if (f.id == 0) z = f.byte;
        ASSERT_EQ(value(h, "Std", "A"), a) << int(f.byte);
        ASSERT_EQ(value(h, "Ext", "B"), b) << int(f.byte);
        ASSERT_EQ(value(h, "Zero", "Z"), z) << int(f.byte);
    }
    // The message of the last frame gets another identifier: frames of the old one
    // reach nothing, frames of the new one reach it.
    DBC_Decoder& db = dbc_test::db_of(h);
    dbc_test::decode(h, 0x100, 0, {11});
    DBC_MESSAGE renamed = db.messages[0];
    renamed.id = 0x123;
    ASSERT_TRUE(db.updateMessage("Std", renamed));
    dbc_test::decode(h, 0x100, 0, {12});
    EXPECT_EQ(value(h, "Std", "A"), 11);
    dbc_test::decode(h, 0x123, 0, {13});
    EXPECT_EQ(value(h, "Std", "A"), 13);
    // A database without a message of identifier 0.
    load("BO_ 5 Five: 8 N\n SG_ F : 0|8@1+ (1,0) [0|255] \"\" N\n");
    dbc_test::decode(h, 0, 0, {1});
    dbc_test::decode(h, 5, 0, {2});
    dbc_test::decode(h, 0, 0, {3});
    EXPECT_EQ(value(h, "Five", "F"), 2);
}

}  // namespace
