// Loaded into an unmodified program by the polybus-sim launcher: plugs the simulated
// adapters before the program's main() runs.
#include "config.h"

namespace {
__attribute__((constructor)) void polybus_sim_attach() { polybus_sim::plug_from_environment(); }

__attribute__((destructor)) void polybus_sim_detach() { polybus_sim::Simulator::instance().remove_all(); }
}  // namespace
