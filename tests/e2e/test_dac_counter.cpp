// DAC and counters end to end: the little-endian waveform and its playback seen by an
// ADC input, the counter record and the byte-order asymmetry of the values, counting,
// and the answers both families reject.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>

#include "adc_model.h"
#include "counter_model.h"
#include "dac_model.h"
#include "sim_fixture.h"

using namespace polybus_sim;
using namespace polybus_test;

namespace {
class DacCounter : public SimTest {
protected:
    std::vector<Frame> frames(uint32_t code) {
        std::vector<Frame> out;
        for (auto& f : adapter->received())
            if (f.command == code) out.push_back(f);
        return out;
    }
};
void settle(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
}  // namespace

TEST_F(DacCounter, WaveformTravelsLittleEndian) {
    unsigned short one = 0x0A0B;
    ASSERT_EQ(DAC_Init(handle, 0x0102, &one, 1), 0);
    EXPECT_EQ(frames(0x3000).at(0).payload, (std::vector<uint8_t>{0x02, 0x01, 0x0B, 0x0A}));
    ASSERT_EQ(DAC_Init(handle, 0x0304, &one, 0), 0);
    EXPECT_EQ(frames(0x3000).at(1).payload, (std::vector<uint8_t>{0x04, 0x03}));
    ASSERT_EQ(DAC_Init(handle, 7, &one, -5), 0);
    EXPECT_EQ(frames(0x3000).at(2).payload.size(), 2u) << "a negative count sends the header alone";
    // A long waveform goes in one request.
    std::vector<unsigned short> wave(5000);
    for (size_t i = 0; i < wave.size(); ++i) wave[i] = uint16_t(i);
    ASSERT_EQ(DAC_Init(handle, 10, wave.data(), int(wave.size())), 0);
    EXPECT_EQ(model<DacModel>().values(), std::vector<uint16_t>(wave.begin(), wave.end()));
    EXPECT_EQ(model<DacModel>().header(), 10);
    ASSERT_EQ(DAC_Init(handle, 10, nullptr, 3), 0);
    EXPECT_EQ(model<DacModel>().values(), std::vector<uint16_t>(3, 0));

    ASSERT_EQ(DAC_Start(handle), 0);
    EXPECT_TRUE(model<DacModel>().playing());
    ASSERT_EQ(DAC_Stop(handle), 0);
    EXPECT_FALSE(model<DacModel>().playing());
    EXPECT_TRUE(frames(0x3001).at(0).payload.empty());
    EXPECT_TRUE(frames(0x3002).at(0).payload.empty());
}

TEST_F(DacCounter, AdcInputWiredToTheDacSeesTheWaveform) {
    AnalogSignal wired;
    wired.kind = AnalogSignal::Kind::Dac;
    model<AdcModel>().set_input(2, wired);
    // Four levels held 2 ms each, sampled every millisecond: each level twice a turn.
    unsigned short levels[4] = {100, 1100, 2100, 3100};
    ASSERT_EQ(DAC_Init(handle, 2000, levels, 4), 0);
    ASSERT_EQ(DAC_Start(handle), 0);
    ASSERT_EQ(ADC_Init(handle, 0x04, 1000), 0);
    std::vector<short> s(80);
    ASSERT_EQ(ADC_Read(handle, s.data(), 80), 0);
    std::map<int, int> seen;
    for (size_t i = 0; i < s.size(); ++i) {
        ++seen[s[i]];
        if (i == 0) continue;
        const int step = (s[i] - s[i - 1] + 4000) % 4000;
        EXPECT_TRUE(step == 0 || step == 1000) << "played out of order at " << i << ": " << s[i - 1] << " " << s[i];
    }
    ASSERT_EQ(seen.size(), 4u);
    for (auto& kv : seen) EXPECT_NEAR(kv.second, 20, 2) << "level " << kv.first;

    ASSERT_EQ(DAC_Stop(handle), 0);
    ASSERT_EQ(ADC_Read(handle, s.data(), 5), 0);
    EXPECT_EQ(std::count(s.begin(), s.begin() + 5, 0), 5) << "a stopped DAC outputs 0";
}

TEST_F(DacCounter, CounterValuesGoBigEndianAndComeBackRaw) {
    CNT_CONFIG c{};
    c.CounterMode = CNT_MODE_DOWN;
    c.CounterPolarity = CNT_EDGE_FALLING;
    c.CounterBitWide = 16;
    c.CounterPinMode = CNT_PIN_PULL_UP;
    c.FilterNs = 0x01020304;
    c.Reserved[7] = 0xEE;
    ASSERT_EQ(CNT_Init(handle, 0x05, &c), 0);
    auto init = frames(0x0900).at(0).payload;
    ASSERT_EQ(init.size(), 17u);
    EXPECT_EQ(init[0], 0x05);
    EXPECT_EQ(0, std::memcmp(init.data() + 1, &c, 16));
    EXPECT_EQ(init[5], 0x04) << "the record is raw, little-endian";
    EXPECT_EQ(model<CounterModel>().counter(2).mode, CNT_MODE_DOWN);
    EXPECT_EQ(model<CounterModel>().counter(2).width, 16);
    EXPECT_EQ(model<CounterModel>().counter(1).inits, 0);

    unsigned in[4] = {1, 2, 3, 4};
    ASSERT_EQ(CNT_SetValue(handle, 0x0F, in), 0);
    EXPECT_EQ(frames(0x0903).at(0).payload,
              (std::vector<uint8_t>{0x0F, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4}));
    unsigned out[4] = {};
    ASSERT_EQ(CNT_GetValue(handle, 0x0B, out), 0);
    // The adapter answers 01 00 00 00 ...: the bytes land as they are.
    EXPECT_EQ(out[0], 1u);
    EXPECT_EQ(out[1], 2u);
    EXPECT_EQ(out[2], 0u) << "outside the mask";
    EXPECT_EQ(out[3], 4u);
    ASSERT_EQ(CNT_Start(handle, 0x1), 0);
    ASSERT_EQ(CNT_Stop(handle, 0x1), 0);
    EXPECT_EQ(frames(0x0901).at(0).payload, (std::vector<uint8_t>{0x01}));
    EXPECT_FALSE(model<CounterModel>().counter(0).running);
    ASSERT_EQ(CNT_Init(handle, 0x2, nullptr), 0);
    std::vector<uint8_t> zeros(17, 0);
    zeros[0] = 0x02;
    EXPECT_EQ(frames(0x0900).at(1).payload, zeros);
}

TEST_F(DacCounter, CountersCountThePwmOutput) {
    // Default adapter: PWM channel 0 (index 6) feeds counter 0; 84 MHz / (840 x 100) = 1 kHz.
    ASSERT_EQ(PWM2_Init(handle, 0, 1000, 0, 100, 30), 0);
    CNT_CONFIG down{};
    down.CounterMode = CNT_MODE_DOWN;
    down.CounterBitWide = 16;
    ASSERT_EQ(CNT_Init(handle, 0x1, &down), 0);
    unsigned preset[4] = {50, 0, 0, 0};
    ASSERT_EQ(CNT_SetValue(handle, 0x1, preset), 0);
    ASSERT_EQ(CNT_Start(handle, 0x1), 0);
    ASSERT_EQ(PWM2_Start(handle, 0, 200), 0);  // 200 pulses, then the output stops
    settle(300);
    unsigned v[4] = {};
    ASSERT_EQ(CNT_GetValue(handle, 0x1, v), 0);
    EXPECT_EQ(v[0], (50u - 200u) & 0xFFFFu) << "counting down from 50 wraps at 16 bits";
    // Counter 1 watches channel 1, which never ran.
    ASSERT_EQ(CNT_Start(handle, 0x2), 0);
    ASSERT_EQ(CNT_GetValue(handle, 0x2, v), 0);
    EXPECT_EQ(v[1], 0u);
}

TEST_F(DacCounter, RejectedAnswers) {
    unsigned v[4] = {7, 7, 7, 7};
    adapter->inject(Fault::ShortPayload, 0x0904);
    EXPECT_EQ(CNT_GetValue(handle, 0xF, v), -4);
    adapter->inject(Fault::Oversized, 0x0904);
    EXPECT_EQ(CNT_GetValue(handle, 0xF, v), -4);
    EXPECT_EQ(v[0], 7u) << "nothing lands on a rejected answer";
    adapter->inject(Fault::Oversized, 0x3001);
    EXPECT_EQ(DAC_Start(handle), -4);
    adapter->inject(Fault::Oversized, 0x0901);
    EXPECT_EQ(CNT_Start(handle, 1), -4);
    unsigned short wave[2] = {1, 2};
    adapter->inject(Fault::UnplugBefore, 0x3000);
    EXPECT_EQ(DAC_Init(handle, 1, wave, 2), -4);
    EXPECT_EQ(DAC_Stop(handle), -2) << "gone";
}

TEST_F(DacCounter, ClosedOrUnknownHandlesCannotSend) {
    USB_CloseDevice(handle);
    unsigned short wave[1] = {1};
    unsigned v[4] = {};
    CNT_CONFIG c{};
    EXPECT_EQ(DAC_Init(handle, 1, wave, 1), -2);
    EXPECT_EQ(DAC_Start(handle), -2);
    EXPECT_EQ(DAC_Stop(handle), -2);
    EXPECT_EQ(CNT_Init(handle, 1, &c), -2);
    EXPECT_EQ(CNT_Start(handle, 1), -2);
    EXPECT_EQ(CNT_Stop(handle, 1), -2);
    EXPECT_EQ(CNT_SetValue(handle, 1, v), -2);
    EXPECT_EQ(CNT_GetValue(handle, 1, v), -2);
    EXPECT_EQ(DAC_Start(0x7E000001), -2);
    EXPECT_TRUE(adapter->received().empty());
}

TEST_F(DacCounter, CountersCountGpioPulseTrains) {
    CounterWiring w;
    w.gpio_pin[2] = 5;
    model<CounterModel>().wire(w);
    CNT_CONFIG both{};
    both.CounterPolarity = CNT_EDGE_BOTH;
    ASSERT_EQ(CNT_Init(handle, 0x4, &both), 0);
    ASSERT_EQ(CNT_Start(handle, 0x4), 0);
    // 40 pulses of 100 us every 500 us: the call returns once the train is out.
    ASSERT_EQ(GPIO_SendPulses(handle, 0x20, 100, 500, 40), 0);
    ASSERT_EQ(GPIO_SendPulses(handle, 0x01, 100, 500, 7), 0);  // another pin
    settle(5);
    unsigned v[4] = {};
    ASSERT_EQ(CNT_GetValue(handle, 0x4, v), 0);
    EXPECT_EQ(v[2], 80u) << "both edges of 40 pulses";
}
