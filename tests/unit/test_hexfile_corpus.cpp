// Firmware image files on the real files of ../shared/corpus/hex/.
//
// Expectations come from the reading rules, not from another tool: the block lists (file
// order, a record continues a block exactly when its address equals StartAddr + DataLen /
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

using Bytes = std::vector<uint8_t>;
const std::string kDir = std::string(POLYBUS_CORPUS_DIR) + "/hex/";

Bytes read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Loads a corpus file through hexfile_load_file into an exact-size buffer.
Bytes load(const std::string& name) {
    const std::string path = kDir + name;
    Bytes buf(read_file(path).size());
    EXPECT_EQ(hexfile_load_file(path.c_str(), buf.data()), static_cast<int>(buf.size())) << path;
    return buf;
}

bool is_ihx(const std::string& name) { return name.size() > 4 && name.substr(name.size() - 4) == ".hex"; }

struct Converted {
    Converted(const Bytes& text, bool ihx, char unit, int maxBlocks) : blocks(maxBlocks, HEX_DATA_BLOCK{0, 0, nullptr}) {
        Bytes buf = text;
        count = (ihx ? hexfile_convert_ihx : hexfile_convert_s19)(buf.data(), static_cast<int>(buf.size()),
                                                                  blocks.data(), maxBlocks, unit);
    }
    Converted(const std::string& name, char unit, int maxBlocks) : Converted(load(name), is_ihx(name), unit, maxBlocks) {}
    ~Converted() { hexfile_free_data(blocks.data(), static_cast<int>(blocks.size())); }
    Bytes bytes(int i, size_t from, size_t to) const { return Bytes(blocks[i].pData + from, blocks[i].pData + to); }
    std::vector<HEX_DATA_BLOCK> blocks;
    int count = 0;
};

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
        for (unsigned i = 0; i < n; ++i)
            bytes[static_cast<uint64_t>(addr) * unit + i] = static_cast<uint8_t>(hexval(line, pos + 2 * i, 2));
    }
    return bytes;
}

// The flat image of c; nothing may be written past the returned count.
Bytes make_image(Converted& c, char unit, uint8_t fill, size_t capacity) {
    Bytes image(capacity + 64, 0xEE);
    const int n = hexfile_convert_image(image.data(), c.blocks.data(), c.count, unit, fill);
    EXPECT_GE(n, 0);
    EXPECT_LE(static_cast<size_t>(n), capacity);
    EXPECT_EQ(image[static_cast<size_t>(n)], 0xEE);
    image.resize(static_cast<size_t>(n));
    return image;
}

