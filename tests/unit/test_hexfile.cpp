// Firmware image files: behaviour on hand-made inputs. Each expectation follows the
// documented reading rules or the choices documented in hexfile.h.
#include "polybus/hexfile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

// ---- record builders (checksums computed by hand rules) ---------------------------

std::string hex2(unsigned v) {
    char b[3];
    std::snprintf(b, sizeof b, "%02X", v & 0xFFu);
    return b;
}

std::string hexbytes(const std::vector<uint8_t>& d) {
    std::string s;
    for (uint8_t b : d) s += hex2(b);
    return s;
}

// S-record of type t (1, 2, 3) with a correct checksum.
std::string srec(int t, uint32_t addr, const std::vector<uint8_t>& data) {
    const int L = t + 1;
    const unsigned C = static_cast<unsigned>(L + data.size() + 1);
    unsigned sum = C;
    std::string s = "S" + std::to_string(t) + hex2(C);
    for (int i = L - 1; i >= 0; --i) {
        const unsigned b = (addr >> (8 * i)) & 0xFF;
        sum += b;
        s += hex2(b);
    }
    for (uint8_t b : data) sum += b;
    return s + hexbytes(data) + hex2(~sum);
}

// Intel HEX record with a correct checksum.
std::string ihex(unsigned type, unsigned offset, const std::vector<uint8_t>& data) {
    unsigned sum = static_cast<unsigned>(data.size()) + (offset >> 8) + (offset & 0xFF) + type;
    for (uint8_t b : data) sum += b;
    char head[16];
    std::snprintf(head, sizeof head, ":%02X%04X%02X", static_cast<unsigned>(data.size()), offset & 0xFFFF,
                  type);
    return head + hexbytes(data) + hex2(0x100 - (sum & 0xFF));
}

std::vector<uint8_t> seq(size_t n, uint8_t first = 0) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(first + i);
    return v;
}

// A block array with sentinel values, freed at the end of the test with its capacity.
struct Blocks {
    explicit Blocks(size_t n) : b(n + 1) {
        for (auto& x : b) x = HEX_DATA_BLOCK{0x5A5A5A5Au, 0x5A5A5A5Au, nullptr};
    }
    ~Blocks() { hexfile_free_data(b.data(), static_cast<int>(b.size() - 1)); }
    HEX_DATA_BLOCK* data() { return b.data(); }
    HEX_DATA_BLOCK& operator[](size_t i) { return b[i]; }
    int cap() const { return static_cast<int>(b.size() - 1); }
    // The element just past the capacity must never be written.
    bool guard_intact() const {
        const auto& g = b.back();
        return g.StartAddr == 0x5A5A5A5Au && g.DataLen == 0x5A5A5A5Au && g.pData == nullptr;
    }
    std::vector<uint8_t> bytes(size_t i) const {
        return std::vector<uint8_t>(b[i].pData, b[i].pData + b[i].DataLen);
    }
    std::vector<HEX_DATA_BLOCK> b;
};

using Reader = int (*)(uint8_t*, int, HEX_DATA_BLOCK*, int, char);

int run(Reader r, const std::string& text, Blocks& bl, char unit = 1, int maxBlocks = -1) {
    // An exact-size heap copy, so that a read past fileLen is a sanitizer report.
    std::vector<uint8_t> buf(text.begin(), text.end());
    return r(buf.empty() ? nullptr : buf.data(), static_cast<int>(buf.size()), bl.data(),
             maxBlocks < 0 ? bl.cap() : maxBlocks, unit);
}

int run_txt(const std::string& text, Blocks& bl, uint32_t valueBytes, uint32_t maxBlocks = 0xFFFFFFFFu) {
    std::vector<uint8_t> buf(text.begin(), text.end());
    return hexfile_convert_txt(buf.empty() ? nullptr : buf.data(), static_cast<int>(buf.size()), bl.data(),
                               maxBlocks == 0xFFFFFFFFu ? static_cast<uint32_t>(bl.cap()) : maxBlocks,
                               valueBytes);
}

std::string tmp_path(const char* name) {
    return std::string(::testing::TempDir()) + "polybus_hexfile_" + std::to_string(getpid()) + "_" + name;
}

