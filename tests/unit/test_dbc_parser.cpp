// DBC parser: line reading, the handled line types and the attribute post-pass.
#include <string>

#include "dbc_test_util.h"

using dbc_test::message;
using dbc_test::parse;
using dbc_test::signal;

namespace {

TEST(DbcParserMessages, IdentifiersBelow2048StayStandardOthersGetBit31) {
    auto db = parse(
        "BO_ 2047 Max: 8 ECU\n"
        "BO_ 2048 First: 8 ECU\n"
        "BO_ 2147483748 Flagged: 8 ECU\n"
        "BO_ 0x123 Hex: 8 ECU\n"
        "BO_ 0x800 HexExt: 8 ECU\n");
    ASSERT_EQ(db->messages.size(), 5u);
    EXPECT_EQ(message(*db, "Max")->id, 0x7FFu);
    EXPECT_EQ(message(*db, "First")->id, 0x80000800u);
    EXPECT_EQ(message(*db, "Flagged")->id, 0x80000064u);
    EXPECT_EQ(message(*db, "Hex")->id, 0x123u);
    EXPECT_EQ(message(*db, "HexExt")->id, 0x80000800u);
}

TEST(DbcParserMessages, FieldsAndDefaults) {
    auto db = parse("BO_ 100 Engine: 6 Motor\nBO_ 101 NoSender: 3\n");
    const DBC_MESSAGE* m = message(*db, "Engine");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->dlc, 6u);
    EXPECT_EQ(m->publisher, "Motor");
    EXPECT_EQ(m->isCanFd, 0);
    EXPECT_EQ(m->brs, 0);
    EXPECT_EQ(m->initFlag, 1);
    EXPECT_EQ(m->cycleTime, 10u);  // no GenMsgCycleTime
    for (uint8_t b : m->data) EXPECT_EQ(b, 0);
    EXPECT_EQ(message(*db, "NoSender")->publisher, "");
}

TEST(DbcParserMessages, ColonsAreRemovedAndEmptyNamesAreNotBuilt) {
    auto db = parse(
        "BO_ 1 A:b: 8 X\n"
        " SG_ S1 : 0|8@1+ (1,0) [0|255] \"\" X\n"
        "BO_ 2 : 8 X\n"
        " SG_ S2 : 8|8@1+ (1,0) [0|255] \"\" X\n");
    ASSERT_EQ(db->messages.size(), 1u);
    EXPECT_EQ(db->messages[0].name, "Ab");
    // The signal after the unbuilt message joins the last message that was built.
    ASSERT_EQ(db->messages[0].signals.size(), 2u);
    EXPECT_EQ(db->messages[0].signals[1].name, "S2");
}

TEST(DbcParserLines, SemicolonsAreDroppedAnywhereAndOnlySpacesSeparate) {
    auto db = parse(
        "BO_ 7 Se;mi: 8 Node;\n"
        "\tBO_ 8 Tabbed: 8 Node\n"  // the first token is "\tBO_"
        "BO_\t9 Tab2: 8 Node\n"     // a single token "BO_\t9" and so on
        "  BO_    10   Spaced:   8   Node  \n");
    ASSERT_EQ(db->messages.size(), 2u);
    EXPECT_EQ(db->messages[0].name, "Semi");
    EXPECT_EQ(db->messages[0].publisher, "Node");
    EXPECT_EQ(db->messages[1].name, "Spaced");
    EXPECT_EQ(db->messages[1].dlc, 8u);
}

TEST(DbcParserLines, CarriageReturnStaysInTheLastToken) {
    auto db = parse("BO_ 5 M: 8 Gateway\r\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" A,B\r\n");
    const DBC_MESSAGE* m = message(*db, "M");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->publisher, "Gateway\r");
    ASSERT_EQ(m->signals.size(), 1u);
    ASSERT_EQ(m->signals[0].receivers.size(), 1u);
    EXPECT_EQ(m->signals[0].receivers[0], "A,B\r");
}

