/*
 * Polybus: LDF databases (LIN cluster descriptions).
 *
 * LDF_ParserFile reads an LDF file for one LIN channel of an open adapter and returns
 * its database handle, the address of an LDF_CODING record. The record and everything
 * it points to are plain fixed-layout records that applications may read directly:
 * frames and schedule entries embed copies of signal and frame records, and signal
 * values live in the signal copies inside each frame.
 *
 * Results (32-bit signed):
 *   LDF_OK               (0)  success (or a count, where a function returns one)
 *   LDF_ERR_OPEN        (-1)  the file cannot be opened
 *   LDF_ERR_SECTION     (-2)  a section's braces do not match (LDF_GetAttributeStr)
 *   LDF_ERR_NO_DEVICE   (-3)  the adapter is not open, or the database's LIN channel
 *                             was not set up
 *   LDF_ERR_HANDLE      (-4)  null database handle
 *   LDF_ERR_NOT_FOUND   (-5)  unknown frame, schedule or index (listing, execution)
 *   LDF_ERR_NO_SIGNAL   (-6)  unknown frame or signal (value functions)
 *   LDF_ERR_NO_DATA     (-7)  a master read on the bus brought no data
 *
 * Reading files:
 *  - Comments are removed, then every byte outside double quotes that is not printable
 *    (33-126) is dropped: the file becomes one line of text, cut into sections and
 *    entries by braces, semicolons, commas, colons and equals signs.
 *  - A section is found at the first occurrence of its name directly followed by "{".
 *    Sections of any length are read whole (large clusters have Signals and Frames
 *    sections far beyond 32 KiB).
 *  - Numbers read "with base detection" take 0x.. as hexadecimal and everything else as
 *    decimal (a leading 0 is not octal: files write "010" meaning ten); text that is
 *    not a number reads as 0, and unit letters after a number are ignored. Decimal
 *    points are '.' whatever the application's locale.
 *  - Fixed-size name lists keep their first entries and ignore the rest: 16 slaves,
 *    16 subscribers per signal, 64 fault-state signals and 64 configurable frames per
 *    node. Unbalanced braces or quotes end the section or entry where the text ends;
 *    nothing is read or written past a buffer.
 *  - Diagnostic signals are appended after the ordinary signals; their publisher,
 *    subscribers and encoding are those of the last ordinary signal read (do not rely
 *    on them).
 *  - One file is parsed at a time: concurrent LDF_ParserFile calls wait for each other.
 *
 * Memory: databases are never released while the library is loaded (LDF_DecodeFree
 * does nothing and a handle stays usable after it); everything is released when the
 * library unloads.
 *
 * Look-ups by name are exact and take the first match in file order. Output text
 * buffers are filled without a bound: the caller provides room for the longest name
 * in the file (or, for LDF_GetSignalValueStr, the value text).
 */
#ifndef POLYBUS_LDF_H
#define POLYBUS_LDF_H

#include <stddef.h>
#include <stdint.h>

#include "common.h"

#define LDF_OK 0
#define LDF_ERR_OPEN (-1)
#define LDF_ERR_SECTION (-2)
#define LDF_ERR_NO_DEVICE (-3)
#define LDF_ERR_HANDLE (-4)
#define LDF_ERR_NOT_FOUND (-5)
#define LDF_ERR_NO_SIGNAL (-6)
#define LDF_ERR_NO_DATA (-7)

#define LDF_MAX_SLAVES 16
#define LDF_MAX_SUBSCRIBERS 16
#define LDF_MAX_FAULT_STATE_SIGNALS 64
#define LDF_MAX_CONFIGURABLE_FRAMES 64

/* frameKind of LDF_LIN_FRAME */
#define LDF_FRAME_UNCONDITIONAL 0
#define LDF_FRAME_DIAGNOSTIC 1

#pragma pack(push, 1)

typedef struct LDF_LOGICAL_VALUE {
    int64_t value;
    char* text;
} LDF_LOGICAL_VALUE;

typedef struct LDF_PHYSICAL_VALUE {
    double offset;
    double scale;
    int64_t minimum;
    int64_t maximum;
    char* unit;
} LDF_PHYSICAL_VALUE;

typedef struct LDF_SIGNAL_CODING {
    char* name;
    uint32_t logicalCount;
    uint32_t physicalCount;
    LDF_LOGICAL_VALUE* logicalValues;
    LDF_PHYSICAL_VALUE* physicalValues;
} LDF_SIGNAL_CODING;