std::vector<uint8_t> read_all(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// ---- hexfile_get_line --------------------------------------------------------------

TEST(HexfileGetLine, SplitsAtCrLfAndNulAndSkipsLineEnds) {
    char text[] = "first\r\n\r\n\nsecond\rthird\n\0after";
    char line[64];
    char* cur = text;
    ASSERT_EQ(hexfile_get_line(&cur, line), line);
    EXPECT_STREQ(line, "first");
    EXPECT_EQ(cur, text + 10);
    ASSERT_NE(hexfile_get_line(&cur, line), nullptr);
    EXPECT_STREQ(line, "second");
    ASSERT_NE(hexfile_get_line(&cur, line), nullptr);
    EXPECT_STREQ(line, "third");
    char* before = cur;
    EXPECT_EQ(hexfile_get_line(&cur, line), nullptr);  // cursor on NUL: empty line
    EXPECT_EQ(cur, before);
    EXPECT_STREQ(line, "");
}

TEST(HexfileGetLine, LeadingLineEndGivesAZeroLengthLineNotTheEnd) {
    char text[] = "\n\nx";
    char line[8];
    char* cur = text;
    ASSERT_NE(hexfile_get_line(&cur, line), nullptr);
    EXPECT_STREQ(line, "");
    ASSERT_NE(hexfile_get_line(&cur, line), nullptr);
    EXPECT_STREQ(line, "x");
    EXPECT_EQ(hexfile_get_line(&cur, line), nullptr);
}

TEST(HexfileGetLine, NulTerminatedLineWithoutLineEnd) {
    char text[] = "abc";
    char line[8];
    char* cur = text;
    ASSERT_NE(hexfile_get_line(&cur, line), nullptr);
    EXPECT_STREQ(line, "abc");
    EXPECT_EQ(cur, text + 3);
    EXPECT_EQ(hexfile_get_line(&cur, line), nullptr);
}

// ---- hexfile_load_file -------------------------------------------------------------

TEST(HexfileLoadFile, ReadsWholeFileWithoutTerminator) {
    const std::string path = tmp_path("load.bin");
    {
        std::ofstream f(path, std::ios::binary);
        f << std::string("S1\0\r\nxyz", 8);
    }
    std::vector<char> buf(16, '#');
    EXPECT_EQ(hexfile_load_file(path.c_str(), buf.data()), 8);
    EXPECT_EQ(std::string(buf.data(), 8), std::string("S1\0\r\nxyz", 8));
    EXPECT_EQ(buf[8], '#');  // nothing written past the file
    std::remove(path.c_str());
}

TEST(HexfileLoadFile, MissingFileDirectoryAndNullArgumentsGiveMinusOne) {
    char buf[16];
    EXPECT_EQ(hexfile_load_file("/nonexistent/polybus/x.hex", buf), -1);
    EXPECT_EQ(hexfile_load_file("/", buf), -1);
    EXPECT_EQ(hexfile_load_file(nullptr, buf), -1);
    const std::string path = tmp_path("nullbuf.bin");
    { std::ofstream(path, std::ios::binary) << "S1"; }
    EXPECT_EQ(hexfile_load_file(path.c_str(), nullptr), -1);
    std::remove(path.c_str());
}

TEST(HexfileLoadFile, EmptyFile) {
    const std::string path = tmp_path("empty.bin");
    { std::ofstream f(path, std::ios::binary); }
    char buf[4];
    EXPECT_EQ(hexfile_load_file(path.c_str(), buf), 0);
    std::remove(path.c_str());
}

// ---- block bookkeeping (via S-records) ----------------------------------------------

TEST(HexfileBlocks, S1ExtendAndNewBlock) {
    const std::string r0 = srec(1, 0x0000, seq(16));
    ASSERT_EQ(r0.substr(0, 8), "S1130000");  // byte count 0x13, address 0x0000
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_s19, r0 + "\n", bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0u);
    EXPECT_EQ(bl[0].DataLen, 16u);
    EXPECT_EQ(bl.bytes(0), seq(16));

    Blocks b2(4);
    ASSERT_EQ(run(hexfile_convert_s19, r0 + "\n" + srec(1, 0x10, seq(16, 16)) + "\n", b2), 1);
    EXPECT_EQ(b2[0].DataLen, 32u);
    EXPECT_EQ(b2.bytes(0), seq(32));

    Blocks b3(4);
    const std::string f3 = r0 + "\n" + srec(1, 0x10, seq(16, 16)) + "\n" + srec(1, 0x100, seq(4)) + "\n" +
                           srec(1, 0x20, seq(4, 0x80)) + "\n";
    ASSERT_EQ(run(hexfile_convert_s19, f3, b3), 3);
    EXPECT_EQ(b3[1].StartAddr, 0x100u);
    EXPECT_EQ(b3[2].StartAddr, 0x20u);  // file order, no merging with block 0
    EXPECT_EQ(b3[2].DataLen, 4u);
    EXPECT_TRUE(b3.guard_intact());
}

TEST(HexfileBlocks, WordAddressUnit) {
    const std::string f = srec(1, 0x0000, seq(16)) + "\n" + srec(1, 0x0008, seq(4, 16)) + "\n";
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_s19, f, bl, 2), 1);
    EXPECT_EQ(bl[0].StartAddr, 0u);
    EXPECT_EQ(bl[0].DataLen, 20u);
    Blocks b1(4);
    EXPECT_EQ(run(hexfile_convert_s19, f, b1, 1), 2);
}

TEST(HexfileBlocks, OddLengthWithWordUnitUsesIntegerDivision) {
    // 3 bytes at word 0 end at word 1 (3 / 2); the next record at word 1 continues; the
    // 5 bytes then end at word 2 (not 3), so a record at word 3 opens a new block.
    const std::string f = srec(1, 0, seq(3)) + "\n" + srec(1, 1, seq(2, 3)) + "\n" + srec(1, 3, seq(1)) + "\n";
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_s19, f, bl, 2), 2);
    EXPECT_EQ(bl.bytes(0), seq(5));
    EXPECT_EQ(bl[1].StartAddr, 3u);
}

