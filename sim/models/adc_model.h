// Eight analog inputs, each a signal placed by a plain struct, sampled as 12-bit codes
// (0..4095). One-shot reads answer once the samples have been taken; continuous mode
// streams frames of the requested size on bulk IN at the real sample rate until the
// stop request (vendor request 0x40), a reset or an unplug.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

struct AnalogSignal {
    enum class Kind { Constant, Sine, Ramp, Noise, Dac, PwmAverage };
    Kind kind = Kind::Constant;
    double level = 0;         // Constant: the code; Sine, Noise: the centre; Ramp: the start
    double amplitude = 0;     // Sine: amplitude; Ramp: rise over one period; Noise: standard deviation
    double frequency_hz = 0;  // Sine frequency; Ramp repetitions per second (0: rises forever)
    int source = 0;           // Dac: the DAC output (one); PwmAverage: the PWM output index
    double full_scale = 4095; // PwmAverage: the code of an output that is always high
};

struct AdcConfig {
    AnalogSignal inputs[8];
    uint32_t noise_seed = 1;
    // Faults of the firmware's streaming side: this frame (0-based) is sent with only
    // half its bytes; -1: none.
    long short_frame = -1;
    AdcConfig();  // by default input n is a sine of (n + 1) x 10 Hz around mid-scale
};

class AdcModel : public FamilyModel {
public:
    explicit AdcModel(Adapter& adapter);
    ~AdcModel() override;

    void configure(const AdcConfig& config);
    void set_input(int n, const AnalogSignal& signal);
    // One-shot reads take their sampling time multiplied by this (0: answer at once).
    void set_time_scale(double scale);

    // The code input n reads at adapter time t_us.
    uint16_t sample(int n, double t_us);

    bool streaming();
    int stop_requests();
    // For each frame queued so far in this stream, the adapter time (us, clock_us())
    // at which its last sample was taken: the earliest it could have been sent.
    std::vector<uint64_t> frame_times();
    // And when each was handed to the bus (adapter time, us): the gap to frame_times()
    // is the simulated firmware's own lateness.
    std::vector<uint64_t> queue_times();
    uint64_t frames_sent();
    void reset() override;

private:
    struct Stream {
        uint8_t mask = 0;
        uint32_t rate = 0;
        uint32_t frame = 0;
    };
    void start_stream(Stream s);
    void end_stream();  // joins the streaming thread
    void stream_main(Stream s, uint64_t generation);
    uint16_t sample_locked(int n, double t_us);  // with signal_mutex_ held

    Adapter& adapter_;
    std::mutex signal_mutex_;  // signals and the noise generator
    AdcConfig config_;
    std::mt19937 noise_;
    double time_scale_ = 1.0;
    uint8_t mask_ = 0;
    uint32_t rate_ = 0;

    std::mutex stream_mutex_;
    std::condition_variable stream_cv_;
    std::thread streamer_;
    uint64_t generation_ = 0;  // a stream runs while its generation is current
    bool streaming_ = false;
    int stop_requests_ = 0;
    std::vector<uint64_t> frame_times_, queue_times_;
    uint64_t frames_sent_ = 0;
};

}  // namespace polybus_sim
