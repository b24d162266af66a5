#include "spi_model.h"

#include <algorithm>
#include <cstring>

#include "pin_event.h"
#include "wire/spi.h"

namespace polybus_sim {

using namespace polybus::wire;
using Clock = std::chrono::steady_clock;
using us = std::chrono::microseconds;

namespace {
std::vector<uint8_t> tail(const Frame& f, size_t from, size_t n = SIZE_MAX) {
    if (from >= f.payload.size()) return {};
    const size_t end = n == SIZE_MAX ? f.payload.size() : std::min(f.payload.size(), from + n);
    return std::vector<uint8_t>(f.payload.begin() + long(from), f.payload.begin() + long(end));
}
uint32_t le32_at(const std::vector<uint8_t>& b, size_t off) {
    return off + 4 <= b.size() ? uint32_t(b[off]) | uint32_t(b[off + 1]) << 8 | uint32_t(b[off + 2]) << 16 |
                                     uint32_t(b[off + 3]) << 24
                               : 0;
}
constexpr uint8_t kEventTimeout = 1;
}  // namespace

// ---- Devices -----------------------------------------------------------------------

std::vector<uint8_t> SpiDevice::frame(const std::vector<uint8_t>& out, size_t read_len) {
    std::lock_guard<std::mutex> g(mutex_);
    std::vector<uint8_t> in;
    in.reserve(read_len);
    select();
    for (uint8_t b : out) exchange(b);
    for (size_t i = 0; i < read_len; ++i) in.push_back(exchange(0xFF));
    deselect();
    return in;
}

NorFlash::NorFlash(NorFlashConfig config) : config_(std::move(config)), memory_(config_.size, config_.fill) {}

std::chrono::microseconds NorFlash::settle() {
    std::lock_guard<std::mutex> g(mutex_);
    const auto now = Clock::now();
    if (busy_until_ <= now) return us(0);
    const auto left = std::chrono::duration_cast<us>(busy_until_ - now);
    busy_until_ = now;
    return left;
}

void NorFlash::start_busy(uint32_t t) { busy_until_ = Clock::now() + us(t); }

void NorFlash::select() {
    cmd_ = -1;
    index_ = 0;
    address_ = 0;
    data_.clear();
    ignored_ = false;
}

uint8_t NorFlash::exchange(uint8_t mosi) {
    if (cmd_ < 0) {
        cmd_ = mosi;
        ignored_ = busy() && mosi != 0x05;
        return 0xFF;
    }
    if (ignored_) return 0xFF;
    const size_t i = index_++;
    const unsigned ab = config_.address_bytes;
    switch (cmd_) {
        case 0x05: return uint8_t((busy() ? 0x01 : 0) | (wel_ ? 0x02 : 0));
        case 0x9F: return i < config_.jedec_id.size() ? config_.jedec_id[i] : 0xFF;
        case 0x03:
        case 0x0B: {
            const size_t lead = ab + (cmd_ == 0x0B ? 1 : 0);
            if (i < ab) {
                address_ = address_ << 8 | mosi;
                return 0xFF;
            }
            if (i < lead) return 0xFF;
            const uint8_t b = memory_[address_ % config_.size];
            address_ = (address_ + 1) % config_.size;
            return b;
        }
        case 0x02:
        case 0x20:
        case 0xD8:
            if (i < ab) address_ = address_ << 8 | mosi;
            else data_.push_back(mosi);
            return 0xFF;
        default: return 0xFF;
    }
}

void NorFlash::deselect() {
    if (cmd_ < 0 || ignored_) return;
    const unsigned ab = config_.address_bytes;
    const bool addressed = index_ >= ab;
    switch (cmd_) {
        case 0x06: wel_ = true; break;
        case 0x04: wel_ = false; break;
        case 0x02: {
            if (!wel_ || !addressed) break;
            wel_ = false;
            // NOR programming only clears bits; the page address wraps within its page.
            const uint32_t start = address_ - address_ % config_.page_size;
            uint32_t offset = address_ % config_.page_size;
            for (uint8_t b : data_) {
                memory_[(start + offset) % config_.size] &= b;
                offset = (offset + 1) % config_.page_size;
            }
            ++programs_;
            start_busy(config_.page_program_us);
            break;
        }
        case 0x20:
        case 0xD8: {
            if (!wel_ || !addressed) break;
            wel_ = false;
            const uint32_t unit = cmd_ == 0x20 ? config_.sector_size : config_.block_size;
            const uint32_t start = (address_ % config_.size) / unit * unit;
            std::fill(memory_.begin() + start, memory_.begin() + std::min<size_t>(start + unit, memory_.size()), 0xFF);
            ++erases_;
            start_busy(cmd_ == 0x20 ? config_.sector_erase_us : config_.block_erase_us);
            break;
        }
        case 0xC7:
        case 0x60:
            if (!wel_) break;
            wel_ = false;
            std::fill(memory_.begin(), memory_.end(), 0xFF);
            ++erases_;
            start_busy(config_.chip_erase_us);
            break;
        default: break;
    }
}

std::vector<uint8_t> NorFlash::contents() {
    std::lock_guard<std::mutex> g(mutex_);
    return memory_;
}
void NorFlash::load(uint32_t offset, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    for (size_t i = 0; i < bytes.size() && offset + i < memory_.size(); ++i) memory_[offset + i] = bytes[i];
}
int NorFlash::erases() {
    std::lock_guard<std::mutex> g(mutex_);
    return erases_;
}
int NorFlash::programs() {
    std::lock_guard<std::mutex> g(mutex_);
    return programs_;
}

ShiftRegister::ShiftRegister(ShiftRegisterConfig config) : stage_(std::max<size_t>(config.depth, 1), config.fill) {}

uint8_t ShiftRegister::exchange(uint8_t mosi) {
    received_.push_back(mosi);
    stage_.push_back(mosi);
    const uint8_t out = stage_.front();
    stage_.pop_front();
    return out;
}

std::vector<uint8_t> ShiftRegister::received() {
    std::lock_guard<std::mutex> g(mutex_);
    return received_;
}
int ShiftRegister::frames() {
    std::lock_guard<std::mutex> g(mutex_);
    return frames_;
}

// ---- The adapter's SPI firmware --------------------------------------------------------

std::vector<uint8_t> SpiModel::frame(uint8_t index, const std::vector<uint8_t>& out, size_t read_len) {
    std::shared_ptr<SpiDevice> dev;
    {
        std::lock_guard<std::mutex> g(mutex_);
        dev = port(index).device;
    }
    if (!dev) return std::vector<uint8_t>(read_len, 0xFF);  // nothing drives MISO: it reads high
    return dev->frame(out, read_len);
}

void SpiModel::answer_later(uint32_t code, us delay, Payload payload) {
    if (delay.count() <= 0) return adapter_.answer(code, payload);
    adapter_.after(delay, [this, code, payload] { adapter_.answer(code, payload); });
}

void SpiModel::pump(Port& p) {
    if (!p.master || !p.continuous) return;
    SpiMasterStream& m = *p.master;
    const auto now = Clock::now();
    const double active = m.active_s_ + std::chrono::duration<double>(now - m.since_).count();
    uint64_t due = uint64_t(active * m.config_.bytes_per_second);
    if (due > m.config_.limit) due = m.config_.limit;
    if (due <= m.produced_) return;
    const uint64_t n = due - m.produced_;
    // Compact the consumed front before appending.
    if (p.rx_head > 0 && p.rx_head * 2 >= p.rx.size()) {
        p.rx.erase(p.rx.begin(), p.rx.begin() + long(p.rx_head));
        p.rx_head = 0;
    }
    const size_t room = slave_buffer_ - std::min(slave_buffer_, p.rx.size() - p.rx_head);
    const uint64_t keep = std::min<uint64_t>(n, room);
    for (uint64_t i = 0; i < keep; ++i) p.rx.push_back(m.byte(m.produced_ + i));
    p.overruns += n - keep;
    // The slave answers with its continuous-write data while the master clocks.
    const size_t answered = std::min<size_t>(p.tx.size(), size_t(n));
    m.received_.insert(m.received_.end(), p.tx.begin(), p.tx.begin() + long(answered));
    p.tx.erase(p.tx.begin(), p.tx.begin() + long(answered));
    m.produced_ = due;
}

SpiModel::SpiModel(Adapter& a) : adapter_(a) {
    a.on(SPI_INIT, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            PortSetup& s = port(f.u8(0)).setup;
            s.initialised = true;
            s.mode = f.u8(1);
            s.master = f.u8(2);
            s.cpol = f.u8(3);
            s.cpha = f.u8(4);
            s.lsb_first = f.u8(5);
            s.sel_polarity = f.u8(6);
            s.clock_hz = f.be32(7);
        }
        adapter_.answer(f.command);
    });
    auto write = [this](const Frame& f) {
        frame(f.u8(0), tail(f, 1), 0);
        adapter_.answer(f.command);
    };
    a.on(SPI_WRITE, write);
    a.on(SPI_WRITE_ASYNC, write);
    a.on(SPI_READ, [this](const Frame& f) { adapter_.answer(f.command, frame(f.u8(0), {}, f.be32(1))); });
    a.on(SPI_WRITE_READ, [this](const Frame& f) { adapter_.answer(f.command, frame(f.u8(0), tail(f, 9), f.be32(1))); });

    a.on(SPI_BLOCK_WRITE, [this](const Frame& f) {
        const uint16_t size = f.be16(1), count = f.be16(3);
        for (uint16_t b = 0; b < count; ++b) frame(f.u8(0), tail(f, 9 + size_t(b) * size, size), 0);
        answer_later(f.command, us(uint64_t(f.be32(5)) * count), Payload());
    });
    a.on(SPI_BLOCK_READ, [this](const Frame& f) {
        const uint16_t size = f.be16(1), count = f.be16(3);
        Payload p;
        for (uint16_t b = 0; b < count; ++b) {
            auto in = frame(f.u8(0), {}, size);
            p.raw(in.data(), in.size());
        }
        answer_later(f.command, us(uint64_t(f.be32(5)) * count), p);
    });
    a.on(SPI_BLOCK_WRITE_READ, [this](const Frame& f) {
        const uint16_t wsize = f.be16(1), rsize = f.be16(3), count = f.be16(5);
        Payload p;
        for (uint16_t b = 0; b < count; ++b) {
            auto in = frame(f.u8(0), tail(f, 11 + size_t(b) * wsize, wsize), rsize);
            p.raw(in.data(), in.size());
        }
        answer_later(f.command, us(uint64_t(f.be32(7)) * count), p);
    });

    // Bits move as whole bytes; the count says how many of them matter.
    a.on(SPI_WRITE_BITS, [this](const Frame& f) {
        frame(f.u8(0), tail(f, 5, (f.be32(1) + 7) / 8), 0);
        adapter_.answer(f.command);
    });
    a.on(SPI_READ_BITS, [this](const Frame& f) {
        adapter_.answer(f.command, frame(f.u8(0), {}, (size_t(f.be32(1)) + 7) / 8));
    });
    a.on(SPI_WRITE_READ_BITS, [this](const Frame& f) {
        adapter_.answer(f.command, frame(f.u8(0), tail(f, 9, (f.be32(1) + 7) / 8), (size_t(f.be32(5)) + 7) / 8));
    });

    // Event-triggered transfers.
    a.on(SPI_WRITE_EVENT, [this](const Frame& f) {
        const uint32_t code = f.command;
        wait_for_pins(
            adapter_, f.be32(1), f.u8(5), f.be32(6),
            [this, f] {
                frame(f.u8(0), tail(f, 10), 0);
                adapter_.answer(f.command, Payload().u8(0));
            },
            [this, code] { adapter_.answer(code, Payload().u8(kEventTimeout)); });
    });
    auto event_read = [this](const Frame& f, uint32_t len, uint32_t mask, uint8_t kind, uint32_t timeout,
                             size_t data_at) {
        const uint32_t code = f.command;
        wait_for_pins(
            adapter_, mask, kind, timeout,
            [this, f, len, data_at] {
                auto in = frame(f.u8(0), data_at ? tail(f, data_at) : std::vector<uint8_t>{}, len);
                adapter_.answer(f.command, Payload().u8(0).raw(in.data(), in.size()));
            },
            [this, code] { adapter_.answer(code, Payload().u8(kEventTimeout)); });
    };
    a.on(SPI_READ_EVENT, [event_read](const Frame& f) { event_read(f, f.be32(1), f.be32(5), f.u8(9), f.be32(10), 0); });
    a.on(SPI_WRITE_READ_EVENT,
         [event_read](const Frame& f) { event_read(f, f.be32(1), f.be32(9), f.u8(13), f.be32(14), 18); });

    // Block transfers on events: each block waits for its own event.
    struct BlockRun {
        Frame f;
        uint16_t wsize, rsize, count;
        size_t data_at;
        uint32_t mask, timeout;
        uint8_t kind;
        bool reads;
        Payload in;
    };
    auto run_blocks = std::make_shared<std::function<void(std::shared_ptr<BlockRun>, uint16_t)>>();
    *run_blocks = [this, weak = std::weak_ptr<std::function<void(std::shared_ptr<BlockRun>, uint16_t)>>(run_blocks)](
                      std::shared_ptr<BlockRun> r, uint16_t b) {
        if (b == r->count) {
            if (r->reads) adapter_.answer(r->f.command, Payload().u8(0).raw(r->in.bytes.data(), r->in.bytes.size()));
            else adapter_.answer(r->f.command);
            return;
        }
        auto next = weak.lock();
        wait_for_pins(
            adapter_, r->mask, r->kind, r->timeout,
            [this, r, b, next] {
                auto in = frame(r->f.u8(0), tail(r->f, r->data_at + size_t(b) * r->wsize, r->wsize), r->rsize);
                r->in.raw(in.data(), in.size());
                if (next) (*next)(r, uint16_t(b + 1));
            },
            [this, r] {
                Payload p;
                p.u8(kEventTimeout);
                if (r->reads) p.bytes.resize(1 + size_t(r->rsize) * r->count, 0);
                adapter_.answer(r->f.command, p);
            });
    };
    blocks_runner_ = run_blocks;
    a.on(SPI_BLOCK_WRITE_EVENT, [run_blocks](const Frame& f) {
        auto r = std::make_shared<BlockRun>(BlockRun{f, f.be16(1), 0, f.be16(3), 14, f.be32(5), f.be32(10), f.u8(9),
                                                     false, {}});
        (*run_blocks)(r, 0);
    });
    a.on(SPI_BLOCK_READ_EVENT, [run_blocks](const Frame& f) {
        auto r = std::make_shared<BlockRun>(BlockRun{f, 0, f.be16(1), f.be16(3), 14, f.be32(5), f.be32(10), f.u8(9),
                                                     true, {}});
        (*run_blocks)(r, 0);
    });
    a.on(SPI_BLOCK_WRITE_READ_EVENT, [run_blocks](const Frame& f) {
        auto r = std::make_shared<BlockRun>(BlockRun{f, f.be16(1), f.be16(3), f.be16(5), 16, f.be32(7), f.be32(12),
                                                     f.u8(11), true, {}});
        (*run_blocks)(r, 0);
    });

    // Flash commands, from the description given at init.
    for (uint32_t code : {SPI_FLASH_INIT, SPI_FLASH_READ_ID, SPI_FLASH_WRITE, SPI_FLASH_READ, SPI_FLASH_ERASE_SECTOR,
                          SPI_FLASH_READ_FAST})
        a.on(code, [this](const Frame& f) { flash_command(f); });

    // Slave side.
    a.on(SPI_SLAVE_WRITE, [this](const Frame& f) {
        auto data = tail(f, 5);
        std::shared_ptr<SpiMasterStream> m;
        {
            std::lock_guard<std::mutex> g(mutex_);
            m = port(f.u8(0)).master;
            if (m) {
                m->received_.insert(m->received_.end(), data.begin(), data.end());
                m->produced_ += data.size();  // the master clocks its own bytes meanwhile
            }
        }
        if (!m) return answer_later(f.command, std::chrono::milliseconds(f.be32(1)), Payload().be32(0));
        const double s = double(data.size()) / m->config().bytes_per_second;
        answer_later(f.command, us(int64_t(s * 1e6)), Payload().be32(uint32_t(data.size())));
    });
    auto duplex = [this](const Frame& f) {
        auto data = tail(f, 9);
        const uint32_t len = f.be32(5);
        std::shared_ptr<SpiMasterStream> m;
        Payload p;
        {
            std::lock_guard<std::mutex> g(mutex_);
            m = port(f.u8(0)).master;
            if (m) {
                m->received_.insert(m->received_.end(), data.begin(), data.end());
                p.be32(uint32_t(data.size())).be32(len);
                for (uint32_t i = 0; i < len; ++i) p.u8(m->byte(m->produced_ + i));
                m->produced_ += std::max<uint64_t>(len, data.size());
            }
        }
        if (!m) return answer_later(f.command, std::chrono::milliseconds(f.be32(1)), Payload().be32(0).be32(0));
        const double s = double(std::max<size_t>(len, data.size())) / m->config().bytes_per_second;
        answer_later(f.command, us(int64_t(s * 1e6)), p);
    };
    a.on(SPI_SLAVE_WRITE_READ, duplex);
    a.on(SPI_SLAVE_READ_WRITE, duplex);
    a.on(SPI_SLAVE_READ_BUFFER, [this](const Frame& f) {
        std::vector<uint8_t> chunk;
        {
            std::lock_guard<std::mutex> g(mutex_);
            Port& p = port(f.u8(0));
            pump(p);
            const size_t n = std::min(kSlaveChunk, p.rx.size() - p.rx_head);
            chunk.assign(p.rx.begin() + long(p.rx_head), p.rx.begin() + long(p.rx_head + n));
            p.rx_head += n;
        }
        adapter_.answer(f.command, chunk);
    });
    a.on(SPI_SLAVE_START, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            Port& p = port(f.u8(0));
            if (!p.continuous) {  // a new run starts with an empty receive buffer
                p.rx.clear();
                p.rx_head = 0;
            }
            if (!p.continuous && p.master) {
                p.master->since_ = Clock::now();
                p.master->running_ = true;
            }
            p.continuous = true;
        }
        adapter_.answer(f.command);
    });
    a.on(SPI_SLAVE_STOP, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            Port& p = port(f.u8(0));
            pump(p);
            if (p.continuous && p.master) {
                p.master->active_s_ += std::chrono::duration<double>(Clock::now() - p.master->since_).count();
                p.master->running_ = false;
            }
            p.continuous = false;
        }
        adapter_.answer(f.command);
    });
    a.on(SPI_SLAVE_CONTINUE_WRITE, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            auto data = tail(f, 1);
            Port& p = port(f.u8(0));
            p.tx.insert(p.tx.end(), data.begin(), data.end());
        }
        adapter_.answer(f.command);
    });
}

