// The command spine every device function is built on: lock the device, write the
// request, read the answer into a bounded buffer, unlock, and judge the answer. A family
// function only says what goes out (named field writers, in wire order) and what counts
// as a good answer (named judgements), so it reads as its wire format:
//
//     Command request(wire::GPIO_WRITE);
//     request.be32(mask).be32(value);
//     return acknowledged(dev, request);
//
// docs/adding-a-family.md walks through a whole family.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "polybus/common.h"
#include "transport/bytes.h"
#include "transport/usb_message.h"

namespace polybus {

// Status codes as the library's sources name them (values from common.h).
enum Status : int {
    kOk = POLYBUS_OK,
    kRefused = POLYBUS_ERR_REFUSED,
    kSendFailed = POLYBUS_ERR_SEND,
    kNoHeader = POLYBUS_ERR_HEADER,
    kBadAnswer = POLYBUS_ERR_ANSWER,
};

// A request being built: fields appended in wire order, each writer naming its byte
// order. Small payloads stay in the object; larger ones get one heap block for the
// duration of the call (reserve it up front). A payload that cannot be allocated, or
// that outgrows its reservation, marks the request failed: it is never sent.
class Command {
public:
    explicit Command(uint32_t code, size_t reserve = 0) : code_(code) {
        if (reserve > sizeof(inline_)) {
            heap_.reset(new (std::nothrow) uint8_t[reserve]);
            if (heap_) {
                buf_ = heap_.get();
                cap_ = reserve;
            } else {
                failed_ = true;
            }
        }
    }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    Command& u8(uint8_t v) { return field<1>(v, [](uint8_t* p, uint8_t x) { p[0] = x; }); }
    Command& be16(uint16_t v) { return field<2>(v, put_be16); }
    Command& be32(uint32_t v) { return field<4>(v, put_be32); }
    Command& le16(uint16_t v) { return field<2>(v, put_le16); }
    Command& le32(uint32_t v) { return field<4>(v, put_le32); }
    // Bytes as they stand; a null source writes zeros.
    Command& bytes(const void* src, size_t n) {
        if (n == 0) return *this;
        if (uint8_t* p = grow(n)) {
            if (src != nullptr) std::memcpy(p, src, n);
            else std::memset(p, 0, n);
        }
        return *this;
    }
    Command& zeros(size_t n) { return bytes(nullptr, n); }
    // A packed record copied as it lies in memory (the host's little-endian layout).
    template <typename Record>
    Command& record(const Record& r) {
        static_assert(std::is_trivially_copyable<Record>::value, "records travel as raw bytes");
        return bytes(&r, sizeof(Record));
    }

    uint32_t code() const { return code_; }
    uint8_t* data() { return buf_; }
    uint32_t size() const { return static_cast<uint32_t>(len_); }
    // True when a payload buffer could not be allocated or was outgrown.
    bool failed() const { return failed_; }

private:
    template <size_t N, typename T, typename Put>
    Command& field(T v, Put put) {
        if (uint8_t* p = grow(N)) put(p, v);
        return *this;
    }

    uint8_t* grow(size_t n) {
        if (failed_ || len_ + n > cap_) {
            failed_ = true;
            return nullptr;
        }
        uint8_t* p = buf_ + len_;
        len_ += n;
        return p;
    }

    uint32_t code_;
    uint8_t inline_[64];
    std::unique_ptr<uint8_t[]> heap_;
    uint8_t* buf_ = inline_;
    size_t cap_ = sizeof(inline_);
    size_t len_ = 0;
    bool failed_ = false;
};

// Where an answer lands. `received` counts the payload bytes actually stored; `length`
// is what the adapter announced (it may be larger than the buffer, or than `received`
// when the payload read came up short). Bytes beyond the buffer are drained, never
// written.
class Answer {
public:
    Answer(void* buffer, size_t capacity) : buf_(static_cast<uint8_t*>(buffer)), cap_(capacity) {}

    uint32_t command = 0;
    uint32_t length = 0;
    size_t received = 0;

    uint8_t* buffer() const { return buf_; }
    size_t capacity() const { return cap_; }