typedef struct LDF_SIGNAL_REPRESENTATION {
    char* signalName;
    char* encodingName;
} LDF_SIGNAL_REPRESENTATION;

typedef struct LDF_LIN_SIGNAL {
    char* name;
    uint32_t size;          /* bits */
    uint32_t isDiagnostic;  /* value kept in initArray instead of initValue */
    uint32_t initIsArray;
    uint32_t reserved0;
    int64_t initValue;
    uint8_t initArray[8];
    char* publisher;
    uint32_t subscriberCount;
    uint32_t reserved1;
    char* subscribers[LDF_MAX_SUBSCRIBERS];
    uint32_t bitOffset;     /* start bit inside a frame's copy; 0 in the signal list */
    uint32_t reserved2;
    LDF_SIGNAL_CODING coding;  /* copy of the signal's encoding; all zero without one */
    uint64_t reserved3;
    double maxRaw;          /* 2^size - 1 */
} LDF_LIN_SIGNAL;

typedef struct LDF_LIN_FRAME {
    char* name;
    uint8_t id;
    uint8_t reserved0[3];
    uint32_t reserved1;
    char* publisher;
    uint8_t size;           /* data bytes */
    uint16_t reserved2;
    uint8_t reserved3;
    uint32_t frameKind;     /* LDF_FRAME_UNCONDITIONAL or LDF_FRAME_DIAGNOSTIC */
    uint32_t signalCount;
    uint32_t reserved4;
    LDF_LIN_SIGNAL* signals;
} LDF_LIN_FRAME;

typedef struct LDF_SCH_ENTRY {
    LDF_LIN_FRAME frame;    /* copy of the scheduled frame; all zero for an unknown name */
    float delay;            /* milliseconds */
    uint32_t reserved;
} LDF_SCH_ENTRY;

typedef struct LDF_LIN_SCH {
    char* name;
    uint32_t entryCount;
    uint32_t reserved;
    LDF_SCH_ENTRY* entries;
} LDF_LIN_SCH;

typedef struct LDF_LIN_NODE {
    char* masterName;
    float timeBase;         /* milliseconds */
    float jitter;           /* milliseconds */
    uint32_t slaveCount;
    uint32_t reserved;
    char* slaveNames[LDF_MAX_SLAVES];
} LDF_LIN_NODE;

typedef struct LDF_NODE_ATTR {
    char* nodeName;
    uint16_t protocol;      /* LIN_protocol x 100 */
    uint8_t configuredNad;
    uint8_t initialNad;
    uint32_t supplierId;
    uint32_t functionId;
    uint32_t variant;
    char* responseError;
    char* faultStateSignals[LDF_MAX_FAULT_STATE_SIGNALS];
    uint32_t faultStateCount;
    float p2Min;            /* milliseconds */
    float stMin;
    float nAsTimeout;
    float nCrTimeout;
    uint32_t reserved0;
    char* configurableFrames[LDF_MAX_CONFIGURABLE_FRAMES];
    uint32_t configurableFrameCount;
    uint32_t reserved1;
} LDF_NODE_ATTR;

typedef struct LDF_CODING {
    uint32_t protocolVersion;  /* LIN_protocol_version x 100; 200 for J2602 */
    uint32_t languageVersion;
    uint32_t devHandle;
    uint32_t linSpeed;         /* bit/s */
    uint32_t linIndex;
    uint8_t isMaster;
    uint8_t initialised;
    uint16_t reserved0;
    LDF_LIN_NODE* node;        /* null when the Nodes section is empty */
    uint32_t frameCount;
    uint32_t reserved1;
    LDF_LIN_FRAME* frames;
    uint32_t nodeAttrCount;
    uint32_t reserved2;
    LDF_NODE_ATTR* nodeAttrs;
    uint32_t scheduleCount;
    uint32_t reserved3;
    LDF_LIN_SCH* schedules;
} LDF_CODING;

#pragma pack(pop)

