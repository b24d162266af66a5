#include "dac_model.h"

#include <cmath>

#include "wire/analog.h"

namespace polybus_sim {

using namespace polybus::wire;

DacModel::DacModel(Adapter& a) : adapter_(a) {
    a.on(DAC_INIT, [this](const Frame& f) {
        // Header and values lie in the firmware's little-endian layout.
        auto le16 = [&f](size_t off) { return uint16_t(f.u8(off) | f.u8(off + 1) << 8); };
        {
            std::lock_guard<std::mutex> g(mutex_);
            header_ = le16(0);
            values_.clear();
            for (size_t off = 2; off + 1 < f.payload.size(); off += 2) values_.push_back(le16(off));
        }
        adapter_.answer(f.command);
    });
    a.on(DAC_START, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            playing_ = true;
            start_us_ = double(adapter_.clock_us());
        }
        adapter_.answer(f.command);
    });
    a.on(DAC_STOP, [this](const Frame& f) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            playing_ = false;
        }
        adapter_.answer(f.command);
    });
}

uint16_t DacModel::header() {
    std::lock_guard<std::mutex> g(mutex_);
    return header_;
}
std::vector<uint16_t> DacModel::values() {
    std::lock_guard<std::mutex> g(mutex_);
    return values_;
}
bool DacModel::playing() {
    std::lock_guard<std::mutex> g(mutex_);
    return playing_;
}

double DacModel::output(double t_us) {
    std::lock_guard<std::mutex> g(mutex_);
    if (!playing_ || values_.empty() || t_us < start_us_) return 0;
    const double hold = header_ == 0 ? 1.0 : double(header_);
    const uint64_t step = uint64_t(std::floor((t_us - start_us_) / hold));
    return double(values_[step % values_.size()] & 0x0FFF);
}

void DacModel::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    playing_ = false;
    header_ = 0;
    values_.clear();
}

}  // namespace polybus_sim
