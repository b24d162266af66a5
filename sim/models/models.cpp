// Every family model a simulated adapter carries.
#include "adapter.h"
#include "can_model.h"
#include "device_model.h"
#include "gpio_model.h"
#include "lin_model.h"
#include "i2c_model.h"
#include "spi_model.h"
#include "uart_model.h"
#include "adc_model.h"
#include "counter_model.h"
#include "dac_model.h"
#include "pwm_model.h"

namespace polybus_sim {

void install_models(Adapter& adapter) {
    adapter.model<DeviceModel>();
    adapter.model<GpioModel>();
    adapter.model<CanModel>();
    adapter.model<LinModel>();
    adapter.model<I2cModel>();
    adapter.model<SpiModel>();
    adapter.model<UartModel>();
    adapter.model<PwmModel>();
    adapter.model<CounterModel>();
    adapter.model<DacModel>();
    adapter.model<AdcModel>();
}

}  // namespace polybus_sim
