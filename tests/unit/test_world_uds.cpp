// The diagnostic ECU's world-file kind: what a bad [[can_uds_ecu]] table is refused
// with (where, and what was expected), and that every key it documents is accepted.
#include <gtest/gtest.h>

#include <string>

#include "world.h"

namespace {

using polybus_sim::world::parse_world;
using polybus_sim::world::WorldError;

// Two buses: a classic one and a CAN FD one (lines 1 to 15), then the ECU from line 16.
const char* kBench = R"([[adapter]]
name = "bench"
id = 0x53000001

[[can_bus]]
name = "classic"
bitrate = 500000
channels = ["bench:0"]

[[can_bus]]
name = "fd"
bitrate = 500000
data_bitrate = 2000000
channels = ["bench:1"]

)";
constexpr int kFirstLine = 16;

// The error an ECU table (after the bench) is refused with.
WorldError refusal(const std::string& ecu) {
    const std::string text = std::string(kBench) + ecu;
    try {
        parse_world(text, "/tmp/uds.toml");
    } catch (const WorldError& e) {
        return e;
    }
    ADD_FAILURE() << "accepted:\n" << ecu;
    return WorldError({}, "");
}

void expect_refused(const std::string& ecu, const std::string& message, int line = 0) {
    const WorldError e = refusal(ecu);
    EXPECT_NE(e.message().find(message), std::string::npos) << "expected \"" << message << "\" for\n"
                                                            << ecu << "got: " << e.what();
    if (line != 0) {
        EXPECT_EQ(e.where().line, kFirstLine + line - 1) << e.what();
    }
    EXPECT_EQ(e.where().file, "/tmp/uds.toml");
}

TEST(WorldUdsEcu, EveryDocumentedKeyIsAccepted) {
    const std::string ecu = R"([[can_uds_ecu]]
name = "engine"
bus = "fd"
extended = true
request_id = 0x18DA10F1
response_id = 0x18DAF110
addressing = "extended"
ecu_address = 0x10
tester_address = 0xF1
fd = true
brs = false
frame_len = 16
padding = 0x55
block_size = 8
st_min = 0xF9
fc_delay_us = 0
response_delay_us = 0
memory = [{ base = 0x08000000, size = 0x20000 }, { base = 0x20000000, size = 0x8000 }]
max_block_length = 0x0802
fc_wait = "forever"
fc_wait_interval_ms = 0.5
wrong_sequence_at = 3
oversized_single_frame = true
silent = true
[can_uds_ecu.identifiers]
F190 = { text = "WP0ZZZ99ZTS392124" }
0x0101 = { hex = "01 02 03 04" }
f1a0 = { length = 5000 }
1 = { length = 16, fill = 0xA5 }
2 = { length = 0 }

[[can_uds_ecu]]
bus = "classic"
)";
    EXPECT_NO_THROW(parse_world(std::string(kBench) + ecu, "/tmp/uds.toml"));
}

TEST(WorldUdsEcu, BusAndIdentifiersAreChecked) {
    expect_refused("[[can_uds_ecu]]\nrequest_id = 0x7E0\n", "missing key 'bus'");
    expect_refused("[[can_uds_ecu]]\nbus = \"body\"\n", "no [[can_bus]] named 'body'", 2);
    // A bus of channels only has no rate for the ECU to send at.
    const WorldError e = refusal("[[can_bus]]\nname = \"quiet\"\n\n[[can_uds_ecu]]\nbus = \"quiet\"\n");
    EXPECT_NE(e.message().find("bus 'quiet' has no bit rate"), std::string::npos) << e.what();

    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\nrequest_id = 0x800\n", "(set extended = true for a 29-bit", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\nextended = true\nresponse_id = 0x20000000\n",
                   "must be 0 to 0x1FFFFFFF", 4);
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\nresponse_id = 0x7E0\n", "identifiers of their own (both are 0x7E0)", 3);
    // The 29-bit defaults differ from each other too, but a given one may collide with them.
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\nextended = true\nrequest_id = 0x18DAF110\n",
                   "identifiers of their own");
}

TEST(WorldUdsEcu, AddressingAndFramesAreChecked) {
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\naddressing = \"mixed\"\n",
                   "'addressing' must be \"normal\" or \"extended\", not \"mixed\"", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\necu_address = 0x10\n", "'ecu_address' needs addressing", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\naddressing = \"extended\"\ntester_address = 256\n",
                   "'tester_address' must be between 0 and 255", 4);
    expect_refused("[[can_uds_ecu]]\nbus = \"classic\"\nfd = true\n", "bus 'classic' has none", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"fd\"\nbrs = true\n", "'brs' (bit-rate switch) needs fd = true", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"fd\"\nframe_len = 64\n", "classic frames hold 8 bytes", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"fd\"\nfd = true\nframe_len = 40\n", "must be a CAN FD frame length", 4);
    expect_refused("[[can_uds_ecu]]\nbus = \"fd\"\nfd = true\nframe_len = 65\n", "between 8 and 64", 4);
    expect_refused("[[can_uds_ecu]]\nbus = \"fd\"\nblock_size = 256\n", "'block_size' must be between 0 and 255", 3);
    expect_refused("[[can_uds_ecu]]\nbus = \"fd\"\ntimeout_ms = 100\n", "unknown key 'timeout_ms'", 3);
}

