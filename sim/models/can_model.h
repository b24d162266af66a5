// The adapter's CAN channels. A classic adapter (0xC00 commands) or a CAN FD adapter
// (identifier top byte 0x53 or 0x54: 0x4000 commands, packed 64-byte frames, a send
// endpoint per channel, transmit status and events), each with two channels.
//
// Each channel sits on a simulated bus (both on the same one unless a test moves them)
// at the bit timing it was initialised with; a channel that is not initialised, or is
// stopped, neither sends nor receives nor acknowledges. Frames take their real bus time:
// received frames reach the host only once they have ended on the bus, and a send
// command is answered once its frames are out. Time stamps run on the adapter's clock:
// 100 us units on classic adapters, 10 us on CAN FD ones.
//
// Firmware choices of this model (where the adapter's behaviour is its own):
//   - A frame nobody acknowledges is not repeated: it raises the transmit error counter
//     by 8 (up to 128) and sets last error code 3; a classic send reports only the
//     acknowledged frames as accepted; a CAN FD send request is aborted there.
//   - Acceptance: a channel without enabled filters takes every frame.
//   - Schedule start parameters: param1 = table to play (0xFF: all tables in turn),
//     param2 = passes (0: until stopped), param3 unused. A table's u16 parameter is how
//     many times it repeats within a pass (0: once). A classic adapter plays what was
//     uploaded last: by command, or into its schedule storage.
//   - CAN FD transmit status bytes: [0] frames of the last request sent, [1] frames of it
//     still queued, [2] frames in the request, [3] 1 when the request was aborted.
//   - CAN FD bus error bytes: TEC, REC, last error code, state (bit 0 warning, 1 passive).
//   - CAN FD diagnostics: frames received and frames sent, two u32 little-endian.
#pragma once

#include <array>
#include <cstdint>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "adapter.h"
#include "can_bus.h"

namespace polybus_sim {

class CanModel;

// A node outside the adapter: it transmits periodic frames and answers requests.
class CanPeer : public BusNode, public std::enable_shared_from_this<CanPeer> {
public:
    CanPeer(Adapter& timer_owner, uint32_t nominal_bps, uint32_t data_bps);

    // Sends `frame` every `period_us`, `count` times (-1: until stop()).
    void transmit_every(const BusFrame& frame, int64_t period_us, int count = -1);
    // Sends the frame `make(n, due_ns)` returns every `period_us`, the first at
    // `first_due_ns`, until stop(); n counts from 0.
    void transmit_every(std::function<BusFrame(uint64_t n, int64_t due_ns)> make, int64_t period_us,
                        int64_t first_due_ns);
    // Answers every frame with identifier `request_id` with `reply`, `delay_us` later.
    void answer(uint32_t request_id, const BusFrame& reply, int64_t delay_us = 200);
    // Sends every frame with identifier `request_id` back with its data, under `reply_id`.
    void echo(uint32_t request_id, uint32_t reply_id, bool reply_extended, int64_t delay_us = 200);
    // false: the peer listens without acknowledging.
    void set_acknowledge(bool on) { acknowledge_ = on; }
    void send(const BusFrame& frame);
    // Puts `frame` on the bus at `due_ns` (or as soon after as the bus is free).
    void send_at(const BusFrame& frame, int64_t due_ns);
    void stop();
    void set_bus(const std::shared_ptr<CanBus>& bus);
    std::vector<BusFrame> received();
    size_t received_count();

    uint32_t nominal_bps() const override { return nominal_; }
    uint32_t data_bps() const override { return data_; }
    bool fd_capable() const override { return true; }
    bool acknowledges() const override { return acknowledge_.load(); }
    void receive(const BusFrame& frame, int64_t end_ns) override;

private:
    void periodic(BusFrame frame, int64_t period_us, int remaining, uint32_t generation, int64_t due_ns);
    void generated(std::shared_ptr<std::function<BusFrame(uint64_t, int64_t)>> make, int64_t period_us, uint64_t n,
                   uint32_t generation, int64_t due_ns);
    void send_later(const BusFrame& frame, int64_t due_ns);

