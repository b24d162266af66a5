/*
 * Polybus: transport trace.
 *
 * An application can watch every command the library exchanges with its adapters,
 * for logging USB traffic or for checking its own programs. The callback sees each
 * request as it is written and each answer as it is read:
 *
 *   - POLYBUS_TRACE_SEND / POLYBUS_TRACE_SEND_INT: a request frame. Command, Length and
 *     Data are the request's; Endpoint is the OUT endpoint; TimeOutMs the write timeout;
 *     Result 0 when written, -2 when not.
 *   - POLYBUS_TRACE_GET: an answer. Result 0 when the 8-byte header came (then Command
 *     and Length are the answer's, Data/DataLen the payload bytes actually received),
 *     -3 when it did not; TimeOutMs is the answer timeout.
 *   - POLYBUS_TRACE_CONTROL: a vendor control request on endpoint 0 (reading the
 *     adapter's identifier, resetting it). Endpoint is 0; Command is bRequest; RequestType,
 *     Value and Index are bmRequestType, wValue and wIndex; Length is wLength; Data/DataLen
 *     the bytes that moved in the data stage; TimeOutMs the request's timeout; Result is
 *     libusb's: the bytes moved, or a negative libusb error code. The identifier is read
 *     while a scan recognises the adapter, before it has a handle: that event has
 *     DevHandle 0. (RequestType, Value and Index are 0 in the other kinds.)
 *
 * The callback runs on the thread that made the call, usually while that device's
 * exchange lock is held: it must return quickly and must not call library functions
 * for the same device. Data is valid only during the callback.
 */
#ifndef POLYBUS_TRACE_H
#define POLYBUS_TRACE_H

#include "common.h"

#define POLYBUS_TRACE_SEND 1
#define POLYBUS_TRACE_SEND_INT 2
#define POLYBUS_TRACE_GET 3
#define POLYBUS_TRACE_CONTROL 4

typedef struct POLYBUS_TRACE_EVENT {
    int DevHandle;
    int Kind;               /* POLYBUS_TRACE_SEND, _SEND_INT, _GET or _CONTROL */
    int Endpoint;           /* 0x01, 0x02, 0x81, or 0 for a control request */
    uint32_t Command;
    uint32_t Length;        /* request length, or the length the answer announced */
    const uint8_t* Data;    /* payload bytes (may be NULL when DataLen is 0) */
    uint32_t DataLen;       /* bytes available at Data */
    int TimeOutMs;
    int Result;
    int RequestType;        /* control requests: bmRequestType */
    int Value;              /* control requests: wValue */
    int Index;              /* control requests: wIndex */
} POLYBUS_TRACE_EVENT;

typedef void (*POLYBUS_TRACE_CALLBACK)(const POLYBUS_TRACE_EVENT* event, void* user);

POLYBUS_BEGIN_DECLS
/* Installs (or, with NULL, removes) the process-wide trace callback. */
POLYBUS_API void USB_SetTraceCallback(POLYBUS_TRACE_CALLBACK callback, void* user);
POLYBUS_END_DECLS

#endif
