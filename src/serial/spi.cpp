#include "polybus/spi.h"

#include <climits>
#include <memory>
#include <new>

#include "serial/bit_string.h"
#include "transport/exchange.h"
#include "wire/spi.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

constexpr Timing kTransfer{1000, 10000};

bool usable(const void* data, long long len) { return len >= 0 && (len == 0 || data != nullptr); }

int clamp_ms(long long ms) { return ms > INT_MAX ? INT_MAX : (ms < INT_MIN ? INT_MIN : int(ms)); }

// Waits that the adapter spends on the bus before it answers.
Timing event_timing(int TimeOutMs) { return {1000, clamp_ms((long long)TimeOutMs + 100)}; }
Timing block_timing(int IntervalTimeUs, int BlockNum) {
    return {1000, clamp_ms((long long)IntervalTimeUs * BlockNum / 1000 + 1000)};
}
Timing block_event_timing(int TimeOutMs, int BlockNum) {
    return {1000, clamp_ms((long long)TimeOutMs * BlockNum + 1000)};
}

// The answer lands straight in the caller's buffer (at most `capacity` bytes);
// success whenever an answer came.
int read_into(int dev, Command& request, unsigned char* out, size_t capacity, Timing timing, size_t* length) {
    AnswerBuffer<16> scratch;
    Answer answer = out != nullptr ? Answer(out, capacity) : scratch;
    const int rc = transact(dev, request, answer, timing);
    if (length != nullptr) *length = answer.length;
    return rc;
}

int write_bytes(int dev, SpiCommand code, int port, const unsigned char* data, int len) {
    if (!usable(data, len)) return SPI_ERR_ARGUMENT;
    Command request(code, size_t(len) + 1);
    request.u8(uint8_t(port)).bytes(data, size_t(len));
    return acknowledged(dev, request, kTransfer);
}

// Event-triggered reads: the status byte, then the data, in a buffer of len + 1 bytes.
// `exact`: the answer must carry all of it.
int event_read(int dev, Command& request, unsigned char* out, size_t len, Timing timing, bool exact) {
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[len + 1]);
    if (!buffer) return SPI_ERR_BITS;  // the family's code for a buffer that cannot be had
    Answer answer(buffer.get(), len + 1);
    const int rc = transact(dev, request, answer, timing);
    if (rc != kOk) return rc;
    if (exact ? expect_exactly(answer, len + 1) != kOk : expect_at_least(answer, 1) != kOk) return kBadAnswer;
    if (answer.u8(0) != 0) return SPI_ERR_EVENT;
    const size_t n = answer.received - 1;
    if (n != 0) std::memcpy(out, buffer.get() + 1, n);
    return kOk;
}

// Slave full-duplex: the adapter reports what it sent and what it received.
int slave_duplex(int dev, SpiCommand code, int port, const unsigned char* data, int wlen, unsigned char* out,
                 int rlen, int TimeOutMs) {
    if (!usable(data, wlen) || !usable(out, rlen)) return SPI_ERR_ARGUMENT;
    if (wlen > SPI_SLAVE_DUPLEX_WRITE_MAX || rlen > SPI_SLAVE_DUPLEX_READ_MAX) return SPI_ERR_ARGUMENT;
    Command request(code, size_t(wlen) + 9);
    request.u8(uint8_t(port)).be32(uint32_t(TimeOutMs)).be32(uint32_t(rlen)).bytes(data, size_t(wlen));
    std::unique_ptr<uint8_t[]> area(new (std::nothrow) uint8_t[SPI_SLAVE_DUPLEX_READ_MAX + 8]);
    if (!area) return kBadAnswer;
    Answer answer(area.get(), SPI_SLAVE_DUPLEX_READ_MAX + 8);
    const int rc = transact(dev, request, answer, {1000, TimeOutMs < 1 ? 0 : clamp_ms((long long)TimeOutMs + 100)});
    if (rc != kOk) return rc;
    if (expect_echo(answer, code) != kOk || expect_at_least(answer, 8) != kOk) return kBadAnswer;
    const uint32_t sent = answer.be32(0) & 0xFFFF;
    const uint32_t got = answer.be32(4) & 0xFFFF;
    size_t copy = std::min<size_t>(got, answer.received - 8);
    copy = std::min<size_t>(copy, size_t(rlen));
    if (copy != 0) std::memcpy(out, area.get() + 8, copy);
    return int(sent << 16 | got);
}

