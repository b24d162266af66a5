/*
 * Polybus: classic CAN.
 *
 * Every function takes the adapter's handle and, mostly, a channel (0 or 1). Results:
 * 0 (or a count) for success, -2 when the request could not be sent (unknown or closed
 * handle, USB error), -4 when the adapter did not answer or answered wrongly.
 *
 * CAN FD adapters (handle top byte 0x53 or 0x54) accept every CAN_ call too: the
 * records are converted and the matching CANFD_ call (canfd.h) does the work. On
 * those adapters classic frames travel as CAN FD frames without bit-rate switching;
 * the remote bit of a CAN_MSG is not carried over, and time stamps are converted
 * between the two units (100 us here, 10 us there). A CAN FD frame longer than 8 bytes
 * received through a CAN_ call keeps its length in DataLen but only its first 8 data
 * bytes (a CAN_MSG has room for no more).
 *
 * Channel numbers: the classic adapters have channels 0 and 1. The host-side receive
 * buffers, reader flags and locks of a channel number above 1 are those of
 * channel & 1; CAN_Init of such a channel stops no reception.
 */
#ifndef POLYBUS_CAN_H
#define POLYBUS_CAN_H

#include <stddef.h>
#include "common.h"

#pragma pack(push, 1)
/* One classic CAN frame, 20 bytes, host (little-endian) order. */
typedef struct CAN_MSG {
    uint32_t ID;            /* 11-bit or 29-bit identifier in the low bits */
    uint32_t TimeStamp;     /* low 32 bits, unit 100 us, adapter time base */
    uint8_t RemoteFlag;     /* bit 0 remote; bits 5-6 channel; bit 7 sent by the host */
    uint8_t ExternFlag;     /* bit 0: 29-bit identifier */
    uint8_t DataLen;        /* 0..8 */
    uint8_t Data[8];
    uint8_t TimeStampHigh;  /* time stamp bits 32..39 */
} CAN_MSG;

/* Controller set-up of one channel (CAN_GetCANSpeedArg fills it for a bit rate).
 * Bit rate = CAN clock / (CAN_BRP x (1 + CAN_BS1 + CAN_BS2)); sample point at
 * (1 + CAN_BS1) / (1 + CAN_BS1 + CAN_BS2). */
typedef struct CAN_INIT_CONFIG {
    uint32_t CAN_BRP;  /* prescaler: low 16 bits reach a classic adapter, low 8 a CAN FD one */
    uint8_t CAN_SJW;   /* resynchronisation jump width, time quanta */
    uint8_t CAN_BS1;   /* time segment 1 (propagation + phase 1), time quanta */
    uint8_t CAN_BS2;   /* time segment 2, time quanta */
    uint8_t CAN_Mode;  /* bit 7: termination resistor on; bits 0-6: mode (0 normal; others adapter-defined) */
    uint8_t CAN_ABOM;  /* bit 0: automatic bus-off recovery */
    uint8_t CAN_NART;  /* bit 0: no automatic retransmission */
    uint8_t CAN_RFLM;  /* bit 0: receive FIFO locked (new frames dropped when full) */
    uint8_t CAN_TXFP;  /* bit 0: transmit in request order instead of by identifier */
} CAN_INIT_CONFIG;

/* One acceptance filter of a channel. */
typedef struct CAN_FILTER_CONFIG {
    uint8_t Enable;       /* 1: filter active */
    uint8_t FilterIndex;  /* 0..13 (taken modulo 14) */
    uint8_t FilterMode;   /* 0: identifier + mask; otherwise identifier list (mask fields unused) */
    uint8_t ExtFrame;     /* exactly 1: the identifiers are 29-bit */
    uint32_t IdValue;
    uint32_t IdIde;       /* bit 0: IDE bit the frame must carry */
    uint32_t IdRtr;       /* bit 0: RTR bit the frame must carry */
    uint32_t MaskValue;
    uint32_t MaskIde;     /* bit 0: compare the IDE bit */
    uint32_t MaskRtr;     /* bit 0: compare the RTR bit */
} CAN_FILTER_CONFIG;

