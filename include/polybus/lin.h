/*
 * Polybus: LIN channels (0 to 3 per adapter) as master and slave, the older LIN_
 * interface, FLIN channels, and the reader of recorded LIN traffic (list files).
 *
 * The adapter times the bus; the host prepares whole frames (protected identifier and
 * checksum included), sends a batch in one exchange and judges the checksums of what
 * comes back. A checksum error is not a failure of a call: it is the frame's verdict,
 * LIN_EX_MSG.CheckType 4 in the results.
 *
 * Status codes: 0 success, -2 not sent (or device not listed, where noted), -4 no or
 * bad answer, and the codes below.
 */
#ifndef POLYBUS_LIN_H
#define POLYBUS_LIN_H

#include <stddef.h>

#include "common.h"

POLYBUS_BEGIN_DECLS

#define LIN_EX_ERR_NOT_INIT (-5)   /* channel not set up by LIN_EX_Init */
#define LIN_EX_ERR_PARAM (-7)      /* null pointer, no frames, unknown device, baud rate <= 100 */
#define LIN_EX_ERR_OPEN (-8)       /* list file cannot be opened */
#define LIN_EX_ERR_HEADER (-9)     /* list file has the wrong first line */
#define LIN_EX_ERR_MEMORY (-10)    /* record array could not grow (records so far are kept) */
#define LIN_EX_ERR_LONG_LINE (-11) /* list-file line over 1023 characters (records so far are kept) */

/* Frame kinds (MsgType) of requests, and of results. */
#define LIN_EX_MSG_MASTER_WRITE 1
#define LIN_EX_MSG_MASTER_READ 2
#define LIN_EX_MSG_SLAVE_WRITE 3
#define LIN_EX_MSG_SLAVE_READ 4
#define LIN_EX_MSG_BREAK 5
#define LIN_EX_MSG_CHECK_IN_DATA 8
#define LIN_EX_MSG_CHECK_SEPARATE 9

/* Checksum kinds (CheckType) of requests, and verdicts of results. */
#define LIN_EX_CHECK_CLASSIC 0  /* result: classic checksum correct */
#define LIN_EX_CHECK_ENHANCED 1 /* result: enhanced checksum correct */
#define LIN_EX_CHECK_USER 2     /* the caller's Check is sent unchanged; result: not verified */
#define LIN_EX_CHECK_NONE 3     /* no checksum; result: not verified */
#define LIN_EX_CHECK_ERROR 4    /* result only: neither checksum matches */

/* The adapter returns at most this many records per answer (and runs at most this many
 * schedule entries). */
#define LIN_EX_MAX_RECORDS 64

#pragma pack(push, 1)
/* One LIN frame, 20 bytes, travelling raw. On a request TimeStamp is the delay in ms
 * before the frame (at most 5000); on a result the adapter's time stamp. */
typedef struct LIN_EX_MSG {
    uint32_t TimeStamp;
    uint8_t MsgType;
    uint8_t CheckType;
    uint8_t DataLen;
    uint8_t Sync;
    uint8_t PID;
    uint8_t Data[8];
    uint8_t Check;
    uint8_t BreakBits;
    uint8_t Reserved;
} LIN_EX_MSG;

/* One frame of the older interface, 11 bytes. */
typedef struct LIN_MSG {
    uint8_t ID;
    uint8_t DataLen;
    uint8_t Data[8];
    uint8_t Check;
} LIN_MSG;

/* Channel set-up of the older interface. */
typedef struct LIN_CONFIG {
    uint32_t BaudRate;
    uint8_t CheckMode;
    uint8_t MasterMode;
    uint8_t BreakBits;
} LIN_CONFIG;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(LIN_EX_MSG) == 20, "LIN_EX_MSG is 20 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, MsgType) == 4, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, CheckType) == 5, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, DataLen) == 6, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, Sync) == 7, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, PID) == 8, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, Data) == 9, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, Check) == 17, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, BreakBits) == 18, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_EX_MSG, Reserved) == 19, "LIN_EX_MSG layout");
POLYBUS_STATIC_ASSERT(sizeof(LIN_MSG) == 11, "LIN_MSG is 11 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LIN_MSG, DataLen) == 1, "LIN_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_MSG, Data) == 2, "LIN_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_MSG, Check) == 10, "LIN_MSG layout");
POLYBUS_STATIC_ASSERT(sizeof(LIN_CONFIG) == 7, "LIN_CONFIG is 7 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LIN_CONFIG, CheckMode) == 4, "LIN_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_CONFIG, MasterMode) == 5, "LIN_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(LIN_CONFIG, BreakBits) == 6, "LIN_CONFIG layout");

