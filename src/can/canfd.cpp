// CAN FD adapters: their own command set (0x4000 range), packed frames, the per-channel
// send endpoint, send-status polling with transmit events, and receive buffering.
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "can/can_internal.h"
#include "can/canfd_wire.h"
#include "transport/exchange.h"

using namespace polybus;

namespace {

constexpr uint32_t kFdSendChunk = 128;
constexpr size_t kFdReadBytes = CANFD_READ_MAX_FRAMES * (kFdHead + 64);

// Frame sends and their status requests travel on the channel's own endpoint.
Route channel_pipe(unsigned char ch) { return Route{Pipe::CanFd, ch}; }

// A command answered with its own code and exactly `size` bytes, copied to `out`.
int echoed_record(int dev, uint32_t code, unsigned char ch, void* out, size_t size, Route route = {}) {
    Command request(code);
    request.u8(ch);
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, {}, route);
    if (rc != 0) return rc;
    if (answer.command != code || answer.length != size || answer.received != size) return -4;
    if (out != nullptr) std::memcpy(out, answer.buffer(), size);
    return 0;
}

int fetch_fd(int dev, unsigned char ch) { return CANFD_ReadMsgToBuffer(dev, ch); }

CANFD_MSG* read_scratch() {
    thread_local std::unique_ptr<CANFD_MSG[]> scratch(new CANFD_MSG[CANFD_READ_MAX_FRAMES]);
    return scratch.get();
}

uint8_t* answer_scratch() {
    thread_local std::unique_ptr<uint8_t[]> scratch(new uint8_t[kFdReadBytes]);
    return scratch.get();
}

// Waits until the adapter has finished the last send request of the channel. Returns
// the status call's failure, or 0 with `number` = events to fetch (0: the request did
// not finish in time) and `aborted` set when the adapter gave up.
int await_transmission(int dev, unsigned char ch, uint32_t k, uint32_t& number, bool& aborted) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(1000 + 100 * k);
    number = 0;
    aborted = false;
    for (;;) {
        CAN_TX_BUFFER_FLAG state;
        const int rc = CANFD_SendMsgStatus(dev, ch, &state);
        if (rc != 0) return rc;
        if (state.TxAbort != 0) {
            number = state.TxTotal;
            aborted = true;
            return 0;
        }
        if (state.TxCount == state.TxTotal) {
            number = state.TxCount;
            return 0;
        }
        if (clock::now() >= deadline) return 0;
        // Short requests are polled back to back; longer ones leave the adapter time.
        if (k >= 20) std::this_thread::sleep_for(std::chrono::milliseconds(k < 50 ? 2 : 5));
    }
}

// Fetches the transmit events of the last request and stamps the chunk's frames with
// them. Returns the number of events or a failure status.
int collect_events(int dev, unsigned char ch, CANFD_MSG* chunk, uint32_t k) {
    Command request(0x4009);
    request.u8(ch);
    uint8_t events[kFdSendChunk * kFdHead];
    Answer answer(events, sizeof(events));
    const int rc = transact(dev, request, answer);
    if (rc != 0) return rc;
    size_t n = answer.received / kFdHead;
    if (n > k) n = k;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* e = events + i * kFdHead;
        CANFD_MSG& frame = chunk[i];
        frame.ID = fd_id_from_head(e);
        frame.TimeStamp = get_le32(e + 8);
        frame.TimeStampHigh = e[6];
        frame.Flags = static_cast<uint8_t>(0x80u | ch << 5 | fd_flags_from_head(e));
    }
    return static_cast<int>(n);
}

}  // namespace

namespace polybus {
Reception<CANFD_MSG>& canfd_reception() {
    static Reception<CANFD_MSG> reception(&fetch_fd);
    return reception;
}
}  // namespace polybus

