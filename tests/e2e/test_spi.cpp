// SPI end to end: master transfers against a shift register, bit strings, block and
// event-triggered transfers, the serial NOR flash (adapter-side commands and the
// host-sequenced erases), single slave transfers against a simulated master, and the
// answers the family rejects.
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "gpio_model.h"
#include "sim_fixture.h"
#include "spi_model.h"
#include "wire/spi.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using Bytes = std::vector<uint8_t>;

namespace {

SPI_FLASH_CONFIG standard_flash() {
    SPI_FLASH_CONFIG f{};
    f.WriteEnableCmd = 0x06;
    f.WriteDisableCmd = 0x04;
    f.PageProgramCmd = 0x02;
    f.ReadCmd = 0x03;
    f.FastReadCmd = 0x0B;
    f.SectorEraseCmd = 0x20;
    f.BlockEraseCmd = 0xD8;
    f.ChipEraseCmd = 0xC7;
    f.ReadIDCmd = 0x9F;
    f.AddrBytes = 3;
    f.DummyBytes = 1;
    f.ReadStatusCmd = 0x05;
    f.BusyMask = 0x01;
    f.WelMask = 0x02;
    f.PageSize = 256;
    f.SectorSize = 4096;
    f.SectorCount = 256;
    f.IDLength = 3;
    f.ProgramTimeoutMs = 5;
    f.EraseTimeoutMs = 400;
    return f;
}

class Spi : public SimTest {
protected:
    SpiModel& spi() { return model<SpiModel>(); }
    void SetUp() override {
        SimTest::SetUp();
        shift = std::make_shared<ShiftRegister>(ShiftRegisterConfig{1, 0x00});
        spi().attach(0, shift);
        SPI_CONFIG c{};
        c.Master = 1;
        c.ClockSpeedHz = 10000000;
        ASSERT_EQ(SPI_Init(handle, 0, &c), 0);
        trace->clear();
    }
    std::shared_ptr<NorFlash> place_flash(NorFlashConfig c = {}) {
        flash = std::make_shared<NorFlash>(c);
        spi().attach(1, flash);
        SPI_FLASH_CONFIG f = standard_flash();
        EXPECT_EQ(SPI_FlashInit(handle, 1, 20000000, &f), 0);
        return flash;
    }
    static double ms_since(std::chrono::steady_clock::time_point t) {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
    }
    std::shared_ptr<ShiftRegister> shift;
    std::shared_ptr<NorFlash> flash;
};

}  // namespace

TEST_F(Spi, InitSendsTheSixSettingsAndTheClock) {
    SPI_CONFIG c{1, 0, 1, 1, 1, 1, {0xAA, 0xBB}, 3125000};
    ASSERT_EQ(SPI_Init(handle, 1, &c), 0);
    EXPECT_EQ(trace->sends(SPI_INIT)[0].data, (Bytes{1, 1, 0, 1, 1, 1, 1, 0x00, 0x2F, 0xAF, 0x08}));
    EXPECT_EQ(spi().setup(1).clock_hz, 3125000u);
    adapter->replace(SPI_INIT, [this](const Frame& f) { adapter->answer(f.command, Payload().u8(0)); });
    EXPECT_EQ(SPI_Init(handle, 1, &c), -4) << "a one-byte answer";
}

