#include "i2c_model.h"

#include <algorithm>

#include "pin_event.h"
#include "wire/i2c.h"

namespace polybus_sim {

using namespace polybus::wire;
using Clock = std::chrono::steady_clock;

uint8_t smbus_pec(const uint8_t* data, size_t n, uint8_t crc) {
    for (size_t i = 0; i < n; ++i) {
        crc ^= data[i];
        for (int b = 0; b < 8; ++b) crc = uint8_t(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
    }
    return crc;
}

// ---- EEPROM ------------------------------------------------------------------------

Eeprom::Eeprom(EepromConfig config) : config_(config), memory_(config.size, config.fill) {
    if (config_.page_size == 0) config_.page_size = 1;
}

bool Eeprom::answers(uint16_t address, bool ten_bit) const {
    if (ten_bit != config_.ten_bit) return false;
    const uint32_t blocks = address_bytes() == 1 && config_.size > 256 ? config_.size / 256 : 1;
    return address >= config_.address && address < config_.address + blocks;
}

bool Eeprom::write(uint16_t address, const std::vector<uint8_t>& data) {
    std::lock_guard<std::mutex> g(mutex_);
    if (Clock::now() < busy_until_) return false;  // in its write cycle: no acknowledge
    const unsigned ab = address_bytes();
    if (data.empty()) return true;
    uint32_t pointer = 0;
    for (unsigned i = 0; i < ab && i < data.size(); ++i) pointer = pointer << 8 | data[i];
    if (ab == 1) pointer |= uint32_t(address - config_.address) << 8;  // block bits in the device address
    pointer_ = pointer % config_.size;
    if (data.size() <= ab) return true;  // only the address: a read follows
    const uint32_t page = config_.page_size;
    const uint32_t start = pointer_ - pointer_ % page;
    uint32_t offset = pointer_ % page;
    for (size_t i = ab; i < data.size(); ++i) {
        const uint32_t at = start + offset;
        if (at < memory_.size()) memory_[at] = data[i];
        offset = (offset + 1) % page;  // a page write wraps within its page
    }
    pointer_ = (start + offset) % config_.size;
    busy_until_ = Clock::now() + std::chrono::microseconds(config_.write_cycle_us);
    return true;
}

bool Eeprom::read(uint16_t, size_t n, std::vector<uint8_t>& out) {
    std::lock_guard<std::mutex> g(mutex_);
    if (Clock::now() < busy_until_) return false;
    for (size_t i = 0; i < n; ++i) {
        out.push_back(memory_[pointer_]);
        pointer_ = (pointer_ + 1) % config_.size;
    }
    return true;
}

std::vector<uint8_t> Eeprom::contents() {
    std::lock_guard<std::mutex> g(mutex_);
    return memory_;
}
void Eeprom::load(uint32_t offset, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    for (size_t i = 0; i < bytes.size() && offset + i < memory_.size(); ++i) memory_[offset + i] = bytes[i];
}
uint32_t Eeprom::pointer() {
    std::lock_guard<std::mutex> g(mutex_);
    return pointer_;
}
bool Eeprom::busy() {
    std::lock_guard<std::mutex> g(mutex_);
    return Clock::now() < busy_until_;
}

// ---- SMBus device ------------------------------------------------------------------

SmbusDevice::SmbusDevice(SmbusDeviceConfig config) : config_(std::move(config)), blocks_(config_.blocks) {
    for (auto& w : config_.words) words_[w.first] = w.second;
}

bool SmbusDevice::answers(uint16_t address, bool ten_bit) const {
    return address == config_.address && ten_bit == config_.ten_bit;
}

bool SmbusDevice::write(uint16_t, const std::vector<uint8_t>& data) {
    std::lock_guard<std::mutex> g(mutex_);
    last_write_ = data;
    if (data.size() == 2) words_[data[0]] = uint16_t((words_[data[0]] & 0xFF00) | data[1]);
    if (data.size() == 3) words_[data[0]] = uint16_t(data[1] << 8 | data[2]);  // high byte first
    return true;
}

bool SmbusDevice::read(uint16_t, size_t n, std::vector<uint8_t>& out) {
    out.insert(out.end(), n, config_.receive_byte);
    return true;
}

bool SmbusDevice::write_read(uint16_t, const std::vector<uint8_t>& data, size_t n, std::vector<uint8_t>& out) {
    std::lock_guard<std::mutex> g(mutex_);
    if (data.empty()) return false;
    const uint8_t cmd = data[0];
    uint16_t word = words_[cmd];
    if (data.size() == 3 && n == 2) {  // process call
        words_[cmd] = uint16_t(data[1] << 8 | data[2]);
        word = uint16_t(~words_[cmd]);
    }
    if (n == 1) {
        out.push_back(uint8_t(word));
    } else {
        out.push_back(uint8_t(word >> 8));
        out.push_back(uint8_t(word));
        for (size_t i = 2; i < n; ++i) out.push_back(0);
    }
    return true;
}

bool SmbusDevice::block_write(uint16_t, uint8_t cmd, const std::vector<uint8_t>& data) {
    std::lock_guard<std::mutex> g(mutex_);
    blocks_[cmd] = data;
    return true;
}

bool SmbusDevice::block_read(uint16_t, uint8_t cmd, std::vector<uint8_t>& out) {
    std::lock_guard<std::mutex> g(mutex_);
    auto it = blocks_.find(cmd);
    if (it != blocks_.end()) out = it->second;
    return true;
}

bool SmbusDevice::block_process(uint16_t, uint8_t cmd, const std::vector<uint8_t>& data, std::vector<uint8_t>& out) {
    std::lock_guard<std::mutex> g(mutex_);
    blocks_[cmd] = data;
    out.assign(data.rbegin(), data.rend());
    return true;
}

uint16_t SmbusDevice::word(uint8_t cmd) {
    std::lock_guard<std::mutex> g(mutex_);
    return words_[cmd];
}
std::vector<uint8_t> SmbusDevice::block(uint8_t cmd) {
    std::lock_guard<std::mutex> g(mutex_);
    auto it = blocks_.find(cmd);
    return it != blocks_.end() ? it->second : std::vector<uint8_t>{};
}
std::vector<uint8_t> SmbusDevice::last_write() {
    std::lock_guard<std::mutex> g(mutex_);
    return last_write_;
}

// ---- The adapter's I2C firmware ------------------------------------------------------

namespace {
std::vector<uint8_t> tail(const Frame& f, size_t from) {
    return from < f.payload.size() ? std::vector<uint8_t>(f.payload.begin() + long(from), f.payload.end())
                                   : std::vector<uint8_t>{};
}
}  // namespace

I2cModel::I2cModel(Adapter& a) : adapter_(a) {
    a.on(IIC_INIT, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            ChannelSetup& s = channel(f.u8(0)).setup;
            s.initialised = true;
            s.width = f.u8(1);
            s.setting8 = f.u8(2);
            s.setting16 = f.be16(3);
            s.setting32 = f.be32(5);
            s.extra0 = f.u8(9);
            s.extra1 = f.u8(10);
        }
        adapter_.answer(f.command);
    });
    a.on(IIC_WRITE, [this](const Frame& f) { transfer(f, 8, f.be16(1), f.u8(0), false, 0, true); });
    a.on(IIC_READ, [this](const Frame& f) { transfer(f, f.payload.size(), f.be16(1), f.u8(0), true, f.be32(7), false); });
    a.on(IIC_WRITE_READ, [this](const Frame& f) { transfer(f, 12, f.be16(1), f.u8(0), true, f.be32(7), true); });
    a.on(IIC_WRITE_EVENT, [this](const Frame& f) {
        when_event(f.command, f.u8(7), f.u8(8), f.be32(3), [this, f] { transfer(f, 12, f.be16(1), f.u8(0), false, 0, true); });
    });
    a.on(IIC_READ_EVENT, [this](const Frame& f) {
        when_event(f.command, f.u8(11), f.u8(12), f.be32(7),
                   [this, f] { transfer(f, f.payload.size(), f.be16(1), f.u8(0), true, f.be32(3), false); });
    });
    a.on(IIC_WRITE_READ_EVENT, [this](const Frame& f) {
        when_event(f.command, f.u8(11), f.u8(12), f.be32(7),
                   [this, f] { transfer(f, 16, f.be16(1), f.u8(0), true, f.be32(3), true); });
    });
    a.on(IIC_BLOCK_WRITE, [this](const Frame& f) {
        const uint32_t size = f.be32(3), count = f.be32(7), param = f.be32(11);
        std::shared_ptr<I2cDevice> dev;
        uint8_t status;
        {
            std::lock_guard<std::mutex> g(mutex_);
            blocks_.push_back({f.be16(1), size, count, param});
            status = find(f.u8(0), f.be16(1), dev);
        }
        // Blocks are written one transfer each; BlockParam is the pause before each
        // next block, in microseconds (room for a memory's write cycle).
        for (uint32_t b = 0; status == 0 && b < count; ++b) {
            if (b != 0 && param != 0) std::this_thread::sleep_for(std::chrono::microseconds(param));
            const size_t at = 15 + size_t(b) * size;
            std::vector<uint8_t> block(f.payload.begin() + long(std::min(at, f.payload.size())),
                                       f.payload.begin() + long(std::min(at + size, f.payload.size())));
            if (!dev->write(f.be16(1), block)) status = b == 0 ? i2c_status::kAddressNack : i2c_status::kDataNack;
        }
        adapter_.answer(f.command, Payload().u8(status));
    });
    a.on(IIC_BLOCK_READ, [this](const Frame& f) {
        const uint32_t size = f.be32(3), count = f.be32(7), param = f.be32(11);
        std::shared_ptr<I2cDevice> dev;
        uint8_t status;
        {
            std::lock_guard<std::mutex> g(mutex_);
            blocks_.push_back({f.be16(1), size, count, param});
            status = find(f.u8(0), f.be16(1), dev);
        }
        std::vector<uint8_t> data;
        for (uint32_t b = 0; status == 0 && b < count; ++b) {
            if (b != 0 && param != 0) std::this_thread::sleep_for(std::chrono::microseconds(param));
            if (!dev->read(f.be16(1), size, data)) status = i2c_status::kAddressNack;
        }
        Payload p;
        p.u8(status);
        if (status == 0) p.raw(data.data(), data.size());
        adapter_.answer(f.command, p);
    });
    auto smbus_block = [this](const Frame& f) {
        std::shared_ptr<I2cDevice> dev;
        uint8_t status;
        {
            std::lock_guard<std::mutex> g(mutex_);
            status = find(f.u8(0), f.be16(1), dev);
        }
        const uint8_t cmd = f.u8(7);
        const bool pec = f.u8(8) != 0;
        std::vector<uint8_t> out;
        if (status == 0) {
            bool ok = false;
            switch (f.command) {
                case SMBUS_BLOCK_WRITE: ok = dev->block_write(f.be16(1), cmd, tail(f, 9)); break;
                case SMBUS_BLOCK_READ: ok = dev->block_read(f.be16(1), cmd, out); break;
                default: ok = dev->block_process(f.be16(1), cmd, tail(f, 9), out); break;
            }
            if (!ok) status = i2c_status::kDataNack;
            else if (pec && f.command != SMBUS_BLOCK_WRITE && !dev->pec_correct()) status = i2c_status::kPecMismatch;
        }
        Payload p;
        p.u8(status);
        if (status == 0) p.raw(out.data(), out.size());
        adapter_.answer(f.command, p);
    };
    a.on(SMBUS_BLOCK_WRITE, smbus_block);
    a.on(SMBUS_BLOCK_READ, smbus_block);
    a.on(SMBUS_BLOCK_PROCESS, smbus_block);