void SpiModel::flash_command(const Frame& f) {
    const uint8_t index = f.u8(0);
    std::vector<uint8_t> d;
    std::shared_ptr<SpiDevice> dev;
    {
        std::lock_guard<std::mutex> g(mutex_);
        Port& p = port(index);
        if (f.command == SPI_FLASH_INIT) {
            p.setup.flash = tail(f, 5, flash::kSize);
            p.setup.flash.resize(flash::kSize, 0);
            p.setup.flash_clock = f.be32(1);
        }
        d = p.setup.flash;
        dev = p.device;
    }
    if (d.empty()) d.assign(flash::kSize, 0);  // never initialised: all commands 0
    const unsigned ab = d[flash::kAddrBytes] == 4 ? 4 : 3;
    const uint32_t page = le32_at(d, flash::kPageSize) ? le32_at(d, flash::kPageSize) : 256;
    const uint32_t sector = le32_at(d, flash::kSectorSize) ? le32_at(d, flash::kSectorSize) : 4096;
    auto command = [&](uint8_t cmd, uint32_t address, bool with_address) {
        std::vector<uint8_t> out{cmd};
        if (with_address)
            for (unsigned i = 0; i < ab; ++i) out.push_back(uint8_t(address >> (8 * (ab - 1 - i))));
        return out;
    };
    us waited(0);
    auto settle = [&] {
        if (dev) waited += dev->settle();
    };
    switch (f.command) {
        case SPI_FLASH_INIT:
            if (d[flash::kPowerUpCmd]) frame(index, {d[flash::kPowerUpCmd]}, 0);
            adapter_.answer(f.command);
            return;
        case SPI_FLASH_READ_ID: {
            settle();
            const uint8_t n = d[flash::kIdLength] ? d[flash::kIdLength] : 1;
            answer_later(f.command, waited, Payload{frame(index, {d[flash::kReadIdCmd]}, n)});
            return;
        }
        case SPI_FLASH_WRITE: {
            uint32_t address = f.be32(1);
            auto data = tail(f, 5);
            size_t at = 0;
            while (at < data.size()) {
                const size_t n = std::min<size_t>(data.size() - at, page - address % page);
                settle();
                frame(index, {d[flash::kWriteEnableCmd]}, 0);
                auto out = command(d[flash::kPageProgramCmd], address, true);
                out.insert(out.end(), data.begin() + long(at), data.begin() + long(at + n));
                frame(index, out, 0);
                at += n;
                address += uint32_t(n);
            }
            settle();
            answer_later(f.command, waited, Payload());
            return;
        }
        case SPI_FLASH_READ:
        case SPI_FLASH_READ_FAST: {
            settle();
            const bool fast = f.command == SPI_FLASH_READ_FAST;
            auto out = command(d[fast ? flash::kFastReadCmd : flash::kReadCmd], f.be32(1), true);
            if (fast) out.insert(out.end(), d[flash::kDummyBytes], 0);
            answer_later(f.command, waited, Payload{frame(index, out, f.be32(5))});
            return;
        }
        case SPI_FLASH_ERASE_SECTOR: {
            const uint32_t first = f.be32(1), count = f.be32(5);
            for (uint32_t s = 0; s < count; ++s) {
                settle();
                frame(index, {d[flash::kWriteEnableCmd]}, 0);
                frame(index, command(d[flash::kSectorEraseCmd], (first + s) * sector, true), 0);
            }
            settle();
            answer_later(f.command, waited, Payload());
            return;
        }
        default: adapter_.answer(f.command); return;
    }
}

