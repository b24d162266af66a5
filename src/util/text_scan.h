// Text scanning shared by the file readers (DBC, LDF, list files): a whole file read
// into one padded buffer, line-at-a-time reading of it, a cursor for token grammars,
// and number conversions with the C library's rules but without its allocations,
// locale or errno.
//
// Nothing here allocates per token: tokens and lines are std::string_view slices of
// the buffer, valid as long as the buffer is.
//
// Typical uses:
//
//   polybus::text::FileText file;                      // line-oriented (DBC, list files)
//   if (!polybus::text::read_file(path, file)) return;
//   polybus::text::LineReader lines(file.view(), {8191, true});
//   std::string_view line;
//   while (lines.next(line)) { ... polybus::text::split_fields(line, ',', fields) ... }
//
//   polybus::text::Cursor c(file.view());              // token grammars (LDF)
//   c.skip_space_and_comments();
//   std::string_view word; double speed;
//   if (c.identifier(word) && c.expect('=') && c.number(speed) && c.expect(';')) ...
//
// Padding: FileText keeps kPad zero bytes after the text, which lets find_byte look at
// 16 bytes at a time past a range's end. Any other text handed to find_byte or
// split_spaces must be followed by kPad readable bytes too (pad_copy makes such a
// copy); Cursor, LineReader without find_byte and the number conversions need no
// padding.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace polybus {
namespace text {

// Readable bytes required after the end of text passed to find_byte / split_spaces.
constexpr size_t kPad = 16;

// White space as isspace() sees it in the C locale.
inline bool is_c_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

inline bool is_ident_start(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

inline bool is_ident_char(char c) { return is_ident_start(c) || (c >= '0' && c <= '9'); }

// Value of a hexadecimal digit, 99 for anything else (so `digit_value(c) < radix`
// tests a digit of any radix up to 16).
inline int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 99;
}

// ---------------------------------------------------------------------------------
// Number conversions. Each reads a prefix of `s` exactly as the C function named
// reads a NUL-terminated string (base 0 aside, see IntText): leading white space, an optional sign, as many
// digits as parse; text without a number reads 0.

// An integer's magnitude and sign as strtoull / strtoll see them, and how many
// bytes of `s` it used (0 when there was no number). Base 0 detects a 0x prefix
// (but, unlike the C functions, reads a leading 0 as decimal, not octal: file
// formats write "017" meaning 17); base 10 and 16 are fixed (16 also accepts 0x).
struct IntText {
    uint64_t magnitude = 0;
    bool negative = false;
    bool overflow = false;  // the magnitude did not fit in 64 bits
    size_t used = 0;
};

inline IntText scan_integer(std::string_view s, int base) {
    IntText r;
    size_t i = 0;
    while (i < s.size() && is_c_space(s[i])) ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) r.negative = s[i++] == '-';
    int radix = base == 16 ? 16 : 10;
    if ((base == 0 || base == 16) && i + 2 < s.size() && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X') &&
        digit_value(s[i + 2]) < 16) {
        radix = 16;
        i += 2;
    }
    const size_t digits = i;
    for (; i < s.size(); ++i) {
        const int d = digit_value(s[i]);
        if (d >= radix) break;
        if (r.magnitude > (UINT64_MAX - static_cast<uint64_t>(d)) / static_cast<uint64_t>(radix))
            r.overflow = true;
        else
            r.magnitude = r.magnitude * static_cast<uint64_t>(radix) + static_cast<uint64_t>(d);
    }
    r.used = i > digits ? i : 0;
    return r;
}

// strtoull: a negative number wraps, overflow saturates at UINT64_MAX.
inline uint64_t to_unsigned(std::string_view s, int base = 10) {
    const IntText t = scan_integer(s, base);
    if (t.overflow) return UINT64_MAX;
    return t.negative ? 0 - t.magnitude : t.magnitude;
}

// strtoll: saturates at both ends.
inline int64_t to_signed(std::string_view s, int base = 10) {
    const IntText t = scan_integer(s, base);
    if (t.negative) {
        if (t.overflow || t.magnitude > static_cast<uint64_t>(INT64_MAX) + 1) return INT64_MIN;
        return static_cast<int64_t>(0 - t.magnitude);
    }
    if (t.overflow || t.magnitude > static_cast<uint64_t>(INT64_MAX)) return INT64_MAX;
    return static_cast<int64_t>(t.magnitude);
}

// strtod for the rare text from_chars does not take (hexadecimal floats, values out
// of range); copies the text to terminate it.
double to_double_c(std::string_view s, size_t* used = nullptr);

