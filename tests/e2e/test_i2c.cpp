// I2C end to end: a 24C EEPROM and an SMBus device on the simulated bus, the scan,
// 10-bit addresses, event-triggered transfers on a GPIO pin, slave mode against a
// simulated master, and the answers the family rejects.
#include <chrono>
#include <thread>

#include "gpio_model.h"
#include "i2c_model.h"
#include "sim_fixture.h"
#include "wire/i2c.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using Bytes = std::vector<uint8_t>;

namespace {

class I2c : public SimTest {
protected:
    I2cModel& bus() { return model<I2cModel>(); }
    std::shared_ptr<Eeprom> place_eeprom(EepromConfig c = {}) {
        auto e = std::make_shared<Eeprom>(c);
        bus().attach(0, e);
        return e;
    }
    void init(uint8_t addr_bits, int channel = 0) {
        IIC_CONFIG c{};
        c.Setting32 = 400000;
        c.AddrBits = addr_bits;
        ASSERT_EQ(IIC_Init(handle, channel, &c), 0);
    }
    static double ms_since(std::chrono::steady_clock::time_point t) {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
    }
};

}  // namespace

TEST_F(I2c, InitSendsTheFieldsInWireOrderAndRemembersTheWidth) {
    IIC_CONFIG c{};
    c.Setting32 = 0x01020304;
    c.Setting16 = 0x0506;
    c.Setting8 = 0x07;
    c.AddrBits = 8;  // not 10: travels as 7, stays 8 for the scan
    c.Extra0 = 0x0A;
    c.Extra1 = 0x0B;
    ASSERT_EQ(IIC_Init(handle, 1, &c), 0);
    EXPECT_EQ(trace->sends(IIC_INIT)[0].data, (Bytes{1, 7, 7, 5, 6, 1, 2, 3, 4, 0x0A, 0x0B}));
    EXPECT_EQ(bus().setup(1).width, 7);
    EXPECT_EQ(bus().setup(1).setting32, 0x01020304u);

    // A stored 8 scans the whole 10-bit range; a rejected init is not remembered.
    std::vector<short> found(1024);
    trace->clear();
    EXPECT_EQ(IIC_GetSlaveAddr(handle, 1, found.data()), 0);
    EXPECT_EQ(trace->sends(IIC_WRITE).size(), 1024u);
    c.AddrBits = 7;
    ASSERT_EQ(IIC_Init(handle, 1, &c), 0);
    adapter->inject(Fault::Oversized, IIC_INIT);
    c.AddrBits = 8;
    EXPECT_EQ(IIC_Init(handle, 1, &c), -4);
    trace->clear();
    IIC_GetSlaveAddr(handle, 1, found.data());
    EXPECT_EQ(trace->sends(IIC_WRITE).size(), 128u);
}

TEST_F(I2c, EepromPageWritesWrapAndTheWriteCycleIsNotAcknowledged) {
    init(7);
    auto rom = place_eeprom({0x50, 256, 8, 20000});
    unsigned char page[] = {0x06, 1, 2, 3, 4};  // address 6, four bytes: two wrap to 0 and 1
    ASSERT_EQ(IIC_WriteBytes(handle, 0, 0x50, page, sizeof page, 100), 0);
    auto mem = rom->contents();
    EXPECT_EQ(Bytes(mem.begin(), mem.begin() + 8), (Bytes{3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}));
    EXPECT_EQ(trace->sends(IIC_WRITE)[0].data, (Bytes{0, 0, 0x50, 0, 0, 0, 100, 0, 6, 1, 2, 3, 4}));

    // During the write cycle the device acknowledges nothing: the firmware's status 1.
    unsigned char addr = 0x06, out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(IIC_WriteReadBytes(handle, 0, 0x50, &addr, 1, out, 4, 100), i2c_status::kAddressNack);
    EXPECT_EQ(out[0], 0xEE) << "nothing is copied when the status is not 0";
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_EQ(IIC_WriteReadBytes(handle, 0, 0x50, &addr, 1, out, 4, 100), 0);
    EXPECT_EQ(Bytes(out, out + 4), (Bytes{1, 2, 0xFF, 0xFF}));
    EXPECT_EQ(trace->sends(IIC_WRITE_READ).back().data, (Bytes{0, 0, 0x50, 0, 0, 0, 100, 0, 0, 0, 4, 0, 6}));

    // A plain read continues at the address pointer and wraps at the end of memory.
    rom->load(0xFE, {0xAA, 0xBB});
    addr = 0xFE;
    ASSERT_EQ(IIC_WriteBytes(handle, 0, 0x50, &addr, 1, 10), 0);  // only the address: no write cycle
    ASSERT_EQ(IIC_ReadBytes(handle, 0, 0x50, out, 3, 10), 0);
    EXPECT_EQ(Bytes(out, out + 3), (Bytes{0xAA, 0xBB, 3}));
    EXPECT_EQ(trace->sends(IIC_READ).back().data, (Bytes{0, 0, 0x50, 0, 0, 0, 10, 0, 0, 0, 3, 0}));
}

