#include "can_dbc.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <regex>
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

bool parse_dbc(const std::string& text, DbcFile& out, int& line, std::string& error) {
    static const std::regex bo(R"(^\s*BO_\s+(\d+)\s+([A-Za-z_][A-Za-z0-9_]*)\s*:\s*(\d+)(\s+\S+)?\s*$)");
    static const std::regex sg(
        R"(^\s*SG_\s+([A-Za-z_][A-Za-z0-9_]*)\s*(M|m\d+)?\s*:\s*(\d+)\|(\d+)@([01])([+-])\s*\(\s*([^,\s]+)\s*,\s*([^)\s]+)\s*\)\s*\[\s*([^|\s]+)\s*\|\s*([^\]\s]+)\s*\]\s*"[^"]*".*$)");
    static const std::regex cycle(R"(^\s*BA_\s+"GenMsgCycleTime"\s+BO_\s+(\d+)\s+([-+0-9.eE]+)\s*;\s*$)");
    static const std::regex cycle_default(R"(^\s*BA_DEF_DEF_\s+"GenMsgCycleTime"\s+([-+0-9.eE]+)\s*;\s*$)");
    DbcFile file;
    std::istringstream in(text);
    std::string l;
    line = 0;
    auto fail = [&](const std::string& what) {
        error = what;
        return false;
    };
    std::vector<std::pair<uint32_t, int>> cycles;  // raw BO_ id, cycle (ms)
    std::vector<uint32_t> raw_ids;
    while (std::getline(in, l)) {
        ++line;
        if (!l.empty() && l.back() == '\r') l.pop_back();
        std::smatch m;
        const size_t first = l.find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        const std::string head = l.substr(first, l.find_first_of(" \t", first) - first);
        if (head == "BO_") {
            if (!std::regex_match(l, m, bo)) return fail("malformed BO_ line");
            DbcMessage msg;
            const unsigned long long raw = std::strtoull(m[1].str().c_str(), nullptr, 10);
            if (raw > 0xFFFFFFFFull) return fail("message identifier out of range");
            msg.extended = (raw & 0x80000000ull) != 0 || (raw & 0x1FFFFFFFull) > 0x7FF;
            msg.id = uint32_t(raw & 0x1FFFFFFFull);
            msg.name = m[2];
            msg.length = unsigned(std::strtoul(m[3].str().c_str(), nullptr, 10));
            if (msg.length > 64) return fail("message '" + msg.name + "' is longer than 64 bytes");
            file.messages.push_back(msg);
            raw_ids.push_back(uint32_t(raw));
        } else if (head == "SG_") {
            if (file.messages.empty()) return fail("SG_ line before any BO_ line");
            if (!std::regex_match(l, m, sg)) return fail("malformed SG_ line");
            DbcSignal s;
            s.name = m[1];
            const std::string mux = m[2];
            if (mux == "M") s.mux = DbcSignal::Mux::Switch;
            else if (!mux.empty()) {
                s.mux = DbcSignal::Mux::Multiplexed;
                s.mux_value = unsigned(std::strtoul(mux.c_str() + 1, nullptr, 10));
            }
            s.start = unsigned(std::strtoul(m[3].str().c_str(), nullptr, 10));
            s.length = unsigned(std::strtoul(m[4].str().c_str(), nullptr, 10));
            s.intel = m[5] == "1";
            s.is_signed = m[6] == "-";
            char* end = nullptr;
            s.factor = std::strtod(m[7].str().c_str(), &end);
            if (*end != '\0' || s.factor == 0) return fail("signal '" + s.name + "' has a bad factor");
            s.offset = std::strtod(m[8].str().c_str(), &end);
            if (*end != '\0') return fail("signal '" + s.name + "' has a bad offset");
            s.minimum = std::strtod(m[9].str().c_str(), nullptr);
            s.maximum = std::strtod(m[10].str().c_str(), nullptr);
            DbcMessage& msg = file.messages.back();
            if (s.length < 1 || s.length > 64) return fail("signal '" + s.name + "' must be 1 to 64 bits long");
            // Every bit must land inside the message.
            unsigned pos = s.start;
            for (unsigned i = 0; i < s.length; ++i) {
                if (pos >= msg.length * 8)
                    return fail("signal '" + s.name + "' does not fit in message '" + msg.name + "' (" +
                                std::to_string(msg.length) + " bytes)");
                if (i + 1 < s.length) pos = s.intel ? pos + 1 : motorola_next(pos);
            }
            msg.signals.push_back(s);
        } else if (head == "BA_DEF_DEF_") {
            if (std::regex_match(l, m, cycle_default)) file.default_cycle_ms = int(std::strtod(m[1].str().c_str(), nullptr));
        } else if (head == "BA_") {
            if (std::regex_match(l, m, cycle))
                cycles.push_back({uint32_t(std::strtoull(m[1].str().c_str(), nullptr, 10)),
                                  int(std::strtod(m[2].str().c_str(), nullptr))});
        }
    }
    for (auto& [raw, ms] : cycles)
        for (size_t i = 0; i < file.messages.size(); ++i)
            if (raw_ids[i] == raw) file.messages[i].cycle_ms = ms < 0 ? 0 : ms;
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
