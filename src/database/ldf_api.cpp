// Exported LDF_ functions: the file-at-a-time parse state, the section calls and the
// database look-ups and values. A database handle is the address of its LDF_CODING.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "database/ldf_internal.h"
#include "polybus/ldf.h"
#include "transport/usb_device.h"

using namespace polybus;
using namespace polybus::ldf;

namespace {

// The prepared file and whether an open adapter asked for it. One file at a time:
// every call that reads or replaces this state holds the mutex, so two threads that
// parse at once take turns instead of mixing their files.
struct ParseState {
    std::recursive_mutex mutex;
    std::atomic<bool> connected{false};
    std::string text;
    std::string file;  // the raw file, kept for its memory
};

ParseState& state() {
    static ParseState s;
    return s;
}

// The section texts of the prepared file, or null when no open adapter prepared one.
template <typename Fn>
int with_text(Fn&& fn) {
    ParseState& s = state();
    std::lock_guard<std::recursive_mutex> g(s.mutex);
    if (!s.connected) return LDF_ERR_NO_DEVICE;
    return fn(std::string_view(s.text));
}

template <typename T>
int hand_out(const std::vector<T>& v, T** out) {
    if (out != nullptr) *out = store().copy(v);
    return static_cast<int>(v.size());
}

void copy_text(char* out, const char* text) {
    if (out != nullptr) std::strcpy(out, text != nullptr ? text : "");
}

}  // namespace

