// DBC parser, line handlers: the records built from the tokens of each handled line
// type, and the attribute post-pass that runs once both passes are done.
//
// Numbers follow the C library conversions (leading white space, a sign, as many
// digits as parse; nothing parsable reads 0), done without allocating per token.
#include <cmath>
#include <cstring>
#include <utility>

#include "database/dbc_parser.h"
#include "util/text_scan.h"

using dbc_detail::Tokens;
using polybus::text::append_unquoted;
using polybus::text::for_each_piece;
using polybus::text::is_c_space;
using polybus::text::split_any;
using polybus::text::to_double;
using polybus::text::to_signed;
using polybus::text::to_unsigned;

namespace {

std::string unquoted(std::string_view piece) {
    std::string out;
    out.reserve(piece.size());
    append_unquoted(out, piece);
    return out;
}

// Tokens [from, end) joined with single spaces, double quotes removed.
std::string join_unquoted(const Tokens& tok, size_t from) {
    std::string out;
    for (size_t i = from; i < tok.size(); ++i) {
        if (i > from) out.push_back(' ');
        append_unquoted(out, tok[i]);
    }
    return out;
}

// Two numbers in a token such as "(0.1,-40)" or "[0|100]": the bracket characters
// are removed, the rest is split at `sep`, and only exactly two pieces count.
bool read_pair(std::string_view token, std::string_view brackets, char sep, double& first,
               double& second) {
    char buf[64];
    std::string big;
    char* text = buf;
    if (token.size() > sizeof buf) {
        big.resize(token.size());
        text = big.data();
    }
    size_t n = 0;
    for (char c : token)
        if (brackets.find(c) == std::string_view::npos) text[n++] = c;
    std::string_view pieces[2];
    size_t count = 0;
    for_each_piece(std::string_view(text, n), sep, [&](std::string_view piece) {
        if (count < 2) pieces[count] = piece;
        ++count;
    });
    if (count != 2) return false;
    first = to_double(pieces[0]);
    second = to_double(pieces[1]);
    return true;
}

// Walks from the most significant bit that a Motorola start bit names to the least
// significant one, length - 1 steps of the sawtooth bit order (down within a byte,
// then to bit 7 of the next byte). Closed form of that walk.
uint16_t motorola_lsb(uint16_t start, uint16_t length) {
    uint64_t m = (start / 8u) * 8u + (7u - start % 8u);
    if (length > 0) m += length - 1u;
    return static_cast<uint16_t>((m / 8u) * 8u + (7u - m % 8u));
}

}  // namespace

DBC_MESSAGE* DBC_Decoder::Parser::message_by_id(std::string_view token) {
    uint64_t id = to_unsigned(token);
    if (id > UINT32_MAX) return nullptr;
    int m = db_.findMessageById(static_cast<uint32_t>(id));
    return m < 0 ? nullptr : &db_.messages[static_cast<size_t>(m)];
}

DBC_SIGNAL* DBC_Decoder::Parser::signal_of(DBC_MESSAGE* msg, std::string_view name) {
    if (msg == nullptr) return nullptr;
    int m = static_cast<int>(msg - db_.messages.data());
    int s = db_.findSignal(m, name);
    return s < 0 ? nullptr : &msg->signals[static_cast<size_t>(s)];
}

int DBC_Decoder::Parser::definition(std::string_view quoted_name) {
    std::string& name = name_buf_;
    name.clear();
    append_unquoted(name, quoted_name);
    const auto* hit = db_.index_attr_def_.find(dbc_detail::hash_str(name), [&](const auto& s) {
        return db_.attributeDefinitions[s.a].name == name;
    });
    return hit ? static_cast<int>(hit->a) : -1;
}

void DBC_Decoder::Parser::on_message() {
    if (tok_.size() < 4) return;
    DBC_MESSAGE m;
    fill_message(m, tok_);
    if (m.name.empty()) return;
    db_.messages.push_back(std::move(m));
    uint32_t pos = static_cast<uint32_t>(db_.messages.size() - 1);
    const DBC_MESSAGE& added = db_.messages.back();
    db_.index_msg_name_.insert_first(dbc_detail::hash_str(added.name), pos, 0, [&](const auto& s) {
        return db_.messages[s.a].name == added.name;
    });
    db_.index_id_.insert_first(added.id, pos);
}

