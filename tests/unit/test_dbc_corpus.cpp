// The real DBC files of the corpus: every one loads, and the corners they exercise
// come out as the line rules say.
#include <cmath>
#include <cstring>
#include <string>

#include "dbc_test_util.h"

namespace {

using namespace dbc_test;
using Bytes = std::vector<uint8_t>;

class DbcCorpus : public ::testing::Test {
protected:
    static constexpr uint32_t kDevice = 0x53C0B005;
    FakeDevice device_{kDevice};

    // Loads through the exported opener; the database stays alive with the process.
    DBC_Decoder* open(const char* name) {
        const std::string path = corpus_file(name);
        if (!file_exists(path)) return nullptr;
        h = DBC_ParserFile(static_cast<int>(kDevice), path.c_str());
        return reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(h));
    }
    uint64_t h = 0;
};

#define OPEN_OR_SKIP(db, name)                                                          \
    DBC_Decoder* db = open(name);                                                       \
    if (db == nullptr) GTEST_SKIP() << "corpus file not found: " << corpus_file(name); \
    ASSERT_NE(h, 0u)

TEST_F(DbcCorpus, EveryFileLoadsWithAllItsMessagesAndSignals) {
    // Counts of the BO_ lines with at least 4 tokens and SG_ lines with at least 7.
    const struct {
        const char* file;
        int messages, signals;
    } files[] = {
        {"abs.dbc", 18, 89},          {"big_numbers.dbc", 2, 2},
        {"choices.dbc", 1, 1},        {"cp1252.dbc", 0, 0},
        {"fd_test.dbc", 4, 4},        {"floating_point.dbc", 2, 3},
        {"foobar.dbc", 5, 8},         {"ford_lincoln_base_pt.dbc", 331, 2150},
        {"gm_global_a_high_voltage_management.dbc", 12, 125},
        {"gm_global_a_lowspeed.dbc", 13, 27},
        {"gm_global_a_lowspeed_1818125.dbc", 367, 3210},
        {"j1939.dbc", 2, 2},          {"motohawk.dbc", 1, 3},
        {"multiplex.dbc", 1, 12},     {"multiplex_2.dbc", 4, 19},
        {"signed.dbc", 11, 18},       {"tesla_can.dbc", 44, 572},
        {"vehicle.dbc", 217, 462},    {"vframeformat_int.dbc", 2, 2},
        {"vw_mqb.dbc", 113, 1348},
    };
    int found = 0;
    for (const auto& e : files) {
        DBC_Decoder* db = open(e.file);
        if (db == nullptr) continue;
        ++found;
        ASSERT_NE(h, 0u) << e.file;
        EXPECT_EQ(DBC_GetMsgQuantity(h), e.messages) << e.file;
        int signals = 0;
        for (const DBC_MESSAGE& m : db->messages) signals += static_cast<int>(m.signals.size());
        EXPECT_EQ(signals, e.signals) << e.file;
    }
    if (found == 0) GTEST_SKIP() << "corpus not found under " << POLYBUS_CORPUS_DIR;
}

