// Whole frames: the codec tables built from the records, and classic and FD frames
// built from and decoded into the signals' raw values.
//
// A classic frame's 8 data bytes are handled as one 64-bit word: little-endian for
// Intel fields, byte-swapped for Motorola fields, in which a Motorola field is a run
// of consecutive bits. The byte-wise readField / writeField are the reference these
// word paths agree with, and serve the FD frames.
#include <cstdio>
#include <cstring>

#include "database/dbc_decoder.h"

namespace {

uint64_t load_le64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

void store_le64(uint8_t* p, uint64_t v) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    std::memcpy(p, &v, 8);
}

int32_t to_i32(double x) {
    if (std::isnan(x)) return 0;
    if (x >= 2147483648.0) return INT32_MAX;
    if (x <= -2147483649.0) return INT32_MIN;
    return static_cast<int32_t>(x);
}

uint64_t rotate_left(uint64_t v, uint32_t n) { return (v << n) | (v >> ((64 - n) & 63)); }

// Bits [lo, hi) of a 64-bit word, 0 <= lo <= hi <= 64.
uint64_t range_mask(int lo, int hi) {
    if (hi <= lo) return 0;
    uint64_t upto = hi >= 64 ? ~0ull : ((1ull << hi) - 1);
    return upto & ~((1ull << lo) - 1);
}

}  // namespace

