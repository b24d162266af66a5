#include "lin_ldf.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "adapter.h"
#include "can_bus.h"  // bus_now_ns, until_bus_ns

namespace polybus_sim {

// ---- reading -------------------------------------------------------------------------

namespace {

struct Token {
    enum Kind { Word, Text, Punct } kind = Word;
    std::string text;
    int line = 0;
    bool is(char c) const { return kind == Punct && text[0] == c; }
};

struct ReadError {
    int line;
    std::string message;
};

[[noreturn]] void fail(int line, const std::string& message) { throw ReadError{line, message}; }

bool punct(char c) { return c == '{' || c == '}' || c == ';' || c == ',' || c == ':' || c == '='; }

std::vector<Token> tokenize(const std::string& s) {
    std::vector<Token> out;
    int line = 1;
    size_t i = 0;
    while (i < s.size()) {
        const char c = s[i];
        if (c == '\n') {
            ++line;
            ++i;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            ++i;
        } else if (c == '/' && i + 1 < s.size() && s[i + 1] == '/') {
            while (i < s.size() && s[i] != '\n') ++i;
        } else if (c == '/' && i + 1 < s.size() && s[i + 1] == '*') {
            const int start = line;
            i += 2;
            while (i + 1 < s.size() && !(s[i] == '*' && s[i + 1] == '/')) line += s[i++] == '\n';
            if (i + 1 >= s.size()) fail(start, "comment opened here is never closed");
            i += 2;
        } else if (c == '"') {
            const int start = line;
            const size_t end = s.find('"', i + 1);
            if (end == std::string::npos) fail(start, "text opened with '\"' here is never closed");
            Token t{Token::Text, s.substr(i + 1, end - i - 1), start};
            for (char ch : t.text) line += ch == '\n';
            out.push_back(std::move(t));
            i = end + 1;
        } else if (punct(c)) {
            out.push_back(Token{Token::Punct, std::string(1, c), line});
            ++i;
        } else {
            const size_t start = i;
            while (i < s.size() && !std::isspace(static_cast<unsigned char>(s[i])) && !punct(s[i]) && s[i] != '"' &&
                   !(s[i] == '/' && i + 1 < s.size() && (s[i + 1] == '/' || s[i + 1] == '*')))
                ++i;
            out.push_back(Token{Token::Word, s.substr(start, i - start), line});
        }
    }
    return out;
}

class Reader {
public:
    explicit Reader(std::vector<Token> tokens) : t_(std::move(tokens)), close_(t_.size(), 0) {
        std::vector<size_t> open;
        for (size_t i = 0; i < t_.size(); ++i) {
            if (t_[i].is('{')) open.push_back(i);
            if (t_[i].is('}')) {
                if (open.empty()) fail(t_[i].line, "'}' closes nothing");
                close_[open.back()] = i;
                open.pop_back();
            }
        }
        if (!open.empty()) fail(t_[open.back()].line, "'{' opened here is never closed");
    }