TEST_F(I2c, LargeEepromsTakeTwoAddressBytesSmallOnesSeveralDeviceAddresses) {
    init(7);
    auto big = place_eeprom({0x54, 32768, 64, 0});
    auto small = place_eeprom({0x50, 1024, 16, 0});  // 24C08: answers 0x50..0x53
    unsigned char w[] = {0x12, 0x34, 0xC0, 0xDE};
    ASSERT_EQ(IIC_WriteBytes(handle, 0, 0x54, w, 4, 10), 0);
    EXPECT_EQ(big->contents()[0x1234], 0xC0);
    unsigned char s[] = {0x10, 0x77};
    ASSERT_EQ(IIC_WriteBytes(handle, 0, 0x52, s, 2, 10), 0);
    EXPECT_EQ(small->contents()[0x210], 0x77);

    std::vector<short> found(128, -1);
    trace->clear();
    ASSERT_EQ(IIC_GetSlaveAddr(handle, 0, found.data()), 5);
    EXPECT_EQ(Bytes(found.begin(), found.begin() + 5), (Bytes{0x50, 0x51, 0x52, 0x53, 0x54}));
    EXPECT_EQ(found[5], -1) << "nothing is written past the devices found";
    auto probes = trace->sends(IIC_WRITE);
    ASSERT_EQ(probes.size(), 128u);
    EXPECT_EQ(probes[0x33].data, (Bytes{0, 0, 0x33, 0, 0, 0, 5, 0})) << "zero-length write, 5 ms";
    EXPECT_EQ(IIC_GetSlaveAddr(handle, 0, nullptr), IIC_ERR_NULL_ARRAY);
}

TEST_F(I2c, TenBitAddressesReachOnlyTenBitDevices) {
    init(10);
    EXPECT_EQ(trace->sends(IIC_INIT)[0].data[1], 10);
    auto rom = place_eeprom({0x2A5, 256, 8, 0, true});
    place_eeprom({0x50});  // a 7-bit device does not answer on a 10-bit channel
    unsigned char w[] = {0x00, 0x42};
    ASSERT_EQ(IIC_WriteBytes(handle, 0, short(0x2A5), w, 2, 10), 0);
    EXPECT_EQ(rom->contents()[0], 0x42);
    EXPECT_EQ(trace->sends(IIC_WRITE)[0].data[1], 0x02);
    EXPECT_EQ(trace->sends(IIC_WRITE)[0].data[2], 0xA5);
    std::vector<short> found(1024);
    ASSERT_EQ(IIC_GetSlaveAddr(handle, 0, found.data()), 1);
    EXPECT_EQ(found[0], 0x2A5);

    // On a 7-bit channel an address above 0x7F is out of range, not just unanswered.
    init(7, 1);
    EXPECT_EQ(IIC_WriteBytes(handle, 1, short(0x2A5), w, 2, 10), i2c_status::kBadAddress);
    EXPECT_EQ(IIC_WriteBytes(handle, 1, 0x51, w, 2, 10), i2c_status::kAddressNack);
}

