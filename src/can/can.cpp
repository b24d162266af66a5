// Classic CAN: channel set-up, filters, error state, relay, frame transfer and the
// host-side receive buffers. Calls with a CAN FD handle convert their records and go to
// the CAN FD family.
#include <sys/time.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "can/can_internal.h"
#include "device/adapter_models.h"
#include "polybus/usb_device.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "wire/can.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

// Anchors of the host-side time stamps, set by every successful CAN_Init of an
// adapter: wall-clock ms at that moment (TimeStart) and the adapter's clock in 100 us
// units (CANTimeStampError). An adapter without a slot has none: its frames are
// stamped from 0.
struct TimeAnchor {
    std::atomic<uint64_t> start{0};
    std::atomic<uint32_t> adapter{0};
};
PerDevice<TimeAnchor> time_anchors;

// Segment values travel as register codes (value - 1) for channels 0 and 1; a zero
// still goes as 1, which the firmware expects.
uint8_t segment_code(uint8_t channel, uint8_t value) {
    if (channel > 1) return value;
    return value == 0 ? 1 : static_cast<uint8_t>(value - 1);
}

// Acceptance register layout: standard identifier in bits 31-21, extended part in
// bits 20-3, IDE bit 2, RTR bit 1.
uint32_t filter_register(uint32_t value, uint32_t ide, uint32_t rtr, bool extended, bool with_identifier) {
    uint32_t reg = (ide & 1u) << 2 | (rtr & 1u) << 1;
    if (!with_identifier) return reg;
    const uint32_t standard = extended ? (value >> 18) & 0x7FFu : value & 0x7FFu;
    const uint32_t extension = extended ? value & 0x3FFFFu : 0;
    return reg | standard << 21 | extension << 3;
}

// Relay settings block in the user-data area.
constexpr uint32_t kRelayMagic = 0x7BB0F5C0u;
constexpr uint32_t kRelayFormat = 0x00030003u;
constexpr size_t kRelayPrefix = 12;                      // magic, format, length
constexpr size_t kRelayHeader = sizeof(CAN_RELAY_HEADER);  // 48
constexpr size_t kRelayReadSize = kRelayPrefix + kRelayHeader + CAN_RELAY_MAX_ENTRIES * CAN_RELAY_ENTRY_SIZE;
constexpr size_t kUserDataWriteLimit = 20480;

// CAN_SetRelayData and CANFD_SetRelayData (likewise the Get pair) hand a CAN FD handle
// to each other without end: relay data exists on classic adapters only. The endless
// hand-over is kept, as a wait that does not exhaust the caller's stack.
[[noreturn]] void relay_data_forever() {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

// CAN FD frames for a call handed on to the CAN FD family; null when the memory cannot
// be had, which the caller reports as kBadAnswer instead of letting an exception out.
std::unique_ptr<CANFD_MSG[]> fd_frames(size_t n) {
    return std::unique_ptr<CANFD_MSG[]>(new (std::nothrow) CANFD_MSG[n != 0 ? n : 1]);
}

// A caller's capacity for frames taken out of a receive buffer: more than a buffer can
// hold is never needed.
int buffer_capacity(int size) { return size < int{CAN_BUFFER_FRAMES} ? size : int{CAN_BUFFER_FRAMES}; }

// Buffered CAN FD frames moved out through the CAN FD call `take` and converted.
int take_fd(int dev, unsigned char ch, CAN_MSG* out, int size,
            int (*take)(int, unsigned char, CANFD_MSG*, int)) {
    const int limit = buffer_capacity(size);
    auto frames = fd_frames(limit > 0 ? static_cast<size_t>(limit) : 0);
    if (!frames) return kBadAnswer;
    const int n = take(dev, ch, frames.get(), limit);
    if (n > 0 && out != nullptr) canfd_to_can(frames.get(), out, static_cast<size_t>(n));
    return n;
}

}  // namespace

