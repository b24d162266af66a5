#include "can_uds_ecu.h"

#include <algorithm>
#include <cstring>

namespace polybus_sim {

namespace {

constexpr uint32_t kEscapeFrom = 4096;  // answers this long need the 4-byte length

// Separation time as ISO 15765-2 gives it: 0..127 ms, 0xF1..0xF9 hundreds of
// microseconds; reserved values are read as the longest time.
int64_t separation_ns(uint8_t st) {
    if (st <= 0x7F) return int64_t{st} * 1000000;
    if (st >= 0xF1 && st <= 0xF9) return int64_t{st - 0xF0} * 100000;
    return int64_t{0x7F} * 1000000;
}

std::vector<uint8_t> negative(uint8_t sid, uint8_t code) { return {0x7F, sid, code}; }

// A big-endian number of `n` bytes (1..4) at `p`.
uint32_t be(const uint8_t* p, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

}  // namespace

UdsEcu::UdsEcu(Adapter& timers, UdsEcuConfig config)
    : timers_(timers), cfg_(std::move(config)), memory_(cfg_.memory_size, 0xFF) {
    for (const UdsMemoryRegion& r : cfg_.more_memory) more_memory_.emplace_back(r.size, 0xFF);
}

uint8_t* UdsEcu::locate_locked(uint32_t address, uint64_t size) {
    if (size == 0) return nullptr;
    auto inside = [&](uint32_t base, std::vector<uint8_t>& storage) -> uint8_t* {
        if (address < base) return nullptr;
        const uint64_t offset = uint64_t{address} - base;
        return offset + size <= storage.size() ? storage.data() + offset : nullptr;
    };
    if (uint8_t* p = inside(cfg_.memory_base, memory_)) return p;
    for (size_t i = 0; i < more_memory_.size() && i < cfg_.more_memory.size(); ++i)
        if (uint8_t* p = inside(cfg_.more_memory[i].base, more_memory_[i])) return p;
    return nullptr;
}

void UdsEcu::attach(const std::shared_ptr<CanBus>& bus) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        bus_ = bus;
    }
    bus->attach(shared_from_this());
}

void UdsEcu::detach() {
    std::shared_ptr<CanBus> bus;
    {
        std::lock_guard<std::mutex> g(mutex_);
        bus = bus_.lock();
        bus_.reset();
    }
    if (bus) bus->detach(this);
}

void UdsEcu::configure(const UdsEcuConfig& config, bool reset_data) {
    std::lock_guard<std::mutex> g(mutex_);
    cfg_ = config;
    if (reset_data || memory_.size() != cfg_.memory_size) memory_.assign(cfg_.memory_size, 0xFF);
    bool same_regions = !reset_data && more_memory_.size() == cfg_.more_memory.size();
    for (size_t i = 0; same_regions && i < more_memory_.size(); ++i)
        same_regions = more_memory_[i].size() == cfg_.more_memory[i].size;
    if (!same_regions) {
        more_memory_.clear();
        for (const UdsMemoryRegion& r : cfg_.more_memory) more_memory_.emplace_back(r.size, 0xFF);
    }
    next_generation_locked();
    rx_active_ = tx_active_ = false;
}

UdsEcuConfig UdsEcu::config() {
    std::lock_guard<std::mutex> g(mutex_);
    return cfg_;
}

std::vector<UdsEcu::Heard> UdsEcu::heard() {
    std::lock_guard<std::mutex> g(mutex_);
    return heard_;
}

std::vector<UdsEcu::Heard> UdsEcu::sent() {
    std::lock_guard<std::mutex> g(mutex_);
    return sent_;
}

void UdsEcu::clear_log() {
    std::lock_guard<std::mutex> g(mutex_);
    heard_.clear();
    sent_.clear();
    requests_.clear();
    violations_ = 0;
}

std::vector<std::vector<uint8_t>> UdsEcu::requests() {
    std::lock_guard<std::mutex> g(mutex_);
    return requests_;
}

