#include "can_model.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>

#include "device_model.h"
#include "wire/can.h"
#include "wire/canfd.h"

namespace polybus_sim {

using namespace polybus::wire;

namespace {

constexpr size_t kClassicRecord = 20;
constexpr size_t kFdRecord = 76;
constexpr size_t kAdapterQueue = 200000;  // frames the adapter holds for the host
constexpr uint32_t kStorageBase = kCanScheduleStorage;
constexpr uint32_t kStorageMagic = kCanScheduleMagic;
constexpr size_t kStorageHeader = kCanScheduleHeader;

uint32_t le32(const uint8_t* p) { return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24; }
void put_le32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

uint8_t dlc_code(unsigned bytes) {
    static const unsigned limits[] = {12, 16, 20, 24, 32, 48};
    if (bytes <= 8) return uint8_t(bytes);
    for (unsigned i = 0; i < 6; ++i)
        if (bytes <= limits[i]) return uint8_t(9 + i);
    return 15;
}
uint8_t dlc_bytes(unsigned code) {
    static const uint8_t bytes[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    return bytes[code & 0xF];
}

// Controller identifier layout of the CAN FD adapters.
uint32_t id_to_controller(uint32_t id, bool extended) {
    if (extended) return ((id >> 18) & 0x7FFu) | (id & 0x3FFFFu) << 11;
    return (id & 0x7FFu) | ((id >> 11) & 1u) << 29;
}
uint32_t id_from_controller(uint32_t w, bool extended) {
    if (extended) return (w & 0x7FFu) << 18 | ((w >> 11) & 0x3FFFFu);
    return (w & 0x7FFu) | ((w >> 29) & 1u) << 11;
}

// Acceptance register of a classic frame: standard identifier in bits 31-21, extension
// in bits 20-3, IDE bit 2, RTR bit 1.
uint32_t classic_register(const BusFrame& f) {
    const uint32_t standard = f.extended ? (f.id >> 18) & 0x7FFu : f.id & 0x7FFu;
    const uint32_t extension = f.extended ? f.id & 0x3FFFFu : 0;
    return standard << 21 | extension << 3 | uint32_t{f.extended} << 2 | uint32_t{f.remote} << 1;
}

BusFrame frame_from_classic_record(const uint8_t* r) {
    BusFrame f;
    f.id = le32(r) & 0x1FFFFFFFu;
    f.remote = r[8] & 1;
    f.extended = r[9] & 1;
    f.len = std::min<uint8_t>(r[10], 8);
    std::memcpy(f.data, r + 11, 8);
    if (!f.extended) f.id &= 0x7FF;
    return f;
}

BusFrame frame_from_fd_record(const uint8_t* r) {
    BusFrame f;
    const uint32_t id = le32(r);
    f.extended = id >> 31;
    f.remote = (id >> 30) & 1;
    f.id = id & 0x1FFFFFFFu;
    f.len = std::min<uint8_t>(r[4], 64);
    f.brs = r[5] & 1;
    f.esi = (r[5] >> 1) & 1;
    f.fd = (r[5] >> 2) & 1;
    std::memcpy(f.data, r + 12, 64);
    return f;
}

// Head words 0 and 1 of a packed frame (time stamp bits 32-39 and index excluded).
void fd_head_words(const BusFrame& f, uint32_t& w0, uint32_t& w1) {
    w0 = id_to_controller(f.id, f.extended);
    w1 = dlc_code(f.len) | uint32_t{f.extended} << 4 | uint32_t{f.remote} << 5 | uint32_t{f.brs} << 6 |
         uint32_t{f.fd} << 7 | uint32_t{f.esi} << 8;
}

}  // namespace

// ---- Schedules --------------------------------------------------------------------

struct CanModel::Tables {
    struct Entry {
        BusFrame frame;
        uint32_t pause_ms;
    };
    std::vector<std::vector<Entry>> tables;
    std::vector<uint16_t> params;
};

// ---- Channels ---------------------------------------------------------------------

class CanModel::Channel : public BusNode {
public:
    Channel(CanModel& model, int index) : model_(model), index_(index) {}

    uint32_t nominal_bps() const override {
        std::lock_guard<std::mutex> g(model_.mutex_);
        return initialised ? nominal : 0;
    }
    uint32_t data_bps() const override {
        std::lock_guard<std::mutex> g(model_.mutex_);
        return initialised ? data : 0;
    }
    bool fd_capable() const override { return model_.fd_; }

    void receive(const BusFrame& frame, int64_t end_ns) override {
        std::lock_guard<std::mutex> g(model_.mutex_);
        if (!initialised || !accepts(frame)) return;
        if (rx.size() >= kAdapterQueue) return;  // the adapter's queue overflows: newest lost
        rx.push_back({frame, end_ns, model_.adapter_us(end_ns)});
        ++received;
    }

