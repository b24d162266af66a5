// Text scanning shared by the file readers: number conversions against the C library,
// line reading, splitting, the cursor and whole-file reading.
#include "util/text_scan.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace polybus::text;

namespace {

// The conversions promise the C library's results; the C library is the reference.
TEST(TextScanNumbers, IntegersAgreeWithStrtoullAndStrtoll) {
    const char* inputs[] = {"",      "  42",  "-1",  "+7x",  "0x1F", "0X1f;", "0x",   "0xg",  " \t-0x10",
                            "abc",   "-",   "+-1",  "12 34", "18446744073709551615",
                            "18446744073709551616", "99999999999999999999999", "-9223372036854775808",
                            "-9223372036854775809", "9223372036854775807", "9223372036854775808", "-0"};
    for (const char* in : inputs) {
        for (int base : {0, 10, 16}) {
            SCOPED_TRACE(std::string("\"") + in + "\" base " + std::to_string(base));
            EXPECT_EQ(to_unsigned(in, base), std::strtoull(in, nullptr, base));
            EXPECT_EQ(to_signed(in, base), std::strtoll(in, nullptr, base));
            char* stop = nullptr;
            std::strtoll(in, &stop, base);
            EXPECT_EQ(scan_integer(in, base).used, static_cast<size_t>(stop - in));
        }
    }
    // Base 0 knows decimal and 0x only: a leading zero does not make a number octal.
    EXPECT_EQ(to_unsigned("017", 0), 17u);
    EXPECT_EQ(to_signed("-010", 0), -10);
    // Only the view's bytes count, not what follows them in memory.
    EXPECT_EQ(to_unsigned(std::string_view("12345", 2)), 12u);
    EXPECT_EQ(to_signed(std::string_view("-0x7F", 4), 0), -7);
}

TEST(TextScanNumbers, DoublesAgreeWithStrtodBitForBit) {
    const char* inputs[] = {"0.1",   " -40",    "1e5",       "1.5e-3", "+.5",     "5.",   "-0",
                            "abc",   "",        "-",         "+-1",    "1e400",   "-1e-400", "0x1p3",
                            "0x",    "inf",     "-Infinity", "1e",     "1.2.3",   "3|4",  "0.30000000000000004",
                            "2.2250738585072014e-308",  "4.9e-324", "123456789012345678901234567890"};
    for (const char* in : inputs) {
        SCOPED_TRACE(std::string("\"") + in + "\"");
        char* stop = nullptr;
        const double want = std::strtod(in, &stop);
        size_t used = 99;
        const double got = to_double(in, &used);
        EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << got << " vs " << want;
        EXPECT_EQ(used, static_cast<size_t>(stop - in));
    }
    EXPECT_TRUE(std::isnan(to_double("nan")));
    EXPECT_EQ(to_double(std::string_view("2.75", 3)), 2.7);
}

std::vector<std::string> all_lines(std::string_view text, LineReader::Options options = {}) {
    LineReader r(text, options);
    std::vector<std::string> out;
    std::string_view line;
    while (r.next(line)) out.emplace_back(line);
    EXPECT_EQ(r.line_number(), out.size());
    return out;
}

using Lines = std::vector<std::string>;

TEST(TextScanLines, CrLfEndsALineAndEveryOtherByteStays) {
    EXPECT_EQ(all_lines(""), Lines{});
    EXPECT_EQ(all_lines("\n"), Lines{""});
    EXPECT_EQ(all_lines("a\r\n\r\nb"), (Lines{"a", "", "b"}));
    // A CR elsewhere than at the end of a line is text.
    EXPECT_EQ(all_lines("a\rb\r\r\nc\r"), (Lines{"a\rb\r", "c"}));
    EXPECT_EQ(all_lines(std::string("x\0y\nz", 5)), (Lines{std::string("x\0y", 3), "z"}));
}

TEST(TextScanLines, LongLinesComeInPiecesAndNulCutsEachPiece) {
    const LineReader::Options cut{4, true};
    EXPECT_EQ(all_lines("abcdefghij\r\n12345678\nxy", cut), (Lines{"abcd", "efgh", "ij", "1234", "5678", "xy"}));
    EXPECT_EQ(all_lines("abcd\r\n", cut), (Lines{"abcd"}));  // the CR does not make it longer
    EXPECT_EQ(all_lines(std::string("ab\0cdef\0gh\nij", 13), cut), (Lines{"ab", "def", "gh", "ij"}));
}

TEST(TextScanSplitting, PiecesFieldsAndTokens) {
    std::vector<std::string_view> f;
    split_fields(",a,,b,", ',', f);
    EXPECT_EQ(f, (std::vector<std::string_view>{"", "a", "", "b"}));  // no piece after the last comma
    split_fields("", ',', f);
    EXPECT_TRUE(f.empty());

    std::string_view padded;
    auto keep = pad_copy("  BO_ 12\tX:  8 ", padded);
    split_spaces(padded, f);
    EXPECT_EQ(f, (std::vector<std::string_view>{"BO_", "12\tX:", "8"}));  // only ' ' separates

    std::string_view pieces[2];
    EXPECT_EQ(split_any("|7|@1+|x", "|@", pieces, 2), 3u);
    EXPECT_EQ(pieces[0], "7");
    EXPECT_EQ(pieces[1], "1+");

    std::string s = "<";
    append_unquoted(s, "\"a\"b\"");
    EXPECT_EQ(s, "<ab");
    EXPECT_EQ(trim(" \t x y \r\n"), "x y");
    EXPECT_EQ(trim("   "), "");
}

TEST(TextScanCursor, TokensOfAGrammarAndFailuresThatDoNotMove) {
    Cursor c("  LIN_speed = 19.2 kbps;\n Node_1 { \"a b\" -0x10 42 } \"open");
    std::string_view w;
    EXPECT_FALSE(c.keyword("LIN"));  // not a whole word
    EXPECT_TRUE(c.keyword("LIN_speed"));
    EXPECT_FALSE(c.expect(';'));
    EXPECT_TRUE(c.expect('='));
    EXPECT_FALSE(c.identifier(w));  // a number comes next
    Cursor d(c.rest());
    int64_t i = 0;
    EXPECT_TRUE(c.integer(i));  // an integer ends at the decimal point
    EXPECT_EQ(i, 19);
    EXPECT_EQ(c.peek(), '.');
    double x = 0;
    EXPECT_TRUE(d.number(x));
    EXPECT_EQ(x, 19.2);
    EXPECT_EQ(d.word(), "kbps;");
    EXPECT_EQ(d.line(), 1u);
    EXPECT_TRUE(d.identifier(w));
    EXPECT_EQ(w, "Node_1");
    EXPECT_EQ(d.line(), 2u);
    EXPECT_TRUE(d.expect('{'));
    const size_t before = d.offset();
    EXPECT_FALSE(d.number(x));
    EXPECT_FALSE(d.integer(i));
    EXPECT_EQ(d.offset(), before);
    EXPECT_TRUE(d.quoted(w));
    EXPECT_EQ(w, "a b");
    EXPECT_TRUE(d.integer(i));
    EXPECT_EQ(i, -16);
    uint64_t u = 0;
    EXPECT_TRUE(d.unsigned_integer(u));
    EXPECT_EQ(u, 42u);
    EXPECT_TRUE(d.expect('}'));
    EXPECT_FALSE(d.quoted(w));  // never closed
    EXPECT_EQ(d.take_until([](char ch) { return ch == 'p'; }), " \"o");
    EXPECT_EQ(d.peek(), 'p');
    EXPECT_EQ(d.word(), "pen");
    EXPECT_TRUE(d.at_end());
    EXPECT_EQ(d.peek(), '\0');
    EXPECT_FALSE(d.expect('x'));
}

TEST(TextScanCursor, CommentsAreWhiteSpace) {
    Cursor c(" // one\n/* two\n */ /x /* never closed");
    c.skip_space_and_comments();
    EXPECT_EQ(c.peek(), '/');
    EXPECT_EQ(c.line(), 3u);
    EXPECT_EQ(c.word(), "/x");
    c.skip_space_and_comments();
    EXPECT_TRUE(c.at_end());
}

TEST(TextScanFiles, WholeFilesWithPaddingAndRefusals) {
    char name[] = "/tmp/polybus_scan_XXXXXX";
    const int fd = ::mkstemp(name);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "a\r\nb", 4), 4);
    ::close(fd);
    FileText t;
    ASSERT_TRUE(read_file(name, t));
    EXPECT_EQ(t.view(), "a\r\nb");
    for (size_t i = 0; i < kPad; ++i) EXPECT_EQ(t.buf[t.size + i], '\0');
    EXPECT_TRUE(is_readable_file(name));
    ::unlink(name);
    EXPECT_FALSE(read_file(name, t));
    EXPECT_EQ(t.size, 0u);
    EXPECT_FALSE(read_file("/tmp", t));  // a directory is not a text
    EXPECT_FALSE(is_readable_file("/tmp"));
}

}  // namespace
