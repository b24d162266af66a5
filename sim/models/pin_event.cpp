#include "pin_event.h"

#include <chrono>
#include <memory>

#include "gpio_model.h"

namespace polybus_sim {

namespace {
struct PinWait : std::enable_shared_from_this<PinWait> {
    Adapter* adapter;
    uint32_t mask;
    uint8_t kind;
    uint32_t last;
    std::chrono::steady_clock::time_point deadline;
    std::function<void()> go, timed_out;

    void poll() {
        const uint32_t now = adapter->model<GpioModel>().levels() & mask;
        bool hit;
        switch (kind) {
            case 0: hit = now != mask; break;               // some pin low
            case 1: hit = now != 0; break;                  // some pin high
            case 2: hit = (~last & now) != 0; break;        // some pin rose
            default: hit = (last & ~now) != 0; break;       // some pin fell
        }
        last = now;
        if (hit) return go();
        if (std::chrono::steady_clock::now() >= deadline) return timed_out();
        auto self = shared_from_this();
        adapter->after(std::chrono::microseconds(500), [self] { self->poll(); });
    }
};
}  // namespace

void wait_for_pins(Adapter& adapter, uint32_t mask, uint8_t kind, uint32_t timeout_ms, std::function<void()> go,
                   std::function<void()> timed_out) {
    auto w = std::make_shared<PinWait>();
    w->adapter = &adapter;
    w->mask = mask;
    w->kind = kind;
    w->last = adapter.model<GpioModel>().levels() & mask;
    w->deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    w->go = std::move(go);
    w->timed_out = std::move(timed_out);
    w->poll();
}

}  // namespace polybus_sim
