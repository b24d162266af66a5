// Firmware image files: behaviour on hand-made inputs. Each expectation follows the
// reading rules or the choices documented in hexfile.h.
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

using Bytes = std::vector<uint8_t>;

// A record's bytes as hex digits, followed by the checksum byte of the given kind.
std::string with_checksum(Bytes rec, bool ones_complement) {
    unsigned sum = 0;
    for (uint8_t b : rec) sum += b;
    rec.push_back(static_cast<uint8_t>(ones_complement ? ~sum : 0x100 - (sum & 0xFF)));
    std::string s;
    char h[3];
    for (uint8_t b : rec) s += (std::snprintf(h, sizeof h, "%02X", b), h);
    return s;
}

// S-record of type t (1, 2, 3): byte count, address of t + 1 bytes, data, checksum.
std::string srec(int t, uint32_t addr, const Bytes& data) {
    Bytes rec = {static_cast<uint8_t>(t + 2 + data.size())};
    for (int i = t; i >= 0; --i) rec.push_back(static_cast<uint8_t>(addr >> (8 * i)));
    rec.insert(rec.end(), data.begin(), data.end());
    return "S" + std::to_string(t) + with_checksum(rec, true);
}

// Intel HEX record: length, 16-bit offset, type, data, checksum.
std::string ihex(unsigned type, unsigned offset, const Bytes& data) {
    Bytes rec = {static_cast<uint8_t>(data.size()), static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset),
                 static_cast<uint8_t>(type)};
    rec.insert(rec.end(), data.begin(), data.end());
    return ":" + with_checksum(rec, false);
}

Bytes seq(size_t n, uint8_t first = 0) {
    Bytes v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(first + i);
    return v;
}

// A block array with sentinel values and one guard element past the capacity, freed
// with its capacity (the documented way after a failed conversion).
struct Blocks {
    explicit Blocks(size_t n) : b(n + 1, HEX_DATA_BLOCK{0x5A5A5A5Au, 0x5A5A5A5Au, nullptr}) {}
    ~Blocks() { hexfile_free_data(b.data(), cap()); }
    HEX_DATA_BLOCK& operator[](size_t i) { return b[i]; }
    int cap() const { return static_cast<int>(b.size() - 1); }
    bool guard_intact() const {
        return b.back().StartAddr == 0x5A5A5A5Au && b.back().DataLen == 0x5A5A5A5Au && b.back().pData == nullptr;
    }
    Bytes bytes(size_t i) const { return Bytes(b[i].pData, b[i].pData + b[i].DataLen); }
    std::vector<HEX_DATA_BLOCK> b;
};

using Reader = int (*)(uint8_t*, int, HEX_DATA_BLOCK*, int, char);
const Reader S19 = hexfile_convert_s19;
const Reader IHX = hexfile_convert_ihx;
// The text reader behind the common signature: ValueBytes is its address unit.
const Reader TXT = [](uint8_t* d, int n, HEX_DATA_BLOCK* b, int max, char unit) {
    return hexfile_convert_txt(d, n, b, static_cast<uint32_t>(max), static_cast<uint32_t>(unit));
};

int run(Reader r, const std::string& text, Blocks& bl, char unit = 1) {
    // An exact-size heap copy, so that a read past fileLen is a sanitizer report.
    Bytes buf(text.begin(), text.end());
    return r(buf.empty() ? nullptr : buf.data(), static_cast<int>(buf.size()), bl.b.data(), bl.cap(), unit);
}

std::string tmp_path(const char* name) {
    return std::string(::testing::TempDir()) + "polybus_hexfile_" + std::to_string(getpid()) + "_" + name;
}

