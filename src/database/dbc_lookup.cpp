// Look-ups of the DBC database by name and identifier, and the members that rewrite
// records (which rebuild the indexes).
#include <cstring>

#include "database/dbc_decoder.h"

void DBC_Decoder::reindex() {
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
    build_codec();
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
    codecs_.clear();
    last_message_ = -1;
    last_codec_ = nullptr;
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

namespace {

// Whether a C string is the message's name.
inline bool same_message_name(const dbc_detail::MessageCodec& c, const char* s) {
    const size_t n = c.nameLen;
    return std::strlen(s) == n && dbc_detail::same_bytes(c.name, s, n);
}

}  // namespace

// Look-ups by C string once the codec tables are ready: the message of the last
// look-up and the signal after the last one found are tried before the indexes.
inline int DBC_Decoder::cached_message(const char* name) const {
    const size_t n = std::strlen(name);
    const int last = last_message_;
    if (last >= 0) {
        const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(last)];
        if (c.nameLen == n && dbc_detail::same_bytes(c.name, name, n)) return last;
    }
    const int m = findMessage(std::string_view(name, n));
    if (m >= 0) {
        last_message_ = m;
        last_codec_ = const_cast<dbc_detail::MessageCodec*>(&codecs_[static_cast<size_t>(m)]);
    }
    return m;
}

inline int DBC_Decoder::cached_signal(int message, const char* name) const {
    const size_t n = std::strlen(name);
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(message)];
    int s;
    if (c.count != 0 && c.next->nameLen == n && dbc_detail::same_bytes(c.next->name, name, n)) {
        s = static_cast<int>(c.next - c.fields);
    } else {
        s = findSignal(message, std::string_view(name, n));
        if (s < 0) return s;
    }
    c.next = static_cast<uint32_t>(s) + 1 < c.count ? c.fields + s + 1 : c.fields;
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

namespace {

inline __attribute__((always_inline)) void store_physical(const dbc_detail::CanField& f,
                                                          const dbc_detail::MessageCodec& c, double value) {
    uint64_t raw;
    if (dbc_detail::physical_to_raw(f.scale, value, true, raw)) f.sig->rawValue = raw;
    // Setting a multiplexed signal selects its page on the message's switch.
    if (f.page != UINT32_MAX) c.fields[c.switchIndex].sig->rawValue = f.page;
}

}  // namespace

// The common case, the same message as last time and the signal after the last one,
// runs without a call besides the two strlen; everything else goes the long way.
// last_codec_ is only ever set while the codec tables are ready.
int DBC_Decoder::setSignalValue(const char* messageName, const char* signalName, double value) {
    dbc_detail::MessageCodec* c = last_codec_;
    if (c != nullptr && messageName != nullptr && signalName != nullptr && c->count != 0 &&
        same_message_name(*c, messageName)) {
        const dbc_detail::CanField& f = *c->next;
        const size_t slen = std::strlen(signalName);
        if (f.nameLen == slen && dbc_detail::same_bytes(f.name, signalName, slen)) {
            c->next = c->next + 1 != c->fields + c->count ? c->next + 1 : c->fields;
            store_physical(f, *c, value);
            return 0;
        }
    }
    return set_signal_value_slow(messageName, signalName, value);
}

int DBC_Decoder::set_signal_value_slow(const char* messageName, const char* signalName, double value) {
    if (!codec_ready_) reindex();
    if (messageName == nullptr || signalName == nullptr) return -5;
    const int m = cached_message(messageName);
    if (m < 0) return -5;
    const int s = cached_signal(m, signalName);
    if (s < 0) return -5;
    const dbc_detail::MessageCodec& c = codecs_[static_cast<size_t>(m)];
    store_physical(c.fields[s], c, value);
    return 0;
}
