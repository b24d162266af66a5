#include "device_model.h"

#include "wire/device.h"

#include <algorithm>
#include <cstring>

namespace polybus_sim {

using namespace polybus::wire;

namespace {
constexpr uint32_t kChunk = 10240;
}

DeviceModel::DeviceModel(Adapter& a)
    : adapter_(a), user_(kUserDataSize, 0xFF), schedule_(kScheduleSize, 0xFF), config_(kConfigSize, 0xFF) {
    a.on(DEV_SET_POWER_LEVEL, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            power_ = f.u8(0);
        }
        adapter_.answer(f.command);
    });
    a.on(DEV_GET_TIMESTAMP, [this](const Frame& f) {
        // Selector 0: the CAN time base (100 us units) that received frames are stamped
        // with; anything else: milliseconds.
        const uint64_t us = adapter_.clock_us();
        const uint64_t value = f.u8(0) == 0 ? us / 100 : us / 1000;
        Payload p;
        for (int i = 0; i < 8; ++i) p.u8(uint8_t(value >> (8 * i)));
        adapter_.answer(f.command, p);
    });
    a.on(DEV_RESET_TIMESTAMP, [this](const Frame& f) { adapter_.answer(f.command); });
    a.on(DEV_GET_INFO, [this](const Frame& f) {
        const AdapterConfig& c = adapter_.config();
        std::vector<uint8_t> info(88, 0);
        std::memcpy(info.data(), c.firmware_name.data(), std::min<size_t>(31, c.firmware_name.size()));
        std::memcpy(info.data() + 32, "2026-11-21", 10);
        auto le = [&](size_t off, uint32_t v) {
            for (int i = 0; i < 4; ++i) info[off + i] = uint8_t(v >> (8 * i));
        };
        le(64, 0x00020001);
        le(68, c.firmware_version);
        le(72, c.serial[0]);
        le(76, c.serial[1]);
        le(80, c.serial[2]);
        le(84, 0x0000FFFF);
        adapter_.answer(f.command, info);
    });
    a.on(DEV_GET_FUNCTIONS, [this](const Frame& f) {
        const std::string& s = adapter_.config().function_string;
        adapter_.answer(f.command, std::vector<uint8_t>(s.begin(), s.end()));
    });
    a.on(DEV_WRITE_USER_DATA, [this](const Frame& f) {
        const uint64_t off = f.be32(0);  // 64-bit: offsets near 4 GiB must not wrap into the area
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (size_t i = 4; i < f.payload.size() && off + i - 4 < user_.size(); ++i) user_[off + i - 4] = f.payload[i];
        }
        adapter_.answer(f.command);
    });
    a.on(DEV_READ_USER_DATA, [this](const Frame& f) {
        const uint64_t off = f.be32(0), len = f.be32(4);
        std::vector<uint8_t> out;
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (uint64_t i = 0; i < len && off + i < user_.size(); ++i) out.push_back(user_[off + i]);
        }
        adapter_.answer(f.command, out);
    });
    a.on(DEV_ERASE_USER_DATA, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            std::fill(user_.begin(), user_.end(), 0xFF);
        }
        adapter_.answer(f.command);
    });
    a.on(DEV_WRITE_SCH_DATA, [this](const Frame& f) {
        const uint32_t addr = f.be32(0);
        const size_t n = f.payload.size() >= 4 ? f.payload.size() - 4 : 0;
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (addr != sch_write_addr_) sch_write_cursor_ = static_cast<uint32_t>(std::min(schedule_offset(addr), kScheduleSize));
            for (size_t i = 0; i < n && sch_write_cursor_ + i < schedule_.size(); ++i)
                schedule_[sch_write_cursor_ + i] = f.payload[4 + i];
            sch_write_cursor_ += static_cast<uint32_t>(n);
            schedule_used_ = std::max<size_t>(schedule_used_, sch_write_cursor_);
            // A short chunk ends the transfer; the next one starts at its address again.
            sch_write_addr_ = n == kChunk ? addr : 0xFFFFFFFF;
        }
        adapter_.answer(f.command);
    });
    a.on(DEV_READ_SCH_DATA, [this](const Frame& f) {
        const uint32_t addr = f.be32(0), len = f.be32(4);
        std::vector<uint8_t> out;
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (addr != sch_read_addr_) sch_read_cursor_ = static_cast<uint32_t>(std::min(schedule_offset(addr), kScheduleSize));
            for (uint32_t i = 0; i < len && sch_read_cursor_ + i < schedule_.size(); ++i)
                out.push_back(schedule_[sch_read_cursor_ + i]);
            sch_read_cursor_ += len;
            sch_read_addr_ = len == kChunk ? addr : 0xFFFFFFFF;
        }
        adapter_.answer(f.command, out);
    });
    a.on(DEV_ERASE_SCH_DATA, [this](const Frame& f) {
        const uint32_t arg = f.be32(0);
        const uint64_t now = adapter_.clock_us();
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (arg >= kScheduleWindow && arg - kScheduleWindow < kScheduleSize) {
                const size_t sector = (arg - kScheduleWindow) / kScheduleSector;
                std::fill(schedule_.begin() + sector * kScheduleSector, schedule_.begin() + (sector + 1) * kScheduleSector,
                          0xFF);
                sector_erased_us_[sector] = now;
            } else {
                std::fill(schedule_.begin(), schedule_.end(), 0xFF);
                for (auto& t : sector_erased_us_) t = now;
            }
            schedule_used_ = 0;
            sch_write_addr_ = sch_read_addr_ = 0xFFFFFFFF;
        }
        adapter_.answer(f.command);
    });
    a.on(DEV_GET_HARDWARE_INFO, [this](const Frame& f) {
        std::vector<uint8_t> hw(64, 0);
        hw[0] = 1;  // board revision
        const char* text = "Polybus SIM-1 rev A";
        std::memcpy(hw.data() + 8, text, std::strlen(text));
        adapter_.answer(f.command, hw);
    });
    for (uint32_t code : {ARG_INIT, ARG_WRITE, ARG_READ}) a.on(code, [this](const Frame& f) { config_command(f); });
}