void DBC_Decoder::Parser::on_signal() {
    if (tok_.size() < 7 || db_.messages.empty()) return;
    DBC_MESSAGE& msg = db_.messages.back();
    if (msg.signals.capacity() == 0) msg.signals.reserve(4);  // spares the first regrowths
    msg.signals.emplace_back();
    DBC_SIGNAL& sig = msg.signals.back();
    fill_signal(sig, tok_);
    if (sig.name.empty()) {
        msg.signals.pop_back();
        return;
    }
    uint32_t m = static_cast<uint32_t>(db_.messages.size() - 1);
    uint32_t pos = static_cast<uint32_t>(msg.signals.size() - 1);
    db_.index_signal_.insert_first(dbc_detail::hash_signal(m, sig.name), m, pos, [&](const auto& s) {
        return s.a == m && db_.messages[m].signals[s.b].name == sig.name;
    });
}

void DBC_Decoder::Parser::on_comment() {
    if (tok_.size() < 4) return;
    if (tok_[1] == "BO_") {
        if (DBC_MESSAGE* msg = message_by_id(tok_[2])) msg->comment = join_unquoted(tok_, 3);
    } else if (tok_[1] == "SG_") {
        if (DBC_SIGNAL* sig = signal_of(message_by_id(tok_[2]), tok_[3]))
            sig->comment = join_unquoted(tok_, 4);
    }
}

void DBC_Decoder::Parser::on_value_table() {
    if (tok_.size() < 3) return;
    DBC_SIGNAL* sig = signal_of(message_by_id(tok_[1]), tok_[2]);
    if (sig == nullptr) return;
    // The pairs are read from the line text after the signal name, so that a
    // description keeps its own spacing.
    const char* rest = tok_[2].data() + tok_[2].size();
    const char* line_end = tok_.back().data() + tok_.back().size();
    sig->valueTable.clear();
    read_value_table(std::string_view(rest, static_cast<size_t>(line_end - rest)), sig->valueTable);
}

void DBC_Decoder::Parser::on_value_type(std::string_view text) {
    if (tok_.size() < 3) return;
    std::string_view pieces[2];
    size_t count = 0;
    for_each_piece(text, ':', [&](std::string_view piece) {
        if (count < 2) pieces[count] = piece;
        ++count;
    });
    if (count < 2) return;
    uint32_t type = static_cast<uint32_t>(to_unsigned(pieces[1]));
    uint64_t id = to_unsigned(tok_[1]);
    if (id > UINT32_MAX) return;
    std::string_view name = tok_[2];
    for (DBC_MESSAGE& msg : db_.messages) {
        if (msg.id != id) continue;
        for (DBC_SIGNAL& sig : msg.signals)
            if (sig.name == name) DBC_Decoder::setValueType(type, sig);
    }
}

void DBC_Decoder::Parser::on_attribute_definition() {
    DBC_ATTRIBUTE a;
    size_t i = 1;
    if (tok_[1] == "SG_" || tok_[1] == "BO_" || tok_[1] == "BU_") {
        a.objectType = std::string(tok_[1]);
        i = 2;
    }
    if (i < tok_.size()) a.name = unquoted(tok_[i]);
    ++i;
    if (i < tok_.size()) a.valueType = std::string(tok_[i]);
    ++i;
    if (a.valueType == "ENUM") {
        std::string params = join_unquoted(tok_, i);
        for_each_piece(params, ',', [&](std::string_view piece) { a.enumValues.emplace_back(piece); });
    } else if (a.valueType == "INT" || a.valueType == "HEX" || a.valueType == "FLOAT") {
        if (i < tok_.size()) a.minimum = to_double(tok_[i]);
        if (i + 1 < tok_.size()) a.maximum = to_double(tok_[i + 1]);
    }
    db_.attributeDefinitions.push_back(std::move(a));
    uint32_t pos = static_cast<uint32_t>(db_.attributeDefinitions.size() - 1);
    const std::string& name = db_.attributeDefinitions.back().name;
    db_.index_attr_def_.insert_first(dbc_detail::hash_str(name), pos, 0, [&](const auto& s) {
        return db_.attributeDefinitions[s.a].name == name;
    });
}

void DBC_Decoder::Parser::on_attribute_default() {
    int def = definition(tok_[1]);
    if (def < 0) return;
    db_.attributeDefinitions[static_cast<size_t>(def)].value = join_unquoted(tok_, 2);
}

