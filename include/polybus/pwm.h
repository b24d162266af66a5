/*
 * Polybus: PWM outputs and pulse capture.
 *
 * PWM_ functions take a channel mask (bit n is array index n) and per-index arrays of
 * timer values; PWM2_ functions take one channel number and physical values, and
 * compute timer values from the adapter model's timer clock. Returns 0, -2 (not sent),
 * -4 (no or bad answer: every answer must be empty except the 4 capture bytes), and
 * for PWM2_ calls PWM_ERR_ARGUMENT for arguments they refuse.
 *
 * Output frequency = timer clock / (Prescaler x Precision); duty = Pulse / Precision.
 * RunTime is in milliseconds, 0 runs until PWM_Stop.
 *
 * Channel numbers by model (PWM_GetChannelMask, PWM_GetChannelIndex): models whose
 * first PWM bit is 1 have channels 0..7 (indices 0..7); first bit 2: channels 0..6
 * (indices 1..7); first bit 64: channels 0 and 1 (indices 6 and 7). An unknown model
 * has timer clock 0, mask 0 and index 0. A channel of 8 or more has mask 0 (never a
 * bit of a wrapped shift).
 *
 * Kept as the adapter family has always behaved:
 *  - PWM2_Init, PWM2_SetDutyCycle and PWM2_SetFrequency treat a channel of 7 or more as
 *    7; PWM2_Start and PWM2_Stop do not clamp, so channel 8 sends mask 0 (and channel 2
 *    on a first-bit-64 model too): the adapter decides what a zero mask does.
 *  - PWM_Init sends the record raw (little-endian); the array functions send their
 *    arrays big-endian.
 * Choices of this library:
 *  - PWM2_Init sends zeros for the indices it does not configure.
 *  - PWM2_SetFrequency with Frequency x (Precision & 0xFFFF) equal to 0 returns
 *    PWM_ERR_ARGUMENT without sending (the prescaler would divide by zero).
 *  - A null array or record pointer sends zeros; a null pData of PWM_CAP_GetData
 *    discards the 4 bytes.
 *
 * Capture (PWM_CAP_): the 4 bytes of PWM_CAP_GetData are the input's period (u16,
 * little-endian) then its active time (u16, little-endian), in ticks chosen by the low
 * bits of Mode: PWM_CAP_TICK_1US, PWM_CAP_TICK_100NS or PWM_CAP_TICK_10US. With
 * PWM_CAP_ACTIVE_LOW or-ed into Mode the active time is the low time, otherwise the high
 * time. Both are 0 until a whole period has been seen, and 0xFFFF when the period
 * overflows the counter. PWM_CAP_DATA lays the bytes out.
 */
#ifndef POLYBUS_PWM_H
#define POLYBUS_PWM_H

#include <stddef.h>

#include "common.h"

POLYBUS_BEGIN_DECLS

#define PWM_ERR_ARGUMENT (-5)

#define PWM_CAP_TICK_1US 0x00
#define PWM_CAP_TICK_100NS 0x01
#define PWM_CAP_TICK_10US 0x02
#define PWM_CAP_ACTIVE_LOW 0x80

#pragma pack(push, 1)
typedef struct PWM_CONFIG {
    unsigned short Prescaler[8]; /* per array index */
    unsigned short Precision[8]; /* timer counts per period */
    unsigned short Pulse[8];     /* counts in the active part */
    unsigned short Phase[8];     /* phase offset in counts */
    unsigned char Polarity[8];   /* 0: active high, 1: active low */
    unsigned char ChannelMask;   /* indices this record configures */
    unsigned char Reserved;      /* sent as it stands */
} PWM_CONFIG;

typedef struct PWM_CAP_DATA {
    unsigned short Period;     /* capture ticks */
    unsigned short ActiveTime; /* capture ticks */
} PWM_CAP_DATA;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(PWM_CONFIG) == 74, "PWM_CONFIG is 74 bytes");
POLYBUS_STATIC_ASSERT(offsetof(PWM_CONFIG, Precision) == 16, "Precision at 16");
POLYBUS_STATIC_ASSERT(offsetof(PWM_CONFIG, Pulse) == 32, "Pulse at 32");
POLYBUS_STATIC_ASSERT(offsetof(PWM_CONFIG, Phase) == 48, "Phase at 48");
POLYBUS_STATIC_ASSERT(offsetof(PWM_CONFIG, Polarity) == 64, "Polarity at 64");
POLYBUS_STATIC_ASSERT(offsetof(PWM_CONFIG, ChannelMask) == 72, "ChannelMask at 72");
POLYBUS_STATIC_ASSERT(offsetof(PWM_CONFIG, Reserved) == 73, "Reserved at 73");
POLYBUS_STATIC_ASSERT(sizeof(PWM_CAP_DATA) == 4, "capture data is 4 bytes");

POLYBUS_API int PWM_Init(int DevHandle, PWM_CONFIG* pConfig);
POLYBUS_API int PWM_Start(int DevHandle, unsigned char ChannelMask, unsigned int RunTime);
POLYBUS_API int PWM_Stop(int DevHandle, unsigned char ChannelMask);
/* pPulse, pPrescaler, pPrecision, pPhase: 8 entries each, by array index. */
POLYBUS_API int PWM_SetPulse(int DevHandle, unsigned char ChannelMask, unsigned short* pPulse);
POLYBUS_API int PWM_SetFrequency(int DevHandle, unsigned char ChannelMask, unsigned short* pPrescaler,
                                 unsigned short* pPrecision);
POLYBUS_API int PWM_SetPhase(int DevHandle, unsigned char ChannelMask, unsigned short* pPhase);

POLYBUS_API int PWM_CAP_Init(int DevHandle, unsigned char Channel, unsigned char Mode);
/* pData receives the 4 capture bytes as they came (PWM_CAP_DATA). */
POLYBUS_API int PWM_CAP_GetData(int DevHandle, unsigned char Channel, void* pData);
POLYBUS_API int PWM_CAP_Stop(int DevHandle, unsigned char Channel);

/* Prescaler = timer clock / (Frequency x Precision), truncated to 16 bits. Returns
 * PWM_ERR_ARGUMENT without sending when Frequency x Precision (32-bit) is 0, the model
 * is unknown, or the (clamped) channel does not exist on the model. */
POLYBUS_API int PWM2_Init(int DevHandle, unsigned char Channel, unsigned int Frequency, unsigned char Polarity,
                          unsigned int Precision, unsigned int Pulse);
POLYBUS_API int PWM2_Start(int DevHandle, unsigned char Channel, unsigned int RunTime);
POLYBUS_API int PWM2_SetDutyCycle(int DevHandle, unsigned char Channel, unsigned short Pulse);
POLYBUS_API int PWM2_SetFrequency(int DevHandle, unsigned char Channel, unsigned int Frequency,
                                  unsigned int Precision);
POLYBUS_API int PWM2_Stop(int DevHandle, unsigned char Channel);

POLYBUS_API int PWM_GetChannelMask(int DevHandle, unsigned char Channel);
POLYBUS_API int PWM_GetChannelIndex(int DevHandle, unsigned char Channel);
POLYBUS_API unsigned int PWM_GetMCUFrequency(int DevHandle);

POLYBUS_END_DECLS

#endif
