// Recorded LIN traffic (a comma-separated bus traffic export) turned into frames to replay.
#include "lin/list_file.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "polybus/lin.h"

namespace {

const char kHeader[] = "Vehicle Spy 3 Bus Traffic File";
constexpr size_t kMinFields = 22;
constexpr size_t kFieldId = 9, kFieldTime = 1, kFieldData = 12;

// The records of the last file read, for LIN_EX_GetListFileMsg.
std::mutex g_mutex;
std::vector<LIN_EX_MSG> g_records;

enum class Line { Ok, End, TooLong };

// Reads one line (without its end) into `line`; a line over the limit is consumed up to
// its end and reported.
Line read_line(FILE* f, std::string& line) {
    line.clear();
    int c = std::getc(f);
    if (c == EOF) return Line::End;
    bool too_long = false;
    for (; c != EOF && c != '\n'; c = std::getc(f)) {
        if (line.size() < size_t(polybus::lin::kListLineMax)) line.push_back(static_cast<char>(c));
        else too_long = true;
    }
    if (!line.empty() && line.back() == '\r' && !too_long) line.pop_back();
    return too_long ? Line::TooLong : Line::Ok;
}

struct Field {
    const char* p;
    size_t n;
    std::string text() const { return std::string(p, n); }
};

std::vector<Field> split(const std::string& line) {
    std::vector<Field> fields;
    size_t start = 0;
    for (size_t i = 0; i <= line.size(); ++i) {
        if (i == line.size() || line[i] == ',') {
            fields.push_back({line.data() + start, i - start});
            start = i + 1;
        }
    }
    return fields;
}

bool digits_only(const Field& f) {
    if (f.n == 0) return false;
    for (size_t i = 0; i < f.n; ++i)
        if (f.p[i] < '0' || f.p[i] > '9') return false;
    return true;
}

unsigned long hex(const Field& f) { return std::strtoul(f.text().c_str(), nullptr, 16); }

bool listed(uint8_t id, const unsigned char* list, int len) {
    if (list == nullptr) return false;
    for (int i = 0; i < len; ++i)
        if ((list[i]) == id) return true;
    return false;
}

// Delay before the previous frame: the gap between the lines less this frame's bus time.
uint32_t gap_ms(double previous_s, double now_s, int baud, unsigned len) {
    const double d = (now_s - previous_s) * 1000.0;
    const double f = static_cast<double>((45000 + 10000 * static_cast<long long>(len)) / baud);
    const double ms = d - f;
    if (!(ms > 0)) return 0;  // negative, zero or not a number
    if (ms >= 4294967295.0) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(ms);  // truncated toward zero
}

}  // namespace

namespace polybus {
namespace lin {

int decode_list_stream(FILE* f, unsigned char check_type, int baud, const unsigned char* read_ids, int read_ids_len,
                       const unsigned char* check_ids, int check_ids_len) {
    if (baud < 1) return LIN_EX_ERR_PARAM;
    std::string line;
    if (read_line(f, line) == Line::End) return LIN_EX_ERR_HEADER;
    const size_t cut = line.find_first_of(",\r\n");
    if (line.substr(0, cut) != kHeader) return LIN_EX_ERR_HEADER;

    std::lock_guard<std::mutex> g(g_mutex);
    g_records.clear();
    g_records.shrink_to_fit();
    // Bytes beyond a line's data length keep what earlier lines left in the record.
    LIN_EX_MSG work{};
    double previous_time = 0;
    for (;;) {
        const Line r = read_line(f, line);
        if (r == Line::End) break;
        if (r == Line::TooLong) return LIN_EX_ERR_LONG_LINE;
        const std::vector<Field> fields = split(line);
        if (fields.size() < kMinFields || !digits_only(fields[0])) continue;

        const double time = std::strtod(fields[kFieldTime].text().c_str(), nullptr);
        const uint8_t id = static_cast<uint8_t>(hex(fields[kFieldId]));
        unsigned len = 0;
        while (len < 8 && fields[kFieldData + len].n != 0) {
            work.Data[len] = static_cast<uint8_t>(hex(fields[kFieldData + len]));
            ++len;
        }
        work.TimeStamp = 0;
        work.MsgType = listed(id & 0x3F, read_ids, read_ids_len) ? LIN_EX_MSG_MASTER_READ : LIN_EX_MSG_MASTER_WRITE;
        work.CheckType = check_type;
        if (listed(id & 0x3F, check_ids, check_ids_len)) work.CheckType = check_type == 0 ? 1 : 0;
        work.DataLen = static_cast<uint8_t>(len);
        work.Sync = 0x55;
        work.PID = id;
        work.BreakBits = 13;
        try {
            g_records.push_back(work);
        } catch (...) {
            return LIN_EX_ERR_MEMORY;
        }
        const size_t n = g_records.size();
        if (n >= 2) g_records[n - 2].TimeStamp = gap_ms(previous_time, time, baud, len);
        previous_time = time;
    }
    return static_cast<int>(g_records.size());
}

}  // namespace lin
}  // namespace polybus

extern "C" {

POLYBUS_API int LIN_EX_DecodeListFile(char* pFileName, unsigned char CheckType, int BaudRate,
                                      unsigned char* pReadIDList, int ReadIDListLen, unsigned char* pCheckTypeIDList,
                                      int CheckTypeIDListLen) {
    if (BaudRate < 1) return LIN_EX_ERR_PARAM;
    if (pFileName == nullptr) return LIN_EX_ERR_OPEN;
    FILE* f = std::fopen(pFileName, "rb");
    if (f == nullptr) return LIN_EX_ERR_OPEN;
    const int rc = polybus::lin::decode_list_stream(f, CheckType, BaudRate, pReadIDList, ReadIDListLen,
                                                     pCheckTypeIDList, CheckTypeIDListLen);
    std::fclose(f);
    return rc;
}

POLYBUS_API int LIN_EX_GetListFileMsg(int MsgIndex, int MsgLen, LIN_EX_MSG* pLINMsg) {
    if (MsgLen < 1 || MsgIndex < 0 || pLINMsg == nullptr) return 0;
    std::lock_guard<std::mutex> g(g_mutex);
    const size_t total = g_records.size();
    if (size_t(MsgIndex) >= total) return 0;
    size_t n = total - size_t(MsgIndex);
    if (n > size_t(MsgLen)) n = size_t(MsgLen);
    std::memcpy(pLINMsg, g_records.data() + MsgIndex, n * sizeof(LIN_EX_MSG));
    return static_cast<int>(n);
}

POLYBUS_API int isNumber(char* str) {
    if (str == nullptr || *str == '\0') return 0;
    for (const char* p = str; *p != '\0'; ++p)
        if (*p < '0' || *p > '9') return 0;
    return 1;
}

}  // extern "C"
