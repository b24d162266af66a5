// The CRC that protects configuration-area records (and the bootloader's images):
// CRC-16/XMODEM, polynomial 0x1021, initial value 0, no reflection, no final XOR.
#pragma once

#include <cstdint>

// CRC of `len` bytes at `data`; 0 for a null pointer or an empty input.
uint16_t crc16_ccitt(const uint8_t* data, int len);
