// Analog and timing worlds loaded in this process and seen through the library: each
// input's signal as ADC_Read samples it, a DAC waveform and a PWM output's average on
// wired inputs, PWM outputs measured back by the capture inputs and counted by the
// counters the world wires to them.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "polybus/polybus.h"
#include "sim_fixture.h"
#include "world.h"

namespace {

using polybus_sim::world::Bench;

// A model whose PWM channel n is output n (240 MHz timer): frequencies of the tests
// divide its clock exactly.
const char* kRig = R"(
[[adapter]]
name = "rig"
id = 0x54000041
)";
constexpr int kRigHandle = 0x54000041;

class AnalogWorld : public ::testing::Test {
protected:
    void load(const std::string& tables) {
        polybus_sim::Simulator::instance().remove_all();
        bench_ = polybus_sim::world::parse_world(std::string(kRig) + tables, POLYBUS_SOURCE_DIR "/inline.toml").build();
        polybus_test::scan();
        ASSERT_TRUE(USB_OpenDevice(kRigHandle));
        opened_ = true;
    }
    void TearDown() override {
        if (opened_) USB_CloseDevice(kRigHandle);
        bench_.reset();
    }
    // `count` instants of the inputs of `mask` at `rate`, one vector per input.
    std::vector<std::vector<int>> read(uint8_t mask, unsigned rate, unsigned count) {
        const int inputs = __builtin_popcount(mask);
        std::vector<short> raw(size_t(count) * inputs);
        EXPECT_EQ(ADC_Init(kRigHandle, mask, rate), 0);
        EXPECT_EQ(ADC_Read(kRigHandle, raw.data(), count), 0);
        std::vector<std::vector<int>> by_input(static_cast<size_t>(inputs));
        for (size_t i = 0; i < raw.size(); ++i) by_input[i % inputs].push_back(raw[i]);
        return by_input;
    }
    PWM_CAP_DATA capture(int input) {
        PWM_CAP_DATA d{0xBEEF, 0xBEEF};
        EXPECT_EQ(PWM_CAP_GetData(kRigHandle, uint8_t(input), &d), 0);
        return d;
    }

    std::unique_ptr<Bench> bench_;
    bool opened_ = false;
};

