// Exported DBC_ functions. A database handle is the address of a DBC_Decoder made
// by DBC_ParserFile. Databases are never released, so the set of valid handles only
// grows: it is kept in an insert-only hash set that readers probe without a lock,
// which lets every call reject a handle it did not hand out instead of following a
// stray pointer.
#include "polybus/dbc.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "database/dbc_decoder.h"
#include "transport/usb_device.h"

namespace {

struct HandleTable {
    explicit HandleTable(size_t capacity, HandleTable* prev)
        : mask(capacity - 1), previous(prev), slots(new std::atomic<uint64_t>[capacity]) {
        for (size_t i = 0; i < capacity; ++i) slots[i].store(0, std::memory_order_relaxed);
    }
    size_t mask;
    HandleTable* previous;  // retired tables stay alive: a reader may still probe them
    std::unique_ptr<std::atomic<uint64_t>[]> slots;
};

std::atomic<HandleTable*> g_table{nullptr};
// A handle, once valid, stays valid (databases are never released), so any thread
// may take the last handle that passed as proof without probing the table. It starts
// as 1, which no handle can be (handles are aligned addresses), so that one
// comparison suffices.
std::atomic<uint64_t> g_last_valid{1};
std::mutex g_insert_mutex;
size_t g_count = 0;

size_t spread(uint64_t h) { return static_cast<size_t>((h >> 4) * 0x9E3779B97F4A7C15ull >> 20); }

void place(HandleTable* t, uint64_t h) {
    size_t i = spread(h) & t->mask;
    while (t->slots[i].load(std::memory_order_relaxed) != 0) i = (i + 1) & t->mask;
    t->slots[i].store(h, std::memory_order_release);
}

void register_handle(uint64_t h) {
    std::lock_guard<std::mutex> lock(g_insert_mutex);
    HandleTable* t = g_table.load(std::memory_order_relaxed);
    if (t == nullptr || (g_count + 1) * 2 > t->mask + 1) {
        auto* bigger = new HandleTable(t == nullptr ? 64 : (t->mask + 1) * 2, t);
        if (t != nullptr)
            for (size_t i = 0; i <= t->mask; ++i) {
                uint64_t v = t->slots[i].load(std::memory_order_relaxed);
                if (v != 0) place(bigger, v);
            }
        g_table.store(bigger, std::memory_order_release);
        t = bigger;
    }
    place(t, h);
    ++g_count;
}

DBC_Decoder* lookup_slow(uint64_t h);

// Handles pass by far most often the same way as the call before.
inline __attribute__((always_inline)) DBC_Decoder* lookup(uint64_t h) {
    if (h == g_last_valid.load(std::memory_order_relaxed))
        return reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(h));
    return lookup_slow(h);
}

DBC_Decoder* lookup_slow(uint64_t h) {
    if (h == 0) return nullptr;
    const HandleTable* t = g_table.load(std::memory_order_acquire);
    if (t == nullptr) return nullptr;
    for (size_t i = spread(h) & t->mask;; i = (i + 1) & t->mask) {
        uint64_t v = t->slots[i].load(std::memory_order_acquire);
        if (v == h) {
            g_last_valid.store(h, std::memory_order_relaxed);
            return reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(h));
        }
        if (v == 0) return nullptr;
    }
}

// The exported calls for a handle other than the last valid one.
__attribute__((noinline)) int set_signal_value_other_handle(uint64_t h, const char* msg, const char* sig,
                                                            double value) {
    DBC_Decoder* db = lookup_slow(h);
    if (db == nullptr) return DBC_ERR_HANDLE;
    return db->set_value(msg, sig, value);
}

__attribute__((noinline)) int get_signal_value_other_handle(uint64_t h, const char* msg, const char* sig,
                                                            double* value) {
    DBC_Decoder* db = lookup_slow(h);
    if (db == nullptr) return DBC_ERR_HANDLE;
    return db->get_value(msg, sig, value);
}

}  // namespace

extern "C" {

POLYBUS_API uint64_t DBC_ParserFile(int DevHandle, const char* pDBCFileName) {
    if (!usb_device_is_open(DevHandle)) return 0;
    if (pDBCFileName == nullptr) return 0;
    try {
        std::string path(pDBCFileName);
        if (!DBC_Decoder::isReadableFile(path)) return 0;
        auto db = std::make_unique<DBC_Decoder>(path, "GBK");
        const uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(db.get()));
        register_handle(h);
        db.release();  // owned by the handle from here on, for the life of the process
        return h;
    } catch (...) {
        return 0;
    }
}

POLYBUS_API int DBC_GetMsgQuantity(uint64_t DBCHandle) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr) return DBC_ERR_HANDLE;
    return static_cast<int>(db->messages.size());
}

