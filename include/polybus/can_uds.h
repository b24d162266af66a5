/*
 * Polybus: UDS over CAN and CAN FD (ISO 15765-2 segmentation and flow control).
 *
 * The calls segment a diagnostic request into single, first and consecutive frames,
 * honour the receiver's flow control, and reassemble a response. They do not interpret
 * service identifiers or negative responses. Frames leave through CAN_SendMsg (classic
 * adapters) or CANFD_SendMsg (CAN FD adapters, handle top byte 0x53 or 0x54); incoming
 * frames are taken from the channel's UDS side buffer (can.h), which every fetch of the
 * CAN layer fills beside the application's receive buffer. Without a reader thread
 * (CAN_StartGetMsg) the calls fetch from the adapter themselves while they wait.
 *
 * No state is kept between calls except that UDS buffer: CAN_UDS_Request empties it
 * first, so call CAN_UDS_Response after the request, on the same channel.
 *
 * Frames the library sends are copied into the channel's application receive buffer
 * (as CAN_SetCANMsgToBuffer / CANFD_SetCANMsgToBuffer would), with bit 7 and the
 * channel bits set, so that an application reading that buffer sees its own
 * diagnostic traffic.
 *
 * Results: 0 (or a length) for success, -1 for arguments the call refuses (a null
 * address record or data pointer, a negative length), the -2 / -4 of the CAN layer
 * passed through where a call says so, and the codes below.
 */
#ifndef POLYBUS_CAN_UDS_H
#define POLYBUS_CAN_UDS_H

#include <stddef.h>
#include "common.h"
#include "can.h"
#include "canfd.h"

/* A frame could not be sent (the CAN send call returned a negative status). */
#define CAN_UDS_ERR_SEND (-98)
/* The adapter did not take a frame within CAN_UDS_SEND_RETRY_MS (nobody acknowledged
 * it, for instance), or a batch of no frames was given. */
#define CAN_UDS_ERR_NOT_ACCEPTED (-99)
/* Time-out waiting for flow control or for the response. */
#define CAN_UDS_ERR_TIMEOUT (-101)
/* A consecutive frame carried the wrong sequence number. */
#define CAN_UDS_ERR_SEQUENCE (-103)
/* A frame with a protocol-control type above 3, a single frame whose length does not
 * fit its frame, or a first frame announcing more than INT_MAX bytes. */
#define CAN_UDS_ERR_FRAME (-105)
/* The receiver's flow control reported overflow (flow status 2). */
#define CAN_UDS_ERR_OVERFLOW (-107)

/* Padding of every frame shorter than FrameLen. */
#define CAN_UDS_PAD_BYTE 0x55
/* How long a send is retried (every 10 ms) while the adapter takes no frame. */
#define CAN_UDS_SEND_RETRY_MS 3000
/* How long CAN_UDS_Request waits for each flow control. */
#define CAN_UDS_FC_TIMEOUT_MS 1000
/* Consecutive frames sent without separation time go in batches of this many. */
#define CAN_UDS_BATCH_FRAMES 20

/* CAN_UDS_ADDR.Flags */
#define CAN_UDS_FLAG_29BIT 0x01 /* 29-bit identifiers */
#define CAN_UDS_FLAG_CANFD 0x02 /* CAN FD frames (CAN FD adapters) */
#define CAN_UDS_FLAG_BRS 0x04   /* bit-rate switch, only together with CAN_UDS_FLAG_CANFD */

#pragma pack(push, 1)
/* Addressing of one diagnostic connection, 12 bytes. */
typedef struct CAN_UDS_ADDR {
    uint32_t RequestId;   /* identifier of the frames the host sends */
    uint32_t ResponseId;  /* identifier of the frames the host accepts (low 29 bits compared) */
    uint8_t Flags;        /* CAN_UDS_FLAG_ bits */
    uint8_t ExtAddrMode;  /* 0: normal addressing; otherwise every frame begins with ExtAddr */
    uint8_t ExtAddr;      /* address-extension byte put in front of every frame sent */
    uint8_t FrameLen;     /* data length of every frame sent, 8 to 64; any other value is
                             taken as 8 (CAN_UDS_Request and CAN_UDS_Response write the
                             8 back into the caller's record) */
} CAN_UDS_ADDR;

