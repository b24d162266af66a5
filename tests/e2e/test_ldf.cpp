// LDF databases end to end: parsing for an open adapter, the section calls, listing and
// values through the exported calls, and frames and schedule tables on the simulated
// LIN bus with the adapter as master and as slave.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "lin_model.h"
#include "polybus/ldf.h"
#include "polybus/lin.h"
#include "sim_fixture.h"
#include "wire/lin.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {

using Bytes = std::vector<uint8_t>;

// A LIN 2.1 cluster: the master publishes Cmd (0x10), slave S1 publishes State (0x11),
// and a LIN 1.3 twin of it for the classic checksum.
const char* kCluster = R"(
LIN_description_file;
LIN_protocol_version = "%s";
LIN_language_version = "%s";
LIN_speed = 19.2 kbps;
Nodes { Master: BCM, 5 ms, 0.1 ms; Slaves: S1; }
Signals {
    Mode: 4, 0, BCM, S1;
    Level: 8, 0, BCM, S1;
    Temp: 8, 0, S1, BCM;
    Fault: 1, 0, S1, BCM;
}
Diagnostic_signals { Rq0: 8, 0; Rs0: 8, 0; }
Frames {
    Cmd: 0x10, BCM, 2 { Mode, 0; Level, 4; }
    State: 0x11, S1, 2 { Temp, 0; Fault, 8; }
}
Diagnostic_frames { MasterReq: 0x3C { Rq0, 0; } SlaveResp: 0x3D { Rs0, 0; } }
Schedule_tables { Run { Cmd delay 10 ms; State delay 10 ms; Unknown delay 1 ms; } }
Signal_encoding_types {
    TempEnc { physical_value, 0, 250, 0.5, -40, "degC"; logical_value, 255, "invalid"; }
}
Signal_representation { TempEnc: Temp; }
)";

class Ldf : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        path_ = ::testing::TempDir() + "ldf_e2e_" + std::to_string(::getpid()) + ".ldf";
        write_cluster("2.1");
    }
    void TearDown() override {
        std::remove(path_.c_str());
        SimTest::TearDown();
    }
    void write_cluster(const char* version) {
        char text[4096];
        std::snprintf(text, sizeof(text), kCluster, version, version);
        std::ofstream(path_, std::ios::binary) << text;
    }
    LinModel& lin() { return model<LinModel>(); }

    std::string path_;
};

}  // namespace

TEST_F(Ldf, OpensOnlyForAnOpenAdapter) {
    LDF_CODING c{};
    EXPECT_EQ(LDF_Decode(0x7E000001, path_.c_str(), &c), LDF_ERR_NO_DEVICE);
    // Without a prepared file the section calls refuse.
    LDF_LIN_FRAME* frames = nullptr;
    EXPECT_EQ(LDF_GetFrames(&frames, nullptr, 0), LDF_ERR_NO_DEVICE);
    EXPECT_EQ(LDF_Decode(handle, "/nonexistent/cluster.ldf", &c), LDF_ERR_OPEN);
    EXPECT_EQ(LDF_ParserFile(handle, 0, 1, "/nonexistent/cluster.ldf"), nullptr);

    ASSERT_EQ(LDF_Decode(handle, path_.c_str(), &c), LDF_OK);
    EXPECT_EQ(c.frameCount, 4u);
    // The section calls read the same prepared file.
    LDF_SIGNAL_CODING* codings = nullptr;
    ASSERT_EQ(LDF_GetSignalsCoding(&codings), 1);
    LDF_LIN_SIGNAL* signals = nullptr;
    ASSERT_EQ(LDF_GetSignals(&signals, codings, 1), 6);
    EXPECT_STREQ(signals[2].coding.name, "TempEnc");
    ASSERT_EQ(LDF_GetFrames(&frames, signals, 6), 4);
    EXPECT_STREQ(frames[3].name, "SlaveResp");
    LDF_LIN_NODE node{};
    EXPECT_EQ(LDF_GetNodes(&node), 2);
    EXPECT_STREQ(node.masterName, "BCM");
    char* section = nullptr;
    EXPECT_EQ(LDF_GetAttributeStr("Nodes{Master:M;}", "Nodes", &section), LDF_OK);
    EXPECT_STREQ(section, "{Master:M;}");
    EXPECT_EQ(LDF_GetAttributeStr("N", "Nodes", &section), LDF_ERR_SECTION);
    EXPECT_EQ(LDF_DecodeFree(&c), LDF_OK);
    EXPECT_EQ(c.frameCount, 4u) << "nothing is released";

    // The adapter closed: the device check clears the prepared state.
    USB_CloseDevice(handle);
    EXPECT_EQ(LDF_Decode(handle, path_.c_str(), &c), LDF_ERR_NO_DEVICE);
    EXPECT_EQ(LDF_GetNodes(&node), LDF_ERR_NO_DEVICE);
    EXPECT_EQ(LDF_DataFrameToRaw(frames, nullptr, 0), LDF_ERR_NO_DEVICE);
}

