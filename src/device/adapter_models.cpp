#include "device/adapter_models.h"

namespace polybus {

namespace {
constexpr AdapterModel kModels[] = {
    {0x11000000u, false, 200000000u, 1},  {0x21000000u, false, 200000000u, 1},
    {0x31000000u, false, 200000000u, 1},  {0x41000000u, false, 84000000u, 64},
    {0x42000000u, false, 84000000u, 64},  {0x43000000u, false, 84000000u, 64},
    {0x44000000u, false, 84000000u, 64},  {0x45000000u, false, 84000000u, 64},
    {0x53000000u, true, 220000000u, 2},   {0x54000000u, true, 240000000u, 1},
};
}  // namespace

const AdapterModel* adapter_model(int handle) {
    const uint32_t code = model_code(handle);
    for (const AdapterModel& m : kModels)
        if (m.code == code) return &m;
    return nullptr;
}

const CAN_BRT_ENTRY* classic_can_timing(int handle, unsigned* rows) {
    const uint32_t series = static_cast<uint32_t>(handle) >> 28;
    if (series == 0x5) {
        if (rows != nullptr) *rows = 17;
        return CAN_BRT_QUENDRIX_NBT;
    }
    if (rows != nullptr) *rows = 30;
    return series == 0x4 ? CAN_BRT_TALMERA : CAN_BRT_ORVELIN;
}

}  // namespace polybus
