// The simulator's own LDF reader and the LIN clusters it plays ([[lin_ldf]] in world
// files): what it reads, what it refuses and where, and the frames its nodes put on a
// bus, checksums included.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "lin_ldf.h"
#include "world.h"

namespace {

using namespace polybus_sim;
using polybus_sim::world::parse_world;
using polybus_sim::world::WorldError;

const char* kCluster = R"(/* a door cluster */
LIN_description_file;
LIN_protocol_version = "2.1";
LIN_language_version = "2.1";
LIN_speed = 19.2 kbps;
Nodes {
    Master: BCM, 5 ms, 0.1 ms;
    Slaves: Door, Mirror;
}
Signals {
    LockCmd: 2, 1, BCM, Door;
    Window: 7, 0x55, Door, BCM;   // across a byte edge below
    Serial: 24, {0x11, 0x22, 0x33}, Mirror, BCM;
    Fold: 1, 0, Mirror, BCM;
}
Diagnostic_signals {
    MasterReqB0: 8, 0;
    SlaveRespB0: 8, 0;
}
Frames {
    BcmCmd: 0x10, BCM, 1 { LockCmd, 0; }
    DoorState: 0x11, Door, 2 { Window, 5; }
    MirrorState: 0x12, Mirror, 4 { Serial, 0; Fold, 31; }
}
Diagnostic_frames {
    MasterReq: 0x3C { MasterReqB0, 0; }
    SlaveResp: 0x3D { SlaveRespB0, 0; }
}
Schedule_tables {
    Normal {
        BcmCmd delay 10 ms;
        AssignNAD { Door } delay 5 ms;
        DoorState delay 10 ms;
        MirrorState delay 10.5 ms;
    }
}
)";

LdfCluster parsed(const std::string& text) {
    LdfCluster c;
    int line = 0;
    std::string error;
    EXPECT_TRUE(parse_ldf(text, c, line, error)) << line << ": " << error;
    return c;
}

// The line and message a text is refused with.
std::pair<int, std::string> refused(const std::string& text) {
    LdfCluster c;
    int line = 0;
    std::string error;
    EXPECT_FALSE(parse_ldf(text, c, line, error)) << text;
    return {line, error};
}

std::string replace(std::string s, const std::string& from, const std::string& to) {
    const size_t at = s.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? s : s.replace(at, from.size(), to);
}

TEST(SimLdf, ReadsNodesSignalsFramesAndSchedules) {
    const LdfCluster c = parsed(kCluster);
    EXPECT_EQ(c.protocol, 210u);
    EXPECT_EQ(c.speed, 19200u);
    EXPECT_EQ(c.master, "BCM");
    EXPECT_EQ(c.slaves, (std::vector<std::string>{"Door", "Mirror"}));
    ASSERT_NE(c.signal("Serial"), nullptr);
    EXPECT_EQ(c.signal("Serial")->init, 0x332211u);  // first byte lowest
    EXPECT_EQ(c.signal("Window")->init, 0x55u);
    ASSERT_NE(c.frame("MirrorState"), nullptr);
    EXPECT_EQ(c.frame("MirrorState")->length, 4u);
    EXPECT_EQ(c.frame("MirrorState")->signals[1].offset, 31u);
    // MasterReq is the master's; SlaveResp belongs to whichever slave answers.
    EXPECT_TRUE(c.by_master(*c.frame("MasterReq")));
    EXPECT_FALSE(c.by_master(*c.frame("SlaveResp")));
    EXPECT_EQ(c.frame("SlaveResp")->length, 8u);
    const LdfSchedule* s = c.schedule("Normal");
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(s->slots.size(), 4u);
    EXPECT_EQ(s->slots[1].frame, "AssignNAD");
    EXPECT_DOUBLE_EQ(s->slots[1].delay_ms, 5);
    EXPECT_DOUBLE_EQ(s->slots[3].delay_ms, 10.5);
}

