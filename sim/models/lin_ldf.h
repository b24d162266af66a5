// LIN clusters described by LDF files, played on a simulated LIN bus.
//
// The simulator reads LDF files with its own small reader (a tokenizer and a few
// section readers, nothing shared with the library), so a cluster on the bus
// cross-checks the library's parser and frame coding. It keeps what a bus needs: the
// nodes, the protocol version, signals with their sizes and initial values, frames
// with identifier, publisher, length and signal offsets, the diagnostic frames and the
// schedule tables with their delays.
//
// Two devices use it:
//   - LdfSlaves plays every slave node: it answers the headers of the frames slaves
//     publish with the signals' values and takes the frames the master publishes;
//   - LdfMaster plays the master node: it runs one schedule table over and over,
//     publishing the master's frames and sending headers for the others.
// Checksums follow the cluster's protocol version: classic below 2.0, enhanced from
// 2.0 on (J2602 counts as 2.0; a version text that is not a number reads as 0), and
// classic for the diagnostic identifiers 0x3C to 0x3F whatever the version.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lin_bus.h"

namespace polybus_sim {

class Adapter;

struct LdfSignal {
    std::string name;
    unsigned size = 0;               // bits, 1..64
    uint64_t init = 0;               // scalar initial value, or the array's bytes little-endian
    std::string publisher;
    int line = 0;
};

struct LdfFrameSignal {
    std::string name;
    unsigned offset = 0;  // first bit inside the frame
};

struct LdfFrame {
    std::string name;
    uint8_t id = 0;
    std::string publisher;  // the master's name for MasterReq; empty for SlaveResp
    unsigned length = 0;    // data bytes, 1..8
    bool diagnostic = false;
    std::vector<LdfFrameSignal> signals;
    int line = 0;
};

struct LdfSlot {
    std::string frame;  // the entry's first word: a frame, or a command such as AssignNAD
    double delay_ms = 0;
};

struct LdfSchedule {
    std::string name;
    std::vector<LdfSlot> slots;
};

struct LdfCluster {
    std::string path;
    unsigned protocol = 0;  // version x 100
    uint32_t speed = 0;     // bit/s
    std::string master;
    std::vector<std::string> slaves;
    std::vector<LdfSignal> signals;
    std::vector<LdfFrame> frames;
    std::vector<LdfSchedule> schedules;

    // Positions by name (the first of a name), filled by the reader.
    std::map<std::string, size_t> signal_index, frame_index;

    const LdfSignal* signal(const std::string& name) const;
    const LdfFrame* frame(const std::string& name) const;
    const LdfFrame* frame_by_id(uint8_t id) const;
    const LdfSchedule* schedule(const std::string& name) const;
    bool by_master(const LdfFrame& f) const { return !master.empty() && f.publisher == master; }
    bool enhanced(uint8_t id) const { return (id & 0x3C) != 0x3C && protocol >= 200; }
};

// Reads an LDF file; on failure `line` is the line of the fault (0: the file cannot be
// read) and `error` says what was expected.
bool read_ldf(const std::string& path, LdfCluster& out, int& line, std::string& error);
bool parse_ldf(const std::string& text, LdfCluster& out, int& line, std::string& error);

// Signal values of a cluster's frames, coded as little-endian bit fields.
class LdfValues {
public:
    explicit LdfValues(const LdfCluster& cluster);
    // Raw value of a signal; false when the cluster has none of that name.
    bool set(const std::string& signal, uint64_t raw);
    bool get(const std::string& signal, uint64_t& raw) const;
    std::vector<uint8_t> encode(const LdfFrame& f) const;
    void decode(const LdfFrame& f, const uint8_t* data, size_t n);

private:
    std::map<std::string, uint64_t> values_;
};

struct LdfSlavesConfig {
    std::shared_ptr<const LdfCluster> cluster;
    std::map<std::string, uint64_t> values;  // raw values that replace initial ones
};

class LdfSlaves : public LinNode {
public:
    explicit LdfSlaves(LdfSlavesConfig config);
    // What the slaves hold now: their own signals, and the last values the master sent.
    bool value(const std::string& signal, uint64_t& raw);
    void set_value(const std::string& signal, uint64_t raw);
    // Frames the master published that these slaves took, per frame name.
    int taken(const std::string& frame);
    // Frames refused for a checksum of the wrong kind (or simply wrong).
    int refused();

    bool respond(uint8_t pid, std::vector<uint8_t>& bytes) override;
    void observe(uint8_t pid, const std::vector<uint8_t>& bytes, const LinNode* responder) override;

private:
    std::mutex mutex_;
    std::shared_ptr<const LdfCluster> cluster_;
    LdfValues values_;
    std::map<std::string, int> taken_;
    int refused_ = 0;
    int diagnostic_requests_ = 0;  // SlaveResp is answered once per MasterReq taken
};

struct LdfMasterConfig {
    std::shared_ptr<const LdfCluster> cluster;
    std::string schedule;
    std::map<std::string, uint64_t> values;
    int64_t start_delay_ns = 0;
};

class LdfMaster : public std::enable_shared_from_this<LdfMaster> {
public:
    LdfMaster(std::shared_ptr<LinBus> bus, LdfMasterConfig config);
    // Runs the schedule on `clock`'s timer thread until stop().
    void start(Adapter& clock);
    void stop();
    bool value(const std::string& signal, uint64_t& raw);
    void set_value(const std::string& signal, uint64_t raw);
    // Responses to this master's headers taken with a right checksum, per frame name.
    int answered(const std::string& frame);
    // Headers nobody answered, and answers refused for their checksum.
    int unanswered();
    int refused();
    // Schedule passes completed.
    uint64_t passes();

    // One slot, at bus time `at_ns` (also used directly by tests without a clock);
    // returns when its frame left the bus.
    int64_t run_slot(size_t index, int64_t at_ns);

private:
    void step(Adapter& clock, size_t index, int64_t due_ns);

    std::mutex mutex_;
    std::shared_ptr<LinBus> bus_;
    std::shared_ptr<const LdfCluster> cluster_;
    const LdfSchedule* schedule_ = nullptr;
    LdfValues values_;
    std::map<std::string, int> answered_;
    int unanswered_ = 0, refused_ = 0;
    uint64_t passes_ = 0;
    bool running_ = false;
    uint32_t generation_ = 0;
    int64_t start_delay_ns_ = 0;
};

}  // namespace polybus_sim
