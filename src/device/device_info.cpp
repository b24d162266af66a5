// Device information, user data, schedule storage and the keyed configuration area.
#include "device/device_info.h"

#include <bitset>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>
#include <vector>

#include "polybus/usb_device.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "transport/usb_device.h"

using namespace polybus;

int DebugHandle = 0;

namespace {

const uint16_t* crc_table() {
    static const auto table = [] {
        struct T { uint16_t v[256]; } t{};
        for (int i = 0; i < 256; ++i) {
            uint16_t c = static_cast<uint16_t>(i << 8);
            for (int b = 0; b < 8; ++b) c = static_cast<uint16_t>(c & 0x8000 ? (c << 1) ^ 0x1021 : c << 1);
            t.v[i] = c;
        }
        return t;
    }();
    return table.v;
}

// An exchange whose only judgement is "an answer came" (and, optionally, that it is empty).
bool simple(int dev, Command& cmd, Timing timing, bool must_be_empty) {
    AnswerBuffer<64> answer;
    if (transact(dev, cmd, answer, timing) != 0) return false;
    return !must_be_empty || answer.length == 0;
}

constexpr int kSchChunk = 10240;
constexpr int kArgChunk = 5120;

}  // namespace

uint16_t crc16_ccitt(const uint8_t* data, int len) {
    const uint16_t* table = crc_table();
    uint16_t crc = 0;
    if (data == nullptr) return 0;
    for (int i = 0; i < len; ++i) crc = static_cast<uint16_t>((crc << 8) ^ table[((crc >> 8) ^ data[i]) & 0xFF]);
    return crc;
}

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

