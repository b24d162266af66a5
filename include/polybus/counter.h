/*
 * Polybus: pulse counters. Four 32-bit counters, addressed by a mask (bit n is counter
 * n). Returns 0, -2 (not sent) or -4 (no answer, an answer with a payload where none is
 * expected, or a value answer of any length but 16).
 *
 * Kept as the adapter family has always behaved: CNT_SetValue sends the four values
 * big-endian, CNT_GetValue stores the adapter's four values as they come (its
 * little-endian layout), without conversion. A counter outside the mask reads 0.
 * A null pValue sends zeros (CNT_SetValue) or discards the values (CNT_GetValue);
 * a null pConfig sends a record of zeros.
 */
#ifndef POLYBUS_COUNTER_H
#define POLYBUS_COUNTER_H

#include <stddef.h>

#include "common.h"

POLYBUS_BEGIN_DECLS

/* Counting modes (CNT_CONFIG.CounterMode) */
#define CNT_MODE_UP 0
#define CNT_MODE_DOWN 1
/* Edges counted (CNT_CONFIG.CounterPolarity) */
#define CNT_EDGE_RISING 0
#define CNT_EDGE_FALLING 1
#define CNT_EDGE_BOTH 2
/* Pin bias (CNT_CONFIG.CounterPinMode) */
#define CNT_PIN_FLOATING 0
#define CNT_PIN_PULL_UP 1
#define CNT_PIN_PULL_DOWN 2

#pragma pack(push, 1)
/* 16 bytes, sent raw to the adapter for every counter of the mask. */
typedef struct CNT_CONFIG {
    unsigned char CounterMode;     /* CNT_MODE_UP or CNT_MODE_DOWN */
    unsigned char CounterPolarity; /* CNT_EDGE_RISING, _FALLING or _BOTH */
    unsigned char CounterBitWide;  /* 16 or 32 (others count as 32): where the counter wraps */
    unsigned char CounterPinMode;  /* CNT_PIN_... */
    unsigned int FilterNs;         /* pulses shorter than this are ignored (0: none) */
    unsigned char Reserved[8];     /* sent as they stand */
} CNT_CONFIG;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(CNT_CONFIG) == 16, "CNT_CONFIG is 16 bytes");
POLYBUS_STATIC_ASSERT(offsetof(CNT_CONFIG, CounterPolarity) == 1, "CounterPolarity at 1");
POLYBUS_STATIC_ASSERT(offsetof(CNT_CONFIG, CounterBitWide) == 2, "CounterBitWide at 2");
POLYBUS_STATIC_ASSERT(offsetof(CNT_CONFIG, CounterPinMode) == 3, "CounterPinMode at 3");
POLYBUS_STATIC_ASSERT(offsetof(CNT_CONFIG, FilterNs) == 4, "FilterNs at 4");
POLYBUS_STATIC_ASSERT(offsetof(CNT_CONFIG, Reserved) == 8, "Reserved at 8");

POLYBUS_API int CNT_Init(int DevHandle, unsigned char ChannelMask, CNT_CONFIG* pConfig);
POLYBUS_API int CNT_Start(int DevHandle, unsigned char ChannelMask);
POLYBUS_API int CNT_Stop(int DevHandle, unsigned char ChannelMask);
/* pValue: 4 entries, one per counter. */
POLYBUS_API int CNT_SetValue(int DevHandle, unsigned char ChannelMask, unsigned int* pValue);
POLYBUS_API int CNT_GetValue(int DevHandle, unsigned char ChannelMask, unsigned int* pValue);

POLYBUS_END_DECLS

#endif
