// Pure CAN code: bit-timing look-ups, the receive ring, the time-stamp sort, record
// conversion between CAN and CAN FD, and the CAN FD adapters' packed frame format.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "can/can_internal.h"
#include "can/canfd_wire.h"
#include "polybus/polybus.h"

using namespace polybus;

namespace {
constexpr int kClassic42 = 0x41000001;
constexpr int kClassic100 = 0x21000001;
constexpr int kFd = 0x53000001;

CAN_MSG frame(uint32_t id, uint32_t stamp) {
    CAN_MSG m{};
    m.ID = id;
    m.TimeStamp = stamp;
    return m;
}
}  // namespace

TEST(CanTiming, RatesComeFromTheTableOfTheHandlesKind) {
    CAN_INIT_CONFIG c{};
    ASSERT_EQ(CAN_GetCANSpeedArg(kClassic42, &c, 500000), 0);
    EXPECT_EQ(c.CAN_BRP, 4u);
    EXPECT_EQ(c.CAN_SJW, 2);
    EXPECT_EQ(c.CAN_BS1, 15);
    EXPECT_EQ(c.CAN_BS2, 5);
    EXPECT_EQ(c.CAN_Mode, 0x80);
    EXPECT_EQ(c.CAN_ABOM, 1);
    EXPECT_EQ(c.CAN_NART | c.CAN_RFLM | c.CAN_TXFP, 0);
    ASSERT_EQ(CAN_GetCANSpeedArg(kClassic100, &c, 500000), 0);
    EXPECT_EQ(c.CAN_BRP, 10u);
    EXPECT_EQ(c.CAN_BS1, 14);
    ASSERT_EQ(CAN_GetCANSpeedArg(kFd, &c, 125000), 0);
    EXPECT_EQ(c.CAN_BRP, 2u);
    EXPECT_EQ(c.CAN_SJW, 2);
    EXPECT_EQ(c.CAN_BS1, 119);
    EXPECT_EQ(c.CAN_BS2, 40);
    // The whole top nibble 0x5 selects the CAN FD table, even for models that are not 0x53/0x54.
    ASSERT_EQ(CAN_GetCANSpeedArg(0x51000001, &c, 83000), 0);
    EXPECT_EQ(c.CAN_BRP, 3u);
    // The odd rows are kept as the firmware expects them.
    ASSERT_EQ(CAN_GetCANSpeedArg(kClassic100, &c, 80000), 0);
    EXPECT_EQ(c.CAN_BRP, 278u);
    EXPECT_EQ(c.CAN_BS1, 1);
    EXPECT_EQ(c.CAN_BS2, 3);

    // Rate 0 matches the end row; unlisted rates leave the record untouched.
    for (int handle : {kClassic42, kClassic100, kFd}) {
        c.CAN_BRP = 99;
        ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, 0), 0);
        EXPECT_EQ(c.CAN_BRP, 0u);
        EXPECT_EQ(c.CAN_SJW | c.CAN_BS1 | c.CAN_BS2, 0);
        CAN_INIT_CONFIG untouched;
        std::memset(&untouched, 0xA5, sizeof(untouched));
        CAN_INIT_CONFIG copy = untouched;
        EXPECT_EQ(CAN_GetCANSpeedArg(handle, &untouched, 123456), -4);
        EXPECT_EQ(std::memcmp(&copy, &untouched, sizeof(copy)), 0);
    }
    EXPECT_EQ(CAN_GetCANSpeedArg(kFd, &c, 900000), -4) << "listed for classic adapters only";
    EXPECT_EQ(CAN_GetCANSpeedArg(kClassic42, nullptr, 500000), -4);
}

// A typo in a table (a digit of a prescaler or a segment) moves its rate far off; the
// listed rows are within 3 % of their clock's arithmetic, apart from the two 100 MHz rows
// the firmware expects as they are.
TEST(CanTiming, TablesMatchTheirClocks) {
    struct Table {
        const CAN_BRT_ENTRY* rows;
        int count;
        double clock;
    } tables[] = {{CAN_BRT_TALMERA, 30, 42e6}, {CAN_BRT_ORVELIN, 30, 100e6}, {CAN_BRT_QUENDRIX_NBT, 17, 40e6},
                  {CAN_BRT_QUENDRIX_DBT, 23, 40e6}};
    for (const Table& t : tables) {
        for (int i = 0; i < t.count - 1; ++i) {
            const CAN_BRT_ENTRY& r = t.rows[i];
            if (t.rows == CAN_BRT_ORVELIN && (r.BaudRate == 90000 || r.BaudRate == 80000)) continue;
            ASSERT_NE(r.BaudRate, 0u);
            if (i > 0) {
                EXPECT_LT(r.BaudRate, t.rows[i - 1].BaudRate) << "rows run from fast to slow";
            }
            EXPECT_NEAR(t.clock / (r.BRP * (1.0 + r.BS1 + r.BS2)) / r.BaudRate, 1.0, 0.03) << r.BaudRate;
        }
        const CAN_BRT_ENTRY& end = t.rows[t.count - 1];
        EXPECT_EQ(end.BaudRate | end.BRP | end.SJW | end.BS1 | end.BS2 | end.Reserved, 0u);
    }
    EXPECT_EQ(CAN_BRT_ORVELIN[17].BRP, 63u);
    EXPECT_EQ(CAN_BRT_ORVELIN[19].BRP, 278u);
    EXPECT_EQ(CAN_BRT_QUENDRIX_DBT[2].BaudRate, 6700000u);
}

