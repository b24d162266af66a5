// Helpers of the device-information module used across families.
#pragma once

#include <cstdint>

uint16_t crc16_ccitt(const uint8_t* data, int len);
void delay_us(unsigned us);
void delay_ms(unsigned ms);
void sleep_ms(unsigned ms);

// The application's value stored by DEBUG_SetHandle.
extern int DebugHandle;