/* Flow control as CAN_UDS_WaitFC received it, 3 bytes. */
typedef struct UDS_FC {
    uint8_t FlowControl; /* the flow-control byte with its nibbles swapped: flow status in
                            bits 4-7 (0 continue, 1 wait, 2 overflow), 3 in bits 0-3 */
    uint8_t BlockSize;   /* consecutive frames before the next flow control; 0: no limit */
    uint8_t STmin;       /* separation time, as received */
} UDS_FC;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(CAN_UDS_ADDR) == 12, "CAN_UDS_ADDR is 12 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, ResponseId) == 4, "CAN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, Flags) == 8, "CAN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, ExtAddr) == 10, "CAN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_UDS_ADDR, FrameLen) == 11, "CAN_UDS_ADDR layout");
POLYBUS_STATIC_ASSERT(sizeof(UDS_FC) == 3, "UDS_FC is 3 bytes");
POLYBUS_STATIC_ASSERT(offsetof(UDS_FC, STmin) == 2, "UDS_FC layout");

POLYBUS_BEGIN_DECLS

/* Sends a diagnostic request of DataLen bytes (0 to INT_MAX).
 *
 * Bytes per frame, with L = FrameLen and x = 1 under extended addressing, else 0:
 *                                 L = 8     L > 8
 *   largest single frame          7 - x     L - 2 - x   (PCI: one byte for L = 8, else 00 len)
 *   first frame, < 4096 bytes     6 - x     L - 2 - x   (PCI 1n nn)
 *   first frame, >= 4096 bytes    6 - x     L - 6 - x   (PCI 10 00 and the length in 4 bytes)
 *   consecutive frame             7 - x     L - 1 - x
 * With L = 8 the escaped first frame (4096 bytes or more) is cut to its first 8 bytes
 * while the request still advances by 6 - x bytes: the receiver misses 4 bytes and
 * never sees the whole message. This is kept so; use FrameLen above 8 for such lengths.
 *
 * Separation time of the receiver's flow control, read as a signed byte: 1 to 127 ms
 * sends each consecutive frame alone followed by that pause (also after the last one);
 * 0 and 0x80 to 0xFF (including the sub-millisecond codes 0xF1 to 0xF9) send them
 * without pause in batches of CAN_UDS_BATCH_FRAMES. With a block size, the pending
 * batch is sent and the next flow control awaited after every block.
 *
 * Returns 0, -1 (null addr, null data with DataLen > 0, DataLen < 0), the status of a
 * frame send (-98, -99), or of a flow-control wait (-101, -107). */
POLYBUS_API int CAN_UDS_Request(int DevHandle, unsigned char CANIndex, CAN_UDS_ADDR* pUDSAddr,
                                unsigned char* pReqData, int DataLen);

/* Receives one diagnostic message into pResData within TimeOutMs (for the whole message;
 * progress does not extend it). A first frame is answered with flow control 30 00 00
 * (continue, no block limit, no separation time), sent with RequestId.
 *
 * pResData must hold as many bytes as the response can announce: nothing is written
 * beyond the total the response's first or single frame gives. Each frame contributes
 * what it carries, at most FrameLen minus its header; the frames must be as long as
 * FrameLen says. Flow-control frames are ignored; ExtAddr of received frames is not
 * checked. A consecutive frame arriving before any first frame with sequence number 1
 * completes an empty message (returns 0).
 *
 * Returns the message length (0 for an empty single frame), -1 (null addr or
 * pResData), -101 (time-out), -103 (wrong sequence number), -105 (bad frame), or the
 * status of the flow-control send (-98, -99). Bytes copied before a failure stay. */
