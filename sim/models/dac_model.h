// The analog output: a loaded waveform (each value held for the header's microseconds,
// 0 taken as 1) played in a loop between start and stop; 0 while stopped. ADC inputs
// wired to it read its value at their sampling instant.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

class DacModel : public FamilyModel {
public:
    explicit DacModel(Adapter& adapter);

    uint16_t header();
    std::vector<uint16_t> values();
    bool playing();
    // The output code (0..4095) at adapter time t_us.
    double output(double t_us);
    void reset() override;

private:
    Adapter& adapter_;
    std::mutex mutex_;
    uint16_t header_ = 0;
    std::vector<uint16_t> values_;
    bool playing_ = false;
    double start_us_ = 0;
};

}  // namespace polybus_sim