    a.on(IIC_SLAVE_WRITE, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            Channel& c = channel(f.u8(0));
            auto data = tail(f, 5);
            c.slave_tx.assign(data.begin(), data.end());
            c.slave_read_count = 0;
        }
        slave_wait_read(f.command, f.u8(0), Clock::now() + std::chrono::milliseconds(f.be32(1)));
    });
    a.on(IIC_SLAVE_READ, [this](const Frame& f) {
        slave_wait_written(f.command, f.u8(0), Clock::now() + std::chrono::milliseconds(f.be32(1)));
    });
    a.on(IIC_SLAVE_REMAIN, [this](const Frame& f) {
        size_t remain;
        {
            std::lock_guard<std::mutex> g(mutex_);
            remain = channel(f.u8(0)).slave_tx.size();
        }
        adapter_.answer(f.command, Payload().u8(uint8_t(remain)).u8(uint8_t(remain >> 8)));
    });
}

I2cModel::Channel& I2cModel::channel(uint8_t index) { return index < kChannels ? channels_[index] : spare_; }

uint8_t I2cModel::find(uint8_t ch, uint16_t address, std::shared_ptr<I2cDevice>& device) {
    Channel& c = channel(ch);
    const bool ten_bit = c.setup.width == 10;
    if (!ten_bit && address > 0x7F) return i2c_status::kBadAddress;
    if (address > 0x3FF) return i2c_status::kBadAddress;
    for (auto& d : c.devices)
        if (d->answers(address, ten_bit)) {
            device = d;
            return i2c_status::kDone;
        }
    return i2c_status::kAddressNack;
}

