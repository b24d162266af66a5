#include "polybus/counter.h"

#include "transport/exchange.h"
#include "wire/analog.h"

using namespace polybus;
using namespace polybus::wire;

namespace {
constexpr size_t kCounters = 4;

int masked(int dev, CounterCommand code, unsigned char mask) {
    Command request(code);
    request.u8(mask);
    return acknowledged(dev, request);
}
}  // namespace

extern "C" {

POLYBUS_API int CNT_Init(int dev, unsigned char mask, CNT_CONFIG* pConfig) {
    CNT_CONFIG zero{};
    Command request(CNT_INIT);
    request.u8(mask).record(pConfig != nullptr ? *pConfig : zero);
    return acknowledged(dev, request);
}

POLYBUS_API int CNT_Start(int dev, unsigned char mask) { return masked(dev, CNT_START, mask); }
POLYBUS_API int CNT_Stop(int dev, unsigned char mask) { return masked(dev, CNT_STOP, mask); }

// Values go out big-endian...
POLYBUS_API int CNT_SetValue(int dev, unsigned char mask, unsigned int* pValue) {
    Command request(CNT_SET_VALUE);
    request.u8(mask);
    for (size_t i = 0; i < kCounters; ++i) request.be32(pValue != nullptr ? pValue[i] : 0);
    return acknowledged(dev, request);
}

// ...and come back in the adapter's layout, copied as they are.
POLYBUS_API int CNT_GetValue(int dev, unsigned char mask, unsigned int* pValue) {
    Command request(CNT_GET_VALUE);
    request.u8(mask);
    return fetch_exactly(dev, request, pValue, kCounters * sizeof(unsigned int));
}

}  // extern "C"
