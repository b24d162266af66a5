// Serial-bus worlds, loaded in this process and driven through the library as a program
// would: the devices a file places answer with the geometry, registers and contents it
// gave them, scheduled masters and pins act on time, UART peers keep their scripts.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "polybus/polybus.h"
#include "sim_fixture.h"
#include "world.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

const char* kAdapter = "[[adapter]]\nname = \"bench\"\nid = 0x41000001\n";

class SerialWorld : public ::testing::Test {
protected:
    void load(const std::string& tables) {
        polybus_sim::Simulator::instance().remove_all();
        built_ = Clock::now();  // before: the world's schedules start inside build()
        bench_ = polybus_sim::world::parse_world(kAdapter + tables, POLYBUS_SOURCE_DIR "/examples/worlds/inline.toml")
                     .build();
        const std::vector<int> handles = polybus_test::scan();
        ASSERT_EQ(handles, std::vector<int>{0x41000001});
        dev = handles[0];
        ASSERT_TRUE(USB_OpenDevice(dev));
    }
    void TearDown() override {
        if (dev) USB_CloseDevice(dev);
        bench_.reset();
    }
    double ms_since_built() const { return ms_since(built_); }
    void init_i2c(int channel, uint8_t bits) {
        IIC_CONFIG c{};
        c.Setting32 = 400000;
        c.AddrBits = bits;
        ASSERT_EQ(IIC_Init(dev, channel, &c), 0);
    }

    int dev = 0;
    std::unique_ptr<polybus_sim::world::Bench> bench_;
    Clock::time_point built_;
};

TEST_F(SerialWorld, I2cDevicesAnswerWithTheirPlacedGeometryRegistersAndContents) {
    load(R"(
[[i2c_eeprom]]
channel = "bench:0"
size = 512
page_size = 16
write_cycle_us = 50000
fill = 0x00
offset = 0x1FC
data = "DE AD BE EF"

[[smbus_device]]
channel = "bench:0"
address = 0x16
words = { 0x10 = 0x1234 }
bytes = { 0x20 = 0x7F }
blocks = { 0x30 = "01 02 03" }

[[smbus_device]]
channel = "bench:0"
address = 0x17
corrupt_pec = true

[[i2c_eeprom]]
channel = "bench:1"
ten_bit = true
address = 0x2A5
size = 32768
page_size = 64
)");
    init_i2c(0, 7);
    // The scan finds exactly the placed devices; a 512-byte EEPROM answers two addresses.
    std::vector<short> found(128);
    ASSERT_EQ(IIC_GetSlaveAddr(dev, 0, found.data()), 4);
    found.resize(4);
    EXPECT_EQ(found, (std::vector<short>{0x16, 0x17, 0x50, 0x51}));

    // The upper half sits behind 0x51; the file's bytes at 0x1FC, the fill around them.
    unsigned char at = 0xFA, got[6] = {};
    ASSERT_EQ(IIC_WriteReadBytes(dev, 0, 0x51, &at, 1, got, 6, 100), 0);
    EXPECT_EQ(Bytes(got, got + 6), (Bytes{0x00, 0x00, 0xDE, 0xAD, 0xBE, 0xEF}));

    // A page write wraps within its 16 bytes, then the write cycle refuses the bus.
    unsigned char page[1 + 18] = {0x0E};
    for (int i = 0; i < 18; ++i) page[1 + i] = uint8_t(0x80 + i);
    ASSERT_EQ(IIC_WriteBytes(dev, 0, 0x50, page, sizeof page, 100), 0);
    EXPECT_EQ(IIC_WriteBytes(dev, 0, 0x50, nullptr, 0, 5), 1) << "busy for its 50 ms write cycle";
    std::this_thread::sleep_for(55ms);
    at = 0x00;
    ASSERT_EQ(IIC_WriteReadBytes(dev, 0, 0x50, &at, 1, got, 2, 100), 0);
    EXPECT_EQ(Bytes(got, got + 2), (Bytes{0x82, 0x83})) << "bytes 17 and 18 wrapped to the page start";

    // SMBus registers as the file set them; the corrupting device fails PEC reads only.
    ASSERT_EQ(SMBUS_Init(dev, 0, 100000, 0), 0);
    unsigned short word = 0;
    unsigned char byte = 0;
    EXPECT_EQ(SMBUS_ReadWordProtocol(dev, 0, 0x16, 0x10, &word, 1), 0);
    EXPECT_EQ(word, 0x1234);
    EXPECT_EQ(SMBUS_ReadByteProtocol(dev, 0, 0x16, 0x20, &byte, 0), 0);
    EXPECT_EQ(byte, 0x7F);
    unsigned char block[64];
    int len = -1;
    EXPECT_EQ(SMBUS_BlockRead(dev, 0, 0x16, 0x30, block, &len, 1), 0);
    ASSERT_EQ(len, 3);
    EXPECT_EQ(Bytes(block, block + 3), (Bytes{1, 2, 3}));
    EXPECT_EQ(SMBUS_ReadWordProtocol(dev, 0, 0x17, 0x10, &word, 1), 3) << "PEC mismatch";
    EXPECT_EQ(SMBUS_ReadWordProtocol(dev, 0, 0x17, 0x10, &word, 0), 0);

    // The 10-bit EEPROM is reachable only on a 10-bit channel, with two address bytes.
    init_i2c(1, 10);
    unsigned char write[] = {0x7F, 0xFE, 0x42, 0x43};
    ASSERT_EQ(IIC_WriteBytes(dev, 1, 0x2A5, write, 4, 100), 0);
    std::this_thread::sleep_for(8ms);
    ASSERT_EQ(IIC_WriteReadBytes(dev, 1, 0x2A5, write, 2, got, 3, 100), 0);
    EXPECT_EQ(Bytes(got, got + 3), (Bytes{0x42, 0x43, 0xFF})) << "the fill defaults to erased";
    init_i2c(1, 7);
    EXPECT_NE(IIC_WriteBytes(dev, 1, 0x2A5, nullptr, 0, 5), 0);
}

