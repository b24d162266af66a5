// Setting and reading values by name: the remembered message and signal must never
// change which record a name reaches (first match), nor the value read, wherever the
// caller's name strings lie in memory.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "dbc_test_util.h"

using dbc_test::parse;

namespace {

const char* const kKinds[] = {"U8", "S12", "U0", "S64", "U64", "F32", "D64", "UD64", "S1", "L70", "Odd"};

TEST(DbcLookupValues, ReadsByNameEqualTheRecordReadingBitForBit) {
    auto db = parse(
        "BO_ 100 Kinds: 8 N\n"
        " SG_ U8 : 0|8@1+ (0.1,-3) [0|0] \"\" N\n"
        " SG_ S12 : 8|12@1- (0.37,1.5) [0|0] \"\" N\n"
        " SG_ U0 : 20|0@1+ (2,7) [0|0] \"\" N\n"
        " SG_ S64 : 0|64@1- (0.001,0) [0|0] \"\" N\n"
        " SG_ U64 : 0|64@1+ (3,1) [0|0] \"\" N\n"
        " SG_ F32 : 0|32@1- (9,9) [0|0] \"\" N\n"
        " SG_ D64 : 0|64@1- (9,9) [0|0] \"\" N\n"
        " SG_ UD64 : 0|64@1+ (0.5,0) [0|0] \"\" N\n"
        " SG_ S1 : 7|1@0- (1,0.25) [0|0] \"\" N\n"
        " SG_ L70 : 0|70@1- (1,0) [0|0] \"\" N\n"
        " SG_ Odd : 0|8@1- (1,0) [0|0] \"\" N\n"
        "SIG_VALTYPE_ 100 F32 : 1;\n"
        "SIG_VALTYPE_ 100 D64 : 2;\n"
        "SIG_VALTYPE_ 100 UD64 : 2;\n");
    DBC_MESSAGE& msg = db->messages[0];
    ASSERT_EQ(msg.signals.size(), 11u);
    msg.signals[10].valueType = 7;  // signed with an unknown value type: reads 0
    db->reindex();
    std::mt19937_64 rng(7);
    for (int round = 0; round < 400; ++round) {
        for (size_t i = 0; i < msg.signals.size(); ++i) {
            // Raw values beyond the signal's length too: reading cuts them back.
            uint64_t raw = rng();
            if (round % 3 == 0) raw >>= rng() % 64;
            DBC_SIGNAL reference = msg.signals[i];
            reference.rawValue = raw;
            const double want = DBC_Decoder::getSignalRealValue(reference);
            msg.signals[i].rawValue = raw;
            double got = 0;
            ASSERT_EQ(db->getSignalValue("Kinds", kKinds[i], &got), 0);
            ASSERT_EQ(std::memcmp(&got, &want, sizeof got), 0) << kKinds[i] << " raw " << raw;
            ASSERT_EQ(msg.signals[i].rawValue, reference.rawValue) << kKinds[i];
        }
    }
}

TEST(DbcLookupValues, DuplicateNamesReachTheFirstRecordOnly) {
    auto db = parse(
        "BO_ 1 Dup: 8 N\n"
        " SG_ A : 0|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ B : 8|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ A : 16|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 2 Dup: 8 N\n"
        " SG_ A : 0|8@1+ (1,0) [0|255] \"\" N\n");
    // Repeated calls take the remembered paths; alternating names defeats them.
    for (int i = 1; i <= 20; ++i) {
        ASSERT_EQ(db->setSignalValue("Dup", "A", i), 0);
        ASSERT_EQ(db->setSignalValue("Dup", "B", 100 + i), 0);
        double a = 0, b = 0;
        ASSERT_EQ(db->getSignalValue("Dup", "A", &a), 0);
        ASSERT_EQ(db->getSignalValue("Dup", "B", &b), 0);
        EXPECT_EQ(a, i);
        EXPECT_EQ(b, 100 + i);
    }
    EXPECT_EQ(db->messages[0].signals[0].rawValue, 20u);
    EXPECT_EQ(db->messages[0].signals[2].rawValue, 0u);
    EXPECT_EQ(db->messages[1].signals[0].rawValue, 0u);
}

// A name copied so that it ends exactly at the end of a readable page, with an
// unreadable page behind it: a look-up that read past the string would fault.
class PageEdge {
public:
    PageEdge() {
        page_ = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        void* p = ::mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) std::abort();
        base_ = static_cast<char*>(p);
        ::mprotect(base_ + page_, page_, PROT_NONE);
    }
    ~PageEdge() { ::munmap(base_, 2 * page_); }
    const char* at_end(const char* name) {
        char* s = base_ + page_ - std::strlen(name) - 1;
        std::memcpy(s, name, std::strlen(name) + 1);
        return s;
    }
    const char* at_start(const char* name) {
        std::memcpy(base_, name, std::strlen(name) + 1);
        return base_;
    }

private:
    size_t page_ = 0;
    char* base_ = nullptr;
};

