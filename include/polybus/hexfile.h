/*
 * Polybus: firmware image files.
 *
 * Reads Motorola S-record (S1/S2/S3), Intel HEX and address/value text files into a
 * caller's array of HEX_DATA_BLOCK records, flattens blocks into one image and writes
 * an image to a binary file. The functions use no device and no lock; they are safe
 * to call from several threads on different data.
 *
 * Calling order:
 *   n = hexfile_load_file(path, buf);                    // buf: at least the file size
 *   count = hexfile_convert_ihx(buf, n, blocks, max, 1); // or _s19 / _txt
 *   ... use blocks[0..count), or hexfile_convert_image / hexfile_save_image ...
 *   hexfile_free_data(blocks, count);  // after a failure (result 0): with max instead
 *
 * Block bookkeeping (all three readers): a block ends at StartAddr + DataLen / unit
 * (unsigned 32-bit arithmetic, integer division); a data record continues the current
 * block exactly when its address equals that end, otherwise it opens the next array
 * element. Blocks therefore come in file order, not address order. At entry blocks[0]
 * is set empty (StartAddr 0xFFFFFFFF, DataLen 0, pData NULL), so a first data record
 * at address 0xFFFFFFFF is appended to blocks[0] without counting it (a quirk of the
 * specified rule, kept: call hexfile_free_data with the capacity to be safe).
 *
 * Lines: a line runs up to the first NUL, LF or CR byte, or to the end of the given
 * length; the CR and LF bytes after it are skipped; a NUL ends the reading.
 *
 * Behaviour on inputs the formats leave open (all readers):
 *   - A field that a record needs but that holds a non-hex character or runs past the
 *     end of its line (truncated record, odd digit count, byte count larger than the
 *     line) makes the record invalid exactly like a checksum error: the reader returns
 *     0. Characters after the checksum are ignored. Hex digits may be in either case.
 *   - The capacity test comes before the next array element is touched: a reader never
 *     writes blocks[maxBlocks]. blocks == NULL or maxBlocks < 1 means no block may be
 *     filled (blocks is then not touched; any data record returns 0).
 *   - An address unit below 1 (AddrUnit <= 0 as a signed byte, ValueBytes 0) returns 0
 *     after blocks[0] has been set empty.
 *   - pData is never NULL in a block that was opened, even with no data (it then holds
 *     a 1-byte allocation); buffers are trimmed to DataLen (at least 1) when a block is
 *     left and when the reader returns, whether it succeeds or fails.
 */
#ifndef POLYBUS_HEXFILE_H
#define POLYBUS_HEXFILE_H

#include <stddef.h>
#include "common.h"

/* One contiguous run of memory; natural alignment (16 bytes on LP64, 12 on ILP32). */
typedef struct HEX_DATA_BLOCK {
    uint32_t StartAddr; /* address of the first byte, in address units; 0xFFFFFFFF while empty */
    uint32_t DataLen;   /* number of data bytes held */
    uint8_t* pData;     /* malloc'd buffer of DataLen bytes; NULL while empty */
} HEX_DATA_BLOCK;

POLYBUS_STATIC_ASSERT(offsetof(HEX_DATA_BLOCK, StartAddr) == 0, "HEX_DATA_BLOCK layout");
POLYBUS_STATIC_ASSERT(offsetof(HEX_DATA_BLOCK, DataLen) == 4, "HEX_DATA_BLOCK layout");
POLYBUS_STATIC_ASSERT(offsetof(HEX_DATA_BLOCK, pData) == 8, "HEX_DATA_BLOCK layout");
POLYBUS_STATIC_ASSERT(sizeof(HEX_DATA_BLOCK) == 8 + sizeof(void*),
                      "HEX_DATA_BLOCK is two u32 and a pointer, without padding at the end");

POLYBUS_BEGIN_DECLS

/* Reads the whole file into buf (whose size is not checked; no NUL is appended) and
 * returns its size in bytes; -1 when path or buf is NULL, or when the file cannot be
 * opened or read, or is larger than INT_MAX bytes. */
POLYBUS_API int hexfile_load_file(const char* path, void* buf);

