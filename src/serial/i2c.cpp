#include "polybus/i2c.h"

#include <climits>
#include <memory>
#include <new>

#include "serial/i2c_internal.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "wire/i2c.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

// The bus transfer is bounded by the firmware; the answer comes once it is over.
constexpr Timing kMasterTiming{1000, 5000};

struct ChannelConfigs {
    IIC_CONFIG channel[IIC_MAX_CHANNELS] = {};
};
PerDevice<ChannelConfigs> g_configs;

// A length the caller's buffer must back: never negative, never without a buffer.
bool usable(const void* buffer, int len) { return len >= 0 && (len == 0 || buffer != nullptr); }

// The firmware's status byte alone (the transfer failed on the bus) or the status and
// every byte asked for; the data count only when the status is 0.
int read_answer(int dev, Command& request, unsigned char* out, size_t len, Timing timing) {
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[len + 1]);
    if (!buffer) return kBadAnswer;
    Answer answer(buffer.get(), len + 1);
    const int rc = transact(dev, request, answer, timing);
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 1) != kOk && expect_exactly(answer, len + 1) != kOk) return kBadAnswer;
    const uint8_t status = answer.u8(0);
    if (status == 0 && answer.received == len + 1 && len != 0) std::memcpy(out, buffer.get() + 1, len);
    return status;
}

// The firmware's status byte as the whole answer.
int status_answer(int dev, Command& request, Timing timing) {
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, timing);
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 1) != kOk) return kBadAnswer;
    return answer.u8(0);
}

// A two-byte count, little-endian, as the slave commands answer.
int count_answer(int dev, Command& request, Timing timing) {
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, timing);
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 2) != kOk) return kBadAnswer;
    return answer.le16(0);
}

// The firmware waits up to TimeOutMs for the master; the answer may take 100 ms more.
int slave_wait(int TimeOutMs) { return TimeOutMs > INT_MAX - 100 ? INT_MAX : TimeOutMs + 100; }

}  // namespace

namespace polybus {

int IIC_WriteBytesHavePEC(int dev, int ch, short addr, unsigned char* data, int len, int TimeOutMs,
                          unsigned char PEC) {
    if (!usable(data, len)) return IIC_ERR_ARGUMENT;
    Command request(IIC_WRITE, size_t(len) + 8);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(TimeOutMs)).u8(PEC).bytes(data, size_t(len));
    return status_answer(dev, request, kMasterTiming);
}

int IIC_ReadBytesHavePEC(int dev, int ch, short addr, unsigned char* out, int len, int TimeOutMs,
                         unsigned char PEC) {
    if (!usable(out, len)) return IIC_ERR_ARGUMENT;
    Command request(IIC_READ);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(TimeOutMs)).be32(uint32_t(len)).u8(PEC);
    return read_answer(dev, request, out, size_t(len), kMasterTiming);
}

int IIC_WriteReadBytesHavePEC(int dev, int ch, short addr, unsigned char* data, int wlen, unsigned char* out,
                              int rlen, int TimeOutMs, unsigned char PEC) {
    if (!usable(data, wlen) || !usable(out, rlen)) return IIC_ERR_ARGUMENT;
    Command request(IIC_WRITE_READ, size_t(wlen) + 12);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(TimeOutMs)).be32(uint32_t(rlen)).u8(PEC);
    request.bytes(data, size_t(wlen));
    return read_answer(dev, request, out, size_t(rlen), kMasterTiming);
}

}  // namespace polybus

extern "C" {

POLYBUS_API int IIC_Init(int dev, int ch, IIC_CONFIG* cfg) {
    if (cfg == nullptr) return IIC_ERR_ARGUMENT;
    Command request(IIC_INIT);
    request.u8(uint8_t(ch)).u8(cfg->AddrBits == 10 ? 10 : 7).u8(cfg->Setting8).be16(cfg->Setting16);
    request.be32(cfg->Setting32).u8(cfg->Extra0).u8(cfg->Extra1);
    const int rc = acknowledged(dev, request);
    if (rc != kOk) return rc;
    ChannelConfigs* slot = g_configs.find(dev);
    if (slot != nullptr && ch >= 0 && ch < IIC_MAX_CHANNELS) slot->channel[ch] = *cfg;
    return kOk;
}

POLYBUS_API int IIC_WriteBytes(int dev, int ch, short addr, unsigned char* data, int len, int TimeOutMs) {
    return IIC_WriteBytesHavePEC(dev, ch, addr, data, len, TimeOutMs, 0);
}

POLYBUS_API int IIC_ReadBytes(int dev, int ch, short addr, unsigned char* out, int len, int TimeOutMs) {
    return IIC_ReadBytesHavePEC(dev, ch, addr, out, len, TimeOutMs, 0);
}

POLYBUS_API int IIC_WriteReadBytes(int dev, int ch, short addr, unsigned char* data, int wlen, unsigned char* out,
                                   int rlen, int TimeOutMs) {
    return IIC_WriteReadBytesHavePEC(dev, ch, addr, data, wlen, out, rlen, TimeOutMs, 0);
}

POLYBUS_API int IIC_SlaveWriteBytes(int dev, int ch, unsigned char* data, int len, int TimeOutMs) {
    if (!usable(data, len)) return IIC_ERR_ARGUMENT;
    Command request(IIC_SLAVE_WRITE, size_t(len) + 5);
    request.u8(uint8_t(ch)).be32(uint32_t(TimeOutMs)).bytes(data, size_t(len));
    return count_answer(dev, request, {1000, slave_wait(TimeOutMs)});
}

POLYBUS_API int IIC_SlaveReadBytes(int dev, int ch, unsigned char* out, int TimeOutMs) {
    Command request(IIC_SLAVE_READ);
    request.u8(uint8_t(ch)).be32(uint32_t(TimeOutMs));
    AnswerBuffer<16> scratch;
    Answer answer = out != nullptr ? Answer(out, IIC_SLAVE_READ_MAX) : scratch;
    const int rc = transact(dev, request, answer, {1000, slave_wait(TimeOutMs)});
    if (rc != kOk) return rc;
    return out != nullptr ? int(answer.received) : int(answer.length);
}

POLYBUS_API int IIC_SlaveWriteRemain(int dev, int ch) {
    Command request(IIC_SLAVE_REMAIN);
    request.u8(uint8_t(ch));
    return count_answer(dev, request, {});
}

POLYBUS_API int IIC_WriteBytesOfEvent(int dev, int ch, short addr, unsigned char* data, int len, int TimeOutMs,
                                      unsigned char EventPin, unsigned int EventType) {
    if (!usable(data, len)) return IIC_ERR_ARGUMENT;
    Command request(IIC_WRITE_EVENT, size_t(len) + 12);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(TimeOutMs)).u8(EventPin).be32(EventType);
    request.bytes(data, size_t(len));
    return status_answer(dev, request, kMasterTiming);
}