TEST(SimLdf, ChecksumKindFollowsProtocolVersionAndDiagnosticIdentifiers) {
    struct Case {
        const char* version;
        unsigned protocol;
        bool enhanced;
    } cases[] = {{"1.3", 130, false}, {"2.0", 200, true}, {"2.2", 220, true}, {"J2602_1_1.0", 200, true},
                 {"ISO17987:2015", 0, false}};
    for (const auto& k : cases) {
        const LdfCluster c = parsed(replace(kCluster, "\"2.1\";\nLIN_language", std::string("\"") + k.version +
                                                                                    "\";\nLIN_language"));
        EXPECT_EQ(c.protocol, k.protocol) << k.version;
        EXPECT_EQ(c.enhanced(0x11), k.enhanced) << k.version;
        for (uint8_t id = 0x3C; id <= 0x3F; ++id) EXPECT_FALSE(c.enhanced(id)) << k.version;
    }
}

TEST(SimLdf, RefusesMalformedFilesAtTheirLine) {
    auto r = refused(replace(kCluster, "Fold, 31; }", "Fold, 31; "));  // the frame's brace never closes
    EXPECT_GT(r.first, 1);
    EXPECT_NE(r.second.find("never closed"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "Fold, 31;", "Fold, 32;"));
    EXPECT_EQ(r.first, 23);
    EXPECT_NE(r.second.find("does not fit frame 'MirrorState'"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "LockCmd, 0; }", "Lock, 0; }"));
    EXPECT_NE(r.second.find("unknown signal 'Lock'"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "Window: 7,", "Window: seven,"));
    EXPECT_EQ(r.first, 12);
    EXPECT_NE(r.second.find("'seven'"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "0x12, Mirror", "0x100, Mirror"));
    EXPECT_NE(r.second.find("beyond 255"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "DoorState delay 10 ms;", "DoorState 10 ms;"));
    EXPECT_NE(r.second.find("no 'delay N ms'"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "Master: BCM, 5 ms, 0.1 ms;", ""));
    EXPECT_NE(r.second.find("master"), std::string::npos) << r.second;
    r = refused(replace(kCluster, "/* a door cluster */", "/* a door cluster"));
    EXPECT_EQ(r.first, 1);
    r = refused(std::string(kCluster) + "Channel_name = \"DB;\n");
    EXPECT_NE(r.second.find("never closed"), std::string::npos) << r.second;
}

TEST(SimLdf, ReadsEveryCorpusFile) {
    const std::string dir = std::string(POLYBUS_CORPUS_DIR) + "/ldf/";
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0) GTEST_SKIP() << "corpus not found at " << dir;
    const char* files[] = {"Python_LIN_testLDF.ldf", "iso17987.ldf", "j2602_1.ldf", "j2602_1_no_values.ldf",
                           "ldf_with_sporadic_frames.ldf", "lin13.ldf", "lin20.ldf", "lin21.ldf", "lin22.ldf",
                           "lin_diagnostics.ldf", "lin_encoders.ldf", "lin_schedules.ldf",
                           "no_signal_subscribers.ldf", "../../bench/big.ldf"};
    for (const char* name : files) {
        LdfCluster c;
        int line = 0;
        std::string error;
        if (!read_ldf(dir + name, c, line, error)) {
            ADD_FAILURE() << name << ":" << line << ": " << error;
            continue;
        }
        EXPECT_FALSE(c.frames.empty()) << name;
        EXPECT_GT(c.speed, 0u) << name;
        // A frame's bytes hold its signals' initial values and nothing else.
        LdfValues v(c), back(c);
        for (auto& f : c.frames) {
            const std::vector<uint8_t> bytes = v.encode(f);
            ASSERT_EQ(bytes.size(), f.length) << name << " " << f.name;
            for (auto& s : f.signals) back.set(s.name, ~uint64_t{0});
            back.decode(f, bytes.data(), bytes.size());
            for (auto& s : f.signals) {
                uint64_t got = 0;
                back.get(s.name, got);
                const unsigned size = c.signal(s.name)->size;
                const uint64_t mask = size >= 64 ? ~uint64_t{0} : (uint64_t{1} << size) - 1;
                EXPECT_EQ(got & mask, c.signal(s.name)->init) << name << " " << f.name << "." << s.name;
            }
        }
    }
}

