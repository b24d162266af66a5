// A simulated LIN bus and the nodes placed on it. The bus carries one frame at a time:
// a master sends the header (break, sync, protected identifier), then one node (the
// master itself for a master write, else the slave that publishes the identifier) sends
// the data bytes and the checksum. Every byte takes ten bit times at the bus's baud
// rate, so a frame lasts as long as on a real bus.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace polybus_sim {

// ---- LIN arithmetic, written independently of the library ----
uint8_t lin_pid(uint8_t id);
uint8_t lin_checksum(bool enhanced, uint8_t pid, const uint8_t* data, size_t n);

// A node on the bus (a slave, a diagnostic node, the adapter as slave).
class LinNode {
public:
    virtual ~LinNode() = default;
    // A header was sent: append what this node sends in the response field (data and
    // checksum) and return true, or return false to stay silent. `pid` is the protected
    // identifier as it was on the bus (its parity may be wrong).
    virtual bool respond(uint8_t pid, std::vector<uint8_t>& bytes) = 0;
    // A whole frame as it passed on the bus; `responder` is this node when it answered.
    virtual void observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) {
        (void)pid, (void)bytes, (void)responder;
    }
    // A break with nothing after it.
    virtual void observe_break() {}
};

// One frame as it happened.
struct LinBusFrame {
    uint8_t pid = 0;
    std::vector<uint8_t> bytes;          // response field: data then checksum (as received)
    const LinNode* responder = nullptr;  // null: the master sent the response, or nobody did
    int64_t start_ns = 0, end_ns = 0;    // on the bus's time line
};

class LinBus {
public:
    void attach(const std::shared_ptr<LinNode>& node);
    void detach(const LinNode* node);
    void set_baud(uint32_t baud);
    uint32_t baud();
    // Multiplies every frame's duration (0: frames take no bus time).
    void set_time_scale(double scale);

    // A header with identifier `pid`, then either `master_bytes` (a master write; empty
    // for a header only with nobody expected to answer) or a slave's answer.
    // `expected` is how many response bytes the master waits for (0: unknown, up to 9).
    // The frame starts when the bus is free, not before `earliest_ns`.
    LinBusFrame header(uint8_t pid, uint8_t break_bits, const std::vector<uint8_t>* master_bytes, unsigned expected,
                       int64_t earliest_ns);
    int64_t send_break(uint8_t break_bits, int64_t earliest_ns);

    // Bit times of a frame with `bytes` response bytes and a break of `break_bits`.
    static unsigned frame_bits(uint8_t break_bits, unsigned bytes) { return break_bits + 1u + 20u + 10u * bytes; }

private:
    int64_t bits_ns(double bits);

    std::mutex mutex_;
    std::vector<std::weak_ptr<LinNode>> nodes_;
    uint32_t baud_ = 19200;
    double scale_ = 1.0;
    int64_t busy_until_ns_ = 0;
};

// ---- Slave nodes ----

enum class LinSlaveFault {
    None,
    WrongChecksum,  // the checksum byte is off by one
    NoAnswer,       // the node stays silent
    TooFewBytes,    // the last data byte and the checksum are not sent
    WrongParity,    // the enhanced checksum is built over the identifier with inverted parity bits
};

struct LinSlaveConfig {
    uint8_t id = 0;                // 0..63
    std::vector<uint8_t> data;     // published data (1..8 bytes)
    bool enhanced = true;          // checksum kind
    bool publisher = true;         // false: the node only listens to the identifier
    LinSlaveFault fault = LinSlaveFault::None;
};

class LinSlave : public LinNode {
public:
    explicit LinSlave(LinSlaveConfig config) : config_(std::move(config)) {}
    void set_fault(LinSlaveFault fault);
    void set_data(std::vector<uint8_t> data);
    // Response fields of master writes to this node's identifier.
    std::vector<std::vector<uint8_t>> received();
    int headers_seen();

    bool respond(uint8_t pid, std::vector<uint8_t>& bytes) override;
    void observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) override;

private:
    std::mutex mutex_;
    LinSlaveConfig config_;
    std::vector<std::vector<uint8_t>> received_;
    int headers_ = 0;
};

// A node with a diagnostic address: takes requests in master-request frames (0x3C) with
// the LIN transport layer (single, first, consecutive frames) and answers in
// slave-response frames (0x3D). Services: ReadDataByIdentifier (0x22), the echo service
// (echo_sid: the answer is the request with its first byte + 0x40), else a negative
// response 0x7F sid 0x11. Diagnostic frames use the classic checksum.
struct LinDiagConfig {
    uint8_t nad = 0x01;
    uint8_t request_id = 0x3C;
    uint8_t response_id = 0x3D;
    uint8_t echo_sid = 0xBA;
    std::map<uint16_t, std::vector<uint8_t>> identifiers;  // data identifier -> value
    bool wrong_sequence = false;  // the first consecutive frame of an answer carries sequence 2
    bool silent = false;          // takes requests, never answers
};

class LinDiagSlave : public LinNode {
public:
    explicit LinDiagSlave(LinDiagConfig config) : config_(std::move(config)) {}
    void set_silent(bool silent);
    void set_wrong_sequence(bool wrong);
    // Whole requests received, in order.
    std::vector<std::vector<uint8_t>> requests();
    // Response frames still to be collected.
    size_t pending_frames();

    bool respond(uint8_t pid, std::vector<uint8_t>& bytes) override;
    void observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) override;

private:
    void take_request_frame(const uint8_t* d);
    void answer(const std::vector<uint8_t>& request);

    std::mutex mutex_;
    LinDiagConfig config_;
    std::vector<uint8_t> assembling_;
    size_t expected_length_ = 0;
    uint8_t next_sequence_ = 0;
    bool in_segment_ = false;
    std::vector<std::vector<uint8_t>> requests_;
    std::deque<std::vector<uint8_t>> outgoing_;  // 8-byte frames
};

// A master node outside the adapter, for tests of the adapter as a slave.
class LinMasterNode {
public:
    explicit LinMasterNode(std::shared_ptr<LinBus> bus) : bus_(std::move(bus)) {}
    // Header only: whoever publishes `id` answers; returns the response field.
    std::vector<uint8_t> request(uint8_t id, uint8_t break_bits = 13);
    // Header and data from this master, with its checksum.
    void publish(uint8_t id, const std::vector<uint8_t>& data, bool enhanced = true);
    void send_break(uint8_t break_bits = 13);
    // A header whose parity bits are wrong.
    std::vector<uint8_t> request_raw_pid(uint8_t pid);

private:
    std::shared_ptr<LinBus> bus_;
};

}  // namespace polybus_sim
