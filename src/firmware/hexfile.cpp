// Firmware image files: S-record, Intel HEX and text readers into
// caller-supplied HEX_DATA_BLOCK arrays, the flat image and the binary image file.
//
// Every reader walks the memory copy of the file once, line by line, and never reads
// past fileLen: hex fields are decoded with a 256-entry table in which NUL, CR and LF
// (like every other non-hex byte) are invalid, so a record that runs into its line end
// is caught by the same test as a non-hex digit; only the buffer end needs a bounds
// check. The current block's buffer grows geometrically (its capacity is known only
// to the reader), which keeps growth linear in the number of records, and is trimmed
// to DataLen when the block is left, so callers see plain malloc'd buffers of DataLen
// bytes (at least 1) that free() releases.
//
// On a cold conversion of a large file most of the time goes to first-touch page faults
// on the growing block buffer, one trip into the kernel per page. Large buffers are
// therefore prefaulted a window ahead of the data with one madvise(MADV_POPULATE_WRITE)
// call per window, which costs a fraction of the separate faults; at most one window
// beyond the data is committed, and a kernel without the advice simply faults as usual.
#include "polybus/hexfile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Hex digit values 0..15; kBadDigit (bit 4 set) for every other byte.
constexpr uint8_t kBadDigit = 0x10;

constexpr std::array<uint8_t, 256> make_hex_table() {
    std::array<uint8_t, 256> t{};
    for (int c = 0; c < 256; ++c) {
        if (c >= '0' && c <= '9') {
            t[c] = static_cast<uint8_t>(c - '0');
        } else if (c >= 'A' && c <= 'F') {
            t[c] = static_cast<uint8_t>(c - 'A' + 10);
        } else if (c >= 'a' && c <= 'f') {
            t[c] = static_cast<uint8_t>(c - 'a' + 10);
        } else {
            t[c] = kBadDigit;
        }
    }
    return t;
}
constexpr std::array<uint8_t, 256> kHex = make_hex_table();

static_assert(kHex['0'] == 0 && kHex['9'] == 9 && kHex['a'] == 10 && kHex['F'] == 15, "hex table");
static_assert(kHex[0] == kBadDigit && kHex['\r'] == kBadDigit && kHex['\n'] == kBadDigit &&
                  kHex[':'] == kBadDigit && kHex['G'] == kBadDigit,
              "line ends and non-hex bytes are invalid digits");

// Decodes the two hex characters at s into a byte; ORs kBadDigit into bad when either
// is not a hex digit (the returned value is then meaningless).
inline unsigned hex_byte(const uint8_t* s, unsigned& bad) {
    const unsigned hi = kHex[s[0]];
    const unsigned lo = kHex[s[1]];
    bad |= (hi | lo) & kBadDigit;
    return ((hi << 4) | lo) & 0xFFu;
}

inline bool is_line_end(uint8_t c) { return c == '\n' || c == '\r' || c == 0; }

// Returns the first NUL, LF or CR at or after p, or end.
inline const uint8_t* find_line_end(const uint8_t* p, const uint8_t* end) {
    while (p < end && !is_line_end(*p)) ++p;
    return p;
}

// Skips the CR and LF bytes at p (the line end of the line before).
inline const uint8_t* skip_line_ends(const uint8_t* p, const uint8_t* end) {
    while (p < end && (*p == '\n' || *p == '\r')) ++p;
    return p;
}

// The block bookkeeping shared by the three readers.
class BlockBuilder {
public:
    BlockBuilder(HEX_DATA_BLOCK* blocks, long long maxBlocks, uint32_t unit)
        : maxBlocks_(blocks != nullptr && maxBlocks > 0 ? maxBlocks : 0),
          unit_(unit),
          cur_(maxBlocks_ > 0 ? blocks : nullptr) {
        if (cur_ != nullptr) set_empty(*cur_);
    }
    BlockBuilder(const BlockBuilder&) = delete;
    BlockBuilder& operator=(const BlockBuilder&) = delete;
    ~BlockBuilder() { trim(); }

    int count() const { return static_cast<int>(count_); }

