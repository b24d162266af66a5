/*
 * Polybus: analog inputs. Up to eight inputs, selected by a mask, sampled at a rate
 * per input, as 16-bit samples (12-bit values on the simulated adapter). For each
 * sampling instant the adapter sends one sample per selected input, in ascending
 * input order.
 *
 * One-shot: ADC_Init, then ADC_Read. Continuous: ADC_StartContinueRead starts the
 * adapter streaming frames of FrameSize samples and a reader thread that hands each
 * frame to the callback (on the reader thread) or keeps it in the device's frame list
 * for ADC_GetData. While streaming, frames and answers share the adapter's IN pipe: do
 * not send other commands to that adapter between start and stop, and stop streaming
 * before closing the device.
 *
 * Kept as the adapter family has always behaved:
 *  - ADC_Read succeeds only when the answer carries DataNum x 2 x n bytes, where n
 *    counts the bits of the stored mask read as a signed byte and widened to 32 bits:
 *    a mask with bit 7 set counts 24 bits too many, so such reads return -4 (the
 *    samples that came are in pData all the same).
 *  - ADC_Read waits 100 ms for DataNum below 2, otherwise
 *    (DataNum x 1000 - 1000) / rate + 1000 ms in signed 32-bit arithmetic with the
 *    rate of the last ADC_Init or ADC_StartContinueRead.
 *  - FrameSize is clamped to ADC_MAX_FRAME_SIZE samples.
 *  - ADC_StopContinueRead always returns 0; a second stop returns at once.
 *  - ADC_GetData returns 0 when BufferSize is smaller than a frame, and otherwise
 *    copies whole frames only, oldest first; frames left after a stop stay for it.
 * Choices of this library:
 *  - ADC_Read writes at most DataNum x (inputs in the mask) samples into pData; more
 *    is drained. A rate of 0 (no ADC_Init yet) waits 1000 ms; a formula below 1 ms
 *    waits 1 ms.
 *  - Frames are handed from the reader thread to ADC_GetData under a data mutex of
 *    the device; ADC_GetData does not take the device's exchange lock.
 *  - A short frame (fewer bytes than a frame) is copied as far as it came and the rest
 *    of its room zero-filled, so the count stays a multiple of the frame size. The
 *    frame size is that of the current stream.
 *  - ADC_StartContinueRead returns -1 without sending when the device has no state
 *    slot (not listed, or the 31st and later adapter), when FrameSize is below 1, or
 *    when a reader is still running on the device (stop it first).
 *  - A reader thread that ended on its own (unplug) is joined by the next start,
 *    stop, ADC_WaitForThreadExit, or at unload.
 *  - The reader never frees its transfer while the transfer is still in flight.
 *  - The reader thread asks the scheduler for its shortest time slice (Linux 6.12 and
 *    later; refused quietly before), keeping its niceness, so that on a busy machine
 *    it runs as soon as a frame arrives.
 *  - A stream that ended on a transfer error keeps its reader waiting for the stop,
 *    but an unplug noticed then ends the reader as an unplug during streaming does.
 *  - Frames the list drops (at unload) are freed whole, node and buffer.
 *  - The frame list is not bounded: drain it while streaming to a null callback.
 */
#ifndef POLYBUS_ADC_H
#define POLYBUS_ADC_H

#include "common.h"

POLYBUS_BEGIN_DECLS

#define ADC_MAX_FRAME_SIZE 10240

/* Frame callback: the handle, the frame's samples as received, and their number
 * (received bytes / 2). Runs on the reader thread; the result is ignored. The samples
 * are valid only during the call. */
typedef int (*ADC_GET_DATA_HANDLE)(int DevHandle, short* pData, int DataNum);

POLYBUS_API int ADC_Init(int DevHandle, unsigned char Channel, unsigned int SampleRateHz);
/* DataNum samples per selected input into pData (DataNum x inputs entries). */
POLYBUS_API int ADC_Read(int DevHandle, short* pData, unsigned int DataNum);
/* pCallback may be null: frames then wait in the frame list for ADC_GetData. */
POLYBUS_API int ADC_StartContinueRead(int DevHandle, unsigned char Channel, unsigned int SampleRateHz, int FrameSize,
                                      ADC_GET_DATA_HANDLE pCallback);
POLYBUS_API int ADC_StopContinueRead(int DevHandle);
/* BufferSize in samples; returns the number of samples copied. */
POLYBUS_API int ADC_GetData(int DevHandle, short* pData, int BufferSize);
/* Waits for the reader to end (after a stop from another thread, or an unplug):
 * 0 after joining it, -1 when no reader is running. */
POLYBUS_API int ADC_WaitForThreadExit(int DevHandle);

POLYBUS_END_DECLS

#endif
