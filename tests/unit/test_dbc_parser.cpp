// DBC parser: line reading, the handled line types and the attribute post-pass.
#include <string>

#include "dbc_test_util.h"

using dbc_test::message;
using dbc_test::parse;
using dbc_test::signal;

namespace {

TEST(DbcParserMessages, IdentifiersNamesAndDefaults) {
    auto db = parse(
        "BO_ 2047 Max: 6 Motor\n"
        "BO_ 2048 First: 8 ECU\n"
        "BO_ 2147483748 Flagged: 8 ECU\n"
        "BO_ 0x123 A:b: 3\n"
        "BO_ 2 : 8 X\n"  // empty name: not built
        " SG_ S : 8|8@1+ (1,0) [0|255] \"\" X\n");
    ASSERT_EQ(db->messages.size(), 4u);
    const DBC_MESSAGE* m = message(*db, "Max");
    EXPECT_EQ(m->id, 0x7FFu);
    EXPECT_EQ(m->dlc, 6u);
    EXPECT_EQ(m->publisher, "Motor");
    EXPECT_EQ(m->isCanFd + m->brs, 0);
    EXPECT_EQ(m->initFlag, 1);
    EXPECT_EQ(m->cycleTime, 10u);
    EXPECT_EQ(message(*db, "First")->id, 0x80000800u);
    EXPECT_EQ(message(*db, "Flagged")->id, 0x80000064u);  // bit 31 already set: kept
    const DBC_MESSAGE* hex = message(*db, "Ab");  // every ':' removed
    ASSERT_NE(hex, nullptr);
    EXPECT_EQ(hex->id, 0x123u);
    EXPECT_EQ(hex->publisher, "");
    // The signal after the unbuilt message joins the last message that was built.
    ASSERT_EQ(hex->signals.size(), 1u);
}

TEST(DbcParserLines, SemicolonsGoSpacesSeparateAndCarriageReturnsStay) {
    auto db = parse(
        "BO_ 7 Se;mi: 8 Node;\n"
        "\tBO_ 8 Tabbed: 8 Node\n"  // first token "\tBO_"
        "  BO_    10   Spaced:   8   Gateway\r\n"
        " SG_ S : 0|8@1+ (1,0) [0|255] \"\" A,B\r\n"
        "BO_ 11 Last: 8 N");  // no final newline
    ASSERT_EQ(db->messages.size(), 3u);
    EXPECT_EQ(db->messages[0].name, "Semi");
    EXPECT_EQ(db->messages[0].publisher, "Node");
    EXPECT_EQ(db->messages[1].publisher, "Gateway");
    ASSERT_EQ(db->messages[1].signals[0].receivers.size(), 1u);
    EXPECT_EQ(db->messages[1].signals[0].receivers[0], "A,B");
    EXPECT_EQ(db->messages[2].publisher, "N");
}

TEST(DbcParserLines, LongLinesAreCutAfter8191BytesAndNulEndsALine) {
    std::string text(8191, 'x');  // cut here: the message becomes a line of its own
    text += "BO_ 300 Cut: 8 N\n";
    std::string whole = "BO_ 301 Whole: 8 ";  // exactly 8191 bytes: read whole
    whole += std::string(8191 - whole.size() - 1, 'P') + "Q";
    text += whole + "\n";
    std::string three(8191, 'z');  // 2 * 8191 + n bytes: three lines
    three += "BO_ 302 Second: 8 N" + std::string(8191 - 19, ' ') + "BO_ 303 Third: 8 N";
    text += three + "\n";
    text += "BO_ 304 Nul: 8 N";
    text += '\0';
    text += " ignored\nBO_ 305";
    text += '\0';
    text += " Hidden: 8 N\n";
    auto db = parse(text);
    ASSERT_EQ(db->messages.size(), 5u);
    EXPECT_EQ(db->messages[0].name, "Cut");
    EXPECT_EQ(db->messages[1].publisher.size(), 8191u - 17u);
    EXPECT_EQ(db->messages[1].publisher.back(), 'Q');
    EXPECT_EQ(db->messages[2].name, "Second");
    EXPECT_EQ(db->messages[3].name, "Third");
    EXPECT_EQ(db->messages[4].publisher, "N");
}

TEST(DbcParserLines, UnreadableOrUnrecognisedFilesGiveAnEmptyDatabase) {
    EXPECT_TRUE(DBC_Decoder("/nonexistent/dir/x.dbc", "GBK").messages.empty());
    EXPECT_TRUE(DBC_Decoder("/tmp", "GBK").messages.empty());
    auto junk = parse("VERSION \"\"\nNS_ :\nBU_: A B\nVAL_TABLE_ T 1 \"x\";\nBO_TX_BU_ 1 : A;\nBO_ 1\n");
    EXPECT_TRUE(junk->messages.empty());
    EXPECT_TRUE(junk->attributeDefinitions.empty());
}

TEST(DbcParserSignals, FieldsUnitAndReceivers) {
    auto db = parse(
        " SG_ Orphan : 0|8@1+ (1,0) [0|0] \"\" N\n"  // before any BO_
        "BO_ 1 M: 8 N\n"
        " SG_ Temp : 0|12@1- (0.01,-40.5) [-40|125.5] \"deg C\" A,B C\n"
        " SG_ Short : 0|8@1+ (1,0) [0|0]\n"  // 6 tokens
        " SG_ Junk : x|y@1+ (a,b) [c|d] \"\"\n"
        " SG_ Three : 4|8@1+ (1,2,3) [5] \"\" N\n");
    ASSERT_EQ(db->messages[0].signals.size(), 3u);
    const DBC_SIGNAL* s = signal(*db, "M", "Temp");
    EXPECT_EQ(s->byteOrder, Intel);
    EXPECT_EQ(s->length, 12);
    EXPECT_EQ(s->isSigned, 1u);
    EXPECT_DOUBLE_EQ(s->factor, 0.01);
    EXPECT_DOUBLE_EQ(s->offset, -40.5);
    EXPECT_DOUBLE_EQ(s->minimum, -40);
    EXPECT_DOUBLE_EQ(s->maximum, 125.5);
    EXPECT_EQ(s->unit, "deg C");  // rejoined across the space
    EXPECT_EQ(s->receivers, (std::vector<std::string>{"A,B", "C"}));
    // Numbers that do not parse read 0; scale and range need exactly two pieces.
    const DBC_SIGNAL* junk = signal(*db, "M", "Junk");
    EXPECT_EQ(junk->startBit + junk->length, 0);
    EXPECT_EQ(junk->factor, 0);
    EXPECT_TRUE(junk->receivers.empty());
    EXPECT_EQ(signal(*db, "M", "Three")->factor, 0);
    EXPECT_EQ(signal(*db, "M", "Three")->maximum, 0);
}

TEST(DbcParserSignals, MotorolaStartBitAndMultiplexIndicators) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ A : 7|16@0+ (1,0) [0|0] \"\" N\n"
        " SG_ B : 7|8@0+ (1,0) [0|0] \"\" N\n"
        " SG_ C : 15|12@0+ (1,0) [0|0] \"\" N\n"
        " SG_ E : 0|12@1+ (1,0) [0|0] \"\" N\n"
        " SG_ F : 63|64@0+ (1,0) [0|0] \"\" N\n"
        " SG_ G : 5|0@0+ (1,0) [0|0] \"\" N\n"
        " SG_ Mux M : 0|4@1+ (1,0) [0|15] \"\" N\n"
        " SG_ Page3 m3 : 8|8@1+ (2,0) [0|100] \"km\" N\n"
        " SG_ Both m1M : 16|4@1+ (1,0) [0|0] \"\" N\n");
    EXPECT_EQ(signal(*db, "M", "A")->startBit, 8);
    EXPECT_EQ(signal(*db, "M", "B")->startBit, 0);
    EXPECT_EQ(signal(*db, "M", "C")->startBit, 20);
    EXPECT_EQ(signal(*db, "M", "E")->startBit, 0);    // Intel: unchanged
    EXPECT_EQ(signal(*db, "M", "F")->startBit, 112);  // down to 56, then bit 0 of byte 14
    EXPECT_EQ(signal(*db, "M", "G")->startBit, 5);    // length 0 walks nowhere
    // Multiplex indicators are taken out before the bit position field.
    EXPECT_EQ(signal(*db, "M", "Mux")->multiplexKind, 2u);
    const DBC_SIGNAL* p3 = signal(*db, "M", "Page3");
    EXPECT_EQ(p3->multiplexKind, 1u);
    EXPECT_EQ(p3->multiplexValue, 3u);
    EXPECT_EQ(p3->startBit, 8);
    EXPECT_EQ(p3->length, 8);
    EXPECT_EQ(p3->unit, "km");
    EXPECT_EQ(signal(*db, "M", "Both")->multiplexKind, 2u);  // M wins
}

