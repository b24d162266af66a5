/*
 * Polybus: UART ports (UART_ functions).
 *
 * Returns 0, -2 (not sent) or -4 (no answer, or an answer with a payload where none
 * belongs); UART_ReadBytes returns a byte count. The adapter buffers what a port
 * receives (UART_RX_BUFFER bytes per port; older bytes are kept, newer ones dropped when
 * it is full) until UART_ReadBytes fetches it.
 *
 * Choices of this library where callers could wonder:
 *   - UART_ReadBytes stores at most UART_READ_MAX bytes (one adapter answer cannot hold
 *     more); pReadData must have room for that many.
 *   - The write functions free their request buffer on every path.
 *   - A negative DataLen, or a NULL pWriteData with a non-zero DataLen, is refused with
 *     UART_ERR_ARGUMENT before anything is sent.
 */
#ifndef POLYBUS_UART_H
#define POLYBUS_UART_H

#include <stddef.h>
#include "common.h"

#define UART_ERR_ARGUMENT (-5)
#define UART_RX_BUFFER 4096
#define UART_READ_MAX UART_RX_BUFFER

/* 8 bytes, sent as they lie in memory: BaudRate travels little-endian. The four
 * setting bytes are the adapter's (word length, stop bits, parity, flow control), sent
 * unchanged; 0 selects 8 data bits, 1 stop bit, no parity. */
typedef struct UART_CONFIG {
    uint32_t BaudRate;
    uint8_t FrameSetting1;
    uint8_t FrameSetting2;
    uint8_t FrameSetting3;
    uint8_t FrameSetting4;
} UART_CONFIG;

POLYBUS_STATIC_ASSERT(sizeof(UART_CONFIG) == 8, "UART_CONFIG is 8 bytes");
POLYBUS_STATIC_ASSERT(offsetof(UART_CONFIG, FrameSetting1) == 4, "UART_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(UART_CONFIG, FrameSetting4) == 7, "UART_CONFIG layout");

POLYBUS_BEGIN_DECLS

POLYBUS_API int UART_Init(int DevHandle, int UARTIndex, UART_CONFIG* pConfig);
/* Returns once the adapter has sent the bytes (waits up to 5000 ms for that). */
POLYBUS_API int UART_WriteBytes(int DevHandle, int UARTIndex, unsigned char* pWriteData, int DataLen);
/* The same with its own command code; the host still waits for the answer. */
POLYBUS_API int UART_WriteBytesAsync(int DevHandle, int UARTIndex, unsigned char* pWriteData, int DataLen);
/* A pause of IntervalTimeMs between bytes; only its low byte is sent (0..255 ms), and
 * the answer is awaited (IntervalTimeMs & 0xFF) x DataLen + 5000 ms. */
POLYBUS_API int UART_WriteBytesInterval(int DevHandle, int UARTIndex, unsigned char* pWriteData, int DataLen,
                                        int IntervalTimeMs);
/* Polls about every millisecond until bytes came or TimeOutMs polls were made (one poll
 * when TimeOutMs < 1); returns the count (0: nothing arrived), -2 or -4. */
POLYBUS_API int UART_ReadBytes(int DevHandle, int UARTIndex, unsigned char* pReadData, int TimeOutMs);
/* Discards what the adapter buffered for the port. */
POLYBUS_API int UART_ClearData(int DevHandle, int UARTIndex);

POLYBUS_END_DECLS

#endif