/* Error state of a channel (CAN_GetStatus). */
typedef struct CAN_STATUS {
    uint32_t StatusReg;  /* the adapter's first status word, as sent */
    uint32_t ErrorReg;   /* error word as sent: bits 4-6 last error code, 16-23 TEC, 24-31 REC */
    uint8_t RECounter;   /* receive error counter */
    uint8_t TECounter;   /* transmit error counter */
    uint8_t LECode;      /* last error code */
} CAN_STATUS;

/* One row of a bit-timing table; a table ends with an all-zero row. */
typedef struct CAN_BRT_ENTRY {
    uint8_t SJW;
    uint8_t BS1;
    uint8_t BS2;
    uint8_t Reserved;   /* 0 */
    uint32_t BRP;       /* prescaler */
    uint32_t BaudRate;  /* bit/s */
} CAN_BRT_ENTRY;

/* Header of the relay (forwarding) settings kept in the adapter's user-data area.
 * Only EntryCount is read by the library; the rest, and the 168-byte entries that
 * follow, are the adapter firmware's. */
typedef struct CAN_RELAY_HEADER {
    uint8_t Settings[44];
    uint32_t EntryCount;
} CAN_RELAY_HEADER;
#pragma pack(pop)

#define CAN_RELAY_ENTRY_SIZE 168
/* CAN_GetRelayData reads back at most this many entries. */
#define CAN_RELAY_MAX_ENTRIES 64
/* Receive buffers hold at most this many frames per channel; the oldest go first. */
#define CAN_BUFFER_FRAMES 10000
/* CAN_ReadMsg stores at most this many frames (one answer of the adapter). */
#define CAN_READ_MAX_FRAMES 2000

/* A transmit schedule played by the host (CAN_SchThread). The library never starts
 * that thread; an application that runs it fills this record and keeps it alive until
 * the thread has ended. Clear RunFlag (preferably with an atomic store) to stop it. */
typedef struct CAN_SCH_THREAD_PARAM {
    uint32_t DevHandle;
    uint8_t CANIndex;
    int32_t MsgNum;       /* frames at pMsg */
    uint32_t SendTimes;   /* passes over all frames; 0 ends at once */
    uint8_t RunFlag;      /* non-zero: keep sending */
    CAN_MSG* pMsg;        /* TimeStamp of each frame: pause in ms after it */
} CAN_SCH_THREAD_PARAM;