extern "C" {

POLYBUS_API uint64_t GetTimestampOfDay(void) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

// ---- Set-up -----------------------------------------------------------------------

POLYBUS_API int CAN_Init(int dev, unsigned char ch, CAN_INIT_CONFIG* cfg) {
    if (cfg == nullptr) return kBadAnswer;
    if (is_canfd_model(dev)) {
        CANFD_INIT_CONFIG fd;
        std::memset(&fd, 0, sizeof(fd));
        fd.Mode = cfg->CAN_Mode & 1u;
        fd.Option1 = 0;
        fd.Option2 = 1;
        fd.ResEnable = (cfg->CAN_Mode >> 7) & 1u;
        fd.NBT_BRP = static_cast<uint8_t>(cfg->CAN_BRP);
        fd.NBT_SEG1 = cfg->CAN_BS1;
        fd.NBT_SEG2 = cfg->CAN_BS2;
        fd.NBT_SJW = cfg->CAN_SJW;
        return CANFD_Init(dev, ch, &fd);
    }
    // A channel being re-initialised is no longer served by the reader thread.
    if (ch < 2) can_reception().stop_flag(dev, ch);
    Command request(CAN_INIT);
    request.u8(ch).u8(0).u8(cfg->CAN_ABOM & 1u).u8(0).u8(cfg->CAN_NART & 1u).u8(cfg->CAN_RFLM & 1u)
        .u8(cfg->CAN_TXFP & 1u).u8(cfg->CAN_Mode).u8(segment_code(ch, cfg->CAN_SJW))
        .u8(segment_code(ch, cfg->CAN_BS1)).u8(segment_code(ch, cfg->CAN_BS2))
        .be16(static_cast<uint16_t>(cfg->CAN_BRP));
    const int rc = acknowledged(dev, request);
    if (rc != kOk) return rc;
    if (TimeAnchor* anchor = time_anchors.find(dev)) {
        uint8_t stamp[POLYBUS_TIMESTAMP_SIZE] = {0};
        if (DEV_GetTimestamp(dev, 0, stamp)) anchor->adapter.store(get_le32(stamp));
        anchor->start.store(GetTimestampOfDay());
    }
    return kOk;
}

POLYBUS_API int CAN_Filter_Init(int dev, unsigned char ch, CAN_FILTER_CONFIG* f) {
    if (f == nullptr) return kBadAnswer;
    if (is_canfd_model(dev)) {
        CANFD_FILTER_CONFIG entry;
        std::memset(&entry, 0, sizeof(entry));
        entry.Enable = f->Enable;
        entry.Index = f->FilterIndex;
        entry.ID = f->IdValue | (f->IdRtr & 1u) << 30 | f->IdIde << 31;
        entry.Mask = f->FilterMode != 0 ? 0xFFFFFFFFu : f->MaskValue | (f->MaskRtr & 1u) << 30 | f->MaskIde << 31;
        return CANFD_SetFilter(dev, ch, &entry, 1);
    }
    const bool extended = f->ExtFrame == 1;
    const bool mask_mode = f->FilterMode == 0;
    Command request(CAN_SET_FILTER);
    request.u8(ch)
        .u8(static_cast<uint8_t>(ch * 14 + f->FilterIndex % 14))
        .u8(f->FilterMode)
        .u8(1)  // 32-bit filter scale
        .be32(filter_register(f->IdValue, f->IdIde, f->IdRtr, extended, true))
        .be32(filter_register(f->MaskValue, f->MaskIde, f->MaskRtr, extended, mask_mode))
        .u8(0)
        .u8(f->Enable);
    return acknowledged(dev, request);
}

POLYBUS_API int CAN_Stop(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) {
        CANFD_StopGetMsg(dev, ch);
        return CANFD_Stop(dev, ch);
    }
    can_reception().stop(dev, ch);  // joins the reader once neither channel is read
    Command request(CAN_STOP);
    request.u8(ch);
    const int rc = acknowledged(dev, request);
    if (rc != kOk) return rc;
    CAN_ClearMsg(dev, ch);
    return kOk;
}

