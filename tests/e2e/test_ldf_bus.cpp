// LDF databases on a simulated LIN cluster played from the same LDF file by the
// simulator's own reader: the library's frames and schedule passes in both roles reach
// the cluster's nodes, and what the nodes publish decodes to their values, with the
// checksum kind the protocol version calls for (a node refuses any other).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "lin_ldf.h"
#include "lin_model.h"
#include "polybus/ldf.h"
#include "polybus/lin.h"
#include "sim_fixture.h"

using namespace polybus_sim;
using namespace polybus_test;

namespace {

// Two slaves with non-zero initial values, a byte array, signals across byte edges, a
// diagnostic pair and a schedule with a command slot. %s: the protocol version.
const char* kCluster = R"(
LIN_description_file;
LIN_protocol_version = "%s";
LIN_language_version = "%s";
LIN_speed = 19.2 kbps;
Nodes { Master: Gateway, 5 ms, 0.1 ms; Slaves: Seat, Climate; }
Signals {
    SeatTarget: 10, 300, Gateway, Seat;
    Blower: 4, 2, Gateway, Climate;
    SeatPos: 12, 0xABC, Seat, Gateway;
    SeatMoving: 1, 1, Seat, Gateway;
    CabinTemp: 8, 0x5A, Climate, Gateway;
    ClimateId: 24, {0x12, 0x34, 0x56}, Climate, Gateway;
}
Diagnostic_signals { Rq0: 8, 0; Rq1: 8, 0; Rs0: 8, 0; Rs1: 8, 0; }
Frames {
    GatewayCmd: 0x20, Gateway, 3 { SeatTarget, 3; Blower, 16; }
    SeatState: 0x21, Seat, 2 { SeatPos, 2; SeatMoving, 15; }
    ClimateState: 0x22, Climate, 5 { CabinTemp, 4; ClimateId, 12; }
}
Diagnostic_frames { MasterReq: 0x3C { Rq0, 0; Rq1, 8; } SlaveResp: 0x3D { Rs0, 0; Rs1, 8; } }
Schedule_tables {
    Cycle { GatewayCmd delay 10 ms; SeatState delay 10 ms; AssignNAD { Seat } delay 5 ms; ClimateState delay 10 ms; }
}
)";

bool exists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

class LdfBus : public SimTest {
protected:
    void TearDown() override {
        if (master_) master_->stop();
        for (auto& p : written_) std::remove(p.c_str());
        SimTest::TearDown();
    }
    LinModel& lin() { return model<LinModel>(); }

    std::string write_cluster(const char* version) {
        char text[4096];
        std::snprintf(text, sizeof(text), kCluster, version, version);
        const std::string path = ::testing::TempDir() + "ldf_bus_" + std::to_string(::getpid()) + "_" + version + ".ldf";
        std::ofstream(path, std::ios::binary) << text;
        written_.push_back(path);
        return path;
    }
    std::string corpus(const char* name) { return std::string(POLYBUS_CORPUS_DIR) + "/ldf/" + name; }

    std::shared_ptr<LdfCluster> cluster(const std::string& path) {
        auto c = std::make_shared<LdfCluster>();
        int line = 0;
        std::string error;
        EXPECT_TRUE(read_ldf(path, *c, line, error)) << path << ":" << line << ": " << error;
        return c;
    }
    // A cluster's slaves on the channel, in place of any placed before.
    std::shared_ptr<LdfSlaves> place_slaves(int channel, const std::shared_ptr<LdfCluster>& c) {
        for (auto& old : slaves_) lin().bus(channel)->detach(old.get());
        auto s = std::make_shared<LdfSlaves>(LdfSlavesConfig{c, {}});
        lin().bus(channel)->attach(s);
        slaves_.push_back(s);
        return s;
    }