TEST_F(I2c, EventTransfersWaitForThePinAndSendTheirOwnFieldOrder) {
    init(7);
    auto rom = place_eeprom({0x50, 256, 8, 0});
    rom->load(0, {9, 8, 7, 6});
    unsigned char buf[4] = {};
    // The example of the wire format: the read length before the timeout, and only the
    // upper three bytes of the event. 0x11 as event kind is a falling edge here: none comes.
    EXPECT_EQ(IIC_ReadBytesOfEvent(handle, 0, 0x50, buf, 4, 100, 1, 0x11223344), i2c_status::kEventTimeout);
    EXPECT_EQ(trace->sends(IIC_READ_EVENT)[0].data,
              (Bytes{0, 0, 0x50, 0, 0, 0, 4, 0, 0, 0, 0x64, 1, 0x11, 0x22, 0x33}));

    // Level high on pin 3 (kind 1): the pin reads high, the read goes at once.
    auto& pins = model<GpioModel>();
    ASSERT_EQ(IIC_ReadBytesOfEvent(handle, 0, 0x50, buf, 4, 100, 3, 0x01000000), 0);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{9, 8, 7, 6}));

    // A rising edge (kind 2) that comes after 40 ms.
    pins.drive(1u << 3, 0);
    adapter->after(std::chrono::milliseconds(40), [&pins] { pins.drive(1u << 3, 1u << 3); });
    unsigned char w[] = {0x10, 0x55};
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(IIC_WriteBytesOfEvent(handle, 0, 0x50, w, 2, 500, 3, 0x02000000), 0);
    EXPECT_GE(ms_since(start), 35);
    EXPECT_EQ(rom->contents()[0x10], 0x55);
    EXPECT_EQ(trace->sends(IIC_WRITE_EVENT)[0].data, (Bytes{0, 0, 0x50, 0, 0, 1, 0xF4, 3, 2, 0, 0, 0, 0x10, 0x55}));

    // Write-read: length, timeout, pin, the whole event, then the data.
    unsigned char addr = 0x10;
    ASSERT_EQ(IIC_WriteReadBytesOfEvent(handle, 0, 0x50, &addr, 1, buf, 1, 30, 3, 0x01000000), 0);
    EXPECT_EQ(buf[0], 0x55);
    EXPECT_EQ(trace->sends(IIC_WRITE_READ_EVENT)[0].data,
              (Bytes{0, 0, 0x50, 0, 0, 0, 1, 0, 0, 0, 30, 3, 1, 0, 0, 0, 0x10}));
    // Timeout of a level that never comes.
    pins.drive(1u << 3, 0);
    const auto t2 = std::chrono::steady_clock::now();
    EXPECT_EQ(IIC_WriteReadBytesOfEvent(handle, 0, 0x50, &addr, 1, buf, 1, 30, 3, 0x01000000),
              i2c_status::kEventTimeout);
    EXPECT_GE(ms_since(t2), 25);
}

TEST_F(I2c, BlockTransfersCarryTheirParameters) {
    init(7);
    auto rom = place_eeprom({0x50, 256, 8, 3000});
    // Two blocks of address + 4 bytes; the pause between blocks covers the write cycle.
    unsigned char blocks[] = {0x00, 1, 2, 3, 4, 0x08, 5, 6, 7, 8};
    ASSERT_EQ(IIC_BlockWriteBytes(handle, 0, 0x50, blocks, 5, 2, 4000), 0);
    EXPECT_EQ(trace->sends(IIC_BLOCK_WRITE)[0].data,
              (Bytes{0, 0, 0x50, 0, 0, 0, 5, 0, 0, 0, 2, 0, 0, 0x0F, 0xA0, 0, 1, 2, 3, 4, 8, 5, 6, 7, 8}));
    auto mem = rom->contents();
    EXPECT_EQ(mem[3], 4);
    EXPECT_EQ(mem[9], 6);
    // Without the pause the second block meets the write cycle.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(IIC_BlockWriteBytes(handle, 0, 0x50, blocks, 5, 2, 0), i2c_status::kDataNack);

    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    unsigned char zero = 0;
    ASSERT_EQ(IIC_WriteBytes(handle, 0, 0x50, &zero, 1, 10), 0);
    unsigned char out[6] = {};
    ASSERT_EQ(IIC_BlockReadBytes(handle, 0, 0x50, out, 3, 2, 0), 0);
    EXPECT_EQ(Bytes(out, out + 6), (Bytes{1, 2, 3, 4, 0xFF, 0xFF}));
    EXPECT_EQ(trace->sends(IIC_BLOCK_READ)[0].data, (Bytes{0, 0, 0x50, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 0}));
    EXPECT_EQ(IIC_BlockReadBytes(handle, 0, 0x51, out, 3, 2, 0), i2c_status::kAddressNack);
}

