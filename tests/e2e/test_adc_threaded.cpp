// ADC end to end: one-shot reads (layout, the length check's signed mask, the
// timeout formula), and streaming to the frame list and to a callback with start,
// stop, restart, waiting, unplug and short frames. Threaded: also run under
// ThreadSanitizer.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "adc_model.h"
#include "sim_fixture.h"

using namespace polybus_sim;
using namespace polybus_test;

namespace {

AnalogSignal constant(double level) {
    AnalogSignal s;
    s.kind = AnalogSignal::Kind::Constant;
    s.level = level;
    return s;
}
// Input reads the index of the sampling instant modulo 4000 at `rate` (the top of
// the ramp may round up to 4000, which is 0 again).
AnalogSignal counting(uint32_t rate) {
    AnalogSignal s;
    s.kind = AnalogSignal::Kind::Ramp;
    s.level = 0;
    s.amplitude = 4000;
    s.frequency_hz = rate / 4000.0;
    return s;
}

class Adc : public SimTest {
protected:
    AdcModel& adc() { return model<AdcModel>(); }
    // Frames left after a stop stay for the next ADC_GetData, even in the next test.
    void TearDown() override {
        ADC_StopContinueRead(handle);
        drain(ADC_MAX_FRAME_SIZE);
        SimTest::TearDown();
    }
    // Every sample of input 0 is one more than the one before (mod 4096), input 1 reads
    // 777: no sample was lost, repeated or reordered.
    static void expect_continuous(const std::vector<short>& s, size_t from = 0) {
        for (size_t i = from; i + 3 < s.size(); i += 2) {
            ASSERT_EQ((s[i] + 1) % 4000, s[i + 2] % 4000) << "at " << i;
            ASSERT_EQ(s[i + 1], 777) << "at " << i + 1;
        }
    }
    std::vector<short> drain(int frame) {
        std::vector<short> all, buf(size_t(frame) * 8);
        for (int n; (n = ADC_GetData(handle, buf.data(), int(buf.size()))) > 0;)
            all.insert(all.end(), buf.begin(), buf.begin() + n);
        return all;
    }
};

void settle(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

TEST_F(Adc, OneShotReadsSamplesInInputOrder) {
    adc().set_input(0, constant(100));
    adc().set_input(1, constant(200));
    adc().set_input(5, constant(5000));  // clipped to full scale
    ASSERT_EQ(ADC_Init(handle, 0x23, 10000), 0);
    EXPECT_EQ(adapter->received().at(0).payload, (std::vector<uint8_t>{0x23, 0, 0, 0x27, 0x10}));
    std::vector<short> s(300 + 1, -1);
    ASSERT_EQ(ADC_Read(handle, s.data(), 100), 0);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(s[3 * i], 100);
        ASSERT_EQ(s[3 * i + 1], 200);
        ASSERT_EQ(s[3 * i + 2], 4095);
    }
    EXPECT_EQ(s[300], -1) << "nothing past DataNum x inputs";
    EXPECT_EQ(trace->sends(0x0501).at(0).data, (std::vector<uint8_t>{0, 0, 0, 100}));

    // A sine is sampled at the rate asked: 1000 samples of 50 Hz at 10 kHz hold 5 periods.
    AnalogSignal sine;
    sine.kind = AnalogSignal::Kind::Sine;
    sine.level = 2000;
    sine.amplitude = 1000;
    sine.frequency_hz = 50;
    adc().set_input(0, sine);
    ASSERT_EQ(ADC_Init(handle, 0x01, 10000), 0);
    std::vector<short> w(1000);
    ASSERT_EQ(ADC_Read(handle, w.data(), 1000), 0);
    int crossings = 0;
    for (size_t i = 1; i < w.size(); ++i)
        if (w[i - 1] < 2000 && w[i] >= 2000) ++crossings;
    EXPECT_NEAR(crossings, 5, 1);
    EXPECT_NEAR(*std::max_element(w.begin(), w.end()), 3000, 2);
    EXPECT_NEAR(*std::min_element(w.begin(), w.end()), 1000, 2);

    // Noise keeps its centre and spread.
    AnalogSignal noise;
    noise.kind = AnalogSignal::Kind::Noise;
    noise.level = 1000;
    noise.amplitude = 50;
    adc().set_input(0, noise);
    ASSERT_EQ(ADC_Read(handle, w.data(), 1000), 0);
    double sum = 0, squares = 0;
    for (short v : w) sum += v;
    const double mean = sum / w.size();
    for (short v : w) squares += (v - mean) * (v - mean);
    EXPECT_NEAR(mean, 1000, 10);
    EXPECT_NEAR(std::sqrt(squares / w.size()), 50, 8);
}

TEST_F(Adc, ReadTimeoutsAndTheSignedMaskCheck) {
    adc().set_time_scale(0);
    ASSERT_EQ(ADC_Init(handle, 0x01, 1000), 0);
    short s[2002];
    ASSERT_EQ(ADC_Read(handle, s, 1), 0);
    ASSERT_EQ(ADC_Read(handle, s, 1001), 0);
    ASSERT_EQ(ADC_Read(handle, s, 2), 0);
    auto gets = trace->gets();
    ASSERT_GE(gets.size(), 4u);
    EXPECT_EQ(gets[1].timeout_ms, 100);
    EXPECT_EQ(gets[2].timeout_ms, 2000) << "(1001 x 1000 - 1000) / 1000 + 1000";
    EXPECT_EQ(gets[3].timeout_ms, 1001);
    // The rate of the last start counts too, and a rate of 0 waits a second.
    ASSERT_EQ(ADC_Init(handle, 0x01, 0), 0);
    ASSERT_EQ(ADC_Read(handle, s, 3), 0);
    EXPECT_EQ(trace->gets().back().timeout_ms, 1000);

    // Bit 7 widens to 24 more bits in the length check: the samples come, the call fails.
    adc().set_input(0, constant(11));
    adc().set_input(7, constant(77));
    ASSERT_EQ(ADC_Init(handle, 0x81, 1000), 0);
    std::vector<short> buf(21, -1);
    EXPECT_EQ(ADC_Read(handle, buf.data(), 10), -4);
    EXPECT_EQ(buf[0], 11);
    EXPECT_EQ(buf[19], 77);
    EXPECT_EQ(buf[20], -1) << "only DataNum x inputs samples are written";
    // The pipe stays in step: the next read works.
    ASSERT_EQ(ADC_Init(handle, 0x01, 1000), 0);
    EXPECT_EQ(ADC_Read(handle, buf.data(), 10), 0);
}

TEST_F(Adc, ReadWaitsForTheSamplingTime) {
    ASSERT_EQ(ADC_Init(handle, 0x01, 1000), 0);
    std::vector<short> s(200);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(ADC_Read(handle, s.data(), 200), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(190));
}

TEST_F(Adc, RejectedOneShotAnswers) {
    ASSERT_EQ(ADC_Init(handle, 0x03, 10000), 0);
    std::vector<short> s(40);
    adapter->inject(Fault::ShortPayload, 0x0501);
    EXPECT_EQ(ADC_Read(handle, s.data(), 20), -4);
    adapter->inject(Fault::Oversized, 0x0501);
    EXPECT_EQ(ADC_Read(handle, s.data(), 20), -4) << "the excess is drained, not written";
    adapter->inject(Fault::Oversized, 0x0500);
    EXPECT_EQ(ADC_Init(handle, 0x03, 10000), -4);
    EXPECT_EQ(ADC_Read(handle, s.data(), 20), 0);
    USB_CloseDevice(handle);
    EXPECT_EQ(ADC_Init(handle, 1, 1), -2);
    EXPECT_EQ(ADC_Read(handle, s.data(), 1), -2);
    EXPECT_EQ(ADC_StartContinueRead(handle, 1, 1000, 100, nullptr), -2);
    EXPECT_EQ(ADC_WaitForThreadExit(handle), -1);
    EXPECT_EQ(ADC_StartContinueRead(0x7E000001, 1, 1000, 100, nullptr), -1) << "no state slot";
}

TEST_F(Adc, StreamsFramesToTheFrameList) {
    adc().set_input(0, counting(20000));
    adc().set_input(1, constant(777));
    EXPECT_EQ(ADC_GetData(handle, nullptr, 100), 0);
    ASSERT_EQ(ADC_StartContinueRead(handle, 0x03, 20000, 1000, nullptr), 0);
    EXPECT_EQ(trace->sends(0x0502).at(0).data, (std::vector<uint8_t>{0x03, 0, 0, 0x4E, 0x20, 0, 0, 0x03, 0xE8}));
    EXPECT_EQ(ADC_StartContinueRead(handle, 0x03, 20000, 1000, nullptr), -1) << "one reader at a time";
    settle(200);  // 40000 samples a second: 8 frames

    std::vector<short> buf(2500, -1);
    EXPECT_EQ(ADC_GetData(handle, buf.data(), 999), 0) << "less than a frame of room";
    ASSERT_EQ(ADC_GetData(handle, buf.data(), 2500), 2000) << "2.5 frames of room take 2";
    EXPECT_EQ(buf[2000], -1);
    std::vector<short> all(buf.begin(), buf.begin() + 2000);
    settle(100);
    auto more = drain(1000);
    all.insert(all.end(), more.begin(), more.end());
    expect_continuous(all);
    EXPECT_GE(all.size(), 8000u);

    EXPECT_EQ(ADC_StopContinueRead(handle), 0);
    EXPECT_FALSE(adc().streaming());
    EXPECT_EQ(adc().stop_requests(), 1);
    more = drain(1000);
    all.insert(all.end(), more.begin(), more.end());
    expect_continuous(all);
    EXPECT_LE(all.size(), adc().frames_sent() * 1000) << "frames the adapter never sent";
    EXPECT_GE(all.size() + 4000, adc().frames_sent() * 1000) << "only frames still on their way at the stop are lost";

    // A second stop returns at once; the adapter sees one request; no reader is left.
    EXPECT_EQ(ADC_StopContinueRead(handle), 0);
    EXPECT_EQ(adc().stop_requests(), 1);
    EXPECT_EQ(ADC_WaitForThreadExit(handle), -1);
    // Commands work again after the stream.
    short one[1];
    ASSERT_EQ(ADC_Init(handle, 0x02, 1000), 0);
    ASSERT_EQ(ADC_Read(handle, one, 1), 0);
    EXPECT_EQ(one[0], 777);
}

TEST_F(Adc, RestartWithAnotherFrameSizeAndAClampedOne) {
    adc().set_input(0, counting(40000));
    adc().set_input(1, constant(777));
    ASSERT_EQ(ADC_StartContinueRead(handle, 0x03, 40000, 500, nullptr), 0);
    settle(60);
    ASSERT_EQ(ADC_StopContinueRead(handle), 0);
    drain(500);
    ASSERT_EQ(ADC_StartContinueRead(handle, 0x03, 40000, 20000, nullptr), 0);
    EXPECT_EQ(trace->sends(0x0502).at(1).data, (std::vector<uint8_t>{0x03, 0, 0, 0x9C, 0x40, 0, 0, 0x28, 0}))
        << "20000 samples are clamped to 10240";
    settle(700);  // 80000 samples a second: about 5 frames of 10240
    std::vector<short> buf(10240 * 2);
    ASSERT_EQ(ADC_GetData(handle, buf.data(), 10240 * 2 - 1), 10240);
    buf.resize(10240);
    expect_continuous(buf);
    ASSERT_EQ(ADC_StopContinueRead(handle), 0);
    EXPECT_EQ(ADC_StartContinueRead(handle, 0x03, 40000, 0, nullptr), -1);
    EXPECT_EQ(ADC_StartContinueRead(handle, 0x03, 40000, -3, nullptr), -1);
}

namespace {
struct Frames {
    std::mutex mutex;
    std::vector<std::vector<short>> frames;
    std::vector<int> handles;
};
Frames* g_frames = nullptr;
int keep_frame(int dev, short* data, int n) {
    std::lock_guard<std::mutex> g(g_frames->mutex);
    g_frames->frames.emplace_back(data, data + n);
    g_frames->handles.push_back(dev);
    return 0;
}
}  // namespace

// The counting input the streaming tests rely on, at the instants where its value
// lies exactly halfway between two counts (a stream that starts 25 us past a
// sampling-grid point): one count per instant, never a repeat or a skip.
TEST_F(Adc, CountingInputCountsEveryInstantEvenHalfwayBetweenValues) {
    adc().set_input(0, counting(20000));
    for (double start : {25.0, 1000025.0, 123456775.0, 987654321.0}) {
        int previous = adc().sample(0, start);
        for (int k = 1; k < 8000; ++k) {
            const int value = adc().sample(0, start + 50.0 * k);
            ASSERT_EQ((previous + 1) % 4000, value % 4000) << "start " << start << ", instant " << k;
            previous = value;
        }
    }
}

TEST_F(Adc, CallbackGetsEveryFrameAndShortFramesAsTheyCame) {
    Frames got;
    g_frames = &got;
    AdcConfig config;
    config.inputs[0] = counting(20000);
    config.inputs[1] = constant(777);
    config.short_frame = 2;
    adc().configure(config);
    ASSERT_EQ(ADC_StartContinueRead(handle, 0x03, 20000, 800, keep_frame), 0);
    settle(250);
    ASSERT_EQ(ADC_StopContinueRead(handle), 0);
    std::vector<short> flat;
    {
        std::lock_guard<std::mutex> g(got.mutex);
        ASSERT_GE(got.frames.size(), 5u);
        for (size_t i = 0; i < got.frames.size(); ++i) {
            EXPECT_EQ(got.frames[i].size(), i == 2 ? 400u : 800u) << "frame " << i << " of " << got.frames.size();
            EXPECT_EQ(got.handles[i], handle);
            flat.insert(flat.end(), got.frames[i].begin(), got.frames[i].end());
        }
    }
    // The short frame lost its second half; the samples around it stay in order.
    expect_continuous(std::vector<short>(flat.begin(), flat.begin() + 2000));
    expect_continuous(std::vector<short>(flat.begin() + 2000, flat.end()));
    // The stop clears the callback first: a frame that completes during the stop waits
    // in the list.
    EXPECT_LE(drain(800).size(), 1600u);
    g_frames = nullptr;

    // The same short frame in list mode keeps its room, zero-filled.
    ASSERT_EQ(ADC_StartContinueRead(handle, 0x03, 20000, 800, nullptr), 0);
    settle(250);
    ASSERT_EQ(ADC_StopContinueRead(handle), 0);
    auto all = drain(800);
    ASSERT_GE(all.size(), 4000u);
    expect_continuous(std::vector<short>(all.begin(), all.begin() + 2000));
    for (size_t i = 2000; i < 2400; ++i) ASSERT_EQ(all[i], 0) << i;
    expect_continuous(std::vector<short>(all.begin() + 2400, all.end()));
}

TEST_F(Adc, WaitingThreadReturnsWhenAnotherStops) {
    ASSERT_EQ(ADC_WaitForThreadExit(handle), -1);
    ASSERT_EQ(ADC_StartContinueRead(handle, 0x01, 10000, 1000, nullptr), 0);
    auto waiter = std::async(std::launch::async, [this] { return ADC_WaitForThreadExit(handle); });
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    ASSERT_EQ(ADC_StopContinueRead(handle), 0);
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(waiter.get(), 0);
    EXPECT_EQ(ADC_WaitForThreadExit(handle), -1);
}

TEST_F(Adc, UnplugDuringStreamingEndsTheReader) {
    ASSERT_EQ(ADC_StartContinueRead(handle, 0xFF, 50000, 4000, nullptr), 0);
    settle(100);
    adapter->unplug();
    const auto t0 = std::chrono::steady_clock::now();
    ADC_WaitForThreadExit(handle);  // the reader may already be gone: -1 or 0
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(6)) << "a round, a probe and the drain";
    EXPECT_EQ(ADC_WaitForThreadExit(handle), -1);
    EXPECT_EQ(ADC_StopContinueRead(handle), 0);
    EXPECT_EQ(adc().stop_requests(), 0) << "the stop request cannot reach an unplugged adapter";
    for (int i = 0; i < 100 && adc().streaming(); ++i) settle(10);
    EXPECT_FALSE(adc().streaming()) << "the adapter's stream dies with the bus";
    // Frames that arrived before the unplug are still there to drain.
    EXPECT_GT(drain(4000).size(), 0u);
}

TEST_F(Adc, RejectedStartsLeaveNoReader) {
    adapter->inject(Fault::Oversized, 0x0502);
    EXPECT_EQ(ADC_StartContinueRead(handle, 0x01, 10000, 1000, nullptr), -4);
    EXPECT_EQ(ADC_WaitForThreadExit(handle), -1);
    adapter->inject(Fault::NoAnswer, 0x0502);
    EXPECT_EQ(ADC_StartContinueRead(handle, 0x01, 10000, 1000, nullptr), -4);
    EXPECT_EQ(ADC_WaitForThreadExit(handle), -1);
    EXPECT_EQ(ADC_StopContinueRead(handle), 0);
    EXPECT_EQ(adc().stop_requests(), 0);
}
