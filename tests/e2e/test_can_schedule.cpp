// Transmit schedules: upload in one command or into schedule storage, playback by the
// adapter with the frames' pauses, start and stop, and the host-played variant.
#include <atomic>
#include <cstring>
#include <thread>

#include "can_fixture.h"
#include "expect_request.h"
#include "wire/can.h"
#include "wire/canfd.h"
#include "wire/device.h"
#include "device_model.h"

using namespace can_test;
using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

namespace {
class Schedule : public CanKindTest {
protected:
    // `tables` tables of `per_table` frames; frame k of table t has ID 0x100 * (t + 1) + k.
    void build(int tables, int per_table, uint32_t pause_ms) {
        frames.clear();
        counts.assign(tables, static_cast<unsigned char>(per_table));
        params.assign(tables, 0);
        for (int t = 0; t < tables; ++t)
            for (int k = 0; k < per_table; ++k) {
                CAN_MSG m = make_frame(0x100 * (t + 1) + k, 8, uint8_t(k));
                m.TimeStamp = pause_ms;
                frames.push_back(m);
            }
    }
    int upload(unsigned char ch) {
        return CAN_SetSchedule(handle, ch, frames.data(), counts.data(), params.data(),
                               static_cast<unsigned char>(counts.size()));
    }
    std::vector<CAN_MSG> frames;
    std::vector<unsigned char> counts;
    std::vector<uint16_t> params;
};
class ClassicSchedule : public Schedule {};
}  // namespace

INSTANTIATE_TEST_SUITE_P(Adapters, Schedule, ::testing::Values(kClassic, kMulti, kFd), kind_name);
INSTANTIATE_TEST_SUITE_P(Adapters, ClassicSchedule, ::testing::Values(kClassic, kMulti), kind_name);

TEST_P(Schedule, TheAdapterPlaysTablesWithTheirPauses) {
    open_channels(500000);
    build(2, 2, 5);
    params[1] = 2;  // table 1 twice per pass
    ASSERT_EQ(upload(0), 0);
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].command, fd() ? uint32_t{CANFD_SET_SCHEDULE} : uint32_t{CAN_SET_SCHEDULE});
    EXPECT_EQ(trace->gets()[0].timeout_ms, 5000);
    const size_t record = fd() ? sizeof(CANFD_MSG) : sizeof(CAN_MSG);
    EXPECT_EQ(sends[0].length, 2 + 2 * 3 + 4 * record);
    EXPECT_REQUEST(sends[0], request(fd() ? uint32_t{CANFD_SET_SCHEDULE} : uint32_t{CAN_SET_SCHEDULE})
                                 .u8(0, "channel").u8(2, "tables").u8(2, "frames of table 0")
                                 .u8(2, "frames of table 1").le16(0, "parameter of table 0")
                                 .le16(2, "parameter of table 1").and_more());
    // The pause travels unscaled, also in CAN FD records.
    uint32_t pause;
    std::memcpy(&pause, sends[0].data.data() + 8 + (fd() ? 8 : 4), 4);
    EXPECT_EQ(pause, 5u);

    trace->clear();
    ASSERT_EQ(CAN_StartSchedule(handle, 0, 0xFF, 1, 0), 0);  // all tables, one pass
    EXPECT_REQUEST(trace->sends()[0], request(fd() ? uint32_t{CANFD_START_SCHEDULE} : uint32_t{CAN_START_SCHEDULE})
                                          .u8(0, "channel").u8(0xFF, "all tables").u8(1, "passes").u8(0));
    ASSERT_TRUE(eventually([&] { return can().pending(1) >= 6; }));
    auto got = take_all(1);
    ASSERT_EQ(got.size(), 6u);
    const uint32_t order[] = {0x100, 0x101, 0x200, 0x201, 0x200, 0x201};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(got[i].ID, order[i]);
        if (i > 0) {
            const uint32_t gap = got[i].TimeStamp - got[i - 1].TimeStamp;  // 100 us units
            EXPECT_GE(gap, 50u) << "5 ms pause after each frame";
            EXPECT_LE(gap, 250u);
        }
    }
    EXPECT_FALSE(can().channel(0).schedule_running) << "one pass only";

    // Endless play until stopped.
    ASSERT_EQ(CAN_StartSchedule(handle, 0, 1, 0, 0), 0);
    ASSERT_TRUE(eventually([&] { return can().channel(0).schedule_frames >= 10; }));
    trace->clear();
    ASSERT_EQ(CAN_StopSchedule(handle, 0), 0);
    EXPECT_EQ(trace->sends()[0].command, fd() ? uint32_t{CANFD_STOP_SCHEDULE} : uint32_t{CAN_STOP_SCHEDULE});
    const uint64_t played = can().channel(0).schedule_frames;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(can().channel(0).schedule_frames, played);

    // A start the adapter refuses (no such table) prints the line and fails.
    CaptureStdout();
    EXPECT_EQ(CAN_StartSchedule(handle, 0, 7, 0, 0), -4);
    EXPECT_EQ(GetCapturedStdout(), "res = 1 ret = 0\n");
    EXPECT_EQ(CAN_SetSchedule(handle, 0, frames.data(), counts.data(), params.data(), 0), 0);
    adapter->inject(Fault::Oversized, fd() ? uint32_t{CANFD_STOP_SCHEDULE} : uint32_t{CAN_STOP_SCHEDULE});
    EXPECT_EQ(CAN_StopSchedule(handle, 0), 0) << "the stop answer's content is not judged";
}