uint8_t DeviceModel::next_config_status() {
    if (forced_count_ > 0) {
        --forced_count_;
        return forced_status_;
    }
    return 0;
}

void DeviceModel::config_command(const Frame& f) {
    Payload p;
    {
        std::lock_guard<std::mutex> g(mutex_);
        const uint8_t status = next_config_status();
        p.u8(status);
        if (status == 0 && f.command == ARG_WRITE) {
            const uint16_t addr = f.be16(0);
            for (size_t i = 2; i < f.payload.size(); ++i) config_[(addr + i - 2) % kConfigSize] = f.payload[i];
        } else if (status == 0 && f.command == ARG_READ) {
            const uint16_t addr = f.be16(0), len = f.be16(2);
            for (uint32_t i = 0; i < len; ++i) p.u8(config_[(addr + i) % kConfigSize]);
        }
    }
    adapter_.answer(f.command, p);
}

std::vector<uint8_t> DeviceModel::user_data() {
    std::lock_guard<std::mutex> g(mutex_);
    return user_;
}
std::vector<uint8_t> DeviceModel::schedule_data() {
    std::lock_guard<std::mutex> g(mutex_);
    return schedule_;
}
std::vector<uint8_t> DeviceModel::config_area() {
    std::lock_guard<std::mutex> g(mutex_);
    return config_;
}
void DeviceModel::set_config_area(const std::vector<uint8_t>& area) {
    std::lock_guard<std::mutex> g(mutex_);
    config_ = area;
    config_.resize(kConfigSize, 0xFF);
}
void DeviceModel::force_config_status(uint8_t status, int count) {
    std::lock_guard<std::mutex> g(mutex_);
    forced_status_ = status;
    forced_count_ = count;
}
uint8_t DeviceModel::power_level() {
    std::lock_guard<std::mutex> g(mutex_);
    return power_;
}
size_t DeviceModel::schedule_offset(uint32_t addr) {
    if (addr < kScheduleSize) return addr;
    if (addr >= kScheduleWindow && addr - kScheduleWindow < kScheduleSize) return addr - kScheduleWindow;
    return SIZE_MAX;
}

uint64_t DeviceModel::schedule_erased_us(uint32_t addr) {
    const size_t offset = schedule_offset(addr);
    if (offset == SIZE_MAX) return 0;
    std::lock_guard<std::mutex> g(mutex_);
    return sector_erased_us_[offset / kScheduleSector];
}

size_t DeviceModel::schedule_bytes() {
    std::lock_guard<std::mutex> g(mutex_);
    return schedule_used_;
}

}  // namespace polybus_sim