TEST(DbcParserLines, LongLinesAreCutAfter8191BytesAndTheRestIsANewLine) {
    // 8191 bytes of a line nobody handles, then a message line glued to it: the cut
    // makes the message line a line of its own.
    std::string text(8191, 'x');
    text += "BO_ 300 Cut: 8 N\n";
    // A line of exactly 8191 bytes is read whole: its last byte stays on it.
    std::string whole = "BO_ 301 Whole: 8 ";
    whole += std::string(8191 - whole.size() - 1, 'P');
    whole += "Q";
    ASSERT_EQ(whole.size(), 8191u);
    text += whole + "\n";
    // 2 * 8191 + n bytes are read as three lines.
    std::string three(8191, 'z');
    three += "BO_ 302 Second: 8 N";
    three += std::string(8191 - 19, ' ');
    three += "BO_ 303 Third: 8 N";
    text += three + "\n";
    auto db = parse(text);
    ASSERT_EQ(db->messages.size(), 4u);
    EXPECT_EQ(db->messages[0].name, "Cut");
    EXPECT_EQ(db->messages[1].name, "Whole");
    EXPECT_EQ(db->messages[1].publisher.size(), 8191u - 17u);
    EXPECT_EQ(db->messages[1].publisher.back(), 'Q');
    EXPECT_EQ(db->messages[2].name, "Second");
    EXPECT_EQ(db->messages[3].name, "Third");
}

TEST(DbcParserLines, NulByteEndsItsLine) {
    std::string text = "BO_ 1 Before: 8 N";
    text += '\0';
    text += " tail\nBO_ 2 After: 8 N\nBO_ 3";
    text += '\0';
    text += " Hidden: 8 N\n";
    auto db = parse(text);
    ASSERT_EQ(db->messages.size(), 2u);
    EXPECT_EQ(db->messages[0].publisher, "N");
    EXPECT_EQ(db->messages[1].name, "After");
}

TEST(DbcParserLines, LastLineWithoutNewlineIsRead) {
    auto db = parse("BO_ 1 A: 8 N\nBO_ 2 B: 8 N");
    ASSERT_EQ(db->messages.size(), 2u);
    EXPECT_EQ(db->messages[1].publisher, "N");
}

TEST(DbcParserLines, UnreadableOrEmptyFilesGiveAnEmptyDatabase) {
    DBC_Decoder missing("/nonexistent/dir/x.dbc", "GBK");
    EXPECT_TRUE(missing.messages.empty());
    DBC_Decoder dir("/tmp", "GBK");
    EXPECT_TRUE(dir.messages.empty());
    auto empty = parse("");
    EXPECT_TRUE(empty->messages.empty());
    EXPECT_TRUE(empty->attributeDefinitions.empty());
    auto junk = parse("VERSION \"\"\nNS_ :\nBU_: A B\nVAL_TABLE_ T 1 \"x\";\nBO_TX_BU_ 1 : A;\n");
    EXPECT_TRUE(junk->messages.empty());
}

TEST(DbcParserSignals, BitSpecificationScaleRangeUnitAndReceivers) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ Temp : 0|12@1- (0.01,-40.5) [-40|125.5] \"deg C\" A,B C\n");
    const DBC_SIGNAL* s = signal(*db, "M", "Temp");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->byteOrder, Intel);
    EXPECT_EQ(s->startBit, 0);
    EXPECT_EQ(s->length, 12);
    EXPECT_EQ(s->isSigned, 1u);
    EXPECT_EQ(s->valueType, 0u);
    EXPECT_DOUBLE_EQ(s->factor, 0.01);
    EXPECT_DOUBLE_EQ(s->offset, -40.5);
    EXPECT_DOUBLE_EQ(s->minimum, -40);
    EXPECT_DOUBLE_EQ(s->maximum, 125.5);
    EXPECT_EQ(s->unit, "deg C");  // rejoined across the space
    ASSERT_EQ(s->receivers.size(), 2u);
    EXPECT_EQ(s->receivers[0], "A,B");
    EXPECT_EQ(s->receivers[1], "C");
    EXPECT_EQ(s->multiplexKind, 0u);
}