    // Field readers over the received bytes; a field beyond them reads as 0.
    uint8_t u8(size_t off) const { return off < received ? buf_[off] : 0; }
    uint16_t be16(size_t off) const { return off + 2 <= received ? get_be16(buf_ + off) : 0; }
    uint32_t be32(size_t off) const { return off + 4 <= received ? get_be32(buf_ + off) : 0; }
    uint16_t le16(size_t off) const { return off + 2 <= received ? get_le16(buf_ + off) : 0; }
    uint32_t le32(size_t off) const { return off + 4 <= received ? get_le32(buf_ + off) : 0; }
    // Copies what arrived, at most `n` bytes, to `out` (may be null); returns the count.
    size_t copy_to(void* out, size_t n) const {
        const size_t k = received < n ? received : n;
        if (out != nullptr && k != 0) std::memcpy(out, buf_, k);
        return k;
    }

private:
    uint8_t* buf_;
    size_t cap_;
};

// An answer with its own stack buffer of N bytes.
template <size_t N>
class AnswerBuffer : public Answer {
public:
    AnswerBuffer() : Answer(storage_, N) {}

private:
    uint8_t storage_[N];
};

// ---- Named judgements -------------------------------------------------------------
// Each returns kOk or the status the family reports for an answer that fails it.

// The command is acknowledged with no payload at all.
inline int expect_empty(const Answer& a) { return a.length == 0 ? kOk : kBadAnswer; }
// The answer carries the request's own command code.
inline int expect_echo(const Answer& a, uint32_t code) { return a.command == code ? kOk : kBadAnswer; }
// Exactly `n` payload bytes were announced and arrived.
inline int expect_exactly(const Answer& a, size_t n) {
    return a.length == n && a.received == n ? kOk : kBadAnswer;
}
// At least `n` payload bytes arrived.
inline int expect_at_least(const Answer& a, size_t n) { return a.received >= n ? kOk : kBadAnswer; }
// The header announced at least `n` payload bytes (however many of them arrived).
inline int expect_announced(const Answer& a, size_t n) { return a.length >= n ? kOk : kBadAnswer; }
// The byte at `off` arrived and is the firmware's success status, 0.
inline int expect_status_ok(const Answer& a, size_t off = 0) {
    return a.received > off && a.u8(off) == 0 ? kOk : kBadAnswer;
}
// The byte at `off` arrived and equals `value` (an echoed argument).
inline int expect_byte(const Answer& a, size_t off, uint8_t value) {
    return a.received > off && a.u8(off) == value ? kOk : kBadAnswer;
}

// ---- Exchanges --------------------------------------------------------------------

// How the request travels and how long each half may take.
struct Timing {
    int send_ms = 1000;
    int get_ms = 1000;
};
enum class Pipe { Bulk, Interrupt, CanFd };

struct Route {
    Pipe pipe = Pipe::Bulk;
    int channel = 0;  // CAN FD channel: selects the OUT endpoint
};

// Holds a device's exchange mutex across several exchanges that belong together (a
// retried request, a send followed by status polls). Released when it goes out of
// scope, on every path.
class Session {
public:
    explicit Session(int DevHandle);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // One request/answer exchange. Returns kOk when an answer header came, kSendFailed
    // when the request could not be written (kBadAnswer when its payload could not be
    // built), kBadAnswer when no answer came.
    int exchange(Command& request, Answer& answer, Timing timing = {}, Route route = {});
    // The two halves, for the few commands whose answer is read separately.
    int send(Command& request, int send_ms, Route route = {});
    int get(Answer& answer, int get_ms);
    // Gives the device back before the end of the scope.
    void release();

private:
    int handle_;
    bool held_;
};

// One locked exchange (a Session of one).
int transact(int DevHandle, Command& request, Answer& answer, Timing timing = {}, Route route = {});

// The commonest shapes, built from the above.
// A command whose answer is not judged: success is that an answer came (its payload,
// if any, is drained).
inline int answered(int DevHandle, Command& request, Timing timing = {}, Route route = {}) {
    AnswerBuffer<16> answer;
    return transact(DevHandle, request, answer, timing, route);
}
// A command with a small answer (up to 16 bytes kept) judged by `judge`, a function of
// the Answer returning kOk or a status: judged(dev, request, [&](const Answer& a) {
// return expect_byte(a, 0, state); }).
template <typename Judge>
int judged(int DevHandle, Command& request, Judge&& judge, Timing timing = {}, Route route = {}) {
    AnswerBuffer<16> answer;
    const int rc = transact(DevHandle, request, answer, timing, route);
    return rc != kOk ? rc : judge(static_cast<const Answer&>(answer));
}
// A command whose success is an empty answer.
inline int acknowledged(int DevHandle, Command& request, Timing timing = {}, Route route = {}) {
    AnswerBuffer<16> answer;
    const int rc = transact(DevHandle, request, answer, timing, route);
    return rc != kOk ? rc : expect_empty(answer);
}
namespace detail {
inline int fetch(int DevHandle, Command& request, void* out, size_t size, bool echoed, Timing timing, Route route) {
    AnswerBuffer<64> small;
    std::unique_ptr<uint8_t[]> large;
    Answer answer = small;
    if (size > 64) {
        large.reset(new (std::nothrow) uint8_t[size]);
        if (!large) return kBadAnswer;
        answer = Answer(large.get(), size);
    }
    const int rc = transact(DevHandle, request, answer, timing, route);
    if (rc != kOk) return rc;
    if (echoed && expect_echo(answer, request.code()) != kOk) return kBadAnswer;
    if (expect_exactly(answer, size) != kOk) return kBadAnswer;
    answer.copy_to(out, size);
    return kOk;
}
}  // namespace detail

// A command answered with exactly `size` bytes, copied to `out` (may be null).
inline int fetch_exactly(int DevHandle, Command& request, void* out, size_t size, Timing timing = {},
                         Route route = {}) {
    return detail::fetch(DevHandle, request, out, size, false, timing, route);
}
// The same, and the answer must carry the request's own command code.
inline int fetch_echoed(int DevHandle, Command& request, void* out, size_t size, Timing timing = {},
                        Route route = {}) {
    return detail::fetch(DevHandle, request, out, size, true, timing, route);
}

// A vendor control request on endpoint 0 of an open device (reset, stop streaming),
// reported to the transport trace (POLYBUS_TRACE_CONTROL) like every exchange. Name the
// request once as a VendorRequest constant beside the family's wire codes. Returns true
// when the transfer moved exactly wLength bytes; false also for a device that is not open.
bool vendor_request(int DevHandle, const VendorRequest& request, unsigned char* data = nullptr);
bool vendor_request(int DevHandle, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                    unsigned char* data, uint16_t wLength, unsigned TimeOutMs);

}  // namespace polybus
