// Example worlds, loaded in this process, seen through the library as a program sees
// them: DBC peer frames at their cycle times, a replayed log in order with its gaps,
// faults at the scripted command, wrong-rate channels and wired pins.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include "can_dbc.h"
#include "polybus/polybus.h"
#include "sim_fixture.h"
#include "world.h"

namespace {

using namespace std::chrono_literals;
using polybus_sim::world::Bench;


std::string worlds_dir() { return POLYBUS_SOURCE_DIR "/examples/worlds/"; }

// The simulator's clock advances in real time: frames reach the adapter as the bus
// carries them. Time stamps of the classic adapter count 100 us, of CAN FD ones 10 us.
constexpr double kClassicTickUs = 100, kFdTickUs = 10;
// How far a frame's time stamp may stray from its due time: the adapter stamps the end
// of a frame, which another frame on the bus may delay by its own length.
constexpr double kToleranceUs = 600;

class WorldTest : public ::testing::Test {
protected:
    void load(const std::string& name) {
        polybus_sim::Simulator::instance().remove_all();
        bench_ = polybus_sim::world::load_world(worlds_dir() + name).build();
        handles_ = polybus_test::scan();
    }
    void load_text(const std::string& text) {
        polybus_sim::Simulator::instance().remove_all();
        bench_ = polybus_sim::world::parse_world(text, worlds_dir() + "inline.toml").build();
        handles_ = polybus_test::scan();
    }
    int open(uint32_t identifier) {
        const int h = static_cast<int>(identifier);
        EXPECT_TRUE(USB_OpenDevice(h));
        opened_.push_back(h);
        return h;
    }
    void TearDown() override {
        for (int h : opened_) USB_CloseDevice(h);
        bench_.reset();
    }