    // Another node's frame at a bit rate this controller is not set to: it sees stuff
    // errors, flags them and counts one receive error each time.
    void bus_error(int64_t) override {
        std::lock_guard<std::mutex> g(model_.mutex_);
        if (!initialised) return;
        if (rec < 128) ++rec;
        lec = 1;  // stuff error
        ++bus_errors;
    }

    // Called with the model locked.
    bool accepts(const BusFrame& f) const {
        bool any = false;
        if (model_.fd_) {
            const uint32_t word = f.id | uint32_t{f.remote} << 30 | uint32_t{f.extended} << 31;
            for (auto& [index, filter] : fd_filters) {
                (void)index;
                if (!filter.enable) continue;
                any = true;
                if (((word ^ filter.id) & filter.mask) == 0) return true;
            }
            return !any;
        }
        const uint32_t reg = classic_register(f);
        for (int b = index_ * 14; b < index_ * 14 + 14; ++b) {
            const Bank& bank = model_.banks_[b];
            if (!bank.enable) continue;
            any = true;
            if (bank.list_mode) {
                if (reg == (bank.id & ~1u) || reg == (bank.mask & ~1u)) return true;
            } else if (((reg ^ bank.id) & bank.mask & ~1u) == 0) {
                return true;
            }
        }
        return !any;
    }

    void clear() {
        initialised = false;
        nominal = data = 0;
        rx.clear();
        tx.clear();
        tx_total = 0;
        abort_ns = LLONG_MAX;
        fd_filters.clear();
        ++schedule_generation;
        schedule_running = false;
        uploaded.reset();
    }

    struct Rx {
        BusFrame frame;
        int64_t visible_ns;
        uint64_t adapter_us;
    };
    struct Tx {
        BusFrame frame;
        int64_t end_ns;
        uint8_t index;
        uint64_t adapter_us;
        bool fetched;
    };
    struct FdFilter {
        bool enable;
        uint32_t id, mask;
    };

    // Everything below is guarded by the model's mutex.
    bool initialised = false;
    uint32_t nominal = 0, data = 0;
    uint8_t mode = 0;
    std::vector<uint8_t> init_payload;
    std::deque<Rx> rx;
    std::map<uint8_t, FdFilter> fd_filters;
    uint8_t tec = 0, rec = 0, lec = 0;
    uint32_t status_word = 0;
    bool diag_set = false;
    std::array<uint8_t, 8> diag{};
    uint64_t sent = 0, received = 0, bus_errors = 0;
    std::vector<Tx> tx;  // transmitted frames of the last CAN FD send request
    unsigned tx_total = 0;
    int64_t abort_ns = LLONG_MAX;
    // Schedule player.
    std::shared_ptr<Tables> uploaded;
    uint64_t uploaded_us = 0;
    uint32_t schedule_generation = 0;
    bool schedule_running = false;
    std::vector<Tables::Entry> sequence;
    size_t position = 0;
    unsigned passes_left = 0;  // 0: endless
    uint64_t schedule_frames = 0;

    // Bit 0 error warning (a counter at 96 or more), bit 1 error passive (128 or more).
    uint8_t state_flags() const {
        return uint8_t((tec >= 96 || rec >= 96 ? 1 : 0) | (tec >= 128 || rec >= 128 ? 2 : 0));
    }

