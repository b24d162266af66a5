// UDS over LIN: diagnostic messages cut into single, first and consecutive frames of
// master-request frames, responses collected with slave-response headers. Each frame is
// one LIN_EX_MasterSync; every frame that got through is kept in a traffic buffer.
#include <chrono>
#include <cstring>
#include <new>

#include "device/device_info.h"
#include "polybus/lin_uds.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "util/bounded_fifo.h"

using namespace polybus;

namespace {

constexpr int kChannels = 4;
using TrafficBuffer = BoundedFifo<LIN_EX_MSG, LIN_UDS_BUFFER_RECORDS>;
struct Traffic {
    TrafficBuffer channel[kChannels];
};
// UDS_LIN_MsgQueue: per device slot and channel (index & 3), guarded by lin_lock.
PerDevice<Traffic> UDS_LIN_MsgQueue;

TrafficBuffer* traffic(int dev, unsigned char ch) {
    Traffic* t = UDS_LIN_MsgQueue.find(dev);
    return t != nullptr ? &t->channel[ch & 3] : nullptr;
}

// A frame that got through, marked with its request kind and channel, into the buffer.
void keep(int dev, unsigned char ch, LIN_EX_MSG record, uint8_t request_type) {
    record.Reserved = static_cast<uint8_t>(((request_type << 2) & 0x1C) | (ch & 3));
    LIN_USD_SetLINMsgToBuffer(dev, ch, &record, 1);
}

LIN_EX_MSG uds_frame(const LIN_UDS_ADDR& addr, uint8_t type, uint8_t id) {
    LIN_EX_MSG m{};
    m.TimeStamp = addr.STmin;
    m.MsgType = type;
    m.CheckType = addr.CheckType;
    m.DataLen = 8;
    m.PID = id;
    std::memset(m.Data, 0xFF, sizeof(m.Data));
    m.BreakBits = 13;
    return m;
}

int sync_status(int n) { return n < 0 ? LIN_UDS_ERR_SYNC : LIN_UDS_ERR_FRAME; }

bool confirms(const LIN_EX_MSG& sent, const LIN_EX_MSG& back) {
    if (back.MsgType < 8) return false;
    if (back.CheckType != LIN_EX_CHECK_CLASSIC && back.CheckType != LIN_EX_CHECK_ENHANCED) return false;
    if (back.DataLen < 8) return false;
    if ((back.PID & 0x3F) != (sent.PID & 0x3F)) return false;
    const size_t n = sent.DataLen > 8 ? 8 : sent.DataLen;
    return std::memcmp(back.Data, sent.Data, n) == 0;
}

void pause(const LIN_UDS_ADDR& addr) {
    if (addr.STmin != 0) sleep_ms(addr.STmin);
}

}  // namespace

