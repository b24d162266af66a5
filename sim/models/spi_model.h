// The adapter's two SPI ports: master transfers to a device placed on each port, the
// serial NOR flash commands driven from the flash description, event-triggered
// transfers, and slave mode fed by a simulated bus master streaming at a set rate.
//
// Firmware conventions of this model:
//   - Event-triggered transfers: EventPin is a GPIO pin mask, EventType 0 some pin low,
//     1 high, 2 rising edge, 3 falling edge. On a timeout the status byte is 1 (the
//     block reads then still carry the full length, zero-filled).
//   - Block transfers select the device once per block and answer after
//     IntervalTimeUs x BlockNum.
//   - Bit transfers move whole bytes on the bus (the last byte padded with zeros).
//   - Master transfers take no bus time; flash operations take the flash's program and
//     erase times (the firmware waits for the busy bit before each step and before it
//     answers).
//   - Slave mode: while continuous reading is on (0x225, which empties the receive
//     buffer when it starts a new run), a streaming master's bytes
//     collect in a receive buffer of kSlaveBuffer bytes (set_slave_buffer) (bytes beyond it are dropped and
//     counted); 0x223 answers at most kSlaveChunk bytes of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

// A device on a port. A frame is one chip select: `out` clocked in, then `read_len`
// bytes clocked out while the master sends 0xFF.
class SpiDevice {
public:
    virtual ~SpiDevice() = default;
    std::vector<uint8_t> frame(const std::vector<uint8_t>& out, size_t read_len);
    // Completes what the device is busy with and returns how long that would have
    // taken from now (the firmware's wait for the busy bit, taken in one step).
    virtual std::chrono::microseconds settle() { return std::chrono::microseconds(0); }

protected:
    virtual void select() {}
    virtual uint8_t exchange(uint8_t mosi) = 0;
    virtual void deselect() {}
    std::mutex mutex_;
};

// A serial NOR flash with the common command set: 06 write enable, 04 write disable,
// 05 read status (bit 0 busy, bit 1 write enable latch), 9F JEDEC identification,
// 03 read, 0B fast read (one dummy byte), 02 page program, 20 sector erase (4 KiB),
// D8 block erase (64 KiB), C7/60 chip erase. While busy it answers only 05.
struct NorFlashConfig {
    uint32_t size = 1 << 20;
    uint32_t page_size = 256;
    uint32_t sector_size = 4096;
    uint32_t block_size = 65536;
    unsigned address_bytes = 3;
    std::vector<uint8_t> jedec_id = {0xEF, 0x40, 0x14};
    uint32_t page_program_us = 300;
    uint32_t sector_erase_us = 10000;
    uint32_t block_erase_us = 60000;
    uint32_t chip_erase_us = 200000;
    uint8_t fill = 0xFF;  // content of a new device (erased)
};

class NorFlash : public SpiDevice {
public:
    explicit NorFlash(NorFlashConfig config);
    std::chrono::microseconds settle() override;
    std::vector<uint8_t> contents();
    void load(uint32_t offset, const std::vector<uint8_t>& bytes);
    const NorFlashConfig& config() const { return config_; }
    int erases();     // sector, block and chip erases started
    int programs();   // page programs started

protected:
    void select() override;
    uint8_t exchange(uint8_t mosi) override;
    void deselect() override;

private:
    bool busy() const { return std::chrono::steady_clock::now() < busy_until_; }
    void start_busy(uint32_t us);
    NorFlashConfig config_;
    std::vector<uint8_t> memory_;
    std::chrono::steady_clock::time_point busy_until_{};
    bool wel_ = false;
    int cmd_ = -1;
    size_t index_ = 0;
    uint32_t address_ = 0;
    std::vector<uint8_t> data_;
    bool ignored_ = false;
    int erases_ = 0, programs_ = 0;
};

// A plain device: a shift register of `depth` bytes. Each byte clocked in pushes out
// the byte clocked in `depth` bytes earlier (initially `fill`).
struct ShiftRegisterConfig {
    size_t depth = 1;
    uint8_t fill = 0x00;
};

