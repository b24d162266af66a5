// DBC database: the records of one parsed DBC file, the parser that fills them, and
// the signal codec that moves raw values into and out of frame bytes.
//
// The records are plain data held by value. Look-ups go through hash indexes that
// map a name or identifier to the FIRST matching record in file order; the indexes
// are rebuilt by every member that changes the lists (updateMessage, updateSignal,
// appendSignalValues). Code that edits `messages` directly must call reindex().
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

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

namespace dbc_detail {

// Open-addressing table from a 64-bit key hash to record positions. Several keys
// can share a hash, so callers confirm a hit against the record itself; the table
// keeps the first position inserted for a key, which gives first-match semantics.
class HashIndex {
public:
    struct Slot {
        uint64_t hash;  // 0 = empty
        uint32_t a;     // message position
        uint32_t b;     // signal / definition position, or unused
    };

    void clear();
    void reserve(size_t n);
    // Calls same(slot) for every slot with this hash until it returns true.
    template <class Same>
    const Slot* find(uint64_t hash, Same same) const {
        if (slots_.empty()) return nullptr;
        hash |= 1;
        size_t i = hash & mask_;
        for (;;) {
            const Slot& s = slots_[i];
            if (s.hash == 0) return nullptr;
            if (s.hash == hash && same(s)) return &s;
            i = (i + 1) & mask_;
        }
    }
    // Inserts unless an equal key is present.
    template <class Same>
    void insert_first(uint64_t hash, uint32_t a, uint32_t b, Same same) {
        if ((count_ + 1) * 4 > slots_.size() * 3) grow();
        hash |= 1;
        size_t i = hash & mask_;
        for (;;) {
            Slot& s = slots_[i];
            if (s.hash == 0) {
                s = Slot{hash, a, b};
                ++count_;
                return;
            }
            if (s.hash == hash && same(s)) return;
            i = (i + 1) & mask_;
        }
    }

private:
    void grow();
    std::vector<Slot> slots_;
    size_t mask_ = 0;
    size_t count_ = 0;
};

// Identifier -> first message position. Key and position share a slot, so that a
// probe touches one cache line however large the table grows.
class IdIndex {
public:
    void clear();
    void reserve(size_t n);
    void insert_first(uint32_t id, uint32_t pos);
    uint32_t find(uint32_t id) const {  // UINT32_MAX when absent
        if (slots_.empty()) return UINT32_MAX;
        size_t i = home(id);
        for (;;) {
            const Slot& s = slots_[i];
            if (s.pos == UINT32_MAX) return UINT32_MAX;
            if (s.key == id) return s.pos;
            i = (i + 1) & mask_;
        }
    }

private:
    struct Slot {
        uint32_t key;
        uint32_t pos;  // UINT32_MAX = empty
    };
    // Fibonacci hashing: the top bits of the product. Runs of consecutive identifiers,
    // common in DBC files, then land evenly spread and probe chains stay short.
    size_t home(uint32_t id) const {
        return static_cast<size_t>((id * 0x9E3779B97F4A7C15ull) >> shift_);
    }
    void grow();
    std::vector<Slot> slots_;
    size_t mask_ = 0;
    unsigned shift_ = 63;  // 64 - log2(table size)
    size_t count_ = 0;
};

// Equality of two byte ranges of the same, known length. Lengths of 8 to 32 bytes
// (most names) take one branch-free path of four overlapping word loads, so that a
// run of look-ups of differently long names does not keep mispredicting.
inline bool same_bytes(const char* a, const char* b, size_t n) {
    auto load64 = [](const char* p) {
        uint64_t v;
        __builtin_memcpy(&v, p, 8);
        return v;
    };
    auto load32 = [](const char* p) {
        uint32_t v;
        __builtin_memcpy(&v, p, 4);
        return v;
    };
    if (n - 8 <= 24) {
        const size_t last = n - 8;
        const size_t o1 = last < 8 ? last : 8;
        const size_t o2 = last < 16 ? last : 16;
        const uint64_t diff = (load64(a) ^ load64(b)) | (load64(a + o1) ^ load64(b + o1)) |
                              (load64(a + o2) ^ load64(b + o2)) | (load64(a + last) ^ load64(b + last));
        return diff == 0;
    }
    if (n > 32) {
        uint64_t diff = load64(a + n - 8) ^ load64(b + n - 8);
        for (size_t i = 0; i + 8 < n; i += 8) diff |= load64(a + i) ^ load64(b + i);
        return diff == 0;
    }
    if (n >= 4) return ((load32(a) ^ load32(b)) | (load32(a + n - 4) ^ load32(b + n - 4))) == 0;
    for (size_t i = 0; i < n; ++i)
        if (a[i] != b[i]) return false;
    return true;
}

inline bool same_name(const std::string& name, std::string_view key) {
    return name.size() == key.size() && same_bytes(name.data(), key.data(), key.size());
}

uint64_t hash_bytes(const char* p, size_t n);
inline uint64_t hash_str(std::string_view s) { return hash_bytes(s.data(), s.size()); }
inline uint64_t hash_signal(uint32_t msg, std::string_view s) {
    return hash_str(s) ^ ((msg + 1) * 0xD6E8FEB86659FD93ull);
}

// One signal prepared for the word-wide CAN path. The 8 data bytes are handled as
// one 64-bit word: little-endian for Intel fields, byte-swapped for Motorola
// fields, in which a Motorola field is a run of consecutive bits.
// A signal's conversion parameters, copied next to its codec entry so that setting a
// value by name does not have to reach into the record for them.
struct Scale {
    double minimum;
    double maximum;
    double offset;
    double factor;
    double inverse;  // 1 / factor when that is exact (a power of two), else 0
    uint64_t mask;     // GetDataMask(length)
    uint64_t rawMask;  // mask for signed signals, all ones for unsigned ones
    uint32_t isSigned;
    uint32_t valueType;
    enum Kind : uint32_t { Integer, Single, Double, None } kind;
};

struct CanField {
    Scale scale;
    DBC_SIGNAL* sig;
    const char* name;  // the signal's name, for look-ups that skip the record
    uint32_t nameLen;  // UINT32_MAX when an earlier signal has the same name
    uint32_t page;     // multiplexed signal: its switch value; else UINT32_MAX
    uint64_t mask;       // reading: value mask of the signal length (0: outside the frame)
    uint64_t wordMask;   // writing: the field's bits in the word
    uint64_t valueMask;  // writing: 0 when no bit of the raw value reaches the frame
    uint64_t insertMask;  // wordMask & valueMask
    uint64_t beSelect;    // all ones for a Motorola field, else 0
    uint8_t readShift;   // reading: right shift of the word
    uint8_t bigEndian;   // 1: operate on the byte-swapped word
    uint8_t slowRead;    // 1: read byte-wise (a Motorola field starting past the frame)
    uint8_t writeLeft;   // writing: raw << writeLeft >> writeRight
    uint8_t writeRight;
};

// A field of a disjoint message, reduced to a rotation and a mask of the word.
struct PackedField {
    const DBC_SIGNAL* sig;
    uint64_t mask;
    uint32_t rotate;  // left rotation of the raw value
};

struct MessageCodec {
    const char* name = nullptr;  // the message's name, for look-ups that skip the record
    uint32_t nameLen = 0;
    CanField* fields = nullptr;  // the message's first CanField
    uint32_t first = 0;  // its position in the table
    uint32_t count = 0;
    int32_t switchIndex = -1;  // first multiplexer switch, signal position
    bool allWordPath = true;   // every field reads through the word path
    // No switch and no two fields sharing a bit: the frame can be put together in any
    // order, from the packed lists below.
    bool disjoint = false;
    uint32_t leFirst = 0, leCount = 0;  // packed Intel fields
    uint32_t beFirst = 0, beCount = 0;  // packed Motorola fields
    // Signal to try first in a look-up by name: the one after the last hit, since
    // applications tend to set a message's signals in the same order each time.
    mutable CanField* next = nullptr;
};

}  // namespace dbc_detail

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

    void decodeDBCFile(const std::string& path, const std::string& encoding);
    void updateAttrValues(const std::string& path, const std::string& encoding);

    DBC_MESSAGE getMessageValues(const std::vector<std::string>& tokens);
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

    static uint32_t GetDoubleQuoteNum(const std::string& text);

    static std::vector<std::string> string_split(const std::string& text, const std::string& separators);
    static std::vector<std::string> split(const std::string& text, char character);
    static void string_remove(std::string& text, const std::string& piece);
    static void string_replace_all(std::string& text, const std::string& from, const std::string& to);
    static std::string string_join(const std::vector<std::string>& pieces, const std::string& separator);
    static void trim(std::string& text, const std::string& characters);

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
    int setSignalValue(const char* messageName, const char* signalName, double value);
    int syncCANMsgToValue(const CAN_MSG* frames, int count);
    int syncCANFDMsgToValue(const CANFD_MSG* frames, int count);
    int syncValueToCANMsg(const char* messageName, CAN_MSG* frame);
    int syncValueToCANFDMsg(const char* messageName, CANFD_MSG* frame);
    int getSignalValueStr(const char* messageName, const char* signalName, char* text);

private:
    class Parser;
    friend class Parser;

    void build_codec();
    int cached_message(const char* name) const;
    int cached_signal(int message, const char* name) const;
    int set_signal_value_slow(const char* messageName, const char* signalName, double value);
    void decode_can(int message, const CAN_MSG& frame);
    void build_can(int message, uint8_t out[8]);

    // Drops the codec tables while the lists are being filled.
    void invalidate_codec();

    bool codec_ready_ = false;       // fields_ / codecs_ match the lists
    mutable int last_message_ = -1;  // the message found by the last look-up by name
    mutable dbc_detail::MessageCodec* last_codec_ = nullptr;  // and its codec entry
    dbc_detail::HashIndex index_msg_name_;
    dbc_detail::HashIndex index_signal_;
    dbc_detail::HashIndex index_attr_def_;
    dbc_detail::IdIndex index_id_;
    std::vector<dbc_detail::CanField> fields_;
    std::vector<dbc_detail::PackedField> packed_;
    std::vector<dbc_detail::MessageCodec> codecs_;
};
