#include "polybus/smbus.h"

#include <memory>
#include <new>

#include "polybus/i2c.h"
#include "serial/i2c_internal.h"
#include "transport/exchange.h"
#include "transport/usb_message.h"
#include "wire/i2c.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

constexpr int kBusTimeoutMs = 10;
constexpr Timing kBlockTiming{1000, 5000};

// The block reads are the one place where a missing answer header reaches the caller
// as it is (kNoHeader) instead of being folded into kBadAnswer, so they read the
// answer through the transport directly while the session holds the device.
int block_read(int dev, Command& request, unsigned char* out, int* out_len) {
    std::unique_ptr<uint8_t[]> area(new (std::nothrow) uint8_t[SMBUS_BLOCK_MAX]);
    if (!area) return kBadAnswer;
    USB_MSG msg{0, 0, area.get()};
    size_t received = 0;
    {
        Session session(dev);
        const int sent = session.send(request, kBlockTiming.send_ms);
        if (sent != kOk) return sent;
        if (MSG_GetBounded(dev, &msg, SMBUS_BLOCK_MAX, &received, kBlockTiming.get_ms) != 0) return kNoHeader;
    }
    if (received < 1) return kBadAnswer;
    if (msg.Length > SMBUS_BLOCK_MAX) return kBadAnswer;  // drained: it would not fit
    const uint8_t status = area[0];
    if (status != 0) return status;
    if (msg.Length >= 2) {
        // Only what arrived is copied: a payload read that came up short is cut there.
        const size_t n = received - 1;
        if (n != 0) std::memcpy(out, area.get() + 1, n);
        *out_len = int(n);
    }
    return kOk;
}

bool writable(const void* data, int len) { return len >= 0 && (len == 0 || data != nullptr); }

}  // namespace

extern "C" {

POLYBUS_API int SMBUS_Init(int dev, int ch, unsigned int Setting32, unsigned int Extra) {
    IIC_CONFIG config{};
    config.Setting32 = Setting32;
    config.Setting8 = 1;
    config.AddrBits = 7;
    config.Extra0 = uint8_t(Extra);
    config.Extra1 = uint8_t(Extra >> 8);
    return IIC_Init(dev, ch, &config);
}

POLYBUS_API int SMBUS_QuickCommand(int dev, int ch, short addr, unsigned char WriteFlag) {
    if (WriteFlag != 0) return IIC_WriteBytesHavePEC(dev, ch, addr, nullptr, 0, kBusTimeoutMs, 0);
    return IIC_ReadBytesHavePEC(dev, ch, addr, nullptr, 0, kBusTimeoutMs, 0);
}

POLYBUS_API int SMBUS_WriteByte(int dev, int ch, short addr, unsigned char Data, unsigned char WithPEC) {
    return IIC_WriteBytesHavePEC(dev, ch, addr, &Data, 1, kBusTimeoutMs, WithPEC);
}

POLYBUS_API int SMBUS_ReadByte(int dev, int ch, short addr, unsigned char* pData, unsigned char WithPEC) {
    if (pData == nullptr) return SMBUS_ERR_ARGUMENT;
    return IIC_ReadBytesHavePEC(dev, ch, addr, pData, 1, kBusTimeoutMs, WithPEC);
}

POLYBUS_API int SMBUS_WriteByteProtocol(int dev, int ch, short addr, unsigned char CommandCode, unsigned char Data,
                                        unsigned char WithPEC) {
    unsigned char bytes[2] = {CommandCode, Data};
    return IIC_WriteBytesHavePEC(dev, ch, addr, bytes, 2, kBusTimeoutMs, WithPEC);
}

POLYBUS_API int SMBUS_WriteWordProtocol(int dev, int ch, short addr, unsigned char CommandCode,
                                        unsigned short Data, unsigned char WithPEC) {
    unsigned char bytes[3] = {CommandCode, uint8_t(Data >> 8), uint8_t(Data)};
    return IIC_WriteBytesHavePEC(dev, ch, addr, bytes, 3, kBusTimeoutMs, WithPEC);
}

POLYBUS_API int SMBUS_ReadByteProtocol(int dev, int ch, short addr, unsigned char CommandCode,
                                       unsigned char* pData, unsigned char WithPEC) {
    if (pData == nullptr) return SMBUS_ERR_ARGUMENT;
    return IIC_WriteReadBytesHavePEC(dev, ch, addr, &CommandCode, 1, pData, 1, kBusTimeoutMs, WithPEC);
}

POLYBUS_API int SMBUS_ReadWordProtocol(int dev, int ch, short addr, unsigned char CommandCode,
                                       unsigned short* pData, unsigned char WithPEC) {
    if (pData == nullptr) return SMBUS_ERR_ARGUMENT;
    unsigned char word[2] = {0, 0};
    const int rc = IIC_WriteReadBytesHavePEC(dev, ch, addr, &CommandCode, 1, word, 2, kBusTimeoutMs, WithPEC);
    *pData = uint16_t(word[0] << 8 | word[1]);
    return rc;
}

POLYBUS_API int SMBUS_ProcessCall(int dev, int ch, short addr, unsigned char CommandCode, unsigned short WriteData,
                                  unsigned short* pReadData, unsigned char WithPEC) {
    if (pReadData == nullptr) return SMBUS_ERR_ARGUMENT;
    unsigned char out[3] = {CommandCode, uint8_t(WriteData >> 8), uint8_t(WriteData)};
    unsigned char word[2] = {0, 0};
    const int rc = IIC_WriteReadBytesHavePEC(dev, ch, addr, out, 3, word, 2, kBusTimeoutMs, WithPEC);
    *pReadData = uint16_t(word[0] << 8 | word[1]);
    return rc;
}

POLYBUS_API int SMBUS_BlockWrite(int dev, int ch, short addr, unsigned char CommandCode, unsigned char* pWriteData,
                                 int WriteLen, unsigned char WithPEC) {
    if (!writable(pWriteData, WriteLen)) return SMBUS_ERR_ARGUMENT;
    Command request(SMBUS_BLOCK_WRITE, size_t(WriteLen) + 9);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(kBusTimeoutMs).u8(CommandCode).u8(WithPEC);
    request.bytes(pWriteData, size_t(WriteLen));
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, kBlockTiming);
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 1) != kOk) return kBadAnswer;
    return answer.u8(0);
}

POLYBUS_API int SMBUS_BlockRead(int dev, int ch, short addr, unsigned char CommandCode, unsigned char* pReadData,
                                int* pReadLen, unsigned char WithPEC) {
    if (pReadData == nullptr || pReadLen == nullptr) return SMBUS_ERR_ARGUMENT;
    Command request(SMBUS_BLOCK_READ);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(kBusTimeoutMs).u8(CommandCode).u8(WithPEC);
    return block_read(dev, request, pReadData, pReadLen);
}

POLYBUS_API int SMBUS_BlockProcessCall(int dev, int ch, short addr, unsigned char CommandCode,
                                       unsigned char* pWriteData, int WriteLen, unsigned char* pReadData,
                                       int* pReadLen, unsigned char WithPEC) {
    if (!writable(pWriteData, WriteLen) || pReadData == nullptr || pReadLen == nullptr) return SMBUS_ERR_ARGUMENT;
    Command request(SMBUS_BLOCK_PROCESS, size_t(WriteLen) + 9);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(kBusTimeoutMs).u8(CommandCode).u8(WithPEC);
    request.bytes(pWriteData, size_t(WriteLen));
    return block_read(dev, request, pReadData, pReadLen);
}

}  // extern "C"