void DBC_Decoder::build_codec() {
    fields_.clear();
    packed_.clear();
    reads_.clear();
    slots_.clear();
    codecs_.assign(messages.size(), dbc_detail::MessageCodec{});
    size_t total = 0;
    for (const DBC_MESSAGE& msg : messages) total += msg.signals.size();
    fields_.reserve(total);
    packed_.reserve(total);
    reads_.reserve(total);
    for (size_t m = 0; m < messages.size(); ++m) {
        DBC_MESSAGE& msg = messages[m];
        dbc_detail::MessageCodec& c = codecs_[m];
        c.key = dbc_detail::make_key(msg.name, findMessage(std::string_view(msg.name)) == static_cast<int>(m));
        c.first = static_cast<uint32_t>(fields_.size());
        c.count = static_cast<uint32_t>(msg.signals.size());
        for (size_t i = 0; i < msg.signals.size(); ++i) {
            DBC_SIGNAL& sig = msg.signals[i];
            if (c.switchIndex < 0 && sig.multiplexKind == 2) c.switchIndex = static_cast<int32_t>(i);
            dbc_detail::CanField f{};
            f.sig = &sig;
            f.scale = dbc_detail::scale_of(sig);
            // Only the first signal of a name may answer a look-up by that name.
            f.key = dbc_detail::make_key(
                sig.name, findSignal(static_cast<int>(m), std::string_view(sig.name)) == static_cast<int>(i));
            if (sig.isSigned != 1)
                f.readKind = (sig.length & 0xFF) < 64 ? dbc_detail::CanField::ReadInteger : dbc_detail::CanField::ReadUnsigned64;
            else if (sig.valueType == 0)
                f.readKind = dbc_detail::CanField::ReadInteger;
            else if (sig.valueType == 1)
                f.readKind = dbc_detail::CanField::ReadSingle;
            else if (sig.valueType == 2)
                f.readKind = dbc_detail::CanField::ReadDouble;
            else
                f.readKind = dbc_detail::CanField::ReadZero;
            const int length = sig.length & 0xFF;
            f.signBit = sig.isSigned == 1 && length > 0 && length < 64 ? 1ull << (length - 1) : 0;
            if (f.readKind != dbc_detail::CanField::ReadInteger) f.signBit = 1ull << 63;
            const int sb = sig.startBit;
            const bool motorola = sig.byteOrder == Motorola;
            f.bigEndian = motorola ? 1 : 0;
            // q0: where the field's least significant bit sits in the word (may be
            // below 0 for a Motorola field starting past the frame).
            const int q0 = motorola ? 56 - 8 * (sb / 8) + sb % 8 : sb;
            if (sb < 64) {
                f.mask = GetDataMask(static_cast<uint32_t>(length));
                f.readShift = static_cast<uint8_t>(q0);
            } else if (motorola) {
                f.slowRead = 1;
                c.allWordPath = false;
            }  // an Intel field starting past the frame reads 0: mask stays 0
            const int lo = q0 < 0 ? 0 : q0;
            const int hi = q0 + length > 64 ? 64 : q0 + length;
            f.wordMask = lo < 64 ? range_mask(lo, hi) : 0;
            f.valueMask = ~0ull;
            if (q0 >= 0) {
                f.writeLeft = static_cast<uint8_t>(q0 < 64 ? q0 : 0);
            } else if (-q0 < 64) {
                f.writeRight = static_cast<uint8_t>(-q0);
            } else {
                f.valueMask = 0;  // only raw bits above 63 (zeros) reach the frame
            }
            f.insertMask = f.wordMask & f.valueMask;
            fields_.push_back(f);
        }
        add_signal_table(c);
        for (uint32_t i = c.first; i < c.first + c.count; ++i) {
            const DBC_SIGNAL& sig = *fields_[i].sig;
            fields_[i].page =
                sig.multiplexKind == 1 && c.switchIndex >= 0 ? (sig.multiplexValue & 0xFFFFu) : UINT32_MAX;
        }
        if (c.allWordPath) {
            // reads_ holds room for every field: the addresses stay valid.
            c.reads = reads_.data() + reads_.size();
            for (uint8_t big = 0; big < 2; ++big) {
                for (uint32_t i = c.first; i < c.first + c.count; ++i) {
                    const dbc_detail::CanField& f = fields_[i];
                    if (f.bigEndian == big) reads_.push_back(dbc_detail::ReadOp{&f.sig->rawValue, f.mask, f.readShift});
                }
                if (big == 0) c.readsBig = reads_.data() + reads_.size();
            }
            c.readsEnd = reads_.data() + reads_.size();
        }
        if (c.switchIndex < 0) {
            // Disjoint fields of at most 64 bits within +-63 bits of the word can be
            // placed with one rotation: the bits that wrap around fall outside the mask.
            uint64_t seen = 0;
            c.disjoint = true;
            for (uint32_t i = c.first; i < c.first + c.count && c.disjoint; ++i) {
                const dbc_detail::CanField& f = fields_[i];
                const uint64_t bits = f.bigEndian ? __builtin_bswap64(f.wordMask) : f.wordMask;
                if ((seen & bits) != 0 || (f.sig->length & 0xFF) > 64 || f.valueMask == 0) c.disjoint = false;
                seen |= bits;
            }
            if (c.disjoint) {
                c.leFirst = static_cast<uint32_t>(packed_.size());
                for (int pass = 0; pass < 2; ++pass) {
                    if (pass == 1) c.beFirst = static_cast<uint32_t>(packed_.size());
                    for (uint32_t i = c.first; i < c.first + c.count; ++i) {
                        const dbc_detail::CanField& f = fields_[i];
                        if (f.bigEndian != pass || f.insertMask == 0) continue;
                        const uint32_t rotate = (static_cast<uint32_t>(f.writeLeft) - f.writeRight) & 63u;
                        packed_.push_back(dbc_detail::PackedField{f.sig, f.insertMask, rotate});
                    }
                }
                c.leCount = c.beFirst - c.leFirst;
                c.beCount = static_cast<uint32_t>(packed_.size()) - c.beFirst;
            }
        }
    }
    for (dbc_detail::MessageCodec& c : codecs_) {
        c.fields = fields_.data() + c.first;
        c.end = c.fields + c.count;
        c.next = c.count != 0 ? c.fields : dbc_detail::no_field();
        c.slots = slots_.data() + c.slotFirst;
        for (dbc_detail::CanField* f = c.fields; f != c.end; ++f) {
            f->owner = &c;
            f->quick = f->key.care != 0 && c.key.care != 0;
            if (f->quick) f->names = dbc_detail::make_pair_image(c.key, f->key);
        }
    }
    const uint32_t zero = index_id_.find(0);  // an identifier to start the run with
    last_frame_key_ = 0;
    last_frame_codec_ = zero != UINT32_MAX ? &codecs_[zero] : nullptr;
    codec_ready_ = true;
}

namespace dbc_detail {

CanField* no_field() {
    // The empty name (care 1) for the quick test, but no message owns it.
    static CanField none = [] {
        CanField f{};
        f.key.care = 1;
        f.key.length = UINT32_MAX;
        return f;
    }();
    return &none;
}

}  // namespace dbc_detail