POLYBUS_API int DBC_GetMsgName(uint64_t DBCHandle, int Index, char* pMsgName) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr || pMsgName == nullptr) return DBC_ERR_HANDLE;
    if (Index < 0 || static_cast<size_t>(Index) >= db->messages.size()) return DBC_ERR_NOT_FOUND;
    std::strcpy(pMsgName, db->messages[static_cast<size_t>(Index)].name.c_str());
    return DBC_OK;
}

POLYBUS_API int DBC_GetMsgSignalQuantity(uint64_t DBCHandle, const char* pMsgName) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr) return DBC_ERR_HANDLE;
    const int m = db->findMessage(pMsgName);
    if (m < 0) return DBC_ERR_NOT_FOUND;
    return static_cast<int>(db->messages[static_cast<size_t>(m)].signals.size());
}

POLYBUS_API int DBC_GetMsgSignalName(uint64_t DBCHandle, const char* pMsgName, int Index,
                                     char* pSignalName) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr || pSignalName == nullptr) return DBC_ERR_HANDLE;
    const int m = db->findMessage(pMsgName);
    if (m < 0) return DBC_ERR_NOT_FOUND;
    const auto& signals = db->messages[static_cast<size_t>(m)].signals;
    if (Index < 0 || static_cast<size_t>(Index) >= signals.size()) return DBC_ERR_NOT_FOUND;
    std::strcpy(pSignalName, signals[static_cast<size_t>(Index)].name.c_str());
    return DBC_OK;
}

POLYBUS_API int DBC_SetSignalValue(uint64_t DBCHandle, const char* pMsgName, const char* pSignalName,
                                   double Value) {
    // The common case spelled out, so that it runs without a test of the handle found
    // and without a stack frame.
    if (__builtin_expect(DBCHandle == g_last_valid.load(std::memory_order_relaxed), 1))
        return reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(DBCHandle))
            ->set_value(pMsgName, pSignalName, Value);
    return set_signal_value_other_handle(DBCHandle, pMsgName, pSignalName, Value);
}

POLYBUS_API int DBC_GetSignalValue(uint64_t DBCHandle, const char* pMsgName, const char* pSignalName,
                                   double* pValue) {
    if (pValue == nullptr) return DBC_ERR_HANDLE;
    if (__builtin_expect(DBCHandle == g_last_valid.load(std::memory_order_relaxed), 1))
        return reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(DBCHandle))
            ->get_value(pMsgName, pSignalName, pValue);
    return get_signal_value_other_handle(DBCHandle, pMsgName, pSignalName, pValue);
}

POLYBUS_API int DBC_GetSignalValueStr(uint64_t DBCHandle, const char* pMsgName, const char* pSignalName,
                                      char* pValueStr) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr || pValueStr == nullptr) return DBC_ERR_HANDLE;
    return db->getSignalValueStr(pMsgName, pSignalName, pValueStr);
}

POLYBUS_API int DBC_GetMsgPublisher(uint64_t DBCHandle, const char* pMsgName, char* pPublisher) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr || pPublisher == nullptr) return DBC_ERR_HANDLE;
    const int m = db->findMessage(pMsgName);
    if (m < 0) return DBC_ERR_NOT_FOUND;
    std::strcpy(pPublisher, db->messages[static_cast<size_t>(m)].publisher.c_str());
    return DBC_OK;
}

POLYBUS_API int DBC_SyncCANMsgToValue(uint64_t DBCHandle, const CAN_MSG* pCANMsg, int MsgLen) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr) return DBC_ERR_HANDLE;
    return db->syncCANMsgToValue(pCANMsg, MsgLen);
}

POLYBUS_API int DBC_SyncCANFDMsgToValue(uint64_t DBCHandle, const CANFD_MSG* pCANFDMsg, int MsgLen) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr) return DBC_ERR_HANDLE;
    return db->syncCANFDMsgToValue(pCANFDMsg, MsgLen);
}

POLYBUS_API int DBC_SyncValueToCANMsg(uint64_t DBCHandle, const char* pMsgName, CAN_MSG* pCANMsg) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr || pCANMsg == nullptr) return DBC_ERR_HANDLE;
    return db->syncValueToCANMsg(pMsgName, pCANMsg);
}

POLYBUS_API int DBC_SyncValueToCANFDMsg(uint64_t DBCHandle, const char* pMsgName, CANFD_MSG* pCANFDMsg) {
    DBC_Decoder* db = lookup(DBCHandle);
    if (db == nullptr || pCANFDMsg == nullptr) return DBC_ERR_HANDLE;
    return db->syncValueToCANFDMsg(pMsgName, pCANFDMsg);
}

}  // extern "C"
