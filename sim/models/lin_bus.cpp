#include "lin_bus.h"

#include <algorithm>

#include "can_bus.h"  // bus_now_ns

namespace polybus_sim {

uint8_t lin_pid(uint8_t id) {
    id &= 0x3F;
    const int b0 = id & 1, b1 = id >> 1 & 1, b2 = id >> 2 & 1, b3 = id >> 3 & 1, b4 = id >> 4 & 1, b5 = id >> 5 & 1;
    const int p0 = b0 ^ b1 ^ b2 ^ b4;
    const int p1 = !(b1 ^ b3 ^ b4 ^ b5);
    return static_cast<uint8_t>(id | p0 << 6 | p1 << 7);
}

uint8_t lin_checksum(bool enhanced, uint8_t pid, const uint8_t* data, size_t n) {
    uint16_t sum = enhanced ? pid : 0;
    for (size_t i = 0; i < n; ++i) {
        sum = static_cast<uint16_t>(sum + data[i]);
        if (sum >= 256) sum = static_cast<uint16_t>(sum - 255);
    }
    return static_cast<uint8_t>(0xFF - sum);
}

// ---- bus ----

void LinBus::attach(const std::shared_ptr<LinNode>& node) {
    std::lock_guard<std::mutex> g(mutex_);
    nodes_.push_back(node);
}

void LinBus::detach(const LinNode* node) {
    std::lock_guard<std::mutex> g(mutex_);
    nodes_.erase(std::remove_if(nodes_.begin(), nodes_.end(),
                                [node](const std::weak_ptr<LinNode>& w) {
                                    auto n = w.lock();
                                    return !n || n.get() == node;
                                }),
                 nodes_.end());
}

void LinBus::set_baud(uint32_t baud) {
    std::lock_guard<std::mutex> g(mutex_);
    baud_ = baud;
}
uint32_t LinBus::baud() {
    std::lock_guard<std::mutex> g(mutex_);
    return baud_;
}
void LinBus::set_time_scale(double scale) {
    std::lock_guard<std::mutex> g(mutex_);
    scale_ = scale;
}

int64_t LinBus::bits_ns(double bits) {
    if (baud_ == 0) return 0;
    return static_cast<int64_t>(bits * 1e9 / baud_ * scale_);
}

LinBusFrame LinBus::header(uint8_t pid, uint8_t break_bits, const std::vector<uint8_t>* master_bytes, unsigned expected,
                           int64_t earliest_ns) {
    std::vector<std::shared_ptr<LinNode>> nodes;
    {
        std::lock_guard<std::mutex> g(mutex_);
        for (auto& w : nodes_)
            if (auto n = w.lock()) nodes.push_back(std::move(n));
    }
    LinBusFrame f;
    f.pid = pid;
    if (master_bytes != nullptr) {
        f.bytes = *master_bytes;
    } else {
        for (auto& n : nodes) {
            std::vector<uint8_t> bytes;
            if (n->respond(pid, bytes)) {
                f.bytes = std::move(bytes);
                f.responder = n.get();
                break;
            }
        }
    }
    if (f.bytes.size() > 9) f.bytes.resize(9);
    // The master waits for a missing or short answer until its response timeout
    // (1.4 times the nominal response time); with the length unknown it closes the
    // frame once the line stays idle for two byte times.
    double bits = frame_bits(break_bits, static_cast<unsigned>(f.bytes.size()));
    if (master_bytes == nullptr) {
        const unsigned full = expected == 0 ? 9 : expected;
        if (f.bytes.empty()) bits = frame_bits(break_bits, 0) + 1.4 * 10 * full;
        else if (expected == 0 && f.bytes.size() < 9) bits += 20;
        else if (f.bytes.size() < full) bits = std::max(bits, frame_bits(break_bits, 0) + 1.4 * 10 * full);
    }
    {
        std::lock_guard<std::mutex> g(mutex_);
        f.start_ns = std::max(earliest_ns, busy_until_ns_);
        f.end_ns = f.start_ns + bits_ns(bits);
        busy_until_ns_ = f.end_ns;
    }
    for (auto& n : nodes) n->observe(pid, f.bytes, f.responder);
    return f;
}

int64_t LinBus::send_break(uint8_t break_bits, int64_t earliest_ns) {
    std::vector<std::shared_ptr<LinNode>> nodes;
    int64_t end;
    {
        std::lock_guard<std::mutex> g(mutex_);
        for (auto& w : nodes_)
            if (auto n = w.lock()) nodes.push_back(std::move(n));
        const int64_t start = std::max(earliest_ns, busy_until_ns_);
        end = start + bits_ns(break_bits + 1.0);
        busy_until_ns_ = end;
    }
    for (auto& n : nodes) n->observe_break();
    return end;
}

// ---- slave ----

void LinSlave::set_fault(LinSlaveFault fault) {
    std::lock_guard<std::mutex> g(mutex_);
    config_.fault = fault;
}
void LinSlave::set_data(std::vector<uint8_t> data) {
    std::lock_guard<std::mutex> g(mutex_);
    config_.data = std::move(data);
}
std::vector<std::vector<uint8_t>> LinSlave::received() {
    std::lock_guard<std::mutex> g(mutex_);
    return received_;
}
int LinSlave::headers_seen() {
    std::lock_guard<std::mutex> g(mutex_);
    return headers_;
}

bool LinSlave::respond(uint8_t pid, std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    // A header with wrong parity is not for anybody.
    if (pid != lin_pid(config_.id) || !config_.publisher) return false;
    ++headers_;
    if (config_.fault == LinSlaveFault::NoAnswer) return false;
    std::vector<uint8_t> data = config_.data;
    if (data.size() > 8) data.resize(8);
    uint8_t seed_pid = pid;
    if (config_.fault == LinSlaveFault::WrongParity) seed_pid ^= 0xC0;
    uint8_t check = lin_checksum(config_.enhanced, seed_pid, data.data(), data.size());
    if (config_.fault == LinSlaveFault::WrongChecksum) ++check;
    bytes = data;
    bytes.push_back(check);
    if (config_.fault == LinSlaveFault::TooFewBytes) bytes.resize(bytes.size() >= 2 ? bytes.size() - 2 : 0);
    return true;
}

void LinSlave::observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) {
    std::lock_guard<std::mutex> g(mutex_);
    if (pid == lin_pid(config_.id) && responder == nullptr && !bytes.empty()) received_.push_back(bytes);
}