POLYBUS_STATIC_ASSERT(sizeof(void*) == 8, "the LDF records are laid out for 64-bit processes");
POLYBUS_STATIC_ASSERT(sizeof(LDF_LOGICAL_VALUE) == 16, "LDF_LOGICAL_VALUE is 16 bytes");
POLYBUS_STATIC_ASSERT(sizeof(LDF_PHYSICAL_VALUE) == 40, "LDF_PHYSICAL_VALUE is 40 bytes");
POLYBUS_STATIC_ASSERT(sizeof(LDF_SIGNAL_CODING) == 32, "LDF_SIGNAL_CODING is 32 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_SIGNAL_CODING, physicalValues) == 24, "LDF_SIGNAL_CODING layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_SIGNAL_REPRESENTATION) == 16, "LDF_SIGNAL_REPRESENTATION is 16 bytes");
POLYBUS_STATIC_ASSERT(sizeof(LDF_LIN_SIGNAL) == 240, "LDF_LIN_SIGNAL is 240 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, initValue) == 24, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, initArray) == 32, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, publisher) == 40, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, subscriberCount) == 48, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, subscribers) == 56, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, bitOffset) == 184, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, coding) == 192, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, reserved3) == 224, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, maxRaw) == 232, "LDF_LIN_SIGNAL layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_LIN_FRAME) == 48, "LDF_LIN_FRAME is 48 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, id) == 8, "LDF_LIN_FRAME layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, publisher) == 16, "LDF_LIN_FRAME layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, size) == 24, "LDF_LIN_FRAME layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, frameKind) == 28, "LDF_LIN_FRAME layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, signalCount) == 32, "LDF_LIN_FRAME layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, signals) == 40, "LDF_LIN_FRAME layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_SCH_ENTRY) == 56, "LDF_SCH_ENTRY is 56 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_SCH_ENTRY, delay) == 48, "LDF_SCH_ENTRY layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_LIN_SCH) == 24, "LDF_LIN_SCH is 24 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_SCH, entries) == 16, "LDF_LIN_SCH layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_LIN_NODE) == 152, "LDF_LIN_NODE is 152 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_NODE, timeBase) == 8, "LDF_LIN_NODE layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_NODE, slaveCount) == 16, "LDF_LIN_NODE layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_LIN_NODE, slaveNames) == 24, "LDF_LIN_NODE layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_NODE_ATTR) == 1088, "LDF_NODE_ATTR is 1088 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, protocol) == 8, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, configuredNad) == 10, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, supplierId) == 12, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, responseError) == 24, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, faultStateSignals) == 32, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, faultStateCount) == 544, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, p2Min) == 548, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, nCrTimeout) == 560, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, configurableFrames) == 568, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, configurableFrameCount) == 1080, "LDF_NODE_ATTR layout");
POLYBUS_STATIC_ASSERT(sizeof(LDF_CODING) == 80, "LDF_CODING is 80 bytes");
POLYBUS_STATIC_ASSERT(offsetof(LDF_CODING, isMaster) == 20, "LDF_CODING layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_CODING, node) == 24, "LDF_CODING layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_CODING, frames) == 40, "LDF_CODING layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_CODING, nodeAttrs) == 56, "LDF_CODING layout");
POLYBUS_STATIC_ASSERT(offsetof(LDF_CODING, schedules) == 72, "LDF_CODING layout");

POLYBUS_BEGIN_DECLS

/* ---- Parsing: one file into one record. The section functions work on the file
 * prepared by the last LDF_Init; each returns its count (0 for an empty or missing
 * section) or LDF_ERR_NO_DEVICE when no file is prepared for an open adapter. Arrays
 * they return belong to the library. */
POLYBUS_API int LDF_Decode(int DevHandle, const char* pLDFFile, LDF_CODING* pLDFCoding);
POLYBUS_API int LDF_Init(int DevHandle, const char* pLDFFile);
/* The braced body of a section of pText (braces included), as a string that belongs to
 * the library; an absent section gives an empty string and LDF_OK, a text shorter than
 * the name LDF_ERR_SECTION. */
POLYBUS_API int LDF_GetAttributeStr(const char* pText, const char* pSectionName, char** ppSection);
POLYBUS_API int LDF_GetSignalsCoding(LDF_SIGNAL_CODING** ppCodings);
POLYBUS_API int LDF_GetSignalRepresentations(LDF_SIGNAL_REPRESENTATION** ppRepresentations);
POLYBUS_API int LDF_GetSignals(LDF_LIN_SIGNAL** ppSignals, LDF_SIGNAL_CODING* pCodings, int CodingCount);
POLYBUS_API int LDF_GetFrames(LDF_LIN_FRAME** ppFrames, LDF_LIN_SIGNAL* pSignals, int SignalCount);
POLYBUS_API int LDF_GetScheduleTables(LDF_LIN_SCH** ppSchedules, LDF_LIN_FRAME* pFrames, int FrameCount);
POLYBUS_API int LDF_GetNodes(LDF_LIN_NODE* pNode);
POLYBUS_API int LDF_GetNodeAttributes(LDF_NODE_ATTR** ppAttributes);
POLYBUS_API int LDF_DecodeFree(LDF_CODING* pLDFCoding);