// A bit-string write: the count and the packed bits follow `request`'s fixed fields.
bool append_bits(Command& request, const char* text, size_t bits) {
    std::unique_ptr<uint8_t[]> packed(new (std::nothrow) uint8_t[bit_bytes(bits) + 1]);
    if (!packed || !pack_bits(text, bits, packed.get())) return false;
    request.bytes(packed.get(), bit_bytes(bits));
    return true;
}

// A bit-string answer: the output string is emptied, then filled from what came.
int read_bits(int dev, Command& request, char* text, int bits) {
    const size_t n = bit_bytes(size_t(bits));
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[n + 1]);
    if (!buffer) return kBadAnswer;
    Answer answer(buffer.get(), n);
    const int rc = transact(dev, request, answer, {100, 10000});
    if (rc != kOk) return rc;
    text[0] = '\0';
    if (answer.length < 1) return kOk;
    unpack_bits(buffer.get(), answer.received, size_t(bits), text);
    return kOk;
}

}  // namespace

extern "C" {

POLYBUS_API int SPI_Init(int dev, int port, SPI_CONFIG* c) {
    if (c == nullptr) return SPI_ERR_ARGUMENT;
    Command request(SPI_INIT);
    request.u8(uint8_t(port)).u8(c->Mode).u8(c->Master).u8(c->CPOL).u8(c->CPHA).u8(c->LSBFirst);
    request.u8(c->SelPolarity).be32(c->ClockSpeedHz);
    return acknowledged(dev, request);
}

POLYBUS_API int SPI_WriteBytes(int dev, int port, unsigned char* data, int len) {
    return write_bytes(dev, SPI_WRITE, port, data, len);
}

POLYBUS_API int SPI_WriteBytesAsync(int dev, int port, unsigned char* data, int len) {
    return write_bytes(dev, SPI_WRITE_ASYNC, port, data, len);
}

POLYBUS_API int SPI_ReadBytes(int dev, int port, unsigned char* out, int len) {
    if (!usable(out, len)) return SPI_ERR_ARGUMENT;
    Command request(SPI_READ);
    request.u8(uint8_t(port)).be32(uint32_t(len));
    return read_into(dev, request, out, size_t(len), kTransfer, nullptr);
}

POLYBUS_API int SPI_WriteReadBytes(int dev, int port, unsigned char* data, int wlen, unsigned char* out, int rlen,
                                   int IntervalTimeUs) {
    if (!usable(data, wlen) || !usable(out, rlen)) return SPI_ERR_ARGUMENT;
    Command request(SPI_WRITE_READ, size_t(wlen) + 9);
    request.u8(uint8_t(port)).be32(uint32_t(rlen)).be32(uint32_t(IntervalTimeUs)).bytes(data, size_t(wlen));
    return read_into(dev, request, out, size_t(rlen), kTransfer, nullptr);
}

POLYBUS_API int SPI_WriteBytesOfEvent(int dev, int port, unsigned char* data, int len, int EventPin, int EventType,
                                      int TimeOutMs) {
    if (!usable(data, len)) return SPI_ERR_ARGUMENT;
    Command request(SPI_WRITE_EVENT, size_t(len) + 10);
    request.u8(uint8_t(port)).be32(uint32_t(EventPin)).u8(uint8_t(EventType)).be32(uint32_t(TimeOutMs));
    request.bytes(data, size_t(len));
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, event_timing(TimeOutMs));
    if (rc != kOk) return rc;
    if (expect_at_least(answer, 1) != kOk) return kBadAnswer;
    return answer.u8(0) == 0 ? kOk : SPI_ERR_EVENT;
}

POLYBUS_API int SPI_ReadBytesOfEvent(int dev, int port, unsigned char* out, int len, int EventPin, int EventType,
                                     int TimeOutMs) {
    if (!usable(out, len)) return SPI_ERR_ARGUMENT;
    Command request(SPI_READ_EVENT);
    request.u8(uint8_t(port)).be32(uint32_t(len)).be32(uint32_t(EventPin)).u8(uint8_t(EventType));
    request.be32(uint32_t(TimeOutMs));
    return event_read(dev, request, out, size_t(len), event_timing(TimeOutMs), false);
}

