// libFuzzer target: hexfile_get_line over a NUL-terminated copy of the input. Checks
// that every line is a copy without CR or LF, that the cursor always moves forward and
// stays inside the text, and that the lines plus skipped line ends cover the text up to
// its first NUL.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "polybus/hexfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char* text = static_cast<char*>(std::malloc(size + 1));
    char* line = static_cast<char*>(std::malloc(size + 1));
    std::memcpy(text, data, size);
    text[size] = '\0';
    const size_t textLen = std::strlen(text);
    char* cur = text;
    for (;;) {
        char* before = cur;
        char* got = hexfile_get_line(&cur, line);
        if (got == nullptr) {
            if (cur != before || *cur != '\0') __builtin_trap();
            break;
        }
        if (got != line || cur <= before || cur > text + textLen) __builtin_trap();
        const size_t n = std::strlen(line);
        if (std::strcspn(line, "\r\n") != n || std::memcmp(line, before, n) != 0) __builtin_trap();
        for (char* p = before + n; p < cur; ++p) {
            if (*p != '\r' && *p != '\n') __builtin_trap();
        }
    }
    if (cur != text + textLen) __builtin_trap();
    std::free(line);
    std::free(text);
    return 0;
}
