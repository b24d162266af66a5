// The pure LIN rules: protected identifiers, both checksum kinds, how frames are
// prepared for the adapter and how results are judged.
#include <gtest/gtest.h>

#include <cstring>

#include "lin/lin_frames.h"

using namespace polybus::lin;

namespace {

// The protected identifiers of the LIN standard's table, identifier 0x00 to 0x3F.
const uint8_t kPidTable[64] = {
    0x80, 0xC1, 0x42, 0x03, 0xC4, 0x85, 0x06, 0x47, 0x08, 0x49, 0xCA, 0x8B, 0x4C, 0x0D, 0x8E, 0xCF,
    0x50, 0x11, 0x92, 0xD3, 0x14, 0x55, 0xD6, 0x97, 0xD8, 0x99, 0x1A, 0x5B, 0x9C, 0xDD, 0x5E, 0x1F,
    0x20, 0x61, 0xE2, 0xA3, 0x64, 0x25, 0xA6, 0xE7, 0xA8, 0xE9, 0x6A, 0x2B, 0xEC, 0xAD, 0x2E, 0x6F,
    0xF0, 0xB1, 0x32, 0x73, 0xB4, 0xF5, 0x76, 0x37, 0x78, 0x39, 0xBA, 0xFB, 0x3C, 0x7D, 0xFE, 0xBF,
};

// What a receiving node checks: the carry-around sum of everything covered, checksum
// included, is 0xFF.
unsigned receiver_sum(unsigned seed, const uint8_t* d, size_t n, uint8_t check) {
    unsigned s = seed;
    for (size_t i = 0; i <= n; ++i) {
        s += i < n ? d[i] : check;
        if (s > 255) s -= 255;
    }
    return s;
}

LIN_EX_MSG record(uint8_t type, uint8_t check_type, uint8_t len, uint8_t pid, std::initializer_list<uint8_t> data) {
    LIN_EX_MSG m{};
    m.MsgType = type;
    m.CheckType = check_type;
    m.DataLen = len;
    m.PID = pid;
    size_t i = 0;
    for (uint8_t b : data) m.Data[i++] = b;
    return m;
}

}  // namespace

TEST(LinFrames, ProtectedIdentifiersOfAll64AndParityBitsReplaced) {
    for (unsigned id = 0; id < 64; ++id) {
        EXPECT_EQ(protected_id(uint8_t(id)), kPidTable[id]) << "id " << id;
        // Whatever parity bits the caller set, they are recomputed.
        for (unsigned top = 0; top < 4; ++top)
            EXPECT_EQ(protected_id(uint8_t(id | top << 6)), kPidTable[id]) << "id " << id << " top " << top;
    }
    EXPECT_EQ(protected_id(0xFC), 0x3C);
}

TEST(LinFrames, BothChecksumKindsOverEveryIdentifier) {
    const uint8_t data[8] = {0xFF, 0xFE, 0x80, 0x01, 0x00, 0x7F, 0xC3, 0x3C};
    for (unsigned id = 0; id < 64; ++id) {
        const uint8_t pid = kPidTable[id];
        for (size_t n = 0; n <= 8; ++n) {
            EXPECT_EQ(receiver_sum(pid, data, n, enhanced_checksum(pid, data, n)), 0xFFu) << id << "/" << n;
            EXPECT_EQ(receiver_sum(0, data, n, classic_checksum(data, n)), 0xFFu) << n;
        }
        // No data: classic 0xFF, enhanced the inverted identifier.
        EXPECT_EQ(enhanced_checksum(pid, data, 0), uint8_t(~pid));
    }
    EXPECT_EQ(classic_checksum(data, 0), 0xFF);
    const uint8_t carry[2] = {0xFF, 0x02};  // 257 - 255 = 2
    EXPECT_EQ(classic_checksum(carry, 2), 0xFD);
    const uint8_t small[3] = {1, 2, 3};
    EXPECT_EQ(classic_checksum(small, 3), 0xF9);
}

