// GPIO end to end: pin modes, levels, pulse trains and the answers the family rejects.
#include <chrono>

#include "expect_request.h"
#include "gpio_model.h"
#include "sim_fixture.h"
#include "wire/gpio.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {
class Gpio : public SimTest {
protected:
    GpioModel& pins() { return model<GpioModel>(); }
};
}  // namespace

TEST_F(Gpio, ModesDecideWhatAPinReads) {
    ASSERT_EQ(GPIO_SetOutput(handle, 0x0F, 0), 0);
    ASSERT_EQ(GPIO_SetInput(handle, 0xF0, 1), 0);
    ASSERT_EQ(GPIO_SetOpenDrain(handle, 0x300, 2), 0);
    EXPECT_EQ(pins().mode(0), GpioModel::Mode::Output);
    EXPECT_EQ(pins().mode(4), GpioModel::Mode::Input);
    EXPECT_EQ(pins().pull(4), 1);
    EXPECT_EQ(pins().mode(9), GpioModel::Mode::OpenDrain);

    ASSERT_EQ(GPIO_Write(handle, 0x30F, 0x305), 0);
    pins().drive(0xF0 | 0x300, 0xA0 | 0x100);  // inputs 5 and 7 high; pin 9 pulled low outside
    unsigned v = 0;
    ASSERT_EQ(GPIO_Read(handle, 0x3FF, &v), 0);
    EXPECT_EQ(v, 0x05u | 0xA0u | 0x100u);
    // Undriven inputs float high; the mask limits what is reported.
    ASSERT_EQ(GPIO_Read(handle, 0xFC00, &v), 0);
    EXPECT_EQ(v, 0xFC00u);
    // Only masked pins are written.
    ASSERT_EQ(GPIO_Write(handle, 0x01, 0x00), 0);
    EXPECT_EQ(pins().outputs() & 0x0F, 0x04u);

    auto frames = adapter->received();
    ASSERT_GE(frames.size(), 5u);
    EXPECT_REQUEST(frames[0], request(GPIO_SET_OUTPUT).be32(0x0F, "mask").u8(0, "mode"));
    EXPECT_REQUEST(frames[3], request(GPIO_WRITE).be32(0x30F, "mask").be32(0x305, "levels"));

    // A mask of 0 still goes to the adapter.
    adapter->clear_received();
    EXPECT_EQ(GPIO_SetInput(handle, 0, 0), 0);
    EXPECT_EQ(adapter->received().size(), 1u);
}

TEST_F(Gpio, PulseTrainsWaitForTheWholeTrain) {
    pins().set_time_scale(0);  // the adapter answers at once; the timeouts are checked in the trace
    EXPECT_EQ(GPIO_SendPulses(handle, 0x1, 100, 50, 10), 0);
    EXPECT_EQ(GPIO_SendPulses(handle, 0x2, 10, 1000, 60000), 0);
    auto sends = trace->sends();
    auto gets = trace->gets();
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_REQUEST(sends[0], request(GPIO_SEND_PULSES)
                                 .be32(0x1, "mask").be32(100, "width us").be32(101, "period us").be32(10, "count"));
    EXPECT_EQ(gets[0].timeout_ms, 1001);
    EXPECT_EQ(gets[1].timeout_ms, 61000);
    // The wait is computed in 32 bits: 0x10000000 us x 0x100 pulses wraps to 0 ms, + 1000.
    EXPECT_EQ(GPIO_SendPulses(handle, 0x4, 1, 0x10000000, 0x100), 0);
    EXPECT_EQ(trace->gets().back().timeout_ms, 1000);
    auto trains = pins().pulse_trains();
    ASSERT_EQ(trains.size(), 3u);
    EXPECT_EQ(trains[0].period_us, 101u);

    // A real train: the call returns only after the adapter has finished it.
    pins().set_time_scale(1.0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GPIO_SendPulses(handle, 0x1, 1000, 20000, 10), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));
}

TEST_F(Gpio, RejectedAnswers) {
    unsigned v = 0x1234;
    adapter->inject(Fault::EmptyPayload, GPIO_READ);
    EXPECT_EQ(GPIO_Read(handle, 1, &v), -4);
    EXPECT_EQ(v, 0x1234u);
    // Acknowledgements must be empty.
    adapter->inject(Fault::Oversized, GPIO_SET_OUTPUT);
    EXPECT_EQ(GPIO_SetOutput(handle, 1, 0), -4);
    adapter->inject(Fault::Oversized, GPIO_SEND_PULSES);
    pins().set_time_scale(0);
    EXPECT_EQ(GPIO_SendPulses(handle, 1, 1, 2, 1), -4);
    EXPECT_EQ(GPIO_Read(handle, 1, nullptr), 0) << "a null output is tolerated";
}

TEST_F(Gpio, ClosedOrUnknownHandlesCannotSend) {
    USB_CloseDevice(handle);
    unsigned v;
    EXPECT_EQ(GPIO_SetInput(handle, 1, 0), -2);
    EXPECT_EQ(GPIO_SetOutput(handle, 1, 0), -2);
    EXPECT_EQ(GPIO_SetOpenDrain(handle, 1, 0), -2);
    EXPECT_EQ(GPIO_Write(handle, 1, 1), -2);
    EXPECT_EQ(GPIO_Read(handle, 1, &v), -2);
    EXPECT_EQ(GPIO_SendPulses(handle, 1, 1, 2, 1), -2);
    EXPECT_EQ(GPIO_Write(0x7E000001, 1, 1), -2);
    EXPECT_TRUE(adapter->received().empty());
}