    // Appends n bytes (data may be null when n is 0) recorded at address addr.
    // False when a new block would exceed maxBlocks, or when memory runs out.
    bool add(uint32_t addr, const uint8_t* data, size_t n) {
        if (cur_ == nullptr || addr != block_end()) {
            if (count_ >= maxBlocks_) return false;  // tested before blocks[count] is touched
            if (count_ > 0) {
                trim();
                ++cur_;
                set_empty(*cur_);
                cap_ = 0;
                populated_ = 0;
            }
            ++count_;
            cur_->StartAddr = addr;
        }
        const size_t len = cur_->DataLen;
        if (n > UINT32_MAX - len) return false;
        if (!reserve(len + n)) return false;
        if (len + n > populated_) prefault(len, len + n);
        if (n > 0) std::memcpy(cur_->pData + len, data, n);
        cur_->DataLen = static_cast<uint32_t>(len + n);
        return true;
    }

private:
    static void set_empty(HEX_DATA_BLOCK& b) {
        b.StartAddr = 0xFFFFFFFFu;
        b.DataLen = 0;
        b.pData = nullptr;
    }

    uint32_t block_end() const { return cur_->StartAddr + cur_->DataLen / unit_; }

    // Makes room for need bytes; a block that was opened always has a buffer.
    bool reserve(size_t need) {
        if (need <= cap_ && cur_->pData != nullptr) return true;
        size_t cap = cap_ < 64 ? 64 : cap_ * 2;
        if (cap < need) cap = need;
        void* p = std::realloc(cur_->pData, cap);
        if (p == nullptr) return false;
        cur_->pData = static_cast<uint8_t*>(p);
        cap_ = cap;
        populated_ = cur_->DataLen;  // a moved buffer keeps only what realloc copied
        return true;
    }

    // Prefaults the whole pages from the data end (or what an earlier call covered) to a
    // window past need, within the capacity, once the buffer is large enough for the
    // syscall to pay off.
    void prefault(size_t len, size_t need) {
        constexpr size_t kMinCapacity = size_t{1} << 20;
        constexpr size_t kWindow = size_t{1} << 20;
        const size_t start = populated_ > len ? populated_ : len;
        populated_ = cap_ - need > kWindow ? need + kWindow : cap_;  // need <= cap_
#ifdef MADV_POPULATE_WRITE
        if (cap_ < kMinCapacity || !populateWorks_) return;
        static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        const uintptr_t base = reinterpret_cast<uintptr_t>(cur_->pData);
        const uintptr_t from = (base + start + page - 1) & ~(page - 1);
        const uintptr_t to = (base + populated_) & ~(page - 1);
        if (to > from && madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE) != 0) {
            populateWorks_ = false;  // unsupported here: plain page faults from now on
        }
#else
        (void)start;
#endif
    }

    // Gives the unused capacity of the current block back (never to 0 bytes, which
    // realloc would treat as free).
    void trim() {
        if (cur_ == nullptr || cur_->pData == nullptr) return;
        const size_t want = cur_->DataLen > 0 ? cur_->DataLen : 1;
        if (cap_ > want) {
            void* p = std::realloc(cur_->pData, want);
            if (p != nullptr) {
                cur_->pData = static_cast<uint8_t*>(p);
                cap_ = want;
            }
        }
    }

    long long maxBlocks_;
    uint32_t unit_;
    HEX_DATA_BLOCK* cur_;
    long long count_ = 0;
    size_t cap_ = 0;  // capacity of cur_->pData, known for the blocks this reader opened
    size_t populated_ = 0;  // cur_->pData is prefaulted (or needs no prefault) up to here
    bool populateWorks_ = true;
};

// Signed-byte address unit as an unsigned divisor; 0 when it is not at least 1.
uint32_t address_unit(char AddrUnit) {
    const int u = static_cast<signed char>(AddrUnit);
    return u >= 1 ? static_cast<uint32_t>(u) : 0;
}

void sort_blocks(HEX_DATA_BLOCK* blocks, int count) {
    // Bubble sort, kept for its exact ordering of equal addresses: whole records swapped, stops after a pass without swaps.
    bool swapped = true;
    for (int n = count; swapped && n > 1; --n) {
        swapped = false;
        for (int i = 0; i + 1 < n; ++i) {
            if (blocks[i].StartAddr > blocks[i + 1].StartAddr) {
                const HEX_DATA_BLOCK t = blocks[i];
                blocks[i] = blocks[i + 1];
                blocks[i + 1] = t;
                swapped = true;
            }
        }
    }
}