POLYBUS_API int SPI_WriteReadBytesOfEvent(int dev, int port, unsigned char* data, int wlen, unsigned char* out,
                                          int rlen, int IntervalTimeUs, int EventPin, int EventType, int TimeOutMs) {
    if (!usable(data, wlen) || !usable(out, rlen)) return SPI_ERR_ARGUMENT;
    Command request(SPI_WRITE_READ_EVENT, size_t(wlen) + 18);
    request.u8(uint8_t(port)).be32(uint32_t(rlen)).be32(uint32_t(IntervalTimeUs)).be32(uint32_t(EventPin));
    request.u8(uint8_t(EventType)).be32(uint32_t(TimeOutMs)).bytes(data, size_t(wlen));
    return event_read(dev, request, out, size_t(rlen), event_timing(TimeOutMs), false);
}

POLYBUS_API int SPI_BlockWriteBytes(int dev, int port, unsigned char* data, int size, int count, int IntervalTimeUs) {
    const long long total = (long long)size * count;
    if (size < 0 || count < 0 || !usable(data, total)) return SPI_ERR_ARGUMENT;
    Command request(SPI_BLOCK_WRITE, size_t(total) + 9);
    request.u8(uint8_t(port)).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(IntervalTimeUs));
    request.bytes(data, size_t(total));
    return acknowledged(dev, request);
}

POLYBUS_API int SPI_BlockReadBytes(int dev, int port, unsigned char* out, int size, int count, int IntervalTimeUs) {
    const long long total = (long long)size * count;
    if (size < 0 || count < 0 || !usable(out, total)) return SPI_ERR_ARGUMENT;
    Command request(SPI_BLOCK_READ);
    request.u8(uint8_t(port)).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(IntervalTimeUs));
    size_t length = 0;
    const int rc = read_into(dev, request, out, size_t(total), block_timing(IntervalTimeUs, count), &length);
    if (rc != kOk) return rc;
    return length == size_t(total) ? kOk : kBadAnswer;
}

POLYBUS_API int SPI_BlockWriteReadBytes(int dev, int port, unsigned char* data, int wsize, unsigned char* out,
                                        int rsize, int count, int IntervalTimeUs) {
    const long long wtotal = (long long)wsize * count, rtotal = (long long)rsize * count;
    if (wsize < 0 || rsize < 0 || count < 0 || !usable(data, wtotal) || !usable(out, rtotal)) return SPI_ERR_ARGUMENT;
    Command request(SPI_BLOCK_WRITE_READ, size_t(wtotal) + 11);
    request.u8(uint8_t(port)).be16(uint16_t(wsize)).be16(uint16_t(rsize)).be16(uint16_t(count));
    request.be32(uint32_t(IntervalTimeUs)).bytes(data, size_t(wtotal));
    size_t length = 0;
    const int rc = read_into(dev, request, out, size_t(rtotal), block_timing(IntervalTimeUs, count), &length);
    if (rc != kOk) return rc;
    return length == size_t(rtotal) ? kOk : kBadAnswer;
}

POLYBUS_API int SPI_BlockWriteBytesOfEvent(int dev, int port, unsigned char* data, int size, int count, int EventPin,
                                           int EventType, int TimeOutMs) {
    const long long total = (long long)size * count;
    if (size < 0 || count < 0 || !usable(data, total)) return SPI_ERR_ARGUMENT;
    Command request(SPI_BLOCK_WRITE_EVENT, size_t(total) + 14);
    request.u8(uint8_t(port)).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(EventPin));
    request.u8(uint8_t(EventType)).be32(uint32_t(TimeOutMs)).bytes(data, size_t(total));
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, block_event_timing(TimeOutMs, count));
    if (rc != kOk) return rc;
    if (answer.length == 0) return kOk;
    if (expect_exactly(answer, 1) != kOk) return kBadAnswer;
    return answer.u8(0) == 0 ? kOk : SPI_ERR_EVENT;
}