// strtod. Decimal text goes through from_chars (locale-independent and correctly
// rounded, as glibc's strtod is); `used`, when given, receives the bytes read.
inline double to_double(std::string_view s, size_t* used = nullptr) {
    if (used != nullptr) *used = 0;
    size_t i = 0;
    while (i < s.size() && is_c_space(s[i])) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    if (i >= s.size()) return 0;
    if (s[i] == '0' && i + 1 < s.size() && (s[i + 1] == 'x' || s[i + 1] == 'X')) return to_double_c(s, used);
    if (s[i] == '+' || s[i] == '-') return 0;
    double v = 0;
    const auto res = std::from_chars(s.data() + i, s.data() + s.size(), v, std::chars_format::general);
    if (res.ec == std::errc::invalid_argument) return 0;
    if (res.ec != std::errc()) return to_double_c(s, used);
    if (used != nullptr) *used = static_cast<size_t>(res.ptr - s.data());
    return negative ? -v : v;
}

// ---------------------------------------------------------------------------------
// Searching and splitting

// First `c` in [p, end), or `end`. Reads up to 15 bytes past `end` (kPad).
inline const char* find_byte(const char* p, const char* end, char c) {
#if defined(__SSE2__)
    const __m128i want = _mm_set1_epi8(c);
    for (; p < end; p += 16) {
        const unsigned m = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), want)));
        if (m != 0) {
            const char* q = p + __builtin_ctz(m);
            return q < end ? q : end;
        }
    }
    return end;
#else
    const void* q = std::memchr(p, c, static_cast<size_t>(end - p));
    return q ? static_cast<const char*>(q) : end;
#endif
}

// Splits at single spaces (only ' ', not tabs), dropping empty pieces. The text must
// be followed by kPad readable bytes.
inline void split_spaces(std::string_view line, std::vector<std::string_view>& out) {
    out.clear();
    const char* p = line.data();
    const char* end = p + line.size();
    for (;;) {
        while (p < end && *p == ' ') ++p;
        if (p >= end) break;
        const char* start = p;
        p = find_byte(p, end, ' ');
        out.emplace_back(start, static_cast<size_t>(p - start));
    }
}

// Calls fn(piece) for the pieces between separators `sep`. Empty pieces are kept
// (",a,,b" gives "", "a", "", "b"), except that a separator at the very end opens no
// further piece ("a," gives just "a"), and empty text gives none.
template <class Fn>
void for_each_piece(std::string_view text, char sep, Fn fn) {
    size_t start = 0;
    while (start < text.size()) {
        const size_t at = text.find(sep, start);
        if (at == std::string_view::npos) {
            fn(text.substr(start));
            return;
        }
        fn(text.substr(start, at - start));
        start = at + 1;
    }
}

// The pieces of for_each_piece collected into `out` (cleared first): the fields of a
// comma-separated line, for example.
inline void split_fields(std::string_view text, char sep, std::vector<std::string_view>& out) {
    out.clear();
    for_each_piece(text, sep, [&out](std::string_view piece) { out.push_back(piece); });
}

// Splits at any of the characters in `seps`, dropping empty pieces. Stores at most
// `max` pieces in `out` and returns how many there are in all.
inline size_t split_any(std::string_view text, std::string_view seps, std::string_view* out, size_t max) {
    size_t n = 0;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && seps.find(text[i]) != std::string_view::npos) ++i;
        if (i >= text.size()) break;
        const size_t start = i;
        while (i < text.size() && seps.find(text[i]) == std::string_view::npos) ++i;
        if (n < max) out[n] = text.substr(start, i - start);
        ++n;
    }
    return n;
}

// Appends `piece` to `out` without its double quotes (all of them, wherever they are).
inline void append_unquoted(std::string& out, std::string_view piece) {
    size_t start = 0;
    for (;;) {
        const size_t quote = piece.find('"', start);
        if (quote == std::string_view::npos) {
            out.append(piece.data() + start, piece.size() - start);
            return;
        }
        out.append(piece.data() + start, quote - start);
        start = quote + 1;
    }
}

// `text` without the characters of `chars` at either end.
inline std::string_view trim(std::string_view text, std::string_view chars = " \t\r\n\v\f") {
    const size_t first = text.find_first_not_of(chars);
    if (first == std::string_view::npos) return std::string_view();
    return text.substr(first, text.find_last_not_of(chars) - first + 1);
}

// ---------------------------------------------------------------------------------
// Files and lines

// A file's bytes followed by kPad zero bytes. Reusing one FileText for several reads
// keeps its buffer.
struct FileText {
    std::unique_ptr<char[]> buf;
    size_t cap = 0;  // bytes available before the padding
    size_t size = 0;
    std::string_view view() const { return std::string_view(buf.get(), size); }
};

// Reads a whole regular file. False (and an empty text) for a path that cannot be
// opened, or that names a directory, device or pipe: such a file would fail every
// read or never end.
bool read_file(const std::string& path, FileText& text);

// True when `path` names a regular file that can be opened for reading.
bool is_readable_file(const std::string& path);

// A copy of `text` followed by kPad zero bytes, for text that does not come from a
// FileText. Returns the copy's buffer; `view` receives the copy.
std::unique_ptr<char[]> pad_copy(std::string_view text, std::string_view& view);