TEST(LinFrames, SyncFramePreparation) {
    LIN_EX_MSG m = record(1, 0, 3, 0x3C, {1, 2, 3});
    m.TimeStamp = 7000;
    m.BreakBits = 0;
    EXPECT_EQ(prepare_sync_frame(m), 5000u);
    EXPECT_EQ(m.TimeStamp, 5000u);
    EXPECT_EQ(m.Sync, 0x55);
    EXPECT_EQ(m.PID, 0x3C);
    EXPECT_EQ(m.BreakBits, 13);
    EXPECT_EQ(m.Check, 0xF9);
    EXPECT_EQ(m.Data[3], 0xF9);

    for (uint8_t bits : {uint8_t(10), uint8_t(26)}) {
        LIN_EX_MSG k = record(2, 0, 0, 0, {});
        k.BreakBits = bits;
        prepare_sync_frame(k);
        EXPECT_EQ(k.BreakBits, bits);
        EXPECT_EQ(k.PID, 0x80);
    }
    LIN_EX_MSG long_break = record(2, 0, 0, 0x3F, {});
    long_break.BreakBits = 27;
    prepare_sync_frame(long_break);
    EXPECT_EQ(long_break.BreakBits, 13);
    EXPECT_EQ(long_break.PID, 0xBF);

    // Eight bytes: the checksum has no room behind the data; DataLen is clamped.
    LIN_EX_MSG full = record(1, 1, 12, 0x10, {1, 2, 3, 4, 5, 6, 7, 8});
    prepare_sync_frame(full);
    EXPECT_EQ(full.DataLen, 8);
    EXPECT_EQ(full.Check, enhanced_checksum(0x50, full.Data, 8));
    // The caller's checksum (2) goes behind the data; no checksum (3) and read frames
    // are left alone.
    LIN_EX_MSG user = record(1, 2, 2, 0x01, {9, 9});
    user.Check = 0x42;
    prepare_sync_frame(user);
    EXPECT_EQ(user.Data[2], 0x42);
    LIN_EX_MSG none = record(1, 3, 2, 0x01, {9, 9});
    prepare_sync_frame(none);
    EXPECT_EQ(none.Check, 0);
    EXPECT_EQ(none.Data[2], 0);
    LIN_EX_MSG read = record(2, 0, 2, 0x01, {9, 9});
    prepare_sync_frame(read);
    EXPECT_EQ(read.Check, 0);
}

TEST(LinFrames, ScheduleAndSlaveEntriesKeepTheirLength) {
    LIN_EX_MSG enhanced = record(1, 1, 0, 0x22, {});
    prepare_schedule_frame(enhanced);
    EXPECT_EQ(enhanced.Check, uint8_t(~0xE2));
    EXPECT_EQ(enhanced.Data[0], uint8_t(~0xE2));
    LIN_EX_MSG classic = record(1, 0, 0, 0x22, {});
    prepare_schedule_frame(classic);
    EXPECT_EQ(classic.Check, 0xFF);
    LIN_EX_MSG read = record(2, 0, 5, 0x22, {});
    prepare_schedule_frame(read);
    EXPECT_EQ(read.DataLen, 0);
    // A schedule entry's DataLen is not clamped, and its sum never reads past Data.
    LIN_EX_MSG wide = record(1, 0, 200, 0x01, {1, 1, 1, 1, 1, 1, 1, 1});
    prepare_schedule_frame(wide);
    EXPECT_EQ(wide.DataLen, 200);
    EXPECT_EQ(wide.Check, uint8_t(~8));

    for (uint8_t type : {uint8_t(3), uint8_t(4), uint8_t(0x83)}) {
        LIN_EX_MSG e = record(type, 0, 2, 0x05, {0x10, 0x20});
        prepare_slave_entry(e);
        EXPECT_EQ(e.PID, 0x85);
        EXPECT_EQ(e.Check, uint8_t(~0x30));
        EXPECT_EQ(e.Data[2], e.Check);
    }
    LIN_EX_MSG other = record(1, 0, 2, 0x05, {0x10, 0x20});
    prepare_slave_entry(other);
    EXPECT_EQ(other.Check, 0);
}

TEST(LinFrames, VerdictsOfSeparateChecksums) {
    const LIN_EX_MSG sent_classic = record(2, 0, 0, 0x10, {});
    LIN_EX_MSG r = record(9, 0, 2, 0x50, {0x11, 0x22});
    r.Check = classic_checksum(r.Data, 2);
    judge_sync_result(r, sent_classic);
    EXPECT_EQ(r.CheckType, 0);
    r.CheckType = 0;
    r.Check = enhanced_checksum(0x50, r.Data, 2);
    judge_sync_result(r, sent_classic);
    EXPECT_EQ(r.CheckType, 1);
    r.Check ^= 1;
    judge_sync_result(r, sent_classic);
    EXPECT_EQ(r.CheckType, 4);
    // Frames sent with the caller's checksum or none are not verified.
    judge_sync_result(r, record(1, 2, 0, 0, {}));
    EXPECT_EQ(r.CheckType, 2);
    judge_sync_result(r, record(1, 3, 0, 0, {}));
    EXPECT_EQ(r.CheckType, 3);
    // A length beyond 8 is clamped before summing.
    LIN_EX_MSG wide = record(9, 0, 40, 0x50, {1, 2, 3, 4, 5, 6, 7, 8});
    wide.Check = classic_checksum(wide.Data, 8);
    judge_sync_result(wide, sent_classic);
    EXPECT_EQ(wide.DataLen, 8);
    EXPECT_EQ(wide.CheckType, 0);
    // Unknown result kinds are not verified.
    LIN_EX_MSG odd = record(5, 0, 0, 0, {});
    judge_sync_result(odd, sent_classic);
    EXPECT_EQ(odd.CheckType, 3);
}