TEST_P(ClassicSchedule, SmallSchedulesGoInOneCommand) {
    build(3, 100, 1);
    ASSERT_EQ(upload(0), 0);
    ASSERT_EQ(trace->sends().size(), 1u);
    EXPECT_EQ(trace->sends()[0].length, 6011u);
    trace->clear();
    build(3, 170, 1);  // 10209 bytes: the largest that still fits
    ASSERT_EQ(upload(1), 0);
    ASSERT_EQ(trace->sends().size(), 1u);
    EXPECT_EQ(trace->sends()[0].command, uint32_t{CAN_SET_SCHEDULE});
    EXPECT_EQ(trace->sends()[0].length, 10211u);

    // An upload answered without its verdict byte fails: the line is printed.
    adapter->inject(Fault::EmptyPayload, CAN_SET_SCHEDULE);
    build(1, 1, 1);
    CaptureStdout();
    EXPECT_EQ(upload(0), -4);
    EXPECT_EQ(GetCapturedStdout(), "res = -1 ret = 0\n") << "no answer byte came";
}

TEST_P(ClassicSchedule, LargeSchedulesGoToStorageAndPlayFromThere) {
    open_channels(1000000);
    build(3, 171, 0);  // 10269 bytes
    params = {1, 0, 7};
    for (auto& m : frames) m.TimeStamp = 0;
    ASSERT_EQ(upload(1), 0);
    auto sends = trace->sends();
    ASSERT_GE(sends.size(), 2u);
    EXPECT_REQUEST(sends[0], request(DEV_ERASE_SCH_DATA).be32(0x080E0000, "channel 1's storage"));
    size_t written = 0;
    for (size_t i = 1; i < sends.size(); ++i) {
        EXPECT_REQUEST(sends[i], request(DEV_WRITE_SCH_DATA).be32(0x080E0000, "address").and_more());
        written += sends[i].length - 4;
    }
    EXPECT_EQ(written, 784u + 513 * 20);

    auto area = model<DeviceModel>().schedule_data();
    const uint8_t* h = area.data() + 0x20000;
    EXPECT_EQ(std::vector<uint8_t>(h, h + 11), (std::vector<uint8_t>{0x8B, 0x53, 0x21, 0x9A, 3, 0, 0, 0, 171, 171, 171}));
    EXPECT_EQ(h[11], 0xFF) << "unused bytes stay erased";
    EXPECT_EQ(std::vector<uint8_t>(h + 264, h + 270), (std::vector<uint8_t>{1, 0, 0, 0, 7, 0}));
    EXPECT_EQ(std::vector<uint8_t>(h + 776, h + 784), (std::vector<uint8_t>{0x10, 0x03, 0x0E, 0x08, 0, 0, 0, 0}));
    CAN_MSG first;
    std::memcpy(&first, h + 784, sizeof(first));
    EXPECT_EQ(first.ID, 0x100u);

    // Channel 0's storage is its own; channel 1 plays table 2 (7 times) from storage.
    build(3, 171, 0);
    ASSERT_EQ(upload(0), 0);
    EXPECT_EQ(trace->sends().back().command, uint32_t{DEV_WRITE_SCH_DATA});
    ASSERT_EQ(CAN_StartSchedule(handle, 1, 2, 1, 0), 0);
    ASSERT_TRUE(eventually([&] { return can().pending(0) >= 7 * 171; }));
    auto got = take_all(0);
    ASSERT_EQ(got.size(), 7u * 171u);
    EXPECT_EQ(got[0].ID, 0x300u);
    EXPECT_EQ(got.back().ID, 0x300u + 170);

    // An upload by command afterwards takes over again.
    build(1, 1, 0);
    ASSERT_EQ(upload(1), 0);
    ASSERT_EQ(CAN_StartSchedule(handle, 1, 0, 1, 0), 0);
    ASSERT_TRUE(eventually([&] { return can().pending(0) >= 1; }));
    EXPECT_EQ(take_all(0)[0].ID, 0x100u);

    adapter->inject(Fault::Oversized, DEV_ERASE_SCH_DATA);
    build(3, 171, 0);
    EXPECT_EQ(upload(0), -4);
    EXPECT_EQ(CAN_SetSchedule(handle, 0, nullptr, counts.data(), params.data(), 3), -4);
}