TEST(WorldUdsEcu, DataIdentifiersAreChecked) {
    const std::string head = "[[can_uds_ecu]]\nbus = \"classic\"\n[can_uds_ecu.identifiers]\n";
    struct Case {
        const char* entry;
        const char* message;
    } cases[] = {
        {"VIN = { text = \"X\" }", "identifier 'VIN' is not 1 to 4 hex digits"},
        {"12345 = { text = \"X\" }", "identifier '12345' is not 1 to 4 hex digits"},
        {"0x = { text = \"X\" }", "identifier '0x' is not"},
        {"F190 = \"WP0ZZZ\"", "identifier 0xF190 takes { hex"},
        {"F190 = { }", "needs exactly one of 'hex', 'text' and 'length'"},
        {"F190 = { text = \"A\", hex = \"41\" }", "needs exactly one of"},
        {"F190 = { hex = \"4G\" }", "'hex' must be hex bytes"},
        {"F190 = { hex = \"414\" }", "'hex' must be hex bytes"},
        {"F190 = { length = 1048577 }", "'length' must be between 0 and 1048576"},
        {"F190 = { length = 4, fill = 256 }", "'fill' must be between 0 and 255"},
        {"F190 = { hex = \"41\", fill = 1 }", "'fill' goes with 'length'"},
        {"F190 = { text = \"A\", colour = 1 }", "unknown key 'colour'"},
    };
    for (const Case& c : cases) expect_refused(head + c.entry + "\n", c.message, 4);
    // The same identifier written two ways is one identifier.
    expect_refused(head + "F190 = { text = \"A\" }\n0xf190 = { text = \"B\" }\n", "identifier 0xF190 is given twice", 5);
}

TEST(WorldUdsEcu, MemoryRegionsAreChecked) {
    const std::string head = "[[can_uds_ecu]]\nbus = \"classic\"\n";
    expect_refused(head + "memory = []\n", "needs at least one", 3);
    expect_refused(head + "memory = [0x08000000]\n", "a memory region is { base", 3);
    expect_refused(head + "memory = [{ base = 0x08000000, size = 0 }]\n", "'size' must be between 1 and 16777216", 3);
    expect_refused(head + "memory = [{ base = 0x100000000, size = 16 }]\n", "'base' must be between 0 and 4294967295", 3);
    expect_refused(head + "memory = [{ base = 0xFFFFFF00, size = 0x200 }]\n", "past the end of the 32-bit address space",
                   3);
    // Overlaps at either end, and one region inside another.
    for (const char* regions : {"{ base = 0x1000, size = 0x1000 }, { base = 0x1FFF, size = 16 }",
                                "{ base = 0x1000, size = 0x1000 }, { base = 0x0F00, size = 0x101 }",
                                "{ base = 0x1000, size = 0x1000 }, { base = 0x1100, size = 16 }"})
        expect_refused(head + "memory = [" + regions + "]\n", "memory regions overlap", 3);
    // Touching regions do not overlap.
    EXPECT_NO_THROW(parse_world(std::string(kBench) + head +
                                    "memory = [{ base = 0x1000, size = 0x1000 }, { base = 0x2000, size = 16 }]\n",
                                "/tmp/uds.toml"));
    expect_refused(head + "max_block_length = 2\n", "'max_block_length' must be between 3 and 65535", 3);
}

TEST(WorldUdsEcu, FaultsAreChecked) {
    const std::string head = "[[can_uds_ecu]]\nbus = \"classic\"\n";
    expect_refused(head + "fc_wait = -1\n", "'fc_wait' must be 0 to 1000 wait frames", 3);
    expect_refused(head + "fc_wait = \"always\"\n", "'fc_wait' is a number of wait frames or \"forever\"", 3);
    expect_refused(head + "fc_wait = true\n", "'fc_wait' is a number", 3);
    expect_refused(head + "fc_wait_interval_ms = 0\n", "'fc_wait_interval_ms' must be 0.1 to 10000", 3);
    expect_refused(head + "fc_wait = 2\nfc_overflow = true\n", "exclude each other", 4);
    expect_refused(head + "wrong_sequence_at = -2\n", "'wrong_sequence_at' must be between 0", 3);
}

}  // namespace