// Fill bytes (in address units * unit bytes) between block i and block i + 1; 0 when
// they overlap or touch.
uint64_t gap_bytes(const HEX_DATA_BLOCK& b, const HEX_DATA_BLOCK& next, uint32_t unit) {
    const uint32_t end = b.StartAddr + b.DataLen / unit;
    if (next.StartAddr <= end) return 0;
    return static_cast<uint64_t>(next.StartAddr - end) * unit;
}

constexpr size_t kFillPiece = 1024;

}  // namespace

extern "C" {

POLYBUS_API int hexfile_load_file(const char* path, void* buf) {
    if (path == nullptr || buf == nullptr) return -1;
    FILE* f = std::fopen(path, "rb");
    if (f == nullptr) return -1;
    auto* out = static_cast<unsigned char*>(buf);
    size_t total = 0;
    for (;;) {
        const size_t got = std::fread(out + total, 1, 1u << 20, f);
        total += got;
        if (got == 0) break;
    }
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed || total > static_cast<size_t>(INT_MAX)) return -1;
    return static_cast<int>(total);
}

POLYBUS_API char* hexfile_get_line(char** cursor, char* line) {
    if (cursor == nullptr || *cursor == nullptr || line == nullptr) return nullptr;
    const char* p = *cursor;
    if (*p == '\0') {
        line[0] = '\0';
        return nullptr;
    }
    const size_t n = std::strcspn(p, "\r\n");
    std::memcpy(line, p, n);
    line[n] = '\0';
    p += n;
    while (*p == '\r' || *p == '\n') ++p;
    *cursor = const_cast<char*>(p);
    return line;
}

POLYBUS_API int hexfile_convert_s19(uint8_t* fileData, int fileLen, HEX_DATA_BLOCK* blocks,
                                    int maxBlocks, char AddrUnit) {
    BlockBuilder builder(blocks, maxBlocks, address_unit(AddrUnit));
    if (fileData == nullptr || fileLen <= 0 || address_unit(AddrUnit) == 0) return 0;

    const uint8_t* p = fileData;
    const uint8_t* const end = fileData + fileLen;
    uint8_t data[256];
    while (p < end && *p != 0) {
        const uint8_t* const line = p;
        const size_t avail = static_cast<size_t>(end - line);
        if (avail < 2 || line[0] != 'S' || line[1] < '1' || line[1] > '3') {
            p = skip_line_ends(find_line_end(line, end), end);
            continue;
        }
        const size_t L = static_cast<size_t>(line[1] - '0') + 1;  // address bytes
        unsigned bad = 0;
        if (avail < 4) return 0;
        const unsigned C = hex_byte(line + 2, bad);
        if (bad) return 0;
        const size_t N = (C - L - 1) & 0xFFu;
        const size_t csPos = 4 + 2 * L + 2 * N;
        if (avail < csPos + 2) return 0;  // the record runs past the input

        unsigned sum = C;
        uint32_t addr = 0;
        for (size_t i = 0; i < L; ++i) {
            const unsigned b = hex_byte(line + 4 + 2 * i, bad);
            addr = (addr << 8) | b;
            sum += b;
        }
        const uint8_t* s = line + 4 + 2 * L;
        for (size_t i = 0; i < N; ++i, s += 2) {
            const unsigned b = hex_byte(s, bad);
            data[i] = static_cast<uint8_t>(b);
            sum += b;
        }
        const unsigned cs = hex_byte(s, bad);
        if (bad || ((~sum) & 0xFFu) != cs) return 0;
        if (N > 0 && !builder.add(addr, data, N)) return 0;
        p = skip_line_ends(find_line_end(s + 2, end), end);
    }
    return builder.count();
}

