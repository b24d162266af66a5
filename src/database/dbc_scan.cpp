// DBC parser, scanning: a text cut into lines, a line's ';' dropped and the rest split
// at single spaces, the first token choosing the handler.
//
// The parser is deliberately narrow. A line is at most 8191 bytes (a longer one is
// cut there and its rest read as the next line) and ends early at a NUL byte, as in
// a C line buffer. Nothing is joined across lines and unknown lines are skipped.
#include <cstring>

#include "database/dbc_parser.h"
#include "util/text_scan.h"

using dbc_detail::Kind;
using dbc_detail::kLineMax;

namespace {

Kind keyword(std::string_view w) {
    switch (w.size()) {
        case 3:
            if (w == "BO_") return Kind::BO;
            if (w == "SG_") return Kind::SG;
            if (w == "CM_") return Kind::CM;
            if (w == "BA_") return Kind::BA;
            break;
        case 4:
            if (w == "VAL_") return Kind::VAL;
            break;
        case 7:
            if (w == "BA_DEF_") return Kind::BaDef;
            break;
        case 11:
            if (w == "BA_DEF_DEF_") return Kind::BaDefDef;
            break;
        case 12:
            if (w == "SIG_VALTYPE_") return Kind::SigValType;
            break;
        default: break;
    }
    return Kind::None;
}

// First token of a raw line, as it reads once the ';' are removed.
Kind classify(const char* p, size_t n) {
    size_t i = 0;
    while (i < n && (p[i] == ' ' || p[i] == ';')) ++i;
    size_t end = i;
    bool semicolon = false;
    while (end < n && p[end] != ' ') semicolon |= p[end++] == ';';
    if (!semicolon) return keyword(std::string_view(p + i, end - i));
    char t[16];
    size_t k = 0;
    for (; i < end; ++i) {
        if (p[i] == ';') continue;
        if (k == sizeof t) return Kind::None;
        t[k++] = p[i];
    }
    return keyword(std::string_view(t, k));
}

}  // namespace

DBC_Decoder::Parser::Parser(DBC_Decoder& db) : db_(db) {
    scratch_.reset(new char[kLineMax + polybus::text::kPad]());
    db_.invalidate_codec();
}

void DBC_Decoder::Parser::run(std::string_view text, bool definitions) {
    // CR LF ends a line just as LF does: most DBC files come from Windows tools, and
    // a CR kept on the last token would leak into names, comments and attribute
    // values. The length limit and the NUL are those of a C line buffer.
    polybus::text::LineReader lines(text, {kLineMax, true});
    std::string_view l;
    while (lines.next(l)) line(l.data(), l.size(), definitions);
}

void DBC_Decoder::Parser::line(const char* p, size_t n, bool definitions) {
    Kind kind = classify(p, n);
    if (kind == Kind::None) return;
    if ((kind == Kind::BA) == definitions) return;
    std::string_view text(p, n);
    const char* end = p + n;
    const char* semi = polybus::text::find_byte(p, end, ';');
    if (semi < end) {
        char* out = scratch_.get();
        const char* q = p;
        do {
            std::memcpy(out, q, static_cast<size_t>(semi - q));
            out += semi - q;
            q = semi + 1;
            semi = polybus::text::find_byte(q, end, ';');
        } while (semi < end);
        std::memcpy(out, q, static_cast<size_t>(end - q));
        out += end - q;
        text = std::string_view(scratch_.get(), static_cast<size_t>(out - scratch_.get()));
    }
    polybus::text::split_spaces(text, tok_);
    if (tok_.size() < 2) return;
    switch (kind) {
        case Kind::BO: on_message(); break;
        case Kind::SG: on_signal(); break;
        case Kind::CM: on_comment(); break;
        case Kind::VAL: on_value_table(); break;
        case Kind::SigValType: on_value_type(text); break;
        case Kind::BaDef: on_attribute_definition(); break;
        case Kind::BaDefDef: on_attribute_default(); break;
        case Kind::BA: on_attribute_value(); break;
        case Kind::None: break;
    }
}
