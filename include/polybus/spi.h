/*
 * Polybus: SPI master and slave, continuous slave reading, and serial NOR flash
 * (SPI_ functions). Ports are 0 and 1; byte 0 of every request is the port.
 *
 * Results: 0 (or a count), -2 not sent, -4 missing or malformed answer, and:
 *   SPI_ERR_BITS      (-5) a bit string holds a character other than '0'/'1' in the
 *                          part that would be sent; nothing is sent. Also: the answer
 *                          buffer of an ...OfEvent read could not be allocated.
 *   SPI_ERR_EVENT     (-6) ...OfEvent: the adapter's status was non-zero (the event did
 *                          not come within TimeOutMs, or the transfer failed)
 *   SPI_ERR_TIMEOUT   (-6) flash host sequences: a wait exceeded TimeOutMs
 *   SPI_ERR_ARGUMENT  (-7) a request that cannot be built: negative length, NULL
 *                          buffer for a non-zero length, or a slave full-duplex request
 *                          beyond its area (write data over SPI_SLAVE_DUPLEX_WRITE_MAX
 *                          or ReadLen over SPI_SLAVE_DUPLEX_READ_MAX). Nothing is sent.
 *
 * Bit strings: NUL-terminated "0"/"1" text, first character first on the wire, packed
 * MSB first, the last byte padded with 0 bits. Strings longer than 163,840 characters
 * are cut to that many bits; the rest is neither checked nor sent. A read string must
 * hold ReadBitsNum + 1 characters.
 *
 * Choices of this library where callers could wonder:
 *   - Answers are never written past the caller's buffer: SPI_ReadBytes and
 *     SPI_WriteReadBytes store at most ReadLen bytes, the block reads at most the
 *     block total, SPI_SlaveReadBytesFromBuffer at most SPI_SLAVE_CHUNK_MAX; the rest
 *     of a longer answer is read and discarded. The success rules (which answer lengths
 *     count as success) are unchanged by this.
 *   - The slave full-duplex calls copy at most ReadLen of the received bytes, and only
 *     bytes that arrived; the count in the result is the adapter's.
 *   - SPI_ReadBytesOfEvent releases the device on every path; the bit-string reads free
 *     their buffers on every path.
 *   - SPI_SlaveReadBytes reads whole adapter chunks: the total may exceed ReadLen by up
 *     to one chunk, so pReadData must hold ReadLen + SPI_SLAVE_CHUNK_MAX bytes.
 *
 * Continuous slave reading: SPI_SlaveContinueRead starts one thread per adapter that
 * polls every streaming port about every millisecond. Received chunks go to the port's
 * callback (called on that thread; the data pointer is valid during the call only) or,
 * without a callback, to a host buffer of SPI_SLAVE_BUFFER_SIZE bytes per port that
 * keeps the newest bytes; SPI_SlaveGetBytes drains it. A failed poll (unplug) ends the
 * thread and clears both ports' streaming state; the thread stays registered until
 * SPI_SlaveContinueWriteReadStop is called, and a SPI_SlaveContinueRead before that
 * does not start a new one. Only the first 30 adapters can stream (others get -4).
 */
#ifndef POLYBUS_SPI_H
#define POLYBUS_SPI_H

#include <stddef.h>
#include "common.h"

#define SPI_ERR_BITS (-5)
#define SPI_ERR_EVENT (-6)
#define SPI_ERR_TIMEOUT (-6)
#define SPI_ERR_ARGUMENT (-7)

#define SPI_MAX_BITS 163840
#define SPI_SLAVE_CHUNK_MAX 61440
#define SPI_SLAVE_BUFFER_SIZE 2097152
#define SPI_SLAVE_DUPLEX_WRITE_MAX 20495
#define SPI_SLAVE_DUPLEX_READ_MAX 20488