TEST_F(DbcCorpus, FordFrameFormatsCycleTimesAndValueTables) {
    OPEN_OR_SKIP(db, "ford_lincoln_base_pt.dbc");
    int std_fd = 0, ext_fd = 0, classic = 0, dlc64 = 0, with_cycle = 0;
    for (const DBC_MESSAGE& m : db->messages) {
        (m.isCanFd ? (m.id & 0x80000000u ? ext_fd : std_fd) : classic) += 1;
        dlc64 += m.dlc == 64;
        EXPECT_EQ(m.brs, 0) << m.name;  // the file defines no CANFD_BRS
        for (const DBC_ATTRIBUTE& a : m.attributes) with_cycle += a.name == "GenMsgCycleTime";
    }
    EXPECT_EQ(std_fd, 281);
    EXPECT_EQ(ext_fd, 49);
    EXPECT_EQ(classic, 1);
    EXPECT_EQ(dlc64, 31);
    EXPECT_EQ(with_cycle, 156);
    // The one message without a frame format stays a classic frame.
    ASSERT_NE(message(*db, "INSTRUMENT_PANEL"), nullptr);
    EXPECT_EQ(message(*db, "INSTRUMENT_PANEL")->id, 1082u);
    EXPECT_EQ(message(*db, "INSTRUMENT_PANEL")->isCanFd, 0);
    const CANFD_MSG tire = build_fd(h, "Tire_Pressure_Data_FD1"), ext = build_fd(h, "PARSEDPushPCMtoGWM_ECG");
    EXPECT_EQ(tire.ID, 949u);
    EXPECT_EQ(tire.Flags, 0x04);
    EXPECT_EQ(ext.ID, 2612224016u);
    EXPECT_EQ(ext.Flags, 0x04);
    EXPECT_EQ(message(*db, "DTE_HPCMtoECG")->cycleTime, 1000u);
    ASSERT_EQ(signal(*db, "DTE_HPCMtoECG", "DteAcceptNew_B_Rq")->valueTable.size(), 2u);
    ASSERT_EQ(DBC_SetSignalValue(h, "DTE_HPCMtoECG", "DteAcceptNew_B_Rq", 1), 0);
    EXPECT_EQ(text(h, "DTE_HPCMtoECG", "DteAcceptNew_B_Rq"), "Yes");
}

TEST_F(DbcCorpus, FdTestBitRateSwitchAndIdentifierZero) {
    OPEN_OR_SKIP(db, "fd_test.dbc");
    const struct {
        const char* msg;
        uint32_t id;
        uint8_t flags;
    } frames[] = {{"TestMsg_FDStd", 1, 0x05}, {"TestMsg_FDEx", 0x80000000u, 0x05},  // extended identifier 0
                  {"TestMsg_Ex", 0x80000003u, 0}, {"TestMsg_Std", 2, 0}};
    for (const auto& f : frames) {
        const CANFD_MSG fd = build_fd(h, f.msg);
        EXPECT_EQ(fd.ID, f.id) << f.msg;
        EXPECT_EQ(fd.Flags, f.flags) << f.msg;
    }
    decode(h, 0, 1, {0x80});  // a classic extended frame with identifier 0 finds the message too
    EXPECT_EQ(value(h, "TestMsg_FDEx", "TestSig"), -128);
    (void)db;
}

TEST_F(DbcCorpus, FoobarCrLfLinesAndTheCanFdFrameFormat) {
    OPEN_OR_SKIP(db, "foobar.dbc");
    // In this CR LF file the last ENUM text of VFrameFormat ends the line: it must read
    // "ExtendedCAN_FD" so that index 15 makes CanFd a CAN FD frame.
    const DBC_ATTRIBUTE* vff = nullptr;
    for (const DBC_ATTRIBUTE& a : db->attributeDefinitions)
        if (a.name == "VFrameFormat") vff = &a;
    ASSERT_NE(vff, nullptr);
    ASSERT_EQ(vff->enumValues.size(), 16u);
    EXPECT_EQ(vff->enumValues[15], "ExtendedCAN_FD");
    EXPECT_EQ(vff->value, "ExtendedCAN_FD");
    const DBC_MESSAGE* canfd = message(*db, "CanFd");
    ASSERT_NE(canfd, nullptr);
    EXPECT_EQ(canfd->isCanFd, 1);
    EXPECT_EQ(canfd->id, 0x80012333u);
    EXPECT_EQ(canfd->dlc, 64u);
    EXPECT_EQ(message(*db, "FOOBAR")->id, 780u);
    EXPECT_EQ(message(*db, "Foo")->publisher, "FOO");
    EXPECT_EQ(message(*db, "Foo")->comment, "Foo.");
    EXPECT_EQ(signal(*db, "Foo", "Bar")->comment, "Bar.");
    EXPECT_EQ(message(*db, "Fum")->cycleTime, 1u);
    EXPECT_EQ(signal(*db, "Fum", "Fam")->valueTable.at(1), "Enabled");
    // Two 64-bit unsigned signals in the 64-byte frame.
    CANFD_MSG in{};
    in.ID = 0x80012333u;
    for (int i = 0; i < 16; ++i) in.Data[i] = static_cast<uint8_t>(0x10 + i);
    ASSERT_EQ(DBC_SyncCANFDMsgToValue(h, &in, 1), 0);
    EXPECT_EQ(signal(*db, "CanFd", "Fie")->rawValue, 0x1716151413121110u);
    EXPECT_EQ(signal(*db, "CanFd", "Fas")->rawValue, 0x1F1E1D1C1B1A1918u);
    // Bar is signed with SIG_VALTYPE_ 1: its raw bits read as a single.
    DBC_SIGNAL* bar = signal(*db, "Foo", "Bar");
    EXPECT_EQ(bar->valueType, 1u);
    bar->rawValue = 0x40490FDBu;
    EXPECT_FLOAT_EQ(static_cast<float>(value(h, "Foo", "Bar")), 3.14159274f);
}

