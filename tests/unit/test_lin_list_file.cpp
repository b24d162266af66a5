// The list-file reader on small recordings written here: header, field rules, delays
// between frames, identifier lists, and the failures that keep what was read.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "polybus/lin.h"

namespace {

const char* kHeader = "Vehicle Spy 3 Bus Traffic File";

// One traffic line: index, time, identifier and data in their columns, 22 fields in all.
std::string line(const std::string& index, const std::string& time, const std::string& id,
                 const std::vector<std::string>& data, size_t fields = 22) {
    std::vector<std::string> f(fields);
    f[0] = index;
    if (fields > 1) f[1] = time;
    if (fields > 9) f[9] = id;
    for (size_t i = 0; i < data.size() && 12 + i < fields; ++i) f[12 + i] = data[i];
    std::string out;
    for (size_t i = 0; i < f.size(); ++i) out += (i ? "," : "") + f[i];
    return out + "\n";
}

class ListFile : public ::testing::Test {
protected:
    std::string write(const std::string& text) {
        char name[] = "/tmp/lin_list_XXXXXX";
        const int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        FILE* f = fdopen(fd, "wb");
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
        files_.push_back(name);
        return name;
    }
    void TearDown() override {
        for (auto& f : files_) std::remove(f.c_str());
    }
    int decode(const std::string& path, unsigned char check = 1, int baud = 19200, std::vector<uint8_t> reads = {},
               std::vector<uint8_t> flips = {}) {
        return LIN_EX_DecodeListFile(const_cast<char*>(path.c_str()), check, baud, reads.data(), int(reads.size()),
                                     flips.data(), int(flips.size()));
    }
    std::vector<LIN_EX_MSG> records(int n) {
        std::vector<LIN_EX_MSG> out(size_t(n) + 1);
        EXPECT_EQ(LIN_EX_GetListFileMsg(0, n + 1, out.data()), n);
        out.resize(size_t(n));
        return out;
    }
    std::vector<std::string> files_;
};

}  // namespace

TEST_F(ListFile, FramesFromTheColumnsAndIdentifierLists) {
    const std::string text = std::string(kHeader) + ",Version,3\r\n" + "Line,Time,Description\r\n" +
                             line("1", "0.5", "12", {"01", "A2", "ff"}) + line("2", "0.6", "3D", {}) +
                             line("3", "0.7", "d3", {"10", "20", "30", "40", "50", "60", "70", "80"}, 24);
    const std::string path = write(text);
    ASSERT_EQ(decode(path, 1, 19200, {0x3D}, {0x13}), 3);
    auto r = records(3);
    EXPECT_EQ(r[0].MsgType, LIN_EX_MSG_MASTER_WRITE);
    EXPECT_EQ(r[0].CheckType, 1);
    EXPECT_EQ(r[0].DataLen, 3);
    EXPECT_EQ(r[0].PID, 0x12);
    EXPECT_EQ(r[0].Sync, 0x55);
    EXPECT_EQ(r[0].BreakBits, 13);
    EXPECT_EQ(r[0].Data[1], 0xA2);
    EXPECT_EQ(r[0].Data[2], 0xFF);
    EXPECT_EQ(r[1].MsgType, LIN_EX_MSG_MASTER_READ) << "listed for reading";
    EXPECT_EQ(r[1].DataLen, 0);
    // 0xD3 is identifier 0x13 with its parity bits: the lists compare the low 6 bits,
    // and the listed identifier takes the other checksum kind.
    EXPECT_EQ(r[2].PID, 0xD3);
    EXPECT_EQ(r[2].CheckType, 0);
    EXPECT_EQ(r[2].DataLen, 8);
    EXPECT_EQ(r[2].Data[7], 0x80);
    // With check type 0 the flip gives 1; a non-zero kind flips to 0.
    ASSERT_EQ(decode(path, 0, 19200, {}, {0x12}), 3);
    EXPECT_EQ(records(3)[0].CheckType, 1);
    ASSERT_EQ(decode(path, 7, 19200, {}, {0x12}), 3);
    EXPECT_EQ(records(3)[0].CheckType, 0);
    EXPECT_EQ(records(3)[1].CheckType, 7);
}

TEST_F(ListFile, DelaysAreTheGapLessTheNextFrame) {
    const std::string path = write(std::string(kHeader) + "\n" + line("1", "1.5", "10", {"1"}) +
                                   line("2", "1.75", "11", {"1", "2", "3", "4", "5", "6", "7", "8"}) +
                                   line("3", "1.751", "12", {"1"}) + line("4", "1.70", "13", {}));
    ASSERT_EQ(decode(path), 4);
    auto r = records(4);
    EXPECT_EQ(r[0].TimeStamp, 244u) << "250 ms less 125000 / 19200 = 6 ms";
    EXPECT_EQ(r[1].TimeStamp, 0u) << "1 ms gap, 2 ms frame";
    EXPECT_EQ(r[2].TimeStamp, 0u) << "time going backwards";
    EXPECT_EQ(r[3].TimeStamp, 0u) << "the last frame has no delay";
    // Fractions of a millisecond are cut off.
    const std::string slow = write(std::string(kHeader) + "\n" + line("1", "0", "10", {}) + line("2", "0.0109", "10", {}));
    ASSERT_EQ(decode(slow, 1, 9600), 2);
    EXPECT_EQ(records(2)[0].TimeStamp, 6u) << "10.9 ms less 45000 / 9600 = 4 ms";
}