// Line-at-a-time reading of a text. A line ends at LF; one CR at the end of a line
// (before its LF, or at the end of the text) belongs to the line end, for files from
// Windows tools; other CRs are text. The last line needs no LF.
//
// Options reproduce the limits of a reader with a fixed C line buffer:
//   max_length  a longer line is handed out in pieces of max_length bytes, each read
//               as a line of its own (0: no limit);
//   cut_at_nul  a NUL byte ends the line's text (the rest up to the LF is dropped).
class LineReader {
public:
    struct Options {
        size_t max_length = 0;
        bool cut_at_nul = false;
    };

    explicit LineReader(std::string_view text) : LineReader(text, Options{}) {}
    LineReader(std::string_view text, Options options)
        : p_(text.data()), end_(text.data() + text.size()), options_(options) {
        // Most files hold no NUL: one search here spares one per line.
        if (options_.cut_at_nul && std::memchr(p_, '\0', text.size()) == nullptr) options_.cut_at_nul = false;
    }

    // The next line without its end; false after the last one. Line numbers count
    // pieces of a cut line separately.
    bool next(std::string_view& line) {
        if (rest_ == 0) {
            if (p_ >= end_) return false;
            const void* lf = std::memchr(p_, '\n', static_cast<size_t>(end_ - p_));
            const char* line_end = lf != nullptr ? static_cast<const char*>(lf) : end_;
            rest_ = static_cast<size_t>(line_end - p_);
            if (rest_ > 0 && p_[rest_ - 1] == '\r') --rest_;
            after_ = line_end < end_ ? line_end + 1 : end_;
        }
        size_t n = rest_;
        if (options_.max_length != 0 && n > options_.max_length) n = options_.max_length;
        const char* start = p_;
        rest_ -= n;
        p_ = rest_ == 0 ? after_ : p_ + n;
        if (options_.cut_at_nul)
            if (const void* nul = std::memchr(start, '\0', n)) n = static_cast<size_t>(static_cast<const char*>(nul) - start);
        ++number_;
        line = std::string_view(start, n);
        return true;
    }

    // 1-based number of the line handed out last (0 before the first).
    size_t line_number() const { return number_; }

private:
    const char* p_;
    const char* end_;
    const char* after_ = nullptr;  // start of the line after the current one
    size_t rest_ = 0;              // bytes of the current line not handed out yet
    size_t number_ = 0;
    Options options_;
};

// ---------------------------------------------------------------------------------
// Cursor: a position in a text, for grammars read token by token. Every reading
// member either consumes what it read and returns true, or leaves the position
// unchanged and returns false, so alternatives can be tried in turn. Members that
// read a token skip white space first.
class Cursor {
public:
    explicit Cursor(std::string_view text) : p_(text.data()), begin_(text.data()), end_(text.data() + text.size()) {}

    bool at_end() const { return p_ >= end_; }
    // The next byte, or '\0' at the end.
    char peek() const { return p_ < end_ ? *p_ : '\0'; }
    size_t offset() const { return static_cast<size_t>(p_ - begin_); }
    std::string_view rest() const { return std::string_view(p_, static_cast<size_t>(end_ - p_)); }
    // 1-based line of the current position (counts LFs before it; for messages).
    size_t line() const;

    void skip_space() {
        while (p_ < end_ && is_c_space(*p_)) ++p_;
    }
    // White space, "// ..." line comments and "/* ... */" block comments (an
    // unclosed block comment runs to the end).
    void skip_space_and_comments();
    // Skips white space, then consumes `c` when it is next.
    bool expect(char c) {
        const char* q = p_;
        while (q < end_ && is_c_space(*q)) ++q;
        if (q < end_ && *q == c) {
            p_ = q + 1;
            return true;
        }
        return false;
    }
    // Skips white space, then consumes `word` when it is next as a whole word (not
    // followed by an identifier character).
    bool keyword(std::string_view word);
    // [A-Za-z_][A-Za-z0-9_]*
    bool identifier(std::string_view& out);
    // A double-quoted string without escapes; `out` is the text between the quotes.
    // False when no quote opens here or none closes it.
    bool quoted(std::string_view& out);
    // Bytes up to (not including) the first one for which stop(c) is true, or to the
    // end; no white space is skipped. Always succeeds, possibly with an empty token.
    template <class Stop>
    std::string_view take_until(Stop stop) {
        const char* start = p_;
        while (p_ < end_ && !stop(*p_)) ++p_;
        return std::string_view(start, static_cast<size_t>(p_ - start));
    }
    // Bytes up to the next white space or end.
    std::string_view word() {
        skip_space();
        return take_until(is_c_space);
    }
    // An integer with an optional sign, decimal or hexadecimal with 0x. Out-of-range
    // values saturate as in strtoll / strtoull (a negative unsigned one wraps).
    bool integer(int64_t& out);
    bool unsigned_integer(uint64_t& out);
    // A decimal floating-point number (strtod syntax, also hexadecimal with 0x).
    bool number(double& out);

private:
    // The integer's text at the cursor (after white space), moving past it; empty, with
    // the cursor where it was, when there is none.
    std::string_view integer_text();

    const char* p_;
    const char* begin_;
    const char* end_;
};

}  // namespace text
}  // namespace polybus
