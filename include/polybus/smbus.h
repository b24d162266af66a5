/*
 * Polybus: SMBus transactions on an I2C channel (SMBUS_ functions).
 *
 * Results as in i2c.h: the firmware's status byte (0 = done), -2 not sent, -4 missing
 * or malformed answer. The firmware computes and checks the packet error code when
 * WithPEC is non-zero; the library only passes the flag. Every transaction gives the
 * bus 10 ms. Words travel high byte first.
 *
 * Block reads (SMBUS_BlockRead, SMBUS_BlockProcessCall) differ: when no answer header
 * arrives they return -3 (not -4). With status 0 and a block, the block is copied to
 * pReadData and its length stored at *pReadLen; with status 0 and no block, nothing is
 * copied and *pReadLen is left as it was.
 *
 * Choices of this library where callers could wonder:
 *   - The block answer lands in an area of SMBUS_BLOCK_MAX bytes; a longer answer is
 *     read and discarded, and the call returns -4 without copying anything. pReadData
 *     must hold the longest block the device can send (never more than
 *     SMBUS_BLOCK_MAX - 1 bytes); only bytes that arrived are copied and counted.
 *   - A negative WriteLen, or a NULL pWriteData with a non-zero WriteLen, or NULL
 *     pReadData / pReadLen, is refused with SMBUS_ERR_ARGUMENT before anything is sent.
 *   - SMBUS_ReadWordProtocol and SMBUS_ProcessCall store the word whatever the status;
 *     it means something only when the status is 0.
 */
#ifndef POLYBUS_SMBUS_H
#define POLYBUS_SMBUS_H

#include "common.h"

#define SMBUS_ERR_ARGUMENT (-5)
#define SMBUS_BLOCK_MAX 20480

POLYBUS_BEGIN_DECLS

/* IIC_Init with Setting32, Setting8 1, AddrBits 7, Extra0/Extra1 the low two bytes of
 * Extra (low byte first) and Setting16 0. */
POLYBUS_API int SMBUS_Init(int DevHandle, int SMBUSIndex, unsigned int Setting32, unsigned int Extra);
/* WriteFlag non-zero: a zero-length write; zero: a zero-length read. */
POLYBUS_API int SMBUS_QuickCommand(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char WriteFlag);
POLYBUS_API int SMBUS_WriteByte(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char Data,
                                unsigned char WithPEC);
POLYBUS_API int SMBUS_ReadByte(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char* pData,
                               unsigned char WithPEC);
POLYBUS_API int SMBUS_WriteByteProtocol(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                        unsigned char Data, unsigned char WithPEC);
POLYBUS_API int SMBUS_WriteWordProtocol(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                        unsigned short Data, unsigned char WithPEC);
POLYBUS_API int SMBUS_ReadByteProtocol(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                       unsigned char* pData, unsigned char WithPEC);
POLYBUS_API int SMBUS_ReadWordProtocol(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                       unsigned short* pData, unsigned char WithPEC);
POLYBUS_API int SMBUS_ProcessCall(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                  unsigned short WriteData, unsigned short* pReadData, unsigned char WithPEC);
POLYBUS_API int SMBUS_BlockWrite(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                 unsigned char* pWriteData, int WriteLen, unsigned char WithPEC);
POLYBUS_API int SMBUS_BlockRead(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                unsigned char* pReadData, int* pReadLen, unsigned char WithPEC);
POLYBUS_API int SMBUS_BlockProcessCall(int DevHandle, int SMBUSIndex, short SlaveAddr, unsigned char CommandCode,
                                       unsigned char* pWriteData, int WriteLen, unsigned char* pReadData,
                                       int* pReadLen, unsigned char WithPEC);

POLYBUS_END_DECLS

#endif