    // A controller that is off never tries to transmit, so it counts no errors either.
    void count_transmission(bool acknowledged) {
        if (!initialised) return;
        if (acknowledged) {
            ++sent;
            if (tec > 0) --tec;
            lec = 0;
        } else {
            if (tec < 128) tec = uint8_t(std::min(128, tec + 8));
            lec = 3;  // acknowledgement error
        }
    }

private:
    CanModel& model_;
    int index_;
};

// ---- Peers ------------------------------------------------------------------------

CanPeer::CanPeer(Adapter& timer_owner, uint32_t nominal_bps, uint32_t data_bps)
    : timer_(timer_owner), nominal_(nominal_bps), data_(data_bps) {}

void CanPeer::set_bus(const std::shared_ptr<CanBus>& bus) {
    std::lock_guard<std::mutex> g(mutex_);
    bus_ = bus;
}

void CanPeer::send(const BusFrame& frame) { send_at(frame, bus_now_ns()); }

void CanPeer::send_at(const BusFrame& frame, int64_t due_ns) {
    std::shared_ptr<CanBus> bus;
    {
        std::lock_guard<std::mutex> g(mutex_);
        bus = bus_.lock();
    }
    if (bus) bus->transmit(this, frame, due_ns);
}

// The timer that runs `due_ns` may fire late on a busy host.
void CanPeer::send_later(const BusFrame& frame, int64_t due_ns) {
    std::weak_ptr<CanPeer> self = weak_from_this();
    timer_.after(until_bus_ns(due_ns), [self, frame, due_ns] {
        if (auto p = self.lock()) p->send_at(frame, due_ns);
    });
}

void CanPeer::transmit_every(const BusFrame& frame, int64_t period_us, int count) {
    uint32_t generation;
    {
        std::lock_guard<std::mutex> g(mutex_);
        generation = generation_;
    }
    periodic(frame, period_us, count, generation, bus_now_ns());
}

// A peer keeps time by its own clock: each frame goes on the bus at its due time even
// when the host's timer thread runs it late, so the period seen on the bus is exact.
void CanPeer::periodic(BusFrame frame, int64_t period_us, int remaining, uint32_t generation, int64_t due_ns) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        if (generation != generation_ || remaining == 0) return;
    }
    send_at(frame, due_ns);
    const int64_t next_ns = due_ns + period_us * 1000;
    std::weak_ptr<CanPeer> self = weak_from_this();
    timer_.after(until_bus_ns(next_ns), [self, frame, period_us, remaining, generation, next_ns] {
        if (auto p = self.lock()) p->periodic(frame, period_us, remaining < 0 ? -1 : remaining - 1, generation, next_ns);
    });
}

void CanPeer::transmit_every(std::function<BusFrame(uint64_t, int64_t)> make, int64_t period_us, int64_t first_due_ns) {
    uint32_t generation;
    {
        std::lock_guard<std::mutex> g(mutex_);
        generation = generation_;
    }
    auto shared = std::make_shared<std::function<BusFrame(uint64_t, int64_t)>>(std::move(make));
    std::weak_ptr<CanPeer> self = weak_from_this();
    timer_.after(until_bus_ns(first_due_ns), [self, shared, period_us, generation, first_due_ns] {
        if (auto p = self.lock()) p->generated(shared, period_us, 0, generation, first_due_ns);
    });
}

void CanPeer::generated(std::shared_ptr<std::function<BusFrame(uint64_t, int64_t)>> make, int64_t period_us, uint64_t n,
                        uint32_t generation, int64_t due_ns) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        if (generation != generation_) return;
    }
    send_at((*make)(n, due_ns), due_ns);
    const int64_t next_ns = due_ns + period_us * 1000;
    std::weak_ptr<CanPeer> self = weak_from_this();
    timer_.after(until_bus_ns(next_ns), [self, make, period_us, n, generation, next_ns] {
        if (auto p = self.lock()) p->generated(make, period_us, n + 1, generation, next_ns);
    });
}

void CanPeer::answer(uint32_t request_id, const BusFrame& reply, int64_t delay_us) {
    std::lock_guard<std::mutex> g(mutex_);
    replies_.push_back({request_id, reply, delay_us, false});
}

void CanPeer::echo(uint32_t request_id, uint32_t reply_id, bool reply_extended, int64_t delay_us) {
    BusFrame reply;
    reply.id = reply_id;
    reply.extended = reply_extended;
    std::lock_guard<std::mutex> g(mutex_);
    replies_.push_back({request_id, reply, delay_us, true});
}

void CanPeer::stop() {
    std::lock_guard<std::mutex> g(mutex_);
    ++generation_;
    replies_.clear();
}

std::vector<BusFrame> CanPeer::received() {
    std::lock_guard<std::mutex> g(mutex_);
    return received_;
}

size_t CanPeer::received_count() {
    std::lock_guard<std::mutex> g(mutex_);
    return received_.size();
}

void CanPeer::receive(const BusFrame& frame, int64_t end_ns) {
    std::lock_guard<std::mutex> g(mutex_);
    received_.push_back(frame);
    for (auto& r : replies_) {
        if (r.id != frame.id) continue;
        if (!r.echo) {
            send_later(r.frame, end_ns + r.delay_us * 1000);
            continue;
        }
        BusFrame back = frame;
        back.id = r.frame.id;
        back.extended = r.frame.extended;
        send_later(back, end_ns + r.delay_us * 1000);
    }
}

// ---- The model --------------------------------------------------------------------

namespace {
bool is_fd_identifier(uint32_t identifier) {
    const uint32_t top = identifier >> 24;
    return top == 0x53 || top == 0x54;
}
}  // namespace

CanModel::CanModel(Adapter& adapter) : adapter_(adapter), fd_(is_fd_identifier(adapter.config().identifier)) {
    epoch_ns_ = bus_now_ns() - int64_t(adapter_.clock_us()) * 1000;
    auto shared = std::make_shared<CanBus>();
    for (int i = 0; i < kChannels; ++i) {
        channels_[i] = std::make_shared<Channel>(*this, i);
        buses_[i] = shared;
        shared->attach(channels_[i]);
    }
    if (fd_) fd_commands();
    else classic_commands();
}

