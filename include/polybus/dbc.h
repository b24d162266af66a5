/*
 * Polybus: DBC databases (CAN network descriptions).
 *
 * DBC_ParserFile reads a DBC file into an in-memory database and returns its
 * handle. The other functions set and read physical signal values and move them
 * into and out of CAN_MSG / CANFD_MSG records; none of them talks to an adapter.
 *
 * Results (32-bit signed) unless a function says otherwise:
 *   DBC_OK           (0)  success
 *   DBC_ERR_HANDLE  (-4)  null database handle, or a handle DBC_ParserFile did not
 *                         return; also a null output pointer
 *   DBC_ERR_NOT_FOUND (-5) no message / signal of that name, or index out of range
 *
 * Databases are never released; each lives until the process ends. A database may
 * be used from one thread at a time: callers serialise concurrent calls on one handle.
 *
 * Behaviour worth knowing:
 *  - Names are compared exactly (case-sensitive); with duplicate names the first in
 *    file order wins. A null name is treated like an unknown name (-5).
 *  - A line ends at LF or CR LF, at a NUL byte, or after 8191 bytes (the rest of a
 *    longer line is read as the next line). Lines are split at single spaces only and
 *    bytes are kept as they are in the file (no character-set conversion).
 *  - A multiplex indicator holding both letters (extended multiplexing, "m1M") makes
 *    the signal a multiplexer switch.
 *  - A physical value is clamped to the signal's [minimum, maximum] before it is
 *    converted; a signal declared with the range [0|0] therefore always stores 0.
 *  - IEEE float/double interpretation (SIG_VALTYPE_ 1/2) applies to signed signals
 *    only; an unsigned float signal is scaled as an integer.
 *  - A raw value that does not fit 64 bits saturates, NaN converts to 0, and a
 *    negative raw value of an unsigned signal wraps to two's complement (its low
 *    bits land in the frame like those of a signed value).
 *  - Signal bits outside the frame's data area (past Data[7] of a CAN_MSG, past
 *    Data[63] of a CANFD_MSG) are neither written nor read; bytes outside it read as 0.
 *    Bits of a field longer than 64 bits above bit 63 of the raw value are written as 0.
 *  - Receivers equal to the placeholder node name (Vector__XXX) are kept as ordinary
 *    receiver names. Attribute definitions of types other than ENUM, INT, HEX and
 *    FLOAT keep no parameters.
 *  - A VAL_ description keeps the spaces of the file between its quotes; a BA_,
 *    BA_DEF_DEF_ or ENUM value spread over several space-separated tokens is rejoined
 *    with single spaces.
 *  - Identifiers in BO_ lines and keys in VAL_ lines are decimal, or hexadecimal with
 *    a 0x prefix (a leading 0 does not mean octal); every other number is decimal.
 *
 * Output text buffers are filled without a bound (the caller provides room). A name,
 * publisher or value description is at most DBC_MAX_NAME_LEN bytes plus the
 * terminating NUL (it comes from a single line of at most 8191 bytes); the value text
 * of DBC_GetSignalValueStr is at most DBC_MAX_VALUE_TEXT_LEN bytes plus the NUL.
 */
#ifndef POLYBUS_DBC_H
#define POLYBUS_DBC_H

#include "can.h"
#include "canfd.h"
#include "common.h"

#define DBC_OK 0
#define DBC_ERR_HANDLE (-4)
#define DBC_ERR_NOT_FOUND (-5)

#define DBC_MAX_NAME_LEN 8191
/* "%f" of the largest double (317 bytes with sign) + space + a unit of one line. */
#define DBC_MAX_VALUE_TEXT_LEN (320 + 1 + DBC_MAX_NAME_LEN)

POLYBUS_BEGIN_DECLS