TEST(DbcParserSignals, MotorolaStartBitBecomesTheLeastSignificantBit) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ A : 7|16@0+ (1,0) [0|0] \"\" N\n"
        " SG_ B : 7|8@0+ (1,0) [0|0] \"\" N\n"
        " SG_ C : 15|12@0+ (1,0) [0|0] \"\" N\n"
        " SG_ D : 3|1@0+ (1,0) [0|0] \"\" N\n"
        " SG_ E : 0|12@1+ (1,0) [0|0] \"\" N\n"
        " SG_ F : 63|64@0+ (1,0) [0|0] \"\" N\n"
        " SG_ G : 5|0@0+ (1,0) [0|0] \"\" N\n");
    EXPECT_EQ(signal(*db, "M", "A")->startBit, 8);
    EXPECT_EQ(signal(*db, "M", "B")->startBit, 0);
    EXPECT_EQ(signal(*db, "M", "C")->startBit, 20);
    EXPECT_EQ(signal(*db, "M", "D")->startBit, 3);
    EXPECT_EQ(signal(*db, "M", "E")->startBit, 0);  // Intel: unchanged
    EXPECT_EQ(signal(*db, "M", "F")->startBit, 112);  // 63 down to 56, then bit 0 of byte 14
    EXPECT_EQ(signal(*db, "M", "G")->startBit, 5);    // length 0 walks nowhere
}

TEST(DbcParserSignals, MultiplexIndicatorsAreTakenOutBeforeTheBitSpecification) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ Mux M : 0|4@1+ (1,0) [0|15] \"\" N\n"
        " SG_ Page3 m3 : 8|8@1+ (2,0) [0|100] \"km\" N\n"
        " SG_ Both m1M : 16|4@1+ (1,0) [0|0] \"\" N\n"
        " SG_ Big m70000 : 24|8@1+ (1,0) [0|0] \"\" N\n");
    const DBC_SIGNAL* mux = signal(*db, "M", "Mux");
    EXPECT_EQ(mux->multiplexKind, 2u);
    EXPECT_EQ(mux->length, 4);
    const DBC_SIGNAL* p3 = signal(*db, "M", "Page3");
    EXPECT_EQ(p3->multiplexKind, 1u);
    EXPECT_EQ(p3->multiplexValue, 3u);
    EXPECT_EQ(p3->startBit, 8);
    EXPECT_EQ(p3->length, 8);
    EXPECT_DOUBLE_EQ(p3->factor, 2);
    EXPECT_EQ(p3->unit, "km");
    // A token with both letters counts as a switch.
    EXPECT_EQ(signal(*db, "M", "Both")->multiplexKind, 2u);
    EXPECT_EQ(signal(*db, "M", "Big")->multiplexValue, 70000u);
}

TEST(DbcParserSignals, ShortAndOrphanLinesAreSkipped) {
    auto db = parse(
        " SG_ Orphan : 0|8@1+ (1,0) [0|0] \"\" N\n"  // before any BO_
        "BO_ 1 M: 8 N\n"
        " SG_ Short : 0|8@1+ (1,0) [0|0]\n"  // 6 tokens
        " SG_ Ok : 0|8@1+ (1,0) [0|0] \"\"\n");
    ASSERT_EQ(db->messages.size(), 1u);
    ASSERT_EQ(db->messages[0].signals.size(), 1u);
    EXPECT_EQ(db->messages[0].signals[0].name, "Ok");
    EXPECT_TRUE(db->messages[0].signals[0].receivers.empty());
}

TEST(DbcParserSignals, UnparsableNumbersReadZero) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ S : x|y@1+ (a,b) [c|d] \"\" N\n"
        " SG_ T : 4|8@1+ (1,2,3) [5] \"\" N\n");
    const DBC_SIGNAL* s = signal(*db, "M", "S");
    EXPECT_EQ(s->startBit, 0);
    EXPECT_EQ(s->length, 0);
    EXPECT_EQ(s->factor, 0);
    EXPECT_EQ(s->maximum, 0);
    // Scale and range are only read from exactly two pieces.
    const DBC_SIGNAL* t = signal(*db, "M", "T");
    EXPECT_EQ(t->factor, 0);
    EXPECT_EQ(t->maximum, 0);
}