TEST(HexfileBlocks, TooManyBlocksReturnsZeroAndNeverTouchesElementMax) {
    const std::string f = srec(1, 0x0000, seq(4)) + "\n" + srec(1, 0x1000, seq(4)) + "\n";
    Blocks bl(1);
    EXPECT_EQ(run(hexfile_convert_s19, f, bl), 0);
    EXPECT_TRUE(bl.guard_intact());
    EXPECT_EQ(bl[0].StartAddr, 0u);  // the filled block keeps its buffer (freed by Blocks)
    EXPECT_EQ(bl[0].DataLen, 4u);
    EXPECT_NE(bl[0].pData, nullptr);
}

TEST(HexfileBlocks, EmptyInputAndFirstBlockSetEmpty) {
    Blocks bl(2);
    uint8_t dummy = 'S';
    EXPECT_EQ(hexfile_convert_s19(&dummy, 0, bl.data(), 2, 1), 0);
    EXPECT_EQ(bl[0].StartAddr, 0xFFFFFFFFu);
    EXPECT_EQ(bl[0].DataLen, 0u);
    EXPECT_EQ(bl[0].pData, nullptr);
    EXPECT_EQ(bl[1].StartAddr, 0x5A5A5A5Au);  // only the first block is reset
    Blocks b2(2);
    EXPECT_EQ(run(hexfile_convert_ihx, "", b2), 0);
    EXPECT_EQ(b2[0].StartAddr, 0xFFFFFFFFu);
    Blocks b3(2);
    EXPECT_EQ(run(hexfile_convert_s19, "S0030000FC\nS9030000FC\n", b3), 0);  // no data records
    EXPECT_EQ(b3[0].pData, nullptr);
}

TEST(HexfileBlocks, MaxBlocksZeroOrNullArray) {
    const std::string f = srec(1, 0, seq(2)) + "\n";
    Blocks bl(1);
    EXPECT_EQ(run(hexfile_convert_s19, f, bl, 1, 0), 0);
    EXPECT_EQ(bl[0].StartAddr, 0x5A5A5A5Au);  // untouched with capacity 0
    std::vector<uint8_t> buf(f.begin(), f.end());
    EXPECT_EQ(hexfile_convert_s19(buf.data(), static_cast<int>(buf.size()), nullptr, 5, 1), 0);
    EXPECT_EQ(hexfile_convert_ihx(buf.data(), static_cast<int>(buf.size()), nullptr, 5, 1), 0);
}

TEST(HexfileBlocks, AddressUnitBelowOneReturnsZero) {
    const std::string f = srec(1, 0, seq(2)) + "\n";
    for (char unit : {char(0), char(-1), char(-128)}) {
        Blocks bl(2);
        EXPECT_EQ(run(hexfile_convert_s19, f, bl, unit), 0);
        EXPECT_EQ(bl[0].StartAddr, 0xFFFFFFFFu);
        EXPECT_EQ(bl[0].pData, nullptr);
    }
}

TEST(HexfileBlocks, FirstRecordAtAllOnesAppendsToTheEmptyFirstBlockUncounted) {
    // blocks[0] is empty with StartAddr 0xFFFFFFFF, so its end is 0xFFFFFFFF as well.
    const std::string f = srec(3, 0xFFFFFFFFu, seq(1)) + "\n";
    Blocks bl(2);
    EXPECT_EQ(run(hexfile_convert_s19, f, bl), 0);
    EXPECT_EQ(bl[0].StartAddr, 0xFFFFFFFFu);
    EXPECT_EQ(bl[0].DataLen, 1u);
    EXPECT_NE(bl[0].pData, nullptr);  // freed by Blocks with the capacity
}

TEST(HexfileBlocks, AddressWrapsAroundAt32Bits) {
    const std::string f = srec(3, 0xFFFFFFFEu, seq(2)) + "\n" + srec(3, 0, seq(2, 2)) + "\n";
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_s19, f, bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0xFFFFFFFEu);
    EXPECT_EQ(bl[0].DataLen, 4u);
}

TEST(HexfileBlocks, ManyRecordsInOneBlock) {
    // Large enough (3 MiB) for the buffer to be moved while growing and prefaulted ahead
    // of the data; the second block starts small again.
    constexpr uint32_t kLen = 3u << 20;
    std::string f;
    f.reserve(kLen / 16 * 48);
    for (uint32_t a = 0; a < kLen; a += 16) f += srec(3, 0x08000000u + a, seq(16, static_cast<uint8_t>(a))) + "\n";
    f += srec(3, 0x09000000u, seq(16, 7)) + "\n";
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_s19, f, bl), 2);
    ASSERT_EQ(bl[0].DataLen, kLen);
    for (uint32_t i = 0; i < kLen; i += 4099) ASSERT_EQ(bl[0].pData[i], static_cast<uint8_t>(i)) << i;
    EXPECT_EQ(bl[0].pData[kLen - 1], static_cast<uint8_t>(kLen - 1));
    EXPECT_EQ(bl.bytes(1), seq(16, 7));
}

