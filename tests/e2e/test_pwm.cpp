// PWM end to end: channel tables per model, the bytes each call sends, the PWM2_
// arithmetic and its refusals, outputs measured back by capture and counters, and the
// answers the family rejects.
#include <chrono>
#include <cstring>
#include <thread>

#include "adc_model.h"
#include "counter_model.h"
#include "pwm_model.h"
#include "sim_fixture.h"

using namespace polybus_sim;
using namespace polybus_test;

namespace {

std::vector<uint8_t> be16s(std::initializer_list<uint16_t> v) {
    std::vector<uint8_t> out;
    for (uint16_t x : v) {
        out.push_back(uint8_t(x >> 8));
        out.push_back(uint8_t(x));
    }
    return out;
}

// A 200 MHz adapter with outputs 0..7 (first PWM bit 1).
class Pwm : public SimTest {
protected:
    AdapterConfig adapter_config() override {
        AdapterConfig c;
        c.identifier = 0x11000001;
        return c;
    }
    PwmModel& pwm() { return model<PwmModel>(); }
    std::vector<Frame> frames(uint32_t code) {
        std::vector<Frame> out;
        for (auto& f : adapter->received())
            if (f.command == code) out.push_back(f);
        return out;
    }
};

// The default adapter: 84 MHz, two outputs on mask bits 6 and 7.
class PwmTwoOutputs : public Pwm {
protected:
    AdapterConfig adapter_config() override { return {}; }
};

void settle(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

TEST(PwmTables, ChannelsFollowTheModel) {
    struct Row {
        int handle;
        unsigned clock;
        int masks[9];
        int indices[9];
    };
    const Row rows[] = {
        {0x11000005, 200000000u, {1, 2, 4, 8, 16, 32, 64, 128, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 0}},
        {0x31000000, 200000000u, {1, 2, 4, 8, 16, 32, 64, 128, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 0}},
        {0x41000000, 84000000u, {0x40, 0x80, 0, 0, 0, 0, 0, 0, 0}, {6, 7, 0, 0, 0, 0, 0, 0, 0}},
        {0x45123456, 84000000u, {0x40, 0x80, 0, 0, 0, 0, 0, 0, 0}, {6, 7, 0, 0, 0, 0, 0, 0, 0}},
        {0x53000000, 220000000u, {2, 4, 8, 16, 32, 64, 128, 0, 0}, {1, 2, 3, 4, 5, 6, 7, 0, 0}},
        {0x54000000, 240000000u, {1, 2, 4, 8, 16, 32, 64, 128, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 0}},
        {0x7E000001, 0u, {0, 0, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(PWM_GetMCUFrequency(r.handle), r.clock) << std::hex << r.handle;
        for (int ch = 0; ch < 9; ++ch) {
            EXPECT_EQ(PWM_GetChannelMask(r.handle, ch), r.masks[ch]) << std::hex << r.handle << " ch " << ch;
            EXPECT_EQ(PWM_GetChannelIndex(r.handle, ch), r.indices[ch]) << std::hex << r.handle << " ch " << ch;
        }
    }
    // A shift past the mask never wraps back into it.
    EXPECT_EQ(PWM_GetChannelMask(0x11000000, 32), 0);
    EXPECT_EQ(PWM_GetChannelMask(0x11000000, 33), 0);
}

TEST_F(Pwm, RecordsGoRawAndArraysBigEndian) {
    PWM_CONFIG c{};
    for (int i = 0; i < 8; ++i) {
        c.Prescaler[i] = uint16_t(0x0100 + i);
        c.Precision[i] = uint16_t(0x0200 + i);
        c.Pulse[i] = uint16_t(0x0300 + i);
        c.Phase[i] = uint16_t(0x0400 + i);
        c.Polarity[i] = uint8_t(i & 1);
    }
    c.ChannelMask = 0x81;
    c.Reserved = 0x5A;
    ASSERT_EQ(PWM_Init(handle, &c), 0);
    auto init = frames(0x0800);
    ASSERT_EQ(init.size(), 1u);
    ASSERT_EQ(init[0].payload.size(), 74u);
    EXPECT_EQ(0, std::memcmp(init[0].payload.data(), &c, 74));
    EXPECT_EQ(init[0].payload[0], 0x00);  // prescaler 0x0100, little-endian
    EXPECT_EQ(init[0].payload[1], 0x01);
    EXPECT_EQ(pwm().output(7).precision, 0x0207);
    EXPECT_EQ(pwm().output(3).precision, 0) << "outside the record's mask";

    unsigned short pulse[8] = {1, 2, 3, 4, 5, 6, 7, 0x1234};
    unsigned short pre[8] = {10, 11, 12, 13, 14, 15, 16, 17}, prec[8] = {20, 21, 22, 23, 24, 25, 26, 27};
    ASSERT_EQ(PWM_SetPulse(handle, 0xC0, pulse), 0);
    ASSERT_EQ(PWM_SetFrequency(handle, 0x03, pre, prec), 0);
    ASSERT_EQ(PWM_SetPhase(handle, 0x10, pulse), 0);
    ASSERT_EQ(PWM_Start(handle, 0x05, 0x01020304), 0);
    ASSERT_EQ(PWM_Stop(handle, 0x04), 0);

    auto expect = [](std::vector<uint8_t> head, const std::vector<uint8_t>& tail) {
        head.insert(head.end(), tail.begin(), tail.end());
        return head;
    };
    EXPECT_EQ(frames(0x0803).at(0).payload, expect({0xC0}, be16s({1, 2, 3, 4, 5, 6, 7, 0x1234})));
    EXPECT_EQ(frames(0x0804).at(0).payload,
              expect(expect({0x03}, be16s({10, 11, 12, 13, 14, 15, 16, 17})), be16s({20, 21, 22, 23, 24, 25, 26, 27})));
    EXPECT_EQ(frames(0x0805).at(0).payload.size(), 17u);
    EXPECT_EQ(frames(0x0801).at(0).payload, (std::vector<uint8_t>{0x05, 1, 2, 3, 4}));
    EXPECT_EQ(frames(0x0802).at(0).payload, (std::vector<uint8_t>{0x04}));
    EXPECT_EQ(pwm().output(7).pulse, 0x1234);
    EXPECT_EQ(pwm().output(1).prescaler, 11);
    EXPECT_EQ(pwm().output(1).precision, 21);
    EXPECT_EQ(pwm().output(4).phase, 5);
    EXPECT_TRUE(pwm().output(0).running);
    EXPECT_FALSE(pwm().output(2).running);
    EXPECT_EQ(pwm().output(0).run_ms, 0x01020304u);

    // Null arrays and records send zeros rather than reading through a null pointer.
    ASSERT_EQ(PWM_SetPulse(handle, 0x80, nullptr), 0);
    EXPECT_EQ(pwm().output(7).pulse, 0);
    ASSERT_EQ(PWM_Init(handle, nullptr), 0);
    EXPECT_EQ(frames(0x0800).back().payload, std::vector<uint8_t>(74, 0));
}

TEST_F(Pwm, Pwm2ComputesTimerValuesAndKeepsItsChannelRules) {
    // 200 MHz / (1000 Hz x 100) = prescaler 2000.
    ASSERT_EQ(PWM2_Init(handle, 2, 1000, 1, 100, 25), 0);
    auto init = frames(0x0800);
    ASSERT_EQ(init.size(), 1u);
    PWM_CONFIG expected{};
    expected.Prescaler[2] = 2000;
    expected.Precision[2] = 100;
    expected.Pulse[2] = 25;
    expected.Polarity[2] = 1;
    expected.ChannelMask = 0x04;
    ASSERT_EQ(init[0].payload.size(), sizeof expected);
    EXPECT_EQ(0, std::memcmp(init[0].payload.data(), &expected, sizeof expected)) << "other entries are zeros";

    // Channels of 7 or more become 7 for Init, duty and frequency...
    ASSERT_EQ(PWM2_Init(handle, 9, 1000, 0, 100, 10), 0);
    EXPECT_EQ(frames(0x0800).back().payload[72], 0x80);
    ASSERT_EQ(PWM2_SetDutyCycle(handle, 200, 0x0ABC), 0);
    EXPECT_EQ(frames(0x0803).back().payload, (std::vector<uint8_t>{0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0A, 0xBC}));
    ASSERT_EQ(PWM2_SetFrequency(handle, 3, 50000, 0x10064), 0);  // precision taken as 0x64 = 100
    auto freq = frames(0x0804).back().payload;
    EXPECT_EQ(freq[0], 0x08);
    EXPECT_EQ((freq[1 + 6] << 8) | freq[2 + 6], 40) << "200 MHz / (50 kHz x 100)";
    EXPECT_EQ((freq[17 + 6] << 8) | freq[18 + 6], 0x64);
    // The prescaler keeps its low 16 bits: 200 MHz / (10 Hz x 100) = 200000 -> 0x0D40.
    ASSERT_EQ(PWM2_SetFrequency(handle, 0, 10, 100), 0);
    EXPECT_EQ(pwm().output(0).prescaler, 200000 & 0xFFFF);
    // ...but not for start and stop, which send mask 0 past the last channel.
    ASSERT_EQ(PWM2_Start(handle, 8, 7), 0);
    ASSERT_EQ(PWM2_Stop(handle, 9), 0);
    ASSERT_EQ(PWM2_Start(handle, 5, 0), 0);
    EXPECT_EQ(frames(0x0801)[0].payload, (std::vector<uint8_t>{0, 0, 0, 0, 7}));
    EXPECT_EQ(frames(0x0802)[0].payload, (std::vector<uint8_t>{0}));
    EXPECT_EQ(frames(0x0801)[1].payload[0], 0x20);

    // Refusals leave the adapter untouched.
    adapter->clear_received();
    EXPECT_EQ(PWM2_Init(handle, 0, 0, 0, 100, 1), PWM_ERR_ARGUMENT);
    EXPECT_EQ(PWM2_Init(handle, 0, 1000, 0, 0, 1), PWM_ERR_ARGUMENT);
    EXPECT_EQ(PWM2_Init(handle, 0, 0x10000, 0, 0x10000, 1), PWM_ERR_ARGUMENT) << "the 32-bit product wraps to 0";
    EXPECT_EQ(PWM2_Init(0x7E000001, 0, 1000, 0, 100, 1), PWM_ERR_ARGUMENT) << "unknown model";
    EXPECT_EQ(PWM2_SetFrequency(handle, 0, 1000, 0x10000), PWM_ERR_ARGUMENT);
    EXPECT_EQ(PWM2_SetFrequency(handle, 0, 0, 100), PWM_ERR_ARGUMENT);
    EXPECT_TRUE(adapter->received().empty());
}

TEST_F(PwmTwoOutputs, ChannelsBeyondTheModelAreRefusedOrMaskedOut) {
    EXPECT_EQ(PWM2_Init(handle, 2, 1000, 0, 100, 1), PWM_ERR_ARGUMENT);
    // 84 MHz / (1 kHz x 100) = 840 on index 7.
    ASSERT_EQ(PWM2_Init(handle, 1, 1000, 0, 100, 1), 0);
    EXPECT_EQ(pwm().output(7).prescaler, 840);
    ASSERT_EQ(PWM2_Start(handle, 2, 0), 0);
    EXPECT_EQ(frames(0x0801).at(0).payload[0], 0) << "channel 2 has no bit on this model";
}

TEST_F(Pwm, CaptureAndCountersMeasureTheOutput) {
    // 1 kHz, 25 % on output 0, wired to capture input 0 and counter 0 by default.
    ASSERT_EQ(PWM2_Init(handle, 0, 1000, 0, 100, 25), 0);
    ASSERT_EQ(PWM_CAP_Init(handle, 0, PWM_CAP_TICK_1US), 0);
    PWM_CAP_DATA cap{0xFFFF, 0xFFFF};
    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.Period, 0) << "nothing captured while the output is stopped";
    EXPECT_EQ(cap.ActiveTime, 0);

    CNT_CONFIG rising{};
    rising.CounterBitWide = 32;
    CNT_CONFIG both = rising;
    both.CounterPolarity = CNT_EDGE_BOTH;
    ASSERT_EQ(CNT_Init(handle, 0x1, &rising), 0);
    ASSERT_EQ(CNT_Init(handle, 0x2, &both), 0);
    CounterWiring w;
    w.pwm_source[1] = 0;  // counter 1 watches output 0 too
    model<CounterModel>().wire(w);
    ASSERT_EQ(CNT_Start(handle, 0x3), 0);
    const auto start = std::chrono::steady_clock::now();  // before the adapter starts the output
    ASSERT_EQ(PWM2_Start(handle, 0, 0), 0);
    settle(300);

    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.Period, 1000);
    EXPECT_EQ(cap.ActiveTime, 250);
    ASSERT_EQ(PWM_CAP_Init(handle, 0, PWM_CAP_TICK_100NS | PWM_CAP_ACTIVE_LOW), 0);
    settle(5);
    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.Period, 10000);
    EXPECT_EQ(cap.ActiveTime, 7500);

    unsigned v[4] = {};
    ASSERT_EQ(CNT_GetValue(handle, 0x3, v), 0);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    // One rising edge per millisecond; both edges twice that. The reads bracket the run.
    EXPECT_GE(v[0], 295u);
    EXPECT_LE(v[0], unsigned(ms) + 2);
    EXPECT_NEAR(double(v[1]), 2.0 * v[0], 4.0);
    EXPECT_EQ(v[2], 0u);

    // Duty and frequency changes show at once; a slow wave overflows the 1 us counter.
    ASSERT_EQ(PWM2_SetDutyCycle(handle, 0, 60), 0);
    ASSERT_EQ(PWM_CAP_Init(handle, 0, PWM_CAP_TICK_1US), 0);
    settle(5);
    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.ActiveTime, 600);
    ASSERT_EQ(PWM2_SetFrequency(handle, 0, 10, 10000), 0);
    ASSERT_EQ(PWM2_SetDutyCycle(handle, 0, 6000), 0);
    ASSERT_EQ(PWM_CAP_Init(handle, 0, PWM_CAP_TICK_1US), 0);
    settle(250);
    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.Period, 0xFFFF);
    ASSERT_EQ(PWM_CAP_Init(handle, 0, PWM_CAP_TICK_10US), 0);
    settle(250);
    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.Period, 10000);
    EXPECT_EQ(cap.ActiveTime, 6000);

    // Stopping the output stops the counting; stopping capture zeroes it.
    ASSERT_EQ(PWM2_Stop(handle, 0), 0);
    ASSERT_EQ(CNT_GetValue(handle, 0x1, v), 0);
    const unsigned stopped = v[0];
    settle(30);
    ASSERT_EQ(CNT_GetValue(handle, 0x1, v), 0);
    EXPECT_EQ(v[0], stopped);
    ASSERT_EQ(PWM_CAP_Stop(handle, 0), 0);
    ASSERT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
    EXPECT_EQ(cap.Period, 0);
    EXPECT_FALSE(pwm().capture(0).on);
}