// ---- diagnostic slave ----

void LinDiagSlave::set_silent(bool silent) {
    std::lock_guard<std::mutex> g(mutex_);
    config_.silent = silent;
}
void LinDiagSlave::set_wrong_sequence(bool wrong) {
    std::lock_guard<std::mutex> g(mutex_);
    config_.wrong_sequence = wrong;
}
std::vector<std::vector<uint8_t>> LinDiagSlave::requests() {
    std::lock_guard<std::mutex> g(mutex_);
    return requests_;
}
size_t LinDiagSlave::pending_frames() {
    std::lock_guard<std::mutex> g(mutex_);
    return outgoing_.size();
}

bool LinDiagSlave::respond(uint8_t pid, std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    if (pid != lin_pid(config_.response_id) || config_.silent || outgoing_.empty()) return false;
    bytes = outgoing_.front();
    outgoing_.pop_front();
    bytes.push_back(lin_checksum(false, pid, bytes.data(), 8));
    return true;
}

void LinDiagSlave::observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) {
    std::lock_guard<std::mutex> g(mutex_);
    if (responder != nullptr || pid != lin_pid(config_.request_id) || bytes.size() < 9) return;
    // A request frame with a bad checksum is ignored, as a real node would.
    if (lin_checksum(false, pid, bytes.data(), 8) != bytes[8] && lin_checksum(true, pid, bytes.data(), 8) != bytes[8])
        return;
    if (bytes[0] != config_.nad && bytes[0] != 0x7F) return;
    take_request_frame(bytes.data());
}