CanModel::~CanModel() {
    for (int i = 0; i < kChannels; ++i) buses_[i]->detach(channels_[i].get());
}

void CanModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    epoch_ns_ = bus_now_ns() - int64_t(adapter_.clock_us()) * 1000;
    for (auto& c : channels_) {
        c->clear();
        c->tec = c->rec = c->lec = 0;
        c->status_word = 0;
        c->diag_set = false;
    }
    for (auto& b : banks_) b = Bank{};
    relay_ = 0;
}

uint64_t CanModel::adapter_us(int64_t bus_ns) const {
    return bus_ns > epoch_ns_ ? uint64_t(bus_ns - epoch_ns_) / 1000u : 0;
}

std::shared_ptr<CanBus> CanModel::bus(int channel) {
    std::lock_guard<std::mutex> g(mutex_);
    return buses_[channel & 1];
}

void CanModel::attach(int channel, const std::shared_ptr<CanBus>& bus) {
    std::shared_ptr<CanBus> old;
    {
        std::lock_guard<std::mutex> g(mutex_);
        old = buses_[channel & 1];
        buses_[channel & 1] = bus;
    }
    old->detach(channels_[channel & 1].get());
    bus->attach(channels_[channel & 1]);
}

std::shared_ptr<CanPeer> CanModel::add_peer(int channel, uint32_t nominal_bps, uint32_t data_bps) {
    auto peer = std::make_shared<CanPeer>(adapter_, nominal_bps, data_bps);
    auto b = bus(channel);
    peer->set_bus(b);
    b->attach(peer);
    std::lock_guard<std::mutex> g(mutex_);
    peers_.push_back(peer);
    return peer;
}

CanModel::ChannelInfo CanModel::channel(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    Channel& c = ch(index);
    ChannelInfo info;
    info.initialised = c.initialised;
    info.nominal_bps = c.nominal;
    info.data_bps = c.data;
    info.mode = c.mode;
    info.init_payload = c.init_payload;
    info.frames_sent = c.sent;
    info.frames_received = c.received;
    info.schedule_frames = c.schedule_frames;
    info.schedule_running = c.schedule_running;
    info.bus_errors = c.bus_errors;
    info.tec = c.tec;
    info.rec = c.rec;
    return info;
}

size_t CanModel::pending(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    const int64_t now = bus_now_ns();
    size_t n = 0;
    for (auto& e : ch(index).rx)
        if (e.visible_ns <= now) ++n;
    return n;
}

void CanModel::set_error_counters(int index, uint8_t tec, uint8_t rec, uint8_t lec) {
    std::lock_guard<std::mutex> g(mutex_);
    ch(index).tec = tec;
    ch(index).rec = rec;
    ch(index).lec = lec & 7;
}

void CanModel::set_status_word(int index, uint32_t word) {
    std::lock_guard<std::mutex> g(mutex_);
    ch(index).status_word = word;
}

void CanModel::set_diagnostic(int index, const std::array<uint8_t, 8>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    ch(index).diag = bytes;
    ch(index).diag_set = true;
}

uint8_t CanModel::relay_state() {
    std::lock_guard<std::mutex> g(mutex_);
    return relay_;
}

void CanModel::inject_received(int index, const std::vector<BusFrame>& frames, const std::vector<uint64_t>& stamps) {
    std::lock_guard<std::mutex> g(mutex_);
    for (size_t i = 0; i < frames.size(); ++i)
        ch(index).rx.push_back({frames[i], 0, i < stamps.size() ? stamps[i] : 0});
}

void CanModel::set_fetch_limit(size_t frames) {
    std::lock_guard<std::mutex> g(mutex_);
    fetch_limit_ = frames;
}

// ---- Commands shared by both kinds --------------------------------------------------

void CanModel::on_start_schedule(const Frame& f) {
    adapter_.answer(f.command, Payload().u8(uint8_t(start_schedule(f.u8(0), f.u8(1), f.u8(2)))));
}

void CanModel::on_stop_schedule(const Frame& f) {
    if (f.u8(0) < kChannels) {
        std::lock_guard<std::mutex> g(mutex_);
        ++ch(f.u8(0)).schedule_generation;
        ch(f.u8(0)).schedule_running = false;
    }
    adapter_.answer(f.command);
}

void CanModel::on_relay(const Frame& f) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        relay_ = f.u8(0);
    }
    adapter_.answer(f.command, Payload().u8(f.u8(0)));
}

