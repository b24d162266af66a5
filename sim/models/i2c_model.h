// The adapter's I2C channels: master transfers to the devices placed on each bus, the
// SMBus block transactions, event-triggered transfers that wait for a GPIO level or
// edge, and slave mode answering a simulated bus master.
//
// Firmware transfer status (the answer's first byte), as this firmware defines it:
//   0 done, 1 address not acknowledged, 2 data not acknowledged, 3 PEC mismatch,
//   4 the event did not occur within the timeout, 5 address out of range for the
//   channel's width (above 0x7F on a 7-bit channel).
// Event selector (EventType bits 31..24; bits 23..0 are ignored): 0 pin low, 1 pin
// high, 2 rising edge, 3 falling edge. EventPin is the GPIO pin number (0..31).
// Transfers take no bus time; EEPROM write cycles and event waits take theirs.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

namespace i2c_status {
constexpr uint8_t kDone = 0, kAddressNack = 1, kDataNack = 2, kPecMismatch = 3, kEventTimeout = 4,
                  kBadAddress = 5;
}

// SMBus packet error code: CRC-8, polynomial x^8 + x^2 + x + 1, initial 0.
uint8_t smbus_pec(const uint8_t* data, size_t n, uint8_t crc = 0);

// A device on an I2C bus. Each call is one transfer between START and STOP; a false
// result is a missing acknowledge (the firmware reports status 1 or 2 through
// `nack_status`).
class I2cDevice {
public:
    virtual ~I2cDevice() = default;
    virtual bool answers(uint16_t address, bool ten_bit) const = 0;
    // Master writes `data` (may be empty: an address probe).
    virtual bool write(uint16_t address, const std::vector<uint8_t>& data) = 0;
    // Master reads `n` bytes.
    virtual bool read(uint16_t address, size_t n, std::vector<uint8_t>& out) = 0;
    // Write, repeated START, read.
    virtual bool write_read(uint16_t address, const std::vector<uint8_t>& data, size_t n, std::vector<uint8_t>& out) {
        return write(address, data) && read(address, n, out);
    }
    // SMBus block transactions (false: not supported, not acknowledged).
    virtual bool block_write(uint16_t, uint8_t, const std::vector<uint8_t>&) { return false; }
    virtual bool block_read(uint16_t, uint8_t, std::vector<uint8_t>&) { return false; }
    virtual bool block_process(uint16_t, uint8_t, const std::vector<uint8_t>&, std::vector<uint8_t>&) { return false; }
    // The PEC byte this device appends to what it sends (SMBus devices only).
    virtual bool pec_correct() const { return true; }
    uint8_t nack_status = i2c_status::kAddressNack;
};

// A 24C-family serial EEPROM.
struct EepromConfig {
    uint16_t address = 0x50;    // base address; sizes above 256 bytes with one address
                                // byte also take the next size/256 - 1 addresses
    uint32_t size = 256;        // bytes (24C02: 256, 24C256: 32768)
    uint32_t page_size = 8;     // write page; a page write wraps within its page
    uint32_t write_cycle_us = 5000;  // after a write, the device acknowledges nothing
    bool ten_bit = false;
    uint8_t fill = 0xFF;        // content of a new device
};

class Eeprom : public I2cDevice {
public:
    explicit Eeprom(EepromConfig config);
    bool answers(uint16_t address, bool ten_bit) const override;
    bool write(uint16_t address, const std::vector<uint8_t>& data) override;
    bool read(uint16_t address, size_t n, std::vector<uint8_t>& out) override;

    std::vector<uint8_t> contents();
    void load(uint32_t offset, const std::vector<uint8_t>& bytes);
    uint32_t pointer();
    bool busy();

private:
    unsigned address_bytes() const { return config_.size > 2048 ? 2 : 1; }
    EepromConfig config_;
    std::mutex mutex_;
    std::vector<uint8_t> memory_;
    uint32_t pointer_ = 0;
    std::chrono::steady_clock::time_point busy_until_{};
};

// An SMBus device: 256 word registers addressed by command code (a byte access uses
// the low byte), block registers, a process call that answers the complement of the
// word, a block process call that answers the block reversed.
struct SmbusDeviceConfig {
    uint16_t address = 0x16;
    bool ten_bit = false;
    uint8_t receive_byte = 0x5A;       // answer of a read without command
    bool corrupt_pec = false;          // appends a wrong PEC to what it sends
    std::map<uint8_t, uint16_t> words;  // initial registers
    std::map<uint8_t, std::vector<uint8_t>> blocks;
};

