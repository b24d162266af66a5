// LDF databases on the bus: opening a database for a LIN channel, and putting one
// frame or one pass of a schedule table on the bus through the LIN master and slave
// calls, in the role the database was opened for.
#include <cstring>

#include "database/ldf_internal.h"
#include "device/device_info.h"
#include "polybus/ldf.h"
#include "polybus/lin.h"

using namespace polybus;
using namespace polybus::ldf;

namespace {

constexpr int kSlaveRecords = 64;  // what LIN_EX_SlaveGetData may hand back

bool published_by_master(const LDF_CODING& db, const LDF_LIN_FRAME& f) {
    const char* master = db.node != nullptr ? db.node->masterName : nullptr;
    return master != nullptr && f.publisher != nullptr && std::strcmp(master, f.publisher) == 0;
}

// The master's own frame goes out as a write; any other frame is a header whose
// response some slave gives.
int master_transfer(LDF_CODING& db, LDF_LIN_FRAME& f) {
    unsigned char data[256] = {0};
    if (published_by_master(db, f)) {
        frame_to_raw(f, data);
        return LIN_EX_MasterWrite(static_cast<int>(db.devHandle), static_cast<unsigned char>(db.linIndex), f.id,
                                  data, f.size, static_cast<unsigned char>(checksum_kind(db.protocolVersion, f.id)));
    }
    const int n = LIN_EX_MasterRead(static_cast<int>(db.devHandle), static_cast<unsigned char>(db.linIndex), f.id, data);
    if (n < 1) return LDF_ERR_NO_DATA;
    raw_to_frame(f, data);
    return LDF_OK;
}

// What the master published since the last look, decoded into the frames of those
// identifiers (the first frame of each identifier).
int slave_collect(LDF_CODING& db) {
    LIN_EX_MSG received[kSlaveRecords];
    std::memset(received, 0, sizeof(received));
    const int n = LIN_EX_SlaveGetData(static_cast<int>(db.devHandle), static_cast<unsigned char>(db.linIndex), received);
    for (int i = 0; i < n && i < kSlaveRecords; ++i) {
        const LIN_EX_MSG& m = received[i];
        if (m.DataLen == 0 || m.DataLen > 8) continue;
        for (uint32_t k = 0; k < db.frameCount; ++k) {
            if (db.frames[k].id != (m.PID & 0x3F)) continue;
            raw_to_frame(db.frames[k], m.Data);
            break;
        }
    }
    return LDF_OK;
}

// A response the adapter gives when the master sends this frame's header.
int slave_respond(LDF_CODING& db, const LDF_LIN_FRAME& f) {
    LIN_EX_MSG m;
    std::memset(&m, 0, sizeof(m));
    unsigned char data[256] = {0};
    frame_to_raw(f, data);
    m.MsgType = LIN_EX_MSG_SLAVE_WRITE;
    m.CheckType = static_cast<unsigned char>(checksum_kind(db.protocolVersion, f.id));
    m.DataLen = f.size;
    m.Sync = 0x55;
    m.PID = f.id;
    std::memcpy(m.Data, data, sizeof(m.Data));
    return LIN_EX_SlaveSetIDMode(static_cast<int>(db.devHandle), static_cast<unsigned char>(db.linIndex), &m, 1);
}

}  // namespace

extern "C" {

POLYBUS_API LDF_CODING* LDF_ParserFile(int DevHandle, int LINIndex, int isMaster, const char* pLDFFile) {
    LDF_CODING parsed{};
    if (LDF_Decode(DevHandle, pLDFFile, &parsed) != LDF_OK) return nullptr;
    if (LIN_EX_Init(DevHandle, static_cast<unsigned char>(LINIndex), static_cast<int>(parsed.linSpeed),
                    static_cast<unsigned char>(isMaster)) != 0)
        return nullptr;
    LDF_CODING* db = store_database(parsed);
    db->devHandle = static_cast<uint32_t>(DevHandle);
    db->linIndex = static_cast<uint32_t>(LINIndex);
    db->isMaster = isMaster != 0 ? 1 : 0;
    db->initialised = 1;
    index_database(db);
    return db;
}

POLYBUS_API int LDF_ExeFrameToBus(LDF_CODING* h, const char* pFrameName, unsigned int) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    if (!h->initialised) return LDF_ERR_NO_DEVICE;
    LDF_LIN_FRAME* f = find_frame(h, pFrameName);
    if (f == nullptr) return LDF_ERR_NOT_FOUND;
    if (h->isMaster) return master_transfer(*h, *f);
    return published_by_master(*h, *f) ? slave_collect(*h) : slave_respond(*h, *f);
}

POLYBUS_API int LDF_ExeSchToBus(LDF_CODING* h, const char* pSchName, unsigned int) {
    if (h == nullptr) return LDF_ERR_HANDLE;
    if (h->scheduleCount == 0) return LDF_ERR_NOT_FOUND;
    const LDF_LIN_SCH* sch = find_schedule(h, pSchName);
    if (sch == nullptr) return LDF_ERR_NOT_FOUND;
    if (!h->initialised) return LDF_ERR_NO_DEVICE;
    for (uint32_t i = 0; i < sch->entryCount; ++i) {
        const LDF_SCH_ENTRY& e = sch->entries[i];
        if (e.frame.name == nullptr) continue;
        LDF_LIN_FRAME* f = find_frame(h, e.frame.name);
        if (f == nullptr) continue;
        if (h->isMaster) {
            master_transfer(*h, *f);
            delay_ms(e.delay > 0 ? static_cast<unsigned>(e.delay) : 0u);
        } else if (published_by_master(*h, *f)) {
            slave_collect(*h);
        } else {
            slave_respond(*h, *f);
        }
    }
    return LDF_OK;
}

}  // extern "C"