TEST_F(SerialWorld, ScheduledI2cMasterWritesThenReadsWhatTheAdapterPrepared) {
    load(R"(
[[i2c_master]]
channel = "bench:0"

[[i2c_master.step]]
at_ms = 30
write = "11 22 33"

[[i2c_master.step]]
at_ms = 400
read = 2
period_ms = 20
)");
    init_i2c(0, 7);
    unsigned char in[IIC_SLAVE_READ_MAX];
    ASSERT_EQ(IIC_SlaveReadBytes(dev, 0, in, 1000), 3);
    EXPECT_EQ(Bytes(in, in + 3), (Bytes{0x11, 0x22, 0x33}));
    EXPECT_GE(ms_since_built(), 30);
    // Two bytes every 20 ms from 400 ms on: six prepared bytes are gone three reads later.
    unsigned char out[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_LT(ms_since_built(), 390) << "the machine was too slow to prepare before the reads began";
    EXPECT_EQ(IIC_SlaveWriteBytes(dev, 0, out, 6, 1000), 6);
    EXPECT_GE(ms_since_built(), 440);
    EXPECT_EQ(IIC_SlaveWriteRemain(dev, 0), 0);
}

TEST_F(SerialWorld, SpiFlashAndShiftRegisterAnswerAsPlaced) {
    load(R"(
[[spi_flash]]
port = "bench:0"
jedec_id = "C2 20 16"
size = 65536
sector_erase_us = 20000
offset = 0x100
data = "01 02 03"

[[spi_shift_register]]
port = "bench:1"
depth = 2
fill = 0xA5
)");
    SPI_CONFIG spi{};
    spi.Master = 1;
    spi.ClockSpeedHz = 25000000;
    ASSERT_EQ(SPI_Init(dev, 0, &spi), 0);
    ASSERT_EQ(SPI_Init(dev, 1, &spi), 0);
    SPI_FLASH_CONFIG flash{};
    flash.WriteEnableCmd = 0x06;
    flash.PageProgramCmd = 0x02;
    flash.ReadCmd = 0x03;
    flash.SectorEraseCmd = 0x20;
    flash.ReadIDCmd = 0x9F;
    flash.ReadStatusCmd = 0x05;
    flash.AddrBytes = 3;
    flash.BusyMask = 0x01;
    flash.PageSize = 256;
    flash.SectorSize = 4096;
    flash.IDLength = 3;
    ASSERT_EQ(SPI_FlashInit(dev, 0, 25000000, &flash), 0);
    unsigned char id[3] = {};
    ASSERT_EQ(SPI_FlashReadID(dev, 0, id), 0);
    EXPECT_EQ(Bytes(id, id + 3), (Bytes{0xC2, 0x20, 0x16}));
    unsigned char got[4] = {};
    ASSERT_EQ(SPI_FlashRead(dev, 0, 0x100, got, 4), 0);
    EXPECT_EQ(Bytes(got, got + 4), (Bytes{1, 2, 3, 0xFF}));
    const auto t0 = Clock::now();
    ASSERT_EQ(SPI_FlashEraseSector(dev, 0, 0, 1, 1000), 0);
    EXPECT_GE(ms_since(t0), 19) << "the erase time of the file";
    ASSERT_EQ(SPI_FlashRead(dev, 0, 0x100, got, 4), 0);
    EXPECT_EQ(Bytes(got, got + 4), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));

    // Two stages of 0xA5, then the bytes clocked in two bytes earlier.
    unsigned char out[3] = {1, 2, 3}, in[2] = {};
    ASSERT_EQ(SPI_WriteReadBytes(dev, 1, out, 3, in, 2, 100), 0);
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{2, 3}));
    ASSERT_EQ(SPI_ReadBytes(dev, 1, in, 2), 0);
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{0xFF, 0xFF}));
}

