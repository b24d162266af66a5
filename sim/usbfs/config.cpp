#include "config.h"

#include <cstdlib>
#include <sstream>

namespace polybus_sim {

bool parse_adapter_list(const std::string& text, std::vector<AdapterConfig>& out) {
    std::vector<AdapterConfig> parsed;
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, ',')) {
        if (item.empty()) return false;
        char* end = nullptr;
        unsigned long long v = std::strtoull(item.c_str(), &end, 0);
        if (end == item.c_str() || *end != '\0' || v == 0 || v >= 0xFF000000ull) return false;
        AdapterConfig c;
        c.identifier = static_cast<uint32_t>(v);
        c.serial[2] = static_cast<uint32_t>(parsed.size() + 1);
        parsed.push_back(c);
    }
    if (parsed.empty()) return false;
    out = std::move(parsed);
    return true;
}

int plug_from_list(const std::string& text) {
    std::vector<AdapterConfig> configs;
    if (!parse_adapter_list(text, configs)) return 0;
    for (auto& c : configs) Simulator::instance().add(c);
    return static_cast<int>(configs.size());
}

}  // namespace polybus_sim