TEST_F(Pwm, AdcInputThroughAFilterReadsTheDuty) {
    AnalogSignal filtered;
    filtered.kind = AnalogSignal::Kind::PwmAverage;
    filtered.source = 3;
    model<AdcModel>().set_input(4, filtered);
    ASSERT_EQ(ADC_Init(handle, 0x10, 1000), 0);
    short s[3];
    ASSERT_EQ(ADC_Read(handle, s, 3), 0);
    EXPECT_EQ(s[0], 0) << "a stopped output is low";
    ASSERT_EQ(PWM2_Init(handle, 3, 1000, 0, 100, 25), 0);
    ASSERT_EQ(PWM2_Start(handle, 3, 0), 0);
    ASSERT_EQ(ADC_Read(handle, s, 3), 0);
    EXPECT_EQ(s[2], 1024) << "25 % of full scale";
    ASSERT_EQ(PWM2_Init(handle, 3, 1000, 1, 100, 25), 0);  // inverted
    ASSERT_EQ(ADC_Read(handle, s, 3), 0);
    EXPECT_EQ(s[2], 3071);
}

TEST_F(Pwm, RunTimeEndsTheOutput) {
    ASSERT_EQ(PWM2_Init(handle, 1, 2000, 0, 100, 50), 0);
    CNT_CONFIG c{};
    ASSERT_EQ(CNT_Init(handle, 0x2, &c), 0);
    ASSERT_EQ(CNT_Start(handle, 0x2), 0);
    ASSERT_EQ(PWM2_Start(handle, 1, 50), 0);  // 50 ms at 2 kHz: 100 rising edges
    settle(120);
    unsigned v[4] = {};
    ASSERT_EQ(CNT_GetValue(handle, 0x2, v), 0);
    EXPECT_EQ(v[1], 100u);
}