TEST(DbcParserComments, FirstLineOnlyExactIdentifierAndOnlyMessagesAndSignals) {
    auto db = parse(
        "BO_ 2147483649 Ext: 8 N\n"
        " SG_ Speed : 0|8@1+ (1,0) [0|0] \"\" N\n"
        "BO_ 274923520 Gm: 8 N\n"
        "CM_ BO_ 2147483649 \"A   spaced \"\"message\"\" comment\";\n"
        "CM_ SG_ 2147483649 Speed \"first line\n"
        "second line\";\n"
        "CM_ BU_ N \"node comment\";\n"
        "CM_ BO_ 274923520 \"lost: stored with bit 31\";\n");
    EXPECT_EQ(message(*db, "Ext")->comment, "A spaced message comment");
    EXPECT_EQ(signal(*db, "Ext", "Speed")->comment, "first line");
    EXPECT_EQ(message(*db, "Gm")->comment, "");
}

TEST(DbcParserValueTables, PairsTypesAndReplacement) {
    auto db = parse(
        "BO_ 5 M: 8 N\n"
        " SG_ S : 0|32@1- (1,0) [0|0] \"\" N\n"
        " SG_ T : 32|32@1- (1,0) [0|0] \"\" N\n"
        "BO_ 5 Twin: 8 N\n"
        " SG_ S : 0|32@1- (1,0) [0|0] \"\" N\n"
        "VAL_ 5 S 2 \"two  words\" -5 \"minus five\" 0x10 \"sixteen\" 2 \"dup\" ;\r\n"
        "VAL_ 5 T 1 \"old\";\n"
        "VAL_ 5 T 7 \"new\";\n"
        "SIG_VALTYPE_ 5 S : 1;\n"
        "SIG_VALTYPE_ 5 T : 2;\n"
        "SIG_VALTYPE_ 5 T : 3;\n");
    const DBC_SIGNAL* s = signal(*db, "M", "S");
    ASSERT_EQ(s->valueTable.size(), 3u);
    EXPECT_EQ(s->valueTable.at(2), "two  words");  // first entry of a key wins
    EXPECT_EQ(s->valueTable.begin()->second, "minus five");
    EXPECT_EQ(s->valueTable.at(16), "sixteen");
    EXPECT_EQ(signal(*db, "M", "T")->valueTable, (std::map<int32_t, std::string>{{7, "new"}}));
    EXPECT_EQ(signal(*db, "Twin", "S")->valueTable.size(), 0u);  // first message of the id
    // SIG_VALTYPE_ reaches every message with the id; an unknown type means integer.
    EXPECT_EQ(s->valueType, 1u);
    EXPECT_EQ(signal(*db, "Twin", "S")->valueType, 1u);
    EXPECT_EQ(signal(*db, "M", "T")->valueType, 0u);
    auto t = DBC_Decoder::getValueTable(" 1 \"a\" 4294967295 \"wraps\" 3 nope 4 \"d\"");
    EXPECT_EQ(t, (std::map<int32_t, std::string>{{1, "a"}, {-1, "wraps"}}));
}