extern "C" {

POLYBUS_API void DEBUG_SetHandle(int Handle) { DebugHandle = Handle; }

POLYBUS_API bool DEV_GetDeviceInfo(int dev, DEVICE_INFO* pInfo, char* pFunctionString) {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    const auto deadline = start + std::chrono::seconds(6);
    AnswerBuffer<sizeof(DEVICE_INFO)> info;
    std::unique_ptr<Session> session;
    for (;;) {
        // Every attempt holds the device from its request to the end of the call;
        // between attempts it is released so the reset and reconnect can run.
        session.reset(new Session(dev));
        Command request(0x0100);
        if (session->send(request, 100) != kOk) return false;
        if (session->get(info, 100) == kOk && info.length >= 1 && info.command == 0x0100) break;
        session.reset();
        // The adapter did not answer: restart it and wait for it to come back at the
        // same bus address, for as long as the overall budget lasts.
        reset_dev(dev);
        do {
            usleep(200 * 1000);
        } while (!retry_connect_dev(dev) && clock::now() - start < std::chrono::seconds(6));
        if (clock::now() >= deadline) return false;
    }
    if (pInfo != nullptr) {
        std::memset(pInfo, 0, sizeof(DEVICE_INFO));
        info.copy_to(pInfo, sizeof(DEVICE_INFO));
    }
    if (pFunctionString != nullptr) {
        Command request(0x0106);
        Answer text(pFunctionString, POLYBUS_FUNCTION_STRING_SIZE - 1);
        size_t end = 0;
        if (session->send(request, 1000) == kOk && session->get(text, 100) == kOk)
            end = text.length < POLYBUS_FUNCTION_STRING_SIZE - 1 ? text.length : POLYBUS_FUNCTION_STRING_SIZE - 1;
        pFunctionString[end] = '\0';
    }
    return true;
}

POLYBUS_API bool DEV_GetHardwareInfo(int dev, unsigned char* pInfo) {
    Command request(0x010D);
    AnswerBuffer<64> info;
    if (transact(dev, request, info, {100, 100}) != 0) return false;
    if (info.length != 64 || info.received != 64 || info.command != 0x010D) return false;
    if (info.u8(0) == 0 || info.u8(0) == 0xFF) return false;
    if (pInfo != nullptr) std::memcpy(pInfo, info.buffer(), 64);
    return true;
}

POLYBUS_API bool DEV_SetPowerLevel(int dev, char PowerLevel) {
    Command request(0x0010);
    request.u8(static_cast<uint8_t>(PowerLevel));
    return simple(dev, request, {}, false);
}

POLYBUS_API bool DEV_GetTimestamp(int dev, char Sel, void* pTimestamp) {
    Command request(0x0011);
    request.u8(static_cast<uint8_t>(Sel));
    uint8_t scratch[POLYBUS_TIMESTAMP_SIZE];
    Answer reply(pTimestamp != nullptr ? pTimestamp : scratch, POLYBUS_TIMESTAMP_SIZE);
    return transact(dev, request, reply) == 0;
}

POLYBUS_API bool DEV_ResetTimestamp(int dev) {
    Command request(0x0012);
    return simple(dev, request, {}, false);
}

POLYBUS_API bool DEV_WriteUserData(int dev, int OffsetAddr, unsigned char* pData, int Len) {
    if (OffsetAddr % 4 != 0 || Len > 20480 || Len < 0) return false;
    Command request(0x0107, 4 + static_cast<size_t>(Len));
    request.be32(static_cast<uint32_t>(OffsetAddr)).bytes(pData, static_cast<size_t>(Len));
    return simple(dev, request, {1000, 5000}, true);
}

POLYBUS_API bool DEV_ReadUserData(int dev, int OffsetAddr, unsigned char* pData, int Len) {
    if (OffsetAddr % 4 != 0) return false;
    Command request(0x0108);
    request.be32(static_cast<uint32_t>(OffsetAddr)).be32(static_cast<uint32_t>(Len));
    uint8_t none[1];
    Answer reply(pData != nullptr ? static_cast<void*>(pData) : none, pData != nullptr && Len > 0 ? size_t(Len) : 0);
    return transact(dev, request, reply) == 0;
}

POLYBUS_API bool DEV_EraseUserData(int dev) {
    Command request(0x0109);
    return simple(dev, request, {1000, 5000}, true);
}

POLYBUS_API bool DEV_WriteSchData(int dev, int Addr, unsigned char* pData, int Len) {
    if (Len <= 0) return true;
    for (int offset = 0; offset < Len; offset += kSchChunk) {
        const int chunk = Len - offset < kSchChunk ? Len - offset : kSchChunk;
        Command request(0x010A, 4 + static_cast<size_t>(chunk));
        request.be32(static_cast<uint32_t>(Addr)).bytes(pData != nullptr ? pData + offset : nullptr, size_t(chunk));
        if (!simple(dev, request, {1000, 5000}, true)) return false;
    }
    return true;
}

POLYBUS_API bool DEV_ReadSchData(int dev, int Addr, unsigned char* pData, int Len) {
    if (Len <= 0) return true;
    for (int offset = 0; offset < Len; offset += kSchChunk) {
        const bool last = Len - offset <= kSchChunk;
        // The adapter has always been asked for 10240 % Len bytes in the last chunk.
        const int ask = !last ? kSchChunk : (Len % kSchChunk == 0 ? kSchChunk : kSchChunk % Len);
        const int room = Len - offset < ask ? Len - offset : ask;
        Command request(0x010B);
        request.be32(static_cast<uint32_t>(Addr)).be32(static_cast<uint32_t>(ask));
        uint8_t none[1];
        Answer reply(pData != nullptr ? static_cast<void*>(pData + offset) : none,
                     pData != nullptr ? size_t(room) : 0);
        if (transact(dev, request, reply) != 0) return false;
    }
    return true;
}

POLYBUS_API bool DEV_EraseSchData(int dev, int Arg) {
    Command request(0x010C);
    request.be32(static_cast<uint32_t>(Arg));
    return simple(dev, request, {1000, 10000}, true);
}

POLYBUS_API bool DEV_GetDllBuildTime(char* pBuildTime) {
    if (pBuildTime == nullptr) return true;
    format_build_time(__DATE__, __TIME__, pBuildTime);
    return true;
}

// Configuration area ---------------------------------------------------------------

POLYBUS_API int ARG_Init(int dev) {
    Command request(0x5000);
    AnswerBuffer<8> status;
    int rc = transact(dev, request, status);
    if (rc != 0) return rc;
    // A status byte that was announced but never arrived is no answer either.
    if (status.length != 1 || status.received != 1) return -4;
    return status.u8(0) == 0 ? 0 : -5;
}

namespace {
// The address field of chunk k: the high byte follows a running sum of the chunk
// offsets, the low byte stays Addr's. Adapters in the field expect exactly this.
uint16_t chunk_address(uint32_t& running, uint16_t Addr, uint32_t offset) {
    running += offset;
    return static_cast<uint16_t>((running & 0xFF00u) | (Addr & 0x00FFu));
}
}  // namespace

POLYBUS_API int ARG_Write(int dev, uint16_t Addr, unsigned char* pData, uint16_t Len) {
    if (Len == 0) return 0;
    uint32_t running = Addr;
    for (uint32_t offset = 0; offset < Len; offset += kArgChunk) {
        const uint32_t chunk = Len - offset < uint32_t(kArgChunk) ? Len - offset : kArgChunk;
        Command request(0x5001, 2 + chunk);
        request.be16(chunk_address(running, Addr, offset)).bytes(pData != nullptr ? pData + offset : nullptr, chunk);
        AnswerBuffer<8> status;
        int rc = transact(dev, request, status, {1000, static_cast<int>(chunk * 20 / 64 + 1000)});
        if (rc != 0) return rc;
        if (status.length != 1 || status.received != 1) return -4;
        if (status.u8(0) == 1) return -5;
        if (status.u8(0) != 0) return -6;
    }
    return 0;
}

POLYBUS_API int ARG_Read(int dev, uint16_t Addr, unsigned char* pData, uint16_t Len) {
    if (Len == 0) return 0;
    uint32_t running = Addr;
    std::vector<uint8_t> buf(1 + kArgChunk);
    for (uint32_t offset = 0; offset < Len; offset += kArgChunk) {
        const uint32_t chunk = Len - offset < uint32_t(kArgChunk) ? Len - offset : kArgChunk;
        Command request(0x5002);
        request.be16(chunk_address(running, Addr, offset)).be16(static_cast<uint16_t>(chunk));
        Answer reply(buf.data(), 1 + chunk);
        int rc = transact(dev, request, reply, {1000, static_cast<int>(chunk * 10 / 64 + 1000)});
        if (rc != 0) return rc;
        if (reply.length == 0 || reply.received == 0) return -4;
        if (reply.u8(0) == 1) return -5;
        if (reply.u8(0) != 0) return -7;
        if (pData != nullptr && reply.received > 1) std::memcpy(pData + offset, buf.data() + 1, reply.received - 1);
    }
    return 0;
}

}  // extern "C"

