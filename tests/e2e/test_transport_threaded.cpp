// Several threads driving one adapter at once: every answer must reach the thread
// whose request it belongs to.
#include <atomic>
#include <thread>

#include "gpio_model.h"
#include "sim_fixture.h"

using namespace polybus_test;

namespace {
class Threaded : public SimTest {};
}  // namespace

TEST_F(Threaded, ConcurrentExchangesNeverCrossAnswers) {
    trace.reset();  // keep the run lean
    ASSERT_EQ(GPIO_SetOutput(handle, 0xFFFF, 0), 0);
    constexpr int kThreads = 4;
    constexpr int kRounds = 150;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const unsigned mask = 0xFu << (4 * t);
            for (int i = 0; i < kRounds; ++i) {
                const unsigned value = (static_cast<unsigned>(i) * 0x1111u) & mask;
                unsigned back = 0;
                if (GPIO_Write(handle, mask, value) != 0) ++failures;
                if (GPIO_Read(handle, mask, &back) != 0 || back != value) ++failures;
                if (i % 50 == 0) {
                    DEVICE_INFO info;
                    if (!DEV_GetDeviceInfo(handle, &info, nullptr)) ++failures;
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
}
