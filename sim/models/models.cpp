// Every family model a simulated adapter carries.
#include "adapter.h"
#include "can_model.h"
#include "device_model.h"
#include "gpio_model.h"
#include "lin_model.h"

namespace polybus_sim {

void install_models(Adapter& adapter) {
    adapter.model<DeviceModel>();
    adapter.model<GpioModel>();
    adapter.model<CanModel>();
    adapter.model<LinModel>();
}

}  // namespace polybus_sim
