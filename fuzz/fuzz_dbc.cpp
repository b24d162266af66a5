// libFuzzer target: arbitrary bytes as a DBC file, then every message through the
// codec (set values, value texts, classic and FD frames both ways).
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "database/dbc_decoder.h"
#include "polybus/dbc.h"

namespace {

// Values that hit the clamping, rounding and conversion corners.
const double kValues[] = {0.0, -1.0, 2.5, -2.5, 1e300, -1e300, 12345.678, 1.0 / 0.0, -1.0 / 0.0, 0.0 / 0.0};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DBC_Decoder db;
    DBC_Decoder::parseText(db, std::string_view(reinterpret_cast<const char*>(data), size));

    static std::vector<char> text(DBC_MAX_VALUE_TEXT_LEN + 1);
    size_t round = 0;
    const size_t messages = db.messages.size() < 64 ? db.messages.size() : 64;
    for (size_t m = 0; m < messages; ++m) {
        const std::string name = db.messages[m].name;
        const size_t signals = db.messages[m].signals.size() < 64 ? db.messages[m].signals.size() : 64;
        for (size_t s = 0; s < signals; ++s) {
            const std::string sig = db.messages[m].signals[s].name;
            db.setSignalValue(name.c_str(), sig.c_str(), kValues[round++ % (sizeof kValues / sizeof kValues[0])]);
            db.getSignalValueStr(name.c_str(), sig.c_str(), text.data());
            DBC_SIGNAL* p = nullptr;
            if (db.getSignal(name, sig, &p)) {
                DBC_Decoder::getSignalRawValue(*p, 3.75);
                DBC_Decoder::getSignalRealValue(*p);
            }
        }
        CAN_MSG can;
        std::memset(&can, 0, sizeof can);
        db.syncValueToCANMsg(name.c_str(), &can);
        can.ID = db.messages[m].id & 0x1FFFFFFFu;
        can.ExternFlag = static_cast<uint8_t>(db.messages[m].id >> 31);
        for (size_t i = 0; i < 8; ++i) can.Data[i] = static_cast<uint8_t>(0xA5 ^ (i * 37) ^ m);
        db.syncCANMsgToValue(&can, 1);
        CANFD_MSG fd;
        std::memset(&fd, 0, sizeof fd);
        db.syncValueToCANFDMsg(name.c_str(), &fd);
        fd.ID = db.messages[m].id;
        for (size_t i = 0; i < 64; ++i) fd.Data[i] = static_cast<uint8_t>(i * 29 + m);
        db.syncCANFDMsgToValue(&fd, 1);
    }
    return 0;
}