TEST_F(Spi, ByteTransfersAgainstAShiftRegister) {
    unsigned char out[3] = {1, 2, 3}, in[4] = {};
    ASSERT_EQ(SPI_WriteReadBytes(handle, 0, out, 3, in, 2, 7), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE_READ)[0].data, (Bytes{0, 0, 0, 0, 2, 0, 0, 0, 7, 1, 2, 3}));
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{3, 0xFF})) << "each byte out pushes the previous one back";
    EXPECT_EQ(trace->gets().back().timeout_ms, 10000);
    ASSERT_EQ(SPI_WriteBytes(handle, 0, out, 3), 0);
    ASSERT_EQ(SPI_WriteBytesAsync(handle, 0, out, 1), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE_ASYNC)[0].data, (Bytes{0, 1}));
    ASSERT_EQ(SPI_ReadBytes(handle, 0, in, 2), 0);
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{1, 0xFF}));
    EXPECT_EQ(trace->sends(SPI_READ)[0].data, (Bytes{0, 0, 0, 0, 2}));
    EXPECT_EQ(shift->received(), (Bytes{1, 2, 3, 0xFF, 0xFF, 1, 2, 3, 1, 0xFF, 0xFF}));

    // Reads are not length-checked, and never written past ReadLen.
    adapter->replace(SPI_READ, [this](const Frame& f) { adapter->answer(f.command, Bytes{9, 9, 9, 9}); });
    std::memset(in, 0, sizeof in);
    EXPECT_EQ(SPI_ReadBytes(handle, 0, in, 2), 0);
    EXPECT_EQ(Bytes(in, in + 4), (Bytes{9, 9, 0, 0}));
    adapter->replace(SPI_READ, [this](const Frame& f) { adapter->answer(f.command, Bytes{7}); });
    EXPECT_EQ(SPI_ReadBytes(handle, 0, in, 2), 0);
}

TEST_F(Spi, BlockTransfersSelectOncePerBlock) {
    unsigned char out[4] = {1, 2, 3, 4}, in[6] = {};
    const int frames = shift->frames();
    ASSERT_EQ(SPI_BlockWriteBytes(handle, 0, out, 2, 2, 100), 0);
    EXPECT_EQ(shift->frames() - frames, 2);
    EXPECT_EQ(trace->sends(SPI_BLOCK_WRITE)[0].data, (Bytes{0, 0, 2, 0, 2, 0, 0, 0, 100, 1, 2, 3, 4}));
    ASSERT_EQ(SPI_BlockReadBytes(handle, 0, in, 3, 2, 5000), 0);
    EXPECT_EQ(trace->sends(SPI_BLOCK_READ)[0].data, (Bytes{0, 0, 3, 0, 2, 0, 0, 0x13, 0x88}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 1010);
    EXPECT_EQ(Bytes(in, in + 3), (Bytes{4, 0xFF, 0xFF}));
    ASSERT_EQ(SPI_BlockWriteReadBytes(handle, 0, out, 2, in, 1, 2, 0), 0);
    EXPECT_EQ(trace->sends(SPI_BLOCK_WRITE_READ)[0].data, (Bytes{0, 0, 2, 0, 1, 0, 2, 0, 0, 0, 0, 1, 2, 3, 4}));
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{2, 4}));

    // A block read of the wrong length is -4, with what came copied all the same.
    adapter->replace(SPI_BLOCK_READ, [this](const Frame& f) { adapter->answer(f.command, Bytes{5, 6}); });
    std::memset(in, 0, sizeof in);
    EXPECT_EQ(SPI_BlockReadBytes(handle, 0, in, 3, 1, 0), -4);
    EXPECT_EQ(Bytes(in, in + 3), (Bytes{5, 6, 0}));
}

