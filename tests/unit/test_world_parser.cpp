// World files: what a bad file is refused with (file, line, column, what was expected),
// and that the shipped examples and the README's example are accepted.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "world.h"

namespace {

using polybus_sim::world::load_world;
using polybus_sim::world::parse_world;
using polybus_sim::world::WorldError;

// A scratch directory for worlds and the files they name.
class WorldFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/polybus-world-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

    std::string write(const std::string& name, const std::string& text) {
        const std::string path = dir + "/" + name;
        std::ofstream(path) << text;
        return path;
    }

    // The error a world text is refused with ("" when it is accepted).
    WorldError refusal(const std::string& text) {
        try {
            parse_world(text, dir + "/world.toml");
        } catch (const WorldError& e) {
            return e;
        }
        ADD_FAILURE() << "accepted:\n" << text;
        return WorldError({}, "");
    }

    std::string dir;
};

const char* kAdapters = R"(
[[adapter]]
name = "bench"
id = 0x41000001

[[adapter]]
name = "logger"
id = 0x53000002
)";

const char* kDbc = R"(VERSION ""
BO_ 256 EngineData: 8 Engine
 SG_ EngineSpeed : 0|16@1+ (0.25,0) [0|16383.75] "rpm" Bench
 SG_ Alive : 56|4@1+ (1,0) [0|15] "" Bench
BO_ 768 Command: 2 Bench
 SG_ Target : 0|16@1+ (1,0) [0|2000] "" Engine
BA_DEF_ BO_ "GenMsgCycleTime" INT 0 10000;
BA_DEF_DEF_ "GenMsgCycleTime" 0;
BA_ "GenMsgCycleTime" BO_ 256 20;
)";

TEST_F(WorldFiles, SyntaxAndStructureErrorsAreLocated) {
    // toml++'s own message, at the offending position.
    WorldError e = refusal("[[adapter]]\nname = \"bench\nid = 1\n");
    EXPECT_EQ(e.where().file, dir + "/world.toml");
    EXPECT_EQ(e.where().line, 2);
    EXPECT_GT(e.where().column, 1);
    EXPECT_NE(std::string(e.what()).find(dir + "/world.toml:2:"), std::string::npos) << e.what();

    e = refusal(std::string(kAdapters) + "\n[[can_buss]]\nname = \"x\"\n");
    EXPECT_EQ(e.where().line, 10);
    EXPECT_EQ(e.where().column, 3);
    EXPECT_NE(e.message().find("unknown key 'can_buss'"), std::string::npos) << e.what();
    EXPECT_NE(e.message().find("can_bus"), std::string::npos) << "the message lists the kinds";

    e = refusal("[[adapter]]\nname = \"bench\"\nid = 0x41000001\ncolour = \"blue\"\n");
    EXPECT_EQ(e.where().line, 4);
    EXPECT_EQ(e.where().column, 1);
    EXPECT_NE(e.message().find("unknown key 'colour'"), std::string::npos) << e.what();

    e = refusal("adapter = 3\n");
    EXPECT_NE(e.message().find("[[adapter]]"), std::string::npos) << e.what();

    e = refusal("# nothing\n");
    EXPECT_NE(e.message().find("at least one [[adapter]]"), std::string::npos) << e.what();
}