TEST(DbcParserAttributes, DefinitionsDefaultsAndAssignments) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
        "BA_DEF_ BO_  \"Mode\" ENUM  \"Off\",\"On\",\"Two words\";\n"
        "BA_DEF_ SG_  \"Start\" INT -5 1e3;\n"
        "BA_DEF_ BU_  \"Addr\" HEX 0 255;\n"
        "BA_DEF_  \"Bus\" STRING ;\n"
        "BA_DEF_DEF_  \"Mode\" \"Off\";\n"
        "BA_DEF_DEF_  \"Bus\" \"CAN FD\";\n"
        "BA_ \"Mode\" BO_ 1 1;\n"
        "BA_ \"Start\" SG_ 1 S 42;\n"
        "BA_ \"Addr\" BU_ N 7;\n"
        "BA_ \"Bus\" \"Other\";\n"
        "BA_ \"Unknown\" BO_ 1 3;\n");
    ASSERT_EQ(db->attributeDefinitions.size(), 4u);
    const DBC_ATTRIBUTE& mode = db->attributeDefinitions[0];
    EXPECT_EQ(mode.objectType, "BO_");
    EXPECT_EQ(mode.enumValues, (std::vector<std::string>{"Off", "On", "Two words"}));
    EXPECT_EQ(mode.value, "Off");
    EXPECT_DOUBLE_EQ(db->attributeDefinitions[1].minimum, -5);
    EXPECT_DOUBLE_EQ(db->attributeDefinitions[1].maximum, 1000);
    EXPECT_EQ(db->attributeDefinitions[2].objectType, "BU_");
    EXPECT_EQ(db->attributeDefinitions[3].objectType, "");
    EXPECT_EQ(db->attributeDefinitions[3].value, "CAN FD");  // network values are not kept
    const DBC_MESSAGE* m = message(*db, "M");
    ASSERT_EQ(m->attributes.size(), 1u);  // unknown definitions add nothing
    EXPECT_EQ(m->attributes[0].value, "1");
    EXPECT_EQ(m->attributes[0].enumValues.size(), 3u);  // a copy of the definition
    ASSERT_EQ(signal(*db, "M", "S")->attributes.size(), 1u);
    EXPECT_EQ(signal(*db, "M", "S")->attributes[0].value, "42");
}