POLYBUS_API int CAN_GetStatus(int dev, unsigned char ch, CAN_STATUS* status) {
    if (is_canfd_model(dev)) {
        CANFD_BUS_ERROR errors;
        std::memset(&errors, 0, sizeof(errors));
        const int rc = CANFD_GetBusError(dev, ch, &errors);
        if (rc == kOk && status != nullptr) {
            status->TECounter = errors.TEC;
            status->RECounter = errors.REC;
        }
        return rc;
    }
    Command request(CAN_GET_STATUS);
    request.u8(ch);
    AnswerBuffer<8> answer;
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    if (status != nullptr) {
        // Not judged: whatever came is taken, a word that did not come reads 0.
        status->StatusReg = answer.le32(0);
        status->ErrorReg = answer.le32(4);
        status->RECounter = static_cast<uint8_t>(status->ErrorReg >> 24);
        status->TECounter = static_cast<uint8_t>(status->ErrorReg >> 16);
        status->LECode = static_cast<uint8_t>((status->ErrorReg >> 4) & 0x7u);
    }
    return kOk;
}

POLYBUS_API int CAN_SetRelay(int dev, unsigned char state) {
    if (is_canfd_model(dev)) return CANFD_SetRelay(dev, state);
    Command request(CAN_SET_RELAY);
    request.u8(state);
    return judged(dev, request, [state](const Answer& a) { return expect_byte(a, 0, state); });
}

POLYBUS_API int CAN_SetRelayData(int dev, CAN_RELAY_HEADER* header, unsigned char* entries) {
    if (is_canfd_model(dev)) relay_data_forever();
    if (header == nullptr) return kBadAnswer;
    const uint64_t count = header->EntryCount;
    const uint64_t size = kRelayPrefix + kRelayHeader + count * CAN_RELAY_ENTRY_SIZE;
    if (count != 0 && entries == nullptr) return kBadAnswer;
    if (!DEV_EraseUserData(dev)) return kBadAnswer;
    // The user-data area takes at most this much in one write; the adapter would refuse.
    if (size > kUserDataWriteLimit) return kBadAnswer;
    std::vector<uint8_t> block(static_cast<size_t>(size));
    put_le32(block.data(), kRelayMagic);
    put_le32(block.data() + 4, kRelayFormat);
    put_le32(block.data() + 8, static_cast<uint32_t>(kRelayHeader + count * CAN_RELAY_ENTRY_SIZE));
    std::memcpy(block.data() + kRelayPrefix, header, kRelayHeader);
    if (count != 0) std::memcpy(block.data() + kRelayPrefix + kRelayHeader, entries, count * CAN_RELAY_ENTRY_SIZE);
    const int len = static_cast<int>(block.size());
    if (!DEV_WriteUserData(dev, 0, block.data(), len)) return kBadAnswer;
    std::vector<uint8_t> back(block.size(), 0);
    if (!DEV_ReadUserData(dev, 0, back.data(), len)) return kBadAnswer;
    for (size_t i = 0; i < block.size(); i += 4)
        if (std::memcmp(block.data() + i, back.data() + i, 4) != 0) return kBadAnswer;
    return kOk;
}

POLYBUS_API int CAN_GetRelayData(int dev, CAN_RELAY_HEADER* header, unsigned char* entries) {
    if (is_canfd_model(dev)) relay_data_forever();
    std::vector<uint8_t> block(kRelayReadSize, 0);
    if (!DEV_ReadUserData(dev, 0, block.data(), static_cast<int>(block.size()))) return kBadAnswer;
    if (get_le32(block.data()) != kRelayMagic || get_le32(block.data() + 4) != kRelayFormat) return 0;
    if (get_le32(block.data() + 8) < 61) return 0;
    const uint32_t stored = get_le32(block.data() + kRelayPrefix + offsetof(CAN_RELAY_HEADER, EntryCount));
    const uint32_t count = stored < CAN_RELAY_MAX_ENTRIES ? stored : CAN_RELAY_MAX_ENTRIES;
    if (header != nullptr) std::memcpy(header, block.data() + kRelayPrefix, kRelayHeader);
    if (entries != nullptr)
        std::memcpy(entries, block.data() + kRelayPrefix + kRelayHeader, size_t{count} * CAN_RELAY_ENTRY_SIZE);
    return static_cast<int>(count);
}

