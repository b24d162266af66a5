// libFuzzer target of the LIN list-file reader, fed from memory through fmemopen.
//
// Input layout: byte 0 the check type, bytes 1..2 the baud rate (big-endian; 0 must be
// refused), byte 3 one identifier to read and byte 4 one whose checksum kind flips; the
// rest is the file, in an exact-size heap buffer. Checks beyond "no crash": the result is
// a record count or one of the reader's statuses, exactly that many records can be
// fetched, and every record is a well-formed frame.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "lin/list_file.h"
#include "polybus/lin.h"

namespace {
void check(bool cond) {
    if (!cond) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) return 0;
    const unsigned char check_type = data[0];
    const int baud = data[1] << 8 | data[2];
    unsigned char reads[1] = {data[3]}, flips[1] = {data[4]};
    const size_t n = size - 5;
    std::vector<char> file(data + 5, data + size);
    FILE* f = n != 0 ? fmemopen(file.data(), n, "rb") : fopen("/dev/null", "rb");
    if (f == nullptr) return 0;
    const int rc = polybus::lin::decode_list_stream(f, check_type, baud, reads, 1, flips, 1);
    std::fclose(f);
    if (baud == 0) check(rc == LIN_EX_ERR_PARAM);
    check(rc >= 0 || rc == LIN_EX_ERR_PARAM || rc == LIN_EX_ERR_HEADER || rc == LIN_EX_ERR_MEMORY ||
          rc == LIN_EX_ERR_LONG_LINE);
    if (rc < 0) return 0;
    // Every line holds at least 22 fields, so the count is bounded by the file's size.
    check(size_t(rc) <= n / 21);
    std::vector<LIN_EX_MSG> out(size_t(rc) + 1);
    check(LIN_EX_GetListFileMsg(0, rc + 1, out.data()) == rc);
    for (int i = 0; i < rc; ++i) {
        const LIN_EX_MSG& m = out[size_t(i)];
        check(m.DataLen <= 8);
        check(m.MsgType == LIN_EX_MSG_MASTER_READ || m.MsgType == LIN_EX_MSG_MASTER_WRITE);
        check(m.Sync == 0x55 && m.BreakBits == 13);
        check(m.MsgType == LIN_EX_MSG_MASTER_WRITE || (m.PID & 0x3F) == (reads[0]));
        if ((m.PID & 0x3F) != flips[0]) check(m.CheckType == check_type);
    }
    check(out[size_t(rc)].MsgType == 0 && out[size_t(rc)].Sync == 0);  // nothing copied past the count
    return 0;
}