class SmbusDevice : public I2cDevice {
public:
    explicit SmbusDevice(SmbusDeviceConfig config);
    bool answers(uint16_t address, bool ten_bit) const override;
    bool write(uint16_t address, const std::vector<uint8_t>& data) override;
    bool read(uint16_t address, size_t n, std::vector<uint8_t>& out) override;
    bool write_read(uint16_t address, const std::vector<uint8_t>& data, size_t n, std::vector<uint8_t>& out) override;
    bool block_write(uint16_t address, uint8_t cmd, const std::vector<uint8_t>& data) override;
    bool block_read(uint16_t address, uint8_t cmd, std::vector<uint8_t>& out) override;
    bool block_process(uint16_t address, uint8_t cmd, const std::vector<uint8_t>& data,
                       std::vector<uint8_t>& out) override;
    bool pec_correct() const override { return !config_.corrupt_pec; }

    uint16_t word(uint8_t cmd);
    std::vector<uint8_t> block(uint8_t cmd);
    std::vector<uint8_t> last_write();  // bytes of the last plain write

private:
    SmbusDeviceConfig config_;
    std::mutex mutex_;
    uint16_t words_[256] = {};
    std::map<uint8_t, std::vector<uint8_t>> blocks_;
    std::vector<uint8_t> last_write_;
};

// A bus master addressing the adapter's slave mode on a schedule. Each step writes
// `write` to the adapter (what IIC_SlaveReadBytes collects) or reads `read` bytes from
// it (what IIC_SlaveWriteBytes prepared), first `at_us` after the start, then every
// `period_us` until it has run `count` times (0: for as long as the world runs).
struct I2cMasterConfig {
    struct Step {
        uint64_t at_us = 0;
        std::vector<uint8_t> write;
        size_t read = 0;
        uint64_t period_us = 0;
        uint32_t count = 1;
    };
    std::vector<Step> steps;
};

class I2cModel;
// Runs `config` on `clock`'s timer thread against channel `channel` of `target`; stops
// when the target adapter is gone or `*stop` is set.
void run_i2c_master(Adapter& clock, std::weak_ptr<Adapter> target, int channel, const I2cMasterConfig& config,
                    std::shared_ptr<std::atomic<bool>> stop);

class I2cModel : public FamilyModel {
public:
    static constexpr int kChannels = 2;
    explicit I2cModel(Adapter& adapter);

    void attach(int channel, std::shared_ptr<I2cDevice> device);
    void detach_all();

    // What the firmware was given at init for a channel.
    struct ChannelSetup {
        bool initialised = false;
        uint8_t width = 7, setting8 = 0, extra0 = 0, extra1 = 0;
        uint16_t setting16 = 0;
        uint32_t setting32 = 0;
    };
    ChannelSetup setup(int channel);

    // The simulated bus master talking to the adapter's slave mode: writes land in
    // what IIC_SlaveReadBytes collects; reads take what IIC_SlaveWriteBytes prepared.
    void master_write(int channel, const std::vector<uint8_t>& bytes);
    std::vector<uint8_t> master_read(int channel, size_t n);
    // Block transfers seen (for checking the parameters the host sent).
    struct BlockTransfer {
        uint16_t address;
        uint32_t size, count, param;
    };
    std::vector<BlockTransfer> block_transfers();
    void reset() override;

private:
    struct Channel {
        ChannelSetup setup;
        std::vector<std::shared_ptr<I2cDevice>> devices;
        std::deque<uint8_t> slave_tx;   // prepared for the master to read
        std::vector<uint8_t> slave_rx;  // written by the master
        uint32_t slave_read_count = 0;  // bytes the master has read since the last prepare
    };
    Channel& channel(uint8_t index);
    // Resolves the device for a transfer; 0 and the device, or a status.
    uint8_t find(uint8_t channel, uint16_t address, std::shared_ptr<I2cDevice>& device);
    void transfer(const Frame& f, size_t data_at, uint16_t address, uint8_t channel, bool reads, uint32_t read_len,
                  bool writes);
    // Runs `go` once the event has occurred on the pin, or answers `code` with the
    // timeout status when `timeout_ms` passed first.
    void when_event(uint32_t code, uint8_t pin, uint8_t kind, uint32_t timeout_ms, std::function<void()> go);
    void slave_wait_read(uint32_t code, uint8_t channel, std::chrono::steady_clock::time_point deadline);
    void slave_wait_written(uint32_t code, uint8_t channel, std::chrono::steady_clock::time_point deadline);

    Adapter& adapter_;
    std::mutex mutex_;
    Channel channels_[kChannels];
    Channel spare_;  // channel numbers the adapter does not have
    std::vector<BlockTransfer> blocks_;
};

}  // namespace polybus_sim
