// The adapter's UART ports and the peer wired to each: the adapter sends at the
// configured baud rate (10 bit times a byte), the peer answers with real byte timing,
// and what arrives collects in the port's receive buffer (kRxBuffer bytes; bytes that
// find it full are dropped and counted) until the host reads or clears it.
//
// Time is kept per byte: every byte carries the instant its stop bit ends, and a read
// takes the bytes whose instant has passed, so no timer runs per byte.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

// The peer on a port's far end.
struct UartPeerConfig {
    enum class Kind { Silent, Echo, Script, Stream } kind = Kind::Silent;
    // Script: when the bytes received so far end with `expect`, the peer sends `reply`.
    struct Step {
        std::vector<uint8_t> expect, reply;
    };
    std::vector<Step> script;
    // Stream: the peer sends these bytes back to back from the moment it is attached
    // (repeated `repeat` times).
    std::vector<uint8_t> stream;
    int repeat = 1;
    uint32_t reply_delay_us = 0;  // Echo/Script: the peer's turnaround
    uint32_t stream_delay_us = 0;  // Stream: from attaching to the first byte
    uint32_t baud = 0;             // the peer's own rate; 0: the port's configured rate
};

class UartModel : public FamilyModel {
public:
    static constexpr int kPorts = 4;
    static constexpr size_t kRxBuffer = 4096;   // adapter's receive buffer per port
    static constexpr size_t kMaxRead = 4096;    // largest answer to a read
    explicit UartModel(Adapter& adapter);

    void attach(int port, UartPeerConfig peer);
    // Bytes the peer has received (everything the adapter sent), with their end times
    // relative to the first.
    std::vector<uint8_t> peer_received(int port);
    std::vector<double> peer_receive_times_ms(int port);
    // The peer sends bytes now (Silent peers included).
    void peer_send(int port, const std::vector<uint8_t>& bytes);
    uint32_t baud(int port);
    std::vector<uint8_t> config_bytes(int port);  // the 8 bytes given at init
    uint64_t rx_dropped(int port);
    void reset() override;

private:
    using Clock = std::chrono::steady_clock;
    struct Timed {
        Clock::time_point at;
        uint8_t byte;
    };
    struct Port {
        uint32_t baud = 115200;
        std::vector<uint8_t> config;
        UartPeerConfig peer;
        Clock::time_point line_free{};  // adapter's transmitter
        Clock::time_point peer_free{};  // peer's transmitter
        std::deque<Timed> incoming;     // on their way to the adapter, by time
        std::vector<uint8_t> rx;        // the adapter's receive buffer
        uint64_t dropped = 0;
        std::vector<uint8_t> heard;     // what the peer received
        std::vector<Clock::time_point> heard_at;
    };
    Clock::duration byte_time(const Port& p) const;
    Clock::duration peer_byte_time(const Port& p) const;
    // The adapter transmits `data` with `gap` between bytes; returns when the last is out.
    Clock::time_point transmit(Port& p, const std::vector<uint8_t>& data, Clock::duration gap);
    void peer_transmit(Port& p, Clock::time_point from, const std::vector<uint8_t>& data);
    void deliver(Port& p);  // moves bytes whose time has come into the receive buffer
    Port& port(uint8_t i) { return ports_[i % kPorts]; }

    Adapter& adapter_;
    std::mutex mutex_;
    Port ports_[kPorts];
};

}  // namespace polybus_sim