TEST_F(Spi, BitStringsArePackedMostSignificantBitFirst) {
    char bits[] = "1011001110";
    ASSERT_EQ(SPI_WriteBits(handle, 0, bits), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE_BITS)[0].data, (Bytes{0, 0, 0, 0, 10, 0xB3, 0x80}));
    EXPECT_EQ(trace->sends(SPI_WRITE_BITS)[0].timeout_ms, 100) << "bit writes are sent within 100 ms";
    char bad[] = "10x1";
    trace->clear();
    EXPECT_EQ(SPI_WriteBits(handle, 0, bad), SPI_ERR_BITS);
    char empty[] = "";
    ASSERT_EQ(SPI_WriteBits(handle, 0, empty), 0);
    ASSERT_EQ(trace->sends().size(), 1u) << "the bad string sent nothing";
    EXPECT_EQ(trace->sends()[0].data, (Bytes{0, 0, 0, 0, 0}));

    // Read 12 bits: the shift register answers 0xB3 0x80 from before; the low four bits of
    // the second byte are not part of the string.
    char read[16];
    std::memset(read, 'z', sizeof read);
    ASSERT_EQ(SPI_WriteBits(handle, 0, bits), 0);
    ASSERT_EQ(SPI_ReadBits(handle, 0, read, 12), 0);
    EXPECT_STREQ(read, "100000001111");  // 0x80 from the previous byte, then 0xFF
    char wbits[] = "11110000";
    ASSERT_EQ(SPI_WriteReadBits(handle, 0, wbits, read, 4), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE_READ_BITS)[0].data, (Bytes{0, 0, 0, 0, 8, 0, 0, 0, 4, 0xF0}));
    EXPECT_STREQ(read, "1111");

    // Over 163,840 characters: cut to that many bits, the rest neither checked nor sent.
    std::string huge(200000, '1');
    huge[190000] = 'x';
    ASSERT_EQ(SPI_WriteBits(handle, 0, &huge[0]), 0);
    auto sent = trace->sends(SPI_WRITE_BITS).back().data;
    EXPECT_EQ(sent.size(), 5u + 20480u);
    EXPECT_EQ(Bytes(sent.begin() + 1, sent.begin() + 5), (Bytes{0x00, 0x02, 0x80, 0x00}));

    // An empty answer empties the string.
    adapter->inject(Fault::EmptyPayload, SPI_READ_BITS);
    ASSERT_EQ(SPI_ReadBits(handle, 0, read, 12), 0);
    EXPECT_STREQ(read, "");
    adapter->inject(Fault::ShortHeader, SPI_READ_BITS);
    EXPECT_EQ(SPI_ReadBits(handle, 0, read, 12), -4);
}

TEST_F(Spi, EventTransfersWaitForThePins) {
    auto& pins = model<GpioModel>();
    pins.drive(0x30, 0x00);
    unsigned char out[2] = {0xA, 0xB}, in[4] = {};
    // Level high on pin 4 or 5 (type 1); it never comes.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SPI_WriteBytesOfEvent(handle, 0, out, 2, 0x30, 1, 40), SPI_ERR_EVENT);
    EXPECT_GE(ms_since(start), 35);
    EXPECT_EQ(trace->sends(SPI_WRITE_EVENT)[0].data, (Bytes{0, 0, 0, 0, 0x30, 1, 0, 0, 0, 40, 0xA, 0xB}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 140);

    // Pin 5 rises 30 ms into the wait.
    adapter->after(std::chrono::milliseconds(30), [&pins] { pins.drive(0x20, 0x20); });
    ASSERT_EQ(SPI_ReadBytesOfEvent(handle, 0, in, 2, 0x30, 2, 500), 0);
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{0x00, 0xFF})) << "the timed-out write sent nothing";
    EXPECT_EQ(trace->sends(SPI_READ_EVENT)[0].data, (Bytes{0, 0, 0, 0, 2, 0, 0, 0, 0x30, 2, 0, 0, 1, 0xF4}));
    ASSERT_EQ(SPI_WriteReadBytesOfEvent(handle, 0, out, 2, in, 1, 9, 0x20, 1, 50), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE_READ_EVENT)[0].data,
              (Bytes{0, 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 0x20, 1, 0, 0, 0, 50, 0xA, 0xB}));
    EXPECT_EQ(in[0], 0xB);

    // Blocks: each waits for its event; a write answers nothing on success.
    ASSERT_EQ(SPI_BlockWriteBytesOfEvent(handle, 0, out, 1, 2, 0x20, 1, 50), 0);
    EXPECT_EQ(trace->sends(SPI_BLOCK_WRITE_EVENT)[0].data,
              (Bytes{0, 0, 1, 0, 2, 0, 0, 0, 0x20, 1, 0, 0, 0, 50, 0xA, 0xB}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 50 * 2 + 1000);
    ASSERT_EQ(SPI_BlockReadBytesOfEvent(handle, 0, in, 2, 2, 0x20, 1, 50), 0);
    EXPECT_EQ(Bytes(in, in + 4), (Bytes{0xB, 0xFF, 0xFF, 0xFF}));
    ASSERT_EQ(SPI_BlockWriteReadBytesOfEvent(handle, 0, out, 1, in, 1, 2, 0x20, 1, 50), 0);
    EXPECT_EQ(trace->sends(SPI_BLOCK_WRITE_READ_EVENT)[0].data,
              (Bytes{0, 0, 1, 0, 1, 0, 2, 0, 0, 0, 0x20, 1, 0, 0, 0, 50, 0xA, 0xB}));
    EXPECT_EQ(Bytes(in, in + 2), (Bytes{0xA, 0xB}));
    pins.drive(0x20, 0);
    EXPECT_EQ(SPI_BlockWriteBytesOfEvent(handle, 0, out, 1, 2, 0x20, 1, 20), SPI_ERR_EVENT);
    EXPECT_EQ(SPI_BlockReadBytesOfEvent(handle, 0, in, 2, 2, 0x20, 1, 20), SPI_ERR_EVENT);

    // Answers of the wrong shape.
    adapter->inject(Fault::EmptyPayload, SPI_WRITE_EVENT);
    EXPECT_EQ(SPI_WriteBytesOfEvent(handle, 0, out, 2, 0x20, 0, 40), -4);
    adapter->inject(Fault::ShortPayload, SPI_BLOCK_READ_EVENT);
    EXPECT_EQ(SPI_BlockReadBytesOfEvent(handle, 0, in, 2, 2, 0x20, 0, 50), -4);
    adapter->replace(SPI_BLOCK_WRITE_EVENT, [this](const Frame& f) { adapter->answer(f.command, Bytes{0, 0}); });
    EXPECT_EQ(SPI_BlockWriteBytesOfEvent(handle, 0, out, 1, 2, 0x20, 0, 50), -4);
}