void I2cModel::transfer(const Frame& f, size_t data_at, uint16_t address, uint8_t ch, bool reads, uint32_t read_len,
                        bool writes) {
    std::shared_ptr<I2cDevice> dev;
    uint8_t status;
    {
        std::lock_guard<std::mutex> g(mutex_);
        status = find(ch, address, dev);
    }
    // The PEC flag sits just before the data of the plain transfers; the event
    // transfers carry none.
    const bool pec = (f.command == IIC_WRITE && f.u8(7)) || (f.command == IIC_READ && f.u8(11)) ||
                     (f.command == IIC_WRITE_READ && f.u8(11));
    std::vector<uint8_t> out;
    if (status == 0) {
        const auto data = writes ? tail(f, data_at) : std::vector<uint8_t>{};
        bool ok;
        if (writes && reads) ok = dev->write_read(address, data, read_len, out);
        else if (reads) ok = dev->read(address, read_len, out);
        else ok = dev->write(address, data);
        if (!ok) status = dev->nack_status;
        else if (pec && reads && !dev->pec_correct()) status = i2c_status::kPecMismatch;
    }
    Payload p;
    p.u8(status);
    if (reads && status == 0) {
        out.resize(read_len);
        p.raw(out.data(), out.size());
    }
    adapter_.answer(f.command, p);
}