TEST(DbcParserComments, MessageAndSignalCommentsKeepTheirFirstLineOnly) {
    auto db = parse(
        "BO_ 2147483649 Ext: 8 N\n"
        " SG_ Speed : 0|8@1+ (1,0) [0|0] \"\" N\n"
        "CM_ BO_ 2147483649 \"A   spaced \"\"message\"\" comment\";\n"
        "CM_ SG_ 2147483649 Speed \"first line\n"
        "second line\";\n"
        "CM_ BU_ N \"node comment\";\n"
        "CM_ \"network comment\";\n"
        "CM_ BO_ 1 \"no such message\";\n");
    const DBC_MESSAGE* m = message(*db, "Ext");
    EXPECT_EQ(m->comment, "A spaced message comment");
    EXPECT_EQ(m->signals[0].comment, "first line");
}

TEST(DbcParserComments, IdentifierMustMatchTheStoredIdExactly) {
    // 274923520 is stored with bit 31 set; a comment naming it without the bit finds
    // nothing.
    auto db = parse(
        "BO_ 274923520 M: 8 N\n"
        "CM_ BO_ 274923520 \"lost\";\n"
        "CM_ BO_ 2422407168 \"kept\";\n");
    EXPECT_EQ(message(*db, "M")->comment, "kept");
}

TEST(DbcParserValueTables, PairsWithSpacesNegativeAndHexKeys) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ S : 0|8@1- (1,0) [0|0] \"\" N\n"
        " SG_ T : 8|8@1+ (1,0) [0|0] \"\" N\n"
        "VAL_ 1 S 2 \"two  words\" -5 \"minus five\" 0x10 \"sixteen\" 2 \"dup\" ;\r\n"
        "VAL_ 1 T 1 \"old\";\n"
        "VAL_ 1 T 7 \"new\";\n"
        "VAL_ 1 Missing 1 \"x\";\n");
    const DBC_SIGNAL* s = signal(*db, "M", "S");
    ASSERT_EQ(s->valueTable.size(), 3u);
    EXPECT_EQ(s->valueTable.at(2), "two  words");  // the first entry of a key wins
    EXPECT_EQ(s->valueTable.at(-5), "minus five");
    EXPECT_EQ(s->valueTable.at(16), "sixteen");
    EXPECT_EQ(s->valueTable.begin()->first, -5);  // ordered by key
    // A later VAL_ line replaces the table.
    const DBC_SIGNAL* t = signal(*db, "M", "T");
    ASSERT_EQ(t->valueTable.size(), 1u);
    EXPECT_EQ(t->valueTable.at(7), "new");
}

TEST(DbcParserValueTables, GetValueTableStopsAtTheFirstIncompletePair) {
    auto t = DBC_Decoder::getValueTable(" 1 \"a\" 4294967295 \"wraps\" 3 nope 4 \"d\"");
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t.at(1), "a");
    EXPECT_EQ(t.at(-1), "wraps");  // 32-bit key
    EXPECT_EQ(DBC_Decoder::getValueTable(" 1 \"unterminated").size(), 0u);
}

TEST(DbcParserValueTypes, SigValTypeSetsEveryMessageWithTheId) {
    auto db = parse(
        "BO_ 5 A: 8 N\n"
        " SG_ X : 0|32@1- (1,0) [0|0] \"\" N\n"
        " SG_ Y : 32|32@1- (1,0) [0|0] \"\" N\n"
        " SG_ Z : 0|64@1- (1,0) [0|0] \"\" N\n"
        "BO_ 5 B: 8 N\n"
        " SG_ X : 0|32@1- (1,0) [0|0] \"\" N\n"
        "SIG_VALTYPE_ 5 X : 1;\n"
        "SIG_VALTYPE_ 5 Z : 2;\n"
        "SIG_VALTYPE_ 5 Y : 1;\n"
        "SIG_VALTYPE_ 5 Y : 3;\n");
    EXPECT_EQ(signal(*db, "A", "X")->valueType, 1u);
    EXPECT_EQ(signal(*db, "B", "X")->valueType, 1u);
    EXPECT_EQ(signal(*db, "A", "Z")->valueType, 2u);
    EXPECT_EQ(signal(*db, "A", "Y")->valueType, 0u);
}

