// The keyed configuration area: raw chunked transfers (ARG_Init, ARG_Write, ARG_Read) and
// the chain of CRC-protected records kept in it.
#include <bitset>
#include <cstring>
#include <unistd.h>
#include <vector>

#include "device/crc16.h"
#include "polybus/usb_device.h"
#include "transport/exchange.h"
#include "wire/device.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

// The adapter's answer to a configuration command: exactly one status byte (ARG_Read:
// the status byte, then the data). 0 is done, 1 is the adapter's refusal, any other
// value the operation's own failure code.
int config_status(const Answer& a, int other_failure) {
    switch (a.u8(0)) {
        case 0: return kOk;
        case 1: return ARG_ERR_BUSY;
        default: return other_failure;
    }
}

// The address field of chunk k: the high byte follows a running sum of the chunk
// offsets, the low byte stays Addr's. Adapters in the field expect exactly this.
uint16_t chunk_address(uint32_t& running, uint16_t Addr, uint32_t offset) {
    running += offset;
    return static_cast<uint16_t>((running & 0xFF00u) | (Addr & 0x00FFu));
}

uint32_t chunk_size(uint32_t Len, uint32_t offset) { return Len - offset < kConfigChunk ? Len - offset : kConfigChunk; }

}  // namespace

extern "C" {

POLYBUS_API int ARG_Init(int dev) {
    Command request(ARG_INIT);
    AnswerBuffer<8> status;
    const int rc = transact(dev, request, status);
    if (rc != kOk) return rc;
    // A status byte that was announced but never arrived is no answer either.
    if (expect_exactly(status, 1) != kOk) return kBadAnswer;
    return config_status(status, ARG_ERR_BUSY);
}

POLYBUS_API int ARG_Write(int dev, uint16_t Addr, unsigned char* pData, uint16_t Len) {
    uint32_t running = Addr;
    for (uint32_t offset = 0; offset < Len; offset += kConfigChunk) {
        const uint32_t chunk = chunk_size(Len, offset);
        Command request(ARG_WRITE, 2 + chunk);
        request.be16(chunk_address(running, Addr, offset)).bytes(pData != nullptr ? pData + offset : nullptr, chunk);
        AnswerBuffer<8> status;
        const int rc = transact(dev, request, status, {1000, static_cast<int>(chunk * 20 / 64 + 1000)});
        if (rc != kOk) return rc;
        if (expect_exactly(status, 1) != kOk) return kBadAnswer;
        const int result = config_status(status, ARG_ERR_WRITE);
        if (result != kOk) return result;
    }
    return kOk;
}

POLYBUS_API int ARG_Read(int dev, uint16_t Addr, unsigned char* pData, uint16_t Len) {
    if (Len == 0) return kOk;
    uint32_t running = Addr;
    std::vector<uint8_t> buf(1 + kConfigChunk);
    for (uint32_t offset = 0; offset < Len; offset += kConfigChunk) {
        const uint32_t chunk = chunk_size(Len, offset);
        Command request(ARG_READ);
        request.be16(chunk_address(running, Addr, offset)).be16(static_cast<uint16_t>(chunk));
        Answer reply(buf.data(), 1 + chunk);
        const int rc = transact(dev, request, reply, {1000, static_cast<int>(chunk * 10 / 64 + 1000)});
        if (rc != kOk) return rc;
        if (expect_announced(reply, 1) != kOk || expect_at_least(reply, 1) != kOk) return kBadAnswer;
        const int result = config_status(reply, ARG_ERR_READ);
        if (result != kOk) return result;
        if (pData != nullptr && reply.received > 1) std::memcpy(pData + offset, buf.data() + 1, reply.received - 1);
    }
    return kOk;
}

}  // extern "C"
namespace {

struct ArgHeader {
    uint32_t id = 0;
    uint32_t length = 0;
    uint16_t crc = 0;
    uint16_t next = 0;

