// Firmware image files on the real files of ../shared/corpus/hex/.
//
// Expectations come from the reading rules, not from another tool: the block lists (file order,
// a record continues a block exactly when its address equals StartAddr + DataLen /
// unit) were worked out by hand from the records, and the image contents are checked
// against a deliberately naive reference decoder below (std::stoul on substrings into a
// byte map), plus a few bytes read directly off the files' text.
#include "polybus/hexfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace {

const std::string kDir = std::string(POLYBUS_CORPUS_DIR) + "/hex/";

struct Expect {
    uint32_t start;
    uint32_t len;
};

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Loads a corpus file through hexfile_load_file into an exact-size buffer.
std::vector<uint8_t> load(const std::string& name) {
    const std::string path = kDir + name;
    const size_t size = read_file(path).size();
    std::vector<uint8_t> buf(size);
    const int n = hexfile_load_file(path.c_str(), buf.data());
    EXPECT_EQ(n, static_cast<int>(size)) << path;
    return buf;
}

struct Converted {
    std::vector<HEX_DATA_BLOCK> blocks;
    int count = 0;
    ~Converted() { hexfile_free_data(blocks.data(), static_cast<int>(blocks.size())); }
};

bool is_ihx(const std::string& name) { return name.size() > 4 && name.substr(name.size() - 4) == ".hex"; }

void convert(const std::vector<uint8_t>& text, bool ihx, char unit, int maxBlocks, Converted& out) {
    std::vector<uint8_t> buf = text;
    out.blocks.assign(static_cast<size_t>(maxBlocks), HEX_DATA_BLOCK{0, 0, nullptr});
    out.count = (ihx ? hexfile_convert_ihx : hexfile_convert_s19)(buf.data(), static_cast<int>(buf.size()),
                                                                  out.blocks.data(), maxBlocks, unit);
}

void expect_blocks(const Converted& c, const std::vector<Expect>& want, const std::string& what) {
    ASSERT_EQ(c.count, static_cast<int>(want.size())) << what;
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(c.blocks[i].StartAddr, want[i].start) << what << " block " << i;
        EXPECT_EQ(c.blocks[i].DataLen, want[i].len) << what << " block " << i;
        EXPECT_NE(c.blocks[i].pData, nullptr) << what << " block " << i;
    }
}

// ---- naive reference decoder: byte address (address * unit + i) -> value -------------

unsigned hexval(const std::string& s, size_t pos, size_t n) {
    return static_cast<unsigned>(std::stoul(s.substr(pos, n), nullptr, 16));
}