// ---- nodes on a bus ----

class LdfBus : public ::testing::Test {
protected:
    void SetUp() override {
        cluster = std::make_shared<LdfCluster>(parsed(kCluster));
        bus->set_time_scale(0);
    }
    std::shared_ptr<LdfCluster> cluster;
    std::shared_ptr<LinBus> bus = std::make_shared<LinBus>();
};

TEST_F(LdfBus, SlavesAnswerTheirFramesAndTakeTheMastersWithTheRightChecksum) {
    auto slaves = std::make_shared<LdfSlaves>(LdfSlavesConfig{cluster, {{"Fold", 1}}});
    bus->attach(slaves);
    LinMasterNode master(bus);
    // Window 0x55 at bit 5: 0x55 << 5 = 0x0AA0.
    EXPECT_EQ(master.request(0x11), (std::vector<uint8_t>{0xA0, 0x0A, lin_checksum(true, lin_pid(0x11),
                                                                                    std::vector<uint8_t>{0xA0, 0x0A}.data(), 2)}));
    const std::vector<uint8_t> mirror = master.request(0x12);
    ASSERT_EQ(mirror.size(), 5u);
    EXPECT_EQ(mirror[3], 0x80);  // Fold (overridden to 1) in the top bit
    EXPECT_EQ(mirror[0], 0x11);
    EXPECT_TRUE(master.request(0x10).empty());  // the master's own frame: nobody answers
    EXPECT_TRUE(master.request(0x3D).empty());  // no diagnostic request yet

    master.publish(0x10, {0x02}, false);  // classic checksum on a 2.1 cluster: refused
    EXPECT_EQ(slaves->refused(), 1);
    EXPECT_EQ(slaves->taken("BcmCmd"), 0);
    master.publish(0x10, {0xFE}, true);
    EXPECT_EQ(slaves->taken("BcmCmd"), 1);
    uint64_t raw = 0;
    ASSERT_TRUE(slaves->value("LockCmd", raw));
    EXPECT_EQ(raw, 2u);  // only the signal's own two bits

    // A diagnostic request (classic checksum) earns exactly one response.
    master.publish(0x3C, {0x7F, 6, 0xB2, 0, 0, 0, 0, 0}, true);
    EXPECT_EQ(slaves->refused(), 2);
    master.publish(0x3C, {0x7F, 6, 0xB2, 0, 0, 0, 0, 0}, false);
    EXPECT_EQ(slaves->taken("MasterReq"), 1);
    const std::vector<uint8_t> resp = master.request(0x3D);
    ASSERT_EQ(resp.size(), 9u);
    EXPECT_EQ(resp[8], lin_checksum(false, lin_pid(0x3D), resp.data(), 8));
    EXPECT_TRUE(master.request(0x3D).empty());
}

TEST_F(LdfBus, MasterRunsItsScheduleAndChecksAnswers) {
    auto slaves = std::make_shared<LdfSlaves>(LdfSlavesConfig{cluster, {}});
    bus->attach(slaves);
    auto master = std::make_shared<LdfMaster>(bus, LdfMasterConfig{cluster, "Normal", {{"LockCmd", 3}}, 0});
    slaves->set_value("Window", 0x7F);
    for (size_t i = 0; i < 4; ++i) master->run_slot(i, 0);
    EXPECT_EQ(slaves->taken("BcmCmd"), 1);
    uint64_t raw = 0;
    slaves->value("LockCmd", raw);
    EXPECT_EQ(raw, 3u);
    EXPECT_EQ(master->answered("DoorState"), 1);
    EXPECT_EQ(master->answered("MirrorState"), 1);
    master->value("Window", raw);
    EXPECT_EQ(raw, 0x7Fu);
    master->value("Serial", raw);
    EXPECT_EQ(raw, 0x332211u);

    // A slave answering with the classic checksum on a 2.1 cluster is refused; a silent
    // one is counted as such.
    bus->detach(slaves.get());
    auto wrong = std::make_shared<LinSlave>(LinSlaveConfig{0x11, {1, 2}, false, true, LinSlaveFault::None});
    bus->attach(wrong);
    master->run_slot(2, 0);
    master->run_slot(3, 0);
    EXPECT_EQ(master->refused(), 1);
    EXPECT_EQ(master->unanswered(), 1);
    EXPECT_EQ(master->answered("DoorState"), 1);
}