// ---- Frames -----------------------------------------------------------------------

POLYBUS_API int CAN_SendMsg(int dev, unsigned char ch, CAN_MSG* msgs, unsigned int count) {
    if (count == 0) return 0;
    if (msgs == nullptr) return kBadAnswer;
    if (is_canfd_model(dev)) {
        auto frames = fd_frames(count);
        if (!frames) return kBadAnswer;
        can_to_canfd(msgs, frames.get(), count);
        const int sent = CANFD_SendMsg(dev, ch, frames.get(), count);
        if (sent > 0) canfd_to_can(frames.get(), msgs, static_cast<size_t>(sent));
        return sent;
    }
    const TimeAnchor* anchors = time_anchors.find(dev);
    const uint32_t start = anchors != nullptr ? static_cast<uint32_t>(anchors->start.load()) : 0;
    const uint32_t anchor = anchors != nullptr ? anchors->adapter.load() : 0;
    const uint8_t host_flags = static_cast<uint8_t>(0x80u | ch << 5);
    uint32_t total = 0;
    for (uint32_t offset = 0; offset < count; offset += kCanSendChunk) {
        const uint32_t k = count - offset < kCanSendChunk ? count - offset : kCanSendChunk;
        Command request(CAN_SEND, 1 + size_t{k} * sizeof(CAN_MSG));
        request.u8(ch);
        for (uint32_t i = 0; i < k; ++i) {
            CAN_MSG& frame = msgs[offset + i];
            // Transmitted frames are stamped on the adapter's 100 us time base.
            const uint32_t now = static_cast<uint32_t>(GetTimestampOfDay());
            frame.TimeStamp = (now - start) * 10u + anchor;
            frame.RemoteFlag = static_cast<uint8_t>(host_flags | (frame.RemoteFlag & 1u));
            CAN_MSG wire = frame;
            wire.RemoteFlag = frame.RemoteFlag & 1u;
            wire.ExternFlag = frame.ExternFlag & 1u;
            wire.TimeStamp = 0;
            request.record(wire);
        }
        AnswerBuffer<16> answer;
        const int rc = transact(dev, request, answer, {1000, static_cast<int>(1000 + 200 * k)});
        if (rc == kSendFailed) return kSendFailed;
        if (rc != kOk || expect_echo(answer, CAN_SEND) != kOk) return kBadAnswer;
        total += answer.le32(0);  // frames accepted
    }
    return static_cast<int>(total);
}

POLYBUS_API int CAN_ReadMsg(int dev, unsigned char ch, CAN_MSG* out) {
    if (is_canfd_model(dev)) return take_fd(dev, ch, out, CAN_READ_MAX_FRAMES, CANFD_GetMsg);
    Command request(CAN_READ);
    request.u8(ch);
    Answer answer(out, out != nullptr ? CAN_READ_MAX_FRAMES * sizeof(CAN_MSG) : 0);
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    return static_cast<int>(answer.received / sizeof(CAN_MSG));
}

POLYBUS_API int CAN_ReadMsgToBuffer(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) return CANFD_ReadMsgToBuffer(dev, ch);
    CAN_MSG* frames = thread_scratch<CAN_MSG, CAN_READ_MAX_FRAMES>();
    const int n = CAN_ReadMsg(dev, ch, frames);
    if (n < 0) return n;
    sort_by_stamp(frames, static_cast<size_t>(n));
    const uint8_t channel_bits = static_cast<uint8_t>((ch << 5) & 0x60);
    for (int i = 0; i < n; ++i) frames[i].RemoteFlag |= channel_bits;
    can_reception().append(dev, ch, frames, static_cast<size_t>(n), true);
    return 0;
}