std::vector<uint8_t> UdsEcu::memory(uint32_t address, size_t n) {
    std::lock_guard<std::mutex> g(mutex_);
    const uint8_t* p = locate_locked(address, n);
    return p == nullptr ? std::vector<uint8_t>{} : std::vector<uint8_t>(p, p + n);
}

std::vector<uint8_t> UdsEcu::identifier(uint16_t id) {
    std::lock_guard<std::mutex> g(mutex_);
    auto it = cfg_.identifiers.find(id);
    return it == cfg_.identifiers.end() ? std::vector<uint8_t>{} : it->second;
}

uint8_t UdsEcu::session() {
    std::lock_guard<std::mutex> g(mutex_);
    return session_;
}

int UdsEcu::block_violations() {
    std::lock_guard<std::mutex> g(mutex_);
    return violations_;
}

uint32_t UdsEcu::nominal_bps() const {
    std::lock_guard<std::mutex> g(mutex_);
    return cfg_.nominal_bps;
}
uint32_t UdsEcu::data_bps() const {
    std::lock_guard<std::mutex> g(mutex_);
    return cfg_.data_bps;
}
bool UdsEcu::fd_capable() const {
    std::lock_guard<std::mutex> g(mutex_);
    return cfg_.fd;
}

// ---- Bus side --------------------------------------------------------------------

void UdsEcu::receive(const BusFrame& frame, int64_t end_ns) {
    std::lock_guard<std::mutex> g(mutex_);
    if (frame.remote || frame.id != cfg_.request_id || frame.extended != cfg_.extended_ids) return;
    heard_.push_back({frame, end_ns});
    if (cfg_.silent) return;
    size_t first = 0;
    if (cfg_.extended_addressing) {
        if (frame.len < 2 || frame.data[0] != cfg_.ecu_address) return;
        first = 1;
    }
    if (frame.len <= first) return;
    std::vector<uint8_t> body(frame.data + first, frame.data + frame.len);
    if ((body[0] >> 4) == 3) on_flow_control(body, end_ns);
    else on_request_frame(body, end_ns);
}

BusFrame UdsEcu::frame_of(const std::vector<uint8_t>& body, size_t len) const {
    BusFrame f;
    f.id = cfg_.response_id;
    f.extended = cfg_.extended_ids;
    f.fd = cfg_.fd;
    f.brs = cfg_.fd && cfg_.brs;
    f.len = uint8_t(len);
    std::memset(f.data, cfg_.padding, sizeof(f.data));
    size_t pos = 0;
    if (cfg_.extended_addressing) f.data[pos++] = cfg_.tester_address;
    std::memcpy(f.data + pos, body.data(), std::min(body.size(), len - pos));
    return f;
}

void UdsEcu::transmit_at(int64_t due_ns, std::vector<Outgoing> frames, uint32_t generation) {
    std::weak_ptr<UdsEcu> self = weak_from_this();
    timers_.after(until_bus_ns(due_ns), [self, due_ns, frames, generation] {
        auto ecu = self.lock();
        if (!ecu) return;
        int64_t at = due_ns;
        for (const Outgoing& o : frames) {
            std::shared_ptr<CanBus> bus;
            {
                std::lock_guard<std::mutex> g(ecu->mutex_);
                if (ecu->generation_ != generation || ecu->cfg_.silent) return;
                bus = ecu->bus_.lock();
            }
            if (!bus) return;
            const CanBus::Result r = bus->transmit(ecu.get(), o.frame, at + o.gap_ns);
            std::lock_guard<std::mutex> g(ecu->mutex_);
            ecu->sent_.push_back({o.frame, r.end_ns});
            const size_t x = ecu->cfg_.extended_addressing ? 1 : 0;
            if (o.frame.data[x] == 0x30) ecu->rx_blocked_ = false;  // the tester may go on
            at = r.end_ns;
        }
    });
}

// ---- Reception of requests -------------------------------------------------------

