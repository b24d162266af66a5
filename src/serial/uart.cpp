#include "polybus/uart.h"

#include <unistd.h>

#include <climits>

#include "transport/exchange.h"
#include "wire/uart.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

bool usable(const void* data, int len) { return len >= 0 && (len == 0 || data != nullptr); }

int write_bytes(int dev, UartCommand code, int port, const unsigned char* data, int len) {
    if (!usable(data, len)) return UART_ERR_ARGUMENT;
    Command request(code, size_t(len) + 1);
    request.u8(uint8_t(port)).bytes(data, size_t(len));
    // The adapter answers once the bytes are on the line.
    return acknowledged(dev, request, {1000, 5000});
}

}  // namespace

extern "C" {

POLYBUS_API int UART_Init(int dev, int port, UART_CONFIG* pConfig) {
    if (pConfig == nullptr) return UART_ERR_ARGUMENT;
    Command request(UART_INIT);
    request.u8(uint8_t(port)).record(*pConfig);  // as it lies in memory: baud rate little-endian
    return acknowledged(dev, request);
}

POLYBUS_API int UART_WriteBytes(int dev, int port, unsigned char* data, int len) {
    return write_bytes(dev, UART_WRITE, port, data, len);
}

POLYBUS_API int UART_WriteBytesAsync(int dev, int port, unsigned char* data, int len) {
    return write_bytes(dev, UART_WRITE_ASYNC, port, data, len);
}

POLYBUS_API int UART_WriteBytesInterval(int dev, int port, unsigned char* data, int len, int IntervalTimeMs) {
    if (!usable(data, len)) return UART_ERR_ARGUMENT;
    const uint8_t gap = uint8_t(IntervalTimeMs & 0xFF);
    Command request(UART_WRITE_INTERVAL, size_t(len) + 2);
    request.u8(uint8_t(port)).u8(gap).bytes(data, size_t(len));
    const long long wait_ms = (long long)gap * len + 5000;
    return acknowledged(dev, request, {1000, wait_ms > INT_MAX ? INT_MAX : int(wait_ms)});
}

POLYBUS_API int UART_ReadBytes(int dev, int port, unsigned char* pReadData, int TimeOutMs) {
    AnswerBuffer<16> scratch;
    Answer answer = pReadData != nullptr ? Answer(pReadData, UART_READ_MAX) : scratch;
    for (int budget = TimeOutMs;; --budget) {
        Command request(UART_READ);
        request.u8(uint8_t(port));
        const int rc = transact(dev, request, answer);
        if (rc != kOk) return rc;
        const int n = pReadData != nullptr ? int(answer.received) : int(answer.length);
        if (budget < 1 || n > 0) return n;
        usleep(1000);
        if (budget < 2) return n;
    }
}

POLYBUS_API int UART_ClearData(int dev, int port) {
    Command request(UART_CLEAR);
    request.u8(uint8_t(port));
    return acknowledged(dev, request);
}

}  // extern "C"
