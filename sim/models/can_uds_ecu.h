// A diagnostic ECU on a simulated CAN or CAN FD bus: an ISO 15765-2 server with its own
// segmentation and flow control, serving a few UDS services.
//
//   - Addressing: request and response identifiers (11 or 29 bit); normal or extended
//     addressing (requests must begin with `ecu_address`, answers begin with
//     `tester_address`).
//   - Frames: classic (always 8 bytes) or CAN FD (`frame_len` bytes, with or without
//     bit-rate switch); every frame it sends is padded with `padding` to its length
//     (single frames of up to 7 bytes and flow control go in 8-byte frames).
//   - Flow control it gives for requests: `block_size` and `st_min` (any byte,
//     including 0xF1 to 0xF9), after `fc_delay_us`. For its own answers it honours the
//     tester's block size and separation time.
//   - Services: DiagnosticSessionControl (0x10: sessions 1 to 3), TesterPresent (0x3E),
//     ReadDataByIdentifier (0x22, several identifiers per request) and
//     WriteDataByIdentifier (0x2E) over `identifiers`, RequestDownload (0x34) /
//     TransferData (0x36) / RequestTransferExit (0x37) into a memory that
//     ReadMemoryByAddress (0x23) reads back. Address-and-length format bytes of 1 to 4
//     bytes each; the suppress-positive-response bit (0x80) of 0x10 and 0x3E is honoured.
//     Negative responses: 0x11 service not supported, 0x12 sub-function not supported,
//     0x13 wrong length, 0x24 request sequence error, 0x31 out of range, 0x73 wrong
//     block sequence counter.
//   - Faults on demand (UdsEcuConfig): flow-control wait frames before each continue (or
//     for ever), overflow instead of continue, a consecutive frame with a wrong sequence
//     number in answers, single-frame answers announcing more than their frame holds,
//     and silence (frames are acknowledged on the bus, nothing is ever answered).
//
// The ECU works on its own code only; it never uses the library's.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "adapter.h"
#include "can_bus.h"

namespace polybus_sim {

// A stretch of the ECU's address space beside the main memory (erased to 0xFF).
struct UdsMemoryRegion {
    uint32_t base = 0;
    uint32_t size = 0;
};

struct UdsEcuConfig {
    // Addressing.
    uint32_t request_id = 0x7E0;   // frames the ECU takes as requests (and flow control)
    uint32_t response_id = 0x7E8;  // frames it answers with
    bool extended_ids = false;     // 29-bit identifiers both ways
    bool extended_addressing = false;
    uint8_t ecu_address = 0x10;     // first byte of request frames (extended addressing)
    uint8_t tester_address = 0xF1;  // first byte of answer frames (extended addressing)
    // Frames.
    uint32_t nominal_bps = 500000;
    uint32_t data_bps = 0;  // CAN FD data phase; 0: none
    bool fd = false;        // answers in CAN FD frames (and takes CAN FD frames)
    bool brs = false;       // bit-rate switch on its CAN FD frames
    uint8_t frame_len = 8;  // CAN FD: 8, 12, 16, 20, 24, 32, 48 or 64; classic: 8
    uint8_t padding = 0xCC;
    // Flow control given to the tester.
    uint8_t block_size = 0;
    uint8_t st_min = 0;
    int64_t fc_delay_us = 100;        // from a first frame (or a block's last frame) to flow control
    int64_t response_delay_us = 200;  // from a request's last frame to the answer
    // Services.
    std::map<uint16_t, std::vector<uint8_t>> identifiers;
    uint32_t memory_base = 0x08000000;
    uint32_t memory_size = 0x20000;  // erased to 0xFF
    std::vector<UdsMemoryRegion> more_memory;  // further regions; none may overlap another
    uint16_t max_block_length = 0x0402;  // announced for TransferData (SID, counter, data)
    // Faults.
    int fc_wait_frames = 0;          // wait frames before each continue; -1: wait for ever
    int64_t fc_wait_interval_us = 100000;
    bool fc_overflow = false;        // first frames are answered with overflow
    int wrong_sequence_at = 0;       // n-th consecutive frame of an answer skips a number (0: never)
    bool oversized_single_frame = false;  // single-frame answers announce one byte more than fits
    bool silent = false;
};

class UdsEcu : public BusNode, public std::enable_shared_from_this<UdsEcu> {
public:
    // `timers` runs the ECU's delayed transmissions (any adapter of the test).
    UdsEcu(Adapter& timers, UdsEcuConfig config);

