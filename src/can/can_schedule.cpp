// Transmit schedules: tables of frames the adapter sends by itself, each followed by its
// pause. Small schedules are uploaded in one command; large ones are written into the
// adapter's schedule storage, from where the adapter plays them.
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "can/can_internal.h"
#include "device/adapter_models.h"
#include "polybus/usb_device.h"
#include "transport/exchange.h"
#include "wire/can.h"
#include "wire/canfd.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

// The header of a schedule image in storage, as the adapter reads it (host layout,
// little-endian). Unused counts and parameters stay erased (0xFF).
#pragma pack(push, 1)
struct ScheduleImageHeader {
    uint32_t magic;
    uint32_t tables;
    uint8_t counts[256];
    uint16_t params[256];
    uint32_t frame_area_low;
    uint32_t frame_area_high;
};
#pragma pack(pop)
static_assert(sizeof(ScheduleImageHeader) == kCanScheduleHeader, "schedule image header is 784 bytes");

size_t total_frames(const unsigned char* counts, unsigned tables) {
    size_t n = 0;
    for (unsigned i = 0; i < tables; ++i) n += counts[i];
    return n;
}

// Upload and start: the answer byte must be 0. A refusal is reported on one line.
int schedule_accepted(int dev, Command& request, int get_ms) {
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, {1000, get_ms});
    if (rc == kSendFailed) return kSendFailed;
    if (rc == kOk && expect_status_ok(answer) == kOk) return kOk;
    report_refusal(answer.received >= 1 ? answer.u8(0) : -1, rc == kOk ? kOk : kNoHeader);
    return kBadAnswer;
}

// Stop: any answer will do.
int schedule_stopped(int dev, Command& request) { return answered(dev, request); }

template <typename Msg>
int upload_command(int dev, uint32_t code, unsigned char ch, const Msg* frames, size_t n, const unsigned char* counts,
                   const uint16_t* params, unsigned char tables) {
    Command request(code, 2 + 3 * size_t{tables} + n * sizeof(Msg));
    request.u8(ch).u8(tables).bytes(counts, tables);
    for (unsigned i = 0; i < tables; ++i) request.le16(params[i]);
    request.bytes(frames, n * sizeof(Msg));
    return schedule_accepted(dev, request, 5000);
}

int upload_to_storage(int dev, unsigned char ch, const CAN_MSG* frames, size_t n, const unsigned char* counts,
                      const uint16_t* params, unsigned char tables) {
    const uint32_t address = kCanScheduleStorage + (uint32_t{ch} << 17);
    ScheduleImageHeader header;
    std::memset(&header, 0xFF, sizeof(header));
    header.magic = kCanScheduleMagic;
    header.tables = tables;
    for (unsigned i = 0; i < tables; ++i) {
        header.counts[i] = counts[i];
        header.params[i] = params[i];
    }
    const uint64_t frame_area = uint64_t{address} + kCanScheduleFrameArea;
    header.frame_area_low = static_cast<uint32_t>(frame_area);
    header.frame_area_high = static_cast<uint32_t>(frame_area >> 32);
    std::vector<uint8_t> image(sizeof(header) + n * sizeof(CAN_MSG));
    std::memcpy(image.data(), &header, sizeof(header));
    std::memcpy(image.data() + sizeof(header), frames, n * sizeof(CAN_MSG));
    if (!DEV_EraseSchData(dev, static_cast<int>(address))) return kBadAnswer;
    if (!DEV_WriteSchData(dev, static_cast<int>(address), image.data(), static_cast<int>(image.size())))
        return kBadAnswer;
    return kOk;
}

bool still_running(CAN_SCH_THREAD_PARAM* p) { return __atomic_load_n(&p->RunFlag, __ATOMIC_ACQUIRE) != 0; }

}  // namespace

namespace polybus {
void report_refusal(int answer_byte, int receive_status) {
    std::printf("res = %d ret = %d\n", answer_byte, receive_status);
    std::fflush(stdout);
}
}  // namespace polybus

