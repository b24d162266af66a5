/* Polybus: CAN FD. */
#ifndef POLYBUS_CANFD_H
#define POLYBUS_CANFD_H

#include <stddef.h>
#include "common.h"

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
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(CANFD_MSG) == 76, "CANFD_MSG is 76 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_MSG, TimeStamp) == 8, "CANFD_MSG layout");
POLYBUS_STATIC_ASSERT(offsetof(CANFD_MSG, Data) == 12, "CANFD_MSG layout");

#endif