TEST(DbcLookupNames, NamesAtPageEdgesAndPrefixesOfNames) {
    auto db = parse(
        "BO_ 1 Msg: 8 N\n"
        " SG_ Sig : 0|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Signal_with_a_longer_name : 8|8@1+ (1,0) [0|255] \"\" N\n");
    PageEdge edge, other;
    for (int i = 0; i < 3; ++i) {  // the second and third calls take the remembered paths
        EXPECT_EQ(db->setSignalValue(edge.at_end("Msg"), other.at_end("Sig"), 7 + i), 0);
        double v = 0;
        EXPECT_EQ(db->getSignalValue(edge.at_start("Msg"), other.at_start("Sig"), &v), 0);
        EXPECT_EQ(v, 7 + i);
        EXPECT_EQ(db->getSignalValue("Msg", other.at_end("Signal_with_a_longer_name"), &v), 0);
        EXPECT_EQ(db->getSignalValue("Msg", other.at_end("Signal_with_a_longer_nam"), &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue(edge.at_end("Ms"), "Sig", &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("Msg", other.at_end("Si"), &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("Msg", other.at_end(""), &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("MsgX", "Sig", &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("Msg", "SigX", &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("Msg", "Sig", &v), 0);
        EXPECT_EQ(v, 7 + i);
    }
    double v = 0;
    EXPECT_EQ(db->getSignalValue(nullptr, "Sig", &v), DBC_ERR_NOT_FOUND);
    EXPECT_EQ(db->getSignalValue("Msg", nullptr, &v), DBC_ERR_NOT_FOUND);
    EXPECT_EQ(db->setSignalValue("Msg", nullptr, 1), DBC_ERR_NOT_FOUND);
}

TEST(DbcLookupNames, NameStringsAtEveryOffsetNearAPageEnd) {
    auto db = parse(
        "BO_ 1 Message: 8 N\n"
        " SG_ Signal_name_of_22_bytes : 0|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ S : 8|8@1+ (1,0) [0|255] \"\" N\n");
    PageEdge msg_page, sig_page;
    char* const msg_end = const_cast<char*>(msg_page.at_end(""));
    char* const sig_end = const_cast<char*>(sig_page.at_end(""));
    const char* const sigs[] = {"Signal_name_of_22_bytes", "S"};
    // Each string ends anywhere from its page's last byte to 60 bytes before it, and
    // the two strings lie at different distances; three calls each, so that later
    // calls go through what the first remembered.
    for (size_t back = 0; back < 60; ++back) {
        for (int k = 0; k < 2; ++k) {
            const size_t len = std::strlen(sigs[k]);
            char* m = msg_end - 7 - (back * 7) % 60;
            char* s = sig_end - len - back;
            std::memcpy(m, "Message", 8);
            std::memcpy(s, sigs[k], len + 1);
            for (int i = 0; i < 3; ++i) {
                const double want = static_cast<double>((back * 3 + static_cast<size_t>(i)) % 256);
                ASSERT_EQ(db->setSignalValue(m, s, want), 0) << sigs[k] << " back " << back;
                double v = -1;
                ASSERT_EQ(db->getSignalValue(m, s, &v), 0) << sigs[k] << " back " << back;
                EXPECT_EQ(v, want);
            }
            s[len - 1] ^= 1;  // the same address, another name
            double v = -1;
            EXPECT_EQ(db->getSignalValue(m, s, &v), DBC_ERR_NOT_FOUND) << sigs[k] << " back " << back;
        }
    }
}

// The signal remembered for a name string belongs to one message; a call naming
// another message, however alike, must not reach it.
TEST(DbcLookupNames, RememberedSignalsAnswerOnlyForTheirMessage) {
    const std::string long_name(40, 'L');
    auto db = parse(
        "BO_ 1 ACC_1: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 2 ACC_13: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 3 ACC_130000000000000: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 4 " + long_name + ": 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 5 ACC_1: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n");
    const char* const names[] = {"ACC_1", "ACC_13", "ACC_130000000000000", long_name.c_str()};
    char buf[64];
    for (int round = 0; round < 4; ++round) {
        for (int m = 0; m < 4; ++m) {
            std::strcpy(buf, names[m]);  // one message buffer for every name
            ASSERT_EQ(db->setSignalValue(buf, "S", 10 * round + m), 0) << names[m];
        }
        for (int m = 3; m >= 0; --m) {
            std::strcpy(buf, names[m]);
            double v = -1;
            ASSERT_EQ(db->getSignalValue(buf, "S", &v), 0) << names[m];
            EXPECT_EQ(v, 10 * round + m) << names[m];
        }
        double v = -1;
        EXPECT_EQ(db->getSignalValue("ACC_", "S", &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("ACC_131", "S", &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue("ACC_1300000000000000", "S", &v), DBC_ERR_NOT_FOUND);
    }
    EXPECT_EQ(db->messages[4].signals[0].rawValue, 0u);  // the later ACC_1 is never reached
    // Rebuilt tables: what was remembered is forgotten, the values stay.
    db->reindex();
    double v = -1;
    ASSERT_EQ(db->getSignalValue("ACC_13", "S", &v), 0);
    EXPECT_EQ(v, 31);
}

TEST(DbcLookupNames, OneBufferForEveryNameAndStringsSharingAMemorySlot) {
    auto db = parse(
        "BO_ 1 M: 8 N\n"
        " SG_ First : 0|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Second : 8|8@1+ (1,0) [0|255] \"\" N\n"
        " SG_ Third_signal_name_of_30_bytes : 16|8@1+ (1,0) [0|255] \"\" N\n");
    const char* names[] = {"First", "Second", "Third_signal_name_of_30_bytes"};
    // One buffer rewritten with each name in turn: the same address, another name.
    char buf[64];
    for (int round = 0; round < 5; ++round) {
        for (int i = 0; i < 3; ++i) {
            std::strcpy(buf, names[i]);
            ASSERT_EQ(db->setSignalValue("M", buf, 10 * round + i), 0);
        }
        for (int i = 0; i < 3; ++i) {
            std::strcpy(buf, names[i]);
            double v = 0;
            ASSERT_EQ(db->getSignalValue("M", buf, &v), 0);
            EXPECT_EQ(v, 10 * round + i) << names[i];
        }
    }
    // Strings whose addresses differ by a power of two large enough to land on the
    // same remembered slot.
    std::vector<char> wide(1 << 17);
    for (size_t gap = 1024; gap < wide.size(); gap *= 2) {
        std::strcpy(&wide[0], "First");
        std::strcpy(&wide[gap], "Second");
        for (int i = 0; i < 4; ++i) {
            double a = 0, b = 0;
            ASSERT_EQ(db->getSignalValue("M", &wide[0], &a), 0);
            ASSERT_EQ(db->getSignalValue("M", &wide[gap], &b), 0);
            EXPECT_EQ(a, 40);
            EXPECT_EQ(b, 41);
        }
    }
}

// A remembered signal also notes where in its page the message name string lay;
// another string at the same place in another page, or at a page's very start, must
// still be compared as it is.
TEST(DbcLookupNames, MessageStringsAtOnePlaceInDifferentPages) {
    auto db = parse(
        "BO_ 1 First: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 2 Second: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n"
        "BO_ 3 Message_name_of_21_by: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n");
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void* p = ::mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    char* const base = static_cast<char*>(p);
    const char* const names[] = {"First", "Second", "Message_name_of_21_by"};
    const char* const sig = "S";  // one signal string for every call
    for (int round = 0; round < 4; ++round) {
        for (int m = 0; m < 3; ++m) {
            char* s = base + static_cast<size_t>(m) * page + 100;  // offset 100 in each page
            std::strcpy(s, names[m]);
            ASSERT_EQ(db->setSignalValue(s, sig, 10 * round + m), 0) << names[m];
            double v = -1;
            ASSERT_EQ(db->getSignalValue(s, sig, &v), 0) << names[m];
            EXPECT_EQ(v, 10 * round + m) << names[m];
        }
        for (int m = 0; m < 3; ++m) {
            double v = -1;
            ASSERT_EQ(db->getSignalValue(base + static_cast<size_t>(m) * page + 100, sig, &v), 0) << names[m];
            EXPECT_EQ(v, 10 * round + m) << names[m];
        }
        // The same place, a name of no message, or of another one.
        std::strcpy(base + page + 100, "Secone");
        double v = -1;
        EXPECT_EQ(db->getSignalValue(base + page + 100, sig, &v), DBC_ERR_NOT_FOUND);
        std::strcpy(base + page + 100, "First");
        ASSERT_EQ(db->getSignalValue(base + page + 100, sig, &v), 0);
        EXPECT_EQ(v, 10 * round);
        // At a page's start (never remembered) and right after the remembered call.
        std::strcpy(base + 2 * page, "Second");
        ASSERT_EQ(db->getSignalValue(base + 2 * page, sig, &v), 0);
        EXPECT_EQ(v, 10 * round + 1);
        std::strcpy(base + 2 * page, "Secon");
        EXPECT_EQ(db->getSignalValue(base + 2 * page, sig, &v), DBC_ERR_NOT_FOUND);
        EXPECT_EQ(db->getSignalValue(nullptr, sig, &v), DBC_ERR_NOT_FOUND);
    }
    ::munmap(p, 3 * page);
}

TEST(DbcLookupNames, LongNamesAndNamesAlikeButForOneByte) {
    const std::string m40(40, 'm');
    std::string text = "BO_ 1 " + m40 + ": 8 N\n";
    const char* sigs[] = {"S_31_bytes_long_name_number_one", "S_32_bytes_long_name_number_one_", "S_31_bytes_long_name_number_onX",
                          "S_45_bytes_long_name_that_keeps_on_going_on_A", "S_45_bytes_long_name_that_keeps_on_going_on_B",
                          "S_16_bytes_name_", "S_15_bytes_name"};
    for (int i = 0; i < 7; ++i)
        text += std::string(" SG_ ") + sigs[i] + " : " + std::to_string(8 * i) + "|8@1+ (1,0) [0|255] \"\" N\n";
    text += "BO_ 2 " + m40.substr(0, 39) + "n: 8 N\n SG_ S_15_bytes_name : 0|8@1+ (1,0) [0|255] \"\" N\n";
    auto db = parse(text);
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 7; ++i) ASSERT_EQ(db->setSignalValue(m40.c_str(), sigs[i], i + round), 0) << sigs[i];
        for (int i = 6; i >= 0; --i) {
            double v = -1;
            ASSERT_EQ(db->getSignalValue(m40.c_str(), sigs[i], &v), 0) << sigs[i];
            EXPECT_EQ(v, i + round) << sigs[i];
        }
    }
    double v = -1;
    EXPECT_EQ(db->getSignalValue((m40.substr(0, 39) + "n").c_str(), "S_15_bytes_name", &v), 0);
    EXPECT_EQ(v, 0);  // the other message's signal, untouched
    EXPECT_EQ(db->getSignalValue(m40.c_str(), "S_45_bytes_long_name_that_keeps_on_going_on_C", &v), DBC_ERR_NOT_FOUND);
    EXPECT_EQ(db->getSignalValue(m40.substr(0, 39).c_str(), "S_15_bytes_name", &v), DBC_ERR_NOT_FOUND);
}

TEST(DbcLookupNames, ChangedRecordsAreNotReachedThroughOldMemories) {
    auto db = parse("BO_ 1 Old: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n");
    double v = 0;
    ASSERT_EQ(db->setSignalValue("Old", "S", 5), 0);
    ASSERT_EQ(db->getSignalValue("Old", "S", &v), 0);
    DBC_MESSAGE renamed = db->messages[0];
    renamed.name = "New";
    renamed.signals[0].name = "T";
    ASSERT_TRUE(db->updateMessage("Old", renamed));
    EXPECT_EQ(db->getSignalValue("Old", "S", &v), DBC_ERR_NOT_FOUND);
    EXPECT_EQ(db->getSignalValue("New", "S", &v), DBC_ERR_NOT_FOUND);
    EXPECT_EQ(db->getSignalValue("New", "T", &v), 0);
    EXPECT_EQ(v, 5);
    db->appendSignalValues({"SG_", "S", ":", "8|8@1+", "(2,0)", "[0|255]", "\"\"", "N"}, db->messages[0]);
    EXPECT_EQ(db->setSignalValue("New", "S", 6), 0);
    EXPECT_EQ(db->messages[0].signals[1].rawValue, 3u);
}

TEST(DbcLookupNames, TheExportedCallsOnTwoDatabasesInTurn) {
    dbc_test::FakeDevice device(0x53A9A100);
    dbc_test::TempFile a("BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" N\n");
    dbc_test::TempFile b("BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (2,0) [0|255] \"\" N\n");
    const uint64_t ha = DBC_ParserFile(device.handle(), a.c_str());
    const uint64_t hb = DBC_ParserFile(device.handle(), b.c_str());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(DBC_SetSignalValue(ha, "M", "S", 10 + i), 0);
        EXPECT_EQ(DBC_SetSignalValue(hb, "M", "S", 20 + 2 * i), 0);  // factor 2
        EXPECT_EQ(dbc_test::value(ha, "M", "S"), 10 + i);
        EXPECT_EQ(dbc_test::value(hb, "M", "S"), 20 + 2 * i);
    }
    EXPECT_EQ(DBC_GetSignalValue(ha, "M", "S", nullptr), DBC_ERR_HANDLE);
    double v = 0;
    EXPECT_EQ(DBC_GetSignalValue(0, "M", "S", &v), DBC_ERR_HANDLE);
    EXPECT_EQ(DBC_SetSignalValue(1, "M", "S", 1), DBC_ERR_HANDLE);
}

}  // namespace