// The message's signals by name, in a table at most half full (at least 2 slots, so
// that a probe always meets an empty one). Only signals that may answer a look-up by
// name go in; the first of a name comes first in the probe order.
void DBC_Decoder::add_signal_table(dbc_detail::MessageCodec& c) {
    uint32_t size = 2;
    while (size < 2 * c.count) size *= 2;
    c.slotFirst = static_cast<uint32_t>(slots_.size());
    c.slotMask = size - 1;
    slots_.resize(slots_.size() + size, dbc_detail::SignalSlot{0, UINT32_MAX});
    dbc_detail::SignalSlot* table = slots_.data() + c.slotFirst;
    for (uint32_t i = 0; i < c.count; ++i) {
        const dbc_detail::CanField& f = fields_[c.first + i];
        if (f.key.length == UINT32_MAX) continue;
        const uint64_t h = dbc_detail::hash_name(std::string_view(f.key.name, f.key.length));
        uint32_t at = static_cast<uint32_t>(h) & c.slotMask;
        while (table[at].field != UINT32_MAX) at = (at + 1) & c.slotMask;
        table[at] = dbc_detail::SignalSlot{static_cast<uint32_t>(h >> 32), i};
    }
}

inline __attribute__((always_inline)) void DBC_Decoder::decode_can(const dbc_detail::MessageCodec& c,
                                                                    const CAN_MSG& frame) {
    const uint64_t le = load_le64(frame.Data);
    if (__builtin_expect(c.allWordPath, 1)) {
        for (const dbc_detail::ReadOp* op = c.reads; op != c.readsBig; ++op) *op->raw = (le >> op->shift) & op->mask;
        const uint64_t be = __builtin_bswap64(le);
        for (const dbc_detail::ReadOp* op = c.readsBig; op != c.readsEnd; ++op) *op->raw = (be >> op->shift) & op->mask;
        return;
    }
    decode_can_bytewise(c, frame);
}

// A message with a Motorola field starting past the frame: that field read byte by
// byte, the others on the word path.
void DBC_Decoder::decode_can_bytewise(const dbc_detail::MessageCodec& c, const CAN_MSG& frame) {
    const dbc_detail::CanField* f = c.fields;
    const uint64_t le = load_le64(frame.Data);
    const uint64_t be = __builtin_bswap64(le);
    for (uint32_t i = 0; i < c.count; ++i) {
        DBC_SIGNAL* s = f[i].sig;
        if (f[i].slowRead)
            s->rawValue = readField(s->startBit, static_cast<uint8_t>(s->length), frame.Data, 8,
                                    static_cast<ByteOrder>(s->byteOrder));
        else
            s->rawValue = ((f[i].bigEndian ? be : le) >> f[i].readShift) & f[i].mask;
    }
}

void DBC_Decoder::build_can(int message, uint8_t out[8]) {
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(message)];
    const dbc_detail::CanField* f = fields_.data() + c.first;
    if (c.disjoint) {
        const dbc_detail::PackedField* p = packed_.data() + c.leFirst;
        uint64_t le = 0;
        for (uint32_t i = 0; i < c.leCount; ++i) le |= rotate_left(p[i].sig->rawValue, p[i].rotate) & p[i].mask;
        p = packed_.data() + c.beFirst;
        uint64_t be = 0;
        for (uint32_t i = 0; i < c.beCount; ++i) be |= rotate_left(p[i].sig->rawValue, p[i].rotate) & p[i].mask;
        store_le64(out, le | __builtin_bswap64(be));
        return;
    }
    uint64_t w = 0;
    auto put = [&w](const dbc_detail::CanField& x) {
        uint64_t v = ((x.sig->rawValue << x.writeLeft) >> x.writeRight) & x.valueMask & x.wordMask;
        if (x.bigEndian) {
            uint64_t b = __builtin_bswap64(w);
            w = __builtin_bswap64((b & ~x.wordMask) | v);
        } else {
            w = (w & ~x.wordMask) | v;
        }
    };
    if (c.switchIndex < 0) {
        for (uint32_t i = 0; i < c.count; ++i) put(f[i]);
    } else {
        const dbc_detail::CanField& sw = f[c.switchIndex];
        put(sw);
        const uint64_t page = sw.sig->rawValue;
        for (uint32_t i = 0; i < c.count; ++i) {
            const DBC_SIGNAL* s = f[i].sig;
            if (s->multiplexKind != 1 || page == static_cast<uint16_t>(s->multiplexValue)) put(f[i]);
        }
    }
    store_le64(out, w);
}

inline __attribute__((always_inline)) void DBC_Decoder::decode_frame(const CAN_MSG& frame) {
    const uint32_t key = frame.ID | (static_cast<uint32_t>(frame.ExternFlag) << 31);
    // Frames of one identifier often come in runs (a message polled, a log replayed
    // message by message): then the message is known without the index, and the
    // stores into its records need not wait for the index probe.
    const dbc_detail::MessageCodec* c = last_frame_codec_;
    if (__builtin_expect(key != last_frame_key_, 0)) {
        const uint32_t m = index_id_.find_built(key);
        c = m != UINT32_MAX ? &codecs_[m] : nullptr;
        last_frame_key_ = key;
        last_frame_codec_ = c;
    }
    if (c != nullptr) decode_can(*c, frame);
}