    bool marked() const { return (id >> 16) == 0x55AA; }
};

constexpr uint16_t kFirstHeader = 16;
// Headers already visited on one walk along the chain: a chain that comes back to an
// address loops, and following it would never end.
class ChainWalk {
public:
    bool enter(uint16_t addr) {
        if (seen_.test(addr)) return false;
        seen_.set(addr);
        return true;
    }

private:
    std::bitset<65536> seen_;
};

int read_header(int dev, uint16_t addr, ArgHeader& h) {
    uint8_t raw[12] = {0};
    int rc = ARG_Read(dev, addr, raw, 12);
    if (rc != kOk) return rc;
    h.id = get_le32(raw);
    h.length = get_le32(raw + 4);
    h.crc = get_le16(raw + 8);
    h.next = get_le16(raw + 10);
    return 0;
}

int write_header(int dev, uint16_t addr, const ArgHeader& h) {
    uint8_t raw[12];
    put_le32(raw, h.id);
    put_le32(raw + 4, h.length);
    put_le16(raw + 8, h.crc);
    put_le16(raw + 10, h.next);
    return ARG_Write(dev, addr, raw, 12);
}

int slot_size(uint32_t id) {
    static const int sizes[13] = {44, 44, 1292, 1292, 44, 1292, 1292, 44, 44, 1292, 1292, 1292, 1292};
    const uint32_t index = id - 0x55AA0001u;
    return index < 13 ? sizes[index] : -1;
}

void pause_before_access() { usleep(10 * 1000); }

int write_record(int dev, uint16_t addr, uint32_t id, const uint8_t* data, uint32_t len, uint16_t next) {
    ArgHeader h;
    h.id = id;
    h.length = len;
    h.crc = crc16_ccitt(data, static_cast<int>(len));
    h.next = next;
    pause_before_access();
    int rc = write_header(dev, addr, h);
    if (rc != kOk) return rc;
    pause_before_access();
    return ARG_Write(dev, static_cast<uint16_t>(addr + 12), const_cast<uint8_t*>(data), static_cast<uint16_t>(len));
}

// Walks the chain from the first header to the record with key `id`. Returns kOk with
// `addr` and `h` at that record, a read failure as it is, or `not_found` when `goes_on`
// says the chain ends at a header (or the chain comes back on itself).
int find_record(int dev, uint32_t id, bool (*goes_on)(const ArgHeader&), int not_found, uint16_t& addr,
                ArgHeader& h) {
    addr = kFirstHeader;
    ChainWalk walk;
    while (walk.enter(addr)) {
        const int rc = read_header(dev, addr, h);
        if (rc != kOk) return rc;
        if (h.id == id) return kOk;
        if (!goes_on(h)) return not_found;
        addr = h.next;
    }
    return not_found;
}

// A read follows `next` until a last record (0xFFFF) or a record without successor (0).
bool has_successor(const ArgHeader& h) { return h.next != 0 && h.next != 0xFFFF; }
// An erase follows `next` through every marked header, without testing it.
bool is_marked(const ArgHeader& h) { return h.marked(); }

}  // namespace

extern "C" {

POLYBUS_API int ARG_ReadArgData(int dev, unsigned int ArgId, unsigned char* pData) {
    ArgHeader h;
    uint16_t addr = 0;
    int rc = find_record(dev, ArgId, has_successor, ARG_ERR_NOT_FOUND, addr, h);
    if (rc != kOk) return rc;
    const uint16_t len = static_cast<uint16_t>(h.length & 0xFFFF);
    std::vector<uint8_t> data(len + 1u);
    rc = ARG_Read(dev, static_cast<uint16_t>(addr + 12), data.data(), len);
    if (rc != kOk) return rc;
    if (crc16_ccitt(data.data(), len) != h.crc) return ARG_ERR_CRC;
    if (pData != nullptr) std::memcpy(pData, data.data(), len);
    return static_cast<int>(h.length);
}

POLYBUS_API int ARG_WriteArgData(int dev, unsigned int ArgId, unsigned char* pData, unsigned int Len) {
    ArgHeader h;
    uint16_t addr = kFirstHeader;
    ChainWalk walk;
    walk.enter(addr);
    pause_before_access();
    int rc = read_header(dev, addr, h);
    while (rc == 0) {
        if (h.id == ArgId) {
            // Rewritten in place, even when the new data outgrows the record's slot.
            h.length = Len;
            h.crc = crc16_ccitt(pData, static_cast<int>(Len));
            pause_before_access();
            rc = write_header(dev, addr, h);
            if (rc != kOk) return rc;
            pause_before_access();
            return ARG_Write(dev, static_cast<uint16_t>(addr + 12), pData, static_cast<uint16_t>(Len));
        }
        if (!h.marked() || h.next == 0) return write_record(dev, addr, ArgId, pData, Len, 0xFFFF);
        if (h.next == 0xFFFF) {
            const int size = slot_size(h.id);
            if (size < 0) return ARG_ERR_CHAIN;
            const uint16_t fresh = static_cast<uint16_t>(addr + size);
            h.next = fresh;
            pause_before_access();
            rc = write_header(dev, addr, h);
            if (rc != kOk) return rc;
            return write_record(dev, fresh, ArgId, pData, Len, 0xFFFF);
        }
        addr = h.next;
        if (!walk.enter(addr)) return ARG_ERR_CHAIN;
        pause_before_access();
        rc = read_header(dev, addr, h);
    }
    return rc;
}

POLYBUS_API int ARG_EraseArgData(int dev, int ArgId) {
    ArgHeader h;
    uint16_t addr = 0;
    const int rc = find_record(dev, static_cast<uint32_t>(ArgId), is_marked, ARG_ERR_CHAIN, addr, h);
    if (rc != kOk) return rc;
    // The data stays; the record becomes the end of the chain.
    h.length = 0;
    h.crc = 0xFFFF;
    h.next = 0xFFFF;
    return write_header(dev, addr, h);
}

}  // extern "C"