extern "C" {

POLYBUS_API int CAN_SetSchedule(int dev, unsigned char ch, CAN_MSG* frames, unsigned char* counts, uint16_t* params,
                                unsigned char tables) {
    if (tables == 0) return 0;
    if (counts == nullptr || params == nullptr) return kBadAnswer;
    const size_t n = total_frames(counts, tables);
    if (n != 0 && frames == nullptr) return kBadAnswer;
    if (is_canfd_model(dev)) {
        std::vector<CANFD_MSG> fd(n);
        can_to_canfd(frames, fd.data(), n);
        // In a schedule the stamp is a pause in ms, not a time: it is not rescaled.
        for (size_t i = 0; i < n; ++i) {
            fd[i].TimeStamp = frames[i].TimeStamp;
            fd[i].TimeStampHigh = frames[i].TimeStampHigh;
        }
        return CANFD_SetSchedule(dev, ch, fd.data(), counts, params, tables);
    }
    const size_t size = 3 * size_t{tables} + n * sizeof(CAN_MSG);
    if (size >= kCanScheduleCommandLimit) return upload_to_storage(dev, ch, frames, n, counts, params, tables);
    return upload_command(dev, CAN_SET_SCHEDULE, ch, frames, n, counts, params, tables);
}

POLYBUS_API int CAN_StartSchedule(int dev, unsigned char ch, unsigned char p1, unsigned char p2, unsigned char p3) {
    if (is_canfd_model(dev)) return CANFD_StartSchedule(dev, ch, p1, p2, p3);
    Command request(CAN_START_SCHEDULE);
    request.u8(ch).u8(p1).u8(p2).u8(p3);
    return schedule_accepted(dev, request, 1000);
}

POLYBUS_API int CAN_StopSchedule(int dev, unsigned char ch) {
    if (is_canfd_model(dev)) return CANFD_StopSchedule(dev, ch);
    Command request(CAN_STOP_SCHEDULE);
    request.u8(ch);
    return schedule_stopped(dev, request);
}

POLYBUS_API int CANFD_SetSchedule(int dev, unsigned char ch, CANFD_MSG* frames, unsigned char* counts,
                                  uint16_t* params, unsigned char tables) {
    if (tables == 0) return 0;
    if (counts == nullptr || params == nullptr) return kBadAnswer;
    const size_t n = total_frames(counts, tables);
    if (n != 0 && frames == nullptr) return kBadAnswer;
    return upload_command(dev, CANFD_SET_SCHEDULE, ch, frames, n, counts, params, tables);
}

POLYBUS_API int CANFD_StartSchedule(int dev, unsigned char ch, unsigned char p1, unsigned char p2, unsigned char p3) {
    Command request(CANFD_START_SCHEDULE);
    request.u8(ch).u8(p1).u8(p2).u8(p3);
    return schedule_accepted(dev, request, 1000);
}

POLYBUS_API int CANFD_StopSchedule(int dev, unsigned char ch) {
    Command request(CANFD_STOP_SCHEDULE);
    request.u8(ch);
    return schedule_stopped(dev, request);
}

POLYBUS_API void* CAN_SchThread(void* arg) {
    auto* p = static_cast<CAN_SCH_THREAD_PARAM*>(arg);
    if (p == nullptr || p->pMsg == nullptr) return nullptr;
    for (uint32_t pass = 0; pass < p->SendTimes; ++pass) {
        for (int32_t i = 0; i < p->MsgNum && still_running(p); ++i) {
            // A copy goes out, so the pause is read before the send stamps the frame.
            CAN_MSG frame = p->pMsg[i];
            const int32_t pause_ms = static_cast<int32_t>(frame.TimeStamp);
            if (CAN_SendMsg(static_cast<int>(p->DevHandle), p->CANIndex, &frame, 1) < 0) break;
            if (pause_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        }
        if (!still_running(p)) break;
    }
    return nullptr;
}

}  // extern "C"