TEST(DbcParserAttributes, DefinitionsDefaultsAndAssignments) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
        "BA_DEF_ BO_  \"Mode\" ENUM  \"Off\",\"On\",\"Two words\";\n"
        "BA_DEF_ SG_  \"Start\" INT -5 1e3;\n"
        "BA_DEF_ BU_  \"Addr\" HEX 0 255;\n"
        "BA_DEF_  \"Bus\" STRING ;\n"
        "BA_DEF_ \"Ratio\" FLOAT 0.5 2.5;\n"
        "BA_DEF_DEF_  \"Mode\" \"Off\";\n"
        "BA_DEF_DEF_  \"Bus\" \"CAN FD\";\n"
        "BA_ \"Mode\" BO_ 1 1;\n"
        "BA_ \"Start\" SG_ 1 S 42;\n"
        "BA_ \"Addr\" BU_ N 7;\n"
        "BA_ \"Bus\" \"Other\";\n"
        "BA_ \"Unknown\" BO_ 1 3;\n"
        "BA_ \"Mode\" BO_ 99 1;\n");
    ASSERT_EQ(db->attributeDefinitions.size(), 5u);
    const DBC_ATTRIBUTE& mode = db->attributeDefinitions[0];
    EXPECT_EQ(mode.name, "Mode");
    EXPECT_EQ(mode.objectType, "BO_");
    EXPECT_EQ(mode.valueType, "ENUM");
    ASSERT_EQ(mode.enumValues.size(), 3u);
    EXPECT_EQ(mode.enumValues[2], "Two words");
    EXPECT_EQ(mode.value, "Off");
    const DBC_ATTRIBUTE& start = db->attributeDefinitions[1];
    EXPECT_EQ(start.objectType, "SG_");
    EXPECT_DOUBLE_EQ(start.minimum, -5);
    EXPECT_DOUBLE_EQ(start.maximum, 1000);
    EXPECT_EQ(db->attributeDefinitions[2].objectType, "BU_");
    EXPECT_DOUBLE_EQ(db->attributeDefinitions[2].maximum, 255);
    const DBC_ATTRIBUTE& bus = db->attributeDefinitions[3];
    EXPECT_EQ(bus.objectType, "");
    EXPECT_EQ(bus.valueType, "STRING");
    EXPECT_EQ(bus.value, "CAN FD");  // the BA_ of a network attribute is not kept
    EXPECT_DOUBLE_EQ(db->attributeDefinitions[4].minimum, 0.5);

    const DBC_MESSAGE* m = message(*db, "M");
    ASSERT_EQ(m->attributes.size(), 1u);  // unknown definitions and ids add nothing
    EXPECT_EQ(m->attributes[0].name, "Mode");
    EXPECT_EQ(m->attributes[0].value, "1");
    ASSERT_EQ(m->attributes[0].enumValues.size(), 3u);  // a copy of the definition
    EXPECT_EQ(db->attributeDefinitions[0].value, "Off");  // the definition keeps its default
    const DBC_SIGNAL* s = signal(*db, "M", "S");
    ASSERT_EQ(s->attributes.size(), 1u);
    EXPECT_EQ(s->attributes[0].value, "42");
}

const char* const kFrameFormats =
    "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"reserved\",\"J1939PG\","
    "\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"r\",\"StandardCAN_FD\",\"ExtendedCAN_FD\",\"Other\";\n";

TEST(DbcParserPostPass, FrameFormatsSetTheIdentifierAndFdFlags) {
    auto db = parse(std::string(
                        "BO_ 2147483748 StdFromExt: 8 N\n"
                        "BO_ 100 ExtFromStd: 8 N\n"
                        "BO_ 101 J1939: 8 N\n"
                        "BO_ 2147483750 FdStd: 64 N\n"
                        "BO_ 103 FdExt: 64 N\n"
                        "BO_ 2147483752 Unknown: 8 N\n"
                        "BO_ 105 OutOfRange: 8 N\n"
                        "BO_ 106 Plain: 8 N\n") +
                    kFrameFormats +
                    "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
                    "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
                    "BA_ \"VFrameFormat\" BO_ 2147483748 0;\n"
                    "BA_ \"VFrameFormat\" BO_ 100 1;\n"
                    "BA_ \"VFrameFormat\" BO_ 101 3;\n"
                    "BA_ \"VFrameFormat\" BO_ 2147483750 14;\n"
                    "BA_ \"VFrameFormat\" BO_ 103 15;\n"
                    "BA_ \"VFrameFormat\" BO_ 2147483752 16;\n"
                    "BA_ \"VFrameFormat\" BO_ 105 17;\n");
    auto check = [&](const char* name, uint32_t id, int fd, int brs) {
        const DBC_MESSAGE* m = message(*db, name);
        ASSERT_NE(m, nullptr) << name;
        EXPECT_EQ(m->id, id) << name;
        EXPECT_EQ(m->isCanFd, fd) << name;
        EXPECT_EQ(m->brs, brs) << name;
    };
    check("StdFromExt", 100, 0, 0);
    check("ExtFromStd", 0x80000064u, 0, 0);
    check("J1939", 0x80000065u, 0, 0);
    check("FdStd", 102, 1, 1);
    check("FdExt", 0x80000067u, 1, 1);
    check("Unknown", 0x80000068u, 0, 0);     // "Other" changes nothing
    check("OutOfRange", 105, 0, 0);          // no enum text for index 17
    check("Plain", 106, 0, 0);               // no assignment
    // The post-pass swapped these two identifiers; look-ups by id follow.
    EXPECT_EQ(db->findMessageById(100), 0);
    EXPECT_EQ(db->findMessageById(0x80000064u), 1);
}

