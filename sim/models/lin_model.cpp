#include "lin_model.h"

#include <algorithm>
#include <cstring>

#include "can_bus.h"  // bus_now_ns, until_bus_ns
#include "wire/lin.h"

namespace polybus_sim {

using namespace polybus::wire;

namespace {
constexpr size_t kRecord = 20;
constexpr size_t kOldRecord = 11;
constexpr size_t kFetchLimit = 64;
constexpr size_t kRecordLimit = 1000;

uint32_t le32_at(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
}  // namespace

LinRecord LinRecord::parse(const uint8_t* p) {
    LinRecord r;
    r.time = le32_at(p);
    r.type = p[4];
    r.check_type = p[5];
    r.len = p[6];
    r.sync = p[7];
    r.pid = p[8];
    std::memcpy(r.data, p + 9, 8);
    r.check = p[17];
    r.break_bits = p[18];
    r.reserved = p[19];
    return r;
}

void LinRecord::put(Payload& out) const {
    out.le32(time).u8(type).u8(check_type).u8(len).u8(sync).u8(pid).raw(data, 8).u8(check).u8(break_bits).u8(reserved);
}

// One channel: its state, and the adapter's presence on the bus as a slave.
class LinModel::Channel : public LinNode {
public:
    explicit Channel(Adapter& a) : adapter_(a) {}

    std::mutex mutex;
    bool initialised = false;
    uint32_t baud = 0;
    uint8_t master_mode = 1;
    uint8_t check_mode = 0, break_bits = 13;
    uint8_t power = 0;
    uint8_t read_kind = LIN_MSG_CHECK_IN_DATA;
    std::vector<LinRecord> table;
    std::vector<bool> table_used;
    std::deque<LinRecord> recorded;
    std::vector<LinRecord> schedule;
    uint32_t schedule_generation = 0;
    bool schedule_running = false;
    uint64_t schedule_frames = 0;
    std::deque<LinRecord> schedule_results;
    std::shared_ptr<LinBus> bus = std::make_shared<LinBus>();

    bool respond(uint8_t pid, std::vector<uint8_t>& bytes) override {
        std::lock_guard<std::mutex> g(mutex);
        if (!slave()) return false;
        for (size_t i = 0; i < table.size(); ++i) {
            const LinRecord& e = table[i];
            if (lin_pid(e.pid) != pid) continue;
            if (e.type != LIN_MSG_SLAVE_WRITE && e.type != LIN_MSG_SLAVE_WRITE_ONCE) return false;
            if (e.type == LIN_MSG_SLAVE_WRITE_ONCE && table_used[i]) return false;
            table_used[i] = true;
            const size_t n = std::min<size_t>(e.len, 8);
            bytes.assign(e.data, e.data + n);
            bytes.push_back(e.check);
            return true;
        }
        return false;
    }

    void observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) override {
        std::lock_guard<std::mutex> g(mutex);
        if (!slave()) return;
        LinRecord r;
        r.time = static_cast<uint32_t>(adapter_.clock_us() / 1000);
        r.sync = 0x55;
        r.pid = pid;
        r.break_bits = 13;
        if (responder == this) {
            r.type = LIN_MSG_CHECK_SEPARATE;
            r.len = static_cast<uint8_t>(bytes.empty() ? 0 : bytes.size() - 1);
            std::copy(bytes.begin(), bytes.begin() + std::min<size_t>(r.len, 8), r.data);
            r.check = bytes.empty() ? 0 : bytes.back();
        } else {
            r.type = LIN_MSG_CHECK_IN_DATA;
            r.len = static_cast<uint8_t>(bytes.size());
            std::copy(bytes.begin(), bytes.begin() + std::min<size_t>(bytes.size(), 8), r.data);
            if (bytes.size() > 8) r.check = bytes[8];
        }
        record(r);
    }