void I2cModel::when_event(uint32_t code, uint8_t pin, uint8_t kind, uint32_t timeout_ms, std::function<void()> go) {
    wait_for_pins(adapter_, 1u << (pin & 31), kind, timeout_ms, std::move(go),
                  [this, code] { adapter_.answer(code, Payload().u8(i2c_status::kEventTimeout)); });
}

void I2cModel::slave_wait_read(uint32_t code, uint8_t ch, Clock::time_point deadline) {
    uint32_t count;
    bool done;
    {
        std::lock_guard<std::mutex> g(mutex_);
        Channel& c = channel(ch);
        count = c.slave_read_count;
        done = c.slave_tx.empty();
    }
    if (done || Clock::now() >= deadline) {
        adapter_.answer(code, Payload().u8(uint8_t(count)).u8(uint8_t(count >> 8)));
        return;
    }
    adapter_.after(std::chrono::milliseconds(1), [this, code, ch, deadline] { slave_wait_read(code, ch, deadline); });
}

void I2cModel::slave_wait_written(uint32_t code, uint8_t ch, Clock::time_point deadline) {
    std::vector<uint8_t> got;
    {
        std::lock_guard<std::mutex> g(mutex_);
        got.swap(channel(ch).slave_rx);
    }
    if (!got.empty() || Clock::now() >= deadline) {
        adapter_.answer(code, got);
        return;
    }
    adapter_.after(std::chrono::milliseconds(1), [this, code, ch, deadline] { slave_wait_written(code, ch, deadline); });
}