// ---- S-records -----------------------------------------------------------------------

TEST(HexfileS19, SkipsNonDataRecordsAndReadsS2S3) {
    const std::string f = "S00F000068656C6C6F202020202000003C\n"  // S0 header
                          "garbage line\n" +
                          srec(2, 0x123456, seq(3)) + "\r\n" + "S5030001FB\n" + srec(3, 0x80002000u, seq(5)) +
                          "\n" + "S70580002000DA\n" + "S804123456" "5D\n" + "S9030000FC\n";
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_s19, f, bl), 2);
    EXPECT_EQ(bl[0].StartAddr, 0x123456u);
    EXPECT_EQ(bl.bytes(0), seq(3));
    EXPECT_EQ(bl[1].StartAddr, 0x80002000u);
    EXPECT_EQ(bl.bytes(1), seq(5));
}

TEST(HexfileS19, LowerCaseHexAccepted) {
    std::string r = srec(1, 0xABCD, {0xDE, 0xAD});
    for (char& c : r) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    r[0] = 'S';
    Blocks bl(1);
    ASSERT_EQ(run(hexfile_convert_s19, r + "\n", bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0xABCDu);
    EXPECT_EQ(bl.bytes(0), std::vector<uint8_t>({0xDE, 0xAD}));
}

TEST(HexfileS19, ChecksumErrorInThirdRecordReturnsZero) {
    std::string bad = srec(1, 0x0300, seq(4));
    bad[bad.size() - 1] = bad.back() == '0' ? '1' : '0';
    const std::string f = srec(1, 0x0100, seq(4)) + "\n" + srec(1, 0x0200, seq(4)) + "\n" + bad + "\n";
    Blocks bl(4);
    EXPECT_EQ(run(hexfile_convert_s19, f, bl), 0);
    EXPECT_EQ(bl[0].StartAddr, 0x100u);  // two blocks were filled; freed with the capacity
    EXPECT_EQ(bl[1].StartAddr, 0x200u);
    EXPECT_EQ(bl[1].DataLen, 4u);
}

TEST(HexfileS19, RecordWithoutDataAddsNothingButIsChecked) {
    const std::string f = srec(1, 0x0010, {}) + "\n" + srec(1, 0x0000, seq(2)) + "\n";
    ASSERT_EQ(f.substr(0, 4), "S103");
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_s19, f, bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0u);
    Blocks b2(2);
    EXPECT_EQ(run(hexfile_convert_s19, "S1030010EB\n" + srec(1, 0, seq(2)) + "\n", b2), 0);  // EC expected
}

TEST(HexfileS19, MalformedRecordsReturnZero) {
    const std::string good = srec(1, 0x0000, seq(4));  // S1070000 00010203 EE
    const std::vector<std::string> bad = {
        "S1",                                   // truncated before the byte count
        "S107000000010203",                     // checksum missing
        "S10700000001020",                      // odd digit count
        good.substr(0, 10) + "G" + good.substr(11),  // non-hex digit in the data
        "S1FF0000000102EE",                     // byte count larger than the line
        "S1000000FF",                           // byte count below L + 1: N wraps to 253
        "S1 070000000102 03EE",                 // space inside the record
    };
    for (const std::string& b : bad) {
        Blocks bl(2);
        EXPECT_EQ(run(hexfile_convert_s19, b + "\n" + good + "\n", bl), 0) << b;
        Blocks b2(2);
        EXPECT_EQ(run(hexfile_convert_s19, good + "\n" + b, b2), 0) << b;  // at the very end of input
    }
    Blocks ok(2);
    EXPECT_EQ(run(hexfile_convert_s19, good + "  trailing text\n", ok), 1);  // after the checksum: ignored
}

TEST(HexfileS19, ReadingStopsAtFileLenAndAtNul) {
    const std::string a = srec(1, 0x0000, seq(4)) + "\n";
    const std::string b = srec(1, 0x1000, seq(4)) + "\n";
    const std::string text = a + b;
    std::vector<uint8_t> buf(text.begin(), text.end());
    Blocks bl(4);
    EXPECT_EQ(hexfile_convert_s19(buf.data(), static_cast<int>(a.size()), bl.data(), 4, 1), 1);
    Blocks b2(4);  // cut inside the second record: it runs past the input
    EXPECT_EQ(hexfile_convert_s19(buf.data(), static_cast<int>(a.size() + 6), b2.data(), 4, 1), 0);
    Blocks b3(4);  // a NUL after the first line ends the reading
    EXPECT_EQ(run(hexfile_convert_s19, a + std::string(1, '\0') + b, b3), 1);
    Blocks b4(4);  // without a final line end
    EXPECT_EQ(run(hexfile_convert_s19, a + b.substr(0, b.size() - 1), b4), 2);
    Blocks b5(4);  // negative length
    EXPECT_EQ(hexfile_convert_s19(buf.data(), -5, b5.data(), 4, 1), 0);
}