void UdsEcu::on_request_frame(const std::vector<uint8_t>& body, int64_t end_ns) {
    const uint8_t type = body[0] >> 4, low = body[0] & 0x0F;
    auto byte = [&](size_t i) -> uint32_t { return i < body.size() ? body[i] : 0; };
    switch (type) {
        case 0: {
            next_generation_locked();
            rx_active_ = tx_active_ = false;
            const size_t head = low != 0 ? 1 : 2;
            const size_t length = low != 0 ? low : byte(1);
            if (head > body.size()) return;
            const size_t n = std::min(length, body.size() - head);
            std::vector<uint8_t> request(body.begin() + long(head), body.begin() + long(head + n));
            requests_.push_back(request);
            answer(request, end_ns);
            return;
        }
        case 1: {
            next_generation_locked();
            rx_active_ = tx_active_ = false;
            uint32_t total = low << 8 | byte(1);
            size_t head = 2;
            if (total == 0) {
                total = byte(2) << 24 | byte(3) << 16 | byte(4) << 8 | byte(5);
                head = 6;
            }
            if (head > body.size()) return;
            const size_t n = std::min<size_t>(total, body.size() - head);
            rx_data_.assign(body.begin() + long(head), body.begin() + long(head + n));
            rx_total_ = total;
            rx_sequence_ = 1;
            rx_in_block_ = 0;
            rx_blocked_ = true;
            rx_active_ = true;
            give_flow_control(end_ns + cfg_.fc_delay_us * 1000);
            return;
        }
        case 2: {
            if (!rx_active_) return;
            if (rx_blocked_) ++violations_;
            if (low != rx_sequence_) {  // a lost or repeated frame: the request is dropped
                rx_active_ = false;
                return;
            }
            rx_sequence_ = (rx_sequence_ + 1) & 0x0F;
            const size_t n = std::min<size_t>(rx_total_ - rx_data_.size(), body.size() - 1);
            rx_data_.insert(rx_data_.end(), body.begin() + 1, body.begin() + long(1 + n));
            if (rx_data_.size() >= rx_total_) {
                rx_active_ = false;
                requests_.push_back(rx_data_);
                answer(rx_data_, end_ns);
            } else if (cfg_.block_size != 0 && ++rx_in_block_ == cfg_.block_size) {
                rx_in_block_ = 0;
                rx_blocked_ = true;
                give_flow_control(end_ns + cfg_.fc_delay_us * 1000);
            }
            return;
        }
        default:
            return;  // not a request frame
    }
}

void UdsEcu::give_flow_control(int64_t due_ns) {
    auto fc = [this](uint8_t status) {
        return Outgoing{frame_of({uint8_t(0x30 | status), cfg_.block_size, cfg_.st_min}, 8), 0};
    };
    const uint32_t generation = generation_;
    if (cfg_.fc_overflow) {
        rx_active_ = false;
        transmit_at(due_ns, {fc(2)}, generation);
        return;
    }
    const int64_t interval = cfg_.fc_wait_interval_us * 1000;
    if (cfg_.fc_wait_frames < 0) {
        // Not ready, for ever: a wait frame every interval until the next request.
        std::weak_ptr<UdsEcu> self = weak_from_this();
        transmit_at(due_ns, {fc(1)}, generation);
        timers_.after(until_bus_ns(due_ns), [self, due_ns, interval, generation] {
            auto ecu = self.lock();
            if (!ecu) return;
            std::lock_guard<std::mutex> g(ecu->mutex_);
            if (ecu->generation_ == generation) ecu->give_flow_control(due_ns + interval);
        });
        return;
    }
    std::vector<Outgoing> frames;
    for (int i = 0; i < cfg_.fc_wait_frames; ++i) frames.push_back({fc(1).frame, i == 0 ? 0 : interval});
    frames.push_back({fc(0).frame, frames.empty() ? 0 : interval});
    transmit_at(due_ns, frames, generation);
}

// ---- Answers ---------------------------------------------------------------------

