/*
 * Polybus: analog output. DAC_Init loads a waveform, DAC_Start plays it in a loop,
 * DAC_Stop ends it. Returns 0, -2 (not sent) or -4 (no answer, or an answer carrying a
 * payload).
 *
 * The waveform travels raw, little-endian, unlike most families: WaveHeader, then the
 * DataNum values. WaveHeader is the time each value is held, in microseconds (0 is
 * taken as 1); values are 12-bit output codes (0..4095 for 0..3.3 V).
 * DataNum 0 sends the header alone; a negative DataNum is taken as 0; a null pData
 * with DataNum above 0 sends zeros.
 */
#ifndef POLYBUS_DAC_H
#define POLYBUS_DAC_H

#include "common.h"

POLYBUS_BEGIN_DECLS

POLYBUS_API int DAC_Init(int DevHandle, unsigned short WaveHeader, unsigned short* pData, int DataNum);
POLYBUS_API int DAC_Start(int DevHandle);
POLYBUS_API int DAC_Stop(int DevHandle);

POLYBUS_END_DECLS

#endif