void DBC_Decoder::Parser::on_attribute_value() {
    if (tok_.size() < 3) return;
    std::vector<DBC_ATTRIBUTE>* target = nullptr;
    size_t value_at = 0;
    if (tok_[2] == "BO_") {
        if (tok_.size() < 5) return;
        if (DBC_MESSAGE* msg = message_by_id(tok_[3])) target = &msg->attributes;
        value_at = 4;
    } else if (tok_[2] == "SG_") {
        if (tok_.size() < 6) return;
        if (DBC_SIGNAL* sig = signal_of(message_by_id(tok_[3]), tok_[4])) target = &sig->attributes;
        value_at = 5;
    }
    // Node and network attributes are not kept.
    if (target == nullptr) return;
    int def = definition(tok_[1]);
    if (def < 0) return;
    // Objects that carry attributes usually carry several.
    if (target->capacity() == 0) target->reserve(4);
    target->push_back(db_.attributeDefinitions[static_cast<size_t>(def)]);
    target->back().value = join_unquoted(tok_, value_at);
}

void DBC_Decoder::Parser::read_value_table(std::string_view text, std::map<int32_t, std::string>& table) {
    polybus::text::Cursor c(text);
    for (;;) {
        c.skip_space();
        if (c.at_end()) return;
        const std::string_view number = c.take_until([](char ch) { return is_c_space(ch) || ch == '"'; });
        std::string_view description;
        if (!c.quoted(description)) return;
        table.emplace(static_cast<int32_t>(to_signed(number, 0)), std::string(description));
    }
}


void DBC_Decoder::Parser::fill_message(DBC_MESSAGE& m, const Tokens& tok) {
    // BO_ <id> <name>: <dlc> <publisher>
    if (tok.size() < 4) return;
    uint64_t id = to_unsigned(tok[1], 0);
    m.id = id < 2048 ? static_cast<uint32_t>(id) : (static_cast<uint32_t>(id) | 0x80000000u);
    m.name.reserve(tok[2].size());
    for (char c : tok[2])
        if (c != ':') m.name.push_back(c);
    m.dlc = static_cast<uint32_t>(to_unsigned(tok[3]));
    if (tok.size() > 4) m.publisher = std::string(tok[4]);
    m.isCanFd = 0;
    m.brs = 0;
    std::memset(m.data, 0, sizeof m.data);
    m.initFlag = 1;
    m.cycleTime = 10;
}

void DBC_Decoder::Parser::fill_signal(DBC_SIGNAL& s, const Tokens& tok) {
    // SG_ <name> [<mux>] : <start>|<len>@<order><sign> (<factor>,<offset>) [<min>|<max>] "<unit>" <rx>
    if (tok.size() < 2) return;
    s.name = std::string(tok[1]);
    s.isSigned = 0;
    s.valueType = 0;
    s.multiplexKind = 0;
    s.multiplexValue = 0;
    size_t base = 0;  // shift of the later tokens once the indicator is taken out
    if (tok.size() > 2 && tok[2] != ":") {
        std::string_view ind = tok[2];
        if (ind.find('M') != std::string_view::npos) {
            s.multiplexKind = 2;
        } else if (ind.find('m') != std::string_view::npos) {
            s.multiplexKind = 1;
            std::string rest;
            for (char c : ind)
                if (c != 'm') rest.push_back(c);
            s.multiplexValue = static_cast<uint32_t>(to_unsigned(rest));
        }
        base = 1;
    }
    auto at = [&](size_t i) -> std::string_view {
        return i + base < tok.size() ? tok[i + base] : std::string_view();
    };
    std::string_view bits[3];
    size_t nbits = split_any(at(3), "|@ ", bits, 3);
    if (nbits >= 1) s.startBit = static_cast<uint16_t>(to_unsigned(bits[0]));
    if (nbits >= 2) s.length = static_cast<uint16_t>(to_unsigned(bits[1]));
    if (nbits >= 3) {
        if (!bits[2].empty() && bits[2][0] == '0') s.byteOrder = Motorola;
        if (!bits[2].empty() && bits[2][0] == '1') s.byteOrder = Intel;
        if (bits[2].find('-') != std::string_view::npos)
            s.isSigned = 1;
        else if (bits[2].find('+') != std::string_view::npos)
            s.isSigned = 0;
    }
    if (s.byteOrder == Motorola) s.startBit = motorola_lsb(s.startBit, s.length);
    read_pair(at(4), "()", ',', s.factor, s.offset);
    read_pair(at(5), "[]", '|', s.minimum, s.maximum);

    // The unit runs from the token that opens a quote to the one that closes it; the
    // tokens after it are the receivers.
    size_t first = 6 + base;
    size_t open = first;
    while (open < tok.size() && (tok[open].empty() || tok[open][0] != '"')) ++open;
    if (open >= tok.size()) {
        for (size_t i = first; i < tok.size(); ++i) s.receivers.emplace_back(tok[i]);
        return;
    }
    size_t close = open;
    while (close < tok.size()) {
        std::string_view t = tok[close];
        bool ends = !t.empty() && t.back() == '"' && (close > open || t.size() >= 2);
        if (ends) break;
        ++close;
    }
    size_t last = close < tok.size() ? close : tok.size() - 1;
    s.unit.clear();
    for (size_t i = open; i <= last; ++i) {
        if (i > open) s.unit.push_back(' ');
        append_unquoted(s.unit, tok[i]);
    }
    for (size_t i = last + 1; i < tok.size(); ++i) s.receivers.emplace_back(tok[i]);
}