extern "C" {

POLYBUS_API int LDF_Init(int DevHandle, const char* pLDFFile) {
    ParseState& s = state();
    std::lock_guard<std::recursive_mutex> g(s.mutex);
    if (!usb_device_is_open(DevHandle)) {
        s.connected = false;
        return LDF_ERR_NO_DEVICE;
    }
    s.connected = true;
    if (!read_file(pLDFFile, s.file)) return LDF_ERR_OPEN;
    prepare_into(s.file, s.text);
    return LDF_OK;
}

POLYBUS_API int LDF_Decode(int DevHandle, const char* pLDFFile, LDF_CODING* pLDFCoding) {
    ParseState& s = state();
    std::lock_guard<std::recursive_mutex> g(s.mutex);
    const int rc = LDF_Init(DevHandle, pLDFFile);
    if (rc != LDF_OK) return rc;
    if (pLDFCoding != nullptr) decode_text(s.text, *pLDFCoding);
    return LDF_OK;
}

POLYBUS_API int LDF_GetAttributeStr(const char* pText, const char* pSectionName, char** ppSection) {
    if (!state().connected) return LDF_ERR_NO_DEVICE;
    if (pText == nullptr || pSectionName == nullptr) return LDF_ERR_SECTION;
    const std::string_view text(pText), name(pSectionName);
    if (text.size() < name.size()) return LDF_ERR_SECTION;
    const std::string_view body = section(text, name);
    if (ppSection != nullptr) {
        std::lock_guard<std::recursive_mutex> g(state().mutex);
        *ppSection = store().string(body);
    }
    return LDF_OK;
}

POLYBUS_API int LDF_GetSignalsCoding(LDF_SIGNAL_CODING** ppCodings) {
    return with_text([&](std::string_view text) {
        std::vector<LDF_SIGNAL_CODING> v;
        parse_codings(section(text, "Signal_encoding_types"), store(), v);
        return hand_out(v, ppCodings);
    });
}

POLYBUS_API int LDF_GetSignalRepresentations(LDF_SIGNAL_REPRESENTATION** ppRepresentations) {
    return with_text([&](std::string_view text) {
        std::vector<LDF_SIGNAL_REPRESENTATION> v;
        parse_representations(section(text, "Signal_representation"), store(), v);
        return hand_out(v, ppRepresentations);
    });
}

POLYBUS_API int LDF_GetSignals(LDF_LIN_SIGNAL** ppSignals, LDF_SIGNAL_CODING* pCodings, int CodingCount) {
    return with_text([&](std::string_view text) {
        std::vector<LDF_SIGNAL_REPRESENTATION> reps;
        parse_representations(section(text, "Signal_representation"), store(), reps);
        std::vector<LDF_LIN_SIGNAL> v;
        const size_t n = pCodings != nullptr && CodingCount > 0 ? static_cast<size_t>(CodingCount) : 0;
        parse_signals(section(text, "Signals"), section(text, "Diagnostic_signals"), store(), reps, pCodings, n, v);
        return hand_out(v, ppSignals);
    });
}

POLYBUS_API int LDF_GetFrames(LDF_LIN_FRAME** ppFrames, LDF_LIN_SIGNAL* pSignals, int SignalCount) {
    return with_text([&](std::string_view text) {
        std::vector<LDF_LIN_FRAME> v;
        const size_t n = pSignals != nullptr && SignalCount > 0 ? static_cast<size_t>(SignalCount) : 0;
        parse_frames(section(text, "Frames"), section(text, "Diagnostic_frames"), store(), pSignals, n, v);
        return hand_out(v, ppFrames);
    });
}

POLYBUS_API int LDF_GetScheduleTables(LDF_LIN_SCH** ppSchedules, LDF_LIN_FRAME* pFrames, int FrameCount) {
    return with_text([&](std::string_view text) {
        std::vector<LDF_LIN_SCH> v;
        const size_t n = pFrames != nullptr && FrameCount > 0 ? static_cast<size_t>(FrameCount) : 0;
        parse_schedules(section(text, "Schedule_tables"), store(), pFrames, n, v);
        return hand_out(v, ppSchedules);
    });
}

POLYBUS_API int LDF_GetNodes(LDF_LIN_NODE* pNode) {
    return with_text([&](std::string_view text) {
        LDF_LIN_NODE node{};
        parse_nodes(section(text, "Nodes"), store(), node);
        if (pNode != nullptr) *pNode = node;
        return static_cast<int>(node.slaveCount + (node.masterName != nullptr ? 1 : 0));
    });
}

POLYBUS_API int LDF_GetNodeAttributes(LDF_NODE_ATTR** ppAttributes) {
    return with_text([&](std::string_view text) {
        std::vector<LDF_NODE_ATTR> v;
        parse_attributes(section(text, "Node_attributes"), store(), v);
        return hand_out(v, ppAttributes);
    });
}

POLYBUS_API int LDF_DecodeFree(LDF_CODING*) { return LDF_OK; }

// ---- Listing -------------------------------------------------------------------------

POLYBUS_API int LDF_GetProtocolVersion(LDF_CODING* h) {
    return h == nullptr ? LDF_ERR_HANDLE : static_cast<int>(h->protocolVersion);
}

POLYBUS_API int LDF_GetLINSpeed(LDF_CODING* h) { return h == nullptr ? LDF_ERR_HANDLE : static_cast<int>(h->linSpeed); }

POLYBUS_API int LDF_GetFrameQuantity(LDF_CODING* h) {
    return h == nullptr ? LDF_ERR_HANDLE : static_cast<int>(h->frameCount);
}

POLYBUS_API int LDF_GetFrameName(LDF_CODING* h, int index, char* pFrameName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    if (index < 0 || static_cast<uint32_t>(index) >= h->frameCount || h->frames == nullptr) return LDF_ERR_NOT_FOUND;
    copy_text(pFrameName, h->frames[index].name);
    return LDF_OK;
}

POLYBUS_API int LDF_GetFrameSignalQuantity(LDF_CODING* h, const char* pFrameName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    const LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    return f == nullptr ? LDF_ERR_NOT_FOUND : static_cast<int>(f->signalCount);
}

POLYBUS_API int LDF_GetFrameSignalName(LDF_CODING* h, const char* pFrameName, int index, char* pSignalName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    const LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    if (f == nullptr || index < 0 || static_cast<uint32_t>(index) >= f->signalCount) return LDF_ERR_NOT_FOUND;
    copy_text(pSignalName, f->signals[index].name);
    return LDF_OK;
}

POLYBUS_API int LDF_GetFramePublisher(LDF_CODING* h, const char* pFrameName, char* pPublisher) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    const LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    if (f == nullptr) return LDF_ERR_NOT_FOUND;
    copy_text(pPublisher, f->publisher);
    return LDF_OK;
}

POLYBUS_API int LDF_GetMasterName(LDF_CODING* h, char* pMasterName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    copy_text(pMasterName, h->node != nullptr ? h->node->masterName : nullptr);
    return LDF_OK;
}

