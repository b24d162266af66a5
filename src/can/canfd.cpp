// CAN FD adapters: their own command set (0x4000 range), packed frames, the per-channel
// send endpoint, send-status polling with transmit events, and receive buffering.
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "can/can_internal.h"
#include "can/canfd_wire.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "wire/canfd.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

constexpr size_t kFdReadBytes = CANFD_READ_MAX_FRAMES * (kFdHead + 64);

// Frame sends and their status requests travel on the channel's own endpoint.
Route channel_pipe(unsigned char ch) { return Route{Pipe::CanFd, ch}; }

// A per-channel command answered with its own code and exactly sizeof(Record) bytes.
template <typename Record>
int fetch_channel_record(int dev, uint32_t code, unsigned char ch, Record* out, Route route = {}) {
    Command request(code);
    request.u8(ch);
    return fetch_echoed(dev, request, out, sizeof(Record), {}, route);
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
        if (rc != kOk) return rc;
        if (state.TxAbort != 0) {
            number = state.TxTotal;
            aborted = true;
            return kOk;
        }
        if (state.TxCount == state.TxTotal) {
            number = state.TxCount;
            return kOk;
        }
        if (clock::now() >= deadline) return kOk;
        // Short requests are polled back to back; longer ones leave the adapter time.
        if (k >= 20) std::this_thread::sleep_for(std::chrono::milliseconds(k < 50 ? 2 : 5));
    }
}

// Fetches the transmit events of the last request and stamps the chunk's frames with
// them. Returns the number of events or a failure status.
int collect_events(int dev, unsigned char ch, CANFD_MSG* chunk, uint32_t k) {
    Command request(CANFD_GET_TX_EVENTS);
    request.u8(ch);
    uint8_t events[kFdSendChunk * kFdHead];
    Answer answer(events, sizeof(events));
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
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

// One send request of up to 128 frames, its status polls and its transmit events. The
// channel is held for the whole of it, so the status and the events belong to this
// request; the device itself is held per exchange only (the status poll is an exported
// call that takes it), so reception keeps running meanwhile. Returns the events fetched
// or a failure status; `aborted` when the adapter gave up.
int send_chunk(int dev, unsigned char ch, CANFD_MSG* chunk, uint32_t k, bool& aborted) {
    Command request(CANFD_SEND, kFdHead + size_t{k} * (kFdHead + 64));
    request.zeros(10).u8(ch).u8(static_cast<uint8_t>(k));
    for (uint32_t i = 0; i < k; ++i)
        request.le32(fd_send_word0(chunk[i])).le32(fd_send_word1(chunk[i], i)).le32(0)
            .bytes(chunk[i].Data, fd_send_data_bytes(chunk[i]));

    CanChannelLock hold(dev, ch);
    int rc = answered(dev, request, {}, channel_pipe(ch));
    if (rc != kOk) return rc;
    uint32_t number = 0;
    rc = await_transmission(dev, ch, k, number, aborted);
    if (rc != kOk) return rc;
    return number != 0 ? collect_events(dev, ch, chunk, k) : 0;
}

}  // namespace

extern "C" {

POLYBUS_API int CANFD_Init(int dev, unsigned char ch, CANFD_INIT_CONFIG* cfg) {
    if (cfg == nullptr) return kBadAnswer;
    Command request(CANFD_INIT);
    request.u8(ch).record(*cfg);
    return acknowledged(dev, request);
}

POLYBUS_API int CANFD_SetFilter(int dev, unsigned char ch, CANFD_FILTER_CONFIG* filters, unsigned char count) {
    if (filters == nullptr && count != 0) return kBadAnswer;
    Command request(CANFD_SET_FILTER);
    request.u8(ch);
    for (unsigned i = 0; i < count; ++i)
        request.u8(filters[i].Enable).u8(filters[i].Index).zeros(2).le32(filters[i].ID).le32(filters[i].Mask);
    return acknowledged(dev, request);
}

POLYBUS_API int CANFD_SendMsg(int dev, unsigned char ch, CANFD_MSG* msgs, unsigned int count) {
    if (count == 0) return 0;
    if (msgs == nullptr) return kBadAnswer;
    int total = 0;
    for (uint32_t offset = 0; offset < count; offset += kFdSendChunk) {
        const uint32_t k = count - offset < kFdSendChunk ? count - offset : kFdSendChunk;
        bool aborted = false;
        const int events = send_chunk(dev, ch, msgs + offset, k, aborted);
        if (events < 0) return events;
        total += events;
        if (aborted) return total;
    }
    return total;
}

POLYBUS_API int CANFD_SendMsgStatus(int dev, unsigned char ch, CAN_TX_BUFFER_FLAG* flags) {
    return fetch_channel_record(dev, CANFD_SEND_STATUS, ch, flags, channel_pipe(ch));
}

POLYBUS_API int CANFD_ReadMsg(int dev, unsigned char ch, CANFD_MSG* out) {
    Command request(CANFD_READ);
    request.u8(ch & 1);
    uint8_t* packed = thread_scratch<uint8_t, kFdReadBytes>();
    Answer answer(packed, kFdReadBytes);
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    if (expect_echo(answer, CANFD_READ) != kOk) return kBadAnswer;
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
    return fetch_channel_record(dev, CANFD_GET_DIAGNOSTIC, ch, diagnostic);
}

POLYBUS_API int CANFD_GetBusError(int dev, unsigned char ch, CANFD_BUS_ERROR* errors) {
    return fetch_channel_record(dev, CANFD_GET_BUS_ERROR, ch, errors);
}

POLYBUS_API int CANFD_Stop(int dev, unsigned char ch) {
    Command request(CANFD_STOP);
    request.u8(ch);
    const int rc = acknowledged(dev, request);
    if (rc != kOk) return rc;
    CANFD_ClearMsg(dev, ch);
    return kOk;
}

POLYBUS_API int CANFD_SetRelay(int dev, unsigned char state) {
    Command request(CANFD_SET_RELAY);
    request.u8(state);
    return judged(dev, request, [state](const Answer& a) { return expect_byte(a, 0, state); });
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
    CANFD_MSG* frames = thread_scratch<CANFD_MSG, CANFD_READ_MAX_FRAMES>();
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