TEST_F(Spi, FlashCommandsRunInTheAdapter) {
    place_flash();
    auto init = trace->sends(SPI_FLASH_INIT);
    ASSERT_EQ(init.size(), 1u);
    ASSERT_EQ(init[0].data.size(), 49u);
    EXPECT_EQ(Bytes(init[0].data.begin(), init[0].data.begin() + 6), (Bytes{1, 0x01, 0x31, 0x2D, 0x00, 0x06}));
    EXPECT_EQ(init[0].data[5 + 31], 3);
    EXPECT_EQ(spi().setup(1).flash[16], 0x00);
    EXPECT_EQ(spi().setup(1).flash[17], 0x01) << "page size 256, little-endian";

    unsigned char id[3] = {};
    ASSERT_EQ(SPI_FlashReadID(handle, 1, id), 0);
    EXPECT_EQ(Bytes(id, id + 3), (Bytes{0xEF, 0x40, 0x14}));

    // 600 bytes from 0x1F0 cross three pages; the adapter splits them.
    Bytes data(600);
    for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 3 + 1);
    ASSERT_EQ(SPI_FlashWrite(handle, 1, 0x1F0, data.data(), int(data.size())), 0);
    EXPECT_EQ(trace->sends(SPI_FLASH_WRITE)[0].data.size(), 605u);
    EXPECT_EQ(flash->programs(), 4);
    Bytes back(600);
    ASSERT_EQ(SPI_FlashRead(handle, 1, 0x1F0, back.data(), 600), 0);
    EXPECT_EQ(back, data);
    EXPECT_EQ(trace->sends(SPI_FLASH_READ)[0].data, (Bytes{1, 0, 0, 1, 0xF0, 0, 0, 2, 0x58}));
    std::fill(back.begin(), back.end(), 0);
    ASSERT_EQ(SPI_FlashReadFast(handle, 1, 0x1F0, back.data(), 600), 0);
    EXPECT_EQ(back, data);

    flash->load(0x1000, {0x12});
    ASSERT_EQ(SPI_FlashEraseSector(handle, 1, 0, 1, 500), 0);
    EXPECT_EQ(trace->sends(SPI_FLASH_ERASE_SECTOR)[0].data, (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 1500);
    auto mem = flash->contents();
    EXPECT_EQ(mem[0x1F0], 0xFF);
    EXPECT_EQ(mem[0x1000], 0x12) << "only sector 0 was erased";

    // A short read is -4 with what came in place; the fast read takes any answer.
    adapter->replace(SPI_FLASH_READ, [this](const Frame& f) { adapter->answer(f.command, Bytes{1, 2}); });
    std::fill(back.begin(), back.end(), 0);
    EXPECT_EQ(SPI_FlashRead(handle, 1, 0, back.data(), 4), -4);
    EXPECT_EQ(back[1], 2);
    adapter->replace(SPI_FLASH_READ_FAST, [this](const Frame& f) { adapter->answer(f.command, Bytes{1, 2}); });
    EXPECT_EQ(SPI_FlashReadFast(handle, 1, 0, back.data(), 4), 0);
    adapter->inject(Fault::Oversized, SPI_FLASH_WRITE);
    EXPECT_EQ(SPI_FlashWrite(handle, 1, 0, data.data(), 4), -4);
}