/* ---- Databases. Handles are the LDF_CODING records LDF_ParserFile returns (a record
 * filled by LDF_Decode works as well, with slower look-ups). */
POLYBUS_API LDF_CODING* LDF_ParserFile(int DevHandle, int LINIndex, int isMaster, const char* pLDFFile);
POLYBUS_API int LDF_GetProtocolVersion(LDF_CODING* pLDF);
POLYBUS_API int LDF_GetLINSpeed(LDF_CODING* pLDF);
POLYBUS_API int LDF_GetFrameQuantity(LDF_CODING* pLDF);
POLYBUS_API int LDF_GetFrameName(LDF_CODING* pLDF, int index, char* pFrameName);
POLYBUS_API int LDF_GetFrameSignalQuantity(LDF_CODING* pLDF, const char* pFrameName);
POLYBUS_API int LDF_GetFrameSignalName(LDF_CODING* pLDF, const char* pFrameName, int index, char* pSignalName);
POLYBUS_API int LDF_GetFramePublisher(LDF_CODING* pLDF, const char* pFrameName, char* pPublisher);
/* Writes an empty string when the file names no master. */
POLYBUS_API int LDF_GetMasterName(LDF_CODING* pLDF, char* pMasterName);
POLYBUS_API int LDF_GetSchQuantity(LDF_CODING* pLDF);
POLYBUS_API int LDF_GetSchName(LDF_CODING* pLDF, int index, char* pSchName);
POLYBUS_API int LDF_GetSchFrameQuantity(LDF_CODING* pLDF, const char* pSchName);
POLYBUS_API int LDF_GetSchFrameName(LDF_CODING* pLDF, const char* pSchName, int index, char* pFrameName);

/* ---- Signal values: physical values through the signal's encoding, frames as
 * little-endian bit fields of their size in bytes. */
POLYBUS_API int LDF_SetSignalValue(LDF_CODING* pLDF, const char* pFrameName, const char* pSignalName, double value);
POLYBUS_API int LDF_GetSignalValue(LDF_CODING* pLDF, const char* pFrameName, const char* pSignalName, double* pValue);
/* The value as text: the logical entry's text, "%f %s" of the physical value and its
 * unit, or the raw value in decimal. */
POLYBUS_API int LDF_GetSignalValueStr(LDF_CODING* pLDF, const char* pFrameName, const char* pSignalName, char* pValueStr);
POLYBUS_API int LDF_SetFrameRawValue(LDF_CODING* pLDF, const char* pFrameName, const unsigned char* pRawData);
POLYBUS_API int LDF_GetFrameRawValue(LDF_CODING* pLDF, const char* pFrameName, unsigned char* pRawData);
POLYBUS_API int LDF_DataRawToFrame(LDF_LIN_FRAME* pFrame, const unsigned char* pRawData);
POLYBUS_API int LDF_DataFrameToRaw(LDF_LIN_FRAME* pFrame, unsigned char* pRawData, int Reserved);

/* ---- The bus, in the role the database was opened for. Checksums: enhanced for
 * protocol versions from 2.0 on, except identifiers 0x3C-0x3F; classic otherwise.
 *
 * LDF_ExeFrameToBus, master: the master's frames are written (the LIN_EX_MasterWrite
 * result is returned), other frames are read (LDF_ERR_NO_DATA when nothing came).
 * Slave: for the master's frames, what the adapter recorded since the last look is
 * decoded into the frames of those identifiers; any other frame becomes the adapter's
 * response to its header (an ID-mode table of that one frame; its result is returned).
 * LDF_ExeSchToBus runs one pass of a table the same way, sleeping each entry's delay
 * (whole milliseconds) after it in the master role; entries naming no frame are
 * skipped; the result is LDF_OK. The last argument of both is not used. */
POLYBUS_API int LDF_ExeFrameToBus(LDF_CODING* pLDF, const char* pFrameName, unsigned int Reserved);
POLYBUS_API int LDF_ExeSchToBus(LDF_CODING* pLDF, const char* pSchName, unsigned int Reserved);

POLYBUS_END_DECLS

#endif
