/*
 * Polybus: I2C master and slave (IIC_ functions).
 *
 * Transfer functions return the firmware's one-byte transfer status when the exchange
 * worked (0 = done; any other value is the firmware's own failure code, passed through
 * as a positive number: test for 0), -2 when the request could not be sent, -4 when the
 * answer was missing or had a wrong length. Master transfers wait 5000 ms for the
 * answer (the firmware bounds the bus transfer itself by TimeOutMs).
 *
 * Reads accept an answer of the status byte alone (the transfer failed on the bus) or
 * the status and all ReadLen bytes; the data are copied to pReadData only when the
 * status is 0. Any other answer length is -4 and nothing is copied.
 *
 * Choices of this library where callers could wonder:
 *   - A negative length, or a length whose buffer is NULL, is refused with
 *     IIC_ERR_ARGUMENT before anything is sent.
 *   - IIC_SlaveReadBytes stores at most IIC_SLAVE_READ_MAX bytes (the adapter's slave
 *     receive buffer); anything beyond is read and discarded, and the count stored is
 *     returned.
 *   - IIC_GetSlaveAddr writes at most 128 entries (7-bit scan) or 1024 (otherwise).
 *   - Channel configurations are kept for channels 0..IIC_MAX_CHANNELS-1 of the first
 *     30 adapters; IIC_Init on another channel or adapter still configures the adapter
 *     but is not remembered, so a later scan of it probes 1024 addresses.
 */
#ifndef POLYBUS_I2C_H
#define POLYBUS_I2C_H

#include <stddef.h>
#include "common.h"

#define IIC_ERR_NULL_ARRAY (-5) /* IIC_GetSlaveAddr: pSlaveAddr is NULL */
#define IIC_ERR_ARGUMENT (-6)   /* negative length, or NULL buffer for a non-zero length */

#define IIC_MAX_CHANNELS 12
#define IIC_SLAVE_READ_MAX 4096

/* Channel configuration (12 bytes). Every field but AddrBits is passed to the firmware
 * unchanged (firmware-defined: clock, mode, pull-ups and similar). AddrBits 10 selects
 * 10-bit addressing; any other value is sent as 7 but stored as given, and only a
 * stored 7 makes a scan probe 128 addresses instead of 1024. */
typedef struct IIC_CONFIG {
    uint32_t Setting32;
    uint16_t Setting16;
    uint8_t Setting8;
    uint8_t AddrBits;
    uint8_t Extra0;
    uint8_t Extra1;
} IIC_CONFIG;

POLYBUS_STATIC_ASSERT(sizeof(IIC_CONFIG) == 12, "IIC_CONFIG is 12 bytes");
POLYBUS_STATIC_ASSERT(offsetof(IIC_CONFIG, Setting16) == 4, "IIC_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(IIC_CONFIG, Setting8) == 6, "IIC_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(IIC_CONFIG, AddrBits) == 7, "IIC_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(IIC_CONFIG, Extra0) == 8, "IIC_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(IIC_CONFIG, Extra1) == 9, "IIC_CONFIG layout");

POLYBUS_BEGIN_DECLS

/* 0 when the firmware accepted the configuration (it is then remembered), else -2/-4. */
POLYBUS_API int IIC_Init(int DevHandle, int IICIndex, IIC_CONFIG* pConfig);
POLYBUS_API int IIC_WriteBytes(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData,
                               int WriteLen, int TimeOutMs);
POLYBUS_API int IIC_ReadBytes(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pReadData, int ReadLen,
                              int TimeOutMs);
POLYBUS_API int IIC_WriteReadBytes(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData,
                                   int WriteLen, unsigned char* pReadData, int ReadLen, int TimeOutMs);
/* Slave mode: hands data to the firmware for a master to read; returns the firmware's
 * two-byte answer read little-endian (0..65535), or -2/-4. Waits TimeOutMs + 100. */
POLYBUS_API int IIC_SlaveWriteBytes(int DevHandle, int IICIndex, unsigned char* pWriteData, int WriteLen,
                                    int TimeOutMs);
/* Slave mode: what a master wrote within TimeOutMs; returns the byte count (0: none). */
POLYBUS_API int IIC_SlaveReadBytes(int DevHandle, int IICIndex, unsigned char* pReadData, int TimeOutMs);
/* Slave mode: how many prepared bytes the master has not read yet. */
POLYBUS_API int IIC_SlaveWriteRemain(int DevHandle, int IICIndex);
/* Event-triggered transfers: the firmware waits up to TimeOutMs for EventType on the
 * pins of EventPin before it starts the transfer. IIC_ReadBytesOfEvent sends only the
 * upper three bytes of EventType. */
POLYBUS_API int IIC_WriteBytesOfEvent(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData,
                                      int WriteLen, int TimeOutMs, unsigned char EventPin, unsigned int EventType);
POLYBUS_API int IIC_ReadBytesOfEvent(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pReadData,
                                     int ReadLen, int TimeOutMs, unsigned char EventPin, unsigned int EventType);
POLYBUS_API int IIC_WriteReadBytesOfEvent(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData,
                                          int WriteLen, unsigned char* pReadData, int ReadLen, int TimeOutMs,
                                          unsigned char EventPin, unsigned int EventType);
/* BlockNum blocks of BlockSize bytes; BlockParam is passed to the firmware unchanged. */
POLYBUS_API int IIC_BlockWriteBytes(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData,
                                    int BlockSize, int BlockNum, int BlockParam);
POLYBUS_API int IIC_BlockReadBytes(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pReadData,
                                   int BlockSize, int BlockNum, int BlockParam);
/* Probes every address with a zero-length write (timeout 5 ms) and stores those that
 * acknowledged, ascending; returns their number. 128 addresses when the channel was
 * initialised with AddrBits 7, otherwise 1024: pSlaveAddr must hold that many. */
POLYBUS_API int IIC_GetSlaveAddr(int DevHandle, int IICIndex, short* pSlaveAddr);

POLYBUS_END_DECLS

#endif
