// The older LIN_ interface and the FLIN channels. On firmware after 0x0105001D every
// LIN_ call is carried by the LIN_EX_ functions; older firmware has commands of its own.
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "polybus/lin.h"
#include "polybus/usb_device.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "wire/lin.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

struct ClassicState {
    std::atomic<uint8_t> new_api{0};
    std::atomic<uint32_t> baud[4];
    ClassicState() {
        for (auto& b : baud) b.store(0);
    }
};
PerDevice<ClassicState> g_classic;

struct FlinState {
    std::atomic<uint32_t> baud[2];
    FlinState() {
        for (auto& b : baud) b.store(0);
    }
};
PerDevice<FlinState> g_flin;

constexpr size_t kLinRecord = sizeof(LIN_MSG);
constexpr uint32_t kDefaultBaud = 9600;

bool new_api(int dev) {
    ClassicState* s = g_classic.find(dev);
    return s != nullptr && s->new_api.load() != 0;
}

// The older commands wait for the bus at the channel's baud rate, not per frame.
int old_timeout_ms(int dev, int ch) {
    ClassicState* s = g_classic.find(dev);
    uint32_t baud = s != nullptr ? s->baud[ch & 3].load() : 0;
    if (baud == 0) baud = kDefaultBaud;
    return static_cast<int>(110000u / baud + 1000u);
}

LIN_EX_MSG from_classic(const LIN_MSG& m, uint8_t type, uint8_t check) {
    LIN_EX_MSG x{};
    x.TimeStamp = 1;
    x.MsgType = type;
    x.CheckType = check;
    x.PID = m.ID;
    x.DataLen = m.DataLen;
    std::memcpy(x.Data, m.Data, 8);
    x.BreakBits = 13;
    return x;
}

// A result back into the older record: the checksum counts as a data byte.
void to_classic(const LIN_EX_MSG& x, LIN_MSG& m, bool with_id) {
    if (with_id) m.ID = x.PID;
    m.DataLen = x.DataLen == 0 ? 0 : static_cast<uint8_t>(x.DataLen + 1);
    std::memcpy(m.Data, x.Data, 8);
    m.Check = x.Check;
}

std::unique_ptr<LIN_EX_MSG[]> work_area(size_t n) {
    return std::unique_ptr<LIN_EX_MSG[]>(new (std::nothrow) LIN_EX_MSG[n == 0 ? 1 : n]());
}

// Which identifiers travel with the enhanced checksum: those whose bits under `mask`
// stay below `limit`. Writes and reads draw the line at different identifiers, and
// callers see the difference on the bus, so each keeps its own rule.
struct EnhancedBelow {
    uint8_t mask, limit;
    uint8_t check_for(uint8_t id) const { return (id & mask) < limit ? LIN_EX_CHECK_ENHANCED : LIN_EX_CHECK_CLASSIC; }
};

// Carries older records through LIN_EX_MasterSync; what a read brings back goes into
// the caller's records.
int sync_translated(int dev, int ch, LIN_MSG* msgs, int count, uint8_t type, EnhancedBelow rule) {
    auto in = work_area(count), out = work_area(size_t(count) * 2);
    if (!in || !out) return kBadAnswer;
    for (int i = 0; i < count; ++i) in[i] = from_classic(msgs[i], type, rule.check_for(msgs[i].ID));
    const int n = LIN_EX_MasterSync(dev, static_cast<unsigned char>(ch), in.get(), out.get(), static_cast<unsigned>(count));
    if (n != count) return kBadAnswer;
    if (type == LIN_EX_MSG_MASTER_READ)
        for (int i = 0; i < count; ++i) to_classic(out[i], msgs[i], false);
    return kOk;
}

}  // namespace