    void attach(const std::shared_ptr<CanBus>& bus);
    void detach();
    // Replaces the configuration, identifiers included (config() gives the current ones);
    // the memory is kept unless `reset_data` or its size changes.
    void configure(const UdsEcuConfig& config, bool reset_data = false);
    UdsEcuConfig config();

    // What a test inspects.
    struct Heard {
        BusFrame frame;
        int64_t end_ns;
    };
    std::vector<Heard> heard();  // frames with the request identifier, in bus order
    std::vector<Heard> sent();   // frames the ECU put on the bus
    void clear_log();
    std::vector<std::vector<uint8_t>> requests();  // complete requests, reassembled
    std::vector<uint8_t> memory(uint32_t address, size_t n);
    std::vector<uint8_t> identifier(uint16_t id);
    uint8_t session();
    // Consecutive frames the tester sent while it had no permission (block used up).
    int block_violations();

    uint32_t nominal_bps() const override;
    uint32_t data_bps() const override;
    bool fd_capable() const override;
    void receive(const BusFrame& frame, int64_t end_ns) override;

private:
    struct Outgoing {
        BusFrame frame;
        int64_t gap_ns;  // pause after the previous frame's end
    };

    void on_request_frame(const std::vector<uint8_t>& body, int64_t end_ns);
    void on_flow_control(const std::vector<uint8_t>& body, int64_t end_ns);
    void give_flow_control(int64_t after_ns);
    void answer(const std::vector<uint8_t>& request, int64_t end_ns);
    void send_block(int64_t after_ns);
    std::vector<uint8_t> serve(const std::vector<uint8_t>& request, bool& suppress);
    BusFrame frame_of(const std::vector<uint8_t>& body, size_t len) const;
    // Puts frames on the bus from the timer thread: the first at `due_ns`, each later one
    // after its gap. Dropped when the ECU's generation moved on meanwhile.
    void transmit_at(int64_t due_ns, std::vector<Outgoing> frames, uint32_t generation);
    uint32_t next_generation_locked() { return ++generation_; }
    // Where [address, address + size) lies in one region's storage; null when it does not
    // lie wholly within one region (or size is 0).
    uint8_t* locate_locked(uint32_t address, uint64_t size);

    Adapter& timers_;
    mutable std::mutex mutex_;  // the bus calls in with its own lock held: bus, then ECU
    std::weak_ptr<CanBus> bus_;
    UdsEcuConfig cfg_;
    std::vector<uint8_t> memory_;
    std::vector<std::vector<uint8_t>> more_memory_;  // storage of cfg_.more_memory, in order
    uint8_t session_ = 1;
    uint32_t generation_ = 0;  // bumped by every new request: stale timers do nothing

    // Reception of a segmented request.
    bool rx_active_ = false;
    uint32_t rx_total_ = 0;
    std::vector<uint8_t> rx_data_;
    uint8_t rx_sequence_ = 1;
    unsigned rx_in_block_ = 0;
    bool rx_blocked_ = false;  // block used up, continue not yet on the bus
    int violations_ = 0;

    // Transmission of a segmented answer.
    bool tx_active_ = false;
    bool tx_waiting_ = false;  // for the tester's flow control (other flow control is ignored)
    std::vector<uint8_t> tx_data_;
    size_t tx_pos_ = 0;
    unsigned tx_sequence_ = 1;
    unsigned tx_count_ = 0;  // consecutive frames sent
    uint8_t tx_block_size_ = 0;
    uint8_t tx_st_min_ = 0;

    // Download.
    bool download_active_ = false;
    uint32_t download_address_ = 0;
    uint32_t download_left_ = 0;
    uint8_t download_counter_ = 1;

    std::vector<Heard> heard_, sent_;
    std::vector<std::vector<uint8_t>> requests_;
};

}  // namespace polybus_sim