// [0] channel, [1] tables, the tables' frame counts, their u16 parameters (little-endian),
// then the frames as records of `record` bytes (pause in ms in their time stamp field).
void CanModel::on_upload(const Frame& f, size_t record) {
    const int index = f.u8(0);
    const unsigned tables = f.u8(1);
    size_t frames = 0;
    for (unsigned t = 0; t < tables; ++t) frames += f.u8(2 + t);
    uint8_t verdict = 1;
    if (index < kChannels && tables != 0 && f.payload.size() == 2 + 3 * tables + frames * record) {
        auto s = std::make_shared<Tables>();
        size_t offset = 2 + 3 * tables;
        for (unsigned t = 0; t < tables; ++t) {
            s->params.push_back(uint16_t(f.u8(2 + tables + 2 * t) | f.u8(3 + tables + 2 * t) << 8));
            std::vector<Tables::Entry> table;
            for (unsigned i = 0; i < f.u8(2 + t); ++i, offset += record) {
                const uint8_t* r = &f.payload[offset];
                if (record == kFdRecord) table.push_back({frame_from_fd_record(r), le32(r + 8)});
                else table.push_back({frame_from_classic_record(r), le32(r + 4)});
            }
            s->tables.push_back(std::move(table));
        }
        std::lock_guard<std::mutex> g(mutex_);
        ch(index).uploaded = s;
        ch(index).uploaded_us = adapter_.clock_us();
        verdict = 0;
    }
    adapter_.answer(f.command, Payload().u8(verdict));
}

void CanModel::on_stop(const Frame& f) {
    if (f.u8(0) < kChannels) {
        std::lock_guard<std::mutex> g(mutex_);
        Channel& c = ch(f.u8(0));
        c.initialised = false;
        c.rx.clear();
        ++c.schedule_generation;
        c.schedule_running = false;
    }
    adapter_.answer(f.command);
}

void CanModel::on_fetch(const Frame& f) {
    const int index = f.u8(0);
    std::vector<uint8_t> out;
    {
        std::lock_guard<std::mutex> g(mutex_);
        if (index < kChannels) {
            Channel& c = ch(index);
            const int64_t now = bus_now_ns();
            size_t n = 0;
            out.reserve(std::min(c.rx.size(), fetch_limit_) * (fd_ ? kFdRecord : kClassicRecord));
            while (!c.rx.empty() && n < fetch_limit_ && c.rx.front().visible_ns <= now) {
                const Channel::Rx& e = c.rx.front();
                const uint64_t stamp = stamp_units(e.adapter_us);
                const BusFrame& fr = e.frame;
                if (fd_) {
                    uint32_t w0, w1;
                    fd_head_words(fr, w0, w1);
                    w1 |= uint32_t(uint8_t(stamp >> 32)) << 16;
                    put_le32(out, w0);
                    put_le32(out, w1);
                    put_le32(out, uint32_t(stamp));
                    const uint8_t* d = fr.data;
                    out.insert(out.end(), d, d + dlc_bytes(dlc_code(fr.len)));
                } else {
                    put_le32(out, fr.id);
                    put_le32(out, uint32_t(stamp));
                    out.push_back(fr.remote);
                    out.push_back(fr.extended);
                    out.push_back(fr.len);
                    out.insert(out.end(), fr.data, fr.data + 8);
                    out.push_back(uint8_t(stamp >> 32));
                }
                c.rx.pop_front();
                ++n;
            }
        }
    }
    adapter_.answer(f.command, out);
}

int CanModel::start_schedule(int index, uint8_t table, uint8_t passes) {
    if (index >= kChannels) return 1;
    std::shared_ptr<Tables> tables;
    {
        std::lock_guard<std::mutex> g(mutex_);
        tables = ch(index).uploaded;
    }
    if (!fd_) {
        // What was uploaded last plays: by command, or into the schedule storage.
        const uint64_t erased = adapter_.model<DeviceModel>().schedule_erased_us(kStorageBase + (uint32_t(index) << 17));
        uint64_t uploaded_us;
        {
            std::lock_guard<std::mutex> g(mutex_);
            uploaded_us = ch(index).uploaded_us;
        }
        if (!tables || erased > uploaded_us) {
            if (auto stored = stored_schedule(index)) tables = stored;
        }
    }
    uint32_t generation;
    {
        std::lock_guard<std::mutex> g(mutex_);
        Channel& c = ch(index);
        if (!tables || !c.initialised) return 1;
        if (table != 0xFF && table >= tables->tables.size()) return 1;
        c.sequence.clear();
        for (size_t t = 0; t < tables->tables.size(); ++t) {
            if (table != 0xFF && t != table) continue;
            const unsigned repeat = std::max<unsigned>(1, tables->params[t]);
            for (unsigned r = 0; r < repeat; ++r)
                c.sequence.insert(c.sequence.end(), tables->tables[t].begin(), tables->tables[t].end());
        }
        if (c.sequence.empty()) return 1;
        c.position = 0;
        c.passes_left = passes;
        c.schedule_running = true;
        generation = ++c.schedule_generation;
    }
    const int64_t due_ns = bus_now_ns();
    adapter_.after(std::chrono::microseconds(0), [this, index, generation, due_ns] { schedule_step(index, generation, due_ns); });
    return 0;
}