    void read(LdfCluster& c) {
        size_t i = 0;
        while (i < t_.size()) {
            const Token& key = t_[i];
            if (key.kind != Token::Word) fail(key.line, "expected a keyword, found '" + key.text + "'");
            if (i + 1 >= t_.size()) fail(key.line, "'" + key.text + "' ends the file: expected '=', '{' or ';'");
            const Token& next = t_[i + 1];
            if (next.is(';')) {
                i += 2;
            } else if (next.is('=')) {
                const size_t end = find(i + 2, t_.size(), ';');
                if (end == t_.size()) fail(key.line, "'" + key.text + " =' has no closing ';'");
                header(c, key, i + 2, end);
                i = end + 1;
            } else if (next.is('{')) {
                const size_t close = close_[i + 1];
                section(c, key.text, i + 2, close);
                i = close + 1;
            } else {
                fail(next.line, "expected '=', '{' or ';' after '" + key.text + "'");
            }
        }
        if (c.master.empty()) fail(1, "no Nodes section naming the master");
        for (auto& f : c.frames)
            for (auto& s : f.signals) {
                const LdfSignal* sig = c.signal(s.name);
                if (sig == nullptr) fail(f.line, "frame '" + f.name + "' carries unknown signal '" + s.name + "'");
                if (s.offset + sig->size > f.length * 8u)
                    fail(f.line, "signal '" + s.name + "' (bits " + std::to_string(s.offset) + " to " +
                                     std::to_string(s.offset + sig->size - 1) + ") does not fit frame '" + f.name + "' of " +
                                     std::to_string(f.length) + " bytes");
            }
    }

private:
    size_t find(size_t b, size_t e, char c) const {
        for (size_t i = b; i < e; ++i) {
            if (t_[i].is('{')) i = close_[i];
            else if (t_[i].is(c)) return i;
        }
        return e;
    }
    // Pieces of [b, e) between ';' outside braces.
    std::vector<std::pair<size_t, size_t>> statements(size_t b, size_t e) const {
        std::vector<std::pair<size_t, size_t>> out;
        while (b < e) {
            const size_t end = find(b, e, ';');
            if (end == e) fail(t_[b].line, "expected ';' to end the entry starting with '" + t_[b].text + "'");
            if (end > b) out.push_back({b, end});
            b = end + 1;
        }
        return out;
    }
    const Token& word(size_t i, size_t e, const char* what) const {
        if (i >= e) fail(t_[e > 0 ? e - 1 : 0].line, std::string("expected ") + what);
        if (t_[i].kind != Token::Word) fail(t_[i].line, std::string("expected ") + what + ", found '" + t_[i].text + "'");
        return t_[i];
    }
    void expect(size_t i, size_t e, char c) const {
        if (i >= e || !t_[i].is(c))
            fail(t_[i < e ? i : (e > 0 ? e - 1 : 0)].line, std::string("expected '") + c + "'" +
                                                               (i < e ? ", found '" + t_[i].text + "'" : ""));
    }
    static bool integer(const std::string& s, uint64_t& v) {
        if (s.empty()) return false;
        const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
        char* end = nullptr;
        errno = 0;
        v = std::strtoull(s.c_str() + (hex ? 2 : 0), &end, hex ? 16 : 10);
        return errno == 0 && *end == '\0' && std::isxdigit(static_cast<unsigned char>(s[hex ? 2 : 0]));
    }
    uint64_t number(const Token& t, uint64_t max, const char* what) const {
        uint64_t v = 0;
        if (!integer(t.text, v)) fail(t.line, std::string("expected ") + what + ", found '" + t.text + "'");
        if (v > max) fail(t.line, std::string(what) + " " + t.text + " is beyond " + std::to_string(max));
        return v;
    }
    static double decimal(const std::string& s) { return std::strtod(s.c_str(), nullptr); }

    void header(LdfCluster& c, const Token& key, size_t b, size_t e) {
        if (key.text == "LIN_protocol_version") {
            if (b >= e || t_[b].kind != Token::Text) fail(key.line, "LIN_protocol_version takes a quoted version");
            const std::string& v = t_[b].text;
            // J2602 clusters run as LIN 2.0; anything else is read as a number.
            const double d = v.find("J2602") != std::string::npos ? 2.0 : decimal(v);
            c.protocol = d > 0 && d < 100 ? unsigned(d * 100 + 1e-6) : 0;
        } else if (key.text == "LIN_speed") {
            if (b >= e) fail(key.line, "LIN_speed takes a rate in kbps");
            const double kbps = decimal(t_[b].text);
            if (!(kbps >= 1 && kbps <= 20)) fail(t_[b].line, "LIN_speed must be 1 to 20 kbps, found '" + t_[b].text + "'");
            c.speed = uint32_t(kbps * 1000 + 0.5);
        }
    }

    void section(LdfCluster& c, const std::string& name, size_t b, size_t e) {
        if (name == "Nodes") nodes(c, b, e);
        else if (name == "Signals") signals(c, b, e, false);
        else if (name == "Diagnostic_signals") signals(c, b, e, true);
        else if (name == "Frames") frames(c, b, e, false);
        else if (name == "Diagnostic_frames") frames(c, b, e, true);
        else if (name == "Schedule_tables") schedules(c, b, e);
    }

