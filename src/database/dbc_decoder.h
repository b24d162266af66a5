// DBC database: the records of one parsed DBC file, the parser that fills them, and
// the signal codec that moves raw values into and out of frame bytes.
//
// Where the work lives: dbc_scan.cpp and dbc_lines.cpp parse (lines and tokens, then
// the handler of each line type), dbc_index.* hold the hash indexes, dbc_lookup.cpp
// the look-ups by name and identifier, dbc_codec.cpp the value and bit conversions,
// dbc_frames.cpp the codec tables and whole frames, dbc_api.cpp the exported calls.
//
// The records are plain data held by value. Look-ups go through hash indexes that
// map a name or identifier to the FIRST matching record in file order; the indexes
// are rebuilt by every member that changes the lists (updateMessage, updateSignal,
// appendSignalValues). Code that edits `messages` directly must call reindex().
#pragma once

#include <cstddef>
#include <cstdint>
#include <array>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "database/dbc_codec_tables.h"
#include "database/dbc_index.h"
#include "polybus/can.h"
#include "polybus/canfd.h"

enum ByteOrder : uint32_t {
    Motorola = 0,  // big-endian bit order, order digit 0 in the file
    Intel = 1,     // little-endian bit order, order digit 1
};

struct DBC_ATTRIBUTE {
    std::string name;        // quotes removed
    std::string objectType;  // "BU_", "BO_", "SG_" or empty for a network attribute
    std::string valueType;   // "INT", "HEX", "FLOAT", "ENUM" or the type word as written
    double minimum = 0;
    double maximum = 0;
    std::vector<std::string> enumValues;
    std::string value;  // default, or the assigned value in a message's / signal's copy
};

struct DBC_SIGNAL {
    std::string name;
    uint32_t byteOrder = Motorola;
    uint16_t startBit = 0;  // position of the least significant bit
    uint16_t length = 0;    // the codec uses the low 8 bits
    uint32_t isSigned = 0;
    uint32_t valueType = 0;  // 0 integer, 1 IEEE single, 2 IEEE double
    double minimum = 0;
    double maximum = 0;
    double factor = 0;
    double offset = 0;
    std::string unit;
    uint32_t multiplexKind = 0;  // 0 plain, 1 multiplexed (m<n>), 2 switch (M)
    uint32_t multiplexValue = 0;
    std::vector<std::string> receivers;
    std::string comment;
    std::map<int32_t, std::string> valueTable;
    uint64_t rawValue = 0;
    std::vector<DBC_ATTRIBUTE> attributes;
};

struct DBC_MESSAGE {
    std::string name;
    uint32_t id = 0;  // bit 31 marks a 29-bit identifier
    uint32_t dlc = 0;
    std::string publisher;
    std::vector<DBC_SIGNAL> signals;
    std::string comment;
    uint8_t isCanFd = 0;
    uint8_t brs = 0;
    uint8_t data[64] = {};
    uint8_t initFlag = 0;
    uint32_t cycleTime = 0;
    std::vector<DBC_ATTRIBUTE> attributes;
};

class DBC_Decoder {
public:
    std::vector<DBC_MESSAGE> messages;
    std::vector<DBC_ATTRIBUTE> attributeDefinitions;

    DBC_Decoder() = default;
    // Reads the file twice (definitions, then BA_ assignments) and runs the attribute
    // post-pass. A file that cannot be read leaves the database empty.
    DBC_Decoder(const std::string& path, const std::string& encoding);
    DBC_Decoder(const DBC_Decoder&) = delete;
    DBC_Decoder& operator=(const DBC_Decoder&) = delete;

    // True when the path names a regular file that can be opened for reading.
    static bool isReadableFile(const std::string& path);

    // Parses text held in memory exactly as the constructor parses a file.
    static void parseText(DBC_Decoder& db, std::string_view text);

    DBC_SIGNAL getSignalValues(const std::vector<std::string>& tokens);
    static std::map<int32_t, std::string> getValueTable(const std::string& text);
    static void setValueType(uint32_t type, DBC_SIGNAL& signal);

    bool getMessage(const std::string& name, DBC_MESSAGE** out);
    bool getMessage(const std::string& name, DBC_MESSAGE& out);
    bool getSignal(const std::string& messageName, const std::string& signalName, DBC_SIGNAL** out);
    bool getSignal(const std::string& messageName, const std::string& signalName, DBC_SIGNAL& out);
    bool updateMessage(const std::string& name, const DBC_MESSAGE& record);
    bool updateSignal(const std::string& messageName, const std::string& signalName,
                      const DBC_SIGNAL& signal);
    void appendSignalValues(const std::vector<std::string>& tokens, DBC_MESSAGE& record);