// ---- Intel HEX ------------------------------------------------------------------------

TEST(HexfileIhx, ExtendedLinearAddress) {
    const std::string f = ihex(4, 0, {0x08, 0x00}) + "\n" + ihex(0, 0x0000, seq(16)) + "\n";
    ASSERT_EQ(f.substr(0, 15), ":020000040800F2");
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0x08000000u);
    EXPECT_EQ(bl.bytes(0), seq(16));
}

TEST(HexfileIhx, EndOfFileRecordDoesNotEndReading) {
    const std::string f = ihex(0, 0x0000, seq(4)) + "\n:00000001FF\n" + ihex(0, 0x0004, seq(4, 4)) + "\n" +
                          ihex(0, 0x0100, seq(2)) + "\n";
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 2);
    EXPECT_EQ(bl.bytes(0), seq(8));
    EXPECT_EQ(bl[1].StartAddr, 0x100u);
}

TEST(HexfileIhx, SegmentAndLinearBaseAsymmetry) {
    // 02 sets the segment base and clears the linear base; 04 keeps the segment base.
    const std::string f = ihex(4, 0, {0x00, 0x01}) + "\n" +  // linear 0x10000
                           ihex(0, 0x0010, {0xA1}) + "\n" +    // 0x10010
                           ihex(2, 0, {0x12, 0x34}) + "\n" +  // segment 0x12340, linear 0
                           ihex(0, 0x0010, {0xA2}) + "\n" +    // 0x12350
                           ihex(4, 0, {0x00, 0x02}) + "\n" +  // linear 0x20000, segment kept
                           ihex(0, 0x0010, {0xA3}) + "\n";     // 0x20000 + 0x12340 + 0x10
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 3);
    EXPECT_EQ(bl[0].StartAddr, 0x10010u);
    EXPECT_EQ(bl[1].StartAddr, 0x12350u);
    EXPECT_EQ(bl[2].StartAddr, 0x32350u);
}

TEST(HexfileIhx, SkippedTypesAreNotChecksummed) {
    const std::string f = ":00000001FE\n:0400000300001234FF\n:04000005000000CD00\n:00000008ZZ\n" +
                          ihex(0, 0x0000, seq(2)) + "\n:00000001\n";
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 1);
    EXPECT_EQ(bl.bytes(0), seq(2));
}

TEST(HexfileIhx, LinesWithoutColonAreSkipped) {
    const std::string f = "; comment\n\n  :ignored\n" + ihex(0, 0x0020, seq(3)) + "\r\n";
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0x20u);
}

TEST(HexfileIhx, ZeroLengthDataRecordOpensABlock) {
    const std::string f = ihex(0, 0x0000, seq(2)) + "\n" + ihex(0, 0x0002, {}) + "\n" +  // appended: nothing
                          ihex(0, 0x0040, {}) + "\n" +                                      // new empty block
                          ihex(0, 0x0040, seq(3)) + "\n";                                    // continues it
    Blocks bl(4);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 2);
    EXPECT_EQ(bl[0].DataLen, 2u);
    EXPECT_EQ(bl[1].StartAddr, 0x40u);
    EXPECT_EQ(bl.bytes(1), seq(3));
    Blocks b2(2);
    ASSERT_EQ(run(hexfile_convert_ihx, ihex(0, 0x0040, {}) + "\n", b2), 1);
    EXPECT_EQ(b2[0].DataLen, 0u);
    EXPECT_NE(b2[0].pData, nullptr);  // an opened block always has a buffer
}

TEST(HexfileIhx, ChecksumPositionQuirkOfTypes06_07_09Up) {
    // After a data record of 2 bytes the previous checksum sits at character 13.
    // ":00000006" sums to 6 without data, so the byte at 13 must be FA; the characters
    // between (9..12) are not read, and the record's "own" checksum position (9) is ignored.
    const std::string d = ihex(0, 0x0000, seq(2));
    ASSERT_EQ(d.size(), 15u);
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_ihx, d + "\n:0000000600zzFA\n" + ihex(0, 2, seq(1, 2)) + "\n", bl), 1);
    EXPECT_EQ(bl[0].DataLen, 3u);

    Blocks b2(2);  // checksum in the "right" place (9) but not at 13: error
    EXPECT_EQ(run(hexfile_convert_ihx, d + "\n:00000006FA\n", b2), 0);

    Blocks b3(2);  // type 07 and 0x42 after an extended linear address record: position 13
    const std::string f3 = ihex(4, 0, {0x00, 0x01}) + "\n:0000000700zzF9\n:00000042....BE\n" +
                           ihex(0, 0, seq(1)) + "\n";
    ASSERT_EQ(run(hexfile_convert_ihx, f3, b3), 1);
    EXPECT_EQ(b3[0].StartAddr, 0x10000u);

    Blocks b4(2);  // no checked record before: position 0 holds ':' -> invalid
    EXPECT_EQ(run(hexfile_convert_ihx, ":00000006FA\n" + d + "\n", b4), 0);

    Blocks b5(2);  // after a 16-byte data record the position is 41, beyond this short line
    EXPECT_EQ(run(hexfile_convert_ihx, ihex(0, 0, seq(16)) + "\n:00000009F7\n" + d + "\n", b5), 0);

    Blocks b6(2);  // skipped types do not move the position (still 13 after the data record)
    ASSERT_EQ(run(hexfile_convert_ihx, d + "\n:00000001FF\n:00000009....F7\n", b6), 1);
}

