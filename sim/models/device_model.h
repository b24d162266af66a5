// Device information and the adapter's three storage areas.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

class DeviceModel : public FamilyModel {
public:
    explicit DeviceModel(Adapter& adapter);

    static constexpr size_t kUserDataSize = 64 * 1024;
    static constexpr size_t kScheduleSize = 256 * 1024;
    static constexpr size_t kConfigSize = 64 * 1024;
    // Erasing an address inside the CAN schedule window erases only its 128 KiB sector
    // (one channel's schedule); any other argument erases the whole area.
    static constexpr size_t kScheduleSector = 128 * 1024;
    static constexpr uint32_t kScheduleWindow = 0x080C0000;

    // Test access to the storage areas (copies, under the model's lock).
    std::vector<uint8_t> user_data();
    std::vector<uint8_t> schedule_data();
    std::vector<uint8_t> config_area();
    void set_config_area(const std::vector<uint8_t>& area);
    // The next `count` configuration-area commands answer with this status byte.
    void force_config_status(uint8_t status, int count = 1);
    uint8_t power_level();
    // Bytes stored in the schedule area since the last erase.
    size_t schedule_bytes();
    // Where an adapter address lands in the schedule area: small addresses are offsets,
    // the CAN schedule window from 0x080C0000 maps onto the area as well. SIZE_MAX when
    // the address is outside both.
    static size_t schedule_offset(uint32_t addr);
    // Adapter clock (us) of the last erase that covered `addr` (0: never erased).
    uint64_t schedule_erased_us(uint32_t addr);

private:
    void config_command(const Frame& f);
    uint8_t next_config_status();

    Adapter& adapter_;
    std::mutex mutex_;
    std::vector<uint8_t> user_;
    std::vector<uint8_t> schedule_;
    std::vector<uint8_t> config_;
    uint8_t power_ = 0;
    size_t schedule_used_ = 0;
    // The firmware places consecutive full chunks of one transfer itself.
    uint32_t sch_write_addr_ = 0xFFFFFFFF, sch_write_cursor_ = 0;
    uint32_t sch_read_addr_ = 0xFFFFFFFF, sch_read_cursor_ = 0;
    uint64_t sector_erased_us_[kScheduleSize / kScheduleSector] = {};
    uint8_t forced_status_ = 0;
    int forced_count_ = 0;
};

}  // namespace polybus_sim