void I2cModel::attach(int ch, std::shared_ptr<I2cDevice> device) {
    std::lock_guard<std::mutex> g(mutex_);
    channel(uint8_t(ch)).devices.push_back(std::move(device));
}

void I2cModel::detach_all() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& c : channels_) c.devices.clear();
}

I2cModel::ChannelSetup I2cModel::setup(int ch) {
    std::lock_guard<std::mutex> g(mutex_);
    return channel(uint8_t(ch)).setup;
}

void I2cModel::master_write(int ch, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    auto& rx = channel(uint8_t(ch)).slave_rx;
    rx.insert(rx.end(), bytes.begin(), bytes.end());
}

std::vector<uint8_t> I2cModel::master_read(int ch, size_t n) {
    std::lock_guard<std::mutex> g(mutex_);
    Channel& c = channel(uint8_t(ch));
    std::vector<uint8_t> out;
    while (n-- > 0) {
        if (c.slave_tx.empty()) {
            out.push_back(0xFF);  // nothing prepared: the released bus reads high
            continue;
        }
        out.push_back(c.slave_tx.front());
        c.slave_tx.pop_front();
        ++c.slave_read_count;
    }
    return out;
}

std::vector<I2cModel::BlockTransfer> I2cModel::block_transfers() {
    std::lock_guard<std::mutex> g(mutex_);
    return blocks_;
}

void I2cModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& c : channels_) {
        c.setup = ChannelSetup{};
        c.slave_tx.clear();
        c.slave_rx.clear();
    }
}

// ---- Scheduled master ------------------------------------------------------------------

namespace {
struct MasterRun {
    Adapter* clock;
    std::weak_ptr<Adapter> target;
    int channel;
    I2cMasterConfig::Step step;
    std::shared_ptr<std::atomic<bool>> stop;
    std::chrono::steady_clock::time_point start;

    // One occurrence at a time, so a fast periodic step never floods the timer queue.
    static void schedule(std::shared_ptr<MasterRun> run, uint32_t n) {
        const auto due = run->start + std::chrono::microseconds(run->step.at_us + uint64_t(n) * run->step.period_us);
        const auto delay = std::chrono::duration_cast<std::chrono::microseconds>(due - Clock::now());
        run->clock->after(std::max(delay, std::chrono::microseconds(0)), [run, n] {
            if (run->stop->load()) return;
            auto adapter = run->target.lock();
            if (!adapter) return;
            I2cModel& model = adapter->model<I2cModel>();
            if (!run->step.write.empty()) model.master_write(run->channel, run->step.write);
            if (run->step.read > 0) model.master_read(run->channel, run->step.read);
            const uint32_t next = n + 1;
            if (run->step.period_us == 0 || (run->step.count != 0 && next >= run->step.count)) return;
            schedule(run, next);
        });
    }
};
}  // namespace

void run_i2c_master(Adapter& clock, std::weak_ptr<Adapter> target, int channel, const I2cMasterConfig& config,
                    std::shared_ptr<std::atomic<bool>> stop) {
    const auto start = Clock::now();
    for (const auto& step : config.steps)
        MasterRun::schedule(std::make_shared<MasterRun>(MasterRun{&clock, target, channel, step, stop, start}), 0);
}

}  // namespace polybus_sim
