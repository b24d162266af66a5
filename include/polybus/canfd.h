/*
 * Polybus: CAN FD, for the CAN FD adapters (handle top byte 0x53 or 0x54).
 *
 * Results as in can.h: 0 (or a count), -2 not sent, -4 no or bad answer. Frame sends
 * and send-status requests go through each channel's own USB endpoint (channel & 1);
 * every other request through the common one.
 */
#ifndef POLYBUS_CANFD_H
#define POLYBUS_CANFD_H

#include <stddef.h>
#include "common.h"
#include "can.h"

#pragma pack(push, 1)
/* One CAN FD frame, 76 bytes, host (little-endian) order. */
typedef struct CANFD_MSG {
    uint32_t ID;            /* bits 0-28 identifier; bit 30 remote; bit 31 29-bit identifier */
    uint8_t DLC;            /* number of data bytes 0..64 (not the coded DLC) */
    uint8_t Flags;          /* bit 0 BRS; bit 1 ESI; bit 2 FD frame; bit 5 channel; bit 7 sent by host */
    uint8_t __Res0;
    uint8_t TimeStampHigh;  /* time stamp bits 32..39 */
    uint32_t TimeStamp;     /* low 32 bits, unit 10 us */
    uint8_t Data[64];
} CANFD_MSG;

/* Channel set-up, 20 bytes, carried to the adapter as it is. CANFD_GetCANSpeedArg fills
 * bytes 0 to 11; Option1, Option2 and Reserved are the adapter firmware's. */
typedef struct CANFD_INIT_CONFIG {
    uint8_t Mode;       /* 0: normal; other modes are the adapter's */
    uint8_t Option1;    /* 1 from CANFD_GetCANSpeedArg */
    uint8_t Option2;    /* 1 from CANFD_GetCANSpeedArg */
    uint8_t ResEnable;  /* termination resistor on */
    uint8_t NBT_BRP;    /* nominal (arbitration) phase: prescaler, segments, jump width */
    uint8_t NBT_SEG1;
    uint8_t NBT_SEG2;
    uint8_t NBT_SJW;
    uint8_t DBT_BRP;    /* data phase */
    uint8_t DBT_SEG1;
    uint8_t DBT_SEG2;
    uint8_t DBT_SJW;
    uint8_t Reserved[8];
} CANFD_INIT_CONFIG;
#pragma pack(pop)

/* One acceptance filter, 12 bytes, sent little-endian (Reserved goes as 0). A frame
 * passes when its identifier word (identifier | RTR << 30 | IDE << 31) equals ID in
 * every bit set in Mask. */
typedef struct CANFD_FILTER_CONFIG {
    uint8_t Enable;
    uint8_t Index;
    uint8_t Reserved[2];
    uint32_t ID;    /* bits 0-28 identifier; bit 30 RTR; bit 31 IDE */
    uint32_t Mask;  /* same layout; 0xFFFFFFFF: exact match */
} CANFD_FILTER_CONFIG;

/* Transmit state of a channel (CANFD_SendMsgStatus). */
typedef struct CAN_TX_BUFFER_FLAG {
    uint8_t TxCount;   /* frames of the last send request transmitted so far */
    uint8_t Reserved;  /* the adapter firmware's */
    uint8_t TxTotal;   /* frames of the last send request */
    uint8_t TxAbort;   /* non-zero: the adapter stopped transmitting them */
} CAN_TX_BUFFER_FLAG;

/* Bus error counters of a channel (CANFD_GetBusError). */
typedef struct CANFD_BUS_ERROR {
    uint8_t TEC;          /* transmit error counter */
    uint8_t REC;          /* receive error counter */
    uint8_t Reserved[2];  /* the adapter firmware's */
} CANFD_BUS_ERROR;

/* Controller diagnostics of a channel (CANFD_GetDiagnostic), as the adapter sends them. */
typedef struct CANFD_DIAGNOSTIC {
    uint8_t Data[8];
} CANFD_DIAGNOSTIC;

POLYBUS_STATIC_ASSERT(sizeof(CANFD_MSG) == 76, "CANFD_MSG is 76 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_MSG, TimeStamp) == 8, "CANFD_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_MSG, Data) == 12, "CANFD_MSG layout");
POLYBUS_STATIC_ASSERT(sizeof(CANFD_INIT_CONFIG) == 20, "CANFD_INIT_CONFIG is 20 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_INIT_CONFIG, NBT_BRP) == 4, "CANFD_INIT_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_INIT_CONFIG, DBT_BRP) == 8, "CANFD_INIT_CONFIG layout");
POLYBUS_STATIC_ASSERT(sizeof(CANFD_FILTER_CONFIG) == 12, "CANFD_FILTER_CONFIG is 12 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_FILTER_CONFIG, ID) == 4, "CANFD_FILTER_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_FILTER_CONFIG, Mask) == 8, "CANFD_FILTER_CONFIG layout");
POLYBUS_STATIC_ASSERT(sizeof(CAN_TX_BUFFER_FLAG) == 4, "CAN_TX_BUFFER_FLAG is 4 bytes");
POLYBUS_STATIC_ASSERT(sizeof(CANFD_BUS_ERROR) == 4, "CANFD_BUS_ERROR is 4 bytes");
POLYBUS_STATIC_ASSERT(sizeof(CANFD_DIAGNOSTIC) == 8, "CANFD_DIAGNOSTIC is 8 bytes");