    void nodes(LdfCluster& c, size_t b, size_t e) {
        for (auto [s, end] : statements(b, e)) {
            const Token& key = word(s, end, "Master or Slaves");
            expect(s + 1, end, ':');
            if (key.text == "Master") {
                c.master = word(s + 2, end, "the master's name").text;
            } else if (key.text == "Slaves") {
                for (size_t i = s + 2; i < end; ++i)
                    if (!t_[i].is(',')) c.slaves.push_back(word(i, end, "a slave's name").text);
            }
        }
    }

    void signals(LdfCluster& c, size_t b, size_t e, bool diagnostic) {
        for (auto [s, end] : statements(b, e)) {
            LdfSignal sig;
            sig.line = t_[s].line;
            sig.name = word(s, end, "a signal name").text;
            expect(s + 1, end, ':');
            sig.size = unsigned(number(word(s + 2, end, "the signal's size in bits"), 64, "a size in bits"));
            if (sig.size == 0) fail(t_[s + 2].line, "signal '" + sig.name + "' has no bits");
            expect(s + 3, end, ',');
            size_t i = s + 4;
            if (i < end && t_[i].is('{')) {
                // An array of bytes, the first one lowest in the frame.
                const size_t close = close_[i];
                unsigned k = 0;
                for (size_t j = i + 1; j < close; ++j) {
                    if (t_[j].is(',')) continue;
                    const uint64_t byte = number(t_[j], 255, "a byte value");
                    if (k < 8) sig.init |= byte << (8 * k);
                    ++k;
                }
                i = close + 1;
            } else {
                sig.init = number(word(i, end, "an initial value"), UINT64_MAX, "an initial value");
                ++i;
            }
            if (sig.size < 64) sig.init &= (uint64_t{1} << sig.size) - 1;
            if (diagnostic) {
                sig.publisher.clear();
            } else {
                expect(i, end, ',');
                sig.publisher = word(i + 1, end, "the publishing node").text;
            }
            if (c.signal_index.emplace(sig.name, c.signals.size()).second) c.signals.push_back(std::move(sig));
        }
    }

    void frames(LdfCluster& c, size_t b, size_t e, bool diagnostic) {
        size_t i = b;
        while (i < e) {
            LdfFrame f;
            f.line = t_[i].line;
            f.diagnostic = diagnostic;
            f.name = word(i, e, "a frame name").text;
            expect(i + 1, e, ':');
            size_t open = i + 2;
            while (open < e && !t_[open].is('{')) ++open;
            if (open >= e) fail(f.line, "frame '" + f.name + "' has no '{' with its signals");
            std::vector<const Token*> head;
            for (size_t j = i + 2; j < open; ++j)
                if (!t_[j].is(',')) head.push_back(&t_[j]);
            if (head.empty()) fail(f.line, "frame '" + f.name + "' has no identifier");
            // Identifiers above 63 occur in real files; the bus carries their low six bits.
            f.id = uint8_t(number(*head[0], 255, "a frame identifier"));
            if (diagnostic) {
                f.length = 8;
                if ((f.id & 0x3F) == 0x3C) f.publisher = c.master;
            } else {
                if (head.size() < 2) fail(f.line, "frame '" + f.name + "' names no publisher");
                f.publisher = head[1]->text;
                // LIN 1.x files may leave the length out: it follows from the identifier.
                f.length = head.size() >= 3 ? unsigned(number(*head[2], 8, "a frame length"))
                                            : (f.id < 32 ? 2u : f.id < 48 ? 4u : 8u);
                if (f.length == 0) fail(head[2]->line, "frame '" + f.name + "' has no data bytes");
            }
            const size_t close = close_[open];
            for (auto [s, end] : statements(open + 1, close)) {
                LdfFrameSignal fs;
                fs.name = word(s, end, "a signal name").text;
                expect(s + 1, end, ',');
                fs.offset = unsigned(number(word(s + 2, end, "a bit offset"), 63, "a bit offset"));
                f.signals.push_back(std::move(fs));
            }
            if (c.frame_index.emplace(f.name, c.frames.size()).second) c.frames.push_back(std::move(f));
            i = close + 1;
            if (i < e && t_[i].is(';')) ++i;
        }
    }