TEST(LinFrames, VerdictsOfCountedChecksums) {
    const LIN_EX_MSG sent = record(2, 1, 0, 0x10, {});
    // Two data bytes and the checksum counted as the third.
    LIN_EX_MSG r = record(8, 0, 3, 0x50, {0x11, 0x22});
    r.Data[2] = enhanced_checksum(0x50, r.Data, 2);
    judge_sync_result(r, sent);
    EXPECT_EQ(r.DataLen, 2);
    EXPECT_EQ(r.Check, r.Data[2]);
    EXPECT_EQ(r.CheckType, 1);
    // Eight bytes and the checksum: the ninth counted byte is the Check field itself.
    LIN_EX_MSG full = record(8, 0, 9, 0x50, {1, 2, 3, 4, 5, 6, 7, 8});
    full.Check = classic_checksum(full.Data, 8);
    judge_sync_result(full, sent);
    EXPECT_EQ(full.DataLen, 8);
    EXPECT_EQ(full.CheckType, 0);
    // Nothing received: the identifier stands in for the checksum, DataLen wraps to 255.
    LIN_EX_MSG empty = record(8, 0, 0, 0x50, {});
    judge_sync_result(empty, sent);
    EXPECT_EQ(empty.DataLen, 255);
    EXPECT_EQ(empty.Check, 0x50);
    EXPECT_EQ(empty.CheckType, 4);
    // Only a checksum byte: zero data bytes summed.
    LIN_EX_MSG only = record(8, 0, 1, 0x50, {0xFF});
    judge_sync_result(only, sent);
    EXPECT_EQ(only.DataLen, 0);
    EXPECT_EQ(only.CheckType, 0);
    // Sent with the caller's checksum: verdict 2, length still shifted; sent without
    // checksum: verdict 3 and nothing else changes.
    LIN_EX_MSG user = record(8, 0, 3, 0x50, {1, 2, 3});
    judge_sync_result(user, record(1, 2, 0, 0, {}));
    EXPECT_EQ(user.CheckType, 2);
    EXPECT_EQ(user.DataLen, 2);
    LIN_EX_MSG none = record(8, 0, 3, 0x50, {1, 2, 3});
    judge_sync_result(none, record(1, 3, 0, 0, {}));
    EXPECT_EQ(none.CheckType, 3);
    EXPECT_EQ(none.DataLen, 3);
    // A counted length beyond 9 never reads past the record.
    LIN_EX_MSG wild = record(8, 0, 250, 0x50, {1, 2, 3, 4, 5, 6, 7, 8});
    judge_sync_result(wild, sent);
    EXPECT_EQ(wild.DataLen, 8);
}

TEST(LinFrames, SlaveRecordsAndTimeouts) {
    LIN_EX_MSG brk = record(5, 0, 4, 0x12, {});
    judge_slave_record(brk);
    EXPECT_EQ(brk.CheckType, 3);
    EXPECT_EQ(brk.DataLen, 0);
    EXPECT_EQ(brk.PID, 0xFF);
    LIN_EX_MSG counted = record(8, 7, 2, 0x50, {0x10});
    counted.Data[1] = classic_checksum(counted.Data, 1);
    judge_slave_record(counted);
    EXPECT_EQ(counted.CheckType, 0);
    EXPECT_EQ(counted.DataLen, 1);
    LIN_EX_MSG other = record(3, 7, 2, 0x50, {0x10});
    judge_slave_record(other);
    EXPECT_EQ(other.CheckType, 7);

    EXPECT_EQ(sync_timeout_ms(0, 19200, 10), 160);
    EXPECT_EQ(sync_timeout_ms(5000, 9600, 1), 5000 + 12 + 100);
    EXPECT_EQ(sync_timeout_ms(0xFFFFFFFFull * 64, 101, 64), 0x7FFFFFFF);
}