POLYBUS_API int hexfile_convert_ihx(uint8_t* fileData, int fileLen, HEX_DATA_BLOCK* blocks,
                                    int maxBlocks, char AddrUnit) {
    BlockBuilder builder(blocks, maxBlocks, address_unit(AddrUnit));
    if (fileData == nullptr || fileLen <= 0 || address_unit(AddrUnit) == 0) return 0;

    const uint8_t* p = fileData;
    const uint8_t* const end = fileData + fileLen;
    uint32_t linearBase = 0;
    uint32_t segmentBase = 0;
    size_t lastCsPos = 0;  // character position of the previous checked record's checksum
    uint8_t data[256];
    while (p < end && *p != 0) {
        const uint8_t* const line = p;
        const size_t avail = static_cast<size_t>(end - line);
        if (line[0] != ':') {
            p = skip_line_ends(find_line_end(line, end), end);
            continue;
        }
        if (avail < 9) return 0;  // no room for the record type
        // The type decides whether the rest is read at all; it must lie in this line.
        for (size_t i = 1; i < 7; ++i) {
            if (is_line_end(line[i])) return 0;
        }
        unsigned bad = 0;
        const unsigned type = hex_byte(line + 7, bad);
        if (bad) return 0;
        if (type == 0x01 || type == 0x03 || type == 0x05 || type == 0x08) {
            p = skip_line_ends(find_line_end(line + 9, end), end);
            continue;
        }
        const unsigned LL = hex_byte(line + 1, bad);
        const unsigned aHi = hex_byte(line + 3, bad);
        const unsigned aLo = hex_byte(line + 5, bad);
        if (bad) return 0;
        unsigned sum = LL + aHi + aLo + type;
        const uint8_t* after;  // first character after the checksum
        if (type == 0x00) {
            const size_t csPos = 9 + 2 * static_cast<size_t>(LL);
            if (avail < csPos + 2) return 0;
            const uint8_t* s = line + 9;
            for (unsigned i = 0; i < LL; ++i, s += 2) {
                const unsigned b = hex_byte(s, bad);
                data[i] = static_cast<uint8_t>(b);
                sum += b;
            }
            sum += hex_byte(s, bad);
            if (bad || (sum & 0xFFu) != 0) return 0;
            lastCsPos = csPos;
            const uint32_t addr = ((aHi << 8) | aLo) + linearBase + segmentBase;
            if (!builder.add(addr, data, LL)) return 0;
            after = s + 2;
        } else if (type == 0x02 || type == 0x04) {
            if (avail < 15) return 0;
            const unsigned vHi = hex_byte(line + 9, bad);
            const unsigned vLo = hex_byte(line + 11, bad);
            sum += vHi + vLo + hex_byte(line + 13, bad);
            if (bad || (sum & 0xFFu) != 0) return 0;
            lastCsPos = 13;
            const uint32_t value = (vHi << 8) | vLo;
            if (type == 0x02) {
                segmentBase = value << 4;
                linearBase = 0;
            } else {
                linearBase = value << 16;  // the segment base is kept (intended asymmetry)
            }
            after = line + 15;
        } else {
            // Types 06, 07, 09..FF: no data; the checksum byte sits where the previous
            // checked record had its checksum, within this line.
            const uint8_t* const lineEnd = find_line_end(line + 9, end);
            if (static_cast<size_t>(lineEnd - line) < lastCsPos + 2) return 0;
            sum += hex_byte(line + lastCsPos, bad);
            if (bad || (sum & 0xFFu) != 0) return 0;
            after = lineEnd;
        }
        p = skip_line_ends(find_line_end(after, end), end);
    }
    return builder.count();
}

