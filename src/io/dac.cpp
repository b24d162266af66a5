#include "polybus/dac.h"

#include "transport/exchange.h"
#include "wire/analog.h"

using namespace polybus;
using namespace polybus::wire;

extern "C" {

POLYBUS_API int DAC_Init(int dev, unsigned short header, unsigned short* pData, int count) {
    const size_t n = count > 0 ? static_cast<size_t>(count) : 0;
    // The waveform travels in the adapter's own little-endian layout.
    Command request(DAC_INIT, 2 + 2 * n);
    request.le16(header);
    for (size_t i = 0; i < n; ++i) request.le16(pData != nullptr ? pData[i] : 0);
    return acknowledged(dev, request);
}

POLYBUS_API int DAC_Start(int dev) {
    Command request(DAC_START);
    return acknowledged(dev, request);
}

POLYBUS_API int DAC_Stop(int dev) {
    Command request(DAC_STOP);
    return acknowledged(dev, request);
}

}  // extern "C"
