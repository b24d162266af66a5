#include "adc_model.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <pthread.h>

#include "dac_model.h"
#include "pwm_model.h"
#include "usbfs.h"
#include "wire/analog.h"

namespace polybus_sim {

using namespace polybus::wire;

namespace {
constexpr double kPi = 3.14159265358979323846;
// The firmware's largest one-shot answer; a read asking for more gets no samples.
constexpr size_t kMaxReadBytes = 16u << 20;
constexpr size_t kFrameTimesKept = 1u << 20;
// How early the streaming thread wakes before a frame is due (see stream_main):
// longer than a usual late wake-up, short enough that waiting it out costs little.
constexpr std::chrono::microseconds kSendLead{300};

inline void spin_pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

std::vector<int> inputs_of(uint8_t mask) {
    std::vector<int> v;
    for (int n = 0; n < 8; ++n)
        if (mask & (1u << n)) v.push_back(n);
    return v;
}
void put_le16(std::vector<uint8_t>& out, size_t at, uint16_t v) {
    out[at] = uint8_t(v);
    out[at + 1] = uint8_t(v >> 8);
}
}  // namespace

AdcConfig::AdcConfig() {
    for (int n = 0; n < 8; ++n) {
        inputs[n].kind = AnalogSignal::Kind::Sine;
        inputs[n].level = 2048;
        inputs[n].amplitude = 1500;
        inputs[n].frequency_hz = 10.0 * (n + 1);
    }
}

AdcModel::AdcModel(Adapter& a) : adapter_(a), noise_(config_.noise_seed) {
    a.on(ADC_INIT, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(signal_mutex_);
            mask_ = f.u8(0);
            rate_ = f.be32(1);
        }
        adapter_.answer(f.command);
    });
    a.on(ADC_READ, [this](const Frame& f) {
        const uint32_t count = f.be32(0);
        uint8_t mask;
        uint32_t rate;
        double scale;
        {
            std::lock_guard<std::mutex> g(signal_mutex_);
            mask = mask_;
            rate = rate_;
            scale = time_scale_;
        }
        const auto inputs = inputs_of(mask);
        const size_t bytes = size_t{count} * inputs.size() * 2;
        const uint32_t code = f.command;
        if (bytes > kMaxReadBytes) {
            adapter_.answer(code);
            return;
        }
        const double t0 = double(adapter_.clock_us());
        const double step_us = rate != 0 ? 1e6 / rate : 0;
        // The answer goes once the last sample has been taken.
        const double wait_us = step_us * count * scale;
        adapter_.after(std::chrono::microseconds(int64_t(wait_us)), [this, code, count, inputs, bytes, t0, step_us] {
            std::vector<uint8_t> payload(bytes);
            size_t at = 0;
            std::lock_guard<std::mutex> g(signal_mutex_);
            for (uint32_t i = 0; i < count; ++i)
                for (int n : inputs) {
                    put_le16(payload, at, sample_locked(n, t0 + i * step_us));
                    at += 2;
                }
            adapter_.answer(code, payload);
        });
    });
    a.on(ADC_START_CONTINUE, [this](const Frame& f) {
        Stream s{f.u8(0), f.be32(1), f.be32(5)};
        {
            std::lock_guard<std::mutex> g(signal_mutex_);
            mask_ = s.mask;
            rate_ = s.rate;
        }
        end_stream();
        adapter_.answer(f.command);
        start_stream(s);
    });
    a.on_vendor(kAdcStopRequest, [this](const ControlSetup& setup, uint8_t*) {
        if (setup.bmRequestType & 0x80) return -EPIPE;
        {
            std::lock_guard<std::mutex> g(stream_mutex_);
            ++stop_requests_;
        }
        end_stream();
        // Whatever the host had not read yet is dropped with the stream.
        const int port = adapter_.port();
        if (port >= 0) UsbHost::instance().flush_in(port);
        return 0;
    });
}

AdcModel::~AdcModel() { end_stream(); }

void AdcModel::configure(const AdcConfig& config) {
    std::lock_guard<std::mutex> g(signal_mutex_);
    config_ = config;
    noise_.seed(config.noise_seed);
}

void AdcModel::set_input(int n, const AnalogSignal& signal) {
    std::lock_guard<std::mutex> g(signal_mutex_);
    config_.inputs[n & 7] = signal;
}

void AdcModel::set_time_scale(double scale) {
    std::lock_guard<std::mutex> g(signal_mutex_);
    time_scale_ = scale;
}

uint16_t AdcModel::sample(int n, double t_us) {
    std::lock_guard<std::mutex> g(signal_mutex_);
    return sample_locked(n & 7, t_us);
}

uint16_t AdcModel::sample_locked(int n, double t_us) {
    const AnalogSignal& s = config_.inputs[n];
    const double t = t_us * 1e-6;
    double v = 0;
    switch (s.kind) {
        case AnalogSignal::Kind::Constant: v = s.level; break;
        case AnalogSignal::Kind::Sine: v = s.level + s.amplitude * std::sin(2 * kPi * s.frequency_hz * t); break;
        case AnalogSignal::Kind::Ramp: {
            if (s.frequency_hz > 0) {
                // Worked in millionths of a period: for whole microseconds and a
                // frequency of a few binary digits every step is exact, so a ramp set
                // to count sampling instants counts them, even where a value lies
                // halfway between two (t * f in seconds would round either way there,
                // repeating one count and skipping the next).
                const double millionths = std::fmod(t_us * s.frequency_hz, 1e6);
                v = s.level + millionths * s.amplitude / 1e6;
            } else {
                v = s.level + s.amplitude * t;
            }
            break;
        }
        case AnalogSignal::Kind::Noise: {
            std::normal_distribution<double> d(s.level, s.amplitude);
            v = s.amplitude > 0 ? d(noise_) : s.level;
            break;
        }
        case AnalogSignal::Kind::Dac: v = adapter_.model<DacModel>().output(t_us); break;
        case AnalogSignal::Kind::PwmAverage:
            v = s.full_scale * adapter_.model<PwmModel>().average(s.source, uint64_t(t_us));
            break;
    }
    return uint16_t(std::lround(std::min(4095.0, std::max(0.0, v))));
}