TEST_F(SerialWorld, SpiMasterStreamsItsPatternAtItsRate) {
    load(R"(
[[spi_master]]
port = "bench:1"
bytes_per_second = 100000
pattern = "A1 B2 C3"
)");
    SPI_CONFIG spi{};
    ASSERT_EQ(SPI_Init(dev, 1, &spi), 0);
    const auto t0 = Clock::now();  // the master starts clocking when the adapter gets the request
    ASSERT_EQ(SPI_SlaveStartContinueRead(dev, 1), 0);
    std::this_thread::sleep_for(50ms);
    static unsigned char in[SPI_SLAVE_CHUNK_MAX];
    const int n = SPI_SlaveReadBytesFromBuffer(dev, 1, in, 100);
    const double elapsed_s = std::chrono::duration<double>(Clock::now() - t0).count();
    ASSERT_EQ(SPI_SlaveStopContinueRead(dev, 1), 0);
    ASSERT_GT(n, 3000) << "about 5000 bytes in 50 ms";
    EXPECT_LE(n, int(100000 * elapsed_s) + 1);
    const uint8_t pattern[] = {0xA1, 0xB2, 0xC3};
    for (int i = 0; i < n; ++i) ASSERT_EQ(in[i], pattern[i % 3]) << "byte " << i;
}

TEST_F(SerialWorld, UartPeersAnswerTheirScriptAndStreamOnTime) {
    load(R"(
[[uart_peer]]
port = "bench:0"
mode = "script"
reply_delay_us = 1000
[[uart_peer.answer]]
expect = "AT\r"
reply = "OK\r\n"

[[uart_peer]]
port = "bench:1"
mode = "stream"
stream = "hello"
repeat = 3
baud = 9600
start_ms = 400
)");
    UART_CONFIG c{};
    c.BaudRate = 115200;
    ASSERT_EQ(UART_Init(dev, 0, &c), 0);
    ASSERT_EQ(UART_Init(dev, 1, &c), 0);
    unsigned char at[] = {'A', 'T', '\r'};
    ASSERT_EQ(UART_WriteBytes(dev, 0, at, 3), 0);
    // The reply comes byte by byte; a read returns what has arrived so far.
    static unsigned char in[UART_READ_MAX];
    std::string reply;
    int n;
    while (reply.size() < 4 && (n = UART_ReadBytes(dev, 0, in, 200)) > 0) reply.append(reinterpret_cast<char*>(in), size_t(n));
    EXPECT_EQ(reply, "OK\r\n");

    // Fifteen bytes at 9600 bit/s: the first ends 1.04 ms after 400 ms from the world's
    // start, the last 14.6 ms after it.
    std::string all;
    double first_ms = -1, last_ms = -1;
    while (all.size() < 15 && ms_since_built() < 2000) {
        const int got = UART_ReadBytes(dev, 1, in, 0);
        if (got > 0) {
            if (all.empty()) first_ms = ms_since_built();
            all.append(reinterpret_cast<char*>(in), size_t(got));
            last_ms = ms_since_built();
        }
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(all, "hellohellohello");
    EXPECT_GE(first_ms, 400) << "nothing before start_ms";
    EXPECT_GE(last_ms, 415) << "paced at 9600 bit/s, not delivered at once";
}

TEST_F(SerialWorld, EventTransfersWaitForThePulsedPin) {
    load(R"(
[[i2c_eeprom]]
channel = "bench:0"
data = "5A"

[[pin_event]]
pin = "bench:5"
level = "low"
pulse_us = 2000
period_ms = 40
)");
    init_i2c(0, 7);
    unsigned char got[1] = {};
    // Falling edge on pin 5 (the event kind sits in the top byte of EventType).
    const auto t0 = Clock::now();
    ASSERT_EQ(IIC_ReadBytesOfEvent(dev, 0, 0x50, got, 1, 500, 5, 3u << 24), 0);
    EXPECT_EQ(got[0], 0x5A);
    EXPECT_LT(ms_since(t0), 400) << "a pulse comes every 40 ms, long before the timeout";
    // Pin 6 is nobody's: it stays high, so waiting for it low runs out.
    EXPECT_EQ(IIC_ReadBytesOfEvent(dev, 0, 0x50, got, 1, 30, 6, 0u << 24), 4);
}

}  // namespace