TEST_F(I2c, SlaveModeAgainstASimulatedMaster) {
    // The master reads two of the three prepared bytes while the adapter waits.
    unsigned char data[3] = {0xA1, 0xA2, 0xA3};
    adapter->after(std::chrono::milliseconds(20), [this] { bus().master_read(0, 2); });
    EXPECT_EQ(IIC_SlaveWriteBytes(handle, 0, data, 3, 60), 2);
    EXPECT_EQ(trace->sends(IIC_SLAVE_WRITE)[0].data, (Bytes{0, 0, 0, 0, 60, 0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 160);
    EXPECT_EQ(IIC_SlaveWriteRemain(handle, 0), 1);
    EXPECT_EQ(bus().master_read(0, 2), (Bytes{0xA3, 0xFF}));

    // The remaining count is little-endian on the wire: 300 = 2C 01.
    std::vector<unsigned char> many(300, 0x11);
    EXPECT_EQ(IIC_SlaveWriteBytes(handle, 0, many.data(), 300, 0), 0);
    EXPECT_EQ(IIC_SlaveWriteRemain(handle, 0), 300);

    // What the master writes is collected; nothing within the timeout is 0.
    unsigned char in[IIC_SLAVE_READ_MAX];
    EXPECT_EQ(IIC_SlaveReadBytes(handle, 0, in, 20), 0);
    EXPECT_EQ(trace->gets().back().timeout_ms, 120);
    adapter->after(std::chrono::milliseconds(10), [this] { bus().master_write(0, {1, 2, 3, 4, 5}); });
    ASSERT_EQ(IIC_SlaveReadBytes(handle, 0, in, 200), 5);
    EXPECT_EQ(Bytes(in, in + 5), (Bytes{1, 2, 3, 4, 5}));
    // Longer than the documented area: the excess is drained, not written.
    bus().master_write(0, Bytes(IIC_SLAVE_READ_MAX + 100, 0x5A));
    EXPECT_EQ(IIC_SlaveReadBytes(handle, 0, in, 0), IIC_SLAVE_READ_MAX);
    EXPECT_EQ(IIC_SlaveWriteRemain(handle, 0), 300) << "the pipe stayed in step";
}

TEST_F(I2c, ReadAnswersAreJudgedByLength) {
    init(7);
    unsigned char buf[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    // Status 0 with no data copies nothing and is 0; one byte short is -4.
    adapter->replace(IIC_READ, [this](const Frame& f) { adapter->answer(f.command, Payload().u8(0)); });
    EXPECT_EQ(IIC_ReadBytes(handle, 0, 0x50, buf, 4, 10), 0);
    EXPECT_EQ(buf[0], 0xEE);
    adapter->replace(IIC_READ, [this](const Frame& f) { adapter->answer(f.command, Payload().u8(0).u8(1).u8(2).u8(3)); });
    EXPECT_EQ(IIC_ReadBytes(handle, 0, 0x50, buf, 4, 10), -4);
    EXPECT_EQ(buf[0], 0xEE);
    // A firmware status passes through as it is.
    adapter->replace(IIC_READ, [this](const Frame& f) { adapter->answer(f.command, Payload().u8(0x37)); });
    EXPECT_EQ(IIC_ReadBytes(handle, 0, 0x50, buf, 4, 10), 0x37);

    place_eeprom({0x50, 256, 8, 0});
    adapter->inject(Fault::EmptyPayload, IIC_WRITE);
    EXPECT_EQ(IIC_WriteBytes(handle, 0, 0x50, buf, 1, 10), -4);
    adapter->inject(Fault::Oversized, IIC_WRITE_READ);
    EXPECT_EQ(IIC_WriteReadBytes(handle, 0, 0x50, buf, 1, buf, 2, 10), -4);
    adapter->inject(Fault::ShortPayload, IIC_BLOCK_READ);
    EXPECT_EQ(IIC_BlockReadBytes(handle, 0, 0x50, buf, 2, 2, 0), -4);
    adapter->inject(Fault::ShortHeader, IIC_SLAVE_REMAIN);
    EXPECT_EQ(IIC_SlaveWriteRemain(handle, 0), -4);
    adapter->inject(Fault::EmptyPayload, IIC_SLAVE_WRITE);
    EXPECT_EQ(IIC_SlaveWriteBytes(handle, 0, buf, 1, 0), -4);
    EXPECT_EQ(IIC_GetSlaveAddr(handle, 0, reinterpret_cast<short*>(buf)), 1) << "the pipe stayed in step";

    // Requests that cannot be built are refused before anything is sent.
    trace->clear();
    EXPECT_EQ(IIC_WriteBytes(handle, 0, 0x50, buf, -1, 10), IIC_ERR_ARGUMENT);
    EXPECT_EQ(IIC_ReadBytes(handle, 0, 0x50, nullptr, 4, 10), IIC_ERR_ARGUMENT);
    EXPECT_EQ(IIC_BlockWriteBytes(handle, 0, 0x50, buf, -2, 2, 0), IIC_ERR_ARGUMENT);
    EXPECT_EQ(IIC_Init(handle, 0, nullptr), IIC_ERR_ARGUMENT);
    EXPECT_TRUE(trace->sends().empty());
}

TEST_F(I2c, ClosedOrUnknownHandlesCannotSend) {
    USB_CloseDevice(handle);
    unsigned char b[2] = {};
    IIC_CONFIG c{};
    EXPECT_EQ(IIC_Init(handle, 0, &c), -2);
    EXPECT_EQ(IIC_WriteBytes(handle, 0, 0x50, b, 1, 10), -2);
    EXPECT_EQ(IIC_ReadBytes(handle, 0, 0x50, b, 1, 10), -2);
    EXPECT_EQ(IIC_SlaveReadBytes(handle, 0, b, 10), -2);
    EXPECT_EQ(IIC_SlaveWriteRemain(0x7E000001, 0), -2);
    short found[128];
    EXPECT_EQ(IIC_GetSlaveAddr(handle, 0, found), 0);
    EXPECT_TRUE(adapter->received().empty());
}
