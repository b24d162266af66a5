// libFuzzer target: arbitrary bytes as an LDF file, then every frame and signal through
// the value functions, by name (indexed and scanned) and as frame bytes.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "database/ldf_internal.h"

using namespace polybus::ldf;

namespace {
const double kValues[] = {0.0, -1.0, 2.5, 1e300, -1e300, 12345.678, 1.0 / 0.0, 0.0 / 0.0};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = prepare(std::string_view(reinterpret_cast<const char*>(data), size));
    LDF_CODING parsed{};
    decode_text(text, parsed);
    LDF_CODING* db = store_database(parsed);
    index_database(db);
    // Value texts hold a unit or a logical text from the file, or a printed double.
    std::vector<char> out(text.size() + 512);
    unsigned char bytes[256];
    size_t round = 0;
    const uint32_t frames = db->frameCount < 64 ? db->frameCount : 64;
    for (uint32_t f = 0; f < frames; ++f) {
        LDF_LIN_FRAME& frame = db->frames[f];
        const std::string fname = frame.name != nullptr ? frame.name : "";
        const uint32_t signals = frame.signalCount < 64 ? frame.signalCount : 64;
        for (uint32_t k = 0; k < signals; ++k) {
            const std::string sname = frame.signals[k].name != nullptr ? frame.signals[k].name : "";
            LDF_SetSignalValue(db, fname.c_str(), sname.c_str(), kValues[round++ % 8]);
            double v;
            LDF_GetSignalValue(db, fname.c_str(), sname.c_str(), &v);
            LDF_GetSignalValueStr(db, fname.c_str(), sname.c_str(), out.data());
            // The same signal found by a scan, in the record the parse filled.
            LDF_GetSignalValueStr(&parsed, fname.c_str(), sname.c_str(), out.data());
        }
        std::memset(bytes, 0xA5, sizeof(bytes));
        LDF_SetFrameRawValue(db, fname.c_str(), bytes);
        LDF_GetFrameRawValue(db, fname.c_str(), bytes);
    }
    for (uint32_t s = 0; s < db->scheduleCount && s < 16; ++s) {
        const char* name = db->schedules[s].name;
        if (name == nullptr) continue;
        const int n = LDF_GetSchFrameQuantity(db, name);
        for (int i = 0; i < n && i < 64; ++i) LDF_GetSchFrameName(db, name, i, out.data());
    }
    // Nothing made here is used again: give the memory back now and then, so a long
    // run stays small without paying for fresh pages on every input.
    static unsigned runs = 0;
    if (++runs % 256 == 0) {
        forget_databases();
        store().release_all();
    }
    return 0;
}
