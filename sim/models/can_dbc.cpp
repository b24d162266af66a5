#include "can_dbc.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace polybus_sim {

const DbcSignal* DbcMessage::signal(const std::string& n) const {
    for (auto& s : signals)
        if (s.name == n) return &s;
    return nullptr;
}

const DbcMessage* DbcFile::message(const std::string& n) const {
    for (auto& m : messages)
        if (m.name == n) return &m;
    return nullptr;
}

namespace {

bool read_text(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::stringstream ss;
    ss << in.rdbuf();
    text = ss.str();
    return true;
}

// Next bit towards the least significant end in Motorola (sawtooth) numbering.
unsigned motorola_next(unsigned pos) { return pos % 8 == 0 ? pos + 15 : pos - 1; }

}  // namespace

bool read_dbc(const std::string& path, DbcFile& out, int& line, std::string& error) {
    std::string text;
    if (!read_text(path, text)) {
        line = 0;
        error = "DBC file not found or unreadable: " + path;
        return false;
    }
    return parse_dbc(text, out, line, error);
}

namespace {

// A cursor over one line of a DBC file.
struct Cursor {
    const std::string& s;
    size_t i = 0;
    void skip() {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    }
    bool eat(char c) {
        skip();
        if (i < s.size() && s[i] == c) {
            ++i;
            return true;
        }
        return false;
    }
    std::string word() {  // up to white space or one of the DBC punctuation marks
        skip();
        const size_t b = i;
        while (i < s.size() && s[i] != ' ' && s[i] != '\t' && s[i] != ':' && s[i] != '|' && s[i] != '@' &&
               s[i] != '(' && s[i] != ')' && s[i] != ',' && s[i] != '[' && s[i] != ']' && s[i] != ';')
            ++i;
        return s.substr(b, i - b);
    }
    bool unsigned_number(unsigned long long& v) {
        const std::string w = word();
        if (w.empty() || w.find_first_not_of("0123456789") != std::string::npos || w.size() > 19) return false;
        v = std::strtoull(w.c_str(), nullptr, 10);
        return true;
    }
    bool real(double& v) {
        const std::string w = word();
        char* end = nullptr;
        v = std::strtod(w.c_str(), &end);
        return !w.empty() && *end == '\0';
    }
};

bool identifier(const std::string& w) {
    if (w.empty() || std::isdigit(static_cast<unsigned char>(w[0]))) return false;
    for (char c : w)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
    return true;
}

// BO_ ID NAME: LENGTH [SENDER]
bool read_message(const std::string& line, DbcMessage& msg, uint32_t& raw_id, std::string& error) {
    Cursor c{line};
    c.word();  // BO_
    unsigned long long id = 0, length = 0;
    if (!c.unsigned_number(id) || id > 0xFFFFFFFFull) return (error = "malformed BO_ line: identifier"), false;
    msg.name = c.word();
    if (!identifier(msg.name) || !c.eat(':') || !c.unsigned_number(length))
        return (error = "malformed BO_ line: expected NAME: LENGTH"), false;
    if (length > 64) return (error = "message '" + msg.name + "' is longer than 64 bytes"), false;
    raw_id = uint32_t(id);
    msg.extended = (id & 0x80000000ull) != 0 || (id & 0x1FFFFFFFull) > 0x7FF;
    msg.id = uint32_t(id & 0x1FFFFFFFull);
    msg.length = unsigned(length);
    return true;
}

// SG_ NAME [M|mN] : START|LENGTH@ORDER SIGN (FACTOR,OFFSET) [MIN|MAX] "UNIT" RECEIVERS
bool read_signal(const std::string& line, DbcSignal& s, std::string& error) {
    Cursor c{line};
    c.word();  // SG_
    s.name = c.word();
    if (!identifier(s.name)) return (error = "malformed SG_ line: signal name"), false;
    c.skip();
    if (c.i < line.size() && line[c.i] != ':') {
        const std::string mux = c.word();
        if (mux == "M") {
            s.mux = DbcSignal::Mux::Switch;
        } else if (mux.size() > 1 && mux[0] == 'm' && mux.find_first_not_of("0123456789", 1) == std::string::npos) {
            s.mux = DbcSignal::Mux::Multiplexed;
            s.mux_value = unsigned(std::strtoul(mux.c_str() + 1, nullptr, 10));
        } else {
            return (error = "malformed SG_ line: multiplexer '" + mux + "'"), false;
        }
    }
    unsigned long long start = 0, length = 0;
    if (!c.eat(':') || !c.unsigned_number(start) || !c.eat('|') || !c.unsigned_number(length) || !c.eat('@'))
        return (error = "malformed SG_ line: expected ': START|LENGTH@'"), false;
    if (c.i + 1 >= line.size() || (line[c.i] != '0' && line[c.i] != '1') || (line[c.i + 1] != '+' && line[c.i + 1] != '-'))
        return (error = "malformed SG_ line: byte order must be 0 or 1, sign + or -"), false;
    s.intel = line[c.i] == '1';
    s.is_signed = line[c.i + 1] == '-';
    c.i += 2;
    if (!c.eat('(') || !c.real(s.factor) || !c.eat(',') || !c.real(s.offset) || !c.eat(')'))
        return (error = "malformed SG_ line: expected (FACTOR,OFFSET)"), false;
    if (!c.eat('[') || !c.real(s.minimum) || !c.eat('|') || !c.real(s.maximum) || !c.eat(']'))
        return (error = "malformed SG_ line: expected [MIN|MAX]"), false;
    if (!c.eat('"') || line.find('"', c.i) == std::string::npos)
        return (error = "malformed SG_ line: expected the unit in double quotes"), false;
    if (s.factor == 0) return (error = "signal '" + s.name + "' has a bad factor"), false;
    if (length < 1 || length > 64) return (error = "signal '" + s.name + "' must be 1 to 64 bits long"), false;
    s.start = unsigned(std::min<unsigned long long>(start, 1u << 20));
    s.length = unsigned(length);
    return true;
}

// The value of BA_ "GenMsgCycleTime" BO_ ID VALUE; (is_default false) or of
// BA_DEF_DEF_ "GenMsgCycleTime" VALUE; (true). Other attributes: false.
bool read_cycle(const std::string& line, bool is_default, uint32_t& raw_id, int& ms) {
    std::istringstream in(line);
    std::string head, name, object, id, value;
    in >> head >> name;
    if (name != "\"GenMsgCycleTime\"") return false;
    if (!is_default) {
        in >> object >> id;
        if (object != "BO_" || id.empty() || id.find_first_not_of("0123456789") != std::string::npos) return false;
        raw_id = uint32_t(std::strtoull(id.c_str(), nullptr, 10));
    }
    in >> value;
    while (!value.empty() && value.back() == ';') value.pop_back();
    char* end = nullptr;
    const double v = std::strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0') return false;
    ms = v < 0 ? 0 : v > 3600000 ? 3600000 : int(v);
    return true;
}

}  // namespace