TEST_F(Ldf, ListingAndValuesThroughTheHandle) {
    LDF_CODING* db = LDF_ParserFile(handle, 1, 1, path_.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(db->devHandle, static_cast<uint32_t>(handle));
    EXPECT_EQ(db->linIndex, 1u);
    EXPECT_EQ(db->isMaster, 1);
    EXPECT_EQ(db->initialised, 1);
    EXPECT_EQ(lin().channel(1).baud, 19200u) << "the channel runs at the file's speed";
    EXPECT_EQ(lin().channel(1).master_mode, 1);

    char text[256];
    EXPECT_EQ(LDF_GetProtocolVersion(db), 210);
    EXPECT_EQ(LDF_GetLINSpeed(db), 19200);
    EXPECT_EQ(LDF_GetFrameQuantity(db), 4);
    EXPECT_EQ(LDF_GetFrameName(db, 1, text), LDF_OK);
    EXPECT_STREQ(text, "State");
    EXPECT_EQ(LDF_GetFrameName(db, 4, text), LDF_ERR_NOT_FOUND);
    EXPECT_EQ(LDF_GetFrameSignalQuantity(db, "Cmd"), 2);
    EXPECT_EQ(LDF_GetFrameSignalName(db, "Cmd", 1, text), LDF_OK);
    EXPECT_STREQ(text, "Level");
    EXPECT_EQ(LDF_GetFrameSignalName(db, "Cmd", 2, text), LDF_ERR_NOT_FOUND);
    EXPECT_EQ(LDF_GetFramePublisher(db, "MasterReq", text), LDF_OK);
    EXPECT_STREQ(text, "BCM");
    EXPECT_EQ(LDF_GetMasterName(db, text), LDF_OK);
    EXPECT_STREQ(text, "BCM");
    EXPECT_EQ(LDF_GetSchQuantity(db), 1);
    EXPECT_EQ(LDF_GetSchFrameQuantity(db, "Run"), 3);
    EXPECT_EQ(LDF_GetSchFrameName(db, "Run", 1, text), LDF_OK);
    EXPECT_STREQ(text, "State");
    EXPECT_EQ(LDF_GetSchFrameQuantity(db, "Nope"), LDF_ERR_NOT_FOUND);

    EXPECT_EQ(LDF_SetSignalValue(db, "State", "Temp", 25.0), LDF_OK);
    double v = 0;
    EXPECT_EQ(LDF_GetSignalValue(db, "State", "Temp", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 25.0);
    EXPECT_EQ(LDF_GetSignalValueStr(db, "State", "Temp", text), LDF_OK);
    EXPECT_STREQ(text, "25.000000 degC");
    EXPECT_EQ(LDF_SetSignalValue(db, "State", "Nope", 1), LDF_ERR_NO_SIGNAL);
    EXPECT_EQ(LDF_SetSignalValue(db, "Nope", "Temp", 1), LDF_ERR_NO_SIGNAL);
    const unsigned char raw[2] = {0xA5, 0x01};
    EXPECT_EQ(LDF_SetFrameRawValue(db, "Cmd", raw), LDF_OK);
    EXPECT_EQ(LDF_GetSignalValue(db, "Cmd", "Mode", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 5.0);
    EXPECT_EQ(LDF_GetSignalValue(db, "Cmd", "Level", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 0x1A);
    unsigned char back[2] = {0, 0};
    EXPECT_EQ(LDF_GetFrameRawValue(db, "Cmd", back), LDF_OK);
    EXPECT_EQ(back[0], 0xA5);
    EXPECT_EQ(back[1], 0x01);

    // Null handles, everywhere.
    EXPECT_EQ(LDF_GetFrameQuantity(nullptr), LDF_ERR_HANDLE);
    EXPECT_EQ(LDF_SetSignalValue(nullptr, "Cmd", "Mode", 1), LDF_ERR_HANDLE);
    EXPECT_EQ(LDF_GetFrameRawValue(nullptr, "Cmd", back), LDF_ERR_HANDLE);
    EXPECT_EQ(LDF_ExeFrameToBus(nullptr, "Cmd", 0), LDF_ERR_HANDLE);
    EXPECT_EQ(LDF_ExeSchToBus(nullptr, "Run", 0), LDF_ERR_HANDLE);
    EXPECT_EQ(LDF_DataRawToFrame(nullptr, raw), LDF_ERR_HANDLE);
}

TEST_F(Ldf, MasterRoleWritesItsFramesAndReadsTheSlaves) {
    lin().set_time_scale(0);
    auto slave = lin().add_slave(0, LinSlaveConfig{0x11, {0x64, 0x01}, true, true});
    auto listener = lin().add_slave(0, LinSlaveConfig{0x10, {}, true, false});
    LDF_CODING* db = LDF_ParserFile(handle, 0, 1, path_.c_str());
    ASSERT_NE(db, nullptr);

    ASSERT_EQ(LDF_SetSignalValue(db, "Cmd", "Mode", 3), LDF_OK);
    ASSERT_EQ(LDF_SetSignalValue(db, "Cmd", "Level", 0xAB), LDF_OK);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "Cmd", 0), 0);
    ASSERT_EQ(listener->received().size(), 1u);
    const Bytes field = listener->received()[0];  // data, then the checksum
    ASSERT_EQ(field.size(), 3u);
    EXPECT_EQ(Bytes(field.begin(), field.begin() + 2), (Bytes{0xB3, 0x0A}));
    // The write went out with the enhanced checksum (LIN 2.1, not a diagnostic id).
    auto sync = trace->sends(LIN_EX_MASTER_SYNC);
    ASSERT_FALSE(sync.empty());
    LIN_EX_MSG sent{};
    std::memcpy(&sent, sync.back().data.data() + 1, sizeof(sent));
    EXPECT_EQ(sent.CheckType, LIN_EX_CHECK_ENHANCED);

    EXPECT_EQ(LDF_ExeFrameToBus(db, "State", 0), 0);
    double v = 0;
    ASSERT_EQ(LDF_GetSignalValue(db, "State", "Temp", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 10.0) << "raw 100 x 0.5 - 40";
    ASSERT_EQ(LDF_GetSignalValue(db, "State", "Fault", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 1.0);

    // A silent slave: no data is -7; unknown names -5.
    slave->set_fault(LinSlaveFault::NoAnswer);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "State", 0), LDF_ERR_NO_DATA);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "Nope", 0), LDF_ERR_NOT_FOUND);
    EXPECT_EQ(LDF_ExeSchToBus(db, "Nope", 0), LDF_ERR_NOT_FOUND);
    slave->set_fault(LinSlaveFault::None);

    // One pass of the table: both frames on the bus, the unknown entry skipped, and the
    // delays slept by the host between them.
    const int headers = slave->headers_seen();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(LDF_ExeSchToBus(db, "Run", 0), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_EQ(slave->headers_seen(), headers + 1);
    EXPECT_EQ(listener->received().size(), 2u);
}

TEST_F(Ldf, ClassicChecksumForOlderClustersAndDiagnosticFrames) {
    lin().set_time_scale(0);
    write_cluster("1.3");
    auto listener = lin().add_slave(0, LinSlaveConfig{0x10, {}, false, false});
    LDF_CODING* db = LDF_ParserFile(handle, 0, 1, path_.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "Cmd", 0), 0);
    LIN_EX_MSG sent{};
    std::memcpy(&sent, trace->sends(LIN_EX_MASTER_SYNC).back().data.data() + 1, sizeof(sent));
    EXPECT_EQ(sent.CheckType, LIN_EX_CHECK_CLASSIC);

    write_cluster("2.1");
    db = LDF_ParserFile(handle, 0, 1, path_.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "MasterReq", 0), 0);
    std::memcpy(&sent, trace->sends(LIN_EX_MASTER_SYNC).back().data.data() + 1, sizeof(sent));
    EXPECT_EQ(sent.CheckType, LIN_EX_CHECK_CLASSIC) << "identifiers 0x3C-0x3F always use the classic checksum";
}