class ShiftRegister : public SpiDevice {
public:
    explicit ShiftRegister(ShiftRegisterConfig config);
    std::vector<uint8_t> received();  // every byte clocked in, in order
    int frames();                     // chip selects seen

protected:
    void select() override { ++frames_; }
    uint8_t exchange(uint8_t mosi) override;

private:
    std::deque<uint8_t> stage_;
    std::vector<uint8_t> received_;
    int frames_ = 0;
};

// A bus master clocking bytes into the adapter's slave port at a steady rate. Byte i
// of its stream is byte(i): byte_at(i) unless a pattern is set, so a reader can check
// that nothing was lost.
struct SpiMasterConfig {
    double bytes_per_second = 1e6;
    uint64_t limit = UINT64_MAX;        // bytes in the whole stream
    std::vector<uint8_t> pattern = {};  // repeated as the stream; empty: byte_at(i)
};

class SpiMasterStream {
public:
    explicit SpiMasterStream(SpiMasterConfig config) : config_(config) {}
    static uint8_t byte_at(uint64_t i) { return uint8_t((i * 2654435761u) >> 13 ^ (i >> 8)); }
    // Byte i of this master's stream.
    uint8_t byte(uint64_t i) const {
        return config_.pattern.empty() ? byte_at(i) : config_.pattern[size_t(i % config_.pattern.size())];
    }
    const SpiMasterConfig& config() const { return config_; }

private:
    friend class SpiModel;
    SpiMasterConfig config_;
    bool running_ = false;
    std::chrono::steady_clock::time_point since_{};
    double active_s_ = 0;     // time clocked before `since_`
    uint64_t produced_ = 0;   // bytes clocked so far
    std::vector<uint8_t> received_;  // what the slave answered
};

class SpiModel : public FamilyModel {
public:
    static constexpr int kPorts = 2;
    static constexpr size_t kSlaveBuffer = 1 << 20;  // default slave receive buffer
    static constexpr size_t kSlaveChunk = 61440;
    explicit SpiModel(Adapter& adapter);

    void attach(int port, std::shared_ptr<SpiDevice> device);
    std::shared_ptr<SpiMasterStream> attach_master(int port, SpiMasterConfig config);

    struct PortSetup {
        bool initialised = false;
        uint8_t mode = 0, master = 0, cpol = 0, cpha = 0, lsb_first = 0, sel_polarity = 0;
        uint32_t clock_hz = 0;
        std::vector<uint8_t> flash;  // the 44-byte description, once given
        uint32_t flash_clock = 0;
    };
    PortSetup setup(int port);
    bool streaming(int port);
    // The slave receive buffer of every port, in bytes (kSlaveBuffer by default).
    void set_slave_buffer(size_t bytes);
    uint64_t slave_overruns(int port);
    uint64_t master_clocked(int port);
    std::vector<uint8_t> master_received(int port);  // what the slave side sent the master
    void reset() override;

private:
    struct Port {
        PortSetup setup;
        std::shared_ptr<SpiDevice> device;
        std::shared_ptr<SpiMasterStream> master;
        bool continuous = false;
        std::vector<uint8_t> rx;  // slave receive buffer
        size_t rx_head = 0;
        uint64_t overruns = 0;
        std::deque<uint8_t> tx;  // continuous-write data for the master
    };
    Port& port(uint8_t index) { return ports_[index & 1]; }
    std::vector<uint8_t> frame(uint8_t port, const std::vector<uint8_t>& out, size_t read_len);
    void pump(Port& p);  // brings the streaming master's bytes up to now
    void answer_later(uint32_t code, std::chrono::microseconds delay, Payload payload);
    void flash_command(const Frame& f);

    Adapter& adapter_;
    std::mutex mutex_;
    Port ports_[kPorts];
    size_t slave_buffer_ = kSlaveBuffer;
    std::shared_ptr<void> blocks_runner_;  // keeps the block-event sequencer alive
};

}  // namespace polybus_sim