TEST(CanTiming, FdSetUpRecords) {
    CANFD_INIT_CONFIG c;
    std::memset(&c, 0xEE, sizeof(c));
    ASSERT_EQ(CANFD_GetCANSpeedArg(kFd, &c, 500000, 2000000), 0);
    EXPECT_EQ((std::vector<uint8_t>{c.Mode, c.Option1, c.Option2, c.ResEnable}), (std::vector<uint8_t>{0, 1, 1, 1}));
    EXPECT_EQ((std::vector<uint8_t>{c.NBT_SJW, c.NBT_SEG1, c.NBT_SEG2, c.NBT_BRP}), (std::vector<uint8_t>{2, 59, 20, 1}));
    EXPECT_EQ((std::vector<uint8_t>{c.DBT_SJW, c.DBT_SEG1, c.DBT_SEG2, c.DBT_BRP}), (std::vector<uint8_t>{2, 14, 5, 1}));
    EXPECT_EQ(c.Reserved[0], 0xEE) << "bytes 12-19 are the caller's";
    EXPECT_EQ(CANFD_GetCANSpeedArg(kFd, &c, 500000, 2500000), -4);
    EXPECT_EQ(CANFD_GetCANSpeedArg(kFd, &c, 900000, 2000000), -4);
    ASSERT_EQ(CANFD_GetCANSpeedArg(kFd, &c, 0, 0), 0);
    EXPECT_EQ(c.NBT_BRP | c.DBT_BRP, 0);

    // Other adapters: only the nominal part, prescaler cut to 8 bits, data rate ignored.
    std::memset(&c, 0xEE, sizeof(c));
    ASSERT_EQ(CANFD_GetCANSpeedArg(kClassic100, &c, 20000, 12345), 0);
    EXPECT_EQ(c.NBT_BRP, 625 & 0xFF);
    EXPECT_EQ(c.NBT_SEG1, 6);
    EXPECT_EQ(c.Mode, 0xEE);
    EXPECT_EQ(c.DBT_BRP, 0xEE);
}

TEST(CanRing, HoldsTheNewestFramesInArrivalOrder) {
    FrameRing<CAN_MSG> ring;
    std::vector<CAN_MSG> in;
    for (uint32_t i = 0; i < 25000; ++i) in.push_back(frame(i, i));
    // Uneven pushes across the growth steps and the wrap-around.
    size_t at = 0;
    for (size_t step : {1u, 255u, 300u, 4000u, 9999u, 10000u, 445u}) {
        ring.push(in.data() + at, step);
        at += step;
        EXPECT_EQ(ring.size(), std::min<size_t>(at, CAN_BUFFER_FRAMES));
    }
    std::vector<CAN_MSG> out(20000);
    ASSERT_EQ(ring.pop(out.data(), 3), 3u);
    EXPECT_EQ(out[0].ID, at - CAN_BUFFER_FRAMES) << "the oldest went first";
    ASSERT_EQ(ring.pop(out.data() + 3, out.size()), CAN_BUFFER_FRAMES - 3);
    for (size_t i = 0; i < CAN_BUFFER_FRAMES; ++i) ASSERT_EQ(out[i].ID, at - CAN_BUFFER_FRAMES + i);
    EXPECT_EQ(ring.size(), 0u);
    EXPECT_EQ(ring.pop(out.data(), 10), 0u);

    // One push larger than the ring keeps its own newest frames.
    ring.push(in.data(), 12000);
    ASSERT_EQ(ring.pop(out.data(), 1), 1u);
    EXPECT_EQ(out[0].ID, 2000u);
    ring.clear();
    EXPECT_EQ(ring.size(), 0u);
}