TEST_F(DbcCorpus, GmIdentifiersWithoutBit31GetItAndLoseTheirValueTables) {
    OPEN_OR_SKIP(db, "gm_global_a_lowspeed.dbc");
    ASSERT_NE(message(*db, "DriverDoorStatus"), nullptr);
    EXPECT_EQ(message(*db, "DriverDoorStatus")->id, 274923520u | 0x80000000u);
    // The VAL_ lines name 274923520 without bit 31: no exact match, no table.
    for (const DBC_MESSAGE& m : db->messages)
        for (const DBC_SIGNAL& s : m.signals) EXPECT_TRUE(s.valueTable.empty()) << s.name;
    // A 29-bit frame finds the message; DriverDoorOpened (Motorola 0|1) is bit 0.
    decode(h, 274923520, 1, {0x01});
    EXPECT_EQ(value(h, "DriverDoorStatus", "DriverDoorOpened"), 1);
    EXPECT_EQ(text(h, "DriverDoorStatus", "DriverDoorOpened"), "1.000000 ");  // no value table, no unit
}

TEST_F(DbcCorpus, VwMultiLineCommentsKeepTheFirstLineAndUtf8Bytes) {
    OPEN_OR_SKIP(db, "vw_mqb.dbc");
    ASSERT_NE(signal(*db, "Kombi_03", "KBI_Reifenumfang_Sekundaer"), nullptr);
    EXPECT_EQ(signal(*db, "Kombi_03", "KBI_Reifenumfang_Sekundaer")->comment,
              "Fahrzeuge mit unterschiedlichen Reifenumf\xc3\xa4ngen Vorderachse / Hinterachse:");
    // ACC_13: 12 signals in 8 bytes, one of them Motorola.
    ASSERT_EQ(DBC_GetMsgSignalQuantity(h, "ACC_13"), 12);
    EXPECT_EQ(signal(*db, "ACC_13", "ACC_ADAPTIVE")->byteOrder, Motorola);
    EXPECT_EQ(signal(*db, "ACC_13", "ACC_ADAPTIVE")->startBit, 62);
    ASSERT_EQ(DBC_SetSignalValue(h, "ACC_13", "ACC_ADAPTIVE", 2), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "ACC_13", "ACC_Regelgeschw", 100.16), 0);  // 313 * 0.32
    const CAN_MSG can = build(h, "ACC_13");
    EXPECT_EQ(can.ID, 679u);
    EXPECT_EQ(can.Data[7] & 0xC0, 0x80);
    EXPECT_EQ(((can.Data[1] >> 4) | (can.Data[2] << 4)) & 0x3FF, 313);
}

TEST_F(DbcCorpus, Cp1252BytesAreKeptAsTheyAre) {
    {
        OPEN_OR_SKIP(db, "choices.dbc");
        const DBC_SIGNAL* foo = signal(*db, "Foo", "Foo");
        ASSERT_NE(foo, nullptr);
        ASSERT_EQ(foo->valueTable.size(), 8u);
        EXPECT_EQ(foo->valueTable.at(1), "#%=*\xe4'");
        EXPECT_EQ(foo->valueTable.at(0), "With space");
        ASSERT_EQ(DBC_SetSignalValue(h, "Foo", "Foo", -5), 0);
        EXPECT_EQ(text(h, "Foo", "Foo"), "A negative value");
    }
    {
        OPEN_OR_SKIP(db, "vehicle.dbc");
        const DBC_SIGNAL* s = signal(*db, "RT_SB_INS_Heading_Gradient_2", "INS_Heading_2");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(s->comment.substr(0, 41), "This is GPS heading in the range 0 - 360\xb0");
    }
    {
        OPEN_OR_SKIP(db, "cp1252.dbc");
        EXPECT_EQ(DBC_GetMsgQuantity(h), 0);
        EXPECT_EQ(db->attributeDefinitions.size(), 1u);
    }
}