bool parse_dbc(const std::string& text, DbcFile& out, int& line, std::string& error) {
    DbcFile file;
    std::istringstream in(text);
    std::string l;
    line = 0;
    std::vector<std::pair<uint32_t, int>> cycles;  // raw BO_ id, cycle (ms)
    std::vector<uint32_t> raw_ids;
    while (std::getline(in, l)) {
        ++line;
        if (!l.empty() && l.back() == '\r') l.pop_back();
        const size_t first = l.find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        const std::string head = l.substr(first, l.find_first_of(" \t", first) - first);
        if (head == "BO_") {
            DbcMessage msg;
            uint32_t raw = 0;
            if (!read_message(l, msg, raw, error)) return false;
            file.messages.push_back(msg);
            raw_ids.push_back(raw);
        } else if (head == "SG_") {
            if (file.messages.empty()) return (error = "SG_ line before any BO_ line"), false;
            DbcSignal s;
            if (!read_signal(l, s, error)) return false;
            DbcMessage& msg = file.messages.back();
            // Every bit must land inside the message.
            unsigned pos = s.start;
            for (unsigned i = 0; i < s.length; ++i) {
                if (pos >= msg.length * 8)
                    return (error = "signal '" + s.name + "' does not fit in message '" + msg.name + "' (" +
                                    std::to_string(msg.length) + " bytes)"),
                           false;
                if (i + 1 < s.length) pos = s.intel ? pos + 1 : motorola_next(pos);
            }
            msg.signals.push_back(s);
        } else if (head == "BA_DEF_DEF_") {
            uint32_t unused = 0;
            int ms = 0;
            if (read_cycle(l, true, unused, ms)) file.default_cycle_ms = ms;
        } else if (head == "BA_") {
            uint32_t raw = 0;
            int ms = 0;
            if (read_cycle(l, false, raw, ms)) cycles.push_back({raw, ms});
        }
    }
    for (auto& [raw, ms] : cycles)
        for (size_t i = 0; i < file.messages.size(); ++i)
            if (raw_ids[i] == raw) file.messages[i].cycle_ms = ms;
    out = std::move(file);
    return true;
}