    void observe_break() override {
        std::lock_guard<std::mutex> g(mutex);
        if (!slave()) return;
        LinRecord r;
        r.time = static_cast<uint32_t>(adapter_.clock_us() / 1000);
        r.type = LIN_MSG_BREAK;
        r.break_bits = 13;
        record(r);
    }

private:
    bool slave() const { return initialised && master_mode == 0; }
    void record(const LinRecord& r) {
        if (recorded.size() >= kRecordLimit) recorded.pop_front();
        recorded.push_back(r);
    }
    Adapter& adapter_;
};

LinModel::LinModel(Adapter& a) : adapter_(a) {
    for (auto& c : channels_) {
        c = std::make_shared<Channel>(a);
        c->bus->attach(c);
    }

    a.on(LIN_EX_INIT, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels || f.payload.size() < 6) return adapter_.answer(f.command, Payload().u8(1));
        Channel& c = ch(index);
        {
            std::lock_guard<std::mutex> g(c.mutex);
            c.initialised = true;
            c.baud = f.be32(1);
            c.master_mode = f.u8(5);
        }
        c.bus->set_baud(f.be32(1));
        adapter_.answer(f.command);
    });

    a.on(LIN_EX_MASTER_SYNC, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels) return adapter_.answer(f.command);
        Channel& c = ch(index);
        bool ready;
        {
            std::lock_guard<std::mutex> g(c.mutex);
            ready = c.initialised;
        }
        if (!ready) return adapter_.answer(f.command);
        const size_t n = (f.payload.size() - 1) / kRecord;
        int64_t t = bus_now_ns();
        Payload out;
        for (size_t i = 0; i < n; ++i) run_frame(index, LinRecord::parse(f.payload.data() + 1 + i * kRecord), t).put(out);
        answer_at(f.command, out, t);
    });

    a.on(LIN_EX_SLAVE_SET_ID, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels) return adapter_.answer(f.command);
        Channel& c = ch(index);
        {
            std::lock_guard<std::mutex> g(c.mutex);
            c.table.clear();
            for (size_t off = 1; off + kRecord <= f.payload.size(); off += kRecord)
                c.table.push_back(LinRecord::parse(f.payload.data() + off));
            c.table_used.assign(c.table.size(), false);
        }
        adapter_.answer(f.command);
    });

    a.on(LIN_EX_SLAVE_GET_ID, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        Payload out;
        if (index < kChannels) {
            Channel& c = ch(index);
            std::lock_guard<std::mutex> g(c.mutex);
            for (const LinRecord& r : c.table) r.put(out);
        }
        adapter_.answer(f.command, out);
    });

    a.on(LIN_EX_SLAVE_GET_DATA, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        Payload out;
        if (index < kChannels) {
            Channel& c = ch(index);
            std::lock_guard<std::mutex> g(c.mutex);
            for (size_t i = 0; i < kFetchLimit && !c.recorded.empty(); ++i) {
                c.recorded.front().put(out);
                c.recorded.pop_front();
            }
        }
        adapter_.answer(f.command, out);
    });

    a.on(LIN_EX_POWER_OUT, [this](const Frame& f) {
        const uint8_t state = f.u8(0), index = f.u8(1);
        if (index >= kChannels) return adapter_.answer(f.command, Payload().u8(1));
        Channel& c = ch(index);
        {
            std::lock_guard<std::mutex> g(c.mutex);
            c.power = state;
        }
        adapter_.answer(f.command);
    });

    a.on(LIN_EX_GET_VBAT, [this](const Frame& f) {
        uint16_t mv;
        {
            std::lock_guard<std::mutex> g(mutex_);
            mv = battery_mv_;
        }
        adapter_.answer(f.command, Payload().be16(mv));
    });

    a.on(LIN_EX_START_SCH, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels) return adapter_.answer(f.command);
        Channel& c = ch(index);
        uint32_t generation;
        bool run;
        {
            std::lock_guard<std::mutex> g(c.mutex);
            c.schedule.clear();
            for (size_t off = 1; off + kRecord <= f.payload.size() && c.schedule.size() < 64; off += kRecord)
                c.schedule.push_back(LinRecord::parse(f.payload.data() + off));
            generation = ++c.schedule_generation;
            c.schedule_results.clear();
            run = c.initialised && !c.schedule.empty();
            c.schedule_running = run;
        }
        adapter_.answer(f.command);
        if (run) {
            const int64_t now = bus_now_ns();
            adapter_.after(std::chrono::microseconds(0), [this, index, generation, now] { schedule_step(index, generation, 0, now); });
        }
    });

    a.on(LIN_EX_STOP_SCH, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index < kChannels) {
            Channel& c = ch(index);
            std::lock_guard<std::mutex> g(c.mutex);
            ++c.schedule_generation;
            c.schedule_running = false;
        }
        adapter_.answer(f.command);
    });

    a.on(LIN_EX_GET_SCH, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        Payload out;
        if (index < kChannels) {
            Channel& c = ch(index);
            std::lock_guard<std::mutex> g(c.mutex);
            for (const LinRecord& r : c.schedule_results) r.put(out);
            c.schedule_results.clear();
        }
        adapter_.answer(f.command, out);
    });

    old_commands();
    flin_commands();
}

