// LIN from several threads at once: master batches, the traffic buffer and channel
// set-up in parallel, while the adapter runs a schedule on another channel.
#include <atomic>
#include <thread>
#include <vector>

#include "lin_model.h"
#include "polybus/lin_uds.h"
#include "sim_fixture.h"

using namespace polybus_sim;
using namespace polybus_test;

namespace {
class LinThreaded : public SimTest {};
}  // namespace

TEST_F(LinThreaded, BatchesBuffersAndScheduleInParallel) {
    auto& lin = model<LinModel>();
    lin.set_time_scale(0.05);
    ASSERT_EQ(LIN_EX_Init(handle, 0, 19200, 1), 0);
    ASSERT_EQ(LIN_EX_Init(handle, 2, 19200, 1), 0);
    lin.add_slave(0, {0x10, {1, 2, 3}, true});
    lin.add_slave(2, {0x11, {4, 5}, false});
    LIN_EX_MSG sch[2] = {};
    sch[0].MsgType = LIN_EX_MSG_MASTER_READ;
    sch[0].PID = 0x11;
    sch[0].TimeStamp = 1;
    sch[1].MsgType = LIN_EX_MSG_MASTER_WRITE;
    sch[1].PID = 0x12;
    sch[1].DataLen = 2;
    ASSERT_EQ(LIN_EX_MasterStartSch(handle, 2, sch, 2), 0);

    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        LIN_EX_MSG in[2] = {}, out[2];
        in[0].MsgType = LIN_EX_MSG_MASTER_READ;
        in[0].PID = 0x10;
        in[1].MsgType = LIN_EX_MSG_MASTER_WRITE;
        in[1].PID = 0x20;
        in[1].DataLen = 1;
        for (int i = 0; i < 40; ++i) {
            if (LIN_EX_MasterSync(handle, 0, in, out, 2) != 2 || out[0].CheckType != LIN_EX_CHECK_ENHANCED) ++bad;
            LIN_USD_SetLINMsgToBuffer(handle, 0, out, 2);
        }
    });
    threads.emplace_back([&] {
        LIN_EX_MSG drained[16];
        for (int i = 0; i < 200; ++i) {
            LIN_UDS_GetMsgFromUDSBuffer(handle, 0, drained, 16);
            if (i % 50 == 0) LIN_USD_ClearCANMsgFromUDSBuffer(handle, 0);
        }
    });
    threads.emplace_back([&] {
        LIN_EX_MSG got[LIN_EX_MAX_RECORDS];
        for (int i = 0; i < 40; ++i) {
            if (LIN_EX_Init(handle, 1, 9600 + i, 1) != 0) ++bad;
            if (LIN_EX_MasterGetSch(handle, 2, got) < 0) ++bad;
        }
    });
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(LIN_EX_MasterStopSch(handle, 2), 0);
    EXPECT_GT(lin.channel(2).schedule_frames, 0u);
}
