// Serial NOR flash: programming, sector erase and reads run in the adapter from the
// description given at init; chip erase and command-driven erase are sequenced here
// from plain transfers, polling the flash's status register.
#include <unistd.h>

#include <climits>

#include "polybus/spi.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "wire/spi.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

constexpr uint8_t kBusy = 0x01;
constexpr uint8_t kWriteEnabled = 0x02;
constexpr int kPollMs = 10;

struct FlashPorts {
    SPI_FLASH_CONFIG port[2] = {};
};
PerDevice<FlashPorts> g_flash;
const SPI_FLASH_CONFIG kNoFlash = {};

const SPI_FLASH_CONFIG& flash_of(int dev, int port) {
    FlashPorts* f = g_flash.find(dev);
    return f != nullptr ? f->port[port & 1] : kNoFlash;
}

// Polls the status register until `done` holds. The time is checked before the status:
// a wait shorter than one poll period never succeeds.
template <typename Done>
int wait_status(int dev, int port, int TimeOutMs, uint8_t& status, Done done) {
    unsigned char cmd = flash_of(dev, port).ReadStatusCmd;
    int elapsed = 0;
    for (;;) {
        const int rc = SPI_WriteReadBytes(dev, port, &cmd, 1, &status, 1, 0);
        if (rc != kOk) return rc;
        elapsed += kPollMs;
        usleep(kPollMs * 1000);
        if (elapsed > TimeOutMs) return SPI_ERR_TIMEOUT;
        if (done(status)) return kOk;
    }
}

int wait_idle(int dev, int port, int TimeOutMs, uint8_t& status) {
    return wait_status(dev, port, TimeOutMs, status, [](uint8_t s) { return (s & kBusy) == 0; });
}

int send_byte(int dev, int port, unsigned char byte) { return SPI_WriteBytes(dev, port, &byte, 1); }

}  // namespace

extern "C" {

POLYBUS_API int SPI_FlashInit(int dev, int port, int ClockSpeed, SPI_FLASH_CONFIG* pConfig) {
    if (pConfig == nullptr) return SPI_ERR_ARGUMENT;
    if (pConfig->IDLength == 0) pConfig->IDLength = 1;
    Command request(SPI_FLASH_INIT);
    request.u8(uint8_t(port)).be32(uint32_t(ClockSpeed)).record(*pConfig);
    const int rc = acknowledged(dev, request);
    if (rc != kOk) return rc;
    if (FlashPorts* f = g_flash.find(dev)) f->port[port & 1] = *pConfig;
    return kOk;
}

POLYBUS_API int SPI_FlashReadID(int dev, int port, unsigned char* pID) {
    const size_t n = flash_of(dev, port).IDLength;
    if (pID == nullptr && n != 0) return SPI_ERR_ARGUMENT;
    Command request(SPI_FLASH_READ_ID);
    request.u8(uint8_t(port));
    AnswerBuffer<16> scratch;
    Answer answer = pID != nullptr ? Answer(pID, n) : scratch;
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    return answer.length == n ? kOk : kBadAnswer;
}

POLYBUS_API int SPI_FlashEraseSector(int dev, int port, int StartSector, int NumSector, int TimeOutMs) {
    Command request(SPI_FLASH_ERASE_SECTOR);
    request.u8(uint8_t(port)).be32(uint32_t(StartSector)).be32(uint32_t(NumSector));
    const long long wait = (long long)TimeOutMs + 1000;
    return acknowledged(dev, request, {1000, wait > INT_MAX ? INT_MAX : int(wait)});
}

POLYBUS_API int SPI_FlashWrite(int dev, int port, int StartAddr, unsigned char* pWriteData, int WriteLen) {
    if (WriteLen < 0 || (WriteLen != 0 && pWriteData == nullptr)) return SPI_ERR_ARGUMENT;
    Command request(SPI_FLASH_WRITE, size_t(WriteLen) + 5);
    request.u8(uint8_t(port)).be32(uint32_t(StartAddr)).bytes(pWriteData, size_t(WriteLen));
    return acknowledged(dev, request, {1000, 10000});
}

static int flash_read(int dev, int port, SpiCommand code, int StartAddr, unsigned char* out, int len, bool exact) {
    if (len < 0 || (len != 0 && out == nullptr)) return SPI_ERR_ARGUMENT;
    Command request(code);
    request.u8(uint8_t(port)).be32(uint32_t(StartAddr)).be32(uint32_t(len));
    AnswerBuffer<16> scratch;
    Answer answer = out != nullptr ? Answer(out, size_t(len)) : scratch;
    const int rc = transact(dev, request, answer, {1000, 10000});
    if (rc != kOk) return rc;
    if (exact && answer.length != uint32_t(len)) return kBadAnswer;
    return kOk;
}

POLYBUS_API int SPI_FlashRead(int dev, int port, int StartAddr, unsigned char* pReadData, int ReadLen) {
    return flash_read(dev, port, SPI_FLASH_READ, StartAddr, pReadData, ReadLen, true);
}

POLYBUS_API int SPI_FlashReadFast(int dev, int port, int StartAddr, unsigned char* pReadData, int ReadLen) {
    return flash_read(dev, port, SPI_FLASH_READ_FAST, StartAddr, pReadData, ReadLen, false);
}

POLYBUS_API int SPI_FlashEraseChip(int dev, int port, int TimeOutMs) {
    uint8_t status = 0xFF;
    int rc = wait_idle(dev, port, TimeOutMs, status);
    if (rc != kOk) return rc;
    const SPI_FLASH_CONFIG& f = flash_of(dev, port);
    if ((rc = send_byte(dev, port, f.WriteEnableCmd)) != kOk) return rc;
    if ((rc = send_byte(dev, port, f.ChipEraseCmd)) != kOk) return rc;
    return wait_idle(dev, port, TimeOutMs, status);
}

POLYBUS_API int SPI_FlashErase(int dev, int port, int StartAddr, unsigned char AddrBytes, unsigned char EraseCmd,
                               int TimeOutMs) {
    uint8_t status = 0xFF;
    int rc = wait_idle(dev, port, TimeOutMs, status);
    if (rc != kOk) return rc;
    const uint8_t write_enable = flash_of(dev, port).WriteEnableCmd;
    // Write enable, then one poll, until the latch shows.
    unsigned char cmd = flash_of(dev, port).ReadStatusCmd;
    int elapsed = 0;
    do {
        if ((rc = send_byte(dev, port, write_enable)) != kOk) return rc;
        if ((rc = SPI_WriteReadBytes(dev, port, &cmd, 1, &status, 1, 0)) != kOk) return rc;
        elapsed += kPollMs;
        usleep(kPollMs * 1000);
        if (elapsed > TimeOutMs) return SPI_ERR_TIMEOUT;
    } while ((status & kWriteEnabled) == 0);
    const int n = AddrBytes < 4 ? AddrBytes : 4;
    unsigned char frame[5] = {EraseCmd};
    for (int i = 0; i < n; ++i) frame[1 + i] = uint8_t(uint32_t(StartAddr) >> (8 * (n - 1 - i)));
    if ((rc = SPI_WriteBytes(dev, port, frame, n + 1)) != kOk) return rc;
    return wait_idle(dev, port, TimeOutMs, status);
}

}  // extern "C"