LinModel::~LinModel() {
    for (auto& c : channels_) {
        std::lock_guard<std::mutex> g(c->mutex);
        ++c->schedule_generation;
    }
}

void LinModel::reset() {
    for (auto& c : channels_) {
        std::lock_guard<std::mutex> g(c->mutex);
        ++c->schedule_generation;
        c->schedule_running = false;
    }
}

void LinModel::answer_at(uint32_t code, Payload p, int64_t due_ns) {
    adapter_.after(until_bus_ns(due_ns), [this, code, p] { adapter_.answer(code, p); });
}

LinRecord LinModel::run_frame(int index, const LinRecord& req, int64_t& t) {
    Channel& c = ch(index);
    double scale;
    uint8_t read_kind;
    {
        std::lock_guard<std::mutex> g(mutex_);
        scale = scale_;
    }
    {
        std::lock_guard<std::mutex> g(c.mutex);
        read_kind = c.read_kind;
    }
    t += static_cast<int64_t>(double(req.time) * 1e6 * scale);
    LinRecord r = req;
    const uint8_t len = std::min<uint8_t>(req.len, 8);
    switch (req.type) {
        case LIN_MSG_MASTER_WRITE: {
            std::vector<uint8_t> bytes(req.data, req.data + len);
            if (req.check_type != 3) bytes.push_back(req.check);
            const LinBusFrame f = c.bus->header(req.pid, req.break_bits, &bytes, 0, t);
            t = f.end_ns;
            r.type = LIN_MSG_CHECK_SEPARATE;
            r.len = len;
            if (req.check_type == 3) r.check = 0;
            break;
        }
        case LIN_MSG_MASTER_READ: {
            const LinBusFrame f = c.bus->header(req.pid, req.break_bits, nullptr, len == 0 ? 0 : len + 1u, t);
            t = f.end_ns;
            std::memset(r.data, 0, 8);
            r.check = 0;
            const size_t n = f.bytes.size();
            if (read_kind == LIN_MSG_CHECK_IN_DATA) {
                r.type = LIN_MSG_CHECK_IN_DATA;
                r.len = static_cast<uint8_t>(n);
                std::copy(f.bytes.begin(), f.bytes.begin() + std::min<size_t>(n, 8), r.data);
                if (n > 8) r.check = f.bytes[8];
            } else {
                r.type = LIN_MSG_CHECK_SEPARATE;
                r.len = static_cast<uint8_t>(n > 0 ? n - 1 : 0);
                std::copy(f.bytes.begin(), f.bytes.begin() + std::min<size_t>(r.len, 8), r.data);
                if (n > 0) r.check = f.bytes.back();
            }
            break;
        }
        case LIN_MSG_BREAK: t = c.bus->send_break(req.break_bits, t); break;
        default: break;
    }
    r.time = static_cast<uint32_t>(adapter_.clock_us() / 1000);
    return r;
}