POLYBUS_API int IIC_ReadBytesOfEvent(int dev, int ch, short addr, unsigned char* out, int len, int TimeOutMs,
                                     unsigned char EventPin, unsigned int EventType) {
    if (!usable(out, len)) return IIC_ERR_ARGUMENT;
    Command request(IIC_READ_EVENT);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(len)).be32(uint32_t(TimeOutMs)).u8(EventPin);
    // Only bits 31..8 of the event travel with this command.
    request.u8(uint8_t(EventType >> 24)).u8(uint8_t(EventType >> 16)).u8(uint8_t(EventType >> 8));
    return read_answer(dev, request, out, size_t(len), kMasterTiming);
}

POLYBUS_API int IIC_WriteReadBytesOfEvent(int dev, int ch, short addr, unsigned char* data, int wlen,
                                          unsigned char* out, int rlen, int TimeOutMs, unsigned char EventPin,
                                          unsigned int EventType) {
    if (!usable(data, wlen) || !usable(out, rlen)) return IIC_ERR_ARGUMENT;
    Command request(IIC_WRITE_READ_EVENT, size_t(wlen) + 16);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(rlen)).be32(uint32_t(TimeOutMs)).u8(EventPin);
    request.be32(EventType).bytes(data, size_t(wlen));
    return read_answer(dev, request, out, size_t(rlen), kMasterTiming);
}

POLYBUS_API int IIC_BlockWriteBytes(int dev, int ch, short addr, unsigned char* data, int size, int count,
                                    int param) {
    if (size < 0 || count < 0) return IIC_ERR_ARGUMENT;
    const size_t total = size_t(size) * size_t(count);
    if (!usable(data, total != 0 ? 1 : 0)) return IIC_ERR_ARGUMENT;
    Command request(IIC_BLOCK_WRITE, total + 15);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(size)).be32(uint32_t(count)).be32(uint32_t(param));
    request.bytes(data, total);
    return status_answer(dev, request, kMasterTiming);
}

POLYBUS_API int IIC_BlockReadBytes(int dev, int ch, short addr, unsigned char* out, int size, int count,
                                   int param) {
    if (size < 0 || count < 0) return IIC_ERR_ARGUMENT;
    const size_t total = size_t(size) * size_t(count);
    if (!usable(out, total != 0 ? 1 : 0)) return IIC_ERR_ARGUMENT;
    Command request(IIC_BLOCK_READ);
    request.u8(uint8_t(ch)).be16(uint16_t(addr)).be32(uint32_t(size)).be32(uint32_t(count)).be32(uint32_t(param));
    return read_answer(dev, request, out, total, kMasterTiming);
}

POLYBUS_API int IIC_GetSlaveAddr(int dev, int ch, short* pSlaveAddr) {
    if (pSlaveAddr == nullptr) return IIC_ERR_NULL_ARRAY;
    // A channel never initialised (or not remembered) is scanned over the 10-bit range.
    int addr_bits = 0;
    ChannelConfigs* slot = g_configs.find(dev);
    if (slot != nullptr && ch >= 0 && ch < IIC_MAX_CHANNELS) addr_bits = slot->channel[ch].AddrBits;
    const int last = addr_bits == 7 ? 127 : 1023;
    int found = 0;
    for (int addr = 0; addr <= last; ++addr) {
        if (IIC_WriteBytesHavePEC(dev, ch, short(addr), nullptr, 0, 5, 0) == 0) pSlaveAddr[found++] = short(addr);
    }
    return found;
}

}  // extern "C"
