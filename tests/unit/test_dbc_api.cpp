// Exported DBC_ functions: opening, handles, names, values and frame records.
#include <cstring>
#include <string>

#include "dbc_test_util.h"

namespace {

using dbc_test::FakeDevice;
using dbc_test::TempFile;

const char* const kDbc =
    "BO_ 256 Std: 8 Engine\n"
    " SG_ Speed : 0|16@1+ (0.1,0) [0|6553.5] \"km/h\" Dash\n"
    " SG_ Gear : 16|8@1+ (1,0) [0|15] \"\" Dash\n"
    " SG_ Temp : 24|8@1- (1,-40) [-100|100] \"degC\" Dash\n"
    "BO_ 2147483904 Ext: 5 Body\n"
    " SG_ Door : 0|1@1+ (1,0) [0|1] \"\" Dash\n"
    "BO_ 512 Fd: 64 Gateway\n"
    " SG_ Tail : 504|8@1+ (1,0) [0|255] \"\" Dash\n"
    "VAL_ 256 Gear 0 \"Neutral\" 1 \"First gear\" 2 \"Second\";\n"
    "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\","
    "\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"StandardCAN_FD\",\"ExtendedCAN_FD\";\n"
    "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
    "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
    "BA_ \"VFrameFormat\" BO_ 512 14;\n";

class DbcApi : public ::testing::Test {
protected:
    static constexpr uint32_t kDevice = 0x53A9A000;
    FakeDevice device_{kDevice};
    TempFile file_{kDbc};
    uint64_t h_ = DBC_ParserFile(static_cast<int>(kDevice), file_.c_str());
    double value(const char* msg, const char* sig) { return dbc_test::value(h_, msg, sig); }
};

TEST(DbcApiOpen, NeedsAnOpenListedAdapterAndAReadablePath) {
    TempFile f(kDbc);
    EXPECT_EQ(DBC_ParserFile(0x11000001, f.c_str()), 0u);  // not listed
    {
        FakeDevice closed(0x11000002, false);
        EXPECT_EQ(DBC_ParserFile(closed.handle(), f.c_str()), 0u);
    }
    FakeDevice open(0x11000003);
    EXPECT_EQ(DBC_ParserFile(open.handle(), nullptr), 0u);
    EXPECT_EQ(DBC_ParserFile(open.handle(), "/nonexistent/file.dbc"), 0u);
    EXPECT_EQ(DBC_ParserFile(open.handle(), "/tmp"), 0u);
    const uint64_t h = DBC_ParserFile(open.handle(), f.c_str());
    ASSERT_NE(h, 0u);
    EXPECT_EQ(DBC_GetMsgQuantity(h), 3);
    // Every call builds another, independent database.
    const uint64_t h2 = DBC_ParserFile(open.handle(), f.c_str());
    ASSERT_NE(h2, 0u);
    EXPECT_NE(h2, h);
    ASSERT_EQ(DBC_SetSignalValue(h, "Std", "Gear", 3), 0);
    double v = -1;
    ASSERT_EQ(DBC_GetSignalValue(h2, "Std", "Gear", &v), 0);
    EXPECT_EQ(v, 0);
    // An empty file gives an empty database.
    TempFile empty("");
    const uint64_t he = DBC_ParserFile(open.handle(), empty.c_str());
    ASSERT_NE(he, 0u);
    EXPECT_EQ(DBC_GetMsgQuantity(he), 0);
    EXPECT_EQ(DBC_GetMsgSignalQuantity(he, "Std"), -5);
    char name[64];
    EXPECT_EQ(DBC_GetMsgName(he, 0, name), -5);
}

TEST(DbcApiOpen, NullAndForeignHandlesAreRefused) {
    char text[64];
    double v;
    CAN_MSG can{};
    CANFD_MSG fd{};
    int local = 0;
    for (uint64_t bad : {uint64_t{0}, uint64_t{1}, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&local))}) {
        EXPECT_EQ(DBC_GetMsgQuantity(bad), -4);
        EXPECT_EQ(DBC_GetMsgName(bad, 0, text), -4);
        EXPECT_EQ(DBC_GetMsgSignalQuantity(bad, "Std"), -4);
        EXPECT_EQ(DBC_GetMsgSignalName(bad, "Std", 0, text), -4);
        EXPECT_EQ(DBC_SetSignalValue(bad, "Std", "Gear", 1), -4);
        EXPECT_EQ(DBC_GetSignalValue(bad, "Std", "Gear", &v), -4);
        EXPECT_EQ(DBC_GetSignalValueStr(bad, "Std", "Gear", text), -4);
        EXPECT_EQ(DBC_GetMsgPublisher(bad, "Std", text), -4);
        EXPECT_EQ(DBC_SyncCANMsgToValue(bad, &can, 1), -4);
        EXPECT_EQ(DBC_SyncCANFDMsgToValue(bad, &fd, 1), -4);
        EXPECT_EQ(DBC_SyncValueToCANMsg(bad, "Std", &can), -4);
        EXPECT_EQ(DBC_SyncValueToCANFDMsg(bad, "Std", &fd), -4);
    }
}