int DBC_Decoder::syncCANMsgToValue(const CAN_MSG* frames, int count) {
    if (frames == nullptr || count < 1) return 0;
    // One frame per call is common (a frame handed on as it arrives): that path keeps
    // no registers across frames, and so saves none.
    if (__builtin_expect(count == 1 && codec_ready_, 1)) {
        decode_frame(frames[0]);
        return 0;
    }
    decode_frames(frames, count);
    return 0;
}

void DBC_Decoder::decode_frames(const CAN_MSG* frames, int count) {
    if (!codec_ready_) reindex();
    for (int i = 0; i < count; ++i) decode_frame(frames[i]);
}

int DBC_Decoder::syncCANFDMsgToValue(const CANFD_MSG* frames, int count) {
    if (frames == nullptr || count < 1) return 0;
    if (!codec_ready_) reindex();
    for (int i = 0; i < count; ++i) {
        const CANFD_MSG& frame = frames[i];
        const int m = findMessageById(frame.ID);
        if (m < 0) continue;
        for (DBC_SIGNAL& s : messages[static_cast<size_t>(m)].signals)
            s.rawValue = readField(s.startBit, static_cast<uint8_t>(s.length), frame.Data, sizeof frame.Data,
                                   static_cast<ByteOrder>(s.byteOrder));
    }
    return 0;
}

int DBC_Decoder::syncValueToCANMsg(const char* messageName, CAN_MSG* frame) {
    if (!codec_ready_) reindex();
    const int m = findMessage(messageName);
    if (m < 0) return -5;
    if (frame == nullptr) return -4;
    const DBC_MESSAGE& msg = messages[static_cast<size_t>(m)];
    build_can(m, frame->Data);
    frame->ID = msg.id & 0x1FFFFFFFu;
    frame->RemoteFlag = 0;
    frame->ExternFlag = static_cast<uint8_t>(msg.id >> 31);
    frame->DataLen = static_cast<uint8_t>(msg.dlc);
    return 0;
}

int DBC_Decoder::syncValueToCANFDMsg(const char* messageName, CANFD_MSG* frame) {
    if (!codec_ready_) reindex();
    const int m = findMessage(messageName);
    if (m < 0) return -5;
    if (frame == nullptr) return -4;
    const DBC_MESSAGE& msg = messages[static_cast<size_t>(m)];
    uint8_t data[64] = {};
    const int sw = codecs_[static_cast<size_t>(m)].switchIndex;
    auto put = [&data](const DBC_SIGNAL& s) {
        writeField(s.rawValue, s.startBit, static_cast<uint8_t>(s.length), data, sizeof data,
                   static_cast<ByteOrder>(s.byteOrder));
    };
    uint64_t page = 0;
    if (sw >= 0) {
        put(msg.signals[static_cast<size_t>(sw)]);
        page = msg.signals[static_cast<size_t>(sw)].rawValue;
    }
    for (const DBC_SIGNAL& s : msg.signals)
        if (sw < 0 || s.multiplexKind != 1 || page == static_cast<uint16_t>(s.multiplexValue)) put(s);
    std::memcpy(frame->Data, data, sizeof data);
    frame->ID = msg.id;
    frame->DLC = static_cast<uint8_t>(msg.dlc);
    frame->Flags = static_cast<uint8_t>((msg.isCanFd ? 0x04 : 0) | (msg.brs ? 0x01 : 0));
    return 0;
}

int DBC_Decoder::getSignalValueStr(const char* messageName, const char* signalName, char* text) {
    const int m = findMessage(messageName);
    const int s = findSignal(m, signalName);
    if (s < 0) return -5;
    if (text == nullptr) return -4;
    DBC_SIGNAL& sig = messages[static_cast<size_t>(m)].signals[static_cast<size_t>(s)];
    const double v = getSignalRealValue(sig);
    if (sig.valueTable.empty()) {
        std::sprintf(text, "%f %s", v, sig.unit.c_str());
        return 0;
    }
    const int32_t k = to_i32(v);
    auto it = sig.valueTable.find(k);
    if (it != sig.valueTable.end())
        std::strcpy(text, it->second.c_str());
    else
        std::sprintf(text, "%d", k);
    return 0;
}