/* Port configuration: 12 bytes in memory; the six setting bytes and ClockSpeedHz are
 * sent (the two alignment bytes are not). Mode, CPOL, CPHA, LSBFirst and SelPolarity
 * are the adapter's: CPOL/CPHA 0 or 1 as the SPI modes name them, LSBFirst 1 for
 * least significant bit first, SelPolarity 1 for an active-high select, Mode 0 for
 * full duplex. */
typedef struct SPI_CONFIG {
    uint8_t Mode;
    uint8_t Master;      /* 1: bus master, 0: slave */
    uint8_t CPOL;
    uint8_t CPHA;
    uint8_t LSBFirst;
    uint8_t SelPolarity;
    uint8_t Reserved[2];
    uint32_t ClockSpeedHz;
} SPI_CONFIG;

POLYBUS_STATIC_ASSERT(sizeof(SPI_CONFIG) == 12, "SPI_CONFIG is 12 bytes");
POLYBUS_STATIC_ASSERT(offsetof(SPI_CONFIG, SelPolarity) == 5, "SPI_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(SPI_CONFIG, ClockSpeedHz) == 8, "SPI_CONFIG layout");

/* Serial NOR flash description (44 bytes), sent to the adapter as it lies in memory.
 * The host reads WriteEnableCmd, ChipEraseCmd, ReadStatusCmd and IDLength; the adapter
 * uses the rest for page programming, sector erase and reads. Multi-byte fields are
 * little-endian. */
#pragma pack(push, 1)
typedef struct SPI_FLASH_CONFIG {
    uint8_t WriteEnableCmd;     /* 0:  e.g. 0x06 */
    uint8_t WriteDisableCmd;    /* 1:  e.g. 0x04 */
    uint8_t PageProgramCmd;     /* 2:  e.g. 0x02 */
    uint8_t ReadCmd;            /* 3:  e.g. 0x03 */
    uint8_t FastReadCmd;        /* 4:  e.g. 0x0B */
    uint8_t SectorEraseCmd;     /* 5:  e.g. 0x20 */
    uint8_t BlockEraseCmd;      /* 6:  e.g. 0xD8 */
    uint8_t ChipEraseCmd;       /* 7:  e.g. 0xC7 */
    uint8_t ReadIDCmd;          /* 8:  e.g. 0x9F */
    uint8_t AddrBytes;          /* 9:  address bytes after a command, 3 or 4 */
    uint8_t DummyBytes;         /* 10: dummy bytes after a fast-read address */
    uint8_t WriteStatusCmd;     /* 11: e.g. 0x01 */
    uint8_t PowerUpCmd;         /* 12: sent by the adapter at init when non-zero, e.g. 0xAB */
    uint8_t ReadStatusCmd;      /* 13: e.g. 0x05 */
    uint8_t BusyMask;           /* 14: status bit(s) meaning busy, usually 0x01 */
    uint8_t WelMask;            /* 15: status bit(s) meaning write enabled, usually 0x02 */
    uint32_t PageSize;          /* 16: program page, e.g. 256 */
    uint32_t SectorSize;        /* 20: erase sector, e.g. 4096 */
    uint32_t SectorCount;       /* 24: sectors in the device */
    uint8_t Reserved28[3];      /* 28: zero */
    uint8_t IDLength;           /* 31: identification bytes; 0 is taken (and stored) as 1 */
    uint32_t ProgramTimeoutMs;  /* 32: adapter's limit for one page program */
    uint32_t EraseTimeoutMs;    /* 36: adapter's limit for one sector erase */
    uint8_t Reserved40[4];      /* 40: zero */
} SPI_FLASH_CONFIG;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(SPI_FLASH_CONFIG) == 44, "SPI_FLASH_CONFIG is 44 bytes");
POLYBUS_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, ChipEraseCmd) == 7, "SPI_FLASH_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, ReadStatusCmd) == 13, "SPI_FLASH_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, PageSize) == 16, "SPI_FLASH_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, IDLength) == 31, "SPI_FLASH_CONFIG layout");
POLYBUS_STATIC_ASSERT(offsetof(SPI_FLASH_CONFIG, EraseTimeoutMs) == 36, "SPI_FLASH_CONFIG layout");

