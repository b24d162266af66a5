// Device information, the user-data and schedule areas and the keyed configuration
// area, end to end through the simulated adapter's storage.
#include <cstring>

#include "device_model.h"
#include "expect_request.h"
#include "sim_fixture.h"
#include "device/device_info.h"
#include "wire/device.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;

namespace {
class DeviceInfo : public SimTest {
protected:
    DeviceModel& storage() { return model<DeviceModel>(); }
};

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
    return v;
}
}  // namespace

TEST_F(DeviceInfo, ReportsWhatTheAdapterSays) {
    DEVICE_INFO info;
    memset(&info, 0, sizeof(info));
    char functions[POLYBUS_FUNCTION_STRING_SIZE];
    memset(functions, 'x', sizeof(functions));
    ASSERT_TRUE(DEV_GetDeviceInfo(handle, &info, functions));
    EXPECT_EQ(info.FirmwareVersion, adapter->config().firmware_version);
    EXPECT_EQ(info.SerialNumber[0], adapter->config().serial[0]);
    EXPECT_EQ(info.SerialNumber[2], adapter->config().serial[2]);
    EXPECT_STREQ(functions, adapter->config().function_string.c_str());
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_REQUEST(sends[0], request(DEV_GET_INFO));
    EXPECT_EQ(sends[0].timeout_ms, 100);
    EXPECT_REQUEST(sends[1], request(DEV_GET_FUNCTIONS));
    EXPECT_EQ(sends[1].timeout_ms, 1000);
    EXPECT_EQ(trace->gets()[0].timeout_ms, 100);
    EXPECT_EQ(trace->gets()[1].timeout_ms, 100);

    // A missing function-string reply leaves an empty string, not garbage.
    adapter->inject(Fault::NoAnswer, DEV_GET_FUNCTIONS);
    ASSERT_TRUE(DEV_GetDeviceInfo(handle, &info, functions));
    EXPECT_STREQ(functions, "");
    // An over-long one is cut to the documented room.
    adapter->config().function_string = std::string(1000, 'F');
    ASSERT_TRUE(DEV_GetDeviceInfo(handle, &info, functions));
    EXPECT_EQ(strlen(functions), size_t(POLYBUS_FUNCTION_STRING_SIZE - 1));

    unsigned char hw[64];
    ASSERT_TRUE(DEV_GetHardwareInfo(handle, hw));
    EXPECT_EQ(hw[0], 1);
    EXPECT_STREQ(reinterpret_cast<char*>(hw + 8), "Polybus SIM-1 rev A");
}

// A short answer (the header announces more than comes) still yields what came.
TEST_F(DeviceInfo, ShortAnswersCopyWhatArrived) {
    DEVICE_INFO full;
    ASSERT_TRUE(DEV_GetDeviceInfo(handle, &full, nullptr));

    DEVICE_INFO info;
    memset(&info, 0xAB, sizeof(info));
    adapter->inject(Fault::ShortPayload, polybus::wire::DEV_GET_INFO);  // 44 of 88 bytes come
    ASSERT_TRUE(DEV_GetDeviceInfo(handle, &info, nullptr));
    const auto* got = reinterpret_cast<const uint8_t*>(&info);
    EXPECT_EQ(0, memcmp(got, &full, 44)) << "the bytes that arrived are copied";
    for (size_t i = 44; i < sizeof(info); ++i) ASSERT_EQ(got[i], 0) << "byte " << i << " never arrived";
    EXPECT_EQ(info.FirmwareVersion, 0u);

    const std::string text = adapter->config().function_string;
    const size_t half = text.size() / 2;
    char functions[POLYBUS_FUNCTION_STRING_SIZE];
    memset(functions, 'x', sizeof(functions));
    adapter->inject(Fault::ShortPayload, polybus::wire::DEV_GET_FUNCTIONS);
    ASSERT_TRUE(DEV_GetDeviceInfo(handle, &info, functions));
    EXPECT_EQ(std::string(functions), text.substr(0, half));
    for (size_t i = half; i <= text.size(); ++i) ASSERT_EQ(functions[i], 0) << "byte " << i;
    EXPECT_EQ(functions[text.size() + 1], 'x') << "nothing is written past the announced end";
}