std::map<uint64_t, uint8_t> reference_bytes(const std::string& name, unsigned unit) {
    std::map<uint64_t, uint8_t> bytes;
    std::ifstream f(kDir + name, std::ios::binary);
    std::string line;
    uint32_t base = 0;
    while (std::getline(f, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        uint32_t addr = 0;
        size_t pos = 0;
        unsigned n = 0;
        if (is_ihx(name)) {
            if (line.empty() || line[0] != ':') continue;
            const unsigned type = hexval(line, 7, 2);
            if (type == 4) base = hexval(line, 9, 4) << 16;
            if (type != 0) continue;  // the corpus holds 00, 01, 04, 05 only
            n = hexval(line, 1, 2);
            addr = base + hexval(line, 3, 4);
            pos = 9;
        } else {
            if (line.size() < 2 || line[0] != 'S' || line[1] < '1' || line[1] > '3') continue;
            const unsigned L = static_cast<unsigned>(line[1] - '0') + 1;
            n = hexval(line, 2, 2) - L - 1;
            addr = hexval(line, 4, 2 * L);
            pos = 4 + 2 * L;
        }
        for (unsigned i = 0; i < n; ++i) {
            bytes[static_cast<uint64_t>(addr) * unit + i] = static_cast<uint8_t>(hexval(line, pos + 2 * i, 2));
        }
    }
    return bytes;
}

// Checks an image of non-overlapping blocks byte by byte against the reference.
void expect_image(const std::string& name, unsigned unit, const std::vector<uint8_t>& image, uint8_t fill) {
    const auto ref = reference_bytes(name, unit);
    ASSERT_FALSE(ref.empty());
    const uint64_t first = ref.begin()->first;
    const uint64_t last = ref.rbegin()->first;
    ASSERT_EQ(image.size(), last - first + 1) << name;
    size_t mismatches = 0;
    for (uint64_t a = first; a <= last; ++a) {
        const auto it = ref.find(a);
        const uint8_t want = it == ref.end() ? fill : it->second;
        if (image[a - first] != want && ++mismatches < 5) {
            ADD_FAILURE() << name << ": image byte at address 0x" << std::hex << a << " is 0x"
                          << unsigned(image[a - first]) << ", want 0x" << unsigned(want);
        }
    }
    EXPECT_EQ(mismatches, 0u) << name;
}

std::vector<uint8_t> make_image(Converted& c, char unit, uint8_t fill, size_t capacity) {
    std::vector<uint8_t> image(capacity + 64, 0xEE);
    const int n = hexfile_convert_image(image.data(), c.blocks.data(), c.count, unit, fill);
    EXPECT_GE(n, 0);
    EXPECT_LE(static_cast<size_t>(n), capacity);
    EXPECT_EQ(image[static_cast<size_t>(n)], 0xEE);  // nothing past the returned count
    image.resize(static_cast<size_t>(n));
    return image;
}

// ---- the files ---------------------------------------------------------------------

// Every test reads the corpus; without it (a checkout without ../shared) they skip.
class HexfileCorpus : public ::testing::Test {
protected:
    void SetUp() override {
        struct stat st {};
        if (stat(kDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            GTEST_SKIP() << "firmware corpus not found under " << kDir;
        }
    }
};

const std::vector<Expect> kEmptyMain = {{0x400238, 124}, {0x4002B8, 134}, {0x400340, 130}, {0x4003D0, 418},
                                        {0x400574, 9},   {0x400580, 300}, {0x600E10, 552}};

TEST_F(HexfileCorpus, EmptyMainHexExtendedLinearAddressAndGaps) {
    Converted c;
    convert(load("empty_main.hex"), true, 1, 16, c);
    expect_blocks(c, kEmptyMain, "empty_main.hex");
    // The first data record, read off the file: "/lib64/ld-linux-x86-64.so.2" at 0x400238.
    const std::string interp = "/lib64/ld-linux-x86-64.so.2";
    ASSERT_EQ(std::string(reinterpret_cast<char*>(c.blocks[0].pData), interp.size()), interp);
    const std::vector<uint8_t> image = make_image(c, 1, 0xFF, 0x601038 - 0x400238);
    EXPECT_EQ(image.size(), 0x601038u - 0x400238u);
    expect_image("empty_main.hex", 1, image, 0xFF);
}

TEST_F(HexfileCorpus, EmptyMainS19GivesTheSameBlocksAndImage) {
    Converted h, s;
    convert(load("empty_main.hex"), true, 1, 16, h);
    convert(load("empty_main.s19"), false, 1, 16, s);  // S0 + S2 + S8, CRLF
    expect_blocks(s, kEmptyMain, "empty_main.s19");
    ASSERT_EQ(h.count, s.count);
    for (int i = 0; i < h.count; ++i) {
        ASSERT_EQ(h.blocks[i].DataLen, s.blocks[i].DataLen);
        EXPECT_EQ(0, std::memcmp(h.blocks[i].pData, s.blocks[i].pData, h.blocks[i].DataLen)) << i;
    }
    const size_t size = 0x601038 - 0x400238;
    EXPECT_EQ(make_image(h, 1, 0x00, size), make_image(s, 1, 0x00, size));
}

TEST_F(HexfileCorpus, SaveImageOfEmptyMain) {
    Converted c;
    convert(load("empty_main.s19"), false, 1, 16, c);
    std::string path = std::string(::testing::TempDir()) + "polybus_corpus_" + std::to_string(getpid()) + ".bin";
    EXPECT_EQ(hexfile_save_image(&path[0], c.blocks.data(), c.count, 1, 0), 124);  // gap after the first block
    EXPECT_EQ(read_file(path).size(), 124u);
    const int n = hexfile_save_image(&path[0], c.blocks.data(), c.count, 1, 1);
    EXPECT_EQ(n, 0x601038 - 0x400238);
    const std::vector<uint8_t> file = read_file(path);
    EXPECT_EQ(file, make_image(c, 1, 0xFF, 0x601038 - 0x400238));
    std::remove(path.c_str());
}

TEST_F(HexfileCorpus, ElfS19ElevenBlocksWithSmallGaps) {
    const std::vector<Expect> want = {{0x318, 28},  {0x338, 100},  {0x3A0, 36},  {0x3C8, 269},
                                      {0x4D6, 12},  {0x4E8, 224},  {0x1000, 27}, {0x1020, 405},
                                      {0x11B8, 13}, {0x2000, 304}, {0x3DF0, 544}};
    Converted c;
    convert(load("elf.s19"), false, 1, 11, c);  // exactly enough blocks
    expect_blocks(c, want, "elf.s19");
    expect_image("elf.s19", 1, make_image(c, 1, 0xA5, 0x4010 - 0x318), 0xA5);

    Converted few;
    convert(load("elf.s19"), false, 1, 10, few);  // one block short
    EXPECT_EQ(few.count, 0);
    EXPECT_EQ(few.blocks[9].StartAddr, 0x2000u);  // filled so far; freed by Converted
}

TEST_F(HexfileCorpus, NonSortedSegmentsBlocksInFileOrderImageSorted) {
    // 875 S1 records out of address order: 9 runs in file order; sorted, they touch
    // each other up to 0x45CC, then the interrupt vectors at 0xFFBE, 0xFFE4, 0xFFFC.
    const std::vector<Expect> want = {{0x102B, 797}, {0x1000, 43},  {0x4598, 52},  {0x1348, 11431}, {0xFFE4, 2},
                                      {0x3FEF, 134}, {0xFFBE, 2},   {0xFFFC, 4},   {0x4075, 1315}};
    Converted c;
    convert(load("non_sorted_segments.s19"), false, 1, 9, c);
    expect_blocks(c, want, "non_sorted_segments.s19");
    const std::vector<uint8_t> image = make_image(c, 1, 0xFF, 0x10000 - 0x1000);
    for (int i = 0; i + 1 < c.count; ++i) EXPECT_LE(c.blocks[i].StartAddr, c.blocks[i + 1].StartAddr);
    expect_image("non_sorted_segments.s19", 1, image, 0xFF);
    // Read off the file: S105FFBEA59602, S105FFE44002D5, S107FFFCFF00403589.
    EXPECT_EQ(image[0xFFBE - 0x1000], 0xA5);
    EXPECT_EQ(image[0xFFBF - 0x1000], 0x96);
    EXPECT_EQ(image[0xFFE4 - 0x1000], 0x40);
    EXPECT_EQ(image[0xFFE5 - 0x1000], 0x02);
    EXPECT_EQ(std::vector<uint8_t>(image.end() - 4, image.end()), std::vector<uint8_t>({0xFF, 0x00, 0x40, 0x35}));
}

TEST_F(HexfileCorpus, EvkbS3AddressWithBit31Set) {
    Converted c;
    convert(load("evkbimxrt1050_iled_blinky_sdram.s19"), false, 1, 4, c);
    expect_blocks(c, {{0x80002000u, 19368}}, "evkbimxrt1050");
    const uint8_t* d = c.blocks[0].pData;
    EXPECT_EQ(std::vector<uint8_t>(d, d + 8), std::vector<uint8_t>({0x00, 0x20, 0x00, 0x81, 0x05, 0x23, 0x00, 0x80}));
    // Last record S30D80006BA000FFFFFF00A4781F2F: 8 bytes at 0x80006BA0.
    EXPECT_EQ(std::vector<uint8_t>(d + 19360, d + 19368),
              std::vector<uint8_t>({0x00, 0xFF, 0xFF, 0xFF, 0x00, 0xA4, 0x78, 0x1F}));
    expect_image("evkbimxrt1050_iled_blinky_sdram.s19", 1, make_image(c, 1, 0, 19368), 0);
}

TEST_F(HexfileCorpus, CrlfAndLfGiveTheSameResult) {
    std::vector<uint8_t> text = load("evkbimxrt1050_iled_blinky_sdram.s19");
    std::vector<uint8_t> lf;
    for (uint8_t ch : text) {
        if (ch != '\r') lf.push_back(ch);
    }
    ASSERT_LT(lf.size(), text.size());
    Converted a, b;
    convert(text, false, 1, 4, a);
    convert(lf, false, 1, 4, b);
    ASSERT_EQ(a.count, 1);
    ASSERT_EQ(b.count, 1);
    ASSERT_EQ(a.blocks[0].DataLen, b.blocks[0].DataLen);
    EXPECT_EQ(0, std::memcmp(a.blocks[0].pData, b.blocks[0].pData, a.blocks[0].DataLen));
}

TEST_F(HexfileCorpus, Issue4LinearBaseGoingDown) {
    // :020000040002F8, :03000E00A4CFFF7D, :020000040001F9, :04000E00A4CFFFDD9F, :00000001FF
    Converted c;
    convert(load("issue_4_in.hex"), true, 1, 2, c);
    expect_blocks(c, {{0x2000E, 3}, {0x1000E, 4}}, "issue_4_in.hex");
    EXPECT_EQ(std::vector<uint8_t>(c.blocks[1].pData, c.blocks[1].pData + 4),
              std::vector<uint8_t>({0xA4, 0xCF, 0xFF, 0xDD}));
    // Sorted: 0x1000E (4 bytes, ends 0x10012), fill up to 0x2000E, then 3 bytes.
    const std::vector<uint8_t> image = make_image(c, 1, 0x00, 4 + 0xFFFC + 3);
    ASSERT_EQ(image.size(), 4u + 0xFFFCu + 3u);
    EXPECT_EQ(image[4 + 0xFFFC], 0xA4);
    expect_image("issue_4_in.hex", 1, image, 0x00);
    Converted one;
    convert(load("issue_4_in.hex"), true, 1, 1, one);  // two ranges, one block
    EXPECT_EQ(one.count, 0);
}

TEST_F(HexfileCorpus, WordAddressedS2File) {
    Converted w;
    convert(load("in_16bits_word.s19"), false, 2, 4, w);
    expect_blocks(w, {{0x3E8000, 64}}, "in_16bits_word.s19 unit 2");
    EXPECT_EQ(std::vector<uint8_t>(w.blocks[0].pData, w.blocks[0].pData + 6),
              std::vector<uint8_t>({0x01, 0x23, 0xAB, 0xCD, 0x76, 0x1B}));
    expect_image("in_16bits_word.s19", 2, make_image(w, 2, 0xFF, 64), 0xFF);

    // Byte-addressed, the records overlap: three blocks, concatenated in the image.
    Converted b;
    convert(load("in_16bits_word.s19"), false, 1, 4, b);
    expect_blocks(b, {{0x3E8000, 4}, {0x3E8002, 30}, {0x3E8011, 30}}, "in_16bits_word.s19 unit 1");
    const std::vector<uint8_t> image = make_image(b, 1, 0xFF, 64);
    ASSERT_EQ(image.size(), 64u);
    EXPECT_EQ(0, std::memcmp(image.data(), w.blocks[0].pData, 64));
}

TEST_F(HexfileCorpus, MicrobitHex32ByteRecordsOneBlock) {
    Converted c;
    convert(load("2-ghost-music-32.hex"), true, 1, 4, c);
    expect_blocks(c, {{0x0, 0x16BD0}}, "2-ghost-music-32.hex");
    // First record: :200000000000022055FA0000...
    EXPECT_EQ(std::vector<uint8_t>(c.blocks[0].pData, c.blocks[0].pData + 6),
              std::vector<uint8_t>({0x00, 0x00, 0x02, 0x20, 0x55, 0xFA}));
    expect_image("2-ghost-music-32.hex", 1, make_image(c, 1, 0xFF, 0x16BD0), 0xFF);
}

TEST_F(HexfileCorpus, EveryPrefixOfEveryFileIsSafe) {
    // Cutting a file anywhere never reads past the cut (exact-size buffers under the
    // sanitizers) and gives either 0 or a block list that starts like the full one.
    for (const char* name : {"issue_4_in.hex", "in_16bits_word.s19", "empty_main.hex", "elf.s19"}) {
        const std::vector<uint8_t> text = load(name);
        Converted full;
        convert(text, is_ihx(name), 1, 16, full);
        ASSERT_GT(full.count, 0);
        for (size_t cut = 0; cut <= text.size(); cut += (text.size() > 1000 ? 7 : 1)) {
            Converted c;
            convert(std::vector<uint8_t>(text.begin(), text.begin() + cut), is_ihx(name), 1, 16, c);
            ASSERT_LE(c.count, full.count) << name << " cut " << cut;
            for (int i = 0; i < c.count; ++i) {
                ASSERT_EQ(c.blocks[i].StartAddr, full.blocks[i].StartAddr) << name << " cut " << cut;
                ASSERT_LE(c.blocks[i].DataLen, full.blocks[i].DataLen) << name << " cut " << cut;
            }
        }
    }
}

}  // namespace