// Checks an image of non-overlapping blocks byte by byte against the reference.
void expect_image(const std::string& name, unsigned unit, const Bytes& image, uint8_t fill) {
    const auto ref = reference_bytes(name, unit);
    ASSERT_FALSE(ref.empty());
    const uint64_t first = ref.begin()->first, last = ref.rbegin()->first;
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

struct Block {
    uint32_t start, len;
};
const std::vector<Block> kEmptyMain = {{0x400238, 124}, {0x4002B8, 134}, {0x400340, 130}, {0x4003D0, 418},
                                       {0x400574, 9},   {0x400580, 300}, {0x600E10, 552}};

TEST_F(HexfileCorpus, BlockListsAndImages) {
    const struct {
        const char* name;
        char unit;
        int maxBlocks;
        std::vector<Block> blocks;  // empty: more blocks than maxBlocks, result 0
        uint8_t fill;
    } files[] = {
        {"empty_main.hex", 1, 16, kEmptyMain, 0xFF},  // extended linear addresses, gaps
        {"empty_main.s19", 1, 16, kEmptyMain, 0x00},  // S0 + S2 + S8, CR LF
        {"elf.s19", 1, 11, {{0x318, 28}, {0x338, 100}, {0x3A0, 36}, {0x3C8, 269}, {0x4D6, 12}, {0x4E8, 224},
                            {0x1000, 27}, {0x1020, 405}, {0x11B8, 13}, {0x2000, 304}, {0x3DF0, 544}}, 0xA5},
        {"elf.s19", 1, 10, {}, 0},  // one block short
        // 875 S1 records out of address order: 9 runs in file order; sorted, they touch each
        // other up to 0x45CC, then the interrupt vectors at 0xFFBE, 0xFFE4, 0xFFFC.
        {"non_sorted_segments.s19", 1, 9, {{0x102B, 797}, {0x1000, 43}, {0x4598, 52}, {0x1348, 11431}, {0xFFE4, 2},
                                           {0x3FEF, 134}, {0xFFBE, 2}, {0xFFFC, 4}, {0x4075, 1315}}, 0xFF},
        {"evkbimxrt1050_iled_blinky_sdram.s19", 1, 4, {{0x80002000u, 19368}}, 0x00},  // S3, bit 31 set
        // :020000040002F8, :03000E00A4CFFF7D, :020000040001F9, :04000E00A4CFFFDD9F: the base goes down.
        {"issue_4_in.hex", 1, 2, {{0x2000E, 3}, {0x1000E, 4}}, 0x00},
        {"issue_4_in.hex", 1, 1, {}, 0},
        {"in_16bits_word.s19", 2, 4, {{0x3E8000, 64}}, 0xFF},
        {"2-ghost-music-32.hex", 1, 4, {{0x0, 0x16BD0}}, 0xFF},  // 32-byte records
    };
    for (const auto& f : files) {
        SCOPED_TRACE(std::string(f.name) + " max " + std::to_string(f.maxBlocks));
        Converted c(f.name, f.unit, f.maxBlocks);
        ASSERT_EQ(c.count, static_cast<int>(f.blocks.size()));
        if (f.blocks.empty()) continue;
        for (size_t i = 0; i < f.blocks.size(); ++i) {
            EXPECT_EQ(c.blocks[i].StartAddr, f.blocks[i].start) << "block " << i;
            EXPECT_EQ(c.blocks[i].DataLen, f.blocks[i].len) << "block " << i;
            EXPECT_NE(c.blocks[i].pData, nullptr) << "block " << i;
        }
        const auto ref = reference_bytes(f.name, static_cast<unsigned>(f.unit));
        const size_t size = ref.rbegin()->first - ref.begin()->first + 1;
        const Bytes image = make_image(c, f.unit, f.fill, size);
        for (int i = 0; i + 1 < c.count; ++i) EXPECT_LE(c.blocks[i].StartAddr, c.blocks[i + 1].StartAddr);
        expect_image(f.name, static_cast<unsigned>(f.unit), image, f.fill);
    }
}

TEST_F(HexfileCorpus, BytesReadOffTheFilesAndOverlapsInTheImage) {
    // A few bytes read directly off the text, independent of the reference decoder.
    Converted em("empty_main.hex", 1, 16), ev("evkbimxrt1050_iled_blinky_sdram.s19", 1, 4);
    ASSERT_EQ(em.count, 7);
    ASSERT_EQ(ev.count, 1);
    const std::string interp = "/lib64/ld-linux-x86-64.so.2";  // the first record, at 0x400238
    EXPECT_EQ(std::string(reinterpret_cast<char*>(em.blocks[0].pData), interp.size()), interp);
    // Last record S30D80006BA000FFFFFF00A4781F2F: 8 bytes at 0x80006BA0.
    EXPECT_EQ(ev.bytes(0, 19360, 19368), Bytes({0x00, 0xFF, 0xFF, 0xFF, 0x00, 0xA4, 0x78, 0x1F}));
    Converted ns("non_sorted_segments.s19", 1, 9);
    const Bytes image = make_image(ns, 1, 0xFF, 0x10000 - 0x1000);
    ASSERT_EQ(image.size(), 0x10000u - 0x1000u);
    // S105FFBEA59602, S105FFE44002D5, S107FFFCFF00403589.
    EXPECT_EQ(Bytes(image.begin() + 0xEFBE, image.begin() + 0xEFC0), Bytes({0xA5, 0x96}));
    EXPECT_EQ(Bytes(image.begin() + 0xEFE4, image.begin() + 0xEFE6), Bytes({0x40, 0x02}));
    EXPECT_EQ(Bytes(image.end() - 4, image.end()), Bytes({0xFF, 0x00, 0x40, 0x35}));

    // in_16bits_word.s19 byte-addressed: its records overlap, giving three blocks that the
    // image concatenates into the one word-addressed block.
    Converted w("in_16bits_word.s19", 2, 4), by("in_16bits_word.s19", 1, 4);
    ASSERT_EQ(w.count, 1);
    ASSERT_EQ(by.count, 3);
    const Block want[] = {{0x3E8000, 4}, {0x3E8002, 30}, {0x3E8011, 30}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(by.blocks[i].StartAddr, want[i].start) << i;
        EXPECT_EQ(by.blocks[i].DataLen, want[i].len) << i;
    }
    EXPECT_EQ(w.bytes(0, 0, 6), Bytes({0x01, 0x23, 0xAB, 0xCD, 0x76, 0x1B}));
    const Bytes flat = make_image(by, 1, 0xFF, 64);
    ASSERT_EQ(flat.size(), 64u);
    EXPECT_EQ(0, std::memcmp(flat.data(), w.blocks[0].pData, 64));
}

TEST_F(HexfileCorpus, SaveImageOfEmptyMain) {
    Converted c("empty_main.s19", 1, 16);
    std::string path = std::string(::testing::TempDir()) + "polybus_corpus_" + std::to_string(getpid()) + ".bin";
    EXPECT_EQ(hexfile_save_image(&path[0], c.blocks.data(), c.count, 1, 0), 124);  // gap after the first block
    EXPECT_EQ(read_file(path).size(), 124u);
    EXPECT_EQ(hexfile_save_image(&path[0], c.blocks.data(), c.count, 1, 1), 0x601038 - 0x400238);
    EXPECT_EQ(read_file(path), make_image(c, 1, 0xFF, 0x601038 - 0x400238));
    std::remove(path.c_str());
}

TEST_F(HexfileCorpus, EveryPrefixOfEveryFileIsSafe) {
    // Cutting a file anywhere never reads past the cut (exact-size buffers under the
    // sanitizers) and gives either 0 or a block list that starts like the full one.
    for (const char* name : {"issue_4_in.hex", "in_16bits_word.s19", "empty_main.hex", "elf.s19"}) {
        const Bytes text = load(name);
        Converted full(text, is_ihx(name), 1, 16);
        ASSERT_GT(full.count, 0);
        for (size_t cut = 0; cut <= text.size(); cut += (text.size() > 1000 ? 7 : 1)) {
            Converted c(Bytes(text.begin(), text.begin() + cut), is_ihx(name), 1, 16);
            ASSERT_LE(c.count, full.count) << name << " cut " << cut;
            for (int i = 0; i < c.count; ++i) {
                ASSERT_EQ(c.blocks[i].StartAddr, full.blocks[i].StartAddr) << name << " cut " << cut;
                ASSERT_LE(c.blocks[i].DataLen, full.blocks[i].DataLen) << name << " cut " << cut;
            }
        }
    }
}

}  // namespace