// The adapter plays a schedule by its own clock: a frame goes on the bus when it is due,
// even if the simulation's timer thread gets to it late.
void CanModel::schedule_step(int index, uint32_t generation, int64_t due_ns) {
    Tables::Entry entry;
    std::shared_ptr<CanBus> bus;
    {
        std::lock_guard<std::mutex> g(mutex_);
        Channel& c = ch(index);
        if (c.schedule_generation != generation || !c.schedule_running) return;
        entry = c.sequence[c.position];
        if (++c.position == c.sequence.size()) {
            c.position = 0;
            if (c.passes_left != 0 && --c.passes_left == 0) c.schedule_running = false;
        }
        bus = buses_[index];
    }
    const CanBus::Result r = bus->transmit(channels_[index].get(), entry.frame, due_ns);
    bool again;
    {
        std::lock_guard<std::mutex> g(mutex_);
        Channel& c = ch(index);
        c.count_transmission(r.acknowledged);
        ++c.schedule_frames;
        again = c.schedule_generation == generation && c.schedule_running;
    }
    if (!again) return;
    const int64_t next_ns = r.end_ns + int64_t(entry.pause_ms) * 1000000;
    adapter_.after(until_bus_ns(next_ns), [this, index, generation, next_ns] { schedule_step(index, generation, next_ns); });
}

std::shared_ptr<CanModel::Tables> CanModel::stored_schedule(int index) {
    const std::vector<uint8_t> area = adapter_.model<DeviceModel>().schedule_data();
    const size_t base = DeviceModel::schedule_offset(kStorageBase + (uint32_t(index) << 17));
    if (base == SIZE_MAX || base + kStorageHeader > area.size()) return nullptr;
    const uint8_t* h = area.data() + base;
    if (le32(h) != kStorageMagic) return nullptr;
    const uint32_t count = le32(h + 4);
    if (count == 0 || count > 256) return nullptr;
    auto tables = std::make_shared<Tables>();
    size_t offset = base + kStorageHeader;
    for (uint32_t t = 0; t < count; ++t) {
        std::vector<Tables::Entry> table;
        for (unsigned i = 0; i < h[8 + t]; ++i, offset += kClassicRecord) {
            if (offset + kClassicRecord > area.size()) return nullptr;
            table.push_back({frame_from_classic_record(area.data() + offset), le32(area.data() + offset + 4)});
        }
        tables->tables.push_back(std::move(table));
        tables->params.push_back(uint16_t(h[264 + 2 * t] | h[265 + 2 * t] << 8));
    }
    return tables;
}

void CanModel::on_init(const Frame& f, size_t min_size, const std::function<void(const Frame&, Channel&)>& rates) {
    const int index = f.u8(0);
    if (index < kChannels && f.payload.size() >= min_size) {
        std::lock_guard<std::mutex> g(mutex_);
        Channel& c = ch(index);
        c.rx.clear();
        c.initialised = true;
        rates(f, c);
        c.init_payload = f.payload;
    }
    adapter_.answer(f.command);
}

// ---- Classic adapter ----------------------------------------------------------------