void AdcModel::start_stream(Stream s) {
    if (s.mask == 0 || s.rate == 0 || s.frame == 0) return;  // nothing to sample
    std::lock_guard<std::mutex> g(stream_mutex_);
    streaming_ = true;
    frame_times_.clear();
    queue_times_.clear();
    frames_sent_ = 0;
    const uint64_t gen = ++generation_;
    streamer_ = std::thread([this, s, gen] { stream_main(s, gen); });
}

void AdcModel::end_stream() {
    std::thread t;
    {
        std::lock_guard<std::mutex> g(stream_mutex_);
        ++generation_;
        streaming_ = false;
        t = std::move(streamer_);
    }
    stream_cv_.notify_all();
    if (t.joinable() && t.get_id() != std::this_thread::get_id()) t.join();
}

void AdcModel::stream_main(Stream s, uint64_t generation) {
    pthread_setname_np(pthread_self(), "sim-adc-stream");
    // It sleeps until each frame's last instant and must send the frame at once.
    request_short_slices();
    const auto inputs = inputs_of(s.mask);
    const size_t nch = inputs.size();
    const double step_us = 1e6 / s.rate;
    // Sample instants and the wake-ups that send each frame count from the same
    // moment on the adapter's clock (steady_clock based, like wall0).
    const auto wall0 = std::chrono::steady_clock::now();
    const double t0 = double(adapter_.clock_us());
    long config_short;
    {
        std::lock_guard<std::mutex> g(signal_mutex_);
        config_short = config_.short_frame;
    }
    std::vector<uint8_t> frame(size_t{s.frame} * 2);
    for (uint64_t k = 0;; ++k) {
        // Frame k holds samples k x frame .. (k + 1) x frame - 1, taken one instant per
        // selected input; it is complete once its last instant has passed.
        const uint64_t first = k * s.frame, end = first + s.frame;
        const double done_us = double((end + nch - 1) / nch) * step_us;
        const auto due = wall0 + std::chrono::nanoseconds(int64_t(done_us * 1000));
        // A real adapter sends the frame the instant its last sample is converted.
        // The thread wakes a little early and takes the samples whose instants have
        // passed, then waits out the rest without sleeping (a sleeping thread can
        // wake milliseconds late on a busy machine) and takes the last few.
        {
            std::unique_lock<std::mutex> lk(stream_mutex_);
            stream_cv_.wait_until(lk, due - kSendLead, [&] { return generation_ != generation; });
            if (generation_ != generation) return;
        }
        uint64_t j = first;
        auto take_until = [&](double limit_us) {
            std::lock_guard<std::mutex> g(signal_mutex_);
            for (; j < end; ++j) {
                const double at = t0 + double(j / nch) * step_us;
                if (at > limit_us) break;
                put_le16(frame, size_t(j - first) * 2, sample_locked(inputs[j % nch], at));
            }
        };
        take_until(double(adapter_.clock_us()));
        while (std::chrono::steady_clock::now() < due) spin_pause();
        take_until(t0 + done_us);
        std::vector<uint8_t> out = frame;
        if (long(k) == config_short) out.resize(out.size() / 2);
        // Queued under the stream lock, so a stop request never sees a frame after it.
        std::lock_guard<std::mutex> g(stream_mutex_);
        if (generation_ != generation) return;
        const int port = adapter_.port();
        if (port < 0) {  // unplugged: the stream dies with the bus
            streaming_ = false;
            return;
        }
        // The moment the frame's last sample was taken, not when this thread got round
        // to sending it: a late wake-up here is part of the frame's delay.
        if (frame_times_.size() < kFrameTimesKept) {
            frame_times_.push_back(uint64_t(t0 + done_us));
            queue_times_.push_back(adapter_.clock_us());
        }
        UsbHost::instance().queue_in(port, {std::move(out)});
        ++frames_sent_;
    }
}

bool AdcModel::streaming() {
    std::lock_guard<std::mutex> g(stream_mutex_);
    return streaming_;
}
int AdcModel::stop_requests() {
    std::lock_guard<std::mutex> g(stream_mutex_);
    return stop_requests_;
}
std::vector<uint64_t> AdcModel::frame_times() {
    std::lock_guard<std::mutex> g(stream_mutex_);
    return frame_times_;
}
std::vector<uint64_t> AdcModel::queue_times() {
    std::lock_guard<std::mutex> g(stream_mutex_);
    return queue_times_;
}
uint64_t AdcModel::frames_sent() {
    std::lock_guard<std::mutex> g(stream_mutex_);
    return frames_sent_;
}

void AdcModel::reset() {
    end_stream();
    std::lock_guard<std::mutex> g(signal_mutex_);
    mask_ = 0;
    rate_ = 0;
}

}  // namespace polybus_sim
