// Bit-timing tables and the look-ups that turn a bit rate into controller settings.
// The rows are the values the adapter firmware expects, including a few whose
// arithmetic does not give the listed rate: they are kept as they are.
#include "can/can_internal.h"
#include "device/adapter_models.h"

using namespace polybus;

namespace {
constexpr CAN_BRT_ENTRY row(uint8_t sjw, uint8_t bs1, uint8_t bs2, uint32_t brp, uint32_t bps) {
    return CAN_BRT_ENTRY{sjw, bs1, bs2, 0, brp, bps};
}
}  // namespace

extern "C" {

// 42 MHz controller clock.
POLYBUS_API extern constexpr CAN_BRT_ENTRY CAN_BRT_TALMERA[30] = {
    row(2, 15, 5, 2, 1000000),  row(2, 16, 6, 2, 900000),  row(2, 9, 3, 4, 800000),   row(2, 16, 4, 3, 666000),
    row(2, 10, 3, 5, 600000),   row(2, 15, 5, 4, 500000),  row(2, 12, 2, 7, 400000),  row(2, 11, 2, 10, 300000),
    row(2, 15, 5, 8, 250000),   row(2, 14, 2, 11, 225000), row(2, 15, 5, 10, 200000), row(1, 6, 1, 33, 160000),
    row(2, 11, 2, 20, 150000),  row(1, 3, 1, 58, 144000),  row(2, 11, 4, 21, 125000), row(2, 11, 2, 25, 120000),
    row(2, 15, 5, 20, 100000),  row(2, 15, 2, 26, 90000),  row(2, 11, 2, 36, 83000),  row(2, 12, 2, 35, 80000),
    row(2, 16, 3, 28, 75000),   row(2, 16, 3, 35, 60000),  row(2, 16, 3, 42, 50000),  row(2, 12, 2, 70, 40000),
    row(2, 13, 2, 79, 33000),   row(2, 11, 2, 100, 30000), row(2, 12, 2, 140, 20000), row(2, 16, 3, 210, 10000),
    row(2, 13, 2, 525, 5000),   row(0, 0, 0, 0, 0),
};

// 100 MHz controller clock.
POLYBUS_API extern constexpr CAN_BRT_ENTRY CAN_BRT_ORVELIN[30] = {
    row(2, 14, 5, 5, 1000000),  row(1, 2, 1, 28, 900000),  row(1, 3, 1, 25, 800000),   row(2, 7, 2, 15, 666000),
    row(1, 4, 1, 28, 600000),   row(2, 14, 5, 10, 500000), row(1, 8, 1, 25, 400000),   row(1, 7, 1, 37, 300000),
    row(2, 14, 5, 20, 250000),  row(1, 3, 1, 89, 225000),  row(1, 14, 5, 25, 200000),  row(1, 6, 1, 78, 160000),
    row(1, 16, 6, 29, 150000),  row(1, 6, 1, 87, 144000),  row(2, 14, 5, 40, 125000),  row(1, 6, 1, 104, 120000),
    row(2, 14, 5, 50, 100000),  row(1, 6, 1, 63, 90000),   row(1, 6, 1, 150, 83000),   row(1, 1, 3, 278, 80000),
    row(1, 6, 1, 167, 75000),   row(1, 6, 1, 208, 60000),  row(1, 6, 1, 250, 50000),   row(1, 6, 1, 312, 40000),
    row(1, 6, 1, 375, 33000),   row(1, 6, 1, 417, 30000),  row(1, 6, 1, 625, 20000),   row(1, 13, 2, 625, 10000),
    row(1, 16, 3, 1000, 5000),  row(0, 0, 0, 0, 0),
};

// CAN FD adapters, 40 MHz: nominal (arbitration) phase, sample point about 75 %.
POLYBUS_API extern constexpr CAN_BRT_ENTRY CAN_BRT_QUENDRIX_NBT[17] = {
    row(2, 29, 10, 1, 1000000), row(2, 37, 12, 1, 800000), row(2, 44, 15, 1, 666000),  row(2, 59, 20, 1, 500000),
    row(2, 74, 25, 1, 400000),  row(2, 99, 33, 1, 300000), row(2, 119, 40, 1, 250000), row(2, 149, 50, 1, 200000),
    row(2, 199, 67, 1, 150000), row(2, 119, 40, 2, 125000), row(2, 74, 25, 4, 100000), row(2, 119, 40, 3, 83000),
    row(2, 149, 50, 4, 50000),  row(2, 149, 50, 6, 33000), row(2, 248, 84, 6, 20000),  row(2, 183, 66, 16, 10000),
    row(0, 0, 0, 0, 0),
};

// CAN FD adapters, 40 MHz: data phase.
POLYBUS_API extern constexpr CAN_BRT_ENTRY CAN_BRT_QUENDRIX_DBT[23] = {
    row(1, 2, 1, 1, 10000000), row(1, 3, 1, 1, 8000000),  row(1, 4, 1, 1, 6700000),   row(2, 5, 2, 1, 5000000),
    row(2, 7, 2, 1, 4000000),  row(2, 9, 3, 1, 3000000),  row(2, 14, 5, 1, 2000000),  row(2, 19, 6, 1, 1500000),
    row(2, 29, 10, 1, 1000000), row(2, 18, 6, 2, 800000), row(2, 14, 5, 3, 666000),   row(2, 29, 10, 2, 500000),
    row(2, 14, 5, 5, 400000),  row(2, 13, 5, 7, 300000),  row(2, 29, 10, 4, 250000),  row(2, 29, 10, 5, 200000),
    row(2, 28, 9, 7, 150000),  row(2, 29, 10, 8, 125000), row(2, 29, 10, 10, 100000), row(2, 29, 10, 20, 50000),
    row(2, 29, 10, 50, 20000), row(2, 29, 10, 100, 10000), row(0, 0, 0, 0, 0),
};

POLYBUS_API int CAN_GetCANSpeedArg(int dev, CAN_INIT_CONFIG* cfg, unsigned int bps) {
    unsigned rows = 0;
    const CAN_BRT_ENTRY* table = classic_can_timing(dev, &rows);
    const CAN_BRT_ENTRY* found = find_timing(table, rows, bps);
    if (found == nullptr || cfg == nullptr) return kBadAnswer;
    cfg->CAN_BRP = found->BRP;
    cfg->CAN_SJW = found->SJW;
    cfg->CAN_BS1 = found->BS1;
    cfg->CAN_BS2 = found->BS2;
    cfg->CAN_Mode = 0x80;
    cfg->CAN_ABOM = 1;
    cfg->CAN_NART = 0;
    cfg->CAN_RFLM = 0;
    cfg->CAN_TXFP = 0;
    return 0;
}

POLYBUS_API int CANFD_GetCANSpeedArg(int dev, CANFD_INIT_CONFIG* cfg, unsigned int nominal_bps, unsigned int data_bps) {
    if (cfg == nullptr) return kBadAnswer;
    if (!is_canfd_series(dev)) {
        unsigned rows = 0;
        const CAN_BRT_ENTRY* table = classic_can_timing(dev, &rows);
        const CAN_BRT_ENTRY* n = find_timing(table, rows, nominal_bps);
        if (n == nullptr) return kBadAnswer;
        cfg->NBT_BRP = static_cast<uint8_t>(n->BRP);
        cfg->NBT_SEG1 = n->BS1;
        cfg->NBT_SEG2 = n->BS2;
        cfg->NBT_SJW = n->SJW;
        return 0;
    }
    const CAN_BRT_ENTRY* n = find_timing(CAN_BRT_QUENDRIX_NBT, 17, nominal_bps);
    const CAN_BRT_ENTRY* d = find_timing(CAN_BRT_QUENDRIX_DBT, 23, data_bps);
    if (n == nullptr || d == nullptr) return kBadAnswer;
    cfg->Mode = 0;
    cfg->Option1 = 1;
    cfg->Option2 = 1;
    cfg->ResEnable = 1;
    cfg->NBT_BRP = static_cast<uint8_t>(n->BRP);
    cfg->NBT_SEG1 = n->BS1;
    cfg->NBT_SEG2 = n->BS2;
    cfg->NBT_SJW = n->SJW;
    cfg->DBT_BRP = static_cast<uint8_t>(d->BRP);
    cfg->DBT_SEG1 = d->BS1;
    cfg->DBT_SEG2 = d->BS2;
    cfg->DBT_SJW = d->SJW;
    return 0;
}

}  // extern "C"