POLYBUS_STATIC_ASSERT(sizeof(CAN_MSG) == 20, "CAN_MSG is 20 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_MSG, RemoteFlag) == 8, "CAN_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_MSG, Data) == 11, "CAN_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_MSG, TimeStampHigh) == 19, "CAN_MSG layout");
POLYBUS_STATIC_ASSERT(sizeof(CAN_INIT_CONFIG) == 12, "CAN_INIT_CONFIG is 12 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_INIT_CONFIG, CAN_Mode) == 7, "CAN_INIT_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_INIT_CONFIG, CAN_TXFP) == 11, "CAN_INIT_CONFIG layout");
POLYBUS_STATIC_ASSERT(sizeof(CAN_FILTER_CONFIG) == 28, "CAN_FILTER_CONFIG is 28 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_FILTER_CONFIG, IdValue) == 4, "CAN_FILTER_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_FILTER_CONFIG, MaskRtr) == 24, "CAN_FILTER_CONFIG layout");
POLYBUS_STATIC_ASSERT(sizeof(CAN_STATUS) == 11, "CAN_STATUS is 11 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_STATUS, RECounter) == 8, "CAN_STATUS layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_STATUS, LECode) == 10, "CAN_STATUS layout");
POLYBUS_STATIC_ASSERT(sizeof(CAN_BRT_ENTRY) == 12, "CAN_BRT_ENTRY is 12 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_BRT_ENTRY, BRP) == 4, "CAN_BRT_ENTRY layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_BRT_ENTRY, BaudRate) == 8, "CAN_BRT_ENTRY layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_SCH_THREAD_PARAM, MsgNum) == 8, "CAN_SCH_THREAD_PARAM layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_SCH_THREAD_PARAM, SendTimes) == 12, "CAN_SCH_THREAD_PARAM layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_SCH_THREAD_PARAM, RunFlag) == 16, "CAN_SCH_THREAD_PARAM layout");
POLYBUS_STATIC_ASSERT(sizeof(CAN_RELAY_HEADER) == 48, "CAN_RELAY_HEADER is 48 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_RELAY_HEADER, EntryCount) == 44, "CAN_RELAY_HEADER layout");

POLYBUS_BEGIN_DECLS

/* Bit-timing tables: 42 MHz classic adapters (model codes 0x4_), 100 MHz
 * multi-protocol adapters, and the CAN FD adapters' 40 MHz nominal (arbitration) and
 * data-phase tables. Only the listed rates exist; there is no rounding. */
POLYBUS_API extern const CAN_BRT_ENTRY CAN_BRT_TALMERA[30];
POLYBUS_API extern const CAN_BRT_ENTRY CAN_BRT_ORVELIN[30];
POLYBUS_API extern const CAN_BRT_ENTRY CAN_BRT_QUENDRIX_NBT[17];
POLYBUS_API extern const CAN_BRT_ENTRY CAN_BRT_QUENDRIX_DBT[23];

/* ---- Set-up ---- */

/* Fills pCanConfig for SpeedBps from the table of the handle's kind (top four bits 0x5:
 * CAN FD nominal table, 0x4: 42 MHz table, else 100 MHz table), with termination on,
 * normal mode, automatic bus-off recovery. A rate of 0 gives zero timing values.
 * Returns -4 and leaves the record untouched for a rate not in the table. */
POLYBUS_API int CAN_GetCANSpeedArg(int DevHandle, CAN_INIT_CONFIG* pCanConfig, unsigned int SpeedBps);
/* Opens a channel. Also stops the reader thread's service of that channel and anchors
 * the host-side time stamps of CAN_SendMsg on the adapter's clock. */
POLYBUS_API int CAN_Init(int DevHandle, unsigned char CANIndex, CAN_INIT_CONFIG* pCanConfig);
POLYBUS_API int CAN_Filter_Init(int DevHandle, unsigned char CANIndex, CAN_FILTER_CONFIG* pFilterConfig);
/* Closes a channel: stops its reception (joining the reader thread when no channel of
 * the adapter is read any more) and empties its receive buffer. */
POLYBUS_API int CAN_Stop(int DevHandle, unsigned char CANIndex);
POLYBUS_API int CAN_GetStatus(int DevHandle, unsigned char CANIndex, CAN_STATUS* pCANStatus);
/* Switches the adapter's channel relay; the adapter must echo the state. */
POLYBUS_API int CAN_SetRelay(int DevHandle, unsigned char RelayState);
/* Relay settings stored in the adapter's user-data area (erased and rewritten, then
 * verified): the header and EntryCount entries of CAN_RELAY_ENTRY_SIZE bytes.
 * CAN_GetRelayData returns the number of entries copied out (at most
 * CAN_RELAY_MAX_ENTRIES; pEntries needs room for that many), 0 when no valid settings
 * are stored, -4 on failure.
 *
 * Relay data exists only on classic adapters. With a CAN FD handle these calls pass the
 * handle to CANFD_SetRelayData / CANFD_GetRelayData, which pass it back: the call
 * NEVER RETURNS. Check the handle's top byte before calling. */
POLYBUS_API int CAN_SetRelayData(int DevHandle, CAN_RELAY_HEADER* pHeader, unsigned char* pEntries);
POLYBUS_API int CAN_GetRelayData(int DevHandle, CAN_RELAY_HEADER* pHeader, unsigned char* pEntries);

/* ---- Frames ---- */

/* Sends MsgNum frames (in commands of at most 500) and returns how many the adapter
 * accepted. Each caller frame gets a host time stamp on the adapter's time base and
 * RemoteFlag bit 7 and the channel bits set. Stops with -2 or -4 at the first failed
 * command, even when earlier ones went out. */
POLYBUS_API int CAN_SendMsg(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanSendMsg, unsigned int MsgNum);
/* Reads what the adapter has received, straight from the adapter (one answer; room
 * for CAN_READ_MAX_FRAMES frames). Bypasses the receive buffers. */
POLYBUS_API int CAN_ReadMsg(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanGetMsg);
/* Fetches once from the adapter, sorts the frames by time stamp (equal stamps keep
 * their order) and appends them to the channel's receive buffer and to its UDS buffer. */
POLYBUS_API int CAN_ReadMsgToBuffer(int DevHandle, unsigned char CANIndex);
/* Sorts pCanMsg[low..high] by the low 32 bits of TimeStamp, ascending; frames with
 * equal stamps keep their order. Does nothing for NULL, low < 0 or low >= high. */
POLYBUS_API void CAN_QuickSort(CAN_MSG* pCanMsg, int low, int high, int Reserved);
/* Body of the reader thread (argument: pointer to the adapter's handle). It polls every
 * 10 ms each channel whose reception is on, until none is. CAN_StartGetMsg runs it. With
 * a CAN FD handle it is CANFD_ReadMsgThread. */
POLYBUS_API void* CAN_ReadMsgThread(void* pDevHandle);
/* Starts background reception of a channel (one reader thread per adapter serves both
 * channels). A fetch that fails (for instance after an unplug) turns the channel's
 * reception off. Returns -4 when the thread cannot be created. */
POLYBUS_API int CAN_StartGetMsg(int DevHandle, unsigned char CANIndex);
/* Stops background reception of a channel; joins the thread when the other channel is
 * not read either. Returns -4 when reception was never started on this adapter. */
POLYBUS_API int CAN_StopGetMsg(int DevHandle, unsigned char CANIndex);
/* Moves every buffered frame of the channel out, oldest first; without background
 * reception it first fetches once from the adapter. pCanGetMsg needs room for
 * CAN_BUFFER_FRAMES frames. Returns the number of frames. On a CAN FD adapter at most
 * CAN_READ_MAX_FRAMES frames move per call, and a failed fetch returns its status. */
POLYBUS_API int CAN_GetMsg(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanGetMsg);
/* As CAN_GetMsg, moving at most BufferSize frames; a failed fetch returns its status. */
POLYBUS_API int CAN_GetMsgWithSize(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanGetMsg, int BufferSize);
/* Empties the channel's receive buffer (without background reception, after draining
 * the adapter once). The UDS buffer is kept. */
POLYBUS_API int CAN_ClearMsg(int DevHandle, unsigned char CANIndex);
/* Appends frames to the channel's receive buffer as if they had been received. */
POLYBUS_API int CAN_SetCANMsgToBuffer(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanMsg, int MsgNum);
/* The UDS side buffer: every received frame lands there as well as in the receive
 * buffer; the two are drained independently. */
POLYBUS_API int CAN_GetCANMsgFromUDSBuffer(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanGetMsg, int BufferSize);
POLYBUS_API int CAN_ClearCANMsgFromUDSBuffer(int DevHandle, unsigned char CANIndex);
/* Wall-clock time in milliseconds (seconds x 1000 + microseconds / 1000). */
POLYBUS_API uint64_t GetTimestampOfDay(void);

/* ---- Transmit schedule, played by the adapter ---- */

/* Uploads MsgTabNum tables: pMsgNum[i] frames each, taken one after another from
 * pCanMsg; the TimeStamp of a frame is the pause in ms after it. pSendTimes[i] is passed
 * to the adapter unchanged. Small schedules go in one command; a schedule of 10238 bytes
 * or more (3 x MsgTabNum + 20 x frames) goes to the adapter's schedule storage instead.
 * A rejected upload prints "res = <answer> ret = <receive status>" on standard output
 * and returns -4. */
POLYBUS_API int CAN_SetSchedule(int DevHandle, unsigned char CANIndex, CAN_MSG* pCanMsg, unsigned char* pMsgNum,
                                uint16_t* pSendTimes, unsigned char MsgTabNum);
/* The three parameter bytes are passed to the adapter unchanged. A refused start prints
 * the same line as a rejected upload and returns -4. */
POLYBUS_API int CAN_StartSchedule(int DevHandle, unsigned char CANIndex, unsigned char Param1, unsigned char Param2,
                                  unsigned char Param3);
POLYBUS_API int CAN_StopSchedule(int DevHandle, unsigned char CANIndex);
/* Body of a host-played schedule (argument: CAN_SCH_THREAD_PARAM*): SendTimes passes,
 * each frame sent alone with CAN_SendMsg and followed by its pause. The caller's
 * frames are not modified. A failed send ends the pass; a cleared RunFlag ends the
 * thread after the current frame. */
POLYBUS_API void* CAN_SchThread(void* pParam);

POLYBUS_END_DECLS

#endif