const char* const kFrameFormats =
    "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"reserved\",\"J1939PG\","
    "\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"StandardCAN_FD\",\"ExtendedCAN_FD\",\"Other\";\n"
    "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n";

TEST(DbcParserPostPass, FrameFormatsSetTheIdentifierAndFdFlags) {
    auto db = parse(std::string(
                        "BO_ 2147483748 StdFromExt: 8 N\nBO_ 100 ExtFromStd: 8 N\nBO_ 101 J1939: 8 N\n"
                        "BO_ 2147483750 FdStd: 64 N\nBO_ 103 FdExt: 64 N\nBO_ 2147483752 Unknown: 8 N\n"
                        "BO_ 105 OutOfRange: 8 N\n") +
                    kFrameFormats +
                    "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
                    "BA_ \"VFrameFormat\" BO_ 2147483748 0;\nBA_ \"VFrameFormat\" BO_ 100 1;\n"
                    "BA_ \"VFrameFormat\" BO_ 101 3;\nBA_ \"VFrameFormat\" BO_ 2147483750 14;\n"
                    "BA_ \"VFrameFormat\" BO_ 103 15;\nBA_ \"VFrameFormat\" BO_ 2147483752 16;\n"
                    "BA_ \"VFrameFormat\" BO_ 105 17;\n");
    struct {
        const char* name;
        uint32_t id;
        int fd, brs;
    } const expect[] = {{"StdFromExt", 100, 0, 0},        {"ExtFromStd", 0x80000064u, 0, 0},
                        {"J1939", 0x80000065u, 0, 0},     {"FdStd", 102, 1, 1},
                        {"FdExt", 0x80000067u, 1, 1},     {"Unknown", 0x80000068u, 0, 0},
                        {"OutOfRange", 105, 0, 0}};
    for (const auto& e : expect) {
        const DBC_MESSAGE* m = message(*db, e.name);
        EXPECT_EQ(m->id, e.id) << e.name;
        EXPECT_EQ(m->isCanFd, e.fd) << e.name;
        EXPECT_EQ(m->brs, e.brs) << e.name;
    }
    // The post-pass swapped two identifiers; look-ups by id follow.
    EXPECT_EQ(db->findMessageById(100), 0);
    EXPECT_EQ(db->findMessageById(0x80000064u), 1);
}

