#include "uart_model.h"

#include <algorithm>

#include "wire/uart.h"

namespace polybus_sim {

using namespace polybus::wire;

namespace {
std::vector<uint8_t> tail(const Frame& f, size_t from) {
    return from < f.payload.size() ? std::vector<uint8_t>(f.payload.begin() + long(from), f.payload.end())
                                   : std::vector<uint8_t>{};
}
}  // namespace

UartModel::UartModel(Adapter& a) : adapter_(a) {
    a.on(UART_INIT, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            Port& p = port(f.u8(0));
            p.config = tail(f, 1);
            p.config.resize(8, 0);
            // The record travels as it lies in the host's memory: little-endian.
            p.baud = uint32_t(p.config[0]) | uint32_t(p.config[1]) << 8 | uint32_t(p.config[2]) << 16 |
                     uint32_t(p.config[3]) << 24;
        }
        adapter_.answer(f.command);
    });
    auto write = [this](const Frame& f, Clock::duration gap, bool wait) {
        Clock::time_point done;
        {
            std::lock_guard<std::mutex> g(mutex_);
            done = transmit(port(f.u8(0)), tail(f, f.command == UART_WRITE_INTERVAL ? 2 : 1), gap);
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(done - Clock::now());
        if (!wait || left.count() <= 0) return adapter_.answer(f.command);
        const uint32_t code = f.command;
        adapter_.after(left, [this, code] { adapter_.answer(code); });
    };
    a.on(UART_WRITE, [write](const Frame& f) { write(f, Clock::duration(0), true); });
    a.on(UART_WRITE_ASYNC, [write](const Frame& f) { write(f, Clock::duration(0), false); });
    a.on(UART_WRITE_INTERVAL, [write](const Frame& f) { write(f, std::chrono::milliseconds(f.u8(1)), true); });
    a.on(UART_READ, [this](const Frame& f) {
        std::vector<uint8_t> out;
        {
            std::lock_guard<std::mutex> g(mutex_);
            Port& p = port(f.u8(0));
            deliver(p);
            const size_t n = std::min(kMaxRead, p.rx.size());
            out.assign(p.rx.begin(), p.rx.begin() + long(n));
            p.rx.erase(p.rx.begin(), p.rx.begin() + long(n));
        }
        adapter_.answer(f.command, out);
    });
    a.on(UART_CLEAR, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            Port& p = port(f.u8(0));
            deliver(p);
            p.rx.clear();
        }
        adapter_.answer(f.command);
    });
}

UartModel::Clock::duration UartModel::byte_time(const Port& p) const {
    const uint32_t baud = p.baud ? p.baud : 1;
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(10.0 / baud));
}

UartModel::Clock::time_point UartModel::transmit(Port& p, const std::vector<uint8_t>& data, Clock::duration gap) {
    auto t = std::max(Clock::now(), p.line_free);
    const auto bt = byte_time(p);
    for (size_t i = 0; i < data.size(); ++i) {
        if (i != 0) t += gap;
        t += bt;
        p.heard.push_back(data[i]);
        p.heard_at.push_back(t);
        switch (p.peer.kind) {
            case UartPeerConfig::Kind::Echo:
                peer_transmit(p, t + std::chrono::microseconds(p.peer.reply_delay_us), {data[i]});
                break;
            case UartPeerConfig::Kind::Script:
                for (auto& step : p.peer.script) {
                    const auto& e = step.expect;
                    if (!e.empty() && p.heard.size() >= e.size() &&
                        std::equal(e.begin(), e.end(), p.heard.end() - long(e.size())))
                        peer_transmit(p, t + std::chrono::microseconds(p.peer.reply_delay_us), step.reply);
                }
                break;
            default: break;
        }
    }
    p.line_free = t;
    return t;
}

UartModel::Clock::duration UartModel::peer_byte_time(const Port& p) const {
    if (p.peer.baud == 0) return byte_time(p);
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(10.0 / p.peer.baud));
}

void UartModel::peer_transmit(Port& p, Clock::time_point from, const std::vector<uint8_t>& data) {
    auto t = std::max(from, p.peer_free);
    const auto bt = peer_byte_time(p);
    for (uint8_t b : data) {
        t += bt;
        // Kept in time order: the peer's transmitter sends one byte after the other.
        p.incoming.push_back({t, b});
    }
    p.peer_free = t;
}

void UartModel::deliver(Port& p) {
    const auto now = Clock::now();
    while (!p.incoming.empty() && p.incoming.front().at <= now) {
        if (p.rx.size() < kRxBuffer) p.rx.push_back(p.incoming.front().byte);
        else ++p.dropped;
        p.incoming.pop_front();
    }
}

void UartModel::attach(int index, UartPeerConfig peer) {
    std::lock_guard<std::mutex> g(mutex_);
    Port& p = port(uint8_t(index));
    p.peer = std::move(peer);
    if (p.peer.kind == UartPeerConfig::Kind::Stream)
        for (int r = 0; r < p.peer.repeat; ++r)
            peer_transmit(p, Clock::now() + std::chrono::microseconds(p.peer.stream_delay_us), p.peer.stream);
}

std::vector<uint8_t> UartModel::peer_received(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return port(uint8_t(index)).heard;
}

std::vector<double> UartModel::peer_receive_times_ms(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    Port& p = port(uint8_t(index));
    std::vector<double> out;
    for (auto& t : p.heard_at)
        out.push_back(std::chrono::duration<double, std::milli>(t - p.heard_at.front()).count());
    return out;
}

void UartModel::peer_send(int index, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    peer_transmit(port(uint8_t(index)), Clock::now(), bytes);
}

uint32_t UartModel::baud(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return port(uint8_t(index)).baud;
}

std::vector<uint8_t> UartModel::config_bytes(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return port(uint8_t(index)).config;
}

uint64_t UartModel::rx_dropped(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    Port& p = port(uint8_t(index));
    deliver(p);
    return p.dropped;
}

void UartModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& p : ports_) {
        p.rx.clear();
        p.incoming.clear();
    }
}

}  // namespace polybus_sim
