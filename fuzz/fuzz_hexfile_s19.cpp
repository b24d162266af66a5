// libFuzzer target: hexfile_convert_s19 on arbitrary input (see fuzz_hexfile_common.h).
#include "fuzz_hexfile_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_hexfile::run(
        data, size,
        [](uint8_t* file, int len, HEX_DATA_BLOCK* blocks, int max, int64_t unit) {
            return hexfile_convert_s19(file, len, blocks, max, static_cast<char>(unit));
        },
        fuzz_hexfile::kCharUnits, fuzz_hexfile::char_unit);
}