    Adapter& timer_;
    const uint32_t nominal_, data_;
    std::mutex mutex_;
    std::weak_ptr<CanBus> bus_;
    std::vector<BusFrame> received_;
    struct Reply {
        uint32_t id;
        BusFrame frame;
        int64_t delay_us;
        bool echo;
    };
    std::vector<Reply> replies_;
    uint32_t generation_ = 0;
    std::atomic<bool> acknowledge_{true};
};

class CanModel : public FamilyModel {
public:
    explicit CanModel(Adapter& adapter);
    ~CanModel() override;
    void reset() override;

    static constexpr int kChannels = 2;
    bool fd() const { return fd_; }

    // --- buses and peers ---
    std::shared_ptr<CanBus> bus(int channel);
    // Moves a channel to another bus (for example a bus shared with another adapter).
    void attach(int channel, const std::shared_ptr<CanBus>& bus);
    // A peer on the channel's bus at the given bit rates.
    std::shared_ptr<CanPeer> add_peer(int channel, uint32_t nominal_bps, uint32_t data_bps = 0);

    // --- state a test inspects or sets ---
    struct ChannelInfo {
        bool initialised = false;
        uint32_t nominal_bps = 0;
        uint32_t data_bps = 0;
        uint8_t mode = 0;
        std::vector<uint8_t> init_payload;  // the last set-up command as received
        uint64_t frames_sent = 0;
        uint64_t frames_received = 0;
        uint64_t schedule_frames = 0;  // frames the schedule player put on the bus
        bool schedule_running = false;
        uint64_t bus_errors = 0;  // frames seen at another bit rate
        uint8_t tec = 0, rec = 0;
    };
    ChannelInfo channel(int ch);
    // Frames waiting in the adapter for the host to fetch (those that have ended on the bus).
    size_t pending(int ch);
    void set_error_counters(int ch, uint8_t tec, uint8_t rec, uint8_t lec);
    void set_status_word(int ch, uint32_t word);
    void set_diagnostic(int ch, const std::array<uint8_t, 8>& bytes);
    uint8_t relay_state();
    // Frames that appear in the channel's next fetch as they are, with the given stamps
    // (microseconds on the adapter's clock), whether or not the channel is initialised.
    void inject_received(int ch, const std::vector<BusFrame>& frames, const std::vector<uint64_t>& stamps_us);
    // At most this many frames per fetch answer (2000 by default).
    void set_fetch_limit(size_t frames);

    class Channel;

private:
    struct Tables;
    // Filter banks of a classic adapter: 14 per channel, numbered across both channels.
    struct Bank {
        bool enable = false;
        bool list_mode = false;
        uint32_t id = 0, mask = 0;
    };

    void classic_commands();
    void fd_commands();
    void on_classic_send(const Frame& f);
    void on_fd_send(const Frame& f);
    void on_fetch(const Frame& f);
    void on_start_schedule(const Frame& f);
    void on_stop_schedule(const Frame& f);
    void on_relay(const Frame& f);
    void on_upload(const Frame& f, size_t record);
    void on_stop(const Frame& f);
    // A channel set-up of at least `min_size` payload bytes; `rates` reads the bit rates
    // and mode from it. Shorter ones, or an unknown channel, are only acknowledged.
    void on_init(const Frame& f, size_t min_size, const std::function<void(const Frame&, Channel&)>& rates);
    int start_schedule(int ch, uint8_t table, uint8_t passes);
    void schedule_step(int ch, uint32_t generation, int64_t due_ns);
    std::shared_ptr<Tables> stored_schedule(int ch);
    uint64_t stamp_units(uint64_t adapter_us) const { return adapter_us / (fd_ ? 10u : 100u); }
    uint64_t adapter_us(int64_t bus_ns) const;
    Channel& ch(int index) { return *channels_[index & 1]; }

    Adapter& adapter_;
    const bool fd_;
    int64_t epoch_ns_ = 0;  // bus time at which the adapter's clock read 0
    std::mutex mutex_;
    std::shared_ptr<Channel> channels_[kChannels];
    std::shared_ptr<CanBus> buses_[kChannels];
    Bank banks_[28];
    uint8_t relay_ = 0;
    size_t fetch_limit_ = 2000;
    std::vector<std::shared_ptr<CanPeer>> peers_;

    friend class Channel;
};

}  // namespace polybus_sim
