// Loaded into an unmodified program by the polybus-sim launcher: plugs the simulated
// adapters before the program's main() runs.
#include <cstdlib>

#include "config.h"

namespace {
// Every program in the chain plugs its own adapters: wrapper scripts exec the real
// program, and the adapters live in the memory of the process that plugged them.
// Nothing is unplugged at exit: the process is going away with its testbed, and a
// forked child must not tear down what its parent still uses.
__attribute__((constructor)) void polybus_sim_attach() {
    if (const char* list = std::getenv("POLYBUS_SIM_ADAPTERS")) polybus_sim::plug_from_list(list);
}
}  // namespace
