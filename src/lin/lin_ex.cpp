// LIN master and slave (LIN_EX_): the adapter runs the bus, the host prepares and judges
// whole frames.
#include <cstring>
#include <vector>

#include "lin/lin_frames.h"
#include "lin/lin_state.h"
#include "polybus/lin.h"
#include "transport/exchange.h"
#include "wire/lin.h"

using namespace polybus;
using namespace polybus::wire;

namespace polybus {
namespace lin {
namespace {
PerDevice<ChannelState> g_channels;
}
ChannelState* channel_state(int handle) { return g_channels.find(handle); }
}  // namespace lin
}  // namespace polybus

namespace {

constexpr size_t kRecord = sizeof(LIN_EX_MSG);
constexpr size_t kArea = LIN_EX_MAX_RECORDS * kRecord;

bool initialised(lin::ChannelState* s, unsigned char ch) { return s != nullptr && s->initialised[ch].load() != 0; }

// The refusals shared by the schedule and slave calls.
int channel_ready(int dev, unsigned char ch) {
    lin::ChannelState* s = lin::channel_state(dev);
    if (s == nullptr) return kSendFailed;
    return initialised(s, ch) ? kOk : LIN_EX_ERR_NOT_INIT;
}

// Reads records into a 64-record area; returns how many whole records arrived.
int fetch_records(int dev, Command& request, LIN_EX_MSG* area) {
    Answer answer(area, kArea);
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    return static_cast<int>(answer.received / kRecord);
}

// One frame through LIN_EX_MasterSync; returns its status and the result in `out`.
int sync_one(int dev, unsigned char ch, LIN_EX_MSG& frame, LIN_EX_MSG& out) {
    return LIN_EX_MasterSync(dev, ch, &frame, &out, 1);
}

LIN_EX_MSG single_frame(uint32_t delay, uint8_t type, uint8_t check, uint8_t len, uint8_t pid) {
    LIN_EX_MSG m{};
    m.TimeStamp = delay;
    m.MsgType = type;
    m.CheckType = check;
    m.DataLen = len;
    m.PID = pid;
    m.BreakBits = 13;
    return m;
}

}  // namespace

