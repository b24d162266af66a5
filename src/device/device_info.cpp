// Device information, user data and schedule storage, and the small helpers shared
// across families (delays, build time).
#include "device/device_info.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "polybus/usb_device.h"
#include "transport/exchange.h"
#include "transport/usb_device.h"
#include "wire/device.h"

using namespace polybus;
using namespace polybus::wire;

int DebugHandle = 0;

void format_build_time(const char* date, const char* time, char* out) {
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char month_text[4] = {0};
    int day = 0, year = 0;
    if (std::sscanf(date, "%3s %d %d", month_text, &day, &year) != 3) std::strcpy(month_text, "Jan");
    int month = 0;
    for (int i = 0; i < 12; ++i)
        if (std::strcmp(month_text, months[i]) == 0) month = i + 1;
    // The year has always been printed as years since 1900 (2022 gives 0122).
    std::snprintf(out, kBuildTimeSize, "%04d-%02d-%02d %s", year - 1900, month, day, time);
}

void delay_us(unsigned us) { usleep(us); }
void delay_ms(unsigned ms) { usleep(ms * 1000u); }
void sleep_ms(unsigned ms) { usleep(ms * 1000u); }

namespace {

// Chunk k of a schedule-storage read asks for this much; the last, short chunk has
// always asked for 10240 % Len bytes (not Len % 10240), and adapters expect it.
int schedule_read_size(int Len, int offset) {
    const int chunk = static_cast<int>(kScheduleChunk);
    if (Len - offset > chunk) return chunk;
    return Len % chunk == 0 ? chunk : chunk % Len;
}

// The function string lands in the caller's buffer as it comes and ends where the
// adapter said it would (cut to the room there is). Bytes announced but never received
// read as zeros, not as what the buffer held before.
void read_function_string(Session& session, char* out) {
    constexpr size_t room = POLYBUS_FUNCTION_STRING_SIZE - 1;
    Command request(DEV_GET_FUNCTIONS);
    Answer text(out, room);
    size_t end = 0;
    if (session.send(request, 1000) == kOk && session.get(text, 100) == kOk) {
        end = text.length < room ? text.length : room;
        if (text.received < end) std::memset(out + text.received, 0, end - text.received);
    }
    out[end] = '\0';
}

}  // namespace