/* Receives slave chunks on the streaming thread; the result is ignored. */
typedef int (*SPI_GET_DATA_HANDLE)(int DevHandle, int SPIIndex, unsigned char* pData, int DataNum);

POLYBUS_BEGIN_DECLS

POLYBUS_API int SPI_Init(int DevHandle, int SPIIndex, SPI_CONFIG* pConfig);
POLYBUS_API int SPI_WriteBytes(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen);
POLYBUS_API int SPI_WriteBytesAsync(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen);
/* The answer is not length-checked: 0 whenever an answer came. */
POLYBUS_API int SPI_ReadBytes(int DevHandle, int SPIIndex, unsigned char* pReadData, int ReadLen);
POLYBUS_API int SPI_WriteReadBytes(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen,
                                   unsigned char* pReadData, int ReadLen, int IntervalTimeUs);
POLYBUS_API int SPI_WriteBytesOfEvent(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen,
                                      int EventPin, int EventType, int TimeOutMs);
POLYBUS_API int SPI_ReadBytesOfEvent(int DevHandle, int SPIIndex, unsigned char* pReadData, int ReadLen,
                                     int EventPin, int EventType, int TimeOutMs);
POLYBUS_API int SPI_WriteReadBytesOfEvent(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen,
                                          unsigned char* pReadData, int ReadLen, int IntervalTimeUs, int EventPin,
                                          int EventType, int TimeOutMs);
POLYBUS_API int SPI_BlockWriteBytes(int DevHandle, int SPIIndex, unsigned char* pWriteData, int BlockSize,
                                    int BlockNum, int IntervalTimeUs);
/* -4 when the answer is not BlockSize*BlockNum bytes, although what came was copied. */
POLYBUS_API int SPI_BlockReadBytes(int DevHandle, int SPIIndex, unsigned char* pReadData, int BlockSize,
                                   int BlockNum, int IntervalTimeUs);
POLYBUS_API int SPI_BlockWriteReadBytes(int DevHandle, int SPIIndex, unsigned char* pWriteData,
                                        int WriteBlockSize, unsigned char* pReadData, int ReadBlockSize,
                                        int BlockNum, int IntervalTimeUs);
POLYBUS_API int SPI_BlockWriteBytesOfEvent(int DevHandle, int SPIIndex, unsigned char* pWriteData, int BlockSize,
                                           int BlockNum, int EventPin, int EventType, int TimeOutMs);
POLYBUS_API int SPI_BlockReadBytesOfEvent(int DevHandle, int SPIIndex, unsigned char* pReadData, int BlockSize,
                                          int BlockNum, int EventPin, int EventType, int TimeOutMs);
POLYBUS_API int SPI_BlockWriteReadBytesOfEvent(int DevHandle, int SPIIndex, unsigned char* pWriteData,
                                               int WriteBlockSize, unsigned char* pReadData, int ReadBlockSize,
                                               int BlockNum, int EventPin, int EventType, int TimeOutMs);
POLYBUS_API int SPI_WriteBits(int DevHandle, int SPIIndex, char* pWriteBitStr);
POLYBUS_API int SPI_ReadBits(int DevHandle, int SPIIndex, char* pReadBitStr, int ReadBitsNum);
POLYBUS_API int SPI_WriteReadBits(int DevHandle, int SPIIndex, char* pWriteBitStr, char* pReadBitStr,
                                  int ReadBitsNum);

/* Slave side. */
/* Returns the number of bytes the master clocked out (the adapter's count). */
POLYBUS_API int SPI_SlaveWriteBytes(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen,
                                    int TimeOutMs);