void LinDiagSlave::take_request_frame(const uint8_t* d) {
    const uint8_t pci = d[1];
    switch (pci >> 4) {
        case 0: {
            const size_t len = pci & 0x0F;
            in_segment_ = false;
            if (len > 6) return;
            answer(std::vector<uint8_t>(d + 2, d + 2 + len));
            return;
        }
        case 1:
            expected_length_ = size_t(pci & 0x0F) << 8 | d[2];
            assembling_.assign(d + 3, d + 8);
            next_sequence_ = 1;
            in_segment_ = true;
            break;
        case 2:
            if (!in_segment_) return;
            if ((pci & 0x0F) != (next_sequence_ & 0x0F)) {  // lost frame: drop the request
                in_segment_ = false;
                return;
            }
            ++next_sequence_;
            assembling_.insert(assembling_.end(), d + 2, d + 8);
            break;
        default: return;
    }
    if (in_segment_ && assembling_.size() >= expected_length_) {
        assembling_.resize(expected_length_);
        in_segment_ = false;
        answer(assembling_);
    }
}

void LinDiagSlave::answer(const std::vector<uint8_t>& request) {
    requests_.push_back(request);
    std::vector<uint8_t> reply;
    if (request.empty()) return;
    const uint8_t sid = request[0];
    if (sid == 0x22 && request.size() >= 3) {
        const uint16_t did = static_cast<uint16_t>(request[1] << 8 | request[2]);
        auto it = config_.identifiers.find(did);
        if (it != config_.identifiers.end()) {
            reply = {0x62, request[1], request[2]};
            reply.insert(reply.end(), it->second.begin(), it->second.end());
        } else {
            reply = {0x7F, 0x22, 0x31};
        }
    } else if (sid == config_.echo_sid) {
        reply = request;
        reply[0] = static_cast<uint8_t>(sid + 0x40);
    } else {
        reply = {0x7F, sid, 0x11};
    }
    if (reply.size() > 4095) reply.resize(4095);
    outgoing_.clear();
    const uint8_t nad = config_.nad;
    if (reply.size() <= 6) {
        std::vector<uint8_t> f(8, 0xFF);
        f[0] = nad;
        f[1] = static_cast<uint8_t>(reply.size());
        std::copy(reply.begin(), reply.end(), f.begin() + 2);
        outgoing_.push_back(f);
        return;
    }
    std::vector<uint8_t> first(8, 0xFF);
    first[0] = nad;
    first[1] = static_cast<uint8_t>(0x10 | (reply.size() >> 8));
    first[2] = static_cast<uint8_t>(reply.size());
    std::copy(reply.begin(), reply.begin() + 5, first.begin() + 3);
    outgoing_.push_back(first);
    uint8_t sequence = config_.wrong_sequence ? 2 : 1;
    for (size_t pos = 5; pos < reply.size(); pos += 6) {
        std::vector<uint8_t> f(8, 0xFF);
        f[0] = nad;
        f[1] = static_cast<uint8_t>(0x20 | (sequence & 0x0F));
        const size_t n = std::min<size_t>(6, reply.size() - pos);
        std::copy(reply.begin() + pos, reply.begin() + pos + n, f.begin() + 2);
        outgoing_.push_back(f);
        ++sequence;
    }
}

// ---- master node ----

std::vector<uint8_t> LinMasterNode::request(uint8_t id, uint8_t break_bits) {
    return bus_->header(lin_pid(id), break_bits, nullptr, 0, bus_now_ns()).bytes;
}

std::vector<uint8_t> LinMasterNode::request_raw_pid(uint8_t pid) {
    return bus_->header(pid, 13, nullptr, 0, bus_now_ns()).bytes;
}

void LinMasterNode::publish(uint8_t id, const std::vector<uint8_t>& data, bool enhanced) {
    const uint8_t pid = lin_pid(id);
    std::vector<uint8_t> bytes = data;
    bytes.push_back(lin_checksum(enhanced, pid, data.data(), data.size()));
    bus_->header(pid, 13, &bytes, 0, bus_now_ns());
}

void LinMasterNode::send_break(uint8_t break_bits) { bus_->send_break(break_bits, bus_now_ns()); }

}  // namespace polybus_sim