TEST(HexfileIhx, ExtendedAddressChecksumFollowsTheValueWhateverTheLength) {
    // Documented choice: the value of 02/04 is the 4 characters at 9, the checksum the
    // 2 at 13 (the length byte only enters the sum), which is also the position that a
    // following type 06/07/09+ record uses.
    const std::string f = ":040000040001F7\n:0000000600zzFA\n" + ihex(0, 0x0010, seq(1)) + "\n";
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl), 1);
    EXPECT_EQ(bl[0].StartAddr, 0x10010u);
}

TEST(HexfileIhx, MalformedRecordsReturnZero) {
    const std::string good = ihex(0, 0x0000, seq(4));  // :04000000 00010203 F6
    const std::vector<std::string> bad = {
        ":",                                     // nothing after the colon
        ":0400000",                              // truncated type
        ":04000000000102",                       // data shorter than the length
        ":0400000000010203",                     // checksum missing
        ":04000000000102030",                    // odd digit count before the checksum
        ":04000000000102G3F6",                   // non-hex
        ":FF00000000",                           // length far beyond the line
        ":02000004080",                          // truncated extended address
        ":020000040800F3",                       // bad checksum on an extended address
        ":0400000000010203F7",                   // bad checksum on a data record (F6)
        ":0X000001FF",                           // length field not hex: the type is read, but...
    };
    for (size_t i = 0; i + 1 < bad.size(); ++i) {
        Blocks bl(2);
        EXPECT_EQ(run(hexfile_convert_ihx, bad[i] + "\n" + good + "\n", bl), 0) << bad[i];
        Blocks b2(2);
        EXPECT_EQ(run(hexfile_convert_ihx, good + "\n" + bad[i], b2), 0) << bad[i];
    }
    // ... a skipped type needs only the type field, so a garbled length does not matter.
    Blocks b3(2);
    EXPECT_EQ(run(hexfile_convert_ihx, bad.back() + "\n" + good + "\n", b3), 1);
    // The type field of a short line must not be taken from the next line.
    Blocks b4(2);
    EXPECT_EQ(run(hexfile_convert_ihx, ":0\n0000001FF\n" + good + "\n", b4), 0);
}

TEST(HexfileIhx, WordAddressUnit) {
    const std::string f = ihex(0, 0x0000, seq(8)) + "\n" + ihex(0, 0x0004, seq(8, 8)) + "\n";
    Blocks bl(2);
    ASSERT_EQ(run(hexfile_convert_ihx, f, bl, 2), 1);
    EXPECT_EQ(bl.bytes(0), seq(16));
}

// ---- text format ----------------------------------------------------------------------

TEST(HexfileTxt, ValuesMostSignificantFirstWithAddressUnit) {
    const std::string f = "# comment line\n"
                          "0x1000 0x11223344\n"
                          "0x1001\t\t287454020\r\n"  // 0x11223344 in decimal, next word address
                          "4098 0xaBcD\n"             // 0x1002, value 0xABCD
                          "#0x2000 1\n";
    Blocks bl(2);
    ASSERT_EQ(run_txt(f, bl, 4), 1);
    EXPECT_EQ(bl[0].StartAddr, 0x1000u);
    EXPECT_EQ(bl.bytes(0), std::vector<uint8_t>({0x11, 0x22, 0x33, 0x44, 0x11, 0x22, 0x33, 0x44, 0, 0, 0xAB,
                                                 0xCD}));
}

TEST(HexfileTxt, TwoAndOneByteValues) {
    Blocks b2(2);
    ASSERT_EQ(run_txt("0x10 0x1234\n0x11 0xABCDEF\n0x20 7\n", b2, 2), 2);
    EXPECT_EQ(b2.bytes(0), std::vector<uint8_t>({0x12, 0x34, 0xCD, 0xEF}));  // low 16 bits
    EXPECT_EQ(b2[1].StartAddr, 0x20u);
    EXPECT_EQ(b2.bytes(1), std::vector<uint8_t>({0x00, 0x07}));
    Blocks b1(2);
    ASSERT_EQ(run_txt("0 1\n0X1 0x2FF\n2 255\n", b1, 1), 1);  // upper-case X in an address
    EXPECT_EQ(b1.bytes(0), std::vector<uint8_t>({0x01, 0xFF, 0xFF}));
}

