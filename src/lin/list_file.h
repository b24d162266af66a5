// The list-file reader on an open stream, so tests and the fuzzer can feed it memory.
#pragma once

#include <cstdio>

#include "polybus/lin.h"

namespace polybus {
namespace lin {

constexpr int kListLineMax = 1023;  // characters per line, end of line not counted

// As LIN_EX_DecodeListFile, from `stream` (not closed here).
int decode_list_stream(FILE* stream, unsigned char check_type, int baud, const unsigned char* read_ids,
                       int read_ids_len, const unsigned char* check_ids, int check_ids_len);

}  // namespace lin
}  // namespace polybus
