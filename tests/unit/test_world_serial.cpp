// World files for the serial buses: what the I2C, SPI, UART and event-pin kinds refuse
// (with the position of the offending value), and the collisions they catch between
// tables that would otherwise answer the same transfer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

#include "world.h"

namespace {

using polybus_sim::world::load_world;
using polybus_sim::world::parse_world;
using polybus_sim::world::WorldError;

const char* kAdapter = R"(
[[adapter]]
name = "bench"
id = 0x41000001
)";
constexpr int kAdapterLines = 4;

class SerialWorlds : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/polybus-serial-world-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        std::ofstream(dir + "/image.bin", std::ios::binary) << std::string(300, '\x5A');
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

    WorldError refusal(const std::string& tables) {
        try {
            parse_world(kAdapter + tables, dir + "/world.toml");
        } catch (const WorldError& e) {
            return e;
        }
        ADD_FAILURE() << "accepted:\n" << tables;
        return WorldError({}, "");
    }
    void expect_accepted(const std::string& tables) {
        try {
            EXPECT_EQ(parse_world(kAdapter + tables, dir + "/world.toml").adapter_count(), 1u);
        } catch (const WorldError& e) {
            ADD_FAILURE() << e.what() << "\n" << tables;
        }
    }
    struct Case {
        const char* tables;
        const char* expected;
        int line;  // of the offending value, counted within `tables` (0: not checked)
    };
    void check(std::initializer_list<Case> cases) {
        for (auto& c : cases) {
            WorldError e = refusal(c.tables);
            EXPECT_NE(e.message().find(c.expected), std::string::npos) << c.tables << "\n=> " << e.what();
            if (c.line) {
                EXPECT_EQ(e.where().line, kAdapterLines + c.line) << c.tables << "\n=> " << e.what();
            }
        }
    }

    std::string dir;
};

TEST_F(SerialWorlds, EepromsCheckTheirGeometryAndContents) {
    check({
        {"[[i2c_eeprom]]\nchannel = \"bench:2\"\n", "I2C channels 0 to 1", 2},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 3000\n", "power of two", 3},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 256\npage_size = 12\n", "'page_size' must be a power of two", 4},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 128\npage_size = 256\n", "up to 'size'", 4},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\naddress = 0x80\n", "between 0 and 127", 3},
        // A 2 KiB device takes eight device addresses: from 0x7C they run past 0x7F.
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\naddress = 0x7C\nsize = 2048\n", "takes 8 addresses", 3},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\ncontents = \"missing.bin\"\n", "cannot read", 3},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 256\ncontents = \"image.bin\"\n", "holds 300 bytes", 4},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 512\noffset = 300\ncontents = \"image.bin\"\n",
         "only 212 fit", 5},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\ndata = \"0G\"\n", "must be hex bytes", 3},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 128\noffset = 126\ndata = \"01 02 03\"\n", "at most 2 fit", 5},
        {"[[i2c_eeprom]]\nchannel = \"bench:0\"\npagesize = 16\n", "unknown key", 0},
    });
    // The same geometry fits where the file is read from, and 10-bit addresses go past 0x7F.
    expect_accepted("[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 512\noffset = 200\ncontents = \"image.bin\"\n"
                    "[[i2c_eeprom]]\nchannel = \"bench:0\"\nten_bit = true\naddress = 0x3A0\nsize = 32768\n"
                    "page_size = 64\nwrite_cycle_us = 0\n");
}

TEST_F(SerialWorlds, DevicesOnAChannelNeverShareAnAddress) {
    // A 1 KiB EEPROM at 0x50 also answers 0x51..0x53.
    WorldError e = refusal("[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 1024\n"
                           "[[smbus_device]]\nchannel = \"bench:0\"\naddress = 0x53\n");
    EXPECT_NE(e.message().find("address 0x53 on bench:0 is already taken by i2c_eeprom at 0x50"), std::string::npos)
        << e.what();
    EXPECT_EQ(e.where().line, kAdapterLines + 6);
    e = refusal("[[smbus_device]]\nchannel = \"bench:1\"\nten_bit = true\naddress = 0x16\n"
                "[[smbus_device]]\nchannel = \"bench:1\"\nten_bit = true\naddress = 0x16\n");
    EXPECT_NE(e.message().find("already taken"), std::string::npos) << e.what();
    // Other channels and the other address width are separate address spaces.
    expect_accepted("[[i2c_eeprom]]\nchannel = \"bench:0\"\nsize = 1024\n"
                    "[[i2c_eeprom]]\nchannel = \"bench:1\"\nsize = 1024\n"
                    "[[smbus_device]]\nchannel = \"bench:0\"\nten_bit = true\naddress = 0x51\n");
}

