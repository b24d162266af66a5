// The command spine every device function is built on: lock the device, write the
// request, read the answer into a bounded buffer, unlock, and hand the answer back
// for the family to judge. Family functions only say what goes out and what counts
// as a good answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "transport/bytes.h"

namespace polybus {

// A request being built: big-endian fields appended in order. Small payloads stay in
// the object; larger ones get one heap block for the duration of the call.
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

    Command& u8(uint8_t v) {
        if (uint8_t* p = grow(1)) p[0] = v;
        return *this;
    }
    Command& u16(uint16_t v) {
        if (uint8_t* p = grow(2)) put_be16(p, v);
        return *this;
    }
    Command& u32(uint32_t v) {
        if (uint8_t* p = grow(4)) put_be32(p, v);
        return *this;
    }
    Command& bytes(const void* src, size_t n) {
        if (n == 0) return *this;
        if (uint8_t* p = grow(n)) {
            if (src != nullptr) std::memcpy(p, src, n);
            else std::memset(p, 0, n);
        }
        return *this;
    }

    uint32_t code() const { return code_; }
    uint8_t* data() { return buf_; }
    uint32_t size() const { return static_cast<uint32_t>(len_); }
    // True when a payload buffer could not be allocated.
    bool failed() const { return failed_; }

private:
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
// when the payload read came up short).
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
    uint32_t le32(size_t off) const { return off + 4 <= received ? get_le32(buf_ + off) : 0; }

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

// One locked request/answer exchange. Returns 0 when an answer header came, -2 when the
// request could not be written (or its payload not allocated: -4), -4 when no answer came.
int transact(int DevHandle, Command& request, Answer& answer, Timing timing = {}, Route route = {});

// The two halves of an exchange, for the few callers that hold the device lock
// themselves across more than one step. Same results as above.
int send_request(int DevHandle, Command& request, int send_ms, Route route = {});
int get_answer(int DevHandle, Answer& answer, int get_ms);

}  // namespace polybus
