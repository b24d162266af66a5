// SMBus end to end against a simulated SMBus device: the transaction types and their
// I2C framing, words high byte first, block transactions, PEC, and the block reads'
// own failure codes.
#include "i2c_model.h"
#include "sim_fixture.h"
#include "wire/i2c.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using Bytes = std::vector<uint8_t>;

namespace {

class Smbus : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        SmbusDeviceConfig c;
        c.address = 0x16;
        c.words[0x05] = 0x1234;
        c.blocks[0x20] = {1, 2, 3, 4, 5};
        device = std::make_shared<SmbusDevice>(c);
        model<I2cModel>().attach(0, device);
        c.address = 0x17;
        c.corrupt_pec = true;
        faulty = std::make_shared<SmbusDevice>(c);
        model<I2cModel>().attach(0, faulty);
        ASSERT_EQ(SMBUS_Init(handle, 0, 100000, 0xBBAA), 0);
        trace->clear();
    }
    std::shared_ptr<SmbusDevice> device, faulty;
};

}  // namespace

TEST_F(Smbus, InitIsAnI2cInitWithSevenBitAddresses) {
    ASSERT_EQ(SMBUS_Init(handle, 1, 0x000186A0, 0x11223344), 0);
    EXPECT_EQ(trace->sends(IIC_INIT)[0].data, (Bytes{1, 7, 1, 0, 0, 0, 0x01, 0x86, 0xA0, 0x44, 0x33}));
}

TEST_F(Smbus, ByteAndWordTransactionsFrameTheirDataHighByteFirst) {
    ASSERT_EQ(SMBUS_WriteWordProtocol(handle, 0, 0x16, 0x05, 0xBEEF, 1), 0);
    EXPECT_EQ(trace->sends(IIC_WRITE).back().data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 1, 0x05, 0xBE, 0xEF}));
    EXPECT_EQ(device->word(0x05), 0xBEEF);
    unsigned short w = 0;
    ASSERT_EQ(SMBUS_ReadWordProtocol(handle, 0, 0x16, 0x05, &w, 0), 0);
    EXPECT_EQ(w, 0xBEEF);
    EXPECT_EQ(trace->sends(IIC_WRITE_READ).back().data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0, 0, 0, 2, 0, 0x05}));

    ASSERT_EQ(SMBUS_WriteByteProtocol(handle, 0, 0x16, 0x07, 0x99, 0), 0);
    unsigned char b = 0;
    ASSERT_EQ(SMBUS_ReadByteProtocol(handle, 0, 0x16, 0x07, &b, 0), 0);
    EXPECT_EQ(b, 0x99);
    ASSERT_EQ(SMBUS_WriteByte(handle, 0, 0x16, 0x42, 1), 0);
    EXPECT_EQ(device->last_write(), (Bytes{0x42}));
    EXPECT_EQ(trace->sends(IIC_WRITE).back().data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 1, 0x42}));
    ASSERT_EQ(SMBUS_ReadByte(handle, 0, 0x16, &b, 0), 0);
    EXPECT_EQ(b, 0x5A);

    // Process call: the device answers the complement of the word it was given.
    ASSERT_EQ(SMBUS_ProcessCall(handle, 0, 0x16, 0x30, 0x0F0F, &w, 0), 0);
    EXPECT_EQ(w, 0xF0F0);
    EXPECT_EQ(trace->sends(IIC_WRITE_READ).back().data,
              (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0, 0, 0, 2, 0, 0x30, 0x0F, 0x0F}));

    // Quick command: a zero-length write, or a zero-length read.
    ASSERT_EQ(SMBUS_QuickCommand(handle, 0, 0x16, 1), 0);
    EXPECT_EQ(trace->sends(IIC_WRITE).back().data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0}));
    ASSERT_EQ(SMBUS_QuickCommand(handle, 0, 0x16, 0), 0);
    EXPECT_EQ(trace->sends(IIC_READ).back().data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0, 0, 0, 0, 0}));
    EXPECT_EQ(SMBUS_QuickCommand(handle, 0, 0x40, 0), i2c_status::kAddressNack);
}

TEST_F(Smbus, PecFlagsReachTheFirmwareWhichChecksThem) {
    unsigned short w = 0x7777;
    // The device's PEC is wrong: reads with PEC fail, and the word is stored all the same.
    EXPECT_EQ(SMBUS_ReadWordProtocol(handle, 0, 0x17, 0x05, &w, 1), i2c_status::kPecMismatch);
    EXPECT_EQ(w, 0) << "stored whatever the status";
    EXPECT_EQ(trace->sends(IIC_WRITE_READ).back().data[11], 1) << "the PEC flag follows the read length";
    EXPECT_EQ(SMBUS_ReadWordProtocol(handle, 0, 0x17, 0x05, &w, 0), 0);
    EXPECT_EQ(w, 0x1234);
    unsigned char block[64];
    int len = -1;
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x17, 0x20, block, &len, 1), i2c_status::kPecMismatch);
    EXPECT_EQ(len, -1);
    // The PEC itself is the SMBus CRC-8 (check value of "123456789" is 0xF4).
    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(smbus_pec(check, sizeof check), 0xF4);
}