TEST_F(DbcCorpus, FloatingPointAndSignedSignals) {
    {
        OPEN_OR_SKIP(db, "floating_point.dbc");
        // Message1.Signal1: signed 64-bit double; Message2: two singles, one with the same name.
        const double pi = 3.141592653589793;
        const float a = -1.5f, b = 1024.25f;
        CAN_MSG can{};
        can.ID = 1024;
        std::memcpy(can.Data, &pi, 8);
        ASSERT_EQ(DBC_SyncCANMsgToValue(h, &can, 1), 0);
        can.ID = 1025;
        std::memcpy(can.Data, &a, 4);
        std::memcpy(can.Data + 4, &b, 4);
        ASSERT_EQ(DBC_SyncCANMsgToValue(h, &can, 1), 0);
        EXPECT_EQ(value(h, "Message1", "Signal1"), pi);
        EXPECT_EQ(value(h, "Message2", "Signal1"), -1.5);
        EXPECT_EQ(value(h, "Message2", "Signal2"), 1024.25);
        // The range [0|0] clamps what is set: a double signal then stores +0.0.
        ASSERT_EQ(DBC_SetSignalValue(h, "Message1", "Signal1", 2.5), 0);
        EXPECT_EQ(data(build(h, "Message1")), Bytes(8, 0));
        (void)db;
    }
    {
        OPEN_OR_SKIP(db, "signed.dbc");
        for (uint32_t id = 0; id < 10; ++id) decode(h, id, 0, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
        const char* const all_ones[][2] = {{"Message64", "s64"}, {"Message64big", "s64big"}, {"Message63", "s63"},
                                           {"Message63big", "s63big"}, {"Message33", "s33"},
                                           {"Message32big", "s32big"}, {"Message32", "s32"}};
        for (const auto& e : all_ones) EXPECT_EQ(value(h, e[0], e[1]), -1) << e[1];
        // Motorola 64 bits from bit 7: the whole frame, byte 0 most significant.
        EXPECT_EQ(signal(*db, "Message64big", "s64big")->startBit, 56);
        decode(h, 3, 0, {0x80, 0, 0, 0, 0, 0, 0, 0x01});
        EXPECT_EQ(value(h, "Message64big", "s64big"), static_cast<double>(INT64_MIN + 1));
        // The minimum of the file, -9.22337203685478E+018, lies below -2^63 once read as
        // a double: clamped to it, the raw value saturates at the most negative one.
        ASSERT_EQ(DBC_SetSignalValue(h, "Message64", "s64", -1e300), 0);
        EXPECT_EQ(signal(*db, "Message64", "s64")->rawValue, 0x8000000000000000u);
        ASSERT_EQ(DBC_SetSignalValue(h, "Message64", "s64", -12345), 0);
        EXPECT_EQ(signal(*db, "Message64", "s64")->rawValue, static_cast<uint64_t>(int64_t{-12345}));
    }
}

TEST_F(DbcCorpus, MultiplexedMessagesBuildTheSelectedPage) {
    {
        OPEN_OR_SKIP(db, "multiplex.dbc");
        DBC_SIGNAL* sel = signal(*db, "Message1", "Multiplexor");
        ASSERT_NE(sel, nullptr);
        EXPECT_EQ(sel->multiplexKind, 2u);
        EXPECT_EQ(sel->startBit, 2);
        EXPECT_EQ(signal(*db, "Message1", "BIT_L")->multiplexValue, 8u);
        // All one-bit signals carry [0|0]; give them raw values directly.
        for (DBC_SIGNAL& s : db->messages[0].signals)
            if (s.multiplexKind == 1) s.rawValue = 1;
        ASSERT_EQ(DBC_SetSignalValue(h, "Message1", "BIT_A", 0), 0);  // selects page 24
        EXPECT_EQ(sel->rawValue, 24u);
        const CAN_MSG can = build(h, "Message1");
        // Page 24: bits 26, 28, 29, 32, 33, 38, 39 (BIT_A was set to 0); switch 24 at bits 2..7.
        EXPECT_EQ(data(can), Bytes({24 << 2, 0, 0, 0x30, 0xC3, 0, 0, 0}));
        EXPECT_EQ(can.ID, 0x00123456u);
        EXPECT_EQ(can.ExternFlag, 1);
        sel->rawValue = 8;
        EXPECT_EQ(data(build(h, "Message1")), Bytes({8 << 2, 0, 0x8C, 0x01, 0, 0, 0, 0}));  // bits 18, 19, 23, 24
    }
    {
        OPEN_OR_SKIP(db, "gm_global_a_high_voltage_management.dbc");
        DBC_SIGNAL* sw = signal(*db, "Battery_Module_1", "Cell_Bank_Number_1");
        DBC_SIGNAL* a2 = signal(*db, "Battery_Module_1", "Voltage_1_2_A");
        ASSERT_TRUE(sw && a2 && signal(*db, "Battery_Module_1", "Voltage_1_3_A"));
        EXPECT_EQ(sw->startBit, 53);
        EXPECT_EQ(a2->startBit, 9);
        a2->rawValue = 0xABC;
        signal(*db, "Battery_Module_1", "Voltage_1_3_A")->rawValue = 0x123;  // another page
        ASSERT_EQ(DBC_SetSignalValue(h, "Battery_Module_1", "Voltage_1_2_B", 0), 0);
        EXPECT_EQ(sw->rawValue, 2u);
        // Voltage_1_2_A: Motorola, most significant bit 4 of byte 0, 12 bits: the low 7
        // bits in bits 1..7 of byte 1, the high 5 in bits 0..4 of byte 0.
        const CAN_MSG can = build(h, "Battery_Module_1");
        EXPECT_EQ(can.Data[0] & 0x1F, 0xABC >> 7);
        EXPECT_EQ(can.Data[1], (0xABC & 0x7F) << 1);
        EXPECT_EQ(can.Data[6], 2 << 5);
    }
}

TEST_F(DbcCorpus, FloatSignalsOnPagesOfTheFirstSwitchInFileOrder) {
    OPEN_OR_SKIP(db, "multiplex_2.dbc");
    // ExtendedTypes lists S9 (m5, single), S10 (m0, single), S0 (m3M) and S11 (M). S0
    // holds both letters, so it is a switch, and being listed first it is the one that
    // setting a page moves and that decides which pages are built; S11 is written as
    // any other signal.
    const DBC_SIGNAL* s0 = signal(*db, "ExtendedTypes", "S0");
    ASSERT_NE(s0, nullptr);
    EXPECT_EQ(s0->multiplexKind, 2u);
    EXPECT_EQ(signal(*db, "ExtendedTypes", "S10")->valueType, 1u);
    ASSERT_EQ(DBC_SetSignalValue(h, "ExtendedTypes", "S11", 4), 0);
    ASSERT_EQ(DBC_SetSignalValue(h, "ExtendedTypes", "S9", 5000), 0);  // clamped to 1235
    EXPECT_EQ(s0->rawValue, 5u);
    ASSERT_EQ(DBC_SetSignalValue(h, "ExtendedTypes", "S10", -2.5), 0);  // no scaling: 0xC0200000
    EXPECT_EQ(s0->rawValue, 0u);
    CAN_MSG can = build(h, "ExtendedTypes");
    const Bytes page0 = {0x04, 0x00, 0x00, 0x00, 0x20, 0xC0, 0x00, 0x00};
    EXPECT_EQ(data(can), page0);
    EXPECT_EQ(can.ID, 2349072126u & 0x1FFFFFFFu);  // J1939PG: an extended identifier
    EXPECT_EQ(can.ExternFlag, 1);
    ASSERT_EQ(DBC_SetSignalValue(h, "ExtendedTypes", "S9", 5000), 0);
    EXPECT_EQ(data(build(h, "ExtendedTypes")), Bytes({0x04, 0x05, 0x00, 0x00, 0x60, 0x9A, 0x44, 0x00}));  // 1235.0f
    // Decoding puts every signal's bits back, the page of S10 not being selected.
    std::copy(page0.begin(), page0.end(), can.Data);
    ASSERT_EQ(DBC_SyncCANMsgToValue(h, &can, 1), 0);
    EXPECT_EQ(value(h, "ExtendedTypes", "S10"), -2.5);
    EXPECT_EQ(value(h, "ExtendedTypes", "S11"), 4);
}

TEST_F(DbcCorpus, MotohawkScaledMotorolaSignals) {
    OPEN_OR_SKIP(db, "motohawk.dbc");
    const DBC_SIGNAL* t = signal(*db, "ExampleMessage", "Temperature");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->startBit, 21);
    EXPECT_EQ(t->receivers, std::vector<std::string>{"PCM1,FOO"});  // one receiver entry
    EXPECT_EQ(signal(*db, "ExampleMessage", "Enable")->receivers[0], "Vector__XXX");
    EXPECT_EQ(message(*db, "ExampleMessage")->comment, "Example message used as template in MotoHawk models.");
    ASSERT_EQ(DBC_SetSignalValue(h, "ExampleMessage", "Temperature", 250.1), 0);  // raw 10
    ASSERT_EQ(DBC_SetSignalValue(h, "ExampleMessage", "AverageRadius", 3.2), 0);  // raw 32
    ASSERT_EQ(DBC_SetSignalValue(h, "ExampleMessage", "Enable", 1), 0);           // [0|0]: 0
    // Temperature bits run 21, 22, 23, then 8..15, then 0; AverageRadius 1..6.
    EXPECT_EQ(data(build(h, "ExampleMessage")), Bytes({0x40, 0x01, 0x40, 0, 0, 0, 0, 0}));
    decode(h, 496, 0, {0x01});  // the sign bit of Temperature
    EXPECT_NEAR(value(h, "ExampleMessage", "Temperature"), -2048 * 0.01 + 250, 1e-9);
    EXPECT_EQ(text(h, "ExampleMessage", "Enable"), "Disabled");
}