TEST_F(WorldFiles, AdapterFieldsAreChecked) {
    WorldError e = refusal("[[adapter]]\nname = \"bench\"\nid = \"0x41\"\n");
    EXPECT_EQ(e.where().line, 3);
    EXPECT_NE(e.message().find("'id' must be an integer, not a string"), std::string::npos) << e.what();

    e = refusal("[[adapter]]\nid = 0x41000001\n");
    EXPECT_NE(e.message().find("missing key 'name'"), std::string::npos) << e.what();

    e = refusal("[[adapter]]\nname = \"a\"\nid = 0xFF000001\n");
    EXPECT_NE(e.message().find("'id' must be between"), std::string::npos) << e.what();

    e = refusal(std::string(kAdapters) + "[[adapter]]\nname = \"bench\"\nid = 0x41000009\n");
    EXPECT_EQ(e.where().line, 10);
    EXPECT_NE(e.message().find("declared twice"), std::string::npos) << e.what();

    e = refusal(std::string(kAdapters) + "[[adapter]]\nname = \"third\"\nid = 0x53000002\n");
    EXPECT_NE(e.message().find("identifier already used by adapter 'logger'"), std::string::npos) << e.what();

    for (const char* bad : {"firmware = \"1.5\"", "firmware = \"1.256.0\"", "manufacturer = \"acme\"", "speed = \"low\"",
                            "product = 0x1234", "address = 128"}) {
        e = refusal(std::string("[[adapter]]\nname = \"a\"\nid = 1\n") + bad + "\n");
        EXPECT_EQ(e.where().line, 4) << bad << ": " << e.what();
    }
}

TEST_F(WorldFiles, BusesRefuseDisagreeingRatesAndBadChannels) {
    WorldError e = refusal(std::string(kAdapters) + R"(
[[can_bus]]
name = "powertrain"
channels = [{ channel = "bench:0", bitrate = 500000 },
            { channel = "logger:1", bitrate = 250000 }]
)");
    EXPECT_EQ(e.where().line, 13);
    EXPECT_EQ(e.where().column, 13);
    EXPECT_NE(e.message().find("bus 'powertrain' has channels at 500000 and 250000 bit/s"), std::string::npos)
        << e.what();

    // The bus's own rate counts too; within 1 % is the same rate.
    e = refusal(std::string(kAdapters) + R"(
[[can_bus]]
name = "powertrain"
bitrate = 500000
channels = [{ channel = "bench:0", bitrate = 496000 }, { channel = "bench:1", bitrate = 125000 }]
)");
    EXPECT_NE(e.message().find("500000 and 125000"), std::string::npos) << e.what();

    struct Case {
        const char* channels;
        const char* expected;
    } cases[] = {
        {R"(["nobody:0"])", "no adapter named 'nobody'"},
        {R"(["bench:2"])", "has CAN channels 0 to 1"},
        {R"(["bench"])", "is not \"adapter:N\""},
        {R"([5])", "a channel is \"adapter:channel\" or"},
        {R"(["bench:0", "bench:0"])", "already on bus 'b'"},
        {R"([{ channel = "bench:0", rate = 5 }])", "unknown key 'rate'"},
    };
    for (auto& c : cases) {
        e = refusal(std::string(kAdapters) + "[[can_bus]]\nname = \"b\"\nchannels = " + c.channels + "\n");
        EXPECT_EQ(e.where().line, 11) << c.channels;
        EXPECT_NE(e.message().find(c.expected), std::string::npos) << c.channels << ": " << e.what();
    }

    e = refusal(std::string(kAdapters) + "[[can_bus]]\nname = \"b\"\nchannels = [\"bench:0\"]\n[[can_bus]]\nname = "
                                         "\"c\"\nchannels = [\"logger:0\", \"bench:0\"]\n");
    EXPECT_NE(e.message().find("channel bench:0 is already on bus 'b'"), std::string::npos) << e.what();

    e = refusal(std::string(kAdapters) + "[[can_bus]]\nname = \"b\"\nbitrate = 3000\n");
    EXPECT_NE(e.message().find("'bitrate' must be between 5000 and 1000000"), std::string::npos) << e.what();
}