    void schedules(LdfCluster& c, size_t b, size_t e) {
        size_t i = b;
        while (i < e) {
            LdfSchedule sch;
            sch.name = word(i, e, "a schedule table name").text;
            expect(i + 1, e, '{');
            const size_t close = close_[i + 1];
            for (auto [s, end] : statements(i + 2, close)) {
                LdfSlot slot;
                slot.frame = word(s, end, "a frame or command").text;
                size_t d = s + 1;
                while (d < end && !(t_[d].kind == Token::Word && t_[d].text == "delay")) {
                    if (t_[d].is('{')) d = close_[d];
                    ++d;
                }
                if (d + 1 >= end) fail(t_[s].line, "schedule entry '" + slot.frame + "' has no 'delay N ms'");
                slot.delay_ms = decimal(t_[d + 1].text);
                if (!(slot.delay_ms >= 0 && slot.delay_ms <= 60000))
                    fail(t_[d + 1].line, "a delay must be 0 to 60000 ms, found '" + t_[d + 1].text + "'");
                sch.slots.push_back(std::move(slot));
            }
            if (c.schedule(sch.name) == nullptr) c.schedules.push_back(std::move(sch));
            i = close + 1;
        }
    }

    std::vector<Token> t_;
    std::vector<size_t> close_;  // index of the matching '}' for each '{'
};

}  // namespace

const LdfSignal* LdfCluster::signal(const std::string& name) const {
    auto it = signal_index.find(name);
    return it == signal_index.end() ? nullptr : &signals[it->second];
}
const LdfFrame* LdfCluster::frame(const std::string& name) const {
    auto it = frame_index.find(name);
    return it == frame_index.end() ? nullptr : &frames[it->second];
}
const LdfFrame* LdfCluster::frame_by_id(uint8_t id) const {
    for (auto& f : frames)
        if ((f.id & 0x3F) == (id & 0x3F)) return &f;
    return nullptr;
}
const LdfSchedule* LdfCluster::schedule(const std::string& name) const {
    for (auto& s : schedules)
        if (s.name == name) return &s;
    return nullptr;
}

bool parse_ldf(const std::string& text, LdfCluster& out, int& line, std::string& error) {
    try {
        Reader r(tokenize(text));
        r.read(out);
        return true;
    } catch (const ReadError& e) {
        line = e.line > 0 ? e.line : 1;
        error = e.message;
        return false;
    }
}

bool read_ldf(const std::string& path, LdfCluster& out, int& line, std::string& error) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        line = 0;
        error = "cannot be read";
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    out.path = path;
    return parse_ldf(ss.str(), out, line, error);
}

// ---- values --------------------------------------------------------------------------

LdfValues::LdfValues(const LdfCluster& cluster) {
    for (auto& s : cluster.signals) values_[s.name] = s.init;
}

bool LdfValues::set(const std::string& signal, uint64_t raw) {
    auto it = values_.find(signal);
    if (it == values_.end()) return false;
    it->second = raw;
    return true;
}

bool LdfValues::get(const std::string& signal, uint64_t& raw) const {
    auto it = values_.find(signal);
    if (it == values_.end()) return false;
    raw = it->second;
    return true;
}

namespace {
uint64_t mask(unsigned bits) { return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1; }
}  // namespace

std::vector<uint8_t> LdfValues::encode(const LdfFrame& f) const {
    uint64_t word = 0;
    // Signal sizes are not known here; the cluster checked that every signal fits, and
    // values are kept masked to their size.
    for (auto& s : f.signals) {
        auto it = values_.find(s.name);
        if (it == values_.end()) continue;
        word |= it->second << s.offset;
    }
    std::vector<uint8_t> out(f.length);
    for (unsigned i = 0; i < f.length && i < 8; ++i) out[i] = uint8_t(word >> (8 * i));
    return out;
}