void settle(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

TEST_F(AnalogWorld, EachInputReadsItsSignal) {
    load(R"(
[[adc_input]]
input = "rig:0"
signal = "sine"
centre = 2000
amplitude = 1000
frequency_hz = 100
[[adc_input]]
input = "rig:1"
signal = "constant"
level = 1234
[[adc_input]]
input = "rig:2"
signal = "ramp"
from = 3000
to = 1000
frequency_hz = 50
[[adc_input]]
input = "rig:3"
signal = "noise"
centre = 1500
deviation = 100
)");
    // 0.1 s at 10 kHz: ten sine periods of 100 samples, five ramps of 200.
    const auto in = read(0x0F, 10000, 1000);
    ASSERT_EQ(in.size(), 4u);
    const auto [smin, smax] = std::minmax_element(in[0].begin(), in[0].end());
    EXPECT_NEAR(*smin, 1000, 2);
    EXPECT_NEAR(*smax, 3000, 2);
    EXPECT_EQ(std::count(in[1].begin(), in[1].end(), 1234), 1000);

    // The ramp falls by 10 codes a sample and jumps back up once a period.
    int falls = 0, jumps = 0;
    for (size_t i = 1; i < in[2].size(); ++i) {
        const int step = in[2][i] - in[2][i - 1];
        if (step >= -11 && step <= -9) ++falls;
        else if (step > 1900) ++jumps;
        else ADD_FAILURE() << "ramp step " << step << " at " << i;
        EXPECT_TRUE(in[2][i] >= 1000 && in[2][i] <= 3000) << in[2][i];
    }
    EXPECT_NEAR(jumps, 5, 1);
    EXPECT_EQ(falls + jumps, 999);

    double sum = 0, squares = 0;
    for (int v : in[3]) sum += v;
    const double mean = sum / in[3].size();
    for (int v : in[3]) squares += (v - mean) * (v - mean);
    EXPECT_NEAR(mean, 1500, 15);
    EXPECT_NEAR(std::sqrt(squares / in[3].size()), 100, 15);
    EXPECT_GT(std::set<int>(in[3].begin(), in[3].end()).size(), 100u) << "noise, not a constant";
}

TEST_F(AnalogWorld, DacWaveformAndPwmAverageReachTheirInputs) {
    load(R"(
[[adc_input]]
input = "rig:4"
signal = "dac"
[[adc_input]]
input = "rig:5"
signal = "pwm"
pwm = 6
full_scale = 4000
)");
    // Before anything plays, both inputs read 0.
    auto idle = read(0x30, 2000, 4);
    EXPECT_EQ(idle[0], std::vector<int>(4, 0));
    EXPECT_EQ(idle[1], std::vector<int>(4, 0));

    unsigned short wave[2] = {500, 2500};  // each held 1 ms
    ASSERT_EQ(DAC_Init(kRigHandle, 1000, wave, 2), 0);
    ASSERT_EQ(DAC_Start(kRigHandle), 0);
    ASSERT_EQ(PWM2_Init(kRigHandle, 6, 1000, 0, 100, 25), 0);
    ASSERT_EQ(PWM2_Start(kRigHandle, 6, 0), 0);
    // Sampled every 0.5 ms for 20 ms: each level twice in a row, ten times.
    const auto in = read(0x30, 2000, 40);
    std::map<int, int> seen;
    for (int v : in[0]) ++seen[v];
    ASSERT_EQ(seen.size(), 2u) << "only the waveform's levels";
    EXPECT_NEAR(seen[500], 20, 2);
    EXPECT_NEAR(seen[2500], 20, 2);
    int changes = 0;
    for (size_t i = 1; i < in[0].size(); ++i) changes += in[0][i] != in[0][i - 1];
    EXPECT_NEAR(changes, 19, 2);
    EXPECT_EQ(in[1], std::vector<int>(40, 1000)) << "a quarter of full scale";

    ASSERT_EQ(DAC_Stop(kRigHandle), 0);
    ASSERT_EQ(PWM2_Stop(kRigHandle, 6), 0);
    idle = read(0x30, 2000, 4);
    EXPECT_EQ(idle[0], std::vector<int>(4, 0));
    EXPECT_EQ(idle[1], std::vector<int>(4, 0));
}

TEST_F(AnalogWorld, CaptureMeasuresTheOutputItIsWiredTo) {
    load(R"(
[[pwm_capture]]
input = "rig:0"
pwm = 3
[[pwm_capture]]
input = "rig:1"
[[pwm_capture]]
input = "rig:2"
pwm = 5
)");
    // Channel 0 runs too: input 0 no longer sees it.
    ASSERT_EQ(PWM2_Init(kRigHandle, 0, 10000, 0, 100, 50), 0);
    ASSERT_EQ(PWM2_Init(kRigHandle, 3, 1000, 1, 100, 20), 0);  // active low: high 80 %
    ASSERT_EQ(PWM2_Init(kRigHandle, 5, 2000, 0, 100, 30), 0);
    for (int ch : {0, 3, 5}) ASSERT_EQ(PWM2_Start(kRigHandle, uint8_t(ch), 0), 0);
    ASSERT_EQ(PWM_CAP_Init(kRigHandle, 0, PWM_CAP_TICK_1US), 0);
    ASSERT_EQ(PWM_CAP_Init(kRigHandle, 1, PWM_CAP_TICK_1US), 0);
    ASSERT_EQ(PWM_CAP_Init(kRigHandle, 2, PWM_CAP_TICK_100NS), 0);
    settle(10);
    PWM_CAP_DATA d = capture(0);
    EXPECT_EQ(d.Period, 1000);
    EXPECT_EQ(d.ActiveTime, 800);
    d = capture(1);
    EXPECT_EQ(d.Period, 0) << "an unconnected input never sees a period";
    EXPECT_EQ(d.ActiveTime, 0);
    d = capture(2);
    EXPECT_EQ(d.Period, 5000);
    EXPECT_EQ(d.ActiveTime, 1500);
    // Measuring the low time of the inverted output instead.
    ASSERT_EQ(PWM_CAP_Init(kRigHandle, 0, PWM_CAP_TICK_10US | PWM_CAP_ACTIVE_LOW), 0);
    settle(5);
    d = capture(0);
    EXPECT_EQ(d.Period, 100);
    EXPECT_EQ(d.ActiveTime, 20);
}

TEST_F(AnalogWorld, CountersCountWhatTheWorldWiresToThem) {
    load(R"(
[[counter_input]]
counter = "rig:1"
pwm = 4
[[counter_input]]
counter = "rig:2"
gpio_pin = 5
[[counter_input]]
counter = "rig:3"
)");
    CNT_CONFIG rising{};
    rising.CounterPolarity = CNT_EDGE_RISING;
    ASSERT_EQ(CNT_Init(kRigHandle, 0x0F, &rising), 0);
    ASSERT_EQ(CNT_Start(kRigHandle, 0x0F), 0);
    ASSERT_EQ(PWM2_Init(kRigHandle, 4, 1000, 0, 100, 50), 0);
    ASSERT_EQ(PWM2_Init(kRigHandle, 3, 1000, 0, 100, 50), 0);  // counter 3's own channel
    ASSERT_EQ(PWM2_Start(kRigHandle, 4, 100), 0);               // 100 periods, then it stops
    ASSERT_EQ(PWM2_Start(kRigHandle, 3, 100), 0);
    ASSERT_EQ(GPIO_SendPulses(kRigHandle, 0x20, 100, 500, 40), 0);  // pin 5
    ASSERT_EQ(GPIO_SendPulses(kRigHandle, 0x01, 100, 500, 7), 0);   // pin 0: nobody counts it
    settle(200);
    unsigned v[4] = {9, 9, 9, 9};
    ASSERT_EQ(CNT_GetValue(kRigHandle, 0x0F, v), 0);
    EXPECT_EQ(v[0], 0u) << "channel 0 (counter 0's by default) never ran";
    EXPECT_EQ(v[1], 100u);
    EXPECT_EQ(v[2], 40u);
    EXPECT_EQ(v[3], 0u) << "unconnected";
}

}  // namespace