TEST_F(DeviceInfo, PowerAndTimestamp) {
    EXPECT_TRUE(DEV_SetPowerLevel(handle, 3));
    EXPECT_EQ(storage().power_level(), 3);
    uint8_t stamp[POLYBUS_TIMESTAMP_SIZE] = {0};
    EXPECT_TRUE(DEV_ResetTimestamp(handle));
    EXPECT_TRUE(DEV_GetTimestamp(handle, 0, stamp));
    uint64_t us = 0;
    memcpy(&us, stamp, 8);
    EXPECT_GT(us, 0u);
    adapter->inject(Fault::NoAnswer, DEV_GET_TIMESTAMP);
    EXPECT_FALSE(DEV_GetTimestamp(handle, 0, stamp));
}

TEST_F(DeviceInfo, UserDataRulesAndRoundTrip) {
    auto data = pattern(20480, 3);
    EXPECT_FALSE(DEV_WriteUserData(handle, 2, data.data(), 16)) << "offset must be a multiple of 4";
    EXPECT_FALSE(DEV_WriteUserData(handle, 0, data.data(), 20481));
    EXPECT_TRUE(trace->sends().empty()) << "refused writes send nothing";
    ASSERT_TRUE(DEV_WriteUserData(handle, 0, data.data(), 20480));
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].length, 20484u);
    EXPECT_EQ(trace->gets()[0].timeout_ms, 5000);

    std::vector<uint8_t> back(20480 + 8, 0xEE);
    ASSERT_TRUE(DEV_ReadUserData(handle, 0, back.data(), 20480));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
    EXPECT_EQ(back[20480], 0xEE) << "nothing beyond Len is written";
    EXPECT_FALSE(DEV_ReadUserData(handle, 6, back.data(), 4));

    ASSERT_TRUE(DEV_EraseUserData(handle));
    ASSERT_TRUE(DEV_ReadUserData(handle, 16, back.data(), 4));
    EXPECT_EQ(back[0], 0xFF);
}

TEST_F(DeviceInfo, ScheduleDataMovesInChunksThatAllCarryTheCallersAddress) {
    auto data = pattern(25000, 9);
    ASSERT_TRUE(DEV_WriteSchData(handle, 0x100, data.data(), 25000));
    auto sends = trace->sends();
    ASSERT_EQ(sends.size(), 3u);
    const uint32_t sizes[] = {10240, 10240, 4520};
    for (int i = 0; i < 3; ++i) {
        EXPECT_REQUEST(sends[i], request(DEV_WRITE_SCH_DATA)
                                     .be32(0x100, "the caller's address")
                                     .bytes(data.data() + 10240 * i, sizes[i], "chunk"));
    }
    auto stored = storage().schedule_data();
    EXPECT_TRUE(std::equal(data.begin(), data.end(), stored.begin() + 0x100));

    trace->clear();
    std::vector<uint8_t> back(25000 + 16, 0xEE);
    ASSERT_TRUE(DEV_ReadSchData(handle, 0x100, back.data(), 25000));
    sends = trace->sends();
    ASSERT_EQ(sends.size(), 3u);
    // The last chunk asks for 10240 % 25000 = 10240 bytes: only 4520 of them are kept.
    for (int i = 0; i < 3; ++i)
        EXPECT_REQUEST(sends[i], request(DEV_READ_SCH_DATA).be32(0x100, "address").be32(10240, "chunk size"));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
    for (size_t i = 25000; i < back.size(); ++i) ASSERT_EQ(back[i], 0xEE);

    // A read of 1000 bytes asks for a single chunk of 240.
    trace->clear();
    ASSERT_TRUE(DEV_ReadSchData(handle, 0x100, back.data(), 1000));
    ASSERT_EQ(trace->sends().size(), 1u);
    EXPECT_REQUEST(trace->sends()[0], request(DEV_READ_SCH_DATA).be32(0x100, "address").be32(240, "chunk size"));

    EXPECT_TRUE(DEV_WriteSchData(handle, 0, data.data(), 0));
    ASSERT_TRUE(DEV_EraseSchData(handle, 0));
    EXPECT_EQ(trace->gets().back().timeout_ms, 10000);
    EXPECT_EQ(storage().schedule_bytes(), 0u);

    // A chunk answered with a payload stops the transfer.
    trace->clear();
    adapter->inject(Fault::Oversized, DEV_WRITE_SCH_DATA);
    EXPECT_FALSE(DEV_WriteSchData(handle, 0, data.data(), 25000));
    EXPECT_EQ(trace->sends().size(), 1u);
}