TEST(CanSort, AscendingStableAndSafeOnSortedInput) {
    std::mt19937 rng(7);
    std::vector<CAN_MSG> v;
    for (uint32_t i = 0; i < 5000; ++i) v.push_back(frame(i, static_cast<uint32_t>(rng() % 300)));
    sort_by_stamp(v.data(), v.size());
    for (size_t i = 1; i < v.size(); ++i) {
        ASSERT_LE(v[i - 1].TimeStamp, v[i].TimeStamp);
        if (v[i - 1].TimeStamp == v[i].TimeStamp) {
            ASSERT_LT(v[i - 1].ID, v[i].ID) << "equal stamps keep arrival order";
        }
    }
    // Nearly sorted (the adapter's usual batch): neighbours swapped here and there, with
    // runs of equal stamps that must keep their order.
    std::vector<CAN_MSG> near;
    for (uint32_t i = 0; i < 3000; ++i) near.push_back(frame(i, i / 3));
    for (size_t i = 5; i < near.size(); i += 37) std::swap(near[i - 4], near[i]);
    for (uint32_t i = 0; i < near.size(); ++i) near[i].ID = i;  // arrival order
    sort_by_stamp(near.data(), near.size());
    for (size_t i = 1; i < near.size(); ++i) {
        ASSERT_LE(near[i - 1].TimeStamp, near[i].TimeStamp);
        if (near[i - 1].TimeStamp == near[i].TimeStamp) {
            ASSERT_LT(near[i - 1].ID, near[i].ID);
        }
    }
    // Sorted and reverse-sorted inputs of a size that would blow a naive quicksort's stack.
    std::vector<CAN_MSG> big;
    for (uint32_t i = 0; i < 200000; ++i) big.push_back(frame(i, 200000 - i));
    CAN_QuickSort(big.data(), 0, static_cast<int>(big.size()) - 1, 0);
    EXPECT_TRUE(std::is_sorted(big.begin(), big.end(), [](auto& a, auto& b) { return a.TimeStamp < b.TimeStamp; }));
    CAN_QuickSort(big.data(), 0, static_cast<int>(big.size()) - 1, 0);
    EXPECT_EQ(big.front().ID, 199999u);

    // Only [low, high] moves; bad arguments move nothing.
    std::vector<CAN_MSG> w = {frame(0, 9), frame(1, 5), frame(2, 3), frame(3, 1)};
    CAN_QuickSort(w.data(), 1, 2, 0);
    EXPECT_EQ((std::vector<uint32_t>{w[0].ID, w[1].ID, w[2].ID, w[3].ID}), (std::vector<uint32_t>{0, 2, 1, 3}));
    CAN_QuickSort(w.data(), -1, 3, 0);
    CAN_QuickSort(w.data(), 3, 3, 0);
    CAN_QuickSort(w.data(), 3, 0, 0);
    CAN_QuickSort(nullptr, 0, 3, 0);
    EXPECT_EQ(w[0].ID, 0u);
    EXPECT_EQ(w[3].ID, 3u);
    // Only the low 32 bits count.
    std::vector<CAN_MSG> hi = {frame(0, 5), frame(1, 4)};
    hi[1].TimeStampHigh = 0;
    hi[0].TimeStampHigh = 0;
    hi[1].TimeStampHigh = 7;
    CAN_QuickSort(hi.data(), 0, 1, 0);
    EXPECT_EQ(hi[0].ID, 1u);
}

TEST(CanConversion, ClassicAndFdRecords) {
    CAN_MSG c{};
    c.ID = 0x1ABCDEF;
    c.ExternFlag = 1;
    c.RemoteFlag = 1;
    c.DataLen = 8;
    for (int i = 0; i < 8; ++i) c.Data[i] = uint8_t(i + 1);
    c.TimeStamp = 0xF0000001u;
    c.TimeStampHigh = 0x02;
    CANFD_MSG f;
    can_to_canfd(&c, &f, 1);
    EXPECT_EQ(f.ID, 0x81ABCDEFu) << "the remote bit is not carried";
    EXPECT_EQ(f.DLC, 8);
    EXPECT_EQ(f.Flags, 0);
    const uint64_t stamp10 = (uint64_t{0x02} << 32 | 0xF0000001u) * 10;
    EXPECT_EQ(f.TimeStamp, uint32_t(stamp10));
    EXPECT_EQ(f.TimeStampHigh, uint8_t(stamp10 >> 32));
    CAN_MSG back{};
    canfd_to_can(&f, &back, 1);
    EXPECT_EQ(back.ID, 0x1ABCDEFu);
    EXPECT_EQ(back.ExternFlag, 1);
    EXPECT_EQ(back.RemoteFlag, 0);
    EXPECT_EQ(back.TimeStamp, c.TimeStamp);
    EXPECT_EQ(back.TimeStampHigh, c.TimeStampHigh);
    EXPECT_EQ(std::memcmp(back.Data, c.Data, 8), 0);

    // A 64-byte frame converted back stays inside its 20-byte record.
    CANFD_MSG big[2];
    std::memset(big, 0x11, sizeof(big));
    big[0].DLC = 64;
    big[0].ID = 0x123;
    CAN_MSG small[3];
    std::memset(small, 0x77, sizeof(small));
    canfd_to_can(big, small, 1);
    EXPECT_EQ(small[0].DataLen, 64);
    EXPECT_EQ(small[1].ID, 0x77777777u);
}