TEST_F(ListFile, LinesThatAreNotFramesAreSkipped) {
    const std::string path =
        write(std::string(kHeader) + "\n" + line("1", "0", "10", {"1"}, 21) + line("", "0", "10", {"1"}) +
              line("x1", "0", "10", {"1"}) + line("-1", "0", "10", {"1"}) + "\n" + line("7", "0", "10", {"1", "", "3"}));
    ASSERT_EQ(decode(path), 1);
    EXPECT_EQ(records(1)[0].DataLen, 1) << "data ends at the first empty column";
}

TEST_F(ListFile, BytesBeyondALinesDataKeepEarlierValues) {
    const std::string path = write(std::string(kHeader) + "\n" +
                                   line("1", "0", "10", {"11", "22", "33", "44", "55", "66", "77", "88"}) +
                                   line("2", "0", "10", {"99"}));
    ASSERT_EQ(decode(path), 2);
    auto r = records(2);
    EXPECT_EQ(r[1].Data[0], 0x99);
    EXPECT_EQ(r[1].Data[1], 0x22);
    EXPECT_EQ(r[1].Data[7], 0x88);
}

TEST_F(ListFile, FailuresKeepWhatWasRead) {
    std::string body;
    for (int i = 0; i < 8; ++i) body += line(std::to_string(i), "0", "10", {"1"});
    const std::string good = write(std::string(kHeader) + "\n" + body);
    ASSERT_EQ(decode(good), 8);
    LIN_EX_MSG out[10];
    EXPECT_EQ(LIN_EX_GetListFileMsg(5, 10, out), 3);
    EXPECT_EQ(LIN_EX_GetListFileMsg(8, 1, out), 0);
    EXPECT_EQ(LIN_EX_GetListFileMsg(0, 0, out), 0);
    EXPECT_EQ(LIN_EX_GetListFileMsg(-1, 2, out), 0);
    EXPECT_EQ(LIN_EX_GetListFileMsg(0, 2, nullptr), 0);

    // Refusals before reading anything leave the previous records in place.
    EXPECT_EQ(decode(write("Vehicle Spy 2 Bus Traffic File\n" + body)), LIN_EX_ERR_HEADER);
    EXPECT_EQ(decode(write("")), LIN_EX_ERR_HEADER);
    EXPECT_EQ(decode(write(std::string(kHeader) + " \n" + body)), LIN_EX_ERR_HEADER);
    EXPECT_EQ(decode("/nonexistent/dir/file.csv"), LIN_EX_ERR_OPEN);
    EXPECT_EQ(LIN_EX_DecodeListFile(nullptr, 0, 19200, nullptr, 0, nullptr, 0), LIN_EX_ERR_OPEN);
    EXPECT_EQ(decode(good, 1, 0), LIN_EX_ERR_PARAM);
    EXPECT_EQ(LIN_EX_GetListFileMsg(0, 10, out), 8);

    // A line over 1023 characters stops the reader; the records before it stay.
    std::string over = line("3", "0", "10", {"1"});
    over.insert(over.size() - 1, std::string(1100, ' '));
    std::string exact = line("2", "0", "10", {"5"});
    exact.insert(exact.size() - 1, std::string(1023 - (exact.size() - 1), ' '));
    EXPECT_EQ(exact.size(), 1024u);
    EXPECT_EQ(decode(write(std::string(kHeader) + "\n" + line("1", "0", "10", {"1"}) + exact + over + body)),
              LIN_EX_ERR_LONG_LINE);
    EXPECT_EQ(LIN_EX_GetListFileMsg(0, 10, out), 2) << "a line of exactly 1023 characters is read";
    EXPECT_EQ(out[1].Data[0], 5);
    // Lists may be absent whatever their lengths say.
    EXPECT_EQ(LIN_EX_DecodeListFile(const_cast<char*>(good.c_str()), 0, 19200, nullptr, 4, nullptr, 4), 8);
}

TEST(ListFileNumbers, IsNumber) {
    char digits[] = "0123456789", empty[] = "", sign[] = "-1", space[] = "1 ", hex[] = "1a";
    EXPECT_EQ(isNumber(digits), 1);
    EXPECT_EQ(isNumber(empty), 0);
    EXPECT_EQ(isNumber(nullptr), 0);
    EXPECT_EQ(isNumber(sign), 0);
    EXPECT_EQ(isNumber(space), 0);
    EXPECT_EQ(isNumber(hex), 0);
}