void LdfValues::decode(const LdfFrame& f, const uint8_t* data, size_t n) {
    uint64_t word = 0;
    for (size_t i = 0; i < n && i < 8; ++i) word |= uint64_t(data[i]) << (8 * i);
    for (auto& s : f.signals) {
        auto it = values_.find(s.name);
        if (it != values_.end()) it->second = word >> s.offset;
    }
}

// ---- slaves --------------------------------------------------------------------------

namespace {

// Values masked to their signal's size, as a node's registers hold them.
LdfValues initial_values(const LdfCluster& c, const std::map<std::string, uint64_t>& overrides) {
    LdfValues v(c);
    for (auto& [name, raw] : overrides)
        if (const LdfSignal* s = c.signal(name)) v.set(name, raw & mask(s->size));
    return v;
}

// Keeps each decoded signal to its own bits.
void decode_masked(const LdfCluster& c, LdfValues& values, const LdfFrame& f, const uint8_t* data, size_t n) {
    values.decode(f, data, n);
    for (auto& fs : f.signals) {
        uint64_t raw = 0;
        const LdfSignal* s = c.signal(fs.name);
        if (s != nullptr && values.get(fs.name, raw)) values.set(fs.name, raw & mask(s->size));
    }
}

}  // namespace

LdfSlaves::LdfSlaves(LdfSlavesConfig config)
    : cluster_(std::move(config.cluster)), values_(initial_values(*cluster_, config.values)) {}

bool LdfSlaves::value(const std::string& signal, uint64_t& raw) {
    std::lock_guard<std::mutex> g(mutex_);
    return values_.get(signal, raw);
}

void LdfSlaves::set_value(const std::string& signal, uint64_t raw) {
    std::lock_guard<std::mutex> g(mutex_);
    if (const LdfSignal* s = cluster_->signal(signal)) values_.set(signal, raw & mask(s->size));
}

int LdfSlaves::taken(const std::string& frame) {
    std::lock_guard<std::mutex> g(mutex_);
    auto it = taken_.find(frame);
    return it == taken_.end() ? 0 : it->second;
}

int LdfSlaves::refused() {
    std::lock_guard<std::mutex> g(mutex_);
    return refused_;
}

bool LdfSlaves::respond(uint8_t pid, std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    if (pid != lin_pid(pid)) return false;
    const LdfFrame* f = cluster_->frame_by_id(pid);
    if (f == nullptr || cluster_->by_master(*f)) return false;
    if (f->diagnostic) {
        // A slave response frame carries an answer, so there is one per request taken.
        if (diagnostic_requests_ == 0) return false;
        --diagnostic_requests_;
    }
    bytes = values_.encode(*f);
    bytes.push_back(lin_checksum(cluster_->enhanced(f->id), pid, bytes.data(), bytes.size()));
    return true;
}

void LdfSlaves::observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) {
    std::lock_guard<std::mutex> g(mutex_);
    if (responder != nullptr || pid != lin_pid(pid)) return;
    const LdfFrame* f = cluster_->frame_by_id(pid);
    if (f == nullptr || !cluster_->by_master(*f)) return;
    if (bytes.empty()) return;  // a header the master sent for nobody
    if (bytes.size() != f->length + 1u ||
        lin_checksum(cluster_->enhanced(f->id), pid, bytes.data(), f->length) != bytes.back()) {
        ++refused_;
        return;
    }
    decode_masked(*cluster_, values_, *f, bytes.data(), f->length);
    ++taken_[f->name];
    if (f->diagnostic) ++diagnostic_requests_;
}

// ---- master --------------------------------------------------------------------------

LdfMaster::LdfMaster(std::shared_ptr<LinBus> bus, LdfMasterConfig config)
    : bus_(std::move(bus)),
      cluster_(std::move(config.cluster)),
      schedule_(cluster_->schedule(config.schedule)),
      values_(initial_values(*cluster_, config.values)),
      start_delay_ns_(config.start_delay_ns) {}

