// The simulated adapter: a model of the adapter firmware behind the USB layer. It
// reassembles command frames from the OUT endpoints, hands each to the family model
// that owns its command code, and queues the answers on the IN endpoint. Faults can
// be injected per command to test how the host copes with a misbehaving adapter.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "usbfs.h"

namespace polybus_sim {

struct AdapterConfig {
    uint32_t identifier = 0x41000001;   // top byte: model code
    bool answers_identifier = true;     // false: the identifier request stalls
    std::string manufacturer = "Polybus Devices Ltd";
    uint16_t product = 0x7918;
    bool high_speed = true;
    bool reenumerates_elsewhere = false;  // after a reset request, come back at a new address
    uint32_t firmware_version = 0x0105001E;
    uint32_t serial[3] = {0x50425553, 0x00010002, 0x00000001};
    std::string firmware_name = "Polybus simulated firmware";
    std::string function_string = "GPIO,CAN,CANFD,LIN,I2C,SPI,UART,PWM,ADC";
    int bus = 1;
    int address = -1;  // -1: next free address
};

// A command frame as the adapter received it.
struct Frame {
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    uint8_t endpoint = 0x01;
    bool interrupt = false;

    uint8_t u8(size_t off) const { return off < payload.size() ? payload[off] : 0; }
    uint16_t be16(size_t off) const { return static_cast<uint16_t>(u8(off) << 8 | u8(off + 1)); }
    uint32_t be32(size_t off) const {
        return uint32_t{u8(off)} << 24 | uint32_t{u8(off + 1)} << 16 | uint32_t{u8(off + 2)} << 8 | u8(off + 3);
    }
};

// Building an answer payload, big-endian unless said otherwise.
struct Payload {
    std::vector<uint8_t> bytes;
    Payload& u8(uint8_t v) { bytes.push_back(v); return *this; }
    Payload& be16(uint16_t v) { u8(uint8_t(v >> 8)); return u8(uint8_t(v)); }
    Payload& be32(uint32_t v) { be16(uint16_t(v >> 16)); return be16(uint16_t(v)); }
    Payload& le32(uint32_t v) {
        for (int i = 0; i < 4; ++i) u8(uint8_t(v >> (8 * i)));
        return *this;
    }
    Payload& raw(const void* p, size_t n) {
        const auto* b = static_cast<const uint8_t*>(p);
        bytes.insert(bytes.end(), b, b + n);
        return *this;
    }
};

enum class Fault {
    NoAnswer,        // the command is swallowed
    ShortPayload,    // the header announces the full length, half the payload comes
    Oversized,       // 4096 unexpected bytes are appended (and announced)
    ShortHeader,     // only 5 header bytes come
    WrongEcho,       // the answer carries another command code
    UnplugBefore,    // the adapter disappears instead of answering
    UnplugDuring,    // the header comes, then the adapter disappears
    EmptyPayload,    // the answer announces and carries no payload at all
    Garbage,         // pseudo-random bytes under another command code (announced length holds)
    ReplugElsewhere, // the adapter disappears instead of answering and comes back at a new address
};

class Adapter;

// A family's share of the firmware: it registers the command codes it serves.
class FamilyModel {
public:
    virtual ~FamilyModel() = default;
    virtual void reset() {}
};

using Handler = std::function<void(const Frame&)>;

class Adapter : public UsbFunction, public std::enable_shared_from_this<Adapter> {
public:
    explicit Adapter(AdapterConfig config);
    ~Adapter() override;

    const AdapterConfig& config() const { return config_; }
    AdapterConfig& config() { return config_; }

    // --- USB side ---
    int control(const ControlSetup& setup, uint8_t* data) override;
    void out(uint8_t ep, bool interrupt, const uint8_t* data, size_t len) override;
    void reset() override;