TEST_F(Smbus, BlockTransactions) {
    unsigned char data[] = {9, 8, 7};
    ASSERT_EQ(SMBUS_BlockWrite(handle, 0, 0x16, 0x21, data, 3, 1), 0);
    EXPECT_EQ(trace->sends(SMBUS_BLOCK_WRITE)[0].data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0x21, 1, 9, 8, 7}));
    EXPECT_EQ(device->block(0x21), (Bytes{9, 8, 7}));

    unsigned char block[64] = {};
    int len = -1;
    ASSERT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x20, block, &len, 0), 0);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(Bytes(block, block + 5), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(trace->sends(SMBUS_BLOCK_READ)[0].data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0x20, 0}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 5000);

    // An empty block (the status alone) leaves the caller's length as it was.
    len = 77;
    ASSERT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x55, block, &len, 0), 0);
    EXPECT_EQ(len, 77);

    ASSERT_EQ(SMBUS_BlockProcessCall(handle, 0, 0x16, 0x22, data, 3, block, &len, 0), 0);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(Bytes(block, block + 3), (Bytes{7, 8, 9}));
    EXPECT_EQ(trace->sends(SMBUS_BLOCK_PROCESS)[0].data, (Bytes{0, 0, 0x16, 0, 0, 0, 10, 0x22, 0, 9, 8, 7}));

    EXPECT_EQ(SMBUS_BlockWrite(handle, 0, 0x44, 0x21, data, 3, 0), i2c_status::kAddressNack);
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x44, 0x21, block, &len, 0), i2c_status::kAddressNack);
}

TEST_F(Smbus, BlockReadsReportAMissingHeaderAsItIs) {
    unsigned char block[64];
    int len = 5;
    adapter->inject(Fault::ShortHeader, SMBUS_BLOCK_READ);
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x20, block, &len, 0), -3);
    adapter->inject(Fault::ShortHeader, SMBUS_BLOCK_PROCESS);
    EXPECT_EQ(SMBUS_BlockProcessCall(handle, 0, 0x16, 0x20, block, 1, block, &len, 0), -3);
    // ...while the other transactions fold it into -4.
    adapter->inject(Fault::ShortHeader, IIC_WRITE_READ);
    unsigned short w;
    EXPECT_EQ(SMBUS_ReadWordProtocol(handle, 0, 0x16, 0x05, &w, 0), -4);
    adapter->inject(Fault::ShortHeader, SMBUS_BLOCK_WRITE);
    EXPECT_EQ(SMBUS_BlockWrite(handle, 0, 0x16, 0x20, block, 1, 0), -4);
    adapter->inject(Fault::EmptyPayload, SMBUS_BLOCK_WRITE);
    EXPECT_EQ(SMBUS_BlockWrite(handle, 0, 0x16, 0x20, block, 1, 0), -4);
    adapter->inject(Fault::EmptyPayload, SMBUS_BLOCK_READ);
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x20, block, &len, 0), -4);

    // An answer longer than the block area is drained: nothing lands in the caller's buffer.
    std::vector<unsigned char> big(SMBUS_BLOCK_MAX, 0xEE);
    adapter->replace(SMBUS_BLOCK_READ, [this](const Frame& f) {
        Payload p;
        p.bytes.assign(SMBUS_BLOCK_MAX + 10, 0x11);
        p.bytes[0] = 0;
        adapter->answer(f.command, p);
    });
    len = 5;
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x20, big.data(), &len, 0), -4);
    EXPECT_EQ(big[0], 0xEE);
    EXPECT_EQ(len, 5);
    unsigned char b;
    EXPECT_EQ(SMBUS_ReadByteProtocol(handle, 0, 0x16, 0x05, &b, 0), 0) << "the pipe stayed in step";
    EXPECT_EQ(b, 0x34);

    // Unsendable requests.
    EXPECT_EQ(SMBUS_BlockWrite(handle, 0, 0x16, 0x20, nullptr, 2, 0), SMBUS_ERR_ARGUMENT);
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x20, block, nullptr, 0), SMBUS_ERR_ARGUMENT);
    USB_CloseDevice(handle);
    EXPECT_EQ(SMBUS_BlockRead(handle, 0, 0x16, 0x20, block, &len, 0), -2);
    EXPECT_EQ(SMBUS_WriteByte(handle, 0, 0x16, 1, 0), -2);
}
