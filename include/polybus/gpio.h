/*
 * Polybus: general-purpose pins. Pins are addressed by mask (bit n is pin n); every
 * call acts on all pins whose bit is set. Returns 0, -2 (not sent) or -4 (no or bad
 * answer).
 */
#ifndef POLYBUS_GPIO_H
#define POLYBUS_GPIO_H

#include "common.h"

POLYBUS_BEGIN_DECLS

/* Mode is passed to the adapter unchanged (pull-up/pull-down/none, adapter-defined). */
POLYBUS_API int GPIO_SetInput(int DevHandle, unsigned int PinMask, unsigned char Mode);
POLYBUS_API int GPIO_SetOutput(int DevHandle, unsigned int PinMask, unsigned char Mode);
POLYBUS_API int GPIO_SetOpenDrain(int DevHandle, unsigned int PinMask, unsigned char Mode);
POLYBUS_API int GPIO_Write(int DevHandle, unsigned int PinMask, unsigned int PinValue);
POLYBUS_API int GPIO_Read(int DevHandle, unsigned int PinMask, unsigned int* pPinValue);
/* Emits PulseNum pulses of PulseWidthUs in every period. A period not longer than the
 * width becomes width + 1. The call returns when the adapter reports the train done
 * (it waits period x count / 1000 + 1000 ms for that). */
POLYBUS_API int GPIO_SendPulses(int DevHandle, unsigned int PinMask, unsigned int PulseWidthUs,
                                unsigned int PulsePeriodUs, unsigned int PulseNum);

POLYBUS_END_DECLS

#endif
