// The simulator as the launcher's preload loads it, on demand, into the process
// that uses libusb (see preload_entry.cpp): the world or the adapters the launcher
// was asked for.
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "config.h"
#include "world.h"

extern "C" __attribute__((visibility("default"))) int polybus_sim_plug_from_environment() {
    // POLYBUS_SIM_WORLD names a world file the launcher checked already; it is read
    // again here, in the program's own process, where its adapters must live.
    if (const char* path = std::getenv("POLYBUS_SIM_WORLD")) {
        try {
            static polybus_sim::world::Bench* bench = polybus_sim::world::load_world(path).build().release();
            return bench != nullptr ? 1 : 0;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "polybus-sim: %s\n", e.what());
            _exit(2);
        }
    }
    const char* list = std::getenv("POLYBUS_SIM_ADAPTERS");
    return list ? polybus_sim::plug_from_list(list) : 0;
}