TEST_F(DbcApi, NamesIndexesPublishersAndMissingOnes) {
    ASSERT_NE(h_, 0u);
    char text[DBC_MAX_VALUE_TEXT_LEN + 1];
    double v = 0;
    ASSERT_EQ(DBC_GetMsgName(h_, 1, text), 0);
    EXPECT_STREQ(text, "Ext");
    EXPECT_EQ(DBC_GetMsgSignalQuantity(h_, "Std"), 3);
    ASSERT_EQ(DBC_GetMsgSignalName(h_, "Std", 2, text), 0);
    EXPECT_STREQ(text, "Temp");
    ASSERT_EQ(DBC_GetMsgPublisher(h_, "Fd", text), 0);
    EXPECT_STREQ(text, "Gateway");
    // Absent: -5. Names must match whole and in case.
    EXPECT_EQ(DBC_GetMsgName(h_, 3, text), -5);
    EXPECT_EQ(DBC_GetMsgName(h_, -1, text), -5);
    EXPECT_EQ(DBC_GetMsgSignalQuantity(h_, "std"), -5);
    EXPECT_EQ(DBC_GetMsgSignalQuantity(h_, nullptr), -5);
    EXPECT_EQ(DBC_GetMsgSignalName(h_, "Std", 3, text), -5);
    EXPECT_EQ(DBC_GetMsgSignalName(h_, "Nope", 0, text), -5);
    EXPECT_EQ(DBC_GetMsgPublisher(h_, "Nope", text), -5);
    EXPECT_EQ(DBC_SetSignalValue(h_, "Std", "Tem", 1), -5);
    EXPECT_EQ(DBC_SetSignalValue(h_, "St", "Temp", 1), -5);
    EXPECT_EQ(DBC_SetSignalValue(h_, "Std", "TempX", 1), -5);
    EXPECT_EQ(DBC_SetSignalValue(h_, "Nope", "Gear", 1), -5);
    EXPECT_EQ(DBC_SetSignalValue(h_, nullptr, "Gear", 1), -5);
    EXPECT_EQ(DBC_SetSignalValue(h_, "Std", nullptr, 1), -5);
    EXPECT_EQ(DBC_GetSignalValue(h_, "Std", "Nope", &v), -5);
    EXPECT_EQ(DBC_GetSignalValueStr(h_, "Ext", "Gear", text), -5);
    // A null output is refused before anything is copied.
    EXPECT_EQ(DBC_GetMsgName(h_, 0, nullptr), -4);
    EXPECT_EQ(DBC_GetMsgSignalName(h_, "Std", 0, nullptr), -4);
    EXPECT_EQ(DBC_GetMsgPublisher(h_, "Std", nullptr), -4);
    EXPECT_EQ(DBC_GetSignalValue(h_, "Std", "Gear", nullptr), -4);
    EXPECT_EQ(DBC_GetSignalValueStr(h_, "Std", "Gear", nullptr), -4);
}

TEST_F(DbcApi, ValuesInAnyOrderAndTheirTexts) {
    ASSERT_NE(h_, 0u);
    // The look-up remembers where it was; jumping around must not confuse it.
    const char* order[] = {"Temp", "Speed", "Temp", "Gear", "Gear", "Speed"};
    for (int i = 0; i < 6; ++i) ASSERT_EQ(DBC_SetSignalValue(h_, "Std", order[i], i + 1), 0);
    ASSERT_EQ(DBC_SetSignalValue(h_, "Ext", "Door", 1), 0);
    EXPECT_EQ(value("Std", "Temp"), 3);
    EXPECT_EQ(value("Std", "Gear"), 5);
    EXPECT_NEAR(value("Std", "Speed"), 6, 1e-9);
    EXPECT_EQ(value("Ext", "Door"), 1);

    ASSERT_EQ(DBC_SetSignalValue(h_, "Std", "Speed", 123.45), 0);
    EXPECT_NEAR(value("Std", "Speed"), 123.5, 1e-9);  // 1234.5 rounds away from zero to 1235
    EXPECT_EQ(dbc_test::text(h_, "Std", "Speed"), "123.500000 km/h");
    ASSERT_EQ(DBC_SetSignalValue(h_, "Std", "Temp", -55), 0);
    EXPECT_EQ(dbc_test::text(h_, "Std", "Temp"), "-55.000000 degC");
    // Value tables: the value truncated to an integer picks the description.
    DBC_SIGNAL* gear = dbc_test::signal(dbc_test::db_of(h_), "Std", "Gear");
    ASSERT_NE(gear, nullptr);
    gear->factor = 0.1;  // let the raw value 19 read as 1.9
    gear->rawValue = 19;
    EXPECT_EQ(dbc_test::text(h_, "Std", "Gear"), "First gear");
    gear->rawValue = 70;
    EXPECT_EQ(dbc_test::text(h_, "Std", "Gear"), "7");
}

