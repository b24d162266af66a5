// A simulated CAN bus: nodes (adapter channels, peers) attach to it, frames take the
// time their bits take at the sender's bit rate, one frame at a time, and every other
// node that listens at the same bit rate acknowledges and receives them. A node at
// another bit rate only counts the frame as an error; it does not destroy it for the
// others (a real bus would see it destroyed by error flags and repeated).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace polybus_sim {

// One frame as it travels on the bus.
struct BusFrame {
    uint32_t id = 0;  // 11 or 29 bits
    bool extended = false;
    bool remote = false;
    bool fd = false;   // CAN FD format
    bool brs = false;  // bit-rate switch (data phase at the data bit rate)
    bool esi = false;  // error-state indicator
    uint8_t len = 0;   // data bytes (0..8 classic, 0..64 CAN FD)
    uint8_t data[64] = {};
};

// Nanoseconds on the host's steady clock: the bus's time line.
inline int64_t bus_now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// How long a timer waits for an instant on the bus's time line (nothing when it is past).
inline std::chrono::microseconds until_bus_ns(int64_t due_ns) {
    const int64_t us = (due_ns - bus_now_ns()) / 1000;
    return std::chrono::microseconds(us > 0 ? us : 0);
}

class BusNode {
public:
    virtual ~BusNode() = default;
    // Bit timing: 0 means the node is not on the bus (not initialised, stopped).
    virtual uint32_t nominal_bps() const = 0;
    virtual uint32_t data_bps() const = 0;  // 0: no CAN FD data phase
    virtual bool fd_capable() const = 0;
    // A frame this node acknowledged, ending at `end_ns`. Called with the bus locked, in
    // bus order; it must not transmit from here (schedule a reply instead).
    virtual void receive(const BusFrame& frame, int64_t end_ns) = 0;
    // False for a node that only listens: it takes frames but gives no acknowledge bit.
    virtual bool acknowledges() const { return true; }
    // A frame ended on the bus at a bit rate this node is not set to: it saw stuff
    // errors and flagged them. Called with the bus locked, like receive().
    virtual void bus_error(int64_t end_ns) { (void)end_ns; }
};

class CanBus {
public:
    struct Result {
        bool acknowledged = false;
        int64_t end_ns = 0;  // when the frame (or the failed attempt) left the bus
    };

    void attach(const std::shared_ptr<BusNode>& node);
    void detach(const BusNode* node);
    // Puts `frame` on the bus, as soon as the bus is free but not before `earliest_ns`.
    // A sender without bit timing gets nothing on the bus (end_ns = earliest_ns).
    Result transmit(const BusNode* sender, const BusFrame& frame, int64_t earliest_ns);
    // Multiplies every frame's duration (0: frames take no bus time).
    void set_time_scale(double scale);
    // Bus time a frame takes, in ns, at the given bit rates.
    static int64_t frame_ns(const BusFrame& frame, uint32_t nominal_bps, uint32_t data_bps);

private:
    static bool same_rate(uint32_t a, uint32_t b);

    std::mutex mutex_;
    std::vector<std::weak_ptr<BusNode>> nodes_;
    int64_t busy_until_ns_ = 0;
    double scale_ = 1.0;
};

}  // namespace polybus_sim