POLYBUS_API int CAN_UDS_Response(int DevHandle, unsigned char CANIndex, CAN_UDS_ADDR* pUDSAddr,
                                 unsigned char* pResData, int TimeOutMs);

/* Sends one frame: the first FrameLen bytes of pData (at most 8 on a classic adapter),
 * padded with CAN_UDS_PAD_BYTE to FrameLen. Retries every 10 ms for up to
 * CAN_UDS_SEND_RETRY_MS while the adapter takes nothing. On a CAN FD adapter only a
 * result of exactly one frame counts as sent. Returns 0, -1 (null data with
 * DataLen > 0), -98 or -99. */
POLYBUS_API int CAN_UDS_SendMsg(int DevHandle, unsigned char CANIndex, CAN_UDS_ADDR UDSAddr,
                                unsigned char* pData, int DataLen);

/* Takes frames from the channel's UDS buffer until one has ResponseId (low 29 bits),
 * the identifier size of Flags and at least 1 data byte (2 under extended addressing);
 * the others are dropped. Copies its data bytes (at most 8, or 64 on a CAN FD adapter)
 * to pData and returns their count; 0 when the buffer holds no such frame, -1 for a
 * null pData. pData needs room for 64 bytes. */
POLYBUS_API int CAN_UDS_GetMsg(int DevHandle, unsigned char CANIndex, CAN_UDS_ADDR UDSAddr, unsigned char* pData);

/* Waits up to TimeOutMs (from the call, whatever comes) for flow control: a matching
 * frame of more than 2 data bytes (3 under extended addressing) with PCI 30, 31 or 32.
 * Continue (30) returns 0 and overflow (32) -107, both with the frame in pFC (may be
 * null); wait (31) is stored and waiting goes on. Other frames are consumed. -101 at
 * the time-out. */
POLYBUS_API int CAN_UDS_WaitFC(int DevHandle, unsigned char CANIndex, CAN_UDS_ADDR UDSAddr, UDS_FC* pFC,
                               int TimeOutMs);

/* Sends MsgNum built frames in one go (CAN_SendMsg), retrying as CAN_UDS_SendMsg does.
 * When all are taken, each gets RemoteFlag bit 7 and the channel bits and is appended
 * to the application receive buffer; when the adapter takes only some of them the call
 * returns 0 without that copy. Returns 0, -98, or -99 (also for MsgNum < 1, at once).
 * -1 for null frames. */
POLYBUS_API int CAN_UDS_SendCANMsg(int DevHandle, unsigned char CANIndex, CAN_MSG* pMsg, int MsgNum);
/* As CAN_UDS_SendCANMsg with CANFD_SendMsg; the flags byte gets bit 7 and the channel. */
POLYBUS_API int CAN_UDS_SendCANFDMsg(int DevHandle, unsigned char CANIndex, CANFD_MSG* pMsg, int MsgNum);

/* Build one frame for UDSAddr from DataLen bytes: identifier RequestId (29-bit flag
 * from Flags), length FrameLen (taken as 8 outside 8 to 64), the data (at most 8 bytes
 * in a CAN_MSG, 64 in a CANFD_MSG), then CAN_UDS_PAD_BYTE up to FrameLen. A CAN_MSG
 * keeps DataLen = FrameLen even above 8. A CANFD_MSG is a CAN FD frame when Flags has
 * CAN_UDS_FLAG_CANFD, with bit-rate switch when it also has CAN_UDS_FLAG_BRS. Every
 * other field is 0. A null frame does nothing. */
POLYBUS_API void CAN_UDS_FillCANMsg(CAN_MSG* pMsg, CAN_UDS_ADDR UDSAddr, unsigned char* pData, int DataLen);
POLYBUS_API void CAN_UDS_FillCANFDMsg(CANFD_MSG* pMsg, CAN_UDS_ADDR UDSAddr, unsigned char* pData, int DataLen);

POLYBUS_END_DECLS

#endif