TEST(CanFdWire, LengthCodesAndIdentifierLayout) {
    const unsigned codes[][2] = {{0, 0}, {8, 8}, {9, 9}, {12, 9}, {13, 10}, {16, 10}, {17, 11}, {20, 11},
                                 {24, 12}, {25, 13}, {32, 13}, {33, 14}, {48, 14}, {49, 15}, {64, 15}, {200, 15}};
    for (auto& c : codes) EXPECT_EQ(DataBytesToDlc(c[0]), c[1]) << c[0];
    const unsigned sizes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    for (unsigned d = 0; d < 16; ++d) EXPECT_EQ(DlcToDataBytes(d), sizes[d]);

    EXPECT_EQ(id_to_wire(0x1FFC0000u, true), 0x7FFu);
    EXPECT_EQ(id_to_wire(0x0003FFFFu, true), 0x3FFFFu << 11);
    EXPECT_EQ(id_to_wire(0xFFF, false), 0x7FFu | 1u << 29);
    for (uint32_t id : {0u, 1u, 0x7FFu, 0x12345u, 0x1FFFFFFFu}) EXPECT_EQ(id_from_wire(id_to_wire(id, true), true), id);
    for (uint32_t id : {0u, 0x555u, 0xFFFu}) EXPECT_EQ(id_from_wire(id_to_wire(id, false), false), id);
}

TEST(CanFdWire, PackAndUnpackFrames) {
    CANFD_MSG m{};
    m.ID = 0x80000000u | 0x1234567u;
    m.DLC = 13;
    m.Flags = 0x01 | 0x04;
    for (int i = 0; i < 64; ++i) m.Data[i] = uint8_t(0xA0 + i);
    uint8_t wire[76];
    ASSERT_EQ(pack_fd_frame(m, 5, wire), 12u + 16u) << "13 bytes go as a 16-byte frame";
    const uint32_t w1 = get_le32(wire + 4);
    EXPECT_EQ(w1 & 0xF, 10u);
    EXPECT_EQ((w1 >> 4) & 1, 1u);
    EXPECT_EQ((w1 >> 6) & 1, 1u);
    EXPECT_EQ((w1 >> 7) & 1, 1u);
    EXPECT_EQ((w1 >> 9) & 0x7F, 5u);
    EXPECT_EQ(get_le32(wire + 8), 0u);
    EXPECT_EQ(wire[12 + 15], 0xA0 + 15) << "the 3 padding bytes come from Data as left";

    // The received direction: stamp high byte in head byte 6, channel bit from the caller.
    wire[6] = 0x3C;
    put_le32(wire + 8, 0xDEADBEEF);
    CANFD_MSG r;
    ASSERT_EQ(unpack_fd_frame(wire, sizeof(wire), 1, &r), 28u);
    EXPECT_EQ(r.ID, m.ID);
    EXPECT_EQ(r.DLC, 16);
    EXPECT_EQ(r.Flags, 0x01 | 0x04 | 0x20);
    EXPECT_EQ(r.TimeStampHigh, 0x3C);
    EXPECT_EQ(r.TimeStamp, 0xDEADBEEFu);
    EXPECT_EQ(unpack_fd_frame(wire, 27, 0, &r), 0u) << "a truncated frame is not read";

    // Coded DLC 15 on the wire means 64 bytes; remote frames carry bit 30.
    uint8_t head[12 + 64] = {};
    put_le32(head, 0x7FF);
    put_le32(head + 4, 15u | 1u << 5);
    ASSERT_EQ(unpack_fd_frame(head, sizeof(head), 0, &r), 76u);
    EXPECT_EQ(r.DLC, 64);
    EXPECT_EQ(r.ID, 0x7FFu | 1u << 30);
}