extern "C" {

POLYBUS_API int LIN_EX_Init(int DevHandle, unsigned char LINIndex, int BaudRate, unsigned char MasterMode) {
    if (BaudRate < 100) BaudRate = 9600;
    Command request(LIN_EX_INIT);
    request.u8(LINIndex).be32(static_cast<uint32_t>(BaudRate)).u8(MasterMode);
    const int rc = acknowledged(DevHandle, request);
    if (rc != kOk) return rc;
    if (lin::ChannelState* s = lin::channel_state(DevHandle)) {
        s->baud[LINIndex].store(static_cast<uint32_t>(BaudRate));
        s->initialised[LINIndex].store(1);
    }
    return kOk;
}

POLYBUS_API int LIN_EX_MasterSync(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pInMsg, LIN_EX_MSG* pOutMsg,
                                  unsigned int MsgLen) {
    if (pInMsg == nullptr) return LIN_EX_ERR_PARAM;
    lin::ChannelState* state = lin::channel_state(DevHandle);
    if (pOutMsg == nullptr || MsgLen == 0 || state == nullptr) return LIN_EX_ERR_PARAM;
    if (!initialised(state, LINIndex)) return LIN_EX_ERR_NOT_INIT;
    const uint32_t baud = state->baud[LINIndex].load();
    if (baud <= 100) return LIN_EX_ERR_PARAM;

    std::vector<LIN_EX_MSG> sent;
    try {
        sent.assign(pInMsg, pInMsg + MsgLen);
    } catch (...) {
        return kBadAnswer;
    }
    uint64_t delay_total = 0;
    for (LIN_EX_MSG& m : sent) delay_total += lin::prepare_sync_frame(m);

    Command request(LIN_EX_MASTER_SYNC, 1 + size_t{MsgLen} * kRecord);
    request.u8(LINIndex).bytes(sent.data(), sent.size() * kRecord);
    LIN_EX_MSG results[LIN_EX_MAX_RECORDS];
    Answer answer(results, sizeof(results));
    const int rc = transact(DevHandle, request, answer, {1000, lin::sync_timeout_ms(delay_total, baud, MsgLen)});
    if (rc != kOk) return rc;

    size_t n = answer.received / kRecord;
    if (n > MsgLen) n = MsgLen;
    for (size_t i = 0; i < n; ++i) {
        lin::judge_sync_result(results[i], sent[i]);
        pOutMsg[i] = results[i];
    }
    return static_cast<int>(n);
}

POLYBUS_API int LIN_EX_MasterBreak(int DevHandle, unsigned char LINIndex) {
    LIN_EX_MSG frame = single_frame(10, LIN_EX_MSG_BREAK, 0, 0, 0), back{};
    const int n = sync_one(DevHandle, LINIndex, frame, back);
    if (n < 0) return n;
    return n == 1 ? kOk : kBadAnswer;
}

POLYBUS_API int LIN_EX_MasterWrite(int DevHandle, unsigned char LINIndex, unsigned char PID, unsigned char* pData,
                                   unsigned char DataLen, unsigned char CheckType) {
    const uint8_t len = DataLen > 8 ? 8 : DataLen;
    LIN_EX_MSG frame = single_frame(1, LIN_EX_MSG_MASTER_WRITE, DataLen == 0 ? LIN_EX_CHECK_NONE : CheckType, len, PID);
    if (pData != nullptr) std::memcpy(frame.Data, pData, len);
    LIN_EX_MSG back{};
    const int n = sync_one(DevHandle, LINIndex, frame, back);
    if (n < 0) return n;
    return n == 1 ? kOk : kBadAnswer;
}

POLYBUS_API int LIN_EX_MasterRead(int DevHandle, unsigned char LINIndex, unsigned char PID, unsigned char* pData) {
    LIN_EX_MSG frame = single_frame(1, LIN_EX_MSG_MASTER_READ, LIN_EX_CHECK_CLASSIC, 0, PID), back{};
    const int n = sync_one(DevHandle, LINIndex, frame, back);
    if (n < 0) return n;
    if (n == 0) return 0;
    if (n > 1) return kBadAnswer;
    if (back.CheckType != LIN_EX_CHECK_CLASSIC && back.CheckType != LIN_EX_CHECK_ENHANCED) return 0;
    const uint8_t len = back.DataLen > 8 ? 8 : back.DataLen;
    if (pData != nullptr) std::memcpy(pData, back.Data, len);
    return len;
}

POLYBUS_API int LIN_EX_MasterStartSch(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg, int MsgLen) {
    const int ready = channel_ready(DevHandle, LINIndex);
    if (ready != kOk) return ready;
    if (MsgLen > LIN_EX_MAX_RECORDS) MsgLen = LIN_EX_MAX_RECORDS;
    if (MsgLen < 0) MsgLen = 0;
    if (pLINMsg == nullptr && MsgLen > 0) return LIN_EX_ERR_PARAM;
    Command request(LIN_EX_START_SCH, 1 + kArea);
    request.u8(LINIndex);
    for (int i = 0; i < MsgLen; ++i) {
        LIN_EX_MSG m = pLINMsg[i];
        lin::prepare_schedule_frame(m);
        request.record(m);
    }
    return answered(DevHandle, request);
}

POLYBUS_API int LIN_EX_MasterStopSch(int DevHandle, unsigned char LINIndex) {
    Command request(LIN_EX_STOP_SCH);
    request.u8(LINIndex);
    return answered(DevHandle, request);
}

POLYBUS_API int LIN_EX_MasterGetSch(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg) {
    const int ready = channel_ready(DevHandle, LINIndex);
    if (ready != kOk) return ready;
    Command request(LIN_EX_GET_SCH);
    request.u8(LINIndex);
    LIN_EX_MSG area[LIN_EX_MAX_RECORDS];
    const int n = fetch_records(DevHandle, request, area);
    if (n <= 0) return n;
    for (int i = 0; i < n; ++i) {
        LIN_EX_MSG& m = area[i];
        if (m.MsgType == LIN_EX_MSG_MASTER_READ) m.CheckType = lin::verdict(m.PID, m.Data, m.DataLen, m.Check);
    }
    if (pLINMsg != nullptr) std::memcpy(pLINMsg, area, size_t(n) * kRecord);
    return n;
}

POLYBUS_API int LIN_EX_CtrlPowerOut(int DevHandle, unsigned char LINIndex, unsigned char State) {
    Command request(LIN_EX_POWER_OUT);
    request.u8(State).u8(LINIndex);
    return acknowledged(DevHandle, request);
}

POLYBUS_API int LIN_EX_GetVbatValue(int DevHandle, unsigned short* pBatValue) {
    Command request(LIN_EX_GET_VBAT);
    AnswerBuffer<2> answer;
    const int rc = transact(DevHandle, request, answer);
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 2) != kOk) return kBadAnswer;
    if (pBatValue != nullptr) *pBatValue = answer.be16(0);
    return kOk;
}

POLYBUS_API int LIN_EX_SlaveSetIDMode(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg, int MsgLen) {
    const int ready = channel_ready(DevHandle, LINIndex);
    if (ready != kOk) return ready;
    if (MsgLen < 0) MsgLen = 0;
    if (pLINMsg == nullptr && MsgLen > 0) return LIN_EX_ERR_PARAM;
    Command request(LIN_EX_SLAVE_SET_ID, 1 + size_t(MsgLen) * kRecord);
    request.u8(LINIndex);
    for (int i = 0; i < MsgLen; ++i) {
        LIN_EX_MSG m = pLINMsg[i];
        lin::prepare_slave_entry(m);
        request.record(m);
    }
    return answered(DevHandle, request);
}

POLYBUS_API int LIN_EX_SlaveGetIDMode(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg) {
    const int ready = channel_ready(DevHandle, LINIndex);
    if (ready != kOk) return ready;
    Command request(LIN_EX_SLAVE_GET_ID);
    request.u8(LINIndex);
    LIN_EX_MSG area[LIN_EX_MAX_RECORDS];
    const int n = fetch_records(DevHandle, request, area);
    if (n > 0 && pLINMsg != nullptr) std::memcpy(pLINMsg, area, size_t(n) * kRecord);
    return n;
}

POLYBUS_API int LIN_EX_SlaveGetData(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg) {
    const int ready = channel_ready(DevHandle, LINIndex);
    if (ready != kOk) return ready;
    Command request(LIN_EX_SLAVE_GET_DATA);
    request.u8(LINIndex);
    LIN_EX_MSG area[LIN_EX_MAX_RECORDS];
    const int n = fetch_records(DevHandle, request, area);
    if (n <= 0) return n;
    for (int i = 0; i < n; ++i) lin::judge_slave_record(area[i]);
    if (pLINMsg != nullptr) std::memcpy(pLINMsg, area, size_t(n) * kRecord);
    return n;
}

}  // extern "C"