void SpiModel::attach(int index, std::shared_ptr<SpiDevice> device) {
    std::lock_guard<std::mutex> g(mutex_);
    port(uint8_t(index)).device = std::move(device);
}

std::shared_ptr<SpiMasterStream> SpiModel::attach_master(int index, SpiMasterConfig config) {
    std::lock_guard<std::mutex> g(mutex_);
    Port& p = port(uint8_t(index));
    p.master = std::make_shared<SpiMasterStream>(config);
    if (p.continuous) {
        p.master->since_ = Clock::now();
        p.master->running_ = true;
    }
    return p.master;
}

SpiModel::PortSetup SpiModel::setup(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return port(uint8_t(index)).setup;
}
bool SpiModel::streaming(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return port(uint8_t(index)).continuous;
}
void SpiModel::set_slave_buffer(size_t bytes) {
    std::lock_guard<std::mutex> g(mutex_);
    slave_buffer_ = bytes;
}
uint64_t SpiModel::slave_overruns(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    return port(uint8_t(index)).overruns;
}
uint64_t SpiModel::master_clocked(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    Port& p = port(uint8_t(index));
    pump(p);
    return p.master ? p.master->produced_ : 0;
}
std::vector<uint8_t> SpiModel::master_received(int index) {
    std::lock_guard<std::mutex> g(mutex_);
    Port& p = port(uint8_t(index));
    return p.master ? p.master->received_ : std::vector<uint8_t>{};
}

void SpiModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& p : ports_) {
        p.setup = PortSetup{};
        p.continuous = false;
        p.rx.clear();
        p.rx_head = 0;
        p.tx.clear();
    }
}

}  // namespace polybus_sim