    // The library's copy of a signal inside a frame.
    static const LDF_LIN_SIGNAL* library_signal(const LDF_LIN_FRAME& f, const std::string& name) {
        for (uint32_t i = 0; i < f.signalCount; ++i)
            if (name == f.signals[i].name) return &f.signals[i];
        return nullptr;
    }
    static uint64_t mask(unsigned bits) { return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1; }

    // The adapter as master against the cluster's slaves: every frame both sides give the
    // same length goes over the bus once, in the library's order.
    void exchange_every_frame(const std::string& path) {
        lin().set_time_scale(0);
        auto c = cluster(path);
        auto slaves = place_slaves(0, c);
        LDF_CODING* db = LDF_ParserFile(handle, 0, 1, path.c_str());
        ASSERT_NE(db, nullptr) << path;
        int slave_frames = 0, master_frames = 0;
        for (uint32_t k = 0; k < db->frameCount; ++k) {
            LDF_LIN_FRAME& lf = db->frames[k];
            const LdfFrame* sf = c->frame(lf.name);
            ASSERT_NE(sf, nullptr) << lf.name;
            // Frames without a length in a LIN 1.x file are left alone: the library reads
            // them as empty, the cluster by their identifier.
            if (lf.frameKind == LDF_FRAME_DIAGNOSTIC || lf.size != sf->length) continue;
            SCOPED_TRACE(path + " frame " + lf.name);
            if (!c->by_master(*sf)) {
                // Scramble the library's values first so that only the bus can restore them.
                unsigned char junk[8];
                std::memset(junk, 0xA5, sizeof(junk));
                ASSERT_EQ(LDF_SetFrameRawValue(db, lf.name, junk), LDF_OK);
                ASSERT_EQ(LDF_ExeFrameToBus(db, lf.name, 0), LDF_OK);
                for (auto& s : sf->signals) {
                    const LDF_LIN_SIGNAL* ls = library_signal(lf, s.name);
                    ASSERT_NE(ls, nullptr) << s.name;
                    uint64_t expected = 0;
                    ASSERT_TRUE(slaves->value(s.name, expected));
                    EXPECT_EQ(uint64_t(ls->initValue) & mask(ls->size), expected) << s.name;
                }
                ++slave_frames;
            } else {
                unsigned char pattern[8];
                for (int i = 0; i < 8; ++i) pattern[i] = static_cast<unsigned char>(0x3C + 0x11 * i + k);
                ASSERT_EQ(LDF_SetFrameRawValue(db, lf.name, pattern), LDF_OK);
                EXPECT_GE(LDF_ExeFrameToBus(db, lf.name, 0), 0);
                EXPECT_EQ(slaves->taken(lf.name), 1);
                LdfValues sent(*c);
                sent.decode(*sf, pattern, sf->length);
                for (auto& s : sf->signals) {
                    uint64_t want = 0, got = 0;
                    sent.get(s.name, want);
                    ASSERT_TRUE(slaves->value(s.name, got));
                    EXPECT_EQ(got, want & mask(c->signal(s.name)->size)) << s.name;
                }
                ++master_frames;
            }
        }
        EXPECT_GT(slave_frames, 0) << path;
        EXPECT_GT(master_frames, 0) << path;
        EXPECT_EQ(slaves->refused(), 0) << path << ": frames with a checksum of the wrong kind";
    }