Bytes read_all(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// ---- the three readers: input -> result and block list ------------------------------

struct Want {
    uint32_t start;
    Bytes data;
};
struct Case {
    const char* what;
    Reader read;
    std::string text;
    int count;
    std::vector<Want> blocks;  // blocks[0..) afterwards, also those kept after a failure
    char unit = 1;
    int cap = 4;
};
const uint32_t kNone = 0xFFFFFFFFu;  // StartAddr of the untouched first block

TEST(HexfileReaders, BlockListsOfHandMadeFiles) {
    // One record per line.
    auto s1 = [](uint32_t a, const Bytes& d) { return srec(1, a, d) + "\n"; };
    auto s3 = [](uint32_t a, const Bytes& d) { return srec(3, a, d) + "\n"; };
    auto ix = [](unsigned t, unsigned a, const Bytes& d) { return ihex(t, a, d) + "\n"; };
    const std::string r01 = s1(0, seq(16)) + s1(0x10, seq(16, 16));
    const std::string d2 = ix(0, 0, seq(2));  // its checksum sits at character 13
    std::string bad3 = srec(1, 0x0300, seq(4));
    bad3.back() = bad3.back() == '0' ? '1' : '0';
    std::string lower = srec(1, 0xABCD, {0xDE, 0xAD});
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    lower[0] = 'S';

    const std::vector<Case> cases = {
        // Block bookkeeping: a record continues a block exactly at StartAddr + DataLen / unit.
        {"file order, never merged", S19, r01 + s1(0x100, seq(4)) + s1(0x20, seq(4, 0x80)), 3,
         {{0, seq(32)}, {0x100, seq(4)}, {0x20, seq(4, 0x80)}}},
        // 3 bytes at word 0 end at word 1; 5 bytes end at word 2 (not 3), so word 3 is new.
        {"odd length, word unit", S19, s1(0, seq(3)) + s1(1, seq(2, 3)) + s1(3, seq(1)), 2,
         {{0, seq(5)}, {3, seq(1)}}, 2},
        {"too many blocks, the filled one kept", S19, s1(0, seq(4)) + s1(0x1000, seq(4)), 0, {{0, seq(4)}}, 1, 1},
        // blocks[0] starts empty at 0xFFFFFFFF, so its end is 0xFFFFFFFF too.
        {"first record at all ones joins block 0 uncounted", S19, s3(kNone, seq(1)), 0, {{kNone, seq(1)}}},
        {"address wraps at 32 bits", S19, s3(0xFFFFFFFEu, seq(2)) + s3(0, seq(2, 2)), 1, {{0xFFFFFFFEu, seq(4)}}},
        {"empty input", S19, "", 0, {{kNone, {}}}},
        {"empty input", IHX, "", 0, {{kNone, {}}}},
        {"unit 0", S19, r01, 0, {{kNone, {}}}, 0},
        {"unit -128", S19, r01, 0, {{kNone, {}}}, -128},
        // S-records.
        {"no data records", S19, "S0030000FC\nS9030000FC\n", 0, {{kNone, {}}}},
        {"S0/S5/S7/S8/S9 and junk skipped, S2/S3 read", S19,
         "S00F000068656C6C6F202020202000003C\ngarbage line\n" + srec(2, 0x123456, seq(3)) + "\r\nS5030001FB\n" +
             s3(0x80002000u, seq(5)) + "S70580002000DA\nS8041234565D\nS9030000FC\n",
         2, {{0x123456, seq(3)}, {0x80002000u, seq(5)}}},
        {"lower-case hex", S19, lower + "\n", 1, {{0xABCD, {0xDE, 0xAD}}}},
        {"checksum error in the third record", S19, s1(0x100, seq(4)) + s1(0x200, seq(4)) + bad3 + "\n", 0,
         {{0x100, seq(4)}, {0x200, seq(4)}}},
        {"S1 without data adds nothing", S19, s1(0x10, {}) + s1(0, seq(2)), 1, {{0, seq(2)}}},
        {"S1 without data is checksummed (EC)", S19, "S1030010EB\n" + s1(0, seq(2)), 0, {{kNone, {}}}},
        {"text after the checksum", S19, srec(1, 0, seq(2)) + "  trailing\n", 1, {{0, seq(2)}}},
        // Intel HEX: 04 sets the linear base, 02 the segment base and clears the linear one.
        {"extended linear address", IHX, ":020000040800F2\n" + ix(0, 0, seq(16)), 1, {{0x08000000u, seq(16)}}},
        {"end-of-file record does not end reading", IHX,
         ix(0, 0, seq(4)) + ":00000001FF\n" + ix(0, 4, seq(4, 4)) + ix(0, 0x100, seq(2)), 2,
         {{0, seq(8)}, {0x100, seq(2)}}},
        {"02 clears the linear base, 04 keeps the segment base", IHX,
         ix(4, 0, {0, 1}) + ix(0, 0x10, {0xA1}) + ix(2, 0, {0x12, 0x34}) + ix(0, 0x10, {0xA2}) + ix(4, 0, {0, 2}) +
             ix(0, 0x10, {0xA3}),
         3, {{0x10010, {0xA1}}, {0x12350, {0xA2}}, {0x32350, {0xA3}}}},
        {"01/03/05/08 skipped unchecked", IHX,
         ":00000001FE\n:0400000300001234FF\n:04000005000000CD00\n:00000008ZZ\n" + d2 + ":00000001\n", 1,
         {{0, seq(2)}}},
        {"a skipped type needs no valid length", IHX, ":0X000001FF\n" + d2, 1, {{0, seq(2)}}},
        {"lines without a colon skipped", IHX, "; comment\n\n  :ignored\n" + ihex(0, 0x20, seq(3)) + "\r\n", 1,
         {{0x20, seq(3)}}},
        {"zero-length data records", IHX, d2 + ix(0, 2, {}) + ix(0, 0x40, {}) + ix(0, 0x40, seq(3)), 2,
         {{0, seq(2)}, {0x40, seq(3)}}},
        {"a zero-length record opens a block with a buffer", IHX, ix(0, 0x40, {}), 1, {{0x40, {}}}},
        {"word unit", IHX, ix(0, 0, seq(8)) + ix(0, 4, seq(8, 8)), 1, {{0, seq(16)}}, 2},
        // 06, 07, 09+: checksum at the previous checked record's checksum position.
        {"06 after a 2-byte record: at 13", IHX, d2 + ":0000000600zzFA\n" + ix(0, 2, seq(1, 2)), 1, {{0, seq(3)}}},
        {"06 with its checksum at 9 only", IHX, d2 + ":00000006FA\n", 0, {{0, seq(2)}}},
        {"07 and 42 after an 04: at 13", IHX, ix(4, 0, {0, 1}) + ":0000000700zzF9\n:00000042....BE\n" + ix(0, 0, {0}),
         1, {{0x10000, {0}}}},
        {"06 first: position 0 holds ':'", IHX, ":00000006FA\n" + d2, 0, {{kNone, {}}}},
        {"09 after a 16-byte record: 41 is past the line", IHX, ix(0, 0, seq(16)) + ":00000009F7\n" + d2, 0,
         {{0, seq(16)}}},
        {"skipped types do not move the position", IHX, d2 + ":00000001FF\n:00000009....F7\n", 1, {{0, seq(2)}}},
        // The 02/04 value is the 4 characters at 9 and the checksum the 2 at 13, whatever the length.
        {"04 with length 4", IHX, ":040000040001F7\n:0000000600zzFA\n" + ix(0, 0x10, {0}), 1, {{0x10010, {0}}}},
        // Text: values most significant first, ValueBytes is the address unit.
        {"4-byte values, decimal and hex", TXT,
         "# comment line\n0x1000 0x11223344\n0x1001\t\t287454020\r\n4098 0xaBcD\n#0x2000 1\n", 1,
         {{0x1000, {0x11, 0x22, 0x33, 0x44, 0x11, 0x22, 0x33, 0x44, 0, 0, 0xAB, 0xCD}}}, 4},
        {"2-byte values keep the low 16 bits", TXT, "0x10 0x1234\n0x11 0xABCDEF\n0x20 7\n", 2,
         {{0x10, {0x12, 0x34, 0xCD, 0xEF}}, {0x20, {0x00, 0x07}}}, 2},
        {"1-byte values, 0X in an address", TXT, "0 1\n0X1 0x2FF\n2 255\n", 1, {{0, {0x01, 0xFF, 0xFF}}}},
        {"width 3 opens blocks without bytes", TXT, "0x10 1\n0x10 2\n0x20 3\n", 2, {{0x10, {}}, {0x20, {}}}, 3},
        {"width 0", TXT, "0x10 1\n", 0, {{kNone, {}}}, 0},
        {"64-bit address taken as 32", TXT, "0x1234567800000010 0x55\n4294967313 0x66\n", 1, {{0x10, {0x55, 0x66}}}},
        {"decimal address beyond 64 bits", TXT, "36893488147419103248 1\n", 1, {{0x10, {1}}}},
        {"blank lines skipped, trailing tokens ignored", TXT, "  \t \n  0x0  0x41  extra\n\t1 66\n", 1,
         {{0, {0x41, 66}}}},
        {"too many text blocks", TXT, "0 1\n5 2\n", 0, {{0, {1}}}, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Blocks bl(static_cast<size_t>(c.cap));
        EXPECT_EQ(run(c.read, c.text, bl, c.unit), c.count);
        EXPECT_TRUE(bl.guard_intact());  // blocks[maxBlocks] is never written
        for (size_t i = 0; i < c.blocks.size(); ++i) {
            EXPECT_EQ(bl[i].StartAddr, c.blocks[i].start) << "block " << i;
            // An opened block always has a buffer; the untouched first block has none.
            if (c.blocks[i].start == kNone && c.blocks[i].data.empty()) {
                EXPECT_EQ(bl[i].pData, nullptr);
                EXPECT_EQ(bl[i].DataLen, 0u);
            } else {
                ASSERT_NE(bl[i].pData, nullptr) << "block " << i;
                EXPECT_EQ(bl.bytes(i), c.blocks[i].data) << "block " << i;
            }
        }
    }
}

TEST(HexfileReaders, MalformedRecordsReturnZeroAnywhereInTheFile) {
    const std::string s_good = srec(1, 0, seq(4));  // S1070000 00010203 EE
    const std::string i_good = ihex(0, 0, seq(4));  // :04000000 00010203 F6
    const std::vector<std::pair<Reader, std::string>> bad = {
        {S19, "S1"},                                      // truncated before the byte count
        {S19, "S107000000010203"},                        // checksum missing
        {S19, "S10700000001020"},                         // odd digit count
        {S19, s_good.substr(0, 10) + "G" + s_good.substr(11)},  // non-hex digit
        {S19, "S1FF0000000102EE"},                        // byte count larger than the line
        {S19, "S1000000FF"},                              // byte count below L + 1: N wraps to 253
        {S19, "S1 070000000102 03EE"},                    // space inside the record
        {IHX, ":"},
        {IHX, ":0400000"},                                // truncated type
        {IHX, ":04000000000102"},                         // data shorter than the length
        {IHX, ":0400000000010203"},                       // checksum missing
        {IHX, ":04000000000102030"},                      // odd digit count
        {IHX, ":04000000000102G3F6"},                     // non-hex
        {IHX, ":FF00000000"},                             // length far beyond the line
        {IHX, ":02000004080"},                            // truncated extended address
        {IHX, ":020000040800F3"},                         // bad checksum on an extended address
        {IHX, ":0400000000010203F7"},                     // bad checksum on a data record
        {IHX, ":0\n0000001FF"},                           // the type must not come from the next line
    };
    for (const auto& b : bad) {
        const std::string& good = b.first == S19 ? s_good : i_good;
        Blocks before(2), after(2);
        EXPECT_EQ(run(b.first, b.second + "\n" + good + "\n", before), 0) << b.second;
        EXPECT_EQ(run(b.first, good + "\n" + b.second, after), 0) << b.second;  // at the very end
    }
    for (const char* t : {"0x 1", "0X 1", "0x10 0x", "0x10 -1", "+5 1", "0 0X1", "0x1g 1", "12a 1", "0x10",
                          "0x10   ", "10 1.5", " # 1 2", "0x10 'A'"}) {
        Blocks bl(2);
        EXPECT_EQ(run(TXT, std::string("0 1\n") + t + "\n1 2\n", bl), 0) << t;
    }
}

TEST(HexfileReaders, InputEndsAndCapacities) {
    const std::string a = srec(1, 0, seq(4)) + "\n", b = srec(1, 0x1000, seq(4)) + "\n";
    const std::string text = a + b;
    Bytes buf(text.begin(), text.end());
    const int alen = static_cast<int>(a.size());
    Blocks b1(4), b2(4), b3(4), b4(4), b5(4), zero(1);
    EXPECT_EQ(hexfile_convert_s19(buf.data(), alen, b1.b.data(), 4, 1), 1);      // stops at fileLen
    EXPECT_EQ(hexfile_convert_s19(buf.data(), alen + 6, b2.b.data(), 4, 1), 0);  // record cut by fileLen
    EXPECT_EQ(hexfile_convert_s19(buf.data(), -5, b3.b.data(), 4, 1), 0);
    EXPECT_EQ(run(S19, a + std::string(1, '\0') + b, b4), 1);  // a NUL ends the reading
    EXPECT_EQ(run(S19, a + b.substr(0, b.size() - 1), b5), 2);  // no final line end
    // No block may be filled: the array is not touched at all.
    EXPECT_EQ(hexfile_convert_s19(buf.data(), alen, zero.b.data(), 0, 1), 0);
    EXPECT_EQ(zero[0].StartAddr, 0x5A5A5A5Au);
    EXPECT_EQ(hexfile_convert_s19(buf.data(), alen, nullptr, 5, 1), 0);
    EXPECT_EQ(hexfile_convert_ihx(buf.data(), alen, nullptr, 5, 1), 0);
}

TEST(HexfileReaders, ThreeMegabyteBlockGrowsIntact) {
    // Large enough for the buffer to be moved while growing and prefaulted ahead of the
    // data; the second block starts small again.
    constexpr uint32_t kLen = 3u << 20;
    std::string f;
    f.reserve(kLen / 16 * 48);
    for (uint32_t a = 0; a < kLen; a += 16) f += srec(3, 0x08000000u + a, seq(16, static_cast<uint8_t>(a))) + "\n";
    f += srec(3, 0x09000000u, seq(16, 7)) + "\n";
    Blocks bl(2);
    ASSERT_EQ(run(S19, f, bl), 2);
    ASSERT_EQ(bl[0].DataLen, kLen);
    for (uint32_t i = 0; i < kLen; i += 4099) ASSERT_EQ(bl[0].pData[i], static_cast<uint8_t>(i)) << i;
    EXPECT_EQ(bl[0].pData[kLen - 1], static_cast<uint8_t>(kLen - 1));
    EXPECT_EQ(bl.bytes(1), seq(16, 7));
}

// ---- lines and files ------------------------------------------------------------------

TEST(HexfileGetLine, SplitsAtCrLfAndNul) {
    char text[] = "\nfirst\r\n\r\n\nsecond\rthird\n\0after";
    char line[64];
    char* cur = text;
    ASSERT_EQ(hexfile_get_line(&cur, line), line);  // a leading line end: an empty line, not the end
    EXPECT_STREQ(line, "");
    for (const char* want : {"first", "second", "third"}) {
        ASSERT_EQ(hexfile_get_line(&cur, line), line);
        EXPECT_STREQ(line, want);
    }
    EXPECT_EQ(cur, text + 24);  // every line end skipped
    EXPECT_EQ(hexfile_get_line(&cur, line), nullptr);  // on the NUL: nothing, cursor kept
    EXPECT_EQ(cur, text + 24);
    EXPECT_STREQ(line, "");
    char tail[] = "abc";
    cur = tail;
    ASSERT_EQ(hexfile_get_line(&cur, line), line);
    EXPECT_STREQ(line, "abc");
    EXPECT_EQ(cur, tail + 3);
}

TEST(HexfileLoadFile, WholeFileOrMinusOne) {
    const std::string path = tmp_path("load.bin");
    { std::ofstream(path, std::ios::binary) << std::string("S1\0\r\nxyz", 8); }
    std::vector<char> buf(16, '#');
    EXPECT_EQ(hexfile_load_file(path.c_str(), buf.data()), 8);
    EXPECT_EQ(std::string(buf.data(), 9), std::string("S1\0\r\nxyz#", 9));  // no terminator added
    EXPECT_EQ(hexfile_load_file(path.c_str(), nullptr), -1);
    { std::ofstream empty(path, std::ios::binary | std::ios::trunc); }
    EXPECT_EQ(hexfile_load_file(path.c_str(), buf.data()), 0);
    std::remove(path.c_str());
    EXPECT_EQ(hexfile_load_file("/nonexistent/polybus/x.hex", buf.data()), -1);
    EXPECT_EQ(hexfile_load_file("/", buf.data()), -1);
    EXPECT_EQ(hexfile_load_file(nullptr, buf.data()), -1);
}

// ---- flat image and image file ----------------------------------------------------------

void set_block(HEX_DATA_BLOCK& b, uint32_t start, const Bytes& d) {
    b = HEX_DATA_BLOCK{start, static_cast<uint32_t>(d.size()), static_cast<uint8_t*>(std::malloc(d.size() + 1))};
    if (!d.empty()) std::memcpy(b.pData, d.data(), d.size());
}

// The flat image of copies of the given blocks (nothing may be written past the count);
// `starts` receives the blocks' start addresses in their order afterwards.
Bytes image_of(const std::vector<Want>& in, char unit, uint8_t fill, std::vector<uint32_t>* starts = nullptr) {
    std::vector<HEX_DATA_BLOCK> b(in.size());
    for (size_t i = 0; i < in.size(); ++i) set_block(b[i], in[i].start, in[i].data);
    Bytes image(0x5000, 0xEE);
    const int n = hexfile_convert_image(image.data(), b.data(), static_cast<int>(b.size()), unit, fill);
    EXPECT_EQ(image[static_cast<size_t>(n)], 0xEE);
    for (const HEX_DATA_BLOCK& x : b)
        if (starts != nullptr) starts->push_back(x.StartAddr);
    EXPECT_EQ(hexfile_free_data(b.data(), static_cast<int>(b.size())), 0);
    image.resize(static_cast<size_t>(n));
    return image;
}

TEST(HexfileImage, SortedGapsFilledOverlapsConcatenated) {
    std::vector<uint32_t> starts;
    EXPECT_EQ(image_of({{8, {5, 6, 7, 8}}, {0, {1, 2, 3, 4}}}, 1, 0xFF, &starts),
              Bytes({1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 5, 6, 7, 8}));
    EXPECT_EQ(starts, std::vector<uint32_t>({0, 8}));  // the caller's array is sorted
    // Word unit: B ends at 4 + 3/2 = 5, so 0x1FFB words (several fill pieces) precede C;
    // A ends at 5 as well and overlaps B: concatenated.
    Bytes want = seq(10, 0xA0);
    want.insert(want.end(), {0xB0, 0xB1, 0xB2});
    want.resize(want.size() + 0x1FFB * 2, 0x00);
    want.push_back(0xC0);
    EXPECT_EQ(image_of({{0x2000, {0xC0}}, {4, {0xB0, 0xB1, 0xB2}}, {0, seq(10, 0xA0)}}, 2, 0x00), want);
    // Stable sort, and the gap counts from the block just before: the empty block at 0
    // (kept after A) ends at 0, so 2 fill bytes precede the block at 2 although A
    // already reached 4. An unstable sort would put the empty block first: no fill.
    EXPECT_EQ(image_of({{2, {0xC0}}, {0, seq(4, 0xA0)}, {0, {}}}, 1, 0x11),
              Bytes({0xA0, 0xA1, 0xA2, 0xA3, 0x11, 0x11, 0xC0}));
}

TEST(HexfileImage, NothingToDo) {
    std::vector<uint32_t> starts;
    EXPECT_EQ(image_of({{8, {1}}, {0, {2}}}, 0, 0, &starts), Bytes());  // address unit 0
    EXPECT_EQ(starts, std::vector<uint32_t>({8, 0}));                     // not sorted either
    uint8_t image[1] = {0xEE};
    HEX_DATA_BLOCK b[2];
    set_block(b[0], 8, {1});
    set_block(b[1], 0, {2});
    EXPECT_EQ(hexfile_convert_image(image, nullptr, 0, 1, 0), 0);
    EXPECT_EQ(hexfile_convert_image(nullptr, b, 2, 1, 0), 0);  // no image
    EXPECT_EQ(b[0].StartAddr, 8u);
    hexfile_free_data(b, 2);
}

TEST(HexfileSaveImage, StopsAtTheFirstGapOrFillsWithFF) {
    std::string path = tmp_path("image.bin");
    HEX_DATA_BLOCK b[3];
    set_block(b[0], 8, {5, 6, 7, 8});
    set_block(b[1], 0, {1, 2, 3, 4});
    set_block(b[2], 12 + 1500, {9});
    EXPECT_EQ(hexfile_save_image(&path[0], b, 3, 1, 0), 4);  // stops at the first gap
    EXPECT_EQ(read_all(path), Bytes({1, 2, 3, 4}));
    EXPECT_EQ(hexfile_save_image(&path[0], b, 3, 1, 0x100), 4);  // only the low byte counts
    EXPECT_EQ(hexfile_save_image(&path[0], b, 2, 1, 0xAA), 12);  // fill is 0xFF, not FillGaps
    EXPECT_EQ(read_all(path), Bytes({1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 5, 6, 7, 8}));
    ASSERT_EQ(hexfile_save_image(&path[0], b, 3, 1, 1), 12 + 1500 + 1);
    Bytes want = {1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 5, 6, 7, 8};
    want.resize(1512, 0xFF);
    want.push_back(9);
    EXPECT_EQ(read_all(path), want);
    EXPECT_EQ(hexfile_save_image(&path[0], b, 0, 1, 1), 0);  // truncates to an empty file
    EXPECT_TRUE(read_all(path).empty());
    std::remove(path.c_str());
    char bad[] = "/nonexistent/polybus/image.bin";
    EXPECT_EQ(hexfile_save_image(bad, b, 3, 1, 1), -1);
    EXPECT_EQ(hexfile_save_image(&path[0], b, 3, 0, 1), -1);
    EXPECT_TRUE(read_all(path).empty());  // not created for an address unit of 0
    hexfile_free_data(b, 3);

    set_block(b[0], 0, {1, 2});  // word unit: a gap of 2 words is 4 bytes
    set_block(b[1], 3, {3, 4});
    ASSERT_EQ(hexfile_save_image(&path[0], b, 2, 2, 1), 8);
    EXPECT_EQ(read_all(path), Bytes({1, 2, 0xFF, 0xFF, 0xFF, 0xFF, 3, 4}));
    std::remove(path.c_str());
    hexfile_free_data(b, 2);
}

}  // namespace