void UdsEcu::answer(const std::vector<uint8_t>& request, int64_t end_ns) {
    bool suppress = false;
    const std::vector<uint8_t> response = serve(request, suppress);
    if (suppress || response.empty()) return;
    const size_t x = cfg_.extended_addressing ? 1 : 0;
    const size_t len = cfg_.fd ? cfg_.frame_len : 8;
    const int64_t due = end_ns + cfg_.response_delay_us * 1000;
    const uint32_t generation = generation_;
    const size_t n = response.size();
    if (n <= 7 - x || (len > 8 && n <= len - 2 - x)) {
        std::vector<uint8_t> body;
        size_t frame_len = 8;
        if (n <= 7 - x) {
            body.push_back(uint8_t(cfg_.oversized_single_frame ? 8 - x : n));
        } else {
            body.push_back(0x00);
            body.push_back(uint8_t(cfg_.oversized_single_frame ? len - 1 - x : n));
            frame_len = len;
        }
        body.insert(body.end(), response.begin(), response.end());
        transmit_at(due, {{frame_of(body, frame_len), 0}}, generation);
        return;
    }
    std::vector<uint8_t> body;
    size_t room;
    if (n < kEscapeFrom) {
        body = {uint8_t(0x10 | (n >> 8)), uint8_t(n)};
        room = len - 2 - x;
    } else {
        body = {0x10, 0x00, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
        room = len - 6 - x;
    }
    body.insert(body.end(), response.begin(), response.begin() + long(room));
    tx_data_ = response;
    tx_pos_ = room;
    tx_sequence_ = 1;
    tx_count_ = 0;
    tx_active_ = true;
    tx_waiting_ = true;
    transmit_at(due, {{frame_of(body, len), 0}}, generation);
}

void UdsEcu::on_flow_control(const std::vector<uint8_t>& body, int64_t end_ns) {
    if (!tx_active_ || !tx_waiting_ || body.size() < 3) return;
    switch (body[0] & 0x0F) {
        case 0:
            tx_waiting_ = false;
            tx_block_size_ = body[1];
            tx_st_min_ = body[2];
            send_block(end_ns + cfg_.fc_delay_us * 1000);
            return;
        case 1:
            return;  // the tester is not ready yet
        default:
            tx_active_ = false;  // overflow (or nonsense): the answer is given up
            return;
    }
}

void UdsEcu::send_block(int64_t due_ns) {
    const size_t x = cfg_.extended_addressing ? 1 : 0;
    const size_t len = cfg_.fd ? cfg_.frame_len : 8;
    const size_t room = len - 1 - x;
    const int64_t gap = separation_ns(tx_st_min_);
    std::vector<Outgoing> frames;
    unsigned in_block = 0;
    while (tx_pos_ < tx_data_.size() && (tx_block_size_ == 0 || in_block < tx_block_size_)) {
        ++tx_count_;
        unsigned sequence = tx_sequence_;
        if (cfg_.wrong_sequence_at != 0 && tx_count_ == unsigned(cfg_.wrong_sequence_at)) ++sequence;
        tx_sequence_ = (tx_sequence_ + 1) & 0x0F;
        const size_t n = std::min(room, tx_data_.size() - tx_pos_);
        std::vector<uint8_t> body{uint8_t(0x20 | (sequence & 0x0F))};
        body.insert(body.end(), tx_data_.begin() + long(tx_pos_), tx_data_.begin() + long(tx_pos_ + n));
        tx_pos_ += n;
        frames.push_back({frame_of(body, len), frames.empty() ? 0 : gap});
        ++in_block;
    }
    if (tx_pos_ >= tx_data_.size()) tx_active_ = false;
    else tx_waiting_ = true;  // the next block after the next flow control
    transmit_at(due_ns, frames, generation_);
}

// ---- Services --------------------------------------------------------------------

std::vector<uint8_t> UdsEcu::serve(const std::vector<uint8_t>& req, bool& suppress) {
    if (req.empty()) return {};
    const uint8_t sid = req[0];
    const size_t n = req.size();
    switch (sid) {
        case 0x10: {  // DiagnosticSessionControl
            if (n != 2) return negative(sid, 0x13);
            const uint8_t type = req[1] & 0x7F;
            if (type < 1 || type > 3) return negative(sid, 0x12);
            session_ = type;
            suppress = (req[1] & 0x80) != 0;
            return {0x50, type, 0x00, 0x32, 0x01, 0xF4};
        }
        case 0x3E: {  // TesterPresent
            if (n != 2) return negative(sid, 0x13);
            if ((req[1] & 0x7F) != 0) return negative(sid, 0x12);
            suppress = (req[1] & 0x80) != 0;
            return {0x7E, 0x00};
        }
        case 0x22: {  // ReadDataByIdentifier
            if (n < 3 || (n - 1) % 2 != 0) return negative(sid, 0x13);
            std::vector<uint8_t> out{0x62};
            for (size_t i = 1; i + 1 < n; i += 2) {
                const uint16_t id = uint16_t(req[i] << 8 | req[i + 1]);
                auto it = cfg_.identifiers.find(id);
                if (it == cfg_.identifiers.end()) return negative(sid, 0x31);
                out.push_back(req[i]);
                out.push_back(req[i + 1]);
                out.insert(out.end(), it->second.begin(), it->second.end());
            }
            return out;
        }
        case 0x2E: {  // WriteDataByIdentifier
            if (n < 4) return negative(sid, 0x13);
            const uint16_t id = uint16_t(req[1] << 8 | req[2]);
            auto it = cfg_.identifiers.find(id);
            if (it == cfg_.identifiers.end()) return negative(sid, 0x31);
            it->second.assign(req.begin() + 3, req.end());
            return {0x6E, req[1], req[2]};
        }
        case 0x23:    // ReadMemoryByAddress: format, address, size
        case 0x34: {  // RequestDownload: data format, format, address, size
            const size_t at = sid == 0x34 ? 2 : 1;
            if (n <= at) return negative(sid, 0x13);
            const size_t size_bytes = req[at] >> 4, address_bytes = req[at] & 0x0F;
            if (size_bytes < 1 || size_bytes > 4 || address_bytes < 1 || address_bytes > 4 ||
                n != at + 1 + address_bytes + size_bytes)
                return negative(sid, 0x13);
            const uint32_t address = be(&req[at + 1], address_bytes);
            const uint32_t size = be(&req[at + 1 + address_bytes], size_bytes);
            const uint8_t* at_memory = locate_locked(address, size);
            if (at_memory == nullptr) return negative(sid, 0x31);
            if (sid == 0x23) {
                std::vector<uint8_t> out{0x63};
                out.insert(out.end(), at_memory, at_memory + size);
                return out;
            }
            if (download_active_) return negative(sid, 0x24);
            download_active_ = true;
            download_address_ = address;
            download_left_ = size;
            download_counter_ = 1;
            return {0x74, 0x20, uint8_t(cfg_.max_block_length >> 8), uint8_t(cfg_.max_block_length)};
        }
        case 0x36: {  // TransferData
            if (!download_active_) return negative(sid, 0x24);
            if (n < 2 || n > cfg_.max_block_length) return negative(sid, 0x13);
            if (req[1] != download_counter_) return negative(sid, 0x73);
            const size_t data = n - 2;
            if (data > download_left_) return negative(sid, 0x31);
            // The region may have gone with a new configuration since the download began.
            if (data != 0) {
                uint8_t* target = locate_locked(download_address_, data);
                if (target == nullptr) return negative(sid, 0x31);
                std::copy(req.begin() + 2, req.end(), target);
            }
            download_address_ += uint32_t(data);
            download_left_ -= uint32_t(data);
            ++download_counter_;
            return {0x76, req[1]};
        }
        case 0x37:  // RequestTransferExit
            if (!download_active_) return negative(sid, 0x24);
            download_active_ = false;
            return {0x77};
        default:
            return negative(sid, 0x11);
    }
}

}  // namespace polybus_sim
