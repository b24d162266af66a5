// The simulator's own DBC reader, signal encoder and candump log reader (the CAN nodes
// of world files): bit layouts, scaling and clamping, and refused input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "can_dbc.h"

namespace {

using polybus_sim::DbcFile;
using polybus_sim::DbcSignal;
using polybus_sim::LoggedFrame;

DbcSignal signal(unsigned start, unsigned length, bool intel, bool is_signed = false, double factor = 1,
                 double offset = 0) {
    DbcSignal s;
    s.start = start;
    s.length = length;
    s.intel = intel;
    s.is_signed = is_signed;
    s.factor = factor;
    s.offset = offset;
    return s;
}

TEST(SimDbc, SignalsLandOnTheirBitsInBothByteOrders) {
    struct Case {
        DbcSignal s;
        uint64_t raw;
        uint8_t expected[8];
    } cases[] = {
        {signal(0, 16, true), 0x1234, {0x34, 0x12}},
        {signal(7, 16, false), 0x1234, {0x12, 0x34}},                // Motorola: MSB at bit 7
        {signal(23, 4, false), 0x3, {0, 0, 0x30}},                   // high nibble of byte 2
        {signal(19, 1, false), 0x1, {0, 0, 0x08}},
        {signal(4, 8, true), 0xAB, {0xB0, 0x0A}},                     // Intel across a byte edge
        {signal(3, 8, false), 0xAB, {0x0A, 0xB0}},                    // Motorola across a byte edge
        {signal(15, 12, false), 0xABC, {0, 0xAB, 0xC0}},
        {signal(0, 64, true), 0x0123456789ABCDEFull, {0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01}},
        {signal(7, 64, false), 0x0123456789ABCDEFull, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}},
    };
    for (auto& c : cases) {
        uint8_t data[8] = {};
        polybus_sim::dbc_put(data, 8, c.s, c.raw);
        EXPECT_EQ(0, std::memcmp(data, c.expected, 8)) << "start " << c.s.start << " length " << c.s.length;
        // Writing clears the signal's bits first and leaves the others alone.
        uint8_t full[8];
        std::memset(full, 0xFF, 8);
        polybus_sim::dbc_put(full, 8, c.s, 0);
        polybus_sim::dbc_put(full, 8, c.s, c.raw);
        EXPECT_DOUBLE_EQ(polybus_sim::dbc_get(full, 8, c.s), double(c.raw));
        int other_bits = 0;
        for (int i = 0; i < 8; ++i) other_bits += __builtin_popcount(full[i] ^ 0xFF);
        EXPECT_EQ(other_bits, int(c.s.length) - __builtin_popcountll(c.raw)) << "start " << c.s.start;
    }
}

TEST(SimDbc, PhysicalValuesAreScaledRoundedAndClamped) {
    const DbcSignal temp = signal(16, 8, true, false, 1, -40);
    EXPECT_EQ(polybus_sim::dbc_raw(temp, 90), 130u);
    EXPECT_EQ(polybus_sim::dbc_raw(temp, -100), 0u);   // below range: lowest raw
    EXPECT_EQ(polybus_sim::dbc_raw(temp, 1000), 255u);  // above: highest
    const DbcSignal speed = signal(0, 16, true, false, 0.25);
    EXPECT_EQ(polybus_sim::dbc_raw(speed, 1500.1), 6000u);
    EXPECT_EQ(polybus_sim::dbc_raw(speed, 1500.2), 6001u);  // rounded to the nearest step
    const DbcSignal outside = signal(31, 8, false, true, 0.5);
    EXPECT_EQ(polybus_sim::dbc_raw(outside, -7.5), 0xF1u);  // two's complement in 8 bits
    EXPECT_EQ(polybus_sim::dbc_raw(outside, -1000), 0x80u);
    EXPECT_EQ(polybus_sim::dbc_raw(outside, 1000), 0x7Fu);
    uint8_t data[8] = {};
    polybus_sim::dbc_put(data, 8, outside, polybus_sim::dbc_raw(outside, -7.5));
    EXPECT_DOUBLE_EQ(polybus_sim::dbc_get(data, 8, outside), -7.5);
    EXPECT_EQ(polybus_sim::dbc_raw(signal(0, 64, true), 1e30), ~uint64_t{0});
    EXPECT_EQ(polybus_sim::dbc_raw(signal(0, 8, true), std::nan("")), 0u);
}

