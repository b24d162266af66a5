// Helpers of the device-information module used across families.
#pragma once

#include <cstdint>

#include "device/crc16.h"

// DEV_GetDllBuildTime's text from a compiler date ("Oct 14 2022") and time
// ("12:25:51"); writes at most kBuildTimeSize bytes, terminator included.
constexpr int kBuildTimeSize = 32;
void format_build_time(const char* date, const char* time, char* out);
void delay_us(unsigned us);
void delay_ms(unsigned ms);
void sleep_ms(unsigned ms);

// The application's value stored by DEBUG_SetHandle.
extern int DebugHandle;
