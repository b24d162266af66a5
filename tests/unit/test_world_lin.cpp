// LIN world kinds: what a bad table is refused with, and where; good tables build.
#include <gtest/gtest.h>

#include <string>

#include "world.h"

namespace {

using polybus_sim::world::parse_world;
using polybus_sim::world::WorldError;

const char* kAdapter = R"([[adapter]]
name = "bench"
id = 0x41000001
)";

// The error a world (after the adapter above) is refused with; fails the test when
// the world is accepted.
WorldError refusal(const std::string& tables) {
    try {
        parse_world(std::string(kAdapter) + tables, "/tmp/lin.toml");
    } catch (const WorldError& e) {
        return e;
    }
    ADD_FAILURE() << "accepted:\n" << tables;
    return WorldError({}, "");
}

// Each refusal names the line of the offending value (the adapter takes lines 1-3).
void expect_refused(const std::string& tables, int line, const std::string& words) {
    const WorldError e = refusal(tables);
    EXPECT_EQ(e.where().line, line) << e.what();
    EXPECT_NE(e.message().find(words), std::string::npos) << "expected '" << words << "' in: " << e.what();
}

void expect_accepted(const std::string& tables) {
    try {
        parse_world(std::string(kAdapter) + tables, "/tmp/lin.toml");
    } catch (const WorldError& e) {
        ADD_FAILURE() << e.what();
    }
}

TEST(WorldLin, ChannelsAreLinChannelsOfDeclaredAdapters) {
    expect_refused("[[lin_slave]]\nchannel = \"bench:4\"\nframe = [{ id = 1, data = \"01\" }]\n", 5,
                   "LIN channels 0 to 3");
    expect_refused("[[lin_slave]]\nchannel = \"rig:0\"\nframe = [{ id = 1, data = \"01\" }]\n", 5, "no adapter named 'rig'");
    expect_refused("[[lin_diag_node]]\nchannel = 0\nnad = 1\n", 5, "adapter:N");
    expect_refused("[[flin_node]]\nchannel = \"bench:7\"\nreads = []\n", 5, "FLIN channels 0 to 3");
    expect_refused("[[lin_master]]\nframe = [{ id = 1 }]\n", 4, "missing key 'channel'");
}

TEST(WorldLin, SlaveFramesAreCheckedOneByOne) {
    const std::string head = "[[lin_slave]]\nname = \"door\"\nchannel = \"bench:0\"\n";  // lines 4-6
    expect_refused(head, 4, "lists its frames");
    expect_refused(head + "frame = [{ id = 64, data = \"01\" }]\n", 7, "between 0 and 63");
    expect_refused(head + "frame = [{ id = 1, data = \"01 02 03 04 05 06 07 08 09\" }]\n", 7, "1 to 8");
    expect_refused(head + "frame = [{ id = 1, data = \"0\" }]\n", 7, "hex bytes");
    expect_refused(head + "frame = [{ id = 1 }]\n", 7, "'data' or 'length'");
    expect_refused(head + "frame = [{ id = 1, data = \"01 02\", length = 3 }]\n", 7, "'length' is 3 but 'data' holds 2");
    expect_refused(head + "frame = [{ id = 1, data = \"01\", checksum = \"lin2\" }]\n", 7, "\"enhanced\" or \"classic\"");
    // The message names the node and the frame.
    expect_refused(head + "frame = [{ id = 0x21, data = \"01\", fault = \"late\" }]\n", 7,
                   "lin_slave 'door' frame 0x21: 'fault' must be");
    expect_refused(head + "frame = [{ id = 1, publish = false, fault = \"no_answer\" }]\n", 7, "frames the node publishes");
    expect_refused(head + "frame = [{ id = 1, data = \"01\", colour = 2 }]\n", 7, "colour");
    expect_refused(head + "frame = [1]\n", 7, "a frame is");
}

TEST(WorldLin, OneIdentifierHasOnePublisherPerChannel) {
    const std::string a = "[[lin_slave]]\nname = \"a\"\nchannel = \"bench:0\"\nframe = [{ id = 0x10, data = \"01\" }]\n";
    expect_refused(a + "[[lin_slave]]\nname = \"b\"\nchannel = \"bench:0\"\nframe = [{ id = 0x10, data = \"02\" }]\n", 11,
                   "already published by lin_slave 'a'");
    // Within one node too.
    expect_refused("[[lin_slave]]\nchannel = \"bench:1\"\nframe = [{ id = 5, data = \"01\" }, { id = 5, length = 2 }]\n", 6,
                   "already published");
    // Another channel, or a listener of the identifier, is no conflict.
    expect_accepted(a + "[[lin_slave]]\nchannel = \"bench:1\"\nframe = [{ id = 0x10, data = \"02\" }]\n" +
                    "[[lin_slave]]\nchannel = \"bench:0\"\nframe = [{ id = 0x10, publish = false }]\n");
}