/* Both return (bytes sent to the master, low 16 bits) << 16 | bytes received. */
POLYBUS_API int SPI_SlaveReadWriteBytes(int DevHandle, int SPIIndex, unsigned char* pReadData, int ReadLen,
                                        unsigned char* pWriteData, int WriteLen, int TimeOutMs);
POLYBUS_API int SPI_SlaveWriteReadBytes(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen,
                                        unsigned char* pReadData, int ReadLen, int TimeOutMs);
/* What the adapter holds for the port (at most SPI_SLAVE_CHUNK_MAX bytes are stored);
 * returns the count. */
POLYBUS_API int SPI_SlaveReadBytesFromBuffer(int DevHandle, int SPIIndex, unsigned char* pReadData, int TimeOutMs);
POLYBUS_API int SPI_SlaveStartContinueRead(int DevHandle, int SPIIndex);
POLYBUS_API int SPI_SlaveStopContinueRead(int DevHandle, int SPIIndex);
POLYBUS_API int SPI_SlaveContinueWrite(int DevHandle, int SPIIndex, unsigned char* pWriteData, int WriteLen);
/* Collects at least ReadLen bytes, or what came within TimeOutMs (<= 0: no limit);
 * the adapter is polled at most once per 10 ms of the budget. */
POLYBUS_API int SPI_SlaveReadBytes(int DevHandle, int SPIIndex, unsigned char* pReadData, int ReadLen,
                                   int TimeOutMs);
POLYBUS_API int SPI_SlaveContinueRead(int DevHandle, int SPIIndex, SPI_GET_DATA_HANDLE pSlaveReadDataHandle);
POLYBUS_API int SPI_SlaveGetBytes(int DevHandle, int SPIIndex, unsigned char* pReadData, int BufferSize);
POLYBUS_API int SPI_SlaveContinueWriteReadStop(int DevHandle, int SPIIndex);

/* Serial NOR flash on a master port (set up with SPI_Init first). */
/* Sends ClockSpeed and the description; on success remembers it for the port. An
 * IDLength of 0 is set to 1 in pConfig before it is sent. */
POLYBUS_API int SPI_FlashInit(int DevHandle, int SPIIndex, int ClockSpeed, SPI_FLASH_CONFIG* pConfig);
/* pID receives IDLength bytes; -4 for an answer of another length. */
POLYBUS_API int SPI_FlashReadID(int DevHandle, int SPIIndex, unsigned char* pID);
POLYBUS_API int SPI_FlashEraseSector(int DevHandle, int SPIIndex, int StartSector, int NumSector, int TimeOutMs);
POLYBUS_API int SPI_FlashWrite(int DevHandle, int SPIIndex, int StartAddr, unsigned char* pWriteData, int WriteLen);
/* -4 for an answer shorter than ReadLen, although the bytes that came are stored. */
POLYBUS_API int SPI_FlashRead(int DevHandle, int SPIIndex, int StartAddr, unsigned char* pReadData, int ReadLen);
/* As SPI_FlashRead, but any answer counts as success. */
POLYBUS_API int SPI_FlashReadFast(int DevHandle, int SPIIndex, int StartAddr, unsigned char* pReadData,
                                  int ReadLen);
/* Host-sequenced erases, polling the status register every 10 ms. Each wait checks the
 * elapsed time before the status, so a TimeOutMs below 10 always gives -6; each wait
 * step starts its own count, so the whole call may take about three times TimeOutMs.
 * A failed transfer is returned as it is. The port's description from SPI_FlashInit
 * gives the commands; a port never initialised uses an all-zero description. */
POLYBUS_API int SPI_FlashEraseChip(int DevHandle, int SPIIndex, int TimeOutMs);
POLYBUS_API int SPI_FlashErase(int DevHandle, int SPIIndex, int StartAddr, unsigned char AddrBytes,
                               unsigned char EraseCmd, int TimeOutMs);

POLYBUS_END_DECLS

#endif