TEST(DbcParserPostPass, BitRateSwitchComesOnlyFromTheDefaultOfCanfdBrs) {
    auto db = parse(std::string("BO_ 1 Fd: 64 N\nBO_ 2 Classic: 8 N\n") + kFrameFormats +
                    "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
                    "BA_DEF_DEF_ \"CANFD_BRS\" \"0\";\n"
                    "BA_ \"CANFD_BRS\" BO_ 1 1;\n"
                    "BA_ \"VFrameFormat\" BO_ 1 14;\n"
                    "BA_ \"VFrameFormat\" BO_ 2 0;\n");
    EXPECT_EQ(message(*db, "Fd")->isCanFd, 1);
    EXPECT_EQ(message(*db, "Fd")->brs, 0);
    EXPECT_EQ(message(*db, "Classic")->brs, 0);
}

TEST(DbcParserPostPass, FrameFormatNeedsAnEnumDefinition) {
    auto db = parse(
        "BO_ 2164195584 M: 8 N\n"
        "BA_DEF_ BO_ \"VFrameFormat\" INT 0 3;\n"
        "BA_DEF_DEF_ \"VFrameFormat\" 3;\n"
        "BA_ \"VFrameFormat\" BO_ 2164195584 0;\n");
    EXPECT_EQ(message(*db, "M")->id, 2164195584u);
    EXPECT_EQ(message(*db, "M")->attributes.size(), 1u);
}

TEST(DbcParserPostPass, CycleTimeFromNumericAttributesOnly) {
    auto db = parse(
        "BO_ 1 Int: 8 N\nBO_ 2 Float: 8 N\nBO_ 3 Str: 8 N\nBO_ 4 None: 8 N\n"
        "BA_DEF_ BO_ \"GenMsgCycleTime\" FLOAT 0 1000;\n"
        "BA_DEF_ BO_ \"GenMsgCycleTime\" STRING;\n"  // a second definition is never found
        "BA_ \"GenMsgCycleTime\" BO_ 1 100;\n"
        "BA_ \"GenMsgCycleTime\" BO_ 2 12.9;\n");
    EXPECT_EQ(message(*db, "Int")->cycleTime, 100u);
    EXPECT_EQ(message(*db, "Float")->cycleTime, 12u);
    EXPECT_EQ(message(*db, "None")->cycleTime, 10u);

    auto str = parse(
        "BO_ 1 M: 8 N\n"
        "BA_DEF_ BO_ \"GenMsgCycleTime\" STRING;\n"
        "BA_ \"GenMsgCycleTime\" BO_ 1 \"50\";\n");
    EXPECT_EQ(message(*str, "M")->cycleTime, 10u);
}

TEST(DbcParserLookups, DuplicateNamesAndIdsFindTheFirst) {
    auto db = parse(
        "BO_ 1 Dup: 8 First\n"
        " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
        " SG_ S : 8|8@1+ (1,0) [0|0] \"\" N\n"
        "BO_ 1 Dup: 8 Second\n"
        "BO_ 1 Other: 8 Third\n"
        "CM_ BO_ 1 \"to the first\";\n");
    EXPECT_EQ(message(*db, "Dup")->publisher, "First");
    EXPECT_EQ(message(*db, "Dup")->comment, "to the first");
    EXPECT_EQ(db->messages[2].comment, "");
    EXPECT_EQ(signal(*db, "Dup", "S")->startBit, 0);
    EXPECT_EQ(db->findMessageById(1), 0);
    EXPECT_EQ(signal(*db, "Dup", "s"), nullptr);  // case-sensitive
}