TEST_F(DeviceInfo, RawConfigurationAreaTransfers) {
    EXPECT_EQ(ARG_Init(handle), 0);
    uint8_t twelve[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_EQ(ARG_Write(handle, 16, twelve, 12), 0);
    auto sends = trace->sends();
    EXPECT_REQUEST(sends.back(), request(ARG_WRITE).be16(16, "address").bytes(twelve, 12, "data"));
    EXPECT_EQ(trace->gets().back().timeout_ms, 1003);
    uint8_t back[12] = {0};
    ASSERT_EQ(ARG_Read(handle, 16, back, 12), 0);
    EXPECT_EQ(0, memcmp(back, twelve, 12));
    EXPECT_EQ(ARG_Write(handle, 16, twelve, 0), 0);

    // Chunk addresses: chunk k carries a running sum in its high byte, Addr's low byte.
    trace->clear();
    std::vector<uint8_t> big(5120 * 3, 0x42);
    ASSERT_EQ(ARG_Write(handle, 0x0010, big.data(), static_cast<uint16_t>(big.size())), 0);
    sends = trace->sends();
    ASSERT_EQ(sends.size(), 3u);
    EXPECT_REQUEST(sends[0], request(ARG_WRITE).be16(0x0010, "address").and_more());
    EXPECT_REQUEST(sends[1], request(ARG_WRITE).be16(0x1410, "address: 0x10 + 5120").and_more());
    EXPECT_REQUEST(sends[2], request(ARG_WRITE).be16(0x3C10, "address: + 10240 more").and_more());

    storage().force_config_status(1);
    EXPECT_EQ(ARG_Init(handle), -5);
    storage().force_config_status(1);
    EXPECT_EQ(ARG_Write(handle, 16, twelve, 12), -5);
    storage().force_config_status(2);
    EXPECT_EQ(ARG_Write(handle, 16, twelve, 12), -6);
    storage().force_config_status(2);
    EXPECT_EQ(ARG_Read(handle, 16, back, 12), -7);
    adapter->inject(Fault::EmptyPayload, ARG_READ);
    EXPECT_EQ(ARG_Read(handle, 16, back, 12), -4);
    // A status byte that is announced but never comes is no status.
    adapter->inject(Fault::ShortPayload, ARG_INIT);
    EXPECT_EQ(ARG_Init(handle), -4);
    EXPECT_EQ(ARG_Init(handle), 0);
}

TEST_F(DeviceInfo, KeyedRecordsChainAndErase) {
    const unsigned kA = 0x55AA0001, kB = 0x55AA0003, kC = 0x55AA0005;
    uint8_t a[] = {1, 2, 3, 4, 5};
    uint8_t b[100];
    for (int i = 0; i < 100; ++i) b[i] = static_cast<uint8_t>(i);
    uint8_t out[256];

    EXPECT_EQ(ARG_ReadArgData(handle, kA, out), -8) << "an erased area holds nothing";
    // The first record goes to address 16 with no successor.
    ASSERT_EQ(ARG_WriteArgData(handle, kA, a, sizeof(a)), 0);
    auto area = storage().config_area();
    EXPECT_EQ(area[16], 0x01);
    EXPECT_EQ(area[19], 0x55);
    EXPECT_EQ(area[26] | area[27] << 8, 0xFFFF);
    // The second goes behind the first's 44-byte slot.
    ASSERT_EQ(ARG_WriteArgData(handle, kB, b, sizeof(b)), 0);
    area = storage().config_area();
    EXPECT_EQ(area[26] | area[27] << 8, 16 + 44);
    EXPECT_EQ(area[60] | area[63] << 24, 0x55000003);

    EXPECT_EQ(ARG_ReadArgData(handle, kB, out), 100);
    EXPECT_EQ(0, memcmp(out, b, 100));
    EXPECT_EQ(ARG_ReadArgData(handle, kA, out), 5);
    EXPECT_EQ(0, memcmp(out, a, 5));
    EXPECT_EQ(ARG_ReadArgData(handle, kC, out), -8);

    // Rewriting a key replaces it in place.
    uint8_t a2[] = {9, 9, 9};
    ASSERT_EQ(ARG_WriteArgData(handle, kA, a2, sizeof(a2)), 0);
    EXPECT_EQ(ARG_ReadArgData(handle, kA, out), 3);
    EXPECT_EQ(out[0], 9);
    EXPECT_EQ(ARG_ReadArgData(handle, kB, out), 100);

    // Corrupted data is caught by the CRC.
    auto corrupt = storage().config_area();
    corrupt[16 + 44 + 12 + 5] ^= 0xFF;
    storage().set_config_area(corrupt);
    EXPECT_EQ(ARG_ReadArgData(handle, kB, out), -9);
    corrupt[16 + 44 + 12 + 5] ^= 0xFF;
    storage().set_config_area(corrupt);

    // Erasing the first record ends the chain there: the second becomes unreachable,
    // the erased one reads as a CRC failure, and a new key is appended behind it.
    ASSERT_EQ(ARG_EraseArgData(handle, static_cast<int>(kA)), 0);
    EXPECT_EQ(ARG_ReadArgData(handle, kA, out), -9);
    EXPECT_EQ(ARG_ReadArgData(handle, kB, out), -8);
    ASSERT_EQ(ARG_WriteArgData(handle, kC, a, sizeof(a)), 0);
    area = storage().config_area();
    EXPECT_EQ(area[26] | area[27] << 8, 16 + 44);
    EXPECT_EQ(ARG_ReadArgData(handle, kC, out), 5);
}

TEST_F(DeviceInfo, BrokenChainsAreReportedNotFollowedForever) {
    uint8_t data[4] = {1, 2, 3, 4};
    uint8_t out[64];
    // A last record whose key has no slot size cannot be appended to.
    std::vector<uint8_t> area(DeviceModel::kConfigSize, 0xFF);
    // Key, length, CRC and next address, little-endian.
    auto header = [&](size_t at, uint32_t id, uint32_t len, uint16_t crc, uint16_t next) {
        const uint64_t lo = id | uint64_t(len) << 32;
        for (int i = 0; i < 8; ++i) area[at + i] = uint8_t(lo >> (8 * i));
        for (int i = 0; i < 4; ++i) area[at + 8 + i] = uint8_t((crc | uint32_t(next) << 16) >> (8 * i));
    };
    header(16, 0x55AA0042, 0, 0, 0xFFFF);
    storage().set_config_area(area);
    EXPECT_EQ(ARG_WriteArgData(handle, 0x55AA0001, data, 4), -10);
    // An erase walking into an unmarked header stops with -10.
    header(16, 0x55AA0001, 0, 0, 200);
    storage().set_config_area(area);
    EXPECT_EQ(ARG_EraseArgData(handle, 0x55AA0002), -10);
    // A chain that comes back on itself is not walked forever.
    header(16, 0x55AA0001, 0, 0, 60);
    header(60, 0x55AA0002, 0, 0, 16);
    storage().set_config_area(area);
    EXPECT_EQ(ARG_ReadArgData(handle, 0x55AA0003, out), -8);
    EXPECT_EQ(ARG_WriteArgData(handle, 0x55AA0003, data, 4), -10);
    EXPECT_EQ(ARG_EraseArgData(handle, 0x55AA0003), -10);
    EXPECT_EQ(storage().config_area(), area) << "nothing is written into a looping chain";
}