TEST_F(Spi, FlashIdLengthZeroBecomesOne) {
    flash = std::make_shared<NorFlash>(NorFlashConfig{});
    spi().attach(1, flash);
    SPI_FLASH_CONFIG f = standard_flash();
    f.IDLength = 0;
    ASSERT_EQ(SPI_FlashInit(handle, 1, 1000000, &f), 0);
    EXPECT_EQ(f.IDLength, 1) << "the caller's record is changed too";
    EXPECT_EQ(trace->sends(SPI_FLASH_INIT)[0].data[5 + 31], 1);
    unsigned char id[3] = {};
    ASSERT_EQ(SPI_FlashReadID(handle, 1, id), 0);
    EXPECT_EQ(id[0], 0xEF);
    adapter->replace(SPI_FLASH_READ_ID, [this](const Frame& f) { adapter->answer(f.command, Bytes{1, 2, 3}); });
    EXPECT_EQ(SPI_FlashReadID(handle, 1, id), -4);
    // A rejected init is not remembered.
    f.IDLength = 3;
    adapter->inject(Fault::Oversized, SPI_FLASH_INIT);
    EXPECT_EQ(SPI_FlashInit(handle, 1, 1000000, &f), -4);
    adapter->replace(SPI_FLASH_READ_ID, [this](const Frame& fr) { adapter->answer(fr.command, Bytes{1}); });
    EXPECT_EQ(SPI_FlashReadID(handle, 1, id), 0);
}

TEST_F(Spi, HostSequencedErasesPollTheStatusRegister) {
    NorFlashConfig c;
    c.chip_erase_us = 60000;
    c.sector_erase_us = 30000;
    place_flash(c);
    flash->load(0, Bytes(16, 0x00));
    flash->load(0x12000, Bytes(16, 0x00));

    // Below one poll period the time check fails first, even on an idle flash.
    trace->clear();
    EXPECT_EQ(SPI_FlashEraseChip(handle, 1, 5), SPI_ERR_TIMEOUT);
    ASSERT_EQ(trace->sends(SPI_WRITE_READ).size(), 1u);
    EXPECT_EQ(trace->sends(SPI_WRITE_READ)[0].data, (Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0, 0x05}));
    EXPECT_TRUE(trace->sends(SPI_WRITE).empty());

    trace->clear();
    ASSERT_EQ(SPI_FlashEraseChip(handle, 1, 1000), 0);
    auto writes = trace->sends(SPI_WRITE);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].data, (Bytes{1, 0x06}));
    EXPECT_EQ(writes[1].data, (Bytes{1, 0xC7}));
    EXPECT_GE(trace->sends(SPI_WRITE_READ).size(), 4u) << "polled while the chip erase ran";
    EXPECT_EQ(flash->contents()[0], 0xFF);
    EXPECT_EQ(flash->contents()[0x12000], 0xFF);

    // Command-driven erase: write enable until the latch shows, then the command and
    // the low AddrBytes bytes of the address, most significant first.
    flash->load(0x12000, Bytes(16, 0x00));
    trace->clear();
    ASSERT_EQ(SPI_FlashErase(handle, 1, 0x012345, 3, 0x20, 1000), 0);
    writes = trace->sends(SPI_WRITE);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].data, (Bytes{1, 0x06}));
    EXPECT_EQ(writes[1].data, (Bytes{1, 0x20, 0x01, 0x23, 0x45}));
    EXPECT_EQ(flash->contents()[0x12000], 0xFF);
    trace->clear();
    ASSERT_EQ(SPI_FlashErase(handle, 1, 0x012345, 6, 0x20, 1000), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE)[1].data, (Bytes{1, 0x20, 0x00, 0x01, 0x23, 0x45}));
    trace->clear();
    ASSERT_EQ(SPI_FlashErase(handle, 1, 0x012345, 0, 0x60, 1000), 0);
    EXPECT_EQ(trace->sends(SPI_WRITE)[1].data, (Bytes{1, 0x60}));

    // A failing transfer inside the sequence is returned as it is.
    adapter->inject(Fault::Oversized, SPI_WRITE);
    EXPECT_EQ(SPI_FlashEraseChip(handle, 1, 1000), -4);
    // A flash that never latches write enable (no flash on port 0's shift register
    // answers bit 1) runs out of time.
    EXPECT_EQ(SPI_FlashErase(handle, 0, 0, 3, 0x20, 30), SPI_ERR_TIMEOUT);
}