TEST(SimDbc, ReadsMessagesSignalsAndCycleTimes) {
    DbcFile dbc;
    int line = 0;
    std::string error;
    ASSERT_TRUE(polybus_sim::parse_dbc(R"(VERSION ""
BU_: A B
BO_ 256 Engine: 8 A
 SG_ Speed : 0|16@1+ (0.25,0) [0|16383.75] "rpm" B
 SG_ Mux M : 63|2@0+ (1,0) [0|3] "" B
 SG_ Page2 m2 : 16|8@1- (1,0) [-128|127] "" B
BO_ 2566844672 Fuel: 8 A
BO_ 4096 Long: 12 A
BO_ 512 Quiet: 1 A
BA_DEF_ BO_ "GenMsgCycleTime" INT 0 10000;
BA_DEF_DEF_ "GenMsgCycleTime" 250;
BA_ "GenMsgCycleTime" BO_ 256 20;
BA_ "GenMsgCycleTime" BO_ 512 0;
)",
                                       dbc, line, error))
        << line << ": " << error;
    ASSERT_EQ(dbc.messages.size(), 4u);
    const auto* engine = dbc.message("Engine");
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->id, 256u);
    EXPECT_FALSE(engine->extended);
    EXPECT_EQ(dbc.cycle_ms(*engine), 20);
    ASSERT_EQ(engine->signals.size(), 3u);
    EXPECT_EQ(engine->signals[1].mux, DbcSignal::Mux::Switch);
    EXPECT_EQ(engine->signals[2].mux, DbcSignal::Mux::Multiplexed);
    EXPECT_EQ(engine->signals[2].mux_value, 2u);
    EXPECT_TRUE(engine->signals[2].is_signed);
    EXPECT_DOUBLE_EQ(engine->signals[0].factor, 0.25);
    const auto* fuel = dbc.message("Fuel");
    EXPECT_TRUE(fuel->extended);
    EXPECT_EQ(fuel->id, 0x18FEF100u);
    EXPECT_EQ(dbc.cycle_ms(*fuel), 250);  // the default
    EXPECT_TRUE(dbc.message("Long")->extended);  // above 0x7FF without bit 31
    EXPECT_EQ(dbc.message("Long")->length, 12u);
    EXPECT_EQ(dbc.cycle_ms(*dbc.message("Quiet")), 0);

    struct Bad {
        const char* text;
        int line;
        const char* expected;
    } bad[] = {
        {" SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n", 1, "SG_ line before any BO_ line"},
        {"BO_ 1 A: 8 X\n SG_ S : 0|8@1+ (0,0) [0|1] \"\" X\n", 2, "bad factor"},
        {"BO_ 1 A: 8 X\n SG_ S : 0|8@1* (1,0) [0|1] \"\" X\n", 2, "malformed SG_ line"},
        {"BO_ 1 A: 8 X\n SG_ S : 60|8@1+ (1,0) [0|1] \"\" X\n", 2, "does not fit"},
        {"BO_ 1 A: 1 X\n SG_ S : 0|2@0+ (1,0) [0|1] \"\" X\n", 2, "does not fit"},  // Motorola runs off the end
        {"BO_ 1 A: 8 X\n SG_ S : 0|0@1+ (1,0) [0|1] \"\" X\n", 2, "1 to 64 bits"},
        {"VERSION \"\"\n\nBO_ x A: 8 X\n", 3, "malformed BO_ line"},
        {"BO_ 1 A: 65 X\n", 1, "longer than 64 bytes"},
    };
    for (auto& b : bad) {
        DbcFile out;
        EXPECT_FALSE(polybus_sim::parse_dbc(b.text, out, line, error)) << b.text;
        EXPECT_EQ(line, b.line) << b.text;
        EXPECT_NE(error.find(b.expected), std::string::npos) << b.text << ": " << error;
    }
    EXPECT_FALSE(polybus_sim::read_dbc("/nonexistent/x.dbc", dbc, line, error));
    EXPECT_EQ(line, 0);
}

