// UDS over CAN and CAN FD: requests segmented into single, first and consecutive frames
// under the receiver's flow control, responses reassembled from the channel's UDS side
// buffer. Frames of a CAN FD adapter travel as CANFD_MSG records through the CANFD_
// calls (so frames longer than 8 bytes keep their data); classic adapters use CAN_MSG.
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

#include "can/can_internal.h"
#include "device/adapter_models.h"
#include "diag/isotp_frames.h"
#include "polybus/can_uds.h"
#include "transport/exchange.h"

using namespace polybus;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSendFailed = CAN_UDS_ERR_SEND;
constexpr int kNotAccepted = CAN_UDS_ERR_NOT_ACCEPTED;
constexpr int kTimeout = CAN_UDS_ERR_TIMEOUT;
constexpr int kSequence = CAN_UDS_ERR_SEQUENCE;
constexpr int kBadFrame = CAN_UDS_ERR_FRAME;
constexpr int kOverflow = CAN_UDS_ERR_OVERFLOW;
constexpr int kBatch = CAN_UDS_BATCH_FRAMES;
constexpr size_t kMaxFrame = 64;

int64_t ms_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Nothing came: ask again shortly. A poll without a reader thread is a fetch from the
// adapter, which costs the host and the adapter time; with the reader thread it would
// only spin on the buffer. 200 us is about one classic frame at 500 kbit/s, so a message
// ends at most that much later than its last frame.
void idle() { std::this_thread::sleep_for(std::chrono::microseconds(200)); }

uint8_t host_flags(unsigned char ch) { return static_cast<uint8_t>(0x80u | (static_cast<unsigned>(ch) << 5)); }

void fill_can(CAN_MSG* m, const CAN_UDS_ADDR& a, const uint8_t* data, int len) {
    std::memset(m, 0, sizeof(*m));
    const uint8_t frame_len = isotp::corrected_frame_len(a.FrameLen);
    m->ID = a.RequestId;
    m->ExternFlag = a.Flags & CAN_UDS_FLAG_29BIT;
    m->DataLen = frame_len;
    const int n = data == nullptr ? 0 : std::min(std::max(len, 0), 8);
    if (n > 0) std::memcpy(m->Data, data, static_cast<size_t>(n));
    for (int i = n; i < std::min<int>(frame_len, 8); ++i) m->Data[i] = isotp::kPad;
}

void fill_canfd(CANFD_MSG* m, const CAN_UDS_ADDR& a, const uint8_t* data, int len) {
    std::memset(m, 0, sizeof(*m));
    const uint8_t frame_len = isotp::corrected_frame_len(a.FrameLen);
    m->ID = a.RequestId | (a.Flags & CAN_UDS_FLAG_29BIT ? 0x80000000u : 0u);
    m->DLC = frame_len;
    const bool fd = (a.Flags & CAN_UDS_FLAG_CANFD) != 0;
    const bool brs = fd && (a.Flags & CAN_UDS_FLAG_BRS) != 0;
    m->Flags = static_cast<uint8_t>((brs ? 0x01 : 0) | (fd ? 0x04 : 0));
    const int n = data == nullptr ? 0 : std::min(std::max(len, 0), 64);
    if (n > 0) std::memcpy(m->Data, data, static_cast<size_t>(n));
    for (int i = n; i < frame_len; ++i) m->Data[i] = isotp::kPad;
}

