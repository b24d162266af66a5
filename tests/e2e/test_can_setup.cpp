// Channel set-up on the wire: init and filter commands on classic adapters, their
// conversion on CAN FD adapters, and the relay settings kept in the user-data area.
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "can_fixture.h"
#include "device_model.h"
#include "expect_request.h"
#include "wire/can.h"
#include "wire/canfd.h"
#include "wire/device.h"

using namespace can_test;
using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {
class ClassicSetup : public CanKindTest {};
class FdSetup : public CanKindTest {};

std::vector<uint8_t> bytes(std::initializer_list<int> v) {
    std::vector<uint8_t> out;
    for (int b : v) out.push_back(static_cast<uint8_t>(b));
    return out;
}

CAN_INIT_CONFIG config(uint32_t brp, uint8_t sjw, uint8_t bs1, uint8_t bs2) {
    CAN_INIT_CONFIG c{};
    c.CAN_BRP = brp;
    c.CAN_SJW = sjw;
    c.CAN_BS1 = bs1;
    c.CAN_BS2 = bs2;
    c.CAN_Mode = 0x80;
    c.CAN_ABOM = 1;
    return c;
}
}  // namespace

INSTANTIATE_TEST_SUITE_P(Adapters, ClassicSetup, ::testing::Values(kClassic, kMulti), kind_name);
INSTANTIATE_TEST_SUITE_P(Adapters, FdSetup, ::testing::Values(kFd, kFd2), kind_name);

TEST_P(ClassicSetup, InitSendsRegisterCodesAndAnchorsTheTimeBase) {
    CAN_INIT_CONFIG c = config(0x12304, 2, 15, 5);
    c.CAN_NART = 3;  // only bit 0 counts
    c.CAN_RFLM = 1;
    c.CAN_TXFP = 2;
    ASSERT_EQ(CAN_Init(handle, 0, &c), 0);
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_REQUEST(sends[0], request(CAN_INIT)
                                 .u8(0, "channel").u8(0).u8(1, "ABOM").u8(0).u8(1, "NART bit 0").u8(1, "RFLM")
                                 .u8(0, "TXFP bit 0").u8(0x80, "mode").u8(1, "SJW code").u8(14, "BS1 code")
                                 .u8(4, "BS2 code").be16(0x2304, "prescaler, low 16 bits"));
    EXPECT_REQUEST(sends[1], request(DEV_GET_TIMESTAMP).u8(0, "selector"))
        << "the adapter's clock is read after a successful init";
    EXPECT_EQ(trace->gets()[0].timeout_ms, 1000);
    EXPECT_TRUE(can().channel(0).initialised);

    // A zero segment still goes as 1 on channels 0 and 1; other channels get the values.
    trace->clear();
    c = config(4, 0, 0, 5);
    ASSERT_EQ(CAN_Init(handle, 1, &c), 0);
    ASSERT_EQ(CAN_Init(handle, 2, &c), 0);
    sends = trace->sends();
    ASSERT_EQ(sends.size(), 4u);
    EXPECT_EQ(std::vector<uint8_t>(sends[0].data.begin() + 8, sends[0].data.end()), bytes({1, 1, 4, 0, 4}));
    EXPECT_EQ(sends[2].data[0], 2);
    EXPECT_EQ(std::vector<uint8_t>(sends[2].data.begin() + 8, sends[2].data.end()), bytes({0, 0, 5, 0, 4}));

    // The model derives the bit rate from what arrived.
    ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, 250000), 0);
    ASSERT_EQ(CAN_Init(handle, 0, &c), 0);
    EXPECT_EQ(can().channel(0).nominal_bps, 250000u);

    // A failed init does not read the clock.
    trace->clear();
    adapter->inject(Fault::Oversized, CAN_INIT);
    EXPECT_EQ(CAN_Init(handle, 0, &c), -4) << "only an empty answer is good";
    EXPECT_EQ(trace->sends().size(), 1u);
    EXPECT_EQ(CAN_Init(handle, 0, &c), 0);
    EXPECT_EQ(CAN_Init(handle, 0, nullptr), -4);
}

