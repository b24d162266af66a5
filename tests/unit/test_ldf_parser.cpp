// LDF parsing and signal values without an adapter: prepared text into records, the
// corpus of real files, and the physical/raw conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "database/ldf_internal.h"

using namespace polybus::ldf;

namespace {

LDF_CODING decode(const std::string& file) {
    LDF_CODING c{};
    decode_text(prepare(file), c);
    return c;
}

bool read_corpus(const std::string& name, std::string& out) {
    std::ifstream f(std::string(POLYBUS_CORPUS_DIR) + "/ldf/" + name, std::ios::binary);
    if (!f) return false;
    std::stringstream ss;
    ss << f.rdbuf();
    out = ss.str();
    return true;
}

#define LOAD_CORPUS(var, name)                                                           \
    std::string var##_text;                                                              \
    if (!read_corpus(name, var##_text)) GTEST_SKIP() << "corpus file " name " not found"; \
    LDF_CODING var = decode(var##_text)

const LDF_LIN_FRAME* frame(const LDF_CODING& c, const char* name) {
    return find_frame(const_cast<LDF_CODING*>(&c), name);
}

const LDF_LIN_SIGNAL* signal(const LDF_CODING& c, const char* f, const char* s) {
    LDF_LIN_FRAME* fr = find_frame(const_cast<LDF_CODING*>(&c), f);
    return fr == nullptr ? nullptr : find_signal(const_cast<LDF_CODING*>(&c), fr, s);
}

const LDF_NODE_ATTR* attributes(const LDF_CODING& c, const char* node) {
    for (uint32_t i = 0; i < c.nodeAttrCount; ++i)
        if (std::strcmp(c.nodeAttrs[i].nodeName, node) == 0) return &c.nodeAttrs[i];
    return nullptr;
}

}  // namespace

TEST(LdfText, CommentsAndWhiteSpaceGoQuotedSpacesStay) {
    EXPECT_EQ(prepare("a /* b */ c // d\r\n e \"x  y\"\t;"), "ace\"x  y\";");
    // An unterminated block comment runs to the end; "//" inside quotes is text.
    EXPECT_EQ(prepare("k=\"a//b\"; /* open"), "k=\"a//b\";");
    EXPECT_EQ(section("X{a{b}c}Y{d}", "Y"), "{d}");
    EXPECT_EQ(section("X{a{b}c}", "X"), "{a{b}c}");
    EXPECT_EQ(section("X{a{b", "X"), "{a{b") << "unbalanced braces run to the end";
    EXPECT_EQ(section("X{a}", "Z"), "");
}

TEST(LdfText, NumbersAndVersions) {
    EXPECT_EQ(integer("0x3C"), 60);
    EXPECT_EQ(integer("010"), 10) << "a leading 0 is not octal";
    EXPECT_EQ(integer("-12ms"), -12);
    EXPECT_EQ(integer("abc"), 0);
    EXPECT_EQ(integer("99999999999999999999"), INT64_MAX);
    EXPECT_DOUBLE_EQ(decimal("10.5ms"), 10.5);
    EXPECT_DOUBLE_EQ(decimal("+0.1"), 0.1);
    EXPECT_EQ(version_number("\"2.1\""), 210u);
    EXPECT_EQ(version_number("\"1.3\""), 130u);
    EXPECT_EQ(version_number("\"J2602_1_1.0\""), 200u);
}

TEST(LdfCorpus, Lin22HeaderNodesFramesAndEncodings) {
    LOAD_CORPUS(c, "lin22.ldf");
    EXPECT_EQ(c.protocolVersion, 220u);
    EXPECT_EQ(c.languageVersion, 220u);
    EXPECT_EQ(c.linSpeed, 19200u);
    ASSERT_NE(c.node, nullptr);
    EXPECT_STREQ(c.node->masterName, "CEM");
    EXPECT_FLOAT_EQ(c.node->timeBase, 5.0f);
    EXPECT_FLOAT_EQ(c.node->jitter, 0.1f);
    ASSERT_EQ(c.node->slaveCount, 2u);
    EXPECT_STREQ(c.node->slaveNames[1], "RSM");

    ASSERT_EQ(c.frameCount, 5u);
    const LDF_LIN_FRAME* f = frame(c, "LSM_Frm2");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->id, 3);
    EXPECT_STREQ(f->publisher, "LSM");
    EXPECT_EQ(f->size, 1);
    EXPECT_EQ(f->frameKind, 0u);
    ASSERT_EQ(f->signalCount, 2u);
    EXPECT_STREQ(f->signals[1].name, "IntTest");
    EXPECT_EQ(f->signals[1].bitOffset, 1u);
    EXPECT_EQ(f->signals[1].size, 2u);
    EXPECT_DOUBLE_EQ(f->signals[1].maxRaw, 3.0);
    ASSERT_EQ(f->signals[1].subscriberCount, 1u);
    EXPECT_STREQ(f->signals[1].subscribers[0], "CEM");

    // Encodings are copied into the signal through the representation list.
    const LDF_LIN_SIGNAL* light = signal(c, "RSM_Frm1", "RightIntLightsSwitch");
    ASSERT_NE(light, nullptr);
    EXPECT_EQ(light->bitOffset, 8u);
    EXPECT_STREQ(light->coding.name, "LightEncoding");
    ASSERT_EQ(light->coding.logicalCount, 2u);
    EXPECT_EQ(light->coding.logicalValues[1].value, 255);
    EXPECT_STREQ(light->coding.logicalValues[1].text, "error");
    ASSERT_EQ(light->coding.physicalCount, 1u);
    const LDF_PHYSICAL_VALUE& p = light->coding.physicalValues[0];
    EXPECT_EQ(p.minimum, 1);
    EXPECT_EQ(p.maximum, 254);
    EXPECT_DOUBLE_EQ(p.scale, 1.0);
    EXPECT_DOUBLE_EQ(p.offset, 100.0);
    EXPECT_STREQ(p.unit, "lux");
    const LDF_LIN_SIGNAL* ilr = signal(c, "CEM_Frm1", "InternalLightsRequest");
    ASSERT_NE(ilr, nullptr);
    EXPECT_EQ(ilr->subscriberCount, 2u);
    EXPECT_STREQ(ilr->coding.name, "Dig2Bit");
}

TEST(LdfCorpus, Lin22SchedulesAndNodeAttributes) {
    LOAD_CORPUS(c, "lin22.ldf");
    ASSERT_EQ(c.scheduleCount, 5u);
    EXPECT_STREQ(c.schedules[0].name, "Configuration_Schedule");
    // Configuration commands name no frame: zero frames, delays kept.
    ASSERT_EQ(c.schedules[0].entryCount, 10u);
    EXPECT_EQ(c.schedules[0].entries[0].frame.name, nullptr);
    EXPECT_FLOAT_EQ(c.schedules[0].entries[0].delay, 15.0f);
    const LDF_LIN_SCH& normal = c.schedules[1];
    ASSERT_EQ(normal.entryCount, 4u);
    EXPECT_STREQ(normal.entries[1].frame.name, "LSM_Frm2");
    EXPECT_EQ(normal.entries[1].frame.id, 3);
    EXPECT_EQ(normal.entries[1].frame.signalCount, 2u);
    EXPECT_EQ(normal.entries[3].frame.name, nullptr) << "event-triggered frames are not frames here";
    EXPECT_FLOAT_EQ(normal.entries[3].delay, 10.0f);
    EXPECT_EQ(c.schedules[4].entryCount, 8u);

    ASSERT_EQ(c.nodeAttrCount, 2u);
    const LDF_NODE_ATTR* rsm = attributes(c, "RSM");
    ASSERT_NE(rsm, nullptr);
    EXPECT_EQ(rsm->protocol, 200);
    EXPECT_EQ(rsm->configuredNad, 0x20);
    EXPECT_EQ(rsm->supplierId, 0x4E4Eu);
    EXPECT_EQ(rsm->functionId, 0x4553u);
    EXPECT_EQ(rsm->variant, 1u);
    EXPECT_STREQ(rsm->responseError, "RSMerror");
    EXPECT_FLOAT_EQ(rsm->p2Min, 150.0f);
    EXPECT_FLOAT_EQ(rsm->stMin, 50.0f);
    ASSERT_EQ(rsm->configurableFrameCount, 4u);
    EXPECT_STREQ(rsm->configurableFrames[0], "Node_Status_Event");
    EXPECT_STREQ(rsm->configurableFrames[3], "RSM_Frm2");
    const LDF_NODE_ATTR* lsm = attributes(c, "LSM");
    ASSERT_NE(lsm, nullptr);
    EXPECT_EQ(lsm->initialNad, 0x01);
    EXPECT_EQ(lsm->variant, 0u);
    ASSERT_EQ(lsm->faultStateCount, 1u);
    EXPECT_STREQ(lsm->faultStateSignals[0], "IntTest");
    EXPECT_FLOAT_EQ(lsm->nAsTimeout, 1000.0f);
    EXPECT_FLOAT_EQ(lsm->nCrTimeout, 1000.0f);
    EXPECT_EQ(lsm->configurableFrameCount, 4u);
}

TEST(LdfCorpus, DiagnosticFramesAndTheMasterRequestPublisher) {
    LOAD_CORPUS(c, "lin_diagnostics.ldf");
    const LDF_LIN_FRAME* req = frame(c, "MasterReq");
    const LDF_LIN_FRAME* resp = frame(c, "SlaveResp");
    ASSERT_NE(req, nullptr);
    ASSERT_NE(resp, nullptr);
    EXPECT_EQ(req->id, 60);
    EXPECT_EQ(req->frameKind, 1u);
    EXPECT_EQ(req->size, 8);
    EXPECT_STREQ(req->publisher, "CEM");
    ASSERT_EQ(req->signalCount, 8u);
    EXPECT_STREQ(req->signals[7].publisher, "CEM");
    EXPECT_EQ(req->signals[7].bitOffset, 56u);
    EXPECT_EQ(req->signals[7].isDiagnostic, 1u);
    EXPECT_EQ(resp->publisher, nullptr) << "the slave response keeps no publisher";
}

TEST(LdfCorpus, OlderAndJ2602Files) {
    LOAD_CORPUS(v13, "lin13.ldf");
    EXPECT_EQ(v13.protocolVersion, 130u);
    const LDF_LIN_FRAME* f = frame(v13, "VL1_CEM_Frm2");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->id, 48);
    EXPECT_EQ(f->size, 0) << "a LIN 1.3 frame without a length keeps 0";
    EXPECT_EQ(frame(v13, "VL1_CEM_Frm1")->size, 3);
    LOAD_CORPUS(j, "j2602_1.ldf");
    EXPECT_EQ(j.protocolVersion, 200u);
    EXPECT_GT(j.frameCount, 0u);
}

TEST(LdfCorpus, EveryFileLoadsWithFramesAndNamedRecords) {
    const char* files[] = {"Python_LIN_testLDF.ldf", "iso17987.ldf", "j2602_1.ldf", "j2602_1_no_values.ldf",
                           "ldf_with_sporadic_frames.ldf", "lin13.ldf", "lin20.ldf", "lin21.ldf", "lin22.ldf",
                           "lin_diagnostics.ldf", "lin_encoders.ldf", "lin_schedules.ldf",
                           "no_signal_subscribers.ldf"};
    for (const char* name : files) {
        std::string text;
        if (!read_corpus(name, text)) GTEST_SKIP() << "corpus directory not found";
        LDF_CODING c = decode(text);
        EXPECT_GT(c.frameCount, 0u) << name;
        EXPECT_GT(c.linSpeed, 0u) << name;
        for (uint32_t i = 0; i < c.frameCount; ++i) {
            const LDF_LIN_FRAME& fr = c.frames[i];
            ASSERT_NE(fr.name, nullptr) << name;
            for (uint32_t k = 0; k < fr.signalCount; ++k) {
                EXPECT_NE(fr.signals[k].name, nullptr) << name;
                EXPECT_LT(fr.signals[k].bitOffset, 64u) << name << " " << fr.name;
            }
        }
        for (uint32_t i = 0; i < c.scheduleCount; ++i) EXPECT_NE(c.schedules[i].name, nullptr) << name;
    }
}

TEST(LdfQuirks, SectionsEntriesAndDiagnosticSignals) {
    const LDF_CODING c = decode(R"(
        LIN_protocol_version = "2.1"; LIN_speed = 10.417 kbps;
        /* Frames { Fake: 1, M, 1 { A, 0; } } */
        Nodes { Master: M, 10 ms, 1 ms; Slaves: S; }
        Signals { A: 8, {1, 2}, S, M; B: 4, 0x3, M, S; }
        Diagnostic_signals { D0: 8, 5; }
        Frames { F: 0x10, S, 2 { A, 0; B, 8; Missing, 12; } }
        Diagnostic_frames { MasterReq: 0x3C { D0, 0; } }
        Schedule_tables { T { F delay 10 ms; Nope delay 5 ms; F delay 2.5 ms; } }
        Node_attributes { S { configured_NAD = 3; } }
    )");
    EXPECT_EQ(c.protocolVersion, 210u);
    EXPECT_EQ(c.linSpeed, 10417u);
    ASSERT_EQ(c.frameCount, 2u) << "the commented-out section does not hide the real one";
    const LDF_LIN_FRAME& f = c.frames[0];
    EXPECT_STREQ(f.name, "F");
    ASSERT_EQ(f.signalCount, 2u) << "signals missing from the list are skipped";
    EXPECT_EQ(f.signals[0].initIsArray, 1u);
    EXPECT_EQ(f.signals[0].initArray[0], 1);
    EXPECT_EQ(f.signals[0].initArray[1], 2);
    EXPECT_EQ(f.signals[1].initValue, 3);
    // The diagnostic signal keeps its own name, size and value, and the publisher of
    // the last ordinary signal.
    const LDF_LIN_FRAME& req = c.frames[1];
    ASSERT_EQ(req.signalCount, 1u);
    EXPECT_EQ(req.signals[0].initValue, 5);
    EXPECT_EQ(req.signals[0].size, 8u);
    EXPECT_STREQ(req.publisher, "M");
    ASSERT_EQ(c.scheduleCount, 1u);
    ASSERT_EQ(c.schedules[0].entryCount, 3u);
    EXPECT_EQ(c.schedules[0].entries[1].frame.name, nullptr);
    EXPECT_FLOAT_EQ(c.schedules[0].entries[1].delay, 5.0f);
    EXPECT_FLOAT_EQ(c.schedules[0].entries[2].delay, 2.5f);
    ASSERT_EQ(c.nodeAttrCount, 1u);
    EXPECT_STREQ(c.nodeAttrs[0].nodeName, "S");
    EXPECT_EQ(c.nodeAttrs[0].configuredNad, 0) << "without configurable_frames nothing is read";
}

TEST(LdfQuirks, BoundsAndLongSectionsAreSafe) {
    // 20 subscribers: the first 16 are kept.
    std::string subs;
    for (int i = 0; i < 20; ++i) subs += ", N" + std::to_string(i);
    // A Signals section far beyond 32 KiB is read whole.
    std::string signals, frames;
    for (int i = 0; i < 3000; ++i) {
        signals += "Signal_number_" + std::to_string(i) + ": 8, 0, M" + (i == 0 ? subs : std::string(", S")) + ";\n";
        if (i % 8 == 0) frames += "Fr" + std::to_string(i / 8) + ": " + std::to_string(i / 8 % 60) + ", M, 8 {";
        frames += "Signal_number_" + std::to_string(i) + ", " + std::to_string(i % 8 * 8) + ";";
        if (i % 8 == 7) frames += "}\n";
    }
    const LDF_CODING c = decode("LIN_speed = 19.2 kbps; Signals {" + signals + "} Frames {" + frames + "}");
    ASSERT_EQ(c.frameCount, 375u);
    EXPECT_EQ(c.frames[0].signals[0].subscriberCount, 16u);
    EXPECT_STREQ(c.frames[374].signals[7].name, "Signal_number_2999");

    // Broken text: unbalanced braces, lone quotes, binary bytes. Nothing to check but
    // that it parses without touching memory it does not own.
    const char* broken[] = {"Signals { A: 8, 0, M; Frames { F: 1, M, 1 { A, 0; ",
                            "Nodes { Master: \"M, 1; } Signals { \" }",
                            "Schedule_tables { T { F delay } } Node_attributes { N { configurable_frames { ",
                            "Signal_encoding_types { E { physical_value, ; logical_value } }",
                            "Frames { } } } Signals { :;:;:;, {{{{ }"};
    for (const char* b : broken) decode(b);
    std::string garbage(4096, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>((i * 7919) & 0xFF);
    decode(garbage);
}

TEST(LdfQuirks, SectionsAndNamesResolveToTheirFirstOccurrence) {
    // "Signals{" first occurs at the end of "ZSignals{": that is the section read, as a
    // plain search for the name and its brace finds it. "Frames" without a brace is not
    // a section.
    LDF_CODING c = decode("Frames = 1; ZSignals { A: 8, 1, M; } Signals { A: 8, 2, M; } "
                          "Frames { F: 1, M, 1 { A, 0; } }");
    ASSERT_EQ(c.frameCount, 1u);
    ASSERT_EQ(c.frames[0].signalCount, 1u);
    EXPECT_EQ(c.frames[0].signals[0].initValue, 1);

    // Thousands of names, each given twice: frames, schedules and encodings take the
    // first signal, frame, representation and encoding of a name.
    std::string signals, frames, schedule, encodings, reps;
    const int n = 3000;
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i < n; ++i) {
            const std::string k = std::to_string(i);
            signals += "Sig" + k + ": 8, " + std::to_string(pass == 0 ? i % 200 : 255) + ", M;";
            frames += "Fr" + k + ": " + std::to_string(pass == 0 ? i % 60 : 61) + ", M, 1 { Sig" + k + ", 0; }";
            schedule += "Fr" + k + " delay 1 ms;";
            encodings += "Enc" + k + " { physical_value, 0, 255, " + (pass == 0 ? "2" : "3") + ", 0, \"u\"; }";
            reps += (pass == 0 ? "Enc" : "Other") + k + ": Sig" + k + ";";
        }
    c = decode("Signals {" + signals + "} Frames {" + frames + "} Schedule_tables { T {" + schedule +
               "} } Signal_encoding_types {" + encodings + "} Signal_representation {" + reps + "}");
    ASSERT_EQ(c.frameCount, 2u * n);
    ASSERT_EQ(c.scheduleCount, 1u);
    ASSERT_EQ(c.schedules[0].entryCount, 2u * n);
    for (int i = 0; i < n; i += 97) {
        const LDF_LIN_FRAME& f = c.frames[n + i];  // the second frame of the name
        ASSERT_EQ(f.signalCount, 1u);
        EXPECT_EQ(f.signals[0].initValue, i % 200) << "Sig" << i;
        ASSERT_EQ(f.signals[0].coding.physicalCount, 1u) << "Sig" << i;
        EXPECT_DOUBLE_EQ(f.signals[0].coding.physicalValues[0].scale, 2.0) << "Sig" << i;
        EXPECT_EQ(c.schedules[0].entries[n + i].frame.id, i % 60) << "Fr" << i;
    }
}

TEST(LdfValues, PhysicalLogicalAndRawConversions) {
    LDF_CODING c = decode(R"(
        LIN_protocol_version = "2.1"; LIN_speed = 19.2 kbps;
        Nodes { Master: M, 5 ms, 0.1 ms; Slaves: S; }
        Signals { Light: 8, 0, S, M; Temp: 8, 0, S, M; Wide: 12, 0, S, M; Nib: 8, 0, S, M; }
        Frames { F: 1, S, 2 { Light, 0; Temp, 8; } G: 2, S, 2 { Nib, 4; } H: 3, S, 2 { Wide, 0; } }
        Signal_encoding_types {
            LightEnc { logical_value, 0, "Off"; physical_value, 0, 254, 1, 100, "lux"; logical_value, 255, "error"; }
            TempEnc { physical_value, 0, 0, 0.5, -40, "C"; }
            TwoRanges { physical_value, 0, 99, 1, 0, "a"; physical_value, 100, 200, 10, 0, "b"; }
        }
        Signal_representation { LightEnc: Light; TempEnc: Temp; TwoRanges: Wide; }
    )");
    LDF_CODING* h = &c;
    LDF_LIN_FRAME* f = find_frame(h, "F");
    ASSERT_NE(f, nullptr);
    LDF_LIN_SIGNAL& light = *find_signal(h, f, "Light");
    LDF_LIN_SIGNAL& temp = *find_signal(h, f, "Temp");

    // A logical entry wins over a physical range that covers the same raw value.
    set_physical(light, 255);
    EXPECT_EQ(light.initValue, 255);
    set_physical(light, 150);  // physical: (150 - 100) / 1
    EXPECT_EQ(light.initValue, 50);
    EXPECT_DOUBLE_EQ(get_physical(light), 150.0);
    char text[64];
    value_text(light, text);
    EXPECT_STREQ(text, "150.000000 lux");
    light.initValue = 255;
    value_text(light, text);
    EXPECT_STREQ(text, "error");

    // A 0, 0 range stands for 0 .. maxRaw after the first set, in the shared entry.
    set_physical(temp, 20.0);  // (20 + 40) / 0.5 = 120
    EXPECT_EQ(temp.initValue, 120);
    EXPECT_EQ(temp.coding.physicalValues[0].maximum, 255);
    EXPECT_DOUBLE_EQ(get_physical(temp), 20.0);
    set_physical(temp, -39.76);  // 0.48 rounds half away from zero: 0
    EXPECT_EQ(temp.initValue, 0);
    set_physical(temp, -39.75);  // exactly half: away from zero
    EXPECT_EQ(temp.initValue, 1);

    // Out of the first range, the next range that holds its own raw result stores it.
    LDF_LIN_FRAME* hf = find_frame(h, "H");
    LDF_LIN_SIGNAL& wide = hf->signals[0];
    set_physical(wide, 1500);  // range a: 1500 > 99; range b: 150
    EXPECT_EQ(wide.initValue, 150);
    EXPECT_DOUBLE_EQ(get_physical(wide), 1500.0);
    set_physical(wide, 5000);  // no range holds it: the truncated value stays
    EXPECT_EQ(wide.initValue, 5000);

    // Frames are little-endian bit fields.
    LDF_LIN_FRAME* g = find_frame(h, "G");
    g->signals[0].initValue = 0xAB;
    unsigned char bytes[2] = {0xFF, 0xFF};
    frame_to_raw(*g, bytes);
    EXPECT_EQ(bytes[0], 0xB0);
    EXPECT_EQ(bytes[1], 0x0A);
    const unsigned char in[2] = {0x34, 0x12};
    raw_to_frame(*f, in);
    EXPECT_EQ(light.initValue, 0x34);
    EXPECT_EQ(temp.initValue, 0x12);
}

TEST(LdfValues, ChecksumKindByVersionAndIdentifier) {
    EXPECT_EQ(checksum_kind(130, 0x10), 0);
    EXPECT_EQ(checksum_kind(210, 0x10), 1);
    EXPECT_EQ(checksum_kind(200, 0x3B), 1);
    for (uint8_t id = 0x3C; id <= 0x3F; ++id) EXPECT_EQ(checksum_kind(220, id), 0) << int(id);
    EXPECT_EQ(checksum_kind(199, 0x01), 0);
}

TEST(LdfValues, IndexedLookUpsKeepTheFirstMatch) {
    LDF_CODING c = decode(R"(
        Signals { A: 8, 0, M, S; B: 8, 0, M, S; }
        Frames { F: 1, M, 1 { A, 0; } F: 2, M, 1 { B, 0; } G: 3, M, 1 { A, 0; A, 4; } }
    )");
    index_database(&c);
    EXPECT_EQ(find_frame(&c, "F")->id, 1);
    EXPECT_EQ(find_frame(&c, "G")->id, 3);
    EXPECT_EQ(find_frame(&c, "F")->id, 1) << "the remembered last frame is still the first F";
    EXPECT_EQ(find_frame(&c, "Z"), nullptr);
    LDF_LIN_FRAME* g = find_frame(&c, "G");
    EXPECT_EQ(find_signal(&c, g, "A")->bitOffset, 0u);
    // An application that renames a record never gets a wrong one.
    c.frames[0].name[0] = 'X';
    EXPECT_EQ(find_frame(&c, "F")->id, 2);
}
