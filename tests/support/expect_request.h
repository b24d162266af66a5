// Request expectations that read as the wire format: a request is written field by
// field, each writer naming its byte order (and optionally the field), and compared
// with what the library sent (a trace entry) or what the adapter received (a Frame):
//
//     EXPECT_REQUEST(trace->sends(CAN_INIT)[0],
//                    request(CAN_INIT).u8(0, "channel").zeros(1).u8(1, "ABOM") ... .be16(4, "prescaler"));
//
// A mismatch names the field, its offset and both values, not a byte index.
// `.and_more()` ends an expectation that covers only the first fields of the payload.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "adapter.h"
#include "sim_fixture.h"

namespace polybus_test {

class Request {
public:
    explicit Request(uint32_t code) : code_(code) {}

    Request& u8(uint8_t v, const char* name = nullptr) { return put(v, 1, false, "u8", name); }
    Request& be16(uint16_t v, const char* name = nullptr) { return put(v, 2, false, "be16", name); }
    Request& be32(uint32_t v, const char* name = nullptr) { return put(v, 4, false, "be32", name); }
    Request& le16(uint16_t v, const char* name = nullptr) { return put(v, 2, true, "le16", name); }
    Request& le32(uint32_t v, const char* name = nullptr) { return put(v, 4, true, "le32", name); }
    Request& bytes(const void* p, size_t n, const char* name = nullptr) {
        fields_.push_back({name != nullptr ? name : "bytes", "bytes", payload_.size(), n, 0});
        const auto* b = static_cast<const uint8_t*>(p);
        payload_.insert(payload_.end(), b, b + n);
        return *this;
    }
    Request& bytes(const std::vector<uint8_t>& v, const char* name = nullptr) { return bytes(v.data(), v.size(), name); }
    Request& zeros(size_t n, const char* name = nullptr) {
        return bytes(std::vector<uint8_t>(n, 0), name != nullptr ? name : "zeros");
    }
    // A packed record as it lies in memory (the host's little-endian layout).
    template <typename Record>
    Request& record(const Record& r, const char* name = nullptr) {
        static_assert(std::is_trivially_copyable<Record>::value, "records travel as raw bytes");
        return bytes(&r, sizeof(Record), name != nullptr ? name : "record");
    }
    // The payload goes on beyond the fields written; only they are compared.
    Request& and_more() {
        prefix_only_ = true;
        return *this;
    }

    uint32_t code() const { return code_; }
    const std::vector<uint8_t>& payload() const { return payload_; }

    // Empty when `command`/`payload` match; otherwise what differs, field by field.
    std::string differences(uint32_t command, const std::vector<uint8_t>& payload) const {
        std::string out;
        char line[200];
        if (command != code_) {
            std::snprintf(line, sizeof(line), "command: expected 0x%04X, sent 0x%04X\n", code_, command);
            out += line;
        }
        if (prefix_only_ ? payload.size() < payload_.size() : payload.size() != payload_.size()) {
            std::snprintf(line, sizeof(line), "payload length: expected %s%zu, sent %zu\n", prefix_only_ ? "at least " : "",
                          payload_.size(), payload.size());
            out += line;
        }
        for (size_t i = 0; i < fields_.size(); ++i) {
            const Field& f = fields_[i];
            if (f.offset + f.size > payload.size()) {
                std::snprintf(line, sizeof(line), "field %zu '%s' (%s at %zu): not sent\n", i, f.name, f.kind, f.offset);
                out += line;
                continue;
            }
            if (std::memcmp(payload.data() + f.offset, payload_.data() + f.offset, f.size) == 0) continue;
            if (f.is_number) {
                std::snprintf(line, sizeof(line), "field %zu '%s' (%s at %zu): expected 0x%X, sent 0x%X\n", i, f.name,
                              f.kind, f.offset, static_cast<unsigned>(read(payload_, f)),
                              static_cast<unsigned>(read(payload, f)));
                out += line;
            } else {
                size_t at = 0;
                while (payload[f.offset + at] == payload_[f.offset + at]) ++at;
                std::snprintf(line, sizeof(line), "field %zu '%s' (%zu bytes at %zu): byte %zu expected 0x%02X, sent 0x%02X\n",
                              i, f.name, f.size, f.offset, at, payload_[f.offset + at], payload[f.offset + at]);
                out += line;
            }
        }
        return out;
    }

private:
    struct Field {
        const char* name;
        const char* kind;
        size_t offset;
        size_t size;
        int is_number;  // 1 big-endian number, 2 little-endian number, 0 raw bytes
    };

    Request& put(uint32_t v, size_t n, bool little, const char* kind, const char* name) {
        fields_.push_back({name != nullptr ? name : kind, kind, payload_.size(), n, little ? 2 : 1});
        for (size_t i = 0; i < n; ++i) {
            const size_t shift = 8 * (little ? i : n - 1 - i);
            payload_.push_back(static_cast<uint8_t>(v >> shift));
        }
        return *this;
    }

    static uint32_t read(const std::vector<uint8_t>& p, const Field& f) {
        uint32_t v = 0;
        for (size_t i = 0; i < f.size; ++i) {
            const size_t at = f.is_number == 2 ? f.offset + f.size - 1 - i : f.offset + i;
            v = v << 8 | p[at];
        }
        return v;
    }

    uint32_t code_;
    std::vector<uint8_t> payload_;
    std::vector<Field> fields_;
    bool prefix_only_ = false;
};

inline Request request(uint32_t code) { return Request(code); }

inline ::testing::AssertionResult request_matches(const char* sent_expr, const char* expected_expr,
                                                  const TraceEntry& sent, const Request& expected) {
    const std::string diff = expected.differences(sent.command, sent.data);
    if (diff.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << sent_expr << " is not " << expected_expr << ":\n" << diff;
}

inline ::testing::AssertionResult request_matches(const char* sent_expr, const char* expected_expr,
                                                  const polybus_sim::Frame& received, const Request& expected) {
    const std::string diff = expected.differences(received.command, received.payload);
    if (diff.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << sent_expr << " is not " << expected_expr << ":\n" << diff;
}

}  // namespace polybus_test

// Checks a sent request (a TraceEntry from the trace, or a Frame the adapter received)
// against request(CODE).field(...)... .
#define EXPECT_REQUEST(sent, expected) EXPECT_PRED_FORMAT2(::polybus_test::request_matches, sent, expected)
#define ASSERT_REQUEST(sent, expected) ASSERT_PRED_FORMAT2(::polybus_test::request_matches, sent, expected)
