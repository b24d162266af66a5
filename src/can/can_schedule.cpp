// Transmit schedules: tables of frames the adapter sends by itself, each followed by its
// pause. Small schedules are uploaded in one command; large ones are written into the
// adapter's schedule storage, from where the adapter plays them.
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "can/can_internal.h"
#include "polybus/usb_device.h"
#include "transport/exchange.h"

using namespace polybus;

namespace {

// Schedules of this many payload bytes or more (3 per table + 20 per frame) do not fit
// one upload command and go to storage.
constexpr size_t kCommandLimit = 10238;
constexpr uint32_t kStorageBase = 0x080C0000u;
constexpr uint32_t kStorageMagic = 0x9A21538Bu;
constexpr size_t kStorageHeader = 784;  // magic, tables, 256 counts, 256 parameters, frame address
constexpr uint32_t kFrameAreaOffset = 0x310;

size_t total_frames(const unsigned char* counts, unsigned tables) {
    size_t n = 0;
    for (unsigned i = 0; i < tables; ++i) n += counts[i];
    return n;
}

// Upload, start and stop share one shape: a request, then a receive that must succeed
// and, for upload and start, an answer byte of 0.
int run_schedule_command(int dev, Command& request, int get_ms, bool judge_answer_byte) {
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer, {1000, get_ms});
    if (rc == -2) return -2;
    if (!judge_answer_byte) return rc == 0 ? 0 : -4;
    if (rc == 0 && answer.received >= 1 && answer.u8(0) == 0) return 0;
    report_refusal(answer.received >= 1 ? answer.u8(0) : -1, rc == 0 ? 0 : -3);
    return -4;
}

template <typename Msg>
int upload_command(int dev, uint32_t code, unsigned char ch, const Msg* frames, size_t n, const unsigned char* counts,
                   const uint16_t* params, unsigned char tables) {
    Command request(code, 2 + 3 * size_t{tables} + n * sizeof(Msg));
    request.u8(ch).u8(tables).bytes(counts, tables);
    for (unsigned i = 0; i < tables; ++i) {
        uint8_t le[2];
        put_le16(le, params[i]);  // the table parameters travel in host order
        request.bytes(le, 2);
    }
    request.bytes(frames, n * sizeof(Msg));
    return run_schedule_command(dev, request, 5000, true);
}

int upload_to_storage(int dev, unsigned char ch, const CAN_MSG* frames, size_t n, const unsigned char* counts,
                      const uint16_t* params, unsigned char tables) {
    const uint32_t address = kStorageBase + (uint32_t{ch} << 17);
    std::vector<uint8_t> image(kStorageHeader + n * sizeof(CAN_MSG), 0xFF);
    put_le32(image.data(), kStorageMagic);
    put_le32(image.data() + 4, tables);
    for (unsigned i = 0; i < tables; ++i) {
        image[8 + i] = counts[i];
        put_le16(image.data() + 264 + 2 * i, params[i]);
    }
    const uint64_t frame_area = uint64_t{address} + kFrameAreaOffset;
    put_le32(image.data() + 776, static_cast<uint32_t>(frame_area));
    put_le32(image.data() + 780, static_cast<uint32_t>(frame_area >> 32));
    std::memcpy(image.data() + kStorageHeader, frames, n * sizeof(CAN_MSG));
    if (!DEV_EraseSchData(dev, static_cast<int>(address))) return -4;
    if (!DEV_WriteSchData(dev, static_cast<int>(address), image.data(), static_cast<int>(image.size()))) return -4;
    return 0;
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
    if (counts == nullptr || params == nullptr) return -4;
    const size_t n = total_frames(counts, tables);
    if (n != 0 && frames == nullptr) return -4;
    if (is_canfd_handle(dev)) {
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
    if (size >= kCommandLimit) return upload_to_storage(dev, ch, frames, n, counts, params, tables);
    return upload_command(dev, 0xC08, ch, frames, n, counts, params, tables);
}

POLYBUS_API int CAN_StartSchedule(int dev, unsigned char ch, unsigned char p1, unsigned char p2, unsigned char p3) {
    if (is_canfd_handle(dev)) return CANFD_StartSchedule(dev, ch, p1, p2, p3);
    Command request(0xC05);
    request.u8(ch).u8(p1).u8(p2).u8(p3);
    return run_schedule_command(dev, request, 1000, true);
}

POLYBUS_API int CAN_StopSchedule(int dev, unsigned char ch) {
    if (is_canfd_handle(dev)) return CANFD_StopSchedule(dev, ch);
    Command request(0xC06);
    request.u8(ch);
    return run_schedule_command(dev, request, 1000, false);
}

POLYBUS_API int CANFD_SetSchedule(int dev, unsigned char ch, CANFD_MSG* frames, unsigned char* counts,
                                  uint16_t* params, unsigned char tables) {
    if (tables == 0) return 0;
    if (counts == nullptr || params == nullptr) return -4;
    const size_t n = total_frames(counts, tables);
    if (n != 0 && frames == nullptr) return -4;
    return upload_command(dev, 0x400B, ch, frames, n, counts, params, tables);
}

POLYBUS_API int CANFD_StartSchedule(int dev, unsigned char ch, unsigned char p1, unsigned char p2, unsigned char p3) {
    Command request(0x4006);
    request.u8(ch).u8(p1).u8(p2).u8(p3);
    return run_schedule_command(dev, request, 1000, true);
}

POLYBUS_API int CANFD_StopSchedule(int dev, unsigned char ch) {
    Command request(0x4007);
    request.u8(ch);
    return run_schedule_command(dev, request, 1000, false);
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