void LinModel::schedule_step(int index, uint32_t generation, size_t i, int64_t due_ns) {
    Channel& c = ch(index);
    LinRecord req;
    uint8_t read_kind;
    {
        std::lock_guard<std::mutex> g(c.mutex);
        if (generation != c.schedule_generation || c.schedule.empty()) return;
        req = c.schedule[i % c.schedule.size()];
        read_kind = c.read_kind;
    }
    int64_t t = std::max(due_ns, bus_now_ns());
    const int64_t start = t;
    LinRecord r = run_frame(index, req, t);
    r.type = req.type;  // the schedule reports what it ran
    if (req.type == LIN_MSG_MASTER_READ || req.type == LIN_MSG_MASTER_WRITE) {
        // Data and checksum apart: a counted checksum is taken out again.
        if (req.type == LIN_MSG_MASTER_READ && read_kind == LIN_MSG_CHECK_IN_DATA && r.len > 0) {
            const uint8_t k = std::min<uint8_t>(r.len, 9);
            r.check = k == 9 ? r.check : r.data[k - 1];
            if (k < 9) r.data[k - 1] = 0;
            r.len = static_cast<uint8_t>(k - 1);
        }
    }
    {
        std::lock_guard<std::mutex> g(c.mutex);
        if (generation != c.schedule_generation) return;
        if (c.schedule_results.size() >= kFetchLimit) c.schedule_results.pop_front();
        c.schedule_results.push_back(r);
        ++c.schedule_frames;
    }
    if (t <= start) t = start + 1000000;  // a schedule never spins faster than 1 frame/ms
    adapter_.after(until_bus_ns(t), [this, index, generation, i, t] { schedule_step(index, generation, i + 1, t); });
}

void LinModel::old_commands() {
    Adapter& a = adapter_;
    a.on(LIN_INIT, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels || f.payload.size() < 8) return adapter_.answer(f.command, Payload().u8(1));
        Channel& c = ch(index);
        {
            std::lock_guard<std::mutex> g(c.mutex);
            c.initialised = true;
            c.baud = f.be32(1);
            c.check_mode = f.u8(5);
            c.master_mode = f.u8(6);
            c.break_bits = f.u8(7);
        }
        c.bus->set_baud(f.be32(1));
        adapter_.answer(f.command);
    });
    a.on(LIN_SEND_BREAK, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels) return adapter_.answer(f.command, Payload().u8(1));
        const int64_t end = ch(index).bus->send_break(13, bus_now_ns());
        answer_at(f.command, Payload(), end);
    });
    a.on(LIN_WRITE, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels) return adapter_.answer(f.command, Payload().u8(1));
        Channel& c = ch(index);
        uint8_t mode, bb;
        {
            std::lock_guard<std::mutex> g(c.mutex);
            mode = c.check_mode;
            bb = c.break_bits >= 10 && c.break_bits <= 26 ? c.break_bits : 13;
        }
        int64_t t = bus_now_ns();
        for (size_t off = 1; off + kOldRecord <= f.payload.size(); off += kOldRecord) {
            const uint8_t* m = f.payload.data() + off;
            const uint8_t pid = lin_pid(m[0]);
            const size_t n = std::min<size_t>(m[1], 8);
            std::vector<uint8_t> bytes(m + 2, m + 2 + n);
            const bool enhanced = mode != 0 && (m[0] & 0x3F) < 0x3C;
            bytes.push_back(lin_checksum(enhanced, pid, m + 2, n));
            t = c.bus->header(pid, bb, &bytes, 0, t).end_ns;
        }
        answer_at(f.command, Payload(), t);
    });
    a.on(LIN_READ, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        if (index >= kChannels) return adapter_.answer(f.command);
        Channel& c = ch(index);
        int64_t t = bus_now_ns();
        Payload out;
        for (size_t i = 1; i < f.payload.size(); ++i) {
            const uint8_t pid = lin_pid(f.payload[i]);
            const LinBusFrame fr = c.bus->header(pid, 13, nullptr, 0, t);
            t = fr.end_ns;
            uint8_t rec[kOldRecord] = {};
            rec[0] = pid;
            const size_t n = fr.bytes.empty() ? 0 : fr.bytes.size() - 1;
            rec[1] = static_cast<uint8_t>(n);
            std::copy(fr.bytes.begin(), fr.bytes.begin() + std::min<size_t>(n, 8), rec + 2);
            rec[10] = fr.bytes.empty() ? 0 : fr.bytes.back();
            out.raw(rec, sizeof(rec));
        }
        answer_at(f.command, out, t);
    });
    a.on(LIN_SLAVE_SET_ID, [this](const Frame& f) {
        const uint8_t index = f.u8(0), mode = f.u8(1);
        if (index >= kChannels) return adapter_.answer(f.command, Payload().u8(1));
        Channel& c = ch(index);
        {
            std::lock_guard<std::mutex> g(c.mutex);
            c.table.clear();
            for (size_t off = 2; off + kOldRecord <= f.payload.size(); off += kOldRecord) {
                const uint8_t* m = f.payload.data() + off;
                LinRecord e;
                e.type = mode == 0 ? LIN_MSG_SLAVE_WRITE : LIN_MSG_SLAVE_READ;
                e.pid = lin_pid(m[0]);
                e.len = std::min<uint8_t>(m[1], 8);
                std::memcpy(e.data, m + 2, 8);
                e.check = lin_checksum(c.check_mode != 0 && (m[0] & 0x3F) < 0x3C, e.pid, e.data, e.len);
                c.table.push_back(e);
            }
            c.table_used.assign(c.table.size(), false);
        }
        adapter_.answer(f.command);
    });
    a.on(LIN_SLAVE_GET_DATA, [this](const Frame& f) {
        const uint8_t index = f.u8(0);
        Payload out;
        if (index < kChannels) {
            Channel& c = ch(index);
            std::lock_guard<std::mutex> g(c.mutex);
            for (size_t i = 0; i < kFetchLimit && !c.recorded.empty(); ++i) {
                const LinRecord r = c.recorded.front();
                c.recorded.pop_front();
                if (r.type == LIN_MSG_BREAK) continue;
                uint8_t rec[kOldRecord] = {};
                rec[0] = r.pid;
                uint8_t n = r.len;
                uint8_t check = r.check;
                if (r.type == LIN_MSG_CHECK_IN_DATA && n > 0) {
                    n = std::min<uint8_t>(n, 9);
                    check = n == 9 ? r.check : r.data[n - 1];
                    --n;
                }
                rec[1] = n;
                std::memcpy(rec + 2, r.data, std::min<size_t>(n, 8));
                rec[10] = check;
                out.raw(rec, sizeof(rec));
            }
        }
        adapter_.answer(f.command, out);
    });
}