// ---------------------------------------------------------------------------------
// Construction and passes

namespace {

void post_pass(DBC_Decoder& db) {
    bool brs = false;
    for (const DBC_ATTRIBUTE& def : db.attributeDefinitions) {
        if (def.name == "CANFD_BRS") {
            brs = def.value == "1";
            break;
        }
    }
    for (DBC_MESSAGE& msg : db.messages) {
        for (const DBC_ATTRIBUTE& a : msg.attributes) {
            if (a.name == "GenMsgCycleTime" &&
                (a.valueType == "INT" || a.valueType == "FLOAT" || a.valueType == "HEX")) {
                double v = to_double(a.value);
                int64_t whole = 0;
                if (std::isnan(v))
                    whole = 0;
                else if (v >= 9.2233720368547758e18)
                    whole = INT64_MAX;
                else if (v <= -9.2233720368547758e18)
                    whole = INT64_MIN;
                else
                    whole = static_cast<int64_t>(v);
                msg.cycleTime = static_cast<uint32_t>(whole);
            } else if (a.name == "VFrameFormat" && a.valueType == "ENUM") {
                int64_t index = to_signed(a.value);
                if (index < 0 || static_cast<uint64_t>(index) >= a.enumValues.size()) continue;
                const std::string& text = a.enumValues[static_cast<size_t>(index)];
                if (text == "StandardCAN") {
                    msg.id &= ~0x80000000u;
                    msg.isCanFd = 0;
                } else if (text == "ExtendedCAN" || text == "J1939PG") {
                    msg.id |= 0x80000000u;
                    msg.isCanFd = 0;
                } else if (text == "StandardCAN_FD") {
                    msg.id &= ~0x80000000u;
                    msg.isCanFd = 1;
                    msg.brs = brs ? 1 : 0;
                } else if (text == "ExtendedCAN_FD") {
                    msg.id |= 0x80000000u;
                    msg.isCanFd = 1;
                    msg.brs = brs ? 1 : 0;
                }
            }
        }
    }
}

}  // namespace

bool DBC_Decoder::isReadableFile(const std::string& path) { return polybus::text::is_readable_file(path); }

// Each pass reads the file anew (definitions, then BA_ assignments); one buffer
// serves both.
DBC_Decoder::DBC_Decoder(const std::string& path, const std::string& /*encoding*/) {
    polybus::text::FileText text;
    if (polybus::text::read_file(path, text)) Parser(*this).run(text.view(), true);
    if (polybus::text::read_file(path, text)) Parser(*this).run(text.view(), false);
    post_pass(*this);
    rebuild_indexes();  // the codec tables follow on first use
}

void DBC_Decoder::parseText(DBC_Decoder& db, std::string_view text) {
    std::string_view copy;
    const std::unique_ptr<char[]> padded = polybus::text::pad_copy(text, copy);
    Parser parser(db);
    parser.run(copy, true);
    parser.run(copy, false);
    post_pass(db);
    db.rebuild_indexes();
}

DBC_SIGNAL DBC_Decoder::getSignalValues(const std::vector<std::string>& tokens) {
    DBC_SIGNAL s;
    Parser::fill_signal(s, Tokens(tokens.begin(), tokens.end()));
    return s;
}

std::map<int32_t, std::string> DBC_Decoder::getValueTable(const std::string& text) {
    std::map<int32_t, std::string> table;
    Parser::read_value_table(text, table);
    return table;
}

void DBC_Decoder::setValueType(uint32_t type, DBC_SIGNAL& signal) {
    signal.valueType = (type == 1 || type == 2) ? type : 0;
}

void DBC_Decoder::appendSignalValues(const std::vector<std::string>& tokens, DBC_MESSAGE& record) {
    record.signals.push_back(getSignalValues(tokens));
    reindex();
}
