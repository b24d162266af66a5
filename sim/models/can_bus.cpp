#include "can_bus.h"

#include <algorithm>
#include <cmath>

namespace polybus_sim {

void CanBus::attach(const std::shared_ptr<BusNode>& node) {
    std::lock_guard<std::mutex> g(mutex_);
    nodes_.push_back(node);
}

void CanBus::detach(const BusNode* node) {
    std::lock_guard<std::mutex> g(mutex_);
    nodes_.erase(std::remove_if(nodes_.begin(), nodes_.end(),
                                [node](const std::weak_ptr<BusNode>& w) {
                                    auto n = w.lock();
                                    return !n || n.get() == node;
                                }),
                 nodes_.end());
}

void CanBus::set_time_scale(double scale) {
    std::lock_guard<std::mutex> g(mutex_);
    scale_ = scale;
}

// Oscillators of real nodes differ a little; anything within 1 % syncs.
bool CanBus::same_rate(uint32_t a, uint32_t b) {
    if (a == 0 || b == 0) return false;
    const double d = std::fabs(double(a) - double(b));
    return d <= 0.01 * double(std::max(a, b));
}

int64_t CanBus::frame_ns(const BusFrame& f, uint32_t nominal_bps, uint32_t data_bps) {
    if (nominal_bps == 0) return 0;
    const unsigned data_bits = f.remote ? 0u : 8u * f.len;
    double ns;
    if (!f.fd) {
        // SOF, arbitration, control, data, CRC, ACK, end of frame and intermission
        // (bit stuffing not counted): 111 bits for an 8-byte standard frame.
        const unsigned bits = (f.extended ? 67u : 47u) + data_bits;
        ns = bits * 1e9 / nominal_bps;
    } else {
        const unsigned arbitration = f.extended ? 33u : 14u;               // up to and including BRS
        const unsigned data_phase = (f.len > 16 ? 31u : 27u) + data_bits;  // ESI, DLC, data, stuff count, CRC
        const unsigned tail = 12u;                                         // ACK, EOF, intermission
        const uint32_t fast = f.brs && data_bps != 0 ? data_bps : nominal_bps;
        ns = (arbitration + tail) * 1e9 / nominal_bps + data_phase * 1e9 / fast;
    }
    return static_cast<int64_t>(ns);
}

CanBus::Result CanBus::transmit(const BusNode* sender, const BusFrame& frame, int64_t earliest_ns) {
    Result r;
    r.end_ns = earliest_ns;
    const uint32_t nominal = sender->nominal_bps();
    const uint32_t data = sender->data_bps();
    if (nominal == 0) return r;
    std::lock_guard<std::mutex> g(mutex_);
    const int64_t start = std::max(earliest_ns, busy_until_ns_);
    r.end_ns = start + static_cast<int64_t>(double(frame_ns(frame, nominal, data)) * scale_);
    busy_until_ns_ = r.end_ns;
    std::vector<std::shared_ptr<BusNode>> receivers;
    for (auto& w : nodes_) {
        auto node = w.lock();
        if (!node || node.get() == sender) continue;
        const uint32_t rate = node->nominal_bps();
        if (!same_rate(rate, nominal)) {
            if (rate != 0) node->bus_error(r.end_ns);
            continue;
        }
        if (frame.fd && !node->fd_capable()) continue;
        if (frame.fd && frame.brs && !same_rate(node->data_bps() ? node->data_bps() : node->nominal_bps(),
                                                 data ? data : nominal))
            continue;
        receivers.push_back(std::move(node));
    }
    for (auto& node : receivers) {
        if (node->acknowledges()) r.acknowledged = true;
        node->receive(frame, r.end_ns);
    }
    return r;
}

}  // namespace polybus_sim