TEST_P(Schedule, TheHostCanPlayAScheduleItself) {
    open_channels(1000000);
    std::vector<CAN_MSG> table = {make_frame(0x10, 1, 0), make_frame(0x11, 1, 0), make_frame(0x12, 1, 0)};
    for (auto& m : table) m.TimeStamp = 2;
    const std::vector<CAN_MSG> original = table;
    CAN_SCH_THREAD_PARAM p{};
    p.DevHandle = static_cast<uint32_t>(handle);
    p.CANIndex = 0;
    p.RunFlag = 1;
    p.MsgNum = 3;
    p.SendTimes = 2;
    p.pMsg = table.data();
    std::thread runner(CAN_SchThread, &p);
    runner.join();
    auto got = take_all(1);
    ASSERT_EQ(got.size(), 6u);
    EXPECT_EQ(got[3].ID, 0x10u);
    EXPECT_GE(got[1].TimeStamp - got[0].TimeStamp, 20u) << "2 ms after each frame";
    EXPECT_EQ(std::memcmp(table.data(), original.data(), sizeof(CAN_MSG) * 3), 0) << "the caller's frames are kept";

    // A cleared run flag ends it after the current frame; no passes, no frames.
    p.SendTimes = 1000;
    for (auto& m : table) m.TimeStamp = 1;
    std::thread endless(CAN_SchThread, &p);
    ASSERT_TRUE(eventually([&] { return can().pending(1) >= 4; }));
    __atomic_store_n(&p.RunFlag, 0, __ATOMIC_RELEASE);
    endless.join();
    p.RunFlag = 1;
    p.SendTimes = 0;
    take_all(1);
    CAN_SchThread(&p);
    EXPECT_TRUE(take_all(1).empty());
    EXPECT_EQ(CAN_SchThread(nullptr), nullptr);
}