extern "C" {

POLYBUS_API int CANFD_Init(int dev, unsigned char ch, CANFD_INIT_CONFIG* cfg) {
    if (cfg == nullptr) return -4;
    Command request(0x4000);
    request.u8(ch).bytes(cfg, sizeof(*cfg));
    return acknowledged(dev, request);
}

POLYBUS_API int CANFD_SetFilter(int dev, unsigned char ch, CANFD_FILTER_CONFIG* filters, unsigned char count) {
    if (filters == nullptr && count != 0) return -4;
    Command request(0x4001);
    request.u8(ch);
    for (unsigned i = 0; i < count; ++i) {
        uint8_t entry[sizeof(CANFD_FILTER_CONFIG)] = {0};
        entry[0] = filters[i].Enable;
        entry[1] = filters[i].Index;
        put_le32(entry + 4, filters[i].ID);
        put_le32(entry + 8, filters[i].Mask);
        request.bytes(entry, sizeof(entry));
    }
    return acknowledged(dev, request);
}

POLYBUS_API int CANFD_SendMsg(int dev, unsigned char ch, CANFD_MSG* msgs, unsigned int count) {
    if (count == 0) return 0;
    if (msgs == nullptr) return -4;
    int total = 0;
    for (uint32_t offset = 0; offset < count; offset += kFdSendChunk) {
        const uint32_t k = count - offset < kFdSendChunk ? count - offset : kFdSendChunk;
        CANFD_MSG* chunk = msgs + offset;
        Command request(0x4002, kFdHead + size_t{k} * (kFdHead + 64));
        uint8_t head[kFdHead] = {0};
        head[10] = ch;
        head[11] = static_cast<uint8_t>(k);
        request.bytes(head, sizeof(head));
        uint8_t packed[kFdHead + 64];
        for (uint32_t i = 0; i < k; ++i) request.bytes(packed, pack_fd_frame(chunk[i], i, packed));

        // One send request of the channel at a time: the status and the events that
        // follow belong to it.
        can_lock(dev, ch);
        AnswerBuffer<16> answer;
        int rc = transact(dev, request, answer, {}, channel_pipe(ch));
        uint32_t number = 0;
        bool aborted = false;
        if (rc == 0) rc = await_transmission(dev, ch, k, number, aborted);
        int events = 0;
        if (rc == 0 && number != 0) {
            events = collect_events(dev, ch, chunk, k);
            if (events < 0) rc = events;
        }
        can_unlock(dev, ch);
        if (rc != 0) return rc;
        total += events;
        if (aborted) return total;
    }
    return total;
}

POLYBUS_API int CANFD_SendMsgStatus(int dev, unsigned char ch, CAN_TX_BUFFER_FLAG* flags) {
    return echoed_record(dev, 0x400A, ch, flags, sizeof(CAN_TX_BUFFER_FLAG), channel_pipe(ch));
}

POLYBUS_API int CANFD_ReadMsg(int dev, unsigned char ch, CANFD_MSG* out) {
    Command request(0x4003);
    request.u8(ch & 1);
    uint8_t* packed = answer_scratch();
    Answer answer(packed, kFdReadBytes);
    const int rc = transact(dev, request, answer);
    if (rc != 0) return rc;
    if (answer.command != 0x4003) return -4;
    int n = 0;
    size_t offset = 0;
    while (n < CANFD_READ_MAX_FRAMES) {
        const size_t used = unpack_fd_frame(packed + offset, answer.received - offset, ch, out != nullptr ? out + n : nullptr);
        if (used == 0) break;
        offset += used;
        ++n;
    }
    return n;
}

POLYBUS_API int CANFD_GetDiagnostic(int dev, unsigned char ch, CANFD_DIAGNOSTIC* diagnostic) {
    return echoed_record(dev, 0x4004, ch, diagnostic, sizeof(CANFD_DIAGNOSTIC));
}

POLYBUS_API int CANFD_GetBusError(int dev, unsigned char ch, CANFD_BUS_ERROR* errors) {
    return echoed_record(dev, 0x4005, ch, errors, sizeof(CANFD_BUS_ERROR));
}

POLYBUS_API int CANFD_Stop(int dev, unsigned char ch) {
    Command request(0x400C);
    request.u8(ch);
    const int rc = acknowledged(dev, request);
    if (rc != 0) return rc;
    CANFD_ClearMsg(dev, ch);
    return 0;
}

POLYBUS_API int CANFD_SetRelay(int dev, unsigned char state) {
    Command request(0x4008);
    request.u8(state);
    return echoed_byte(dev, request, state);
}

// The same operations as the CAN_ calls, which for a CAN FD handle hand it back here.
POLYBUS_API int CANFD_SetRelayData(int dev, CAN_RELAY_HEADER* header, unsigned char* entries) {
    return CAN_SetRelayData(dev, header, entries);
}

POLYBUS_API int CANFD_GetRelayData(int dev, CAN_RELAY_HEADER* header, unsigned char* entries) {
    return CAN_GetRelayData(dev, header, entries);
}

// ---- Receive buffering ------------------------------------------------------------

POLYBUS_API int CANFD_ReadMsgToBuffer(int dev, unsigned char ch) {
    CANFD_MSG* frames = read_scratch();
    const int n = CANFD_ReadMsg(dev, ch, frames);
    if (n < 0) return n;
    canfd_reception().append(dev, ch, frames, static_cast<size_t>(n), true);
    return 0;
}

POLYBUS_API void* CANFD_ReadMsgThread(void* pDevHandle) {
    if (pDevHandle != nullptr) canfd_reception().run(*static_cast<int*>(pDevHandle));
    return nullptr;
}

POLYBUS_API int CANFD_StartGetMsg(int dev, unsigned char ch) {
    canfd_reception().discard(dev, ch, false);
    return canfd_reception().start(dev, ch);
}

POLYBUS_API int CANFD_StopGetMsg(int dev, unsigned char ch) { return canfd_reception().stop(dev, ch); }

POLYBUS_API int CANFD_GetMsg(int dev, unsigned char ch, CANFD_MSG* out, int size) {
    if (!canfd_reception().reading(dev, ch)) {
        const int rc = CANFD_ReadMsgToBuffer(dev, ch);
        if (rc < 0) return rc;
    }
    if (size < 1) return 0;
    return static_cast<int>(canfd_reception().take(dev, ch, out, static_cast<size_t>(size), false));
}

POLYBUS_API int CANFD_ClearMsg(int dev, unsigned char ch) {
    if (!canfd_reception().reading(dev, ch)) CANFD_ReadMsgToBuffer(dev, ch);
    canfd_reception().discard(dev, ch, false);
    return 0;
}

POLYBUS_API int CANFD_SetCANMsgToBuffer(int dev, unsigned char ch, CANFD_MSG* msgs, int count) {
    if (count < 1 || msgs == nullptr) return 0;
    canfd_reception().append(dev, ch, msgs, static_cast<size_t>(count), false);
    return 0;
}

POLYBUS_API int CANFD_GetCANMsgFromUDSBuffer(int dev, unsigned char ch, CANFD_MSG* out, int size) {
    if (!canfd_reception().reading(dev, ch)) CANFD_ReadMsgToBuffer(dev, ch);
    if (size < 1) return 0;
    return static_cast<int>(canfd_reception().take(dev, ch, out, static_cast<size_t>(size), true));
}

POLYBUS_API int CANFD_ClearCANMsgFromUDSBuffer(int dev, unsigned char ch) {
    canfd_reception().discard(dev, ch, true);
    return 0;
}

}  // extern "C"
