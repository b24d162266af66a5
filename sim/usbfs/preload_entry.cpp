// Loaded into an unmodified program by the polybus-sim launcher: plugs the simulated
// adapters before the program's main() runs.
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "config.h"
#include "world.h"

namespace {
// Every program in the chain plugs its own adapters: wrapper scripts exec the real
// program, and the adapters live in the memory of the process that plugged them.
// Nothing is unplugged at exit: the process is going away with its testbed, and a
// forked child must not tear down what its parent still uses.
//
// POLYBUS_SIM_WORLD names a world file (the launcher checked it already); it is read
// again here, in the program's own process, where its adapters must live.
__attribute__((constructor)) void polybus_sim_attach() {
    if (const char* path = std::getenv("POLYBUS_SIM_WORLD")) {
        try {
            static polybus_sim::world::Bench* bench = polybus_sim::world::load_world(path).build().release();
            (void)bench;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "polybus-sim: %s\n", e.what());
            _exit(2);
        }
        return;
    }
    if (const char* list = std::getenv("POLYBUS_SIM_ADAPTERS")) polybus_sim::plug_from_list(list);
}
}  // namespace
