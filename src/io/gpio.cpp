#include "polybus/gpio.h"

#include "transport/exchange.h"

using namespace polybus;

namespace {
// Every GPIO command but the read is acknowledged with an empty answer.
int acknowledged(int dev, Command& request, Timing timing = {}) {
    AnswerBuffer<16> answer;
    int rc = transact(dev, request, answer, timing);
    if (rc != 0) return rc;
    return answer.length == 0 ? 0 : -4;
}

int configure(int dev, uint32_t code, unsigned int mask, unsigned char mode) {
    Command request(code);
    request.u32(mask).u8(mode);
    return acknowledged(dev, request);
}
}  // namespace

extern "C" {

POLYBUS_API int GPIO_SetInput(int dev, unsigned int mask, unsigned char mode) { return configure(dev, 0x0600, mask, mode); }
POLYBUS_API int GPIO_SetOutput(int dev, unsigned int mask, unsigned char mode) { return configure(dev, 0x0601, mask, mode); }
POLYBUS_API int GPIO_SetOpenDrain(int dev, unsigned int mask, unsigned char mode) { return configure(dev, 0x0602, mask, mode); }

POLYBUS_API int GPIO_Write(int dev, unsigned int mask, unsigned int value) {
    Command request(0x0603);
    request.u32(mask).u32(value);
    return acknowledged(dev, request);
}

POLYBUS_API int GPIO_Read(int dev, unsigned int mask, unsigned int* pPinValue) {
    Command request(0x0604);
    request.u32(mask);
    AnswerBuffer<4> answer;
    int rc = transact(dev, request, answer);
    if (rc != 0) return rc;
    if (answer.length != 4 || answer.received != 4) return -4;
    if (pPinValue != nullptr) *pPinValue = answer.be32(0);
    return 0;
}

POLYBUS_API int GPIO_SendPulses(int dev, unsigned int mask, unsigned int width, unsigned int period, unsigned int count) {
    // A pulse may never fill its whole period.
    const uint32_t effective = period > width ? period : width + 1;
    Command request(0x0806);
    request.u32(mask).u32(width).u32(effective).u32(count);
    const uint32_t wait_ms = effective * count / 1000u + 1000u;
    return acknowledged(dev, request, {1000, static_cast<int>(wait_ms)});
}

}  // extern "C"