TEST_P(ClassicSetup, FilterRegistersAndBanks) {
    CAN_FILTER_CONFIG f{};
    f.Enable = 1;
    f.FilterIndex = 15;  // bank 1 x 14 + 15 mod 14
    f.ExtFrame = 1;
    f.IdValue = 0x1ABCDEF5;
    f.IdIde = 1;
    f.MaskValue = 0x1FFFFFFF;
    f.MaskIde = 1;
    f.MaskRtr = 3;
    ASSERT_EQ(CAN_Filter_Init(handle, 1, &f), 0);
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_REQUEST(sends[0], request(CAN_SET_FILTER)
                                 .u8(1, "channel").u8(15, "bank").u8(0, "mask mode").u8(1, "32-bit scale")
                                 .be32(0xD5E6F7AC, "identifier register").be32(0xFFFFFFFE, "mask register")
                                 .u8(0).u8(1, "enable"));

    // List mode: the mask register keeps only its IDE and RTR bits; 11-bit identifiers.
    trace->clear();
    f.FilterMode = 1;
    f.ExtFrame = 2;  // anything but 1 is 11-bit
    f.IdValue = 0x123;
    f.IdIde = 0;
    f.IdRtr = 1;
    f.FilterIndex = 3;
    f.Enable = 0;
    ASSERT_EQ(CAN_Filter_Init(handle, 0, &f), 0);
    EXPECT_REQUEST(trace->sends()[0], request(CAN_SET_FILTER)
                                          .u8(0, "channel").u8(3, "bank").u8(1, "list mode").u8(1, "32-bit scale")
                                          .be32(0x24600002, "identifier register")
                                          .be32(6, "mask register: IDE and RTR only").u8(0).u8(0, "enable"));
    adapter->inject(Fault::Oversized, CAN_SET_FILTER);
    EXPECT_EQ(CAN_Filter_Init(handle, 0, &f), -4);
    EXPECT_EQ(CAN_Filter_Init(handle, 0, nullptr), -4);
}

TEST_P(ClassicSetup, StopClosesTheChannelAndEmptiesItsBuffer) {
    open_channels();
    CAN_MSG m = make_frame(1, 1, 1);
    ASSERT_EQ(CAN_SetCANMsgToBuffer(handle, 0, &m, 1), 0);
    trace->clear();
    ASSERT_EQ(CAN_Stop(handle, 0), 0);
    auto sends = trace->sends();
    ASSERT_GE(sends.size(), 2u);
    EXPECT_EQ(sends[0].command, uint32_t{CAN_STOP});
    EXPECT_EQ(sends[1].command, uint32_t{CAN_READ}) << "the adapter is drained as the buffer is emptied";
    // The emptied buffer and the channel off the bus: CanTransfer.OnlyInitialisedChannelsAtTheSameRateTalk.
    adapter->inject(Fault::Oversized, CAN_STOP);
    EXPECT_EQ(CAN_Stop(handle, 1), -4);
}

TEST_P(ClassicSetup, RelaySettingsRoundTripThroughUserData) {
    CAN_RELAY_HEADER header{};
    for (int i = 0; i < 44; ++i) header.Settings[i] = uint8_t(i * 3);
    header.EntryCount = 3;
    std::vector<uint8_t> entries(3 * CAN_RELAY_ENTRY_SIZE);
    for (size_t i = 0; i < entries.size(); ++i) entries[i] = uint8_t(i * 7 + 1);
    ASSERT_EQ(CAN_SetRelayData(handle, &header, entries.data()), 0);
    auto stored = model<DeviceModel>().user_data();
    EXPECT_EQ(std::vector<uint8_t>(stored.begin(), stored.begin() + 12),
              bytes({0xC0, 0xF5, 0xB0, 0x7B, 0x03, 0x00, 0x03, 0x00, 0x28, 0x02, 0, 0}));  // 48 + 3 x 168
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 3u);
    EXPECT_REQUEST(sends[0], request(DEV_ERASE_USER_DATA));
    EXPECT_REQUEST(sends[1], request(DEV_WRITE_USER_DATA)
                                 .be32(0, "offset").le32(0x7BB0F5C0, "magic").le32(0x00030003, "format")
                                 .le32(48 + 3 * 168, "length").record(header).bytes(entries, "entries"));
    EXPECT_REQUEST(sends[2], request(DEV_READ_USER_DATA).be32(0, "offset").be32(60 + 3 * 168, "length"))
        << "written back and compared";

    CAN_RELAY_HEADER back{};
    std::vector<uint8_t> back_entries(CAN_RELAY_MAX_ENTRIES * CAN_RELAY_ENTRY_SIZE, 0);
    ASSERT_EQ(CAN_GetRelayData(handle, &back, back_entries.data()), 3);
    EXPECT_EQ(std::memcmp(&back, &header, sizeof(header)), 0);
    EXPECT_TRUE(std::equal(entries.begin(), entries.end(), back_entries.begin()));
    EXPECT_EQ(back_entries[entries.size()], 0) << "nothing beyond the stored entries";
    EXPECT_REQUEST(trace->sends().back(), request(DEV_READ_USER_DATA).be32(0, "offset").be32(10812, "length"));

    // A read-back that differs fails the write.
    adapter->inject(Fault::ShortPayload, DEV_READ_USER_DATA);
    EXPECT_EQ(CAN_SetRelayData(handle, &header, entries.data()), -4);
    // Too many entries for one user-data write: refused after the erase.
    header.EntryCount = 122;
    std::vector<uint8_t> many(122 * CAN_RELAY_ENTRY_SIZE, 1);
    EXPECT_EQ(CAN_SetRelayData(handle, &header, many.data()), -4);
    EXPECT_EQ(CAN_GetRelayData(handle, &back, back_entries.data()), 0) << "erased: nothing valid stored";
    EXPECT_EQ(CAN_SetRelayData(handle, nullptr, entries.data()), -4);

    // More entries stored than 64: only what the read covers comes back.
    header.EntryCount = 100;
    std::vector<uint8_t> block(60, 0);
    const uint32_t words[3] = {0x7BB0F5C0u, 0x00030003u, 48 + 100 * 168};
    std::memcpy(block.data(), words, 12);
    std::memcpy(block.data() + 12, &header, 48);
    block.resize(60 + 100 * 168 > 20480 ? 20480 : 60 + 100 * 168, 0x5A);
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, block.data(), static_cast<int>(block.size())));
    EXPECT_EQ(CAN_GetRelayData(handle, &back, back_entries.data()), CAN_RELAY_MAX_ENTRIES);
    EXPECT_EQ(back_entries.back(), 0x5A);
    USB_CloseDevice(handle);
    EXPECT_EQ(CAN_GetRelayData(handle, &back, back_entries.data()), -4);
    EXPECT_EQ(CAN_SetRelayData(handle, &header, entries.data()), -4);
}