    // The adapter as slave under the cluster's master running `schedule`: the library's
    // responses reach the master, and the master's frames reach the library.
    void follow_master(const std::string& path, const std::string& schedule) {
        auto c = cluster(path);
        const LdfSchedule* sch = c->schedule(schedule);
        ASSERT_NE(sch, nullptr);
        // The master publishes values other than the initial ones, so that only frames it
        // really sent can bring them into the library.
        std::map<std::string, uint64_t> values;
        for (auto& f : c->frames)
            if (c->by_master(f) && !f.diagnostic)
                for (auto& s : f.signals) values[s.name] = (c->signal(s.name)->init + 1) & mask(c->signal(s.name)->size);
        LDF_CODING* db = LDF_ParserFile(handle, 2, 0, path.c_str());
        ASSERT_NE(db, nullptr) << path;
        // The adapter's answers: every slave signal one above the library's initial value.
        std::map<std::string, uint64_t> answers;
        for (uint32_t k = 0; k < db->frameCount; ++k) {
            LDF_LIN_FRAME& lf = db->frames[k];
            if (lf.frameKind == LDF_FRAME_DIAGNOSTIC || c->by_master(*c->frame(lf.name))) continue;
            for (uint32_t i = 0; i < lf.signalCount; ++i) {
                LDF_LIN_SIGNAL& sig = lf.signals[i];
                sig.initValue = int64_t((uint64_t(sig.initValue) + 1) & mask(sig.size));
                answers[sig.name] = uint64_t(sig.initValue);
            }
        }
        // The slave frames of the schedule both sides give the same length, in pass order.
        std::vector<std::string> slave_frames;
        for (auto& slot : sch->slots) {
            const LdfFrame* f = c->frame(slot.frame);
            if (f == nullptr || f->diagnostic || c->by_master(*f)) continue;
            for (uint32_t k = 0; k < db->frameCount; ++k)
                if (slot.frame == db->frames[k].name && db->frames[k].size == f->length) slave_frames.push_back(f->name);
        }
        ASSERT_FALSE(slave_frames.empty()) << path;
        ASSERT_EQ(LDF_ExeSchToBus(db, schedule.c_str(), 0), LDF_OK);

        master_ = std::make_shared<LdfMaster>(lin().bus(2), LdfMasterConfig{c, schedule, values, 0});
        master_->start(*adapter);
        auto check_answer = [&](const std::string& name) {
            EXPECT_TRUE(eventually([&] { return master_->answered(name) > 0; })) << path << ": " << name << " unanswered";
            for (auto& s : c->frame(name)->signals) {
                uint64_t got = 0;
                ASSERT_TRUE(master_->value(s.name, got));
                EXPECT_EQ(got, answers[s.name]) << path << ": " << name << "." << s.name;
            }
        };
        // Each frame loads the adapter's response table anew, so a pass leaves the
        // response of its last slave frame there; single frames load the others.
        check_answer(slave_frames.back());
        for (auto& name : slave_frames) {
            if (master_->answered(name) > 0) continue;
            ASSERT_EQ(LDF_ExeFrameToBus(db, name.c_str(), 0), LDF_OK);
            check_answer(name);
        }
        EXPECT_EQ(master_->refused(), 0) << path << ": answers with a checksum of the wrong kind";

        // Passes in the slave role collect what the master published meanwhile.
        EXPECT_TRUE(eventually([&] {
            EXPECT_EQ(LDF_ExeSchToBus(db, schedule.c_str(), 0), LDF_OK);
            for (uint32_t k = 0; k < db->frameCount; ++k) {
                const LDF_LIN_FRAME& lf = db->frames[k];
                const LdfFrame* f = c->frame(lf.name);
                if (lf.frameKind == LDF_FRAME_DIAGNOSTIC || !c->by_master(*f) || lf.size != f->length) continue;
                bool scheduled = false;
                for (auto& slot : sch->slots) scheduled = scheduled || slot.frame == f->name;
                if (!scheduled) continue;
                for (uint32_t i = 0; i < lf.signalCount; ++i)
                    if (uint64_t(lf.signals[i].initValue) != values[lf.signals[i].name]) return false;
            }
            return true;
        })) << path << ": the master's frames never reached the library";
    }

    std::shared_ptr<LdfMaster> master_;
    std::vector<std::shared_ptr<LdfSlaves>> slaves_;
    std::vector<std::string> written_;
};

}  // namespace

TEST_F(LdfBus, MasterRoleExchangesEveryFrameWithEnhancedAndClassicChecksums) {
    exchange_every_frame(write_cluster("2.1"));
    exchange_every_frame(write_cluster("1.3"));
}

