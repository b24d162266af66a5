/*
 * Polybus: adapters, device information and the adapter's storage areas.
 *
 * USB_ and DEV_ functions return 1 (true) for success and 0 (false) for failure.
 * ARG_ functions return 0 or a negative status (see common.h and below).
 *
 * Recognised adapters: USB vendor 0x0483, product 0x7918 or 0x7919, reporting one of
 * the two manufacturer strings below. An adapter's handle is the 32-bit identifier it
 * reports (its top byte is the model code); an adapter that does not report one gets
 * (bus number << 8) | device address.
 *
 * Threads: any thread may call any device function; each exchange with an adapter is
 * serialised per device. Scanning, opening and closing must not run while other
 * threads use the same devices: a scan closes every adapter, including open ones.
 */
#ifndef POLYBUS_USB_DEVICE_H
#define POLYBUS_USB_DEVICE_H

#include <stddef.h>
#include "common.h"

/* The manufacturer strings an adapter may report; anything else is not ours. */
#define POLYBUS_MANUFACTURER_1 "Polybus Devices Ltd"
#define POLYBUS_MANUFACTURER_2 "Polybus Interfaces"

/* Size of the exported DevHandle/UsbDevList arrays (kept for compatibility; unused). */
#define POLYBUS_DEVHANDLE_SLOTS 20

/* Room DEV_GetDeviceInfo needs at pFunctionString; a longer reply is cut to fit. */
#define POLYBUS_FUNCTION_STRING_SIZE 256
/* Room DEV_GetTimestamp needs at pTimestamp; a longer reply is cut to fit. */
#define POLYBUS_TIMESTAMP_SIZE 16

#pragma pack(push, 1)
/* Device information, 88 bytes, as the adapter sends it (little-endian). The library
 * itself reads only FirmwareVersion and SerialNumber; the rest is passed through. */
typedef struct DEVICE_INFO {
    char FirmwareName[32];
    char BuildDate[32];
    uint32_t HardwareVersion;
    uint32_t FirmwareVersion;   /* byte 68 */
    uint32_t SerialNumber[3];   /* bytes 72..83; the first two identify the product variant */
    uint32_t Functions;
} DEVICE_INFO;
#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(DEVICE_INFO) == 88, "DEVICE_INFO is 88 bytes");
POLYBUS_STATIC_ASSERT(offsetof(DEVICE_INFO, FirmwareVersion) == 68, "DEVICE_INFO layout");
POLYBUS_STATIC_ASSERT(offsetof(DEVICE_INFO, SerialNumber) == 72, "DEVICE_INFO layout");

/* Configuration-area status codes (besides -2 and -4). */
#define ARG_ERR_BUSY (-5)          /* the adapter's status byte was 1 */
#define ARG_ERR_WRITE (-6)         /* ARG_Write: any other failure status */
#define ARG_ERR_READ (-7)          /* ARG_Read: any other failure status */
#define ARG_ERR_NOT_FOUND (-8)     /* no record with that key (also: a chain that loops) */
#define ARG_ERR_CRC (-9)           /* stored CRC does not match the data */
#define ARG_ERR_CHAIN (-10)        /* broken chain, or a last record without a slot size */

POLYBUS_BEGIN_DECLS

/* Handles of adapters that are listed but not open. Kept for compatibility. */
POLYBUS_API extern int DevHandle[POLYBUS_DEVHANDLE_SLOTS];
POLYBUS_API extern void* UsbDevList[POLYBUS_DEVHANDLE_SLOTS];

/* Scans the bus; writes the handles of all adapters in the order first found (room
 * for every adapter on the bus; may be NULL) and returns their number, or a negative
 * libusb error code. Every adapter is left closed, including ones open before. */
POLYBUS_API int USB_ScanDevice(int* pDevHandle);
/* Opens a scanned adapter and confirms it answers (see DEV_GetDeviceInfo: an adapter
 * that does not answer is reset and retried for up to 6 seconds). */
POLYBUS_API bool USB_OpenDevice(int DevHandle);
POLYBUS_API bool USB_CloseDevice(int DevHandle);
/* Asks the adapter to restart; it re-enumerates and must be reconnected
 * (USB_RetryConnect at the same bus address, or a new scan). */
POLYBUS_API bool USB_ResetDevice(int DevHandle);
/* Reopens an adapter that re-enumerated at the same bus number and address. */
POLYBUS_API bool USB_RetryConnect(int DevHandle);

/* pInfo: 88 bytes. pFunctionString: NULL, or room for POLYBUS_FUNCTION_STRING_SIZE bytes. */
POLYBUS_API bool DEV_GetDeviceInfo(int DevHandle, DEVICE_INFO* pInfo, char* pFunctionString);
/* pInfo: 64 bytes of hardware information. */
POLYBUS_API bool DEV_GetHardwareInfo(int DevHandle, unsigned char* pInfo);
POLYBUS_API bool DEV_SetPowerLevel(int DevHandle, char PowerLevel);
/* pTimestamp: room for POLYBUS_TIMESTAMP_SIZE bytes; receives the adapter's raw reply. */
POLYBUS_API bool DEV_GetTimestamp(int DevHandle, char Sel, void* pTimestamp);
POLYBUS_API bool DEV_ResetTimestamp(int DevHandle);
/* User data: offsets must be multiples of 4; a write is at most 20480 bytes. */
POLYBUS_API bool DEV_WriteUserData(int DevHandle, int OffsetAddr, unsigned char* pData, int Len);
POLYBUS_API bool DEV_ReadUserData(int DevHandle, int OffsetAddr, unsigned char* pData, int Len);
POLYBUS_API bool DEV_EraseUserData(int DevHandle);
/* Schedule storage, moved in chunks of 10240 bytes that all carry Addr (the adapter
 * places consecutive chunks itself). A read's last chunk asks the adapter for
 * 10240 % Len bytes (not Len % 10240); nothing beyond Len is stored into pData. */
POLYBUS_API bool DEV_WriteSchData(int DevHandle, int Addr, unsigned char* pData, int Len);
POLYBUS_API bool DEV_ReadSchData(int DevHandle, int Addr, unsigned char* pData, int Len);
POLYBUS_API bool DEV_EraseSchData(int DevHandle, int Arg);
/* Writes the library's build date and time as "0YYY-MM-DD hh:mm:ss" where 0YYY is the
 * year minus 1900 (2026 gives 0126). pBuildTime: at least 32 bytes. */
POLYBUS_API bool DEV_GetDllBuildTime(char* pBuildTime);
/* Stores an application value; nothing in the library reads it. */
POLYBUS_API void DEBUG_SetHandle(int Handle);

/* Configuration area: raw chunked access (chunks of 5120 bytes; chunks after the
 * second carry the address the adapter has always been sent, not Addr + offset). */
POLYBUS_API int ARG_Init(int DevHandle);
POLYBUS_API int ARG_Write(int DevHandle, uint16_t Addr, unsigned char* pData, uint16_t Len);
POLYBUS_API int ARG_Read(int DevHandle, uint16_t Addr, unsigned char* pData, uint16_t Len);
/* Keyed records (keys carry 0x55AA in their upper 16 bits). ARG_ReadArgData returns
 * the record's length; pData needs room for it (at most 65535 bytes). */
POLYBUS_API int ARG_ReadArgData(int DevHandle, unsigned int ArgId, unsigned char* pData);
POLYBUS_API int ARG_WriteArgData(int DevHandle, unsigned int ArgId, unsigned char* pData, unsigned int Len);
POLYBUS_API int ARG_EraseArgData(int DevHandle, int ArgId);

POLYBUS_END_DECLS

#endif