TEST_F(DbcCorpus, AttributeValuesFromBigNumbersAndFrameFormatsFromJ1939) {
    {
        OPEN_OR_SKIP(db, "big_numbers.dbc");
        const DBC_ATTRIBUTE* node = nullptr;
        for (const DBC_ATTRIBUTE& a : db->attributeDefinitions)
            if (a.name == "TheNodeAttribute") node = &a;
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->objectType, "BU_");
        EXPECT_DOUBLE_EQ(node->minimum, -9.22337203685478e18);
        EXPECT_DOUBLE_EQ(node->maximum, 1.84467440737096e19);
        const DBC_MESSAGE* m = message(*db, "TheMessage");
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->cycleTime, 1000u);
        ASSERT_EQ(m->attributes.size(), 4u);
        EXPECT_EQ(m->attributes[0].name, "TheFloatAttribute");
        EXPECT_EQ(m->attributes[0].value, "58.7");
        ASSERT_EQ(signal(*db, "TheMessage", "TheSignal")->attributes.size(), 2u);
        EXPECT_EQ(signal(*db, "TheMessage", "TheSignal")->attributes[0].value, "TestString");
        EXPECT_EQ(signal(*db, "TheOtherMessage", "TheSignal")->attributes.size(), 1u);
    }
    {
        OPEN_OR_SKIP(db, "j1939.dbc");
        ASSERT_NE(message(*db, "Message1"), nullptr);
        EXPECT_EQ(message(*db, "Message1")->id, 2503213569u);
        EXPECT_EQ(message(*db, "Message1")->isCanFd, 0);
        EXPECT_EQ(signal(*db, "Message1", "Signal1")->attributes.at(0).name, "SPN");
    }
    {
        OPEN_OR_SKIP(db, "vframeformat_int.dbc");  // VFrameFormat defined as INT is no frame format
        EXPECT_EQ(message(*db, "TestMsg_J1939")->id, 2164195584u);
        EXPECT_EQ(message(*db, "TestMsg_Std")->id, 7u);
    }
}

}  // namespace