    // --- firmware side (used by family models) ---
    // Registers the handler of a command code. Each code has one owner: registering a
    // code a second time throws std::logic_error naming the code.
    void on(uint32_t command, Handler handler);
    // Test side: a firmware that answers this code its own way, in place of the model.
    void replace(uint32_t command, Handler handler);
    // Serves vendor control requests with this bRequest (the identifier and reset
    // requests are the adapter's own). The handler answers as UsbFunction::control.
    void on_vendor(uint8_t bRequest, std::function<int(const ControlSetup&, uint8_t*)> handler);
    // Answers `command` with `payload` (header and payload queued atomically), applying
    // any fault armed for it.
    void answer(uint32_t command, const std::vector<uint8_t>& payload = {});
    void answer(uint32_t command, const Payload& p) { answer(command, p.bytes); }
    // Runs `fn` after `delay` on the adapter's timer thread (answers that take time).
    void after(std::chrono::microseconds delay, std::function<void()> fn);
    template <typename Model>
    Model& model() {
        for (auto& m : models_)
            if (auto* typed = dynamic_cast<Model*>(m.get())) return *typed;
        auto owned = std::make_unique<Model>(*this);
        Model& ref = *owned;
        models_.push_back(std::move(owned));
        return ref;
    }

    // --- test side ---
    // Arms a fault for the next `count` commands with this code (0xFFFFFFFF: any),
    // after letting `skip` of them through untouched (skip 4: the 5th one is hit).
    void inject(Fault fault, uint32_t command = kAnyCommand, int count = 1, int skip = 0);
    void clear_faults();
    // Commands seen, in order (for tests that check what reached the adapter).
    std::vector<Frame> received();
    void clear_received();
    // Zero-length packets received on the OUT endpoints.
    int zero_length_packets() const { return zlps_.load(); }
    // Queues bytes on the IN endpoint as they are, outside any command.
    void send_raw(std::vector<std::vector<uint8_t>> transfers);
    int port() const { return port_.load(); }
    bool plugged() const { return port_.load() >= 0; }
    void plug();
    void unplug();
    // Unplug and plug again, at the same address or (new_address) another one.
    void replug(bool new_address);
    // Time on the adapter's clock, in microseconds since its last reset.
    uint64_t clock_us() const;

    static constexpr uint32_t kAnyCommand = 0xFFFFFFFFu;

private:
    void dispatch(Frame frame);
    bool take_fault(uint32_t command, Fault& fault);
    void timer_loop();

    AdapterConfig config_;
    std::atomic<int> port_{-1};
    std::atomic<int> zlps_{0};
    std::mutex mutex_;
    std::map<uint32_t, Handler> handlers_;
    std::map<uint8_t, std::function<int(const ControlSetup&, uint8_t*)>> vendor_handlers_;
    std::vector<std::unique_ptr<FamilyModel>> models_;
    std::vector<uint8_t> pending_[3];  // partial frames per OUT endpoint
    std::vector<Frame> received_;
    struct Armed {
        Fault fault;
        uint32_t command;
        int count;
        int skip;
    };
    std::vector<Armed> faults_;
    std::atomic<int64_t> epoch_ns_{0};

    struct Timer {
        std::chrono::steady_clock::time_point due;
        std::function<void()> fn;
    };
    std::mutex timer_mutex_;
    std::condition_variable timer_cv_;
    std::vector<Timer> timers_;
    bool stopping_ = false;
    std::thread timer_thread_;
};

// The set of simulated adapters of this process.
class Simulator {
public:
    static Simulator& instance();
    // plug false: the adapter is created with its models but plugged later (plug()).
    std::shared_ptr<Adapter> add(AdapterConfig config = {}, bool plug = true);
    void remove(const std::shared_ptr<Adapter>& adapter);
    void remove_all();
    std::vector<std::shared_ptr<Adapter>> adapters();

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<Adapter>> adapters_;
};

// Registers every family model with a new adapter.
void install_models(Adapter& adapter);

}  // namespace polybus_sim
