// The simulator as the launcher's preload loads it, on demand, into the process
// that uses libusb (see preload_entry.cpp): the adapters the launcher was asked for.
#include <cstdlib>

#include "config.h"

extern "C" __attribute__((visibility("default"))) int polybus_sim_plug_from_environment() {
    const char* list = std::getenv("POLYBUS_SIM_ADAPTERS");
    return list ? polybus_sim::plug_from_list(list) : 0;
}