TEST_F(WorldFiles, DbcPeersCheckTheirFileMessagesAndSignals) {
    write("engine.dbc", kDbc);
    const std::string head = std::string(kAdapters) + "[[can_bus]]\nname = \"pt\"\nbitrate = 500000\nchannels = "
                                                      "[\"bench:0\"]\n[[can_dbc_peer]]\nbus = \"pt\"\n";
    // line 15 is the first line after `head`
    WorldError e = refusal(head + "dbc = \"missing.dbc\"\n");
    EXPECT_EQ(e.where().line, 15);
    EXPECT_NE(e.message().find("DBC file not found: " + dir + "/missing.dbc"), std::string::npos) << e.what();

    write("broken.dbc", "BO_ 256 A: 8 X\n SG_ S : 0|16@1+ (0.25,0) [0|1] \"\" Y\n SG_ T : 0|16@3+ (1,0) [0|1] \"\" Y\n");
    e = refusal(head + "dbc = \"broken.dbc\"\n");
    EXPECT_NE(e.message().find(dir + "/broken.dbc:3: malformed SG_ line"), std::string::npos) << e.what();

    write("wide.dbc", "BO_ 256 A: 2 X\n SG_ S : 8|16@1+ (1,0) [0|1] \"\" Y\nBA_ \"GenMsgCycleTime\" BO_ 256 10;\n");
    e = refusal(head + "dbc = \"wide.dbc\"\n");
    EXPECT_NE(e.message().find("wide.dbc:2: signal 'S' does not fit in message 'A' (2 bytes)"), std::string::npos)
        << e.what();

    e = refusal(head + "dbc = \"engine.dbc\"\nmessages = [\"Command\"]\n");
    EXPECT_EQ(e.where().line, 16);
    EXPECT_NE(e.message().find("message 'Command' has no GenMsgCycleTime"), std::string::npos) << e.what();

    e = refusal(head + "dbc = \"engine.dbc\"\nmessages = [\"Nope\"]\n");
    EXPECT_NE(e.message().find("no message 'Nope'"), std::string::npos) << e.what();

    e = refusal(head + "dbc = \"engine.dbc\"\n[can_dbc_peer.signals]\nEngineSped = 5\n");
    EXPECT_EQ(e.where().line, 17);
    EXPECT_NE(e.message().find("no signal 'EngineSped'"), std::string::npos) << e.what();

    // A signal of a message the peer does not send is not there either.
    e = refusal(head + "dbc = \"engine.dbc\"\n[can_dbc_peer.signals]\nTarget = 5\n");
    EXPECT_NE(e.message().find("no signal 'Target'"), std::string::npos) << e.what();

    struct Case {
        const char* value;
        const char* expected;
    } waves[] = {
        {"{ wave = \"square\" }", "'wave' must be \"ramp\", \"sine\" or \"counter\""},
        {"{ wave = \"ramp\", period_ms = 0 }", "'period_ms' must be 1 or more"},
        {"{ wave = \"sine\", amplitude = 3 }", "unknown key 'amplitude'"},
        {"{ from = 1 }", "missing key 'wave'"},
        {"\"fast\"", "takes a number or"},
        {"{ wave = \"counter\", step = 0 }", "'step' must be between 1"},
    };
    for (auto& w : waves) {
        e = refusal(head + "dbc = \"engine.dbc\"\n[can_dbc_peer.signals]\n\"EngineData.EngineSpeed\" = " + w.value + "\n");
        EXPECT_EQ(e.where().line, 17) << w.value;
        EXPECT_NE(e.message().find(w.expected), std::string::npos) << w.value << ": " << e.what();
    }

    // Peers need the bus's rate, and a bus that exists.
    e = refusal(std::string(kAdapters) + "[[can_bus]]\nname = \"pt\"\nchannels = [\"bench:0\"]\n[[can_dbc_peer]]\nbus = "
                                         "\"pt\"\ndbc = \"engine.dbc\"\n");
    EXPECT_NE(e.message().find("bus 'pt' has no bit rate"), std::string::npos) << e.what();
    e = refusal(std::string(kAdapters) + "[[can_peer]]\nbus = \"nowhere\"\n");
    EXPECT_NE(e.message().find("no [[can_bus]] named 'nowhere'"), std::string::npos) << e.what();
}