    std::unique_ptr<Bench> bench_;
    std::vector<int> handles_;
    std::vector<int> opened_;
};

uint64_t stamp(const CAN_MSG& m) { return uint64_t{m.TimeStampHigh} << 32 | m.TimeStamp; }
uint64_t stamp(const CANFD_MSG& m) { return uint64_t{m.TimeStampHigh} << 32 | m.TimeStamp; }

// Listens on a classic channel for `how_long`.
std::vector<CAN_MSG> listen(int dev, int channel, std::chrono::milliseconds how_long) {
    static CAN_MSG buffer[CAN_BUFFER_FRAMES];
    EXPECT_EQ(CAN_StartGetMsg(dev, uint8_t(channel)), 0);
    std::this_thread::sleep_for(how_long);
    const int n = CAN_GetMsg(dev, uint8_t(channel), buffer);
    CAN_StopGetMsg(dev, uint8_t(channel));
    EXPECT_GE(n, 0);
    return std::vector<CAN_MSG>(buffer, buffer + std::max(n, 0));
}

void init_classic(int dev, int channel, uint32_t bps) {
    CAN_INIT_CONFIG config;
    ASSERT_EQ(CAN_GetCANSpeedArg(dev, &config, bps), 0);
    ASSERT_EQ(CAN_Init(dev, uint8_t(channel), &config), 0);
}

TEST_F(WorldTest, DbcPeerSendsItsMessagesAtTheirCycleTimesWithTheScriptedSignals) {
    load("two_adapters.toml");
    ASSERT_EQ(handles_, (std::vector<int>{0x41000001, 0x53000002})) << "adapters are found in file order";
    const int dev = open(0x41000001);
    init_classic(dev, 0, 500000);
    const std::vector<CAN_MSG> frames = listen(dev, 0, 1200ms);

    std::map<uint32_t, std::vector<const CAN_MSG*>> by_id;
    for (auto& f : frames) by_id[f.ID | uint32_t(f.ExternFlag) << 31].push_back(&f);
    struct Expected {
        uint32_t key;
        double cycle_ms;
        size_t at_least;
    } expected[] = {{0x100, 20, 50}, {0x200, 100, 10}, {0x80000000u | 0x18FEF100u, 500, 2}};
    for (auto& e : expected) {
        const auto& list = by_id[e.key];
        ASSERT_GE(list.size(), e.at_least) << std::hex << e.key;
        for (size_t i = 1; i < list.size(); ++i) {
            const double gap_us = double(stamp(*list[i]) - stamp(*list[i - 1])) * kClassicTickUs;
            EXPECT_NEAR(gap_us, e.cycle_ms * 1000, kToleranceUs) << std::hex << e.key << std::dec << " frame " << i;
        }
    }
    EXPECT_EQ(by_id.size(), 3u) << "nothing else talks on the bus unasked";

    // The library's own DBC decoder reads what the simulator's encoder wrote.
    const uint64_t db = DBC_ParserFile(dev, (worlds_dir() + "powertrain.dbc").c_str());
    ASSERT_NE(db, 0u);
    double value = 0, previous_alive = -1;
    for (const CAN_MSG* f : by_id[0x100]) {
        DBC_SyncCANMsgToValue(db, f, 1);
        ASSERT_EQ(DBC_GetSignalValue(db, "EngineData", "CoolantTemp", &value), 0);
        EXPECT_DOUBLE_EQ(value, 90);
        DBC_GetSignalValue(db, "EngineData", "EngineSpeed", &value);
        EXPECT_GE(value, 800);
        EXPECT_LE(value, 3000);
        DBC_GetSignalValue(db, "EngineData", "ThrottlePos", &value);
        EXPECT_GE(value, 5 - 0.4);
        EXPECT_LE(value, 60 + 0.4);
        DBC_GetSignalValue(db, "EngineData", "Alive", &value);
        if (previous_alive >= 0) {
            EXPECT_DOUBLE_EQ(value, std::fmod(previous_alive + 1, 16));
        }
        previous_alive = value;
    }
    // The ramp climbs over the second heard: 2200 rpm per 4 s, about 550 per second.
    double first = 0, last = 0;
    DBC_SyncCANMsgToValue(db, by_id[0x100].front(), 1);
    DBC_GetSignalValue(db, "EngineData", "EngineSpeed", &first);
    DBC_SyncCANMsgToValue(db, by_id[0x100].back(), 1);
    DBC_GetSignalValue(db, "EngineData", "EngineSpeed", &last);
    EXPECT_NEAR(last - first, 550.0 * double(stamp(*by_id[0x100].back()) - stamp(*by_id[0x100].front())) / 10000.0, 5);

    DBC_SyncCANMsgToValue(db, by_id[0x200].back(), 1);
    DBC_GetSignalValue(db, "VehicleStatus", "Gear", &value);
    EXPECT_DOUBLE_EQ(value, 3);
    DBC_GetSignalValue(db, "VehicleStatus", "OutsideTemp", &value);
    EXPECT_DOUBLE_EQ(value, -7.5);
    DBC_SyncCANMsgToValue(db, by_id[0x80000000u | 0x18FEF100u].back(), 1);
    DBC_GetSignalValue(db, "FuelInfo", "BatteryVoltage", &value);
    EXPECT_NEAR(value, 13.8, 1e-9);
    DBC_GetSignalValue(db, "FuelInfo", "FuelLevel", &value);
    EXPECT_NEAR(value, 62, 0.2);
}

TEST_F(WorldTest, GatewayAnswersAndEchoesAcrossAdapters) {
    load("two_adapters.toml");
    const int bench = open(0x41000001);
    init_classic(bench, 0, 500000);
    init_classic(bench, 1, 500000);
    CAN_MSG request[2] = {};
    request[0].ID = 0x7E0;
    request[0].DataLen = 2;
    request[0].Data[0] = 0x10;
    request[0].Data[1] = 0x01;
    request[1].ID = 0x321;
    request[1].DataLen = 3;
    std::memcpy(request[1].Data, "\x0A\x0B\x0C", 3);
    ASSERT_EQ(CAN_SendMsg(bench, 1, request, 2), 2);
    std::this_thread::sleep_for(20ms);
    static CAN_MSG got[CAN_BUFFER_FRAMES];
    const int n = CAN_GetMsg(bench, 0, got);
    ASSERT_GT(n, 0);
    bool answer = false, echo = false;
    for (int i = 0; i < n; ++i) {
        if (got[i].ID == 0x7E8) {
            answer = true;
            EXPECT_EQ(got[i].DataLen, 3);
            EXPECT_EQ(0, std::memcmp(got[i].Data, "\x02\x50\x01", 3));
        }
        if (got[i].ID == 0x322) {
            echo = true;
            EXPECT_EQ(got[i].DataLen, 3);
            EXPECT_EQ(0, std::memcmp(got[i].Data, "\x0A\x0B\x0C", 3));
        }
    }
    EXPECT_TRUE(answer);
    EXPECT_TRUE(echo);
}

TEST_F(WorldTest, ReplayedLogFramesComeInOrderWithTheirGaps) {
    load("replay.toml");
    const int dev = open(0x53000005);
    CANFD_INIT_CONFIG config;
    ASSERT_EQ(CANFD_GetCANSpeedArg(dev, &config, 250000, 1000000), 0);
    ASSERT_EQ(CANFD_Init(dev, 0, &config), 0);
    ASSERT_EQ(CANFD_StartGetMsg(dev, 0), 0);
    std::this_thread::sleep_for(700ms);  // one pass is about 150 ms, then 100 ms of pause
    static CANFD_MSG got[4000];
    const int n = CANFD_GetMsg(dev, 0, got, 4000);
    CANFD_StopGetMsg(dev, 0);
    ASSERT_GT(n, 0);

    std::vector<polybus_sim::LoggedFrame> log;
    int line = 0;
    std::string error;
    ASSERT_TRUE(polybus_sim::read_candump(worlds_dir() + "body.log", log, line, error)) << error;
    log.erase(std::remove_if(log.begin(), log.end(), [](auto& f) { return f.interface != "can1"; }), log.end());
    ASSERT_EQ(log.size(), 8u);
    auto same = [](const CANFD_MSG& m, const polybus_sim::BusFrame& f) {
        const uint32_t id = f.id | uint32_t(f.remote) << 30 | uint32_t(f.extended) << 31;
        return m.ID == id && m.DLC == f.len && ((m.Flags & 4) != 0) == f.fd && std::memcmp(m.Data, f.data, f.len) == 0;
    };
    // Every full pass heard: the log's frames in order, each after the log's gap.
    int passes = 0;
    for (int start = 0; start + int(log.size()) <= n; ++start) {
        if (!same(got[start], log[0].frame)) continue;
        for (size_t i = 0; i < log.size(); ++i) {
            ASSERT_TRUE(same(got[start + i], log[i].frame)) << "pass " << passes << " frame " << i;
            if (i == 0) continue;
            const double gap_us = double(stamp(got[start + i]) - stamp(got[start + i - 1])) * kFdTickUs;
            EXPECT_NEAR(gap_us, double(log[i].time_us - log[i - 1].time_us), kToleranceUs) << "frame " << i;
        }
        ++passes;
        start += int(log.size()) - 1;
    }
    EXPECT_GE(passes, 2);
    for (int i = 0; i < n; ++i) EXPECT_NE(got[i].ID, 0x7FFu) << "frames of another interface stay out";
}

TEST_F(WorldTest, FaultsHitTheScriptedCommands) {
    load("faults.toml");
    const auto started = std::chrono::steady_clock::now();
    const int dev = open(0x41000007);
    unsigned levels = 0;
    EXPECT_EQ(GPIO_Read(dev, 0xFF, &levels), 0);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_LT(GPIO_Read(dev, 0xFF, &levels), 0) << "the 2nd GPIO read gets no answer";
    EXPECT_GE(std::chrono::steady_clock::now() - before, 900ms) << "it waited for its timeout";
    EXPECT_LT(GPIO_Read(dev, 0xFF, &levels), 0) << "the 3rd is answered with garbage";
    EXPECT_EQ(GPIO_Read(dev, 0xFF, &levels), 0) << "and the 4th is answered again";

    init_classic(dev, 0, 500000);
    static CAN_MSG got[CAN_READ_MAX_FRAMES];
    std::this_thread::sleep_for(30ms);  // the ticker sends every 10 ms
    EXPECT_GT(CAN_ReadMsg(dev, 0, got), 0);
    std::this_thread::sleep_for(30ms);
    EXPECT_LT(CAN_ReadMsg(dev, 0, got), 0) << "the 2nd fetch gets no answer";
    EXPECT_GT(CAN_ReadMsg(dev, 0, got), 50) << "the frames that came in while the host waited";

    // The status request fault is armed 300 ms after the world started; the GPIO
    // timeout above has taken us past it.
    ASSERT_GE(std::chrono::steady_clock::now() - started, 300ms);
    CAN_STATUS status;
    EXPECT_LT(CAN_GetStatus(dev, 0, &status), 0);
}

TEST_F(WorldTest, WrongRateChannelsCountErrorsAndWiredPinsFollowEachOther) {
    load("wiring.toml");
    ASSERT_EQ(handles_.size(), 2u);
    const int left = open(0x41000011), right = open(0x41000012);
    init_classic(left, 0, 500000);  // the bus runs at 250 kbit/s
    init_classic(right, 0, 250000);
    std::this_thread::sleep_for(150ms);
    CAN_STATUS status;
    ASSERT_EQ(CAN_GetStatus(left, 0, &status), 0);
    EXPECT_GE(status.RECounter, 20) << "about one error per 5 ms frame of the chatty node";
    EXPECT_EQ(status.LECode, 1) << "stuff error";
    ASSERT_EQ(CAN_GetStatus(right, 0, &status), 0);
    EXPECT_EQ(status.RECounter, 0);
    static CAN_MSG got[CAN_BUFFER_FRAMES];
    const int heard = CAN_GetMsg(right, 0, got);
    EXPECT_GE(heard, 20);
    for (int i = 0; i < heard; ++i) EXPECT_EQ(got[i].ID, 0x555u);
    EXPECT_EQ(CAN_GetMsg(left, 0, got), 0) << "a channel at the wrong rate hears nothing";

    // left:1 drives the wire; left:9 and right:9 read it.
    ASSERT_EQ(GPIO_SetInput(left, 1u << 9, 0), 0);
    ASSERT_EQ(GPIO_SetInput(right, 1u << 9, 0), 0);
    unsigned l = 0, r = 0;
    ASSERT_EQ(GPIO_SetOutput(left, 1u << 1, 0), 0);
    ASSERT_EQ(GPIO_Write(left, 1u << 1, 0), 0);
    ASSERT_EQ(GPIO_Read(left, 1u << 9, &l), 0);
    ASSERT_EQ(GPIO_Read(right, 1u << 9, &r), 0);
    EXPECT_EQ(l, 0u);
    EXPECT_EQ(r, 0u);
    ASSERT_EQ(GPIO_Write(left, 1u << 1, 1u << 1), 0);
    ASSERT_EQ(GPIO_Read(left, 1u << 9, &l), 0);
    ASSERT_EQ(GPIO_Read(right, 1u << 9, &r), 0);
    EXPECT_EQ(l, 1u << 9);
    EXPECT_EQ(r, 1u << 9);
    // The far end drives the wire low: the driving pin, open drain, reads it too.
    ASSERT_EQ(GPIO_SetOutput(right, 1u << 9, 0), 0);
    ASSERT_EQ(GPIO_Write(right, 1u << 9, 0), 0);
    ASSERT_EQ(GPIO_SetOpenDrain(left, 1u << 1, 0), 0);
    ASSERT_EQ(GPIO_Write(left, 1u << 1, 1u << 1), 0);
    ASSERT_EQ(GPIO_Read(left, (1u << 1) | (1u << 9), &l), 0);
    EXPECT_EQ(l, 0u);
}

TEST_F(WorldTest, ReplugFaultMovesTheAdapterAndItsBusKeepsRunning) {
    load_text(R"(
[[adapter]]
name = "a"
id = 0x41000021

[[can_bus]]
name = "b"
bitrate = 500000
channels = ["a:0"]

[[can_peer]]
bus = "b"
[[can_peer.send]]
id = 0x42
data = "42"
period_ms = 10

[[fault]]
adapter = "a"
fault = "replug"
command = 0x0604
nth = 1
)");
    const int dev = open(0x41000021);
    const int address_before = bench_->adapter("a")->config().address;
    unsigned levels = 0;
    EXPECT_LT(GPIO_Read(dev, 1, &levels), 0);
    for (int i = 0; i < 50 && !bench_->adapter("a")->plugged(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(bench_->adapter("a")->plugged());
    EXPECT_NE(bench_->adapter("a")->config().address, address_before);
    USB_CloseDevice(dev);
    opened_.clear();
    ASSERT_EQ(polybus_test::scan(), std::vector<int>{0x41000021});
    open(0x41000021);
    EXPECT_EQ(GPIO_Read(dev, 1, &levels), 0);
    // The peer lives on the world's clock, not the adapter's: it still sends.
    init_classic(dev, 0, 500000);
    const std::vector<CAN_MSG> frames = listen(dev, 0, 200ms);
    EXPECT_GE(frames.size(), 10u);
}

}  // namespace