/* CANFD_ReadMsg stores at most this many frames (one answer of the adapter). */
#define CANFD_READ_MAX_FRAMES 2000

POLYBUS_BEGIN_DECLS

/* Fills pCanConfig for a nominal and a data bit rate. On a CAN FD adapter both must be
 * rates of CAN_BRT_QUENDRIX_NBT / _DBT (or 0); on other adapters only the nominal part
 * (bytes 4 to 7) is filled, from the adapter's classic table, with the prescaler cut to
 * 8 bits. Returns -4 and leaves the record untouched for an unknown rate. Bytes 12 to 19
 * are never written. */
POLYBUS_API int CANFD_GetCANSpeedArg(int DevHandle, CANFD_INIT_CONFIG* pCanConfig, unsigned int SpeedBpsNBT,
                                     unsigned int SpeedBpsDBT);
POLYBUS_API int CANFD_Init(int DevHandle, unsigned char CANIndex, CANFD_INIT_CONFIG* pCanConfig);
/* Sends MsgNum frames in requests of at most 128, waiting for each request to leave the
 * adapter (up to 1000 + 100 x frames ms; a request that does not finish in time counts 0).
 * Each frame the adapter reports as transmitted gets its transmit time stamp, the
 * channel bit and bit 7 in Flags. Returns the number of frames transmitted; stops early
 * when the adapter aborts a request. */
POLYBUS_API int CANFD_SendMsg(int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanSendMsg, unsigned int MsgNum);
POLYBUS_API int CANFD_SendMsgStatus(int DevHandle, unsigned char CANIndex, CAN_TX_BUFFER_FLAG* pTxFlag);
/* Reads what the adapter has received, straight from the adapter (one answer; room for
 * CANFD_READ_MAX_FRAMES frames). Bypasses the receive buffers. */
POLYBUS_API int CANFD_ReadMsg(int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanGetMsg);
POLYBUS_API int CANFD_SetFilter(int DevHandle, unsigned char CANIndex, CANFD_FILTER_CONFIG* pFilter,
                                unsigned char FilterNum);
POLYBUS_API int CANFD_GetDiagnostic(int DevHandle, unsigned char CANIndex, CANFD_DIAGNOSTIC* pDiagnostic);
POLYBUS_API int CANFD_GetBusError(int DevHandle, unsigned char CANIndex, CANFD_BUS_ERROR* pBusError);
/* Closes a channel and empties its receive buffer (reception by the reader thread is
 * stopped with CANFD_StopGetMsg). */
POLYBUS_API int CANFD_Stop(int DevHandle, unsigned char CANIndex);
POLYBUS_API int CANFD_SetRelay(int DevHandle, unsigned char RelayState);
/* Relay data exists only on classic adapters; see CAN_SetRelayData. With a CAN FD handle
 * these calls pass the handle to the CAN_ calls, which pass it back: they NEVER RETURN. */
POLYBUS_API int CANFD_SetRelayData(int DevHandle, CAN_RELAY_HEADER* pHeader, unsigned char* pEntries);
POLYBUS_API int CANFD_GetRelayData(int DevHandle, CAN_RELAY_HEADER* pHeader, unsigned char* pEntries);

/* Transmit schedule: as CAN_SetSchedule (the TimeStamp of a frame is the pause in ms
 * after it). The whole schedule goes to the adapter in one request, the frames as whole
 * 76-byte records. */
POLYBUS_API int CANFD_SetSchedule(int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanMsg, unsigned char* pMsgNum,
                                  uint16_t* pSendTimes, unsigned char MsgTabNum);
POLYBUS_API int CANFD_StartSchedule(int DevHandle, unsigned char CANIndex, unsigned char Param1, unsigned char Param2,
                                    unsigned char Param3);
POLYBUS_API int CANFD_StopSchedule(int DevHandle, unsigned char CANIndex);

/* Receive buffering, as the CAN_ calls of the same names (can.h), with these
 * differences: frames are kept in arrival order (not sorted); CANFD_StartGetMsg first
 * empties the channel's receive buffer; CANFD_GetMsg moves at most BufferSize frames
 * and returns a failed fetch's status. */
POLYBUS_API int CANFD_ReadMsgToBuffer(int DevHandle, unsigned char CANIndex);
POLYBUS_API void* CANFD_ReadMsgThread(void* pDevHandle);
POLYBUS_API int CANFD_StartGetMsg(int DevHandle, unsigned char CANIndex);
POLYBUS_API int CANFD_StopGetMsg(int DevHandle, unsigned char CANIndex);
POLYBUS_API int CANFD_GetMsg(int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanGetMsg, int BufferSize);
POLYBUS_API int CANFD_ClearMsg(int DevHandle, unsigned char CANIndex);
POLYBUS_API int CANFD_SetCANMsgToBuffer(int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanMsg, int MsgNum);
POLYBUS_API int CANFD_GetCANMsgFromUDSBuffer(int DevHandle, unsigned char CANIndex, CANFD_MSG* pCanGetMsg,
                                             int BufferSize);
POLYBUS_API int CANFD_ClearCANMsgFromUDSBuffer(int DevHandle, unsigned char CANIndex);

POLYBUS_END_DECLS

#endif