TEST_F(SerialWorlds, SmbusRegistersAreCommandCodesWithValuesThatFit) {
    check({
        {"[[smbus_device]]\nchannel = \"bench:0\"\nwords = { 0x100 = 1 }\n", "'0x100' in 'words' is not a command code", 3},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nwords = { status = 1 }\n", "not a command code", 3},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nwords = { 0x10 = 0x10000 }\n", "0 to 0xFFFF", 3},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nbytes = { 0x10 = 256 }\n", "0 to 0xFF", 3},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nwords = { 0x10 = 1 }\nbytes = { 0x10 = 2 }\n",
         "command 0x10 is set in both", 4},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nblocks = { 0x20 = \"zz\" }\n", "a block is hex bytes", 3},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nblocks = { 0x20 = \"000102030405060708090A0B0C0D0E0F"
         "101112131415161718191A1B1C1D1E1F20\" }\n",
         "at most 32 bytes", 3},
        {"[[smbus_device]]\nchannel = \"bench:0\"\nwords = 5\n", "'words' must be a table", 3},
    });
}

TEST_F(SerialWorlds, SlaveModeMastersNeedStepsThatDoSomething) {
    check({
        {"[[i2c_master]]\nchannel = \"bench:0\"\n", "at least one [[i2c_master.step]]", 1},
        {"[[i2c_master]]\nchannel = \"bench:0\"\n[[i2c_master.step]]\nat_ms = 5\n", "writes bytes", 3},
        {"[[i2c_master]]\nchannel = \"bench:0\"\n[[i2c_master.step]]\nread = 2\ncount = 3\n", "needs a 'period_ms'", 5},
        {"[[i2c_master]]\nchannel = \"bench:0\"\n[[i2c_master.step]]\nread = 2\nperiod_ms = 0.01\n", "0.1 or more", 5},
        {"[[i2c_master]]\nchannel = \"bench:0\"\n[[i2c_master.step]]\nat_ms = -1\nread = 1\n", "'at_ms' must be 0", 4},
        {"[[i2c_master]]\nchannel = \"bench:0\"\n[[i2c_master.step]]\nwrite = \"01\"\nwhen = 3\n", "unknown key", 0},
    });
    expect_accepted("[[i2c_master]]\nchannel = \"bench:1\"\n[[i2c_master.step]]\nat_ms = 20\nwrite = \"01 02\"\n"
                    "[[i2c_master.step]]\nat_ms = 50\nread = 4\nperiod_ms = 10\ncount = 0\n");
}

TEST_F(SerialWorlds, SpiPortsHoldOneDeviceAndOneMaster) {
    check({
        {"[[spi_flash]]\nport = \"bench:2\"\n", "SPI ports 0 to 1", 2},
        {"[[spi_flash]]\nport = \"bench:0\"\n[[spi_shift_register]]\nport = \"bench:0\"\n",
         "SPI port bench:0 already has a device: spi_flash on bench:0", 4},
        {"[[spi_master]]\nport = \"bench:1\"\n[[spi_master]]\nport = \"bench:1\"\n", "already has a master", 4},
        {"[[spi_flash]]\nport = \"bench:0\"\nsize = 3145728\n", "'size' must be a power of two", 3},
        {"[[spi_flash]]\nport = \"bench:0\"\nsize = 33554432\naddress_bytes = 3\n", "needs four", 4},
        {"[[spi_flash]]\nport = \"bench:0\"\npage_size = 8192\n", "no larger than 'sector_size'", 3},
        {"[[spi_flash]]\nport = \"bench:0\"\nsector_size = 65536\nblock_size = 4096\n", "no smaller than", 4},
        {"[[spi_flash]]\nport = \"bench:0\"\njedec_id = \"\"\n", "at least one byte", 3},
        {"[[spi_flash]]\nport = \"bench:0\"\njedec_id = \"01 02 03 04 05 06 07 08 09\"\n", "at most 8 fit", 3},
        {"[[spi_master]]\nport = \"bench:0\"\nbytes_per_second = 0\n", "1 to 100000000", 3},
        {"[[spi_master]]\nport = \"bench:0\"\npattern = \"ABC\"\n", "must be hex bytes", 3},
    });
    // A master streams into the slave port of the same port a device sits on in master mode.
    expect_accepted("[[spi_flash]]\nport = \"bench:0\"\nsize = 4096\nsector_size = 4096\ncontents = \"image.bin\"\n"
                    "[[spi_master]]\nport = \"bench:0\"\nbytes_per_second = 1e7\npattern = \"00 11\"\n"
                    "[[spi_shift_register]]\nport = \"bench:1\"\ndepth = 3\n");
}