    // Codec. `data` points at a 64-byte frame data area.
    static uint64_t GetDataMask(uint32_t bits);
    static void changeBitOfByte(uint8_t* byte, uint8_t bit, uint8_t value);
    static void rawValueToArray(uint64_t raw, uint16_t startBit, uint8_t length, uint8_t* data,
                                ByteOrder order);
    static uint64_t arrayValueToRaw(uint16_t startBit, uint8_t length, const uint8_t* data,
                                    ByteOrder order);
    static bool setSignalRealValue(DBC_SIGNAL& signal, double value);
    static double getSignalRealValue(DBC_SIGNAL& signal);
    static uint64_t getSignalRawValue(const DBC_SIGNAL& signal, double value);

    // The same field access bounded to a data area of `size` bytes: bits outside it
    // are not written and bytes outside it read as 0.
    static void writeField(uint64_t raw, uint16_t startBit, uint8_t length, uint8_t* data,
                           size_t size, ByteOrder order);
    static uint64_t readField(uint16_t startBit, uint8_t length, const uint8_t* data, size_t size,
                              ByteOrder order);

    // Rebuilds every index from the lists.
    void reindex();

    // Fast look-ups behind the exported functions (first match; -1 when absent).
    int findMessage(const char* name) const;
    int findMessage(std::string_view name) const;
    int findMessageById(uint32_t id) const { return static_cast<int>(index_id_.find(id)); }
    int findSignal(int message, const char* name) const;
    int findSignal(int message, std::string_view name) const;

    // The work of the exported functions on a valid database (results as there).
    // Setting and reading by name try the signal last found for the same signal name
    // string first (see Hints; confirmed by comparing its name and its message's name
    // with the strings), then the message
    // of the last look-up by name and the signal after the last one found, then the
    // name indexes; inline, so that the exported calls run without a further call in
    // the common case.
    int setSignalValue(const char* messageName, const char* signalName, double value) {
        return set_value(dbc_detail::opaque(messageName), dbc_detail::opaque(signalName), value);
    }
    int getSignalValue(const char* messageName, const char* signalName, double* value) {
        return get_value(dbc_detail::opaque(messageName), dbc_detail::opaque(signalName), value);
    }
    // The same for names the compiler knows nothing of, such as the exported calls'
    // arguments (see opaque): without the copies that hiding them costs.
    int set_value(const char* messageName, const char* signalName, double value);
    int get_value(const char* messageName, const char* signalName, double* value);
    int syncCANMsgToValue(const CAN_MSG* frames, int count);
    int syncCANFDMsgToValue(const CANFD_MSG* frames, int count);
    int syncValueToCANMsg(const char* messageName, CAN_MSG* frame);
    int syncValueToCANFDMsg(const char* messageName, CANFD_MSG* frame);
    int getSignalValueStr(const char* messageName, const char* signalName, char* text);

private:
    class Parser;
    friend class Parser;

    // The name and identifier indexes alone; the codec tables are then built by the
    // first call that needs them (frames, setting and reading values by name).
    void rebuild_indexes();
    void build_codec();
    void add_signal_table(dbc_detail::MessageCodec& c);
    int cached_message(const char* name) const;
    int cached_signal(int message, const char* name) const;
    // The signal remembered for this name string if both names confirm it, else null.
    const dbc_detail::CanField* remembered(const char* messageName, const char* signalName) const;
    void remember(const dbc_detail::CanField& f, const char* messageName, const char* signalName);
    int set_signal_value_slow(const char* messageName, const char* signalName, double value);
    int get_signal_value_slow(const char* messageName, const char* signalName, double* value);
    void decode_can(const dbc_detail::MessageCodec& c, const CAN_MSG& frame);
    void decode_frame(const CAN_MSG& frame);
    __attribute__((noinline)) void decode_frames(const CAN_MSG* frames, int count);
    void decode_can_bytewise(const dbc_detail::MessageCodec& c, const CAN_MSG& frame);
    void build_can(int message, uint8_t out[8]);

    // Drops the codec tables while the lists are being filled.
    void invalidate_codec();

