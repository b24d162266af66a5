// Look-ups of the DBC database by name and identifier, and the members that rewrite
// records (which rebuild the indexes).
#include <cstring>

#include "database/dbc_decoder.h"
#include "polybus/dbc.h"

void DBC_Decoder::reindex() {
    rebuild_indexes();
    build_codec();
}

void DBC_Decoder::rebuild_indexes() {
    invalidate_codec();
    index_msg_name_.clear();
    index_signal_.clear();
    index_attr_def_.clear();
    index_id_.clear();
    size_t nsig = 0;
    for (const DBC_MESSAGE& m : messages) nsig += m.signals.size();
    index_msg_name_.reserve(messages.size());
    index_id_.reserve(messages.size());
    index_signal_.reserve(nsig);
    index_attr_def_.reserve(attributeDefinitions.size());
    for (uint32_t i = 0; i < messages.size(); ++i) {
        const DBC_MESSAGE& msg = messages[i];
        index_msg_name_.insert_first(dbc_detail::hash_str(msg.name), i, 0,
                                     [&](const auto& s) { return messages[s.a].name == msg.name; });
        index_id_.insert_first(msg.id, i);
        for (uint32_t j = 0; j < msg.signals.size(); ++j) {
            const std::string& name = msg.signals[j].name;
            index_signal_.insert_first(dbc_detail::hash_signal(i, name), i, j, [&](const auto& s) {
                return s.a == i && messages[i].signals[s.b].name == name;
            });
        }
    }
    for (uint32_t i = 0; i < attributeDefinitions.size(); ++i) {
        const std::string& name = attributeDefinitions[i].name;
        index_attr_def_.insert_first(dbc_detail::hash_str(name), i, 0,
                                     [&](const auto& s) { return attributeDefinitions[s.a].name == name; });
    }
}

int DBC_Decoder::findMessage(std::string_view name) const {
    const auto* hit = index_msg_name_.find(dbc_detail::hash_str(name), [&](const auto& s) {
        return dbc_detail::same_name(messages[s.a].name, name);
    });
    return hit ? static_cast<int>(hit->a) : -1;
}

int DBC_Decoder::findSignal(int message, std::string_view name) const {
    if (message < 0) return -1;
    uint32_t m = static_cast<uint32_t>(message);
    const auto* hit = index_signal_.find(dbc_detail::hash_signal(m, name), [&](const auto& s) {
        return s.a == m && dbc_detail::same_name(messages[m].signals[s.b].name, name);
    });
    return hit ? static_cast<int>(hit->b) : -1;
}

void DBC_Decoder::invalidate_codec() {
    codec_ready_ = false;
    fields_.clear();
    packed_.clear();
    reads_.clear();
    slots_.clear();
    codecs_.clear();
    last_message_ = -1;
    hints_ = dbc_detail::empty_hints();
}

bool DBC_Decoder::getMessage(const std::string& name, DBC_MESSAGE** out) {
    int m = findMessage(std::string_view(name));
    if (m < 0) return false;
    if (out != nullptr) *out = &messages[static_cast<size_t>(m)];
    return true;
}

bool DBC_Decoder::getMessage(const std::string& name, DBC_MESSAGE& out) {
    int m = findMessage(std::string_view(name));
    if (m < 0) return false;
    out = messages[static_cast<size_t>(m)];
    return true;
}

bool DBC_Decoder::getSignal(const std::string& messageName, const std::string& signalName,
                            DBC_SIGNAL** out) {
    int m = findMessage(std::string_view(messageName));
    int s = findSignal(m, std::string_view(signalName));
    if (s < 0) return false;
    if (out != nullptr) *out = &messages[static_cast<size_t>(m)].signals[static_cast<size_t>(s)];
    return true;
}

bool DBC_Decoder::getSignal(const std::string& messageName, const std::string& signalName,
                            DBC_SIGNAL& out) {
    DBC_SIGNAL* p = nullptr;
    if (!getSignal(messageName, signalName, &p)) return false;
    out = *p;
    return true;
}

bool DBC_Decoder::updateMessage(const std::string& name, const DBC_MESSAGE& record) {
    int m = findMessage(std::string_view(name));
    if (m < 0) return false;
    messages[static_cast<size_t>(m)] = record;
    reindex();
    return true;
}