TEST_F(SerialWorlds, UartPeersTakeOnlyTheKeysOfTheirMode) {
    check({
        {"[[uart_peer]]\nport = \"bench:4\"\nmode = \"echo\"\n", "UART ports 0 to 3", 2},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"loopback\"\n", "'mode' must be", 3},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"echo\"\n[[uart_peer]]\nport = \"bench:0\"\nmode = \"silent\"\n",
         "already has a peer", 5},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"echo\"\nstream = \"hi\"\n", "belongs to mode = \"stream\"", 4},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"stream\"\nreply_delay_us = 5\n", "belongs to mode", 4},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"echo\"\n[[uart_peer.answer]]\nexpect = \"x\"\nreply = \"y\"\n",
         "belongs to mode = \"script\"", 0},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"script\"\n", "at least one [[uart_peer.answer]]", 1},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"script\"\n[[uart_peer.answer]]\nreply = \"OK\"\n",
         "needs 'expect'", 0},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"script\"\n[[uart_peer.answer]]\nexpect = \"AT\"\n",
         "needs 'reply'", 0},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"stream\"\n", "needs 'stream'", 1},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"stream\"\nstream = \"a\"\nstream_hex = \"61\"\n", "not both", 5},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"stream\"\nstream = \"0123456789\"\nrepeat = 200000\n",
         "the stream would be 2000000 bytes", 5},
        {"[[uart_peer]]\nport = \"bench:0\"\nmode = \"echo\"\nbaud = 100\n", "300 to 12000000", 4},
    });
    expect_accepted("[[uart_peer]]\nport = \"bench:0\"\nmode = \"script\"\nreply_delay_us = 100\n"
                    "[[uart_peer.answer]]\nexpect = \"AT\\r\"\nreply = \"OK\\r\\n\"\n"
                    "[[uart_peer.answer]]\nexpect_hex = \"00 FF\"\nreply_hex = \"\"\n"
                    "[[uart_peer]]\nport = \"bench:3\"\nmode = \"stream\"\nstream_hex = \"55 AA\"\nrepeat = 10\n"
                    "baud = 9600\nstart_ms = 50\n");
}

TEST_F(SerialWorlds, PinEventsArePulsesWhenTheyRepeat) {
    check({
        {"[[pin_event]]\npin = \"bench:3\"\nlevel = \"up\"\n", "\"high\" or \"low\"", 3},
        {"[[pin_event]]\npin = \"bench:3\"\nlevel = \"low\"\nperiod_ms = 10\n", "give 'pulse_us'", 4},
        {"[[pin_event]]\npin = \"bench:3\"\nlevel = \"low\"\nperiod_ms = 1\npulse_us = 1000\n", "shorter than", 5},
        {"[[pin_event]]\npin = \"bench:3\"\nlevel = \"low\"\ncount = 4\n", "needs a 'period_ms'", 4},
    });
    expect_accepted("[[pin_event]]\npin = \"bench:3\"\nlevel = \"low\"\nat_ms = 30\npulse_us = 200\nperiod_ms = 5\n");
}

TEST(SerialWorldExamples, ShippedWorldsAreAccepted) {
    for (const char* name : {"eeprom", "spi_flash", "uart_echo"}) {
        const std::string path = std::string(POLYBUS_SOURCE_DIR) + "/examples/worlds/" + name + ".toml";
        try {
            EXPECT_EQ(load_world(path).adapter_count(), 1u) << name;
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
    }
}

}  // namespace