TEST_F(DbcApi, FramesCarryIdentifierFlagsLengthAndData) {
    ASSERT_NE(h_, 0u);
    DBC_SetSignalValue(h_, "Std", "Speed", 0x1234 * 0.1);
    DBC_SetSignalValue(h_, "Std", "Gear", 5);
    DBC_SetSignalValue(h_, "Std", "Temp", -40 - 2);
    DBC_SetSignalValue(h_, "Fd", "Tail", 0xA5);
    CAN_MSG can;
    std::memset(&can, 0xCC, sizeof can);
    ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "Std", &can), 0);
    EXPECT_EQ(can.ID, 256u);
    EXPECT_EQ(can.ExternFlag, 0);
    EXPECT_EQ(can.RemoteFlag, 0);
    EXPECT_EQ(can.DataLen, 8);
    EXPECT_EQ(can.TimeStamp, 0xCCCCCCCCu);  // left alone
    const uint8_t expect[8] = {0x34, 0x12, 0x05, 0xFE, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(can.Data, expect, 8), 0);
    ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "Ext", &can), 0);
    EXPECT_EQ(can.ID, 0x100u);
    EXPECT_EQ(can.ExternFlag, 1);
    EXPECT_EQ(can.DataLen, 5);
    EXPECT_EQ(DBC_SyncValueToCANMsg(h_, "Nope", &can), -5);
    EXPECT_EQ(DBC_SyncValueToCANMsg(h_, "Std", nullptr), -4);

    CANFD_MSG fd;
    std::memset(&fd, 0x11, sizeof fd);
    ASSERT_EQ(DBC_SyncValueToCANFDMsg(h_, "Fd", &fd), 0);
    EXPECT_EQ(fd.ID, 512u);
    EXPECT_EQ(fd.DLC, 64);
    EXPECT_EQ(fd.Flags, 0x05);  // FD frame with bit-rate switch
    EXPECT_EQ(fd.TimeStamp, 0x11111111u);
    EXPECT_EQ(fd.Data[63], 0xA5);
    EXPECT_EQ(fd.Data[0], 0);
    ASSERT_EQ(DBC_SyncValueToCANFDMsg(h_, "Ext", &fd), 0);
    EXPECT_EQ(fd.ID, 0x80000100u);  // bit 31 marks the extended identifier
    EXPECT_EQ(fd.Flags, 0);
    EXPECT_EQ(fd.DLC, 5);
    EXPECT_EQ(DBC_SyncValueToCANFDMsg(h_, "Nope", &fd), -5);
    EXPECT_EQ(DBC_SyncValueToCANFDMsg(h_, "Fd", nullptr), -4);
}

TEST_F(DbcApi, DecodingMatchesIdentifiersExactly) {
    ASSERT_NE(h_, 0u);
    CAN_MSG frames[4] = {};
    frames[0].ID = 0x100;  // Std
    frames[0].Data[2] = 0x07;
    frames[1].ID = 0x100;  // extended 0x100: Ext
    frames[1].ExternFlag = 1;
    frames[1].Data[0] = 0x01;
    frames[2].ID = 0x101;  // nothing
    frames[3].ID = 0x100;  // a later frame of the same message wins
    frames[3].Data[2] = 0x09;
    ASSERT_EQ(DBC_SyncCANMsgToValue(h_, frames, 3), 0);
    EXPECT_EQ(value("Std", "Gear"), 7);
    EXPECT_EQ(value("Ext", "Door"), 1);
    ASSERT_EQ(DBC_SyncCANMsgToValue(h_, frames, 4), 0);
    EXPECT_EQ(value("Std", "Gear"), 9);
    // Nothing happens for counts below 1 or a missing array.
    frames[0].Data[2] = 0x0F;
    EXPECT_EQ(DBC_SyncCANMsgToValue(h_, frames, 0), 0);
    EXPECT_EQ(DBC_SyncCANMsgToValue(h_, frames, -3), 0);
    EXPECT_EQ(DBC_SyncCANMsgToValue(h_, nullptr, 5), 0);
    EXPECT_EQ(DBC_SyncCANFDMsgToValue(h_, nullptr, 1), 0);
    EXPECT_EQ(value("Std", "Gear"), 9);

    // CAN FD records: the identifier word, bit 31 included, must match as it is.
    CANFD_MSG in{};
    in.ID = 0x80000100;
    in.Data[0] = 0;
    ASSERT_EQ(DBC_SyncCANFDMsgToValue(h_, &in, 1), 0);
    EXPECT_EQ(value("Ext", "Door"), 0);
    in.ID = 0x100;
    in.Data[0] = 1;
    ASSERT_EQ(DBC_SyncCANFDMsgToValue(h_, &in, 1), 0);
    EXPECT_EQ(value("Ext", "Door"), 0);
}

}  // namespace