bool DBC_Decoder::updateSignal(const std::string& messageName, const std::string& signalName,
                               const DBC_SIGNAL& signal) {
    DBC_SIGNAL* p = nullptr;
    if (!getSignal(messageName, signalName, &p)) return false;
    *p = signal;
    reindex();
    return true;
}

// Look-ups by C string once the codec tables are ready: the message of the last
// look-up and the signal after the last one found are tried before the indexes.
// Names are compared with the padded keys of the codec tables (no strlen) and hashed
// in the same way.
inline int DBC_Decoder::cached_message(const char* name) const {
    const int last = last_message_;
    if (last >= 0 && dbc_detail::name_is(codecs_[static_cast<size_t>(last)].key, name)) return last;
    const auto* hit = index_msg_name_.find(dbc_detail::hash_cstr(name), [&](const auto& s) {
        return dbc_detail::name_is(codecs_[s.a].key, name);
    });
    if (hit == nullptr) return -1;
    last_message_ = static_cast<int>(hit->a);
    return last_message_;
}

inline int DBC_Decoder::cached_signal(int message, const char* name) const {
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(message)];
    if (c.count == 0) return -1;
    int s = -1;
    if (dbc_detail::name_is(c.next->key, name)) {
        s = static_cast<int>(c.next - c.fields);
    } else {
        const uint64_t h = dbc_detail::hash_cstr(name);
        const uint32_t tag = static_cast<uint32_t>(h >> 32);
        for (uint32_t i = static_cast<uint32_t>(h) & c.slotMask;; i = (i + 1) & c.slotMask) {
            const dbc_detail::SignalSlot& slot = c.slots[i];
            if (slot.field == UINT32_MAX) return -1;
            if (slot.tag == tag && dbc_detail::name_is(c.fields[slot.field].key, name)) {
                s = static_cast<int>(slot.field);
                break;
            }
        }
    }
    c.next = static_cast<uint32_t>(s) + 1 < c.count ? c.fields + s + 1 : c.fields;  // count > 0 here
    return s;
}

int DBC_Decoder::findMessage(const char* name) const {
    if (name == nullptr) return -1;
    if (codec_ready_) return cached_message(name);
    return findMessage(std::string_view(name));
}

int DBC_Decoder::findSignal(int message, const char* name) const {
    if (name == nullptr || message < 0) return -1;
    if (codec_ready_) return cached_signal(message, name);
    return findSignal(message, std::string_view(name));
}

void DBC_Decoder::remember(const dbc_detail::CanField& f, const char* messageName, const char* signalName) {
    if (f.quick && dbc_detail::hint_usable(&f, messageName, signalName)) {
        const size_t slot = dbc_detail::hint_slot(signalName);
        hints_.field[slot] = dbc_detail::hint_of(&f, messageName);
        hints_.raw[slot] = &f.sig->rawValue;
    }
}

int DBC_Decoder::set_signal_value_slow(const char* messageName, const char* signalName, double value) {
    if (!codec_ready_) reindex();
    if (messageName == nullptr || signalName == nullptr) return DBC_ERR_NOT_FOUND;
    const int m = cached_message(messageName);
    if (m < 0) return DBC_ERR_NOT_FOUND;
    const int s = cached_signal(m, signalName);
    if (s < 0) return DBC_ERR_NOT_FOUND;
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(m)];
    remember(c.fields[s], messageName, signalName);
    dbc_detail::store_physical(c.fields[s], c, value);
    return DBC_OK;
}

int DBC_Decoder::get_signal_value_slow(const char* messageName, const char* signalName, double* value) {
    if (!codec_ready_) reindex();
    if (messageName == nullptr || signalName == nullptr) return DBC_ERR_NOT_FOUND;
    const int m = cached_message(messageName);
    if (m < 0) return DBC_ERR_NOT_FOUND;
    const int s = cached_signal(m, signalName);
    if (s < 0) return DBC_ERR_NOT_FOUND;
    dbc_detail::CanField& f = codecs_[static_cast<size_t>(m)].fields[s];
    remember(f, messageName, signalName);
    *value = dbc_detail::read_physical(f);
    return DBC_OK;
}