extern "C" {

POLYBUS_API int LIN_Init(int DevHandle, int LINIndex, LIN_CONFIG* pConfig) {
    if (pConfig == nullptr) return kRefused;
    DEVICE_INFO info;
    if (!DEV_GetDeviceInfo(DevHandle, &info, nullptr)) return kBadAnswer;
    const bool translated = static_cast<int32_t>(info.FirmwareVersion) > static_cast<int32_t>(kLinLastOldFirmware);
    ClassicState* s = g_classic.find(DevHandle);
    if (s != nullptr) s->new_api.store(translated ? 1 : 0);
    if (translated)
        return LIN_EX_Init(DevHandle, static_cast<unsigned char>(LINIndex), static_cast<int>(pConfig->BaudRate),
                           pConfig->MasterMode);
    Command request(LIN_INIT);
    request.u8(static_cast<uint8_t>(LINIndex)).be32(pConfig->BaudRate).u8(pConfig->CheckMode);
    request.u8(pConfig->MasterMode).u8(pConfig->BreakBits);
    if (s != nullptr) s->baud[LINIndex & 3].store(pConfig->BaudRate);
    return acknowledged(DevHandle, request);
}

POLYBUS_API int LIN_SendBreak(int DevHandle, int LINIndex) {
    if (new_api(DevHandle)) return LIN_EX_MasterBreak(DevHandle, static_cast<unsigned char>(LINIndex));
    Command request(LIN_SEND_BREAK);
    request.u8(static_cast<uint8_t>(LINIndex));
    return acknowledged(DevHandle, request);
}

POLYBUS_API int LIN_Write(int DevHandle, int LINIndex, LIN_MSG* pLINMsg, int MsgLen) {
    if (MsgLen < 0) MsgLen = 0;
    if (pLINMsg == nullptr && MsgLen > 0) return kRefused;
    if (new_api(DevHandle))
        return sync_translated(DevHandle, LINIndex, pLINMsg, MsgLen, LIN_EX_MSG_MASTER_WRITE, {0x3C, 0x3C});
    Command request(LIN_WRITE, 1 + size_t(MsgLen) * kLinRecord);
    request.u8(static_cast<uint8_t>(LINIndex)).bytes(pLINMsg, size_t(MsgLen) * kLinRecord);
    return acknowledged(DevHandle, request, {1000, old_timeout_ms(DevHandle, LINIndex)});
}

POLYBUS_API int LIN_Read(int DevHandle, int LINIndex, LIN_MSG* pLINMsg, int MsgLen) {
    if (MsgLen < 0) MsgLen = 0;
    if (pLINMsg == nullptr && MsgLen > 0) return kRefused;
    if (new_api(DevHandle))
        return sync_translated(DevHandle, LINIndex, pLINMsg, MsgLen, LIN_EX_MSG_MASTER_READ, {0x3F, 0x3D});
    Command request(LIN_READ, 1 + size_t(MsgLen));
    request.u8(static_cast<uint8_t>(LINIndex));
    for (int i = 0; i < MsgLen; ++i) request.u8(pLINMsg[i].ID);
    Answer answer(pLINMsg, size_t(MsgLen) * kLinRecord);
    return transact(DevHandle, request, answer, {1000, old_timeout_ms(DevHandle, LINIndex)});
}

POLYBUS_API int LIN_SlaveSetIDMode(int DevHandle, int LINIndex, unsigned char IDMode, LIN_MSG* pLINMsg, int MsgLen) {
    if (MsgLen < 0) MsgLen = 0;
    if (pLINMsg == nullptr && MsgLen > 0) return kRefused;
    if (new_api(DevHandle)) {
        auto table = work_area(MsgLen);
        if (!table) return kBadAnswer;
        const uint8_t type = IDMode != 0 ? LIN_EX_MSG_SLAVE_READ : LIN_EX_MSG_SLAVE_WRITE;
        // The check type stays 0 (classic) as the zeroed work area holds it.
        for (int i = 0; i < MsgLen; ++i) table[i] = from_classic(pLINMsg[i], type, LIN_EX_CHECK_CLASSIC);
        return LIN_EX_SlaveSetIDMode(DevHandle, static_cast<unsigned char>(LINIndex), table.get(), MsgLen);
    }
    Command request(LIN_SLAVE_SET_ID, 2 + size_t(MsgLen) * kLinRecord);
    request.u8(static_cast<uint8_t>(LINIndex)).u8(IDMode).bytes(pLINMsg, size_t(MsgLen) * kLinRecord);
    return acknowledged(DevHandle, request);
}

POLYBUS_API int LIN_SlaveGetData(int DevHandle, int LINIndex, LIN_MSG* pLINMsg) {
    if (new_api(DevHandle)) {
        LIN_EX_MSG area[LIN_EX_MAX_RECORDS];
        const int n = LIN_EX_SlaveGetData(DevHandle, static_cast<unsigned char>(LINIndex), area);
        if (pLINMsg != nullptr)
            for (int i = 0; i < n; ++i) to_classic(area[i], pLINMsg[i], true);
        return n;
    }
    Command request(LIN_SLAVE_GET_DATA);
    request.u8(static_cast<uint8_t>(LINIndex));
    LIN_MSG area[LIN_EX_MAX_RECORDS];
    Answer answer(area, sizeof(area));
    const int rc = transact(DevHandle, request, answer);
    if (rc != kOk) return rc;
    const size_t n = answer.received / kLinRecord;
    if (pLINMsg != nullptr && n != 0) std::memcpy(pLINMsg, area, n * kLinRecord);
    return static_cast<int>(n);
}

POLYBUS_API int FLIN_Init(int DevHandle, int FLINIndex, int BaudRate) {
    if (BaudRate < 2000) BaudRate = 2000;
    Command request(FLIN_INIT);
    request.u8(static_cast<uint8_t>(FLINIndex & 3)).be32(static_cast<uint32_t>(BaudRate));
    const int rc = acknowledged(DevHandle, request);
    if (rc != kOk) return rc;
    if (FlinState* s = g_flin.find(DevHandle)) s->baud[FLINIndex & 1].store(static_cast<uint32_t>(BaudRate));
    return kOk;
}

POLYBUS_API int FLIN_WriteData(int DevHandle, int FLINIndex, unsigned char Cmd, unsigned char* pData, int DataLen) {
    if (DataLen < 0) DataLen = 0;
    Command request(FLIN_WRITE, 2 + size_t(DataLen));
    request.u8(static_cast<uint8_t>(FLINIndex & 3)).u8(Cmd).bytes(pData, size_t(DataLen));
    return acknowledged(DevHandle, request);
}

POLYBUS_API int FLIN_ReadData(int DevHandle, int FLINIndex, unsigned char* pData) {
    Command request(FLIN_READ);
    request.u8(static_cast<uint8_t>(FLINIndex));
    AnswerBuffer<64> answer;
    const int rc = transact(DevHandle, request, answer);
    if (rc != kOk) return rc;
    return static_cast<int>(answer.copy_to(pData, answer.received));
}

}  // extern "C"