TEST_F(WorldFiles, ReplayAndGenericPeersCheckTheirInput) {
    const std::string head = std::string(kAdapters) + "[[can_bus]]\nname = \"pt\"\nbitrate = 500000\nchannels = "
                                                      "[\"bench:0\"]\n";
    WorldError e = refusal(head + "[[can_replay]]\nbus = \"pt\"\nlog = \"none.log\"\n");
    EXPECT_NE(e.message().find("log file not found"), std::string::npos) << e.what();

    write("bad.log", "(1.000000) can0 123#00\n(1.000100) can0 12#00\n");
    e = refusal(head + "[[can_replay]]\nbus = \"pt\"\nlog = \"bad.log\"\n");
    EXPECT_NE(e.message().find("bad.log:2: identifier must be 3 (11-bit) or 8 (29-bit) hex digits"), std::string::npos)
        << e.what();

    write("fd.log", "(1.000000) can0 123##1001122334455667788990011\n");
    e = refusal(head + "[[can_replay]]\nbus = \"pt\"\nlog = \"fd.log\"\n");
    EXPECT_NE(e.message().find("CAN FD frames but bus 'pt' has no data_bitrate"), std::string::npos) << e.what();

    write("back.log", "(2.000000) can0 123#00\n(1.000000) can0 123#00\n");
    e = refusal(head + "[[can_replay]]\nbus = \"pt\"\nlog = \"back.log\"\n");
    EXPECT_NE(e.message().find("go backwards at frame 2"), std::string::npos) << e.what();

    write("other.log", "(1.000000) can0 123#00\n");
    e = refusal(head + "[[can_replay]]\nbus = \"pt\"\nlog = \"other.log\"\ninterface = \"can1\"\n");
    EXPECT_NE(e.message().find("no frames to replay"), std::string::npos) << e.what();

    struct Case {
        const char* table;
        const char* expected;
    } peers[] = {
        {"echo = [\"0x123\"]", "an echo entry is"},
        {"echo = [0x20000000]", "identifier out of range"},
        {"[[can_peer.answer]]\nrequest = 0x7E0\nreply = 0x800\n", "'reply' must be 0 to 0x7FF (set extended = true"},
        {"[[can_peer.answer]]\nrequest = 0x7E0\nreply = 0x7E8\ndata = \"0G\"\n", "'data' must be hex bytes"},
        {"[[can_peer.send]]\nid = 1\ndata = \"00 11 22 33 44 55 66 77 88\"\n", "'data' holds 9 bytes, at most 8 fit"},
        {"[[can_peer.send]]\nid = 1\nfd = true\n", "CAN FD frames need a bus with a data_bitrate"},
        {"[[can_peer.send]]\nid = 1\nperiod_ms = 0\n", "'period_ms' must be 0.1 to 3600000"},
        {"acknowledge = \"no\"", "'acknowledge' must be true or false, not a string"},
    };
    for (auto& p : peers) {
        e = refusal(head + "[[can_peer]]\nbus = \"pt\"\n" + p.table + "\n");
        EXPECT_NE(e.message().find(p.expected), std::string::npos) << p.table << ": " << e.what();
    }
}