/*
 * Loads a DBC file. Returns the database handle, or 0 when DevHandle is not an open
 * adapter (listed and opened with USB_OpenDevice), when pDBCFileName is null, or when
 * the file cannot be opened for reading (a directory or other non-regular file counts
 * as unreadable). A readable file with nothing recognisable gives an empty database.
 */
POLYBUS_API uint64_t DBC_ParserFile(int DevHandle, const char* pDBCFileName);

/* Number of messages of the database. */
POLYBUS_API int DBC_GetMsgQuantity(uint64_t DBCHandle);

/* Copies the name of the message at Index (file order); -5 when Index is out of range. */
POLYBUS_API int DBC_GetMsgName(uint64_t DBCHandle, int Index, char* pMsgName);

/* Number of signals of the first message named pMsgName; -5 when there is none. */
POLYBUS_API int DBC_GetMsgSignalQuantity(uint64_t DBCHandle, const char* pMsgName);

/* Copies the name of signal Index of the message; -5 when missing or out of range. */
POLYBUS_API int DBC_GetMsgSignalName(uint64_t DBCHandle, const char* pMsgName, int Index,
                                     char* pSignalName);

/*
 * Converts a physical value into the signal's raw value. Setting a multiplexed
 * signal also sets the message's first multiplexer switch to the signal's page
 * (low 16 bits of its multiplex value).
 */
POLYBUS_API int DBC_SetSignalValue(uint64_t DBCHandle, const char* pMsgName,
                                   const char* pSignalName, double Value);

/* Writes the physical value of the signal's current raw value. */
POLYBUS_API int DBC_GetSignalValue(uint64_t DBCHandle, const char* pMsgName,
                                   const char* pSignalName, double* pValue);

/*
 * Writes the value as text: "%f %s" (value, unit) when the signal has no value
 * table; otherwise the description of the value truncated to an integer, or that
 * integer as "%d" when the table has no entry for it (values beyond the 32-bit range
 * saturate, NaN gives 0).
 */
POLYBUS_API int DBC_GetSignalValueStr(uint64_t DBCHandle, const char* pMsgName,
                                      const char* pSignalName, char* pValueStr);

/* Copies the transmitting node of the message. */
POLYBUS_API int DBC_GetMsgPublisher(uint64_t DBCHandle, const char* pMsgName, char* pPublisher);

/*
 * Decodes each frame into the signals of the first message whose identifier equals
 * ID | (ExternFlag << 31); frames without a message are skipped. Every signal of the
 * message is decoded whatever its multiplexer says. MsgLen below 1 or a null array
 * does nothing. Returns 0 for every valid handle.
 */
POLYBUS_API int DBC_SyncCANMsgToValue(uint64_t DBCHandle, const CAN_MSG* pCANMsg, int MsgLen);

/* The same for CAN FD frames; the key is the identifier word as it is. */
POLYBUS_API int DBC_SyncCANFDMsgToValue(uint64_t DBCHandle, const CANFD_MSG* pCANFDMsg,
                                        int MsgLen);

/*
 * Builds the frame of the message from its signals' raw values: Data cleared, the
 * first multiplexer switch written first, then every signal in file order except
 * multiplexed signals of another page. ID = identifier & 0x1FFFFFFF, ExternFlag =
 * identifier bit 31, RemoteFlag = 0, DataLen = low byte of the data length;
 * TimeStamp and TimeStampHigh are left as they were.
 */
POLYBUS_API int DBC_SyncValueToCANMsg(uint64_t DBCHandle, const char* pMsgName, CAN_MSG* pCANMsg);

/*
 * The same for a CAN FD frame: ID = identifier unchanged (bit 31 marks extended),
 * DLC = data length in bytes, Flags = 0x04 for a CAN FD frame format | 0x01 for
 * bit-rate switch; the time stamp fields are left as they were.
 */
POLYBUS_API int DBC_SyncValueToCANFDMsg(uint64_t DBCHandle, const char* pMsgName,
                                        CANFD_MSG* pCANFDMsg);

POLYBUS_END_DECLS

#endif