void LinModel::flin_commands() {
    Adapter& a = adapter_;
    a.on(FLIN_INIT, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            flin_[f.u8(0) & 3].baud = f.be32(1);
        }
        adapter_.answer(f.command);
    });
    a.on(FLIN_WRITE, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            flin_[f.u8(0) & 3].writes.push_back({f.u8(1), std::vector<uint8_t>(f.payload.begin() + std::min<size_t>(2, f.payload.size()), f.payload.end())});
        }
        adapter_.answer(f.command);
    });
    a.on(FLIN_READ, [this](const Frame& f) {
        Payload out;
        {
            std::lock_guard<std::mutex> g(mutex_);
            const uint8_t index = f.u8(0);
            if (index < kChannels && !flin_[index].reads.empty()) {
                out.bytes = flin_[index].reads.front();
                flin_[index].reads.pop_front();
            }
        }
        adapter_.answer(f.command, out);
    });
}

// ---- test side ----

std::shared_ptr<LinBus> LinModel::bus(int channel) { return ch(channel).bus; }

std::shared_ptr<LinSlave> LinModel::add_slave(int channel, LinSlaveConfig config) {
    auto s = std::make_shared<LinSlave>(std::move(config));
    ch(channel).bus->attach(s);
    std::lock_guard<std::mutex> g(mutex_);
    nodes_.push_back(s);
    return s;
}

std::shared_ptr<LinDiagSlave> LinModel::add_diag_slave(int channel, LinDiagConfig config) {
    auto s = std::make_shared<LinDiagSlave>(std::move(config));
    ch(channel).bus->attach(s);
    std::lock_guard<std::mutex> g(mutex_);
    nodes_.push_back(s);
    return s;
}

LinMasterNode LinModel::master_node(int channel) { return LinMasterNode(ch(channel).bus); }

void LinModel::set_time_scale(double scale) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        scale_ = scale;
    }
    for (auto& c : channels_) c->bus->set_time_scale(scale);
}