TEST(WorldLin, DiagnosticNodes) {
    const std::string head = "[[lin_diag_node]]\nchannel = \"bench:0\"\n";  // lines 4-5
    expect_refused(head, 4, "missing key 'nad'");
    expect_refused(head + "nad = 0\n", 6, "between 1 and 126");
    expect_refused(head + "nad = 0x7F\n", 6, "between 1 and 126");
    expect_refused(head + "nad = 2\nrequest_id = 0x3D\n", 7, "must differ");
    expect_refused(head + "nad = 2\necho_sid = 0x22\n", 7, "ReadDataByIdentifier");
    expect_refused(head + "nad = 2\nidentifier = [{ id = 0x10000, data = \"01\" }]\n", 7, "between 0 and 65535");
    expect_refused(head + "nad = 2\nidentifier = [{ id = 1 }]\n", 7, "one of 'data'");
    expect_refused(head + "nad = 2\nidentifier = [{ id = 1, data = \"01\", length = 4 }]\n", 7, "one of 'data'");
    expect_refused(head + "nad = 2\nidentifier = [{ id = 1, length = 4093 }]\n", 7, "between 0 and 4092");
    expect_refused(head + "nad = 2\nidentifier = [{ id = 1, text = \"" + std::string(4093, 'x') + "\" }]\n", 7,
                   "at most 4092");
    expect_refused(head + "nad = 2\nidentifier = [{ id = 1, data = \"01\" }, { id = 1, text = \"A\" }]\n", 7,
                   "0x0001 is listed twice");
    // NADs are per channel.
    expect_refused(head + "nad = 2\n" + head + "nad = 2\n", 9, "NAD 0x02 on bench:0 is taken");
    expect_accepted(head + "nad = 2\nidentifier = [{ id = 0xF190, text = \"VIN\" }, { id = 1, length = 4092 }]\n" +
                    "[[lin_diag_node]]\nchannel = \"bench:1\"\nnad = 2\n");
}

TEST(WorldLin, MastersAndTheirFrames) {
    const std::string head = "[[lin_master]]\nchannel = \"bench:1\"\n";  // lines 4-5
    expect_refused(head, 4, "lists what it sends");
    expect_refused(head + "frame = [{ period_ms = 10 }]\n", 6, "missing key 'id'");
    expect_refused(head + "frame = [{ id = 1, period_ms = 0 }]\n", 6, "'period_ms' must be 0.1 to 3600000");
    expect_refused(head + "frame = [{ id = 1, offset_ms = -1 }]\n", 6, "'offset_ms' must be 0 to");
    expect_refused(head + "frame = [{ id = 1, count = 0 }]\n", 6, "between 1 and");
    expect_refused(head + "frame = [{ id = 1, break_bits = 40 }]\n", 6, "between 10 and 26");
    expect_refused(head + "frame = [{ id = 1, checksum = \"classic\" }]\n", 6, "frames the master publishes");
    expect_refused(head + "frame = [{ id = 1, data = \"01\", wrong_parity = true }]\n", 6, "headers a slave answers");
    expect_refused(head + "frame = [{ break_only = true, id = 3 }]\n", 6, "bare break");
    // One master per bus.
    expect_refused(head + "frame = [{ id = 1 }]\n" + head + "frame = [{ id = 2 }]\n", 8, "has a master already");
    expect_accepted(head + "start_ms = 5\nframe = [{ id = 1, period_ms = 20 }, { id = 2, data = \"01 02\", checksum = "
                           "\"classic\", count = 3 }, { break_only = true, period_ms = 50 }, { id = 3, wrong_parity = "
                           "true }]\n");
}

TEST(WorldLin, AdapterSettingsAndFlinReads) {
    const std::string head = "[[lin_adapter]]\nadapter = \"bench\"\n";  // lines 4-5
    expect_refused("[[lin_adapter]]\nadapter = \"rig\"\n", 5, "no adapter named 'rig'");
    expect_refused(head + "battery_mv = 70000\n", 6, "between 0 and 65535");
    expect_refused(head + "result_kind = 7\n", 6, "8 (checksum counted as data) or 9");
    expect_refused(head + "result_kind = [8, 9]\n", 6, "a list of four");
    expect_refused(head + "time_scale = -1\n", 6, "'time_scale' must be 0");
    expect_refused(head + head, 7, "has a [[lin_adapter]] already");
    expect_refused("[[flin_node]]\nchannel = \"bench:0\"\n", 4, "missing key 'reads'");
    expect_refused("[[flin_node]]\nchannel = \"bench:0\"\nreads = [\"01\", \"\"]\n", 6, "hex bytes");
    expect_accepted(head + "battery_mv = 13800\nresult_kind = [8, 9, 9, 8]\ntime_scale = 0\n" +
                    "[[flin_node]]\nchannel = \"bench:2\"\nreads = [\"01 02\", \"03\"]\n");
}

}  // namespace