TEST_F(Pwm, RejectedAnswers) {
    PWM_CAP_DATA cap{0x1111, 0x2222};
    adapter->inject(Fault::ShortPayload, 0x0808);  // 2 of the 4 bytes
    EXPECT_EQ(PWM_CAP_GetData(handle, 0, &cap), -4);
    adapter->inject(Fault::Oversized, 0x0808);
    EXPECT_EQ(PWM_CAP_GetData(handle, 0, &cap), -4);
    adapter->inject(Fault::EmptyPayload, 0x0808);
    EXPECT_EQ(PWM_CAP_GetData(handle, 0, &cap), -4);
    EXPECT_EQ(cap.Period, 0x1111) << "nothing lands on a rejected answer";
    EXPECT_EQ(PWM_CAP_GetData(handle, 0, nullptr), 0);

    adapter->inject(Fault::Oversized, 0x0807);
    EXPECT_EQ(PWM_CAP_Init(handle, 0, 0), -4) << "a payload on an acknowledgement";
    adapter->inject(Fault::ShortHeader, 0x0801);
    EXPECT_EQ(PWM_Start(handle, 1, 0), -4);
    adapter->inject(Fault::NoAnswer, 0x0800);
    EXPECT_EQ(PWM2_Init(handle, 0, 1000, 0, 100, 1), -4);
    // The pipe stays in step after each of them.
    EXPECT_EQ(PWM_Stop(handle, 1), 0);
    EXPECT_EQ(PWM_CAP_GetData(handle, 0, &cap), 0);
}