POLYBUS_API int LDF_GetSchQuantity(LDF_CODING* h) {
    return h == nullptr ? LDF_ERR_HANDLE : static_cast<int>(h->scheduleCount);
}

POLYBUS_API int LDF_GetSchName(LDF_CODING* h, int index, char* pSchName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    if (index < 0 || static_cast<uint32_t>(index) >= h->scheduleCount || h->schedules == nullptr)
        return LDF_ERR_NOT_FOUND;
    copy_text(pSchName, h->schedules[index].name);
    return LDF_OK;
}

POLYBUS_API int LDF_GetSchFrameQuantity(LDF_CODING* h, const char* pSchName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    const LDF_LIN_SCH* s = find_schedule(h, pSchName);
    return s == nullptr ? LDF_ERR_NOT_FOUND : static_cast<int>(s->entryCount);
}

POLYBUS_API int LDF_GetSchFrameName(LDF_CODING* h, const char* pSchName, int index, char* pFrameName) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    const LDF_LIN_SCH* s = find_schedule(h, pSchName);
    if (s == nullptr || index < 0 || static_cast<uint32_t>(index) >= s->entryCount) return LDF_ERR_NOT_FOUND;
    copy_text(pFrameName, s->entries[index].frame.name);
    return LDF_OK;
}

// ---- Values ----------------------------------------------------------------------------

POLYBUS_API int LDF_SetSignalValue(LDF_CODING* h, const char* pFrameName, const char* pSignalName, double value) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    LDF_LIN_SIGNAL* sig = f != nullptr ? find_signal(h, f, pSignalName) : nullptr;
    if (sig == nullptr) return LDF_ERR_NO_SIGNAL;
    set_physical(*sig, value);
    return LDF_OK;
}

POLYBUS_API int LDF_GetSignalValue(LDF_CODING* h, const char* pFrameName, const char* pSignalName, double* pValue) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    const LDF_LIN_SIGNAL* sig = f != nullptr ? find_signal(h, f, pSignalName) : nullptr;
    if (sig == nullptr) return LDF_ERR_NO_SIGNAL;
    if (pValue != nullptr) *pValue = get_physical(*sig);
    return LDF_OK;
}

POLYBUS_API int LDF_GetSignalValueStr(LDF_CODING* h, const char* pFrameName, const char* pSignalName,
                                      char* pValueStr) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    const LDF_LIN_SIGNAL* sig = f != nullptr ? find_signal(h, f, pSignalName) : nullptr;
    if (sig == nullptr) return LDF_ERR_NO_SIGNAL;
    if (pValueStr != nullptr) value_text(*sig, pValueStr);
    return LDF_OK;
}

POLYBUS_API int LDF_SetFrameRawValue(LDF_CODING* h, const char* pFrameName, const unsigned char* pRawData) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    if (f == nullptr) return LDF_ERR_NO_SIGNAL;
    if (pRawData != nullptr) raw_to_frame(*f, pRawData);
    return LDF_OK;
}

POLYBUS_API int LDF_GetFrameRawValue(LDF_CODING* h, const char* pFrameName, unsigned char* pRawData) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    if (f == nullptr) return LDF_ERR_NO_SIGNAL;
    if (pRawData != nullptr) frame_to_raw(*f, pRawData);
    return LDF_OK;
}

POLYBUS_API int LDF_DataRawToFrame(LDF_LIN_FRAME* pFrame, const unsigned char* pRawData) {
    if (!state().connected) return LDF_ERR_NO_DEVICE;
    if (pFrame == nullptr) return LDF_ERR_HANDLE;
    if (pRawData != nullptr) raw_to_frame(*pFrame, pRawData);
    return LDF_OK;
}

POLYBUS_API int LDF_DataFrameToRaw(LDF_LIN_FRAME* pFrame, unsigned char* pRawData, int) {
    if (!state().connected) return LDF_ERR_NO_DEVICE;
    if (pFrame == nullptr) return LDF_ERR_HANDLE;
    if (pRawData != nullptr) frame_to_raw(*pFrame, pRawData);
    return LDF_OK;
}

}  // extern "C"