TEST(SimCandump, ReadsEveryFrameShape) {
    std::vector<LoggedFrame> frames;
    int line = 0;
    std::string error;
    ASSERT_TRUE(polybus_sim::parse_candump("(1436509052.249713) can0 123#DEADBEEF\n"
                                           "\n"
                                           "(1436509052.250000) can1 18FF0110#00112233\r\n"
                                           "(1436509052.250100) can0 1F0##3" "00112233445566778899AABB\n"
                                           "(1436509052.250200) can0 1A0#R\n"
                                           "(1436509052.250300) can0 1A0#R5\n"
                                           "(1436509052.250400) can0 20000080#0000000000000000\n"
                                           "(1436509052.250500) can0 7FF#11.22\n",
                                           frames, line, error))
        << line << ": " << error;
    ASSERT_EQ(frames.size(), 6u);  // the error frame is skipped
    EXPECT_EQ(frames[0].time_us, 1436509052249713ll);
    EXPECT_EQ(frames[0].interface, "can0");
    EXPECT_EQ(frames[0].frame.id, 0x123u);
    EXPECT_FALSE(frames[0].frame.extended);
    EXPECT_EQ(frames[0].frame.len, 4);
    EXPECT_EQ(frames[0].frame.data[3], 0xEF);
    EXPECT_TRUE(frames[1].frame.extended);
    EXPECT_EQ(frames[1].frame.id, 0x18FF0110u);
    EXPECT_EQ(frames[1].interface, "can1");
    EXPECT_TRUE(frames[2].frame.fd);
    EXPECT_TRUE(frames[2].frame.brs);
    EXPECT_TRUE(frames[2].frame.esi);
    EXPECT_EQ(frames[2].frame.len, 12);
    EXPECT_EQ(frames[2].frame.data[11], 0xBB);
    EXPECT_TRUE(frames[3].frame.remote);
    EXPECT_EQ(frames[3].frame.len, 0);
    EXPECT_EQ(frames[4].frame.len, 5);
    EXPECT_EQ(frames[5].frame.len, 2);
    EXPECT_EQ(frames[5].frame.data[1], 0x22);

    struct Bad {
        const char* line;
        const char* expected;
    } bad[] = {
        {"1436509052.249713 can0 123#00", "in parentheses"},
        {"(1436509052.2497) can0 123#00", "six digits"},
        {"(1436509052.249713) can0", "expected"},
        {"(1436509052.249713) can0 123-00", "ID#DATA"},
        {"(1436509052.249713) can0 12345#00", "3 (11-bit) or 8 (29-bit)"},
        {"(1436509052.249713) can0 800#00", "above 0x7FF"},
        {"(1436509052.249713) can0 123#001", "whole bytes"},
        {"(1436509052.249713) can0 123#001122334455667788", "0 to 8 bytes"},
        {"(1436509052.249713) can0 123##1001122334455667788", "0-8, 12, 16"},
        {"(1436509052.249713) can0 123#R9", "remote length"},
        {"(1436509052.249713) can0 123#ZZ", "hex"},
    };
    for (auto& b : bad) {
        std::vector<LoggedFrame> out;
        const std::string text = std::string("(1.000000) can0 123#00\n") + b.line + "\n";
        EXPECT_FALSE(polybus_sim::parse_candump(text, out, line, error)) << b.line;
        EXPECT_EQ(line, 2) << b.line;
        EXPECT_NE(error.find(b.expected), std::string::npos) << b.line << ": " << error;
    }
}

}  // namespace