namespace {

struct ArgHeader {
    uint32_t id = 0;
    uint32_t length = 0;
    uint16_t crc = 0;
    uint16_t next = 0;

    bool marked() const { return (id >> 16) == 0x55AA; }
};

constexpr uint16_t kFirstHeader = 16;
// Headers already visited on one walk along the chain: a chain that comes back to an
// address loops, and following it would never end.
class ChainWalk {
public:
    bool enter(uint16_t addr) {
        if (seen_.test(addr)) return false;
        seen_.set(addr);
        return true;
    }

private:
    std::bitset<65536> seen_;
};

int read_header(int dev, uint16_t addr, ArgHeader& h) {
    uint8_t raw[12] = {0};
    int rc = ARG_Read(dev, addr, raw, 12);
    if (rc != 0) return rc;
    h.id = get_le32(raw);
    h.length = get_le32(raw + 4);
    h.crc = get_le16(raw + 8);
    h.next = get_le16(raw + 10);
    return 0;
}

int write_header(int dev, uint16_t addr, const ArgHeader& h) {
    uint8_t raw[12];
    put_le32(raw, h.id);
    put_le32(raw + 4, h.length);
    put_le16(raw + 8, h.crc);
    put_le16(raw + 10, h.next);
    return ARG_Write(dev, addr, raw, 12);
}

int slot_size(uint32_t id) {
    static const int sizes[13] = {44, 44, 1292, 1292, 44, 1292, 1292, 44, 44, 1292, 1292, 1292, 1292};
    const uint32_t index = id - 0x55AA0001u;
    return index < 13 ? sizes[index] : -1;
}

void pause_before_access() { usleep(10 * 1000); }

int write_record(int dev, uint16_t addr, uint32_t id, const uint8_t* data, uint32_t len, uint16_t next) {
    ArgHeader h;
    h.id = id;
    h.length = len;
    h.crc = crc16_ccitt(data, static_cast<int>(len));
    h.next = next;
    pause_before_access();
    int rc = write_header(dev, addr, h);
    if (rc != 0) return rc;
    pause_before_access();
    return ARG_Write(dev, static_cast<uint16_t>(addr + 12), const_cast<uint8_t*>(data), static_cast<uint16_t>(len));
}

}  // namespace