POLYBUS_API int hexfile_convert_txt(uint8_t* fileData, int fileLen, HEX_DATA_BLOCK* blocks,
                                    uint32_t maxBlocks, uint32_t ValueBytes) {
    BlockBuilder builder(blocks, maxBlocks, ValueBytes);
    if (fileData == nullptr || fileLen <= 0 || ValueBytes == 0) return 0;

    auto is_space = [](uint8_t c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; };
    // Parses the prefix + hex digits or decimal digits, modulo 2^64. The prefix is "0x"
    // or "0X" for an address, "0x" only for a value (the upper-case X is allowed
    // for the address alone). False on any other character or on a prefix without digits.
    auto parse_number = [](const uint8_t* s, const uint8_t* e, bool upperX, uint64_t& out) {
        uint64_t v = 0;
        if (e - s >= 2 && s[0] == '0' && (s[1] == 'x' || (upperX && s[1] == 'X'))) {
            s += 2;
            if (s == e) return false;
            for (; s < e; ++s) {
                const unsigned d = kHex[*s];
                if (d == kBadDigit) return false;
                v = (v << 4) | d;
            }
        } else {
            for (; s < e; ++s) {
                if (*s < '0' || *s > '9') return false;
                v = v * 10 + static_cast<unsigned>(*s - '0');
            }
        }
        out = v;
        return true;
    };

    const uint8_t* p = fileData;
    const uint8_t* const end = fileData + fileLen;
    while (p < end && *p != 0) {
        const uint8_t* const line = p;
        const uint8_t* const lineEnd = find_line_end(line, end);
        p = skip_line_ends(lineEnd, end);
        if (line[0] == '#') continue;

        const uint8_t* s = line;
        while (s < lineEnd && is_space(*s)) ++s;
        if (s == lineEnd) continue;  // only white space
        const uint8_t* const a0 = s;
        while (s < lineEnd && !is_space(*s)) ++s;
        const uint8_t* const a1 = s;
        while (s < lineEnd && is_space(*s)) ++s;
        if (s == lineEnd) return 0;  // no value
        const uint8_t* const v0 = s;
        while (s < lineEnd && !is_space(*s)) ++s;
        const uint8_t* const v1 = s;

        uint64_t addr = 0;
        uint64_t value = 0;
        if (!parse_number(a0, a1, true, addr) || !parse_number(v0, v1, false, value)) return 0;
        const uint32_t v = static_cast<uint32_t>(value);
        const uint8_t bytes[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                                  static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        bool ok;
        switch (ValueBytes) {
            case 4: ok = builder.add(static_cast<uint32_t>(addr), bytes, 4); break;
            case 2: ok = builder.add(static_cast<uint32_t>(addr), bytes + 2, 2); break;
            case 1: ok = builder.add(static_cast<uint32_t>(addr), bytes + 3, 1); break;
            default: ok = builder.add(static_cast<uint32_t>(addr), nullptr, 0); break;
        }
        if (!ok) return 0;
    }
    return builder.count();
}

POLYBUS_API int hexfile_free_data(HEX_DATA_BLOCK* blocks, int count) {
    if (blocks == nullptr) return 0;
    for (int i = 0; i < count; ++i) {
        if (blocks[i].pData != nullptr) std::free(blocks[i].pData);
    }
    return 0;
}

POLYBUS_API int hexfile_convert_image(uint8_t* image, HEX_DATA_BLOCK* blocks, int count,
                                      char AddrUnit, uint8_t FillByte) {
    const uint32_t unit = address_unit(AddrUnit);
    if (unit == 0 || image == nullptr || blocks == nullptr || count <= 0) return 0;
    sort_blocks(blocks, count);
    size_t pos = 0;
    for (int i = 0; i < count; ++i) {
        const HEX_DATA_BLOCK& b = blocks[i];
        if (b.DataLen > 0) std::memcpy(image + pos, b.pData, b.DataLen);
        pos += b.DataLen;
        if (i + 1 == count) break;
        uint64_t fill = gap_bytes(b, blocks[i + 1], unit);
        while (fill > 0) {
            const size_t piece = fill < kFillPiece ? static_cast<size_t>(fill) : kFillPiece;
            std::memset(image + pos, FillByte, piece);
            pos += piece;
            fill -= piece;
        }
    }
    return static_cast<int>(static_cast<unsigned>(pos));
}

POLYBUS_API int hexfile_save_image(char* path, HEX_DATA_BLOCK* blocks, int count, char AddrUnit,
                                   uint32_t FillGaps) {
    const uint32_t unit = address_unit(AddrUnit);
    if (unit == 0 || path == nullptr) return -1;
    if (blocks == nullptr || count < 0) count = 0;
    sort_blocks(blocks, count);
    FILE* f = std::fopen(path, "wb");
    if (f == nullptr) return -1;
    uint8_t ff[kFillPiece];
    std::memset(ff, 0xFF, sizeof ff);
    size_t written = 0;
    for (int i = 0; i < count; ++i) {
        const HEX_DATA_BLOCK& b = blocks[i];
        if (b.DataLen > 0) written += std::fwrite(b.pData, 1, b.DataLen, f);
        if (i + 1 == count) break;
        uint64_t fill = gap_bytes(b, blocks[i + 1], unit);
        if (fill == 0) continue;
        if ((FillGaps & 0xFFu) == 0) break;  // only the blocks before the first gap
        while (fill > 0) {
            const size_t piece = fill < kFillPiece ? static_cast<size_t>(fill) : kFillPiece;
            written += std::fwrite(ff, 1, piece, f);
            fill -= piece;
        }
    }
    std::fclose(f);
    return static_cast<int>(static_cast<unsigned>(written));
}

}  // extern "C"