    bool codec_ready_ = false;       // fields_ / codecs_ match the lists
    mutable int last_message_ = -1;  // the message found by the last look-up by name
    // With codec_ready_: the key (identifier and extended flag) of the last classic
    // frame decoded and its message (null: none has it).
    uint32_t last_frame_key_ = 0;
    const dbc_detail::MessageCodec* last_frame_codec_ = nullptr;
    dbc_detail::HashIndex index_msg_name_;
    dbc_detail::HashIndex index_signal_;
    dbc_detail::HashIndex index_attr_def_;
    dbc_detail::IdIndex index_id_;
    std::vector<dbc_detail::CanField> fields_;
    std::vector<dbc_detail::PackedField> packed_;
    std::vector<dbc_detail::ReadOp> reads_;
    std::vector<dbc_detail::MessageCodec> codecs_;
    std::vector<dbc_detail::SignalSlot> slots_;  // the messages' signal tables
    // Signals found by name, by the addresses of the names (see Hint).
    dbc_detail::Hints hints_ = dbc_detail::empty_hints();
};

namespace dbc_detail {

// The physical value of a signal's raw value, exactly as DBC_Decoder::
// getSignalRealValue computes it from the record (raw x factor + offset, in the same
// operations, so the results are the same bit for bit), including its one side
// effect: a raw value beyond the signal's mask is cut back to it in the record.
// `raw` is the field's sig->rawValue.
inline __attribute__((always_inline)) double read_physical(const CanField& f, uint64_t* raw_value) {
    // Stored back unconditionally: the same value unless it had to be cut, and cheaper
    // than the test.
    const uint64_t raw = *raw_value & f.scale.mask;
    *raw_value = raw;
    const uint64_t sign = f.signBit;
    // Unsigned integers (most signals) first: one operation fewer between the raw
    // value and the result.
    if (__builtin_expect(sign == 0, 1)) return static_cast<double>(static_cast<int64_t>(raw)) * f.scale.factor + f.scale.offset;
    if (__builtin_expect(sign >> 63 == 0, 1)) {  // ReadInteger, signed
        const int64_t v = static_cast<int64_t>((raw ^ sign) - sign);
        return static_cast<double>(v) * f.scale.factor + f.scale.offset;
    }
    switch (f.readKind) {
        case CanField::ReadUnsigned64: return static_cast<double>(raw) * f.scale.factor + f.scale.offset;
        case CanField::ReadSingle: {
            const uint32_t bits = static_cast<uint32_t>(raw);
            float x;
            std::memcpy(&x, &bits, sizeof x);
            return static_cast<double>(x);
        }
        case CanField::ReadDouble: {
            double x;
            std::memcpy(&x, &raw, sizeof x);
            return x;
        }
        default: return 0;
    }
}

inline double read_physical(const CanField& f) { return read_physical(f, &f.sig->rawValue); }

// Stores the raw value of a physical one; setting a multiplexed signal also selects
// its page on the message's switch.
inline __attribute__((always_inline)) void store_physical(const CanField& f, const MessageCodec& c, double value) {
    uint64_t raw;
    if (physical_to_raw(f.scale, value, true, raw)) f.sig->rawValue = raw;
    if (f.page != UINT32_MAX) c.fields[c.switchIndex].sig->rawValue = f.page;
}

}  // namespace dbc_detail

// The common case runs without a call: the signal remembered for these name strings,
// confirmed by its name and its message's name (the slot vouches for both strings'
// places in their pages).
DBC_NO_SANITIZE_WIDE_LOADS inline __attribute__((always_inline)) const dbc_detail::CanField*
DBC_Decoder::remembered(const char* messageName, const char* signalName) const {
    const uint64_t h = hints_.field[dbc_detail::hint_slot(signalName)];
    if (dbc_detail::hint_offset(h) != dbc_detail::page_offset(messageName)) return nullptr;
    const dbc_detail::CanField* f = dbc_detail::hint_field(h);
#if DBC_WIDE_NAME_LOADS
    if (dbc_detail::same_pair(f->names, messageName, signalName)) return f;
#else
    if (dbc_detail::name_is_slow(f->owner->key, messageName) && dbc_detail::name_is_slow(f->key, signalName)) return f;
#endif
    return nullptr;
}

inline __attribute__((always_inline)) int DBC_Decoder::set_value(const char* messageName, const char* signalName,
                                                                 double value) {
    const dbc_detail::CanField* f = remembered(messageName, signalName);
    if (__builtin_expect(f != nullptr, 1)) {
        dbc_detail::store_physical(*f, *f->owner, value);
        return 0;
    }
    return set_signal_value_slow(messageName, signalName, value);
}

inline __attribute__((always_inline)) int DBC_Decoder::get_value(const char* messageName, const char* signalName,
                                                                 double* value) {
    const dbc_detail::CanField* f = remembered(messageName, signalName);
    if (__builtin_expect(f != nullptr, 1)) {
        *value = dbc_detail::read_physical(*f, hints_.raw[dbc_detail::hint_slot(signalName)]);
        return 0;
    }
    return get_signal_value_slow(messageName, signalName, value);
}