TEST(HexfileTxt, OtherWidthsOpenBlocksWithoutStoringBytes) {
    Blocks bl(4);
    ASSERT_EQ(run_txt("0x10 1\n0x10 2\n0x20 3\n", bl, 3), 2);
    EXPECT_EQ(bl[0].StartAddr, 0x10u);
    EXPECT_EQ(bl[0].DataLen, 0u);
    EXPECT_NE(bl[0].pData, nullptr);
    EXPECT_EQ(bl[1].StartAddr, 0x20u);
    EXPECT_EQ(bl[1].DataLen, 0u);
    Blocks b0(2);
    EXPECT_EQ(run_txt("0x10 1\n", b0, 0), 0);  // width 0 is no address unit
    EXPECT_EQ(b0[0].StartAddr, 0xFFFFFFFFu);
}

TEST(HexfileTxt, AddressIs64BitTakenAs32) {
    Blocks bl(2);
    // 2^32 + 17 = 0x1_0000_0011 continues the block at 0x10 (low 32 bits of 0x1234567800000010)
    ASSERT_EQ(run_txt("0x1234567800000010 0x55\n4294967313 0x66\n", bl, 1), 1);
    EXPECT_EQ(bl[0].StartAddr, 0x10u);
    EXPECT_EQ(bl.bytes(0), std::vector<uint8_t>({0x55, 0x66}));
    Blocks b2(2);  // decimal beyond 64 bits: taken modulo 2^64, then the low 32 bits
    ASSERT_EQ(run_txt("36893488147419103248 1\n", b2, 1), 1);  // 2 * 2^64 + 16
    EXPECT_EQ(b2[0].StartAddr, 0x10u);
}

TEST(HexfileTxt, BadTokensReturnZero) {
    const std::vector<std::string> bad = {"0x 1",   "0X 1",    "0x10 0x", "0x10 -1", "+5 1",   "0 0X1",
                                          "0x1g 1", "12a 1",   "0x10",    "0x10   ", "10 1.5", " # 1 2",
                                          "0x10 'A'"};
    for (const std::string& b : bad) {
        Blocks bl(2);
        EXPECT_EQ(run_txt("0 1\n" + b + "\n1 2\n", bl, 1), 0) << b;
    }
}

TEST(HexfileTxt, WhiteSpaceLinesSkippedTrailingTokensIgnored) {
    Blocks bl(2);
    ASSERT_EQ(run_txt("  \t \n  0x0  0x41  extra words here\n\t1 66\n", bl, 1), 1);
    EXPECT_EQ(bl.bytes(0), std::vector<uint8_t>({0x41, 66}));
}

TEST(HexfileTxt, TooManyBlocks) {
    Blocks bl(1);
    EXPECT_EQ(run_txt("0 1\n5 2\n", bl, 1), 0);
    EXPECT_TRUE(bl.guard_intact());
}

// ---- flat image -------------------------------------------------------------------------

void set_block(HEX_DATA_BLOCK& b, uint32_t start, const std::vector<uint8_t>& d) {
    b.StartAddr = start;
    b.DataLen = static_cast<uint32_t>(d.size());
    b.pData = static_cast<uint8_t*>(std::malloc(d.empty() ? 1 : d.size()));
    if (!d.empty()) std::memcpy(b.pData, d.data(), d.size());
}

TEST(HexfileImage, GapFilled) {
    HEX_DATA_BLOCK b[2];
    set_block(b[0], 0x0008, {5, 6, 7, 8});
    set_block(b[1], 0x0000, {1, 2, 3, 4});
    std::vector<uint8_t> image(64, 0xEE);
    ASSERT_EQ(hexfile_convert_image(image.data(), b, 2, 1, 0xFF), 12);
    EXPECT_EQ(std::vector<uint8_t>(image.begin(), image.begin() + 13),
              std::vector<uint8_t>({1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 5, 6, 7, 8, 0xEE}));
    EXPECT_EQ(b[0].StartAddr, 0u);  // the caller's array is sorted
    EXPECT_EQ(b[1].StartAddr, 8u);
    hexfile_free_data(b, 2);
}

TEST(HexfileImage, WordUnitGapOverlapAndLargeFill) {
    HEX_DATA_BLOCK b[3];
    set_block(b[0], 0x2000, {0xC0});
    set_block(b[1], 0x0004, {0xB0, 0xB1, 0xB2});  // ends at 4 + 3/2 = 5: the gap to 0x2000 is 0x1FFB words
    set_block(b[2], 0x0000, {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9});  // ends at 5: overlaps
    std::vector<uint8_t> image(0x5000, 0xEE);
    const int n = hexfile_convert_image(image.data(), b, 3, 2, 0x00);
    ASSERT_EQ(n, 10 + 3 + 0x1FFB * 2 + 1);
    EXPECT_EQ(image[9], 0xA9);
    EXPECT_EQ(image[10], 0xB0);
    EXPECT_EQ(image[12], 0xB2);
    for (int i = 13; i < n - 1; ++i) ASSERT_EQ(image[i], 0x00) << i;
    EXPECT_EQ(image[n - 1], 0xC0);
    EXPECT_EQ(image[n], 0xEE);
    hexfile_free_data(b, 3);
}

