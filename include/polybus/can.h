/* Polybus: classic CAN. */
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
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(CAN_MSG) == 20, "CAN_MSG is 20 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CAN_MSG, RemoteFlag) == 8, "CAN_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_MSG, Data) == 11, "CAN_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(CAN_MSG, TimeStampHigh) == 19, "CAN_MSG layout");

#endif
