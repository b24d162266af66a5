// libFuzzer target: hexfile_convert_txt on arbitrary input (see fuzz_hexfile_common.h);
// the value width (which is also the address unit) is chosen like the address unit.
#include "fuzz_hexfile_common.h"

namespace {
constexpr int64_t kValueBytes[8] = {1, 2, 4, 4, 3, 0, 8, 0x7FFFFFFF};
uint32_t value_unit(int64_t u) { return u >= 1 && u <= 127 ? static_cast<uint32_t>(u) : 0; }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_hexfile::run(
        data, size,
        [](uint8_t* file, int len, HEX_DATA_BLOCK* blocks, int max, int64_t unit) {
            return hexfile_convert_txt(file, len, blocks, static_cast<uint32_t>(max), static_cast<uint32_t>(unit));
        },
        kValueBytes, value_unit);
}