void LinModel::set_read_result_kind(int channel, uint8_t kind) {
    Channel& c = ch(channel);
    std::lock_guard<std::mutex> g(c.mutex);
    c.read_kind = kind;
}

void LinModel::set_battery_mv(uint16_t mv) {
    std::lock_guard<std::mutex> g(mutex_);
    battery_mv_ = mv;
}

LinModel::ChannelInfo LinModel::channel(int index) {
    Channel& c = ch(index);
    std::lock_guard<std::mutex> g(c.mutex);
    ChannelInfo i;
    i.initialised = c.initialised;
    i.baud = c.baud;
    i.master_mode = c.master_mode;
    i.check_mode = c.check_mode;
    i.break_bits = c.break_bits;
    i.power = c.power;
    i.schedule_running = c.schedule_running;
    i.schedule_frames = c.schedule_frames;
    i.table_entries = c.table.size();
    return i;
}

std::vector<LinRecord> LinModel::table(int index) {
    Channel& c = ch(index);
    std::lock_guard<std::mutex> g(c.mutex);
    return c.table;
}

std::vector<LinModel::FlinWrite> LinModel::flin_writes(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return flin_[index & 3].writes;
}
uint32_t LinModel::flin_baud(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return flin_[index & 3].baud;
}
void LinModel::flin_queue_read(int index, std::vector<uint8_t> bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    flin_[index & 3].reads.push_back(std::move(bytes));
}

// ---- a master node on its own clock ----

LinScheduledMaster::LinScheduledMaster(Adapter& timer, std::shared_ptr<LinBus> bus, LinMasterConfig config)
    : timer_(timer), bus_(std::move(bus)), config_(std::move(config)) {}

void LinScheduledMaster::start(int64_t t0_ns) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        running_ = true;
    }
    std::weak_ptr<LinScheduledMaster> self = weak_from_this();
    for (size_t i = 0; i < config_.frames.size(); ++i) {
        const LinMasterFrameConfig& f = config_.frames[i];
        if (f.count == 0) continue;
        const int64_t due = t0_ns + f.offset_us * 1000;
        timer_.after(until_bus_ns(due), [self, i, count = f.count, due] {
            if (auto m = self.lock()) m->step(i, count, due);
        });
    }
}

void LinScheduledMaster::stop() {
    std::lock_guard<std::mutex> g(mutex_);
    running_ = false;
}

uint64_t LinScheduledMaster::frames_sent() {
    std::lock_guard<std::mutex> g(mutex_);
    return sent_;
}

// Each frame keeps its own period by the master's clock: a timer that runs late puts
// the frame on the bus at its due time all the same, so the bus shows exact periods.
// The whole step runs under the master's lock, so that once stop() returns no frame is
// on its way to nodes that are being taken down.
void LinScheduledMaster::step(size_t index, int64_t remaining, int64_t due_ns) {
    std::lock_guard<std::mutex> g(mutex_);
    if (!running_) return;
    const LinMasterFrameConfig& f = config_.frames[index];
    const uint8_t pid = lin_pid(f.id);
    switch (f.send) {
        case LinMasterFrameConfig::Send::Break: bus_->send_break(f.break_bits, due_ns); break;
        case LinMasterFrameConfig::Send::Publish: {
            std::vector<uint8_t> bytes = f.data;
            bytes.push_back(lin_checksum(f.enhanced, pid, f.data.data(), f.data.size()));
            bus_->header(pid, f.break_bits, &bytes, 0, due_ns);
            break;
        }
        case LinMasterFrameConfig::Send::Header:
            bus_->header(f.wrong_parity ? uint8_t(pid ^ 0xC0) : pid, f.break_bits, nullptr, 0, due_ns);
            break;
    }
    ++sent_;
    if (remaining > 0 && --remaining == 0) return;
    const int64_t next = due_ns + f.period_us * 1000;
    std::weak_ptr<LinScheduledMaster> self = weak_from_this();
    timer_.after(until_bus_ns(next), [self, index, remaining, next] {
        if (auto m = self.lock()) m->step(index, remaining, next);
    });
}

}  // namespace polybus_sim
