/*
 * Polybus: diagnostic requests and responses of up to 4095 bytes over a LIN channel,
 * as single, first and consecutive frames in master-request frames (node address in
 * data byte 0), collected by slave-response headers. No flow control: pacing is STmin.
 * Each frame is one LIN_EX_MasterSync; every confirmed request frame and every
 * response frame is also kept in a per-device, per-channel traffic buffer of 1000
 * records (oldest dropped). A device without a slot (not listed, or the 31st and later)
 * keeps no traffic.
 */
#ifndef POLYBUS_LIN_UDS_H
#define POLYBUS_LIN_UDS_H

#include "lin.h"

POLYBUS_BEGIN_DECLS

#define LIN_UDS_ERR_SYNC (-98)      /* LIN_EX_MasterSync failed */
#define LIN_UDS_ERR_FRAME (-99)     /* no single result, or it failed confirmation / checksum */
#define LIN_UDS_ERR_TIMEOUT (-101)  /* no complete response in time */
#define LIN_UDS_ERR_SEQUENCE (-103) /* consecutive frame out of sequence */
#define LIN_UDS_ERR_PCI (-105)      /* unknown frame type, or single frame longer than 6 */

#define LIN_UDS_MAX_DATA 4095
#define LIN_UDS_BUFFER_RECORDS 1000

#pragma pack(push, 1)
/* Addressing; passed by value as one 8-byte word to the single-frame calls. */
typedef struct LIN_UDS_ADDR {
    uint8_t ReqID;     /* identifier of request frames, usually 0x3C */
    uint8_t ResID;     /* identifier of response headers, usually 0x3D */
    uint8_t NAD;       /* node address */
    uint8_t CheckType; /* checksum kind of every frame */
    uint8_t STmin;     /* ms: delay before each frame and host pause after it */
    uint8_t Reserved[3];
} LIN_UDS_ADDR;

/* A fixed-capacity ring of records (not used by the library itself). */
typedef struct LIN_QUEUE {
    uint32_t WriteIndex;
    uint32_t ReadIndex;
    uint32_t Count;
    uint32_t Capacity;
    LIN_EX_MSG* Storage;
} LIN_QUEUE;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(LIN_UDS_ADDR) == 8, "LIN_UDS_ADDR is one 8-byte word");
POLYBUS_STATIC_ASSERT(offsetof(LIN_UDS_ADDR, ResID) == 1, "LIN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_UDS_ADDR, NAD) == 2, "LIN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_UDS_ADDR, CheckType) == 3, "LIN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_UDS_ADDR, STmin) == 4, "LIN_UDS_ADDR layout");

/* Sends DataLen bytes (4096 and more are cut to 4095) and returns 0, or the first failing
 * frame's status. Empties the channel's traffic buffer first. -1 when pReqData is null
 * with DataLen > 0 or pAddr is null. */
POLYBUS_API int LIN_UDS_Request(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR* pAddr, unsigned char* pReqData,
                                int DataLen);
/* Collects one response into pResData, which must hold 4095 bytes. Returns its length,
 * -101, -103, -105, or -1 when pAddr or pResData is null. A single frame arriving during
 * a segmented response ends it with its own length. */
POLYBUS_API int LIN_UDS_Response(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR* pAddr, unsigned char* pResData,
                                 int TimeOutMs);
/* One request frame: pData holds PCI and payload, Len 0..7 (else -1). */
POLYBUS_API int LIN_UDS_SendMsg(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR addr, unsigned char* pData,
                                int Len);
/* One response frame: copies its data after the NAD byte (at most 7 bytes) to pData,
 * which may be null, and returns the count; -98 or -99. */
POLYBUS_API int LIN_UDS_GetMsg(int DevHandle, unsigned char LINIndex, LIN_UDS_ADDR addr, unsigned char* pData);
/* Moves up to MaxNum records out of the traffic buffer, oldest first. Bit 2..4 of each
 * Reserved byte hold the request kind (1 write, 2 read), bits 0..1 the channel. */
POLYBUS_API int LIN_UDS_GetMsgFromUDSBuffer(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pMsg, int MaxNum);
POLYBUS_API int LIN_USD_SetLINMsgToBuffer(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pMsg, int Num);
POLYBUS_API int LIN_USD_ClearCANMsgFromUDSBuffer(int DevHandle, unsigned char LINIndex);
POLYBUS_API bool LIN_USD_CheckSendState(LIN_EX_MSG* pSent, LIN_EX_MSG* pBack, int Num);

/* The ring: init/resize return 1 with storage, 0 without (capacity then 0); enqueue and
 * dequeue return 1 on success, 0 when full / empty / without storage. */
POLYBUS_API int lin_queue_init(LIN_QUEUE* q, int capacity);
POLYBUS_API int lin_queue_resize(LIN_QUEUE* q, int capacity);
POLYBUS_API void lin_queue_free(LIN_QUEUE* q);
POLYBUS_API int lin_queue_empty(LIN_QUEUE* q);
POLYBUS_API void lin_queue_clear(LIN_QUEUE* q);
POLYBUS_API int lin_queue_enqueue(LIN_QUEUE* q, const LIN_EX_MSG* msg);
POLYBUS_API int lin_queue_dequeue(LIN_QUEUE* q, LIN_EX_MSG* msg);

POLYBUS_END_DECLS

#endif