/* Copies the line at *cursor (up to the first NUL, LF or CR) into line, NUL-terminated,
 * and advances *cursor past it and every CR and LF that follows. Returns line, or NULL
 * when the line is empty (**cursor is NUL; line is then set to "" and *cursor is not
 * moved). The text must be NUL-terminated and line must hold the longest line + 1. */
POLYBUS_API char* hexfile_get_line(char** cursor, char* line);

/* Motorola S-records: S1, S2 and S3 carry data, every other line is skipped. Returns the
 * number of blocks filled; 0 for an empty input, a checksum error (also on an S1-S3
 * record without data, which is checked and then adds nothing), an invalid record, or
 * when more than maxBlocks blocks would be needed. AddrUnit: data bytes per address
 * step (1 or 2). */
POLYBUS_API int hexfile_convert_s19(uint8_t* fileData, int fileLen, HEX_DATA_BLOCK* blocks,
                                    int maxBlocks, char AddrUnit);

/* Intel HEX. Type 00 data (address = offset + linear base + segment base), 02 sets the
 * segment base (value << 4) and clears the linear base, 04 sets the linear base
 * (value << 16) and keeps the segment base; 01, 03, 05 and 08 are skipped without a
 * checksum test (the end-of-file record does not end the reading); 06, 07 and 09..FF
 * carry no data and have their checksum byte read at the character position of the
 * checksum of the previous checked record (00: 9 + 2 * length, 02/04: 13), or at
 * position 0 when there was none, where the ':' makes the record invalid. Results as
 * for hexfile_convert_s19. */
POLYBUS_API int hexfile_convert_ihx(uint8_t* fileData, int fileLen, HEX_DATA_BLOCK* blocks,
                                    int maxBlocks, char AddrUnit);

/* Text format: lines beginning with '#' are comments; lines holding only white space
 * (space, tab, vertical tab, form feed) are skipped; every other line holds an address
 * token and a value token separated by white space (anything after the second token is
 * ignored). Address: "0x" or "0X" followed by hex digits, or decimal digits, taken
 * modulo 2^32 (its low 32 bits, also beyond 64 bits). Value: "0x" (lower-case x only)
 * followed by hex digits, or decimal digits without sign, taken modulo 2^32 (where
 * "%x"/"%d" would leave larger values undefined). ValueBytes is the value width and the
 * address unit: 4, 2 or 1 bytes are appended most significant first; for any other
 * width (except 0, which returns 0) the block is opened or kept but no byte is stored.
 * Returns the block count, 0 on a bad token, a missing value or too many blocks. */
POLYBUS_API int hexfile_convert_txt(uint8_t* fileData, int fileLen, HEX_DATA_BLOCK* blocks,
                                    uint32_t maxBlocks, uint32_t ValueBytes);

/* Frees every non-NULL pData of blocks[0..count); the pointers are left as they are
 * (do not call it twice on the same blocks). Returns 0. */
POLYBUS_API int hexfile_free_data(HEX_DATA_BLOCK* blocks, int count);

/* Sorts blocks[0..count) by StartAddr (bubble sort, stable, in the caller's array) and
 * writes their data to image, filling each gap of g address units with g * AddrUnit
 * copies of FillByte; overlapping or touching blocks are concatenated. The image size
 * is not checked. Returns the number of bytes written (0, without sorting, when image
 * or blocks is NULL or AddrUnit <= 0; a count beyond INT_MAX, for an image above
 * 2 GiB, is not representable and wraps). */
POLYBUS_API int hexfile_convert_image(uint8_t* image, HEX_DATA_BLOCK* blocks, int count,
                                      char AddrUnit, uint8_t FillByte);

/* Sorts as hexfile_convert_image, creates path (binary, truncating) and writes the
 * blocks' data. At the first gap: when the low byte of FillGaps is 0 the writing stops
 * there; otherwise gap * AddrUnit bytes of 0xFF are written. Returns the number of
 * bytes written; -1 when the file cannot be created or AddrUnit <= 0 (no file is
 * created then). */
POLYBUS_API int hexfile_save_image(char* path, HEX_DATA_BLOCK* blocks, int count, char AddrUnit,
                                   uint32_t FillGaps);

POLYBUS_END_DECLS

#endif