// Retries a send while the adapter takes nothing. `send` returns the CAN call's
// result; `taken` says whether a result counts as all frames sent.
template <typename Send, typename Taken>
int send_until_taken(Send send, Taken taken, bool partial_ends) {
    const Clock::time_point start = Clock::now();
    for (;;) {
        const int r = send();
        if (taken(r)) return kOk;
        if (r < 0) return kSendFailed;
        // The adapter took only some of a batch: the request goes on without them.
        if (r > 0 && partial_ends) return 1;
        if (ms_since(start) >= CAN_UDS_SEND_RETRY_MS) return kNotAccepted;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// One CAN FD frame: only a result of exactly one frame counts.
int send_fd_single(int dev, unsigned char ch, CANFD_MSG* m) {
    const int rc = send_until_taken([&] { return CANFD_SendMsg(dev, ch, m, 1); }, [](int r) { return r == 1; },
                                    false);
    if (rc != kOk) return rc;
    m->Flags |= host_flags(ch);
    CANFD_SetCANMsgToBuffer(dev, ch, m, 1);
    return kOk;
}

// One frame of `len` bytes for the connection, sent as the adapter's kind wants it.
int send_frame(int dev, unsigned char ch, const CAN_UDS_ADDR& a, const uint8_t* data, int len) {
    if (is_canfd_model(dev)) {
        CANFD_MSG m;
        fill_canfd(&m, a, data, len);
        return send_fd_single(dev, ch, &m);
    }
    CAN_MSG m;
    fill_can(&m, a, data, len);
    return CAN_UDS_SendCANMsg(dev, ch, &m, 1);
}

// The next frame of the UDS buffer. Frames already buffered are taken without asking
// the adapter again; only an empty buffer costs a fetch.
bool next_can(int dev, unsigned char ch, CAN_MSG* m) {
    if (can_reception().buffered(dev, ch, true) > 0 && can_reception().take(dev, ch, m, 1, true) == 1) return true;
    return CAN_GetCANMsgFromUDSBuffer(dev, ch, m, 1) == 1;
}

bool next_canfd(int dev, unsigned char ch, CANFD_MSG* m) {
    if (canfd_reception().buffered(dev, ch, true) > 0 && canfd_reception().take(dev, ch, m, 1, true) == 1)
        return true;
    return CANFD_GetCANMsgFromUDSBuffer(dev, ch, m, 1) == 1;
}

// Consecutive frames waiting to go out together, as the adapter's kind wants them.
class Batch {
public:
    Batch(int dev, unsigned char ch, const CAN_UDS_ADDR& a) : dev_(dev), ch_(ch), addr_(a), fd_(is_canfd_model(dev)) {}

    // Adds a frame; sends the batch once it is full.
    int add(const uint8_t* data, int len) {
        if (fd_) fill_canfd(&fd_frames_[count_], addr_, data, len);
        else fill_can(&frames_[count_], addr_, data, len);
        return ++count_ == kBatch ? flush() : kOk;
    }

    int flush() {
        if (count_ == 0) return kOk;
        const int n = count_;
        count_ = 0;
        return fd_ ? CAN_UDS_SendCANFDMsg(dev_, ch_, fd_frames_, n) : CAN_UDS_SendCANMsg(dev_, ch_, frames_, n);
    }

private:
    int dev_;
    unsigned char ch_;
    CAN_UDS_ADDR addr_;
    bool fd_;
    int count_ = 0;
    CAN_MSG frames_[kBatch];
    CANFD_MSG fd_frames_[kBatch];
};

}  // namespace

extern "C" {

POLYBUS_API void CAN_UDS_FillCANMsg(CAN_MSG* msg, CAN_UDS_ADDR addr, unsigned char* data, int len) {
    if (msg != nullptr) fill_can(msg, addr, data, len);
}

POLYBUS_API void CAN_UDS_FillCANFDMsg(CANFD_MSG* msg, CAN_UDS_ADDR addr, unsigned char* data, int len) {
    if (msg != nullptr) fill_canfd(msg, addr, data, len);
}

POLYBUS_API int CAN_UDS_SendCANMsg(int dev, unsigned char ch, CAN_MSG* msgs, int count) {
    if (msgs == nullptr) return kRefused;
    if (count < 1) return kNotAccepted;  // nothing could ever be taken: no need to wait for it
    const unsigned n = static_cast<unsigned>(count);
    const int rc = send_until_taken([&] { return CAN_SendMsg(dev, ch, msgs, n); },
                                    [count](int r) { return r == count; }, true);
    if (rc == 1) return kOk;
    if (rc != kOk) return rc;
    for (int i = 0; i < count; ++i) msgs[i].RemoteFlag |= host_flags(ch);
    CAN_SetCANMsgToBuffer(dev, ch, msgs, count);
    return kOk;
}

POLYBUS_API int CAN_UDS_SendCANFDMsg(int dev, unsigned char ch, CANFD_MSG* msgs, int count) {
    if (msgs == nullptr) return kRefused;
    if (count < 1) return kNotAccepted;
    const unsigned n = static_cast<unsigned>(count);
    const int rc = send_until_taken([&] { return CANFD_SendMsg(dev, ch, msgs, n); },
                                    [count](int r) { return r == count; }, true);
    if (rc == 1) return kOk;
    if (rc != kOk) return rc;
    for (int i = 0; i < count; ++i) msgs[i].Flags |= host_flags(ch);
    CANFD_SetCANMsgToBuffer(dev, ch, msgs, count);
    return kOk;
}

POLYBUS_API int CAN_UDS_SendMsg(int dev, unsigned char ch, CAN_UDS_ADDR addr, unsigned char* data, int len) {
    if (data == nullptr && len > 0) return kRefused;
    return send_frame(dev, ch, addr, data, len);
}

POLYBUS_API int CAN_UDS_GetMsg(int dev, unsigned char ch, CAN_UDS_ADDR addr, unsigned char* out) {
    if (out == nullptr) return kRefused;
    const uint32_t id = addr.ResponseId & 0x1FFFFFFFu;
    const unsigned wide = addr.Flags & CAN_UDS_FLAG_29BIT;
    const unsigned shortest = addr.ExtAddrMode != 0 ? 2 : 1;
    if (is_canfd_model(dev)) {
        CANFD_MSG m;
        while (next_canfd(dev, ch, &m)) {
            if ((m.ID & 0x1FFFFFFFu) != id || (m.ID >> 31) != wide || m.DLC < shortest) continue;
            const size_t n = std::min<size_t>(m.DLC, 64);
            std::memcpy(out, m.Data, n);
            return static_cast<int>(n);
        }
        return 0;
    }
    CAN_MSG m;
    while (next_can(dev, ch, &m)) {
        if ((m.ID & 0x1FFFFFFFu) != id || (m.ExternFlag & 1u) != wide || m.DataLen < shortest) continue;
        const size_t n = std::min<size_t>(m.DataLen, 8);
        std::memcpy(out, m.Data, n);
        return static_cast<int>(n);
    }
    return 0;
}

POLYBUS_API int CAN_UDS_WaitFC(int dev, unsigned char ch, CAN_UDS_ADDR addr, UDS_FC* fc, int timeout_ms) {
    const Clock::time_point start = Clock::now();
    const int x = addr.ExtAddrMode != 0 ? 1 : 0;
    for (;;) {
        uint8_t frame[kMaxFrame];
        const int n = CAN_UDS_GetMsg(dev, ch, addr, frame);
        if (n > 2 + x) {
            const uint8_t pci = frame[x];
            const uint8_t status = pci & 0x0F;
            if ((pci >> 4) == 3 && status <= 2) {
                if (fc != nullptr) {
                    fc->FlowControl = static_cast<uint8_t>(pci << 4 | pci >> 4);
                    fc->BlockSize = frame[x + 1];
                    fc->STmin = frame[x + 2];
                }
                if (status == 0) return kOk;
                if (status == 2) return kOverflow;
                // Wait: the receiver is not ready yet; the time-out keeps running.
            }
        }
        if (ms_since(start) >= timeout_ms) return kTimeout;
        if (n == 0) idle();
    }
}

POLYBUS_API int CAN_UDS_Request(int dev, unsigned char ch, CAN_UDS_ADDR* addr, unsigned char* data, int len) {
    if (addr == nullptr || len < 0 || (data == nullptr && len > 0)) return kRefused;
    addr->FrameLen = isotp::corrected_frame_len(addr->FrameLen);
    const CAN_UDS_ADDR a = *addr;
    const bool ext = a.ExtAddrMode != 0;
    const size_t x = ext ? 1 : 0;
    const isotp::Capacity cap = isotp::capacity(a.FrameLen, ext);
    // Only answers to this request are to be seen later.
    if (is_canfd_model(dev)) CANFD_ClearCANMsgFromUDSBuffer(dev, ch);
    else CAN_ClearCANMsgFromUDSBuffer(dev, ch);

    const uint32_t length = static_cast<uint32_t>(len);
    uint8_t frame[kMaxFrame + 8];
    frame[0] = a.ExtAddr;
    if (len <= cap.single) {
        const size_t head = x + isotp::single_pci(frame + x, a.FrameLen, length);
        if (len > 0) std::memcpy(frame + head, data, length);
        return send_frame(dev, ch, a, frame, static_cast<int>(head + length));
    }

    // First frame. With frames of 8 the escaped one is longer than its frame and loses
    // its tail, while the message still advances by the table's count.
    const size_t head = x + isotp::first_pci(frame + x, length);
    const uint32_t first = static_cast<uint32_t>(length >= isotp::kEscapedLength ? cap.first_escaped : cap.first);
    std::memcpy(frame + head, data, first);
    int rc = send_frame(dev, ch, a, frame, static_cast<int>(head + first));
    if (rc != kOk) return rc;
    UDS_FC fc{};
    rc = CAN_UDS_WaitFC(dev, ch, a, &fc, CAN_UDS_FC_TIMEOUT_MS);
    if (rc != kOk) return rc;

    Batch batch(dev, ch, a);
    uint32_t pos = first;
    uint32_t sequence = 1;
    unsigned in_block = 0;
    while (pos < length) {
        const uint32_t chunk = std::min<uint32_t>(static_cast<uint32_t>(cap.consecutive), length - pos);
        frame[x] = isotp::consecutive_pci(sequence++);
        std::memcpy(frame + x + 1, data + pos, chunk);
        const int size = static_cast<int>(x + 1 + chunk);
        pos += chunk;
        ++in_block;
        const int pause = isotp::separation_pause_ms(fc.STmin);
        if (pause > 0) {
            rc = send_frame(dev, ch, a, frame, size);
            if (rc != kOk) return rc;
            std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        } else {
            rc = batch.add(frame, size);
            if (rc != kOk) return rc;
        }
        if (fc.BlockSize != 0 && in_block == fc.BlockSize && pos < length) {
            rc = batch.flush();
            if (rc != kOk) return rc;
            rc = CAN_UDS_WaitFC(dev, ch, a, &fc, CAN_UDS_FC_TIMEOUT_MS);
            if (rc != kOk) return rc;
            in_block = 0;
        }
    }
    return batch.flush();
}

POLYBUS_API int CAN_UDS_Response(int dev, unsigned char ch, CAN_UDS_ADDR* addr, unsigned char* out, int timeout_ms) {
    if (addr == nullptr || out == nullptr) return kRefused;
    addr->FrameLen = isotp::corrected_frame_len(addr->FrameLen);
    const CAN_UDS_ADDR a = *addr;
    const int L = a.FrameLen;
    const int x = a.ExtAddrMode != 0 ? 1 : 0;
    const Clock::time_point start = Clock::now();
    uint32_t expected = 1;
    uint32_t total = 0, received = 0;
    for (;;) {
        uint8_t frame[kMaxFrame];
        const int n = CAN_UDS_GetMsg(dev, ch, a, frame);
        if (n >= 2 + x) {
            const uint8_t* body = frame + x;
            const size_t avail = static_cast<size_t>(n - x);
            const isotp::Pci pci = isotp::read_pci(body, avail);
            switch (pci.kind) {
                case isotp::Kind::Invalid:
                    return kBadFrame;
                case isotp::Kind::Single: {
                    const uint32_t limit = static_cast<uint32_t>(pci.long_form ? L - 2 - x : L - 1 - x);
                    if (pci.length > limit || pci.header + pci.length > avail) return kBadFrame;
                    if (pci.length == 0) return 0;
                    std::memcpy(out, body + pci.header, pci.length);
                    return static_cast<int>(pci.length);
                }
                case isotp::Kind::First: {
                    if (!pci.complete || pci.length > static_cast<uint32_t>(INT_MAX)) return kBadFrame;
                    total = pci.length;
                    const size_t room = static_cast<size_t>(pci.long_form ? L - 6 - x : L - 2 - x);
                    const size_t k = std::min({room, avail - pci.header, size_t{total}});
                    std::memcpy(out, body + pci.header, k);
                    received = static_cast<uint32_t>(k);
                    uint8_t flow[4] = {a.ExtAddr, 0x30, 0x00, 0x00};
                    const int rc = send_frame(dev, ch, a, x ? flow : flow + 1, 3 + x);
                    if (rc != kOk) return rc;
                    expected = 1;
                    break;
                }
                case isotp::Kind::Consecutive: {
                    if (pci.sequence != (expected & 0x0F)) return kSequence;
                    const size_t room = static_cast<size_t>(L - 1 - x);
                    const size_t k = std::min({room, avail - pci.header, size_t{total - received}});
                    std::memcpy(out + received, body + pci.header, k);
                    received += static_cast<uint32_t>(k);
                    if (received >= total) return static_cast<int>(total);
                    ++expected;
                    break;
                }
                case isotp::Kind::FlowControl:
                    break;
            }
        }
        if (ms_since(start) >= timeout_ms) return kTimeout;
        if (n == 0) idle();
    }
}

}  // extern "C"