TEST_F(Spi, SingleSlaveTransfersAgainstASimulatedMaster) {
    auto master = spi().attach_master(0, {1e6, UINT64_MAX});
    Bytes data(100, 0x5C);
    EXPECT_EQ(SPI_SlaveWriteBytes(handle, 0, data.data(), 100, 200), 100);
    EXPECT_EQ(trace->gets().back().timeout_ms, 300);
    EXPECT_EQ(spi().master_received(0), data);
    EXPECT_EQ(SPI_SlaveWriteBytes(handle, 1, data.data(), 10, 20), 0) << "no master on port 1";
    adapter->inject(Fault::WrongEcho, SPI_SLAVE_WRITE);
    EXPECT_EQ(SPI_SlaveWriteBytes(handle, 0, data.data(), 10, 20), -4);

    unsigned char in[16] = {};
    unsigned char w[4] = {1, 2, 3, 4};
    const int r = SPI_SlaveWriteReadBytes(handle, 0, w, 4, in, 8, 100);
    EXPECT_EQ(r, 4 << 16 | 8);
    EXPECT_EQ(trace->sends(SPI_SLAVE_WRITE_READ)[0].data, (Bytes{0, 0, 0, 0, 100, 0, 0, 0, 8, 1, 2, 3, 4}));
    EXPECT_EQ(in[0], SpiMasterStream::byte_at(110));  // after the 100 + 10 bytes clocked before
    EXPECT_EQ(SPI_SlaveReadWriteBytes(handle, 0, in, 2, w, 1, 100), 1 << 16 | 2);
    EXPECT_EQ(trace->sends(SPI_SLAVE_READ_WRITE)[0].data, (Bytes{0, 0, 0, 0, 100, 0, 0, 0, 2, 1}));
    // Requests beyond the fixed areas are refused; answers beyond ReadLen are not copied.
    trace->clear();
    Bytes big(SPI_SLAVE_DUPLEX_WRITE_MAX + 1);
    EXPECT_EQ(SPI_SlaveWriteReadBytes(handle, 0, big.data(), int(big.size()), in, 1, 10), SPI_ERR_ARGUMENT);
    EXPECT_EQ(SPI_SlaveWriteReadBytes(handle, 0, w, 1, big.data(), SPI_SLAVE_DUPLEX_READ_MAX + 1, 10),
              SPI_ERR_ARGUMENT);
    EXPECT_TRUE(trace->sends().empty());
    adapter->replace(SPI_SLAVE_WRITE_READ, [this](const Frame& f) {
        adapter->answer(f.command, Payload().be32(1).be32(6).u8(1).u8(2).u8(3).u8(4).u8(5).u8(6));
    });
    std::memset(in, 0, sizeof in);
    EXPECT_EQ(SPI_SlaveWriteReadBytes(handle, 0, w, 1, in, 2, 10), 1 << 16 | 6);
    EXPECT_EQ(Bytes(in, in + 4), (Bytes{1, 2, 0, 0}));
    adapter->inject(Fault::WrongEcho, SPI_SLAVE_READ_WRITE);
    EXPECT_EQ(SPI_SlaveReadWriteBytes(handle, 0, in, 2, w, 1, 100), -4);
}

