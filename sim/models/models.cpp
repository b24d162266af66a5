// Every family model a simulated adapter carries.
#include "adapter.h"
#include "can_model.h"
#include "device_model.h"
#include "gpio_model.h"
#include "adc_model.h"
#include "counter_model.h"
#include "dac_model.h"
#include "pwm_model.h"

namespace polybus_sim {

void install_models(Adapter& adapter) {
    adapter.model<DeviceModel>();
    adapter.model<GpioModel>();
    adapter.model<CanModel>();
    adapter.model<PwmModel>();
    adapter.model<CounterModel>();
    adapter.model<DacModel>();
    adapter.model<AdcModel>();
}

}  // namespace polybus_sim