bool LdfMaster::value(const std::string& signal, uint64_t& raw) {
    std::lock_guard<std::mutex> g(mutex_);
    return values_.get(signal, raw);
}

void LdfMaster::set_value(const std::string& signal, uint64_t raw) {
    std::lock_guard<std::mutex> g(mutex_);
    if (const LdfSignal* s = cluster_->signal(signal)) values_.set(signal, raw & mask(s->size));
}

int LdfMaster::answered(const std::string& frame) {
    std::lock_guard<std::mutex> g(mutex_);
    auto it = answered_.find(frame);
    return it == answered_.end() ? 0 : it->second;
}

int LdfMaster::unanswered() {
    std::lock_guard<std::mutex> g(mutex_);
    return unanswered_;
}

int LdfMaster::refused() {
    std::lock_guard<std::mutex> g(mutex_);
    return refused_;
}

uint64_t LdfMaster::passes() {
    std::lock_guard<std::mutex> g(mutex_);
    return passes_;
}

int64_t LdfMaster::run_slot(size_t index, int64_t at_ns) {
    if (schedule_ == nullptr || index >= schedule_->slots.size()) return at_ns;
    const LdfFrame* f = cluster_->frame(schedule_->slots[index].frame);
    if (f == nullptr) return at_ns;  // a command or a frame kind this master does not play
    const uint8_t pid = lin_pid(f->id);
    const bool enhanced = cluster_->enhanced(f->id);
    if (cluster_->by_master(*f)) {
        std::vector<uint8_t> bytes;
        {
            std::lock_guard<std::mutex> g(mutex_);
            bytes = values_.encode(*f);
        }
        bytes.push_back(lin_checksum(enhanced, pid, bytes.data(), bytes.size()));
        return bus_->header(pid, 13, &bytes, 0, at_ns).end_ns;
    }
    const LinBusFrame got = bus_->header(pid, 13, nullptr, f->length + 1, at_ns);
    std::lock_guard<std::mutex> g(mutex_);
    if (got.bytes.empty()) {
        ++unanswered_;
    } else if (got.bytes.size() != f->length + 1u ||
               lin_checksum(enhanced, pid, got.bytes.data(), f->length) != got.bytes.back()) {
        ++refused_;
    } else {
        decode_masked(*cluster_, values_, *f, got.bytes.data(), f->length);
        ++answered_[f->name];
    }
    return got.end_ns;
}

void LdfMaster::start(Adapter& clock) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        if (schedule_ == nullptr || schedule_->slots.empty() || running_) return;
        running_ = true;
        ++generation_;
    }
    step(clock, 0, bus_now_ns() + start_delay_ns_);
}

void LdfMaster::stop() {
    std::lock_guard<std::mutex> g(mutex_);
    running_ = false;
    ++generation_;
}

// One slot at a time on the clock's timer thread; a slot's delay runs from its start,
// as the schedule's time base does, but never overlaps a frame still on the bus.
void LdfMaster::step(Adapter& clock, size_t index, int64_t due_ns) {
    uint32_t generation;
    {
        std::lock_guard<std::mutex> g(mutex_);
        generation = generation_;
    }
    std::weak_ptr<LdfMaster> weak = shared_from_this();
    Adapter* c = &clock;
    clock.after(until_bus_ns(due_ns), [weak, c, index, due_ns, generation] {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard<std::mutex> g(self->mutex_);
            if (!self->running_ || self->generation_ != generation) return;
        }
        const int64_t end = self->run_slot(index, due_ns);
        const auto& slots = self->schedule_->slots;
        // A slot lasts at least its frame and at least a millisecond, so that a table of
        // zero delays cannot spin the timer thread.
        const int64_t next = std::max({due_ns + int64_t(slots[index].delay_ms * 1e6), end, due_ns + 1000000});
        size_t following = index + 1;
        if (following == slots.size()) {
            following = 0;
            std::lock_guard<std::mutex> g(self->mutex_);
            ++self->passes_;
        }
        self->step(*c, following, std::max(next, bus_now_ns()));
    });
}

}  // namespace polybus_sim