TEST_F(LdfBus, MasterRoleWithCorpusClusters) {
    for (const char* name : {"lin22.ldf", "lin13.ldf"}) {
        if (!exists(corpus(name))) GTEST_SKIP() << "corpus not found at " << corpus(name);
        exchange_every_frame(corpus(name));
    }
}

TEST_F(LdfBus, MasterRoleSchedulePassesReachTheSlaves) {
    lin().set_time_scale(0);
    for (const char* version : {"2.0", "1.3"}) {
        SCOPED_TRACE(version);
        const std::string path = write_cluster(version);
        auto c = cluster(path);
        auto slaves = place_slaves(0, c);
        LDF_CODING* db = LDF_ParserFile(handle, 0, 1, path.c_str());
        ASSERT_NE(db, nullptr);
        ASSERT_EQ(LDF_SetSignalValue(db, "GatewayCmd", "SeatTarget", 777), LDF_OK);
        slaves->set_value("CabinTemp", 0x21);
        for (int pass = 1; pass <= 3; ++pass) ASSERT_EQ(LDF_ExeSchToBus(db, "Cycle", 0), LDF_OK);
        EXPECT_EQ(slaves->taken("GatewayCmd"), 3);
        EXPECT_EQ(slaves->refused(), 0);
        uint64_t raw = 0;
        slaves->value("SeatTarget", raw);
        EXPECT_EQ(raw, 777u);
        slaves->value("Blower", raw);
        EXPECT_EQ(raw, 2u);
        char text[64];
        ASSERT_EQ(LDF_GetSignalValueStr(db, "ClimateState", "CabinTemp", text), LDF_OK);
        EXPECT_STREQ(text, "33");
        ASSERT_EQ(LDF_GetSignalValueStr(db, "ClimateState", "ClimateId", text), LDF_OK);
        EXPECT_STREQ(text, std::to_string(0x563412).c_str());
        ASSERT_EQ(LDF_GetSignalValueStr(db, "SeatState", "SeatPos", text), LDF_OK);
        EXPECT_STREQ(text, std::to_string(0xABC).c_str());
    }
}

TEST_F(LdfBus, MasterRoleDiagnosticFramesUseTheClassicChecksum) {
    lin().set_time_scale(0);
    const std::string path = write_cluster("2.2");
    auto c = cluster(path);
    auto slaves = place_slaves(0, c);
    LDF_CODING* db = LDF_ParserFile(handle, 0, 1, path.c_str());
    ASSERT_NE(db, nullptr);
    // Nothing asked yet: no slave answers the response frame.
    EXPECT_EQ(LDF_ExeFrameToBus(db, "SlaveResp", 0), LDF_ERR_NO_DATA);
    const unsigned char request[8] = {0x7F, 0x06, 0xB2, 0x00, 0xFF, 0x7F, 0xFF, 0xFF};
    ASSERT_EQ(LDF_SetFrameRawValue(db, "MasterReq", request), LDF_OK);
    EXPECT_GE(LDF_ExeFrameToBus(db, "MasterReq", 0), 0);
    EXPECT_EQ(slaves->taken("MasterReq"), 1);
    EXPECT_EQ(slaves->refused(), 0);
    uint64_t raw = 0;
    slaves->value("Rq1", raw);
    EXPECT_EQ(raw, 0x06u);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "SlaveResp", 0), LDF_OK);
}

TEST_F(LdfBus, SlaveRoleFollowsTheSimulatedMaster) {
    follow_master(write_cluster("2.1"), "Cycle");
}

TEST_F(LdfBus, SlaveRoleWithTheClassicChecksum) {
    follow_master(write_cluster("1.3"), "Cycle");
}

TEST_F(LdfBus, SlaveRoleWithCorpusClusters) {
    if (!exists(corpus("lin22.ldf"))) GTEST_SKIP() << "corpus not found at " << corpus("lin22.ldf");
    follow_master(corpus("lin22.ldf"), "Collision_resolver");
}