TEST_F(Spi, SlaveReadBytesPollsWithinItsBudget) {
    std::vector<unsigned char> buf(10000 + SPI_SLAVE_CHUNK_MAX);
    // No master: 25 ms allow three polls (25, 15, then 5 < 11 stops).
    EXPECT_EQ(SPI_SlaveReadBytes(handle, 1, buf.data(), 100, 25), 0);
    EXPECT_EQ(trace->sends(SPI_SLAVE_READ_BUFFER).size(), 3u);
    EXPECT_EQ(trace->sends(SPI_SLAVE_START).size(), 1u);
    EXPECT_EQ(trace->sends(SPI_SLAVE_STOP).size(), 1u);
    EXPECT_EQ(trace->sends(SPI_SLAVE_READ_BUFFER)[0].data, (Bytes{1}));
    EXPECT_EQ(trace->gets()[1].timeout_ms, 11);
    EXPECT_FALSE(spi().streaming(1));

    // With a master streaming and no budget it reads until ReadLen bytes have come.
    spi().attach_master(0, {2e6, UINT64_MAX});
    const int got = SPI_SlaveReadBytes(handle, 0, buf.data(), 10000, 0);
    ASSERT_GE(got, 10000);
    for (int i = 0; i < got; ++i) ASSERT_EQ(buf[size_t(i)], SpiMasterStream::byte_at(uint64_t(i))) << i;

    // A failing poll is returned at once; continuous reading stays on.
    adapter->inject(Fault::WrongEcho, SPI_SLAVE_READ_BUFFER);
    EXPECT_EQ(SPI_SlaveReadBytes(handle, 1, buf.data(), 100, 25), -4);
    EXPECT_TRUE(spi().streaming(1));
    adapter->inject(Fault::WrongEcho, SPI_SLAVE_START);
    EXPECT_EQ(SPI_SlaveStartContinueRead(handle, 1), -4);
    EXPECT_EQ(SPI_SlaveStopContinueRead(handle, 1), 0);
    unsigned char reply[] = {0x42};
    EXPECT_EQ(SPI_SlaveContinueWrite(handle, 1, reply, 1), 0);
    EXPECT_EQ(trace->sends(SPI_SLAVE_CONTINUE_WRITE)[0].data, (Bytes{1, 0x42}));
}

TEST_F(Spi, RejectedAnswersAndClosedHandles) {
    unsigned char b[4] = {};
    adapter->inject(Fault::Oversized, SPI_WRITE);
    EXPECT_EQ(SPI_WriteBytes(handle, 0, b, 2), -4);
    adapter->inject(Fault::ShortHeader, SPI_WRITE_READ);
    EXPECT_EQ(SPI_WriteReadBytes(handle, 0, b, 1, b, 1, 0), -4);
    adapter->inject(Fault::EmptyPayload, SPI_READ_EVENT);
    EXPECT_EQ(SPI_ReadBytesOfEvent(handle, 0, b, 2, 1, 1, 10), -4);
    EXPECT_EQ(SPI_WriteBytes(handle, 0, b, 1), 0) << "the device was released on every path";
    trace->clear();
    EXPECT_EQ(SPI_WriteBytes(handle, 0, nullptr, 2), SPI_ERR_ARGUMENT);
    EXPECT_EQ(SPI_BlockWriteBytes(handle, 0, b, -1, 2, 0), SPI_ERR_ARGUMENT);
    EXPECT_EQ(SPI_ReadBits(handle, 0, nullptr, 3), SPI_ERR_ARGUMENT);
    EXPECT_TRUE(trace->sends().empty());
    USB_CloseDevice(handle);
    EXPECT_EQ(SPI_WriteBytes(handle, 0, b, 1), -2);
    EXPECT_EQ(SPI_FlashRead(handle, 0, 0, b, 1), -2);
    EXPECT_EQ(SPI_FlashEraseChip(handle, 0, 100), -2);
    EXPECT_EQ(SPI_SlaveReadBytes(handle, 0, b, 1, 10), -2);
}