// ---- world files ----

class LdfWorld : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/polybus-ldf-world-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        std::ofstream(dir + "/door.ldf") << kCluster;
        std::ofstream(dir + "/broken.ldf") << replace(kCluster, "Window: 7,", "Window: seven,");
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

    WorldError refusal(const std::string& body) {
        try {
            parse_world(std::string("[[adapter]]\nname = \"bench\"\nid = 0x41000001\n\n[[lin_ldf]]\n") + body,
                        dir + "/world.toml");
        } catch (const WorldError& e) {
            return e;
        }
        ADD_FAILURE() << "accepted:\n" << body;
        return WorldError({}, "");
    }
    std::string dir;
};

TEST_F(LdfWorld, AcceptsBothRoles) {
    const std::string head = "[[adapter]]\nname = \"bench\"\nid = 0x41000001\n";
    EXPECT_EQ(parse_world(head + "[[lin_ldf]]\nchannel = \"bench:0\"\nldf = \"door.ldf\"\n[lin_ldf.signals]\nWindow = 3\n"
                                 "[[lin_ldf]]\nchannel = \"bench:1\"\nldf = \"door.ldf\"\nrole = \"master\"\n"
                                 "schedule = \"Normal\"\nstart_ms = 5\n",
                          dir + "/world.toml")
                  .adapter_count(),
              1u);
}

TEST_F(LdfWorld, RefusesBadTablesWithTheirPlace) {
    struct Case {
        std::string body;
        int line;
        std::string says;
    } cases[] = {
        {"channel = \"bench:0\"\nldf = \"missing.ldf\"\n", 7, "LDF file not found"},
        {"channel = \"bench:0\"\nldf = \"broken.ldf\"\n", 7, "broken.ldf:12: expected a size in bits, found 'seven'"},
        {"channel = \"bench:4\"\nldf = \"door.ldf\"\n", 6, "LIN channel"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\nrole = \"observer\"\n", 8, "'role' must be"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\nrole = \"master\"\n", 5, "needs the schedule table"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\nrole = \"master\"\nschedule = \"Fast\"\n", 9,
         "no schedule table 'Fast'"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\nschedule = \"Normal\"\n", 8, "slaves run no schedule"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\n[lin_ldf.signals]\nWindow = 128\n", 9, "7 bits: 0 to 127"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\n[lin_ldf.signals]\nDoorLock = 1\n", 9, "no signal 'DoorLock'"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\n[lin_ldf.signals]\nWindow = 1.5\n", 9, "raw integer"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\nspeed = 19200\n", 8, "unknown key"},
        {"channel = \"bench:0\"\nldf = \"door.ldf\"\n[[lin_ldf]]\nchannel = \"bench:0\"\nldf = \"door.ldf\"\n", 9,
         "already carries"},
    };
    for (const auto& c : cases) {
        const WorldError e = refusal(c.body);
        EXPECT_EQ(e.where().line, c.line) << c.body << "\n" << e.what();
        EXPECT_NE(std::string(e.what()).find(c.says), std::string::npos) << c.body << "\n" << e.what();
    }
}

TEST(LdfWorldExample, ShippedClusterWorldIsAccepted) {
    try {
        EXPECT_EQ(polybus_sim::world::load_world(std::string(POLYBUS_SOURCE_DIR) + "/examples/worlds/ldf_cluster.toml")
                      .adapter_count(),
                  1u);
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
    }
}

}  // namespace