extern "C" {

POLYBUS_API void DEBUG_SetHandle(int Handle) { DebugHandle = Handle; }

POLYBUS_API bool DEV_GetDeviceInfo(int dev, DEVICE_INFO* pInfo, char* pFunctionString) {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    const auto budget = std::chrono::seconds(6);
    for (;;) {
        {
            // The device is held from the request to the end of the call; between
            // attempts it is released so the reset and reconnect can run.
            Session session(dev);
            Command request(DEV_GET_INFO);
            if (session.send(request, 100) != kOk) return false;
            AnswerBuffer<kDeviceInfoSize> info;
            if (session.get(info, 100) == kOk && expect_echo(info, DEV_GET_INFO) == kOk &&
                expect_announced(info, 1) == kOk) {
                // What arrived is copied, however short; the rest of the record reads 0.
                if (pInfo != nullptr) {
                    std::memset(pInfo, 0, sizeof(DEVICE_INFO));
                    info.copy_to(pInfo, sizeof(DEVICE_INFO));
                }
                if (pFunctionString != nullptr) read_function_string(session, pFunctionString);
                return true;
            }
        }
        // The adapter did not answer: restart it and wait for it to come back at the
        // same bus address, for as long as the overall budget lasts.
        reset_dev(dev);
        do {
            usleep(200 * 1000);
        } while (!retry_connect_dev(dev) && clock::now() - start < budget);
        if (clock::now() - start >= budget) return false;
    }
}

POLYBUS_API bool DEV_GetHardwareInfo(int dev, unsigned char* pInfo) {
    Command request(DEV_GET_HARDWARE_INFO);
    AnswerBuffer<kHardwareInfoSize> info;
    if (transact(dev, request, info, {100, 100}) != kOk) return false;
    if (expect_exactly(info, kHardwareInfoSize) != kOk || expect_echo(info, DEV_GET_HARDWARE_INFO) != kOk)
        return false;
    // A first byte of 0 or 0xFF is blank (never programmed) hardware information.
    if (info.u8(0) == 0 || info.u8(0) == 0xFF) return false;
    info.copy_to(pInfo, kHardwareInfoSize);
    return true;
}

POLYBUS_API bool DEV_SetPowerLevel(int dev, char PowerLevel) {
    Command request(DEV_SET_POWER_LEVEL);
    request.u8(static_cast<uint8_t>(PowerLevel));
    return answered(dev, request) == kOk;
}

POLYBUS_API bool DEV_GetTimestamp(int dev, char Sel, void* pTimestamp) {
    Command request(DEV_GET_TIMESTAMP);
    request.u8(static_cast<uint8_t>(Sel));
    uint8_t scratch[POLYBUS_TIMESTAMP_SIZE];
    Answer reply(pTimestamp != nullptr ? pTimestamp : scratch, POLYBUS_TIMESTAMP_SIZE);
    return transact(dev, request, reply) == kOk;
}

POLYBUS_API bool DEV_ResetTimestamp(int dev) {
    Command request(DEV_RESET_TIMESTAMP);
    return answered(dev, request) == kOk;
}

POLYBUS_API bool DEV_WriteUserData(int dev, int OffsetAddr, unsigned char* pData, int Len) {
    if (OffsetAddr % 4 != 0 || Len > 20480 || Len < 0) return false;
    Command request(DEV_WRITE_USER_DATA, 4 + static_cast<size_t>(Len));
    request.be32(static_cast<uint32_t>(OffsetAddr)).bytes(pData, static_cast<size_t>(Len));
    return acknowledged(dev, request, {1000, 5000}) == kOk;
}

POLYBUS_API bool DEV_ReadUserData(int dev, int OffsetAddr, unsigned char* pData, int Len) {
    if (OffsetAddr % 4 != 0) return false;
    Command request(DEV_READ_USER_DATA);
    request.be32(static_cast<uint32_t>(OffsetAddr)).be32(static_cast<uint32_t>(Len));
    uint8_t none[1];
    Answer reply(pData != nullptr ? static_cast<void*>(pData) : none, pData != nullptr && Len > 0 ? size_t(Len) : 0);
    return transact(dev, request, reply) == kOk;
}

POLYBUS_API bool DEV_EraseUserData(int dev) {
    Command request(DEV_ERASE_USER_DATA);
    return acknowledged(dev, request, {1000, 5000}) == kOk;
}

POLYBUS_API bool DEV_WriteSchData(int dev, int Addr, unsigned char* pData, int Len) {
    const int limit = static_cast<int>(kScheduleChunk);
    for (int offset = 0; offset < Len; offset += limit) {
        const int chunk = Len - offset < limit ? Len - offset : limit;
        Command request(DEV_WRITE_SCH_DATA, 4 + static_cast<size_t>(chunk));
        request.be32(static_cast<uint32_t>(Addr)).bytes(pData != nullptr ? pData + offset : nullptr, size_t(chunk));
        if (acknowledged(dev, request, {1000, 5000}) != kOk) return false;
    }
    return true;
}

POLYBUS_API bool DEV_ReadSchData(int dev, int Addr, unsigned char* pData, int Len) {
    const int limit = static_cast<int>(kScheduleChunk);
    for (int offset = 0; offset < Len; offset += limit) {
        const int ask = schedule_read_size(Len, offset);
        const int room = Len - offset < ask ? Len - offset : ask;
        Command request(DEV_READ_SCH_DATA);
        request.be32(static_cast<uint32_t>(Addr)).be32(static_cast<uint32_t>(ask));
        uint8_t none[1];
        Answer reply(pData != nullptr ? static_cast<void*>(pData + offset) : none,
                     pData != nullptr ? size_t(room) : 0);
        if (transact(dev, request, reply) != kOk) return false;
    }
    return true;
}

POLYBUS_API bool DEV_EraseSchData(int dev, int Arg) {
    Command request(DEV_ERASE_SCH_DATA);
    request.be32(static_cast<uint32_t>(Arg));
    return acknowledged(dev, request, {1000, 10000}) == kOk;
}

POLYBUS_API bool DEV_GetDllBuildTime(char* pBuildTime) {
    if (pBuildTime == nullptr) return true;
    format_build_time(__DATE__, __TIME__, pBuildTime);
    return true;
}

}  // extern "C"