TEST_F(WorldFiles, GpioAndFaultsAreChecked) {
    struct Case {
        const char* tables;
        const char* expected;
    } cases[] = {
        {"[[gpio]]\nadapter = \"bench\"\nhigh = [32]\n", "pins are numbers from 0 to 31"},
        {"[[gpio]]\nadapter = \"bench\"\nhigh = [1]\nlow = [1, 2]\n", "both high and low"},
        {"[[gpio]]\nadapter = \"ghost\"\n", "no adapter named 'ghost'"},
        {"[[gpio_wire]]\npins = [\"bench:1\"]\n", "at least two pins"},
        {"[[gpio_wire]]\npins = [\"bench:1\", \"bench:40\"]\n", "has pins 0 to 31"},
        {"[[gpio_wire]]\npins = [\"bench:1\", \"bench:2\"]\n[[gpio_wire]]\npins = [\"logger:1\", \"bench:2\"]\n",
         "pin bench:2 is already on a wire"},
        {"[[fault]]\nadapter = \"bench\"\nfault = \"explode\"\nnth = 1\ncommand = 1\n", "unknown fault 'explode'"},
        {"[[fault]]\nadapter = \"bench\"\nfault = \"garbage\"\n", "give either nth (with command) or at_ms"},
        {"[[fault]]\nadapter = \"bench\"\nfault = \"garbage\"\nnth = 2\nat_ms = 5\ncommand = 1\n", "give either nth"},
        {"[[fault]]\nadapter = \"bench\"\nfault = \"garbage\"\nnth = 2\n", "give 'command' too"},
        {"[[fault]]\nadapter = \"bench\"\nfault = \"short\"\nat_ms = -1\n", "'at_ms' must be 0 or more"},
    };
    for (auto& c : cases) {
        WorldError e = refusal(std::string(kAdapters) + c.tables);
        EXPECT_NE(e.message().find(c.expected), std::string::npos) << c.tables << ": " << e.what();
        EXPECT_GE(e.where().line, 9) << c.tables;
    }
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(WorldExamples, ShippedWorldsAndTheReadmeExampleAreAccepted) {
    const std::string root = POLYBUS_SOURCE_DIR;
    for (const char* name : {"two_adapters", "faults", "wiring", "replay"}) {
        const std::string path = root + "/examples/worlds/" + name + ".toml";
        try {
            EXPECT_GE(load_world(path).adapter_count(), 1u) << name;
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
    }
    // The README's complete example, read as if it were a file at the top of the tree.
    const std::string readme = read_file(root + "/README.md");
    const size_t begin = readme.find("```toml\n");
    ASSERT_NE(begin, std::string::npos);
    const size_t end = readme.find("```", begin + 8);
    ASSERT_NE(end, std::string::npos);
    try {
        EXPECT_EQ(parse_world(readme.substr(begin + 8, end - begin - 8), root + "/README.md").adapter_count(), 2u);
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
    }
}

// The launcher refuses a bad world before the program starts: located message, status 2.
TEST_F(WorldFiles, LauncherRefusesBadWorldsBeforeStartingTheProgram) {
    const std::string world = write("bad.toml", std::string(kAdapters) +
                                                    "[[can_bus]]\nname = \"powertrain\"\nchannels = [{ channel = "
                                                    "\"bench:0\", bitrate = 500000 }, { channel = \"bench:1\", bitrate = "
                                                    "250000 }]\n");
    const std::string marker = dir + "/started";
    const std::string command = std::string(POLYBUS_SIM_LAUNCHER) + " --world " + world + " -- /bin/sh -c 'touch " +
                                marker + "' 2>" + dir + "/stderr";
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "the program must not start";
    const std::string err = read_file(dir + "/stderr");
    EXPECT_NE(err.find(world + ":11:"), std::string::npos) << err;
    EXPECT_NE(err.find("bus 'powertrain' has channels at 500000 and 250000 bit/s"), std::string::npos) << err;

    // A world file that is not there, and --world mixed with the other adapter options.
    EXPECT_EQ(WEXITSTATUS(std::system((std::string(POLYBUS_SIM_LAUNCHER) + " --world " + dir +
                                       "/none.toml -- /bin/true 2>/dev/null")
                                          .c_str())),
              2);
    EXPECT_EQ(WEXITSTATUS(std::system(
                  (std::string(POLYBUS_SIM_LAUNCHER) + " -n 2 --world " + world + " -- /bin/true 2>/dev/null").c_str())),
              2);

    // A good world reaches the program, which finds the file in POLYBUS_SIM_WORLD. (In
    // a sanitizer build the preloaded simulator brings the sanitizer runtime into a
    // shell that was not built with it.)
    const std::string good = write("good.toml", kAdapters);
    const std::string check = "ASAN_OPTIONS=verify_asan_link_order=0 " + std::string(POLYBUS_SIM_LAUNCHER) + " --world " + good +
                              " -- /bin/sh -c 'test \"$POLYBUS_SIM_WORLD\" = \"" + good + "\"'";
    const int ok = std::system(check.c_str());
    ASSERT_TRUE(WIFEXITED(ok));
    EXPECT_EQ(WEXITSTATUS(ok), 0);
}

}  // namespace