extern "C" {

POLYBUS_API int ARG_ReadArgData(int dev, unsigned int ArgId, unsigned char* pData) {
    ArgHeader h;
    uint16_t addr = kFirstHeader;
    ChainWalk walk;
    while (walk.enter(addr)) {
        int rc = read_header(dev, addr, h);
        if (rc != 0) return rc;
        if (h.id == ArgId) {
            const uint16_t len = static_cast<uint16_t>(h.length & 0xFFFF);
            std::vector<uint8_t> data(len + 1u);
            rc = ARG_Read(dev, static_cast<uint16_t>(addr + 12), data.data(), len);
            if (rc != 0) return rc;
            if (crc16_ccitt(data.data(), len) != h.crc) return -9;
            if (pData != nullptr) std::memcpy(pData, data.data(), len);
            return static_cast<int>(h.length);
        }
        if (h.next == 0 || h.next == 0xFFFF) return -8;
        addr = h.next;
    }
    return -8;
}

POLYBUS_API int ARG_WriteArgData(int dev, unsigned int ArgId, unsigned char* pData, unsigned int Len) {
    ArgHeader h;
    uint16_t addr = kFirstHeader;
    ChainWalk walk;
    walk.enter(addr);
    pause_before_access();
    int rc = read_header(dev, addr, h);
    while (rc == 0) {
        if (h.id == ArgId) {
            // Rewritten in place, even when the new data outgrows the record's slot.
            h.length = Len;
            h.crc = crc16_ccitt(pData, static_cast<int>(Len));
            pause_before_access();
            rc = write_header(dev, addr, h);
            if (rc != 0) return rc;
            pause_before_access();
            return ARG_Write(dev, static_cast<uint16_t>(addr + 12), pData, static_cast<uint16_t>(Len));
        }
        if (!h.marked() || h.next == 0) return write_record(dev, addr, ArgId, pData, Len, 0xFFFF);
        if (h.next == 0xFFFF) {
            const int size = slot_size(h.id);
            if (size < 0) return -10;
            const uint16_t fresh = static_cast<uint16_t>(addr + size);
            h.next = fresh;
            pause_before_access();
            rc = write_header(dev, addr, h);
            if (rc != 0) return rc;
            return write_record(dev, fresh, ArgId, pData, Len, 0xFFFF);
        }
        addr = h.next;
        if (!walk.enter(addr)) return -10;
        pause_before_access();
        rc = read_header(dev, addr, h);
    }
    return rc;
}

POLYBUS_API int ARG_EraseArgData(int dev, int ArgId) {
    ArgHeader h;
    uint16_t addr = kFirstHeader;
    ChainWalk walk;
    while (walk.enter(addr)) {
        int rc = read_header(dev, addr, h);
        if (rc != 0) return rc;
        if (h.id == static_cast<uint32_t>(ArgId)) {
            h.length = 0;
            h.crc = 0xFFFF;
            h.next = 0xFFFF;
            return write_header(dev, addr, h);
        }
        if (!h.marked()) return -10;
        addr = h.next;
    }
    return -10;
}

}  // extern "C"