TEST(DbcParserLookups, UpdatesAndAppendsKeepTheIndexesCurrent) {
    auto db = parse("BO_ 1 A: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\nBO_ 2 B: 8 N\n");
    DBC_MESSAGE copy;
    ASSERT_TRUE(db->getMessage("A", copy));
    copy.name = "Renamed";
    copy.id = 77;
    ASSERT_TRUE(db->updateMessage("A", copy));
    EXPECT_EQ(message(*db, "A"), nullptr);
    ASSERT_NE(message(*db, "Renamed"), nullptr);
    EXPECT_EQ(db->findMessageById(77), 0);

    DBC_SIGNAL sig;
    ASSERT_TRUE(db->getSignal("Renamed", "S", sig));
    sig.name = "T";
    ASSERT_TRUE(db->updateSignal("Renamed", "S", sig));
    EXPECT_EQ(signal(*db, "Renamed", "S"), nullptr);
    EXPECT_NE(signal(*db, "Renamed", "T"), nullptr);

    db->appendSignalValues({"SG_", "New", ":", "7|8@0+", "(1,0)", "[0|0]", "\"\"", "N"}, db->messages[1]);
    const DBC_SIGNAL* added = signal(*db, "B", "New");
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->startBit, 0);
    EXPECT_FALSE(db->updateMessage("Nope", copy));
    EXPECT_FALSE(db->updateSignal("B", "Nope", sig));
}

TEST(DbcParserTokens, RecordsFromTokenLists) {
    DBC_Decoder db;
    DBC_MESSAGE m = db.getMessageValues({"BO_", "4096", "Name:", "12", "Tx"});
    EXPECT_EQ(m.id, 0x80001000u);
    EXPECT_EQ(m.name, "Name");
    EXPECT_EQ(m.dlc, 12u);
    EXPECT_EQ(m.cycleTime, 10u);
    DBC_SIGNAL s = db.getSignalValues({"SG_", "Sig", "m2", ":", "15|12@0-", "(0.5,1)", "[0|10]", "\"a", "b\"", "R"});
    EXPECT_EQ(s.multiplexKind, 1u);
    EXPECT_EQ(s.multiplexValue, 2u);
    EXPECT_EQ(s.startBit, 20);
    EXPECT_EQ(s.isSigned, 1u);
    EXPECT_EQ(s.unit, "a b");
    ASSERT_EQ(s.receivers.size(), 1u);
    EXPECT_EQ(s.receivers[0], "R");
    DBC_SIGNAL v;
    DBC_Decoder::setValueType(2, v);
    EXPECT_EQ(v.valueType, 2u);
    DBC_Decoder::setValueType(7, v);
    EXPECT_EQ(v.valueType, 0u);
}

TEST(DbcStringUtilities, SplitRemoveReplaceJoinTrim) {
    using D = DBC_Decoder;
    EXPECT_EQ(D::string_split("  a  b|c ", " |"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(D::string_split("", " "), std::vector<std::string>{});
    EXPECT_EQ(D::split("a,,b,", ','), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(D::split(",a", ','), (std::vector<std::string>{"", "a"}));
    std::string t = "x;;y;z";
    D::string_remove(t, ";");
    EXPECT_EQ(t, "xyz");
    t = "aXXbXXc";
    D::string_replace_all(t, "XX", "-");
    EXPECT_EQ(t, "a-b-c");
    EXPECT_EQ(D::string_join({"a", "b", "c"}, ", "), "a, b, c");
    EXPECT_EQ(D::string_join({}, ","), "");
    t = "\"quoted\"";
    D::trim(t, "\"");
    EXPECT_EQ(t, "quoted");
    t = "\"\"";
    D::trim(t, "\"");
    EXPECT_EQ(t, "");
    EXPECT_EQ(D::GetDoubleQuoteNum("\"a\" \"b"), 3u);
}

}  // namespace
