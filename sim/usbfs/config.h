// Adapter lists given to the simulator as text, so the launcher can pass them to the
// program it starts: "0x41000001,0x53000002" (identifiers; "bus:" prefixes not needed).
#pragma once

#include <string>
#include <vector>

#include "adapter.h"

namespace polybus_sim {

// Parses a comma-separated list of identifiers (hex with 0x, or decimal). Returns false
// and leaves `out` unchanged on malformed text.
bool parse_adapter_list(const std::string& text, std::vector<AdapterConfig>& out);

// Plugs the adapters of a list as above; returns how many were plugged.
int plug_from_list(const std::string& text);

}  // namespace polybus_sim