TEST(HexfileImage, StableSortAndGapFromThePreviousBlockOnly) {
    // Equal start addresses keep their order (A before the empty block). The gap is
    // measured from the block just before: the empty block at 0 ends at 0, so 2 bytes
    // of fill precede the block at 2 although A already reached address 4. Had the sort
    // put the empty block first, A would end at 4 and no fill would be written.
    HEX_DATA_BLOCK b[3];
    set_block(b[0], 0x0002, {0xC0});
    set_block(b[1], 0x0000, {0xA0, 0xA1, 0xA2, 0xA3});
    set_block(b[2], 0x0000, {});
    uint8_t image[16];
    std::memset(image, 0xEE, sizeof image);
    ASSERT_EQ(hexfile_convert_image(image, b, 3, 1, 0x11), 7);
    EXPECT_EQ(b[0].DataLen, 4u);
    EXPECT_EQ(b[1].DataLen, 0u);
    EXPECT_EQ(b[2].StartAddr, 2u);
    EXPECT_EQ(std::vector<uint8_t>(image, image + 8),
              std::vector<uint8_t>({0xA0, 0xA1, 0xA2, 0xA3, 0x11, 0x11, 0xC0, 0xEE}));
    hexfile_free_data(b, 3);
}

TEST(HexfileImage, NothingToDo) {
    uint8_t image[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(hexfile_convert_image(image, nullptr, 0, 1, 0), 0);
    HEX_DATA_BLOCK b[1];
    set_block(b[0], 0, {1});
    EXPECT_EQ(hexfile_convert_image(image, b, 1, 0, 0), 0);  // address unit 0
    EXPECT_EQ(image[0], 0xEE);
    EXPECT_EQ(hexfile_convert_image(image, b, 1, 1, 0), 1);
    EXPECT_EQ(hexfile_free_data(b, 1), 0);

    HEX_DATA_BLOCK two[2];  // no image buffer: nothing written, the blocks keep their order
    set_block(two[0], 8, {1});
    set_block(two[1], 0, {2});
    EXPECT_EQ(hexfile_convert_image(nullptr, two, 2, 1, 0), 0);
    EXPECT_EQ(two[0].StartAddr, 8u);
    hexfile_free_data(two, 2);
}

TEST(HexfileSaveImage, GapRule) {
    std::string path = tmp_path("image.bin");
    HEX_DATA_BLOCK b[3];
    set_block(b[0], 0x0008, {5, 6, 7, 8});
    set_block(b[1], 0x0000, {1, 2, 3, 4});
    set_block(b[2], 12 + 1500, {9});
    EXPECT_EQ(hexfile_save_image(&path[0], b, 3, 1, 0), 4);  // stops at the first gap
    EXPECT_EQ(read_all(path), std::vector<uint8_t>({1, 2, 3, 4}));
    EXPECT_EQ(hexfile_save_image(&path[0], b, 3, 1, 0x100), 4);  // only the low byte counts
    EXPECT_EQ(hexfile_save_image(&path[0], b, 2, 1, 0xAA), 12);  // fill is 0xFF, not FillGaps
    EXPECT_EQ(read_all(path), std::vector<uint8_t>({1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 5, 6, 7, 8}));
    ASSERT_EQ(hexfile_save_image(&path[0], b, 3, 1, 1), 12 + 1500 + 1);
    const std::vector<uint8_t> all = read_all(path);
    ASSERT_EQ(all.size(), 1513u);
    for (size_t i = 12; i < 1512; ++i) ASSERT_EQ(all[i], 0xFF);
    EXPECT_EQ(all[1512], 9);
    EXPECT_EQ(hexfile_save_image(&path[0], b, 0, 1, 1), 0);  // truncates to an empty file
    EXPECT_TRUE(read_all(path).empty());
    std::remove(path.c_str());
    char bad[] = "/nonexistent/polybus/image.bin";
    EXPECT_EQ(hexfile_save_image(bad, b, 3, 1, 1), -1);
    EXPECT_EQ(hexfile_save_image(&path[0], b, 3, 0, 1), -1);
    EXPECT_TRUE(read_all(path).empty());  // not created for an address unit of 0
    hexfile_free_data(b, 3);
}

TEST(HexfileSaveImage, WordUnitGap) {
    std::string path = tmp_path("image2.bin");
    HEX_DATA_BLOCK b[2];
    set_block(b[0], 0x0000, {1, 2});
    set_block(b[1], 0x0003, {3, 4});
    ASSERT_EQ(hexfile_save_image(&path[0], b, 2, 2, 1), 8);
    EXPECT_EQ(read_all(path), std::vector<uint8_t>({1, 2, 0xFF, 0xFF, 0xFF, 0xFF, 3, 4}));
    std::remove(path.c_str());
    hexfile_free_data(b, 2);
}

}  // namespace