TEST(DbcParserPostPass, BitRateSwitchOnlyFromTheDefaultAndCycleTimeFromNumbers) {
    auto db = parse(std::string("BO_ 1 Fd: 64 N\nBO_ 2 Float: 8 N\nBO_ 3 None: 8 N\n") + kFrameFormats +
                    "BA_DEF_DEF_ \"CANFD_BRS\" \"0\";\n"
                    "BA_DEF_ BO_ \"GenMsgCycleTime\" FLOAT 0 1000;\n"
                    "BA_ \"CANFD_BRS\" BO_ 1 1;\n"
                    "BA_ \"VFrameFormat\" BO_ 1 14;\n"
                    "BA_ \"GenMsgCycleTime\" BO_ 1 100;\n"
                    "BA_ \"GenMsgCycleTime\" BO_ 2 12.9;\n");
    EXPECT_EQ(message(*db, "Fd")->isCanFd, 1);
    EXPECT_EQ(message(*db, "Fd")->brs, 0);  // the per-message CANFD_BRS is not consulted
    EXPECT_EQ(message(*db, "Fd")->cycleTime, 100u);
    EXPECT_EQ(message(*db, "Float")->cycleTime, 12u);
    EXPECT_EQ(message(*db, "None")->cycleTime, 10u);
    auto str = parse("BO_ 1 M: 8 N\nBA_DEF_ BO_ \"GenMsgCycleTime\" STRING;\nBA_ \"GenMsgCycleTime\" BO_ 1 \"50\";\n");
    EXPECT_EQ(message(*str, "M")->cycleTime, 10u);
}

TEST(DbcParserLookups, FirstMatchAndIndexesThatFollowUpdates) {
    auto db = parse(
        "BO_ 1 Dup: 8 First\n"
        " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
        " SG_ S : 8|8@1+ (1,0) [0|0] \"\" N\n"
        "BO_ 1 Dup: 8 Second\n"
        "BO_ 2 B: 8 N\n"
        "CM_ BO_ 1 \"to the first\";\n");
    EXPECT_EQ(message(*db, "Dup")->publisher, "First");
    EXPECT_EQ(message(*db, "Dup")->comment, "to the first");
    EXPECT_EQ(db->messages[1].comment, "");
    EXPECT_EQ(signal(*db, "Dup", "S")->startBit, 0);
    EXPECT_EQ(signal(*db, "Dup", "s"), nullptr);  // case-sensitive

    DBC_MESSAGE copy;
    ASSERT_TRUE(db->getMessage("Dup", copy));
    copy.name = "Renamed";
    copy.id = 77;
    ASSERT_TRUE(db->updateMessage("Dup", copy));
    EXPECT_EQ(message(*db, "Dup")->publisher, "Second");
    EXPECT_EQ(db->findMessageById(77), 0);
    DBC_SIGNAL sig;
    ASSERT_TRUE(db->getSignal("Renamed", "S", sig));
    sig.name = "T";
    ASSERT_TRUE(db->updateSignal("Renamed", "S", sig));
    EXPECT_EQ(signal(*db, "Renamed", "T")->startBit, 0);
    EXPECT_EQ(signal(*db, "Renamed", "S")->startBit, 8);  // now the first S
    db->appendSignalValues({"SG_", "New", "m2", ":", "15|12@0-", "(0.5,1)", "[0|10]", "\"a", "b\"", "R"},
                           db->messages[2]);
    const DBC_SIGNAL* added = signal(*db, "B", "New");
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->startBit, 20);
    EXPECT_EQ(added->multiplexValue, 2u);
    EXPECT_EQ(added->unit, "a b");
    EXPECT_FALSE(db->updateMessage("Nope", copy));
}

}  // namespace