TEST_F(Pwm, ClosedOrUnknownHandlesCannotSend) {
    USB_CloseDevice(handle);
    PWM_CONFIG c{};
    unsigned short a[8] = {};
    unsigned char cap[4];
    EXPECT_EQ(PWM_Init(handle, &c), -2);
    EXPECT_EQ(PWM_Start(handle, 1, 0), -2);
    EXPECT_EQ(PWM_Stop(handle, 1), -2);
    EXPECT_EQ(PWM_SetPulse(handle, 1, a), -2);
    EXPECT_EQ(PWM_SetFrequency(handle, 1, a, a), -2);
    EXPECT_EQ(PWM_SetPhase(handle, 1, a), -2);
    EXPECT_EQ(PWM_CAP_Init(handle, 0, 0), -2);
    EXPECT_EQ(PWM_CAP_GetData(handle, 0, cap), -2);
    EXPECT_EQ(PWM_CAP_Stop(handle, 0), -2);
    EXPECT_EQ(PWM2_Init(handle, 0, 1000, 0, 100, 1), -2);
    EXPECT_EQ(PWM2_Start(handle, 0, 0), -2);
    EXPECT_EQ(PWM2_SetDutyCycle(handle, 0, 1), -2);
    EXPECT_EQ(PWM2_SetFrequency(handle, 0, 1000, 100), -2);
    EXPECT_EQ(PWM2_Stop(handle, 0), -2);
    EXPECT_EQ(PWM_Start(0x11770000, 1, 0), -2);
    EXPECT_TRUE(adapter->received().empty());
}