TEST_P(FdSetup, ClassicCallsBecomeCanFdCommands) {
    CAN_INIT_CONFIG c = config(0x1FF, 2, 59, 20);
    c.CAN_Mode = 0x81;
    ASSERT_EQ(CAN_Init(handle, 1, &c), 0);
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 1u) << "no clock read on CAN FD adapters";
    EXPECT_REQUEST(sends[0], request(CANFD_INIT)
                                 .u8(1, "channel").u8(1, "mode").u8(0, "option 1").u8(1, "option 2")
                                 .u8(1, "termination").u8(0xFF, "nominal prescaler").u8(59, "nominal seg 1")
                                 .u8(20, "nominal seg 2").u8(2, "nominal SJW").zeros(12, "data phase unset"));
    EXPECT_EQ(can().channel(1).nominal_bps, 40000000u / (255 * 80));

    trace->clear();
    CAN_FILTER_CONFIG f{};
    f.Enable = 1;
    f.FilterIndex = 20;
    f.IdValue = 0x123;
    f.IdRtr = 1;
    f.IdIde = 1;
    f.MaskValue = 0x7FF;
    f.MaskIde = 1;
    ASSERT_EQ(CAN_Filter_Init(handle, 1, &f), 0);
    f.FilterMode = 1;
    ASSERT_EQ(CAN_Filter_Init(handle, 1, &f), 0);
    sends = trace->sends();
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_REQUEST(sends[0], request(CANFD_SET_FILTER)
                                 .u8(1, "channel").u8(1, "enable").u8(20, "index").zeros(2)
                                 .le32(0xC0000123, "identifier, IDE and RTR bits").le32(0x800007FF, "mask"));
    EXPECT_REQUEST(sends[1], request(CANFD_SET_FILTER)
                                 .u8(1, "channel").u8(1, "enable").u8(20, "index").zeros(2)
                                 .le32(0xC0000123, "identifier").le32(0xFFFFFFFF, "list mode: every bit"));

    trace->clear();
    ASSERT_EQ(CAN_Stop(handle, 1), 0);
    sends = trace->sends();
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].command, uint32_t{CANFD_STOP});
    EXPECT_EQ(sends[1].command, uint32_t{CANFD_READ});
    adapter->inject(Fault::Oversized, CANFD_STOP);
    EXPECT_EQ(CAN_Stop(handle, 1), -4);
}

// Relay data exists on classic adapters only: for a CAN FD handle the CAN_ and CANFD_
// calls hand the call to each other forever. A child process shows it never returns.
TEST_P(FdSetup, RelayDataCallsNeverReturn) {
    auto never_returns = [&](int (*call)(int, CAN_RELAY_HEADER*, unsigned char*)) {
        const pid_t child = fork();
        if (child == 0) {
            itimerval quarter{};
            quarter.it_value.tv_usec = 250000;
            setitimer(ITIMER_REAL, &quarter, nullptr);
            CAN_RELAY_HEADER h{};
            unsigned char e[CAN_RELAY_ENTRY_SIZE] = {0};
            call(handle, &h, e);
            _exit(0);
        }
        return child;
    };
    const pid_t children[] = {never_returns(CAN_SetRelayData), never_returns(CAN_GetRelayData),
                              never_returns(CANFD_SetRelayData), never_returns(CANFD_GetRelayData)};
    for (pid_t child : children) {
        ASSERT_GT(child, 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM);
    }
    EXPECT_TRUE(adapter->received().empty()) << "nothing reaches the adapter";
}