POLYBUS_API void CAN_QuickSort(CAN_MSG* msgs, int low, int high, int) {
    if (msgs == nullptr || low < 0 || low >= high) return;
    sort_by_stamp(msgs + low, static_cast<size_t>(high - low) + 1);
}

POLYBUS_API void* CAN_ReadMsgThread(void* pDevHandle) {
    if (pDevHandle == nullptr) return nullptr;
    const int dev = *static_cast<int*>(pDevHandle);
    if (is_canfd_model(dev)) return CANFD_ReadMsgThread(pDevHandle);
    can_reception().run(dev);
    return nullptr;
}

POLYBUS_API int CAN_StartGetMsg(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) return CANFD_StartGetMsg(dev, ch);
    return can_reception().start(dev, ch);
}

POLYBUS_API int CAN_StopGetMsg(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) return CANFD_StopGetMsg(dev, ch);
    return can_reception().stop(dev, ch);
}

POLYBUS_API int CAN_GetMsg(int dev, unsigned char ch, CAN_MSG* out) {
    if (is_canfd_model(dev)) return take_fd(dev, ch, out, CAN_READ_MAX_FRAMES, CANFD_GetMsg);
    if (!can_reception().reading(dev, ch)) CAN_ReadMsgToBuffer(dev, ch);
    return static_cast<int>(can_reception().take(dev, ch, out, CAN_BUFFER_FRAMES, false));
}

POLYBUS_API int CAN_GetMsgWithSize(int dev, unsigned char ch, CAN_MSG* out, int size) {
    if (is_canfd_model(dev)) return take_fd(dev, ch, out, size, CANFD_GetMsg);
    ch &= 1;
    if (!can_reception().reading(dev, ch)) {
        const int rc = CAN_ReadMsgToBuffer(dev, ch);
        if (rc < 0) return rc;
    }
    if (size < 1) return 0;
    return static_cast<int>(can_reception().take(dev, ch, out, static_cast<size_t>(size), false));
}

POLYBUS_API int CAN_ClearMsg(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) return CANFD_ClearMsg(dev, ch);
    // Without a reader, what the adapter holds is drained too (it also reaches the UDS
    // buffer, as every fetch does).
    if (!can_reception().reading(dev, ch)) CAN_ReadMsgToBuffer(dev, ch);
    can_reception().discard(dev, ch, false);
    return 0;
}

POLYBUS_API int CAN_SetCANMsgToBuffer(int dev, unsigned char ch, CAN_MSG* msgs, int count) {
    if (is_canfd_model(dev)) {
        if (count < 1 || msgs == nullptr) return 0;
        // Only the newest buffer-full can stay; older frames would be dropped at once.
        const int kept = buffer_capacity(count);
        auto frames = fd_frames(static_cast<size_t>(kept));
        if (!frames) return 0;
        can_to_canfd(msgs + (count - kept), frames.get(), static_cast<size_t>(kept));
        return CANFD_SetCANMsgToBuffer(dev, ch, frames.get(), kept);
    }
    if (count < 1 || msgs == nullptr) return 0;
    can_reception().append(dev, ch, msgs, static_cast<size_t>(count), false);
    return 0;
}

POLYBUS_API int CAN_GetCANMsgFromUDSBuffer(int dev, unsigned char ch, CAN_MSG* out, int size) {
    if (is_canfd_model(dev)) return take_fd(dev, ch, out, size, CANFD_GetCANMsgFromUDSBuffer);
    if (!can_reception().reading(dev, ch)) CAN_ReadMsgToBuffer(dev, ch);
    if (size < 1) return 0;
    return static_cast<int>(can_reception().take(dev, ch, out, static_cast<size_t>(size), true));
}

POLYBUS_API int CAN_ClearCANMsgFromUDSBuffer(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) return CANFD_ClearCANMsgFromUDSBuffer(dev, ch);
    can_reception().discard(dev, ch, true);
    return 0;
}

}  // extern "C"