/* ---- Master (LIN_EX_) ------------------------------------------------------------
 * Channel state (baud rate, initialised flag) is kept per device slot and channel
 * byte; it survives closing and reopening the device. A device that is not in the
 * device list, or is its 31st or later entry, has no state: the calls that need it
 * refuse (LIN_EX_MasterSync -7, schedule and slave calls -2). */

/* BaudRate below 100 becomes 9600. MasterMode is passed on (1 master, 0 slave). */
POLYBUS_API int LIN_EX_Init(int DevHandle, unsigned char LINIndex, int BaudRate, unsigned char MasterMode);

/* Runs MsgLen frames in one exchange; pInMsg is not modified (the library prepares a
 * copy: Sync 0x55, parity bits, delay <= 5000 ms, BreakBits 10..26 else 13, DataLen
 * <= 8, checksums of write frames). Waits delay total + (123000 / baud) x MsgLen + 100
 * ms for the results. Returns the number of results written to pOutMsg, at most
 * min(MsgLen, 64): records the adapter sends beyond either limit are drained, never
 * written. Refusals, in this order: -7 pInMsg null; -7 pOutMsg null, MsgLen 0 or
 * device unknown; -5 channel not initialised; -7 stored baud rate <= 100.
 * Each result's CheckType holds its verdict (0 classic ok, 1 enhanced ok, 2/3 not
 * verified, 4 checksum error). A result of kind 8 has DataLen reduced by one (the
 * checksum was counted), so a frame with no bytes at all reports DataLen 255; its
 * counted length is taken as at most 9. */
POLYBUS_API int LIN_EX_MasterSync(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pInMsg, LIN_EX_MSG* pOutMsg,
                                  unsigned int MsgLen);
/* A break alone. 0, a negative status of LIN_EX_MasterSync, or -4 (no result). */
POLYBUS_API int LIN_EX_MasterBreak(int DevHandle, unsigned char LINIndex);
/* One write frame; DataLen 0 sends no checksum (CheckType 3). A null pData sends zeros. */
POLYBUS_API int LIN_EX_MasterWrite(int DevHandle, unsigned char LINIndex, unsigned char PID, unsigned char* pData,
                                   unsigned char DataLen, unsigned char CheckType);
/* One read frame: the number of data bytes copied to pData (up to 8; nothing is
 * written when pData is null), 0 when no slave answered correctly, a negative status,
 * or -4 when more than one result came. */
POLYBUS_API int LIN_EX_MasterRead(int DevHandle, unsigned char LINIndex, unsigned char PID, unsigned char* pData);

/* Starts the adapter's own schedule with min(MsgLen, 64) frames; each TimeStamp is the
 * frame's delay. -2 device unknown, -5 not initialised, -7 pLINMsg null with MsgLen > 0.
 * Checksums of write frames are computed over at most 8 data bytes. */
POLYBUS_API int LIN_EX_MasterStartSch(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg, int MsgLen);
POLYBUS_API int LIN_EX_MasterStopSch(int DevHandle, unsigned char LINIndex);
/* Frames the schedule ran since the last call; pLINMsg must hold 64 records (more is
 * drained). Read frames (MsgType 2) get their verdict in CheckType. Returns the count,
 * -2, -5 or -4. A null pLINMsg only counts. */
POLYBUS_API int LIN_EX_MasterGetSch(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg);

/* State is passed on (0 supply off, 1 on). */
POLYBUS_API int LIN_EX_CtrlPowerOut(int DevHandle, unsigned char LINIndex, unsigned char State);
/* Battery voltage at the LIN connector, in millivolts. */
POLYBUS_API int LIN_EX_GetVbatValue(int DevHandle, unsigned short* pBatValue);

/* ---- Slave (LIN_EX_) -------------------------------------------------------------
 * -2 device unknown, -5 channel not initialised, -7 null table with MsgLen > 0. */

/* Loads the ID-mode table: MsgType 3 the adapter answers the header with Data and the
 * checksum, 4 it records another node's answer, 0x83 it answers once. */