extern "C" {

POLYBUS_API bool LIN_USD_CheckSendState(LIN_EX_MSG* pSent, LIN_EX_MSG* pBack, int Num) {
    if (Num < 1) return true;
    if (pSent == nullptr || pBack == nullptr) return false;
    for (int i = 0; i < Num; ++i)
        if (!confirms(pSent[i], pBack[i])) return false;
    return true;
}

POLYBUS_API int LIN_UDS_SendMsg(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR addr, unsigned char* pData,
                                int Len) {
    if (Len < 0) Len = 0;
    if (Len > 7 || (pData == nullptr && Len > 0)) return kRefused;
    LIN_EX_MSG frame = uds_frame(addr, LIN_EX_MSG_MASTER_WRITE, addr.ReqID), back{};
    frame.Data[0] = addr.NAD;
    if (Len > 0) std::memcpy(frame.Data + 1, pData, size_t(Len));
    const int n = LIN_EX_MasterSync(DevHandle, LINIndex, &frame, &back, 1);
    if (n != 1) return sync_status(n);
    if (!LIN_USD_CheckSendState(&frame, &back, 1)) return LIN_UDS_ERR_FRAME;
    keep(DevHandle, LINIndex, back, frame.MsgType);
    return kOk;
}

POLYBUS_API int LIN_UDS_GetMsg(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR addr, unsigned char* pData) {
    LIN_EX_MSG frame = uds_frame(addr, LIN_EX_MSG_MASTER_READ, addr.ResID), back{};
    const int n = LIN_EX_MasterSync(DevHandle, LINIndex, &frame, &back, 1);
    if (n != 1) return sync_status(n);
    keep(DevHandle, LINIndex, back, frame.MsgType);
    if ((back.CheckType != LIN_EX_CHECK_CLASSIC && back.CheckType != LIN_EX_CHECK_ENHANCED) || back.DataLen < 2)
        return LIN_UDS_ERR_FRAME;
    // The data after the NAD byte; a result can hold no more than 7 of them.
    const int len = back.DataLen > 8 ? 7 : back.DataLen - 1;
    if (pData != nullptr) std::memcpy(pData, back.Data + 1, size_t(len));
    return len;
}

POLYBUS_API int LIN_UDS_Request(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR* pAddr, unsigned char* pReqData,
                                int DataLen) {
    if (pAddr == nullptr || (pReqData == nullptr && DataLen > 0)) return kRefused;
    const LIN_UDS_ADDR addr = *pAddr;
    if (DataLen > LIN_UDS_MAX_DATA) DataLen = LIN_UDS_MAX_DATA;
    LIN_USD_ClearCANMsgFromUDSBuffer(DevHandle, LINIndex);
    uint8_t frame[7];
    if (DataLen <= 6) {
        const int len = DataLen > 0 ? DataLen : 0;
        frame[0] = static_cast<uint8_t>(DataLen & 0x0F);  // a negative length keeps its low bits
        if (len > 0) std::memcpy(frame + 1, pReqData, size_t(len));
        const int rc = LIN_UDS_SendMsg(DevHandle, LINIndex, addr, frame, len + 1);
        if (rc != kOk) return rc;
        pause(addr);
        return kOk;
    }
    frame[0] = static_cast<uint8_t>(0x10 | ((DataLen >> 8) & 0x0F));
    frame[1] = static_cast<uint8_t>(DataLen & 0xFF);
    std::memcpy(frame + 2, pReqData, 5);
    int rc = LIN_UDS_SendMsg(DevHandle, LINIndex, addr, frame, 7);
    if (rc != kOk) return rc;
    pause(addr);
    const int remaining = DataLen - 5;
    unsigned sequence = 1;
    for (int sent = 0; sent < remaining; sent += 6) {
        const int chunk = remaining - sent < 6 ? remaining - sent : 6;
        frame[0] = static_cast<uint8_t>(0x20 | (sequence & 0x0F));
        std::memcpy(frame + 1, pReqData + 5 + sent, size_t(chunk));
        rc = LIN_UDS_SendMsg(DevHandle, LINIndex, addr, frame, chunk + 1);
        if (rc != kOk) return rc;
        pause(addr);
        ++sequence;
    }
    return kOk;
}

POLYBUS_API int LIN_UDS_Response(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR* pAddr, unsigned char* pResData,
                                 int TimeOutMs) {
    if (pAddr == nullptr || pResData == nullptr) return kRefused;
    const LIN_UDS_ADDR addr = *pAddr;
    const auto start = std::chrono::steady_clock::now();
    int total = 0, have = 0;
    uint8_t expected = 0;
    uint8_t scratch[8] = {};
    for (;;) {
        const int got = LIN_UDS_GetMsg(DevHandle, LINIndex, addr, scratch);
        if (got >= 1) {
            const uint8_t pci = scratch[0];
            const int type = pci >> 4;
            if (type == 1) {
                total = ((pci & 0x0F) << 8) | scratch[1];
                std::memcpy(pResData, scratch + 2, 5);
                have = 5;
                expected = 1;
            } else if (type == 2) {
                if ((pci & 0x0F) != (expected & 0x0F)) return LIN_UDS_ERR_SEQUENCE;
                if (have >= total) return total;
                const int chunk = total - have < 6 ? total - have : 6;
                std::memcpy(pResData + have, scratch + 1, size_t(chunk));
                have += chunk;
                if (have >= total) return total;
                expected = static_cast<uint8_t>(expected + 1);
            } else {
                // A single frame, also in the middle of a segmented response, ends it.
                const int len = pci & 0x0F;
                if (type != 0 || len > 6) return LIN_UDS_ERR_PCI;
                if (len > 0) std::memcpy(pResData, scratch + 1, size_t(len));
                return len;
            }
        }
        pause(addr);
        const double elapsed_ms =
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count() *
            0.001;
        if (!(TimeOutMs > elapsed_ms)) return LIN_UDS_ERR_TIMEOUT;
    }
}

POLYBUS_API int LIN_UDS_GetMsgFromUDSBuffer(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pMsg, int MaxNum) {
    if (MaxNum < 1 || pMsg == nullptr) return 0;
    TrafficBuffer* q = traffic(DevHandle, LINIndex);
    if (q == nullptr) return 0;
    LinDataLock guard(DevHandle, LINIndex & 3);
    return static_cast<int>(q->pop(pMsg, size_t(MaxNum)));
}

POLYBUS_API int LIN_USD_SetLINMsgToBuffer(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pMsg, int Num) {
    if (Num < 1 || pMsg == nullptr) return kOk;
    TrafficBuffer* q = traffic(DevHandle, LINIndex);
    if (q == nullptr) return kOk;
    LinDataLock guard(DevHandle, LINIndex & 3);
    q->push(pMsg, size_t(Num));
    return kOk;
}

POLYBUS_API int LIN_USD_ClearCANMsgFromUDSBuffer(int DevHandle, unsigned char LINIndex) {
    TrafficBuffer* q = traffic(DevHandle, LINIndex);
    if (q == nullptr) return kOk;
    LinDataLock guard(DevHandle, LINIndex & 3);
    *q = TrafficBuffer();  // also gives the storage back
    return kOk;
}

// ---- The ring --------------------------------------------------------------------

POLYBUS_API int lin_queue_init(LIN_QUEUE* q, int capacity) {
    if (q == nullptr) return 0;
    q->Storage = nullptr;
    return lin_queue_resize(q, capacity);
}

POLYBUS_API int lin_queue_resize(LIN_QUEUE* q, int capacity) {
    if (q == nullptr) return 0;
    delete[] q->Storage;
    q->Storage = capacity > 0 ? new (std::nothrow) LIN_EX_MSG[size_t(capacity)]() : nullptr;
    q->Capacity = q->Storage != nullptr ? uint32_t(capacity) : 0;
    q->WriteIndex = q->ReadIndex = q->Count = 0;
    return q->Storage != nullptr ? 1 : 0;
}

POLYBUS_API void lin_queue_free(LIN_QUEUE* q) {
    if (q == nullptr) return;
    delete[] q->Storage;
    std::memset(q, 0, sizeof(*q));
}

POLYBUS_API int lin_queue_empty(LIN_QUEUE* q) {
    return q == nullptr || q->Storage == nullptr || q->Count == 0 ? 1 : 0;
}

POLYBUS_API void lin_queue_clear(LIN_QUEUE* q) {
    if (q == nullptr) return;
    q->WriteIndex = q->ReadIndex = q->Count = 0;
}

POLYBUS_API int lin_queue_enqueue(LIN_QUEUE* q, const LIN_EX_MSG* msg) {
    if (q == nullptr || msg == nullptr || q->Storage == nullptr || q->Count >= q->Capacity) return 0;
    q->Storage[q->WriteIndex] = *msg;
    q->WriteIndex = (q->WriteIndex + 1) % q->Capacity;
    ++q->Count;
    return 1;
}

POLYBUS_API int lin_queue_dequeue(LIN_QUEUE* q, LIN_EX_MSG* msg) {
    if (q == nullptr || lin_queue_empty(q)) return 0;
    if (msg != nullptr) *msg = q->Storage[q->ReadIndex];
    q->ReadIndex = (q->ReadIndex + 1) % q->Capacity;
    --q->Count;
    return 1;
}

}  // extern "C"
