// The DBC parser's inner workings, shared by its two files: dbc_scan.cpp cuts the
// text into lines and tokens and picks a handler by the first token; dbc_lines.cpp
// holds the handlers that turn a line's tokens into records.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "database/dbc_decoder.h"

namespace dbc_detail {

using Tokens = std::vector<std::string_view>;

constexpr size_t kLineMax = 8191;  // characters a line buffer of 8192 bytes holds

// The line types the parser handles, by their first token.
enum class Kind { None, BO, SG, CM, VAL, SigValType, BaDef, BaDefDef, BA };

}  // namespace dbc_detail

class DBC_Decoder::Parser {
public:
    // Drops the database's codec tables: signal records may move while the lists grow.
    explicit Parser(DBC_Decoder& db);

    // One pass over a text that is followed by kPad readable bytes: the definitions
    // pass (every handled line type but BA_) or the assignments pass (BA_ only).
    void run(std::string_view text, bool definitions);

    // Records from the tokens of a BO_ / SG_ line, also behind the public token-list
    // members.
    static void fill_message(DBC_MESSAGE& m, const dbc_detail::Tokens& tok);
    static void fill_signal(DBC_SIGNAL& s, const dbc_detail::Tokens& tok);
    // Pairs of an integer and a double-quoted description; reading stops at the first
    // number that no opening quote follows, or at a description that never closes.
    static void read_value_table(std::string_view text, std::map<int32_t, std::string>& table);

private:
    void line(const char* p, size_t n, bool definitions);

    // Handlers; tok_ holds the line's tokens, at least 2 of them.
    void on_message();
    void on_signal();
    void on_comment();
    void on_value_table();
    void on_value_type(std::string_view text);
    void on_attribute_definition();
    void on_attribute_default();
    void on_attribute_value();

    DBC_MESSAGE* message_by_id(std::string_view token);
    DBC_SIGNAL* signal_of(DBC_MESSAGE* msg, std::string_view name);
    int definition(std::string_view quoted_name);

    DBC_Decoder& db_;
    std::unique_ptr<char[]> scratch_;  // a line with its ';' removed
    dbc_detail::Tokens tok_;
    std::string name_buf_;
};