uint64_t dbc_raw(const DbcSignal& s, double physical) {
    double raw = std::nearbyint((physical - s.offset) / s.factor);
    const unsigned n = s.length;
    double lo, hi;
    if (s.is_signed) {
        lo = -std::ldexp(1.0, int(n) - 1);
        hi = std::ldexp(1.0, int(n) - 1) - 1;
    } else {
        lo = 0;
        hi = std::ldexp(1.0, int(n)) - 1;
    }
    if (!(raw >= lo)) raw = lo;  // NaN lands low
    if (raw > hi) raw = hi;
    const uint64_t mask = n >= 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1;
    if (raw < 0) return uint64_t(int64_t(raw)) & mask;
    // hi of a 64-bit unsigned signal rounds up to 2^64 in a double.
    if (raw >= 18446744073709551615.0) return mask;
    return uint64_t(raw) & mask;
}

void dbc_put(uint8_t* data, size_t size, const DbcSignal& s, uint64_t raw) {
    // Walk from the least significant bit of the value.
    unsigned pos = s.start;
    if (!s.intel)
        for (unsigned i = 1; i < s.length; ++i) pos = motorola_next(pos);
    for (unsigned i = 0; i < s.length; ++i) {
        if (pos / 8 < size) {
            const uint8_t bit = uint8_t(1u << (pos % 8));
            if ((raw >> i) & 1) data[pos / 8] |= bit;
            else data[pos / 8] &= uint8_t(~bit);
        }
        if (s.intel) ++pos;
        else pos = pos % 8 == 7 ? pos - 15 : pos + 1;  // towards the most significant bit
    }
}

double dbc_get(const uint8_t* data, size_t size, const DbcSignal& s) {
    unsigned pos = s.start;
    if (!s.intel)
        for (unsigned i = 1; i < s.length; ++i) pos = motorola_next(pos);
    uint64_t raw = 0;
    for (unsigned i = 0; i < s.length; ++i) {
        if (pos / 8 < size && ((data[pos / 8] >> (pos % 8)) & 1)) raw |= uint64_t{1} << i;
        if (s.intel) ++pos;
        else pos = pos % 8 == 7 ? pos - 15 : pos + 1;
    }
    double v;
    if (s.is_signed && s.length < 64 && ((raw >> (s.length - 1)) & 1)) v = double(int64_t(raw - (uint64_t{1} << s.length)));
    else if (s.is_signed) v = double(int64_t(raw));
    else v = double(raw);
    return v * s.factor + s.offset;
}

// ---- candump logs ---------------------------------------------------------------------

bool read_candump(const std::string& path, std::vector<LoggedFrame>& out, int& line, std::string& error) {
    std::string text;
    if (!read_text(path, text)) {
        line = 0;
        error = "log file not found or unreadable: " + path;
        return false;
    }
    return parse_candump(text, out, line, error);
}

namespace {
bool hex_value(const std::string& s, uint64_t& v) {
    if (s.empty() || s.size() > 16) return false;
    v = 0;
    for (char ch : s) {
        int d;
        if (ch >= '0' && ch <= '9') d = ch - '0';
        else if (ch >= 'a' && ch <= 'f') d = ch - 'a' + 10;
        else if (ch >= 'A' && ch <= 'F') d = ch - 'A' + 10;
        else return false;
        v = v << 4 | unsigned(d);
    }
    return true;
}

bool fd_length(size_t n) { return n <= 8 || n == 12 || n == 16 || n == 20 || n == 24 || n == 32 || n == 48 || n == 64; }
}  // namespace