void CanModel::classic_commands() {
    adapter_.on(CAN_INIT, [this](const Frame& f) {
        on_init(f, 13, [this](const Frame& f, Channel& c) {
            // Segments arrive as register codes (value - 1).
            const uint32_t bs1 = f.u8(9) + 1u, bs2 = f.u8(10) + 1u, brp = f.be16(11);
            const uint32_t clock = (adapter_.config().identifier >> 28) == 0x4 ? 42000000u : 100000000u;
            c.nominal = brp == 0 ? 0 : clock / (brp * (1 + bs1 + bs2));
            c.data = 0;
            c.mode = f.u8(7);
        });
    });
    adapter_.on(CAN_SET_FILTER, [this](const Frame& f) {
        const unsigned bank = f.u8(1);
        if (bank < 28) {
            std::lock_guard<std::mutex> g(mutex_);
            Bank& b = banks_[bank];
            b.list_mode = f.u8(2) != 0;
            b.id = f.be32(4);
            b.mask = f.be32(8);
            b.enable = f.u8(13) != 0;
        }
        adapter_.answer(f.command);
    });
    adapter_.on(CAN_SEND, [this](const Frame& f) { on_classic_send(f); });
    adapter_.on(CAN_READ, [this](const Frame& f) { on_fetch(f); });
    adapter_.on(CAN_GET_STATUS, [this](const Frame& f) {
        Payload p;
        {
            std::lock_guard<std::mutex> g(mutex_);
            const Channel& c = ch(f.u8(0));
            const uint32_t error = uint32_t{c.rec} << 24 | uint32_t{c.tec} << 16 | uint32_t(c.lec & 7) << 4 | c.state_flags();
            p.le32(c.status_word).le32(error);
        }
        adapter_.answer(f.command, p);
    });
    adapter_.on(CAN_START_SCHEDULE, [this](const Frame& f) { on_start_schedule(f); });
    adapter_.on(CAN_STOP_SCHEDULE, [this](const Frame& f) { on_stop_schedule(f); });
    adapter_.on(CAN_SET_RELAY, [this](const Frame& f) { on_relay(f); });
    adapter_.on(CAN_SET_SCHEDULE, [this](const Frame& f) { on_upload(f, kClassicRecord); });
    adapter_.on(CAN_STOP, [this](const Frame& f) { on_stop(f); });
}

void CanModel::on_classic_send(const Frame& f) {
    const int index = f.u8(0);
    const size_t count = f.payload.size() >= 1 ? (f.payload.size() - 1) / kClassicRecord : 0;
    uint32_t accepted = 0;
    int64_t last_end = bus_now_ns();
    if (index < kChannels) {
        std::shared_ptr<CanBus> bus;
        {
            std::lock_guard<std::mutex> g(mutex_);
            bus = buses_[index];
        }
        for (size_t i = 0; i < count; ++i) {
            const BusFrame frame = frame_from_classic_record(&f.payload[1 + i * kClassicRecord]);
            const CanBus::Result r = bus->transmit(channels_[index].get(), frame, bus_now_ns());
            last_end = std::max(last_end, r.end_ns);
            std::lock_guard<std::mutex> g(mutex_);
            ch(index).count_transmission(r.acknowledged);
            if (r.acknowledged) ++accepted;
        }
    }
    // The answer comes once the frames are out on the bus.
    const uint32_t code = f.command;
    Payload p;
    p.le32(accepted);
    adapter_.after(until_bus_ns(last_end), [this, code, p] { adapter_.answer(code, p); });
}

// ---- CAN FD adapter -----------------------------------------------------------------