POLYBUS_API int LIN_EX_SlaveSetIDMode(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg, int MsgLen);
/* Returns the number of table entries (at most 64), copying them when pLINMsg is not null. */
POLYBUS_API int LIN_EX_SlaveGetIDMode(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg);
/* Frames recorded since the last call (at most 64; pLINMsg must hold 64 records), with
 * verdicts; breaks come as MsgType 5 with PID 0xFF and DataLen 0. */
POLYBUS_API int LIN_EX_SlaveGetData(int DevHandle, unsigned char LINIndex, LIN_EX_MSG* pLINMsg);

/* ---- Older interface (LIN_) --------------------------------------------------------
 * LIN_Init reads the adapter's firmware version: after 0x0105001D every call goes
 * through the LIN_EX_ functions, otherwise through the older commands, whose answers
 * are awaited 110000 / baud rate + 1000 ms (baud rate of LIN_Init; 9600 before any).
 * Channels of the older commands fold with & 3 in the library's own state. */
POLYBUS_API int LIN_Init(int DevHandle, int LINIndex, LIN_CONFIG* pConfig);
POLYBUS_API int LIN_SendBreak(int DevHandle, int LINIndex);
/* Identifiers 0x3C..0x3F are written with the classic checksum, others enhanced. */
POLYBUS_API int LIN_Write(int DevHandle, int LINIndex, LIN_MSG* pLINMsg, int MsgLen);
/* Identifiers 0x3D..0x3F are read with the classic checksum, others enhanced. Results
 * report DataLen = data bytes + 1 (0 when none). Old path: at most MsgLen records land. */
POLYBUS_API int LIN_Read(int DevHandle, int LINIndex, LIN_MSG* pLINMsg, int MsgLen);
/* IDMode 0: the adapter answers the identifiers (Data, its own checksum); else it records. */
POLYBUS_API int LIN_SlaveSetIDMode(int DevHandle, int LINIndex, unsigned char IDMode, LIN_MSG* pLINMsg, int MsgLen);
/* Frames recorded since the last call; pLINMsg must hold 64 records. */
POLYBUS_API int LIN_SlaveGetData(int DevHandle, int LINIndex, LIN_MSG* pLINMsg);

/* ---- FLIN channels -------------------------------------------------------------- */
POLYBUS_API int FLIN_Init(int DevHandle, int FLINIndex, int BaudRate);
/* Cmd is passed to the adapter as it is. DataLen < 0 sends no data. */
POLYBUS_API int FLIN_WriteData(int DevHandle, int FLINIndex, unsigned char Cmd, unsigned char* pData, int DataLen);
/* Returns the number of bytes read into pData (which must hold 64; more is drained),
 * or -2 / -4. */
POLYBUS_API int FLIN_ReadData(int DevHandle, int FLINIndex, unsigned char* pData);

/* ---- List files ----------------------------------------------------------------------
 * A comma-separated bus traffic export (first line "Vehicle Spy 3 Bus Traffic File")
 * becomes a list of frames to replay with LIN_EX_MasterSync: field 1 time in s, field 9
 * identifier (hex), fields 12..19 data (hex); lines need 22 fields and a numeric first
 * field. Identifiers in pReadIDList become read frames, the others write frames;
 * identifiers in pCheckTypeIDList take the other checksum kind. Each frame's delay is
 * the time to the next line less that line's own frame time at BaudRate.
 * Returns the number of records, or -7 (BaudRate < 1, nothing changed), -8, -9
 * (previous records kept), -10 or -11 (records decoded so far kept and readable).
 * The records live in the library until the next call; not thread-safe against
 * concurrent calls of the reader (they are serialised). */
POLYBUS_API int LIN_EX_DecodeListFile(char* pFileName, unsigned char CheckType, int BaudRate,
                                      unsigned char* pReadIDList, int ReadIDListLen,
                                      unsigned char* pCheckTypeIDList, int CheckTypeIDListLen);
/* Copies up to MsgLen records from MsgIndex on; returns the number copied. */
POLYBUS_API int LIN_EX_GetListFileMsg(int MsgIndex, int MsgLen, LIN_EX_MSG* pLINMsg);
/* 1 when str is a non-empty run of the digits 0..9, else 0. */
POLYBUS_API int isNumber(char* str);

POLYBUS_END_DECLS

#endif
