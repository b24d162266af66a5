#include "polybus/gpio.h"

#include "transport/exchange.h"
#include "wire/gpio.h"

using namespace polybus;
using namespace polybus::wire;

namespace {
int configure(int dev, GpioCommand code, unsigned int mask, unsigned char mode) {
    Command request(code);
    request.be32(mask).u8(mode);
    return acknowledged(dev, request);
}
}  // namespace

extern "C" {

POLYBUS_API int GPIO_SetInput(int dev, unsigned int mask, unsigned char mode) {
    return configure(dev, GPIO_SET_INPUT, mask, mode);
}
POLYBUS_API int GPIO_SetOutput(int dev, unsigned int mask, unsigned char mode) {
    return configure(dev, GPIO_SET_OUTPUT, mask, mode);
}
POLYBUS_API int GPIO_SetOpenDrain(int dev, unsigned int mask, unsigned char mode) {
    return configure(dev, GPIO_SET_OPEN_DRAIN, mask, mode);
}

POLYBUS_API int GPIO_Write(int dev, unsigned int mask, unsigned int value) {
    Command request(GPIO_WRITE);
    request.be32(mask).be32(value);
    return acknowledged(dev, request);
}

POLYBUS_API int GPIO_Read(int dev, unsigned int mask, unsigned int* pPinValue) {
    Command request(GPIO_READ);
    request.be32(mask);
    AnswerBuffer<4> answer;
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    if (expect_exactly(answer, 4) != kOk) return kBadAnswer;
    if (pPinValue != nullptr) *pPinValue = answer.be32(0);
    return kOk;
}

POLYBUS_API int GPIO_SendPulses(int dev, unsigned int mask, unsigned int width, unsigned int period, unsigned int count) {
    // A pulse may never fill its whole period.
    const uint32_t effective = period > width ? period : width + 1;
    Command request(GPIO_SEND_PULSES);
    request.be32(mask).be32(width).be32(effective).be32(count);
    // The adapter answers once the last pulse is out (the product wraps in 32 bits).
    const uint32_t wait_ms = effective * count / 1000u + 1000u;
    return acknowledged(dev, request, {1000, static_cast<int>(wait_ms)});
}

}  // extern "C"