bool parse_candump(const std::string& text, std::vector<LoggedFrame>& out, int& line, std::string& error) {
    std::vector<LoggedFrame> frames;
    std::istringstream in(text);
    std::string l;
    line = 0;
    auto fail = [&](const std::string& what) {
        error = what;
        return false;
    };
    while (std::getline(in, l)) {
        ++line;
        if (!l.empty() && l.back() == '\r') l.pop_back();
        std::istringstream fields(l);
        std::string stamp, iface, body, extra;
        if (!(fields >> stamp)) continue;  // blank line
        if (!(fields >> iface >> body)) return fail("expected \"(SECONDS.MICROS) INTERFACE ID#DATA\"");
        if (stamp.size() < 3 || stamp.front() != '(' || stamp.back() != ')') return fail("time stamp must be in parentheses");
        const std::string t = stamp.substr(1, stamp.size() - 2);
        const size_t dot = t.find('.');
        uint64_t secs = 0, micros = 0;
        if (dot == std::string::npos || t.find_first_not_of("0123456789.") != std::string::npos ||
            t.find('.', dot + 1) != std::string::npos || dot == 0 || t.size() - dot - 1 != 6)
            return fail("time stamp must be SECONDS.MICROS (six digits after the point)");
        secs = std::strtoull(t.substr(0, dot).c_str(), nullptr, 10);
        micros = std::strtoull(t.substr(dot + 1).c_str(), nullptr, 10);
        LoggedFrame f;
        f.time_us = int64_t(secs * 1000000ull + micros);
        f.interface = iface;
        const size_t hash = body.find('#');
        if (hash == std::string::npos) return fail("frame must be ID#DATA");
        const std::string id_text = body.substr(0, hash);
        uint64_t id = 0;
        if (!hex_value(id_text, id) || (id_text.size() != 3 && id_text.size() != 8))
            return fail("identifier must be 3 (11-bit) or 8 (29-bit) hex digits");
        if (id_text.size() == 8 && (id & 0x20000000u)) continue;  // an error frame: not replayed
        f.frame.extended = id_text.size() == 8;
        f.frame.id = uint32_t(id & (f.frame.extended ? 0x1FFFFFFFu : 0x7FFu));
        if (!f.frame.extended && id > 0x7FF) return fail("11-bit identifier above 0x7FF");
        std::string data = body.substr(hash + 1);
        if (!data.empty() && data[0] == '#') {  // CAN FD: flags digit, then data
            if (data.size() < 2) return fail("CAN FD frame needs a flags digit after ##");
            uint64_t flags = 0;
            if (!hex_value(data.substr(1, 1), flags)) return fail("bad CAN FD flags digit");
            f.frame.fd = true;
            f.frame.brs = flags & 1;
            f.frame.esi = (flags >> 1) & 1;
            data = data.substr(2);
        } else if (!data.empty() && (data[0] == 'R' || data[0] == 'r')) {
            f.frame.remote = true;
            uint64_t n = 0;
            if (data.size() > 1 && (!hex_value(data.substr(1), n) || n > 8)) return fail("remote length must be 0 to 8");
            f.frame.len = uint8_t(n);
            frames.push_back(f);
            continue;
        }
        std::string digits;
        for (char ch : data)
            if (ch != '.') digits += ch;
        if (digits.size() % 2 != 0) return fail("data must be whole bytes in hex");
        const size_t n = digits.size() / 2;
        if (n > (f.frame.fd ? 64u : 8u) || (f.frame.fd && !fd_length(n)))
            return fail(f.frame.fd ? "CAN FD data must be 0-8, 12, 16, 20, 24, 32, 48 or 64 bytes"
                                   : "classic CAN data must be 0 to 8 bytes");
        for (size_t i = 0; i < n; ++i) {
            uint64_t b = 0;
            if (!hex_value(digits.substr(2 * i, 2), b)) return fail("data must be hex digits");
            f.frame.data[i] = uint8_t(b);
        }
        f.frame.len = uint8_t(n);
        frames.push_back(f);
    }
    out = std::move(frames);
    return true;
}

}  // namespace polybus_sim