void CanModel::fd_commands() {
    adapter_.on(CANFD_INIT, [this](const Frame& f) {
        on_init(f, 21, [](const Frame& f, Channel& c) {
            const uint8_t* r = &f.payload[1];
            const uint32_t nominal_tq = uint32_t{r[4]} * (1u + r[5] + r[6]);
            const uint32_t data_tq = uint32_t{r[8]} * (1u + r[9] + r[10]);
            c.nominal = nominal_tq == 0 ? 0 : 40000000u / nominal_tq;
            c.data = data_tq == 0 ? 0 : 40000000u / data_tq;
            c.mode = r[0];
        });
    });
    adapter_.on(CANFD_SET_FILTER, [this](const Frame& f) {
        const int index = f.u8(0);
        if (index < kChannels) {
            std::lock_guard<std::mutex> g(mutex_);
            for (size_t off = 1; off + 12 <= f.payload.size(); off += 12) {
                const uint8_t* e = &f.payload[off];
                ch(index).fd_filters[e[1]] = {e[0] != 0, le32(e + 4), le32(e + 8)};
            }
        }
        adapter_.answer(f.command);
    });
    adapter_.on(CANFD_SEND, [this](const Frame& f) { on_fd_send(f); });
    adapter_.on(CANFD_READ, [this](const Frame& f) { on_fetch(f); });
    adapter_.on(CANFD_GET_DIAGNOSTIC, [this](const Frame& f) {
        std::vector<uint8_t> out;
        {
            std::lock_guard<std::mutex> g(mutex_);
            const Channel& c = ch(f.u8(0));
            if (c.diag_set) {
                out.assign(c.diag.begin(), c.diag.end());
            } else {
                put_le32(out, uint32_t(c.received));
                put_le32(out, uint32_t(c.sent));
            }
        }
        adapter_.answer(f.command, out);
    });
    adapter_.on(CANFD_GET_BUS_ERROR, [this](const Frame& f) {
        Payload p;
        {
            std::lock_guard<std::mutex> g(mutex_);
            const Channel& c = ch(f.u8(0));
            p.u8(c.tec).u8(c.rec).u8(c.lec).u8(c.state_flags());
        }
        adapter_.answer(f.command, p);
    });
    adapter_.on(CANFD_START_SCHEDULE, [this](const Frame& f) { on_start_schedule(f); });
    adapter_.on(CANFD_STOP_SCHEDULE, [this](const Frame& f) { on_stop_schedule(f); });
    adapter_.on(CANFD_SET_RELAY, [this](const Frame& f) { on_relay(f); });
    adapter_.on(CANFD_GET_TX_EVENTS, [this](const Frame& f) {
        std::vector<uint8_t> out;
        {
            std::lock_guard<std::mutex> g(mutex_);
            const int64_t now = bus_now_ns();
            for (auto& t : ch(f.u8(0)).tx) {
                if (t.fetched || t.end_ns > now) continue;
                t.fetched = true;
                const uint64_t stamp = stamp_units(t.adapter_us);
                uint32_t w0, w1;
                fd_head_words(t.frame, w0, w1);
                w1 |= uint32_t(t.index & 0x7F) << 9 | uint32_t(uint8_t(stamp >> 32)) << 16;
                put_le32(out, w0);
                put_le32(out, w1);
                put_le32(out, uint32_t(stamp));
            }
        }
        adapter_.answer(f.command, out);
    });
    adapter_.on(CANFD_SEND_STATUS, [this](const Frame& f) {
        Payload p;
        {
            std::lock_guard<std::mutex> g(mutex_);
            const Channel& c = ch(f.u8(0));
            const int64_t now = bus_now_ns();
            unsigned done = 0;
            for (auto& t : c.tx)
                if (t.end_ns <= now) ++done;
            const bool aborted = c.abort_ns <= now;
            p.u8(uint8_t(done)).u8(uint8_t(aborted ? 0 : c.tx_total - done)).u8(uint8_t(c.tx_total)).u8(aborted ? 1 : 0);
        }
        adapter_.answer(f.command, p);
    });
    adapter_.on(CANFD_SET_SCHEDULE, [this](const Frame& f) { on_upload(f, kFdRecord); });
    adapter_.on(CANFD_STOP, [this](const Frame& f) { on_stop(f); });
}

void CanModel::on_fd_send(const Frame& f) {
    // 12-byte head ([10] channel, [11] frames), then the packed frames.
    const int index = f.u8(10);
    const unsigned count = f.u8(11);
    std::vector<BusFrame> frames;
    std::vector<uint8_t> indexes;
    size_t offset = kFdHead;
    for (unsigned i = 0; i < count && offset + kFdHead <= f.payload.size(); ++i) {
        const uint8_t* h = &f.payload[offset];
        const uint32_t w0 = le32(h), w1 = le32(h + 4);
        BusFrame fr;
        fr.extended = (w1 >> 4) & 1;
        fr.remote = (w1 >> 5) & 1;
        fr.brs = (w1 >> 6) & 1;
        fr.fd = (w1 >> 7) & 1;
        fr.esi = (w1 >> 8) & 1;
        fr.id = id_from_controller(w0, fr.extended);
        const size_t n = dlc_bytes(w1 & 0xF);
        if (offset + kFdHead + n > f.payload.size()) break;
        fr.len = uint8_t(n);
        std::memcpy(fr.data, h + kFdHead, n);
        frames.push_back(fr);
        indexes.push_back(uint8_t((w1 >> 9) & 0x7F));
        offset += kFdHead + n;
    }
    if (index < kChannels) {
        std::shared_ptr<CanBus> bus;
        {
            std::lock_guard<std::mutex> g(mutex_);
            Channel& c = ch(index);
            c.tx.clear();
            c.tx_total = count;
            c.abort_ns = LLONG_MAX;
            bus = buses_[index];
        }
        for (size_t i = 0; i < frames.size(); ++i) {
            const CanBus::Result r = bus->transmit(channels_[index].get(), frames[i], bus_now_ns());
            std::lock_guard<std::mutex> g(mutex_);
            Channel& c = ch(index);
            c.count_transmission(r.acknowledged);
            if (!r.acknowledged) {  // nobody acknowledged: the rest of the request is dropped
                c.abort_ns = r.end_ns;
                break;
            }
            c.tx.push_back({frames[i], r.end_ns, indexes[i], adapter_us(r.end_ns), false});
        }
        if (frames.size() < count) {  // a truncated request is aborted where it breaks off
            std::lock_guard<std::mutex> g(mutex_);
            Channel& c = ch(index);
            if (c.abort_ns == LLONG_MAX) c.abort_ns = c.tx.empty() ? bus_now_ns() : c.tx.back().end_ns;
        }
    }
    adapter_.answer(f.command);
}

}  // namespace polybus_sim