TEST_F(Ldf, SlaveRoleAnswersHeadersAndTakesWhatTheMasterPublishes) {
    lin().set_time_scale(0);
    LDF_CODING* db = LDF_ParserFile(handle, 2, 0, path_.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(db->isMaster, 0);
    ASSERT_EQ(LDF_SetSignalValue(db, "State", "Temp", 0), LDF_OK);  // raw 80
    ASSERT_EQ(LDF_SetSignalValue(db, "State", "Fault", 1), LDF_OK);
    EXPECT_EQ(LDF_ExeFrameToBus(db, "State", 0), 0);
    auto table = lin().table(2);
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].pid & 0x3F, 0x11);
    EXPECT_EQ(table[0].len, 2);
    EXPECT_EQ(table[0].data[0], 80);
    EXPECT_EQ(table[0].data[1], 1);

    // A master on the bus reads the response and publishes its own frame.
    LinMasterNode master = lin().master_node(2);
    const Bytes answer = master.request(0x11);
    ASSERT_GE(answer.size(), 2u);
    EXPECT_EQ(answer[0], 80);
    master.publish(0x10, {0x42, 0x07});
    EXPECT_EQ(LDF_ExeFrameToBus(db, "Cmd", 0), 0);
    double v = 0;
    ASSERT_EQ(LDF_GetSignalValue(db, "Cmd", "Mode", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 2.0);
    ASSERT_EQ(LDF_GetSignalValue(db, "Cmd", "Level", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 0x74);

    // The schedule pass in the slave role loads the responses and collects the rest.
    master.publish(0x10, {0x01, 0x00});
    EXPECT_EQ(LDF_ExeSchToBus(db, "Run", 0), 0);
    ASSERT_EQ(LDF_GetSignalValue(db, "Cmd", "Mode", &v), LDF_OK);
    EXPECT_DOUBLE_EQ(v, 1.0);
}
