#include "polybus/pwm.h"

#include "device/adapter_models.h"
#include "transport/exchange.h"
#include "wire/analog.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

constexpr unsigned char kLastChannel = 7;

// The model's mask bit of a channel; channels past the 8 mask bits have none (a shift
// of 32 or more must not wrap around into the mask).
uint8_t channel_mask(int dev, unsigned ch) {
    const AdapterModel* m = adapter_model(dev);
    if (m == nullptr || ch >= 8) return 0;
    return static_cast<uint8_t>((unsigned{m->pwm_first_bit} << ch) & 0xFFu);
}

uint8_t channel_index(int dev, unsigned ch) {
    const uint8_t mask = channel_mask(dev, ch);
    for (uint8_t i = 0; i < 8; ++i)
        if (mask & (1u << i)) return i;
    return 0;
}

unsigned clamp_channel(unsigned ch) { return ch > kLastChannel ? kLastChannel : ch; }

// The eight per-index values, element by element, big-endian.
Command& array8(Command& request, const unsigned short* values) {
    for (int i = 0; i < 8; ++i) request.be16(values != nullptr ? values[i] : 0);
    return request;
}

int simple(int dev, PwmCommand code, unsigned char value) {
    Command request(code);
    request.u8(value);
    return acknowledged(dev, request);
}

uint32_t timer_clock(int dev) {
    const AdapterModel* m = adapter_model(dev);
    return m != nullptr ? m->pwm_clock_hz : 0;
}

}  // namespace

extern "C" {

POLYBUS_API int PWM_Init(int dev, PWM_CONFIG* pConfig) {
    PWM_CONFIG zero{};
    Command request(PWM_INIT, sizeof(PWM_CONFIG));
    request.record(pConfig != nullptr ? *pConfig : zero);
    return acknowledged(dev, request);
}

POLYBUS_API int PWM_Start(int dev, unsigned char mask, unsigned int run_time) {
    Command request(PWM_START);
    request.u8(mask).be32(run_time);
    return acknowledged(dev, request);
}

POLYBUS_API int PWM_Stop(int dev, unsigned char mask) { return simple(dev, PWM_STOP, mask); }

POLYBUS_API int PWM_SetPulse(int dev, unsigned char mask, unsigned short* pPulse) {
    Command request(PWM_SET_PULSE);
    array8(request.u8(mask), pPulse);
    return acknowledged(dev, request);
}

POLYBUS_API int PWM_SetFrequency(int dev, unsigned char mask, unsigned short* pPrescaler, unsigned short* pPrecision) {
    Command request(PWM_SET_FREQUENCY);
    array8(array8(request.u8(mask), pPrescaler), pPrecision);
    return acknowledged(dev, request);
}

POLYBUS_API int PWM_SetPhase(int dev, unsigned char mask, unsigned short* pPhase) {
    Command request(PWM_SET_PHASE);
    array8(request.u8(mask), pPhase);
    return acknowledged(dev, request);
}

POLYBUS_API int PWM_CAP_Init(int dev, unsigned char channel, unsigned char mode) {
    Command request(PWM_CAP_INIT);
    request.u8(channel).u8(mode);
    return acknowledged(dev, request);
}

POLYBUS_API int PWM_CAP_GetData(int dev, unsigned char channel, void* pData) {
    Command request(PWM_CAP_GET_DATA);
    request.u8(channel);
    return fetch_exactly(dev, request, pData, sizeof(PWM_CAP_DATA));
}

POLYBUS_API int PWM_CAP_Stop(int dev, unsigned char channel) { return simple(dev, PWM_CAP_STOP, channel); }

POLYBUS_API int PWM2_Init(int dev, unsigned char channel, unsigned int frequency, unsigned char polarity,
                          unsigned int precision, unsigned int pulse) {
    const uint32_t divisor = frequency * precision;  // 32-bit product, as the adapter's tools compute it
    if (divisor == 0 || adapter_model(dev) == nullptr) return PWM_ERR_ARGUMENT;
    const unsigned ch = clamp_channel(channel);
    const uint8_t mask = channel_mask(dev, ch);
    if (mask == 0) return PWM_ERR_ARGUMENT;
    const uint8_t index = channel_index(dev, ch);
    PWM_CONFIG config{};
    config.Prescaler[index] = static_cast<unsigned short>(timer_clock(dev) / divisor);
    config.Precision[index] = static_cast<unsigned short>(precision);
    config.Pulse[index] = static_cast<unsigned short>(pulse);
    config.Polarity[index] = polarity;
    config.ChannelMask = mask;
    return PWM_Init(dev, &config);
}

// Start and stop take the channel as given, unclamped.
POLYBUS_API int PWM2_Start(int dev, unsigned char channel, unsigned int run_time) {
    return PWM_Start(dev, channel_mask(dev, channel), run_time);
}

POLYBUS_API int PWM2_Stop(int dev, unsigned char channel) { return PWM_Stop(dev, channel_mask(dev, channel)); }

POLYBUS_API int PWM2_SetDutyCycle(int dev, unsigned char channel, unsigned short pulse) {
    const unsigned ch = clamp_channel(channel);
    unsigned short pulses[8] = {};
    pulses[channel_index(dev, ch)] = pulse;
    return PWM_SetPulse(dev, channel_mask(dev, ch), pulses);
}

POLYBUS_API int PWM2_SetFrequency(int dev, unsigned char channel, unsigned int frequency, unsigned int precision) {
    const uint32_t divisor = frequency * (precision & 0xFFFFu);
    if (divisor == 0) return PWM_ERR_ARGUMENT;
    const unsigned ch = clamp_channel(channel);
    const uint8_t index = channel_index(dev, ch);
    unsigned short prescalers[8] = {}, precisions[8] = {};
    prescalers[index] = static_cast<unsigned short>(timer_clock(dev) / divisor);
    precisions[index] = static_cast<unsigned short>(precision);
    return PWM_SetFrequency(dev, channel_mask(dev, ch), prescalers, precisions);
}

POLYBUS_API int PWM_GetChannelMask(int dev, unsigned char channel) { return channel_mask(dev, channel); }
POLYBUS_API int PWM_GetChannelIndex(int dev, unsigned char channel) { return channel_index(dev, channel); }
POLYBUS_API unsigned int PWM_GetMCUFrequency(int dev) { return timer_clock(dev); }

}  // extern "C"