POLYBUS_API int SPI_BlockReadBytesOfEvent(int dev, int port, unsigned char* out, int size, int count, int EventPin,
                                          int EventType, int TimeOutMs) {
    const long long total = (long long)size * count;
    if (size < 0 || count < 0 || !usable(out, total)) return SPI_ERR_ARGUMENT;
    Command request(SPI_BLOCK_READ_EVENT);
    request.u8(uint8_t(port)).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(EventPin));
    request.u8(uint8_t(EventType)).be32(uint32_t(TimeOutMs));
    return event_read(dev, request, out, size_t(total), block_event_timing(TimeOutMs, count), true);
}

POLYBUS_API int SPI_BlockWriteReadBytesOfEvent(int dev, int port, unsigned char* data, int wsize, unsigned char* out,
                                               int rsize, int count, int EventPin, int EventType, int TimeOutMs) {
    const long long wtotal = (long long)wsize * count, rtotal = (long long)rsize * count;
    if (wsize < 0 || rsize < 0 || count < 0 || !usable(data, wtotal) || !usable(out, rtotal)) return SPI_ERR_ARGUMENT;
    Command request(SPI_BLOCK_WRITE_READ_EVENT, size_t(wtotal) + 16);
    request.u8(uint8_t(port)).be16(uint16_t(wsize)).be16(uint16_t(rsize)).be16(uint16_t(count));
    request.be32(uint32_t(EventPin)).u8(uint8_t(EventType)).be32(uint32_t(TimeOutMs)).bytes(data, size_t(wtotal));
    return event_read(dev, request, out, size_t(rtotal), block_event_timing(TimeOutMs, count), true);
}

POLYBUS_API int SPI_WriteBits(int dev, int port, char* text) {
    if (text == nullptr) return SPI_ERR_ARGUMENT;
    const size_t bits = bits_to_send(text);
    Command request(SPI_WRITE_BITS, bit_bytes(bits) + 5);
    request.u8(uint8_t(port)).be32(uint32_t(bits));
    if (!append_bits(request, text, bits)) return SPI_ERR_BITS;
    return acknowledged(dev, request, {100, 10000});
}

POLYBUS_API int SPI_ReadBits(int dev, int port, char* text, int bits) {
    if (text == nullptr || bits < 0) return SPI_ERR_ARGUMENT;
    Command request(SPI_READ_BITS);
    request.u8(uint8_t(port)).be32(uint32_t(bits));
    return read_bits(dev, request, text, bits);
}

POLYBUS_API int SPI_WriteReadBits(int dev, int port, char* wtext, char* rtext, int rbits) {
    if (wtext == nullptr || rtext == nullptr || rbits < 0) return SPI_ERR_ARGUMENT;
    const size_t wbits = bits_to_send(wtext);
    Command request(SPI_WRITE_READ_BITS, bit_bytes(wbits) + 9);
    request.u8(uint8_t(port)).be32(uint32_t(wbits)).be32(uint32_t(rbits));
    if (!append_bits(request, wtext, wbits)) return SPI_ERR_BITS;
    return read_bits(dev, request, rtext, rbits);
}

POLYBUS_API int SPI_SlaveWriteBytes(int dev, int port, unsigned char* data, int len, int TimeOutMs) {
    if (!usable(data, len)) return SPI_ERR_ARGUMENT;
    Command request(SPI_SLAVE_WRITE, size_t(len) + 5);
    request.u8(uint8_t(port)).be32(uint32_t(TimeOutMs)).bytes(data, size_t(len));
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, {1000, TimeOutMs < 1 ? 0 : clamp_ms((long long)TimeOutMs + 100)});
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 4) != kOk || expect_echo(answer, SPI_SLAVE_WRITE) != kOk) return kBadAnswer;
    return int(answer.be32(0));
}

POLYBUS_API int SPI_SlaveReadWriteBytes(int dev, int port, unsigned char* out, int rlen, unsigned char* data, int wlen,
                                        int TimeOutMs) {
    return slave_duplex(dev, SPI_SLAVE_READ_WRITE, port, data, wlen, out, rlen, TimeOutMs);
}

POLYBUS_API int SPI_SlaveWriteReadBytes(int dev, int port, unsigned char* data, int wlen, unsigned char* out, int rlen,
                                        int TimeOutMs) {
    return slave_duplex(dev, SPI_SLAVE_WRITE_READ, port, data, wlen, out, rlen, TimeOutMs);
}

}  // extern "C"
