// The adapter's LIN side: four LIN channels, each on a LIN bus of its own (see lin_bus.h)
// at the baud rate it was initialised with, and four FLIN channels.
//
// As master, a batch of frames (LIN_EX_MASTER_SYNC) runs on the bus frame by frame,
// each after its delay, and is answered once the last frame has left the bus. As slave
// (initialised with master mode 0), the channel answers headers from its ID-mode table
// and records every frame and break it sees. The channel can also run a schedule of its
// own, and the older LIN_ commands of firmware 0x0105001D and before are served too.
//
// Firmware choices of this model (where the adapter's behaviour is its own):
//   - Results of write frames come as kind 9 (data and checksum apart); results of read
//     frames as kind 8 (the checksum counted as the last data byte) unless a test
//     switches the channel to kind 9. Breaks come back as they were sent (kind 5).
//   - A result's TimeStamp is the adapter's clock in ms when the frame ended.
//   - ID-mode table: MsgType 3 answers with Data[0..DataLen-1] and Check, 0x83 the same
//     once, 4 (and anything else) only records. Recorded frames the adapter answered come
//     as kind 9, those another node answered as kind 8, bare breaks as kind 5. At most
//     64 records go out per fetch; the adapter keeps up to 1000.
//   - Schedule results (LIN_EX_GET_SCH) keep the request's MsgType, DataLen counts the
//     data without the checksum; the last 64 are kept.
//   - Battery voltage is in millivolts. A channel index of 4 or more is answered with a
//     one-byte error payload by the acknowledged commands and nothing by the others.
//   - FLIN: writes are logged; a read answers what the test queued for the channel
//     (channel index taken as sent; 4 and above read nothing).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "adapter.h"
#include "lin_bus.h"

namespace polybus_sim {

// A LIN_EX_MSG record as it travels, decoded by the simulator itself.
struct LinRecord {
    uint32_t time = 0;
    uint8_t type = 0, check_type = 0, len = 0, sync = 0, pid = 0;
    uint8_t data[8] = {};
    uint8_t check = 0, break_bits = 0, reserved = 0;

    static LinRecord parse(const uint8_t* p);
    void put(Payload& out) const;
};

class LinModel : public FamilyModel {
public:
    explicit LinModel(Adapter& adapter);
    ~LinModel() override;
    void reset() override;

    static constexpr int kChannels = 4;

    std::shared_ptr<LinBus> bus(int channel);
    std::shared_ptr<LinSlave> add_slave(int channel, LinSlaveConfig config);
    std::shared_ptr<LinDiagSlave> add_diag_slave(int channel, LinDiagConfig config);
    LinMasterNode master_node(int channel);
    // Frames and delays take their real time multiplied by this (0: no time at all).
    void set_time_scale(double scale);
    // Result kind (8 or 9) of read frames on a channel.
    void set_read_result_kind(int channel, uint8_t kind);
    void set_battery_mv(uint16_t mv);

    struct ChannelInfo {
        bool initialised = false;
        uint32_t baud = 0;
        uint8_t master_mode = 0;
        uint8_t check_mode = 0;   // older LIN_ set-up
        uint8_t break_bits = 0;   // older LIN_ set-up
        uint8_t power = 0;
        bool schedule_running = false;
        uint64_t schedule_frames = 0;
        size_t table_entries = 0;
    };
    ChannelInfo channel(int ch);
    // The ID-mode table as the adapter holds it.
    std::vector<LinRecord> table(int ch);

    struct FlinWrite {
        uint8_t cmd;
        std::vector<uint8_t> data;
    };
    std::vector<FlinWrite> flin_writes(int ch);
    uint32_t flin_baud(int ch);
    void flin_queue_read(int ch, std::vector<uint8_t> bytes);

    class Channel;

private:
    // Runs one request record on the channel's bus from `t_ns` on; returns the result
    // and moves `t_ns` to the end of the frame.
    LinRecord run_frame(int ch, const LinRecord& request, int64_t& t_ns);
    void schedule_step(int ch, uint32_t generation, size_t index, int64_t due_ns);
    void answer_at(uint32_t code, Payload p, int64_t due_ns);
    void old_commands();
    void flin_commands();
    Channel& ch(int index) { return *channels_[index & 3]; }

    Adapter& adapter_;
    std::mutex mutex_;
    std::shared_ptr<Channel> channels_[kChannels];
    double scale_ = 1.0;
    uint16_t battery_mv_ = 12000;
    struct Flin {
        uint32_t baud = 0;
        std::vector<FlinWrite> writes;
        std::deque<std::vector<uint8_t>> reads;
    } flin_[kChannels];
    std::vector<std::shared_ptr<LinNode>> nodes_;  // devices placed on the buses
};

// A master node outside the adapter that keeps its own schedule, for benches where the
// adapter is a slave: each of its frames goes on the bus every period, on the clock
// of `timer` (the world's clock), from start() until stop().
struct LinMasterFrameConfig {
    enum class Send {
        Header,   // the header only: a slave (or the adapter's ID-mode table) answers
        Publish,  // the header and the master's own data and checksum
        Break,    // a break with nothing after it
    };
    Send send = Send::Header;
    uint8_t id = 0;                 // 0..63
    std::vector<uint8_t> data;      // Publish: 1..8 bytes
    bool enhanced = true;           // Publish: checksum kind
    bool wrong_parity = false;      // Header: the identifier goes out with both parity bits inverted
    uint8_t break_bits = 13;
    int64_t period_us = 100000;
    int64_t offset_us = 0;          // the first one this long after start()
    int64_t count = -1;             // how many times in all (-1: until stopped)
};

struct LinMasterConfig {
    std::vector<LinMasterFrameConfig> frames;
};

class LinScheduledMaster : public std::enable_shared_from_this<LinScheduledMaster> {
public:
    LinScheduledMaster(Adapter& timer, std::shared_ptr<LinBus> bus, LinMasterConfig config);
    // Frames fall due from `t0_ns` on the bus's time line.
    void start(int64_t t0_ns);
    void stop();
    // Frames (headers, frames with its data, breaks) this master has put on the bus.
    uint64_t frames_sent();

private:
    void step(size_t index, int64_t remaining, int64_t due_ns);

    Adapter& timer_;
    std::shared_ptr<LinBus> bus_;
    LinMasterConfig config_;
    std::mutex mutex_;
    bool running_ = false;
    uint64_t sent_ = 0;
};

}  // namespace polybus_sim
